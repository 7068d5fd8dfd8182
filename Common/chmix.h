// Channel mix internals shared by the export, its instruction-set rows and
// their tests. Internal to imgcolor.
#pragma once

#include <cstdint>

#include "cpu.h"
#include "imgcolor.h"

namespace img {

// table[output][input][v]: output 0 red, 1 green, 2 blue; input 0 red,
// 1 green, 2 blue (the blue input's table carries the constant).
// The SIMD rows use the factors split instead: for output c and input i,
// |factor| = 100 × whole + part (part 0..99), negative when the factor is;
// constant[c] is the rounded constant the blue table carries.
struct ChannelMixTables {
  const int32_t *table[3][3];
  // The same entries split into bytes, table = 256 × high + low (high the
  // floor of table / 256, within −20..19): the AVX-512 row looks them up.
  uint8_t low[3][3][256];
  int8_t high[3][3][256];
  int16_t whole[3][3];
  int16_t part[3][3];
  bool negative[3][3];
  int16_t constant[3];
};

// The SIMD rows of each instruction set (chmix_avx2.cpp, chmix_avx512.cpp);
// each returns the first pixel it left to the scalar row.
int32_t MixRow8Avx2(const ChannelMixTables &tables, uint8_t *row, int32_t channels, int32_t left,
                    int32_t right);
int32_t MixRow8Avx512(const ChannelMixTables &tables, uint8_t *row, int32_t channels, int32_t left,
                      int32_t right);

// Fills `storage` (3 x 3 x 256 entries) and points `tables` into it.
void BuildChannelMixTables(const ChannelMixFactors *const factors[3], int32_t *storage,
                           ChannelMixTables &tables);

// Mixes pixels [left, right) of an 8-bit working row of `channels` samples.
// The scalar form is the reference; MixRow8 runs the loop of the best
// instruction set up to `isa` that the processor has (bit for bit the same).
void MixRow8Scalar(const ChannelMixTables &tables, uint8_t *row, int32_t channels, int32_t left,
                   int32_t right);
void MixRow8(const ChannelMixTables &tables, uint8_t *row, int32_t channels, int32_t left, int32_t right,
             Isa isa);

}  // namespace img
