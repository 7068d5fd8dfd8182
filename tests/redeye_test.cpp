// Q_RemoveRedeyeBitmap: entry checks, the byte Lab course against a reference
// on both sample widths, the match threshold and lightness, the kept
// orientation rule.
#include "RedEye.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "kit.h"

namespace {

using kit::Rgb;

kit::Format Kind(int32_t bits, int32_t order = ORDER_BGR, int32_t orientation = ORIENT_TOP_FIRST) {
  return kit::Format{bits, order, orientation};
}

// The course's byte Lab round trip of one colour (red, green, blue on `max`).
struct Reference {
  double xn, zn, max;
  int32_t Limit(double v, double lo, double hi) const { return int32_t(std::clamp(v + 0.5, lo, hi)); }
  static double F(double t) { return t > 0.008856 ? std::pow(t, 1.0 / 3.0) : 7.787 * t + 16.0 / 116.0; }
  static double Fi(double u) { return u > 0.206893 ? u * u * u : (u - 16.0 / 116.0) / 7.787; }
  std::vector<int32_t> Lab(double R, double G, double B) const {
    const double X = (0.412453 * R + 0.357580 * G + 0.180423 * B) / xn;
    const double Y = (0.212671 * R + 0.715160 * G + 0.072169 * B) / max;
    const double Z = (0.019334 * R + 0.119193 * G + 0.950227 * B) / zn;
    const double L = Y > 0.008856 ? 116 * F(Y) - 16 : 903.3 * Y;
    return {Limit(L, 0, 100), Limit(500 * (F(X) - F(Y)), -128, 127), Limit(200 * (F(Y) - F(Z)), -128, 127)};
  }
  kit::Pixel Back(int32_t L, int32_t a, int32_t b, uint32_t fourth) const {
    const double fy = (L + 16) / 116.0, Yr = fy > 0.206893 ? fy * fy * fy : L / 903.3;
    const double X = Fi(a / 500.0 + fy) * xn, Y = Yr * max, Z = Fi(fy - b / 200.0) * zn;
    return Rgb(Limit(3.240479 * X - 1.537150 * Y - 0.498535 * Z, 0, max),
               Limit(-0.969256 * X + 1.875992 * Y + 0.041556 * Z, 0, max),
               Limit(0.055648 * X - 0.204043 * Y + 1.057311 * Z, 0, max), fourth);
  }
  kit::Pixel Apply(const kit::Pixel &p, uint32_t colour, int32_t threshold, int32_t lightness) const {
    const double widen = max > 255 ? 257 : 1;
    const auto rep =
        Lab((colour & 0xFF) * widen, ((colour >> 8) & 0xFF) * widen, ((colour >> 16) & 0xFF) * widen);
    auto lab = Lab(p.v[0], p.v[1], p.v[2]);
    if (lab[1] >= int64_t(threshold) - 128) {
      lab = {int32_t(std::clamp(lab[0] * (lightness / 100.0), 0.0, 100.0)), rep[1], rep[2]};
    }
    return Back(lab[0], lab[1], lab[2], p.v[3]);
  }
};
constexpr Reference kRef8{242.36628, 277.63227, 255}, kRef16{62288.13396, 71351.49339, 65535};

// The fast cube roots, one colour at a time and in the batches of each path
// (the levels below AVX-512 take the scalar one), give pow's byte Lab for every 8-bit colour, and
// for 16-bit colours at random, at the extremes and along the gray axis.
TEST(RemoveRedeye, FastLabMatchesPowEverywhere) {
  using img::redeye::Batch, img::redeye::Lab;
  int64_t mismatches = 0;
  Batch batch{};
  std::vector<Lab> exact(Batch::kSize);
  const auto check = [&](bool wide, int32_t n) {
    for (int32_t i = 0; i < n; ++i) {
      exact[i] = img::redeye::ToLabExact(wide, batch.r[i], batch.g[i], batch.b[i]);
      if (!(img::redeye::ToLabFast(wide, batch.r[i], batch.g[i], batch.b[i]) == exact[i]) && ++mismatches < 5)
        ADD_FAILURE() << "one colour, wide " << wide << ": " << batch.r[i] << " " << batch.g[i] << " "
                      << batch.b[i];
    }
    for (img::Isa isa : {img::Isa::Scalar, img::Isa::Avx512}) {
      if (!img::IsaAvailable(isa)) continue;
      img::redeye::ToLabBatch(isa, wide ? img::redeye::kScale16 : img::redeye::kScale8, batch, n);
      for (int32_t i = 0; i < n; ++i)
        if (!(batch.lab[i] == exact[i]) && ++mismatches < 5)
          ADD_FAILURE() << img::IsaName(isa) << ", wide " << wide << ": " << batch.r[i] << " " << batch.g[i]
                        << " " << batch.b[i];
    }
  };
  for (int32_t c = 0; c < (1 << 24); c += Batch::kSize) {
    for (int32_t i = 0; i < Batch::kSize; ++i)
      batch.r[i] = (c + i) >> 16, batch.g[i] = ((c + i) >> 8) & 0xFF, batch.b[i] = (c + i) & 0xFF;
    check(false, Batch::kSize);
  }
  std::mt19937 rng(11);
  for (int32_t i = 0; i < (1 << 20); ++i) {
    const uint32_t v = rng(), w = rng();
    const int32_t k = i % Batch::kSize;
    batch.r[k] = i < 65536 ? i : int32_t(v & 0xFFFF);
    batch.g[k] = i < 65536 ? i : int32_t(v >> 16);
    batch.b[k] = i < 65536 ? (i & 1 ? 65535 - i : i) : int32_t(w & 0xFFFF);
    // Every fifth batch is partial (its tail lanes are not asked for).
    if (k == Batch::kSize - 1) check(true, (i / Batch::kSize) % 5 == 0 ? Batch::kSize - 3 : Batch::kSize);
  }
  EXPECT_EQ(mismatches, 0);
}

// The back conversion of every byte Lab value on both scales: the AVX-512
// lanes give the scalar samples (the same doubles, so no margin is needed).
TEST(RemoveRedeye, BackLanesEqualScalar) {
  if (!img::IsaAvailable(img::Isa::Avx512)) GTEST_SKIP() << "no AVX-512";
  using img::redeye::Batch;
  Batch lanes{}, scalar{};
  int64_t mismatches = 0;
  for (const img::redeye::Scale &scale : {img::redeye::kScale8, img::redeye::kScale16})
    for (int32_t v = 0; v < 101 * 65536; v += Batch::kSize) {
      for (int32_t i = 0; i < Batch::kSize; ++i)
        lanes.lab[i] = scalar.lab[i] = {(v + i) >> 16, int32_t((v + i) >> 8 & 0xFF) - 128,
                                        int32_t((v + i) & 0xFF) - 128};
      img::redeye::FromLabBatch(img::Isa::Avx512, scale, lanes, Batch::kSize);
      img::redeye::FromLabBatch(img::Isa::Scalar, scale, scalar, Batch::kSize);
      for (int32_t i = 0; i < Batch::kSize; ++i)
        if ((lanes.r[i] != scalar.r[i] || lanes.g[i] != scalar.g[i] || lanes.b[i] != scalar.b[i]) &&
            ++mismatches < 5)
          ADD_FAILURE() << "L " << lanes.lab[i].L << " a " << lanes.lab[i].a << " b " << lanes.lab[i].b;
    }
  EXPECT_EQ(mismatches, 0);
}

TEST(RemoveRedeye, ChecksInOrder) {
  kit::Bitmap bmp(Kind(24), 3, 2), gray8(Kind(8, ORDER_GRAY), 2, 2), gray32(Kind(32), 2, 2);
  gray32->ColorOrder = ORDER_GRAY;
  gray32->Flags |= BITMAP_SIGNED;
  BitmapRecord unallocated{};
  unallocated.StructSize = 0;  // -2 comes before the size
  const auto withSize = [&](uint32_t size, uint32_t flags) {
    bmp->StructSize = size;
    const int32_t status = Q_RemoveRedeyeBitmap(bmp, 0, 128, 100, flags);
    bmp->StructSize = BITMAP_RECORD_SIZE;
    return status;
  };
  const auto asSigned = [&](BitmapRecord *b) {
    b->Flags |= BITMAP_SIGNED;
    const int32_t status = Q_RemoveRedeyeBitmap(b, 0, 128, 100, 0);
    b->Flags &= ~BITMAP_SIGNED;
    return status;
  };
  kit::ExpectStatuses({
      {"flags before null", [] { return Q_RemoveRedeyeBitmap(nullptr, 0, 0, 0, 1); }, RC_INVALID_PARAMETER},
      {"null", [] { return Q_RemoveRedeyeBitmap(nullptr, 0, 0, 0, 0); }, RC_NO_BITMAP},
      {"unallocated before size", [&] { return Q_RemoveRedeyeBitmap(&unallocated, 0, 0, 0, 0); },
       RC_NO_BITMAP},
      {"size 200", [&] { return withSize(200, 0); }, RC_INVALID_STRUCT_SIZE},
      {"size 176", [&] { return withSize(176, 0); }, RC_SUCCESS},
      {"gray32 before signed", [&] { return Q_RemoveRedeyeBitmap(gray32, 0, 0, 0, 0); },
       RC_GRAY32_NOT_SUPPORTED},
      {"signed before gray", [&] { return asSigned(gray8); }, RC_SIGNED_DATA_NOT_SUPPORTED},
      {"8-bit gray", [&] { return Q_RemoveRedeyeBitmap(gray8, 0, 0, 0, 0); }, RC_UNSUPPORTED_BITMAP},
      {"any threshold and lightness", [&] { return Q_RemoveRedeyeBitmap(bmp, 0, INT32_MIN, INT32_MIN, 0); },
       RC_SUCCESS},
  });
}

// Hand-worked anchors: white and black survive the round trip; pure red is
// L* 53, a* 80, b* 67, so threshold 208 (a* 80) matches it and 209 does not.
TEST(RemoveRedeye, Anchors) {
  EXPECT_EQ(kRef8.Lab(255, 0, 0), (std::vector<int32_t>{53, 80, 67}));
  struct Case {
    kit::Pixel in;
    uint32_t colour;
    int32_t threshold, lightness;
    kit::Pixel out;
  } cases[] = {
      {Rgb(255, 255, 255), 0xFFFFFF, 0, 100, Rgb(255, 255, 255)},
      {Rgb(255, 255, 255), 0, 255, 100, Rgb(255, 255, 255)},
      {Rgb(0, 0, 0), 0x00FF00, 255, 100, Rgb(0, 0, 0)},
      {Rgb(200, 50, 40), 0x808080, 0, 0, Rgb(0, 0, 0)},  // lightness 0: black
      {Rgb(255, 0, 0), 0x808080, 208, 100, kRef8.Back(53, 0, 0, 0)},
      {Rgb(255, 0, 0), 0x808080, 209, 100, kRef8.Back(53, 80, 67, 0)},
      {Rgb(255, 0, 0), 0x808080, 208, 200, kRef8.Back(100, 0, 0, 0)},  // doubled, held to 100
  };
  for (const Case &c : cases) {
    kit::Bitmap bmp(Kind(24), 1, 1, {c.in});
    ASSERT_EQ(Q_RemoveRedeyeBitmap(bmp, c.colour, c.threshold, c.lightness, 0), RC_SUCCESS);
    EXPECT_EQ(bmp.At(0, 0), c.out) << c.in << " threshold " << c.threshold;
  }
}

// Random pixels of every colour kind (many colours: the 8-bit cache sees
// collisions), a region, a few settings, every available instruction set:
// every pixel equals the reference.
TEST(RemoveRedeye, EveryColourKindMatchesReference) {
  const struct {
    uint32_t colour;
    int32_t threshold, lightness;
    bool region;
  } settings[] = {{0x202020, 140, 70, true}, {0x00FF00, 0, 150, false}, {0x4080C0, 255, 100, true}};
  for (const kit::Format &base : kit::ColorFormats()) {
    for (int32_t orientation : {ORIENT_TOP_FIRST, ORIENT_BOTTOM_FIRST}) {
      kit::Format format = base;
      format.orientation = orientation;
      for (const auto &s : settings)
        for (img::Isa isa : img::kAllIsas) {
          if (!img::IsaAvailable(isa)) continue;
          SCOPED_TRACE(format.Name() + " threshold " + std::to_string(s.threshold) + " " + img::IsaName(isa));
          kit::Bitmap bmp(format, 60, 40);
          bmp.Randomize(s.threshold + 7);
          if (s.region) kit::SetEllipseRegion(bmp, 3, 2, 55, 37);
          const auto before = bmp.Pixels();
          ASSERT_EQ(img::RemoveRedeyeIsa(bmp, s.colour, s.threshold, s.lightness, 0, isa), RC_SUCCESS);
          EXPECT_EQ(bmp->Orientation, orientation) << "turned back after a complete pass";
          const Reference &ref = format.bits >= 48 ? kRef16 : kRef8;
          for (int32_t i = 0; i < 60 * 40; ++i) {
            const int32_t x = i % 60, y = i / 60;
            kit::Pixel want = before[i];
            if (kit::InRegion(bmp, x, y)) {
              if (format.bits == 16) {  // 5-bit samples: worked on 8 bits, stored >> 3
                const auto w = [](uint32_t v) { return (v << 3) | (v >> 2); };
                const kit::Pixel p = kRef8.Apply(Rgb(w(want.v[0]), w(want.v[1]), w(want.v[2])), s.colour,
                                                 s.threshold, s.lightness);
                want = Rgb(p.v[0] >> 3, p.v[1] >> 3, p.v[2] >> 3, want.v[3]);
              } else {
                want = ref.Apply(want, s.colour, s.threshold, s.lightness);
                if (format.Channels() == 3) want.v[3] = 0;
              }
            }
            ASSERT_EQ(bmp.At(x, y), want) << x << "," << y << " from " << before[i];
          }
        }
    }
  }
}

// Kept: a refused gray bitmap stays turned top row first; a colour palette
// bitmap goes through its rows and keeps its palette.
TEST(RemoveRedeye, OrientationAndPalette) {
  kit::Bitmap gray(
      Kind(8, ORDER_GRAY, ORIENT_BOTTOM_FIRST), 2, 3,
      {kit::Level(1), kit::Level(2), kit::Level(3), kit::Level(4), kit::Level(5), kit::Level(6)});
  const auto pixels = gray.Pixels();
  ASSERT_EQ(Q_RemoveRedeyeBitmap(gray, 0, 0, 100, 0), RC_UNSUPPORTED_BITMAP);
  EXPECT_EQ(gray->Orientation, ORIENT_TOP_FIRST);
  EXPECT_EQ(gray.Pixels(), pixels) << "the image is the same, only its rows are stored the other way";

  PaletteEntry palette[16] = {};
  palette[0] = {0, 0, 255, 0};      // red (blue, green, red)
  palette[1] = {128, 128, 128, 0};  // gray
  kit::Bitmap indexed(Kind(4), 2, 1, {kit::Level(0), kit::Level(1)}, palette);
  ASSERT_EQ(Q_RemoveRedeyeBitmap(indexed, 0x808080, 150, 0, 0), RC_SUCCESS);
  EXPECT_EQ(indexed.At(0, 0), kit::Level(2)) << "red became black: the first black entry";
  EXPECT_EQ(indexed.At(1, 0), kit::Level(1));
  EXPECT_EQ(indexed->Palette[0].Red, 255);
}

}  // namespace
