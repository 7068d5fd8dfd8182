// The byte lookup of SSSE3 (Isa::Ssse3): sixteen samples a shuffle, the
// shared loop of lut_shuffle.h on 128-bit vectors. Every function carries
// target("ssse3"): the file is compiled for the baseline.
#include <immintrin.h>

#include "lut_isa.h"

#define IMG_SHUFFLE_TARGET "ssse3"
#include "lut_shuffle.h"

namespace img::lut {
namespace {

struct Sse : ShuffleLanes<16> {
  static IMG_SHUFFLE_INLINE __m128i Raw(B v) { return reinterpret_cast<__m128i>(v); }
  static IMG_SHUFFLE_INLINE B Table(const uint8_t *row) { return Load<B>(row); }
  static IMG_SHUFFLE_INLINE B Shuffle(B table, B index) {
    return reinterpret_cast<B>(_mm_shuffle_epi8(Raw(table), Raw(index)));
  }
  // Picks by a mask of whole bytes: and, andnot, or.
  static IMG_SHUFFLE_INLINE B Pick(__m128i mask, B yes, B no) {
    return reinterpret_cast<B>(_mm_or_si128(_mm_and_si128(mask, Raw(yes)), _mm_andnot_si128(mask, Raw(no))));
  }
  static IMG_SHUFFLE_INLINE B ByTopBit(B v, B low, B high) {
    return Pick(_mm_cmplt_epi8(Raw(v), _mm_setzero_si128()), high, low);
  }
  static IMG_SHUFFLE_INLINE B KeepFourth(B r, B v) {
    return Pick(_mm_set1_epi32(static_cast<int32_t>(0xFF000000u)), v, r);
  }
};

}  // namespace

void MapSsse3(const uint8_t *table, const uint8_t *src, uint8_t *dst, std::size_t count, bool keepFourth) {
  MapShuffle<Sse>(table, src, dst, count, keepFourth);
}

}  // namespace img::lut
