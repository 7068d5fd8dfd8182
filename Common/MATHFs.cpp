// Mathematical curves on samples (square, logarithm, root, sine, cosine) and
// the colour count.
//
// The curve is tabulated once over all sample values of the row converter's
// depth and then applied row by row to every sample of the pixels in the
// region's bounds; the converter writes back only what lies in the region.
#include "MATHFs.h"

#include <cmath>

#include "frame.h"

namespace img {

static constexpr const wchar_t *kSourceFile = L"Common/MATHFs";

void BuildMathFunctionLut(int32_t *table, int32_t depth, uint32_t function, uint32_t factor) {
  const bool wide = depth == 16;
  const uint32_t count = wide ? 65536u : 256u;
  const double m = static_cast<double>(count);
  const double top = m - 1.0;
  const double f = static_cast<double>(factor);
  double k = 0.0;
  switch (function) {
    case MATHFUNC_SQUARE:
      k = wide ? f / 2560000.0 : f / 10000.0;
      break;
    case MATHFUNC_LOG:
      k = wide ? f * 128.0 / 10.0 : f / 10.0;
      break;
    case MATHFUNC_ROOT:
      k = wide ? f : f / 16.0;
      break;
    default:
      k = wide ? f / 25600.0 : f / 100.0;
      break;  // sine, cosine
  }
  for (uint32_t i = 0; i < count; ++i) {
    const double x = static_cast<double>(i);
    double v = 0.0;
    switch (function) {
      case MATHFUNC_SQUARE:
        v = x * x * k;
        break;
      case MATHFUNC_LOG:
        v = std::log(x) * k;
        break;
      case MATHFUNC_ROOT:
        v = std::sqrt(x) * k;
        break;
      case MATHFUNC_SINE:
        v = (std::sin(x * k * 3.1415926535 / 180.0) + 1.0) * m / 2.0;
        break;
      default:
        v = (std::cos(x * k * 3.1415926535 / 180.0) + 1.0) * m / 2.0;
        break;
    }
    if (v > top) v = top;
    if (function == MATHFUNC_LOG && i == 0) {
      // ln(0) is minus infinity, which the upper limit does not catch.
      table[i] = 0;
      continue;
    }
    const int32_t rounded = static_cast<int32_t>(std::nearbyint(v));
    table[i] = function == MATHFUNC_SQUARE ? (rounded & 0xFFFF) : rounded;
  }
}

namespace {

// Every sample of the pixels in the region, a fourth one included, through
// the curve of the row depth, with progress 1..100.
int32_t RunMathFunction(BitmapRecord *bitmap, uint32_t function, uint32_t factor) {
  RowPass pass(bitmap, RowSetup{.progress = {1, 100, true}});
  if (pass.status() != RC_SUCCESS) return pass.status();
  const int32_t depth = pass.bits();
  const uint32_t count = depth == 16 ? 65536u : 256u;
  IMG_BUFFER(int32_t, table, count);
  if (!table) return RC_NO_MEMORY;
  BuildMathFunctionLut(table.get(), depth, function, factor);
  // Index by the stored pattern; a signed 16-bit sample read as signed plus
  // 65536 when negative is that same pattern.
  if (bitmap->Flags & BITMAP_SIGNED) ::ShiftLutForSigned(table.get(), count);
  // The samples take the low byte (8-bit rows) or the low 16 bits of their
  // entry: narrowed once, the rows run through imgutil's sample maps.
  KernelBuffer<uint16_t> words;
  if (depth == 16) {
    words = KernelBuffer<uint16_t>(MAP_WORD_TABLE_ENTRIES, __LINE__, kSourceFile);
    if (!words) return RC_NO_MEMORY;
  }
  uint8_t bytes[256];
  for (uint32_t i = 0; i < count; ++i) {
    if (depth == 16)
      words[i] = static_cast<uint16_t>(table[i]);
    else
      bytes[i] = static_cast<uint8_t>(table[i]);
  }
  return pass.RunRows([&](auto &row) {
    row.ForEachRun([&](int32_t start, int32_t end) {
      const std::size_t first = static_cast<std::size_t>(start) * row.channels;
      const std::size_t samples = static_cast<std::size_t>(end - start) * row.channels;
      if constexpr (sizeof(*row.samples) == 2)
        ::MapSampleWords(words.get(), row.samples + first, samples);
      else
        ::MapSampleBytes(bytes, row.samples + first, samples);
    });
  });
}

}  // namespace

}  // namespace img

extern "C" {

IMG_API int32_t Q_MathFunctionBitmap(BitmapRecord *bitmap, uint32_t function, uint32_t factor,
                                     uint32_t flags) {
  constexpr img::EntryRule kEntry{.nullBitmap = img::NullBitmap::AfterFrame};
  if (const int32_t status = img::CheckEntry(kEntry, flags, bitmap)) return status;
  if (!img::ranges::kMathFunction.Contains(function)) return RC_INVALID_PARAMETER;
  if (!img::ranges::kMathFactor.Contains(factor)) return RC_INVALID_PARAMETER;
  return img::RunMathFunction(bitmap, function, factor);
}

IMG_API int32_t Q_GetBitmapColorCount(BitmapRecord *bitmap, uint32_t *count, uint32_t flags) {
  // Flags word and record size only: every kind is counted, 32-bit gray too;
  // CountBitmapColors is the first to read a null bitmap.
  constexpr img::EntryRule kEntry{.nullBitmap = img::NullBitmap::AfterFrame, .gray32 = false};
  if (const int32_t status = img::CheckEntry(kEntry, flags, bitmap)) return status;
  return ::CountBitmapColors(bitmap, count, 0);
}

}  // extern "C"
