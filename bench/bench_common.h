// Shared by the benchmarks: a 3840x2160 bitmap of random bytes, and memcpy
// of its pixel buffer as the reference measured in the same run.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <ctime>
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

// CPU time of this thread, so that other busy cores do not move the ratios.
inline double ThreadNs() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
}

// One memcpy of the 24-bit buffer in thread CPU time, set by MemcpyReference
// (register it first).
inline double memcpyNs = 0;

// Runs `body` per iteration in thread CPU time; reports each call's time as
// x_memcpy, the ratio to memcpyNs, or sets memcpyNs when `reference`.
template <class Body>
void Timed(benchmark::State &state, Body &&body, bool reference = false) {
  double total = 0;
  int64_t n = 0;
  for (auto _ : state) {
    const double t0 = ThreadNs();
    body();
    benchmark::ClobberMemory();
    total += ThreadNs() - t0;
    ++n;
  }
  const double each = total / static_cast<double>(n);
  if (reference)
    memcpyNs = each;
  else if (memcpyNs > 0)
    state.counters["x_memcpy"] = each / memcpyNs;
}

// The reference of Timed: memcpy of a 24-bit bitmap's pixel buffer.
inline void MemcpyReference(benchmark::State &state) {
  RandomBitmap f(24);
  std::vector<uint8_t> copy(f.bitmap.DataSize);
  Timed(
      state, [&] { std::memcpy(copy.data(), f.bitmap.Pixels, f.bitmap.DataSize); }, true);
}

// Median of 15 memcpy runs of `bytes` (warm buffers), in seconds of this
// thread's CPU time: the figure the benchmarks' CPU column reports.
inline double MemcpySeconds(std::size_t bytes) {
  std::vector<uint8_t> a(bytes, 7), b(bytes, 1);
  std::vector<double> t;
  for (int i = 0; i < 15; ++i) {
    const double s = ThreadNs();
    std::memcpy(b.data(), a.data(), bytes);
    benchmark::DoNotOptimize(b.data());
    benchmark::ClobberMemory();
    t.push_back((ThreadNs() - s) * 1e-9);
  }
  std::nth_element(t.begin(), t.begin() + 7, t.end());
  return t[7];
}

}  // namespace bench
