// Local equalisation: the loops that have one form per instruction set (the
// blend of 8-bit gray rows between the tables of four tiles) and the entry
// that takes the instruction set, so that tests can force each one.
#pragma once

#include <cstdint>

#include "cpu.h"
#include "imgkernel.h"

namespace img::localeq {

// A run of 8-bit gray pixels mapped in place through the 256-entry tables of
// the tiles around it.
struct GrayRun8 {
  uint8_t *samples;      // the run's first pixel
  int32_t count;         // pixels in the run
  const int32_t *left;   // per pixel: offset of the left tile's table in a tile row
  const int32_t *right;  // per pixel: offset of the right tile's table
  const double *weight;  // per pixel: weight of the right tile (0..1)
  const double *upper;   // tables of the tile row above
  const double *lower;   // tables of the tile row below
  double weightBelow;    // weight of the row below (0..1)
};

// The blend of the four curve values (left/right, above/below), rounded once
// and limited to 0..top. Every loop evaluates exactly these operations.
inline uint32_t Blend(double m00, double m10, double m01, double m11, double wx, double wy, double top) {
  const double upper = m00 + wx * (m10 - m00);
  const double lower = m01 + wx * (m11 - m01);
  const double value = upper + wy * (lower - upper) + 0.5;
  return static_cast<uint32_t>(value < 0.0 ? 0.0 : value > top ? top : value);
}

// The mapped value of pixel x of the run.
inline uint8_t MapGray8One(const GrayRun8 &run, int32_t x) {
  const uint32_t v = run.samples[x];
  const int32_t l = run.left[x] + static_cast<int32_t>(v), r = run.right[x] + static_cast<int32_t>(v);
  return static_cast<uint8_t>(
      Blend(run.upper[l], run.upper[r], run.lower[l], run.lower[r], run.weight[x], run.weightBelow, 255.0));
}

// The pixels from `first` on, one at a time.
inline void MapGray8Scalar(const GrayRun8 &run, int32_t first) {
  for (int32_t x = first; x < run.count; ++x) run.samples[x] = MapGray8One(run, x);
}

// The 256-entry table of an 8-bit tile with n > 0 pixels from its value
// counts (which it clips in place):
//   table[v] = (P(v) + E / 256 * (v + 1)) * 255 / n.
inline void BuildTable8Scalar(uint32_t *counts, uint32_t limit, uint32_t n, double *table) {
  uint32_t excess = 0;
  for (uint32_t v = 0; v < 256; ++v) {
    const uint32_t kept = counts[v] < limit ? counts[v] : limit;
    excess += counts[v] - kept;
    counts[v] = kept;
  }
  const double excessPerBin = static_cast<double>(excess) / 256;
  const double scale = 255.0 / n;
  uint32_t sum = 0;
  for (uint32_t v = 0; v < 256; ++v) {
    sum += counts[v];
    table[v] = (static_cast<double>(sum) + excessPerBin * (v + 1.0)) * scale;
  }
}
void BuildTable8Avx512(uint32_t *counts, uint32_t limit, uint32_t n, double *table);

// A 16-bit tile curve of the dense course: pixels == 0 maps v to v, else
//   map(v) = (P(v) + excessPerBin * (v + 1)) * scale
// with P the clipped prefix counts.
struct TileCurve {
  uint32_t pixels = 0;
  double excessPerBin = 0.0;
  double scale = 0.0;  // T / pixels
};

// A run of 16-bit gray pixels of the dense course, mapped in place. The
// prefix counts of a row of tiles lie value by value, the tiles of one value
// side by side: P of tile column t at v is prefix[v * stride + t] (so the
// two tiles of a pixel share a cache line or two).
struct GrayRun16 {
  uint16_t *samples;
  int32_t count;
  const int32_t *left;            // per pixel: the left tile column
  const int32_t *right;           // per pixel: the right tile column
  const double *weight;           // per pixel: weight of the right tile (0..1)
  const uint32_t *upper, *lower;  // prefix counts of the tile rows above and below
  const TileCurve *upperCurves, *lowerCurves;
  int32_t stride;  // counts a value: the tile columns, or more (several rows of tiles interleaved)
  double weightBelow;
  // Prefixes kept as 16-bit offsets (upper and lower are then null): P of
  // tile column t at v is bases[16 t + (v >> 12)] + offsets[v * stride + t],
  // the base being P(4096 (v >> 12) - 1) (0 for the first 4096 values).
  const uint16_t *upperOffsets = nullptr, *lowerOffsets = nullptr;
  const uint32_t *upperBases = nullptr, *lowerBases = nullptr;
};

// P of tile column `tile` at v, from the full prefixes or the offsets.
inline uint32_t Below16(const uint32_t *prefix, const uint16_t *offsets, const uint32_t *bases,
                        int32_t stride, int32_t tile, uint32_t v) {
  const auto s = static_cast<std::size_t>(stride), t = static_cast<std::size_t>(tile);
  if (offsets == nullptr) return prefix[v * s + t];
  return bases[16 * t + (v >> 12)] + offsets[v * s + t];
}

inline double Evaluate16(const TileCurve &curve, uint32_t below, uint32_t v) {
  if (curve.pixels == 0) return v;
  return (static_cast<double>(below) + curve.excessPerBin * (v + 1.0)) * curve.scale;
}

inline uint16_t MapGray16One(const GrayRun16 &run, int32_t x) {
  const uint32_t v = run.samples[x];
  const int32_t l = run.left[x], r = run.right[x], n = run.stride;
  const auto up = [&](int32_t t) { return Below16(run.upper, run.upperOffsets, run.upperBases, n, t, v); };
  const auto down = [&](int32_t t) { return Below16(run.lower, run.lowerOffsets, run.lowerBases, n, t, v); };
  return static_cast<uint16_t>(
      Blend(Evaluate16(run.upperCurves[l], up(l), v), Evaluate16(run.upperCurves[r], up(r), v),
            Evaluate16(run.lowerCurves[l], down(l), v), Evaluate16(run.lowerCurves[r], down(r), v),
            run.weight[x], run.weightBelow, 65535.0));
}

// The AVX-512 loop of 16-bit gray runs: eight pixels a step between the same
// two tile columns, the four prefixes gathered and the curves and blend in
// doubles with the operations of MapGray16One. Returns the pixels done.
int32_t MapGray16Avx512(const GrayRun16 &run);

// The SIMD loops: each maps a whole number of steps and returns the pixels
// done; the caller finishes the run with MapGray8Scalar.
int32_t MapGray8Avx2(const GrayRun8 &run);
int32_t MapGray8Avx512(const GrayRun8 &run);

// What the certified AVX-512 blend reads besides the run: the row's tables,
// the tables of the tile rows above and below blended for the row and
// rounded to 1/256 steps (q = (uint32_t)(c * 256 + 0.5) with
// c = upper + wy (lower - upper) in doubles; 256 low bytes then 256 high
// bytes a tile column, at twice the run's table offsets), and the weights as
// floats.
struct GrayApprox8 {
  const uint8_t *row;
  const float *weight;  // per pixel: weight of the right tile
};

// The row's tables of `columns` tile columns from the double tables of the
// tile rows above and below (256 values a tile column).
void BuildRowTables8Avx512(const double *upper, const double *lower, int32_t columns, double weightBelow,
                           uint8_t *row);

// The whole run: the blend in floats from the row's tables, kept where the
// error bound (docs/channels.md) leaves a single rounded result, the exact
// double Blend elsewhere. Returns run.count.
int32_t MapGray8Avx512Certified(const GrayRun8 &run, const GrayApprox8 &approx);

// The two courses (the same results): tile rows built while mapping from a
// copy of the samples, or every tile counted in the first walk (for tiles
// of at least as many pixels as bins). Auto picks by the tile size.
enum class Course { Auto, TileRows, Dense };

// Q_LocalHistoEqualizeBitmap after its checks, with the loops of `isa` (or the
// best below it that has loops).
int32_t Equalize(Isa isa, BitmapRecord *bitmap, int32_t tileWidth, int32_t tileHeight, uint32_t clip,
                 bool luminance, Course course = Course::Auto);

}  // namespace img::localeq
