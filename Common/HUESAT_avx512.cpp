// The 8-bit hue and saturation steps, the AVX-512 loops (Isa::Avx512: F, BW,
// DQ, VL and VBMI): sixteen pixels a step in 32-bit lanes (HUESAT_lanes.h
// has the formulas and why they are exact). Sixteen 3-byte pixels are read
// with one masked 48-byte load and split into lanes with byte permutes, and
// written back with one byte permute and a masked 48-byte store: nothing
// outside the 48 bytes is read or written. Every function carries the target
// attribute: the file is compiled for the baseline.
#include <immintrin.h>

#include <array>

#include "HSI.h"
#include "HUESAT.h"
#include "cpu.h"

// GCC 12 reports the undefined pass-through operands inside its own AVX-512
// intrinsics as maybe uninitialized.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

#define IMG_HUESAT_TARGET IMG_TARGET_AVX512
#include "HUESAT_lanes.h"

namespace img::huesat {

namespace {

#define IMG_AVX512 __attribute__((target(IMG_HUESAT_TARGET)))
#define IMG_AVX512_INLINE __attribute__((target(IMG_HUESAT_TARGET), always_inline)) inline

constexpr __mmask64 k48Bytes = 0xFFFFFFFFFFFFull;

// 16-bit rows, sixteen pixels of 3 or 4 samples as two halves of eight (48
// or 64 bytes each). Loading: lane k takes word `channels k + c` of the
// pair of halves (the second half's words from 32 on); the odd words are
// zeroed.
template <int32_t kChannels, int32_t kSample>
constexpr std::array<uint16_t, 32> kLoadWords = [] {
  std::array<uint16_t, 32> m{};
  for (int32_t k = 0; k < 16; ++k)
    m[2 * k] = static_cast<uint16_t>((k < 8 ? 0 : 32) + kChannels * (k % 8) + kSample);
  return m;
}();
// Storing half h: word j is sample j % channels of pixel 8 h + j / channels,
// from word 0 (blue) or 1 (green) of its lane of blue | green << 16, or word
// 0 of its lane of red (the second table).
template <int32_t kChannels, int32_t kHalf>
constexpr std::array<uint16_t, 32> kStoreWords = [] {
  std::array<uint16_t, 32> m{};
  for (int32_t j = 0; j < 32; ++j) {
    const int32_t k = 8 * kHalf + j / kChannels, c = j % kChannels;
    m[j] = static_cast<uint16_t>(c == 2 ? 32 + 2 * k : 2 * k + c);
  }
  return m;
}();

// Byte j of the 48 written: sample j % 3 of pixel j / 3, from byte 0 or 1 of
// lane j / 3 of the first table (blue, green) or byte 0 of the second (red).
constexpr std::array<uint8_t, 64> kStore48 = [] {
  std::array<uint8_t, 64> m{};
  for (int j = 0; j < 48; ++j)
    m[j] = static_cast<uint8_t>(j % 3 < 2 ? 4 * (j / 3) + j % 3 : 64 + 4 * (j / 3));
  return m;
}();

struct Lanes16 {
  static constexpr int32_t kLanes = 16;
  using I = int32_t __attribute__((vector_size(64)));
  using U = uint32_t __attribute__((vector_size(64)));
  using F = float __attribute__((vector_size(64)));

  // Sample c (0..2) of the sixteen pixels of v, zero-extended to 32 bits.
  static IMG_AVX512_INLINE I Field(__m512i v, int c) {
    const __m512i idx = _mm512_add_epi32(
        _mm512_setr_epi32(0, 3, 6, 9, 12, 15, 18, 21, 24, 27, 30, 33, 36, 39, 42, 45), _mm512_set1_epi32(c));
    return (I)_mm512_maskz_permutexvar_epi8(0x1111111111111111ull, idx, v);
  }
  static IMG_AVX512_INLINE void Load3(const uint8_t *q, I &b, I &g, I &r) {
    const __m512i v = _mm512_maskz_loadu_epi8(k48Bytes, q);
    b = Field(v, 0), g = Field(v, 1), r = Field(v, 2);
  }
  static IMG_AVX512_INLINE void Store3(uint8_t *q, I b, I g, I r) {
    const __m512i bg = _mm512_or_si512(_mm512_and_si512((__m512i)b, _mm512_set1_epi32(0xFF)),
                                       _mm512_slli_epi32((__m512i)g, 8));
    const __m512i idx = _mm512_loadu_si512(kStore48.data());
    _mm512_mask_storeu_epi8(q, k48Bytes, _mm512_permutex2var_epi8(bg, idx, (__m512i)r));
  }

  // 32-bit values at base + 4 idx.
  static IMG_AVX512_INLINE I Gather(const void *base, I idx) {
    return (I)_mm512_i32gather_epi32((__m512i)idx, base, 4);
  }
  static IMG_AVX512_INLINE I Words16(__m512i lo, __m512i hi, const std::array<uint16_t, 32> &idx) {
    return (I)_mm512_maskz_permutex2var_epi16(0x55555555u, lo, _mm512_loadu_si512(idx.data()), hi);
  }
  template <int32_t kChannels>
  static IMG_AVX512_INLINE void Load16(const uint16_t *p, I &b, I &g, I &r) {
    constexpr __mmask32 kWords = kChannels == 3 ? 0xFFFFFFu : 0xFFFFFFFFu;
    const __m512i lo = _mm512_maskz_loadu_epi16(kWords, p),
                  hi = _mm512_maskz_loadu_epi16(kWords, p + 8 * kChannels);
    b = Words16(lo, hi, kLoadWords<kChannels, 0>), g = Words16(lo, hi, kLoadWords<kChannels, 1>),
    r = Words16(lo, hi, kLoadWords<kChannels, 2>);
  }
  template <int32_t kChannels>
  static IMG_AVX512_INLINE void Store16(uint16_t *p, I b, I g, I r) {
    constexpr __mmask32 kWords = kChannels == 3 ? 0xFFFFFFu : 0x77777777u;
    const __m512i bg = _mm512_or_si512(_mm512_and_si512((__m512i)b, _mm512_set1_epi32(0xFFFF)),
                                       _mm512_slli_epi32((__m512i)g, 16));
    _mm512_mask_storeu_epi16(
        p, kWords,
        _mm512_permutex2var_epi16(bg, _mm512_loadu_si512(kStoreWords<kChannels, 0>.data()), (__m512i)r));
    _mm512_mask_storeu_epi16(
        p + 8 * kChannels, kWords,
        _mm512_permutex2var_epi16(bg, _mm512_loadu_si512(kStoreWords<kChannels, 1>.data()), (__m512i)r));
  }
  static IMG_AVX512_INLINE void Load16(const uint16_t *p, int32_t channels, I &b, I &g, I &r) {
    if (channels == 3)
      Load16<3>(p, b, g, r);
    else
      Load16<4>(p, b, g, r);
  }
  static IMG_AVX512_INLINE void Store16(uint16_t *p, int32_t channels, I b, I g, I r) {
    if (channels == 3)
      Store16<3>(p, b, g, r);
    else
      Store16<4>(p, b, g, r);
  }
};

// Double lanes for 16-bit samples, with 32-bit integer lanes of the same count.
}  // namespace

IMG_AVX512 int32_t HueLanesAvx512(uint8_t *row, int32_t channels, int32_t left, int32_t right, int32_t step) {
  return RunLanes<Lanes16>(row, channels, left, right, HueLanes<Lanes16>{step});
}

IMG_AVX512 int32_t SaturationLanesAvx512(uint8_t *row, int32_t channels, int32_t left, int32_t right,
                                         int32_t step) {
  return RunLanes<Lanes16>(row, channels, left, right, SaturationLanes<Lanes16>{step});
}

IMG_AVX512 int32_t HueLanesAvx512(uint16_t *row, int32_t channels, int32_t left, int32_t right,
                                  int32_t step) {
  return RunLanes16<Lanes16>(row, channels, left, right, HueLanes16<Lanes16>{step});
}

IMG_AVX512 int32_t SaturationLanesAvx512(uint16_t *row, int32_t channels, int32_t left, int32_t right,
                                         int32_t step) {
  return RunLanes16<Lanes16>(row, channels, left, right, SaturationLanes16<Lanes16>{step});
}

}  // namespace img::huesat

IMG_AVX512 int32_t img::hsi::HsiLanesAvx512(uint8_t *row, int32_t channels, int32_t left, int32_t right,
                                            const uint32_t *packed) {
  return huesat::RunLanes<huesat::Lanes16>(row, channels, left, right,
                                           huesat::HsiLanes<huesat::Lanes16>{packed});
}

IMG_AVX512 int32_t img::hsi::HsiLanesAvx512(uint16_t *row, int32_t channels, int32_t left, int32_t right,
                                            const HueChange *table) {
  return huesat::RunLanes16<huesat::Lanes16>(row, channels, left, right,
                                             huesat::HsiLanes16<huesat::Lanes16>{table});
}

#pragma GCC diagnostic pop
