// Colour-space conversions: one 8-bit pixel, or a run of one 8/16-bit row.
//
// Every conversion is written once as an inline per-pixel function; the row
// forms pick the code once and run one loop per code. Some 8-bit row loops
// have faster equivalents (reciprocal tables instead of division, planar
// SIMD loops in SSE2 and AVX2 copies) that give the same bits as the
// per-pixel functions for every input.
#include "ClrSpc.h"

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
// turns into SIMD code: SSE2, or AVX2 in the *Avx2 copies, same formulas,
// same order, no fused multiply-add) and gathered back.

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
IMG_PLANAR_ROWS(__attribute__((target("avx2"))), Avx2)

bool UseAvx2(clrspc_detail::Path path) {
  if (path == clrspc_detail::Path::Scalar) return false;
  return __builtin_cpu_supports("avx2");
}

// ---- Row dispatch -------------------------------------------------------------------------

int32_t Row8(clrspc_detail::Path path, uint32_t code, uint8_t *rgb, uint8_t *sp, const LabTableSet *set,
             int32_t first, int32_t end) {
  const bool avx2 = UseAvx2(path);
  if (first >= end) return RC_SUCCESS;
  const int32_t n = code < kToRgb ? kSize8[code] : kSize8[code - kToRgb];
  switch (code) {
    case COLORSPACE_HSV:
      HsvFwd8Row(rgb, sp, first, end);
      break;
    case COLORSPACE_HSV + kToRgb:
      HsvInv8Row(rgb, sp, first, end);
      break;
    case COLORSPACE_HLS:
      HlsFwd8Row(rgb, sp, first, end);
      break;
    case COLORSPACE_XYZ:
      avx2 ? XyzFwdRowAvx2(rgb, sp, first, end) : XyzFwdRowSse2(rgb, sp, first, end);
      break;
    case COLORSPACE_XYZ + kToRgb:
      avx2 ? XyzInvRowAvx2(rgb, sp, first, end) : XyzInvRowSse2(rgb, sp, first, end);
      break;
    case COLORSPACE_YCRCB:
      avx2 ? YcrcbFwdRowAvx2(rgb, sp, first, end) : YcrcbFwdRowSse2(rgb, sp, first, end);
      break;
    case COLORSPACE_YCRCB + kToRgb:
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
      ForwardRow(rgb, sp, 3, first, end,
                 [&t = *set](int32_t R, int32_t G, int32_t B, uint8_t *p) { LabTabFwd8(t, R, G, B, p); });
      break;
    case COLORSPACE_LAB_TABLE + kToRgb:
      InverseRow(rgb, sp, 3, first, end, [&t = *set](const uint8_t *p) { return LabTabInv8(t, p); });
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
      InverseRow(rgb, sp, 8, first, end,
                 [](const uint8_t *p) { return SphInv<65535>(Get32(p), static_cast<int16_t>(Get16(p + 4)), static_cast<int16_t>(Get16(p + 6))); });
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
