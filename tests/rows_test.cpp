// imgutil row converters: working layouts of every kind, writes, regions,
// run lists, rectangles, progress and allocation failures.
#include <array>
#include <cstring>
#include <vector>

#include "imgutil.h"
#include "kit.h"

using kit::Bitmap;
using kit::Pixel;
using kit::Spec;

namespace {

constexpr int32_t kLayouts[] = {ROW_LAYOUT_NATIVE, ROW_LAYOUT_BGR, ROW_LAYOUT_BGR8, ROW_LAYOUT_GRAY};

uint32_t Intensity(uint32_t b, uint32_t g, uint32_t r) { return (2 * r + 5 * g + b) >> 3; }

// A pseudo-random palette whose last entry repeats entry 0 (the nearest
// search alone would never pick the later index).
std::array<PaletteEntry, 256> MakePalette(uint32_t seed, int32_t count) {
  std::array<PaletteEntry, 256> pal{};
  uint32_t s = seed * 747796405u + 1u;
  for (auto &e : pal) {
    s = s * 1664525u + 1013904223u;
    e = PaletteEntry{static_cast<uint8_t>(s >> 24), static_cast<uint8_t>(s >> 16),
                     static_cast<uint8_t>(s >> 8), 0};
  }
  pal[count - 1] = pal[0];
  return pal;
}

// Colour of palette index i as the converter must see it.
PaletteEntry PaletteColor(const BitmapRecord *b, uint32_t i) {
  if (b->PaletteFlag == PALETTE_FLAG_NONE) {
    const uint8_t v = static_cast<uint8_t>(i * 255 / ((1u << b->BitsPerPixel) - 1));
    return PaletteEntry{v, v, v, 0};
  }
  return b->Palette[i];
}

// A stored pixel at the converter's native sample width, decoded from the
// storage (through the kit, which knows the stored layout).
struct Native {
  bool gray = false;
  bool fourth = false;
  int32_t bits = 8;  // native sample width
  uint32_t s = 0;    // gray sample
  uint32_t b = 0, g = 0, r = 0, a = 0;
};

Native Decode(const Bitmap &bm, int32_t x, int32_t y) {
  const Spec &spec = bm.spec();
  const Pixel p = bm.At(x, y);
  Native n;
  if (spec.IsGray()) {
    n.gray = true;
    n.bits = spec.bits == 8 ? 8 : 16;
    n.s = spec.bits == 12 ? (p.v[0] * 16) & 0xFFFFu : p.v[0];
  } else if (spec.IsPalette()) {
    const PaletteEntry e = PaletteColor(bm.get(), p.v[0]);
    n.b = e.Blue, n.g = e.Green, n.r = e.Red;
  } else if (spec.bits == 16) {
    auto widen = [](uint32_t v) { return (v << 3) | (v >> 2); };
    n.r = widen(p.v[0]), n.g = widen(p.v[1]), n.b = widen(p.v[2]);
  } else {
    n.r = p.v[0], n.g = p.v[1], n.b = p.v[2], n.a = p.v[3];
    n.fourth = spec.bits == 32 || spec.bits == 64;
    n.bits = spec.bits >= 48 ? 16 : 8;
  }
  return n;
}

// The working samples of one pixel for a layout.
std::vector<uint32_t> ExpectRead(const Native &n, int32_t layout) {
  switch (layout) {
    case ROW_LAYOUT_NATIVE:
      if (n.gray) return {n.s};
      if (n.fourth) return {n.b, n.g, n.r, n.a};
      return {n.b, n.g, n.r};
    case ROW_LAYOUT_BGR:
      if (n.gray) return {n.s, n.s, n.s};
      return {n.b, n.g, n.r};
    case ROW_LAYOUT_BGR8: {
      const int shift = n.bits == 16 ? 8 : 0;
      if (n.gray) return {n.s >> shift, n.s >> shift, n.s >> shift};
      return {n.b >> shift, n.g >> shift, n.r >> shift};
    }
    default:
      return {n.gray ? n.s : Intensity(n.b, n.g, n.r)};
  }
}

int32_t ExpectBits(const Spec &spec, int32_t layout) {
  if (layout == ROW_LAYOUT_BGR8) return 8;
  if (spec.IsGray()) return spec.bits == 8 ? 8 : 16;
  return spec.bits >= 48 ? 16 : 8;
}

uint32_t Sample(const void *row, int32_t bits, size_t i) {
  return bits == 8 ? static_cast<const uint8_t *>(row)[i] : static_cast<const uint16_t *>(row)[i];
}
void SetSample(void *row, int32_t bits, size_t i, uint32_t v) {
  if (bits == 8)
    static_cast<uint8_t *>(row)[i] = static_cast<uint8_t>(v);
  else
    static_cast<uint16_t *>(row)[i] = static_cast<uint16_t>(v);
}

// Stored pixel (kit scale) after writing working samples w over `old`.
Pixel ExpectStored(const Bitmap &bm, int32_t layout, const std::vector<uint32_t> &w, const Pixel &old) {
  const Spec &spec = bm.spec();
  const bool wide = ExpectBits(spec, ROW_LAYOUT_NATIVE) == 16;
  const uint32_t widen = layout == ROW_LAYOUT_BGR8 && wide ? 257 : 1;
  if (spec.IsGray()) {
    uint32_t v = w[0];
    if (layout == ROW_LAYOUT_BGR) v = Intensity(w[0], w[1], w[2]);
    if (layout == ROW_LAYOUT_BGR8) v = Intensity(w[0], w[1], w[2]) * widen;
    return kit::Level(spec.bits == 12 ? v >> 4 : v);
  }
  uint32_t b = w[0] * widen, g = w[1 % w.size()] * widen, r = w[2 % w.size()] * widen;
  if (layout == ROW_LAYOUT_GRAY) b = g = r = w[0];
  if (spec.IsPalette()) {
    const BitmapRecord *rec = bm.get();
    const PaletteEntry cur = PaletteColor(rec, old.v[0]);
    if (cur.Blue == b && cur.Green == g && cur.Red == r) return old;
    uint32_t best = 0;
    int32_t bestDistance = INT32_MAX;
    for (uint32_t i = 0; i < (1u << spec.bits); ++i) {
      const PaletteEntry e = PaletteColor(rec, i);
      const int32_t db = e.Blue - static_cast<int32_t>(b), dg = e.Green - static_cast<int32_t>(g),
                    dr = e.Red - static_cast<int32_t>(r);
      if (db * db + dg * dg + dr * dr < bestDistance) bestDistance = db * db + dg * dg + dr * dr, best = i;
    }
    return kit::Level(best);
  }
  if (spec.bits == 16) return kit::Rgb(r >> 3, g >> 3, b >> 3);
  const bool fourth = spec.bits == 32 || spec.bits == 64;
  return kit::Rgb(r, g, b, fourth && layout == ROW_LAYOUT_NATIVE ? w[3] : old.v[3]);
}

// Every kind in both orientations, plus palette bitmaps without palette.
std::vector<Spec> Kinds() { return kit::AllSpecs(true); }

// A randomised bitmap of the kind; palette kinds get a random palette or,
// with `noPalette`, PALETTE_FLAG_NONE.
Bitmap MakeBitmap(const Spec &spec, int32_t width, int32_t height, uint32_t seed, bool noPalette = false) {
  const auto pal = MakePalette(seed, spec.IsPalette() ? 1 << spec.bits : 256);
  Bitmap bm(spec, width, height, spec.IsPalette() ? pal.data() : nullptr);
  bm.Randomize(seed);
  if (spec.IsPalette()) {
    bm.Set(0, 0, kit::Level((1u << spec.bits) - 1));  // the duplicate colour
    if (noPalette) bm->PaletteFlag = PALETTE_FLAG_NONE;
  }
  return bm;
}

struct Converter {
  RowConverter handle = nullptr;
  void *buffer = nullptr;
  Converter(BitmapRecord *b, int32_t layout) {
    EXPECT_EQ(CreateRowConverter(b, &handle, layout), RC_SUCCESS);
    if (handle) buffer = AllocRowBuffer(handle);
  }
  ~Converter() {
    if (buffer) FreeMemory(buffer, __LINE__, L"tests/rows_test");
    if (handle) FreeRowConverter(handle);
  }
  Converter(const Converter &) = delete;
  Converter &operator=(const Converter &) = delete;
};

TEST(RowConverter, ReadsEveryKindInEveryLayout) {
  kit::LeakGuard guard;
  for (const Spec &spec : Kinds())
    for (bool noPalette : {false, true}) {
      if (noPalette && !spec.IsPalette()) continue;
      for (int32_t layout : kLayouts) {
        SCOPED_TRACE(spec.Name() + (noPalette ? " no palette" : "") + " layout " + std::to_string(layout));
        Bitmap bm = MakeBitmap(spec, 13, 5, 7 + layout, noPalette);
        Converter conv(bm, layout);
        ASSERT_NE(conv.buffer, nullptr);
        const int32_t bits = ExpectBits(spec, layout);
        const size_t channels = ExpectRead(Decode(bm, 0, 0), layout).size();
        EXPECT_EQ(RowChannelCount(conv.handle), static_cast<int32_t>(channels));
        EXPECT_EQ(RowBitsPerChannel(conv.handle), bits);
        EXPECT_EQ(PrepareRowConverter(conv.handle), static_cast<int32_t>(13 * channels * bits / 8));
        for (int32_t y = 0; y < 5; ++y) {
          ASSERT_EQ(ReadRow(conv.handle, conv.buffer, y, nullptr, nullptr), RC_SUCCESS);
          for (int32_t x = 0; x < 13; ++x) {
            const std::vector<uint32_t> want = ExpectRead(Decode(bm, x, y), layout);
            for (size_t i = 0; i < channels; ++i)
              ASSERT_EQ(Sample(conv.buffer, bits, x * channels + i), want[i])
                  << "x " << x << " y " << y << " i " << i;
          }
        }
      }
    }
}

// Hand-computed working samples of single stored pixels.
TEST(RowConverter, KnownPixels) {
  struct Case {
    const char *name;
    Spec spec;
    Pixel stored;
    int32_t layout;
    std::vector<uint32_t> want;
    bool isSigned = false;
  };
  const std::vector<Case> cases = {
      {"24 rgb native is b,g,r", {24, ORDER_RGB}, kit::Rgb(10, 20, 30), ROW_LAYOUT_NATIVE, {30, 20, 10}},
      {"24 rgb gray (20+100+30)>>3", {24, ORDER_RGB}, kit::Rgb(10, 20, 30), ROW_LAYOUT_GRAY, {18}},
      {"32 bgr native keeps fourth",
       {32, ORDER_BGR},
       kit::Rgb(1, 2, 3, 200),
       ROW_LAYOUT_NATIVE,
       {3, 2, 1, 200}},
      {"32 bgr bgr drops fourth", {32, ORDER_BGR}, kit::Rgb(1, 2, 3, 200), ROW_LAYOUT_BGR, {3, 2, 1}},
      {"48 bgr8 narrows",
       {48, ORDER_BGR},
       kit::Rgb(0xFF00, 0xABCD, 0x1234),
       ROW_LAYOUT_BGR8,
       {0x12, 0xAB, 0xFF}},
      {"48 gray at 16 bits", {48, ORDER_BGR}, kit::Rgb(0xFF00, 0xABCD, 0x1234), ROW_LAYOUT_GRAY, {44390}},
      {"64 rgb native", {64, ORDER_RGB}, kit::Rgb(5, 6, 7, 0xBEEF), ROW_LAYOUT_NATIVE, {7, 6, 5, 0xBEEF}},
      {"16 colour widens 5 bits", {16, ORDER_BGR}, kit::Rgb(31, 0, 1), ROW_LAYOUT_NATIVE, {8, 0, 255}},
      {"16 colour 16 -> 132", {16, ORDER_BGR}, kit::Rgb(16, 16, 16), ROW_LAYOUT_BGR8, {132, 132, 132}},
      {"12 gray scaled by 16", {12, ORDER_GRAY}, kit::Level(0xABC), ROW_LAYOUT_NATIVE, {0xABC0}},
      {"12 gray bgr8", {12, ORDER_GRAY}, kit::Level(0xABC), ROW_LAYOUT_BGR8, {0xAB, 0xAB, 0xAB}},
      {"16 gray bgr repeats", {16, ORDER_GRAY}, kit::Level(0x1234), ROW_LAYOUT_BGR, {0x1234, 0x1234, 0x1234}},
      {"16 gray signed bit pattern", {16, ORDER_GRAY}, kit::Level(0x8001), ROW_LAYOUT_NATIVE, {0x8001}, true},
      {"8 gray gray layout", {8, ORDER_GRAY}, kit::Level(77), ROW_LAYOUT_GRAY, {77}},
  };
  kit::LeakGuard guard;
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    for (int32_t orientation : {ORIENT_TOP_FIRST, ORIENT_BOTTOM_FIRST}) {
      Spec spec = c.spec;
      spec.orientation = orientation;
      Bitmap bm(spec, 3, 2);
      bm.Set(1, 1, c.stored);
      if (c.isSigned) bm->Flags |= BITMAP_SIGNED;
      Converter conv(bm, c.layout);
      ASSERT_NE(conv.buffer, nullptr);
      ASSERT_EQ(ReadRow(conv.handle, conv.buffer, 1, nullptr, nullptr), RC_SUCCESS);
      const int32_t bits = RowBitsPerChannel(conv.handle);
      for (size_t i = 0; i < c.want.size(); ++i)
        EXPECT_EQ(Sample(conv.buffer, bits, c.want.size() + i), c.want[i]);
    }
  }
}

// Palette bitmaps without palette read their index as a gray level.
TEST(RowConverter, PaletteWithoutPaletteIsAGrayRamp) {
  kit::LeakGuard guard;
  const struct {
    int32_t bits;
    uint32_t index;
    uint32_t level;
  } cases[] = {{1, 1, 255}, {2, 2, 170}, {4, 5, 85}, {4, 7, 119}, {8, 200, 200}};
  for (const auto &c : cases) {
    Bitmap bm({c.bits, ORDER_BGR}, 9, 1);
    bm->PaletteFlag = PALETTE_FLAG_NONE;
    bm.Set(8, 0, kit::Level(c.index));
    Converter conv(bm, ROW_LAYOUT_NATIVE);
    ASSERT_EQ(ReadRow(conv.handle, conv.buffer, 0, nullptr, nullptr), RC_SUCCESS);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(static_cast<uint8_t *>(conv.buffer)[24 + i], c.level) << c.bits;
  }
}

TEST(RowConverter, WritesEveryKindInEveryLayout) {
  kit::LeakGuard guard;
  for (const Spec &spec : Kinds())
    for (bool noPalette : {false, true}) {
      if (noPalette && !spec.IsPalette()) continue;
      for (int32_t layout : kLayouts) {
        SCOPED_TRACE(spec.Name() + (noPalette ? " no palette" : "") + " layout " + std::to_string(layout));
        Bitmap bm = MakeBitmap(spec, 11, 4, 3 + layout, noPalette);
        const std::vector<Pixel> before = bm.Pixels();
        Converter conv(bm, layout);
        ASSERT_NE(conv.buffer, nullptr);
        const int32_t bits = RowBitsPerChannel(conv.handle);
        const size_t channels = static_cast<size_t>(RowChannelCount(conv.handle));
        std::vector<std::vector<uint32_t>> written(11 * 4);
        uint32_t s = 99u + static_cast<uint32_t>(layout);
        for (int32_t y = 0; y < 4; ++y) {
          for (int32_t x = 0; x < 11; ++x)
            for (size_t i = 0; i < channels; ++i) {
              s = s * 1103515245u + 12345u;
              const uint32_t v = (s >> 8) & (bits == 8 ? 0xFFu : 0xFFFFu);
              SetSample(conv.buffer, bits, x * channels + i, v);
              written[y * 11 + x].push_back(v);
            }
          ASSERT_EQ(WriteRow(conv.handle, conv.buffer, y, nullptr, nullptr), RC_SUCCESS);
        }
        for (int32_t y = 0; y < 4; ++y)
          for (int32_t x = 0; x < 11; ++x)
            ASSERT_EQ(bm.At(x, y), ExpectStored(bm, layout, written[y * 11 + x], before[y * 11 + x]))
                << "x " << x << " y " << y;
      }
    }
}

// Reading a row and writing it back unchanged leaves the storage as it was
// wherever the layout loses nothing; palette pixels keep their index even
// when an earlier entry has the same colour.
TEST(RowConverter, ReadWriteRoundTripKeepsStorage) {
  kit::LeakGuard guard;
  for (const Spec &spec : Kinds())
    for (int32_t layout : kLayouts) {
      const bool wide = ExpectBits(spec, ROW_LAYOUT_NATIVE) == 16;
      if (layout == ROW_LAYOUT_BGR8 && wide) continue;
      if (layout == ROW_LAYOUT_GRAY && !spec.IsGray()) continue;
      SCOPED_TRACE(spec.Name() + " layout " + std::to_string(layout));
      Bitmap bm = MakeBitmap(spec, 10, 3, 21);
      if (spec.bits == 16 && !spec.IsGray()) bm.get()->Pixels[1] |= 0x80;  // unused top bit of a 5-5-5 word
      const std::vector<uint8_t> before = bm.StoredBytes();
      Converter conv(bm, layout);
      ASSERT_EQ(BeginWholeBitmap(conv.handle), RC_SUCCESS);
      for (int32_t y = 0; y < 3; ++y) {
        ASSERT_EQ(ReadRow(conv.handle, conv.buffer, y, nullptr, nullptr), RC_SUCCESS);
        ASSERT_EQ(WriteRow(conv.handle, conv.buffer, y, nullptr, nullptr), RC_SUCCESS);
      }
      EXPECT_EQ(bm.StoredBytes(), before);
    }
}

TEST(RowConverter, SixteenBitColourKeepsTheUnusedBit) {
  kit::LeakGuard guard;
  Bitmap bm({16, ORDER_BGR}, 2, 1);
  bm.get()->Pixels[2] = 0x00;
  bm.get()->Pixels[3] = 0x80;  // pixel 1: top bit only
  Converter conv(bm, ROW_LAYOUT_NATIVE);
  uint8_t *row = static_cast<uint8_t *>(conv.buffer);
  std::memset(row, 0xFF, 6);
  ASSERT_EQ(WriteRow(conv.handle, row, 0, nullptr, nullptr), RC_SUCCESS);
  EXPECT_EQ(bm.get()->Pixels[0] | bm.get()->Pixels[1] << 8, 0x7FFF);
  EXPECT_EQ(bm.get()->Pixels[2] | bm.get()->Pixels[3] << 8, 0xFFFF);
}

TEST(RowConverter, RefusesBadArguments) {
  kit::LeakGuard guard;
  Bitmap ok({24, ORDER_BGR}, 4, 3);
  Bitmap old({24, ORDER_BGR, ORIENT_TOP_FIRST, 176}, 4, 3);
  Bitmap gray32({32, ORDER_GRAY}, 4, 3);
  Bitmap badSize({24, ORDER_BGR}, 4, 3);
  badSize->StructSize = 200;
  Bitmap noPixels({24, ORDER_BGR}, 4, 3);
  noPixels->Flags &= ~BITMAP_ALLOCATED;
  RowConverter h = nullptr;
  auto create = [&](BitmapRecord *b, int32_t layout) {
    const int32_t status = CreateRowConverter(b, &h, layout);
    if (status != RC_SUCCESS) {
      EXPECT_EQ(h, nullptr);
    }
    if (h) FreeRowConverter(h);
    h = nullptr;
    return status;
  };
  kit::ExpectStatuses({
      {"null bitmap", [&] { return create(nullptr, 2); }, RC_NO_BITMAP},
      {"struct size 200", [&] { return create(badSize, 2); }, RC_INVALID_STRUCT_SIZE},
      {"no pixels", [&] { return create(noPixels, 2); }, RC_NO_BITMAP},
      {"null handle place", [&] { return CreateRowConverter(ok, nullptr, 2); }, RC_NULL_OPTIONS},
      {"layout 0", [&] { return create(ok, 0); }, RC_INVALID_PARAMETER},
      {"layout 4", [&] { return create(ok, 4); }, RC_INVALID_PARAMETER},
      {"layout 131", [&] { return create(ok, 131); }, RC_INVALID_PARAMETER},
      {"32-bit gray", [&] { return create(gray32, 2); }, RC_UNSUPPORTED_BITMAP},
      {"176-byte record", [&] { return create(old, 35); }, RC_SUCCESS},
  });
  noPixels->Flags |= BITMAP_ALLOCATED;
  badSize->StructSize = BITMAP_RECORD_SIZE;

  Converter conv(ok, ROW_LAYOUT_NATIVE);
  const Rect empty{2, 1, 2, 3}, outside{5, 0, 9, 3};
  kit::ExpectStatuses({
      {"read row -1", [&] { return ReadRow(conv.handle, conv.buffer, -1, nullptr, nullptr); },
       RC_INVALID_PARAMETER},
      {"read row height", [&] { return ReadRow(conv.handle, conv.buffer, 3, nullptr, nullptr); },
       RC_INVALID_PARAMETER},
      {"write row height", [&] { return WriteRow(conv.handle, conv.buffer, 3, nullptr, nullptr); },
       RC_INVALID_PARAMETER},
      {"read null buffer", [&] { return ReadRow(conv.handle, nullptr, 0, nullptr, nullptr); },
       RC_INVALID_PARAMETER},
      {"read null handle", [&] { return ReadRow(nullptr, conv.buffer, 0, nullptr, nullptr); },
       RC_INVALID_PARAMETER},
      {"null rectangle", [&] { return BeginRectangle(conv.handle, nullptr); }, RC_INVALID_PARAMETER},
      {"empty rectangle", [&] { return BeginRectangle(conv.handle, &empty); }, RC_INVALID_PARAMETER},
      {"rectangle outside", [&] { return BeginRectangle(conv.handle, &outside); }, RC_INVALID_PARAMETER},
      {"last row", [&] { return ReadRow(conv.handle, conv.buffer, 2, nullptr, nullptr); }, RC_SUCCESS},
  });
}

// The row buffer has 4 samples of slack per channel and the converter's tag;
// the run list has one entry more than the busiest row of the region.
TEST(RowConverter, BuffersAreSizedAndTagged) {
  kit::LeakGuard guard;
  Bitmap bm({64, ORDER_BGR}, 7, 9);
  kit::SetRectRegion(bm, 0, 0, 2, 9);
  kit::SetRectRegion(bm, 3, 2, 4, 5, REGION_OR);
  kit::SetRectRegion(bm, 5, 3, 6, 4, REGION_OR);
  RowConverter h = nullptr;
  ASSERT_EQ(CreateRowConverter(bm, &h, ROW_LAYOUT_NATIVE), RC_SUCCESS);
  ASSERT_EQ(PrepareRowConverter(h), 7 * 4 * 2);
  void *row = AllocRowBuffer(h);
  AllocationInfo info{};
  ASSERT_GE(GetLiveAllocations(&info, 1), 1u);
  EXPECT_EQ(info.Memory, row);
  EXPECT_EQ(info.Size, 7u * 4 * 2 + 4 * 4);
  EXPECT_EQ(std::wcscmp(info.File, L"imgutil/rows"), 0);
  RowRun *runs = AllocRunList(h);
  ASSERT_GE(GetLiveAllocations(&info, 1), 1u);
  EXPECT_EQ(info.Memory, runs);
  EXPECT_EQ(info.Size, (3u + 1) * sizeof(RowRun));
  FreeMemory(runs, __LINE__, L"tests/rows_test");
  FreeMemory(row, __LINE__, L"tests/rows_test");
  EXPECT_EQ(FreeRowConverter(h), RC_SUCCESS);
}

// Fills every working sample of the walk's rows with `value` and writes them
// back; returns the first failing status.
int32_t PaintWalk(RowConverter h, void *row, int32_t height, uint32_t value) {
  const int32_t bits = RowBitsPerChannel(h);
  const size_t samples = static_cast<size_t>(PrepareRowConverter(h)) * 8 / bits;
  for (int32_t y = 0; y < height; ++y) {
    int32_t status = ReadRow(h, row, y, nullptr, nullptr);
    if (status != RC_SUCCESS) return status;
    for (size_t i = 0; i < samples; ++i) SetSample(row, bits, i, value);
    status = WriteRow(h, row, y, nullptr, nullptr);
    if (status != RC_SUCCESS) return status;
  }
  return RC_SUCCESS;
}

// BeginRegion writes only inside the region: an L shape (checked against its
// own definition) and an ellipse (checked against IsPointInRegion).
TEST(RowConverter, RegionWritesTouchOnlyInsidePixels) {
  kit::LeakGuard guard;
  const Spec specs[] = {
      {24, ORDER_BGR}, {4, ORDER_BGR, ORIENT_BOTTOM_FIRST}, {16, ORDER_GRAY}, {64, ORDER_RGB}};
  for (const Spec &spec : specs)
    for (bool ellipse : {false, true}) {
      SCOPED_TRACE(spec.Name() + (ellipse ? " ellipse" : " L shape"));
      Bitmap bm = MakeBitmap(spec, 20, 12, 5);
      if (ellipse) {
        kit::SetEllipseRegion(bm, 3, 1, 17, 11);
      } else {
        kit::SetRectRegion(bm, 2, 1, 10, 4);
        kit::SetRectRegion(bm, 2, 4, 6, 10, REGION_OR);
      }
      auto inside = [&](int32_t x, int32_t y) {
        if (ellipse) return IsPointInRegion(bm, y, x) != 0;
        return (x >= 2 && x < 10 && y >= 1 && y < 4) || (x >= 2 && x < 6 && y >= 4 && y < 10);
      };
      const std::vector<Pixel> before = bm.Pixels();
      Bitmap painted = MakeBitmap(spec, 20, 12, 5);  // reference colours of the paint
      {
        Converter conv(bm, ROW_LAYOUT_BGR8);
        Converter all(painted, ROW_LAYOUT_BGR8);
        ASSERT_EQ(BeginRegion(conv.handle), RC_SUCCESS);
        Rect range{};
        ASSERT_EQ(GetRowRange(conv.handle, &range), RC_SUCCESS);
        if (!ellipse) {
          EXPECT_TRUE(range.Left == 2 && range.Top == 1 && range.Right == 10 && range.Bottom == 10);
        }
        ASSERT_EQ(PaintWalk(conv.handle, conv.buffer, 12, 0x5A), RC_SUCCESS);
        ASSERT_EQ(PaintWalk(all.handle, all.buffer, 12, 0x5A), RC_SUCCESS);  // no Begin: whole rows
      }
      int insideCount = 0;
      for (int32_t y = 0; y < 12; ++y)
        for (int32_t x = 0; x < 20; ++x) {
          const bool in = inside(x, y);
          insideCount += in;
          ASSERT_EQ(bm.At(x, y), in ? painted.At(x, y) : before[y * 20 + x]) << x << "," << y << " in " << in;
        }
      EXPECT_GT(insideCount, 30);
      for (const Pixel &p : painted.Pixels())  // every pixel painted (a fourth sample is kept)
        EXPECT_TRUE(p.v[0] == painted.At(0, 0).v[0] && p.v[1] == painted.At(0, 0).v[1] &&
                    p.v[2] == painted.At(0, 0).v[2]);
    }
}

TEST(RowConverter, WholeBitmapWalkIgnoresTheRegion) {
  kit::LeakGuard guard;
  Bitmap bm({8, ORDER_GRAY}, 6, 4);
  kit::SetRectRegion(bm, 1, 1, 3, 3);
  Converter conv(bm, ROW_LAYOUT_NATIVE);
  ASSERT_EQ(BeginWholeBitmap(conv.handle), RC_SUCCESS);
  ASSERT_EQ(PaintWalk(conv.handle, conv.buffer, 4, 9), RC_SUCCESS);
  for (const Pixel &p : bm.Pixels()) EXPECT_EQ(p, kit::Level(9));
}

std::vector<std::pair<int32_t, int32_t>> Runs(const RowRun *runs, int32_t n) {
  std::vector<std::pair<int32_t, int32_t>> out;
  for (int32_t i = 0; i < n; ++i) out.emplace_back(runs[i].Start, runs[i].End);
  return out;
}
using RunVec = std::vector<std::pair<int32_t, int32_t>>;

TEST(RowConverter, RunListsFollowTheRegionAndTheWalk) {
  kit::LeakGuard guard;
  Bitmap bm({8, ORDER_GRAY}, 12, 6);
  kit::SetRectRegion(bm, 1, 2, 4, 5);
  kit::SetRectRegion(bm, 7, 2, 11, 5, REGION_OR);
  Converter conv(bm, ROW_LAYOUT_NATIVE);
  RowRun *runs = AllocRunList(conv.handle);
  ASSERT_NE(runs, nullptr);
  int32_t n = -1;
  auto read = [&](int32_t row) {
    n = -1;
    EXPECT_EQ(ReadRow(conv.handle, conv.buffer, row, runs, &n), RC_SUCCESS);
    return Runs(runs, n);
  };
  ASSERT_EQ(BeginRegion(conv.handle), RC_SUCCESS);
  EXPECT_EQ(read(3), (RunVec{{1, 4}, {7, 11}}));
  EXPECT_EQ(read(0), RunVec{});
  ASSERT_EQ(BeginWholeBitmap(conv.handle), RC_SUCCESS);
  EXPECT_EQ(read(4), (RunVec{{1, 4}, {7, 11}}));
  const Rect clip{3, 0, 9, 6};
  ASSERT_EQ(BeginRectangle(conv.handle, &clip), RC_SUCCESS);
  EXPECT_EQ(read(2), (RunVec{{3, 4}, {7, 9}}));

  // Writes with a run list: its columns within the walk's writable set.
  const RowRun want[2] = {{0, 2}, {8, 12}};
  const int32_t two = 2;
  std::memset(conv.buffer, 50, 12);
  ASSERT_EQ(BeginRegion(conv.handle), RC_SUCCESS);
  ASSERT_EQ(WriteRow(conv.handle, conv.buffer, 3, want, &two), RC_SUCCESS);
  ASSERT_EQ(BeginWholeBitmap(conv.handle), RC_SUCCESS);
  ASSERT_EQ(WriteRow(conv.handle, conv.buffer, 5, want, &two), RC_SUCCESS);
  for (int32_t x = 0; x < 12; ++x) {
    EXPECT_EQ(bm.At(x, 3).v[0], (x == 1 || (x >= 8 && x < 11)) ? 50u : 0u) << x;
    EXPECT_EQ(bm.At(x, 5).v[0], (x < 2 || x >= 8) ? 50u : 0u) << x;
  }
  FreeMemory(runs, __LINE__, L"tests/rows_test");

  // Without a region: the whole row.
  Bitmap plain({24, ORDER_RGB}, 5, 2);
  Converter c2(plain, ROW_LAYOUT_BGR);
  RowRun one[2];
  ASSERT_EQ(ReadRow(c2.handle, c2.buffer, 1, one, &n), RC_SUCCESS);
  EXPECT_EQ(Runs(one, n), (RunVec{{0, 5}}));
}

TEST(RowConverter, RectangleWalkWritesOnlyItsColumnsAndRows) {
  kit::LeakGuard guard;
  Bitmap bm({32, ORDER_RGB, ORIENT_BOTTOM_FIRST}, 10, 8);
  kit::SetRectRegion(bm, 0, 0, 1, 1);  // a region does not narrow a rectangle walk
  Converter conv(bm, ROW_LAYOUT_NATIVE);
  const Rect r{-3, 2, 5, 100};
  ASSERT_EQ(BeginRectangle(conv.handle, &r), RC_SUCCESS);
  ASSERT_EQ(PaintWalk(conv.handle, conv.buffer, 8, 7), RC_SUCCESS);
  for (int32_t y = 0; y < 8; ++y)
    for (int32_t x = 0; x < 10; ++x)
      EXPECT_EQ(bm.At(x, y), (x < 5 && y >= 2) ? kit::Rgb(7, 7, 7, 7) : kit::Rgb(0, 0, 0, 0))
          << x << "," << y;
}

TEST(RowConverter, ProgressReportsAfterEachRowOfTheWalk) {
  kit::LeakGuard guard;
  struct Case {
    const char *name;
    int32_t height;
    bool region;  // region rows 2..5
    int32_t start, end;
    std::vector<int32_t> want;
  };
  const Case cases[] = {
      {"whole bitmap, 4 rows", 4, false, 0, 100, {25, 50, 75, 100}},
      {"region rows 2..5 of 9", 9, true, 0, 10, {2, 5, 7, 10}},
      {"repeated values reported once", 10, false, 0, 3, {0, 1, 2, 3}},
      {"sub-range", 3, false, 34, 66, {44, 55, 66}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    Bitmap bm({24, ORDER_BGR}, 5, c.height);
    if (c.region) kit::SetRectRegion(bm, 1, 2, 4, 6);
    Converter conv(bm, ROW_LAYOUT_NATIVE);
    kit::ScopedCallback cb([](int32_t) { return RC_SUCCESS; });
    ASSERT_EQ(c.region ? BeginRegionProgress(conv.handle, c.start, c.end)
                       : BeginWholeBitmapProgress(conv.handle, c.start, c.end),
              RC_SUCCESS);
    for (int32_t y = 0; y < c.height; ++y)
      ASSERT_EQ(ReadRow(conv.handle, conv.buffer, y, nullptr, nullptr), RC_SUCCESS);
    EXPECT_EQ(cb.Reports(), c.want);
    // Without a progress range nothing is reported.
    ASSERT_EQ(c.region ? BeginRegion(conv.handle) : BeginWholeBitmap(conv.handle), RC_SUCCESS);
    for (int32_t y = 0; y < c.height; ++y)
      ASSERT_EQ(ReadRow(conv.handle, conv.buffer, y, nullptr, nullptr), RC_SUCCESS);
    EXPECT_EQ(cb.Reports(), c.want);
  }
}

TEST(RowConverter, CallbackAnswerEndsTheWalk) {
  kit::LeakGuard guard;
  Bitmap bm({24, ORDER_BGR}, 4, 6);
  bm.Set(2, 2, kit::Rgb(9, 8, 7));
  Converter conv(bm, ROW_LAYOUT_NATIVE);
  int calls = 0;
  kit::ScopedCallback cb([&](int32_t) { return ++calls == 3 ? -7 : RC_SUCCESS; });
  ASSERT_EQ(BeginWholeBitmapProgress(conv.handle, 0, 100), RC_SUCCESS);
  EXPECT_EQ(ReadRow(conv.handle, conv.buffer, 0, nullptr, nullptr), RC_SUCCESS);
  EXPECT_EQ(ReadRow(conv.handle, conv.buffer, 1, nullptr, nullptr), RC_SUCCESS);
  EXPECT_EQ(ReadRow(conv.handle, conv.buffer, 2, nullptr, nullptr), -7);
  const uint8_t *row = static_cast<uint8_t *>(conv.buffer);
  EXPECT_EQ(row[6], 7);  // the row was read before the answer
  EXPECT_EQ(row[8], 9);

  // A full worker loop stops at the refusing report and leaks nothing.
  kit::CheckCancellation(
      [] {
        return MakeBitmap({48, ORDER_RGB}, 3, 7, 1);
      },
      [](Bitmap &b) {
        RowConverter h = nullptr;
        int32_t status = CreateRowConverter(b, &h, ROW_LAYOUT_BGR8);
        if (status != RC_SUCCESS) return status;
        void *buf = AllocRowBuffer(h);
        status = BeginRegionProgress(h, 0, 100);
        for (int32_t y = 0; status == RC_SUCCESS && y < 7; ++y) {
          status = ReadRow(h, buf, y, nullptr, nullptr);
          if (status == RC_SUCCESS) status = WriteRow(h, buf, y, nullptr, nullptr);
        }
        FreeMemory(buf, __LINE__, L"tests/rows_test");
        FreeRowConverter(h);
        return status;
      });
}

TEST(RowConverter, AllocationFailuresLeakNothing) {
  const int failed = kit::CheckAllocationFailures(
      [] {
        Bitmap bm = MakeBitmap({8, ORDER_BGR}, 9, 5, 2);
        kit::SetEllipseRegion(bm, 0, 0, 9, 5);
        return bm;
      },
      [](Bitmap &b) {
        RowConverter h = nullptr;
        int32_t status = CreateRowConverter(b, &h, ROW_LAYOUT_NATIVE);
        if (status != RC_SUCCESS) {
          EXPECT_EQ(h, nullptr);
          return status;
        }
        void *buf = AllocRowBuffer(h);
        RowRun *runs = AllocRunList(h);
        status = buf && runs ? BeginRegion(h) : RC_NO_MEMORY;
        int32_t n = 0;
        for (int32_t y = 0; status == RC_SUCCESS && y < 5; ++y) {
          status = ReadRow(h, buf, y, runs, &n);
          if (status == RC_SUCCESS) status = WriteRow(h, buf, y, runs, &n);
        }
        if (buf) FreeMemory(buf, __LINE__, L"tests/rows_test");
        if (runs) FreeMemory(runs, __LINE__, L"tests/rows_test");
        FreeRowConverter(h);
        return status;
      });
  EXPECT_EQ(failed, 4);  // converter, row buffer, run list, region scratch
}

}  // namespace
