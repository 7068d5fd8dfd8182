// Channel mix: red, green and blue each replaced by a weighted sum of the
// three input channels plus a constant, inside the region, or on the palette
// of a palette bitmap. 8-bit rows add three table terms rounded one by one;
// 16-bit rows and palette entries round the whole sum once (the difference
// of one that this can make is kept). Definitions: docs/planes.md.
#include "chmix.h"

#include "frame.h"

namespace img {

namespace {

static constexpr const wchar_t *kSourceFile = L"Common/chmix";

// Only the record size is checked by the frame; the flags word, the gray
// refusal, 32-bit gray and signed data follow in the course's own order.
constexpr EntryRule kSizeOnly{.flagsWord = false, .nullBitmap = NullBitmap::Passed, .gray32 = false};
constexpr KindChecks kAfterGray{.gray32 = true, .signedData = true};

inline int32_t Clamp(int64_t v, int32_t top) { return v < 0 ? 0 : v > top ? top : static_cast<int32_t>(v); }

// One output channel of a 16-bit pixel or a palette entry: the sum rounded
// once, truncating toward zero.
inline int32_t MixOnce(const ChannelMixFactors &f, int64_t r, int64_t g, int64_t b, int32_t full) {
  const int64_t sum =
      b * f.BlueFactor + g * f.GreenFactor + r * f.RedFactor + static_cast<int64_t>(f.Constant) * full + 50;
  return Clamp(sum / 100, full);
}

int32_t Mix(BitmapRecord *bitmap, const ChannelMixFactors *const factors[3]) {
  RowPass pass(bitmap, RowSetup{.palette = PaletteRule::Entries});
  if (pass.status() != RC_SUCCESS) return pass.status();
  if (pass.OnPalette()) {
    const int32_t status = RunPaletteRow(bitmap, [&](RowView<uint8_t> &row) {
      row.ForEach([&](int32_t x) {
        uint8_t *p = row.Pixel(x);
        const int32_t b = p[0], g = p[1], r = p[2];
        for (int32_t c = 0; c < 3; ++c) p[2 - c] = static_cast<uint8_t>(MixOnce(*factors[c], r, g, b, 255));
      });
    });
    ::FinishOperation();
    ::UpdateBitmapInfo(bitmap);
    return status;
  }
  ChannelMixTables tables{};
  if (!pass.wide()) {
    IMG_BUFFER(int32_t, storage, 3 * 3 * 256);
    if (!storage) return RC_NO_MEMORY;
    BuildChannelMixTables(factors, storage.get(), tables);
    // Without a region, stored rows that are the working rows byte for byte
    // (B, G, R and B, G, R, fourth) are mixed where they are: the pass would
    // copy each row out and back unchanged around the same row function.
    if (!::BitmapHasRegion(bitmap) && PlainWorkingRow(bitmap, ROW_LAYOUT_NATIVE)) {
      const Isa isa = BestIsa();
      for (int32_t y = 0; y < bitmap->Height; ++y)
        MixRow8(tables, StoredRow(bitmap, y), pass.channels(), 0, bitmap->Width, isa);
      ::UpdateBitmapInfo(bitmap);
      return RC_SUCCESS;
    }
    return pass.RunRows([&](auto &row) {
      using T = std::remove_reference_t<decltype(*row.samples)>;
      if constexpr (sizeof(T) == 1)
        row.ForEachRun([&](int32_t left, int32_t right) {
          MixRow8(tables, row.samples, row.channels, left, right, BestIsa());
        });
    });
  }
  return pass.RunRows([&](auto &row) {
    using T = std::remove_reference_t<decltype(*row.samples)>;
    if constexpr (sizeof(T) == 2)
      row.ForEach([&](int32_t x) {
        T *p = row.Pixel(x);
        const int64_t b = p[0], g = p[1], r = p[2];
        for (int32_t c = 0; c < 3; ++c) p[2 - c] = static_cast<T>(MixOnce(*factors[c], r, g, b, 65535));
      });
  });
}

}  // namespace

// table(input c)[v] = (v × factor of c + 50) / 100, truncating; the blue
// input's table also carries the constant (Constant × 255 + 50) / 100.
void BuildChannelMixTables(const ChannelMixFactors *const factors[3], int32_t *storage,
                           ChannelMixTables &tables) {
  for (int32_t out = 0; out < 3; ++out) {
    const ChannelMixFactors &f = *factors[out];
    const int32_t constant = (f.Constant * 255 + 50) / 100;
    const int32_t weights[3] = {f.RedFactor, f.GreenFactor, f.BlueFactor};
    for (int32_t in = 0; in < 3; ++in) {
      int32_t *t = storage + (out * 3 + in) * 256;
      for (int32_t v = 0; v < 256; ++v) {
        t[v] = (v * weights[in] + 50) / 100 + (in == 2 ? constant : 0);
        tables.low[out][in][v] = static_cast<uint8_t>(static_cast<uint32_t>(t[v]) & 0xFFu);
        tables.high[out][in][v] = static_cast<int8_t>((t[v] - (t[v] & 0xFF)) / 256);
      }
      tables.table[out][in] = t;
      const int32_t magnitude = weights[in] < 0 ? -weights[in] : weights[in];
      tables.whole[out][in] = static_cast<int16_t>(magnitude / 100);
      tables.part[out][in] = static_cast<int16_t>(magnitude % 100);
      tables.negative[out][in] = weights[in] < 0;
    }
    tables.constant[out] = static_cast<int16_t>(constant);
  }
}

// Pixels [left, right) of a row of blue, green, red (, fourth) samples: each
// output the clamped sum of its three terms, from the unchanged inputs.
void MixRow8Scalar(const ChannelMixTables &t, uint8_t *row, int32_t channels, int32_t left, int32_t right) {
  uint8_t *p = row + static_cast<std::ptrdiff_t>(left) * channels;
  for (int32_t x = left; x < right; ++x, p += channels) {
    const int32_t b = p[0], g = p[1], r = p[2];
    int32_t out[3];
    for (int32_t c = 0; c < 3; ++c) {
      const int32_t v = t.table[c][0][r] + t.table[c][1][g] + t.table[c][2][b];
      out[c] = v < 0 ? 0 : v > 255 ? 255 : v;
    }
    p[2] = static_cast<uint8_t>(out[0]);
    p[1] = static_cast<uint8_t>(out[1]);
    p[0] = static_cast<uint8_t>(out[2]);
  }
}

}  // namespace img

extern "C" IMG_API int32_t Q_ChannelMix(BitmapRecord *bitmap, const ChannelMixFactors *red,
                                        const ChannelMixFactors *green, const ChannelMixFactors *blue,
                                        uint32_t flags) {
  if (const int32_t status = img::CheckEntry(img::kSizeOnly, 0, bitmap)) return status;
  if (flags != 0) return RC_INVALID_PARAMETER;
  if (bitmap) {
    if (IsGrayBitmap(bitmap)) return RC_UNSUPPORTED_BITMAP;
    if (const int32_t status = img::CheckKind(img::kAfterGray, bitmap)) return status;
  }
  if (!bitmap || !red || !green || !blue) return RC_INVALID_PARAMETER;
  const ChannelMixFactors *const factors[3] = {red, green, blue};
  for (const ChannelMixFactors *f : factors)
    for (int32_t v : {f->RedFactor, f->GreenFactor, f->BlueFactor, f->Constant})
      if (!img::ranges::kMixFactor.Contains(v)) return RC_INVALID_PARAMETER;
  // A palette bitmap without a palette is gray (refused above): kept as written.
  if (img::IsPaletteBitmap(bitmap) && bitmap->PaletteFlag == PALETTE_FLAG_NONE) return RC_INVALID_PARAMETER;
  return img::Mix(bitmap, factors);
}

namespace img {

// AVX-512 and AVX2 loops; the levels below, and the pixels a loop leaves
// over, run the scalar form.
void MixRow8(const ChannelMixTables &tables, uint8_t *row, int32_t channels, int32_t left, int32_t right,
             Isa isa) {
  if (isa >= Isa::Avx512 && IsaAvailable(Isa::Avx512))
    left = MixRow8Avx512(tables, row, channels, left, right);
  else if (isa >= Isa::Avx2 && IsaAvailable(Isa::Avx2))
    left = MixRow8Avx2(tables, row, channels, left, right);
  MixRow8Scalar(tables, row, channels, left, right);
}

}  // namespace img
