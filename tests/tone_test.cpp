// Q_GrayScaleToDuotone, Q_GrayScaleToMultitone and their ramp: entry checks,
// the row, palette and 1-bit paths, widened kinds, products and cleanup.
#include "tone.h"

#include <gtest/gtest.h>

#include <vector>

#include "kit.h"

namespace {

using kit::Pixel;
using kit::Rgb;

kit::Format Kind(int32_t bits, int32_t order = ORDER_BGR) { return kit::Format{bits, order}; }

constexpr uint32_t kRed = 0x0000FFu, kBlue = 0xFF0000u, kWhite = 0xFFFFFFu;

bool Same(const PaletteEntry &a, const PaletteEntry &b) {
  return a.Blue == b.Blue && a.Green == b.Green && a.Red == b.Red && a.Reserved == b.Reserved;
}
std::vector<PaletteEntry> Uniform(PaletteEntry e) { return std::vector<PaletteEntry>(256, e); }

int32_t Duotone(BitmapRecord *b, uint32_t c, uint32_t mode) {
  return Q_GrayScaleToDuotone(b, nullptr, c, mode);
}

// Red ramp, mode 1, on 16-bit samples: the high byte goes through the table
// (blue, green: the level itself; red: 255), the low byte stays.
Pixel RedOnSixteen(uint32_t v, uint32_t fourth = 0) { return Rgb(0xFF00u | (v & 0xFFu), v, v, fourth); }

TEST(ToneTables, Ramp) {
  struct Case {
    uint32_t color;
    int32_t count, index;
    PaletteEntry entry;
  } cases[] = {
      {kRed, 256, 128, {128, 128, 255, 0}},   // step 1000 on a zero channel: entry i = i
      {0x000064u, 16, 1, {17, 17, 110, 0}},   // red 100: step 608 * 255 / 15 = 10336
      {0x000064u, 4, 2, {170, 170, 203, 0}},  // step 608 * 85 = 51680: (100000 + 103360 + 500) / 1000
      {COLOR_GRAY_LEVEL | 0x64FFu, 256, 0, {100, 100, 100, 0}},  // gray level in bits 8-15, red bits ignored
      {0x336699u, 1, 0, {0x33, 0x66, 0x99, 0}},                  // one entry: the colour
  };
  for (const Case &c : cases) {
    std::vector<PaletteEntry> table(static_cast<size_t>(c.count), PaletteEntry{1, 2, 3, 4});
    img::tone::BuildRamp(c.color, c.count, table.data());
    EXPECT_TRUE(Same(table[c.index], c.entry)) << c.color << " " << c.count << " " << c.index;
  }
}

// Status order of both exports, a palette count outside the palette refused (-2) before anything
// is read (the caller's table holds exactly the entries of a 4-bit palette), and null gradients
// after the tables.
TEST(ToneExports, ChecksInOrder) {
  kit::Bitmap bmp(Kind(24), 3, 2), size0(Kind(24), 1, 1), size200(Kind(24), 1, 1), size176(Kind(24), 1, 1);
  kit::Bitmap signedBmp(Kind(24), 1, 1), gray32(Kind(32), 2, 2), oneBit(Kind(1), 8, 1), pal(Kind(4), 2, 1);
  size0->StructSize = 0;
  size200->StructSize = 200;
  size176->StructSize = 176;
  signedBmp->Flags |= BITMAP_SIGNED;
  gray32->ColorOrder = ORDER_GRAY;
  gray32->Flags |= BITMAP_SIGNED;
  pal->ColorsUsed = 17;    // more than a 4-bit palette holds
  oneBit->ColorsUsed = 3;  // more than a 1-bit palette holds
  const PaletteEntry fifth = pal->Palette[5];
  const std::vector<PaletteEntry> sixteen(16, PaletteEntry{1, 2, 3, 0});
  BitmapRecord bare = *pal.get();  // a record without palette block
  bare.Palette = nullptr, bare.ColorsUsed = 16;
  const uint32_t colors[4] = {kRed, kBlue, kWhite, kRed};
  auto g0 = Uniform({1, 2, 3, 0});
  PaletteEntry *oneMissing[2] = {g0.data(), nullptr};
  const auto multi = [&](BitmapRecord *b, uint32_t tones, uint32_t type, const uint32_t *c, uint32_t mode) {
    return Q_GrayScaleToMultitone(b, tones, type, c, type ? oneMissing : nullptr, mode);
  };
  const kit::LeakGuard guard;
  kit::ExpectStatuses({
      {"duo size 0", [&] { return Duotone(size0, kRed, 2); }, RC_INVALID_STRUCT_SIZE},
      {"duo size 200", [&] { return Duotone(size200, kRed, 0); }, RC_INVALID_STRUCT_SIZE},
      {"duo size 176", [&] { return Duotone(size176, kRed, 0); }, RC_SUCCESS},
      {"duo gray32 before mode", [&] { return Duotone(gray32, kRed, 2); }, RC_GRAY32_NOT_SUPPORTED},
      {"duo signed before mode", [&] { return Duotone(signedBmp, kRed, 2); }, RC_SIGNED_DATA_NOT_SUPPORTED},
      {"duo mode 2", [&] { return Duotone(bmp, kRed, 2); }, RC_INVALID_PARAMETER},
      {"duo null, mode 2", [] { return Duotone(nullptr, kRed, 2); }, RC_INVALID_PARAMETER},
      {"duo null", [] { return Duotone(nullptr, kRed, 1); }, RC_NO_BITMAP},
      {"duo 17 entries on 4 bits", [&] { return Duotone(pal, kRed, 1); }, RC_NO_BITMAP},
      {"duo 17 entries, 16-entry table",
       [&] { return Q_GrayScaleToDuotone(pal, const_cast<PaletteEntry *>(sixteen.data()), 0, 1); },
       RC_NO_BITMAP},
      {"duo 3 entries on 1 bit", [&] { return Duotone(oneBit, kRed, 1); }, RC_NO_BITMAP},
      {"duo no palette", [&] { return Duotone(&bare, kRed, 0); }, RC_NO_BITMAP},
      {"multi 17 entries on 4 bits", [&] { return Q_GrayScaleToMultitone(pal, 0, 0, colors, nullptr, 1); },
       RC_NO_BITMAP},
      {"multi size 200", [&] { return multi(size200, 9, 0, nullptr, 0); }, RC_INVALID_STRUCT_SIZE},
      {"multi gray32", [&] { return multi(gray32, 9, 0, nullptr, 0); }, RC_GRAY32_NOT_SUPPORTED},
      {"multi signed", [&] { return multi(signedBmp, 9, 0, nullptr, 0); }, RC_SIGNED_DATA_NOT_SUPPORTED},
      {"multi type 2", [&] { return multi(bmp, 0, 2, colors, 0); }, RC_INVALID_PARAMETER},
      {"multi tones 4", [&] { return multi(bmp, 4, 0, colors, 0); }, RC_INVALID_PARAMETER},
      {"multi null colours", [&] { return multi(bmp, 0, 0, nullptr, 0); }, RC_INVALID_PARAMETER},
      {"multi mode 2", [&] { return multi(bmp, 0, 0, colors, 2); }, RC_INVALID_PARAMETER},
      {"multi tones 3 mode 2", [&] { return multi(bmp, 3, 0, colors, 2); }, RC_INVALID_PARAMETER},
      {"multi null, bad tones", [&] { return multi(nullptr, 4, 0, colors, 0); }, RC_INVALID_PARAMETER},
      {"multi null", [&] { return multi(nullptr, 0, 0, colors, 0); }, RC_NO_BITMAP},
      {"multi 1-bit needs colours", [&] { return multi(oneBit, 0, 1, nullptr, 0); }, RC_INVALID_PARAMETER},
      {"multi null gradients", [&] { return Q_GrayScaleToMultitone(bmp, 0, 1, nullptr, nullptr, 0); },
       RC_INVALID_PARAMETER},
      {"multi one gradient missing", [&] { return multi(bmp, 1, 1, nullptr, 0); }, RC_INVALID_PARAMETER},
      {"multi tables before gradients",
       [&] { return SetAllocationFailure(1), Q_GrayScaleToMultitone(bmp, 0, 1, nullptr, nullptr, 0); },
       RC_NO_MEMORY},
  });
  SetAllocationFailure(0);
  EXPECT_EQ(guard.Live(), 0u) << "tables freed on every refusal";
  EXPECT_TRUE(Same(pal->Palette[5], fifth)) << "palette untouched";
  size0->StructSize = size200->StructSize = size176->StructSize = BITMAP_RECORD_SIZE;
}

// Only gray pixels in the region change; 12- and 16-bit kinds are widened outside it too.
TEST(ToneRows, RegionAndWidenedKinds) {
  struct Case {
    kit::Format format;
    Pixel in;
    uint32_t wide;  // the value after widening
  } cases[] = {
      {Kind(24), Rgb(128, 128, 128), 128},
      {Kind(16, ORDER_GRAY), kit::Level(0x1234), 0x1234},
      {Kind(12, ORDER_GRAY), kit::Level(0xABC), 0xABC0},  // 12-bit levels widen by 16
      {Kind(16), Rgb(9, 9, 9), 74 * 257},                 // 5-bit 9 -> 8-bit 74 -> 16-bit
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.format.Name());
    kit::Bitmap bmp(c.format, 10, 8, std::vector<Pixel>(80, c.in));
    kit::SetEllipseRegion(bmp, 1, 1, 9, 7);
    ASSERT_EQ(Duotone(bmp, kRed, 1), RC_SUCCESS);
    ASSERT_FALSE(kit::InRegion(bmp, 1, 1)) << "a corner of the ellipse's box";
    const Pixel tinted = c.format.bits != 24 ? RedOnSixteen(c.wide) : Rgb(255, 128, 128);
    for (int32_t i = 0; i < 80; ++i) {
      const int32_t x = i % 10, y = i / 10;
      EXPECT_EQ(bmp.At(x, y), kit::InRegion(bmp, x, y) ? tinted : Rgb(c.wide, c.wide, c.wide))
          << x << "," << y;
    }
  }
}

// Mode 0 scales the table by level in place, a caller's table too (kept).
TEST(ToneRows, CallerTableScaledInPlaceInModeZero) {
  auto table = Uniform({200, 100, 50, 7});
  kit::Bitmap bmp(Kind(24), 2, 1, {Rgb(100, 100, 100), Rgb(10, 20, 30)});
  ASSERT_EQ(Q_GrayScaleToDuotone(bmp, table.data(), kRed, 1), RC_SUCCESS);
  EXPECT_TRUE(Same(table[100], {200, 100, 50, 7})) << "mode 1 leaves the table alone";
  EXPECT_EQ(bmp.At(0, 0), Rgb(50, 100, 200));
  bmp.Set(0, 0, Rgb(100, 100, 100));
  ASSERT_EQ(Q_GrayScaleToDuotone(bmp, table.data(), kRed, 0), RC_SUCCESS);
  EXPECT_TRUE(Same(table[0], {0, 0, 0, 7}));
  EXPECT_TRUE(Same(table[100], {78, 39, 20, 7}));  // (200*100+128)/255, (10128)/255, (5128)/255
  EXPECT_TRUE(Same(table[255], {200, 100, 50, 7}));
  EXPECT_EQ(bmp.At(0, 0), Rgb(20, 39, 78));
  EXPECT_EQ(bmp.At(1, 0), Rgb(10, 20, 30)) << "colour pixels stay";
}

// A 4-bit gray palette with reserved bytes 9: mode 1 copies the red ramp of 16
// (step 17000), mode 0 multiplies it in; reserved bytes become 0.
TEST(TonePalette, RampAndBlend) {
  PaletteEntry gray[16];
  for (uint32_t i = 0; i < 16; ++i) gray[i] = {uint8_t(17 * i), uint8_t(17 * i), uint8_t(17 * i), 9};
  // Mode 0, entry 1: blue (17 * 17 + 128) / 255, red (17 * 255 + 128) / 255.
  const PaletteEntry first[2] = {{1, 1, 17, 0}, {17, 17, 255, 0}}, white{255, 255, 255, 0};
  for (uint32_t mode : {0u, 1u}) {
    kit::Bitmap bmp(Kind(4), 4, 1, gray);
    ASSERT_EQ(Duotone(bmp, kRed, mode), RC_SUCCESS);
    EXPECT_TRUE(Same(bmp->Palette[1], first[mode]) && Same(bmp->Palette[15], white)) << mode;
  }
  // A caller's table is indexed by palette index and not scaled.
  std::vector<PaletteEntry> table(16, PaletteEntry{10, 20, 30, 40});
  kit::Bitmap bmp(Kind(4), 1, 1);
  ASSERT_EQ(Q_GrayScaleToDuotone(bmp, table.data(), 0, 0), RC_SUCCESS);
  EXPECT_TRUE(Same(table[3], {10, 20, 30, 40}));
  EXPECT_TRUE(Same(bmp->Palette[3], {2, 4, 6, 0}));  // 51 * 10 / 255 etc., rounded
}

// 8-bit gray takes the palette path, inside a region too: its ramp is tinted and its pixels (the
// indices) stay. A palette that is no longer the ramp makes it an 8-bit palette bitmap (ORDER_BGR);
// white in mode 0 gives the ramp back and it stays gray. Mode 1 with red: see EveryKind.
TEST(TonePalette, EightBitGrayTintsItsRamp) {
  struct Case {
    uint32_t colors[2], mode;
    bool multitone;
    PaletteEntry entry100;
  } cases[] = {{{kRed}, 0, false, {39, 39, 100, 0}},  // (100 * 100 + 128) / 255, (100 * 255 + 128) / 255
               {{kWhite}, 0, false, {100, 100, 100, 0}},
               {{kRed, kBlue}, 1, true, {100, 39, 100, 0}}};  // the red ramp times the blue one
  std::vector<Pixel> levels;
  for (uint32_t i = 0; i < 256; ++i) levels.push_back(kit::Level(i));
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << c.colors[0] << (c.multitone ? " multitone" : " duotone"));
    kit::Bitmap bmp(Kind(8, ORDER_GRAY), 16, 16, levels);
    kit::SetEllipseRegion(bmp, 2, 2, 9, 9);
    ASSERT_EQ(c.multitone ? Q_GrayScaleToMultitone(bmp, 1, 0, c.colors, nullptr, c.mode)
                          : Duotone(bmp, c.colors[0], c.mode),
              RC_SUCCESS);
    const bool gray = Same(c.entry100, {100, 100, 100, 0});
    EXPECT_EQ(bmp->ColorOrder, gray ? ORDER_GRAY : ORDER_BGR);
    EXPECT_EQ((IsGrayBitmap(bmp) != 0) + kit::HasGrayRamp(bmp.get()), gray ? 2 : 0);
    EXPECT_TRUE(Same(bmp->Palette[100], c.entry100) && bmp->ColorsUsed == 256);
    EXPECT_EQ(bmp.Pixels(), levels);
  }
}

// Multitone ignores tones, type and mode here: its two colours apply in mode 0.
TEST(ToneOneBit, EntriesFollowTheDarkIndex) {
  const PaletteEntry black{0, 0, 0, 0}, green{0, 255, 0, 0}, red{0, 0, 255, 0}, blue{255, 0, 0, 0};
  const PaletteEntry inverted[2] = {{255, 255, 255, 0}, {0, 0, 0, 0}};
  PaletteEntry pair[2] = {{1, 2, 3, 4}, {5, 6, 7, 8}};
  const uint32_t colors[2] = {kRed, kBlue};
  struct Case {
    bool gray, multitone;
    PaletteEntry *table;
    uint32_t mode;
    PaletteEntry e0, e1;
  } cases[] = {{true, false, nullptr, 1, black, green},  {false, false, nullptr, 0, green, black},
               {true, false, pair, 0, pair[0], pair[1]}, {false, false, pair, 1, pair[1], pair[0]},
               {true, true, nullptr, 1, red, blue},      {false, true, nullptr, 0, blue, red}};
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << c.gray << c.multitone << (c.table != nullptr) << c.mode);
    kit::Bitmap bmp(Kind(1), 8, 1, c.gray ? nullptr : inverted);
    ASSERT_EQ(IsGrayBitmap(bmp) != 0, c.gray);
    const int32_t status = c.multitone
                               ? Q_GrayScaleToMultitone(bmp, 3 * c.mode, c.mode, colors, nullptr, c.mode)
                               : Q_GrayScaleToDuotone(bmp, c.table, 0x00FF00u, c.mode);
    EXPECT_EQ(status, 1) << "SetPalette's answer";
    EXPECT_TRUE(Same(bmp->Palette[0], c.e0) && Same(bmp->Palette[1], c.e1));
  }
}

// Products of the tone tables on gray pixels; a colour pixel stays.
TEST(ToneMultitone, Products) {
  const std::vector<Pixel> in = {Rgb(0, 0, 0), Rgb(128, 128, 128), Rgb(255, 255, 255), Rgb(10, 20, 30)};
  const uint32_t redBlue[2] = {kRed, kBlue}, whites[4] = {kWhite, kWhite, kWhite, kWhite};
  auto g0 = Uniform({200, 100, 50, 0}), g1 = Uniform({128, 128, 128, 0});
  PaletteEntry *gradients[2] = {g0.data(), g1.data()};
  struct Case {
    uint32_t tones, type, mode;
    const uint32_t *colors;
    std::vector<Pixel> out;
  } cases[] = {// One tone is the duotone ramp: white * s = s.
               {0, 0, 1, redBlue, {Rgb(255, 0, 0), Rgb(255, 128, 128), Rgb(255, 255, 255)}},
               {0, 0, 0, redBlue, {Rgb(0, 0, 0), Rgb(128, 64, 64), Rgb(255, 255, 255)}},
               // Red ramp (128, 128, 255) times blue ramp (255, 128, 128) at 128.
               {1, 0, 1, redBlue, {Rgb(0, 0, 0), Rgb(128, 64, 128), Rgb(255, 255, 255)}},
               // White tables: mode 0 would give back the gray; four tones apply as is.
               {2, 0, 0, whites, {in[0], in[1], in[2]}},
               {3, 0, 0, whites, {Rgb(255, 255, 255), Rgb(255, 255, 255), Rgb(255, 255, 255)}},
               // (200, 100, 50) * 128 / 255 rounded: (100, 50, 25).
               {1, 1, 1, nullptr, {Rgb(25, 50, 100), Rgb(25, 50, 100), Rgb(25, 50, 100)}}};
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << c.tones << " tones, type " << c.type << ", mode " << c.mode);
    kit::Bitmap bmp(Kind(24), 4, 1, in);
    ASSERT_EQ(Q_GrayScaleToMultitone(bmp, c.tones, c.type, c.colors, gradients, c.mode), RC_SUCCESS);
    for (int32_t x = 0; x < 3; ++x) EXPECT_EQ(bmp.At(x, 0), c.out[x]) << x;
    EXPECT_EQ(bmp.At(3, 0), in[3]);
  }
  EXPECT_TRUE(Same(g0[3], {200, 100, 50, 0})) << "gradients are read, never written";
}

// What mode 1 with red makes of a gray level on the kind's own scale.
Pixel RedOut(const kit::Format &format, const Pixel &in) {
  const uint32_t v = in.v[0];
  if (format.bits == 1) return v ? Rgb(255, 0, 0) : Rgb(0, 0, 0);  // (black, colour)
  if (format.IsPalette())
    return Rgb(255, v * 255 / format.SampleMax(), v * 255 / format.SampleMax());  // ramp
  if (format.bits == 8) return Rgb(255, v, v);  // 8-bit gray: its ramp tinted
  if (format.bits == 12) return RedOnSixteen(v << 4);
  if (format.bits == 16) return RedOnSixteen(format.IsGray() ? v : ((v << 3) | (v >> 2)) * 257);
  if (format.bits >= 48) return RedOnSixteen(v, format.bits == 64 ? 33 : 0);
  return Rgb(255, v, v, format.bits == 32 ? 33 : 0);
}

// Every kind, mode 1: 12- and 16-bit ones end up 48-bit, 8-bit gray ones an
// 8-bit palette bitmap whose index is the level; every palette keeps indices.
TEST(ToneExports, EveryKind) {
  for (const kit::Format &format : kit::AllFormats(true)) {
    SCOPED_TRACE(format.Name());
    std::vector<Pixel> in;
    for (uint32_t i = 0; i < 12; ++i) {
      const uint32_t v = (i * 5557 + 3) % (format.SampleMax() + 1);
      in.push_back(format.Channels() == 1 ? kit::Level(v) : Rgb(v, v, v, 33));
    }
    kit::Bitmap bmp(format, 4, 3, in);
    ASSERT_EQ(Duotone(bmp, kRed, 1), RC_SUCCESS);
    EXPECT_EQ(bmp->BitsPerPixel, format.bits == 12 || format.bits == 16 ? 48 : format.bits);
    EXPECT_NE(bmp->ColorOrder, ORDER_GRAY);
    const bool palette = bmp->BitsPerPixel <= 8;
    for (int32_t i = 0; i < 12; ++i) {
      EXPECT_EQ(palette ? bmp.ColorAt(i % 4, i / 4) : bmp.At(i % 4, i / 4), RedOut(format, in[i])) << i;
      EXPECT_TRUE(!palette || bmp.At(i % 4, i / 4) == in[i]) << "index " << i;
    }
  }
}

TEST(ToneExports, AllocationFailuresAndNoProgress) {
  const uint32_t colors[4] = {kRed, kBlue, 0x00FF00u, COLOR_GRAY_LEVEL | 0x8000u};
  for (const kit::Format &format : {Kind(24), Kind(48), Kind(16, ORDER_GRAY), Kind(12, ORDER_GRAY),
                                    Kind(8, ORDER_GRAY), Kind(8), Kind(4)})
    for (bool multitone : {false, true}) {
      SCOPED_TRACE(testing::Message() << format.Name() << (multitone ? " multitone" : " duotone"));
      const auto setup = [&] {
        kit::Bitmap bmp(format, 7, 5);
        bmp.Randomize(8);
        if (format.bits >= 24) kit::SetEllipseRegion(bmp, 0, 0, 7, 5);
        return bmp;
      };
      const auto call = [&](kit::Bitmap &b) {
        return multitone ? Q_GrayScaleToMultitone(b, 3, 0, colors, nullptr, 0) : Duotone(b, kRed, 0);
      };
      EXPECT_GE(kit::CheckAllocationFailures(setup, call), 1);
      EXPECT_EQ(kit::CheckCancellation(setup, call), 0) << "no progress is reported";
    }
}

}  // namespace
