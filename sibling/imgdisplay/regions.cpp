// Regions: per-row sorted, disjoint runs of columns held in one ImgRegion
// block (see region_data.h).
//
// Every shape is produced row by row by a "source" (rectangle, ellipse,
// polygon, mask, existing region, or the merge of an existing region with a
// shape). BuildRegion walks a source twice: once to count runs and find the
// bounds, then, after one exact allocation, to write the runs into the block.
// Sources therefore restart cleanly with Start(y) and are then asked for
// consecutive rows. The bitmap's region is replaced only once the new block
// is complete, so a failure leaves the previous region in place.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "family.h"
#include "imgdisplay.h"
#include "pixels.h"
#include "region_data.h"

namespace {

static constexpr const wchar_t *kSourceFile = L"imgdisplay/regions";

using U128 = unsigned __int128;
using I128 = __int128;

int32_t CheckRecord(const BitmapRecord *b) {
  if (!b) return RC_NO_BITMAP;
  if (!img::ValidRecordSize(b->StructSize)) return RC_INVALID_STRUCT_SIZE;
  return RC_SUCCESS;
}

int32_t ClipWidth(const BitmapRecord *b) { return std::max(b->Width, 0); }
int32_t ClipHeight(const BitmapRecord *b) { return std::max(b->Height, 0); }

uint32_t *MutableRowStart(ImgRegion *r) { return reinterpret_cast<uint32_t *>(r + 1); }

// Read access to a region block; a null block reads as empty.
class RegionView {
 public:
  explicit RegionView(const ImgRegion *r) : r_(r) {
    if (r_) {
      rowStart_ = img::RegionRowStart(r_);
      runs_ = img::RegionRuns(r_);
    }
  }
  int32_t Top() const { return r_ ? r_->Top : 0; }
  int32_t Bottom() const { return r_ ? r_->Bottom : 0; }
  int32_t MaxRuns() const { return r_ ? r_->MaxRuns : 0; }
  // Runs of row y; returns their count.
  int32_t Row(int32_t y, const RowRun **runs) const {
    if (!r_ || y < r_->Top || y >= r_->Bottom) return 0;
    const uint32_t i = static_cast<uint32_t>(y - r_->Top);
    *runs = runs_ + rowStart_[i];
    return static_cast<int32_t>(rowStart_[i + 1] - rowStart_[i]);
  }

 private:
  const ImgRegion *r_;
  const uint32_t *rowStart_ = nullptr;
  const RowRun *runs_ = nullptr;
};

// Walks `src` twice and returns a freshly allocated region block holding its
// runs, trimmed to the rows that have any.
template <class Source>
int32_t BuildRegion(Source &src, ImgRegion **result) {
  IMG_BUFFER(RowRun, scratch, static_cast<size_t>(std::max(src.MaxRuns(), 1)));
  if (!scratch) return RC_NO_MEMORY;

  int32_t first = 0, last = -1;
  uint64_t runCount = 0, area = 0;
  int32_t maxRuns = 0;
  int32_t left = INT32_MAX, right = INT32_MIN;
  if (src.Top() < src.Bottom()) {
    src.Start(src.Top());
    for (int32_t y = src.Top(); y < src.Bottom(); ++y) {
      const int32_t n = src.Row(y, scratch.get());
      if (n == 0) continue;
      if (last < 0) first = y;
      last = y;
      runCount += static_cast<uint64_t>(n);
      maxRuns = std::max(maxRuns, n);
      left = std::min(left, scratch[0].Start);
      right = std::max(right, scratch[n - 1].End);
      for (int32_t i = 0; i < n; ++i) area += static_cast<uint64_t>(scratch[i].End - scratch[i].Start);
    }
  }
  if (runCount > static_cast<uint64_t>(INT32_MAX)) return RC_NO_MEMORY;
  const int32_t rows = last < 0 ? 0 : last - first + 1;
  const uint64_t bytes =
      sizeof(ImgRegion) + sizeof(uint32_t) * (static_cast<uint64_t>(rows) + 1) + sizeof(RowRun) * runCount;
  auto *block = static_cast<ImgRegion *>(IMG_ALLOC(static_cast<size_t>(bytes), 1));
  if (!block) return RC_NO_MEMORY;
  block->ByteSize = bytes;
  block->Top = rows ? first : 0;
  block->Bottom = rows ? last + 1 : 0;
  block->Left = rows ? left : 0;
  block->Right = rows ? right : 0;
  block->Area = area;
  block->MaxRuns = maxRuns;
  block->RunCount = static_cast<int32_t>(runCount);
  uint32_t *rowStart = MutableRowStart(block);
  auto *runs = reinterpret_cast<RowRun *>(rowStart + rows + 1);
  uint32_t k = 0;
  if (rows) {
    src.Start(first);
    for (int32_t y = first; y <= last; ++y) {
      rowStart[y - first] = k;
      k += static_cast<uint32_t>(src.Row(y, runs + k));
    }
  }
  rowStart[rows] = k;
  *result = block;
  return RC_SUCCESS;
}

// ---- Sources -------------------------------------------------------------------

// Rectangle [left, right) x [top, bottom) clipped to the bitmap.
class RectSource {
 public:
  RectSource(const Rect &r, int32_t width, int32_t height) {
    left_ = std::max(r.Left, 0);
    right_ = std::min(r.Right, width);
    top_ = std::max(r.Top, 0);
    bottom_ = std::min(r.Bottom, height);
    if (left_ >= right_ || top_ >= bottom_) top_ = bottom_ = 0;
  }
  int32_t Top() const { return top_; }
  int32_t Bottom() const { return bottom_; }
  int32_t MaxRuns() const { return 1; }
  void Start(int32_t) {}
  int32_t Row(int32_t, RowRun *out) const {
    out[0] = RowRun{left_, right_};
    return 1;
  }

 private:
  int32_t left_, right_, top_, bottom_;
};

uint64_t Isqrt(uint64_t v) {
  uint64_t r = static_cast<uint64_t>(std::sqrt(static_cast<double>(v)));
  while (r > 0 && static_cast<U128>(r) * r > v) --r;
  while (static_cast<U128>(r + 1) * (r + 1) <= v) ++r;
  return r;
}

// Ellipse inscribed in [L, R) x [T, B). With w = R - L, h = B - T, the pixel
// (x, y) is in when its centre satisfies
//   ((x + 0.5 - (L + R) / 2) / (w / 2))^2 + ((y + 0.5 - (T + B) / 2) / (h / 2))^2 <= 1,
// evaluated exactly in integers as  a^2 h^2 + b^2 w^2 <= w^2 h^2  with
// a = 2x + 1 - (L + R) and b = 2y + 1 - (T + B).
class EllipseSource {
 public:
  EllipseSource(const Rect &r, int32_t width, int32_t height) : width_(width) {
    w_ = static_cast<int64_t>(r.Right) - r.Left;
    h_ = static_cast<int64_t>(r.Bottom) - r.Top;
    sumX_ = static_cast<int64_t>(r.Left) + r.Right;
    sumY_ = static_cast<int64_t>(r.Top) + r.Bottom;
    top_ = std::max(r.Top, 0);
    bottom_ = std::min(r.Bottom, height);
    if (w_ <= 0 || h_ <= 0 || top_ >= bottom_ || r.Right <= 0 || r.Left >= width) top_ = bottom_ = 0;
  }
  int32_t Top() const { return top_; }
  int32_t Bottom() const { return bottom_; }
  int32_t MaxRuns() const { return 1; }
  void Start(int32_t) {}
  int32_t Row(int32_t y, RowRun *out) const {
    const int64_t b = 2 * static_cast<int64_t>(y) + 1 - sumY_;
    const uint64_t bAbs = static_cast<uint64_t>(b < 0 ? -b : b);
    const uint64_t h = static_cast<uint64_t>(h_), w = static_cast<uint64_t>(w_);
    if (bAbs > h) return 0;
    // Largest |a| with a^2 h^2 <= w^2 (h^2 - b^2).
    const U128 rest = static_cast<U128>(w * w) * (static_cast<U128>(h) * h - static_cast<U128>(bAbs) * bAbs);
    int64_t aMax = static_cast<int64_t>(Isqrt(static_cast<uint64_t>(rest / (static_cast<U128>(h) * h))));
    // a = 2x + 1 - (L + R) has the parity of 1 + L + R.
    if (((aMax + sumX_ + 1) & 1) != 0) --aMax;
    if (aMax < 0) return 0;
    const int64_t x0 = (sumX_ - 1 - aMax) / 2;  // exact: the numerators are even
    const int64_t x1 = (sumX_ - 1 + aMax) / 2 + 1;
    const int32_t s = static_cast<int32_t>(std::max<int64_t>(x0, 0));
    const int32_t e = static_cast<int32_t>(std::min<int64_t>(x1, width_));
    if (s >= e) return 0;
    out[0] = RowRun{s, e};
    return 1;
  }

 private:
  int32_t width_;
  int64_t w_, h_, sumX_, sumY_;
  int32_t top_, bottom_;
};

struct PolygonEdge {
  int32_t yTop;     // first row whose centre line the edge crosses
  int32_t yBottom;  // one past the last
  int64_t x0, y0;   // upper end point
  int64_t dx, dy;   // towards the lower end point, dy > 0
  int32_t dir;      // +1 when the polygon runs downwards along the edge
};

struct Crossing {
  int32_t x;  // first column whose centre lies at or right of the crossing
  int32_t dir;
  bool operator<(const Crossing &o) const { return x < o.x; }
};

// ceil(num / den) for den > 0.
template <class T>
T CeilDiv(T num, T den) {
  return num >= 0 ? (num + den - 1) / den : -((-num) / den);
}

// Polygon with an active edge list. Along the centre line y + 0.5 of each row,
// an edge crosses at xi; the pixels whose centre x + 0.5 >= xi lie right of
// the crossing. Vertices are integers, so no centre line passes through one.
class PolygonSource {
 public:
  PolygonSource(const Point *points, uint32_t count, uint32_t fillRule, int32_t width, int32_t height)
      : points_(points),
        count_(count),
        evenOdd_(fillRule == POLYGON_EVEN_ODD),
        width_(width),
        height_(height) {}

  // Collects and sorts the edges; returns a status.
  int32_t Init() {
    edges_ = img::KernelBuffer<PolygonEdge>(count_, __LINE__, kSourceFile);
    active_ = img::KernelBuffer<uint32_t>(count_, __LINE__, kSourceFile);
    crossings_ = img::KernelBuffer<Crossing>(count_, __LINE__, kSourceFile);
    if (!edges_ || !active_ || !crossings_) return RC_NO_MEMORY;
    int64_t yMin = INT64_MAX, yMax = INT64_MIN;
    for (uint32_t i = 0; i < count_; ++i) {
      const int64_t limit = int64_t{1} << 28;
      small_ = small_ && std::abs(static_cast<int64_t>(points_[i].X)) < limit &&
               std::abs(static_cast<int64_t>(points_[i].Y)) < limit;
    }
    for (uint32_t i = 0; i < count_; ++i) {
      const Point &p = points_[i];
      const Point &q = points_[i + 1 == count_ ? 0 : i + 1];
      if (p.Y == q.Y) continue;
      const bool down = p.Y < q.Y;
      const Point &u = down ? p : q;
      const Point &v = down ? q : p;
      PolygonEdge &e = edges_[edgeCount_++];
      e.yTop = u.Y;
      e.yBottom = v.Y;
      e.x0 = u.X;
      e.y0 = u.Y;
      e.dx = static_cast<int64_t>(v.X) - u.X;
      e.dy = static_cast<int64_t>(v.Y) - u.Y;
      e.dir = down ? 1 : -1;
      yMin = std::min<int64_t>(yMin, u.Y);
      yMax = std::max<int64_t>(yMax, v.Y);
    }
    std::sort(edges_.get(), edges_.get() + edgeCount_,
              [](const PolygonEdge &a, const PolygonEdge &b) { return a.yTop < b.yTop; });
    if (edgeCount_ > 0 && width_ > 0) {
      top_ = static_cast<int32_t>(std::max<int64_t>(yMin, 0));
      bottom_ = static_cast<int32_t>(std::min<int64_t>(yMax, height_));
      if (top_ >= bottom_) top_ = bottom_ = 0;
    }
    return RC_SUCCESS;
  }

  int32_t Top() const { return top_; }
  int32_t Bottom() const { return bottom_; }
  int32_t MaxRuns() const { return static_cast<int32_t>(edgeCount_ / 2 + 1); }

  void Start(int32_t y) {
    activeCount_ = 0;
    next_ = 0;
    while (next_ < edgeCount_ && edges_[next_].yTop <= y) {
      if (edges_[next_].yBottom > y) active_[activeCount_++] = next_;
      ++next_;
    }
  }

  int32_t Row(int32_t y, RowRun *out) {
    uint32_t kept = 0;
    for (uint32_t i = 0; i < activeCount_; ++i)
      if (edges_[active_[i]].yBottom > y) active_[kept++] = active_[i];
    activeCount_ = kept;
    while (next_ < edgeCount_ && edges_[next_].yTop <= y) {
      if (edges_[next_].yBottom > y) active_[activeCount_++] = next_;
      ++next_;
    }
    Crossing *c = crossings_.get();
    for (uint32_t i = 0; i < activeCount_; ++i) {
      const PolygonEdge &e = edges_[active_[i]];
      const int64_t x = small_ ? FirstColumn<int64_t>(e, y) : FirstColumn<I128>(e, y);
      c[i] = Crossing{static_cast<int32_t>(std::clamp<int64_t>(x, 0, width_)), e.dir};
    }
    std::sort(c, c + activeCount_);
    int32_t n = 0, winding = 0, start = 0;
    bool inside = false;
    for (uint32_t i = 0; i < activeCount_;) {
      const int32_t x = c[i].x;
      for (; i < activeCount_ && c[i].x == x; ++i) winding += c[i].dir;
      const bool now = evenOdd_ ? (winding & 1) != 0 : winding != 0;
      if (now == inside) continue;
      if (now)
        start = x;
      else if (x > start)
        out[n++] = RowRun{start, x};
      inside = now;
    }
    if (inside && width_ > start) out[n++] = RowRun{start, width_};
    return n;
  }

 private:
  // ceil(xi - 0.5) with xi = x0 + (y + 0.5 - y0) dx / dy, computed exactly.
  template <class T>
  static int64_t FirstColumn(const PolygonEdge &e, int32_t y) {
    const T num = T(2) * e.x0 * e.dy + (T(2) * y + 1 - T(2) * e.y0) * e.dx - e.dy;
    const T q = CeilDiv<T>(num, T(2) * e.dy);
    if (q > T(INT64_MAX / 2)) return INT64_MAX / 2;
    if (q < T(INT64_MIN / 2)) return INT64_MIN / 2;
    return static_cast<int64_t>(q);
  }

  const Point *points_;
  uint32_t count_;
  bool evenOdd_;
  int32_t width_, height_;
  bool small_ = true;
  img::KernelBuffer<PolygonEdge> edges_;
  img::KernelBuffer<uint32_t> active_;
  img::KernelBuffer<Crossing> crossings_;
  uint32_t edgeCount_ = 0, activeCount_ = 0, next_ = 0;
  int32_t top_ = 0, bottom_ = 0;
};

// Maximal runs of columns [0, n) where nonZero(x) holds.
template <class NonZero>
int32_t ScanRuns(int32_t n, NonZero nonZero, RowRun *out) {
  int32_t k = 0, x = 0;
  while (x < n) {
    while (x < n && !nonZero(x)) ++x;
    if (x >= n) break;
    const int32_t s = x;
    while (x < n && nonZero(x)) ++x;
    out[k++] = RowRun{s, x};
  }
  return k;
}

// Non-zero pixels of a mask bitmap placed at (0, 0), in image rows.
class MaskSource {
 public:
  MaskSource(const BitmapRecord *mask, int32_t width, int32_t height) : mask_(mask) {
    kind_ = img::KindOf(mask);
    columns_ = std::min(width, std::max(mask->Width, 0));
    bottom_ = std::min(height, std::max(mask->Height, 0));
    if (columns_ <= 0) bottom_ = 0;
  }
  int32_t Top() const { return 0; }
  int32_t Bottom() const { return bottom_; }
  int32_t MaxRuns() const { return (columns_ + 1) / 2; }
  void Start(int32_t) {}
  int32_t Row(int32_t y, RowRun *out) const {
    const uint8_t *p = img::ImageRow(mask_, y);
    const int32_t n = columns_;
    switch (kind_) {
      case img::Kind::Palette: {
        const int32_t bits = mask_->BitsPerPixel;
        if (bits == 8)
          return ScanRuns(
              n, [p](int32_t x) { return p[x] != 0; }, out);
        return ScanRuns(
            n, [p, bits](int32_t x) { return img::GetIndex(p, x, bits) != 0; }, out);
      }
      case img::Kind::Gray8:
        return ScanRuns(
            n, [p](int32_t x) { return p[x] != 0; }, out);
      case img::Kind::Gray12:
      case img::Kind::Gray16:
        return ScanRuns(
            n, [p](int32_t x) { return (p[2 * x] | p[2 * x + 1]) != 0; }, out);
      case img::Kind::Gray32:
        return ScanRuns(
            n, [p](int32_t x) { return (p[4 * x] | p[4 * x + 1] | p[4 * x + 2] | p[4 * x + 3]) != 0; }, out);
      case img::Kind::Color16:
        return ScanRuns(
            n, [p](int32_t x) { return (img::Load16(p + 2 * x) & 0x7FFFu) != 0; }, out);
      case img::Kind::Color24:
        return ScanRuns(
            n, [p](int32_t x) { return (p[3 * x] | p[3 * x + 1] | p[3 * x + 2]) != 0; }, out);
      case img::Kind::Color32:
        return ScanRuns(
            n, [p](int32_t x) { return (p[4 * x] | p[4 * x + 1] | p[4 * x + 2]) != 0; }, out);
      case img::Kind::Color48:
      case img::Kind::Color64: {
        const int32_t step = kind_ == img::Kind::Color48 ? 6 : 8;
        return ScanRuns(
            n,
            [p, step](int32_t x) {
              const uint8_t *q = p + static_cast<size_t>(step) * x;
              return (q[0] | q[1] | q[2] | q[3] | q[4] | q[5]) != 0;
            },
            out);
      }
      default:
        return 0;
    }
  }

 private:
  const BitmapRecord *mask_;
  img::Kind kind_;
  int32_t columns_;
  int32_t bottom_;
};

// An existing region clipped to [0, width) x [0, height).
class ClippedRegionSource {
 public:
  ClippedRegionSource(const ImgRegion *r, int32_t width, int32_t height) : view_(r), width_(width) {
    top_ = std::max(view_.Top(), 0);
    bottom_ = std::min(view_.Bottom(), height);
    if (top_ >= bottom_ || width <= 0) top_ = bottom_ = 0;
  }
  int32_t Top() const { return top_; }
  int32_t Bottom() const { return bottom_; }
  int32_t MaxRuns() const { return view_.MaxRuns(); }
  void Start(int32_t) {}
  int32_t Row(int32_t y, RowRun *out) const {
    const RowRun *runs = nullptr;
    const int32_t count = view_.Row(y, &runs);
    int32_t n = 0;
    for (int32_t i = 0; i < count && runs[i].Start < width_; ++i)
      out[n++] = RowRun{runs[i].Start, std::min(runs[i].End, width_)};
    return n;
  }

 private:
  RegionView view_;
  int32_t width_;
  int32_t top_ = 0, bottom_ = 0;
};

// Sweeps the boundaries of two run lists in order and keeps the columns where
// inA op inB holds; both toggles at one column are applied before the test,
// so touching runs merge and no empty run is produced.
template <uint32_t Op>
int32_t CombineRuns(const RowRun *a, int32_t na, const RowRun *b, int32_t nb, RowRun *out) {
  const int32_t ea = 2 * na, eb = 2 * nb;
  int32_t i = 0, j = 0, n = 0, start = 0;
  bool inA = false, inB = false, inside = false;
  while (i < ea || j < eb) {
    const bool hasA = i < ea, hasB = j < eb;
    const int32_t xa = hasA ? ((i & 1) ? a[i >> 1].End : a[i >> 1].Start) : 0;
    const int32_t xb = hasB ? ((j & 1) ? b[j >> 1].End : b[j >> 1].Start) : 0;
    const int32_t x = !hasA ? xb : !hasB ? xa : std::min(xa, xb);
    if (hasA && xa == x) {
      inA = !inA;
      ++i;
    }
    if (hasB && xb == x) {
      inB = !inB;
      ++j;
    }
    bool now;
    if constexpr (Op == REGION_AND)
      now = inA && inB;
    else if constexpr (Op == REGION_OR)
      now = inA || inB;
    else if constexpr (Op == REGION_XOR)
      now = inA != inB;
    else
      now = inA && !inB;
    if (now == inside) continue;
    if (now)
      start = x;
    else
      out[n++] = RowRun{start, x};
    inside = now;
  }
  return n;
}

int32_t CopyRuns(const RowRun *runs, int32_t n, RowRun *out) {
  if (n > 0) std::memcpy(out, runs, sizeof(RowRun) * static_cast<size_t>(n));
  return n;
}

// The current region combined with a shape source, row by row.
template <class Shape>
class MergeSource {
 public:
  MergeSource(const ImgRegion *current, Shape &shape, uint32_t op, RowRun *shapeRuns)
      : a_(current), shape_(shape), op_(op), shapeRuns_(shapeRuns) {
    const bool aEmpty = a_.Top() >= a_.Bottom(), bEmpty = shape_.Top() >= shape_.Bottom();
    if (op == REGION_AND) {
      top_ = std::max(a_.Top(), shape_.Top());
      bottom_ = std::min(a_.Bottom(), shape_.Bottom());
    } else if (op == REGION_SUBTRACT || bEmpty) {
      top_ = a_.Top();
      bottom_ = a_.Bottom();
    } else if (aEmpty) {
      top_ = shape_.Top();
      bottom_ = shape_.Bottom();
    } else {
      top_ = std::min(a_.Top(), shape_.Top());
      bottom_ = std::max(a_.Bottom(), shape_.Bottom());
    }
    if (top_ >= bottom_) top_ = bottom_ = 0;
  }
  int32_t Top() const { return top_; }
  int32_t Bottom() const { return bottom_; }
  int32_t MaxRuns() const { return a_.MaxRuns() + shape_.MaxRuns(); }
  void Start(int32_t y) {
    if (shape_.Top() < shape_.Bottom() && y < shape_.Bottom()) shape_.Start(std::max(y, shape_.Top()));
  }
  int32_t Row(int32_t y, RowRun *out) {
    const RowRun *a = nullptr;
    const int32_t na = a_.Row(y, &a);
    const int32_t nb = (y >= shape_.Top() && y < shape_.Bottom()) ? shape_.Row(y, shapeRuns_) : 0;
    const RowRun *b = shapeRuns_;
    if (nb == 0) return op_ == REGION_AND ? 0 : CopyRuns(a, na, out);
    if (na == 0) return (op_ == REGION_OR || op_ == REGION_XOR) ? CopyRuns(b, nb, out) : 0;
    switch (op_) {
      case REGION_AND:
        return CombineRuns<REGION_AND>(a, na, b, nb, out);
      case REGION_OR:
        return CombineRuns<REGION_OR>(a, na, b, nb, out);
      case REGION_XOR:
        return CombineRuns<REGION_XOR>(a, na, b, nb, out);
      default:
        return CombineRuns<REGION_SUBTRACT>(a, na, b, nb, out);
    }
  }

 private:
  RegionView a_;
  Shape &shape_;
  uint32_t op_;
  RowRun *shapeRuns_;
  int32_t top_ = 0, bottom_ = 0;
};

// Combines `shape` with the bitmap's region and installs the result.
template <class Shape>
int32_t ApplyShape(BitmapRecord *bitmap, Shape &shape, uint32_t combine) {
  ImgRegion *result = nullptr;
  int32_t status;
  if (combine == REGION_SET) {
    status = BuildRegion(shape, &result);
  } else {
    IMG_BUFFER(RowRun, shapeRuns, static_cast<size_t>(std::max(shape.MaxRuns(), 1)));
    if (!shapeRuns) return RC_NO_MEMORY;
    MergeSource<Shape> merge(bitmap->Region, shape, combine, shapeRuns.get());
    status = BuildRegion(merge, &result);
  }
  if (status != RC_SUCCESS) return status;
  if (bitmap->Region) IMG_FREE(bitmap->Region);
  bitmap->Region = result;
  return RC_SUCCESS;
}

bool ValidCombine(uint32_t combine) { return combine <= REGION_SUBTRACT; }

}  // namespace

extern "C" {

IMG_API int32_t SetBitmapRegionRect(BitmapRecord *bitmap, const Rect *rect, uint32_t combine) {
  const int32_t status = CheckRecord(bitmap);
  if (status != RC_SUCCESS) return status;
  if (!rect) return RC_NULL_OPTIONS;
  if (!ValidCombine(combine) || rect->Right < rect->Left || rect->Bottom < rect->Top)
    return RC_INVALID_PARAMETER;
  RectSource shape(*rect, ClipWidth(bitmap), ClipHeight(bitmap));
  return ApplyShape(bitmap, shape, combine);
}

IMG_API int32_t SetBitmapRegionEllipse(BitmapRecord *bitmap, const Rect *bounds, uint32_t combine) {
  const int32_t status = CheckRecord(bitmap);
  if (status != RC_SUCCESS) return status;
  if (!bounds) return RC_NULL_OPTIONS;
  if (!ValidCombine(combine) || bounds->Right < bounds->Left || bounds->Bottom < bounds->Top)
    return RC_INVALID_PARAMETER;
  EllipseSource shape(*bounds, ClipWidth(bitmap), ClipHeight(bitmap));
  return ApplyShape(bitmap, shape, combine);
}

IMG_API int32_t SetBitmapRegionPolygon(BitmapRecord *bitmap, const Point *points, uint32_t count,
                                       uint32_t fillRule, uint32_t combine) {
  int32_t status = CheckRecord(bitmap);
  if (status != RC_SUCCESS) return status;
  if (!points) return RC_NULL_OPTIONS;
  if ((fillRule != POLYGON_EVEN_ODD && fillRule != POLYGON_WINDING) || count < 3 || !ValidCombine(combine))
    return RC_INVALID_PARAMETER;
  PolygonSource shape(points, count, fillRule, ClipWidth(bitmap), ClipHeight(bitmap));
  status = shape.Init();
  if (status != RC_SUCCESS) return status;
  return ApplyShape(bitmap, shape, combine);
}

IMG_API int32_t SetBitmapRegionMask(BitmapRecord *bitmap, const BitmapRecord *mask, uint32_t combine) {
  const int32_t status = CheckRecord(bitmap);
  if (status != RC_SUCCESS) return status;
  if (!mask) return RC_NULL_OPTIONS;
  if (!ValidCombine(combine)) return RC_INVALID_PARAMETER;
  if (!img::ValidRecordSize(mask->StructSize)) return RC_INVALID_STRUCT_SIZE;
  if (!(mask->Flags & BITMAP_ALLOCATED) || !mask->Pixels) return RC_NO_BITMAP;
  if (img::KindOf(mask) == img::Kind::Invalid) return RC_UNSUPPORTED_BITMAP;
  MaskSource shape(mask, ClipWidth(bitmap), ClipHeight(bitmap));
  return ApplyShape(bitmap, shape, combine);
}

IMG_API int32_t FreeBitmapRegion(BitmapRecord *bitmap) {
  const int32_t status = CheckRecord(bitmap);
  if (status != RC_SUCCESS) return status;
  if (bitmap->Region) IMG_FREE(bitmap->Region);
  bitmap->Region = nullptr;
  return RC_SUCCESS;
}

IMG_API int32_t CopyBitmapRegion(BitmapRecord *destination, const BitmapRecord *source) {
  int32_t status = CheckRecord(destination);
  if (status == RC_SUCCESS) status = CheckRecord(source);
  if (status != RC_SUCCESS) return status;
  if (destination == source) return RC_SUCCESS;
  const ImgRegion *from = source->Region;
  ImgRegion *copy = nullptr;
  if (from) {
    const bool fits = from->Top >= from->Bottom ||
                      (from->Left >= 0 && from->Top >= 0 && from->Right <= destination->Width &&
                       from->Bottom <= destination->Height);
    if (fits) {
      copy = static_cast<ImgRegion *>(IMG_ALLOC(static_cast<size_t>(from->ByteSize), 1));
      if (!copy) return RC_NO_MEMORY;
      std::memcpy(copy, from, static_cast<size_t>(from->ByteSize));
    } else {
      // A region larger than the destination is clipped to it.
      ClippedRegionSource clipped(from, ClipWidth(destination), ClipHeight(destination));
      status = BuildRegion(clipped, &copy);
      if (status != RC_SUCCESS) return status;
    }
  }
  if (destination->Region) IMG_FREE(destination->Region);
  destination->Region = copy;
  return RC_SUCCESS;
}

IMG_API int32_t BitmapHasRegion(const BitmapRecord *bitmap) {
  return CheckRecord(bitmap) == RC_SUCCESS && bitmap->Region ? 1 : 0;
}

IMG_API int32_t GetRegionBounds(const BitmapRecord *bitmap, const void *transform, Rect *bounds) {
  const int32_t status = CheckRecord(bitmap);
  if (status != RC_SUCCESS) return status;
  if (!bounds) return RC_NULL_OPTIONS;
  if (transform) return RC_INVALID_PARAMETER;
  if (const ImgRegion *r = bitmap->Region)
    *bounds = Rect{r->Left, r->Top, r->Right, r->Bottom};
  else
    *bounds = Rect{0, 0, ClipWidth(bitmap), ClipHeight(bitmap)};
  return RC_SUCCESS;
}

IMG_API int32_t GetRegionArea(const BitmapRecord *bitmap, uint64_t *count) {
  const int32_t status = CheckRecord(bitmap);
  if (status != RC_SUCCESS) return status;
  if (!count) return RC_NULL_OPTIONS;
  if (bitmap->Region)
    *count = bitmap->Region->Area;
  else
    *count = static_cast<uint64_t>(ClipWidth(bitmap)) * static_cast<uint64_t>(ClipHeight(bitmap));
  return RC_SUCCESS;
}

IMG_API int32_t IsPointInRegion(const BitmapRecord *bitmap, int32_t row, int32_t column) {
  if (CheckRecord(bitmap) != RC_SUCCESS) return 0;
  if (!bitmap->Region) return row >= 0 && row < bitmap->Height && column >= 0 && column < bitmap->Width;
  const RegionView view(bitmap->Region);
  const RowRun *runs = nullptr;
  const int32_t n = view.Row(row, &runs);
  // First run ending after the column; the point is in when that run starts at or before it.
  const RowRun *it =
      std::upper_bound(runs, runs + n, column, [](int32_t c, const RowRun &r) { return c < r.End; });
  return it != runs + n && it->Start <= column ? 1 : 0;
}

IMG_API int32_t GetRegionMaxRuns(const BitmapRecord *bitmap) {
  const int32_t status = CheckRecord(bitmap);
  if (status != RC_SUCCESS) return status;
  return bitmap->Region ? bitmap->Region->MaxRuns : 1;
}

IMG_API int32_t GetRegionRowRuns(const BitmapRecord *bitmap, int32_t row, RowRun *runs, int32_t maxRuns) {
  const int32_t status = CheckRecord(bitmap);
  if (status != RC_SUCCESS) return status;
  if (maxRuns < 0) return RC_INVALID_PARAMETER;
  if (maxRuns == 0) return 0;
  if (!runs) return RC_NULL_OPTIONS;
  if (!bitmap->Region) {
    if (row < 0 || row >= bitmap->Height || bitmap->Width <= 0) return 0;
    runs[0] = RowRun{0, bitmap->Width};
    return 1;
  }
  const RegionView view(bitmap->Region);
  const RowRun *from = nullptr;
  const int32_t n = std::min(view.Row(row, &from), maxRuns);
  return CopyRuns(from, n, runs);
}

}  // extern "C"
