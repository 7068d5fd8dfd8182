// Extended gamma correction: per channel (through Q_GammaCorrectBitmap) or
// on the luma of an integer YUV form, so that hues stay as they were.
#include <cmath>

#include "curves.h"
#include "frame.h"

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
  // No flags word; a null bitmap is -13, deliberately not RC_NO_BITMAP.
  constexpr img::EntryRule kEntry{
      .flagsWord = false, .nullBitmap = img::NullBitmap::AfterFrame, .nullStatus = RC_INVALID_PARAMETER};
  if (const int32_t status = img::CheckEntry(kEntry, 0, bitmap)) return status;
  if (!img::ranges::kGamma.Contains(gamma) || !img::ranges::kGammaSpace.Contains(space))
    return RC_INVALID_PARAMETER;

  // Per channel: the forwarded gamma's own status is not passed on; the
  // call reports success whatever it returned (kept as it stands).
  if (space == GAMMA_RGB || (bitmap->Flags & BITMAP_SIGNED)) {
    Q_GammaCorrectBitmap(bitmap, gamma, 0);
    return RC_SUCCESS;
  }

  // The luma of every pixel in the region through the curve; nothing is
  // reported.
  img::RowPass pass(bitmap, img::RowSetup{});
  if (pass.status() != RC_SUCCESS) return pass.status();
  const int32_t m = 1 << pass.bits();
  IMG_BUFFER(uint16_t, table, static_cast<size_t>(m));
  if (!table) return RC_NO_MEMORY;
  img::BuildGammaTable(gamma, static_cast<uint32_t>(m), table.get());
  return pass.RunRows([&](auto &row) {
    row.ForEachRun([&](int32_t left, int32_t right) {
      CorrectRow(row.samples, row.channels, left, right, table.get(), m - 1);
    });
  });
}
