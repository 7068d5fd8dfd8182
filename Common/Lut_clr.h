// Table builders of the lookup-table point operations (Lut_clr.cpp). Each
// fills a table of signed 32-bit entries, one per sample value, from its
// formula; the exports allocate the table, call one builder and hand the
// table to ApplyLut. Declared here so that the tests can check the tables.
#pragma once

#include <cstdint>

#include "imgkernel.h"

namespace img {

// Table length of a bitmap that does not use its attached table: 65536 for
// 48/64 bits; gray: 2^BitsPerPixel (SignificantHighBit -1), else
// 2^(high - low + 1), or AttachedLutLength when it uses an attached table;
// 256 for every other kind. 0 when the significant bits give no usable
// length (an exponent outside 1..16).
uint32_t LutLengthOf(const BitmapRecord *bitmap);

// Bit shift of a table length: 256 -> 8, 4096 -> 4, 65536 -> 0; -1 otherwise.
int32_t LutShiftOf(uint32_t length);

// entry i = i below the threshold (unsigned comparison), else i ^ mask.
void BuildSolarizeLut(int32_t *table, uint32_t length, uint32_t threshold, uint32_t mask);

// Integer posterisation to `levels` (2..64); length at least 2.
void BuildPosterizeLut(int32_t *table, uint32_t length, uint32_t levels);

// The 0..256 bounds of a contrast change (non-zero, -1000..1000) before
// they are scaled to the table.
struct ContrastBounds {
  int32_t low;
  int32_t high;
};
ContrastBounds ContrastLimits(int32_t change);
void BuildContrastLut(int32_t *table, uint32_t length, int32_t change);

// entry i = (i * factor) / 100 in unsigned 32-bit arithmetic, limited to
// length - 1 by a signed comparison.
void BuildMultiplyLut(int32_t *table, uint32_t length, uint32_t factor);

// Fields of the operation word of Q_ApplyMathLogicBitmap.
constexpr uint32_t kMathLogicChannel = 0x000Fu;
constexpr uint32_t kMathLogicInput = 0x00F0u;
constexpr uint32_t kMathLogicOperation = 0x0F00u;
constexpr uint32_t kMathLogicOutput = 0xF000u;

// RC_INVALID_PARAMETER when a field or the value is out of range for a table
// of `length` entries (unsigned or signed data); 0 when valid.
int32_t CheckMathLogic(int32_t value, uint32_t operation, uint32_t length, bool signedData);
// Fills all `length` entries for unsigned data.
void BuildMathLogicLut(int32_t *table, uint32_t length, int32_t value, uint32_t operation);
// Fills the table for signed data from centred values. Position
// length / 2 is written twice and position length - 1 is never written, so
// the table must come zeroed.
void BuildSignedMathLogicLut(int32_t *table, uint32_t length, int32_t value, uint32_t operation);

// Occupied span of the histogram of the samples: first is the lowest
// occupied value below length - 1 (length - 1 when none), last the highest
// occupied value above 0 (0 when none). Taken from the lowest and highest
// sample (-1, -1 for no sample): the span needs no counts.
struct HistogramSpan {
  uint32_t first;
  uint32_t last;
};
HistogramSpan OccupiedSpan(int32_t lowest, int32_t highest, uint32_t length);

// Spreads first..last over the whole range. Returns false, leaving the table
// alone, when the span holds a single value (nothing to stretch).
bool BuildStretchLut(int32_t *table, uint32_t length, uint32_t first, uint32_t last);

// Contrast change (non-zero, -1000..1000) around the occupied span.
void BuildHistoContrastLut(int32_t *table, uint32_t length, uint32_t first, uint32_t last, int32_t change);

}  // namespace img
