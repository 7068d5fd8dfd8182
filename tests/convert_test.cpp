// imgkernel conversions: ConvertBitmapFormat / ConvertBitmapDepth,
// ConvertRowBuffer, ChangeOrientation, FillBitmap and CountBitmapColors.
#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "kit.h"

using kit::Bitmap, kit::Format, kit::Level, kit::Pixel, kit::Rgb;

namespace {

const int32_t G = ORDER_GRAY, B = ORDER_BGR, R = ORDER_RGB;

// Sets the kernel settings pair (dithering, palette choice) for the scope.
struct Settings {
  Settings(int32_t dither, int32_t choice) { SwapKernelSettings(dither, choice, &old[0], &old[1]); }
  ~Settings() { SwapKernelSettings(old[0], old[1], nullptr, nullptr); }
  int32_t old[2] = {0, 0};
};

// Colour of a pixel of any kind widened to 16 bits per sample: red, green, blue, fourth.
std::array<uint32_t, 4> WideAt(const Bitmap &bm, int32_t x, int32_t y) {
  const Format &f = bm.format();
  const Pixel p = f.IsPalette() ? bm.ColorAt(x, y) : bm.At(x, y);
  const uint32_t v = p.v[0] * (f.bits == 8 ? 257u : f.bits == 12 ? 16u : 1u);
  if (f.IsGray()) return {v, v, v, 0};
  const uint32_t k = f.bits <= 32 ? 257u : 1u;  // 5-bit values first expand to 8 bits
  const auto wide = [&](uint32_t s) { return (f.bits == 16 ? (s << 3) | (s >> 2) : s) * k; };
  return {wide(p.v[0]), wide(p.v[1]), wide(p.v[2]), wide(p.v[3])};
}

// The fixed 8-bit palette: a 6 x 7 x 6 cube, then four grays.
std::vector<PaletteEntry> Cube() {
  std::vector<PaletteEntry> pal;
  for (int i = 0; i < 252; ++i)
    pal.push_back({uint8_t(51 * (i % 6)), uint8_t(i / 6 % 7 * 255 / 6), uint8_t(51 * (i / 42)), 0});
  for (uint8_t k = 51; k <= 204; k = uint8_t(k + 51)) pal.push_back({k, k, k, 0});
  return pal;
}

// Nearest entry by squared distance, lowest index on ties, as Rgb.
Pixel Nearest(const PaletteEntry *pal, size_t n, uint32_t r, uint32_t g, uint32_t b) {
  size_t best = 0;
  int64_t bestD = INT64_MAX;
  for (size_t i = 0; i < n; ++i) {
    const int64_t dr = pal[i].Red - int64_t(r), dg = pal[i].Green - int64_t(g), db = pal[i].Blue - int64_t(b);
    if (dr * dr + dg * dg + db * db < bestD) bestD = dr * dr + dg * dg + db * db, best = i;
  }
  return Rgb(pal[best].Red, pal[best].Green, pal[best].Blue);
}

}  // namespace

// Every kind through every target, both orientations, pixel by pixel against
// the widening and narrowing rules; palette results hold the nearest colour
// of their palette (the fixed one unless the source has a palette; no
// dithering with settings (0, 1)).
TEST(ConvertBitmapFormat, EveryKindToEveryTarget) {
  Settings fixed(0, 1);
  const std::pair<int32_t, int32_t> targets[] = {{1, B},  {2, B},   {4, R},  {8, B},  {8, 4},   {8, G},
                                                 {12, G}, {16, G},  {16, B}, {16, 4}, {24, R},  {24, B},
                                                 {32, B}, {32, 20}, {48, 4}, {48, R}, {64, 20}, {64, R}};
  for (const Format &format : kit::AllFormats(true)) {
    // The own depth changes nothing, also for signed data and significant bits.
    Bitmap own(format, 9, 3);
    own.Randomize(3);
    own->SignificantHighBit = format.IsGray() ? 6 : -1;
    own->Flags |= BITMAP_SIGNED;
    const BitmapRecord record = *own.get();
    const std::vector<uint8_t> stored = own.StoredBytes();
    EXPECT_EQ(ConvertBitmapDepth(own, format.bits), RC_SUCCESS) << format.Name();
    EXPECT_TRUE(std::memcmp(&record, own.get(), sizeof record) == 0 && own.StoredBytes() == stored);
    for (const auto &[bits, order] : targets) {
      SCOPED_TRACE(format.Name() + " -> " + std::to_string(bits) + "/" + std::to_string(order));
      kit::LeakGuard guard;
      Bitmap src(format, 13, 5), out;
      src.Randomize(static_cast<uint32_t>(format.bits * 100 + bits));
      const std::vector<uint8_t> before = src.StoredBytes();
      ASSERT_EQ(ConvertBitmapFormat(src, out, BITMAP_RECORD_SIZE, bits, order, nullptr, 0, 0), RC_SUCCESS);
      EXPECT_EQ(src.StoredBytes(), before) << "source changed";
      // Gray for 12 bits, order 2, and 8/16 bits of a gray source unless the
      // order (4, 20) forces colour; random colours are never all gray.
      const bool forced = order == 4 || order == 20;
      const bool gray =
          order == G || bits == 12 || (!forced && format.IsGray() && bits % 8 == 0 && bits <= 16);
      const bool palette = bits <= 8 && !gray;
      EXPECT_EQ(out->ColorOrder, gray ? G : palette ? out->ColorOrder : forced ? B : order);
      EXPECT_TRUE(gray || out->ColorOrder != G);
      // 12-bit levels are stored in 16-bit words.
      const int64_t line = (13 * (bits == 12 ? 16 : bits) + 31) / 32 * 4;
      EXPECT_EQ(std::vector<int64_t>({out->BitsPerPixel, out->Width, out->Height, out->Orientation,
                                      out->ColorsUsed, out->BytesPerLine}),
                std::vector<int64_t>({bits, 13, 5, format.orientation, bits <= 8 ? 1 << bits : 0, line}));
      EXPECT_TRUE(!gray || bits != 8 || kit::HasGrayRamp(out)) << "8-bit gray carries the ramp";
      for (int32_t i = 0; i < 65; ++i) {
        const auto [r, g, b, a] = WideAt(src, i % 13, i / 13);
        const uint32_t i16 = (2 * r + 5 * g + b + 4) >> 3;
        const uint32_t i8 = (2 * (r >> 8) + 5 * (g >> 8) + (b >> 8) + 4) >> 3;
        const Pixel want = palette      ? Nearest(out->Palette, 1u << bits, r >> 8, g >> 8, b >> 8)
                           : gray       ? Level(bits == 8 ? i8 : i16 >> (bits == 12 ? 4 : 0))
                           : bits == 16 ? Rgb(r >> 11, g >> 11, b >> 11)
                           : bits <= 32 ? Rgb(r >> 8, g >> 8, b >> 8, bits == 32 ? a >> 8 : 0)
                                        : Rgb(r, g, b, bits == 64 ? a : 0);
        ASSERT_EQ(palette ? out.ColorAt(i % 13, i / 13) : out.At(i % 13, i / 13), want) << "pixel " << i;
      }
      // In place gives the same result as into another record.
      ASSERT_EQ(ConvertBitmapFormat(src, src, BITMAP_RECORD_SIZE, bits, order, nullptr, 0, 0), RC_SUCCESS);
      EXPECT_EQ(src.StoredBytes(), out.StoredBytes());
      EXPECT_EQ(src->BitsPerPixel * 100 + src->ColorOrder, out->BitsPerPixel * 100 + out->ColorOrder);
    }
  }
}

// Gray sources with significant bits use (raw >> low) & mask; 8 bits widen by
// 257, other counts shift to 16 bits; an invalid pair means all bits.
TEST(ConvertBitmapFormat, SignificantBits) {
  const struct {
    int32_t low, high, bits, order;
    std::vector<Pixel> in, out;
  } cases[] = {
      {4, 11, 8, G, {Level(0xF00F), Level(200 << 4), Level(0x0FF0)}, {Level(0), Level(200), Level(255)}},
      {0, 11, 48, 4, {Level(4095)}, {Rgb(65520, 65520, 65520)}},
      {9, 2, 8, G, {Level(0x1234)}, {Level(0x12)}},
  };
  for (const auto &c : cases) {
    Bitmap bm(Format{16, G}, static_cast<int32_t>(c.in.size()), 1, c.in);
    bm->SignificantLowBit = c.low, bm->SignificantHighBit = c.high;
    ASSERT_EQ(ConvertBitmapFormat(bm, bm, BITMAP_RECORD_SIZE, c.bits, c.order, nullptr, 0, 0), RC_SUCCESS);
    EXPECT_EQ(bm.Pixels(), c.out) << c.low << ".." << c.high;
    EXPECT_EQ(bm->SignificantLowBit * 100 + bm->SignificantHighBit, -1);
  }
}

TEST(ConvertBitmapDepth, PaletteChoiceAndDithering) {
  Settings plain(0, 0);
  const std::vector<PaletteEntry> cube = Cube();
  std::vector<Pixel> grays, levels, colours, wide;
  for (uint32_t i = 0; i < 256; ++i) {
    grays.push_back(Rgb(i, i, i)), levels.push_back(Level(i));
    colours.push_back(Rgb(i, (i * 7) & 255, (i * 13 + 1) & 255));
    wide.push_back(Rgb(colours[i].v[0] * 257, colours[i].v[1] * 257, colours[i].v[2] * 257));
  }
  // All gray: an 8-bit gray result with the gray ramp as palette.
  Bitmap gray(Format{24, B}, 16, 16, grays);
  ASSERT_EQ(ConvertBitmapDepth(gray, 8), RC_SUCCESS);
  EXPECT_TRUE(gray->ColorOrder == G && kit::HasGrayRamp(gray));
  EXPECT_EQ(gray.Pixels(), levels);
  // 256 colours, not all gray: a palette reproducing every colour.
  Bitmap colourful(Format{48, R}, 16, 16, wide);
  ASSERT_EQ(ConvertBitmapDepth(colourful, 8), RC_SUCCESS);
  EXPECT_TRUE(colourful->ColorOrder == B && colourful->ColorsUsed == 256);
  for (uint32_t i = 0; i < 256; ++i) ASSERT_EQ(colourful.ColorAt(i % 16, i / 16), colours[i]) << i;
  // 257 colours do not fit: the fixed palette.
  colours.resize(260, Rgb(1, 2, 3));
  Bitmap tooMany(Format{24, B}, 20, 13, colours);
  ASSERT_EQ(ConvertBitmapDepth(tooMany, 8), RC_SUCCESS);
  EXPECT_EQ(std::memcmp(tooMany->Palette, cube.data(), 256 * sizeof(PaletteEntry)), 0);
  // Few colours: setting second = 1 takes the fixed palette anyway; second = 0
  // their own colours in order of first appearance, never dithered.
  Bitmap few(Format{24, B}, 4, 1, {Rgb(1, 2, 3), Rgb(200, 10, 10), Rgb(1, 2, 3), Rgb(5, 250, 7)}), copy;
  Settings fixed(0, 1);
  ASSERT_EQ(ConvertBitmapFormat(few, copy, BITMAP_RECORD_SIZE, 8, B, nullptr, 0, 0), RC_SUCCESS);
  EXPECT_EQ(std::memcmp(copy->Palette, cube.data(), 256 * sizeof(PaletteEntry)), 0);
  EXPECT_EQ(copy.ColorAt(1, 0), Rgb(204, 0, 0));  // nearest: red 51 * 4, green 0, blue 0
  Settings own(1, 0);
  ASSERT_EQ(ConvertBitmapDepth(few, 2), RC_SUCCESS);
  EXPECT_EQ(few.Pixels(), (std::vector<Pixel>{Level(0), Level(1), Level(0), Level(2)}));
  EXPECT_EQ(few.ColorAt(3, 0), Rgb(5, 250, 7));
  // A palette source keeps its indices when they fit: 4 -> 8 -> 4 bits gives back the original.
  Bitmap indices(Format{4, B}, 37, 3);
  indices.Randomize(7);
  const std::vector<Pixel> original = indices.Pixels();
  ASSERT_EQ(ConvertBitmapDepth(indices, 8) + ConvertBitmapDepth(indices, 4), 2 * RC_SUCCESS);
  EXPECT_EQ(indices.Pixels(), original);

  // Floyd-Steinberg, fixed palette, image order: (100, 150, 200) -> (102, 170, 204) leaves e = (-2, -20, -4);
  // right + 7e/16: green 142 -> 127, e' = (-2, 15, -5); below + (5e + 3e')/16 = (-1, -3, -2): 147 -> 127,
  // e'' = (-3, 20, -6); below right + (e + 5e' + 7e'')/16 = (-2, 12, -4): 162 -> 170.
  Settings dither(1, 1);
  Bitmap flat(Format{24, B, ORIENT_BOTTOM_FIRST}, 2, 2, std::vector<Pixel>(4, Rgb(100, 150, 200)));
  ASSERT_EQ(ConvertBitmapDepth(flat, 8), RC_SUCCESS);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(flat.ColorAt(i % 2, i / 2), Rgb(102, i % 3 ? 127 : 170, 204)) << i;
}

TEST(ConvertBitmapFormat, RegionAndAttachedTable) {
  Settings plain(0, 0);
  Bitmap bm(Format{16, G, ORIENT_BOTTOM_FIRST}, 10, 8), out;
  bm.Randomize(5);
  kit::SetRectRegion(bm, 2, 1, 7, 5);
  int32_t *lut = static_cast<int32_t *>(AllocZeroed(65536, 4, __LINE__, L"tests/convert_test"));
  bm->AttachedLut = lut, bm->AttachedLutLength = 65536;
  bm->Flags |= BITMAP_USE_ATTACHED_LUT;
  // Another record: its own copy of the region; the table is dropped with the depth, not freed.
  ASSERT_EQ(ConvertBitmapFormat(bm, out, BITMAP_RECORD_SIZE_OLD, 48, 4, nullptr, 0, 0), RC_SUCCESS);
  EXPECT_EQ(out->StructSize, BITMAP_RECORD_SIZE_OLD);
  EXPECT_NE(out->Region, bm->Region);
  EXPECT_TRUE(out->AttachedLut == nullptr && (out->Flags & BITMAP_USE_ATTACHED_LUT) == 0);
  EXPECT_EQ(bm->AttachedLut, lut);
  // In place: the region and orientation stay, the table is freed.
  ASSERT_EQ(ConvertBitmapDepth(bm, 8), RC_SUCCESS);
  EXPECT_TRUE(bm->AttachedLut == nullptr && bm->AttachedLutLength == 0 &&
              bm->Orientation == ORIENT_BOTTOM_FIRST);
  for (int x = 0, y = 0; y < 8; x = (x + 1) % 10, y += x == 0)
    EXPECT_EQ(kit::InRegion(out, x, y) * 2 + kit::InRegion(bm, x, y),
              x >= 2 && x < 7 && y >= 1 && y < 5 ? 3 : 0);
}

TEST(ConvertRowBuffer, HandCheckedRows) {
  const std::vector<PaletteEntry> cube = Cube();
  const uint32_t gs = CONVERT_GRAY_SOURCE, sb = CONVERT_SIGNIFICANT_BITS;
  const struct {
    int32_t width, srcBits, dstBits, srcOrder, dstOrder, low, high;
    uint32_t flags;
    const PaletteEntry *dstPalette;
    std::vector<uint8_t> in, out;
  } cases[] = {
      {2, 8, 16, G, G, 0, -1, 0, nullptr, {77, 255}, {77, 77, 255, 255}},  // 77 * 257 = 0x4D4D
      {1, 16, 48, B, B, 0, -1, gs, nullptr, {0x34, 0x12}, {0x34, 0x12, 0x34, 0x12, 0x34, 0x12}},
      // Bits 2..9 of 0x3FC, 0x004, 0x100: 255, 1, 64.
      {3, 12, 24, G, B, 2, 9, gs | sb, nullptr, {0xFC, 3, 4, 0, 0, 1}, {255, 255, 255, 1, 1, 1, 64, 64, 64}},
      // No destination palette: the intensity, (60 + 100 + 10 + 4) >> 3 = 21, (500 + 200 + 4) >> 3 = 88.
      {2, 24, 8, B, B, 0, -1, 0, nullptr, {10, 20, 30, 200, 100, 0}, {21, 88}},
      // Nearest cube entries: (30, 20, 10) -> (51, 0, 0) = 42; (0, 100, 200) -> (0, 85, 204) = 16.
      {2, 24, 8, B, B, 0, -1, 0, cube.data(), {10, 20, 30, 200, 100, 0}, {42, 16}},
      {4, 1, 8, B, G, 0, -1, 0, nullptr, {0xA0}, {255, 0, 255, 0}},  // 1 bit without palette: the ramp 0, 255
  };
  for (const auto &c : cases) {
    std::vector<uint8_t> row = c.in;
    row.resize(std::max(c.in.size(), c.out.size()) + 8);
    ASSERT_EQ(ConvertRowBuffer(row.data(), c.width, c.srcBits, c.dstBits, c.srcOrder, c.dstOrder, nullptr,
                               c.dstPalette, c.flags, c.low, c.high),
              RC_SUCCESS);
    EXPECT_EQ(std::vector<uint8_t>(row.begin(), row.begin() + c.out.size()), c.out) << c.srcBits;
  }
  // A 4-bit palette row of 517 pixels to 48 bits and back: widened in place
  // back to front across chunks of 256; the nearest colour is the exact entry.
  PaletteEntry pal[16];
  for (int i = 0; i < 16; ++i) pal[i] = {uint8_t(i * 16), uint8_t(255 - i), uint8_t(i * 3), 0};
  std::vector<uint8_t> row(6 * 517), wide;
  for (int i = 0; i < 517; ++i) {
    const uint8_t k = uint8_t(i * 5 % 16);
    row[i / 2] = uint8_t(row[i / 2] | k << (i % 2 ? 0 : 4));
    for (uint8_t v : {pal[k].Red, pal[k].Green, pal[k].Blue}) wide.insert(wide.end(), {v, v});
  }
  ASSERT_EQ(ConvertRowBuffer(row.data(), 517, 4, 48, B, R, pal, nullptr, 0, 0, -1), RC_SUCCESS);
  EXPECT_EQ(row, wide);
  ASSERT_EQ(ConvertRowBuffer(row.data(), 517, 48, 4, R, B, nullptr, pal, 0, 0, -1), RC_SUCCESS);
  for (int i = 0; i < 517; ++i) ASSERT_EQ((row[i / 2] >> (i % 2 ? 0 : 4)) & 15, (i * 5) % 16) << i;
  // A gray source's indices are levels: a (one-entry) palette argument is not read.
  const PaletteEntry one[1] = {{1, 2, 3, 0}};
  ASSERT_EQ(ConvertRowBuffer(row.data(), 517, 4, 24, G, B, one, nullptr, CONVERT_GRAY_SOURCE, 0, -1),
            RC_SUCCESS);
  for (int i = 0; i < 517; ++i) ASSERT_EQ(row[3 * i], (i * 5) % 16 * 17) << i;
}

TEST(ChangeOrientation, RoundTripKeepsImageAndRegion) {
  kit::LeakGuard guard;
  for (const Format &format : kit::AllFormats(true)) {
    SCOPED_TRACE(format.Name());
    Bitmap bm(format, 7, 5), copy;
    bm.Randomize(9);
    kit::SetRectRegion(bm, 1, 0, 4, 2);
    const std::vector<Pixel> image = bm.Pixels();
    const std::vector<uint8_t> stored = bm.StoredBytes();
    const int32_t other = ORIENT_TOP_FIRST + ORIENT_BOTTOM_FIRST - format.orientation;
    ASSERT_EQ(ChangeOrientation(nullptr, bm, BITMAP_RECORD_SIZE, format.orientation, 0), RC_SUCCESS);
    EXPECT_EQ(bm.StoredBytes(), stored);
    ASSERT_EQ(ChangeOrientation(nullptr, bm, BITMAP_RECORD_SIZE, other, 0), RC_SUCCESS);
    EXPECT_EQ(bm->Orientation, other);
    EXPECT_EQ(bm.Pixels(), image);
    EXPECT_TRUE(kit::InRegion(bm, 1, 0) && !kit::InRegion(bm, 1, 4));
    // Into another record: the source stays as it is.
    ASSERT_EQ(ChangeOrientation(copy, bm, BITMAP_RECORD_SIZE, format.orientation, 0), RC_SUCCESS);
    EXPECT_TRUE(copy->Orientation == format.orientation && copy.StoredBytes() == stored &&
                bm->Orientation == other);
  }
}

TEST(FillBitmap, EveryKindWithAndWithoutRegion) {
  const uint32_t colour = 30u | (120u << 8) | (240u << 16);  // red 30, green 120, blue 240
  const uint32_t level = (2 * 30 + 5 * 120 + 240 + 4) >> 3;  // 113
  for (const Format &format : kit::AllFormats(true)) {
    for (bool region : {false, true}) {
      SCOPED_TRACE(format.Name() + (region ? " region" : ""));
      Bitmap bm(format, 11, 6);
      bm.Randomize(21);
      const std::vector<Pixel> before = bm.Pixels();
      if (region) kit::SetEllipseRegion(bm, 1, 0, 10, 6);
      ASSERT_EQ(FillBitmap(bm, colour), RC_SUCCESS);
      const uint32_t grayLevel = level * (format.bits == 8 ? 1 : format.bits == 12 ? 16 : 257);
      for (int i = 0; i < 66; ++i) {
        const int x = i % 11, y = i / 11;
        const bool in = kit::InRegion(bm, x, y);
        const Pixel want = !in                  ? before[i]
                           : format.IsPalette() ? Nearest(bm->Palette, bm->ColorsUsed, 30, 120, 240)
                           : format.IsGray()    ? Level(grayLevel)
                           : format.bits == 16  ? Rgb(30 >> 3, 120 >> 3, 240 >> 3)
                           : format.bits <= 32  ? Rgb(30, 120, 240, before[i].v[3])
                                                : Rgb(30 * 257, 120 * 257, 240 * 257, before[i].v[3]);
        ASSERT_EQ(format.IsPalette() && in ? bm.ColorAt(x, y) : bm.At(x, y), want) << x << "," << y;
      }
    }
  }
  // COLOR_GRAY_LEVEL: bits 8-15 are a gray level.
  Bitmap rgb(Format{24, R}, 2, 2);
  ASSERT_EQ(FillBitmap(rgb, COLOR_GRAY_LEVEL | (77u << 8) | 5u), RC_SUCCESS);
  EXPECT_EQ(rgb.At(1, 1), Rgb(77, 77, 77));
}

TEST(CountBitmapColors, EveryKind) {
  kit::LeakGuard guard;
  uint32_t count = 0;
  for (const Format &format : kit::AllFormats()) {
    SCOPED_TRACE(format.Name());
    Bitmap bm(format, 10, 4);
    // k distinct values, each at least twice; the fourth sample varies.
    const uint32_t k = format.IsPalette() ? std::min(1u << format.bits, 8u) : 7, max = format.SampleMax();
    for (uint32_t i = 0; i < 40; ++i)
      bm.Set(i % 10, i / 10,
             format.Channels() == 1 ? Level(i % k * (format.IsGray() ? max / k : 1))
                                    : Rgb(i % k, i % k % 2, 3, i % 10));
    ASSERT_EQ(CountBitmapColors(bm, &count, 0), RC_SUCCESS);
    EXPECT_EQ(count, k);
    bm.Set(0, 0, format.Channels() == 1 ? Level(max) : Rgb(max, 0, 0));
    kit::SetRectRegion(bm, 0, 0, 1, 1);  // the region is not looked at
    ASSERT_EQ(CountBitmapColors(bm, &count, 0), RC_SUCCESS);
    EXPECT_EQ(count, k + (format.IsPalette() && format.bits <= 2 ? 0 : 1));
  }
  // Palette entries of the same colour count once; unused entries not at all.
  const PaletteEntry pal[4] = {{1, 2, 3, 0}, {1, 2, 3, 9}, {9, 9, 9, 0}, {4, 4, 4, 0}};
  Bitmap two(Format{2, B}, 3, 1, {Level(0), Level(1), Level(3)}, pal);
  ASSERT_EQ(CountBitmapColors(two, &count, 0), RC_SUCCESS);
  EXPECT_EQ(count, 2u);
}

// Every buffer is taken before the first change: a failing allocation leaves
// the source as it was, and a destination record without pixels.
TEST(Conversions, AllocationFailures) {
  using Fixture = std::pair<Bitmap, Bitmap>;  // the bitmap and another record
  // Source kind, settings, target bits and order (bits 0: CountBitmapColors,
  // -1: ChangeOrientation), into another record.
  const int32_t cases[][7] = {{24, B, 1, 1, 8, B, 0},   {24, B, 0, 0, 4, B, 0}, {8, B, 1, 0, 1, B, 1},
                              {16, G, 0, 0, 64, 20, 1}, {2, B, 0, 0, 8, B, 0},  {48, R, 0, 0, -1, 4, 1},
                              {24, B, 0, 0, 0, 0, 0},   {64, R, 0, 0, 0, 0, 0}};
  for (const auto &[srcBits, srcOrder, dither, choice, bits, order, separate] : cases) {
    SCOPED_TRACE(std::to_string(srcBits) + " -> " + std::to_string(bits));
    Settings s(dither, choice);
    const auto setup = [&] {
      Fixture f{Bitmap(Format{srcBits, srcOrder}, 40, 9), Bitmap()};
      f.first.Randomize(11);
      kit::SetRectRegion(f.first, 1, 1, 30, 8);
      return f;
    };
    const auto call = [&](Fixture &f) {
      Bitmap &bm = f.first, &out = f.second;
      const BitmapRecord saved = *bm.get();
      const std::vector<uint8_t> before = bm.StoredBytes();
      uint32_t n = 0;
      const int32_t status = bits == 0  ? CountBitmapColors(bm, &n, 0)
                             : bits < 0 ? ChangeOrientation(out, bm, BITMAP_RECORD_SIZE, order, 0)
                                        : ConvertBitmapFormat(bm, separate ? out : bm, BITMAP_RECORD_SIZE,
                                                              bits, order, nullptr, 0, 0);
      if (status != RC_SUCCESS || out->Pixels) {
        EXPECT_EQ(std::memcmp(&saved, bm.get(), sizeof saved), 0);
        EXPECT_EQ(bm.StoredBytes(), before);
      }
      EXPECT_TRUE(status == RC_SUCCESS || out->Pixels == nullptr);
      return status;
    };
    EXPECT_GE(kit::CheckAllocationFailures(setup, call), 1);
  }
}

// Status checks in order for every export.
TEST(Conversions, Statuses) {
  Bitmap bm(Format{24, B}, 4, 4), gray(Format{16, G}, 4, 4), gray32(Format{32, G}, 4, 4);
  gray->Flags |= BITMAP_SIGNED;
  BitmapRecord empty{}, badSize = *bm.get();
  ResetBitmap(&empty, BITMAP_RECORD_SIZE, 0, 0, 0);
  badSize.StructSize = 100;
  const PaletteEntry pal[2] = {};
  uint32_t n = 0, row[2] = {};
  auto convert = [&](BitmapRecord *src, BitmapRecord *dst, uint32_t size, int32_t bits, int32_t order,
                     int32_t count, uint32_t flags) {
    return ConvertBitmapFormat(src, dst, size, bits, order, pal, count, flags);
  };
  auto rows = [&](void *buf, int32_t width, int32_t bits, int32_t order, uint32_t flags, int32_t low) {
    return ConvertRowBuffer(buf, width, bits, 24, G, order, nullptr, nullptr, flags, low, 8);
  };
  const int32_t bad = RC_INVALID_PARAMETER, no32 = RC_GRAY32_NOT_SUPPORTED;
  kit::ExpectStatuses({
      {"convert null source", [&] { return convert(nullptr, bm, 0, 7, 3, -1, 1); }, RC_NO_BITMAP},
      {"convert null destination", [&] { return convert(bm, nullptr, 0, 7, 3, -1, 1); }, RC_NO_BITMAP},
      {"convert struct size", [&] { return convert(bm, bm, 200, 7, 3, -1, 1); }, RC_INVALID_STRUCT_SIZE},
      {"convert src size", [&] { return convert(&badSize, bm, 208, 7, 3, -1, 1); }, RC_INVALID_STRUCT_SIZE},
      {"convert no pixels", [&] { return convert(&empty, bm, 208, 7, 3, -1, 1); }, RC_NO_BITMAP},
      {"convert flags", [&] { return convert(gray32, bm, 208, 7, 3, -1, 1); }, bad},
      {"convert gray32", [&] { return convert(gray32, bm, 208, 7, 3, -1, 0); }, no32},
      {"convert palette count", [&] { return convert(bm, bm, 208, 8, 1, 257, 0); }, bad},
      {"convert unknown depth", [&] { return convert(bm, bm, 208, 7, 1, 0, 0); }, bad},
      {"convert unknown order", [&] { return convert(bm, bm, 208, 24, 3, 0, 0); }, bad},
      {"convert gray 24", [&] { return convert(bm, bm, 208, 24, G, 0, 0); }, bad},
      {"convert colour 12", [&] { return convert(bm, bm, 208, 12, 4, 0, 0); }, bad},
      {"depth signed change", [&] { return ConvertBitmapDepth(gray, 8); }, RC_SIGNED_DATA_NOT_SUPPORTED},
      {"rows null buffer", [&] { return rows(nullptr, 1, 8, 1, 0, 0); }, bad},
      {"rows width 0", [&] { return rows(row, 0, 8, 1, 0, 0); }, bad},
      {"rows bad depth", [&] { return rows(row, 1, 7, 1, 0, 0); }, bad},
      {"rows gray 24", [&] { return rows(row, 1, 8, 2, 0, 0); }, bad},
      {"rows significant bits", [&] { return rows(row, 1, 8, 1, 5, 3); }, bad},
      {"orientation null", [] { return ChangeOrientation(nullptr, nullptr, 100, 2, 1); }, RC_NO_BITMAP},
      {"orientation size", [&] { return ChangeOrientation(nullptr, bm, 100, 2, 1); }, RC_INVALID_STRUCT_SIZE},
      {"orientation value", [&] { return ChangeOrientation(nullptr, bm, 208, 2, 0); }, bad},
      {"orientation flags", [&] { return ChangeOrientation(nullptr, bm, 208, 4, 1); }, bad},
      {"fill null", [] { return FillBitmap(nullptr, 0); }, RC_NO_BITMAP},
      {"fill gray32", [&] { return FillBitmap(gray32, 0); }, no32},
      {"count flags", [&] { return CountBitmapColors(nullptr, nullptr, 1); }, bad},
      {"count null bitmap", [&] { return CountBitmapColors(nullptr, nullptr, 0); }, RC_NO_BITMAP},
      {"count size", [&] { return CountBitmapColors(&badSize, nullptr, 0); }, RC_INVALID_STRUCT_SIZE},
      {"count null count", [&] { return CountBitmapColors(gray32, nullptr, 0); }, RC_NULL_OPTIONS},
      {"count gray32", [&] { return CountBitmapColors(gray32, &n, 0); }, no32},
  });
  EXPECT_EQ(bm->BitsPerPixel * 100 + gray->BitsPerPixel, 2416);  // failed calls change nothing
}
