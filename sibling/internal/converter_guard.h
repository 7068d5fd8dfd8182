// Frees an imgutil row converter on every path (header only).
#pragma once

#include <type_traits>

#include "imgutil.h"

namespace img {

class ConverterGuard {
 public:
  ConverterGuard() = default;
  ~ConverterGuard() {
    if (handle_) FreeRowConverter(handle_);
  }
  ConverterGuard(const ConverterGuard &) = delete;
  ConverterGuard &operator=(const ConverterGuard &) = delete;
  RowConverter *place() { return &handle_; }
  RowConverter get() const { return handle_; }

 private:
  RowConverter handle_ = nullptr;
};

}  // namespace img

namespace img {

// The common row pass of the operations: begins the walk (writing back only
// the region when the bitmap has one), then reads each row of the region's
// bounds, calls step(row, left, right) and writes the row back. A step may
// return a status, which ends the pass when it is not 1. After a complete
// pass the bitmap's information is updated. Returns the first status other
// than 1.
template <class Step>
int32_t WalkBounds(BitmapRecord *bitmap, RowConverter converter, void *row, Step &&step) {
  int32_t status = BitmapHasRegion(bitmap) ? BeginRegion(converter) : BeginWholeBitmap(converter);
  if (status != RC_SUCCESS) return status;
  Rect bounds{};
  GetRegionBounds(bitmap, nullptr, &bounds);
  for (int32_t y = bounds.Top; y < bounds.Bottom; ++y) {
    if ((status = ReadRow(converter, row, y, nullptr, nullptr)) != RC_SUCCESS) return status;
    if constexpr (std::is_same_v<decltype(step(row, bounds.Left, bounds.Right)), int32_t>) {
      if ((status = step(row, bounds.Left, bounds.Right)) != RC_SUCCESS) return status;
    } else {
      step(row, bounds.Left, bounds.Right);
    }
    if ((status = WriteRow(converter, row, y, nullptr, nullptr)) != RC_SUCCESS) return status;
  }
  UpdateBitmapInfo(bitmap);
  return RC_SUCCESS;
}

}  // namespace img
