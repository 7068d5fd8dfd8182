// The tool's image reader and writer (tools/image_io.cpp) at the bitmap level: 8-bit gray comes back
// as 8-bit gray with the gray ramp; a tinted one, now a palette bitmap, with its palette; metadata
// travels through every format that carries it.
#include "image_io.h"

#include <png.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
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

// Metadata from a PNG made here with libpng (an RGB ICC profile, EXIF with
// orientation 6, a comment and an international text) through every
// writable format and back: what each format carries comes back byte for
// byte, the orientation is kept and not applied (the image stays 4 x 3), and
// a gray image drops the RGB profile.
namespace {

imgtool::Metadata FixtureMetadata() {
  imgtool::Metadata m;
  m.icc.assign(400, 0);
  const uint8_t header[] = {0, 0, 1, 0x90};  // 400 bytes
  std::copy(header, header + 4, m.icc.begin());
  std::memcpy(&m.icc[12], "mntrRGB XYZ ", 12);
  std::memcpy(&m.icc[36], "acsp", 4);
  const uint8_t d50[] = {0, 0, 0xF6, 0xD6, 0, 1, 0, 0, 0, 0, 0xD3, 0x2D};
  std::copy(d50, d50 + 12, m.icc.begin() + 68);
  const uint8_t tags[] = {0, 0, 0, 1, 'd', 'e', 's', 'c', 0, 0, 0, 144, 0, 0, 1, 0};  // one tag at 144
  std::copy(tags, tags + 16, m.icc.begin() + 128);
  for (size_t i = 144; i < 400; ++i) m.icc[i] = static_cast<uint8_t>(i * 7);
  m.exif = {'M', 'M', 0, 42, 0, 0, 0, 8, 0, 1, 0x01, 0x12, 0, 3, 0, 0, 0, 1, 0, 6, 0, 0, 0, 0, 0, 0};
  m.text = {{"Comment", "made by image_io_test", false}, {"Title", "caf\xc3\xa9", true}};
  return m;
}

// A 4 x 3 RGB PNG with the metadata, written by libpng directly.
void WriteFixture(const std::string &path, const imgtool::Metadata &m) {
  FILE *fp = std::fopen(path.c_str(), "wb");
  ASSERT_NE(fp, nullptr);
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  png_init_io(png, fp);
  png_set_IHDR(png, info, 4, 3, 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
               PNG_FILTER_TYPE_DEFAULT);
  png_set_iCCP(png, info, "fixture", PNG_COMPRESSION_TYPE_BASE, m.icc.data(),
               static_cast<png_uint_32>(m.icc.size()));
  png_set_eXIf_1(png, info, static_cast<png_uint_32>(m.exif.size()), const_cast<png_bytep>(m.exif.data()));
  png_text text[2] = {};
  for (int i = 0; i < 2; ++i) {
    text[i].compression = m.text[i].utf8 ? PNG_ITXT_COMPRESSION_NONE : PNG_TEXT_COMPRESSION_NONE;
    text[i].key = const_cast<png_charp>(m.text[i].keyword.c_str());
    text[i].text = const_cast<png_charp>(m.text[i].text.c_str());
  }
  png_set_text(png, info, text, 2);
  png_write_info(png, info);
  uint8_t row[12];
  for (int y = 0; y < 3; ++y) {
    for (int i = 0; i < 12; ++i) row[i] = static_cast<uint8_t>(20 * y + 5 * i);
    png_write_row(png, row);
  }
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  std::fclose(fp);
}

}  // namespace

TEST(ImageIo, MetadataTravelsWhereTheFormatCarriesIt) {
  using imgtool::FileFormat;
  const imgtool::Metadata fixture = FixtureMetadata();
  const std::string dir = testing::TempDir(), source = dir + "image_io_meta.png";
  WriteFixture(source, fixture);
  enum Text { All, CommentOnly, None };
  struct Case {
    const char *name;
    std::vector<FileFormat> hops;  // written and read back in turn
    bool gray;                     // converted to 8-bit gray first
    bool icc, exif;
    Text text;
  } cases[] = {
      {"PNG", {FileFormat::Png}, false, true, true, All},
      {"JPEG", {FileFormat::Jpeg}, false, true, true, CommentOnly},
      {"JPEG to JPEG", {FileFormat::Jpeg, FileFormat::Jpeg}, false, true, true, CommentOnly},
      {"JPEG to PNG", {FileFormat::Jpeg, FileFormat::Png}, false, true, true, CommentOnly},
      {"gray PNG drops the RGB profile", {FileFormat::Png}, true, false, true, All},
      {"TIFF", {FileFormat::Tiff}, false, true, false, None},
      {"WebP", {FileFormat::WebP}, false, true, true, None},
  };
  kit::LeakGuard guard;
  imgtool::Bitmap original;
  std::string error;
  ASSERT_TRUE(imgtool::ReadImageFile(source, original, error)) << error;
  EXPECT_EQ(original.metadata().icc, fixture.icc);
  EXPECT_EQ(original.metadata().exif, fixture.exif);
  ASSERT_EQ(original.metadata().text.size(), 2u);
  EXPECT_EQ(original.metadata().text[1].text, fixture.text[1].text);
  EXPECT_TRUE(original.metadata().text[1].utf8);
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    if (!imgtool::FormatAvailable(c.hops.back())) continue;
    imgtool::Bitmap current;
    ASSERT_TRUE(imgtool::ReadImageFile(source, current, error)) << error;
    if (c.gray) {
      ASSERT_EQ(
          ConvertBitmapFormat(current.get(), current.get(), BITMAP_RECORD_SIZE, 8, ORDER_GRAY, nullptr, 0, 0),
          RC_SUCCESS);
    }
    for (FileFormat format : c.hops) {
      const std::string path = dir + "image_io_meta_out." + imgtool::FormatExtension(format);
      FILE *file = std::fopen(path.c_str(), "wb");
      ASSERT_NE(file, nullptr);
      const bool written = imgtool::WriteImage(file, format, current.get(), error,
                                               imgtool::WriteSettings{0, &current.metadata()});
      std::fclose(file);
      ASSERT_TRUE(written && imgtool::ReadImageFile(path, current, error)) << error;
      std::remove(path.c_str());
    }
    const imgtool::Metadata &m = current.metadata();
    EXPECT_EQ(current->Width, 4);  // orientation 6 is kept, not applied
    EXPECT_EQ(current->Height, 3);
    EXPECT_EQ(m.icc, c.icc ? fixture.icc : std::vector<uint8_t>{});
    EXPECT_EQ(m.exif, c.exif ? fixture.exif : std::vector<uint8_t>{});
    const size_t texts = c.text == All ? 2 : c.text == CommentOnly ? 1 : 0;
    ASSERT_EQ(m.text.size(), texts);
    for (size_t i = 0; i < texts; ++i) {
      EXPECT_EQ(m.text[i].keyword, fixture.text[i].keyword);
      EXPECT_EQ(m.text[i].text, fixture.text[i].text);
    }
  }
  std::remove(source.c_str());
}
