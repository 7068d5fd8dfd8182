// The channel operations' byte loops: the scalar reference, the counting
// loop (scalar on every instruction set) and the dispatch to the files of
// each instruction set. A level without a loop of its own runs the loop of
// the next level below it.
#include <cmath>
#include <cstring>
#include <utility>

#include "Colr_n_internal.h"

namespace img::colrn {

namespace {

void LookupBytesScalar(uint8_t *p, std::size_t bytes, int32_t period, const uint8_t *tables) {
  for (std::size_t i = 0; i < bytes; ++i) {
    const std::size_t c = i % static_cast<std::size_t>(period);
    if (c < 3) p[i] = tables[c * 256 + p[i]];
  }
}

void PermuteBytesScalar(uint8_t *p, std::size_t pixels, int32_t bytesPerPixel, const uint8_t *from) {
  uint8_t v[8];
  for (std::size_t i = 0; i < pixels; ++i, p += bytesPerPixel) {
    std::memcpy(v, p, static_cast<std::size_t>(bytesPerPixel));
    for (int32_t k = 0; k < bytesPerPixel; ++k) p[k] = v[from[k]];
  }
}

void SumChannelsScalar(const uint8_t *p, std::size_t pixels, int32_t period, uint64_t *sums) {
  for (std::size_t i = 0; i < pixels; ++i, p += period) {
    sums[0] += p[0];
    sums[1] += p[1];
    sums[2] += p[2];
  }
}

}  // namespace

void LookupBytes(Isa isa, uint8_t *p, std::size_t bytes, int32_t period, const uint8_t *tables) {
  if (isa >= Isa::Avx512) return LookupBytesAvx512(p, bytes, period, tables);
  LookupBytesScalar(p, bytes, period, tables);
}

void PermuteBytes(Isa isa, uint8_t *p, std::size_t pixels, int32_t bytesPerPixel, const uint8_t *from) {
  if (isa >= Isa::Avx512) return PermuteBytesAvx512(p, pixels, bytesPerPixel, from);
  if (isa >= Isa::Ssse3) return PermuteBytesSsse3(p, pixels, bytesPerPixel, from);
  PermuteBytesScalar(p, pixels, bytesPerPixel, from);
}

void SumChannels(Isa isa, const uint8_t *p, std::size_t pixels, int32_t period, uint64_t *sums) {
  if (isa >= Isa::Avx512) return SumChannelsAvx512(p, pixels, period, sums);
  SumChannelsScalar(p, pixels, period, sums);
}

// Counts are exact integers: the sub-histograms summed give the counts of one
// histogram whatever the order.
namespace {

// 24 bytes: eight pixels of 3 bytes, or 24 gray samples, each byte loaded
// by itself (the load folds into the increment's index; no word shifts);
// pixel (or sample) n counts into sub-histogram n % 4.
template <int32_t kPeriod, int32_t... K>
inline void CountBlock(const uint8_t *q, uint32_t (*sub)[3][256], std::integer_sequence<int32_t, K...>) {
  ((++sub[(K / kPeriod) % 4][K % kPeriod][q[K]]), ...);
}

}  // namespace

void CountBytes(const uint8_t *p, std::size_t pixels, int32_t period, uint32_t *counts) {
  auto sub = reinterpret_cast<uint32_t(*)[3][256]>(counts);
  std::size_t i = 0;
  if (period == 1) {
    for (; i + 24 <= pixels; i += 24) CountBlock<1>(p + i, sub, std::make_integer_sequence<int32_t, 24>{});
    for (; i < pixels; ++i) ++sub[0][0][p[i]];
    return;
  }
  const std::size_t step = static_cast<std::size_t>(period);
  const uint8_t *q = p;
  if (period == 3)
    for (; i + 8 <= pixels; i += 8, q += 24) CountBlock<3>(q, sub, std::make_integer_sequence<int32_t, 24>{});
  for (; i + 2 <= pixels; i += 2, q += 2 * step) {
    ++sub[0][0][q[0]];
    ++sub[0][1][q[1]];
    ++sub[0][2][q[2]];
    ++sub[1][0][q[step]];
    ++sub[1][1][q[step + 1]];
    ++sub[1][2][q[step + 2]];
  }
  for (; i < pixels; ++i, q += step) {
    ++sub[0][0][q[0]];
    ++sub[0][1][q[1]];
    ++sub[0][2][q[2]];
  }
}

void FoldCounts(const uint32_t *counts, int32_t channels, uint32_t *histograms) {
  for (int32_t c = 0; c < channels; ++c)
    for (int32_t v = 0; v < 256; ++v) {
      uint32_t sum = 0;
      for (int32_t k = 0; k < 4; ++k) sum += counts[(k * 3 + c) * 256 + v];
      histograms[c * 256 + v] += sum;
    }
}

bool FiniteShares(const Mix &mix) {
  for (const auto &in : mix.share)
    for (const double s : in)
      if (!std::isfinite(s)) return false;
  return true;
}

}  // namespace img::colrn
