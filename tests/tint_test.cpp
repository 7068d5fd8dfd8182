// Q_AdjustBitmapTint: checks, the spherical angle shift on rows and palettes.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "ClrSpc.h"
#include "kit.h"

namespace {

using kit::Rgb;

kit::Format Kind(int32_t bits, int32_t order = ORDER_BGR) { return kit::Format{bits, order}; }

TEST(Tint, ChecksInOrder) {
  kit::Bitmap bmp(Kind(24), 3, 2), old(kit::Format{24, ORDER_BGR, ORIENT_TOP_FIRST, 176}, 3, 2);
  kit::Bitmap bad(Kind(24), 3, 2), gray32(Kind(32, ORDER_GRAY), 3, 2), signedBmp(Kind(24), 3, 2);
  kit::Bitmap gray(Kind(8, ORDER_GRAY), 3, 2), gray16(Kind(16, ORDER_GRAY), 3, 2);
  bad->StructSize = 200;
  gray32->Flags |= BITMAP_SIGNED;
  signedBmp->Flags |= BITMAP_SIGNED;
  kit::ExpectStatuses({
      {"flags first", [] { return Q_AdjustBitmapTint(nullptr, 0, 0, 1); }, RC_INVALID_PARAMETER},
      {"size 200 before range", [&] { return Q_AdjustBitmapTint(bad, 99999, 0, 0); }, RC_INVALID_STRUCT_SIZE},
      {"size 176", [&] { return Q_AdjustBitmapTint(old, 100, 0, 0); }, RC_SUCCESS},
      {"gray32 before signed", [&] { return Q_AdjustBitmapTint(gray32, 0, 0, 0); }, RC_GRAY32_NOT_SUPPORTED},
      {"signed before range", [&] { return Q_AdjustBitmapTint(signedBmp, 18001, 0, 0); },
       RC_SIGNED_DATA_NOT_SUPPORTED},
      {"theta 18001", [&] { return Q_AdjustBitmapTint(bmp, 18001, 0, 0); }, RC_INVALID_PARAMETER},
      {"phi -18001", [&] { return Q_AdjustBitmapTint(bmp, 0, -18001, 0); }, RC_INVALID_PARAMETER},
      {"18000", [&] { return Q_AdjustBitmapTint(bmp, 18000, -18000, 0); }, RC_SUCCESS},
      {"null after (0, 0)", [] { return Q_AdjustBitmapTint(nullptr, 0, 0, 0); }, RC_SUCCESS},
      {"null", [] { return Q_AdjustBitmapTint(nullptr, 5, 0, 0); }, RC_NO_BITMAP},
      {"nothing to do before gray", [&] { return Q_AdjustBitmapTint(gray, 0, 0, 0); }, RC_SUCCESS},
      {"gray", [&] { return Q_AdjustBitmapTint(gray, 100, 0, 0); }, RC_UNSUPPORTED_BITMAP},
      {"gray 16", [&] { return Q_AdjustBitmapTint(gray16, 0, -5, 0); }, RC_UNSUPPORTED_BITMAP},
      {"range before gray", [&] { return Q_AdjustBitmapTint(gray, 18001, 0, 0); }, RC_INVALID_PARAMETER},
  });
  bad->StructSize = BITMAP_RECORD_SIZE;
}

TEST(Tint, NoChangeAndNoProgress) {
  kit::Bitmap bmp(Kind(24), 5, 3);
  bmp.Randomize(2);
  const auto before = bmp.Pixels();
  kit::ScopedCallback cb([](int32_t) { return kit::kCancel; });
  EXPECT_EQ(Q_AdjustBitmapTint(bmp, 0, 0, 0), RC_SUCCESS);
  EXPECT_EQ(Q_AdjustBitmapTint(bmp, 18001, 0, 0), RC_INVALID_PARAMETER);
  EXPECT_EQ(bmp.Pixels(), before);
  // The rows report nothing, so a refusing callback cannot stop the change.
  EXPECT_EQ(Q_AdjustBitmapTint(bmp, 100, 100, 0), RC_SUCCESS);
  EXPECT_NE(bmp.Pixels(), before);
  EXPECT_TRUE(cb.Reports().empty());
}

// Values worked out with the spherical formulas (pi taken as 3.1415926535):
//  (128, 128, 128): length 222, theta 5473, phi 4500. Theta + 3527 = 9000:
//    B = trunc(|222 cos 90 + 0.5|) = 0, R = trunc(222 cos 45 + 0.5) = 157,
//    G = trunc(sqrt(222^2 - 157^2)) = 156.
//  (200, 0, 0): length 200, theta 9000, phi 0. Theta + 100 = 9100 -> -8900:
//    B = trunc(200 cos(-89) + 0.5) = 3, R = trunc(|200 sin(-89) + 0.5|) = 199,
//    G = trunc(sqrt(40000 - 39601 - 9)) = 19. (Taken as 9100 it would be (200, 0, 2).)
//  (0, 0, 200): theta 0, phi 0; phi - 9000 (theta 0 keeps R = 0 whatever phi).
//  (48-bit) (32768, 32768, 32768): length 56756, theta 5473, phi 4500;
//    theta + 3527: (40133, 40132, 0).
//  (48-bit) (51200, 0, 0), theta 9000 + 100 -> -8900: B = trunc(51200 cos 89 + 0.5) = 894.
TEST(Tint, AngleShifts) {
  struct Case {
    kit::Format format;
    kit::Pixel in;
    int32_t theta, phi;
    kit::Pixel out;
  } cases[] = {
      {Kind(24), Rgb(128, 128, 128), 3527, 0, Rgb(157, 156, 0)},
      {Kind(24, ORDER_RGB), Rgb(128, 128, 128), 3527, 0, Rgb(157, 156, 0)},
      {Kind(32), Rgb(128, 128, 128, 9), 3527, 0, Rgb(157, 156, 0, 9)},
      {Kind(24), Rgb(200, 0, 0), 100, 0, Rgb(199, 19, 3)},
      {Kind(24), Rgb(0, 0, 200), 0, -9000, Rgb(0, 0, 200)},
      {Kind(48), Rgb(32768, 32768, 32768), 3527, 0, Rgb(40133, 40132, 0)},
      {Kind(48), Rgb(51200, 0, 0), 100, 0, Rgb(51191, 349, 894)},
      {Kind(64, ORDER_RGB), Rgb(32768, 32768, 32768, 7), 3527, 0, Rgb(40133, 40132, 0, 7)},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << c.format.Name() << " " << c.in << " " << c.theta << "," << c.phi);
    kit::Bitmap bmp(c.format, 2, 1, {c.in, c.in});
    ASSERT_EQ(Q_AdjustBitmapTint(bmp, c.theta, c.phi, 0), RC_SUCCESS);
    EXPECT_EQ(bmp.Pixels(), std::vector<kit::Pixel>(2, c.out));
  }
}

// Rows go through the call's colour memo. Colours that share a memo slot
// (same low 5, 6 and 5 bits of red, green, blue), repeated in turn, and the
// one 16-bit colour of slot 0 that the memo never stores (red 27136, green
// 20224, blue 52448: its bits above the slot equal the slot's mark) each give
// what they give alone.
TEST(Tint, ColoursSharingAMemoSlot) {
  for (const int32_t bits : {24, 48}) {
    SCOPED_TRACE(bits);
    const bool wide = bits == 48;
    const kit::Pixel mark = wide ? Rgb(27136, 20224, 52448) : Rgb(160, 64, 224);
    const kit::Pixel other = wide ? Rgb(27168, 20224, 52448) : Rgb(192, 64, 224);
    const kit::Pixel black = Rgb(0, 0, 0), near = wide ? Rgb(27136, 20288, 52448) : Rgb(160, 128, 224);
    const std::vector<kit::Pixel> row{mark, other, mark, black, near, mark, other, near};
    kit::Bitmap bmp(Kind(bits), 8, 1, row);
    ASSERT_EQ(Q_AdjustBitmapTint(bmp, 1234, -567, 0), RC_SUCCESS);
    for (int32_t x = 0; x < 8; ++x) {
      kit::Bitmap alone(Kind(bits), 1, 1, {row[x]});
      ASSERT_EQ(Q_AdjustBitmapTint(alone, 1234, -567, 0), RC_SUCCESS);
      EXPECT_EQ(bmp.At(x, 0), alone.At(0, 0)) << x;
    }
  }
}

const PaletteEntry kGray{128, 128, 128, 0}, kRed{0, 0, 200, 0}, kDull{30, 20, 10, 0};

TEST(Tint, PaletteWithoutRegion) {
  std::vector<PaletteEntry> pal(16, kDull);
  pal[0] = kGray, pal[1] = kRed;
  kit::Bitmap bmp(Kind(4), 2, 1, {kit::Level(0), kit::Level(1)}, pal.data());
  const auto stored = bmp.StoredBytes();
  ASSERT_EQ(Q_AdjustBitmapTint(bmp, 3527, 0, 0), RC_SUCCESS);
  EXPECT_EQ(bmp.StoredBytes(), stored);
  EXPECT_EQ(bmp.ColorAt(0, 0), Rgb(157, 156, 0));
  kit::Bitmap fresh(Kind(4), 2, 1, {kit::Level(0), kit::Level(1)}, pal.data());
  ASSERT_EQ(Q_AdjustBitmapTint(fresh, 100, 0, 0), RC_SUCCESS);
  EXPECT_EQ(fresh.ColorAt(1, 0), Rgb(199, 19, 3));  // theta 9000 shifted to -8900
}

TEST(Tint, RegionsGoByRows) {
  // A palette bitmap with a region keeps its palette; pixels inside take the
  // nearest entry of their new colour.
  std::vector<PaletteEntry> pal(16, kDull);
  pal[0] = kGray, pal[1] = PaletteEntry{0, 156, 157, 0};  // the tinted gray
  kit::Bitmap bmp(Kind(4), 4, 1, std::vector<kit::Pixel>(4, kit::Level(0)), pal.data());
  kit::SetRectRegion(bmp, 1, 0, 3, 1);
  ASSERT_EQ(Q_AdjustBitmapTint(bmp, 3527, 0, 0), RC_SUCCESS);
  EXPECT_EQ(bmp->Palette[0].Red, 128);
  EXPECT_EQ(bmp.Pixels(),
            (std::vector<kit::Pixel>{kit::Level(0), kit::Level(1), kit::Level(1), kit::Level(0)}));
  for (const kit::Format &format : {Kind(24), Kind(48)}) {
    SCOPED_TRACE(format.Name());
    const uint32_t mid = format.bits == 48 ? 32768 : 128;
    kit::Bitmap b(format, 18, 11, std::vector<kit::Pixel>(18 * 11, Rgb(mid, mid, mid)));
    kit::SetEllipseRegion(b, 0, 0, 18, 11);
    ASSERT_EQ(Q_AdjustBitmapTint(b, 3527, 0, 0), RC_SUCCESS);
    const kit::Pixel tinted = format.bits == 48 ? Rgb(40133, 40132, 0) : Rgb(157, 156, 0);
    for (int32_t y = 0; y < 11; ++y)
      for (int32_t x = 0; x < 18; ++x)
        EXPECT_EQ(b.At(x, y), kit::InRegion(b, x, y) ? tinted : Rgb(mid, mid, mid)) << x << "," << y;
  }
}

// A row of pixels through the spherical row conversions with the stored
// angles turned in between (a 16-bit angle, one correction), as the palette
// course does: no memo.
std::vector<kit::Pixel> Turned(const std::vector<kit::Pixel> &in, bool wide, int32_t theta, int32_t phi) {
  const auto turn = [](uint8_t *p, int32_t shift) {
    uint16_t a;
    std::memcpy(&a, p, 2);
    int32_t t = static_cast<int16_t>(static_cast<uint16_t>(a + shift));
    t = t >= 9001 ? t - 18000 : t < -9000 ? t + 18000 : t;
    const uint16_t u = static_cast<uint16_t>(t);
    std::memcpy(p, &u, 2);
  };
  const int32_t width = static_cast<int32_t>(in.size()), size = wide ? 8 : 6, angles = wide ? 4 : 2;
  std::vector<uint16_t> row(in.size() * 3);
  for (size_t x = 0; x < in.size(); ++x)
    for (int c = 0; c < 3; ++c) row[x * 3 + c] = static_cast<uint16_t>(in[x].v[2 - c]);
  std::vector<uint8_t> narrow(row.begin(), row.end()), sphere(in.size() * size);
  const auto convert = [&](uint32_t code) {
    return wide ? img::ConvertColorRow16(code, row.data(), sphere.data(), nullptr, 0, width)
                : img::ConvertColorRow8(code, narrow.data(), sphere.data(), nullptr, 0, width);
  };
  std::vector<kit::Pixel> out;
  if (convert(COLORSPACE_SPHERICAL) != RC_SUCCESS) return out;
  for (int32_t x = 0; x < width; ++x) {
    turn(&sphere[x * size + angles], theta);
    turn(&sphere[x * size + angles + 2], phi);
  }
  if (convert(COLORSPACE_SPHERICAL + COLORSPACE_TO_RGB) != RC_SUCCESS) return out;
  for (size_t i = 0; i < row.size(); i += 3)
    out.push_back(wide ? Rgb(row[i + 2], row[i + 1], row[i]) : Rgb(narrow[i + 2], narrow[i + 1], narrow[i]));
  return out;
}

// The rows against the row conversions: one 8-bit colour in 125 (every
// channel a multiple of 5) and random 16-bit colours, for shifts that reach
// both ends and both corrections.
TEST(Tint, RowsMatchTheSphericalRowConversions) {
  const int32_t shifts[][2] = {{3527, 0}, {-18000, 18000}, {1234, -567}, {0, 9000}, {17999, -9001}};
  std::vector<kit::Pixel> cube;
  for (uint32_t r = 0; r < 256; r += 5)
    for (uint32_t g = 0; g < 256; g += 5)
      for (uint32_t b = 0; b < 256; b += 5) cube.push_back(Rgb(r, g, b));
  for (const auto &shift : shifts)
    for (const bool wide : {false, true}) {
      SCOPED_TRACE(testing::Message() << wide << " " << shift[0] << "," << shift[1]);
      const int32_t width = wide ? 256 : 52 * 52, height = wide ? 64 : 52;
      kit::Bitmap bmp =
          wide ? kit::Bitmap(Kind(48), width, height) : kit::Bitmap(Kind(24), width, height, cube);
      if (wide) bmp.Randomize(static_cast<uint32_t>(shift[0] + 20000));
      const std::vector<kit::Pixel> before = bmp.Pixels();
      ASSERT_EQ(Q_AdjustBitmapTint(bmp, shift[0], shift[1], 0), RC_SUCCESS);
      const std::vector<kit::Pixel> after = bmp.Pixels();
      for (int32_t y = 0; y < height; ++y) {
        const auto first = before.begin() + static_cast<std::ptrdiff_t>(y) * width;
        ASSERT_EQ(std::vector<kit::Pixel>(after.begin() + (first - before.begin()),
                                          after.begin() + (first - before.begin()) + width),
                  Turned(std::vector<kit::Pixel>(first, first + width), wide, shift[0], shift[1]))
            << y;
      }
    }
}

// From 2^22 pixels on, 8-bit rows keep a slot for every colour and 16-bit
// rows a larger memo: rows against the row conversions, with a region too.
// The 16-bit colours come in runs that share a slot and differ in one bit
// above its index (each bit of each component in turn).
TEST(Tint, ManyPixels) {
  constexpr int32_t kSide = 2048;
  for (const bool wide : {false, true})
    for (const bool region : {false, true}) {
      SCOPED_TRACE(testing::Message() << wide << (region ? " region" : ""));
      const auto colour = [wide](int32_t x, int32_t y) {
        const uint32_t v = static_cast<uint32_t>(x * 7 + y * 13) % 140000u * 2654435761u;
        if (!wide) return Rgb(v >> 24, (v >> 16) & 0xFF, (v >> 8) & 0xFF);
        const uint32_t r = 20000 + x / 4 % 50, g = 30000 + y % 64, b = 40000, k = x % 4;
        return Rgb(k == 1 ? r ^ 1u << (7 + y % 9) : r, k == 2 ? g ^ 1u << (8 + y % 8) : g,
                   k == 3 ? b ^ 1u << (7 + y % 9) : b);
      };
      kit::Bitmap big(Kind(wide ? 48 : 24), kSide, kSide);
      for (int32_t y = 0; y < kSide; ++y)
        for (int32_t x = 0; x < kSide; ++x) big.Set(x, y, colour(x, y));
      if (region) kit::SetEllipseRegion(big, 0, 0, kSide, kSide);
      ASSERT_EQ(Q_AdjustBitmapTint(big, 1234, -567, 0), RC_SUCCESS);
      for (const int32_t y : {0, 1, 700, kSide / 2, kSide - 1}) {
        std::vector<kit::Pixel> line;
        for (int32_t x = 0; x < kSide; ++x) line.push_back(colour(x, y));
        const std::vector<kit::Pixel> want = Turned(line, wide, 1234, -567);
        ASSERT_EQ(want.size(), line.size());
        for (int32_t x = 0; x < kSide; ++x)
          ASSERT_EQ(big.At(x, y), region && !kit::InRegion(big, x, y) ? line[x] : want[x]) << x << "," << y;
      }
    }
}

TEST(Tint, AllocationFailures) {
  const auto rows = [] {
    kit::Bitmap b(Kind(32), 6, 4);
    b.Randomize(3);
    kit::SetEllipseRegion(b, 0, 0, 6, 4);
    return b;
  };
  const auto tint = [](kit::Bitmap &b) { return Q_AdjustBitmapTint(b, 500, -300, 0); };
  EXPECT_GE(kit::CheckAllocationFailures(rows, tint), 4);
  std::vector<PaletteEntry> pal(16, kDull);
  // The converter and the spherical form of the palette's entries.
  EXPECT_EQ(kit::CheckAllocationFailures([&] { return kit::Bitmap(Kind(4), 2, 2, pal.data()); }, tint), 2);
}

}  // namespace
