// Shared by imgutil's intensity operations: the table they apply and full
// scale.
#pragma once

#include <cstdint>

#include "checks.h"
#include "family.h"
#include "imgutil.h"
#include "pixels.h"
#include "ranges.h"

namespace img {

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

// Largest sample value of the bitmap: its table length - 1;
// RC_INVALID_PARAMETER for a gray bitmap without a sample range.
inline int32_t FullScale(const BitmapRecord *b) {
  const uint32_t length = TableLength(b);
  return length ? static_cast<int32_t>(length - 1) : RC_INVALID_PARAMETER;
}

inline int32_t Clamp(int64_t v, int32_t max) { return v < 0 ? 0 : v > max ? max : static_cast<int32_t>(v); }

}  // namespace img
