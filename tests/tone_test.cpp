// Q_GrayScaleToDuotone, Q_GrayScaleToMultitone and their tables: ramps,
// products, the 1-bit, palette and row paths, conversions and cleanup.
#include "tone.h"

#include <gtest/gtest.h>

#include <vector>

#include "kit.h"

namespace {

using kit::Pixel;
using kit::Rgb;
using namespace img::tone;

kit::Spec Kind(int32_t bits, int32_t order = ORDER_BGR) { return kit::Spec{bits, order}; }

constexpr uint32_t kRed = 0x0000FFu;
constexpr uint32_t kBlue = 0xFF0000u;
constexpr uint32_t kWhite = 0xFFFFFFu;

bool Same(const PaletteEntry &a, const PaletteEntry &b) {
  return a.Blue == b.Blue && a.Green == b.Green && a.Red == b.Red && a.Reserved == b.Reserved;
}
std::vector<PaletteEntry> Uniform(PaletteEntry e) { return std::vector<PaletteEntry>(256, e); }

int32_t Duotone(BitmapRecord *b, uint32_t color, uint32_t mode) {
  return Q_GrayScaleToDuotone(b, nullptr, color, mode);
}

// Red ramp, mode 1, on 16-bit samples: the high byte goes through the table
// (blue, green: the level itself; red: 255), the low byte stays.
Pixel RedOnSixteen(uint32_t v, uint32_t fourth = 0) { return Rgb(0xFF00u | (v & 0xFFu), v, v, fourth); }

// ---- Tables --------------------------------------------------------------------------------

TEST(ToneTables, Ramp) {
  struct Case {
    uint32_t color;
    int32_t count, index;
    PaletteEntry entry;
  } cases[] = {
      {kRed, 256, 0, {0, 0, 255, 0}},        // the colour at entry 0
      {kRed, 256, 128, {128, 128, 255, 0}},  // step 1000 on a zero channel: entry i = i
      {kRed, 256, 255, {255, 255, 255, 0}},  // white at the end
      {0x000064u, 16, 1, {17, 17, 110, 0}},  // red 100: step 608 * 255 / 15 = 10336
      {0x000064u, 16, 15, {255, 255, 255, 0}},
      {0x000064u, 4, 2, {170, 170, 203, 0}},  // step 608 * 85 = 51680: (100000 + 103360 + 500) / 1000
      {COLOR_GRAY_LEVEL | 0x64FFu, 256, 0, {100, 100, 100, 0}},  // gray level in bits 8-15, red bits ignored
      {0x336699u, 1, 0, {0x33, 0x66, 0x99, 0}},                  // one entry: the colour
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << std::hex << c.color << std::dec << " n " << c.count << " i "
                                    << c.index);
    std::vector<PaletteEntry> table(static_cast<size_t>(c.count), PaletteEntry{1, 2, 3, 4});
    BuildRamp(c.color, c.count, table.data());
    EXPECT_TRUE(Same(table[c.index], c.entry))
        << int(table[c.index].Blue) << "," << int(table[c.index].Green) << "," << int(table[c.index].Red);
  }
}

TEST(ToneTables, ScaleAndMultiply) {
  auto table = Uniform({255, 100, 200, 9});
  ScaleTableByLevel(table.data());
  EXPECT_TRUE(Same(table[0], {0, 0, 0, 9}));
  EXPECT_TRUE(Same(table[128], {128, 50, 100, 9}));  // (255*128+128)/255, (12928)/255, (25728)/255
  EXPECT_TRUE(Same(table[255], {255, 100, 200, 9}));
  auto first = Uniform({255, 128, 0, 5});
  MultiplyTables(first.data(), Uniform({77, 128, 255, 0}).data());
  EXPECT_TRUE(Same(first[9], {77, 64, 0, 5}));  // (128 * 128 + 128) / 255 = 64
}

// ---- Entry checks --------------------------------------------------------------------------------

TEST(ToneExports, ChecksInOrder) {
  kit::Bitmap bmp(Kind(24), 3, 2);
  kit::Bitmap gray32(Kind(32), 2, 2);
  gray32->ColorOrder = ORDER_GRAY;
  gray32->Flags |= BITMAP_SIGNED;
  kit::Bitmap oneBit(Kind(1), 8, 1);
  const uint32_t colors[4] = {kRed, kBlue, kWhite, kRed};
  const auto sized = [&](uint32_t size, auto fn) {
    const uint32_t old = bmp->StructSize;
    bmp->StructSize = size;
    const int32_t status = fn();
    bmp->StructSize = old;
    return status;
  };
  const auto signedBmp = [&](auto fn) {
    bmp->Flags |= BITMAP_SIGNED;
    const int32_t status = fn();
    bmp->Flags &= ~BITMAP_SIGNED;
    return status;
  };
  kit::ExpectStatuses({
      {"duo size 0", [&] { return sized(0, [&] { return Duotone(bmp, kRed, 2); }); }, RC_INVALID_STRUCT_SIZE},
      {"duo size 200", [&] { return sized(200, [&] { return Duotone(bmp, kRed, 0); }); },
       RC_INVALID_STRUCT_SIZE},
      {"duo size 176", [&] { return sized(176, [&] { return Duotone(bmp, kRed, 0); }); }, RC_SUCCESS},
      {"duo gray32 before mode", [&] { return Duotone(gray32, kRed, 2); }, RC_GRAY32_NOT_SUPPORTED},
      {"duo signed before mode", [&] { return signedBmp([&] { return Duotone(bmp, kRed, 2); }); },
       RC_SIGNED_DATA_NOT_SUPPORTED},
      {"duo mode 2", [&] { return Duotone(bmp, kRed, 2); }, RC_INVALID_PARAMETER},
      {"duo null, mode 2", [] { return Duotone(nullptr, kRed, 2); }, RC_INVALID_PARAMETER},
      {"duo null", [] { return Duotone(nullptr, kRed, 1); }, RC_NO_BITMAP},
      {"multi size 200",
       [&] { return sized(200, [&] { return Q_GrayScaleToMultitone(bmp, 9, 0, 0, 0, 0); }); },
       RC_INVALID_STRUCT_SIZE},
      {"multi gray32", [&] { return Q_GrayScaleToMultitone(gray32, 9, 0, 0, 0, 0); },
       RC_GRAY32_NOT_SUPPORTED},
      {"multi signed", [&] { return signedBmp([&] { return Q_GrayScaleToMultitone(bmp, 9, 0, 0, 0, 0); }); },
       RC_SIGNED_DATA_NOT_SUPPORTED},
      {"multi type 2", [&] { return Q_GrayScaleToMultitone(bmp, 0, 2, colors, nullptr, 0); },
       RC_INVALID_PARAMETER},
      {"multi tones 4", [&] { return Q_GrayScaleToMultitone(bmp, 4, 0, colors, nullptr, 0); },
       RC_INVALID_PARAMETER},
      {"multi null colours", [&] { return Q_GrayScaleToMultitone(bmp, 0, 0, nullptr, nullptr, 0); },
       RC_INVALID_PARAMETER},
      {"multi mode 2", [&] { return Q_GrayScaleToMultitone(bmp, 0, 0, colors, nullptr, 2); },
       RC_INVALID_PARAMETER},
      {"multi tones 3 mode 2", [&] { return Q_GrayScaleToMultitone(bmp, 3, 0, colors, nullptr, 2); },
       RC_INVALID_PARAMETER},
      {"multi null, bad tones", [&] { return Q_GrayScaleToMultitone(nullptr, 4, 0, colors, nullptr, 0); },
       RC_INVALID_PARAMETER},
      {"multi null", [&] { return Q_GrayScaleToMultitone(nullptr, 0, 0, colors, nullptr, 0); }, RC_NO_BITMAP},
      {"multi 1-bit needs colours", [&] { return Q_GrayScaleToMultitone(oneBit, 0, 1, nullptr, nullptr, 0); },
       RC_INVALID_PARAMETER},
      {"multi null gradients", [&] { return Q_GrayScaleToMultitone(bmp, 0, 1, nullptr, nullptr, 0); },
       RC_INVALID_PARAMETER},
  });
}

// ---- Rows -------------------------------------------------------------------------------------------

TEST(ToneRows, DuotoneEightAndSixteenBitSamples) {
  // Mode 1, red: level v -> (255, v, v). Mode 0 scales entry v by v / 255:
  // (v, (v * v + 128) / 255, same). 16-bit samples (v << 8 | 0x5A): the high
  // byte goes through the table, the low byte stays. Colour pixels are kept.
  const std::vector<uint32_t> levels = {0, 128, 255, 7};
  constexpr uint32_t kLow = 0x5A;
  for (const kit::Spec &spec : kit::ColorSpecs()) {
    if (spec.bits == 16) continue;  // widened to 48 bits: see ConvertedKinds
    const bool wide = spec.bits >= 48;
    const uint32_t fourth = spec.Channels() == 4 ? 33 : 0;
    const auto sample = [&](uint32_t v) { return wide ? (v << 8) | kLow : v; };
    std::vector<Pixel> in;
    for (uint32_t v : levels) in.push_back(Rgb(sample(v), sample(v), sample(v), fourth));
    in.push_back(Rgb(10, 20, 30, fourth));
    for (uint32_t mode : {0u, 1u}) {
      SCOPED_TRACE(testing::Message() << spec.Name() << " mode " << mode);
      kit::Bitmap bmp(spec, static_cast<int32_t>(in.size()), 1, in);
      ASSERT_EQ(Duotone(bmp, kRed, mode), RC_SUCCESS);
      for (size_t i = 0; i < levels.size(); ++i) {
        const uint32_t v = levels[i], sq = (v * v + 128) / 255;
        const Pixel want = mode ? Rgb(sample(255), sample(v), sample(v), fourth)
                                : Rgb(sample(v), sample(sq), sample(sq), fourth);
        EXPECT_EQ(bmp.At(static_cast<int32_t>(i), 0), want) << "level " << v;
      }
      EXPECT_EQ(bmp.At(4, 0), in[4]);
    }
  }
}

TEST(ToneRows, ColourPixelsUnchangedByEither) {
  for (const kit::Spec &spec : kit::ColorSpecs()) {
    if (spec.bits == 16) continue;
    SCOPED_TRACE(spec.Name());
    kit::Bitmap bmp(spec, 9, 4);
    bmp.Randomize(21);
    for (int32_t y = 0; y < 4; ++y)
      for (int32_t x = 0; x < 9; ++x) {
        Pixel p = bmp.At(x, y);
        if (p.v[0] == p.v[1]) p.v[1] ^= 1;  // no pixel with equal red and green
        bmp.Set(x, y, p);
      }
    const auto before = bmp.Pixels();
    const uint32_t colors[4] = {kRed, kBlue, 0x00FF00u, 0x808080u};
    EXPECT_EQ(Duotone(bmp, kRed, 0), RC_SUCCESS);
    EXPECT_EQ(Q_GrayScaleToMultitone(bmp, 3, 0, colors, nullptr, 0), RC_SUCCESS);
    EXPECT_EQ(bmp.Pixels(), before);
  }
}

TEST(ToneRows, ConvertedKinds) {
  struct Case {
    kit::Spec spec;
    Pixel in;
    uint32_t wide;  // the 16-bit gray value after widening
  } cases[] = {
      {Kind(16, ORDER_GRAY), kit::Level(0x1234), 0x1234},
      {Kind(12, ORDER_GRAY), kit::Level(0xABC), 0xABC0},  // 12-bit levels widen by 16
      {Kind(16), Rgb(9, 9, 9), 74 * 257},                 // 5-bit 9 -> 8-bit 74 -> 16-bit
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.spec.Name());
    kit::Bitmap bmp(c.spec, 2, 1, {c.in, c.in});
    kit::SetRectRegion(bmp, 1, 0, 2, 1);  // the pixel outside is widened but not tinted
    ASSERT_EQ(Duotone(bmp, kRed, 1), RC_SUCCESS);
    EXPECT_EQ(bmp->BitsPerPixel, 48) << "not converted back";
    EXPECT_NE(bmp->ColorOrder, ORDER_GRAY);
    EXPECT_EQ(bmp.At(0, 0), Rgb(c.wide, c.wide, c.wide));
    EXPECT_EQ(bmp.At(1, 0), RedOnSixteen(c.wide));
  }
}

TEST(ToneRows, RegionLimitsTheChange) {
  kit::Bitmap bmp(Kind(24), 10, 8, std::vector<Pixel>(80, Rgb(128, 128, 128)));
  kit::SetEllipseRegion(bmp, 1, 1, 9, 7);
  ASSERT_EQ(Duotone(bmp, kRed, 1), RC_SUCCESS);
  int outsideInBox = 0;
  for (int32_t y = 0; y < 8; ++y)
    for (int32_t x = 0; x < 10; ++x) {
      const bool in = kit::InRegion(bmp, x, y);
      EXPECT_EQ(bmp.At(x, y), in ? Rgb(255, 128, 128) : Rgb(128, 128, 128)) << x << "," << y;
      if (!in && x >= 1 && x < 9 && y >= 1 && y < 7) ++outsideInBox;
    }
  EXPECT_GT(outsideInBox, 0);
}

TEST(ToneRows, CallerTableScaledInPlaceInModeZero) {
  auto table = Uniform({200, 100, 50, 7});
  kit::Bitmap bmp(Kind(24), 1, 1, {Rgb(100, 100, 100)});
  ASSERT_EQ(Q_GrayScaleToDuotone(bmp, table.data(), kRed, 1), RC_SUCCESS);
  EXPECT_TRUE(Same(table[100], {200, 100, 50, 7})) << "mode 1 leaves the table alone";
  EXPECT_EQ(bmp.At(0, 0), Rgb(50, 100, 200));
  bmp.Set(0, 0, Rgb(100, 100, 100));
  ASSERT_EQ(Q_GrayScaleToDuotone(bmp, table.data(), kRed, 0), RC_SUCCESS);
  EXPECT_TRUE(Same(table[0], {0, 0, 0, 7}));
  EXPECT_TRUE(Same(table[100], {78, 39, 20, 7}));  // (200*100+128)/255, (10128)/255, (5128)/255
  EXPECT_TRUE(Same(table[255], {200, 100, 50, 7}));
  EXPECT_EQ(bmp.At(0, 0), Rgb(20, 39, 78));
}

// ---- Palettes and 1-bit bitmaps ---------------------------------------------------------------------

TEST(TonePalette, RampAndBlend) {
  PaletteEntry reserved[16];
  for (uint8_t i = 0; i < 16; ++i)
    reserved[i] = {static_cast<uint8_t>(17 * i), static_cast<uint8_t>(17 * i), static_cast<uint8_t>(17 * i),
                   9};
  struct Case {
    uint32_t mode;
    int32_t index;
    PaletteEntry entry;
  } cases[] = {
      {1, 1, {17, 17, 255, 0}},  // ramp of 16: step 17000
      {1, 15, {255, 255, 255, 0}},
      {0, 1, {1, 1, 17, 0}},  // blue (17 * 17 + 128) / 255, red (17 * 255 + 128) / 255
      {0, 15, {255, 255, 255, 0}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << "mode " << c.mode << " index " << c.index);
    kit::Bitmap bmp(Kind(4), 4, 1, {kit::Level(0), kit::Level(1), kit::Level(7), kit::Level(15)}, reserved);
    const auto before = bmp.Pixels();
    ASSERT_EQ(Duotone(bmp, kRed, c.mode), RC_SUCCESS);
    EXPECT_EQ(bmp.Pixels(), before) << "indices stay";
    EXPECT_TRUE(Same(bmp->Palette[c.index], c.entry));
  }
  // A caller's table is indexed by palette index and not scaled.
  std::vector<PaletteEntry> table(16, PaletteEntry{10, 20, 30, 40});
  kit::Bitmap bmp(Kind(4), 1, 1);
  ASSERT_EQ(Q_GrayScaleToDuotone(bmp, table.data(), 0, 0), RC_SUCCESS);
  EXPECT_TRUE(Same(table[3], {10, 20, 30, 40}));
  EXPECT_TRUE(Same(bmp->Palette[3], {2, 4, 6, 0}));  // 51 * 10 / 255 etc., rounded
}

TEST(TonePalette, UnwritablePaletteGivesZero) {
  kit::Bitmap bmp(Kind(4), 2, 1);
  const PaletteEntry before = bmp->Palette[5];
  bmp->ColorsUsed = 17;  // more than a 4-bit palette holds
  const int32_t status = Duotone(bmp, kRed, 1);
  bmp->ColorsUsed = 16;
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(Same(bmp->Palette[5], before));
}

TEST(TonePalette, EightBitGrayBecomesTintedPalette) {
  kit::Bitmap bmp(Kind(8, ORDER_GRAY), 3, 1, {kit::Level(0), kit::Level(90), kit::Level(255)});
  ASSERT_EQ(Duotone(bmp, kRed, 1), RC_SUCCESS);
  EXPECT_EQ(bmp->BitsPerPixel, 8);
  EXPECT_NE(bmp->ColorOrder, ORDER_GRAY);
  EXPECT_EQ(bmp.At(1, 0), kit::Level(90)) << "index = former level";
  EXPECT_EQ(bmp.ColorAt(0, 0), Rgb(255, 0, 0));
  EXPECT_EQ(bmp.ColorAt(1, 0), Rgb(255, 90, 90));
  EXPECT_EQ(bmp.ColorAt(2, 0), Rgb(255, 255, 255));
}

TEST(ToneOneBit, EntriesFollowTheDarkIndex) {
  const PaletteEntry black{0, 0, 0, 0}, green{0, 255, 0, 0};
  const PaletteEntry inverted[2] = {{255, 255, 255, 0}, {0, 0, 0, 0}};
  PaletteEntry pair[2] = {{1, 2, 3, 4}, {5, 6, 7, 8}};
  const uint32_t colors[2] = {kRed, kBlue};
  const PaletteEntry red{0, 0, 255, 0}, blue{255, 0, 0, 0};
  struct Case {
    const char *name;
    bool gray;
    std::function<int32_t(BitmapRecord *)> call;
    PaletteEntry e0, e1;
  } cases[] = {
      {"gray, colour", true, [](BitmapRecord *b) { return Duotone(b, 0x00FF00u, 1); }, black, green},
      {"inverted, colour", false, [](BitmapRecord *b) { return Duotone(b, 0x00FF00u, 0); }, green, black},
      {"gray, table", true, [&](BitmapRecord *b) { return Q_GrayScaleToDuotone(b, pair, 0, 0); }, pair[0],
       pair[1]},
      {"inverted, table", false, [&](BitmapRecord *b) { return Q_GrayScaleToDuotone(b, pair, 0, 1); },
       pair[1], pair[0]},
      {"multitone gray", true,
       [&](BitmapRecord *b) { return Q_GrayScaleToMultitone(b, 3, 1, colors, nullptr, 1); }, red, blue},
      {"multitone inverted", false,
       [&](BitmapRecord *b) { return Q_GrayScaleToMultitone(b, 0, 0, colors, nullptr, 0); }, blue, red},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    kit::Bitmap bmp(Kind(1), 8, 1, c.gray ? nullptr : inverted);
    ASSERT_EQ(IsGrayBitmap(bmp) != 0, c.gray);
    EXPECT_EQ(c.call(bmp), 1) << "SetPalette's answer";
    EXPECT_TRUE(Same(bmp->Palette[0], c.e0));
    EXPECT_TRUE(Same(bmp->Palette[1], c.e1));
  }
  kit::Bitmap bmp(Kind(1), 8, 1);
  bmp->ColorsUsed = 3;  // SetPalette refuses: its 0 is the status
  EXPECT_EQ(Duotone(bmp, kRed, 1), 0);
  bmp->ColorsUsed = 2;
}

// ---- Multitone
// ---------------------------------------------------------------------------------------------

TEST(ToneMultitone, Products) {
  const std::vector<Pixel> grays = {Rgb(0, 0, 0), Rgb(128, 128, 128), Rgb(255, 255, 255)};
  const uint32_t redBlue[2] = {kRed, kBlue};
  const uint32_t whites[4] = {kWhite, kWhite, kWhite, kWhite};
  auto g0 = Uniform({200, 100, 50, 0}), g1 = Uniform({128, 128, 128, 0});
  PaletteEntry *gradients[2] = {g0.data(), g1.data()};
  struct Case {
    const char *name;
    std::function<int32_t(BitmapRecord *)> call;
    std::vector<Pixel> out;
  } cases[] = {
      // One tone is the duotone ramp: white * s = s.
      {"one tone, mode 1",
       [&](BitmapRecord *b) { return Q_GrayScaleToMultitone(b, 0, 0, redBlue, nullptr, 1); },
       {Rgb(255, 0, 0), Rgb(255, 128, 128), Rgb(255, 255, 255)}},
      {"one tone, mode 0",
       [&](BitmapRecord *b) { return Q_GrayScaleToMultitone(b, 0, 0, redBlue, nullptr, 0); },
       {Rgb(0, 0, 0), Rgb(128, 64, 64), Rgb(255, 255, 255)}},
      // Red ramp (128, 128, 255) times blue ramp (255, 128, 128) at 128.
      {"two tones",
       [&](BitmapRecord *b) { return Q_GrayScaleToMultitone(b, 1, 0, redBlue, nullptr, 1); },
       {Rgb(0, 0, 0), Rgb(128, 64, 128), Rgb(255, 255, 255)}},
      // White tables: mode 0 would give back the gray; four tones apply as is.
      {"three tones, mode 0",
       [&](BitmapRecord *b) { return Q_GrayScaleToMultitone(b, 2, 0, whites, nullptr, 0); }, grays},
      {"four tones, mode 0",
       [&](BitmapRecord *b) { return Q_GrayScaleToMultitone(b, 3, 0, whites, nullptr, 0); },
       {Rgb(255, 255, 255), Rgb(255, 255, 255), Rgb(255, 255, 255)}},
      // (200, 100, 50) * 128 / 255 rounded: (100, 50, 25).
      {"gradients",
       [&](BitmapRecord *b) { return Q_GrayScaleToMultitone(b, 1, 1, nullptr, gradients, 1); },
       {Rgb(25, 50, 100), Rgb(25, 50, 100), Rgb(25, 50, 100)}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    kit::Bitmap bmp(Kind(24), 3, 1, grays);
    ASSERT_EQ(c.call(bmp), RC_SUCCESS);
    EXPECT_EQ(bmp.Pixels(), c.out);
  }
  // The caller's gradients are read, never written.
  EXPECT_TRUE(Same(g0[3], {200, 100, 50, 0}));
}

TEST(ToneMultitone, NullGradientsAfterTheTables) {
  kit::Bitmap bmp(Kind(24), 2, 1, {Rgb(9, 9, 9), Rgb(9, 9, 9)});
  auto g0 = Uniform({1, 2, 3, 0});
  PaletteEntry *oneMissing[2] = {g0.data(), nullptr};
  const kit::LeakGuard guard;
  EXPECT_EQ(Q_GrayScaleToMultitone(bmp, 0, 1, nullptr, nullptr, 0), RC_INVALID_PARAMETER);
  EXPECT_EQ(Q_GrayScaleToMultitone(bmp, 1, 1, nullptr, oneMissing, 0), RC_INVALID_PARAMETER);
  // The tables come first: failing their allocation gives -1 instead.
  SetAllocationFailure(1);
  EXPECT_EQ(Q_GrayScaleToMultitone(bmp, 0, 1, nullptr, nullptr, 0), RC_NO_MEMORY);
  SetAllocationFailure(0);
  EXPECT_EQ(guard.Live(), 0u);
  EXPECT_EQ(bmp.At(0, 0), Rgb(9, 9, 9));
}

// ---- Every kind
// ----------------------------------------------------------------------------------------------

// A gray level on the kind's own scale, and what mode 1 with red makes of it.
Pixel GrayIn(const kit::Spec &spec, uint32_t step) {
  if (spec.IsPalette() || spec.IsGray()) return kit::Level(step % (spec.SampleMax() + 1));
  const uint32_t v = step % (spec.SampleMax() + 1);
  return Rgb(v, v, v, 33);
}

Pixel RedOut(const kit::Spec &spec, const Pixel &in) {
  const uint32_t v = in.v[0];
  if (spec.bits == 1) return v ? Rgb(255, 0, 0) : Rgb(0, 0, 0);  // (black, colour)
  if (spec.IsPalette()) {                                        // ramp entry = gray level
    const uint32_t level = v * 255 / ((1u << spec.bits) - 1);
    return Rgb(255, level, level);
  }
  if (spec.bits == 8) return Rgb(255, v, v);  // 8-bit gray, now a palette
  if (spec.bits == 12) return RedOnSixteen(v << 4);
  if (spec.bits == 16) return RedOnSixteen(spec.IsGray() ? v : ((v << 3) | (v >> 2)) * 257);
  if (spec.bits >= 48) return RedOnSixteen(v, spec.bits == 64 ? 33 : 0);
  return Rgb(255, v, v, spec.bits == 32 ? 33 : 0);
}

TEST(ToneExports, EveryKind) {
  for (const kit::Spec &spec : kit::AllSpecs(true)) {
    SCOPED_TRACE(spec.Name());
    std::vector<Pixel> in;
    for (uint32_t i = 0; i < 12; ++i) in.push_back(GrayIn(spec, i * 5557 + 3));
    kit::Bitmap bmp(spec, 4, 3, in);
    ASSERT_EQ(Duotone(bmp, kRed, 1), RC_SUCCESS);
    const bool palette = bmp->BitsPerPixel <= 8;
    for (int32_t i = 0; i < 12; ++i) {
      const Pixel got = palette ? bmp.ColorAt(i % 4, i / 4) : bmp.At(i % 4, i / 4);
      EXPECT_EQ(got, RedOut(spec, in[i])) << "pixel " << i;
    }
  }
}

// ---- Memory and progress
// --------------------------------------------------------------------------------------

struct Fixture {
  kit::Bitmap bmp;
};

TEST(ToneExports, AllocationFailuresAndProgress) {
  const uint32_t colors[4] = {kRed, kBlue, 0x00FF00u, 0x4000000u | 0x8000u};
  struct Case {
    const char *name;
    kit::Spec spec;
    bool region, multitone;
  } cases[] = {
      {"duo 24 region", Kind(24), true, false},
      {"duo 16 gray", Kind(16, ORDER_GRAY), false, false},
      {"duo 8 gray", Kind(8, ORDER_GRAY), false, false},
      {"duo 4-bit", Kind(4), false, false},
      {"multi 48 region", Kind(48), true, true},
      {"multi 12 gray", Kind(12, ORDER_GRAY), false, true},
      {"multi 8-bit", Kind(8), false, true},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    const auto setup = [&] {
      Fixture f{kit::Bitmap(c.spec, 7, 5)};
      f.bmp.Randomize(8);
      if (c.region) kit::SetEllipseRegion(f.bmp, 0, 0, 7, 5);
      return f;
    };
    const auto call = [&](Fixture &f) {
      return c.multitone ? Q_GrayScaleToMultitone(f.bmp, 3, 0, colors, nullptr, 0) : Duotone(f.bmp, kRed, 0);
    };
    EXPECT_GE(kit::CheckAllocationFailures(setup, call), 1);
    EXPECT_EQ(kit::CheckCancellation(setup, call), 0) << "no progress is reported";
  }
}

}  // namespace
