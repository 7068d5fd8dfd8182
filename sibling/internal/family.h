// Internal C++ helpers shared by the family's libraries (header only).
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "imgkernel.h"

namespace img {

// Every source file that allocates defines, before using these macros:
//   static constexpr const wchar_t *kSourceFile = L"Common/Lut_clr";
#define IMG_ALLOC(count, size) ::AllocZeroed((count), (size), __LINE__, kSourceFile)
#define IMG_FREE(ptr) ::FreeMemory((ptr), __LINE__, kSourceFile)

// Owns a block from AllocZeroed; frees it with the allocation's own tag.
template <class T>
class KernelBuffer {
 public:
  KernelBuffer() = default;
  KernelBuffer(std::size_t count, int32_t line, const wchar_t *file) : line_(line), file_(file) {
    ptr_ = static_cast<T *>(::AllocZeroed(count, sizeof(T), line, file));
  }
  KernelBuffer(const KernelBuffer &) = delete;
  KernelBuffer &operator=(const KernelBuffer &) = delete;
  KernelBuffer(KernelBuffer &&o) noexcept
      : ptr_(std::exchange(o.ptr_, nullptr)), line_(o.line_), file_(o.file_) {}
  KernelBuffer &operator=(KernelBuffer &&o) noexcept {
    if (this != &o) {
      reset();
      ptr_ = std::exchange(o.ptr_, nullptr);
      line_ = o.line_;
      file_ = o.file_;
    }
    return *this;
  }
  ~KernelBuffer() { reset(); }

  // Takes ownership of memory allocated elsewhere through AllocZeroed.
  void adopt(T *p, int32_t line, const wchar_t *file) {
    reset();
    ptr_ = p;
    line_ = line;
    file_ = file;
  }
  void reset() {
    if (ptr_) ::FreeMemory(ptr_, line_, file_);
    ptr_ = nullptr;
  }
  T *release() { return std::exchange(ptr_, nullptr); }
  T *get() const { return ptr_; }
  explicit operator bool() const { return ptr_ != nullptr; }
  T &operator[](std::size_t i) const { return ptr_[i]; }

 private:
  T *ptr_ = nullptr;
  int32_t line_ = 0;
  const wchar_t *file_ = nullptr;
};

// KernelBuffer<T> name(count) tagged with the current line and source file.
#define IMG_BUFFER(T, name, count) ::img::KernelBuffer<T> name((count), __LINE__, kSourceFile)

// Restores the previous kernel settings pair on scope exit after setting (0, 0).
class PlainKernelSettings {
 public:
  PlainKernelSettings() { ::SwapKernelSettings(0, 0, &first_, &second_); }
  ~PlainKernelSettings() { ::SwapKernelSettings(first_, second_, nullptr, nullptr); }
  PlainKernelSettings(const PlainKernelSettings &) = delete;
  PlainKernelSettings &operator=(const PlainKernelSettings &) = delete;

 private:
  int32_t first_ = 0;
  int32_t second_ = 0;
};

// Reports progress through the thread's status callback.
class Progress {
 public:
  Progress() { callback_ = ::GetStatusCallback(&user_); }
  bool active() const { return callback_ != nullptr; }
  // Returns 1 to go on, else the callback's answer.
  int32_t report(int32_t percent) const { return callback_ ? callback_(percent, user_) : RC_SUCCESS; }
  // Reports only when the percentage differs from the last one reported.
  int32_t step(int32_t percent) {
    if (!callback_ || percent == last_) return RC_SUCCESS;
    last_ = percent;
    return callback_(percent, user_);
  }

 private:
  StatusCallback callback_ = nullptr;
  void *user_ = nullptr;
  int32_t last_ = -1;
};

// A double truncated toward zero into 32 bits, as the formulas' casts do,
// but defined for every input: NaN gives 0 and values beyond the range give
// its ends (a plain cast of those is undefined).
inline int32_t TruncateToInt32(double v) {
  if (!(v == v)) return 0;
  if (v >= 2147483647.0) return INT32_MAX;
  if (v <= -2147483648.0) return INT32_MIN;
  return static_cast<int32_t>(v);
}

inline bool IsPaletteBitmap(const BitmapRecord *b) { return b->BitsPerPixel < 9; }
inline bool ValidRecordSize(uint32_t s) { return s == BITMAP_RECORD_SIZE || s == BITMAP_RECORD_SIZE_OLD; }

// The palette entries a palette path of a bitmap with BitsPerPixel below 9
// reads and writes: ColorsUsed, when it lies within the palette's capacity
// (1 .. 2^BitsPerPixel entries). A count outside it (or a depth below 1)
// cannot be read and gives RC_NO_BITMAP, before anything is allocated.
inline int32_t PaletteCount(const BitmapRecord *b) {
  if (b->BitsPerPixel < 1 || b->BitsPerPixel > 8) return RC_NO_BITMAP;
  const int32_t count = b->ColorsUsed;
  return count >= 1 && count <= (1 << b->BitsPerPixel) ? count : RC_NO_BITMAP;
}

}  // namespace img
