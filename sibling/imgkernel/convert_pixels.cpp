// Whole-bitmap pixel services: row order (ChangeOrientation), filling
// (FillBitmap) and counting colours (CountBitmapColors).
#include <algorithm>
#include <cstring>

#include "family.h"
#include "pixels.h"
#include "region_data.h"

namespace {

static constexpr const wchar_t *kSourceFile = L"imgkernel/convert_pixels";

using img::Kind;

bool HasPixels(const BitmapRecord *b) { return (b->Flags & BITMAP_ALLOCATED) && b->Pixels; }

int32_t CheckBitmap(const BitmapRecord *b) {
  if (!b) return RC_NO_BITMAP;
  if (!img::ValidRecordSize(b->StructSize)) return RC_INVALID_STRUCT_SIZE;
  if (!HasPixels(b)) return RC_NO_BITMAP;
  return 0;
}

// Swaps stored rows i and Height - 1 - i.
void ReverseRows(BitmapRecord *b) {
  for (int32_t top = 0, bottom = b->Height - 1; top < bottom; ++top, --bottom)
    std::swap_ranges(img::StoredRow(b, top), img::StoredRow(b, top) + b->BytesPerLine,
                     img::StoredRow(b, bottom));
}

// ---- FillBitmap ------------------------------------------------------------------------

// Writes one stored pixel pattern of `size` bytes over columns [start, end).
void FillBytes(uint8_t *row, int32_t start, int32_t end, const uint8_t *pattern, int32_t size) {
  if (size == 1) {
    std::memset(row + start, pattern[0], static_cast<size_t>(end - start));
    return;
  }
  uint8_t *p = row + static_cast<size_t>(start) * size;
  for (int32_t x = start; x < end; ++x, p += size) std::memcpy(p, pattern, static_cast<size_t>(size));
}

// 32/64-bit colour: the colour samples only, the fourth sample stays.
void FillColorSamples(uint8_t *row, int32_t start, int32_t end, const uint8_t *pattern, int32_t size) {
  const size_t colour = static_cast<size_t>(size) / 4 * 3;
  uint8_t *p = row + static_cast<size_t>(start) * size;
  for (int32_t x = start; x < end; ++x, p += size) std::memcpy(p, pattern, colour);
}

template <int Bits>
void FillIndices(uint8_t *row, int32_t start, int32_t end, uint32_t index) {
  constexpr int kPer = 8 / Bits;
  for (int32_t x = start; x < end; ++x) {
    const int shift = (kPer - 1 - x % kPer) * Bits;
    const uint32_t mask = ((1u << Bits) - 1u) << shift;
    uint8_t &byte = row[x / kPer];
    byte = static_cast<uint8_t>((byte & ~mask) | ((index << shift) & mask));
  }
}

struct FillValue {
  int32_t bits = 0;
  uint32_t index = 0;  // packed palette depths
  uint8_t pattern[8] = {};
  int32_t size = 0;  // bytes per pixel
  bool keepFourth = false;
};

void FillSpan(const FillValue &v, uint8_t *row, int32_t start, int32_t end) {
  switch (v.bits) {
    case 1:
      FillIndices<1>(row, start, end, v.index);
      break;
    case 2:
      FillIndices<2>(row, start, end, v.index);
      break;
    case 4:
      FillIndices<4>(row, start, end, v.index);
      break;
    default:
      if (v.keepFourth)
        FillColorSamples(row, start, end, v.pattern, v.size);
      else
        FillBytes(row, start, end, v.pattern, v.size);
  }
}

FillValue MakeFillValue(const BitmapRecord *b, Kind kind, uint32_t color) {
  uint32_t r = color & 0xFFu, g = (color >> 8) & 0xFFu, bl = (color >> 16) & 0xFFu;
  if (color & COLOR_GRAY_LEVEL) r = g = bl = (color >> 8) & 0xFFu;
  const uint32_t level = (2 * r + 5 * g + bl + 4) >> 3;
  FillValue v;
  v.bits = b->BitsPerPixel;
  v.size = b->BitsPerPixel == 12 ? 2 : b->BitsPerPixel / 8;  // 12-bit levels sit in 16-bit words
  const bool bgr = img::IsBgrOrder(b->ColorOrder);
  switch (kind) {
    case Kind::Palette: {
      PaletteEntry ramp[256];
      const PaletteEntry *pal = b->Palette;
      const int32_t capacity = 1 << b->BitsPerPixel;
      int32_t count = b->ColorsUsed > 0 && b->ColorsUsed <= capacity ? b->ColorsUsed : capacity;
      if (!pal || b->PaletteFlag == PALETTE_FLAG_NONE) {
        img::GrayRamp(ramp, b->BitsPerPixel);
        pal = ramp;
        count = capacity;
      }
      img::PaletteMatcher matcher(pal, count);
      v.index = matcher.Nearest(static_cast<uint8_t>(bl), static_cast<uint8_t>(g), static_cast<uint8_t>(r));
      v.pattern[0] = static_cast<uint8_t>(v.index);
      break;
    }
    case Kind::Gray8:
      v.pattern[0] = static_cast<uint8_t>(level);
      break;
    case Kind::Gray12:
      img::Store16(v.pattern, level * 16);
      break;
    case Kind::Gray16:
      img::Store16(v.pattern, level * 257);
      break;
    case Kind::Color16:
      img::Store16(v.pattern, img::Pack555(bl, g, r));
      break;
    case Kind::Color24:
    case Kind::Color32:
      v.pattern[0] = static_cast<uint8_t>(bgr ? bl : r);
      v.pattern[1] = static_cast<uint8_t>(g);
      v.pattern[2] = static_cast<uint8_t>(bgr ? r : bl);
      v.keepFourth = kind == Kind::Color32;
      break;
    case Kind::Color48:
    case Kind::Color64:
      img::Store16(v.pattern, (bgr ? bl : r) * 257);
      img::Store16(v.pattern + 2, g * 257);
      img::Store16(v.pattern + 4, (bgr ? r : bl) * 257);
      v.keepFourth = kind == Kind::Color64;
      break;
    default:
      break;
  }
  return v;
}

// ---- CountBitmapColors ---------------------------------------------------------------

inline void SetBit(uint64_t *bits, uint32_t i) { bits[i >> 6] |= uint64_t{1} << (i & 63); }
inline bool TestBit(const uint64_t *bits, uint32_t i) { return (bits[i >> 6] >> (i & 63)) & 1u; }

uint32_t PopCount(const uint64_t *bits, size_t words) {
  uint32_t n = 0;
  for (size_t i = 0; i < words; ++i) n += static_cast<uint32_t>(__builtin_popcountll(bits[i]));
  return n;
}

template <int Bits>
void MarkIndices(const uint8_t *row, int32_t width, uint64_t *used) {
  constexpr int kPer = 8 / Bits;
  for (int32_t x = 0; x < width; ++x) {
    if constexpr (Bits == 8)
      SetBit(used, row[x]);
    else
      SetBit(used, (row[x / kPer] >> ((kPer - 1 - x % kPer) * Bits)) & ((1u << Bits) - 1u));
  }
}

uint32_t CountPaletteColors(const BitmapRecord *b) {
  uint64_t used[4] = {};
  for (int32_t y = 0; y < b->Height; ++y) {
    const uint8_t *row = img::StoredRow(b, y);
    switch (b->BitsPerPixel) {
      case 1:
        MarkIndices<1>(row, b->Width, used);
        break;
      case 2:
        MarkIndices<2>(row, b->Width, used);
        break;
      case 4:
        MarkIndices<4>(row, b->Width, used);
        break;
      default:
        MarkIndices<8>(row, b->Width, used);
        break;
    }
  }
  if (!b->Palette || b->PaletteFlag == PALETTE_FLAG_NONE) return PopCount(used, 4);
  // Distinct colours among the used entries.
  uint32_t keys[256];
  uint32_t n = 0;
  for (uint32_t i = 0; i < 256; ++i) {
    if (!TestBit(used, i)) continue;
    const PaletteEntry &e = b->Palette[i];
    keys[n++] = (uint32_t{e.Red} << 16) | (uint32_t{e.Green} << 8) | e.Blue;
  }
  std::sort(keys, keys + n);
  return static_cast<uint32_t>(std::unique(keys, keys + n) - keys);
}

uint32_t CountGrayLevels(const BitmapRecord *b, Kind kind) {
  uint64_t used[1024] = {};
  int32_t low = 0, n = kind == Kind::Gray8 ? 8 : kind == Kind::Gray12 ? 12 : 16;
  const int32_t limit = kind == Kind::Gray8 ? 8 : 16;
  if (b->SignificantHighBit >= 0 && b->SignificantLowBit >= 0 &&
      b->SignificantLowBit <= b->SignificantHighBit && b->SignificantHighBit < limit) {
    low = b->SignificantLowBit;
    n = b->SignificantHighBit - low + 1;
  }
  const uint32_t mask = (1u << n) - 1u;
  for (int32_t y = 0; y < b->Height; ++y) {
    const uint8_t *row = img::StoredRow(b, y);
    if (kind == Kind::Gray8) {
      for (int32_t x = 0; x < b->Width; ++x) SetBit(used, (row[x] >> low) & mask);
    } else {
      for (int32_t x = 0; x < b->Width; ++x) SetBit(used, (img::Load16(row + 2 * x) >> low) & mask);
    }
  }
  return PopCount(used, 1024);
}

uint32_t Count555(const BitmapRecord *b) {
  uint64_t used[512] = {};
  for (int32_t y = 0; y < b->Height; ++y) {
    const uint8_t *row = img::StoredRow(b, y);
    for (int32_t x = 0; x < b->Width; ++x) SetBit(used, img::Load16(row + 2 * x) & 0x7FFFu);
  }
  return PopCount(used, 512);
}

int32_t Count8BitColour(const BitmapRecord *b, int32_t step, uint32_t *count) {
  constexpr size_t kWords = (size_t{1} << 24) / 64;
  IMG_BUFFER(uint64_t, used, kWords);
  if (!used) return RC_NO_MEMORY;
  for (int32_t y = 0; y < b->Height; ++y) {
    const uint8_t *p = img::StoredRow(b, y);
    for (int32_t x = 0; x < b->Width; ++x, p += step)
      SetBit(used.get(), (uint32_t{p[2]} << 16) | (uint32_t{p[1]} << 8) | p[0]);
  }
  *count = PopCount(used.get(), kWords);
  return RC_SUCCESS;
}

int32_t Count16BitColour(const BitmapRecord *b, int32_t step, uint32_t *count) {
  const size_t total = static_cast<size_t>(b->Width) * static_cast<size_t>(b->Height);
  IMG_BUFFER(uint64_t, keys, total);
  if (!keys) return RC_NO_MEMORY;
  size_t k = 0;
  for (int32_t y = 0; y < b->Height; ++y) {
    const uint8_t *p = img::StoredRow(b, y);
    for (int32_t x = 0; x < b->Width; ++x, p += step)
      keys[k++] =
          (uint64_t{img::Load16(p + 4)} << 32) | (uint64_t{img::Load16(p + 2)} << 16) | img::Load16(p);
  }
  std::sort(keys.get(), keys.get() + total);
  *count = static_cast<uint32_t>(std::unique(keys.get(), keys.get() + total) - keys.get());
  return RC_SUCCESS;
}

}  // namespace

extern "C" {

IMG_API int32_t ChangeOrientation(BitmapRecord *destination, BitmapRecord *bitmap, uint32_t structSize,
                                  int32_t orientation, uint32_t flags) {
  if (const int32_t status = CheckBitmap(bitmap)) return status;
  if (!img::ValidRecordSize(structSize)) return RC_INVALID_STRUCT_SIZE;
  if (flags != 0 || (orientation != ORIENT_TOP_FIRST && orientation != ORIENT_BOTTOM_FIRST))
    return RC_INVALID_PARAMETER;
  if (bitmap->Orientation != ORIENT_TOP_FIRST && bitmap->Orientation != ORIENT_BOTTOM_FIRST)
    return RC_INVALID_PARAMETER;
  BitmapRecord *target = bitmap;
  if (destination && destination != bitmap) {
    const int32_t status = CopyBitmap(destination, bitmap, structSize);
    if (status != RC_SUCCESS) return status;
    target = destination;
  }
  if (target->Orientation != orientation) {
    ReverseRows(target);
    target->Orientation = orientation;
  }
  return RC_SUCCESS;
}

IMG_API int32_t FillBitmap(BitmapRecord *bitmap, uint32_t color) {
  if (const int32_t status = CheckBitmap(bitmap)) return status;
  const Kind kind = img::KindOf(bitmap);
  if (kind == Kind::Gray32) return RC_GRAY32_NOT_SUPPORTED;
  if (kind == Kind::Invalid) return RC_INVALID_PARAMETER;
  const FillValue value = MakeFillValue(bitmap, kind, color);
  const int32_t width = bitmap->Width, height = bitmap->Height;
  const ImgRegion *region = bitmap->Region;
  if (!region) {
    for (int32_t y = 0; y < height; ++y) FillSpan(value, img::StoredRow(bitmap, y), 0, width);
    return RC_SUCCESS;
  }
  const uint32_t *rowStart = img::RegionRowStart(region);
  const RowRun *runs = img::RegionRuns(region);
  const int32_t top = std::max(region->Top, 0), bottom = std::min(region->Bottom, height);
  for (int32_t y = top; y < bottom; ++y) {
    uint8_t *row = img::ImageRow(bitmap, y);
    for (uint32_t i = rowStart[y - region->Top]; i < rowStart[y - region->Top + 1]; ++i) {
      const int32_t start = std::max(runs[i].Start, 0), end = std::min(runs[i].End, width);
      if (start < end) FillSpan(value, row, start, end);
    }
  }
  return RC_SUCCESS;
}

IMG_API int32_t CountBitmapColors(const BitmapRecord *bitmap, uint32_t *count, uint32_t flags) {
  if (flags != 0) return RC_INVALID_PARAMETER;
  if (const int32_t status = CheckBitmap(bitmap)) return status;
  if (!count) return RC_NULL_OPTIONS;
  const Kind kind = img::KindOf(bitmap);
  switch (kind) {
    case Kind::Palette:
      *count = CountPaletteColors(bitmap);
      return RC_SUCCESS;
    case Kind::Gray8:
    case Kind::Gray12:
    case Kind::Gray16:
      *count = CountGrayLevels(bitmap, kind);
      return RC_SUCCESS;
    case Kind::Color16:
      *count = Count555(bitmap);
      return RC_SUCCESS;
    case Kind::Color24:
      return Count8BitColour(bitmap, 3, count);
    case Kind::Color32:
      return Count8BitColour(bitmap, 4, count);
    case Kind::Color48:
      return Count16BitColour(bitmap, 6, count);
    case Kind::Color64:
      return Count16BitColour(bitmap, 8, count);
    case Kind::Gray32:
      return RC_GRAY32_NOT_SUPPORTED;
    default:
      return RC_INVALID_PARAMETER;
  }
}

}  // extern "C"
