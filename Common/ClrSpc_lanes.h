// The YCrCb loops of the AVX2 and AVX-512 files, written once over a lane
// type V. Each of those files defines IMG_LANES_TARGET (its target string),
// includes this header once and instantiates the loops with its lane type;
// the templates are private to the including file (anonymous namespace) and
// compiled for its target only.
//
// V, for V::kLanes pixels a step (8 or 16) of instruction set V::kIsa:
//   I                      32-bit integer lanes (float lanes F and double lanes D,
//                          half as many, are the types of ToFloat and Half)
//   Fields(q, f0, f1, f2)  the three fields of kLanes 3-byte pixels at q, zero-extended
//   Store(q, f0, f1, f2)   their low bytes back as kLanes 3-byte pixels
//   Sext8, Clamp(v, lo, hi), ToFloat(I), Trunc(F), Half(I, 0 or 1) -> D, Trunc(D, D)
//   AnyNearInteger(a, b, c)        a lane of a, b or c within 2e-4 of an integer
//   AnyNearNonzeroInteger(g, x, y) a lane of g beyond 0.5 and within 2e-4 of an
//                                  integer where x or y is not 0
//
// Both loops compute every lane in single precision first. The estimate e of
// a value v that the doubles compute within 1e-12 stays within 7e-5 of v
// (three rounded products and two rounded sums of at most 512, and the
// constants' own rounding); unless e lies within 2e-4 of an integer,
// trunc(e) = trunc(v) = trunc of the double result. A group with a lane near
// an integer is redone in doubles, with the operations in the formulas'
// order (no fused multiply-add: -ffp-contract=off), then clamped as the
// reference does. The arithmetic is written with the compiler's vector
// operators, the same instructions as the intrinsics.
#pragma once

#include <cstddef>
#include <cstdint>

#include "ClrSpc_internal.h"

#ifndef IMG_LANES_TARGET
#error "define IMG_LANES_TARGET before including ClrSpc_lanes.h"
#endif

namespace img::clrspc {
namespace {

#define IMG_LANES_INLINE __attribute__((target(IMG_LANES_TARGET), always_inline)) inline

// The set and width of a lane type (its base).
template <Isa kSet, int32_t kCount>
struct LaneSet {
  static constexpr Isa kIsa = kSet;
  static constexpr int32_t kLanes = kCount;
};

// Forward over whole groups from `first`; returns the first pixel left over.
// Y is an integer or at least 0.001 from one; Cr and Cb are 0 only for gray
// pixels, whose Y is an integer (so such groups are redone anyway).
// Unflagged results need no clamping: Y lies in 0..254, Cr and Cb in
// -127..127.
template <class V>
IMG_LANES_INLINE int32_t YcrcbForward(const uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  using I = typename V::I;
  using D = decltype(V::Half(I{}, 0));
  int32_t i = first;
  for (; i + V::kLanes <= end; i += V::kLanes) {
    I B, G, R;
    V::Fields(rgb + 3 * static_cast<ptrdiff_t>(i), B, G, R);
    const auto r = V::ToFloat(R), g = V::ToFloat(G), b = V::ToFloat(B);
    const auto y = 0.299f * r + 0.587f * g + 0.114f * b;
    const auto cr = 0.5f * r - 0.41869f * g - 0.08131f * b;
    const auto cb = -0.16874f * r - 0.33126f * g + 0.5f * b;
    I out[3];
    if (V::AnyNearInteger(y, cr, cb)) {
      D yd[2], crd[2], cbd[2];
      for (int h = 0; h < 2; ++h) {
        const D rh = V::Half(R, h), gh = V::Half(G, h), bh = V::Half(B, h);
        yd[h] = 0.299 * rh + 0.587 * gh + 0.114 * bh;
        crd[h] = 0.5 * rh - 0.41869 * gh - 0.08131 * bh;
        cbd[h] = -0.16874 * rh - 0.33126 * gh + 0.5 * bh;
      }
      out[0] = V::Clamp(V::Trunc(yd[0], yd[1]), 0, 255);
      out[1] = V::Clamp(V::Trunc(crd[0], crd[1]), -128, 127);
      out[2] = V::Clamp(V::Trunc(cbd[0], cbd[1]), -128, 127);
    } else {
      out[0] = V::Trunc(y);
      out[1] = V::Trunc(cr);
      out[2] = V::Trunc(cb);
    }
    V::Store(sp + 3 * static_cast<ptrdiff_t>(i), out[0], out[1], out[2]);
  }
  return i;
}

// Inverse, likewise. R = Y + 1.402 Cr is an integer only for Cr = 0 (then
// exactly Y in floats and doubles alike) and otherwise at least 0.001 from
// one, far beyond the single-precision error (below 5e-5); likewise
// B = Y + 1.772 Cb. G can come within 1e-8 of an integer: groups with G near
// one (other than Cb = Cr = 0, exactly Y; or near 0, which truncates to 0
// either way) are redone in doubles.
template <class V>
IMG_LANES_INLINE int32_t YcrcbInverse(uint8_t *rgb, const uint8_t *sp, int32_t first, int32_t end) {
  using I = typename V::I;
  using D = decltype(V::Half(I{}, 0));
  int32_t i = first;
  for (; i + V::kLanes <= end; i += V::kLanes) {
    I Y, Cr, Cb;
    V::Fields(sp + 3 * static_cast<ptrdiff_t>(i), Y, Cr, Cb);
    Cr = V::Sext8(Cr), Cb = V::Sext8(Cb);
    const auto y = V::ToFloat(Y), cr = V::ToFloat(Cr), cb = V::ToFloat(Cb);
    const auto g = y - 0.3441363f * cb - 0.71413636f * cr;
    I out[3];
    if (V::AnyNearNonzeroInteger(g, Cr, Cb)) {
      D rd[2], gd[2], bd[2];
      for (int h = 0; h < 2; ++h) {
        const D yh = V::Half(Y, h), crh = V::Half(Cr, h), cbh = V::Half(Cb, h);
        rd[h] = yh + 1.402 * crh;
        gd[h] = yh - 0.3441363 * cbh - 0.71413636 * crh;
        bd[h] = yh + 1.772 * cbh;
      }
      out[0] = V::Clamp(V::Trunc(rd[0], rd[1]), 0, 255);
      out[1] = V::Clamp(V::Trunc(gd[0], gd[1]), 0, 255);
      out[2] = V::Clamp(V::Trunc(bd[0], bd[1]), 0, 255);
    } else {
      out[0] = V::Clamp(V::Trunc(y + 1.402f * cr), 0, 255);
      out[1] = V::Clamp(V::Trunc(g), 0, 255);
      out[2] = V::Clamp(V::Trunc(y + 1.772f * cb), 0, 255);
    }
    V::Store(rgb + 3 * static_cast<ptrdiff_t>(i), out[2], out[1], out[0]);
  }
  return i;
}

// The row loops: whole groups, the rest through the levels below V::kIsa.
template <class V>
__attribute__((target(IMG_LANES_TARGET))) void YcrcbFwdRow(const LabTableSet *set, uint8_t *rgb, uint8_t *sp,
                                                           int32_t first, int32_t end) {
  const int32_t i = YcrcbForward<V>(rgb, sp, first, end);
  if (i < end) RowBelow(V::kIsa, COLORSPACE_YCRCB)(set, rgb, sp, i, end);
}
template <class V>
__attribute__((target(IMG_LANES_TARGET))) void YcrcbInvRow(const LabTableSet *set, uint8_t *rgb, uint8_t *sp,
                                                           int32_t first, int32_t end) {
  const int32_t i = YcrcbInverse<V>(rgb, sp, first, end);
  if (i < end) RowBelow(V::kIsa, COLORSPACE_YCRCB + kToRgb)(set, rgb, sp, i, end);
}

#undef IMG_LANES_INLINE

}  // namespace
}  // namespace img::clrspc
