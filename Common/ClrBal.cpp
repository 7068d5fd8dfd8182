// Colour intensity balance: automatic white balance through one table per
// channel. The statistics come from the pixels inside the region (0..50);
// the tables change those pixels, or the palette of a palette bitmap without
// a region (50..100).
//
// Gray world: gain_c = (S_r + S_g + S_b) / (3 S_c) with S_c the channel's sum
// (exact integers turned into doubles, so equal sums give exactly 1). White
// patch: gain_c = T / p_c with p_c the smallest value at or below which at
// least 99.5 % of the channel's samples lie. A channel without a gain (a sum
// or a p_c of 0) keeps gain 1. Table entry v = v + (v * gain - v) * k / 100
// for strength k, in doubles, rounded to nearest and limited to 0..T.
#include <type_traits>

#include "Colr_n_internal.h"
#include "frame.h"

namespace img {

namespace {

static constexpr const wchar_t *kSourceFile = L"Common/ClrBal";

constexpr EntryRule kEntry{.flagsWord = true, .nullBitmap = NullBitmap::Refused, .signedData = true};

void BuildBalanceTable(uint16_t *table, int32_t length, double gain, uint32_t strength) {
  const double k = strength / 100.0;
  const double top = length - 1;
  for (int32_t v = 0; v < length; ++v) {
    const double value = v + (v * gain - v) * k + 0.5;
    table[v] = static_cast<uint16_t>(value < 0.0 ? 0.0 : value > top ? top : value);
  }
}

// p_c: the smallest value whose cumulative count reaches 99.5 % (count *
// 1000 >= total * 995).
uint32_t PatchValue(const uint32_t *histogram, int32_t bins) {
  uint64_t total = 0;
  for (int32_t v = 0; v < bins; ++v) total += histogram[v];
  uint64_t sum = 0;
  for (int32_t v = 0; v < bins; ++v) {
    sum += histogram[v];
    if (sum * 1000u >= total * 995u) return static_cast<uint32_t>(v);
  }
  return 0;
}

// 8-bit rows of 3 or 4 samples are summed, counted and mapped by the byte
// loops (exact integer sums and counts; the tables' entries are at most 255);
// bitmaps whose working rows are their stored rows are walked in place, with
// the progress the row pass would report.
int32_t Balance(BitmapRecord *bitmap, uint32_t method, uint32_t strength, Isa isa) {
  RowPass pass(bitmap, RowSetup{.progress = {0, 50, true},
                                .palette = PaletteRule::EntriesWithoutRegion,
                                .write = false,
                                .progressAt = ProgressPoint::AfterRow,
                                .storedRows = true});
  if (pass.status() != RC_SUCCESS) return pass.status();
  if (pass.channels() < 3) return RC_UNSUPPORTED_BITMAP;
  const int32_t bins = pass.wide() ? 65536 : 256;
  const bool bytes = !pass.wide() && (pass.channels() == 3 || pass.channels() == 4);
  const bool patch = method == INTENSITY_BALANCE_WHITE_PATCH;
  KernelBuffer<uint32_t> histograms, counts;
  if (patch) {
    histograms = KernelBuffer<uint32_t>(static_cast<std::size_t>(bins) * 3, __LINE__, kSourceFile);
    if (!histograms) return RC_NO_MEMORY;
    if (bytes) {
      counts = KernelBuffer<uint32_t>(colrn::kCountsSize, __LINE__, kSourceFile);
      if (!counts) return RC_NO_MEMORY;
    }
  }
  IMG_BUFFER(uint16_t, tables, static_cast<std::size_t>(bins) * 3);
  if (!tables) return RC_NO_MEMORY;
  uint64_t sums[3] = {0, 0, 0};
  uint32_t *h = histograms.get();
  int32_t status = colrn::RunRows(pass, {0, 50, true}, false, [&](auto &row) {
    row.ForEachRun([&](int32_t left, int32_t right) {
      const auto *p = row.Pixel(left);
      if constexpr (sizeof(*p) == 1) {
        if (bytes) {
          const std::size_t pixels = static_cast<std::size_t>(right - left);
          if (patch) return colrn::CountBytes(p, pixels, row.channels, counts.get());
          return colrn::SumChannels(isa, p, pixels, row.channels, sums);
        }
      }
      for (int32_t x = left; x < right; ++x, p += row.channels) {
        if (patch) {
          ++h[p[0]];
          ++h[bins + p[1]];
          ++h[2 * bins + p[2]];
        } else {
          sums[0] += p[0];
          sums[1] += p[1];
          sums[2] += p[2];
        }
      }
    });
  });
  if (status != RC_SUCCESS) return status;
  if (patch && bytes) colrn::FoldCounts(counts.get(), 3, h);
  for (int32_t c = 0; c < 3; ++c) {
    double gain = 1.0;
    if (patch) {
      const uint32_t value = PatchValue(h + c * bins, bins);
      if (value != 0) gain = static_cast<double>(bins - 1) / value;
    } else if (sums[c] != 0) {
      gain = static_cast<double>(sums[0] + sums[1] + sums[2]) / (3.0 * static_cast<double>(sums[c]));
    }
    BuildBalanceTable(tables.get() + c * bins, bins, gain, strength);
  }
  const uint16_t *t = tables.get();
  uint8_t byteTables[3 * 256];
  for (int32_t k = 0; bins == 256 && k < 3 * 256; ++k) byteTables[k] = static_cast<uint8_t>(t[k]);
  auto apply = [&](auto &row) {
    using T = std::remove_reference_t<decltype(*row.samples)>;
    // A palette row always has 8-bit samples and 256-entry tables.
    row.ForEachRun([&](int32_t left, int32_t right) {
      T *p = row.Pixel(left);
      if constexpr (sizeof(T) == 1) {
        if (row.channels == 3 || row.channels == 4)
          return colrn::LookupBytes(isa, p, static_cast<std::size_t>(right - left) * row.channels,
                                    row.channels, byteTables);
      }
      for (int32_t x = left; x < right; ++x, p += row.channels)
        for (int32_t c = 0; c < 3; ++c) p[c] = static_cast<T>(t[c * bins + p[c]]);
    });
  };
  if (pass.OnPalette()) return Bracketed({50, 100, true}, [&] { return RunPaletteRow(bitmap, apply); });
  return colrn::RunRows(pass, {50, 100, true}, true, apply);
}

}  // namespace

}  // namespace img

namespace img {

int32_t colrn::IntensityBalanceWithIsa(BitmapRecord *bitmap, uint32_t method, uint32_t strength,
                                       uint32_t flags, Isa isa) {
  if (const int32_t status = CheckEntry(kEntry, flags, bitmap)) return status;
  if (!ranges::kIntensityBalanceMethod.Contains(method) ||
      !ranges::kIntensityBalanceStrength.Contains(strength))
    return RC_INVALID_PARAMETER;
  if (::IsGrayBitmap(bitmap)) return RC_UNSUPPORTED_BITMAP;
  return Balance(bitmap, method, strength, isa);
}

}  // namespace img

extern "C" IMG_API int32_t Q_ColorIntensityBalance(BitmapRecord *bitmap, uint32_t method, uint32_t strength,
                                                   uint32_t flags) {
  return img::colrn::IntensityBalanceWithIsa(bitmap, method, strength, flags, img::BestIsa());
}
