// Histogram equalisation: each channel by itself, the luminance with the same
// shift for every channel, or one common table. Signed data is equalised in
// its offset form and put back afterwards.
#include "Colr_n_internal.h"
#include "frame.h"

namespace img {

namespace {

static constexpr const wchar_t *kSourceFile = L"Common/Colr_n_eq";

// No flags word; signed data is handled, not refused.
constexpr EntryRule kEntry{.flagsWord = false, .nullBitmap = NullBitmap::Refused};

// Pixels the tables are scaled by: the region's count, or the whole bitmap's.
uint64_t PixelCount(const BitmapRecord *bitmap) {
  uint64_t n = static_cast<uint64_t>(bitmap->Width) * static_cast<uint64_t>(bitmap->Height);
  if (::BitmapHasRegion(bitmap)) ::GetRegionArea(bitmap, &n);
  return n;
}

// entry i = S_i / n * T with S_i and n in single precision, truncated. No
// pixel (an empty region) leaves the table zero: it maps nothing.
void BuildEqualizeTable(const uint32_t *histogram, int32_t bins, uint64_t n, uint16_t *table) {
  if (n == 0) return;
  const float count = static_cast<float>(n), top = static_cast<float>(bins - 1);
  uint64_t sum = 0;
  for (int32_t i = 0; i < bins; ++i) {
    sum += histogram[i];
    table[i] = static_cast<uint16_t>(static_cast<float>(sum) / count * top);
  }
}

template <class T>
inline T LimitShift(int32_t v, int32_t max) {
  return static_cast<T>(v < 0 ? 0 : v > max ? max : v);
}

// Mode 1 (and the mode 4 fallback): one histogram and table per channel (a
// one-sample row counts its sample for all three and uses the red table).
// 8-bit rows of 1, 3 or 4 samples are counted into sub-histograms and mapped
// by the byte loops (the tables' entries are at most 255, so byte tables hold
// them); bitmaps whose working rows are their stored rows are walked in place.
int32_t PerChannel(BitmapRecord *bitmap, Isa isa) {
  RowPass pass(bitmap, RowSetup{.storedRows = true});
  if (pass.status() != RC_SUCCESS) return pass.status();
  const int32_t bins = pass.wide() ? 65536 : 256;
  const int32_t channels = pass.channels() >= 3 ? 3 : 1;
  const bool bytes = !pass.wide() && (pass.channels() == 1 || pass.channels() == 3 || pass.channels() == 4);
  IMG_BUFFER(uint32_t, histograms, static_cast<std::size_t>(bins) * channels);
  IMG_BUFFER(uint16_t, tables, static_cast<std::size_t>(bins) * channels);
  KernelBuffer<uint32_t> counts;
  if (bytes) counts = KernelBuffer<uint32_t>(colrn::kCountsSize, __LINE__, kSourceFile);
  if (!histograms || !tables || (bytes && !counts)) return RC_NO_MEMORY;
  uint32_t *h = histograms.get();
  int32_t status = colrn::RunRows(pass, kNoProgress, false, [&](auto &row) {
    row.ForEachRun([&](int32_t left, int32_t right) {
      const auto *p = row.Pixel(left);
      if constexpr (sizeof(*p) == 1) {
        if (bytes)
          return colrn::CountBytes(p, static_cast<std::size_t>(right - left), row.channels, counts.get());
      }
      for (int32_t x = left; x < right; ++x, p += row.channels)
        for (int32_t c = 0; c < channels; ++c) ++h[c * bins + p[c]];
    });
  });
  if (status != RC_SUCCESS) return status;
  if (bytes) colrn::FoldCounts(counts.get(), channels, h);
  const uint64_t n = PixelCount(bitmap);
  for (int32_t c = 0; c < channels; ++c) BuildEqualizeTable(h + c * bins, bins, n, tables.get() + c * bins);
  const uint16_t *t = tables.get();
  uint8_t byteTables[3 * 256];
  for (int32_t k = 0; bytes && k < channels * 256; ++k) byteTables[k] = static_cast<uint8_t>(t[k]);
  return colrn::RunRows(pass, kNoProgress, true, [&](auto &row) {
    using T = std::remove_reference_t<decltype(*row.samples)>;
    row.ForEachRun([&](int32_t left, int32_t right) {
      T *p = row.Pixel(left);
      if constexpr (sizeof(T) == 1) {
        if (bytes)
          return colrn::LookupBytes(isa, p, static_cast<std::size_t>(right - left) * row.channels,
                                    row.channels, byteTables);
      }
      for (int32_t x = left; x < right; ++x, p += row.channels)
        for (int32_t c = 0; c < channels; ++c) p[c] = static_cast<T>(t[c * bins + p[c]]);
    });
  });
}

// L = (9798 R + 19235 G + 3736 B) >> 15 limited to the top value; a
// one-sample row: the sample.
template <class T>
inline uint32_t Luminance(const T *p, int32_t channels, uint32_t top) {
  if (channels < 3) return p[0];
  const uint32_t l = (9798u * p[2] + 19235u * p[1] + 3736u * p[0]) >> 15;
  return l > top ? top : l;
}

// Mode 2: a histogram of the luminance; every channel moves by the
// luminance's change d = table[L] - L. The luminance is computed again in
// the second walk (the same pixels in the same order give the same values),
// instead of being kept for every pixel.
int32_t LuminanceShift(BitmapRecord *bitmap) {
  RowPass pass(bitmap, RowSetup{});
  if (pass.status() != RC_SUCCESS) return pass.status();
  const int32_t bins = pass.wide() ? 65536 : 256;
  const uint32_t top = static_cast<uint32_t>(bins - 1);
  IMG_BUFFER(uint32_t, histogram, static_cast<std::size_t>(bins));
  IMG_BUFFER(uint16_t, table, static_cast<std::size_t>(bins));
  if (!histogram || !table) return RC_NO_MEMORY;
  pass.SetWalk(kNoProgress, false);
  int32_t status = pass.RunRows([&](auto &row) {
    row.ForEachRun([&](int32_t left, int32_t right) {
      const auto *p = row.Pixel(left);
      for (int32_t x = left; x < right; ++x, p += row.channels) ++histogram[Luminance(p, row.channels, top)];
    });
  });
  if (status != RC_SUCCESS) return status;
  BuildEqualizeTable(histogram.get(), bins, PixelCount(bitmap), table.get());
  pass.SetWalk(kNoProgress, true);
  return pass.RunRows([&](auto &row) {
    using T = std::remove_reference_t<decltype(*row.samples)>;
    const int32_t channels = row.channels >= 3 ? 3 : 1;
    row.ForEachRun([&](int32_t left, int32_t right) {
      T *p = row.Pixel(left);
      for (int32_t x = left; x < right; ++x, p += row.channels) {
        const uint32_t l = Luminance(p, row.channels, top);
        const int32_t d = static_cast<int32_t>(table[l]) - static_cast<int32_t>(l);
        for (int32_t c = 0; c < channels; ++c) p[c] = LimitShift<T>(p[c] + d, static_cast<int32_t>(top));
      }
    });
  });
}

// Mode 4 on 16-bit samples: one table from the intensity (B + 5G + 2R) >> 3
// (a one-sample row: the sample), applied to every sample of a pixel.
int32_t DeepCommon(BitmapRecord *bitmap) {
  RowPass pass(bitmap, RowSetup{});
  if (pass.status() != RC_SUCCESS) return pass.status();
  constexpr int32_t kBins = 65536;
  IMG_BUFFER(uint32_t, histogram, kBins);
  IMG_BUFFER(uint16_t, table, kBins);
  if (!histogram || !table) return RC_NO_MEMORY;
  pass.SetWalk(kNoProgress, false);
  int32_t status = pass.RunRows([&](auto &row) {
    row.ForEachRun([&](int32_t left, int32_t right) {
      const auto *p = row.Pixel(left);
      for (int32_t x = left; x < right; ++x, p += row.channels)
        ++histogram[row.channels >= 3 ? (p[0] + 5u * p[1] + 2u * p[2]) >> 3 : p[0]];
    });
  });
  if (status != RC_SUCCESS) return status;
  BuildEqualizeTable(histogram.get(), kBins, PixelCount(bitmap), table.get());
  pass.SetWalk(kNoProgress, true);
  return pass.RunRows([&](auto &row) {
    using T = std::remove_reference_t<decltype(*row.samples)>;
    const int32_t channels = row.channels >= 3 ? 3 : 1;
    row.ForEachRun([&](int32_t left, int32_t right) {
      T *p = row.Pixel(left);
      for (int32_t x = left; x < right; ++x, p += row.channels)
        for (int32_t c = 0; c < channels; ++c) p[c] = static_cast<T>(table[p[c]]);
    });
  });
}

// Mode 4's 8-bit routine: the intensity histogram of imgutil (progress 0..50)
// made cumulative, entry i = (S_i * 255 / n) & 255 in 32 bits below 2^24
// pixels, else (S_i / (n / 255)) & 255 in 64 bits, applied by ApplyByteLut
// (51..100). Its result is what the export looks at: any non-zero value.
int32_t ByteCommon(BitmapRecord *bitmap) {
  IMG_BUFFER(uint32_t, histogram, 256);
  IMG_BUFFER(uint8_t, table, 256);
  if (!histogram || !table) return RC_NO_MEMORY;
  if (const int32_t status = ::ComputeHistogram(bitmap, histogram.get(), 0, 0, 50); status != RC_SUCCESS)
    return status;
  for (int32_t i = 1; i < 256; ++i) histogram[i] += histogram[i - 1];
  uint64_t n = 0;
  ::GetRegionArea(bitmap, &n);
  for (int32_t i = 0; n != 0 && i < 256; ++i) {
    if (n < 16777216u)
      table[i] = static_cast<uint8_t>((histogram[i] * 255u / static_cast<uint32_t>(n)) & 255u);
    else
      table[i] = static_cast<uint8_t>((histogram[i] / (n / 255u)) & 255u);
  }
  return ::ApplyByteLut(bitmap, table.get(), 0, 51, 100);
}

bool IsDeep(const BitmapRecord *bitmap) {
  const int32_t bits = bitmap->BitsPerPixel;
  return bits == 64 || bits == 48 || bits == 12 || (bits == 16 && ::IsGrayBitmap(bitmap));
}

}  // namespace

}  // namespace img

namespace img {

int32_t colrn::EqualizeWithIsa(BitmapRecord *bitmap, int32_t mode, Isa isa) {
  if (const int32_t status = CheckEntry(kEntry, 0, bitmap)) return status;
  const bool signedData = (bitmap->Flags & BITMAP_SIGNED) != 0;
  if (bitmap->ColorOrder == ORDER_GRAY && !signedData &&
      (bitmap->BitsPerPixel == 16 || bitmap->BitsPerPixel == 12))
    ::ConvertBitmapDepth(bitmap, bitmap->BitsPerPixel);
  if (signedData) {
    if (const int32_t status = ::SignedToUnsigned(bitmap, 0, 0); status != RC_SUCCESS) return status;
  }
  // Signed data is put back at the end of every way; a failing restore's
  // status replaces the worker's.
  const auto restore = [&](int32_t status) {
    if (!signedData) return status;
    const int32_t back = ::UnsignedToSigned(bitmap, 1, 0);
    return back != RC_SUCCESS ? back : status;
  };
  switch (mode) {
    case HISTOEQ_PER_CHANNEL:
      return restore(PerChannel(bitmap, isa));
    case HISTOEQ_LUMINANCE:
      return restore(LuminanceShift(bitmap));
    case HISTOEQ_COMMON: {
      // On purpose in this order: a deep bitmap first takes the 16-bit common
      // table (its status dropped). Signed data is then made signed again and
      // equalised per channel as it stands, with the usual restore after it.
      // Unsigned data takes the 8-bit routine, whose every non-zero result
      // (failures included) is reported as success.
      if (IsDeep(bitmap)) DeepCommon(bitmap);
      if (signedData) {
        if (const int32_t status = ::UnsignedToSigned(bitmap, 1, 0); status != RC_SUCCESS) return status;
        return restore(PerChannel(bitmap, isa));
      }
      if (ByteCommon(bitmap) != 0) return RC_SUCCESS;
      return PerChannel(bitmap, isa);
    }
    default: {
      const int32_t status = restore(RC_SUCCESS);
      return status != RC_SUCCESS ? status : RC_INVALID_PARAMETER;
    }
  }
}

}  // namespace img

extern "C" IMG_API int32_t Q_HistoEqualizeBitmap(BitmapRecord *bitmap, int32_t mode) {
  return img::colrn::EqualizeWithIsa(bitmap, mode, img::BestIsa());
}
