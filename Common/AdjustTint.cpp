// Tint: every pixel's RGB vector turned about the origin, its length kept.
// Pixels go to the spherical form (length, theta from the blue axis, phi in
// the red-green plane), both angles are shifted and the pixel comes back.
#include <cstring>
#include <type_traits>

#include "ClrSpc.h"
#include "frame.h"

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

// The palette of a palette bitmap without a region, or the rows of the
// region, through the spherical form and back; nothing is reported.
int32_t Worker(BitmapRecord *bitmap, int32_t thetaShift, int32_t phiShift) {
  RowPass pass(bitmap, RowSetup{.palette = PaletteRule::EntriesWithoutRegion});
  if (pass.status() != RC_SUCCESS) return pass.status();
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
