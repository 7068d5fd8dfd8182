// Adding bitmaps: the bitmaps of a list combined sample by sample into a new
// bitmap that starts as a copy of the list's first bitmap: their average,
// saturated sum, weighted average or weighted sum. The caller's list and its
// bitmaps are left as they were (bottom-up bitmaps are turned top-row-first
// for the call and turned back).
#include <cstring>

#include "AddBitmaps_internal.h"
#include "frame.h"

namespace img::add {

namespace {

constexpr const wchar_t *kSourceFile = L"Common/AddBitmaps";

// ---- Two 8-bit rows -----------------------------------------------------------------------

uint32_t Gcd(uint32_t x, uint32_t y) {
  while (y) {
    const uint32_t r = x % y;
    x = y;
    y = r;
  }
  return x;
}

}  // namespace

bool WeightedPair(uint32_t f0, uint32_t f1, Pair8 *pair) {
  if (static_cast<uint64_t>(f0) + f1 > UINT32_MAX || f0 + f1 == 0) return false;  // a wrapped sum
  const uint32_t g = Gcd(f0, f1);
  f0 /= g;
  f1 /= g;
  if (f0 + f1 == 1) {  // one factor 0: doubled, so that the shift below is at least 0
    f0 *= 2;
    f1 *= 2;
  }
  const uint32_t w = f0 + f1;
  if (w > 257) return false;
  uint32_t l = 0;
  while ((1u << l) < w) ++l;
  *pair = Pair8{PairRule::WeightedAverage,
                static_cast<uint16_t>(f0),
                static_cast<uint16_t>(f1),
                static_cast<uint16_t>(w),
                static_cast<uint16_t>((65536u * ((1u << l) - w)) / w + 1),
                static_cast<int32_t>(l - 1)};
  // half = ceil(2^(15 + l) / w) < 2^16 (w > 2^(l - 1)); its excess over
  // 2^(15 + l) / w is below 1, so u × half / 2^(15 + l) exceeds u / w by less
  // than u / 2^(15 + l) < 2^-l <= 1 / w for u < 2^15: the floor is exact.
  if (f0 < 128 && f1 < 128 && w <= 128) {
    pair->small = true;
    pair->half = static_cast<uint16_t>(((1u << (15 + l)) + w - 1) / w);
    pair->halfShift = static_cast<int32_t>(l - 1);
  }
  return true;
}

void CombinePair(Isa isa, const Pair8 &pair, uint8_t *out, const uint8_t *a, const uint8_t *b,
                 std::size_t n) {
  switch (isa) {
    case Isa::Avx512:
      return CombinePairAvx512(pair, out, a, b, n);
    case Isa::Avx2:
      return CombinePairAvx2(pair, out, a, b, n);
    case Isa::Ssse3:
    case Isa::Sse2:
      return CombinePairSse2(pair, out, a, b, n);
    case Isa::Scalar:
      break;
  }
  static constexpr uint32_t kNone[2] = {0, 0};
  const uint32_t factors[2] = {pair.f0, pair.f1};
  const Combination c{pair.rule == PairRule::Sum       ? ADD_SUM
                      : pair.rule == PairRule::Average ? ADD_AVERAGE
                                                       : ADD_WEIGHTED_AVERAGE,
                      pair.rule == PairRule::WeightedAverage ? factors : kNone, pair.weight, 2};
  for (std::size_t k = 0; k < n; ++k) {
    const uint8_t *rows[2] = {a, b};
    out[k] = CombineSample<uint8_t, false>(c, rows, static_cast<std::ptrdiff_t>(k));
  }
}

namespace {

// Samples [first, end) of the output row rows[0], which is the first member's
// row (each sample is read before it is written).
template <class T, bool kSigned>
void CombineRow(const Combination &c, const Pair8 *pair, const T *const *rows, std::ptrdiff_t first,
                std::ptrdiff_t end) {
  T *out = const_cast<T *>(rows[0]);
  if (!out) return;
  if constexpr (sizeof(T) == 1) {
    // Two 8-bit bitmaps, the usual case, in the row loops of the call's
    // instruction set (the pair form, when the mode has one).
    if (pair && rows[1] && end > first) {
      CombinePair(c.isa, *pair, out + first, out + first, rows[1] + first,
                  static_cast<std::size_t>(end - first));
      return;
    }
  }
  for (std::ptrdiff_t k = first; k < end; ++k) out[k] = CombineSample<T, kSigned>(c, rows, k);
}

// ---- Orientation --------------------------------------------------------------------------

// Turns the records of the call top-row-first and back. A record that shares
// its pixel memory with an earlier turned one is only marked: its pixels are
// turned once and restored once. Restores on destruction, on every path.
class Orientations {
 public:
  Orientations(BitmapRecord *records, int32_t *saved) : records_(records), saved_(saved) {}
  Orientations(const Orientations &) = delete;
  Orientations &operator=(const Orientations &) = delete;
  ~Orientations() {
    for (int32_t i = 0; i < done_; ++i) {
      if (saved_[i] == ORIENT_TOP_FIRST) continue;
      if (SharesTurned(i))
        records_[i].Orientation = saved_[i];
      else
        ChangeOrientation(nullptr, &records_[i], BITMAP_RECORD_SIZE, saved_[i], 0);
    }
  }

  int32_t Turn(int32_t i) {
    saved_[i] = records_[i].Orientation;
    done_ = i + 1;
    if (saved_[i] == ORIENT_TOP_FIRST) return RC_SUCCESS;
    if (SharesTurned(i)) {
      records_[i].Orientation = ORIENT_TOP_FIRST;
      return RC_SUCCESS;
    }
    return ChangeOrientation(nullptr, &records_[i], BITMAP_RECORD_SIZE, ORIENT_TOP_FIRST, 0);
  }

 private:
  // An earlier record with the same pixel memory that was turned.
  bool SharesTurned(int32_t i) const {
    for (int32_t j = 0; j < i; ++j)
      if (saved_[j] != ORIENT_TOP_FIRST && records_[j].Pixels == records_[i].Pixels) return true;
    return false;
  }

  BitmapRecord *records_;
  int32_t *saved_;
  int32_t done_ = 0;
};

// ---- Combination of a list --------------------------------------------------------------

// The working form: all gray: one sample a pixel (16 bits; 8 when every
// bitmap is 8-bit gray); else all 48/64 bits: three 16-bit samples; else
// three 8-bit samples. A gray list that mixes 8-bit with 12/16-bit gray takes
// the 8-bit colour form.
struct Form {
  int32_t layout;
  int32_t samples;  // a pixel
  bool wide;
  bool fromRowStart;  // the 16-bit forms combine from column 0, whatever the region's left edge
};

Form FormOf(const BitmapRecord *records, uint32_t n) {
  bool gray = true, deep = true, gray8 = true, gray16 = true;
  for (uint32_t i = 0; i < n; ++i) {
    gray = gray && records[i].ColorOrder == ORDER_GRAY;
    deep = deep && records[i].BitsPerPixel >= 48;
    gray8 = gray8 && records[i].BitsPerPixel == 8;
    gray16 = gray16 && (records[i].BitsPerPixel == 12 || records[i].BitsPerPixel == 16);
  }
  if (gray && gray16) return {ROW_LAYOUT_NATIVE, 1, true, true};
  if (gray && gray8) return {ROW_LAYOUT_NATIVE, 1, false, true};
  // Three samples a pixel, also from 64-bit pixels (the fourth sample stays).
  if (deep) return {ROW_LAYOUT_BGR, 3, true, true};
  return {ROW_LAYOUT_BGR8, 3, false, false};
}

// Combines the list (the result first) into its first bitmap; with a
// source, the result's pixels are still to be copied from it (see Add).
int32_t Combine(BitmapList list, Combination combination, bool weighted, const BitmapRecord *source) {
  uint32_t n = 0;
  int32_t status = GetBitmapListCount(list, &n);
  if (status != RC_SUCCESS) return status;
  if (n == 0 || n > INT32_MAX) return RC_INVALID_PARAMETER;
  if (weighted && !ranges::kAddWeightedMode.Contains(combination.mode)) return RC_INVALID_PARAMETER;
  IMG_BUFFER(BitmapRecord, records, n);
  IMG_BUFFER(int32_t, saved, n);
  if (!records || !saved) return RC_NO_MEMORY;
  for (uint32_t i = 0; i < n; ++i)
    if ((status = GetBitmapListItem(list, i, &records[i], BITMAP_RECORD_SIZE)) != RC_SUCCESS) return status;

  // Survey.
  if (!weighted && !ranges::kAddMode.Contains(combination.mode)) return RC_INVALID_PARAMETER;
  Orientations orientations(records.get(), saved.get());
  int32_t width = INT32_MAX, height = INT32_MAX;
  for (uint32_t i = 0; i < n; ++i) {
    if ((status = orientations.Turn(static_cast<int32_t>(i))) != RC_SUCCESS) return status;
    if (records[i].Width < width) width = records[i].Width;
    if (records[i].Height < height) height = records[i].Height;
  }
  Rect area{0, 0, width, height};
  if (BitmapHasRegion(&records[0])) {
    Rect bounds{};
    GetRegionBounds(&records[0], nullptr, &bounds);
    area = Rect{bounds.Left, bounds.Top, bounds.Right < width ? bounds.Right : width,
                bounds.Bottom < height ? bounds.Bottom : height};
  }
  const Form form = FormOf(records.get(), n);
  combination.count = static_cast<int32_t>(n);
  combination.weightSum = 0;
  if (combination.mode >= ADD_WEIGHTED_AVERAGE)
    for (uint32_t i = 0; i < n; ++i) combination.weightSum += combination.factors[i];
  const std::ptrdiff_t first = form.fromRowStart ? 0 : static_cast<std::ptrdiff_t>(area.Left) * form.samples;
  const std::ptrdiff_t end = static_cast<std::ptrdiff_t>(area.Right) * form.samples;
  const bool isSigned = form.wide && (records[0].Flags & BITMAP_SIGNED) != 0;

  IMG_BUFFER(PassMember, members, n);
  if (!members) return RC_NO_MEMORY;
  Pair8 pairForm{};
  const Pair8 *pair = nullptr;
  if (!form.wide && n == 2) {
    if (combination.mode == ADD_SUM || combination.mode == ADD_AVERAGE) {
      pairForm.rule = combination.mode == ADD_SUM ? PairRule::Sum : PairRule::Average;
      pair = &pairForm;
    } else if (combination.mode == ADD_WEIGHTED_AVERAGE &&
               WeightedPair(combination.factors[0], combination.factors[1], &pairForm)) {
      pair = &pairForm;
    }
  }
  // A result to fill from the first bitmap whose working row is its stored
  // row, with a pair form: the pair loop reads the first bitmap's row and
  // writes the result's, and the bytes it does not combine are copied, so
  // that the result's memory is written once instead of copied and then
  // combined in place (the same bytes: the pair form reads each sample of
  // the result's row before writing it, and that sample is the first
  // bitmap's).
  const bool fillByPair = source && pair && PlainWorkingRow(&records[0], form.layout);
  auto copyRow = [&](int32_t y) {
    const BitmapRecord *out = &records[0];
    if (y < 0 || y >= out->Height || y >= source->Height) return;
    std::memcpy(ImageRow(out, y), ImageRow(source, y),
                out->BytesPerLine < source->BytesPerLine ? out->BytesPerLine : source->BytesPerLine);
  };
  // The kernel writes only the result's row: every member may hand over its
  // stored row.
  for (uint32_t i = 0; i < n; ++i)
    members[i] = PassMember{&records[i], form.layout, i == 0, true, i == 0 && !fillByPair ? source : nullptr};
  // Only the last member's converter and reads count, as the course keeps it.
  MultiPass pass(members.get(), static_cast<int32_t>(n), MemberStatus::LastOnly);
  if (fillByPair && pass.status() == RC_SUCCESS)
    for (int32_t y = 0; y < records[0].Height; ++y)
      if (y < area.Top || y >= area.Bottom) copyRow(y);
  // Whole rows of the result are written: outside the combined samples they
  // hold its own values.
  const Rect rows{0, area.Top, records[0].Width, area.Bottom};
  return pass.Run(area.Top, area.Bottom, &rows, kNoProgress, [&](const MemberRows &m) {
    if (fillByPair) {
      const uint8_t *b = static_cast<const uint8_t *>(m.samples[1]);
      // A missing row or nothing to combine: the copy, then the usual course.
      if (!m.samples[0] || !b || end <= first || m.y >= source->Height) {
        copyRow(m.y);
      } else {
        uint8_t *out = ImageRow(&records[0], m.y);
        const uint8_t *a = ImageRow(source, m.y);
        const std::ptrdiff_t bytes =
            records[0].BytesPerLine < source->BytesPerLine ? records[0].BytesPerLine : source->BytesPerLine;
        std::memcpy(out, a, static_cast<std::size_t>(first));
        CombinePair(combination.isa, *pair, out + first, a + first, b + first,
                    static_cast<std::size_t>(end - first));
        if (bytes > end) std::memcpy(out + end, a + end, static_cast<std::size_t>(bytes - end));
        return;
      }
    }
    if (form.wide) {
      auto *const *r = reinterpret_cast<const uint16_t *const *>(m.samples);
      isSigned ? CombineRow<uint16_t, true>(combination, nullptr, r, first, end)
               : CombineRow<uint16_t, false>(combination, nullptr, r, first, end);
    } else {
      CombineRow<uint8_t, false>(combination, pair, reinterpret_cast<const uint8_t *const *>(m.samples),
                                 first, end);
    }
  });
}

// Owns the call's private list; destroying it never frees the entries' pixels.
struct PrivateList {
  BitmapList list = nullptr;
  PrivateList() = default;
  PrivateList(const PrivateList &) = delete;
  PrivateList &operator=(const PrivateList &) = delete;
  ~PrivateList() {
    if (list) DestroyBitmapList(list);
  }
};

// Leaves the result without pixels, a record of its declared size.
void Empty(BitmapRecord *result, uint32_t structSize) {
  if (result->Flags & BITMAP_ALLOCATED) FreeBitmap(result);
  ResetBitmap(result, structSize, 0, 0, 0);
}

// True when the result can be filled by the pass from the first bitmap
// instead of copied before it: the first bitmap's stored rows are all its
// pixel bytes, and no bitmap of the list that the call turns top-row-first
// shares its pixel memory (turning it would move the rows the pass reads).
bool FillsInPass(const BitmapRecord &first, BitmapList list, uint32_t n) {
  if (!(first.Flags & BITMAP_ALLOCATED) || !first.Pixels || first.Height < 0 ||
      first.DataSize != static_cast<uint64_t>(first.BytesPerLine) * static_cast<uint64_t>(first.Height))
    return false;
  const uint8_t *begin = first.Pixels, *end = first.Pixels + first.DataSize;
  for (uint32_t i = 0; i < n; ++i) {
    BitmapRecord item{};
    if (GetBitmapListItem(list, i, &item, BITMAP_RECORD_SIZE) != RC_SUCCESS) return false;
    if (item.Orientation != ORIENT_TOP_FIRST && item.Pixels && item.Pixels < end &&
        item.Pixels + item.DataSize > begin)
      return false;
  }
  return true;
}

// The result as CopyBitmap makes it from the first bitmap (record, palette,
// region, attached table) but with pixels still to be filled: CopyBitmap of
// a record without pixel bytes, then `pixels` (a block of the first bitmap's
// size) in place of the empty one.
int32_t CopyWithoutPixels(BitmapRecord *result, const BitmapRecord &first, uint32_t structSize,
                          KernelBuffer<uint8_t> &pixels) {
  // The pass writes every byte of the block (see KeepPixels), so it is not
  // cleared first: clearing would be one more walk over the memory.
  if (!pixels)
    pixels.adopt(static_cast<uint8_t *>(::AllocUnset(first.DataSize, 1, __LINE__, kSourceFile)), __LINE__,
                 kSourceFile);
  if (!pixels) return RC_NO_MEMORY;
  BitmapRecord shell = first;
  shell.DataSize = 0;
  const int32_t status = CopyBitmap(result, &shell, structSize);
  if (status != RC_SUCCESS) return status;
  IMG_FREE(result->Pixels);
  result->Pixels = pixels.release();
  result->DataSize = first.DataSize;
  return RC_SUCCESS;
}

// The result's own pixel block when the pass can fill it again: of the
// first bitmap's size and shared with no bitmap of the list. Taken from the
// result (which the call releases next).
void KeepPixels(BitmapRecord *result, const BitmapRecord &first, BitmapList list, uint32_t n,
                KernelBuffer<uint8_t> &kept) {
  if (!(result->Flags & BITMAP_ALLOCATED) || !result->Pixels || result->DataSize != first.DataSize) return;
  const uint8_t *begin = result->Pixels, *end = result->Pixels + result->DataSize;
  auto overlaps = [&](const BitmapRecord &b) {
    return b.Pixels && b.Pixels < end && b.Pixels + b.DataSize > begin;
  };
  if (overlaps(first)) return;
  for (uint32_t i = 0; i < n; ++i) {
    BitmapRecord item{};
    if (GetBitmapListItem(list, i, &item, BITMAP_RECORD_SIZE) != RC_SUCCESS || overlaps(item)) return;
  }
  kept.adopt(result->Pixels, __LINE__, kSourceFile);
  result->Pixels = nullptr;
}

}  // namespace

int32_t AddWithIsa(Isa isa, BitmapRecord *result, uint32_t structSize, BitmapList source,
                   const uint32_t *factors, uint32_t mode, bool weighted) {
  if (!ValidRecordSize(structSize)) return RC_INVALID_STRUCT_SIZE;
  if (!result) return RC_NO_BITMAP;
  result->StructSize = structSize;
  if (result->ColorOrder == ORDER_GRAY && result->BitsPerPixel == 32) return RC_GRAY32_NOT_SUPPORTED;

  // A private copy of the list, so that the caller's is never reordered.
  PrivateList list;
  int32_t status = CreateBitmapList(&list.list);
  uint32_t n = 0;
  if (status == RC_SUCCESS) status = GetBitmapListCount(source, &n);
  for (uint32_t i = 0; status == RC_SUCCESS && i < n; ++i) {
    BitmapRecord item{};
    status = GetBitmapListItem(source, i, &item, BITMAP_RECORD_SIZE);
    if (status == RC_SUCCESS) status = InsertBitmapListItem(list.list, -1, &item);
  }
  if (status != RC_SUCCESS) return status;
  if (n == 0) return RC_INVALID_PARAMETER;

  Combination combination{mode, factors, 0, 0, isa};
  if (weighted && !factors && (mode == ADD_WEIGHTED_AVERAGE || mode == ADD_WEIGHTED_SUM))
    combination.mode -= 2;
  if (weighted && factors && mode == ADD_WEIGHTED_AVERAGE) {
    uint32_t sum = 0;
    for (uint32_t i = 0; i < n; ++i) sum += factors[i];
    if (sum == 0) return RC_INVALID_PARAMETER;  // nothing to divide by: refused before anything changes
  }

  BitmapRecord first{};
  if ((status = RemoveBitmapListItem(list.list, 0, &first)) != RC_SUCCESS) return status;
  // The copy of the first bitmap is made by the pass as it combines the rows
  // (one walk over the memory instead of two) when nothing can move the
  // first bitmap's rows before the pass reads them. A result that already
  // holds a pixel block of that size gets it back: the pass writes every
  // byte of it, so a fresh (zeroed) block would only cost another walk.
  const bool fill = FillsInPass(first, list.list, n - 1);
  KernelBuffer<uint8_t> kept;
  if (fill) KeepPixels(result, first, list.list, n - 1, kept);
  if (result->Flags & BITMAP_ALLOCATED) FreeBitmap(result);
  if (weighted) ResetBitmap(result, structSize, 0, 0, 0);
  status = fill ? CopyWithoutPixels(result, first, structSize, kept) : CopyBitmap(result, &first, structSize);
  if (status != RC_SUCCESS) {
    Empty(result, structSize);
    return status;
  }
  status = InsertBitmapListItem(list.list, 0, result);
  if (status == RC_SUCCESS) {
    status = Combine(list.list, combination, weighted, fill ? &first : nullptr);
    RemoveBitmapListItem(list.list, 0, nullptr);
  }
  if (status != RC_SUCCESS) {
    Empty(result, structSize);
    return status;
  }
  return InsertBitmapListItem(list.list, 0, &first);
}

}  // namespace img::add

extern "C" IMG_API int32_t Q_AddBitmaps(BitmapRecord *bitmap, uint32_t structSize, BitmapList list,
                                        uint32_t mode) {
  return img::add::AddWithIsa(img::BestIsa(), bitmap, structSize, list, nullptr, mode, false);
}

extern "C" IMG_API int32_t Q_AddWeightedBitmaps(BitmapRecord *bitmap, uint32_t structSize, BitmapList list,
                                                const uint32_t *factors, uint32_t mode) {
  return img::add::AddWithIsa(img::BestIsa(), bitmap, structSize, list, factors, mode, true);
}
