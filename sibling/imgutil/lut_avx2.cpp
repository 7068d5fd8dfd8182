// The byte lookup and the XOR form of AVX2 (Isa::Avx2): thirty-two samples a shuffle, the
// shared loop of lut_shuffle.h on 256-bit vectors (the 16-entry sub-tables
// repeated in both 128-bit lanes). Every function carries target("avx2"):
// the file is compiled for the baseline.
#include <immintrin.h>

#include "lut_isa.h"

#define IMG_SHUFFLE_TARGET "avx2"
#include "lut_shuffle.h"

namespace img::lut {
namespace {

struct Avx : ShuffleLanes<32> {
  static IMG_SHUFFLE_INLINE __m256i Raw(B v) { return reinterpret_cast<__m256i>(v); }
  static IMG_SHUFFLE_INLINE B Table(const uint8_t *row) {
    return reinterpret_cast<B>(
        _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i *>(row))));
  }
  static IMG_SHUFFLE_INLINE B Shuffle(B table, B index) {
    return reinterpret_cast<B>(_mm256_shuffle_epi8(Raw(table), Raw(index)));
  }
  // Byte blends on the top bit of the selector.
  static IMG_SHUFFLE_INLINE B ByTopBit(B v, B low, B high) {
    return reinterpret_cast<B>(_mm256_blendv_epi8(Raw(low), Raw(high), Raw(v)));
  }
  static IMG_SHUFFLE_INLINE B KeepFourth(B r, B v) {
    return reinterpret_cast<B>(
        _mm256_blendv_epi8(Raw(r), Raw(v), _mm256_set1_epi32(static_cast<int32_t>(0xFF000000u))));
  }
};

}  // namespace

void MapAvx2(const uint8_t *table, const uint8_t *src, uint8_t *dst, std::size_t count, bool keepFourth) {
  MapShuffle<Avx>(table, src, dst, count, keepFourth);
}

// 32 bytes a step, the pattern in every 64-bit lane.
__attribute__((target("avx2"))) void XorAvx2(uint8_t *p, std::size_t count, uint64_t pattern) {
  const __m256i k = _mm256_set1_epi64x(static_cast<long long>(pattern));
  std::size_t i = 0;
  for (; i + 32 <= count; i += 32) {
    __m256i *q = reinterpret_cast<__m256i *>(p + i);
    _mm256_storeu_si256(q, _mm256_xor_si256(_mm256_loadu_si256(q), k));
  }
  // i is a multiple of 8: the tail keeps the pattern's phase.
  XorScalar(p + i, count - i, pattern);
}

}  // namespace img::lut
