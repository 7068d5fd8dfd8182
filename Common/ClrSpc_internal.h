// Internal to the colour-space conversions: what the scalar reference
// (ClrSpc_scalar.cpp), the loops of each instruction set (ClrSpc_sse2.cpp,
// ClrSpc_avx2.cpp, ClrSpc_avx512.cpp) and the dispatch (ClrSpc.cpp) share,
// and the spherical pixel functions the tint calls directly.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>

#include "ClrSpc.h"
#include "cpu.h"
#include "hue_model.h"

namespace img::clrspc {

constexpr uint32_t kToRgb = COLORSPACE_TO_RGB;

constexpr bool ValidCode(uint32_t code) { return code <= 10 || (code >= kToRgb && code <= kToRgb + 10); }
// Bytes of an 8-bit space pixel by space (0 for the table-driven Lab, rows only).
constexpr int8_t kSize8[11] = {3, 4, 4, 3, 3, 4, 3, 3, 4, 0, 6};

// Indexes of the inverse cube table of the table-driven Lab form.
constexpr int32_t kInvCubeLow = -6400, kInvCubeHigh = 12560;

using Rgb = hue::Rgb<int32_t>;

constexpr int32_t Clamp(int32_t v, int32_t lo, int32_t hi) { return v < lo ? lo : (v > hi ? hi : v); }

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

// trunc(v) clamped to [lo, hi]; NaN gives lo. Clamping before the conversion
// gives the same result as after it and keeps the conversion defined.
inline int32_t TruncClamp(double v, int32_t lo, int32_t hi) {
  if (!(v > lo)) return lo;
  if (v >= hi) return hi;
  return static_cast<int32_t>(v);
}

inline double Cube(double t) { return t * t * t; }

// ---- Spherical ------------------------------------------------------------------------------
// Also used by the tint (AdjustTint.cpp), which turns the angles between the
// two directions.

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

// An angle in hundredths of a degree in radians, as the inverse takes it.
inline double SphRadians(int32_t hundredths) { return hundredths * kPi / 18000; }

// The inverse from the cosine and sine of theta and the cosine of phi. G
// comes from the length and the uncapped R and B; a negative square gives 0.
template <int32_t Max>
inline Rgb SphInvFrom(double len, double cosTheta, double sinTheta, double cosPhi) {
  const double B = std::trunc(std::fabs(len * cosTheta + 0.5));
  const double R = std::trunc(std::fabs(len * cosPhi * sinTheta + 0.5));
  const double g2 = len * len - R * R - B * B;
  const double G = g2 > 0 ? std::sqrt(g2) : 0;
  return {TruncClamp(R, 0, Max), TruncClamp(G, 0, Max), TruncClamp(B, 0, Max)};
}

// The angles are signed: a turned tint may hand in negative ones.
template <int32_t Max>
inline Rgb SphInv(double len, int32_t thetaH, int32_t phiH) {
  const double t = SphRadians(thetaH), f = SphRadians(phiH);
  return SphInvFrom<Max>(len, std::cos(t), std::sin(t), std::cos(f));
}

// ---- Lab in floating point: the formulas of the reference ---------------------------------

inline double LabF(double t) { return t > 0.008856 ? std::pow(t, 0.333333) : 7.787 * t + 0.137931; }
inline double LabFInv(double f) { return f > 0.206893 ? Cube(f) : (f - 0.137931) / 7.787; }

constexpr double kXn8 = 242.36628, kZn8 = 277.63227;
// The same white point on the 16-bit scale: 257 times the 8-bit one.
constexpr double kXn16 = 62288.13396, kZn16 = 71351.49339;

// The inverse in two steps: Yr and f(Yr) depend on L alone (the rows keep
// them per L), the rest on them and a, b.
struct LabY {
  double yr, fy;
};
inline LabY LabY8(int32_t L) {
  double Yr = Cube((L + 16) / 116.0);
  if (Yr < 0.008856) Yr = L / 903.3;
  return {Yr, LabF(Yr)};
}
inline LabY LabY16(int32_t L) {
  double Yr = Cube((L + 1600) / 11600.0);
  if (Yr < 0.008856) Yr = L / 90330.0;
  return {Yr, LabF(Yr)};
}
inline Rgb LabInv8From(const LabY &y, int32_t a, int32_t b) {
  const double fx = a / 500.0 + y.fy, fz = y.fy - b / 200.0;
  const double X = kXn8 * LabFInv(fx), Y = 255 * y.yr, Z = kZn8 * LabFInv(fz);
  return {TruncClamp(3.240479 * X - 1.53715 * Y - 0.498535 * Z + 0.5, 0, 255),
          TruncClamp(-0.969256 * X + 1.875992 * Y + 0.041556 * Z + 0.5, 0, 255),
          TruncClamp(0.055648 * X - 0.204043 * Y + 1.057311 * Z + 0.5, 0, 255)};
}
inline Rgb LabInv16From(const LabY &y, int32_t a, int32_t b) {
  const double fx = a / 128500.0 + y.fy, fz = y.fy - b / 51400.0;
  const double X = kXn16 * LabFInv(fx), Y = 65535 * y.yr, Z = kZn16 * LabFInv(fz);
  return {TruncClamp(3.240479 * X - 1.53715 * Y - 0.498535 * Z + 0.5, 0, 65535),
          TruncClamp(-0.969256 * X + 1.875992 * Y + 0.041556 * Z + 0.5, 0, 65535),
          TruncClamp(0.055648 * X - 0.204043 * Y + 1.057311 * Z + 0.5, 0, 65535)};
}

// The 8-bit HSV and HLS inverse pixel formulas (the models of hue_model.h in
// degrees and percent, clamped): the reference, and what the faster loops
// run for inputs outside their range (hues above 359, saturations above 100).
inline Rgb HsvInverse8(const uint8_t *p) {
  const Rgb c = hue::HsvToRgb<hue::Plain, 60>(Get16(p), p[2], p[3], 100);
  return {Clamp(c.r, 0, 255), Clamp(c.g, 0, 255), Clamp(c.b, 0, 255)};
}
inline Rgb HlsInverse8(const uint8_t *p) {
  const Rgb c = hue::HlsToRgb<hue::Plain, hue::kHlsDegrees>(Get16(p), p[2], p[3]);
  return {Clamp(c.r, 0, 255), Clamp(c.g, 0, 255), Clamp(c.b, 0, 255)};
}

// The 8-bit table-driven Lab form, shared by its reference and its loops.
// Forward: L, a and b from X, Y and Z in units of 1/10000.
inline void LabTabStore8(const LabTableSet &t, int32_t x, int32_t y, int32_t z, uint8_t *p) {
  const int32_t fx = t.CubeRoot[x], fy = t.CubeRoot[y], fz = t.CubeRoot[z];
  p[0] = static_cast<uint8_t>(t.LFromY[y]);
  p[1] = static_cast<uint8_t>(t.AScale[fx - fy]);
  p[2] = static_cast<uint8_t>(t.BScale[fy - fz]);
}
// Inverse: the indexes of the X-, Y- and Z-to-RGB tables. Indexes that only
// out-of-gamut Lab values reach are held to the tables.
struct LabTabXyz {
  int32_t x, y, z;
};
inline LabTabXyz LabTabInvXyz(const LabTableSet &t, const uint8_t *p) {
  const int32_t L = p[0] > 100 ? 100 : p[0], a = static_cast<int8_t>(p[1]), b = static_cast<int8_t>(p[2]);
  const int32_t yt = t.YFromL[L], fy = t.CubeRoot[yt];
  return {Clamp(t.InvCube[Clamp(a * 20 + fy, kInvCubeLow, kInvCubeHigh)] * 242 / 10000, 0, 255),
          yt * 255 / 10000,
          Clamp(t.InvCube[Clamp(fy - b * 50, kInvCubeLow, kInvCubeHigh)] * 278 / 10000, 0, 278)};
}

// One 8-bit row conversion of pixels first..end-1 (first < end): forward
// codes read the blue-green-red row `rgb` and write the space row `sp`,
// inverse codes the other way. `set` is read by the table-driven Lab codes.
using Row8Fn = void (*)(const LabTableSet *set, uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end);

// The loops of one instruction set by space (0..10), forward and inverse;
// null where the set has no loop of its own.
struct SpaceLoops {
  Row8Fn forward[11], inverse[11];
  constexpr Row8Fn For(uint32_t code) const { return code < kToRgb ? forward[code] : inverse[code - kToRgb]; }
};

// The loops of each instruction set; the scalar reference has one for every
// valid code.
Row8Fn ScalarRow8(uint32_t code);
extern const SpaceLoops kSse2Loops;
extern const SpaceLoops kAvx2Loops;
extern const SpaceLoops kAvx512Loops;

// The loop the levels below `isa` run for `code`: where a loop of one set
// hands over the pixels it does not convert itself.
Row8Fn RowBelow(Isa isa, uint32_t code);

// The pixel formulas of the scalar reference (every valid code but 9 and 25).
void ForwardPixel8(uint32_t code, int32_t r, int32_t g, int32_t b, uint8_t *spacePixel);
Rgb InversePixel8(uint32_t code, const uint8_t *spacePixel);

// The 16-bit rows: the scalar reference, and the AVX-512 loops of the
// floating Lab and YCrCb both ways.
void Row16(uint32_t code, uint16_t *rgb, uint8_t *sp, const LabTableSet *set, int32_t first, int32_t end);
void LabFwdRow16Avx512(uint16_t *rgb, uint8_t *sp, int32_t first, int32_t end);
void YcrcbRow16Avx512(bool inverse, uint16_t *rgb, uint8_t *sp, int32_t first, int32_t end);
void LabInvRow16Avx512(uint16_t *rgb, uint8_t *sp, int32_t first, int32_t end);

}  // namespace img::clrspc
