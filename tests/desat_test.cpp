// Q_DesaturateBitmap: entry checks, the lightness of rows and palettes,
// regions, the quiet success without a row buffer, and cleanup.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "kit.h"

namespace {

using kit::Pixel;
using kit::Rgb;

kit::Spec Kind(int32_t bits, int32_t order = ORDER_BGR) { return kit::Spec{bits, order}; }

// A palette that is not a gray ramp, so that the bitmap counts as colour.
std::vector<PaletteEntry> ColourPalette(int32_t count) {
  std::vector<PaletteEntry> p(256);
  for (int32_t i = 0; i < count; ++i)
    p[i] = PaletteEntry{static_cast<uint8_t>(i * 37 + 5), static_cast<uint8_t>(250 - i * 11),
                        static_cast<uint8_t>(i * 91), static_cast<uint8_t>(i + 3)};
  return p;
}

uint32_t Mid(uint32_t a, uint32_t b, uint32_t c) { return (std::max({a, b, c}) + std::min({a, b, c})) / 2; }

uint32_t Expand5(uint32_t v) { return (v << 3) | (v >> 2); }

// The lightness of a pixel on the kind's own scale; the fourth sample stays.
Pixel Expected(const kit::Spec &spec, const Pixel &p) {
  if (spec.bits == 16) {  // 5-bit samples widened to 8 bits for the work, narrowed by 3 after
    const uint32_t v = Mid(Expand5(p.v[0]), Expand5(p.v[1]), Expand5(p.v[2])) >> 3;
    return Rgb(v, v, v, p.v[3]);
  }
  const uint32_t v = Mid(p.v[0], p.v[1], p.v[2]);
  return Rgb(v, v, v, p.v[3]);
}

// ---- Entry checks -------------------------------------------------------------------

TEST(Desaturate, ChecksInOrder) {
  kit::Bitmap bmp(Kind(24), 3, 2);
  kit::Bitmap gray32(Kind(32), 2, 2);
  gray32->ColorOrder = ORDER_GRAY;
  gray32->Flags |= BITMAP_SIGNED;  // -1364 comes first
  kit::Bitmap gray8(Kind(8, ORDER_GRAY), 2, 2);
  kit::Bitmap gray12(Kind(12, ORDER_GRAY), 2, 2);
  kit::Bitmap gray16(Kind(16, ORDER_GRAY), 2, 2);
  kit::Bitmap rampPalette(Kind(4), 2, 2);  // default palette: the gray ramp
  const auto withSize = [&](uint32_t size, uint32_t flags) {
    const uint32_t old = bmp->StructSize;
    bmp->StructSize = size;
    const int32_t status = Q_DesaturateBitmap(bmp, flags);
    EXPECT_EQ(bmp->StructSize, size) << "record size must be stored back unchanged";
    bmp->StructSize = old;
    return status;
  };
  const auto asSigned = [&](BitmapRecord *b) {
    b->Flags |= BITMAP_SIGNED;
    const int32_t status = Q_DesaturateBitmap(b, 0);
    b->Flags &= ~BITMAP_SIGNED;
    return status;
  };
  kit::ExpectStatuses({
      {"flags before null", [] { return Q_DesaturateBitmap(nullptr, 1); }, RC_INVALID_PARAMETER},
      {"flags before size", [&] { return withSize(0, 1); }, RC_INVALID_PARAMETER},
      {"null", [] { return Q_DesaturateBitmap(nullptr, 0); }, RC_NO_BITMAP},
      {"size 0", [&] { return withSize(0, 0); }, RC_INVALID_STRUCT_SIZE},
      {"size 200", [&] { return withSize(200, 0); }, RC_INVALID_STRUCT_SIZE},
      {"size 176", [&] { return withSize(176, 0); }, RC_SUCCESS},
      {"size 208", [&] { return withSize(208, 0); }, RC_SUCCESS},
      {"gray32 before signed", [&] { return Q_DesaturateBitmap(gray32, 0); }, RC_GRAY32_NOT_SUPPORTED},
      {"signed colour", [&] { return asSigned(bmp); }, RC_SIGNED_DATA_NOT_SUPPORTED},
      {"signed before gray", [&] { return asSigned(gray8); }, RC_SIGNED_DATA_NOT_SUPPORTED},
      {"8-bit gray", [&] { return Q_DesaturateBitmap(gray8, 0); }, RC_UNSUPPORTED_BITMAP},
      {"12-bit gray", [&] { return Q_DesaturateBitmap(gray12, 0); }, RC_UNSUPPORTED_BITMAP},
      {"16-bit gray", [&] { return Q_DesaturateBitmap(gray16, 0); }, RC_UNSUPPORTED_BITMAP},
      {"gray-ramp palette", [&] { return Q_DesaturateBitmap(rampPalette, 0); }, RC_UNSUPPORTED_BITMAP},
  });
}

// ---- Rows -----------------------------------------------------------------------------

TEST(Desaturate, EightBitSamples) {
  struct Case {
    Pixel in;
    uint32_t out;
  } cases[] = {
      {Rgb(100, 200, 10), 105},                            // blue 10, green 200, red 100
      {Rgb(255, 0, 0), 127},                               // (255 + 0) / 2 truncates
      {Rgb(0, 0, 255), 127},    {Rgb(10, 100, 200), 105},  // largest and smallest in other channels
      {Rgb(200, 10, 100), 105}, {Rgb(77, 77, 77), 77},    {Rgb(255, 255, 254), 254},
  };
  std::vector<Pixel> in;
  for (const Case &c : cases) in.push_back(Rgb(c.in.v[0], c.in.v[1], c.in.v[2], 201));
  for (const kit::Spec &spec : {Kind(24), Kind(24, ORDER_RGB), Kind(32), Kind(32, ORDER_RGB)}) {
    SCOPED_TRACE(spec.Name());
    kit::Bitmap bmp(spec, static_cast<int32_t>(in.size()), 1, in);
    ASSERT_EQ(Q_DesaturateBitmap(bmp, 0), RC_SUCCESS);
    for (size_t i = 0; i < in.size(); ++i) {
      const uint32_t fourth = spec.bits == 32 ? 201 : 0;  // the fourth sample is not touched
      EXPECT_EQ(bmp.At(static_cast<int32_t>(i), 0), Rgb(cases[i].out, cases[i].out, cases[i].out, fourth))
          << i;
    }
  }
}

TEST(Desaturate, SixteenBitSamples) {
  const std::vector<Pixel> in = {Rgb(1, 65535, 0, 4321), Rgb(65535, 65535, 65534, 9), Rgb(3, 3, 3, 0)};
  const uint32_t out[] = {32767, 65534, 3};
  for (const kit::Spec &spec : {Kind(48), Kind(48, ORDER_RGB), Kind(64), Kind(64, ORDER_RGB)}) {
    SCOPED_TRACE(spec.Name());
    kit::Bitmap bmp(spec, 3, 1, in);
    ASSERT_EQ(Q_DesaturateBitmap(bmp, 0), RC_SUCCESS);
    for (int32_t x = 0; x < 3; ++x) {
      const uint32_t fourth = spec.bits == 64 ? in[x].v[3] : 0;
      EXPECT_EQ(bmp.At(x, 0), Rgb(out[x], out[x], out[x], fourth)) << x;
    }
  }
}

TEST(Desaturate, EveryKind) {
  for (const kit::Spec &spec : kit::AllSpecs(true)) {
    SCOPED_TRACE(spec.Name());
    const auto palette = ColourPalette(spec.IsPalette() ? 1 << spec.bits : 0);
    kit::Bitmap bmp(spec, 7, 5, spec.IsPalette() ? palette.data() : nullptr);
    bmp.Randomize(11);
    const auto before = bmp.Pixels();
    const int32_t status = Q_DesaturateBitmap(bmp, 0);
    if (spec.IsGray()) {
      EXPECT_EQ(status, RC_UNSUPPORTED_BITMAP);
      EXPECT_EQ(bmp.Pixels(), before);
      continue;
    }
    ASSERT_EQ(status, RC_SUCCESS);
    if (spec.IsPalette()) {
      EXPECT_EQ(bmp.Pixels(), before) << "indices stay";
      std::vector<PaletteEntry> now(static_cast<size_t>(bmp->ColorsUsed));
      ASSERT_EQ(GetPalette(bmp, 0, bmp->ColorsUsed, now.data()), bmp->ColorsUsed);
      for (int32_t i = 0; i < bmp->ColorsUsed; ++i) {
        const PaletteEntry &o = palette[i];
        const auto v = static_cast<uint8_t>(Mid(o.Blue, o.Green, o.Red));
        EXPECT_EQ(now[i].Blue, v) << i;
        EXPECT_EQ(now[i].Green, v) << i;
        EXPECT_EQ(now[i].Red, v) << i;
        EXPECT_EQ(now[i].Reserved, o.Reserved) << "reserved byte is left as it is";
      }
      continue;
    }
    for (int32_t y = 0; y < 5; ++y)
      for (int32_t x = 0; x < 7; ++x)
        EXPECT_EQ(bmp.At(x, y), Expected(spec, before[y * 7 + x])) << x << "," << y;
  }
}

// ---- Regions ------------------------------------------------------------------------------

TEST(Desaturate, RegionLimitsTheChange) {
  struct Case {
    const char *name;
    bool ellipse;
  } cases[] = {{"rectangle", false}, {"ellipse", true}};
  for (const Case &c : cases) {
    for (const kit::Spec &spec : {Kind(24), Kind(48, ORDER_RGB)}) {
      SCOPED_TRACE(testing::Message() << c.name << " " << spec.Name());
      kit::Bitmap bmp(spec, 12, 10);
      bmp.Randomize(5);
      if (c.ellipse)
        kit::SetEllipseRegion(bmp, 1, 1, 11, 9);
      else
        kit::SetRectRegion(bmp, 2, 3, 9, 8);
      const auto before = bmp.Pixels();
      ASSERT_EQ(Q_DesaturateBitmap(bmp, 0), RC_SUCCESS);
      int inside = 0, cornersKept = 0;
      for (int32_t y = 0; y < 10; ++y) {
        for (int32_t x = 0; x < 12; ++x) {
          const Pixel &old = before[y * 12 + x];
          if (kit::InRegion(bmp, x, y)) {
            ++inside;
            EXPECT_EQ(bmp.At(x, y), Expected(spec, old)) << x << "," << y;
          } else {
            EXPECT_EQ(bmp.At(x, y), old) << x << "," << y;
            if (c.ellipse && x >= 1 && x < 11 && y >= 1 && y < 9) ++cornersKept;
          }
        }
      }
      EXPECT_GT(inside, 0);
      if (c.ellipse) {
        EXPECT_GT(cornersKept, 0) << "the ellipse's bounding box has pixels outside it";
      }
    }
  }
}

TEST(Desaturate, EmptyRegionChangesNothing) {
  kit::Bitmap bmp(Kind(24), 6, 4);
  bmp.Randomize(3);
  kit::SetRectRegion(bmp, 2, 2, 2, 2);
  Rect bounds{};
  ASSERT_EQ(GetRegionBounds(bmp, nullptr, &bounds), RC_SUCCESS);
  ASSERT_TRUE(bounds.Right <= bounds.Left || bounds.Bottom <= bounds.Top);
  const auto before = bmp.Pixels();
  EXPECT_EQ(Q_DesaturateBitmap(bmp, 0), RC_SUCCESS);
  EXPECT_EQ(bmp.Pixels(), before);
}

// ---- Palettes -------------------------------------------------------------------------------

TEST(Desaturate, PaletteFailuresGiveNoBitmap) {
  const auto palette = ColourPalette(16);
  kit::Bitmap bmp(Kind(4), 4, 4, palette.data());
  const int32_t colors = bmp->ColorsUsed;
  bmp->ColorsUsed = 17;  // more than a 4-bit palette holds: GetPalette fails
  EXPECT_EQ(Q_DesaturateBitmap(bmp, 0), RC_NO_BITMAP);
  bmp->ColorsUsed = colors;
  std::vector<PaletteEntry> now(16);
  ASSERT_EQ(GetPalette(bmp, 0, 16, now.data()), 16);
  EXPECT_EQ(now[3].Blue, palette[3].Blue) << "palette untouched";
}

// ---- Memory ------------------------------------------------------------------------------------

// Allocations that CreateRowConverter makes for this bitmap.
uint32_t ConverterAllocations(BitmapRecord *bitmap) {
  const uint32_t armed = 100000;
  SetAllocationFailure(armed);
  RowConverter converter = nullptr;
  EXPECT_EQ(CreateRowConverter(bitmap, &converter, ROW_LAYOUT_NATIVE), RC_SUCCESS);
  const uint32_t used = armed - GetAllocationFailureCountdown();
  SetAllocationFailure(0);
  FreeRowConverter(converter);
  return used;
}

TEST(Desaturate, NoRowBufferIsAQuietSuccess) {
  for (const kit::Spec &spec : {Kind(24), Kind(64)}) {
    SCOPED_TRACE(spec.Name());
    kit::Bitmap bmp(spec, 5, 3);
    bmp.Randomize(9);
    const auto before = bmp.Pixels();
    const uint32_t creation = ConverterAllocations(bmp);
    ASSERT_GE(creation, 1u);
    const kit::LeakGuard guard;
    // The converter's own allocation failing is an error ...
    SetAllocationFailure(creation);
    EXPECT_EQ(Q_DesaturateBitmap(bmp, 0), RC_NO_MEMORY);
    SetAllocationFailure(0);
    // ... the row buffer's (the next one) leaves the bitmap alone and succeeds.
    SetAllocationFailure(creation + 1);
    EXPECT_EQ(Q_DesaturateBitmap(bmp, 0), RC_SUCCESS);
    EXPECT_EQ(GetAllocationFailureCountdown(), 0u) << "the armed failure was reached";
    SetAllocationFailure(0);
    EXPECT_EQ(bmp.Pixels(), before);
    EXPECT_EQ(guard.Live(), 0u);
    EXPECT_EQ(Q_DesaturateBitmap(bmp, 0), RC_SUCCESS);
    EXPECT_NE(bmp.Pixels(), before);
  }
}

struct Fixture {
  kit::Bitmap bmp;
};

TEST(Desaturate, AllocationFailuresReleaseEverything) {
  const auto palette = ColourPalette(256);
  struct Case {
    const char *name;
    kit::Spec spec;
    bool region;
  } cases[] = {{"24-bit", Kind(24), false},
               {"48-bit region", Kind(48), true},
               {"16-bit colour region", Kind(16), true},
               {"8-bit palette", Kind(8), false}};
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    const int failed = kit::CheckAllocationFailures(
        [&] {
          Fixture f{kit::Bitmap(c.spec, 9, 6, c.spec.IsPalette() ? palette.data() : nullptr)};
          f.bmp.Randomize(2);
          if (c.region) kit::SetEllipseRegion(f.bmp, 0, 0, 9, 6);
          return f;
        },
        [](Fixture &f) { return Q_DesaturateBitmap(f.bmp, 0); }, {RC_NO_MEMORY, RC_SUCCESS});
    EXPECT_GE(failed, 1);
  }
}

TEST(Desaturate, ReportsNoProgress) {
  const auto palette = ColourPalette(16);
  for (const kit::Spec &spec : {Kind(24), Kind(4)}) {
    SCOPED_TRACE(spec.Name());
    const int reports = kit::CheckCancellation(
        [&] {
          Fixture f{kit::Bitmap(spec, 8, 8, palette.data())};
          f.bmp.Randomize(4);
          return f;
        },
        [](Fixture &f) { return Q_DesaturateBitmap(f.bmp, 0); });
    EXPECT_EQ(reports, 0);
  }
}

}  // namespace
