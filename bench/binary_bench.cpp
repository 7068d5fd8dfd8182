// Dynamic binary (8-bit gray, windows 3, 15 and 63: the cost must not grow
// with the window), red-eye removal on a 1000 x 1000 region, segmentation at
// 1, 4 and 16 megapixels. Each reports its time over memcpy's, measured in
// the same run ("x_memcpy"): of the 24-bit 3840 x 2160 buffer for the
// dynamic binary and segmentation, of the region's bytes for red-eye.
#include <algorithm>
#include <cstring>
#include <ctime>

#include "bench_common.h"
#include "imgcolor.h"
#include "imgplatform.h"

namespace {

using bench::MemcpySeconds;

struct Owned {
  BitmapRecord b{};
  Owned(int32_t w, int32_t h, int32_t bits, int32_t order) {
    AllocateBitmap(&b, BITMAP_RECORD_SIZE, MEMORY_CONVENTIONAL, w, h, bits, order, nullptr, ORIENT_TOP_FIRST,
                   nullptr, 0);
  }
  ~Owned() { FreeBitmap(&b); }
};

// Smooth content with a little noise: flat patches of 64 x 64 pixels.
void Patches(BitmapRecord &b, uint32_t seed) {
  std::mt19937 rng(seed);
  const int32_t bpp = b.BitsPerPixel / 8;
  std::vector<uint8_t> patch(static_cast<size_t>((b.Width / 64 + 1) * (b.Height / 64 + 1) * 3));
  for (auto &v : patch) v = static_cast<uint8_t>(rng());
  for (int32_t y = 0; y < b.Height; ++y) {
    uint8_t *row = b.Pixels + static_cast<size_t>(y) * b.BytesPerLine;
    for (int32_t x = 0; x < b.Width; ++x)
      for (int32_t c = 0; c < bpp; ++c)
        row[x * bpp + c] =
            static_cast<uint8_t>(patch[((y / 64) * (b.Width / 64 + 1) + x / 64) * 3 + c % 3] + (rng() & 3));
  }
}

void Ratio(benchmark::State &state, double reference) {
  state.counters["x_memcpy"] = benchmark::Counter(static_cast<double>(state.iterations()) * reference,
                                                  benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void DynamicBinary(benchmark::State &state) {
  const uint32_t dimension = static_cast<uint32_t>(state.range(0));
  Owned gray(bench::kWidth, bench::kHeight, 8, ORDER_GRAY);
  bench::RandomBitmap source(8);
  std::vector<uint8_t> original(source.bitmap.Pixels, source.bitmap.Pixels + source.bitmap.DataSize);
  const double reference = MemcpySeconds(static_cast<size_t>(bench::kWidth) * bench::kHeight * 3);
  for (auto _ : state) {
    state.PauseTiming();
    std::memcpy(gray.b.Pixels, original.data(), gray.b.DataSize);
    state.ResumeTiming();
    if (Q_DynamicBinaryBitmap(&gray.b, dimension, 15, 0) != RC_SUCCESS) state.SkipWithError("failed");
  }
  Ratio(state, reference);
}

void RemoveRedeye(benchmark::State &state) {
  const bool smooth = state.range(0) != 0;
  Owned bmp(bench::kWidth, bench::kHeight, 24, ORDER_BGR);
  if (smooth) {
    Patches(bmp.b, 3);
  } else {
    std::mt19937 rng(3);
    for (uint64_t i = 0; i < bmp.b.DataSize; ++i) bmp.b.Pixels[i] = static_cast<uint8_t>(rng());
  }
  Rect r;
  SetRect(&r, 1000, 500, 2000, 1500);
  SetBitmapRegionRect(&bmp.b, &r, REGION_SET);
  const double reference = MemcpySeconds(1000u * 1000u * 3u);
  for (auto _ : state)
    if (Q_RemoveRedeyeBitmap(&bmp.b, 0x303030, 150, 70, 0) != RC_SUCCESS) state.SkipWithError("failed");
  Ratio(state, reference);
}

void Segment(benchmark::State &state) {
  const int32_t scale = static_cast<int32_t>(state.range(0));  // megapixels: 1, 4, 16
  const int32_t width = 1024 * (scale == 1 ? 1 : scale == 4 ? 2 : 4), height = width;
  Owned bmp(width, height, 24, ORDER_BGR);
  Patches(bmp.b, 5);
  std::vector<uint8_t> original(bmp.b.Pixels, bmp.b.Pixels + bmp.b.DataSize);
  const double reference = MemcpySeconds(static_cast<size_t>(bench::kWidth) * bench::kHeight * 3);
  for (auto _ : state) {
    state.PauseTiming();
    std::memcpy(bmp.b.Pixels, original.data(), bmp.b.DataSize);
    state.ResumeTiming();
    if (Q_SegmentBitmap(&bmp.b, 300, 20, nullptr, 0, 0) != RC_SUCCESS) state.SkipWithError("failed");
  }
  Ratio(state, reference);
  state.counters["ns_per_pixel"] =
      benchmark::Counter(static_cast<double>(state.iterations()) * width * height * 1e-9,
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

}  // namespace

void Memcpy(benchmark::State &state, int32_t bits) { bench::Memcpy(state, bits); }

BENCHMARK_CAPTURE(Memcpy, bgr24, 24)->Unit(benchmark::kMillisecond);
BENCHMARK(DynamicBinary)->Arg(3)->Arg(15)->Arg(63)->Unit(benchmark::kMillisecond);
BENCHMARK(RemoveRedeye)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(Segment)->Arg(1)->Arg(4)->Arg(16)->Unit(benchmark::kMillisecond)->Iterations(2);
