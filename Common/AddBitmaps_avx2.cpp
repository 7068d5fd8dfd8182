// Adding bitmaps, the AVX2 loops of two 8-bit rows (Isa::Avx2): 32 samples a
// vector; the sum saturates, the average is the rounding-up byte average
// less the dropped half, the weighted average runs on sixteen 16-bit lanes
// (see Pair8 in AddBitmaps_internal.h). The rest of a row takes PairSample.
// Every function carries target("avx2"): the file is compiled for the
// baseline.
#include <immintrin.h>

#include "AddBitmaps_internal.h"

#define IMG_AVX2 __attribute__((target("avx2")))

namespace img::add {

namespace {

IMG_AVX2 inline __m256i WeightedLanes(const Pair8 &p, __m256i a, __m256i b) {
  const __m256i s = _mm256_add_epi16(_mm256_mullo_epi16(a, _mm256_set1_epi16(static_cast<int16_t>(p.f0))),
                                     _mm256_mullo_epi16(b, _mm256_set1_epi16(static_cast<int16_t>(p.f1))));
  const __m256i t = _mm256_mulhi_epu16(s, _mm256_set1_epi16(static_cast<int16_t>(p.magic)));
  const __m256i q = _mm256_srl_epi16(_mm256_add_epi16(t, _mm256_srli_epi16(_mm256_sub_epi16(s, t), 1)),
                                     _mm_cvtsi32_si128(p.shift));
  const __m256i w = _mm256_set1_epi16(static_cast<int16_t>(p.weight));
  const __m256i r = _mm256_sub_epi16(s, _mm256_mullo_epi16(q, w));
  const __m256i v = _mm256_add_epi16(_mm256_add_epi16(r, r), _mm256_and_si256(q, _mm256_set1_epi16(1)));
  return _mm256_sub_epi16(q, _mm256_cmpgt_epi16(v, w));
}

IMG_AVX2 inline __m256i Load(const uint8_t *p) {
  return _mm256_loadu_si256(reinterpret_cast<const __m256i *>(p));
}
IMG_AVX2 inline void Store(uint8_t *p, __m256i v) { _mm256_storeu_si256(reinterpret_cast<__m256i *>(p), v); }

}  // namespace

IMG_AVX2 void CombinePairAvx2(const Pair8 &p, uint8_t *out, const uint8_t *a, const uint8_t *b,
                              std::size_t n) {
  std::size_t k = 0;
  switch (p.rule) {
    case PairRule::Sum:
      for (; k + 32 <= n; k += 32) Store(out + k, _mm256_adds_epu8(Load(a + k), Load(b + k)));
      break;
    case PairRule::Average: {
      const __m256i one = _mm256_set1_epi8(1);
      for (; k + 32 <= n; k += 32) {
        const __m256i va = Load(a + k), vb = Load(b + k);
        Store(out + k,
              _mm256_sub_epi8(_mm256_avg_epu8(va, vb), _mm256_and_si256(_mm256_xor_si256(va, vb), one)));
      }
      break;
    }
    case PairRule::WeightedAverage: {
      const __m256i zero = _mm256_setzero_si256();
      for (; k + 32 <= n; k += 32) {
        const __m256i va = Load(a + k), vb = Load(b + k);
        const __m256i lo = WeightedLanes(p, _mm256_unpacklo_epi8(va, zero), _mm256_unpacklo_epi8(vb, zero));
        const __m256i hi = WeightedLanes(p, _mm256_unpackhi_epi8(va, zero), _mm256_unpackhi_epi8(vb, zero));
        Store(out + k, _mm256_packus_epi16(lo, hi));  // per 128-bit lane, as the unpacks
      }
      break;
    }
  }
  for (; k < n; ++k) out[k] = PairSample(p, a[k], b[k]);
}

}  // namespace img::add
