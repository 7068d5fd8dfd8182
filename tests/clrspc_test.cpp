// Colour-space conversions: layouts, quirks of each formula, argument checks,
// bit-exactness of the fast row loops against the pixel form, round trips
// over every 8-bit colour and a dense sample of 16-bit colours, and the Lab
// tables.
#include "ClrSpc.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "imgkernel.h"

namespace {

using img::clrspc_detail::Path;

constexpr uint32_t kInv = COLORSPACE_TO_RGB;

// Debug builds visit every seventh value of the two outer channels of the
// exhaustive loops; optimised builds visit all of them.
#ifdef NDEBUG
constexpr int kOuterStep = 1;
#else
constexpr int kOuterStep = 7;
#endif

int16_t S16(const uint8_t *p) {
  int16_t v;
  std::memcpy(&v, p, 2);
  return v;
}
uint16_t U16(const uint8_t *p) {
  uint16_t v;
  std::memcpy(&v, p, 2);
  return v;
}
int32_t S32(const uint8_t *p) {
  int32_t v;
  std::memcpy(&v, p, 4);
  return v;
}
void Put16(uint8_t *p, uint32_t v) {
  const uint16_t u = static_cast<uint16_t>(v);
  std::memcpy(p, &u, 2);
}
void Put32(uint8_t *p, uint32_t v) { std::memcpy(p, &v, 4); }

// RAII Lab table set.
struct LabTables {
  img::LabTableSet set{};
  LabTables() { EXPECT_EQ(img::BuildLabTables(&set), RC_SUCCESS); }
  ~LabTables() { img::FreeLabTables(&set); }
};

// Converts one 8-bit colour forward through the pixel form.
std::array<uint8_t, 8> Fwd(uint32_t code, uint8_t r, uint8_t g, uint8_t b) {
  std::array<uint8_t, 8> p{};
  EXPECT_EQ(img::ConvertColorPixel(code, &r, &g, &b, p.data()), RC_SUCCESS);
  return p;
}
std::array<int, 3> Inv(uint32_t code, const uint8_t *p) {
  uint8_t r = 0, g = 0, b = 0;
  EXPECT_EQ(img::ConvertColorPixel(code + kInv, &r, &g, &b, const_cast<uint8_t *>(p)), RC_SUCCESS);
  return {r, g, b};
}
// One 16-bit colour through the row form.
std::array<uint8_t, 8> Fwd16(uint32_t code, uint16_t r, uint16_t g, uint16_t b,
                             const img::LabTableSet *set = nullptr) {
  std::array<uint8_t, 8> p{};
  uint16_t row[3] = {b, g, r};
  EXPECT_EQ(img::ConvertColorRow16(code, row, p.data(), set, 0, 1), RC_SUCCESS);
  return p;
}
std::array<int, 3> Inv16(uint32_t code, const uint8_t *p, const img::LabTableSet *set = nullptr) {
  uint16_t row[3] = {};
  EXPECT_EQ(img::ConvertColorRow16(code + kInv, row, const_cast<uint8_t *>(p), set, 0, 1), RC_SUCCESS);
  return {row[2], row[1], row[0]};
}

// ---- Sizes and argument checks ---------------------------------------------------------

TEST(ColorSpacePixelSize, EveryCodeAndWidth) {
  const int32_t size8[11] = {3, 4, 4, 3, 3, 4, 3, 3, 4, 0, 6};
  const int32_t size16[11] = {6, 8, 8, 6, 6, 8, 6, 6, 8, 0, 8};
  for (uint32_t c = 0; c <= 10; ++c) {
    EXPECT_EQ(img::GetColorSpacePixelSize(c, 8), size8[c]) << c;
    EXPECT_EQ(img::GetColorSpacePixelSize(c + kInv, 8), size8[c]) << c;
    EXPECT_EQ(img::GetColorSpacePixelSize(c, 16), size16[c]) << c;
    EXPECT_EQ(img::GetColorSpacePixelSize(c + kInv, 16), size16[c]) << c;
    EXPECT_EQ(img::GetColorSpacePixelSize(c, 12), 0) << c;
    EXPECT_EQ(img::GetColorSpacePixelSize(c, 0), 0) << c;
  }
  for (uint32_t c : {11u, 12u, 15u, 27u, 32u, 0xFFFFFFFFu}) {
    EXPECT_EQ(img::GetColorSpacePixelSize(c, 8), 0) << c;
    EXPECT_EQ(img::GetColorSpacePixelSize(c, 16), 0) << c;
  }
}

TEST(ColorSpaceDispatch, InvalidCodesRejectedAndNothingWritten) {
  LabTables t;
  for (uint32_t c : {11u, 12u, 13u, 14u, 15u, 27u, 28u, 31u, 42u, 0x80000000u, 0xFFFFFFFFu}) {
    uint8_t r = 1, g = 2, b = 3;
    std::array<uint8_t, 16> sp;
    sp.fill(0xA5);
    EXPECT_EQ(img::ConvertColorPixel(c, &r, &g, &b, sp.data()), RC_INVALID_PARAMETER) << c;
    EXPECT_EQ(r + g * 256 + b * 65536, 1 + 2 * 256 + 3 * 65536);
    uint8_t row8[12];
    std::memset(row8, 0x5A, sizeof row8);
    EXPECT_EQ(img::ConvertColorRow8(c, row8, sp.data(), &t.set, 0, 2), RC_INVALID_PARAMETER) << c;
    uint16_t row16[6];
    std::fill(row16, row16 + 6, uint16_t{0x5A5A});
    EXPECT_EQ(img::ConvertColorRow16(c, row16, sp.data(), &t.set, 0, 1), RC_INVALID_PARAMETER) << c;
    EXPECT_TRUE(std::all_of(sp.begin(), sp.end(), [](uint8_t v) { return v == 0xA5; })) << c;
    EXPECT_TRUE(std::all_of(row8, row8 + 12, [](uint8_t v) { return v == 0x5A; })) << c;
    EXPECT_TRUE(std::all_of(row16, row16 + 6, [](uint16_t v) { return v == 0x5A5A; })) << c;
  }
}

TEST(ColorSpaceDispatch, NullPointersAndTableCodes) {
  LabTables t;
  uint8_t r = 0, g = 0, b = 0, sp[16] = {};
  uint8_t row8[6] = {};
  uint16_t row16[6] = {};
  // The pixel form has no table-driven Lab.
  EXPECT_EQ(img::ConvertColorPixel(COLORSPACE_LAB_TABLE, &r, &g, &b, sp), RC_INVALID_PARAMETER);
  EXPECT_EQ(img::ConvertColorPixel(COLORSPACE_LAB_TABLE + kInv, &r, &g, &b, sp), RC_INVALID_PARAMETER);
  for (uint32_t c : {0u, 1u, 10u, 16u, 26u}) {
    EXPECT_EQ(img::ConvertColorPixel(c, &r, &g, &b, nullptr), RC_INVALID_PARAMETER) << c;
    EXPECT_EQ(img::ConvertColorPixel(c, nullptr, &g, &b, sp), RC_INVALID_PARAMETER) << c;
    EXPECT_EQ(img::ConvertColorRow8(c, nullptr, sp, nullptr, 0, 1), RC_INVALID_PARAMETER) << c;
    EXPECT_EQ(img::ConvertColorRow8(c, row8, nullptr, nullptr, 0, 1), RC_INVALID_PARAMETER) << c;
    EXPECT_EQ(img::ConvertColorRow16(c, nullptr, sp, nullptr, 0, 1), RC_INVALID_PARAMETER) << c;
    EXPECT_EQ(img::ConvertColorRow16(c, row16, nullptr, nullptr, 0, 1), RC_INVALID_PARAMETER) << c;
    EXPECT_EQ(img::ConvertColorRow8(c, row8, sp, nullptr, -1, 1), RC_INVALID_PARAMETER) << c;
    // Other codes never read the table set; an empty run converts nothing.
    EXPECT_EQ(img::ConvertColorRow8(c, row8, sp, nullptr, 0, 1), RC_SUCCESS) << c;
    EXPECT_EQ(img::ConvertColorRow16(c, row16, sp, nullptr, 1, 1), RC_SUCCESS) << c;
  }
  for (uint32_t c : {COLORSPACE_LAB_TABLE, COLORSPACE_LAB_TABLE + kInv}) {
    EXPECT_EQ(img::ConvertColorRow8(c, row8, sp, nullptr, 0, 1), RC_INVALID_PARAMETER) << c;
    EXPECT_EQ(img::ConvertColorRow16(c, row16, sp, nullptr, 0, 1), RC_INVALID_PARAMETER) << c;
    EXPECT_EQ(img::ConvertColorRow8(c, row8, sp, &t.set, 0, 1), RC_SUCCESS) << c;
  }
}

TEST(ColorSpaceRows, OnlyFirstToEndConvertedAtTheirOwnIndexes) {
  // Pixel i of the RGB row lands at pixel i of the space row.
  uint8_t rgb[5 * 3];
  for (int i = 0; i < 15; ++i) rgb[i] = static_cast<uint8_t>(10 * i);
  std::array<uint8_t, 5 * 4> sp;
  sp.fill(0xEE);
  ASSERT_EQ(img::ConvertColorRow8(COLORSPACE_CMYK, rgb, sp.data(), nullptr, 1, 3), RC_SUCCESS);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(sp[i], 0xEE);
  for (int i = 12; i < 20; ++i) EXPECT_EQ(sp[i], 0xEE);
  // Pixel 1: B=30, G=40, R=50 -> C=205, M=215, Y=225, K=205.
  EXPECT_EQ(sp[4], 0);
  EXPECT_EQ(sp[5], 10);
  EXPECT_EQ(sp[6], 20);
  EXPECT_EQ(sp[7], 205);
}

// ---- Quirks of the formulas ---------------------------------------------------------------

struct FwdCase {
  const char *what;
  uint32_t code;
  uint8_t r, g, b;
  std::array<int, 4> expect;  // fields of the space pixel in order
};

// Reads the fields of an 8-bit space pixel as integers.
std::array<int, 4> Fields8(uint32_t code, const uint8_t *p) {
  switch (code) {
    case COLORSPACE_HSV:
    case COLORSPACE_HLS:
      return {U16(p), p[2], p[3], 0};
    case COLORSPACE_YCRCB:
    case COLORSPACE_LAB:
      return {p[0], static_cast<int8_t>(p[1]), static_cast<int8_t>(p[2]), 0};
    case COLORSPACE_YUV:
      return {p[0], static_cast<int8_t>(p[1]), S16(p + 2), 0};
    case COLORSPACE_SPHERICAL:
      return {U16(p), U16(p + 2), U16(p + 4), 0};
    case COLORSPACE_CMYK:
      return {p[0], p[1], p[2], p[3]};
    default:
      return {p[0], p[1], p[2], 0};
  }
}

TEST(ColorSpaceForward8, DocumentedValues) {
  const FwdCase cases[] = {
      // 120-degree sectors: 128 * 120 / 383 = 40, not the hexcone 30.
      {"hsv orange", COLORSPACE_HSV, 255, 128, 0, {40, 100, 255, 0}},
      // Tie for the smallest goes to blue first: (50*0)/.. = 0, not 360.
      {"hsv tie", COLORSPACE_HSV, 100, 50, 50, {0, 50, 100, 0}},
      {"hsv min red", COLORSPACE_HSV, 0, 100, 200, {200, 100, 200, 0}},    // 200*120/300 + 120
      {"hsv min green", COLORSPACE_HSV, 200, 0, 100, {320, 100, 200, 0}},  // 200*120/300 + 240
      {"hsv gray", COLORSPACE_HSV, 77, 77, 77, {0, 0, 77, 0}},
      {"hsv black", COLORSPACE_HSV, 0, 0, 0, {0, 0, 0, 0}},
      {"hls orange", COLORSPACE_HLS, 255, 128, 0, {30, 127, 100, 0}},
      // L = 128 divides by max + min: 254 * 100 / 256 = 99.
      {"hls L=128", COLORSPACE_HLS, 255, 1, 1, {0, 128, 99, 0}},
      // L = 129 divides by 510 - max - min: 252 * 100 / 252 = 100.
      {"hls L=129", COLORSPACE_HLS, 255, 3, 3, {0, 129, 100, 0}},
      // S truncates to 0 (100 / 257), so the hue (would be 60) stays 0.
      {"hls S=0", COLORSPACE_HLS, 129, 129, 128, {0, 128, 0, 0}},
      {"hls negative hue", COLORSPACE_HLS, 255, 0, 51, {348, 127, 100, 0}},  // -51*60/255 = -12
      {"hls blue max", COLORSPACE_HLS, 0, 51, 255, {228, 127, 100, 0}},      // -51*60/255 + 240
      {"hls gray", COLORSPACE_HLS, 200, 200, 200, {0, 200, 0, 0}},
      // 0.412453*255 + 0.35758*255 + 0.189423*255 = 244.66; Z = 277.6 clamps.
      {"xyz white", COLORSPACE_XYZ, 255, 255, 255, {244, 255, 255, 0}},
      // Blue weight of X is 0.189423 here (48.3), not 0.180423 (46.0).
      {"xyz blue", COLORSPACE_XYZ, 0, 0, 255, {48, 18, 242, 0}},
      // 0.299 + 0.587 + 0.114 sums to just under 1 in doubles: trunc gives 0.
      {"ycrcb 1,1,1", COLORSPACE_YCRCB, 1, 1, 1, {0, 0, 0, 0}},
      {"ycrcb red", COLORSPACE_YCRCB, 255, 0, 0, {76, 127, -43, 0}},  // Cr 127.5 clamps
      {"ycrcb blue", COLORSPACE_YCRCB, 0, 0, 255, {29, -20, 127, 0}},
      // (32769 * 255) >> 15 = 255; U, V clamp to -112..111 and -138..137.
      {"yuv white", COLORSPACE_YUV, 255, 255, 255, {255, 0, 0, 0}},
      {"yuv blue", COLORSPACE_YUV, 0, 0, 255, {29, 111, -23, 0}},  // ((255-29)*16122)>>15 = 111
      {"yuv red", COLORSPACE_YUV, 255, 0, 0, {76, -38, 137, 0}},   // (179*25203)>>15 = 137
      {"yuv green", COLORSPACE_YUV, 0, 255, 0, {149, -74, -115, 0}},
      {"lab white", COLORSPACE_LAB, 255, 255, 255, {100, 0, 0, 0}},
      {"lab black", COLORSPACE_LAB, 0, 0, 0, {0, 0, 0, 0}},
      {"lab green", COLORSPACE_LAB, 0, 255, 0, {88, -86, 83, 0}},
      {"lab magenta", COLORSPACE_LAB, 255, 0, 255, {60, 98, -60, 0}},
      {"lab blue", COLORSPACE_LAB, 0, 0, 255, {32, 79, -107, 0}},
      {"lab yellow", COLORSPACE_LAB, 255, 255, 0, {97, -21, 94, 0}},
      {"cmy", COLORSPACE_CMY, 10, 20, 30, {245, 235, 225, 0}},
      {"cmyk", COLORSPACE_CMYK, 100, 150, 200, {100, 50, 0, 55}},
      {"cmyk black", COLORSPACE_CMYK, 0, 0, 0, {0, 0, 0, 255}},
      {"rgb", COLORSPACE_RGB, 1, 2, 3, {1, 2, 3, 0}},
      // acos(1/sqrt 3) = 54.7356 degrees, acos(1/sqrt 2) = 45.
      {"sph white", COLORSPACE_SPHERICAL, 255, 255, 255, {442, 5473, 4500, 0}},
      {"sph red", COLORSPACE_SPHERICAL, 255, 0, 0, {255, 9000, 0, 0}},
      {"sph green", COLORSPACE_SPHERICAL, 0, 255, 0, {255, 9000, 9000, 0}},
      // theta = 0: sin theta is 0 and phi stays 0.
      {"sph blue", COLORSPACE_SPHERICAL, 0, 0, 255, {255, 0, 0, 0}},
      {"sph 3-4-5", COLORSPACE_SPHERICAL, 3, 4, 0, {5, 9000, 5313, 0}},
      {"sph black", COLORSPACE_SPHERICAL, 0, 0, 0, {0, 0, 0, 0}},
  };
  for (const FwdCase &c : cases) {
    const auto p = Fwd(c.code, c.r, c.g, c.b);
    EXPECT_EQ(Fields8(c.code, p.data()), c.expect) << c.what;
    // The row form gives the same pixel.
    uint8_t row[3] = {c.b, c.g, c.r};
    std::array<uint8_t, 8> q{};
    ASSERT_EQ(img::ConvertColorRow8(c.code, row, q.data(), nullptr, 0, 1), RC_SUCCESS);
    EXPECT_EQ(q, p) << c.what;
  }
}

struct InvCase {
  const char *what;
  uint32_t code;
  std::array<uint8_t, 6> pixel;
  std::array<int, 3> rgb;
};

TEST(ColorSpaceInverse8, DocumentedValues) {
  const InvCase cases[] = {
      // HSV by sector (hue, S, V): low = (100-S)*V/100, d = V - low.
      {"hsv 30", COLORSPACE_HSV, {30, 0, 100, 200}, {200, 66, 0}},    // 200*30/90
      {"hsv 90", COLORSPACE_HSV, {90, 0, 50, 200}, {133, 200, 100}},  // 30*100/90 + 100
      {"hsv 150", COLORSPACE_HSV, {150, 0, 100, 255}, {0, 255, 85}},
      {"hsv 210", COLORSPACE_HSV, {210, 0, 100, 90}, {0, 30, 90}},
      {"hsv 270", COLORSPACE_HSV, {14, 1, 100, 255}, {85, 0, 255}},
      {"hsv 330", COLORSPACE_HSV, {74, 1, 100, 255}, {255, 0, 85}},
      {"hsv gray", COLORSPACE_HSV, {200, 0, 0, 99}, {99, 99, 99}},
      // HLS: L = 128, S = 100: m2 = 200*128/100 = 256 (clamps), m1 = 0.
      {"hls L=128", COLORSPACE_HLS, {0, 0, 128, 100}, {255, 0, 0}},
      // L = 129: m2 = 255 + 129 - 129 = 255, m1 = 3.
      {"hls L=129", COLORSPACE_HLS, {0, 0, 129, 100}, {255, 3, 3}},
      // h = 30 for green: 0 + 256*30*6/360 = 128.
      {"hls 30", COLORSPACE_HLS, {30, 0, 128, 100}, {255, 128, 0}},
      {"hls gray", COLORSPACE_HLS, {77, 0, 42, 0}, {42, 42, 42}},
      {"xyz", COLORSPACE_XYZ, {100, 0, 0}, {255, 0, 5}},            // 324.0, -96.9, 5.56
      {"ycrcb", COLORSPACE_YCRCB, {100, 20, 0xEC}, {128, 92, 64}},  // Cb = -20: 100 - 35.44
      {"yuv", COLORSPACE_YUV, {100, 0, 100, 0}, {213, 42, 99}},
      {"lab white", COLORSPACE_LAB, {100, 0, 0}, {255, 255, 255}},
      {"lab black", COLORSPACE_LAB, {0, 0, 0}, {0, 0, 0}},
      {"cmy", COLORSPACE_CMY, {245, 235, 225}, {10, 20, 30}},
      // 255 - 200 - 100 = -45 wraps to 211.
      {"cmyk wrap", COLORSPACE_CMYK, {200, 0, 0, 100}, {211, 155, 155}},
      {"rgb", COLORSPACE_RGB, {1, 2, 3}, {1, 2, 3}},
      // theta = 0: B = 443 (capped), G from the uncapped B: sqrt(0) = 0.
      {"sph cap", COLORSPACE_SPHERICAL, {187, 1, 0, 0, 0, 0}, {0, 0, 255}},
      {"sph red", COLORSPACE_SPHERICAL, {100, 0, 0x28, 0x23, 0, 0}, {100, 0, 0}},
      // 442 long, 54.73 and 45 degrees: white.
      {"sph white", COLORSPACE_SPHERICAL, {0xBA, 1, 0x61, 0x15, 0x94, 0x11}, {255, 255, 255}},
  };
  for (const InvCase &c : cases) {
    EXPECT_EQ(Inv(c.code, c.pixel.data()), c.rgb) << c.what;
    uint8_t row[3] = {};
    ASSERT_EQ(img::ConvertColorRow8(c.code + kInv, row, const_cast<uint8_t *>(c.pixel.data()), nullptr, 0, 1),
              RC_SUCCESS);
    EXPECT_EQ((std::array<int, 3>{row[2], row[1], row[0]}), c.rgb) << c.what;
  }
}

TEST(ColorSpace16, DocumentedValues) {
  // HSV: 32896 * 12000 / 98431 = 4010.48 (hundredths, 120-degree sectors).
  auto p = Fwd16(COLORSPACE_HSV, 65535, 32896, 0);
  EXPECT_EQ(S32(p.data()), 4010);
  EXPECT_EQ(U16(p.data() + 4), 10000);
  EXPECT_EQ(U16(p.data() + 6), 65535);
  // HLS: (G - B) * 36000 overflows 32 bits: 65535 * 36000 wraps to
  // -1935707296, / 393210 = -4922, + 36000.
  p = Fwd16(COLORSPACE_HLS, 65535, 65535, 0);
  EXPECT_EQ(S32(p.data()), 31078);
  EXPECT_EQ(U16(p.data() + 4), 32767);
  EXPECT_EQ(U16(p.data() + 6), 10000);
  // L split at 32767 (max + min = 65535 vs 65537).
  p = Fwd16(COLORSPACE_HLS, 65535, 0, 0);
  EXPECT_EQ(U16(p.data() + 6), 10000);
  p = Fwd16(COLORSPACE_HLS, 65535, 2, 2);
  EXPECT_EQ(U16(p.data() + 4), 32768);
  EXPECT_EQ(U16(p.data() + 6), 10000);  // 65533 * 10000 / (131070 - 65537)
  // YUV: the luma sum of white is 2147516415 > 2^31 - 1 and wraps: Y = -65536,
  // U = (131071*16122)>>15 = 64487 -> 28566, V = (131071*25203) wraps -> -30261.
  p = Fwd16(COLORSPACE_YUV, 65535, 65535, 65535);
  EXPECT_EQ(U16(p.data()), 0);
  EXPECT_EQ(S16(p.data() + 2), 28566);
  EXPECT_EQ(S32(p.data() + 4), -30261);
  // One step below the wrap: 65535*32769 - 3736 = 2147512679 still wraps,
  // 65535, 65000, 65535 does not.
  p = Fwd16(COLORSPACE_YUV, 65535, 65000, 65535);
  EXPECT_EQ(U16(p.data()), 2137225690 >> 15);
  // XYZ white: X = 0.959456 * 65535 = 62877.95 (blue weight 0.189423).
  p = Fwd16(COLORSPACE_XYZ, 65535, 65535, 65535);
  EXPECT_EQ(U16(p.data()), 62877);
  EXPECT_EQ(U16(p.data() + 4), 65535);
  // CMYK wrap: 65535 - 40000 - 30000 = -4465 -> 61071.
  uint8_t cmyk[8];
  Put16(cmyk, 40000), Put16(cmyk + 2, 0), Put16(cmyk + 4, 0), Put16(cmyk + 6, 30000);
  EXPECT_EQ(Inv16(COLORSPACE_CMYK, cmyk), (std::array<int, 3>{61071, 35535, 35535}));
  // Spherical: white is 113510 long after rounding and caps at 113509.
  p = Fwd16(COLORSPACE_SPHERICAL, 65535, 65535, 65535);
  EXPECT_EQ(S32(p.data()), 113509);
  EXPECT_EQ(U16(p.data() + 4), 5473);
  EXPECT_EQ(U16(p.data() + 6), 4500);
  // Lab: L in hundredths, a and b 257 times the 8-bit values.
  p = Fwd16(COLORSPACE_LAB, 65535, 65535, 65535);
  EXPECT_EQ(U16(p.data()), 10000);
  EXPECT_EQ(S16(p.data() + 2), 0);
  p = Fwd16(COLORSPACE_LAB, 0, 65535, 0);
  EXPECT_NEAR(S16(p.data() + 2), -86 * 257, 257);
  EXPECT_NEAR(U16(p.data()), 8800, 100);
  // HSV inverse with S = 0 is the gray value.
  uint8_t hsv[8];
  Put32(hsv, 12345), Put16(hsv + 4, 0), Put16(hsv + 6, 4321);
  EXPECT_EQ(Inv16(COLORSPACE_HSV, hsv), (std::array<int, 3>{4321, 4321, 4321}));
  // Gray pixels give hue 0 and saturation 0.
  for (uint32_t code : {COLORSPACE_HSV, COLORSPACE_HLS}) {
    p = Fwd16(code, 1000, 1000, 1000);
    EXPECT_EQ(S32(p.data()), 0);
    EXPECT_EQ(U16(p.data() + (code == COLORSPACE_HSV ? 4 : 6)), 0);
  }
}

// ---- Lab tables ---------------------------------------------------------------------------

TEST(LabTables, ContentsAndAllocations) {
  TrackAllocations(1);
  uint64_t before = 0;
  GetAllocationStats(&before, nullptr);
  img::LabTableSet set{};
  ASSERT_EQ(img::BuildLabTables(&set), RC_SUCCESS);
  static_assert(sizeof(img::LabTableSet) == 27 * sizeof(void *));
  // Newest first: inverse cube, Y-from-L, b-scale, a-scale, L-from-Y, cube root,
  // 3 x 279 entries, 15 x 256 entries.
  std::vector<AllocationInfo> live(64);
  const uint32_t n = GetLiveAllocations(live.data(), 64);
  ASSERT_GE(n, 24u);
  const size_t sizes[9] = {75848, 40004, 80004, 80004, 40004, 40004, 1116, 1116, 1116};
  for (int i = 0; i < 9; ++i) EXPECT_EQ(live[i].Size, sizes[i]) << i;
  for (int i = 9; i < 24; ++i) EXPECT_EQ(live[i].Size, 1024u) << i;
  EXPECT_EQ(reinterpret_cast<const char *>(set.InvCube) - reinterpret_cast<const char *>(set.InvCubeBlock),
            25604);
  EXPECT_EQ(reinterpret_cast<const char *>(set.AScale) - reinterpret_cast<const char *>(set.AScaleBlock),
            40000);
  EXPECT_EQ(reinterpret_cast<const char *>(set.BScale) - reinterpret_cast<const char *>(set.BScaleBlock),
            40000);
  EXPECT_EQ(live[0].Memory, set.InvCubeBlock);

  EXPECT_EQ(set.RgbToX[2][255], 255 * 180423);  // Lab weight, not the XYZ 189423
  EXPECT_EQ(set.ZToRgb[2][278], 278 * 1057311);
  EXPECT_EQ(set.YToRgb[0][10], -15371500);
  EXPECT_EQ(set.CubeRoot[0], 1379);
  EXPECT_EQ(set.CubeRoot[88], 2064);     // trunc(88 * 7.787 + 1379)
  EXPECT_EQ(set.CubeRoot[89], 2072);     // trunc(1000 * 8.9^0.333333)
  EXPECT_EQ(set.CubeRoot[10000], 9999);  // 1000^0.333333 = 9.99997
  EXPECT_EQ(set.LFromY[88], (88 * 903 + 5000) / 10000);
  EXPECT_EQ(set.LFromY[10000], 100);  // (9999 * 116 - 155000) / 10000
  // Truncation toward zero: -4995000 / 10000 = -499, not -500.
  EXPECT_EQ(set.AScale[-10000], -499);
  EXPECT_EQ(set.AScale[-11], 0);
  EXPECT_EQ(set.AScale[9999], 500);
  EXPECT_EQ(set.BScale[-10000], -199);
  EXPECT_EQ(set.BScale[-300], -5);  // -55000 / 10000
  EXPECT_EQ(set.YFromL[0], 0);
  EXPECT_EQ(set.YFromL[8], 88);  // 88.56 < 89 -> 8 * 100000 / 9033
  EXPECT_EQ(set.YFromL[100], 10000);
  EXPECT_EQ(set.InvCube[-6400], -999);   // (-0.64 - 0.137931) * 10000 / 7.787
  EXPECT_EQ(set.InvCube[12560], 19813);  // 1.256^3
  EXPECT_EQ(set.InvCube[10000], 10000);

  img::FreeLabTables(&set);
  EXPECT_EQ(set.CubeRoot, nullptr);
  uint64_t after = 0;
  GetAllocationStats(&after, nullptr);
  EXPECT_EQ(after, before);
  img::FreeLabTables(nullptr);
  EXPECT_EQ(img::BuildLabTables(nullptr), RC_INVALID_PARAMETER);
  TrackAllocations(0);
}

TEST(LabTables, AllocationFailureAtEveryStepLeavesNothing) {
  TrackAllocations(1);
  uint64_t before = 0;
  GetAllocationStats(&before, nullptr);
  for (uint32_t nth = 1; nth <= 24; ++nth) {
    img::LabTableSet set{};
    SetAllocationFailure(nth);
    EXPECT_EQ(img::BuildLabTables(&set), RC_NO_MEMORY) << nth;
    SetAllocationFailure(0);
    uint64_t mid = 0;
    GetAllocationStats(&mid, nullptr);
    EXPECT_EQ(mid - before, nth - 1) << "tables made before the failure stay in place";
    img::FreeLabTables(&set);
    uint64_t after = 0;
    GetAllocationStats(&after, nullptr);
    EXPECT_EQ(after, before) << nth;
  }
  img::LabTableSet set{};
  SetAllocationFailure(25);
  EXPECT_EQ(img::BuildLabTables(&set), RC_SUCCESS);
  SetAllocationFailure(0);
  img::FreeLabTables(&set);
  TrackAllocations(0);
}

TEST(LabTables, KnownColours) {
  LabTables t;
  struct Case {
    uint8_t r, g, b;
    int L, a, bb;
  } cases[] = {
      {255, 255, 255, 100, 0, 0},  // every axis at 10000: f = 9999, L = 100
      {0, 0, 0, 0, 0, 0},          // f = 1379 everywhere, L = 5000 / 10000
      {0, 255, 0, 88, -86, 83},    // same as the floating-point form
      {0, 0, 255, 32, 79, -107},
  };
  for (const Case &c : cases) {
    uint8_t row[3] = {c.b, c.g, c.r}, sp[3];
    ASSERT_EQ(img::ConvertColorRow8(COLORSPACE_LAB_TABLE, row, sp, &t.set, 0, 1), RC_SUCCESS);
    EXPECT_EQ(sp[0], c.L);
    EXPECT_NEAR(static_cast<int8_t>(sp[1]), c.a, 1);
    EXPECT_NEAR(static_cast<int8_t>(sp[2]), c.bb, 1);
  }
  // Lab values far outside the gamut read the ends of the tables (no overrun):
  // L above 100 acts as 100, a and b at their extremes.
  for (int L : {0, 100, 101, 255})
    for (int a : {-128, 0, 127})
      for (int b : {-128, 0, 127}) {
        uint8_t sp[3] = {static_cast<uint8_t>(L), static_cast<uint8_t>(a), static_cast<uint8_t>(b)}, row[3];
        ASSERT_EQ(img::ConvertColorRow8(COLORSPACE_LAB_TABLE + kInv, row, sp, &t.set, 0, 1), RC_SUCCESS);
        uint16_t sp16[3] = {static_cast<uint16_t>(L * 257), static_cast<uint16_t>(a * 257),
                            static_cast<uint16_t>(b * 257)};
        uint16_t row16[3];
        ASSERT_EQ(img::ConvertColorRow16(COLORSPACE_LAB_TABLE + kInv, row16, sp16, &t.set, 0, 1), RC_SUCCESS);
      }
  uint8_t over[3] = {255, 0, 0}, hundred[3] = {100, 0, 0}, r1[3], r2[3];
  img::ConvertColorRow8(COLORSPACE_LAB_TABLE + kInv, r1, over, &t.set, 0, 1);
  img::ConvertColorRow8(COLORSPACE_LAB_TABLE + kInv, r2, hundred, &t.set, 0, 1);
  EXPECT_EQ(0, std::memcmp(r1, r2, 3));
  // Table white: g(9999) = 9997 gives X = 241, Z = 277, Y = 255; the sums
  // truncate to R = 250, G = 256 -> 255, B = 254.
  EXPECT_EQ(r2[0], 254);
  EXPECT_EQ(r2[1], 255);
  EXPECT_EQ(r2[2], 250);
}

// ---- Exhaustive 8-bit checks ----------------------------------------------------------------

constexpr int kRow = 4096;  // 16 green values x 256 blue values

// Fills row `block` of the colour cube: red fixed, 16 greens, every blue.
void FillBlock(uint8_t *rgb, int red, int greenBase) {
  for (int i = 0; i < kRow; ++i) {
    rgb[3 * i] = static_cast<uint8_t>(i & 255);
    rgb[3 * i + 1] = static_cast<uint8_t>(greenBase + (i >> 8));
    rgb[3 * i + 2] = static_cast<uint8_t>(red);
  }
}

struct RoundTrip8 {
  uint32_t code;
  int bound;  // largest per-channel error there and back
};

// The fast row loops give the pixel form's bits for every colour, and the
// round trip stays within its recorded bound.
void ExhaustiveRoundTrip8(const RoundTrip8 &c, const img::LabTableSet *set, Path path) {
  const int size = c.code == COLORSPACE_LAB_TABLE ? 3 : img::GetColorSpacePixelSize(c.code, 8);
  std::vector<uint8_t> rgb(3 * kRow), back(3 * kRow), sp(8 * kRow), ref(8);
  int worst = 0;
  for (int red = 0; red < 256; red += kOuterStep) {
    for (int gb = 0; gb < 256; gb += 16) {
      FillBlock(rgb.data(), red, gb);
      ASSERT_EQ(img::clrspc_detail::ConvertColorRow8Path(path, c.code, rgb.data(), sp.data(), set, 0, kRow),
                RC_SUCCESS);
      ASSERT_EQ(
          img::clrspc_detail::ConvertColorRow8Path(path, c.code + kInv, back.data(), sp.data(), set, 0, kRow),
          RC_SUCCESS);
      for (int i = 0; i < kRow; ++i) {
        const uint8_t *q = &rgb[3 * i];
        if (c.code != COLORSPACE_LAB_TABLE) {
          uint8_t r = q[2], g = q[1], b = q[0];
          img::ConvertColorPixel(c.code, &r, &g, &b, ref.data());
          ASSERT_EQ(0, std::memcmp(ref.data(), &sp[size * i], size))
              << "code " << c.code << " rgb " << int(q[2]) << "," << int(q[1]) << "," << int(q[0]);
          img::ConvertColorPixel(c.code + kInv, &r, &g, &b, &sp[size * i]);
          ASSERT_TRUE(r == back[3 * i + 2] && g == back[3 * i + 1] && b == back[3 * i])
              << "inverse code " << c.code << " rgb " << int(q[2]) << "," << int(q[1]) << "," << int(q[0]);
        }
        for (int k = 0; k < 3; ++k) worst = std::max(worst, std::abs(int(q[k]) - int(back[3 * i + k])));
      }
    }
  }
  EXPECT_LE(worst, c.bound) << "code " << c.code;
  std::printf("round trip 8-bit code %u: max error %d\n", c.code, worst);
}

// Measured over all 16.7 million colours. XYZ loses Z above 255 and YUV U
// beyond -112..111 to clamping.
const RoundTrip8 kRoundTrips8[] = {
    {COLORSPACE_RGB, 0},   {COLORSPACE_HSV, 8},        {COLORSPACE_HLS, 7},        {COLORSPACE_XYZ, 24},
    {COLORSPACE_YCRCB, 3}, {COLORSPACE_YUV, 24},       {COLORSPACE_LAB, 9},        {COLORSPACE_CMY, 0},
    {COLORSPACE_CMYK, 0},  {COLORSPACE_LAB_TABLE, 11}, {COLORSPACE_SPHERICAL, 18},
};

class RoundTrip8Test : public ::testing::TestWithParam<RoundTrip8> {};

TEST_P(RoundTrip8Test, EveryColourEveryPath) {
  LabTables t;
  for (Path path : {Path::Scalar, Path::Avx2}) {
    if (!img::clrspc_detail::PathSupported(path)) continue;
    ExhaustiveRoundTrip8(GetParam(), &t.set, path);
  }
}

INSTANTIATE_TEST_SUITE_P(Codes, RoundTrip8Test, ::testing::ValuesIn(kRoundTrips8),
                         [](const auto &info) { return "code" + std::to_string(info.param.code); });

// The inverse fast loops over their whole input domain (including values no
// forward conversion produces) match the pixel form.
TEST(ColorSpaceInverse8, FastRowsMatchPixelFormOnEveryInput) {
  struct Domain {
    uint32_t code;
    int size, firstMax;  // first field runs 0..firstMax, the next two bytes 0..255
  } domains[] = {{COLORSPACE_HSV, 4, 419},
                 {COLORSPACE_HLS, 4, 419},
                 {COLORSPACE_XYZ, 3, 255},
                 {COLORSPACE_YCRCB, 3, 255},
                 {COLORSPACE_YUV, 4, 255}};
  std::vector<uint8_t> sp(4 * 65536), back(3 * 65536);
  for (const Domain &d : domains) {
    for (Path path : {Path::Scalar, Path::Avx2}) {
      if (!img::clrspc_detail::PathSupported(path)) continue;
      for (int f = 0; f <= d.firstMax; f += kOuterStep) {
        for (int i = 0; i < 65536; ++i) {
          uint8_t *p = &sp[d.size * i];
          if (d.size == 4 && d.code != COLORSPACE_YUV) {
            Put16(p, f), p[2] = static_cast<uint8_t>(i >> 8), p[3] = static_cast<uint8_t>(i);
          } else if (d.code == COLORSPACE_YUV) {  // Y, U and the low byte of V with its sign spread
            p[0] = static_cast<uint8_t>(f), p[1] = static_cast<uint8_t>(i >> 8);
            Put16(p + 2, static_cast<uint32_t>(static_cast<int8_t>(i & 255)));
          } else {
            p[0] = static_cast<uint8_t>(f), p[1] = static_cast<uint8_t>(i >> 8),
            p[2] = static_cast<uint8_t>(i);
          }
        }
        ASSERT_EQ(img::clrspc_detail::ConvertColorRow8Path(path, d.code + kInv, back.data(), sp.data(),
                                                           nullptr, 0, 65536),
                  RC_SUCCESS);
        for (int i = 0; i < 65536; ++i) {
          uint8_t r, g, b;
          img::ConvertColorPixel(d.code + kInv, &r, &g, &b, &sp[d.size * i]);
          ASSERT_TRUE(r == back[3 * i + 2] && g == back[3 * i + 1] && b == back[3 * i])
              << "code " << d.code << " first " << f << " i " << i;
        }
      }
    }
  }
}

// ---- 16-bit round trips ----------------------------------------------------------------------

struct RoundTrip16 {
  uint32_t code;
  int bound;        // over every sampled colour
  int boundNoWrap;  // over the colours whose 32-bit products do not wrap
};

// Colours for which a 32-bit product of the 16-bit integer forms wraps:
// the YUV luma sum near white, and the HLS hue and value products
// (difference * 36000, (m2 - m1) * h * 6) of strongly saturated colours.
bool Wraps(uint32_t code, int r, int g, int b) {
  if (code == COLORSPACE_YUV) return 9798LL * r + 19235LL * g + 3736LL * b > INT32_MAX;
  if (code == COLORSPACE_HLS) return std::max({r, g, b}) - std::min({r, g, b}) > 59652;
  return false;
}

// Measured over the sample below (Release build: 245 rows of 4096). XYZ and
// YUV lose Z and U to clamping as in 8 bits.
const RoundTrip16 kRoundTrips16[] = {
    {COLORSPACE_RGB, 0, 0},           {COLORSPACE_HSV, 21, 21},         {COLORSPACE_HLS, 65535, 14},
    {COLORSPACE_XYZ, 6118, 6118},     {COLORSPACE_YCRCB, 4, 4},         {COLORSPACE_YUV, 65535, 5796},
    {COLORSPACE_LAB, 14, 14},         {COLORSPACE_CMY, 0, 0},           {COLORSPACE_CMYK, 0, 0},
    {COLORSPACE_LAB_TABLE, 212, 212}, {COLORSPACE_SPHERICAL, 286, 286},
};

class RoundTrip16Test : public ::testing::TestWithParam<RoundTrip16> {};

// A fixed-seed million colours plus the corners of the cube, 4096 a row.
TEST_P(RoundTrip16Test, DenseSample) {
  const RoundTrip16 &c = GetParam();
  LabTables t;
  std::mt19937 rng(12345);
  std::vector<uint16_t> rgb(3 * kRow), back(3 * kRow);
  std::vector<uint8_t> sp(8 * kRow);
  int worst = 0, worstNoWrap = 0;
#ifdef NDEBUG
  const int rows = 245;
#else
  const int rows = 40;
#endif
  for (int row = 0; row < rows; ++row) {
    for (int i = 0; i < 3 * kRow; ++i) rgb[i] = static_cast<uint16_t>(rng() >> 16);
    if (row == 0)
      for (int i = 0; i < 8; ++i)
        for (int k = 0; k < 3; ++k) rgb[3 * i + k] = (i >> k) & 1 ? 65535 : 0;
    ASSERT_EQ(img::ConvertColorRow16(c.code, rgb.data(), sp.data(), &t.set, 0, kRow), RC_SUCCESS);
    ASSERT_EQ(img::ConvertColorRow16(c.code + kInv, back.data(), sp.data(), &t.set, 0, kRow), RC_SUCCESS);
    for (int i = 0; i < kRow; ++i) {
      const uint16_t *q = &rgb[3 * i], *w = &back[3 * i];
      int e = 0;
      for (int k = 0; k < 3; ++k) e = std::max(e, std::abs(int(q[k]) - int(w[k])));
      worst = std::max(worst, e);
      if (!Wraps(c.code, q[2], q[1], q[0])) worstNoWrap = std::max(worstNoWrap, e);
    }
  }
  EXPECT_LE(worst, c.bound) << "code " << c.code;
  EXPECT_LE(worstNoWrap, c.boundNoWrap) << "code " << c.code;
  std::printf("round trip 16-bit code %u: max error %d, without wrapped products %d\n", c.code, worst,
              worstNoWrap);
}

INSTANTIATE_TEST_SUITE_P(Codes, RoundTrip16Test, ::testing::ValuesIn(kRoundTrips16),
                         [](const auto &info) { return "code" + std::to_string(info.param.code); });

}  // namespace
