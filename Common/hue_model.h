// The HSV and HLS models of the library, written once (header only).
//
// Two families use them: the colour-space conversions (ClrSpc: hue in
// degrees for 8-bit samples, in hundredths of a degree for 16-bit samples)
// and the hue and saturation exports (HUESAT: a circle of 256 steps for
// 8-bit samples, of 65536 for 16-bit samples). They share the structure of
// both models:
// - HSV: the hue is found from the smallest component in 120-degree sectors
//   (deliberately not the usual 60-degree hexcone formula) and rebuilt in six
//   60-degree sectors; the value is the largest component.
// - HLS: the hexcone hue from the largest component, lightness (max + min) / 2,
//   and the value function that rebuilds a channel from m1, m2 and its hue.
// What differs between the variants is a parameter here: the scale of the
// hue (units a third or a sixth of the circle) and of the saturation, where
// the lightness splits the saturation formula, the hexcone's full circle
// (360 or 36000 degree units; 255 or 65535 steps, so that those hues wrap by
// 255, not 256) and its sector bounds, and the arithmetic (Plain, Wrap32,
// Wide64, Real). Rounding and clamping stay with the callers, which differ
// there.
#pragma once

#include <algorithm>
#include <cstdint>
#include <type_traits>

namespace img::hue {

// ---- Arithmetic of a variant -----------------------------------------------------------

// Exact arithmetic on I: 32-bit integers where no product overflows,
// 64-bit integers, or doubles (truncated by the caller).
template <class I>
struct Exact {
  using T = I;
  static constexpr T Mul(T a, T b) { return a * b; }
  static constexpr T Add(T a, T b) { return a + b; }
  static constexpr T Sub(T a, T b) { return a - b; }
  static constexpr T Div(T a, T b) { return a / b; }
};
using Plain = Exact<int32_t>;
using Wide64 = Exact<int64_t>;
using Real = Exact<double>;

// Signed 32-bit arithmetic with two's-complement wrap-around (the 16-bit
// integer forms of the colour-space conversions keep their 32-bit products as
// they are, overflow included); division truncates toward zero and wraps in
// its one overflowing case.
struct Wrap32 {
  using T = int32_t;
  static constexpr T Mul(T a, T b) {
    return static_cast<T>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
  }
  static constexpr T Add(T a, T b) {
    return static_cast<T>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
  }
  static constexpr T Sub(T a, T b) {
    return static_cast<T>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
  }
  static constexpr T Div(T a, T b) { return b == -1 ? Sub(0, a) : a / b; }
};

constexpr int32_t Max3(int32_t a, int32_t b, int32_t c) { return std::max(std::max(a, b), c); }
constexpr int32_t Min3(int32_t a, int32_t b, int32_t c) { return std::min(std::min(a, b), c); }

template <class T>
struct Rgb {
  T r, g, b;
};

// ---- HSV: 120-degree sectors from the smallest component ----------------------------------

// The sector of the smallest component (blue first, then red, then green: a
// tie goes to the first) and the hue's fraction num / den inside it. Only for
// max != min.
struct MinSector {
  int32_t num, den, sector;
};
constexpr MinSector SectorOfMin(int32_t r, int32_t g, int32_t b, int32_t mn) {
  if (b == mn) return {g - mn, r + g - 2 * mn, 0};
  if (r == mn) return {b - mn, b + g - 2 * mn, 1};
  return {r - mn, r + b - 2 * mn, 2};
}

// The hue with `third` units for 120 degrees: num * third / den + sector * third.
template <class A>
constexpr typename A::T SectorHue(const MinSector &m, typename A::T third) {
  using T = typename A::T;
  return A::Add(A::Div(A::Mul(static_cast<T>(m.num), third), static_cast<T>(m.den)),
                A::Mul(third, static_cast<T>(m.sector)));
}

template <class H, class S>
struct Hsv {
  typename H::T h;  // in the caller's units, before its rounding
  typename S::T s;
  int32_t v;
  bool gray;  // max = min: hue and saturation 0
};

// HSV of a colour: the hue with `third` units for 120 degrees (arithmetic H),
// the saturation (max - min) scale / max (arithmetic S), the value max.
template <class H, class S = H>
constexpr Hsv<H, S> HsvOf(int32_t r, int32_t g, int32_t b, typename H::T third, int32_t scale) {
  const int32_t mx = Max3(r, g, b), mn = Min3(r, g, b);
  if (mx == mn) return {0, 0, mx, true};
  using ST = typename S::T;
  return {SectorHue<H>(SectorOfMin(r, g, b, mn), third), S::Div(S::Mul(static_cast<ST>(mx - mn), scale), mx),
          mx, false};
}

// RGB from a hue h with `kSixth` units for 60 degrees, the value v and
// low = the smallest component, in six sectors (d = v - low):
//   h <= 1 sixth:  (v, d h / (2 sixths - h) + low, low)
//   h <= 2 sixths: ((2 sixths - h) d / h + low, v, low)
//   h <= 3 sixths: (low, v, (h - 2 sixths) d / (4 sixths - h) + low)
//   h <= 4 sixths: (low, (4 sixths - h) d / (h - 2 sixths) + low, v)
//   h <= 5 sixths: ((h - 4 sixths) d / (6 sixths - h) + low, low, v)
//   beyond:        (v, low, (6 sixths - h) d / (h - 4 sixths) + low)
// The sector is chosen on h read as unsigned (a wrapped 32-bit hue falls in
// the last one). Nothing is clamped.
template <class A, int64_t kSixth>
constexpr Rgb<typename A::T> SixSectors(typename A::T h, typename A::T v, typename A::T low) {
  using T = typename A::T;
  using U = std::make_unsigned_t<T>;
  constexpr T s2 = 2 * kSixth, s4 = 4 * kSixth, s6 = 6 * kSixth;
  const T d = A::Sub(v, low);
  const U at = static_cast<U>(h);
  // The middle channel: its share of d over the rest of the sector, plus low.
  const auto mid = [&](T share, T rest) { return A::Add(A::Div(A::Mul(share, d), rest), low); };
  if (at <= static_cast<U>(kSixth)) return {v, mid(h, A::Sub(s2, h)), low};
  if (at <= static_cast<U>(s2)) return {mid(A::Sub(s2, h), h), v, low};
  if (at <= static_cast<U>(3 * kSixth)) return {low, v, mid(A::Sub(h, s2), A::Sub(s4, h))};
  if (at <= static_cast<U>(s4)) return {low, mid(A::Sub(s4, h), A::Sub(h, s2)), v};
  if (at <= static_cast<U>(5 * kSixth)) return {mid(A::Sub(h, s4), A::Sub(s6, h)), low, v};
  return {v, low, mid(A::Sub(s6, h), A::Sub(h, s4))};
}

// RGB of hue h (kSixth units for 60 degrees), saturation s on `scale` and
// value v: gray when s is 0, else low = (scale - s) v / scale and the six
// sectors.
template <class A, int64_t kSixth>
constexpr Rgb<typename A::T> HsvToRgb(typename A::T h, typename A::T s, typename A::T v, int32_t scale) {
  if (s == 0) return {v, v, v};
  return SixSectors<A, kSixth>(h, v, A::Div(A::Mul(A::Sub(scale, s), v), scale));
}

// ---- HLS: the hexcone ----------------------------------------------------------------------

// An HLS variant: the hue circle with the bounds of the value function (each
// the last hue of its stretch: a rising ramp up to `rise`, m2 up to `top`, a
// falling ramp towards `anchor` up to `fall`, m1 beyond) and the lightness
// side.
struct Hexcone {
  int32_t full;  // a full circle; hues wrap by it
  int32_t rise, top, fall, anchor;
  int32_t sampleMax;  // 255 or 65535
  int32_t scale;      // saturation of a pure colour
  int32_t lowLast;    // the last lightness of the max + min denominator and of the first m2 form
  bool capM2;         // m2 held to sampleMax before m1 = 2 l - m2
};

// The colour-space conversions: degrees for 8-bit samples, hundredths of a
// degree for 16-bit ones; saturation in percent or hundredths of a percent;
// the lightness splits at 128 (on purpose) or 32767; bounds inclusive.
inline constexpr Hexcone kHlsDegrees{360, 60, 180, 240, 240, 255, 100, 128, false};
inline constexpr Hexcone kHlsHundredths{36000, 6000, 18000, 24000, 24000, 65535, 10000, 32767, false};
// The saturation export: 255 or 65535 steps a circle (a negative hue gains
// 255, not 256: kept), saturation on the sample scale, the lightness split at
// 127 or 32767, bounds exclusive (h < 42, < 127, < 170), m2 capped.
inline constexpr Hexcone kHexSteps255{255, 41, 126, 169, 170, 255, 255, 127, true};
inline constexpr Hexcone kHexSteps65535{65535, 10921, 32766, 43689, 43690, 65535, 65535, 32767, true};

// The sector of the largest component (red first, then green) and the
// difference of the other two that places the hue inside it.
struct MaxSector {
  int32_t diff, sector;
};
constexpr MaxSector SectorOfMax(int32_t r, int32_t g, int32_t b, int32_t mx) {
  if (r == mx) return {g - b, 0};
  if (g == mx) return {b - r, 1};
  return {r - g, 2};
}

struct Hls {
  int32_t h, l, s;
};

// HLS of a colour: l = (max + min) / 2; s = (max - min) scale over max + min
// while l <= lowLast, else over 2 sampleMax - max - min (arithmetic S); the
// hue, where s is not 0, diff full / (6 (max - min)) + sector full / 3,
// truncated (arithmetic H), a negative one plus a full circle.
template <class S, class H, Hexcone C>
constexpr Hls HlsOf(int32_t r, int32_t g, int32_t b) {
  const int32_t mx = Max3(r, g, b), mn = Min3(r, g, b), l = (mx + mn) / 2;
  if (mx == mn) return {0, l, 0};
  using ST = typename S::T;
  using HT = typename H::T;
  const ST den = l <= C.lowLast ? mx + mn : 2 * C.sampleMax - mx - mn;
  const int32_t s = static_cast<int32_t>(S::Div(S::Mul(static_cast<ST>(mx - mn), C.scale), den));
  if (s == 0) return {0, l, 0};
  const MaxSector m = SectorOfMax(r, g, b, mx);
  const int32_t h =
      static_cast<int32_t>(H::Add(H::Div(H::Mul(static_cast<HT>(m.diff), C.full), 6 * (mx - mn)),
                                  static_cast<HT>(C.full / 3 * m.sector)));
  return {h < 0 ? h + C.full : h, l, s};
}

// One channel from m1, m2 and its hue h (wrapped first: h above a full circle
// loses one, a negative h gains one, a full circle itself stays).
template <class A, Hexcone C>
constexpr typename A::T HexconeValue(typename A::T m1, typename A::T m2, typename A::T h) {
  if (h >= C.full + 1)
    h -= C.full;
  else if (h < 0)
    h += C.full;
  if (h <= C.rise) return A::Add(m1, A::Div(A::Mul(A::Mul(A::Sub(m2, m1), h), 6), C.full));
  if (h <= C.top) return m2;
  if (h <= C.fall) return A::Add(m1, A::Div(A::Mul(A::Mul(A::Sub(m2, m1), C.anchor - h), 6), C.full));
  return m1;
}

// RGB from hue, lightness and saturation: gray l where s is 0; else
// m2 = (s + scale) l / scale while l <= lowLast, s sampleMax / scale + l -
// l s / scale above, m1 = 2 l - m2, and the value function at h plus a third
// of the circle for red, h for green, h minus a third for blue. Nothing is
// clamped.
template <class A, Hexcone C>
constexpr Rgb<typename A::T> HlsToRgb(typename A::T h, typename A::T l, typename A::T s) {
  using T = typename A::T;
  if (s == 0) return {l, l, l};
  T m2 = l <= C.lowLast
             ? A::Div(A::Mul(A::Add(s, C.scale), l), C.scale)
             : A::Sub(A::Add(A::Div(A::Mul(s, C.sampleMax), C.scale), l), A::Div(A::Mul(l, s), C.scale));
  if (C.capM2 && m2 > C.sampleMax) m2 = C.sampleMax;
  const T m1 = A::Sub(A::Add(l, l), m2), third = C.full / 3;
  return {HexconeValue<A, C>(m1, m2, A::Add(h, third)), HexconeValue<A, C>(m1, m2, h),
          HexconeValue<A, C>(m1, m2, A::Sub(h, third))};
}

}  // namespace img::hue
