// The 8-bit hue and saturation steps, the AVX2 loops (Isa::Avx2): eight
// pixels a step in 32-bit lanes (HUESAT_lanes.h has the formulas and why they
// are exact). Eight 3-byte pixels are read as two overlapping 16-byte loads
// (bytes 0..15 and 8..23) and split into lanes with byte shuffles, and
// written back as exactly 24 bytes. Every function carries target("avx2"):
// the file is compiled for the baseline.
#include <immintrin.h>

#include "HSI.h"
#include "HUESAT.h"

#define IMG_HUESAT_TARGET "avx2"
#include "HUESAT_lanes.h"

namespace img::huesat {

namespace {

#define IMG_AVX2 __attribute__((target("avx2")))
#define IMG_AVX2_INLINE __attribute__((target("avx2"), always_inline)) inline

struct Lanes8 {
  static constexpr int32_t kLanes = 8;
  using I = int32_t __attribute__((vector_size(32)));
  using U = uint32_t __attribute__((vector_size(32)));
  using F = float __attribute__((vector_size(32)));

  // Sample c (0..2) of the eight pixels, zero-extended: the low half from
  // bytes 0..15 (pixels 0..3), the high half from bytes 8..23 (pixels 4..7
  // at offsets 4..15).
  static IMG_AVX2_INLINE I Field(__m256i v, int c) {
    const char z = static_cast<char>(0x80);
    const char a = static_cast<char>(c), e = static_cast<char>(c + 4);
    const __m256i m = _mm256_setr_epi8(a, z, z, z, a + 3, z, z, z, a + 6, z, z, z, a + 9, z, z, z,  //
                                       e, z, z, z, e + 3, z, z, z, e + 6, z, z, z, e + 9, z, z, z);
    return (I)_mm256_shuffle_epi8(v, m);
  }
  static IMG_AVX2_INLINE void Load3(const uint8_t *q, I &b, I &g, I &r) {
    const __m256i v =
        _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i *>(q))),
                                _mm_loadu_si128(reinterpret_cast<const __m128i *>(q + 8)), 1);
    b = Field(v, 0), g = Field(v, 1), r = Field(v, 2);
  }
  // Byte 0 of each lane moved to bytes c, c + 3, c + 6, c + 9 of its half.
  static IMG_AVX2_INLINE __m256i Spread(I v, int c) {
    char m[16];
    for (int k = 0; k < 16; ++k) m[k] = static_cast<char>(k < 12 && k % 3 == c ? (k / 3) * 4 : 0x80);
    const __m128i h = _mm_loadu_si128(reinterpret_cast<const __m128i *>(m));
    return _mm256_shuffle_epi8((__m256i)v, _mm256_inserti128_si256(_mm256_castsi128_si256(h), h, 1));
  }
  static IMG_AVX2_INLINE void Store3(uint8_t *q, I b, I g, I r) {
    const __m256i v = _mm256_or_si256(_mm256_or_si256(Spread(b, 0), Spread(g, 1)), Spread(r, 2));
    const __m128i lo = _mm256_castsi256_si128(v), hi = _mm256_extracti128_si256(v, 1);
    _mm_storel_epi64(reinterpret_cast<__m128i *>(q), lo);
    const int32_t lo2 = _mm_extract_epi32(lo, 2), hi2 = _mm_extract_epi32(hi, 2);
    std::memcpy(q + 8, &lo2, 4);
    _mm_storel_epi64(reinterpret_cast<__m128i *>(q + 12), hi);
    std::memcpy(q + 20, &hi2, 4);
  }
  // 32-bit values at base + 4 idx.
  static IMG_AVX2_INLINE I Gather(const void *base, I idx) {
    return (I)_mm256_i32gather_epi32(static_cast<const int *>(base), (__m256i)idx, 4);
  }
  // 16-bit samples, one by one.
  static IMG_AVX2_INLINE void Load16(const uint16_t *p, int32_t channels, I &b, I &g, I &r) {
    for (int32_t k = 0; k < kLanes; ++k)
      b[k] = p[k * channels], g[k] = p[k * channels + 1], r[k] = p[k * channels + 2];
  }
  static IMG_AVX2_INLINE void Store16(uint16_t *p, int32_t channels, I b, I g, I r) {
    for (int32_t k = 0; k < kLanes; ++k) {
      p[k * channels] = static_cast<uint16_t>(b[k]), p[k * channels + 1] = static_cast<uint16_t>(g[k]);
      p[k * channels + 2] = static_cast<uint16_t>(r[k]);
    }
  }
};

}  // namespace

IMG_AVX2 int32_t HueLanesAvx2(uint8_t *row, int32_t channels, int32_t left, int32_t right, int32_t step) {
  return RunLanes<Lanes8>(row, channels, left, right, HueLanes<Lanes8>{step});
}

IMG_AVX2 int32_t SaturationLanesAvx2(uint8_t *row, int32_t channels, int32_t left, int32_t right,
                                     int32_t step) {
  return RunLanes<Lanes8>(row, channels, left, right, SaturationLanes<Lanes8>{step});
}

IMG_AVX2 int32_t HueLanesAvx2(uint16_t *row, int32_t channels, int32_t left, int32_t right, int32_t step) {
  return RunLanes16<Lanes8>(row, channels, left, right, HueLanes16<Lanes8>{step});
}

IMG_AVX2 int32_t SaturationLanesAvx2(uint16_t *row, int32_t channels, int32_t left, int32_t right,
                                     int32_t step) {
  return RunLanes16<Lanes8>(row, channels, left, right, SaturationLanes16<Lanes8>{step});
}

}  // namespace img::huesat

IMG_AVX2 int32_t img::hsi::HsiLanesAvx2(uint8_t *row, int32_t channels, int32_t left, int32_t right,
                                        const uint32_t *packed) {
  return huesat::RunLanes<huesat::Lanes8>(row, channels, left, right,
                                          huesat::HsiLanes<huesat::Lanes8>{packed});
}

IMG_AVX2 int32_t img::hsi::HsiLanesAvx2(uint16_t *row, int32_t channels, int32_t left, int32_t right,
                                        const HueChange *table) {
  return huesat::RunLanes16<huesat::Lanes8>(row, channels, left, right,
                                            huesat::HsiLanes16<huesat::Lanes8>{table});
}
