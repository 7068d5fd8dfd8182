// Point operations through one lookup table: solarise, posterise, contrast,
// multiply, arithmetic and logic with a value, caller's table, and the two
// histogram-driven contrast changes.
//
// Every export builds one table over all sample values (or takes the
// bitmap's attached-table sized one from AllocBitmapLut) and lets ApplyLut
// map the pixels or palette inside the region; ApplyLut reports progress.
#include "Lut_clr.h"

#include <cmath>
#include <cstring>

#include "frame.h"
#include "pixels.h"
#include "imgplatform.h"

namespace img {

static constexpr const wchar_t *kSourceFile = L"Common/Lut_clr";

namespace {

constexpr int32_t Clamp(int64_t v, int64_t lo, int64_t hi) {
  return static_cast<int32_t>(v < lo ? lo : (v > hi ? hi : v));
}

// FillLutSegment over [first, last); ends outside the table (which only
// degenerate spans could produce) keep the same ramp on the entries that
// exist instead of writing past the table.
void Segment(int32_t *table, uint32_t length, int32_t first, int32_t last, int32_t firstValue,
             int32_t lastValue) {
  if (first >= 0 && static_cast<int64_t>(last) <= static_cast<int64_t>(length)) {
    ::FillLutSegment(first, last, firstValue, lastValue, table);
    return;
  }
  if (last <= first) return;
  const int64_t span = static_cast<int64_t>(last) - first;
  const int64_t rise = static_cast<int64_t>(lastValue) - firstValue;
  const int64_t begin = first < 0 ? 0 : first;
  const int64_t end = static_cast<int64_t>(last) > static_cast<int64_t>(length) ? length : last;
  for (int64_t i = begin; i < end; ++i)
    table[i] = static_cast<int32_t>(firstValue + rise * (i - first) / span);
}

// Entry rules of the table exports: flags word (when the export has one),
// record size and 32-bit gray. A null bitmap passes the size check; the
// 32-bit gray check is the first to read it, so it is refused there.
constexpr EntryRule kTableEntry{.nullBitmap = NullBitmap::AfterFrame};
constexpr EntryRule kTableEntryNoFlags{.flagsWord = false, .nullBitmap = NullBitmap::AfterFrame};

bool UsesAttachedLut(const BitmapRecord *bitmap) { return (bitmap->Flags & BITMAP_USE_ATTACHED_LUT) != 0; }
bool IsSigned(const BitmapRecord *bitmap) { return (bitmap->Flags & BITMAP_SIGNED) != 0; }

// Re-reads 12- and 16-bit gray samples at their own depth before the table
// is sized. The conversion's status is not used.
void RefreshGrayDepth(BitmapRecord *bitmap) {
  if (bitmap->ColorOrder != ORDER_GRAY) return;
  if (bitmap->BitsPerPixel != 16 && bitmap->BitsPerPixel != 12) return;
  PlainKernelSettings plain;
  ::ConvertBitmapDepth(bitmap, bitmap->BitsPerPixel);
}

// Allocates the operation's table: AllocBitmapLut for a bitmap that uses its
// attached table, else a zeroed table of LutLengthOf entries.
int32_t AllocOperationLut(BitmapRecord *bitmap, KernelBuffer<int32_t> &table, uint32_t &length) {
  if (UsesAttachedLut(bitmap)) {
    int32_t *p = nullptr;
    const int32_t status = ::AllocBitmapLut(bitmap, &p, &length);
    if (status != RC_SUCCESS) return status;
    table.adopt(p, __LINE__, kSourceFile);
    return RC_SUCCESS;
  }
  length = LutLengthOf(bitmap);
  if (length == 0) return RC_INVALID_PARAMETER;
  table = KernelBuffer<int32_t>(length, __LINE__, kSourceFile);
  return table ? RC_SUCCESS : RC_NO_MEMORY;
}

// Rotates the table of a signed bitmap so that it is indexed by the stored
// bit pattern, then applies it (by value, or through the attached table).
int32_t ApplyOperationLut(BitmapRecord *bitmap, int32_t *table, uint32_t length, int32_t start, int32_t end) {
  const bool attached = UsesAttachedLut(bitmap);
  if (IsSigned(bitmap) && !attached) ::ShiftLutForSigned(table, length);
  return ::ApplyLut(bitmap, table, length, attached ? 0u : LUT_INDEX_BY_VALUE, start, end);
}

// The simple table exports after their own parameter checks.
template <class Build>
int32_t RunTableOperation(BitmapRecord *bitmap, bool refreshGray, Build build) {
  if (refreshGray) RefreshGrayDepth(bitmap);
  KernelBuffer<int32_t> table;
  uint32_t length = 0;
  if (const int32_t status = AllocOperationLut(bitmap, table, length); status != RC_SUCCESS) return status;
  if (const int32_t status = build(table.get(), length); status != RC_SUCCESS) return status;
  return ApplyOperationLut(bitmap, table.get(), length, 0, 100);
}

// Result of one math/logic operation on x (already through the input field),
// clamped to bottom..top where the operation clamps.
int64_t MathLogicResult(uint32_t op, uint32_t input, int64_t x, int64_t v, int64_t bottom, int64_t top) {
  switch (op) {
    case MATHLOGIC_OP_AND:
      return x & v;
    case MATHLOGIC_OP_OR:
      return x | v;
    case MATHLOGIC_OP_XOR:
      return x ^ v;
    case MATHLOGIC_OP_ADD:
      return x + v < top ? x + v : top;
    case MATHLOGIC_OP_VALUE_MINUS_SAMPLE:
      return Clamp(v - x, bottom, top);
    case MATHLOGIC_OP_SAMPLE_MINUS_VALUE:
      return Clamp(x - v, bottom, top);
    case MATHLOGIC_OP_ABS_DIFFERENCE:
      return Clamp(x > v ? x - v : v - x, bottom, top);
    case MATHLOGIC_OP_MULTIPLY: {
      const double r = static_cast<double>(x) * static_cast<double>(v) / 100.0;
      // Clamping before the truncation gives the truncated result clamped.
      if (r <= static_cast<double>(bottom)) return bottom;
      if (r >= static_cast<double>(top)) return top;
      return static_cast<int64_t>(r);
    }
    case MATHLOGIC_OP_DIVIDE:
      return Clamp((x * 100) / v, bottom, top);
    case MATHLOGIC_OP_VALUE_DIVIDE_SAMPLE:
      // The 8-bit constant at every depth; 0 when the input is forced to 0.
      if (x == 0) return input == MATHLOGIC_IN_ZERO ? 0 : 255;
      return Clamp(v / x, bottom, top);
    case MATHLOGIC_OP_AVERAGE:
      return Clamp((x + v) / 2, bottom, top);
    case MATHLOGIC_OP_MINIMUM:
      return x < v ? x : v;
    default:
      return x > v ? x : v;  // MATHLOGIC_OP_MAXIMUM
  }
}

// Outputs 0x2000 and 0x3000 fill the whole table; true when done.
bool FillConstantOutput(int32_t *table, uint32_t length, uint32_t output) {
  const uint32_t max = length - 1;
  if (output == MATHLOGIC_OUT_ZERO) {
    std::memset(table, 0, static_cast<std::size_t>(length) * sizeof(int32_t));
    return true;
  }
  if (output == MATHLOGIC_OUT_ONES) {
    std::memset(table, static_cast<int>(max & 0xFFu), static_cast<std::size_t>(length) * sizeof(int32_t));
    return true;
  }
  return false;
}

}  // namespace

// ---- Table builders ------------------------------------------------------------------

uint32_t LutLengthOf(const BitmapRecord *bitmap) { return TableLength(bitmap); }

int32_t LutShiftOf(uint32_t length) {
  switch (length) {
    case 256:
      return 8;
    case 4096:
      return 4;
    case 65536:
      return 0;
    default:
      return -1;
  }
}

void BuildSolarizeLut(int32_t *table, uint32_t length, uint32_t threshold, uint32_t mask) {
  for (uint32_t i = 0; i < length; ++i) table[i] = static_cast<int32_t>(i < threshold ? i : (i ^ mask));
}

void BuildPosterizeLut(int32_t *table, uint32_t length, uint32_t levels) {
  const uint32_t max = length - 1;
  const uint32_t step = (length * levels) / max - 1;
  const uint32_t half = step >> 1;
  for (uint32_t i = 0; i < length; ++i)
    table[i] = static_cast<int32_t>(((((i * step + length / 2) / max) * max) + half) / step);
}

ContrastBounds ContrastLimits(int32_t change) {
  const int32_t a = change < 0 ? -change : change;
  const int32_t low = ::MulDiv(a, 128, 4000);
  const double g = std::pow(1.5, std::log(a * 128.0 / 1000.0) / std::log(2.0)) * 5.34;
  int32_t high = 256 - TruncateToInt32(g);
  if (high < low) high = low;
  return {low, high};
}

void BuildContrastLut(int32_t *table, uint32_t length, int32_t change) {
  const ContrastBounds bounds = ContrastLimits(change);
  const uint32_t scale = length >> 8;
  const int32_t low = static_cast<int32_t>(static_cast<uint32_t>(bounds.low) * scale);
  const int32_t high = static_cast<int32_t>(static_cast<uint32_t>(bounds.high) * scale);
  const int32_t len = static_cast<int32_t>(length);
  if (change < 0) {
    Segment(table, length, 0, len, low, high);
    return;
  }
  Segment(table, length, 0, low, 0, 0);
  Segment(table, length, low, high, 0, len);
  Segment(table, length, high, len, len - 1, len - 1);
}

void BuildMultiplyLut(int32_t *table, uint32_t length, uint32_t factor) {
  const int32_t max = static_cast<int32_t>(length - 1);
  for (uint32_t i = 0; i < length; ++i) {
    const uint32_t q = (i * factor) / 100u;
    table[i] = static_cast<int32_t>(q) <= max ? static_cast<int32_t>(q) : max;
  }
}

int32_t CheckMathLogic(int32_t value, uint32_t operation, uint32_t length, bool signedData) {
  if ((operation & kMathLogicChannel) > LUT_CHANNEL_BLUE) return RC_INVALID_PARAMETER;
  if ((operation & kMathLogicInput) > MATHLOGIC_IN_MAX) return RC_INVALID_PARAMETER;
  const uint32_t op = operation & kMathLogicOperation;
  if (op > MATHLOGIC_OP_MAXIMUM) return RC_INVALID_PARAMETER;
  if ((operation & kMathLogicOutput) > MATHLOGIC_OUT_ONES) return RC_INVALID_PARAMETER;
  const int64_t half = length / 2;
  const int64_t lo = signedData ? -half : 0;
  const int64_t hi = signedData ? half - 1 : static_cast<int64_t>(length);
  int64_t min = lo;
  int64_t max = hi;
  switch (op) {
    case MATHLOGIC_OP_ADD:
      if (signedData) {
        min = 2 * lo;
        max = 2 * hi + 1;
      }
      break;
    case MATHLOGIC_OP_VALUE_MINUS_SAMPLE:
    case MATHLOGIC_OP_ABS_DIFFERENCE:
    case MATHLOGIC_OP_AVERAGE:
      min = 2 * lo;
      max = 2 * hi;
      break;
    case MATHLOGIC_OP_MULTIPLY:
    case MATHLOGIC_OP_DIVIDE:
      min = 100 * lo;
      max = 100 * hi;
      break;
    default:
      break;
  }
  if (value < min || value > max) return RC_INVALID_PARAMETER;
  if (op == MATHLOGIC_OP_DIVIDE && value == 0) return RC_INVALID_PARAMETER;
  return 0;
}

void BuildMathLogicLut(int32_t *table, uint32_t length, int32_t value, uint32_t operation) {
  const uint32_t output = operation & kMathLogicOutput;
  if (FillConstantOutput(table, length, output)) return;
  const uint32_t input = operation & kMathLogicInput;
  const uint32_t op = operation & kMathLogicOperation;
  const int64_t max = static_cast<int64_t>(length) - 1;
  for (int64_t i = 0; i <= max; ++i) {
    int64_t x = i;
    if (input == MATHLOGIC_IN_INVERT)
      x = max - i;
    else if (input == MATHLOGIC_IN_ZERO)
      x = 0;
    else if (input == MATHLOGIC_IN_MAX)
      x = max;
    int64_t r = MathLogicResult(op, input, x, value, 0, max);
    if (output == MATHLOGIC_OUT_INVERT) r = max - r;
    table[i] = static_cast<int32_t>(r < 0 ? -r : r);
  }
}

void BuildSignedMathLogicLut(int32_t *table, uint32_t length, int32_t value, uint32_t operation) {
  const uint32_t output = operation & kMathLogicOutput;
  if (FillConstantOutput(table, length, output)) return;
  const uint32_t input = operation & kMathLogicInput;
  const uint32_t op = operation & kMathLogicOperation;
  const int64_t max = static_cast<int64_t>(length) - 1;
  const int64_t bottom = -(max / 2);
  const int64_t top = max / 2 - 1;
  for (int64_t i = 0; i <= max; ++i) {
    const int64_t c = i - max / 2;
    int64_t x = c;
    if (input == MATHLOGIC_IN_INVERT)
      x = -c;
    else if (input == MATHLOGIC_IN_ZERO)
      x = 0;
    else if (input == MATHLOGIC_IN_MAX)
      x = c + max;
    x = Clamp(x, bottom, top);
    int64_t r = MathLogicResult(op, input, x, value, bottom, top);
    if (output == MATHLOGIC_OUT_INVERT) r = max - r;
    // Centred positions: c >= 0 at c, c < 0 at max + c (one short of the
    // two's-complement position). Kept so on purpose.
    const int64_t position = c >= 0 ? c : max + c;
    table[position] = static_cast<int32_t>(r < 0 ? max + r : r);
  }
}

HistogramSpan OccupiedSpan(int32_t lowest, int32_t highest, uint32_t length) {
  const uint32_t max = length - 1;
  const bool below = lowest >= 0 && static_cast<uint32_t>(lowest) < max;
  return HistogramSpan{below ? static_cast<uint32_t>(lowest) : max,
                       highest > 0 ? static_cast<uint32_t>(highest) : 0u};
}

bool BuildStretchLut(int32_t *table, uint32_t length, uint32_t first, uint32_t last) {
  const int32_t max = static_cast<int32_t>(length - 1);
  const int32_t f = static_cast<int32_t>(first);
  const int32_t l = static_cast<int32_t>(last);
  const int32_t mid = (f + l) / 2;
  if (mid == l) return false;
  const int32_t centre = (max + 1) / 2;
  Segment(table, length, 0, f, 0, 0);
  Segment(table, length, f, mid + 1, 0, centre);
  Segment(table, length, mid + 1, l + 1, centre, max);
  // Overlaps the previous segment at `last`; this one wins.
  Segment(table, length, l, max + 1, max, max);
  return true;
}

void BuildHistoContrastLut(int32_t *table, uint32_t length, uint32_t first, uint32_t last, int32_t change) {
  const uint32_t max = length - 1;
  int32_t f = static_cast<int32_t>((first * 256u) / max);
  int32_t l = static_cast<int32_t>((last * 256u + max - 1) / max);
  const int32_t mid = (f + l) / 2;
  // Widen a span of at most two values so that the ramps below have room.
  if (f >= l - 1) {
    if (f == 0)
      ++l;
    else
      --f;
    if (f == l - 1) {
      if (f == 0)
        ++l;
      else
        --f;
    }
  }
  const int32_t a = change < 0 ? -change : change;
  const int32_t low = ::MulDiv(a, l - f, 8000) + f;
  const double g = std::pow(1.5, std::log(a * static_cast<double>(l - f) / 2000.0) / std::log(2.0)) * 5.34;
  int32_t high = l - TruncateToInt32(g);
  if (high <= mid) high = mid + 1;
  const int32_t a256 = mid - ::MulDiv(mid, mid - low, mid - f);
  const int32_t b256 = ::MulDiv(256 - mid, high - mid, l - mid) + mid;
  const int32_t lowIndex = static_cast<int32_t>((length >> 8) * static_cast<uint32_t>(a256));
  const int32_t highIndex = static_cast<int32_t>((static_cast<uint32_t>(b256) * length + 255u) / 256u);
  const int32_t len = static_cast<int32_t>(length);
  if (change < 0) {
    Segment(table, length, 0, len, lowIndex, highIndex);
    return;
  }
  Segment(table, length, 0, lowIndex, 0, 0);
  Segment(table, length, lowIndex, highIndex, 0, len - 1);
  Segment(table, length, highIndex, len, len - 1, len - 1);
}

// ---- Histogram-driven course -----------------------------------------------------------

namespace {

// Allocates the table, finds the occupied span of the samples (progress
// 0..50), lets `build` fill the table from it (told whether no sample lies
// inside the table) and applies it (51..100). `build` returns false when
// there is nothing to change.
template <class Build>
int32_t RunHistogramOperation(BitmapRecord *bitmap, Build build) {
  KernelBuffer<int32_t> table;
  uint32_t length = 0;
  if (const int32_t status = AllocOperationLut(bitmap, table, length); status != RC_SUCCESS) return status;
  // The span of the samples' histogram (progress 0..50), in offset form for
  // signed data so that index 0 is the most negative value, as the table is
  // built. Only its ends are used, so no counts are kept.
  int32_t lowest = -1, highest = -1;
  if (const int32_t status = ::GetSampleRange(bitmap, 0, &lowest, &highest, 0, 50); status != RC_SUCCESS)
    return status;
  const HistogramSpan span = OccupiedSpan(lowest, highest, length);
  if (!build(table.get(), length, span, lowest < 0)) return RC_SUCCESS;
  return ApplyOperationLut(bitmap, table.get(), length, 51, 100);
}

}  // namespace

}  // namespace img

using img::CheckEntry;
using img::kTableEntry;
using img::kTableEntryNoFlags;
namespace ranges = img::ranges;

extern "C" {

IMG_API int32_t Q_SolarizeBitmap(BitmapRecord *bitmap, uint32_t threshold, uint32_t flags) {
  if (const int32_t status = CheckEntry(kTableEntry, flags, bitmap)) return status;
  return img::RunTableOperation(bitmap, true, [&](int32_t *table, uint32_t length) {
    const int32_t shift = img::LutShiftOf(length);
    if (shift < 0) return RC_INVALID_PARAMETER;
    // 12-bit gray takes thresholds up to 4095; every other kind up to
    // 65535, also 8-bit ones where thresholds above 255 change nothing.
    const img::Range &limit = (bitmap->BitsPerPixel == 12 && ::IsGrayBitmap(bitmap))
                                  ? ranges::kSolarizeThreshold12
                                  : ranges::kSolarizeThreshold;
    if (!limit.Contains(threshold)) return RC_INVALID_PARAMETER;
    img::BuildSolarizeLut(table, length, threshold, 0xFFFFu >> shift);
    return RC_SUCCESS;
  });
}

IMG_API int32_t Q_PosterizeBitmap(BitmapRecord *bitmap, uint32_t levels, uint32_t flags) {
  if (const int32_t status = CheckEntry(kTableEntry, flags, bitmap)) return status;
  if (!ranges::kPosterizeLevels.Contains(levels)) return RC_INVALID_PARAMETER;
  return img::RunTableOperation(bitmap, true, [&](int32_t *table, uint32_t length) {
    if (length < 2) return RC_INVALID_PARAMETER;
    img::BuildPosterizeLut(table, length, levels);
    return RC_SUCCESS;
  });
}

IMG_API int32_t Q_ChangeBitmapContrast(BitmapRecord *bitmap, int32_t change, uint32_t flags) {
  if (const int32_t status = CheckEntry(kTableEntry, flags, bitmap)) return status;
  if (!ranges::kChange.Contains(change)) return RC_INVALID_PARAMETER;
  if (change == 0) return ::FinishOperation();
  return img::RunTableOperation(bitmap, false, [&](int32_t *table, uint32_t length) {
    img::BuildContrastLut(table, length, change);
    return RC_SUCCESS;
  });
}

IMG_API int32_t Q_MultiplyBitmap(BitmapRecord *bitmap, uint32_t factor, uint32_t flags) {
  if (const int32_t status = CheckEntry(kTableEntry, flags, bitmap)) return status;
  return img::RunTableOperation(bitmap, false, [&](int32_t *table, uint32_t length) {
    img::BuildMultiplyLut(table, length, factor);
    return RC_SUCCESS;
  });
}

IMG_API int32_t Q_ApplyMathLogicBitmap(BitmapRecord *bitmap, int32_t value, uint32_t operation) {
  if (const int32_t status = CheckEntry(kTableEntryNoFlags, 0, bitmap)) return status;
  const bool signedData = img::IsSigned(bitmap);
  if (signedData) {
    if (const int32_t status = ::SignedToUnsigned(bitmap, 0, 0); status != RC_SUCCESS) return status;
  }
  int32_t status = RC_SUCCESS;
  {
    int32_t *raw = nullptr;
    uint32_t length = 0;
    status = ::AllocBitmapLut(bitmap, &raw, &length);
    img::KernelBuffer<int32_t> table;
    if (status == RC_SUCCESS) {
      table.adopt(raw, __LINE__, img::kSourceFile);
      if (img::CheckMathLogic(value, operation, length, signedData) != 0) status = RC_INVALID_PARAMETER;
    }
    if (status == RC_SUCCESS) {
      if (signedData)
        img::BuildSignedMathLogicLut(table.get(), length, value, operation);
      else
        img::BuildMathLogicLut(table.get(), length, value, operation);
      status = ::ApplyLut(bitmap, table.get(), length, operation & img::kMathLogicChannel, 0, 100);
    }
  }
  if (signedData) {
    const int32_t back = ::UnsignedToSigned(bitmap, 1, 0);
    if (status == RC_SUCCESS) status = back;
  }
  return status;
}

IMG_API int32_t Q_RemapBitmapIntensity(BitmapRecord *bitmap, const int32_t *table, uint32_t length,
                                       uint32_t channel) {
  if (const int32_t status = CheckEntry(kTableEntryNoFlags, 0, bitmap)) return status;
  return ::ApplyLut(bitmap, table, length, channel, 0, 100);
}

IMG_API int32_t Q_HistoContrastBitmap(BitmapRecord *bitmap, int32_t change, uint32_t flags) {
  if (const int32_t status = CheckEntry(kTableEntry, flags, bitmap)) return status;
  if (!ranges::kChange.Contains(change)) return RC_INVALID_PARAMETER;
  // Nothing to change: report the start and the end only.
  if (change == 0) return img::Bracketed(img::kFullProgress, [] { return RC_SUCCESS; });
  return img::RunHistogramOperation(
      bitmap, [&](int32_t *table, uint32_t length, img::HistogramSpan span, bool empty) {
        // No sample inside the table (an empty region, or every sample above
        // the range): nothing to stretch, the bitmap stays and the status is 1.
        if (empty) return false;
        img::BuildHistoContrastLut(table, length, span.first, span.last, change);
        return true;
      });
}

IMG_API int32_t Q_StretchBitmapIntensity(BitmapRecord *bitmap, uint32_t flags) {
  if (const int32_t status = CheckEntry(kTableEntry, flags, bitmap)) return status;
  return img::RunHistogramOperation(bitmap,
                                    [&](int32_t *table, uint32_t length, img::HistogramSpan span, bool) {
                                      return img::BuildStretchLut(table, length, span.first, span.last);
                                    });
}

}  // extern "C"
