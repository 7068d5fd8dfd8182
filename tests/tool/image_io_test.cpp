// The tool's PNG and JPEG reader and writer (tools/image_io.cpp) at the bitmap level: 8-bit gray
// keeps its ramp palette through a write and a read, and gray is read as 8-bit gray with the ramp.
#include "image_io.h"

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "kit.h"

namespace {

using kit::Format, kit::Level, kit::Pixel;

std::vector<Pixel> Levels(const std::vector<uint32_t> &values) {
  std::vector<Pixel> out;
  for (uint32_t v : values) out.push_back(Level(v));
  return out;
}

// Writes the bitmap to a file of the given extension and reads it back.
bool RoundTrip(const BitmapRecord *bitmap, const std::string &extension, imgtool::Bitmap &back) {
  const std::string path = testing::TempDir() + "image_io_test" + extension;
  std::string error;
  const bool ok = imgtool::WriteImageFile(path, imgtool::FormatFromExtension(path), bitmap, error) &&
                  imgtool::ReadImageFile(path, back, error);
  std::remove(path.c_str());
  EXPECT_TRUE(ok) << error;
  return ok;
}

}  // namespace

TEST(ImageIo, EightBitGrayKeepsItsRampPalette) {
  const std::vector<uint32_t> values = {0, 7, 128, 200, 255, 31};
  const std::vector<PaletteEntry> coloured(256, PaletteEntry{10, 200, 30, 0});
  struct Case {
    const char *name;
    Format format;
    std::vector<Pixel> in, out;  // out: the levels read back as 8-bit gray
    std::function<void(BitmapRecord *)> prepare;
  } cases[] = {
      {"8-bit gray", {8, ORDER_GRAY}, Levels(values), Levels(values), nullptr},
      // Colours written into a gray bitmap's palette leave its pixels gray levels.
      {"8-bit gray with colours written",
       {8, ORDER_GRAY},
       Levels(values),
       Levels(values),
       [&](BitmapRecord *b) { SetPalette(b, 0, 256, coloured.data()); }},
      // A palette bitmap without palette is written as 4-bit gray and read as 8-bit gray (v * 17).
      {"4-bit gray levels",
       {4, ORDER_BGR},
       Levels({0, 9, 15, 1, 2, 3}),
       Levels({0, 153, 255, 17, 34, 51}),
       [](BitmapRecord *b) { b->PaletteFlag = PALETTE_FLAG_NONE; }},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    kit::LeakGuard guard;
    kit::Bitmap bmp(c.format, 3, 2, c.in);
    if (c.prepare) c.prepare(bmp);
    imgtool::Bitmap back;
    if (!RoundTrip(bmp, ".png", back)) continue;
    EXPECT_EQ(back->ColorOrder, ORDER_GRAY);
    EXPECT_TRUE(kit::HasGrayRamp(back.get()));
    for (int32_t i = 0; i < 6; ++i)
      EXPECT_EQ(back->Pixels[(i / 3) * back->BytesPerLine + i % 3], c.out[i].v[0]) << i;
  }
  // JPEG: gray comes back as 8-bit gray with the ramp too (flat, so exactly).
  kit::Bitmap flat(Format{8, ORDER_GRAY}, 16, 16, std::vector<Pixel>(256, Level(90)));
  imgtool::Bitmap back;
  if (RoundTrip(flat, ".jpg", back)) {
    EXPECT_TRUE(back->ColorOrder == ORDER_GRAY && kit::HasGrayRamp(back.get()));
    EXPECT_EQ(back->Pixels[5], 90);
  }
}

// A tinted 8-bit gray bitmap is an 8-bit palette bitmap: written with its palette, read back alike.
TEST(ImageIo, TintedGrayIsWrittenWithItsPalette) {
  kit::LeakGuard guard;
  kit::Bitmap bmp(Format{8, ORDER_GRAY}, 3, 1, Levels({0, 128, 255}));
  ASSERT_EQ(Q_GrayScaleToDuotone(bmp, nullptr, 0x0000FF, 1), RC_SUCCESS);
  ASSERT_EQ(bmp->ColorOrder, ORDER_BGR);
  imgtool::Bitmap back;
  ASSERT_TRUE(RoundTrip(bmp, ".png", back));
  EXPECT_EQ(back->ColorOrder, ORDER_BGR);
  EXPECT_EQ(back->Pixels[1], 128);
  const PaletteEntry &e = back->Palette[128];
  EXPECT_TRUE(e.Blue == 128 && e.Green == 128 && e.Red == 255);
}
