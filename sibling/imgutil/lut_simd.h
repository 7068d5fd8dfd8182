// Internal to imgutil: table lookup over contiguous samples with a choice of
// instruction set, and the region row walk that the table and histogram
// passes share.
#pragma once

#include <cstddef>
#include <cstdint>

#include "cpu.h"
#include "family.h"
#include "imgutil.h"
#include "pixels.h"

namespace img {

// dst[i] = table[src[i]] for i < count; src and dst may be the same. The
// loops of `isa` run (of the best set below it the processor has); every
// instruction set gives the same bytes.
void MapBytes(Isa isa, const uint8_t *table, const uint8_t *src, uint8_t *dst, std::size_t count);
// As MapBytes, but every byte at an offset of 3 modulo 4 from src is copied
// unchanged (the fourth sample of 32-bit pixels).
void MapBytesKeepFourth(Isa isa, const uint8_t *table, const uint8_t *src, uint8_t *dst, std::size_t count);

// p[i] = table[p[i]] for i < count over 16-bit samples, in place; with
// keepFourth every word at an offset of 3 modulo 4 stays. The table must
// have 65537 entries (the AVX-512 gathers read two bytes past the last one).
void MapWords(Isa isa, const uint16_t *table, uint16_t *p, std::size_t count, bool keepFourth);
inline constexpr uint32_t kWordTableEntries = MAP_WORD_TABLE_ENTRIES;

// p[i] ^= byte i % 8 of `pattern` for i < count (the table v -> v ^ k on
// samples laid out with that period); every instruction set gives the same
// bytes.
void XorBytes(Isa isa, uint8_t *p, std::size_t count, uint64_t pattern);

// ApplyLut with the lookups of instruction sets up to `isa` (ApplyLut takes
// the best the processor has; tests force each one).
int32_t ApplyLutWithPath(BitmapRecord *bitmap, const int32_t *table, uint32_t length, uint32_t mode,
                         int32_t start, int32_t end, Isa isa);

}  // namespace img
