// Shared by the benchmarks: a 3840x2160 bitmap of random bytes, and memcpy
// of its pixel buffer as the reference measured in the same run.
#pragma once

#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <vector>

#include "imgkernel.h"

namespace bench {

constexpr int32_t kWidth = 3840;
constexpr int32_t kHeight = 2160;

struct RandomBitmap {
  BitmapRecord bitmap{};
  explicit RandomBitmap(int32_t bits, uint32_t seed = 1) {
    AllocateBitmap(&bitmap, BITMAP_RECORD_SIZE, MEMORY_CONVENTIONAL, kWidth, kHeight, bits, ORDER_BGR,
                   nullptr, ORIENT_TOP_FIRST, nullptr, 0);
    std::mt19937 rng(seed);
    for (uint64_t i = 0; i < bitmap.DataSize; ++i) bitmap.Pixels[i] = static_cast<uint8_t>(rng());
  }
  ~RandomBitmap() { FreeBitmap(&bitmap); }
  RandomBitmap(const RandomBitmap &) = delete;
  RandomBitmap &operator=(const RandomBitmap &) = delete;
  int64_t Bytes() const { return static_cast<int64_t>(bitmap.DataSize); }
};

// memcpy of the pixel buffer of a `bits`-deep bitmap into another buffer.
inline void Memcpy(benchmark::State &state, int32_t bits) {
  RandomBitmap f(bits);
  std::vector<uint8_t> copy(f.bitmap.DataSize);
  for (auto _ : state) {
    std::memcpy(copy.data(), f.bitmap.Pixels, f.bitmap.DataSize);
    benchmark::DoNotOptimize(copy.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * f.Bytes());
}

}  // namespace bench
