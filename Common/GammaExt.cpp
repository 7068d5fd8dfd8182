// Extended gamma correction: per channel (through Q_GammaCorrectBitmap) or
// on the luma of an integer YUV form, so that hues stay as they were.
#include <cmath>

#include "converter_guard.h"
#include "curves.h"
#include "family.h"
#include "imgcolor.h"

namespace {

static constexpr const wchar_t *kSourceFile = L"Common/GammaExt";

template <class Sample>
void CorrectRow(Sample *row, int32_t channels, int32_t left, int32_t right, const uint16_t *table,
                int32_t max) {
  for (int32_t x = left; x < right; ++x) {
    Sample *p = row + static_cast<int64_t>(x) * channels;
    const int32_t b = p[0];
    const int32_t g = channels >= 3 ? p[1] : b;
    const int32_t r = channels >= 3 ? p[2] : b;
    img::YuvPixel yuv = img::LumaForward(r, g, b, max);
    yuv.y = sizeof(Sample) == 1 ? (table[yuv.y] & 0xFF) : table[yuv.y];
    int32_t nr, ng, nb;
    img::LumaBack(yuv, max, &nr, &ng, &nb);
    if (channels >= 3) {
      p[0] = static_cast<Sample>(nb);
      p[1] = static_cast<Sample>(ng);
      p[2] = static_cast<Sample>(nr);
    } else {
      p[0] = static_cast<Sample>((ng * 5 + nr * 2 + nb) >> 3);
    }
  }
}

}  // namespace

extern "C" IMG_API int32_t Q_GammaCorrectBitmapExt(BitmapRecord *bitmap, uint32_t gamma, uint32_t space) {
  if (bitmap && !img::ValidRecordSize(bitmap->StructSize)) return RC_INVALID_STRUCT_SIZE;
  if (bitmap && bitmap->ColorOrder == ORDER_GRAY && bitmap->BitsPerPixel == 32)
    return RC_GRAY32_NOT_SUPPORTED;
  if (!bitmap) return RC_INVALID_PARAMETER;  // deliberately not RC_NO_BITMAP
  if (!img::ValidRecordSize(bitmap->StructSize)) return RC_INVALID_STRUCT_SIZE;
  if (gamma == 0 || (space != GAMMA_RGB && space != GAMMA_YUV)) return RC_INVALID_PARAMETER;

  // Per channel: the forwarded gamma's own status is not passed on; the
  // call reports success whatever it returned (kept as it stands).
  if (space == GAMMA_RGB || (bitmap->Flags & BITMAP_SIGNED)) {
    Q_GammaCorrectBitmap(bitmap, gamma, 0);
    return RC_SUCCESS;
  }

  img::ConverterGuard conv;
  int32_t status = CreateRowConverter(bitmap, conv.place(), ROW_LAYOUT_NATIVE);
  if (status != RC_SUCCESS) return status;
  const int32_t depth = RowBitsPerChannel(conv.get());
  const int32_t channels = RowChannelCount(conv.get());
  img::KernelBuffer<uint8_t> row;
  row.adopt(static_cast<uint8_t *>(AllocRowBuffer(conv.get())), __LINE__, L"imgutil/rows");
  if (!row) return RC_NO_MEMORY;

  const int32_t m = 1 << depth;
  IMG_BUFFER(uint16_t, table, static_cast<size_t>(m));
  if (!table) return RC_NO_MEMORY;
  img::BuildGammaTable(gamma, static_cast<uint32_t>(m), table.get());
  const int32_t max = m - 1;
  return img::WalkBounds(bitmap, conv.get(), row.get(), [&](void *samples, int32_t left, int32_t right) {
    if (depth == 16)
      CorrectRow(static_cast<uint16_t *>(samples), channels, left, right, table.get(), max);
    else
      CorrectRow(static_cast<uint8_t *>(samples), channels, left, right, table.get(), max);
  });
}
