// Per-thread kernel state: the status callback and the settings pair, plus
// the arithmetic helpers.
#include <cstdlib>

#include "imgkernel.h"
#include "imgplatform.h"

namespace {

struct KernelThreadState {
  StatusCallback callback = nullptr;
  void *userData = nullptr;
  int32_t dither = 1;
  int32_t paletteChoice = 1;
};

KernelThreadState &State() {
  thread_local KernelThreadState state;
  return state;
}

}  // namespace

namespace img {
// Used by the conversions: the current dithering and palette settings.
void KernelSettings(int32_t *dither, int32_t *paletteChoice) {
  *dither = State().dither;
  *paletteChoice = State().paletteChoice;
}
}  // namespace img

extern "C" {

IMG_API void SetStatusCallback(StatusCallback callback, void *userData) {
  State().callback = callback;
  State().userData = userData;
}

IMG_API StatusCallback GetStatusCallback(void **userData) {
  if (userData) *userData = State().userData;
  return State().callback;
}

IMG_API int32_t SwapKernelSettings(int32_t first, int32_t second, int32_t *oldFirst, int32_t *oldSecond) {
  KernelThreadState &s = State();
  if (oldFirst) *oldFirst = s.dither;
  if (oldSecond) *oldSecond = s.paletteChoice;
  s.dither = first;
  s.paletteChoice = second;
  return RC_SUCCESS;
}

IMG_API int32_t MulDiv(int32_t a, int32_t b, int32_t c) {
  if (c == 0) return -1;
  const int64_t product = static_cast<int64_t>(a) * b;
  // Round half away from zero: add half the divisor in the result's direction.
  const bool negative = (product < 0) != (c < 0);
  const int64_t magnitude = (product < 0 ? -product : product);
  const int64_t divisor = c < 0 ? -static_cast<int64_t>(c) : c;
  const int64_t q = (magnitude + divisor / 2) / divisor;
  if (q > INT32_MAX + static_cast<int64_t>(negative)) return -1;
  return static_cast<int32_t>(negative ? -q : q);
}

IMG_API int32_t SetRect(Rect *rect, int32_t left, int32_t top, int32_t right, int32_t bottom) {
  if (!rect) return 0;
  *rect = Rect{left, top, right, bottom};
  return 1;
}

}  // extern "C"
