// Colour planes: the row loops of the RGB separation and merge (one file per
// instruction set beside the scalar reference). Internal to imgcolor.
#pragma once

#include <cstdint>

#include "cpu.h"

namespace img::planes {

// Splits `width` pixels of three 8-bit samples into three rows (sample 0 into
// `first`, 1 into `second`, 2 into `third`), with the loops of the best
// instruction set up to `isa` that the processor has; the scalar form is the
// reference and every form writes the same bytes.
void SplitRow3(Isa isa, const uint8_t *in, uint8_t *first, uint8_t *second, uint8_t *third, int32_t width);
// The inverse: three rows interleaved into pixels of three samples.
void MergeRow3(Isa isa, const uint8_t *first, const uint8_t *second, const uint8_t *third, uint8_t *out,
               int32_t width);

// The AVX-512 loops (VBMI byte permutes); each returns the pixels it did,
// a multiple of 64 counted from the row's start.
int32_t SplitRow3Avx512(const uint8_t *in, uint8_t *first, uint8_t *second, uint8_t *third, int32_t width);
int32_t MergeRow3Avx512(const uint8_t *first, const uint8_t *second, const uint8_t *third, uint8_t *out,
                        int32_t width);

}  // namespace img::planes
