// Row bands: the tool's way of running a row-local operation on all cores.
// The library has no threads of its own; the tool hands disjoint bands of
// stored rows to threads of its own, each band a region-free call on a
// sub-bitmap record that shares the bitmap's pixel memory.
#pragma once

#include <cstdint>
#include <ostream>

#include "registry.h"

namespace imgtool {

// True when `op` may run in bands on `bitmap`: the descriptor says the
// operation is row-local, it writes the image through the one-bitmap call,
// and the bitmap has no region, no palette (bitmaps of 8 bits or fewer, whose
// operations may change the shared palette) and no attached lookup table.
bool CanRunInBands(const OpDescriptor &op, const BitmapRecord *bitmap);

// Runs op.call on `bands` disjoint bands of stored rows (at most one a row),
// band 0 on the calling thread (which keeps its status callback: the
// progress bar follows that band) and each other band on a thread of its
// own; `out` receives band 0's report. Returns the first failing band's
// status, else band 0's. With bands <= 1, or when CanRunInBands is false, it
// is the plain call.
int32_t CallInBands(const OpDescriptor &op, BitmapRecord *bitmap, const ArgValues &args, std::ostream &out,
                    int32_t bands);

// The sub-bitmap record of stored rows [first, first + rows) of `bitmap`:
// the same record with that height, its pixel pointer and data size moved to
// the band, and no region. It shares the pixel memory and must not be freed.
BitmapRecord BandOf(const BitmapRecord &bitmap, int32_t first, int32_t rows);

}  // namespace imgtool
