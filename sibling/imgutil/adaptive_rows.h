// The row loop of adaptive contrast (each colour channel) written once for
// the instruction-set files: each defines IMG_ADAPTIVE_TARGET (its target
// string), includes this header once and calls Row<T> from its exported
// functions. The loops are plain C++ that the compiler vectorises for that
// target; all arithmetic but the mean is in 32-bit integers.
//
// Per output row: the column sums move down (+ entered row, - row that
// left; contiguous samples), the edge columns are repeated into the padding,
// then per run and chunk of kChunk pixels the horizontal window sums slide
// along the row (one chain per channel) and the samples are rebuilt:
//   m  = trunc((S + 0.5) * inverse)         = floor(S / area)
//   v' = clamp(m + (v - m) * gain / 100)    (division truncating toward zero)
// Column and window sums are kept modulo 2^32 (unsigned, no overflow in the
// running differences); their true values are below 2^31 (Fits()), so the
// signed view of each is exact.
#pragma once

#include <cstring>

#include "adaptive_isa.h"

#ifndef IMG_ADAPTIVE_TARGET
#error "define IMG_ADAPTIVE_TARGET before including adaptive_rows.h"
#endif

namespace img::adaptive {
namespace {

#define IMG_ADAPTIVE_INLINE __attribute__((target(IMG_ADAPTIVE_TARGET), always_inline)) inline

template <class T>
IMG_ADAPTIVE_INLINE void Slide(uint32_t *columns, const T *entered, const T *left, std::size_t n) {
  if (left) {
    for (std::size_t i = 0; i < n; ++i) columns[i] += static_cast<uint32_t>(entered[i]) - left[i];
  } else {
    for (std::size_t i = 0; i < n; ++i) columns[i] += entered[i];
  }
}

// The samples [from, to) of a row from their window sums.
template <class T>
IMG_ADAPTIVE_INLINE void Rebuild(const Fast &k, const uint32_t *sums, const T *centre, T *out,
                                 std::size_t n) {
  const double inverse = k.inverse;
  const int32_t gain = k.gain, max = k.max;
  for (std::size_t i = 0; i < n; ++i) {
    const int32_t mean =
        static_cast<int32_t>((static_cast<double>(static_cast<int32_t>(sums[i])) + 0.5) * inverse);
    const int32_t v = centre[i];
    const int32_t r = mean + (v - mean) * gain / 100;
    out[i] = static_cast<T>(r < 0 ? 0 : r > max ? max : r);
  }
}

// Horizontal window sums of the pixels [x0, x1) of one run, chunk by chunk,
// each chunk rebuilt at once.
template <class T, int C>
IMG_ADAPTIVE_INLINE void Run(const Fast &k, const T *centre, T *out, int32_t x0, int32_t x1) {
  const uint32_t *padded = k.padded;
  uint32_t *sums = k.sums;
  const std::size_t span = 2 * static_cast<std::size_t>(k.half);
  // Window of pixel x: padded pixels x .. x + 2 * half.
  // The copies of the edge columns beyond the padding, as a multiple.
  uint32_t acc[C];
  for (int c = 0; c < C; ++c)
    acc[c] = k.beyondColumns * (padded[static_cast<std::size_t>(k.half) * C + c] +
                                padded[(static_cast<std::size_t>(k.half) + k.width - 1) * C + c]);
  for (std::size_t j = x0; j <= x0 + span; ++j)
    for (int c = 0; c < C; ++c) acc[c] += padded[j * C + c];
  for (int32_t from = x0; from < x1; from += kChunk) {
    const int32_t to = x1 - from < kChunk ? x1 : from + kChunk;
    for (int32_t x = from; x < to; ++x) {
      if (x > x0) {
        const uint32_t *in = padded + (x + span) * C, *gone = padded + static_cast<std::size_t>(x - 1) * C;
        for (int c = 0; c < C; ++c) acc[c] += in[c] - gone[c];
      }
      for (int c = 0; c < C; ++c) sums[static_cast<std::size_t>(x - from) * C + c] = acc[c];
    }
    const std::size_t at = static_cast<std::size_t>(from) * C, n = static_cast<std::size_t>(to - from) * C;
    Rebuild(k, sums, centre + at, out + at, n);
    // The fourth sample stays.
    if (C == 4)
      for (std::size_t i = at + 3; i < at + n; i += 4) out[i] = centre[i];
  }
}

template <class T, int C>
IMG_ADAPTIVE_INLINE void RowOf(const Fast &k, const Step<T> &s) {
  const std::size_t half = static_cast<std::size_t>(k.half), width = static_cast<std::size_t>(k.width);
  uint32_t *columns = k.padded + half * C;
  if (s.first) {
    std::memset(columns, 0, width * C * sizeof(uint32_t));
    for (int32_t i = 0; i < s.count; ++i)
      Slide(columns, s.rows[i], static_cast<const T *>(nullptr), width * C);
    // A window taller than the image: the walked rows run from row 0 to the
    // last row, and the copies of those two beyond them go in as a multiple.
    if (k.beyondRows)
      for (std::size_t i = 0; i < width * C; ++i)
        columns[i] += k.beyondRows * (static_cast<uint32_t>(s.rows[0][i]) + s.rows[s.count - 1][i]);
  } else {
    Slide(columns, s.entered, s.left, width * C);
  }
  for (std::size_t j = 0; j < half; ++j)
    for (int c = 0; c < C; ++c) {
      k.padded[j * C + c] = columns[c];
      columns[(width + j) * C + c] = columns[(width - 1) * C + c];
    }
  for (int32_t r = 0; r < s.runCount; ++r) Run<T, C>(k, s.centre, s.out, s.runs[r].Start, s.runs[r].End);
}

template <class T>
__attribute__((target(IMG_ADAPTIVE_TARGET))) void Row(const Fast &k, const Step<T> &s) {
  switch (k.channels) {
    case 1:
      return RowOf<T, 1>(k, s);
    case 3:
      return RowOf<T, 3>(k, s);
    default:
      return RowOf<T, 4>(k, s);
  }
}

}  // namespace
}  // namespace img::adaptive
