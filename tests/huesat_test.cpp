// Hue, hue remap and saturation exports and their per-pixel steps on the compact hue scale.
#include "HUESAT.h"

#include <functional>
#include <random>
#include <tuple>

#include "kit.h"

namespace {

using kit::Rgb;
using Pixels = std::vector<kit::Pixel>;
using namespace img::huesat;

kit::Format Kind(int32_t bits, int32_t order = ORDER_BGR) { return kit::Format{bits, order}; }
uint32_t Pack(uint32_t r, uint32_t g, uint32_t b) { return r | (g << 8) | (b << 16); }
using Op = std::function<int32_t(BitmapRecord *)>;
Op Hue(int32_t angle) {
  return [angle](BitmapRecord *b) { return Q_ChangeBitmapHue(b, angle, 0); };
}
Op Sat(int32_t change) {
  return [change](BitmapRecord *b) { return Q_ChangeBitmapSaturation(b, change, 0); };
}
Op Remap(uint32_t length, const int32_t *sel = nullptr, const int32_t *hue = nullptr,
         const int32_t *sat = nullptr, const int32_t *val = nullptr) {
  return [=](BitmapRecord *b) { return Q_RemapBitmapHue(b, sel, hue, sat, val, length, 0); };
}

// ---- Per-pixel steps, values worked out by hand from the formulas ------------------------

TEST(HueSatPixel, PackedHsvThereAndBack) {
  // r, g, b -> h, s, v -> r, g, b. Back: H = h * 360 >> 8, low = (255 - s) * v / 255, d = v - low.
  const uint32_t cases[][9] = {
      {255, 0, 0, 0, 255, 255, 255, 0, 0},        // min is B (ties go to B): (0 + 180) / 360
      {0, 255, 0, 85, 255, 255, 2, 255, 0},       // (30720 + 180) / 360; back D 119: R = 255 / 119
      {0, 0, 255, 171, 255, 255, 0, 0, 255},      // min is R: (30720 + 30900) / 360; D 240
      {255, 128, 0, 29, 255, 255, 255, 127, 0},   // (128 * 30720 / 383 + 180) / 360; D 40: G = 255 * 40 / 80
      {100, 100, 100, 0, 0, 100, 100, 100, 100},  // gray
      // (50 * 30720 / 200 + 180) / 360 = 21, 150 * 255 / 200 = 191; D 29, low 50: G = 150 * 29 / 91 + 50.
      {200, 100, 50, 21, 191, 200, 200, 97, 50},
      {255, 0, 1, 0, 255, 255, 255, 0, 0},  // min is G: 92220 / 360 = 256 wraps to 0
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << c[0] << "," << c[1] << "," << c[2]);
    EXPECT_EQ(RgbToHsv8(c[0], c[1], c[2]), Pack(c[3], c[4], c[5]));
    EXPECT_EQ(HsvToRgb8(Pack(c[3], c[4], c[5])), Pack(c[6], c[7], c[8]));
  }
  // D = 60, low = 127 * 200 / 255 = 99, d = 101: G = 101 * 60 / 60 + 99.
  EXPECT_EQ(HsvToRgb8(Pack(43, 128, 200)), Pack(200, 200, 99));
}

TEST(HueSatPixel, Steps) {
  // angle * 256 / 360 toward zero; 0x01000000 * 256 wraps to 0 in 32 bits.
  const int32_t hues[][2] = {{0, 0},     {1, 0},       {-1, 0},   {2, 1},      {-2, -1},
                             {360, 256}, {-360, -256}, {120, 85}, {-120, -85}, {0x01000000, 0}};
  for (auto [angle, step] : hues) EXPECT_EQ(HueStep(angle), step) << angle;
  // (change * 255 + 500) / 1000 toward zero.
  const int32_t saturations[][2] = {{1000, 255}, {-1000, -254}, {0, 0}, {-1, 0}, {-3, 0}};
  for (auto [change, step] : saturations) EXPECT_EQ(SaturationStep(change), step) << change;
  // 16 bits: hue past the last sector caps at 65535 (min G, R - min = R + B - 2 min - 1).
  EXPECT_EQ(RgbToHsv16(65535, 0, 1).h, 65535);
}

TEST(HueSatPixel, Saturation) {
  const int32_t cases[][8] = {
      // bits, r, g, b, step, expected r, g, b
      // L 150, S = 100*255/210 = 121, S' = 121 + 120 = 241; m2 = 391 - 141 = 250, m1 = 50.
      {8, 200, 100, 100, 255, 250, 50, 50},
      // L 127, S 255 -> 1; m2 = 256 * 127 / 255 = 127: gray by the truncation.
      {8, 255, 0, 0, -254, 127, 127, 127},
      // L 130, S 244 -> 1; m2 = 131, m1 = 129: saturation 1 keeps a tint.
      {8, 250, 10, 10, -254, 131, 129, 129},
      {8, 90, 90, 90, 255, 90, 90, 90},
      // Hue -21 gets 255 added (234, not 235): B = v(149) = 100 + 100 * 21 * 6 / 255 = 149.
      {8, 200, 100, 150, 0, 200, 100, 149},
      // L 32767, S 65535, hue 0: S' = 65535 + floor(-16645890 / 256) = 511 (the step is on a
      // 256 scale); m2 = 66046 * 32767 / 65535 = 33022, m1 = 65534 - 33022 = 32512.
      {16, 65535, 0, 0, -254, 33022, 32512, 32512},
  };
  for (auto [bits, r0, g0, b0, step, er, eg, eb] : cases) {
    int32_t r = r0, g = g0, b = b0;
    (bits == 8 ? ChangeSaturation8 : ChangeSaturation16)(r, g, b, step);
    EXPECT_EQ(std::vector<int32_t>({r, g, b}), std::vector<int32_t>({er, eg, eb})) << r0 << "," << g0;
  }
}

// ---- The loops of each instruction set against the scalar step ------------------------------

using Row8 = void (*)(img::Isa, uint8_t *, int32_t, int32_t, int32_t, int32_t);
using Row16 = void (*)(img::Isa, uint16_t *, int32_t, int32_t, int32_t, int32_t);
struct RowCase {
  const char *name;
  Row8 row;
  Row16 row16;
  int32_t step;
  bool everyColour;  // also over every 8-bit colour (the others on random rows only)
};
// Hue steps: none, 120 degrees, back 60, the largest wrap; saturation steps:
// the extremes (the second leaves saturation 1 at most), a small rise and fall.
const RowCase kRowCases[] = {
    {"hue", HueRow8, HueRow16, 0, false},
    {"hue", HueRow8, HueRow16, 85, true},
    {"hue", HueRow8, HueRow16, -42, true},
    {"hue", HueRow8, HueRow16, -5965232, false},
    {"saturation", SaturationRow8, SaturationRow16, 255, true},
    {"saturation", SaturationRow8, SaturationRow16, -254, false},
    {"saturation", SaturationRow8, SaturationRow16, 77, false},
    {"saturation", SaturationRow8, SaturationRow16, -77, true},
};

// Debug builds take every seventh colour.
#ifdef NDEBUG
constexpr uint32_t kColourStep = 1;
#else
constexpr uint32_t kColourStep = 7;
#endif

// Every 8-bit colour in one three-sample row; the sets with loops of their own
// (below AVX2 the row is the scalar step) must give the scalar bits.
TEST(HueSatRows, EveryColourThroughEachSet) {
  std::vector<uint8_t> colours;
  for (uint32_t c = 0; c < (1u << 24); c += kColourStep)
    colours.insert(colours.end(),
                   {static_cast<uint8_t>(c), static_cast<uint8_t>(c >> 8), static_cast<uint8_t>(c >> 16)});
  const auto count = static_cast<int32_t>(colours.size() / 3);
  for (const RowCase &c : kRowCases) {
    if (!c.everyColour) continue;
    std::vector<uint8_t> ref = colours;
    c.row(img::Isa::Scalar, ref.data(), 3, 0, count, c.step);
    for (img::Isa isa : {img::Isa::Avx2, img::Isa::Avx512}) {
      if (!img::IsaAvailable(isa)) continue;
      std::vector<uint8_t> out = colours;
      c.row(isa, out.data(), 3, 0, count, c.step);
      const auto bad = std::mismatch(out.begin(), out.end(), ref.begin());
      ASSERT_TRUE(bad.first == out.end()) << c.name << " " << c.step << " " << img::IsaName(isa)
                                          << " colour at " << (bad.first - out.begin()) / 3;
    }
  }
}

// Random rows of three and four samples, random spans (the loops' tails and
// the fourth sample), every available set.
template <class T>
void RandomSpans(const RowCase &c, void (*row)(img::Isa, T *, int32_t, int32_t, int32_t, int32_t)) {
  std::mt19937 rng(11);
  for (int32_t channels : {3, 4})
    for (int trial = 0; trial < 20; ++trial) {
      std::vector<T> in(static_cast<size_t>(channels) * 70);
      for (T &v : in) v = static_cast<T>(rng());
      const auto left = static_cast<int32_t>(rng() % 20), right = left + static_cast<int32_t>(rng() % 51);
      std::vector<T> ref = in;
      row(img::Isa::Scalar, ref.data(), channels, left, right, c.step);
      for (img::Isa isa : img::kAllIsas) {
        if (!img::IsaAvailable(isa)) continue;
        std::vector<T> out = in;
        row(isa, out.data(), channels, left, right, c.step);
        ASSERT_EQ(out, ref) << c.name << " " << c.step << " " << img::IsaName(isa) << " " << channels << " "
                            << left << ".." << right;
      }
    }
}

TEST(HueSatRows, RandomSpansEverySet) {
  for (const RowCase &c : kRowCases) {
    RandomSpans<uint8_t>(c, c.row);
    RandomSpans<uint16_t>(c, c.row16);
  }
}

// 16-bit colours: every triple of 40 values (extremes, near ties, random) and
// 2^18 random colours, every available set against the scalar step.
TEST(HueSatRows, SixteenBitColoursEverySet) {
  std::mt19937 rng(5);
  std::vector<uint16_t> pool = {0, 1, 2, 255, 256, 257, 32766, 32767, 32768, 32769, 65533, 65534, 65535};
  while (pool.size() < 40) pool.push_back(static_cast<uint16_t>(rng()));
  std::vector<uint16_t> colours;
  for (uint16_t r : pool)
    for (uint16_t g : pool)
      for (uint16_t b : pool) colours.insert(colours.end(), {b, g, r});
  for (int i = 0; i < (1 << 18) * 3; ++i) colours.push_back(static_cast<uint16_t>(rng()));
  const auto count = static_cast<int32_t>(colours.size() / 3);
  for (const RowCase &c : kRowCases) {
    std::vector<uint16_t> ref = colours;
    c.row16(img::Isa::Scalar, ref.data(), 3, 0, count, c.step);
    for (img::Isa isa : {img::Isa::Avx2, img::Isa::Avx512}) {
      if (!img::IsaAvailable(isa)) continue;
      std::vector<uint16_t> out = colours;
      c.row16(isa, out.data(), 3, 0, count, c.step);
      const auto bad = std::mismatch(out.begin(), out.end(), ref.begin());
      ASSERT_TRUE(bad.first == out.end()) << c.name << " " << c.step << " " << img::IsaName(isa)
                                          << " colour at " << (bad.first - out.begin()) / 3;
    }
  }
}

// The exports on random bitmaps, with and without a region: each changed pixel
// is the scalar step's result, the others stay.
TEST(HueSatRows, ExportsMatchTheScalarStep) {
  const std::tuple<Op, Row8, Row16, int32_t> ops[] = {
      {Hue(200), HueRow8, HueRow16, HueStep(200)},
      {Sat(-450), SaturationRow8, SaturationRow16, SaturationStep(-450)}};
  for (const kit::Format &format : {Kind(24), Kind(24, ORDER_RGB), Kind(32), Kind(48), Kind(64, ORDER_RGB)})
    for (bool region : {false, true})
      for (const auto &[op, row, row16, step] : ops) {
        SCOPED_TRACE(format.Name() + (region ? " region" : ""));
        kit::Bitmap bmp(format, 37, 9);
        bmp.Randomize(3);
        if (region) kit::SetEllipseRegion(bmp, 3, 1, 30, 8);
        const auto before = bmp.Pixels();
        ASSERT_EQ(op(bmp), RC_SUCCESS);
        for (int32_t i = 0, x = 0, y = 0; i < 37 * 9; ++i, x = i % 37, y = i / 37) {
          kit::Pixel want = before[i];
          if (kit::InRegion(bmp, x, y)) {
            uint16_t bgr[3] = {static_cast<uint16_t>(want.v[2]), static_cast<uint16_t>(want.v[1]),
                               static_cast<uint16_t>(want.v[0])};
            if (format.bits <= 32) {
              uint8_t narrow[3] = {static_cast<uint8_t>(bgr[0]), static_cast<uint8_t>(bgr[1]),
                                   static_cast<uint8_t>(bgr[2])};
              row(img::Isa::Scalar, narrow, 3, 0, 1, step);
              std::copy(narrow, narrow + 3, bgr);
            } else {
              row16(img::Isa::Scalar, bgr, 3, 0, 1, step);
            }
            want.v[0] = bgr[2], want.v[1] = bgr[1], want.v[2] = bgr[0];
          }
          ASSERT_EQ(bmp.At(x, y), want) << x << "," << y;
        }
      }
}

TEST(HueSatExports, ChecksInOrder) {
  kit::Bitmap bmp(Kind(24), 4, 2), old(kit::Format{24, ORDER_BGR, ORIENT_TOP_FIRST, 176}, 2, 2);
  kit::Bitmap big(Kind(24), 2, 2), zero(Kind(24), 2, 2), gray32(Kind(32, ORDER_GRAY), 2, 2);
  kit::Bitmap signedBmp(Kind(24), 2, 2);
  big->StructSize = 200;
  zero->StructSize = 0;
  gray32->Flags |= BITMAP_SIGNED;  // -1364 comes before -1360
  signedBmp->Flags |= BITMAP_SIGNED;
  BitmapRecord unallocated{};  // size 0 too: -2 comes before the size check
  const int32_t table[256] = {};
  kit::ExpectStatuses({
      {"hue flags before null", [] { return Q_ChangeBitmapHue(nullptr, 0, 1); }, RC_INVALID_PARAMETER},
      {"hue null", [] { return Q_ChangeBitmapHue(nullptr, 10, 0); }, RC_NO_BITMAP},
      {"hue unallocated", [&] { return Q_ChangeBitmapHue(&unallocated, 10, 0); }, RC_NO_BITMAP},
      {"hue size 200", [&] { return Q_ChangeBitmapHue(big, 10, 0); }, RC_INVALID_STRUCT_SIZE},
      {"hue size 0", [&] { return Q_ChangeBitmapHue(zero, 10, 0); }, RC_INVALID_STRUCT_SIZE},
      {"hue size 176", [&] { return Q_ChangeBitmapHue(old, 10, 0); }, RC_SUCCESS},
      {"hue gray32", [&] { return Q_ChangeBitmapHue(gray32, 10, 0); }, RC_GRAY32_NOT_SUPPORTED},
      {"hue signed", [&] { return Q_ChangeBitmapHue(signedBmp, 10, 0); }, RC_SIGNED_DATA_NOT_SUPPORTED},
      {"hue any angle", [&] { return Q_ChangeBitmapHue(bmp, INT32_MIN, 0); }, RC_SUCCESS},
      {"sat flags", [] { return Q_ChangeBitmapSaturation(nullptr, 5000, 2); }, RC_INVALID_PARAMETER},
      {"sat null", [] { return Q_ChangeBitmapSaturation(nullptr, 5000, 0); }, RC_NO_BITMAP},
      {"sat signed before range", [&] { return Sat(1001)(signedBmp); }, RC_SIGNED_DATA_NOT_SUPPORTED},
      {"sat 1001", [&] { return Q_ChangeBitmapSaturation(bmp, 1001, 0); }, RC_INVALID_PARAMETER},
      {"sat -1001", [&] { return Q_ChangeBitmapSaturation(bmp, -1001, 0); }, RC_INVALID_PARAMETER},
      {"remap flags", [&] { return Q_RemapBitmapHue(nullptr, table, 0, 0, 0, 256, 1); },
       RC_INVALID_PARAMETER},
      {"remap unallocated", [&] { return Remap(256)(&unallocated); }, RC_NO_BITMAP},
      {"remap gray32", [&] { return Remap(0)(gray32); }, RC_GRAY32_NOT_SUPPORTED},
      {"remap short table", [&] { return Remap(255, table)(bmp); }, RC_INVALID_PARAMETER},
      {"remap 256", [&] { return Remap(256, table)(bmp); }, RC_SUCCESS},
  });
  big->StructSize = zero->StructSize = BITMAP_RECORD_SIZE;
}

TEST(HueSatExports, GrayAndRefusedCallsLeavePixels) {
  for (const kit::Format &format :
       {Kind(8, ORDER_GRAY), Kind(12, ORDER_GRAY), Kind(16, ORDER_GRAY), Kind(24), Kind(48)}) {
    SCOPED_TRACE(format.Name());
    const uint32_t top = format.SampleMax();
    Pixels in;
    for (uint32_t v : {0u, 1u, top / 3, top / 2, top - 1, top})
      in.push_back(format.IsGray() ? kit::Level(v) : Rgb(v, v, v));
    kit::Bitmap bmp(format, 6, 1, in);
    // 8-bit gray goes through its palette; without palette entries
    // (ColorsUsed 0) there is none to read: -2.
    const int32_t want = bmp->BitsPerPixel < 9 && bmp->ColorsUsed == 0 ? RC_NO_BITMAP : RC_SUCCESS;
    for (const Op &op : {Hue(77), Sat(1000), Sat(-700), Remap(65536)}) EXPECT_EQ(op(bmp), want);
    EXPECT_EQ(bmp.Pixels(), in);
    EXPECT_EQ(bmp->ColorOrder, format.order);
    EXPECT_TRUE(format.bits != 8 || kit::HasGrayRamp(bmp)) << "8-bit gray: its ramp is the palette path";
  }
  // 16-bit rows need remap tables of 4096 or at least 65536 entries; 8-bit rows only 256.
  kit::Bitmap bmp(Kind(48), 3, 3);
  bmp.Randomize(7);
  const auto before = bmp.Pixels();
  EXPECT_EQ(Q_ChangeBitmapSaturation(bmp, 1001, 0), RC_INVALID_PARAMETER);
  for (uint32_t length : {100u, 256u, 4095u, 4097u, 65535u})
    EXPECT_EQ(Remap(length)(bmp), RC_INVALID_PARAMETER) << length;
  EXPECT_EQ(bmp.Pixels(), before);
  kit::Bitmap narrow(Kind(24), 1, 1, {Rgb(255, 0, 0)});
  EXPECT_EQ(Remap(257)(narrow), RC_SUCCESS);
}

// Rows of every kind, worked out with the pixel steps above. 8-bit rows: steps of 0
// still convert there and back (green comes back as (2, 255, 0)). Step 85: red to 85
// (2, 255, 0); green to 170 (D 239: G = 1 * 255 / 119 = 2); blue to 256, which wraps to 0
// (red). Step -85: red to 171 (D 240: blue), green to 0, blue to 86 (D 120: green).
// Saturation +1000 (step 255): (200, 100, 100) -> (250, 50, 50); repeated pixels go
// through the neighbour cache. 16-bit rows: red has hue 128; 120 degrees is step 85,
// 85 * 257 = 21845. Hue 21973: Hs = 30899 (> 30840): R = low = 0, G = 65535,
// B = 59 * 65535 / 30781 = 125. 5-bit samples are widened to 8 bits (v << 3 | v >> 2):
// red 31 reads as 255 and turns to blue. Remap with selected hues: red to (85, 255, 128):
// D 119, low 0, R = 1 * 128 / 119 = 1; blue (hue 171) is not selected; gray has hue 0 and
// saturation 0: (85, sat[0] = 255, 100) -> R = 100 / 119 = 0. Remap with 4096 entries:
// indexes shifted right by 4, values left by 4: red (128, 65535, 65535) -> (128, 65520,
// 65520): low = 65520 * 15 / 65535 = 14, G = 65506 * 180 / 30660 + 14 = 398. Remap on
// 64-bit rows: sample 0 (blue) is read as gray and only sample 0 is written, blue last;
// with full saturation for hue 0, (0, 65535, 3000) is pure red: the blue write (0) wins.
TEST(HueSatExports, EveryRowKind) {
  std::vector<int32_t> sel(256, 0), hue(256), sat(256), val(256), full(65536, 65535);
  for (int i = 0; i < 256; ++i) hue[i] = i, sat[i] = i, val[i] = i;
  sel[0] = 1, hue[0] = 85, sat[0] = 255, val[255] = 128;  // red to green, gray saturated, full value halved
  const std::vector<kit::Format> k8 = {Kind(24), Kind(24, ORDER_RGB), Kind(32), Kind(32, ORDER_RGB)};
  const std::vector<kit::Format> k16 = {Kind(48), Kind(48, ORDER_RGB), Kind(64)};
  const kit::Pixel r8 = Rgb(255, 0, 0), g8 = Rgb(0, 255, 0), b8 = Rgb(0, 0, 255), gray = Rgb(77, 77, 77);
  const kit::Pixel r16 = Rgb(65535, 0, 0), gray16 = Rgb(30000, 30000, 30000), g2 = Rgb(2, 255, 0);
  const kit::Pixel a = Rgb(200, 100, 100), sa = Rgb(250, 50, 50);
  const Pixels rgbw = {r8, g8, b8, gray}, same = {r8, g2, b8, gray};
  const Op selected = Remap(256, sel.data(), hue.data(), sat.data(), val.data());
  const Op saturated = Remap(65536, nullptr, nullptr, full.data());
  const std::tuple<std::vector<kit::Format>, Op, Pixels, Pixels> cases[] = {
      {k8, Hue(0), rgbw, same},
      {k8, Hue(-1), rgbw, same},
      {k8, Hue(360), rgbw, same},
      {k8, Hue(120), rgbw, {g2, Rgb(0, 2, 255), r8, gray}},
      {k8, Hue(-120), rgbw, {b8, r8, g8, gray}},
      {k8, Sat(1000), {a, a, gray, a}, {sa, sa, gray, sa}},
      {k16, Hue(0), {r16, gray16}, {Rgb(65535, 384, 0), gray16}},
      {k16, Hue(120), {r16, gray16}, {Rgb(0, 65535, 125), gray16}},
      {{Kind(48)}, Sat(-1000), {r16}, {Rgb(33022, 32512, 32512)}},
      {{Kind(16)}, Hue(-120), {Rgb(31, 0, 0), Rgb(10, 10, 10)}, {Rgb(0, 0, 31), Rgb(10, 10, 10)}},
      {{Kind(24)}, Remap(256), {r8, g8, Rgb(200, 100, 50), gray}, {r8, g2, Rgb(200, 97, 50), gray}},
      {{Kind(24)}, selected, {r8, b8, Rgb(100, 100, 100)}, {Rgb(1, 128, 0), b8, Rgb(0, 100, 0)}},
      {{Kind(48)}, Remap(4096), {r16}, {Rgb(65520, 398, 14)}},
      {{Kind(48)}, Remap(65536), {r16}, {Rgb(65535, 384, 0)}},
      {{Kind(48)}, Remap(0xFFFFFFFFu), {r16}, {Rgb(65535, 384, 0)}},  // null tables: 65536 entries made
      {{Kind(64), Kind(64, ORDER_RGB)}, saturated, {Rgb(1000, 2000, 3000)}, {Rgb(1000, 2000, 0)}},
  };
  for (const auto &[formats, op, in, out] : cases)
    for (const kit::Format &format : formats) {
      SCOPED_TRACE(format.Name() + " " + testing::PrintToString(in));
      const auto fourth = [&](Pixels p) {  // the fourth sample is kept
        for (kit::Pixel &x : p) x.v[3] = format.Channels() == 4 ? 77 : 0;
        return p;
      };
      kit::Bitmap bmp(format, static_cast<int32_t>(in.size()), 1, fourth(in));
      ASSERT_EQ(op(bmp), RC_SUCCESS);
      EXPECT_EQ(bmp.Pixels(), fourth(out));
    }
}

std::vector<PaletteEntry> ColourPalette() {  // red, green, gray, then mixed colours
  std::vector<PaletteEntry> pal{{0, 0, 255, 0}, {0, 255, 0, 0}, {90, 90, 90, 0}};
  for (int i = 3; i < 16; ++i)
    pal.push_back({static_cast<uint8_t>(i * 16), 40, static_cast<uint8_t>(255 - i), 0});
  return pal;
}

TEST(HueSatExports, PaletteEntriesGoLikeRowPixels) {
  auto pal = ColourPalette();
  Pixels colours, indices;
  for (uint32_t i = 0; i < 16; ++i) {
    colours.push_back(Rgb(pal[i].Red, pal[i].Green, pal[i].Blue));
    indices.push_back(kit::Level(15 - i));
  }
  for (const Op &op : {Hue(120), Sat(-300), Remap(256)}) {
    kit::Bitmap rows(Kind(24), 16, 1, colours), bmp(Kind(4), 16, 1, indices, pal.data());
    const auto stored = bmp.StoredBytes();
    ASSERT_EQ(op(rows), RC_SUCCESS);
    ASSERT_EQ(op(bmp), RC_SUCCESS);
    EXPECT_EQ(bmp.StoredBytes(), stored);  // the entries change, not the pixels
    for (int32_t x = 0; x < 16; ++x) EXPECT_EQ(bmp.ColorAt(x, 0), rows.At(15 - x, 0)) << x;
  }
  // Without the palette flag the pixels are gray levels and go by rows, unchanged.
  pal.resize(256, PaletteEntry{1, 2, 3, 0});  // an 8-bit palette has 256 entries
  kit::Bitmap bmp(Kind(8), 3, 1, {kit::Level(0), kit::Level(1), kit::Level(200)}, pal.data());
  bmp->PaletteFlag = PALETTE_FLAG_NONE;
  const auto stored = bmp.StoredBytes();
  ASSERT_EQ(Q_ChangeBitmapHue(bmp, 120, 0), RC_SUCCESS);
  EXPECT_EQ(bmp.StoredBytes(), stored);
  EXPECT_EQ(bmp->Palette[0].Red, 255);  // the palette is not the path
  bmp->PaletteFlag = 0;
  // 8-bit gray goes by its ramp: a remap that colours it makes it an 8-bit palette bitmap
  // (ORDER_BGR) whose pixels, unchanged, index the new colours.
  std::vector<int32_t> fullSaturation(256, 255);
  Pixels levels, grays;
  for (uint32_t v : {0u, 100u, 255u}) levels.push_back(kit::Level(v)), grays.push_back(Rgb(v, v, v));
  kit::Bitmap gray(Kind(8, ORDER_GRAY), 3, 1, levels), rows(Kind(24), 3, 1, grays);
  const Op colour = Remap(256, nullptr, nullptr, fullSaturation.data());
  ASSERT_EQ(colour(gray) * 10 + colour(rows), 11);
  EXPECT_EQ(gray->ColorOrder, ORDER_BGR);
  EXPECT_EQ(gray.Pixels(), levels);
  for (int32_t x = 0; x < 3; ++x) EXPECT_EQ(gray.ColorAt(x, 0), rows.At(x, 0)) << x;
  EXPECT_NE(rows.At(1, 0), grays[1]);
}

TEST(HueSatExports, ProgressAndBrokenPalettes) {
  auto pal = ColourPalette();
  const auto setup = [&] { return kit::Bitmap(Kind(4), 2, 2, pal.data()); };
  kit::Bitmap bmp = setup();
  {
    kit::ScopedCallback cb([](int32_t) { return RC_SUCCESS; });
    ASSERT_EQ(Q_ChangeBitmapSaturation(bmp, 500, 0), RC_SUCCESS);
    EXPECT_EQ(cb.Reports(), (std::vector<int32_t>{0, 100}));
  }
  // A refusal at 0 leaves the palette untouched; at 100 the answer is the result.
  EXPECT_EQ(kit::CheckCancellation(setup, [](kit::Bitmap &b) { return Q_ChangeBitmapHue(b, 90, 0); }), 2);
  {
    kit::Bitmap b = setup();
    kit::ScopedCallback cb([](int32_t p) { return p == 0 ? kit::kCancel : RC_SUCCESS; });
    EXPECT_EQ(Q_ChangeBitmapHue(b, 90, 0), kit::kCancel);
    EXPECT_EQ(b.ColorAt(0, 0), Rgb(255, 0, 0));
    // Rows report nothing.
    kit::Bitmap rows(Kind(24), 4, 4);
    EXPECT_EQ(Q_ChangeBitmapHue(rows, 50, 0), RC_SUCCESS);
    EXPECT_EQ(cb.Reports(), std::vector<int32_t>{0});
  }
}

TEST(HueSatExports, EllipseRegionLimitsTheChange) {
  for (const kit::Format &format : {Kind(24), Kind(48), Kind(32)}) {
    SCOPED_TRACE(format.Name());
    kit::Bitmap bmp(format, 20, 12), whole(format, 20, 12);
    bmp.Randomize(5);
    whole.Randomize(5);
    kit::SetEllipseRegion(bmp, 2, 1, 17, 11);
    const auto before = bmp.Pixels();
    ASSERT_EQ(Q_ChangeBitmapHue(bmp, -120, 0), RC_SUCCESS);
    ASSERT_EQ(Q_ChangeBitmapHue(whole, -120, 0), RC_SUCCESS);
    EXPECT_NE(bmp.Pixels(), before);
    for (int32_t i = 0, x = 0, y = 0; i < 20 * 12; ++i, x = i % 20, y = i / 20)
      EXPECT_EQ(bmp.At(x, y), kit::InRegion(bmp, x, y) ? whole.At(x, y) : before[i]) << x << "," << y;
  }
}

TEST(HueSatExports, AllocationFailures) {
  const auto rows = [](kit::Format format) {
    return [format] {
      kit::Bitmap b(format, 9, 7);
      b.Randomize(1);
      kit::SetEllipseRegion(b, 1, 1, 8, 6);
      return b;
    };
  };
  auto pal = ColourPalette();
  const auto palette = [&] { return kit::Bitmap(Kind(4), 3, 3, pal.data()); };
  for (const Op &op : {Hue(33), Sat(-300)}) EXPECT_GT(kit::CheckAllocationFailures(rows(Kind(24)), op), 0);
  EXPECT_GT(kit::CheckAllocationFailures(rows(Kind(24)), Remap(256)), 2);
  EXPECT_GT(kit::CheckAllocationFailures(rows(Kind(48)), Remap(4096)), 2);
  // The palette sits on the stack: the converter is the palette path's only
  // allocation, beside the remap's two internal tables.
  EXPECT_EQ(kit::CheckAllocationFailures(palette, Hue(33)), 1);
  EXPECT_EQ(kit::CheckAllocationFailures(palette, Remap(256)), 3);
  EXPECT_EQ(kit::CheckAllocationFailures(palette, Remap(0xFFFFFFFFu)), 3);
}

}  // namespace
