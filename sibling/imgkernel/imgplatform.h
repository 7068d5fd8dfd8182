/*
 * imgplatform: the platform helpers of imgkernel (memory copy and fill, a
 * rounded multiply-divide, a rectangle setter). They are exported by imgkernel
 * beside its bitmap services but kept out of imgkernel.h and imgcolor.h, so
 * that programs including those see only the family's own API.
 *
 * Compiles as C99 and as C++.
 */
#ifndef IMGPLATFORM_H
#define IMGPLATFORM_H

#include "imgkernel.h"

IMG_BEGIN_DECLS

IMG_API void CopyMemory(void *destination, const void *source, size_t bytes);
IMG_API void FillMemory(void *destination, int32_t value, size_t bytes);
/* a * b / c with a 64-bit intermediate, rounded half away from zero;
 * -1 when c is 0 or the result does not fit. */
IMG_API int32_t MulDiv(int32_t a, int32_t b, int32_t c);
IMG_API int32_t SetRect(Rect *rect, int32_t left, int32_t top, int32_t right, int32_t bottom);

IMG_END_DECLS

#endif
