// Test kit of the imgcolor family: bitmaps from pixel values, regions, the
// leak guard, the allocation-failure loop, the cancellation loop and a
// table-driven runner for status checks.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "imgcolor.h"

namespace kit {

// One pixel on the bitmap's own sample scale. Palette bitmaps: v[0] is the
// index. Gray: v[0] is the level. Colour: v = {red, green, blue, fourth}
// (16-bit colour: 5-bit values).
struct Pixel {
  uint32_t v[4] = {0, 0, 0, 0};
  bool operator==(const Pixel &o) const {
    return v[0] == o.v[0] && v[1] == o.v[1] && v[2] == o.v[2] && v[3] == o.v[3];
  }
};
inline Pixel Rgb(uint32_t r, uint32_t g, uint32_t b, uint32_t a = 0) { return Pixel{{r, g, b, a}}; }
inline Pixel Level(uint32_t v) { return Pixel{{v, 0, 0, 0}}; }
std::ostream &operator<<(std::ostream &os, const Pixel &p);

// A kind of bitmap.
struct Format {
  int32_t bits = 24;
  int32_t order = ORDER_BGR;
  int32_t orientation = ORIENT_TOP_FIRST;
  uint32_t structSize = BITMAP_RECORD_SIZE;
  std::string Name() const;
  bool IsPalette() const { return bits <= 8 && order != ORDER_GRAY; }
  bool IsGray() const { return order == ORDER_GRAY; }
  int32_t Channels() const;    // samples a pixel holds: 1 (palette, gray), 3 or 4
  uint32_t SampleMax() const;  // largest sample value
};
// True when the bitmap has 8 bits per pixel and its 256 palette entries
// (ColorsUsed 256) are the gray ramp (i, i, i): what 8-bit gray carries.
bool HasGrayRamp(const BitmapRecord *b);

// Every kind the family stores, in both orientations when `orientations`.
std::vector<Format> AllFormats(bool orientations = false);
std::vector<Format> ColorFormats();  // 16, 24, 32, 48, 64 in both orders

// Owns a BitmapRecord allocated through imgkernel; frees it on destruction.
class Bitmap {
 public:
  Bitmap() = default;
  // Allocates a zeroed bitmap; fails the test on error.
  Bitmap(const Format &format, int32_t width, int32_t height, const PaletteEntry *palette = nullptr);
  // Allocates and fills row-major from `pixels` (width * height values).
  Bitmap(const Format &format, int32_t width, int32_t height, const std::vector<Pixel> &pixels,
         const PaletteEntry *palette = nullptr);
  Bitmap(const Bitmap &) = delete;
  Bitmap &operator=(const Bitmap &) = delete;
  Bitmap(Bitmap &&o) noexcept;
  Bitmap &operator=(Bitmap &&o) noexcept;
  ~Bitmap();

  BitmapRecord *get() { return &rec_; }
  const BitmapRecord *get() const { return &rec_; }
  BitmapRecord *operator->() { return &rec_; }
  operator BitmapRecord *() { return &rec_; }

  Pixel At(int32_t x, int32_t y) const;  // image coordinates
  void Set(int32_t x, int32_t y, const Pixel &p);
  std::vector<Pixel> Pixels() const;
  void Fill(const std::vector<Pixel> &pixels);
  // Fills with deterministic pseudo-random samples valid for the kind.
  void Randomize(uint32_t seed);
  // Palette colour of a palette pixel, as Rgb(r, g, b).
  Pixel ColorAt(int32_t x, int32_t y) const;
  std::vector<uint8_t> StoredBytes() const;  // all stored rows
  const Format &format() const { return format_; }

 private:
  Format format_;
  BitmapRecord rec_{};
};

// Regions (image coordinates).
void SetRectRegion(BitmapRecord *b, int32_t left, int32_t top, int32_t right, int32_t bottom,
                   uint32_t combine = REGION_SET);
void SetEllipseRegion(BitmapRecord *b, int32_t left, int32_t top, int32_t right, int32_t bottom,
                      uint32_t combine = REGION_SET);
bool InRegion(const BitmapRecord *b, int32_t x, int32_t y);  // true everywhere without a region

// Checks that the scope leaves no live tracked allocation behind.
class LeakGuard {
 public:
  LeakGuard();
  ~LeakGuard();
  LeakGuard(const LeakGuard &) = delete;
  LeakGuard &operator=(const LeakGuard &) = delete;
  uint64_t Live() const;  // live blocks allocated since the guard started

 private:
  uint64_t baseline_ = 0;
};
std::string DescribeLiveAllocations();

// Installs a status callback for the scope.
class ScopedCallback {
 public:
  explicit ScopedCallback(std::function<int32_t(int32_t)> fn);
  ~ScopedCallback();
  ScopedCallback(const ScopedCallback &) = delete;
  ScopedCallback &operator=(const ScopedCallback &) = delete;
  const std::vector<int32_t> &Reports() const { return reports_; }

 private:
  static int32_t Trampoline(int32_t percent, void *self);
  std::function<int32_t(int32_t)> fn_;
  std::vector<int32_t> reports_;
  StatusCallback oldCallback_ = nullptr;
  void *oldUser_ = nullptr;
};

// Runs `call` with the Nth allocation failing, for N = 1, 2, ... until a run
// completes without reaching the failure. `setup` builds a fresh fixture
// (with allocation failure disarmed) for every run; the fixture is destroyed
// before the leak check. A failing run must return one of `allowed`; the
// complete run must return `success`. Returns how many allocations were
// failed in turn.
template <class Setup, class Call>
int CheckAllocationFailures(Setup setup, Call call, const std::vector<int32_t> &allowed = {RC_NO_MEMORY},
                            int32_t success = RC_SUCCESS);

// Runs `call` once to count its progress reports (which must lie in 0..100
// and never decrease), then once per report with the callback answering
// kCancel at that report: the call must return kCancel, leak nothing and
// report nothing after the refusal. Returns the number of reports. An
// operation made of several reporting steps that each report 0..100 passes
// monotonic = false.
constexpr int32_t kCancel = -4242;
template <class Setup, class Call>
int CheckCancellation(Setup setup, Call call, int32_t success = RC_SUCCESS, bool monotonic = true);

// Table-driven status checks.
struct StatusCase {
  std::string name;
  std::function<int32_t()> call;
  int32_t expected;
};
void ExpectStatuses(const std::vector<StatusCase> &cases);

// ---- template implementations -------------------------------------------------------
namespace detail {
uint64_t TrackedLive();
void EnableTracking();
}  // namespace detail

template <class Setup, class Call>
int CheckAllocationFailures(Setup setup, Call call, const std::vector<int32_t> &allowed, int32_t success) {
  detail::EnableTracking();
  for (uint32_t n = 1; n < 100000; ++n) {
    const uint64_t before = detail::TrackedLive();
    int32_t status = 0;
    uint32_t countdown = 0;
    {
      auto fixture = setup();
      SetAllocationFailure(n);
      status = call(fixture);
      countdown = GetAllocationFailureCountdown();
      SetAllocationFailure(0);
    }
    const uint64_t after = detail::TrackedLive();
    EXPECT_EQ(after, before) << "leak with allocation " << n << " failing:\n" << DescribeLiveAllocations();
    if (countdown > 0) {
      EXPECT_EQ(status, success) << "complete run after " << n - 1 << " failures";
      return static_cast<int>(n - 1);
    }
    bool ok = false;
    for (int32_t a : allowed) ok = ok || status == a;
    EXPECT_TRUE(ok) << "allocation " << n << " failing gave status " << status;
    if (!ok || after != before) return static_cast<int>(n);
  }
  ADD_FAILURE() << "allocation-failure loop did not end";
  return -1;
}

template <class Setup, class Call>
int CheckCancellation(Setup setup, Call call, int32_t success, bool monotonic) {
  detail::EnableTracking();
  size_t total = 0;
  {
    auto fixture = setup();
    ScopedCallback counter([](int32_t) { return RC_SUCCESS; });
    EXPECT_EQ(call(fixture), success);
    total = counter.Reports().size();
    int32_t last = -1;
    for (int32_t p : counter.Reports()) {
      EXPECT_GE(p, 0);
      EXPECT_LE(p, 100);
      if (monotonic) {
        EXPECT_GE(p, last) << "progress went backwards";
      }
      last = p;
    }
  }
  for (size_t k = 1; k <= total; ++k) {
    const uint64_t before = detail::TrackedLive();
    {
      auto fixture = setup();
      size_t seen = 0;
      bool reportedAfter = false;
      ScopedCallback cancel([&](int32_t) {
        ++seen;
        if (seen > k) reportedAfter = true;
        return seen == k ? kCancel : RC_SUCCESS;
      });
      EXPECT_EQ(call(fixture), kCancel) << "cancel at report " << k << " of " << total;
      EXPECT_FALSE(reportedAfter) << "reports continued after cancel at " << k;
    }
    EXPECT_EQ(detail::TrackedLive(), before) << "leak after cancel at " << k << "\n"
                                             << DescribeLiveAllocations();
  }
  return static_cast<int>(total);
}

}  // namespace kit
