// Q_HistoEqualizeBitmap: checks, hand-worked tables on 8 and 16-bit samples,
// the luminance shift and its limits, the common-table order and its quiet
// successes, signed data and regions.
#include <gtest/gtest.h>

#include <vector>

#include "kit.h"

namespace {

using kit::Level;
using kit::Pixel;
using kit::Rgb;

kit::Format Kind(int32_t bits, int32_t order = ORDER_BGR) { return kit::Format{bits, order}; }

std::vector<uint32_t> Levels(const kit::Bitmap &b) {
  std::vector<uint32_t> v;
  for (const Pixel &p : b.Pixels()) v.push_back(p.v[0]);
  return v;
}

TEST(Equalize, ChecksInOrder) {
  kit::Bitmap bmp(Kind(24), 3, 2), gray32(Kind(32), 2, 2),
      signed8(Kind(8, ORDER_GRAY), 2, 1, {Level(5), Level(9)});
  gray32->ColorOrder = ORDER_GRAY;
  signed8->Flags |= BITMAP_SIGNED;
  const auto sized = [&](uint32_t size) {
    bmp->StructSize = size;
    const int32_t status = Q_HistoEqualizeBitmap(bmp, 1);
    bmp->StructSize = BITMAP_RECORD_SIZE;
    return status;
  };
  kit::ExpectStatuses({
      {"null", [] { return Q_HistoEqualizeBitmap(nullptr, 7); }, RC_NO_BITMAP},
      {"size 0", [&] { return sized(0); }, RC_INVALID_STRUCT_SIZE},
      {"size 176", [&] { return sized(176); }, RC_SUCCESS},
      {"gray32 before mode", [&] { return Q_HistoEqualizeBitmap(gray32, 3); }, RC_GRAY32_NOT_SUPPORTED},
      {"mode 0", [&] { return Q_HistoEqualizeBitmap(bmp, 0); }, RC_INVALID_PARAMETER},
      {"mode 3", [&] { return Q_HistoEqualizeBitmap(bmp, 3); }, RC_INVALID_PARAMETER},
      {"mode 3 signed", [&] { return Q_HistoEqualizeBitmap(signed8, 3); }, RC_INVALID_PARAMETER},
  });
  EXPECT_EQ(Levels(signed8), (std::vector<uint32_t>{5, 9})) << "signed data put back before -13";
}

// Table entry i = S_i / n * T in single precision, truncated. One value
// everywhere maps to T; the pixel count is the region's.
TEST(Equalize, TablesOnEveryWidth) {
  struct Case {
    const char *name;
    kit::Format format;
    int32_t mode;
    std::vector<Pixel> in;
    std::vector<Pixel> out;
  } cases[] = {
      {"gray8 per channel",
       Kind(8, ORDER_GRAY),
       1,
       {Level(0), Level(0), Level(100), Level(200)},
       {Level(127), Level(127), Level(191), Level(255)}},
      {"gray8 common",
       Kind(8, ORDER_GRAY),
       4,
       {Level(0), Level(0), Level(100), Level(200)},
       {Level(127), Level(127), Level(191), Level(255)}},
      {"gray16 per channel",
       Kind(16, ORDER_GRAY),
       1,
       {Level(0), Level(0), Level(25600), Level(51200)},
       {Level(32767), Level(32767), Level(49151), Level(65535)}},
      // Deep common table first, then the 8-bit routine over it (kept order).
      {"gray16 common",
       Kind(16, ORDER_GRAY),
       4,
       {Level(0), Level(0), Level(25600), Level(51200)},
       {Level(32639), Level(32639), Level(49087), Level(65535)}},
      {"24 channels apart",
       Kind(24),
       1,
       {Rgb(10, 0, 7), Rgb(10, 50, 7)},
       {Rgb(255, 127, 255), Rgb(255, 255, 255)}},
      {"48 uniform",
       Kind(48, ORDER_RGB),
       2,
       {Rgb(9, 9, 9), Rgb(9, 9, 9)},
       {Rgb(65535, 65535, 65535), Rgb(65535, 65535, 65535)}},
      {"5-5-5 is not deep", Kind(16), 1, {Rgb(3, 3, 3), Rgb(3, 3, 3)}, {Rgb(31, 31, 31), Rgb(31, 31, 31)}},
      // Luminance shift limited: L 227 maps to 63 (d = -164), white stays.
      {"luminance limits",
       Kind(24),
       2,
       {Rgb(255, 255, 10), Rgb(255, 255, 255), Rgb(255, 255, 255), Rgb(255, 255, 255)},
       {Rgb(91, 91, 0), Rgb(255, 255, 255), Rgb(255, 255, 255), Rgb(255, 255, 255)}},
      // L 28 maps to 127 (d = 99): blue 250 + 99 limited to 255.
      {"luminance up",
       Kind(32),
       2,
       {Rgb(0, 0, 250, 5), Rgb(255, 255, 255, 6)},
       {Rgb(99, 99, 255, 5), Rgb(255, 255, 255, 6)}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    kit::Bitmap bmp(c.format, static_cast<int32_t>(c.in.size()), 1, c.in);
    ASSERT_EQ(Q_HistoEqualizeBitmap(bmp, c.mode), RC_SUCCESS);
    EXPECT_EQ(bmp.Pixels(), c.out);
  }
  // A region: only its pixels are counted (n = 2) and changed.
  kit::Bitmap region(Kind(8, ORDER_GRAY), 4, 1, {Level(0), Level(100), Level(100), Level(7)});
  kit::SetRectRegion(region, 0, 0, 2, 1);
  ASSERT_EQ(Q_HistoEqualizeBitmap(region, 1), RC_SUCCESS);
  EXPECT_EQ(Levels(region), (std::vector<uint32_t>{127, 255, 100, 7}));
}

// Signed data goes through its offset form (XOR 0x80) and back. In mode 4
// it is made signed again before the per-channel work, which then sees the
// stored patterns, and is shifted once more at the end (kept).
TEST(Equalize, SignedData) {
  const std::vector<Pixel> stored = {Level(0x80), Level(0x80), Level(0xE4), Level(0x48)};
  struct Case {
    int32_t mode;
    std::vector<uint32_t> out;
  } cases[] = {{1, {0xFF, 0xFF, 0x3F, 0x7F}}, {4, {0x3F, 0x3F, 0x7F, 0xBF}}};
  for (const Case &c : cases) {
    kit::Bitmap bmp(Kind(8, ORDER_GRAY), 4, 1, stored);
    bmp->Flags |= BITMAP_SIGNED;
    ASSERT_EQ(Q_HistoEqualizeBitmap(bmp, c.mode), RC_SUCCESS) << c.mode;
    EXPECT_EQ(Levels(bmp), c.out) << c.mode;
    EXPECT_TRUE(bmp->Flags & BITMAP_SIGNED);
  }
}

// The 8-bit common routine's failures and cancellations are reported as
// success (kept); the other ways report nothing and fail with -1.
TEST(Equalize, QuietCommonTableAndFailures) {
  for (const kit::Format &format : {Kind(8, ORDER_GRAY), Kind(24), Kind(48), Kind(16, ORDER_GRAY), Kind(4)}) {
    SCOPED_TRACE(format.Name());
    const auto setup = [&] {
      kit::Bitmap b(format, 6, 5);
      b.Randomize(8);
      kit::SetEllipseRegion(b, 0, 0, 6, 5);
      return b;
    };
    for (int32_t mode : {1, 2}) {
      kit::CheckAllocationFailures(setup, [&](kit::Bitmap &b) { return Q_HistoEqualizeBitmap(b, mode); });
      EXPECT_EQ(kit::CheckCancellation(setup, [&](kit::Bitmap &b) { return Q_HistoEqualizeBitmap(b, mode); }),
                0);
    }
    kit::CheckAllocationFailures(setup, [](kit::Bitmap &b) { return Q_HistoEqualizeBitmap(b, 4); },
                                 {RC_SUCCESS});
    kit::Bitmap b = setup();
    kit::ScopedCallback cancel([](int32_t) { return kit::kCancel; });
    EXPECT_EQ(Q_HistoEqualizeBitmap(b, 4), RC_SUCCESS);
  }
}

}  // namespace
