// GetHistogram, ComputeHistogram and the extreme searches, checked against
// counts and extremes computed directly from the values.
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>
#include <vector>

#include "kit.h"

namespace {

using kit::Pixel;
using kit::Spec;

// Colour samples (red, green, blue) of a pixel on its own scale: palette
// pixels give their palette colour, 5-5-5 samples are widened to 8 bits.
Pixel ColourOf(const kit::Bitmap &bm, int32_t x, int32_t y) {
  const Spec &s = bm.spec();
  if (s.IsPalette()) return bm.ColorAt(x, y);
  Pixel p = bm.At(x, y);
  if (s.bits == 16 && !s.IsGray())
    for (int c = 0; c < 3; ++c) p.v[c] = (p.v[c] << 3) | (p.v[c] >> 2);
  return p;
}

uint32_t RangeOf(const Spec &s) {
  if (s.IsGray()) return s.bits == 12 ? 4096u : 1u << s.bits;
  return s.bits >= 48 ? 65536u : 256u;
}

// Counts of the documented rule, added to `counts`.
void ReferenceHistogram(const kit::Bitmap &bm, std::vector<uint32_t> &counts, uint32_t channel) {
  const Spec &s = bm.spec();
  const uint64_t range = RangeOf(s), length = counts.size();
  auto add = [&](uint64_t v) {
    const uint64_t bin = length < range ? v * length / range : v;
    if (bin < length) counts[bin]++;
  };
  for (int32_t y = 0; y < bm.get()->Height; ++y)
    for (int32_t x = 0; x < bm.get()->Width; ++x) {
      if (!kit::InRegion(bm.get(), x, y)) continue;
      if (s.IsGray()) {
        add(bm.At(x, y).v[0]);
        continue;
      }
      const Pixel p = ColourOf(bm, x, y);
      for (int c = 0; c < 3; ++c)
        if (channel == 0 || channel == static_cast<uint32_t>(c + 1)) add(p.v[c]);
    }
}

void SetRegion(kit::Bitmap &bm, int shape) {
  if (shape == 1) kit::SetRectRegion(bm, 4, 2, 30, 7);
  if (shape == 2) kit::SetEllipseRegion(bm, 0, 1, 33, 9);
}

TEST(GetHistogram, MatchesCountsOfPixelValues) {
  kit::LeakGuard guard;
  uint32_t seed = 100;
  for (const Spec &s : kit::AllSpecs(true))
    for (int shape = 0; shape < 3; ++shape)
      for (uint32_t channel = 0; channel <= 3; ++channel) {
        const uint32_t range = RangeOf(s);
        for (uint32_t length : {range, 16u, 100u, range + 77}) {
          SCOPED_TRACE(s.Name() + " shape " + std::to_string(shape) + " channel " + std::to_string(channel) +
                       " length " + std::to_string(length));
          kit::Bitmap bm(s, 37, 9);
          bm.Randomize(seed++);
          SetRegion(bm, shape);
          std::vector<uint32_t> want(length, 3), got(length, 3);  // counts are added to
          ReferenceHistogram(bm, want, channel);
          ASSERT_EQ(GetHistogram(bm, got.data(), length, channel, 0, 100), RC_SUCCESS);
          ASSERT_EQ(got, want);
        }
      }
}

// The fourth sample of 32- and 64-bit pixels is never counted, and signed
// data is counted by its stored pattern.
TEST(GetHistogram, FourthSampleAndSignedPattern) {
  kit::Bitmap bm({32, ORDER_BGR}, 2, 1, {kit::Rgb(1, 2, 3, 200), kit::Rgb(1, 1, 1, 201)});
  std::vector<uint32_t> counts(256, 0);
  ASSERT_EQ(GetHistogram(bm, counts.data(), 256, 0, 0, 100), RC_SUCCESS);
  EXPECT_EQ(counts[1], 4u);
  EXPECT_EQ(counts[200] + counts[201], 0u);
  kit::Bitmap gray({8, ORDER_GRAY}, 2, 1, {kit::Level(0x80), kit::Level(0x7F)});
  gray->Flags |= BITMAP_SIGNED;
  std::vector<uint32_t> g(256, 0);
  ASSERT_EQ(GetHistogram(gray, g.data(), 256, 0, 0, 100), RC_SUCCESS);
  EXPECT_EQ(g[0x80], 1u);
  EXPECT_EQ(g[0x7F], 1u);
}

// 16-bit gray with ten significant bits: the range is 1024.
TEST(GetHistogram, SignificantBitsSetTheRange) {
  kit::Bitmap bm({16, ORDER_GRAY}, 3, 1, {kit::Level(0), kit::Level(512), kit::Level(1023)});
  bm->SignificantHighBit = 9;
  std::vector<uint32_t> counts(4, 0);
  ASSERT_EQ(GetHistogram(bm, counts.data(), 4, 0, 0, 100), RC_SUCCESS);
  EXPECT_EQ(counts, (std::vector<uint32_t>{1, 0, 1, 1}));
}

// Intensity (2R + 5G + B) >> 3 on 8-bit samples; one sample for 1..3.
TEST(ComputeHistogram, MatchesIntensityOfPixelValues) {
  uint32_t seed = 300;
  for (const Spec &s : kit::AllSpecs(true))
    for (int shape = 0; shape < 3; ++shape)
      for (uint32_t channel = 0; channel <= 3; ++channel) {
        SCOPED_TRACE(s.Name() + " shape " + std::to_string(shape) + " channel " + std::to_string(channel));
        kit::Bitmap bm(s, 37, 9);
        bm.Randomize(seed++);
        SetRegion(bm, shape);
        const uint32_t shift = s.IsGray() ? (s.bits - 8) : s.bits >= 48 ? 8 : 0;
        std::vector<uint32_t> want(256, 0), got(256, 12345);  // cleared first
        for (int32_t y = 0; y < 9; ++y)
          for (int32_t x = 0; x < 37; ++x) {
            if (!kit::InRegion(bm.get(), x, y)) continue;
            if (s.IsGray()) {
              want[bm.At(x, y).v[0] >> shift]++;
              continue;
            }
            const Pixel p = ColourOf(bm, x, y);
            const uint32_t r = p.v[0] >> shift, g = p.v[1] >> shift, b = p.v[2] >> shift;
            want[channel == 0 ? (2 * r + 5 * g + b) >> 3 : channel == 1 ? r : channel == 2 ? g : b]++;
          }
        ASSERT_EQ(ComputeHistogram(bm, got.data(), channel, 0, 100), RC_SUCCESS);
        ASSERT_EQ(got, want);
      }
}

TEST(Histograms, Statuses) {
  kit::Bitmap bm({24, ORDER_BGR}, 4, 4);
  BitmapRecord badSize = *bm.get();
  badSize.StructSize = 0;
  BitmapRecord empty = *bm.get();
  empty.Flags = 0;
  std::vector<uint32_t> c(256);
  kit::ExpectStatuses({
      {"null bitmap", [&] { return GetHistogram(nullptr, c.data(), 256, 0, 0, 100); }, RC_NO_BITMAP},
      {"no pixels", [&] { return GetHistogram(&empty, c.data(), 256, 0, 0, 100); }, RC_NO_BITMAP},
      {"record size", [&] { return GetHistogram(&badSize, c.data(), 256, 0, 0, 100); },
       RC_INVALID_STRUCT_SIZE},
      {"null counts", [&] { return GetHistogram(bm, nullptr, 256, 0, 0, 100); }, RC_NULL_OPTIONS},
      {"length 0", [&] { return GetHistogram(bm, c.data(), 0, 0, 0, 100); }, RC_INVALID_PARAMETER},
      {"channel 4", [&] { return GetHistogram(bm, c.data(), 256, 4, 0, 100); }, RC_INVALID_PARAMETER},
      {"compute null bitmap", [&] { return ComputeHistogram(nullptr, c.data(), 0, 0, 100); }, RC_NO_BITMAP},
      {"compute record size", [&] { return ComputeHistogram(&badSize, c.data(), 0, 0, 100); },
       RC_INVALID_STRUCT_SIZE},
      {"compute null counts", [&] { return ComputeHistogram(bm, nullptr, 0, 0, 100); }, RC_NULL_OPTIONS},
      {"compute channel 4", [&] { return ComputeHistogram(bm, c.data(), 4, 0, 100); }, RC_INVALID_PARAMETER},
  });
}

TEST(Histograms, CancellationAndAllocationFailure) {
  std::vector<uint32_t> counts(256);
  auto setup = [] {
    kit::Bitmap bm({24, ORDER_RGB}, 7, 10);
    kit::SetRectRegion(bm, 1, 0, 6, 10);
    return bm;
  };
  EXPECT_EQ(kit::CheckCancellation(
                setup, [&](kit::Bitmap &b) { return GetHistogram(b, counts.data(), 256, 0, 0, 100); }),
            11);
  EXPECT_EQ(kit::CheckCancellation(
                setup, [&](kit::Bitmap &b) { return ComputeHistogram(b, counts.data(), 0, 0, 100); }),
            11);
  EXPECT_EQ(kit::CheckAllocationFailures(
                setup, [&](kit::Bitmap &b) { return GetHistogram(b, counts.data(), 256, 0, 0, 100); }),
            1);
  EXPECT_EQ(kit::CheckAllocationFailures(
                setup, [&](kit::Bitmap &b) { return ComputeHistogram(b, counts.data(), 0, 0, 100); }),
            1);
}

// ---- Extremes ------------------------------------------------------------------------

int32_t BruteMax(const std::vector<uint32_t> &c, int32_t from) {
  for (int32_t v = std::min<int32_t>(from, static_cast<int32_t>(c.size()) - 1); v >= 0; --v)
    if (c[v]) return v;
  return -1;
}
int32_t BruteMin(const std::vector<uint32_t> &c, int32_t from) {
  for (int32_t v = std::max(from, 0); v < static_cast<int32_t>(c.size()); ++v)
    if (c[v]) return v;
  return -1;
}

TEST(HistogramExtremes, EmptyAndBounds) {
  std::vector<uint32_t> c(256, 0);
  EXPECT_EQ(HistogramMax(c.data()), -1);
  EXPECT_EQ(HistogramMin(c.data()), -1);
  std::vector<uint32_t> b(256 * HISTOGRAM16_BUCKET, 0);
  EXPECT_EQ(Histogram16Max(b.data()), -1);
  EXPECT_EQ(Histogram16Min(b.data()), -1);
  c[0] = c[255] = 1;
  EXPECT_EQ(HistogramMax(c.data()), 255);
  EXPECT_EQ(HistogramMin(c.data()), 0);
  EXPECT_EQ(HistogramMaxBelow(c.data(), 254), 0);
  EXPECT_EQ(HistogramMinAbove(c.data(), 1), 255);
  EXPECT_EQ(HistogramMaxBelow(c.data(), -1), -1);
  EXPECT_EQ(HistogramMinAbove(c.data(), 256), -1);
  Histogram16Add(b.data(), 65535);
  Histogram16Add(b.data(), 0);
  EXPECT_EQ(Histogram16Max(b.data()), 65535);
  EXPECT_EQ(Histogram16Min(b.data()), 0);
  Histogram16Remove(b.data(), 300);  // absent: nothing changes
  EXPECT_EQ(b[1 * HISTOGRAM16_BUCKET + 256], 0u);
}

TEST(HistogramExtremes, SearchesAgainstBruteForce) {
  std::mt19937 rng(5);
  std::vector<uint32_t> c(256);
  for (int round = 0; round < 300; ++round) {
    std::fill(c.begin(), c.end(), 0);
    const int n = rng() % 6;
    for (int i = 0; i < n; ++i) c[rng() % 256] += 1 + rng() % 3;
    const int32_t from = static_cast<int32_t>(rng() % 270) - 5;
    ASSERT_EQ(HistogramMax(c.data()), BruteMax(c, 255));
    ASSERT_EQ(HistogramMin(c.data()), BruteMin(c, 0));
    ASSERT_EQ(HistogramMaxBelow(c.data(), from), BruteMax(c, from)) << from;
    ASSERT_EQ(HistogramMinAbove(c.data(), from), BruteMin(c, from)) << from;
  }
}

// A window slides over random samples, several leaving and entering per
// step; the incremental extremes must equal a full search every time.
template <bool kWide>
void SlideWindows(uint32_t seed) {
  std::mt19937 rng(seed);
  const int32_t span = kWide ? 65536 : 256;
  std::vector<uint32_t> flat(span, 0);
  std::vector<uint32_t> buckets(kWide ? 256 * HISTOGRAM16_BUCKET : 0, 0);
  auto sample = [&]() -> int32_t {
    // Clustered values leave whole buckets empty.
    const int32_t base = static_cast<int32_t>(rng() % 4) * (span / 4);
    return base + static_cast<int32_t>(rng() % (kWide ? 700 : 20));
  };
  auto add = [&](int32_t v) {
    flat[v]++;
    if (kWide) Histogram16Add(buckets.data(), v);
  };
  auto remove = [&](int32_t v) {
    flat[v]--;
    if (kWide) Histogram16Remove(buckets.data(), v);
  };
  const uint32_t *h = kWide ? buckets.data() : flat.data();
  std::deque<int32_t> window;
  int32_t max = -1, min = -1;
  for (int step = 0; step < 3000; ++step) {
    const int leaving = std::min<int>(static_cast<int>(window.size()), rng() % 4);
    const int entering = (window.size() < 3 ? 1 : 0) + rng() % 4;
    bool leftMax = false, leftMin = false;
    for (int i = 0; i < leaving; ++i) {
      const int32_t v = window.front();
      window.pop_front();
      remove(v);
      leftMax = leftMax || v == max;
      leftMin = leftMin || v == min;
    }
    int32_t inMax = -1, inMin = -1;
    for (int i = 0; i < entering; ++i) {
      const int32_t v = sample();
      window.push_back(v);
      add(v);
      inMax = std::max(inMax, v);
      inMin = inMin < 0 ? v : std::min(inMin, v);
    }
    max = kWide ? Histogram16MaxUpdate(h, max, inMax, leftMax) : HistogramMaxUpdate(h, max, inMax, leftMax);
    min = kWide ? Histogram16MinUpdate(h, min, inMin, leftMin) : HistogramMinUpdate(h, min, inMin, leftMin);
    ASSERT_EQ(max, BruteMax(flat, span - 1)) << "step " << step;
    ASSERT_EQ(min, BruteMin(flat, 0)) << "step " << step;
    if (kWide && step % 50 == 0) {
      ASSERT_EQ(Histogram16Max(h), max);
      ASSERT_EQ(Histogram16Min(h), min);
      for (int32_t b = 0; b < 256; ++b) {
        uint64_t sum = 0;
        for (int32_t i = 0; i < 256; ++i) {
          ASSERT_EQ(buckets[b * HISTOGRAM16_BUCKET + i], flat[b * 256 + i]);
          sum += flat[b * 256 + i];
        }
        ASSERT_EQ(buckets[b * HISTOGRAM16_BUCKET + 256], sum) << "bucket total " << b;
      }
    }
  }
}

TEST(HistogramExtremes, IncrementalUpdatesOnSlidingWindows) {
  SlideWindows<false>(1);
  SlideWindows<false>(2);
}

TEST(HistogramExtremes, TwoLevelUpdatesOnSlidingWindows) { SlideWindows<true>(3); }

}  // namespace
