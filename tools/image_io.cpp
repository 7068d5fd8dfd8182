#include "image_io.h"

#include <png.h>
#include <sys/stat.h>

#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <vector>

// jpeglib.h needs FILE and size_t declared first.
#include <jerror.h>
#include <jpeglib.h>

#include "image_formats.h"
#include "pixels.h"

namespace imgtool {

namespace {

// ---- Small RAII helpers ----------------------------------------------------------

class File {
 public:
  File(const std::string &path, const char *mode) : fp_(std::fopen(path.c_str(), mode)) {}
  ~File() {
    if (fp_) std::fclose(fp_);
  }
  File(const File &) = delete;
  File &operator=(const File &) = delete;
  FILE *get() const { return fp_; }

 private:
  FILE *fp_;
};

const char *StatusText(int32_t status) {
  switch (status) {
    case RC_NO_MEMORY:
      return "out of memory";
    case RC_INVALID_PARAMETER:
      return "image dimensions not supported";
    default:
      return "cannot create the bitmap";
  }
}

bool PaletteIsGray(const BitmapRecord *b) {
  if (!b->Palette || b->PaletteFlag == PALETTE_FLAG_NONE) return true;
  for (int32_t i = 0; i < b->ColorsUsed; ++i) {
    const PaletteEntry &e = b->Palette[i];
    if (e.Red != e.Green || e.Green != e.Blue) return false;
  }
  return true;
}

}  // namespace

bool HasAlpha(const BitmapRecord *b) {
  const int32_t step = b->BitsPerPixel / 8;
  const int32_t sampleBytes = b->BitsPerPixel == 64 ? 2 : 1;
  for (int32_t y = 0; y < b->Height; ++y) {
    const uint8_t *row = img::ImageRow(b, y);
    for (int32_t x = 0; x < b->Width; ++x) {
      const uint8_t *alpha = row + x * step + 3 * sampleBytes;
      if (alpha[0] != 0 || (sampleBytes == 2 && alpha[1] != 0)) return true;
    }
  }
  return false;
}

bool WithinLimit(uint64_t width, uint64_t height, uint64_t maxPixels, char *message, size_t size) {
  if (width * height <= maxPixels) return true;
  std::snprintf(message, size, "image of %llu x %llu pixels is over the limit of %llu pixels (--max-pixels)",
                static_cast<unsigned long long>(width), static_cast<unsigned long long>(height),
                static_cast<unsigned long long>(maxPixels));
  return false;
}

// An ICC profile describes either gray or colour data (its header's data
// colour space at bytes 16-19); it is written only with pixels of its kind.
bool IccFits(const std::vector<uint8_t> &icc, bool gray) {
  if (icc.size() < 132) return false;
  const bool iccGray = std::memcmp(icc.data() + 16, "GRAY", 4) == 0;
  const bool iccRgb = std::memcmp(icc.data() + 16, "RGB ", 4) == 0;
  return gray ? iccGray : iccRgb;
}

namespace {

// ---- PNG ----------------------------------------------------------------------------
//
// libpng reports errors by longjmp to the setjmp in RunPng. Everything that
// needs releasing is owned by a PngContext in the caller's frame, and the
// functions that libpng may jump out of hold only trivially destructible
// locals, so the jump skips no destructor.

struct PngContext {
  png_structp png = nullptr;
  png_infop info = nullptr;
  bool writing = false;
  // Reading: the encoded bytes.
  const uint8_t *data = nullptr;
  size_t size = 0;
  size_t pos = 0;
  // Writing: the destination and a row of converted samples.
  FILE *fp = nullptr;
  std::vector<uint8_t> scratch;
  const BitmapRecord *source = nullptr;
  BitmapRecord *target = nullptr;
  Metadata *metadataOut = nullptr;       // reading
  const Metadata *metadataIn = nullptr;  // writing
  uint64_t maxPixels = 0;                // reading: the most pixels accepted
  char message[256] = {};
  bool plainMessage = false;  // our own message, not a decoder's complaint

  ~PngContext() {
    if (!png) return;
    if (writing)
      png_destroy_write_struct(&png, info ? &info : nullptr);
    else
      png_destroy_read_struct(&png, info ? &info : nullptr, nullptr);
  }
};

void PngError(png_structp png, png_const_charp message) {
  auto *ctx = static_cast<PngContext *>(png_get_error_ptr(png));
  std::snprintf(ctx->message, sizeof ctx->message, "%s", message);
  png_longjmp(png, 1);
}

void PngWarning(png_structp, png_const_charp) {}

void PngReadBytes(png_structp png, png_bytep out, size_t count) {
  auto *ctx = static_cast<PngContext *>(png_get_io_ptr(png));
  if (ctx->size - ctx->pos < count) png_error(png, "truncated data");
  std::memcpy(out, ctx->data + ctx->pos, count);
  ctx->pos += count;
}

// Ends decoding with a message of our own (unsupported input, no memory).
[[noreturn]] void PngFail(PngContext *ctx, const char *message) {
  ctx->plainMessage = true;
  png_error(ctx->png, message);
}

bool RunPng(PngContext *ctx, void (*work)(PngContext *)) {
  if (setjmp(png_jmpbuf(ctx->png))) return false;
  work(ctx);
  return true;
}

void DecodePng(PngContext *ctx) {
  png_structp png = ctx->png;
  png_infop info = ctx->info;
  png_set_read_fn(png, ctx, PngReadBytes);
  png_read_info(png, info);
  png_uint_32 width = 0, height = 0;
  int depth = 0, colorType = 0, interlace = 0;
  png_get_IHDR(png, info, &width, &height, &depth, &colorType, &interlace, nullptr, nullptr);
  char reason[160];
  if (!WithinLimit(width, height, ctx->maxPixels, reason, sizeof reason)) PngFail(ctx, reason);
  int32_t bits = 0;
  int32_t order = ORDER_BGR;
  PaletteEntry palette[256] = {};
  switch (colorType) {
    case PNG_COLOR_TYPE_GRAY:
      if (depth < 8) png_set_expand_gray_1_2_4_to_8(png);
      bits = depth == 16 ? 16 : 8;
      order = ORDER_GRAY;
      break;
    case PNG_COLOR_TYPE_PALETTE: {
      bits = depth;
      png_colorp entries = nullptr;
      int count = 0;
      if (!png_get_PLTE(png, info, &entries, &count)) png_error(png, "palette missing");
      for (int i = 0; i < count && i < 256; ++i)
        palette[i] = PaletteEntry{entries[i].blue, entries[i].green, entries[i].red, 0};
      break;
    }
    case PNG_COLOR_TYPE_RGB:
      bits = depth == 16 ? 48 : 24;
      break;
    case PNG_COLOR_TYPE_RGB_ALPHA:
      bits = depth == 16 ? 64 : 32;
      break;
    case PNG_COLOR_TYPE_GRAY_ALPHA:
      png_set_gray_to_rgb(png);
      bits = depth == 16 ? 64 : 32;
      break;
    default:
      PngFail(ctx, "unsupported PNG colour type");
  }
  if (order != ORDER_GRAY && colorType != PNG_COLOR_TYPE_PALETTE) png_set_bgr(png);
  if (depth == 16) png_set_swap(png);  // the bitmap holds little-endian words
  const int passes = png_set_interlace_handling(png);
  png_read_update_info(png, info);

  if (width > 0x7FFFFFFFu || height > 0x7FFFFFFFu) PngFail(ctx, "image too large");
  const int32_t status =
      AllocateBitmap(ctx->target, BITMAP_RECORD_SIZE, MEMORY_CONVENTIONAL, static_cast<int32_t>(width),
                     static_cast<int32_t>(height), bits, order,
                     colorType == PNG_COLOR_TYPE_PALETTE ? palette : nullptr, ORIENT_TOP_FIRST, nullptr, 0);
  if (status != RC_SUCCESS) PngFail(ctx, StatusText(status));
  if (png_get_rowbytes(png, info) > ctx->target->BytesPerLine) png_error(png, "unexpected row size");

  for (int pass = 0; pass < passes; ++pass)
    for (int32_t y = 0; y < ctx->target->Height; ++y)
      png_read_row(png, img::ImageRow(ctx->target, y), nullptr);
  png_read_end(png, info);  // text and EXIF may follow the image data

  Metadata &meta = *ctx->metadataOut;
  png_charp iccName = nullptr;
  png_bytep icc = nullptr;
  png_uint_32 iccSize = 0;
  int compression = 0;
  if (png_get_iCCP(png, info, &iccName, &compression, &icc, &iccSize)) meta.icc.assign(icc, icc + iccSize);
  png_bytep exif = nullptr;
  png_uint_32 exifSize = 0;
  if (png_get_eXIf_1(png, info, &exifSize, &exif)) meta.exif.assign(exif, exif + exifSize);
  png_textp text = nullptr;
  int textCount = 0;
  png_get_text(png, info, &text, &textCount);
  for (int i = 0; i < textCount; ++i) {
    const bool utf8 = text[i].compression >= PNG_ITXT_COMPRESSION_NONE;
    meta.text.push_back(
        {text[i].key, std::string(text[i].text, utf8 ? text[i].itxt_length : text[i].text_length), utf8});
  }

  png_uint_32 xRes = 0, yRes = 0;
  int unit = 0;
  if (png_get_pHYs(png, info, &xRes, &yRes, &unit) && unit == PNG_RESOLUTION_METER) {
    ctx->target->XResolution = static_cast<int32_t>(xRes * 0.0254 + 0.5);
    ctx->target->YResolution = static_cast<int32_t>(yRes * 0.0254 + 0.5);
  }
}

// Converts image row y of the source into the bytes that libpng takes.
const uint8_t *PngRow(PngContext *ctx, int32_t y) {
  const BitmapRecord *b = ctx->source;
  const uint8_t *row = img::ImageRow(b, y);
  uint8_t *out = ctx->scratch.data();
  switch (img::KindOf(b)) {
    case img::Kind::Gray12:  // 0..4095 -> 16-bit samples, big-endian as PNG stores them
      for (int32_t x = 0; x < b->Width; ++x) {
        const uint32_t v = (img::Load16(row + 2 * x) & 0xFFFu) << 4;
        out[2 * x] = static_cast<uint8_t>(v >> 8);
        out[2 * x + 1] = static_cast<uint8_t>(v);
      }
      return out;
    case img::Kind::Color16:
      for (int32_t x = 0; x < b->Width; ++x) {
        uint8_t blue, green, red;
        img::Unpack555(img::Load16(row + 2 * x), &blue, &green, &red);
        out[3 * x] = red;
        out[3 * x + 1] = green;
        out[3 * x + 2] = blue;
      }
      return out;
    default:
      return row;
  }
}

void EncodePng(PngContext *ctx) {
  png_structp png = ctx->png;
  png_infop info = ctx->info;
  const BitmapRecord *b = ctx->source;
  png_init_io(png, ctx->fp);
  const img::Kind kind = img::KindOf(b);
  int depth = 8, colorType = PNG_COLOR_TYPE_RGB;
  bool bgr = img::IsBgrOrder(b->ColorOrder), swap = false, filler = false;
  switch (kind) {
    case img::Kind::Palette:
      depth = b->BitsPerPixel;
      colorType =
          b->Palette && b->PaletteFlag != PALETTE_FLAG_NONE ? PNG_COLOR_TYPE_PALETTE : PNG_COLOR_TYPE_GRAY;
      break;
    case img::Kind::Gray8:
      colorType = PNG_COLOR_TYPE_GRAY;
      break;
    case img::Kind::Gray12:
      depth = 16;
      colorType = PNG_COLOR_TYPE_GRAY;
      break;
    case img::Kind::Gray16:
      depth = 16;
      colorType = PNG_COLOR_TYPE_GRAY;
      swap = true;
      break;
    case img::Kind::Color16:
      bgr = false;
      break;
    case img::Kind::Color24:
      break;
    case img::Kind::Color32:
      filler = !HasAlpha(b);
      colorType = filler ? PNG_COLOR_TYPE_RGB : PNG_COLOR_TYPE_RGB_ALPHA;
      break;
    case img::Kind::Color48:
      depth = 16;
      swap = true;
      break;
    case img::Kind::Color64:
      depth = 16;
      swap = true;
      filler = !HasAlpha(b);
      colorType = filler ? PNG_COLOR_TYPE_RGB : PNG_COLOR_TYPE_RGB_ALPHA;
      break;
    default:
      png_error(png, "bitmap kind not supported");
  }
  png_set_IHDR(png, info, static_cast<png_uint_32>(b->Width), static_cast<png_uint_32>(b->Height), depth,
               colorType, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  if (colorType == PNG_COLOR_TYPE_PALETTE) {
    png_color entries[256];
    int count = b->ColorsUsed;
    if (count < 1 || count > (1 << depth)) count = 1 << depth;
    for (int i = 0; i < count; ++i)
      entries[i] = png_color{b->Palette[i].Red, b->Palette[i].Green, b->Palette[i].Blue};
    png_set_PLTE(png, info, entries, count);
  }
  if (b->XResolution > 0 && b->YResolution > 0)
    png_set_pHYs(png, info, static_cast<png_uint_32>(b->XResolution / 0.0254 + 0.5),
                 static_cast<png_uint_32>(b->YResolution / 0.0254 + 0.5), PNG_RESOLUTION_METER);
  if (const Metadata *meta = ctx->metadataIn) {
    // A profile libpng finds unusable is dropped with a warning (benign errors).
    if (IccFits(meta->icc, colorType == PNG_COLOR_TYPE_GRAY))
      png_set_iCCP(png, info, "ICC profile", PNG_COMPRESSION_TYPE_BASE, meta->icc.data(),
                   static_cast<png_uint_32>(meta->icc.size()));
    if (!meta->exif.empty())
      png_set_eXIf_1(png, info, static_cast<png_uint_32>(meta->exif.size()),
                     const_cast<png_bytep>(meta->exif.data()));
    for (const Metadata::Text &t : meta->text) {
      png_text chunk{};
      chunk.compression = t.utf8                 ? PNG_ITXT_COMPRESSION_NONE
                          : t.text.size() > 1024 ? PNG_TEXT_COMPRESSION_zTXt
                                                 : PNG_TEXT_COMPRESSION_NONE;
      chunk.key = const_cast<png_charp>(t.keyword.c_str());
      chunk.text = const_cast<png_charp>(t.text.c_str());
      (t.utf8 ? chunk.itxt_length : chunk.text_length) = t.text.size();
      png_set_text(png, info, &chunk, 1);
    }
  }
  png_write_info(png, info);
  if (bgr && colorType != PNG_COLOR_TYPE_GRAY && colorType != PNG_COLOR_TYPE_PALETTE) png_set_bgr(png);
  if (swap) png_set_swap(png);
  if (filler) png_set_filler(png, 0, PNG_FILLER_AFTER);
  for (int32_t y = 0; y < b->Height; ++y) png_write_row(png, PngRow(ctx, y));
  png_write_end(png, nullptr);  // everything went before the image data (EXIF only once)
}

// libpng allocates a text or EXIF chunk at the length its header claims
// before it reads the data, so a few bytes could make it ask for gigabytes:
// every chunk must fit in what is left of the file.
bool ChunksFitTheFile(const uint8_t *data, size_t size) {
  for (size_t at = 8; at + 8 <= size;) {
    const uint64_t length = (uint64_t{data[at]} << 24) | (uint64_t{data[at + 1]} << 16) |
                            (uint64_t{data[at + 2]} << 8) | data[at + 3];
    if (length + 4 > size - at - 8) return false;  // data and CRC
    if (std::memcmp(data + at + 4, "IEND", 4) == 0) break;
    at += 12 + length;
  }
  return true;
}

bool ReadPng(const uint8_t *data, size_t size, BitmapRecord *target, Metadata *metadata, uint64_t maxPixels,
             std::string &error) {
  PngContext ctx;
  ctx.metadataOut = metadata;
  ctx.maxPixels = maxPixels;
  ctx.data = data;
  ctx.size = size;
  ctx.target = target;
  ctx.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &ctx, PngError, PngWarning);
  if (ctx.png) ctx.info = png_create_info_struct(ctx.png);
  if (!ctx.png || !ctx.info) {
    error = "out of memory";
    return false;
  }
  if (!ChunksFitTheFile(data, size)) {
    error = "truncated PNG data";
    return false;
  }
  if (RunPng(&ctx, DecodePng)) return true;
  if (ctx.plainMessage)
    error = ctx.message;
  else if (std::strcmp(ctx.message, "truncated data") == 0)
    error = "truncated PNG data";
  else
    error = std::string("corrupt PNG data: ") + ctx.message;
  return false;
}

bool WritePng(FILE *fp, const BitmapRecord *source, const Metadata *metadata, std::string &error) {
  PngContext ctx;
  ctx.metadataIn = metadata;
  ctx.writing = true;
  ctx.fp = fp;
  ctx.source = source;
  ctx.scratch.resize(static_cast<size_t>(source->Width) * 3 + 16);
  ctx.png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &ctx, PngError, PngWarning);
  if (ctx.png) ctx.info = png_create_info_struct(ctx.png);
  if (!ctx.png || !ctx.info) {
    error = "out of memory";
    return false;
  }
  png_set_benign_errors(ctx.png, 1);
  if (RunPng(&ctx, EncodePng)) return true;
  error = ctx.message;
  return false;
}

// ---- JPEG ----------------------------------------------------------------------------
//
// Same arrangement as for PNG: errors longjmp to RunJpeg; JpegContext in the
// caller's frame owns what needs releasing.

struct JpegContext {
  jpeg_error_mgr errors{};
  std::jmp_buf jump;
  char message[JMSG_LENGTH_MAX] = {};
  jpeg_decompress_struct in{};
  jpeg_compress_struct out{};
  bool haveIn = false;
  bool haveOut = false;
  const uint8_t *data = nullptr;
  size_t size = 0;
  FILE *fp = nullptr;
  const BitmapRecord *source = nullptr;
  BitmapRecord *target = nullptr;
  Metadata *metadataOut = nullptr;       // reading
  const Metadata *metadataIn = nullptr;  // writing
  int32_t quality = 92;
  std::vector<JOCTET> scratch;  // writing: the EXIF segment
  uint64_t maxPixels = 0;
  bool plainMessage = false;  // our own message, not a decoder's complaint

  JpegContext() = default;
  JpegContext(const JpegContext &) = delete;
  JpegContext &operator=(const JpegContext &) = delete;
  ~JpegContext() {
    if (haveIn) jpeg_destroy_decompress(&in);
    if (haveOut) jpeg_destroy_compress(&out);
  }
};

JpegContext *ContextOf(j_common_ptr cinfo) { return static_cast<JpegContext *>(cinfo->client_data); }

void JpegErrorExit(j_common_ptr cinfo) {
  JpegContext *ctx = ContextOf(cinfo);
  cinfo->err->format_message(cinfo, ctx->message);
  std::longjmp(ctx->jump, 1);
}

// Warnings mean damaged data (a premature end, bad Huffman codes, ...): a
// tool that silently decodes gray filler would hide that, so they are errors.
void JpegEmitMessage(j_common_ptr cinfo, int level) {
  if (level >= 0) return;
  JpegContext *ctx = ContextOf(cinfo);
  cinfo->err->format_message(cinfo, ctx->message);
  std::longjmp(ctx->jump, 1);
}

[[noreturn]] void JpegFail(JpegContext *ctx, const char *message) {
  ctx->plainMessage = true;
  std::snprintf(ctx->message, sizeof ctx->message, "%s", message);
  std::longjmp(ctx->jump, 1);
}

bool RunJpeg(JpegContext *ctx, void (*work)(JpegContext *)) {
  if (setjmp(ctx->jump)) return false;
  work(ctx);
  return true;
}

void DecodeJpeg(JpegContext *ctx) {
  jpeg_decompress_struct *cinfo = &ctx->in;
  jpeg_create_decompress(cinfo);
  ctx->haveIn = true;
  cinfo->client_data = ctx;
  jpeg_mem_src(cinfo, ctx->data, static_cast<unsigned long>(ctx->size));
  jpeg_save_markers(cinfo, JPEG_COM, 0xFFFF);
  jpeg_save_markers(cinfo, JPEG_APP0 + 1, 0xFFFF);  // EXIF
  jpeg_save_markers(cinfo, JPEG_APP0 + 2, 0xFFFF);  // ICC profile
  jpeg_read_header(cinfo, TRUE);
  Metadata &meta = *ctx->metadataOut;
  for (jpeg_saved_marker_ptr m = cinfo->marker_list; m; m = m->next) {
    if (m->marker == JPEG_APP0 + 1 && m->data_length > 6 && std::memcmp(m->data, "Exif\0\0", 6) == 0 &&
        meta.exif.empty())
      meta.exif.assign(m->data + 6, m->data + m->data_length);
    else if (m->marker == JPEG_COM)
      meta.text.push_back({"Comment", std::string(m->data, m->data + m->data_length), false});
  }
  JOCTET *icc = nullptr;
  unsigned int iccSize = 0;
  if (jpeg_read_icc_profile(cinfo, &icc, &iccSize)) {
    meta.icc.assign(icc, icc + iccSize);
    std::free(icc);
  }
  char reason[160];
  if (!WithinLimit(cinfo->image_width, cinfo->image_height, ctx->maxPixels, reason, sizeof reason))
    JpegFail(ctx, reason);
  int32_t bits = 24, order = ORDER_BGR;
  if (cinfo->num_components == 1) {
    cinfo->out_color_space = JCS_GRAYSCALE;
    bits = 8;
    order = ORDER_GRAY;
  } else if (cinfo->jpeg_color_space == JCS_YCbCr || cinfo->jpeg_color_space == JCS_RGB) {
    cinfo->out_color_space = JCS_EXT_BGR;
  } else {
    JpegFail(ctx, "CMYK JPEG files are not supported");
  }
  jpeg_start_decompress(cinfo);
  const int32_t status = AllocateBitmap(
      ctx->target, BITMAP_RECORD_SIZE, MEMORY_CONVENTIONAL, static_cast<int32_t>(cinfo->output_width),
      static_cast<int32_t>(cinfo->output_height), bits, order, nullptr, ORIENT_TOP_FIRST, nullptr, 0);
  if (status != RC_SUCCESS) JpegFail(ctx, StatusText(status));
  while (cinfo->output_scanline < cinfo->output_height) {
    JSAMPROW row = img::ImageRow(ctx->target, static_cast<int32_t>(cinfo->output_scanline));
    jpeg_read_scanlines(cinfo, &row, 1);
  }
  jpeg_finish_decompress(cinfo);
  if (cinfo->density_unit == 1) {
    ctx->target->XResolution = cinfo->X_density;
    ctx->target->YResolution = cinfo->Y_density;
  }
}

// Writes an 8-bit gray or 24-bit colour bitmap.
void EncodeJpeg(JpegContext *ctx) {
  jpeg_compress_struct *cinfo = &ctx->out;
  const BitmapRecord *b = ctx->source;
  jpeg_create_compress(cinfo);
  ctx->haveOut = true;
  cinfo->client_data = ctx;
  jpeg_stdio_dest(cinfo, ctx->fp);
  cinfo->image_width = static_cast<JDIMENSION>(b->Width);
  cinfo->image_height = static_cast<JDIMENSION>(b->Height);
  const bool gray = b->ColorOrder == ORDER_GRAY;
  cinfo->input_components = gray ? 1 : 3;
  cinfo->in_color_space = gray ? JCS_GRAYSCALE : (b->ColorOrder == ORDER_RGB ? JCS_RGB : JCS_EXT_BGR);
  jpeg_set_defaults(cinfo);
  jpeg_set_quality(cinfo, ctx->quality, TRUE);
  if (b->XResolution > 0 && b->YResolution > 0) {
    cinfo->density_unit = 1;
    cinfo->X_density = static_cast<UINT16>(b->XResolution);
    cinfo->Y_density = static_cast<UINT16>(b->YResolution);
  }
  jpeg_start_compress(cinfo, TRUE);
  if (const Metadata *meta = ctx->metadataIn) {
    // One APP1 segment holds at most 65533 bytes: a larger EXIF block is left out.
    if (!meta->exif.empty() && meta->exif.size() <= 65533 - 6) {
      std::vector<JOCTET> &app1 = ctx->scratch;  // owned by the context: libjpeg may jump out
      app1.assign({'E', 'x', 'i', 'f', 0, 0});
      app1.insert(app1.end(), meta->exif.begin(), meta->exif.end());
      jpeg_write_marker(cinfo, JPEG_APP0 + 1, app1.data(), static_cast<unsigned>(app1.size()));
    }
    if (IccFits(meta->icc, gray))
      jpeg_write_icc_profile(cinfo, meta->icc.data(), static_cast<unsigned>(meta->icc.size()));
    for (const Metadata::Text &t : meta->text)
      if (t.keyword == "Comment" && t.text.size() <= 65533)
        jpeg_write_marker(cinfo, JPEG_COM, reinterpret_cast<const JOCTET *>(t.text.data()),
                          static_cast<unsigned>(t.text.size()));
  }
  while (cinfo->next_scanline < cinfo->image_height) {
    JSAMPROW row = img::ImageRow(b, static_cast<int32_t>(cinfo->next_scanline));
    jpeg_write_scanlines(cinfo, &row, 1);
  }
  jpeg_finish_compress(cinfo);
}

bool ReadJpeg(const uint8_t *data, size_t size, BitmapRecord *target, Metadata *metadata, uint64_t maxPixels,
              std::string &error) {
  JpegContext ctx;
  ctx.metadataOut = metadata;
  ctx.maxPixels = maxPixels;
  ctx.data = data;
  ctx.size = size;
  ctx.target = target;
  ctx.in.err = jpeg_std_error(&ctx.errors);
  ctx.errors.error_exit = JpegErrorExit;
  ctx.errors.emit_message = JpegEmitMessage;
  // client_data must be set before creation can fail.
  ctx.in.client_data = &ctx;
  if (RunJpeg(&ctx, DecodeJpeg)) return true;
  error = ctx.plainMessage ? std::string(ctx.message) : std::string("corrupt JPEG data: ") + ctx.message;
  return false;
}

bool WriteJpeg(FILE *fp, const BitmapRecord *source, const WriteSettings &settings, std::string &error) {
  JpegContext ctx;
  ctx.metadataIn = settings.metadata;
  if (settings.quality > 0) ctx.quality = settings.quality;
  ctx.fp = fp;
  ctx.source = source;
  ctx.out.err = jpeg_std_error(&ctx.errors);
  ctx.errors.error_exit = JpegErrorExit;
  ctx.errors.emit_message = JpegEmitMessage;
  ctx.out.client_data = &ctx;
  if (RunJpeg(&ctx, EncodeJpeg)) return true;
  error = ctx.message;
  return false;
}

const char *ConversionError(int32_t status) {
  return status == RC_NO_MEMORY ? "out of memory" : "cannot convert the bitmap for the output format";
}

}  // namespace

// ---- Public interface ---------------------------------------------------------------

Bitmap::Bitmap() { std::memset(&record_, 0, sizeof record_); }
Bitmap::~Bitmap() { reset(); }
void Bitmap::reset() {
  if (record_.StructSize != 0) FreeBitmap(&record_);
  std::memset(&record_, 0, sizeof record_);
  metadata_ = Metadata{};
}

FileFormat FormatFromExtension(const std::string &path) {
  const size_t dot = path.find_last_of('.');
  const size_t slash = path.find_last_of('/');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return FileFormat::Unknown;
  std::string ext = path.substr(dot + 1);
  for (char &c : ext) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  if (ext == "png") return FileFormat::Png;
  return FormatFromName(ext == "png" ? ext : ext == "jpg" ? "jpeg" : ext);
}

FileFormat FormatFromName(const std::string &name) {
  if (name == "png") return FileFormat::Png;
  if (name == "jpeg" || name == "jpg") return FileFormat::Jpeg;
  if (name == "tiff" || name == "tif") return FileFormat::Tiff;
  if (name == "webp") return FileFormat::WebP;
  return FileFormat::Unknown;
}

bool FormatAvailable(FileFormat format) {
  switch (format) {
    case FileFormat::Png:
    case FileFormat::Jpeg:
      return true;
    case FileFormat::Tiff:
      return kHaveTiff;
    case FileFormat::WebP:
      return kHaveWebp;
    default:
      return false;
  }
}

std::string AvailableFormats() {
  return std::string("png, jpeg") + (kHaveTiff ? ", tiff" : "") + (kHaveWebp ? ", webp" : "");
}

const char *FormatExtension(FileFormat format) {
  switch (format) {
    case FileFormat::Png:
      return "png";
    case FileFormat::Jpeg:
      return "jpg";
    case FileFormat::Tiff:
      return "tif";
    case FileFormat::WebP:
      return "webp";
    default:
      return "";
  }
}

bool ReadImageMemory(const uint8_t *data, size_t size, Bitmap &bitmap, std::string &error,
                     uint64_t maxPixels) {
  bitmap.reset();
  bool ok = false;
  if (size == 0) {
    error = "empty file";
  } else if (size >= 8 && png_sig_cmp(data, 0, 8) == 0) {
    ok = ReadPng(data, size, bitmap.get(), &bitmap.metadata(), maxPixels, error);
  } else if (size >= 3 && data[0] == 0xFF && data[1] == 0xD8 && data[2] == 0xFF) {
    ok = ReadJpeg(data, size, bitmap.get(), &bitmap.metadata(), maxPixels, error);
  } else if (size < 8 && png_sig_cmp(data, 0, size) == 0) {
    error = "truncated PNG data";
  } else if (size >= 4 && (std::memcmp(data, "II*\0", 4) == 0 || std::memcmp(data, "MM\0*", 4) == 0)) {
    ok = kHaveTiff ? ReadTiff(data, size, bitmap.get(), &bitmap.metadata(), maxPixels, error)
                   : (error = "TIFF files are not supported by this build", false);
  } else if (size >= 12 && std::memcmp(data, "RIFF", 4) == 0 && std::memcmp(data + 8, "WEBP", 4) == 0) {
    ok = kHaveWebp ? ReadWebp(data, size, bitmap.get(), &bitmap.metadata(), maxPixels, error)
                   : (error = "WebP files are not supported by this build", false);
  } else {
    error = std::string("not a ") +
            (kHaveTiff && kHaveWebp ? "PNG, JPEG, TIFF or WebP"
             : kHaveTiff            ? "PNG, JPEG or TIFF"
             : kHaveWebp            ? "PNG, JPEG or WebP"
                                    : "PNG or JPEG") +
            " file";
  }
  if (!ok) bitmap.reset();
  return ok;
}

bool ReadImageFile(const std::string &path, Bitmap &bitmap, std::string &error, uint64_t maxPixels) {
  bitmap.reset();
  File file(path, "rb");
  if (!file.get()) {
    error = std::strerror(errno);
    return false;
  }
  struct stat st;
  if (::fstat(fileno(file.get()), &st) == 0 && S_ISDIR(st.st_mode)) {
    error = "is a directory";
    return false;
  }
  std::vector<uint8_t> bytes;
  uint8_t chunk[65536];
  size_t got;
  while ((got = std::fread(chunk, 1, sizeof chunk, file.get())) > 0)
    bytes.insert(bytes.end(), chunk, chunk + got);
  if (std::ferror(file.get())) {
    error = std::strerror(errno);
    return false;
  }
  return ReadImageMemory(bytes.data(), bytes.size(), bitmap, error, maxPixels);
}

bool WriteImage(FILE *fp, FileFormat format, const BitmapRecord *bitmap, std::string &error,
                const WriteSettings &settings) {
  if (!FormatAvailable(format)) {
    error = format == FileFormat::Unknown
                ? "unknown output format (use .png, .jpg or .jpeg)"
                : std::string("this build cannot write .") + FormatExtension(format);
    return false;
  }
  const img::Kind kind = img::KindOf(bitmap);
  if (kind == img::Kind::Invalid || kind == img::Kind::Gray32 || !(bitmap->Flags & BITMAP_ALLOCATED)) {
    error = "bitmap kind not supported";
    return false;
  }
  // JPEG holds 8-bit gray and 24-bit colour only, WebP 24 and 32-bit colour,
  // TIFF no palette and no 5-5-5: convert a copy first.
  const bool convert = format == FileFormat::Jpeg   ? kind != img::Kind::Gray8 && kind != img::Kind::Color24
                       : format == FileFormat::WebP ? kind != img::Kind::Color24 && kind != img::Kind::Color32
                       : format == FileFormat::Tiff ? kind == img::Kind::Palette || kind == img::Kind::Color16
                                                    : false;
  Bitmap converted;
  const BitmapRecord *source = bitmap;
  if (convert) {
    const bool gray = format != FileFormat::WebP &&
                      (img::IsGrayKind(kind) || (kind == img::Kind::Palette && PaletteIsGray(bitmap)));
    int32_t status = CopyBitmap(converted.get(), bitmap, BITMAP_RECORD_SIZE);
    if (status == RC_SUCCESS)
      status = ConvertBitmapFormat(converted.get(), converted.get(), BITMAP_RECORD_SIZE, gray ? 8 : 24,
                                   gray ? ORDER_GRAY : ORDER_BGR, nullptr, 0, 0);
    if (status != RC_SUCCESS) {
      error = ConversionError(status);
      return false;
    }
    const img::Kind now = img::KindOf(converted.get());
    if (now != img::Kind::Gray8 && now != img::Kind::Color24) {
      error = "cannot convert the bitmap for the output format";
      return false;
    }
    source = converted.get();
  }
  switch (format) {
    case FileFormat::Png:
      return WritePng(fp, source, settings.metadata, error);
    case FileFormat::Jpeg:
      return WriteJpeg(fp, source, settings, error);
    case FileFormat::Tiff:
      return WriteTiff(fp, source, settings.metadata, error);
    default:
      return WriteWebp(fp, source, settings, error);
  }
}

}  // namespace imgtool
