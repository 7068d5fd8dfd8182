// Colour-space conversions: one 8-bit pixel, or a run of one 8/16-bit row.
//
// Every conversion is written once as an inline per-pixel function; the row
// forms pick the code once and run one loop per code. Some 8-bit row loops
// have faster equivalents (reciprocal tables instead of division, planar
// loops the compiler vectorises, hand-written AVX2 and AVX-512 loops chosen
// at run time) that give the same bits as the per-pixel functions for every
// input.
#include "ClrSpc.h"

#include <immintrin.h>

#include <array>
#include <cmath>
#include <cstring>

#include "family.h"

namespace img {

static constexpr const wchar_t *kSourceFile = L"Common/ClrSpc";

namespace {

constexpr uint32_t kToRgb = COLORSPACE_TO_RGB;

// ---- Small helpers -------------------------------------------------------------

constexpr int32_t Clamp(int32_t v, int32_t lo, int32_t hi) { return v < lo ? lo : (v > hi ? hi : v); }

// trunc(v) clamped to [lo, hi]; NaN gives lo. Clamping before the conversion
// gives the same result as after it and keeps the conversion defined.
inline int32_t TruncClamp(double v, int32_t lo, int32_t hi) {
  if (!(v > lo)) return lo;
  if (v >= hi) return hi;
  return static_cast<int32_t>(v);
}

// Signed 32-bit arithmetic with two's-complement wrap-around (the 16-bit
// integer forms keep their 32-bit products as they are, overflow included).
constexpr int32_t WMul(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}
constexpr int32_t WAdd(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}
constexpr int32_t WSub(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}
// Division truncating toward zero; the one overflowing case wraps.
constexpr int32_t WDiv(int32_t a, int32_t b) { return (b == -1) ? WSub(0, a) : a / b; }

inline double Cube(double t) { return t * t * t; }

inline uint16_t Get16(const uint8_t *p) {
  uint16_t v;
  std::memcpy(&v, p, 2);
  return v;
}
inline uint32_t Get32(const uint8_t *p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}
inline void Put16(uint8_t *p, int32_t v) {
  const uint16_t u = static_cast<uint16_t>(v);
  std::memcpy(p, &u, 2);
}
inline void Put32(uint8_t *p, int32_t v) {
  const uint32_t u = static_cast<uint32_t>(v);
  std::memcpy(p, &u, 4);
}

struct Rgb {
  int32_t r, g, b;
};

constexpr int32_t Max3(int32_t a, int32_t b, int32_t c) { return a > b ? (a > c ? a : c) : (b > c ? b : c); }
constexpr int32_t Min3(int32_t a, int32_t b, int32_t c) { return a < b ? (a < c ? a : c) : (b < c ? b : c); }

// ---- HSV (hue from the smallest component, 120-degree sectors) -------------------

inline void HsvFwd8(int32_t R, int32_t G, int32_t B, uint8_t *p) {
  const int32_t mx = Max3(R, G, B), mn = Min3(R, G, B);
  int32_t h = 0, s = 0;
  if (mx != mn) {
    if (B == mn)
      h = (G - mn) * 120 / (R + G - 2 * mn);
    else if (R == mn)
      h = (B - mn) * 120 / (B + G - 2 * mn) + 120;
    else
      h = (R - mn) * 120 / (R + B - 2 * mn) + 240;
    s = (mx - mn) * 100 / mx;
  }
  Put16(p, h);
  p[2] = static_cast<uint8_t>(s);
  p[3] = static_cast<uint8_t>(mx);
}

inline void HsvFwd16(int32_t R, int32_t G, int32_t B, uint8_t *p) {
  const int32_t mx = Max3(R, G, B), mn = Min3(R, G, B);
  int32_t h = 0, s = 0;
  if (mx != mn) {
    if (B == mn)
      h = (G - mn) * 12000 / (R + G - 2 * mn);
    else if (R == mn)
      h = (B - mn) * 12000 / (B + G - 2 * mn) + 12000;
    else
      h = (R - mn) * 12000 / (R + B - 2 * mn) + 24000;
    s = (mx - mn) * 10000 / mx;
  }
  Put32(p, h);
  Put16(p + 4, s);
  Put16(p + 6, mx);
}

inline Rgb HsvInv8(const uint8_t *p) {
  const int32_t H = Get16(p), S = p[2], V = p[3];
  if (S == 0) return {V, V, V};
  const int32_t low = (100 - S) * V / 100, d = V - low;
  int32_t R, G, B;
  if (H <= 60) {
    R = V, G = d * H / (120 - H) + low, B = low;
  } else if (H <= 120) {
    R = (120 - H) * d / H + low, G = V, B = low;
  } else if (H <= 180) {
    R = low, G = V, B = (H - 120) * d / (240 - H) + low;
  } else if (H <= 240) {
    R = low, G = (240 - H) * d / (H - 120) + low, B = V;
  } else if (H <= 300) {
    R = (H - 240) * d / (360 - H) + low, G = low, B = V;
  } else {
    R = V, G = low, B = (360 - H) * d / (H - 240) + low;
  }
  return {Clamp(R, 0, 255), Clamp(G, 0, 255), Clamp(B, 0, 255)};
}

inline Rgb HsvInv16(const uint8_t *p) {
  const uint32_t Hu = Get32(p);
  const int32_t H = static_cast<int32_t>(Hu), S = Get16(p + 4), V = Get16(p + 6);
  if (S == 0) return {V, V, V};
  const int32_t low = WMul(10000 - S, V) / 10000, d = V - low;
  int32_t R, G, B;
  // The sector is chosen on the unsigned hue, so each divisor below is
  // positive except in the last sector, where it is never 0 or -1.
  if (Hu <= 6000) {
    R = V, G = WAdd(WMul(d, H) / (12000 - H), low), B = low;
  } else if (Hu <= 12000) {
    R = WAdd(WMul(12000 - H, d) / H, low), G = V, B = low;
  } else if (Hu <= 18000) {
    R = low, G = V, B = WAdd(WMul(H - 12000, d) / (24000 - H), low);
  } else if (Hu <= 24000) {
    R = low, G = WAdd(WMul(24000 - H, d) / (H - 12000), low), B = V;
  } else if (Hu <= 30000) {
    R = WAdd(WMul(H - 24000, d) / (36000 - H), low), G = low, B = V;
  } else {
    R = V, G = low, B = WAdd(WDiv(WMul(WSub(36000, H), d), WSub(H, 24000)), low);
  }
  return {Clamp(R, 0, 65535), Clamp(G, 0, 65535), Clamp(B, 0, 65535)};
}

// ---- HLS ----------------------------------------------------------------------------

inline void HlsFwd8(int32_t R, int32_t G, int32_t B, uint8_t *p) {
  const int32_t mx = Max3(R, G, B), mn = Min3(R, G, B);
  const int32_t L = (mx + mn) / 2;
  int32_t h = 0, s = 0;
  if (mx != mn) {
    s = L <= 128 ? (mx - mn) * 100 / (mx + mn) : (mx - mn) * 100 / (510 - mx - mn);
    if (s != 0) {
      if (R == mx)
        h = (G - B) * 60 / (mx - mn);
      else if (G == mx)
        h = (B - R) * 60 / (mx - mn) + 120;
      else
        h = (R - G) * 60 / (mx - mn) + 240;
      if (h < 0) h += 360;
    }
  }
  Put16(p, h);
  p[2] = static_cast<uint8_t>(L);
  p[3] = static_cast<uint8_t>(s);
}

inline void HlsFwd16(int32_t R, int32_t G, int32_t B, uint8_t *p) {
  const int32_t mx = Max3(R, G, B), mn = Min3(R, G, B);
  const int32_t L = (mx + mn) / 2;
  int32_t h = 0, s = 0;
  if (mx != mn) {
    s = L <= 32767 ? (mx - mn) * 10000 / (mx + mn) : (mx - mn) * 10000 / (131070 - mx - mn);
    if (s != 0) {
      const int32_t den = 6 * (mx - mn);
      if (R == mx)
        h = WMul(G - B, 36000) / den;
      else if (G == mx)
        h = WMul(B - R, 36000) / den + 12000;
      else
        h = WMul(R - G, 36000) / den + 24000;
      if (h < 0) h += 36000;
    }
  }
  Put32(p, h);
  Put16(p + 4, L);
  Put16(p + 6, s);
}

inline int32_t HlsValue8(int32_t m1, int32_t m2, int32_t h) {
  if (h >= 361)
    h -= 360;
  else if (h < 0)
    h += 360;
  if (h <= 60) return m1 + (m2 - m1) * h * 6 / 360;
  if (h <= 180) return m2;
  if (h <= 240) return m1 + (m2 - m1) * (240 - h) * 6 / 360;
  return m1;
}

inline Rgb HlsInv8(const uint8_t *p) {
  const int32_t H = Get16(p), L = p[2], S = p[3];
  if (S == 0) return {L, L, L};
  const int32_t m2 = L <= 128 ? (S + 100) * L / 100 : S * 255 / 100 + L - L * S / 100;
  const int32_t m1 = 2 * L - m2;
  return {Clamp(HlsValue8(m1, m2, H + 120), 0, 255), Clamp(HlsValue8(m1, m2, H), 0, 255),
          Clamp(HlsValue8(m1, m2, H - 120), 0, 255)};
}

inline int32_t HlsValue16(int32_t m1, int32_t m2, int32_t h) {
  if (h >= 36001)
    h -= 36000;
  else if (h < 0)
    h += 36000;
  if (h <= 6000) return WAdd(m1, WMul(WMul(WSub(m2, m1), h), 6) / 36000);
  if (h <= 18000) return m2;
  if (h <= 24000) return WAdd(m1, WMul(WMul(WSub(m2, m1), 24000 - h), 6) / 36000);
  return m1;
}

inline Rgb HlsInv16(const uint8_t *p) {
  const int32_t H = static_cast<int32_t>(Get32(p)), L = Get16(p + 4), S = Get16(p + 6);
  if (S == 0) return {L, L, L};
  const int32_t m2 =
      L <= 32767 ? WMul(S + 10000, L) / 10000 : WSub(WMul(S, 65535) / 10000 + L, WMul(L, S) / 10000);
  const int32_t m1 = WSub(2 * L, m2);
  return {Clamp(HlsValue16(m1, m2, WAdd(H, 12000)), 0, 65535), Clamp(HlsValue16(m1, m2, H), 0, 65535),
          Clamp(HlsValue16(m1, m2, WSub(H, 12000)), 0, 65535)};
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
  const int32_t Y = WAdd(WAdd(WMul(9798, R), WMul(19235, G)), WMul(3736, B)) >> 15;
  const int32_t U = Clamp(WMul(WSub(B, Y), 16122) >> 15, -28567, 28566);
  const int32_t V = Clamp(WMul(WSub(R, Y), 25203) >> 15, -35337, 35336);
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
  return {Clamp(WAdd(Y, WSub(WMul(37221, V), WMul(29, U)) >> 15), 0, 65535),
          Clamp(WAdd(Y, WSub(WMul(-12943, U), WMul(18940, V)) >> 15), 0, 65535),
          Clamp(WAdd(Y, WSub(WMul(66883, U), WMul(33, V)) >> 15), 0, 65535)};
}

// ---- Lab in floating point ----------------------------------------------------------

inline double LabF(double t) { return t > 0.008856 ? std::pow(t, 0.333333) : 7.787 * t + 0.137931; }
inline double LabFInv(double f) { return f > 0.206893 ? Cube(f) : (f - 0.137931) / 7.787; }

constexpr double kXn8 = 242.36628, kZn8 = 277.63227;
// The same white point on the 16-bit scale: 257 times the 8-bit one.
constexpr double kXn16 = 62288.13396, kZn16 = 71351.49339;

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
  const int32_t L = p[0], a = static_cast<int8_t>(p[1]), b = static_cast<int8_t>(p[2]);
  double Yr = Cube((L + 16) / 116.0);
  if (Yr < 0.008856) Yr = L / 903.3;
  const double fy = LabF(Yr), fx = a / 500.0 + fy, fz = fy - b / 200.0;
  const double X = kXn8 * LabFInv(fx), Y = 255 * Yr, Z = kZn8 * LabFInv(fz);
  return {TruncClamp(3.240479 * X - 1.53715 * Y - 0.498535 * Z + 0.5, 0, 255),
          TruncClamp(-0.969256 * X + 1.875992 * Y + 0.041556 * Z + 0.5, 0, 255),
          TruncClamp(0.055648 * X - 0.204043 * Y + 1.057311 * Z + 0.5, 0, 255)};
}

inline Rgb LabInv16(const uint8_t *p) {
  const int32_t L = Get16(p), a = static_cast<int16_t>(Get16(p + 2)), b = static_cast<int16_t>(Get16(p + 4));
  double Yr = Cube((L + 1600) / 11600.0);
  if (Yr < 0.008856) Yr = L / 90330.0;
  const double fy = LabF(Yr), fx = a / 128500.0 + fy, fz = fy - b / 51400.0;
  const double X = kXn16 * LabFInv(fx), Y = 65535 * Yr, Z = kZn16 * LabFInv(fz);
  return {TruncClamp(3.240479 * X - 1.53715 * Y - 0.498535 * Z + 0.5, 0, 65535),
          TruncClamp(-0.969256 * X + 1.875992 * Y + 0.041556 * Z + 0.5, 0, 65535),
          TruncClamp(0.055648 * X - 0.204043 * Y + 1.057311 * Z + 0.5, 0, 65535)};
}

// ---- Lab through tables ---------------------------------------------------------------

constexpr int32_t kInvCubeLow = -6400, kInvCubeHigh = 12560;

inline void LabTabFwd8(const LabTableSet &t, int32_t R, int32_t G, int32_t B, uint8_t *p) {
  const int32_t X = (t.RgbToX[0][R] + t.RgbToX[1][G] + t.RgbToX[2][B]) / 24236;
  const int32_t Y = (t.RgbToY[0][R] + t.RgbToY[1][G] + t.RgbToY[2][B]) / 25500;
  const int32_t Z = (t.RgbToZ[0][R] + t.RgbToZ[1][G] + t.RgbToZ[2][B]) / 27763;
  const int32_t fx = t.CubeRoot[X], fy = t.CubeRoot[Y], fz = t.CubeRoot[Z];
  p[0] = static_cast<uint8_t>(t.LFromY[Y]);
  p[1] = static_cast<uint8_t>(t.AScale[fx - fy]);
  p[2] = static_cast<uint8_t>(t.BScale[fy - fz]);
}

// Indexes that only out-of-gamut Lab values reach are held to the tables.
inline Rgb LabTabInv8(const LabTableSet &t, const uint8_t *p) {
  const int32_t L = p[0] > 100 ? 100 : p[0], a = static_cast<int8_t>(p[1]), b = static_cast<int8_t>(p[2]);
  const int32_t Yt = t.YFromL[L];
  const int32_t fy = t.CubeRoot[Yt];
  const int32_t X = Clamp(t.InvCube[Clamp(a * 20 + fy, kInvCubeLow, kInvCubeHigh)] * 242 / 10000, 0, 255);
  const int32_t Z = Clamp(t.InvCube[Clamp(fy - b * 50, kInvCubeLow, kInvCubeHigh)] * 278 / 10000, 0, 278);
  const int32_t Y = Yt * 255 / 10000;
  return {Clamp((t.XToRgb[0][X] + t.YToRgb[0][Y] + t.ZToRgb[0][Z]) / 1000000, 0, 255),
          Clamp((t.XToRgb[1][X] + t.YToRgb[1][Y] + t.ZToRgb[1][Z]) / 1000000, 0, 255),
          Clamp((t.XToRgb[2][X] + t.YToRgb[2][Y] + t.ZToRgb[2][Z]) / 1000000, 0, 255)};
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
  const int32_t Yp = WMul(Y, 65535) / 10000;
  const int32_t Z = t.InvCube[Clamp(fy - b * 100 / 514, kInvCubeLow, kInvCubeHigh)] * 71352 / 10000;
  const auto mix = [&](int32_t cx, int32_t cy, int32_t cz) {
    return Clamp(WAdd(WAdd(WAdd(WMul(cx, X), WMul(cy, Yp)), WMul(cz, Z)), 5000) / 10000, 0, 65535);
  };
  return {mix(32404, -15371, -4985), mix(-9692, 18759, 415), mix(556, -2040, 10573)};
}

// The 8-bit forward form over a run: as LabTabFwd8, with the RGB-to-XYZ
// table reads replaced by their content (index times weight; the sums stay
// below 2^31).
void LabTabFwd8Row(const LabTableSet &t, const uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  const int32_t *cube = t.CubeRoot, *lFromY = t.LFromY, *aScale = t.AScale, *bScale = t.BScale;
  for (int32_t i = first; i < end; ++i) {
    const uint8_t *q = rgb + 3 * static_cast<ptrdiff_t>(i);
    const int32_t B = q[0], G = q[1], R = q[2];
    const int32_t X = (R * 412453 + G * 357580 + B * 180423) / 24236;
    const int32_t Y = (R * 212671 + G * 715160 + B * 72169) / 25500;
    const int32_t Z = (R * 19334 + G * 119193 + B * 950227) / 27763;
    const int32_t fx = cube[X], fy = cube[Y], fz = cube[Z];
    uint8_t *p = sp + 3 * static_cast<ptrdiff_t>(i);
    p[0] = static_cast<uint8_t>(lFromY[Y]);
    p[1] = static_cast<uint8_t>(aScale[fx - fy]);
    p[2] = static_cast<uint8_t>(bScale[fy - fz]);
  }
}

// The 8-bit inverse over a run: as LabTabInv8, with each X-, Y- and Z-to-RGB
// table read replaced by its content, the index times the weight (exact in
// 32 bits: no sum leaves -2^31..2^31).
void LabTabInv8Row(const LabTableSet &t, uint8_t *rgb, const uint8_t *sp, int32_t first, int32_t end) {
  const int32_t *yFromL = t.YFromL, *cube = t.CubeRoot, *inv = t.InvCube;
  for (int32_t i = first; i < end; ++i) {
    const uint8_t *p = sp + 3 * static_cast<ptrdiff_t>(i);
    const int32_t L = p[0] > 100 ? 100 : p[0], a = static_cast<int8_t>(p[1]), b = static_cast<int8_t>(p[2]);
    const int32_t Yt = yFromL[L];
    const int32_t fy = cube[Yt];
    const int32_t X = Clamp(inv[Clamp(a * 20 + fy, kInvCubeLow, kInvCubeHigh)] * 242 / 10000, 0, 255);
    const int32_t Z = Clamp(inv[Clamp(fy - b * 50, kInvCubeLow, kInvCubeHigh)] * 278 / 10000, 0, 278);
    const int32_t Y = Yt * 255 / 10000;
    uint8_t *q = rgb + 3 * static_cast<ptrdiff_t>(i);
    q[2] = static_cast<uint8_t>(Clamp((X * 3240479 + Y * -1537150 + Z * -498535) / 1000000, 0, 255));
    q[1] = static_cast<uint8_t>(Clamp((X * -969256 + Y * 1875992 + Z * 41556) / 1000000, 0, 255));
    q[0] = static_cast<uint8_t>(Clamp((X * 55648 + Y * -204043 + Z * 1057311) / 1000000, 0, 255));
  }
}

// ---- CMY, CMYK ---------------------------------------------------------------------------

template <int32_t Max>
inline void CmykFwd(int32_t R, int32_t G, int32_t B, int32_t out[4]) {
  const int32_t c = Max - R, m = Max - G, y = Max - B;
  const int32_t k = Min3(c, m, y);
  out[0] = c - k, out[1] = m - k, out[2] = y - k, out[3] = k;
}

// ---- Spherical ------------------------------------------------------------------------------

constexpr double kPi = 3.1415926535;

template <int32_t LengthCap>
inline void SphFwd(int32_t R, int32_t G, int32_t B, int32_t out[3]) {
  const double dr = R, dg = G, db = B;
  const double r = std::sqrt(dr * dr + dg * dg + db * db);
  const int32_t len = static_cast<int32_t>(r + 0.5);
  double theta = 0, phi = 0;
  if (len != 0) theta = std::acos(db / r);
  const double st = std::sin(theta);
  if (st != 0) {
    // Rounding can put the cosine a hair above 1; its angle is 0.
    double c = dr / (r * st);
    if (c > 1) c = 1;
    phi = std::acos(c);
  }
  out[0] = len > LengthCap ? LengthCap : len;
  out[1] = TruncClamp(theta * 18000 / kPi, 0, 9000);
  out[2] = TruncClamp(phi * 18000 / kPi, 0, 9000);
}

// G comes from the length and the uncapped R and B; a negative square gives 0.
// The angles are signed: a turned tint may hand in negative ones.
template <int32_t Max>
inline Rgb SphInv(double len, int32_t thetaH, int32_t phiH) {
  const double t = thetaH * kPi / 18000, f = phiH * kPi / 18000;
  const double B = std::trunc(std::fabs(len * std::cos(t) + 0.5));
  const double R = std::trunc(std::fabs(len * std::cos(f) * std::sin(t) + 0.5));
  const double g2 = len * len - R * R - B * B;
  const double G = g2 > 0 ? std::sqrt(g2) : 0;
  return {TruncClamp(R, 0, Max), TruncClamp(G, 0, Max), TruncClamp(B, 0, Max)};
}

// ---- Validation ------------------------------------------------------------------------

constexpr int8_t kSize8[11] = {3, 4, 4, 3, 3, 4, 3, 3, 4, 0, 6};
constexpr int8_t kSize16[11] = {6, 8, 8, 6, 6, 8, 6, 6, 8, 0, 8};

constexpr bool ValidCode(uint32_t code) { return code <= 10 || (code >= kToRgb && code <= kToRgb + 10); }

// ---- 8-bit per-pixel dispatch (pixel form and reference for the rows) --------------

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
      return HsvInv8(p);
    case COLORSPACE_HLS:
      return HlsInv8(p);
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

// ---- Row loops ---------------------------------------------------------------------------

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

// ---- Fast 8-bit row loops -----------------------------------------------------------------

// floor(2^32 / d) + 1: (n * k) >> 32 equals n / d for 0 <= n < 2^32 / d, far
// more than any numerator here (the tests check every one in use).
struct Reciprocals {
  std::array<uint64_t, 1024> k{};
  constexpr Reciprocals() {
    for (uint64_t d = 1; d < k.size(); ++d) k[d] = (uint64_t{1} << 32) / d + 1;
  }
};
constexpr Reciprocals kRecip{};

inline int32_t DivR(int32_t n, int32_t d) {
  return static_cast<int32_t>((static_cast<uint64_t>(n) * kRecip.k[d]) >> 32);
}
// Signed numerator, truncation toward zero.
inline int32_t DivRS(int32_t n, int32_t d) { return n < 0 ? -DivR(-n, d) : DivR(n, d); }

void HsvFwd8Row(const uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  for (int32_t i = first; i < end; ++i) {
    const uint8_t *q = rgb + 3 * static_cast<ptrdiff_t>(i);
    const int32_t B = q[0], G = q[1], R = q[2];
    const int32_t mx = Max3(R, G, B), mn = Min3(R, G, B);
    int32_t h = 0, s = 0;
    if (mx != mn) {
      // Numerator, denominator and offset of the sector of the smallest component.
      int32_t num, den, off;
      if (B == mn)
        num = G - mn, den = R + G - 2 * mn, off = 0;
      else if (R == mn)
        num = B - mn, den = B + G - 2 * mn, off = 120;
      else
        num = R - mn, den = R + B - 2 * mn, off = 240;
      h = DivR(num * 120, den) + off;
      s = DivR((mx - mn) * 100, mx);
    }
    uint8_t *p = sp + 4 * static_cast<ptrdiff_t>(i);
    Put16(p, h);
    p[2] = static_cast<uint8_t>(s);
    p[3] = static_cast<uint8_t>(mx);
  }
}

void HsvInv8Row(uint8_t *rgb, const uint8_t *sp, int32_t first, int32_t end) {
  for (int32_t i = first; i < end; ++i) {
    const uint8_t *p = sp + 4 * static_cast<ptrdiff_t>(i);
    const int32_t H = Get16(p), S = p[2], V = p[3];
    int32_t R, G, B;
    if (S == 0) {
      R = G = B = V;
    } else if (H > 359 || S > 100) {
      const Rgb c = HsvInv8(p);
      R = c.r, G = c.g, B = c.b;
    } else {
      // In range every value lies in [0, V]: no clamping needed.
      const int32_t low = DivR((100 - S) * V, 100), d = V - low;
      if (H <= 60) {
        R = V, G = DivR(d * H, 120 - H) + low, B = low;
      } else if (H <= 120) {
        R = DivR((120 - H) * d, H) + low, G = V, B = low;
      } else if (H <= 180) {
        R = low, G = V, B = DivR((H - 120) * d, 240 - H) + low;
      } else if (H <= 240) {
        R = low, G = DivR((240 - H) * d, H - 120) + low, B = V;
      } else if (H <= 300) {
        R = DivR((H - 240) * d, 360 - H) + low, G = low, B = V;
      } else {
        R = V, G = low, B = DivR((360 - H) * d, H - 240) + low;
      }
    }
    uint8_t *q = rgb + 3 * static_cast<ptrdiff_t>(i);
    q[0] = static_cast<uint8_t>(B), q[1] = static_cast<uint8_t>(G), q[2] = static_cast<uint8_t>(R);
  }
}

void HlsFwd8Row(const uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  for (int32_t i = first; i < end; ++i) {
    const uint8_t *q = rgb + 3 * static_cast<ptrdiff_t>(i);
    const int32_t B = q[0], G = q[1], R = q[2];
    const int32_t mx = Max3(R, G, B), mn = Min3(R, G, B);
    const int32_t L = (mx + mn) >> 1;
    int32_t h = 0, s = 0;
    if (mx != mn) {
      s = DivR((mx - mn) * 100, L <= 128 ? mx + mn : 510 - mx - mn);
      if (s != 0) {
        int32_t diff, off;
        if (R == mx)
          diff = G - B, off = 0;
        else if (G == mx)
          diff = B - R, off = 120;
        else
          diff = R - G, off = 240;
        h = DivRS(diff * 60, mx - mn) + off;
        if (h < 0) h += 360;
      }
    }
    uint8_t *p = sp + 4 * static_cast<ptrdiff_t>(i);
    Put16(p, h);
    p[2] = static_cast<uint8_t>(L);
    p[3] = static_cast<uint8_t>(s);
  }
}

// ---- Planar 8-bit row loops --------------------------------------------------------------
//
// A row is split into chunks; each chunk is spread into planes of 32-bit
// integers, converted by a plain loop over the planes (which the compiler
// turns into SSE2 code, same formulas, same order, no fused multiply-add)
// and gathered back. These are the loops without AVX2 and the tails of the
// AVX2 loops.

#define IMG_INLINE inline __attribute__((always_inline))

constexpr int32_t kChunk = 256;

// Clamp, then truncate: the same value as TruncClamp for every number.
IMG_INLINE int32_t VClamp(double v, double lo, double hi) {
  v = v < lo ? lo : v;
  v = v > hi ? hi : v;
  return static_cast<int32_t>(v);
}
IMG_INLINE int32_t IClamp(int32_t v, int32_t lo, int32_t hi) {
  v = v < lo ? lo : v;
  return v > hi ? hi : v;
}

struct Planes {
  alignas(32) int32_t a[kChunk];
  alignas(32) int32_t b[kChunk];
  alignas(32) int32_t c[kChunk];
  alignas(32) int32_t d[kChunk];
};

IMG_INLINE void XyzFwdK(Planes &in, Planes &out, int32_t n) {
  for (int32_t i = 0; i < n; ++i) {
    const int32_t R = in.a[i], G = in.b[i], B = in.c[i];
    out.a[i] = VClamp(0.412453 * R + 0.357580 * G + 0.189423 * B, 0, 255);
    out.b[i] = VClamp(0.212671 * R + 0.715160 * G + 0.072169 * B, 0, 255);
    out.c[i] = VClamp(0.019334 * R + 0.119193 * G + 0.950227 * B, 0, 255);
  }
}
IMG_INLINE void XyzInvK(Planes &in, Planes &out, int32_t n) {
  for (int32_t i = 0; i < n; ++i) {
    const int32_t X = in.a[i], Y = in.b[i], Z = in.c[i];
    out.a[i] = VClamp(3.240479 * X - 1.53715 * Y - 0.498535 * Z, 0, 255);
    out.b[i] = VClamp(-0.969256 * X + 1.875992 * Y + 0.041556 * Z, 0, 255);
    out.c[i] = VClamp(0.055648 * X - 0.204043 * Y + 1.057311 * Z, 0, 255);
  }
}
IMG_INLINE void YcrcbFwdK(Planes &in, Planes &out, int32_t n) {
  for (int32_t i = 0; i < n; ++i) {
    const int32_t R = in.a[i], G = in.b[i], B = in.c[i];
    out.a[i] = VClamp(0.299 * R + 0.587 * G + 0.114 * B, 0, 255);
    out.b[i] = VClamp(0.5 * R - 0.41869 * G - 0.08131 * B, -128, 127);
    out.c[i] = VClamp(-0.16874 * R - 0.33126 * G + 0.5 * B, -128, 127);
  }
}
IMG_INLINE void YcrcbInvK(Planes &in, Planes &out, int32_t n) {
  for (int32_t i = 0; i < n; ++i) {
    const int32_t Y = in.a[i], Cr = in.b[i], Cb = in.c[i];
    out.a[i] = VClamp(Y + 1.402 * Cr, 0, 255);
    out.b[i] = VClamp(Y - 0.3441363 * Cb - 0.71413636 * Cr, 0, 255);
    out.c[i] = VClamp(Y + 1.772 * Cb, 0, 255);
  }
}
IMG_INLINE void YuvFwdK(Planes &in, Planes &out, int32_t n) {
  for (int32_t i = 0; i < n; ++i) {
    const int32_t R = in.a[i], G = in.b[i], B = in.c[i];
    const int32_t Y = (9798 * R + 19235 * G + 3736 * B) >> 15;
    out.a[i] = IClamp(Y, 0, 255);
    out.b[i] = IClamp(((B - Y) * 16122) >> 15, -112, 111);
    out.c[i] = IClamp(((R - Y) * 25203) >> 15, -138, 137);
  }
}
IMG_INLINE void YuvInvK(Planes &in, Planes &out, int32_t n) {
  for (int32_t i = 0; i < n; ++i) {
    const int32_t Y = in.a[i], U = in.b[i], V = in.c[i];
    out.a[i] = IClamp(Y + ((37221 * V - 29 * U) >> 15), 0, 255);
    out.b[i] = IClamp(Y + ((-12943 * U - 18940 * V) >> 15), 0, 255);
    out.c[i] = IClamp(Y + ((66883 * U - 33 * V) >> 15), 0, 255);
  }
}

// HLS inverse without branches for hue 0..359 and S 0..100 (in.d flags the
// other pixels, which the caller converts with the pixel formula). There
// m2 >= m1 and every product is non-negative.
IMG_INLINE int32_t HlsValueK(int32_t m1, int32_t m2, int32_t h) {
  h = h >= 361 ? h - 360 : h;
  h = h < 0 ? h + 360 : h;
  const uint32_t span = static_cast<uint32_t>(m2 - m1);
  const int32_t up = m1 + static_cast<int32_t>(span * static_cast<uint32_t>(h) * 6u / 360u);
  const int32_t down = m1 + static_cast<int32_t>(span * static_cast<uint32_t>(240 - h) * 6u / 360u);
  return h <= 60 ? up : (h <= 180 ? m2 : (h <= 240 ? down : m1));
}
IMG_INLINE void HlsInvK(Planes &in, Planes &out, int32_t n) {
  for (int32_t i = 0; i < n; ++i) {
    const int32_t H = in.a[i], L = in.b[i], S = in.c[i];
    const uint32_t us = static_cast<uint32_t>(S), ul = static_cast<uint32_t>(L);
    const int32_t m2 = L <= 128 ? static_cast<int32_t>((us + 100) * ul / 100u)
                                : static_cast<int32_t>(us * 255u / 100u + ul - ul * us / 100u);
    const int32_t m1 = 2 * L - m2;
    const int32_t r = IClamp(HlsValueK(m1, m2, H + 120), 0, 255);
    const int32_t g = IClamp(HlsValueK(m1, m2, H), 0, 255);
    const int32_t b = IClamp(HlsValueK(m1, m2, H - 120), 0, 255);
    out.a[i] = S == 0 ? L : r;
    out.b[i] = S == 0 ? L : g;
    out.c[i] = S == 0 ? L : b;
  }
}

// Blue-green-red row -> planes R, G, B.
IMG_INLINE void SplitRgb(const uint8_t *q, Planes &p, int32_t n) {
  for (int32_t i = 0; i < n; ++i) p.c[i] = q[3 * i], p.b[i] = q[3 * i + 1], p.a[i] = q[3 * i + 2];
}
// Planes R, G, B -> blue-green-red row.
IMG_INLINE void JoinRgb(const Planes &p, uint8_t *q, int32_t n) {
  for (int32_t i = 0; i < n; ++i)
    q[3 * i] = static_cast<uint8_t>(p.c[i]), q[3 * i + 1] = static_cast<uint8_t>(p.b[i]),
          q[3 * i + 2] = static_cast<uint8_t>(p.a[i]);
}

enum class Layout { Bytes3, Signed3, Yuv, Hls };

IMG_INLINE void SplitSpace(Layout l, const uint8_t *s, Planes &p, int32_t n) {
  switch (l) {
    case Layout::Bytes3:
      for (int32_t i = 0; i < n; ++i) p.a[i] = s[3 * i], p.b[i] = s[3 * i + 1], p.c[i] = s[3 * i + 2];
      break;
    case Layout::Signed3:
      for (int32_t i = 0; i < n; ++i)
        p.a[i] = s[3 * i], p.b[i] = static_cast<int8_t>(s[3 * i + 1]),
        p.c[i] = static_cast<int8_t>(s[3 * i + 2]);
      break;
    case Layout::Yuv:
      for (int32_t i = 0; i < n; ++i)
        p.a[i] = s[4 * i], p.b[i] = static_cast<int8_t>(s[4 * i + 1]),
        p.c[i] = static_cast<int16_t>(static_cast<uint16_t>(s[4 * i + 2] | (s[4 * i + 3] << 8)));
      break;
    case Layout::Hls:
      for (int32_t i = 0; i < n; ++i)
        p.a[i] = s[4 * i] | (s[4 * i + 1] << 8), p.b[i] = s[4 * i + 2], p.c[i] = s[4 * i + 3];
      break;
  }
}
IMG_INLINE void JoinSpace(Layout l, const Planes &p, uint8_t *s, int32_t n) {
  if (l == Layout::Yuv) {
    for (int32_t i = 0; i < n; ++i)
      s[4 * i] = static_cast<uint8_t>(p.a[i]), s[4 * i + 1] = static_cast<uint8_t>(p.b[i]),
            s[4 * i + 2] = static_cast<uint8_t>(p.c[i]), s[4 * i + 3] = static_cast<uint8_t>(p.c[i] >> 8);
  } else {
    for (int32_t i = 0; i < n; ++i)
      s[3 * i] = static_cast<uint8_t>(p.a[i]), s[3 * i + 1] = static_cast<uint8_t>(p.b[i]),
            s[3 * i + 2] = static_cast<uint8_t>(p.c[i]);
  }
}

template <void (*K)(Planes &, Planes &, int32_t)>
IMG_INLINE void PlanarFwd(Layout l, int32_t size, const uint8_t *rgb, uint8_t *sp, int32_t first,
                          int32_t end) {
  Planes in, out;
  for (int32_t s = first; s < end; s += kChunk) {
    const int32_t n = end - s < kChunk ? end - s : kChunk;
    SplitRgb(rgb + 3 * static_cast<ptrdiff_t>(s), in, n);
    K(in, out, n);
    JoinSpace(l, out, sp + size * static_cast<ptrdiff_t>(s), n);
  }
}

template <void (*K)(Planes &, Planes &, int32_t)>
IMG_INLINE void PlanarInv(Layout l, int32_t size, uint8_t *rgb, const uint8_t *sp, int32_t first,
                          int32_t end) {
  Planes in, out;
  for (int32_t s = first; s < end; s += kChunk) {
    const int32_t n = end - s < kChunk ? end - s : kChunk;
    const uint8_t *src = sp + size * static_cast<ptrdiff_t>(s);
    SplitSpace(l, src, in, n);
    K(in, out, n);
    if (l == Layout::Hls) {
      // Hues above 359 and saturations above 100 take the pixel formula.
      for (int32_t i = 0; i < n; ++i)
        if (in.a[i] > 359 || in.c[i] > 100) {
          const Rgb c = HlsInv8(src + 4 * i);
          out.a[i] = c.r, out.b[i] = c.g, out.c[i] = c.b;
        }
    }
    JoinRgb(out, rgb + 3 * static_cast<ptrdiff_t>(s), n);
  }
}

// Every planar row loop, for one instruction set.
#define IMG_PLANAR_ROWS(ATTR, SUFFIX)                                                          \
  ATTR void XyzFwdRow##SUFFIX(const uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {   \
    PlanarFwd<XyzFwdK>(Layout::Bytes3, 3, rgb, sp, first, end);                                \
  }                                                                                            \
  ATTR void XyzInvRow##SUFFIX(uint8_t *rgb, const uint8_t *sp, int32_t first, int32_t end) {   \
    PlanarInv<XyzInvK>(Layout::Bytes3, 3, rgb, sp, first, end);                                \
  }                                                                                            \
  ATTR void YcrcbFwdRow##SUFFIX(const uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) { \
    PlanarFwd<YcrcbFwdK>(Layout::Bytes3, 3, rgb, sp, first, end);                              \
  }                                                                                            \
  ATTR void YcrcbInvRow##SUFFIX(uint8_t *rgb, const uint8_t *sp, int32_t first, int32_t end) { \
    PlanarInv<YcrcbInvK>(Layout::Signed3, 3, rgb, sp, first, end);                             \
  }                                                                                            \
  ATTR void YuvFwdRow##SUFFIX(const uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {   \
    PlanarFwd<YuvFwdK>(Layout::Yuv, 4, rgb, sp, first, end);                                   \
  }                                                                                            \
  ATTR void YuvInvRow##SUFFIX(uint8_t *rgb, const uint8_t *sp, int32_t first, int32_t end) {   \
    PlanarInv<YuvInvK>(Layout::Yuv, 4, rgb, sp, first, end);                                   \
  }                                                                                            \
  ATTR void HlsInvRow##SUFFIX(uint8_t *rgb, const uint8_t *sp, int32_t first, int32_t end) {   \
    PlanarInv<HlsInvK>(Layout::Hls, 4, rgb, sp, first, end);                                   \
  }

IMG_PLANAR_ROWS(, Sse2)

// ---- AVX2 8-bit row loops ----------------------------------------------------------------
//
// Eight pixels at a time in 32-bit lanes, the rest of the run through the
// loops above. Floating-point formulas run on four doubles a vector with the
// operations in the order written (no fused multiply-add); truncation is
// _mm256_cvttpd_epi32 followed by an integer clamp, which equals TruncClamp.
// Integer divisions use one of two exact replacements:
// - float division: for 0 <= |n| < 2^24 and 0 < d < 2^24, trunc(n / d) in
//   single precision is the integer quotient (n and d are exact; a non-integer
//   quotient lies at least 1/d from an integer, the rounding error is below
//   2^-8 / d);
// - 16-bit multiply-high by a constant (Div60, Div100) for the numerators
//   bounded below.

#define IMG_AVX2 __attribute__((target("avx2")))
#define IMG_AVX2_INLINE __attribute__((target("avx2"), always_inline)) inline

// Field `c` (0..2) of the eight 3-byte pixels at q, zero-extended to 32 bits.
// The low half takes bytes 0..15 (pixels 0..3), the high half bytes 8..23
// (pixels 4..7 at offsets 4..15): no byte past the 24 is read.
IMG_AVX2_INLINE __m256i Load3(const uint8_t *q, int c) {
  const __m256i v =
      _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i *>(q))),
                              _mm_loadu_si128(reinterpret_cast<const __m128i *>(q + 8)), 1);
  const char z = static_cast<char>(0x80);
  const char a = static_cast<char>(c), b = static_cast<char>(c + 4);
  const __m256i m = _mm256_setr_epi8(a, z, z, z, a + 3, z, z, z, a + 6, z, z, z, a + 9, z, z, z,  //
                                     b, z, z, z, b + 3, z, z, z, b + 6, z, z, z, b + 9, z, z, z);
  return _mm256_shuffle_epi8(v, m);
}

// Byte 0 of each 32-bit lane of v moved to bytes c, c + 3, c + 6, c + 9 of its
// 128-bit half, every other byte zero.
IMG_AVX2_INLINE __m256i Spread3(__m256i v, int c) {
  char m[16];
  for (int k = 0; k < 16; ++k) m[k] = static_cast<char>(k < 12 && k % 3 == c ? (k / 3) * 4 : 0x80);
  const __m128i h = _mm_loadu_si128(reinterpret_cast<const __m128i *>(m));
  return _mm256_shuffle_epi8(v, _mm256_inserti128_si256(_mm256_castsi128_si256(h), h, 1));
}

// Writes the low bytes of f0, f1, f2 as eight 3-byte pixels (exactly 24 bytes).
IMG_AVX2_INLINE void Store3(uint8_t *q, __m256i f0, __m256i f1, __m256i f2) {
  const __m256i v = _mm256_or_si256(_mm256_or_si256(Spread3(f0, 0), Spread3(f1, 1)), Spread3(f2, 2));
  const __m128i lo = _mm256_castsi256_si128(v), hi = _mm256_extracti128_si256(v, 1);
  _mm_storel_epi64(reinterpret_cast<__m128i *>(q), lo);
  const int32_t lo2 = _mm_extract_epi32(lo, 2), hi2 = _mm_extract_epi32(hi, 2);
  std::memcpy(q + 8, &lo2, 4);
  _mm_storel_epi64(reinterpret_cast<__m128i *>(q + 12), hi);
  std::memcpy(q + 20, &hi2, 4);
}

IMG_AVX2_INLINE __m256i Sext8(__m256i v) { return _mm256_srai_epi32(_mm256_slli_epi32(v, 24), 24); }
IMG_AVX2_INLINE __m256i ClampI(__m256i v, int32_t lo, int32_t hi) {
  return _mm256_min_epi32(_mm256_max_epi32(v, _mm256_set1_epi32(lo)), _mm256_set1_epi32(hi));
}
IMG_AVX2_INLINE __m256i Select(__m256i mask, __m256i yes, __m256i no) {
  return _mm256_blendv_epi8(no, yes, mask);
}
IMG_AVX2_INLINE __m256i Gt(__m256i a, int32_t b) { return _mm256_cmpgt_epi32(a, _mm256_set1_epi32(b)); }

// Integer quotient n / d through single-precision division (see above).
IMG_AVX2_INLINE __m256i DivF(__m256i n, __m256i d) {
  return _mm256_cvttps_epi32(_mm256_div_ps(_mm256_cvtepi32_ps(n), _mm256_cvtepi32_ps(d)));
}
// n / 100 for 0 <= n < 43690: (n * 41944) >> 22, the error n * 96 / 2^22
// staying below one step of 1/100.
IMG_AVX2_INLINE __m256i Div100(__m256i n) {
  return _mm256_srli_epi32(_mm256_mulhi_epu16(n, _mm256_set1_epi32(41944)), 6);
}
// n / 60 for 0 <= n < 65536: (n * 34953) >> 21 (error n * 28 / 2^21).
IMG_AVX2_INLINE __m256i Div60(__m256i n) {
  return _mm256_srli_epi32(_mm256_mulhi_epu16(n, _mm256_set1_epi32(34953)), 5);
}

// Four doubles from each half of an integer vector, and back with truncation.
IMG_AVX2_INLINE __m256d Lo(__m256i v) { return _mm256_cvtepi32_pd(_mm256_castsi256_si128(v)); }
IMG_AVX2_INLINE __m256d Hi(__m256i v) { return _mm256_cvtepi32_pd(_mm256_extracti128_si256(v, 1)); }
IMG_AVX2_INLINE __m256i Trunc(__m256d lo, __m256d hi) {
  return _mm256_inserti128_si256(_mm256_castsi128_si256(_mm256_cvttpd_epi32(lo)), _mm256_cvttpd_epi32(hi), 1);
}
IMG_AVX2_INLINE __m256d K(double c) { return _mm256_set1_pd(c); }
// ((c0 x + c1 y) + c2 z), each product rounded on its own.
IMG_AVX2_INLINE __m256d Mix(double c0, __m256d x, double c1, __m256d y, double c2, __m256d z) {
  return _mm256_add_pd(_mm256_add_pd(_mm256_mul_pd(K(c0), x), _mm256_mul_pd(K(c1), y)),
                       _mm256_mul_pd(K(c2), z));
}
// Same with subtractions where the formulas write them, as (c0 x - c1 y) - c2 z.
IMG_AVX2_INLINE __m256d MixSS(double c0, __m256d x, double c1, __m256d y, double c2, __m256d z) {
  return _mm256_sub_pd(_mm256_sub_pd(_mm256_mul_pd(K(c0), x), _mm256_mul_pd(K(c1), y)),
                       _mm256_mul_pd(K(c2), z));
}
IMG_AVX2_INLINE __m256d MixSA(double c0, __m256d x, double c1, __m256d y, double c2, __m256d z) {
  return _mm256_add_pd(_mm256_sub_pd(_mm256_mul_pd(K(c0), x), _mm256_mul_pd(K(c1), y)),
                       _mm256_mul_pd(K(c2), z));
}

IMG_AVX2 void XyzFwdRowAvx2(const uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  int32_t i = first;
  for (; i + 8 <= end; i += 8) {
    const uint8_t *q = rgb + 3 * static_cast<ptrdiff_t>(i);
    const __m256i R = Load3(q, 2), G = Load3(q, 1), B = Load3(q, 0);
    __m256i out[3];
    const __m256d r[2] = {Lo(R), Hi(R)}, g[2] = {Lo(G), Hi(G)}, b[2] = {Lo(B), Hi(B)};
    __m256d x[2], y[2], z[2];
    for (int h = 0; h < 2; ++h) {
      x[h] = Mix(0.412453, r[h], 0.357580, g[h], 0.189423, b[h]);
      y[h] = Mix(0.212671, r[h], 0.715160, g[h], 0.072169, b[h]);
      z[h] = Mix(0.019334, r[h], 0.119193, g[h], 0.950227, b[h]);
    }
    out[0] = ClampI(Trunc(x[0], x[1]), 0, 255);
    out[1] = ClampI(Trunc(y[0], y[1]), 0, 255);
    out[2] = ClampI(Trunc(z[0], z[1]), 0, 255);
    Store3(sp + 3 * static_cast<ptrdiff_t>(i), out[0], out[1], out[2]);
  }
  XyzFwdRowSse2(rgb, sp, i, end);
}

IMG_AVX2 void XyzInvRowAvx2(uint8_t *rgb, const uint8_t *sp, int32_t first, int32_t end) {
  int32_t i = first;
  for (; i + 8 <= end; i += 8) {
    const uint8_t *p = sp + 3 * static_cast<ptrdiff_t>(i);
    const __m256i X = Load3(p, 0), Y = Load3(p, 1), Z = Load3(p, 2);
    const __m256d x[2] = {Lo(X), Hi(X)}, y[2] = {Lo(Y), Hi(Y)}, z[2] = {Lo(Z), Hi(Z)};
    __m256d r[2], g[2], b[2];
    for (int h = 0; h < 2; ++h) {
      r[h] = MixSS(3.240479, x[h], 1.53715, y[h], 0.498535, z[h]);
      g[h] = Mix(-0.969256, x[h], 1.875992, y[h], 0.041556, z[h]);
      b[h] = MixSA(0.055648, x[h], 0.204043, y[h], 1.057311, z[h]);
    }
    Store3(rgb + 3 * static_cast<ptrdiff_t>(i), ClampI(Trunc(b[0], b[1]), 0, 255),
           ClampI(Trunc(g[0], g[1]), 0, 255), ClampI(Trunc(r[0], r[1]), 0, 255));
  }
  XyzInvRowSse2(rgb, sp, i, end);
}

// YCrCb in doubles, exactly as the pixel formulas.
IMG_AVX2_INLINE void YcrcbFwdD(__m256i R, __m256i G, __m256i B, __m256i out[3]) {
  const __m256d r[2] = {Lo(R), Hi(R)}, g[2] = {Lo(G), Hi(G)}, b[2] = {Lo(B), Hi(B)};
  __m256d y[2], cr[2], cb[2];
  for (int h = 0; h < 2; ++h) {
    y[h] = Mix(0.299, r[h], 0.587, g[h], 0.114, b[h]);
    cr[h] = MixSS(0.5, r[h], 0.41869, g[h], 0.08131, b[h]);
    cb[h] = MixSA(-0.16874, r[h], 0.33126, g[h], 0.5, b[h]);
  }
  out[0] = ClampI(Trunc(y[0], y[1]), 0, 255);
  out[1] = ClampI(Trunc(cr[0], cr[1]), -128, 127);
  out[2] = ClampI(Trunc(cb[0], cb[1]), -128, 127);
}

// Single-precision estimates e of values v that the doubles compute within
// 1e-12: e stays within 7e-5 of v (three rounded products and two rounded
// sums of at most 512, and the constants' own rounding). Unless e lies within
// 2e-4 of an integer, trunc(e) = trunc(v) = trunc of the double result.
// NearInteger flags the lanes that need the doubles; NearNonzeroInteger
// spares those near 0, which truncate to 0 either way.
IMG_AVX2_INLINE __m256 AbsFrac(__m256 e) {
  const __m256 frac = _mm256_sub_ps(e, _mm256_round_ps(e, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC));
  return _mm256_and_ps(frac, _mm256_castsi256_ps(_mm256_set1_epi32(0x7FFFFFFF)));
}
IMG_AVX2_INLINE __m256 NearInteger(__m256 e) {
  return _mm256_cmp_ps(AbsFrac(e), _mm256_set1_ps(2e-4f), _CMP_LT_OQ);
}
IMG_AVX2_INLINE __m256 NearNonzeroInteger(__m256 e) {
  const __m256 absE = _mm256_and_ps(e, _mm256_castsi256_ps(_mm256_set1_epi32(0x7FFFFFFF)));
  return _mm256_and_ps(NearInteger(e), _mm256_cmp_ps(absE, _mm256_set1_ps(0.5f), _CMP_GT_OQ));
}
IMG_AVX2_INLINE __m256 MixF(float c0, __m256 x, float c1, __m256 y, float c2, __m256 z) {
  return _mm256_add_ps(
      _mm256_add_ps(_mm256_mul_ps(_mm256_set1_ps(c0), x), _mm256_mul_ps(_mm256_set1_ps(c1), y)),
      _mm256_mul_ps(_mm256_set1_ps(c2), z));
}

// Eight lanes in single precision; a group with a lane near an integer is
// redone in doubles. Y is an integer or at least 0.001 from one; Cr and Cb
// are 0 only for gray pixels, whose Y is an integer (so such groups are
// redone anyway). Unflagged results need no clamping: Y lies in 0..254, Cr
// and Cb in -127..127.
IMG_AVX2 void YcrcbFwdRowAvx2(const uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  int32_t i = first;
  for (; i + 8 <= end; i += 8) {
    const uint8_t *q = rgb + 3 * static_cast<ptrdiff_t>(i);
    const __m256i R = Load3(q, 2), G = Load3(q, 1), B = Load3(q, 0);
    const __m256 r = _mm256_cvtepi32_ps(R), g = _mm256_cvtepi32_ps(G), b = _mm256_cvtepi32_ps(B);
    const __m256 y = MixF(0.299f, r, 0.587f, g, 0.114f, b);
    const __m256 cr = MixF(0.5f, r, -0.41869f, g, -0.08131f, b);
    const __m256 cb = MixF(-0.16874f, r, -0.33126f, g, 0.5f, b);
    __m256i out[3];
    if (_mm256_movemask_ps(_mm256_or_ps(_mm256_or_ps(NearInteger(y), NearInteger(cr)), NearInteger(cb))) !=
        0) {
      YcrcbFwdD(R, G, B, out);
    } else {
      out[0] = _mm256_cvttps_epi32(y);
      out[1] = _mm256_cvttps_epi32(cr);
      out[2] = _mm256_cvttps_epi32(cb);
    }
    Store3(sp + 3 * static_cast<ptrdiff_t>(i), out[0], out[1], out[2]);
  }
  YcrcbFwdRowSse2(rgb, sp, i, end);
}

IMG_AVX2_INLINE void YcrcbInvD(__m256i Y, __m256i Cr, __m256i Cb, __m256i out[3]) {
  const __m256d y[2] = {Lo(Y), Hi(Y)}, cr[2] = {Lo(Cr), Hi(Cr)}, cb[2] = {Lo(Cb), Hi(Cb)};
  __m256d r[2], g[2], b[2];
  for (int h = 0; h < 2; ++h) {
    r[h] = _mm256_add_pd(y[h], _mm256_mul_pd(K(1.402), cr[h]));
    g[h] = _mm256_sub_pd(_mm256_sub_pd(y[h], _mm256_mul_pd(K(0.3441363), cb[h])),
                         _mm256_mul_pd(K(0.71413636), cr[h]));
    b[h] = _mm256_add_pd(y[h], _mm256_mul_pd(K(1.772), cb[h]));
  }
  out[0] = ClampI(Trunc(r[0], r[1]), 0, 255);
  out[1] = ClampI(Trunc(g[0], g[1]), 0, 255);
  out[2] = ClampI(Trunc(b[0], b[1]), 0, 255);
}

// R = Y + 1.402 Cr is an integer only for Cr = 0 (then exactly Y in floats
// and doubles alike) and otherwise at least 0.001 from one, far beyond the
// single-precision error (below 5e-5); likewise B = Y + 1.772 Cb. G can come
// within 1e-8 of an integer: groups with G near one (other than Cb = Cr = 0,
// exactly Y) are redone in doubles.
IMG_AVX2 void YcrcbInvRowAvx2(uint8_t *rgb, const uint8_t *sp, int32_t first, int32_t end) {
  int32_t i = first;
  for (; i + 8 <= end; i += 8) {
    const uint8_t *p = sp + 3 * static_cast<ptrdiff_t>(i);
    const __m256i Y = Load3(p, 0), Cr = Sext8(Load3(p, 1)), Cb = Sext8(Load3(p, 2));
    const __m256 y = _mm256_cvtepi32_ps(Y), cr = _mm256_cvtepi32_ps(Cr), cb = _mm256_cvtepi32_ps(Cb);
    const __m256 g = _mm256_sub_ps(_mm256_sub_ps(y, _mm256_mul_ps(_mm256_set1_ps(0.3441363f), cb)),
                                   _mm256_mul_ps(_mm256_set1_ps(0.71413636f), cr));
    const __m256i chroma = _mm256_cmpeq_epi32(_mm256_or_si256(Cr, Cb), _mm256_setzero_si256());
    __m256i out[3];
    if (_mm256_movemask_ps(_mm256_andnot_ps(_mm256_castsi256_ps(chroma), NearNonzeroInteger(g))) != 0) {
      YcrcbInvD(Y, Cr, Cb, out);
    } else {
      out[0] =
          ClampI(_mm256_cvttps_epi32(_mm256_add_ps(y, _mm256_mul_ps(_mm256_set1_ps(1.402f), cr))), 0, 255);
      out[1] = ClampI(_mm256_cvttps_epi32(g), 0, 255);
      out[2] =
          ClampI(_mm256_cvttps_epi32(_mm256_add_ps(y, _mm256_mul_ps(_mm256_set1_ps(1.772f), cb))), 0, 255);
    }
    Store3(rgb + 3 * static_cast<ptrdiff_t>(i), out[2], out[1], out[0]);
  }
  YcrcbInvRowSse2(rgb, sp, i, end);
}

IMG_AVX2 void YuvFwdRowAvx2(const uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  int32_t i = first;
  for (; i + 8 <= end; i += 8) {
    const uint8_t *q = rgb + 3 * static_cast<ptrdiff_t>(i);
    const __m256i R = Load3(q, 2), G = Load3(q, 1), B = Load3(q, 0);
    const __m256i sum = _mm256_add_epi32(_mm256_add_epi32(_mm256_mullo_epi32(R, _mm256_set1_epi32(9798)),
                                                          _mm256_mullo_epi32(G, _mm256_set1_epi32(19235))),
                                         _mm256_mullo_epi32(B, _mm256_set1_epi32(3736)));
    const __m256i Y = _mm256_srai_epi32(sum, 15);  // 0..255
    const __m256i U =
        ClampI(_mm256_srai_epi32(_mm256_mullo_epi32(_mm256_sub_epi32(B, Y), _mm256_set1_epi32(16122)), 15),
               -112, 111);
    const __m256i V =
        ClampI(_mm256_srai_epi32(_mm256_mullo_epi32(_mm256_sub_epi32(R, Y), _mm256_set1_epi32(25203)), 15),
               -138, 137);
    const __m256i v = _mm256_or_si256(
        _mm256_or_si256(Y, _mm256_slli_epi32(_mm256_and_si256(U, _mm256_set1_epi32(0xFF)), 8)),
        _mm256_slli_epi32(V, 16));
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(sp + 4 * static_cast<ptrdiff_t>(i)), v);
  }
  YuvFwdRowSse2(rgb, sp, i, end);
}

IMG_AVX2_INLINE __m256i YuvTerm(__m256i U, int32_t cu, __m256i V, int32_t cv) {
  return _mm256_srai_epi32(_mm256_add_epi32(_mm256_mullo_epi32(_mm256_set1_epi32(cv), V),
                                            _mm256_mullo_epi32(_mm256_set1_epi32(cu), U)),
                           15);
}

IMG_AVX2 void YuvInvRowAvx2(uint8_t *rgb, const uint8_t *sp, int32_t first, int32_t end) {
  int32_t i = first;
  for (; i + 8 <= end; i += 8) {
    const __m256i v =
        _mm256_loadu_si256(reinterpret_cast<const __m256i *>(sp + 4 * static_cast<ptrdiff_t>(i)));
    const __m256i Y = _mm256_and_si256(v, _mm256_set1_epi32(0xFF));
    const __m256i U = _mm256_srai_epi32(_mm256_slli_epi32(v, 16), 24), V = _mm256_srai_epi32(v, 16);
    // 37221 V - 29 U, -12943 U - 18940 V, 66883 U - 33 V: exact in 32 bits, so
    // the order of the two products does not matter.
    const __m256i R = ClampI(_mm256_add_epi32(Y, YuvTerm(U, -29, V, 37221)), 0, 255);
    const __m256i G = ClampI(_mm256_add_epi32(Y, YuvTerm(U, -12943, V, -18940)), 0, 255);
    const __m256i B = ClampI(_mm256_add_epi32(Y, YuvTerm(U, 66883, V, -33)), 0, 255);
    Store3(rgb + 3 * static_cast<ptrdiff_t>(i), B, G, R);
  }
  YuvInvRowSse2(rgb, sp, i, end);
}

IMG_AVX2 void HsvFwdRowAvx2(const uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  int32_t i = first;
  const __m256i one = _mm256_set1_epi32(1);
  for (; i + 8 <= end; i += 8) {
    const uint8_t *q = rgb + 3 * static_cast<ptrdiff_t>(i);
    const __m256i R = Load3(q, 2), G = Load3(q, 1), B = Load3(q, 0);
    const __m256i mx = _mm256_max_epi32(_mm256_max_epi32(R, G), B);
    const __m256i mn = _mm256_min_epi32(_mm256_min_epi32(R, G), B);
    // Sector of the smallest component, blue first, then red, then green. A
    // gray pixel lands in the blue sector with numerator 0: hue 0.
    const __m256i minB = _mm256_cmpeq_epi32(B, mn), minR = _mm256_cmpeq_epi32(R, mn);
    const __m256i num = Select(minB, G, Select(minR, B, R));
    const __m256i other = Select(minB, R, Select(minR, G, B));  // den = num + other - 2 mn
    const __m256i off =
        Select(minB, _mm256_setzero_si256(), Select(minR, _mm256_set1_epi32(120), _mm256_set1_epi32(240)));
    const __m256i n = _mm256_sub_epi32(num, mn);
    const __m256i den = _mm256_max_epi32(_mm256_sub_epi32(_mm256_add_epi32(n, other), mn), one);
    const __m256i h = _mm256_add_epi32(DivF(_mm256_mullo_epi32(n, _mm256_set1_epi32(120)), den), off);
    const __m256i s =
        DivF(_mm256_mullo_epi32(_mm256_sub_epi32(mx, mn), _mm256_set1_epi32(100)), _mm256_max_epi32(mx, one));
    const __m256i v =
        _mm256_or_si256(_mm256_or_si256(h, _mm256_slli_epi32(s, 16)), _mm256_slli_epi32(mx, 24));
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(sp + 4 * static_cast<ptrdiff_t>(i)), v);
  }
  HsvFwd8Row(rgb, sp, i, end);
}

// V, the middle value or low, as the sector tables isV and isMid say.
IMG_AVX2_INLINE __m256i HsvPick(__m256i isV, __m256i isMid, __m256i sector, __m256i V, __m256i mid,
                                __m256i low) {
  return Select(_mm256_permutevar8x32_epi32(isV, sector), V,
                Select(_mm256_permutevar8x32_epi32(isMid, sector), mid, low));
}

IMG_AVX2 void HsvInvRowAvx2(uint8_t *rgb, const uint8_t *sp, int32_t first, int32_t end) {
  int32_t i = first;
  const __m256i c120 = _mm256_set1_epi32(120);
  // Per hue sector (0..5: hue up to 60, 120, .., above 300), whether a channel
  // takes V or the computed middle value; otherwise it takes low.
  const __m256i rV = _mm256_setr_epi32(-1, 0, 0, 0, 0, -1, 0, 0),
                rMid = _mm256_setr_epi32(0, -1, 0, 0, -1, 0, 0, 0);
  const __m256i gV = _mm256_setr_epi32(0, -1, -1, 0, 0, 0, 0, 0),
                gMid = _mm256_setr_epi32(-1, 0, 0, -1, 0, 0, 0, 0);
  const __m256i bV = _mm256_setr_epi32(0, 0, 0, -1, -1, 0, 0, 0),
                bMid = _mm256_setr_epi32(0, 0, -1, 0, 0, -1, 0, 0);
  for (; i + 8 <= end; i += 8) {
    const uint8_t *p = sp + 4 * static_cast<ptrdiff_t>(i);
    const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(p));
    const __m256i H = _mm256_and_si256(v, _mm256_set1_epi32(0xFFFF));
    const __m256i S = _mm256_and_si256(_mm256_srli_epi32(v, 16), _mm256_set1_epi32(0xFF));
    const __m256i V = _mm256_srli_epi32(v, 24);
    const int32_t odd = _mm256_movemask_ps(_mm256_castsi256_ps(_mm256_or_si256(Gt(H, 359), Gt(S, 100))));
    const __m256i low = Div100(_mm256_mullo_epi32(_mm256_sub_epi32(_mm256_set1_epi32(100), S), V));
    const __m256i d = _mm256_sub_epi32(V, low);
    // Each pair of sectors shares t = H - 120 k (k = 0, 1, 2); the middle value
    // is min(t, 120 - t) * d / max(t, 120 - t) + low. S = 0 gives d = 0.
    const __m256i k2 =
        _mm256_add_epi32(_mm256_and_si256(Gt(H, 120), c120), _mm256_and_si256(Gt(H, 240), c120));
    const __m256i t = _mm256_sub_epi32(H, k2), u = _mm256_sub_epi32(c120, t);
    const __m256i mid = _mm256_add_epi32(DivF(_mm256_mullo_epi32(_mm256_min_epi32(t, u), d),
                                              _mm256_max_epi32(_mm256_max_epi32(t, u), _mm256_set1_epi32(1))),
                                         low);
    const __m256i sector = _mm256_sub_epi32(
        _mm256_setzero_si256(), _mm256_add_epi32(_mm256_add_epi32(_mm256_add_epi32(Gt(H, 60), Gt(H, 120)),
                                                                  _mm256_add_epi32(Gt(H, 180), Gt(H, 240))),
                                                 Gt(H, 300)));
    uint8_t *q = rgb + 3 * static_cast<ptrdiff_t>(i);
    Store3(q, HsvPick(bV, bMid, sector, V, mid, low), HsvPick(gV, gMid, sector, V, mid, low),
           HsvPick(rV, rMid, sector, V, mid, low));
    // Hues above 359 and saturations above 100 take the pixel formula.
    for (int32_t j = 0; odd != 0 && j < 8; ++j)
      if (odd & (1 << j)) {
        const Rgb c = HsvInv8(p + 4 * j);
        q[3 * j] = static_cast<uint8_t>(c.b), q[3 * j + 1] = static_cast<uint8_t>(c.g),
              q[3 * j + 2] = static_cast<uint8_t>(c.r);
      }
  }
  HsvInv8Row(rgb, sp, i, end);
}

IMG_AVX2 void HlsFwdRowAvx2(const uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  int32_t i = first;
  const __m256i one = _mm256_set1_epi32(1);
  for (; i + 8 <= end; i += 8) {
    const uint8_t *q = rgb + 3 * static_cast<ptrdiff_t>(i);
    const __m256i R = Load3(q, 2), G = Load3(q, 1), B = Load3(q, 0);
    const __m256i mx = _mm256_max_epi32(_mm256_max_epi32(R, G), B);
    const __m256i mn = _mm256_min_epi32(_mm256_min_epi32(R, G), B);
    const __m256i sum = _mm256_add_epi32(mx, mn), diff = _mm256_sub_epi32(mx, mn);
    const __m256i L = _mm256_srli_epi32(sum, 1);
    const __m256i sden = Select(Gt(L, 128), _mm256_sub_epi32(_mm256_set1_epi32(510), sum), sum);
    // Gray pixels: numerator 0, so S = 0 and the hue below is cleared.
    const __m256i s = DivF(_mm256_mullo_epi32(diff, _mm256_set1_epi32(100)), _mm256_max_epi32(sden, one));
    const __m256i maxR = _mm256_cmpeq_epi32(R, mx), maxG = _mm256_cmpeq_epi32(G, mx);
    const __m256i hd =
        Select(maxR, _mm256_sub_epi32(G, B), Select(maxG, _mm256_sub_epi32(B, R), _mm256_sub_epi32(R, G)));
    const __m256i off =
        Select(maxR, _mm256_setzero_si256(), Select(maxG, _mm256_set1_epi32(120), _mm256_set1_epi32(240)));
    __m256i h = _mm256_add_epi32(
        DivF(_mm256_mullo_epi32(hd, _mm256_set1_epi32(60)), _mm256_max_epi32(diff, one)), off);
    h = _mm256_add_epi32(
        h, _mm256_and_si256(_mm256_cmpgt_epi32(_mm256_setzero_si256(), h), _mm256_set1_epi32(360)));
    h = _mm256_andnot_si256(_mm256_cmpeq_epi32(s, _mm256_setzero_si256()), h);
    const __m256i v = _mm256_or_si256(_mm256_or_si256(h, _mm256_slli_epi32(L, 16)), _mm256_slli_epi32(s, 24));
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(sp + 4 * static_cast<ptrdiff_t>(i)), v);
  }
  HlsFwd8Row(rgb, sp, i, end);
}

// value(m1, m2, h) of the HLS inverse for h in -120..479 (hues 0..359).
// (m2 - m1) * f * 6 / 360 is (m2 - m1) * f / 60, with m2 - m1 <= 256 and
// f <= 60 where it is used.
IMG_AVX2_INLINE __m256i HlsValueV(__m256i m1, __m256i m2, __m256i span, __m256i h) {
  h = _mm256_sub_epi32(h, _mm256_and_si256(Gt(h, 360), _mm256_set1_epi32(360)));
  h = _mm256_add_epi32(
      h, _mm256_and_si256(_mm256_cmpgt_epi32(_mm256_setzero_si256(), h), _mm256_set1_epi32(360)));
  const __m256i up = Gt(h, 60);
  const __m256i f = Select(up, _mm256_sub_epi32(_mm256_set1_epi32(240), h), h);
  const __m256i ramp =
      _mm256_add_epi32(m1, Div60(_mm256_and_si256(_mm256_mullo_epi32(span, f), _mm256_set1_epi32(0xFFFF))));
  return Select(Gt(h, 240), m1, Select(Gt(h, 180), ramp, Select(up, m2, ramp)));
}

IMG_AVX2 void HlsInvRowAvx2(uint8_t *rgb, const uint8_t *sp, int32_t first, int32_t end) {
  int32_t i = first;
  const __m256i c120 = _mm256_set1_epi32(120);
  for (; i + 8 <= end; i += 8) {
    const uint8_t *p = sp + 4 * static_cast<ptrdiff_t>(i);
    const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(p));
    const __m256i H = _mm256_and_si256(v, _mm256_set1_epi32(0xFFFF));
    const __m256i L = _mm256_and_si256(_mm256_srli_epi32(v, 16), _mm256_set1_epi32(0xFF));
    const __m256i S = _mm256_srli_epi32(v, 24);
    const int32_t odd = _mm256_movemask_ps(_mm256_castsi256_ps(_mm256_or_si256(Gt(H, 359), Gt(S, 100))));
    // In range every numerator is below 43690 (at most 200 * 128 and 100 * 255).
    const __m256i lowL = Div100(_mm256_and_si256(
        _mm256_mullo_epi32(_mm256_add_epi32(S, _mm256_set1_epi32(100)), L), _mm256_set1_epi32(0xFFFF)));
    const __m256i highL =
        _mm256_sub_epi32(_mm256_add_epi32(Div100(_mm256_mullo_epi32(S, _mm256_set1_epi32(255))), L),
                         Div100(_mm256_mullo_epi32(L, S)));
    const __m256i m2 = Select(Gt(L, 128), highL, lowL);
    const __m256i m1 = _mm256_sub_epi32(_mm256_add_epi32(L, L), m2);
    const __m256i span = _mm256_sub_epi32(m2, m1);
    const __m256i R = ClampI(HlsValueV(m1, m2, span, _mm256_add_epi32(H, c120)), 0, 255);
    const __m256i G = ClampI(HlsValueV(m1, m2, span, H), 0, 255);
    const __m256i B = ClampI(HlsValueV(m1, m2, span, _mm256_sub_epi32(H, c120)), 0, 255);
    uint8_t *q = rgb + 3 * static_cast<ptrdiff_t>(i);
    Store3(q, B, G, R);
    for (int32_t j = 0; odd != 0 && j < 8; ++j)
      if (odd & (1 << j)) {
        const Rgb c = HlsInv8(p + 4 * j);
        q[3 * j] = static_cast<uint8_t>(c.b), q[3 * j + 1] = static_cast<uint8_t>(c.g),
              q[3 * j + 2] = static_cast<uint8_t>(c.r);
      }
  }
  HlsInvRowSse2(rgb, sp, i, end);
}

// Table-driven Lab inverse: the four table reads a pixel are gathers; the
// divisions by 10000 have numerators below 2^24 (DivF); a sum over 1000000
// first held to 0..256000000 (the result clamps to 0..255 anyway) becomes
// (sum >> 6) / 15625, also below 2^24.
IMG_AVX2_INLINE __m256i LabMix(__m256i X, int32_t cx, __m256i Y, int32_t cy, __m256i Z, int32_t cz) {
  const __m256i sum = _mm256_add_epi32(_mm256_add_epi32(_mm256_mullo_epi32(X, _mm256_set1_epi32(cx)),
                                                        _mm256_mullo_epi32(Y, _mm256_set1_epi32(cy))),
                                       _mm256_mullo_epi32(Z, _mm256_set1_epi32(cz)));
  const __m256i held = _mm256_srli_epi32(ClampI(sum, 0, 256000000), 6);
  return _mm256_min_epi32(DivF(held, _mm256_set1_epi32(15625)), _mm256_set1_epi32(255));
}

IMG_AVX2 void LabTabInvRowAvx2(const LabTableSet &t, uint8_t *rgb, const uint8_t *sp, int32_t first,
                               int32_t end) {
  int32_t i = first;
  const __m256i d10000 = _mm256_set1_epi32(10000);
  for (; i + 8 <= end; i += 8) {
    const uint8_t *p = sp + 3 * static_cast<ptrdiff_t>(i);
    const __m256i L = _mm256_min_epi32(Load3(p, 0), _mm256_set1_epi32(100));
    const __m256i a = Sext8(Load3(p, 1)), b = Sext8(Load3(p, 2));
    const __m256i Yt = _mm256_i32gather_epi32(t.YFromL, L, 4);
    const __m256i fy = _mm256_i32gather_epi32(t.CubeRoot, Yt, 4);
    const __m256i ix =
        ClampI(_mm256_add_epi32(_mm256_mullo_epi32(a, _mm256_set1_epi32(20)), fy), kInvCubeLow, kInvCubeHigh);
    const __m256i iz =
        ClampI(_mm256_sub_epi32(fy, _mm256_mullo_epi32(b, _mm256_set1_epi32(50))), kInvCubeLow, kInvCubeHigh);
    const __m256i gx = _mm256_i32gather_epi32(t.InvCube, ix, 4),
                  gz = _mm256_i32gather_epi32(t.InvCube, iz, 4);
    const __m256i X = ClampI(DivF(_mm256_mullo_epi32(gx, _mm256_set1_epi32(242)), d10000), 0, 255);
    const __m256i Z = ClampI(DivF(_mm256_mullo_epi32(gz, _mm256_set1_epi32(278)), d10000), 0, 278);
    const __m256i Y = DivF(_mm256_mullo_epi32(Yt, _mm256_set1_epi32(255)), d10000);
    Store3(rgb + 3 * static_cast<ptrdiff_t>(i), LabMix(X, 55648, Y, -204043, Z, 1057311),
           LabMix(X, -969256, Y, 1875992, Z, 41556), LabMix(X, 3240479, Y, -1537150, Z, -498535));
  }
  LabTabInv8Row(t, rgb, sp, i, end);
}

// ---- AVX-512 loops: sixteen pixels a step ------------------------------------------------
//
// Same formulas and exactness arguments as the AVX2 loops, on 512-bit vectors.
// Sixteen 3-byte pixels are read with one masked 48-byte load and split into
// 32-bit lanes with byte permutes, and written back with one byte permute and
// a masked 48-byte store: nothing outside the 48 bytes is read or written.
// Divisions by constants are multiply-shifts, each checked against integer
// division for every numerator from 0 to the bound stated (and the loops as
// a whole against the pixel formulas, for every input, by the tests).

// GCC 12 reports the undefined pass-through operands inside its own AVX-512
// intrinsics as maybe uninitialized.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

#define IMG_AVX512_TARGET "avx2,avx512f,avx512bw,avx512dq,avx512vl,avx512vbmi"
#define IMG_AVX512 __attribute__((target(IMG_AVX512_TARGET)))
#define IMG_AVX512_INLINE __attribute__((target(IMG_AVX512_TARGET), always_inline)) inline

constexpr __mmask64 k48Bytes = 0xFFFFFFFFFFFFull;

// Byte j of the 48 written: field j % 3 of pixel j / 3, taken from byte 0 or 1
// of lane j / 3 of the first table (fields 0 and 1) or byte 0 of the second.
constexpr std::array<uint8_t, 64> kStore48 = [] {
  std::array<uint8_t, 64> m{};
  for (int j = 0; j < 48; ++j)
    m[j] = static_cast<uint8_t>(j % 3 < 2 ? 4 * (j / 3) + j % 3 : 64 + 4 * (j / 3));
  return m;
}();

IMG_AVX512_INLINE __m512i Load48(const uint8_t *q) { return _mm512_maskz_loadu_epi8(k48Bytes, q); }

// Field c (0..2) of the sixteen pixels, zero-extended to 32 bits.
IMG_AVX512_INLINE __m512i Field(__m512i v, int c) {
  const __m512i idx = _mm512_add_epi32(
      _mm512_setr_epi32(0, 3, 6, 9, 12, 15, 18, 21, 24, 27, 30, 33, 36, 39, 42, 45), _mm512_set1_epi32(c));
  return _mm512_maskz_permutexvar_epi8(0x1111111111111111ull, idx, v);
}

// Writes the low bytes of f0, f1, f2 as sixteen 3-byte pixels.
IMG_AVX512_INLINE void Store48(uint8_t *q, __m512i f0, __m512i f1, __m512i f2) {
  const __m512i f01 =
      _mm512_or_si512(_mm512_and_si512(f0, _mm512_set1_epi32(0xFF)), _mm512_slli_epi32(f1, 8));
  const __m512i idx = _mm512_loadu_si512(kStore48.data());
  _mm512_mask_storeu_epi8(q, k48Bytes, _mm512_permutex2var_epi8(f01, idx, f2));
}

IMG_AVX512_INLINE __m512i Set(int32_t v) { return _mm512_set1_epi32(v); }
IMG_AVX512_INLINE __m512i ClampZ(__m512i v, int32_t lo, int32_t hi) {
  return _mm512_min_epi32(_mm512_max_epi32(v, Set(lo)), Set(hi));
}
IMG_AVX512_INLINE __m512i Sext8Z(__m512i v) { return _mm512_srai_epi32(_mm512_slli_epi32(v, 24), 24); }
IMG_AVX512_INLINE __m512i MulZ(__m512i v, int32_t c) { return _mm512_mullo_epi32(v, Set(c)); }
// x * cx + y * cy + z * cz in 32-bit lanes.
IMG_AVX512_INLINE __m512i SumZ(__m512i x, int32_t cx, __m512i y, int32_t cy, __m512i z, int32_t cz) {
  return _mm512_add_epi32(_mm512_add_epi32(MulZ(x, cx), MulZ(y, cy)), MulZ(z, cz));
}

// n / d for 0 <= n below the bound as (n * M) >> S, M = ceil(2^S / d) < 2^32,
// in 64-bit products of the even and odd lanes (S >= 32, quotients < 2^14).
template <int S>
IMG_AVX512_INLINE __m512i DivMagic(__m512i n, uint32_t m) {
  const __m512i mv = _mm512_set1_epi64(m);
  const __m512i even = _mm512_srli_epi64(_mm512_mul_epu32(n, mv), S);
  const __m512i odd = _mm512_srli_epi64(_mm512_mul_epu32(_mm512_srli_epi64(n, 32), mv), S - 32);
  return _mm512_mask_blend_epi32(0xAAAA, even, odd);
}

// Doubles of the low and high eight lanes, and back with truncation.
IMG_AVX512_INLINE __m512d LoD(__m512i v) { return _mm512_cvtepi32_pd(_mm512_castsi512_si256(v)); }
IMG_AVX512_INLINE __m512d HiD(__m512i v) { return _mm512_cvtepi32_pd(_mm512_extracti64x4_epi64(v, 1)); }
IMG_AVX512_INLINE __m512i TruncD(__m512d lo, __m512d hi) {
  return _mm512_inserti64x4(_mm512_castsi256_si512(_mm512_cvttpd_epi32(lo)), _mm512_cvttpd_epi32(hi), 1);
}
IMG_AVX512_INLINE __m512d KD(double c) { return _mm512_set1_pd(c); }

// Lanes whose single-precision estimate lies within 2e-4 of an integer
// (see NearInteger); vreduceps gives e - round(e) directly.
IMG_AVX512_INLINE __mmask16 NearIntegerZ(__m512 e) {
  return _mm512_cmp_ps_mask(_mm512_abs_ps(_mm512_reduce_ps(e, 0)), _mm512_set1_ps(2e-4f), _CMP_LT_OQ);
}
IMG_AVX512_INLINE __m512 MixFZ(float c0, __m512 x, float c1, __m512 y, float c2, __m512 z) {
  return _mm512_add_ps(
      _mm512_add_ps(_mm512_mul_ps(_mm512_set1_ps(c0), x), _mm512_mul_ps(_mm512_set1_ps(c1), y)),
      _mm512_mul_ps(_mm512_set1_ps(c2), z));
}

// As YcrcbFwdRowAvx2: sixteen lanes in single precision, a group with a lane
// near an integer redone in doubles, eight a vector, in the formulas' order.
IMG_AVX512 void YcrcbFwdRowAvx512(const uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  int32_t i = first;
  for (; i + 16 <= end; i += 16) {
    const __m512i v = Load48(rgb + 3 * static_cast<ptrdiff_t>(i));
    const __m512i B = Field(v, 0), G = Field(v, 1), R = Field(v, 2);
    const __m512 r = _mm512_cvtepi32_ps(R), g = _mm512_cvtepi32_ps(G), b = _mm512_cvtepi32_ps(B);
    const __m512 y = MixFZ(0.299f, r, 0.587f, g, 0.114f, b);
    const __m512 cr = MixFZ(0.5f, r, -0.41869f, g, -0.08131f, b);
    const __m512 cb = MixFZ(-0.16874f, r, -0.33126f, g, 0.5f, b);
    __m512i out[3];
    if ((NearIntegerZ(y) | NearIntegerZ(cr) | NearIntegerZ(cb)) != 0) {
      const __m512d rd[2] = {LoD(R), HiD(R)}, gd[2] = {LoD(G), HiD(G)}, bd[2] = {LoD(B), HiD(B)};
      __m512d yd[2], crd[2], cbd[2];
      for (int h = 0; h < 2; ++h) {
        yd[h] = _mm512_add_pd(_mm512_add_pd(_mm512_mul_pd(KD(0.299), rd[h]), _mm512_mul_pd(KD(0.587), gd[h])),
                              _mm512_mul_pd(KD(0.114), bd[h]));
        crd[h] =
            _mm512_sub_pd(_mm512_sub_pd(_mm512_mul_pd(KD(0.5), rd[h]), _mm512_mul_pd(KD(0.41869), gd[h])),
                          _mm512_mul_pd(KD(0.08131), bd[h]));
        cbd[h] = _mm512_add_pd(
            _mm512_sub_pd(_mm512_mul_pd(KD(-0.16874), rd[h]), _mm512_mul_pd(KD(0.33126), gd[h])),
            _mm512_mul_pd(KD(0.5), bd[h]));
      }
      out[0] = ClampZ(TruncD(yd[0], yd[1]), 0, 255);
      out[1] = ClampZ(TruncD(crd[0], crd[1]), -128, 127);
      out[2] = ClampZ(TruncD(cbd[0], cbd[1]), -128, 127);
    } else {
      out[0] = _mm512_cvttps_epi32(y);
      out[1] = _mm512_cvttps_epi32(cr);
      out[2] = _mm512_cvttps_epi32(cb);
    }
    Store48(sp + 3 * static_cast<ptrdiff_t>(i), out[0], out[1], out[2]);
  }
  YcrcbFwdRowAvx2(rgb, sp, i, end);
}

// As YcrcbInvRowAvx2, sixteen lanes a step.
IMG_AVX512 void YcrcbInvRowAvx512(uint8_t *rgb, const uint8_t *sp, int32_t first, int32_t end) {
  int32_t i = first;
  for (; i + 16 <= end; i += 16) {
    const __m512i v = Load48(sp + 3 * static_cast<ptrdiff_t>(i));
    const __m512i Y = Field(v, 0), Cr = Sext8Z(Field(v, 1)), Cb = Sext8Z(Field(v, 2));
    const __m512 y = _mm512_cvtepi32_ps(Y), cr = _mm512_cvtepi32_ps(Cr), cb = _mm512_cvtepi32_ps(Cb);
    const __m512 g = _mm512_sub_ps(_mm512_sub_ps(y, _mm512_mul_ps(_mm512_set1_ps(0.3441363f), cb)),
                                   _mm512_mul_ps(_mm512_set1_ps(0.71413636f), cr));
    const __mmask16 gray = _mm512_testn_epi32_mask(_mm512_or_si512(Cr, Cb), _mm512_or_si512(Cr, Cb));
    const __mmask16 beyondHalf = _mm512_cmp_ps_mask(_mm512_abs_ps(g), _mm512_set1_ps(0.5f), _CMP_GT_OQ);
    __m512i out[3];
    if ((NearIntegerZ(g) & beyondHalf & static_cast<__mmask16>(~gray)) != 0) {
      const __m512d yd[2] = {LoD(Y), HiD(Y)}, crd[2] = {LoD(Cr), HiD(Cr)}, cbd[2] = {LoD(Cb), HiD(Cb)};
      __m512d rd[2], gd[2], bd[2];
      for (int h = 0; h < 2; ++h) {
        rd[h] = _mm512_add_pd(yd[h], _mm512_mul_pd(KD(1.402), crd[h]));
        gd[h] = _mm512_sub_pd(_mm512_sub_pd(yd[h], _mm512_mul_pd(KD(0.3441363), cbd[h])),
                              _mm512_mul_pd(KD(0.71413636), crd[h]));
        bd[h] = _mm512_add_pd(yd[h], _mm512_mul_pd(KD(1.772), cbd[h]));
      }
      out[0] = ClampZ(TruncD(rd[0], rd[1]), 0, 255);
      out[1] = ClampZ(TruncD(gd[0], gd[1]), 0, 255);
      out[2] = ClampZ(TruncD(bd[0], bd[1]), 0, 255);
    } else {
      out[0] =
          ClampZ(_mm512_cvttps_epi32(_mm512_add_ps(y, _mm512_mul_ps(_mm512_set1_ps(1.402f), cr))), 0, 255);
      out[1] = ClampZ(_mm512_cvttps_epi32(g), 0, 255);
      out[2] =
          ClampZ(_mm512_cvttps_epi32(_mm512_add_ps(y, _mm512_mul_ps(_mm512_set1_ps(1.772f), cb))), 0, 255);
    }
    Store48(rgb + 3 * static_cast<ptrdiff_t>(i), out[2], out[1], out[0]);
  }
  YcrcbInvRowAvx2(rgb, sp, i, end);
}

// trunc(n / 20) (m 52429, shift 4) and trunc(n / 50) (m 41945, shift 5) for
// |n| below 65536 and 21399: the magnitude's (|n| * m) >> (16 + shift) by a
// 16-bit multiply-high, then the sign. Here |n| <= 8646 (cube roots lie in
// 1379..10000).
IMG_AVX512_INLINE __m512i DivSmallSigned(__m512i n, int32_t m, int shift) {
  const __m512i q = _mm512_srli_epi32(_mm512_mulhi_epu16(_mm512_abs_epi32(n), Set(m)), shift);
  return _mm512_mask_sub_epi32(q, _mm512_cmplt_epi32_mask(n, _mm512_setzero_si512()), _mm512_setzero_si512(),
                               q);
}

// Table-driven Lab forward: the RGB-to-XYZ sums computed, their divisions by
// multiply-shift (bounds: the sums of white, 242366280, 255000000 and
// 277632270), the three cube roots gathered, and the L-from-Y, a-scale and
// b-scale reads replaced by their content: L = (y * 903 + 5000) / 10000 below
// y = 89, else (fy * 116 - 155000) / 10000 (numerators 0..1005000, float
// division, see DivF); a = (i + 10) / 20 for (i * 500 + 5000) / 10000 and
// b = (i + 25) / 50 for (i * 200 + 5000) / 10000.
IMG_AVX512 void LabTabFwdRowAvx512(const LabTableSet &t, const uint8_t *rgb, uint8_t *sp, int32_t first,
                                   int32_t end) {
  const int32_t *cube = t.CubeRoot;
  int32_t i = first;
  for (; i + 16 <= end; i += 16) {
    const __m512i v = Load48(rgb + 3 * static_cast<ptrdiff_t>(i));
    const __m512i B = Field(v, 0), G = Field(v, 1), R = Field(v, 2);
    const __m512i X = DivMagic<40>(SumZ(R, 412453, G, 357580, B, 180423), 45366877);
    const __m512i Y = DivMagic<43>(SumZ(R, 212671, G, 715160, B, 72169), 344944825);
    const __m512i Z = DivMagic<42>(SumZ(R, 19334, G, 119193, B, 950227), 158413951);
    const __m512i fx = _mm512_i32gather_epi32(X, cube, 4), fy = _mm512_i32gather_epi32(Y, cube, 4),
                  fz = _mm512_i32gather_epi32(Z, cube, 4);
    const __m512i lNum = _mm512_mask_blend_epi32(_mm512_cmplt_epi32_mask(Y, Set(89)),
                                                 _mm512_sub_epi32(MulZ(fy, 116), Set(155000)),
                                                 _mm512_add_epi32(MulZ(Y, 903), Set(5000)));
    const __m512i L = _mm512_cvttps_epi32(_mm512_div_ps(_mm512_cvtepi32_ps(lNum), _mm512_set1_ps(10000.0f)));
    const __m512i a = DivSmallSigned(_mm512_add_epi32(_mm512_sub_epi32(fx, fy), Set(10)), 52429, 4);
    const __m512i b = DivSmallSigned(_mm512_add_epi32(_mm512_sub_epi32(fy, fz), Set(25)), 41945, 5);
    Store48(sp + 3 * static_cast<ptrdiff_t>(i), L, a, b);
  }
  LabTabFwd8Row(t, rgb, sp, i, end);
}

// One RGB channel of the table-driven Lab inverse: the sum held to
// 0..256000000 (the result clamps to 0..255 anyway), divided by 1000000.
IMG_AVX512_INLINE __m512i LabMixZ(__m512i X, int32_t cx, __m512i Y, int32_t cy, __m512i Z, int32_t cz) {
  return _mm512_min_epi32(DivMagic<48>(ClampZ(SumZ(X, cx, Y, cy, Z, cz), 0, 256000000), 281474977), Set(255));
}

// Table-driven Lab inverse. fy and Y' = Yt * 255 / 10000 depend on L alone:
// they are tabulated for L = 0..100 once per call (on the stack) and
// gathered from there. The X and Z divisions by 10000: g held to 0..10538
// gives X = clamp(g * 242 / 10000, 0, 255) as (g * 406009) >> 24 (products
// below 2^32), g held to 0..10000 gives Z by a multiply-shift of g * 278
// (bound 2780000); each RGB sum held to 0..256000000 is divided by 1000000
// by multiply-shift.
IMG_AVX512 void LabTabInvRowAvx512(const LabTableSet &t, uint8_t *rgb, const uint8_t *sp, int32_t first,
                                   int32_t end) {
  int32_t fyOfL[101], yOfL[101];
  for (int32_t L = 0; L <= 100; ++L) {
    const int32_t Yt = t.YFromL[L];
    fyOfL[L] = t.CubeRoot[Yt];
    yOfL[L] = Yt * 255 / 10000;
  }
  const int32_t *inv = t.InvCube;
  int32_t i = first;
  for (; i + 16 <= end; i += 16) {
    const __m512i v = Load48(sp + 3 * static_cast<ptrdiff_t>(i));
    const __m512i L = _mm512_min_epi32(Field(v, 0), Set(100));
    const __m512i a = Sext8Z(Field(v, 1)), b = Sext8Z(Field(v, 2));
    const __m512i fy = _mm512_i32gather_epi32(L, fyOfL, 4), Y = _mm512_i32gather_epi32(L, yOfL, 4);
    const __m512i ix = ClampZ(_mm512_add_epi32(MulZ(a, 20), fy), kInvCubeLow, kInvCubeHigh);
    const __m512i iz = ClampZ(_mm512_sub_epi32(fy, MulZ(b, 50)), kInvCubeLow, kInvCubeHigh);
    const __m512i gx = _mm512_i32gather_epi32(ix, inv, 4), gz = _mm512_i32gather_epi32(iz, inv, 4);
    const __m512i X = _mm512_srli_epi32(MulZ(ClampZ(gx, 0, 10538), 406009), 24);
    const __m512i Z = DivMagic<34>(MulZ(ClampZ(gz, 0, 10000), 278), 1717987);
    Store48(rgb + 3 * static_cast<ptrdiff_t>(i), LabMixZ(X, 55648, Y, -204043, Z, 1057311),
            LabMixZ(X, -969256, Y, 1875992, Z, 41556), LabMixZ(X, 3240479, Y, -1537150, Z, -498535));
  }
  LabTabInvRowAvx2(t, rgb, sp, i, end);
}

#pragma GCC diagnostic pop

bool UseAvx2(clrspc_detail::Path path) {
  if (path == clrspc_detail::Path::Scalar) return false;
  return __builtin_cpu_supports("avx2");
}

bool HasAvx512() {
  return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
         __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl") &&
         __builtin_cpu_supports("avx512vbmi");
}

// The AVX-512 loops (YCrCb both ways, table-driven Lab both ways) run for
// Auto when the processor has them, or when forced.
bool UseAvx512(clrspc_detail::Path path) {
  return (path == clrspc_detail::Path::Auto || path == clrspc_detail::Path::Avx512) && HasAvx512();
}

// ---- Row dispatch -------------------------------------------------------------------------

int32_t Row8(clrspc_detail::Path path, uint32_t code, uint8_t *rgb, uint8_t *sp, const LabTableSet *set,
             int32_t first, int32_t end) {
  const bool avx2 = UseAvx2(path);
  const bool avx512 = UseAvx512(path);
  if (first >= end) return RC_SUCCESS;
  const int32_t n = code < kToRgb ? kSize8[code] : kSize8[code - kToRgb];
  switch (code) {
    case COLORSPACE_HSV:
      avx2 ? HsvFwdRowAvx2(rgb, sp, first, end) : HsvFwd8Row(rgb, sp, first, end);
      break;
    case COLORSPACE_HSV + kToRgb:
      avx2 ? HsvInvRowAvx2(rgb, sp, first, end) : HsvInv8Row(rgb, sp, first, end);
      break;
    case COLORSPACE_HLS:
      avx2 ? HlsFwdRowAvx2(rgb, sp, first, end) : HlsFwd8Row(rgb, sp, first, end);
      break;
    case COLORSPACE_XYZ:
      avx2 ? XyzFwdRowAvx2(rgb, sp, first, end) : XyzFwdRowSse2(rgb, sp, first, end);
      break;
    case COLORSPACE_XYZ + kToRgb:
      avx2 ? XyzInvRowAvx2(rgb, sp, first, end) : XyzInvRowSse2(rgb, sp, first, end);
      break;
    case COLORSPACE_YCRCB:
      if (avx512)
        YcrcbFwdRowAvx512(rgb, sp, first, end);
      else
        avx2 ? YcrcbFwdRowAvx2(rgb, sp, first, end) : YcrcbFwdRowSse2(rgb, sp, first, end);
      break;
    case COLORSPACE_YCRCB + kToRgb:
      if (avx512)
        YcrcbInvRowAvx512(rgb, sp, first, end);
      else
        avx2 ? YcrcbInvRowAvx2(rgb, sp, first, end) : YcrcbInvRowSse2(rgb, sp, first, end);
      break;
    case COLORSPACE_YUV:
      avx2 ? YuvFwdRowAvx2(rgb, sp, first, end) : YuvFwdRowSse2(rgb, sp, first, end);
      break;
    case COLORSPACE_YUV + kToRgb:
      avx2 ? YuvInvRowAvx2(rgb, sp, first, end) : YuvInvRowSse2(rgb, sp, first, end);
      break;
    case COLORSPACE_HLS + kToRgb:
      avx2 ? HlsInvRowAvx2(rgb, sp, first, end) : HlsInvRowSse2(rgb, sp, first, end);
      break;
    case COLORSPACE_RGB:
      ForwardRow(rgb, sp, 3, first, end, [](int32_t R, int32_t G, int32_t B, uint8_t *p) {
        p[0] = static_cast<uint8_t>(R), p[1] = static_cast<uint8_t>(G), p[2] = static_cast<uint8_t>(B);
      });
      break;
    case COLORSPACE_LAB:
      ForwardRow(rgb, sp, 3, first, end,
                 [](int32_t R, int32_t G, int32_t B, uint8_t *p) { LabFwd8(R, G, B, p); });
      break;
    case COLORSPACE_CMY:
      ForwardRow(rgb, sp, 3, first, end, [](int32_t R, int32_t G, int32_t B, uint8_t *p) {
        p[0] = static_cast<uint8_t>(255 - R), p[1] = static_cast<uint8_t>(255 - G),
        p[2] = static_cast<uint8_t>(255 - B);
      });
      break;
    case COLORSPACE_LAB_TABLE:
      if (path == clrspc_detail::Path::Scalar)
        ForwardRow(rgb, sp, 3, first, end,
                   [&t = *set](int32_t R, int32_t G, int32_t B, uint8_t *p) { LabTabFwd8(t, R, G, B, p); });
      else if (avx512)
        LabTabFwdRowAvx512(*set, rgb, sp, first, end);
      else
        LabTabFwd8Row(*set, rgb, sp, first, end);
      break;
    case COLORSPACE_LAB_TABLE + kToRgb:
      // The scalar path keeps the plain table form as the reference.
      if (path == clrspc_detail::Path::Scalar)
        InverseRow(rgb, sp, 3, first, end, [&t = *set](const uint8_t *p) { return LabTabInv8(t, p); });
      else if (avx512 && end - first >= 64)
        LabTabInvRowAvx512(*set, rgb, sp, first, end);
      else if (avx2)
        LabTabInvRowAvx2(*set, rgb, sp, first, end);
      else
        LabTabInv8Row(*set, rgb, sp, first, end);
      break;
    case COLORSPACE_RGB + kToRgb:
      InverseRow(rgb, sp, 3, first, end, [](const uint8_t *p) { return Rgb{p[0], p[1], p[2]}; });
      break;
    case COLORSPACE_CMY + kToRgb:
      InverseRow(rgb, sp, 3, first, end, [](const uint8_t *p) {
        return Rgb{255 - p[0], 255 - p[1], 255 - p[2]};
      });
      break;
    default:
      // The remaining codes (CMYK, Lab, spherical) reuse the pixel form.
      if (code < kToRgb)
        ForwardRow(rgb, sp, n, first, end,
                   [code](int32_t R, int32_t G, int32_t B, uint8_t *p) { Forward8(code, R, G, B, p); });
      else
        InverseRow(rgb, sp, n, first, end, [code](const uint8_t *p) { return Inverse8(code, p); });
      break;
  }
  return RC_SUCCESS;
}

int32_t Row16(uint32_t code, uint16_t *rgb, uint8_t *sp, const LabTableSet *set, int32_t first, int32_t end) {
  if (first >= end) return RC_SUCCESS;
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
    case COLORSPACE_LAB + kToRgb:
      InverseRow(rgb, sp, 6, first, end, [](const uint8_t *p) { return LabInv16(p); });
      break;
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
  return RC_SUCCESS;
}

bool RowArgsValid(uint32_t code, const void *rgb, const void *sp, const LabTableSet *set, int32_t first) {
  if (!ValidCode(code) || rgb == nullptr || sp == nullptr || first < 0) return false;
  if ((code == COLORSPACE_LAB_TABLE || code == COLORSPACE_LAB_TABLE + kToRgb) && set == nullptr) return false;
  return true;
}

}  // namespace

// ---- Exported (library-internal) functions ---------------------------------------------------

int32_t GetColorSpacePixelSize(uint32_t code, int32_t bitsPerSample) {
  if (!ValidCode(code)) return 0;
  const uint32_t space = code < kToRgb ? code : code - kToRgb;
  if (bitsPerSample == 8) return kSize8[space];
  if (bitsPerSample == 16) return kSize16[space];
  return 0;
}

int32_t ConvertColorPixel(uint32_t code, uint8_t *r, uint8_t *g, uint8_t *b, void *spacePixel) {
  if (spacePixel == nullptr || r == nullptr || g == nullptr || b == nullptr || !ValidCode(code) ||
      code == COLORSPACE_LAB_TABLE || code == COLORSPACE_LAB_TABLE + kToRgb)
    return RC_INVALID_PARAMETER;
  uint8_t *p = static_cast<uint8_t *>(spacePixel);
  if (code < kToRgb) {
    Forward8(code, *r, *g, *b, p);
  } else {
    const Rgb c = Inverse8(code, p);
    *r = static_cast<uint8_t>(c.r), *g = static_cast<uint8_t>(c.g), *b = static_cast<uint8_t>(c.b);
  }
  return RC_SUCCESS;
}

int32_t ConvertColorRow8(uint32_t code, uint8_t *rgbRow, void *spaceRow, const LabTableSet *set,
                         int32_t first, int32_t end) {
  return clrspc_detail::ConvertColorRow8Path(clrspc_detail::Path::Auto, code, rgbRow, spaceRow, set, first,
                                             end);
}

int32_t ConvertColorRow16(uint32_t code, uint16_t *rgbRow, void *spaceRow, const LabTableSet *set,
                          int32_t first, int32_t end) {
  if (!RowArgsValid(code, rgbRow, spaceRow, set, first)) return RC_INVALID_PARAMETER;
  return Row16(code, rgbRow, static_cast<uint8_t *>(spaceRow), set, first, end);
}

namespace clrspc_detail {

bool PathSupported(Path path) {
  switch (path) {
    case Path::Auto:
    case Path::Scalar:
      return true;
    case Path::Avx2:
      return __builtin_cpu_supports("avx2");
    case Path::Avx512:
      return HasAvx512();
  }
  return false;
}

int32_t ConvertColorRow8Path(Path path, uint32_t code, uint8_t *rgbRow, void *spaceRow,
                             const LabTableSet *set, int32_t first, int32_t end) {
  if (!RowArgsValid(code, rgbRow, spaceRow, set, first)) return RC_INVALID_PARAMETER;
  return Row8(path, code, rgbRow, static_cast<uint8_t *>(spaceRow), set, first, end);
}

}  // namespace clrspc_detail

// ---- Lab tables ------------------------------------------------------------------------------

namespace {

constexpr int32_t kRgbToXyz[3][3] = {
    {412453, 357580, 180423}, {212671, 715160, 72169}, {19334, 119193, 950227}};
// kXyzToRgb[source][channel]: weight of X, Y or Z in R, G and B.
constexpr int32_t kXyzToRgb[3][3] = {
    {3240479, -969256, 55648}, {-1537150, 1875992, -204043}, {-498535, 41556, 1057311}};

}  // namespace

int32_t BuildLabTables(LabTableSet *set) {
  if (set == nullptr) return RC_INVALID_PARAMETER;
  int32_t **rgbToXyz[3] = {set->RgbToX, set->RgbToY, set->RgbToZ};
  for (int32_t s = 0; s < 3; ++s) {
    for (int32_t c = 0; c < 3; ++c) {
      int32_t *t = static_cast<int32_t *>(IMG_ALLOC(256, sizeof(int32_t)));
      if (t == nullptr) return RC_NO_MEMORY;
      rgbToXyz[s][c] = t;
      for (int32_t i = 0; i < 256; ++i) t[i] = i * kRgbToXyz[s][c];
    }
  }
  int32_t **xyzToRgb[3] = {set->XToRgb, set->YToRgb, set->ZToRgb};
  for (int32_t s = 0; s < 3; ++s) {
    // Z reaches 278 in the inverse (the white point's Z on this scale).
    const int32_t count = s == 2 ? 279 : 256;
    for (int32_t c = 0; c < 3; ++c) {
      int32_t *t = static_cast<int32_t *>(IMG_ALLOC(count, sizeof(int32_t)));
      if (t == nullptr) return RC_NO_MEMORY;
      xyzToRgb[s][c] = t;
      for (int32_t i = 0; i < count; ++i) t[i] = i * kXyzToRgb[s][c];
    }
  }

  int32_t *cube = static_cast<int32_t *>(IMG_ALLOC(10001, sizeof(int32_t)));
  if (cube == nullptr) return RC_NO_MEMORY;
  set->CubeRoot = cube;
  for (int32_t t = 0; t <= 10000; ++t)
    cube[t] = t < 89 ? static_cast<int32_t>(t * 7.787 + 1379.0)
                     : static_cast<int32_t>(1000 * std::pow(t / 10.0, 0.333333));

  int32_t *lFromY = static_cast<int32_t *>(IMG_ALLOC(10001, sizeof(int32_t)));
  if (lFromY == nullptr) return RC_NO_MEMORY;
  set->LFromY = lFromY;
  for (int32_t t = 0; t <= 10000; ++t)
    lFromY[t] = t < 89 ? (t * 903 + 5000) / 10000 : (cube[t] * 116 - 155000) / 10000;

  int32_t *aBlock = static_cast<int32_t *>(IMG_ALLOC(20001, sizeof(int32_t)));
  if (aBlock == nullptr) return RC_NO_MEMORY;
  set->AScaleBlock = aBlock;
  set->AScale = aBlock + 10000;
  for (int32_t i = -10000; i < 10000; ++i) set->AScale[i] = (i * 500 + 5000) / 10000;

  int32_t *bBlock = static_cast<int32_t *>(IMG_ALLOC(20001, sizeof(int32_t)));
  if (bBlock == nullptr) return RC_NO_MEMORY;
  set->BScaleBlock = bBlock;
  set->BScale = bBlock + 10000;
  for (int32_t i = -10000; i < 10000; ++i) set->BScale[i] = (i * 200 + 5000) / 10000;

  int32_t *yFromL = static_cast<int32_t *>(IMG_ALLOC(10001, sizeof(int32_t)));
  if (yFromL == nullptr) return RC_NO_MEMORY;
  set->YFromL = yFromL;
  for (int32_t L = 0; L <= 100; ++L) {
    int32_t y = static_cast<int32_t>(10000 * Cube((L + 16) / 116.0));
    if (y < 89) y = L * 100000 / 9033;
    yFromL[L] = y;
  }

  // 18962 entries; index 0 is entry 6401.
  int32_t *invBlock = static_cast<int32_t *>(IMG_ALLOC(18962, sizeof(int32_t)));
  if (invBlock == nullptr) return RC_NO_MEMORY;
  set->InvCubeBlock = invBlock;
  set->InvCube = invBlock + 6401;
  for (int32_t u = kInvCubeLow; u <= kInvCubeHigh; ++u) {
    const double x = u / 10000.0;
    set->InvCube[u] = x > 0.206893 ? static_cast<int32_t>(10000 * Cube(x))
                                   : static_cast<int32_t>((x - 0.137931) * 10000 / 7.787);
  }
  return RC_SUCCESS;
}

void FreeLabTables(LabTableSet *set) {
  if (set == nullptr) return;
  int32_t **groups[6] = {set->RgbToX, set->RgbToY, set->RgbToZ, set->XToRgb, set->YToRgb, set->ZToRgb};
  for (int32_t **g : groups)
    for (int32_t c = 0; c < 3; ++c)
      if (g[c] != nullptr) IMG_FREE(g[c]);
  int32_t *owned[6] = {set->CubeRoot,    set->LFromY, set->AScaleBlock,
                       set->BScaleBlock, set->YFromL, set->InvCubeBlock};
  for (int32_t *t : owned)
    if (t != nullptr) IMG_FREE(t);
  *set = LabTableSet{};
}

}  // namespace img
