// Q_ColorSeparateBitmap, Q_ColorMergeBitmap and the display colour models of
// imgdisplay (ConvertColorModelRow): checks in order, every model in both
// sample widths, kinds, sizes and orientations, the kept quirks, regions,
// cancellation, leaks and allocation failures.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "ClrSpc.h"
#include "PLANES_internal.h"
#include "kit.h"

namespace {

using kit::Bitmap;
using kit::Format;
using kit::Rgb;

// ---- Display colour models ---------------------------------------------------------

struct ModelCase {
  int32_t code8, code16, samples, bound;  // bound: largest round-trip error in samples
};
const ModelCase kModelCases[] = {
    {COLOR_MODEL_BGR, COLOR_MODEL_BGR16, 3, 0}, {COLOR_MODEL_CMYK, COLOR_MODEL_CMYK16, 4, 1},
    {COLOR_MODEL_HSV, COLOR_MODEL_HSV16, 3, 4}, {COLOR_MODEL_HLS, COLOR_MODEL_HLS16, 3, 5},
    {COLOR_MODEL_CMY, COLOR_MODEL_CMY16, 3, 0},
};

// Every model from the family's row and back, on random colours and the
// corners of the cube, within the model's rounding bound, in both widths.
template <class T>
void RoundTrips(const ModelCase &m, int32_t code, int32_t identity) {
  constexpr int32_t kWidth = 4096;
  std::vector<T> row(3 * kWidth), model(4 * kWidth), back(3 * kWidth);
  uint32_t state = 12345u + static_cast<uint32_t>(code);
  const uint32_t full = sizeof(T) == 1 ? 255u : 65535u;
  for (int32_t i = 0; i < 3 * kWidth; ++i) {
    state = state * 1664525u + 1013904223u;
    row[i] = static_cast<T>(i < 24 ? ((i / 3) >> (i % 3) & 1) * full : (state >> 8) % (full + 1));
  }
  ASSERT_EQ(ConvertColorModelRow(row.data(), model.data(), kWidth, identity, code), RC_SUCCESS);
  for (int32_t i = 0; i < m.samples * kWidth; ++i) ASSERT_LE(model[i], full);
  ASSERT_EQ(ConvertColorModelRow(model.data(), back.data(), kWidth, code, identity), RC_SUCCESS);
  int32_t worst = 0;
  for (int32_t i = 0; i < 3 * kWidth; ++i)
    worst = std::max(worst, std::abs(int32_t(back[i]) - int32_t(row[i])));
  EXPECT_LE(worst, m.bound) << "model " << code;
  if (m.bound > 1) {
    EXPECT_GT(worst, m.bound / 2) << "model " << code << ": the bound is not tight";
  }
}

TEST(ColorModels, RoundTripsWithinTheirBounds) {
  for (const ModelCase &m : kModelCases) {
    RoundTrips<uint8_t>(m, m.code8, COLOR_MODEL_BGR);
    RoundTrips<uint16_t>(m, m.code16, COLOR_MODEL_BGR16);
  }
}

TEST(ColorModels, HandCheckedPixels) {
  // Blue, green, red in; the model's samples in the order of its name out.
  const struct {
    int32_t code;
    std::vector<uint8_t> bgr, out;
  } cases[] = {
      {COLOR_MODEL_CMYK, {0, 0, 255}, {0, 255, 255, 0}},
      {COLOR_MODEL_CMYK, {0, 0, 0}, {0, 0, 0, 255}},
      // K = 255 - 200; C = (200 - 100) * 255 / 200 = 127.5 -> 128.
      {COLOR_MODEL_CMYK, {200, 200, 100}, {128, 0, 0, 55}},
      {COLOR_MODEL_HSV, {0, 0, 255}, {0, 255, 255}},
      // Green: a third of a turn, 256 / 3 = 85.3 -> 85; blue 170.7 -> 171.
      {COLOR_MODEL_HSV, {0, 255, 0}, {85, 255, 255}},
      {COLOR_MODEL_HSV, {255, 0, 0}, {171, 255, 255}},
      {COLOR_MODEL_HSV, {128, 128, 128}, {0, 0, 128}},
      // Magenta at five sixths of a turn: 213.3 -> 213; L = (255 + 0 + 1) / 2.
      {COLOR_MODEL_HLS, {255, 0, 255}, {213, 128, 255}},
      {COLOR_MODEL_HLS, {40, 40, 40}, {0, 40, 0}},
      {COLOR_MODEL_CMY, {10, 20, 30}, {225, 235, 245}},
      {COLOR_MODEL_BGR, {10, 20, 30}, {10, 20, 30}},
  };
  for (const auto &c : cases) {
    std::vector<uint8_t> out(4, 99);
    ASSERT_EQ(ConvertColorModelRow(c.bgr.data(), out.data(), 1, COLOR_MODEL_BGR, c.code), RC_SUCCESS);
    out.resize(c.out.size());
    EXPECT_EQ(out, c.out) << "model " << c.code;
  }
  uint8_t row[8] = {};
  kit::ExpectStatuses({
      {"null source", [&] { return ConvertColorModelRow(nullptr, row, 1, 0, 2); }, RC_INVALID_PARAMETER},
      {"null destination", [&] { return ConvertColorModelRow(row, nullptr, 1, 0, 2); }, RC_INVALID_PARAMETER},
      {"width 0", [&] { return ConvertColorModelRow(row, row, 0, 0, 2); }, RC_INVALID_PARAMETER},
      {"unknown code", [&] { return ConvertColorModelRow(row, row, 1, 0, 5); }, RC_INVALID_PARAMETER},
      {"widths differ", [&] { return ConvertColorModelRow(row, row, 1, 0, 64); }, RC_INVALID_PARAMETER},
      {"model to model", [&] { return ConvertColorModelRow(row, row, 1, 3, 4); }, RC_SUCCESS},
  });
}

// ---- Separation and merge ------------------------------------------------------------

struct Planes {
  BitmapRecord records[4] = {};
  BitmapRecord *ptr[4] = {&records[0], &records[1], &records[2], &records[3]};
  Planes() = default;
  Planes(const Planes &) = delete;
  Planes &operator=(const Planes &) = delete;
  ~Planes() {
    for (BitmapRecord &r : records)
      if (r.Flags & BITMAP_ALLOCATED) FreeBitmap(&r);
  }
  BitmapRecord *const *get() { return ptr; }
  int32_t Allocated() const {
    int32_t n = 0;
    for (const BitmapRecord &r : records) n += (r.Flags & BITMAP_ALLOCATED) != 0;
    return n;
  }
};

// A merged bitmap owned by the test.
struct Merged {
  BitmapRecord record{};
  Merged() = default;
  Merged(const Merged &) = delete;
  Merged &operator=(const Merged &) = delete;
  ~Merged() {
    if (record.Flags & BITMAP_ALLOCATED) FreeBitmap(&record);
  }
  // Colour of image pixel (x, y): red, green, blue on the 8- or 16-bit scale.
  kit::Pixel At(int32_t x, int32_t y) const {
    const uint8_t *row =
        record.Pixels +
        static_cast<size_t>(record.Orientation == ORIENT_BOTTOM_FIRST ? record.Height - 1 - y : y) *
            record.BytesPerLine;
    if (record.BitsPerPixel == 24) return Rgb(row[3 * x + 2], row[3 * x + 1], row[3 * x]);
    auto w = [&](int k) { return uint32_t(row[6 * x + 2 * k] | row[6 * x + 2 * k + 1] << 8); };
    return Rgb(w(2), w(1), w(0));
  }
};

TEST(Separate, ChecksInOrder) {
  Bitmap bmp(Format{24}, 3, 2), gray32(Format{32, ORDER_GRAY}, 3, 2), signedBmp(Format{24}, 3, 2);
  Bitmap bad(Format{24}, 3, 2);
  bad->StructSize = 200;
  gray32->Flags |= BITMAP_SIGNED;
  signedBmp->Flags |= BITMAP_SIGNED;
  BitmapRecord empty{};
  empty.StructSize = BITMAP_RECORD_SIZE;
  Planes p;
  BitmapRecord *missing[4] = {p.ptr[0], nullptr, p.ptr[2], p.ptr[3]};
  BitmapRecord *three[4] = {p.ptr[0], p.ptr[1], p.ptr[2], nullptr};
  auto sep = [&](BitmapRecord *b, BitmapRecord *const *planes, uint32_t size, uint32_t model) {
    return Q_ColorSeparateBitmap(b, planes, size, model);
  };
  kit::ExpectStatuses({
      {"null", [&] { return sep(nullptr, p.get(), 0, 99); }, RC_NO_BITMAP},
      {"unallocated", [&] { return sep(&empty, p.get(), 0, 99); }, RC_NO_BITMAP},
      {"record size", [&] { return sep(bad, p.get(), 0, 99); }, RC_INVALID_STRUCT_SIZE},
      {"gray32 before signed", [&] { return sep(gray32, p.get(), 0, 99); }, RC_GRAY32_NOT_SUPPORTED},
      {"signed", [&] { return sep(signedBmp, missing, 0, 99); }, RC_SIGNED_DATA_NOT_SUPPORTED},
      {"plane 1 null", [&] { return sep(bmp, missing, 0, 99); }, RC_INVALID_PARAMETER},
      {"cmyk, plane 3 null", [&] { return sep(bmp, three, 0, COLORSEP_MODEL2); }, RC_INVALID_PARAMETER},
      {"plane size", [&] { return sep(bmp, three, 200, 99); }, RC_INVALID_STRUCT_SIZE},
      {"model 10", [&] { return sep(bmp, three, 176, 10); }, RC_INVALID_PARAMETER},
  });
  // The significant bits were written although the check after them failed;
  // plane 0 took the record size; no plane was allocated.
  EXPECT_EQ(signedBmp->SignificantHighBit, 23);
  EXPECT_EQ(p.records[0].StructSize, 176u);
  EXPECT_EQ(p.Allocated(), 0);
}

TEST(Merge, ChecksInOrder) {
  Bitmap a(Format{8, ORDER_GRAY}, 3, 2), b(Format{8, ORDER_GRAY}, 3, 2),
      signedPlane(Format{8, ORDER_GRAY}, 3, 2);
  Bitmap bad(Format{8, ORDER_GRAY}, 3, 2);
  bad->StructSize = 200;
  signedPlane->Flags |= BITMAP_SIGNED;
  BitmapRecord empty{};
  empty.StructSize = BITMAP_RECORD_SIZE;
  BitmapRecord dest{};
  BitmapRecord *ok[4] = {a, b, a, nullptr};
  auto with = [&](BitmapRecord *plane) { return std::vector<BitmapRecord *>{a, plane, b, nullptr}; };
  auto merge = [&](std::vector<BitmapRecord *> planes, uint32_t size, uint32_t model) {
    return Q_ColorMergeBitmap(&dest, planes.data(), size, model);
  };
  kit::ExpectStatuses({
      {"null bitmap", [&] { return Q_ColorMergeBitmap(nullptr, ok, 208, 0); }, RC_INVALID_PARAMETER},
      {"null planes", [&] { return Q_ColorMergeBitmap(&dest, nullptr, 200, 0); }, RC_INVALID_PARAMETER},
      {"record size", [&] { return merge(with(nullptr), 200, 0); }, RC_INVALID_STRUCT_SIZE},
      {"plane null", [&] { return merge(with(nullptr), 176, 99); }, RC_NO_BITMAP},
      {"plane unallocated", [&] { return merge(with(&empty), 176, 99); }, RC_NO_BITMAP},
      {"plane size", [&] { return merge(with(bad), 176, 99); }, RC_INVALID_STRUCT_SIZE},
      {"plane signed", [&] { return merge(with(signedPlane), 176, 99); }, RC_SIGNED_DATA_NOT_SUPPORTED},
      {"cmyk takes a fourth plane", [&] { return merge(with(b), 176, COLORSEP_MODEL2); }, RC_NO_BITMAP},
      {"model 10", [&] { return merge(with(b), 176, 10); }, RC_INVALID_PARAMETER},
  });
  EXPECT_EQ(dest.StructSize, 176u);
  EXPECT_EQ(dest.Flags & BITMAP_ALLOCATED, 0u);
  dest.ColorOrder = ORDER_GRAY;
  dest.BitsPerPixel = 32;
  dest.SignificantHighBit = -1;
  EXPECT_EQ(Q_ColorMergeBitmap(&dest, ok, 208, 10), RC_GRAY32_NOT_SUPPORTED);
  dest.BitsPerPixel = 16;
  EXPECT_EQ(Q_ColorMergeBitmap(&dest, ok, 208, 10), RC_INVALID_PARAMETER);
  EXPECT_EQ(dest.SignificantHighBit, 15);
}

// Every model in both sample widths: planes of the source's size and
// orientation, of the right kind, and the merge giving the source back
// within the model's bound (display models; the colour-space models are
// not exact inverses of each other, on purpose).
TEST(SeparateMerge, EveryModelBothWidths) {
  const int32_t bounds[10] = {0, 1, 4, 5, 0, -1, -1, -1, -1, -1};
  // 133 pixels a row: two steps of the widest row loops and a rest.
  for (const Format &f : {Format{24}, Format{24, ORDER_RGB, ORIENT_BOTTOM_FIRST},
                          Format{48, ORDER_RGB, ORIENT_BOTTOM_FIRST}, Format{32}, Format{64}})
    for (uint32_t model = 0; model < 10; ++model) {
      SCOPED_TRACE(f.Name() + " model " + std::to_string(model));
      kit::LeakGuard guard;
      Bitmap src(f, 133, 5);
      src.Randomize(model + 3);
      Planes p;
      ASSERT_EQ(Q_ColorSeparateBitmap(src, p.get(), 208, model), RC_SUCCESS);
      const bool wide = f.bits > 32;
      ASSERT_EQ(p.Allocated(), model == COLORSEP_MODEL2 ? 4 : 3);
      for (int32_t k = 0; k < p.Allocated(); ++k) {
        EXPECT_EQ(p.records[k].BitsPerPixel, wide ? 16 : 8);
        EXPECT_EQ(p.records[k].ColorOrder, wide ? ORDER_GRAY : ORDER_RGB);
        EXPECT_EQ(p.records[k].Orientation, f.orientation);
        EXPECT_EQ(p.records[k].Width * 10 + p.records[k].Height, 1335);
      }
      Merged m;
      ASSERT_EQ(Q_ColorMergeBitmap(&m.record, p.get(), 176, model), RC_SUCCESS);
      EXPECT_EQ(m.record.BitsPerPixel, wide ? 48 : 24);
      EXPECT_EQ(m.record.StructSize, 176u);
      if (bounds[model] < 0) continue;
      for (int32_t y = 0; y < 5; ++y)
        for (int32_t x = 0; x < 133; ++x) {
          const kit::Pixel a = src.At(x, y), b = m.At(x, y);
          for (int k = 0; k < 3; ++k)
            ASSERT_LE(std::abs(int32_t(a.v[k]) - int32_t(b.v[k])), bounds[model]) << x;
        }
    }
}

// The row loops of every instruction set split and merge as the scalar
// ones, over rows of every length up to three vector steps, into rows that
// start on a 64-byte boundary (streaming stores) and rows that do not.
TEST(SeparateMerge, EveryInstructionSetMatchesScalar) {
  uint32_t state = 7;
  auto next = [&] { return state = state * 1664525u + 1013904223u; };
  std::vector<uint8_t> storage(4 * 704 + 64);
  uint8_t *base = storage.data() + (64 - reinterpret_cast<uintptr_t>(storage.data()) % 64) % 64;
  for (int32_t width = 1; width <= 200; ++width)
    for (int32_t offset : {0, 1}) {
      std::vector<uint8_t> in(3 * width), planes(3 * width);
      for (uint8_t &v : in) v = static_cast<uint8_t>(next() >> 24);
      for (int32_t x = 0; x < width; ++x)
        for (int32_t k = 0; k < 3; ++k) planes[k * width + x] = in[3 * x + k];
      uint8_t *rows[3] = {base + offset, base + 704 + offset, base + 1408 + offset},
              *merged = base + 2112 + offset;
      for (img::Isa isa : img::kAllIsas) {
        if (!img::IsaAvailable(isa)) continue;
        std::fill(storage.begin(), storage.end(), uint8_t{0xA5});
        img::planes::SplitRow3(isa, in.data(), rows[0], rows[1], rows[2], width);
        for (int32_t k = 0; k < 3; ++k)
          ASSERT_TRUE(std::equal(rows[k], rows[k] + width, &planes[k * width]))
              << img::IsaName(isa) << " width " << width << " offset " << offset << " plane " << k;
        img::planes::MergeRow3(isa, &planes[0], &planes[width], &planes[2 * width], merged, width);
        ASSERT_TRUE(std::equal(merged, merged + 3 * width, in.data()))
            << img::IsaName(isa) << " width " << width << " offset " << offset;
      }
    }
}

// Hand-checked plane values of the colour-space models and the kept stores
// of the merge elements.
TEST(SeparateMerge, ColourSpaceScalesAndKeptStores) {
  // Lab: white has L 100 -> 255, a 0 -> 128 (as a byte).
  Bitmap white(Format{24}, 1, 1, {Rgb(255, 255, 255)});
  Planes lab;
  ASSERT_EQ(Q_ColorSeparateBitmap(white, lab.get(), 208, COLORSEP_LAB), RC_SUCCESS);
  EXPECT_EQ(lab.records[0].Pixels[0], 255);
  EXPECT_EQ(lab.records[1].Pixels[0], 128);
  // Merging (p0, p1, p2) builds the element as written, the kept low-byte
  // stores included; the result is that element converted back to RGB.
  const struct {
    uint32_t model, space;
    uint8_t p[3];
    std::vector<uint8_t> element;
  } cases[] = {
      // length 255 / 255 * 443 = 443, stored as 443 mod 256 = 187; angles 0.
      {COLORSEP_SPHERICAL, COLORSPACE_SPHERICAL, {255, 0, 0}, {187, 0, 0, 0, 0, 0}},
      // V = 0 / 255 * 275 - 138 = -138: its low byte 118, zero-extended.
      {COLORSEP_YUV, COLORSPACE_YUV, {100, 128, 0}, {100, 0, 118, 0}},
      {COLORSEP_LAB, COLORSPACE_LAB, {255, 128, 128}, {100, 0, 0}},
      {COLORSEP_YCRCB, COLORSPACE_YCRCB, {90, 100, 200}, {90, 228, 72}},
  };
  for (const auto &c : cases) {
    Bitmap p0(Format{8, ORDER_GRAY}, 1, 1, {kit::Level(c.p[0])}),
        p1(Format{8, ORDER_GRAY}, 1, 1, {kit::Level(c.p[1])}),
        p2(Format{8, ORDER_GRAY}, 1, 1, {kit::Level(c.p[2])});
    BitmapRecord *planes[4] = {p0, p1, p2, nullptr};
    Merged m;
    ASSERT_EQ(Q_ColorMergeBitmap(&m.record, planes, 208, c.model), RC_SUCCESS);
    std::vector<uint8_t> element = c.element;
    element.resize(8);
    uint8_t bgr[3] = {};
    ASSERT_EQ(img::ConvertColorRow8(c.space + COLORSPACE_TO_RGB, bgr, element.data(), nullptr, 0, 1),
              RC_SUCCESS);
    EXPECT_EQ(m.At(0, 0), Rgb(bgr[2], bgr[1], bgr[0])) << "model " << c.model;
  }
}

TEST(SeparateMerge, KindsOfSourcesAndPlanes) {
  kit::LeakGuard guard;
  // A colour palette and 8-bit gray (with its ramp) separate into their colours.
  PaletteEntry palette[16] = {};
  palette[3] = {10, 20, 30, 0};
  palette[9] = {200, 100, 50, 0};
  for (const Format &f : {Format{4}, Format{8, ORDER_GRAY}, Format{12, ORDER_GRAY}, Format{16}}) {
    SCOPED_TRACE(f.Name());
    Bitmap src(f, 2, 1, f.IsPalette() ? palette : nullptr);
    src.Randomize(4);
    if (f.IsPalette()) src.Fill({kit::Level(3), kit::Level(9)});
    Planes p;
    ASSERT_EQ(Q_ColorSeparateBitmap(src, p.get(), 208, COLORSEP_RGB), RC_SUCCESS);
    for (int32_t x = 0; x < 2; ++x) {
      kit::Pixel c = src.At(x, 0);
      if (f.IsPalette()) c = src.ColorAt(x, 0);
      if (f.bits == 12) c = Rgb(c.v[0] >> 4, c.v[0] >> 4, c.v[0] >> 4);
      if (f.order == ORDER_GRAY && f.bits == 8) c = Rgb(c.v[0], c.v[0], c.v[0]);
      if (f.bits == 16)
        c = Rgb(c.v[0] << 3 | c.v[0] >> 2, c.v[1] << 3 | c.v[1] >> 2, c.v[2] << 3 | c.v[2] >> 2);
      EXPECT_EQ(Rgb(p.records[2].Pixels[x], p.records[1].Pixels[x], p.records[0].Pixels[x]), c) << x;
    }
  }
  // 16-bit gray planes with one 8-bit plane merge with 8-bit samples.
  Bitmap g16(Format{16, ORDER_GRAY}, 2, 1, {kit::Level(0x1234), kit::Level(0xFFFF)});
  Bitmap g8(Format{8, ORDER_GRAY}, 2, 1, {kit::Level(7), kit::Level(8)});
  BitmapRecord *mixed[4] = {g16, g16, g8, nullptr};
  Merged m;
  ASSERT_EQ(Q_ColorMergeBitmap(&m.record, mixed, 208, COLORSEP_RGB), RC_SUCCESS);
  EXPECT_EQ(m.record.BitsPerPixel, 24);
  EXPECT_EQ(m.At(0, 0), Rgb(7, 0x12, 0x12));
}

// Planes of different sizes and orientations: the smallest width and
// height, the planes aligned at their top-left corners, in both paths.
TEST(SeparateMerge, PlanesOfDifferentSizesAndOrientations) {
  for (uint32_t model : {COLORSEP_RGB, COLORSEP_XYZ}) {
    kit::LeakGuard guard;
    Bitmap a(Format{8, ORDER_GRAY, ORIENT_TOP_FIRST}, 5, 4),
        b(Format{8, ORDER_GRAY, ORIENT_BOTTOM_FIRST}, 6, 3),
        c(Format{8, ORDER_GRAY, ORIENT_BOTTOM_FIRST}, 4, 5);
    a.Randomize(1);
    b.Randomize(2);
    c.Randomize(3);
    BitmapRecord *planes[4] = {a, b, c, nullptr};
    Merged m;
    ASSERT_EQ(Q_ColorMergeBitmap(&m.record, planes, 208, model), RC_SUCCESS);
    ASSERT_EQ(m.record.Width * 10 + m.record.Height, 43);
    EXPECT_EQ(m.record.Orientation, model == COLORSEP_RGB ? ORIENT_BOTTOM_FIRST : ORIENT_TOP_FIRST);
    for (int32_t y = 0; y < 3; ++y)
      for (int32_t x = 0; x < 4; ++x) {
        uint8_t px[3] = {uint8_t(a.At(x, y).v[0]), uint8_t(b.At(x, y).v[0]), uint8_t(c.At(x, y).v[0])};
        if (model == COLORSEP_XYZ) {
          uint8_t xyz[3] = {px[0], px[1], px[2]};
          ASSERT_EQ(img::ConvertColorRow8(COLORSPACE_XYZ + COLORSPACE_TO_RGB, px, xyz, nullptr, 0, 1),
                    RC_SUCCESS);
        }
        ASSERT_EQ(m.At(x, y), Rgb(px[2], px[1], px[0])) << x << "," << y;
      }
  }
}

// The region is not looked at; progress 0, then after every row; a refusal
// ends the call with its answer, leaking nothing; every allocation failure
// is handled. Kept: plane 3 of a failed four-plane separation stays with the
// caller, and a colour-space merge returns 1 whatever its rows gave.
TEST(SeparateMerge, RegionsProgressFailuresAndKeptQuirks) {
  Bitmap src(Format{24}, 4, 3);
  src.Randomize(8);
  kit::SetRectRegion(src, 1, 1, 2, 2);
  {
    Planes p;
    kit::ScopedCallback cb([](int32_t) { return 1; });
    ASSERT_EQ(Q_ColorSeparateBitmap(src, p.get(), 208, COLORSEP_RGB), RC_SUCCESS);
    EXPECT_EQ(cb.Reports(), (std::vector<int32_t>{0, 33, 66, 100}));
    EXPECT_EQ(p.records[0].Pixels[0], src.At(0, 0).v[2]);
  }
  {
    // Without a callback the direct split's planes come unset from the
    // allocator (here from a heap left dirty on purpose): every byte, row
    // padding included, is the cleared planes' of a call with a callback.
    Bitmap wide(Format{24}, 133, 5);
    wide.Randomize(9);
    Planes cleared, unset;
    {
      kit::ScopedCallback cb([](int32_t) { return 1; });
      ASSERT_EQ(Q_ColorSeparateBitmap(wide, cleared.get(), 208, COLORSEP_RGB), RC_SUCCESS);
    }
    for (int round = 0; round < 2; ++round) {  // the second takes the blocks the first dirtied and freed
      for (BitmapRecord &r : unset.records)
        if (r.Flags & BITMAP_ALLOCATED) std::memset(r.Pixels, 0xA5, r.DataSize), FreeBitmap(&r);
      ASSERT_EQ(Q_ColorSeparateBitmap(wide, unset.get(), 208, COLORSEP_RGB), RC_SUCCESS);
    }
    for (int32_t k = 0; k < 3; ++k) {
      ASSERT_EQ(unset.records[k].DataSize, 136u * 5);
      EXPECT_EQ(std::memcmp(unset.records[k].Pixels, cleared.records[k].Pixels, 136 * 5), 0) << k;
    }
  }
  for (uint32_t model : {COLORSEP_RGB, COLORSEP_MODEL2, COLORSEP_YUV}) {
    SCOPED_TRACE(model);
    struct Fixture {
      Bitmap src{Format{32}, 6, 4};
      Planes planes;
      Merged merged;
    };
    auto setup = [] {
      auto f = std::make_unique<Fixture>();
      f->src.Randomize(2);
      return f;
    };
    auto separate = [&](std::unique_ptr<Fixture> &f) {
      const int32_t status = Q_ColorSeparateBitmap(f->src, f->planes.get(), 208, model);
      if (status != RC_SUCCESS && f->planes.Allocated() > 0) {
        EXPECT_EQ(f->planes.Allocated(), 1);  // plane 3, kept
        EXPECT_EQ(model, COLORSEP_MODEL2);
        EXPECT_TRUE(f->planes.records[3].Flags & BITMAP_ALLOCATED);
      }
      return status;
    };
    EXPECT_EQ(kit::CheckCancellation(setup, separate), 5);
    EXPECT_GT(kit::CheckAllocationFailures(setup, separate), 2);
    auto mergeSetup = [&] {
      auto f = setup();
      EXPECT_EQ(Q_ColorSeparateBitmap(f->src, f->planes.get(), 208, model), RC_SUCCESS);
      return f;
    };
    auto merge = [&](std::unique_ptr<Fixture> &f) {
      return Q_ColorMergeBitmap(&f->merged.record, f->planes.get(), 208, model);
    };
    if (model == COLORSEP_YUV) {
      {
        auto f = mergeSetup();
        kit::ScopedCallback cb([](int32_t) { return kit::kCancel; });
        EXPECT_EQ(merge(f), RC_SUCCESS);
        EXPECT_EQ(cb.Reports(), std::vector<int32_t>{0});
        EXPECT_TRUE(f->merged.record.Flags & BITMAP_ALLOCATED);
      }
      EXPECT_GT(kit::CheckAllocationFailures(mergeSetup, merge, {RC_NO_MEMORY, RC_SUCCESS}), 2);
    } else {
      EXPECT_EQ(kit::CheckCancellation(mergeSetup, merge), 5);
      EXPECT_GT(kit::CheckAllocationFailures(mergeSetup, merge), 2);
    }
  }
}

}  // namespace
