// Q_ColorReplaceBitmap and Q_ColorReplaceWeightsBitmap: checks in their
// order, the weight table, the replace and the mask on rows, gray rows and
// palettes, the bitwise AND of the weights, the swallowed worker status.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "ClrSpc.h"
#include "Clr_Rep.h"
#include "kit.h"

namespace {

using kit::Rgb;

kit::Format Kind(int32_t bits, int32_t order = ORDER_BGR) { return kit::Format{bits, order}; }

constexpr ColorReplaceEntry kBlack{0, 0x000000, 16};

TEST(ColorReplace, ChecksInOrder) {
  kit::Bitmap bmp(Kind(24), 3, 2), bad(Kind(24), 3, 2), gray32(Kind(32, ORDER_GRAY), 3, 2);
  kit::Bitmap signedBmp(Kind(24), 3, 2);
  bad->StructSize = 200;
  gray32->Flags |= BITMAP_SIGNED;
  signedBmp->Flags |= BITMAP_SIGNED;
  const ColorReplaceEntry two[2] = {kBlack, {0, 0xFFFFFF, 0}};
  const auto replace = [](BitmapRecord *b, const ColorReplaceEntry *e, int32_t n, int32_t hue = 0,
                          int32_t sat = 0, int32_t bright = 0, uint32_t flags = 0) {
    return Q_ColorReplaceBitmap(b, e, n, hue, sat, bright, flags);
  };
  kit::ExpectStatuses({
      {"flags first", [&] { return replace(nullptr, nullptr, 0, 0, 0, 0, 1); }, RC_INVALID_PARAMETER},
      {"record size", [&] { return replace(bad, nullptr, 0); }, RC_INVALID_STRUCT_SIZE},
      {"gray32", [&] { return replace(gray32, nullptr, 0); }, RC_GRAY32_NOT_SUPPORTED},
      {"signed", [&] { return replace(signedBmp, nullptr, 0); }, RC_SIGNED_DATA_NOT_SUPPORTED},
      {"null entries", [&] { return replace(bmp, nullptr, 0); }, RC_NULL_OPTIONS},
      {"count 0", [&] { return replace(bmp, &kBlack, 0); }, RC_INVALID_PARAMETER},
      {"fuzziness 0 in the second", [&] { return replace(bmp, two, 2); }, RC_INVALID_PARAMETER},
      {"saturation 1001", [&] { return replace(bmp, &kBlack, 1, 0, 1001); }, RC_INVALID_PARAMETER},
      {"brightness -1001", [&] { return replace(bmp, &kBlack, 1, 0, 0, -1001); }, RC_INVALID_PARAMETER},
      {"hue 18001", [&] { return replace(bmp, &kBlack, 1, 18001); }, RC_INVALID_PARAMETER},
      {"hue -18000", [&] { return replace(bmp, &kBlack, 1, -18000); }, RC_SUCCESS},
      {"hue 18000", [&] { return replace(bmp, &kBlack, 1, 18000); }, RC_SUCCESS},
      {"range before null", [&] { return replace(nullptr, &kBlack, 1, 18001); }, RC_INVALID_PARAMETER},
      {"null last", [&] { return replace(nullptr, &kBlack, 1); }, RC_NO_BITMAP},
      {"weights: flags", [&] { return Q_ColorReplaceWeightsBitmap(nullptr, nullptr, 0, 2); },
       RC_INVALID_PARAMETER},
      {"weights: size", [&] { return Q_ColorReplaceWeightsBitmap(bad, nullptr, 0, 0); },
       RC_INVALID_STRUCT_SIZE},
      {"weights: signed", [&] { return Q_ColorReplaceWeightsBitmap(signedBmp, &kBlack, 1, 0); },
       RC_SIGNED_DATA_NOT_SUPPORTED},
      {"weights: null entries", [&] { return Q_ColorReplaceWeightsBitmap(bmp, nullptr, 1, 0); },
       RC_NULL_OPTIONS},
      {"weights: count -1", [&] { return Q_ColorReplaceWeightsBitmap(bmp, &kBlack, -1, 0); },
       RC_INVALID_PARAMETER},
      {"weights: fuzziness 0", [&] { return Q_ColorReplaceWeightsBitmap(bmp, two, 2, 0); },
       RC_INVALID_PARAMETER},
      {"weights: null last", [&] { return Q_ColorReplaceWeightsBitmap(nullptr, &kBlack, 1, 0); },
       RC_NO_BITMAP},
  });
  bad->StructSize = BITMAP_RECORD_SIZE;
}

// Values by hand: black is Lab (0, 0, 0); fuzziness 16 gives s = 64 and
// 100 gives s = 1000. a and b: 1000 e^(-d^2/s); L: 1000 e^(-6.5 d^2/s).
TEST(ColorReplace, WeightTable) {
  using img::clrrep::BuildWeights;
  using img::clrrep::Weights;
  std::vector<Weights> t(65536);
  const auto at = [&](int32_t i) { return std::vector<uint32_t>{t[i].l, t[i].a, t[i].b}; };
  using V = std::vector<uint32_t>;
  BuildWeights(t.data(), false, false, &kBlack, 1);
  EXPECT_EQ(at(0), (V{1000, 0, 0}));
  EXPECT_EQ(at(2), (V{666, 0, 0}));  // e^-0.40625
  EXPECT_EQ(at(128), (V{0, 1000, 1000}));
  EXPECT_EQ(at(136), (V{0, 367, 367}));  // e^-1
  EXPECT_EQ(at(120), (V{0, 367, 367}));
  // Two colours: each component takes the larger weight before the AND.
  const ColorReplaceEntry two[2] = {kBlack, {0, 0, 100}};
  BuildWeights(t.data(), false, false, two, 2);
  EXPECT_EQ(at(2), (V{974, 0, 0}));
  EXPECT_EQ(at(136), (V{0, 938, 938}));
  // 16-bit rows: a and b by v >> 8, L by v / 100.
  BuildWeights(t.data(), true, false, &kBlack, 1);
  EXPECT_EQ(at(136 * 256 + 255), (V{0, 367, 367}));
  EXPECT_EQ(at(299), (V{666, 0, 0}));
  EXPECT_EQ(at(300), (V{400, 0, 0}));
  // Gray rows: the level (5 G + 2 R + B + 4) >> 3, or bits 8-15 with the
  // gray-level flag; a and b are 1000.
  const ColorReplaceEntry brown{0, 100 | 50 << 8 | 20 << 16, 16},
      flagged{0, COLORREP_GRAY_LEVEL | 77 << 8 | 5, 16};
  BuildWeights(t.data(), false, true, &brown, 1);
  EXPECT_EQ(at(59), (V{1000, 1000, 1000}));
  EXPECT_EQ(at(67), (V{367, 1000, 1000}));
  BuildWeights(t.data(), false, true, &flagged, 1);
  EXPECT_EQ(at(77)[0], 1000u);
  // 16-bit gray: s = (16 << 8)^1.5 = 262144; the flag takes bits 0-15.
  const ColorReplaceEntry level16{0, COLORREP_GRAY_LEVEL | 0x1234, 16};
  BuildWeights(t.data(), true, true, &level16, 1);
  EXPECT_EQ(at(0x1234)[0], 1000u);
  EXPECT_EQ(at(0x1234 + 512)[0], 367u);
  BuildWeights(t.data(), true, true, &brown, 1);
  EXPECT_EQ(at(59 << 8)[0], 1000u);
  // A tolerance whose shift wraps to 0 selects nothing.
  const ColorReplaceEntry wraps{0, COLORREP_GRAY_LEVEL | 0x1234, 1u << 24};
  BuildWeights(t.data(), true, true, &wraps, 1);
  EXPECT_EQ(at(0x1234)[0], 0u);
}

TEST(ColorReplace, RowsGrayRowsAndPalettes) {
  struct Case {
    const char *name;
    kit::Format format;
    ColorReplaceEntry entry;
    int32_t hue, saturation, brightness;
    kit::Pixel in, out;
  } cases[] = {
      // Black selects itself fully: brightness +10 % is (100 × 255 + 500) / 1000 = 26.
      {"black selected", Kind(24), kBlack, 9000, 300, 100, Rgb(0, 0, 0), Rgb(26, 26, 26)},
      {"white far away", Kind(24), kBlack, 9000, 300, 100, Rgb(255, 255, 255), Rgb(255, 255, 255)},
      {"32-bit keeps the fourth", Kind(32), kBlack, 0, 0, -50, Rgb(0, 0, 0, 77), Rgb(0, 0, 0, 77)},
      {"48-bit black", Kind(48), kBlack, 0, 0, 100, Rgb(0, 0, 0), Rgb(6554, 6554, 6554)},
      // Gray rows: the level of (100, 50, 20) is 59, 16-bit 15104.
      {"16-bit gray at the level",
       Kind(16, ORDER_GRAY),
       {0, 100 | 50 << 8 | 20 << 16, 16},
       0,
       0,
       100,
       kit::Level(15104),
       kit::Level(15104 + 6554)},
      {"16-bit gray far",
       Kind(16, ORDER_GRAY),
       {0, 100 | 50 << 8 | 20 << 16, 16},
       0,
       0,
       100,
       kit::Level(0),
       kit::Level(0)},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    kit::Bitmap bmp(c.format, 2, 1, {c.in, c.in});
    ASSERT_EQ(Q_ColorReplaceBitmap(bmp, &c.entry, 1, c.hue, c.saturation, c.brightness, 0), RC_SUCCESS);
    EXPECT_EQ(bmp.Pixels(), std::vector<kit::Pixel>(2, c.out));
  }
}

// A palette entry (1, 1, 1) is Lab (4, 0, 0): its L weight around black is
// 1000 e^(-1.625) = 196, and the selection 196 AND 1000 AND 1000 = 192. With
// brightness +100 % the entry becomes (255 × 192 + 1 × 808) / 1000 = 49; a
// minimum of the weights would give 50.
TEST(ColorReplace, PaletteWeightsAreAnded) {
  uint8_t r = 1, g = 1, b = 1, lab[3];
  ASSERT_EQ(img::ConvertColorPixel(COLORSPACE_LAB, &r, &g, &b, lab), RC_SUCCESS);
  ASSERT_EQ((std::vector<int>{lab[0], lab[1], lab[2]}), (std::vector<int>{4, 0, 0}));
  std::vector<PaletteEntry> pal(4, PaletteEntry{1, 1, 1, 0});
  pal[1] = PaletteEntry{0, 0, 0, 0};
  kit::Bitmap bmp(Kind(2), 2, 1, {kit::Level(0), kit::Level(1)}, pal.data());
  kit::SetRectRegion(bmp, 0, 0, 1, 1);
  const auto stored = bmp.StoredBytes();
  ASSERT_EQ(Q_ColorReplaceBitmap(bmp, &kBlack, 1, 0, 0, 1000, 0), RC_SUCCESS);
  EXPECT_EQ(bmp.StoredBytes(), stored);
  EXPECT_EQ(bmp.ColorAt(0, 0), Rgb(49, 49, 49));
  EXPECT_EQ(bmp.ColorAt(1, 0), Rgb(255, 255, 255));
  // The mask: 196 × 255 / 1000 = 49 for the entry, 255 for black.
  kit::Bitmap mask(Kind(2), 2, 1, {kit::Level(0), kit::Level(1)}, pal.data());
  ASSERT_EQ(Q_ColorReplaceWeightsBitmap(mask, &kBlack, 1, 0), RC_SUCCESS);
  EXPECT_EQ(mask->BitsPerPixel, 8);
  EXPECT_EQ(mask->Palette[mask->Pixels[0]].Red, 49);
  EXPECT_EQ(mask->Palette[mask->Pixels[1]].Red, 255);
}

TEST(ColorReplace, WeightsMakeAnEightBitMask) {
  for (const kit::Format &format : {Kind(24), Kind(48), Kind(64, ORDER_RGB)}) {
    SCOPED_TRACE(format.Name());
    const uint32_t full = format.SampleMax();
    kit::Bitmap bmp(format, 2, 1, {Rgb(0, 0, 0), Rgb(full, full, full)});
    // A refusing callback stops the weighting; the depth conversion still
    // runs and its status is the result: kept.
    kit::ScopedCallback refuse([](int32_t) { return kit::kCancel; });
    ASSERT_EQ(Q_ColorReplaceWeightsBitmap(bmp, &kBlack, 1, 0), RC_SUCCESS);
    EXPECT_FALSE(refuse.Reports().empty());
    EXPECT_EQ(bmp->BitsPerPixel, 8);
  }
  kit::Bitmap bmp(Kind(24), 2, 1, {Rgb(0, 0, 0), Rgb(255, 255, 255)});
  ASSERT_EQ(Q_ColorReplaceWeightsBitmap(bmp, &kBlack, 1, 0), RC_SUCCESS);
  EXPECT_EQ(bmp->ColorOrder, ORDER_GRAY);
  EXPECT_EQ(bmp->Pixels[0], 255);
  EXPECT_EQ(bmp->Pixels[1], 0);
  kit::Bitmap gray(Kind(16, ORDER_GRAY), 2, 1, {kit::Level(0x1234), kit::Level(0)});
  const ColorReplaceEntry level{0, COLORREP_GRAY_LEVEL | 0x1234, 16};
  ASSERT_EQ(Q_ColorReplaceWeightsBitmap(gray, &level, 1, 0), RC_SUCCESS);
  EXPECT_EQ(gray->Pixels[0], 255);
  EXPECT_EQ(gray->Pixels[1], 0);
}

TEST(ColorReplace, AllocationFailuresAndCancellation) {
  const ColorReplaceEntry entry{0, 0x4080C0, 80};
  const auto call = [&](kit::Bitmap &b) { return Q_ColorReplaceBitmap(b, &entry, 1, 4500, 200, 30, 0); };
  for (const kit::Format &format : {Kind(32), Kind(48), Kind(12, ORDER_GRAY)}) {
    SCOPED_TRACE(format.Name());
    const auto setup = [&] {
      kit::Bitmap b(format, 7, 5);
      b.Randomize(9);
      kit::SetEllipseRegion(b, 0, 0, 7, 5);
      return b;
    };
    EXPECT_GE(kit::CheckAllocationFailures(setup, call), 5);
    EXPECT_GE(kit::CheckCancellation(setup, call), 2);
  }
}

// Only pixels with a weight go through the conversions (packed into one
// run): every pixel of random 24- and 48-bit bitmaps, with and without a
// region, is what the row step gives it one pixel at a time; the blend of
// each instruction set is the reference's.
TEST(ColorReplace, PackedRunMatchesPixelByPixel) {
  const ColorReplaceEntry entries[2] = {{0, 0x4080C0, 60}, {0, 0x20E040, 150}};
  img::LabTableSet set{};
  ASSERT_EQ(img::BuildLabTables(&set), RC_SUCCESS);
  for (const int32_t bits : {24, 48})
    for (const bool region : {false, true}) {
      SCOPED_TRACE(testing::Message() << bits << (region ? " region" : ""));
      const bool wide = bits == 48;
      const uint32_t full = wide ? 65535 : 255;
      std::vector<img::clrrep::Weights> weights(wide ? 65536 : 256);
      img::clrrep::BuildWeights(weights.data(), wide, false, entries, 2);
      auto bright = std::make_unique<img::clrrep::BrightnessTable>();
      img::clrrep::FillBrightness(*bright, -70, wide);
      kit::Bitmap bmp(Kind(bits), 41, 6), before(Kind(bits), 41, 6);
      bmp.Randomize(9), before.Randomize(9);
      if (region) kit::SetEllipseRegion(bmp, 3, 0, 40, 6);
      ASSERT_EQ(Q_ColorReplaceBitmap(bmp, entries, 2, -9000, 300, -70, 0), RC_SUCCESS);
      for (int32_t y = 0; y < 6; ++y)
        for (int32_t x = 0; x < 41; ++x) {
          const kit::Pixel in = before.At(x, y);
          kit::Pixel want = in;
          if (kit::InRegion(bmp, x, y)) {
            uint16_t px[3] = {static_cast<uint16_t>(in.v[2]), static_cast<uint16_t>(in.v[1]),
                              static_cast<uint16_t>(in.v[0])};
            uint8_t b8[3] = {static_cast<uint8_t>(px[0]), static_cast<uint8_t>(px[1]),
                             static_cast<uint8_t>(px[2])};
            uint8_t lab[6], hs[8];
            const auto row = [&](uint32_t code, uint8_t *space) {
              if (wide) return img::ConvertColorRow16(code, px, space, &set, 0, 1);
              return img::ConvertColorRow8(code, b8, space, &set, 0, 1);
            };
            row(COLORSPACE_LAB_TABLE, lab);
            uint32_t w;
            if (wide) {
              int16_t a, b;
              std::memcpy(&a, lab + 2, 2), std::memcpy(&b, lab + 4, 2);
              const uint16_t L = static_cast<uint16_t>(lab[0] | lab[1] << 8);
              w = weights[L].l & weights[std::min(a + 32896, 65535)].a &
                  weights[std::min(b + 32896, 65535)].b;
            } else {
              w = weights[lab[0]].l & weights[static_cast<int8_t>(lab[1]) + 128].a &
                  weights[static_cast<int8_t>(lab[2]) + 128].b;
            }
            row(COLORSPACE_HSV, hs);
            if (wide) {
              int32_t h;
              std::memcpy(&h, hs, 4);
              h = (h - 9000 < 0 ? h - 9000 + 36000 : h - 9000) % 36000;
              std::memcpy(hs, &h, 4);
            } else {
              const int32_t h = hs[0] | hs[1] << 8, n = (h - 90 < 0 ? h - 90 + 360 : h - 90) % 360;
              hs[0] = static_cast<uint8_t>(n), hs[1] = static_cast<uint8_t>(n >> 8);
            }
            row(COLORSPACE_HSV + COLORSPACE_TO_RGB, hs);
            row(COLORSPACE_HLS, hs);
            if (wide) {
              const int32_t sat = hs[6] | hs[7] << 8, v = std::clamp(sat + sat * 3000 / 10000, 0, 10000);
              hs[6] = static_cast<uint8_t>(v), hs[7] = static_cast<uint8_t>(v >> 8);
            } else {
              hs[3] = static_cast<uint8_t>(std::clamp(hs[3] + hs[3] * 30 / 100, 0, 100));
            }
            row(COLORSPACE_HLS + COLORSPACE_TO_RGB, hs);
            for (int32_t k = 0; k < 3; ++k) {
              const uint32_t changed = bright->entry[wide ? px[k] : b8[k]], saved = in.v[2 - k];
              want.v[2 - k] = std::min((changed * w + saved * (1000 - w)) / 1000, full);
            }
          }
          ASSERT_EQ(bmp.At(x, y), want) << x << "," << y;
        }
    }
  img::FreeLabTables(&set);
  // The blend of 8-bit rows of every instruction set against the reference,
  // weights 0..1000 at the ends and at random.
  std::mt19937 rng(3);
  const int32_t width = 4099;
  std::vector<uint8_t> rgb(3 * width), changed(3 * width), weights(3 * width);
  for (uint8_t &v : rgb) v = static_cast<uint8_t>(rng());
  for (uint8_t &v : changed) v = static_cast<uint8_t>(rng());
  for (int32_t x = 0; x < width; ++x) {
    const uint16_t w = static_cast<uint16_t>(x % 7 == 0 ? 0 : x % 7 == 1 ? 1000 : rng() % 1001);
    std::memcpy(&weights[3 * x], &w, 2);
  }
  std::vector<uint8_t> reference = rgb;
  img::clrrep::BlendRun8(img::Isa::Scalar, reference.data(), changed.data(), weights.data(), 5, width);
  for (const img::Isa isa : img::kAllIsas) {
    if (!img::IsaAvailable(isa)) continue;
    std::vector<uint8_t> fast = rgb;
    img::clrrep::BlendRun8(isa, fast.data(), changed.data(), weights.data(), 5, width);
    EXPECT_TRUE(fast == reference) << img::IsaName(isa);
  }
}

}  // namespace
