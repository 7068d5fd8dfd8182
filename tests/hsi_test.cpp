// Q_ChangeHueSatIntBitmap: checks, band normalisation, the per-hue table and
// the row and palette steps.
#include "HSI.h"

#include <gtest/gtest.h>

#include <vector>

#include "ClrSpc.h"
#include "kit.h"

namespace {

using kit::Rgb;
using namespace img::hsi;

kit::Spec Kind(int32_t bits, int32_t order = ORDER_BGR) { return kit::Spec{bits, order}; }

HueSatIntRange Band(int32_t os, int32_t oe, int32_t is, int32_t ie, int32_t hue = 0, int32_t sat = 0,
                    int32_t in = 0) {
  return HueSatIntRange{32, hue, sat, in, os, oe, is, ie};
}

const HueSatIntRange kNoBand = Band(0, 0, 0, 0);

int32_t Call(BitmapRecord *b, int32_t hue, int32_t sat, int32_t in,
             const std::vector<HueSatIntRange> &r = {kNoBand}) {
  return Q_ChangeHueSatIntBitmap(b, hue, sat, in, r.data(), static_cast<uint32_t>(r.size()), 0);
}

TEST(Hsi, ChecksInOrder) {
  kit::Bitmap bmp(Kind(24), 4, 2);
  kit::Bitmap gray(Kind(8, ORDER_GRAY), 2, 2);
  kit::Bitmap gray16(Kind(16, ORDER_GRAY), 2, 2);
  const auto mutate = [&](auto change, auto undo) {
    change();
    const int32_t status = Call(bmp, 0, 0, 0);
    undo();
    return status;
  };
  HueSatIntRange badSize = kNoBand;
  badSize.StructSize = 31;
  kit::ExpectStatuses({
      {"flags first", [] { return Q_ChangeHueSatIntBitmap(nullptr, 0, 0, 0, nullptr, 0, 1); },
       RC_INVALID_PARAMETER},
      {"size 200", [&] { return mutate([&] { bmp->StructSize = 200; }, [&] { bmp->StructSize = 208; }); },
       RC_INVALID_STRUCT_SIZE},
      {"gray32 before signed",
       [&] {
         return mutate(
             [&] { bmp->ColorOrder = ORDER_GRAY, bmp->BitsPerPixel = 32, bmp->Flags |= BITMAP_SIGNED; },
             [&] { bmp->ColorOrder = ORDER_BGR, bmp->BitsPerPixel = 24, bmp->Flags &= ~BITMAP_SIGNED; });
       },
       RC_GRAY32_NOT_SUPPORTED},
      {"signed",
       [&] { return mutate([&] { bmp->Flags |= BITMAP_SIGNED; }, [&] { bmp->Flags &= ~BITMAP_SIGNED; }); },
       RC_SIGNED_DATA_NOT_SUPPORTED},
      {"count 0 null", [&] { return Q_ChangeHueSatIntBitmap(bmp, 0, 0, 0, nullptr, 0, 0); }, RC_NULL_OPTIONS},
      {"count 3 null", [&] { return Q_ChangeHueSatIntBitmap(bmp, 0, 0, 0, nullptr, 3, 0); },
       RC_INVALID_PARAMETER},
      {"null ranges before null bitmap",
       [] { return Q_ChangeHueSatIntBitmap(nullptr, 0, 0, 0, nullptr, 0, 0); }, RC_NULL_OPTIONS},
      {"record size", [&] { return Call(bmp, 0, 0, 0, {badSize}); }, RC_INVALID_STRUCT_SIZE},
      {"only the first size counts",
       [&] {
         return Call(bmp, 0, 0, 0, {kNoBand, badSize});
       },
       RC_SUCCESS},
      {"null bitmap after the copy", [] { return Call(nullptr, 0, 0, 0); }, RC_NO_BITMAP},
      {"overall saturation", [&] { return Call(bmp, 0, 1001, 0); }, RC_INVALID_PARAMETER},
      {"overall intensity", [&] { return Call(bmp, 0, 0, -1001); }, RC_INVALID_PARAMETER},
      {"overall hue 18001", [&] { return Call(bmp, 18001, 0, 0); }, RC_INVALID_PARAMETER},
      {"overall hue -18000", [&] { return Call(bmp, -18000, 0, 0); }, RC_SUCCESS},
      {"record hue", [&] { return Call(bmp, 0, 0, 0, {Band(0, 10, 0, 10, -18001)}); }, RC_INVALID_PARAMETER},
      {"record saturation", [&] { return Call(bmp, 0, 0, 0, {Band(0, 10, 0, 10, 0, 1001)}); },
       RC_INVALID_PARAMETER},
      {"record angle 360", [&] { return Call(bmp, 0, 0, 0, {Band(0, 360, 0, 10)}); }, RC_INVALID_PARAMETER},
      {"record angle -360", [&] { return Call(bmp, 0, 0, 0, {Band(-360, 10, 0, 10)}); },
       RC_INVALID_PARAMETER},
      {"ranges before gray", [&] { return Call(gray, 0, 1001, 0); }, RC_INVALID_PARAMETER},
      {"gray 8", [&] { return Call(gray, 0, 0, 0); }, RC_INVALID_PARAMETER},
      {"gray 16", [&] { return Call(gray16, 100, 0, 0); }, RC_INVALID_PARAMETER},
      {"inner start below outer", [&] { return Call(bmp, 0, 0, 0, {Band(20, 60, 10, 40)}); },
       RC_INVALID_PARAMETER},
      {"inner end above outer", [&] { return Call(bmp, 0, 0, 0, {Band(20, 60, 30, 70)}); },
       RC_INVALID_PARAMETER},
      {"inner reversed", [&] { return Call(bmp, 0, 0, 0, {Band(20, 60, 40, 30)}); }, RC_INVALID_PARAMETER},
      {"band across 0", [&] { return Call(bmp, 0, 0, 0, {Band(330, 30, 350, 10)}); }, RC_SUCCESS},
      {"negative angles", [&] { return Call(bmp, 0, 0, 0, {Band(-30, 30, -10, 10)}); }, RC_SUCCESS},
  });
}

TEST(Hsi, Normalisation) {
  kit::Bitmap bmp(Kind(24), 2, 2);
  struct Case {
    HueSatIntRange in;
    int32_t os, oe, is, ie, status;
  } cases[] = {
      {Band(330, 30, 350, 10), 330, 390, 350, 370, 0},
      {Band(-30, 30, -10, 10), 330, 390, 350, 370, 0},
      {Band(-30, -1, -20, -10), 330, 359, 340, 350, 0},
      // In a band across 0 the inner end always moves past 360, so an inner
      // band that ends before 360 ends beyond the outer band.
      {Band(300, 60, 320, 340), 300, 420, 320, 700, RC_INVALID_PARAMETER},
      {Band(10, 50, 20, 30), 10, 50, 20, 30, 0},
  };
  for (const Case &c : cases) {
    HueSatIntRange r = c.in;
    EXPECT_EQ(ValidateRanges(bmp, 0, 0, 0, &r, 1), c.status);
    EXPECT_EQ(r.OuterStart, c.os);
    EXPECT_EQ(r.OuterEnd, c.oe);
    EXPECT_EQ(r.InnerStart, c.is);
    EXPECT_EQ(r.InnerEnd, c.ie);
  }
}

TEST(Hsi, TableAcrossZero) {
  // Intensity 1000 in 350..370, fading to 330 and 390 (hues 0..30 count as 360..390).
  const HueSatIntRange band = Band(330, 390, 350, 370, 0, 0, 1000);
  HueChange t8[kHueEntries], t16[kHueEntries];
  BuildHueTable(t8, 0, 0, 0, &band, 1, 8);
  BuildHueTable(t16, 0, 0, 0, &band, 1, 16);
  struct Case {
    int32_t hue, i8, i16;
  } cases[] = {
      {0, 255, 65535},   {10, 255, 65535},  {11, 242, 62258},  // w = 19/20: 950 -> (950*255 + 500)/1000
      {20, 128, 32768},                                        // w = 1/2: 500 -> 128000/1000, 32768000/1000
      {30, 0, 0},        {31, 0, 0},        {100, 0, 0},       {330, 0, 0},
      {340, 128, 32768}, {349, 242, 62258}, {350, 255, 65535}, {360, 255, 65535},
  };
  for (const Case &c : cases) {
    EXPECT_EQ(t8[c.hue].intensity, c.i8) << c.hue;
    EXPECT_EQ(t16[c.hue].intensity, c.i16) << c.hue;
    EXPECT_EQ(t8[c.hue].hue, 0);
  }
}

TEST(Hsi, TableScalingAndWraps) {
  const HueSatIntRange band = Band(0, 10, 0, 10, 100, -1000, -1000);
  HueChange t8[kHueEntries], t16[kHueEntries];
  BuildHueTable(t8, 18000, -1000, -1000, &band, 1, 8);
  BuildHueTable(t16, 18000, -1000, -1000, &band, 1, 16);
  // In the band: hue 18100 wraps to -17900; intensity -2000 is not clamped at the bottom.
  EXPECT_EQ(t8[5].hue, -179);
  EXPECT_EQ(t16[5].hue, -17900);
  EXPECT_EQ(t8[5].saturation, -200);
  EXPECT_EQ(t16[5].saturation, -20000);
  EXPECT_EQ(t8[5].intensity, -509);  // (-2000 * 255 + 500) / 1000
  // Outside: the overall values alone.
  EXPECT_EQ(t8[50].hue, 180);
  EXPECT_EQ(t16[50].hue, 18000);
  EXPECT_EQ(t8[50].saturation, -100);
  EXPECT_EQ(t16[50].saturation, -10000);
  EXPECT_EQ(t8[50].intensity, -254);  // truncated toward zero
  EXPECT_EQ(t16[50].intensity, -65534);
  // The top is clamped: 1000 + 1000 counts as 1000.
  const HueSatIntRange up = Band(0, 10, 0, 10, 0, 0, 1000);
  BuildHueTable(t8, 0, 0, 1000, &up, 1, 8);
  EXPECT_EQ(t8[5].intensity, 255);
}

TEST(Hsi, HalfTurnOnEightBit) {
  const std::vector<kit::Pixel> in = {Rgb(255, 0, 0),  Rgb(0, 255, 0),    Rgb(0, 0, 255),
                                      Rgb(255, 51, 0), Rgb(40, 200, 120), Rgb(90, 90, 90)};
  kit::Bitmap bmp(Kind(24), 6, 1, in);
  ASSERT_EQ(Call(bmp, 18000, 0, 0), RC_SUCCESS);
  // Red: hue 180 gives (0, 255, 255); the HLS round trip (L 127, S 100) gives 254.
  EXPECT_EQ(bmp.At(0, 0), Rgb(0, 254, 254));
  for (int32_t x = 0; x < 5; ++x) {
    uint8_t r = static_cast<uint8_t>(in[x].v[0]), g = static_cast<uint8_t>(in[x].v[1]),
            b = static_cast<uint8_t>(in[x].v[2]);
    uint8_t before[4], after[4];
    ASSERT_EQ(img::ConvertColorPixel(COLORSPACE_HSV, &r, &g, &b, before), RC_SUCCESS);
    const kit::Pixel p = bmp.At(x, 0);
    r = static_cast<uint8_t>(p.v[0]), g = static_cast<uint8_t>(p.v[1]), b = static_cast<uint8_t>(p.v[2]);
    ASSERT_EQ(img::ConvertColorPixel(COLORSPACE_HSV, &r, &g, &b, after), RC_SUCCESS);
    const int32_t h0 = before[0] | before[1] << 8, h1 = after[0] | after[1] << 8;
    // The HLS round trip after the shift may move the hue by a degree
    // ((255, 51, 0): 20 -> 200 -> 201).
    const int32_t off = ((h1 - (h0 + 180)) % 360 + 360) % 360;
    EXPECT_TRUE(off == 0 || off == 1 || off == 359) << x << ": " << h0 << " -> " << h1;
  }
  EXPECT_EQ(bmp.At(5, 0), Rgb(90, 90, 90));
}

TEST(Hsi, IntensityExtremes) {
  for (const kit::Spec &spec : {Kind(24), Kind(24, ORDER_RGB), Kind(32), Kind(48), Kind(64, ORDER_RGB)}) {
    SCOPED_TRACE(spec.Name());
    const uint32_t top = spec.SampleMax();
    kit::Bitmap bmp(spec, 8, 4);
    bmp.Randomize(11);
    ASSERT_EQ(Call(bmp, 0, 0, 1000), RC_SUCCESS);
    for (const kit::Pixel &p : bmp.Pixels()) {
      EXPECT_EQ(p.v[0], top);
      EXPECT_EQ(p.v[1], top);
      EXPECT_EQ(p.v[2], top);
    }
    // -1000 subtracts one less than full scale: white becomes 1, darker becomes 0.
    kit::Bitmap dim(spec, 2, 1, {Rgb(top, top, top, 3), Rgb(top / 2, top / 3, top / 4, 3)});
    ASSERT_EQ(Call(dim, 0, 0, -1000), RC_SUCCESS);
    const uint32_t fourth = spec.Channels() == 4 ? 3 : 0;
    EXPECT_EQ(dim.At(0, 0), Rgb(1, 1, 1, fourth));
    EXPECT_EQ(dim.At(1, 0), Rgb(0, 0, 0, fourth));
  }
}

TEST(Hsi, BandOnPixels) {
  // Red (hue 0) is inside the inner band, hue 20 halfway out, green outside.
  kit::Bitmap bmp(Kind(24), 3, 1, {Rgb(255, 0, 0), Rgb(255, 51, 0), Rgb(0, 255, 0)});
  ASSERT_EQ(Call(bmp, 0, 0, 0, {Band(330, 30, 350, 10, 0, 0, 1000)}), RC_SUCCESS);
  EXPECT_EQ(bmp.At(0, 0), Rgb(255, 255, 255));
  // (255, 51, 0) comes back from HLS as (254, 50, 0); index 20 adds 128.
  EXPECT_EQ(bmp.At(1, 0), Rgb(255, 178, 128));
  // HLS of green: L 127, S 100, m2 254.
  EXPECT_EQ(bmp.At(2, 0), Rgb(0, 254, 0));
}

TEST(Hsi, SaturationFromTheHueBeforeTheShift) {
  // Overall hue +120 and a band at 0 degrees removing all saturation: red is
  // desaturated (its index is 0) although it ends up green.
  kit::Bitmap bmp(Kind(24), 2, 1, {Rgb(255, 0, 0), Rgb(0, 0, 255)});
  ASSERT_EQ(Call(bmp, 12000, 0, 0, {Band(0, 5, 0, 5, 0, -1000, 0)}), RC_SUCCESS);
  const kit::Pixel red = bmp.At(0, 0);
  EXPECT_EQ(red.v[0], red.v[1]);
  EXPECT_EQ(red.v[1], red.v[2]);
  const kit::Pixel blue = bmp.At(1, 0);  // hue 240 -> 0: still saturated
  EXPECT_GT(blue.v[0], 200u);
  EXPECT_LT(blue.v[2], 5u);
}

TEST(Hsi, PaletteEntries) {
  std::vector<PaletteEntry> pal(16, PaletteEntry{10, 20, 30, 0});
  pal[1] = PaletteEntry{0, 0, 255, 0};
  kit::Bitmap bmp(Kind(4), 2, 1, {kit::Level(0), kit::Level(1)}, pal.data());
  const auto stored = bmp.StoredBytes();
  ASSERT_EQ(Call(bmp, 18000, 0, 0), RC_SUCCESS);
  EXPECT_EQ(bmp.StoredBytes(), stored);
  EXPECT_EQ(bmp.ColorAt(1, 0), Rgb(0, 254, 254));  // as a 24-bit red pixel
  ASSERT_EQ(Call(bmp, 0, 0, 1000), RC_SUCCESS);
  for (int i = 0; i < 16; ++i) {
    EXPECT_EQ(bmp->Palette[i].Red, 255);
    EXPECT_EQ(bmp->Palette[i].Blue, 255);
  }
  bmp->ColorsUsed = 17;  // cannot be read
  EXPECT_EQ(Call(bmp, 0, 0, 1000), RC_NO_BITMAP);
  bmp->ColorsUsed = 16;
}

TEST(Hsi, EllipseRegion) {
  kit::Bitmap bmp(Kind(24), 16, 10);
  bmp.Randomize(5);
  const auto before = bmp.Pixels();
  kit::SetEllipseRegion(bmp, 1, 1, 15, 9);
  ASSERT_EQ(Call(bmp, 0, 0, 1000), RC_SUCCESS);
  int inside = 0;
  for (int32_t y = 0; y < 10; ++y)
    for (int32_t x = 0; x < 16; ++x) {
      if (kit::InRegion(bmp, x, y)) {
        ++inside;
        EXPECT_EQ(bmp.At(x, y), Rgb(255, 255, 255));
      } else {
        EXPECT_EQ(bmp.At(x, y), before[y * 16 + x]) << x << "," << y;
      }
    }
  EXPECT_GT(inside, 40);
}

TEST(Hsi, ProgressAndCancellation) {
  const auto setup = [] {
    kit::Bitmap b(Kind(24), 6, 5);
    b.Randomize(9);
    return b;
  };
  EXPECT_GE(kit::CheckCancellation(setup, [](kit::Bitmap &b) { return Call(b, 3000, 200, -100); }), 5);
  const auto region = [] {
    kit::Bitmap b(Kind(48), 6, 8);
    b.Randomize(9);
    kit::SetRectRegion(b, 1, 2, 5, 6);
    return b;
  };
  EXPECT_GE(kit::CheckCancellation(region, [](kit::Bitmap &b) { return Call(b, 3000, 200, -100); }), 3);
}

TEST(Hsi, AllocationFailures) {
  const auto setup = [] {
    kit::Bitmap b(Kind(32), 7, 3);
    b.Randomize(4);
    return b;
  };
  // Row-buffer failure ends quietly with 1; the record copy's failure is -13.
  EXPECT_GT(kit::CheckAllocationFailures(setup, [](kit::Bitmap &b) { return Call(b, 500, 500, 500); },
                                         {RC_NO_MEMORY, RC_INVALID_PARAMETER, RC_SUCCESS}),
            4);
  std::vector<PaletteEntry> pal(16, PaletteEntry{10, 20, 30, 0});
  const auto palette = [&] { return kit::Bitmap(Kind(4), 2, 2, pal.data()); };
  EXPECT_GT(kit::CheckAllocationFailures(palette, [](kit::Bitmap &b) { return Call(b, 500, 500, 500); },
                                         {RC_NO_MEMORY, RC_INVALID_PARAMETER}),
            2);
}

TEST(Hsi, KeptFailureStatuses) {
  kit::LeakGuard guard;
  kit::Bitmap bmp(Kind(24), 3, 2);
  bmp.Randomize(8);
  const auto before = bmp.Pixels();
  // The copy of the records is the first allocation.
  SetAllocationFailure(1);
  EXPECT_EQ(Call(bmp, 0, 0, 1000), RC_INVALID_PARAMETER);
  // Copy, table, converter, then the row buffer: its failure is a quiet success.
  SetAllocationFailure(4);
  EXPECT_EQ(Call(bmp, 0, 0, 1000), RC_SUCCESS);
  SetAllocationFailure(0);
  EXPECT_EQ(bmp.Pixels(), before);
}

}  // namespace
