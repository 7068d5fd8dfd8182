// Colour swap, colour balance, equalisation (one 8-bit gray band, three
// bands, random and smooth), local equalisation (8x8 tiles, 8- and 16-bit
// gray) and colour intensity balance on 3840x2160 bitmaps, single thread,
// next to memcpy of the same 24-bit buffer in the same run (x_memcpy: the
// operation's CPU time over the median of memcpy runs taken just before it,
// in thread CPU time, so that the ratio holds on a loaded machine). Targets
// (times memcpy): swap 1, balance 1.5, equalisation of one band 2 and three
// bands 4, local equalisation 4 (16-bit at most twice the 8-bit), intensity
// balance 2.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <ctime>

#include "bench_common.h"
#include "imgcolor.h"

namespace {

// A 3840x2160 gray bitmap of random levels (8 or 16 bits).
struct GrayBitmap {
  BitmapRecord bitmap{};
  explicit GrayBitmap(int32_t bits) {
    AllocateBitmap(&bitmap, BITMAP_RECORD_SIZE, MEMORY_CONVENTIONAL, bench::kWidth, bench::kHeight, bits,
                   ORDER_GRAY, nullptr, ORIENT_TOP_FIRST, nullptr, 0);
    std::mt19937 rng(3);
    for (uint64_t i = 0; i < bitmap.DataSize; ++i) bitmap.Pixels[i] = static_cast<uint8_t>(rng());
  }
  ~GrayBitmap() { FreeBitmap(&bitmap); }
  GrayBitmap(const GrayBitmap &) = delete;
  GrayBitmap &operator=(const GrayBitmap &) = delete;
};

using bench::MemcpySeconds;

template <class Fixture, class Call>
void Run(benchmark::State &state, Fixture &f, Call call) {
  const double reference = MemcpySeconds(static_cast<std::size_t>(bench::kWidth) * bench::kHeight * 3);
  for (auto _ : state) {
    const int32_t status = call(&f.bitmap);
    if (status != RC_SUCCESS) state.SkipWithError("operation failed");
    benchmark::ClobberMemory();
  }
  state.counters["x_memcpy"] = benchmark::Counter(static_cast<double>(state.iterations()) * reference,
                                                  benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_Memcpy24(benchmark::State &state) { bench::Memcpy(state, 24); }

void BM_SwapColors(benchmark::State &state) {
  bench::RandomBitmap f(24);
  Run(state, f, [](BitmapRecord *b) { return Q_SwapColors(b, SWAP_RB); });
}

void BM_BalanceColors(benchmark::State &state) {
  bench::RandomBitmap f(24);
  const ColorBalanceFactors r{COLOR_BALANCE_FACTORS_SIZE, 0.9, 0.1, 0.0},
      g{COLOR_BALANCE_FACTORS_SIZE, 0.05, 0.85, 0.1}, b{COLOR_BALANCE_FACTORS_SIZE, 0.0, 0.1, 1.0};
  Run(state, f, [&](BitmapRecord *bmp) { return Q_BalanceColors(bmp, &r, &g, &b, 0); });
}

void BM_EqualizeGray8(benchmark::State &state) {
  GrayBitmap f(8);
  Run(state, f, [](BitmapRecord *b) { return Q_HistoEqualizeBitmap(b, HISTOEQ_PER_CHANNEL); });
}

void BM_EqualizeThreeBands(benchmark::State &state) {
  bench::RandomBitmap f(24);
  Run(state, f, [](BitmapRecord *b) { return Q_HistoEqualizeBitmap(b, HISTOEQ_PER_CHANNEL); });
}

// A photo-like 24-bit bitmap: smooth gradients with a little noise, so that
// neighbouring pixels often repeat a channel's value (counts of one value
// follow each other, unlike on random bytes).
void BM_EqualizeThreeBandsSmooth(benchmark::State &state) {
  bench::RandomBitmap f(24);
  std::mt19937 rng(5);
  for (int32_t y = 0; y < bench::kHeight; ++y) {
    uint8_t *row = f.bitmap.Pixels + static_cast<std::size_t>(y) * f.bitmap.BytesPerLine;
    for (int32_t x = 0; x < bench::kWidth; ++x) {
      const uint32_t noise = rng() & 3;
      row[3 * x] = static_cast<uint8_t>(x / 16 + noise);
      row[3 * x + 1] = static_cast<uint8_t>(y / 9 + noise);
      row[3 * x + 2] = static_cast<uint8_t>((x + y) / 24 + noise);
    }
  }
  Run(state, f, [](BitmapRecord *b) { return Q_HistoEqualizeBitmap(b, HISTOEQ_PER_CHANNEL); });
}

// Local equalisation here takes tiles of 8x8 pixels (129600 tiles). The
// targets are measured in localeq_bench.cpp on a grid of 8 by 8 tiles.
void BM_LocalEqualizeGray8(benchmark::State &state) {
  GrayBitmap f(8);
  Run(state, f,
      [](BitmapRecord *b) { return Q_LocalHistoEqualizeBitmap(b, 8, 8, 30, LOCALEQ_EACH_CHANNEL, 0); });
}

void BM_LocalEqualizeGray16(benchmark::State &state) {
  GrayBitmap f(16);
  Run(state, f,
      [](BitmapRecord *b) { return Q_LocalHistoEqualizeBitmap(b, 8, 8, 30, LOCALEQ_EACH_CHANNEL, 0); });
}

void BM_IntensityBalance(benchmark::State &state) {
  bench::RandomBitmap f(24);
  Run(state, f,
      [](BitmapRecord *b) { return Q_ColorIntensityBalance(b, INTENSITY_BALANCE_GRAY_WORLD, 100, 0); });
}

}  // namespace

BENCHMARK(BM_Memcpy24)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SwapColors)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BalanceColors)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EqualizeGray8)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EqualizeThreeBands)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EqualizeThreeBandsSmooth)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LocalEqualizeGray8)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LocalEqualizeGray16)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_IntensityBalance)->Unit(benchmark::kMillisecond);
