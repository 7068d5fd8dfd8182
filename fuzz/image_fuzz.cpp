// libFuzzer target over the tool's image readers (tools/image_io.cpp): PNG
// and JPEG from memory, under a pixel limit of 4 megapixels. A read either
// fails and leaves the bitmap empty, or gives a consistent bitmap within the
// limit; nothing tracked stays live.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "image_io.h"

namespace {

constexpr uint64_t kMaxPixels = uint64_t{1} << 22;

[[noreturn]] void Violation(const char *what) {
  std::fprintf(stderr, "image_fuzz: %s\n", what);
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  TrackAllocations(1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  uint64_t before = 0, after = 0, bytes = 0;
  GetAllocationStats(&before, &bytes);
  {
    imgtool::Bitmap bitmap;
    std::string error;
    if (imgtool::ReadImageMemory(data, size, bitmap, error, kMaxPixels)) {
      const BitmapRecord &b = *bitmap.get();
      if (!bitmap.allocated() || b.Width < 1 || b.Height < 1) Violation("a read gave no bitmap");
      if (static_cast<uint64_t>(b.Width) * static_cast<uint64_t>(b.Height) > kMaxPixels)
        Violation("a read went past the pixel limit");
      if (b.DataSize != static_cast<uint64_t>(b.Height) * b.BytesPerLine) Violation("inconsistent record");
    } else if (bitmap.allocated() || error.empty()) {
      Violation("a failed read left a bitmap or gave no reason");
    }
  }
  GetAllocationStats(&after, &bytes);
  if (after != before) Violation("allocations left live");
  return 0;
}
