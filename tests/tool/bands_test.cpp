// Row bands in the tool: every operation marked row-local gives the same
// pixels in bands on threads as in one call, on every kind the bands take;
// the bands are refused where they would change the result.
#include "bands.h"

#include <gtest/gtest.h>

#include <sstream>

#include "kit.h"
#include "registry.h"

namespace {

using imgtool::OpDescriptor;

// The kinds bands take (no palette), both orientations.
std::vector<kit::Format> BandedFormats() {
  std::vector<kit::Format> formats;
  for (const kit::Format &f : kit::AllFormats(true))
    if (f.bits > 8) formats.push_back(f);
  return formats;
}

// A random bitmap, or (gradient) 24-bit rows that darken from top to bottom.
kit::Bitmap Make(const kit::Format &format, bool gradient) {
  if (!gradient) {
    kit::Bitmap b(format, 53, 23);
    b.Randomize(3);
    return b;
  }
  std::vector<kit::Pixel> pixels;
  for (int32_t y = 0; y < 23; ++y)
    for (int32_t x = 0; x < 53; ++x)
      pixels.push_back(kit::Rgb(200 - 6 * y + x % 5, 180 - 5 * y, 150 - 4 * y + x % 3));
  return kit::Bitmap(format, 53, 23, pixels);
}

// Runs `op` with its defaults on a bitmap whole and in `bands` bands.
void ExpectSameInBands(const OpDescriptor &op, const kit::Format &format, int32_t bands, bool same,
                       bool gradient = false) {
  imgtool::ArgValues args;
  imgtool::ApplyDefaults(op, args);
  kit::Bitmap whole = Make(format, gradient), banded = Make(format, gradient);
  std::ostringstream report;
  ASSERT_EQ(op.call(whole, args, report), RC_SUCCESS);
  ASSERT_EQ(imgtool::CallInBands(op, banded, args, report, bands), RC_SUCCESS);
  EXPECT_EQ(banded.StoredBytes() == whole.StoredBytes(), same);
}

TEST(Bands, RowLocalOperationsGiveTheOneThreadPixels) {
  int32_t checked = 0;
  for (const OpDescriptor &op : imgtool::Operations()) {
    if (!op.rowLocal) continue;
    for (const kit::Format &format : BandedFormats()) {
      if ((imgtool::KindBitOf(kit::Bitmap(format, 1, 1)) & op.kinds) == 0) continue;
      for (int32_t bands : {3, 40}) {
        SCOPED_TRACE(op.name + " " + format.Name() + " bands " + std::to_string(bands));
        ExpectSameInBands(op, format, bands, true);
        ++checked;
      }
    }
  }
  EXPECT_GT(checked, 50);
}

// The test above can fail: marked row-local, histogram-driven and window
// operations give other pixels in bands. Unmarked, CallInBands makes the
// plain call.
TEST(Bands, ImageDependentOperationsDifferInBandsAndAreNotBanded) {
  const kit::Format format{24, ORDER_BGR};
  for (const char *name : {"stretch", "histo-contrast", "auto-level", "adaptive-contrast"}) {
    SCOPED_TRACE(name);
    const OpDescriptor *found = imgtool::FindOperation(name);
    ASSERT_NE(found, nullptr);
    EXPECT_FALSE(found->rowLocal);
    ExpectSameInBands(*found, format, 4, true, true);
    OpDescriptor forced = *found;
    forced.rowLocal = true;
    ExpectSameInBands(forced, format, 4, false, true);
  }
}

// Regions, palettes and attached tables keep the plain call; a band shares
// the bitmap's pixel memory.
TEST(Bands, RefusedWhereBandsWouldChangeTheCall) {
  const OpDescriptor &invert = *imgtool::FindOperation("invert");
  kit::Bitmap colour(kit::Format{24, ORDER_BGR}, 8, 6), palette(kit::Format{8, ORDER_BGR}, 8, 6);
  EXPECT_TRUE(imgtool::CanRunInBands(invert, colour));
  EXPECT_FALSE(imgtool::CanRunInBands(invert, palette));
  int32_t lut[4] = {};
  colour->AttachedLut = lut;
  EXPECT_FALSE(imgtool::CanRunInBands(invert, colour));
  colour->AttachedLut = nullptr;
  kit::SetRectRegion(colour, 1, 1, 4, 4);
  EXPECT_FALSE(imgtool::CanRunInBands(invert, colour));
  const BitmapRecord band = imgtool::BandOf(*colour.get(), 2, 3);
  EXPECT_EQ(band.Pixels, colour->Pixels + 2 * colour->BytesPerLine);
  EXPECT_EQ(band.Height, 3);
  EXPECT_EQ(band.DataSize, 3u * colour->BytesPerLine);
  EXPECT_EQ(band.Region, nullptr);
}

}  // namespace
