// Channel mix, the AVX-512 row (Isa::Avx512): 32 pixels at a time in 16-bit
// lanes, the same exact term arithmetic as the AVX2 row (chmix_avx2.cpp has
// the derivation); the byte permutes of VBMI take the samples apart and put
// them back, the sums are clamped to 0..255 in their lanes.
#include <immintrin.h>

#include "chmix.h"

namespace img {

namespace {

#define IMG_AVX512 __attribute__((target("avx512f,avx512bw,avx512vbmi")))

// Permute indices for 32 pixels of `ch` samples (32 × ch bytes, two 64-byte
// halves).
struct Permutes {
  uint8_t gather[3][64];        // channel k of pixel p into byte 2p (from both halves)
  uint8_t pair[2][64];          // destination half h: red and green outputs (two sources)
  uint8_t single[2][64];        // destination half h: the blue output
  uint64_t blue[2], fourth[2];  // bytes of half h taken from the blue output / kept
};

constexpr Permutes MakePermutes(int32_t ch) {
  Permutes s{};
  for (int32_t k = 0; k < 3; ++k)
    for (int32_t b = 0; b < 64; ++b) s.gather[k][b] = static_cast<uint8_t>(b % 2 ? 0 : (b / 2) * ch + k);
  for (int32_t h = 0; h < 2; ++h)
    for (int32_t b = 0; b < 64; ++b) {
      const int32_t at = 64 * h + b, p = at / ch, c = at % ch;
      // Samples B, G, R: sample 0 from the blue output, 1 green, 2 red.
      s.pair[h][b] = static_cast<uint8_t>(c == 1 ? 2 * p : 64 + 2 * p);
      s.single[h][b] = static_cast<uint8_t>(2 * p);
      if (c == 0 && p < 32) s.blue[h] |= uint64_t{1} << b;
      if (c == 3) s.fourth[h] |= uint64_t{1} << b;
    }
  return s;
}

constexpr Permutes kPermutes3 = MakePermutes(3);
constexpr Permutes kPermutes4 = MakePermutes(4);

template <int32_t ch>
IMG_AVX512 int32_t Mix(const ChannelMixTables &t, uint8_t *row, int32_t left, int32_t right) {
  constexpr const Permutes &s = ch == 3 ? kPermutes3 : kPermutes4;
  constexpr __mmask64 kSecond = ch == 3 ? 0xFFFFFFFFull : ~0ull;  // bytes of the second half
  __m512i coefficients[3][3], whole[3][3], one[3][3], sign[3][3], base[3];
  for (int32_t c = 0; c < 3; ++c) {
    int32_t b = t.constant[c];
    for (int32_t i = 0; i < 3; ++i) {
      coefficients[c][i] = _mm512_set1_epi16(static_cast<int16_t>(t.part[c][i] | 50 << 8));
      whole[c][i] = _mm512_set1_epi16(t.whole[c][i]);
      one[c][i] = _mm512_set1_epi16(t.negative[c][i] ? 1 : 0);
      sign[c][i] = _mm512_set1_epi16(t.negative[c][i] ? -1 : 0);
      b += t.negative[c][i] ? 1 : 0;
    }
    base[c] = _mm512_set1_epi16(static_cast<int16_t>(b));
  }
  __m512i gather[3], pair[2], single[2];
  for (int32_t k = 0; k < 3; ++k) gather[k] = _mm512_loadu_si512(s.gather[k]);
  for (int32_t h = 0; h < 2; ++h) {
    pair[h] = _mm512_loadu_si512(s.pair[h]);
    single[h] = _mm512_loadu_si512(s.single[h]);
  }
  const __m512i high = _mm512_set1_epi16(0x0100), divide = _mm512_set1_epi16(5243);
  const __m512i zero = _mm512_setzero_si512(), top = _mm512_set1_epi16(255);
  constexpr __mmask64 kEven = 0x5555555555555555ull;
  int32_t x = left;
  for (; x + 32 <= right; x += 32) {
    uint8_t *p = row + static_cast<std::ptrdiff_t>(x) * ch;
    const __m512i first = _mm512_loadu_si512(p);
    const __m512i second = _mm512_maskz_loadu_epi8(kSecond, p + 64);
    // Inputs red, green, blue (the tables' order) from samples B, G, R.
    __m512i v[3], v1[3];
    for (int32_t k = 0; k < 3; ++k) {
      v[2 - k] = _mm512_maskz_permutex2var_epi8(kEven, first, gather[k], second);
      v1[2 - k] = _mm512_or_si512(v[2 - k], high);
    }
    __m512i result[3];
    for (int32_t c = 0; c < 3; ++c) {
      __m512i sum = base[c];
      for (int32_t i = 0; i < 3; ++i) {
        const __m512i rounded = _mm512_maddubs_epi16(v1[i], coefficients[c][i]);
        const __m512i hundredths = _mm512_srli_epi16(_mm512_mulhi_epu16(rounded, divide), 3);
        const __m512i term = _mm512_add_epi16(_mm512_mullo_epi16(v[i], whole[c][i]), hundredths);
        sum = _mm512_add_epi16(sum, _mm512_xor_si512(_mm512_subs_epu16(term, one[c][i]), sign[c][i]));
      }
      result[c] = _mm512_min_epi16(_mm512_max_epi16(sum, zero), top);
    }
    // result[0] red, [1] green, [2] blue, each pixel's value in byte 2p.
    for (int32_t h = 0; h < 2; ++h) {
      __m512i w = _mm512_permutex2var_epi8(result[1], pair[h], result[0]);
      w = _mm512_mask_permutexvar_epi8(w, s.blue[h], single[h], result[2]);
      if constexpr (ch == 4) w = _mm512_mask_blend_epi8(s.fourth[h], w, h == 0 ? first : second);
      if (h == 0)
        _mm512_storeu_si512(p, w);
      else
        _mm512_mask_storeu_epi8(p + 64, kSecond, w);
    }
  }
  return x;
}

}  // namespace

int32_t MixRow8Avx512(const ChannelMixTables &tables, uint8_t *row, int32_t channels, int32_t left,
                      int32_t right) {
  return channels == 4 ? Mix<4>(tables, row, left, right) : Mix<3>(tables, row, left, right);
}

}  // namespace img
