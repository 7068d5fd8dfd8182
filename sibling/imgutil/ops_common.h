// Helpers shared by imgutil's intensity operations.
#pragma once

#include <cstdint>

#include "family.h"
#include "imgutil.h"

namespace img {

// The checks every intensity operation starts with: null bitmap or no pixels
// -2, record size -789, 32-bit gray -1364. Returns 0 when all passed.
inline int32_t CheckOperand(const BitmapRecord *b) {
  if (!b) return RC_NO_BITMAP;
  if (!ValidRecordSize(b->StructSize)) return RC_INVALID_STRUCT_SIZE;
  if (!(b->Flags & BITMAP_ALLOCATED) || !b->Pixels) return RC_NO_BITMAP;
  if (b->ColorOrder == ORDER_GRAY && b->BitsPerPixel == 32) return RC_GRAY32_NOT_SUPPORTED;
  return 0;
}

// Applies `fill(table, length)` through ApplyLut: the table covers the
// bitmap's sample values, is rotated for signed data, and goes through the
// attached table when the bitmap uses one.
template <class Fill>
int32_t ApplyCurve(BitmapRecord *b, uint32_t channel, int32_t start, int32_t end, Fill fill) {
  int32_t *raw = nullptr;
  uint32_t length = 0;
  int32_t status = AllocBitmapLut(b, &raw, &length);
  if (status != RC_SUCCESS) return status;
  KernelBuffer<int32_t> table;
  table.adopt(raw, __LINE__, L"imgutil/ops");
  fill(table.get(), length);
  const bool attached = (b->Flags & BITMAP_USE_ATTACHED_LUT) != 0;
  if ((b->Flags & BITMAP_SIGNED) && !attached) ShiftLutForSigned(table.get(), length);
  return ApplyLut(b, table.get(), length, attached ? 0u : (LUT_INDEX_BY_VALUE | channel), start, end);
}

// Largest sample value of the bitmap: AllocBitmapLut's length - 1;
// RC_INVALID_PARAMETER for a gray bitmap without a sample range.
int32_t FullScale(const BitmapRecord *b);

// Rotates a histogram of stored patterns of a signed bitmap so that index 0
// is the most negative value.
void RotateHistogram(uint32_t *counts, uint32_t length);

inline int32_t Clamp(int64_t v, int32_t max) { return v < 0 ? 0 : v > max ? max : static_cast<int32_t>(v); }

}  // namespace img
