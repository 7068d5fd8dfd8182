// The point-operation exports on a 3840x2160 bitmap (24 and 48 bits), next
// to memcpy of the same pixel buffer and a plain loop through a
// 65536-entry table in the same run. Throughput is the pixel buffer's size
// per call.
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
using Fixture = bench::RandomBitmap;

// Every 16-bit word of the buffer through a 65536-entry table, in place.
void PlainWordLoop(benchmark::State &state) {
  Fixture f(48);
  std::vector<uint16_t> table(65536);
  for (size_t i = 0; i < table.size(); ++i) table[i] = static_cast<uint16_t>(65535 - i);
  uint16_t *words = reinterpret_cast<uint16_t *>(f.bitmap.Pixels);
  const size_t count = f.bitmap.DataSize / 2;
  for (auto _ : state) {
    for (size_t i = 0; i < count; ++i) words[i] = table[words[i]];
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * f.Bytes());
}

void Export(benchmark::State &state, int32_t bits, std::function<int32_t(BitmapRecord *)> call) {
  Fixture f(bits);
  for (auto _ : state) {
    if (call(&f.bitmap) != RC_SUCCESS) state.SkipWithError("export failed");
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * f.Bytes());
}

const int32_t kRemapTable[65536] = {};

int32_t Solarize(BitmapRecord *b) { return Q_SolarizeBitmap(b, 100, 0); }
int32_t Posterize(BitmapRecord *b) { return Q_PosterizeBitmap(b, 6, 0); }
int32_t Contrast(BitmapRecord *b) { return Q_ChangeBitmapContrast(b, 400, 0); }
int32_t Multiply(BitmapRecord *b) { return Q_MultiplyBitmap(b, 120, 0); }
int32_t MathLogic(BitmapRecord *b) { return Q_ApplyMathLogicBitmap(b, 30, MATHLOGIC_OP_ADD); }
int32_t Remap(BitmapRecord *b) {
  return Q_RemapBitmapIntensity(b, kRemapTable, b->BitsPerPixel >= 48 ? 65536 : 256, LUT_INDEX_BY_VALUE);
}
int32_t HistoContrast(BitmapRecord *b) { return Q_HistoContrastBitmap(b, 300, 0); }
int32_t Stretch(BitmapRecord *b) { return Q_StretchBitmapIntensity(b, 0); }
int32_t MathFunction(BitmapRecord *b) { return Q_MathFunctionBitmap(b, MATHFUNC_ROOT, 16, 0); }
int32_t ColorCount(BitmapRecord *b) {
  uint32_t count = 0;
  return Q_GetBitmapColorCount(b, &count, 0);
}

#define LUT_BENCH(name, fn)                                                                   \
  BENCHMARK_CAPTURE(Export, name##_24, 24, fn)->Unit(benchmark::kMillisecond)->UseRealTime(); \
  BENCHMARK_CAPTURE(Export, name##_48, 48, fn)->Unit(benchmark::kMillisecond)->UseRealTime()

BENCHMARK_CAPTURE(Memcpy, bgr24, 24)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(Memcpy, bgr48, 48)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(PlainWordLoop)->Unit(benchmark::kMillisecond)->UseRealTime();
LUT_BENCH(solarize, Solarize);
LUT_BENCH(posterize, Posterize);
LUT_BENCH(contrast, Contrast);
LUT_BENCH(multiply, Multiply);
LUT_BENCH(math_logic, MathLogic);
LUT_BENCH(remap, Remap);
LUT_BENCH(histo_contrast, HistoContrast);
LUT_BENCH(stretch, Stretch);
LUT_BENCH(math_function, MathFunction);
LUT_BENCH(color_count, ColorCount);

}  // namespace
