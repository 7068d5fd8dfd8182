// Adaptive contrast: each sample moves away from the mean of the window
// around it, v' = m + (v - m) * (100 + amount) / 100. Window sums come from
// running column sums and a sliding horizontal sum, so the cost per pixel
// does not depend on the window size.
#include "curves.h"
#include "ops_common.h"
#include "passes.h"

namespace {

static constexpr const wchar_t *kSourceFile = L"imgutil/adaptive";

// The values the window averages: the luma of each pixel, or each of its
// colour samples (the gray sample of a gray row), `planes` a pixel.
struct Planes {
  int32_t planes;
  bool luminance;
  int32_t max;

  template <class T>
  int32_t Value(const T *pixel, int32_t plane) const {
    return luminance ? img::LumaForward(pixel[2], pixel[1], pixel[0], max).y : pixel[plane];
  }
  // sums[x * planes + p] += Sign * value of plane p of pixel x, every column.
  template <int Sign, class T>
  void Add(int64_t *sums, const T *row, int32_t channels, int32_t width) const {
    if (luminance) {
      for (int32_t x = 0; x < width; ++x) {
        const T *pixel = row + static_cast<size_t>(x) * channels;
        sums[x] += Sign * img::LumaForward(pixel[2], pixel[1], pixel[0], max).y;
      }
      return;
    }
    if (channels == planes) {
      const size_t n = static_cast<size_t>(width) * planes;
      for (size_t i = 0; i < n; ++i) sums[i] += Sign * static_cast<int64_t>(row[i]);
      return;
    }
    for (int32_t x = 0; x < width; ++x)
      for (int32_t p = 0; p < planes; ++p)
        sums[static_cast<size_t>(x) * planes + p] += Sign * static_cast<int64_t>(row[x * channels + p]);
  }
};

}  // namespace

extern "C" IMG_API int32_t AdaptiveContrast(BitmapRecord *bitmap, uint32_t dimension, uint32_t amount,
                                            uint32_t type) {
  constexpr img::EntryRule kRule{.flagsWord = false, .pixels = true, .afterArguments = {.signedData = true}};
  if (const int32_t s = img::CheckEntry(kRule, 0, bitmap)) return s;
  if (!img::ranges::kAdaptiveDimension.Contains(dimension) || dimension % 2 == 0 ||
      !img::ranges::kAdaptiveAmount.Contains(amount) || !img::ranges::kAdaptiveType.Contains(type))
    return RC_INVALID_PARAMETER;
  if (const int32_t s = img::CheckAfterArguments(kRule, bitmap)) return s;
  img::RowPass pass(bitmap, {.layout = ROW_LAYOUT_NATIVE});
  if (pass.status() != RC_SUCCESS) return pass.status();
  Rect bounds{};
  GetRegionBounds(bitmap, nullptr, &bounds);
  if (bounds.Bottom <= bounds.Top || bounds.Right <= bounds.Left) return FinishOperation();

  const int32_t width = bitmap->Width, channels = pass.channels();
  const bool luminance = type == ADAPTIVE_CONTRAST_LUMINANCE && channels >= 3;
  const Planes planes{luminance ? 1 : (channels >= 3 ? 3 : 1), luminance, pass.wide() ? 65535 : 255};
  const int32_t half = static_cast<int32_t>(dimension) / 2;
  const int64_t area = static_cast<int64_t>(dimension) * dimension;
  const int64_t gain = 100 + amount;
  // Sums of each column of the window, per plane.
  IMG_BUFFER(int64_t, columns, static_cast<size_t>(width) * planes.planes);
  if (!columns) return RC_NO_MEMORY;

  img::WindowPass window(pass, half, half, img::kFullProgress);
  return window.Run([&](const auto &w, auto &out) {
    using T = std::remove_reference_t<decltype(*out.samples)>;
    if (w.first) {
      for (int32_t i = 0; i < w.count; ++i) planes.Add<1>(columns.get(), w.rows[i], channels, width);
    } else {
      planes.Add<-1>(columns.get(), w.left, channels, width);
      planes.Add<1>(columns.get(), w.entered, channels, width);
    }
    const T *centre = w.rows[w.above];
    for (int32_t p = 0; p < planes.planes; ++p) {
      for (int32_t k = 0; k < out.runCount; ++k) {
        const int32_t left = out.runs[k].Start;
        // Horizontal window sum at `left`, edges repeated.
        int64_t sum = 0;
        for (int64_t x = left - half; x <= left + half; ++x) {
          const int64_t cx = x < 0 ? 0 : x >= width ? width - 1 : x;
          sum += columns[static_cast<size_t>(cx) * planes.planes + p];
        }
        for (int32_t x = left; x < out.runs[k].End; ++x) {
          if (x > left) {
            const int64_t in = x + half, gone = x - half - 1;
            sum += columns[static_cast<size_t>(in >= width ? width - 1 : in) * planes.planes + p];
            sum -= columns[static_cast<size_t>(gone < 0 ? 0 : gone) * planes.planes + p];
          }
          const int64_t mean = sum / area;
          const int64_t v = planes.Value(centre + static_cast<size_t>(x) * channels, p);
          const int32_t nv = img::Clamp(mean + (v - mean) * gain / 100, planes.max);
          T *pixel = out.Pixel(x);
          if (!luminance) {
            pixel[p] = static_cast<T>(nv);
            continue;
          }
          img::YuvPixel yuv = img::LumaForward(pixel[2], pixel[1], pixel[0], planes.max);
          yuv.y = nv;
          int32_t r, g, b;
          img::LumaBack(yuv, planes.max, &r, &g, &b);
          pixel[0] = static_cast<T>(b);
          pixel[1] = static_cast<T>(g);
          pixel[2] = static_cast<T>(r);
        }
      }
    }
  });
}
