// The tool's PNG reader and writer (tools/image_io.cpp) at the bitmap level: 8-bit gray comes back
// as 8-bit gray with the gray ramp; a tinted one, now a palette bitmap, with its palette.
#include "image_io.h"

#include <cstdio>
#include <functional>

#include "kit.h"

TEST(ImageIo, EightBitGrayKeepsItsRampThroughPng) {
  const std::vector<PaletteEntry> pal(256, PaletteEntry{10, 200, 30, 0});
  using Prepare = std::function<void(BitmapRecord *)>;
  const Prepare none = [](BitmapRecord *) {},
                colours = [&](BitmapRecord *b) { SetPalette(b, 0, 256, &pal[0]); },
                noPalette = [](BitmapRecord *b) { b->PaletteFlag = PALETTE_FLAG_NONE; },
                tint = [](BitmapRecord *b) { Q_GrayScaleToDuotone(b, nullptr, 255, 1); };
  const kit::Format gray{8, ORDER_GRAY};
  struct Case {
    const char *name;
    kit::Format format;
    uint32_t scale;  // level read back per stored value
    int32_t order;   // of the bitmap read back
    Prepare prepare;
  } cases[] = {
      {"8-bit gray", gray, 1, ORDER_GRAY, none},
      {"colours written", gray, 1, ORDER_GRAY, colours},            // the pixels stay gray levels
      {"4-bit levels", {4, ORDER_BGR}, 17, ORDER_GRAY, noPalette},  // written as 4-bit gray
      {"tinted", gray, 1, ORDER_BGR, tint},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    kit::LeakGuard guard;
    kit::Bitmap bmp(c.format, 3, 2, std::vector<kit::Pixel>{{{0}}, {{7}}, {{15}}, {{1}}, {{9}}, {{2}}});
    c.prepare(bmp);
    const std::string path = testing::TempDir() + "image_io_test.png";
    std::string error;
    imgtool::Bitmap back;
    FILE *file = std::fopen(path.c_str(), "wb");
    ASSERT_NE(file, nullptr);
    const bool written = imgtool::WriteImage(file, imgtool::FileFormat::Png, bmp, error);
    std::fclose(file);
    ASSERT_TRUE(written && imgtool::ReadImageFile(path, back, error)) << error;
    std::remove(path.c_str());
    EXPECT_EQ(back->ColorOrder, c.order);
    EXPECT_EQ(kit::HasGrayRamp(back.get()), c.order == ORDER_GRAY);
    for (int32_t i = 0; i < 6; ++i) {
      const uint8_t v = back->Pixels[(i / 3) * back->BytesPerLine + i % 3];
      EXPECT_EQ(v, bmp.At(i % 3, i / 3).v[0] * c.scale) << i;
      EXPECT_EQ(back->Palette[v].Red, c.order == ORDER_GRAY ? v : bmp->Palette[v].Red) << i;
    }
  }
}
