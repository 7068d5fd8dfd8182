// Selective colour (Q_SelectiveColorBitmap): the per-pixel change, written
// once as an inline template that the scalar path and the instruction-set
// files instantiate (the same integer arithmetic: bit-identical results).
#pragma once

#include <cstddef>
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

// One pixel of blue, green, red samples on 0..kFull: the reference. Weights are in units of
// 1 / (2 kFull) of the 0..1 scale; an ink changes by
// sum(weight × adjustment) / 200 samples (times ink / kFull when relative).
template <class T, int32_t kFull, bool kRelative>
inline void SelectPixel(T *p, const Plan &plan) {
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

// The per-pixel step one pixel at a time: the reference (Isa::Scalar).
template <class T, int32_t kFull, bool kRelative>
inline void SelectRunOf(T *row, int32_t channels, int32_t first, int32_t end, const Plan &plan) {
  for (int32_t x = first; x < end; ++x) SelectPixel<T, kFull, kRelative>(row + channels * x, plan);
}

// The same change on planes of 8-bit samples, written for the vectoriser: of
// the nine weights at most four are non-zero (the range of the largest
// channel, the range of the two largest, whites or blacks, neutrals), so each
// ink sums four products with the adjustments chosen by comparisons. A tie
// that makes the choice ambiguous makes its weight 0, so the sums are the
// reference's. Divisions are of magnitudes, unsigned, by constants.
__attribute__((always_inline)) inline uint32_t RoundedQuotient(int32_t n, uint32_t d) {
  const uint32_t m = n < 0 ? 0u - static_cast<uint32_t>(n) : static_cast<uint32_t>(n);
  const uint32_t q = (m + d / 2) / d;
  return n < 0 ? 0u - q : q;
}

// The adjustments of one ink, held in locals for the loop.
struct InkAdjust {
  int32_t reds, greens, blues, yellows, cyans, magentas, whites, blacks, neutrals;
  explicit InkAdjust(const int32_t (&a)[SELCOLOR_RANGES])
      : reds(a[SELCOLOR_REDS]),
        greens(a[SELCOLOR_GREENS]),
        blues(a[SELCOLOR_BLUES]),
        yellows(a[SELCOLOR_YELLOWS]),
        cyans(a[SELCOLOR_CYANS]),
        magentas(a[SELCOLOR_MAGENTAS]),
        whites(a[SELCOLOR_WHITES]),
        blacks(a[SELCOLOR_BLACKS]),
        neutrals(a[SELCOLOR_NEUTRALS]) {}
};

template <bool kRelative>
__attribute__((always_inline)) inline void SelectPlanes8(int32_t *__restrict r, int32_t *__restrict g,
                                                         int32_t *__restrict b, int32_t n, const Plan &plan) {
  constexpr int32_t F = 255;
  const InkAdjust cyan(plan.adjust[0]), magenta(plan.adjust[1]), yellow(plan.adjust[2]);
  for (int32_t i = 0; i < n; ++i) {
    const int32_t R = r[i], G = g[i], B = b[i];
    const int32_t mx = R > G ? (R > B ? R : B) : (G > B ? G : B);
    const int32_t mn = R < G ? (R < B ? R : B) : (G < B ? G : B);
    const int32_t md = R + G + B - mx - mn;
    const int32_t wHue = 2 * (mx - md), wPair = 2 * (md - mn);
    const int32_t white = 2 * mn - F, black = F - 2 * mx;
    const int32_t wEnd = 2 * (white > 0 ? white : black > 0 ? black : 0);
    const int32_t wNeutral = 2 * F - (black < 0 ? -black : black) - (white < 0 ? -white : white);
    const bool redMax = R == mx, greenMax = G == mx, blueMin = B == mn, redMin = R == mn, whites = white > 0;
    const auto change = [&](int32_t sample, const InkAdjust &a) {
      const int32_t aHue = redMax ? a.reds : greenMax ? a.greens : a.blues;
      const int32_t aPair = blueMin ? a.yellows : redMin ? a.cyans : a.magentas;
      const int32_t aEnd = whites ? a.whites : a.blacks;
      const int32_t sum = wHue * aHue + wPair * aPair + wEnd * aEnd + wNeutral * a.neutrals;
      const int32_t ink = F - sample;
      const int32_t delta = kRelative ? static_cast<int32_t>(RoundedQuotient(sum * ink, 200 * F))
                                      : static_cast<int32_t>(RoundedQuotient(sum, 200));
      const int32_t changed = ink + delta;
      return F - (changed < 0 ? 0 : changed > F ? F : changed);
    };
    r[i] = change(R, cyan);
    g[i] = change(G, magenta);
    b[i] = change(B, yellow);
  }
}

// Pixels first..end-1 of an 8-bit row in chunks: gathered into planes,
// changed, scattered back (the fourth sample stays).
template <bool kRelative>
__attribute__((always_inline)) inline void SelectRunPlanar8(uint8_t *row, int32_t channels, int32_t first,
                                                            int32_t end, const Plan &plan) {
  constexpr int32_t kChunk = 256;
  alignas(64) int32_t r[kChunk], g[kChunk], b[kChunk];
  for (int32_t x0 = first; x0 < end; x0 += kChunk) {
    const int32_t n = end - x0 < kChunk ? end - x0 : kChunk;
    uint8_t *p = row + static_cast<std::ptrdiff_t>(channels) * x0;
    if (channels == 3) {
      for (int32_t i = 0; i < n; ++i) b[i] = p[3 * i], g[i] = p[3 * i + 1], r[i] = p[3 * i + 2];
    } else {
      for (int32_t i = 0; i < n; ++i) b[i] = p[4 * i], g[i] = p[4 * i + 1], r[i] = p[4 * i + 2];
    }
    SelectPlanes8<kRelative>(r, g, b, n, plan);
    if (channels == 3) {
      for (int32_t i = 0; i < n; ++i)
        p[3 * i] = static_cast<uint8_t>(b[i]), p[3 * i + 1] = static_cast<uint8_t>(g[i]),
              p[3 * i + 2] = static_cast<uint8_t>(r[i]);
    } else {
      for (int32_t i = 0; i < n; ++i)
        p[4 * i] = static_cast<uint8_t>(b[i]), p[4 * i + 1] = static_cast<uint8_t>(g[i]),
              p[4 * i + 2] = static_cast<uint8_t>(r[i]);
    }
  }
}

// Changes pixels first..end-1 of a row of `channels` (3 or 4) samples with
// the loop of instruction set `isa` (or the best one below it that exists):
// Scalar the reference, Sse2 the planar loop for the baseline, Avx2 the
// planar loop compiled for AVX2.
void SelectRun8(Isa isa, uint8_t *row, int32_t channels, int32_t first, int32_t end, const Plan &plan);
void SelectRun16(uint16_t *row, int32_t channels, int32_t first, int32_t end, const Plan &plan);

// The AVX2 and AVX-512 loops of 8-bit rows (SelClr_avx2.cpp, SelClr_avx512.cpp).
void SelectRun8Avx2(uint8_t *row, int32_t channels, int32_t first, int32_t end, const Plan &plan);
void SelectRun8Avx512(uint8_t *row, int32_t channels, int32_t first, int32_t end, const Plan &plan);

}  // namespace img::selclr
