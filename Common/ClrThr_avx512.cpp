// Colour threshold, the AVX-512 step over 8-bit HSV pixels (Isa::Avx512):
// sixteen space pixels (hue in 16 bits, saturation and value in 8) a step
// through the three selections. A selection table is what its range says
// (ClrThr.h), so each component's entry comes from two comparisons with Low
// and High instead of a table read; the components are tested in turn on
// the values earlier ones may have set, as in the reference step, and each
// is written back in its field's width. The pixels a step does not fill go
// through the reference step.
#include <immintrin.h>

#include "ClrThr.h"

// GCC 12 takes the undefined pass-through operand of the AVX-512
// intrinsics for an uninitialised read.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

namespace img::clrthr {

namespace {

#define IMG_CLRTHR_AVX512 __attribute__((target("avx512f,avx512bw,avx512dq,avx512vl,avx512vbmi")))
#define IMG_CLRTHR_AVX512_INLINE \
  __attribute__((target("avx512f,avx512bw,avx512dq,avx512vl,avx512vbmi"), always_inline)) inline

using V = __m512i;
using M = __mmask16;

IMG_CLRTHR_AVX512_INLINE V Set(int32_t v) { return _mm512_set1_epi32(v); }
IMG_CLRTHR_AVX512_INLINE V Blend(M m, V no, V yes) { return _mm512_mask_blend_epi32(m, no, yes); }

// One selection on component values v (the reference's Threshold step for a
// component that changes only itself, or all three). The table entry of v
// is taken from the range: `below`, `inside` or `above` by two comparisons.
struct Lanes {
  V lower, span, low, high, fill, upperFill, below, inside, above;
  bool whole;
  IMG_CLRTHR_AVX512_INLINE explicit Lanes(const Selection &s)
      : lower(Set(s.lower)),
        span(Set(static_cast<int32_t>(s.span))),
        low(Set(s.low)),
        high(Set(s.high)),
        fill(Set(s.fill)),
        upperFill(Set(s.upperFill)),
        below(Set(s.outside ? 1 : 0)),
        inside(Set(s.outside ? 0 : 1)),
        above(Set(s.clip      ? 2
                  : s.outside ? 1
                              : 0)),
        whole(s.whole) {}
  // The lanes whose table entry is not 0, and of them those whose entry is 2.
  IMG_CLRTHR_AVX512_INLINE M Hit(V v, M &upper) const {
    const M inLimits = _mm512_cmple_epu32_mask(_mm512_sub_epi32(v, lower), span);
    const V entry =
        Blend(_mm512_cmplt_epi32_mask(v, low), Blend(_mm512_cmpgt_epi32_mask(v, high), inside, above), below);
    upper = _mm512_mask_cmpeq_epi32_mask(inLimits, entry, Set(2));
    return _mm512_mask_test_epi32_mask(inLimits, entry, entry);
  }
};

IMG_CLRTHR_AVX512_INLINE void Threshold(V (&c)[3], const Lanes (&s)[3]) {
  for (int32_t i = 0; i < 3; ++i) {
    M upper;
    const M hit = s[i].Hit(c[i], upper);
    if (!s[i].whole) {
      c[i] = Blend(upper, Blend(hit, c[i], s[i].fill), s[i].upperFill);
    } else {
      c[0] = Blend(hit, c[0], s[0].fill);
      c[1] = Blend(hit, c[1], s[1].fill);
      c[2] = Blend(hit, c[2], s[2].fill);
    }
  }
}

IMG_CLRTHR_AVX512 void Loop(uint8_t *hsv, int32_t first, int32_t end, const Selection *selections) {
  const Lanes s[3] = {Lanes(selections[0]), Lanes(selections[1]), Lanes(selections[2])};
  const V byte = Set(0xFF);
  int32_t x = first;
  for (; x + 16 <= end; x += 16) {
    uint8_t *p = hsv + 4 * static_cast<std::ptrdiff_t>(x);
    const V v = _mm512_loadu_si512(p);
    V c[3] = {_mm512_and_si512(v, Set(0xFFFF)), _mm512_and_si512(_mm512_srli_epi32(v, 16), byte),
              _mm512_srli_epi32(v, 24)};
    Threshold(c, s);
    _mm512_storeu_si512(
        p, _mm512_or_si512(_mm512_or_si512(c[0], _mm512_slli_epi32(c[1], 16)), _mm512_slli_epi32(c[2], 24)));
  }
  if (x < end) ThresholdPixels(COLORSPACE_HSV, false, hsv, x, end, selections);
}

}  // namespace

void ThresholdHsv8Avx512(uint8_t *hsv, int32_t first, int32_t end, const Selection *selections) {
  Loop(hsv, first, end, selections);
}

}  // namespace img::clrthr

#pragma GCC diagnostic pop
