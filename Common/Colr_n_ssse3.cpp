// The channel operations' byte loops on 16-byte vectors with byte shuffles
// (Isa::Ssse3, also run for Isa::Avx2): the permutation of the samples
// within each pixel, the same bytes as the scalar loop moves.
#include <tmmintrin.h>

#include "Colr_n_internal.h"

namespace img::colrn {

namespace {

__attribute__((target("ssse3"))) inline __m128i Pick(const __m128i *masks, __m128i lo, __m128i hi) {
  return _mm_or_si128(_mm_shuffle_epi8(lo, masks[0]), _mm_shuffle_epi8(hi, masks[1]));
}

}  // namespace

// Blocks of 48 bytes (a whole number of pixels of 3, 4, 6 or 8 bytes) are
// loaded before any is stored. Output vector k takes its bytes from two
// loaded vectors that hold every pixel it touches (from 16 k - 8 to 16 k + 24,
// cut to the block): two shuffles, each zeroing the bytes the other gives.
__attribute__((target("ssse3"))) void PermuteBytesSsse3(uint8_t *p, std::size_t pixels, int32_t bytesPerPixel,
                                                        const uint8_t *from) {
  constexpr int32_t kStarts[3] = {0, 8, 16};  // first of the window's two vectors
  alignas(16) uint8_t index[3][2][16];
  for (int32_t k = 0; k < 3; ++k)
    for (int32_t j = 0; j < 16; ++j) {
      const int32_t out = 16 * k + j;
      const int32_t source = out - out % bytesPerPixel + from[out % bytesPerPixel] - kStarts[k];
      index[k][0][j] = static_cast<uint8_t>(source < 16 ? source : 0x80);
      index[k][1][j] = static_cast<uint8_t>(source >= 16 ? source - 16 : 0x80);
    }
  __m128i m[3][2];
  for (int32_t k = 0; k < 3; ++k)
    for (int32_t h = 0; h < 2; ++h) m[k][h] = _mm_load_si128(reinterpret_cast<const __m128i *>(index[k][h]));
  const std::size_t bytes = pixels * static_cast<std::size_t>(bytesPerPixel);
  std::size_t i = 0;
  for (; i + 48 <= bytes; i += 48) {
    uint8_t *b = p + i;
    const __m128i *in = reinterpret_cast<const __m128i *>(b);
    const __m128i a = _mm_loadu_si128(in), c = _mm_loadu_si128(in + 1), d = _mm_loadu_si128(in + 2),
                  u = _mm_loadu_si128(reinterpret_cast<const __m128i *>(b + 8)),
                  v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(b + 24));
    __m128i *out = reinterpret_cast<__m128i *>(b);
    _mm_storeu_si128(out, Pick(m[0], a, c));
    _mm_storeu_si128(out + 1, Pick(m[1], u, v));
    _mm_storeu_si128(out + 2, Pick(m[2], c, d));
  }
  uint8_t t[8];
  for (uint8_t *q = p + i; q < p + bytes; q += bytesPerPixel) {
    for (int32_t k = 0; k < bytesPerPixel; ++k) t[k] = q[k];
    for (int32_t k = 0; k < bytesPerPixel; ++k) q[k] = t[from[k]];
  }
}

}  // namespace img::colrn
