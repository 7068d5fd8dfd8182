// Q_DesaturateBitmap: entry checks, the lightness of rows and palettes,
// regions, the quiet success without a row buffer, and cleanup.
#include "deSat.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "kit.h"

namespace {

using kit::Pixel;
using kit::Rgb;

kit::Format Kind(int32_t bits, int32_t order = ORDER_BGR) { return kit::Format{bits, order}; }

// A palette that is not a gray ramp, so that the bitmap counts as colour.
std::vector<PaletteEntry> ColourPalette() {
  std::vector<PaletteEntry> p(256);
  for (uint32_t i = 0; i < 256; ++i)
    p[i] = {uint8_t(i * 37 + 5), uint8_t(250 - i * 11), uint8_t(i * 91), uint8_t(i + 3)};
  return p;
}

uint32_t Mid(uint32_t a, uint32_t b, uint32_t c) { return (std::max({a, b, c}) + std::min({a, b, c})) / 2; }

// The lightness of a pixel on the kind's own scale; the fourth sample stays.
// 16-bit colour: 5-bit samples widened to 8 bits for the work, narrowed by 3.
Pixel Expected(const kit::Format &format, const Pixel &p) {
  const auto widen = [](uint32_t v) { return (v << 3) | (v >> 2); };
  const uint32_t v =
      format.bits == 16 ? Mid(widen(p.v[0]), widen(p.v[1]), widen(p.v[2])) >> 3 : Mid(p.v[0], p.v[1], p.v[2]);
  return Rgb(v, v, v, p.v[3]);
}

TEST(Desaturate, ChecksInOrder) {
  kit::Bitmap bmp(Kind(24), 3, 2), gray8(Kind(8, ORDER_GRAY), 2, 2), gray32(Kind(32), 2, 2);
  kit::Bitmap gray12(Kind(12, ORDER_GRAY), 2, 2), gray16(Kind(16, ORDER_GRAY), 2, 2);
  kit::Bitmap rampPalette(Kind(4), 2, 2);
  gray32->ColorOrder = ORDER_GRAY;
  gray32->Flags |= BITMAP_SIGNED;  // -1364 comes first
  const auto withSize = [&](uint32_t size, uint32_t flags) {
    bmp->StructSize = size;
    const int32_t status = Q_DesaturateBitmap(bmp, flags);
    EXPECT_EQ(bmp->StructSize, size) << "record size must be stored back unchanged";
    bmp->StructSize = BITMAP_RECORD_SIZE;
    return status;
  };
  const auto asSigned = [&](BitmapRecord *b) {
    b->Flags |= BITMAP_SIGNED;
    const int32_t status = Q_DesaturateBitmap(b, 0);
    b->Flags &= ~BITMAP_SIGNED;
    return status;
  };
  kit::ExpectStatuses({
      {"flags before null", [] { return Q_DesaturateBitmap(nullptr, 1); }, RC_INVALID_PARAMETER},
      {"flags before size", [&] { return withSize(0, 1); }, RC_INVALID_PARAMETER},
      {"null", [] { return Q_DesaturateBitmap(nullptr, 0); }, RC_NO_BITMAP},
      {"size 0", [&] { return withSize(0, 0); }, RC_INVALID_STRUCT_SIZE},
      {"size 200", [&] { return withSize(200, 0); }, RC_INVALID_STRUCT_SIZE},
      {"size 176", [&] { return withSize(176, 0); }, RC_SUCCESS},
      {"size 208", [&] { return withSize(208, 0); }, RC_SUCCESS},
      {"gray32 before signed", [&] { return Q_DesaturateBitmap(gray32, 0); }, RC_GRAY32_NOT_SUPPORTED},
      {"signed colour", [&] { return asSigned(bmp); }, RC_SIGNED_DATA_NOT_SUPPORTED},
      {"signed before gray", [&] { return asSigned(gray8); }, RC_SIGNED_DATA_NOT_SUPPORTED},
      {"8-bit gray", [&] { return Q_DesaturateBitmap(gray8, 0); }, RC_UNSUPPORTED_BITMAP},
      {"12-bit gray", [&] { return Q_DesaturateBitmap(gray12, 0); }, RC_UNSUPPORTED_BITMAP},
      {"16-bit gray", [&] { return Q_DesaturateBitmap(gray16, 0); }, RC_UNSUPPORTED_BITMAP},
      {"gray-ramp palette", [&] { return Q_DesaturateBitmap(rampPalette, 0); }, RC_UNSUPPORTED_BITMAP},
  });
}

// Hand-worked lightness values: the mean truncates, the largest and smallest
// may sit in any channel, and the fourth sample (4-channel kinds) is kept.
TEST(Desaturate, RowSamples) {
  const std::vector<Pixel> narrow = {Rgb(100, 200, 10, 201), Rgb(255, 0, 0, 201),   Rgb(0, 0, 255, 201),
                                     Rgb(200, 10, 100, 201), Rgb(255, 255, 254, 1), Rgb(77, 77, 77, 201)};
  const std::vector<Pixel> wide = {Rgb(1, 65535, 0, 4321), Rgb(65535, 65535, 65534, 9), Rgb(3, 3, 3, 0)};
  const std::vector<uint32_t> narrowOut = {105, 127, 127, 105, 254, 77}, wideOut = {32767, 65534, 3};
  for (const kit::Format &format : kit::ColorFormats()) {
    if (format.bits == 16) continue;  // 5-bit samples: EveryKind
    SCOPED_TRACE(format.Name());
    const auto &in = format.bits >= 48 ? wide : narrow;
    const auto &out = format.bits >= 48 ? wideOut : narrowOut;
    kit::Bitmap bmp(format, static_cast<int32_t>(in.size()), 1, in);
    ASSERT_EQ(Q_DesaturateBitmap(bmp, 0), RC_SUCCESS);
    for (int32_t x = 0; x < static_cast<int32_t>(in.size()); ++x)
      EXPECT_EQ(bmp.At(x, 0), Rgb(out[x], out[x], out[x], format.Channels() == 4 ? in[x].v[3] : 0)) << x;
  }
}

TEST(Desaturate, EveryKind) {
  const auto palette = ColourPalette();
  for (const kit::Format &format : kit::AllFormats(true)) {
    SCOPED_TRACE(format.Name());
    kit::Bitmap bmp(format, 7, 5, format.IsPalette() ? palette.data() : nullptr);
    bmp.Randomize(11);
    const auto before = bmp.Pixels();
    ASSERT_EQ(Q_DesaturateBitmap(bmp, 0), format.IsGray() ? RC_UNSUPPORTED_BITMAP : RC_SUCCESS);
    if (format.IsGray() || format.IsPalette()) {
      EXPECT_EQ(bmp.Pixels(), before) << "levels and indices stay";
    } else {
      for (int32_t i = 0; i < 35; ++i) EXPECT_EQ(bmp.At(i % 7, i / 7), Expected(format, before[i])) << i;
    }
    if (!format.IsPalette()) continue;
    for (int32_t i = 0; i < bmp->ColorsUsed; ++i) {  // the reserved byte is left as it is
      const PaletteEntry &o = palette[i], &n = bmp->Palette[i];
      const uint32_t v = Mid(o.Blue, o.Green, o.Red);
      EXPECT_TRUE(n.Blue == v && n.Green == v && n.Red == v && n.Reserved == o.Reserved) << i;
    }
  }
}

// Only pixels in the region change; an ellipse leaves corners of its bounding
// box, an empty region everything.
TEST(Desaturate, RegionLimitsTheChange) {
  struct Case {
    bool ellipse;
    int32_t l, t, r, b;
  } cases[] = {{false, 2, 3, 9, 8}, {true, 1, 1, 11, 9}, {false, 2, 2, 2, 2}};
  for (const Case &c : cases)
    for (const kit::Format &format : {Kind(24), Kind(48, ORDER_RGB)}) {
      SCOPED_TRACE(testing::Message() << c.ellipse << " " << c.r - c.l << " " << format.Name());
      kit::Bitmap bmp(format, 12, 10);
      bmp.Randomize(5);
      (c.ellipse ? kit::SetEllipseRegion : kit::SetRectRegion)(bmp, c.l, c.t, c.r, c.b, REGION_SET);
      const auto before = bmp.Pixels();
      ASSERT_EQ(Q_DesaturateBitmap(bmp, 0), RC_SUCCESS);
      int inside = 0, boxKept = 0;
      for (int32_t i = 0; i < 120; ++i) {
        const int32_t x = i % 12, y = i / 12;
        const bool in = kit::InRegion(bmp, x, y);
        inside += in;
        boxKept += !in && x >= c.l && x < c.r && y >= c.t && y < c.b;
        EXPECT_EQ(bmp.At(x, y), in ? Expected(format, before[i]) : before[i]) << x << "," << y;
      }
      EXPECT_EQ(inside + boxKept, (c.r - c.l) * (c.b - c.t));
      EXPECT_EQ(boxKept > 0, c.ellipse);
    }
}

struct Fixture {
  kit::Bitmap bmp;
  std::vector<Pixel> before;
};

// Every allocation failing in turn leaks nothing and gives -1, except the row
// buffer's: that one leaves the bitmap as it is and succeeds quietly. No
// progress is reported.
TEST(Desaturate, AllocationFailuresAndNoProgress) {
  const auto palette = ColourPalette();
  struct Case {
    kit::Format format;
    bool region;
  } cases[] = {{Kind(24), false}, {Kind(64), false}, {Kind(48), true}, {Kind(16), true}, {Kind(8), false}};
  for (const Case &c : cases) {
    SCOPED_TRACE(c.format.Name());
    const auto setup = [&] {
      Fixture f{kit::Bitmap(c.format, 9, 6, c.format.IsPalette() ? palette.data() : nullptr), {}};
      f.bmp.Randomize(2);
      if (c.region) kit::SetEllipseRegion(f.bmp, 0, 0, 9, 6);
      f.before = f.bmp.Pixels();
      return f;
    };
    int quiet = 0;
    const auto call = [&](Fixture &f) {
      const int32_t status = Q_DesaturateBitmap(f.bmp, 0);
      if (status == RC_SUCCESS && GetAllocationFailureCountdown() == 0) {
        ++quiet;
        EXPECT_EQ(f.bmp.Pixels(), f.before) << "quiet success changed the bitmap";
      }
      return status;
    };
    EXPECT_GE(kit::CheckAllocationFailures(setup, call, {RC_NO_MEMORY, RC_SUCCESS}), 1);
    EXPECT_EQ(quiet, c.format.IsPalette() ? 0 : 1);
    EXPECT_EQ(kit::CheckCancellation(setup, [](Fixture &f) { return Q_DesaturateBitmap(f.bmp, 0); }), 0);
  }
}

// Every instruction set gives the scalar loop's bits: random rows of 8- and
// 16-bit samples, three and four a pixel, every run inside a 40-pixel row
// (bytes outside the run untouched).
template <class T>
void CompareIsas(int32_t channels) {
  std::mt19937 rng(3);
  std::vector<T> in(40 * channels);
  for (T &v : in) v = static_cast<T>(rng() >> (sizeof(T) == 1 ? 24 : 16));
  for (int32_t left = 0; left < 20; ++left)
    for (int32_t right = left; right <= 40; ++right) {
      std::vector<T> ref = in;
      img::desat::DesaturatePixels(img::Isa::Scalar, ref.data(), channels, left, right);
      for (img::Isa isa : img::kAllIsas) {
        if (!img::IsaAvailable(isa)) continue;
        std::vector<T> out = in;
        img::desat::DesaturatePixels(isa, out.data(), channels, left, right);
        ASSERT_EQ(out, ref) << img::IsaName(isa) << " " << left << ".." << right;
      }
    }
}

TEST(Desaturate, InstructionSetsGiveScalarBits) {
  for (int32_t channels : {3, 4}) {
    CompareIsas<uint8_t>(channels);
    CompareIsas<uint16_t>(channels);
  }
}

}  // namespace
