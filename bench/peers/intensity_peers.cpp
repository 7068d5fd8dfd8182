// The intensity exports beside OpenCV on 3840x2160 bitmaps of random bytes,
// one thread (cv::setNumThreads(1)). Each benchmark alternates one call of
// ours and one of the peer on the same data (both start from the same
// pristine pixels, restored untimed before each call), reports our time as
// the iteration time and, as counters, the medians of both and their ratio
// ours/peer. Times are the thread's processor time (CLOCK_THREAD_CPUTIME_ID). The 48-bit rows also give the
// ratio to our 24-bit time of the same export ("to_8bit"), measured in the same benchmark.
//
//   adaptive contrast, each channel, window d: cv::blur d x d (edges
//     repeated) then cv::addWeighted(src, g, mean, 1 - g): v' = m + (v - m) g
//   inversion: cv::bitwise_not into a second matrix
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <functional>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "bench_common.h"
#include "imgcolor.h"

namespace {

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  const size_t n = v.size();
  return n == 0 ? 0 : n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

// A bitmap of random bytes, its pristine copy and an OpenCV matrix of the
// same samples (3 channels of 8 or 16 bits).
struct Data {
  bench::RandomBitmap bitmap;
  std::vector<uint8_t> pristine;
  cv::Mat mat;
  explicit Data(int32_t bits)
      : bitmap(bits), pristine(bitmap.bitmap.Pixels, bitmap.bitmap.Pixels + bitmap.bitmap.DataSize) {
    const BitmapRecord &b = bitmap.bitmap;
    cv::Mat view(b.Height, b.Width, bits == 48 ? CV_16UC3 : CV_8UC3, b.Pixels, b.BytesPerLine);
    mat = view.clone();
  }
  void Restore() { std::memcpy(bitmap.bitmap.Pixels, pristine.data(), pristine.size()); }
};

// Seconds of this thread's processor time: the machine is shared, and both
// sides run on this thread alone, so time the others take does not count.
double ThreadSeconds() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

template <class Fn>
double Time(Fn &&fn) {
  const double start = ThreadSeconds();
  fn();
  return ThreadSeconds() - start;
}

// Alternates ours (on `data`) and the peer; with `narrow`, our call on the
// 24-bit data too (the 16-bit form's ratio to the 8-bit one).
void Pair(benchmark::State &state, int32_t bits, const std::function<int32_t(BitmapRecord *)> &ours,
          const std::function<void(const cv::Mat &, cv::Mat &)> &peer) {
  cv::setNumThreads(1);
  Data data(bits);
  std::unique_ptr<Data> narrow(bits == 48 ? new Data(24) : nullptr);
  cv::Mat out;
  std::vector<double> mine, theirs, eight;
  for (auto _ : state) {
    data.Restore();
    const double t = Time([&] {
      if (ours(&data.bitmap.bitmap) != RC_SUCCESS) state.SkipWithError("export failed");
    });
    benchmark::ClobberMemory();
    state.SetIterationTime(t);
    mine.push_back(t);
    theirs.push_back(Time([&] { peer(data.mat, out); }));
    benchmark::DoNotOptimize(out.data);
    if (narrow) {
      narrow->Restore();
      eight.push_back(Time([&] { ours(&narrow->bitmap.bitmap); }));
    }
  }
  const double a = Median(mine), b = Median(theirs);
  state.counters["ours_ms"] = a * 1e3;
  state.counters["peer_ms"] = b * 1e3;
  state.counters["ratio"] = b > 0 ? a / b : 0;
  if (narrow) state.counters["to_8bit"] = a / Median(eight);
}

void Adaptive(benchmark::State &state, int32_t bits, int32_t window) {
  const double gain = 1.5;  // amount 50
  Pair(
      state, bits,
      [window](BitmapRecord *b) {
        return Q_AdaptiveContrastBitmap(b, static_cast<uint32_t>(window), 50, ADAPTIVE_CONTRAST_ALL);
      },
      [=](const cv::Mat &src, cv::Mat &dst) {
        cv::Mat mean;
        cv::blur(src, mean, cv::Size(window, window), cv::Point(-1, -1), cv::BORDER_REPLICATE);
        cv::addWeighted(src, gain, mean, 1 - gain, 0, dst);
      });
}

void Invert(benchmark::State &state, int32_t bits) {
  Pair(
      state, bits, [](BitmapRecord *b) { return Q_InvertBitmap(b, 0); },
      [](const cv::Mat &src, cv::Mat &dst) { cv::bitwise_not(src, dst); });
}

const bool kRegistered = [] {
  const int reps = 15;
  for (int32_t bits : {24, 48}) {
    const std::string s = std::to_string(bits);
    for (int32_t window : {3, 15, 101})
      benchmark::RegisterBenchmark(("adaptive_contrast/" + s + "/window" + std::to_string(window)).c_str(),
                                   Adaptive, bits, window)
          ->UseManualTime()
          ->Unit(benchmark::kMillisecond)
          ->Iterations(reps);
    benchmark::RegisterBenchmark(("invert/" + s).c_str(), Invert, bits)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond)
        ->Iterations(reps * 2);
  }
  return true;
}();

}  // namespace
