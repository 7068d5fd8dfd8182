// Colour-space conversions, the scalar reference: every conversion as a
// per-pixel formula, the 8-bit pixel form, and plain row loops over the
// formulas (every 8-bit code; the 16-bit rows have no other form). The
// loops of the instruction sets (ClrSpc_sse2.cpp, ClrSpc_avx2.cpp,
// ClrSpc_avx512.cpp) give the same bits for every input.
#include <array>
#include <cmath>
#include <utility>

#include "ClrSpc_internal.h"

namespace img::clrspc {

namespace {

// The 16-bit integer forms keep their signed 32-bit products as they are,
// overflow included (two's-complement wrap-around).
using W = hue::Wrap32;

// ---- HSV and HLS (the models of hue_model.h) --------------------------------------------

inline void HsvFwd8(int32_t R, int32_t G, int32_t B, uint8_t *p) {
  const auto c = hue::HsvOf<hue::Plain>(R, G, B, 120, 100);  // degrees, percent
  Put16(p, c.h);
  p[2] = static_cast<uint8_t>(c.s);
  p[3] = static_cast<uint8_t>(c.v);
}

inline void HsvFwd16(int32_t R, int32_t G, int32_t B, uint8_t *p) {
  const auto c = hue::HsvOf<hue::Plain>(R, G, B, 12000, 10000);  // hundredths of both
  Put32(p, c.h);
  Put16(p + 4, c.s);
  Put16(p + 6, c.v);
}

inline Rgb HsvInv16(const uint8_t *p) {
  const Rgb c = hue::HsvToRgb<W, 6000>(static_cast<int32_t>(Get32(p)), Get16(p + 4), Get16(p + 6), 10000);
  return {Clamp(c.r, 0, 65535), Clamp(c.g, 0, 65535), Clamp(c.b, 0, 65535)};
}

inline void HlsFwd8(int32_t R, int32_t G, int32_t B, uint8_t *p) {
  const hue::Hls c = hue::HlsOf<hue::Plain, hue::Plain, hue::kHlsDegrees>(R, G, B);
  Put16(p, c.h);
  p[2] = static_cast<uint8_t>(c.l);
  p[3] = static_cast<uint8_t>(c.s);
}

inline void HlsFwd16(int32_t R, int32_t G, int32_t B, uint8_t *p) {
  const hue::Hls c = hue::HlsOf<hue::Plain, W, hue::kHlsHundredths>(R, G, B);
  Put32(p, c.h);
  Put16(p + 4, c.l);
  Put16(p + 6, c.s);
}

inline Rgb HlsInv16(const uint8_t *p) {
  const Rgb c =
      hue::HlsToRgb<W, hue::kHlsHundredths>(static_cast<int32_t>(Get32(p)), Get16(p + 4), Get16(p + 6));
  return {Clamp(c.r, 0, 65535), Clamp(c.g, 0, 65535), Clamp(c.b, 0, 65535)};
}

// ---- XYZ (blue weight of X 0.189423 here, 0.180423 in the Lab forms) --------------

template <int32_t Max>
inline void XyzFwd(int32_t R, int32_t G, int32_t B, int32_t out[3]) {
  out[0] = TruncClamp(0.412453 * R + 0.357580 * G + 0.189423 * B, 0, Max);
  out[1] = TruncClamp(0.212671 * R + 0.715160 * G + 0.072169 * B, 0, Max);
  out[2] = TruncClamp(0.019334 * R + 0.119193 * G + 0.950227 * B, 0, Max);
}

template <int32_t Max>
inline Rgb XyzInv(int32_t X, int32_t Y, int32_t Z) {
  return {TruncClamp(3.240479 * X - 1.53715 * Y - 0.498535 * Z, 0, Max),
          TruncClamp(-0.969256 * X + 1.875992 * Y + 0.041556 * Z, 0, Max),
          TruncClamp(0.055648 * X - 0.204043 * Y + 1.057311 * Z, 0, Max)};
}

// ---- YCrCb ------------------------------------------------------------------------

template <int32_t Max, int32_t CMin, int32_t CMax>
inline void YcrcbFwd(int32_t R, int32_t G, int32_t B, int32_t out[3]) {
  out[0] = TruncClamp(0.299 * R + 0.587 * G + 0.114 * B, 0, Max);
  out[1] = TruncClamp(0.5 * R - 0.41869 * G - 0.08131 * B, CMin, CMax);
  out[2] = TruncClamp(-0.16874 * R - 0.33126 * G + 0.5 * B, CMin, CMax);
}

template <int32_t Max>
inline Rgb YcrcbInv(int32_t Y, int32_t Cr, int32_t Cb) {
  return {TruncClamp(Y + 1.402 * Cr, 0, Max), TruncClamp(Y - 0.3441363 * Cb - 0.71413636 * Cr, 0, Max),
          TruncClamp(Y + 1.772 * Cb, 0, Max)};
}

// ---- YUV (fixed point, arithmetic shifts) ---------------------------------------------

inline void YuvFwd8(int32_t R, int32_t G, int32_t B, uint8_t *p) {
  const int32_t Y = (9798 * R + 19235 * G + 3736 * B) >> 15;
  const int32_t U = Clamp(((B - Y) * 16122) >> 15, -112, 111);
  const int32_t V = Clamp(((R - Y) * 25203) >> 15, -138, 137);
  p[0] = static_cast<uint8_t>(Clamp(Y, 0, 255));
  p[1] = static_cast<uint8_t>(U);
  Put16(p + 2, V);
}

// Near white the sum of products exceeds 2^31 and wraps to a negative Y; U and
// V are computed from that Y and the stored Y clamps to 0.
inline void YuvFwd16(int32_t R, int32_t G, int32_t B, uint8_t *p) {
  const int32_t Y = W::Add(W::Add(W::Mul(9798, R), W::Mul(19235, G)), W::Mul(3736, B)) >> 15;
  const int32_t U = Clamp(W::Mul(W::Sub(B, Y), 16122) >> 15, -28567, 28566);
  const int32_t V = Clamp(W::Mul(W::Sub(R, Y), 25203) >> 15, -35337, 35336);
  Put16(p, Clamp(Y, 0, 65535));
  Put16(p + 2, U);
  Put32(p + 4, V);
}

inline Rgb YuvInv8(const uint8_t *p) {
  const int32_t Y = p[0], U = static_cast<int8_t>(p[1]), V = static_cast<int16_t>(Get16(p + 2));
  return {Clamp(Y + ((37221 * V - 29 * U) >> 15), 0, 255),
          Clamp(Y + ((-12943 * U - 18940 * V) >> 15), 0, 255),
          Clamp(Y + ((66883 * U - 33 * V) >> 15), 0, 255)};
}

inline Rgb YuvInv16(const uint8_t *p) {
  const int32_t Y = Get16(p), U = static_cast<int16_t>(Get16(p + 2)), V = static_cast<int32_t>(Get32(p + 4));
  return {Clamp(W::Add(Y, W::Sub(W::Mul(37221, V), W::Mul(29, U)) >> 15), 0, 65535),
          Clamp(W::Add(Y, W::Sub(W::Mul(-12943, U), W::Mul(18940, V)) >> 15), 0, 65535),
          Clamp(W::Add(Y, W::Sub(W::Mul(66883, U), W::Mul(33, V)) >> 15), 0, 65535)};
}

// ---- Lab in floating point ----------------------------------------------------------

// Stores L and the low 8 bits of a and b (they wrap, they are not clamped).
inline void LabFwd8(int32_t R, int32_t G, int32_t B, uint8_t *p) {
  const double Yr = (0.212671 * R + 0.715160 * G + 0.072169 * B) / 255;
  const double Xr = (0.412453 * R + 0.357580 * G + 0.180423 * B) / kXn8;
  const double Zr = (0.019334 * R + 0.119193 * G + 0.950227 * B) / kZn8;
  const double fx = LabF(Xr), fy = LabF(Yr), fz = LabF(Zr);
  const double L = Yr > 0.008856 ? 116 * fy - 16 + 0.5 : 903.3 * Yr + 0.5;
  p[0] = static_cast<uint8_t>(TruncClamp(L, 0, 255));
  p[1] = static_cast<uint8_t>(static_cast<int32_t>(500 * (fx - fy)));
  p[2] = static_cast<uint8_t>(static_cast<int32_t>(200 * (fy - fz)));
}

// 16-bit: L in hundredths, a and b 257 times their 8-bit values (the scale of
// the table-driven 16-bit form), low 16 bits stored.
inline void LabFwd16(int32_t R, int32_t G, int32_t B, uint8_t *p) {
  const double Yr = (0.212671 * R + 0.715160 * G + 0.072169 * B) / 65535;
  const double Xr = (0.412453 * R + 0.357580 * G + 0.180423 * B) / kXn16;
  const double Zr = (0.019334 * R + 0.119193 * G + 0.950227 * B) / kZn16;
  const double fx = LabF(Xr), fy = LabF(Yr), fz = LabF(Zr);
  const double L = Yr > 0.008856 ? 11600 * fy - 1600 + 0.5 : 90330 * Yr + 0.5;
  Put16(p, TruncClamp(L, 0, 65535));
  Put16(p + 2, static_cast<int32_t>(128500 * (fx - fy)));
  Put16(p + 4, static_cast<int32_t>(51400 * (fy - fz)));
}

inline Rgb LabInv8(const uint8_t *p) {
  return LabInv8From(LabY8(p[0]), static_cast<int8_t>(p[1]), static_cast<int8_t>(p[2]));
}

// ---- Lab through tables ---------------------------------------------------------------

inline void LabTabFwd8(const LabTableSet &t, int32_t R, int32_t G, int32_t B, uint8_t *p) {
  LabTabStore8(t, (t.RgbToX[0][R] + t.RgbToX[1][G] + t.RgbToX[2][B]) / 24236,
               (t.RgbToY[0][R] + t.RgbToY[1][G] + t.RgbToY[2][B]) / 25500,
               (t.RgbToZ[0][R] + t.RgbToZ[1][G] + t.RgbToZ[2][B]) / 27763, p);
}

inline Rgb LabTabInv8(const LabTableSet &t, const uint8_t *p) {
  const LabTabXyz c = LabTabInvXyz(t, p);
  return {Clamp((t.XToRgb[0][c.x] + t.YToRgb[0][c.y] + t.ZToRgb[0][c.z]) / 1000000, 0, 255),
          Clamp((t.XToRgb[1][c.x] + t.YToRgb[1][c.y] + t.ZToRgb[1][c.z]) / 1000000, 0, 255),
          Clamp((t.XToRgb[2][c.x] + t.YToRgb[2][c.y] + t.ZToRgb[2][c.z]) / 1000000, 0, 255)};
}

inline void LabTabFwd16(const LabTableSet &t, int32_t R, int32_t G, int32_t B, uint8_t *p) {
  const int32_t X = (4124 * R + 3576 * G + 1804 * B) / 62288;
  const int32_t Y = (2126 * R + 7152 * G + 722 * B) / 65535;
  const int32_t Z = (193 * R + 1192 * G + 9502 * B) / 71352;
  const int32_t fX = t.CubeRoot[X], fY = t.CubeRoot[Y], fZ = t.CubeRoot[Z];
  const int32_t L = Y < 90 ? Y * 9033 / 1000 : (fY * 116 - 160000) / 100;
  Put16(p, L);
  Put16(p + 2, (fX - fY) * 1285 / 100);
  Put16(p + 4, (fY - fZ) * 514 / 100);
}

inline Rgb LabTabInv16(const LabTableSet &t, const uint8_t *p) {
  const int32_t L = Get16(p), a = static_cast<int16_t>(Get16(p + 2)), b = static_cast<int16_t>(Get16(p + 4));
  int32_t Y = static_cast<int32_t>(10000 * Cube((L + 1600) / 11600.0));
  if (Y < 89) Y = L * 10000 / 90330;
  const int32_t fy = t.CubeRoot[Clamp(Y, 0, 10000)];
  const int32_t X = t.InvCube[Clamp(a * 100 / 1285 + fy, kInvCubeLow, kInvCubeHigh)] * 62288 / 10000;
  const int32_t Yp = W::Mul(Y, 65535) / 10000;
  const int32_t Z = t.InvCube[Clamp(fy - b * 100 / 514, kInvCubeLow, kInvCubeHigh)] * 71352 / 10000;
  const auto mix = [&](int32_t cx, int32_t cy, int32_t cz) {
    return Clamp(W::Add(W::Add(W::Add(W::Mul(cx, X), W::Mul(cy, Yp)), W::Mul(cz, Z)), 5000) / 10000, 0,
                 65535);
  };
  return {mix(32404, -15371, -4985), mix(-9692, 18759, 415), mix(556, -2040, 10573)};
}

// ---- CMY, CMYK ---------------------------------------------------------------------------

template <int32_t Max>
inline void CmykFwd(int32_t R, int32_t G, int32_t B, int32_t out[4]) {
  // Black, the smallest of Max - R, Max - G, Max - B, is Max minus the
  // largest of R, G, B; each of cyan, magenta, yellow minus black is that
  // largest minus its channel.
  const int32_t mx = hue::Max3(R, G, B);
  out[0] = mx - R, out[1] = mx - G, out[2] = mx - B, out[3] = Max - mx;
}

// ---- Validation and the pixel form ------------------------------------------------------

// Forward conversion of one 8-bit pixel; code 9 is handled by the rows only.
inline void Forward8(uint32_t code, int32_t R, int32_t G, int32_t B, uint8_t *p) {
  int32_t v[4];
  switch (code) {
    case COLORSPACE_RGB:
      p[0] = static_cast<uint8_t>(R), p[1] = static_cast<uint8_t>(G), p[2] = static_cast<uint8_t>(B);
      break;
    case COLORSPACE_HSV:
      HsvFwd8(R, G, B, p);
      break;
    case COLORSPACE_HLS:
      HlsFwd8(R, G, B, p);
      break;
    case COLORSPACE_XYZ:
      XyzFwd<255>(R, G, B, v);
      p[0] = static_cast<uint8_t>(v[0]), p[1] = static_cast<uint8_t>(v[1]), p[2] = static_cast<uint8_t>(v[2]);
      break;
    case COLORSPACE_YCRCB:
      YcrcbFwd<255, -128, 127>(R, G, B, v);
      p[0] = static_cast<uint8_t>(v[0]), p[1] = static_cast<uint8_t>(v[1]), p[2] = static_cast<uint8_t>(v[2]);
      break;
    case COLORSPACE_YUV:
      YuvFwd8(R, G, B, p);
      break;
    case COLORSPACE_LAB:
      LabFwd8(R, G, B, p);
      break;
    case COLORSPACE_CMY:
      p[0] = static_cast<uint8_t>(255 - R), p[1] = static_cast<uint8_t>(255 - G),
      p[2] = static_cast<uint8_t>(255 - B);
      break;
    case COLORSPACE_CMYK:
      CmykFwd<255>(R, G, B, v);
      for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v[i]);
      break;
    case COLORSPACE_SPHERICAL:
      SphFwd<443>(R, G, B, v);
      Put16(p, v[0]), Put16(p + 2, v[1]), Put16(p + 4, v[2]);
      break;
    default:
      break;
  }
}

inline Rgb Inverse8(uint32_t code, const uint8_t *p) {
  switch (code - kToRgb) {
    case COLORSPACE_RGB:
      return {p[0], p[1], p[2]};
    case COLORSPACE_HSV:
      return HsvInverse8(p);
    case COLORSPACE_HLS:
      return HlsInverse8(p);
    case COLORSPACE_XYZ:
      return XyzInv<255>(p[0], p[1], p[2]);
    case COLORSPACE_YCRCB:
      return YcrcbInv<255>(p[0], static_cast<int8_t>(p[1]), static_cast<int8_t>(p[2]));
    case COLORSPACE_YUV:
      return YuvInv8(p);
    case COLORSPACE_LAB:
      return LabInv8(p);
    case COLORSPACE_CMY:
      return {255 - p[0], 255 - p[1], 255 - p[2]};
    case COLORSPACE_CMYK:
      // No clamping: the difference wraps when stored as a byte.
      return {static_cast<uint8_t>(255 - p[0] - p[3]), static_cast<uint8_t>(255 - p[1] - p[3]),
              static_cast<uint8_t>(255 - p[2] - p[3])};
    case COLORSPACE_SPHERICAL:
      return SphInv<255>(Get16(p), static_cast<int16_t>(Get16(p + 2)), static_cast<int16_t>(Get16(p + 4)));
    default:
      return {0, 0, 0};
  }
}

// ---- Row loops ----------------------------------------------------------------------------

// Runs `f(R, G, B, spacePixel)` over pixels first..end-1 of a blue-green-red row.
template <class T, class F>
inline void ForwardRow(const T *rgb, uint8_t *space, int32_t size, int32_t first, int32_t end, F f) {
  for (int32_t i = first; i < end; ++i) {
    const T *q = rgb + 3 * static_cast<ptrdiff_t>(i);
    f(q[2], q[1], q[0], space + static_cast<ptrdiff_t>(i) * size);
  }
}

// Runs `f(spacePixel) -> Rgb` and writes blue, green, red.
template <class T, class F>
inline void InverseRow(T *rgb, const uint8_t *space, int32_t size, int32_t first, int32_t end, F f) {
  for (int32_t i = first; i < end; ++i) {
    const Rgb c = f(space + static_cast<ptrdiff_t>(i) * size);
    T *q = rgb + 3 * static_cast<ptrdiff_t>(i);
    q[0] = static_cast<T>(c.b), q[1] = static_cast<T>(c.g), q[2] = static_cast<T>(c.r);
  }
}

// The 8-bit row of one code: its pixel formula over the run (the table-driven
// Lab form reads its tables as they are).
template <uint32_t kCode>
void ReferenceRow8(const LabTableSet *set, uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  if constexpr (!ValidCode(kCode))
    return;  // never called: the table holds null for these codes
  else if constexpr (kCode == COLORSPACE_LAB_TABLE)
    ForwardRow(rgb, sp, 3, first, end,
               [&t = *set](int32_t R, int32_t G, int32_t B, uint8_t *p) { LabTabFwd8(t, R, G, B, p); });
  else if constexpr (kCode == COLORSPACE_LAB_TABLE + kToRgb)
    InverseRow(rgb, sp, 3, first, end, [&t = *set](const uint8_t *p) { return LabTabInv8(t, p); });
  else if constexpr (kCode < kToRgb)
    ForwardRow(rgb, sp, kSize8[kCode], first, end,
               [](int32_t R, int32_t G, int32_t B, uint8_t *p) { Forward8(kCode, R, G, B, p); });
  else
    InverseRow(rgb, sp, kSize8[kCode - kToRgb], first, end,
               [](const uint8_t *p) { return Inverse8(kCode, p); });
}

template <size_t... kCodes>
constexpr std::array<Row8Fn, sizeof...(kCodes)> ReferenceRows(std::index_sequence<kCodes...>) {
  return {(ValidCode(kCodes) ? &ReferenceRow8<kCodes> : nullptr)...};
}
constexpr auto kReferenceRows8 = ReferenceRows(std::make_index_sequence<kToRgb + 11>{});

}  // namespace

Row8Fn ScalarRow8(uint32_t code) { return code < kReferenceRows8.size() ? kReferenceRows8[code] : nullptr; }

void ForwardPixel8(uint32_t code, int32_t r, int32_t g, int32_t b, uint8_t *spacePixel) {
  Forward8(code, r, g, b, spacePixel);
}

Rgb InversePixel8(uint32_t code, const uint8_t *spacePixel) { return Inverse8(code, spacePixel); }

void Row16(uint32_t code, uint16_t *rgb, uint8_t *sp, const LabTableSet *set, int32_t first, int32_t end) {
  switch (code) {
    case COLORSPACE_RGB:
      ForwardRow(rgb, sp, 6, first, end, [](int32_t R, int32_t G, int32_t B, uint8_t *p) {
        Put16(p, R), Put16(p + 2, G), Put16(p + 4, B);
      });
      break;
    case COLORSPACE_HSV:
      ForwardRow(rgb, sp, 8, first, end,
                 [](int32_t R, int32_t G, int32_t B, uint8_t *p) { HsvFwd16(R, G, B, p); });
      break;
    case COLORSPACE_HLS:
      ForwardRow(rgb, sp, 8, first, end,
                 [](int32_t R, int32_t G, int32_t B, uint8_t *p) { HlsFwd16(R, G, B, p); });
      break;
    case COLORSPACE_XYZ:
      ForwardRow(rgb, sp, 6, first, end, [](int32_t R, int32_t G, int32_t B, uint8_t *p) {
        int32_t v[3];
        XyzFwd<65535>(R, G, B, v);
        Put16(p, v[0]), Put16(p + 2, v[1]), Put16(p + 4, v[2]);
      });
      break;
    case COLORSPACE_YCRCB:
      ForwardRow(rgb, sp, 6, first, end, [](int32_t R, int32_t G, int32_t B, uint8_t *p) {
        int32_t v[3];
        YcrcbFwd<65535, -32768, 32767>(R, G, B, v);
        Put16(p, v[0]), Put16(p + 2, v[1]), Put16(p + 4, v[2]);
      });
      break;
    case COLORSPACE_YUV:
      ForwardRow(rgb, sp, 8, first, end,
                 [](int32_t R, int32_t G, int32_t B, uint8_t *p) { YuvFwd16(R, G, B, p); });
      break;
    case COLORSPACE_LAB:
      ForwardRow(rgb, sp, 6, first, end,
                 [](int32_t R, int32_t G, int32_t B, uint8_t *p) { LabFwd16(R, G, B, p); });
      break;
    case COLORSPACE_CMY:
      ForwardRow(rgb, sp, 6, first, end, [](int32_t R, int32_t G, int32_t B, uint8_t *p) {
        Put16(p, 65535 - R), Put16(p + 2, 65535 - G), Put16(p + 4, 65535 - B);
      });
      break;
    case COLORSPACE_CMYK:
      ForwardRow(rgb, sp, 8, first, end, [](int32_t R, int32_t G, int32_t B, uint8_t *p) {
        int32_t v[4];
        CmykFwd<65535>(R, G, B, v);
        Put16(p, v[0]), Put16(p + 2, v[1]), Put16(p + 4, v[2]), Put16(p + 6, v[3]);
      });
      break;
    case COLORSPACE_LAB_TABLE:
      ForwardRow(rgb, sp, 6, first, end,
                 [&t = *set](int32_t R, int32_t G, int32_t B, uint8_t *p) { LabTabFwd16(t, R, G, B, p); });
      break;
    case COLORSPACE_SPHERICAL:
      ForwardRow(rgb, sp, 8, first, end, [](int32_t R, int32_t G, int32_t B, uint8_t *p) {
        int32_t v[3];
        SphFwd<113509>(R, G, B, v);
        Put32(p, v[0]), Put16(p + 4, v[1]), Put16(p + 6, v[2]);
      });
      break;
    case COLORSPACE_RGB + kToRgb:
      InverseRow(rgb, sp, 6, first, end, [](const uint8_t *p) {
        return Rgb{Get16(p), Get16(p + 2), Get16(p + 4)};
      });
      break;
    case COLORSPACE_HSV + kToRgb:
      InverseRow(rgb, sp, 8, first, end, [](const uint8_t *p) { return HsvInv16(p); });
      break;
    case COLORSPACE_HLS + kToRgb:
      InverseRow(rgb, sp, 8, first, end, [](const uint8_t *p) { return HlsInv16(p); });
      break;
    case COLORSPACE_XYZ + kToRgb:
      InverseRow(rgb, sp, 6, first, end,
                 [](const uint8_t *p) { return XyzInv<65535>(Get16(p), Get16(p + 2), Get16(p + 4)); });
      break;
    case COLORSPACE_YCRCB + kToRgb:
      InverseRow(rgb, sp, 6, first, end, [](const uint8_t *p) {
        return YcrcbInv<65535>(Get16(p), static_cast<int16_t>(Get16(p + 2)),
                               static_cast<int16_t>(Get16(p + 4)));
      });
      break;
    case COLORSPACE_YUV + kToRgb:
      InverseRow(rgb, sp, 8, first, end, [](const uint8_t *p) { return YuvInv16(p); });
      break;
    case COLORSPACE_LAB + kToRgb: {
      // Yr and f(Yr) (one pow) depend on L alone: kept for the last L of each
      // of 1024 slots (L mod 1024), the same values recomputed or not.
      struct Slot {
        int32_t L;
        LabY y;
      };
      Slot slots[1024];
      for (Slot &slot : slots) slot.L = -1;
      InverseRow(rgb, sp, 6, first, end, [&slots](const uint8_t *p) {
        const int32_t L = Get16(p);
        Slot &slot = slots[L & 1023];
        if (slot.L != L) slot = {L, LabY16(L)};
        return LabInv16From(slot.y, static_cast<int16_t>(Get16(p + 2)), static_cast<int16_t>(Get16(p + 4)));
      });
      break;
    }
    case COLORSPACE_CMY + kToRgb:
      InverseRow(rgb, sp, 6, first, end, [](const uint8_t *p) {
        return Rgb{65535 - Get16(p), 65535 - Get16(p + 2), 65535 - Get16(p + 4)};
      });
      break;
    case COLORSPACE_CMYK + kToRgb:
      InverseRow(rgb, sp, 8, first, end, [](const uint8_t *p) {
        const int32_t k = Get16(p + 6);
        return Rgb{static_cast<uint16_t>(65535 - Get16(p) - k),
                   static_cast<uint16_t>(65535 - Get16(p + 2) - k),
                   static_cast<uint16_t>(65535 - Get16(p + 4) - k)};
      });
      break;
    case COLORSPACE_LAB_TABLE + kToRgb:
      InverseRow(rgb, sp, 6, first, end, [&t = *set](const uint8_t *p) { return LabTabInv16(t, p); });
      break;
    case COLORSPACE_SPHERICAL + kToRgb:
      InverseRow(rgb, sp, 8, first, end, [](const uint8_t *p) {
        return SphInv<65535>(Get32(p), static_cast<int16_t>(Get16(p + 4)),
                             static_cast<int16_t>(Get16(p + 6)));
      });
      break;
    default:
      break;
  }
}

}  // namespace img::clrspc
