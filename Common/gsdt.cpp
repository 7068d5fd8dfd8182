// Gray to duotone: every gray level takes a colour from a table, built as a
// ramp from one colour to white or passed in by the caller. The applier here
// serves the multitone export too: 1-bit bitmaps get a two-entry palette,
// palette bitmaps a tinted palette, and row bitmaps have their gray pixels
// (blue = green = red) replaced while coloured pixels stay as they are.
#include <cstddef>

#include "frame.h"
#include "tone.h"

namespace img::tone {

static constexpr const wchar_t *kSourceFile = L"Common/gsdt";

PaletteEntry ColorEntry(uint32_t color) {
  if (color & COLOR_GRAY_LEVEL) {
    const auto level = static_cast<uint8_t>((color >> 8) & 0xFFu);
    return PaletteEntry{level, level, level, 0};
  }
  return PaletteEntry{static_cast<uint8_t>((color >> 16) & 0xFFu), static_cast<uint8_t>((color >> 8) & 0xFFu),
                      static_cast<uint8_t>(color & 0xFFu), 0};
}

void BuildRamp(uint32_t color, int32_t count, PaletteEntry *entries) {
  if (count < 1) return;
  const PaletteEntry c = ColorEntry(color);
  const uint32_t x[3] = {c.Blue * 1000u, c.Green * 1000u, c.Red * 1000u};
  // One entry has no room for a ramp: it holds the colour.
  const uint32_t span = count > 1 ? static_cast<uint32_t>(count - 1) : 1u;
  uint32_t step[3], acc[3];
  for (int k = 0; k < 3; ++k) {
    step[k] = (1000u - x[k] / 255u) * 255u / span;
    acc[k] = x[k];
  }
  for (int32_t i = 0; i < count; ++i) {
    entries[i].Blue = static_cast<uint8_t>((acc[0] + 500u) / 1000u);
    entries[i].Green = static_cast<uint8_t>((acc[1] + 500u) / 1000u);
    entries[i].Red = static_cast<uint8_t>((acc[2] + 500u) / 1000u);
    entries[i].Reserved = 0;
    for (int k = 0; k < 3; ++k) acc[k] += step[k];
  }
}

void ScaleTableByLevel(PaletteEntry *table) {
  for (uint32_t i = 0; i < kRowTableSize; ++i) {
    table[i].Blue = static_cast<uint8_t>((table[i].Blue * i + 128u) / 255u);
    table[i].Green = static_cast<uint8_t>((table[i].Green * i + 128u) / 255u);
    table[i].Red = static_cast<uint8_t>((table[i].Red * i + 128u) / 255u);
  }
}

namespace {

template <int32_t kChannels>
void Tone8(uint8_t *row, int32_t channels, int32_t left, int32_t right, const PaletteEntry *table) {
  const std::ptrdiff_t n = kChannels ? kChannels : channels;
  uint8_t *p = row + left * n;
  for (int32_t x = left; x < right; ++x, p += n) {
    const uint8_t b = p[0];
    if (b != p[1] || b != p[2]) continue;
    const PaletteEntry &e = table[b];
    p[0] = e.Blue;
    p[1] = e.Green;
    p[2] = e.Red;
  }
}

template <int32_t kChannels>
void Tone16(uint16_t *row, int32_t channels, int32_t left, int32_t right, const PaletteEntry *table) {
  const std::ptrdiff_t n = kChannels ? kChannels : channels;
  uint16_t *p = row + left * n;
  for (int32_t x = left; x < right; ++x, p += n) {
    const uint16_t v = p[0];
    if (v != p[1] || v != p[2]) continue;
    const PaletteEntry &e = table[v >> 8];
    const uint32_t low = v & 0xFFu;
    p[0] = static_cast<uint16_t>((uint32_t{e.Blue} << 8) | low);
    p[1] = static_cast<uint16_t>((uint32_t{e.Green} << 8) | low);
    p[2] = static_cast<uint16_t>((uint32_t{e.Red} << 8) | low);
  }
}

}  // namespace

void ToneRow8(uint8_t *row, int32_t channels, int32_t left, int32_t right, const PaletteEntry *table) {
  if (channels == 3) return Tone8<3>(row, channels, left, right, table);
  if (channels == 4) return Tone8<4>(row, channels, left, right, table);
  Tone8<0>(row, channels, left, right, table);
}

void ToneRow16(uint16_t *row, int32_t channels, int32_t left, int32_t right, const PaletteEntry *table) {
  if (channels == 3) return Tone16<3>(row, channels, left, right, table);
  if (channels == 4) return Tone16<4>(row, channels, left, right, table);
  Tone16<0>(row, channels, left, right, table);
}

namespace {

// Two palette entries: the dark one at the index that is dark now. A gray
// bitmap (index 0 black) gets black then the colour, any other the colour
// then black; a table's two entries are used as they stand or swapped. The
// status is SetPalette's answer, which is 1 once the palette was counted.
int32_t ApplyOneBit(BitmapRecord *bitmap, const PaletteEntry *table, uint32_t color) {
  const PaletteEntry black{0, 0, 0, 0};
  const PaletteEntry tint = ColorEntry(color);
  PaletteEntry entries[256] = {};
  if (IsGrayBitmap(bitmap)) {
    entries[0] = table ? table[0] : black;
    entries[1] = table ? table[1] : tint;
  } else {
    entries[0] = table ? table[1] : tint;
    entries[1] = table ? table[0] : black;
  }
  const int32_t status = SetPalette(bitmap, 0, bitmap->ColorsUsed, entries);
  FinishOperation();
  return status;
}

// Palette bitmaps of 2 to 8 bits, 8-bit gray included: the table is indexed
// by palette index. `count` is the checked palette count (1 .. 2^bits).
int32_t ApplyPalette(BitmapRecord *bitmap, const PaletteEntry *table, uint32_t color, uint32_t mode,
                     int32_t count) {
  const auto entryCount = static_cast<std::size_t>(count);
  KernelBuffer<PaletteEntry> ramp;
  if (!table) {
    ramp = KernelBuffer<PaletteEntry>(entryCount, __LINE__, kSourceFile);
    if (!ramp) return RC_NO_MEMORY;
    BuildRamp(color, count, ramp.get());
    table = ramp.get();
  }
  IMG_BUFFER(PaletteEntry, entries, entryCount);
  if (!entries) return RC_NO_MEMORY;
  if (mode == 0) {
    if (GetPalette(bitmap, 0, count, entries.get()) == 0) return RC_NO_BITMAP;
    for (std::size_t i = 0; i < entryCount; ++i) {
      PaletteEntry &e = entries[i];
      e.Blue = static_cast<uint8_t>((e.Blue * table[i].Blue + 128u) / 255u);
      e.Green = static_cast<uint8_t>((e.Green * table[i].Green + 128u) / 255u);
      e.Red = static_cast<uint8_t>((e.Red * table[i].Red + 128u) / 255u);
      e.Reserved = 0;
    }
  } else {
    for (std::size_t i = 0; i < entryCount; ++i)
      entries[i] = PaletteEntry{table[i].Blue, table[i].Green, table[i].Red, 0};
  }
  // A palette that cannot be written gives 0, not an error code (kept as the
  // exports have always answered). With the count checked before the call,
  // SetPalette has nothing to refuse on a bitmap that holds a palette.
  if (SetPalette(bitmap, 0, count, entries.get()) == 0) return 0;
  SettleGrayPalette(bitmap);  // 8-bit gray with a tinted palette becomes a palette bitmap
  return FinishOperation();
}

// Row bitmaps: 12- and 16-bit ones are widened to 48 bits first (and stay
// so), then every gray pixel in the region goes through the table; nothing
// is reported.
int32_t ApplyRows(BitmapRecord *bitmap, PaletteEntry *table, uint32_t color, uint32_t mode) {
  if (bitmap->BitsPerPixel == 12 || bitmap->BitsPerPixel == 16) {
    const PlainKernelSettings plain;
    const int32_t status =
        ConvertBitmapFormat(bitmap, bitmap, BITMAP_RECORD_SIZE, 48, ORDER_BGR_COLOR, nullptr, 0, 0);
    if (status != RC_SUCCESS) return status;
  }
  RowPass pass(bitmap, RowSetup{});
  if (pass.status() != RC_SUCCESS) return pass.status();
  if (pass.channels() < 3) return RC_UNSUPPORTED_BITMAP;  // gray rows are widened above
  KernelBuffer<PaletteEntry> ramp;
  if (!table) {
    ramp = KernelBuffer<PaletteEntry>(kRowTableSize, __LINE__, kSourceFile);
    if (!ramp) return RC_NO_MEMORY;
    BuildRamp(color, kRowTableSize, ramp.get());
    table = ramp.get();
  }
  if (mode == 0) ScaleTableByLevel(table);  // a caller's table too
  return pass.RunRows([&](auto &row) {
    row.ForEachRun([&](int32_t left, int32_t right) {
      if constexpr (sizeof(*row.samples) == 2)
        ToneRow16(row.samples, row.channels, left, right, table);
      else
        ToneRow8(row.samples, row.channels, left, right, table);
    });
  });
}

}  // namespace

int32_t ApplyToneTable(BitmapRecord *bitmap, PaletteEntry *table, uint32_t color, uint32_t mode,
                       [[maybe_unused]] int32_t progressStart, [[maybe_unused]] int32_t progressEnd) {
  if (!ranges::kToneMode.Contains(mode)) return RC_INVALID_PARAMETER;
  // The entry checks let a null bitmap through; this is where it is first read.
  if (!bitmap) return RC_NO_BITMAP;
  if (bitmap->BitsPerPixel < 9) {
    // The palette is counted before anything is allocated or read: a
    // ColorsUsed outside 1 .. 2^bits, or no palette at all, cannot be read
    // (-2). Neither the caller's table nor the palette is read beyond it.
    const int32_t count = PaletteCount(bitmap);
    if (count < 0) return count;
    if (!GetPaletteRaw(bitmap)) return RC_NO_BITMAP;
    if (bitmap->BitsPerPixel == 1) return ApplyOneBit(bitmap, table, color);
    return ApplyPalette(bitmap, table, color, mode, count);
  }
  return ApplyRows(bitmap, table, color, mode);
}

}  // namespace img::tone

extern "C" {

IMG_API int32_t Q_GrayScaleToDuotone(BitmapRecord *bitmap, PaletteEntry *table, uint32_t color,
                                     uint32_t mode) {
  if (const int32_t status = img::CheckEntry(img::tone::kEntry, 0, bitmap)) return status;
  return img::tone::ApplyToneTable(bitmap, table, color, mode, 0, 100);
}

}  // extern "C"
