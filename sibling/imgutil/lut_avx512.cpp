// The lookups of AVX-512 (Isa::Avx512): bytes through VBMI permutes, 16-bit
// samples through gathers, and the XOR form. Every function carries its target attribute: the
// file is compiled for the baseline.
#include <immintrin.h>

#include "cpu.h"
#include "lut_isa.h"

namespace img::lut {

// Two 128-entry permutes over the table's four 64-byte quarters; the top
// bit of each sample picks the half. 64 samples a step.
__attribute__((target(IMG_TARGET_AVX512))) void MapAvx512(const uint8_t *table, const uint8_t *src,
                                                          uint8_t *dst, std::size_t count, bool keepFourth) {
  const __m512i q0 = _mm512_loadu_si512(table), q1 = _mm512_loadu_si512(table + 64);
  const __m512i q2 = _mm512_loadu_si512(table + 128), q3 = _mm512_loadu_si512(table + 192);
  const __mmask64 fourth = keepFourth ? 0x8888888888888888ull : 0;
  std::size_t i = 0;
  for (; i + 64 <= count; i += 64) {
    const __m512i v = _mm512_loadu_si512(src + i);
    const __m512i low = _mm512_permutex2var_epi8(q0, v, q1);
    const __m512i high = _mm512_permutex2var_epi8(q2, v, q3);
    __m512i r = _mm512_mask_blend_epi8(_mm512_movepi8_mask(v), low, high);
    r = _mm512_mask_blend_epi8(fourth, r, v);
    _mm512_storeu_si512(dst + i, r);
  }
  MapScalar(table, src + i, dst + i, count - i, keepFourth);
}

// Sixteen table words a gather: each reads the 32 bits at its entry and
// keeps the low half (the table has a spare entry for the last one). 32
// samples a step. (GCC 12's headers fill the unused halves of some
// conversions with undefined values and then warn about them.)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
__attribute__((target(IMG_TARGET_AVX512))) void MapWordsAvx512(const uint16_t *table, uint16_t *p,
                                                               std::size_t count, bool keepFourth) {
  const __mmask32 fourth = keepFourth ? 0x88888888u : 0u;
  const int *base = reinterpret_cast<const int *>(table);
  std::size_t i = 0;
  for (; i + 32 <= count; i += 32) {
    const __m512i v = _mm512_loadu_si512(p + i);
    const __m512i lo = _mm512_cvtepu16_epi32(_mm512_castsi512_si256(v));
    const __m512i hi = _mm512_cvtepu16_epi32(_mm512_extracti64x4_epi64(v, 1));
    const __m256i rlo = _mm512_cvtepi32_epi16(_mm512_i32gather_epi32(lo, base, 2));
    const __m256i rhi = _mm512_cvtepi32_epi16(_mm512_i32gather_epi32(hi, base, 2));
    const __m512i r = _mm512_inserti64x4(_mm512_zextsi256_si512(rlo), rhi, 1);
    _mm512_storeu_si512(p + i, _mm512_mask_blend_epi16(fourth, r, v));
  }
  MapWordsScalar(table, p + i, count - i, keepFourth);
}
#pragma GCC diagnostic pop

// 64 bytes a step, the pattern in every 64-bit lane.
__attribute__((target(IMG_TARGET_AVX512))) void XorAvx512(uint8_t *p, std::size_t count, uint64_t pattern) {
  const __m512i k = _mm512_set1_epi64(static_cast<long long>(pattern));
  std::size_t i = 0;
  for (; i + 64 <= count; i += 64) _mm512_storeu_si512(p + i, _mm512_xor_si512(_mm512_loadu_si512(p + i), k));
  // i is a multiple of 8: the tail keeps the pattern's phase.
  XorScalar(p + i, count - i, pattern);
}

}  // namespace img::lut
