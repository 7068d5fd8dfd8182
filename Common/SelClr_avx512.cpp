// Selective colour, the AVX-512 loop (Isa::Avx512): sixteen 8-bit pixels a
// step in 32-bit lanes, the arithmetic of SelectPlanes8 (SelClr.h) written
// out:
// - weights and adjustments fit 16 bits (weights 0..510, adjustments
//   -200..200), so each ink's four products are two vpmaddwd on pairs
//   (hue range, pair range) and (white or black range, neutrals), summed in
//   32 bits as the reference sums them (no overflow: |sum| < 2^19);
// - the rounded quotients |n| / d with n = sum (d = 200) or sum × ink
//   (d = 51000, |n| < 2^27) are (|n| + d / 2) × M >> S in 64-bit products,
//   M = ceil(2^S / d) < 2^32, exact while (|n| + d / 2) × (M d - 2^S) < 2^S
//   (S = 39 for 200: 2^20 × 200 < 2^39; S = 47 for 51000: 2^27 × 51000 <
//   2^47).
// The pixels a step does not fill go through the reference.
#include <immintrin.h>

#include <array>

#include "SelClr.h"

// GCC 12 takes the undefined pass-through operand of the AVX-512
// intrinsics for an uninitialised read.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

namespace img::selclr {

namespace {

#define IMG_SELCLR_AVX512 __attribute__((target("avx512f,avx512bw,avx512dq,avx512vl,avx512vbmi")))
#define IMG_SELCLR_AVX512_INLINE \
  __attribute__((target("avx512f,avx512bw,avx512dq,avx512vl,avx512vbmi"), always_inline)) inline

using V = __m512i;

IMG_SELCLR_AVX512_INLINE V Set(int32_t v) { return _mm512_set1_epi32(v); }

// Byte c of each of the sixteen pixels of `channels` bytes, zero-extended.
IMG_SELCLR_AVX512_INLINE V Field(V v, int32_t channels, int32_t c) {
  const V idx = _mm512_add_epi32(
      _mm512_mullo_epi32(_mm512_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15),
                         Set(channels)),
      Set(c));
  return _mm512_maskz_permutexvar_epi8(0x1111111111111111ull, idx, v);
}

// Byte j of a run of 3-byte pixels: field j % 3 of pixel j / 3 (fields 0
// and 1 in bytes 0 and 1 of the first table's lanes, field 2 in the second's).
constexpr std::array<uint8_t, 64> kStore3 = [] {
  std::array<uint8_t, 64> m{};
  for (int j = 0; j < 48; ++j)
    m[j] = static_cast<uint8_t>(j % 3 < 2 ? 4 * (j / 3) + j % 3 : 64 + 4 * (j / 3));
  return m;
}();

// (|n| + d / 2) / d with the sign of n (RoundedQuotient).
template <uint32_t kD, int kShift>
IMG_SELCLR_AVX512_INLINE V RoundedQuotient(V n) {
  constexpr uint64_t kM = ((uint64_t{1} << kShift) + kD - 1) / kD;
  static_assert(kM < (uint64_t{1} << 32));
  const V m = _mm512_add_epi32(_mm512_abs_epi32(n), Set(static_cast<int32_t>(kD / 2)));
  const V mul = _mm512_set1_epi64(static_cast<int64_t>(kM));
  const V even = _mm512_srli_epi64(_mm512_mul_epu32(m, mul), kShift);
  const V odd = _mm512_srli_epi64(_mm512_mul_epu32(_mm512_srli_epi64(m, 32), mul), kShift);
  const V q = _mm512_mask_blend_epi32(0xAAAA, even, _mm512_slli_epi64(odd, 32));
  return _mm512_mask_sub_epi32(q, _mm512_movepi32_mask(n), _mm512_setzero_si512(), q);
}

IMG_SELCLR_AVX512_INLINE V Low(int32_t v) { return Set(static_cast<int32_t>(static_cast<uint16_t>(v))); }
IMG_SELCLR_AVX512_INLINE V High(int32_t v) {
  return Set(static_cast<int32_t>(static_cast<uint32_t>(v) << 16));
}

// One ink's adjustments as 16-bit pairs: (hue range, pair range) and
// (white or black range, neutrals), the first of each pair in the low half.
struct InkPairs {
  V reds, greens, blues, yellows, cyans, magentas, whites, blacks;
  IMG_SELCLR_AVX512_INLINE explicit InkPairs(const int32_t (&a)[SELCOLOR_RANGES]) {
    reds = Low(a[SELCOLOR_REDS]), greens = Low(a[SELCOLOR_GREENS]), blues = Low(a[SELCOLOR_BLUES]);
    yellows = High(a[SELCOLOR_YELLOWS]), cyans = High(a[SELCOLOR_CYANS]),
    magentas = High(a[SELCOLOR_MAGENTAS]);
    const V neutrals = High(a[SELCOLOR_NEUTRALS]);
    whites = _mm512_or_si512(Low(a[SELCOLOR_WHITES]), neutrals);
    blacks = _mm512_or_si512(Low(a[SELCOLOR_BLACKS]), neutrals);
  }
};

template <bool kRelative>
IMG_SELCLR_AVX512 void Loop(uint8_t *row, int32_t channels, int32_t first, int32_t end, const Plan &plan) {
  const InkPairs inks[3] = {InkPairs(plan.adjust[0]), InkPairs(plan.adjust[1]), InkPairs(plan.adjust[2])};
  const V full = Set(255), store3 = _mm512_loadu_si512(kStore3.data());
  // Bytes written: 48 of a 3-byte run; the first three of each 4-byte pixel.
  const __mmask64 written = channels == 3 ? 0xFFFFFFFFFFFFull : 0x7777777777777777ull;
  const __mmask64 read = channels == 3 ? 0xFFFFFFFFFFFFull : ~0ull;
  int32_t x = first;
  for (; x + 16 <= end; x += 16) {
    uint8_t *p = row + static_cast<std::ptrdiff_t>(channels) * x;
    const V v = _mm512_maskz_loadu_epi8(read, p);
    const V B = Field(v, channels, 0), G = Field(v, channels, 1), R = Field(v, channels, 2);
    const V mx = _mm512_max_epi32(_mm512_max_epi32(R, G), B),
            mn = _mm512_min_epi32(_mm512_min_epi32(R, G), B);
    const V md = _mm512_sub_epi32(_mm512_sub_epi32(_mm512_add_epi32(_mm512_add_epi32(R, G), B), mx), mn);
    const V white = _mm512_sub_epi32(_mm512_add_epi32(mn, mn), full);
    const V black = _mm512_sub_epi32(full, _mm512_add_epi32(mx, mx));
    const V wHue = _mm512_add_epi32(_mm512_sub_epi32(mx, md), _mm512_sub_epi32(mx, md));
    const V wPair = _mm512_add_epi32(_mm512_sub_epi32(md, mn), _mm512_sub_epi32(md, mn));
    const V end0 = _mm512_max_epi32(_mm512_max_epi32(white, black), _mm512_setzero_si512());
    const V wEnd = _mm512_add_epi32(end0, end0);  // white and black are never both positive
    const V wNeutral =
        _mm512_sub_epi32(_mm512_sub_epi32(Set(510), _mm512_abs_epi32(black)), _mm512_abs_epi32(white));
    const V huePair = _mm512_or_si512(wHue, _mm512_slli_epi32(wPair, 16));
    const V endNeutral = _mm512_or_si512(wEnd, _mm512_slli_epi32(wNeutral, 16));
    const __mmask16 redMax = _mm512_cmpeq_epi32_mask(R, mx), greenMax = _mm512_cmpeq_epi32_mask(G, mx);
    const __mmask16 blueMin = _mm512_cmpeq_epi32_mask(B, mn), redMin = _mm512_cmpeq_epi32_mask(R, mn);
    const __mmask16 whites = _mm512_cmpgt_epi32_mask(white, _mm512_setzero_si512());
    const V samples[3] = {R, G, B};
    V out[3];
    for (int32_t c = 0; c < 3; ++c) {
      const InkPairs &a = inks[c];
      const V aHue =
          _mm512_mask_blend_epi32(redMax, _mm512_mask_blend_epi32(greenMax, a.blues, a.greens), a.reds);
      const V aPair =
          _mm512_mask_blend_epi32(blueMin, _mm512_mask_blend_epi32(redMin, a.magentas, a.cyans), a.yellows);
      const V aEnd = _mm512_mask_blend_epi32(whites, a.blacks, a.whites);
      const V sum = _mm512_add_epi32(_mm512_madd_epi16(huePair, _mm512_or_si512(aHue, aPair)),
                                     _mm512_madd_epi16(endNeutral, aEnd));
      const V ink = _mm512_sub_epi32(full, samples[c]);
      V delta;
      if constexpr (kRelative)
        delta = RoundedQuotient<51000, 47>(_mm512_mullo_epi32(sum, ink));
      else
        delta = RoundedQuotient<200, 39>(sum);
      const V changed =
          _mm512_min_epi32(_mm512_max_epi32(_mm512_add_epi32(ink, delta), _mm512_setzero_si512()), full);
      out[c] = _mm512_sub_epi32(full, changed);
    }
    // out: red, green, blue; bytes go back blue, green, red.
    const V bg = _mm512_or_si512(out[2], _mm512_slli_epi32(out[1], 8));
    if (channels == 3) {
      _mm512_mask_storeu_epi8(p, written, _mm512_permutex2var_epi8(bg, store3, out[0]));
    } else {
      _mm512_mask_storeu_epi8(p, written, _mm512_or_si512(bg, _mm512_slli_epi32(out[0], 16)));
    }
  }
  if (x < end) SelectRunOf<uint8_t, 255, kRelative>(row, channels, x, end, plan);
}

}  // namespace

void SelectRun8Avx512(uint8_t *row, int32_t channels, int32_t first, int32_t end, const Plan &plan) {
  if (plan.relative)
    Loop<true>(row, channels, first, end, plan);
  else
    Loop<false>(row, channels, first, end, plan);
}

}  // namespace img::selclr

#pragma GCC diagnostic pop
