// ApplyLut, ApplyByteLut, AllocBitmapLut, the byte lookup paths and the signed/unsigned shift.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "kit.h"
#include "lut_simd.h"

namespace {

using kit::Pixel, kit::Format;
// Pixels and palette colours of a bitmap.
using State = std::pair<std::vector<Pixel>, std::vector<Pixel>>;

State StateOf(const kit::Bitmap &bm) {
  State s{bm.Pixels(), {}};
  for (int32_t i = 0; bm.get()->Palette && i < bm.get()->ColorsUsed; ++i)
    s.second.push_back(
        kit::Rgb(bm.get()->Palette[i].Red, bm.get()->Palette[i].Green, bm.get()->Palette[i].Blue));
  return s;
}

// Nearest palette colour by squared distance, lowest index on ties; the
// current index when its colour is already exact.
uint32_t Nearest(const std::vector<Pixel> &pal, uint32_t current, const Pixel &c) {
  auto dist = [&](uint32_t i) {
    const int32_t r = int32_t(pal[i].v[0] - c.v[0]), g = int32_t(pal[i].v[1] - c.v[1]),
                  b = int32_t(pal[i].v[2] - c.v[2]);
    return r * r + g * g + b * b;
  };
  if (dist(current) == 0) return current;
  uint32_t best = 0;
  for (uint32_t i = 1; i < pal.size(); ++i) best = dist(i) < dist(best) ? i : best;
  return best;
}

// The state after mapping the samples `channel` selects inside the region
// through f (5-5-5 widened and narrowed); palette bitmaps map their palette
// without a region and take the nearest colour with one.
State Expect(const kit::Bitmap &bm, uint32_t channel, const std::function<uint32_t(uint32_t)> &f) {
  const Format &s = bm.format();
  const bool region = BitmapHasRegion(bm.get()) != 0;
  auto map = [&](Pixel p) {  // v[0] red, v[1] green, v[2] blue
    for (uint32_t c = 0; c < 3; ++c)
      if (channel == 0 || channel == c + 1)
        p.v[c] = s.bits == 16 ? f((p.v[c] << 3) | (p.v[c] >> 2)) >> 3 : f(p.v[c]);
    return p;
  };
  State e = StateOf(bm);
  for (Pixel &p : e.second) p = region || !s.IsPalette() ? p : map(p);  // 8-bit gray keeps its ramp
  for (int32_t y = 0; y < bm.get()->Height; ++y)
    for (int32_t x = 0; x < bm.get()->Width; ++x) {
      Pixel &p = e.first[y * bm.get()->Width + x];
      if (!kit::InRegion(bm.get(), x, y)) continue;
      if (!s.IsPalette()) p = s.IsGray() ? kit::Level(f(p.v[0])) : map(p);
      if (s.IsPalette() && region) p.v[0] = Nearest(e.second, p.v[0], map(bm.ColorAt(x, y)));
    }
  return e;
}

uint32_t FullLength(const Format &s) { return s.bits >= 48 ? 65536 : s.IsGray() ? 1u << s.bits : 256; }

// The instruction sets this machine can run.
const std::vector<img::Isa> kPaths = [] {
  std::vector<img::Isa> paths;
  for (img::Isa p : img::kAllIsas)
    if (img::IsaAvailable(p)) paths.push_back(p);
  return paths;
}();

// Every kind and orientation (signed too), region shape and channel, random
// tables covering the range and shorter ones, through the public entry,
// every byte path the machine supports, and ApplyByteLut on its 8-bit scale.
TEST(ApplyLut, MatchesSampleRuleOnEveryKind) {
  kit::LeakGuard guard;
  std::vector<uint8_t> bytes(256);
  uint32_t seed = 1;
  for (const Format &s : kit::AllFormats(true))
    for (int shape = 0; shape < 3; ++shape)
      for (uint32_t channel = 0; channel <= 3; ++channel)
        for (uint32_t length : {FullLength(s), FullLength(s) / 2 + 3})
          for (int path = -2; path < static_cast<int>(kPaths.size()); ++path) {  // -2 bytes, -1 public
            if (path == -2 && length != FullLength(s)) continue;
            SCOPED_TRACE(testing::Message() << s.Name() << " shape " << shape << " channel " << channel
                                            << " length " << length << " path " << path);
            kit::Bitmap bm(s, 71, 8);
            bm.Randomize(seed++);
            const bool isSigned = !s.IsPalette() && (s.IsGray() || s.bits != 16) && seed % 3 == 0;
            if (isSigned) bm->Flags |= BITMAP_SIGNED;
            if (shape == 1) kit::SetRectRegion(bm, 5, 1, 60, 6);
            if (shape == 2) kit::SetEllipseRegion(bm, 3, 0, 50, 7);
            std::mt19937 rng(seed);
            std::vector<int32_t> table(length);
            for (int32_t &v : table) v = static_cast<int32_t>(rng());
            for (size_t i = 0; i < 256; ++i) bytes[i] = static_cast<uint8_t>(table[i % length] >> 8);
            const int32_t bits = s.IsGray() ? s.bits : s.bits >= 48 ? 16 : 8;
            const State e = Expect(bm, channel, [&](uint32_t v) -> uint32_t {
              if (path == -2 && bits == 8) return bytes[v];
              if (path == -2 && bits == 12) return (bytes[v >> 4] << 4) | (bytes[v >> 4] >> 4);
              if (path == -2) return bytes[v >> 8] * 257u;
              if (v >= length) return v;  // entries masked; signed entries are offsets
              return (static_cast<uint32_t>(table[v]) ^ (isSigned ? 1u << (bits - 1) : 0)) &
                     ((1u << bits) - 1);
            });
            const uint32_t mode = LUT_INDEX_BY_VALUE | channel;
            const int32_t status =
                path == -2   ? ApplyByteLut(bm, bytes.data(), channel, 0, 100)
                : path == -1 ? ApplyLut(bm, table.data(), length, mode, 0, 100)
                             : img::ApplyLutWithPath(bm, table.data(), length, mode, 0, 100, kPaths[path]);
            ASSERT_EQ(status, RC_SUCCESS);
            ASSERT_EQ(StateOf(bm), e);
          }
}

// Tables of the form v -> v ^ k (inversion, a random k) take the XOR loops
// on every path but the scalar one, which looks them up: every kind (signed
// too), with and without a region, all channels and one, odd widths.
TEST(ApplyLut, XorFormMatchesLookupOnEveryPath) {
  kit::LeakGuard guard;
  uint32_t seed = 5;
  for (const Format &s : kit::AllFormats(true))
    for (int shape = 0; shape < 2; ++shape)
      for (uint32_t channel : {LUT_CHANNEL_ALL, LUT_CHANNEL_GREEN})
        for (bool invert : {true, false}) {
          const uint32_t length = FullLength(s);
          const uint32_t k = invert ? length - 1 : (seed * 2654435761u) & (length - 1);
          std::vector<int32_t> table(length);
          for (uint32_t v = 0; v < length; ++v) table[v] = static_cast<int32_t>(v ^ k);
          const bool isSigned = !s.IsPalette() && s.bits != 16 && seed % 2 == 0;
          auto make = [&] {
            kit::Bitmap bm(s, 77, 5);
            bm.Randomize(seed);
            if (isSigned) bm->Flags |= BITMAP_SIGNED;
            if (shape) kit::SetEllipseRegion(bm, 3, 0, 60, 5);
            return bm;
          };
          kit::Bitmap want = make();
          const uint32_t mode = LUT_INDEX_BY_VALUE | channel;
          ASSERT_EQ(img::ApplyLutWithPath(want, table.data(), length, mode, 0, 100, img::Isa::Scalar),
                    RC_SUCCESS);
          for (img::Isa path : kPaths) {
            SCOPED_TRACE(testing::Message() << s.Name() << " shape " << shape << " channel " << channel
                                            << " k " << k << " " << img::IsaName(path));
            kit::Bitmap got = make();
            ASSERT_EQ(img::ApplyLutWithPath(got, table.data(), length, mode, 0, 100, path), RC_SUCCESS);
            ASSERT_EQ(got.StoredBytes(), want.StoredBytes());
          }
          ++seed;
        }
}

// Every byte path against a plain loop: random data, odd lengths, unaligned
// starts, in place, and every byte value (the sub-table split must not mix
// neighbouring sixteenths).
TEST(LutPaths, BitIdenticalToScalar) {
  std::mt19937 rng(11);
  std::vector<uint8_t> table(256), src(1100), want(1100), got(1100);
  for (int round = 0; round < 40; ++round) {
    for (auto &v : table) v = static_cast<uint8_t>(rng());
    for (size_t i = 0; i < src.size(); ++i)
      src[i] = round == 0 ? static_cast<uint8_t>(i * 7 + (i >> 8)) : rng();
    const size_t offset = round == 0 ? 0 : rng() % 13,
                 count = round == 0 ? 512 : rng() % (src.size() - offset);
    for (img::Isa path : kPaths) {
      SCOPED_TRACE(std::string(img::IsaName(path)) + " count " + std::to_string(count));
      for (size_t i = 0; i < count; ++i) want[i] = table[src[offset + i]];
      img::MapBytes(path, table.data(), src.data() + offset, got.data(), count);
      ASSERT_TRUE(std::equal(want.begin(), want.begin() + count, got.begin()));
      std::vector<uint8_t> inPlace(src.begin() + offset, src.begin() + offset + count);
      img::MapBytes(path, table.data(), inPlace.data(), inPlace.data(), count);
      ASSERT_TRUE(std::equal(want.begin(), want.begin() + count, inPlace.begin()));
      for (size_t i = 3; i < count; i += 4) want[i] = src[offset + i];
      img::MapBytesKeepFourth(path, table.data(), src.data() + offset, got.data(), count);
      ASSERT_TRUE(std::equal(want.begin(), want.begin() + count, got.begin()));
    }
  }
}

// Without the by-value bit, a bitmap that uses its attached table has that
// table changed (entries outside the table stay) and its pixels left alone.
// With the bit the pixels change: entries masked to the sample's bits (all
// ones gives the largest value, never a clamp), values at or past the
// table's end kept.
TEST(ApplyLut, AttachedTableMaskingAndShortTables) {
  kit::LeakGuard guard;
  kit::Bitmap bm({8, ORDER_GRAY}, 5, 1,
                 {kit::Level(0), kit::Level(5), kit::Level(9), kit::Level(10), kit::Level(255)});
  const int32_t attached[] = {0, 5, 255, 256, -1, 9};
  bm->AttachedLut = static_cast<int32_t *>(AllocZeroed(6, sizeof(int32_t), __LINE__, L"tests/lut"));
  std::memcpy(bm->AttachedLut, attached, sizeof attached);
  bm->AttachedLutLength = 6;
  bm->Flags |= BITMAP_USE_ATTACHED_LUT;
  std::vector<int32_t> table(256);
  for (int i = 0; i < 256; ++i) table[i] = i == 0 ? -1 : 2 * i + 1;
  ASSERT_EQ(ApplyLut(bm, table.data(), 256, LUT_CHANNEL_GREEN, 0, 100), RC_SUCCESS);
  EXPECT_EQ(std::vector<int32_t>(bm->AttachedLut, bm->AttachedLut + 6),
            (std::vector<int32_t>{-1, 11, 511, 256, -1, 19}));
  EXPECT_EQ(bm.At(1, 0).v[0], 5u);
  ASSERT_EQ(ApplyLut(bm, table.data(), 10, LUT_INDEX_BY_VALUE, 0, 100), RC_SUCCESS);
  EXPECT_EQ(bm.Pixels(), (std::vector<Pixel>{kit::Level(255), kit::Level(11), kit::Level(19), kit::Level(10),
                                             kit::Level(255)}));
  EXPECT_EQ(bm->AttachedLut[1], 11);
}

// Signed bitmaps: an identity table rotated by ShiftLutForSigned leaves them
// as they were; an inverting one on signed 8-bit gray turns s into -s - 1.
// SignedToUnsigned adds half the range to every stored sample, fourth
// samples included, modulo 2^significant bits; UnsignedToSigned undoes it.
TEST(ApplyLut, SignedData) {
  kit::LeakGuard guard;
  for (const Format &s : kit::AllFormats()) {
    if (s.IsPalette()) continue;
    kit::Bitmap bm(s, 33, 3);
    bm.Randomize(21);
    bm->Flags |= BITMAP_SIGNED;
    const std::vector<uint8_t> stored = bm.StoredBytes();
    std::vector<Pixel> shifted = bm.Pixels();
    for (Pixel &p : shifted)
      for (int c = 0; c < s.Channels(); ++c)
        p.v[c] = (p.v[c] + (s.SampleMax() + 1) / 2) % (s.SampleMax() + 1);
    int32_t *table = nullptr;
    uint32_t length = 0;
    ASSERT_EQ(AllocBitmapLut(bm, &table, &length), RC_SUCCESS);
    for (uint32_t i = 0; i < length; ++i) table[i] = static_cast<int32_t>(i);
    ShiftLutForSigned(table, length);
    EXPECT_EQ(ApplyLut(bm, table, length, LUT_INDEX_BY_VALUE, 0, 100), RC_SUCCESS);
    FreeMemory(table, __LINE__, L"tests/lut");
    EXPECT_EQ(bm.StoredBytes(), stored) << s.Name();
    ASSERT_EQ(SignedToUnsigned(bm, 0, 0), RC_SUCCESS);
    EXPECT_TRUE(bm->Flags & BITMAP_SIGNED);
    EXPECT_EQ(bm.Pixels(), shifted) << s.Name();
    ASSERT_EQ(UnsignedToSigned(bm, 1, 0), RC_SUCCESS);
    EXPECT_EQ(bm.StoredBytes(), stored) << s.Name();
  }
  // 10 bits: half is 512, modulo 1024; bits above the ten are kept, so the
  // shift and its inverse give back every stored pattern.
  kit::Bitmap gray({16, ORDER_GRAY}, 4, 1,
                   {kit::Level(0), kit::Level(511), kit::Level(1023), kit::Level(0xFC05)});
  gray->SignificantHighBit = 9;
  ASSERT_EQ(SignedToUnsigned(gray, 0, 0), RC_SUCCESS);
  EXPECT_EQ(gray.Pixels(),
            (std::vector<Pixel>{kit::Level(512), kit::Level(1023), kit::Level(511), kit::Level(0xFE05)}));
  ASSERT_EQ(UnsignedToSigned(gray, 1, 0), RC_SUCCESS);
  EXPECT_EQ(gray.At(3, 0), kit::Level(0xFC05));

  const int8_t values[] = {-128, -1, 0, 1, 5, 127, -77};
  kit::Bitmap bm({8, ORDER_GRAY}, 7, 1);
  for (int x = 0; x < 7; ++x) bm.Set(x, 0, kit::Level(static_cast<uint8_t>(values[x])));
  bm->Flags |= BITMAP_SIGNED;
  std::vector<int32_t> table(256);
  for (int i = 0; i < 256; ++i) table[i] = 255 - i;
  ShiftLutForSigned(table.data(), 256);
  ASSERT_EQ(ApplyLut(bm, table.data(), 256, LUT_INDEX_BY_VALUE, 0, 100), RC_SUCCESS);
  for (int x = 0; x < 7; ++x)
    EXPECT_EQ(static_cast<int8_t>(bm.At(x, 0).v[0]), static_cast<int8_t>(-values[x] - 1)) << int{values[x]};
}

// Table lengths by kind and significant bits, zeroed, allocation failure;
// statuses of every export in check order. Gray bits are read one way by the
// length, the sample range and the samples a table maps: every stored bit
// when the high bit is -1, else High - Low + 1 (-2 and -2 is one bit); a
// count outside 1..16 (length 0) is refused by all with -13. The highest
// stored pattern lies above a short range and stays.
TEST(Lut, LengthsAndStatuses) {
  kit::LeakGuard guard;
  const int32_t B = ORDER_BGR, G = ORDER_GRAY, N = INT32_MIN, X = INT32_MAX;
  const int32_t cases[][5] = {// bits, order, low, high, length
                              {1, B, 0, -1, 256},    {16, B, 0, -1, 256}, {48, B, 0, -1, 65536},
                              {64, 0, 0, -1, 65536}, {8, G, 0, -1, 256},  {12, G, 0, -1, 4096},
                              {16, G, 0, -1, 65536}, {16, G, 0, 9, 1024}, {16, G, 4, 15, 4096},
                              {16, G, -2, -2, 2},    {16, G, -5, -2, 16}, {8, G, 0, 4, 32},
                              {8, G, -3, -3, 2},     {16, G, 0, -2, 0},   {16, G, 9, 2, 0},
                              {16, G, 0, 16, 0},     {12, G, 0, X, 0},    {16, G, N, 5, 0}};
  int32_t *table = nullptr;
  uint32_t length = 0;
  for (auto [bits, order, low, high, n] : cases) {
    SCOPED_TRACE(std::to_string(bits) + " bits, low " + std::to_string(low) + " high " +
                 std::to_string(high));
    const uint32_t stored = bits == 8 ? 0xFFu : 0xFFFFu, top = static_cast<uint32_t>(n) - 1;
    kit::Bitmap bm({bits, order}, 3, 1, {kit::Level(1), kit::Level(top), kit::Level(stored)});
    bm->SignificantLowBit = low, bm->SignificantHighBit = high;
    const int32_t want = n ? RC_SUCCESS : RC_INVALID_PARAMETER;
    ASSERT_EQ(AllocBitmapLut(bm, &table, &length), want);
    if (n) {
      EXPECT_EQ(length, static_cast<uint32_t>(n));
      EXPECT_EQ(std::count(table, table + length, 0), static_cast<std::ptrdiff_t>(length));
      FreeMemory(table, __LINE__, L"tests/lut");
    }
    int32_t lo = -2, hi = -2;
    if (order != G) continue;
    EXPECT_EQ(GetSampleRange(bm, 0, &lo, &hi, 0, 100) + SignedToUnsigned(bm, 0, 0) +
                  UnsignedToSigned(bm, 1, 0) + Q_InvertBitmap(bm, 0),
              4 * want);
    if (!n) continue;
    EXPECT_EQ(std::pair(lo, hi), std::pair(1, static_cast<int32_t>(top)));
    EXPECT_EQ(bm.Pixels(), (std::vector<Pixel>{kit::Level(top - 1), kit::Level(0),
                                               kit::Level(stored == top ? 0 : stored)}));
  }
  auto alloc = [&](kit::Bitmap &b) {
    const int32_t status = AllocBitmapLut(b, &table, &length);
    FreeMemory(status == RC_SUCCESS ? table : nullptr, __LINE__, L"tests/lut");
    return status;
  };
  EXPECT_EQ(kit::CheckAllocationFailures([] { return kit::Bitmap({8, ORDER_GRAY}, 2, 2); }, alloc), 1);
  kit::Bitmap bm({24, ORDER_BGR}, 4, 4), gray32({32, ORDER_GRAY}, 2, 2), pal({8, ORDER_BGR}, 2, 2);
  BitmapRecord empty = *bm.get(), badSize = *bm.get(), old = *bm.get(), unknown = *bm.get();
  BitmapRecord gray32Attached = *gray32.get();
  empty.Flags &= ~BITMAP_ALLOCATED;
  badSize.StructSize = 200;
  old.StructSize = BITMAP_RECORD_SIZE_OLD;
  unknown.ColorOrder = 9;
  gray32Attached.Flags |= BITMAP_USE_ATTACHED_LUT;
  const std::vector<int32_t> zeros(256, 0);
  const int32_t *t = zeros.data();
  const uint8_t *bytes = reinterpret_cast<const uint8_t *>(t);
  const uint32_t mode = LUT_INDEX_BY_VALUE;
  kit::ExpectStatuses({
      {"alloc null bitmap", [&] { return AllocBitmapLut(nullptr, &table, &length); }, RC_NO_BITMAP},
      {"alloc size", [&] { return AllocBitmapLut(&badSize, &table, &length); }, RC_INVALID_STRUCT_SIZE},
      {"alloc null table place", [&] { return AllocBitmapLut(bm, nullptr, &length); }, RC_NULL_OPTIONS},
      {"alloc null length place", [&] { return AllocBitmapLut(bm, &table, nullptr); }, RC_NULL_OPTIONS},
      {"alloc 32-bit gray", [&] { return AllocBitmapLut(gray32, &table, &length); }, RC_INVALID_PARAMETER},
      {"null bitmap", [&] { return ApplyLut(nullptr, t, 256, mode, 0, 100); }, RC_NO_BITMAP},
      {"record size", [&] { return ApplyLut(&badSize, t, 256, mode, 0, 100); }, RC_INVALID_STRUCT_SIZE},
      {"no pixels", [&] { return ApplyLut(&empty, t, 256, mode, 0, 100); }, RC_NO_BITMAP},
      {"null table", [&] { return ApplyLut(bm, nullptr, 256, mode, 0, 100); }, RC_INVALID_PARAMETER},
      {"length 0", [&] { return ApplyLut(bm, t, 0, mode, 0, 100); }, RC_INVALID_PARAMETER},
      {"channel 4", [&] { return ApplyLut(bm, t, 256, mode | 4, 0, 100); }, RC_INVALID_PARAMETER},
      {"32-bit gray", [&] { return ApplyLut(gray32, t, 256, mode, 0, 100); }, RC_GRAY32_NOT_SUPPORTED},
      // The table operations look at the kind after their arguments and the
      // attached-table path; the shift right after the frame.
      {"unknown kind", [&] { return ApplyLut(&unknown, t, 256, mode, 0, 100); }, RC_UNSUPPORTED_BITMAP},
      {"channel before the kind", [&] { return ApplyLut(&unknown, t, 256, mode | 4, 0, 100); },
       RC_INVALID_PARAMETER},
      {"32-bit gray's attached table", [&] { return ApplyLut(&gray32Attached, t, 256, 0, 0, 100); },
       RC_SUCCESS},
      {"byte unknown kind", [&] { return ApplyByteLut(&unknown, bytes, 0, 0, 100); }, RC_UNSUPPORTED_BITMAP},
      {"shift unknown kind", [&] { return SignedToUnsigned(&unknown, 0, 0); }, RC_UNSUPPORTED_BITMAP},
      {"176-byte record", [&] { return ApplyLut(&old, t, 256, mode, 0, 100); }, RC_SUCCESS},
      {"byte null bitmap", [&] { return ApplyByteLut(nullptr, bytes, 0, 0, 100); }, RC_NO_BITMAP},
      {"byte record size", [&] { return ApplyByteLut(&badSize, bytes, 0, 0, 100); }, RC_INVALID_STRUCT_SIZE},
      {"byte null table", [&] { return ApplyByteLut(bm, nullptr, 0, 0, 100); }, RC_NULL_OPTIONS},
      {"byte channel 4", [&] { return ApplyByteLut(bm, bytes, 4, 0, 100); }, RC_INVALID_PARAMETER},
      {"shift null bitmap", [] { return SignedToUnsigned(nullptr, 0, 0); }, RC_NO_BITMAP},
      {"shift palette: nothing to do", [&] { return UnsignedToSigned(pal, 0, 0); }, RC_SUCCESS},
  });
}

// Progress from start to end, one report per changed value; an answer other
// than 1 stops at once, rows done kept. Cancelled at every report and with
// each allocation (run list, 16-bit table) failing, nothing leaks.
TEST(ApplyLut, ProgressCancellationAndAllocationFailures) {
  std::vector<int32_t> table(65536, 3);
  for (int i = 0; i < 256; ++i) table[i] = 255 - i;
  kit::Bitmap bm({24, ORDER_BGR}, 8, 10);
  kit::ScopedCallback cb([](int32_t p) { return p == 2 ? 0 : RC_SUCCESS; });
  ASSERT_EQ(ApplyLut(bm, table.data(), 256, LUT_INDEX_BY_VALUE, 0, 4), 0);
  EXPECT_EQ(cb.Reports(), (std::vector<int32_t>{0, 1, 2}));  // start, after 3 rows (1.2), after 5 rows
  for (int32_t y = 0; y < 10; ++y)
    EXPECT_EQ(bm.At(0, y), y < 5 ? kit::Rgb(255, 255, 255) : kit::Rgb(0, 0, 0)) << y;

  for (const Format &s : {Format{48, ORDER_BGR}, Format{16, ORDER_GRAY}, Format{4, ORDER_BGR}}) {
    const bool region = !s.IsGray(), words = s.bits >= 16;  // run list, 16-bit table
    auto setup = [&] {
      kit::Bitmap b(s, 9, 12);
      if (region) kit::SetEllipseRegion(b, 0, 0, 9, 12);
      return b;
    };
    auto apply = [&](kit::Bitmap &b) { return ApplyLut(b, table.data(), 65536, LUT_INDEX_BY_VALUE, 0, 100); };
    EXPECT_EQ(kit::CheckCancellation(setup, apply), 13) << s.Name();
    EXPECT_EQ(kit::CheckAllocationFailures(setup, apply), region + words) << s.Name();
  }
}

}  // namespace
