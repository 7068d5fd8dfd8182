// Q_ChangeHueSatIntBitmap: checks, band normalisation, the per-hue table, rows and palettes.
#include "HSI.h"

#include <memory>
#include <random>
#include <tuple>

#include "ClrSpc.h"
#include "kit.h"

namespace {

using kit::Rgb;
using namespace img::hsi;

kit::Format Kind(int32_t bits, int32_t order = ORDER_BGR) { return kit::Format{bits, order}; }

HueSatIntRange Band(int32_t os, int32_t oe, int32_t is, int32_t ie, int32_t hue = 0, int32_t sat = 0,
                    int32_t in = 0) {
  return HueSatIntRange{32, hue, sat, in, os, oe, is, ie};
}

int32_t Call(BitmapRecord *b, int32_t hue, int32_t sat, int32_t in,
             const std::vector<HueSatIntRange> &r = {Band(0, 0, 0, 0)}) {
  return Q_ChangeHueSatIntBitmap(b, hue, sat, in, r.data(), static_cast<uint32_t>(r.size()), 0);
}

// ---- The loops of each instruction set against the scalar pixel ------------------------------

using Table = std::vector<HueChange>;

// Tables from records (overall changes with a band, as the benchmark; all
// negative) and one at the edges of what the loops take: hue changes over
// -360..360, saturation changes over -2047..2047, intensities over -511..511.
std::vector<Table> LaneTables() {
  std::vector<Table> tables(3, Table(kHueEntries));
  const HueSatIntRange band{32, 1500, 300, 100, 330, 30, 350, 10}, low{32, -900, -400, -50, 40, 200, 90, 120};
  std::vector<HueSatIntRange> ranges = {band, low};
  for (HueSatIntRange &r : ranges) EXPECT_EQ(ValidateRanges(kit::Bitmap(Kind(24), 1, 1), 0, 0, 0, &r, 1), 0);
  BuildHueTable(tables[0].data(), 3000, 200, 100, &ranges[0], 1, 8);
  BuildHueTable(tables[1].data(), -18000, -1000, -500, ranges.data(), 2, 8);
  for (int32_t h = 0; h < kHueEntries; ++h)
    tables[2][h] = HueChange{h * 7 % 721 - 360, h * 11 % 4095 - 2047, h * 13 % 1023 - 511};
  return tables;
}

// Debug builds take every seventh colour.
#ifdef NDEBUG
constexpr uint32_t kColourStep = 1;
#else
constexpr uint32_t kColourStep = 7;
#endif

TEST(HsiRows, EveryColourThroughEachSet) {
  const Table table = LaneTables()[2];
  LaneTable lanes;
  PackHueTable(table.data(), lanes);
  ASSERT_TRUE(lanes.fits);
  std::vector<uint8_t> colours;
  for (uint32_t c = 0; c < (1u << 24); c += kColourStep)
    colours.insert(colours.end(),
                   {static_cast<uint8_t>(c), static_cast<uint8_t>(c >> 8), static_cast<uint8_t>(c >> 16)});
  const auto count = static_cast<int32_t>(colours.size() / 3);
  std::vector<uint8_t> ref = colours;
  ChangeRow8(img::Isa::Scalar, ref.data(), 3, 0, count, table.data(), lanes);
  for (img::Isa isa : {img::Isa::Avx2, img::Isa::Avx512}) {
    if (!img::IsaAvailable(isa)) continue;
    std::vector<uint8_t> out = colours;
    ChangeRow8(isa, out.data(), 3, 0, count, table.data(), lanes);
    const auto bad = std::mismatch(out.begin(), out.end(), ref.begin());
    ASSERT_TRUE(bad.first == out.end())
        << img::IsaName(isa) << " colour at " << (bad.first - out.begin()) / 3;
  }
}

// Random rows and spans of three and four samples, every available set, each
// table; a table with one entry out of the loops' range (361 degrees) goes
// one pixel at a time.
TEST(HsiRows, RandomSpansEverySet) {
  std::vector<Table> tables = LaneTables();
  tables.push_back(tables[0]);
  tables.back()[200].hue = 361;
  LaneTable lanes;
  for (auto [field, value] : {std::pair{0, -361}, {1, 2048}, {1, -2048}, {2, 512}, {2, -512}}) {
    Table t = tables[2];
    (field == 0 ? t[7].hue : field == 1 ? t[7].saturation : t[7].intensity) = value;
    PackHueTable(t.data(), lanes);
    EXPECT_FALSE(lanes.fits) << field << " " << value;
  }
  std::mt19937 rng(3);
  for (const Table &table : tables) {
    PackHueTable(table.data(), lanes);
    EXPECT_EQ(lanes.fits, &table != &tables.back());
    for (int32_t channels : {3, 4})
      for (int trial = 0; trial < 20; ++trial) {
        std::vector<uint8_t> in(static_cast<size_t>(channels) * 70);
        for (uint8_t &v : in) v = static_cast<uint8_t>(rng());
        const auto left = static_cast<int32_t>(rng() % 20), right = left + static_cast<int32_t>(rng() % 51);
        std::vector<uint8_t> ref = in;
        ChangeRow8(img::Isa::Scalar, ref.data(), channels, left, right, table.data(), lanes);
        for (img::Isa isa : img::kAllIsas) {
          if (!img::IsaAvailable(isa)) continue;
          std::vector<uint8_t> out = in;
          ChangeRow8(isa, out.data(), channels, left, right, table.data(), lanes);
          ASSERT_EQ(out, ref) << img::IsaName(isa) << " " << channels << " " << left << ".." << right;
        }
      }
  }
}

// The export on random bitmaps, with and without a region: each changed pixel
// is the scalar pixel's result under the call's table.
TEST(HsiRows, ExportMatchesTheScalarPixel) {
  HueSatIntRange band{32, 1500, 300, 100, 330, 30, 350, 10};
  Table table(kHueEntries);
  ASSERT_EQ(ValidateRanges(kit::Bitmap(Kind(24), 1, 1), 3000, 200, 100, &band, 1), 0);
  BuildHueTable(table.data(), 3000, 200, 100, &band, 1, 8);
  LaneTable lanes;
  PackHueTable(table.data(), lanes);
  EXPECT_TRUE(lanes.fits);
  for (const kit::Format &format : {Kind(24), Kind(24, ORDER_RGB), Kind(32)})
    for (bool region : {false, true}) {
      SCOPED_TRACE(format.Name() + (region ? " region" : ""));
      kit::Bitmap bmp(format, 37, 9);
      bmp.Randomize(8);
      if (region) kit::SetEllipseRegion(bmp, 3, 1, 30, 8);
      const auto before = bmp.Pixels();
      ASSERT_EQ(Call(bmp, 3000, 200, 100, {HueSatIntRange{32, 1500, 300, 100, 330, 30, 350, 10}}),
                RC_SUCCESS);
      for (int32_t i = 0, x = 0, y = 0; i < 37 * 9; ++i, x = i % 37, y = i / 37) {
        kit::Pixel want = before[i];
        if (kit::InRegion(bmp, x, y)) {
          uint8_t bgr[3] = {static_cast<uint8_t>(want.v[2]), static_cast<uint8_t>(want.v[1]),
                            static_cast<uint8_t>(want.v[0])};
          ChangeRow8(img::Isa::Scalar, bgr, 3, 0, 1, table.data(), lanes);
          want.v[0] = bgr[2], want.v[1] = bgr[1], want.v[2] = bgr[0];
        }
        ASSERT_EQ(bmp.At(x, y), want) << x << "," << y;
      }
    }
}

// 16-bit rows take the colour-space models directly: the same bits as the
// four row conversions of a pixel, on random colours (with and without a
// region) and colours of the pool of extremes and near ties.
TEST(HsiRows, SixteenBitPixelsMatchTheRowConversions) {
  const std::vector<HueSatIntRange> records = {{32, 1500, 300, 100, 330, 30, 350, 10},
                                               {32, -900, -400, -50, 40, 200, 90, 120}};
  const uint16_t pool[] = {0, 1, 2, 255, 32766, 32767, 32768, 65534, 65535, 12345};
  for (bool region : {false, true}) {
    std::vector<HueSatIntRange> copy = records;
    Table table(kHueEntries);
    kit::Bitmap bmp(Kind(48), 40, 30);
    bmp.Randomize(12);
    for (int32_t i = 0; i < 1000; ++i)
      bmp.Set(i % 40, i / 40 % 25, Rgb(pool[i % 10], pool[i / 10 % 10], pool[i / 100 % 10]));
    if (region) kit::SetEllipseRegion(bmp, 3, 2, 36, 28);
    ASSERT_EQ(ValidateRanges(bmp, 2000, -300, 150, copy.data(), 2), 0);
    BuildHueTable(table.data(), 2000, -300, 150, copy.data(), 2, 16);
    const auto before = bmp.Pixels();
    ASSERT_EQ(Call(bmp, 2000, -300, 150, records), RC_SUCCESS);
    for (int32_t i = 0, x = 0, y = 0; i < 40 * 30; ++i, x = i % 40, y = i / 40) {
      kit::Pixel want = before[i];
      if (kit::InRegion(bmp, x, y)) {
        uint16_t bgr[3] = {static_cast<uint16_t>(want.v[2]), static_cast<uint16_t>(want.v[1]),
                           static_cast<uint16_t>(want.v[0])};
        uint8_t sp[8];
        img::ConvertColorRow16(COLORSPACE_HSV, bgr, sp, nullptr, 0, 1);
        int32_t h;
        std::memcpy(&h, sp, 4);
        const HueChange &e = table[h / 100];
        h = (h + e.hue + 36000) % 36000;
        std::memcpy(sp, &h, 4);
        img::ConvertColorRow16(COLORSPACE_HSV + COLORSPACE_TO_RGB, bgr, sp, nullptr, 0, 1);
        img::ConvertColorRow16(COLORSPACE_HLS, bgr, sp, nullptr, 0, 1);
        uint16_t sat;
        std::memcpy(&sat, sp + 6, 2);
        sat = static_cast<uint16_t>(std::clamp<int64_t>(sat + int64_t{sat} * e.saturation / 10000, 0, 10000));
        std::memcpy(sp + 6, &sat, 2);
        img::ConvertColorRow16(COLORSPACE_HLS + COLORSPACE_TO_RGB, bgr, sp, nullptr, 0, 1);
        for (uint16_t &c : bgr) c = static_cast<uint16_t>(std::clamp(c + e.intensity, 0, 65535));
        want.v[0] = bgr[2], want.v[1] = bgr[1], want.v[2] = bgr[0];
      }
      ASSERT_EQ(bmp.At(x, y), want) << x << "," << y;
    }
  }
}

// 16-bit colours (every triple of a pool of extremes and near ties, and
// random ones) and random spans through each set against the scalar pixel,
// with tables from records and one at the edges the loops take; tables past
// them go one pixel at a time.
TEST(HsiRows, SixteenBitColoursThroughEachSet) {
  std::vector<HueSatIntRange> records = {{32, 1500, 300, 100, 330, 30, 350, 10},
                                         {32, -900, -400, -50, 40, 200, 90, 120}};
  for (HueSatIntRange &r : records) ASSERT_EQ(ValidateRanges(kit::Bitmap(Kind(48), 1, 1), 0, 0, 0, &r, 1), 0);
  std::vector<Table> tables(3, Table(kHueEntries));
  BuildHueTable(tables[0].data(), 3000, 200, 100, records.data(), 2, 16);
  for (int32_t h = 0; h < kHueEntries; ++h)
    tables[1][h] = HueChange{h * 199 % 71999 - 35999, h * 557 % 200001 - 100000, h * 7919 % 140001 - 70000};
  tables[2] = tables[1];
  tables[2][100].hue = 36000;
  EXPECT_TRUE(HueTableFits16(tables[0].data()) && HueTableFits16(tables[1].data()));
  EXPECT_FALSE(HueTableFits16(tables[2].data()));
  for (auto [field, value] : {std::pair{0, -36000}, {1, 100001}, {1, -100001}, {2, (1 << 24) + 1}}) {
    Table t = tables[1];
    (field == 0 ? t[9].hue : field == 1 ? t[9].saturation : t[9].intensity) = value;
    EXPECT_FALSE(HueTableFits16(t.data())) << field << " " << value;
  }
  std::mt19937 rng(4);
  std::vector<uint16_t> pool = {0, 1, 2, 255, 256, 32766, 32767, 32768, 32769, 59652, 65533, 65534, 65535};
  while (pool.size() < 30) pool.push_back(static_cast<uint16_t>(rng()));
  std::vector<uint16_t> colours;
  for (uint16_t r : pool)
    for (uint16_t g : pool)
      for (uint16_t b : pool) colours.insert(colours.end(), {b, g, r});
  for (int i = 0; i < (1 << 17) * 3; ++i) colours.push_back(static_cast<uint16_t>(rng()));
  const auto count = static_cast<int32_t>(colours.size() / 3);
  for (const Table &table : tables) {
    std::vector<uint16_t> ref = colours;
    ChangeRow16(img::Isa::Scalar, ref.data(), 3, 0, count, table.data());
    for (img::Isa isa : img::kAllIsas) {
      if (!img::IsaAvailable(isa)) continue;
      std::vector<uint16_t> out = colours;
      ChangeRow16(isa, out.data(), 3, 0, count, table.data());
      const auto bad = std::mismatch(out.begin(), out.end(), ref.begin());
      ASSERT_TRUE(bad.first == out.end())
          << img::IsaName(isa) << " colour at " << (bad.first - out.begin()) / 3;
      std::vector<uint16_t> four(4 * 70), fourRef;
      for (uint16_t &v : four) v = static_cast<uint16_t>(rng());
      fourRef = four;
      const auto left = static_cast<int32_t>(rng() % 20), right = left + static_cast<int32_t>(rng() % 51);
      ChangeRow16(img::Isa::Scalar, fourRef.data(), 4, left, right, table.data());
      ChangeRow16(isa, four.data(), 4, left, right, table.data());
      ASSERT_EQ(four, fourRef) << img::IsaName(isa) << " " << left << ".." << right;
    }
  }
}

TEST(Hsi, ChecksInOrder) {
  kit::Bitmap bmp(Kind(24), 4, 2), bad(Kind(24), 2, 2), gray32(Kind(32, ORDER_GRAY), 2, 2);
  kit::Bitmap signedBmp(Kind(24), 2, 2), gray(Kind(8, ORDER_GRAY), 2, 2), gray16(Kind(16, ORDER_GRAY), 2, 2);
  bad->StructSize = 200;
  gray32->Flags |= BITMAP_SIGNED;
  signedBmp->Flags |= BITMAP_SIGNED;
  HueSatIntRange badSize = Band(0, 0, 0, 0);
  badSize.StructSize = 31;
  const auto band = [&](const HueSatIntRange &r) { return Call(bmp, 0, 0, 0, {r}); };
  const auto noRanges = [](BitmapRecord *b, uint32_t count, uint32_t flags) {
    return Q_ChangeHueSatIntBitmap(b, 0, 0, 0, nullptr, count, flags);
  };
  const std::unique_ptr<HueSatIntRange[]> none(new HueSatIntRange[0]);  // no record to read
  kit::ExpectStatuses({
      {"flags first", [&] { return noRanges(nullptr, 0, 1); }, RC_INVALID_PARAMETER},
      {"size 200", [&] { return Call(bad, 0, 0, 0); }, RC_INVALID_STRUCT_SIZE},
      {"gray32 before signed", [&] { return Call(gray32, 0, 0, 0); }, RC_GRAY32_NOT_SUPPORTED},
      {"signed", [&] { return Call(signedBmp, 0, 0, 0); }, RC_SIGNED_DATA_NOT_SUPPORTED},
      {"count 0 null", [&] { return noRanges(bmp, 0, 0); }, RC_NULL_OPTIONS},
      {"count 3 null", [&] { return noRanges(bmp, 3, 0); }, RC_INVALID_PARAMETER},
      {"null ranges before null bitmap", [&] { return noRanges(nullptr, 0, 0); }, RC_NULL_OPTIONS},
      {"count 0 with a pointer", [&] { return Q_ChangeHueSatIntBitmap(bmp, 0, 0, 0, none.get(), 0, 0); },
       RC_NULL_OPTIONS},
      {"record size", [&] { return band(badSize); }, RC_INVALID_STRUCT_SIZE},
      {"only the first size counts",
       [&] {
         return Call(bmp, 0, 0, 0, {Band(0, 0, 0, 0), badSize});
       },
       RC_SUCCESS},
      {"null bitmap after the copy", [] { return Call(nullptr, 0, 0, 0); }, RC_NO_BITMAP},
      {"overall saturation", [&] { return Call(bmp, 0, 1001, 0); }, RC_INVALID_PARAMETER},
      {"overall intensity", [&] { return Call(bmp, 0, 0, -1001); }, RC_INVALID_PARAMETER},
      {"overall hue 18001", [&] { return Call(bmp, 18001, 0, 0); }, RC_INVALID_PARAMETER},
      {"overall hue -18000", [&] { return Call(bmp, -18000, 0, 0); }, RC_SUCCESS},
      {"record hue", [&] { return band(Band(0, 10, 0, 10, -18001)); }, RC_INVALID_PARAMETER},
      {"record saturation", [&] { return band(Band(0, 10, 0, 10, 0, 1001)); }, RC_INVALID_PARAMETER},
      {"record angle 360", [&] { return band(Band(0, 360, 0, 10)); }, RC_INVALID_PARAMETER},
      {"record angle -360", [&] { return band(Band(-360, 10, 0, 10)); }, RC_INVALID_PARAMETER},
      {"ranges before gray", [&] { return Call(gray, 0, 1001, 0); }, RC_INVALID_PARAMETER},
      {"gray 8", [&] { return Call(gray, 0, 0, 0); }, RC_INVALID_PARAMETER},
      {"gray 16", [&] { return Call(gray16, 100, 0, 0); }, RC_INVALID_PARAMETER},
      {"inner start below outer", [&] { return band(Band(20, 60, 10, 40)); }, RC_INVALID_PARAMETER},
      {"inner end above outer", [&] { return band(Band(20, 60, 30, 70)); }, RC_INVALID_PARAMETER},
      {"inner reversed", [&] { return band(Band(20, 60, 40, 30)); }, RC_INVALID_PARAMETER},
  });
  bad->StructSize = BITMAP_RECORD_SIZE;
}

TEST(Hsi, BandsAndTable) {
  kit::Bitmap bmp(Kind(24), 2, 2);
  // Across 0 both ends move past 360, so an inner band ending before 360 ends beyond the outer.
  const std::tuple<HueSatIntRange, std::vector<int32_t>, int32_t> cases[] = {
      {Band(330, 30, 350, 10), {330, 390, 350, 370}, 0},
      {Band(-30, 30, -10, 10), {330, 390, 350, 370}, 0},
      {Band(-30, -1, -20, -10), {330, 359, 340, 350}, 0},
      {Band(10, 50, 20, 30), {10, 50, 20, 30}, 0},
      {Band(300, 60, 320, 340), {300, 420, 320, 700}, RC_INVALID_PARAMETER}};
  for (auto [r, want, status] : cases) {
    EXPECT_EQ(ValidateRanges(bmp, 0, 0, 0, &r, 1), status);
    EXPECT_EQ(std::vector<int32_t>({r.OuterStart, r.OuterEnd, r.InnerStart, r.InnerEnd}), want);
  }

  // Intensity 1000 in 350..370, fading to 330 and 390 (hues 0..30 count as
  // 360..390): weight 19/20 gives (950 * 255 + 500) / 1000, 1/2 gives 128000 / 1000.
  const HueSatIntRange across = Band(330, 390, 350, 370, 0, 0, 1000);
  HueChange t8[kHueEntries], t16[kHueEntries];
  for (int32_t bits : {8, 16}) BuildHueTable(bits == 8 ? t8 : t16, 0, 0, 0, &across, 1, bits);
  const int32_t entries[][3] = {{0, 255, 65535},   {10, 255, 65535},  {11, 242, 62258}, {20, 128, 32768},
                                {30, 0, 0},        {100, 0, 0},       {330, 0, 0},      {340, 128, 32768},
                                {349, 242, 62258}, {350, 255, 65535}, {360, 255, 65535}};
  for (auto [hue, i8, i16] : entries) {
    EXPECT_EQ(t8[hue].intensity, i8) << hue;
    EXPECT_EQ(t16[hue].intensity, i16) << hue;
  }
  // In the band hue 18100 wraps to -17900, intensity -2000 is not clamped at the bottom
  // ((-2000 * 255 + 500) / 1000 = -509); outside, the overall values truncated toward zero.
  const HueSatIntRange band = Band(0, 10, 0, 10, 100, -1000, -1000);
  for (int32_t bits : {8, 16}) BuildHueTable(bits == 8 ? t8 : t16, 18000, -1000, -1000, &band, 1, bits);
  std::vector<int32_t> got;
  for (const HueChange &e : {t8[5], t16[5], t8[50], t16[50]})
    got.insert(got.end(), {e.hue, e.saturation, e.intensity});
  EXPECT_EQ(got, std::vector<int32_t>({-179, -200, -509, -17900, -20000, -131069,  // in the band
                                       180, -100, -254, 18000, -10000, -65534}));
  // Only the top is clamped: 1000 + 1000 counts as 1000.
  BuildHueTable(t8, 0, 0, 1000, &across, 1, 8);
  EXPECT_EQ(t8[0].intensity, 255);
}

TEST(Hsi, PixelsAndPalettes) {
  // Hue +180 in HSV, then the HLS round trip (L 127, S 100) gives 254 for full samples of a
  // pure colour; gray stays. Palette entries (the last one too) go the same way, indices stay.
  std::vector<PaletteEntry> pal(16, PaletteEntry{90, 90, 90, 0});
  pal[15] = {0, 0, 255, 0}, pal[1] = {0, 255, 0, 0}, pal[2] = {255, 0, 0, 0};
  kit::Bitmap bmp(Kind(24), 4, 1, {Rgb(255, 0, 0), Rgb(0, 255, 0), Rgb(0, 0, 255), Rgb(90, 90, 90)});
  kit::Bitmap p(Kind(4), 4, 1, {kit::Level(15), kit::Level(1), kit::Level(2), kit::Level(0)}, pal.data());
  const auto stored = p.StoredBytes();
  for (BitmapRecord *b : {bmp.get(), p.get()}) ASSERT_EQ(Call(b, 18000, 0, 0), RC_SUCCESS);
  const std::vector<kit::Pixel> want{Rgb(0, 254, 254), Rgb(254, 0, 254), Rgb(254, 254, 0), Rgb(90, 90, 90)};
  EXPECT_EQ(bmp.Pixels(), want);
  EXPECT_EQ(p.StoredBytes(), stored);
  for (int32_t x = 0; x < 4; ++x) EXPECT_EQ(p.ColorAt(x, 0), want[x]) << x;
  // Red inside the inner band, hue 20 halfway out (HLS gives (254, 50, 0), +128), green outside.
  kit::Bitmap banded(Kind(24), 3, 1, {Rgb(255, 0, 0), Rgb(255, 51, 0), Rgb(0, 255, 0)});
  ASSERT_EQ(Call(banded, 0, 0, 0, {Band(330, 30, 350, 10, 0, 0, 1000)}), RC_SUCCESS);
  EXPECT_EQ(banded.Pixels(),
            (std::vector<kit::Pixel>{Rgb(255, 255, 255), Rgb(255, 178, 128), Rgb(0, 254, 0)}));
  // Saturation follows the hue before the shift: red is desaturated by the
  // band at 0 although it ends up green; blue (240 -> 0) stays saturated.
  kit::Bitmap shifted(Kind(24), 2, 1, {Rgb(255, 0, 0), Rgb(0, 0, 255)});
  ASSERT_EQ(Call(shifted, 12000, 0, 0, {Band(0, 5, 0, 5, 0, -1000, 0)}), RC_SUCCESS);
  const kit::Pixel red = shifted.At(0, 0), blue = shifted.At(1, 0);
  EXPECT_TRUE(red.v[0] == red.v[1] && red.v[1] == red.v[2]) << red;
  EXPECT_TRUE(blue.v[0] > 200u && blue.v[2] < 5u) << blue;
  // Saturation changes add up over the records; once the saturation is full a larger sum gives
  // the same pixel (31 changes of 1000 make s × change exceed 32 bits on 16-bit samples).
  kit::Bitmap few(Kind(48), 1, 1, {Rgb(60000, 5000, 5000)}), many(Kind(48), 1, 1, {Rgb(60000, 5000, 5000)});
  ASSERT_EQ(Call(few, 0, 1000, 0, {Band(0, 359, 0, 359, 0, 1000)}) +
                Call(many, 0, 1000, 0, std::vector<HueSatIntRange>(30, Band(0, 359, 0, 359, 0, 1000))),
            2);
  EXPECT_TRUE(many.At(0, 0) == few.At(0, 0) && few.At(0, 0).v[1] == few.At(0, 0).v[2]) << many.At(0, 0);
}

TEST(Hsi, IntensityExtremesInsideTheRegion) {
  for (const kit::Format &format : {Kind(24), Kind(24, ORDER_RGB), Kind(32), Kind(48), Kind(64, ORDER_RGB)}) {
    SCOPED_TRACE(format.Name());
    const uint32_t top = format.SampleMax(), fourth = format.Channels() == 4 ? 3 : 0;
    kit::Bitmap bmp(format, 16, 10);
    bmp.Randomize(11);
    const auto before = bmp.Pixels();
    kit::SetEllipseRegion(bmp, 1, 1, 15, 9);
    ASSERT_EQ(Call(bmp, 0, 0, 1000), RC_SUCCESS);
    for (int32_t y = 0; y < 10; ++y)
      for (int32_t x = 0; x < 16; ++x) {
        const kit::Pixel &was = before[y * 16 + x];
        EXPECT_EQ(bmp.At(x, y), kit::InRegion(bmp, x, y) ? Rgb(top, top, top, was.v[3]) : was)
            << x << "," << y;
      }
    // -1000 subtracts one less than full scale: white becomes 1, darker becomes 0.
    kit::Bitmap dim(format, 2, 1, {Rgb(top, top, top, 3), Rgb(top / 2, top / 3, top / 4, 3)});
    ASSERT_EQ(Call(dim, 0, 0, -1000), RC_SUCCESS);
    EXPECT_EQ(dim.Pixels(), (std::vector<kit::Pixel>{Rgb(1, 1, 1, fourth), Rgb(0, 0, 0, fourth)}));
  }
}

TEST(Hsi, CancellationAndAllocationFailures) {
  const auto rows = [](kit::Format format, bool region) {
    return [=] {
      kit::Bitmap b(format, 6, 8);
      b.Randomize(9);
      if (region) kit::SetRectRegion(b, 1, 2, 5, 6);
      return b;
    };
  };
  const auto run = [](kit::Bitmap &b) { return Call(b, 3000, 200, -100); };
  EXPECT_GE(kit::CheckCancellation(rows(Kind(24), false), run), 8);
  EXPECT_GE(kit::CheckCancellation(rows(Kind(48), true), run), 4);
  // Row-buffer failure ends quietly with 1; the record copy's failure is -13.
  EXPECT_GT(kit::CheckAllocationFailures(rows(Kind(32), false), run,
                                         {RC_NO_MEMORY, RC_INVALID_PARAMETER, RC_SUCCESS}),
            4);
  std::vector<PaletteEntry> pal(16, PaletteEntry{10, 20, 30, 0});
  const auto palette = [&] { return kit::Bitmap(Kind(4), 2, 2, pal.data()); };
  EXPECT_GT(kit::CheckAllocationFailures(palette, run, {RC_NO_MEMORY, RC_INVALID_PARAMETER}), 2);
  // Kept statuses: the copy of the records is the first allocation.
  kit::LeakGuard guard;
  kit::Bitmap bmp = rows(Kind(24), false)();
  const auto before = bmp.Pixels();
  SetAllocationFailure(1);
  EXPECT_EQ(Call(bmp, 0, 0, 1000), RC_INVALID_PARAMETER);
  // Exactly one failure, the row buffer's, is a quiet success that changes nothing.
  int quiet = 0;
  for (uint32_t n = 2;; ++n) {
    SetAllocationFailure(n);
    const int32_t status = Call(bmp, 0, 0, 1000);
    const bool reached = GetAllocationFailureCountdown() == 0;
    SetAllocationFailure(0);
    if (!reached) break;
    if (status == RC_SUCCESS) ++quiet;
    EXPECT_EQ(bmp.Pixels(), before) << "allocation " << n;
  }
  EXPECT_EQ(quiet, 1);
}

}  // namespace
