// Desaturation of the pixels of a working row: the scalar reference and the
// loops of the instruction sets (deSat_avx2.cpp), chosen once per call.
// Internal to imgcolor; the tests force each set.
#pragma once

#include <cstdint>

#include "cpu.h"

namespace img::desat {

// Pixels [left, right) of a row of `channels` samples a pixel (blue, green,
// red first) become the mean of their largest and smallest colour sample,
// with the loop of the best set up to `isa`; a fourth sample is untouched.
void DesaturatePixels(Isa isa, uint8_t *row, int32_t channels, int32_t left, int32_t right);
void DesaturatePixels(Isa isa, uint16_t *row, int32_t channels, int32_t left, int32_t right);

// The AVX2 loops over three-sample pixels: they convert a prefix of
// [left, right) and return where they stopped (the rest is the scalar loop's).
int32_t DesaturateAvx2(uint8_t *row, int32_t left, int32_t right);
int32_t DesaturateAvx2(uint16_t *row, int32_t left, int32_t right);

}  // namespace img::desat
