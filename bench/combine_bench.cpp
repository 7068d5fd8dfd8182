// Adding bitmaps and target sampling on 3840x2160 bitmaps, against memcpy of
// the same 24-bit buffer measured in the same run (counter x_memcpy = CPU
// time of the call / CPU time of memcpy). Targets: adding two 24-bit bitmaps
// at most 1.5, their weighted average at most 2. The result is reused across
// calls (the call fills its pixel block again); the fresh_ cases free it
// before each call, so the call allocates a new block.
#include <benchmark/benchmark.h>
#include <time.h>

#include <cstring>
#include <vector>

#include "bench_common.h"
#include "imgcolor.h"

namespace {

using bench::Timed;

BENCHMARK(bench::MemcpyReference)->Name("BM_Memcpy")->Unit(benchmark::kMillisecond);

// Two random 24-bit bitmaps added into a result that is reused across calls.
void Add(benchmark::State &state, uint32_t mode, bool weighted, bool fresh = false) {
  bench::RandomBitmap a(24, 1), b(24, 2);
  BitmapList list = nullptr;
  CreateBitmapList(&list);
  InsertBitmapListItem(list, -1, &a.bitmap);
  InsertBitmapListItem(list, -1, &b.bitmap);
  const uint32_t factors[2] = {1, 3};
  BitmapRecord result{};
  Timed(state, [&] {
    if (fresh) FreeBitmap(&result);
    const int32_t status = weighted ? Q_AddWeightedBitmaps(&result, BITMAP_RECORD_SIZE, list, factors, mode)
                                    : Q_AddBitmaps(&result, BITMAP_RECORD_SIZE, list, mode);
    if (status != RC_SUCCESS) state.SkipWithError("call failed");
  });
  FreeBitmap(&result);
  DestroyBitmapList(list);
}
BENCHMARK_CAPTURE(Add, sum_bits24, ADD_SUM, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Add, average_bits24, ADD_AVERAGE, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Add, weighted_average_bits24, ADD_WEIGHTED_AVERAGE, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Add, weighted_sum_bits24, ADD_WEIGHTED_SUM, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Add, fresh_sum_bits24, ADD_SUM, false, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Add, fresh_weighted_average_bits24, ADD_WEIGHTED_AVERAGE, true, true)
    ->Unit(benchmark::kMillisecond);

void SampleTarget(benchmark::State &state, int32_t bits) {
  bench::RandomBitmap a(bits);
  uint32_t target = 0x503020;
  Timed(state, [&] {
    target ^= 0x000101;  // alternating targets: every call changes the pixels
    Q_SampleTargetBitmap(&a.bitmap, 0x808080, target, SAMPLE_CHAN_ALL | SAMPLE_METHOD_QUADRATIC);
  });
}
BENCHMARK_CAPTURE(SampleTarget, bits24, 24)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(SampleTarget, bits48, 48)->Unit(benchmark::kMillisecond);

}  // namespace
