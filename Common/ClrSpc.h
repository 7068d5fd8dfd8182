// Conversions between RGB and the other colour spaces, for one 8-bit pixel
// or a run of pixels of one 8- or 16-bit row. Internal to imgcolor.
//
// Codes 0..10 convert RGB into a space (COLORSPACE_* in imgcolor.h); adding
// COLORSPACE_TO_RGB (16) gives the way back. The layouts of a pixel in each
// space are described in docs/colorspaces.md.
#pragma once

#include <cstdint>

#include "cpu.h"
#include "imgcolor.h"
#include "passes.h"

namespace img {

// Integer tables of the table-driven Lab form (codes 9 and 25). The members
// are listed in the order in which BuildLabTables allocates and fills them.
// The a-scale, b-scale and inverse cube tables are indexed by signed values:
// their *Block member owns the allocation and the plain member points at
// index 0 inside it.
struct LabTableSet {
  int32_t *RgbToX[3];  // [c][i] = i * weight of channel c (R, G, B) in X; 256 entries
  int32_t *RgbToY[3];  // 256 entries
  int32_t *RgbToZ[3];  // 256 entries
  int32_t *XToRgb[3];  // [c][i] = i * weight of X in channel c; 256 entries
  int32_t *YToRgb[3];  // 256 entries
  int32_t *ZToRgb[3];  // 279 entries
  int32_t *CubeRoot;   // f(t), t = 0..10000 in 1/10000
  int32_t *LFromY;     // L (0..100) from Y in 1/10000
  int32_t *AScaleBlock;
  int32_t *AScale;  // indexes -10000..9999
  int32_t *BScaleBlock;
  int32_t *BScale;  // indexes -10000..9999
  int32_t *YFromL;  // Y in 1/10000 from L = 0..100
  int32_t *InvCubeBlock;
  int32_t *InvCube;  // g(u), indexes -6400..12560
};

// Bytes of one pixel in the space of `code` (forward or inverse) for 8 or 16
// bits per sample; 0 for codes 9 and 25, invalid codes or other widths.
int32_t GetColorSpacePixelSize(uint32_t code, int32_t bitsPerSample);

// Converts one 8-bit pixel: forward codes 0..8 and 10 read r, g, b and fill
// spacePixel; inverse codes 16..24 and 26 read spacePixel and write r, g, b.
// Returns 1, or RC_INVALID_PARAMETER for a null pointer or another code.
int32_t ConvertColorPixel(uint32_t code, uint8_t *r, uint8_t *g, uint8_t *b, void *spacePixel);

// Converts pixels first..end-1 of one row. rgbRow holds blue, green, red
// samples; both rows are indexed from their start by the pixel index. `set`
// is read by codes 9 and 25 only (and must be non-null for them). Returns 1,
// or RC_INVALID_PARAMETER (writing nothing) for a null pointer, a negative
// first or an invalid code.
int32_t ConvertColorRow8(uint32_t code, uint8_t *rgbRow, void *spaceRow, const LabTableSet *set,
                         int32_t first, int32_t end);
int32_t ConvertColorRow16(uint32_t code, uint16_t *rgbRow, void *spaceRow, const LabTableSet *set,
                          int32_t first, int32_t end);
// ConvertColorRow8 with the row loops of instruction sets up to `isa` that
// the processor has (ConvertColorRow8 takes the best; tests force each one).
// Isa::Scalar runs the per-pixel formulas, the table-driven Lab form reading
// its tables as they are: the reference of the faster loops.
int32_t ConvertColorRow8Isa(Isa isa, uint32_t code, uint8_t *rgbRow, void *spaceRow, const LabTableSet *set,
                            int32_t first, int32_t end);

// ConvertColorRow16 with the loops of instruction sets up to `isa` (the
// floating Lab and YCrCb, both ways, have AVX-512 loops; Isa::Scalar is the
// reference).
int32_t ConvertColorRow16Isa(Isa isa, uint32_t code, uint16_t *rgbRow, void *spaceRow, const LabTableSet *set,
                             int32_t first, int32_t end);

// Allocates and fills every table of `set` (which must start zeroed). Returns
// 1, or RC_NO_MEMORY as soon as an allocation fails, leaving the tables
// already made in place for FreeLabTables. A null set gives -13.
int32_t BuildLabTables(LabTableSet *set);
// Frees every table that is not null and clears the record; null is ignored.
void FreeLabTables(LabTableSet *set);

// The row conversions take three samples a pixel. Rows of four samples (32
// and 64-bit pixels) are gathered into a three-sample row for pixels
// [left, right) and scattered back after; the fourth sample stays in the row.
template <class T>
void Pack3(const T *row, T *packed, int32_t channels, int32_t left, int32_t right) {
  for (int32_t x = left; x < right; ++x)
    for (int32_t k = 0; k < 3; ++k) packed[3 * x + k] = row[channels * x + k];
}
template <class T>
void Unpack3(const T *packed, T *row, int32_t channels, int32_t left, int32_t right) {
  for (int32_t x = left; x < right; ++x)
    for (int32_t k = 0; k < 3; ++k) row[channels * x + k] = packed[3 * x + k];
}

// The conversions as the colour-space pass takes them (passes.h): rows of
// 8- or 16-bit samples, with the Lab table set as the context of codes 9
// and 25.
struct ClrSpcConversions {
  static int32_t PixelSize(uint32_t code, int32_t bits) { return GetColorSpacePixelSize(code, bits); }
  static int32_t Row(uint32_t code, uint8_t *rgb, void *space, const void *context, int32_t first,
                     int32_t end) {
    return ConvertColorRow8(code, rgb, space, static_cast<const LabTableSet *>(context), first, end);
  }
  static int32_t Row(uint32_t code, uint16_t *rgb, void *space, const void *context, int32_t first,
                     int32_t end) {
    return ConvertColorRow16(code, rgb, space, static_cast<const LabTableSet *>(context), first, end);
  }
};

// The colour-space pass of imgcolor's row operations.
using ColourSpacePass = SpaceRows<ClrSpcConversions>;

}  // namespace img
