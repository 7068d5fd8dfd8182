// Per-pixel intensity operations: weighted gray conversion and intensity
// detection.
#include "ops_common.h"
#include "passes.h"

namespace {

static constexpr const wchar_t *kSourceFile = L"imgutil/pixelops";

// Gray level of a colour value: (2R + 5G + B + 4) >> 3, or bits 8..15 when
// the value is marked as a gray level.
uint32_t ColorGray(uint32_t color) {
  if (color & COLOR_GRAY_LEVEL) return (color >> 8) & 0xFF;
  const uint32_t r = color & 0xFF, g = (color >> 8) & 0xFF, b = (color >> 16) & 0xFF;
  return (2 * r + 5 * g + b + 4) >> 3;
}

// Colour samples (blue, green, red) of a colour value on a 16-bit or 8-bit scale.
void ColorSamples(uint32_t color, bool wide, uint32_t out[3]) {
  uint32_t r = color & 0xFF, g = (color >> 8) & 0xFF, b = (color >> 16) & 0xFF;
  if (color & COLOR_GRAY_LEVEL) r = g = b = (color >> 8) & 0xFF;
  const uint32_t k = wide ? 257u : 1u;
  out[0] = b * k;
  out[1] = g * k;
  out[2] = r * k;
}

// Converts a colour bitmap without region to gray in place.
int32_t GrayInPlace(BitmapRecord *b, int32_t red, int32_t green, int32_t blue) {
  img::RowPass pass(b, {.layout = ROW_LAYOUT_BGR,
                        .progress = img::kFullProgress,
                        .write = false,
                        .boundsRuns = true,
                        .progressAt = img::ProgressPoint::AfterRow});
  if (pass.status() != RC_SUCCESS) return pass.status();
  const bool wide = pass.wide();
  const int32_t bits = wide ? 16 : 8;
  const uint64_t line = img::StoredRowBytes(b->Width, bits);
  IMG_BUFFER(uint8_t, pixels, line * static_cast<uint64_t>(b->Height));
  // 8-bit gray carries the gray ramp as its palette; 16-bit gray has none.
  img::KernelBuffer<PaletteEntry> ramp;
  if (!wide) ramp = img::KernelBuffer<PaletteEntry>(256, __LINE__, kSourceFile);
  if (!pixels || (!wide && !ramp)) return RC_NO_MEMORY;
  if (ramp) img::GrayRamp(ramp.get(), 8);
  const int32_t status = pass.RunRows([&](auto &row) {
    uint8_t *out = pixels.get() + line * static_cast<uint64_t>(img::StoredRowIndex(b, row.y));
    row.ForEach([&](int32_t x) {
      const auto *p = row.Pixel(x);
      const uint64_t s[3] = {p[0], p[1], p[2]};
      const uint64_t gray = (red * s[2] + green * s[1] + blue * s[0]) / 10000;
      if (wide)
        img::Store16(out + 2 * x, static_cast<uint32_t>(gray));
      else
        out[x] = static_cast<uint8_t>(gray);
    });
  });
  if (status != RC_SUCCESS) return status;
  // The bitmap becomes gray of the samples' width; it keeps its region.
  if (b->Palette) IMG_FREE(b->Palette);
  if (b->AttachedLut) IMG_FREE(b->AttachedLut);
  IMG_FREE(b->Pixels);
  b->Palette = ramp.release();
  b->AttachedLut = nullptr;
  b->AttachedLutLength = 0;
  b->Flags &= ~BITMAP_USE_ATTACHED_LUT;
  b->Pixels = pixels.release();
  b->DataSize = line * static_cast<uint64_t>(b->Height);
  b->BytesPerLine = static_cast<uint32_t>(line);
  b->BitsPerPixel = bits;
  b->ColorOrder = ORDER_GRAY;
  b->ColorsUsed = wide ? 0 : 256;
  b->PaletteFlag = 0;
  b->SignificantLowBit = 0;
  b->SignificantHighBit = -1;
  UpdateBitmapInfo(b);
  return RC_SUCCESS;
}

}  // namespace

extern "C" {

IMG_API int32_t GrayScaleExt(BitmapRecord *bitmap, int32_t red, int32_t green, int32_t blue) {
  constexpr img::EntryRule kRule{.flagsWord = false, .pixels = true, .afterArguments = {.signedData = true}};
  if (const int32_t s = img::CheckEntry(kRule, 0, bitmap)) return s;
  constexpr img::Range kWeight = img::ranges::kGrayWeight;
  if (!kWeight.Contains(red) || !kWeight.Contains(green) || !kWeight.Contains(blue) ||
      red + green + blue > kWeight.max)
    return RC_INVALID_PARAMETER;
  if (const int32_t s = img::CheckAfterArguments(kRule, bitmap)) return s;
  if (bitmap->ColorOrder != ORDER_GRAY && !BitmapHasRegion(bitmap))
    return GrayInPlace(bitmap, red, green, blue);
  // With a region the kind stays: the pixels inside get their gray level in
  // all three colour samples. Gray bitmaps take sum(weights) / 10000 of
  // their sample.
  img::RowPass pass(bitmap, {.layout = ROW_LAYOUT_NATIVE, .progress = img::kFullProgress});
  return pass.RunRows([&](auto &row) {
    using T = std::remove_reference_t<decltype(*row.samples)>;
    const int32_t changed = row.channels == 1 ? 1 : 3;
    row.ForEach([&](int32_t x) {
      T *p = row.Pixel(x);
      uint64_t s[3];
      for (int c = 0; c < 3; ++c) s[c] = p[row.channels == 1 ? 0 : c];
      const uint64_t gray = (red * s[2] + green * s[1] + blue * s[0]) / 10000;
      for (int c = 0; c < changed; ++c) p[c] = static_cast<T>(gray);
    });
  });
}

IMG_API int32_t IntensityDetect(BitmapRecord *bitmap, uint32_t low, uint32_t high, uint32_t inColor,
                                uint32_t outColor, uint32_t channel) {
  constexpr img::EntryRule kRule{.flagsWord = false, .pixels = true, .afterArguments = {.signedData = true}};
  if (const int32_t s = img::CheckEntry(kRule, 0, bitmap)) return s;
  const int32_t full = img::FullScale(bitmap);
  if (full < 0 || channel == 0 || (channel & ~DETECT_CHANNEL_INTENSITY) != 0 || low > high ||
      high > static_cast<uint32_t>(full))
    return RC_INVALID_PARAMETER;
  if (const int32_t s = img::CheckAfterArguments(kRule, bitmap)) return s;
  const bool intensity = channel == DETECT_CHANNEL_INTENSITY;
  const bool select[3] = {(channel & DETECT_CHANNEL_BLUE) != 0, (channel & DETECT_CHANNEL_GREEN) != 0,
                          (channel & DETECT_CHANNEL_RED) != 0};

  // Palette bitmaps without region: the palette entries are the pixels.
  // 8-bit gray has the gray ramp as palette but goes by its levels (rows).
  if (img::KindOf(bitmap) == img::Kind::Palette && !BitmapHasRegion(bitmap) && bitmap->Palette &&
      bitmap->PaletteFlag == 0) {
    const int32_t count = img::PaletteCount(bitmap);
    if (count < 0) return count;
    uint32_t in[3], out[3];
    ColorSamples(inColor, false, in);
    ColorSamples(outColor, false, out);
    for (int32_t i = 0; i < count; ++i) {
      PaletteEntry &e = bitmap->Palette[i];
      uint8_t *s[3] = {&e.Blue, &e.Green, &e.Red};
      if (intensity) {
        const uint32_t v = (2 * e.Red + 5 * e.Green + e.Blue) >> 3;
        const uint32_t *c = (v >= low && v <= high) ? in : out;
        for (int k = 0; k < 3; ++k) *s[k] = static_cast<uint8_t>(c[k]);
      } else {
        for (int k = 0; k < 3; ++k)
          if (select[k]) *s[k] = static_cast<uint8_t>((*s[k] >= low && *s[k] <= high) ? in[k] : out[k]);
      }
    }
    return FinishOperation();
  }

  img::RowPass pass(bitmap, {.layout = ROW_LAYOUT_NATIVE, .progress = img::kFullProgress});
  if (pass.status() != RC_SUCCESS) return pass.status();
  // Gray: the sample is tested; colours become their gray level on the
  // bitmap's scale (12-bit samples arrive multiplied by 16).
  const int32_t shift = bitmap->BitsPerPixel == 12 ? 4 : 0;
  const int32_t bits = img::GraySampleBits(bitmap);
  auto scale = [&](uint32_t g) { return bits == 8 ? g : (g * 257u) >> (16 - bits); };
  const uint32_t grayIn = scale(ColorGray(inColor)) << shift, grayOut = scale(ColorGray(outColor)) << shift;
  uint32_t in[3], out[3];
  ColorSamples(inColor, pass.wide(), in);
  ColorSamples(outColor, pass.wide(), out);
  return pass.RunRows([&](auto &row) {
    using T = std::remove_reference_t<decltype(*row.samples)>;
    if (row.channels == 1) {
      row.ForEach([&](int32_t x) {
        const uint32_t v = static_cast<uint32_t>(row.samples[x]) >> shift;
        row.samples[x] = static_cast<T>((v >= low && v <= high) ? grayIn : grayOut);
      });
      return;
    }
    row.ForEach([&](int32_t x) {
      T *p = row.Pixel(x);
      if (intensity) {
        const uint32_t v = (2u * p[2] + 5u * p[1] + p[0]) >> 3;
        const uint32_t *c = (v >= low && v <= high) ? in : out;
        for (int i = 0; i < 3; ++i) p[i] = static_cast<T>(c[i]);
      } else {
        for (int i = 0; i < 3; ++i) {
          if (!select[i]) continue;
          const uint32_t v = p[i];
          p[i] = static_cast<T>((v >= low && v <= high) ? in[i] : out[i]);
        }
      }
    });
  });
}

}  // extern "C"
