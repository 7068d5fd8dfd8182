// Channel mix, the AVX-512 row (Isa::Avx512): 32 pixels at a time in 16-bit
// lanes, the same exact term arithmetic as the AVX2 row (chmix_avx2.cpp has
// the derivation); the byte permutes of VBMI take the samples apart and put
// them back, the sums are clamped to 0..255 in their lanes.
#include <immintrin.h>

#include "chmix.h"
#include "cpu.h"

namespace img {

namespace {

#define IMG_AVX512 __attribute__((target(IMG_TARGET_AVX512)))

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

// Three samples a pixel, 64 pixels a step, by table lookups: each term's low
// and high byte (ChannelMixTables::low, high) comes from two 128-entry byte
// permutes chosen by the sample's top bit. With S the sum of an output's
// three terms, the low bytes add with their carries counted and the high
// bytes add with the carries: S = 256 × h + l, l the wrapped low sum, h
// within −60..59 (a signed byte). The clamp of S to 0..255 is then 0 for
// h < 0, 255 for h > 0 and l for h = 0, as the scalar clamp.
struct Split3 {
  uint8_t low[3][64], high[3][64];  // sample k of pixel p: byte 3p + k of 192
  uint64_t fromHigh[3];
  uint8_t pair[3][64], single[3][64];  // the way back: output vector v from three planes
  uint64_t third[3];
};

constexpr Split3 MakeSplit3() {
  Split3 s{};
  for (int32_t k = 0; k < 3; ++k)
    for (int32_t p = 0; p < 64; ++p) {
      const int32_t at = 3 * p + k;
      s.low[k][p] = static_cast<uint8_t>(at < 128 ? at : 0);
      s.high[k][p] = static_cast<uint8_t>(at < 128 ? 0 : at - 128);
      if (at >= 128) s.fromHigh[k] |= uint64_t{1} << p;
    }
  for (int32_t v = 0; v < 3; ++v)
    for (int32_t b = 0; b < 64; ++b) {
      const int32_t at = 64 * v + b, p = at / 3, k = at % 3;
      s.pair[v][b] = static_cast<uint8_t>(k == 1 ? 64 + p : p);
      s.single[v][b] = static_cast<uint8_t>(p);
      if (k == 2) s.third[v] |= uint64_t{1} << b;
    }
  return s;
}

constexpr Split3 kSplit3 = MakeSplit3();

// Entry v of a 256-byte table (four vectors), `top` the lanes with v >= 128.
IMG_AVX512 inline __m512i Lookup(const uint8_t *table, __m512i v, __mmask64 top) {
  const __m512i t0 = _mm512_loadu_si512(table), t1 = _mm512_loadu_si512(table + 64);
  const __m512i t2 = _mm512_loadu_si512(table + 128), t3 = _mm512_loadu_si512(table + 192);
  return _mm512_mask_blend_epi8(top, _mm512_permutex2var_epi8(t0, v, t1),
                                _mm512_permutex2var_epi8(t2, v, t3));
}

IMG_AVX512 int32_t Lookup3(const ChannelMixTables &t, uint8_t *row, int32_t left, int32_t right) {
  __m512i low[3], high[3], pair[3], single[3];
  for (int32_t k = 0; k < 3; ++k) {
    low[k] = _mm512_loadu_si512(kSplit3.low[k]);
    high[k] = _mm512_loadu_si512(kSplit3.high[k]);
    pair[k] = _mm512_loadu_si512(kSplit3.pair[k]);
    single[k] = _mm512_loadu_si512(kSplit3.single[k]);
  }
  const __m512i one = _mm512_set1_epi8(1), zero = _mm512_setzero_si512(), full = _mm512_set1_epi8(-1);
  int32_t x = left;
  for (; x + 64 <= right; x += 64) {
    uint8_t *p = row + static_cast<std::ptrdiff_t>(x) * 3;
    const __m512i a = _mm512_loadu_si512(p), b = _mm512_loadu_si512(p + 64), c = _mm512_loadu_si512(p + 128);
    // Inputs in the tables' order red, green, blue from samples B, G, R.
    __m512i in[3];
    __mmask64 top[3];
    for (int32_t k = 0; k < 3; ++k) {
      in[2 - k] = _mm512_mask_permutexvar_epi8(_mm512_permutex2var_epi8(a, low[k], b), kSplit3.fromHigh[k],
                                               high[k], c);
      top[2 - k] = _mm512_movepi8_mask(in[2 - k]);
    }
    __m512i out[3];
    for (int32_t o = 0; o < 3; ++o) {
      const __m512i l0 = Lookup(t.low[o][0], in[0], top[0]);
      const __m512i l1 = Lookup(t.low[o][1], in[1], top[1]);
      const __m512i l2 = Lookup(t.low[o][2], in[2], top[2]);
      const __m512i s1 = _mm512_add_epi8(l0, l1), s2 = _mm512_add_epi8(s1, l2);
      const __mmask64 carry1 = _mm512_cmplt_epu8_mask(s1, l0), carry2 = _mm512_cmplt_epu8_mask(s2, s1);
      const uint8_t *const h = reinterpret_cast<const uint8_t *>(t.high[o][0]);
      __m512i sum = _mm512_add_epi8(_mm512_add_epi8(Lookup(h, in[0], top[0]), Lookup(h + 256, in[1], top[1])),
                                    Lookup(h + 512, in[2], top[2]));
      sum = _mm512_mask_add_epi8(sum, carry1, sum, one);
      sum = _mm512_mask_add_epi8(sum, carry2, sum, one);
      const __mmask64 above = _mm512_cmpgt_epi8_mask(sum, zero), below = _mm512_movepi8_mask(sum);
      out[o] = _mm512_maskz_mov_epi8(~below, _mm512_mask_mov_epi8(s2, above, full));
    }
    // Samples B, G, R from the blue, green and red outputs.
    for (int32_t v = 0; v < 3; ++v)
      _mm512_storeu_si512(p + 64 * v,
                          _mm512_mask_permutexvar_epi8(_mm512_permutex2var_epi8(out[2], pair[v], out[1]),
                                                       kSplit3.third[v], single[v], out[0]));
  }
  return x;
}

}  // namespace

int32_t MixRow8Avx512(const ChannelMixTables &tables, uint8_t *row, int32_t channels, int32_t left,
                      int32_t right) {
  return channels == 4 ? Mix<4>(tables, row, left, right)
                       : Mix<3>(tables, row, Lookup3(tables, row, left, right), right);
}

}  // namespace img
