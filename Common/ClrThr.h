// Colour threshold (Q_ColorThresholdBitmap): the limits of each space's
// components, the selection tables and the step over a run of space pixels.
#pragma once

#include <cstdint>

#include "cpu.h"
#include "imgcolor.h"

namespace img::clrthr {

inline constexpr uint32_t kFillMax = 0x100u;  // Mode's highest digit: fill with the upper limit
inline constexpr uint32_t kClip = 0x200u;     // below the range: lower limit, above: upper limit

// The lower and upper limit of each component of a space; `wide` for 48- and
// 64-bit bitmaps (16-bit samples).
struct Limits {
  int32_t lower[3];
  int32_t upper[3];
};
Limits LimitsOf(uint32_t space, bool wide);

// The space code and the three components against the limits: 0, or
// RC_INVALID_PARAMETER.
int32_t CheckComponents(uint32_t space, const ColorThresholdComponent *components, const Limits &limits);

// One component's selection: table[v - lower] is 0 (keep), 1 (fill) or 2
// (upper fill) for v in lower .. lower + span. The table is what the range
// says: below `low` it holds `outside`, from low to high 1 - outside, above
// high 2 when `clip`, else outside.
struct Selection {
  int32_t lower = 0;
  uint32_t span = 0;
  int32_t fill = 0;
  int32_t upperFill = 0;
  bool whole = false;  // a selected value sets all three components to their fill values
  const uint8_t *table = nullptr;
  const int32_t *map = nullptr;  // map[v - lower]: v, fill or upper fill as table[v - lower] says
  int32_t low = 0, high = 0;
  bool outside = false;
  bool clip = false;
};
// Fills `table` and `map` (upper - lower + 1 entries each) for the component.
Selection FillTable(const ColorThresholdComponent &component, int32_t lower, int32_t upper, uint8_t *table,
                    int32_t *map);

// Thresholds space pixels first..end-1 of `space` (8- or 16-bit layout) in
// place. CMYK and the spherical form are left as they are.
void ThresholdPixels(uint32_t space, bool wide, uint8_t *pixels, int32_t first, int32_t end,
                     const Selection *selections);

// HSV rows of 8-bit samples: pixels first..end-1 of the blue-green-red row
// `rgb` into HSV (the space row `hsv`), thresholded and back, in place, with
// the row conversions and the step of instruction set `isa` (or the best one
// below it that exists). Isa::Scalar is the reference; the AVX-512 step is
// ThresholdHsv8Avx512 (ClrThr_avx512.cpp).
void ThresholdHsvRow8(Isa isa, uint8_t *rgb, uint8_t *hsv, int32_t first, int32_t end,
                      const Selection *selections);
void ThresholdHsv8Avx512(uint8_t *hsv, int32_t first, int32_t end, const Selection *selections);

}  // namespace img::clrthr
