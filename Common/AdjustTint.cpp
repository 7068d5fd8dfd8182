// Tint: every pixel's RGB vector turned about the origin, its length kept.
// Pixels go to the spherical form (length, theta from the blue axis, phi in
// the red-green plane), both angles are shifted and the pixel comes back.
#include <cmath>
#include <cstring>
#include <type_traits>

#include "ClrSpc.h"
#include "ClrSpc_internal.h"
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

// The cosine and sine of a turned angle, by the angle the forward
// conversion gave (0..9000), filled when first needed: the doubles the
// inverse conversion computes from that turned angle, so a pixel's result
// is the row conversions' (the spherical form is not stored in between, but
// its fields hold these values: a length within 16 or 32 bits, angles
// 0..9000 before the turn).
struct TurnedAngle {
  double cosine, sine;
  bool known;
};
constexpr int32_t kAngleCount = 9001;  // 0..9000

class Turn {
 public:
  Turn(int32_t thetaShift, int32_t phiShift)
      : theta_(kAngleCount, __LINE__, kSourceFile),
        phi_(kAngleCount, __LINE__, kSourceFile),
        thetaShift_(thetaShift),
        phiShift_(phiShift) {}
  bool operator!() const { return !theta_ || !phi_; }

  template <class T>
  void Pixel(int32_t &r, int32_t &g, int32_t &b) {
    constexpr int32_t kMax = sizeof(T) == 2 ? 65535 : 255;
    int32_t v[3];
    if constexpr (sizeof(T) == 2)
      clrspc::SphFwd<113509>(r, g, b, v);
    else
      clrspc::SphFwd<443>(r, g, b, v);
    const TurnedAngle &t = Of(theta_.get()[v[1]], v[1], thetaShift_);
    const TurnedAngle &f = Of(phi_.get()[v[2]], v[2], phiShift_);
    const clrspc::Rgb out = clrspc::SphInvFrom<kMax>(v[0], t.cosine, t.sine, f.cosine);
    r = out.r, g = out.g, b = out.b;
  }

 private:
  static const TurnedAngle &Of(TurnedAngle &a, int32_t angle, int32_t shift) {
    if (!a.known) {
      const double radians = clrspc::SphRadians(ShiftAngle(static_cast<uint16_t>(angle), shift));
      a = {std::cos(radians), std::sin(radians), true};
    }
    return a;
  }

  KernelBuffer<TurnedAngle> theta_, phi_;
  int32_t thetaShift_, phiShift_;
};

// The rows of the region, pixel by pixel through `memo` (the result depends
// on the colour alone).
template <class T, class Memo>
int32_t TintRows(RowPass &pass, Memo &memo, int32_t thetaShift, int32_t phiShift) {
  Turn turn(thetaShift, phiShift);
  if (!memo || !turn) return RC_NO_MEMORY;
  const auto compute = [&turn](int32_t &r, int32_t &g, int32_t &b) { turn.Pixel<T>(r, g, b); };
  return pass.RunRows([&](auto &row) {
    if constexpr (sizeof(*row.samples) == sizeof(T)) {
      row.ForEachRun([&](int32_t left, int32_t right) {
        ForEachColour(row.samples, row.channels, left, right,
                      [&](int32_t &r, int32_t &g, int32_t &b) { memo.Apply(r, g, b, compute); });
      });
    }
  });
}

// 8-bit rows of many pixels take a slot for every colour, 16-bit ones a
// larger memo, others the memo.
int32_t TintRows(RowPass &pass, int32_t thetaShift, int32_t phiShift) {
  const BitmapRecord &b = *pass.bitmap();
  const bool many = static_cast<int64_t>(b.Width) * b.Height >= ColourTable::kMinPixels;
  if (pass.wide() && many) {
    ColourMemo<uint16_t, 22> memo(__LINE__, kSourceFile);
    return TintRows<uint16_t>(pass, memo, thetaShift, phiShift);
  }
  if (pass.wide()) {
    ColourMemo<uint16_t> memo(__LINE__, kSourceFile);
    return TintRows<uint16_t>(pass, memo, thetaShift, phiShift);
  }
  if (many) {
    ColourTable table(__LINE__, kSourceFile);
    return TintRows<uint8_t>(pass, table, thetaShift, phiShift);
  }
  ColourMemo<uint8_t> memo(__LINE__, kSourceFile);
  return TintRows<uint8_t>(pass, memo, thetaShift, phiShift);
}

// The palette of a palette bitmap without a region, or the rows of the
// region, through the spherical form and back; nothing is reported.
int32_t Worker(BitmapRecord *bitmap, int32_t thetaShift, int32_t phiShift) {
  RowPass pass(bitmap, RowSetup{.palette = PaletteRule::EntriesWithoutRegion});
  if (pass.status() != RC_SUCCESS) return pass.status();
  if (!pass.OnPalette()) return TintRows(pass, thetaShift, phiShift);
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
