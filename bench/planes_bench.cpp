// Colour separation into RGB planes (and back), channel mix and the line
// profile on a 3840x2160 24-bit bitmap, single thread, beside memcpy of the
// same 24-bit buffer measured in the same run. Targets: channel mix and
// separation into RGB planes at most 1.5 x memcpy. Each benchmark reports
// "x memcpy", its time over memcpy's.
#include <benchmark/benchmark.h>

#include <cstring>
#include <ctime>
#include <vector>

#include "bench_common.h"
#include "imgcolor.h"

namespace {

using bench::Timed;

BENCHMARK(bench::MemcpyReference)->Name("BM_Memcpy")->Unit(benchmark::kMillisecond);

struct Planes {
  BitmapRecord records[4] = {};
  BitmapRecord *ptr[4] = {&records[0], &records[1], &records[2], &records[3]};
  void Free() {
    for (BitmapRecord &r : records)
      if (r.Flags & BITMAP_ALLOCATED) FreeBitmap(&r);
  }
};

// Separation allocates its planes: the allocation is part of what a caller pays.
void BM_Separate(benchmark::State &state) {
  bench::RandomBitmap f(state.range(0) == 0 ? 24 : 48);
  const uint32_t model = static_cast<uint32_t>(state.range(1));
  Planes p;
  Timed(state, [&] {
    p.Free();
    benchmark::DoNotOptimize(Q_ColorSeparateBitmap(&f.bitmap, p.ptr, BITMAP_RECORD_SIZE, model));
  });
  p.Free();
}
BENCHMARK(BM_Separate)
    ->ArgNames({"wide", "model"})
    ->Args({0, COLORSEP_RGB})
    ->Args({0, COLORSEP_MODEL3})
    ->Args({0, COLORSEP_YUV})
    ->Args({1, COLORSEP_RGB})
    ->Unit(benchmark::kMillisecond);

void BM_Merge(benchmark::State &state) {
  bench::RandomBitmap f(24);
  Planes p;
  Q_ColorSeparateBitmap(&f.bitmap, p.ptr, BITMAP_RECORD_SIZE, COLORSEP_RGB);
  BitmapRecord merged{};
  Timed(state, [&] {
    if (merged.Flags & BITMAP_ALLOCATED) FreeBitmap(&merged);
    benchmark::DoNotOptimize(Q_ColorMergeBitmap(&merged, p.ptr, BITMAP_RECORD_SIZE, COLORSEP_RGB));
  });
  if (merged.Flags & BITMAP_ALLOCATED) FreeBitmap(&merged);
  p.Free();
}
BENCHMARK(BM_Merge)->Unit(benchmark::kMillisecond);

void BM_ChannelMix(benchmark::State &state) {
  bench::RandomBitmap f(state.range(0) == 0 ? 24 : 48);
  const ChannelMixFactors red{0, 80, 15, 5, 0}, green{0, 10, 80, 10, 0}, blue{0, 5, 15, 80, 0};
  Timed(state, [&] { benchmark::DoNotOptimize(Q_ChannelMix(&f.bitmap, &red, &green, &blue, 0)); });
}
BENCHMARK(BM_ChannelMix)->ArgName("wide")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void BM_LineProfile(benchmark::State &state) {
  bench::RandomBitmap f(24);
  std::vector<uint32_t> values(3 * 3840);
  Timed(state, [&] {
    uint32_t capacity = 3840;
    benchmark::DoNotOptimize(Q_LineProfile(&f.bitmap, 0, 0, 3839, 2159, values.data(), &capacity, 0));
  });
}
BENCHMARK(BM_LineProfile)->Unit(benchmark::kMillisecond);

}  // namespace
