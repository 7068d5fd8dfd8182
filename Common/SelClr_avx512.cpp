// Selective colour, the AVX-512 loop (Isa::Avx512): thirty-two 8-bit pixels
// a step, the arithmetic of SelectPlanes8 (SelClr.h) rearranged:
// - every weight is even and the nine add up to 510: the range of the
//   largest channel and the pair's range give 2 (max - min), and the end
//   range and neutrals the rest: with min > 127 whites 2 (2 min - 255) and
//   neutrals 2 (510 - max - min); with max < 128 blacks 2 (255 - 2 max) and
//   neutrals 2 (max + min); else neutrals 2 (255 - max + min). The loop
//   works with halves: w' = w / 2 adding up to 255, S' = sum / 2,
//   |S'| <= 255 × 200 = 51000;
// - sorting and the halved weights in 16-bit lanes: max, min, the middle by
//   max(min(R, G), min(max(R, G), B)); hue = max - mid, pair = mid - min,
//   white = max(2 min - 255, 0), black = max(255 - 2 max, 0); the neutrals'
//   weight is 255 less the others, so its adjustment is folded into theirs
//   (InkTables);
// - each ink's hue and pair adjustments come from one permute of a per-call
//   table indexed by the range of the largest channel and that of the two
//   largest, and its sum from two vpmaddwd in 32-bit lanes plus 255 aN
//   (|products| <= 255 × 400, |sum| <= 51000 as before);
// - the rounded change: absolute RoundDiv(2 S', 200) = trunc((S' ± 50) ×
//   0.01f), relative RoundDiv(2 S' ink, 51000) = trunc((S' ink ± 12750) ×
//   (1 / 25500)f), the bias with the sign of S'. The operands are integers
//   below 2^24, exact in single precision (the fused multiply-add rounds the
//   exact S' ink ± 12750 once, to itself); the product with the rounded
//   reciprocal truncates to the integer quotient for every |y| <= 51050 and
//   <= 13017750 (checked over every value while written; the test runs the
//   extreme plans), and rounding is symmetric in the sign;
// - the sample is sample - change (reference: 255 - clamp(ink + change)),
//   held to 0..255 by the unsigned-saturating byte pack.
// The pixels a step does not fill go through the reference.
#include <immintrin.h>

#include <array>

#include "SelClr.h"
#include "cpu.h"

// GCC 12 takes the undefined pass-through operand of the AVX-512
// intrinsics for an uninitialised read.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

namespace img::selclr {

namespace {

#define IMG_SELCLR_AVX512 __attribute__((target(IMG_TARGET_AVX512)))
#define IMG_SELCLR_AVX512_INLINE __attribute__((target(IMG_TARGET_AVX512), always_inline)) inline

using V = __m512i;
using F = __m512;

IMG_SELCLR_AVX512_INLINE V W(int32_t v) { return _mm512_set1_epi16(static_cast<int16_t>(v)); }

// Byte indexes into 128 bytes (two registers) of 32 pixels of `channels`
// bytes: field c of pixel i into the low byte of 16-bit lane i.
template <int32_t kChannels>
constexpr std::array<std::array<uint8_t, 64>, 3> kFields = [] {
  std::array<std::array<uint8_t, 64>, 3> m{};
  for (int c = 0; c < 3; ++c)
    for (int i = 0; i < 32; ++i) m[c][2 * i] = static_cast<uint8_t>(kChannels * i + c);
  return m;
}();

// Bytes 64 h .. 64 h + 63 of the 32 changed pixels from the byte packs:
// pack (blue, green) holds blue of pixel 8 k + t at 16 k + t and green at
// 16 k + 8 + t; pack (red, red) red at 64 + 16 k + t. A fourth byte is not
// written (index 0).
template <int32_t kChannels>
constexpr std::array<std::array<uint8_t, 64>, 2> kStores = [] {
  std::array<std::array<uint8_t, 64>, 2> m{};
  for (int j = 0; j < 32 * kChannels; ++j) {
    const int p = j / kChannels, f = j % kChannels, at = 16 * (p / 8) + p % 8;
    m[j / 64][j % 64] = static_cast<uint8_t>(f == 0 ? at : f == 1 ? at + 8 : f == 2 ? 64 + at : 0);
  }
  return m;
}();

IMG_SELCLR_AVX512_INLINE V Load(const std::array<uint8_t, 64> &a) { return _mm512_loadu_si512(a.data()); }

// One ink's adjustments less its neutrals' one (the halved weights add up to
// 255, so S' = 255 aN + hue (aHue - aN) + pair (aPair - aN) + white (aWhite -
// aN) + black (aBlack - aN), each difference within -400..400): `huePair`
// as 16-bit pairs (hue range, pair range) indexed by 4 × (reds 0, greens 1,
// blues 2) + (yellows 0, cyans 1, magentas 2); `ends` the pair (whites,
// blacks); `base` 255 aN.
struct InkTables {
  V huePair, ends, base;
  IMG_SELCLR_AVX512_INLINE explicit InkTables(const int32_t (&a)[SELCOLOR_RANGES]) {
    const int32_t n = a[SELCOLOR_NEUTRALS];
    const auto pair = [n](int32_t low, int32_t high) {
      return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint16_t>(low - n)) |
                                  static_cast<uint32_t>(static_cast<uint16_t>(high - n)) << 16);
    };
    constexpr int32_t kHue[3] = {SELCOLOR_REDS, SELCOLOR_GREENS, SELCOLOR_BLUES};
    constexpr int32_t kPair[3] = {SELCOLOR_YELLOWS, SELCOLOR_CYANS, SELCOLOR_MAGENTAS};
    alignas(64) int32_t t[16] = {};
    for (int h = 0; h < 3; ++h)
      for (int p = 0; p < 3; ++p) t[4 * h + p] = pair(a[kHue[h]], a[kPair[p]]);
    huePair = _mm512_load_si512(t);
    ends = _mm512_set1_epi32(pair(a[SELCOLOR_WHITES], a[SELCOLOR_BLACKS]));
    base = _mm512_set1_epi32(255 * n);
  }
};

// The rounded change of sixteen halved sums (relative: times the inks).
template <bool kRelative>
IMG_SELCLR_AVX512_INLINE V Change(V sum, F ink) {
  const F s = _mm512_cvtepi32_ps(sum);
  // The bias with the sign of s: (s & sign) | bias.
  const F bias = _mm512_castsi512_ps(
      _mm512_ternarylogic_epi32(_mm512_castps_si512(s), _mm512_set1_epi32(INT32_MIN),
                                _mm512_castps_si512(_mm512_set1_ps(kRelative ? 12750.0f : 50.0f)), 0xEA));
  const F y = kRelative ? _mm512_fmadd_ps(s, ink, bias) : _mm512_add_ps(s, bias);
  return _mm512_cvttps_epi32(_mm512_mul_ps(y, _mm512_set1_ps(kRelative ? 1.0f / 25500 : 1.0f / 100)));
}

template <bool kRelative, int32_t kChannels>
IMG_SELCLR_AVX512 void Loop(uint8_t *row, int32_t first, int32_t end, const Plan &plan) {
  const InkTables inks[3] = {InkTables(plan.adjust[0]), InkTables(plan.adjust[1]), InkTables(plan.adjust[2])};
  const V fieldB = Load(kFields<kChannels>[0]), fieldG = Load(kFields<kChannels>[1]),
          fieldR = Load(kFields<kChannels>[2]);
  const V store0 = Load(kStores<kChannels>[0]), store1 = Load(kStores<kChannels>[1]);
  constexpr __mmask64 kLow = 0x5555555555555555ull;
  // Bytes read past the first 64 and bytes written (the first three of each
  // 4-byte pixel).
  constexpr __mmask64 kRead1 = kChannels == 3 ? 0xFFFFFFFFull : ~0ull;
  constexpr __mmask64 kWrite0 = kChannels == 3 ? ~0ull : 0x7777777777777777ull;
  constexpr __mmask64 kWrite1 = kChannels == 3 ? 0xFFFFFFFFull : 0x7777777777777777ull;
  const V zero = _mm512_setzero_si512();
  int32_t x = first;
  for (; x + 32 <= end; x += 32) {
    uint8_t *p = row + static_cast<std::ptrdiff_t>(kChannels) * x;
    const V a = _mm512_loadu_si512(p), b = _mm512_maskz_loadu_epi8(kRead1, p + 64);
    const V B = _mm512_maskz_permutex2var_epi8(kLow, a, fieldB, b),
            G = _mm512_maskz_permutex2var_epi8(kLow, a, fieldG, b),
            R = _mm512_maskz_permutex2var_epi8(kLow, a, fieldR, b);
    const V maxRG = _mm512_max_epi16(R, G), minRG = _mm512_min_epi16(R, G);
    const V mx = _mm512_max_epi16(maxRG, B), mn = _mm512_min_epi16(minRG, B);
    const V md = _mm512_max_epi16(minRG, _mm512_min_epi16(maxRG, B));
    const V white = _mm512_max_epi16(_mm512_sub_epi16(_mm512_add_epi16(mn, mn), W(255)), zero);
    const V black = _mm512_max_epi16(_mm512_sub_epi16(W(255), _mm512_add_epi16(mx, mx)), zero);
    const V wHue = _mm512_sub_epi16(mx, md), wPair = _mm512_sub_epi16(md, mn);
    // The ranges' table index, with the reference's order on ties (a tie
    // makes the weight it picks for 0).
    const __mmask32 redMax = _mm512_cmpeq_epi16_mask(R, mx), greenMax = _mm512_cmpeq_epi16_mask(G, mx);
    const __mmask32 blueMin = _mm512_cmpeq_epi16_mask(B, mn), redMin = _mm512_cmpeq_epi16_mask(R, mn);
    const V idx =
        _mm512_or_si512(_mm512_mask_blend_epi16(redMax, _mm512_mask_blend_epi16(greenMax, W(8), W(4)), zero),
                        _mm512_mask_blend_epi16(blueMin, _mm512_mask_blend_epi16(redMin, W(2), W(1)), zero));
    // 32-bit lanes: pixels 8 k .. 8 k + 3 (low) and 8 k + 4 .. 8 k + 7 (high)
    // of each 128-bit block; the signed pack puts them back in order.
    const V hpLo = _mm512_unpacklo_epi16(wHue, wPair), hpHi = _mm512_unpackhi_epi16(wHue, wPair);
    const V wbLo = _mm512_unpacklo_epi16(white, black), wbHi = _mm512_unpackhi_epi16(white, black);
    const V idxLo = _mm512_unpacklo_epi16(idx, zero), idxHi = _mm512_unpackhi_epi16(idx, zero);
    const V samples[3] = {R, G, B};
    V out[3];
    for (int32_t c = 0; c < 3; ++c) {
      const InkTables &t = inks[c];
      const V sumLo = _mm512_add_epi32(
          _mm512_add_epi32(_mm512_madd_epi16(hpLo, _mm512_permutexvar_epi32(idxLo, t.huePair)), t.base),
          _mm512_madd_epi16(wbLo, t.ends));
      const V sumHi = _mm512_add_epi32(
          _mm512_add_epi32(_mm512_madd_epi16(hpHi, _mm512_permutexvar_epi32(idxHi, t.huePair)), t.base),
          _mm512_madd_epi16(wbHi, t.ends));
      F inkLo = _mm512_setzero_ps(), inkHi = _mm512_setzero_ps();
      if constexpr (kRelative) {
        const V ink = _mm512_sub_epi16(W(255), samples[c]);
        inkLo = _mm512_cvtepi32_ps(_mm512_unpacklo_epi16(ink, zero));
        inkHi = _mm512_cvtepi32_ps(_mm512_unpackhi_epi16(ink, zero));
      }
      const V change = _mm512_packs_epi32(Change<kRelative>(sumLo, inkLo), Change<kRelative>(sumHi, inkHi));
      out[c] = _mm512_sub_epi16(samples[c], change);
    }
    const V bg = _mm512_packus_epi16(out[2], out[1]), rr = _mm512_packus_epi16(out[0], out[0]);
    _mm512_mask_storeu_epi8(p, kWrite0, _mm512_permutex2var_epi8(bg, store0, rr));
    _mm512_mask_storeu_epi8(p + 64, kWrite1, _mm512_permutex2var_epi8(bg, store1, rr));
  }
  if (x < end) SelectRunOf<uint8_t, 255, kRelative>(row, kChannels, x, end, plan);
}

}  // namespace

void SelectRun8Avx512(uint8_t *row, int32_t channels, int32_t first, int32_t end, const Plan &plan) {
  if (plan.relative)
    channels == 3 ? Loop<true, 3>(row, first, end, plan) : Loop<true, 4>(row, first, end, plan);
  else
    channels == 3 ? Loop<false, 3>(row, first, end, plan) : Loop<false, 4>(row, first, end, plan);
}

}  // namespace img::selclr

#pragma GCC diagnostic pop
