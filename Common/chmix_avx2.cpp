// Channel mix, the AVX2 row (Isa::Avx2): sixteen pixels at a time, the three
// inputs widened to 16-bit lanes. Each table term round((v × factor) / 100),
// truncated toward zero as the scalar tables have it, is computed exactly
// from the factor split into |factor| = 100 × whole + part (part 0..99):
// - factor >= 0: term = v × whole + (v × part + 50) / 100;
// - factor < 0: term = −max(v × whole + (v × part + 50) / 100 − 1, 0)
//   (the truncation of (50 − v × |factor|) / 100 toward zero).
// v × part + 50 is at most 25295 and (x × 5243) >> 19 equals x / 100 for
// every x up to it (the multiplier's excess, 0.12 / 2^19 a unit, stays below
// 1/100 over the range). Every sum of three terms and the constant lies
// within ±10203, so the 16-bit lanes never wrap and the unsigned-saturating
// pack is the clamp to 0..255. Derivation: docs/planes.md.
#include <immintrin.h>

#include "chmix.h"

namespace img {

namespace {

#define IMG_AVX2 __attribute__((target("avx2")))
#define IMG_AVX2_INLINE __attribute__((target("avx2"), always_inline)) inline

// Byte shuffles between 16 pixels of `ch` samples (`ch` 16-byte words) and
// one 16-byte vector a channel.
struct Shuffles {
  int8_t gather[3][4][16];   // [channel][source word][pixel]
  int8_t scatter[4][3][16];  // [destination word][channel][byte]
  int8_t keep[4][16];        // the fourth sample's bytes of a destination word
};

constexpr Shuffles MakeShuffles(int32_t ch) {
  Shuffles s{};
  for (int32_t k = 0; k < 3; ++k)
    for (int32_t j = 0; j < 4; ++j)
      for (int32_t p = 0; p < 16; ++p) {
        const int32_t at = p * ch + k;
        s.gather[k][j][p] = static_cast<int8_t>(at / 16 == j ? at % 16 : -128);
      }
  for (int32_t j = 0; j < 4; ++j)
    for (int32_t b = 0; b < 16; ++b) {
      const int32_t at = 16 * j + b, p = at / ch, c = at % ch;
      for (int32_t k = 0; k < 3; ++k) s.scatter[j][k][b] = static_cast<int8_t>(c == k ? p : -128);
      s.keep[j][b] = static_cast<int8_t>(c == 3 ? -1 : 0);
    }
  return s;
}

constexpr Shuffles kShuffles3 = MakeShuffles(3);
constexpr Shuffles kShuffles4 = MakeShuffles(4);

IMG_AVX2_INLINE __m128i Load(const int8_t *p) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i *>(p));
}

// The per-call constants of one output channel.
struct Output {
  __m256i coefficients[3];  // bytes part, 50: the multiply-add gives v × part + 50
  __m256i whole[3];
  __m256i one[3];   // 1 for a negative factor, else 0
  __m256i sign[3];  // all ones for a negative factor, else 0
  __m256i base;     // the constant plus one for each negative factor
};

template <int32_t ch>
IMG_AVX2 int32_t Mix(const ChannelMixTables &t, uint8_t *row, int32_t left, int32_t right) {
  constexpr const Shuffles &s = ch == 3 ? kShuffles3 : kShuffles4;
  Output out[3];
  for (int32_t c = 0; c < 3; ++c) {
    int32_t base = t.constant[c];
    for (int32_t i = 0; i < 3; ++i) {
      out[c].coefficients[i] = _mm256_set1_epi16(static_cast<int16_t>(t.part[c][i] | 50 << 8));
      out[c].whole[i] = _mm256_set1_epi16(t.whole[c][i]);
      out[c].one[i] = _mm256_set1_epi16(t.negative[c][i] ? 1 : 0);
      out[c].sign[i] = _mm256_set1_epi16(t.negative[c][i] ? -1 : 0);
      base += t.negative[c][i] ? 1 : 0;
    }
    out[c].base = _mm256_set1_epi16(static_cast<int16_t>(base));
  }
  const __m256i high = _mm256_set1_epi16(0x0100), divide = _mm256_set1_epi16(5243);
  int32_t x = left;
  for (; x + 16 <= right; x += 16) {
    uint8_t *p = row + static_cast<std::ptrdiff_t>(x) * ch;
    __m128i words[4];
    for (int32_t j = 0; j < ch; ++j)
      words[j] = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + 16 * j));
    // Inputs in the order red, green, blue (the tables' order); samples B, G, R.
    __m256i v[3], v1[3];
    for (int32_t k = 0; k < 3; ++k) {
      __m128i g = _mm_shuffle_epi8(words[0], Load(s.gather[k][0]));
      for (int32_t j = 1; j < ch; ++j) g = _mm_or_si128(g, _mm_shuffle_epi8(words[j], Load(s.gather[k][j])));
      v[2 - k] = _mm256_cvtepu8_epi16(g);
      v1[2 - k] = _mm256_or_si256(v[2 - k], high);
    }
    __m128i result[3];
    for (int32_t c = 0; c < 3; ++c) {
      const Output &o = out[c];
      __m256i sum = o.base;
      for (int32_t i = 0; i < 3; ++i) {
        const __m256i rounded = _mm256_maddubs_epi16(v1[i], o.coefficients[i]);
        const __m256i hundredths = _mm256_srli_epi16(_mm256_mulhi_epu16(rounded, divide), 3);
        const __m256i term = _mm256_add_epi16(_mm256_mullo_epi16(v[i], o.whole[i]), hundredths);
        sum = _mm256_add_epi16(sum, _mm256_xor_si256(_mm256_subs_epu16(term, o.one[i]), o.sign[i]));
      }
      result[c] = _mm_packus_epi16(_mm256_castsi256_si128(sum), _mm256_extracti128_si256(sum, 1));
    }
    // result[0] red, [1] green, [2] blue back into samples B, G, R.
    for (int32_t j = 0; j < ch; ++j) {
      __m128i w = _mm_shuffle_epi8(result[2], Load(s.scatter[j][0]));
      w = _mm_or_si128(w, _mm_shuffle_epi8(result[1], Load(s.scatter[j][1])));
      w = _mm_or_si128(w, _mm_shuffle_epi8(result[0], Load(s.scatter[j][2])));
      if constexpr (ch == 4) w = _mm_or_si128(w, _mm_and_si128(words[j], Load(s.keep[j])));
      _mm_storeu_si128(reinterpret_cast<__m128i *>(p + 16 * j), w);
    }
  }
  return x;
}

}  // namespace

int32_t MixRow8Avx2(const ChannelMixTables &tables, uint8_t *row, int32_t channels, int32_t left,
                    int32_t right) {
  return channels == 4 ? Mix<4>(tables, row, left, right) : Mix<3>(tables, row, left, right);
}

}  // namespace img
