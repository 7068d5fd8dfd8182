// Q_SelectiveColorBitmap: checks in their order, the weights of each range
// with the rounding of the ink change, palettes and progress, and the AVX2
// loop against the scalar one.
#include "SelClr.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "kit.h"

namespace {

using kit::Rgb;

kit::Format Kind(int32_t bits, int32_t order = ORDER_BGR) { return kit::Format{bits, order}; }

SelectiveColorOptions Options(int32_t method = SELCOLOR_ABSOLUTE) {
  SelectiveColorOptions o{};
  o.StructSize = sizeof o;
  o.Method = method;
  return o;
}

TEST(SelectiveColor, ChecksInOrder) {
  kit::Bitmap bmp(Kind(24), 3, 2), bad(Kind(24), 3, 2), gray32(Kind(32, ORDER_GRAY), 3, 2);
  kit::Bitmap signedBmp(Kind(24), 3, 2), gray(Kind(8, ORDER_GRAY), 3, 2), gray16(Kind(16, ORDER_GRAY), 3, 2);
  bad->StructSize = 200;
  gray32->Flags |= BITMAP_SIGNED;
  signedBmp->Flags |= BITMAP_SIGNED;
  const SelectiveColorOptions ok = Options();
  SelectiveColorOptions size = ok, method = ok, high = ok, low = ok;
  size.StructSize = sizeof ok - 4;
  method.Method = 2;
  high.Ranges[SELCOLOR_REDS].Cyan = 101;
  low.Ranges[SELCOLOR_BLACKS].Black = -101;
  kit::ExpectStatuses({
      {"flags first", [&] { return Q_SelectiveColorBitmap(nullptr, nullptr, 1); }, RC_INVALID_PARAMETER},
      {"null", [&] { return Q_SelectiveColorBitmap(nullptr, nullptr, 0); }, RC_NO_BITMAP},
      {"record size", [&] { return Q_SelectiveColorBitmap(bad, nullptr, 0); }, RC_INVALID_STRUCT_SIZE},
      {"gray32", [&] { return Q_SelectiveColorBitmap(gray32, nullptr, 0); }, RC_GRAY32_NOT_SUPPORTED},
      {"signed", [&] { return Q_SelectiveColorBitmap(signedBmp, nullptr, 0); }, RC_SIGNED_DATA_NOT_SUPPORTED},
      {"null options", [&] { return Q_SelectiveColorBitmap(bmp, nullptr, 0); }, RC_NULL_OPTIONS},
      {"options size", [&] { return Q_SelectiveColorBitmap(bmp, &size, 0); }, RC_INVALID_STRUCT_SIZE},
      {"method 2", [&] { return Q_SelectiveColorBitmap(bmp, &method, 0); }, RC_INVALID_PARAMETER},
      {"cyan 101", [&] { return Q_SelectiveColorBitmap(bmp, &high, 0); }, RC_INVALID_PARAMETER},
      {"black -101", [&] { return Q_SelectiveColorBitmap(bmp, &low, 0); }, RC_INVALID_PARAMETER},
      {"range before gray", [&] { return Q_SelectiveColorBitmap(gray, &high, 0); }, RC_INVALID_PARAMETER},
      {"gray", [&] { return Q_SelectiveColorBitmap(gray, &ok, 0); }, RC_UNSUPPORTED_BITMAP},
      {"gray 16", [&] { return Q_SelectiveColorBitmap(gray16, &ok, 0); }, RC_UNSUPPORTED_BITMAP},
      {"ok", [&] { return Q_SelectiveColorBitmap(bmp, &ok, 0); }, RC_SUCCESS},
  });
  bad->StructSize = BITMAP_RECORD_SIZE;
}

// Weights in units of 1/510 for 8-bit samples (1/131070 for 16-bit).
TEST(SelectiveColor, RangesWeightsAndRounding) {
  struct Case {
    const char *name;
    kit::Format format;
    int32_t method;
    std::vector<std::pair<int32_t, SelectiveColorAdjust>> adjust;
    kit::Pixel in, out;
  } cases[] = {
      // Pure red belongs to the reds only (weight 510): 510 × 50 / 200 = 127.5,
      // rounded away from zero.
      {"pure red takes only reds",
       Kind(24),
       SELCOLOR_ABSOLUTE,
       {{SELCOLOR_REDS, {50, 0, 0, 0}},
        {SELCOLOR_YELLOWS, {-100, -100, -100, -100}},
        {SELCOLOR_MAGENTAS, {-100, -100, -100, -100}},
        {SELCOLOR_NEUTRALS, {-100, -100, -100, -100}},
        {SELCOLOR_WHITES, {-100, -100, -100, -100}},
        {SELCOLOR_BLACKS, {-100, -100, -100, -100}}},
       Rgb(255, 0, 0),
       Rgb(127, 0, 0)},
      // Relative: the magenta ink 255 changes by -127.5 -> -128.
      {"relative scales by the ink",
       Kind(24),
       SELCOLOR_RELATIVE,
       {{SELCOLOR_REDS, {-60, -50, 0, 0}}},
       Rgb(255, 0, 0),
       Rgb(255, 128, 0)},
      // Black adds to each ink: 510 × 20 / 200 = 51; magenta is held at 1.
      {"black joins every ink",
       Kind(24),
       SELCOLOR_ABSOLUTE,
       {{SELCOLOR_REDS, {0, 0, 0, 20}}},
       Rgb(255, 0, 0),
       Rgb(204, 0, 0)},
      // White: whites 510, neutrals 0; yellow 510 × 40 / 200 = 102.
      {"white is whites",
       Kind(32),
       SELCOLOR_ABSOLUTE,
       {{SELCOLOR_WHITES, {0, 0, 40, 0}}, {SELCOLOR_NEUTRALS, {100, 100, 100, 100}}},
       Rgb(255, 255, 255, 9),
       Rgb(255, 255, 153, 9)},
      // Mid gray: neutrals 510 - 1 - 1 = 508, whites 2: (5080 + 200) / 200 = 26.4.
      {"mid gray neutrals and whites",
       Kind(24, ORDER_RGB),
       SELCOLOR_ABSOLUTE,
       {{SELCOLOR_NEUTRALS, {10, 0, 0, 0}}, {SELCOLOR_WHITES, {100, 0, 0, 0}}},
       Rgb(128, 128, 128),
       Rgb(102, 128, 128)},
      // Orange: reds 254, yellows 256: (254 × 20 - 256 × 10) / 200 = 12.6.
      {"orange reds and yellows",
       Kind(24),
       SELCOLOR_ABSOLUTE,
       {{SELCOLOR_REDS, {0, 20, 0, 0}}, {SELCOLOR_YELLOWS, {0, -10, 0, 0}}},
       Rgb(255, 128, 0),
       Rgb(255, 115, 0)},
      // Dark blue: blues 2 × 60 = 120, magentas 2 × 20 = 40 (red 20 over
      // green 0), blacks 2 × (255 - 160) = 190, neutrals 510 - 95 - 255 = 160.
      // cyan: (120 × 10 + 190 × 100) / 200 = 101; yellow: 160 × -50 / 200 = -40.
      {"dark blue",
       Kind(24),
       SELCOLOR_ABSOLUTE,
       {{SELCOLOR_BLUES, {10, 0, 0, 0}},
        {SELCOLOR_BLACKS, {100, 0, 0, 0}},
        {SELCOLOR_NEUTRALS, {0, 0, -50, 0}}},
       Rgb(20, 0, 80),
       Rgb(0, 0, 120)},
      {"48-bit red absolute",
       Kind(48),
       SELCOLOR_ABSOLUTE,
       {{SELCOLOR_REDS, {50, 0, 0, 0}}},
       Rgb(65535, 0, 0),
       Rgb(32767, 0, 0)},
      {"64-bit red relative",
       Kind(64),
       SELCOLOR_RELATIVE,
       {{SELCOLOR_REDS, {0, -50, 0, 0}}},
       Rgb(65535, 0, 0, 4),
       Rgb(65535, 32768, 0, 4)},
      // 5-5-5 rows are 8-bit: 31 reads as 255.
      {"16-bit colour",
       Kind(16),
       SELCOLOR_ABSOLUTE,
       {{SELCOLOR_REDS, {100, 0, 0, 0}}},
       Rgb(31, 0, 0),
       Rgb(0, 0, 0)},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    SelectiveColorOptions o = Options(c.method);
    for (const auto &[range, a] : c.adjust) o.Ranges[range] = a;
    kit::Bitmap bmp(c.format, 2, 1, {c.in, c.in});
    ASSERT_EQ(Q_SelectiveColorBitmap(bmp, &o, 0), RC_SUCCESS);
    EXPECT_EQ(bmp.Pixels(), std::vector<kit::Pixel>(2, c.out));
  }
}

TEST(SelectiveColor, PalettesRegionsAndProgress) {
  SelectiveColorOptions o = Options();
  o.Ranges[SELCOLOR_REDS] = {50, 0, 0, 0};
  std::vector<PaletteEntry> pal(16, PaletteEntry{0, 0, 255, 0});
  kit::Bitmap bmp(Kind(4), 3, 1, {kit::Level(0), kit::Level(1), kit::Level(0)}, pal.data());
  kit::SetRectRegion(bmp, 0, 0, 1, 1);
  const auto stored = bmp.StoredBytes();
  {
    kit::ScopedCallback cb([](int32_t) { return RC_SUCCESS; });
    ASSERT_EQ(Q_SelectiveColorBitmap(bmp, &o, 0), RC_SUCCESS);
    EXPECT_EQ(cb.Reports(), (std::vector<int32_t>{0, 100}));
  }
  EXPECT_EQ(bmp.StoredBytes(), stored);
  EXPECT_EQ(bmp.ColorAt(2, 0), Rgb(127, 0, 0));
  kit::Bitmap rows(Kind(24), 9, 7, std::vector<kit::Pixel>(63, Rgb(255, 0, 0)));
  kit::SetEllipseRegion(rows, 1, 1, 8, 6);
  ASSERT_EQ(Q_SelectiveColorBitmap(rows, &o, 0), RC_SUCCESS);
  for (int32_t y = 0; y < 7; ++y)
    for (int32_t x = 0; x < 9; ++x)
      EXPECT_EQ(rows.At(x, y), kit::InRegion(rows, x, y) ? Rgb(127, 0, 0) : Rgb(255, 0, 0)) << x << "," << y;
  const auto setup = [] {
    kit::Bitmap b(Kind(48), 5, 9);
    b.Randomize(4);
    return b;
  };
  const auto call = [&](kit::Bitmap &b) { return Q_SelectiveColorBitmap(b, &o, 0); };
  EXPECT_GE(kit::CheckCancellation(setup, call), 9);
  EXPECT_GE(kit::CheckAllocationFailures(setup, call), 1);
  // Each row reports as it is read, before it changes: a cancel at the third
  // report leaves rows 2.. as they were (24- and 48-bit rows alike).
  for (const int32_t bits : {24, 48}) {
    kit::Bitmap b(Kind(bits), 2, 9, std::vector<kit::Pixel>(18, Rgb(255, 0, 0)));
    int32_t n = 0;
    kit::ScopedCallback cb([&](int32_t) { return ++n == 3 ? kit::kCancel : RC_SUCCESS; });
    EXPECT_EQ(Q_SelectiveColorBitmap(b, &o, 0), kit::kCancel);
    EXPECT_EQ(cb.Reports(), (std::vector<int32_t>{11, 22, 33})) << bits;
    for (int32_t y = 0; y < 9; ++y)
      EXPECT_EQ(b.At(1, y), y < 2 ? Rgb(127, 0, 0) : Rgb(255, 0, 0)) << bits << ", " << y;
  }
}

// The planar loops (baseline and AVX2) and the AVX-512 loop give the reference's samples: over
// every 31st 8-bit colour (every value of each channel) for one plan of
// each method, and over random rows of three and four samples with random
// adjustments.
TEST(SelectiveColor, InstructionSetsAgree) {
  std::mt19937 rng(7);
  std::uniform_int_distribution<int32_t> adjust(-100, 100);
  // Random adjustments, or every one `fixed` (±100: the largest sums the
  // loops' quotients meet).
  const auto randomPlan = [&](int32_t method, int32_t fixed = 0) {
    SelectiveColorOptions o = Options(method);
    for (SelectiveColorAdjust &a : o.Ranges)
      a = fixed != 0 ? SelectiveColorAdjust{fixed, fixed, fixed, fixed}
                     : SelectiveColorAdjust{adjust(rng), adjust(rng), adjust(rng), adjust(rng)};
    return img::selclr::MakePlan(o);
  };
  constexpr int32_t kColours = (1 << 24) / 31 + 1;
  std::vector<uint8_t> every(size_t{3} * kColours);
  for (uint32_t i = 0; i < kColours; ++i) {
    const uint32_t c = 31 * i;
    every[3 * i] = static_cast<uint8_t>(c), every[3 * i + 1] = static_cast<uint8_t>(c >> 8),
              every[3 * i + 2] = static_cast<uint8_t>(c >> 16);
  }
  for (const img::Isa isa : {img::Isa::Sse2, img::Isa::Avx2, img::Isa::Avx512}) {
    if (!img::IsaAvailable(isa)) continue;
    SCOPED_TRACE(img::IsaName(isa));
    for (const auto &[method, fixed] : {std::pair{SELCOLOR_RELATIVE, 0},
                                        {SELCOLOR_ABSOLUTE, 0},
                                        {SELCOLOR_RELATIVE, 100},
                                        {SELCOLOR_ABSOLUTE, -100}}) {
      const img::selclr::Plan plan = randomPlan(method, fixed);
      std::vector<uint8_t> reference = every, fast = every;
      img::selclr::SelectRun8(img::Isa::Scalar, reference.data(), 3, 0, kColours, plan);
      img::selclr::SelectRun8(isa, fast.data(), 3, 0, kColours, plan);
      ASSERT_TRUE(reference == fast) << "colours, method " << method << ", adjustments " << fixed;
    }
    for (int32_t round = 0; round < 4; ++round) {
      const img::selclr::Plan plan = randomPlan(round % 2);
      for (const int32_t channels : {3, 4}) {
        const int32_t width = 20001;
        std::vector<uint8_t> reference(static_cast<size_t>(width) * channels);
        for (uint8_t &v : reference) v = static_cast<uint8_t>(rng());
        std::vector<uint8_t> fast = reference;
        img::selclr::SelectRun8(img::Isa::Scalar, reference.data(), channels, 3, width, plan);
        img::selclr::SelectRun8(isa, fast.data(), channels, 3, width, plan);
        ASSERT_TRUE(reference == fast) << "round " << round << ", " << channels << " channels";
      }
    }
  }
}

}  // namespace
