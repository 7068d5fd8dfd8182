// Q_ChannelMix: checks in order, the three rounding paths and their kept
// difference, palettes, regions, 16-bit rows, every instruction set.
#include "chmix.h"

#include <gtest/gtest.h>

#include <vector>

#include "kit.h"

namespace {

using kit::Bitmap;
using kit::Format;
using kit::Rgb;

ChannelMixFactors F(int32_t r, int32_t g, int32_t b, int32_t c = 0) { return {0, r, g, b, c}; }
const ChannelMixFactors kRed = F(100, 0, 0), kGreen = F(0, 100, 0), kBlue = F(0, 0, 100);

TEST(ChannelMix, ChecksInOrder) {
  Bitmap bmp(Format{24}, 3, 2), gray(Format{8, ORDER_GRAY}, 3, 2), gray32(Format{32, ORDER_GRAY}, 3, 2);
  Bitmap signedBmp(Format{24}, 3, 2), bad(Format{24}, 3, 2);
  bad->StructSize = 200;
  signedBmp->Flags |= BITMAP_SIGNED;
  const ChannelMixFactors big = F(0, 0, 1001), low = F(-1001, 0, 0), constant = F(0, 0, 0, 1001);
  auto mix = [&](BitmapRecord *b, const ChannelMixFactors *r, const ChannelMixFactors *bl, uint32_t flags) {
    return Q_ChannelMix(b, r, &kGreen, bl, flags);
  };
  kit::ExpectStatuses({
      {"size before flags", [&] { return mix(bad, nullptr, &kBlue, 1); }, RC_INVALID_STRUCT_SIZE},
      {"flags", [&] { return mix(gray, &kRed, &kBlue, 1); }, RC_INVALID_PARAMETER},
      {"gray", [&] { return mix(gray, nullptr, &kBlue, 0); }, RC_UNSUPPORTED_BITMAP},
      {"32-bit gray is gray first", [&] { return mix(gray32, &kRed, &kBlue, 0); }, RC_UNSUPPORTED_BITMAP},
      {"signed", [&] { return mix(signedBmp, nullptr, &kBlue, 0); }, RC_SIGNED_DATA_NOT_SUPPORTED},
      {"null bitmap", [&] { return mix(nullptr, &kRed, &kBlue, 0); }, RC_INVALID_PARAMETER},
      {"null record", [&] { return mix(bmp, nullptr, &kBlue, 0); }, RC_INVALID_PARAMETER},
      {"red low", [&] { return mix(bmp, &low, &big, 0); }, RC_INVALID_PARAMETER},
      {"blue factor after red and green", [&] { return mix(bmp, &kRed, &big, 0); }, RC_INVALID_PARAMETER},
      {"constant", [&] { return mix(bmp, &kRed, &constant, 0); }, RC_INVALID_PARAMETER},
      {"identity", [&] { return mix(bmp, &kRed, &kBlue, 0); }, RC_SUCCESS},
  });
}

// Pixels worked by hand on each path, in both widths and on palettes.
TEST(ChannelMix, PathsAndTheirRounding) {
  const struct {
    Format format;
    ChannelMixFactors red, green, blue;
    kit::Pixel in, out;
  } cases[] = {
      {Format{24}, kRed, kGreen, kBlue, Rgb(1, 2, 3), Rgb(1, 2, 3)},
      {Format{64}, kRed, kGreen, kBlue, Rgb(1, 2, 65535, 7), Rgb(1, 2, 65535, 7)},
      // Constant 100 with no weights: full scale.
      {Format{24}, F(0, 0, 0, 100), kGreen, kBlue, Rgb(1, 2, 3), Rgb(255, 2, 3)},
      {Format{48}, F(0, 0, 0, 100), kGreen, kBlue, Rgb(1, 2, 3), Rgb(65535, 2, 3)},
      // Factor -1 on 1: (-1 + 50) / 100 = 0 rounds toward zero, not -1.
      {Format{24}, F(-1, 0, 0), kGreen, kBlue, Rgb(1, 2, 3), Rgb(0, 2, 3)},
      // Kept: 8-bit rows round each term, (1 * 50 + 50) / 100 = 1 three
      // times = 3; 16-bit rows and palettes round the sum once: 200 / 100 = 2.
      {Format{24}, F(50, 50, 50), kGreen, kBlue, Rgb(1, 1, 1), Rgb(3, 1, 1)},
      {Format{48}, F(50, 50, 50), kGreen, kBlue, Rgb(1, 1, 1), Rgb(2, 1, 1)},
      // Swaps and clamps: red <- blue, green <- 2 x green - full scale (the
      // constant (-25500 + 50) / 100 = -254: 400 - 254), blue <- -red.
      {Format{32, ORDER_RGB}, kBlue, F(0, 200, 0, -100), F(-100, 0, 0), Rgb(9, 200, 40, 5),
       Rgb(40, 146, 0, 5)},
      {Format{16}, kBlue, kGreen, kRed, Rgb(1, 2, 31), Rgb(31, 2, 1)},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.format.Name());
    Bitmap bmp(c.format, 1, 1, {c.in});
    ASSERT_EQ(Q_ChannelMix(bmp, &c.red, &c.green, &c.blue, 0), RC_SUCCESS);
    EXPECT_EQ(bmp.At(0, 0), c.out);
  }
  // Palettes change their entries (the sum rounded once), pixels stay.
  PaletteEntry palette[4] = {{1, 1, 1, 0}, {255, 0, 10, 0}, {0, 0, 0, 0}, {0, 0, 0, 0}};
  Bitmap pal(Format{2}, 2, 1, {kit::Level(1), kit::Level(0)}, palette);
  const ChannelMixFactors half = F(50, 50, 50);
  ASSERT_EQ(Q_ChannelMix(pal, &half, &kGreen, &kRed, 0), RC_SUCCESS);
  EXPECT_EQ(pal.ColorAt(1, 0), Rgb(2, 1, 1));
  EXPECT_EQ(pal.ColorAt(0, 0), Rgb(133, 0, 10));
  EXPECT_EQ(pal.At(0, 0), kit::Level(1));
}

TEST(ChannelMix, RegionsLeaksFailuresAndNoProgress) {
  kit::LeakGuard guard;
  const ChannelMixFactors swap = F(0, 0, 100);
  Bitmap bmp(Format{24}, 5, 4);
  bmp.Randomize(3);
  const auto before = bmp.Pixels();
  kit::SetRectRegion(bmp, 1, 1, 3, 3);
  kit::ScopedCallback cb([](int32_t) { return kit::kCancel; });
  ASSERT_EQ(Q_ChannelMix(bmp, &swap, &kGreen, &kRed, 0), RC_SUCCESS);
  EXPECT_TRUE(cb.Reports().empty());
  for (int32_t y = 0; y < 4; ++y)
    for (int32_t x = 0; x < 5; ++x) {
      const kit::Pixel p = before[y * 5 + x];
      EXPECT_EQ(bmp.At(x, y), kit::InRegion(bmp, x, y) ? Rgb(p.v[2], p.v[1], p.v[0]) : p);
    }
  // Without a region the stored rows are mixed in place (the converter and
  // the tables are allocated); with one, the row pass adds its buffers.
  for (const bool region : {false, true}) {
    auto setup = [region] {
      Bitmap b(Format{24}, 4, 3);
      b.Randomize(1);
      if (region) kit::SetRectRegion(b, 1, 1, 3, 3);
      return b;
    };
    EXPECT_GT(kit::CheckAllocationFailures(
                  setup, [&](Bitmap &b) { return Q_ChannelMix(b, &swap, &kGreen, &kRed, 0); }),
              region ? 2 : 1);
  }
}

// Stored rows mixed in place (no region) give the bytes of the row pass (a
// region over the whole bitmap), fourth samples and bottom-up rows included.
TEST(ChannelMix, InPlaceRowsEqualTheRowPass) {
  const ChannelMixFactors red = F(80, 15, 5, 3), green = F(-30, 120, 10), blue = F(5, -15, 95, -2);
  for (const Format &f : {Format{24}, Format{32}, Format{24, ORDER_BGR, ORIENT_BOTTOM_FIRST}}) {
    SCOPED_TRACE(f.Name());
    Bitmap direct(f, 150, 3), pass(f, 150, 3);
    direct.Randomize(5);
    pass.Randomize(5);
    kit::SetRectRegion(pass, 0, 0, 150, 3);
    ASSERT_EQ(Q_ChannelMix(direct, &red, &green, &blue, 0), RC_SUCCESS);
    ASSERT_EQ(Q_ChannelMix(pass, &red, &green, &blue, 0), RC_SUCCESS);
    EXPECT_EQ(direct.Pixels(), pass.Pixels());
  }
}

// Every instruction set gives the scalar rows bit for bit, over random
// factors and rows of three and four samples, runs of every length.
TEST(ChannelMix, EveryInstructionSetMatchesScalar) {
  uint32_t state = 99;
  auto next = [&] { return state = state * 1664525u + 1013904223u; };
  for (int round = 0; round < 200; ++round) {
    // Factors over the whole range and near zero, where the rounding of a
    // negative term turns.
    auto factor = [&] { return next() % 3 ? int32_t(next() % 2001) - 1000 : int32_t(next() % 301) - 150; };
    ChannelMixFactors f[3];
    for (auto &x : f) x = F(factor(), factor(), factor(), int32_t(next() % 401) - 200);
    const ChannelMixFactors *const factors[3] = {&f[0], &f[1], &f[2]};
    std::vector<int32_t> storage(9 * 256);
    img::ChannelMixTables tables{};
    img::BuildChannelMixTables(factors, storage.data(), tables);
    const int32_t channels = 3 + round % 2, width = 1 + int32_t(next() % 300);
    std::vector<uint8_t> row(static_cast<size_t>(channels * width));
    for (uint8_t &v : row) v = static_cast<uint8_t>(next() >> 24);
    const int32_t left = int32_t(next() % width);
    std::vector<uint8_t> want = row;
    img::MixRow8Scalar(tables, want.data(), channels, left, width);
    for (img::Isa isa : img::kAllIsas) {
      if (!img::IsaAvailable(isa)) continue;
      std::vector<uint8_t> got = row;
      img::MixRow8(tables, got.data(), channels, left, width, isa);
      ASSERT_EQ(got, want) << img::IsaName(isa) << " round " << round;
    }
  }
}

}  // namespace
