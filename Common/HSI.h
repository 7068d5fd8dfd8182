// Hue, saturation and intensity adjustment by hue bands
// (Q_ChangeHueSatIntBitmap). Internal to imgcolor.
#pragma once

#include <cstdint>

#include "cpu.h"
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

// The table packed for the loops: per hue, the turned hue (0..359) in bits
// 0-9, the saturation change in bits 10-21 and the intensity in bits 22-31
// (both signed). Only tables whose hue changes lie within +-360, saturation
// changes within +-2047 and intensities within +-511 pack (`fits`); those
// from valid records on 8-bit rows stay inside unless several records add up
// beyond them.
struct LaneTable {
  bool fits;
  uint32_t packed[kHueEntries];
};
void PackHueTable(const HueChange *table, LaneTable &lanes);

// Pixels [left, right) of an 8-bit row of 3 or 4 samples (blue, green, red
// first, a fourth kept) through the three changes of `table`, with the loops
// of the best set up to `isa` where `lanes` fits (lanes: `table` packed);
// Isa::Scalar is the reference, one pixel at a time.
void ChangeRow8(Isa isa, uint8_t *row, int32_t channels, int32_t left, int32_t right, const HueChange *table,
                const LaneTable &lanes);

// The loops of one set (HUESAT_avx2.cpp, HUESAT_avx512.cpp): a prefix of
// [left, right), returning where they stopped.
int32_t HsiLanesAvx2(uint8_t *row, int32_t channels, int32_t left, int32_t right, const uint32_t *packed);
int32_t HsiLanesAvx512(uint8_t *row, int32_t channels, int32_t left, int32_t right, const uint32_t *packed);

// 16-bit rows likewise (no packing: the loops read the table itself where
// HueTableFits16 holds: hue changes within +-35999 hundredths, saturation
// changes within +-100000, intensities within +-2^24).
void ChangeRow16(Isa isa, uint16_t *row, int32_t channels, int32_t left, int32_t right,
                 const HueChange *table);
bool HueTableFits16(const HueChange *table);
int32_t HsiLanesAvx2(uint16_t *row, int32_t channels, int32_t left, int32_t right, const HueChange *table);
int32_t HsiLanesAvx512(uint16_t *row, int32_t channels, int32_t left, int32_t right, const HueChange *table);

}  // namespace img::hsi
