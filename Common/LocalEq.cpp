// Local (contrast-limited adaptive) histogram equalisation.
//
// The region's bounding rectangle is cut into tiles of the given size (cut
// to the rectangle when it is smaller); when the size does not divide the
// rectangle, the last tile of a row or column is moved back to end at the
// rectangle's edge, overlapping its neighbour, so that every tile holds the
// same number of pixels. Each tile keeps the values of its pixels inside the
// region, sorted: its curve is
//   map(v) = (P(v) + E / N * (v + 1)) * T / n
// with n the tile's pixels, N the bins (256 or 65536), T the top sample value,
// P(v) the count of values <= v with every value's count clipped at the limit
// L = max(1, clip * n / (10 N)) (no clipping for clip 0) and E the clipped
// excess, spread evenly over the bins. A tile without pixels maps v to v.
// A pixel takes the bilinear blend of the curves of the four nearest tile
// centres (one or two at the edges), rounded to nearest. The curves are
// evaluated by binary search in the sorted values, so a pixel costs the same
// whatever the tile size and 16-bit samples need no 65536 bins per tile.
#include <algorithm>
#include <type_traits>

#include "curves.h"
#include "frame.h"

namespace img {

namespace {

static constexpr const wchar_t *kSourceFile = L"Common/LocalEq";

constexpr EntryRule kEntry{.flagsWord = true, .nullBitmap = NullBitmap::Refused, .signedData = true};

// Tiles along one axis of the work rectangle.
struct Axis {
  int32_t start = 0;   // first pixel of the rectangle
  int32_t extent = 0;  // pixels of the rectangle
  int32_t tile = 1;    // pixels of a tile (at most extent)
  int32_t count = 1;   // tiles

  Axis(int32_t first, int32_t pixels, int32_t size) : start(first), extent(pixels) {
    if (extent < 1) return;
    tile = size < extent ? size : extent;
    count = (extent + tile - 1) / tile;
  }
  int32_t TileStart(int32_t i) const { return i < count - 1 ? i * tile : extent - tile; }
  // The one or two tiles holding position p (relative to start).
  void Holders(int32_t p, int32_t *a, int32_t *b) const {
    *a = p / tile < count - 1 ? p / tile : count - 1;
    *b = *a < count - 1 && p >= extent - tile ? count - 1 : -1;
  }
  // Doubled coordinate of tile i's centre.
  int64_t Centre(int32_t i) const { return 2 * static_cast<int64_t>(TileStart(i)) + tile; }
  // The tile centres around position p and the weight of the second one;
  // `i` is the last tile whose centre is at or before p (kept by the caller
  // from the previous, smaller p).
  void Between(int32_t p, int32_t &i, int32_t *lo, int32_t *hi, double *w) const {
    const int64_t at = 2 * static_cast<int64_t>(p) + 1;  // doubled pixel centre
    while (i + 1 < count && Centre(i + 1) <= at) ++i;
    *lo = i;
    if (at <= Centre(i) || i + 1 >= count) {
      *hi = i;
      *w = 0.0;
      return;
    }
    *hi = i + 1;
    *w = static_cast<double>(at - Centre(i)) / static_cast<double>(Centre(i + 1) - Centre(i));
  }
};

// Per column or row of the rectangle: the tiles holding it and the centres
// it lies between.
struct Place {
  int32_t holderA, holderB;
  int32_t lo, hi;
  double w;
};

// One tile's curve over one channel: its sorted distinct values and the
// clipped counts up to each.
struct Curve {
  uint32_t distinct = 0;
  uint32_t pixels = 0;
  double excessPerBin = 0.0;
  double scale = 0.0;  // T / pixels
};

class LocalEqualizer {
 public:
  LocalEqualizer(const Axis &x, const Axis &y, int32_t planes, int32_t bins, uint32_t clip)
      : x_(x), y_(y), planes_(planes), bins_(bins), clip_(clip) {
    capacity_ = static_cast<std::size_t>(x.tile) * static_cast<std::size_t>(y.tile);
    curves_ = static_cast<std::size_t>(x.count) * static_cast<std::size_t>(y.count) * planes;
  }

  int32_t Allocate() {
    values_ = KernelBuffer<uint16_t>(curves_ * capacity_, __LINE__, kSourceFile);
    prefix_ = KernelBuffer<uint32_t>(curves_ * capacity_, __LINE__, kSourceFile);
    curve_ = KernelBuffer<Curve>(curves_, __LINE__, kSourceFile);
    columns_ =
        KernelBuffer<Place>(static_cast<std::size_t>(x_.extent > 0 ? x_.extent : 1), __LINE__, kSourceFile);
    rows_ =
        KernelBuffer<Place>(static_cast<std::size_t>(y_.extent > 0 ? y_.extent : 1), __LINE__, kSourceFile);
    if (bins_ == 256) counts_ = KernelBuffer<uint32_t>(256, __LINE__, kSourceFile);
    if (!values_ || !prefix_ || !curve_ || !columns_ || !rows_ || (bins_ == 256 && !counts_))
      return RC_NO_MEMORY;
    Fill(x_, columns_.get());
    Fill(y_, rows_.get());
    return RC_SUCCESS;
  }

  // The place of an image column or row (inside the rectangle).
  const Place &Column(int32_t px) const { return columns_[static_cast<std::size_t>(px - x_.start)]; }
  const Place &Row(int32_t py) const { return rows_[static_cast<std::size_t>(py - y_.start)]; }
  // Adds the value v of plane c of the pixel at that column and row.
  void Add(const Place &col, const Place &row, int32_t c, uint32_t v) {
    Push(col.holderA, row.holderA, c, v);
    if (col.holderB >= 0) Push(col.holderB, row.holderA, c, v);
    if (row.holderB >= 0) {
      Push(col.holderA, row.holderB, c, v);
      if (col.holderB >= 0) Push(col.holderB, row.holderB, c, v);
    }
  }

  // Sorts every tile's values and turns them into its curve.
  void Build() {
    for (std::size_t i = 0; i < curves_; ++i) BuildCurve(i);
  }

  // The blended, rounded value of v in plane c.
  uint32_t Map(const Place &col, const Place &row, int32_t c, uint32_t v) const {
    const double m00 = Evaluate(col.lo, row.lo, c, v), m10 = Evaluate(col.hi, row.lo, c, v);
    const double m01 = Evaluate(col.lo, row.hi, c, v), m11 = Evaluate(col.hi, row.hi, c, v);
    const double upper = m00 + col.w * (m10 - m00);
    const double lower = m01 + col.w * (m11 - m01);
    const double value = upper + row.w * (lower - upper) + 0.5;
    const double top = bins_ - 1;
    return static_cast<uint32_t>(value < 0.0 ? 0.0 : value > top ? top : value);
  }

 private:
  static void Fill(const Axis &axis, Place *places) {
    int32_t i = 0;
    for (int32_t p = 0; p < axis.extent; ++p) {
      Place &place = places[p];
      axis.Holders(p, &place.holderA, &place.holderB);
      axis.Between(p, i, &place.lo, &place.hi, &place.w);
    }
  }
  std::size_t Index(int32_t tx, int32_t ty, int32_t c) const {
    return (static_cast<std::size_t>(ty) * x_.count + tx) * planes_ + c;
  }
  void Push(int32_t tx, int32_t ty, int32_t c, uint32_t v) {
    const std::size_t i = Index(tx, ty, c);
    values_[i * capacity_ + curve_[i].pixels++] = static_cast<uint16_t>(v);
  }

  void BuildCurve(std::size_t i) {
    Curve &curve = curve_[i];
    const uint32_t n = curve.pixels;
    uint16_t *values = values_.get() + i * capacity_;
    uint32_t *prefix = prefix_.get() + i * capacity_;
    if (n == 0) return;
    if (bins_ == 256) {  // counting sort
      uint32_t *counts = counts_.get();
      std::fill(counts, counts + 256, 0u);
      for (uint32_t k = 0; k < n; ++k) ++counts[values[k]];
      uint32_t at = 0;
      for (uint32_t v = 0; v < 256; ++v)
        for (uint32_t k = 0; k < counts[v]; ++k) values[at++] = static_cast<uint16_t>(v);
    } else {
      std::sort(values, values + n);
    }
    const uint64_t limit64 =
        clip_ == 0 ? n : static_cast<uint64_t>(clip_) * n / (10u * static_cast<uint64_t>(bins_));
    const uint32_t limit = static_cast<uint32_t>(limit64 < 1 ? 1 : limit64 > n ? n : limit64);
    uint32_t distinct = 0, sum = 0, excess = 0;
    for (uint32_t k = 0; k < n;) {
      uint32_t run = 1;
      while (k + run < n && values[k + run] == values[k]) ++run;
      const uint32_t kept = run < limit ? run : limit;
      excess += run - kept;
      sum += kept;
      values[distinct] = values[k];
      prefix[distinct++] = sum;
      k += run;
    }
    curve.distinct = distinct;
    curve.excessPerBin = static_cast<double>(excess) / bins_;
    curve.scale = static_cast<double>(bins_ - 1) / n;
  }

  double Evaluate(int32_t tx, int32_t ty, int32_t c, uint32_t v) const {
    const std::size_t i = Index(tx, ty, c);
    const Curve &curve = curve_[i];
    if (curve.pixels == 0) return v;
    const uint16_t *values = values_.get() + i * capacity_;
    // Values <= v: a binary search without branches on the data (the
    // comparisons of random samples would mispredict at every step).
    const uint16_t *base = values;
    for (uint32_t n = curve.distinct; n > 1;) {
      const uint32_t half = n / 2;
      base = base[half] <= v ? base + half : base;
      n -= half;
    }
    const uint32_t at = static_cast<uint32_t>(base - values) + (*base <= v ? 1u : 0u);
    const double below = at ? prefix_[i * capacity_ + at - 1] : 0u;
    return (below + curve.excessPerBin * (v + 1.0)) * curve.scale;
  }

  Axis x_, y_;
  int32_t planes_, bins_;
  uint32_t clip_;
  std::size_t capacity_ = 0, curves_ = 0;
  KernelBuffer<uint16_t> values_;
  KernelBuffer<uint32_t> prefix_;
  KernelBuffer<Curve> curve_;
  KernelBuffer<Place> columns_, rows_;
  KernelBuffer<uint32_t> counts_;
};

int32_t Equalize(BitmapRecord *bitmap, int32_t tileWidth, int32_t tileHeight, uint32_t clip, bool luminance) {
  RowPass pass(bitmap,
               RowSetup{.progress = {0, 50, true}, .write = false, .progressAt = ProgressPoint::AfterRow});
  if (pass.status() != RC_SUCCESS) return pass.status();
  Rect bounds{};
  if (const int32_t status = ::GetRegionBounds(bitmap, nullptr, &bounds); status != RC_SUCCESS) return status;
  const int32_t bins = pass.wide() ? 65536 : 256;
  const int32_t top = bins - 1;
  const bool gray = pass.channels() < 3;
  const int32_t planes = gray || luminance ? 1 : 3;
  const bool luma = luminance && !gray;
  LocalEqualizer eq(Axis(bounds.Left, bounds.Right - bounds.Left, tileWidth),
                    Axis(bounds.Top, bounds.Bottom - bounds.Top, tileHeight), planes, bins, clip);
  if (const int32_t status = eq.Allocate(); status != RC_SUCCESS) return status;
  int32_t status = pass.RunRows([&](auto &row) {
    const Place &place = eq.Row(row.y);
    row.ForEachRun([&](int32_t left, int32_t right) {
      const auto *p = row.Pixel(left);
      for (int32_t x = left; x < right; ++x, p += row.channels) {
        const Place &col = eq.Column(x);
        if (luma)
          eq.Add(col, place, 0, static_cast<uint32_t>(LumaForward(p[2], p[1], p[0], top).y));
        else
          for (int32_t c = 0; c < planes; ++c) eq.Add(col, place, c, p[c]);
      }
    });
  });
  if (status != RC_SUCCESS) return status;
  eq.Build();
  pass.SetWalk({50, 100, true}, true);
  return pass.RunRows([&](auto &row) {
    using T = std::remove_reference_t<decltype(*row.samples)>;
    const Place &place = eq.Row(row.y);
    row.ForEachRun([&](int32_t left, int32_t right) {
      T *p = row.Pixel(left);
      for (int32_t x = left; x < right; ++x, p += row.channels) {
        const Place &col = eq.Column(x);
        if (!luma) {
          for (int32_t c = 0; c < planes; ++c) p[c] = static_cast<T>(eq.Map(col, place, c, p[c]));
          continue;
        }
        YuvPixel yuv = LumaForward(p[2], p[1], p[0], top);
        yuv.y = static_cast<int32_t>(eq.Map(col, place, 0, static_cast<uint32_t>(yuv.y)));
        int32_t r, g, b;
        LumaBack(yuv, top, &r, &g, &b);
        p[0] = static_cast<T>(b);
        p[1] = static_cast<T>(g);
        p[2] = static_cast<T>(r);
      }
    });
  });
}

}  // namespace

}  // namespace img

extern "C" IMG_API int32_t Q_LocalHistoEqualizeBitmap(BitmapRecord *bitmap, uint32_t tileWidth,
                                                      uint32_t tileHeight, uint32_t clipLimit, uint32_t mode,
                                                      uint32_t flags) {
  if (const int32_t status = img::CheckEntry(img::kEntry, flags, bitmap)) return status;
  namespace R = img::ranges;
  // A tile is at most the bitmap's size; a bitmap under 8 pixels takes tiles
  // of 8, cut to it.
  if (!R::kLocalTile.Contains(tileWidth) || !R::kLocalTile.Contains(tileHeight) ||
      static_cast<int64_t>(tileWidth) > std::max(bitmap->Width, 8) ||
      static_cast<int64_t>(tileHeight) > std::max(bitmap->Height, 8) || !R::kLocalClip.Contains(clipLimit) ||
      (clipLimit > 0 && clipLimit < 10) || !R::kLocalMode.Contains(mode))
    return RC_INVALID_PARAMETER;
  return img::Equalize(bitmap, static_cast<int32_t>(tileWidth), static_cast<int32_t>(tileHeight), clipLimit,
                       mode == LOCALEQ_LUMINANCE);
}
