// Colour threshold (Q_ColorThresholdBitmap): the limits of each space's
// components, the selection tables and the step over a run of space pixels.
#pragma once

#include <cstdint>

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
// (upper fill) for v in lower .. lower + span.
struct Selection {
  int32_t lower = 0;
  uint32_t span = 0;
  int32_t fill = 0;
  int32_t upperFill = 0;
  bool whole = false;  // a selected value sets all three components to their fill values
  const uint8_t *table = nullptr;
  const int32_t *map = nullptr;  // map[v - lower]: v, fill or upper fill as table[v - lower] says
};
// Fills `table` and `map` (upper - lower + 1 entries each) for the component.
Selection FillTable(const ColorThresholdComponent &component, int32_t lower, int32_t upper, uint8_t *table,
                    int32_t *map);

// Thresholds space pixels first..end-1 of `space` (8- or 16-bit layout) in
// place. CMYK and the spherical form are left as they are.
void ThresholdPixels(uint32_t space, bool wide, uint8_t *pixels, int32_t first, int32_t end,
                     const Selection *selections);

}  // namespace img::clrthr
