// Q_SampleTargetBitmap: checks in order, the three curve shapes worked by
// hand, the shortcut, gray-level colours, the palette path with its carried
// progress, four-sample rows and the 16-bit wrap of the proportional curve.
#include <gtest/gtest.h>

#include <vector>

#include "kit.h"

namespace {

using kit::Format;
using kit::Level;
using kit::Pixel;
using kit::Rgb;

constexpr uint32_t kAllLinear = SAMPLE_CHAN_ALL | SAMPLE_METHOD_LINEAR;

TEST(SampleTarget, ChecksInOrder) {
  kit::Bitmap bmp(Format{24}, 2, 2), gray32(Format{32}, 2, 2);
  gray32->ColorOrder = ORDER_GRAY;
  gray32->Flags |= BITMAP_SIGNED;  // -1364 first
  auto with = [&](auto change, uint32_t flags) {
    BitmapRecord copy = *bmp.get();
    change(copy);
    return Q_SampleTargetBitmap(&copy, 0x000000, 0xFFFFFF, flags);
  };
  auto size = [](uint32_t s) { return [s](BitmapRecord &r) { r.StructSize = s; }; };
  auto flag = [](uint32_t f) {
    return [f](BitmapRecord &r) { r.Flags = (r.Flags & ~BITMAP_ALLOCATED) ^ f; };
  };
  auto same = [](BitmapRecord &) {};
  kit::ExpectStatuses({
      {"null", [] { return Q_SampleTargetBitmap(nullptr, 0, 1, 0); }, RC_NO_BITMAP},
      {"size before everything", [&] { return with(size(200), 0); }, RC_INVALID_STRUCT_SIZE},
      {"gray32 before signed", [&] { return Q_SampleTargetBitmap(gray32, 0, 1, 0); },
       RC_GRAY32_NOT_SUPPORTED},
      {"signed before unallocated", [&] { return with(flag(BITMAP_SIGNED), 0); },
       RC_SIGNED_DATA_NOT_SUPPORTED},
      {"unallocated before flags", [&] { return with(flag(0), 0); }, RC_NO_BITMAP},
      {"no method", [&] { return with(same, SAMPLE_CHAN_RED); }, RC_INVALID_PARAMETER},
      {"no channel", [&] { return with(same, SAMPLE_METHOD_LINEAR); }, RC_INVALID_PARAMETER},
      {"channel 5", [&] { return with(same, 5 | SAMPLE_METHOD_LINEAR); }, RC_INVALID_PARAMETER},
      {"method 0x40", [&] { return with(same, 0x40 | SAMPLE_CHAN_RED); }, RC_INVALID_PARAMETER},
      {"a bit both parts share", [&] { return with(same, 0x100 | kAllLinear); }, RC_INVALID_PARAMETER},
      {"size 176", [&] { return with(size(176), kAllLinear); }, RC_SUCCESS},
  });
}

// Red levels 0..255 in one row through the red curve; green and blue stay.
std::vector<uint32_t> RedCurve(uint32_t method, uint32_t sample, uint32_t target) {
  std::vector<Pixel> ramp;
  for (uint32_t x = 0; x < 256; ++x) ramp.push_back(Rgb(x, 7, 9));
  kit::Bitmap b(Format{24}, 256, 1, ramp);
  EXPECT_EQ(Q_SampleTargetBitmap(b, sample, target, SAMPLE_CHAN_RED | method), RC_SUCCESS);
  std::vector<uint32_t> red;
  for (const Pixel &p : b.Pixels()) {
    EXPECT_TRUE(p.v[1] == 7 && p.v[2] == 9);
    red.push_back(p.v[0]);
  }
  return red;
}

TEST(SampleTarget, CurvesByHand) {
  struct Case {
    const char *name;
    uint32_t method, sample, target;
    std::vector<std::pair<uint32_t, uint32_t>> points;  // level -> entry
  } cases[] = {
      // ceil((x - 100) * 105 / 155) + 150: ceil(-67.7) = -67
      {"linear", SAMPLE_METHOD_LINEAR, 100, 150, {{0, 83}, {99, 150}, {100, 150}, {101, 151}, {255, 255}}},
      {"linear from 255: all 255", SAMPLE_METHOD_LINEAR, 255, 0, {{0, 255}, {128, 255}, {255, 255}}},
      {"linear down, limited at 0", SAMPLE_METHOD_LINEAR, 200, 0, {{0, 0}, {199, 0}, {200, 0}, {201, 5}}},
      // 32 + 32^2 * 64 / 64^2 = 48; 160 + 95^2 * 64 / 191^2 = 175.83
      {"quadratic", SAMPLE_METHOD_QUADRATIC, 64, 128, {{0, 0}, {32, 48}, {64, 128}, {160, 176}, {255, 255}}},
      // 1 + 1 * 2 / 4 = 1.5 and 1 - 2 / 4 = 0.5: ties go to even
      {"quadratic ties up to even", SAMPLE_METHOD_QUADRATIC, 2, 4, {{1, 2}, {2, 4}}},
      {"quadratic ties down to even", SAMPLE_METHOD_QUADRATIC, 2, 0, {{1, 0}, {2, 0}}},
      {"quadratic from 0",
       SAMPLE_METHOD_QUADRATIC,
       0,
       255,
       {{0, 0}, {1, 254}, {255, 255}}},  // 1 + 254^2 / 255
      {"quadratic from 255",
       SAMPLE_METHOD_QUADRATIC,
       255,
       0,
       {{0, 0}, {128, 64}, {255, 255}}},  // 128 - 64.25
      {"proportional", SAMPLE_METHOD_PROPORTIONAL, 100, 50, {{201, 100}, {255, 127}}},
      {"proportional above max", SAMPLE_METHOD_PROPORTIONAL, 50, 100, {{100, 200}, {200, 255}}},
      {"proportional from 0", SAMPLE_METHOD_PROPORTIONAL, 0, 10, {{0, 0}, {1, 255}, {200, 255}}},
  };
  for (const Case &c : cases) {
    const std::vector<uint32_t> curve = RedCurve(c.method, c.sample, c.target);
    for (const auto &[x, v] : c.points) EXPECT_EQ(curve[x], v) << c.name << " at " << x;
  }
}

// Channel 4 on 32- and 64-bit rows: blue, green and red by their own curves
// (a channel whose sample equals its target stays), the fourth untouched.
TEST(SampleTarget, AllChannelsOnFourSampleRows) {
  for (int32_t bits : {32, 64}) {
    const uint32_t scale = bits == 64 ? 257 : 1;
    kit::Bitmap b(Format{bits}, 2, 1, {Rgb(40 * scale, 80 * scale, 120 * scale, 5), Rgb(0, 0, 0, 6)});
    // red 40 -> 80 (doubling), green 80 -> 80, blue 60 -> 30 (halving)
    ASSERT_EQ(Q_SampleTargetBitmap(b, 0x3C5028, 0x1E5050, SAMPLE_CHAN_ALL | SAMPLE_METHOD_PROPORTIONAL),
              RC_SUCCESS);
    EXPECT_EQ(b.At(0, 0), Rgb(80 * scale, 80 * scale, 60 * scale, 5)) << bits;
    EXPECT_EQ(b.At(1, 0), Rgb(0, 0, 0, 6)) << bits;
  }
}

// On 16-bit curves x * t of 2^31 or more wraps negative: the entry is 0.
TEST(SampleTarget, ProportionalWrapsOnSixteenBits) {
  kit::Bitmap b(Format{48}, 3, 1, {Rgb(32768, 1, 1), Rgb(32769, 1, 1), Rgb(65535, 1, 1)});
  ASSERT_EQ(Q_SampleTargetBitmap(b, 0x80, 0xFF, SAMPLE_CHAN_RED | SAMPLE_METHOD_PROPORTIONAL), RC_SUCCESS);
  EXPECT_EQ(b.At(0, 0).v[0], 65280u);  // 32768 * 65535 / 32896
  EXPECT_EQ(b.At(1, 0).v[0], 0u);
  EXPECT_EQ(b.At(2, 0).v[0], 0u);
}

// Nothing to change is judged on the raw bytes (a gray bitmap: their gray
// values), the gray-level bit aside: success, bitmap and count untouched.
TEST(SampleTarget, ShortcutOnRawBytes) {
  struct Case {
    const char *name;
    Format format;
    uint32_t sample, target, flags;
  } cases[] = {
      {"same red", Format{24}, 0x112233, 0x992233, SAMPLE_CHAN_RED | SAMPLE_METHOD_LINEAR},
      {"same colour", Format{24}, 0x112233, 0x112233, kAllLinear},
      {"same gray value", Format{16, ORDER_GRAY}, 0x000001, 0x010000, SAMPLE_CHAN_RED | SAMPLE_METHOD_LINEAR},
      {"gray bit not looked at", Format{16, ORDER_GRAY}, SAMPLE_GRAY_LEVEL | 0x80, 0x80, kAllLinear},
  };
  for (const Case &c : cases) {
    kit::Bitmap b(c.format, 3, 2);
    b.Randomize(4);
    const std::vector<uint8_t> before = b.StoredBytes();
    const uint32_t updates = b->UpdateCount;
    EXPECT_EQ(Q_SampleTargetBitmap(b, c.sample, c.target, c.flags), RC_SUCCESS) << c.name;
    EXPECT_TRUE(b.StoredBytes() == before && b->UpdateCount == updates) << c.name;
  }
}

// 8-bit gray takes the palette path: the ramp's entries go through one gray
// curve (0x0000FF -> 0x00FF00 is 64 -> 159), the pixels stay, and the bitmap
// becomes a palette bitmap of those grays. A gray level given directly
// (bits 8-15) gives the same curve.
TEST(SampleTarget, GrayPalettePath) {
  for (const auto &[sample, target] : {std::pair<uint32_t, uint32_t>{0x0000FF, 0x00FF00},
                                       {SAMPLE_GRAY_LEVEL | 0x4000, SAMPLE_GRAY_LEVEL | 0x9F00}}) {
    kit::Bitmap b(Format{8, ORDER_GRAY}, 2, 1, {Level(64), Level(255)});
    kit::ScopedCallback progress([](int32_t) { return RC_SUCCESS; });
    ASSERT_EQ(Q_SampleTargetBitmap(b, sample, target, SAMPLE_CHAN_RED | SAMPLE_METHOD_LINEAR), RC_SUCCESS);
    EXPECT_EQ(b.At(0, 0), Level(64));  // the index
    EXPECT_EQ(b->ColorOrder, ORDER_BGR);
    EXPECT_EQ(b.ColorAt(0, 0), Rgb(159, 159, 159));
    EXPECT_EQ(b.ColorAt(1, 0), Rgb(255, 255, 255));
    // 256 entries: a report at 0, then only when the carried remainder adds a percent.
    ASSERT_EQ(progress.Reports().size(), 101u);
    for (int32_t i = 0; i <= 100; ++i) EXPECT_EQ(progress.Reports()[i], i);
  }
}

// Three entries: 33 per entry, the carried remainder adds the last percent;
// a cancel leaves the palette unwritten.
TEST(SampleTarget, PaletteProgressAndCancel) {
  const PaletteEntry palette[4] = {{10, 20, 30, 0}, {40, 50, 60, 0}, {70, 80, 90, 0}, {1, 2, 3, 0}};
  for (const int32_t cancelAt : {0, 2}) {
    kit::Bitmap b(Format{2}, 2, 1, palette);
    b->ColorsUsed = 3;
    int32_t seen = 0;
    kit::ScopedCallback progress([&](int32_t) { return ++seen == cancelAt ? kit::kCancel : RC_SUCCESS; });
    const int32_t status =
        Q_SampleTargetBitmap(b, 0x000010, 0x000020, SAMPLE_CHAN_RED | SAMPLE_METHOD_PROPORTIONAL);
    if (cancelAt) {
      EXPECT_EQ(status, kit::kCancel);
      EXPECT_EQ(b->Palette[0].Red, 30);
      continue;
    }
    ASSERT_EQ(status, RC_SUCCESS);
    EXPECT_EQ(progress.Reports(), (std::vector<int32_t>{0, 33, 66, 100}));
    EXPECT_TRUE(b->Palette[0].Red == 60 && b->Palette[1].Red == 120 && b->Palette[2].Red == 180);
    EXPECT_TRUE(b->Palette[0].Green == 20 &&
                b->Palette[3].Red == 3);  // other channels, entries past ColorsUsed
  }
}

// 16-bit gray rows: a gray level in bits 0-15; the sample lands on the target.
TEST(SampleTarget, SixteenBitGrayLevels) {
  kit::Bitmap b(Format{16, ORDER_GRAY}, 3, 1, {Level(0x1234), Level(0), Level(65535)});
  b.Set(1, 0, Level(0x1233));
  ASSERT_EQ(Q_SampleTargetBitmap(b, SAMPLE_GRAY_LEVEL | 0x1234, SAMPLE_GRAY_LEVEL | 0x2000,
                                 SAMPLE_CHAN_GREEN | SAMPLE_METHOD_QUADRATIC),
            RC_SUCCESS);
  EXPECT_EQ(b.At(0, 0), Level(0x2000));
  EXPECT_EQ(b.At(2, 0), Level(65535));
  EXPECT_GT(b.At(1, 0).v[0], 0x1233u);
}

}  // namespace
