// imgkernel conversions: ConvertBitmapFormat / ConvertBitmapDepth,
// ConvertRowBuffer, ChangeOrientation, FillBitmap and CountBitmapColors.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "kit.h"

using kit::Bitmap;
using kit::Format;
using kit::Level;
using kit::Pixel;
using kit::Rgb;

namespace {

const int32_t G = ORDER_GRAY, B = ORDER_BGR, R = ORDER_RGB;

// Sets the kernel settings pair (dithering, palette choice) for the scope.
class Settings {
 public:
  Settings(int32_t dither, int32_t choice) { SwapKernelSettings(dither, choice, &oldDither_, &oldChoice_); }
  ~Settings() { SwapKernelSettings(oldDither_, oldChoice_, nullptr, nullptr); }

 private:
  int32_t oldDither_ = 0, oldChoice_ = 0;
};

// Colour of a pixel of any kind widened to 16 bits per sample: red, green, blue, fourth.
std::array<uint32_t, 4> WideAt(const Bitmap &bm, int32_t x, int32_t y) {
  const BitmapRecord *rec = bm.get();
  const int32_t bits = rec->BitsPerPixel;
  const Pixel p = bm.At(x, y);
  auto expand5 = [](uint32_t v) { return ((v << 3) | (v >> 2)) * 257u; };
  if (rec->ColorOrder == G) {
    const uint32_t v = bits == 8 ? p.v[0] * 257u : bits == 12 ? p.v[0] * 16u : p.v[0];
    return {v, v, v, 0};
  }
  if (bits <= 8) {
    const PaletteEntry &e = rec->Palette[p.v[0]];
    return {e.Red * 257u, e.Green * 257u, e.Blue * 257u, 0};
  }
  if (bits == 16) return {expand5(p.v[0]), expand5(p.v[1]), expand5(p.v[2]), 0};
  const uint32_t k = bits <= 32 ? 257u : 1u;
  return {p.v[0] * k, p.v[1] * k, p.v[2] * k, p.v[3] * k};
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

std::vector<uint8_t> Bytes(const BitmapRecord *b) { return {b->Pixels, b->Pixels + b->DataSize}; }

}  // namespace

// Every kind through every target, both orientations, pixel by pixel against
// the widening and narrowing rules; palette results hold the nearest colour
// of their palette (no dithering with settings (0, 0)).
TEST(ConvertBitmapFormat, EveryKindToEveryTarget) {
  Settings plain(0, 0);
  const std::pair<int32_t, int32_t> targets[] = {{1, B},  {2, B},   {4, R},  {8, B},  {8, 4},   {8, G},
                                                 {12, G}, {16, G},  {16, B}, {16, 4}, {24, R},  {24, B},
                                                 {32, B}, {32, 20}, {48, 4}, {48, R}, {64, 20}, {64, R}};
  for (const Format &format : kit::AllFormats(true)) {
    for (const auto &[bits, order] : targets) {
      SCOPED_TRACE(format.Name() + " -> " + std::to_string(bits) + "/" + std::to_string(order));
      kit::LeakGuard guard;
      Bitmap src(format, 13, 5), out;
      src.Randomize(static_cast<uint32_t>(format.bits * 100 + bits));
      const std::vector<uint8_t> before = Bytes(src.get());
      ASSERT_EQ(ConvertBitmapFormat(src, out, BITMAP_RECORD_SIZE, bits, order, nullptr, 0, 0), RC_SUCCESS);
      EXPECT_EQ(Bytes(src.get()), before) << "source changed";
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
                std::vector<int64_t>({bits, 13, 5, format.orientation, palette ? 1 << bits : 0, line}));
      const bool fourth = !format.IsGray() && (format.bits == 32 || format.bits == 64);
      for (int32_t i = 0; i < 65; ++i) {
        const auto [r, g, b, a4] = WideAt(src, i % 13, i / 13);
        const uint32_t a = fourth ? a4 : 0, i16 = (2 * r + 5 * g + b + 4) >> 3;
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
      EXPECT_EQ(Bytes(src.get()), Bytes(out.get()));
      EXPECT_EQ(src->BitsPerPixel * 100 + src->ColorOrder, out->BitsPerPixel * 100 + out->ColorOrder);
    }
  }
}

TEST(ConvertBitmapFormat, HandCheckedValues) {
  Settings plain(0, 0);
  struct Case {
    Format format;
    int32_t low, high;  // significant bits of the source (high -1: all)
    std::vector<Pixel> in;
    int32_t bits, order, resultOrder;
    std::vector<Pixel> out;
  };
  const Case cases[] = {
      // 16-bit gray stays gray with order 1 (same kind: untouched), becomes 5-5-5 with order 4: 40000 >> 11
      // = 19.
      {{16, G}, 0, -1, {Level(40000), Level(65535)}, 16, B, G, {Level(40000), Level(65535)}},
      {{16, G}, 0, -1, {Level(40000), Level(65535)}, 16, 4, B, {Rgb(19, 19, 19), Rgb(31, 31, 31)}},
      // 12-bit levels widen by 16: 4095 -> 65520 -> 255 at 8 bits; 16 -> 256 -> 1.
      {{12, G}, 0, -1, {Level(4095), Level(16)}, 8, G, G, {Level(255), Level(1)}},
      // Intensity (2R + 5G + B + 4) >> 3: (10, 20, 30) -> (20 + 100 + 30 + 4) >> 3 = 19.
      {{24, R}, 0, -1, {Rgb(10, 20, 30)}, 8, G, G, {Level(19)}},
      // 5-5-5 expands (v << 3) | (v >> 2): 31 -> 255, 1 -> 8, 16 -> 132.
      {{16, B}, 0, -1, {Rgb(31, 1, 16)}, 24, R, R, {Rgb(255, 8, 132)}},
      // Significant bits 4..11: the bits outside are ignored; 8 bits widen by 257.
      {{16, G},
       4,
       11,
       {Level(0xF00F), Level(200 << 4), Level(0x0FF0)},
       8,
       G,
       G,
       {Level(0), Level(200), Level(255)}},
      // 12 significant bits widen by 16, like a 12-bit bitmap.
      {{16, G}, 0, 11, {Level(4095)}, 48, 4, B, {Rgb(65520, 65520, 65520)}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.format.Name() + " -> " + std::to_string(c.bits));
    Bitmap bm(c.format, static_cast<int32_t>(c.in.size()), 1, c.in);
    bm->SignificantLowBit = c.low;
    bm->SignificantHighBit = c.high;
    ASSERT_EQ(ConvertBitmapFormat(bm, bm, BITMAP_RECORD_SIZE, c.bits, c.order, nullptr, 0, 0), RC_SUCCESS);
    EXPECT_EQ(bm->ColorOrder, c.resultOrder);
    EXPECT_EQ(bm.Pixels(), c.out);
    EXPECT_EQ(bm->SignificantHighBit, c.out == c.in ? c.high : -1);
  }
}

TEST(ConvertBitmapDepth, PaletteChoice) {
  Settings plain(0, 0);
  // All gray: an 8-bit gray result without palette.
  std::vector<Pixel> grays, colours;
  for (uint32_t i = 0; i < 40; ++i) grays.push_back(Rgb(i * 6, i * 6, i * 6));
  Bitmap gray(Format{24, B}, 8, 5, grays);
  ASSERT_EQ(ConvertBitmapDepth(gray, 8), RC_SUCCESS);
  EXPECT_TRUE(gray->ColorOrder == G && gray->Palette == nullptr);
  for (uint32_t i = 0; i < 40; ++i) EXPECT_EQ(gray.At(i % 8, i / 8), Level(i * 6));
  // 256 colours, not all gray: a palette reproducing every colour.
  Bitmap colourful(Format{48, R}, 16, 16);
  for (uint32_t i = 0; i < 256; ++i) {
    colours.push_back(Rgb(i, (i * 7) & 255, (i * 13 + 1) & 255));
    colourful.Set(i % 16, i / 16, Rgb(colours[i].v[0] * 257, colours[i].v[1] * 257, colours[i].v[2] * 257));
  }
  ASSERT_EQ(ConvertBitmapDepth(colourful, 8), RC_SUCCESS);
  EXPECT_TRUE(colourful->ColorOrder == B && colourful->ColorsUsed == 256);
  for (uint32_t i = 0; i < 256; ++i) ASSERT_EQ(colourful.ColorAt(i % 16, i / 16), colours[i]) << i;
  // 257 colours do not fit: the fixed palette.
  colours.resize(260, Rgb(1, 2, 3));
  Bitmap tooMany(Format{24, B}, 20, 13, colours);
  ASSERT_EQ(ConvertBitmapDepth(tooMany, 8), RC_SUCCESS);
  const std::vector<PaletteEntry> cube = Cube();
  EXPECT_EQ(std::memcmp(tooMany->Palette, cube.data(), 256 * sizeof(PaletteEntry)), 0);
  // Few colours: setting second = 1 takes the fixed palette anyway; second = 0
  // their own colours in order of first appearance.
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
}

TEST(ConvertBitmapDepth, DitheringOnlyWhenAsked) {
  // A flat colour not in the fixed palette above a gradient: too many colours for their own palette.
  Bitmap src(Format{24, B}, 32, 32);
  for (int i = 0; i < 1024; ++i) {
    const int x = i % 32, y = i / 32;
    src.Set(x, y, y < 16 ? Rgb(100, 150, 200) : Rgb(x * 8, y * 4, 255 - x * 8));
  }
  auto convert = [&](int32_t dither) {
    Settings s(dither, 0);
    Bitmap out;
    EXPECT_EQ(ConvertBitmapFormat(src, out, BITMAP_RECORD_SIZE, 8, B, nullptr, 0, 0), RC_SUCCESS);
    return out;
  };
  Bitmap plain = convert(0), dithered = convert(1);
  // Without dithering every pixel takes its nearest colour: (100, 150, 200) -> (102, 170, 204).
  EXPECT_EQ(plain.ColorAt(3, 3), Rgb(102, 170, 204));
  const std::vector<PaletteEntry> cube = Cube();
  for (int i = 0; i < 1024; ++i) {
    const Pixel c = src.At(i % 32, i / 32);
    ASSERT_EQ(plain.ColorAt(i % 32, i / 32), Nearest(cube.data(), 256, c.v[0], c.v[1], c.v[2])) << i;
  }
  // Dithered: the flat area mixes colours whose mean approaches the input; deterministic.
  double sum[3] = {0, 0, 0};
  for (int i = 0; i < 512; ++i)
    for (int k = 0; k < 3; ++k) sum[k] += dithered.ColorAt(i % 32, i / 32).v[k] / 512.0;
  EXPECT_TRUE(std::abs(sum[0] - 100) < 4 && std::abs(sum[1] - 150) < 4 && std::abs(sum[2] - 200) < 4)
      << sum[0] << " " << sum[1] << " " << sum[2];
  EXPECT_EQ(Bytes(convert(1).get()), Bytes(dithered.get()));
}

TEST(ConvertBitmapDepth, OwnDepthChangesNothing) {
  for (const Format &format : kit::AllFormats()) {
    Bitmap bm(format, 9, 3);
    bm.Randomize(3);
    bm->SignificantHighBit = format.IsGray() ? 6 : -1;
    bm->Flags |= BITMAP_SIGNED;
    const BitmapRecord record = *bm.get();
    const std::vector<uint8_t> before = Bytes(bm.get());
    EXPECT_EQ(ConvertBitmapDepth(bm, format.bits), RC_SUCCESS) << format.Name();
    EXPECT_TRUE(std::memcmp(&record, bm.get(), sizeof record) == 0 && Bytes(bm.get()) == before)
        << format.Name();
    bm->Flags &= ~BITMAP_SIGNED;
  }
}

TEST(ConvertBitmapFormat, RegionAndAttachedTable) {
  Settings plain(0, 0);
  Bitmap bm(Format{16, G, ORIENT_BOTTOM_FIRST}, 10, 8), out;
  bm.Randomize(5);
  kit::SetRectRegion(bm, 2, 1, 7, 5);
  int32_t *lut = static_cast<int32_t *>(AllocZeroed(65536, 4, __LINE__, L"tests/convert_test"));
  bm->AttachedLut = lut;
  bm->AttachedLutLength = 65536;
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
  for (int i = 0; i < 80; ++i) {
    const int x = i % 10, y = i / 10;
    const bool in = x >= 2 && x < 7 && y >= 1 && y < 5;
    EXPECT_EQ(kit::InRegion(out, x, y) * 2 + kit::InRegion(bm, x, y), in ? 3 : 0) << x << "," << y;
  }
}

TEST(ConvertRowBuffer, HandCheckedRows) {
  const std::vector<PaletteEntry> cube = Cube();
  struct Case {
    int32_t width, srcBits, dstBits, srcOrder, dstOrder;
    const PaletteEntry *dstPalette;
    uint32_t flags;
    int32_t low, high;
    std::vector<uint8_t> in, out;
  };
  const Case cases[] = {
      {2, 8, 16, G, G, nullptr, 0, 0, -1, {77, 255}, {77, 77, 255, 255}},  // 77 * 257 = 0x4D4D
      {1,
       16,
       48,
       B,
       B,
       nullptr,
       CONVERT_GRAY_SOURCE,
       0,
       -1,
       {0x34, 0x12},
       {0x34, 0x12, 0x34, 0x12, 0x34, 0x12}},
      // Bits 2..9 of 0x3FC, 0x004, 0x100: 255, 1, 64.
      {3, 12, 24, G, B, nullptr, 5, 2, 9, {0xFC, 3, 4, 0, 0, 1}, {255, 255, 255, 1, 1, 1, 64, 64, 64}},
      // No destination palette: the intensity, (60 + 100 + 10 + 4) >> 3 = 21, (500 + 200 + 4) >> 3 = 88.
      {2, 24, 8, B, B, nullptr, 0, 0, -1, {10, 20, 30, 200, 100, 0}, {21, 88}},
      // Nearest cube entries: (30, 20, 10) -> (51, 0, 0) = 42; (0, 100, 200) -> (0, 85, 204) = 16.
      {2, 24, 8, B, B, cube.data(), 0, 0, -1, {10, 20, 30, 200, 100, 0}, {42, 16}},
      {4, 1, 8, B, G, nullptr, 0, 0, -1, {0xA0}, {255, 0, 255, 0}},  // 1 bit without palette: the ramp 0, 255
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(std::to_string(c.srcBits) + " -> " + std::to_string(c.dstBits));
    std::vector<uint8_t> row = c.in;
    row.resize(std::max(c.in.size(), c.out.size()) + 8);
    ASSERT_EQ(ConvertRowBuffer(row.data(), c.width, c.srcBits, c.dstBits, c.srcOrder, c.dstOrder, nullptr,
                               c.dstPalette, c.flags, c.low, c.high),
              RC_SUCCESS);
    EXPECT_EQ(std::vector<uint8_t>(row.begin(), row.begin() + c.out.size()), c.out);
  }
  // A 4-bit palette row of 517 pixels to 48 bits and back: widened in place
  // back to front across chunks of 256; the nearest colour is the exact entry.
  PaletteEntry pal[16];
  for (int i = 0; i < 16; ++i) pal[i] = {uint8_t(i * 16), uint8_t(255 - i), uint8_t(i * 3), 0};
  std::vector<uint8_t> row(6 * 517);
  for (int i = 0; i < 517; ++i) row[i / 2] = uint8_t(row[i / 2] | ((i * 5) % 16) << (i % 2 ? 0 : 4));
  ASSERT_EQ(ConvertRowBuffer(row.data(), 517, 4, 48, B, R, pal, nullptr, 0, 0, -1), RC_SUCCESS);
  for (int i = 0; i < 517; ++i) {
    const PaletteEntry &e = pal[(i * 5) % 16];
    ASSERT_EQ(row[6 * i + 1] << 16 | row[6 * i + 3] << 8 | row[6 * i + 5],
              e.Red << 16 | e.Green << 8 | e.Blue)
        << i;
  }
  ASSERT_EQ(ConvertRowBuffer(row.data(), 517, 48, 4, R, B, nullptr, pal, 0, 0, -1), RC_SUCCESS);
  for (int i = 0; i < 517; ++i) ASSERT_EQ((row[i / 2] >> (i % 2 ? 0 : 4)) & 15, (i * 5) % 16) << i;
}

TEST(ChangeOrientation, RoundTripKeepsImageAndRegion) {
  kit::LeakGuard guard;
  for (const Format &format : kit::AllFormats(true)) {
    SCOPED_TRACE(format.Name());
    Bitmap bm(format, 7, 5), copy;
    bm.Randomize(9);
    kit::SetRectRegion(bm, 1, 0, 4, 2);
    const std::vector<Pixel> image = bm.Pixels();
    const std::vector<uint8_t> stored = Bytes(bm.get());
    const int32_t other = ORIENT_TOP_FIRST + ORIENT_BOTTOM_FIRST - format.orientation;
    ASSERT_EQ(ChangeOrientation(nullptr, bm, BITMAP_RECORD_SIZE, format.orientation, 0), RC_SUCCESS);
    EXPECT_EQ(Bytes(bm.get()), stored);
    ASSERT_EQ(ChangeOrientation(nullptr, bm, BITMAP_RECORD_SIZE, other, 0), RC_SUCCESS);
    EXPECT_EQ(bm->Orientation, other);
    EXPECT_EQ(bm.Pixels(), image);
    EXPECT_EQ(std::memcmp(bm->Pixels, stored.data() + 4 * bm->BytesPerLine, bm->BytesPerLine),
              0);  // rows reversed
    EXPECT_TRUE(kit::InRegion(bm, 1, 0) && !kit::InRegion(bm, 1, 4));
    // Into another record: the source stays as it is.
    ASSERT_EQ(ChangeOrientation(copy, bm, BITMAP_RECORD_SIZE, format.orientation, 0), RC_SUCCESS);
    EXPECT_TRUE(copy->Orientation == format.orientation && Bytes(copy.get()) == stored &&
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
      EXPECT_TRUE(!region || (kit::InRegion(bm, 5, 0) && !kit::InRegion(bm, 0, 0)));  // a proper subset
      ASSERT_EQ(FillBitmap(bm, colour), RC_SUCCESS);
      for (int i = 0; i < 66; ++i) {
        const Pixel old = before[i];
        const int x = i % 11, y = i / 11;
        const int32_t bits = format.bits;
        const Pixel want = !kit::InRegion(bm, x, y) ? old
                           : format.IsPalette()     ? Nearest(bm->Palette, bm->ColorsUsed, 30, 120, 240)
                           : format.IsGray()        ? Level(level * (bits == 8    ? 1
                                                                     : bits == 12 ? 16
                                                                                  : 257))
                           : bits == 16             ? Rgb(30 >> 3, 120 >> 3, 240 >> 3)
                           : bits <= 32             ? Rgb(30, 120, 240, old.v[3])
                                                    : Rgb(30 * 257, 120 * 257, 240 * 257, old.v[3]);
        ASSERT_EQ(format.IsPalette() && kit::InRegion(bm, x, y) ? bm.ColorAt(x, y) : bm.At(x, y), want)
            << x << "," << y;
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
  for (const Format &format : kit::AllFormats()) {
    SCOPED_TRACE(format.Name());
    Bitmap bm(format, 10, 4);
    // k distinct values, each at least twice; the fourth sample varies.
    const uint32_t k = format.IsPalette() ? std::min(1u << format.bits, 8u) : 7, max = format.SampleMax();
    for (uint32_t i = 0; i < 40; ++i)
      bm.Set(i % 10, i / 10,
             format.Channels() == 1 ? Level(i % k * (format.IsGray() ? max / k : 1))
                                    : Rgb(i % k, i % k % 2, 3, i % 10));
    uint32_t count = 0;
    ASSERT_EQ(CountBitmapColors(bm, &count, 0), RC_SUCCESS);
    EXPECT_EQ(count, k);
    bm.Set(0, 0, format.Channels() == 1 ? Level(max) : Rgb(max, 0, 0));
    ASSERT_EQ(CountBitmapColors(bm, &count, 0), RC_SUCCESS);
    EXPECT_EQ(count, k + (format.IsPalette() && format.bits <= 2 ? 0 : 1));
  }
  // Palette entries of the same colour count once; unused entries not at all.
  const PaletteEntry pal[4] = {{1, 2, 3, 0}, {1, 2, 3, 9}, {9, 9, 9, 0}, {4, 4, 4, 0}};
  Bitmap two(Format{2, B}, 3, 1, {Level(0), Level(1), Level(3)}, pal);
  uint32_t count = 0;
  ASSERT_EQ(CountBitmapColors(two, &count, 0), RC_SUCCESS);
  EXPECT_EQ(count, 2u);
}

// Every buffer is taken before the first change: a failing allocation leaves
// the source as it was, and a destination record without pixels.
TEST(Conversions, AllocationFailures) {
  struct Fixture {
    Bitmap bm, out;
    std::vector<uint8_t> before;
  };
  using Call = std::function<int32_t(Fixture &)>;
  auto convert = [](bool separate, int32_t bits, int32_t order) -> Call {
    return [=](Fixture &f) {
      return ConvertBitmapFormat(f.bm, separate ? f.out : f.bm, BITMAP_RECORD_SIZE, bits, order, nullptr, 0,
                                 0);
    };
  };
  auto count = [](Fixture &f) {
    uint32_t n = 0;
    return CountBitmapColors(f.bm, &n, 0);
  };
  const struct {
    Format format;
    int32_t dither, choice;
    Call call;
  } cases[] = {
      {{24, B}, 1, 1, convert(false, 8, B)},
      {{24, B}, 0, 0, convert(false, 4, B)},
      {{8, B}, 1, 0, convert(true, 1, B)},
      {{16, G}, 0, 0, convert(true, 64, 20)},
      {{2, B}, 0, 0, convert(false, 8, B)},
      {{48, R}, 0, 0, [](Fixture &f) { return ChangeOrientation(f.out, f.bm, BITMAP_RECORD_SIZE, 4, 0); }},
      {{24, B}, 0, 0, count},
      {{64, R}, 0, 0, count},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.format.Name());
    Settings s(c.dither, c.choice);
    const int failures = kit::CheckAllocationFailures(
        [&] {
          Fixture f{Bitmap(c.format, 40, 9), Bitmap(), {}};
          f.bm.Randomize(11);
          kit::SetRectRegion(f.bm, 1, 1, 30, 8);
          f.before = Bytes(f.bm.get());
          return f;
        },
        [&](Fixture &f) {
          const BitmapRecord saved = *f.bm.get();
          const int32_t status = c.call(f);
          if (status != RC_SUCCESS || f.out->Pixels) {
            EXPECT_EQ(std::memcmp(&saved, f.bm.get(), sizeof saved), 0);
            EXPECT_EQ(Bytes(f.bm.get()), f.before);
          }
          EXPECT_TRUE(status == RC_SUCCESS || f.out->Pixels == nullptr);
          return status;
        });
    EXPECT_GE(failures, 1);
  }
}

// Status checks in order for every export.
TEST(Conversions, Statuses) {
  Bitmap bm(Format{24, B}, 4, 4), gray(Format{16, G}, 4, 4);
  gray->Flags |= BITMAP_SIGNED;
  BitmapRecord empty{}, badSize = *bm.get();
  ResetBitmap(&empty, BITMAP_RECORD_SIZE, 0, 0, 0);
  badSize.StructSize = 100;
  const PaletteEntry pal[2] = {};
  uint8_t row[8] = {};
  auto convert = [&](BitmapRecord *src, BitmapRecord *dst, uint32_t size, int32_t bits, int32_t order,
                     int32_t count, uint32_t flags) {
    return ConvertBitmapFormat(src, dst, size, bits, order, pal, count, flags);
  };
  auto rows = [&](void *buffer, int32_t width, int32_t srcBits, int32_t dstOrder, uint32_t flags,
                  int32_t low) {
    return ConvertRowBuffer(buffer, width, srcBits, 24, G, dstOrder, nullptr, nullptr, flags, low, 8);
  };
  const int32_t bad = RC_INVALID_PARAMETER;
  kit::ExpectStatuses({
      {"convert null source", [&] { return convert(nullptr, bm, 0, 7, 3, -1, 1); }, RC_NO_BITMAP},
      {"convert null destination", [&] { return convert(bm, nullptr, 0, 7, 3, -1, 1); }, RC_NO_BITMAP},
      {"convert struct size", [&] { return convert(bm, bm, 200, 7, 3, -1, 1); }, RC_INVALID_STRUCT_SIZE},
      {"convert source size", [&] { return convert(&badSize, bm, 208, 7, 3, -1, 1); },
       RC_INVALID_STRUCT_SIZE},
      {"convert no pixels", [&] { return convert(&empty, bm, 208, 7, 3, -1, 1); }, RC_NO_BITMAP},
      {"convert flags", [&] { return convert(bm, bm, 208, 7, 3, -1, 1); }, bad},
      {"convert unknown depth", [&] { return convert(bm, bm, 208, 7, 1, 0, 0); }, bad},
      {"convert unknown order", [&] { return convert(bm, bm, 208, 24, 3, 0, 0); }, bad},
      {"convert gray 24", [&] { return convert(bm, bm, 208, 24, G, 0, 0); }, bad},
      {"convert colour 12", [&] { return convert(bm, bm, 208, 12, 4, 0, 0); }, bad},
      {"convert palette count", [&] { return convert(bm, bm, 208, 8, 1, 257, 0); }, bad},
      {"depth signed change", [&] { return ConvertBitmapDepth(gray, 8); }, RC_SIGNED_DATA_NOT_SUPPORTED},
      {"depth signed own depth", [&] { return ConvertBitmapDepth(gray, 16); }, RC_SUCCESS},
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
      {"fill size", [&] { return FillBitmap(&badSize, 0); }, RC_INVALID_STRUCT_SIZE},
      {"count flags", [&] { return CountBitmapColors(nullptr, nullptr, 1); }, bad},
      {"count null bitmap", [&] { return CountBitmapColors(nullptr, nullptr, 0); }, RC_NO_BITMAP},
      {"count size", [&] { return CountBitmapColors(&badSize, nullptr, 0); }, RC_INVALID_STRUCT_SIZE},
      {"count null count", [&] { return CountBitmapColors(bm, nullptr, 0); }, RC_NULL_OPTIONS},
  });
  EXPECT_EQ(bm->BitsPerPixel * 100 + gray->BitsPerPixel, 2416);  // failed calls change nothing
}
