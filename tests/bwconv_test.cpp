// Q_DynamicBinaryBitmap: entry checks, the decisions against a brute-force
// window minimum and maximum on every kind, windows 1 to 9 and regions, and
// the kept flat-window rules.
#include "BWConv.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "kit.h"

namespace {

using kit::Level;

kit::Format Kind(int32_t bits, int32_t order = ORDER_BGR) { return kit::Format{bits, order}; }

// The gray working rows of a bitmap (one sample a pixel), as the operation sees them.
std::vector<std::vector<uint32_t>> WorkingRows(BitmapRecord *b) {
  RowConverter conv = nullptr;
  EXPECT_EQ(CreateRowConverter(b, &conv, ROW_LAYOUT_GRAY), RC_SUCCESS);
  const bool wide = RowBitsPerChannel(conv) == 16;
  uint8_t *row = static_cast<uint8_t *>(AllocRowBuffer(conv));
  EXPECT_EQ(BeginWholeBitmap(conv), RC_SUCCESS);
  std::vector<std::vector<uint32_t>> rows(b->Height, std::vector<uint32_t>(b->Width));
  for (int32_t y = 0; y < b->Height; ++y) {
    EXPECT_EQ(ReadRow(conv, row, y, nullptr, nullptr), RC_SUCCESS);
    for (int32_t x = 0; x < b->Width; ++x)
      rows[y][x] = wide ? reinterpret_cast<const uint16_t *>(row)[x] : row[x];
  }
  FreeMemory(row, __LINE__, L"bwconv_test");
  FreeRowConverter(conv);
  return rows;
}

// Writes working values into the pixels inside the region of `b`.
void WriteInside(BitmapRecord *b, const std::vector<std::vector<uint32_t>> &values) {
  RowConverter conv = nullptr;
  ASSERT_EQ(CreateRowConverter(b, &conv, ROW_LAYOUT_GRAY), RC_SUCCESS);
  const bool wide = RowBitsPerChannel(conv) == 16;
  uint8_t *row = static_cast<uint8_t *>(AllocRowBuffer(conv));
  RowRun *runs = AllocRunList(conv);
  ASSERT_EQ(BeginRegion(conv), RC_SUCCESS);
  for (int32_t y = 0; y < b->Height; ++y) {
    int32_t count = 0;
    ASSERT_EQ(ReadRow(conv, row, y, runs, &count), RC_SUCCESS);
    for (int32_t x = 0; x < b->Width; ++x) {
      if (wide)
        reinterpret_cast<uint16_t *>(row)[x] = static_cast<uint16_t>(values[y][x]);
      else
        row[x] = static_cast<uint8_t>(values[y][x]);
    }
    ASSERT_EQ(WriteRow(conv, row, y, runs, &count), RC_SUCCESS);
  }
  FreeMemory(runs, __LINE__, L"bwconv_test");
  FreeMemory(row, __LINE__, L"bwconv_test");
  FreeRowConverter(conv);
}

// The course's decision with the window extremes taken pixel by pixel.
std::vector<std::vector<uint32_t>> BruteForce(const std::vector<std::vector<uint32_t>> &in, uint32_t d,
                                              uint32_t contrast, bool wide) {
  const int32_t h = static_cast<int32_t>((d - 1) / 2), below = static_cast<int32_t>(d / 2);
  const int32_t height = static_cast<int32_t>(in.size()), width = static_cast<int32_t>(in[0].size());
  const auto clamp = [](int32_t v, int32_t n) { return std::clamp(v, 0, n - 1); };
  const uint32_t white = wide ? 65535 : 255, flat = wide ? 32767 : 128;
  auto out = in;
  for (int32_t y = 0; y < height; ++y)
    for (int32_t x = 0; x < width; ++x) {
      uint32_t lo = UINT32_MAX, hi = 0;
      for (int32_t v = y - h; v <= y + below; ++v)
        for (int32_t u = x - h; u <= x + below; ++u) {
          lo = std::min(lo, in[clamp(v, height)][clamp(u, width)]);
          hi = std::max(hi, in[clamp(v, height)][clamp(u, width)]);
        }
      // Window row d / 2 from the top: row y (odd d) or y + 1 (even d).
      const uint32_t p = in[clamp(y - h + static_cast<int32_t>(d / 2), height)][x];
      const bool dark = hi - lo > contrast ? p < (hi + lo) / 2 : hi < flat;
      out[y][x] = dark ? 0 : white;
    }
  return out;
}

TEST(DynamicBinary, ChecksInOrder) {
  kit::Bitmap bmp(Kind(24), 5, 4), gray12(Kind(12, ORDER_GRAY), 4, 3), gray16(Kind(16, ORDER_GRAY), 4, 3);
  kit::Bitmap gray32(Kind(32), 2, 2), wide(Kind(48), 3, 3);
  gray32->ColorOrder = ORDER_GRAY;
  gray32->Flags |= BITMAP_SIGNED;  // -1364 comes first
  const auto withSize = [&](uint32_t size, uint32_t flags) {
    bmp->StructSize = size;
    const int32_t status = Q_DynamicBinaryBitmap(bmp, 3, 10, flags);
    EXPECT_EQ(bmp->StructSize, size);
    bmp->StructSize = BITMAP_RECORD_SIZE;
    return status;
  };
  const auto asSigned = [&](uint32_t dimension) {
    bmp->Flags |= BITMAP_SIGNED;
    const int32_t status = Q_DynamicBinaryBitmap(bmp, dimension, 10, 0);
    bmp->Flags &= ~BITMAP_SIGNED;
    return status;
  };
  kit::ExpectStatuses({
      {"flags before size", [&] { return withSize(0, 1); }, RC_INVALID_PARAMETER},
      {"size 200", [&] { return withSize(200, 0); }, RC_INVALID_STRUCT_SIZE},
      {"size 176", [&] { return withSize(176, 0); }, RC_SUCCESS},
      {"null read by the first service", [] { return Q_DynamicBinaryBitmap(nullptr, 3, 0, 0); },
       RC_NO_BITMAP},
      {"null, dimension 1", [] { return Q_DynamicBinaryBitmap(nullptr, 1, 0, 0); }, RC_NO_BITMAP},
      {"null, dimension 0", [] { return Q_DynamicBinaryBitmap(nullptr, 0, 0, 0); }, RC_INVALID_PARAMETER},
      {"gray32 before signed", [&] { return Q_DynamicBinaryBitmap(gray32, 0, 0, 0); },
       RC_GRAY32_NOT_SUPPORTED},
      {"signed before dimension", [&] { return asSigned(0); }, RC_SIGNED_DATA_NOT_SUPPORTED},
      {"dimension 0", [&] { return Q_DynamicBinaryBitmap(bmp, 0, 0, 0); }, RC_INVALID_PARAMETER},
      {"dimension 1 checks no contrast", [&] { return Q_DynamicBinaryBitmap(bmp, 1, UINT32_MAX, 0); },
       RC_SUCCESS},
      {"8-bit contrast 255", [&] { return Q_DynamicBinaryBitmap(bmp, 3, 255, 0); }, RC_SUCCESS},
      {"8-bit contrast 256", [&] { return Q_DynamicBinaryBitmap(bmp, 3, 256, 0); }, RC_INVALID_PARAMETER},
      {"12-bit contrast 4095", [&] { return Q_DynamicBinaryBitmap(gray12, 3, 4095, 0); }, RC_SUCCESS},
      {"12-bit contrast 4096", [&] { return Q_DynamicBinaryBitmap(gray12, 3, 4096, 0); },
       RC_INVALID_PARAMETER},
      {"16-bit contrast 65535", [&] { return Q_DynamicBinaryBitmap(gray16, 2, 65535, 0); }, RC_SUCCESS},
      {"48-bit contrast 65536", [&] { return Q_DynamicBinaryBitmap(wide, 2, 65536, 0); },
       RC_INVALID_PARAMETER},
      {"huge window", [&] { return Q_DynamicBinaryBitmap(bmp, UINT32_MAX, 0, 0); }, RC_SUCCESS},
  });
}

// Every kind, windows 1 to 9, three contrasts, no region, a rectangle and an
// ellipse: the stored result equals the brute-force decision written back.
TEST(DynamicBinary, MatchesBruteForceWindows) {
  PaletteEntry palette[256];
  for (uint32_t i = 0; i < 256; ++i)
    palette[i] = {uint8_t(i * 37 + 5), uint8_t(250 - i * 11), uint8_t(i * 91), 0};
  uint32_t seed = 1;
  for (const kit::Format &format : kit::AllFormats(true)) {
    for (uint32_t d = 1; d <= 9; ++d) {
      for (int32_t regionKind = 0; regionKind < 3; ++regionKind) {
        SCOPED_TRACE(format.Name() + " d=" + std::to_string(d) + " region " + std::to_string(regionKind));
        kit::Bitmap bmp(format, 13, 11, format.IsPalette() ? palette : nullptr);
        bmp.Randomize(++seed);
        if (regionKind == 1) kit::SetRectRegion(bmp, 3, 2, 10, 9);
        if (regionKind == 2) kit::SetEllipseRegion(bmp, 1, 3, 12, 11);
        kit::Bitmap expected;  // filled by CopyBitmap
        ASSERT_EQ(CopyBitmap(expected, bmp, BITMAP_RECORD_SIZE), RC_SUCCESS);
        const auto rows = WorkingRows(bmp);
        const bool wide = format.bits >= 12 && (format.IsGray() || format.bits >= 48);
        const uint32_t scale = format.bits == 12 ? 16 : 1;
        for (uint32_t contrast : {0u, 9u, wide ? 30000u / scale : 120u}) {
          kit::Bitmap work;  // filled by CopyBitmap
          ASSERT_EQ(CopyBitmap(work, bmp, BITMAP_RECORD_SIZE), RC_SUCCESS);
          ASSERT_EQ(Q_DynamicBinaryBitmap(work, d, contrast, 0), RC_SUCCESS);
          kit::Bitmap want;  // filled by CopyBitmap
          ASSERT_EQ(CopyBitmap(want, bmp, BITMAP_RECORD_SIZE), RC_SUCCESS);
          if (d == 1) {
            ASSERT_EQ(FillBitmap(want, 0xFFFFFFu), RC_SUCCESS);
          } else {
            WriteInside(want, BruteForce(rows, d, contrast * scale, wide));
          }
          ASSERT_EQ(work.StoredBytes(), want.StoredBytes()) << "contrast " << contrast;
        }
      }
    }
  }
}

// A window larger than the bitmap sees the whole bitmap; the O(1) extremes
// agree with brute force on a wide random row set and on windows beyond it.
TEST(DynamicBinary, LargeWindows) {
  kit::Bitmap bmp(Kind(8, ORDER_GRAY), 70, 23);
  for (uint32_t d : {16u, 31u, 64u, 141u, 100000u, UINT32_MAX}) {
    SCOPED_TRACE(d);
    bmp.Randomize(d);
    kit::SetRectRegion(bmp, 5, 4, 66, 20);
    const auto rows = WorkingRows(bmp);
    kit::Bitmap want;
    ASSERT_EQ(CopyBitmap(want, bmp, BITMAP_RECORD_SIZE), RC_SUCCESS);
    WriteInside(want, BruteForce(rows, d > 150 ? 150 + (d & 1) : d, 40, false));
    ASSERT_EQ(Q_DynamicBinaryBitmap(bmp, d, 40, 0), RC_SUCCESS);
    EXPECT_EQ(bmp.StoredBytes(), want.StoredBytes());
  }
}

// Every instruction set gives the scalar scans' pixels, on every kind, with
// and without a region, for windows whose rows and columns span several
// vectors and leave tails (the SIMD loops serve 8-bit working rows).
TEST(DynamicBinary, InstructionSetsMatchScalar) {
  uint32_t seed = 40;
  for (const kit::Format &format : kit::AllFormats(true)) {
    for (const auto &[d, contrast, region] : {std::tuple{2u, 0u, false},
                                              {3u, 15u, true},
                                              {15u, 40u, false},
                                              {3u, 200u, false},
                                              {63u, 9u, true},
                                              {200u, 255u, false}}) {
      SCOPED_TRACE(format.Name() + " d=" + std::to_string(d));
      kit::Bitmap source(format, 157, 70);
      source.Randomize(++seed);
      if (region) kit::SetEllipseRegion(source, 3, 2, 150, 66);
      kit::Bitmap scalar;
      ASSERT_EQ(CopyBitmap(scalar, source, BITMAP_RECORD_SIZE), RC_SUCCESS);
      ASSERT_EQ(img::DynamicBinaryIsa(scalar, d, contrast, 0, img::Isa::Scalar), RC_SUCCESS);
      for (img::Isa isa : img::kAllIsas) {
        if (isa == img::Isa::Scalar || !img::IsaAvailable(isa)) continue;
        kit::Bitmap work;
        ASSERT_EQ(CopyBitmap(work, source, BITMAP_RECORD_SIZE), RC_SUCCESS);
        ASSERT_EQ(img::DynamicBinaryIsa(work, d, contrast, 0, isa), RC_SUCCESS);
        EXPECT_EQ(work.StoredBytes(), scalar.StoredBytes()) << img::IsaName(isa);
      }
    }
  }
}

// Kept: a flat window is decided by its brightest sample alone, against 128
// (8 bits) and 32767 (16 bits, not 32768); a pixel at the midpoint is white;
// 12-bit contrast is scaled by 16.
TEST(DynamicBinary, FlatWindowsAndMidpoint) {
  struct Case {
    const char *name;
    kit::Format format;
    std::vector<uint32_t> levels;  // one row
    uint32_t dimension, contrast;
    std::vector<uint32_t> out;
  } cases[] = {
      {"uniform 127 black", Kind(8, ORDER_GRAY), {127, 127, 127}, 3, 0, {0, 0, 0}},
      {"uniform 128 white", Kind(8, ORDER_GRAY), {128, 128, 128}, 3, 0, {255, 255, 255}},
      {"16-bit 32767 white (kept)", Kind(16, ORDER_GRAY), {32767, 32767}, 2, 0, {65535, 65535}},
      {"16-bit 32766 black", Kind(16, ORDER_GRAY), {32766, 32766}, 2, 0, {0, 0}},
      {"contrast 255 never an edge", Kind(8, ORDER_GRAY), {0, 255, 0, 0, 0}, 3, 255, {255, 255, 255, 0, 0}},
      {"midpoint turns white", Kind(8, ORDER_GRAY), {10, 20, 30}, 3, 5, {0, 255, 255}},
      {"flat by the maximum, not the midpoint", Kind(8, ORDER_GRAY), {100, 140, 100}, 3, 50, {255, 255, 255}},
      {"12-bit 4094 is an edge", Kind(12, ORDER_GRAY), {0, 4095, 0}, 3, 4094, {0, 65535 >> 4, 0}},
      {"12-bit 4095 is 65520: flat", Kind(12, ORDER_GRAY), {0, 4095, 0}, 3, 4095, {4095, 4095, 4095}},
      {"dimension 1 white", Kind(8, ORDER_GRAY), {0, 3, 9}, 1, 0, {255, 255, 255}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<kit::Pixel> pixels;
    for (uint32_t v : c.levels) pixels.push_back(Level(v));
    kit::Bitmap bmp(c.format, static_cast<int32_t>(pixels.size()), 1, pixels);
    ASSERT_EQ(Q_DynamicBinaryBitmap(bmp, c.dimension, c.contrast, 0), RC_SUCCESS);
    for (size_t x = 0; x < c.out.size(); ++x) EXPECT_EQ(bmp.At(int32_t(x), 0), Level(c.out[x])) << x;
  }
}

// Colour bitmaps come back black and white in all three samples; the fourth stays.
TEST(DynamicBinary, ColourComesBackBlackAndWhite) {
  kit::Bitmap bmp(
      Kind(32), 4, 1,
      {kit::Rgb(250, 0, 0, 7), kit::Rgb(0, 250, 0, 7), kit::Rgb(5, 5, 5, 7), kit::Rgb(255, 255, 255, 7)});
  ASSERT_EQ(Q_DynamicBinaryBitmap(bmp, 3, 10, 0), RC_SUCCESS);
  for (int32_t x = 0; x < 4; ++x) {
    const kit::Pixel p = bmp.At(x, 0);
    EXPECT_TRUE(p.v[0] == p.v[1] && p.v[1] == p.v[2] && (p.v[0] == 0 || p.v[0] == 255) && p.v[3] == 7) << p;
  }
}

}  // namespace
