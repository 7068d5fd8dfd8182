// The shared passes of the family's operations (header only).
//
// A pass owns everything around an operation's kernel: the row converter and
// its working layout, the region (the rows of its bounds and the runs of
// columns inside it), the palette rule, progress and cancellation through the
// thread's status callback, and the release of everything it took, on every
// path. A kernel sees rows of samples and the columns it may change; it never
// allocates per row, reads a region or calls the status callback.
//
//   RowPass        working rows of one bitmap through a row converter
//   SpaceRows      RowPass rows converted into colour spaces and back
//   WindowPass     working rows with the window of rows around each one
//   StoredRowPass  the stored bytes of the rows of the region (table engines)
//   MultiPass      rows of several bitmaps in step (sources, destinations)
//
// Kernels are generic callables: kernel(RowView<T> &) for T = uint8_t and
// uint16_t (16-bit working samples), returning a status (1 goes on) or void.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <type_traits>

#include "converter_guard.h"
#include "family.h"
#include "imgutil.h"
#include "pixels.h"

namespace img {

inline constexpr const wchar_t *kPassSource = L"internal/passes";
#define IMG_PASS_BUFFER(T, name, count) ::img::KernelBuffer<T> name((count), __LINE__, ::img::kPassSource)

// ---- Progress ------------------------------------------------------------------------

// Where a pass reports progress: after each row, from start to end; or never.
struct ProgressRange {
  int32_t start = 0;
  int32_t end = 100;
  bool report = true;
};
inline constexpr ProgressRange kNoProgress{0, 0, false};
inline constexpr ProgressRange kFullProgress{0, 100, true};

// Percentage after `done` of `total` steps within the range.
inline int32_t ProgressAt(const ProgressRange &range, int64_t done, int64_t total) {
  if (total <= 0) return range.end;
  return static_cast<int32_t>(range.start + (static_cast<int64_t>(range.end) - range.start) * done / total);
}

// Work done at once (a palette, a table of results, nothing at all): the
// callback hears range.start before and range.end after. An answer other
// than 1 to the first stops before the work; when the work succeeds, the
// answer to the second is the result. Without a callback the work's status
// stands.
template <class Work>
int32_t Bracketed(const ProgressRange &range, Work &&work) {
  const Progress progress;
  if (range.report && progress.active()) {
    const int32_t answer = progress.report(range.start);
    if (answer != RC_SUCCESS) return answer;
  }
  const int32_t status = work();
  if (status != RC_SUCCESS || !range.report || !progress.active()) return status;
  return progress.report(range.end);
}

// Progress of a course that walks `total` steps of its own (stored rows of
// several bitmaps, for instance): the callback hears range.start once before
// the first step and ProgressAt after every step, even when the percentage
// repeats (a course that reports after every row). Without a callback nothing
// is reported and every answer is 1.
class StepProgress {
 public:
  StepProgress(const ProgressRange &range, int64_t total) : range_(range), total_(total) {}
  int32_t Start() const { return range_.report ? progress_.report(range_.start) : RC_SUCCESS; }
  int32_t After(int64_t done) const {
    return range_.report ? progress_.report(ProgressAt(range_, done, total_)) : RC_SUCCESS;
  }

 private:
  Progress progress_;
  ProgressRange range_;
  int64_t total_;
};

// ---- Rows handed to kernels ----------------------------------------------------------

template <class T>
struct RowView {
  T *samples;          // channels samples a pixel: pixel x starts at samples + x * channels
  int32_t channels;    // 1 (gray working rows), 3 or 4 (blue, green, red, fourth)
  int32_t y;           // image row (0 = top); -1 for a palette handed over as a row
  const RowRun *runs;  // the columns to change, left to right, within [0, width)
  int32_t runCount;
  int32_t width;  // pixels in the row

  T *Pixel(int32_t x) const { return samples + static_cast<std::ptrdiff_t>(x) * channels; }
  bool IsPalette() const { return y < 0; }
  // fn(x) for every column to change.
  template <class Fn>
  void ForEach(Fn &&fn) const {
    for (int32_t r = 0; r < runCount; ++r)
      for (int32_t x = runs[r].Start; x < runs[r].End; ++x) fn(x);
  }
  // fn(start, end) for every run of columns to change.
  template <class Fn>
  void ForEachRun(Fn &&fn) const {
    for (int32_t r = 0; r < runCount; ++r) fn(runs[r].Start, runs[r].End);
  }
};

// Calls a kernel; a kernel that returns nothing always goes on.
template <class Kernel, class... Args>
int32_t CallKernel(Kernel &kernel, Args &...args) {
  if constexpr (std::is_void_v<decltype(kernel(args...))>) {
    kernel(args...);
    return RC_SUCCESS;
  } else {
    return kernel(args...);
  }
}

// ---- Palettes ------------------------------------------------------------------------

// How an operation treats bitmaps of fewer than 9 bits per pixel.
enum class PaletteRule : uint8_t {
  Rows,                  // as rows like any other: written pixels take the nearest palette colour
  Entries,               // the palette entries go through the kernel as one row; pixels stay
  EntriesWithoutRegion,  // Entries without a region, Rows with one
};

// A palette bitmap marked as having no palette (PALETTE_FLAG_NONE: its
// pixels are gray levels) has no entries to change and always goes as rows.
inline bool TakesPalettePath(const BitmapRecord *bitmap, PaletteRule rule) {
  if (!IsPaletteBitmap(bitmap) || rule == PaletteRule::Rows) return false;
  if (bitmap->PaletteFlag == PALETTE_FLAG_NONE) return false;
  return rule == PaletteRule::Entries || !BitmapHasRegion(bitmap);
}

// After a palette course wrote a bitmap's palette: an 8-bit gray bitmap whose
// palette is no longer the gray ramp becomes an 8-bit palette bitmap
// (ColorOrder ORDER_BGR), so that its pixels are read as indices into the new
// colours. Any other bitmap is left as it is.
inline void SettleGrayPalette(BitmapRecord *bitmap) {
  if (bitmap->ColorOrder != ORDER_GRAY || bitmap->BitsPerPixel != 8) return;
  const PaletteEntry *palette = ::GetPaletteRaw(bitmap);
  const int32_t count = PaletteCount(bitmap);
  if (!palette || count < 0) return;
  for (int32_t i = 0; i < count; ++i) {
    const PaletteEntry &e = palette[i];
    if (e.Blue != i || e.Green != i || e.Red != i) {
      bitmap->ColorOrder = ORDER_BGR;
      return;
    }
  }
}

// Hands the ColorsUsed palette entries to the kernel as one row of blue,
// green, red samples (y = -1) and writes them back when it succeeds; the
// reserved bytes stay, and a coloured 8-bit gray bitmap becomes a palette
// bitmap (SettleGrayPalette). A count outside the palette gives RC_NO_BITMAP
// before anything is read; so does a palette that cannot be read or written.
template <class Kernel>
int32_t RunPaletteRow(BitmapRecord *bitmap, Kernel &&kernel) {
  const int32_t count = PaletteCount(bitmap);
  if (count < 0) return count;
  PaletteEntry entries[256];
  if (::GetPalette(bitmap, 0, count, entries) != count) return RC_NO_BITMAP;
  uint8_t bgr[256 * 3];
  for (int32_t i = 0; i < count; ++i) {
    bgr[3 * i] = entries[i].Blue;
    bgr[3 * i + 1] = entries[i].Green;
    bgr[3 * i + 2] = entries[i].Red;
  }
  const RowRun all{0, count};
  RowView<uint8_t> row{bgr, 3, -1, &all, 1, count};
  const int32_t status = CallKernel(kernel, row);
  if (status != RC_SUCCESS) return status;
  for (int32_t i = 0; i < count; ++i) {
    entries[i].Blue = bgr[3 * i];
    entries[i].Green = bgr[3 * i + 1];
    entries[i].Red = bgr[3 * i + 2];
  }
  if (!::SetPalette(bitmap, 0, count, entries)) return RC_NO_BITMAP;
  SettleGrayPalette(bitmap);
  return RC_SUCCESS;
}

// Progress over `total` steps within a range, the span shared out evenly with
// the remainder carried: each step adds span / total, and one more whenever
// the carried remainders reach total. Start() reports range.start; Step()
// reports after a step when the percentage changed (with more steps than
// percent, only on the steps that carry). Returns 1 or the callback's answer.
class CarriedProgress {
 public:
  CarriedProgress(const ProgressRange &range, int32_t total)
      : range_(range), total_(total > 0 ? total : 1), percent_(range.start) {
    const int32_t span = range.end - range.start;
    step_ = span / total_;
    remainder_ = span % total_;
  }
  int32_t Start() { return range_.report ? progress_.step(percent_) : RC_SUCCESS; }
  int32_t Step() {
    percent_ += step_;
    carried_ += remainder_;
    if (carried_ >= total_) {
      carried_ -= total_;
      ++percent_;
    }
    return range_.report ? progress_.step(percent_) : RC_SUCCESS;
  }

 private:
  ProgressRange range_;
  int32_t total_;
  int32_t percent_;
  int32_t step_ = 0;
  int32_t remainder_ = 0;
  int32_t carried_ = 0;
  Progress progress_;
};

// RunPaletteRow with the entries handed to the kernel one at a time (rows of
// one pixel, y = -1) and progress reported at the start and after each entry
// (CarriedProgress over ColorsUsed entries). An answer other than 1, from the
// kernel or the callback, stops the course before the palette is written.
template <class Kernel>
int32_t RunPaletteEntries(BitmapRecord *bitmap, const ProgressRange &range, Kernel &&kernel) {
  return RunPaletteRow(bitmap, [&](RowView<uint8_t> &row) -> int32_t {
    CarriedProgress progress(range, row.width);
    int32_t status = progress.Start();
    const RowRun one{0, 1};
    for (int32_t i = 0; i < row.width && status == RC_SUCCESS; ++i) {
      RowView<uint8_t> entry{row.Pixel(i), row.channels, -1, &one, 1, 1};
      status = CallKernel(kernel, entry);
      if (status == RC_SUCCESS) status = progress.Step();
    }
    return status;
  });
}

// ---- Row pass ------------------------------------------------------------------------

// What a failed row-buffer allocation means: -1, or (for operations that keep
// this quiet success) 1 with the bitmap untouched.
enum class NoRowBuffer : uint8_t { Fails, Succeeds };

// When a row's progress is reported: as the converter reads the row (before
// the kernel sees it), or after the kernel ran and the row was written back.
// AfterRow reports from one sequence that the pass keeps across its walks, so
// that a percentage is never reported twice in a row, not even where a second
// walk starts at the value the first ended with.
enum class ProgressPoint : uint8_t { OnRead, AfterRow };

struct RowSetup {
  int32_t layout = ROW_LAYOUT_NATIVE;
  ProgressRange progress = kNoProgress;
  PaletteRule palette = PaletteRule::Rows;
  NoRowBuffer noRowBuffer = NoRowBuffer::Fails;
  bool write = true;        // false: the rows are only read (statistics)
  bool boundsRuns = false;  // hand the kernel the bounds' columns, not the region's runs
  ProgressPoint progressAt = ProgressPoint::OnRead;
  // Stored rows in place: when the working row would be the stored row byte
  // for byte (PlainWorkingRow, pixel memory allocated) and no progress is
  // reported on read, the kernel gets the stored row itself: the same rows,
  // runs, kernel calls and UpdateBitmapInfo, without the converter's read and
  // write (two plain copies of the whole row, however few columns change).
  bool storedRows = false;
};

inline bool PlainWorkingRow(const BitmapRecord *b, int32_t layout);

// Rows of the region's bounds (the whole bitmap without a region), top to
// bottom, each read through the converter, handed to the kernel with the
// runs of columns inside the region and written back; pixels outside the
// region keep their values. After a complete pass that wrote rows,
// UpdateBitmapInfo. The converter is created by the constructor (check
// status()), so that an operation can size its tables from channels() and
// bits() before it runs. A course of several walks over the same rows
// (statistics first, then the change) runs RunRows again after SetWalk.
class RowPass {
 public:
  RowPass(BitmapRecord *bitmap, const RowSetup &setup) : bitmap_(bitmap), setup_(setup) {
    status_ = ::CreateRowConverter(bitmap, converter_.place(), setup.layout);
    if (status_ != RC_SUCCESS) return;
    channels_ = ::RowChannelCount(converter_.get());
    bits_ = ::RowBitsPerChannel(converter_.get());
    rowBytes_ = ::PrepareRowConverter(converter_.get());
  }
  RowPass(const RowPass &) = delete;
  RowPass &operator=(const RowPass &) = delete;

  int32_t status() const { return status_; }
  int32_t channels() const { return channels_; }
  int32_t bits() const { return bits_; }
  bool wide() const { return bits_ == 16; }
  int32_t rowBytes() const { return rowBytes_; }
  RowConverter converter() const { return converter_.get(); }
  BitmapRecord *bitmap() const { return bitmap_; }
  // True when the palette rule sends this bitmap down the palette path.
  bool OnPalette() const { return TakesPalettePath(bitmap_, setup_.palette); }

  // The progress range of the next walk and whether it writes its rows.
  void SetWalk(const ProgressRange &progress, bool write) {
    setup_.progress = progress;
    setup_.write = write;
  }

  // The palette path or the rows, as the palette rule says.
  template <class Kernel>
  int32_t Run(Kernel &&kernel) {
    if (OnPalette()) return RunPaletteRow(bitmap_, kernel);
    return RunRows(kernel);
  }

  template <class Kernel>
  int32_t RunRows(Kernel &&kernel) {
    if (status_ != RC_SUCCESS) return status_;
    return wide() ? Walk<uint16_t>(kernel) : Walk<uint8_t>(kernel);
  }

  // Begins the walk over the region (or the whole bitmap) with the setup's
  // progress, and gives the bounds to visit.
  int32_t Begin(Rect *bounds) {
    const bool region = ::BitmapHasRegion(bitmap_) != 0;
    const ProgressRange &p = setup_.progress;
    const int32_t status =
        p.report && setup_.progressAt == ProgressPoint::OnRead
            ? (region ? ::BeginRegionProgress(converter_.get(), p.start, p.end)
                      : ::BeginWholeBitmapProgress(converter_.get(), p.start, p.end))
            : (region ? ::BeginRegion(converter_.get()) : ::BeginWholeBitmap(converter_.get()));
    if (status != RC_SUCCESS) return status;
    return ::GetRegionBounds(bitmap_, nullptr, bounds);
  }

  // RowSetup::storedRows applies to this bitmap and walk (the window pass
  // then changes the stored rows in place).
  bool StoredRowsInPlace() const { return OnStoredRows(); }

  // A zeroed working row (with the converter's slack past the last pixel).
  KernelBuffer<uint8_t> AllocRow() const {
    KernelBuffer<uint8_t> row;
    row.adopt(static_cast<uint8_t *>(::AllocRowBuffer(converter_.get())), __LINE__, kPassSource);
    return row;
  }

 private:
  // RowSetup::storedRows applies to this bitmap and walk.
  bool OnStoredRows() const {
    return setup_.storedRows && (bitmap_->Flags & BITMAP_ALLOCATED) && bitmap_->Pixels &&
           !(setup_.progress.report && setup_.progressAt == ProgressPoint::OnRead) &&
           PlainWorkingRow(bitmap_, setup_.layout);
  }

  // Walk's rows, runs and reports on the stored rows: the region's runs of
  // each row clipped to the bounds, as the converter's read gives them.
  template <class T, class Kernel>
  int32_t WalkStored(Kernel &kernel) {
    const bool region = ::BitmapHasRegion(bitmap_) != 0;
    Rect bounds{};
    int32_t status = ::GetRegionBounds(bitmap_, nullptr, &bounds);
    if (status != RC_SUCCESS) return status;
    const int32_t width = bitmap_->Width;
    const RowRun whole{bounds.Left < 0 ? 0 : bounds.Left, bounds.Right > width ? width : bounds.Right};
    const bool clip = region && !setup_.boundsRuns;
    const int32_t most = clip ? ::GetRegionMaxRuns(bitmap_) : 0;
    KernelBuffer<RowRun> runs;
    if (clip) {
      runs = KernelBuffer<RowRun>(static_cast<std::size_t>(most > 0 ? most : 1), __LINE__, kPassSource);
      if (!runs) return RC_NO_MEMORY;
    }
    const bool afterRow = setup_.progress.report && setup_.progressAt == ProgressPoint::AfterRow;
    const int64_t rows = static_cast<int64_t>(bounds.Bottom) - bounds.Top;
    for (int32_t y = bounds.Top; y < bounds.Bottom; ++y) {
      int32_t count = whole.Start < whole.End ? 1 : 0;
      if (clip) {
        const int32_t got = ::GetRegionRowRuns(bitmap_, y, runs.get(), most > 0 ? most : 1);
        if (got < 0) return got;
        count = 0;
        for (int32_t i = 0; i < got; ++i) {
          const int32_t start = runs[i].Start > whole.Start ? runs[i].Start : whole.Start;
          const int32_t end = runs[i].End < whole.End ? runs[i].End : whole.End;
          if (start < end) runs[count++] = RowRun{start, end};
        }
      }
      RowView<T> view{reinterpret_cast<T *>(ImageRow(bitmap_, y)),
                      channels_,
                      y,
                      clip ? runs.get() : &whole,
                      count,
                      width};
      status = CallKernel(kernel, view);
      if (status != RC_SUCCESS) return status;
      if (afterRow) {
        status = progress_.step(ProgressAt(setup_.progress, static_cast<int64_t>(y) - bounds.Top + 1, rows));
        if (status != RC_SUCCESS) return status;
      }
    }
    if (setup_.write) ::UpdateBitmapInfo(bitmap_);
    return RC_SUCCESS;
  }

  template <class T, class Kernel>
  int32_t Walk(Kernel &kernel) {
    if (OnStoredRows()) return WalkStored<T>(kernel);
    KernelBuffer<uint8_t> row = AllocRow();
    if (!row) return setup_.noRowBuffer == NoRowBuffer::Succeeds ? RC_SUCCESS : RC_NO_MEMORY;
    KernelBuffer<RowRun> runs;
    if (!setup_.boundsRuns) {
      runs.adopt(::AllocRunList(converter_.get()), __LINE__, kPassSource);
      if (!runs) return RC_NO_MEMORY;
    }
    Rect bounds{};
    int32_t status = Begin(&bounds);
    if (status != RC_SUCCESS) return status;
    const int32_t width = bitmap_->Width;
    RowRun whole{bounds.Left < 0 ? 0 : bounds.Left, bounds.Right > width ? width : bounds.Right};
    const bool afterRow = setup_.progress.report && setup_.progressAt == ProgressPoint::AfterRow;
    const int64_t rows = static_cast<int64_t>(bounds.Bottom) - bounds.Top;
    for (int32_t y = bounds.Top; y < bounds.Bottom; ++y) {
      int32_t count = 1;
      status = runs ? ::ReadRow(converter_.get(), row.get(), y, runs.get(), &count)
                    : ::ReadRow(converter_.get(), row.get(), y, nullptr, nullptr);
      if (status != RC_SUCCESS) return status;
      if (!runs && whole.Start >= whole.End) count = 0;
      RowView<T> view{reinterpret_cast<T *>(row.get()), channels_, y,
                      runs ? runs.get() : &whole,       count,     width};
      status = CallKernel(kernel, view);
      if (status != RC_SUCCESS) return status;
      if (setup_.write) {
        status = runs ? ::WriteRow(converter_.get(), row.get(), y, runs.get(), &count)
                      : ::WriteRow(converter_.get(), row.get(), y, nullptr, nullptr);
        if (status != RC_SUCCESS) return status;
      }
      if (afterRow) {
        status = progress_.step(ProgressAt(setup_.progress, static_cast<int64_t>(y) - bounds.Top + 1, rows));
        if (status != RC_SUCCESS) return status;
      }
    }
    if (setup_.write) ::UpdateBitmapInfo(bitmap_);
    return RC_SUCCESS;
  }

  BitmapRecord *bitmap_;
  RowSetup setup_;
  ConverterGuard converter_;
  Progress progress_;  // ProgressPoint::AfterRow: one sequence for every walk
  int32_t status_ = RC_SUCCESS;
  int32_t channels_ = 0;
  int32_t bits_ = 8;
  int32_t rowBytes_ = 0;
};

// ---- Colour-space rows ---------------------------------------------------------------

// A row of blue, green, red samples (three a pixel) with its pixels converted
// into colour spaces and back by `Conversions`, which provides
//   static int32_t PixelSize(uint32_t code, int32_t bits);
//   static int32_t Row(uint32_t code, T *rgb, void *space, const void *context, int32_t first, int32_t end);
// for T = uint8_t and uint16_t (codes as the colour-space conversions take
// them; context is what codes that need tables read).
template <class T, class Conversions>
class SpaceRow {
 public:
  T *rgb;           // three samples a pixel, pixel x at rgb + 3 * x
  RowView<T> &row;  // the working row (rgb is its samples when it has three a pixel)

  SpaceRow(T *rgbRow, RowView<T> &view, uint8_t *const *spaces, const uint32_t *codes, int32_t codeCount,
           const void *context)
      : rgb(rgbRow), row(view), spaces_(spaces), codes_(codes), count_(codeCount), context_(context) {}

  // The pixels of the code's space: pixel x at Space(code) + x * PixelSize.
  uint8_t *Space(uint32_t code) const {
    for (int32_t i = 0; i < count_; ++i)
      if (codes_[i] == code) return spaces_[i];
    return nullptr;
  }
  // Converts the columns to change into the code's space.
  int32_t To(uint32_t code) { return Convert(code, code); }
  // Converts them back into rgb (the code plus COLORSPACE_TO_RGB).
  int32_t Back(uint32_t code) { return Convert(code + 16u, code); }

 private:
  int32_t Convert(uint32_t code, uint32_t space) {
    uint8_t *buffer = Space(space);
    if (!buffer) return RC_INVALID_PARAMETER;
    for (int32_t r = 0; r < row.runCount; ++r) {
      const int32_t status =
          Conversions::Row(code, rgb, buffer, context_, row.runs[r].Start, row.runs[r].End);
      if (status != RC_SUCCESS) return status;
    }
    return RC_SUCCESS;
  }

  uint8_t *const *spaces_;
  const uint32_t *codes_;
  int32_t count_;
  const void *context_;
};

// The colour-space pass: rows of a RowPass (or its palette row) gathered into
// three samples a pixel, handed to the kernel as a SpaceRow with one buffer
// per declared code, and scattered back; a fourth sample stays. Allocate()
// takes the buffers (an operation that maps that failure to a status of its
// own calls it first), Run() takes them if that was not done.
template <class Conversions>
class SpaceRows {
 public:
  static constexpr int32_t kMaxCodes = 4;

  SpaceRows(RowPass &pass, std::initializer_list<uint32_t> codes, const void *context = nullptr)
      : pass_(pass), context_(context) {
    for (uint32_t code : codes)
      if (count_ < kMaxCodes) codes_[count_++] = code;
  }

  int32_t Allocate() {
    if (allocated_) return RC_SUCCESS;
    const int32_t bits = pass_.OnPalette() ? 8 : pass_.bits();
    const std::size_t width = static_cast<std::size_t>(pass_.OnPalette() ? 256 : pass_.bitmap()->Width);
    for (int32_t i = 0; i < count_; ++i) {
      const int32_t size = Conversions::PixelSize(codes_[i], bits);
      spaces_[i] =
          KernelBuffer<uint8_t>(width * static_cast<std::size_t>(size > 0 ? size : 8), __LINE__, kPassSource);
      if (!spaces_[i]) return RC_NO_MEMORY;
      pointers_[i] = spaces_[i].get();
    }
    if (!pass_.OnPalette() && pass_.channels() != 3) {
      packed_ = KernelBuffer<uint8_t>(width * 3 * static_cast<std::size_t>(bits / 8), __LINE__, kPassSource);
      if (!packed_) return RC_NO_MEMORY;
    }
    allocated_ = true;
    return RC_SUCCESS;
  }

  // kernel(SpaceRow<T, Conversions> &).
  template <class Kernel>
  int32_t Run(Kernel &&kernel) {
    const int32_t status = Allocate();
    if (status != RC_SUCCESS) return status;
    return pass_.Run([&](auto &row) -> int32_t {
      using T = std::remove_reference_t<decltype(*row.samples)>;
      T *rgb = packed_ ? reinterpret_cast<T *>(packed_.get()) : row.samples;
      if (packed_) Gather(row, rgb);
      SpaceRow<T, Conversions> space(rgb, row, pointers_, codes_, count_, context_);
      const int32_t result = CallKernel(kernel, space);
      if (result == RC_SUCCESS && packed_) Scatter(rgb, row);
      return result;
    });
  }

 private:
  template <class T>
  static void Gather(const RowView<T> &row, T *rgb) {
    row.ForEach([&](int32_t x) {
      const T *p = row.Pixel(x);
      for (int k = 0; k < 3; ++k) rgb[3 * x + k] = row.channels >= 3 ? p[k] : p[0];
    });
  }
  template <class T>
  static void Scatter(const T *rgb, RowView<T> &row) {
    row.ForEach([&](int32_t x) {
      T *p = row.Pixel(x);
      if (row.channels >= 3)
        for (int k = 0; k < 3; ++k) p[k] = rgb[3 * x + k];
      else
        p[0] = rgb[3 * x];
    });
  }

  RowPass &pass_;
  const void *context_;
  uint32_t codes_[kMaxCodes] = {};
  int32_t count_ = 0;
  KernelBuffer<uint8_t> spaces_[kMaxCodes];
  uint8_t *pointers_[kMaxCodes] = {};
  KernelBuffer<uint8_t> packed_;
  bool allocated_ = false;
};

// ---- Window pass ---------------------------------------------------------------------

// The rows of the window around output row y, top to bottom: virtual rows
// y - above .. y + below, rows outside the bitmap repeating its first or last
// row (the window reaches outside the region: the region only limits what is
// written). entered / left are the rows that came in and went out since the
// previous output row (null at the first).
template <class T>
struct WindowRows {
  const T *const *rows;
  int32_t count;  // above + below + 1
  int32_t above;  // index of row y
  bool first;
  const T *entered;
  const T *left;
};

// For each row of the region's bounds: the window's working rows (read once
// each, held in a ring of above + below + 2 rows, so that the row that left
// is still there when the kernel sees the row that entered) and the output
// row (row y as read) with its runs; kernel(const WindowRows<T> &,
// RowView<T> &out) changes the output row inside the runs, which is written
// back. With the row pass's stored rows in place the output row is the
// stored row itself: every row the ring still needs was read into it before
// (a step reads only rows at or below its own), and the writes of the runs
// are those the converter's write-back would make. Progress after each
// output row. Memory: the ring, never a copy of the bitmap.
class WindowPass {
 public:
  WindowPass(RowPass &pass, int32_t above, int32_t below, ProgressRange progress)
      : pass_(pass), above_(above), below_(below), progress_(progress) {}

  template <class Kernel>
  int32_t Run(Kernel &&kernel) {
    if (pass_.status() != RC_SUCCESS) return pass_.status();
    return pass_.wide() ? Walk<uint16_t>(kernel) : Walk<uint8_t>(kernel);
  }

 private:
  template <class T, class Kernel>
  int32_t Walk(Kernel &kernel) {
    BitmapRecord *bitmap = pass_.bitmap();
    const int32_t count = above_ + below_ + 1;
    const int32_t slots = count + 1;
    const std::size_t rowBytes = static_cast<std::size_t>(pass_.rowBytes()) + 16;
    IMG_PASS_BUFFER(uint8_t, ring, rowBytes * static_cast<std::size_t>(slots));
    IMG_PASS_BUFFER(const T *, order, static_cast<std::size_t>(count));
    KernelBuffer<uint8_t> out = pass_.AllocRow();
    KernelBuffer<RowRun> runs;
    runs.adopt(::AllocRunList(pass_.converter()), __LINE__, kPassSource);
    if (!ring || !order || !out || !runs) return RC_NO_MEMORY;
    Rect bounds{};
    int32_t status = pass_.Begin(&bounds);
    if (status != RC_SUCCESS) return status;
    const int32_t height = bitmap->Height;
    auto slot = [&](int64_t v) {
      const int64_t m = ((v % slots) + slots) % slots;
      return ring.get() + static_cast<std::size_t>(m) * rowBytes;
    };
    auto load = [&](int64_t v) {
      const int32_t clamped = static_cast<int32_t>(v < 0 ? 0 : v >= height ? height - 1 : v);
      return ::ReadRow(pass_.converter(), slot(v), clamped, nullptr, nullptr);
    };
    for (int64_t v = static_cast<int64_t>(bounds.Top) - above_;
         v <= static_cast<int64_t>(bounds.Top) + below_; ++v)
      if ((status = load(v)) != RC_SUCCESS) return status;
    Progress progress;
    const int64_t rows = static_cast<int64_t>(bounds.Bottom) - bounds.Top;
    const std::size_t outBytes = static_cast<std::size_t>(pass_.rowBytes());
    for (int32_t y = bounds.Top; y < bounds.Bottom; ++y) {
      const bool first = y == bounds.Top;
      if (!first && (status = load(static_cast<int64_t>(y) + below_)) != RC_SUCCESS) return status;
      for (int32_t i = 0; i < count; ++i)
        order[i] = reinterpret_cast<const T *>(slot(static_cast<int64_t>(y) - above_ + i));
      int32_t runCount = ::GetRegionRowRuns(bitmap, y, runs.get(), ::GetRegionMaxRuns(bitmap) + 1);
      if (runCount < 0) return runCount;
      runCount = ClipRuns(runs.get(), runCount, bounds);
      const bool inPlace = pass_.StoredRowsInPlace();
      uint8_t *const target = inPlace ? ImageRow(bitmap, y) : out.get();
      if (!inPlace) std::memcpy(out.get(), slot(y), outBytes);
      const WindowRows<T> window{
          order.get(),
          count,
          above_,
          first,
          first ? nullptr : order[count - 1],
          first ? nullptr : reinterpret_cast<const T *>(slot(static_cast<int64_t>(y) - above_ - 1))};
      RowView<T> view{
          reinterpret_cast<T *>(target), pass_.channels(), y, runs.get(), runCount, bitmap->Width};
      if ((status = CallKernel(kernel, window, view)) != RC_SUCCESS) return status;
      if (!inPlace &&
          (status = ::WriteRow(pass_.converter(), out.get(), y, runs.get(), &runCount)) != RC_SUCCESS)
        return status;
      if (progress_.report) {
        status = progress.step(ProgressAt(progress_, static_cast<int64_t>(y) - bounds.Top + 1, rows));
        if (status != RC_SUCCESS) return status;
      }
    }
    ::UpdateBitmapInfo(bitmap);
    return RC_SUCCESS;
  }

  static int32_t ClipRuns(RowRun *runs, int32_t count, const Rect &bounds) {
    int32_t n = 0;
    for (int32_t i = 0; i < count; ++i) {
      const int32_t start = runs[i].Start > bounds.Left ? runs[i].Start : bounds.Left;
      const int32_t end = runs[i].End < bounds.Right ? runs[i].End : bounds.Right;
      if (start < end) runs[n++] = RowRun{start, end};
    }
    return n;
  }

  RowPass &pass_;
  int32_t above_;
  int32_t below_;
  ProgressRange progress_;
};

// ---- Stored rows --------------------------------------------------------------------

// Which rows a StoredRowPass visits: those of the region (the whole bitmap
// without one), or every row whole whatever the region (a change of the
// stored form, such as the signed-sample shift).
enum class StoredRows : uint8_t { Region, WholeBitmap };

// The table engines' pass: visits the image rows of the region's bounds (the
// whole bitmap without a region) top to bottom, handing each row's stored
// bytes and its runs of columns inside the region to
// fn(uint8_t *storedRow, const RowRun *runs, int32_t runCount), and reports
// progress after each row. Construct, check status(), then Run().
class StoredRowPass {
 public:
  explicit StoredRowPass(const BitmapRecord *bitmap, StoredRows rows = StoredRows::Region) : bitmap_(bitmap) {
    hasRegion_ = rows == StoredRows::Region && ::BitmapHasRegion(bitmap) != 0;
    Rect bounds{0, 0, bitmap->Width, bitmap->Height};
    if (hasRegion_) {
      ::GetRegionBounds(bitmap, nullptr, &bounds);
      const int32_t most = ::GetRegionMaxRuns(bitmap);
      maxRuns_ = most > 0 ? most : 1;
      runs_ = KernelBuffer<RowRun>(static_cast<std::size_t>(maxRuns_), __LINE__, kPassSource);
      if (!runs_) status_ = RC_NO_MEMORY;
    }
    top_ = bounds.Top < 0 ? 0 : bounds.Top;
    bottom_ = bounds.Bottom > bitmap->Height ? bitmap->Height : bounds.Bottom;
  }
  int32_t status() const { return status_; }
  bool hasRegion() const { return hasRegion_; }

  template <class Fn>
  int32_t Run(const ProgressRange &range, Fn &&fn) {
    Progress progress;
    int32_t answer = range.report ? progress.step(range.start) : RC_SUCCESS;
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
      if (range.report && progress.active()) {
        answer = progress.step(ProgressAt(range, row - top_ + 1, rows));
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

// ---- Several bitmaps -----------------------------------------------------------------

// One bitmap of a MultiPass: read through a converter of its own layout, and
// written back when it is an output.
struct PassMember {
  BitmapRecord *bitmap;
  int32_t layout;
  bool output;
  // The kernel promises to leave this member's row alone (an output's row:
  // to change only the pass's columns). When the working row is the stored
  // row byte for byte (PlainWorkingRow), the kernel then gets the stored row
  // itself: no read into a buffer, no write back.
  bool direct = false;
  // An output made as a copy of `source` (the same kind, size, orientation
  // and row length; its pixels are still to be filled): the pass copies each
  // stored row of the source into the output just before the row is read,
  // the rows it does not visit before the walk. The copy and the combination
  // take one walk over the memory instead of two.
  const BitmapRecord *source = nullptr;
};

// True when the converter's working row of `layout` is the stored row byte
// for byte (its read and write are plain copies; the same cases as the
// converters' own, sibling/imgutil/rows.cpp).
inline bool PlainWorkingRow(const BitmapRecord *b, int32_t layout) {
  constexpr bool kLittle = std::endian::native == std::endian::little;
  const bool bgr = IsBgrOrder(b->ColorOrder), native = layout == ROW_LAYOUT_NATIVE;
  switch (KindOf(b)) {
    case Kind::Gray8:
      return native || layout == ROW_LAYOUT_GRAY;
    case Kind::Gray16:
      return kLittle && (native || layout == ROW_LAYOUT_GRAY);
    case Kind::Color24:
      return bgr && (native || layout == ROW_LAYOUT_BGR || layout == ROW_LAYOUT_BGR8);
    case Kind::Color32:
      return bgr && native;
    case Kind::Color48:
      return kLittle && bgr && (native || layout == ROW_LAYOUT_BGR);
    case Kind::Color64:
      return kLittle && bgr && native;
    default:
      return false;
  }
}

// Which member statuses end a MultiPass: every member's (Each), or only the
// last member's converter creation and row reads (LastOnly, for courses that
// keep only the last status of a loop over the members: a member whose
// converter could not be made is handed to the kernel as a null row, and a
// failed read of another member leaves its row as it was).
enum class MemberStatus : uint8_t { Each, LastOnly };

// The rows of every member for image row y.
struct MemberRows {
  int32_t y;
  int32_t count;
  void *const *samples;     // samples[i]: member i's working row (null: no converter, LastOnly)
  const int32_t *channels;  // samples a pixel of member i
  const int32_t *bits;      // 8 or 16
  const int32_t *widths;    // pixels a row of member i
};

// Rows of several bitmaps in step: sources and destinations of different
// kinds, sizes and orientations (the converters work in image rows). Each
// member gets its own converter (statusOf(i) tells how its creation went;
// status() is the first failure) and row buffer; for every row y of
// [top, bottom) the rows of all members that have that row are read, the
// kernel(MemberRows &) combines them, and the outputs are written back over
// `columns` (whole rows without). UpdateBitmapInfo on every output after a
// complete pass. Progress after each row. An empty row range [top, bottom)
// begins nothing and succeeds (outputs made from a source get its rows).
// Direct members skip the copies into and out of row buffers, and an output
// with a source is filled in the same walk (see PassMember).
class MultiPass {
 public:
  MultiPass(const PassMember *members, int32_t count, MemberStatus rule = MemberStatus::Each)
      : count_(count), rule_(rule) {
    const std::size_t n = static_cast<std::size_t>(count > 0 ? count : 0);
    members_ = KernelBuffer<PassMember>(n, __LINE__, kPassSource);
    converters_ = KernelBuffer<RowConverter>(n, __LINE__, kPassSource);
    statuses_ = KernelBuffer<int32_t>(n, __LINE__, kPassSource);
    channels_ = KernelBuffer<int32_t>(n, __LINE__, kPassSource);
    bits_ = KernelBuffer<int32_t>(n, __LINE__, kPassSource);
    widths_ = KernelBuffer<int32_t>(n, __LINE__, kPassSource);
    plain_ = KernelBuffer<bool>(n, __LINE__, kPassSource);
    if (!members_ || !converters_ || !statuses_ || !channels_ || !bits_ || !widths_ || !plain_) {
      status_ = RC_NO_MEMORY;
      count_ = 0;
      return;
    }
    for (int32_t i = 0; i < count_; ++i) {
      members_[i] = members[i];
      statuses_[i] = ::CreateRowConverter(members[i].bitmap, &converters_[i], members[i].layout);
      if (statuses_[i] != RC_SUCCESS) {
        converters_[i] = nullptr;
        if (status_ == RC_SUCCESS) status_ = statuses_[i];
        continue;
      }
      channels_[i] = ::RowChannelCount(converters_[i]);
      bits_[i] = ::RowBitsPerChannel(converters_[i]);
      widths_[i] = members[i].bitmap->Width;
    }
    if (rule_ == MemberStatus::LastOnly && count_ > 0) status_ = statuses_[count_ - 1];
  }
  ~MultiPass() {
    for (int32_t i = 0; i < count_; ++i)
      if (converters_[i]) ::FreeRowConverter(converters_[i]);
  }
  MultiPass(const MultiPass &) = delete;
  MultiPass &operator=(const MultiPass &) = delete;

  int32_t status() const { return status_; }
  int32_t statusOf(int32_t i) const { return statuses_[i]; }
  int32_t channels(int32_t i) const { return channels_[i]; }
  int32_t bits(int32_t i) const { return bits_[i]; }
  RowConverter converter(int32_t i) const { return converters_[i]; }

  // Progress as StepProgress reports it (the start before the first row, then
  // after every row even when the percentage repeats) instead of only the
  // percentages that change.
  void ReportEveryRow() { everyRow_ = true; }

  template <class Kernel>
  int32_t Run(int32_t top, int32_t bottom, const Rect *columns, const ProgressRange &range, Kernel &&kernel) {
    if (status_ != RC_SUCCESS) return status_;
    if (top >= bottom) {
      for (int32_t i = 0; i < count_; ++i)
        for (int32_t y = 0; members_[i].source && y < members_[i].bitmap->Height; ++y) CopySourceRow(i, y);
      return RC_SUCCESS;
    }
    RowBuffers rows(static_cast<std::size_t>(count_));
    if (!rows.ok()) return RC_NO_MEMORY;
    for (int32_t i = 0; i < count_; ++i) {
      if (!converters_[i]) continue;  // LastOnly: a member without converter
      if (!rows.Allocate(i, converters_[i])) return RC_NO_MEMORY;
      const int32_t status = columns && members_[i].output ? ::BeginRectangle(converters_[i], columns)
                                                           : ::BeginWholeBitmap(converters_[i]);
      if (status != RC_SUCCESS) return status;
      plain_[i] = members_[i].direct && PlainWorkingRow(members_[i].bitmap, members_[i].layout);
    }
    // The rows of the sources' copies that the walk does not visit.
    for (int32_t i = 0; i < count_; ++i)
      for (int32_t y = 0; members_[i].source && y < members_[i].bitmap->Height; ++y)
        if (y < top || y >= bottom) CopySourceRow(i, y);
    Progress progress;
    const int64_t total = static_cast<int64_t>(bottom) - top;
    const StepProgress steps(range, total);
    if (everyRow_) {
      const int32_t answer = steps.Start();
      if (answer != RC_SUCCESS) return answer;
    }
    for (int32_t y = top; y < bottom; ++y) {
      for (int32_t i = 0; i < count_; ++i) {
        if (members_[i].source) CopySourceRow(i, y);
        if (!converters_[i] || y >= members_[i].bitmap->Height) continue;
        if (plain_[i] && y >= 0) {
          rows.Point(i, ImageRow(members_[i].bitmap, y));
          continue;
        }
        const int32_t status = ::ReadRow(converters_[i], rows.row(i), y, nullptr, nullptr);
        if (status != RC_SUCCESS && (rule_ == MemberStatus::Each || i == count_ - 1)) return status;
      }
      MemberRows view{y, count_, rows.rows(), channels_.get(), bits_.get(), widths_.get()};
      int32_t status = CallKernel(kernel, view);
      if (status != RC_SUCCESS) return status;
      for (int32_t i = 0; i < count_; ++i) {
        if (!members_[i].output || !converters_[i] || (plain_[i] && y >= 0) ||
            y >= members_[i].bitmap->Height)
          continue;
        if ((status = ::WriteRow(converters_[i], rows.row(i), y, nullptr, nullptr)) != RC_SUCCESS)
          return status;
      }
      if (everyRow_) {
        if ((status = steps.After(static_cast<int64_t>(y) - top + 1)) != RC_SUCCESS) return status;
      } else if (range.report &&
                 (status = progress.step(ProgressAt(range, y - top + 1, total))) != RC_SUCCESS) {
        return status;
      }
    }
    for (int32_t i = 0; i < count_; ++i)
      if (members_[i].output) ::UpdateBitmapInfo(members_[i].bitmap);
    return RC_SUCCESS;
  }

 private:
  // Image row y of the source's stored rows into the output member i.
  void CopySourceRow(int32_t i, int32_t y) {
    const BitmapRecord *out = members_[i].bitmap, *source = members_[i].source;
    if (y < 0 || y >= out->Height || y >= source->Height) return;
    const uint32_t bytes =
        out->BytesPerLine < source->BytesPerLine ? out->BytesPerLine : source->BytesPerLine;
    std::memcpy(ImageRow(out, y), ImageRow(source, y), bytes);
  }

  // The members' working rows, released together, and the rows handed to
  // the kernel (the buffer, or the stored row of a direct member).
  class RowBuffers {
   public:
    explicit RowBuffers(std::size_t n)
        : rows_(n, __LINE__, kPassSource), views_(n, __LINE__, kPassSource), n_(n) {}
    ~RowBuffers() {
      if (!rows_) return;
      for (std::size_t i = 0; i < n_; ++i)
        if (rows_[i]) ::FreeMemory(rows_[i], __LINE__, kPassSource);
    }
    RowBuffers(const RowBuffers &) = delete;
    RowBuffers &operator=(const RowBuffers &) = delete;
    bool ok() const { return rows_ && views_; }
    bool Allocate(int32_t i, RowConverter converter) {
      views_[i] = rows_[i] = ::AllocRowBuffer(converter);
      return rows_[i] != nullptr;
    }
    void Point(int32_t i, void *stored) { views_[i] = stored; }
    void *row(int32_t i) const { return rows_[i]; }
    void *const *rows() const { return views_.get(); }

   private:
    KernelBuffer<void *> rows_;
    KernelBuffer<void *> views_;
    std::size_t n_;
  };

  int32_t count_ = 0;
  MemberStatus rule_ = MemberStatus::Each;
  int32_t status_ = RC_SUCCESS;
  bool everyRow_ = false;
  KernelBuffer<PassMember> members_;
  KernelBuffer<RowConverter> converters_;
  KernelBuffer<int32_t> statuses_;
  KernelBuffer<int32_t> channels_;
  KernelBuffer<int32_t> bits_;
  KernelBuffer<int32_t> widths_;
  KernelBuffer<bool> plain_;  // direct members whose working row is the stored row
};

}  // namespace img
