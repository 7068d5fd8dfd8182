// Tinting of gray content (gsdt.cpp, gsmt.cpp): the colour ramp, the tone
// table multiplication and the applier that both exports end in. Declared
// here so that the multitone builder, the tests and the benchmarks reach them.
#pragma once

#include <cstdint>

#include "checks.h"
#include "imgkernel.h"

namespace img::tone {

// Both exports: no flags word, and a null bitmap passes the checks (the
// applier is the first to read it); signed data is refused.
inline constexpr EntryRule kEntry{.flagsWord = false, .nullBitmap = NullBitmap::Passed, .signedData = true};

// Entries of one colour table (blue, green, red, reserved).
constexpr int32_t kRowTableSize = 256;

// Blue, green and red of a colour value; with COLOR_GRAY_LEVEL set, the gray
// level in bits 8-15 for all three. The reserved byte is 0.
PaletteEntry ColorEntry(uint32_t color);

// Fills `count` entries with the ramp from the colour (entry 0) to white
// (entry count - 1): per channel x = value * 1000, step = (1000 - x / 255) *
// 255 / (count - 1) in unsigned arithmetic, entry i = (x + i * step + 500) /
// 1000. A single entry holds the colour. Reserved bytes become 0.
void BuildRamp(uint32_t color, int32_t count, PaletteEntry *entries);

// first[i].c = (first[i].c * second[i].c + 128) / 255 for blue, green, red of
// kRowTableSize entries.
void MultiplyTables(PaletteEntry *first, const PaletteEntry *second);

// Mode 0 on rows: entry i's channels become (c * i + 128) / 255, so that the
// table runs from black through the tint to white. In place.
void ScaleTableByLevel(PaletteEntry *table);

// Row steps over the pixels [left, right) of a working row with `channels`
// samples per pixel (blue, green, red first). A pixel whose blue, green and
// red are equal takes its colour from the table; others keep their values,
// and so does a fourth sample. 16-bit samples keep their low byte and take
// the table entry of their high byte as high byte.
void ToneRow8(uint8_t *row, int32_t channels, int32_t left, int32_t right, const PaletteEntry *table);
void ToneRow16(uint16_t *row, int32_t channels, int32_t left, int32_t right, const PaletteEntry *table);

// The shared applier. `table` may be null (then a ramp from `color` is built
// with as many entries as the bitmap needs); mode 0 blends, 1 uses the table
// as it stands. Bitmaps of 8 bits or fewer (8-bit gray too) have their
// palette tinted and keep their pixels; a palette count outside 1 .. 2^bits
// gives RC_NO_BITMAP before anything is read. An 8-bit gray bitmap whose
// palette is no longer the gray ramp becomes ORDER_BGR. 12- and 16-bit
// bitmaps come back with 48 bits per pixel. The progress range is accepted
// for the callers' sake; the walk reports nothing.
int32_t ApplyToneTable(BitmapRecord *bitmap, PaletteEntry *table, uint32_t color, uint32_t mode,
                       int32_t progressStart, int32_t progressEnd);

}  // namespace img::tone
