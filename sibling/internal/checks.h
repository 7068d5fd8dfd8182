// The entry checks every operation of the family starts with, and the ranges
// of arguments. The checks run in one fixed order; an operation states its
// variant as data (an EntryRule), never as code of its own.
#pragma once

#include <cstdint>

#include "family.h"
#include "pixels.h"

namespace img {

// Where a null bitmap is refused.
enum class NullBitmap : uint8_t {
  Refused,             // first, before the record size, with the rule's nullStatus
  RefusedUnallocated,  // first, like a bitmap whose Flags lack BITMAP_ALLOCATED
  AfterFrame,          // after the record size and 32-bit gray checks, with nullStatus
  Passed,              // not here: whatever reads it first refuses it
};

// The checks of the kind of bitmap, in their order.
struct KindChecks {
  bool gray32 = false;      // 32-bit gray is refused (RC_GRAY32_NOT_SUPPORTED)
  bool knownKind = false;   // a kind the family does not know is refused (RC_UNSUPPORTED_BITMAP)
  bool signedData = false;  // signed samples are refused (RC_SIGNED_DATA_NOT_SUPPORTED)
};

struct EntryRule {
  bool flagsWord = true;  // the trailing flags word must be 0
  NullBitmap nullBitmap = NullBitmap::Refused;
  int32_t nullStatus = RC_NO_BITMAP;
  bool pixels = false;      // a bitmap without pixel memory is refused (RC_NO_BITMAP)
  bool gray32 = true;       // 32-bit gray is refused (RC_GRAY32_NOT_SUPPORTED)
  bool knownKind = false;   // a kind the family does not know is refused (RC_UNSUPPORTED_BITMAP)
  bool signedData = false;  // signed samples are refused (RC_SIGNED_DATA_NOT_SUPPORTED)
  // A bitmap whose Flags lack BITMAP_ALLOCATED is refused (RC_NO_BITMAP)
  // after the kind checks (courses that look at the record before the pixels).
  bool allocatedAfterKind = false;
  // Kind checks that the operation makes after its own arguments, through
  // CheckAfterArguments (the table engines look at the kind last).
  KindChecks afterArguments{};
};

// Runs the kind checks that are asked for, in their order. 0 when all passed.
inline int32_t CheckKind(const KindChecks &checks, const BitmapRecord *bitmap) {
  if (checks.gray32 && bitmap->ColorOrder == ORDER_GRAY && bitmap->BitsPerPixel == 32)
    return RC_GRAY32_NOT_SUPPORTED;
  if (checks.knownKind && KindOf(bitmap) == Kind::Invalid) return RC_UNSUPPORTED_BITMAP;
  if (checks.signedData && (bitmap->Flags & BITMAP_SIGNED)) return RC_SIGNED_DATA_NOT_SUPPORTED;
  return 0;
}

// Runs the checks of `rule` in their order: flags word (RC_INVALID_PARAMETER),
// null bitmap, record size (RC_INVALID_STRUCT_SIZE; the value is stored back
// unchanged: entry code owns the record for the call), pixel memory, 32-bit
// gray, unknown kind, signed data, a bitmap without pixel memory refused
// after them, a null bitmap refused after the frame.
// Returns 0 when every check passed, else the status to return.
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
  if (const int32_t status = CheckKind(KindChecks{rule.gray32, rule.knownKind, rule.signedData}, bitmap))
    return status;
  if (rule.allocatedAfterKind && !(bitmap->Flags & BITMAP_ALLOCATED)) return RC_NO_BITMAP;
  return 0;
}

// The rule's kind checks after the operation's own arguments (the bitmap
// passed CheckEntry).
inline int32_t CheckAfterArguments(const EntryRule &rule, const BitmapRecord *bitmap) {
  return CheckKind(rule.afterArguments, bitmap);
}

// An inclusive range of an argument.
struct Range {
  int64_t min;
  int64_t max;
  constexpr bool Contains(int64_t v) const { return v >= min && v <= max; }
};

}  // namespace img
