// imgkernel conversions: ConvertBitmapFormat / ConvertBitmapDepth,
// ConvertRowBuffer, ChangeOrientation, FillBitmap and CountBitmapColors.
#include <algorithm>
#include <cstring>
#include <set>
#include <vector>

#include "kit.h"

using kit::Bitmap;
using kit::Level;
using kit::Pixel;
using kit::Rgb;
using kit::Spec;

namespace {

// Sets the kernel settings pair (dithering, palette choice) for the scope.
class Settings {
 public:
  Settings(int32_t dither, int32_t choice) { SwapKernelSettings(dither, choice, &oldDither_, &oldChoice_); }
  ~Settings() { SwapKernelSettings(oldDither_, oldChoice_, nullptr, nullptr); }

 private:
  int32_t oldDither_ = 0, oldChoice_ = 0;
};

// A pixel widened to 16 bits per sample: red, green, blue, fourth.
struct Wide {
  uint32_t r, g, b, a;
};

uint32_t Expand5(uint32_t v) { return ((v << 3) | (v >> 2)) * 257u; }

// Colour of a pixel of any kind widened to 16 bits per sample.
Wide WideAt(const Bitmap &bm, int32_t x, int32_t y) {
  const BitmapRecord *b = bm.get();
  const Pixel p = bm.At(x, y);
  const uint32_t bits = static_cast<uint32_t>(b->BitsPerPixel);
  if (b->ColorOrder == ORDER_GRAY) {
    const uint32_t v = bits == 8 ? p.v[0] * 257u : bits == 12 ? p.v[0] * 16u : p.v[0];
    return {v, v, v, 0};
  }
  if (bits <= 8) {
    const PaletteEntry &e = b->Palette[p.v[0]];
    return {e.Red * 257u, e.Green * 257u, e.Blue * 257u, 0};
  }
  if (bits == 16) return {Expand5(p.v[0]), Expand5(p.v[1]), Expand5(p.v[2]), 0};
  const uint32_t k = bits <= 32 ? 257u : 1u;
  return {p.v[0] * k, p.v[1] * k, p.v[2] * k, p.v[3] * k};
}

// The fixed 8-bit palette: a 6 x 7 x 6 cube, then four grays.
std::vector<PaletteEntry> Cube() {
  std::vector<PaletteEntry> pal;
  for (int r = 0; r < 6; ++r)
    for (int g = 0; g < 7; ++g)
      for (int b = 0; b < 6; ++b) pal.push_back({uint8_t(51 * b), uint8_t(g * 255 / 6), uint8_t(51 * r), 0});
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
  const std::pair<int32_t, int32_t> targets[] = {
      {1, ORDER_BGR},   {2, ORDER_BGR},   {4, ORDER_RGB},  {8, ORDER_BGR},  {8, 4},          {8, ORDER_GRAY},
      {12, ORDER_GRAY}, {16, ORDER_GRAY}, {16, ORDER_BGR}, {16, 4},         {24, ORDER_RGB}, {24, ORDER_BGR},
      {32, ORDER_BGR},  {32, 20},         {48, 4},         {48, ORDER_RGB}, {64, 20},        {64, ORDER_RGB}};
  for (const Spec &spec : kit::AllSpecs(true)) {
    for (const auto &[bits, order] : targets) {
      SCOPED_TRACE(spec.Name() + " -> " + std::to_string(bits) + "/" + std::to_string(order));
      kit::LeakGuard guard;
      Bitmap src(spec, 13, 5);
      src.Randomize(static_cast<uint32_t>(spec.bits * 100 + bits));
      const std::vector<uint8_t> before = Bytes(src.get());
      Bitmap out;
      const BitmapRecord *o = out.get();
      ASSERT_EQ(ConvertBitmapFormat(src, out, BITMAP_RECORD_SIZE, bits, order, nullptr, 0, 0), RC_SUCCESS);
      EXPECT_EQ(Bytes(src.get()), before) << "source changed";
      // Gray for 12 bits, order 2, and 8/16 bits of a gray source unless the
      // order (4, 20) forces colour; random colours are never all gray.
      const bool forced = order == 4 || order == 20;
      const bool gray =
          order == ORDER_GRAY || bits == 12 || (!forced && spec.IsGray() && bits % 8 == 0 && bits <= 16);
      const bool palette = bits <= 8 && !gray;
      EXPECT_EQ(o->BitsPerPixel, bits);
      EXPECT_EQ(o->ColorOrder == ORDER_GRAY, gray);
      if (!gray && !palette) EXPECT_EQ(o->ColorOrder, forced ? ORDER_BGR : order);
      EXPECT_EQ(o->Width * 100 + o->Height, 1305);
      EXPECT_EQ(o->Orientation, spec.orientation);
      EXPECT_EQ(o->BytesPerLine, ((13u * (bits == 12 ? 16 : bits) + 31) / 32) * 4);  // 12-bit levels in words
      EXPECT_EQ(o->ColorsUsed, palette ? 1 << bits : 0);
      const bool fourth = !spec.IsGray() && (spec.bits == 32 || spec.bits == 64);
      for (int32_t y = 0; y < 5; ++y)
        for (int32_t x = 0; x < 13; ++x) {
          const Wide c = WideAt(src, x, y);
          const uint32_t a = fourth ? c.a : 0, i16 = (2 * c.r + 5 * c.g + c.b + 4) >> 3;
          const uint32_t i8 = (2 * (c.r >> 8) + 5 * (c.g >> 8) + (c.b >> 8) + 4) >> 3;
          if (palette) {
            ASSERT_EQ(out.ColorAt(x, y), Nearest(o->Palette, 1u << bits, c.r >> 8, c.g >> 8, c.b >> 8))
                << x << "," << y;
            continue;
          }
          const Pixel want = gray         ? Level(bits == 8    ? i8
                                                  : bits == 12 ? i16 >> 4
                                                               : i16)
                             : bits == 16 ? Rgb(c.r >> 11, c.g >> 11, c.b >> 11)
                             : bits <= 32 ? Rgb(c.r >> 8, c.g >> 8, c.b >> 8, bits == 32 ? a >> 8 : 0)
                                          : Rgb(c.r, c.g, c.b, bits == 64 ? a : 0);
          ASSERT_EQ(out.At(x, y), want) << x << "," << y;
        }
      // In place gives the same result as into another record.
      ASSERT_EQ(ConvertBitmapFormat(src, src, BITMAP_RECORD_SIZE, bits, order, nullptr, 0, 0), RC_SUCCESS);
      EXPECT_EQ(Bytes(src.get()), Bytes(o));
      EXPECT_EQ(src->BitsPerPixel * 100 + src->ColorOrder, o->BitsPerPixel * 100 + o->ColorOrder);
    }
  }
}

TEST(ConvertBitmapFormat, ExactRoundTrips) {
  Settings plain(0, 0);
  const std::pair<Spec, std::pair<int32_t, int32_t>> trips[] = {
      {{16, ORDER_BGR}, {24, ORDER_BGR}},   {{16, ORDER_BGR}, {48, ORDER_RGB}},
      {{24, ORDER_RGB}, {48, ORDER_BGR}},   {{32, ORDER_BGR}, {64, ORDER_RGB}},
      {{8, ORDER_GRAY}, {16, ORDER_GRAY}},  {{8, ORDER_GRAY}, {48, 4}},
      {{12, ORDER_GRAY}, {16, ORDER_GRAY}}, {{12, ORDER_GRAY}, {64, 20}},
      {{24, ORDER_BGR}, {32, ORDER_RGB}},   {{4, ORDER_BGR}, {8, ORDER_BGR}}};
  for (const auto &[base, via] : trips) {
    for (int32_t orientation : {ORIENT_TOP_FIRST, ORIENT_BOTTOM_FIRST}) {
      Spec spec = base;
      spec.orientation = orientation;
      SCOPED_TRACE(spec.Name() + " via " + std::to_string(via.first));
      Bitmap bm(spec, 37, 6);
      bm.Randomize(7);
      const std::vector<Pixel> original = bm.Pixels();
      ASSERT_EQ(ConvertBitmapFormat(bm, bm, BITMAP_RECORD_SIZE, via.first, via.second, nullptr, 0, 0),
                RC_SUCCESS);
      ASSERT_EQ(ConvertBitmapFormat(bm, bm, BITMAP_RECORD_SIZE, spec.bits, spec.order, nullptr, 0, 0),
                RC_SUCCESS);
      EXPECT_EQ(bm->BitsPerPixel, spec.bits);
      EXPECT_EQ(bm.Pixels(), original);
    }
  }
}

TEST(ConvertBitmapFormat, HandCheckedValues) {
  Settings plain(0, 0);
  struct Case {
    Spec spec;
    int32_t low, high;  // significant bits of the source (-1: all)
    std::vector<Pixel> in;
    int32_t bits, order, resultOrder;
    std::vector<Pixel> out;
  };
  const Case cases[] = {
      // 8-bit gray v widens to v * 257.
      {{8, ORDER_GRAY},
       0,
       -1,
       {Level(1), Level(200)},
       48,
       ORDER_BGR,
       ORDER_BGR,
       {Rgb(257, 257, 257), Rgb(51400, 51400, 51400)}},
      // 16-bit gray stays gray with order 1 (same kind: untouched) and becomes 5-5-5 with order 4:
      // 40000 >> 8 = 156, >> 3 = 19.
      {{16, ORDER_GRAY},
       0,
       -1,
       {Level(40000), Level(65535)},
       16,
       ORDER_BGR,
       ORDER_GRAY,
       {Level(40000), Level(65535)}},
      {{16, ORDER_GRAY},
       0,
       -1,
       {Level(40000), Level(65535)},
       16,
       4,
       ORDER_BGR,
       {Rgb(19, 19, 19), Rgb(31, 31, 31)}},
      // 12-bit levels widen by 16: 4095 -> 65520 -> 255 at 8 bits; 16 -> 256 -> 1.
      {{12, ORDER_GRAY},
       0,
       -1,
       {Level(4095), Level(16)},
       16,
       ORDER_BGR,
       ORDER_GRAY,
       {Level(65520), Level(256)}},
      {{12, ORDER_GRAY}, 0, -1, {Level(4095), Level(16)}, 8, ORDER_GRAY, ORDER_GRAY, {Level(255), Level(1)}},
      // Intensity (2R + 5G + B + 4) >> 3: (10, 20, 30) -> (20 + 100 + 30 + 4) >> 3 = 19.
      {{24, ORDER_RGB}, 0, -1, {Rgb(10, 20, 30)}, 8, ORDER_GRAY, ORDER_GRAY, {Level(19)}},
      // 5-5-5 expands (v << 3) | (v >> 2): 31 -> 255, 1 -> 8, 16 -> 132.
      {{16, ORDER_BGR}, 0, -1, {Rgb(31, 1, 16)}, 24, ORDER_RGB, ORDER_RGB, {Rgb(255, 8, 132)}},
      // Significant bits 4..11: bits outside are ignored; 8 bits widen by 257.
      {{16, ORDER_GRAY},
       4,
       11,
       {Level(0xF00F), Level(200 << 4), Level(0x0FF0)},
       8,
       ORDER_GRAY,
       ORDER_GRAY,
       {Level(0), Level(200), Level(255)}},
      // 12 significant bits widen by 16, like a 12-bit bitmap.
      {{16, ORDER_GRAY}, 0, 11, {Level(4095)}, 48, 4, ORDER_BGR, {Rgb(65520, 65520, 65520)}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.spec.Name() + " -> " + std::to_string(c.bits));
    Bitmap bm(c.spec, static_cast<int32_t>(c.in.size()), 1, c.in);
    bm->SignificantLowBit = c.low;
    bm->SignificantHighBit = c.high;
    ASSERT_EQ(ConvertBitmapFormat(bm, bm, BITMAP_RECORD_SIZE, c.bits, c.order, nullptr, 0, 0), RC_SUCCESS);
    EXPECT_EQ(bm->ColorOrder, c.resultOrder);
    EXPECT_EQ(bm.Pixels(), c.out);
    if (c.out != c.in) EXPECT_EQ(bm->SignificantHighBit, -1);
  }
}

TEST(ConvertBitmapDepth, PaletteChoice) {
  Settings plain(0, 0);
  // All gray: an 8-bit gray result without palette.
  std::vector<Pixel> grays, colours;
  for (uint32_t i = 0; i < 40; ++i) grays.push_back(Rgb(i * 6, i * 6, i * 6));
  Bitmap gray(Spec{24, ORDER_BGR}, 8, 5, grays);
  ASSERT_EQ(ConvertBitmapDepth(gray, 8), RC_SUCCESS);
  EXPECT_EQ(gray->ColorOrder, ORDER_GRAY);
  EXPECT_EQ(gray->Palette, nullptr);
  for (uint32_t i = 0; i < 40; ++i) EXPECT_EQ(gray.At(i % 8, i / 8), Level(i * 6));
  // 256 colours, not all gray: a palette reproducing every colour.
  Bitmap colourful(Spec{48, ORDER_RGB}, 16, 16);
  for (uint32_t i = 0; i < 256; ++i) {
    colours.push_back(Rgb(i, (i * 7) & 255, (i * 13 + 1) & 255));
    colourful.Set(i % 16, i / 16, Rgb(colours[i].v[0] * 257, colours[i].v[1] * 257, colours[i].v[2] * 257));
  }
  ASSERT_EQ(ConvertBitmapDepth(colourful, 8), RC_SUCCESS);
  EXPECT_EQ(colourful->ColorOrder, ORDER_BGR);
  EXPECT_EQ(colourful->ColorsUsed, 256);
  for (uint32_t i = 0; i < 256; ++i) ASSERT_EQ(colourful.ColorAt(i % 16, i / 16), colours[i]) << i;
  // 257 colours do not fit: the fixed palette.
  colours.resize(260, Rgb(1, 2, 3));
  Bitmap tooMany(Spec{24, ORDER_BGR}, 20, 13, colours);
  ASSERT_EQ(ConvertBitmapDepth(tooMany, 8), RC_SUCCESS);
  const std::vector<PaletteEntry> cube = Cube();
  EXPECT_EQ(std::memcmp(tooMany->Palette, cube.data(), 256 * sizeof(PaletteEntry)), 0);
  // Few colours: setting second = 1 takes the fixed palette anyway; second = 0
  // their own colours in order of first appearance.
  Bitmap few(Spec{24, ORDER_BGR}, 4, 1, {Rgb(1, 2, 3), Rgb(200, 10, 10), Rgb(1, 2, 3), Rgb(5, 250, 7)}), copy;
  Settings fixed(0, 1);
  ASSERT_EQ(ConvertBitmapFormat(few, copy, BITMAP_RECORD_SIZE, 8, ORDER_BGR, nullptr, 0, 0), RC_SUCCESS);
  EXPECT_EQ(std::memcmp(copy->Palette, cube.data(), 256 * sizeof(PaletteEntry)), 0);
  EXPECT_EQ(copy.ColorAt(1, 0), Rgb(204, 0, 0));  // nearest: red 51 * 4, green 0, blue 0
  Settings own(1, 0);
  ASSERT_EQ(ConvertBitmapDepth(few, 2), RC_SUCCESS);
  EXPECT_EQ(few.Pixels(), (std::vector<Pixel>{Level(0), Level(1), Level(0), Level(2)}));
  EXPECT_EQ(few.ColorAt(3, 0), Rgb(5, 250, 7));
}

TEST(ConvertBitmapDepth, DitheringOnlyWhenAsked) {
  // A flat colour not in the fixed palette above a gradient.
  Bitmap src(Spec{24, ORDER_BGR}, 32, 32);
  for (int y = 0; y < 32; ++y)
    for (int x = 0; x < 32; ++x) src.Set(x, y, y < 16 ? Rgb(100, 150, 200) : Rgb(x * 8, y * 4, 255 - x * 8));
  auto convert = [&](int32_t dither, int32_t choice) {
    Settings s(dither, choice);
    Bitmap out;
    EXPECT_EQ(ConvertBitmapFormat(src, out, BITMAP_RECORD_SIZE, 8, ORDER_BGR, nullptr, 0, 0), RC_SUCCESS);
    return out;
  };
  Bitmap plain = convert(0, 0), plainFixed = convert(0, 1), dithered = convert(1, 1),
         dithered2 = convert(1, 0);
  const std::vector<PaletteEntry> cube = Cube();
  // Without dithering every pixel takes its nearest colour: (100, 150, 200) -> (102, 170, 204).
  EXPECT_EQ(plain.ColorAt(3, 3), Rgb(102, 170, 204));
  for (const Bitmap *b : {&plain, &plainFixed})
    for (int y = 0; y < 32; ++y)
      for (int x = 0; x < 32; ++x) {
        const Pixel c = src.At(x, y);
        ASSERT_EQ(b->ColorAt(x, y), Nearest(cube.data(), 256, c.v[0], c.v[1], c.v[2])) << x << "," << y;
      }
  // Dithered: the flat area mixes colours whose mean approaches the input;
  // too many colours for their own palette, so the choice does not matter.
  EXPECT_EQ(Bytes(dithered.get()), Bytes(dithered2.get()));
  std::set<uint32_t> used;
  double sum[3] = {0, 0, 0};
  for (int y = 0; y < 16; ++y)
    for (int x = 0; x < 32; ++x) {
      const Pixel c = dithered.ColorAt(x, y);
      used.insert(c.v[0] << 16 | c.v[1] << 8 | c.v[2]);
      for (int k = 0; k < 3; ++k) sum[k] += c.v[k];
    }
  EXPECT_GT(used.size(), 1u);
  EXPECT_NEAR(sum[0] / 512, 100, 4);
  EXPECT_NEAR(sum[1] / 512, 150, 4);
  EXPECT_NEAR(sum[2] / 512, 200, 4);
  EXPECT_EQ(Bytes(convert(1, 1).get()), Bytes(dithered.get()));  // deterministic
}

TEST(ConvertBitmapDepth, OwnDepthChangesNothing) {
  for (const Spec &spec : kit::AllSpecs()) {
    SCOPED_TRACE(spec.Name());
    Bitmap bm(spec, 9, 3);
    bm.Randomize(3);
    bm->SignificantHighBit = spec.IsGray() ? 6 : -1;
    bm->Flags |= BITMAP_SIGNED;
    const BitmapRecord record = *bm.get();
    const std::vector<uint8_t> before = Bytes(bm.get());
    EXPECT_EQ(ConvertBitmapDepth(bm, spec.bits), RC_SUCCESS);
    EXPECT_EQ(std::memcmp(&record, bm.get(), sizeof record), 0);
    EXPECT_EQ(Bytes(bm.get()), before);
    bm->Flags &= ~BITMAP_SIGNED;
  }
}

TEST(ConvertBitmapFormat, Statuses) {
  Bitmap bm(Spec{24, ORDER_BGR}, 4, 4), gray(Spec{16, ORDER_GRAY}, 4, 4);
  gray->Flags |= BITMAP_SIGNED;
  BitmapRecord empty{};
  ResetBitmap(&empty, BITMAP_RECORD_SIZE, 0, 0, 0);
  BitmapRecord badSize = *bm.get();
  badSize.StructSize = 100;
  const PaletteEntry pal[2] = {};
  auto convert = [&](BitmapRecord *src, BitmapRecord *dst, uint32_t size, int32_t bits, int32_t order,
                     int32_t count, uint32_t flags) {
    return ConvertBitmapFormat(src, dst, size, bits, order, pal, count, flags);
  };
  kit::ExpectStatuses({
      {"null source", [&] { return convert(nullptr, bm, 0, 7, 3, -1, 1); }, RC_NO_BITMAP},
      {"null destination", [&] { return convert(bm, nullptr, 0, 7, 3, -1, 1); }, RC_NO_BITMAP},
      {"no pixels", [&] { return convert(&empty, bm, 208, 7, 3, -1, 1); }, RC_NO_BITMAP},
      {"struct size", [&] { return convert(bm, bm, 200, 7, 3, -1, 1); }, RC_INVALID_STRUCT_SIZE},
      {"source size", [&] { return convert(&badSize, bm, 208, 7, 3, -1, 1); }, RC_INVALID_STRUCT_SIZE},
      {"flags", [&] { return convert(bm, bm, 208, 8, 1, 0, 1); }, RC_INVALID_PARAMETER},
      {"unknown depth", [&] { return convert(bm, bm, 208, 7, 1, 0, 0); }, RC_INVALID_PARAMETER},
      {"unknown order", [&] { return convert(bm, bm, 208, 24, 3, 0, 0); }, RC_INVALID_PARAMETER},
      {"gray 24", [&] { return convert(bm, bm, 208, 24, ORDER_GRAY, 0, 0); }, RC_INVALID_PARAMETER},
      {"colour 12", [&] { return convert(bm, bm, 208, 12, 4, 0, 0); }, RC_INVALID_PARAMETER},
      {"palette count", [&] { return convert(bm, bm, 208, 8, 1, 257, 0); }, RC_INVALID_PARAMETER},
      {"signed change", [&] { return ConvertBitmapDepth(gray, 8); }, RC_SIGNED_DATA_NOT_SUPPORTED},
      {"signed own depth", [&] { return ConvertBitmapDepth(gray, 16); }, RC_SUCCESS},
  });
  EXPECT_EQ(bm->BitsPerPixel * 100 + gray->BitsPerPixel, 2416);
}

TEST(ConvertBitmapFormat, RegionAndAttachedTable) {
  Settings plain(0, 0);
  Bitmap bm(Spec{16, ORDER_GRAY, ORIENT_BOTTOM_FIRST}, 10, 8);
  bm.Randomize(5);
  kit::SetRectRegion(bm, 2, 1, 7, 5);
  int32_t *lut = static_cast<int32_t *>(AllocZeroed(65536, 4, __LINE__, L"tests/convert_test"));
  bm->AttachedLut = lut;
  bm->AttachedLutLength = 65536;
  bm->Flags |= BITMAP_USE_ATTACHED_LUT;
  // Another record: its own copy of the region; the table is dropped with the depth, not freed.
  Bitmap out;
  ASSERT_EQ(ConvertBitmapFormat(bm, out, BITMAP_RECORD_SIZE_OLD, 48, 4, nullptr, 0, 0), RC_SUCCESS);
  EXPECT_EQ(out->StructSize, BITMAP_RECORD_SIZE_OLD);
  EXPECT_NE(out->Region, bm->Region);
  EXPECT_TRUE(out->AttachedLut == nullptr && (out->Flags & BITMAP_USE_ATTACHED_LUT) == 0);
  EXPECT_EQ(bm->AttachedLut, lut);
  // In place: the region and orientation stay, the table is freed.
  ASSERT_EQ(ConvertBitmapDepth(bm, 8), RC_SUCCESS);
  EXPECT_TRUE(bm->AttachedLut == nullptr && bm->AttachedLutLength == 0);
  EXPECT_EQ(bm->Orientation, ORIENT_BOTTOM_FIRST);
  for (int y = 0; y < 8; ++y)
    for (int x = 0; x < 10; ++x) {
      const bool in = x >= 2 && x < 7 && y >= 1 && y < 5;
      EXPECT_EQ(kit::InRegion(out, x, y) * 2 + kit::InRegion(bm, x, y), in ? 3 : 0) << x << "," << y;
    }
}

TEST(ConvertBitmapFormat, AllocationFailureLeavesBitmapUnchanged) {
  struct Case {
    Spec spec;
    int32_t bits, order, dither, choice;
    bool separate, region;
  };
  const Case cases[] = {{{24, ORDER_BGR}, 8, ORDER_BGR, 1, 1, false, false},
                        {{24, ORDER_BGR}, 4, ORDER_BGR, 0, 0, false, true},
                        {{8, ORDER_BGR}, 1, ORDER_BGR, 1, 0, true, true},
                        {{16, ORDER_GRAY}, 64, 20, 0, 0, true, true},
                        {{2, ORDER_BGR}, 8, ORDER_BGR, 0, 0, false, false}};
  for (const Case &c : cases) {
    SCOPED_TRACE(c.spec.Name() + " -> " + std::to_string(c.bits));
    Settings s(c.dither, c.choice);
    struct Fixture {
      Bitmap bm, out;
      std::vector<uint8_t> before;
    };
    const int failures = kit::CheckAllocationFailures(
        [&] {
          Fixture f{Bitmap(c.spec, 40, 9), Bitmap(), {}};
          f.bm.Randomize(11);
          if (c.region) kit::SetRectRegion(f.bm, 1, 1, 30, 8);
          f.before = Bytes(f.bm.get());
          return f;
        },
        [&](Fixture &f) {
          const BitmapRecord saved = *f.bm.get();
          const int32_t status = ConvertBitmapFormat(f.bm, c.separate ? f.out : f.bm, BITMAP_RECORD_SIZE,
                                                     c.bits, c.order, nullptr, 0, 0);
          if (status != RC_SUCCESS || c.separate) {
            EXPECT_EQ(std::memcmp(&saved, f.bm.get(), sizeof saved), 0);
            EXPECT_EQ(Bytes(f.bm.get()), f.before);
          }
          EXPECT_TRUE(status == RC_SUCCESS || f.out->Pixels == nullptr);
          return status;
        });
    EXPECT_GE(failures, 2);
  }
}

TEST(ConvertRowBuffer, HandCheckedRows) {
  const std::vector<PaletteEntry> cube = Cube();
  struct Case {
    const char *name;
    int32_t width, srcBits, dstBits, srcOrder, dstOrder;
    const PaletteEntry *dstPalette;
    uint32_t flags;
    int32_t low, high;
    std::vector<uint8_t> in, out;
  };
  const Case cases[] = {
      // 77 * 257 = 0x4D4D.
      {"8 gray -> 16 gray",
       2,
       8,
       16,
       ORDER_GRAY,
       ORDER_GRAY,
       nullptr,
       0,
       0,
       -1,
       {77, 255},
       {77, 77, 255, 255}},
      {"16 gray -> 48",
       1,
       16,
       48,
       ORDER_BGR,
       ORDER_BGR,
       nullptr,
       CONVERT_GRAY_SOURCE,
       0,
       -1,
       {0x34, 0x12},
       {0x34, 0x12, 0x34, 0x12, 0x34, 0x12}},
      // Bits 2..9 of 0x3FC, 0x004, 0xFFF, 0x100: 255, 1, 255, 64.
      {"12 gray, bits 2..9 -> 24",
       4,
       12,
       24,
       ORDER_GRAY,
       ORDER_BGR,
       nullptr,
       5,
       2,
       9,
       {0xFC, 0x03, 0x04, 0x00, 0xFF, 0x0F, 0x00, 0x01},
       {255, 255, 255, 1, 1, 1, 255, 255, 255, 64, 64, 64}},
      // No destination palette: the intensity, (60 + 100 + 10 + 4) >> 3 = 21 and (500 + 200 + 4) >> 3 = 88.
      {"24 -> 8 gray",
       2,
       24,
       8,
       ORDER_BGR,
       ORDER_BGR,
       nullptr,
       0,
       0,
       -1,
       {10, 20, 30, 200, 100, 0},
       {21, 88}},
      // Nearest cube entries: (30, 20, 10) -> (51, 0, 0) = 42; (0, 100, 200) -> (0, 85, 204) = 16.
      {"24 -> 8 palette",
       2,
       24,
       8,
       ORDER_BGR,
       ORDER_BGR,
       cube.data(),
       0,
       0,
       -1,
       {10, 20, 30, 200, 100, 0},
       {42, 16}},
      // 1-bit without palette: the ramp 0, 255.
      {"1 -> 8 gray", 4, 1, 8, ORDER_BGR, ORDER_GRAY, nullptr, 0, 0, -1, {0xA0}, {255, 0, 255, 0}},
  };
  for (const Case &c : cases) {
    std::vector<uint8_t> row = c.in;
    row.resize(std::max(c.in.size(), c.out.size()) + 8);
    ASSERT_EQ(ConvertRowBuffer(row.data(), c.width, c.srcBits, c.dstBits, c.srcOrder, c.dstOrder, nullptr,
                               c.dstPalette, c.flags, c.low, c.high),
              RC_SUCCESS)
        << c.name;
    EXPECT_EQ(std::vector<uint8_t>(row.begin(), row.begin() + c.out.size()), c.out) << c.name;
  }
  // A 4-bit palette row of 517 pixels to 48 bits and back: widened in place
  // back to front across chunks of 256; the nearest colour is the exact entry.
  PaletteEntry pal[16];
  for (int i = 0; i < 16; ++i) pal[i] = {uint8_t(i * 16), uint8_t(255 - i), uint8_t(i * 3), 0};
  std::vector<uint8_t> row(6 * 517);
  for (int i = 0; i < 517; ++i) row[i / 2] = uint8_t(row[i / 2] | ((i * 5) % 16) << (i % 2 ? 0 : 4));
  ASSERT_EQ(ConvertRowBuffer(row.data(), 517, 4, 48, ORDER_BGR, ORDER_RGB, pal, nullptr, 0, 0, -1),
            RC_SUCCESS);
  for (int i = 0; i < 517; ++i) {
    const PaletteEntry &e = pal[(i * 5) % 16];
    ASSERT_EQ(row[6 * i + 1] * 65536 + row[6 * i + 3] * 256 + row[6 * i + 5],
              e.Red * 65536 + e.Green * 256 + e.Blue)
        << i;
  }
  ASSERT_EQ(ConvertRowBuffer(row.data(), 517, 48, 4, ORDER_RGB, ORDER_BGR, nullptr, pal, 0, 0, -1),
            RC_SUCCESS);
  for (int i = 0; i < 517; ++i) ASSERT_EQ((row[i / 2] >> (i % 2 ? 0 : 4)) & 15, (i * 5) % 16) << i;
  kit::ExpectStatuses({
      {"null buffer", [] { return ConvertRowBuffer(nullptr, 1, 8, 24, 2, 1, nullptr, nullptr, 0, 0, -1); },
       -13},
      {"width 0", [&] { return ConvertRowBuffer(row.data(), 0, 8, 24, 2, 1, nullptr, nullptr, 0, 0, -1); },
       -13},
      {"bad depth", [&] { return ConvertRowBuffer(row.data(), 1, 7, 24, 2, 1, nullptr, nullptr, 0, 0, -1); },
       -13},
      {"gray 24", [&] { return ConvertRowBuffer(row.data(), 1, 8, 24, 2, 2, nullptr, nullptr, 0, 0, -1); },
       -13},
      {"bad bits", [&] { return ConvertRowBuffer(row.data(), 1, 8, 24, 2, 1, nullptr, nullptr, 5, 3, 8); },
       -13},
  });
}

TEST(ChangeOrientation, RoundTripKeepsImageAndRegion) {
  kit::LeakGuard guard;
  for (const Spec &spec : kit::AllSpecs(true)) {
    SCOPED_TRACE(spec.Name());
    Bitmap bm(spec, 7, 5), copy;
    bm.Randomize(9);
    kit::SetRectRegion(bm, 1, 0, 4, 2);
    const std::vector<Pixel> image = bm.Pixels();
    const std::vector<uint8_t> stored = Bytes(bm.get());
    const int32_t other = ORIENT_TOP_FIRST + ORIENT_BOTTOM_FIRST - spec.orientation;
    ASSERT_EQ(ChangeOrientation(nullptr, bm, BITMAP_RECORD_SIZE, spec.orientation, 0), RC_SUCCESS);
    EXPECT_EQ(Bytes(bm.get()), stored);
    ASSERT_EQ(ChangeOrientation(nullptr, bm, BITMAP_RECORD_SIZE, other, 0), RC_SUCCESS);
    EXPECT_EQ(bm->Orientation, other);
    EXPECT_EQ(bm.Pixels(), image);
    EXPECT_EQ(std::memcmp(bm->Pixels, stored.data() + 4 * bm->BytesPerLine, bm->BytesPerLine),
              0);  // rows reversed
    EXPECT_TRUE(kit::InRegion(bm, 1, 0) && !kit::InRegion(bm, 1, 4));
    // Into another record: the source stays as it is.
    ASSERT_EQ(ChangeOrientation(copy, bm, BITMAP_RECORD_SIZE, spec.orientation, 0), RC_SUCCESS);
    EXPECT_EQ(copy->Orientation, spec.orientation);
    EXPECT_EQ(Bytes(copy.get()), stored);
    EXPECT_EQ(bm->Orientation, other);
  }
  struct Pair {
    Bitmap src, dst;
  };
  kit::CheckAllocationFailures(
      [] {
        Pair p{Bitmap(Spec{48, ORDER_RGB}, 6, 4), Bitmap()};
        kit::SetRectRegion(p.src, 0, 0, 3, 3);
        return p;
      },
      [](Pair &p) {
        const int32_t status = ChangeOrientation(p.dst, p.src, BITMAP_RECORD_SIZE, ORIENT_BOTTOM_FIRST, 0);
        EXPECT_EQ(p.src->Orientation, ORIENT_TOP_FIRST);
        EXPECT_TRUE(status == RC_SUCCESS || p.dst->Pixels == nullptr);
        return status;
      });
  Bitmap bm(Spec{8, ORDER_GRAY}, 2, 2);
  kit::ExpectStatuses({
      {"null", [] { return ChangeOrientation(nullptr, nullptr, 100, 2, 1); }, RC_NO_BITMAP},
      {"size", [&] { return ChangeOrientation(nullptr, bm, 100, 2, 1); }, RC_INVALID_STRUCT_SIZE},
      {"orientation", [&] { return ChangeOrientation(nullptr, bm, 208, 2, 0); }, RC_INVALID_PARAMETER},
      {"flags", [&] { return ChangeOrientation(nullptr, bm, 208, 4, 1); }, RC_INVALID_PARAMETER},
  });
}

TEST(FillBitmap, EveryKindWithAndWithoutRegion) {
  const uint32_t colour = 30u | (120u << 8) | (240u << 16);  // red 30, green 120, blue 240
  const uint32_t level = (2 * 30 + 5 * 120 + 240 + 4) >> 3;  // 113
  for (const Spec &spec : kit::AllSpecs(true)) {
    for (bool region : {false, true}) {
      SCOPED_TRACE(spec.Name() + (region ? " region" : ""));
      Bitmap bm(spec, 11, 6);
      bm.Randomize(21);
      const std::vector<Pixel> before = bm.Pixels();
      if (region) kit::SetEllipseRegion(bm, 1, 0, 10, 6);
      ASSERT_EQ(FillBitmap(bm, colour), RC_SUCCESS);
      for (int y = 0; y < 6; ++y)
        for (int x = 0; x < 11; ++x) {
          const Pixel old = before[static_cast<size_t>(y) * 11 + x];
          if (!kit::InRegion(bm, x, y)) {
            ASSERT_EQ(bm.At(x, y), old) << x << "," << y;
          } else if (spec.IsPalette()) {
            ASSERT_EQ(bm.ColorAt(x, y), Nearest(bm->Palette, bm->ColorsUsed, 30, 120, 240)) << x << "," << y;
          } else {
            const Pixel want = spec.IsGray()     ? Level(spec.bits == 8    ? level
                                                         : spec.bits == 12 ? level * 16
                                                                           : level * 257)
                               : spec.bits == 16 ? Rgb(30 >> 3, 120 >> 3, 240 >> 3)
                               : spec.bits <= 32 ? Rgb(30, 120, 240, old.v[3])
                                                 : Rgb(30 * 257, 120 * 257, 240 * 257, old.v[3]);
            ASSERT_EQ(bm.At(x, y), want) << x << "," << y;
          }
        }
      EXPECT_TRUE(!region || (kit::InRegion(bm, 5, 0) && !kit::InRegion(bm, 0, 0)));  // a proper subset
    }
  }
  // COLOR_GRAY_LEVEL: bits 8-15 are a gray level.
  Bitmap rgb(Spec{24, ORDER_RGB}, 2, 2);
  ASSERT_EQ(FillBitmap(rgb, COLOR_GRAY_LEVEL | (77u << 8) | 5u), RC_SUCCESS);
  EXPECT_EQ(rgb.At(1, 1), Rgb(77, 77, 77));
  BitmapRecord badSize = *rgb.get();
  badSize.StructSize = 100;
  kit::ExpectStatuses({{"null", [] { return FillBitmap(nullptr, 0); }, RC_NO_BITMAP},
                       {"size", [&] { return FillBitmap(&badSize, 0); }, RC_INVALID_STRUCT_SIZE}});
}

TEST(CountBitmapColors, EveryKind) {
  kit::LeakGuard guard;
  for (const Spec &spec : kit::AllSpecs()) {
    SCOPED_TRACE(spec.Name());
    Bitmap bm(spec, 10, 4);
    // k distinct values, each at least twice; the fourth sample varies.
    const uint32_t k = spec.IsPalette() ? std::min(1u << spec.bits, 8u) : 7;
    for (int i = 0; i < 40; ++i) {
      const uint32_t v = static_cast<uint32_t>(i) % k;
      bm.Set(i % 10, i / 10,
             spec.IsPalette() ? Level(v)
             : spec.IsGray()  ? Level(v * (spec.SampleMax() / k))
                              : Rgb(v, v % 2, 3, i % 10));
    }
    uint32_t count = 0;
    ASSERT_EQ(CountBitmapColors(bm, &count, 0), RC_SUCCESS);
    EXPECT_EQ(count, k);
    bm.Set(0, 0, spec.IsPalette() || spec.IsGray() ? Level(spec.SampleMax()) : Rgb(spec.SampleMax(), 0, 0));
    ASSERT_EQ(CountBitmapColors(bm, &count, 0), RC_SUCCESS);
    EXPECT_EQ(count, k + (spec.IsPalette() && spec.bits <= 2 ? 0 : 1));
  }
  // Palette entries of the same colour count once; unused entries not at all.
  const PaletteEntry pal[4] = {{1, 2, 3, 0}, {1, 2, 3, 9}, {9, 9, 9, 0}, {4, 4, 4, 0}};
  Bitmap two(Spec{2, ORDER_BGR}, 3, 1, {Level(0), Level(1), Level(3)}, pal);
  BitmapRecord badSize = *two.get();
  badSize.StructSize = 100;
  uint32_t count = 0;
  ASSERT_EQ(CountBitmapColors(two, &count, 0), RC_SUCCESS);
  EXPECT_EQ(count, 2u);
  kit::ExpectStatuses({
      {"flags", [&] { return CountBitmapColors(nullptr, nullptr, 1); }, RC_INVALID_PARAMETER},
      {"null bitmap", [&] { return CountBitmapColors(nullptr, nullptr, 0); }, RC_NO_BITMAP},
      {"size", [&] { return CountBitmapColors(&badSize, nullptr, 0); }, RC_INVALID_STRUCT_SIZE},
      {"null count", [&] { return CountBitmapColors(two, nullptr, 0); }, RC_NULL_OPTIONS},
  });
  for (const Spec &spec : {Spec{24, ORDER_BGR}, Spec{64, ORDER_RGB}})
    kit::CheckAllocationFailures([&] { return Bitmap(spec, 5, 5); },
                                 [&](Bitmap &b) { return CountBitmapColors(b, &count, 0); });
}
