// Local equalisation on 3840x2160 gray bitmaps of random levels, single
// thread, against memcpy of the same 24-bit buffer measured in the same run
// (counter x_memcpy = CPU time of the call / CPU time of memcpy).
//
// "8x8 tiles" is a grid of 8 by 8 tiles (tiles of 480x270 pixels), the usual
// default of contrast-limited adaptive equalisation and the comparable case:
// targets 8-bit gray at most 4, 16-bit gray at most twice the 8-bit time.
// The tiles_8px cases take tiles of 8x8 pixels (129600 tiles), for
// information: there each tile's curve costs more than its 64 pixels.
#include <benchmark/benchmark.h>
#include <time.h>

#include <cstring>
#include <random>
#include <vector>

#include "bench_common.h"
#include "imgcolor.h"

namespace {

using bench::Timed;

BENCHMARK(bench::MemcpyReference)->Name("BM_Memcpy")->Unit(benchmark::kMillisecond);

// A gray bitmap of random levels (8 or 16 bits), equalised again and again
// (every call sees the previous result, which stays spread over the levels).
void Local(benchmark::State &state, int32_t bits, uint32_t tileWidth, uint32_t tileHeight) {
  BitmapRecord bitmap{};
  AllocateBitmap(&bitmap, BITMAP_RECORD_SIZE, MEMORY_CONVENTIONAL, bench::kWidth, bench::kHeight, bits,
                 ORDER_GRAY, nullptr, ORIENT_TOP_FIRST, nullptr, 0);
  std::mt19937 rng(3);
  for (uint64_t i = 0; i < bitmap.DataSize; ++i) bitmap.Pixels[i] = static_cast<uint8_t>(rng());
  Timed(state, [&] {
    if (Q_LocalHistoEqualizeBitmap(&bitmap, tileWidth, tileHeight, 30, LOCALEQ_EACH_CHANNEL, 0) != RC_SUCCESS)
      state.SkipWithError("operation failed");
  });
  FreeBitmap(&bitmap);
}

constexpr uint32_t kGridWidth = bench::kWidth / 8, kGridHeight = bench::kHeight / 8;

BENCHMARK_CAPTURE(Local, gray8_grid8x8, 8, kGridWidth, kGridHeight)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Local, gray16_grid8x8, 16, kGridWidth, kGridHeight)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Local, gray8_tiles_8px, 8, 8, 8)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Local, gray16_tiles_8px, 16, 8, 8)->Unit(benchmark::kMillisecond);

}  // namespace
