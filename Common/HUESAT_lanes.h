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
//   lanes, by 100 of 0 <= x <= 43698 are (x 5243) >> 19, by 60 of
//   0 <= x <= 61439 are (x 34953) >> 21, and by 360 of
//   0 <= x <= 599391 are ((x >> 3) 23302) >> 20
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
// x / 100 for 0 <= x <= 43698.
template <class V>
IMG_HS_INLINE typename V::I Div100(typename V::I x) {
  return (x * 5243) >> 19;
}
// x / 60 for 0 <= x <= 61439 (the product stays below 2^31).
template <class V>
IMG_HS_INLINE typename V::I Div60(typename V::I x) {
  return (x * 34953) >> 21;
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

// A hexcone channel (at most 256) held to 255, plus the intensity, held to
// 0..255.
template <class V>
IMG_HS_INLINE typename V::I Finish(typename V::I x, typename V::I add) {
  return Min<V>(Max<V>(Min<V>(x, Splat<V>(255)) + add, Splat<V>(0)), Splat<V>(255));
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

// ---- Hue bands (Q_ChangeHueSatIntBitmap), 8-bit samples -----------------------------------
//
// The steps of ChangePixel (HSI.cpp) through the colour-space models on one
// pixel: HSV in degrees and percent, the table entry of the hue, the hue
// turned, back to RGB (clamped), HLS in degrees and percent, the saturation
// changed, back (clamped), the intensity added (clamped). The entries come
// packed in one word each (hsi::PackHueTable: the turned hue of that hue in
// bits 0-9, the saturation change in 10-21, the intensity in 22-31, both
// signed), which holds only tables in the range the lanes assume: hue
// changes within +-360 degrees (the turned hue then lies in 0..359), and
// |saturation change| < 2048, so that s change stays far inside single
// precision.
template <class V>
struct HsiLanes {
  const uint32_t *packed;  // 361 words
  IMG_HS_INLINE void operator()(typename V::I &r, typename V::I &g, typename V::I &b) const {
    using I = typename V::I;
    const I zero = Splat<V>(0), one = Splat<V>(1);
    // HSV: hue num 120 / den + 120 sector (num 120 <= 30600), saturation
    // (max - min) 100 / max; gray 0 and 0.
    const I mx = Max<V>(Max<V>(r, g), b), mn = Min<V>(Min<V>(r, g), b);
    const I gray = mx == mn;
    const I bMin = b == mn, rMin = r == mn;
    const I num = bMin ? g - mn : (rMin ? b - mn : r - mn);
    const I den = bMin ? r + g - 2 * mn : (rMin ? b + g - 2 * mn : r + b - 2 * mn);
    const I sector = bMin ? zero : (rMin ? Splat<V>(120) : Splat<V>(240));
    const I h = gray ? zero : DivF<V>(num * 120, gray ? one : den) + sector;
    const I s = DivF<V>((mx - mn) * 100, gray ? one : mx);
    const I v = mx;
    const I entry = V::Gather(packed, h);
    const I n = entry & 0x3FF, change = (entry << 10) >> 20, add = entry >> 22;
    // HSV back, 60 a sixth: low = (100 - s) v / 100 (s = 0: low = v, d = 0),
    // d = v - low, and in each sector one channel v, one low and the middle
    // one e + low with e = share d / rest. In every sector share + rest = 120
    // and share <= rest (share is the distance of n to the nearest multiple
    // of 120), so every channel lies within low..v and the scalar clamp to
    // 0..255 changes nothing.
    const I low = Div100<V>((100 - s) * v);  // at most 25500
    const I d = v - low;
    const I in0 = n <= 60, in1 = n <= 120, in2 = n <= 180, in3 = n <= 240, in4 = n <= 300;
    const I t = n - (in1 ? zero : in3 ? Splat<V>(120) : Splat<V>(240));
    const I share = Min<V>(t, 120 - t);
    const I e = DivF<V>(share * d, 120 - share);
    // HLS of that colour: largest v, smallest low, l = (v + low) / 2;
    // s = d 100 over v + low up to l 128, else over 510 - v - low.
    const I sum = v + low, l = sum >> 1, lowSide = l <= 128;
    const I sl = DivF<V>(d * 100, d == 0 ? one : (lowSide ? sum : 510 - sum));
    // Its hexcone hue, diff 360 / (6 d) toward zero plus 120 a sector (red,
    // then green largest), negative + 360, is with f = 60 e / d (0..60) f,
    // 120 - f, 120 + f, 240 - f, 240 + f and -f (+ 360 where f > 0) in the
    // sectors of n (ties between the largest components worked through the
    // scalar order). Below it is used through its sector and f only.
    const I f = DivF<V>(e * 60, d == 0 ? one : d);
    // s + s change / 100 toward zero (|s change| < 2^18), held to 0..100.
    const I ns = Min<V>(Max<V>(sl + DivF<V>(sl * change, Splat<V>(100)), zero), Splat<V>(100));
    // HLS back: m2 = (ns + 100) l / 100 up to l 128, else ns 255 / 100 + l -
    // l ns / 100 (not capped; every product at most 25600); m1 = 2 l - m2;
    // ns = 0 gives l everywhere. 0 <= m1 <= l <= m2 <= 256.
    const I m2 = lowSide ? Div100<V>((ns + 100) * l) : Div100<V>(ns * 255) + l - Div100<V>(l * ns);
    const I m1 = 2 * l - m2, span = m2 - m1;
    // The value function at hh + 120, hh and hh - 120 (the wraps by 360
    // included) gives, as the HSV sectors do: one channel m2, one m1 and the
    // middle one m1 + span u / 60 (span u <= 512 x 60), u the distance of hh
    // to the nearest multiple of 120, placed by the 60-degree sector of hh.
    // That distance is f, and hh lies in the sector of n but at its bounds
    // (f 0 or 60), where the middle channel is m1 or m2 and both placements
    // give the same channels; -f read as 0 instead of 360 likewise. With
    // saturation 0, m1 = m2 = l and the placement does not matter.
    const I mid = m1 + Div60<V>(span * f);
    // Each at most 256, held to 255, then the intensity, held to 0..255.
    r = Finish<V>(in0 ? m2 : in1 ? mid : in3 ? m1 : in4 ? mid : m2, add);
    g = Finish<V>(in0 ? mid : in2 ? m2 : in3 ? mid : m1, add);
    b = Finish<V>(in1 ? m1 : in2 ? mid : in4 ? m2 : mid, add);
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

// ---- 16-bit samples: the same steps in 32-bit lanes -------------------------------------------
//
// The 16-bit steps divide numerators up to 2^36 (the hue) or 2^32; the
// quotients stay below 2^17. Two exact forms replace those divisions:
// - DivFix: a single-precision estimate of the quotient (relative error
//   below 2^-21, so at most one off) and the remainder n - q d, computed in
//   32 bits with wrap-around: the true remainder lies within (-d, 2d), far
//   inside 32 bits, so the wrapped one is it, and one step either way puts q
//   right. The numerator is needed only modulo 2^32 (and roughly, as a float).
// - Div65535 for 0 <= x < 2^32: x = 65535 q0 + r0 with q0 = x >> 16,
//   r0 = (x & 65535) + q0 <= 131070, so the quotient is q0 plus 0, 1 or 2
//   (checked against integer division for every x below 2^32).
// The scalar 16-bit steps compute their hues in doubles; where that is
// replaced by integers, the note at the place says why the bits agree.

// The quotient put right from an estimate q at most one off.
template <class V>
IMG_HS_INLINE typename V::I FixQuotient(typename V::U n, typename V::I q, typename V::I d) {
  using I = typename V::I;
  using U = typename V::U;
  I rem = (I)(n - (U)q * (U)d);
  q = rem < 0 ? q - 1 : q;
  rem = rem < 0 ? rem + d : rem;
  return rem >= d ? q + 1 : q;
}
template <class V>
IMG_HS_INLINE typename V::I DivFix(typename V::U n, typename V::F estimate, typename V::I d) {
  using F = typename V::F;
  return FixQuotient<V>(n, __builtin_convertvector(estimate / __builtin_convertvector(d, F), typename V::I),
                        d);
}
// DivFix by a constant c: the estimate times the rounded reciprocal (three
// roundings of 2^-24, still at most one off for quotients below 2^17).
template <class V>
IMG_HS_INLINE typename V::I DivFixBy(typename V::U n, typename V::F estimate, int32_t c) {
  return FixQuotient<V>(n, __builtin_convertvector(estimate * (1.0f / static_cast<float>(c)), typename V::I),
                        Splat<V>(c));
}
template <class V>
IMG_HS_INLINE typename V::I Div65535(typename V::U x) {
  using I = typename V::I;
  const I q0 = (I)(x >> 16), r0 = (I)(x & 0xFFFFu) + q0;
  return q0 - (r0 >= 65535) - (r0 >= 131070);
}
template <class V>
IMG_HS_INLINE typename V::F ToF(typename V::I x) {
  return __builtin_convertvector(x, typename V::F);
}

// RgbToHsv16, the hue turned by step * 257 (in 16 bits), HsvToRgb16
// (HueOp::Pixel16).
template <class V>
struct HueLanes16 {
  int32_t step;
  IMG_HS_INLINE void operator()(typename V::I &r, typename V::I &g, typename V::I &b) const {
    using I = typename V::I;
    using U = typename V::U;
    const I mx = Max<V>(Max<V>(r, g), b), mn = Min<V>(Min<V>(r, g), b);
    const I bMin = b == mn, rMin = r == mn, gray = mx == mn;
    const I num = bMin ? g - mn : (rMin ? b - mn : r - mn);
    const I den = bMin ? r + g - 2 * mn : (rMin ? b + g - 2 * mn : r + b - 2 * mn);
    // The scalar hue, in doubles, is ((num 7895040 / den + 7895040 sector)
    // + 46260) / 360 truncated, that is (num 65792 / (3 den) + 65792 sector
    // / 3 + 257 / 2) = N / (6 den) with N = 131584 num + (131584 sector +
    // 771) den. N / (6 den) is an integer (every double step then exact) or
    // at least 1 / (6 den) >= 1.2e-6 from one, against rounding errors below
    // 1e-10: the truncation is floor(N / (6 den)). With 131584 sector + 771
    // = 6 c1 + c0 that is c1 + floor((131584 num + c0 den) / (6 den)).
    const I c1 = bMin ? Splat<V>(128) : (rMin ? Splat<V>(22059) : Splat<V>(43989));
    const I c0 = bMin ? Splat<V>(3) : (rMin ? Splat<V>(1) : Splat<V>(5));
    const I part = c0 * den;
    const I q = DivFix<V>((U)num * 131584u + (U)part, ToF<V>(num) * 131584.0f + ToF<V>(part),
                          gray ? Splat<V>(6) : 6 * den);
    I hq = Min<V>(c1 + q, Splat<V>(65535));
    hq = gray ? Splat<V>(0) : hq;
    const I spread = mx - mn;
    const I s = DivFix<V>((U)spread * 65535u, ToF<V>(spread) * 65535.0f, gray ? Splat<V>(1) : mx);
    // The turned hue in 16 bits, then 360 x 257 a circle.
    const I deg = (I)((((U)hq + static_cast<uint32_t>(step) * 257u) & 0xFFFFu) * 360u >> 8);
    const I v = mx;
    // A gray pixel (s = 0) has low = v and d = 0: every channel is v.
    const I low = Div65535<V>((U)(65535 - s) * (U)v);
    const I d = v - low;
    const I in0 = deg <= 15420, in1 = deg <= 30840, in2 = deg <= 46260, in3 = deg <= 61680,
            in4 = deg <= 77100;
    const I c2 = Splat<V>(30840), c4 = Splat<V>(61680), c6 = Splat<V>(92520);
    const I share = in0 ? deg : in1 ? c2 - deg : in2 ? deg - c2 : in3 ? c4 - deg : in4 ? deg - c4 : c6 - deg;
    const I rest = in0 ? c2 - deg : in1 ? deg : in2 ? c4 - deg : in3 ? deg - c2 : in4 ? c6 - deg : deg - c4;
    // share d <= 30840 x 65535 < 2^31; rest >= 15420.
    const I sd = share * d;
    const I mid = DivFix<V>((U)sd, ToF<V>(sd), rest) + low;
    r = in0 ? v : in1 ? mid : in3 ? low : in4 ? mid : v;
    g = in0 ? mid : in2 ? v : in3 ? mid : low;
    b = in1 ? low : in2 ? mid : in4 ? v : mid;
  }
};

// One channel of the 65535-step hexcone (wrapped by 65535), capped at 65535.
// The ramps' span t 6 stays below 2^32 (span <= 65534, t <= 10923).
template <class V>
IMG_HS_INLINE typename V::I Channel16(typename V::I hh, typename V::I m1, typename V::I m2,
                                      typename V::I span) {
  using I = typename V::I;
  using U = typename V::U;
  hh = hh >= 65536 ? hh - 65535 : (hh < 0 ? hh + 65535 : hh);
  const I rising = hh <= 10921, top = hh <= 32766, falling = hh <= 43689;
  const I t = rising ? hh : 43690 - hh;
  const I ramp = m1 + Div65535<V>((U)span * (U)t * 6u);
  const I value = rising ? ramp : top ? m2 : falling ? ramp : m1;
  return Min<V>(value, Splat<V>(65535));
}

// ChangeSaturation16 (SaturationOp::Pixel16).
template <class V>
struct SaturationLanes16 {
  int32_t step;
  IMG_HS_INLINE void operator()(typename V::I &r, typename V::I &g, typename V::I &b) const {
    using I = typename V::I;
    using U = typename V::U;
    const I mx = Max<V>(Max<V>(r, g), b), mn = Min<V>(Min<V>(r, g), b);
    const I sum = mx + mn, l = sum >> 1, spread = mx - mn;
    const I gray = mx == mn, lowSide = l <= 32767;
    // Gray: s = 0 (0 over a divisor of 1), hence hue 0. spread <= den.
    const I den = gray ? Splat<V>(1) : (lowSide ? sum : 131070 - sum);
    const I s = DivFix<V>((U)spread * 65535u, ToF<V>(spread) * 65535.0f, den);
    // The scalar hue, in doubles, is a + sector truncated, a = diff 65535 /
    // (6 spread), |a| <= 10923: an integer (the double steps exact) or at
    // least 1 / (6 spread) from one, against rounding errors below 1e-11. So
    // it is trunc(a) in the first sector and sector + floor(a) in the others
    // (a + sector > 0 there), from the quotient and remainder of |diff|.
    const I rMax = r == mx, gMax = g == mx;
    const I diff = rMax ? g - b : (gMax ? b - r : r - g);
    const I sector = rMax ? Splat<V>(0) : (gMax ? Splat<V>(21845) : Splat<V>(43690));
    const I six = gray ? Splat<V>(6) : 6 * spread;
    const I neg = diff < 0, mag = neg ? -diff : diff;
    const U n = (U)mag * 65535u;
    const I qa = DivFix<V>(n, ToF<V>(mag) * 65535.0f, six);
    const I inexact = (I)(n - (U)qa * (U)six) != 0;
    const I truncated = neg ? -qa : qa, floored = neg ? inexact - qa : qa;  // inexact is -1 or 0
    I h = sector == 0 ? truncated : sector + floored;
    h = h < 0 ? h + 65535 : h;
    h = s == 0 ? Splat<V>(0) : h;
    I s2 = s + ((s * step) >> 8);
    s2 = Min<V>(Max<V>(s2, Splat<V>(0)), Splat<V>(65535));
    // m2 = (s2 + 65535) l / 65535 up to l 32767, else s2 + l - l s2 / 65535
    // (both products below 2^32); capped; m1 = 2 l - m2. s2 = 0 gives
    // m2 = m1 = l: every channel l, as the scalar early return.
    const I q = Div65535<V>(lowSide ? (U)(s2 + 65535) * (U)l : (U)l * (U)s2);
    const I m2 = Min<V>(lowSide ? q : s2 + l - q, Splat<V>(65535));
    const I m1 = 2 * l - m2, span = m2 - m1;
    r = Channel16<V>(h + 21845, m1, m2, span);
    g = Channel16<V>(h, m1, m2, span);
    b = Channel16<V>(h - 21845, m1, m2, span);
  }
};

// Signed n / d toward zero for |n| < 2^31 and 0 < d < 2^24 (the quotient
// below 2^17): DivFix on the magnitude, the sign put back.
template <class V>
IMG_HS_INLINE typename V::I DivToZero(typename V::I n, typename V::I d) {
  using I = typename V::I;
  using U = typename V::U;
  const I neg = n < 0, mag = (I)(neg ? -(U)n : (U)n);
  const I q = DivFix<V>((U)mag, ToF<V>(mag), d);
  return neg ? -q : q;
}
template <class V>
IMG_HS_INLINE typename V::I DivToZeroBy(typename V::I n, int32_t c) {
  using I = typename V::I;
  using U = typename V::U;
  const I neg = n < 0, mag = (I)(neg ? -(U)n : (U)n);
  const I q = DivFixBy<V>((U)mag, ToF<V>(mag), c);
  return neg ? -q : q;
}

// Held to 0..65535.
template <class V>
IMG_HS_INLINE typename V::I Clamp16(typename V::I x) {
  return Min<V>(Max<V>(x, Splat<V>(0)), Splat<V>(65535));
}

// ChangePixel16 (HSI.cpp) in lanes: HSV in hundredths, the entry of hue / 100
// (three gathers of the HueChange table), the turned hue, back (clamped),
// HLS in hundredths with the wrapping hue products, the saturation changed,
// back (clamped), the intensity (clamped). Every division is DivFix or
// DivToZero on values below 2^31. The caller checked the table
// (hsi::HueTableFits16): hue changes within +-35999 (the scalar n % 36000
// after adding 36000 to a negative n is one subtraction), saturation changes
// within +-100000 (s change below 2^31), intensities within +-2^24.
template <class V>
struct HsiLanes16 {
  const void *table;  // HueChange[361]
  IMG_HS_INLINE void operator()(typename V::I &r, typename V::I &g, typename V::I &b) const {
    using I = typename V::I;
    using U = typename V::U;
    const I zero = Splat<V>(0), one = Splat<V>(1);
    I mx = Max<V>(Max<V>(r, g), b), mn = Min<V>(Min<V>(r, g), b);
    I gray = mx == mn;
    const I bMin = b == mn, rMin = r == mn;
    const I num = bMin ? g - mn : (rMin ? b - mn : r - mn);
    const I den = bMin ? r + g - 2 * mn : (rMin ? b + g - 2 * mn : r + b - 2 * mn);
    const I sector = bMin ? zero : (rMin ? Splat<V>(12000) : Splat<V>(24000));
    // num 12000 <= 786420000; (max - min) 10000 <= 655350000.
    const I hn = num * 12000, sn = (mx - mn) * 10000;
    const I h = gray ? zero : DivFix<V>((U)hn, ToF<V>(hn), gray ? one : den) + sector;
    const I s = gray ? zero : DivFix<V>((U)sn, ToF<V>(sn), gray ? one : mx);
    const I v = mx;
    const I at = Div100<V>(h) * 3;  // h <= 36000
    const I turn = V::Gather(table, at), change = V::Gather(table, at + 1), add = V::Gather(table, at + 2);
    I n = h + turn;
    n = n < 0 ? n + 36000 : n;
    n = n >= 36000 ? n - 36000 : n;
    // HSV back, 6000 a sixth: low = (10000 - s) v / 10000; the middle
    // channel share d / rest + low with share + rest = 12000, share <= rest;
    // every channel within low..v (s = 0: all v), no clamp acts.
    const I ln = (10000 - s) * v;
    const I low = DivFixBy<V>((U)ln, ToF<V>(ln), 10000);
    const I d = v - low;
    const I in0 = n <= 6000, in1 = n <= 12000, in2 = n <= 18000, in3 = n <= 24000, in4 = n <= 30000;
    const I t = n - (in1 ? zero : in3 ? Splat<V>(12000) : Splat<V>(24000));
    const I share = Min<V>(t, 12000 - t);
    const I md = share * d;  // <= 6000 x 65535
    const I mid = DivFix<V>((U)md, ToF<V>(md), 12000 - share) + low;
    r = in0 ? v : in1 ? mid : in3 ? low : in4 ? mid : v;
    g = in0 ? mid : in2 ? v : in3 ? mid : low;
    b = in1 ? low : in2 ? mid : in4 ? v : mid;
    // HLS, hundredths: l = (max + min) / 2, s = (max - min) 10000 over
    // max + min up to l 32767, else over 131070 - max - min; the hue
    // diff 36000 (wrapping in 32 bits) / (6 (max - min)) toward zero plus
    // 12000 a sector, negative + 36000.
    mx = v, mn = low, gray = d == 0;
    const I sum = mx + mn, l = sum >> 1, lowSide = l <= 32767;
    const I hsn = d * 10000;
    const I sl = DivFix<V>((U)hsn, ToF<V>(hsn), gray ? one : (lowSide ? sum : 131070 - sum));
    const I rMax = r == mx, gMax = g == mx;
    const I diff = rMax ? g - b : (gMax ? b - r : r - g);
    const I hs = rMax ? zero : (gMax ? Splat<V>(12000) : Splat<V>(24000));
    I hh = DivToZero<V>((I)((U)diff * 36000u), gray ? Splat<V>(6) : 6 * d) + hs;
    hh = hh < 0 ? hh + 36000 : hh;
    hh = sl == 0 ? zero : hh;
    // s + s change / 10000 toward zero, held to 0..10000.
    const I ns = Min<V>(Max<V>(sl + DivToZeroBy<V>(sl * change, 10000), zero), Splat<V>(10000));
    // HLS back: m2 = (ns + 10000) l / 10000 up to l 32767, else
    // ns 65535 / 10000 + l - l ns / 10000 (each product below 2^31).
    const I p1 = lowSide ? (ns + 10000) * l : l * ns, p2 = ns * 65535;
    const I q1 = DivFixBy<V>((U)p1, ToF<V>(p1), 10000);
    const I m2 = lowSide ? q1 : DivFixBy<V>((U)p2, ToF<V>(p2), 10000) + l - q1;
    const I m1 = 2 * l - m2;
    // The value function at hh + 12000, hh and hh - 12000 (hh in 0..36000,
    // the wraps by 36000 included) gives one channel m2, one m1 and one ramp
    // with t the distance u of hh to the nearest multiple of 12000, placed
    // by the 6000-hundredths sector of hh; at the sector bounds the scalar
    // takes the ramp of that same channel at u = 6000, and any other ramp
    // there has t = 0 (m1). The ramp keeps the wrapped product.
    const I j0 = hh <= 6000, j1 = hh <= 12000, j2 = hh <= 18000, j3 = hh <= 24000, j4 = hh <= 30000;
    const I w = hh - (j1 ? zero : j3 ? Splat<V>(12000) : Splat<V>(24000));
    const I u = Min<V>(w, 12000 - w);
    const I ramp = m1 + DivToZeroBy<V>((I)((U)(m2 - m1) * (U)u * 6u), 36000);
    r = Clamp16<V>(Clamp16<V>(j0 ? m2 : j1 ? ramp : j3 ? m1 : j4 ? ramp : m2) + add);
    g = Clamp16<V>(Clamp16<V>(j0 ? ramp : j2 ? m2 : j3 ? ramp : m1) + add);
    b = Clamp16<V>(Clamp16<V>(j1 ? m1 : j2 ? ramp : j4 ? m2 : ramp) + add);
  }
};

// Whole groups of V::kLanes pixels of a 16-bit row of three or four samples
// from `left` (V::Load16 and V::Store16 move the samples, a fourth kept);
// returns the first pixel left over.
template <class V, class Kernel>
IMG_HS_INLINE int32_t RunLanes16(uint16_t *row, int32_t channels, int32_t left, int32_t right,
                                 const Kernel &kernel) {
  using I = typename V::I;
  int32_t x = left;
  if (channels != 3 && channels != 4) return x;
  for (; x + V::kLanes <= right; x += V::kLanes) {
    uint16_t *p = row + static_cast<std::ptrdiff_t>(x) * channels;
    I b, g, r;
    V::Load16(p, channels, b, g, r);
    kernel(r, g, b);
    V::Store16(p, channels, b, g, r);
  }
  return x;
}

#undef IMG_HS_INLINE

}  // namespace
}  // namespace img::huesat
