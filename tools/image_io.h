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
// 92) takes 8-bit gray and 24-bit colour; other kinds are converted first.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "imgkernel.h"

namespace imgtool {

enum class FileFormat { Unknown, Png, Jpeg };

// Format named by a file name's extension (.png, .jpg, .jpeg; any case).
FileFormat FormatFromExtension(const std::string &path);

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
  void reset();

 private:
  BitmapRecord record_;
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
bool WriteImage(FILE *fp, FileFormat format, const BitmapRecord *bitmap, std::string &error);

}  // namespace imgtool
