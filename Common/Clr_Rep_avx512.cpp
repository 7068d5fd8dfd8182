// Colour replace, the AVX-512 blend of 8-bit rows (Isa::Avx512): sixteen
// pixels a step in 32-bit lanes. changed × w + sample × (1000 - w) is at most
// 255000 < 2^24, so its quotient by 1000 is trunc(n / 1000) in single
// precision (n exact, a non-integer quotient lies at least 1/1000 from an
// integer, the rounding error is below 2^-8 / 1000). The pixels a step does
// not fill go through the reference.
#include <immintrin.h>

#include "Clr_Rep.h"
#include "cpu.h"

// GCC 12 takes the undefined pass-through operand of the AVX-512
// intrinsics for an uninitialised read.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

namespace img::clrrep {

namespace {

#define IMG_CLRREP_AVX512 __attribute__((target(IMG_TARGET_AVX512)))
#define IMG_CLRREP_AVX512_INLINE __attribute__((target(IMG_TARGET_AVX512), always_inline)) inline

using V = __m512i;

IMG_CLRREP_AVX512_INLINE V Set(int32_t v) { return _mm512_set1_epi32(v); }

// Bytes c (and c + 1 when `two`) of sixteen 3-byte groups, zero-extended.
IMG_CLRREP_AVX512_INLINE V Field(V v, int32_t c, bool two) {
  // Byte 0 of lane i reads byte 3 i + c, byte 1 byte 3 i + c + 1.
  const V base = _mm512_setr_epi32(0, 3, 6, 9, 12, 15, 18, 21, 24, 27, 30, 33, 36, 39, 42, 45);
  const V idx = _mm512_add_epi32(_mm512_mullo_epi32(base, Set(257)), Set(c + ((c + 1) << 8)));
  return _mm512_maskz_permutexvar_epi8(two ? 0x3333333333333333ull : 0x1111111111111111ull, idx, v);
}

IMG_CLRREP_AVX512 void Loop(uint8_t *rgb, const uint8_t *changed, const uint8_t *weights, int32_t first,
                            int32_t end) {
  // Byte j of 48: sample j % 3 of pixel j / 3 (samples 0 and 1 from bytes 0
  // and 1 of the first vector's lanes, sample 2 from byte 0 of the second's).
  alignas(64) uint8_t order[64] = {};
  for (int j = 0; j < 48; ++j)
    order[j] = static_cast<uint8_t>(j % 3 < 2 ? 4 * (j / 3) + j % 3 : 64 + 4 * (j / 3));
  const V store = _mm512_load_si512(order);
  const V thousand = Set(1000), top = Set(255);
  const __m512 divisor = _mm512_set1_ps(1000.0f);
  constexpr __mmask64 k48 = 0xFFFFFFFFFFFFull;
  int32_t x = first;
  for (; x + 16 <= end; x += 16) {
    const std::ptrdiff_t at = 3 * static_cast<std::ptrdiff_t>(x);
    const V s = _mm512_maskz_loadu_epi8(k48, rgb + at), c = _mm512_maskz_loadu_epi8(k48, changed + at);
    const V w = Field(_mm512_maskz_loadu_epi8(k48, weights + at), 0, true),
            rest = _mm512_sub_epi32(thousand, w);
    V out[3];
    for (int32_t k = 0; k < 3; ++k) {
      const V n = _mm512_add_epi32(_mm512_mullo_epi32(Field(c, k, false), w),
                                   _mm512_mullo_epi32(Field(s, k, false), rest));
      out[k] = _mm512_min_epi32(_mm512_cvttps_epi32(_mm512_div_ps(_mm512_cvtepi32_ps(n), divisor)), top);
    }
    const V low = _mm512_or_si512(out[0], _mm512_slli_epi32(out[1], 8));
    _mm512_mask_storeu_epi8(rgb + at, k48, _mm512_permutex2var_epi8(low, store, out[2]));
  }
  if (x < end) BlendRun8(Isa::Scalar, rgb, changed, weights, x, end);
}

}  // namespace

void BlendRun8Avx512(uint8_t *rgb, const uint8_t *changed, const uint8_t *weights, int32_t first,
                     int32_t end) {
  Loop(rgb, changed, weights, first, end);
}

}  // namespace img::clrrep

#pragma GCC diagnostic pop
