// Every operation of the registry with its default arguments on a 3840x2160
// bitmap of random pixels (the worst case for caches of neighbouring
// pixels): 24-bit and 48-bit colour, or 8-bit gray for an operation that
// takes neither. One thread; thread CPU time (the machine is shared, so wall
// time says little). Each repetition times a memcpy of the same pixel buffer
// and then the operation on a fresh copy of the bitmap; a line gives the
// medians and their ratio.
//
//   ops_bench [--reps N] [--only NAME,NAME,...] [--size WxH] [--list]
//
// --list prints the names of the operations it would time, one a line.
// It reads only what the registry always had (Operations, ApplyDefaults and a
// descriptor's name, kinds and call), so the same program builds against an
// older tree's registry: scripts/bench-ops.sh measures two trees with it.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sstream>
#include <string>
#include <vector>

#include "registry.h"

namespace {

struct Options {
  int reps = 5;
  int32_t width = 3840, height = 2160;
  std::vector<std::string> only;
  bool list = false;
};

struct Kind {
  const char *name;
  uint32_t bit;
  int32_t bits, order;
};
const Kind kColor24{"24-bit", imgtool::kColor24, 24, ORDER_BGR};
const Kind kColor48{"48-bit", imgtool::kColor48, 48, ORDER_BGR};
const Kind kGray8{"8-bit-gray", imgtool::kGray8, 8, ORDER_GRAY};

double ThreadSeconds() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

// A bitmap of the kind filled with the same pseudo-random bytes in every run.
bool RandomBitmap(const Kind &kind, const Options &o, BitmapRecord &b) {
  b = BitmapRecord{};
  if (AllocateBitmap(&b, BITMAP_RECORD_SIZE, MEMORY_CONVENTIONAL, o.width, o.height, kind.bits, kind.order,
                     nullptr, ORIENT_TOP_FIRST, nullptr, 0) != RC_SUCCESS)
    return false;
  uint64_t state = 0x9E3779B97F4A7C15ull;
  for (uint64_t i = 0; i < b.DataSize; ++i) {
    state ^= state << 13, state ^= state >> 7, state ^= state << 17;
    b.Pixels[i] = static_cast<uint8_t>(state >> 24);
  }
  return true;
}

// Times the operation `reps` times, each beside a memcpy of the source's
// pixel buffer; prints the medians. False when a call fails.
bool Measure(const imgtool::OpDescriptor &op, const Kind &kind, const BitmapRecord &source,
             std::vector<uint8_t> &copy, const Options &o) {
  imgtool::ArgValues args;
  imgtool::ApplyDefaults(op, args);
  std::vector<double> opSeconds, memcpySeconds;
  for (int r = 0; r < o.reps; ++r) {
    double t = ThreadSeconds();
    std::memcpy(copy.data(), source.Pixels, source.DataSize);
    memcpySeconds.push_back(ThreadSeconds() - t);
    BitmapRecord work{};
    if (CopyBitmap(&work, &source, BITMAP_RECORD_SIZE) != RC_SUCCESS) {
      std::printf("%-20s %-10s copy failed\n", op.name.c_str(), kind.name);
      return false;
    }
    std::ostringstream report;
    t = ThreadSeconds();
    const int32_t status = op.call(&work, args, report);
    opSeconds.push_back(ThreadSeconds() - t);
    FreeBitmap(&work);
    if (status != RC_SUCCESS) {
      std::printf("%-20s %-10s failed with status %d\n", op.name.c_str(), kind.name, status);
      return false;
    }
  }
  const double ms = Median(opSeconds) * 1e3, memcpyMs = Median(memcpySeconds) * 1e3;
  std::printf("%-20s %-10s %10.2f %10.2f %9.1f\n", op.name.c_str(), kind.name, ms, memcpyMs, ms / memcpyMs);
  std::fflush(stdout);
  return true;
}

bool Parse(int argc, char **argv, Options &o) {
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    const char *value = i + 1 < argc ? argv[i + 1] : nullptr;
    if (a == "--reps" && value) {
      o.reps = std::atoi(value);
    } else if (a == "--size" && value && std::sscanf(value, "%dx%d", &o.width, &o.height) == 2) {
    } else if (a == "--list") {
      o.list = true;
      continue;
    } else if (a == "--only" && value) {
      o.only.clear();  // the last one counts
      std::stringstream names(value);
      for (std::string n; std::getline(names, n, ',');) o.only.push_back(n);
    } else {
      return false;
    }
    ++i;
  }
  return o.reps > 0 && o.width > 0 && o.height > 0;
}

}  // namespace

int main(int argc, char **argv) {
  Options o;
  if (!Parse(argc, argv, o)) {
    std::fprintf(stderr, "usage: ops_bench [--reps N] [--only NAME,NAME,...] [--size WxH] [--list]\n");
    return 2;
  }
  if (o.list) {
    for (const imgtool::OpDescriptor &op : imgtool::Operations())
      if (o.only.empty() || std::find(o.only.begin(), o.only.end(), op.name) != o.only.end())
        std::printf("%s\n", op.name.c_str());
    return 0;
  }
  std::printf("# %dx%d, median of %d, thread CPU time; memcpy of the same pixel buffer in the same run\n",
              o.width, o.height, o.reps);
  std::printf("%-20s %-10s %10s %10s %9s\n", "operation", "kind", "ms", "memcpy ms", "x memcpy");
  bool ok = true;
  for (const Kind *kind : {&kColor24, &kColor48, &kGray8}) {
    BitmapRecord source{};
    if (!RandomBitmap(*kind, o, source)) {
      std::fprintf(stderr, "ops_bench: cannot allocate a %s bitmap\n", kind->name);
      return 1;
    }
    std::vector<uint8_t> copy(source.DataSize, 1);  // touched: the timed memcpy takes no page faults
    for (const imgtool::OpDescriptor &op : imgtool::Operations()) {
      if (!o.only.empty() && std::find(o.only.begin(), o.only.end(), op.name) == o.only.end()) continue;
      // Gray only where the operation takes neither colour kind.
      const bool colour = op.kinds & (imgtool::kColor24 | imgtool::kColor48);
      if (!(op.kinds & kind->bit) || (kind == &kGray8 && colour)) continue;
      ok = Measure(op, *kind, source, copy, o) && ok;
    }
    FreeBitmap(&source);
  }
  return ok ? 0 : 1;
}
