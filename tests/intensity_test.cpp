// The forwarded intensity operations of imgutil and their imgcolor exports.
#include <cmath>

#include "curves.h"
#include "kit.h"

using kit::Bitmap;
using kit::Format;
using kit::Pixel;
using kit::Rgb;

namespace {

Bitmap Gradient(const Format &format, int32_t w = 8, int32_t h = 4, uint32_t seed = 7) {
  Bitmap b(format, w, h);
  b.Randomize(seed);
  return b;
}

uint32_t Full(const Format &s) {
  return s.bits >= 48 ? 65535 : s.IsGray() && s.bits != 8 ? (s.bits == 12 ? 4095 : 65535) : 255;
}

// Applies f to every colour sample of the expected pixels (palette bitmaps:
// to the palette instead).
template <class F>
void ExpectSampleMap(const Format &format, F op, std::function<uint32_t(uint32_t, uint32_t)> f) {
  SCOPED_TRACE(format.Name());
  kit::LeakGuard guard;
  Bitmap b = Gradient(format);
  const std::vector<Pixel> before = b.Pixels();
  std::vector<PaletteEntry> pal(b->Palette ? b->Palette : nullptr,
                                b->Palette ? b->Palette + b->ColorsUsed : nullptr);
  ASSERT_EQ(op(b.get()), RC_SUCCESS);
  if (format.IsPalette()) {
    EXPECT_EQ(b.Pixels(), before);
    for (size_t i = 0; i < pal.size(); ++i) {
      EXPECT_EQ(b->Palette[i].Red, f(pal[i].Red, 255));
      EXPECT_EQ(b->Palette[i].Blue, f(pal[i].Blue, 255));
    }
    return;
  }
  const uint32_t full = format.bits == 16 && !format.IsGray() ? 255 : Full(format);
  for (size_t i = 0; i < before.size(); ++i) {
    Pixel want = before[i];
    const int channels = format.IsGray() ? 1 : 3;
    for (int c = 0; c < channels; ++c) {
      if (format.bits == 16 && !format.IsGray()) {  // 5-5-5: through 8-bit samples
        const uint32_t wide = (want.v[c] << 3) | (want.v[c] >> 2);
        want.v[c] = f(wide, full) >> 3;
      } else {
        want.v[c] = f(want.v[c], full);
      }
    }
    ASSERT_EQ(b.Pixels()[i], want) << "pixel " << i;
  }
}

}  // namespace

TEST(Forwarding, FlagsAndConstants) {
  kit::LeakGuard guard;
  Bitmap b = Gradient(Format{24, ORDER_BGR});
  const std::vector<Pixel> before = b.Pixels();
  uint32_t hist[256] = {};
  const uint32_t targets[3] = {0, 500, 1000};
  ColorLevelRecord levels{};
  levels.StructSize = sizeof levels - 1;
  kit::ExpectStatuses({
      {"invert flags", [&] { return Q_InvertBitmap(b, 1); }, RC_INVALID_PARAMETER},
      {"invert flags before null", [&] { return Q_InvertBitmap(nullptr, 1); }, RC_INVALID_PARAMETER},
      {"intensity flags", [&] { return Q_ChangeBitmapIntensity(b, 10, 2); }, RC_INVALID_PARAMETER},
      {"gray flags", [&] { return Q_GrayScaleBitmapExt(b, 1, 1, 1, 1); }, RC_INVALID_PARAMETER},
      {"detect flags", [&] { return Q_IntensityDetectBitmap(b, 0, 9, 0, 0, 0x111, 1); },
       RC_INVALID_PARAMETER},
      {"null bitmap passes through", [&] { return Q_InvertBitmap(nullptr, 0); }, RC_NO_BITMAP},
      {"histogram null", [&] { return Q_GetBitmapHistogram(nullptr, hist, 256, 0); }, RC_NO_BITMAP},
      {"light control null target", [&] { return Q_LightControlBitmap(b, nullptr, targets, targets, 1); },
       RC_NULL_OPTIONS},
      {"levels size", [&] { return Q_ColorLevelBitmap(b, &levels, 1); }, RC_INVALID_STRUCT_SIZE},
      {"auto level flags reach imgutil", [&] { return Q_AutoColorLevelBitmap(b, 0, 0, 0, 1); },
       RC_INVALID_PARAMETER},
      {"adaptive even window", [&] { return Q_AdaptiveContrastBitmap(b, 4, 10, 0); }, RC_INVALID_PARAMETER},
  });
  EXPECT_EQ(b.Pixels(), before);
  // The two exports that pass 0 in place of the caller's flags word.
  EXPECT_EQ(Q_GammaCorrectBitmap(b, 100, 1), RC_SUCCESS);
  EXPECT_EQ(Q_ContBrightIntBitmap(b, 0, 0, 0, 77), RC_SUCCESS);
  EXPECT_EQ(b.Pixels(), before);
  EXPECT_EQ(GammaCorrect(b, 100, 1), RC_INVALID_PARAMETER);  // imgutil itself checks it
  EXPECT_EQ(Q_GetBitmapHistogram(b, hist, 256, 0), RC_SUCCESS);
  uint64_t total = 0;
  for (uint32_t c : hist) total += c;
  EXPECT_EQ(total, 8u * 4 * 3);
}

TEST(TableOperations, EveryKind) {
  for (const Format &format : kit::AllFormats(true)) {
    ExpectSampleMap(
        format, [](BitmapRecord *b) { return Q_InvertBitmap(b, 0); },
        [](uint32_t v, uint32_t full) { return full - v; });
    ExpectSampleMap(
        format, [](BitmapRecord *b) { return Q_ChangeBitmapIntensity(b, 100, 0); },
        [](uint32_t v, uint32_t full) {
          const int64_t d = (100 * static_cast<int64_t>(full) + 500) / 1000;  // half away
          return static_cast<uint32_t>(std::min<int64_t>(v + d, full));
        });
    ExpectSampleMap(
        format, [](BitmapRecord *b) { return Q_ChangeBitmapIntensity(b, -1000, 0); },
        [](uint32_t, uint32_t) { return 0u; });
    ExpectSampleMap(
        format, [](BitmapRecord *b) { return Q_GammaCorrectBitmap(b, 200, 0); },
        [](uint32_t v, uint32_t full) {
          return static_cast<uint32_t>(std::nearbyint(full * std::sqrt(double(v) / full)));
        });
  }
}

TEST(TableOperations, FormulasAtTheirEdges) {
  int32_t table[256];
  img::BuildGammaTable(200u, 256u, table);
  EXPECT_EQ(table[64], 128);  // 255 * sqrt(64 / 255) = 127.7
  EXPECT_EQ(table[255], 255);
  EXPECT_EQ(table[0], 0);
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
    kit::LeakGuard guard;
    Bitmap b(Format{8, ORDER_GRAY}, 1, 1, {kit::Level(c.v)});
    ASSERT_EQ(Q_ContBrightIntBitmap(b, c.c, c.b, c.i, 0), RC_SUCCESS);
    EXPECT_EQ(b.At(0, 0).v[0], c.want) << c.c << " " << c.b << " " << c.i << " on " << c.v;
  }
  Bitmap b(Format{24, ORDER_BGR}, 2, 2);
  kit::ExpectStatuses({
      {"contrast 1001", [&] { return Q_ContBrightIntBitmap(b, 1001, 0, 0, 0); }, RC_INVALID_PARAMETER},
      {"intensity -1001", [&] { return Q_ChangeBitmapIntensity(b, -1001, 0); }, RC_INVALID_PARAMETER},
      {"gamma 0", [&] { return Q_GammaCorrectBitmap(b, 0, 0); }, RC_INVALID_PARAMETER},
  });
}

TEST(TableOperations, SignedAttachedAndRegion) {
  kit::LeakGuard guard;
  // Signed 8-bit gray: inverting the offset value maps s to -1 - s.
  Bitmap s(Format{8, ORDER_GRAY}, 4, 1,
           {kit::Level(0x80), kit::Level(0xFF), kit::Level(0), kit::Level(0x7F)});
  s->Flags |= BITMAP_SIGNED;
  ASSERT_EQ(Q_InvertBitmap(s, 0), RC_SUCCESS);
  EXPECT_EQ(s.At(0, 0).v[0], 0x7Fu);  // -128 -> 127
  EXPECT_EQ(s.At(1, 0).v[0], 0x00u);  // -1 -> 0
  EXPECT_EQ(s.At(2, 0).v[0], 0xFFu);  // 0 -> -1
  EXPECT_EQ(s.At(3, 0).v[0], 0x80u);  // 127 -> -128
  // Attached table: the pixels stay, the table changes.
  Bitmap a(Format{8, ORDER_GRAY}, 2, 1, {kit::Level(3), kit::Level(4)});
  a->AttachedLut = static_cast<int32_t *>(AllocZeroed(256, 4, __LINE__, L"tests/intensity"));
  a->AttachedLutLength = 256;
  for (int i = 0; i < 256; ++i) a->AttachedLut[i] = i / 2;
  a->Flags |= BITMAP_USE_ATTACHED_LUT;
  ASSERT_EQ(Q_InvertBitmap(a, 0), RC_SUCCESS);
  EXPECT_EQ(a.At(0, 0).v[0], 3u);
  EXPECT_EQ(a->AttachedLut[10], 255 - 5);
  // Region: an ellipse; pixels outside keep their value.
  Bitmap r = Gradient(Format{48, ORDER_BGR}, 9, 9);
  const std::vector<Pixel> before = r.Pixels();
  kit::SetEllipseRegion(r, 1, 1, 8, 8);
  ASSERT_EQ(Q_InvertBitmap(r, 0), RC_SUCCESS);
  for (int32_t y = 0; y < 9; ++y)
    for (int32_t x = 0; x < 9; ++x) {
      const Pixel was = before[y * 9 + x];
      const Pixel want =
          kit::InRegion(r, x, y) ? Rgb(65535 - was.v[0], 65535 - was.v[1], 65535 - was.v[2]) : was;
      EXPECT_EQ(r.At(x, y), want) << x << "," << y;
    }
}

TEST(GrayScaleExt, ConvertsWithoutRegionAndPaintsWithOne) {
  kit::LeakGuard guard;
  Bitmap c(Format{24, ORDER_RGB, ORIENT_BOTTOM_FIRST}, 2, 1, {Rgb(200, 100, 50), Rgb(255, 255, 255)});
  ASSERT_EQ(Q_GrayScaleBitmapExt(c, 2990, 5870, 1140, 0), RC_SUCCESS);
  EXPECT_EQ(c->BitsPerPixel, 8);
  EXPECT_EQ(c->ColorOrder, ORDER_GRAY);
  EXPECT_EQ(c.At(0, 0).v[0], (2990u * 200 + 5870 * 100 + 1140 * 50) / 10000);
  EXPECT_EQ(c.At(1, 0).v[0], 255u);
  Bitmap w(Format{64, ORDER_BGR}, 1, 1, {Rgb(65535, 0, 1000, 7)});
  ASSERT_EQ(Q_GrayScaleBitmapExt(w, 5000, 0, 5000, 0), RC_SUCCESS);
  EXPECT_EQ(w->BitsPerPixel, 16);
  EXPECT_EQ(w.At(0, 0).v[0], (65535u + 1000) / 2);
  Bitmap r(Format{32, ORDER_BGR}, 3, 1, {Rgb(10, 20, 30, 9), Rgb(10, 20, 30, 9), Rgb(1, 2, 3, 4)});
  kit::SetRectRegion(r, 1, 0, 2, 1);
  ASSERT_EQ(Q_GrayScaleBitmapExt(r, 10000, 0, 0, 0), RC_SUCCESS);
  EXPECT_EQ(r->BitsPerPixel, 32);
  EXPECT_EQ(r.At(0, 0), Rgb(10, 20, 30, 9));
  EXPECT_EQ(r.At(1, 0), Rgb(10, 10, 10, 9));
  EXPECT_EQ(Q_GrayScaleBitmapExt(r, 5000, 5000, 1, 0), RC_INVALID_PARAMETER);
  EXPECT_EQ(Q_GrayScaleBitmapExt(r, -1, 0, 0, 0), RC_INVALID_PARAMETER);
}

TEST(IntensityDetect, SelectorsAndScales) {
  kit::LeakGuard guard;
  const uint32_t white = 0xFFFFFF, red = 0x0000FF;
  Bitmap c(Format{24, ORDER_BGR}, 3, 1, {Rgb(100, 100, 100), Rgb(10, 200, 10), Rgb(250, 0, 0)});
  ASSERT_EQ(Q_IntensityDetectBitmap(c, 100, 255, white, red, 0x111, 0), RC_SUCCESS);
  EXPECT_EQ(c.At(0, 0), Rgb(255, 255, 255));  // intensity 100
  EXPECT_EQ(c.At(1, 0), Rgb(255, 255, 255));  // (20 + 1000 + 10) >> 3 = 128
  EXPECT_EQ(c.At(2, 0), Rgb(255, 0, 0));      // 62: outside -> red
  Bitmap s(Format{24, ORDER_BGR}, 2, 1, {Rgb(200, 5, 6), Rgb(50, 5, 6)});
  ASSERT_EQ(Q_IntensityDetectBitmap(s, 128, 255, white, 0, DETECT_CHANNEL_RED, 0), RC_SUCCESS);
  EXPECT_EQ(s.At(0, 0), Rgb(255, 5, 6));
  EXPECT_EQ(s.At(1, 0), Rgb(0, 5, 6));
  Bitmap w(Format{48, ORDER_RGB}, 1, 1, {Rgb(40000, 40000, 40000)});
  ASSERT_EQ(Q_IntensityDetectBitmap(w, 30000, 65535, 0x010203, 0, 0x111, 0), RC_SUCCESS);
  EXPECT_EQ(w.At(0, 0), Rgb(3 * 257, 2 * 257, 1 * 257));
  Bitmap g12(Format{12, ORDER_GRAY}, 2, 1, {kit::Level(4000), kit::Level(100)});
  ASSERT_EQ(Q_IntensityDetectBitmap(g12, 2048, 4095, white, 0, 0x111, 0), RC_SUCCESS);
  EXPECT_EQ(g12.At(0, 0).v[0], 4095u);
  EXPECT_EQ(g12.At(1, 0).v[0], 0u);
  kit::ExpectStatuses({
      {"low above high", [&] { return Q_IntensityDetectBitmap(c, 9, 8, 0, 0, 0x111, 0); },
       RC_INVALID_PARAMETER},
      {"high above 12-bit scale", [&] { return Q_IntensityDetectBitmap(g12, 0, 4096, 0, 0, 0x111, 0); },
       RC_INVALID_PARAMETER},
      {"unknown selector", [&] { return Q_IntensityDetectBitmap(c, 0, 9, 0, 0, 0x1000, 0); },
       RC_INVALID_PARAMETER},
      {"empty selector", [&] { return Q_IntensityDetectBitmap(c, 0, 9, 0, 0, 0, 0); }, RC_INVALID_PARAMETER},
  });
}

TEST(Levels, LightControlAutoLevelAndColorLevel) {
  kit::LeakGuard guard;
  // Two levels: mean 100, mean below 50, mean at or above 150.
  Bitmap g(Format{8, ORDER_GRAY}, 2, 1, {kit::Level(50), kit::Level(150)});
  const uint32_t lower[3] = {100, 100, 100}, middle[3] = {500, 500, 500}, upper[3] = {900, 900, 900};
  ASSERT_EQ(Q_LightControlBitmap(g, lower, middle, upper, LIGHT_CONTROL_PER_CHANNEL), RC_SUCCESS);
  EXPECT_EQ(g.At(0, 0).v[0], 25u);   // 100 * 255 / 1000
  EXPECT_EQ(g.At(1, 0).v[0], 229u);  // 900 * 255 / 1000
  const uint32_t falling[3] = {600, 500, 900};
  EXPECT_EQ(Q_LightControlBitmap(g, falling, middle, upper, 1), RC_INVALID_PARAMETER);
  EXPECT_EQ(Q_LightControlBitmap(g, lower, middle, upper, 3), RC_INVALID_PARAMETER);

  std::vector<Pixel> px;
  for (uint32_t v = 50; v <= 200; ++v) px.push_back(Rgb(v, v, v));
  Bitmap a(Format{24, ORDER_BGR}, static_cast<int32_t>(px.size()), 1, px);
  ASSERT_EQ(Q_AutoColorLevelBitmap(a, AUTO_LEVEL_COMMON, 0, 0, 0), RC_SUCCESS);
  EXPECT_EQ(a.At(0, 0), Rgb(0, 0, 0));
  EXPECT_EQ(a.At(150, 0), Rgb(255, 255, 255));
  EXPECT_EQ(a.At(75, 0), Rgb(128, 128, 128));  // 75 * 255 / 150 = 127.5, rounded up
  EXPECT_EQ(Q_AutoColorLevelBitmap(a, 3, 0, 0, 0), RC_INVALID_PARAMETER);
  EXPECT_EQ(Q_AutoColorLevelBitmap(a, 0, 5000, 5000, 0), RC_INVALID_PARAMETER);

  ColorLevelRecord levels{};
  levels.StructSize = sizeof levels;
  levels.Master = {0, 255, 255, 0, 100};  // inversion
  levels.Red = {0, 100, 0, 255, 100};
  Bitmap c(Format{24, ORDER_BGR}, 1, 1, {Rgb(230, 100, 5)});
  ASSERT_EQ(Q_ColorLevelBitmap(c, &levels, COLOR_LEVEL_MASTER | COLOR_LEVEL_RED), RC_SUCCESS);
  EXPECT_EQ(c.At(0, 0), Rgb(64, 155, 250));  // red: 25 -> 25 * 255 / 100 = 63.75
  levels.Green = {10, 10, 0, 0, 100};
  EXPECT_EQ(Q_ColorLevelBitmap(c, &levels, COLOR_LEVEL_GREEN), RC_INVALID_PARAMETER);
  EXPECT_EQ(Q_ColorLevelBitmap(c, &levels, 0x2), RC_INVALID_PARAMETER);
}

TEST(AdaptiveContrast, MatchesBruteForceWindowMeans) {
  for (const Format &format : {Format{24, ORDER_BGR}, Format{8, ORDER_GRAY}, Format{48, ORDER_RGB}}) {
    for (uint32_t dim : {3u, 5u, 9u}) {
      SCOPED_TRACE(format.Name() + " dim " + std::to_string(dim));
      kit::LeakGuard guard;
      Bitmap b = Gradient(format, 7, 6, dim);
      const std::vector<Pixel> before = b.Pixels();
      kit::SetRectRegion(b, 1, 1, 6, 5);
      ASSERT_EQ(Q_AdaptiveContrastBitmap(b, dim, 50, ADAPTIVE_CONTRAST_ALL), RC_SUCCESS);
      const int h = static_cast<int>(dim) / 2;
      const int64_t full = Full(format);
      for (int y = 0; y < 6; ++y)
        for (int x = 0; x < 7; ++x) {
          Pixel want = before[y * 7 + x];
          if (kit::InRegion(b, x, y))
            for (int c = 0; c < format.Channels() && c < 3; ++c) {
              int64_t sum = 0;
              for (int dy = -h; dy <= h; ++dy)
                for (int dx = -h; dx <= h; ++dx) {
                  const int yy = std::clamp(y + dy, 0, 5), xx = std::clamp(x + dx, 0, 6);
                  sum += before[yy * 7 + xx].v[c];
                }
              const int64_t m = sum / (dim * dim), v = want.v[c];
              want.v[c] = static_cast<uint32_t>(std::clamp<int64_t>(m + (v - m) * 150 / 100, 0, full));
            }
          ASSERT_EQ(b.At(x, y), want) << x << "," << y;
        }
    }
  }
}

TEST(Lifecycle, LeaksFaultsAndCancellation) {
  const uint32_t t3[3] = {100, 500, 900};
  ColorLevelRecord levels{};
  levels.StructSize = sizeof levels;
  levels.Master = {10, 240, 0, 255, 120};
  levels.Blue = {0, 255, 20, 200, 100};
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
      auto b = std::make_unique<Bitmap>(Format{24, ORDER_BGR}, 16, 12);
      b->Randomize(5);
      kit::SetEllipseRegion(b->get(), 2, 1, 14, 11);
      return b;
    };
    auto call = [&](std::unique_ptr<Bitmap> &b) { return op(b->get()); };
    kit::CheckAllocationFailures(setup, call);
    EXPECT_GT(kit::CheckCancellation(setup, call), 0);
  }
}
