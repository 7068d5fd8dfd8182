// Desaturation, the AVX2 loops over three-sample pixels. Each 128-bit lane
// holds four 8-bit pixels (two 16-bit ones) and the four bytes after them:
// the lane shifted by one and two samples puts green and red under blue, so
// the largest and the smallest of the three are two byte-wise max / min; the
// mean (hi + lo) / 2 is the rounding-up average minus the low bit of hi ^ lo;
// a shuffle copies it to the three samples, and the twelve bytes of each lane
// are written as 24 contiguous bytes. Same bits as the scalar loop.
#include <immintrin.h>

#include "deSat.h"

namespace img::desat {

#define IMG_AVX2 __attribute__((target("avx2")))

namespace {

IMG_AVX2 inline __m256i LoadLanes(const void *lo, const void *hi) {
  return _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_loadu_si128(static_cast<const __m128i *>(lo))),
                                 _mm_loadu_si128(static_cast<const __m128i *>(hi)), 1);
}

// Writes the first twelve bytes of each lane as 24 contiguous bytes (one
// 16-byte and one 8-byte store): nothing past them is written, so the next
// step's loads do not wait on a store that overlaps them.
IMG_AVX2 inline void Store24(void *p, __m256i v) {
  const __m256i packed = _mm256_permutevar8x32_epi32(v, _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 7, 7));
  _mm_storeu_si128(static_cast<__m128i *>(p), _mm256_castsi256_si128(packed));
  _mm_storel_epi64(reinterpret_cast<__m128i *>(static_cast<uint8_t *>(p) + 16),
                   _mm256_extracti128_si256(packed, 1));
}

}  // namespace

IMG_AVX2 int32_t DesaturateAvx2(uint8_t *row, int32_t left, int32_t right) {
  const __m256i spread = _mm256_setr_epi8(0, 0, 0, 3, 3, 3, 6, 6, 6, 9, 9, 9, -1, -1, -1, -1,  //
                                          0, 0, 0, 3, 3, 3, 6, 6, 6, 9, 9, 9, -1, -1, -1, -1);
  const __m256i one = _mm256_set1_epi8(1);
  int32_t x = left;
  // Eight pixels a step; the step reads 28 bytes (writes 24), inside the run
  // while ten pixels remain.
  for (; x + 10 <= right; x += 8) {
    uint8_t *p = row + 3 * static_cast<ptrdiff_t>(x);
    const __m256i v = LoadLanes(p, p + 12);
    const __m256i g = _mm256_bsrli_epi128(v, 1), r = _mm256_bsrli_epi128(v, 2);
    const __m256i hi = _mm256_max_epu8(_mm256_max_epu8(v, g), r);
    const __m256i lo = _mm256_min_epu8(_mm256_min_epu8(v, g), r);
    const __m256i mean =
        _mm256_sub_epi8(_mm256_avg_epu8(hi, lo), _mm256_and_si256(_mm256_xor_si256(hi, lo), one));
    Store24(p, _mm256_shuffle_epi8(mean, spread));
  }
  return x;
}

IMG_AVX2 int32_t DesaturateAvx2(uint16_t *row, int32_t left, int32_t right) {
  const __m256i spread = _mm256_setr_epi8(0, 1, 0, 1, 0, 1, 6, 7, 6, 7, 6, 7, 12, 13, 14, 15,  //
                                          0, 1, 0, 1, 0, 1, 6, 7, 6, 7, 6, 7, 12, 13, 14, 15);
  const __m256i one = _mm256_set1_epi16(1);
  int32_t x = left;
  // Four pixels a step; the step reads 28 bytes (writes 24), inside the run
  // while five pixels remain.
  for (; x + 5 <= right; x += 4) {
    uint16_t *p = row + 3 * static_cast<ptrdiff_t>(x);
    const __m256i v = LoadLanes(p, p + 6);
    const __m256i g = _mm256_bsrli_epi128(v, 2), r = _mm256_bsrli_epi128(v, 4);
    const __m256i hi = _mm256_max_epu16(_mm256_max_epu16(v, g), r);
    const __m256i lo = _mm256_min_epu16(_mm256_min_epu16(v, g), r);
    const __m256i mean =
        _mm256_sub_epi16(_mm256_avg_epu16(hi, lo), _mm256_and_si256(_mm256_xor_si256(hi, lo), one));
    Store24(p, _mm256_shuffle_epi8(mean, spread));
  }
  return x;
}

}  // namespace img::desat
