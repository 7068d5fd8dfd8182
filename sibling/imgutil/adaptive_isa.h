// Internal to imgutil: the row loops of adaptive contrast (each colour
// channel) for each instruction set, which adaptive.cpp dispatches to. They
// compute in 32-bit integers and give the bytes of the 64-bit scalar
// reference whenever Fits() holds; docs/intensity.md gives the argument.
#pragma once

#include <cstddef>
#include <cstdint>

#include "cpu.h"
#include "imgkernel.h"
#include "imgutil.h"

namespace img::adaptive {

// The window of one call and its working memory.
struct Fast {
  int32_t width;     // pixels a row
  int32_t channels;  // samples a pixel: 1, 3 or 4 (the fourth is kept)
  int32_t half;      // columns walked each side: (dimension - 1) / 2, at most width - 1
  int32_t max;       // largest sample value
  int32_t gain;      // 100 + amount
  double inverse;    // 1 / (dimension * dimension), rounded to the nearest double
  // Copies of the edge rows (columns) that a window larger than the image
  // holds beyond the rows (columns) walked: each side's reach less the
  // height (width) less one, else 0. Their sums are added as a multiple.
  uint32_t beyondRows, beyondColumns;
  // Column sums of the window, `half` pixels of padding on each side that
  // repeat the edge columns: (width + 2 * half) * channels entries. Pixel x
  // is at (x + half) * channels.
  uint32_t *padded;
  // Horizontal window sums of a chunk of kChunk pixels.
  uint32_t *sums;
};
inline constexpr int32_t kChunk = 256;

// True when every window sum, column sum and intermediate of the output
// formula fits a signed 32-bit integer: dimension^2 * max < 2^31 (amount is
// at most 1000, so |v - m| * gain < 2^31 too).
inline bool Fits(uint32_t dimension, int32_t max) {
  return static_cast<uint64_t>(dimension) * dimension * static_cast<uint64_t>(max) <= INT32_MAX;
}

// One output row: the rows that change the column sums (the first row: all
// `count` rows of the window; later: `entered` and `left`), row y as it was
// (`centre`) and the output row with its runs.
template <class T>
struct Step {
  const T *const *rows;
  int32_t count;
  bool first;
  const T *entered;
  const T *left;
  const T *centre;
  T *out;
  const RowRun *runs;
  int32_t runCount;
};

void RowSse2(const Fast &k, const Step<uint8_t> &s);
void RowSse2(const Fast &k, const Step<uint16_t> &s);
void RowAvx2(const Fast &k, const Step<uint8_t> &s);
void RowAvx2(const Fast &k, const Step<uint16_t> &s);
void RowAvx512(const Fast &k, const Step<uint8_t> &s);
void RowAvx512(const Fast &k, const Step<uint16_t> &s);

}  // namespace img::adaptive

namespace img {

// AdaptiveContrast with the loops of instruction sets up to `isa`
// (Isa::Scalar: the 64-bit reference; the export takes the best the
// processor has; tests force each one).
int32_t AdaptiveContrastWithPath(BitmapRecord *bitmap, uint32_t dimension, uint32_t amount, uint32_t type,
                                 Isa isa);

}  // namespace img
