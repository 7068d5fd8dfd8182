// Mathematical curves (table, export on every kind, regions, signed samples,
// cancellation, allocation failures) and the colour count.
#include "MATHFs.h"

#include <algorithm>

#include "kit.h"

namespace {

using kit::Bitmap;
using kit::Format;

// Square i^2 f / 10000, root sqrt(i) f / 16, log ln(i) f / 10 (ln 0 is 0), sine and cosine
// (trig(i f / 100 degrees) + 1) * 128 (sin 255 = -0.9659: 4.36); limited to the top, rounded half
// to even. 16 bits scale the factors by 256 (square by 256^2, log by 12.8).
TEST(MathFunctionTable, Edges) {
  struct Case {
    int32_t depth, function, factor;
    std::vector<std::pair<int32_t, int32_t>> entries;  // index, value
  } cases[] = {{8, MATHFUNC_SQUARE, 10000, {{15, 225}, {16, 255}}},
               {8, MATHFUNC_SQUARE, 5000, {{1, 0}, {3, 4}, {5, 12}}},
               {8, MATHFUNC_ROOT, 16, {{255, 16}, {2, 1}}},
               {8, MATHFUNC_ROOT, 4, {{4, 0}}},
               {8, MATHFUNC_ROOT, 20, {{4, 2}}},
               {8, MATHFUNC_SINE, 100, {{0, 128}, {90, 255}, {180, 128}, {255, 4}}},
               {8, MATHFUNC_COSINE, 100, {{0, 255}, {180, 0}}},
               {8, MATHFUNC_LOG, 10, {{0, 0}, {1, 0}, {3, 1}, {255, 6}}},
               {8, MATHFUNC_LOG, 500, {{255, 255}}},
               {16, MATHFUNC_SQUARE, 2560000, {{255, 65025}, {256, 65535}}},
               {16, MATHFUNC_ROOT, 1, {{65535, 256}}},
               {16, MATHFUNC_SINE, 25600, {{0, 32768}, {90, 65535}}},
               {16, MATHFUNC_LOG, 1, {{0, 0}, {65535, 142}}}};
  for (const Case &c : cases) {
    std::vector<int32_t> t(c.depth == 16 ? 65536 : 256, -7);
    img::BuildMathFunctionLut(t.data(), c.depth, c.function, c.factor);
    for (auto [index, value] : c.entries)
      EXPECT_EQ(t[index], value) << "function " << c.function << " factor " << c.factor << " entry " << index
                                 << " depth " << c.depth;
  }
}

TEST(MathFunctionExport, Checks) {
  Bitmap color(Format{24, ORDER_BGR}, 3, 2), gray32(Format{32, ORDER_GRAY}, 3, 2),
      bad(Format{24, ORDER_BGR}, 3, 2);
  bad->StructSize = 0;
  kit::ExpectStatuses({
      {"flags", [] { return Q_MathFunctionBitmap(nullptr, 9, 0, 1); }, RC_INVALID_PARAMETER},
      {"null", [] { return Q_MathFunctionBitmap(nullptr, 9, 0, 0); }, RC_NO_BITMAP},
      {"size", [&] { return Q_MathFunctionBitmap(bad, 9, 0, 0); }, RC_INVALID_STRUCT_SIZE},
      {"gray32", [&] { return Q_MathFunctionBitmap(gray32, 9, 0, 0); }, RC_GRAY32_NOT_SUPPORTED},
      {"function 5", [&] { return Q_MathFunctionBitmap(color, 5, 10, 0); }, RC_INVALID_PARAMETER},
      {"factor 0", [&] { return Q_MathFunctionBitmap(color, MATHFUNC_ROOT, 0, 0); }, RC_INVALID_PARAMETER},
  });
  bad->StructSize = BITMAP_RECORD_SIZE;
}

TEST(MathFunctionExport, EveryKindInsideTheRegion) {
  for (const Format &format : kit::AllFormats(true)) {
    SCOPED_TRACE(format.Name());
    kit::LeakGuard guard;
    Bitmap b(format, 7, 5);
    b.Randomize(8);
    kit::SetEllipseRegion(b, 1, 0, 7, 5);
    const auto before = b.Pixels();
    const bool wide = format.bits >= 48 || (format.IsGray() && format.bits == 16);
    ASSERT_EQ(Q_MathFunctionBitmap(b, MATHFUNC_SQUARE, wide ? 2560000 : 10000, 0), RC_SUCCESS);
    // Palette, 5-bit colour and 12-bit gray go through wider working samples:
    // only the outside is checked there.
    const bool exact =
        wide || format.bits == 24 || format.bits == 32 || (format.IsGray() && format.bits == 8);
    for (int32_t i = 0, y = 0; y < 5; ++y)
      for (int32_t x = 0; x < 7; ++x, ++i) {
        kit::Pixel want = before[i];
        if (kit::InRegion(b, x, y) && !exact) continue;
        for (int k = 0; k < format.Channels() && kit::InRegion(b, x, y); ++k)
          want.v[k] =
              static_cast<uint32_t>(std::min<uint64_t>(uint64_t{want.v[k]} * want.v[k], wide ? 65535 : 255));
        EXPECT_EQ(b.At(x, y), want) << x << "," << y;
      }
  }
  // Signed 16-bit samples index the rotated table by their bit pattern.
  Bitmap s(Format{48, ORDER_BGR}, 1, 1, {kit::Rgb(0x8000, 0, 0x7FFF)});
  s->Flags |= BITMAP_SIGNED;
  ASSERT_EQ(Q_MathFunctionBitmap(s, MATHFUNC_ROOT, 1, 0), RC_SUCCESS);
  EXPECT_EQ(s.At(0, 0), kit::Rgb(0, 181, 256));  // sqrt of 0, 32768, 65535
}

TEST(MathFunctionExport, CancellationAndAllocationFailures) {
  for (const Format &format :
       {Format{24, ORDER_BGR}, Format{64, ORDER_RGB}, Format{8, ORDER_BGR}, Format{32, ORDER_BGR}}) {
    SCOPED_TRACE(format.Name());
    auto setup = [format] {
      Bitmap b(format, 6, 9);
      b.Randomize(1);
      if (format.bits == 32) kit::SetEllipseRegion(b, 0, 0, 6, 9);  // progress by region rows
      return b;
    };
    auto run = [](Bitmap &b) { return Q_MathFunctionBitmap(b, MATHFUNC_COSINE, 300, 0); };
    EXPECT_GT(kit::CheckCancellation(setup, run), 0);
    EXPECT_GT(kit::CheckAllocationFailures(setup, run), 0);
  }
}

TEST(ColorCount, CountsThroughTheKernel) {
  Bitmap b(Format{24, ORDER_BGR}, 3, 1, {kit::Rgb(1, 2, 3), kit::Rgb(1, 2, 3), kit::Rgb(9, 9, 9)});
  uint32_t count = 0;
  ASSERT_EQ(Q_GetBitmapColorCount(b, &count, 0), RC_SUCCESS);
  EXPECT_EQ(count, 2u);
}

}  // namespace
