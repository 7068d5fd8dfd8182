// Bitmap records: allocation, copies, stored rows and palettes.
#include <cstring>

#include "family.h"
#include "pixels.h"
#include "region_data.h"

namespace {

static constexpr const wchar_t *kSourceFile = L"imgkernel/bitmap";

using img::Kind;

// Largest pixel block the kernel hands out.
constexpr uint64_t kMaxPixelBytes = uint64_t{1} << 46;

// Clears the first `size` bytes of a record and stores the size back.
void ClearRecord(BitmapRecord *b, uint32_t size) {
  std::memset(b, 0, size);
  b->StructSize = size;
}

int32_t NormalizeOrder(int32_t order) { return img::IsBgrOrder(order) ? ORDER_BGR : order; }

}  // namespace

namespace img {

// Releases everything the record owns and clears those fields.
void ReleaseOwned(BitmapRecord *b) {
  if (b->Pixels) IMG_FREE(b->Pixels);
  if (b->Palette) IMG_FREE(b->Palette);
  if (b->Region) IMG_FREE(b->Region);
  if (b->AttachedLut) IMG_FREE(b->AttachedLut);
  b->Pixels = nullptr;
  b->Palette = nullptr;
  b->Region = nullptr;
  b->AttachedLut = nullptr;
  b->AttachedLutLength = 0;
  b->DataSize = 0;
  b->Flags &= ~(BITMAP_ALLOCATED | BITMAP_USE_ATTACHED_LUT);
}

// Fills the descriptive fields of a record for a valid kind; returns a status.
int32_t DescribeBitmap(BitmapRecord *b, uint32_t size, int32_t width, int32_t height, int32_t bits,
                       int32_t order, int32_t orientation) {
  if (width < 1 || height < 1) return RC_INVALID_PARAMETER;
  if (orientation != ORIENT_TOP_FIRST && orientation != ORIENT_BOTTOM_FIRST) return RC_INVALID_PARAMETER;
  if (bits == 0) bits = 8;
  if (KindOf(bits, order) == Kind::Invalid) return RC_INVALID_PARAMETER;
  const uint64_t line = StoredRowBytes(width, bits);
  if (line == 0 || line > UINT32_MAX || line * static_cast<uint64_t>(height) > kMaxPixelBytes)
    return RC_INVALID_PARAMETER;
  ClearRecord(b, size);
  b->Width = width;
  b->Height = height;
  b->BitsPerPixel = bits;
  b->ColorOrder = NormalizeOrder(order);
  b->Orientation = orientation;
  b->BytesPerLine = static_cast<uint32_t>(line);
  // Every kind of 8 bits or fewer has a palette, 8-bit gray included (its
  // entries are the gray ramp, so that index and level agree).
  b->ColorsUsed = bits <= 8 ? (1 << bits) : 0;
  b->SignificantLowBit = 0;
  b->SignificantHighBit = -1;
  return RC_SUCCESS;
}

}  // namespace img

namespace {

// AllocateBitmap; `zero` false leaves the pixel bytes unset (no data then).
int32_t AllocateRecord(BitmapRecord *bitmap, uint32_t structSize, int32_t memoryKind, int32_t width,
                       int32_t height, int32_t bitsPerPixel, int32_t colorOrder, const PaletteEntry *palette,
                       int32_t orientation, const void *data, uint64_t dataSize, bool zero) {
  if (!bitmap) return RC_NO_BITMAP;
  if (!img::ValidRecordSize(structSize)) return RC_INVALID_STRUCT_SIZE;
  int32_t status = RC_INVALID_PARAMETER;
  if (memoryKind == MEMORY_CONVENTIONAL || memoryKind == MEMORY_LARGE)
    status = img::DescribeBitmap(bitmap, structSize, width, height, bitsPerPixel, colorOrder, orientation);
  if (status != RC_SUCCESS) {
    ClearRecord(bitmap, structSize);
    return status;
  }
  bitmap->MemoryKind = memoryKind;
  const uint64_t bytes = static_cast<uint64_t>(bitmap->BytesPerLine) * static_cast<uint64_t>(height);
  // Pixel data must come in the stored layout (padded rows): a buffer of any
  // other size, such as tightly packed rows, would be read sheared.
  if (data && dataSize != bytes) {
    ClearRecord(bitmap, structSize);
    return RC_INVALID_PARAMETER;
  }
  img::KernelBuffer<uint8_t> pixels;
  if (zero)
    pixels = img::KernelBuffer<uint8_t>(bytes, __LINE__, kSourceFile);
  else
    pixels.adopt(static_cast<uint8_t *>(::AllocUnset(bytes, 1, __LINE__, kSourceFile)), __LINE__,
                 kSourceFile);
  img::KernelBuffer<PaletteEntry> pal;
  if (bitmap->ColorsUsed > 0) pal = img::KernelBuffer<PaletteEntry>(256, __LINE__, kSourceFile);
  if (!pixels || (bitmap->ColorsUsed > 0 && !pal)) {
    ClearRecord(bitmap, structSize);
    return RC_NO_MEMORY;
  }
  if (bitmap->ColorsUsed > 0) {
    if (palette)
      std::memcpy(pal.get(), palette, sizeof(PaletteEntry) * bitmap->ColorsUsed);
    else
      img::GrayRamp(pal.get(), bitmap->BitsPerPixel);
  }
  if (data) std::memcpy(pixels.get(), data, bytes);
  bitmap->Pixels = pixels.release();
  bitmap->Palette = pal.release();
  bitmap->DataSize = bytes;
  bitmap->Flags = BITMAP_ALLOCATED | (memoryKind == MEMORY_LARGE ? BITMAP_LARGE_MEMORY : 0u);
  return RC_SUCCESS;
}

}  // namespace

extern "C" {

IMG_API int32_t AllocateBitmap(BitmapRecord *bitmap, uint32_t structSize, int32_t memoryKind, int32_t width,
                               int32_t height, int32_t bitsPerPixel, int32_t colorOrder,
                               const PaletteEntry *palette, int32_t orientation, const void *data,
                               uint64_t dataSize) {
  return AllocateRecord(bitmap, structSize, memoryKind, width, height, bitsPerPixel, colorOrder, palette,
                        orientation, data, dataSize, true);
}

IMG_API int32_t AllocateBitmapUnset(BitmapRecord *bitmap, uint32_t structSize, int32_t memoryKind,
                                    int32_t width, int32_t height, int32_t bitsPerPixel, int32_t colorOrder,
                                    const PaletteEntry *palette, int32_t orientation) {
  return AllocateRecord(bitmap, structSize, memoryKind, width, height, bitsPerPixel, colorOrder, palette,
                        orientation, nullptr, 0, false);
}

IMG_API int32_t FreeBitmap(BitmapRecord *bitmap) {
  if (!bitmap) return RC_NO_BITMAP;
  if (!img::ValidRecordSize(bitmap->StructSize)) return RC_INVALID_STRUCT_SIZE;
  img::ReleaseOwned(bitmap);
  return RC_SUCCESS;
}

IMG_API int32_t CopyBitmap(BitmapRecord *destination, const BitmapRecord *source, uint32_t structSize) {
  if (!destination || !source) return RC_NO_BITMAP;
  if (!img::ValidRecordSize(structSize) || !img::ValidRecordSize(source->StructSize))
    return RC_INVALID_STRUCT_SIZE;
  if (!(source->Flags & BITMAP_ALLOCATED) || !source->Pixels) return RC_NO_BITMAP;
  img::KernelBuffer<uint8_t> pixels(source->DataSize, __LINE__, kSourceFile);
  img::KernelBuffer<PaletteEntry> pal;
  img::KernelBuffer<uint8_t> region;
  img::KernelBuffer<int32_t> lut;
  if (!pixels) return RC_NO_MEMORY;
  if (source->Palette) {
    pal = img::KernelBuffer<PaletteEntry>(256, __LINE__, kSourceFile);
    if (!pal) return RC_NO_MEMORY;
    std::memcpy(pal.get(), source->Palette, sizeof(PaletteEntry) * 256);
  }
  if (source->Region) {
    region = img::KernelBuffer<uint8_t>(source->Region->ByteSize, __LINE__, kSourceFile);
    if (!region) return RC_NO_MEMORY;
    std::memcpy(region.get(), source->Region, source->Region->ByteSize);
  }
  const bool hasLut = source->StructSize > offsetof(BitmapRecord, AttachedLutLength) && source->AttachedLut &&
                      source->AttachedLutLength > 0;
  if (hasLut) {
    lut = img::KernelBuffer<int32_t>(static_cast<uint32_t>(source->AttachedLutLength), __LINE__, kSourceFile);
    if (!lut) return RC_NO_MEMORY;
    std::memcpy(lut.get(), source->AttachedLut, sizeof(int32_t) * source->AttachedLutLength);
  }
  std::memcpy(pixels.get(), source->Pixels, source->DataSize);
  if (destination != source) {
    const uint32_t n = structSize < source->StructSize ? structSize : source->StructSize;
    std::memmove(destination, source, n);
    if (structSize > n) std::memset(reinterpret_cast<uint8_t *>(destination) + n, 0, structSize - n);
  }
  destination->StructSize = structSize;
  destination->Pixels = pixels.release();
  destination->Palette = pal.release();
  destination->Region = reinterpret_cast<ImgRegion *>(region.release());
  destination->AttachedLut = lut.release();
  if (!hasLut) destination->AttachedLutLength = 0;
  destination->AccessCount = 0;
  return RC_SUCCESS;
}

IMG_API int32_t ResetBitmap(BitmapRecord *bitmap, uint32_t structSize, int32_t, int32_t, int32_t) {
  if (!bitmap) return RC_NO_BITMAP;
  if (!img::ValidRecordSize(structSize)) return RC_INVALID_STRUCT_SIZE;
  ClearRecord(bitmap, structSize);
  bitmap->Orientation = ORIENT_TOP_FIRST;
  bitmap->SignificantHighBit = -1;
  return RC_SUCCESS;
}

IMG_API int32_t InitBitmapHeader(BitmapRecord *bitmap, uint32_t structSize, int32_t width, int32_t height,
                                 int32_t bitsPerPixel) {
  if (!bitmap) return RC_NO_BITMAP;
  if (!img::ValidRecordSize(structSize)) return RC_INVALID_STRUCT_SIZE;
  const int32_t order = bitsPerPixel == 12 ? ORDER_GRAY : ORDER_BGR;
  const int32_t status =
      img::DescribeBitmap(bitmap, structSize, width, height, bitsPerPixel, order, ORIENT_TOP_FIRST);
  if (status != RC_SUCCESS) ClearRecord(bitmap, structSize);
  return status;
}

IMG_API int32_t GetBitmapRow(const BitmapRecord *bitmap, void *buffer, int32_t row, uint32_t bytes) {
  if (!bitmap || !(bitmap->Flags & BITMAP_ALLOCATED) || !bitmap->Pixels) return RC_NO_BITMAP;
  if (!buffer || row < 0 || row >= bitmap->Height) return RC_INVALID_PARAMETER;
  const uint32_t n = bytes < bitmap->BytesPerLine ? bytes : bitmap->BytesPerLine;
  std::memcpy(buffer, img::StoredRow(bitmap, row), n);
  return static_cast<int32_t>(n);
}

IMG_API int32_t PutBitmapRow(BitmapRecord *bitmap, const void *buffer, int32_t row, uint32_t bytes) {
  if (!bitmap || !(bitmap->Flags & BITMAP_ALLOCATED) || !bitmap->Pixels) return RC_NO_BITMAP;
  if (!buffer || row < 0 || row >= bitmap->Height) return RC_INVALID_PARAMETER;
  const uint32_t n = bytes < bitmap->BytesPerLine ? bytes : bitmap->BytesPerLine;
  std::memcpy(img::StoredRow(bitmap, row), buffer, n);
  return static_cast<int32_t>(n);
}

IMG_API int32_t GetPalette(const BitmapRecord *bitmap, int32_t first, int32_t count, PaletteEntry *entries) {
  if (!bitmap || !bitmap->Palette || !entries || bitmap->BitsPerPixel > 8) return 0;
  const int32_t capacity = 1 << bitmap->BitsPerPixel;
  if (first < 0 || count <= 0 || count > capacity - first) return 0;
  std::memcpy(entries, bitmap->Palette + first, sizeof(PaletteEntry) * count);
  return count;
}

IMG_API int32_t SetPalette(BitmapRecord *bitmap, int32_t first, int32_t count, const PaletteEntry *entries) {
  if (!bitmap || !bitmap->Palette || !entries || bitmap->BitsPerPixel > 8) return 0;
  const int32_t capacity = 1 << bitmap->BitsPerPixel;
  if (first < 0 || count <= 0 || count > capacity - first) return 0;
  std::memmove(bitmap->Palette + first, entries, sizeof(PaletteEntry) * count);
  return 1;
}

IMG_API PaletteEntry *GetPaletteRaw(BitmapRecord *bitmap) {
  if (!bitmap || bitmap->BitsPerPixel > 8) return nullptr;
  return bitmap->Palette;
}

IMG_API int32_t IsGrayBitmap(const BitmapRecord *bitmap) {
  if (!bitmap) return 0;
  if (bitmap->ColorOrder == ORDER_GRAY || bitmap->BitsPerPixel == 12) return 1;
  if (bitmap->BitsPerPixel > 8 || bitmap->BitsPerPixel < 1) return 0;
  if (bitmap->PaletteFlag == PALETTE_FLAG_NONE) return 1;
  if (!bitmap->Palette || bitmap->ColorsUsed != (1 << bitmap->BitsPerPixel)) return 0;
  PaletteEntry ramp[256];
  img::GrayRamp(ramp, bitmap->BitsPerPixel);
  for (int32_t i = 0; i < bitmap->ColorsUsed; ++i) {
    const PaletteEntry &e = bitmap->Palette[i];
    if (e.Blue != ramp[i].Blue || e.Green != ramp[i].Green || e.Red != ramp[i].Red) return 0;
  }
  return 1;
}

IMG_API int32_t UpdateBitmapInfo(BitmapRecord *bitmap) {
  if (!bitmap) return RC_NO_BITMAP;
  if (!img::ValidRecordSize(bitmap->StructSize)) return RC_INVALID_STRUCT_SIZE;
  bitmap->UpdateCount++;
  return RC_SUCCESS;
}

IMG_API int32_t AccessBitmap(BitmapRecord *bitmap) {
  if (!bitmap || !(bitmap->Flags & BITMAP_ALLOCATED)) return RC_NO_BITMAP;
  return bitmap->AccessCount++;
}

IMG_API int32_t ReleaseBitmap(BitmapRecord *bitmap, int32_t token) {
  if (!bitmap) return RC_NO_BITMAP;
  if (token < 0 || token >= bitmap->AccessCount) return RC_INVALID_PARAMETER;
  bitmap->AccessCount = token;
  return RC_SUCCESS;
}

}  // extern "C"
