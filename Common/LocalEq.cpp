// Local (contrast-limited adaptive) histogram equalisation.
//
// The region's bounding rectangle is cut into tiles of the given size (cut
// to the rectangle when it is smaller); when the size does not divide the
// rectangle, the last tile of a row or column is moved back to end at the
// rectangle's edge, overlapping its neighbour, so that every tile holds the
// same number of pixels. A tile's curve over its n pixels inside the region:
//   map(v) = (P(v) + E / N * (v + 1)) * T / n
// with N the bins (256 or 65536), T the top sample value, P(v) the count of
// values <= v with every value's count clipped at the limit
// L = max(1, clip * n / (10 N)) (no clipping for clip 0) and E the clipped
// excess, spread evenly over the bins. A tile without pixels maps v to v.
// A pixel takes the bilinear blend of the curves of the four nearest tile
// centres (one or two at the edges), rounded to nearest.
//
// Two courses, the same results (docs/channels.md). Tile rows (tiles of
// fewer than N pixels): the first walk keeps the samples of the rectangle
// (one plane per channel, or the luma); the second builds the curves of one
// row of tiles at a time, when the rows being mapped first need them, and
// keeps two such rows. An 8-bit curve is a table of its 256 values; a 16-bit
// one keeps its tile's sorted distinct values with their clipped prefix
// counts and is evaluated by binary search (a table of 65536 values per tile
// would cost more than its pixels). Dense (tiles of at least N pixels): the
// first walk counts every tile, all curves are built at once (16-bit: the
// clipped prefix of every value) and the second walk maps. Either way a
// pixel costs the same whatever the tile size.
#include "LocalEq.h"

#include <algorithm>
#include <cstring>
#include <type_traits>

#include "curves.h"
#include "frame.h"

namespace img::localeq {

namespace {

static constexpr const wchar_t *kSourceFile = L"Common/LocalEq";

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

// A row of the rectangle: the tile rows whose centres it lies between.
struct Place {
  int32_t lo, hi;
  double w;
};

// Where each column and row of the rectangle sits between tile centres: the
// table offsets (tile index times `stride`) of the tiles on each side of a
// column with the weight of the right one, and each row's Place.
void PlaceColumnsAndRows(const Axis &x, const Axis &y, int32_t stride, int32_t *left, int32_t *right,
                         double *weight, Place *rows) {
  for (int32_t p = 0, i = 0; p < x.extent; ++p) {
    int32_t lo, hi;
    x.Between(p, i, &lo, &hi, &weight[p]);
    left[p] = lo * stride;
    right[p] = hi * stride;
  }
  for (int32_t p = 0, i = 0; p < y.extent; ++p) y.Between(p, i, &rows[p].lo, &rows[p].hi, &rows[p].w);
}

// A 16-bit curve: its tile's sorted distinct values and clipped prefixes.
struct Curve {
  uint32_t distinct = 0;
  uint32_t pixels = 0;
  double excessPerBin = 0.0;
  double scale = 0.0;  // T / pixels
};

// The clip limit of a tile of n pixels.
uint32_t Limit(uint32_t clip, uint32_t n, uint32_t bins) {
  const uint64_t limit =
      clip == 0 ? n : static_cast<uint64_t>(clip) * n / (10u * static_cast<uint64_t>(bins));
  return static_cast<uint32_t>(limit < 1 ? 1 : limit > n ? n : limit);
}

template <class T>
class LocalEqualizer {
  static constexpr bool kWide = std::is_same_v<T, uint16_t>;
  static constexpr uint32_t kBins = kWide ? 65536u : 256u;

 public:
  LocalEqualizer(Isa isa, const Axis &x, const Axis &y, int32_t planes, uint32_t clip, bool masked)
      : isa_(isa), x_(x), y_(y), planes_(planes), clip_(clip), masked_(masked) {
    width_ = static_cast<std::size_t>(x.extent > 0 ? x.extent : 0);
    height_ = static_cast<std::size_t>(y.extent > 0 ? y.extent : 0);
    tiles_ = static_cast<std::size_t>(x.count) * static_cast<std::size_t>(planes);
    capacity_ = static_cast<std::size_t>(x.tile) * static_cast<std::size_t>(y.tile);
  }

  int32_t Allocate() {
    const std::size_t area = std::max<std::size_t>(width_ * height_, 1);
    samples_ = KernelBuffer<T>(area * planes_, __LINE__, kSourceFile);
    if (masked_) mask_ = KernelBuffer<uint8_t>(area, __LINE__, kSourceFile);
    const std::size_t columns = std::max<std::size_t>(width_, 1);
    left_ = KernelBuffer<int32_t>(columns, __LINE__, kSourceFile);
    right_ = KernelBuffer<int32_t>(columns, __LINE__, kSourceFile);
    weight_ = KernelBuffer<double>(columns, __LINE__, kSourceFile);
    rows_ = KernelBuffer<Place>(std::max<std::size_t>(height_, 1), __LINE__, kSourceFile);
    bool tables = true;
    for (Slot &slot : slots_) {
      if constexpr (kWide) {
        slot.values = KernelBuffer<uint16_t>(tiles_ * capacity_, __LINE__, kSourceFile);
        slot.prefix = KernelBuffer<uint32_t>(tiles_ * capacity_, __LINE__, kSourceFile);
        slot.curves = KernelBuffer<Curve>(tiles_, __LINE__, kSourceFile);
        tables = tables && slot.values && slot.prefix && slot.curves;
      } else {
        slot.table = KernelBuffer<double>(tiles_ * kBins, __LINE__, kSourceFile);
        tables = tables && slot.table;
      }
    }
    if (!kWide) counts_ = KernelBuffer<uint32_t>(kBins, __LINE__, kSourceFile);
    if (!samples_ || (masked_ && !mask_) || !left_ || !right_ || !weight_ || !rows_ || !tables ||
        (!kWide && !counts_))
      return RC_NO_MEMORY;
    if (masked_) std::memset(mask_.get(), 0, area);
    // Columns: the tables (8-bit) or curves (16-bit) of the tiles around each.
    PlaceColumnsAndRows(x_, y_, planes_ * static_cast<int32_t>(kWide ? 1u : kBins), left_.get(), right_.get(),
                        weight_.get(), rows_.get());
    return RC_SUCCESS;
  }

  // The first walk: keeps the samples of image columns left..right of row
  // py (each plane, or the luma) and marks them in the mask.
  void Keep(int32_t py, int32_t left, int32_t right, const T *p, int32_t channels, bool luma) {
    constexpr int32_t top = kBins - 1;
    const std::size_t at = static_cast<std::size_t>(py - y_.start) * width_ + (left - x_.start);
    if (masked_) std::memset(mask_.get() + at, 1, static_cast<std::size_t>(right - left));
    T *kept = samples_.get() + at;
    const std::size_t plane = height_ * width_;
    for (int32_t k = 0; k < right - left; ++k, p += channels) {
      if (luma)
        kept[k] = static_cast<T>(LumaForward(p[2], p[1], p[0], top).y);
      else
        for (int32_t c = 0; c < planes_; ++c) kept[c * plane + k] = p[c];
    }
  }

  const Place &Row(int32_t py) const { return rows_[static_cast<std::size_t>(py - y_.start)]; }
  void Reach(int32_t) {}

  // Maps plane c's samples from column `left` to `right` (image columns) of
  // a row whose tile rows are ready (Prepare), `step` samples apart.
  template <class Sample>
  void MapRun(Isa isa, const Place &row, int32_t c, Sample *p, int32_t step, int32_t left, int32_t right) {
    const Slot &up = slots_[Find(row.lo)], &down = slots_[Find(row.hi)];
    const int32_t first = left - x_.start, count = right - left;
    const int32_t *l = left_.get() + first, *r = right_.get() + first;
    const double *w = weight_.get() + first;
    if constexpr (!kWide) {
      const double *a = up.table.get() + c * kBins, *b = down.table.get() + c * kBins;
      if (step == 1) {
        const GrayRun8 run{p, count, l, r, w, a, b, row.w};
        int32_t done = 0;
        if (isa >= Isa::Avx512)
          done = MapGray8Avx512(run);
        else if (isa >= Isa::Avx2)
          done = MapGray8Avx2(run);
        MapGray8Scalar(run, done);
        return;
      }
      for (int32_t k = 0; k < count; ++k, p += step) {
        const uint32_t v = *p;
        *p = static_cast<Sample>(
            Blend(a[l[k] + v], a[r[k] + v], b[l[k] + v], b[r[k] + v], w[k], row.w, kBins - 1.0));
      }
    } else {
      for (int32_t k = 0; k < count; ++k, p += step) {
        const uint32_t v = *p;
        const int32_t lc = l[k] + c, rc = r[k] + c;
        *p = static_cast<Sample>(Blend(Evaluate(up, lc, v), Evaluate(up, rc, v), Evaluate(down, lc, v),
                                       Evaluate(down, rc, v), w[k], row.w, kBins - 1.0));
      }
    }
  }

  // The blended, rounded value of v in plane c at image column px.
  uint32_t Map(const Place &row, int32_t px, int32_t c, uint32_t v) {
    T sample = static_cast<T>(v);
    MapRun(Isa::Scalar, row, c, &sample, 1, px, px + 1);
    return sample;
  }

  // Builds the curves of the tile rows a row lies between, when not built.
  void Finish() {}

  void Prepare(const Place &row) {
    if (width_ == 0 || height_ == 0) return;
    Build(row.lo);
    Build(row.hi);
  }

 private:
  struct Slot {
    int32_t tileRow = -1;
    KernelBuffer<double> table;  // 8-bit: 256 values a tile and plane
    KernelBuffer<uint16_t> values;
    KernelBuffer<uint32_t> prefix;
    KernelBuffer<Curve> curves;
  };

  std::size_t Find(int32_t tileRow) const { return slots_[0].tileRow == tileRow ? 0 : 1; }

  // Tile rows are asked for in increasing order: the older slot takes a new one.
  void Build(int32_t tileRow) {
    if (slots_[0].tileRow == tileRow || slots_[1].tileRow == tileRow) return;
    Slot &slot = slots_[slots_[0].tileRow < slots_[1].tileRow ? 0 : 1];
    slot.tileRow = tileRow;
    for (int32_t i = 0; i < x_.count; ++i)
      for (int32_t c = 0; c < planes_; ++c) BuildTile(slot, i, tileRow, c);
  }

  // fn(v) for every value of plane c of tile (tx, ty) inside the region.
  template <class Fn>
  void ForTile(int32_t tx, int32_t ty, int32_t c, Fn &&fn) {
    const std::size_t left = static_cast<std::size_t>(x_.TileStart(tx));
    const int32_t top = y_.TileStart(ty);
    for (int32_t yy = top; yy < top + y_.tile; ++yy) {
      const T *s = samples_.get() + (static_cast<std::size_t>(c) * height_ + yy) * width_ + left;
      if (!masked_) {
        for (int32_t k = 0; k < x_.tile; ++k) fn(s[k]);
        continue;
      }
      const uint8_t *m = mask_.get() + static_cast<std::size_t>(yy) * width_ + left;
      for (int32_t k = 0; k < x_.tile; ++k)
        if (m[k]) fn(s[k]);
    }
  }

  void BuildTile(Slot &slot, int32_t tx, int32_t ty, int32_t c) {
    const std::size_t index = static_cast<std::size_t>(tx) * planes_ + c;
    if constexpr (!kWide) {
      uint32_t *counts = counts_.get();
      std::fill(counts, counts + kBins, 0u);
      uint32_t n = 0;
      ForTile(tx, ty, c, [&](uint32_t v) {
        ++counts[v];
        ++n;
      });
      double *table = slot.table.get() + index * kBins;
      if (n == 0) {
        for (uint32_t v = 0; v < kBins; ++v) table[v] = v;
        return;
      }
      if (isa_ >= Isa::Avx512)
        BuildTable8Avx512(counts, Limit(clip_, n, kBins), n, table);
      else
        BuildTable8Scalar(counts, Limit(clip_, n, kBins), n, table);
    } else {
      Curve &curve = slot.curves[index];
      uint16_t *values = slot.values.get() + index * capacity_;
      uint32_t *prefix = slot.prefix.get() + index * capacity_;
      uint32_t n = 0;
      ForTile(tx, ty, c, [&](uint16_t v) { values[n++] = v; });
      curve.pixels = n;
      if (n == 0) return;
      std::sort(values, values + n);
      const uint32_t limit = Limit(clip_, n, kBins);
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
      curve.excessPerBin = static_cast<double>(excess) / kBins;
      curve.scale = static_cast<double>(kBins - 1) / n;
    }
  }

  double Evaluate(const Slot &slot, int32_t index, uint32_t v) const {
    const Curve &curve = slot.curves[static_cast<std::size_t>(index)];
    if (curve.pixels == 0) return v;
    const uint16_t *values = slot.values.get() + static_cast<std::size_t>(index) * capacity_;
    // Values <= v: a binary search without branches on the data (the
    // comparisons of random samples would mispredict at every step).
    const uint16_t *base = values;
    for (uint32_t n = curve.distinct; n > 1;) {
      const uint32_t half = n / 2;
      base = base[half] <= v ? base + half : base;
      n -= half;
    }
    const uint32_t at = static_cast<uint32_t>(base - values) + (*base <= v ? 1u : 0u);
    const double below = at ? slot.prefix[static_cast<std::size_t>(index) * capacity_ + at - 1] : 0u;
    return (below + curve.excessPerBin * (v + 1.0)) * curve.scale;
  }

  Isa isa_;
  Axis x_, y_;
  int32_t planes_;
  uint32_t clip_;
  bool masked_;
  std::size_t width_ = 0, height_ = 0, tiles_ = 0, capacity_ = 0;
  KernelBuffer<T> samples_;
  KernelBuffer<uint8_t> mask_;
  KernelBuffer<int32_t> left_, right_;
  KernelBuffer<double> weight_;
  KernelBuffer<Place> rows_;
  KernelBuffer<uint32_t> counts_;
  Slot slots_[2];
};

// The course for tiles of at least N pixels: the first walk counts every
// tile's values straight from the rows (no copy of the samples, no mask: the
// walk visits only the region), the curves of all tiles are built once, and
// the second walk maps the rows in place. The counts are at most four (16-bit)
// or eight (8-bit, two tables) a sample of the rectangle (N counts a tile of
// at least N pixels; a pixel lies in at most four tiles).
template <class T>
class DenseEqualizer {
  static constexpr bool kWide = std::is_same_v<T, uint16_t>;
  static constexpr uint32_t kBins = kWide ? 65536u : 256u;

 public:
  DenseEqualizer(Isa isa, const Axis &x, const Axis &y, int32_t planes, uint32_t clip)
      : isa_(isa), x_(x), y_(y), planes_(planes), clip_(clip) {
    width_ = static_cast<std::size_t>(x.extent > 0 ? x.extent : 0);
    height_ = static_cast<std::size_t>(y.extent > 0 ? y.extent : 0);
    tiles_ = static_cast<std::size_t>(x.count) * static_cast<std::size_t>(y.count) *
             static_cast<std::size_t>(planes);
  }

  int32_t Allocate() {
    // Stored 16-bit rows: three rows of tiles (Reach), else every tile.
    const std::size_t counted = stored_ != nullptr ? static_cast<std::size_t>(slots_) * x_.count : tiles_;
    if (offsets16_) {
      // 32 entries past the end: a 32-bit gather of the last entry reads two.
      offsets_ = KernelBuffer<uint16_t>(counted * kBins + 32, __LINE__, kSourceFile);
      bases_ = KernelBuffer<uint32_t>(counted * kBlocks, __LINE__, kSourceFile);
      if (!offsets_ || !bases_) return RC_NO_MEMORY;
    } else {
      counts_ = KernelBuffer<uint32_t>(counted * (kWide ? kBins : 2 * kBins), __LINE__, kSourceFile);
      if (!counts_) return RC_NO_MEMORY;
    }
    if constexpr (kWide)
      curves_ = KernelBuffer<TileCurve>(tiles_, __LINE__, kSourceFile);
    else {
      tables_ = KernelBuffer<double>(tiles_ * kBins, __LINE__, kSourceFile);
      approx_ = KernelBuffer<uint8_t>(static_cast<std::size_t>(x_.count) * 2 * kBins, __LINE__, kSourceFile);
    }
    const std::size_t columns = std::max<std::size_t>(width_, 1);
    plane_ = KernelBuffer<T>(columns, __LINE__, kSourceFile);
    left_ = KernelBuffer<int32_t>(columns, __LINE__, kSourceFile);
    right_ = KernelBuffer<int32_t>(columns, __LINE__, kSourceFile);
    weight_ = KernelBuffer<double>(columns, __LINE__, kSourceFile);
    weightf_ = KernelBuffer<float>(columns, __LINE__, kSourceFile);
    rows_ = KernelBuffer<Place>(std::max<std::size_t>(height_, 1), __LINE__, kSourceFile);
    if ((kWide ? !curves_ : !tables_ || !approx_) || !plane_ || !left_ || !right_ || !weight_ || !weightf_ ||
        !rows_)
      return RC_NO_MEMORY;
    // Columns: offsets of the tables of the tiles around each in a row of
    // tiles (8-bit), or their tile columns (16-bit).
    PlaceColumnsAndRows(x_, y_, kWide ? 1 : planes_ * static_cast<int32_t>(kBins), left_.get(), right_.get(),
                        weight_.get(), rows_.get());
    for (int32_t p = 0; p < x_.extent; ++p) weightf_[p] = static_cast<float>(weight_[p]);
    return RC_SUCCESS;
  }

  // The first walk: counts the samples of image columns left..right of row
  // py (each plane, or the luma) in the tiles that hold them.
  void Keep(int32_t py, int32_t left, int32_t right, const T *p, int32_t channels, bool luma) {
    constexpr int32_t top = kBins - 1;
    if (stored_ != nullptr) return;  // counted from the stored rows (Reach)
    const int32_t count = right - left, rel = py - y_.start, a = left - x_.start;
    for (int32_t c = 0; c < planes_; ++c) {
      const T *s = p;
      if (channels > 1) {
        T *plane = plane_.get();
        for (int32_t k = 0; k < count; ++k) {
          const T *q = p + static_cast<std::ptrdiff_t>(k) * channels;
          plane[k] = luma ? static_cast<T>(LumaForward(q[2], q[1], q[0], top).y) : q[c];
        }
        s = plane;
      }
      const int32_t ty = rel / y_.tile;
      if (ty < y_.count - 1) CountRow(ty, c, a, a + count, s);
      if (rel >= y_.extent - y_.tile) CountRow(y_.count - 1, c, a, a + count, s);
    }
  }

  // Builds every tile's curve from its counts.
  void Finish() {
    if constexpr (!kWide) {
      for (std::size_t t = 0; t < tiles_; ++t) {
        uint32_t *counts = counts_.get() + t * 2 * kBins;
        uint32_t n = 0;
        for (uint32_t v = 0; v < kBins; ++v) n += counts[v] += counts[kBins + v];
        double *table = tables_.get() + t * kBins;
        if (n == 0)
          for (uint32_t v = 0; v < kBins; ++v) table[v] = v;
        else if (isa_ >= Isa::Avx512)
          BuildTable8Avx512(counts, Limit(clip_, n, kBins), n, table);
        else
          BuildTable8Scalar(counts, Limit(clip_, n, kBins), n, table);
      }
    } else {
      if (stored_ == nullptr)
        for (int32_t b = 0; b < y_.count * planes_; ++b)
          Prefix(b, counts_.get() + static_cast<std::size_t>(b) * kBins * x_.count);
    }
  }

  // 16-bit gray without a region whose working rows are the stored rows:
  // each row of tiles is counted from the stored rows just before the
  // second walk maps its first row or a row that needs its curves (Reach),
  // into one of two or three slots. A pixel at row y needs the tile rows
  // lo(y) and lo(y) + 1; the last tile row, moved back to the edge, may start
  // before y, so at most lo(y)..lo(y) + 2 are live (two when the tile height
  // divides the rows: no tile row then starts above the centre of the one
  // before it). The counts are those of the first walk (the rows are still
  // unmapped). The slots lie value by value, side by side (stride_), so the
  // four prefixes of a pixel are in one cache line for eight tile columns
  // and two slots.
  void UseStoredRows(BitmapRecord *bitmap) {
    if constexpr (kWide)
      if (planes_ == 1 && bitmap->Pixels != nullptr && bitmap->BitsPerPixel == 16 &&
          ::BitmapHasRegion(bitmap) == 0 && PlainWorkingRow(bitmap, ROW_LAYOUT_NATIVE) && x_.start == 0 &&
          y_.start == 0 && x_.extent == bitmap->Width && y_.extent == bitmap->Height) {
        stored_ = bitmap;
        slots_ = std::min(y_.count, y_.extent % y_.tile == 0 ? 2 : 3);
        stride_ = slots_ * x_.count;
        // Clipped counts of at most 15: the prefixes of 4096 values span at
        // most 61440, so they fit 16-bit offsets from a base every 4096
        // values (half the memory, and half the lines, of 32-bit prefixes;
        // sixteen bases a tile).
        offsets16_ = Limit(clip_, TilePixels(), kBins) <= 15;
      }
  }

  // Every tile's pixels on stored rows (no region: the whole tile).
  uint32_t TilePixels() const { return static_cast<uint32_t>(x_.tile) * static_cast<uint32_t>(y_.tile); }

  // Before the second walk maps row y: the tile rows it needs, and those that
  // start at or above it, counted.
  void Reach(int32_t y) {
    if constexpr (kWide) {
      if (stored_ == nullptr) return;
      const Place &place = Row(y);
      while (counted_ < y_.count && (counted_ <= place.hi || y_.TileStart(counted_) <= y - y_.start)) {
        const int32_t ty = counted_++;
        if (offsets16_) {
          CountOffsets(ty);
          continue;
        }
        uint32_t *slot = Slot(ty);
        // The tile columns of a value lie side by side: one fill each.
        const std::size_t columns = static_cast<std::size_t>(x_.count),
                          stride = static_cast<std::size_t>(stride_);
        for (std::size_t v = 0; v < kBins; ++v) std::fill_n(slot + v * stride, columns, 0u);
        for (int32_t r = y_.TileStart(ty); r < y_.TileStart(ty) + y_.tile; ++r) {
          const auto *s = reinterpret_cast<const uint16_t *>(ImageRow(stored_, y_.start + r));
          for (int32_t tx = 0; tx < x_.count; ++tx)
            Histogram16(s + x_.TileStart(tx), x_.tile, slot + tx, stride_);
        }
        Prefix(ty, slot, TilePixels());
      }
    }
  }

  // Tile row ty counted into its slot of 16-bit entries and turned into
  // offsets. The counts wrap past 65535; a tile whose wrapped counts do not
  // add up to its pixels (a value seen 65536 times or more) is counted again
  // with counts that stop at 65535, which clip to the same min(count, limit)
  // (limit <= 15) and so give the same prefixes.
  void CountOffsets(int32_t ty) {
    uint16_t *slot = offsets_.get() + static_cast<std::size_t>(ty % slots_) * x_.count;
    const std::size_t columns = static_cast<std::size_t>(x_.count),
                      stride = static_cast<std::size_t>(stride_);
    for (std::size_t v = 0; v < kBins; ++v) std::fill_n(slot + v * stride, columns, uint16_t{0});
    for (int32_t r = y_.TileStart(ty); r < y_.TileStart(ty) + y_.tile; ++r) {
      const auto *s = reinterpret_cast<const uint16_t *>(ImageRow(stored_, y_.start + r));
      for (int32_t tx = 0; tx < x_.count; ++tx) Histogram16(s + x_.TileStart(tx), x_.tile, slot + tx, stride);
    }
    for (int32_t first = 0; first < x_.count; first += kOffsetChunk) {
      const int32_t width = std::min(kOffsetChunk, x_.count - first);
      uint32_t wrapped = Offsets(ty, first, width, true);
      for (; wrapped != 0; wrapped &= wrapped - 1) {
        const int32_t tx = first + __builtin_ctz(wrapped);
        for (std::size_t v = 0; v < kBins; ++v) slot[v * stride + tx] = 0;
        for (int32_t r = y_.TileStart(ty); r < y_.TileStart(ty) + y_.tile; ++r) {
          const auto *s =
              reinterpret_cast<const uint16_t *>(ImageRow(stored_, y_.start + r)) + x_.TileStart(tx);
          for (int32_t k = 0; k < x_.tile; ++k) {
            uint16_t &count = slot[s[k] * stride + tx];
            count = static_cast<uint16_t>(count + (count != 65535 ? 1 : 0));
          }
        }
        Offsets(ty, tx, 1, false);
      }
    }
  }

  // The counts of tile columns first..first + width - 1 of tile row ty become
  // the offsets and bases of their clipped prefixes (the integers of Prefix)
  // and their curves. With `check`, returns the columns (bits from `first`)
  // whose counts do not add up to the tile's pixels, left for a recount.
  uint32_t Offsets(int32_t ty, int32_t first, int32_t width, bool check) {
    const uint32_t n = TilePixels(), limit = Limit(clip_, n, kBins);
    const std::size_t stride = static_cast<std::size_t>(stride_),
                      at = static_cast<std::size_t>(ty % slots_) * x_.count + first;
    uint16_t *offsets = offsets_.get() + at;
    uint32_t *bases = bases_.get() + at * kBlocks;
    uint32_t sum[kOffsetChunk] = {}, total[kOffsetChunk] = {}, base[kOffsetChunk] = {};
    for (uint32_t v = 0; v < kBins; ++v) {
      if (v % (kBins / kBlocks) == 0)
        for (int32_t k = 0; k < width; ++k) bases[k * kBlocks + v / (kBins / kBlocks)] = base[k] = sum[k];
      uint16_t *out = offsets + v * stride;
      for (int32_t k = 0; k < width; ++k) {
        const uint32_t count = out[k];
        total[k] += count;
        sum[k] += count < limit ? count : limit;
        out[k] = static_cast<uint16_t>(sum[k] - base[k]);
      }
    }
    uint32_t wrapped = 0;
    for (int32_t k = 0; k < width; ++k) {
      if (check && total[k] != n) {
        wrapped |= 1u << k;
        continue;
      }
      TileCurve &curve = curves_[static_cast<std::size_t>(ty) * x_.count + first + k];
      curve.pixels = n;
      curve.excessPerBin = static_cast<double>(n - sum[k]) / kBins;
      curve.scale = static_cast<double>(kBins - 1) / n;
    }
    return wrapped;
  }

  // The counts of block b (tile row and plane; the tile columns side by
  // side) become clipped prefixes: the sums of the sorted distinct values of
  // the other course, for every value. Sixteen tile columns at a time walk
  // the values once for their totals and once for the prefixes (the counts
  // of a value lie side by side); every tile's integers are those of a walk
  // of its own.
  // `pixels`, when not 0, is every tile's known total (stored rows: no
  // region, so each tile counts its whole area), which spares the walk over
  // the values for the totals.
  void Prefix(int32_t b, uint32_t *block, uint32_t pixels = 0) {
    if constexpr (kWide) {
      constexpr int32_t kChunk = 16;
      const std::size_t stride = static_cast<std::size_t>(stride_);
      for (int32_t first = 0; first < x_.count; first += kChunk) {
        const int32_t width = std::min(kChunk, x_.count - first);
        uint32_t *counts = block + first;
        uint32_t n[kChunk], limit[kChunk], sum[kChunk] = {}, excess[kChunk] = {};
        std::fill_n(n, kChunk, pixels);
        if (pixels == 0)
          for (uint32_t v = 0; v < kBins; ++v)
            for (int32_t k = 0; k < width; ++k) n[k] += counts[v * stride + k];
        for (int32_t k = 0; k < width; ++k) limit[k] = n[k] ? Limit(clip_, n[k], kBins) : 1;
        for (uint32_t v = 0; v < kBins; ++v)
          for (int32_t k = 0; k < width; ++k) {
            uint32_t &count = counts[v * stride + k];
            const uint32_t kept = count < limit[k] ? count : limit[k];
            excess[k] += count - kept;
            sum[k] += kept;
            count = sum[k];
          }
        for (int32_t k = 0; k < width; ++k) {
          TileCurve &curve = curves_[static_cast<std::size_t>(b) * x_.count + first + k];
          curve.pixels = n[k];
          curve.excessPerBin = static_cast<double>(excess[k]) / kBins;
          curve.scale = static_cast<double>(kBins - 1) / (n[k] ? n[k] : 1);
        }
      }
    }
  }

  // The counts of tile row ty (planes side by side).
  uint32_t *Slot(int32_t ty) {
    if (stored_ != nullptr) return counts_.get() + static_cast<std::size_t>(ty % slots_) * x_.count;
    return counts_.get() + static_cast<std::size_t>(ty) * planes_ * kBins * x_.count;
  }

  const Place &Row(int32_t py) const { return rows_[static_cast<std::size_t>(py - y_.start)]; }
  void Prepare(const Place &) {}

  // Maps plane c's samples from column `left` to `right` (image columns) of
  // a row, `step` samples apart.
  template <class Sample>
  void MapRun(Isa isa, const Place &row, int32_t c, Sample *p, int32_t step, int32_t left, int32_t right) {
    const int32_t first = left - x_.start, count = right - left;
    const int32_t *l = left_.get() + first, *r = right_.get() + first;
    const double *w = weight_.get() + first;
    const std::size_t tileRow = static_cast<std::size_t>(x_.count) * planes_;
    const std::size_t up = row.lo * tileRow, down = row.hi * tileRow;
    if constexpr (!kWide) {
      const double *a = tables_.get() + up * kBins + c * kBins, *b = tables_.get() + down * kBins + c * kBins;
      if (step == 1) {
        const GrayRun8 run{p, count, l, r, w, a, b, row.w};
        int32_t done = 0;
        if (isa >= Isa::Avx512 && planes_ == 1) {
          // The row's tables, once per row (the runs of a row share them).
          if (row.lo != approxLo_ || row.hi != approxHi_ || row.w != approxWeight_) {
            BuildRowTables8Avx512(a, b, x_.count, row.w, approx_.get());
            approxLo_ = row.lo;
            approxHi_ = row.hi;
            approxWeight_ = row.w;
          }
          done = MapGray8Avx512Certified(run, GrayApprox8{approx_.get(), weightf_.get() + first});
        } else if (isa >= Isa::Avx2)
          done = MapGray8Avx2(run);
        MapGray8Scalar(run, done);
        return;
      }
      for (int32_t k = 0; k < count; ++k, p += step) {
        const uint32_t v = *p;
        *p = static_cast<Sample>(
            Blend(a[l[k] + v], a[r[k] + v], b[l[k] + v], b[r[k] + v], w[k], row.w, kBins - 1.0));
      }
    } else {
      const std::size_t columns = static_cast<std::size_t>(x_.count);
      const std::size_t above = static_cast<std::size_t>(row.lo) * planes_ + c,
                        below = static_cast<std::size_t>(row.hi) * planes_ + c;
      GrayRun16 run{nullptr,
                    count,
                    l,
                    r,
                    w,
                    offsets16_ ? nullptr : Slot(row.lo) + c * kBins * columns,
                    offsets16_ ? nullptr : Slot(row.hi) + c * kBins * columns,
                    curves_.get() + above * columns,
                    curves_.get() + below * columns,
                    stride_,
                    row.w};
      if (offsets16_) {
        const std::size_t upper = static_cast<std::size_t>(row.lo % slots_) * columns,
                          lower = static_cast<std::size_t>(row.hi % slots_) * columns;
        run.upperOffsets = offsets_.get() + upper;
        run.lowerOffsets = offsets_.get() + lower;
        run.upperBases = bases_.get() + upper * kBlocks;
        run.lowerBases = bases_.get() + lower * kBlocks;
      }
      if (step == 1) {
        run.samples = p;
        const int32_t done = isa >= Isa::Avx512 && stride_ < 32768 ? MapGray16Avx512(run) : 0;
        for (int32_t k = done; k < count; ++k) p[k] = MapGray16One(run, k);
        return;
      }
      for (int32_t k = 0; k < count; ++k, p += step) {
        uint16_t v = *p;
        GrayRun16 one = run;
        one.samples = &v;
        one.left = l + k;
        one.right = r + k;
        one.weight = w + k;
        *p = MapGray16One(one, 0);
      }
    }
  }

  // The blended, rounded value of v in plane c at image column px.
  uint32_t Map(const Place &row, int32_t px, int32_t c, uint32_t v) {
    T sample = static_cast<T>(v);
    MapRun(Isa::Scalar, row, c, &sample, 1, px, px + 1);
    return sample;
  }

 private:
  // Counts the samples s of rectangle columns a..b in tile row ty.
  void CountRow(int32_t ty, int32_t c, int32_t a, int32_t b, const T *s) {
    const std::size_t block = static_cast<std::size_t>(ty) * planes_ + static_cast<std::size_t>(c);
    const auto count = [&](int32_t tx, int32_t from, int32_t to) {
      if constexpr (kWide)
        Histogram16(s + (from - a), to - from, counts_.get() + block * kBins * x_.count + tx, x_.count);
      else
        Histogram8(
            s + (from - a), to - from,
            counts_.get() + ((static_cast<std::size_t>(ty) * x_.count + tx) * planes_ + c) * 2 * kBins);
    };
    for (int32_t tx = a / x_.tile; tx < x_.count - 1 && tx * x_.tile < b; ++tx)
      count(tx, std::max(a, tx * x_.tile), std::min(b, (tx + 1) * x_.tile));
    const int32_t from = std::max(a, x_.extent - x_.tile);
    if (from < b) count(x_.count - 1, from, b);
  }

  // Two interleaved count tables (eight samples a step), so that runs of
  // equal samples do not wait on one counter.
  static void Histogram8(const uint8_t *s, int32_t n, uint32_t *counts) {
    uint32_t *odd = counts + kBins;
    int32_t k = 0;
    for (; k + 8 <= n; k += 8) {
      uint64_t w;
      std::memcpy(&w, s + k, 8);
      ++counts[w & 255];
      ++odd[(w >> 8) & 255];
      ++counts[(w >> 16) & 255];
      ++odd[(w >> 24) & 255];
      ++counts[(w >> 32) & 255];
      ++odd[(w >> 40) & 255];
      ++counts[(w >> 48) & 255];
      ++odd[w >> 56];
    }
    for (; k < n; ++k) ++counts[s[k]];
  }
  // The counts lie in megabytes: each is fetched 32 samples ahead, so that
  // the increments do not wait on one line after another. Kept out of line:
  // inlined into the walks, its loop ran out of registers.
  template <class Count>
  [[gnu::noinline]] static void Histogram16(const uint16_t *s, int32_t n, Count *counts,
                                            std::size_t columns) {
    constexpr int32_t kAhead = 32;
    const uint16_t *end = s + n;
    for (; s + kAhead < end; ++s) {
      __builtin_prefetch(counts + s[kAhead] * columns, 1);
      ++counts[*s * columns];
    }
    for (; s < end; ++s) ++counts[*s * columns];
  }

  Isa isa_;
  Axis x_, y_;
  int32_t planes_;
  uint32_t clip_;
  std::size_t width_ = 0, height_ = 0, tiles_ = 0;
  // 8-bit: two count tables a tile. 16-bit: per row of tiles and plane, the
  // counts of each value side by side for the tile columns, then the
  // clipped prefixes (GrayRun16).
  KernelBuffer<uint32_t> counts_;
  KernelBuffer<double> tables_;   // 8-bit: 256 values a tile
  KernelBuffer<uint8_t> approx_;  // 8-bit gray: the row's tables (GrayApprox8)
  int32_t approxLo_ = -1, approxHi_ = -1;
  double approxWeight_ = -1.0;
  KernelBuffer<TileCurve> curves_;  // 16-bit
  KernelBuffer<T> plane_;           // one plane (or the luma) of a run
  KernelBuffer<int32_t> left_, right_;
  KernelBuffer<double> weight_;
  KernelBuffer<float> weightf_;
  KernelBuffer<Place> rows_;
  BitmapRecord *stored_ = nullptr;  // 16-bit stored rows counted in slots (Reach)
  int32_t slots_ = 0;
  int32_t stride_ = x_.count;  // 16-bit counts a value (the slots' tile columns side by side)
  int32_t counted_ = 0;        // tile rows counted so far
  // Stored rows whose clip limit is at most 15: the prefixes as 16-bit
  // offsets from a base every 4096 values (GrayRun16), in the slots' layout.
  bool offsets16_ = false;
  static constexpr int32_t kOffsetChunk = 16;
  static constexpr std::size_t kBlocks = 16;  // bases a tile (GrayRun16)
  KernelBuffer<uint16_t> offsets_;
  KernelBuffer<uint32_t> bases_;
};

// The two walks of either course.
template <class T, class Eq>
int32_t Walk(Eq &eq, Isa isa, RowPass &pass, int32_t planes, bool luma) {
  constexpr int32_t top = std::is_same_v<T, uint16_t> ? 65535 : 255;
  if (const int32_t status = eq.Allocate(); status != RC_SUCCESS) return status;
  int32_t status = pass.RunRows([&](auto &row) {
    if constexpr (std::is_same_v<std::remove_reference_t<decltype(*row.samples)>, T>)
      row.ForEachRun([&](int32_t left, int32_t right) {
        eq.Keep(row.y, left, right, row.Pixel(left), row.channels, luma);
      });
  });
  if (status != RC_SUCCESS) return status;
  eq.Finish();
  pass.SetWalk({50, 100, true}, true);
  return pass.RunRows([&](auto &row) {
    if constexpr (std::is_same_v<std::remove_reference_t<decltype(*row.samples)>, T>) {
      eq.Reach(row.y);
      const Place &place = eq.Row(row.y);
      eq.Prepare(place);
      row.ForEachRun([&](int32_t left, int32_t right) {
        if (!luma) {
          for (int32_t c = 0; c < planes; ++c)
            eq.MapRun(isa, place, c, row.Pixel(left) + c, row.channels, left, right);
          return;
        }
        T *p = row.Pixel(left);
        for (int32_t x = left; x < right; ++x, p += row.channels) {
          YuvPixel yuv = LumaForward(p[2], p[1], p[0], top);
          yuv.y = static_cast<int32_t>(eq.Map(place, x, 0, static_cast<uint32_t>(yuv.y)));
          int32_t r, g, b;
          LumaBack(yuv, top, &r, &g, &b);
          p[0] = static_cast<T>(b);
          p[1] = static_cast<T>(g);
          p[2] = static_cast<T>(r);
        }
      });
    }
  });
}

template <class T>
int32_t Run(Isa isa, Course course, RowPass &pass, const Rect &bounds, int32_t tileWidth, int32_t tileHeight,
            uint32_t clip, bool luminance) {
  const bool gray = pass.channels() < 3;
  const int32_t planes = gray || luminance ? 1 : 3;
  const bool luma = luminance && !gray;
  const Axis x(bounds.Left, bounds.Right - bounds.Left, tileWidth),
      y(bounds.Top, bounds.Bottom - bounds.Top, tileHeight);
  constexpr int64_t bins = std::is_same_v<T, uint16_t> ? 65536 : 256;
  if (course == Course::Auto)
    course = static_cast<int64_t>(x.tile) * y.tile >= bins ? Course::Dense : Course::TileRows;
  if (course == Course::Dense) {
    DenseEqualizer<T> eq(isa, x, y, planes, clip);
    if (!luma) eq.UseStoredRows(pass.bitmap());
    return Walk<T>(eq, isa, pass, planes, luma);
  }
  LocalEqualizer<T> eq(isa, x, y, planes, clip, ::BitmapHasRegion(pass.bitmap()) != 0);
  return Walk<T>(eq, isa, pass, planes, luma);
}

}  // namespace

int32_t Equalize(Isa isa, BitmapRecord *bitmap, int32_t tileWidth, int32_t tileHeight, uint32_t clip,
                 bool luminance, Course course) {
  // Stored rows in place: the first walk only reads its rows, and the second
  // maps row y in place after counting what it needs from rows not yet mapped
  // (the converter's copies would be the same bytes).
  RowPass pass(bitmap, RowSetup{.progress = {0, 50, true},
                                .write = false,
                                .progressAt = ProgressPoint::AfterRow,
                                .storedRows = true});
  if (pass.status() != RC_SUCCESS) return pass.status();
  Rect bounds{};
  if (const int32_t status = ::GetRegionBounds(bitmap, nullptr, &bounds); status != RC_SUCCESS) return status;
  return pass.wide() ? Run<uint16_t>(isa, course, pass, bounds, tileWidth, tileHeight, clip, luminance)
                     : Run<uint8_t>(isa, course, pass, bounds, tileWidth, tileHeight, clip, luminance);
}

}  // namespace img::localeq

extern "C" IMG_API int32_t Q_LocalHistoEqualizeBitmap(BitmapRecord *bitmap, uint32_t tileWidth,
                                                      uint32_t tileHeight, uint32_t clipLimit, uint32_t mode,
                                                      uint32_t flags) {
  constexpr img::EntryRule kEntry{
      .flagsWord = true, .nullBitmap = img::NullBitmap::Refused, .signedData = true};
  if (const int32_t status = img::CheckEntry(kEntry, flags, bitmap)) return status;
  namespace R = img::ranges;
  // A tile is at most the bitmap's size; a bitmap under 8 pixels takes tiles
  // of 8, cut to it.
  if (!R::kLocalTile.Contains(tileWidth) || !R::kLocalTile.Contains(tileHeight) ||
      static_cast<int64_t>(tileWidth) > std::max(bitmap->Width, 8) ||
      static_cast<int64_t>(tileHeight) > std::max(bitmap->Height, 8) || !R::kLocalClip.Contains(clipLimit) ||
      (clipLimit > 0 && clipLimit < 10) || !R::kLocalMode.Contains(mode))
    return RC_INVALID_PARAMETER;
  return img::localeq::Equalize(img::BestIsa(), bitmap, static_cast<int32_t>(tileWidth),
                                static_cast<int32_t>(tileHeight), clipLimit, mode == LOCALEQ_LUMINANCE);
}
