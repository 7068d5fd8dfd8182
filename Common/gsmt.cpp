// Gray to multitone: the tables of up to four tones (ramps from colours, or
// the caller's gradients) are multiplied together, starting from white, and
// the product goes through the duotone applier (gsdt.cpp).
#include "frame.h"
#include "tone.h"

namespace img::tone {

static constexpr const wchar_t *kSourceFile = L"Common/gsmt";

void MultiplyTables(PaletteEntry *first, const PaletteEntry *second) {
  for (int32_t i = 0; i < kRowTableSize; ++i) {
    first[i].Blue = static_cast<uint8_t>((first[i].Blue * uint32_t{second[i].Blue} + 128u) / 255u);
    first[i].Green = static_cast<uint8_t>((first[i].Green * uint32_t{second[i].Green} + 128u) / 255u);
    first[i].Red = static_cast<uint8_t>((first[i].Red * uint32_t{second[i].Red} + 128u) / 255u);
  }
}

namespace {

constexpr uint32_t kWhite = 0xFFFFFFu;

int32_t BuildAndApply(BitmapRecord *bitmap, uint32_t tones, uint32_t type, const uint32_t *colors,
                      PaletteEntry *const *gradients, uint32_t mode, int32_t progressStart,
                      int32_t progressEnd) {
  if (!ranges::kMultitoneType.Contains(type) || !ranges::kMultitoneTones.Contains(tones) ||
      (type == 0 && !colors) || !ranges::kToneMode.Contains(mode))
    return RC_INVALID_PARAMETER;
  if (!bitmap) return RC_NO_BITMAP;  // first read of the bitmap
  if (bitmap->BitsPerPixel == 1) {
    if (!colors) return RC_INVALID_PARAMETER;
    PaletteEntry pair[2];
    for (int k = 0; k < 2; ++k) {
      const uint32_t c = colors[k];
      pair[k] = PaletteEntry{static_cast<uint8_t>((c >> 16) & 0xFFu), static_cast<uint8_t>((c >> 8) & 0xFFu),
                             static_cast<uint8_t>(c & 0xFFu), 0};
    }
    return ApplyToneTable(bitmap, pair, 0, 0, progressStart, progressEnd);
  }
  IMG_BUFFER(PaletteEntry, product, kRowTableSize);
  if (!product) return RC_NO_MEMORY;
  IMG_BUFFER(PaletteEntry, tone, kRowTableSize);
  if (!tone) return RC_NO_MEMORY;
  BuildRamp(kWhite, kRowTableSize, product.get());
  if (type == 0) {
    for (uint32_t k = 0; k <= tones; ++k) {
      BuildRamp(colors[k], kRowTableSize, tone.get());
      MultiplyTables(product.get(), tone.get());
    }
  } else {
    if (!gradients) return RC_INVALID_PARAMETER;
    for (uint32_t k = 0; k <= tones; ++k) {
      // A missing gradient is refused rather than read.
      if (!gradients[k]) return RC_INVALID_PARAMETER;
      MultiplyTables(product.get(), gradients[k]);
    }
  }
  // Four tones always apply the product as it stands.
  return ApplyToneTable(bitmap, product.get(), 0, tones == 3 ? 1u : mode, progressStart, progressEnd);
}

}  // namespace

}  // namespace img::tone

extern "C" {

IMG_API int32_t Q_GrayScaleToMultitone(BitmapRecord *bitmap, uint32_t tones, uint32_t type,
                                       const uint32_t *colors, PaletteEntry *const *gradients,
                                       uint32_t mode) {
  if (const int32_t status = img::CheckEntry(img::tone::kEntry, 0, bitmap)) return status;
  return img::tone::BuildAndApply(bitmap, tones, type, colors, gradients, mode, 0, 100);
}

}  // extern "C"
