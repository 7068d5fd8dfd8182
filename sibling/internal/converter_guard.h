// Frees an imgutil row converter on every path (header only).
#pragma once

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
