// Storage of the family's bitmaps: kinds, stored rows and packed samples.
// Header only; used by imgkernel and imgutil.
//
// Storage: rows padded to a multiple of 4 bytes; 1/2/4-bit pixels packed with
// the leftmost pixel in the most significant bits; 8-bit: palette index (or
// gray level with ORDER_GRAY); 12-bit gray: 16-bit little-endian words
// holding 0..4095; 16-bit gray: little-endian words; 16-bit colour: 5-5-5
// words with blue in the low bits; 24: B,G,R (ORDER_BGR) or R,G,B
// (ORDER_RGB); 32: those plus a fourth byte; 48/64: the same with 16-bit
// little-endian samples. Orientation 1 stores the top row first, 4 the
// bottom row first.
#pragma once

#include <cstdint>
#include <cstring>

#include "imgkernel.h"

namespace img {

enum class Kind {
  Invalid,
  Palette,
  Gray8,
  Gray12,
  Gray16,
  Gray32,
  Color16,
  Color24,
  Color32,
  Color48,
  Color64
};

inline bool IsBgrOrder(int32_t order) {
  return order == ORDER_BGR || order == ORDER_BGR_COLOR || order == ORDER_BGR_COLOR_WIDE;
}
inline bool IsColorOrder(int32_t order) { return order == ORDER_RGB || IsBgrOrder(order); }

inline Kind KindOf(int32_t bits, int32_t order) {
  const bool gray = order == ORDER_GRAY;
  if (!gray && !IsColorOrder(order)) return Kind::Invalid;
  switch (bits) {
    case 1:
    case 2:
    case 4:
      return gray ? Kind::Invalid : Kind::Palette;
    case 8:
      return gray ? Kind::Gray8 : Kind::Palette;
    case 12:
      return gray ? Kind::Gray12 : Kind::Invalid;
    case 16:
      return gray ? Kind::Gray16 : Kind::Color16;
    case 24:
      return gray ? Kind::Invalid : Kind::Color24;
    case 32:
      return gray ? Kind::Gray32 : Kind::Color32;
    case 48:
      return gray ? Kind::Invalid : Kind::Color48;
    case 64:
      return gray ? Kind::Invalid : Kind::Color64;
    default:
      return Kind::Invalid;
  }
}
inline Kind KindOf(const BitmapRecord *b) { return KindOf(b->BitsPerPixel, b->ColorOrder); }

inline bool IsGrayKind(Kind k) {
  return k == Kind::Gray8 || k == Kind::Gray12 || k == Kind::Gray16 || k == Kind::Gray32;
}

// Bytes of one stored row: padded to a multiple of 4; 0 on overflow.
// 12-bit gray samples are stored in 16-bit words.
inline uint64_t StoredRowBytes(int32_t width, int32_t bits) {
  if (width <= 0 || bits <= 0) return 0;
  if (bits == 12) bits = 16;
  const uint64_t rowBits = static_cast<uint64_t>(width) * static_cast<uint64_t>(bits);
  return ((rowBits + 31) / 32) * 4;
}

// Stored row index of image row `row` (0 = top).
inline int32_t StoredRowIndex(const BitmapRecord *b, int32_t row) {
  return b->Orientation == ORIENT_BOTTOM_FIRST ? b->Height - 1 - row : row;
}
inline uint8_t *StoredRow(const BitmapRecord *b, int32_t storedIndex) {
  return b->Pixels + static_cast<uint64_t>(storedIndex) * b->BytesPerLine;
}
inline uint8_t *ImageRow(const BitmapRecord *b, int32_t row) { return StoredRow(b, StoredRowIndex(b, row)); }

// Palette index of pixel x of a 1/2/4/8-bit row.
inline uint32_t GetIndex(const uint8_t *row, int32_t x, int32_t bits) {
  switch (bits) {
    case 1:
      return (row[x >> 3] >> (7 - (x & 7))) & 1u;
    case 2:
      return (row[x >> 2] >> (6 - 2 * (x & 3))) & 3u;
    case 4:
      return (row[x >> 1] >> (4 - 4 * (x & 1))) & 15u;
    default:
      return row[x];
  }
}
inline void SetIndex(uint8_t *row, int32_t x, int32_t bits, uint32_t v) {
  switch (bits) {
    case 1: {
      const int s = 7 - (x & 7);
      row[x >> 3] = static_cast<uint8_t>((row[x >> 3] & ~(1u << s)) | ((v & 1u) << s));
      break;
    }
    case 2: {
      const int s = 6 - 2 * (x & 3);
      row[x >> 2] = static_cast<uint8_t>((row[x >> 2] & ~(3u << s)) | ((v & 3u) << s));
      break;
    }
    case 4: {
      const int s = 4 - 4 * (x & 1);
      row[x >> 1] = static_cast<uint8_t>((row[x >> 1] & ~(15u << s)) | ((v & 15u) << s));
      break;
    }
    default:
      row[x] = static_cast<uint8_t>(v);
  }
}

inline uint16_t Load16(const uint8_t *p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
inline void Store16(uint8_t *p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
}

// 5-5-5 colour word (blue in the low bits) to and from 8-bit samples; the
// widening replicates the top bits so that narrowing it again is exact.
inline uint8_t Expand5(uint32_t v) { return static_cast<uint8_t>((v << 3) | (v >> 2)); }
inline void Unpack555(uint16_t w, uint8_t *b, uint8_t *g, uint8_t *r) {
  *b = Expand5(w & 31u);
  *g = Expand5((w >> 5) & 31u);
  *r = Expand5((w >> 10) & 31u);
}
inline uint16_t Pack555(uint32_t b, uint32_t g, uint32_t r) {
  return static_cast<uint16_t>((b >> 3) | ((g >> 3) << 5) | ((r >> 3) << 10));
}

// Significant bits of a gray bitmap's samples: the one reading of
// SignificantLowBit and SignificantHighBit behind table lengths, histogram
// and sample ranges, the samples a table maps and full scale. All
// BitsPerPixel bits when SignificantHighBit is -1, otherwise High - Low + 1
// (so High -2 with Low -2 is one bit). 0 when that count lies outside
// 1..16: such a bitmap has no sample range, and the table and histogram
// operations refuse it with RC_INVALID_PARAMETER.
inline int32_t GraySampleBits(const BitmapRecord *b) {
  const int64_t n = b->SignificantHighBit == -1
                        ? b->BitsPerPixel
                        : int64_t{b->SignificantHighBit} - int64_t{b->SignificantLowBit} + 1;
  return n >= 1 && n <= 16 ? static_cast<int32_t>(n) : 0;
}

// Significant bits of one sample as lookup tables and histograms see it: 16
// for 48/64 bits; gray: GraySampleBits limited to the stored width (8, 12
// or 16; 0 without a sample range); 8 for every other kind (palette colours,
// 5-5-5 fields widened, 24 and 32 bits).
inline int32_t SampleBits(const BitmapRecord *b) {
  switch (KindOf(b)) {
    case Kind::Color48:
    case Kind::Color64:
      return 16;
    case Kind::Gray8:
    case Kind::Gray12:
    case Kind::Gray16: {
      const int32_t storage = b->BitsPerPixel == 8 ? 8 : b->BitsPerPixel == 12 ? 12 : 16;
      const int32_t bits = GraySampleBits(b);
      return bits < storage ? bits : storage;
    }
    default:
      return 8;
  }
}

// Entries of a lookup table over every sample value of a bitmap, the one
// rule of table lengths: 65536 for 48/64 bits; gray: 2^GraySampleBits (0
// without a sample range); 256 for every other kind. A bitmap that uses its
// attached table gets the same length: the attached entries are sample
// values of that scale.
inline uint32_t TableLength(const BitmapRecord *b) {
  if (b->BitsPerPixel >= 48) return 65536;
  if (b->ColorOrder != ORDER_GRAY) return 256;
  const int32_t bits = GraySampleBits(b);
  return bits ? 1u << bits : 0u;
}

// Gray ramp of a palette depth: entry i = i * 255 / (2^bits - 1).
inline void GrayRamp(PaletteEntry *pal, int32_t bits) {
  const int32_t n = 1 << bits;
  for (int32_t i = 0; i < n; ++i) {
    const uint8_t v = static_cast<uint8_t>(i * 255 / (n - 1));
    pal[i] = PaletteEntry{v, v, v, 0};
  }
}

// Nearest palette colour (squared RGB distance, lowest index on ties), with a
// small cache keyed by colour: rows of a photo repeat colours a lot.
class PaletteMatcher {
 public:
  PaletteMatcher(const PaletteEntry *pal, int32_t count) : pal_(pal), count_(count) {
    std::memset(keys_, 0xFF, sizeof keys_);
  }
  uint32_t Nearest(uint8_t b, uint8_t g, uint8_t r) {
    const uint32_t key = (static_cast<uint32_t>(r) << 16) | (static_cast<uint32_t>(g) << 8) | b;
    const uint32_t slot = (key * 2654435761u) >> (32 - kBits);
    if (keys_[slot] == key) return values_[slot];
    uint32_t best = 0;
    int32_t bestDistance = INT32_MAX;
    for (int32_t i = 0; i < count_; ++i) {
      const int32_t db = pal_[i].Blue - b, dg = pal_[i].Green - g, dr = pal_[i].Red - r;
      const int32_t d = db * db + dg * dg + dr * dr;
      if (d < bestDistance) {
        bestDistance = d;
        best = static_cast<uint32_t>(i);
        if (d == 0) break;
      }
    }
    keys_[slot] = key;
    values_[slot] = static_cast<uint8_t>(best);
    return best;
  }
  // Keeps `current` when its colour already equals (b, g, r).
  uint32_t Match(uint32_t current, uint8_t b, uint8_t g, uint8_t r) {
    if (current < static_cast<uint32_t>(count_)) {
      const PaletteEntry &e = pal_[current];
      if (e.Blue == b && e.Green == g && e.Red == r) return current;
    }
    return Nearest(b, g, r);
  }

 private:
  static constexpr int kBits = 10;
  const PaletteEntry *pal_;
  int32_t count_;
  uint32_t keys_[1 << kBits];
  uint8_t values_[1 << kBits] = {};
};

}  // namespace img
