// Shared by the peer benchmarks: the data (the sample photo scaled to
// 3840x2160, 8 or 16 bits a sample), bitmaps holding it, and the timing that
// runs our call and the peer's alternately in one benchmark and reports the
// medians of the repetitions and their ratio.
#pragma once

#include <benchmark/benchmark.h>
#include <time.h>

#include <algorithm>
#include <cstring>
#include <opencv2/core.hpp>
#include <opencv2/core/utility.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "imgkernel.h"

namespace peers {

constexpr int kWidth = 3840, kHeight = 2160;

// CPU time of this thread: on a shared machine it depends less on the load
// than the wall clock does. The peers run in this thread too
// (cv::setNumThreads(1)).
inline double ThreadMs() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) * 1e3 + static_cast<double>(ts.tv_nsec) / 1e6;
}

// The sample photo, blue-green-red, scaled to 3840x2160 (bilinear); 16-bit
// samples are the 8-bit ones times 257.
inline cv::Mat Photo(int depth = CV_8U) {
  cv::setNumThreads(1);
  const cv::Mat small = cv::imread(IMG_SAMPLE_PHOTO, cv::IMREAD_COLOR);
  cv::Mat big;
  cv::resize(small, big, cv::Size(kWidth, kHeight), 0, 0, cv::INTER_LINEAR);
  if (depth == CV_16U) big.convertTo(big, CV_16U, 257);
  return big;
}

// A bitmap of ours holding an image (three or one samples a pixel), with the
// image kept to restore it before each timed call.
struct Bitmap {
  BitmapRecord bitmap{};
  cv::Mat source;
  explicit Bitmap(const cv::Mat &image) : source(image.clone()) {
    const int32_t bits = static_cast<int32_t>(image.elemSize() * 8);
    AllocateBitmap(&bitmap, BITMAP_RECORD_SIZE, MEMORY_CONVENTIONAL, image.cols, image.rows, bits, ORDER_BGR,
                   nullptr, ORIENT_TOP_FIRST, nullptr, 0);
    Restore();
  }
  ~Bitmap() { FreeBitmap(&bitmap); }
  Bitmap(const Bitmap &) = delete;
  Bitmap &operator=(const Bitmap &) = delete;
  void Restore() {
    const size_t row = source.cols * source.elemSize();
    for (int y = 0; y < source.rows; ++y)
      std::memcpy(bitmap.Pixels + static_cast<size_t>(y) * bitmap.BytesPerLine, source.ptr(y), row);
  }
};

inline double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  const size_t n = v.size();
  return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

// Runs `ours` and `peer` alternately, each after its untimed setup, once per
// iteration (use ->Iterations(n)); reports the medians in milliseconds of CPU
// time and ours / peer. A call that returns false stops the benchmark.
template <class OursSetup, class Ours, class PeerSetup, class Peer>
void Alternate(benchmark::State &state, OursSetup oursSetup, Ours ours, PeerSetup peerSetup, Peer peer) {
  cv::setNumThreads(1);
  std::vector<double> a, b;
  for (auto _ : state) {
    oursSetup();
    double t0 = ThreadMs();
    const bool ok = ours();
    benchmark::ClobberMemory();
    a.push_back(ThreadMs() - t0);
    peerSetup();
    t0 = ThreadMs();
    const bool ok2 = peer();
    benchmark::ClobberMemory();
    b.push_back(ThreadMs() - t0);
    if (!ok || !ok2) {
      state.SkipWithError("call failed");
      return;
    }
  }
  const double ma = Median(a), mb = Median(b);
  state.counters["ours_ms"] = ma;
  state.counters["peer_ms"] = mb;
  state.counters["ratio"] = ma / mb;
}

}  // namespace peers
