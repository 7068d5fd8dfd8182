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
#include <cmath>

#include "frame.h"

namespace img {

namespace {

static constexpr const wchar_t *kSourceFile = L"Common/Segment";

constexpr EntryRule kEntry{.flagsWord = true, .nullBitmap = NullBitmap::Refused, .signedData = true};

constexpr uint32_t kOutside = UINT32_MAX;  // parent of a pixel outside the region
constexpr uint64_t kUnnumbered = UINT64_MAX;
constexpr uint32_t kMaxLabels = 65536;

// The pixels of the region's bounds (index (y - top) * width + x - left):
// samples (planes a pixel) and the disjoint-set forest of the segments.
template <class T>
struct Graph {
  int32_t left = 0, top = 0, width = 0, height = 0, planes = 3;
  double scale = 1;  // 16-bit distances are divided by 257
  KernelBuffer<T> samples;
  KernelBuffer<uint32_t> parent, size;
  KernelBuffer<uint64_t> internal;  // squared weight of the heaviest edge merged; later the segment number

  uint64_t Pixels() const { return static_cast<uint64_t>(width) * static_cast<uint64_t>(height); }

  // The neighbour of pixel i across edge direction dir, or kOutside.
  uint32_t Neighbour(uint32_t i, uint32_t dir) const {
    const int32_t x = static_cast<int32_t>(i % static_cast<uint32_t>(width));
    const int32_t y = static_cast<int32_t>(i / static_cast<uint32_t>(width));
    static constexpr int32_t kDx[4] = {1, -1, 0, 1}, kDy[4] = {0, 1, 1, 1};
    const int32_t nx = x + kDx[dir], ny = y + kDy[dir];
    if (nx < 0 || nx >= width || ny >= height) return kOutside;
    const uint32_t j = static_cast<uint32_t>(ny) * static_cast<uint32_t>(width) + static_cast<uint32_t>(nx);
    return parent[j] == kOutside ? kOutside : j;
  }

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

  uint32_t Find(uint32_t i) {
    while (parent[i] != i) {
      parent[i] = parent[parent[i]];
      i = parent[i];
    }
    return i;
  }

  // Joins two roots; the larger segment (the lower index on a tie) stays root.
  uint32_t Join(uint32_t a, uint32_t b) {
    if (size[a] < size[b] || (size[a] == size[b] && b < a)) std::swap(a, b);
    parent[b] = a;
    size[a] += size[b];
    return a;
  }

  double Threshold(uint32_t root, uint32_t k) const {
    return std::sqrt(static_cast<double>(internal[root])) / scale + static_cast<double>(k) / size[root];
  }
};

// Edge ids (pixel * 4 + direction) sorted stably by squared weight: least
// significant digit first, each digit a counting pass; the first pass lists
// the edges in graph order.
template <class T>
int32_t SortEdges(const Graph<T> &g, KernelBuffer<uint32_t> &sorted, uint32_t &edgeCount) {
  const int32_t digitBits = sizeof(T) == 1 ? 18 : 17, passes = sizeof(T) == 1 ? 1 : 2;
  const std::size_t buckets = std::size_t{1} << digitBits;
  IMG_BUFFER(uint32_t, counts, buckets + 1);
  if (!counts) return RC_NO_MEMORY;
  const uint32_t pixels = static_cast<uint32_t>(g.Pixels());
  auto forEachEdge = [&](auto &&fn) {
    for (uint32_t i = 0; i < pixels; ++i) {
      if (g.parent[i] == kOutside) continue;
      for (uint32_t dir = 0; dir < 4; ++dir) {
        const uint32_t j = g.Neighbour(i, dir);
        if (j != kOutside) fn(i * 4 + dir, g.Key(i, j));
      }
    }
  };
  auto keyOf = [&](uint32_t id) { return g.Key(id >> 2, g.Neighbour(id >> 2, id & 3)); };
  const uint64_t mask = buckets - 1;
  edgeCount = 0;
  forEachEdge([&](uint32_t, uint64_t key) {
    ++counts[(key & mask) + 1];
    ++edgeCount;
  });
  sorted = KernelBuffer<uint32_t>(edgeCount, __LINE__, kSourceFile);
  KernelBuffer<uint32_t> other;
  if (passes > 1) other = KernelBuffer<uint32_t>(edgeCount, __LINE__, kSourceFile);
  if (!sorted || (passes > 1 && !other)) return RC_NO_MEMORY;
  for (std::size_t b = 1; b <= buckets; ++b) counts[b] += counts[b - 1];
  forEachEdge([&](uint32_t id, uint64_t key) { sorted[counts[key & mask]++] = id; });
  for (int32_t p = 1; p < passes; ++p) {
    const int32_t shift = p * digitBits;
    std::fill(counts.get(), counts.get() + buckets + 1, 0u);
    for (uint32_t e = 0; e < edgeCount; ++e) ++counts[((keyOf(sorted[e]) >> shift) & mask) + 1];
    for (std::size_t b = 1; b <= buckets; ++b) counts[b] += counts[b - 1];
    for (uint32_t e = 0; e < edgeCount; ++e) other[counts[(keyOf(sorted[e]) >> shift) & mask]++] = sorted[e];
    std::swap(sorted, other);
  }
  return RC_SUCCESS;
}

// Merges along the sorted edges; returns the number of segments.
template <class T>
uint32_t Merge(Graph<T> &g, const uint32_t *edges, uint32_t edgeCount, uint32_t k, uint32_t minSize) {
  for (uint32_t e = 0; e < edgeCount; ++e) {
    const uint32_t i = edges[e] >> 2, j = g.Neighbour(i, edges[e] & 3);
    const uint32_t a = g.Find(i), b = g.Find(j);
    if (a == b) continue;
    const uint64_t key = g.Key(i, j);
    const double w = std::sqrt(static_cast<double>(key)) / g.scale;
    if (w <= g.Threshold(a, k) && w <= g.Threshold(b, k)) g.internal[g.Join(a, b)] = key;
  }
  for (uint32_t e = 0; e < edgeCount; ++e) {
    const uint32_t i = edges[e] >> 2, j = g.Neighbour(i, edges[e] & 3);
    const uint32_t a = g.Find(i), b = g.Find(j);
    if (a != b && (g.size[a] < minSize || g.size[b] < minSize)) g.Join(a, b);
  }
  const uint32_t pixels = static_cast<uint32_t>(g.Pixels());
  for (uint32_t i = 0; i < pixels; ++i)
    if (g.parent[i] == i) g.internal[i] = kUnnumbered;
  uint32_t count = 0;
  for (uint32_t i = 0; i < pixels; ++i) {
    if (g.parent[i] == kOutside) continue;
    const uint32_t r = g.Find(i);
    if (g.internal[r] == kUnnumbered) g.internal[r] = count++;
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
  g.parent = KernelBuffer<uint32_t>(pixels, __LINE__, kSourceFile);
  g.size = KernelBuffer<uint32_t>(pixels, __LINE__, kSourceFile);
  g.internal = KernelBuffer<uint64_t>(pixels, __LINE__, kSourceFile);
  if (!g.samples || !g.parent || !g.size || !g.internal) return RC_NO_MEMORY;
  std::fill(g.parent.get(), g.parent.get() + pixels, kOutside);

  const auto index = [&](int32_t x, int32_t y) {
    return static_cast<uint32_t>(y - g.top) * static_cast<uint32_t>(g.width) +
           static_cast<uint32_t>(x - g.left);
  };
  int32_t status = pass.RunRows([&](auto &row) {
    if constexpr (std::is_same_v<std::remove_cvref_t<decltype(*row.samples)>, T>) {
      row.ForEach([&](int32_t x) {
        const uint32_t i = index(x, row.y);
        const T *p = row.Pixel(x);
        for (int32_t c = 0; c < g.planes; ++c) g.samples[static_cast<std::size_t>(i) * g.planes + c] = p[c];
        g.parent[i] = i;
        g.size[i] = 1;
      });
    }
  });
  if (status != RC_SUCCESS) return status;

  KernelBuffer<uint32_t> edges;
  uint32_t edgeCount = 0;
  if ((status = SortEdges(g, edges, edgeCount)) != RC_SUCCESS) return status;
  const uint32_t segments = Merge(g, edges.get(), edgeCount, k, minSize);
  edges.reset();
  if (labels && segments > kMaxLabels) return RC_INVALID_PARAMETER;

  // Mean colour of each segment, rounded half up.
  IMG_BUFFER(uint64_t, means, static_cast<std::size_t>(segments) * g.planes + 1);
  if (!means) return RC_NO_MEMORY;
  for (uint32_t i = 0; i < pixels; ++i) {
    if (g.parent[i] == kOutside) continue;
    const std::size_t s = static_cast<std::size_t>(g.internal[g.Find(i)]) * g.planes;
    for (int32_t c = 0; c < g.planes; ++c)
      means[s + c] += g.samples[static_cast<std::size_t>(i) * g.planes + c];
  }
  for (uint32_t i = 0; i < pixels; ++i) {
    if (g.parent[i] != i) continue;
    const std::size_t s = static_cast<std::size_t>(g.internal[i]) * g.planes;
    for (int32_t c = 0; c < g.planes; ++c) means[s + c] = (means[s + c] + g.size[i] / 2) / g.size[i];
  }
  const auto segmentOf = [&](int32_t x, int32_t y) -> int64_t {
    if (x < g.left || x >= g.left + g.width || y < g.top || y >= g.top + g.height) return -1;
    const uint32_t i = index(x, y);
    return g.parent[i] == kOutside ? -1 : static_cast<int64_t>(g.internal[g.Find(i)]);
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
          const int64_t s = segmentOf(x, row.y);
          if (s >= 0) row.samples[x] = static_cast<uint16_t>(s);
        }
      }
    });
    if (status != RC_SUCCESS) return status;
  }

  pass.SetWalk(ProgressRange{51, 100, true}, true);
  status = pass.RunRows([&](auto &row) {
    if constexpr (std::is_same_v<std::remove_cvref_t<decltype(*row.samples)>, T>) {
      row.ForEach([&](int32_t x) {
        const int64_t s = segmentOf(x, row.y);
        if (s < 0) return;
        T *p = row.Pixel(x);
        for (int32_t c = 0; c < g.planes; ++c)
          p[c] = static_cast<T>(means[static_cast<std::size_t>(s) * g.planes + c]);
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
