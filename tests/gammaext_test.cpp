// Extended gamma correction and automatic binarisation.
#include "autoseg.h"
#include "curves.h"
#include "kit.h"

using kit::Bitmap;
using kit::Format;
using kit::Level;
using kit::Pixel;
using kit::Rgb;

TEST(GammaExt, ChecksInOrder) {
  kit::LeakGuard guard;
  Bitmap b(Format{24, ORDER_BGR}, 2, 2);
  Bitmap gray32(Format{32, ORDER_GRAY}, 2, 2);
  BitmapRecord bad = *b.get();
  bad.StructSize = 200;
  kit::ExpectStatuses({
      {"size before gamma", [&] { return Q_GammaCorrectBitmapExt(&bad, 0, 9); }, RC_INVALID_STRUCT_SIZE},
      {"gray32 before gamma", [&] { return Q_GammaCorrectBitmapExt(gray32, 0, 9); }, RC_GRAY32_NOT_SUPPORTED},
      {"null bitmap is -13", [&] { return Q_GammaCorrectBitmapExt(nullptr, 100, GAMMA_YUV); },
       RC_INVALID_PARAMETER},
      {"gamma 0", [&] { return Q_GammaCorrectBitmapExt(b, 0, GAMMA_YUV); }, RC_INVALID_PARAMETER},
      {"space 3", [&] { return Q_GammaCorrectBitmapExt(b, 100, 3); }, RC_INVALID_PARAMETER},
      {"space 0", [&] { return Q_GammaCorrectBitmapExt(b, 100, 0); }, RC_INVALID_PARAMETER},
  });
}

TEST(GammaExt, PerChannelPathAlwaysReportsSuccess) {
  kit::LeakGuard guard;
  Bitmap b(Format{24, ORDER_BGR}, 1, 1, {Rgb(64, 64, 64)});
  ASSERT_EQ(Q_GammaCorrectBitmapExt(b, 200, GAMMA_RGB), RC_SUCCESS);
  EXPECT_EQ(b.At(0, 0), Rgb(128, 128, 128));
  // A bitmap whose pixels are gone makes the forwarded gamma fail; the
  // export still answers 1 (kept).
  BitmapRecord empty = *b.get();
  empty.Flags = 0;
  EXPECT_EQ(Q_GammaCorrectBitmap(&empty, 200, 0), RC_NO_BITMAP);
  EXPECT_EQ(Q_GammaCorrectBitmapExt(&empty, 200, GAMMA_RGB), RC_SUCCESS);
  // Signed data goes per channel even when the luma is asked for.
  Bitmap s(Format{8, ORDER_GRAY}, 1, 1, {Level(0x40)});
  s->Flags |= BITMAP_SIGNED;
  ASSERT_EQ(Q_GammaCorrectBitmapExt(s, 200, GAMMA_YUV), RC_SUCCESS);
  EXPECT_NE(s.At(0, 0).v[0], 0x40u);
}

TEST(GammaExt, LumaPathKeepsHueAndMatchesTheIntegerForm) {
  for (const Format &format :
       {Format{24, ORDER_BGR}, Format{32, ORDER_RGB}, Format{48, ORDER_BGR}, Format{8, ORDER_GRAY}}) {
    for (uint32_t gamma : {100u, 50u, 220u}) {
      SCOPED_TRACE(format.Name() + " gamma " + std::to_string(gamma));
      kit::LeakGuard guard;
      Bitmap b(format, 6, 5);
      b.Randomize(gamma);
      const std::vector<Pixel> before = b.Pixels();
      kit::SetEllipseRegion(b, 0, 0, 6, 5);
      const uint32_t updates = b->UpdateCount;
      ASSERT_EQ(Q_GammaCorrectBitmapExt(b, gamma, GAMMA_YUV), RC_SUCCESS);
      EXPECT_EQ(b->UpdateCount, updates + 1);
      const int32_t max = format.bits >= 48 ? 65535 : 255;
      std::vector<int32_t> table(static_cast<size_t>(max) + 1);
      img::BuildGammaTable(gamma, static_cast<uint32_t>(max) + 1, table.data());
      for (int32_t y = 0; y < 5; ++y)
        for (int32_t x = 0; x < 6; ++x) {
          const Pixel p = before[y * 6 + x];
          Pixel want = p;
          if (kit::InRegion(b, x, y)) {
            const bool gray = format.IsGray();
            img::YuvPixel yuv =
                img::LumaForward(static_cast<int32_t>(p.v[0]), static_cast<int32_t>(gray ? p.v[0] : p.v[1]),
                                 static_cast<int32_t>(gray ? p.v[0] : p.v[2]), max);
            if (gamma == 100) {
              EXPECT_EQ(table[yuv.y], yuv.y);
            }
            yuv.y = table[yuv.y];
            int32_t r, g, bl;
            img::LumaBack(yuv, max, &r, &g, &bl);
            if (gray)
              want.v[0] = static_cast<uint32_t>((g * 5 + r * 2 + bl) >> 3);
            else
              want = Rgb(r, g, bl, p.v[3]);
          }
          ASSERT_EQ(b.At(x, y), want) << x << "," << y;
        }
    }
  }
  // 16-bit colour near white: the products stay inside 32 bits.
  img::YuvPixel blue = img::LumaForward(0, 0, 65535, 65535);
  EXPECT_EQ(blue.y, 7471);
  EXPECT_EQ(blue.u, 28567);
}

TEST(GammaExt, LifecycleOfTheLumaPath) {
  auto setup = [] {
    auto b = std::make_unique<Bitmap>(Format{24, ORDER_BGR}, 9, 7);
    b->Randomize(2);
    return b;
  };
  kit::CheckAllocationFailures(
      setup, [](std::unique_ptr<Bitmap> &b) { return Q_GammaCorrectBitmapExt(b->get(), 150, GAMMA_YUV); });
}

TEST(AutoBinary, ThresholdSearch) {
  struct Case {
    const char *name;
    std::vector<std::pair<int, uint32_t>> counts;
    int32_t threshold;
  } cases[] = {
      {"uniform level 100", {{100, 50}}, 5},
      {"uniform level 3", {{3, 50}}, 5},
      {"only the ends", {{0, 9}, {2, 9}, {253, 9}, {255, 4}}, 5},
      {"two peaks, valley at 60", {{30, 100}, {60, 2}, {61, 3}, {90, 80}}, 31},
      {"equal highest peaks: lower wins", {{40, 10}, {200, 10}, {120, 1}}, 41},
      {"adjacent peaks", {{50, 10}, {51, 9}}, 50},
      {"valley with a strictly smaller count", {{20, 100}, {21, 5}, {22, 4}, {23, 4}, {200, 90}}, 24},
  };
  for (const Case &c : cases) {
    uint32_t h[256] = {};
    for (auto [level, count] : c.counts) h[level] = count;
    EXPECT_EQ(img::AutoBinaryThreshold(h), c.threshold) << c.name;
  }
  // The distance-weighted score wraps in 32 bits: level 250 scores
  // 245^2 * 71555 = 4295088875, which wraps to 121579 and loses against
  // level 100 (95^2 * 40 = 361000); the valley is then searched below 100.
  uint32_t h[256] = {};
  for (int v = 6; v < 250; ++v) h[v] = 1;
  h[5] = 100000;
  h[100] = 40;
  h[200] = 0;
  h[250] = 71555;
  EXPECT_EQ(img::AutoBinaryThreshold(h), 6);
  h[250] = 1000;  // no wrap: 250 is the second peak and 200 the valley
  EXPECT_EQ(img::AutoBinaryThreshold(h), 200);
}

TEST(AutoBinary, PaintsWhiteAtOrAboveTheThreshold) {
  kit::LeakGuard guard;
  Bitmap hi(Format{8, ORDER_GRAY}, 3, 2, std::vector<Pixel>(6, Level(100)));
  ASSERT_EQ(Q_AutoBinaryBitmap(hi, 0), RC_SUCCESS);
  EXPECT_EQ(hi.Pixels(), std::vector<Pixel>(6, Level(255)));
  Bitmap lo(Format{24, ORDER_BGR}, 3, 2, std::vector<Pixel>(6, Rgb(3, 3, 3)));
  ASSERT_EQ(Q_AutoBinaryBitmap(lo, 0), RC_SUCCESS);
  EXPECT_EQ(lo.Pixels(), std::vector<Pixel>(6, Rgb(0, 0, 0)));
  // 12-bit gray: threshold 5 becomes 80 on the 12-bit scale, the top 4095.
  Bitmap g12(Format{12, ORDER_GRAY}, 3, 1, {Level(79), Level(80), Level(81)});
  ASSERT_EQ(Q_AutoBinaryBitmap(g12, 0), RC_SUCCESS);
  EXPECT_EQ(g12.At(0, 0).v[0], 0u);
  EXPECT_EQ(g12.At(1, 0).v[0], 4095u);
  EXPECT_EQ(g12.At(2, 0).v[0], 4095u);
  Bitmap sgn(Format{8, ORDER_GRAY}, 1, 1);
  sgn->Flags |= BITMAP_SIGNED;
  Bitmap g32(Format{32, ORDER_GRAY}, 1, 1);
  kit::ExpectStatuses({
      {"flags", [&] { return Q_AutoBinaryBitmap(nullptr, 1); }, RC_INVALID_PARAMETER},
      {"null read by the worker", [&] { return Q_AutoBinaryBitmap(nullptr, 0); }, RC_NO_BITMAP},
      {"gray32", [&] { return Q_AutoBinaryBitmap(g32, 0); }, RC_GRAY32_NOT_SUPPORTED},
      {"signed", [&] { return Q_AutoBinaryBitmap(sgn, 0); }, RC_SIGNED_DATA_NOT_SUPPORTED},
  });
  auto setup = [] {
    auto b = std::make_unique<Bitmap>(Format{24, ORDER_BGR}, 20, 10);
    b->Randomize(9);
    kit::SetEllipseRegion(b->get(), 2, 2, 18, 9);
    return b;
  };
  auto call = [](std::unique_ptr<Bitmap> &b) { return Q_AutoBinaryBitmap(b->get(), 0); };
  kit::CheckAllocationFailures(setup, call);
  // The histogram reports 0..20, then the detection its own 0..100.
  EXPECT_GT(kit::CheckCancellation(setup, call, RC_SUCCESS, false), 0);
}
