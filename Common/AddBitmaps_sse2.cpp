// Adding bitmaps, the loops of two 8-bit rows for the x86-64 baseline
// (Isa::Sse2): the sum and the average as plain loops the compiler
// vectorises, the weighted average on eight 16-bit lanes (see Pair8 in
// AddBitmaps_internal.h for why the lanes give the reference's bits).
#include <emmintrin.h>

#include "AddBitmaps_internal.h"

namespace img::add {

namespace {

// floor(S / weight) rounded half to even, eight 16-bit lanes.
inline __m128i WeightedLanes(const Pair8 &p, __m128i a, __m128i b) {
  const __m128i s = _mm_add_epi16(_mm_mullo_epi16(a, _mm_set1_epi16(static_cast<int16_t>(p.f0))),
                                  _mm_mullo_epi16(b, _mm_set1_epi16(static_cast<int16_t>(p.f1))));
  const __m128i t = _mm_mulhi_epu16(s, _mm_set1_epi16(static_cast<int16_t>(p.magic)));
  const __m128i q =
      _mm_srl_epi16(_mm_add_epi16(t, _mm_srli_epi16(_mm_sub_epi16(s, t), 1)), _mm_cvtsi32_si128(p.shift));
  const __m128i w = _mm_set1_epi16(static_cast<int16_t>(p.weight));
  const __m128i r = _mm_sub_epi16(s, _mm_mullo_epi16(q, w));
  const __m128i v = _mm_add_epi16(_mm_add_epi16(r, r), _mm_and_si128(q, _mm_set1_epi16(1)));
  return _mm_sub_epi16(q, _mm_cmpgt_epi16(v, w));
}

}  // namespace

void CombinePairSse2(const Pair8 &p, uint8_t *out, const uint8_t *a, const uint8_t *b, std::size_t n) {
  std::size_t k = 0;
  switch (p.rule) {
    case PairRule::Sum:
      for (; k < n; ++k) {
        const uint32_t s = static_cast<uint32_t>(a[k]) + b[k];
        out[k] = static_cast<uint8_t>(s > 255u ? 255u : s);
      }
      return;
    case PairRule::Average:
      for (; k < n; ++k) out[k] = static_cast<uint8_t>((static_cast<uint32_t>(a[k]) + b[k]) >> 1);
      return;
    case PairRule::WeightedAverage: {
      const __m128i zero = _mm_setzero_si128();
      for (; k + 16 <= n; k += 16) {
        const __m128i va = _mm_loadu_si128(reinterpret_cast<const __m128i *>(a + k));
        const __m128i vb = _mm_loadu_si128(reinterpret_cast<const __m128i *>(b + k));
        const __m128i lo = WeightedLanes(p, _mm_unpacklo_epi8(va, zero), _mm_unpacklo_epi8(vb, zero));
        const __m128i hi = WeightedLanes(p, _mm_unpackhi_epi8(va, zero), _mm_unpackhi_epi8(vb, zero));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(out + k), _mm_packus_epi16(lo, hi));
      }
      for (; k < n; ++k) out[k] = PairSample(p, a[k], b[k]);
      return;
    }
  }
}

}  // namespace img::add
