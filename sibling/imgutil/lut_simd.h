// Internal to imgutil: table lookup over contiguous samples with a choice of
// instruction set, and the region row walk that the table and histogram
// passes share.
#pragma once

#include <cstddef>
#include <cstdint>

#include "cpu.h"
#include "family.h"
#include "imgutil.h"
#include "pixels.h"

namespace img {

// dst[i] = table[src[i]] for i < count; src and dst may be the same. The
// loops of `isa` run (of the best set below it the processor has); every
// instruction set gives the same bytes.
void MapBytes(Isa isa, const uint8_t *table, const uint8_t *src, uint8_t *dst, std::size_t count);
// As MapBytes, but every byte at an offset of 3 modulo 4 from src is copied
// unchanged (the fourth sample of 32-bit pixels).
void MapBytesKeepFourth(Isa isa, const uint8_t *table, const uint8_t *src, uint8_t *dst, std::size_t count);

// p[i] = table[p[i]] for i < count over 16-bit samples, in place; with
// keepFourth every word at an offset of 3 modulo 4 stays. The table must
// have 65537 entries (the AVX-512 gathers read two bytes past the last one).
void MapWords(Isa isa, const uint16_t *table, uint16_t *p, std::size_t count, bool keepFourth);
inline constexpr uint32_t kWordTableEntries = MAP_WORD_TABLE_ENTRIES;

// ApplyLut with the lookups of instruction sets up to `isa` (ApplyLut takes
// the best the processor has; tests force each one).
int32_t ApplyLutWithPath(BitmapRecord *bitmap, const int32_t *table, uint32_t length, uint32_t mode,
                         int32_t start, int32_t end, Isa isa);

// Visits the image rows of the region's bounds (the whole bitmap without a
// region) from top to bottom, handing each row's stored bytes and its runs
// of columns inside the region to `fn`, and reports progress start..end
// after each row. Construct, check status(), then run().
class RegionRows {
 public:
  RegionRows(const BitmapRecord *bitmap, int32_t line, const wchar_t *file) : bitmap_(bitmap) {
    hasRegion_ = ::BitmapHasRegion(bitmap) != 0;
    Rect bounds{0, 0, bitmap->Width, bitmap->Height};
    if (hasRegion_) {
      ::GetRegionBounds(bitmap, nullptr, &bounds);
      const int32_t most = ::GetRegionMaxRuns(bitmap);
      maxRuns_ = most > 0 ? most : 1;
      runs_ = KernelBuffer<RowRun>(static_cast<std::size_t>(maxRuns_), line, file);
      if (!runs_) status_ = RC_NO_MEMORY;
    }
    top_ = bounds.Top < 0 ? 0 : bounds.Top;
    bottom_ = bounds.Bottom > bitmap->Height ? bitmap->Height : bounds.Bottom;
  }
  int32_t status() const { return status_; }
  bool hasRegion() const { return hasRegion_; }

  // fn(uint8_t *storedRow, const RowRun *runs, int32_t runCount).
  template <class Fn>
  int32_t run(int32_t start, int32_t end, Fn &&fn) {
    Progress progress;
    int32_t answer = progress.step(start);
    if (answer != RC_SUCCESS) return answer;
    const int64_t rows = bottom_ - top_;
    RowRun whole{0, bitmap_->Width};
    for (int32_t row = top_; row < bottom_; ++row) {
      const RowRun *runs = &whole;
      int32_t count = 1;
      if (hasRegion_) {
        count = ::GetRegionRowRuns(bitmap_, row, runs_.get(), maxRuns_);
        if (count < 0) return count;
        runs = runs_.get();
        for (int32_t i = 0; i < count; ++i) {
          if (runs_[i].Start < 0) runs_[i].Start = 0;
          if (runs_[i].End > bitmap_->Width) runs_[i].End = bitmap_->Width;
        }
      }
      fn(ImageRow(bitmap_, row), runs, count);
      if (progress.active()) {
        const int64_t done = row - top_ + 1;
        answer =
            progress.step(static_cast<int32_t>(start + (static_cast<int64_t>(end) - start) * done / rows));
        if (answer != RC_SUCCESS) return answer;
      }
    }
    return RC_SUCCESS;
  }

 private:
  const BitmapRecord *bitmap_;
  bool hasRegion_ = false;
  int32_t maxRuns_ = 1;
  int32_t top_ = 0;
  int32_t bottom_ = 0;
  int32_t status_ = RC_SUCCESS;
  KernelBuffer<RowRun> runs_;
};

}  // namespace img
