#include "image_formats.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <memory>
#include <utility>

#include "pixels.h"

#ifdef IMG_HAVE_TIFF
#include <tiffio.h>
#endif
#ifdef IMG_HAVE_WEBP
#include <webp/decode.h>
#include <webp/demux.h>
#include <webp/encode.h>
#include <webp/mux.h>
#endif

namespace imgtool {

namespace {

[[maybe_unused]] const char *AllocationText(int32_t status) {
  return status == RC_NO_MEMORY ? "out of memory" : "image dimensions not supported";
}

// Swaps the first and third of `samples` samples of `bytes` bytes each, for
// `count` pixels: RGB <-> BGR in place.
[[maybe_unused]] void SwapRedBlue(uint8_t *row, int32_t count, int32_t samples, int32_t bytes) {
  for (int32_t x = 0; x < count; ++x) {
    uint8_t *p = row + static_cast<size_t>(x) * samples * bytes;
    for (int32_t i = 0; i < bytes; ++i) std::swap(p[i], p[2 * bytes + i]);
  }
}

}  // namespace

#ifdef IMG_HAVE_TIFF

namespace {

// A TIFF file in memory: libtiff reads it through these procedures, and
// writes into `bytes` (seeking included) before the whole is copied out.
struct TiffStream {
  const uint8_t *data = nullptr;
  std::vector<uint8_t> bytes;  // writing
  uint64_t size = 0;
  uint64_t pos = 0;
  bool writing = false;
  std::string message;
};

tmsize_t TiffRead(thandle_t h, void *buf, tmsize_t n) {
  auto *s = static_cast<TiffStream *>(h);
  const uint64_t left = s->pos < s->size ? s->size - s->pos : 0;
  const uint64_t count = std::min<uint64_t>(left, static_cast<uint64_t>(n));
  std::memcpy(buf, (s->writing ? s->bytes.data() : s->data) + s->pos, count);
  s->pos += count;
  return static_cast<tmsize_t>(count);
}

tmsize_t TiffWrite(thandle_t h, void *buf, tmsize_t n) {
  auto *s = static_cast<TiffStream *>(h);
  if (!s->writing) return 0;
  const uint64_t end = s->pos + static_cast<uint64_t>(n);
  if (end > s->bytes.size()) s->bytes.resize(end);
  std::memcpy(s->bytes.data() + s->pos, buf, static_cast<size_t>(n));
  s->pos = end;
  s->size = std::max(s->size, end);
  return n;
}

toff_t TiffSeek(thandle_t h, toff_t offset, int whence) {
  auto *s = static_cast<TiffStream *>(h);
  const uint64_t base = whence == SEEK_CUR ? s->pos : whence == SEEK_END ? s->size : 0;
  s->pos = base + offset;
  return s->pos;
}

int TiffClose(thandle_t) { return 0; }
toff_t TiffSize(thandle_t h) { return static_cast<TiffStream *>(h)->size; }
int TiffMap(thandle_t, void **, toff_t *) { return 0; }
void TiffUnmap(thandle_t, void *, toff_t) {}

int TiffError(TIFF *, void *user, const char *, const char *format, va_list args) {
  auto *s = static_cast<TiffStream *>(user);
  if (s->message.empty()) {
    char text[256];
    std::vsnprintf(text, sizeof text, format, args);
    s->message = text;
  }
  return 1;  // handled: nothing is printed
}

int TiffWarning(TIFF *, void *, const char *, const char *, va_list) { return 1; }

struct TiffCloser {
  void operator()(TIFF *t) const { TIFFClose(t); }
};
using TiffHandle = std::unique_ptr<TIFF, TiffCloser>;

// maxAlloc bounds each of libtiff's own allocations (0: its default), so
// that a header cannot make it ask for more than the largest image the
// caller accepts.
TiffHandle OpenTiff(TiffStream &stream, const char *mode, uint64_t maxAlloc = 0) {
  TIFFOpenOptions *options = TIFFOpenOptionsAlloc();
  if (!options) return nullptr;
  if (maxAlloc) TIFFOpenOptionsSetMaxSingleMemAlloc(options, static_cast<tmsize_t>(maxAlloc));
  TIFFOpenOptionsSetErrorHandlerExtR(options, TiffError, &stream);
  TIFFOpenOptionsSetWarningHandlerExtR(options, TiffWarning, &stream);
  TIFF *t = TIFFClientOpenExt("TIFF", mode, &stream, TiffRead, TiffWrite, TiffSeek, TiffClose, TiffSize,
                              TiffMap, TiffUnmap, options);
  TIFFOpenOptionsFree(options);
  return TiffHandle(t);
}

bool TiffFailed(const TiffStream &stream, const char *what, std::string &error) {
  error = std::string(what) + (stream.message.empty() ? "" : ": " + stream.message);
  return false;
}

}  // namespace

bool ReadTiff(const uint8_t *data, size_t size, BitmapRecord *target, Metadata *metadata, uint64_t maxPixels,
              std::string &error) {
  TiffStream stream;
  stream.data = data;
  stream.size = size;
  // Eight bytes a pixel (16-bit RGBA) of the largest image accepted, and a
  // megabyte for tables and small images.
  const uint64_t pixelCap = maxPixels < (uint64_t{1} << 40) ? maxPixels : uint64_t{1} << 40;
  TiffHandle tif = OpenTiff(stream, "rm", 8 * pixelCap + (uint64_t{1} << 20));
  if (!tif) return TiffFailed(stream, "corrupt TIFF data", error);
  TIFF *t = tif.get();
  uint32_t width = 0, height = 0;
  uint16_t bits = 1, samples = 1, photometric = PHOTOMETRIC_MINISBLACK, planar = PLANARCONFIG_CONTIG;
  TIFFGetField(t, TIFFTAG_IMAGEWIDTH, &width);
  TIFFGetField(t, TIFFTAG_IMAGELENGTH, &height);
  TIFFGetFieldDefaulted(t, TIFFTAG_BITSPERSAMPLE, &bits);
  TIFFGetFieldDefaulted(t, TIFFTAG_SAMPLESPERPIXEL, &samples);
  TIFFGetFieldDefaulted(t, TIFFTAG_PLANARCONFIG, &planar);
  TIFFGetField(t, TIFFTAG_PHOTOMETRIC, &photometric);
  char reason[160];
  if (!WithinLimit(width, height, maxPixels, reason, sizeof reason)) {
    error = reason;
    return false;
  }
  if (width == 0 || height == 0 || width > 0x7FFFFFFFu || height > 0x7FFFFFFFu) {
    error = "image dimensions not supported";
    return false;
  }
  // Gray and RGB(A) of 8 or 16 bits in strips are read as they are; every
  // other layout (palette, bilevel, YCbCr, CMYK, tiles, planes) through
  // libtiff's RGBA reader as 8-bit colour.
  const bool gray = photometric == PHOTOMETRIC_MINISBLACK && samples == 1;
  const bool rgb = photometric == PHOTOMETRIC_RGB && (samples == 3 || samples == 4);
  const bool direct =
      (bits == 8 || bits == 16) && planar == PLANARCONFIG_CONTIG && !TIFFIsTiled(t) && (gray || rgb);
  int32_t depth = 0;
  if (direct)
    depth = gray ? bits : bits * samples;
  else
    depth = samples == 4 || samples == 2 ? 32 : 24;
  const int32_t status =
      AllocateBitmap(target, BITMAP_RECORD_SIZE, MEMORY_CONVENTIONAL, static_cast<int32_t>(width),
                     static_cast<int32_t>(height), depth, gray && direct ? ORDER_GRAY : ORDER_BGR, nullptr,
                     ORIENT_TOP_FIRST, nullptr, 0);
  if (status != RC_SUCCESS) {
    error = AllocationText(status);
    return false;
  }
  if (direct) {
    if (TIFFScanlineSize64(t) > static_cast<uint64_t>(target->BytesPerLine))
      return TiffFailed(stream, "unexpected TIFF row size", error);
    for (uint32_t y = 0; y < height; ++y) {
      uint8_t *row = img::ImageRow(target, static_cast<int32_t>(y));
      if (TIFFReadScanline(t, row, y, 0) < 0) return TiffFailed(stream, "corrupt TIFF data", error);
      if (rgb) SwapRedBlue(row, static_cast<int32_t>(width), samples, bits / 8);
    }
  } else {
    char message[1024] = {};
    if (!TIFFRGBAImageOK(t, message)) {
      error = std::string("unsupported TIFF layout: ") + message;
      return false;
    }
    std::vector<uint32_t> raster(static_cast<size_t>(width) * height);
    if (!TIFFReadRGBAImageOriented(t, width, height, raster.data(), ORIENTATION_TOPLEFT, 0))
      return TiffFailed(stream, "corrupt TIFF data", error);
    const int32_t step = depth / 8;
    for (uint32_t y = 0; y < height; ++y) {
      uint8_t *row = img::ImageRow(target, static_cast<int32_t>(y));
      for (uint32_t x = 0; x < width; ++x) {
        const uint32_t v = raster[static_cast<size_t>(y) * width + x];
        uint8_t *p = row + static_cast<size_t>(x) * step;
        p[0] = static_cast<uint8_t>(TIFFGetB(v));
        p[1] = static_cast<uint8_t>(TIFFGetG(v));
        p[2] = static_cast<uint8_t>(TIFFGetR(v));
        if (step == 4) p[3] = static_cast<uint8_t>(TIFFGetA(v));
      }
    }
  }
  uint32_t iccSize = 0;
  void *icc = nullptr;
  if (TIFFGetField(t, TIFFTAG_ICCPROFILE, &iccSize, &icc) && icc)
    metadata->icc.assign(static_cast<uint8_t *>(icc), static_cast<uint8_t *>(icc) + iccSize);
  float xRes = 0, yRes = 0;
  uint16_t unit = RESUNIT_INCH;
  TIFFGetFieldDefaulted(t, TIFFTAG_RESOLUTIONUNIT, &unit);
  if (TIFFGetField(t, TIFFTAG_XRESOLUTION, &xRes) && TIFFGetField(t, TIFFTAG_YRESOLUTION, &yRes) &&
      (unit == RESUNIT_INCH || unit == RESUNIT_CENTIMETER) && xRes > 0 && yRes > 0 && xRes < 1e6f &&
      yRes < 1e6f) {
    const double scale = unit == RESUNIT_CENTIMETER ? 2.54 : 1.0;
    target->XResolution = static_cast<int32_t>(xRes * scale + 0.5);
    target->YResolution = static_cast<int32_t>(yRes * scale + 0.5);
  }
  return true;
}

bool WriteTiff(FILE *fp, const BitmapRecord *b, const Metadata *metadata, std::string &error) {
  TiffStream stream;
  stream.writing = true;
  {
    TiffHandle tif = OpenTiff(stream, "w");
    if (!tif) return TiffFailed(stream, "cannot start TIFF", error);
    TIFF *t = tif.get();
    const img::Kind kind = img::KindOf(b);
    const bool gray = img::IsGrayKind(kind);
    const bool wide = kind == img::Kind::Gray12 || kind == img::Kind::Gray16 || kind == img::Kind::Color48 ||
                      kind == img::Kind::Color64;
    const bool fourth = kind == img::Kind::Color32 || kind == img::Kind::Color64;
    const bool alpha = fourth && HasAlpha(b);
    const uint16_t samples = gray ? 1 : alpha ? 4 : 3;
    const uint16_t bits = wide ? 16 : 8;
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, static_cast<uint32_t>(b->Width));
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, static_cast<uint32_t>(b->Height));
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, bits);
    TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, samples);
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, gray ? PHOTOMETRIC_MINISBLACK : PHOTOMETRIC_RGB);
    TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE);
    TIFFSetField(t, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT);
    TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(t, 0));
    if (alpha) {
      const uint16_t extra = EXTRASAMPLE_UNASSALPHA;
      TIFFSetField(t, TIFFTAG_EXTRASAMPLES, 1, &extra);
    }
    if (b->XResolution > 0 && b->YResolution > 0) {
      TIFFSetField(t, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
      TIFFSetField(t, TIFFTAG_XRESOLUTION, static_cast<float>(b->XResolution));
      TIFFSetField(t, TIFFTAG_YRESOLUTION, static_cast<float>(b->YResolution));
    }
    if (metadata && IccFits(metadata->icc, gray))
      TIFFSetField(t, TIFFTAG_ICCPROFILE, static_cast<uint32_t>(metadata->icc.size()), metadata->icc.data());
    const int32_t sampleBytes = bits / 8;
    const int32_t stored = gray ? 1 : fourth ? 4 : 3;  // samples a pixel in the bitmap
    std::vector<uint8_t> row(static_cast<size_t>(b->Width) * samples * sampleBytes);
    for (int32_t y = 0; y < b->Height; ++y) {
      const uint8_t *in = img::ImageRow(b, y);
      for (int32_t x = 0; x < b->Width; ++x)
        for (int32_t s = 0; s < samples; ++s) {
          // BGR(A) in the bitmap, RGB(A) in the file; 12-bit gray scaled to 16 bits.
          const int32_t from = s < 3 && !gray && img::IsBgrOrder(b->ColorOrder) ? 2 - s : s;
          const uint8_t *p = in + (static_cast<size_t>(x) * stored + from) * sampleBytes;
          uint8_t *q = row.data() + (static_cast<size_t>(x) * samples + s) * sampleBytes;
          if (kind == img::Kind::Gray12) {
            const uint16_t v = static_cast<uint16_t>((img::Load16(p) & 0xFFFu) << 4);
            std::memcpy(q, &v, 2);
          } else {
            std::memcpy(q, p, static_cast<size_t>(sampleBytes));
          }
        }
      if (TIFFWriteScanline(t, row.data(), static_cast<uint32_t>(y), 0) < 0)
        return TiffFailed(stream, "TIFF encoding failed", error);
    }
    if (!TIFFWriteDirectory(t)) return TiffFailed(stream, "TIFF encoding failed", error);
  }  // closing flushes the file into `bytes`
  if (std::fwrite(stream.bytes.data(), 1, stream.bytes.size(), fp) != stream.bytes.size()) {
    error = "write failed";
    return false;
  }
  return true;
}

#else

bool ReadTiff(const uint8_t *, size_t, BitmapRecord *, Metadata *, uint64_t, std::string &error) {
  error = "TIFF files are not supported by this build";
  return false;
}
bool WriteTiff(FILE *, const BitmapRecord *, const Metadata *, std::string &error) {
  error = "TIFF files are not supported by this build";
  return false;
}

#endif

#ifdef IMG_HAVE_WEBP

namespace {

struct DemuxDeleter {
  void operator()(WebPDemuxer *d) const { WebPDemuxDelete(d); }
};
struct MuxDeleter {
  void operator()(WebPMux *m) const { WebPMuxDelete(m); }
};
struct WebpBytes {
  uint8_t *data = nullptr;
  ~WebpBytes() { WebPFree(data); }
};

void TakeChunk(WebPDemuxer *demux, const char *fourcc, std::vector<uint8_t> &to) {
  WebPChunkIterator chunk;
  if (WebPDemuxGetChunk(demux, fourcc, 1, &chunk))
    to.assign(chunk.chunk.bytes, chunk.chunk.bytes + chunk.chunk.size);
  WebPDemuxReleaseChunkIterator(&chunk);
}

}  // namespace

bool ReadWebp(const uint8_t *data, size_t size, BitmapRecord *target, Metadata *metadata, uint64_t maxPixels,
              std::string &error) {
  WebPBitstreamFeatures features;
  if (WebPGetFeatures(data, size, &features) != VP8_STATUS_OK) {
    error = "corrupt WebP data";
    return false;
  }
  if (features.has_animation) {
    error = "animated WebP files are not supported";
    return false;
  }
  char reason[160];
  if (!WithinLimit(static_cast<uint64_t>(features.width), static_cast<uint64_t>(features.height), maxPixels,
                   reason, sizeof reason)) {
    error = reason;
    return false;
  }
  const int32_t status =
      AllocateBitmap(target, BITMAP_RECORD_SIZE, MEMORY_CONVENTIONAL, features.width, features.height,
                     features.has_alpha ? 32 : 24, ORDER_BGR, nullptr, ORIENT_TOP_FIRST, nullptr, 0);
  if (status != RC_SUCCESS) {
    error = AllocationText(status);
    return false;
  }
  uint8_t *first = img::ImageRow(target, 0);
  const size_t bytes = static_cast<size_t>(target->BytesPerLine) * static_cast<size_t>(target->Height);
  const int stride = static_cast<int>(target->BytesPerLine);
  const uint8_t *decoded = features.has_alpha ? WebPDecodeBGRAInto(data, size, first, bytes, stride)
                                              : WebPDecodeBGRInto(data, size, first, bytes, stride);
  if (!decoded) {
    error = "corrupt WebP data";
    return false;
  }
  WebPData whole{data, size};
  const std::unique_ptr<WebPDemuxer, DemuxDeleter> demux(WebPDemux(&whole));
  if (demux) {
    TakeChunk(demux.get(), "ICCP", metadata->icc);
    TakeChunk(demux.get(), "EXIF", metadata->exif);
  }
  return true;
}

bool WriteWebp(FILE *fp, const BitmapRecord *b, const WriteSettings &settings, std::string &error) {
  if (b->Width > WEBP_MAX_DIMENSION || b->Height > WEBP_MAX_DIMENSION) {
    error = "WebP holds at most 16383 x 16383 pixels";
    return false;
  }
  const bool alpha = b->BitsPerPixel == 32 && HasAlpha(b);
  // A 32-bit bitmap without alpha goes as BGRA with its padding made opaque.
  std::vector<uint8_t> opaque;
  const uint8_t *pixels = img::ImageRow(b, 0);
  int stride = static_cast<int>(b->BytesPerLine);
  if (b->BitsPerPixel == 32 && !alpha) {
    opaque.resize(static_cast<size_t>(b->Width) * 3 * b->Height);
    for (int32_t y = 0; y < b->Height; ++y)
      for (int32_t x = 0; x < b->Width; ++x)
        std::memcpy(&opaque[(static_cast<size_t>(y) * b->Width + x) * 3], img::ImageRow(b, y) + 4 * x, 3);
    pixels = opaque.data();
    stride = b->Width * 3;
  }
  const bool rgb = b->ColorOrder == ORDER_RGB;
  WebpBytes encoded;
  size_t size = 0;
  const float quality = static_cast<float>(settings.quality);
  if (settings.quality == 0)
    size = alpha ? (rgb ? WebPEncodeLosslessRGBA : WebPEncodeLosslessBGRA)(pixels, b->Width, b->Height,
                                                                           stride, &encoded.data)
                 : (rgb ? WebPEncodeLosslessRGB : WebPEncodeLosslessBGR)(pixels, b->Width, b->Height, stride,
                                                                         &encoded.data);
  else
    size = alpha ? (rgb ? WebPEncodeRGBA : WebPEncodeBGRA)(pixels, b->Width, b->Height, stride, quality,
                                                           &encoded.data)
                 : (rgb ? WebPEncodeRGB : WebPEncodeBGR)(pixels, b->Width, b->Height, stride, quality,
                                                         &encoded.data);
  if (size == 0) {
    error = "WebP encoding failed";
    return false;
  }
  const Metadata *meta = settings.metadata;
  const bool icc = meta && IccFits(meta->icc, false);
  const bool exif = meta && !meta->exif.empty();
  if (!icc && !exif) {
    if (std::fwrite(encoded.data, 1, size, fp) == size) return true;
    error = "write failed";
    return false;
  }
  // The profile and the EXIF block go into chunks of their own (an extended file).
  const std::unique_ptr<WebPMux, MuxDeleter> mux(WebPMuxNew());
  const WebPData image{encoded.data, size};
  const WebPData iccData{icc ? meta->icc.data() : nullptr, icc ? meta->icc.size() : 0};
  const WebPData exifData{exif ? meta->exif.data() : nullptr, exif ? meta->exif.size() : 0};
  WebPData assembled{nullptr, 0};
  const bool ok = mux && WebPMuxSetImage(mux.get(), &image, 1) == WEBP_MUX_OK &&
                  (!icc || WebPMuxSetChunk(mux.get(), "ICCP", &iccData, 1) == WEBP_MUX_OK) &&
                  (!exif || WebPMuxSetChunk(mux.get(), "EXIF", &exifData, 1) == WEBP_MUX_OK) &&
                  WebPMuxAssemble(mux.get(), &assembled) == WEBP_MUX_OK;
  const bool written = ok && std::fwrite(assembled.bytes, 1, assembled.size, fp) == assembled.size;
  WebPDataClear(&assembled);
  if (!written) error = ok ? "write failed" : "WebP encoding failed";
  return written;
}

#else

bool ReadWebp(const uint8_t *, size_t, BitmapRecord *, Metadata *, uint64_t, std::string &error) {
  error = "WebP files are not supported by this build";
  return false;
}
bool WriteWebp(FILE *, const BitmapRecord *, const WriteSettings &, std::string &error) {
  error = "WebP files are not supported by this build";
  return false;
}

#endif

}  // namespace imgtool
