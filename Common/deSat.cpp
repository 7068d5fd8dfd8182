// Desaturation: blue, green and red of every pixel (or palette entry) become
// the mean of the largest and the smallest of them, the lightness of the HSL
// model. The bitmap keeps its depth and kind; a fourth sample is untouched.
// Rows of three samples take the AVX2 loop where the processor has it.
#include "deSat.h"

#include "frame.h"
#include "imgcolor.h"

namespace img {

namespace {

constexpr EntryRule kEntry{.flagsWord = true, .nullBitmap = NullBitmap::Refused, .signedData = true};

template <class Sample>
inline void Lightness(Sample *p) {
  const uint32_t b = p[0], g = p[1], r = p[2];
  uint32_t hi = b > g ? b : g, lo = b > g ? g : b;
  hi = r > hi ? r : hi;
  lo = r < lo ? r : lo;
  const auto v = static_cast<Sample>((hi + lo) / 2u);
  p[0] = v;
  p[1] = v;
  p[2] = v;
}

// Pixels [left, right) of a working row; the stride is known at compile time
// for the usual three and four samples.
template <class Sample, int32_t kChannels>
void ScalarPixels(Sample *row, int32_t channels, int32_t left, int32_t right) {
  const std::ptrdiff_t n = kChannels ? kChannels : channels;
  Sample *p = row + left * n;
  for (int32_t x = left; x < right; ++x, p += n) Lightness(p);
}

template <class Sample>
void Pixels(Isa isa, Sample *row, int32_t channels, int32_t left, int32_t right) {
  if (channels == 3) {
    if (isa >= Isa::Avx2) left = desat::DesaturateAvx2(row, left, right);
    return ScalarPixels<Sample, 3>(row, 3, left, right);
  }
  if (channels == 4) return ScalarPixels<Sample, 4>(row, 4, left, right);
  ScalarPixels<Sample, 0>(row, channels, left, right);
}

}  // namespace

void desat::DesaturatePixels(Isa isa, uint8_t *row, int32_t channels, int32_t left, int32_t right) {
  Pixels(BestIsa(isa), row, channels, left, right);
}
void desat::DesaturatePixels(Isa isa, uint16_t *row, int32_t channels, int32_t left, int32_t right) {
  Pixels(BestIsa(isa), row, channels, left, right);
}

namespace {

template <class Sample>
void DesaturateRow(Isa isa, const RowView<Sample> &row) {
  row.ForEachRun([&](int32_t left, int32_t right) { Pixels(isa, row.samples, row.channels, left, right); });
}

int32_t Desaturate(BitmapRecord *bitmap) {
  if (IsGrayBitmap(bitmap)) return RC_UNSUPPORTED_BITMAP;
  // Palette bitmaps change their palette, with or without a region. Without
  // a row buffer the bitmap is left as it is and the call succeeds: callers
  // rely on this quiet success.
  RowPass pass(bitmap, RowSetup{.palette = PaletteRule::Entries, .noRowBuffer = NoRowBuffer::Succeeds});
  if (pass.status() != RC_SUCCESS) return pass.status();
  const Isa isa = BestIsa();
  const int32_t status = pass.Run([isa](auto &row) { DesaturateRow(isa, row); });
  return status == RC_SUCCESS && pass.OnPalette() ? FinishOperation() : status;
}

}  // namespace

}  // namespace img

extern "C" IMG_API int32_t Q_DesaturateBitmap(BitmapRecord *bitmap, uint32_t flags) {
  if (const int32_t status = img::CheckEntry(img::kEntry, flags, bitmap)) return status;
  return img::Desaturate(bitmap);
}
