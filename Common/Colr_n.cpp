// Coloured gray, colour balance and colour swap. The three share their paths:
// palette bitmaps change their ColorsUsed entries (progress per entry), 48-
// and 64-bit bitmaps go as 16-bit working rows, everything else as 8-bit
// rows; the row paths report nothing.
#include <algorithm>
#include <type_traits>

#include "Colr_n_internal.h"
#include "frame.h"

namespace img {

namespace {

static constexpr const wchar_t *kSourceFile = L"Common/Colr_n";

// The frame of the three: no test of pixel memory or signed data.
constexpr EntryRule kFlagsEntry{.flagsWord = true, .nullBitmap = NullBitmap::Refused};
constexpr EntryRule kSwapEntry{.flagsWord = false, .nullBitmap = NullBitmap::Refused};

// The palette course of the three: the ColorsUsed entries are read, each is
// changed by fn(blue, green, red samples) with the progress 0 first, then
// per entry 100 / ColorsUsed more, the remainders carried (one percent more
// whenever they reach ColorsUsed); an answer other than 1 stops the work and
// the palette is not written.
template <class Fn>
int32_t ChangePaletteEntries(BitmapRecord *bitmap, Fn &&fn) {
  return RunPaletteRow(bitmap, [&](RowView<uint8_t> &row) -> int32_t {
    const Progress progress;
    int32_t answer = progress.report(0);
    if (answer != RC_SUCCESS) return answer;
    const int32_t count = row.width, step = 100 / count, rest = 100 % count;
    int32_t percent = 0, carried = 0;
    for (int32_t i = 0; i < count; ++i) {
      fn(row.Pixel(i));
      percent += step;
      carried += rest;
      if (carried >= count) {
        carried -= count;
        ++percent;
      }
      if ((answer = progress.report(percent)) != RC_SUCCESS) return answer;
    }
    return RC_SUCCESS;
  });
}

template <class T>
inline T Limit(int64_t v, int64_t max) {
  return static_cast<T>(v < 0 ? 0 : v > max ? max : v);
}

// ---- Coloured gray ------------------------------------------------------------------

struct GrayWeights {
  uint32_t red, green, blue;
  int32_t factors[3];  // blue, green, red
};

// entry i = i + (i * f) / 1000 (truncated toward zero), limited to 0..max.
void BuildTintTable(uint16_t *table, int32_t length, int32_t factor) {
  for (int32_t i = 0; i < length; ++i)
    table[i] = Limit<uint16_t>(i + static_cast<int64_t>(i) * factor / 1000, length - 1);
}

int32_t ColoredGrayRows(BitmapRecord *bitmap, const GrayWeights &w) {
  RowPass pass(bitmap, RowSetup{});
  if (pass.status() != RC_SUCCESS) return pass.status();
  if (pass.channels() < 3) return RC_UNSUPPORTED_BITMAP;  // gray rows are widened first
  const int32_t length = pass.wide() ? 65536 : 256;
  IMG_BUFFER(uint16_t, tables, static_cast<std::size_t>(length) * 3);
  if (!tables) return RC_NO_MEMORY;
  for (int32_t c = 0; c < 3; ++c) BuildTintTable(tables.get() + c * length, length, w.factors[c]);
  const uint16_t *tb = tables.get(), *tg = tb + length, *tr = tg + length;
  return pass.RunRows([&](auto &row) {
    row.ForEachRun([&](int32_t left, int32_t right) {
      auto *p = row.Pixel(left);
      for (int32_t x = left; x < right; ++x, p += row.channels) {
        const uint32_t gray = (p[2] * w.red + p[1] * w.green + p[0] * w.blue) / 1000u;
        p[0] = static_cast<std::remove_reference_t<decltype(*p)>>(tb[gray]);
        p[1] = static_cast<std::remove_reference_t<decltype(*p)>>(tg[gray]);
        p[2] = static_cast<std::remove_reference_t<decltype(*p)>>(tr[gray]);
      }
    });
  });
}

int32_t ColoredGray(BitmapRecord *bitmap, const GrayWeights &w) {
  const int32_t bits = bitmap->BitsPerPixel;
  if (bits < 9) {
    const double f[3] = {1.0 + w.factors[0] / 1000.0, 1.0 + w.factors[1] / 1000.0,
                         1.0 + w.factors[2] / 1000.0};
    const int32_t status = ChangePaletteEntries(bitmap, [&](uint8_t *p) {
      const int32_t weighted = static_cast<int32_t>(p[2] * w.red + p[1] * w.green + p[0] * w.blue);
      const uint8_t gray = static_cast<uint8_t>(weighted / 1000);
      for (int32_t c = 0; c < 3; ++c) p[c] = Limit<uint8_t>(TruncateToInt32(f[c] * gray), 255);
    });
    if (status == RC_SUCCESS && bitmap->ColorOrder == ORDER_GRAY) bitmap->ColorOrder = ORDER_BGR;
    return status;
  }
  const bool deep = bits == 48 || bits == 64 || bits == 12 || (bits == 16 && ::IsGrayBitmap(bitmap));
  if (!deep) return ColoredGrayRows(bitmap, w);
  // 16-bit samples: the bitmap is made 64-bit colour for the work and leaves
  // as 64 bits when it came so, else as 48 (the order is always the wide
  // colour order: a 12- or 16-bit gray bitmap leaves as 48-bit colour).
  const bool was64 = bits == 64;
  if (!was64) {
    const PlainKernelSettings plain;
    const int32_t status =
        ::ConvertBitmapFormat(bitmap, bitmap, BITMAP_RECORD_SIZE, 64, ORDER_BGR_COLOR, nullptr, 0, 0);
    if (status != RC_SUCCESS) return status;
  }
  const int32_t status = ColoredGrayRows(bitmap, w);
  if (status != RC_SUCCESS) return status;
  const PlainKernelSettings plain;
  return ::ConvertBitmapFormat(bitmap, bitmap, BITMAP_RECORD_SIZE, was64 ? 64 : 48, ORDER_BGR_COLOR_WIDE,
                               nullptr, 0, 0);
}

// ---- Colour balance -------------------------------------------------------------------

using colrn::Mix;
using colrn::MixPixel;

// 8-bit rows of 3 or 4 samples with finite shares go through the double
// lanes of colrn::MixBytesAvx512 (the scalar's operations lane by lane).
int32_t Balance(BitmapRecord *bitmap, const Mix &mix, Isa isa) {
  if (IsPaletteBitmap(bitmap))
    return ChangePaletteEntries(bitmap, [&](uint8_t *p) { MixPixel(p, mix, 255); });
  RowPass pass(bitmap, RowSetup{.storedRows = true});
  if (pass.status() != RC_SUCCESS) return pass.status();
  if (pass.channels() < 3) return RC_UNSUPPORTED_BITMAP;
  const bool lanes = isa >= Isa::Avx512 && !pass.wide() && colrn::FiniteShares(mix);
  return colrn::RunRows(pass, kNoProgress, true, [&](auto &row) {
    const int64_t max = pass.wide() ? 65535 : 255;
    row.ForEachRun([&](int32_t left, int32_t right) {
      auto *p = row.Pixel(left);
      if constexpr (sizeof(*p) == 1) {
        if (lanes && (row.channels == 3 || row.channels == 4))
          return colrn::MixBytesAvx512(p, static_cast<std::size_t>(right - left), row.channels, mix);
      }
      for (int32_t x = left; x < right; ++x, p += row.channels) MixPixel(p, mix, max);
    });
  });
}

int32_t CheckShares(const ColorBalanceFactors *f) {
  if (!f) return RC_NULL_OPTIONS;
  if (f->StructSize != COLOR_BALANCE_FACTORS_SIZE) return RC_INVALID_STRUCT_SIZE;
  return 0;
}

// ---- Colour swap ----------------------------------------------------------------------

// For each output channel (blue, green, red in row order) the input channel
// it takes, per SWAP_* bit in the order they are tested.
struct Permutation {
  uint32_t bit;
  uint8_t from[3];  // working-row positions: 0 blue, 1 green, 2 red
};
constexpr Permutation kSwaps[] = {
    {SWAP_RG, {0, 2, 1}},    // R G B <- G R B
    {SWAP_RB, {2, 1, 0}},    // B G R
    {SWAP_GB, {1, 0, 2}},    // R B G
    {SWAP_RGBR, {1, 2, 0}},  // new R = B, G = R, B = G
    {SWAP_RBGR, {2, 0, 1}},  // new R = G, G = B, B = R
};

template <class T>
void PermuteRun(T *p, int32_t count, int32_t stride, const uint8_t *from) {
  for (int32_t i = 0; i < count; ++i, p += stride) {
    const T v[3] = {p[0], p[1], p[2]};
    p[0] = v[from[0]];
    p[1] = v[from[1]];
    p[2] = v[from[2]];
  }
}

// 24- to 64-bit bitmaps are permuted in their stored bytes (a pure exchange
// of samples, so the converter's round trip is not needed); the stored order
// (ORDER_RGB keeps red first) maps the working positions onto stored ones,
// and those onto the bytes of a stored pixel (a fourth sample stays).
int32_t SwapStored(BitmapRecord *bitmap, const uint8_t *from, Isa isa) {
  uint8_t stored[3];
  const bool rgb = bitmap->ColorOrder == ORDER_RGB;
  for (int32_t k = 0; k < 3; ++k) {
    const int32_t out = rgb ? 2 - k : k;
    stored[out] = static_cast<uint8_t>(rgb ? 2 - from[k] : from[k]);
  }
  StoredRowPass rows(bitmap);
  if (rows.status() != RC_SUCCESS) return rows.status();
  const int32_t bits = bitmap->BitsPerPixel;
  const int32_t samples = bits == 24 || bits == 48 ? 3 : 4, sampleBytes = bits <= 32 ? 1 : 2;
  const int32_t pixelBytes = samples * sampleBytes;
  uint8_t bytes[8];
  for (int32_t k = 0; k < samples; ++k)
    for (int32_t h = 0; h < sampleBytes; ++h)
      bytes[k * sampleBytes + h] = static_cast<uint8_t>((k < 3 ? stored[k] : k) * sampleBytes + h);
  const int32_t status = rows.Run(kNoProgress, [&](uint8_t *row, const RowRun *runs, int32_t n) {
    for (int32_t r = 0; r < n; ++r)
      colrn::PermuteBytes(isa, row + static_cast<std::ptrdiff_t>(runs[r].Start) * pixelBytes,
                          static_cast<std::size_t>(runs[r].End - runs[r].Start), pixelBytes, bytes);
  });
  if (status == RC_SUCCESS) ::UpdateBitmapInfo(bitmap);
  return status;
}

int32_t Swap(BitmapRecord *bitmap, const uint8_t *from, Isa isa) {
  if (IsPaletteBitmap(bitmap))
    return ChangePaletteEntries(bitmap, [&](uint8_t *p) { PermuteRun(p, 1, 3, from); });
  const int32_t bits = bitmap->BitsPerPixel;
  // Stored bytes are permuted in place only where the row converter would
  // accept the bitmap; one without pixel memory goes to it and is refused.
  if (bits >= 24 && (bitmap->ColorOrder == ORDER_RGB || bitmap->ColorOrder == ORDER_BGR) &&
      (bitmap->Flags & BITMAP_ALLOCATED) && bitmap->Pixels)
    return SwapStored(bitmap, from, isa);
  RowPass pass(bitmap, RowSetup{});
  if (pass.status() != RC_SUCCESS) return pass.status();
  if (pass.channels() < 3) return RC_UNSUPPORTED_BITMAP;
  return pass.RunRows([&](auto &row) {
    row.ForEachRun(
        [&](int32_t left, int32_t right) { PermuteRun(row.Pixel(left), right - left, row.channels, from); });
  });
}

}  // namespace

}  // namespace img

extern "C" IMG_API int32_t Q_ConvertToColoredGray(BitmapRecord *bitmap, int32_t redWeight,
                                                  int32_t greenWeight, int32_t blueWeight, int32_t redFactor,
                                                  int32_t greenFactor, int32_t blueFactor, uint32_t flags) {
  if (const int32_t status = img::CheckEntry(img::kFlagsEntry, flags, bitmap)) return status;
  namespace R = img::ranges;
  const int32_t smallest = std::min({redWeight, greenWeight, blueWeight});
  if (smallest < 0) return RC_INVALID_PARAMETER;
  if (!R::kGrayShare.Contains(redWeight) || !R::kGrayShare.Contains(greenWeight) ||
      !R::kGrayShare.Contains(blueWeight) || !R::kGrayFactor.Contains(redFactor) ||
      !R::kGrayFactor.Contains(greenFactor) || !R::kGrayFactor.Contains(blueFactor) ||
      !R::kGrayShare.Contains(static_cast<int64_t>(redWeight) + greenWeight + blueWeight))
    return RC_INVALID_PARAMETER;
  const img::GrayWeights w{static_cast<uint32_t>(redWeight),
                           static_cast<uint32_t>(greenWeight),
                           static_cast<uint32_t>(blueWeight),
                           {blueFactor, greenFactor, redFactor}};
  return img::ColoredGray(bitmap, w);
}

namespace img {

int32_t colrn::BalanceWithIsa(BitmapRecord *bitmap, const ColorBalanceFactors *redFactors,
                              const ColorBalanceFactors *greenFactors, const ColorBalanceFactors *blueFactors,
                              uint32_t flags, Isa isa) {
  if (const int32_t status = CheckEntry(kFlagsEntry, flags, bitmap)) return status;
  const ColorBalanceFactors *records[3] = {redFactors, greenFactors, blueFactors};
  for (const ColorBalanceFactors *f : records)
    if (const int32_t status = CheckShares(f)) return status;
  if (::IsGrayBitmap(bitmap)) return RC_UNSUPPORTED_BITMAP;
  Mix mix{};
  for (int32_t i = 0; i < 3; ++i) {
    const double shares[3] = {records[i]->ToRed, records[i]->ToGreen, records[i]->ToBlue};
    // A share below 0 refuses the record; NaN is not below 0 (and its
    // products count as 0).
    if (shares[0] < 0.0 || shares[1] < 0.0 || shares[2] < 0.0) return RC_INVALID_PARAMETER;
    for (int32_t k = 0; k < 3; ++k) mix.share[i][k] = shares[k];
  }
  return Balance(bitmap, mix, isa);
}

int32_t colrn::SwapWithIsa(BitmapRecord *bitmap, uint32_t flags, Isa isa) {
  if (const int32_t status = CheckEntry(kSwapEntry, 0, bitmap)) return status;
  // A gray bitmap has nothing to swap: success, deliberately before the
  // flags are looked at.
  if (::IsGrayBitmap(bitmap)) {
    ::FinishOperation();
    return RC_SUCCESS;
  }
  for (const Permutation &p : kSwaps)
    if (flags & p.bit) return Swap(bitmap, p.from, isa);
  return RC_INVALID_PARAMETER;
}

}  // namespace img

extern "C" IMG_API int32_t Q_SwapColors(BitmapRecord *bitmap, uint32_t flags) {
  return img::colrn::SwapWithIsa(bitmap, flags, img::BestIsa());
}

extern "C" IMG_API int32_t Q_BalanceColors(BitmapRecord *bitmap, const ColorBalanceFactors *redFactors,
                                           const ColorBalanceFactors *greenFactors,
                                           const ColorBalanceFactors *blueFactors, uint32_t flags) {
  return img::colrn::BalanceWithIsa(bitmap, redFactors, greenFactors, blueFactors, flags, img::BestIsa());
}
