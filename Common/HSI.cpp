// Hue shift, saturation change and intensity change by hue bands. The
// changes are gathered into one table indexed by hue in whole degrees; each
// pixel takes the entry of its hue before the shift. Hue is shifted in HSV,
// saturation changed in HLS, intensity added to the RGB samples.
#include "HSI.h"

#include <cmath>

#include "ClrSpc.h"
#include "converter_guard.h"
#include "family.h"
#include "frame.h"

static constexpr const wchar_t *kSourceFile = L"Common/HSI";

namespace img::hsi {

namespace {

// 32-bit arithmetic that wraps instead of overflowing (only reachable with
// thousands of records adding up).
inline int32_t Add32(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}
inline int32_t Mul32(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}
inline int32_t Clamp(int32_t v, int32_t lo, int32_t hi) { return v < lo ? lo : (v > hi ? hi : v); }

inline bool Outside(int32_t v, int32_t limit) { return v < -limit || v > limit; }

// s + s × change / full, clamped to 0..full. The product is taken in 64 bits:
// changes summed over many records exceed 32 bits once multiplied.
inline int32_t ChangeSaturation(int32_t s, int32_t change, int32_t full) {
  const int64_t v = s + int64_t{s} * change / full;
  return v < 0 ? 0 : v > full ? full : static_cast<int32_t>(v);
}

void AddChange(HueChange &e, int32_t hue, int32_t saturation, int32_t intensity) {
  e.hue = Add32(e.hue, hue);
  if (e.hue > 18000) e.hue -= 36000;
  if (e.hue < -18000) e.hue += 36000;
  e.saturation = Add32(e.saturation, saturation);
  e.intensity = Add32(e.intensity, intensity);
}

}  // namespace

int32_t ValidateRanges(const BitmapRecord *bitmap, int32_t hue, int32_t saturation, int32_t intensity,
                       HueSatIntRange *ranges, uint32_t count) {
  if (bitmap == nullptr) return RC_NO_BITMAP;
  if (Outside(saturation, 1000) || Outside(intensity, 1000) || Outside(hue, 18000))
    return RC_INVALID_PARAMETER;
  for (uint32_t i = 0; i < count; ++i) {
    const HueSatIntRange &r = ranges[i];
    if (Outside(r.Saturation, 1000) || Outside(r.Intensity, 1000) || Outside(r.Hue, 18000) ||
        Outside(r.OuterStart, 359) || Outside(r.OuterEnd, 359) || Outside(r.InnerStart, 359) ||
        Outside(r.InnerEnd, 359))
      return RC_INVALID_PARAMETER;
  }
  for (uint32_t i = 0; i < count; ++i) {
    HueSatIntRange &r = ranges[i];
    for (int32_t *a : {&r.OuterStart, &r.OuterEnd, &r.InnerStart, &r.InnerEnd})
      if (*a < 0) *a += 360;
    // A band across 0 degrees continues past 360.
    if (r.OuterStart > r.OuterEnd) {
      if (r.OuterEnd >= 0) r.OuterEnd += 360;
      if (r.InnerEnd >= 0) r.InnerEnd += 360;
    }
  }
  if (IsGrayBitmap(bitmap)) return RC_INVALID_PARAMETER;
  for (uint32_t i = 0; i < count; ++i) {
    const HueSatIntRange &r = ranges[i];
    if (r.OuterStart > r.OuterEnd || r.InnerStart > r.InnerEnd || r.InnerStart < r.OuterStart ||
        r.InnerEnd > r.OuterEnd)
      return RC_INVALID_PARAMETER;
  }
  return 0;
}

void BuildHueTable(HueChange *table, int32_t hue, int32_t saturation, int32_t intensity,
                   const HueSatIntRange *ranges, uint32_t count, int32_t bits) {
  for (int32_t h = 0; h < kHueEntries; ++h) table[h] = HueChange{hue, saturation, intensity};
  for (uint32_t i = 0; i < count; ++i) {
    const HueSatIntRange &r = ranges[i];
    for (int32_t h = 0; h < kHueEntries; ++h) {
      const int32_t g = (h < r.OuterStart && r.OuterEnd > 360) ? h + 360 : h;
      if (g < r.OuterStart || g > r.OuterEnd) continue;
      if (g >= r.InnerStart && g <= r.InnerEnd) {
        AddChange(table[h], r.Hue, r.Saturation, r.Intensity);
        continue;
      }
      double w;
      if (g > r.InnerEnd)
        w = std::fabs(static_cast<double>(g - r.OuterEnd) / static_cast<double>(r.OuterEnd - r.InnerEnd));
      else  // the rising side weighs the unwrapped hue h, not g: kept
        w = static_cast<double>(h - r.OuterStart) / static_cast<double>(r.InnerStart - r.OuterStart);
      AddChange(table[h], static_cast<int32_t>(r.Hue * w), static_cast<int32_t>(r.Saturation * w),
                static_cast<int32_t>(r.Intensity * w));
    }
  }
  const bool wide = bits == 16;
  const int32_t full = wide ? 65535 : 255;
  for (int32_t h = 0; h < kHueEntries; ++h) {
    HueChange &e = table[h];
    e.hue = Mul32(e.hue, 100) / (wide ? 100 : 10000);
    e.saturation = Mul32(e.saturation, 100) / (wide ? 10 : 1000);
    const int32_t in = e.intensity < 1000 ? e.intensity : 1000;  // only the top is clamped
    e.intensity = Add32(Mul32(in, full), 500) / 1000;
  }
}

namespace {

inline uint16_t Load16(const uint8_t *p) {
  uint16_t v;
  __builtin_memcpy(&v, p, 2);
  return v;
}
inline void Store16(uint8_t *p, uint32_t v) {
  const uint16_t u = static_cast<uint16_t>(v);
  __builtin_memcpy(p, &u, 2);
}
inline uint32_t Load32(const uint8_t *p) {
  uint32_t v;
  __builtin_memcpy(&v, p, 4);
  return v;
}
inline void Store32(uint8_t *p, uint32_t v) { __builtin_memcpy(p, &v, 4); }

// One row of 8-bit (T = uint8_t) or 16-bit samples, pixels [left, right) of a
// blue-green-red row of three samples a pixel.
template <class T>
int32_t RowStep(T *rgb, uint8_t *hsv, uint8_t *hls, int32_t *index, const HueChange *table, int32_t left,
                int32_t right) {
  constexpr bool kWide = sizeof(T) == 2;
  constexpr int32_t kCircle = kWide ? 36000 : 360;
  constexpr int32_t kSatFull = kWide ? 10000 : 100;
  constexpr int32_t kMax = kWide ? 65535 : 255;
  constexpr int32_t kSize = kWide ? 8 : 4;  // bytes of an HSV or HLS pixel
  const auto convert = [&](uint32_t code, uint8_t *space) {
    if constexpr (kWide)
      return ConvertColorRow16(code, rgb, space, nullptr, left, right);
    else
      return ConvertColorRow8(code, rgb, space, nullptr, left, right);
  };
  int32_t status = convert(COLORSPACE_HSV, hsv);
  if (status != RC_SUCCESS) return status;
  for (int32_t x = left; x < right; ++x) {
    uint8_t *p = hsv + static_cast<ptrdiff_t>(x) * kSize;
    const int32_t h = kWide ? static_cast<int32_t>(Load32(p)) : Load16(p);
    const int32_t i = kWide ? h / 100 : h;
    index[x] = i;
    int32_t n = h + table[i].hue;
    if (n < 0) n += kCircle;
    n %= kCircle;
    if constexpr (kWide)
      Store32(p, static_cast<uint32_t>(n));
    else
      Store16(p, static_cast<uint32_t>(n));
  }
  status = convert(COLORSPACE_HSV + COLORSPACE_TO_RGB, hsv);
  if (status != RC_SUCCESS) return status;
  status = convert(COLORSPACE_HLS, hls);
  if (status != RC_SUCCESS) return status;
  for (int32_t x = left; x < right; ++x) {
    uint8_t *p = hls + static_cast<ptrdiff_t>(x) * kSize;
    const int32_t change = table[index[x]].saturation;
    if constexpr (kWide) {
      const int32_t s = Load16(p + 6);
      Store16(p + 6, static_cast<uint32_t>(ChangeSaturation(s, change, kSatFull)));
    } else {
      p[3] = static_cast<uint8_t>(ChangeSaturation(p[3], change, kSatFull));
    }
  }
  status = convert(COLORSPACE_HLS + COLORSPACE_TO_RGB, hls);
  if (status != RC_SUCCESS) return status;
  for (int32_t x = left; x < right; ++x) {
    const int32_t add = table[index[x]].intensity;
    T *q = rgb + static_cast<ptrdiff_t>(x) * 3;
    for (int32_t k = 0; k < 3; ++k) q[k] = static_cast<T>(Clamp(q[k] + add, 0, kMax));
  }
  return RC_SUCCESS;
}

// Each of the `count` palette entries as one pixel through the 8-bit sequence.
int32_t PaletteStep(BitmapRecord *bitmap, int32_t count, PaletteEntry *entries, const HueChange *table) {
  if (GetPalette(bitmap, 0, count, entries) == 0) return RC_NO_BITMAP;
  for (int32_t i = 0; i < count; ++i) {
    uint8_t r = entries[i].Red, g = entries[i].Green, b = entries[i].Blue;
    uint8_t space[4];
    int32_t status = ConvertColorPixel(COLORSPACE_HSV, &r, &g, &b, space);
    if (status != RC_SUCCESS) return status;
    const int32_t index = Load16(space);
    int32_t h = index + table[index].hue;
    if (h < 0) h += 360;
    Store16(space, static_cast<uint32_t>(h % 360));
    status = ConvertColorPixel(COLORSPACE_HSV + COLORSPACE_TO_RGB, &r, &g, &b, space);
    if (status != RC_SUCCESS) return status;
    status = ConvertColorPixel(COLORSPACE_HLS, &r, &g, &b, space);
    if (status != RC_SUCCESS) return status;
    space[3] = static_cast<uint8_t>(ChangeSaturation(space[3], table[index].saturation, 100));
    status = ConvertColorPixel(COLORSPACE_HLS + COLORSPACE_TO_RGB, &r, &g, &b, space);
    if (status != RC_SUCCESS) return status;
    const int32_t add = table[index].intensity;
    entries[i].Red = static_cast<uint8_t>(Clamp(r + add, 0, 255));
    entries[i].Green = static_cast<uint8_t>(Clamp(g + add, 0, 255));
    entries[i].Blue = static_cast<uint8_t>(Clamp(b + add, 0, 255));
  }
  return SetPalette(bitmap, 0, count, entries) ? RC_SUCCESS : RC_NO_BITMAP;
}

template <class T>
int32_t RowLoop(BitmapRecord *bitmap, RowConverter converter, uint8_t *row, int32_t channels, size_t elements,
                int32_t *index, const HueChange *table) {
  constexpr size_t kElement = sizeof(T) == 2 ? 8 : 4;
  IMG_BUFFER(uint8_t, hsv, elements * kElement);
  if (!hsv) return RC_NO_MEMORY;
  IMG_BUFFER(uint8_t, hls, elements * kElement);
  if (!hls) return RC_NO_MEMORY;
  // The conversions take rows of three samples a pixel.
  KernelBuffer<T> packed;
  if (channels != 3) {
    packed = KernelBuffer<T>(static_cast<size_t>(bitmap->Width) * 3, __LINE__, kSourceFile);
    if (!packed) return RC_NO_MEMORY;
  }
  Rect bounds{};
  int32_t status = GetRegionBounds(bitmap, nullptr, &bounds);
  if (status != RC_SUCCESS) return status;
  T *samples = reinterpret_cast<T *>(row);
  T *rgb = packed ? packed.get() : samples;
  for (int32_t y = bounds.Top; y < bounds.Bottom; ++y) {
    status = ReadRow(converter, row, y, nullptr, nullptr);
    if (status != RC_SUCCESS) return status;
    if (packed) Pack3(samples, rgb, channels, bounds.Left, bounds.Right);
    status = RowStep<T>(rgb, hsv.get(), hls.get(), index, table, bounds.Left, bounds.Right);
    if (status != RC_SUCCESS) return status;
    if (packed) Unpack3(rgb, samples, channels, bounds.Left, bounds.Right);
    status = WriteRow(converter, row, y, nullptr, nullptr);
    if (status != RC_SUCCESS) return status;
  }
  UpdateBitmapInfo(bitmap);
  return RC_SUCCESS;
}

int32_t Worker(BitmapRecord *bitmap, int32_t hue, int32_t saturation, int32_t intensity,
               const HueSatIntRange *ranges, uint32_t count, int32_t progressStart, int32_t progressEnd) {
  IMG_BUFFER(HueChange, table, kHueEntries);
  if (!table) return RC_NO_MEMORY;
  ConverterGuard converter;
  int32_t status = CreateRowConverter(bitmap, converter.place(), ROW_LAYOUT_NATIVE);
  if (status != RC_SUCCESS) return status;
  const int32_t channels = RowChannelCount(converter.get());
  const int32_t bits = RowBitsPerChannel(converter.get());
  const size_t elements = static_cast<size_t>(PrepareRowConverter(converter.get())) + 4 * channels;
  BuildHueTable(table.get(), hue, saturation, intensity, ranges, count, bits);

  if (IsPaletteBitmap(bitmap)) {
    const int32_t count = PaletteCount(bitmap);
    if (count < 0) return count;
    IMG_BUFFER(PaletteEntry, entries, static_cast<size_t>(count));
    if (!entries) return RC_NO_MEMORY;
    status = PaletteStep(bitmap, count, entries.get(), table.get());
    return status == RC_SUCCESS ? FinishOperation() : status;
  }

  KernelBuffer<uint8_t> row;
  row.adopt(static_cast<uint8_t *>(AllocRowBuffer(converter.get())), __LINE__, kSourceFile);
  // Without a row buffer the bitmap stays untouched and the status stands at
  // the converter's success: kept.
  if (!row) return status;
  IMG_BUFFER(int32_t, index, bitmap->Width);
  if (!index) return RC_NO_MEMORY;
  status = BitmapHasRegion(bitmap) ? BeginRegionProgress(converter.get(), progressStart, progressEnd)
                                   : BeginWholeBitmapProgress(converter.get(), progressStart, progressEnd);
  if (status != RC_SUCCESS) return status;
  if (bits == 16)
    return RowLoop<uint16_t>(bitmap, converter.get(), row.get(), channels, elements, index.get(),
                             table.get());
  return RowLoop<uint8_t>(bitmap, converter.get(), row.get(), channels, elements, index.get(), table.get());
}

}  // namespace

}  // namespace img::hsi

extern "C" IMG_API int32_t Q_ChangeHueSatIntBitmap(BitmapRecord *bitmap, int32_t hue, int32_t saturation,
                                                   int32_t intensity, const HueSatIntRange *ranges,
                                                   uint32_t count, uint32_t flags) {
  using namespace img::hsi;
  int32_t status = img::CheckEntry(img::EntryChecks{.flags = true, .nullBitmap = false, .signedData = true},
                                   flags, bitmap);
  if (status != 0) return status;
  // No record to read: a null pointer with a count is -13; no pointer or a
  // count of 0 is -814, so the first record is never read past the caller's.
  if (ranges == nullptr && count != 0) return RC_INVALID_PARAMETER;
  if (ranges == nullptr || count == 0) return RC_NULL_OPTIONS;
  if (ranges[0].StructSize != 32) return RC_INVALID_STRUCT_SIZE;
  img::KernelBuffer<HueSatIntRange> copy;
  copy.adopt(static_cast<HueSatIntRange *>(IMG_ALLOC(count, sizeof(HueSatIntRange))), __LINE__, kSourceFile);
  if (!copy) return RC_INVALID_PARAMETER;  // -13, not -1: kept
  CopyMemory(copy.get(), ranges, static_cast<size_t>(count) * sizeof(HueSatIntRange));
  status = ValidateRanges(bitmap, hue, saturation, intensity, copy.get(), count);
  if (status != 0) return status;
  return Worker(bitmap, hue, saturation, intensity, copy.get(), count, 0, 100);
}
