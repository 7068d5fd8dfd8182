// Extended gamma correction and automatic binarisation.
#include "autoseg.h"
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
  BitmapRecord bad = *b.get(), empty = *b.get();
  bad.StructSize = 200;
  empty.Flags = 0;  // no pixels
  kit::ExpectStatuses({
      {"size before gamma", [&] { return Q_GammaCorrectBitmapExt(&bad, 0, 9); }, RC_INVALID_STRUCT_SIZE},
      {"gray32 before gamma", [&] { return Q_GammaCorrectBitmapExt(gray32, 0, 9); }, RC_GRAY32_NOT_SUPPORTED},
      {"null bitmap is -13", [&] { return Q_GammaCorrectBitmapExt(nullptr, 100, GAMMA_YUV); },
       RC_INVALID_PARAMETER},
      {"gamma 0", [&] { return Q_GammaCorrectBitmapExt(b, 0, GAMMA_YUV); }, RC_INVALID_PARAMETER},
      {"space 3", [&] { return Q_GammaCorrectBitmapExt(b, 100, 3); }, RC_INVALID_PARAMETER},
      {"space 0", [&] { return Q_GammaCorrectBitmapExt(b, 100, 0); }, RC_INVALID_PARAMETER},
      {"no pixels: forwarded gamma fails", [&] { return Q_GammaCorrectBitmap(&empty, 200, 0); },
       RC_NO_BITMAP},
      {"no pixels: per channel still 1 (kept)",
       [&] { return Q_GammaCorrectBitmapExt(&empty, 200, GAMMA_RGB); }, RC_SUCCESS},
  });
}

TEST(GammaExt, PerChannelOrThroughTheIntegerLumaForm) {
  // Worked out from the integer YUV form, whose constants do not invert each other
  // exactly: at gamma 100, (200, 100, 50) gives Y 124, U -37, V 58, back (189, 105, 48).
  struct Case {
    Format format;
    uint32_t gamma;
    Pixel in, want;
    uint32_t space = GAMMA_YUV;
    bool sign = false;
  } cases[] = {
      {{24, ORDER_BGR}, 200, Rgb(64, 64, 64), Rgb(128, 128, 128), GAMMA_RGB},  // 255 * sqrt(64 / 255) = 127.7
      // Signed data goes per channel even for the luma: +64 is 192 offset, 221 after, so +93.
      {{8, ORDER_GRAY}, 200, Level(0x40), Level(0x5D), GAMMA_YUV, true},
      {{24, ORDER_BGR}, 100, Rgb(200, 100, 50), Rgb(189, 105, 48)},
      {{24, ORDER_RGB}, 200, Rgb(200, 100, 50), Rgb(243, 159, 102)},
      {{32, ORDER_RGB}, 50, Rgb(10, 200, 30, 77), Rgb(0, 127, 0, 77)},     // fourth sample kept
      {{48, ORDER_BGR}, 220, Rgb(0, 0, 65535), Rgb(17869, 16461, 65535)},  // products near 2^31
      {{64, ORDER_RGB}, 100, Rgb(40000, 1000, 20000, 9), Rgb(36816, 2631, 20002, 9)},
      {{8, ORDER_GRAY}, 200, Level(64), Level(128)},
      {{16, ORDER_GRAY}, 200, Level(1000), Level(8095)},  // 65535 * sqrt(1000 / 65535) = 8095.3
      // Gamma 1: 65535^100 overflows a double; the curve (Y / 65535)^100 keeps white white.
      {{48, ORDER_BGR}, 1, Rgb(65535, 65535, 65535), Rgb(65535, 65535, 65535)},
      {{16, ORDER_GRAY}, 1, Level(65535), Level(65535)},
      {{64, ORDER_RGB}, 1, Rgb(65535, 65535, 65535, 4), Rgb(65535, 65535, 65535, 4), GAMMA_RGB},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.format.Name() + " gamma " + std::to_string(c.gamma));
    kit::LeakGuard guard;
    Bitmap b(c.format, 3, 2, std::vector<Pixel>(6, c.in));
    kit::SetRectRegion(b, 1, 0, 3, 2);
    kit::SetRectRegion(b, 2, 1, 3, 2, REGION_XOR);
    if (c.sign) b->Flags |= BITMAP_SIGNED;
    const uint32_t updates = b->UpdateCount;
    ASSERT_EQ(Q_GammaCorrectBitmapExt(b, c.gamma, c.space), RC_SUCCESS);
    if (c.space == GAMMA_YUV && !c.sign) {
      EXPECT_EQ(b->UpdateCount, updates + 1);
    }
    for (int32_t y = 0; y < 2; ++y)
      for (int32_t x = 0; x < 3; ++x) EXPECT_EQ(b.At(x, y), kit::InRegion(b, x, y) ? c.want : c.in);
  }
  auto fresh = [] { return Bitmap(Format{24, ORDER_BGR}, 9, 7); };
  kit::CheckAllocationFailures(fresh, [](Bitmap &b) { return Q_GammaCorrectBitmapExt(b, 150, GAMMA_YUV); });
  // The per-channel path (RGB, or signed data) answers 1 whatever the
  // forwarded call returned, kept on purpose: also when it was cancelled.
  Bitmap c = fresh(), s = fresh();
  s->Flags |= BITMAP_SIGNED;
  kit::ScopedCallback cancel([](int32_t) { return kit::kCancel; });
  EXPECT_EQ(Q_GammaCorrectBitmap(c, 150, 0), kit::kCancel);
  EXPECT_EQ(Q_GammaCorrectBitmapExt(c, 150, GAMMA_RGB) + Q_GammaCorrectBitmapExt(s, 150, GAMMA_YUV), 2);
  EXPECT_EQ(cancel.Reports().size(), 3u);
}

TEST(AutoBinary, ThresholdSearch) {
  struct Case {
    const char *name;
    std::vector<std::pair<int, uint32_t>> counts;
    int32_t threshold;
    bool ones = false;  // levels 6..249 hold one each before `counts`
  } cases[] = {
      {"uniform level 100", {{100, 50}}, 5},
      {"uniform level 3", {{3, 50}}, 5},
      {"only the ends", {{0, 9}, {2, 9}, {253, 9}, {255, 4}}, 5},
      {"two peaks, valley at 60", {{30, 100}, {60, 2}, {61, 3}, {90, 80}}, 31},
      {"equal highest peaks: lower wins", {{40, 10}, {200, 10}, {120, 1}}, 41},
      {"adjacent peaks", {{50, 10}, {51, 9}}, 50},
      {"valley with a strictly smaller count", {{20, 100}, {21, 5}, {22, 4}, {23, 4}, {200, 90}}, 24},
      // Level 250 scores 245^2 * 71555 = 4295088875, which wraps to 121579 and
      // loses against level 100 (95^2 * 40 = 361000): the valley lies below 100.
      {"score wraps in 32 bits", {{5, 100000}, {100, 40}, {200, 0}, {250, 71555}}, 6, true},
      {"no wrap: 250 is the second peak", {{5, 100000}, {100, 40}, {200, 0}, {250, 1000}}, 200, true},
  };
  for (const Case &c : cases) {
    uint32_t h[256] = {};
    for (int v = 6; c.ones && v < 250; ++v) h[v] = 1;
    for (auto [level, count] : c.counts) h[level] = count;
    EXPECT_EQ(img::AutoBinaryThreshold(h), c.threshold) << c.name;
  }
}

TEST(AutoBinary, PaintsWhiteAtOrAboveTheThreshold) {
  kit::LeakGuard guard;
  struct Case {
    Format format;
    std::vector<Pixel> in, want;
  } cases[] = {
      {{8, ORDER_GRAY}, {Level(100), Level(100)}, {Level(255), Level(255)}},  // threshold 5
      {{24, ORDER_BGR}, {Rgb(3, 3, 3), Rgb(3, 3, 3)}, {Rgb(0, 0, 0), Rgb(0, 0, 0)}},
      // 12-bit: threshold 5 becomes 80 on the 12-bit scale, white is 4095.
      {{12, ORDER_GRAY}, {Level(79), Level(80), Level(81)}, {Level(0), Level(4095), Level(4095)}},
  };
  for (const Case &c : cases) {
    Bitmap b(c.format, static_cast<int32_t>(c.in.size()), 1, c.in);
    ASSERT_EQ(Q_AutoBinaryBitmap(b, 0), RC_SUCCESS);
    EXPECT_EQ(b.Pixels(), c.want) << c.format.Name();
  }
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
    Bitmap b(Format{24, ORDER_BGR}, 20, 10);
    b.Randomize(9);
    kit::SetEllipseRegion(b, 2, 2, 18, 9);
    return b;
  };
  auto call = [](Bitmap &b) { return Q_AutoBinaryBitmap(b, 0); };
  kit::CheckAllocationFailures(setup, call);
  // The histogram reports 0..20, then the detection its own 0..100.
  EXPECT_GT(kit::CheckCancellation(setup, call, RC_SUCCESS, false), 0);
}
