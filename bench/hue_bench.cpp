// The hue, saturation, hue-band and tint exports on 3840x2160 bitmaps of
// random pixels (the worst case for the colour memo: few colours repeat),
// in thread CPU time, each call also as a multiple of one memcpy of the
// 24-bit pixel buffer measured in the same run (x_memcpy).
#include <benchmark/benchmark.h>

#include <cstring>
#include <functional>
#include <random>
#include <vector>

#include "bench_common.h"
#include "imgcolor.h"

namespace {

using bench::kHeight;
using bench::kWidth;
using bench::Memcpy;
using bench::MemcpyReference;
using Fixture = bench::RandomBitmap;

void Run(benchmark::State &state, int32_t bits, const std::function<int32_t(BitmapRecord *)> &call) {
  Fixture f(bits);
  bool failed = false;
  bench::Timed(state, [&] { failed = failed || call(&f.bitmap) != RC_SUCCESS; });
  if (failed) state.SkipWithError("export failed");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(f.bitmap.DataSize));
}

const HueSatIntRange kBand{32, 1500, 300, 100, 330, 30, 350, 10};

int32_t Hue(BitmapRecord *b) { return Q_ChangeBitmapHue(b, 30, 0); }
int32_t Saturation(BitmapRecord *b) { return Q_ChangeBitmapSaturation(b, 300, 0); }
int32_t Remap(BitmapRecord *b) { return Q_RemapBitmapHue(b, nullptr, nullptr, nullptr, nullptr, 65536, 0); }
int32_t HueSatInt(BitmapRecord *b) { return Q_ChangeHueSatIntBitmap(b, 3000, 200, 100, &kBand, 1, 0); }
int32_t Tint(BitmapRecord *b) { return Q_AdjustBitmapTint(b, 500, 300, 0); }

}  // namespace

BENCHMARK(MemcpyReference)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Run, hue_bits24, 24, Hue)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Run, saturation_bits24, 24, Saturation)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Run, remap_bits24, 24, Remap)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Run, hue_sat_int_bits24, 24, HueSatInt)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Run, tint_bits24, 24, Tint)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Memcpy, bits48, 48)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Run, hue_bits48, 48, Hue)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Run, saturation_bits48, 48, Saturation)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Run, remap_bits48, 48, Remap)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Run, hue_sat_int_bits48, 48, HueSatInt)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Run, tint_bits48, 48, Tint)->Unit(benchmark::kMillisecond);
