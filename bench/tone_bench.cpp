// Desaturation, duotone and multitone on 3840x2160 bitmaps of 24 and 48 bits,
// next to memcpy of the same pixel buffer and next to a bare row walk (read
// and write every row through the converter, no change) that shows what the
// converter itself costs.
#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <vector>

#include "imgcolor.h"

namespace {

constexpr int32_t kWidth = 3840;
constexpr int32_t kHeight = 2160;

// Pixels: random colours, or random gray levels (every pixel a gray one, the
// most work for the tone row step).
struct Fixture {
  BitmapRecord bitmap{};
  Fixture(int32_t bits, bool gray) {
    AllocateBitmap(&bitmap, BITMAP_RECORD_SIZE, MEMORY_CONVENTIONAL, kWidth, kHeight, bits, ORDER_BGR,
                   nullptr, ORIENT_TOP_FIRST, nullptr, 0);
    std::mt19937 rng(1);
    const int32_t bytes = bits / 24;  // bytes per sample
    for (int32_t y = 0; y < kHeight; ++y) {
      uint8_t *row = bitmap.Pixels + static_cast<size_t>(y) * bitmap.BytesPerLine;
      for (int32_t x = 0; x < kWidth; ++x) {
        const uint32_t level = rng();
        for (int32_t c = 0; c < 3; ++c) {
          const uint32_t v = gray ? level : rng();
          std::memcpy(row + (static_cast<size_t>(x) * 3 + c) * bytes, &v, static_cast<size_t>(bytes));
        }
      }
    }
  }
  ~Fixture() { FreeBitmap(&bitmap); }
  Fixture(const Fixture &) = delete;
  Fixture &operator=(const Fixture &) = delete;
};

void Finish(benchmark::State &state, const Fixture &f) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(f.bitmap.DataSize));
}

void Memcpy(benchmark::State &state, int32_t bits) {
  Fixture f(bits, false);
  std::vector<uint8_t> copy(f.bitmap.DataSize);
  for (auto _ : state) {
    std::memcpy(copy.data(), f.bitmap.Pixels, f.bitmap.DataSize);
    benchmark::DoNotOptimize(copy.data());
    benchmark::ClobberMemory();
  }
  Finish(state, f);
}

void RowWalk(benchmark::State &state, int32_t bits) {
  Fixture f(bits, false);
  RowConverter converter = nullptr;
  CreateRowConverter(&f.bitmap, &converter, ROW_LAYOUT_NATIVE);
  void *row = AllocRowBuffer(converter);
  for (auto _ : state) {
    BeginWholeBitmap(converter);
    for (int32_t y = 0; y < kHeight; ++y) {
      ReadRow(converter, row, y, nullptr, nullptr);
      WriteRow(converter, row, y, nullptr, nullptr);
    }
    benchmark::ClobberMemory();
  }
  FreeRowConverter(converter);
  FreeMemory(row, __LINE__, L"bench/tone_bench");
  Finish(state, f);
}

// Repeated desaturation does the same work each time: the row step has no
// shortcut for pixels that are already gray.
void Desaturate(benchmark::State &state, int32_t bits) {
  Fixture f(bits, false);
  for (auto _ : state) {
    if (Q_DesaturateBitmap(&f.bitmap, 0) != RC_SUCCESS) state.SkipWithError("Q_DesaturateBitmap failed");
    benchmark::ClobberMemory();
  }
  Finish(state, f);
}

// A gray table (entry i = i, i, i) in mode 1 keeps gray pixels gray, so every
// iteration tints every pixel of the gray image; the colour image has almost
// no gray pixels and measures the test alone.
void Duotone(benchmark::State &state, int32_t bits, bool gray) {
  Fixture f(bits, gray);
  std::vector<PaletteEntry> table(256);
  for (int i = 0; i < 256; ++i)
    table[i] = {static_cast<uint8_t>(i), static_cast<uint8_t>(i), static_cast<uint8_t>(i), 0};
  for (auto _ : state) {
    if (Q_GrayScaleToDuotone(&f.bitmap, table.data(), 0, 1) != RC_SUCCESS)
      state.SkipWithError("Q_GrayScaleToDuotone failed");
    benchmark::ClobberMemory();
  }
  Finish(state, f);
}

// Four white tones: four ramps and products, applied as they stand; gray
// pixels become white and stay gray for the next iteration.
void Multitone(benchmark::State &state, int32_t bits) {
  Fixture f(bits, true);
  const uint32_t white[4] = {0xFFFFFF, 0xFFFFFF, 0xFFFFFF, 0xFFFFFF};
  for (auto _ : state) {
    if (Q_GrayScaleToMultitone(&f.bitmap, 3, 0, white, nullptr, 0) != RC_SUCCESS)
      state.SkipWithError("Q_GrayScaleToMultitone failed");
    benchmark::ClobberMemory();
  }
  Finish(state, f);
}

BENCHMARK_CAPTURE(Memcpy, bgr24, 24)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(RowWalk, bgr24, 24)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Desaturate, bgr24, 24)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Duotone, bgr24_gray, 24, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Duotone, bgr24_colour, 24, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Multitone, bgr24_gray, 24)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Memcpy, bgr48, 48)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(RowWalk, bgr48, 48)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Desaturate, bgr48, 48)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Duotone, bgr48_gray, 48, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Duotone, bgr48_colour, 48, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Multitone, bgr48_gray, 48)->Unit(benchmark::kMillisecond);

}  // namespace
