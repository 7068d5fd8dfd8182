// Internal to the channel operations (Colr_n.cpp, Colr_n_eq.cpp, ClrBal.cpp):
// the walk over stored rows that are the working rows byte for byte, and the
// byte loops of 8-bit rows with one file per instruction set
// (Colr_n_ssse3.cpp, Colr_n_avx512.cpp) beside the scalar reference here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "cpu.h"
#include "frame.h"

namespace img::colrn {

// ---- Byte loops (period: bytes a pixel, the first three are blue, green, red) -------

// Byte i of the pixels takes tables[i % period][byte] for i % period < 3; a
// fourth byte stays. Periods 1, 3 and 4; the tables are 256 bytes each.
void LookupBytes(Isa isa, uint8_t *p, std::size_t bytes, int32_t period, const uint8_t *tables);
// Each pixel's bytes are permuted within the pixel: output byte k takes input
// byte from[k]. Bytes a pixel: 3, 4, 6 or 8.
void PermuteBytes(Isa isa, uint8_t *p, std::size_t pixels, int32_t bytesPerPixel, const uint8_t *from);
// Adds the first three bytes of every pixel to sums[0..2] (period 3 or 4).
void SumChannels(Isa isa, const uint8_t *p, std::size_t pixels, int32_t period, uint64_t *sums);
// Counts byte i % period (< 3) of the pixels (periods 1, 3 and 4) into
// kCountsSize zeroed counts of the call: four sub-histograms [4][3][256], so
// that neighbouring equal values do not wait on each other's count.
// FoldCounts adds the sub-histograms of the first `channels` channels to
// histograms[channel * 256 + value].
constexpr std::size_t kCountsSize = 4 * 3 * 256;
void CountBytes(const uint8_t *p, std::size_t pixels, int32_t period, uint32_t *counts);
void FoldCounts(const uint32_t *counts, int32_t channels, uint32_t *histograms);

void LookupBytesAvx512(uint8_t *p, std::size_t bytes, int32_t period, const uint8_t *tables);
void PermuteBytesSsse3(uint8_t *p, std::size_t pixels, int32_t bytesPerPixel, const uint8_t *from);
void PermuteBytesAvx512(uint8_t *p, std::size_t pixels, int32_t bytesPerPixel, const uint8_t *from);
void SumChannelsAvx512(const uint8_t *p, std::size_t pixels, int32_t period, uint64_t *sums);

// ---- Colour balance ------------------------------------------------------------------

// out[k] = R * in[0][k] + G * in[1][k] + B * in[2][k] for k = red, green,
// blue, in double precision as written, truncated and limited.
struct Mix {
  double share[3][3];  // [input red, green, blue][output red, green, blue]
};

template <class T>
inline void MixPixel(T *p, const Mix &m, int64_t max) {
  const double r = p[2], g = p[1], b = p[0];
  const double nr = r * m.share[0][0] + g * m.share[1][0] + b * m.share[2][0];
  const double ng = r * m.share[0][1] + g * m.share[1][1] + b * m.share[2][1];
  const double nb = r * m.share[0][2] + g * m.share[1][2] + b * m.share[2][2];
  const auto limit = [max](double v) {
    const int64_t t = TruncateToInt32(v);
    return static_cast<T>(t < 0 ? 0 : t > max ? max : t);
  };
  p[2] = limit(nr);
  p[1] = limit(ng);
  p[0] = limit(nb);
}

// True when every share is finite: the products and sums are then never NaN
// and the 8-bit lanes of MixBytesAvx512 apply.
bool FiniteShares(const Mix &mix);
void MixBytesAvx512(uint8_t *p, std::size_t pixels, int32_t period, const Mix &mix);

// ---- Exports' workers with the instruction set chosen by the caller (tests) ---------

int32_t BalanceWithIsa(BitmapRecord *bitmap, const ColorBalanceFactors *redFactors,
                       const ColorBalanceFactors *greenFactors, const ColorBalanceFactors *blueFactors,
                       uint32_t flags, Isa isa);
int32_t SwapWithIsa(BitmapRecord *bitmap, uint32_t flags, Isa isa);
int32_t EqualizeWithIsa(BitmapRecord *bitmap, int32_t mode, Isa isa);
int32_t IntensityBalanceWithIsa(BitmapRecord *bitmap, uint32_t method, uint32_t strength, uint32_t flags,
                                Isa isa);

// ---- Walks ------------------------------------------------------------------------

// One walk of a course over the pass's rows: the pass is set up with
// RowSetup::storedRows, so bitmaps whose working rows are their stored rows
// are changed in place.
template <class Kernel>
int32_t RunRows(RowPass &pass, const ProgressRange &range, bool write, Kernel &&kernel) {
  pass.SetWalk(range, write);
  return pass.RunRows(kernel);
}

}  // namespace img::colrn
