// The entry checks every operation of the family starts with, and the ranges
// of arguments. The checks run in one fixed order; an operation states its
// variant as data (an EntryRule), never as code of its own.
#pragma once

#include <cstdint>

#include "family.h"

namespace img {

// Where a null bitmap is refused.
enum class NullBitmap : uint8_t {
  Refused,             // first, before the record size, with the rule's nullStatus
  RefusedUnallocated,  // first, like a bitmap whose Flags lack BITMAP_ALLOCATED
  AfterFrame,          // after the record size and 32-bit gray checks, with nullStatus
  Passed,              // not here: whatever reads it first refuses it
};

struct EntryRule {
  bool flagsWord = true;  // the trailing flags word must be 0
  NullBitmap nullBitmap = NullBitmap::Refused;
  int32_t nullStatus = RC_NO_BITMAP;
  bool pixels = false;      // a bitmap without pixel memory is refused (RC_NO_BITMAP)
  bool gray32 = true;       // 32-bit gray is refused (RC_GRAY32_NOT_SUPPORTED)
  bool signedData = false;  // signed samples are refused (RC_SIGNED_DATA_NOT_SUPPORTED)
};

// Runs the checks of `rule` in their order: flags word (RC_INVALID_PARAMETER),
// null bitmap, record size (RC_INVALID_STRUCT_SIZE; the value is stored back
// unchanged: entry code owns the record for the call), pixel memory, 32-bit
// gray, signed data, a null bitmap refused after the frame. Returns 0 when
// every check passed, else the status to return.
inline int32_t CheckEntry(const EntryRule &rule, uint32_t flags, BitmapRecord *bitmap) {
  if (rule.flagsWord && flags != 0) return RC_INVALID_PARAMETER;
  if (bitmap == nullptr) {
    switch (rule.nullBitmap) {
      case NullBitmap::Refused:
      case NullBitmap::AfterFrame:
        return rule.nullStatus;
      case NullBitmap::RefusedUnallocated:
        return RC_NO_BITMAP;
      case NullBitmap::Passed:
        return 0;
    }
  }
  if (rule.nullBitmap == NullBitmap::RefusedUnallocated && !(bitmap->Flags & BITMAP_ALLOCATED))
    return RC_NO_BITMAP;
  const uint32_t size = bitmap->StructSize;
  if (!ValidRecordSize(size)) return RC_INVALID_STRUCT_SIZE;
  *static_cast<volatile uint32_t *>(&bitmap->StructSize) = size;
  if (rule.pixels && (!(bitmap->Flags & BITMAP_ALLOCATED) || bitmap->Pixels == nullptr)) return RC_NO_BITMAP;
  if (rule.gray32 && bitmap->ColorOrder == ORDER_GRAY && bitmap->BitsPerPixel == 32)
    return RC_GRAY32_NOT_SUPPORTED;
  if (rule.signedData && (bitmap->Flags & BITMAP_SIGNED)) return RC_SIGNED_DATA_NOT_SUPPORTED;
  return 0;
}

// An inclusive range of an argument.
struct Range {
  int64_t min;
  int64_t max;
  constexpr bool Contains(int64_t v) const { return v >= min && v <= max; }
};

}  // namespace img
