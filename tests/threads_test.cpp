// Every operation of the registry on four threads at once, each on bitmaps
// of its own with its own status callback, kernel settings and allocation
// tracking, one of them with an allocation failure injected into every call:
// each thread's statuses, outputs and progress reports are those of the same
// calls made one after another on one thread, and no thread leaves a tracked
// allocation live. Run under ThreadSanitizer by the tsan preset.
#include <latch>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "kit.h"
#include "registry.h"

namespace {

using imgtool::OpDescriptor;

constexpr int kThreads = 4;

struct Outcome {
  int32_t status = 0;
  uint64_t hash = 0;
  size_t reports = 0;
  bool operator==(const Outcome &o) const {
    return status == o.status && hash == o.hash && reports == o.reports;
  }
};

// What a thread does differently: the kinds it picks, its region, kernel
// settings and the allocation it fails (0: none).
struct Plan {
  int thread;
  uint32_t failAt;
};

uint64_t Hash(const BitmapRecord &b, const std::string &report) {
  uint64_t h = 0xcbf29ce484222325ull;
  auto mix = [&h](const uint8_t *p, size_t n) {
    for (size_t i = 0; i < n; ++i) h = (h ^ p[i]) * 0x100000001b3ull;
  };
  mix(reinterpret_cast<const uint8_t *>(report.data()), report.size());
  mix(reinterpret_cast<const uint8_t *>(&b.BitsPerPixel), sizeof b.BitsPerPixel);
  if (b.Pixels) mix(b.Pixels, b.DataSize);
  if (b.Palette && b.BitsPerPixel <= 8)
    mix(reinterpret_cast<const uint8_t *>(b.Palette), 256 * sizeof(PaletteEntry));
  return h;
}

struct Counter {
  std::thread::id owner;
  size_t reports = 0;
  bool foreign = false;  // a report arrived on another thread
};
int32_t Count(int32_t, void *user) {
  Counter &c = *static_cast<Counter *>(user);
  if (c.owner != std::this_thread::get_id()) c.foreign = true;
  ++c.reports;
  return RC_SUCCESS;
}

// Runs every operation once as `setup` says, on the calling thread.
std::vector<Outcome> RunAll(const Plan &setup, bool &leak, bool &foreign) {
  TrackAllocations(1);
  uint64_t before = 0, after = 0, bytes = 0;
  GetAllocationStats(&before, &bytes);
  SwapKernelSettings(setup.thread & 1, setup.thread >> 1 & 1, nullptr, nullptr);
  std::vector<Outcome> outcomes;
  const std::vector<kit::Format> formats = kit::AllFormats(true);
  for (const OpDescriptor &op : imgtool::Operations()) {
    std::vector<kit::Format> accepted;
    for (const kit::Format &f : formats)
      if (op.kinds & imgtool::KindBitOf(kit::Bitmap(f, 1, 1).get())) accepted.push_back(f);
    const kit::Format &f = accepted[(static_cast<size_t>(setup.thread) * 5) % accepted.size()];
    kit::Bitmap b(f, 23, 17);
    b.Randomize(static_cast<uint32_t>(setup.thread) * 977u + 13u);
    if (setup.thread % 2) kit::SetEllipseRegion(b, 2, 1, 20, 15);
    imgtool::ArgValues args;
    imgtool::ApplyDefaults(op, args);
    Counter counter{std::this_thread::get_id()};
    SetStatusCallback(Count, &counter);
    SetAllocationFailure(setup.failAt);
    std::ostringstream report;
    const int32_t status = op.call(b, args, report);
    SetAllocationFailure(0);
    SetStatusCallback(nullptr, nullptr);
    foreign = foreign || counter.foreign;
    outcomes.push_back({status, Hash(*b.get(), report.str()), counter.reports});
  }
  SwapKernelSettings(1, 1, nullptr, nullptr);
  GetAllocationStats(&after, &bytes);
  leak = leak || after != before;
  return outcomes;
}

TEST(Threads, EveryOperationOnFourThreadsAsOnOne) {
  Plan setups[kThreads];
  for (int t = 0; t < kThreads; ++t) setups[t] = {t, t == kThreads - 1 ? 2u : 0u};

  std::vector<Outcome> alone[kThreads];
  bool leak = false, foreign = false;
  for (int t = 0; t < kThreads; ++t) alone[t] = RunAll(setups[t], leak, foreign);

  std::vector<Outcome> together[kThreads];
  bool leaks[kThreads] = {}, foreigns[kThreads] = {};
  std::latch start(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      start.arrive_and_wait();
      together[t] = RunAll(setups[t], leaks[t], foreigns[t]);
    });
  for (std::thread &th : threads) th.join();

  const std::vector<OpDescriptor> &ops = imgtool::Operations();
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_FALSE(leaks[t]) << "thread " << t << " left allocations live";
    EXPECT_FALSE(foreigns[t]) << "thread " << t << " got another thread's progress";
    ASSERT_EQ(together[t].size(), ops.size());
    for (size_t i = 0; i < ops.size(); ++i) {
      EXPECT_TRUE(together[t][i] == alone[t][i])
          << ops[i].name << " on thread " << t << ": status " << together[t][i].status << " vs "
          << alone[t][i].status << ", reports " << together[t][i].reports << " vs " << alone[t][i].reports;
    }
  }
  EXPECT_FALSE(leak);
  // The thread with injected failures really failed somewhere.
  bool anyFailure = false;
  for (const Outcome &o : alone[kThreads - 1]) anyFailure = anyFailure || o.status == RC_NO_MEMORY;
  EXPECT_TRUE(anyFailure);
}

}  // namespace
