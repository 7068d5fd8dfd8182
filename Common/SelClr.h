// Selective colour (Q_SelectiveColorBitmap): the per-pixel change, written
// once as an inline template that the scalar path and the instruction-set
// files instantiate (the same integer arithmetic: bit-identical results).
#pragma once

#include <cstdint>

#include "cpu.h"
#include "imgcolor.h"

namespace img::selclr {

// adjust[c][k]: range k's adjustment of ink c (0 cyan, 1 magenta, 2 yellow)
// plus its black adjustment, in percent (-200..200).
struct Plan {
  int32_t adjust[3][SELCOLOR_RANGES];
  bool relative;
};
Plan MakePlan(const SelectiveColorOptions &options);

// n / d rounded to the nearest integer, halves away from zero (d > 0, even).
template <class I>
inline I RoundDiv(I n, I d) {
  const I h = d / 2;
  return n >= 0 ? (n + h) / d : -((h - n) / d);
}

// One pixel of blue, green, red samples on 0..kFull. Weights are in units of
// 1 / (2 kFull) of the 0..1 scale; an ink changes by
// sum(weight × adjustment) / 200 samples (times ink / kFull when relative).
template <class T, int32_t kFull, bool kRelative>
__attribute__((always_inline)) inline void SelectPixel(T *p, const Plan &plan) {
  const int32_t B = p[0], G = p[1], R = p[2];
  const auto max2 = [](int32_t a, int32_t b) { return a > b ? a : b; };
  const auto min2 = [](int32_t a, int32_t b) { return a < b ? a : b; };
  const auto pos = [](int32_t v) { return v > 0 ? v : 0; };
  const auto abs = [](int32_t v) { return v < 0 ? -v : v; };
  const int32_t mx = max2(R, max2(G, B)), mn = min2(R, min2(G, B));
  int32_t w[SELCOLOR_RANGES];
  w[SELCOLOR_REDS] = 2 * pos(R - max2(G, B));
  w[SELCOLOR_YELLOWS] = 2 * pos(min2(R, G) - B);
  w[SELCOLOR_GREENS] = 2 * pos(G - max2(R, B));
  w[SELCOLOR_CYANS] = 2 * pos(min2(G, B) - R);
  w[SELCOLOR_BLUES] = 2 * pos(B - max2(R, G));
  w[SELCOLOR_MAGENTAS] = 2 * pos(min2(R, B) - G);
  w[SELCOLOR_WHITES] = 2 * pos(2 * mn - kFull);
  w[SELCOLOR_NEUTRALS] = 2 * kFull - abs(2 * mx - kFull) - abs(2 * mn - kFull);
  w[SELCOLOR_BLACKS] = 2 * pos(kFull - 2 * mx);
  const int32_t sample[3] = {R, G, B};
  int32_t out[3];
  for (int32_t c = 0; c < 3; ++c) {
    int32_t sum = 0;
    for (int32_t k = 0; k < SELCOLOR_RANGES; ++k) sum += w[k] * plan.adjust[c][k];
    const int32_t ink = kFull - sample[c];
    int32_t delta;
    if constexpr (!kRelative)
      delta = RoundDiv<int32_t>(sum, 200);
    else if constexpr (kFull == 255)
      delta = RoundDiv<int32_t>(sum * ink, 200 * kFull);  // |sum × ink| < 2^27
    else
      delta = static_cast<int32_t>(RoundDiv<int64_t>(int64_t{sum} * ink, int64_t{200} * kFull));
    const int32_t changed = min2(max2(ink + delta, 0), kFull);
    out[c] = kFull - changed;
  }
  p[0] = static_cast<T>(out[2]), p[1] = static_cast<T>(out[1]), p[2] = static_cast<T>(out[0]);
}

template <class T, int32_t kFull, bool kRelative>
__attribute__((always_inline)) inline void SelectRunOf(T *row, int32_t channels, int32_t first, int32_t end,
                                                       const Plan &plan) {
  if (channels == 3) {
    for (int32_t x = first; x < end; ++x) SelectPixel<T, kFull, kRelative>(row + 3 * x, plan);
  } else {
    for (int32_t x = first; x < end; ++x) SelectPixel<T, kFull, kRelative>(row + channels * x, plan);
  }
}

// Changes pixels first..end-1 of a row of `channels` (3 or 4) samples with
// the loop of instruction set `isa` (or the best one below it that exists).
void SelectRun8(Isa isa, uint8_t *row, int32_t channels, int32_t first, int32_t end, const Plan &plan);
void SelectRun16(uint16_t *row, int32_t channels, int32_t first, int32_t end, const Plan &plan);

// The AVX2 loop of 8-bit rows (SelClr_avx2.cpp).
void SelectRun8Avx2(uint8_t *row, int32_t channels, int32_t first, int32_t end, const Plan &plan);

}  // namespace img::selclr
