// Automatic binarisation: a global threshold between the two peaks of the
// intensity histogram, painted by Q_IntensityDetectBitmap.
#include "autoseg.h"

#include "frame.h"

namespace {

static constexpr const wchar_t *kSourceFile = L"Common/autoseg";

constexpr int32_t kFirstLevel = 5;
constexpr int32_t kLastLevel = 250;

int32_t Worker(BitmapRecord *bitmap, int32_t start, int32_t end) {
  img::ConverterGuard conv;
  int32_t status = CreateRowConverter(bitmap, conv.place(), ROW_LAYOUT_NATIVE);
  if (status != RC_SUCCESS) return status;
  const int32_t shift = RowBitsPerChannel(conv.get()) == 8 ? 0 : bitmap->BitsPerPixel == 12 ? 4 : 8;
  const uint32_t levels = 256u << shift;

  IMG_BUFFER(uint32_t, histogram, 256);
  if (!histogram) return RC_NO_MEMORY;
  status = ComputeHistogram(bitmap, histogram.get(), 0, start, start + (end * 20) / 100);
  if (status != RC_SUCCESS) return status;

  const int32_t threshold = img::AutoBinaryThreshold(histogram.get());
  status = Q_IntensityDetectBitmap(bitmap, static_cast<uint32_t>(threshold) << shift, levels - 1, 0xFFFFFFu,
                                   0, 0x111u, 0);
  // The histogram step succeeded: the bitmap's information is brought up to
  // date whatever the detection returned.
  UpdateBitmapInfo(bitmap);
  return status;
}

}  // namespace

namespace img {

int32_t AutoBinaryThreshold(const uint32_t *h) {
  int32_t first = kFirstLevel;
  for (int32_t v = kFirstLevel + 1; v <= kLastLevel; ++v)
    if (h[v] > h[first]) first = v;
  // Distance-weighted height, in unsigned 32-bit arithmetic that may wrap.
  auto score = [&](int32_t v) {
    const uint32_t d = static_cast<uint32_t>(v - first);
    return d * d * h[v];
  };
  int32_t second = kFirstLevel;
  uint32_t best = score(kFirstLevel);
  for (int32_t v = kFirstLevel + 1; v <= kLastLevel; ++v) {
    const uint32_t s = score(v);
    if (s > best) {
      best = s;
      second = v;
    }
  }
  const int32_t low = first < second ? first : second;
  const int32_t high = first < second ? second : first;
  // The emptiest level strictly between the peaks; the lower peak stands
  // until a level with a strictly smaller count comes.
  int32_t threshold = low;
  for (int32_t v = low + 1; v < high; ++v)
    if (h[v] < h[threshold]) threshold = v;
  return threshold;
}

}  // namespace img

extern "C" IMG_API int32_t Q_AutoBinaryBitmap(BitmapRecord *bitmap, uint32_t flags) {
  // A null bitmap is read first by the row converter.
  constexpr img::EntryRule kEntry{.nullBitmap = img::NullBitmap::AfterFrame, .signedData = true};
  if (const int32_t status = img::CheckEntry(kEntry, flags, bitmap)) return status;
  return Worker(bitmap, 0, 100);
}
