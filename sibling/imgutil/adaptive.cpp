// Adaptive contrast: each sample moves away from the mean of the window
// around it, v' = m + (v - m) * (100 + amount) / 100. Window sums come from
// running column sums and a sliding horizontal sum, so the cost per pixel
// does not depend on the window size.
#include <cstring>

#include "converter_guard.h"
#include "curves.h"
#include "ops_common.h"
#include "pixels.h"

namespace {

static constexpr const wchar_t *kSourceFile = L"imgutil/adaptive";

struct Context {
  BitmapRecord *bitmap;
  RowConverter conv;
  int32_t width, height, channels, planes, dim, half, max;
  bool wide, luminance;
  uint32_t amount;
};

// Plane values of one image row (planes per pixel, row-major).
void ToPlanes(const Context &c, const uint8_t *row, int32_t *out) {
  for (int32_t x = 0; x < c.width; ++x) {
    auto s = [&](int32_t i) -> int32_t {
      return c.wide ? reinterpret_cast<const uint16_t *>(row)[x * c.channels + i] : row[x * c.channels + i];
    };
    if (c.luminance)
      out[x] = img::LumaForward(s(2), s(1), s(0), c.max).y;
    else
      for (int32_t p = 0; p < c.planes; ++p) out[x * c.planes + p] = s(p);
  }
}

int32_t Run(Context &c, const Rect &bounds) {
  const size_t rowValues = static_cast<size_t>(c.width) * c.planes;
  img::KernelBuffer<uint8_t> row;
  row.adopt(static_cast<uint8_t *>(AllocRowBuffer(c.conv)), __LINE__, kSourceFile);
  img::KernelBuffer<RowRun> runs;
  runs.adopt(AllocRunList(c.conv), __LINE__, kSourceFile);
  // Ring of the window's original rows, indexed by virtual row modulo dim.
  IMG_BUFFER(int32_t, ring, rowValues * static_cast<size_t>(c.dim));
  IMG_BUFFER(int64_t, columns, rowValues);
  if (!row || !runs || !ring || !columns) return RC_NO_MEMORY;
  int32_t status = BitmapHasRegion(c.bitmap) ? BeginRegion(c.conv) : BeginWholeBitmap(c.conv);
  if (status != RC_SUCCESS) return status;

  auto slot = [&](int64_t virtualRow) {
    const int64_t m = (virtualRow % c.dim + c.dim) % c.dim;
    return ring.get() + static_cast<size_t>(m) * rowValues;
  };
  auto clampRow = [&](int64_t r) {
    return static_cast<int32_t>(r < 0 ? 0 : r >= c.height ? c.height - 1 : r);
  };
  // Loads virtual row v (clamped to the bitmap) into its slot.
  auto load = [&](int64_t v) -> int32_t {
    const int32_t st = ReadRow(c.conv, row.get(), clampRow(v), nullptr, nullptr);
    if (st == RC_SUCCESS) ToPlanes(c, row.get(), slot(v));
    return st;
  };
  const int64_t first = bounds.Top;
  for (int64_t v = first - c.half; v <= first + c.half; ++v) {
    if ((status = load(v)) != RC_SUCCESS) return status;
    const int32_t *src = slot(v);
    for (size_t i = 0; i < rowValues; ++i) columns[i] += src[i];
  }

  const int64_t area = static_cast<int64_t>(c.dim) * c.dim;
  const int64_t gain = 100 + c.amount;
  img::Progress progress;
  const int32_t rows = bounds.Bottom - bounds.Top;
  for (int32_t y = bounds.Top; y < bounds.Bottom; ++y) {
    int32_t count = 0;
    if ((status = ReadRow(c.conv, row.get(), y, runs.get(), &count)) != RC_SUCCESS) return status;
    const int32_t *centre = slot(y);
    for (int32_t p = 0; p < c.planes; ++p) {
      for (int32_t k = 0; k < count; ++k) {
        const int32_t left = runs[k].Start;
        // Horizontal window sum at `left`, edges clamped.
        int64_t sum = 0;
        for (int64_t x = left - c.half; x <= left + c.half; ++x) {
          const int64_t cx = x < 0 ? 0 : x >= c.width ? c.width - 1 : x;
          sum += columns[static_cast<size_t>(cx) * c.planes + p];
        }
        for (int32_t x = left; x < runs[k].End; ++x) {
          if (x > left) {
            const int64_t in = x + c.half, out = x - c.half - 1;
            sum += columns[static_cast<size_t>(in >= c.width ? c.width - 1 : in) * c.planes + p];
            sum -= columns[static_cast<size_t>(out < 0 ? 0 : out) * c.planes + p];
          }
          const int64_t mean = sum / area;
          const int64_t v = centre[static_cast<size_t>(x) * c.planes + p];
          const int32_t nv = img::Clamp(mean + (v - mean) * gain / 100, c.max);
          if (c.luminance) {
            auto s = [&](int32_t i) -> int32_t {
              return c.wide ? reinterpret_cast<uint16_t *>(row.get())[x * c.channels + i]
                            : row[x * c.channels + i];
            };
            img::YuvPixel yuv = img::LumaForward(s(2), s(1), s(0), c.max);
            yuv.y = nv;
            int32_t r, g, b;
            img::LumaBack(yuv, c.max, &r, &g, &b);
            const int32_t out3[3] = {b, g, r};
            for (int32_t i = 0; i < 3; ++i) {
              if (c.wide)
                reinterpret_cast<uint16_t *>(row.get())[x * c.channels + i] = static_cast<uint16_t>(out3[i]);
              else
                row[x * c.channels + i] = static_cast<uint8_t>(out3[i]);
            }
          } else if (c.wide) {
            reinterpret_cast<uint16_t *>(row.get())[x * c.channels + p] = static_cast<uint16_t>(nv);
          } else {
            row[x * c.channels + p] = static_cast<uint8_t>(nv);
          }
        }
      }
    }
    if ((status = WriteRow(c.conv, row.get(), y, runs.get(), &count)) != RC_SUCCESS) return status;
    // Slide the column sums down by one row.
    if (y + 1 < bounds.Bottom) {
      const int32_t *leaving = slot(y - c.half);
      for (size_t i = 0; i < rowValues; ++i) columns[i] -= leaving[i];
      if ((status = load(y + c.half + 1)) != RC_SUCCESS) return status;
      const int32_t *entering = slot(y + c.half + 1);
      for (size_t i = 0; i < rowValues; ++i) columns[i] += entering[i];
    }
    if ((status = progress.step((y - bounds.Top + 1) * 100 / rows)) != RC_SUCCESS) return status;
  }
  UpdateBitmapInfo(c.bitmap);
  return RC_SUCCESS;
}

}  // namespace

extern "C" IMG_API int32_t AdaptiveContrast(BitmapRecord *bitmap, uint32_t dimension, uint32_t amount,
                                            uint32_t type) {
  if (const int32_t s = img::CheckOperand(bitmap)) return s;
  if (dimension < 3 || dimension % 2 == 0 || dimension > 0xFFFF || amount > 1000 ||
      (type != ADAPTIVE_CONTRAST_ALL && type != ADAPTIVE_CONTRAST_LUMINANCE))
    return RC_INVALID_PARAMETER;
  if (bitmap->Flags & BITMAP_SIGNED) return RC_SIGNED_DATA_NOT_SUPPORTED;
  img::ConverterGuard conv;
  int32_t status = CreateRowConverter(bitmap, conv.place(), ROW_LAYOUT_NATIVE);
  if (status != RC_SUCCESS) return status;
  Context c{};
  c.bitmap = bitmap;
  c.conv = conv.get();
  c.width = bitmap->Width;
  c.height = bitmap->Height;
  c.channels = RowChannelCount(conv.get());
  c.wide = RowBitsPerChannel(conv.get()) == 16;
  c.max = c.wide ? 65535 : 255;
  c.luminance = type == ADAPTIVE_CONTRAST_LUMINANCE && c.channels >= 3;
  c.planes = c.luminance ? 1 : (c.channels >= 3 ? 3 : 1);
  c.dim = static_cast<int32_t>(dimension);
  c.half = c.dim / 2;
  c.amount = amount;
  Rect bounds{};
  GetRegionBounds(bitmap, nullptr, &bounds);
  if (bounds.Bottom <= bounds.Top || bounds.Right <= bounds.Left) return FinishOperation();
  return Run(c, bounds);
}
