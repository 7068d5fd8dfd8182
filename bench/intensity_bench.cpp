// The forwarded intensity exports, extended gamma and automatic
// binarisation on a 3840x2160 bitmap (24 and 48 bits), next to memcpy of the
// same pixel buffer in the same run. Adaptive contrast runs with windows 3
// and 101 to show that its cost per pixel does not depend on the window.
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

// Operations that would turn the bitmap into something else (gray,
// black-and-white) run on a fresh copy each time; the copy is not timed.
void Export(benchmark::State &state, int32_t bits, bool fresh, std::function<int32_t(BitmapRecord *)> call) {
  Fixture f(bits);
  BitmapRecord work{};
  if (!fresh) work = f.bitmap;
  for (auto _ : state) {
    if (fresh) {
      state.PauseTiming();
      CopyBitmap(&work, &f.bitmap, BITMAP_RECORD_SIZE);
      state.ResumeTiming();
    }
    if (call(&work) != RC_SUCCESS) state.SkipWithError("export failed");
    benchmark::ClobberMemory();
    if (fresh) {
      state.PauseTiming();
      FreeBitmap(&work);
      state.ResumeTiming();
    }
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(f.bitmap.DataSize));
}

const uint32_t kLower[3] = {200, 200, 200}, kMiddle[3] = {500, 500, 500}, kUpper[3] = {800, 800, 800};

ColorLevelRecord Levels(int32_t top) {
  ColorLevelRecord r{};
  r.StructSize = sizeof r;
  r.Master = {top / 20, top - top / 20, 0, top, 120};
  return r;
}

void Register(int32_t bits) {
  const std::string s = std::to_string(bits);
  const int32_t top = bits >= 48 ? 65535 : 255;
  benchmark::RegisterBenchmark(("memcpy/" + s).c_str(), Memcpy, bits);
  struct Op {
    const char *name;
    bool fresh;
    std::function<int32_t(BitmapRecord *)> call;
  } ops[] = {
      {"Invert", false, [](BitmapRecord *b) { return Q_InvertBitmap(b, 0); }},
      {"ChangeIntensity", false, [](BitmapRecord *b) { return Q_ChangeBitmapIntensity(b, 100, 0); }},
      {"GammaCorrect", false, [](BitmapRecord *b) { return Q_GammaCorrectBitmap(b, 150, 0); }},
      {"ContBrightInt", false, [](BitmapRecord *b) { return Q_ContBrightIntBitmap(b, 100, 50, 20, 0); }},
      {"GrayScaleExt", true, [](BitmapRecord *b) { return Q_GrayScaleBitmapExt(b, 2990, 5870, 1140, 0); }},
      {"IntensityDetect", false,
       [top](BitmapRecord *b) {
         return Q_IntensityDetectBitmap(b, static_cast<uint32_t>(top / 2), top, 0xFFFFFF, 0, 0x111, 0);
       }},
      {"GetHistogram", false,
       [](BitmapRecord *b) {
         static thread_local std::vector<uint32_t> h(65536);
         return Q_GetBitmapHistogram(b, h.data(), static_cast<uint32_t>(h.size()), 0);
       }},
      {"LightControl", false,
       [](BitmapRecord *b) { return Q_LightControlBitmap(b, kLower, kMiddle, kUpper, 1); }},
      {"AutoColorLevel", false, [](BitmapRecord *b) { return Q_AutoColorLevelBitmap(b, 0, 50, 50, 0); }},
      {"ColorLevel", false,
       [top](BitmapRecord *b) {
         const ColorLevelRecord r = Levels(top);
         return Q_ColorLevelBitmap(b, &r, COLOR_LEVEL_MASTER);
       }},
      {"AdaptiveContrast/3", false, [](BitmapRecord *b) { return Q_AdaptiveContrastBitmap(b, 3, 50, 0); }},
      {"AdaptiveContrast/101", false,
       [](BitmapRecord *b) { return Q_AdaptiveContrastBitmap(b, 101, 50, 0); }},
      {"GammaCorrectExt/yuv", false,
       [](BitmapRecord *b) { return Q_GammaCorrectBitmapExt(b, 150, GAMMA_YUV); }},
      {"AutoBinary", true, [](BitmapRecord *b) { return Q_AutoBinaryBitmap(b, 0); }},
  };
  for (const Op &op : ops)
    benchmark::RegisterBenchmark((std::string(op.name) + "/" + s).c_str(), Export, bits, op.fresh, op.call)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
}

const bool kRegistered = [] {
  Register(24);
  Register(48);
  return true;
}();

}  // namespace
