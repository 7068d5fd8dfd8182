// Lookup-table point operations: the table builders entry by entry, then the exports on every
// kind of bitmap, regions, signed data, attached tables, cancellation and allocation failures.
#include "Lut_clr.h"

#include <algorithm>
#include <functional>
#include <set>
#include <string>
#include <tuple>

#include "kit.h"
#include "imgplatform.h"

namespace {

using kit::Bitmap, kit::Format, kit::Level, kit::Pixel, kit::Rgb;
const int32_t G = ORDER_GRAY, B = ORDER_BGR, kBad = RC_INVALID_PARAMETER, kNo32 = RC_GRAY32_NOT_SUPPORTED;

TEST(LutBuilders, LengthFollowsKindAndSignificantBits) {
  const int32_t cases[][5] = {// bits, order, low bit, high bit, length
                              {12, G, 0, 11, 4096}, {12, G, 0, -1, 4096}, {16, G, 0, -1, 65536},
                              {16, G, 2, 9, 256},   {8, G, 0, -1, 256},   {16, G, 9, 2, 0},
                              {4, B, 0, -1, 256},   {16, B, 0, -1, 256},  {48, B, 0, -1, 65536}};
  int32_t attached[3] = {};
  for (auto [bits, order, low, high, length] : cases) {
    BitmapRecord r{};
    r.StructSize = BITMAP_RECORD_SIZE, r.BitsPerPixel = bits, r.ColorOrder = order;
    r.SignificantLowBit = low, r.SignificantHighBit = high, r.AttachedLut = attached, r.AttachedLutLength = 3;
    EXPECT_EQ(img::LutLengthOf(&r), static_cast<uint32_t>(length)) << bits << "/" << order;
    r.Flags = BITMAP_USE_ATTACHED_LUT;  // an attached table holds sample values: the same length
    EXPECT_EQ(img::LutLengthOf(&r), static_cast<uint32_t>(length)) << bits;
  }
  const int32_t shifts[][2] = {{256, 8}, {4096, 4}, {65536, 0}, {1024, -1}};
  for (auto [length, shift] : shifts) EXPECT_EQ(img::LutShiftOf(length), shift) << length;
}

// Contrast a = 1000: low = 128000 / 4000 = 32; g = 1.5^7 * 5.34 = 91.2 -> high = 165; the
// ramp runs from low towards L (not L - 1) at high; -a maps 0..L onto low..high. Stretch
// 50..200: 0 up to 50, a ramp to 128 at the centre 125, on to 255 at 200. Histogram
// contrast over the full span behaves like contrast (A 32, B 165, the ramp to L - 1); one
// value at 100: f 100 -> 99 by the widening, A 0, B 256; all zero: l grows twice to 2,
// MulDiv by 0 gives -1, so A = 1, B = 128; 16 bits: A = 256 * 32, B = ceil(165 * 65536 / 256).
TEST(LutBuilders, Entries) {
  std::vector<int32_t> t;
  const auto table = [&t](uint32_t length) { return t.assign(length, 0), t.data(); };
  const auto expect = [&t](const char *name, const std::vector<std::pair<int32_t, int32_t>> &entries) {
    for (auto [index, value] : entries) EXPECT_EQ(t[index], value) << name << " entry " << index;
  };
  img::BuildSolarizeLut(table(256), 256, 0, 0xFF);
  expect("solarize 0", {{0, 255}, {1, 254}, {200, 55}, {255, 0}});
  img::BuildSolarizeLut(table(256), 256, 256, 0xFF);
  expect("solarize 256", {{0, 0}, {200, 200}, {255, 255}});
  img::BuildContrastLut(table(256), 256, 1000);
  expect("contrast 1000", {{31, 0}, {32, 0}, {164, 256 * 132 / 133}, {165, 255}});
  img::BuildContrastLut(table(256), 256, -1000);
  expect("contrast -1000", {{0, 32}, {255, 32 + 133 * 255 / 256}});
  img::BuildContrastLut(table(4096), 4096, 1000);
  expect("contrast 12-bit", {{511, 0}, {2639, 4096 * (2639 - 512) / (2640 - 512)}, {2640, 4095}});
  img::BuildPosterizeLut(table(256), 256, 2);  // (i + 128) / 255 decides: 127 is the first bright value
  expect("posterize 2", {{126, 0}, {127, 255}});
  img::BuildMultiplyLut(table(256), 256, 150);
  expect("multiply", {{101, 151}, {170, 255}});
  img::BuildMultiplyLut(table(256), 256, 0x80000000u);    // 2^31 / 100 is far above the limit
  expect("multiply 2^31", {{1, 255}, {2, 0}, {3, 255}});  // 2 * 2^31 wraps to 0
  ASSERT_TRUE(img::BuildStretchLut(table(256), 256, 50, 200));
  expect("stretch", {{0, 0}, {49, 0}, {50, 0}, {125, 126}, {126, 128}, {163, 190}, {199, 251}, {200, 255}});
  // Two neighbouring values: the ramp to the centre ends at 90, the last segment overwrites 91.
  ASSERT_TRUE(img::BuildStretchLut(table(256), 256, 90, 91));
  expect("stretch 90, 91", {{89, 0}, {90, 0}, {91, 255}});
  EXPECT_FALSE(img::BuildStretchLut(table(256), 256, 90, 90));
  EXPECT_EQ(t, std::vector<int32_t>(256, 0));
  img::BuildHistoContrastLut(table(256), 256, 0, 255, -1000);
  expect("histo full -", {{0, 32}, {255, 32 + 133 * 255 / 256}});
  img::BuildHistoContrastLut(table(256), 256, 100, 100, 1000);
  expect("histo one", {{100, 99}, {255, 254}});
  img::BuildHistoContrastLut(table(256), 256, 0, 0, 1000);
  expect("histo zero", {{1, 0}, {2, 255 / 127}, {128, 255}});
  img::BuildHistoContrastLut(table(65536), 65536, 0, 65535, 1000);
  expect("histo 16-bit",
         {{8191, 0}, {42239, int32_t(65535LL * (42239 - 8192) / (42240 - 8192))}, {42240, 65535}});
  // Centred values c = i - 127 clamped to -127..126, stored at c or 255 + c: position 128
  // is written by c = -127 and then by c = 128 (126), the later wins; 255 is never written.
  img::BuildSignedMathLogicLut(table(256), 256, 0, 0x300);
  expect("signed add", {{0, 0}, {5, 5}, {127, 126}, {128, 126}, {200, 200}, {254, 254}, {255, 0}});
  img::BuildSignedMathLogicLut(table(256), 256, 0, 0x1300);
  expect("signed inverted", {{5, 250}, {200, 255 + 55}});
  // The 8-bit constant of 0x900 also at 12 bits; 0x3000 takes the low byte of max.
  img::BuildMathLogicLut(table(4096), 4096, 4000, 0x900);
  expect("0x900 12-bit", {{0, 255}});
  img::BuildMathLogicLut(table(1000), 1000, 0, 0x3000);
  expect("0x3000", {{999, static_cast<int32_t>(0xE7E7E7E7u)}});
  // a = 1: low rounds 0.032 to 0; g = 1.5^log2(0.128) * 5.34 = 1.6 -> high 255.
  EXPECT_EQ(std::pair(img::ContrastLimits(1).low, img::ContrastLimits(1).high), std::pair(0, 255));
  // No sample gives first 255, last 0; samples at the top only, 255 and 255;
  // at 0 only, 0 and 0.
  img::HistogramSpan span = img::OccupiedSpan(-1, -1, 256);
  EXPECT_EQ(std::pair(span.first, span.last), std::pair(255u, 0u));
  span = img::OccupiedSpan(255, 255, 256);
  EXPECT_EQ(std::pair(span.first, span.last), std::pair(255u, 255u));
  span = img::OccupiedSpan(0, 0, 256);
  EXPECT_EQ(std::pair(span.first, span.last), std::pair(0u, 0u));
  // Posterize gives exactly the levels, from 0 to L - 1.
  for (uint32_t length : {256u, 4096u, 65536u})
    for (uint32_t levels : {2u, 5u, 64u}) {
      img::BuildPosterizeLut(table(length), length, levels);
      EXPECT_EQ(std::set<int32_t>(t.begin(), t.end()).size(), levels) << length << "/" << levels;
      EXPECT_TRUE(t.front() == 0 && t.back() == int32_t(length - 1) && std::is_sorted(t.begin(), t.end()));
    }
}

TEST(LutBuilders, MathLogic) {
  // value, operation, length, signed, status: fields checked channel, input, operation,
  // output, then the value against L (not L - 1).
  const int32_t checks[][5] = {
      {0, 0x4, 256, 0, kBad},      {0, 0x40, 256, 0, kBad},   {0, 0xD00, 256, 0, kBad},
      {0, 0x4000, 256, 0, kBad},   {0, 0x800, 256, 0, kBad},  {256, 0x000, 256, 0, 0},
      {257, 0x000, 256, 0, kBad},  {-1, 0x300, 256, 0, kBad}, {512, 0x400, 256, 0, 0},
      {513, 0x600, 256, 0, kBad},  {25600, 0x700, 256, 0, 0}, {25601, 0x800, 256, 0, kBad},
      {65536, 0xC00, 65536, 0, 0}, {-128, 0x100, 256, 1, 0},  {128, 0x100, 256, 1, kBad},
      {-256, 0x300, 256, 1, 0},    {255, 0x300, 256, 1, 0},   {256, 0x300, 256, 1, kBad},
      {255, 0xA00, 256, 1, kBad},  {-12800, 0x800, 256, 1, 0}};
  for (auto [value, op, length, isSigned, status] : checks)
    EXPECT_EQ(img::CheckMathLogic(value, op, length, isSigned), status) << value << " 0x" << std::hex << op;
  const int32_t ops[][4] = {
      // operation, value, index, entry
      {0x000, 0x0F, 0x3C, 0x0C}, {0x100, 0xF0, 0x0F, 0xFF}, {0x200, 0xFF, 10, 245}, {0x300, 100, 200, 255},
      {0x300, 100, 100, 200},    {0x400, 100, 30, 70},      {0x400, 100, 200, 0},   {0x500, 100, 30, 0},
      {0x500, 100, 200, 100},    {0x600, 100, 30, 70},      {0x600, 100, 200, 100}, {0x700, 150, 101, 151},
      {0x700, 150, 200, 255},    {0x800, 200, 101, 50},     {0x900, 200, 0, 255},   {0x900, 200, 3, 66},
      {0x900, 200, 201, 0},      {0xA00, 101, 0, 50},       {0xB00, 77, 100, 77},   {0xC00, 77, 5, 77},
      {0x310, 0, 10, 245},       {0x120, 5, 200, 5},        {0x030, 0x0F, 3, 15},   {0x1300, 0, 10, 245},
      {0x1100, 256, 10, 11},     {0x2300, 5, 10, 0},        {0x3300, 5, 10, -1},    {0x920, 7, 9, 0}};
  // 0x1100 with 256: max - (10 | 256) = -11, made absolute.
  std::vector<int32_t> t(256, 0);
  for (auto [op, value, index, entry] : ops) {
    img::BuildMathLogicLut(t.data(), 256, value, op);
    EXPECT_EQ(t[index], entry) << "op 0x" << std::hex << op << std::dec << " index " << index;
  }
}

// Every table export runs the same entry check (flags word where it has one,
// null bitmap, record size, 32-bit gray): its order once, then one row per
// export that shows the export uses it ahead of its own parameters.
TEST(LutExports, EntryChecksInOrder) {
  kit::LeakGuard guard;
  Bitmap color(Format{24, B}, 4, 2), gray32(Format{32, G}, 4, 2), gray12(Format{12, G}, 4, 2),
      gray8(Format{8, G}, 4, 2), bad(Format{24, B}, 4, 2), bad32(Format{32, G}, 4, 2);
  bad->StructSize = 200, bad32->StructSize = 0;
  const int32_t table[256] = {};
  uint32_t count = 0;
  kit::ExpectStatuses({
      {"solarize flags before null", [] { return Q_SolarizeBitmap(nullptr, 0, 1); }, kBad},
      {"solarize null", [] { return Q_SolarizeBitmap(nullptr, 0, 0); }, RC_NO_BITMAP},
      {"solarize size", [&] { return Q_SolarizeBitmap(bad, 0, 0); }, RC_INVALID_STRUCT_SIZE},
      {"size before gray32", [&] { return Q_SolarizeBitmap(bad32, 0, 0); }, RC_INVALID_STRUCT_SIZE},
      {"solarize gray32", [&] { return Q_SolarizeBitmap(gray32, 0, 0); }, kNo32},
      {"solarize 12-bit 4096", [&] { return Q_SolarizeBitmap(gray12, 4096, 0); }, kBad},
      {"solarize 8-bit 65535", [&] { return Q_SolarizeBitmap(gray8, 65535, 0); }, RC_SUCCESS},
      {"solarize 8-bit 65536", [&] { return Q_SolarizeBitmap(gray8, 65536, 0); }, kBad},
      {"posterize null before levels", [] { return Q_PosterizeBitmap(nullptr, 1, 0); }, RC_NO_BITMAP},
      {"posterize 1", [&] { return Q_PosterizeBitmap(color, 1, 0); }, kBad},
      {"posterize 65", [&] { return Q_PosterizeBitmap(color, 65, 0); }, kBad},
      {"posterize 2", [&] { return Q_PosterizeBitmap(color, 2, 0); }, RC_SUCCESS},
      {"posterize 64", [&] { return Q_PosterizeBitmap(color, 64, 0); }, RC_SUCCESS},
      {"contrast flags", [&] { return Q_ChangeBitmapContrast(color, 0, 2); }, kBad},
      {"contrast 1001", [&] { return Q_ChangeBitmapContrast(color, 1001, 0); }, kBad},
      {"contrast -1001", [&] { return Q_ChangeBitmapContrast(color, -1001, 0); }, kBad},
      {"multiply flags", [] { return Q_MultiplyBitmap(nullptr, 100, 1); }, kBad},
      {"mathlogic gray32 first", [&] { return Q_ApplyMathLogicBitmap(gray32, 0, 4); }, kNo32},
      {"mathlogic / 0", [&] { return Q_ApplyMathLogicBitmap(color, 0, 0x800); }, kBad},
      {"remap gray32", [&] { return Q_RemapBitmapIntensity(gray32, table, 256, 5); }, kNo32},
      {"remap channel", [&] { return Q_RemapBitmapIntensity(color, table, 256, 5); }, kBad},
      {"histo flags", [] { return Q_HistoContrastBitmap(nullptr, 0, 1); }, kBad},
      {"histo null before range", [] { return Q_HistoContrastBitmap(nullptr, 1001, 0); }, RC_NO_BITMAP},
      {"histo 1001", [&] { return Q_HistoContrastBitmap(color, 1001, 0); }, kBad},
      {"stretch flags", [] { return Q_StretchBitmapIntensity(nullptr, 1); }, kBad},
      {"count flags", [&] { return Q_GetBitmapColorCount(color, &count, 1); }, kBad},
      {"count null", [&] { return Q_GetBitmapColorCount(nullptr, &count, 0); }, RC_NO_BITMAP},
      {"count pointer passed on", [&] { return Q_GetBitmapColorCount(color, nullptr, 0); }, RC_NULL_OPTIONS},
  });
  bad->StructSize = bad32->StructSize = BITMAP_RECORD_SIZE;  // so that the bitmaps can be freed
  // Zero changes leave the bitmap alone; contrast reports nothing, histogram contrast 0 and 100.
  color.Randomize(3);
  const auto before = color.Pixels();
  kit::ScopedCallback cb([](int32_t) { return RC_SUCCESS; });
  EXPECT_EQ(Q_ChangeBitmapContrast(color, 0, 0), RC_SUCCESS);
  EXPECT_TRUE(cb.Reports().empty());
  EXPECT_EQ(Q_HistoContrastBitmap(color, 0, 0), RC_SUCCESS);
  EXPECT_EQ(cb.Reports(), (std::vector<int32_t>{0, 100}));
  EXPECT_EQ(color.Pixels(), before);
}

// Expected sample after the table, on the bitmap's own scale.
uint32_t Mapped(const Format &s, const std::vector<int32_t> &t, uint32_t v) {
  const uint32_t mask = s.IsGray() ? s.SampleMax() : (s.bits >= 48 ? 0xFFFFu : 0xFFu);
  return v < t.size() ? static_cast<uint32_t>(t[v]) & mask : v;
}

// An export and the table it builds for a bitmap with 2^bits-sample values.
using Call = std::function<int32_t(BitmapRecord *)>;
using Build = std::function<void(int32_t *, uint32_t)>;
const std::vector<std::tuple<std::string, Call, Build>> kTableCases = {
    {"solarize 0", [](BitmapRecord *b) { return Q_SolarizeBitmap(b, 0, 0); },
     [](int32_t *t, uint32_t n) { img::BuildSolarizeLut(t, n, 0, n - 1); }},
    {"posterize 4", [](BitmapRecord *b) { return Q_PosterizeBitmap(b, 4, 0); },
     [](int32_t *t, uint32_t n) { img::BuildPosterizeLut(t, n, 4); }},
    {"contrast 500", [](BitmapRecord *b) { return Q_ChangeBitmapContrast(b, 500, 0); },
     [](int32_t *t, uint32_t n) { img::BuildContrastLut(t, n, 500); }},
    {"multiply 170", [](BitmapRecord *b) { return Q_MultiplyBitmap(b, 170, 0); },
     [](int32_t *t, uint32_t n) { img::BuildMultiplyLut(t, n, 170); }},
    {"mathlogic xor", [](BitmapRecord *b) { return Q_ApplyMathLogicBitmap(b, 0x55, 0x200); },
     [](int32_t *t, uint32_t n) { img::BuildMathLogicLut(t, n, 0x55, 0x200); }},
};

// Every kind, inside an ellipse region where the kind keeps pixels (palettes
// change their entries instead). 5-bit colour is checked by inversion only.
TEST(LutExports, EveryKindMapsThroughTheTable) {
  for (const Format &format : kit::AllFormats(true))
    for (const auto &[name, call, build] : kTableCases) {
      const bool fiveBit = format.bits == 16 && !format.IsGray();
      if (fiveBit && name != "solarize 0") continue;
      SCOPED_TRACE(format.Name() + " " + name);
      kit::LeakGuard guard;
      Bitmap b(format, 7, 5);
      b.Randomize(11);
      if (!format.IsPalette()) kit::SetEllipseRegion(b, 1, 0, 7, 5);
      const auto before = b.Pixels();
      std::vector<Pixel> colors;
      for (int32_t i = 0; i < 35 && format.IsPalette(); ++i) colors.push_back(b.ColorAt(i % 7, i / 7));
      std::vector<int32_t> t(format.IsGray() ? format.SampleMax() + 1 : format.bits >= 48 ? 65536 : 256);
      build(t.data(), static_cast<uint32_t>(t.size()));
      ASSERT_EQ(call(b), RC_SUCCESS);
      for (int32_t i = 0, x = 0, y = 0; i < 35; ++i, x = i % 7, y = i / 7) {
        Pixel want = before[i];
        for (int k = 0; k < (format.IsGray() ? 1 : 3) && kit::InRegion(b, x, y) && !format.IsPalette(); ++k)
          want.v[k] = fiveBit ? 31 - want.v[k] : Mapped(format, t, want.v[k]);
        EXPECT_EQ(b.At(x, y), want) << x << "," << y;  // palettes: the indices stay
        for (int k = 0; k < 3 && format.IsPalette(); ++k)
          EXPECT_EQ(b.ColorAt(x, y).v[k], Mapped(format, t, colors[i].v[k])) << x << "," << y;
      }
    }
}

TEST(LutExports, GraySpansAndSignificantBits) {
  // High bit 11 gives 4096 entries: a threshold of 4095 inverts only the largest value.
  Bitmap g(Format{12, G}, 4, 1, {Level(0), Level(100), Level(4094), Level(4095)});
  g->SignificantLowBit = 0, g->SignificantHighBit = 11;
  ASSERT_EQ(Q_SolarizeBitmap(g, 4095, 0), RC_SUCCESS);
  EXPECT_EQ(g.Pixels(), (std::vector<Pixel>{Level(0), Level(100), Level(4094), Level(0)}));
  // The histogram exports find the occupied span: 50..200 is stretched as in the table above.
  Bitmap b(Format{8, G}, 4, 1, {Level(50), Level(125), Level(126), Level(200)});
  ASSERT_EQ(Q_StretchBitmapIntensity(b, 0), RC_SUCCESS);
  EXPECT_EQ(b.Pixels(), (std::vector<Pixel>{Level(0), Level(126), Level(128), Level(255)}));
  Bitmap flat(Format{24, B}, 4, 4, std::vector<Pixel>(16, Rgb(70, 70, 70)));
  ASSERT_EQ(Q_StretchBitmapIntensity(flat, 0), RC_SUCCESS);
  EXPECT_EQ(flat.Pixels(), std::vector<Pixel>(16, Rgb(70, 70, 70)));
  Bitmap full(Format{8, G}, 3, 1, {Level(0), Level(164), Level(255)});
  ASSERT_EQ(Q_HistoContrastBitmap(full, 1000, 0), RC_SUCCESS);
  EXPECT_EQ(full.At(1, 0), Level(255 * 132 / 133));
  // Nothing to stretch with no sample inside the table (an empty region, every sample above a
  // five-bit range, signed 16-bit gray whose high and low bits -2 leave one bit): 1, unchanged.
  Bitmap empty(Format{24, B}, 4, 2), above(Format{8, G}, 3, 1, {Level(32), Level(200), Level(255)});
  Bitmap one(Format{16, G}, 3, 1, {Level(0x8000), Level(40000), Level(0xFFFF)});
  empty.Randomize(5);
  kit::SetRectRegion(empty, 2, 1, 2, 1);
  above->SignificantHighBit = 4;
  one->Flags |= BITMAP_SIGNED, one->SignificantLowBit = one->SignificantHighBit = -2;
  for (Bitmap *e : {&empty, &above, &one}) {
    const auto stored = e->StoredBytes();
    EXPECT_EQ(Q_HistoContrastBitmap(*e, 1000, 0) + Q_HistoContrastBitmap(*e, -1, 0) +
                  Q_StretchBitmapIntensity(*e, 0),
              3)
        << e->format().Name();
    EXPECT_EQ(e->StoredBytes(), stored) << e->format().Name();
  }
}

// Stretch over an empty histogram (no pixel in the region) does not take the
// single-value return: its table is built and handed on, to change no pixel,
// so the application reports from 51 after the span's 0..50. A single value,
// and histogram contrast with nothing inside the table, end after the span.
TEST(LutExports, EmptySpanStillAppliesTheStretch) {
  const Call stretch = [](BitmapRecord *b) { return Q_StretchBitmapIntensity(b, 0); };
  const Call histo = [](BitmapRecord *b) { return Q_HistoContrastBitmap(b, 500, 0); };
  const std::tuple<const char *, bool, Call, bool> cases[] = {
      {"stretch, empty region", true, stretch, true},
      {"stretch, one value", false, stretch, false},
      {"histogram contrast, empty region", true, histo, false},
  };
  for (const auto &[name, emptyRegion, call, applied] : cases) {
    Bitmap b(Format{24, B}, 4, 2, std::vector<Pixel>(8, Rgb(70, 70, 70)));
    if (emptyRegion) kit::SetRectRegion(b, 2, 1, 2, 1);
    const auto stored = b.StoredBytes();
    kit::ScopedCallback cb([](int32_t) { return RC_SUCCESS; });
    ASSERT_EQ(call(b), RC_SUCCESS) << name;
    EXPECT_EQ(b.StoredBytes(), stored) << name;
    const std::vector<int32_t> reports = cb.Reports();
    EXPECT_EQ(std::any_of(reports.begin(), reports.end(), [](int32_t p) { return p > 50; }), applied) << name;
    EXPECT_FALSE(reports.empty()) << name;
  }
}

TEST(LutExports, SignedAttachedAndCallersTables) {
  kit::LeakGuard guard;
  // Tables are built over offset values (0 = most negative): inversion maps
  // s to -1 - s, doubling maps s to min(2 (s + 128), 255) - 128.
  Bitmap b(Format{8, G}, 4, 1, {Level(0), Level(5), Level(0x80), Level(0xFF)});
  b->Flags |= BITMAP_SIGNED;
  ASSERT_EQ(Q_SolarizeBitmap(b, 0, 0), RC_SUCCESS);
  EXPECT_EQ(b.Pixels(), (std::vector<Pixel>{Level(0xFF), Level(0xFA), Level(0x7F), Level(0)}));
  ASSERT_EQ(Q_MultiplyBitmap(b, 200, 0), RC_SUCCESS);  // -1, -6, 127, 0
  EXPECT_EQ(b.Pixels(), (std::vector<Pixel>{Level(0x7E), Level(0x74), Level(0x7F), Level(0x7F)}));
  Bitmap w(Format{48, B}, 1, 1, {Rgb(0x8000, 0x7FFF, 0)});
  w->Flags |= BITMAP_SIGNED;
  ASSERT_EQ(Q_SolarizeBitmap(w, 0, 0), RC_SUCCESS);
  EXPECT_EQ(w.At(0, 0), Rgb(0x7FFF, 0x8000, 0xFFFF));
  // Math/logic on signed data goes through offsets and back: the all-zero output is uniform.
  ASSERT_EQ(Q_ApplyMathLogicBitmap(b, 0, 0x2000), RC_SUCCESS);
  EXPECT_EQ(b.Pixels(), std::vector<Pixel>(4, b.At(0, 0)));
  // A refusal (channel 4, divide by 0) leaves a signed bitmap bit for bit, also a sample
  // above the 12-bit range, which a pass leaves as well (the table does not reach it).
  Bitmap s12(Format{12, G}, 2, 1, {Level(0x0FFF), Level(0xF123)});
  const auto stored12 = (s12->Flags |= BITMAP_SIGNED, s12.StoredBytes());
  EXPECT_EQ(Q_ApplyMathLogicBitmap(s12, 0, 4) + Q_ApplyMathLogicBitmap(s12, 0, 0x800), 2 * kBad);
  EXPECT_EQ(s12.StoredBytes(), stored12);
  EXPECT_EQ(Q_ApplyMathLogicBitmap(s12, 3, 0x300) * 0x10000 + s12.At(1, 0).v[0], 0x1F123u);
  // An attached table changes instead of the pixels.
  // Solarize and then add 5: 10 i -> 255 - 10 i -> min(255, 260 - 10 i).
  const std::vector<Pixel> kept = {Level(1), Level(2), Level(3), Level(4)};
  Bitmap a(Format{8, G}, 4, 1, kept);
  a->AttachedLut = static_cast<int32_t *>(AllocZeroed(16, sizeof(int32_t), __LINE__, L"tests/lut_clr_test"));
  a->AttachedLutLength = 16, a->Flags |= BITMAP_USE_ATTACHED_LUT;
  for (int32_t i = 0; i < 16; ++i) a->AttachedLut[i] = i * 10;
  ASSERT_EQ(Q_SolarizeBitmap(a, 0, 0) + Q_ApplyMathLogicBitmap(a, 5, 0x300), 2 * RC_SUCCESS);
  for (int32_t i = 0; i < 16; ++i) EXPECT_EQ(a->AttachedLut[i], std::min(255, 260 - i * 10)) << i;
  EXPECT_EQ(a.Pixels(), kept);
  // The caller's table goes to ApplyLut as it is.
  int32_t t[256];
  for (int32_t i = 0; i < 256; ++i) t[i] = (i * 7) & 0xFF;
  Bitmap c(Format{24, ORDER_RGB}, 2, 1, {Rgb(1, 2, 3), Rgb(40, 50, 60)});
  ASSERT_EQ(Q_RemapBitmapIntensity(c, t, 256, LUT_INDEX_BY_VALUE | LUT_CHANNEL_GREEN), RC_SUCCESS);
  EXPECT_EQ(c.Pixels(), (std::vector<Pixel>{Rgb(1, 14, 3), Rgb(40, 350 & 0xFF, 60)}));
}

TEST(LutExports, CancellationAndAllocationFailures) {
  static const int32_t zeros[256] = {};
  std::vector<std::pair<std::string, Call>> all = {
      {"remap", [](BitmapRecord *b) { return Q_RemapBitmapIntensity(b, zeros, 256, 0x100); }},
      {"histo contrast", [](BitmapRecord *b) { return Q_HistoContrastBitmap(b, 400, 0); }},
      {"histo contrast 0", [](BitmapRecord *b) { return Q_HistoContrastBitmap(b, 0, 0); }},
      {"stretch", [](BitmapRecord *b) { return Q_StretchBitmapIntensity(b, 0); }}};
  for (const auto &[name, call, build] : kTableCases) all.emplace_back(name, call);
  for (const Format &format : {Format{24, B}, Format{48, ORDER_RGB}, Format{16, G}})
    for (const auto &[name, call] : all) {
      SCOPED_TRACE(format.Name() + " " + name);
      auto setup = [format] {
        Bitmap b(format, 9, 7);
        b.Randomize(4);
        return b;
      };
      EXPECT_GT(kit::CheckCancellation(setup, call), 0);
      kit::CheckAllocationFailures(setup, call, {RC_NO_MEMORY, RC_SUCCESS});  // gray depth refresh may fail
    }
}

}  // namespace
