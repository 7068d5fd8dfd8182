// Hue, saturation and intensity adjustment by hue bands
// (Q_ChangeHueSatIntBitmap). Internal to imgcolor.
#pragma once

#include <cstdint>

#include "imgcolor.h"

namespace img::hsi {

// The changes a pixel of one hue (whole degrees, 0..360) receives.
struct HueChange {
  int32_t hue;         // whole degrees (8-bit samples) or hundredths (16-bit)
  int32_t saturation;  // percent (8-bit) or hundredths of a percent (16-bit)
  int32_t intensity;   // sample units
};
constexpr int32_t kHueEntries = 361;

// Range checks, normalisation of the band angles (in place) and the order
// checks of the records, as the export runs them after copying the records.
// Returns 0 when the call may go on, else its status.
int32_t ValidateRanges(const BitmapRecord *bitmap, int32_t hue, int32_t saturation, int32_t intensity,
                       HueSatIntRange *ranges, uint32_t count);

// Fills table[0..360] for rows of `bits` bits per sample (8 or 16) from the
// overall changes and the normalised records.
void BuildHueTable(HueChange *table, int32_t hue, int32_t saturation, int32_t intensity,
                   const HueSatIntRange *ranges, uint32_t count, int32_t bits);

}  // namespace img::hsi
