// Local equalisation, the AVX-512 loop: sixteen 8-bit gray pixels a step (two
// halves of eight doubles), their four curve values gathered from the tile
// tables and blended with the same operations, in the same order, as Blend
// (no fused multiply-add), so every lane gives the scalar result.
#include <immintrin.h>

#include "LocalEq.h"

// GCC 12 reports the undefined pass-through operands inside its own
// intrinsics as maybe uninitialized.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"

#define IMG_AVX512 __attribute__((target("avx2,avx512f,avx512bw,avx512dq,avx512vl")))

namespace img::localeq {

namespace {

// Eight pixels from `x` on: the limited, truncated values as 32-bit lanes.
IMG_AVX512 inline __m256i Eight(const GrayRun8 &run, int32_t x, __m256i v) {
  const __m512d wy = _mm512_set1_pd(run.weightBelow), half = _mm512_set1_pd(0.5), zero = _mm512_setzero_pd(),
                top = _mm512_set1_pd(255.0);
  const __m256i l = _mm256_add_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(run.left + x)), v);
  const __m256i r = _mm256_add_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(run.right + x)), v);
  const __m512d m00 = _mm512_i32gather_pd(l, run.upper, 8), m10 = _mm512_i32gather_pd(r, run.upper, 8);
  const __m512d m01 = _mm512_i32gather_pd(l, run.lower, 8), m11 = _mm512_i32gather_pd(r, run.lower, 8);
  const __m512d wx = _mm512_loadu_pd(run.weight + x);
  const __m512d upper = _mm512_add_pd(m00, _mm512_mul_pd(wx, _mm512_sub_pd(m10, m00)));
  const __m512d lower = _mm512_add_pd(m01, _mm512_mul_pd(wx, _mm512_sub_pd(m11, m01)));
  __m512d value = _mm512_add_pd(_mm512_add_pd(upper, _mm512_mul_pd(wy, _mm512_sub_pd(lower, upper))), half);
  value = _mm512_min_pd(_mm512_max_pd(value, zero), top);
  return _mm512_cvttpd_epi32(value);
}

}  // namespace

IMG_AVX512 int32_t MapGray8Avx512(const GrayRun8 &run) {
  int32_t x = 0;
  for (; x + 16 <= run.count; x += 16) {
    const __m512i v =
        _mm512_cvtepu8_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i *>(run.samples + x)));
    const __m256i a = Eight(run, x, _mm512_castsi512_si256(v));
    const __m256i b = Eight(run, x + 8, _mm512_extracti64x4_epi64(v, 1));
    const __m512i both = _mm512_inserti64x4(_mm512_castsi256_si512(a), b, 1);
    _mm_storeu_si128(reinterpret_cast<__m128i *>(run.samples + x), _mm512_cvtepi32_epi8(both));
  }
  return x;
}

// Clips sixteen counts a step, then turns them into prefix sums sixteen at a
// time (four shifted additions and the carry) and the table values in
// doubles with the scalar operations: every sum is an exact integer, so the
// values are those of BuildTable8Scalar.
IMG_AVX512 void BuildTable8Avx512(uint32_t *counts, uint32_t limit, uint32_t n, double *table) {
  const __m512i lim = _mm512_set1_epi32(static_cast<int32_t>(limit)), zero = _mm512_setzero_si512();
  __m512i excess = zero;
  for (int32_t k = 0; k < 256; k += 16) {
    const __m512i c = _mm512_loadu_si512(counts + k);
    const __m512i kept = _mm512_min_epu32(c, lim);
    excess = _mm512_add_epi32(excess, _mm512_sub_epi32(c, kept));
    _mm512_storeu_si512(counts + k, kept);
  }
  const double excessPerBin =
      static_cast<double>(static_cast<uint32_t>(_mm512_reduce_add_epi32(excess))) / 256;
  const __m512d e = _mm512_set1_pd(excessPerBin), scale = _mm512_set1_pd(255.0 / n),
                one = _mm512_set1_pd(1.0);
  const __m512i last = _mm512_set1_epi32(15);
  __m512i carry = zero;
  __m256i v = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
  const __m256i eight = _mm256_set1_epi32(8);
  for (int32_t k = 0; k < 256; k += 16) {
    __m512i s = _mm512_loadu_si512(counts + k);
    s = _mm512_add_epi32(s, _mm512_alignr_epi32(s, zero, 15));
    s = _mm512_add_epi32(s, _mm512_alignr_epi32(s, zero, 14));
    s = _mm512_add_epi32(s, _mm512_alignr_epi32(s, zero, 12));
    s = _mm512_add_epi32(s, _mm512_alignr_epi32(s, zero, 8));
    s = _mm512_add_epi32(s, carry);
    carry = _mm512_permutexvar_epi32(last, s);
    for (int32_t h = 0; h < 2; ++h) {
      const __m512d sum = _mm512_cvtepu32_pd(h ? _mm512_extracti64x4_epi64(s, 1) : _mm512_castsi512_si256(s));
      const __m512d next = _mm512_add_pd(_mm512_cvtepi32_pd(v), one);
      _mm512_storeu_pd(table + k + 8 * h, _mm512_mul_pd(_mm512_add_pd(sum, _mm512_mul_pd(e, next)), scale));
      v = _mm256_add_epi32(v, eight);
    }
  }
}

}  // namespace img::localeq

#pragma GCC diagnostic pop
