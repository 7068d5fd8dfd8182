// Q_LocalHistoEqualizeBitmap and Q_ColorIntensityBalance: the entry frame and
// ranges, hand-worked curves (clipping, the blend between tile centres),
// uniform bitmaps staying uniform, neutral gray staying gray, regions and
// cleanup.
#include "LocalEq.h"

#include <gtest/gtest.h>

#include <tuple>
#include <vector>

#include "kit.h"

namespace {

using kit::Level;
using kit::Pixel;
using kit::Rgb;

kit::Format Kind(int32_t bits, int32_t order = ORDER_BGR) { return kit::Format{bits, order}; }

int32_t Local(BitmapRecord *b, uint32_t w, uint32_t h, uint32_t clip = 0, uint32_t mode = 1,
              uint32_t flags = 0) {
  return Q_LocalHistoEqualizeBitmap(b, w, h, clip, mode, flags);
}

int32_t Balance(BitmapRecord *b, uint32_t method, uint32_t strength, uint32_t flags = 0) {
  return Q_ColorIntensityBalance(b, method, strength, flags);
}

TEST(LocalAndBalance, ChecksInOrder) {
  kit::Bitmap bmp(Kind(24), 20, 10), small(Kind(24), 5, 3), gray32(Kind(32), 2, 2),
      gray8(Kind(8, ORDER_GRAY), 9, 9);
  kit::Bitmap gray16(Kind(16, ORDER_GRAY), 9, 9);
  gray32->ColorOrder = ORDER_GRAY;
  const auto sized = [&](uint32_t size, auto call) {
    bmp->StructSize = size;
    const int32_t status = call(bmp.get());
    bmp->StructSize = BITMAP_RECORD_SIZE;
    return status;
  };
  const auto asSigned = [&](auto call) {
    bmp->Flags |= BITMAP_SIGNED;
    const int32_t status = call(bmp.get());
    bmp->Flags &= ~BITMAP_SIGNED;
    return status;
  };
  kit::ExpectStatuses({
      {"local flags", [] { return Local(nullptr, 0, 0, 0, 0, 1); }, RC_INVALID_PARAMETER},
      {"local null", [] { return Local(nullptr, 8, 8); }, RC_NO_BITMAP},
      {"local size", [&] { return sized(0, [](BitmapRecord *b) { return Local(b, 8, 8); }); },
       RC_INVALID_STRUCT_SIZE},
      {"local gray32", [&] { return Local(gray32, 0, 0); }, RC_GRAY32_NOT_SUPPORTED},
      {"local signed before ranges", [&] { return asSigned([](BitmapRecord *b) { return Local(b, 0, 0); }); },
       RC_SIGNED_DATA_NOT_SUPPORTED},
      {"local tile 7", [&] { return Local(bmp, 7, 8); }, RC_INVALID_PARAMETER},
      {"local tile wider than bitmap", [&] { return Local(bmp, 21, 8); }, RC_INVALID_PARAMETER},
      {"local tile as wide", [&] { return Local(bmp, 20, 10); }, RC_SUCCESS},
      {"local tile taller", [&] { return Local(bmp, 8, 11); }, RC_INVALID_PARAMETER},
      {"local small bitmap takes 8", [&] { return Local(small, 8, 8); }, RC_SUCCESS},
      {"local small bitmap 9", [&] { return Local(small, 9, 8); }, RC_INVALID_PARAMETER},
      {"local clip 9", [&] { return Local(bmp, 8, 8, 9); }, RC_INVALID_PARAMETER},
      {"local clip 10", [&] { return Local(bmp, 8, 8, 10); }, RC_SUCCESS},
      {"local clip 1001", [&] { return Local(bmp, 8, 8, 1001); }, RC_INVALID_PARAMETER},
      {"local mode 0", [&] { return Local(bmp, 8, 8, 0, 0); }, RC_INVALID_PARAMETER},
      {"local mode 3", [&] { return Local(bmp, 8, 8, 0, 3); }, RC_INVALID_PARAMETER},
      {"local gray luminance", [&] { return Local(gray16, 8, 8, 30, 2); }, RC_SUCCESS},
      {"balance flags", [] { return Balance(nullptr, 1, 1, 1); }, RC_INVALID_PARAMETER},
      {"balance null", [] { return Balance(nullptr, 1, 1); }, RC_NO_BITMAP},
      {"balance size", [&] { return sized(200, [&](BitmapRecord *b) { return Balance(b, 1, 1); }); },
       RC_INVALID_STRUCT_SIZE},
      {"balance gray32", [&] { return Balance(gray32, 0, 0); }, RC_GRAY32_NOT_SUPPORTED},
      {"balance signed", [&] { return asSigned([&](BitmapRecord *b) { return Balance(b, 0, 0); }); },
       RC_SIGNED_DATA_NOT_SUPPORTED},
      {"balance method 0", [&] { return Balance(bmp, 0, 50); }, RC_INVALID_PARAMETER},
      {"balance method 3", [&] { return Balance(bmp, 3, 50); }, RC_INVALID_PARAMETER},
      {"balance strength 101", [&] { return Balance(bmp, 1, 101); }, RC_INVALID_PARAMETER},
      {"balance ranges before gray", [&] { return Balance(gray8, 3, 50); }, RC_INVALID_PARAMETER},
      {"balance gray", [&] { return Balance(gray8, 1, 50); }, RC_UNSUPPORTED_BITMAP},
      {"balance 16-bit gray", [&] { return Balance(gray16, 2, 50); }, RC_UNSUPPORTED_BITMAP},
  });
}

// One 8x8 tile, half black, half white. No clipping: map(0) = 32 * T / 64
// rounded. Clip 10 (limit max(1, 10 * 64 / 2560) = 1): each value keeps one
// count, the excess 62 spread over N bins: map(0) = (1 + 62 / N) * T / 64.
TEST(LocalEqualize, CurvesOfOneTile) {
  struct Case {
    kit::Format format;
    uint32_t top, clip, dark, bright;
  } cases[] = {{Kind(8, ORDER_GRAY), 255, 0, 128, 255},
               {Kind(8, ORDER_GRAY), 255, 10, 5, 255},
               {Kind(16, ORDER_GRAY), 65535, 0, 32768, 65535},
               {Kind(16, ORDER_GRAY), 65535, 10, 1025, 65535}};
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << c.format.Name() << " clip " << c.clip);
    std::vector<Pixel> in(64);
    for (int32_t i = 0; i < 64; ++i) in[i] = Level(i % 8 < 4 ? 0 : c.top);
    kit::Bitmap bmp(c.format, 8, 8, in);
    ASSERT_EQ(Local(bmp, 8, 8, c.clip), RC_SUCCESS);
    EXPECT_EQ(bmp.At(0, 0), Level(c.dark));
    EXPECT_EQ(bmp.At(7, 7), Level(c.bright));
  }
}

// Two tiles side by side, all 0 and all 255: left of the first centre (x 4)
// and right of the second (x 12) a pixel takes one curve; between them the
// blend, weight (2x + 1 - 8) / 16 of the right tile's curve.
TEST(LocalEqualize, BlendBetweenTileCentres) {
  std::vector<Pixel> in(16 * 8);
  for (int32_t i = 0; i < 128; ++i) in[i] = Level(i % 16 < 8 ? 0 : 255);
  kit::Bitmap bmp(Kind(8, ORDER_GRAY), 16, 8, in);
  ASSERT_EQ(Local(bmp, 8, 8), RC_SUCCESS);
  // Left curve: everything to 255. Right curve: 0 to 0, 255 to 255.
  const uint32_t want[16] = {255, 255, 255, 255, 239, 207, 175, 143, 255, 255, 255, 255, 255, 255, 255, 255};
  for (int32_t x = 0; x < 16; ++x) EXPECT_EQ(bmp.At(x, 3), Level(want[x])) << x;
}

// Every tile holds the same number of pixels (the last tile of a row or
// column moves back to the edge), so a uniform bitmap keeps one value.
TEST(LocalEqualize, UniformStaysUniform) {
  for (const kit::Format &format :
       {Kind(8, ORDER_GRAY), Kind(24), Kind(48, ORDER_RGB), Kind(16, ORDER_GRAY), Kind(16)})
    for (uint32_t clip : {0u, 10u, 35u, 1000u})
      for (uint32_t mode : {1u, 2u}) {
        SCOPED_TRACE(testing::Message() << format.Name() << " clip " << clip << " mode " << mode);
        const uint32_t v = format.bits >= 48 || (format.IsGray() && format.bits == 16) ? 20000 : 90;
        const Pixel p = format.IsGray() ? Level(v) : format.bits == 16 ? Rgb(11, 11, 11) : Rgb(v, v / 2, v);
        kit::Bitmap bmp(format, 21, 13, std::vector<Pixel>(21 * 13, p));
        ASSERT_EQ(Local(bmp, 8, 8, clip, mode), RC_SUCCESS);
        const Pixel first = bmp.At(0, 0);
        for (const Pixel &q : bmp.Pixels()) ASSERT_EQ(q, first);
      }
}

// Regions: pixels outside keep their values; every allocation failure (of
// either course) and every cancel is handled (the sweep covers every kind
// with its defaults).
TEST(LocalEqualize, RegionsFailuresAndCancels) {
  for (const kit::Format &format : {Kind(8, ORDER_GRAY), Kind(64), Kind(4)}) {
    SCOPED_TRACE(format.Name());
    const auto setup = [&] {
      kit::Bitmap b(format, 19, 17);
      b.Randomize(2);
      kit::SetEllipseRegion(b, 2, 1, 18, 16);
      return b;
    };
    kit::Bitmap b = setup();
    const auto before = b.Pixels();
    ASSERT_EQ(Local(b, 8, 9, 0, 2), RC_SUCCESS);
    int changed = 0;
    for (int32_t i = 0; i < 19 * 17; ++i) {
      if (!kit::InRegion(b, i % 19, i / 19)) {
        EXPECT_EQ(b.At(i % 19, i / 19), before[i]) << i;
      }
      changed += !(b.At(i % 19, i / 19) == before[i]);
    }
    EXPECT_GT(changed, 0);
    const auto call = [](kit::Bitmap &bmp) { return Local(bmp, 8, 8, 30, 1); };
    EXPECT_GE(kit::CheckAllocationFailures(setup, call), 3);
    // Tiles of 16x16 take the dense course where a tile holds 256 values.
    EXPECT_GE(kit::CheckAllocationFailures(setup, [](kit::Bitmap &bmp) { return Local(bmp, 16, 16, 30, 1); }),
              3);
    EXPECT_GE(kit::CheckCancellation(setup, call), 20);  // after each row of the bounds, twice
  }
}

// Every instruction set and both courses give the result of the scalar tile
// rows: the 8-bit gray rows take the SIMD blend and table loops (the dense
// course's AVX-512 blend certifies each pixel or falls back to the doubles),
// the other kinds share the course around them. Tiles that do not divide the
// bitmap overlap at the edges; the region leaves pixels of tiles uncounted.
TEST(LocalEqualize, InstructionSetsAndCoursesMatchScalar) {
  using img::localeq::Course;
  for (const kit::Format &format : {Kind(8, ORDER_GRAY), Kind(16, ORDER_GRAY), Kind(24), Kind(64), Kind(8)})
    for (const bool region : {false, true})
      for (const auto &[tile, clip, mode] : {std::tuple{8, 0u, 1u},
                                             {9, 30u, 1u},
                                             {13, 30u, 1u},
                                             {26, 30u, 1u},
                                             {37, 1000u, 2u},
                                             {64, 20u, 1u},
                                             {150, 0u, 1u}}) {
        SCOPED_TRACE(format.Name() + (region ? " region" : "") + " tile " + std::to_string(tile));
        const auto run = [&](img::Isa isa, Course course) {
          kit::Bitmap b(format, 157, 67);
          b.Randomize(5);
          if (region) kit::SetEllipseRegion(b, 3, 2, 150, 66);
          EXPECT_EQ(img::localeq::Equalize(isa, b, tile, tile / 2 + 9, clip, mode == 2, course), RC_SUCCESS);
          return b.StoredBytes();
        };
        const auto scalar = run(img::Isa::Scalar, Course::TileRows);
        const bool wide = format.bits == 64 || (format.bits == 16 && format.IsGray());
        for (const img::Isa isa : img::kAllIsas) {
          if (!img::IsaAvailable(isa)) continue;
          for (const Course course : {Course::TileRows, Course::Dense})
            // 65536 counts a tile; gray tiles of 9 pixels: 18 tile columns,
            // more than the stored rows' counting takes at a time.
            if (course == Course::TileRows || !wide || tile >= 26 || (tile == 9 && format.IsGray())) {
              EXPECT_EQ(run(isa, course), scalar)
                  << img::IsaName(isa) << (course == Course::Dense ? " dense" : "");
            }
        }
      }
}

// 16-bit gray counts kept in 16 bits wrap at a value seen 65536 times in a
// tile: one tile of 72000 pixels, 65540 of them 40000 (wrapped count 4,
// below the limit 14 of clip 130), counted again, against the scalar tile
// rows.
TEST(LocalEqualize, ValueSeen65536TimesInATile) {
  using img::localeq::Course;
  for (const uint32_t clip : {10u, 130u}) {
    SCOPED_TRACE(clip);
    const auto run = [&](img::Isa isa, Course course) {
      kit::Bitmap b(Kind(16, ORDER_GRAY), 300, 240);
      b.Randomize(7);
      for (int32_t i = 0; i < 65540; ++i) b.Set(i % 300, i / 300, Level(40000));
      EXPECT_EQ(img::localeq::Equalize(isa, b, 300, 240, clip, false, course), RC_SUCCESS);
      return b.StoredBytes();
    };
    const auto scalar = run(img::Isa::Scalar, Course::TileRows);
    for (const img::Isa isa : img::kAllIsas)
      if (img::IsaAvailable(isa)) {
        EXPECT_EQ(run(isa, Course::Dense), scalar) << img::IsaName(isa);
      }
  }
}

// Gray world: gains (S_r + S_g + S_b) / (3 S_c); white patch: the 99.5 %
// value to full scale; the strength blends. Neutral gray stays as it is.
TEST(IntensityBalance, GainsAndNeutralGray) {
  struct Case {
    const char *name;
    kit::Format format;
    uint32_t method, strength;
    std::vector<Pixel> in, out;
  } cases[] = {
      {"gray world",
       Kind(24),
       1,
       100,
       {Rgb(100, 50, 150), Rgb(100, 50, 150)},
       {Rgb(100, 100, 100), Rgb(100, 100, 100)}},
      {"gray world half",
       Kind(32),
       1,
       50,
       {Rgb(100, 50, 150, 3), Rgb(100, 50, 150, 4)},
       {Rgb(100, 75, 125, 3), Rgb(100, 75, 125, 4)}},
      {"gray world none",
       Kind(48),
       1,
       0,
       {Rgb(100, 50, 150), Rgb(1, 2, 3)},
       {Rgb(100, 50, 150), Rgb(1, 2, 3)}},
      {"white patch 16-bit",
       Kind(64),
       2,
       100,
       {Rgb(30000, 65535, 0), Rgb(30000, 0, 0)},
       {Rgb(65535, 65535, 0), Rgb(65535, 0, 0)}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    kit::Bitmap bmp(c.format, static_cast<int32_t>(c.in.size()), 1, c.in);
    ASSERT_EQ(Q_ColorIntensityBalance(bmp, c.method, c.strength, 0), RC_SUCCESS);
    EXPECT_EQ(bmp.Pixels(), c.out);
  }
  // White patch: 199 of 200 red samples at 100, one at 250: 100 is the
  // 99.5 % value (gain 2.55), so both reach 255; green all 0 keeps gain 1.
  std::vector<Pixel> in(200, Rgb(100, 0, 40));
  in[7] = Rgb(250, 0, 40);
  kit::Bitmap patch(Kind(24), 20, 10, in);
  ASSERT_EQ(Q_ColorIntensityBalance(patch, 2, 100, 0), RC_SUCCESS);
  EXPECT_EQ(patch.At(0, 0), Rgb(255, 0, 255));
  EXPECT_EQ(patch.At(7, 0), Rgb(255, 0, 255));
  for (const kit::Format &format : kit::ColorFormats()) {
    SCOPED_TRACE(format.Name());
    kit::Bitmap gray(format, 7, 5);
    gray.Randomize(9);
    for (int32_t i = 0; i < 35; ++i) {
      const Pixel p = gray.At(i % 7, i / 7);
      gray.Set(i % 7, i / 7, Rgb(p.v[0], p.v[0], p.v[0], p.v[3]));
    }
    const auto before = gray.Pixels();
    for (uint32_t method : {1u, 2u}) {
      ASSERT_EQ(Q_ColorIntensityBalance(gray, method, 100, 0), RC_SUCCESS);
      if (method == 1) {
        EXPECT_EQ(gray.Pixels(), before) << "gray world leaves neutral gray";
      }
    }
  }
}

// Palette bitmaps without a region change their palette from the pixels'
// statistics; with a region their pixels go as rows.
TEST(IntensityBalance, PalettesAndCleanup) {
  PaletteEntry palette[256] = {};
  for (int32_t i = 0; i < 16; ++i) palette[i] = {uint8_t(i * 10), uint8_t(i * 5), uint8_t(i * 15), 0};
  kit::Bitmap bmp(Kind(4), 2, 1, {Level(2), Level(2)}, palette);  // (R, G, B) = (30, 10, 20)
  ASSERT_EQ(Q_ColorIntensityBalance(bmp, 1, 100, 0), RC_SUCCESS);
  EXPECT_EQ(bmp.At(0, 0), Level(2));
  const PaletteEntry &e = bmp->Palette[2];
  EXPECT_TRUE(e.Red == 20 && e.Green == 20 && e.Blue == 20)
      << int(e.Red) << " " << int(e.Green) << " " << int(e.Blue);
  for (const kit::Format &format : {Kind(8), Kind(24), Kind(48)}) {
    const auto setup = [&] {
      kit::Bitmap b(format, 9, 4, format.IsPalette() ? palette : nullptr);
      b.Randomize(1);
      return b;
    };
    for (uint32_t method : {1u, 2u}) {
      const auto call = [&](kit::Bitmap &b) { return Q_ColorIntensityBalance(b, method, 80, 0); };
      kit::CheckAllocationFailures(setup, call);
      kit::CheckCancellation(setup, call);
    }
  }
}

}  // namespace
