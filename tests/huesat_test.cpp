// Q_ChangeBitmapHue, Q_RemapBitmapHue, Q_ChangeBitmapSaturation and their
// per-pixel steps on the compact hue scale.
#include "HUESAT.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "kit.h"

namespace {

using kit::Rgb;
using namespace img::huesat;

kit::Spec Kind(int32_t bits, int32_t order = ORDER_BGR) { return kit::Spec{bits, order}; }

uint32_t Pack(uint32_t r, uint32_t g, uint32_t b) { return r | (g << 8) | (b << 16); }

// ---- Per-pixel steps, values worked out by hand from the formulas ------------------------

TEST(HueSatPixel, PackedHsvForward) {
  struct Case {
    int32_t r, g, b;
    uint32_t h, s, v;
  } cases[] = {
      {255, 0, 0, 0, 255, 255},      // min is B (ties go to B): (0 + 180) / 360
      {0, 255, 0, 85, 255, 255},     // (30720 + 180) / 360 = 85
      {0, 0, 255, 171, 255, 255},    // min is R: (30720 + 30900) / 360 = 171
      {255, 128, 0, 29, 255, 255},   // (128 * 30720 / 383 + 180) / 360 = 10446 / 360
      {100, 100, 100, 0, 0, 100},    // gray
      {200, 100, 50, 21, 191, 200},  // (50*30720/200 + 180)/360 = 7860/360; 150*255/200
      {255, 0, 1, 0, 255, 255},      // min is G: 92220 / 360 = 256 wraps to 0
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << c.r << "," << c.g << "," << c.b);
    EXPECT_EQ(RgbToHsv8(c.r, c.g, c.b), c.h | (c.s << 8) | (c.v << 16));
  }
}

TEST(HueSatPixel, PackedHsvInverse) {
  struct Case {
    uint32_t h, s, v;
    uint32_t rgb;
  } cases[] = {
      {0, 255, 255, Pack(255, 0, 0)},     {85, 255, 255, Pack(2, 255, 0)},  // D = 119: R = 1 * 255 / 119 = 2
      {171, 255, 255, Pack(0, 0, 255)},                                     // D = 240
      {0, 0, 77, Pack(77, 77, 77)},                                         // saturation 0
      {43, 128, 200, Pack(200, 200, 99)},  // D = 60, low = 127*200/255 = 99, d = 101: G = 101*60/60 + 99
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << c.h << "," << c.s << "," << c.v);
    EXPECT_EQ(HsvToRgb8(PackHsv8(c.h, c.s, c.v)), c.rgb);
  }
}

TEST(HueSatPixel, SixteenBitForms) {
  // Red sits half a step off zero on this scale: trunc(46260 / 360) = 128.
  const Hsv16 red = RgbToHsv16(65535, 0, 0);
  EXPECT_EQ(red.h, 128);
  EXPECT_EQ(red.s, 65535);
  EXPECT_EQ(red.v, 65535);
  // Hs = 180: G = 65535 * 180 / 30660 = 384.
  const Rgb16 back = HsvToRgb16(red.h, red.s, red.v);
  EXPECT_EQ(back.r, 65535);
  EXPECT_EQ(back.g, 384);
  EXPECT_EQ(back.b, 0);
  // Hue past the last sector caps at 65535: min G, R - min = R + B - 2 min - 1.
  EXPECT_EQ(RgbToHsv16(65535, 0, 1).h, 65535);
  const Rgb16 gray = HsvToRgb16(1234, 0, 4321);
  EXPECT_EQ(gray.r, 4321);
  EXPECT_EQ(gray.b, 4321);
}

TEST(HueSatPixel, Steps) {
  struct Case {
    int32_t in, hue;
  } hues[] = {{0, 0}, {1, 0}, {-1, 0}, {2, 1}, {-2, -1}, {360, 256}, {-360, -256}, {120, 85}, {-120, -85}};
  for (const Case &c : hues) EXPECT_EQ(HueStep(c.in), c.hue) << c.in;
  // 0x01000000 * 256 wraps to 0 in 32 bits.
  EXPECT_EQ(HueStep(0x01000000), 0);
  EXPECT_EQ(SaturationStep(1000), 255);
  EXPECT_EQ(SaturationStep(-1000), -254);
  EXPECT_EQ(SaturationStep(0), 0);
  EXPECT_EQ(SaturationStep(-1), 0);  // (-255 + 500) / 1000
  EXPECT_EQ(SaturationStep(-3), 0);
  EXPECT_EQ(SaturationStep(-2000 / 2), -254);
}

TEST(HueSatPixel, SaturationEightBit) {
  struct Case {
    int32_t r, g, b, step, er, eg, eb;
  } cases[] = {
      // L 150, S = 100*255/210 = 121, S' = 121 + 120 = 241; m2 = 391 - 141 = 250, m1 = 50.
      {200, 100, 100, 255, 250, 50, 50},
      // L 127, S 255 -> 1; m2 = 256 * 127 / 255 = 127: gray by the truncation.
      {255, 0, 0, -254, 127, 127, 127},
      // L 130, S 244 -> 1; m2 = 131, m1 = 129: saturation 1 keeps a tint.
      {250, 10, 10, -254, 131, 129, 129},
      {90, 90, 90, 255, 90, 90, 90},  // gray stays
      // Hue -21 gets 255 added (234, not 235): B = v(149) = 100 + 100 * 21 * 6 / 255 = 149.
      {200, 100, 150, 0, 200, 100, 149},
  };
  for (const Case &c : cases) {
    int32_t r = c.r, g = c.g, b = c.b;
    ChangeSaturation8(r, g, b, c.step);
    EXPECT_EQ(r, c.er) << c.r << "," << c.g << "," << c.b;
    EXPECT_EQ(g, c.eg);
    EXPECT_EQ(b, c.eb);
  }
}

TEST(HueSatPixel, SaturationSixteenBit) {
  // L = 32767, S = 65535; hue 0. S' = 65535 + floor(-16645890 / 256) = 511 (the
  // step is on a 256 scale, so 16-bit saturation keeps S / 128).
  // m2 = 66046 * 32767 / 65535 = 33022, m1 = 65534 - 33022 = 32512.
  int32_t r = 65535, g = 0, b = 0;
  ChangeSaturation16(r, g, b, -254);
  EXPECT_EQ(r, 33022);
  EXPECT_EQ(g, 32512);
  EXPECT_EQ(b, 32512);
  // Gray in, gray out.
  r = g = b = 40000;
  ChangeSaturation16(r, g, b, 255);
  EXPECT_EQ(r, 40000);
  EXPECT_EQ(b, 40000);
}

// ---- Export checks ------------------------------------------------------------------------

TEST(HueSatExports, ChecksInOrder) {
  kit::Bitmap bmp(Kind(24), 4, 2);
  BitmapRecord unallocated{};
  unallocated.StructSize = 0;  // -2 comes before the size check
  const auto withSize = [&](uint32_t size, auto fn) {
    const uint32_t old = bmp->StructSize;
    bmp->StructSize = size;
    const int32_t status = fn();
    bmp->StructSize = old;
    return status;
  };
  const auto asGray32 = [&](auto fn) {
    kit::Bitmap b32(Kind(32), 2, 2);
    b32->ColorOrder = ORDER_GRAY;
    b32->Flags |= BITMAP_SIGNED;  // -1364 comes before -1360
    const int32_t status = fn(b32.get());
    b32->ColorOrder = ORDER_BGR;
    return status;
  };
  const auto asSigned = [&](auto fn) {
    bmp->Flags |= BITMAP_SIGNED;
    const int32_t status = fn();
    bmp->Flags &= ~BITMAP_SIGNED;
    return status;
  };
  const int32_t table[256] = {};
  kit::ExpectStatuses({
      {"hue flags before null", [] { return Q_ChangeBitmapHue(nullptr, 0, 1); }, RC_INVALID_PARAMETER},
      {"hue null", [] { return Q_ChangeBitmapHue(nullptr, 10, 0); }, RC_NO_BITMAP},
      {"hue unallocated", [&] { return Q_ChangeBitmapHue(&unallocated, 10, 0); }, RC_NO_BITMAP},
      {"hue size 200", [&] { return withSize(200, [&] { return Q_ChangeBitmapHue(bmp, 10, 0); }); },
       RC_INVALID_STRUCT_SIZE},
      {"hue size 0", [&] { return withSize(0, [&] { return Q_ChangeBitmapHue(bmp, 10, 0); }); },
       RC_INVALID_STRUCT_SIZE},
      {"hue size 176", [&] { return withSize(176, [&] { return Q_ChangeBitmapHue(bmp, 10, 0); }); },
       RC_SUCCESS},
      {"hue gray32", [&] { return asGray32([](BitmapRecord *b) { return Q_ChangeBitmapHue(b, 10, 0); }); },
       RC_GRAY32_NOT_SUPPORTED},
      {"hue signed", [&] { return asSigned([&] { return Q_ChangeBitmapHue(bmp, 10, 0); }); },
       RC_SIGNED_DATA_NOT_SUPPORTED},
      {"hue any angle", [&] { return Q_ChangeBitmapHue(bmp, INT32_MIN, 0); }, RC_SUCCESS},
      {"sat flags", [] { return Q_ChangeBitmapSaturation(nullptr, 5000, 2); }, RC_INVALID_PARAMETER},
      {"sat null", [] { return Q_ChangeBitmapSaturation(nullptr, 5000, 0); }, RC_NO_BITMAP},
      {"sat signed before range",
       [&] { return asSigned([&] { return Q_ChangeBitmapSaturation(bmp, 1001, 0); }); },
       RC_SIGNED_DATA_NOT_SUPPORTED},
      {"sat 1001", [&] { return Q_ChangeBitmapSaturation(bmp, 1001, 0); }, RC_INVALID_PARAMETER},
      {"sat -1001", [&] { return Q_ChangeBitmapSaturation(bmp, -1001, 0); }, RC_INVALID_PARAMETER},
      {"sat 1000", [&] { return Q_ChangeBitmapSaturation(bmp, 1000, 0); }, RC_SUCCESS},
      {"sat -1000", [&] { return Q_ChangeBitmapSaturation(bmp, -1000, 0); }, RC_SUCCESS},
      {"remap flags", [&] { return Q_RemapBitmapHue(nullptr, table, 0, 0, 0, 256, 1); },
       RC_INVALID_PARAMETER},
      {"remap unallocated", [&] { return Q_RemapBitmapHue(&unallocated, 0, 0, 0, 0, 256, 0); }, RC_NO_BITMAP},
      {"remap gray32",
       [&] { return asGray32([](BitmapRecord *b) { return Q_RemapBitmapHue(b, 0, 0, 0, 0, 0, 0); }); },
       RC_GRAY32_NOT_SUPPORTED},
      {"remap short table", [&] { return Q_RemapBitmapHue(bmp, table, 0, 0, 0, 255, 0); },
       RC_INVALID_PARAMETER},
      {"remap 256", [&] { return Q_RemapBitmapHue(bmp, table, 0, 0, 0, 256, 0); }, RC_SUCCESS},
  });
}

TEST(HueSatExports, OutOfRangeLeavesBitmapAlone) {
  kit::Bitmap bmp(Kind(24), 3, 3);
  bmp.Randomize(7);
  const auto before = bmp.Pixels();
  EXPECT_EQ(Q_ChangeBitmapSaturation(bmp, 1001, 0), RC_INVALID_PARAMETER);
  EXPECT_EQ(Q_ChangeBitmapSaturation(bmp, -1001, 0), RC_INVALID_PARAMETER);
  EXPECT_EQ(Q_RemapBitmapHue(bmp, nullptr, nullptr, nullptr, nullptr, 100, 0), RC_INVALID_PARAMETER);
  EXPECT_EQ(bmp.Pixels(), before);
}

// ---- Hue ------------------------------------------------------------------------------------

TEST(HueSatExports, HueAnglesOnEightBitRows) {
  const std::vector<kit::Pixel> in = {Rgb(255, 0, 0), Rgb(0, 255, 0), Rgb(0, 0, 255), Rgb(77, 77, 77)};
  struct Case {
    int32_t angle;
    std::vector<kit::Pixel> out;
  } cases[] = {
      // Steps of 0 still convert there and back: green comes back as (2, 255, 0).
      {0, {Rgb(255, 0, 0), Rgb(2, 255, 0), Rgb(0, 0, 255), Rgb(77, 77, 77)}},
      {1, {Rgb(255, 0, 0), Rgb(2, 255, 0), Rgb(0, 0, 255), Rgb(77, 77, 77)}},
      {-1, {Rgb(255, 0, 0), Rgb(2, 255, 0), Rgb(0, 0, 255), Rgb(77, 77, 77)}},
      {360, {Rgb(255, 0, 0), Rgb(2, 255, 0), Rgb(0, 0, 255), Rgb(77, 77, 77)}},
      {-360, {Rgb(255, 0, 0), Rgb(2, 255, 0), Rgb(0, 0, 255), Rgb(77, 77, 77)}},
      // Step 85: red to 85 (2, 255, 0); green to 170 (D 239: G = 1 * 255 / 119 = 2);
      // blue to 256, which wraps to 0 (red).
      {120, {Rgb(2, 255, 0), Rgb(0, 2, 255), Rgb(255, 0, 0), Rgb(77, 77, 77)}},
      // Step -85: red to 171 (D 240: blue), green to 0, blue to 86 (D 120: green).
      {-120, {Rgb(0, 0, 255), Rgb(255, 0, 0), Rgb(0, 255, 0), Rgb(77, 77, 77)}},
  };
  for (const kit::Spec &spec : {Kind(24), Kind(24, ORDER_RGB), Kind(32), Kind(32, ORDER_RGB)}) {
    for (const Case &c : cases) {
      SCOPED_TRACE(testing::Message() << spec.Name() << " angle " << c.angle);
      kit::Bitmap bmp(spec, 4, 1, in);
      ASSERT_EQ(Q_ChangeBitmapHue(bmp, c.angle, 0), RC_SUCCESS);
      EXPECT_EQ(bmp.Pixels(), c.out);
    }
  }
}

TEST(HueSatExports, HueOnSixteenBitRows) {
  // Red has hue 128 on the 16-bit scale; 120 degrees is step 85, 85 * 257 = 21845.
  // Hue 21973: Hs = 30899 (> 30840): R = low = 0, G = 65535, B = 59 * 65535 / 30781 = 125.
  struct Case {
    int32_t angle;
    kit::Pixel out;
  } cases[] = {{0, Rgb(65535, 384, 0)}, {120, Rgb(0, 65535, 125)}};
  for (const kit::Spec &spec : {Kind(48), Kind(48, ORDER_RGB), Kind(64)}) {
    for (const Case &c : cases) {
      SCOPED_TRACE(testing::Message() << spec.Name() << " angle " << c.angle);
      kit::Bitmap bmp(spec, 2, 1, {Rgb(65535, 0, 0), Rgb(30000, 30000, 30000)});
      ASSERT_EQ(Q_ChangeBitmapHue(bmp, c.angle, 0), RC_SUCCESS);
      EXPECT_EQ(bmp.At(0, 0), c.out);
      EXPECT_EQ(bmp.At(1, 0), Rgb(30000, 30000, 30000));
    }
  }
}

TEST(HueSatExports, GrayPixelsUnchanged) {
  for (const kit::Spec &spec :
       {Kind(8, ORDER_GRAY), Kind(12, ORDER_GRAY), Kind(16, ORDER_GRAY), Kind(24), Kind(48)}) {
    SCOPED_TRACE(spec.Name());
    const uint32_t top = spec.SampleMax();
    std::vector<kit::Pixel> in;
    for (uint32_t v : {0u, 1u, top / 3, top / 2, top - 1, top})
      in.push_back(spec.IsGray() ? kit::Level(v) : Rgb(v, v, v));
    kit::Bitmap bmp(spec, 6, 1, in);
    EXPECT_EQ(Q_ChangeBitmapHue(bmp, 77, 0), RC_SUCCESS);
    EXPECT_EQ(Q_ChangeBitmapSaturation(bmp, 1000, 0), RC_SUCCESS);
    EXPECT_EQ(Q_ChangeBitmapSaturation(bmp, -700, 0), RC_SUCCESS);
    EXPECT_EQ(Q_RemapBitmapHue(bmp, nullptr, nullptr, nullptr, nullptr, 65536, 0), RC_SUCCESS);
    EXPECT_EQ(bmp.Pixels(), in);
  }
}

// ---- Saturation -------------------------------------------------------------------------------

TEST(HueSatExports, SaturationMinusThousandLeavesAlmostGray) {
  kit::Bitmap bmp(Kind(24), 64, 16);
  bmp.Randomize(3);
  bmp.Set(0, 0, Rgb(250, 10, 10));
  bmp.Set(1, 0, Rgb(200, 100, 100));
  ASSERT_EQ(Q_ChangeBitmapSaturation(bmp, -1000, 0), RC_SUCCESS);
  // Saturation 1 keeps a trace of colour (m2 - m1 = 2 at most).
  EXPECT_EQ(bmp.At(0, 0), Rgb(131, 129, 129));
  int tinted = 0;
  for (const kit::Pixel &p : bmp.Pixels()) {
    const uint32_t hi = std::max({p.v[0], p.v[1], p.v[2]}), lo = std::min({p.v[0], p.v[1], p.v[2]});
    EXPECT_LE(hi - lo, 2u) << p;
    tinted += hi != lo;
  }
  EXPECT_GT(tinted, 0);
}

TEST(HueSatExports, SaturationOnRowsAndKinds) {
  // (200, 100, 100) with +1000 (step 255) -> (250, 50, 50) worked out above.
  for (const kit::Spec &spec : {Kind(24), Kind(24, ORDER_RGB), Kind(32), Kind(32, ORDER_RGB)}) {
    SCOPED_TRACE(spec.Name());
    kit::Bitmap bmp(spec, 2, 2, {Rgb(200, 100, 100), Rgb(90, 90, 90), Rgb(255, 0, 0), Rgb(200, 100, 100)});
    ASSERT_EQ(Q_ChangeBitmapSaturation(bmp, 1000, 0), RC_SUCCESS);
    EXPECT_EQ(bmp.At(0, 0), Rgb(250, 50, 50));
    EXPECT_EQ(bmp.At(1, 0), Rgb(90, 90, 90));
    EXPECT_EQ(bmp.At(1, 1), Rgb(250, 50, 50));
  }
  kit::Bitmap wide(Kind(48), 1, 1, {Rgb(65535, 0, 0)});
  ASSERT_EQ(Q_ChangeBitmapSaturation(wide, -1000, 0), RC_SUCCESS);
  EXPECT_EQ(wide.At(0, 0), Rgb(33022, 32512, 32512));
}

TEST(HueSatExports, FourthSampleKept) {
  kit::Bitmap bmp(Kind(32), 1, 1, {Rgb(200, 100, 100, 77)});
  ASSERT_EQ(Q_ChangeBitmapSaturation(bmp, 1000, 0), RC_SUCCESS);
  EXPECT_EQ(bmp.At(0, 0), Rgb(250, 50, 50, 77));
  kit::Bitmap wide(Kind(64), 1, 1, {Rgb(65535, 0, 0, 4444)});
  ASSERT_EQ(Q_ChangeBitmapHue(wide, 0, 0), RC_SUCCESS);
  EXPECT_EQ(wide.At(0, 0), Rgb(65535, 384, 0, 4444));
}

TEST(HueSatExports, SixteenBitColourRows) {
  // 5-bit samples are widened to 8 bits (v << 3 | v >> 2) by the converter:
  // pure red 31 reads as 255 and turns to blue with -120 degrees.
  kit::Bitmap bmp(Kind(16), 2, 1, {Rgb(31, 0, 0), Rgb(10, 10, 10)});
  ASSERT_EQ(Q_ChangeBitmapHue(bmp, -120, 0), RC_SUCCESS);
  EXPECT_EQ(bmp.At(0, 0), Rgb(0, 0, 31));
  EXPECT_EQ(bmp.At(1, 0), Rgb(10, 10, 10));
}

// ---- Palettes ------------------------------------------------------------------------------------

std::vector<PaletteEntry> ColourPalette() {
  std::vector<PaletteEntry> pal(16);
  for (int i = 0; i < 16; ++i)
    pal[i] = PaletteEntry{static_cast<uint8_t>(i * 16), 40, static_cast<uint8_t>(255 - i), 0};
  pal[0] = PaletteEntry{0, 0, 255, 0};   // red (blue, green, red order)
  pal[1] = PaletteEntry{0, 255, 0, 0};   // green
  pal[2] = PaletteEntry{90, 90, 90, 0};  // gray
  return pal;
}

TEST(HueSatExports, PaletteChangesEntriesNotPixels) {
  auto pal = ColourPalette();
  kit::Bitmap bmp(Kind(4), 3, 1, {kit::Level(0), kit::Level(1), kit::Level(2)}, pal.data());
  const auto stored = bmp.StoredBytes();
  ASSERT_EQ(Q_ChangeBitmapHue(bmp, 120, 0), RC_SUCCESS);
  EXPECT_EQ(bmp.StoredBytes(), stored);
  EXPECT_EQ(bmp.ColorAt(0, 0), Rgb(2, 255, 0));
  EXPECT_EQ(bmp.ColorAt(1, 0), Rgb(0, 2, 255));
  EXPECT_EQ(bmp.ColorAt(2, 0), Rgb(90, 90, 90));
  // Every other entry follows the same step as a 24-bit pixel would.
  for (int i = 3; i < 16; ++i) {
    const PaletteEntry &e = pal[i];
    const uint32_t hsv = RgbToHsv8(e.Red, e.Green, e.Blue);
    const uint32_t rgb = HsvToRgb8((hsv & 0xFFFF00u) | ((hsv + 85) & 0xFFu));
    const PaletteEntry &now = bmp->Palette[i];
    EXPECT_EQ(now.Red, rgb & 0xFF) << i;
    EXPECT_EQ(now.Green, (rgb >> 8) & 0xFF) << i;
    EXPECT_EQ(now.Blue, rgb >> 16) << i;
  }
}

TEST(HueSatExports, PaletteProgressAndFailure) {
  auto pal = ColourPalette();
  const auto setup = [&] { return kit::Bitmap(Kind(4), 2, 2, pal.data()); };
  kit::Bitmap bmp = setup();
  {
    kit::ScopedCallback cb([](int32_t) { return RC_SUCCESS; });
    ASSERT_EQ(Q_ChangeBitmapSaturation(bmp, 500, 0), RC_SUCCESS);
    EXPECT_EQ(cb.Reports(), (std::vector<int32_t>{0, 100}));
  }
  // A refusal at 0 leaves the palette untouched; at 100 the change is made
  // and the answer is still the result.
  EXPECT_EQ(kit::CheckCancellation(setup, [](kit::Bitmap &b) { return Q_ChangeBitmapHue(b, 90, 0); }), 2);
  {
    kit::Bitmap b = setup();
    kit::ScopedCallback cb([](int32_t p) { return p == 0 ? kit::kCancel : RC_SUCCESS; });
    EXPECT_EQ(Q_ChangeBitmapHue(b, 90, 0), kit::kCancel);
    EXPECT_EQ(b.ColorAt(0, 0), Rgb(255, 0, 0));
  }
  // Palette that cannot be read in full.
  kit::Bitmap broken = setup();
  broken->ColorsUsed = 17;
  EXPECT_EQ(Q_ChangeBitmapHue(broken, 90, 0), RC_NO_BITMAP);
  EXPECT_EQ(Q_ChangeBitmapSaturation(broken, 90, 0), RC_NO_BITMAP);
  EXPECT_EQ(Q_RemapBitmapHue(broken, nullptr, nullptr, nullptr, nullptr, 256, 0), RC_NO_BITMAP);
  broken->ColorsUsed = 16;
  EXPECT_EQ(broken.ColorAt(0, 0), Rgb(255, 0, 0));
}

TEST(HueSatExports, PaletteWithoutPaletteFlagGoesByRows) {
  // PaletteFlag NONE: the pixels are gray levels, read as one-sample rows...
  // or three gray samples; either way they stay gray and unchanged.
  auto pal = ColourPalette();
  kit::Bitmap bmp(Kind(8), 3, 1, {kit::Level(0), kit::Level(1), kit::Level(200)}, pal.data());
  bmp->PaletteFlag = PALETTE_FLAG_NONE;
  const auto stored = bmp.StoredBytes();
  ASSERT_EQ(Q_ChangeBitmapHue(bmp, 120, 0), RC_SUCCESS);
  EXPECT_EQ(bmp.StoredBytes(), stored);
  EXPECT_EQ(bmp->Palette[0].Red, 255);  // the palette is not the path
  bmp->PaletteFlag = 0;
}

// ---- Remap ---------------------------------------------------------------------------------------

TEST(HueSatExports, RemapAllNullConvertsThereAndBack) {
  kit::Bitmap bmp(Kind(24), 4, 1, {Rgb(255, 0, 0), Rgb(0, 255, 0), Rgb(200, 100, 50), Rgb(9, 9, 9)});
  ASSERT_EQ(Q_RemapBitmapHue(bmp, nullptr, nullptr, nullptr, nullptr, 256, 0), RC_SUCCESS);
  // (200, 100, 50): hue 21, saturation 191, value 200 -> D = 21 * 360 >> 8 = 29,
  // low = 64 * 200 / 255 = 50, G = 150 * 29 / 91 + 50 = 97.
  EXPECT_EQ(bmp.Pixels(),
            (std::vector<kit::Pixel>{Rgb(255, 0, 0), Rgb(2, 255, 0), Rgb(200, 97, 50), Rgb(9, 9, 9)}));
}

TEST(HueSatExports, RemapSelectedHuesOnly) {
  std::vector<int32_t> sel(256, 0), hue(256), sat(256), val(256);
  for (int i = 0; i < 256; ++i) hue[i] = i, sat[i] = i, val[i] = i;
  sel[0] = 1;
  hue[0] = 85;     // red to green
  sat[0] = 255;    // gray (hue 0) gets full saturation
  val[255] = 128;  // full value to half
  kit::Bitmap bmp(Kind(24), 3, 1, {Rgb(255, 0, 0), Rgb(0, 0, 255), Rgb(100, 100, 100)});
  ASSERT_EQ(Q_RemapBitmapHue(bmp, sel.data(), hue.data(), sat.data(), val.data(), 256, 0), RC_SUCCESS);
  // Red: (85, 255, 128): D 119, low 0, R = 1 * 128 / 119 = 1.
  EXPECT_EQ(bmp.At(0, 0), Rgb(1, 128, 0));
  EXPECT_EQ(bmp.At(1, 0), Rgb(0, 0, 255));  // hue 171 not selected
  // Gray has hue 0 and saturation 0: (85, sat[0] = 255, 100) -> D 119, R = 100 / 119 = 0.
  EXPECT_EQ(bmp.At(2, 0), Rgb(0, 100, 0));
}

TEST(HueSatExports, RemapSixteenBitTables) {
  // 4096 entries: indexes shifted right by 4, values left by 4.
  // Red (128, 65535, 65535) -> (128, 65520, 65520): low = 65520 * 15 / 65535 = 14,
  // G = 65506 * 180 / 30660 + 14 = 398.
  kit::Bitmap bmp(Kind(48), 1, 1, {Rgb(65535, 0, 0)});
  ASSERT_EQ(Q_RemapBitmapHue(bmp, nullptr, nullptr, nullptr, nullptr, 4096, 0), RC_SUCCESS);
  EXPECT_EQ(bmp.At(0, 0), Rgb(65520, 398, 14));
  kit::Bitmap full(Kind(48), 1, 1, {Rgb(65535, 0, 0)});
  ASSERT_EQ(Q_RemapBitmapHue(full, nullptr, nullptr, nullptr, nullptr, 65536, 0), RC_SUCCESS);
  EXPECT_EQ(full.At(0, 0), Rgb(65535, 384, 0));
  // Lengths that 16-bit rows would read past.
  const auto before = full.Pixels();
  for (uint32_t length : {256u, 4095u, 4097u, 65535u})
    EXPECT_EQ(Q_RemapBitmapHue(full, nullptr, nullptr, nullptr, nullptr, length, 0), RC_INVALID_PARAMETER)
        << length;
  EXPECT_EQ(full.Pixels(), before);
  // 8-bit rows need only 256.
  kit::Bitmap narrow(Kind(24), 1, 1, {Rgb(255, 0, 0)});
  EXPECT_EQ(Q_RemapBitmapHue(narrow, nullptr, nullptr, nullptr, nullptr, 257, 0), RC_SUCCESS);
}

TEST(HueSatExports, RemapFourChannelSixteenBitIsGray) {
  // 64-bit rows: sample 0 (blue) is read as gray and only sample 0 is written,
  // blue last. With full saturation for hue 0, (0, 65535, 3000) is pure red:
  // the blue write (0) wins.
  std::vector<int32_t> sat(65536, 65535);
  for (const kit::Spec &spec : {Kind(64), Kind(64, ORDER_RGB)}) {
    kit::Bitmap bmp(spec, 1, 1, {Rgb(1000, 2000, 3000, 5)});
    ASSERT_EQ(Q_RemapBitmapHue(bmp, nullptr, nullptr, sat.data(), nullptr, 65536, 0), RC_SUCCESS);
    EXPECT_EQ(bmp.At(0, 0), Rgb(1000, 2000, 0, 5)) << spec.Name();
  }
  // Three channels convert as colour.
  kit::Bitmap rgb(Kind(48), 1, 1, {Rgb(1000, 2000, 3000)});
  ASSERT_EQ(Q_RemapBitmapHue(rgb, nullptr, nullptr, sat.data(), nullptr, 65536, 0), RC_SUCCESS);
  EXPECT_NE(rgb.At(0, 0), Rgb(1000, 2000, 0));
}

// ---- Regions, failures -------------------------------------------------------------------------

TEST(HueSatExports, EllipseRegionLimitsTheChange) {
  for (const kit::Spec &spec : {Kind(24), Kind(48), Kind(32)}) {
    SCOPED_TRACE(spec.Name());
    std::vector<kit::Pixel> in(20 * 12, spec.bits >= 48 ? Rgb(65535, 0, 0) : Rgb(255, 0, 0));
    kit::Bitmap bmp(spec, 20, 12, in);
    kit::SetEllipseRegion(bmp, 2, 1, 17, 11);
    ASSERT_EQ(Q_ChangeBitmapHue(bmp, -120, 0), RC_SUCCESS);
    int inside = 0;
    for (int32_t y = 0; y < 12; ++y)
      for (int32_t x = 0; x < 20; ++x) {
        const kit::Pixel p = bmp.At(x, y);
        if (kit::InRegion(bmp, x, y)) {
          ++inside;
          EXPECT_NE(p, in[0]) << x << "," << y;
          EXPECT_EQ(p.v[0], 0u) << x << "," << y;  // red gone
        } else {
          EXPECT_EQ(p, in[0]) << x << "," << y;
        }
      }
    EXPECT_GT(inside, 50);
    EXPECT_LT(inside, 20 * 12 - 30);
  }
}

TEST(HueSatExports, AllocationFailures) {
  const auto rows = [] {
    kit::Bitmap b(Kind(24), 9, 7);
    b.Randomize(1);
    kit::SetEllipseRegion(b, 1, 1, 8, 6);
    return b;
  };
  const auto wide = [] {
    kit::Bitmap b(Kind(48), 5, 3);
    b.Randomize(2);
    return b;
  };
  auto pal = ColourPalette();
  const auto palette = [&] { return kit::Bitmap(Kind(4), 3, 3, pal.data()); };
  using B = kit::Bitmap &;
  EXPECT_GT(kit::CheckAllocationFailures(rows, [](B b) { return Q_ChangeBitmapHue(b, 33, 0); }), 0);
  EXPECT_GT(kit::CheckAllocationFailures(rows, [](B b) { return Q_ChangeBitmapSaturation(b, -300, 0); }), 0);
  EXPECT_GT(kit::CheckAllocationFailures(
                rows, [](B b) { return Q_RemapBitmapHue(b, nullptr, nullptr, nullptr, nullptr, 256, 0); }),
            2);
  EXPECT_GT(kit::CheckAllocationFailures(
                wide, [](B b) { return Q_RemapBitmapHue(b, nullptr, nullptr, nullptr, nullptr, 4096, 0); }),
            2);
  EXPECT_GE(kit::CheckAllocationFailures(palette, [](B b) { return Q_ChangeBitmapHue(b, 33, 0); }), 0);
  EXPECT_EQ(kit::CheckAllocationFailures(
                palette, [](B b) { return Q_RemapBitmapHue(b, nullptr, nullptr, nullptr, nullptr, 256, 0); }),
            2);
}

TEST(HueSatExports, RowPathReportsNoProgress) {
  kit::Bitmap bmp(Kind(24), 4, 4);
  kit::ScopedCallback cb([](int32_t) { return kit::kCancel; });
  EXPECT_EQ(Q_ChangeBitmapHue(bmp, 50, 0), RC_SUCCESS);
  EXPECT_TRUE(cb.Reports().empty());
}

}  // namespace
