// Dynamic binary: every pixel becomes black or white by a local threshold,
// the midpoint of the darkest and brightest sample of the square window
// around it; a window whose range is not above the caller's contrast is flat
// and its pixel is classed by the window's brightest sample alone.
//
// Rows go through the gray working form (one sample a pixel; colour bitmaps
// come back with the decision in all three samples). The window minimum and
// maximum cost O(1) a pixel whatever the window: running extremes over
// blocks of window length (van Herk / Gil-Werman), first down the columns of
// the ring of window rows, then along the row. The results are those of the
// exact window extremes; the memory is the ring of window rows and a few
// arrays of window rows' size, never a copy of the bitmap.
//
// 8-bit rows on AVX2 / AVX-512 run the loops of BWConv_lanes.h: the same
// column scans a vector of columns at a time, and the row extremes by
// doubling (log2 of the window's width passes over the row).
#include "BWConv.h"

#include <algorithm>

#include "frame.h"

namespace img {

namespace {

static constexpr const wchar_t *kSourceFile = L"Common/BWConv";

constexpr EntryRule kEntry{.flagsWord = true, .nullBitmap = NullBitmap::Passed, .signedData = true};

// The window: `above` rows above the pixel and `below` under it (capped at
// the bitmap's height less one: a longer reach only repeats the edge row,
// which changes no extreme), `left` / `right` columns likewise; the decided
// sample is in row `centre` of the window's rows.
struct Geometry {
  int32_t above, below, left, right, centre;
};

Geometry GeometryOf(uint32_t dimension, int32_t width, int32_t height) {
  const int64_t h = (static_cast<int64_t>(dimension) - 1) / 2, d2 = dimension / 2;
  const auto cap = [](int64_t v, int32_t size) {
    return static_cast<int32_t>(std::min<int64_t>(v, size - 1));
  };
  Geometry g{cap(h, height), cap(d2, height), cap(h, width), cap(d2, width), 0};
  // The decided sample sits in window row dimension / 2 counted from the
  // top row y - h: row y for an odd window, row y + 1 for an even one.
  g.centre = g.above + std::min<int32_t>(static_cast<int32_t>(d2 - h), g.below);
  return g;
}

// Running extremes of one row of values over blocks of `n`: pre[i] the
// extreme from the block's start to i, suf[i] from i to the block's end; the
// window [i, i + n) is then the extreme of suf[i] and pre[i + n - 1].
template <class T, class Pick>
void BlockScan(const T *v, T *pre, T *suf, int32_t length, int32_t n, Pick pick) {
  for (int32_t start = 0; start < length; start += n) {
    const int32_t end = std::min(start + n, length);
    T e = v[start];
    pre[start] = e;
    for (int32_t i = start + 1; i < end; ++i) pre[i] = e = pick(e, v[i]);
    e = v[end - 1];
    suf[end - 1] = e;
    for (int32_t i = end - 2; i >= start; --i) suf[i] = e = pick(e, v[i]);
  }
}

template <class T>
struct Lower {
  T operator()(T a, T b) const { return b < a ? b : a; }
};
template <class T>
struct Higher {
  T operator()(T a, T b) const { return a < b ? b : a; }
};

// The state of one call: the column extremes of the window rows (vertical
// blocks of the window's height over the ring) and the row scans.
template <class T>
class Extremes {
 public:
  Extremes(const Geometry &g, const Rect &bounds, int32_t width, const bwconv::Loops8 *loops)
      : g_(g), rows_(g.above + g.below + 1), span_(g.left + g.right + 1), loops_(loops) {
    while (2 * power_ <= span_) power_ *= 2;
    first_ = std::max<int32_t>(0, bounds.Left - g.left);
    last_ = std::min<int32_t>(width, bounds.Right + g.right);
    origin_ = bounds.Left - g.left;
    length_ = std::max<int32_t>(0, bounds.Right - bounds.Left) + span_ - 1;
    const std::size_t columns = static_cast<std::size_t>(std::max<int32_t>(0, last_ - first_));
    const std::size_t block = columns * static_cast<std::size_t>(rows_);
    suffixMin_ = KernelBuffer<T>(block, __LINE__, kSourceFile);
    suffixMax_ = KernelBuffer<T>(block, __LINE__, kSourceFile);
    prefixMin_ = KernelBuffer<T>(columns, __LINE__, kSourceFile);
    prefixMax_ = KernelBuffer<T>(columns, __LINE__, kSourceFile);
    const std::size_t line = static_cast<std::size_t>(length_) + 1;
    for (auto *b : {&colMin_, &colMax_}) *b = KernelBuffer<T>(line, __LINE__, kSourceFile);
    if (!loops_)  // the scalar row scans' prefix and suffix extremes
      for (auto *b : {&preMin_, &preMax_, &sufMin_, &sufMax_})
        *b = KernelBuffer<T>(line, __LINE__, kSourceFile);
  }

  bool ok() const {
    return suffixMin_ && suffixMax_ && prefixMin_ && prefixMax_ && colMin_ && colMax_ &&
           (loops_ || (preMin_ && preMax_ && sufMin_ && sufMax_));
  }

  // Window extremes of every column of the bounds for the next output row:
  // (min, max) of column x at Min(x), Max(x).
  void Next(const WindowRows<T> &w) {
    const int32_t n = rows_, offset = step_++ % n;
    if (last_ <= first_) return;
    const std::size_t columns = static_cast<std::size_t>(last_ - first_);
    T *vMin = colMin_.get() + (first_ - origin_), *vMax = colMax_.get() + (first_ - origin_);
    if (offset == 0) {
      // The window is one whole block: its suffix extremes, row by row upwards.
      T *sMin = suffixMin_.get(), *sMax = suffixMax_.get();
      const T *bottom = w.rows[n - 1] + first_;
      T *lastMin = sMin + (n - 1) * columns, *lastMax = sMax + (n - 1) * columns;
      std::copy(bottom, bottom + columns, lastMin);
      std::copy(bottom, bottom + columns, lastMax);
      if (n == 1) {
        std::copy(bottom, bottom + columns, vMin);
        std::copy(bottom, bottom + columns, vMax);
      }
      // Row 0's suffix is this window's extremes: straight into the row of
      // column extremes (no later window reads it).
      for (int32_t r = n - 2; r >= 0; --r) {
        const T *row = w.rows[r] + first_;
        T *dMin = r ? sMin + r * columns : vMin, *dMax = r ? sMax + r * columns : vMax;
        const T *uMin = sMin + (r + 1) * columns, *uMax = sMax + (r + 1) * columns;
        Pair(row, uMin, dMin, row, uMax, dMax, columns);
      }
    } else {
      // The block above from this row down, and the rows of the next block
      // that entered so far.
      const T *entered = w.rows[n - 1] + first_;
      T *pMin = prefixMin_.get(), *pMax = prefixMax_.get();
      if (offset == 1) {
        std::copy(entered, entered + columns, pMin);
        std::copy(entered, entered + columns, pMax);
      } else {
        Pair(pMin, entered, pMin, pMax, entered, pMax, columns);
      }
      const T *sMin = suffixMin_.get() + offset * columns, *sMax = suffixMax_.get() + offset * columns;
      Pair(sMin, pMin, vMin, sMax, pMax, vMax, columns);
    }
    // Columns left of 0 and right of the last repeat the edge columns.
    T *cMin = colMin_.get(), *cMax = colMax_.get();
    const int32_t head = first_ - origin_, tail = last_ - origin_;
    std::fill(cMin, cMin + head, cMin[head]);
    std::fill(cMax, cMax + head, cMax[head]);
    std::fill(cMin + tail, cMin + length_, cMin[tail - 1]);
    std::fill(cMax + tail, cMax + length_, cMax[tail - 1]);
    if constexpr (std::is_same_v<T, uint8_t>) {
      if (loops_) return loops_->doubling(cMin, cMax, length_, span_);
    }
    BlockScan(cMin, preMin_.get(), sufMin_.get(), length_, span_, Lower<T>{});
    BlockScan(cMax, preMax_.get(), sufMax_.get(), length_, span_, Higher<T>{});
  }

  // The SIMD decision of columns left .. right (after Next with loops).
  void Decide(const T *centre, T *out, int32_t left, int32_t right, uint32_t contrast) const {
    if constexpr (std::is_same_v<T, uint8_t>) {
      const int32_t i = left - g_.left - origin_;
      loops_->decide(colMin_.get() + i, colMax_.get() + i, span_ - power_, centre + left, out + left,
                     right - left, contrast);
    }
  }

  T Min(int32_t x) const {
    const int32_t i = x - g_.left - origin_;
    return std::min(sufMin_[i], preMin_[i + span_ - 1]);
  }
  T Max(int32_t x) const {
    const int32_t i = x - g_.left - origin_;
    return std::max(sufMax_[i], preMax_[i + span_ - 1]);
  }

 private:
  // o1 = min(a1, b1), o2 = max(a2, b2), column by column.
  void Pair(const T *a1, const T *b1, T *o1, const T *a2, const T *b2, T *o2, std::size_t n) const {
    if constexpr (std::is_same_v<T, uint8_t>) {
      if (loops_) return loops_->minMax(a1, b1, o1, a2, b2, o2, n);
    }
    for (std::size_t c = 0; c < n; ++c) {
      o1[c] = std::min(a1[c], b1[c]);
      o2[c] = std::max(a2[c], b2[c]);
    }
  }

  Geometry g_;
  int32_t rows_, span_, power_ = 1;
  const bwconv::Loops8 *loops_;  // null: the scalar scans
  int32_t first_ = 0, last_ = 0, origin_ = 0, length_ = 0, step_ = 0;
  KernelBuffer<T> suffixMin_, suffixMax_, prefixMin_, prefixMax_;
  KernelBuffer<T> colMin_, colMax_, preMin_, preMax_, sufMin_, sufMax_;
};

// The decision of one pixel: an edge (range above the contrast) by the
// midpoint, a flat window by its brightest sample alone (not the midpoint:
// kept). 16 bits: the flat limit is 32767, not 32768 (kept).
template <class T>
struct Levels;
template <>
struct Levels<uint8_t> {
  static constexpr uint32_t kWhite = 255, kFlatLimit = 128;
};
template <>
struct Levels<uint16_t> {
  static constexpr uint32_t kWhite = 65535, kFlatLimit = 32767;
};

template <class T>
int32_t Binarise(RowPass &pass, const Geometry &g, const Rect &bounds, uint32_t contrast,
                 const bwconv::Loops8 *loops) {
  Extremes<T> extremes(g, bounds, pass.bitmap()->Width, loops);
  if (!extremes.ok()) return RC_NO_MEMORY;
  constexpr uint32_t white = Levels<T>::kWhite, flat = Levels<T>::kFlatLimit;
  WindowPass window(pass, g.above, g.below, kNoProgress);
  return window.Run([&](const auto &w, auto &out) {
    if constexpr (std::is_same_v<std::remove_cvref_t<decltype(*out.samples)>, T>) {
      extremes.Next(w);
      const T *centre = w.rows[g.centre];
      out.ForEachRun([&](int32_t left, int32_t right) {
        if (loops) return extremes.Decide(centre, out.samples, left, right, contrast);
        for (int32_t x = left; x < right; ++x) {
          const uint32_t lo = extremes.Min(x), hi = extremes.Max(x);
          const bool edge = hi - lo > contrast;
          const bool dark = edge ? centre[x] < (hi + lo) / 2 : hi < flat;
          out.samples[x] = static_cast<T>(dark ? 0 : white);
        }
      });
    }
  });
}

// The 8-bit loops of `isa`: none below AVX2 (the scalar scans).
const bwconv::Loops8 *LoopsOf(Isa isa) {
  switch (BestIsa(isa)) {
    case Isa::Avx512:
      return &bwconv::kAvx512Loops;
    case Isa::Avx2:
      return &bwconv::kAvx2Loops;
    default:
      return nullptr;
  }
}

int32_t DynamicBinary(BitmapRecord *bitmap, uint32_t dimension, uint32_t contrast, Isa isa) {
  Rect bounds{};
  int32_t status = GetRegionBounds(bitmap, nullptr, &bounds);
  if (status != RC_SUCCESS) return status;
  RowPass pass(bitmap, RowSetup{.layout = ROW_LAYOUT_GRAY, .storedRows = true});
  if (pass.status() != RC_SUCCESS) return pass.status();
  if (pass.wide() && bitmap->BitsPerPixel == 12) {
    // The caller states the contrast on the 12-bit scale.
    if (!ranges::kBinaryContrast12.Contains(contrast)) return RC_INVALID_PARAMETER;
    contrast *= 16;
  }
  if (!(pass.wide() ? ranges::kBinaryContrast16 : ranges::kBinaryContrast8).Contains(contrast))
    return RC_INVALID_PARAMETER;
  const Geometry g = GeometryOf(dimension, bitmap->Width, bitmap->Height);
  return pass.wide() ? Binarise<uint16_t>(pass, g, bounds, contrast, nullptr)
                     : Binarise<uint8_t>(pass, g, bounds, contrast, LoopsOf(isa));
}

}  // namespace

int32_t DynamicBinaryIsa(BitmapRecord *bitmap, uint32_t dimension, uint32_t localContrast, uint32_t flags,
                         Isa isa) {
  if (const int32_t status = CheckEntry(kEntry, flags, bitmap)) return status;
  if (!ranges::kBinaryDimension.Contains(dimension)) return RC_INVALID_PARAMETER;
  // A one-pixel window is never thresholded: the bitmap (inside its region)
  // becomes white, whatever its pixels and the contrast.
  if (dimension == 1) return FillBitmap(bitmap, 0xFFFFFFu);
  return DynamicBinary(bitmap, dimension, localContrast, isa);
}

}  // namespace img

extern "C" IMG_API int32_t Q_DynamicBinaryBitmap(BitmapRecord *bitmap, uint32_t dimension,
                                                 uint32_t localContrast, uint32_t flags) {
  return img::DynamicBinaryIsa(bitmap, dimension, localContrast, flags, img::Isa::Avx512);
}
