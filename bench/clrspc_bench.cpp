// Row conversions of a 3840x2160 image, 8 and 16 bits per sample, in
// megapixels per second, against memcpy of the same 24-bit buffer measured
// in the same run (counter x_memcpy = conversion CPU time / memcpy CPU time).
//
// The image is photo-like: smooth gradients with mild noise (argument 0), or
// uniformly random samples (argument 1), the worst case for the branches.
#include <benchmark/benchmark.h>
#include <time.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "ClrSpc.h"

namespace {

constexpr int kWidth = 3840, kHeight = 2160;
constexpr size_t kPixels = size_t{kWidth} * kHeight;

// CPU time of this thread: the ratio to memcpy should not depend on how busy
// the other cores of a shared machine are.
double ThreadNs() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
}

// Nanoseconds of one memcpy of the 24-bit image, set by the memcpy benchmark
// (which runs first).
double g_memcpyNs = 0;

template <class T>
std::vector<T> MakeImage(int kind) {
  const int shift = sizeof(T) == 1 ? 0 : 8;
  std::vector<T> img(3 * kPixels);
  std::mt19937 rng(7);
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      T *p = &img[3 * (static_cast<size_t>(y) * kWidth + x)];
      if (kind == 1) {
        for (int k = 0; k < 3; ++k) p[k] = static_cast<T>(rng() >> (sizeof(T) == 1 ? 24 : 16));
        continue;
      }
      const int noise = static_cast<int>(rng() % 9) - 4;
      const int v[3] = {x * 255 / kWidth, y * 255 / kHeight, (x + y) * 255 / (kWidth + kHeight)};
      for (int k = 0; k < 3; ++k) {
        int s = ((k == 1 ? 255 - v[k] : v[k]) + noise) << shift;
        p[k] = static_cast<T>(
            s < 0 ? 0 : (s > (sizeof(T) == 1 ? 255 : 65535) ? (sizeof(T) == 1 ? 255 : 65535) : s));
      }
    }
  }
  return img;
}

void BM_Memcpy(benchmark::State &state) {
  std::vector<uint8_t> src = MakeImage<uint8_t>(0), dst(src.size());
  double totalNs = 0;
  int64_t n = 0;
  for (auto _ : state) {
    const double t0 = ThreadNs();
    std::memcpy(dst.data(), src.data(), src.size());
    benchmark::ClobberMemory();
    totalNs += ThreadNs() - t0;
    ++n;
  }
  g_memcpyNs = totalNs / static_cast<double>(n);
  state.counters["MP/s"] =
      benchmark::Counter(static_cast<double>(kPixels) * n / 1e6, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_Memcpy)->Unit(benchmark::kMillisecond);

template <class T>
void ConvertRows(uint32_t code, T *rgb, uint8_t *space, int pixelSize, const img::LabTableSet *set) {
  for (int y = 0; y < kHeight; ++y) {
    const size_t row = static_cast<size_t>(y) * kWidth;
    if constexpr (sizeof(T) == 1)
      img::ConvertColorRow8(code, rgb + 3 * row, space + row * pixelSize, set, 0, kWidth);
    else
      img::ConvertColorRow16(code, rgb + 3 * row, space + row * pixelSize, set, 0, kWidth);
  }
}

// range(0): code; range(1): image kind.
template <class T>
void BM_Convert(benchmark::State &state) {
  const uint32_t code = static_cast<uint32_t>(state.range(0));
  const int bits = 8 * sizeof(T);
  const uint32_t space = code % COLORSPACE_TO_RGB;
  const int size = space == COLORSPACE_LAB_TABLE ? 3 * sizeof(T) : img::GetColorSpacePixelSize(space, bits);
  img::LabTableSet set{};
  img::BuildLabTables(&set);
  std::vector<T> rgb = MakeImage<T>(static_cast<int>(state.range(1))), back(rgb.size());
  std::vector<uint8_t> sp(kPixels * size);
  // Inverse codes convert what the forward code produced.
  ConvertRows(space, rgb.data(), sp.data(), size, &set);
  double totalNs = 0;
  int64_t n = 0;
  for (auto _ : state) {
    const double t0 = ThreadNs();
    if (code < COLORSPACE_TO_RGB)
      ConvertRows(code, rgb.data(), sp.data(), size, &set);
    else
      ConvertRows(code, back.data(), sp.data(), size, &set);
    benchmark::ClobberMemory();
    totalNs += ThreadNs() - t0;
    ++n;
  }
  img::FreeLabTables(&set);
  state.counters["MP/s"] =
      benchmark::Counter(static_cast<double>(kPixels) * n / 1e6, benchmark::Counter::kIsRate);
  if (g_memcpyNs > 0) state.counters["x_memcpy"] = totalNs / static_cast<double>(n) / g_memcpyNs;
}

void Codes8(benchmark::internal::Benchmark *b) {
  for (int kind : {0, 1})
    for (int64_t c = 0; c <= 10; ++c) {
      b->Args({c, kind});
      b->Args({c + COLORSPACE_TO_RGB, kind});
    }
}
void Codes16(benchmark::internal::Benchmark *b) {
  for (int kind : {0, 1})
    for (int64_t c = 0; c <= 10; ++c) {
      b->Args({c, kind});
      b->Args({c + COLORSPACE_TO_RGB, kind});
    }
}

BENCHMARK(BM_Convert<uint8_t>)->Apply(Codes8)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Convert<uint16_t>)->Apply(Codes16)->Unit(benchmark::kMillisecond);

}  // namespace
