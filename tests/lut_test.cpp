// ApplyLut, ApplyByteLut, AllocBitmapLut and the signed/unsigned shift,
// checked against expectations computed from the pixel values.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "kit.h"
#include "lut_simd.h"

namespace {

using kit::Pixel;
using kit::Spec;

enum class RegionShape { None, Rect, Ellipse };

const char *ShapeName(RegionShape s) {
  return s == RegionShape::None ? "none" : s == RegionShape::Rect ? "rect" : "ellipse";
}

void SetShape(BitmapRecord *b, RegionShape shape) {
  if (shape == RegionShape::Rect) kit::SetRectRegion(b, 5, 1, 60, 6);
  if (shape == RegionShape::Ellipse) kit::SetEllipseRegion(b, 3, 0, 50, 7);
}

// Significant bits of one sample as the kit stores it (palette colours: 8).
int32_t SampleBits(const Spec &s) {
  if (s.IsGray()) return s.bits;
  return s.bits >= 48 ? 16 : 8;
}

// The documented sample rule: entry masked to the sample's bits, signed
// samples stored as (entry XOR half); values past the table stay.
uint32_t MapSample(uint32_t v, const std::vector<int32_t> &table, int32_t bits, bool isSigned) {
  if (v >= table.size()) return v;
  uint32_t e = static_cast<uint32_t>(table[v]);
  if (isSigned) e ^= 1u << (bits - 1);
  return e & ((1u << bits) - 1u);
}

uint32_t Widen5(uint32_t v) { return (v << 3) | (v >> 2); }

// Maps the colour samples of pixel p that `channel` selects.
Pixel MapColor(const Spec &s, Pixel p, uint32_t channel, const std::function<uint32_t(uint32_t)> &f) {
  for (int c = 0; c < 3; ++c) {
    const bool selected =
        channel == 0 || channel == static_cast<uint32_t>(c + 1);  // v[0] red, v[1] green, v[2] blue
    if (!selected) continue;
    p.v[c] = s.bits == 16 ? f(Widen5(p.v[c])) >> 3 : f(p.v[c]);
  }
  return p;
}

// Nearest palette colour by squared distance, lowest index on ties; the
// current index when its colour is already exact.
uint32_t NearestIndex(const PaletteEntry *pal, int32_t count, uint32_t current, const Pixel &rgb) {
  auto dist = [&](int32_t i) {
    const int32_t dr = pal[i].Red - static_cast<int32_t>(rgb.v[0]);
    const int32_t dg = pal[i].Green - static_cast<int32_t>(rgb.v[1]);
    const int32_t db = pal[i].Blue - static_cast<int32_t>(rgb.v[2]);
    return dr * dr + dg * dg + db * db;
  };
  if (dist(static_cast<int32_t>(current)) == 0) return current;
  uint32_t best = 0;
  for (int32_t i = 1; i < count; ++i)
    if (dist(i) < dist(static_cast<int32_t>(best))) best = static_cast<uint32_t>(i);
  return best;
}

// Expected pixels and palette after a by-value pass of `f` over the samples.
struct Expected {
  std::vector<Pixel> pixels;
  std::vector<PaletteEntry> palette;
};

Expected Expect(const kit::Bitmap &bm, uint32_t channel, const std::function<uint32_t(uint32_t)> &f) {
  const Spec &s = bm.spec();
  const BitmapRecord *b = bm.get();
  Expected e;
  e.palette.assign(b->Palette ? b->Palette : nullptr, b->Palette ? b->Palette + b->ColorsUsed : nullptr);
  const bool region = BitmapHasRegion(b) != 0;
  if (s.IsPalette() && !region) {
    for (PaletteEntry &p : e.palette) {
      const Pixel m = MapColor(s, kit::Rgb(p.Red, p.Green, p.Blue), channel, f);
      p = PaletteEntry{static_cast<uint8_t>(m.v[2]), static_cast<uint8_t>(m.v[1]),
                       static_cast<uint8_t>(m.v[0]), p.Reserved};
    }
  }
  for (int32_t y = 0; y < b->Height; ++y)
    for (int32_t x = 0; x < b->Width; ++x) {
      Pixel p = bm.At(x, y);
      if (kit::InRegion(b, x, y)) {
        if (s.IsGray()) {
          p.v[0] = f(p.v[0]);
        } else if (s.IsPalette()) {
          if (region) {
            const Pixel m = MapColor(s, bm.ColorAt(x, y), channel, f);
            p.v[0] = NearestIndex(b->Palette, b->ColorsUsed, p.v[0], m);
          }
        } else {
          p = MapColor(s, p, channel, f);
        }
      }
      e.pixels.push_back(p);
    }
  return e;
}

void ExpectMatches(const kit::Bitmap &bm, const Expected &e) {
  const std::vector<Pixel> got = bm.Pixels();
  ASSERT_EQ(got.size(), e.pixels.size());
  for (size_t i = 0; i < got.size(); ++i)
    ASSERT_EQ(got[i], e.pixels[i]) << "pixel " << i % bm.get()->Width << "," << i / bm.get()->Width;
  for (size_t i = 0; i < e.palette.size(); ++i) {
    const PaletteEntry &a = bm.get()->Palette[i], &x = e.palette[i];
    ASSERT_TRUE(a.Blue == x.Blue && a.Green == x.Green && a.Red == x.Red) << "palette entry " << i;
  }
}

std::vector<int32_t> RandomTable(uint32_t length, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<int32_t> t(length);
  for (int32_t &v : t) v = static_cast<int32_t>(rng());
  return t;
}

uint32_t FullLength(const Spec &s) {
  if (s.bits >= 48) return 65536;
  if (s.IsGray()) return 1u << s.bits;
  return 256;
}

std::vector<img::LutPath> AvailablePaths() {
  std::vector<img::LutPath> paths;
  for (img::LutPath p : {img::LutPath::Scalar, img::LutPath::Ssse3, img::LutPath::Avx2})
    if (img::LutPathAvailable(p)) paths.push_back(p);
  return paths;
}

// Every kind and orientation, every region shape and channel, random tables
// covering the range and shorter ones, on every byte path.
TEST(ApplyLut, MatchesSampleRuleOnEveryKind) {
  kit::LeakGuard guard;
  uint32_t seed = 1;
  for (const Spec &s : kit::AllSpecs(true))
    for (RegionShape shape : {RegionShape::None, RegionShape::Rect, RegionShape::Ellipse})
      for (uint32_t channel = 0; channel <= 3; ++channel)
        for (uint32_t length : {FullLength(s), FullLength(s) / 2 + 3})
          for (img::LutPath path : AvailablePaths()) {
            SCOPED_TRACE(s.Name() + " region " + ShapeName(shape) + " channel " + std::to_string(channel) +
                         " length " + std::to_string(length) + " path " +
                         std::to_string(static_cast<int>(path)));
            kit::Bitmap bm(s, 71, 8);
            bm.Randomize(seed++);
            SetShape(bm, shape);
            const std::vector<int32_t> table = RandomTable(length, seed);
            const int32_t bits = SampleBits(s);
            const Expected e =
                Expect(bm, channel, [&](uint32_t v) { return MapSample(v, table, bits, false); });
            ASSERT_EQ(
                img::ApplyLutWithPath(bm, table.data(), length, LUT_INDEX_BY_VALUE | channel, 0, 100, path),
                RC_SUCCESS);
            ExpectMatches(bm, e);
          }
}

// The public entry takes the fastest path; its result equals the scalar one.
TEST(ApplyLut, PublicEntryEqualsScalarPath) {
  for (const Spec &s : {Spec{24, ORDER_BGR}, Spec{32, ORDER_RGB}, Spec{8, ORDER_GRAY}, Spec{8, ORDER_BGR}}) {
    SCOPED_TRACE(s.Name());
    kit::Bitmap a(s, 203, 5), b(s, 203, 5);
    a.Randomize(7);
    b.Randomize(7);
    kit::SetEllipseRegion(a, 0, 0, 190, 5);
    kit::SetEllipseRegion(b, 0, 0, 190, 5);
    const std::vector<int32_t> table = RandomTable(256, 3);
    ASSERT_EQ(ApplyLut(a, table.data(), 256, LUT_INDEX_BY_VALUE, 0, 100), RC_SUCCESS);
    ASSERT_EQ(img::ApplyLutWithPath(b, table.data(), 256, LUT_INDEX_BY_VALUE, 0, 100, img::LutPath::Scalar),
              RC_SUCCESS);
    EXPECT_EQ(a.StoredBytes(), b.StoredBytes());
  }
}

// Every byte path against a plain loop on random data, odd lengths and
// unaligned starts.
TEST(LutPaths, BitIdenticalToScalar) {
  std::mt19937 rng(11);
  std::vector<uint8_t> table(256), src(1100), want(1100), got(1100);
  for (int round = 0; round < 40; ++round) {
    for (auto &v : table) v = static_cast<uint8_t>(rng());
    for (auto &v : src) v = static_cast<uint8_t>(rng());
    const size_t offset = rng() % 13, count = rng() % (src.size() - offset);
    for (img::LutPath path : AvailablePaths()) {
      SCOPED_TRACE("path " + std::to_string(static_cast<int>(path)) + " count " + std::to_string(count));
      for (size_t i = 0; i < count; ++i) want[i] = table[src[offset + i]];
      img::MapBytes(path, table.data(), src.data() + offset, got.data(), count);
      ASSERT_TRUE(std::equal(want.begin(), want.begin() + count, got.begin()));
      for (size_t i = 0; i < count; ++i) want[i] = (i % 4 == 3) ? src[offset + i] : table[src[offset + i]];
      img::MapBytesKeepFourth(path, table.data(), src.data() + offset, got.data(), count);
      ASSERT_TRUE(std::equal(want.begin(), want.begin() + count, got.begin()));
      // In place.
      std::vector<uint8_t> inPlace(src.begin() + offset, src.begin() + offset + count);
      img::MapBytes(path, table.data(), inPlace.data(), inPlace.data(), count);
      for (size_t i = 0; i < count; ++i) ASSERT_EQ(inPlace[i], table[src[offset + i]]);
    }
  }
}

// Every byte value through every path: the sub-table split must not mix
// neighbouring sixteenths.
TEST(LutPaths, EveryValueEverySubTable) {
  std::vector<uint8_t> src(512), got(512), table(256);
  for (int i = 0; i < 512; ++i) src[i] = static_cast<uint8_t>(i * 7 + (i >> 8));
  for (int i = 0; i < 256; ++i) table[i] = static_cast<uint8_t>(i * 37 + 11);
  for (img::LutPath path : AvailablePaths()) {
    img::MapBytes(path, table.data(), src.data(), got.data(), src.size());
    for (int i = 0; i < 512; ++i)
      ASSERT_EQ(got[i], table[src[i]]) << "path " << static_cast<int>(path) << " i " << i;
  }
}

// An entry of all ones gives the largest sample; entries are masked to the
// sample's bits, not clamped.
TEST(ApplyLut, EntriesAreMaskedToSampleBits) {
  struct Case {
    Spec spec;
    int32_t entry;
    uint32_t expected;
  };
  const std::vector<Case> cases = {
      {{8, ORDER_GRAY}, -1, 255},        {{8, ORDER_GRAY}, 0x1234, 0x34}, {{12, ORDER_GRAY}, -1, 4095},
      {{12, ORDER_GRAY}, 0x5123, 0x123}, {{16, ORDER_GRAY}, -1, 65535},   {{16, ORDER_GRAY}, 0x12345, 0x2345},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.spec.Name());
    kit::Bitmap bm(c.spec, 3, 1, {kit::Level(0), kit::Level(1), kit::Level(2)});
    const std::vector<int32_t> table(FullLength(c.spec), c.entry);
    ASSERT_EQ(ApplyLut(bm, table.data(), static_cast<uint32_t>(table.size()), LUT_INDEX_BY_VALUE, 0, 100),
              RC_SUCCESS);
    for (int x = 0; x < 3; ++x) EXPECT_EQ(bm.At(x, 0).v[0], c.expected);
  }
  kit::Bitmap color({48, ORDER_BGR}, 1, 1, {kit::Rgb(1, 2, 3, 4)});
  const std::vector<int32_t> ones(65536, -1);
  ASSERT_EQ(ApplyLut(color, ones.data(), 65536, LUT_INDEX_BY_VALUE, 0, 100), RC_SUCCESS);
  EXPECT_EQ(color.At(0, 0), kit::Rgb(65535, 65535, 65535, 0));
}

// Samples at or past the table's end stay, also with a table of one entry.
TEST(ApplyLut, ShortTableLeavesHigherValues) {
  kit::Bitmap bm({24, ORDER_BGR}, 3, 1, {kit::Rgb(0, 1, 2), kit::Rgb(9, 10, 200), kit::Rgb(255, 3, 4)});
  const std::vector<int32_t> table = {100, 101, 102, 103, 104, 105, 106, 107, 108, 109};
  ASSERT_EQ(ApplyLut(bm, table.data(), 10, LUT_INDEX_BY_VALUE, 0, 100), RC_SUCCESS);
  EXPECT_EQ(bm.At(0, 0), kit::Rgb(100, 101, 102));
  EXPECT_EQ(bm.At(1, 0), kit::Rgb(109, 10, 200));
  EXPECT_EQ(bm.At(2, 0), kit::Rgb(255, 103, 104));
  const int32_t one = 77;
  ASSERT_EQ(ApplyLut(bm, &one, 1, LUT_INDEX_BY_VALUE, 0, 100), RC_SUCCESS);
  EXPECT_EQ(bm.At(0, 0), kit::Rgb(100, 101, 102));
}

// The fourth sample of 32- and 64-bit pixels is never a colour.
TEST(ApplyLut, FourthSampleUntouched) {
  for (const Spec &s : {Spec{32, ORDER_BGR}, Spec{64, ORDER_RGB}}) {
    SCOPED_TRACE(s.Name());
    kit::Bitmap bm(s, 40, 2);
    bm.Randomize(5);
    const std::vector<Pixel> before = bm.Pixels();
    std::vector<int32_t> table(FullLength(s));
    for (size_t i = 0; i < table.size(); ++i) table[i] = static_cast<int32_t>(table.size() - 1 - i);
    ASSERT_EQ(ApplyLut(bm, table.data(), static_cast<uint32_t>(table.size()), LUT_INDEX_BY_VALUE, 0, 100),
              RC_SUCCESS);
    const std::vector<Pixel> after = bm.Pixels();
    const uint32_t max = s.SampleMax();
    for (size_t i = 0; i < before.size(); ++i) {
      EXPECT_EQ(after[i].v[3], before[i].v[3]);
      EXPECT_EQ(after[i].v[0], max - before[i].v[0]);
    }
  }
}

// A gray-ramp palette inverted inside a region: pixels inside take the
// mirrored index, the palette and the pixels outside stay.
TEST(ApplyLut, PaletteRegionTakesNearestColour) {
  for (int32_t bits : {1, 4, 8}) {
    SCOPED_TRACE(bits);
    kit::Bitmap bm({bits, ORDER_BGR}, 20, 4);
    bm.Randomize(3);
    kit::SetRectRegion(bm, 2, 1, 15, 3);
    const std::vector<Pixel> before = bm.Pixels();
    const std::vector<PaletteEntry> palette(bm->Palette, bm->Palette + bm->ColorsUsed);
    std::vector<int32_t> table(256);
    for (int i = 0; i < 256; ++i) table[i] = 255 - i;
    ASSERT_EQ(ApplyLut(bm, table.data(), 256, LUT_INDEX_BY_VALUE, 0, 100), RC_SUCCESS);
    const uint32_t top = (1u << bits) - 1;
    for (int32_t y = 0; y < 4; ++y)
      for (int32_t x = 0; x < 20; ++x) {
        const uint32_t was = before[y * 20 + x].v[0];
        EXPECT_EQ(bm.At(x, y).v[0], (x >= 2 && x < 15 && y >= 1 && y < 3) ? top - was : was) << x << "," << y;
      }
    EXPECT_EQ(std::memcmp(palette.data(), bm->Palette, palette.size() * sizeof(PaletteEntry)), 0);
  }
}

// Without the by-value bit, a bitmap that uses its attached table has that
// table changed and its pixels left alone; with the bit, the pixels change.
TEST(ApplyLut, AttachedTable) {
  kit::LeakGuard guard;
  kit::Bitmap bm({8, ORDER_GRAY}, 4, 1, {kit::Level(0), kit::Level(5), kit::Level(9), kit::Level(255)});
  const int32_t attached[] = {0, 5, 255, 256, -1, 9};
  bm->AttachedLut = static_cast<int32_t *>(AllocZeroed(6, sizeof(int32_t), __LINE__, L"tests/lut"));
  std::memcpy(bm->AttachedLut, attached, sizeof attached);
  bm->AttachedLutLength = 6;
  bm->Flags |= BITMAP_USE_ATTACHED_LUT;
  std::vector<int32_t> table(256);
  for (int i = 0; i < 256; ++i) table[i] = 2 * i + 1;
  ASSERT_EQ(ApplyLut(bm, table.data(), 256, LUT_CHANNEL_GREEN, 0, 100), RC_SUCCESS);
  const int32_t want[] = {1, 11, 511, 256, -1, 19};
  for (int i = 0; i < 6; ++i) EXPECT_EQ(bm->AttachedLut[i], want[i]) << i;
  EXPECT_EQ(bm.At(1, 0).v[0], 5u);
  ASSERT_EQ(ApplyLut(bm, table.data(), 256, LUT_INDEX_BY_VALUE, 0, 100), RC_SUCCESS);
  EXPECT_EQ(bm.At(1, 0).v[0], 11u);
  EXPECT_EQ(bm.At(3, 0).v[0], 255u);  // 511 masked to 8 bits
  EXPECT_EQ(bm->AttachedLut[1], 11);
}

// An identity table rotated for signed data leaves every signed bitmap as it
// was; this is what the point operations rely on.
TEST(ApplyLut, RotatedIdentityKeepsSignedSamples) {
  for (const Spec &s : kit::AllSpecs()) {
    if (s.IsPalette()) continue;
    SCOPED_TRACE(s.Name());
    kit::Bitmap bm(s, 33, 3);
    bm.Randomize(21);
    bm->Flags |= BITMAP_SIGNED;
    int32_t *table = nullptr;
    uint32_t length = 0;
    ASSERT_EQ(AllocBitmapLut(bm, &table, &length), RC_SUCCESS);
    for (uint32_t i = 0; i < length; ++i) table[i] = static_cast<int32_t>(i);
    ShiftLutForSigned(table, length);
    const std::vector<uint8_t> before = bm.StoredBytes();
    EXPECT_EQ(ApplyLut(bm, table, length, LUT_INDEX_BY_VALUE, 0, 100), RC_SUCCESS);
    FreeMemory(table, __LINE__, L"tests/lut");
    EXPECT_EQ(bm.StoredBytes(), before);
  }
}

// Inverting (255 - i, offset form) on signed 8-bit gray gives -s - 1.
TEST(ApplyLut, InvertingSignedGray) {
  const int8_t values[] = {-128, -1, 0, 1, 5, 127, -77};
  std::vector<Pixel> px;
  for (int8_t v : values) px.push_back(kit::Level(static_cast<uint8_t>(v)));
  kit::Bitmap bm({8, ORDER_GRAY}, 7, 1, px);
  bm->Flags |= BITMAP_SIGNED;
  std::vector<int32_t> table(256);
  for (int i = 0; i < 256; ++i) table[i] = 255 - i;
  ShiftLutForSigned(table.data(), 256);
  ASSERT_EQ(ApplyLut(bm, table.data(), 256, LUT_INDEX_BY_VALUE, 0, 100), RC_SUCCESS);
  for (int x = 0; x < 7; ++x)
    EXPECT_EQ(static_cast<int8_t>(bm.At(x, 0).v[0]), static_cast<int8_t>(-values[x] - 1)) << int{values[x]};
}

TEST(ApplyLut, Statuses) {
  kit::Bitmap bm({24, ORDER_BGR}, 4, 4);
  BitmapRecord empty = *bm.get();
  empty.Flags &= ~BITMAP_ALLOCATED;
  BitmapRecord badSize = *bm.get();
  badSize.StructSize = 200;
  const std::vector<int32_t> table(256, 0);
  const int32_t *t = table.data();
  kit::ExpectStatuses({
      {"null bitmap", [&] { return ApplyLut(nullptr, t, 256, LUT_INDEX_BY_VALUE, 0, 100); }, RC_NO_BITMAP},
      {"no pixels", [&] { return ApplyLut(&empty, t, 256, LUT_INDEX_BY_VALUE, 0, 100); }, RC_NO_BITMAP},
      {"record size", [&] { return ApplyLut(&badSize, t, 256, LUT_INDEX_BY_VALUE, 0, 100); },
       RC_INVALID_STRUCT_SIZE},
      {"null table", [&] { return ApplyLut(bm, nullptr, 256, LUT_INDEX_BY_VALUE, 0, 100); },
       RC_INVALID_PARAMETER},
      {"length 0", [&] { return ApplyLut(bm, t, 0, LUT_INDEX_BY_VALUE, 0, 100); }, RC_INVALID_PARAMETER},
      {"channel 4", [&] { return ApplyLut(bm, t, 256, LUT_INDEX_BY_VALUE | 4, 0, 100); },
       RC_INVALID_PARAMETER},
      {"176-byte record",
       [&] {
         BitmapRecord old = *bm.get();
         old.StructSize = BITMAP_RECORD_SIZE_OLD;
         return ApplyLut(&old, t, 256, LUT_INDEX_BY_VALUE, 0, 100);
       },
       RC_SUCCESS},
      {"byte null table", [&] { return ApplyByteLut(bm, nullptr, 0, 0, 100); }, RC_NULL_OPTIONS},
      {"byte channel 4", [&] { return ApplyByteLut(bm, reinterpret_cast<const uint8_t *>(t), 4, 0, 100); },
       RC_INVALID_PARAMETER},
      {"byte null bitmap",
       [&] { return ApplyByteLut(nullptr, reinterpret_cast<const uint8_t *>(t), 0, 0, 100); }, RC_NO_BITMAP},
  });
}

TEST(AllocBitmapLut, LengthsAndStatuses) {
  kit::LeakGuard guard;
  struct Case {
    Spec spec;
    int32_t low, high;
    uint32_t length;
  };
  const std::vector<Case> cases = {
      {{1, ORDER_BGR}, 0, -1, 256},    {{8, ORDER_BGR}, 0, -1, 256},     {{16, ORDER_BGR}, 0, -1, 256},
      {{24, ORDER_RGB}, 0, -1, 256},   {{32, ORDER_BGR}, 0, -1, 256},    {{48, ORDER_BGR}, 0, -1, 65536},
      {{64, ORDER_BGR}, 0, -1, 65536}, {{8, ORDER_GRAY}, 0, -1, 256},    {{12, ORDER_GRAY}, 0, -1, 4096},
      {{12, ORDER_GRAY}, 0, 11, 4096}, {{16, ORDER_GRAY}, 0, -1, 65536}, {{16, ORDER_GRAY}, 0, 9, 1024},
      {{16, ORDER_GRAY}, 4, 15, 4096},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.spec.Name() + " high " + std::to_string(c.high));
    kit::Bitmap bm(c.spec, 2, 2);
    bm->SignificantLowBit = c.low;
    bm->SignificantHighBit = c.high;
    int32_t *table = nullptr;
    uint32_t length = 0;
    ASSERT_EQ(AllocBitmapLut(bm, &table, &length), RC_SUCCESS);
    EXPECT_EQ(length, c.length);
    for (uint32_t i = 0; i < length; ++i) ASSERT_EQ(table[i], 0);
    FreeMemory(table, __LINE__, L"tests/lut");
  }
  kit::Bitmap bm({24, ORDER_BGR}, 2, 2);
  int32_t *table = nullptr;
  uint32_t length = 0;
  BitmapRecord badSize = *bm.get();
  badSize.StructSize = 0;
  kit::ExpectStatuses({
      {"null bitmap", [&] { return AllocBitmapLut(nullptr, &table, &length); }, RC_NO_BITMAP},
      {"null table place", [&] { return AllocBitmapLut(bm, nullptr, &length); }, RC_NULL_OPTIONS},
      {"null length place", [&] { return AllocBitmapLut(bm, &table, nullptr); }, RC_NULL_OPTIONS},
      {"record size", [&] { return AllocBitmapLut(&badSize, &table, &length); }, RC_INVALID_STRUCT_SIZE},
  });
  const int failed = kit::CheckAllocationFailures(
      [] {
        return kit::Bitmap({8, ORDER_GRAY}, 2, 2);
      },
      [&](kit::Bitmap &b) {
        const int32_t status = AllocBitmapLut(b, &table, &length);
        if (status == RC_SUCCESS) FreeMemory(table, __LINE__, L"tests/lut");
        return status;
      });
  EXPECT_EQ(failed, 1);
}

// ApplyByteLut on an 8-bit scale: 16-bit samples t[v >> 8] * 257, 12-bit
// t[v >> 4] << 4 | t[v >> 4] >> 4, 5-5-5 widened and narrowed.
TEST(ApplyByteLut, MapsOnEightBitScale) {
  std::vector<uint8_t> table(256);
  std::mt19937 rng(9);
  for (auto &v : table) v = static_cast<uint8_t>(rng());
  uint32_t seed = 40;
  for (const Spec &s : kit::AllSpecs(true))
    for (RegionShape shape : {RegionShape::None, RegionShape::Ellipse})
      for (uint32_t channel : {0u, 2u}) {
        SCOPED_TRACE(s.Name() + " region " + ShapeName(shape) + " channel " + std::to_string(channel));
        kit::Bitmap bm(s, 67, 8);
        bm.Randomize(seed++);
        SetShape(bm, shape);
        const int32_t bits = SampleBits(s);
        const Expected e = Expect(bm, channel, [&](uint32_t v) -> uint32_t {
          if (bits == 8) return table[v];
          if (bits == 12) return (table[v >> 4] << 4) | (table[v >> 4] >> 4);
          return table[v >> 8] * 257u;
        });
        ASSERT_EQ(ApplyByteLut(bm, table.data(), channel, 0, 100), RC_SUCCESS);
        ExpectMatches(bm, e);
      }
}

// Adding half the range to every stored sample, fourth samples included,
// and back.
TEST(SignedShift, RoundTrip) {
  for (const Spec &s : kit::AllSpecs()) {
    SCOPED_TRACE(s.Name());
    kit::Bitmap bm(s, 19, 3);
    bm.Randomize(31);
    bm->Flags |= BITMAP_SIGNED;
    const std::vector<Pixel> before = bm.Pixels();
    const std::vector<uint8_t> stored = bm.StoredBytes();
    ASSERT_EQ(SignedToUnsigned(bm, 0, 0), RC_SUCCESS);
    EXPECT_TRUE(bm->Flags & BITMAP_SIGNED);
    const std::vector<Pixel> shifted = bm.Pixels();
    const uint32_t range = s.IsPalette() ? 0 : s.SampleMax() + 1;
    for (size_t i = 0; i < before.size(); ++i)
      for (int c = 0; c < s.Channels(); ++c) {
        const uint32_t want = s.IsPalette() ? before[i].v[c] : (before[i].v[c] + range / 2) % range;
        ASSERT_EQ(shifted[i].v[c], want) << "pixel " << i << " sample " << c;
      }
    ASSERT_EQ(UnsignedToSigned(bm, 1, 0), RC_SUCCESS);
    EXPECT_EQ(bm.StoredBytes(), stored);
  }
  kit::Bitmap gray({16, ORDER_GRAY}, 3, 1, {kit::Level(0), kit::Level(511), kit::Level(1023)});
  gray->SignificantHighBit = 9;  // 10 bits: half is 512, modulo 1024
  ASSERT_EQ(SignedToUnsigned(gray, 0, 0), RC_SUCCESS);
  EXPECT_EQ(gray.At(0, 0).v[0], 512u);
  EXPECT_EQ(gray.At(1, 0).v[0], 1023u);
  EXPECT_EQ(gray.At(2, 0).v[0], 511u);
  EXPECT_EQ(SignedToUnsigned(nullptr, 0, 0), RC_NO_BITMAP);
}

// Progress from start to end, one report per changed percentage; an answer
// other than 1 stops at once, with the rows done kept.
TEST(ApplyLut, ProgressAndCancellation) {
  std::vector<int32_t> table(256);
  for (int i = 0; i < 256; ++i) table[i] = 255 - i;
  {
    kit::Bitmap bm({24, ORDER_BGR}, 8, 10);
    kit::ScopedCallback cb([](int32_t) { return RC_SUCCESS; });
    ASSERT_EQ(ApplyLut(bm, table.data(), 256, LUT_INDEX_BY_VALUE, 20, 60), RC_SUCCESS);
    ASSERT_FALSE(cb.Reports().empty());
    EXPECT_EQ(cb.Reports().front(), 20);
    EXPECT_EQ(cb.Reports().back(), 60);
    for (size_t i = 1; i < cb.Reports().size(); ++i) EXPECT_GT(cb.Reports()[i], cb.Reports()[i - 1]);
  }
  {
    kit::Bitmap bm({24, ORDER_BGR}, 8, 10);
    int seen = 0;
    kit::ScopedCallback cb([&](int32_t) { return ++seen == 3 ? 0 : RC_SUCCESS; });
    ASSERT_EQ(ApplyLut(bm, table.data(), 256, LUT_INDEX_BY_VALUE, 0, 100), 0);
    // Reports: start, after row 0, after row 1 (refused): two rows changed.
    for (int32_t y = 0; y < 10; ++y)
      EXPECT_EQ(bm.At(0, y), y < 2 ? kit::Rgb(255, 255, 255) : kit::Rgb(0, 0, 0)) << y;
  }
  for (const Spec &s : {Spec{24, ORDER_BGR}, Spec{48, ORDER_RGB}, Spec{4, ORDER_BGR}, Spec{12, ORDER_GRAY}}) {
    SCOPED_TRACE(s.Name());
    const std::vector<int32_t> wide(65536, 3);
    const int reports = kit::CheckCancellation(
        [&] {
          kit::Bitmap bm(s, 9, 12);
          kit::SetEllipseRegion(bm, 0, 0, 9, 12);
          return bm;
        },
        [&](kit::Bitmap &bm) { return ApplyLut(bm, wide.data(), 65536, LUT_INDEX_BY_VALUE, 0, 100); });
    EXPECT_EQ(reports, 13);
  }
}

// Each allocation (run list of the region, 16-bit table) failing in turn
// gives -1 and leaks nothing.
TEST(ApplyLut, AllocationFailures) {
  const std::vector<int32_t> table(65536, 9);
  struct Case {
    Spec spec;
    bool region;
    int allocations;
  };
  for (const Case &c : {Case{{48, ORDER_BGR}, true, 2}, Case{{16, ORDER_GRAY}, false, 1},
                        Case{{24, ORDER_BGR}, true, 1}, Case{{8, ORDER_BGR}, true, 1}}) {
    SCOPED_TRACE(c.spec.Name());
    const int failed = kit::CheckAllocationFailures(
        [&] {
          kit::Bitmap bm(c.spec, 6, 5);
          if (c.region) kit::SetEllipseRegion(bm, 0, 0, 6, 5);
          return bm;
        },
        [&](kit::Bitmap &bm) { return ApplyLut(bm, table.data(), 65536, LUT_INDEX_BY_VALUE, 0, 100); });
    EXPECT_EQ(failed, c.allocations);
  }
}

}  // namespace
