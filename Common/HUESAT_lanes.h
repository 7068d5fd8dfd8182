// The 8-bit hue and saturation steps of HUESAT.cpp on vectors of 32-bit
// lanes, written once for the AVX2 and AVX-512 files. Each file defines
// IMG_HUESAT_TARGET (its target string) and a lane type V, includes this
// header once and instantiates the loops; everything here is private to the
// including file and compiled for its target only.
//
// V, for V::kLanes pixels a step (8 or 16):
//   I, U, F                     32-bit signed, unsigned and float lanes (GCC vectors)
//   Load3(q, b, g, r)           the three samples of kLanes 3-byte pixels at q
//   Store3(q, b, g, r)          their low bytes back, exactly 3 kLanes bytes
//
// Every lane runs the scalar formulas with the same integer results:
// - variable divisions n / d are single-precision divisions truncated:
//   for integers |n| < 2^24 and 0 < d < 2^24 both convert exactly, and a
//   quotient that is not an integer lies at least 1/d from one while the
//   rounding error stays below |n / d| 2^-24 < 1/d, so the truncation is the
//   integer quotient (toward zero, as C++ divides). The numerators here stay
//   below 92160 in magnitude.
// - divisions by 255 of 0 <= x <= 66298 are (x 32897) >> 23 in unsigned
//   lanes, and divisions by 360 of 0 <= x <= 599391 are ((x >> 3) 23302) >> 20
//   (both compared with integer division over their whole range; the bounds
//   of each use are noted where it is made);
// - the sectors are compares and selects; the gray cases need no select of
//   their own (noted where they fall out of the formulas).
#pragma once

#include <cstdint>
#include <cstring>

#ifndef IMG_HUESAT_TARGET
#error "define IMG_HUESAT_TARGET before including HUESAT_lanes.h"
#endif

namespace img::huesat {
namespace {

#define IMG_HS_INLINE __attribute__((target(IMG_HUESAT_TARGET), always_inline)) inline

template <class V>
IMG_HS_INLINE typename V::I Max(typename V::I a, typename V::I b) {
  return a > b ? a : b;
}
template <class V>
IMG_HS_INLINE typename V::I Min(typename V::I a, typename V::I b) {
  return a < b ? a : b;
}
template <class V>
IMG_HS_INLINE typename V::I Splat(int32_t v) {
  return typename V::I{} + v;
}
// Truncated n / d through single precision (exact: see above).
template <class V>
IMG_HS_INLINE typename V::I DivF(typename V::I n, typename V::I d) {
  using F = typename V::F;
  return __builtin_convertvector(__builtin_convertvector(n, F) / __builtin_convertvector(d, F),
                                 typename V::I);
}
// x / 255 for 0 <= x <= 66298.
template <class V>
IMG_HS_INLINE typename V::I Div255(typename V::I x) {
  using U = typename V::U;
  return (typename V::I)(((U)x * 32897u) >> 23);
}
// x / 360 for 0 <= x <= 599391.
template <class V>
IMG_HS_INLINE typename V::I Div360(typename V::I x) {
  return ((x >> 3) * 23302) >> 20;
}

// RgbToHsv8, the hue turned by `step`, HsvToRgb8 (HueOp::Pixel8).
template <class V>
struct HueLanes {
  int32_t step;
  IMG_HS_INLINE void operator()(typename V::I &r, typename V::I &g, typename V::I &b) const {
    using I = typename V::I;
    const I mx = Max<V>(Max<V>(r, g), b), mn = Min<V>(Min<V>(r, g), b);
    // The sector of the smallest component (blue, then red, then green) and
    // the hue inside it, 30720 units a third: num * 30720 < 2^23.
    const I bMin = b == mn, rMin = r == mn;
    const I num = bMin ? g - mn : (rMin ? b - mn : r - mn);
    const I den = bMin ? r + g - 2 * mn : (rMin ? b + g - 2 * mn : r + b - 2 * mn);
    const I sector = bMin ? Splat<V>(0) : (rMin ? Splat<V>(30720) : Splat<V>(61440));
    const I gray = mx == mn;
    const I one = Splat<V>(1);
    // Gray: hue and saturation 0 (its den and max may be 0: divide by 1).
    I h = DivF<V>(num * 30720, gray ? one : den) + sector;
    h = gray ? Splat<V>(0) : h;
    // (h + 180) / 360 <= 256, of which the low 8 bits; then the step.
    const I hue = (Div360<V>(h + 180) + step) & 255;
    const I s = DivF<V>((mx - mn) * 255, gray ? one : mx);
    // Back: degrees 0..358, low = (255 - s) v / 255 (at most 65025), d = v - low.
    const I deg = (hue * 360) >> 8;
    const I v = mx;
    const I low = Div255<V>((255 - s) * v);
    const I d = v - low;
    // Six sectors; the middle channel is share * d / rest + low, rest >= 60.
    // A gray pixel (s = 0) has low = v and d = 0: every channel is v, as the
    // scalar step's early return gives.
    const I in0 = deg <= 60, in1 = deg <= 120, in2 = deg <= 180, in3 = deg <= 240, in4 = deg <= 300;
    const I c120 = Splat<V>(120), c240 = Splat<V>(240), c360 = Splat<V>(360);
    const I share = in0   ? deg
                    : in1 ? c120 - deg
                    : in2 ? deg - 120
                    : in3 ? c240 - deg
                    : in4 ? deg - 240
                          : c360 - deg;
    const I rest = in0   ? c120 - deg
                   : in1 ? deg
                   : in2 ? c240 - deg
                   : in3 ? deg - 120
                   : in4 ? c360 - deg
                         : deg - 240;
    const I mid = DivF<V>(share * d, rest) + low;
    r = in0 ? v : in1 ? mid : in3 ? low : in4 ? mid : v;
    g = in0 ? mid : in2 ? v : in3 ? mid : low;
    b = in1 ? low : in2 ? mid : in4 ? v : mid;
  }
};

// One channel of the hexcone from m1, m2 and its hue hh (wrapped by 255:
// hh above 255 loses 255, a negative hh gains 255), capped at 255.
template <class V>
IMG_HS_INLINE typename V::I Channel(typename V::I hh, typename V::I m1, typename V::I m2,
                                    typename V::I span) {
  using I = typename V::I;
  hh = hh >= 256 ? hh - 255 : (hh < 0 ? hh + 255 : hh);
  const I rising = hh <= 41, top = hh <= 126, falling = hh <= 169;
  // The ramps: span * t * 6 / 255 with t <= 43, at most 65790.
  const I t = rising ? hh : 170 - hh;
  const I ramp = m1 + Div255<V>(span * t * 6);
  const I value = rising ? ramp : top ? m2 : falling ? ramp : m1;
  return Min<V>(value, Splat<V>(255));
}

// ChangeSaturation8: the hexcone of 255 steps (SaturationOp::Pixel8).
template <class V>
struct SaturationLanes {
  int32_t step;
  IMG_HS_INLINE void operator()(typename V::I &r, typename V::I &g, typename V::I &b) const {
    using I = typename V::I;
    const I mx = Max<V>(Max<V>(r, g), b), mn = Min<V>(Min<V>(r, g), b);
    const I sum = mx + mn, l = sum >> 1, spread = mx - mn;
    const I gray = mx == mn, lowSide = l <= 127;
    // Gray gives s = 0 (0 * 255 over a divisor of 1), hence hue 0.
    const I one = Splat<V>(1);
    const I s = DivF<V>(spread * 255, gray ? one : (lowSide ? sum : 510 - sum));
    // The hue from the largest component (red, then green): diff * 255 over
    // 6 (max - min), |diff * 255| <= 65025, plus 85 a sector; negative + 255.
    const I rMax = r == mx, gMax = g == mx;
    const I diff = rMax ? g - b : (gMax ? b - r : r - g);
    const I sector = rMax ? Splat<V>(0) : (gMax ? Splat<V>(85) : Splat<V>(170));
    I h = DivF<V>(diff * 255, gray ? Splat<V>(6) : 6 * spread) + sector;
    h = h < 0 ? h + 255 : h;
    h = s == 0 ? Splat<V>(0) : h;
    I s2 = s + ((s * step) >> 8);
    s2 = Min<V>(Max<V>(s2, Splat<V>(0)), Splat<V>(255));
    // m2 = (s2 + 255) l / 255 (at most 64770) up to l 127, else
    // s2 + l - l s2 / 255 (l s2 at most 65025); capped at 255; m1 = 2 l - m2.
    // s2 = 0 gives m2 = m1 = l: every channel l, as the scalar early return.
    const I q = Div255<V>(lowSide ? (s2 + 255) * l : l * s2);
    const I m2 = Min<V>(lowSide ? q : s2 + l - q, Splat<V>(255));
    const I m1 = 2 * l - m2, span = m2 - m1;  // 0 <= span <= 255
    r = Channel<V>(h + 85, m1, m2, span);
    g = Channel<V>(h, m1, m2, span);
    b = Channel<V>(h - 85, m1, m2, span);
  }
};

// Whole groups of V::kLanes pixels from `left` through `kernel`; returns the
// first pixel left over.
template <class V, class Kernel>
IMG_HS_INLINE int32_t RunLanes(uint8_t *row, int32_t channels, int32_t left, int32_t right,
                               const Kernel &kernel) {
  using I = typename V::I;
  int32_t x = left;
  if (channels == 3) {
    for (; x + V::kLanes <= right; x += V::kLanes) {
      uint8_t *p = row + 3 * static_cast<std::ptrdiff_t>(x);
      I b, g, r;
      V::Load3(p, b, g, r);
      kernel(r, g, b);
      V::Store3(p, b, g, r);
    }
  } else if (channels == 4) {
    const I fourth = Splat<V>(static_cast<int32_t>(0xFF000000u)), low8 = Splat<V>(0xFF);
    for (; x + V::kLanes <= right; x += V::kLanes) {
      uint8_t *p = row + 4 * static_cast<std::ptrdiff_t>(x);
      I w;
      std::memcpy(&w, p, sizeof w);
      I b = w & low8, g = (w >> 8) & low8, r = (w >> 16) & low8;
      kernel(r, g, b);
      w = (w & fourth) | (b & low8) | (g & low8) << 8 | (r & low8) << 16;
      std::memcpy(p, &w, sizeof w);
    }
  }
  return x;
}

#undef IMG_HS_INLINE

}  // namespace
}  // namespace img::huesat
