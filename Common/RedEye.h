// Red-eye removal, internal: the byte Lab form of one colour, exact (with
// pow) and fast (the cube root by Newton steps, falling back to the exact
// form near a rounding step), so tests can compare the two over every 8-bit
// colour; the batch conversion of the instruction sets, and the export with
// its instruction set chosen by the caller.
#pragma once

#include <array>
#include <cstdint>

#include "cpu.h"
#include "imgcolor.h"

namespace img {

// Q_RemoveRedeyeBitmap with its conversion lanes limited to `isa` (the best
// available one not above it); every level gives the same pixels.
int32_t RemoveRedeyeIsa(BitmapRecord *bitmap, uint32_t newColor, int32_t threshold, int32_t lightness,
                        uint32_t flags, Isa isa);

namespace redeye {

// Lab in bytes: L* 0..100, a* and b* -128..127.
struct Lab {
  int32_t L, a, b;
  bool operator==(const Lab &) const = default;
};

// Red, green and blue on the 8-bit (wide false) or 16-bit scale.
Lab ToLabExact(bool wide, int32_t r, int32_t g, int32_t b);
Lab ToLabFast(bool wide, int32_t r, int32_t g, int32_t b);

// The white point times full scale, and full scale.
struct Scale {
  double xn, yn, zn, max;
};
inline constexpr Scale kScale8{242.36628, 255, 277.63227, 255};
inline constexpr Scale kScale16{62288.13396, 65535, 71351.49339, 65535};

// First guesses of t^(-1/3) for t in [2^-7, 2), 256 slices of each binary
// exponent (index: the double's bits >> 44, less kGuessBase).
inline constexpr int32_t kGuessCount = 8 * 256;
inline constexpr uint64_t kGuessBase = uint64_t{1023 - 7} << 8;
extern const std::array<double, kGuessCount> kCubeRootGuess;

// Colours to convert: red, green, blue on the scale; the byte Lab of each.
struct Batch {
  static constexpr int32_t kSize = 64;  // a multiple of 8 (the widest lanes)
  int32_t r[kSize], g[kSize], b[kSize];
  Lab lab[kSize];
};

// lab[i] for i < n: the fast form in lanes of eight, where every value lies
// clear of a rounding step (unclear bit i set otherwise: the caller takes
// the exact form). Colours from n up to the next multiple of 8 are read and
// converted too.
void ToLabLanesAvx512(const Scale &s, Batch &batch, int32_t n, uint64_t &unclear);

// The back conversion of lab[i] for i < n into r, g and b (the same doubles
// as the scalar form, so the same samples); entries up to the next multiple
// of 8 are converted too.
void FromLabLanesAvx512(const Scale &s, Batch &batch, int32_t n);

// lab[i] = ToLabExact of colour i for i < n, by the instruction set's path
// (AVX-512 lanes, else the scalar fast form).
void ToLabBatch(Isa isa, const Scale &s, Batch &batch, int32_t n);
// r, g, b [i] = the colour of lab[i] for i < n, by the instruction set's path.
void FromLabBatch(Isa isa, const Scale &s, Batch &batch, int32_t n);

}  // namespace redeye
}  // namespace img
