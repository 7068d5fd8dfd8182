// Segmentation: graph-based segmentation of the pixels inside the region.
//
// The graph joins each pixel to its eight neighbours inside the region; an
// edge weighs the Euclidean distance of the two colours on the 8-bit scale.
// Edges are taken by increasing weight, equal weights in the order the graph
// lists them (a stable sort: raster order of the first pixel, then right,
// down-left, down, down-right). Two segments merge when the edge weighs at
// most the internal difference of each (the heaviest edge that built it, 0
// for a single pixel) plus k / its size. Then, edges again in that order, a
// segment smaller than the minimum merges with the segment across the edge:
// the lightest edge it has. Every pixel of the region takes its segment's
// mean colour; segments are numbered from 0 in raster order of their first
// pixel, and the numbers can be written into a new 16-bit gray bitmap.
//
// Cost: linear in the pixels besides the sort, which is a counting sort on
// the squared distances (one pass for 8-bit samples, two for 16-bit ones),
// linear too. Every buffer comes from the kernel allocator.
#include <bit>
#include <cmath>

#include "frame.h"

namespace img {

namespace {

static constexpr const wchar_t *kSourceFile = L"Common/Segment";

constexpr EntryRule kEntry{.flagsWord = true, .nullBitmap = NullBitmap::Refused, .signedData = true};

constexpr uint32_t kOutside = UINT32_MAX;     // link of a pixel outside the region
constexpr uint32_t kRoot = 0x80000000u;       // link of a root: kRoot | size (sizes stay below 2^30)
constexpr uint64_t kUnnumbered = UINT64_MAX;  // aux of a pixel outside the region
constexpr uint32_t kMaxLabels = 65536;

// The pixels of the region's bounds (index (y - top) * width + x - left):
// samples (planes a pixel) and the disjoint-set forest. The forest is one
// word a pixel (its parent, or kRoot and the size of a root), so the merge's
// walks over the edges, which are raster walks one weight at a time, stream
// 4 bytes a pixel; `aux` is touched at roots only while merging (the merge
// threshold, as double bits) and then holds each pixel's segment number.
template <class T>
struct Graph {
  int32_t left = 0, top = 0, width = 0, height = 0, planes = 3;
  double scale = 1;         // 16-bit distances are divided by 257
  uint32_t offset[4] = {};  // index step of each edge direction: right, down-left, down, down-right
  KernelBuffer<T> samples;
  KernelBuffer<uint32_t> link;
  KernelBuffer<uint64_t> aux;

  uint64_t Pixels() const { return static_cast<uint64_t>(width) * static_cast<uint64_t>(height); }
  bool Inside(uint32_t i) const { return link[i] != kOutside; }
  bool IsRoot(uint32_t i) const { return link[i] != kOutside && (link[i] & kRoot) != 0; }
  uint32_t Size(uint32_t root) const { return link[root] & ~kRoot; }
  // A root's merge threshold Int / scale + k / size; a single pixel's is
  // 0 / scale + k / 1, exactly k, and is not stored.
  double Threshold(uint32_t root, double k) const {
    return Size(root) == 1 ? k : std::bit_cast<double>(aux[root]);
  }
  void SetThreshold(uint32_t root, double t) { aux[root] = std::bit_cast<uint64_t>(t); }

  uint64_t Key(uint32_t i, uint32_t j) const {
    const T *a = samples.get() + static_cast<std::size_t>(i) * planes;
    const T *b = samples.get() + static_cast<std::size_t>(j) * planes;
    uint64_t sum = 0;
    for (int32_t c = 0; c < planes; ++c) {
      const int64_t d = static_cast<int64_t>(a[c]) - b[c];
      sum += static_cast<uint64_t>(d * d);
    }
    return sum;
  }
  // Both ends of an edge id (pixel * 4 + direction).
  uint32_t From(uint32_t id) const { return id >> 2; }
  uint32_t To(uint32_t id) const { return (id >> 2) + offset[id & 3]; }
  uint64_t KeyOf(uint32_t id) const { return Key(From(id), To(id)); }

  // Path halving, writing only links that change; the roots do not depend
  // on it, only on Join.
  uint32_t Find(uint32_t i) {
    for (;;) {
      const uint32_t up = link[i];
      if (up & kRoot) return i;
      const uint32_t above = link[up];
      if (above & kRoot) return up;
      link[i] = above;
      i = above;
    }
  }

  // Joins two roots; the larger segment (the lower index on a tie) stays root.
  uint32_t Join(uint32_t a, uint32_t b) {
    if (Size(a) < Size(b) || (Size(a) == Size(b) && b < a)) std::swap(a, b);
    link[a] += Size(b);
    link[b] = a;
    return a;
  }

  // Calls fn(id, key) for every edge inside the region in graph order: raster
  // order of the first pixel, then right, down-left, down, down-right.
  template <class Fn>
  void ForEachEdge(Fn &&fn) const {
    const uint32_t w = static_cast<uint32_t>(width);
    for (int32_t y = 0; y < height; ++y) {
      const bool last = y + 1 == height;
      const uint32_t row = static_cast<uint32_t>(y) * w;
      for (uint32_t x = 0; x < w; ++x) {
        const uint32_t i = row + x;
        if (!Inside(i)) continue;
        if (x + 1 < w && Inside(i + 1)) fn(i * 4, Key(i, i + 1));
        if (last) continue;
        if (x > 0 && Inside(i + w - 1)) fn(i * 4 + 1, Key(i, i + w - 1));
        if (Inside(i + w)) fn(i * 4 + 2, Key(i, i + w));
        if (x + 1 < w && Inside(i + w + 1)) fn(i * 4 + 3, Key(i, i + w + 1));
      }
    }
  }
};

// Edge ids sorted stably by squared weight: least significant digit first,
// each digit a counting pass; the first pass lists the edges in graph order.
// 8-bit samples need one pass (keys below 3 * 255^2 < 2^18), and then
// `bucketEnds` holds where the edges of each key end (key = bucket), so the
// merge needs no key again.
template <class T>
int32_t SortEdges(const Graph<T> &g, KernelBuffer<uint32_t> &sorted, uint32_t &edgeCount,
                  KernelBuffer<uint32_t> &bucketEnds) {
  constexpr int32_t digitBits = sizeof(T) == 1 ? 18 : 17, passes = sizeof(T) == 1 ? 1 : 2;
  constexpr std::size_t buckets = std::size_t{1} << digitBits;
  constexpr uint64_t mask = buckets - 1;
  bucketEnds = KernelBuffer<uint32_t>(buckets + 1, __LINE__, kSourceFile);
  if (!bucketEnds) return RC_NO_MEMORY;
  uint32_t *counts = bucketEnds.get();
  edgeCount = 0;
  g.ForEachEdge([&](uint32_t, uint64_t key) {
    ++counts[(key & mask) + 1];
    ++edgeCount;
  });
  sorted = KernelBuffer<uint32_t>(edgeCount, __LINE__, kSourceFile);
  KernelBuffer<uint32_t> other;
  if (passes > 1) other = KernelBuffer<uint32_t>(edgeCount, __LINE__, kSourceFile);
  if (!sorted || (passes > 1 && !other)) return RC_NO_MEMORY;
  for (std::size_t b = 1; b <= buckets; ++b) counts[b] += counts[b - 1];
  uint32_t *out = sorted.get();
  g.ForEachEdge([&](uint32_t id, uint64_t key) { out[counts[key & mask]++] = id; });
  for (int32_t p = 1; p < passes; ++p) {
    const int32_t shift = p * digitBits;
    std::fill(counts, counts + buckets + 1, 0u);
    for (uint32_t e = 0; e < edgeCount; ++e) ++counts[((g.KeyOf(sorted[e]) >> shift) & mask) + 1];
    for (std::size_t b = 1; b <= buckets; ++b) counts[b] += counts[b - 1];
    for (uint32_t e = 0; e < edgeCount; ++e)
      other[counts[(g.KeyOf(sorted[e]) >> shift) & mask]++] = sorted[e];
    std::swap(sorted, other);
  }
  return RC_SUCCESS;
}

// Merges along the sorted edges, numbers the segments in raster order of
// their first pixel into g.aux; returns the number of segments.
template <class T>
uint32_t Merge(Graph<T> &g, const uint32_t *edges, uint32_t edgeCount, const uint32_t *bucketEnds, uint32_t k,
               uint32_t minSize) {
  const uint32_t pixels = static_cast<uint32_t>(g.Pixels());
  const double kk = static_cast<double>(k);
  // A root's threshold is set at each join, from the edge's weight (the
  // heaviest so far: edges come by increasing weight) and the new size.
  const auto consider = [&](uint32_t id, uint64_t key, double w) {
    const uint32_t a = g.Find(g.From(id)), b = g.Find(g.To(id));
    if (a == b || !(w <= g.Threshold(a, kk) && w <= g.Threshold(b, kk))) return;
    const uint32_t r = g.Join(a, b);
    g.SetThreshold(r, std::sqrt(static_cast<double>(key)) / g.scale + kk / g.Size(r));
  };
  if constexpr (sizeof(T) == 1) {
    // Key = bucket: its weight is taken once.
    uint32_t e = 0;
    for (uint32_t key = 0; e < edgeCount; ++key) {
      const uint32_t end = bucketEnds[key];
      if (e == end) continue;
      const double w = std::sqrt(static_cast<double>(key)) / g.scale;
      for (; e < end; ++e) consider(edges[e], key, w);
    }
  } else {
    for (uint32_t e = 0; e < edgeCount; ++e) {
      const uint64_t key = g.KeyOf(edges[e]);
      consider(edges[e], key, std::sqrt(static_cast<double>(key)) / g.scale);
    }
  }
  // Segments below the minimum join across their edges in the same order;
  // once none is left, no later edge joins anything.
  uint32_t small = 0;
  for (uint32_t i = 0; i < pixels; ++i)
    if (g.IsRoot(i) && g.Size(i) < minSize) ++small;
  for (uint32_t e = 0; e < edgeCount && small > 0; ++e) {
    const uint32_t a = g.Find(g.From(edges[e])), b = g.Find(g.To(edges[e]));
    if (a == b) continue;
    const uint32_t before = (g.Size(a) < minSize) + (g.Size(b) < minSize);
    if (before == 0) continue;
    small -= before;
    if (g.Size(g.Join(a, b)) < minSize) ++small;
  }
  // Numbers in aux (the thresholds are done with). A root's number is set
  // when its segment's first pixel is met; the root itself may come later in
  // raster order and then finds its number set.
  std::fill(g.aux.get(), g.aux.get() + pixels, kUnnumbered);
  uint32_t count = 0;
  for (uint32_t i = 0; i < pixels; ++i) {
    if (!g.Inside(i)) continue;
    const uint32_t r = g.Find(i);
    if (g.aux[r] == kUnnumbered) g.aux[r] = count++;
    g.aux[i] = g.aux[r];
  }
  return count;
}

// Frees a label bitmap made by the call unless the call succeeds.
class LabelGuard {
 public:
  LabelGuard() = default;
  ~LabelGuard() {
    if (labels_) FreeBitmap(labels_);
  }
  LabelGuard(const LabelGuard &) = delete;
  LabelGuard &operator=(const LabelGuard &) = delete;
  void Hold(BitmapRecord *labels) { labels_ = labels; }
  void Keep() { labels_ = nullptr; }

 private:
  BitmapRecord *labels_ = nullptr;
};

template <class T>
int32_t SegmentRows(RowPass &pass, const Rect &bounds, uint32_t k, uint32_t minSize, BitmapRecord *labels,
                    uint32_t labelsSize) {
  BitmapRecord *bitmap = pass.bitmap();
  Graph<T> g;
  g.left = bounds.Left;
  g.top = bounds.Top;
  g.width = bounds.Right > bounds.Left ? bounds.Right - bounds.Left : 0;
  g.height = bounds.Bottom > bounds.Top ? bounds.Bottom - bounds.Top : 0;
  g.planes = pass.channels() == 1 ? 1 : 3;
  g.scale = sizeof(T) == 1 ? 1.0 : 257.0;
  const uint64_t pixels = g.Pixels();
  // Edge ids are pixel * 4 + direction in 32 bits.
  if (pixels >= (uint64_t{1} << 30)) return RC_NO_MEMORY;
  g.samples = KernelBuffer<T>(pixels * static_cast<uint64_t>(g.planes), __LINE__, kSourceFile);
  g.link = KernelBuffer<uint32_t>(pixels, __LINE__, kSourceFile);
  g.aux = KernelBuffer<uint64_t>(pixels, __LINE__, kSourceFile);
  if (!g.samples || !g.link || !g.aux) return RC_NO_MEMORY;
  std::fill(g.link.get(), g.link.get() + pixels, kOutside);
  const uint32_t w = static_cast<uint32_t>(g.width);
  g.offset[0] = 1;
  g.offset[1] = w - 1;
  g.offset[2] = w;
  g.offset[3] = w + 1;

  const auto index = [&](int32_t x, int32_t y) {
    return static_cast<uint32_t>(y - g.top) * w + static_cast<uint32_t>(x - g.left);
  };
  int32_t status = pass.RunRows([&](auto &row) {
    if constexpr (std::is_same_v<std::remove_cvref_t<decltype(*row.samples)>, T>) {
      row.ForEach([&](int32_t x) {
        const uint32_t i = index(x, row.y);
        const T *p = row.Pixel(x);
        for (int32_t c = 0; c < g.planes; ++c) g.samples[static_cast<std::size_t>(i) * g.planes + c] = p[c];
        g.link[i] = kRoot | 1u;
      });
    }
  });
  if (status != RC_SUCCESS) return status;

  uint32_t segments = 0;
  {
    KernelBuffer<uint32_t> edges, bucketEnds;
    uint32_t edgeCount = 0;
    if ((status = SortEdges(g, edges, edgeCount, bucketEnds)) != RC_SUCCESS) return status;
    segments = Merge(g, edges.get(), edgeCount, bucketEnds.get(), k, minSize);
  }
  g.link.reset();
  if (labels && segments > kMaxLabels) return RC_INVALID_PARAMETER;

  // Mean colour of each segment, rounded half up; the last slot of each
  // segment counts its pixels.
  const std::size_t stride = static_cast<std::size_t>(g.planes) + 1;
  IMG_BUFFER(uint64_t, means, static_cast<std::size_t>(segments) * stride + 1);
  if (!means) return RC_NO_MEMORY;
  for (uint32_t i = 0; i < pixels; ++i) {
    if (g.aux[i] == kUnnumbered) continue;
    uint64_t *m = means.get() + static_cast<std::size_t>(g.aux[i]) * stride;
    for (int32_t c = 0; c < g.planes; ++c) m[c] += g.samples[static_cast<std::size_t>(i) * g.planes + c];
    ++m[g.planes];
  }
  for (uint32_t s = 0; s < segments; ++s) {
    uint64_t *m = means.get() + static_cast<std::size_t>(s) * stride;
    for (int32_t c = 0; c < g.planes; ++c) m[c] = (m[c] + m[g.planes] / 2) / m[g.planes];
  }
  const auto segmentOf = [&](int32_t x, int32_t y) -> uint32_t {
    if (x < g.left || x >= g.left + g.width || y < g.top || y >= g.top + g.height) return kOutside;
    return static_cast<uint32_t>(g.aux[index(x, y)]);
  };

  LabelGuard made;
  if (labels) {
    status = AllocateBitmap(labels, labelsSize, MEMORY_CONVENTIONAL, bitmap->Width, bitmap->Height, 16,
                            ORDER_GRAY, nullptr, bitmap->Orientation, nullptr, 0);
    if (status != RC_SUCCESS) return status;
    made.Hold(labels);
    RowPass labelRows(labels, RowSetup{.layout = ROW_LAYOUT_GRAY});
    status = labelRows.RunRows([&](auto &row) {
      if constexpr (sizeof(*row.samples) == 2) {
        if (row.y < g.top || row.y >= g.top + g.height) return;
        for (int32_t x = g.left; x < g.left + g.width; ++x) {
          const uint32_t s = segmentOf(x, row.y);
          if (s != kOutside) row.samples[x] = static_cast<uint16_t>(s);
        }
      }
    });
    if (status != RC_SUCCESS) return status;
  }

  pass.SetWalk(ProgressRange{51, 100, true}, true);
  status = pass.RunRows([&](auto &row) {
    if constexpr (std::is_same_v<std::remove_cvref_t<decltype(*row.samples)>, T>) {
      row.ForEach([&](int32_t x) {
        const uint32_t s = segmentOf(x, row.y);
        if (s == kOutside) return;
        T *p = row.Pixel(x);
        const uint64_t *m = means.get() + static_cast<std::size_t>(s) * stride;
        for (int32_t c = 0; c < g.planes; ++c) p[c] = static_cast<T>(m[c]);
      });
    }
  });
  if (status == RC_SUCCESS) made.Keep();
  return status;
}

int32_t Segment(BitmapRecord *bitmap, uint32_t k, uint32_t minSize, BitmapRecord *labels,
                uint32_t labelsSize) {
  RowPass pass(bitmap,
               RowSetup{.layout = ROW_LAYOUT_NATIVE, .progress = ProgressRange{0, 50, true}, .write = false});
  if (pass.status() != RC_SUCCESS) return pass.status();
  Rect bounds{};
  const int32_t status = GetRegionBounds(bitmap, nullptr, &bounds);
  if (status != RC_SUCCESS) return status;
  return pass.wide() ? SegmentRows<uint16_t>(pass, bounds, k, minSize, labels, labelsSize)
                     : SegmentRows<uint8_t>(pass, bounds, k, minSize, labels, labelsSize);
}

}  // namespace
}  // namespace img

extern "C" IMG_API int32_t Q_SegmentBitmap(BitmapRecord *bitmap, uint32_t k, uint32_t minSize,
                                           BitmapRecord *labels, uint32_t labelsSize, uint32_t flags) {
  if (const int32_t status = img::CheckEntry(img::kEntry, flags, bitmap)) return status;
  if (labels && !img::ValidRecordSize(labelsSize)) return RC_INVALID_STRUCT_SIZE;
  if (!img::ranges::kSegmentThreshold.Contains(k) || !img::ranges::kSegmentMinimum.Contains(minSize))
    return RC_INVALID_PARAMETER;
  return img::Segment(bitmap, k, minSize, labels, labelsSize);
}
