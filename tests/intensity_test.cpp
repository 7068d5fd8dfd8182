// The forwarded intensity operations of imgutil and their imgcolor exports.
#include <cmath>
#include <cstring>
#include <numeric>

#include "adaptive_isa.h"
#include "kit.h"

using kit::Bitmap;
using kit::Format;
using kit::Level;
using kit::Pixel;
using kit::Rgb;

namespace {

constexpr int32_t kBad = RC_INVALID_PARAMETER;
using Op = int32_t (*)(BitmapRecord *);

Bitmap Gradient(const Format &format, int32_t w = 8, int32_t h = 4, uint32_t seed = 7) {
  Bitmap b(format, w, h);
  b.Randomize(seed);
  return b;
}

// Checks that op maps every colour sample v to f(v, full scale): palette
// bitmaps through their palette, 5-5-5 samples through their 8-bit widening
// (full scale 255), the others inside an ellipse region only; 8-bit gray by
// its levels, keeping its ramp palette.
template <class F>
void ExpectSampleMap(const Format &format, Op op, F f) {
  SCOPED_TRACE(format.Name());
  kit::LeakGuard guard;
  Bitmap b = Gradient(format);
  std::vector<Pixel> want = b.Pixels();
  if (!format.IsPalette()) kit::SetEllipseRegion(b, 1, 0, 7, 4);
  const std::vector<PaletteEntry> pal(b->Palette, b->Palette + (b->Palette ? b->ColorsUsed : 0));
  ASSERT_EQ(op(b.get()), RC_SUCCESS);
  for (size_t i = 0; i < pal.size(); ++i)
    for (auto m : {&PaletteEntry::Red, &PaletteEntry::Green, &PaletteEntry::Blue})
      EXPECT_EQ(b->Palette[i].*m, format.IsPalette() ? f(pal[i].*m, 255) : pal[i].*m) << "entry " << i;
  const bool narrow = format.bits == 16 && !format.IsGray();
  const int channels = format.IsPalette() ? 0 : format.IsGray() ? 1 : 3;
  for (int32_t i = 0; i < 32; ++i)
    for (int c = 0; c < channels && kit::InRegion(b, i % 8, i / 8); ++c) {
      uint32_t &v = want[i].v[c];
      v = narrow ? f((v << 3) | (v >> 2), 255) >> 3 : f(v, format.SampleMax());
    }
  EXPECT_EQ(b.Pixels(), want);
}

}  // namespace

TEST(Forwarding, FlagsConstantsAndStatuses) {
  kit::LeakGuard guard;
  Bitmap b = Gradient(Format{24, ORDER_BGR}), g12(Format{12, ORDER_GRAY}, 1, 1);
  const std::vector<Pixel> before = b.Pixels();
  uint32_t hist[256] = {}, t[3] = {0, 500, 1000};
  const ColorLevelRecord levels{sizeof(ColorLevelRecord) - 1, {}, {}, {}, {}};
  kit::ExpectStatuses({
      {"invert flags", [&] { return Q_InvertBitmap(b, 1); }, kBad},
      {"invert flags before null", [&] { return Q_InvertBitmap(nullptr, 1); }, kBad},
      {"intensity flags", [&] { return Q_ChangeBitmapIntensity(b, 10, 2); }, kBad},
      {"gray flags", [&] { return Q_GrayScaleBitmapExt(b, 1, 1, 1, 1); }, kBad},
      {"detect flags", [&] { return Q_IntensityDetectBitmap(b, 0, 9, 0, 0, 0x111, 1); }, kBad},
      {"null bitmap passes through", [&] { return Q_InvertBitmap(nullptr, 0); }, RC_NO_BITMAP},
      {"histogram null", [&] { return Q_GetBitmapHistogram(nullptr, hist, 256, 0); }, RC_NO_BITMAP},
      {"light null target", [&] { return Q_LightControlBitmap(b, nullptr, t, t, 1); }, RC_NULL_OPTIONS},
      {"levels size", [&] { return Q_ColorLevelBitmap(b, &levels, 1); }, RC_INVALID_STRUCT_SIZE},
      {"auto level flags reach imgutil", [&] { return Q_AutoColorLevelBitmap(b, 0, 0, 0, 1); }, kBad},
      {"adaptive even window", [&] { return Q_AdaptiveContrastBitmap(b, 4, 10, 0); }, kBad},
      {"contrast 1001", [&] { return Q_ContBrightIntBitmap(b, 1001, 0, 0, 0); }, kBad},
      {"intensity -1001", [&] { return Q_ChangeBitmapIntensity(b, -1001, 0); }, kBad},
      {"gamma 0", [&] { return Q_GammaCorrectBitmap(b, 0, 0); }, kBad},
      {"detect low above high", [&] { return Q_IntensityDetectBitmap(b, 9, 8, 0, 0, 0x111, 0); }, kBad},
      {"detect 12-bit 4096", [&] { return Q_IntensityDetectBitmap(g12, 0, 4096, 0, 0, 0x111, 0); }, kBad},
      {"detect unknown selector", [&] { return Q_IntensityDetectBitmap(b, 0, 9, 0, 0, 0x1000, 0); }, kBad},
      {"detect empty selector", [&] { return Q_IntensityDetectBitmap(b, 0, 9, 0, 0, 0, 0); }, kBad},
      {"gray weights sum", [&] { return Q_GrayScaleBitmapExt(b, 5000, 5000, 1, 0); }, kBad},
      {"gray weight -1", [&] { return Q_GrayScaleBitmapExt(b, -1, 0, 0, 0); }, kBad},
  });
  // The two exports that pass 0 in place of the caller's flags word.
  EXPECT_EQ(Q_GammaCorrectBitmap(b, 100, 1), RC_SUCCESS);
  EXPECT_EQ(Q_ContBrightIntBitmap(b, 0, 0, 0, 77), RC_SUCCESS);
  EXPECT_EQ(b.Pixels(), before);
  EXPECT_EQ(GammaCorrect(b, 100, 1), kBad);  // imgutil itself checks it
  EXPECT_EQ(Q_GetBitmapHistogram(b, hist, 256, 0), RC_SUCCESS);
  EXPECT_EQ(std::accumulate(hist, hist + 256, 0u), 8u * 4 * 3);
}

TEST(TableOperations, EveryKind) {
  const std::pair<Op, uint32_t (*)(uint32_t, uint32_t)> ops[] = {
      {[](BitmapRecord *b) { return Q_InvertBitmap(b, 0); }, [](uint32_t v, uint32_t f) { return f - v; }},
      {[](BitmapRecord *b) { return Q_ChangeBitmapIntensity(b, 100, 0); },  // + F / 10, half away from zero
       [](uint32_t v, uint32_t f) { return std::min(v + (100 * f + 500) / 1000, f); }},
      {[](BitmapRecord *b) { return Q_ChangeBitmapIntensity(b, -1000, 0); },
       [](uint32_t, uint32_t) { return 0u; }},
      {[](BitmapRecord *b) { return Q_GammaCorrectBitmap(b, 200, 0); },
       [](uint32_t v, uint32_t f) { return uint32_t(std::nearbyint(f * std::sqrt(double(v) / f))); }},
      // Gamma 1: where F^100 overflows a double, the curve's true value (not NaN made 0).
      {[](BitmapRecord *b) { return Q_GammaCorrectBitmap(b, 1, 0); },
       [](uint32_t v, uint32_t f) { return uint32_t(std::nearbyint(f * std::pow(double(v) / f, 100))); }},
  };
  for (const Format &format : kit::AllFormats(true))
    for (const auto &[op, map] : ops) ExpectSampleMap(format, op, map);
}

// Point, histogram and intensity operations read 8-bit gray by its levels whatever its palette
// holds: the result is that of the same levels as 24-bit gray pixels, and the palette stays.
TEST(TableOperations, EightBitGrayByItsLevels) {
  const std::pair<const char *, Op> ops[] = {
      {"invert", [](BitmapRecord *b) { return Q_InvertBitmap(b, 0); }},
      {"contrast", [](BitmapRecord *b) { return Q_ChangeBitmapContrast(b, 300, 0); }},
      {"histogram contrast", [](BitmapRecord *b) { return Q_HistoContrastBitmap(b, 500, 0); }},
      {"auto level", [](BitmapRecord *b) { return Q_AutoColorLevelBitmap(b, 0, 100, 100, 0); }},
      {"detect", [](BitmapRecord *b) { return Q_IntensityDetectBitmap(b, 60, 180, 0xFFFFFF, 0, 0x111, 0); }},
      {"auto binary", [](BitmapRecord *b) { return Q_AutoBinaryBitmap(b, 0); }},
  };
  std::vector<Pixel> levels, grays;
  for (uint32_t i = 0, v = 20; i < 60; ++i, v = (i * 97 + 11) % 200 + 20)
    levels.push_back(Level(v)), grays.push_back(Rgb(v, v, v));
  PaletteEntry colours[256];
  for (int i = 0; i < 256; ++i) colours[i] = PaletteEntry{uint8_t(i), uint8_t(255 - i), 7, 0};
  kit::LeakGuard guard;
  for (const auto &[name, op] : ops)
    for (const PaletteEntry *palette : std::initializer_list<const PaletteEntry *>{nullptr, colours}) {
      SCOPED_TRACE(testing::Message() << name << (palette ? ", coloured palette" : ", gray ramp"));
      Bitmap gray(Format{8, ORDER_GRAY}, 10, 6, levels, palette), colour(Format{24, ORDER_BGR}, 10, 6, grays);
      ASSERT_EQ(op(gray) * 10 + op(colour), 11);
      std::vector<Pixel> asColour;
      for (const Pixel &p : gray.Pixels()) asColour.push_back(Rgb(p.v[0], p.v[0], p.v[0]));
      EXPECT_EQ(asColour, colour.Pixels());
      EXPECT_EQ(gray->ColorOrder, ORDER_GRAY);
      EXPECT_TRUE(palette ? std::memcmp(gray->Palette, colours, sizeof colours) == 0
                          : kit::HasGrayRamp(gray));
    }
}

TEST(TableOperations, EdgesSignedDataAndAttachedTable) {
  kit::LeakGuard guard;
  struct Case {
    int32_t c, b, i;
    uint32_t v, want;
  } cases[] = {
      {1000, 0, 0, 100, 72},       // (100 - 128) * 2 + 128
      {1000, 0, 0, 200, 255},      // clamped
      {-1000, 0, 0, 17, 128},      // contrast gone: everything at mid
      {0, 1000, 0, 0, 255},        // brightness adds full scale
      {0, -500, 0, 200, 73},       // 200 - 127
      {0, 0, -1000, 200, 0},       // intensity zero
      {0, 0, 1000, 100, 200},      // doubled
      {500, 100, -200, 150, 148},  // (22 * 1500 / 1000 + 128 + 25) * 800 / 1000 = 148.8
  };
  for (const Case &c : cases) {
    Bitmap b(Format{8, ORDER_GRAY}, 1, 1, {Level(c.v)});
    ASSERT_EQ(Q_ContBrightIntBitmap(b, c.c, c.b, c.i, 0), RC_SUCCESS);
    EXPECT_EQ(b.At(0, 0).v[0], c.want) << c.c << " " << c.b << " " << c.i << " on " << c.v;
  }
  // Signed 8-bit gray: inverting the offset value maps s to -1 - s.
  Bitmap s(Format{8, ORDER_GRAY}, 4, 1, {Level(0x80), Level(0xFF), Level(0), Level(0x7F)});
  s->Flags |= BITMAP_SIGNED;
  ASSERT_EQ(Q_InvertBitmap(s, 0), RC_SUCCESS);  // -128 -> 127, -1 -> 0, 0 -> -1, 127 -> -128
  EXPECT_EQ(s.Pixels(), (std::vector<Pixel>{Level(0x7F), Level(0), Level(0xFF), Level(0x80)}));
  // Attached table: the pixels stay, the table changes.
  Bitmap a(Format{8, ORDER_GRAY}, 2, 1, {Level(3), Level(4)});
  a->AttachedLut = static_cast<int32_t *>(AllocZeroed(256, 4, __LINE__, L"tests/intensity"));
  a->AttachedLutLength = 256;
  for (int i = 0; i < 256; ++i) a->AttachedLut[i] = i / 2;
  a->Flags |= BITMAP_USE_ATTACHED_LUT;
  ASSERT_EQ(Q_InvertBitmap(a, 0), RC_SUCCESS);
  EXPECT_EQ(a.At(0, 0).v[0], 3u);
  EXPECT_EQ(a->AttachedLut[10], 255 - 5);
}

TEST(GrayScaleExt, ConvertsWithoutRegionAndPaintsWithOne) {
  kit::LeakGuard guard;
  Bitmap c(Format{24, ORDER_RGB, ORIENT_BOTTOM_FIRST}, 2, 1, {Rgb(200, 100, 50), Rgb(255, 255, 255)});
  ASSERT_EQ(Q_GrayScaleBitmapExt(c, 2990, 5870, 1140, 0), RC_SUCCESS);
  EXPECT_EQ(std::make_pair(c->BitsPerPixel, c->ColorOrder), std::make_pair(8, ORDER_GRAY));
  EXPECT_TRUE(kit::HasGrayRamp(c)) << "8-bit gray carries the ramp";
  EXPECT_EQ(c.Pixels(), (std::vector<Pixel>{Level(124), Level(255)}));  // 1242000 / 10000
  Bitmap w(Format{64, ORDER_BGR}, 1, 1, {Rgb(65535, 0, 1000, 7)});
  ASSERT_EQ(Q_GrayScaleBitmapExt(w, 5000, 0, 5000, 0), RC_SUCCESS);
  EXPECT_EQ(std::make_pair(w->BitsPerPixel, w.At(0, 0)), std::make_pair(16, Level(33267)));  // 66535 / 2
  EXPECT_TRUE(w->Palette == nullptr && w->ColorsUsed == 0);
  Bitmap r(Format{32, ORDER_BGR}, 3, 1, {Rgb(10, 20, 30, 9), Rgb(10, 20, 30, 9), Rgb(1, 2, 3, 4)});
  kit::SetRectRegion(r, 1, 0, 2, 1);
  ASSERT_EQ(Q_GrayScaleBitmapExt(r, 10000, 0, 0, 0), RC_SUCCESS);
  EXPECT_EQ(r->BitsPerPixel, 32);
  EXPECT_EQ(r.Pixels(), (std::vector<Pixel>{Rgb(10, 20, 30, 9), Rgb(10, 10, 10, 9), Rgb(1, 2, 3, 4)}));
}

TEST(IntensityDetect, SelectorsAndScales) {
  kit::LeakGuard guard;
  const uint32_t white = 0xFFFFFF, red = 0x0000FF;
  struct Case {
    Format format;
    Pixel in;
    uint32_t low, high, inColor, outColor, selector;
    Pixel want;
  } cases[] = {
      {{24, ORDER_BGR}, Rgb(100, 100, 100), 100, 255, white, red, 0x111, Rgb(255, 255, 255)},
      {{24, ORDER_BGR}, Rgb(10, 200, 10), 100, 255, white, red, 0x111, Rgb(255, 255, 255)},  // 1030 >> 3
      {{24, ORDER_BGR}, Rgb(250, 0, 0), 100, 255, white, red, 0x111, Rgb(255, 0, 0)},        // 62: outside
      {{24, ORDER_BGR}, Rgb(200, 5, 6), 128, 255, white, 0, DETECT_CHANNEL_RED, Rgb(255, 5, 6)},
      {{24, ORDER_BGR}, Rgb(50, 5, 6), 128, 255, white, 0, DETECT_CHANNEL_RED, Rgb(0, 5, 6)},
      {{48, ORDER_RGB}, Rgb(40000, 40000, 40000), 30000, 65535, 0x010203, 0, 0x111, Rgb(771, 514, 257)},
      {{12, ORDER_GRAY}, Level(4000), 2048, 4095, white, 0, 0x111, Level(4095)},
      {{12, ORDER_GRAY}, Level(100), 2048, 4095, white, 0, 0x111, Level(0)},
  };
  for (const Case &c : cases) {
    Bitmap b(c.format, 1, 1, {c.in});
    ASSERT_EQ(Q_IntensityDetectBitmap(b, c.low, c.high, c.inColor, c.outColor, c.selector, 0), RC_SUCCESS);
    EXPECT_EQ(b.At(0, 0), c.want) << c.format.Name() << " " << c.in;
  }
}

TEST(Levels, LightControlAutoLevelAndColorLevel) {
  kit::LeakGuard guard;
  // Two levels: mean 100, mean below 50, mean at or above 150.
  Bitmap g(Format{8, ORDER_GRAY}, 2, 1, {Level(50), Level(150)});
  const uint32_t lower[3] = {100, 100, 100}, middle[3] = {500, 500, 500}, upper[3] = {900, 900, 900};
  ASSERT_EQ(Q_LightControlBitmap(g, lower, middle, upper, LIGHT_CONTROL_PER_CHANNEL), RC_SUCCESS);
  EXPECT_EQ(g.Pixels(), (std::vector<Pixel>{Level(25), Level(229)}));  // 100 and 900 * 255 / 1000
  const uint32_t falling[3] = {600, 500, 900};
  EXPECT_EQ(Q_LightControlBitmap(g, falling, middle, upper, 1), kBad);
  EXPECT_EQ(Q_LightControlBitmap(g, lower, middle, upper, 3), kBad);

  Bitmap a(Format{24, ORDER_BGR}, 151, 1);
  for (uint32_t x = 0; x <= 150; ++x) a.Set(x, 0, Rgb(50 + x, 50 + x, 50 + x));
  ASSERT_EQ(Q_AutoColorLevelBitmap(a, AUTO_LEVEL_COMMON, 0, 0, 0), RC_SUCCESS);
  // Levels 50..200 stretch to 0..255; 75 * 255 / 150 = 127.5 is rounded up.
  EXPECT_EQ((std::vector{a.At(0, 0), a.At(75, 0), a.At(150, 0)}),
            (std::vector{Rgb(0, 0, 0), Rgb(128, 128, 128), Rgb(255, 255, 255)}));
  EXPECT_EQ(Q_AutoColorLevelBitmap(a, 3, 0, 0, 0), kBad);
  EXPECT_EQ(Q_AutoColorLevelBitmap(a, 0, 5000, 5000, 0), kBad);

  // Master inverts, then red stretches 0..100 to the full scale.
  ColorLevelRecord levels{sizeof(ColorLevelRecord), {0, 255, 255, 0, 100}, {0, 100, 0, 255, 100}, {}, {}};
  Bitmap c(Format{24, ORDER_BGR}, 1, 1, {Rgb(230, 100, 5)});
  ASSERT_EQ(Q_ColorLevelBitmap(c, &levels, COLOR_LEVEL_MASTER | COLOR_LEVEL_RED), RC_SUCCESS);
  EXPECT_EQ(c.At(0, 0), Rgb(64, 155, 250));  // red: 25 -> 25 * 255 / 100 = 63.75
  levels.Green = {10, 10, 0, 0, 100};
  EXPECT_EQ(Q_ColorLevelBitmap(c, &levels, COLOR_LEVEL_GREEN), kBad);
  EXPECT_EQ(Q_ColorLevelBitmap(c, &levels, 0x2), kBad);
}

TEST(AdaptiveContrast, MatchesBruteForceWindowMeans) {
  for (const Format &format : {Format{24, ORDER_BGR}, Format{24, ORDER_BGR, ORIENT_BOTTOM_FIRST},
                               Format{8, ORDER_GRAY}, Format{48, ORDER_RGB}}) {
    for (uint32_t dim : {3u, 5u, 9u, 13u, 15u}) {  // 13: taller than the bitmap, 15: wider too
      SCOPED_TRACE(format.Name() + " dim " + std::to_string(dim));
      kit::LeakGuard guard;
      Bitmap b = Gradient(format, 7, 6, dim);
      const std::vector<Pixel> before = b.Pixels();
      kit::SetRectRegion(b, 1, 1, 6, 5);
      ASSERT_EQ(Q_AdaptiveContrastBitmap(b, dim, 50, ADAPTIVE_CONTRAST_ALL), RC_SUCCESS);
      const int h = static_cast<int>(dim) / 2;
      for (int i = 0; i < 42; ++i) {
        const int x = i % 7, y = i / 7;
        Pixel want = before[i];
        for (int c = 0; kit::InRegion(b, x, y) && c < std::min(format.Channels(), 3); ++c) {
          int64_t sum = 0;  // the window, border pixels repeated
          for (int dy = -h; dy <= h; ++dy)
            for (int dx = -h; dx <= h; ++dx)
              sum += before[std::clamp(y + dy, 0, 5) * 7 + std::clamp(x + dx, 0, 6)].v[c];
          const int64_t m = sum / (dim * dim), v = want.v[c];
          want.v[c] =
              static_cast<uint32_t>(std::clamp<int64_t>(m + (v - m) * 150 / 100, 0, format.SampleMax()));
        }
        ASSERT_EQ(b.At(x, y), want) << x << "," << y;
      }
    }
  }
}

// The 32-bit loops of every instruction set against the 64-bit scalar
// reference on random bitmaps of every kind: windows from 3 to well beyond
// the bitmap, amounts that clamp and that do not, with and without a region,
// and a window whose 16-bit sums no longer fit 32 bits (the reference then
// runs on every path).
TEST(AdaptiveContrast, EveryInstructionSetMatchesScalar) {
  uint32_t seed = 7;
  for (const Format &format : kit::AllFormats(true))
    for (uint32_t dim : {3u, 5u, 15u, 101u, 183u})
      for (int shape = 0; shape < 2; ++shape, ++seed) {
        const uint32_t amount = seed % 3 == 0 ? 0 : seed % 3 == 1 ? 50 : 1000;
        auto make = [&] {
          Bitmap b(format, 83, 9);
          b.Randomize(seed);
          if (shape) kit::SetEllipseRegion(b, 4, 1, 70, 8);
          return b;
        };
        Bitmap want = make();
        ASSERT_EQ(img::AdaptiveContrastWithPath(want, dim, amount, 0, img::Isa::Scalar), RC_SUCCESS);
        for (img::Isa isa : img::kAllIsas) {
          if (isa == img::Isa::Scalar || !img::IsaAvailable(isa)) continue;
          SCOPED_TRACE(format.Name() + " dim " + std::to_string(dim) + " shape " + std::to_string(shape) +
                       " " + img::IsaName(isa));
          Bitmap got = make();
          ASSERT_EQ(img::AdaptiveContrastWithPath(got, dim, amount, 0, isa), RC_SUCCESS);
          ASSERT_EQ(got.StoredBytes(), want.StoredBytes());
        }
      }
}

TEST(Lifecycle, LeaksFaultsAndCancellation) {
  const uint32_t t3[3] = {100, 500, 900};
  const ColorLevelRecord levels{
      sizeof(ColorLevelRecord), {10, 240, 0, 255, 120}, {}, {}, {0, 255, 20, 200, 100}};
  std::vector<std::pair<std::string, std::function<int32_t(BitmapRecord *)>>> ops = {
      {"invert", [](BitmapRecord *b) { return Q_InvertBitmap(b, 0); }},
      {"intensity", [](BitmapRecord *b) { return Q_ChangeBitmapIntensity(b, 200, 0); }},
      {"gamma", [](BitmapRecord *b) { return Q_GammaCorrectBitmap(b, 150, 0); }},
      {"cbi", [](BitmapRecord *b) { return Q_ContBrightIntBitmap(b, 100, 100, 100, 0); }},
      {"gray", [](BitmapRecord *b) { return Q_GrayScaleBitmapExt(b, 3000, 6000, 1000, 0); }},
      {"detect", [](BitmapRecord *b) { return Q_IntensityDetectBitmap(b, 50, 150, 0xFF, 0xFF00, 0x111, 0); }},
      {"light", [&](BitmapRecord *b) { return Q_LightControlBitmap(b, t3, t3, t3, 1); }},
      {"light luma", [&](BitmapRecord *b) { return Q_LightControlBitmap(b, t3, t3, t3, 2); }},
      {"auto level", [](BitmapRecord *b) { return Q_AutoColorLevelBitmap(b, 0, 100, 100, 0); }},
      {"auto level intensity", [](BitmapRecord *b) { return Q_AutoColorLevelBitmap(b, 2, 100, 100, 0); }},
      {"levels", [&](BitmapRecord *b) { return Q_ColorLevelBitmap(b, &levels, 0x1001); }},
      {"adaptive", [](BitmapRecord *b) { return Q_AdaptiveContrastBitmap(b, 5, 100, 0); }},
      {"adaptive luma", [](BitmapRecord *b) { return Q_AdaptiveContrastBitmap(b, 3, 100, 1); }},
  };
  for (auto &[name, op] : ops) {
    SCOPED_TRACE(name);
    auto setup = [] {
      Bitmap b = Gradient(Format{24, ORDER_BGR}, 16, 12, 5);
      kit::SetEllipseRegion(b, 2, 1, 14, 11);
      return b;
    };
    auto call = [&](Bitmap &b) { return op(b); };
    kit::CheckAllocationFailures(setup, call);
    EXPECT_GT(kit::CheckCancellation(setup, call), 0);
  }
}
