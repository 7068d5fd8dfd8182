// Per-pixel steps of the hue and saturation exports (Q_ChangeBitmapHue,
// Q_RemapBitmapHue, Q_ChangeBitmapSaturation). Internal to imgcolor.
//
// These work on a compact hue scale of their own: a full circle is 256 steps
// for 8-bit samples and 65536 steps for 16-bit samples. They are the HSV and
// HLS models of hue_model.h, which the colour-space conversions share.
#pragma once

#include <cstdint>

#include "cpu.h"

namespace img::huesat {

// 8-bit RGB to packed HSV: hue in bits 0-7 (a hue that reaches 256 is stored
// as its low byte, the same point of the circle), saturation in 8-15, value
// in 16-23.
uint32_t RgbToHsv8(int32_t r, int32_t g, int32_t b);
// Packed HSV to RGB: red in bits 0-7, green 8-15, blue 16-23.
uint32_t HsvToRgb8(uint32_t hsv);
inline uint32_t PackHsv8(uint32_t h, uint32_t s, uint32_t v) {
  return (h & 0xFFu) | ((s & 0xFFu) << 8) | ((v & 0xFFu) << 16);
}

struct Hsv16 {
  int32_t h, s, v;  // 0..65535 each
};
struct Rgb16 {
  int32_t r, g, b;
};
Hsv16 RgbToHsv16(int32_t r, int32_t g, int32_t b);
Rgb16 HsvToRgb16(int32_t h, int32_t s, int32_t v);

// Hue steps of an angle in degrees: (angle * 256) / 360 with the product
// wrapping in 32 bits, the division truncating toward zero.
int32_t HueStep(int32_t angle);
// Saturation step of a change in tenths of a percent: (change * 255 + 500) / 1000.
int32_t SaturationStep(int32_t change);

// Saturation change of one pixel in place (hexcone hue, 255-step wrap).
void ChangeSaturation8(int32_t &r, int32_t &g, int32_t &b, int32_t step);
void ChangeSaturation16(int32_t &r, int32_t &g, int32_t &b, int32_t step);

// Pixels [left, right) of an 8-bit row of `channels` samples a pixel (3 or
// 4: blue, green, red first, a fourth kept) through the hue step (hue steps
// added, as Q_ChangeBitmapHue) or the saturation step, with the loops of the
// best set up to `isa`. Isa::Scalar is the reference: one pixel at a time.
void HueRow8(Isa isa, uint8_t *row, int32_t channels, int32_t left, int32_t right, int32_t step);
void SaturationRow8(Isa isa, uint8_t *row, int32_t channels, int32_t left, int32_t right, int32_t step);
// The same on 16-bit rows (the 16-bit steps; `step` is still in 8-bit hue steps).
void HueRow16(Isa isa, uint16_t *row, int32_t channels, int32_t left, int32_t right, int32_t step);
void SaturationRow16(Isa isa, uint16_t *row, int32_t channels, int32_t left, int32_t right, int32_t step);

// The loops of one set (HUESAT_avx2.cpp, HUESAT_avx512.cpp): they change a
// prefix of [left, right) of a 3- or 4-sample row and return where they
// stopped; the rest is the scalar step's.
int32_t HueLanesAvx2(uint8_t *row, int32_t channels, int32_t left, int32_t right, int32_t step);
int32_t HueLanesAvx512(uint8_t *row, int32_t channels, int32_t left, int32_t right, int32_t step);
int32_t SaturationLanesAvx2(uint8_t *row, int32_t channels, int32_t left, int32_t right, int32_t step);
int32_t SaturationLanesAvx512(uint8_t *row, int32_t channels, int32_t left, int32_t right, int32_t step);
int32_t HueLanesAvx2(uint16_t *row, int32_t channels, int32_t left, int32_t right, int32_t step);
int32_t HueLanesAvx512(uint16_t *row, int32_t channels, int32_t left, int32_t right, int32_t step);
int32_t SaturationLanesAvx2(uint16_t *row, int32_t channels, int32_t left, int32_t right, int32_t step);
int32_t SaturationLanesAvx512(uint16_t *row, int32_t channels, int32_t left, int32_t right, int32_t step);

}  // namespace img::huesat
