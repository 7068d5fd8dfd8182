// Colour replace (Q_ColorReplaceBitmap, Q_ColorReplaceWeightsBitmap): the
// weight table that turns a pixel's Lab (or gray level) into its selection
// weight, and the brightness table.
#pragma once

#include <cstdint>

#include "cpu.h"
#include "imgcolor.h"

namespace img::clrrep {

// One entry of the weight table, each weight 0..1000: colour rows read l at
// the pixel's L, a at a + 128 and b at b + 128 (16-bit rows: a + 32896,
// b + 32896); one-channel rows read l at the gray level (a and b are 1000).
struct Weights {
  uint32_t l;
  uint32_t a;
  uint32_t b;
};

// Fills the 256 entries (65536 when `wide`) of `table` from the chosen
// colours: for each entry the largest weight any colour gives.
void BuildWeights(Weights *table, bool wide, bool gray, const ColorReplaceEntry *entries, int32_t count);

// entry[i] = i + (brightness × full scale + 500) / 1000, held to 0..full scale.
struct BrightnessTable {
  uint16_t entry[65536];
};
void FillBrightness(BrightnessTable &table, int32_t brightness, bool wide);

// The blend of pixels first..end-1 of an 8-bit three-sample row: each
// sample becomes min((changed × w + sample × (1000 - w)) / 1000, 255), w the
// 16-bit weight at weights + 3 x. Isa::Scalar is the reference; Avx512 runs
// BlendRun8Avx512 (Clr_Rep_avx512.cpp) where the processor has it.
void BlendRun8(Isa isa, uint8_t *rgb, const uint8_t *changed, const uint8_t *weights, int32_t first,
               int32_t end);
void BlendRun8Avx512(uint8_t *rgb, const uint8_t *changed, const uint8_t *weights, int32_t first,
                     int32_t end);

}  // namespace img::clrrep
