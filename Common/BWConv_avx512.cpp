// Dynamic binary, the AVX-512 loops (Isa::Avx512, BW): 64 samples a step.
#include <immintrin.h>

#define IMG_BW_TARGET IMG_TARGET_AVX512
#include "BWConv_lanes.h"
#include "cpu.h"

namespace img::bwconv {

namespace {

#define IMG_AVX512_INLINE __attribute__((target(IMG_TARGET_AVX512), always_inline)) inline

struct Avx512 {
  using R = __m512i;
  static constexpr int32_t kBytes = 64;
  IMG_AVX512_INLINE static R Load(const uint8_t *p) { return _mm512_loadu_si512(p); }
  IMG_AVX512_INLINE static void Store(uint8_t *p, R v) { _mm512_storeu_si512(p, v); }
  IMG_AVX512_INLINE static R Splat(uint8_t v) { return _mm512_set1_epi8(static_cast<char>(v)); }
  IMG_AVX512_INLINE static R Min(R a, R b) { return _mm512_min_epu8(a, b); }
  IMG_AVX512_INLINE static R Max(R a, R b) { return _mm512_max_epu8(a, b); }
  // As the AVX2 form, with masks: flat when hi - lo (saturated) is not above
  // the contrast; white for a flat window when hi >= 128, for an edge when
  // centre >= floor((hi + lo) / 2).
  IMG_AVX512_INLINE static R Decide(R lo, R hi, R centre, R contrast) {
    const __mmask64 flat = _mm512_cmple_epu8_mask(_mm512_subs_epu8(hi, lo), contrast);
    const R odd = _mm512_and_si512(_mm512_xor_si512(hi, lo), _mm512_set1_epi8(1));
    const R mid = _mm512_sub_epi8(_mm512_avg_epu8(hi, lo), odd);
    const __mmask64 whiteEdge = _mm512_cmpge_epu8_mask(centre, mid);
    const __mmask64 whiteFlat = _mm512_cmpge_epu8_mask(hi, _mm512_set1_epi8(static_cast<char>(128)));
    return _mm512_movm_epi8((flat & whiteFlat) | (~flat & whiteEdge));
  }
};

}  // namespace

const Loops8 kAvx512Loops = LoopsOf<Avx512>();

}  // namespace img::bwconv
