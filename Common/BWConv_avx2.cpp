// Dynamic binary, the AVX2 loops (Isa::Avx2): 32 samples a step.
#include <immintrin.h>

#define IMG_BW_TARGET "avx2"
#include "BWConv_lanes.h"

namespace img::bwconv {

namespace {

#define IMG_AVX2_INLINE __attribute__((target("avx2"), always_inline)) inline

struct Avx2 {
  using R = __m256i;
  static constexpr int32_t kBytes = 32;
  IMG_AVX2_INLINE static R Load(const uint8_t *p) {
    return _mm256_loadu_si256(reinterpret_cast<const R *>(p));
  }
  IMG_AVX2_INLINE static void Store(uint8_t *p, R v) { _mm256_storeu_si256(reinterpret_cast<R *>(p), v); }
  IMG_AVX2_INLINE static R Splat(uint8_t v) { return _mm256_set1_epi8(static_cast<char>(v)); }
  IMG_AVX2_INLINE static R Min(R a, R b) { return _mm256_min_epu8(a, b); }
  IMG_AVX2_INLINE static R Max(R a, R b) { return _mm256_max_epu8(a, b); }
  // 255 where white: a flat window (hi - lo, saturated, not above the
  // contrast) when hi >= 128 (its sign bit); an edge when centre >= the
  // floor of (hi + lo) / 2 (the rounded-up average less the odd bit).
  IMG_AVX2_INLINE static R Decide(R lo, R hi, R centre, R contrast) {
    const R zero = _mm256_setzero_si256();
    const R flat = _mm256_cmpeq_epi8(_mm256_subs_epu8(_mm256_subs_epu8(hi, lo), contrast), zero);
    const R odd = _mm256_and_si256(_mm256_xor_si256(hi, lo), _mm256_set1_epi8(1));
    const R mid = _mm256_sub_epi8(_mm256_avg_epu8(hi, lo), odd);
    const R whiteEdge = _mm256_cmpeq_epi8(_mm256_subs_epu8(mid, centre), zero);
    const R whiteFlat = _mm256_cmpgt_epi8(zero, hi);
    return _mm256_blendv_epi8(whiteEdge, whiteFlat, flat);
  }
};

}  // namespace

const Loops8 kAvx2Loops = LoopsOf<Avx2>();

}  // namespace img::bwconv
