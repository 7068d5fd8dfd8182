// Desaturation: blue, green and red of every pixel (or palette entry) become
// the mean of the largest and the smallest of them, the lightness of the HSL
// model. The bitmap keeps its depth and kind; a fourth sample is untouched.
#include <cstddef>

#include "converter_guard.h"
#include "family.h"
#include "frame.h"
#include "imgcolor.h"

static constexpr const wchar_t *kSourceFile = L"Common/deSat";

namespace img {

namespace {

template <class Sample>
inline void Lightness(Sample *p) {
  const uint32_t b = p[0], g = p[1], r = p[2];
  uint32_t hi = b > g ? b : g, lo = b > g ? g : b;
  hi = r > hi ? r : hi;
  lo = r < lo ? r : lo;
  const auto v = static_cast<Sample>((hi + lo) / 2u);
  p[0] = v;
  p[1] = v;
  p[2] = v;
}

// Pixels [left, right) of a working row; the stride is known at compile time
// for the usual three and four samples.
template <class Sample, int32_t kChannels>
void DesaturatePixels(Sample *row, int32_t channels, int32_t left, int32_t right) {
  const std::ptrdiff_t n = kChannels ? kChannels : channels;
  Sample *p = row + left * n;
  for (int32_t x = left; x < right; ++x, p += n) Lightness(p);
}

template <class Sample>
void DesaturateRow(Sample *row, int32_t channels, int32_t left, int32_t right) {
  if (channels == 3) return DesaturatePixels<Sample, 3>(row, channels, left, right);
  if (channels == 4) return DesaturatePixels<Sample, 4>(row, channels, left, right);
  DesaturatePixels<Sample, 0>(row, channels, left, right);
}

int32_t DesaturatePalette(BitmapRecord *bitmap) {
  const int32_t count = PaletteCount(bitmap);
  if (count < 0) return count;
  IMG_BUFFER(PaletteEntry, entries, static_cast<std::size_t>(count));
  if (!entries) return RC_NO_MEMORY;
  if (GetPalette(bitmap, 0, count, entries.get()) == 0) return RC_NO_BITMAP;
  for (int32_t i = 0; i < count; ++i) {
    uint8_t bgr[3] = {entries[i].Blue, entries[i].Green, entries[i].Red};
    Lightness(bgr);
    entries[i].Blue = bgr[0];
    entries[i].Green = bgr[1];
    entries[i].Red = bgr[2];
  }
  if (SetPalette(bitmap, 0, count, entries.get()) == 0) return RC_NO_BITMAP;
  entries.reset();
  return FinishOperation();
}

int32_t DesaturateRows(BitmapRecord *bitmap) {
  KernelBuffer<uint8_t> row;  // declared first: released after the converter
  ConverterGuard converter;
  int32_t status = CreateRowConverter(bitmap, converter.place(), ROW_LAYOUT_NATIVE);
  if (status != RC_SUCCESS) return status;
  const int32_t channels = RowChannelCount(converter.get());
  const bool wide = RowBitsPerChannel(converter.get()) == 16;
  PrepareRowConverter(converter.get());
  row.adopt(static_cast<uint8_t *>(AllocRowBuffer(converter.get())), __LINE__, kSourceFile);
  // Without a row buffer the bitmap is left as it is and the call succeeds:
  // callers rely on this quiet success.
  if (!row) return RC_SUCCESS;
  return WalkBounds(bitmap, converter.get(), row.get(), [&](void *samples, int32_t left, int32_t right) {
    if (wide)
      DesaturateRow(static_cast<uint16_t *>(samples), channels, left, right);
    else
      DesaturateRow(static_cast<uint8_t *>(samples), channels, left, right);
  });
}

int32_t Desaturate(BitmapRecord *bitmap) {
  if (IsGrayBitmap(bitmap)) return RC_UNSUPPORTED_BITMAP;
  if (IsPaletteBitmap(bitmap)) return DesaturatePalette(bitmap);
  return DesaturateRows(bitmap);
}

}  // namespace

}  // namespace img

extern "C" {

IMG_API int32_t Q_DesaturateBitmap(BitmapRecord *bitmap, uint32_t flags) {
  const int32_t status =
      img::CheckEntry(img::EntryChecks{.flags = true, .nullBitmap = true, .signedData = true}, flags, bitmap);
  if (status != 0) return status;
  return img::Desaturate(bitmap);
}

}  // extern "C"
