// Colour threshold (HSV), colour replace and selective colour on a 3840x2160
// 24-bit bitmap of random pixels, next to memcpy of the same pixel buffer.
// Targets (time of the export / time of memcpy, medians): threshold in HSV
// at most 5, replace at most 15, selective colour at most 6. The ratios are
// printed after the run.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "bench_common.h"
#include "imgcolor.h"

namespace {

using bench::Memcpy;
using Fixture = bench::RandomBitmap;

const ColorThresholdComponent kHsv[3] = {{16, 20, 60, 1}, {16, 30, 100, 0x101}, {16, 0, 40, 0}};
const ColorReplaceEntry kEntry{0, 0x4080C0, 60};

SelectiveColorOptions Selective() {
  SelectiveColorOptions o{};
  o.StructSize = sizeof o;
  o.Method = SELCOLOR_RELATIVE;
  o.Ranges[SELCOLOR_REDS] = {-40, 20, 30, 0};
  o.Ranges[SELCOLOR_BLUES] = {30, -10, 0, 10};
  o.Ranges[SELCOLOR_WHITES] = {0, 0, -20, -10};
  o.Ranges[SELCOLOR_NEUTRALS] = {5, 0, 0, 5};
  o.Ranges[SELCOLOR_BLACKS] = {0, 0, 0, 5};
  return o;
}
const SelectiveColorOptions kSelective = Selective();

int32_t Threshold(BitmapRecord *b) { return Q_ColorThresholdBitmap(b, COLORSPACE_HSV, kHsv, 0); }
int32_t Replace(BitmapRecord *b) { return Q_ColorReplaceBitmap(b, &kEntry, 1, 9000, 200, 50, 0); }
int32_t SelectiveColor(BitmapRecord *b) { return Q_SelectiveColorBitmap(b, &kSelective, 0); }

void Run(benchmark::State &state, const std::function<int32_t(BitmapRecord *)> &call) {
  Fixture f(24);
  for (auto _ : state) {
    if (call(&f.bitmap) != RC_SUCCESS) state.SkipWithError("export failed");
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * f.Bytes());
}

// Prints each export's median CPU time (the only run without repetitions)
// as a multiple of memcpy's, with its target.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run> &runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run &r : runs)
      if (r.run_type != Run::RT_Aggregate || r.aggregate_name == "median")
        times_[r.run_name.function_name] = r.GetAdjustedCPUTime();
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    double copy = 0;
    for (const auto &[name, t] : times_)
      if (name.find("Memcpy") != std::string::npos) copy = t;
    if (copy <= 0) return;
    const std::pair<const char *, double> targets[] = {
        {"threshold_hsv", 5}, {"replace", 15}, {"selective_color", 6}};
    for (const auto &[key, target] : targets)
      for (const auto &[name, t] : times_)
        if (name.find(key) != std::string::npos)
          std::printf("%-16s %6.2f x memcpy (target %.0f)\n", key, t / copy, target);
  }

 private:
  std::map<std::string, double> times_;
};

}  // namespace

BENCHMARK_CAPTURE(Memcpy, bits24, 24)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Run, threshold_hsv, Threshold)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Run, replace, Replace)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Run, selective_color, SelectiveColor)->Unit(benchmark::kMillisecond);

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
