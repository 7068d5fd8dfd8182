// Q_SegmentBitmap: entry checks, flat blocks, merging rules, means, the
// label bitmap, regions, determinism, and cleanup on the labels path.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <set>
#include <vector>

#include "kit.h"

namespace {

using kit::Level;
using kit::Pixel;
using kit::Rgb;

kit::Format Kind(int32_t bits, int32_t order = ORDER_BGR, int32_t orientation = ORIENT_TOP_FIRST) {
  return kit::Format{bits, order, orientation};
}

// Owns a label record the call fills.
struct Labels {
  BitmapRecord rec{};
  ~Labels() {
    if (rec.Flags & BITMAP_ALLOCATED) FreeBitmap(&rec);
  }
  uint32_t At(int32_t x, int32_t y) {
    RowConverter conv = nullptr;
    EXPECT_EQ(CreateRowConverter(&rec, &conv, ROW_LAYOUT_GRAY), RC_SUCCESS);
    std::vector<uint16_t> row(rec.Width + 8);
    BeginWholeBitmap(conv);
    ReadRow(conv, row.data(), y, nullptr, nullptr);
    FreeRowConverter(conv);
    return row[x];
  }
};

TEST(Segment, ChecksInOrder) {
  kit::Bitmap bmp(Kind(24), 3, 2), gray32(Kind(32), 2, 2);
  gray32->ColorOrder = ORDER_GRAY;
  gray32->Flags |= BITMAP_SIGNED;
  Labels labels;
  const auto asSigned = [&] {
    bmp->Flags |= BITMAP_SIGNED;
    const int32_t status = Q_SegmentBitmap(bmp, 0, 0, nullptr, 0, 0);
    bmp->Flags &= ~BITMAP_SIGNED;
    return status;
  };
  const auto withSize = [&](uint32_t size) {
    bmp->StructSize = size;
    const int32_t status = Q_SegmentBitmap(bmp, 10, 1, nullptr, 0, 0);
    bmp->StructSize = BITMAP_RECORD_SIZE;
    return status;
  };
  kit::ExpectStatuses({
      {"flags before null", [] { return Q_SegmentBitmap(nullptr, 10, 1, nullptr, 0, 1); },
       RC_INVALID_PARAMETER},
      {"null", [] { return Q_SegmentBitmap(nullptr, 10, 1, nullptr, 0, 0); }, RC_NO_BITMAP},
      {"size 200", [&] { return withSize(200); }, RC_INVALID_STRUCT_SIZE},
      {"size 176", [&] { return withSize(176); }, RC_SUCCESS},
      {"gray32 before signed", [&] { return Q_SegmentBitmap(gray32, 0, 0, nullptr, 0, 0); },
       RC_GRAY32_NOT_SUPPORTED},
      {"signed before ranges", asSigned, RC_SIGNED_DATA_NOT_SUPPORTED},
      {"label size before ranges", [&] { return Q_SegmentBitmap(bmp, 0, 0, &labels.rec, 200, 0); },
       RC_INVALID_STRUCT_SIZE},
      {"label size ignored without labels", [&] { return Q_SegmentBitmap(bmp, 10, 1, nullptr, 200, 0); },
       RC_SUCCESS},
      {"k 0", [&] { return Q_SegmentBitmap(bmp, 0, 1, nullptr, 0, 0); }, RC_INVALID_PARAMETER},
      {"k 100001", [&] { return Q_SegmentBitmap(bmp, 100001, 1, nullptr, 0, 0); }, RC_INVALID_PARAMETER},
      {"k 100000", [&] { return Q_SegmentBitmap(bmp, 100000, 1, nullptr, 0, 0); }, RC_SUCCESS},
      {"minimum 0", [&] { return Q_SegmentBitmap(bmp, 10, 0, nullptr, 0, 0); }, RC_INVALID_PARAMETER},
      {"minimum 2^31", [&] { return Q_SegmentBitmap(bmp, 10, 0x80000000u, nullptr, 0, 0); },
       RC_INVALID_PARAMETER},
  });
}

// Two flat colour blocks give exactly two segments on every kind, numbered
// in raster order, colours unchanged; the label bitmap is 16-bit gray of the
// bitmap's size and orientation.
TEST(Segment, TwoFlatBlocksAreTwoSegments) {
  PaletteEntry palette[256] = {};
  palette[1] = {0, 0, 200, 0};
  for (const kit::Format &format : kit::AllFormats(true)) {
    SCOPED_TRACE(format.Name());
    const bool wide = format.bits >= 48 || (format.IsGray() && format.bits == 16);
    const uint32_t hi = format.IsPalette()                      ? 1
                        : format.bits == 16 && !format.IsGray() ? 20
                        : wide                                  ? 60000
                                                                : 200;
    const Pixel a = format.IsPalette() ? Level(0) : format.IsGray() ? Level(1) : Rgb(hi, 3, 1);
    const Pixel b = format.IsPalette() || format.IsGray() ? Level(hi) : Rgb(2, 1, hi);
    std::vector<Pixel> pixels;
    for (int32_t i = 0; i < 9 * 6; ++i) pixels.push_back(i % 9 < 4 ? a : b);
    kit::Bitmap bmp(format, 9, 6, pixels, format.IsPalette() ? palette : nullptr);
    Labels labels;
    ASSERT_EQ(Q_SegmentBitmap(bmp, 50, 1, &labels.rec, 176, 0), RC_SUCCESS);
    EXPECT_EQ(bmp.Pixels(), pixels);
    EXPECT_EQ(labels.rec.StructSize, 176u);
    EXPECT_TRUE(labels.rec.BitsPerPixel == 16 && labels.rec.ColorOrder == ORDER_GRAY &&
                labels.rec.Width == 9 && labels.rec.Height == 6 &&
                labels.rec.Orientation == format.orientation);
    for (int32_t i = 0; i < 9 * 6; ++i) ASSERT_EQ(labels.At(i % 9, i / 9), i % 9 < 4 ? 0u : 1u) << i;
  }
}

// Worked cases on one gray row: k / size decides merging; the minimum size
// merges across the lightest edge; the mean rounds half up.
TEST(Segment, MergingRulesAndMeans) {
  struct Case {
    const char *name;
    std::vector<uint32_t> in;
    uint32_t k, minSize;
    std::vector<uint32_t> out, labels;
  } cases[] = {
      {"k / 1 joins a step of k", {10, 11}, 1, 1, {11, 11}, {0, 0}},
      {"a step above k stays", {10, 12}, 1, 1, {10, 12}, {0, 1}},
      {"k / size shrinks", {0, 0, 0, 0, 3}, 3, 1, {0, 0, 0, 0, 3}, {0, 0, 0, 0, 1}},
      {"small segment to its lightest edge", {0, 0, 50, 60, 60}, 1, 2, {0, 0, 57, 57, 57}, {0, 0, 1, 1, 1}},
      {"mean rounds half up", {1, 1, 2, 2}, 100, 1, {2, 2, 2, 2}, {0, 0, 0, 0}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<Pixel> pixels;
    for (uint32_t v : c.in) pixels.push_back(Level(v));
    kit::Bitmap bmp(Kind(8, ORDER_GRAY), int32_t(pixels.size()), 1, pixels);
    Labels labels;
    ASSERT_EQ(Q_SegmentBitmap(bmp, c.k, c.minSize, &labels.rec, BITMAP_RECORD_SIZE, 0), RC_SUCCESS);
    for (size_t x = 0; x < c.in.size(); ++x) {
      EXPECT_EQ(bmp.At(int32_t(x), 0), Level(c.out[x])) << x;
      EXPECT_EQ(labels.At(int32_t(x), 0), c.labels[x]) << x;
    }
  }
}

// The segment numbers of a plain course: every edge listed, std::stable_sort
// by squared weight, doubles for the merge test, full-path Find.
std::vector<uint32_t> ReferenceLabels(const std::vector<Pixel> &px, int32_t w, int32_t h, double scale,
                                      uint32_t k, uint32_t minSize) {
  struct Edge {
    uint64_t key;
    uint32_t a, b;
  };
  std::vector<Edge> edges;
  const int32_t dx[4] = {1, -1, 0, 1}, dy[4] = {0, 1, 1, 1};
  for (int32_t i = 0; i < w * h; ++i)
    for (int32_t d = 0; d < 4; ++d) {
      const int32_t x = i % w + dx[d], y = i / w + dy[d];
      if (x < 0 || x >= w || y >= h) continue;
      uint64_t key = 0;
      for (int32_t c = 0; c < 3; ++c) {
        const int64_t diff = int64_t(px[i].v[c]) - int64_t(px[y * w + x].v[c]);
        key += uint64_t(diff * diff);
      }
      edges.push_back({key, uint32_t(i), uint32_t(y * w + x)});
    }
  std::stable_sort(edges.begin(), edges.end(), [](const Edge &l, const Edge &r) { return l.key < r.key; });
  std::vector<uint32_t> parent(w * h), size(w * h, 1);
  std::vector<uint64_t> internal(w * h, 0);
  std::iota(parent.begin(), parent.end(), 0u);
  const auto find = [&](uint32_t i) {
    while (parent[i] != i) i = parent[i];
    return i;
  };
  const auto join = [&](uint32_t a, uint32_t b) {
    if (size[a] < size[b] || (size[a] == size[b] && b < a)) std::swap(a, b);
    parent[b] = a;
    size[a] += size[b];
    return a;
  };
  const auto limit = [&](uint32_t r) { return std::sqrt(double(internal[r])) / scale + double(k) / size[r]; };
  for (const Edge &e : edges) {
    const uint32_t a = find(e.a), b = find(e.b);
    const double weight = std::sqrt(double(e.key)) / scale;
    if (a != b && weight <= limit(a) && weight <= limit(b)) internal[join(a, b)] = e.key;
  }
  for (const Edge &e : edges) {
    const uint32_t a = find(e.a), b = find(e.b);
    if (a != b && (size[a] < minSize || size[b] < minSize)) join(a, b);
  }
  std::vector<uint32_t> number(w * h, UINT32_MAX), labels(w * h);
  uint32_t count = 0;
  for (int32_t i = 0; i < w * h; ++i) {
    const uint32_t r = find(uint32_t(i));
    if (number[r] == UINT32_MAX) number[r] = count++;
    labels[i] = number[r];
  }
  return labels;
}

// Noisy gradients on 8-bit gray, 24-bit and 48-bit colour, for several k and
// minimum sizes: the labels are the plain course's.
TEST(Segment, LabelsEqualPlainCourse) {
  const int32_t w = 37, h = 23;
  for (const kit::Format &format : {Kind(8, ORDER_GRAY), Kind(24), Kind(48)}) {
    const uint32_t unit = format.bits == 48 ? 257 : 1;
    std::mt19937 rng(uint32_t(format.bits));
    std::vector<Pixel> px;
    for (int32_t i = 0; i < w * h; ++i) {
      const auto v = [&](int32_t c) {
        return ((i % w) / 6 * 40 + (i / w) / 5 * 25 + c * 70 + rng() % 9) % 256 * unit;
      };
      px.push_back(format.bits == 8 ? Level(v(0)) : Rgb(v(0), v(1), v(2)));
    }
    for (const auto &[k, minSize] : {std::pair{1u, 1u}, {1u, 200u}, {300u, 1u}, {300u, 20u}, {5000u, 4u}}) {
      SCOPED_TRACE(format.Name() + " k " + std::to_string(k) + " minimum " + std::to_string(minSize));
      kit::Bitmap bmp(format, w, h, px);
      Labels labels;
      ASSERT_EQ(Q_SegmentBitmap(bmp, k, minSize, &labels.rec, BITMAP_RECORD_SIZE, 0), RC_SUCCESS);
      const auto want = ReferenceLabels(px, w, h, unit, k, minSize);
      for (int32_t i = 0; i < w * h; ++i) ASSERT_EQ(labels.At(i % w, i / w), want[i]) << i;
    }
  }
}

// More than 65536 segments cannot be labelled: -13, nothing changed and no
// label bitmap; without labels the call succeeds.
TEST(Segment, TooManySegmentsForLabels) {
  kit::Bitmap bmp(Kind(8, ORDER_GRAY), 300, 300);
  for (int32_t y = 0; y < 300; ++y)
    for (int32_t x = 0; x < 300; ++x) bmp.Set(x, y, Level(uint32_t((x % 3) + 3 * (y % 3)) * 20));
  const auto before = bmp.StoredBytes();
  Labels labels;
  EXPECT_EQ(Q_SegmentBitmap(bmp, 1, 1, &labels.rec, BITMAP_RECORD_SIZE, 0), RC_INVALID_PARAMETER);
  EXPECT_EQ(bmp.StoredBytes(), before);
  EXPECT_FALSE(labels.rec.Flags & BITMAP_ALLOCATED);
  EXPECT_EQ(Q_SegmentBitmap(bmp, 1, 1, nullptr, 0, 0), RC_SUCCESS);
  EXPECT_EQ(bmp.StoredBytes(), before) << "every pixel is its own segment";
}

// A region: only its pixels join segments and change; labels outside are 0.
// The same call twice gives the same result.
TEST(Segment, RegionAndDeterminism) {
  kit::Bitmap first(Kind(24), 31, 17), second(Kind(24), 31, 17);
  first.Randomize(5);
  second.Randomize(5);
  const auto before = first.Pixels();
  Labels a, b;
  for (auto *pair : {&first, &second}) kit::SetEllipseRegion(*pair, 2, 1, 28, 16);
  ASSERT_EQ(Q_SegmentBitmap(first, 400, 3, &a.rec, BITMAP_RECORD_SIZE, 0), RC_SUCCESS);
  ASSERT_EQ(Q_SegmentBitmap(second, 400, 3, &b.rec, BITMAP_RECORD_SIZE, 0), RC_SUCCESS);
  EXPECT_EQ(first.StoredBytes(), second.StoredBytes());
  std::set<uint32_t> seen;
  for (int32_t y = 0; y < 17; ++y)
    for (int32_t x = 0; x < 31; ++x) {
      const uint32_t label = a.At(x, y);
      EXPECT_EQ(label, b.At(x, y));
      if (!kit::InRegion(first, x, y)) {
        EXPECT_EQ(first.At(x, y), before[y * 31 + x]);
        EXPECT_EQ(label, 0u);
      } else {
        EXPECT_LE(label, seen.size()) << "numbers follow raster order";
        seen.insert(label);
      }
    }
  EXPECT_GT(seen.size(), 1u);
}

// The labels path: every allocation failure and every cancel frees the
// label bitmap it made and leaks nothing.
TEST(Segment, LabelsPathCleansUp) {
  struct Fixture {
    kit::Bitmap bmp{Kind(24), 12, 9};
    Labels labels;
    Fixture() { bmp.Randomize(3); }
  };
  const auto setup = [] { return std::make_unique<Fixture>(); };
  const auto call = [](std::unique_ptr<Fixture> &f) {
    const int32_t status = Q_SegmentBitmap(f->bmp, 300, 4, &f->labels.rec, BITMAP_RECORD_SIZE, 0);
    if (status != RC_SUCCESS) {
      EXPECT_FALSE(f->labels.rec.Flags & BITMAP_ALLOCATED);
    }
    return status;
  };
  EXPECT_GT(kit::CheckAllocationFailures(setup, call), 5);
  EXPECT_GT(kit::CheckCancellation(setup, call), 2);
}

}  // namespace
