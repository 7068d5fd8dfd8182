// Small table helpers of imgutil.
#include <cstring>

#include "imgutil.h"

extern "C" {

IMG_API int32_t FinishOperation(void) { return RC_SUCCESS; }

IMG_API void ShiftLutForSigned(int32_t *table, uint32_t length) {
  if (!table || length < 2) return;
  // Rotating right by length / 2 is the same as swapping the two halves.
  const uint32_t half = length / 2;
  if (length % 2 == 0) {
    for (uint32_t i = 0; i < half; ++i) {
      const int32_t t = table[i];
      table[i] = table[i + half];
      table[i + half] = t;
    }
    return;
  }
  // Odd lengths: three reversals rotate in place.
  auto reverse = [&](uint32_t a, uint32_t b) {
    while (a + 1 < b) {
      const int32_t t = table[a];
      table[a] = table[b - 1];
      table[b - 1] = t;
      ++a;
      --b;
    }
  };
  const uint32_t k = half % length;
  reverse(0, length);
  reverse(0, k);
  reverse(k, length);
}

IMG_API void FillLutSegment(int32_t first, int32_t last, int32_t firstValue, int32_t lastValue,
                            int32_t *table) {
  if (!table || last <= first) return;
  const int64_t span = static_cast<int64_t>(last) - first;
  const int64_t rise = static_cast<int64_t>(lastValue) - firstValue;
  for (int64_t i = first; i < last; ++i)
    table[i] = static_cast<int32_t>(firstValue + rise * (i - first) / span);
}

IMG_API void ArrangeRowRing(void *const *ring, void **rows, int32_t count, int32_t startSlot) {
  if (!ring || !rows || count <= 0) return;
  int32_t slot = ((startSlot % count) + count) % count;
  for (int32_t i = 0; i < count; ++i) {
    rows[i] = ring[slot];
    if (++slot == count) slot = 0;
  }
}

}  // extern "C"
