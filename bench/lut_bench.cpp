// ApplyLut on a 3840x2160 bitmap next to memcpy of the same pixel buffer and
// next to a plain loop over a 65536-entry uint16_t table.
#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <vector>

#include "bench_common.h"
#include "imgutil.h"
#include "lut_simd.h"

namespace {

// A random bitmap and a random table covering its sample values.
struct Fixture : bench::RandomBitmap {
  std::vector<int32_t> table;
  explicit Fixture(int32_t bits) : bench::RandomBitmap(bits) {
    std::mt19937 rng(2);
    table.resize(bits >= 48 ? 65536 : 256);
    for (int32_t &v : table) v = static_cast<int32_t>(rng() % table.size());
  }
};

using bench::Memcpy;

void Apply(benchmark::State &state, int32_t bits, int path) {  // path: -1 dispatched, else an img::Isa
  Fixture f(bits);
  for (auto _ : state) {
    const int32_t status =
        path < 0 ? ApplyLut(&f.bitmap, f.table.data(), static_cast<uint32_t>(f.table.size()),
                            LUT_INDEX_BY_VALUE, 0, 100)
                 : img::ApplyLutWithPath(&f.bitmap, f.table.data(), static_cast<uint32_t>(f.table.size()),
                                         LUT_INDEX_BY_VALUE, 0, 100, static_cast<img::Isa>(path));
    if (status != RC_SUCCESS) state.SkipWithError("ApplyLut failed");
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(f.bitmap.DataSize));
}

// The reference for 16-bit samples: every word of the buffer through a
// 65536-entry table, in place.
void PlainWordLoop(benchmark::State &state) {
  Fixture f(48);
  std::vector<uint16_t> table(65536);
  for (size_t i = 0; i < table.size(); ++i) table[i] = static_cast<uint16_t>(f.table[i]);
  uint16_t *words = reinterpret_cast<uint16_t *>(f.bitmap.Pixels);
  const size_t count = f.bitmap.DataSize / 2;
  for (auto _ : state) {
    for (size_t i = 0; i < count; ++i) words[i] = table[words[i]];
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(f.bitmap.DataSize));
}

BENCHMARK_CAPTURE(Memcpy, bgr24, 24)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Apply, bgr24_dispatch, 24, -1)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Apply, bgr24_scalar, 24, int(img::Isa::Scalar))->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Apply, bgr24_ssse3, 24, int(img::Isa::Ssse3))->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Apply, bgr24_avx2, 24, int(img::Isa::Avx2))->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Apply, bgr24_avx512, 24, int(img::Isa::Avx512))->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Apply, bgr32_dispatch, 32, -1)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Memcpy, bgr48, 48)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Apply, bgr48_dispatch, 48, -1)->Unit(benchmark::kMillisecond);
BENCHMARK(PlainWordLoop)->Unit(benchmark::kMillisecond);

}  // namespace
