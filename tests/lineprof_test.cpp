// Q_LineProfile: the entry frame, lines of every direction, values of every
// kind, the capacity, regions, progress and cancellation.
#include <gtest/gtest.h>

#include <vector>

#include "kit.h"

namespace {

using kit::Bitmap;
using kit::Format;

TEST(LineProfile, EntryFrameAndRanges) {
  Bitmap bmp(Format{24}, 4, 3), gray32(Format{32, ORDER_GRAY}, 4, 3), signedBmp(Format{24}, 4, 3);
  Bitmap bad(Format{24}, 4, 3);
  bad->StructSize = 0;
  gray32->Flags |= BITMAP_SIGNED;
  signedBmp->Flags |= BITMAP_SIGNED;
  uint32_t values[32] = {}, capacity = 10;
  auto line = [&](BitmapRecord *b, int32_t x2, int32_t y2, uint32_t *v, uint32_t *cap, uint32_t flags) {
    return Q_LineProfile(b, 0, 0, x2, y2, v, cap, flags);
  };
  kit::ExpectStatuses({
      {"flags first", [&] { return line(nullptr, 9, 9, nullptr, nullptr, 1); }, RC_INVALID_PARAMETER},
      {"null bitmap", [&] { return line(nullptr, 9, 9, nullptr, nullptr, 0); }, RC_NO_BITMAP},
      {"record size", [&] { return line(bad, 9, 9, nullptr, nullptr, 0); }, RC_INVALID_STRUCT_SIZE},
      {"gray32 before signed", [&] { return line(gray32, 9, 9, nullptr, nullptr, 0); },
       RC_GRAY32_NOT_SUPPORTED},
      {"signed", [&] { return line(signedBmp, 9, 9, nullptr, nullptr, 0); }, RC_SIGNED_DATA_NOT_SUPPORTED},
      {"null values", [&] { return line(bmp, 9, 9, nullptr, &capacity, 0); }, RC_NULL_OPTIONS},
      {"null capacity", [&] { return line(bmp, 9, 9, values, nullptr, 0); }, RC_NULL_OPTIONS},
      {"x outside", [&] { return line(bmp, 4, 0, values, &capacity, 0); }, RC_INVALID_PARAMETER},
      {"y outside", [&] { return line(bmp, 0, 3, values, &capacity, 0); }, RC_INVALID_PARAMETER},
      {"negative", [&] { return line(bmp, -1, 0, values, &capacity, 0); }, RC_INVALID_PARAMETER},
      {"corner", [&] { return line(bmp, 3, 2, values, &capacity, 0); }, RC_SUCCESS},
  });
  EXPECT_EQ(capacity, 4u);
  capacity = 3;
  EXPECT_EQ(line(bmp, 3, 2, values, &capacity, 0), RC_INVALID_PARAMETER);
  EXPECT_EQ(capacity, 4u);  // the count needed
}

// Lines of one pixel, horizontal, vertical, diagonal, steep and reversed:
// Bresenham's points in the order of the walk, both ends included.
TEST(LineProfile, LinesOfEveryDirection) {
  Bitmap bmp(Format{8, ORDER_GRAY}, 6, 5);
  for (int32_t y = 0; y < 5; ++y)
    for (int32_t x = 0; x < 6; ++x) bmp.Set(x, y, kit::Level(uint32_t(10 * y + x)));
  const struct {
    int32_t x1, y1, x2, y2;
    std::vector<uint32_t> values;
  } cases[] = {
      {2, 3, 2, 3, {32}},
      {1, 2, 4, 2, {21, 22, 23, 24}},
      {3, 4, 3, 1, {43, 33, 23, 13}},
      {0, 0, 4, 4, {0, 11, 22, 33, 44}},
      {5, 0, 0, 2, {5, 4, 13, 12, 21, 20}},  // shallow, right to left
      {0, 0, 1, 4, {0, 10, 21, 31, 41}},     // steep
  };
  for (const auto &c : cases) {
    std::vector<uint32_t> values(16, 999);
    uint32_t capacity = 16;
    ASSERT_EQ(Q_LineProfile(bmp, c.x1, c.y1, c.x2, c.y2, values.data(), &capacity, 0), RC_SUCCESS);
    values.resize(capacity);
    EXPECT_EQ(values, c.values) << c.x1 << "," << c.y1 << " to " << c.x2 << "," << c.y2;
  }
}

// Gray gives the sample on its own scale, colour and palettes red, green,
// blue (the palette colour); points outside the region are left out;
// progress 0 and 100, a refusal returned.
TEST(LineProfile, KindsRegionsAndProgress) {
  PaletteEntry palette[16] = {};
  palette[5] = {1, 2, 3, 0};
  const struct {
    Format format;
    kit::Pixel pixel;
    std::vector<uint32_t> values;
  } cases[] = {
      {Format{12, ORDER_GRAY}, kit::Level(4095), {4095}},
      {Format{16, ORDER_GRAY}, kit::Level(65535), {65535}},
      {Format{48}, kit::Rgb(1, 2, 60000), {1, 2, 60000}},
      {Format{32, ORDER_RGB}, kit::Rgb(7, 8, 9, 10), {7, 8, 9}},
      {Format{4}, kit::Level(5), {3, 2, 1}},
  };
  for (const auto &c : cases) {
    Bitmap bmp(c.format, 2, 1, {c.pixel, c.pixel}, c.format.IsPalette() ? palette : nullptr);
    std::vector<uint32_t> values(6);
    uint32_t capacity = 2;
    ASSERT_EQ(Q_LineProfile(bmp, 0, 0, 1, 0, values.data(), &capacity, 0), RC_SUCCESS);
    values.resize(c.values.size());
    EXPECT_EQ(values, c.values) << c.format.Name();
  }
  kit::LeakGuard guard;
  Bitmap bmp(Format{8, ORDER_GRAY}, 5, 5);
  bmp.Randomize(2);
  kit::SetRectRegion(bmp, 2, 0, 5, 5);
  uint32_t values[5] = {}, capacity = 5;
  {
    kit::ScopedCallback cb([](int32_t) { return 1; });
    ASSERT_EQ(Q_LineProfile(bmp, 0, 0, 4, 4, values, &capacity, 0), RC_SUCCESS);
    EXPECT_EQ(cb.Reports(), (std::vector<int32_t>{0, 100}));
  }
  ASSERT_EQ(capacity, 3u);
  for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(values[i], bmp.At(int32_t(i + 2), int32_t(i + 2)).v[0]);
  auto setup = [] {
    Bitmap b(Format{24}, 6, 4);
    b.Randomize(5);
    return b;
  };
  auto call = [](Bitmap &b) {
    uint32_t v[18], n = 6;
    return Q_LineProfile(b, 0, 3, 5, 0, v, &n, 0);
  };
  EXPECT_EQ(kit::CheckCancellation(setup, call), 2);
  EXPECT_GT(kit::CheckAllocationFailures(setup, call), 1);
}

}  // namespace
