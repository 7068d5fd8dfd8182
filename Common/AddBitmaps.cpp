// Adding bitmaps: the bitmaps of a list combined sample by sample into a new
// bitmap that starts as a copy of the list's first bitmap: their average,
// saturated sum, weighted average or weighted sum. The caller's list and its
// bitmaps are left as they were (bottom-up bitmaps are turned top-row-first
// for the call and turned back).
#include <cmath>

#include "frame.h"

namespace img::add {

namespace {

constexpr const wchar_t *kSourceFile = L"Common/AddBitmaps";

// ---- Samples ----------------------------------------------------------------------------

struct Combination {
  uint32_t mode;
  const uint32_t *factors;  // modes 3 and 4
  uint32_t weightSum;       // mode 3: the factors' sum, unsigned 32-bit
  int32_t count;
};

// The sample scale of a working form: 8-bit, unsigned 16-bit or signed 16-bit.
template <class T, bool kSigned>
struct Scale {
  static constexpr int64_t kMax = sizeof(T) == 1 ? 255 : kSigned ? 32767 : 65535;
  static int64_t Value(T v) {
    if constexpr (kSigned) return static_cast<int16_t>(v);
    return v;
  }
  // The low bits of v (a negative signed sum keeps its low 16 bits).
  static T Store(int64_t v) { return static_cast<T>(static_cast<uint64_t>(v)); }
};

// One sample of the output from sample k of every member's row (a null row,
// a member without converter, counts as 0).
template <class T, bool kSigned>
T CombineSample(const Combination &c, const T *const *rows, std::ptrdiff_t k) {
  using S = Scale<T, kSigned>;
  auto value = [&](int32_t i) -> int64_t { return rows[i] ? S::Value(rows[i][k]) : 0; };
  switch (c.mode) {
    case ADD_AVERAGE: {
      int64_t sum = 0;
      for (int32_t i = 0; i < c.count; ++i) sum += value(i);
      const int64_t mean = sum / c.count;  // toward zero
      return S::Store(mean > S::kMax ? S::kMax : mean);
    }
    case ADD_SUM: {
      // Running sum in list order, stopped when it passes the maximum; a
      // negative signed sum is not clamped.
      int64_t sum = 0;
      for (int32_t i = 0; i < c.count; ++i)
        if ((sum += value(i)) > S::kMax) return S::Store(S::kMax);
      return S::Store(sum);
    }
    case ADD_WEIGHTED_AVERAGE: {
      double sum = 0;
      for (int32_t i = 0; i < c.count; ++i)
        sum += static_cast<double>(c.factors[i]) * static_cast<double>(value(i));
      // Rounded half to even and read as an unsigned 32-bit value: anything
      // negative (signed data) or above the maximum gives the maximum.
      const double rounded = std::nearbyint(sum / static_cast<double>(c.weightSum));
      return S::Store(rounded < 0 || rounded > static_cast<double>(S::kMax) ? S::kMax
                                                                            : static_cast<int64_t>(rounded));
    }
    default: {  // ADD_WEIGHTED_SUM
      // Each term sample x factor in 32 bits divided by 100 as unsigned: a
      // negative sample with a non-zero factor makes a huge term.
      uint64_t sum = 0;
      for (int32_t i = 0; i < c.count; ++i) {
        const uint32_t product = static_cast<uint32_t>(value(i)) * c.factors[i];
        if ((sum += product / 100u) > static_cast<uint64_t>(S::kMax)) return S::Store(S::kMax);
      }
      return S::Store(static_cast<int64_t>(sum));
    }
  }
}

// Samples [first, end) of the output row rows[0], which is the first member's
// row (each sample is read before it is written).
template <class T, bool kSigned>
void CombineRow(const Combination &c, const T *const *rows, std::ptrdiff_t first, std::ptrdiff_t end) {
  T *out = const_cast<T *>(rows[0]);
  if (!out) return;
  if constexpr (sizeof(T) == 1) {
    // Two 8-bit bitmaps, the usual case, in loops the compiler vectorises.
    if (c.count == 2 && rows[1] && (c.mode == ADD_AVERAGE || c.mode == ADD_SUM)) {
      const T *b = rows[1];
      if (c.mode == ADD_SUM)
        for (std::ptrdiff_t k = first; k < end; ++k) {
          const uint32_t s = static_cast<uint32_t>(out[k]) + b[k];
          out[k] = static_cast<T>(s > 255u ? 255u : s);
        }
      else
        for (std::ptrdiff_t k = first; k < end; ++k)
          out[k] = static_cast<T>((static_cast<uint32_t>(out[k]) + b[k]) >> 1);
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

// Combines the list (the result first) into its first bitmap.
int32_t Combine(BitmapList list, Combination combination, bool weighted) {
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
  for (uint32_t i = 0; i < n; ++i) members[i] = PassMember{&records[i], form.layout, i == 0};
  // Only the last member's converter and reads count, as the course keeps it.
  MultiPass pass(members.get(), static_cast<int32_t>(n), MemberStatus::LastOnly);
  // Whole rows of the result are written: outside the combined samples they
  // hold its own values.
  const Rect rows{0, area.Top, records[0].Width, area.Bottom};
  return pass.Run(area.Top, area.Bottom, &rows, kNoProgress, [&](const MemberRows &m) {
    if (form.wide) {
      auto *const *r = reinterpret_cast<const uint16_t *const *>(m.samples);
      isSigned ? CombineRow<uint16_t, true>(combination, r, first, end)
               : CombineRow<uint16_t, false>(combination, r, first, end);
    } else {
      CombineRow<uint8_t, false>(combination, reinterpret_cast<const uint8_t *const *>(m.samples), first,
                                 end);
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

int32_t Add(BitmapRecord *result, uint32_t structSize, BitmapList source, const uint32_t *factors,
            uint32_t mode, bool weighted) {
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

  Combination combination{mode, factors, 0, 0};
  if (weighted && !factors && (mode == ADD_WEIGHTED_AVERAGE || mode == ADD_WEIGHTED_SUM))
    combination.mode -= 2;
  if (weighted && factors && mode == ADD_WEIGHTED_AVERAGE) {
    uint32_t sum = 0;
    for (uint32_t i = 0; i < n; ++i) sum += factors[i];
    if (sum == 0) return RC_INVALID_PARAMETER;  // nothing to divide by: refused before anything changes
  }

  BitmapRecord first{};
  if ((status = RemoveBitmapListItem(list.list, 0, &first)) != RC_SUCCESS) return status;
  if (result->Flags & BITMAP_ALLOCATED) FreeBitmap(result);
  if (weighted) ResetBitmap(result, structSize, 0, 0, 0);
  if ((status = CopyBitmap(result, &first, structSize)) != RC_SUCCESS) {
    Empty(result, structSize);
    return status;
  }
  status = InsertBitmapListItem(list.list, 0, result);
  if (status == RC_SUCCESS) {
    status = Combine(list.list, combination, weighted);
    RemoveBitmapListItem(list.list, 0, nullptr);
  }
  if (status != RC_SUCCESS) {
    Empty(result, structSize);
    return status;
  }
  return InsertBitmapListItem(list.list, 0, &first);
}

}  // namespace

}  // namespace img::add

extern "C" IMG_API int32_t Q_AddBitmaps(BitmapRecord *bitmap, uint32_t structSize, BitmapList list,
                                        uint32_t mode) {
  return img::add::Add(bitmap, structSize, list, nullptr, mode, false);
}

extern "C" IMG_API int32_t Q_AddWeightedBitmaps(BitmapRecord *bitmap, uint32_t structSize, BitmapList list,
                                                const uint32_t *factors, uint32_t mode) {
  return img::add::Add(bitmap, structSize, list, factors, mode, true);
}
