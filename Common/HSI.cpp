// Hue shift, saturation change and intensity change by hue bands. The
// changes are gathered into one table indexed by hue in whole degrees; each
// pixel takes the entry of its hue before the shift. Hue is shifted in HSV,
// saturation changed in HLS, intensity added to the RGB samples.
#include "HSI.h"

#include <cmath>

#include "ClrSpc.h"
#include "colour_memo.h"
#include "frame.h"
#include "hue_model.h"
#include "imgplatform.h"

static constexpr const wchar_t *kSourceFile = L"Common/HSI";

namespace img::hsi {

namespace {

// 32-bit arithmetic that wraps instead of overflowing (only reachable with
// thousands of records adding up).
inline int32_t Add32(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}
inline int32_t Mul32(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}
inline int32_t Clamp(int32_t v, int32_t lo, int32_t hi) { return v < lo ? lo : (v > hi ? hi : v); }

// s + s × change / full, clamped to 0..full. The product is taken in 64 bits:
// changes summed over many records exceed 32 bits once multiplied.
inline int32_t ChangeSaturation(int32_t s, int32_t change, int32_t full) {
  const int64_t v = s + int64_t{s} * change / full;
  return v < 0 ? 0 : v > full ? full : static_cast<int32_t>(v);
}

void AddChange(HueChange &e, int32_t hue, int32_t saturation, int32_t intensity) {
  e.hue = Add32(e.hue, hue);
  if (e.hue > 18000) e.hue -= 36000;
  if (e.hue < -18000) e.hue += 36000;
  e.saturation = Add32(e.saturation, saturation);
  e.intensity = Add32(e.intensity, intensity);
}

}  // namespace

int32_t ValidateRanges(const BitmapRecord *bitmap, int32_t hue, int32_t saturation, int32_t intensity,
                       HueSatIntRange *ranges, uint32_t count) {
  if (bitmap == nullptr) return RC_NO_BITMAP;
  if (!ranges::kChange.Contains(saturation) || !ranges::kChange.Contains(intensity) ||
      !ranges::kHueShift.Contains(hue))
    return RC_INVALID_PARAMETER;
  for (uint32_t i = 0; i < count; ++i) {
    const HueSatIntRange &r = ranges[i];
    if (!ranges::kChange.Contains(r.Saturation) || !ranges::kChange.Contains(r.Intensity) ||
        !ranges::kHueShift.Contains(r.Hue) || !ranges::kBandAngle.Contains(r.OuterStart) ||
        !ranges::kBandAngle.Contains(r.OuterEnd) || !ranges::kBandAngle.Contains(r.InnerStart) ||
        !ranges::kBandAngle.Contains(r.InnerEnd))
      return RC_INVALID_PARAMETER;
  }
  for (uint32_t i = 0; i < count; ++i) {
    HueSatIntRange &r = ranges[i];
    for (int32_t *a : {&r.OuterStart, &r.OuterEnd, &r.InnerStart, &r.InnerEnd})
      if (*a < 0) *a += 360;
    // A band across 0 degrees continues past 360.
    if (r.OuterStart > r.OuterEnd) {
      if (r.OuterEnd >= 0) r.OuterEnd += 360;
      if (r.InnerEnd >= 0) r.InnerEnd += 360;
    }
  }
  if (IsGrayBitmap(bitmap)) return RC_INVALID_PARAMETER;
  for (uint32_t i = 0; i < count; ++i) {
    const HueSatIntRange &r = ranges[i];
    if (r.OuterStart > r.OuterEnd || r.InnerStart > r.InnerEnd || r.InnerStart < r.OuterStart ||
        r.InnerEnd > r.OuterEnd)
      return RC_INVALID_PARAMETER;
  }
  return 0;
}

void BuildHueTable(HueChange *table, int32_t hue, int32_t saturation, int32_t intensity,
                   const HueSatIntRange *ranges, uint32_t count, int32_t bits) {
  for (int32_t h = 0; h < kHueEntries; ++h) table[h] = HueChange{hue, saturation, intensity};
  for (uint32_t i = 0; i < count; ++i) {
    const HueSatIntRange &r = ranges[i];
    for (int32_t h = 0; h < kHueEntries; ++h) {
      const int32_t g = (h < r.OuterStart && r.OuterEnd > 360) ? h + 360 : h;
      if (g < r.OuterStart || g > r.OuterEnd) continue;
      if (g >= r.InnerStart && g <= r.InnerEnd) {
        AddChange(table[h], r.Hue, r.Saturation, r.Intensity);
        continue;
      }
      double w;
      if (g > r.InnerEnd)
        w = std::fabs(static_cast<double>(g - r.OuterEnd) / static_cast<double>(r.OuterEnd - r.InnerEnd));
      else  // the rising side weighs the unwrapped hue h, not g: kept
        w = static_cast<double>(h - r.OuterStart) / static_cast<double>(r.InnerStart - r.OuterStart);
      AddChange(table[h], static_cast<int32_t>(r.Hue * w), static_cast<int32_t>(r.Saturation * w),
                static_cast<int32_t>(r.Intensity * w));
    }
  }
  const bool wide = bits == 16;
  const int32_t full = wide ? 65535 : 255;
  for (int32_t h = 0; h < kHueEntries; ++h) {
    HueChange &e = table[h];
    e.hue = Mul32(e.hue, 100) / (wide ? 100 : 10000);
    e.saturation = Mul32(e.saturation, 100) / (wide ? 10 : 1000);
    const int32_t in = e.intensity < 1000 ? e.intensity : 1000;  // only the top is clamped
    e.intensity = Add32(Mul32(in, full), 500) / 1000;
  }
}

namespace {

inline uint16_t Load16(const uint8_t *p) {
  uint16_t v;
  __builtin_memcpy(&v, p, 2);
  return v;
}
inline void Store16(uint8_t *p, uint32_t v) {
  const uint16_t u = static_cast<uint16_t>(v);
  __builtin_memcpy(p, &u, 2);
}
inline uint32_t Load32(const uint8_t *p) {
  uint32_t v;
  __builtin_memcpy(&v, p, 4);
  return v;
}
inline void Store32(uint8_t *p, uint32_t v) { __builtin_memcpy(p, &v, 4); }

// The three changes of one row of 8-bit (T = uint8_t) or 16-bit samples, or
// of the palette entries (8-bit), each pixel taking the entry of its hue
// before the shift: hue in HSV, saturation in HLS, intensity on the samples.
template <class T>
int32_t ChangeRow(SpaceRow<T, ClrSpcConversions> &row, int32_t *index, const HueChange *table) {
  constexpr bool kWide = sizeof(T) == 2;
  constexpr int32_t kCircle = kWide ? 36000 : 360;
  constexpr int32_t kSatFull = kWide ? 10000 : 100;
  constexpr int32_t kMax = kWide ? 65535 : 255;
  constexpr std::ptrdiff_t kSize = kWide ? 8 : 4;  // bytes of an HSV or HLS pixel
  int32_t status = row.To(COLORSPACE_HSV);
  if (status != RC_SUCCESS) return status;
  uint8_t *const hsv = row.Space(COLORSPACE_HSV);
  row.row.ForEach([&](int32_t x) {
    uint8_t *p = hsv + x * kSize;
    const int32_t h = kWide ? static_cast<int32_t>(Load32(p)) : Load16(p);
    const int32_t i = kWide ? h / 100 : h;
    index[x] = i;
    int32_t n = h + table[i].hue;
    if (n < 0) n += kCircle;
    n %= kCircle;
    if constexpr (kWide)
      Store32(p, static_cast<uint32_t>(n));
    else
      Store16(p, static_cast<uint32_t>(n));
  });
  if ((status = row.Back(COLORSPACE_HSV)) != RC_SUCCESS) return status;
  if ((status = row.To(COLORSPACE_HLS)) != RC_SUCCESS) return status;
  uint8_t *const hls = row.Space(COLORSPACE_HLS);
  row.row.ForEach([&](int32_t x) {
    uint8_t *p = hls + x * kSize;
    const int32_t change = table[index[x]].saturation;
    if constexpr (kWide)
      Store16(p + 6, static_cast<uint32_t>(ChangeSaturation(Load16(p + 6), change, kSatFull)));
    else
      p[3] = static_cast<uint8_t>(ChangeSaturation(p[3], change, kSatFull));
  });
  if ((status = row.Back(COLORSPACE_HLS)) != RC_SUCCESS) return status;
  row.row.ForEach([&](int32_t x) {
    const int32_t add = table[index[x]].intensity;
    T *q = row.rgb + static_cast<std::ptrdiff_t>(x) * 3;
    for (int32_t k = 0; k < 3; ++k) q[k] = static_cast<T>(Clamp(q[k] + add, 0, kMax));
  });
  return RC_SUCCESS;
}

// The three changes of one pixel (blue, green, red in rgb), the steps of
// ChangeRow on a row of one pixel.
template <class T>
void ChangePixel(T *rgb, const HueChange *table) {
  constexpr bool kWide = sizeof(T) == 2;
  constexpr int32_t kCircle = kWide ? 36000 : 360;
  constexpr int32_t kSatFull = kWide ? 10000 : 100;
  constexpr int32_t kMax = kWide ? 65535 : 255;
  constexpr uint32_t kBack = COLORSPACE_TO_RGB;
  const auto convert = [rgb](uint32_t code, uint8_t *p) {
    if constexpr (kWide)
      ConvertColorRow16(code, rgb, p, nullptr, 0, 1);
    else
      ConvertColorRow8(code, rgb, p, nullptr, 0, 1);
  };
  uint8_t p[8];
  convert(COLORSPACE_HSV, p);
  const int32_t h = kWide ? static_cast<int32_t>(Load32(p)) : Load16(p);
  const HueChange &e = table[kWide ? h / 100 : h];
  int32_t n = h + e.hue;
  if (n < 0) n += kCircle;
  n %= kCircle;
  if constexpr (kWide)
    Store32(p, static_cast<uint32_t>(n));
  else
    Store16(p, static_cast<uint32_t>(n));
  convert(COLORSPACE_HSV + kBack, p);
  convert(COLORSPACE_HLS, p);
  if constexpr (kWide)
    Store16(p + 6, static_cast<uint32_t>(ChangeSaturation(Load16(p + 6), e.saturation, kSatFull)));
  else
    p[3] = static_cast<uint8_t>(ChangeSaturation(p[3], e.saturation, kSatFull));
  convert(COLORSPACE_HLS + kBack, p);
  for (int32_t k = 0; k < 3; ++k) rgb[k] = static_cast<T>(Clamp(rgb[k] + e.intensity, 0, kMax));
}

// 8-bit rows at a set of AVX2 or above, with a table that fits the loops:
// three- and four-sample rows through the loops (no memo), others one pixel
// at a time.
int32_t ChangeRowsInLanes(RowPass &pass, const HueChange *table, const LaneTable &lanes, Isa isa) {
  return pass.RunRows([&](auto &row) {
    if constexpr (sizeof(*row.samples) == 1) {
      row.ForEachRun([&](int32_t left, int32_t right) {
        if (row.channels == 3 || row.channels == 4)
          ChangeRow8(isa, row.samples, row.channels, left, right, table, lanes);
        else
          ForEachColour(row.samples, row.channels, left, right, [&](int32_t &r, int32_t &g, int32_t &b) {
            uint8_t rgb[3] = {static_cast<uint8_t>(b), static_cast<uint8_t>(g), static_cast<uint8_t>(r)};
            ChangePixel(rgb, table);
            b = rgb[0], g = rgb[1], r = rgb[2];
          });
      });
    }
  });
}

// ChangePixel on 16-bit samples with the colour-space models of hue_model.h
// called directly: the 16-bit HSV and HLS conversions are these models (hue
// and saturation in hundredths, 32-bit products that wrap) with the same
// clamps, and no value of a step is cut when the conversions store it (hues
// in 32 bits, saturations at most 10000, lightness and value 16 bits). The
// four row conversions of one pixel cost more than the formulas themselves.
void ChangePixel16(uint16_t *rgb, const HueChange *table) {
  using W = hue::Wrap32;
  const auto clamp16 = [](int32_t v) { return static_cast<uint16_t>(Clamp(v, 0, 65535)); };
  const hue::Hsv<hue::Plain, hue::Plain> hsv = hue::HsvOf<hue::Plain>(rgb[2], rgb[1], rgb[0], 12000, 10000);
  const HueChange &e = table[hsv.h / 100];
  int32_t n = hsv.h + e.hue;
  if (n < 0) n += 36000;
  n %= 36000;
  const hue::Rgb<int32_t> back = hue::HsvToRgb<W, 6000>(n, hsv.s, hsv.v, 10000);
  rgb[0] = clamp16(back.b), rgb[1] = clamp16(back.g), rgb[2] = clamp16(back.r);
  const hue::Hls hls = hue::HlsOf<hue::Plain, W, hue::kHlsHundredths>(rgb[2], rgb[1], rgb[0]);
  const hue::Rgb<int32_t> out =
      hue::HlsToRgb<W, hue::kHlsHundredths>(hls.h, hls.l, ChangeSaturation(hls.s, e.saturation, 10000));
  rgb[0] = clamp16(out.b), rgb[1] = clamp16(out.g), rgb[2] = clamp16(out.r);
  for (int32_t k = 0; k < 3; ++k) rgb[k] = clamp16(rgb[k] + e.intensity);
}

// The rows pixel by pixel through the call's colour memo: a pixel's result
// depends on its colour alone.
template <class T>
int32_t ChangeRows(RowPass &pass, const HueChange *table) {
  ColourMemo<T> memo(__LINE__, kSourceFile);
  if (!memo) return RC_NO_MEMORY;
  const auto compute = [table](int32_t &r, int32_t &g, int32_t &b) {
    T rgb[3] = {static_cast<T>(b), static_cast<T>(g), static_cast<T>(r)};
    if constexpr (sizeof(T) == 2)
      ChangePixel16(rgb, table);
    else
      ChangePixel(rgb, table);
    b = rgb[0], g = rgb[1], r = rgb[2];
  };
  return pass.RunRows([&](auto &row) {
    if constexpr (sizeof(*row.samples) == sizeof(T)) {
      row.ForEachRun([&](int32_t left, int32_t right) {
        ForEachColour(row.samples, row.channels, left, right,
                      [&](int32_t &r, int32_t &g, int32_t &b) { memo.Apply(r, g, b, compute); });
      });
    }
  });
}

// Palette bitmaps change their entries (no progress); other bitmaps their
// rows with progress. Without a row buffer the bitmap stays untouched and
// the status stands at the converter's success: kept.
int32_t Worker(BitmapRecord *bitmap, int32_t hue, int32_t saturation, int32_t intensity,
               const HueSatIntRange *ranges, uint32_t count, const ProgressRange &progress) {
  IMG_BUFFER(HueChange, table, kHueEntries);
  if (!table) return RC_NO_MEMORY;
  RowPass pass(
      bitmap,
      RowSetup{.progress = progress, .palette = PaletteRule::Entries, .noRowBuffer = NoRowBuffer::Succeeds});
  if (pass.status() != RC_SUCCESS) return pass.status();
  BuildHueTable(table.get(), hue, saturation, intensity, ranges, count, pass.OnPalette() ? 8 : pass.bits());
  if (!pass.OnPalette()) {
    if (pass.wide()) {
      if (const Isa isa = BestIsa(); isa >= Isa::Avx2 && HueTableFits16(table.get()))
        return pass.RunRows([&](auto &row) {
          if constexpr (sizeof(*row.samples) == 2)
            row.ForEachRun([&](int32_t left, int32_t right) {
              if (row.channels == 3 || row.channels == 4)
                ChangeRow16(isa, row.samples, row.channels, left, right, table.get());
              else
                ForEachColour(row.samples, row.channels, left, right,
                              [&](int32_t &r, int32_t &g, int32_t &b) {
                                uint16_t rgb[3] = {static_cast<uint16_t>(b), static_cast<uint16_t>(g),
                                                   static_cast<uint16_t>(r)};
                                ChangePixel16(rgb, table.get());
                                b = rgb[0], g = rgb[1], r = rgb[2];
                              });
            });
        });
      return ChangeRows<uint16_t>(pass, table.get());
    }
    if (const Isa isa = BestIsa(); isa >= Isa::Avx2) {
      LaneTable lanes;
      PackHueTable(table.get(), lanes);
      if (lanes.fits) return ChangeRowsInLanes(pass, table.get(), lanes, isa);
    }
    return ChangeRows<uint8_t>(pass, table.get());
  }
  IMG_BUFFER(int32_t, index, static_cast<std::size_t>(bitmap->Width > 256 ? bitmap->Width : 256));
  if (!index) return RC_NO_MEMORY;
  ColourSpacePass space(pass, {COLORSPACE_HSV, COLORSPACE_HLS});
  const int32_t status = space.Run([&](auto &row) { return ChangeRow(row, index.get(), table.get()); });
  return status == RC_SUCCESS && pass.OnPalette() ? FinishOperation() : status;
}

}  // namespace

void PackHueTable(const HueChange *table, LaneTable &lanes) {
  lanes.fits = true;
  for (int32_t h = 0; h < kHueEntries; ++h) {
    const HueChange &e = table[h];
    lanes.fits = lanes.fits && e.hue >= -360 && e.hue <= 360 && e.saturation >= -2047 &&
                 e.saturation <= 2047 && e.intensity >= -511 && e.intensity <= 511;
    // The turned hue as ChangePixel takes it (for changes within +-360).
    int32_t n = h + (lanes.fits ? e.hue : 0);
    if (n < 0) n += 360;
    n %= 360;
    lanes.packed[h] = static_cast<uint32_t>(n) | (static_cast<uint32_t>(e.saturation) & 0xFFFu) << 10 |
                      static_cast<uint32_t>(e.intensity) << 22;
  }
}

void ChangeRow8(Isa isa, uint8_t *row, int32_t channels, int32_t left, int32_t right, const HueChange *table,
                const LaneTable &lanes) {
  isa = BestIsa(isa);
  if ((channels == 3 || channels == 4) && lanes.fits) {
    if (isa >= Isa::Avx512) left = HsiLanesAvx512(row, channels, left, right, lanes.packed);
    if (isa >= Isa::Avx2) left = HsiLanesAvx2(row, channels, left, right, lanes.packed);
  }
  for (uint8_t *p = row + static_cast<std::ptrdiff_t>(left) * channels; left < right; ++left, p += channels)
    ChangePixel(p, table);
}

bool HueTableFits16(const HueChange *table) {
  for (int32_t h = 0; h < kHueEntries; ++h) {
    const HueChange &e = table[h];
    if (e.hue < -35999 || e.hue > 35999 || e.saturation < -100000 || e.saturation > 100000 ||
        e.intensity < -(1 << 24) || e.intensity > (1 << 24))
      return false;
  }
  return true;
}

void ChangeRow16(Isa isa, uint16_t *row, int32_t channels, int32_t left, int32_t right,
                 const HueChange *table) {
  isa = BestIsa(isa);
  if ((channels == 3 || channels == 4) && HueTableFits16(table)) {
    if (isa >= Isa::Avx512) left = HsiLanesAvx512(row, channels, left, right, table);
    if (isa >= Isa::Avx2) left = HsiLanesAvx2(row, channels, left, right, table);
  }
  for (uint16_t *p = row + static_cast<std::ptrdiff_t>(left) * channels; left < right; ++left, p += channels)
    ChangePixel16(p, table);
}

}  // namespace img::hsi

extern "C" IMG_API int32_t Q_ChangeHueSatIntBitmap(BitmapRecord *bitmap, int32_t hue, int32_t saturation,
                                                   int32_t intensity, const HueSatIntRange *ranges,
                                                   uint32_t count, uint32_t flags) {
  using namespace img::hsi;
  constexpr img::EntryRule kEntry{.nullBitmap = img::NullBitmap::Passed, .signedData = true};
  int32_t status = img::CheckEntry(kEntry, flags, bitmap);
  if (status != 0) return status;
  // No record to read: a null pointer with a count is -13; no pointer or a
  // count of 0 is -814, so the first record is never read past the caller's.
  if (ranges == nullptr && count != 0) return RC_INVALID_PARAMETER;
  if (ranges == nullptr || count == 0) return RC_NULL_OPTIONS;
  if (ranges[0].StructSize != 32) return RC_INVALID_STRUCT_SIZE;
  img::KernelBuffer<HueSatIntRange> copy;
  copy.adopt(static_cast<HueSatIntRange *>(IMG_ALLOC(count, sizeof(HueSatIntRange))), __LINE__, kSourceFile);
  if (!copy) return RC_INVALID_PARAMETER;  // -13, not -1: kept
  CopyMemory(copy.get(), ranges, static_cast<size_t>(count) * sizeof(HueSatIntRange));
  status = ValidateRanges(bitmap, hue, saturation, intensity, copy.get(), count);
  if (status != 0) return status;
  return Worker(bitmap, hue, saturation, intensity, copy.get(), count, img::kFullProgress);
}
