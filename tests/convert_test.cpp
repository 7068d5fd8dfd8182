// imgkernel conversions: ConvertBitmapFormat / ConvertBitmapDepth,
// ConvertRowBuffer, ChangeOrientation, FillBitmap and CountBitmapColors.
#include <algorithm>
#include <cstring>
#include <set>
#include <vector>

#include "kit.h"

using kit::Bitmap;
using kit::Pixel;
using kit::Rgb;
using kit::Spec;

namespace {

// Sets the kernel settings pair for the scope.
class Settings {
 public:
  Settings(int32_t dither, int32_t choice) { SwapKernelSettings(dither, choice, &oldDither_, &oldChoice_); }
  ~Settings() { SwapKernelSettings(oldDither_, oldChoice_, nullptr, nullptr); }

 private:
  int32_t oldDither_ = 0, oldChoice_ = 0;
};

// A pixel on the 16-bit scale: red, green, blue, fourth.
struct Wide {
  uint32_t r, g, b, a;
};

uint32_t Expand5(uint32_t v) { return ((v << 3) | (v >> 2)) * 257u; }

// Colour of a pixel of any kind widened to 16 bits per sample, as the
// conversions document it.
Wide WideAt(const Bitmap &bm, int32_t x, int32_t y) {
  const BitmapRecord *b = bm.get();
  const Pixel p = bm.At(x, y);
  if (b->ColorOrder == ORDER_GRAY) {
    const uint32_t v = b->BitsPerPixel == 8 ? p.v[0] * 257u : b->BitsPerPixel == 12 ? p.v[0] * 16u : p.v[0];
    return {v, v, v, 0};
  }
  switch (b->BitsPerPixel) {
    case 1:
    case 2:
    case 4:
    case 8: {
      const PaletteEntry &e = b->Palette[p.v[0]];
      return {e.Red * 257u, e.Green * 257u, e.Blue * 257u, 0};
    }
    case 16:
      return {Expand5(p.v[0]), Expand5(p.v[1]), Expand5(p.v[2]), 0};
    case 24:
    case 32:
      return {p.v[0] * 257u, p.v[1] * 257u, p.v[2] * 257u, p.v[3] * 257u};
    default:
      return {p.v[0], p.v[1], p.v[2], p.v[3]};
  }
}

// The fixed 8-bit palette as documented: 6 x 7 x 6 cube then four grays.
std::vector<PaletteEntry> DocumentedCube() {
  std::vector<PaletteEntry> pal;
  for (int r = 0; r < 6; ++r)
    for (int g = 0; g < 7; ++g)
      for (int b = 0; b < 6; ++b)
        pal.push_back({static_cast<uint8_t>(51 * b), static_cast<uint8_t>(g * 255 / 6),
                       static_cast<uint8_t>(51 * r), 0});
  for (int k = 1; k <= 4; ++k)
    pal.push_back(
        {static_cast<uint8_t>(51 * k), static_cast<uint8_t>(51 * k), static_cast<uint8_t>(51 * k), 0});
  return pal;
}

std::vector<PaletteEntry> DocumentedRamp(int bits) {
  std::vector<PaletteEntry> pal;
  const int n = 1 << bits;
  for (int i = 0; i < n; ++i) {
    const uint8_t v = static_cast<uint8_t>(i * 255 / (n - 1));
    pal.push_back({v, v, v, 0});
  }
  return pal;
}

// Nearest entry by squared distance, lowest index on ties.
PaletteEntry Nearest(const std::vector<PaletteEntry> &pal, uint32_t r, uint32_t g, uint32_t b) {
  size_t best = 0;
  int64_t bestD = INT64_MAX;
  for (size_t i = 0; i < pal.size(); ++i) {
    const int64_t dr = pal[i].Red - int64_t(r), dg = pal[i].Green - int64_t(g), db = pal[i].Blue - int64_t(b);
    const int64_t d = dr * dr + dg * dg + db * db;
    if (d < bestD) bestD = d, best = i;
  }
  return pal[best];
}

std::vector<uint8_t> Bytes(const BitmapRecord *b) {
  return std::vector<uint8_t>(b->Pixels, b->Pixels + b->DataSize);
}

struct TargetCase {
  int32_t bits;
  int32_t order;
};

const TargetCase kTargets[] = {{1, ORDER_BGR},  {2, ORDER_BGR},   {4, ORDER_RGB},   {8, ORDER_BGR},  {8, 4},
                               {8, ORDER_GRAY}, {12, ORDER_GRAY}, {16, ORDER_GRAY}, {16, ORDER_BGR}, {16, 4},
                               {24, ORDER_RGB}, {24, ORDER_BGR},  {32, ORDER_BGR},  {32, 20},        {48, 4},
                               {48, ORDER_RGB}, {64, 20},         {64, ORDER_RGB}};

bool IsGraySpec(const Spec &s) { return s.order == ORDER_GRAY; }

// Stored colour order the conversion must produce.
int32_t ExpectedOrder(const Spec &src, const TargetCase &t) {
  const bool forced = t.order == 4 || t.order == 20;
  if (t.order == ORDER_GRAY || t.bits == 12) return ORDER_GRAY;
  if (!forced && IsGraySpec(src) && (t.bits == 8 || t.bits == 16)) return ORDER_GRAY;
  return forced ? ORDER_BGR : t.order;
}

// Checks every pixel of `out` (converted from `in` with settings (0, 0)).
void CheckConverted(const Bitmap &in, const Bitmap &out, const TargetCase &t) {
  const BitmapRecord *o = out.get();
  const int32_t w = in.get()->Width, h = in.get()->Height;
  if (o->BitsPerPixel <= 8 && o->ColorOrder != ORDER_GRAY) {
    // Palette result: the image's own colours when they fit, else nearest of the fixed palette.
    // A palette source keeps its indices when all of them fit the new depth.
    bool widened = in.get()->BitsPerPixel <= 8 && in.get()->ColorOrder != ORDER_GRAY;
    for (int32_t y = 0; y < h && widened; ++y)
      for (int32_t x = 0; x < w; ++x) widened = widened && in.At(x, y).v[0] < (1u << t.bits);
    std::set<uint32_t> distinct;
    for (int32_t y = 0; y < h; ++y)
      for (int32_t x = 0; x < w; ++x) {
        const Wide c = WideAt(in, x, y);
        distinct.insert(((c.r >> 8) << 16) | ((c.g >> 8) << 8) | (c.b >> 8));
      }
    const bool fits = widened || distinct.size() <= (1u << t.bits);
    const std::vector<PaletteEntry> fixed = t.bits == 8 ? DocumentedCube() : DocumentedRamp(t.bits);
    for (int32_t y = 0; y < h; ++y)
      for (int32_t x = 0; x < w; ++x) {
        const Wide c = WideAt(in, x, y);
        const Pixel got = out.ColorAt(x, y);
        if (fits) {
          ASSERT_EQ(got, Rgb(c.r >> 8, c.g >> 8, c.b >> 8)) << x << "," << y;
        } else {
          const PaletteEntry e = Nearest(fixed, c.r >> 8, c.g >> 8, c.b >> 8);
          ASSERT_EQ(got, Rgb(e.Red, e.Green, e.Blue)) << x << "," << y;
        }
      }
    return;
  }
  const bool fourth =
      (in.get()->BitsPerPixel == 32 || in.get()->BitsPerPixel == 64) && in.get()->ColorOrder != ORDER_GRAY;
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      const Wide c = WideAt(in, x, y);
      const uint32_t a = fourth ? c.a : 0;
      const uint32_t i8 = (2 * (c.r >> 8) + 5 * (c.g >> 8) + (c.b >> 8) + 4) >> 3;
      const uint32_t i16 = (2 * c.r + 5 * c.g + c.b + 4) >> 3;
      Pixel want;
      if (o->ColorOrder == ORDER_GRAY) {
        want = kit::Level(o->BitsPerPixel == 8 ? i8 : o->BitsPerPixel == 12 ? i16 >> 4 : i16);
      } else {
        switch (o->BitsPerPixel) {
          case 16:
            want = Rgb(c.r >> 11, c.g >> 11, c.b >> 11);
            break;
          case 24:
            want = Rgb(c.r >> 8, c.g >> 8, c.b >> 8);
            break;
          case 32:
            want = Rgb(c.r >> 8, c.g >> 8, c.b >> 8, a >> 8);
            break;
          case 48:
            want = Rgb(c.r, c.g, c.b);
            break;
          default:
            want = Rgb(c.r, c.g, c.b, a);
            break;
        }
      }
      ASSERT_EQ(out.At(x, y), want) << x << "," << y;
    }
}

}  // namespace

// Every kind through every target, both orientations, checked pixel by pixel
// against the documented widening, narrowing and intensity rules.
TEST(ConvertBitmapFormat, EveryKindToEveryTarget) {
  Settings plain(0, 0);
  for (const Spec &spec : kit::AllSpecs(true)) {
    for (const TargetCase &t : kTargets) {
      SCOPED_TRACE(spec.Name() + " -> " + std::to_string(t.bits) + "/" + std::to_string(t.order));
      kit::LeakGuard guard;
      Bitmap src(spec, 13, 5);
      src.Randomize(static_cast<uint32_t>(spec.bits * 100 + t.bits));
      const std::vector<uint8_t> before = Bytes(src.get());
      Bitmap out;
      BitmapRecord *o = out.get();
      ASSERT_EQ(ConvertBitmapFormat(src.get(), o, BITMAP_RECORD_SIZE, t.bits, t.order, nullptr, 0, 0),
                RC_SUCCESS);
      EXPECT_EQ(Bytes(src.get()), before) << "source changed";
      // Colour sources reduced to 8 bits with order 0/1 become palette bitmaps (random colours are not all
      // gray).
      const int32_t order = ExpectedOrder(spec, t);
      const bool paletteResult = t.bits <= 8 && order != ORDER_GRAY;
      EXPECT_EQ(o->BitsPerPixel, t.bits);
      if (paletteResult)
        EXPECT_NE(o->ColorOrder, ORDER_GRAY);
      else
        EXPECT_EQ(o->ColorOrder, order);
      EXPECT_EQ(o->Orientation, spec.orientation);
      EXPECT_EQ(o->Width, 13);
      EXPECT_EQ(o->Height, 5);
      const uint32_t storedBits = t.bits == 12 ? 16 : t.bits;  // 12-bit levels sit in 16-bit words
      EXPECT_EQ(o->BytesPerLine, ((13u * storedBits + 31) / 32) * 4);
      EXPECT_EQ(o->ColorsUsed, paletteResult ? 1 << t.bits : 0);
      CheckConverted(src, out, t);
      // In place gives the same bytes as into another record.
      ASSERT_EQ(ConvertBitmapFormat(src.get(), src.get(), BITMAP_RECORD_SIZE, t.bits, t.order, nullptr, 0, 0),
                RC_SUCCESS);
      EXPECT_EQ(Bytes(src.get()), Bytes(o));
      EXPECT_EQ(src->BitsPerPixel, o->BitsPerPixel);
      EXPECT_EQ(src->ColorOrder, o->ColorOrder);
    }
  }
}

TEST(ConvertBitmapFormat, ExactRoundTrips) {
  Settings plain(0, 0);
  struct Trip {
    Spec spec;
    TargetCase via;
  };
  const Trip trips[] = {{{16, ORDER_BGR}, {24, ORDER_BGR}},   {{16, ORDER_BGR}, {48, ORDER_RGB}},
                        {{24, ORDER_RGB}, {48, ORDER_BGR}},   {{32, ORDER_BGR}, {64, ORDER_RGB}},
                        {{8, ORDER_GRAY}, {16, ORDER_GRAY}},  {{8, ORDER_GRAY}, {48, 4}},
                        {{12, ORDER_GRAY}, {16, ORDER_GRAY}}, {{12, ORDER_GRAY}, {64, 20}},
                        {{24, ORDER_BGR}, {32, ORDER_RGB}},   {{4, ORDER_BGR}, {8, ORDER_BGR}}};
  for (const Trip &trip : trips) {
    for (int32_t orientation : {ORIENT_TOP_FIRST, ORIENT_BOTTOM_FIRST}) {
      Spec spec = trip.spec;
      spec.orientation = orientation;
      SCOPED_TRACE(spec.Name() + " via " + std::to_string(trip.via.bits));
      Bitmap bm(spec, 37, 6);
      bm.Randomize(7);
      const std::vector<Pixel> original = bm.Pixels();
      ASSERT_EQ(ConvertBitmapFormat(bm, bm, BITMAP_RECORD_SIZE, trip.via.bits, trip.via.order, nullptr, 0, 0),
                RC_SUCCESS);
      ASSERT_EQ(ConvertBitmapFormat(bm, bm, BITMAP_RECORD_SIZE, spec.bits, spec.order, nullptr, 0, 0),
                RC_SUCCESS);
      EXPECT_EQ(bm->BitsPerPixel, spec.bits);
      EXPECT_EQ(bm.Pixels(), original);
    }
  }
}

TEST(ConvertBitmapFormat, HandPickedValues) {
  Settings plain(0, 0);
  {
    // 8-bit gray v -> 48-bit: v * 257 in every sample.
    Bitmap bm(Spec{8, ORDER_GRAY}, 3, 1, {kit::Level(0), kit::Level(1), kit::Level(200)});
    ASSERT_EQ(ConvertBitmapDepth(bm, 48), RC_SUCCESS);
    EXPECT_EQ(bm.At(1, 0), Rgb(257, 257, 257));
    EXPECT_EQ(bm.At(2, 0), Rgb(51400, 51400, 51400));
  }
  {
    // 16-bit gray with order 4 gives colour; with order 1 it stays gray.
    Bitmap bm(Spec{16, ORDER_GRAY}, 2, 1, {kit::Level(1234), kit::Level(65535)});
    ASSERT_EQ(ConvertBitmapFormat(bm, bm, BITMAP_RECORD_SIZE, 16, ORDER_BGR, nullptr, 0, 0), RC_SUCCESS);
    EXPECT_EQ(bm->ColorOrder, ORDER_GRAY);
    ASSERT_EQ(ConvertBitmapFormat(bm, bm, BITMAP_RECORD_SIZE, 16, 4, nullptr, 0, 0), RC_SUCCESS);
    EXPECT_EQ(bm->ColorOrder, ORDER_BGR);
    EXPECT_EQ(bm.At(0, 0), Rgb(1234 >> 11, 1234 >> 11, 1234 >> 11));
    EXPECT_EQ(bm.At(1, 0), Rgb(31, 31, 31));
  }
  {
    // 12-bit 4095 -> 16-bit gray 65520; -> 8-bit 255.
    Bitmap bm(Spec{12, ORDER_GRAY}, 2, 1, {kit::Level(4095), kit::Level(16)});
    ASSERT_EQ(ConvertBitmapDepth(bm, 16), RC_SUCCESS);
    EXPECT_EQ(bm->ColorOrder, ORDER_GRAY);
    EXPECT_EQ(bm.At(0, 0), kit::Level(65520));
    EXPECT_EQ(bm.At(1, 0), kit::Level(256));
    ASSERT_EQ(ConvertBitmapDepth(bm, 8), RC_SUCCESS);
    EXPECT_EQ(bm.At(0, 0), kit::Level(255));
    EXPECT_EQ(bm.At(1, 0), kit::Level(1));
  }
  {
    // Intensity (2R + 5G + B + 4) >> 3: (10, 20, 30) -> (20 + 100 + 30 + 4) >> 3 = 19.
    Bitmap bm(Spec{24, ORDER_RGB}, 1, 1, {Rgb(10, 20, 30)});
    ASSERT_EQ(ConvertBitmapFormat(bm, bm, BITMAP_RECORD_SIZE, 8, ORDER_GRAY, nullptr, 0, 0), RC_SUCCESS);
    EXPECT_EQ(bm.At(0, 0), kit::Level(19));
  }
}

TEST(ConvertBitmapFormat, SignificantBitsOfGraySources) {
  Settings plain(0, 0);
  // 16-bit gray with bits 4..11 significant: an 8-bit level stored shifted.
  Bitmap bm(Spec{16, ORDER_GRAY}, 3, 1, {kit::Level(0xF00F), kit::Level(200 << 4), kit::Level(0x0FF0)});
  bm->SignificantLowBit = 4;
  bm->SignificantHighBit = 11;
  ASSERT_EQ(ConvertBitmapDepth(bm, 8), RC_SUCCESS);
  EXPECT_EQ(bm.At(0, 0), kit::Level(0));  // bits outside 4..11 ignored
  EXPECT_EQ(bm.At(1, 0), kit::Level(200));
  EXPECT_EQ(bm.At(2, 0), kit::Level(255));
  EXPECT_EQ(bm->SignificantHighBit, -1);

  // 16-bit gray with 12 significant bits widens by 16 like 12-bit gray.
  Bitmap twelve(Spec{16, ORDER_GRAY}, 1, 1, {kit::Level(4095)});
  twelve->SignificantLowBit = 0;
  twelve->SignificantHighBit = 11;
  ASSERT_EQ(ConvertBitmapFormat(twelve, twelve, BITMAP_RECORD_SIZE, 48, 4, nullptr, 0, 0), RC_SUCCESS);
  EXPECT_EQ(twelve.At(0, 0), Rgb(65520, 65520, 65520));
}

TEST(ConvertBitmapDepth, ReductionToEightBits) {
  Settings plain(0, 0);
  // All gray: ORDER_GRAY with the gray values.
  std::vector<Pixel> grays;
  for (int i = 0; i < 40; ++i) grays.push_back(Rgb(i * 6, i * 6, i * 6));
  Bitmap gray(Spec{24, ORDER_BGR}, 8, 5, grays);
  ASSERT_EQ(ConvertBitmapDepth(gray, 8), RC_SUCCESS);
  EXPECT_EQ(gray->ColorOrder, ORDER_GRAY);
  EXPECT_EQ(gray->Palette, nullptr);
  for (int i = 0; i < 40; ++i) EXPECT_EQ(gray.At(i % 8, i / 8), kit::Level(i * 6));

  // 256 colours of which one not gray: a palette reproducing every colour.
  std::vector<Pixel> colours;
  for (int i = 0; i < 256; ++i) colours.push_back(Rgb(i, (i * 7) & 255, (i * 13 + 1) & 255));
  Bitmap colourful(Spec{48, ORDER_RGB}, 16, 16);
  for (int i = 0; i < 256; ++i) {
    const Pixel &c = colours[i];
    colourful.Set(i % 16, i / 16, Rgb(c.v[0] * 257, c.v[1] * 257, c.v[2] * 257));
  }
  ASSERT_EQ(ConvertBitmapDepth(colourful, 8), RC_SUCCESS);
  EXPECT_EQ(colourful->ColorOrder, ORDER_BGR);
  EXPECT_EQ(colourful->ColorsUsed, 256);
  for (int i = 0; i < 256; ++i) ASSERT_EQ(colourful.ColorAt(i % 16, i / 16), colours[i]) << i;

  // 257 colours do not fit: the fixed palette.
  std::vector<Pixel> many = colours;
  many.push_back(Rgb(1, 2, 3));
  many.resize(260, Rgb(1, 2, 3));
  Bitmap tooMany(Spec{24, ORDER_BGR}, 20, 13, many);
  ASSERT_EQ(ConvertBitmapDepth(tooMany, 8), RC_SUCCESS);
  const std::vector<PaletteEntry> cube = DocumentedCube();
  ASSERT_EQ(std::memcmp(tooMany->Palette, cube.data(), cube.size() * sizeof(PaletteEntry)), 0);
}

TEST(ConvertBitmapDepth, PaletteChoiceSetting) {
  // Few colours: with choice 1 the fixed palette is used even though they fit.
  Bitmap bm(Spec{24, ORDER_BGR}, 4, 1, {Rgb(1, 2, 3), Rgb(200, 10, 10), Rgb(1, 2, 3), Rgb(5, 250, 7)});
  {
    Settings fixed(0, 1);
    Bitmap copy;
    ASSERT_EQ(ConvertBitmapFormat(bm, copy, BITMAP_RECORD_SIZE, 8, ORDER_BGR, nullptr, 0, 0), RC_SUCCESS);
    const std::vector<PaletteEntry> cube = DocumentedCube();
    EXPECT_EQ(std::memcmp(copy->Palette, cube.data(), cube.size() * sizeof(PaletteEntry)), 0);
    const PaletteEntry e = Nearest(cube, 200, 10, 10);
    EXPECT_EQ(copy.ColorAt(1, 0), Rgb(e.Red, e.Green, e.Blue));
  }
  {
    // Choice 0: own colours in order of first appearance.
    Settings own(1, 0);
    ASSERT_EQ(ConvertBitmapDepth(bm, 2), RC_SUCCESS);
    EXPECT_EQ(bm.At(0, 0).v[0], 0u);
    EXPECT_EQ(bm.At(1, 0).v[0], 1u);
    EXPECT_EQ(bm.At(2, 0).v[0], 0u);
    EXPECT_EQ(bm.At(3, 0).v[0], 2u);
    EXPECT_EQ(bm.ColorAt(3, 0), Rgb(5, 250, 7));
  }
}

TEST(ConvertBitmapDepth, DitheringOnlyWhenAsked) {
  // A flat colour not in the fixed palette, plus a gradient.
  Bitmap src(Spec{24, ORDER_BGR}, 32, 32);
  for (int y = 0; y < 32; ++y)
    for (int x = 0; x < 32; ++x) src.Set(x, y, y < 16 ? Rgb(100, 150, 200) : Rgb(x * 8, y * 4, 255 - x * 8));
  const PaletteEntry nearestFlat = Nearest(DocumentedCube(), 100, 150, 200);

  auto convert = [&](int32_t dither, int32_t choice) {
    Settings s(dither, choice);
    Bitmap out;
    EXPECT_EQ(ConvertBitmapFormat(src, out, BITMAP_RECORD_SIZE, 8, ORDER_BGR, nullptr, 0, 0), RC_SUCCESS);
    return out;
  };
  Bitmap plain = convert(0, 0), plainFixed = convert(0, 1), dithered = convert(1, 1),
         dithered2 = convert(1, 0);
  // Without dithering every pixel takes its nearest colour.
  for (const Bitmap *b : {&plain, &plainFixed})
    for (int y = 0; y < 32; ++y)
      for (int x = 0; x < 32; ++x) {
        const Wide c = WideAt(src, x, y);
        const PaletteEntry e = Nearest(DocumentedCube(), c.r >> 8, c.g >> 8, c.b >> 8);
        ASSERT_EQ(b->ColorAt(x, y), Rgb(e.Red, e.Green, e.Blue));
      }
  EXPECT_EQ(plain.ColorAt(3, 3), Rgb(nearestFlat.Red, nearestFlat.Green, nearestFlat.Blue));
  // Dithered: the flat area mixes colours whose mean approaches the input.
  EXPECT_NE(Bytes(dithered.get()), Bytes(plain.get()));
  EXPECT_EQ(Bytes(dithered.get()), Bytes(dithered2.get()));  // too many colours: fixed palette either way
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
  // Deterministic.
  Bitmap again = convert(1, 1);
  EXPECT_EQ(Bytes(again.get()), Bytes(dithered.get()));
}

TEST(ConvertBitmapDepth, OwnDepthChangesNothing) {
  for (const Spec &spec : kit::AllSpecs()) {
    SCOPED_TRACE(spec.Name());
    Bitmap bm(spec, 9, 3);
    bm.Randomize(3);
    bm->SignificantHighBit = spec.order == ORDER_GRAY ? 6 : -1;
    bm->Flags |= BITMAP_SIGNED;
    BitmapRecord record = *bm.get();
    const std::vector<uint8_t> before = Bytes(bm.get());
    EXPECT_EQ(ConvertBitmapDepth(bm, spec.bits), RC_SUCCESS);
    EXPECT_EQ(std::memcmp(&record, bm.get(), sizeof record), 0);
    EXPECT_EQ(Bytes(bm.get()), before);
    bm->Flags &= ~BITMAP_SIGNED;
  }
}

TEST(ConvertBitmapFormat, Statuses) {
  Bitmap bm(Spec{24, ORDER_BGR}, 4, 4);
  Bitmap gray(Spec{16, ORDER_GRAY}, 4, 4);
  gray->Flags |= BITMAP_SIGNED;
  BitmapRecord empty{};
  ResetBitmap(&empty, BITMAP_RECORD_SIZE, 0, 0, 0);
  kit::ExpectStatuses({
      {"null source", [] { return ConvertBitmapDepth(nullptr, 8); }, RC_NO_BITMAP},
      {"null destination", [&] { return ConvertBitmapFormat(bm, nullptr, 208, 8, 1, nullptr, 0, 0); },
       RC_NO_BITMAP},
      {"no pixels", [&] { return ConvertBitmapDepth(&empty, 8); }, RC_NO_BITMAP},
      {"struct size", [&] { return ConvertBitmapFormat(bm, bm, 200, 8, 1, nullptr, 0, 0); },
       RC_INVALID_STRUCT_SIZE},
      {"unknown depth", [&] { return ConvertBitmapDepth(bm, 7); }, RC_INVALID_PARAMETER},
      {"unknown order", [&] { return ConvertBitmapFormat(bm, bm, 208, 24, 3, nullptr, 0, 0); },
       RC_INVALID_PARAMETER},
      {"gray 24", [&] { return ConvertBitmapFormat(bm, bm, 208, 24, ORDER_GRAY, nullptr, 0, 0); },
       RC_INVALID_PARAMETER},
      {"colour 12", [&] { return ConvertBitmapFormat(bm, bm, 208, 12, 4, nullptr, 0, 0); },
       RC_INVALID_PARAMETER},
      {"flags", [&] { return ConvertBitmapFormat(bm, bm, 208, 8, 1, nullptr, 0, 1); }, RC_INVALID_PARAMETER},
      {"signed change", [&] { return ConvertBitmapDepth(gray, 8); }, RC_SIGNED_DATA_NOT_SUPPORTED},
      {"signed own depth", [&] { return ConvertBitmapDepth(gray, 16); }, RC_SUCCESS},
  });
  EXPECT_EQ(bm->BitsPerPixel, 24);
  EXPECT_EQ(gray->BitsPerPixel, 16);
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

  // Another record: the region is copied, the table dropped with the depth.
  Bitmap out;
  ASSERT_EQ(ConvertBitmapFormat(bm, out, BITMAP_RECORD_SIZE_OLD, 48, 4, nullptr, 0, 0), RC_SUCCESS);
  EXPECT_EQ(out->StructSize, BITMAP_RECORD_SIZE_OLD);
  EXPECT_NE(out->Region, bm->Region);
  EXPECT_EQ(out->AttachedLut, nullptr);
  EXPECT_EQ(out->Flags & BITMAP_USE_ATTACHED_LUT, 0u);
  for (int y = 0; y < 8; ++y)
    for (int x = 0; x < 10; ++x) EXPECT_EQ(kit::InRegion(out, x, y), x >= 2 && x < 7 && y >= 1 && y < 5);
  EXPECT_EQ(bm->AttachedLut, lut);

  // In place: the region stays, the table is freed.
  ASSERT_EQ(ConvertBitmapDepth(bm, 8), RC_SUCCESS);
  EXPECT_EQ(bm->AttachedLut, nullptr);
  EXPECT_EQ(bm->AttachedLutLength, 0);
  Rect bounds{};
  ASSERT_EQ(GetRegionBounds(bm, nullptr, &bounds), RC_SUCCESS);
  EXPECT_EQ(bounds.Left, 2);
  EXPECT_EQ(bounds.Top, 1);
  EXPECT_EQ(bounds.Right, 7);
  EXPECT_EQ(bounds.Bottom, 5);
  EXPECT_EQ(bm->Orientation, ORIENT_BOTTOM_FIRST);
}

TEST(ConvertBitmapFormat, AllocationFailureLeavesBitmapUnchanged) {
  struct Case {
    Spec spec;
    TargetCase target;
    int32_t dither, choice;
    bool separate, region;
  };
  const Case cases[] = {{{24, ORDER_BGR}, {8, ORDER_BGR}, 1, 1, false, false},
                        {{24, ORDER_BGR}, {4, ORDER_BGR}, 0, 0, false, true},
                        {{8, ORDER_BGR}, {1, ORDER_BGR}, 1, 0, true, true},
                        {{16, ORDER_GRAY}, {64, 20}, 0, 0, true, true},
                        {{2, ORDER_BGR}, {8, ORDER_BGR}, 0, 0, false, false}};
  for (const Case &c : cases) {
    SCOPED_TRACE(c.spec.Name() + " -> " + std::to_string(c.target.bits));
    Settings s(c.dither, c.choice);
    struct Fixture {
      Bitmap bm;
      Bitmap out;
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
          BitmapRecord *dst = c.separate ? f.out.get() : f.bm.get();
          const int32_t status = ConvertBitmapFormat(f.bm, dst, BITMAP_RECORD_SIZE, c.target.bits,
                                                     c.target.order, nullptr, 0, 0);
          if (status != RC_SUCCESS || c.separate) {
            EXPECT_EQ(std::memcmp(&saved, f.bm.get(), sizeof saved), 0);
            EXPECT_EQ(Bytes(f.bm.get()), f.before);
          }
          if (status != RC_SUCCESS && c.separate) {
            EXPECT_EQ(f.out->Pixels, nullptr);
          }
          return status;
        });
    EXPECT_GE(failures, 2);
  }
}

// ---- ConvertRowBuffer ----------------------------------------------------------------------

TEST(ConvertRowBuffer, GrayPlanesIntoColourRows) {
  // 8-bit gray -> 24 bits, both orders: the level in every sample.
  std::vector<uint8_t> row(3 * 600 + 8);
  for (int i = 0; i < 600; ++i) row[i] = static_cast<uint8_t>(i * 7);
  ASSERT_EQ(ConvertRowBuffer(row.data(), 600, 8, 24, ORDER_RGB, ORDER_BGR, nullptr, nullptr, 5, 0, 7),
            RC_SUCCESS);
  for (int i = 0; i < 600; ++i)
    for (int k = 0; k < 3; ++k) ASSERT_EQ(row[3 * i + k], static_cast<uint8_t>(i * 7)) << i;

  // 16-bit gray -> 48 bits.
  std::vector<uint8_t> wide(6 * 300);
  for (int i = 0; i < 300; ++i) {
    wide[2 * i] = static_cast<uint8_t>(i * 211);
    wide[2 * i + 1] = static_cast<uint8_t>(i);
  }
  ASSERT_EQ(ConvertRowBuffer(wide.data(), 300, 16, 48, ORDER_GRAY, ORDER_BGR, nullptr, nullptr, 1, 0, -1),
            RC_SUCCESS);
  for (int i = 0; i < 300; ++i) {
    const uint32_t v = static_cast<uint8_t>(i * 211) | (static_cast<uint32_t>(i & 255) << 8);
    for (int k = 0; k < 3; ++k) ASSERT_EQ(wide[6 * i + 2 * k] | (wide[6 * i + 2 * k + 1] << 8), v) << i;
  }

  // 12-bit gray with significant bits 2..9 (flags 5) -> 24 bits.
  std::vector<uint8_t> twelve(3 * 4);
  const uint16_t levels[4] = {0x3FC, 0x004, 0xFFF, 0x100};
  for (int i = 0; i < 4; ++i) {
    twelve[2 * i] = static_cast<uint8_t>(levels[i]);
    twelve[2 * i + 1] = static_cast<uint8_t>(levels[i] >> 8);
  }
  ASSERT_EQ(ConvertRowBuffer(twelve.data(), 4, 12, 24, ORDER_GRAY, ORDER_BGR, nullptr, nullptr, 5, 2, 9),
            RC_SUCCESS);
  const uint8_t expected[4] = {255, 1, 255, 64};
  for (int i = 0; i < 4; ++i) EXPECT_EQ(twelve[3 * i], expected[i]) << i;
}

TEST(ConvertRowBuffer, PalettesAndNarrowing) {
  PaletteEntry pal[16];
  for (int i = 0; i < 16; ++i)
    pal[i] = {static_cast<uint8_t>(i * 16), static_cast<uint8_t>(255 - i), static_cast<uint8_t>(i * 3), 0};
  // 4-bit palette row of 517 pixels -> 48 bits (widening in place across chunks).
  std::vector<uint8_t> row(6 * 517);
  for (int i = 0; i < 517; ++i) {
    const uint8_t idx = static_cast<uint8_t>((i * 5) % 16);
    row[i / 2] = static_cast<uint8_t>(row[i / 2] | (i % 2 ? idx : idx << 4));
  }
  ASSERT_EQ(ConvertRowBuffer(row.data(), 517, 4, 48, ORDER_BGR, ORDER_RGB, pal, nullptr, 0, 0, -1),
            RC_SUCCESS);
  for (int i = 0; i < 517; ++i) {
    const PaletteEntry &e = pal[(i * 5) % 16];
    ASSERT_EQ(row[6 * i + 1], e.Red) << i;
    ASSERT_EQ(row[6 * i + 3], e.Green) << i;
    ASSERT_EQ(row[6 * i + 5], e.Blue) << i;
  }
  // Back to 4 bits with the same palette: nearest colour is the exact entry.
  ASSERT_EQ(ConvertRowBuffer(row.data(), 517, 48, 4, ORDER_RGB, ORDER_BGR, nullptr, pal, 0, 0, -1),
            RC_SUCCESS);
  for (int i = 0; i < 517; ++i) ASSERT_EQ((row[i / 2] >> (i % 2 ? 0 : 4)) & 15, (i * 5) % 16) << i;

  // 24 bits -> 8 bits: nearest palette entry, or the gray level without a palette.
  const uint8_t bgr[6] = {10, 20, 30, 200, 100, 0};
  std::vector<uint8_t> a(bgr, bgr + 6), b(bgr, bgr + 6);
  std::vector<PaletteEntry> cube = DocumentedCube();
  ASSERT_EQ(ConvertRowBuffer(a.data(), 2, 24, 8, ORDER_BGR, ORDER_BGR, nullptr, cube.data(), 0, 0, -1),
            RC_SUCCESS);
  for (int i = 0; i < 2; ++i) {
    const PaletteEntry want = Nearest(cube, bgr[3 * i + 2], bgr[3 * i + 1], bgr[3 * i]);
    const PaletteEntry &got = cube[a[i]];
    EXPECT_EQ(got.Red, want.Red);
    EXPECT_EQ(got.Green, want.Green);
    EXPECT_EQ(got.Blue, want.Blue);
  }
  ASSERT_EQ(ConvertRowBuffer(b.data(), 2, 24, 8, ORDER_BGR, ORDER_RGB, nullptr, nullptr, 0, 0, -1),
            RC_SUCCESS);
  EXPECT_EQ(b[0], (2 * 30 + 5 * 20 + 10 + 4) >> 3);
  EXPECT_EQ(b[1], (2 * 0 + 5 * 100 + 200 + 4) >> 3);

  // 8-bit gray -> 16-bit gray and 16-bit colour.
  std::vector<uint8_t> g(4, 0);
  g[0] = 77;
  g[1] = 255;
  ASSERT_EQ(ConvertRowBuffer(g.data(), 2, 8, 16, ORDER_GRAY, ORDER_GRAY, nullptr, nullptr, 0, 0, -1),
            RC_SUCCESS);
  EXPECT_EQ(g[0] | g[1] << 8, 77 * 257);
  EXPECT_EQ(g[2] | g[3] << 8, 65535);

  kit::ExpectStatuses({
      {"null buffer", [] { return ConvertRowBuffer(nullptr, 1, 8, 24, 2, 1, nullptr, nullptr, 0, 0, -1); },
       RC_INVALID_PARAMETER},
      {"bad depth", [&] { return ConvertRowBuffer(g.data(), 1, 7, 24, 2, 1, nullptr, nullptr, 0, 0, -1); },
       RC_INVALID_PARAMETER},
      {"gray 24", [&] { return ConvertRowBuffer(g.data(), 1, 8, 24, 2, 2, nullptr, nullptr, 0, 0, -1); },
       RC_INVALID_PARAMETER},
      {"bad bits", [&] { return ConvertRowBuffer(g.data(), 1, 8, 24, 2, 1, nullptr, nullptr, 5, 3, 8); },
       RC_INVALID_PARAMETER},
  });
}

// ---- ChangeOrientation ------------------------------------------------------------------------

TEST(ChangeOrientation, RoundTripKeepsImageAndRegion) {
  kit::LeakGuard guard;
  for (const Spec &spec : kit::AllSpecs(true)) {
    SCOPED_TRACE(spec.Name());
    Bitmap bm(spec, 7, 5);
    bm.Randomize(9);
    kit::SetRectRegion(bm, 1, 0, 4, 2);
    const std::vector<Pixel> image = bm.Pixels();
    const std::vector<uint8_t> stored = Bytes(bm.get());
    const int32_t other = spec.orientation == ORIENT_TOP_FIRST ? ORIENT_BOTTOM_FIRST : ORIENT_TOP_FIRST;
    ASSERT_EQ(ChangeOrientation(nullptr, bm, BITMAP_RECORD_SIZE, spec.orientation, 0), RC_SUCCESS);
    EXPECT_EQ(Bytes(bm.get()), stored);
    ASSERT_EQ(ChangeOrientation(nullptr, bm, BITMAP_RECORD_SIZE, other, 0), RC_SUCCESS);
    EXPECT_EQ(bm->Orientation, other);
    EXPECT_EQ(bm.Pixels(), image);
    // Stored row 0 now holds what was the last stored row.
    EXPECT_EQ(std::memcmp(bm->Pixels, stored.data() + 4 * bm->BytesPerLine, bm->BytesPerLine), 0);
    EXPECT_TRUE(kit::InRegion(bm, 1, 0));
    EXPECT_FALSE(kit::InRegion(bm, 1, 4));
    // Into another record: the source stays as it is.
    Bitmap copy;
    ASSERT_EQ(ChangeOrientation(copy, bm, BITMAP_RECORD_SIZE, spec.orientation, 0), RC_SUCCESS);
    EXPECT_EQ(copy->Orientation, spec.orientation);
    EXPECT_EQ(Bytes(copy.get()), stored);
    EXPECT_EQ(bm->Orientation, other);
    ASSERT_EQ(ChangeOrientation(nullptr, bm, BITMAP_RECORD_SIZE, spec.orientation, 0), RC_SUCCESS);
    EXPECT_EQ(Bytes(bm.get()), stored);
  }
  // Into another record with a region: every allocation may fail.
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
        if (status != RC_SUCCESS) {
          EXPECT_EQ(p.dst->Pixels, nullptr);
        }
        return status;
      });
  Bitmap bm(Spec{8, ORDER_GRAY}, 2, 2);
  kit::ExpectStatuses({
      {"null", [] { return ChangeOrientation(nullptr, nullptr, 208, 1, 0); }, RC_NO_BITMAP},
      {"size", [&] { return ChangeOrientation(nullptr, bm, 100, 1, 0); }, RC_INVALID_STRUCT_SIZE},
      {"orientation", [&] { return ChangeOrientation(nullptr, bm, 208, 2, 0); }, RC_INVALID_PARAMETER},
      {"flags", [&] { return ChangeOrientation(nullptr, bm, 208, 4, 1); }, RC_INVALID_PARAMETER},
  });
}

// ---- FillBitmap ----------------------------------------------------------------------------

TEST(FillBitmap, EveryKindWithAndWithoutRegion) {
  const uint32_t colour = 30u | (120u << 8) | (240u << 16);  // red 30, green 120, blue 240
  const uint32_t level = (2 * 30 + 5 * 120 + 240 + 4) >> 3;
  for (const Spec &spec : kit::AllSpecs(true)) {
    for (bool region : {false, true}) {
      SCOPED_TRACE(spec.Name() + (region ? " region" : ""));
      Bitmap bm(spec, 11, 6);
      bm.Randomize(21);
      const std::vector<Pixel> before = bm.Pixels();
      if (region) kit::SetRectRegion(bm, 3, 2, 9, 5);
      ASSERT_EQ(FillBitmap(bm, colour), RC_SUCCESS);
      for (int y = 0; y < 6; ++y)
        for (int x = 0; x < 11; ++x) {
          const Pixel old = before[static_cast<size_t>(y) * 11 + x];
          const bool inside = !region || (x >= 3 && x < 9 && y >= 2 && y < 5);
          if (!inside) {
            ASSERT_EQ(bm.At(x, y), old) << x << "," << y;
            continue;
          }
          Pixel want;
          if (spec.IsGray()) {
            want = kit::Level(spec.bits == 8 ? level : spec.bits == 12 ? level * 16 : level * 257);
          } else if (spec.IsPalette()) {
            const std::vector<PaletteEntry> ramp = DocumentedRamp(spec.bits);
            const PaletteEntry e = Nearest(ramp, 30, 120, 240);
            ASSERT_EQ(bm.ColorAt(x, y), Rgb(e.Red, e.Green, e.Blue));
            continue;
          } else if (spec.bits == 16) {
            want = Rgb(30 >> 3, 120 >> 3, 240 >> 3);
          } else if (spec.bits <= 32) {
            want = Rgb(30, 120, 240, old.v[3]);
          } else {
            want = Rgb(30 * 257, 120 * 257, 240 * 257, old.v[3]);
          }
          ASSERT_EQ(bm.At(x, y), want) << x << "," << y;
        }
    }
  }
  // COLOR_GRAY_LEVEL: bits 8-15 are a gray level.
  Bitmap rgb(Spec{24, ORDER_RGB}, 2, 2);
  ASSERT_EQ(FillBitmap(rgb, COLOR_GRAY_LEVEL | (77u << 8) | 5u), RC_SUCCESS);
  EXPECT_EQ(rgb.At(1, 1), Rgb(77, 77, 77));
  EXPECT_EQ(FillBitmap(nullptr, 0), RC_NO_BITMAP);
}

// ---- CountBitmapColors ---------------------------------------------------------------------

TEST(CountBitmapColors, EveryKind) {
  kit::LeakGuard guard;
  for (const Spec &spec : kit::AllSpecs()) {
    SCOPED_TRACE(spec.Name());
    Bitmap bm(spec, 10, 4);
    // k distinct values, each at least twice; the fourth sample varies.
    const uint32_t k = spec.IsPalette() ? std::min(1u << spec.bits, 8u) : 7;
    for (int y = 0; y < 4; ++y)
      for (int x = 0; x < 10; ++x) {
        const uint32_t i = static_cast<uint32_t>(y * 10 + x) % k;
        Pixel p;
        if (spec.IsPalette())
          p = kit::Level(i);
        else if (spec.IsGray())
          p = kit::Level(i * (spec.SampleMax() / k));
        else
          p = Rgb(i, i % 2, 3, static_cast<uint32_t>(x));
        bm.Set(x, y, p);
      }
    uint32_t count = 0;
    ASSERT_EQ(CountBitmapColors(bm, &count, 0), RC_SUCCESS);
    EXPECT_EQ(count, k);
    bm.Set(0, 0,
           spec.IsPalette() || spec.IsGray() ? kit::Level(spec.SampleMax()) : Rgb(spec.SampleMax(), 0, 0));
    ASSERT_EQ(CountBitmapColors(bm, &count, 0), RC_SUCCESS);
    EXPECT_EQ(count, k + (spec.IsPalette() && spec.bits <= 2 ? 0 : 1));
  }
  // Palette entries of the same colour count once; unused entries not at all.
  PaletteEntry pal[4] = {{1, 2, 3, 0}, {1, 2, 3, 9}, {9, 9, 9, 0}, {4, 4, 4, 0}};
  Bitmap two(Spec{2, ORDER_BGR}, 3, 1, {kit::Level(0), kit::Level(1), kit::Level(3)}, pal);
  uint32_t count = 0;
  ASSERT_EQ(CountBitmapColors(two, &count, 0), RC_SUCCESS);
  EXPECT_EQ(count, 2u);
  kit::ExpectStatuses({
      {"flags", [&] { return CountBitmapColors(two, &count, 1); }, RC_INVALID_PARAMETER},
      {"null count", [&] { return CountBitmapColors(two, nullptr, 0); }, RC_NULL_OPTIONS},
      {"null bitmap", [&] { return CountBitmapColors(nullptr, &count, 0); }, RC_NO_BITMAP},
  });
  for (const Spec &spec : {Spec{24, ORDER_BGR}, Spec{64, ORDER_RGB}}) {
    kit::CheckAllocationFailures([&] { return Bitmap(spec, 5, 5); },
                                 [&](Bitmap &b) {
                                   uint32_t n = 0;
                                   return CountBitmapColors(b, &n, 0);
                                 });
  }
}
