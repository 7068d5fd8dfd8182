// GetHistogram, ComputeHistogram and the extreme searches against counts made from the values.
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <numeric>
#include <random>
#include <vector>

#include "kit.h"

namespace {

using kit::Pixel, kit::Format;

// Every kind and orientation (signed data counts by its stored pattern),
// region shape and channel: GetHistogram adds v * length / range (v itself
// with as many bins as values, past the last bin not counted) of each
// selected sample, palette pixels by their colour, 5-5-5 widened, never the
// fourth sample; ComputeHistogram clears 256 bins and counts the intensity
// (2R + 5G + B) >> 3 of 8-bit samples (or one sample), gray narrowed to 8 bits.
TEST(Histograms, MatchCountsOfPixelValues) {
  kit::LeakGuard guard;
  uint32_t seed = 100;
  for (const Format &s : kit::AllFormats(true))
    for (int shape = 0; shape < 3; ++shape)
      for (uint32_t channel = 0; channel <= 3; ++channel) {
        SCOPED_TRACE(s.Name() + " shape " + std::to_string(shape) + " channel " + std::to_string(channel));
        kit::Bitmap bm(s, 37, 9);
        bm.Randomize(seed++);
        if (seed % 2 && !s.IsPalette()) bm->Flags |= BITMAP_SIGNED;
        if (shape == 1) kit::SetRectRegion(bm, 4, 2, 30, 7);
        if (shape == 2) kit::SetEllipseRegion(bm, 0, 1, 33, 9);
        const uint64_t range = s.IsGray() ? 1u << s.bits : s.bits >= 48 ? 65536 : 256;
        const uint32_t shift = s.IsGray() ? s.bits - 8 : s.bits >= 48 ? 8 : 0;
        std::vector<uint32_t> lengths = {uint32_t(range), 16, 100, uint32_t(range) + 77}, intensity(256);
        std::vector<std::vector<uint32_t>> want;
        for (uint32_t length : lengths) want.emplace_back(length, 3);  // counts are added to
        for (int32_t y = 0; y < 9; ++y)
          for (int32_t x = 0; x < 37; ++x) {
            if (!kit::InRegion(bm.get(), x, y)) continue;
            Pixel p = s.IsPalette() ? bm.ColorAt(x, y) : bm.At(x, y);
            for (int c = 0; s.bits == 16 && !s.IsGray() && c < 3; ++c) p.v[c] = (p.v[c] << 3) | (p.v[c] >> 2);
            for (size_t l = 0; l < lengths.size(); ++l)
              for (int c = 0; c < (s.IsGray() ? 1 : 3); ++c) {
                const uint64_t bin = lengths[l] < range ? uint64_t{p.v[c]} * lengths[l] / range : p.v[c];
                if ((s.IsGray() || channel == 0 || channel == uint32_t(c) + 1) && bin < lengths[l])
                  want[l][bin]++;
              }
            const uint32_t r = p.v[0] >> shift, g = p.v[1] >> shift, b = p.v[2] >> shift;
            intensity[s.IsGray() ? r : channel == 0 ? (2 * r + 5 * g + b) >> 3 : p.v[channel - 1] >> shift]++;
          }
        for (size_t l = 0; l < lengths.size(); ++l) {
          std::vector<uint32_t> got(lengths[l], 3);
          ASSERT_EQ(GetHistogram(bm, got.data(), lengths[l], channel, 0, 100), RC_SUCCESS);
          ASSERT_EQ(got, want[l]) << "length " << lengths[l];
        }
        std::vector<uint32_t> got(256, 12345);
        ASSERT_EQ(ComputeHistogram(bm, got.data(), channel, 0, 100), RC_SUCCESS);
        ASSERT_EQ(got, intensity);
      }
  kit::Bitmap bm({16, ORDER_GRAY}, 3, 1, {kit::Level(0), kit::Level(512), kit::Level(1023)});
  bm->SignificantHighBit = 9;  // ten bits: the range is 1024, 4 bins of 256
  std::vector<uint32_t> counts(4, 0);
  ASSERT_EQ(GetHistogram(bm, counts.data(), 4, 0, 0, 100), RC_SUCCESS);
  EXPECT_EQ(counts, (std::vector<uint32_t>{1, 0, 1, 1}));
}

// 8-bit gray with five significant bits: a histogram of exactly 32 counts,
// samples 32 and above counted nowhere and left alone by the operations that
// size their histogram by the range. Auto level stretches 4..20 (9: 9.7);
// light control runs through (7, 3), (10, 15), (20, 27) (4: 1.7, 9: 11).
TEST(Histograms, ByteSamplesWithFewSignificantBits) {
  kit::LeakGuard guard;
  const uint32_t t1[3] = {100, 100, 100}, t5[3] = {500, 500, 500}, t9[3] = {900, 900, 900};
  const std::vector<uint32_t> want[3] = {
      {4, 20, 9, 32, 255, 9}, {0, 31, 10, 32, 255, 10}, {1, 27, 11, 32, 255, 11}};
  for (int op = 0; op < 3; ++op) {
    std::vector<Pixel> levels;
    for (uint32_t v : want[0]) levels.push_back(kit::Level(v));
    kit::Bitmap b({8, ORDER_GRAY}, 6, 1, levels);
    b->SignificantHighBit = 4;
    std::vector<uint32_t> counts(32, 0);  // on the heap: an overrun is caught
    ASSERT_EQ(op == 0   ? Q_GetBitmapHistogram(b, counts.data(), 32, 0)
              : op == 1 ? Q_AutoColorLevelBitmap(b, 0, 0, 0, 0)
                        : Q_LightControlBitmap(b, t1, t5, t9, 1),
              RC_SUCCESS);
    for (uint32_t x = 0; x < 6; ++x) EXPECT_EQ(b.At(x, 0), kit::Level(want[op][x])) << op << " at " << x;
    EXPECT_TRUE(op > 0 || (counts[4] == 1 && counts[20] == 1 && counts[9] == 2 &&
                           std::accumulate(counts.begin(), counts.end(), 0u) == 4));
  }
}

// Statuses in check order; cancelled at every report and with the region's
// run list failing, nothing leaks.
TEST(Histograms, SampleRangeIsTheOccupiedSpanOfTheHistogram) {
  // Every kind, both orientations, with and without a region and signed
  // data, each channel: the range must be the lowest and highest occupied
  // bin of the full-length histogram (rotated to offset form when signed).
  for (const Format &f : kit::AllFormats(true))
    for (int variant = 0; variant < 4; ++variant) {
      SCOPED_TRACE(f.Name() + " variant " + std::to_string(variant));
      kit::LeakGuard guard;
      kit::Bitmap b(f, 37, 5);
      b.Randomize(static_cast<uint32_t>(variant * 31 + f.bits));
      if (variant & 1) kit::SetEllipseRegion(b, 3, 1, 30, 5);
      if (variant & 2) b->Flags |= BITMAP_SIGNED;
      const uint32_t length = f.bits >= 48 ? 65536u : f.IsGray() ? f.SampleMax() + 1 : 256u;
      for (uint32_t channel = 0; channel < 4; ++channel) {
        std::vector<uint32_t> h(length, 0);
        ASSERT_EQ(GetHistogram(b, h.data(), length, channel, 0, 100), RC_SUCCESS);
        if (variant & 2) std::rotate(h.begin(), h.begin() + length / 2, h.end());
        int32_t lo = -2, hi = -2, wantLo = -1, wantHi = -1;
        for (uint32_t v = 0; v < length; ++v)
          if (h[v]) {
            if (wantLo < 0) wantLo = static_cast<int32_t>(v);
            wantHi = static_cast<int32_t>(v);
          }
        ASSERT_EQ(GetSampleRange(b, channel, &lo, &hi, 0, 100), RC_SUCCESS);
        EXPECT_EQ(std::pair(lo, hi), std::pair(wantLo, wantHi)) << "channel " << channel;
      }
    }
  kit::Bitmap b(Format{24, ORDER_BGR}, 4, 4);
  kit::SetRectRegion(b, 1, 1, 1, 1);  // set but empty
  int32_t lo = 0, hi = 0;
  EXPECT_EQ(GetSampleRange(b, 0, &lo, &hi, 0, 100), RC_SUCCESS);
  EXPECT_EQ(std::pair(lo, hi), std::pair(-1, -1));
  EXPECT_EQ(GetSampleRange(b, 4, &lo, &hi, 0, 100), RC_INVALID_PARAMETER);
  EXPECT_EQ(GetSampleRange(b, 0, nullptr, &hi, 0, 100), RC_NULL_OPTIONS);
}

TEST(Histograms, StatusesCancellationAndAllocationFailure) {
  kit::Bitmap bm({24, ORDER_BGR}, 4, 4);
  BitmapRecord badSize = *bm.get(), empty = *bm.get(), unknown = *bm.get();
  badSize.StructSize = 0;
  empty.Flags = 0;
  unknown.ColorOrder = 9;
  uint32_t c[256] = {};
  kit::ExpectStatuses({
      {"null bitmap", [&] { return GetHistogram(nullptr, c, 256, 0, 0, 100); }, RC_NO_BITMAP},
      {"record size", [&] { return GetHistogram(&badSize, c, 256, 0, 0, 100); }, RC_INVALID_STRUCT_SIZE},
      {"no pixels", [&] { return GetHistogram(&empty, c, 256, 0, 0, 100); }, RC_NO_BITMAP},
      {"null counts", [&] { return GetHistogram(bm, nullptr, 256, 0, 0, 100); }, RC_NULL_OPTIONS},
      {"unknown kind before the counts", [&] { return GetHistogram(&unknown, nullptr, 256, 0, 0, 100); },
       RC_UNSUPPORTED_BITMAP},
      {"length 0", [&] { return GetHistogram(bm, c, 0, 0, 0, 100); }, RC_INVALID_PARAMETER},
      {"channel 4", [&] { return GetHistogram(bm, c, 256, 4, 0, 100); }, RC_INVALID_PARAMETER},
      {"compute null bitmap", [&] { return ComputeHistogram(nullptr, c, 0, 0, 100); }, RC_NO_BITMAP},
      {"compute size", [&] { return ComputeHistogram(&badSize, c, 0, 0, 100); }, RC_INVALID_STRUCT_SIZE},
      {"compute null counts", [&] { return ComputeHistogram(bm, nullptr, 0, 0, 100); }, RC_NULL_OPTIONS},
      {"compute channel 4", [&] { return ComputeHistogram(bm, c, 4, 0, 100); }, RC_INVALID_PARAMETER},
  });
  auto setup = [] {
    kit::Bitmap b({24, ORDER_RGB}, 7, 10);
    kit::SetRectRegion(b, 1, 0, 6, 10);
    return b;
  };
  auto get = [&](kit::Bitmap &b) { return GetHistogram(b, c, 256, 0, 0, 100); };
  auto compute = [&](kit::Bitmap &b) { return ComputeHistogram(b, c, 0, 0, 100); };
  EXPECT_EQ(kit::CheckCancellation(setup, get), 11);
  EXPECT_EQ(kit::CheckCancellation(setup, compute), 11);
  EXPECT_EQ(kit::CheckAllocationFailures(setup, get), 1);
  EXPECT_EQ(kit::CheckAllocationFailures(setup, compute), 1);
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

// Full searches on sparse random histograms (empty, both ends, `from` outside 0..255).
TEST(HistogramExtremes, SearchesAgainstBruteForce) {
  std::mt19937 rng(5);
  std::vector<uint32_t> c(256);
  for (int round = 0; round < 300; ++round) {
    std::fill(c.begin(), c.end(), 0);
    for (int i = 0, n = rng() % 6; i < n; ++i) c[rng() % 256] += 1 + rng() % 3;
    if (round % 7 == 0) c[round % 2 ? 0 : 255] = 1;
    const int32_t from = static_cast<int32_t>(rng() % 270) - 5;
    ASSERT_EQ(HistogramMax(c.data()), BruteMax(c, 255));
    ASSERT_EQ(HistogramMin(c.data()), BruteMin(c, 0));
    ASSERT_EQ(HistogramMaxBelow(c.data(), from), BruteMax(c, from)) << from;
    ASSERT_EQ(HistogramMinAbove(c.data(), from), BruteMin(c, from)) << from;
  }
  std::vector<uint32_t> b(256 * HISTOGRAM16_BUCKET, 0);
  EXPECT_TRUE(Histogram16Max(b.data()) == -1 && Histogram16Min(b.data()) == -1);
  Histogram16Remove(b.data(), 300);  // absent: nothing changes
  EXPECT_EQ(std::count(b.begin(), b.end(), 0u), static_cast<std::ptrdiff_t>(b.size()));
}

// A window slides over clustered samples (whole buckets stay empty), several
// leaving and entering per step: incremental extremes equal a full search,
// and two-level counts and bucket totals match the flat histogram.
TEST(HistogramExtremes, IncrementalUpdatesOnSlidingWindows) {
  for (const bool wide : {false, true}) {
    std::mt19937 rng(wide ? 3 : 1);
    const int32_t span = wide ? 65536 : 256;
    std::vector<uint32_t> flat(span, 0), buckets(wide ? 256 * HISTOGRAM16_BUCKET : 0, 0);
    const uint32_t *h = wide ? buckets.data() : flat.data();
    std::deque<int32_t> window;
    int32_t max = -1, min = -1;
    for (int step = 0; step < 3000; ++step) {
      bool leftMax = false, leftMin = false;
      for (int i = 0, n = std::min<int>(static_cast<int>(window.size()), rng() % 4); i < n; ++i) {
        const int32_t v = window.front();
        window.pop_front();
        flat[v]--;
        if (wide) Histogram16Remove(buckets.data(), v);
        leftMax = leftMax || v == max;
        leftMin = leftMin || v == min;
      }
      int32_t inMax = -1, inMin = -1;
      for (int i = 0, n = (window.size() < 3 ? 1 : 0) + rng() % 4; i < n; ++i) {
        const int32_t v =
            static_cast<int32_t>(rng() % 4) * (span / 4) + static_cast<int32_t>(rng() % (wide ? 700 : 20));
        window.push_back(v);
        flat[v]++;
        if (wide) Histogram16Add(buckets.data(), v);
        inMax = std::max(inMax, v);
        inMin = inMin < 0 ? v : std::min(inMin, v);
      }
      max = wide ? Histogram16MaxUpdate(h, max, inMax, leftMax) : HistogramMaxUpdate(h, max, inMax, leftMax);
      min = wide ? Histogram16MinUpdate(h, min, inMin, leftMin) : HistogramMinUpdate(h, min, inMin, leftMin);
      ASSERT_EQ(max, BruteMax(flat, span - 1)) << "step " << step;
      ASSERT_EQ(min, BruteMin(flat, 0)) << "step " << step;
      if (!wide || step % 50) continue;
      ASSERT_TRUE(Histogram16Max(h) == max && Histogram16Min(h) == min);
      for (int32_t b = 0; b < 256; ++b) {
        const auto first = flat.begin() + b * 256;
        ASSERT_TRUE(std::equal(first, first + 256, buckets.begin() + b * HISTOGRAM16_BUCKET)) << b;
        ASSERT_EQ(buckets[b * HISTOGRAM16_BUCKET + 256], std::accumulate(first, first + 256, 0u)) << b;
      }
    }
  }
}

}  // namespace
