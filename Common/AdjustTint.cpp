// Tint: every pixel's RGB vector turned about the origin, its length kept.
// Pixels go to the spherical form (length, theta from the blue axis, phi in
// the red-green plane), both angles are shifted and the pixel comes back.
#include <cstring>
#include <type_traits>

#include "ClrSpc.h"
#include "colour_memo.h"
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

// One pixel through the spherical form, turned, and back: the row
// conversions on a row of one pixel.
template <class T>
void TintPixel(int32_t &r, int32_t &g, int32_t &b, int32_t thetaShift, int32_t phiShift) {
  constexpr uint32_t kBack = COLORSPACE_SPHERICAL + COLORSPACE_TO_RGB;
  T rgb[3] = {static_cast<T>(b), static_cast<T>(g), static_cast<T>(r)};
  uint8_t sphere[8];
  if constexpr (sizeof(T) == 2) {
    ConvertColorRow16(COLORSPACE_SPHERICAL, rgb, sphere, nullptr, 0, 1);
    ShiftPixel(sphere + 4, thetaShift, phiShift);
    ConvertColorRow16(kBack, rgb, sphere, nullptr, 0, 1);
  } else {
    ConvertColorRow8(COLORSPACE_SPHERICAL, rgb, sphere, nullptr, 0, 1);
    ShiftPixel(sphere + 2, thetaShift, phiShift);
    ConvertColorRow8(kBack, rgb, sphere, nullptr, 0, 1);
  }
  b = rgb[0], g = rgb[1], r = rgb[2];
}

// The rows of the region, pixel by pixel through the call's colour memo (the
// result depends on the colour alone).
template <class T>
int32_t TintRows(RowPass &pass, int32_t thetaShift, int32_t phiShift) {
  ColourMemo<T> memo(__LINE__, kSourceFile);
  if (!memo) return RC_NO_MEMORY;
  const auto compute = [=](int32_t &r, int32_t &g, int32_t &b) {
    TintPixel<T>(r, g, b, thetaShift, phiShift);
  };
  return pass.RunRows([&](auto &row) {
    if constexpr (sizeof(*row.samples) == sizeof(T)) {
      row.ForEachRun([&](int32_t left, int32_t right) {
        ForEachColour(row.samples, row.channels, left, right,
                      [&](int32_t &r, int32_t &g, int32_t &b) { memo.Apply(r, g, b, compute); });
      });
    }
  });
}

// The palette of a palette bitmap without a region, or the rows of the
// region, through the spherical form and back; nothing is reported.
int32_t Worker(BitmapRecord *bitmap, int32_t thetaShift, int32_t phiShift) {
  RowPass pass(bitmap, RowSetup{.palette = PaletteRule::EntriesWithoutRegion});
  if (pass.status() != RC_SUCCESS) return pass.status();
  if (!pass.OnPalette())
    return pass.wide() ? TintRows<uint16_t>(pass, thetaShift, phiShift)
                       : TintRows<uint8_t>(pass, thetaShift, phiShift);
  ColourSpacePass space(pass, {COLORSPACE_SPHERICAL});
  const int32_t status = space.Run([&](auto &row) {
    using T = std::remove_reference_t<decltype(*row.rgb)>;
    // theta sits 2 bytes into an 8-bit spherical pixel, 4 into a 16-bit one.
    constexpr std::ptrdiff_t kSize = sizeof(T) == 2 ? 8 : 6;
    constexpr std::ptrdiff_t kAngles = sizeof(T) == 2 ? 4 : 2;
    int32_t result = row.To(COLORSPACE_SPHERICAL);
    if (result != RC_SUCCESS) return result;
    uint8_t *const sphere = row.Space(COLORSPACE_SPHERICAL);
    row.row.ForEach([&](int32_t x) { ShiftPixel(sphere + x * kSize + kAngles, thetaShift, phiShift); });
    return row.Back(COLORSPACE_SPHERICAL);
  });
  if (pass.OnPalette()) FinishOperation();  // result unused
  return status;
}

}  // namespace

}  // namespace img::tint

extern "C" IMG_API int32_t Q_AdjustBitmapTint(BitmapRecord *bitmap, int32_t thetaShift, int32_t phiShift,
                                              uint32_t flags) {
  constexpr img::EntryRule kEntry{.nullBitmap = img::NullBitmap::Passed, .signedData = true};
  if (const int32_t status = img::CheckEntry(kEntry, flags, bitmap)) return status;
  if (!img::ranges::kHueShift.Contains(thetaShift) || !img::ranges::kHueShift.Contains(phiShift))
    return RC_INVALID_PARAMETER;
  if (thetaShift == 0 && phiShift == 0) return FinishOperation();
  // The record checks let a null bitmap through; it cannot be worked on.
  if (bitmap == nullptr) return RC_NO_BITMAP;
  if (IsGrayBitmap(bitmap)) return RC_UNSUPPORTED_BITMAP;
  return img::tint::Worker(bitmap, thetaShift, phiShift);
}
