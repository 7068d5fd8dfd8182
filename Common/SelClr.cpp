// Selective colour: each pixel belongs to the colour ranges with weights
// from its sorted samples, and each ink (cyan, magenta, yellow: one minus
// red, green, blue) changes by the weighted adjustments of the ranges.
// Palette bitmaps change their entries.
#include "SelClr.h"

#include "frame.h"

namespace img::selclr {

Plan MakePlan(const SelectiveColorOptions &options) {
  Plan plan{};
  plan.relative = options.Method == SELCOLOR_RELATIVE;
  for (int32_t k = 0; k < SELCOLOR_RANGES; ++k) {
    const SelectiveColorAdjust &a = options.Ranges[k];
    plan.adjust[0][k] = a.Cyan + a.Black;
    plan.adjust[1][k] = a.Magenta + a.Black;
    plan.adjust[2][k] = a.Yellow + a.Black;
  }
  return plan;
}

void SelectRun8(Isa isa, uint8_t *row, int32_t channels, int32_t first, int32_t end, const Plan &plan) {
  const Isa best = BestIsa(isa);
  if (best >= Isa::Avx512) return SelectRun8Avx512(row, channels, first, end, plan);
  if (best >= Isa::Avx2) return SelectRun8Avx2(row, channels, first, end, plan);
  if (best >= Isa::Sse2)
    return plan.relative ? SelectRunPlanar8<true>(row, channels, first, end, plan)
                         : SelectRunPlanar8<false>(row, channels, first, end, plan);
  if (plan.relative)
    SelectRunOf<uint8_t, 255, true>(row, channels, first, end, plan);
  else
    SelectRunOf<uint8_t, 255, false>(row, channels, first, end, plan);
}

void SelectRun16(uint16_t *row, int32_t channels, int32_t first, int32_t end, const Plan &plan) {
  if (plan.relative)
    SelectRunOf<uint16_t, 65535, true>(row, channels, first, end, plan);
  else
    SelectRunOf<uint16_t, 65535, false>(row, channels, first, end, plan);
}

namespace {

int32_t CheckOptions(const SelectiveColorOptions *options) {
  if (options == nullptr) return RC_NULL_OPTIONS;
  if (options->StructSize != sizeof(SelectiveColorOptions)) return RC_INVALID_STRUCT_SIZE;
  if (!ranges::kSelectiveMethod.Contains(options->Method)) return RC_INVALID_PARAMETER;
  for (const SelectiveColorAdjust &a : options->Ranges)
    for (const int32_t v : {a.Cyan, a.Magenta, a.Yellow, a.Black})
      if (!ranges::kSelectiveAdjust.Contains(v)) return RC_INVALID_PARAMETER;
  return 0;
}

// Palette bitmaps: the entries, bracketed by the reports 0 and 100. Rows:
// progress 0..100 as each row is read, before it changes (a cancel leaves
// that row and those below as they were). The report comes from the kernel,
// where the converter's read would give it (the same percentages and
// answers), so that stored rows are changed in place without the converter's
// two copies of each row.
int32_t Worker(BitmapRecord *bitmap, const Plan &plan) {
  RowPass pass(bitmap, RowSetup{.palette = PaletteRule::Entries, .storedRows = true});
  if (pass.status() != RC_SUCCESS) return pass.status();
  const auto change = [&](auto &row) {
    using T = std::remove_reference_t<decltype(*row.samples)>;
    row.ForEachRun([&](int32_t first, int32_t end) {
      if constexpr (sizeof(T) == 1)
        SelectRun8(Isa::Avx512, row.samples, row.channels, first, end, plan);
      else
        SelectRun16(row.samples, row.channels, first, end, plan);
    });
  };
  if (pass.OnPalette()) return Bracketed(kFullProgress, [&] { return RunPaletteRow(bitmap, change); });
  Rect bounds{};
  if (const int32_t status = ::GetRegionBounds(bitmap, nullptr, &bounds); status != RC_SUCCESS) return status;
  const int64_t rows = static_cast<int64_t>(bounds.Bottom) - bounds.Top;
  Progress progress;
  return pass.RunRows([&](auto &row) -> int32_t {
    const int32_t answer =
        progress.step(ProgressAt(kFullProgress, static_cast<int64_t>(row.y) - bounds.Top + 1, rows));
    if (answer != RC_SUCCESS) return answer;
    change(row);
    return RC_SUCCESS;
  });
}

}  // namespace

}  // namespace img::selclr

extern "C" IMG_API int32_t Q_SelectiveColorBitmap(BitmapRecord *bitmap, const SelectiveColorOptions *options,
                                                  uint32_t flags) {
  constexpr img::EntryRule kEntry{
      .flagsWord = true, .nullBitmap = img::NullBitmap::Refused, .signedData = true};
  if (const int32_t status = img::CheckEntry(kEntry, flags, bitmap)) return status;
  if (const int32_t status = img::selclr::CheckOptions(options)) return status;
  if (IsGrayBitmap(bitmap)) return RC_UNSUPPORTED_BITMAP;
  return img::selclr::Worker(bitmap, img::selclr::MakePlan(*options));
}
