// Mathematical curves: the table at its edges, the export's checks, every
// kind of bitmap, the fourth sample, regions, signed samples, cancellation
// and allocation failures; and the colour count.
#include "MATHFs.h"

#include <cmath>

#include "kit.h"

namespace {

using kit::Bitmap;
using kit::Spec;

TEST(MathFunctionTable, Edges) {
  struct Case {
    int32_t depth;
    uint32_t function, factor;
    int32_t index, expected;
  } cases[] = {
      {8, MATHFUNC_SQUARE, 10000, 15, 225},
      {8, MATHFUNC_SQUARE, 10000, 16, 255},
      {8, MATHFUNC_SQUARE, 5000, 1, 0},
      {8, MATHFUNC_SQUARE, 5000, 3, 4},  // 0.5 and 4.5: ties to even
      {8, MATHFUNC_SQUARE, 5000, 5, 12},
      {8, MATHFUNC_ROOT, 16, 255, 16},
      {8, MATHFUNC_ROOT, 16, 2, 1},
      {8, MATHFUNC_ROOT, 4, 4, 0},  // 0.5
      {8, MATHFUNC_ROOT, 12, 4, 2},
      {8, MATHFUNC_ROOT, 20, 4, 2},  // 1.5, 2.5
      {8, MATHFUNC_SINE, 100, 0, 128},
      {8, MATHFUNC_SINE, 100, 90, 255},
      {8, MATHFUNC_SINE, 100, 180, 128},
      {8, MATHFUNC_SINE, 100, 255, 4},
      {8, MATHFUNC_COSINE, 100, 0, 255},
      {8, MATHFUNC_COSINE, 100, 180, 0},
      {8, MATHFUNC_LOG, 10, 0, 0},
      {8, MATHFUNC_LOG, 10, 1, 0},
      {8, MATHFUNC_LOG, 10, 3, 1},
      {8, MATHFUNC_LOG, 10, 255, 6},
      {8, MATHFUNC_LOG, 500, 255, 255},
      {16, MATHFUNC_SQUARE, 2560000, 255, 65025},
      {16, MATHFUNC_SQUARE, 2560000, 256, 65535},
      {16, MATHFUNC_ROOT, 1, 65535, 256},
      {16, MATHFUNC_SINE, 25600, 0, 32768},
      {16, MATHFUNC_SINE, 25600, 90, 65535},
      {16, MATHFUNC_LOG, 1, 0, 0},
      {16, MATHFUNC_LOG, 1, 65535, 142},  // ln(65535) * 12.8
  };
  for (const Case &c : cases) {
    std::vector<int32_t> t(c.depth == 16 ? 65536 : 256, -7);
    img::BuildMathFunctionLut(t.data(), c.depth, c.function, c.factor);
    EXPECT_EQ(t[c.index], c.expected) << "function " << c.function << " factor " << c.factor << " entry "
                                      << c.index << " depth " << c.depth;
  }
  // sin(255 pi' / 180) = -0.9659: (1 - 0.9659) * 128 = 4.36.
  EXPECT_NEAR((std::sin(255 * 3.1415926535 / 180.0) + 1.0) * 128.0, 4.36, 0.01);
}

TEST(MathFunctionExport, Checks) {
  Bitmap color(Spec{24, ORDER_BGR}, 3, 2);
  Bitmap gray32(Spec{32, ORDER_GRAY}, 3, 2);
  Bitmap bad(Spec{24, ORDER_BGR}, 3, 2);
  bad->StructSize = 0;
  kit::ExpectStatuses({
      {"flags", [] { return Q_MathFunctionBitmap(nullptr, 9, 0, 1); }, RC_INVALID_PARAMETER},
      {"null", [] { return Q_MathFunctionBitmap(nullptr, 9, 0, 0); }, RC_NO_BITMAP},
      {"size", [&] { return Q_MathFunctionBitmap(bad, 9, 0, 0); }, RC_INVALID_STRUCT_SIZE},
      {"gray32", [&] { return Q_MathFunctionBitmap(gray32, 9, 0, 0); }, RC_GRAY32_NOT_SUPPORTED},
      {"function 5", [&] { return Q_MathFunctionBitmap(color, 5, 10, 0); }, RC_INVALID_PARAMETER},
      {"factor 0", [&] { return Q_MathFunctionBitmap(color, MATHFUNC_ROOT, 0, 0); }, RC_INVALID_PARAMETER},
      {"root", [&] { return Q_MathFunctionBitmap(color, MATHFUNC_ROOT, 16, 0); }, RC_SUCCESS},
  });
  bad->StructSize = BITMAP_RECORD_SIZE;
}

TEST(MathFunctionExport, EveryKindAndTheFourthSample) {
  for (const Spec &spec : kit::AllSpecs(true)) {
    SCOPED_TRACE(spec.Name());
    kit::LeakGuard guard;
    Bitmap b(spec, 5, 3);
    b.Randomize(8);
    const auto before = b.Pixels();
    const bool wide = spec.bits >= 48 || (spec.IsGray() && spec.bits == 16);
    ASSERT_EQ(Q_MathFunctionBitmap(b, MATHFUNC_SQUARE, wide ? 2560000 : 10000, 0), RC_SUCCESS);
    const bool exact = wide || spec.bits == 24 || spec.bits == 32 || (spec.IsGray() && spec.bits == 8);
    if (!exact) continue;  // palette, 5-bit colour and 12-bit gray go through wider working samples
    const uint32_t top = wide ? 65535 : 255;
    for (size_t i = 0; i < before.size(); ++i)
      for (int k = 0; k < spec.Channels(); ++k) {
        const uint32_t v = before[i].v[k];
        EXPECT_EQ(b.Pixels()[i].v[k], std::min<uint64_t>(uint64_t{v} * v, top)) << i << "/" << k;
      }
  }
  Bitmap b(Spec{32, ORDER_BGR}, 1, 1, {kit::Rgb(3, 4, 5, 9)});
  ASSERT_EQ(Q_MathFunctionBitmap(b, MATHFUNC_SQUARE, 10000, 0), RC_SUCCESS);
  EXPECT_EQ(b.At(0, 0), kit::Rgb(9, 16, 25, 81));
}

TEST(MathFunctionExport, RegionAndSignedSamples) {
  Bitmap b(Spec{24, ORDER_RGB}, 11, 7);
  b.Randomize(2);
  kit::SetEllipseRegion(b, 2, 1, 10, 7);
  const auto before = b.Pixels();
  ASSERT_EQ(Q_MathFunctionBitmap(b, MATHFUNC_ROOT, 16, 0), RC_SUCCESS);
  for (int32_t i = 0, y = 0; y < 7; ++y)
    for (int32_t x = 0; x < 11; ++x, ++i) {
      kit::Pixel want = before[i];
      if (kit::InRegion(b, x, y))
        for (int k = 0; k < 3; ++k) want.v[k] = static_cast<uint32_t>(std::nearbyint(std::sqrt(want.v[k])));
      EXPECT_EQ(b.At(x, y), want) << x << "," << y;
    }
  // Signed 16-bit samples index the rotated table by their bit pattern.
  Bitmap s(Spec{48, ORDER_BGR}, 1, 1, {kit::Rgb(0x8000, 0, 0x7FFF)});
  s->Flags |= BITMAP_SIGNED;
  ASSERT_EQ(Q_MathFunctionBitmap(s, MATHFUNC_ROOT, 1, 0), RC_SUCCESS);
  EXPECT_EQ(s.At(0, 0), kit::Rgb(0, 181, 256));  // sqrt of 0, 32768, 65535
}

TEST(MathFunctionExport, CancellationAndAllocationFailures) {
  for (const Spec &spec : {Spec{24, ORDER_BGR}, Spec{64, ORDER_RGB}, Spec{8, ORDER_BGR}}) {
    SCOPED_TRACE(spec.Name());
    auto setup = [spec] {
      Bitmap b(spec, 6, 9);
      b.Randomize(1);
      return b;
    };
    auto run = [](Bitmap &b) { return Q_MathFunctionBitmap(b, MATHFUNC_COSINE, 300, 0); };
    EXPECT_GT(kit::CheckCancellation(setup, run), 0);
    EXPECT_GT(kit::CheckAllocationFailures(setup, run), 0);
  }
  auto regionSetup = [] {
    Bitmap b(Spec{24, ORDER_BGR}, 6, 9);
    kit::SetEllipseRegion(b, 0, 0, 6, 9);
    return b;
  };
  EXPECT_GT(kit::CheckCancellation(regionSetup, [](Bitmap &b) { return Q_MathFunctionBitmap(b, 2, 3, 0); }),
            0);
}

TEST(ColorCount, CountsThroughTheKernel) {
  Bitmap b(Spec{24, ORDER_BGR}, 4, 1,
           {kit::Rgb(1, 2, 3), kit::Rgb(1, 2, 3), kit::Rgb(9, 9, 9), kit::Rgb(0, 0, 0)});
  uint32_t count = 0;
  ASSERT_EQ(Q_GetBitmapColorCount(b, &count, 0), RC_SUCCESS);
  EXPECT_EQ(count, 3u);
}

}  // namespace
