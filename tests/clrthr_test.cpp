// Q_ColorThresholdBitmap: checks in their order, the selection and the row
// step in each space, palettes, silence and the quiet success of a missing
// space buffer.

#include "ClrThr.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "ClrSpc.h"
#include "kit.h"

namespace {

using kit::Rgb;

kit::Format Kind(int32_t bits, int32_t order = ORDER_BGR) { return kit::Format{bits, order}; }

struct Comps {
  ColorThresholdComponent c[3];
};
Comps Make(int32_t l0, int32_t h0, uint32_t m0, int32_t l1, int32_t h1, uint32_t m1, int32_t l2, int32_t h2,
           uint32_t m2) {
  return Comps{{{16, l0, h0, m0}, {16, l1, h1, m1}, {16, l2, h2, m2}}};
}
// Selects nothing: the pixels only go through the conversion there and back.
const Comps kNone = Make(0, 0, 1, 0, 0, 1, 0, 0, 1);

TEST(ColorThreshold, ChecksInOrder) {
  kit::Bitmap bmp(Kind(24), 3, 2), wide(Kind(48), 3, 2),
      old(kit::Format{24, ORDER_BGR, ORIENT_TOP_FIRST, 176}, 3, 2);
  kit::Bitmap bad(Kind(24), 3, 2), gray32(Kind(32, ORDER_GRAY), 3, 2), signedBmp(Kind(24), 3, 2);
  kit::Bitmap gray(Kind(8, ORDER_GRAY), 3, 2), gray16(Kind(16, ORDER_GRAY), 3, 2);
  bad->StructSize = 200;
  gray32->Flags |= BITMAP_SIGNED;
  signedBmp->Flags |= BITMAP_SIGNED;
  Comps size15 = kNone, second = kNone;
  size15.c[0].StructSize = 15;
  second.c[1].StructSize = 3;
  const auto call = [](BitmapRecord *b, uint32_t space, const Comps &c, uint32_t flags = 0) {
    return Q_ColorThresholdBitmap(b, space, c.c, flags);
  };
  kit::ExpectStatuses({
      {"size before flags", [&] { return call(bad, 1, kNone, 1); }, RC_INVALID_STRUCT_SIZE},
      {"flags on null", [&] { return call(nullptr, 1, kNone, 1); }, RC_INVALID_PARAMETER},
      {"null", [&] { return call(nullptr, 1, kNone); }, RC_NO_BITMAP},
      {"gray32 before signed", [&] { return call(gray32, 1, kNone); }, RC_GRAY32_NOT_SUPPORTED},
      {"signed before components", [&] { return Q_ColorThresholdBitmap(signedBmp, 1, nullptr, 0); },
       RC_SIGNED_DATA_NOT_SUPPORTED},
      {"null components", [&] { return Q_ColorThresholdBitmap(bmp, 99, nullptr, 0); }, RC_NULL_OPTIONS},
      {"first size", [&] { return call(bmp, 99, size15); }, RC_INVALID_STRUCT_SIZE},
      {"second size not read", [&] { return call(bmp, 1, second); }, RC_SUCCESS},
      {"size 176", [&] { return call(old, 1, kNone); }, RC_SUCCESS},
      {"gray before space", [&] { return call(gray, 11, kNone); }, RC_UNSUPPORTED_BITMAP},
      {"gray 16", [&] { return call(gray16, 1, kNone); }, RC_UNSUPPORTED_BITMAP},
      {"space 11", [&] { return call(bmp, 11, kNone); }, RC_INVALID_PARAMETER},
      {"space 9 (table Lab)", [&] { return call(bmp, COLORSPACE_LAB_TABLE, kNone); }, RC_INVALID_PARAMETER},
      {"space 10", [&] { return call(bmp, COLORSPACE_SPHERICAL, kNone); }, RC_SUCCESS},
      {"hue 360", [&] { return call(bmp, 1, Make(0, 360, 0, 0, 100, 0, 0, 255, 0)); }, RC_SUCCESS},
      {"hue 361", [&] { return call(bmp, 1, Make(0, 361, 0, 0, 0, 0, 0, 0, 0)); }, RC_INVALID_PARAMETER},
      {"saturation 101", [&] { return call(bmp, 1, Make(0, 0, 0, 0, 101, 0, 0, 0, 0)); },
       RC_INVALID_PARAMETER},
      {"48-bit hue 36000", [&] { return call(wide, 1, Make(0, 36000, 0, 0, 10000, 0, 0, 65535, 0)); },
       RC_SUCCESS},
      {"48-bit value 65536", [&] { return call(wide, 1, Make(0, 0, 0, 0, 0, 0, 0, 65536, 0)); },
       RC_INVALID_PARAMETER},
      {"YUV V -138", [&] { return call(bmp, 5, Make(0, 0, 0, -112, 111, 0, -138, 137, 0)); }, RC_SUCCESS},
      {"YUV U -113", [&] { return call(bmp, 5, Make(0, 0, 0, -113, 0, 0, 0, 0, 0)); }, RC_INVALID_PARAMETER},
      {"Lab L 101", [&] { return call(bmp, 6, Make(0, 101, 0, 0, 0, 0, 0, 0, 0)); }, RC_INVALID_PARAMETER},
      {"high below low", [&] { return call(bmp, 0, Make(0, 0, 0, 9, 8, 0, 0, 0, 0)); }, RC_INVALID_PARAMETER},
      {"mode 0x111", [&] { return call(bmp, 0, Make(0, 0, 0x111, 0, 0, 0x111, 0, 0, 0x011)); }, RC_SUCCESS},
      {"mode 0x211", [&] { return call(bmp, 0, Make(0, 0, 0, 0, 0, 0, 0, 0, 0x211)); }, RC_INVALID_PARAMETER},
      {"mode 530", [&] { return call(bmp, 0, Make(0, 0, 0, 0, 0, 0, 0, 0, 530)); }, RC_INVALID_PARAMETER},
      {"mode 0x201", [&] { return call(bmp, 0, Make(0, 0, 0x201, 0, 0, 0, 0, 0, 0)); }, RC_INVALID_PARAMETER},
      {"mode 0x210", [&] { return call(bmp, 0, Make(0, 0, 0, 0, 0, 0x210, 0, 0, 0)); }, RC_INVALID_PARAMETER},
      {"mode 0x300 above 529", [&] { return call(bmp, 0, Make(0, 0, 0x300, 0, 0, 0, 0, 0, 0)); },
       RC_INVALID_PARAMETER},
  });
  bad->StructSize = BITMAP_RECORD_SIZE;
}

// The pixel taken there, its fields changed, and brought back, by the
// single-pixel conversions (8-bit).
kit::Pixel ThereAndBack(uint32_t space, kit::Pixel in, void (*change)(uint8_t *)) {
  uint8_t r = static_cast<uint8_t>(in.v[0]), g = static_cast<uint8_t>(in.v[1]),
          b = static_cast<uint8_t>(in.v[2]);
  uint8_t p[8] = {};
  EXPECT_EQ(img::ConvertColorPixel(space, &r, &g, &b, p), RC_SUCCESS);
  change(p);
  EXPECT_EQ(img::ConvertColorPixel(space + COLORSPACE_TO_RGB, &r, &g, &b, p), RC_SUCCESS);
  return Rgb(r, g, b);
}

TEST(ColorThreshold, ComponentsAndModes) {
  struct Case {
    const char *name;
    kit::Format format;
    uint32_t space;
    Comps comps;
    kit::Pixel in, out;
  } cases[] = {
      {"rgb outside 0..127 to min", Kind(24), 0, Make(0, 127, 0, 0, 127, 0, 0, 127, 0), Rgb(200, 100, 128),
       Rgb(0, 100, 0)},
      {"rgb each component its own channel", Kind(24, ORDER_RGB), 0, Make(0, 127, 0, 0, 255, 0, 0, 255, 0),
       Rgb(200, 100, 128), Rgb(0, 100, 128)},
      {"rgb 0x200 clips", Kind(24), 0, Make(64, 191, 0x200, 64, 191, 0x200, 64, 191, 0x200),
       Rgb(10, 100, 250), Rgb(0, 100, 255)},
      {"rgb inside to max", Kind(32), 0, Make(0, 0, 0x101, 50, 60, 0x101, 0, 255, 0), Rgb(0, 55, 9, 7),
       Rgb(255, 255, 9, 7)},
      // The first component sets the whole pixel to the three fill values;
      // the second then tests its fill value 0 and raises it to 255.
      {"whole pixel, later tests the fill", Kind(24), 0, Make(100, 255, 0x011, 0, 10, 0x101, 0, 255, 0),
       Rgb(200, 50, 60), Rgb(0, 255, 0)},
      {"48-bit rgb 0x200", Kind(48), 0, Make(0, 65535, 0, 1000, 2000, 0x200, 0, 65535, 0), Rgb(5, 999, 7),
       Rgb(5, 0, 7)},
      {"48-bit rgb 0x200 above", Kind(64), 0, Make(0, 65535, 0, 1000, 2000, 0x200, 0, 65535, 0),
       Rgb(5, 2001, 7, 3), Rgb(5, 65535, 7, 3)},
      // (255, 128, 0): HSV hue 40 (the min-based hue); hue 0 with S 100 is red.
      {"hsv hue to 0", Kind(24), 1, Make(30, 50, 1, 0, 0, 1, 0, 0, 1), Rgb(255, 128, 0), Rgb(255, 0, 0)},
      {"hsv hue outside: there and back", Kind(24), 1, Make(41, 50, 1, 0, 0, 1, 0, 0, 1), Rgb(255, 128, 0),
       Rgb(255, 127, 0)},
      // 16-bit hue: 32896 × 12000 / 98431 = 4010 hundredths.
      {"48-bit hsv hue", Kind(48), 1, Make(4010, 4010, 1, 0, 0, 1, 0, 0, 1), Rgb(65535, 32896, 0),
       Rgb(65535, 0, 0)},
      // Hue filled with the upper limit 360: the last sector's formulas.
      {"hsv hue 360", Kind(24), 1, Make(30, 50, 0x101, 0, 0, 1, 0, 0, 1), Rgb(255, 128, 0),
       ThereAndBack(1, Rgb(255, 128, 0), [](uint8_t *p) { p[0] = 360 & 0xFF, p[1] = 360 >> 8; })},
      // Signed fields: Cb of blue is 127, filled with -128.
      {"ycrcb signed", Kind(24), 4, Make(0, 0, 1, 0, 0, 1, 120, 127, 1), Rgb(0, 0, 255),
       ThereAndBack(4, Rgb(0, 0, 255), [](uint8_t *p) { p[2] = 0x80; })},
      {"yuv 16-bit V field", Kind(24), 5, Make(0, 0, 1, 0, 0, 1, 100, 137, 1), Rgb(255, 0, 0),
       ThereAndBack(5, Rgb(255, 0, 0), [](uint8_t *p) { p[2] = 0x76, p[3] = 0xFF; })},
      {"lab a below range to min", Kind(24), 6, Make(0, 0, 1, 0, 127, 0, 0, 0, 1), Rgb(0, 200, 0),
       ThereAndBack(6, Rgb(0, 200, 0), [](uint8_t *p) { p[1] = 0x80; })},
      {"cmyk only there and back", Kind(24), 8, Make(0, 255, 1, 0, 255, 1, 0, 255, 1), Rgb(12, 200, 99),
       ThereAndBack(8, Rgb(12, 200, 99), [](uint8_t *) {})},
      {"hls nothing selected", Kind(24), 2, Make(0, 360, 0, 0, 255, 0, 0, 100, 0), Rgb(12, 200, 99),
       ThereAndBack(2, Rgb(12, 200, 99), [](uint8_t *) {})},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    kit::Bitmap bmp(c.format, 2, 1, {c.in, c.in});
    ASSERT_EQ(Q_ColorThresholdBitmap(bmp, c.space, c.comps.c, 0), RC_SUCCESS);
    EXPECT_EQ(bmp.Pixels(), std::vector<kit::Pixel>(2, c.out));
  }
}

TEST(ColorThreshold, PaletteRegionsAndSilence) {
  // Palette bitmaps change their entries whatever the region; rows report nothing.
  std::vector<PaletteEntry> pal(16, PaletteEntry{60, 128, 255, 0});
  pal[1] = PaletteEntry{10, 20, 30, 0};
  kit::Bitmap bmp(Kind(4), 3, 1, {kit::Level(0), kit::Level(1), kit::Level(0)}, pal.data());
  kit::SetRectRegion(bmp, 0, 0, 1, 1);
  const auto stored = bmp.StoredBytes();
  kit::ScopedCallback refuse([](int32_t) { return kit::kCancel; });
  const Comps red = Make(200, 255, 0x001, 0, 255, 0, 0, 255, 0);  // red 200..255 to 0
  ASSERT_EQ(Q_ColorThresholdBitmap(bmp, 0, red.c, 0), RC_SUCCESS);
  EXPECT_EQ(bmp.StoredBytes(), stored);
  EXPECT_EQ(bmp.ColorAt(2, 0), Rgb(0, 128, 60));
  EXPECT_EQ(bmp.ColorAt(1, 0), Rgb(30, 20, 10));
  kit::Bitmap rows(Kind(24), 9, 7, std::vector<kit::Pixel>(63, Rgb(250, 1, 2)));
  kit::SetEllipseRegion(rows, 1, 1, 8, 6);
  ASSERT_EQ(Q_ColorThresholdBitmap(rows, 0, red.c, 0), RC_SUCCESS);
  for (int32_t y = 0; y < 7; ++y)
    for (int32_t x = 0; x < 9; ++x)
      EXPECT_EQ(rows.At(x, y), kit::InRegion(rows, x, y) ? Rgb(0, 1, 2) : Rgb(250, 1, 2)) << x << "," << y;
  EXPECT_TRUE(refuse.Reports().empty());
  kit::Bitmap broken(Kind(4), 2, 1, pal.data());
  broken->ColorsUsed = 17;
  EXPECT_EQ(Q_ColorThresholdBitmap(broken, 0, red.c, 0), RC_NO_BITMAP);
}

TEST(ColorThreshold, AllocationFailures) {
  const Comps hue = Make(0, 180, 1, 0, 100, 0x100, 0, 255, 0);
  const auto call = [&](kit::Bitmap &b) { return Q_ColorThresholdBitmap(b, 1, hue.c, 0); };
  for (const kit::Format &format : {Kind(24), Kind(64), Kind(8)}) {
    SCOPED_TRACE(format.Name());
    std::vector<PaletteEntry> pal(256, PaletteEntry{9, 99, 199, 0});
    const auto setup = [&] {
      kit::Bitmap b(format, 6, 4, pal.data());
      if (!format.IsPalette()) b.Randomize(5);
      kit::SetEllipseRegion(b, 0, 0, 6, 4);
      return b;
    };
    EXPECT_GE(kit::CheckAllocationFailures(setup, call, {RC_NO_MEMORY, RC_SUCCESS}), 4);
    // Each failure that gives 1 leaves the bitmap as it was: the space
    // pixels could not be had (kept).
    int quiet = 0;
    for (uint32_t n = 1; n < 100; ++n) {
      kit::Bitmap b = setup();
      const auto before = b.StoredBytes();
      const auto palette = std::vector<PaletteEntry>(b->Palette, b->Palette + (format.IsPalette() ? 256 : 0));
      SetAllocationFailure(n);
      const int32_t status = call(b);
      const uint32_t left = GetAllocationFailureCountdown();
      SetAllocationFailure(0);
      if (left > 0) break;
      if (status != RC_SUCCESS) continue;
      ++quiet;
      EXPECT_EQ(b.StoredBytes(), before) << n;
      EXPECT_TRUE(std::equal(palette.begin(), palette.end(), b->Palette,
                             [](const PaletteEntry &x, const PaletteEntry &y) {
                               return x.Red == y.Red && x.Green == y.Green && x.Blue == y.Blue;
                             }))
          << n;
    }
    EXPECT_GE(quiet, 1);
  }
}

// The HSV step of every instruction set gives the reference's pixels: over
// every 31st colour with selections of each mode (fill values 360 and 100
// included), and through the export on random 24- and 32-bit bitmaps with
// and without a region (unselected pixels still go there and back).
TEST(ColorThreshold, InstructionSetsAgree) {
  const img::clrthr::Limits limits = img::clrthr::LimitsOf(COLORSPACE_HSV, false);
  const Comps plans[] = {Make(20, 60, 0x001, 30, 100, 0x101, 0, 40, 0x000),
                         Make(0, 180, 0x100, 0, 100, 0x000, 64, 191, 0x200),
                         Make(100, 300, 0x011, 20, 80, 0x110, 10, 250, 0x001),
                         Make(90, 270, 0x200, 10, 90, 0x200, 0, 255, 0x010),
                         Make(0, 359, 0x101, 50, 50, 0x111, 128, 128, 0x100)};
  constexpr int32_t kColours = (1 << 24) / 31 + 1;
  std::vector<uint8_t> every(size_t{3} * kColours), hsv(size_t{4} * kColours);
  for (uint32_t i = 0; i < kColours; ++i)
    for (int32_t k = 0; k < 3; ++k) every[3 * i + k] = static_cast<uint8_t>((31 * i) >> (8 * k));
  for (const Comps &plan : plans) {
    uint8_t tables[3][361];
    int32_t maps[3][361];
    img::clrthr::Selection s[3];
    for (int32_t i = 0; i < 3; ++i)
      s[i] = img::clrthr::FillTable(plan.c[i], limits.lower[i], limits.upper[i], tables[i], maps[i]);
    std::vector<uint8_t> reference = every;
    img::clrthr::ThresholdHsvRow8(img::Isa::Scalar, reference.data(), hsv.data(), 3, kColours, s);
    for (const img::Isa isa : img::kAllIsas) {
      if (!img::IsaAvailable(isa)) continue;
      SCOPED_TRACE(img::IsaName(isa));
      std::vector<uint8_t> fast = every;
      img::clrthr::ThresholdHsvRow8(isa, fast.data(), hsv.data(), 3, kColours, s);
      ASSERT_TRUE(fast == reference);
    }
    for (const int32_t bits : {24, 32})
      for (const bool region : {false, true}) {
        kit::Bitmap bmp(Kind(bits), 37, 5), before(Kind(bits), 37, 5);
        bmp.Randomize(static_cast<uint32_t>(bits + region));
        before.Randomize(static_cast<uint32_t>(bits + region));
        if (region) kit::SetEllipseRegion(bmp, 2, 1, 35, 5);
        ASSERT_EQ(Q_ColorThresholdBitmap(bmp, COLORSPACE_HSV, plan.c, 0), RC_SUCCESS);
        for (int32_t y = 0; y < 5; ++y)
          for (int32_t x = 0; x < 37; ++x) {
            kit::Pixel want = before.At(x, y);
            if (kit::InRegion(bmp, x, y)) {
              uint8_t px[3] = {static_cast<uint8_t>(want.v[2]), static_cast<uint8_t>(want.v[1]),
                               static_cast<uint8_t>(want.v[0])};
              img::clrthr::ThresholdHsvRow8(img::Isa::Scalar, px, hsv.data(), 0, 1, s);
              want = Rgb(px[2], px[1], px[0], want.v[3]);
            }
            ASSERT_EQ(bmp.At(x, y), want) << bits << (region ? " region " : " ") << x << "," << y;
          }
      }
  }
}

}  // namespace
