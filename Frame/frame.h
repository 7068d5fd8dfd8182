// The entry checks that every export of imgcolor shares.
#pragma once

#include <cstdint>

#include "imgkernel.h"

namespace img {

// Which of the shared checks an export performs.
struct EntryChecks {
  bool flags = true;        // the trailing flags word must be 0
  bool nullBitmap = true;   // a null bitmap is refused with RC_NO_BITMAP
  bool signedData = false;  // signed samples are refused
};

// Runs the shared entry checks in their fixed order: flags word, null bitmap,
// record size (the value is stored back unchanged), 32-bit gray, signed data.
// Returns 0 when every check passed, else the status to return.
int32_t CheckEntry(const EntryChecks &checks, uint32_t flags, BitmapRecord *bitmap);

// Called after a palette course wrote a bitmap's palette: an 8-bit gray
// bitmap whose palette is no longer the gray ramp becomes an 8-bit palette
// bitmap (ColorOrder ORDER_BGR), so that its pixels are read as indices into
// the new colours. Any other bitmap is left as it is.
void SettleGrayPalette(BitmapRecord *bitmap);

}  // namespace img
