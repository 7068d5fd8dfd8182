// Dynamic binary, internal: the entry with the instruction set chosen by the
// caller (tests force each one), and the 8-bit loops of the SIMD paths.
#pragma once

#include <cstddef>
#include <cstdint>

#include "cpu.h"
#include "imgcolor.h"

namespace img {

// Q_DynamicBinaryBitmap with its 8-bit loops limited to `isa` (the best
// available one not above it); every level gives the same pixels.
int32_t DynamicBinaryIsa(BitmapRecord *bitmap, uint32_t dimension, uint32_t localContrast, uint32_t flags,
                         Isa isa);

namespace bwconv {

// The 8-bit loops of one instruction set. The scalar reference runs the
// van Herk scans of BWConv.cpp instead; these take the row extremes by
// doubling (exact: min and max are idempotent, so overlapping halves give
// the window's extreme).
struct Loops8 {
  // o1[i] = min(a1[i], b1[i]) and o2[i] = max(a2[i], b2[i]) for i < n (any
  // of the outputs may be one of its inputs).
  void (*minMax)(const uint8_t *a1, const uint8_t *b1, uint8_t *o1, const uint8_t *a2, const uint8_t *b2,
                 uint8_t *o2, std::size_t n);
  // In place, for k = 1, 2, 4, ... while 2k <= span: v[i] = extreme of v[i]
  // and v[i + k] for i < length - k; afterwards v[i] is the extreme of the
  // original v[i .. i + K) with K the largest power of two not above span.
  void (*doubling)(uint8_t *lo, uint8_t *hi, int32_t length, int32_t span);
  // out[i] for i < n: window minimum min(lo[i], lo[i + shift]), maximum
  // max(hi[i], hi[i + shift]), then the decision against centre[i].
  void (*decide)(const uint8_t *lo, const uint8_t *hi, int32_t shift, const uint8_t *centre, uint8_t *out,
                 int32_t n, uint32_t contrast);
};

extern const Loops8 kAvx2Loops;
extern const Loops8 kAvx512Loops;

}  // namespace bwconv
}  // namespace img
