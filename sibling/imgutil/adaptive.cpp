// Adaptive contrast: each sample moves away from the mean of the window
// around it, v' = m + (v - m) * (100 + amount) / 100. Window sums come from
// running column sums and a sliding horizontal sum, so the cost per pixel
// does not depend on the window size. This file holds the entry, the 64-bit
// scalar reference (and the luminance type) and the dispatch to the 32-bit
// loops of each instruction set (adaptive_rows.h).
#include <algorithm>

#include "adaptive_isa.h"
#include "curves.h"
#include "ops_common.h"
#include "passes.h"

namespace {

static constexpr const wchar_t *kSourceFile = L"imgutil/adaptive";

// The window and what it averages: the luma of each pixel, or each of its
// colour samples (the gray sample of a gray row), `planes` a pixel.
// `half` is the reach walked each side along a row and `rows` the reach
// walked up and down: (dimension - 1) / 2, but never past the last column
// or row; the copies of the edge columns and rows that a larger window holds
// beyond them are added as multiples (`beyondColumns`, `beyondRows`), so
// the cost does not grow with a window larger than the image.
struct Window {
  int32_t width, channels, planes, half, rows, max;
  bool luminance;
  int64_t area, gain, beyondColumns, beyondRows;
};

// Value of plane p of pixel x of a row.
template <class T>
int64_t PlaneValue(const Window &k, const T *row, int32_t x, int32_t p) {
  const T *pixel = row + static_cast<size_t>(x) * k.channels;
  return k.luminance ? img::LumaForward(pixel[2], pixel[1], pixel[0], k.max).y : pixel[p];
}

// sums[x * planes + p] += times * value of plane p of pixel x of `entered`,
// minus that of `left` when there is one, every column.
template <class T>
void SlideColumns(const Window &k, int64_t *sums, const T *entered, const T *left, int64_t times = 1) {
  const int32_t width = k.width, planes = k.planes;
  if (!k.luminance && k.channels == planes) {
    const size_t n = static_cast<size_t>(width) * planes;
    if (left)
      for (size_t i = 0; i < n; ++i) sums[i] += static_cast<int64_t>(entered[i]) - left[i];
    else
      for (size_t i = 0; i < n; ++i) sums[i] += times * entered[i];
    return;
  }
  for (int32_t x = 0; x < width; ++x)
    for (int32_t p = 0; p < planes; ++p)
      sums[static_cast<size_t>(x) * planes + p] +=
          times * PlaneValue(k, entered, x, p) - (left ? PlaneValue(k, left, x, p) : 0);
}

// The pixels of `out` inside its runs from the window's column sums and the
// original row `centre`.
template <class T>
void ChangeRow(const Window &k, const int64_t *columns, const T *centre, img::RowView<T> &out) {
  const int32_t width = k.width, channels = k.channels, planes = k.planes, half = k.half, max = k.max;
  const int64_t area = k.area, gain = k.gain;
  T *samples = out.samples;
  for (int32_t p = 0; p < planes; ++p) {
    for (int32_t r = 0; r < out.runCount; ++r) {
      const int32_t left = out.runs[r].Start, end = out.runs[r].End;
      // Horizontal window sum at `left`, edges repeated.
      int64_t sum = k.beyondColumns * (columns[p] + columns[static_cast<size_t>(width - 1) * planes + p]);
      for (int64_t x = left - half; x <= left + half; ++x) {
        const int64_t cx = x < 0 ? 0 : x >= width ? width - 1 : x;
        sum += columns[static_cast<size_t>(cx) * planes + p];
      }
      for (int32_t x = left; x < end; ++x) {
        if (x > left) {
          const int64_t in = x + half, gone = x - half - 1;
          sum += columns[static_cast<size_t>(in >= width ? width - 1 : in) * planes + p];
          sum -= columns[static_cast<size_t>(gone < 0 ? 0 : gone) * planes + p];
        }
        const int64_t mean = sum / area;
        const T *original = centre + static_cast<size_t>(x) * channels;
        T *pixel = samples + static_cast<size_t>(x) * channels;
        if (!k.luminance) {
          const int64_t v = original[p];
          pixel[p] = static_cast<T>(img::Clamp(mean + (v - mean) * gain / 100, max));
          continue;
        }
        img::YuvPixel yuv = img::LumaForward(original[2], original[1], original[0], max);
        const int64_t v = yuv.y;
        yuv.y = img::Clamp(mean + (v - mean) * gain / 100, max);
        int32_t red, green, blue;
        img::LumaBack(yuv, max, &red, &green, &blue);
        pixel[0] = static_cast<T>(blue);
        pixel[1] = static_cast<T>(green);
        pixel[2] = static_cast<T>(red);
      }
    }
  }
}

// The loops of `isa` for the each-channel type when the sums fit 32 bits.
template <class T>
void FastRow(img::Isa isa, const img::adaptive::Fast &k, const img::adaptive::Step<T> &s) {
  switch (img::BestIsa(isa)) {
    case img::Isa::Avx512:
      return img::adaptive::RowAvx512(k, s);
    case img::Isa::Avx2:
      return img::adaptive::RowAvx2(k, s);
    default:  // SSSE3 has no loop of its own
      return img::adaptive::RowSse2(k, s);
  }
}

int32_t AdaptiveContrastImpl(BitmapRecord *bitmap, uint32_t dimension, uint32_t amount, uint32_t type,
                             img::Isa isa) {
  constexpr img::EntryRule kRule{.flagsWord = false, .pixels = true, .afterArguments = {.signedData = true}};
  if (const int32_t s = img::CheckEntry(kRule, 0, bitmap)) return s;
  if (!img::ranges::kAdaptiveDimension.Contains(dimension) || dimension % 2 == 0 ||
      !img::ranges::kAdaptiveAmount.Contains(amount) || !img::ranges::kAdaptiveType.Contains(type))
    return RC_INVALID_PARAMETER;
  if (const int32_t s = img::CheckAfterArguments(kRule, bitmap)) return s;
  img::RowPass pass(bitmap, {.layout = ROW_LAYOUT_NATIVE, .storedRows = true});
  if (pass.status() != RC_SUCCESS) return pass.status();
  Rect bounds{};
  GetRegionBounds(bitmap, nullptr, &bounds);
  if (bounds.Bottom <= bounds.Top || bounds.Right <= bounds.Left) return FinishOperation();

  const int32_t channels = pass.channels();
  const bool luminance = type == ADAPTIVE_CONTRAST_LUMINANCE && channels >= 3;
  const int32_t reach = static_cast<int32_t>(dimension) / 2;
  const int32_t across = std::min(reach, bitmap->Width - 1), down = std::min(reach, bitmap->Height - 1);
  const Window k{.width = bitmap->Width,
                 .channels = channels,
                 .planes = luminance ? 1 : (channels >= 3 ? 3 : 1),
                 .half = across,
                 .rows = down,
                 .max = pass.wide() ? 65535 : 255,
                 .luminance = luminance,
                 .area = static_cast<int64_t>(dimension) * dimension,
                 .gain = 100 + static_cast<int64_t>(amount),
                 .beyondColumns = reach - across,
                 .beyondRows = reach - down};
  img::WindowPass window(pass, k.rows, k.rows, img::kFullProgress);

  if (!luminance && isa != img::Isa::Scalar && img::adaptive::Fits(dimension, k.max)) {
    const size_t padded = (static_cast<size_t>(k.width) + 2 * static_cast<size_t>(k.half)) * channels;
    IMG_BUFFER(uint32_t, columns, padded);
    IMG_BUFFER(uint32_t, sums, static_cast<size_t>(img::adaptive::kChunk) * channels);
    if (!columns || !sums) return RC_NO_MEMORY;
    const img::adaptive::Fast fast{.width = k.width,
                                   .channels = channels,
                                   .half = k.half,
                                   .max = k.max,
                                   .gain = static_cast<int32_t>(k.gain),
                                   .inverse = 1.0 / static_cast<double>(k.area),
                                   .beyondRows = static_cast<uint32_t>(k.beyondRows),
                                   .beyondColumns = static_cast<uint32_t>(k.beyondColumns),
                                   .padded = columns.get(),
                                   .sums = sums.get()};
    return window.Run([&](const auto &w, auto &out) {
      using T = std::remove_cv_t<std::remove_reference_t<decltype(**w.rows)>>;
      const img::adaptive::Step<T> step{w.rows,          w.count,     w.first,  w.entered,   w.left,
                                        w.rows[w.above], out.samples, out.runs, out.runCount};
      FastRow(isa, fast, step);
    });
  }

  // Sums of each column of the window, per plane.
  IMG_BUFFER(int64_t, columns, static_cast<size_t>(k.width) * k.planes);
  if (!columns) return RC_NO_MEMORY;
  return window.Run([&](const auto &w, auto &out) {
    using T = std::remove_cv_t<std::remove_reference_t<decltype(**w.rows)>>;
    if (w.first) {
      for (int32_t i = 0; i < w.count; ++i) SlideColumns<T>(k, columns.get(), w.rows[i], nullptr);
      if (k.beyondRows) {
        SlideColumns<T>(k, columns.get(), w.rows[0], nullptr, k.beyondRows);
        SlideColumns<T>(k, columns.get(), w.rows[w.count - 1], nullptr, k.beyondRows);
      }
    } else {
      SlideColumns(k, columns.get(), w.entered, w.left);
    }
    ChangeRow(k, columns.get(), w.rows[w.above], out);
  });
}

}  // namespace

namespace img {

int32_t AdaptiveContrastWithPath(BitmapRecord *bitmap, uint32_t dimension, uint32_t amount, uint32_t type,
                                 Isa isa) {
  return AdaptiveContrastImpl(bitmap, dimension, amount, type, isa);
}

}  // namespace img

extern "C" IMG_API int32_t AdaptiveContrast(BitmapRecord *bitmap, uint32_t dimension, uint32_t amount,
                                            uint32_t type) {
  return AdaptiveContrastImpl(bitmap, dimension, amount, type, img::BestIsa());
}
