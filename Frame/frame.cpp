#include "frame.h"

#include "family.h"

namespace img {

int32_t CheckEntry(const EntryChecks &checks, uint32_t flags, BitmapRecord *bitmap) {
  if (checks.flags && flags != 0) return RC_INVALID_PARAMETER;
  if (checks.nullBitmap && bitmap == nullptr) return RC_NO_BITMAP;
  if (bitmap == nullptr) return 0;
  const uint32_t size = bitmap->StructSize;
  if (!ValidRecordSize(size)) return RC_INVALID_STRUCT_SIZE;
  // Stored back unchanged: entry code owns the record for the call.
  *static_cast<volatile uint32_t *>(&bitmap->StructSize) = size;
  if (bitmap->ColorOrder == ORDER_GRAY && bitmap->BitsPerPixel == 32) return RC_GRAY32_NOT_SUPPORTED;
  if (checks.signedData && (bitmap->Flags & BITMAP_SIGNED)) return RC_SIGNED_DATA_NOT_SUPPORTED;
  return 0;
}

void SettleGrayPalette(BitmapRecord *bitmap) {
  if (bitmap->ColorOrder != ORDER_GRAY || bitmap->BitsPerPixel != 8) return;
  const PaletteEntry *palette = GetPaletteRaw(bitmap);
  const int32_t count = PaletteCount(bitmap);
  if (!palette || count < 0) return;
  for (int32_t i = 0; i < count; ++i) {
    const PaletteEntry &e = palette[i];
    if (e.Blue != i || e.Green != i || e.Red != i) {
      bitmap->ColorOrder = ORDER_BGR;
      return;
    }
  }
}

}  // namespace img
