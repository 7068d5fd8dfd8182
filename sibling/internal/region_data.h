// Memory layout of a region, shared by imgdisplay (which builds and reads it)
// and imgkernel (which copies and frees it with the bitmap). A region is one
// self-contained block from AllocZeroed:
//   ImgRegion header
//   uint32_t RowStart[Bottom - Top + 1]   index of each row's first run
//   RowRun Runs[RunCount]                 sorted, disjoint, per row
#pragma once

#include <cstdint>

#include "imgdisplay.h"

struct ImgRegion {
  uint64_t ByteSize;  // size of the whole block
  int32_t Top;        // first row with runs (or 0 when empty)
  int32_t Bottom;     // one past the last row (Top when empty)
  int32_t Left;       // bounds of all runs
  int32_t Right;
  uint64_t Area;    // pixels inside
  int32_t MaxRuns;  // most runs in one row
  int32_t RunCount;
};

namespace img {
inline const uint32_t *RegionRowStart(const ImgRegion *r) {
  return reinterpret_cast<const uint32_t *>(r + 1);
}
inline const RowRun *RegionRuns(const ImgRegion *r) {
  return reinterpret_cast<const RowRun *>(RegionRowStart(r) + (r->Bottom - r->Top + 1));
}
}  // namespace img
