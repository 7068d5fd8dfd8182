// Per-pixel intensity operations: weighted gray conversion and intensity
// detection.
#include <cstring>

#include "converter_guard.h"
#include "ops_common.h"
#include "pixels.h"

namespace {

static constexpr const wchar_t *kSourceFile = L"imgutil/pixelops";

template <class S>
S *Samples(uint8_t *row) {
  return reinterpret_cast<S *>(row);
}

// Walks the rows of the region's bounds (or the whole bitmap) through a
// converter of `layout`, calling step(row, y, runs, count) on each row read,
// writing it back, and reporting progress 0..100.
template <class Step>
int32_t WalkRows(BitmapRecord *b, int32_t layout, RowConverter *handleOut, Step step) {
  img::ConverterGuard conv;
  int32_t status = CreateRowConverter(b, conv.place(), layout);
  if (status != RC_SUCCESS) return status;
  *handleOut = conv.get();
  img::KernelBuffer<uint8_t> row;
  row.adopt(static_cast<uint8_t *>(AllocRowBuffer(conv.get())), __LINE__, kSourceFile);
  img::KernelBuffer<RowRun> runs;
  runs.adopt(AllocRunList(conv.get()), __LINE__, kSourceFile);
  if (!row || !runs) return RC_NO_MEMORY;
  status = BitmapHasRegion(b) ? BeginRegionProgress(conv.get(), 0, 100)
                              : BeginWholeBitmapProgress(conv.get(), 0, 100);
  if (status != RC_SUCCESS) return status;
  Rect bounds{};
  GetRegionBounds(b, nullptr, &bounds);
  for (int32_t y = bounds.Top; y < bounds.Bottom; ++y) {
    int32_t count = 0;
    status = ReadRow(conv.get(), row.get(), y, runs.get(), &count);
    if (status != RC_SUCCESS) return status;
    step(row.get(), runs.get(), count);
    status = WriteRow(conv.get(), row.get(), y, runs.get(), &count);
    if (status != RC_SUCCESS) return status;
  }
  UpdateBitmapInfo(b);
  return RC_SUCCESS;
}

// Gray level of a colour value: (2R + 5G + B + 4) >> 3, or bits 8..15 when
// the value is marked as a gray level.
uint32_t ColorGray(uint32_t color) {
  if (color & COLOR_GRAY_LEVEL) return (color >> 8) & 0xFF;
  const uint32_t r = color & 0xFF, g = (color >> 8) & 0xFF, b = (color >> 16) & 0xFF;
  return (2 * r + 5 * g + b + 4) >> 3;
}

// Colour samples (blue, green, red) of a colour value on a 16-bit or 8-bit scale.
void ColorSamples(uint32_t color, bool wide, uint32_t out[3]) {
  uint32_t r = color & 0xFF, g = (color >> 8) & 0xFF, b = (color >> 16) & 0xFF;
  if (color & COLOR_GRAY_LEVEL) r = g = b = (color >> 8) & 0xFF;
  const uint32_t k = wide ? 257u : 1u;
  out[0] = b * k;
  out[1] = g * k;
  out[2] = r * k;
}

// Converts a colour bitmap without region to gray in place.
int32_t GrayInPlace(BitmapRecord *b, int32_t red, int32_t green, int32_t blue) {
  img::ConverterGuard conv;
  int32_t status = CreateRowConverter(b, conv.place(), ROW_LAYOUT_BGR);
  if (status != RC_SUCCESS) return status;
  const bool wide = RowBitsPerChannel(conv.get()) == 16;
  const int32_t bits = wide ? 16 : 8;
  const uint64_t line = img::StoredRowBytes(b->Width, bits);
  img::KernelBuffer<uint8_t> row;
  row.adopt(static_cast<uint8_t *>(AllocRowBuffer(conv.get())), __LINE__, kSourceFile);
  IMG_BUFFER(uint8_t, pixels, line * static_cast<uint64_t>(b->Height));
  // 8-bit gray carries the gray ramp as its palette; 16-bit gray has none.
  img::KernelBuffer<PaletteEntry> ramp;
  if (!wide) ramp = img::KernelBuffer<PaletteEntry>(256, __LINE__, kSourceFile);
  if (!row || !pixels || (!wide && !ramp)) return RC_NO_MEMORY;
  if (ramp) img::GrayRamp(ramp.get(), 8);
  status = BeginWholeBitmap(conv.get());
  if (status != RC_SUCCESS) return status;
  img::Progress progress;
  for (int32_t y = 0; y < b->Height; ++y) {
    status = ReadRow(conv.get(), row.get(), y, nullptr, nullptr);
    if (status != RC_SUCCESS) return status;
    uint8_t *out = pixels.get() + line * static_cast<uint64_t>(img::StoredRowIndex(b, y));
    for (int32_t x = 0; x < b->Width; ++x) {
      uint64_t s[3];
      for (int c = 0; c < 3; ++c) s[c] = wide ? Samples<uint16_t>(row.get())[3 * x + c] : row[3 * x + c];
      const uint64_t gray = (red * s[2] + green * s[1] + blue * s[0]) / 10000;
      if (wide)
        img::Store16(out + 2 * x, static_cast<uint32_t>(gray));
      else
        out[x] = static_cast<uint8_t>(gray);
    }
    if ((status = progress.step((y + 1) * 100 / b->Height)) != RC_SUCCESS) return status;
  }
  // The bitmap becomes gray of the samples' width; it keeps its region.
  if (b->Palette) IMG_FREE(b->Palette);
  if (b->AttachedLut) IMG_FREE(b->AttachedLut);
  IMG_FREE(b->Pixels);
  b->Palette = ramp.release();
  b->AttachedLut = nullptr;
  b->AttachedLutLength = 0;
  b->Flags &= ~BITMAP_USE_ATTACHED_LUT;
  b->Pixels = pixels.release();
  b->DataSize = line * static_cast<uint64_t>(b->Height);
  b->BytesPerLine = static_cast<uint32_t>(line);
  b->BitsPerPixel = bits;
  b->ColorOrder = ORDER_GRAY;
  b->ColorsUsed = wide ? 0 : 256;
  b->PaletteFlag = 0;
  b->SignificantLowBit = 0;
  b->SignificantHighBit = -1;
  UpdateBitmapInfo(b);
  return RC_SUCCESS;
}

}  // namespace

extern "C" {

IMG_API int32_t GrayScaleExt(BitmapRecord *bitmap, int32_t red, int32_t green, int32_t blue) {
  if (const int32_t s = img::CheckOperand(bitmap)) return s;
  if (red < 0 || green < 0 || blue < 0 || red > 10000 || green > 10000 || blue > 10000 ||
      red + green + blue > 10000)
    return RC_INVALID_PARAMETER;
  if (bitmap->Flags & BITMAP_SIGNED) return RC_SIGNED_DATA_NOT_SUPPORTED;
  if (bitmap->ColorOrder != ORDER_GRAY && !BitmapHasRegion(bitmap))
    return GrayInPlace(bitmap, red, green, blue);
  // With a region the kind stays: the pixels inside get their gray level in
  // all three colour samples. Gray bitmaps take sum(weights) / 10000 of
  // their sample.
  RowConverter handle = nullptr;
  return WalkRows(bitmap, ROW_LAYOUT_NATIVE, &handle, [&](uint8_t *row, const RowRun *runs, int32_t count) {
    const int32_t n = RowChannelCount(handle);
    const bool wide = RowBitsPerChannel(handle) == 16;
    for (int32_t k = 0; k < count; ++k)
      for (int32_t x = runs[k].Start; x < runs[k].End; ++x) {
        uint64_t s[3];
        for (int c = 0; c < 3; ++c) {
          const int32_t i = n == 1 ? x : x * n + c;
          s[c] = wide ? Samples<uint16_t>(row)[i] : row[i];
        }
        const uint64_t gray = (red * s[2] + green * s[1] + blue * s[0]) / 10000;
        for (int c = 0; c < (n == 1 ? 1 : 3); ++c) {
          const int32_t i = n == 1 ? x : x * n + c;
          if (wide)
            Samples<uint16_t>(row)[i] = static_cast<uint16_t>(gray);
          else
            row[i] = static_cast<uint8_t>(gray);
        }
      }
  });
}

IMG_API int32_t IntensityDetect(BitmapRecord *bitmap, uint32_t low, uint32_t high, uint32_t inColor,
                                uint32_t outColor, uint32_t channel) {
  if (const int32_t s = img::CheckOperand(bitmap)) return s;
  const int32_t full = img::FullScale(bitmap);
  if (full < 0 || channel == 0 || (channel & ~DETECT_CHANNEL_INTENSITY) != 0 || low > high ||
      high > static_cast<uint32_t>(full))
    return RC_INVALID_PARAMETER;
  if (bitmap->Flags & BITMAP_SIGNED) return RC_SIGNED_DATA_NOT_SUPPORTED;
  const bool intensity = channel == DETECT_CHANNEL_INTENSITY;
  const bool select[3] = {(channel & DETECT_CHANNEL_BLUE) != 0, (channel & DETECT_CHANNEL_GREEN) != 0,
                          (channel & DETECT_CHANNEL_RED) != 0};

  // Palette bitmaps without region: the palette entries are the pixels.
  // 8-bit gray has the gray ramp as palette but goes by its levels (rows).
  if (img::KindOf(bitmap) == img::Kind::Palette && !BitmapHasRegion(bitmap) && bitmap->Palette &&
      bitmap->PaletteFlag == 0) {
    const int32_t count = img::PaletteCount(bitmap);
    if (count < 0) return count;
    uint32_t in[3], out[3];
    ColorSamples(inColor, false, in);
    ColorSamples(outColor, false, out);
    for (int32_t i = 0; i < count; ++i) {
      PaletteEntry &e = bitmap->Palette[i];
      uint8_t *s[3] = {&e.Blue, &e.Green, &e.Red};
      if (intensity) {
        const uint32_t v = (2 * e.Red + 5 * e.Green + e.Blue) >> 3;
        const uint32_t *c = (v >= low && v <= high) ? in : out;
        for (int k = 0; k < 3; ++k) *s[k] = static_cast<uint8_t>(c[k]);
      } else {
        for (int k = 0; k < 3; ++k)
          if (select[k]) *s[k] = static_cast<uint8_t>((*s[k] >= low && *s[k] <= high) ? in[k] : out[k]);
      }
    }
    return FinishOperation();
  }

  RowConverter handle = nullptr;
  return WalkRows(bitmap, ROW_LAYOUT_NATIVE, &handle, [&](uint8_t *row, const RowRun *runs, int32_t count) {
    const int32_t n = RowChannelCount(handle);
    const bool wide = RowBitsPerChannel(handle) == 16;
    auto get = [&](int32_t i) -> uint32_t { return wide ? Samples<uint16_t>(row)[i] : row[i]; };
    auto put = [&](int32_t i, uint32_t v) {
      if (wide)
        Samples<uint16_t>(row)[i] = static_cast<uint16_t>(v);
      else
        row[i] = static_cast<uint8_t>(v);
    };
    if (n == 1) {
      // Gray: the sample is tested; colours become their gray level on the
      // bitmap's scale (12-bit samples arrive multiplied by 16).
      const int32_t shift = bitmap->BitsPerPixel == 12 ? 4 : 0;
      const int32_t bits = img::GraySampleBits(bitmap);
      auto scale = [&](uint32_t g) { return bits == 8 ? g : (g * 257u) >> (16 - bits); };
      const uint32_t in = scale(ColorGray(inColor)) << shift, out = scale(ColorGray(outColor)) << shift;
      for (int32_t k = 0; k < count; ++k)
        for (int32_t x = runs[k].Start; x < runs[k].End; ++x) {
          const uint32_t v = get(x) >> shift;
          put(x, (v >= low && v <= high) ? in : out);
        }
      return;
    }
    uint32_t in[3], out[3];
    ColorSamples(inColor, wide, in);
    ColorSamples(outColor, wide, out);
    for (int32_t k = 0; k < count; ++k)
      for (int32_t x = runs[k].Start; x < runs[k].End; ++x) {
        const int32_t p = x * n;
        if (intensity) {
          const uint32_t v = (2 * get(p + 2) + 5 * get(p + 1) + get(p)) >> 3;
          const uint32_t *c = (v >= low && v <= high) ? in : out;
          for (int i = 0; i < 3; ++i) put(p + i, c[i]);
        } else {
          for (int i = 0; i < 3; ++i) {
            if (!select[i]) continue;
            const uint32_t v = get(p + i);
            put(p + i, (v >= low && v <= high) ? in[i] : out[i]);
          }
        }
      }
  });
}

}  // extern "C"
