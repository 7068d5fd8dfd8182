/*
 * imgutil: row converters, lookup tables, histograms and the intensity
 * operations that imgcolor forwards to.
 */
#ifndef IMGUTIL_H
#define IMGUTIL_H

#include "imgdisplay.h"
#include "imgkernel.h"

IMG_BEGIN_DECLS

/* ---- Row converters ---------------------------------------------------------
 * A converter reads and writes whole image rows (0 = top) in one working
 * layout, whatever the bitmap's kind and orientation:
 *  ROW_LAYOUT_NATIVE (2): blue, green, red (and the fourth sample of 32/64-bit
 *    pixels); 8-bit samples for palette, 16-bit colour, 24 and 32 bits, 16-bit
 *    samples for 48 and 64; gray bitmaps give one sample (8-bit gray as is,
 *    16-bit gray as is, 12-bit gray scaled by 16).
 *  ROW_LAYOUT_BGR (3): always three samples of the native width (gray
 *    repeated; a fourth sample dropped on read and kept on write).
 *  ROW_LAYOUT_BGR8 (35): always three 8-bit samples (16-bit samples narrowed
 *    on read, widened by 257 on write).
 *  ROW_LAYOUT_GRAY (130): one sample per pixel of the native width: the gray
 *    sample, or the intensity (2R + 5G + B) >> 3 of a colour pixel, written
 *    back into all three colour samples.
 * Writing a palette bitmap stores the nearest palette colour (a pixel whose
 * palette colour already equals the written colour keeps its index). */
#define ROW_LAYOUT_NATIVE 2
#define ROW_LAYOUT_BGR 3
#define ROW_LAYOUT_BGR8 35
#define ROW_LAYOUT_GRAY 130

typedef struct ImgRowConverter *RowConverter;

IMG_API int32_t CreateRowConverter(BitmapRecord *bitmap, RowConverter *converter, int32_t layout);
IMG_API int32_t RowChannelCount(RowConverter converter);
IMG_API int32_t RowBitsPerChannel(RowConverter converter);
/* Size in bytes of one working row (Width pixels). */
IMG_API int32_t PrepareRowConverter(RowConverter converter);
/* A zeroed working row (freed by the caller with FreeMemory), or null. */
IMG_API void *AllocRowBuffer(RowConverter converter);
/* Start a walk. BeginRegion writes back only pixels inside the region;
 * BeginWholeBitmap and BeginRectangle write whole rows (or the rectangle's
 * columns). The Progress forms report percentages from start to end through
 * the status callback as rows are read; an answer other than 1 ends the walk:
 * ReadRow returns that answer. */
IMG_API int32_t BeginWholeBitmap(RowConverter converter);
IMG_API int32_t BeginRegion(RowConverter converter);
IMG_API int32_t BeginWholeBitmapProgress(RowConverter converter, int32_t start, int32_t end);
IMG_API int32_t BeginRegionProgress(RowConverter converter, int32_t start, int32_t end);
IMG_API int32_t BeginRectangle(RowConverter converter, const Rect *rect);
/* Reads image row `row` (all Width pixels). With runs and runCount non-null,
 * also delivers the runs of that row inside the bitmap's region (the whole
 * row without one), clipped to the walk. */
IMG_API int32_t ReadRow(RowConverter converter, void *buffer, int32_t row, RowRun *runs, int32_t *runCount);
/* Writes image row `row` back; with runs, only the given runs' columns. */
IMG_API int32_t WriteRow(RowConverter converter, const void *buffer, int32_t row, const RowRun *runs,
                         const int32_t *runCount);
/* A run list long enough for any row of the bitmap (freed with FreeMemory). */
IMG_API RowRun *AllocRunList(RowConverter converter);
/* Rows (and columns) to visit: the region's bounds or the whole bitmap. */
IMG_API int32_t GetRowRange(RowConverter converter, Rect *rect);
IMG_API int32_t FreeRowConverter(RowConverter converter);

/* ---- Lookup tables --------------------------------------------------------------- */
#define LUT_INDEX_BY_VALUE 0x100u /* mode: index the table by sample value */
#define LUT_CHANNEL_ALL 0u
#define LUT_CHANNEL_RED 1u
#define LUT_CHANNEL_GREEN 2u
#define LUT_CHANNEL_BLUE 3u

/* A zeroed table of signed 32-bit entries covering the bitmap's sample values
 * (256, 2^significant bits, 4096 or 65536). Freed with FreeMemory. */
IMG_API int32_t AllocBitmapLut(BitmapRecord *bitmap, int32_t **table, uint32_t *length);
/* Replaces every sample v inside the region by table[v]; see docs/design.md. */
IMG_API int32_t ApplyLut(BitmapRecord *bitmap, const int32_t *table, uint32_t length, uint32_t mode,
                         int32_t start, int32_t end);
/* Moves entry i to position (i + length / 2) modulo length. */
IMG_API void ShiftLutForSigned(int32_t *table, uint32_t length);
/* Entries first .. last - 1: firstValue + (lastValue - firstValue) *
 * (i - first) / (last - first), truncated toward zero. */
IMG_API void FillLutSegment(int32_t first, int32_t last, int32_t firstValue, int32_t lastValue,
                            int32_t *table);
/* Maps `count` 8-bit samples in place through a 256-entry byte table, with
 * the fastest byte-lookup instructions the processor has. */
IMG_API void MapSampleBytes(const uint8_t *table, uint8_t *samples, size_t count);
/* The same for 16-bit samples; the table has MAP_WORD_TABLE_ENTRIES entries
 * (65536 and one spare that the wide path may read but never uses). */
#define MAP_WORD_TABLE_ENTRIES 65537u
IMG_API void MapSampleWords(const uint16_t *table, uint16_t *samples, size_t count);
IMG_API int32_t SignedToUnsigned(BitmapRecord *bitmap, int32_t reserved1, int32_t reserved2);
IMG_API int32_t UnsignedToSigned(BitmapRecord *bitmap, int32_t reserved1, int32_t reserved2);

/* ---- Histograms ---------------------------------------------------------------------- */
/* channel 0: every colour sample (blue, green, red); 1 red, 2 green, 3 blue;
 * a gray bitmap counts its sample. Counts are added to (not cleared). */
IMG_API int32_t GetHistogram(BitmapRecord *bitmap, uint32_t *counts, uint32_t length, uint32_t channel,
                             int32_t start, int32_t end);
/* Lowest and highest sample value inside the region, with the values
 * GetHistogram(bitmap, counts, length, channel, ...) would count (length:
 * the bitmap's sample range, values at or above it left out); signed
 * samples in offset form (0 = the most negative). Both are -1 when the
 * region holds no pixel. One pass without counting: what an occupied span
 * needs. */
IMG_API int32_t GetSampleRange(BitmapRecord *bitmap, uint32_t channel, int32_t *lowest, int32_t *highest,
                               int32_t start, int32_t end);
/* 256 bins of the intensity (2R + 5G + B) >> 3 (8-bit samples); channel 1..3
 * counts that channel alone. Counts are cleared first. */
IMG_API int32_t ComputeHistogram(BitmapRecord *bitmap, uint32_t *counts, uint32_t channel, int32_t start,
                                 int32_t end);
/* Maps each 8-bit sample inside the region through table (16-bit samples:
 * table[v >> 8] * 257). channel as for ApplyLut. */
IMG_API int32_t ApplyByteLut(BitmapRecord *bitmap, const uint8_t *table, uint32_t channel, int32_t start,
                             int32_t end);
/* rows[i] = ring[(startSlot + i) % count] for i = 0 .. count - 1. */
IMG_API void ArrangeRowRing(void *const *ring, void **rows, int32_t count, int32_t startSlot);

/* Extremes of a 256-bin histogram; -1 when empty. */
IMG_API int32_t HistogramMax(const uint32_t *counts);
IMG_API int32_t HistogramMin(const uint32_t *counts);
/* Highest occupied bin at or below `from` (-1 if none). */
IMG_API int32_t HistogramMaxBelow(const uint32_t *counts, int32_t from);
/* Lowest occupied bin at or above `from` (-1 if none). */
IMG_API int32_t HistogramMinAbove(const uint32_t *counts, int32_t from);
/* Exact new extreme after a slide: entering is the largest (smallest) sample
 * that entered, leftOld non-zero when a leaving sample equalled the old one. */
IMG_API int32_t HistogramMaxUpdate(const uint32_t *counts, int32_t oldMax, int32_t entering, int32_t leftOld);
IMG_API int32_t HistogramMinUpdate(const uint32_t *counts, int32_t oldMin, int32_t entering, int32_t leftOld);
/* Two-level 65536-bin histograms: 256 buckets by high byte, each 257 counts
 * (256 by low byte, then the bucket total). */
#define HISTOGRAM16_BUCKET 257
IMG_API int32_t Histogram16Max(const uint32_t *buckets);
IMG_API int32_t Histogram16Min(const uint32_t *buckets);
IMG_API int32_t Histogram16MaxUpdate(const uint32_t *buckets, int32_t oldMax, int32_t entering,
                                     int32_t leftOld);
IMG_API int32_t Histogram16MinUpdate(const uint32_t *buckets, int32_t oldMin, int32_t entering,
                                     int32_t leftOld);
IMG_API void Histogram16Add(uint32_t *buckets, int32_t value);
IMG_API void Histogram16Remove(uint32_t *buckets, int32_t value);

/* Returns 1: the status of an operation that has nothing left to do. */
IMG_API int32_t FinishOperation(void);

/* ---- Intensity operations (forwarded by imgcolor) ---------------------------------
 * "Full scale" is the largest sample value of the bitmap (255, 4095, 65535).
 * All honour regions, palettes (through the palette where no region is set),
 * signed data and attached tables where a table does the work; they report
 * progress and refuse bad arguments: -13 out of range, -814 null record,
 * -789 wrong record size, -2 null bitmap or one without pixels. */
IMG_API int32_t Invert(BitmapRecord *bitmap);
/* change in tenths of a percent of full scale, -1000..1000. */
IMG_API int32_t ChangeIntensity(BitmapRecord *bitmap, int32_t change);
/* gamma in hundredths (> 0); flags 0. */
IMG_API int32_t GammaCorrect(BitmapRecord *bitmap, uint32_t gamma, uint32_t flags);
/* contrast, brightness, intensity in tenths of a percent, -1000..1000; flags 0. */
IMG_API int32_t ContBrightInt(BitmapRecord *bitmap, int32_t contrast, int32_t brightness, int32_t intensity,
                              uint32_t flags);
/* weights in hundredths of a percent, 0..10000 each, sum at most 10000. */
IMG_API int32_t GrayScaleExt(BitmapRecord *bitmap, int32_t red, int32_t green, int32_t blue);
#define DETECT_CHANNEL_RED 0x001u
#define DETECT_CHANNEL_GREEN 0x010u
#define DETECT_CHANNEL_BLUE 0x100u
#define DETECT_CHANNEL_INTENSITY 0x111u
IMG_API int32_t IntensityDetect(BitmapRecord *bitmap, uint32_t low, uint32_t high, uint32_t inColor,
                                uint32_t outColor, uint32_t channel);
#define LIGHT_CONTROL_PER_CHANNEL 1u
#define LIGHT_CONTROL_LUMINANCE 2u
/* Each target: three values (red, green, blue) in tenths of a percent. */
IMG_API int32_t LightControl(BitmapRecord *bitmap, const uint32_t *lower, const uint32_t *middle,
                             const uint32_t *upper, uint32_t type);
#define AUTO_LEVEL_PER_CHANNEL 0u
#define AUTO_LEVEL_COMMON 1u
#define AUTO_LEVEL_INTENSITY 2u
/* clips in hundredths of a percent, sum below 10000; flags 0. */
IMG_API int32_t AutoColorLevel(BitmapRecord *bitmap, uint32_t type, uint32_t blackClip, uint32_t whiteClip,
                               uint32_t flags);
typedef struct ColorLevelSet {
  int32_t InputLow;
  int32_t InputHigh;
  int32_t OutputLow;
  int32_t OutputHigh;
  int32_t Gamma; /* hundredths; 100 = straight */
} ColorLevelSet;
typedef struct ColorLevelRecord {
  uint32_t StructSize; /* sizeof(ColorLevelRecord) */
  ColorLevelSet Master;
  ColorLevelSet Red;
  ColorLevelSet Green;
  ColorLevelSet Blue;
} ColorLevelRecord;
#define COLOR_LEVEL_MASTER 0x1u
#define COLOR_LEVEL_RED 0x10u
#define COLOR_LEVEL_GREEN 0x100u
#define COLOR_LEVEL_BLUE 0x1000u
IMG_API int32_t ColorLevel(BitmapRecord *bitmap, const ColorLevelRecord *levels, uint32_t flags);
#define ADAPTIVE_CONTRAST_ALL 0u
#define ADAPTIVE_CONTRAST_LUMINANCE 1u
IMG_API int32_t AdaptiveContrast(BitmapRecord *bitmap, uint32_t dimension, uint32_t amount, uint32_t type);

IMG_END_DECLS

#endif
