// Local equalisation, the AVX2 loop: four 8-bit gray pixels a step, their
// four curve values gathered from the tile tables and blended in doubles
// with the same operations, in the same order, as Blend (no fused
// multiply-add), so every lane gives the scalar result.
#include <immintrin.h>

#include <cstring>

#include "LocalEq.h"

// GCC 12 reports the undefined pass-through operands inside its own
// intrinsics as maybe uninitialized.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

namespace img::localeq {

__attribute__((target("avx2"))) int32_t MapGray8Avx2(const GrayRun8 &run) {
  const __m256d wy = _mm256_set1_pd(run.weightBelow), half = _mm256_set1_pd(0.5), zero = _mm256_setzero_pd(),
                top = _mm256_set1_pd(255.0);
  int32_t x = 0;
  for (; x + 4 <= run.count; x += 4) {
    int32_t bytes;
    std::memcpy(&bytes, run.samples + x, 4);
    const __m128i v = _mm_cvtepu8_epi32(_mm_cvtsi32_si128(bytes));
    const __m128i l = _mm_add_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i *>(run.left + x)), v);
    const __m128i r = _mm_add_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i *>(run.right + x)), v);
    const __m256d m00 = _mm256_i32gather_pd(run.upper, l, 8), m10 = _mm256_i32gather_pd(run.upper, r, 8);
    const __m256d m01 = _mm256_i32gather_pd(run.lower, l, 8), m11 = _mm256_i32gather_pd(run.lower, r, 8);
    const __m256d wx = _mm256_loadu_pd(run.weight + x);
    const __m256d upper = _mm256_add_pd(m00, _mm256_mul_pd(wx, _mm256_sub_pd(m10, m00)));
    const __m256d lower = _mm256_add_pd(m01, _mm256_mul_pd(wx, _mm256_sub_pd(m11, m01)));
    __m256d value = _mm256_add_pd(_mm256_add_pd(upper, _mm256_mul_pd(wy, _mm256_sub_pd(lower, upper))), half);
    value = _mm256_min_pd(_mm256_max_pd(value, zero), top);
    const __m128i out = _mm256_cvttpd_epi32(value);
    const __m128i packed = _mm_packus_epi16(_mm_packus_epi32(out, out), out);
    bytes = _mm_cvtsi128_si32(packed);
    std::memcpy(run.samples + x, &bytes, 4);
  }
  return x;
}

}  // namespace img::localeq

#pragma GCC diagnostic pop
