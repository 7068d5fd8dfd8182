// libFuzzer target over the tool's image readers (tools/image_io.cpp): PNG,
// JPEG and, when the build has them, TIFF and WebP from memory (with their
// metadata), under a pixel limit of 4 megapixels. A read either fails and
// leaves the bitmap and its metadata empty, or gives a consistent bitmap
// within the limit; nothing tracked stays live.
//
// With IMG_FUZZ_WRITE_SEEDS=DIR set, the program writes small seeds into DIR
// and exits: gray, colour and 16-bit images with an ICC profile and EXIF in
// every format this build writes (TIFF and WebP included when present).
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "image_io.h"

namespace {

constexpr uint64_t kMaxPixels = uint64_t{1} << 22;

[[noreturn]] void Violation(const char *what) {
  std::fprintf(stderr, "image_fuzz: %s\n", what);
  std::abort();
}

void WriteSeeds(const std::string &dir) {
  using imgtool::FileFormat;
  imgtool::Metadata meta;
  meta.icc.assign(400, 7);
  const uint8_t header[] = {0, 0, 1, 0x90};
  std::memcpy(meta.icc.data(), header, 4);
  std::memcpy(&meta.icc[12], "mntrRGB XYZ ", 12);
  std::memcpy(&meta.icc[36], "acsp", 4);
  meta.exif = {'M', 'M', 0, 42, 0, 0, 0, 8, 0, 1, 0x01, 0x12, 0, 3, 0, 0, 0, 1, 0, 6, 0, 0, 0, 0, 0, 0};
  meta.text = {{"Comment", "seed", false}};
  const struct {
    const char *name;
    int32_t bits, order;
  } kinds[] = {{"gray8", 8, ORDER_GRAY},
               {"gray16", 16, ORDER_GRAY},
               {"rgb24", 24, ORDER_BGR},
               {"rgba32", 32, ORDER_BGR},
               {"rgb48", 48, ORDER_BGR}};
  for (const auto &k : kinds) {
    imgtool::Bitmap b;
    if (AllocateBitmap(b.get(), BITMAP_RECORD_SIZE, MEMORY_CONVENTIONAL, 5, 3, k.bits, k.order, nullptr,
                       ORIENT_TOP_FIRST, nullptr, 0) != RC_SUCCESS)
      Violation("cannot allocate a seed");
    for (uint64_t i = 0; i < b->DataSize; ++i) b->Pixels[i] = static_cast<uint8_t>(i * 37 + 11);
    for (FileFormat f : {FileFormat::Png, FileFormat::Jpeg, FileFormat::Tiff, FileFormat::WebP}) {
      if (!imgtool::FormatAvailable(f)) continue;
      const std::string path = dir + "/" + k.name + "." + imgtool::FormatExtension(f);
      FILE *fp = std::fopen(path.c_str(), "wb");
      std::string error;
      if (!fp || !imgtool::WriteImage(fp, f, b.get(), error, imgtool::WriteSettings{0, &meta}))
        std::fprintf(stderr, "image_fuzz: seed %s: %s\n", path.c_str(), error.c_str());
      if (fp) std::fclose(fp);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  if (const char *dir = std::getenv("IMG_FUZZ_WRITE_SEEDS")) {
    WriteSeeds(dir);
    std::exit(0);
  }
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
    } else if (bitmap.allocated() || error.empty() || !bitmap.metadata().empty()) {
      Violation("a failed read left a bitmap or metadata, or gave no reason");
    }
  }
  GetAllocationStats(&after, &bytes);
  if (after != before) Violation("allocations left live");
  return 0;
}
