// The optional file formats of the tool (TIFF through libtiff, WebP through
// libwebp) and the pieces of image_io.cpp they share. Internal to the tool's
// image reader and writer: the rest of the tool goes through image_io.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "image_io.h"

namespace imgtool {

#ifdef IMG_HAVE_TIFF
inline constexpr bool kHaveTiff = true;
#else
inline constexpr bool kHaveTiff = false;
#endif
#ifdef IMG_HAVE_WEBP
inline constexpr bool kHaveWebp = true;
#else
inline constexpr bool kHaveWebp = false;
#endif

// False, with the reason in `message`, when a header claims more pixels than
// the limit: checked before anything is allocated for them.
bool WithinLimit(uint64_t width, uint64_t height, uint64_t maxPixels, char *message, size_t size);
// Whether a 32- or 64-bit bitmap has a fourth sample other than zero.
bool HasAlpha(const BitmapRecord *bitmap);
// Whether an ICC profile describes gray (`gray`) or RGB data.
bool IccFits(const std::vector<uint8_t> &icc, bool gray);

// Each reads into an empty record and the metadata; false with the reason.
// Without the library they are never called (kHaveTiff, kHaveWebp).
bool ReadTiff(const uint8_t *data, size_t size, BitmapRecord *target, Metadata *metadata, uint64_t maxPixels,
              std::string &error);
bool ReadWebp(const uint8_t *data, size_t size, BitmapRecord *target, Metadata *metadata, uint64_t maxPixels,
              std::string &error);
// TIFF takes gray 8/12/16 and colour 24/32/48/64; WebP 24 and 32-bit colour.
bool WriteTiff(FILE *fp, const BitmapRecord *source, const Metadata *metadata, std::string &error);
bool WriteWebp(FILE *fp, const BitmapRecord *source, const WriteSettings &settings, std::string &error);

}  // namespace imgtool
