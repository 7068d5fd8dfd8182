// Colour-space conversions: formula quirks, argument checks, Lab tables, every row path bit-exact
// against the pixel form, round trips over every 8-bit colour and a dense 16-bit sample.
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

using img::Isa;
constexpr uint32_t kInv = COLORSPACE_TO_RGB;

// Debug builds visit every seventh value of the outer loops of the exhaustive checks.
#ifdef NDEBUG
constexpr int kOuterStep = 1;
#else
constexpr int kOuterStep = 7;
#endif

uint16_t U16(const uint8_t *p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }
int16_t S16(const uint8_t *p) { return static_cast<int16_t>(U16(p)); }
int32_t S32(const uint8_t *p) {
  return static_cast<int32_t>(U16(p) | static_cast<uint32_t>(U16(p + 2)) << 16);
}
void Put16(uint8_t *p, int32_t v) { p[0] = static_cast<uint8_t>(v), p[1] = static_cast<uint8_t>(v >> 8); }
void Put32(uint8_t *p, int32_t v) { std::memcpy(p, &v, 4); }

int32_t Row8(Isa isa, uint32_t code, uint8_t *rgb, void *sp, const img::LabTableSet *set, int32_t first,
             int32_t end) {
  return img::ConvertColorRow8Isa(isa, code, rgb, sp, set, first, end);
}

struct LabTables {
  img::LabTableSet set{};
  LabTables() { EXPECT_EQ(img::BuildLabTables(&set), RC_SUCCESS); }
  ~LabTables() { img::FreeLabTables(&set); }
};

// Fields of an 8-bit space pixel as integers.
std::array<int, 4> Fields8(uint32_t code, const uint8_t *p) {
  const bool hue = code == COLORSPACE_HSV || code == COLORSPACE_HLS, sph = code == COLORSPACE_SPHERICAL;
  if (hue || sph) return {U16(p), sph ? U16(p + 2) : p[2], sph ? U16(p + 4) : p[3], 0};
  if (code == COLORSPACE_YUV) return {p[0], static_cast<int8_t>(p[1]), S16(p + 2), 0};
  if (code == COLORSPACE_YCRCB || code == COLORSPACE_LAB)
    return {p[0], static_cast<int8_t>(p[1]), static_cast<int8_t>(p[2]), 0};
  return {p[0], p[1], p[2], code == COLORSPACE_CMYK ? p[3] : 0};
}

// One 16-bit colour through the row form, and back.
std::array<uint8_t, 8> Fwd16(uint32_t code, uint16_t r, uint16_t g, uint16_t b) {
  std::array<uint8_t, 8> p{};
  uint16_t row[3] = {b, g, r};
  EXPECT_EQ(img::ConvertColorRow16(code, row, p.data(), nullptr, 0, 1), RC_SUCCESS);
  return p;
}
std::array<int, 3> Inv16(uint32_t code, const uint8_t *p) {
  uint16_t row[3] = {};
  EXPECT_EQ(img::ConvertColorRow16(code + kInv, row, const_cast<uint8_t *>(p), nullptr, 0, 1), RC_SUCCESS);
  return {row[2], row[1], row[0]};
}

// Converts pixels first..end-1 of `in` with `code` through every available
// instruction set and checks each result against the pixel form (Lab through
// tables, which has none: against the scalar reference), pixels outside the
// run left as they were. Returns the converted row.
std::vector<uint8_t> AllPathsAgree(uint32_t code, const std::vector<uint8_t> &input,
                                   const img::LabTableSet *set, int first, int end) {
  uint8_t *in = const_cast<uint8_t *>(input.data());  // only read
  const bool inverse = code >= kInv, table = code % kInv == COLORSPACE_LAB_TABLE;
  const int size = table ? 3 : img::GetColorSpacePixelSize(code, 8),
            n = static_cast<int>(input.size()) / (inverse ? size : 3);
  std::vector<uint8_t> ref(n * (inverse ? 3 : size), 0xEE), out(ref.size());
  for (int i = first; i < end && !table; ++i) {
    uint8_t *q = inverse ? &ref[3 * i] : &in[3 * i], *p = inverse ? &in[size * i] : &ref[size * i];
    img::ConvertColorPixel(code, &q[2], &q[1], &q[0], p);
  }
  if (table) Row8(Isa::Scalar, code, inverse ? ref.data() : in, inverse ? in : ref.data(), set, first, end);
  for (Isa isa : img::kAllIsas) {
    if (!img::IsaAvailable(isa)) continue;
    std::fill(out.begin(), out.end(), 0xEE);
    EXPECT_EQ(Row8(isa, code, inverse ? out.data() : in, inverse ? in : out.data(), set, first, end),
              RC_SUCCESS);
    const auto bad = std::mismatch(out.begin(), out.end(), ref.begin());
    EXPECT_TRUE(bad.first == out.end()) << "code " << code << " " << img::IsaName(isa) << " pixel "
                                        << (bad.first - out.begin()) / (inverse ? 3 : size);
  }
  return out;
}

TEST(ColorSpace, PixelSizes) {
  const int32_t size8[11] = {3, 4, 4, 3, 3, 4, 3, 3, 4, 0, 6}, size16[11] = {6, 8, 8, 6, 6, 8, 6, 6, 8, 0, 8};
  for (uint32_t c = 0; c < 48; ++c) {  // 0 for 9, 25, 11..15 and 27 up
    const bool valid = c % kInv <= 10 && c < 27;
    EXPECT_TRUE(img::GetColorSpacePixelSize(c, 8) == (valid ? size8[c % kInv] : 0) &&
                img::GetColorSpacePixelSize(c, 16) == (valid ? size16[c % kInv] : 0) &&
                img::GetColorSpacePixelSize(c, 12) == 0)
        << c;
  }
}

TEST(ColorSpace, DispatchersRefuseAndWriteNothing) {
  LabTables t;
  std::vector<uint8_t> sp(16, 0xA5), row8(16, 0x5A);
  std::vector<uint16_t> row16(8, 0x5A5A);
  uint8_t r = 1, g = 2, b = 3;
  struct Bad {
    uint32_t code;
    bool rgbNull, spNull, setNull;
    int32_t first;
  };
  std::vector<Bad> bad = {{COLORSPACE_LAB_TABLE, false, false, true, 0}, {25, false, false, true, 0}};
  for (uint32_t c : {11u, 12u, 13u, 14u, 15u, 27u, 31u, 0x80000000u, 0xFFFFFFFFu})
    bad.push_back({c, false, false, false, 0});
  for (uint32_t c : {0u, 10u, 16u, 26u})
    bad.insert(bad.end(),
               {{c, true, false, false, 0}, {c, false, true, false, 0}, {c, false, false, false, -1}});
  for (const Bad &x : bad) {
    void *s = x.spNull ? nullptr : sp.data();
    const img::LabTableSet *set = x.setNull ? nullptr : &t.set;
    // The pixel form has no table-driven Lab and no run.
    EXPECT_EQ(x.first != 0 ? -13 : img::ConvertColorPixel(x.code, x.rgbNull ? nullptr : &r, &g, &b, s), -13);
    EXPECT_EQ(img::ConvertColorRow8(x.code, x.rgbNull ? nullptr : row8.data(), s, set, x.first, 2),
              RC_INVALID_PARAMETER);
    EXPECT_EQ(img::ConvertColorRow16(x.code, x.rgbNull ? nullptr : row16.data(), s, set, x.first, 1),
              RC_INVALID_PARAMETER)
        << x.code;
  }
  EXPECT_EQ(img::ConvertColorRow16(26, row16.data(), sp.data(), nullptr, 1, 1), RC_SUCCESS);  // empty run
  EXPECT_TRUE(r == 1 && g == 2 && b == 3 && std::count(sp.begin(), sp.end(), 0xA5) == 16);
  EXPECT_TRUE(std::count(row8.begin(), row8.end(), 0x5A) == 16 &&
              std::count(row16.begin(), row16.end(), 0x5A5A) == 8);
}

TEST(ColorSpace, RowsConvertOnlyFirstToEndAtTheirOwnIndexes) {
  // Pixels 2..17 of 19: two groups of eight for the AVX2 loops; AllPathsAgree
  // checks that the bytes around them stay as they were.
  std::vector<uint8_t> rgb(19 * 3);
  for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<uint8_t>(i * 37);
  for (uint32_t code : {1u, 2u, 3u, 4u, 5u})
    AllPathsAgree(code + kInv, AllPathsAgree(code, rgb, nullptr, 2, 18), nullptr, 2, 18);
}

TEST(ColorSpace, Forward8DocumentedValues) {
  struct Case {
    const char *what;
    uint32_t code;
    uint8_t r, g, b;
    std::array<int, 4> expect;
  } cases[] = {
      // 120-degree sectors from the smallest component: 128 * 120 / 383 = 40.
      {"hsv orange", COLORSPACE_HSV, 255, 128, 0, {40, 100, 255, 0}},
      {"hsv tie goes to blue", COLORSPACE_HSV, 100, 50, 50, {0, 50, 100, 0}},
      {"hsv gray", COLORSPACE_HSV, 77, 77, 77, {0, 0, 77, 0}},
      {"hls orange", COLORSPACE_HLS, 255, 128, 0, {30, 127, 100, 0}},   // hexcone: 128*60/255
      {"hls L=128 sums", COLORSPACE_HLS, 255, 1, 1, {0, 128, 99, 0}},   // 254*100/256
      {"hls L=129 510-", COLORSPACE_HLS, 255, 3, 3, {0, 129, 100, 0}},  // 252*100/252
      {"hls S=0 keeps hue 0", COLORSPACE_HLS, 129, 129, 128, {0, 128, 0, 0}},
      {"hls negative hue", COLORSPACE_HLS, 255, 0, 51, {348, 127, 100, 0}},  // -51*60/255 + 360
      // 0.412453*255 + 0.35758*255 + 0.189423*255 = 244.66; Z = 277.6 clamps.
      {"xyz white", COLORSPACE_XYZ, 255, 255, 255, {244, 255, 255, 0}},
      // 0.299 + 0.587 + 0.114 sums to just under 1 in doubles: trunc gives 0.
      {"ycrcb 1,1,1", COLORSPACE_YCRCB, 1, 1, 1, {0, 0, 0, 0}},
      {"yuv blue U cap", COLORSPACE_YUV, 0, 0, 255, {29, 111, -23, 0}},  // (226*16122)>>15 = 111
      {"lab blue", COLORSPACE_LAB, 0, 0, 255, {32, 79, -107, 0}},
      {"cmyk", COLORSPACE_CMYK, 100, 150, 200, {100, 50, 0, 55}},
      // acos(1/sqrt 3) = 54.7356 degrees, acos(1/sqrt 2) = 45; 441.7 rounds to 442.
      {"sph white", COLORSPACE_SPHERICAL, 255, 255, 255, {442, 5473, 4500, 0}},
      {"sph blue: sin 0, phi 0", COLORSPACE_SPHERICAL, 0, 0, 255, {255, 0, 0, 0}},
  };
  for (const Case &c : cases) {
    uint8_t r = c.r, g = c.g, b = c.b, p[8] = {}, q[8] = {}, row[3] = {c.b, c.g, c.r};
    ASSERT_EQ(img::ConvertColorPixel(c.code, &r, &g, &b, p), RC_SUCCESS);
    EXPECT_EQ(Fields8(c.code, p), c.expect) << c.what;
    ASSERT_EQ(img::ConvertColorRow8(c.code, row, q, nullptr, 0, 1), RC_SUCCESS);
    EXPECT_EQ(0, std::memcmp(p, q, 8)) << c.what;
  }
}

TEST(ColorSpace, Inverse8DocumentedValues) {
  struct Case {
    const char *what;
    uint32_t code;
    std::array<uint8_t, 6> pixel;
    std::array<int, 3> rgb;
  } cases[] = {
      // HSV by sector (hue, S, V): low = (100-S)*V/100, d = V - low.
      {"hsv 30", COLORSPACE_HSV, {30, 0, 100, 200}, {200, 66, 0}},    // 200*30/90
      {"hsv 90", COLORSPACE_HSV, {90, 0, 50, 200}, {133, 200, 100}},  // 30*100/90 + 100
      {"hls L=128: m2 = 256", COLORSPACE_HLS, {0, 0, 128, 100}, {255, 0, 0}},
      {"hls L=129: m1 = 3", COLORSPACE_HLS, {0, 0, 129, 100}, {255, 3, 3}},
      {"hls 30", COLORSPACE_HLS, {30, 0, 128, 100}, {255, 128, 0}},  // 256*30*6/360
      {"xyz", COLORSPACE_XYZ, {100, 0, 0}, {255, 0, 5}},             // 324.0, -96.9, 5.56
      {"ycrcb", COLORSPACE_YCRCB, {100, 20, 0xEC}, {128, 92, 64}},   // Cb = -20
      {"yuv", COLORSPACE_YUV, {100, 0, 100, 0}, {213, 42, 99}},
      {"cmyk wraps", COLORSPACE_CMYK, {200, 0, 0, 100}, {211, 155, 155}},  // -45 -> 211
      // theta = 0: B = 443 caps, G from the uncapped B: sqrt(0) = 0.
      {"sph cap", COLORSPACE_SPHERICAL, {187, 1, 0, 0, 0, 0}, {0, 0, 255}},
      // theta -8900 (0xDD3C): B = trunc(200 cos 89 + .5) = 3, R = |200 sin -89 + .5| =
      // 199, G = sqrt(40000 - 39601 - 9) = 19 (read unsigned: 88, 23, 178).
      {"sph signed theta", COLORSPACE_SPHERICAL, {200, 0, 0x3C, 0xDD, 0, 0}, {199, 19, 3}},
  };
  for (const Case &c : cases) {
    uint8_t r = 0, g = 0, b = 0, row[3] = {};
    auto *p = const_cast<uint8_t *>(c.pixel.data());
    ASSERT_EQ(img::ConvertColorPixel(c.code + kInv, &r, &g, &b, p), RC_SUCCESS);
    EXPECT_EQ((std::array<int, 3>{r, g, b}), c.rgb) << c.what;
    ASSERT_EQ(img::ConvertColorRow8(c.code + kInv, row, p, nullptr, 0, 1), RC_SUCCESS);
    EXPECT_EQ((std::array<int, 3>{row[2], row[1], row[0]}), c.rgb) << c.what;
  }
}

TEST(ColorSpace, SixteenBitDocumentedValues) {
  struct Case {
    const char *what;
    uint32_t code;
    uint16_t r, g, b;
    std::array<int, 3> expect;
  } cases[] = {
      // 32896 * 12000 / 98431 = 4010.48 (hundredths, 120-degree sectors).
      {"hsv orange", COLORSPACE_HSV, 65535, 32896, 0, {4010, 10000, 65535}},
      // (G - B) * 36000 wraps in 32 bits: -1935707296 / 393210 = -4922, + 36000.
      {"hls hue wraps", COLORSPACE_HLS, 65535, 65535, 0, {31078, 32767, 10000}},
      // L split at 32767: max + min = 65537 divides by 131070 - 65537.
      {"hls L=32768", COLORSPACE_HLS, 65535, 2, 2, {0, 32768, 10000}},
      // The luma sum 2147516415 wraps to Y = -65536 (stored 0): U = (131071 *
      // 16122) >> 15 caps at 28566, V = 131071 * 25203 wraps to -1991655539 >> 15.
      {"yuv white wraps", COLORSPACE_YUV, 65535, 65535, 65535, {0, 28566, -30261}},
      // 2137225690 >> 15 = 65222: (313 * 16122) >> 15 = 153, (313 * 25203) >> 15 = 240.
      {"yuv no wrap", COLORSPACE_YUV, 65535, 65000, 65535, {65222, 153, 240}},
      {"sph white caps", COLORSPACE_SPHERICAL, 65535, 65535, 65535, {113509, 5473, 4500}},  // 113510 long
      {"lab white", COLORSPACE_LAB, 65535, 65535, 65535, {10000, 0, 0}},                    // L in hundredths
  };
  for (const Case &c : cases) {
    const auto p = Fwd16(c.code, c.r, c.g, c.b);
    const bool wide = c.code != COLORSPACE_YUV && c.code != COLORSPACE_LAB;
    const std::array<int, 3> got =
        wide ? std::array<int, 3>{S32(&p[0]), U16(&p[4]), U16(&p[6])}
             : std::array<int, 3>{U16(&p[0]), S16(&p[2]), c.code == COLORSPACE_YUV ? S32(&p[4]) : S16(&p[4])};
    EXPECT_EQ(got, c.expect) << c.what;
  }
  // CMYK wrap: 65535 - 40000 - 30000 = -4465 -> 61071.
  uint8_t px[8];
  Put16(px, 40000), Put16(px + 2, 0), Put16(px + 4, 0), Put16(px + 6, 30000);
  EXPECT_EQ(Inv16(COLORSPACE_CMYK, px), (std::array<int, 3>{61071, 35535, 35535}));
  // Signed theta -8900: B = trunc(51200 cos 89 + .5) = 894, R = 51191,
  // G = sqrt(51200^2 - 51191^2 - 894^2) = 349 (unsigned: 22732, 424, 45875).
  Put32(px, 51200), Put16(px + 4, -8900), Put16(px + 6, 0);
  EXPECT_EQ(Inv16(COLORSPACE_SPHERICAL, px), (std::array<int, 3>{51191, 349, 894}));
}

TEST(LabTables, ContentsAndAllocations) {
  TrackAllocations(1);
  uint64_t before = 0, after = 0;
  GetAllocationStats(&before, nullptr);
  img::LabTableSet set{};
  ASSERT_EQ(img::BuildLabTables(&set), RC_SUCCESS);
  // Newest first: inverse cube, Y-from-L, b-scale, a-scale, L-from-Y, cube
  // root, 3 x 279 entries, 15 x 256 entries.
  std::vector<AllocationInfo> live(64);
  ASSERT_GE(GetLiveAllocations(live.data(), 64), 24u);
  const size_t sizes[9] = {75848, 40004, 80004, 80004, 40004, 40004, 1116, 1116, 1116};
  for (int i = 0; i < 24; ++i) EXPECT_EQ(live[i].Size, i < 9 ? sizes[i] : 1024u) << i;
  const auto offset = [](const int32_t *p, const int32_t *block) {
    return reinterpret_cast<const char *>(p) - reinterpret_cast<const char *>(block);
  };
  EXPECT_EQ(offset(set.InvCube, set.InvCubeBlock), 25604);
  EXPECT_EQ(offset(set.AScale, set.AScaleBlock), 40000);
  EXPECT_EQ(set.RgbToX[2][255], 255 * 180423);  // the Lab weight, not XYZ's 189423
  EXPECT_EQ(set.CubeRoot[89], 2072);            // trunc(1000 * 8.9^0.333333)
  EXPECT_EQ(set.AScale[-10000], -499);          // toward zero: -4995000 / 10000
  EXPECT_EQ(set.YFromL[8], 88);                 // 88.56 < 89 -> 8 * 100000 / 9033
  EXPECT_EQ(set.InvCube[-6400], -999);          // (-0.64 - 0.137931) * 10000 / 7.787
  img::FreeLabTables(&set);
  EXPECT_EQ(set.CubeRoot, nullptr);
  GetAllocationStats(&after, nullptr);
  EXPECT_EQ(after, before);
  img::FreeLabTables(nullptr);
  EXPECT_EQ(img::BuildLabTables(nullptr), RC_INVALID_PARAMETER);
  TrackAllocations(0);
}

TEST(LabTables, AllocationFailureAtEveryStepLeavesNothing) {
  TrackAllocations(1);
  uint64_t before = 0, mid = 0, after = 0;
  GetAllocationStats(&before, nullptr);
  for (uint32_t nth = 1; nth <= 25; ++nth) {
    img::LabTableSet set{};
    SetAllocationFailure(nth);
    EXPECT_EQ(img::BuildLabTables(&set), nth <= 24 ? RC_NO_MEMORY : RC_SUCCESS) << nth;
    SetAllocationFailure(0);
    GetAllocationStats(&mid, nullptr);
    EXPECT_EQ(mid - before, std::min(nth - 1, 24u)) << "tables made before the failure stay in place";
    img::FreeLabTables(&set);
    GetAllocationStats(&after, nullptr);
    EXPECT_EQ(after, before) << nth;
  }
  TrackAllocations(0);
}

TEST(LabTables, KnownColoursAndHeldIndexes) {
  LabTables t;
  // White, black, green, blue: a and b within 1 of the floating-point form.
  uint8_t bgr[12] = {255, 255, 255, 0, 0, 0, 0, 255, 0, 255, 0, 0}, lab[12];
  const int want[4][3] = {{100, 0, 0}, {0, 0, 0}, {88, -86, 83}, {32, 79, -107}};
  ASSERT_EQ(img::ConvertColorRow8(COLORSPACE_LAB_TABLE, bgr, lab, &t.set, 0, 4), RC_SUCCESS);
  for (int i = 0; i < 4; ++i)
    EXPECT_TRUE(lab[3 * i] == want[i][0] && std::abs(static_cast<int8_t>(lab[3 * i + 1]) - want[i][1]) <= 1 &&
                std::abs(static_cast<int8_t>(lab[3 * i + 2]) - want[i][2]) <= 1)
        << i;
  // L above 100 acts as 100. Table white: g(9999) = 9997 gives X = 241,
  // Z = 277, Y = 255; the sums truncate to R = 250, G = 256 -> 255, B = 254.
  uint8_t over[3] = {255, 0, 0}, hundred[3] = {100, 0, 0}, r1[3], r2[3];
  img::ConvertColorRow8(COLORSPACE_LAB_TABLE + kInv, r1, over, &t.set, 0, 1);
  img::ConvertColorRow8(COLORSPACE_LAB_TABLE + kInv, r2, hundred, &t.set, 0, 1);
  EXPECT_EQ((std::array<int, 3>{r2[2], r2[1], r2[0]}), (std::array<int, 3>{250, 255, 254}));
  EXPECT_EQ(0, std::memcmp(r1, r2, 3));
}

constexpr int kRow = 4096;  // 16 green values x 256 blue values

// Exhaustive over all colours (strided in Debug): every available instruction set
// gives the pixel form's bits both ways (for Lab through tables, whose pixel
// form does not exist, the scalar reference's), and the round trip stays within
// its bound, measured over all 16.7 million colours.
class RoundTrip8Test : public ::testing::TestWithParam<std::pair<uint32_t, int>> {};  // code, bound

TEST_P(RoundTrip8Test, EveryColourEveryPath) {
  const auto [code, bound] = GetParam();
  LabTables t;
  std::vector<uint8_t> rgb(3 * kRow);
  int worst = 0;
  for (int red = 0; red < 256; red += kOuterStep)
    for (int gb = 0; gb < 256; gb += 16) {
      for (int i = 0; i < kRow; ++i)
        rgb[3 * i] = static_cast<uint8_t>(i), rgb[3 * i + 1] = static_cast<uint8_t>(gb + (i >> 8)),
                rgb[3 * i + 2] = static_cast<uint8_t>(red);
      const std::vector<uint8_t> back =
          AllPathsAgree(code + kInv, AllPathsAgree(code, rgb, &t.set, 0, kRow), &t.set, 0, kRow);
      ASSERT_FALSE(HasFailure());
      for (int i = 0; i < 3 * kRow; ++i) worst = std::max(worst, std::abs(int(rgb[i]) - int(back[i])));
    }
  EXPECT_LE(worst, bound) << "code " << code;
}

// Codes 0..10; XYZ loses Z above 255 and YUV U beyond -112..111 to clamping.
const std::pair<uint32_t, int> kRoundTrips8[] = {{0, 0}, {1, 8}, {2, 7}, {3, 24}, {4, 3},  {5, 24},
                                                 {6, 9}, {7, 0}, {8, 0}, {9, 11}, {10, 18}};
INSTANTIATE_TEST_SUITE_P(Codes, RoundTrip8Test, ::testing::ValuesIn(kRoundTrips8),
                         [](const auto &info) { return "code" + std::to_string(info.param.first); });

// The fast inverse loops over their whole input domain, values no forward
// conversion produces included (hues up to 419, S above 100, every byte).
TEST(ColorSpace, FastInverseRowsMatchOnEveryInput) {
  // Code, pixel size, largest first field (then every pair of bytes).
  const std::array<int, 3> domains[] = {{COLORSPACE_HSV, 4, 419}, {COLORSPACE_HLS, 4, 419},
                                        {COLORSPACE_XYZ, 3, 255}, {COLORSPACE_YCRCB, 3, 255},
                                        {COLORSPACE_YUV, 4, 255}, {COLORSPACE_LAB_TABLE, 3, 255},
                                        {COLORSPACE_LAB, 3, 255}};
  LabTables t;
  for (const auto &[code, size, firstMax] : domains) {
    std::vector<uint8_t> sp(size * 65536);
    for (int f = 0; f <= firstMax && !HasFailure(); f += kOuterStep) {
      for (int i = 0; i < 65536; ++i) {
        uint8_t *p = &sp[size * i];
        if (size == 4 && code != COLORSPACE_YUV)
          Put16(p, f), p[2] = static_cast<uint8_t>(i >> 8), p[3] = static_cast<uint8_t>(i);
        else  // YUV: V is the low byte with its sign spread
          p[0] = static_cast<uint8_t>(f), p[1] = static_cast<uint8_t>(i >> 8), p[2] = static_cast<uint8_t>(i);
        if (code == COLORSPACE_YUV) p[3] = static_cast<uint8_t>(static_cast<int8_t>(i) >> 7);
      }
      AllPathsAgree(code + kInv, sp, &t.set, 0, 65536);
    }
  }
}

// Code, bound over every sampled colour, bound over those whose 32-bit
// products do not wrap.
class RoundTrip16Test : public ::testing::TestWithParam<std::array<int, 3>> {};

// Colours for which a 32-bit product of the 16-bit integer forms wraps: the
// YUV luma sum near white, the HLS hue and value products of strongly
// saturated colours.
bool Wraps(uint32_t code, int r, int g, int b) {
  if (code == COLORSPACE_YUV) return 9798LL * r + 19235LL * g + 3736LL * b > INT32_MAX;
  return code == COLORSPACE_HLS && std::max({r, g, b}) - std::min({r, g, b}) > 59652;
}

// A fixed-seed million colours (Release; 160000 in Debug) plus the cube's
// corners, 4096 a row.
TEST_P(RoundTrip16Test, DenseSample) {
  const uint32_t code = GetParam()[0];
  LabTables t;
  std::mt19937 rng(12345);
  std::vector<uint16_t> rgb(3 * kRow), back(3 * kRow);
  std::vector<uint8_t> sp(8 * kRow), ref;
  std::vector<uint16_t> refBack;
  int worst = 0, worstNoWrap = 0;
  for (int row = 0; row < (kOuterStep == 1 ? 245 : 40); ++row) {
    for (int i = 0; i < 3 * kRow; ++i) rgb[i] = static_cast<uint16_t>(rng() >> 16);
    for (int i = 0; row == 0 && i < 8; ++i)
      for (int k = 0; k < 3; ++k) rgb[3 * i + k] = (i >> k) & 1 ? 65535 : 0;
    // Every instruction set gives the reference's bits both ways.
    for (Isa isa : img::kAllIsas) {
      if (!img::IsaAvailable(isa)) continue;
      ASSERT_EQ(img::ConvertColorRow16Isa(isa, code, rgb.data(), sp.data(), &t.set, 0, kRow), RC_SUCCESS);
      ASSERT_EQ(img::ConvertColorRow16Isa(isa, code + kInv, back.data(), sp.data(), &t.set, 0, kRow),
                RC_SUCCESS);
      if (isa == Isa::Scalar) {
        ref = sp, refBack = back;
      } else {
        const auto bad = std::mismatch(sp.begin(), sp.end(), ref.begin()).first - sp.begin();
        const auto badBack = std::mismatch(back.begin(), back.end(), refBack.begin()).first - back.begin();
        ASSERT_TRUE(sp == ref && back == refBack) << code << " " << img::IsaName(isa) << " row " << row
                                                  << " space byte " << bad << " rgb sample " << badBack;
      }
    }
    for (int i = 0; i < kRow; ++i) {
      int e = 0;
      for (int k = 0; k < 3; ++k) e = std::max(e, std::abs(int(rgb[3 * i + k]) - int(back[3 * i + k])));
      worst = std::max(worst, e);
      if (!Wraps(code, rgb[3 * i + 2], rgb[3 * i + 1], rgb[3 * i])) worstNoWrap = std::max(worstNoWrap, e);
    }
  }
  EXPECT_TRUE(worst <= GetParam()[1] && worstNoWrap <= GetParam()[2])
      << code << ": " << worst << ", " << worstNoWrap;
}

// Codes 0..10; XYZ and YUV lose Z and U to clamping as in 8 bits.
const std::array<int, 3> kRoundTrips16[] = {{0, 0, 0}, {1, 21, 21},      {2, 65535, 14}, {3, 6118, 6118},
                                            {4, 4, 4}, {5, 65535, 5796}, {6, 14, 14},    {7, 0, 0},
                                            {8, 0, 0}, {9, 212, 212},    {10, 286, 286}};
INSTANTIATE_TEST_SUITE_P(Codes, RoundTrip16Test, ::testing::ValuesIn(kRoundTrips16),
                         [](const auto &info) { return "code" + std::to_string(info.param[0]); });

}  // namespace
