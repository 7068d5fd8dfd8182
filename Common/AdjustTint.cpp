// Tint: every pixel's RGB vector turned about the origin, its length kept.
// Pixels go to the spherical form (length, theta from the blue axis, phi in
// the red-green plane), both angles are shifted and the pixel comes back.
#include <cstring>

#include "ClrSpc.h"
#include "converter_guard.h"
#include "family.h"
#include "frame.h"

static constexpr const wchar_t *kSourceFile = L"Common/AdjustTint";

namespace img::tint {

namespace {

// One angle in hundredths of a degree, held as a signed 16-bit value: the sum
// wraps in 16 bits and is corrected once into -9000..9000.
inline int16_t ShiftAngle(uint16_t stored, int32_t shift) {
  int16_t a = static_cast<int16_t>(static_cast<uint16_t>(stored + static_cast<uint32_t>(shift)));
  if (a >= 9001)
    a = static_cast<int16_t>(a - 18000);
  else if (a < -9000)
    a = static_cast<int16_t>(a + 18000);
  return a;
}

// Shifts theta and phi; p points at theta (bytes 2-3 of an 8-bit spherical
// pixel, 4-5 of a 16-bit one), phi follows it.
inline void ShiftPixel(uint8_t *p, int32_t thetaShift, int32_t phiShift) {
  uint16_t theta, phi;
  std::memcpy(&theta, p, 2);
  std::memcpy(&phi, p + 2, 2);
  const int16_t t = ShiftAngle(theta, thetaShift), f = ShiftAngle(phi, phiShift);
  std::memcpy(p, &t, 2);
  std::memcpy(p + 2, &f, 2);
}

int32_t PalettePath(BitmapRecord *bitmap, int32_t thetaShift, int32_t phiShift) {
  const int32_t count = PaletteCount(bitmap);
  if (count < 0) return count;
  PaletteEntry entries[256];
  if (GetPalette(bitmap, 0, count, entries) != count) return RC_NO_BITMAP;
  IMG_BUFFER(uint8_t, pixel, 6);  // one 8-bit spherical pixel
  if (!pixel) return RC_NO_MEMORY;
  for (int32_t i = 0; i < count; ++i) {
    PaletteEntry &e = entries[i];
    int32_t status = ConvertColorPixel(COLORSPACE_SPHERICAL, &e.Red, &e.Green, &e.Blue, pixel.get());
    if (status != RC_SUCCESS) return status;
    ShiftPixel(pixel.get() + 2, thetaShift, phiShift);
    status =
        ConvertColorPixel(COLORSPACE_SPHERICAL + COLORSPACE_TO_RGB, &e.Red, &e.Green, &e.Blue, pixel.get());
    if (status != RC_SUCCESS) return status;
  }
  return SetPalette(bitmap, 0, count, entries) ? RC_SUCCESS : RC_NO_BITMAP;
}

template <class T>
int32_t RowPath(BitmapRecord *bitmap, RowConverter converter, uint8_t *row, uint8_t *sphere, int32_t channels,
                const Rect &bounds, int32_t thetaShift, int32_t phiShift) {
  constexpr bool kWide = sizeof(T) == 2;
  constexpr ptrdiff_t kSize = kWide ? 8 : 6;
  constexpr ptrdiff_t kAngles = kWide ? 4 : 2;
  // The conversions take rows of three samples a pixel.
  KernelBuffer<T> packed;
  if (channels != 3) {
    packed = KernelBuffer<T>(static_cast<size_t>(bitmap->Width) * 3, __LINE__, kSourceFile);
    if (!packed) return RC_NO_MEMORY;
  }
  T *samples = reinterpret_cast<T *>(row);
  T *rgb = packed ? packed.get() : samples;
  const auto convert = [&](uint32_t code) {
    if constexpr (kWide)
      return ConvertColorRow16(code, rgb, sphere, nullptr, bounds.Left, bounds.Right);
    else
      return ConvertColorRow8(code, rgb, sphere, nullptr, bounds.Left, bounds.Right);
  };
  return WalkBounds(bitmap, converter, row, [&](void *, int32_t left, int32_t right) {
    if (packed) Pack3(samples, rgb, channels, left, right);
    int32_t status = convert(COLORSPACE_SPHERICAL);
    if (status != RC_SUCCESS) return status;
    for (int32_t x = left; x < right; ++x) ShiftPixel(sphere + x * kSize + kAngles, thetaShift, phiShift);
    status = convert(COLORSPACE_SPHERICAL + COLORSPACE_TO_RGB);
    if (status == RC_SUCCESS && packed) Unpack3(rgb, samples, channels, left, right);
    return status;
  });
}

int32_t Worker(BitmapRecord *bitmap, int32_t thetaShift, int32_t phiShift) {
  Rect bounds{};
  int32_t status = GetRegionBounds(bitmap, nullptr, &bounds);
  if (status != RC_SUCCESS) return status;
  ConverterGuard converter;
  status = CreateRowConverter(bitmap, converter.place(), ROW_LAYOUT_NATIVE);
  if (status != RC_SUCCESS) return status;
  const int32_t bits = RowBitsPerChannel(converter.get());
  const int32_t channels = RowChannelCount(converter.get());
  KernelBuffer<uint8_t> row;
  row.adopt(static_cast<uint8_t *>(AllocRowBuffer(converter.get())), __LINE__, kSourceFile);
  if (!row) return RC_NO_MEMORY;
  const size_t pixelBytes = bits == 16 ? 8 : 6;
  IMG_BUFFER(uint8_t, sphere, static_cast<size_t>(bounds.Right > 0 ? bounds.Right : 0) * pixelBytes);
  if (!sphere) return RC_NO_MEMORY;

  if (IsPaletteBitmap(bitmap) && !BitmapHasRegion(bitmap)) {
    status = PalettePath(bitmap, thetaShift, phiShift);
    row.reset();
    sphere.reset();
    FreeRowConverter(converter.get());
    *converter.place() = nullptr;
    FinishOperation();  // result unused
    return status;
  }
  if (bits == 16)
    return RowPath<uint16_t>(bitmap, converter.get(), row.get(), sphere.get(), channels, bounds, thetaShift,
                             phiShift);
  return RowPath<uint8_t>(bitmap, converter.get(), row.get(), sphere.get(), channels, bounds, thetaShift,
                          phiShift);
}

}  // namespace

}  // namespace img::tint

extern "C" IMG_API int32_t Q_AdjustBitmapTint(BitmapRecord *bitmap, int32_t thetaShift, int32_t phiShift,
                                              uint32_t flags) {
  const int32_t status = img::CheckEntry(
      img::EntryChecks{.flags = true, .nullBitmap = false, .signedData = true}, flags, bitmap);
  if (status != 0) return status;
  if (thetaShift < -18000 || thetaShift > 18000 || phiShift < -18000 || phiShift > 18000)
    return RC_INVALID_PARAMETER;
  if (thetaShift == 0 && phiShift == 0) return FinishOperation();
  // The record checks let a null bitmap through; it cannot be worked on.
  if (bitmap == nullptr) return RC_NO_BITMAP;
  if (IsGrayBitmap(bitmap)) return RC_UNSUPPORTED_BITMAP;
  return img::tint::Worker(bitmap, thetaShift, phiShift);
}
