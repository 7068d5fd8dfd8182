// imgutil row converters: layouts of every kind, writes, walks, run lists, progress, failures.
#include <cstring>
#include <vector>

#include "imgutil.h"
#include "kit.h"

using kit::Bitmap, kit::Pixel, kit::Format;

namespace {

uint32_t Intensity(uint32_t b, uint32_t g, uint32_t r) { return (2 * r + 5 * g + b) >> 3; }

// Colour of palette index i: the palette, or the gray ramp without one.
Pixel PaletteColor(const BitmapRecord *b, uint32_t i) {
  if (b->PaletteFlag != PALETTE_FLAG_NONE)
    return kit::Rgb(b->Palette[i].Red, b->Palette[i].Green, b->Palette[i].Blue);
  const uint32_t v = i * 255 / ((1u << b->BitsPerPixel) - 1);
  return kit::Rgb(v, v, v);
}

// Kinds whose NATIVE working samples are 16-bit.
bool Wide(const Format &format) { return format.IsGray() ? format.bits > 8 : format.bits >= 48; }

// The working samples of pixel (x, y) for a layout, from the pixel values.
std::vector<uint32_t> ExpectRead(const Bitmap &bm, int32_t x, int32_t y, int32_t layout) {
  const Format &format = bm.format();
  Pixel p = format.IsPalette() ? PaletteColor(bm.get(), bm.At(x, y).v[0]) : bm.At(x, y);
  const int shift = layout == ROW_LAYOUT_BGR8 && Wide(format) ? 8 : 0;
  if (format.IsGray()) {
    const uint32_t s = format.bits == 12 ? p.v[0] * 16 : p.v[0];
    if (layout == ROW_LAYOUT_NATIVE || layout == ROW_LAYOUT_GRAY) return {s};
    return {s >> shift, s >> shift, s >> shift};
  }
  for (int c = 0; format.bits == 16 && c < 3; ++c) p.v[c] = (p.v[c] << 3) | (p.v[c] >> 2);
  const uint32_t b = p.v[2] >> shift, g = p.v[1] >> shift, r = p.v[0] >> shift;
  if (layout == ROW_LAYOUT_GRAY) return {Intensity(b, g, r)};
  if (layout == ROW_LAYOUT_NATIVE && (format.bits == 32 || format.bits == 64)) return {b, g, r, p.v[3]};
  return {b, g, r};
}

// Stored pixel after writing working samples w over `old`.
Pixel ExpectStored(const Bitmap &bm, int32_t layout, const std::vector<uint32_t> &w, const Pixel &old) {
  const Format &format = bm.format();
  const uint32_t widen = layout == ROW_LAYOUT_BGR8 && Wide(format) ? 257 : 1;
  if (format.IsGray()) {
    const bool three = layout == ROW_LAYOUT_BGR || layout == ROW_LAYOUT_BGR8;
    const uint32_t v = three ? Intensity(w[0], w[1], w[2]) * widen : w[0];
    return kit::Level(format.bits == 12 ? v >> 4 : v);
  }
  const bool one = layout == ROW_LAYOUT_GRAY;
  const uint32_t b = w[0] * widen, g = w[one ? 0 : 1] * widen, r = w[one ? 0 : 2] * widen;
  if (format.IsPalette()) {  // nearest colour, lowest index on ties, the old index when exact
    auto dist = [&](uint32_t i) {
      const Pixel e = PaletteColor(bm.get(), i);
      const int32_t d[3] = {int32_t(e.v[0] - r), int32_t(e.v[1] - g), int32_t(e.v[2] - b)};
      return d[0] * d[0] + d[1] * d[1] + d[2] * d[2];
    };
    if (dist(old.v[0]) == 0) return old;
    uint32_t best = 0;
    for (uint32_t i = 1; i < (1u << format.bits); ++i) best = dist(i) < dist(best) ? i : best;
    return kit::Level(best);
  }
  if (format.bits == 16) return kit::Rgb(r >> 3, g >> 3, b >> 3);
  return kit::Rgb(r, g, b, w.size() == 4 ? w[3] : old.v[3]);
}

// The working samples of pixel x of a row.
std::vector<uint32_t> Samples(const void *row, int32_t bits, size_t channels, int32_t x) {
  std::vector<uint32_t> out;
  for (size_t i = x * channels; i < (x + 1) * channels; ++i)
    out.push_back(bits == 8 ? static_cast<const uint8_t *>(row)[i] : static_cast<const uint16_t *>(row)[i]);
  return out;
}

// A randomised bitmap; palette kinds get a palette whose last entry repeats
// entry 0, with pixel (0, 0) on that last index (the nearest search alone
// would never pick it), or PALETTE_FLAG_NONE with `noPalette`.
Bitmap MakeBitmap(const Format &format, int32_t width, int32_t height, uint32_t seed,
                  bool noPalette = false) {
  PaletteEntry pal[256];
  for (uint32_t i = 0; i < 256; ++i)
    pal[i] = PaletteEntry{uint8_t(i * 97 + seed), uint8_t(i * 57 + 3 * seed), uint8_t(i * 211 + 7 * seed), 0};
  const uint32_t last = format.IsPalette() ? (1u << format.bits) - 1 : 0;
  pal[last] = pal[0];
  Bitmap bm(format, width, height, format.IsPalette() ? pal : nullptr);
  bm.Randomize(seed);
  if (format.IsPalette()) bm.Set(0, 0, kit::Level(last));
  if (noPalette) bm->PaletteFlag = PALETTE_FLAG_NONE;
  return bm;
}

struct Converter {
  RowConverter handle = nullptr;
  void *buffer = nullptr;
  Converter(BitmapRecord *b, int32_t layout) {
    EXPECT_EQ(CreateRowConverter(b, &handle, layout), RC_SUCCESS);
    buffer = AllocRowBuffer(handle);  // null without a converter
  }
  ~Converter() {
    if (buffer) FreeMemory(buffer, __LINE__, L"tests/rows_test");
    if (handle) FreeRowConverter(handle);
  }
  int32_t Read(int32_t row) { return ReadRow(handle, buffer, row, nullptr, nullptr); }
  int32_t Write(int32_t row) { return WriteRow(handle, buffer, row, nullptr, nullptr); }
};

// Every kind in both orientations (palette kinds also without palette) in
// every layout: rows read as the pixel values say; writing them back
// unchanged keeps the storage where the layout loses nothing (palette pixels
// keep their index next to a duplicate entry, 5-5-5 words their top bit);
// random samples are stored by the layout's rules.
TEST(RowConverter, EveryKindInEveryLayout) {
  kit::LeakGuard guard;
  constexpr int32_t kW = 11, kH = 4;
  for (const Format &format : kit::AllFormats(true))
    for (int noPalette = 0; noPalette <= format.IsPalette(); ++noPalette)
      for (int32_t layout : {ROW_LAYOUT_NATIVE, ROW_LAYOUT_BGR, ROW_LAYOUT_BGR8, ROW_LAYOUT_GRAY}) {
        SCOPED_TRACE(format.Name() + (noPalette ? " no palette" : "") + " layout " + std::to_string(layout));
        Bitmap bm = MakeBitmap(format, kW, kH, 3 + layout, noPalette);
        if (format.bits == 16 && !format.IsGray()) bm->Pixels[1] |= 0x80;  // unused top bit of a 5-5-5 word
        const std::vector<uint8_t> stored = bm.StoredBytes();
        Converter conv(bm, layout);
        ASSERT_NE(conv.buffer, nullptr);
        const int32_t bits = layout == ROW_LAYOUT_BGR8 || !Wide(format) ? 8 : 16,
                      size = PrepareRowConverter(conv.handle);
        const size_t channels = ExpectRead(bm, 0, 0, layout).size();
        EXPECT_TRUE(RowChannelCount(conv.handle) == static_cast<int32_t>(channels) &&
                    RowBitsPerChannel(conv.handle) == bits &&
                    size == static_cast<int32_t>(kW * channels * bits / 8));
        for (int32_t y = 0; y < kH; ++y) {
          ASSERT_EQ(conv.Read(y), RC_SUCCESS);
          for (int32_t x = 0; x < kW; ++x)
            ASSERT_EQ(Samples(conv.buffer, bits, channels, x), ExpectRead(bm, x, y, layout)) << x << "," << y;
          ASSERT_EQ(conv.Write(y), RC_SUCCESS);
        }
        const bool lossless =
            (layout != ROW_LAYOUT_BGR8 || !Wide(format)) && (layout != ROW_LAYOUT_GRAY || format.IsGray());
        EXPECT_TRUE(!lossless || bm.StoredBytes() == stored) << "read/write round trip changed the storage";

        const std::vector<Pixel> before = bm.Pixels();
        uint32_t s = 99u + static_cast<uint32_t>(layout);
        for (int32_t y = 0; y < kH; ++y) {
          for (int32_t i = 0; i < size; ++i)
            static_cast<uint8_t *>(conv.buffer)[i] = (s = s * 69069u + 1u) >> 24;
          ASSERT_EQ(conv.Write(y), RC_SUCCESS);
          for (int32_t x = 0; x < kW; ++x)
            ASSERT_EQ(bm.At(x, y),
                      ExpectStored(bm, layout, Samples(conv.buffer, bits, channels, x), before[y * kW + x]))
                << x << "," << y;
        }
      }
}

// Hand-computed working samples of single stored pixels.
TEST(RowConverter, KnownPixels) {
  const struct {
    Format format;
    Pixel stored;
    int32_t layout;
    std::vector<uint32_t> want;
    bool isSigned = false, noPalette = false;
  } cases[] = {
      {{24, ORDER_RGB}, kit::Rgb(10, 20, 30), ROW_LAYOUT_GRAY, {18}},  // (20 + 100 + 30) >> 3
      {{32, ORDER_RGB}, kit::Rgb(1, 2, 3, 200), ROW_LAYOUT_NATIVE, {3, 2, 1, 200}},
      {{48, ORDER_BGR}, kit::Rgb(0xFF00, 0xABCD, 0x1234), ROW_LAYOUT_BGR8, {0x12, 0xAB, 0xFF}},
      {{48, ORDER_BGR}, kit::Rgb(0xFF00, 0xABCD, 0x1234), ROW_LAYOUT_GRAY, {44390}},
      {{16, ORDER_BGR}, kit::Rgb(31, 0, 1), ROW_LAYOUT_NATIVE, {8, 0, 255}},
      {{16, ORDER_BGR}, kit::Rgb(16, 16, 16), ROW_LAYOUT_BGR8, {132, 132, 132}},
      {{12, ORDER_GRAY}, kit::Level(0xABC), ROW_LAYOUT_NATIVE, {0xABC0}},
      {{12, ORDER_GRAY}, kit::Level(0xABC), ROW_LAYOUT_BGR8, {0xAB, 0xAB, 0xAB}},
      {{16, ORDER_GRAY}, kit::Level(0x8001), ROW_LAYOUT_NATIVE, {0x8001}, true},
      {{1, ORDER_BGR}, kit::Level(1), ROW_LAYOUT_NATIVE, {255, 255, 255}, false, true},
      {{4, ORDER_BGR}, kit::Level(7), ROW_LAYOUT_GRAY, {119}, false, true},
  };
  for (const auto &c : cases) {
    Bitmap bm(c.format, 3, 2);
    bm.Set(1, 1, c.stored);
    if (c.isSigned) bm->Flags |= BITMAP_SIGNED;
    if (c.noPalette) bm->PaletteFlag = PALETTE_FLAG_NONE;
    Converter conv(bm, c.layout);
    ASSERT_EQ(conv.Read(1), RC_SUCCESS);
    EXPECT_EQ(Samples(conv.buffer, RowBitsPerChannel(conv.handle), c.want.size(), 1), c.want)
        << c.format.Name();
  }
}

TEST(RowConverter, Statuses) {
  kit::LeakGuard guard;
  Bitmap ok({24, ORDER_BGR}, 4, 3), old({24, ORDER_BGR, ORIENT_TOP_FIRST, 176}, 4, 3),
      gray32({32, ORDER_GRAY}, 4, 3);
  BitmapRecord badSize = *ok.get(), noPixels = *ok.get();
  badSize.StructSize = 200;
  noPixels.Flags &= ~BITMAP_ALLOCATED;
  auto create = [](BitmapRecord *b, int32_t layout) {
    RowConverter h = reinterpret_cast<RowConverter>(&b);  // must be nulled on failure
    const int32_t status = CreateRowConverter(b, &h, layout);
    if (status == RC_SUCCESS) FreeRowConverter(h);
    return status == RC_SUCCESS || h == nullptr ? status : 12345;
  };
  Converter conv(ok, ROW_LAYOUT_NATIVE);
  const Rect empty{2, 1, 2, 3}, outside{5, 0, 9, 3};
  kit::ExpectStatuses({
      {"null bitmap", [&] { return create(nullptr, 2); }, RC_NO_BITMAP},
      {"struct size 200", [&] { return create(&badSize, 2); }, RC_INVALID_STRUCT_SIZE},
      {"no pixels", [&] { return create(&noPixels, 2); }, RC_NO_BITMAP},
      {"null handle place", [&] { return CreateRowConverter(ok, nullptr, 2); }, RC_NULL_OPTIONS},
      {"layout 131", [&] { return create(ok, 131); }, RC_INVALID_PARAMETER},
      {"32-bit gray", [&] { return create(gray32, 2); }, RC_UNSUPPORTED_BITMAP},
      {"176-byte record", [&] { return create(old, 35); }, RC_SUCCESS},
      {"channels of null", [] { return RowChannelCount(nullptr); }, RC_INVALID_PARAMETER},
      {"bits of null", [] { return RowBitsPerChannel(nullptr); }, RC_INVALID_PARAMETER},
      {"prepare null", [] { return PrepareRowConverter(nullptr); }, RC_INVALID_PARAMETER},
      {"free null", [] { return FreeRowConverter(nullptr); }, RC_INVALID_PARAMETER},
      {"read row -1", [&] { return conv.Read(-1); }, RC_INVALID_PARAMETER},
      {"read row height", [&] { return conv.Read(3); }, RC_INVALID_PARAMETER},
      {"write row height", [&] { return conv.Write(3); }, RC_INVALID_PARAMETER},
      {"read null handle", [&] { return ReadRow(nullptr, conv.buffer, 0, nullptr, nullptr); },
       RC_INVALID_PARAMETER},
      {"null rectangle", [&] { return BeginRectangle(conv.handle, nullptr); }, RC_INVALID_PARAMETER},
      {"empty rectangle", [&] { return BeginRectangle(conv.handle, &empty); }, RC_INVALID_PARAMETER},
      {"rectangle outside", [&] { return BeginRectangle(conv.handle, &outside); }, RC_INVALID_PARAMETER},
  });
}

// Each walk writes only its columns: the region's runs (an L shape, an
// ellipse), whole rows, the clipped rectangle (a region does not narrow it),
// also after a failed Begin, which keeps the walk before it; a run list
// given to WriteRow narrows them further.
TEST(RowConverter, WalksWriteOnlyTheirColumns) {
  kit::LeakGuard guard;
  enum Walk { kL, kEllipse, kWhole, kRect, kRectAfterFailure };
  const Rect rect{-3, 2, 5, 100}, empty{4, 4, 4, 8};
  for (const Format &format :
       {Format{8, ORDER_GRAY, ORIENT_BOTTOM_FIRST}, Format{24, ORDER_BGR, ORIENT_BOTTOM_FIRST},
        Format{64, ORDER_RGB}, Format{16, ORDER_GRAY}})
    for (int walk = kL; walk <= kRectAfterFailure; ++walk)
      for (bool withRuns : {false, true}) {
        SCOPED_TRACE(format.Name() + " walk " + std::to_string(walk) + (withRuns ? " with runs" : ""));
        Bitmap bm(format, 20, 12);
        kit::SetRectRegion(bm, 2, 1, 10, 4);
        kit::SetRectRegion(bm, 2, 4, 6, 10, REGION_OR);
        if (walk == kEllipse) kit::SetEllipseRegion(bm, 3, 1, 17, 11);
        Converter conv(bm, ROW_LAYOUT_BGR8);
        ASSERT_EQ(walk <= kEllipse ? BeginRegion(conv.handle)
                  : walk == kWhole ? BeginWholeBitmap(conv.handle)
                                   : BeginRectangle(conv.handle, &rect),
                  RC_SUCCESS);
        EXPECT_TRUE(walk != kRectAfterFailure || BeginRectangle(conv.handle, &empty) == RC_INVALID_PARAMETER);
        std::memset(conv.buffer, 0x5A, 20 * 3);
        const RowRun runs[2] = {{0, 2}, {8, 12}};
        const int32_t two = 2;
        for (int32_t y = 0; y < 12; ++y)
          ASSERT_EQ(WriteRow(conv.handle, conv.buffer, y, withRuns ? runs : nullptr, &two), RC_SUCCESS);
        const uint32_t v = format.bits == 64 || format.bits == 16 ? 0x5A * 257 : 0x5A;
        const Pixel painted = format.IsGray() ? kit::Level(v) : kit::Rgb(v, v, v);
        for (int32_t y = 0; y < 12; ++y)
          for (int32_t x = 0; x < 20; ++x) {
            bool in = walk == kWhole || (walk >= kRect ? x < 5 && y >= 2 : kit::InRegion(bm, x, y));
            in = in && (!withRuns || x < 2 || (x >= 8 && x < 12));
            ASSERT_EQ(bm.At(x, y), in ? painted : Pixel{}) << x << "," << y;
          }
      }
}

// Run lists: the region's runs clipped to the walk, none outside its rows,
// the whole row without a region. The row buffer has 4 bytes of slack per
// channel and the converter's tag; the run list one entry more than the
// busiest row.
TEST(RowConverter, RunListsAndBuffers) {
  using RunVec = std::vector<std::pair<int32_t, int32_t>>;
  kit::LeakGuard guard;
  Bitmap bm({8, ORDER_GRAY}, 12, 6), plain({24, ORDER_RGB}, 5, 2);
  kit::SetRectRegion(bm, 1, 2, 4, 5);
  kit::SetRectRegion(bm, 7, 2, 11, 5, REGION_OR);
  Converter conv(bm, ROW_LAYOUT_NATIVE), whole(plain, ROW_LAYOUT_BGR);
  RowRun *runs = AllocRunList(conv.handle);
  AllocationInfo info[2] = {};
  ASSERT_GE(GetLiveAllocations(info, 2), 2u);  // newest first
  EXPECT_TRUE(info[0].Memory == runs && info[0].Size == 3 * sizeof(RowRun));
  EXPECT_TRUE(info[1].Memory == whole.buffer && info[1].Size == 5 * 3 + 4 * 3u &&
              std::wcscmp(info[1].File, L"imgutil/rows") == 0);
  auto read = [&](Converter &c, int32_t row) {
    int32_t n = -1;
    EXPECT_EQ(ReadRow(c.handle, c.buffer, row, runs, &n), RC_SUCCESS);
    RunVec out;
    for (int32_t i = 0; i < n; ++i) out.emplace_back(runs[i].Start, runs[i].End);
    return out;
  };
  ASSERT_EQ(BeginRegion(conv.handle), RC_SUCCESS);
  EXPECT_EQ(read(conv, 3), (RunVec{{1, 4}, {7, 11}}));
  EXPECT_EQ(read(conv, 0), RunVec{});
  ASSERT_EQ(BeginWholeBitmap(conv.handle), RC_SUCCESS);
  EXPECT_EQ(read(conv, 4), (RunVec{{1, 4}, {7, 11}}));
  const Rect clip{3, 0, 9, 6};
  ASSERT_EQ(BeginRectangle(conv.handle, &clip), RC_SUCCESS);
  EXPECT_EQ(read(conv, 2), (RunVec{{3, 4}, {7, 9}}));
  EXPECT_EQ(read(whole, 1), (RunVec{{0, 5}}));
  Rect range{};  // the region's bounds, whatever the walk
  EXPECT_TRUE(GetRowRange(conv.handle, &range) == RC_SUCCESS && range.Left == 1 && range.Top == 2 &&
              range.Right == 11 && range.Bottom == 5);
  FreeMemory(runs, __LINE__, L"tests/rows_test");
}

// Progress: start + (end - start) * rows read / rows of the walk, each value
// once; plain Begins report nothing. A worker loop over a region, cancelled
// at every report (ReadRow returns the answer with the row already read) and
// with each allocation (converter, row buffer, run list, region scratch)
// failing, leaks nothing.
TEST(RowConverter, ProgressCancellationAndAllocationFailures) {
  const struct {
    int32_t height;
    bool region;  // rows 2..5
    int32_t start, end;
    std::vector<int32_t> want;
  } cases[] = {{4, false, 0, 100, {25, 50, 75, 100}},
               {9, true, 0, 10, {2, 5, 7, 10}},
               {10, false, 0, 3, {0, 1, 2, 3}},
               {3, false, 34, 66, {44, 55, 66}}};
  for (const auto &c : cases) {
    Bitmap bm({24, ORDER_BGR}, 5, c.height);
    if (c.region) kit::SetRectRegion(bm, 1, 2, 4, 6);
    Converter conv(bm, ROW_LAYOUT_NATIVE);
    kit::ScopedCallback cb([](int32_t) { return RC_SUCCESS; });
    auto readAll = [&](int32_t begun) {
      ASSERT_EQ(begun, RC_SUCCESS);
      for (int32_t y = 0; y < c.height; ++y) ASSERT_EQ(conv.Read(y), RC_SUCCESS);
    };
    readAll(c.region ? BeginRegionProgress(conv.handle, c.start, c.end)
                     : BeginWholeBitmapProgress(conv.handle, c.start, c.end));
    readAll(c.region ? BeginRegion(conv.handle) : BeginWholeBitmap(conv.handle));
    EXPECT_EQ(cb.Reports(), c.want) << c.height;
  }

  auto setup = [] {
    Bitmap bm = MakeBitmap({8, ORDER_BGR}, 9, 5, 2);
    kit::SetEllipseRegion(bm, 0, 0, 9, 5);
    return bm;
  };
  auto worker = [](Bitmap &b) {
    RowConverter h = nullptr;
    int32_t status = CreateRowConverter(b, &h, ROW_LAYOUT_NATIVE);
    if (status != RC_SUCCESS) return h == nullptr ? status : 12345;
    void *buf = AllocRowBuffer(h);
    RowRun *runs = AllocRunList(h);
    status = buf && runs ? BeginRegionProgress(h, 0, 100) : RC_NO_MEMORY;
    int32_t n = 0;
    for (int32_t y = 0; status == RC_SUCCESS && y < 5; ++y) {
      status = ReadRow(h, buf, y, runs, &n);
      EXPECT_EQ(Samples(buf, 8, 3, 4), ExpectRead(b, 4, y, ROW_LAYOUT_NATIVE));
      if (status == RC_SUCCESS) status = WriteRow(h, buf, y, runs, &n);
    }
    FreeMemory(buf, __LINE__, L"tests/rows_test");
    FreeMemory(runs, __LINE__, L"tests/rows_test");
    FreeRowConverter(h);
    return status;
  };
  EXPECT_EQ(kit::CheckCancellation(setup, worker), 5);
  EXPECT_EQ(kit::CheckAllocationFailures(setup, worker), 4);
}

}  // namespace
