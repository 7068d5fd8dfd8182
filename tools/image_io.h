// Reading and writing PNG and JPEG files into and from the family's bitmaps.
//
// Read: 8-bit gray -> 8 bits ORDER_GRAY (with the gray ramp as its palette,
// as AllocateBitmap gives it); 16-bit gray -> 16 bits ORDER_GRAY;
// 1/2/4-bit gray -> 8-bit gray; RGB -> 24 ORDER_BGR; RGBA (and gray+alpha)
// -> 32 ORDER_BGR with alpha as the fourth byte; 16-bit RGB/RGBA -> 48/64;
// palette -> palette bitmap of the file's depth with its palette. Rows are
// stored top first. JPEG: gray -> 8-bit gray, colour -> 24 ORDER_BGR.
//
// Write: every kind of bitmap. 8-bit gray is written as its gray levels,
// whatever its palette holds. PNG keeps palettes and 16-bit samples; 12-bit
// gray is written as 16-bit gray scaled by 16, 5-5-5 colour as 24-bit RGB; a
// 32/64-bit bitmap whose fourth samples are all zero is written without
// alpha (the fourth sample is then padding, not transparency). JPEG (quality
// 92, or --quality) takes 8-bit gray and 24-bit colour; other kinds are
// converted first. TIFF and WebP are optional (IMG_HAVE_TIFF, IMG_HAVE_WEBP,
// set when configure finds libtiff and libwebp).
//
// Metadata travels with the bitmap: the ICC profile, the EXIF block (copied
// as is; its orientation is kept, not applied) and PNG text chunks are read
// into Bitmap::metadata() and written where the output format carries them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "imgkernel.h"

namespace imgtool {

enum class FileFormat { Unknown, Png, Jpeg, Tiff, WebP };

// Format named by a file name's extension (.png, .jpg, .jpeg, .tif, .tiff,
// .webp; any case), also when this build cannot write it.
FileFormat FormatFromExtension(const std::string &path);
// Format named by --format (png, jpeg, jpg, tiff, tif, webp).
FileFormat FormatFromName(const std::string &name);
// Whether this build reads and writes the format (TIFF and WebP are optional).
bool FormatAvailable(FileFormat format);
// The formats this build writes, for messages: "png, jpeg, tiff, webp".
std::string AvailableFormats();
// The usual extension: "png", "jpg", "tif", "webp".
const char *FormatExtension(FileFormat format);

// What a file says about its pixels besides the pixels.
struct Metadata {
  std::vector<uint8_t> icc;   // ICC profile
  std::vector<uint8_t> exif;  // EXIF block from its TIFF header on (without JPEG's "Exif\0\0")
  struct Text {
    std::string keyword, text;
    bool utf8 = false;  // an international (iTXt) chunk
  };
  std::vector<Text> text;  // PNG text chunks; JPEG's comment is the keyword "Comment"
  bool empty() const { return icc.empty() && exif.empty() && text.empty(); }
};

// How WriteImage encodes.
struct WriteSettings {
  int32_t quality = 0;                 // 1..100 for JPEG and WebP; 0: JPEG 92, WebP lossless
  const Metadata *metadata = nullptr;  // written where the format carries it
};

// Owns a BitmapRecord and frees it on destruction.
class Bitmap {
 public:
  Bitmap();
  ~Bitmap();
  Bitmap(const Bitmap &) = delete;
  Bitmap &operator=(const Bitmap &) = delete;

  BitmapRecord *get() { return &record_; }
  const BitmapRecord *get() const { return &record_; }
  BitmapRecord *operator->() { return &record_; }
  const BitmapRecord *operator->() const { return &record_; }
  bool allocated() const { return (record_.Flags & BITMAP_ALLOCATED) != 0; }
  Metadata &metadata() { return metadata_; }
  const Metadata &metadata() const { return metadata_; }
  void reset();

 private:
  BitmapRecord record_;
  Metadata metadata_;
};

// The most pixels a read accepts unless told otherwise (about 178 million:
// 2^30 bytes at 6 bytes a pixel). A file that claims more is refused from
// its header, before anything is allocated for its pixels.
inline constexpr uint64_t kDefaultMaxPixels = 178956970;

// Each returns true on success; on failure `error` holds the reason (without
// the file name) and the bitmap is left empty. An image of more than
// `maxPixels` pixels is refused.
bool ReadImageFile(const std::string &path, Bitmap &bitmap, std::string &error,
                   uint64_t maxPixels = kDefaultMaxPixels);
bool ReadImageMemory(const uint8_t *data, size_t size, Bitmap &bitmap, std::string &error,
                     uint64_t maxPixels = kDefaultMaxPixels);
// Encodes in `format` to the stream; the caller flushes, checks and closes it.
bool WriteImage(FILE *fp, FileFormat format, const BitmapRecord *bitmap, std::string &error,
                const WriteSettings &settings = {});

}  // namespace imgtool
