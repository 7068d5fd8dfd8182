// Table builder of Q_MathFunctionBitmap (MATHFs.cpp), declared for the tests.
#pragma once

#include <cstdint>

namespace img {

// Fills 2^depth entries (depth 8 or 16: the row converter's sample width)
// with the curve of `function` (MATHFUNC_*) scaled by `factor`, limited to
// 2^depth - 1 and rounded to nearest, ties to even.
void BuildMathFunctionLut(int32_t *table, int32_t depth, uint32_t function, uint32_t factor);

}  // namespace img
