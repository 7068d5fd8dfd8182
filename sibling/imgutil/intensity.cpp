// Table-driven intensity operations: invert, intensity, gamma,
// contrast-brightness-intensity, light control, automatic and manual levels.
#include <cstring>

#include "curves.h"
#include "ops_common.h"
#include "passes.h"
#include "imgplatform.h"

namespace {

static constexpr const wchar_t *kSourceFile = L"imgutil/intensity";

using img::Clamp;

// Rotates a histogram of stored patterns of a signed bitmap so that index 0
// is the most negative value.
void RotateHistogram(uint32_t *counts, uint32_t length) {
  const uint32_t half = length / 2;
  for (uint32_t i = 0; i < half; ++i) {
    const uint32_t t = counts[i];
    counts[i] = counts[i + half];
    counts[i + half] = t;
  }
}

// Progress sub-ranges of three channel passes within start..end.
void ChannelRange(int32_t start, int32_t end, int32_t pass, int32_t passes, int32_t *from, int32_t *to) {
  const int32_t span = end - start;
  *from = start + span * pass / passes + (pass ? 1 : 0);
  *to = start + span * (pass + 1) / passes;
}

// Histogram of one channel (1 red, 2 green, 3 blue; gray bitmaps: their
// sample) in offset form for signed data.
int32_t ChannelHistogram(BitmapRecord *b, uint32_t *counts, uint32_t length, uint32_t channel, int32_t start,
                         int32_t end) {
  std::memset(counts, 0, sizeof(uint32_t) * length);
  const int32_t status = GetHistogram(b, counts, length, channel, start, end);
  if (status == RC_SUCCESS && (b->Flags & BITMAP_SIGNED)) RotateHistogram(counts, length);
  return status;
}

// Piecewise-linear curve through (0, 0), the given points and (full, full).
void FillPolyline(int32_t *table, uint32_t length, const int32_t (*points)[2], int32_t count) {
  const int32_t full = static_cast<int32_t>(length) - 1;
  int32_t x0 = 0, y0 = 0;
  for (int32_t i = 0; i <= count; ++i) {
    const int32_t x1 = i < count ? points[i][0] : full;
    const int32_t y1 = i < count ? points[i][1] : full;
    if (x1 > x0) FillLutSegment(x0, x1, y0, y1, table);
    if (x1 >= x0) {
      x0 = x1;
      y0 = y1;
    }
  }
  table[full] = full;
}

// Light control statistics of one histogram: mean, mean below it, mean at or
// above it (all truncated). Returns false for an empty histogram.
bool LightStatistics(const uint32_t *h, uint32_t length, int32_t *lo, int32_t *mean, int32_t *hi) {
  uint64_t n = 0, sum = 0;
  for (uint32_t v = 0; v < length; ++v) {
    n += h[v];
    sum += static_cast<uint64_t>(h[v]) * v;
  }
  if (n == 0) return false;
  const uint64_t a = sum / n;
  uint64_t nLo = 0, sLo = 0, nHi = 0, sHi = 0;
  for (uint32_t v = 0; v < length; ++v) {
    if (v < a) {
      nLo += h[v];
      sLo += static_cast<uint64_t>(h[v]) * v;
    } else {
      nHi += h[v];
      sHi += static_cast<uint64_t>(h[v]) * v;
    }
  }
  *mean = static_cast<int32_t>(a);
  *lo = nLo ? static_cast<int32_t>(sLo / nLo) : *mean;
  *hi = nHi ? static_cast<int32_t>(sHi / nHi) : *mean;
  return true;
}

void LightCurve(int32_t *table, uint32_t length, int32_t lo, int32_t mean, int32_t hi, uint32_t lower,
                uint32_t middle, uint32_t upper) {
  const int64_t full = static_cast<int64_t>(length) - 1;
  const int32_t points[3][2] = {{lo, static_cast<int32_t>(lower * full / 1000)},
                                {mean, static_cast<int32_t>(middle * full / 1000)},
                                {hi, static_cast<int32_t>(upper * full / 1000)}};
  FillPolyline(table, length, points, 3);
}

// Level range of a histogram: the lowest level below which at most
// blackClip / 10000 of the samples lie and the highest above which at most
// whiteClip / 10000 lie. Returns false when there is nothing to stretch.
bool ClipRange(const uint32_t *h, uint32_t length, uint32_t blackClip, uint32_t whiteClip, int32_t *lo,
               int32_t *hi) {
  uint64_t n = 0;
  for (uint32_t v = 0; v < length; ++v) n += h[v];
  if (n == 0) return false;
  const uint64_t black = n * blackClip / 10000, white = n * whiteClip / 10000;
  uint64_t cum = 0;
  int32_t l = 0;
  for (uint32_t v = 0; v < length; ++v) {
    cum += h[v];
    if (cum > black) {
      l = static_cast<int32_t>(v);
      break;
    }
  }
  cum = 0;
  int32_t u = static_cast<int32_t>(length) - 1;
  for (int64_t v = static_cast<int64_t>(length) - 1; v >= 0; --v) {
    cum += h[v];
    if (cum > white) {
      u = static_cast<int32_t>(v);
      break;
    }
  }
  *lo = l;
  *hi = u;
  return u > l;
}

void StretchTable(int32_t *table, uint32_t length, int32_t lo, int32_t hi) {
  const int64_t full = static_cast<int64_t>(length) - 1, span = hi - lo;
  for (uint32_t v = 0; v < length; ++v) {
    const int64_t x = static_cast<int64_t>(v);
    table[v] = x <= lo   ? 0
               : x >= hi ? static_cast<int32_t>(full)
                         : static_cast<int32_t>(((x - lo) * full * 2 + span) / (2 * span));
  }
}

bool IsSingleSample(const BitmapRecord *b) { return b->ColorOrder == ORDER_GRAY; }

// For each colour channel (one pass for gray bitmaps): `prepare(channel,
// from)` gathers what the curve needs (a status other than 1 stops), then
// `make(table, length, channel)` fills the curve that ApplyLut applies to
// that channel. The progress range is split between the passes.
template <class Prepare, class Make>
int32_t PerChannel(BitmapRecord *b, int32_t start, int32_t end, Prepare prepare, Make make) {
  const int32_t passes = IsSingleSample(b) ? 1 : 3;
  for (int32_t pass = 0; pass < passes; ++pass) {
    int32_t from, to;
    ChannelRange(start, end, pass, passes, &from, &to);
    const uint32_t channel = passes == 1 ? LUT_CHANNEL_ALL : static_cast<uint32_t>(pass + 1);
    int32_t status = prepare(channel, from);
    if (status != RC_SUCCESS) return status;
    status = img::ApplyCurve(b, channel, from, to, [&](int32_t *t, uint32_t n) { make(t, n, channel); });
    if (status != RC_SUCCESS) return status;
  }
  return RC_SUCCESS;
}

// Histogram channel of a pass: gray bitmaps count their sample.
uint32_t HistogramChannel(uint32_t channel) { return channel == LUT_CHANNEL_ALL ? 1u : channel; }

// Intensity histogram (2R + 5G + B) >> 3 on the bitmap's sample scale, for
// colour bitmaps; signed samples are taken in offset form.
int32_t IntensityHistogram(BitmapRecord *b, uint32_t *counts, uint32_t length, int32_t start, int32_t end) {
  img::RowPass pass(b, {.layout = ROW_LAYOUT_BGR, .progress = {start, end, true}, .write = false});
  const uint32_t flip = (b->Flags & BITMAP_SIGNED) ? (pass.wide() ? 0x8000u : 0x80u) : 0u;
  std::memset(counts, 0, sizeof(uint32_t) * length);
  return pass.RunRows([&](auto &row) {
    row.ForEach([&](int32_t x) {
      const auto *p = row.Pixel(x);
      const uint32_t v = (2 * (p[2] ^ flip) + 5 * (p[1] ^ flip) + (p[0] ^ flip)) >> 3;
      counts[v < length ? v : length - 1]++;
    });
  });
}

}  // namespace

extern "C" {

IMG_API int32_t Invert(BitmapRecord *bitmap) {
  constexpr img::EntryRule kRule{.flagsWord = false, .pixels = true};
  if (const int32_t s = img::CheckEntry(kRule, 0, bitmap)) return s;
  return img::ApplyCurve(bitmap, LUT_CHANNEL_ALL, 0, 100, [](int32_t *t, uint32_t n) {
    for (uint32_t i = 0; i < n; ++i) t[i] = static_cast<int32_t>(n - 1 - i);
  });
}

IMG_API int32_t ChangeIntensity(BitmapRecord *bitmap, int32_t change) {
  constexpr img::EntryRule kRule{.flagsWord = false, .pixels = true};
  if (const int32_t s = img::CheckEntry(kRule, 0, bitmap)) return s;
  if (!img::ranges::kChange.Contains(change)) return RC_INVALID_PARAMETER;
  return img::ApplyCurve(bitmap, LUT_CHANNEL_ALL, 0, 100, [change](int32_t *t, uint32_t n) {
    const int32_t full = static_cast<int32_t>(n - 1);
    const int32_t delta = MulDiv(change, full, 1000);
    for (uint32_t i = 0; i < n; ++i) t[i] = Clamp(static_cast<int64_t>(i) + delta, full);
  });
}

IMG_API int32_t GammaCorrect(BitmapRecord *bitmap, uint32_t gamma, uint32_t flags) {
  constexpr img::EntryRule kRule{.flagsWord = false, .pixels = true};
  if (const int32_t s = img::CheckEntry(kRule, 0, bitmap)) return s;
  if (flags != 0 || !img::ranges::kGamma.Contains(gamma)) return RC_INVALID_PARAMETER;
  return img::ApplyCurve(bitmap, LUT_CHANNEL_ALL, 0, 100,
                         [gamma](int32_t *t, uint32_t n) { img::BuildGammaTable(gamma, n, t); });
}

IMG_API int32_t ContBrightInt(BitmapRecord *bitmap, int32_t contrast, int32_t brightness, int32_t intensity,
                              uint32_t flags) {
  constexpr img::EntryRule kRule{.flagsWord = false, .pixels = true};
  if (const int32_t s = img::CheckEntry(kRule, 0, bitmap)) return s;
  auto out = [](int32_t v) { return !img::ranges::kChange.Contains(v); };
  if (flags != 0 || out(contrast) || out(brightness) || out(intensity)) return RC_INVALID_PARAMETER;
  return img::ApplyCurve(bitmap, LUT_CHANNEL_ALL, 0, 100, [=](int32_t *t, uint32_t n) {
    const int64_t full = static_cast<int64_t>(n) - 1, mid = static_cast<int64_t>(n) / 2;
    const int64_t lift = brightness * full / 1000;
    for (uint32_t i = 0; i < n; ++i) {
      const int64_t v = (static_cast<int64_t>(i) - mid) * (1000 + contrast) / 1000 + mid + lift;
      t[i] = Clamp(v * (1000 + intensity) / 1000, static_cast<int32_t>(full));
    }
  });
}

IMG_API int32_t LightControl(BitmapRecord *bitmap, const uint32_t *lower, const uint32_t *middle,
                             const uint32_t *upper, uint32_t type) {
  constexpr img::EntryRule kRule{.flagsWord = false, .pixels = true};
  if (const int32_t s = img::CheckEntry(kRule, 0, bitmap)) return s;
  if (!lower || !middle || !upper) return RC_NULL_OPTIONS;
  if (!img::ranges::kLightType.Contains(type)) return RC_INVALID_PARAMETER;
  for (int c = 0; c < 3; ++c)
    if (lower[c] > middle[c] || middle[c] > upper[c] || !img::ranges::kLightTarget.Contains(upper[c]))
      return RC_INVALID_PARAMETER;

  const bool luminance = type == LIGHT_CONTROL_LUMINANCE && !IsSingleSample(bitmap);
  const int32_t full = img::FullScale(bitmap);
  if (full < 0) return full;

  if (!luminance) {
    // Per channel: statistics of that channel, then its curve (gray bitmaps
    // and the luminance type on gray bitmaps use the first target of each).
    const uint32_t length = static_cast<uint32_t>(full) + 1;
    IMG_BUFFER(uint32_t, histogram, length);
    if (!histogram) return RC_NO_MEMORY;
    bool flat = false;
    int32_t lo = 0, mean = 0, hi = 0;
    return PerChannel(
        bitmap, 0, 100,
        [&](uint32_t channel, int32_t at) {
          const int32_t status =
              ChannelHistogram(bitmap, histogram.get(), length, HistogramChannel(channel), at, at);
          flat = !LightStatistics(histogram.get(), length, &lo, &mean, &hi);
          return status;
        },
        [&](int32_t *t, uint32_t n, uint32_t channel) {
          const int c = channel == LUT_CHANNEL_ALL ? 0 : static_cast<int>(channel) - 1;
          for (uint32_t i = 0; i < n; ++i) t[i] = static_cast<int32_t>(i);
          if (!flat) LightCurve(t, n, lo, mean, hi, lower[c], middle[c], upper[c]);
        });
  }

  // Luminance: statistics of Y in a first walk (progress 0..50), one curve
  // on Y, then the pixels rebuilt from the new Y and their U, V (50..100).
  img::RowPass pass(bitmap, {.layout = ROW_LAYOUT_BGR,
                             .progress = {0, 50, true},
                             .write = false,
                             .progressAt = img::ProgressPoint::AfterRow});
  if (pass.status() != RC_SUCCESS) return pass.status();
  const int32_t max = pass.wide() ? 65535 : 255;
  IMG_BUFFER(uint32_t, yh, static_cast<size_t>(max) + 1);
  IMG_BUFFER(int32_t, curve, static_cast<size_t>(max) + 1);
  if (!yh || !curve) return RC_NO_MEMORY;
  const int32_t status = pass.RunRows([&](auto &row) {
    row.ForEach([&](int32_t x) {
      const auto *p = row.Pixel(x);
      yh[img::LumaForward(p[2], p[1], p[0], max).y]++;
    });
  });
  if (status != RC_SUCCESS) return status;
  int32_t lo, mean, hi;
  for (int32_t i = 0; i <= max; ++i) curve[i] = i;
  if (!LightStatistics(yh.get(), static_cast<uint32_t>(max) + 1, &lo, &mean, &hi)) return RC_SUCCESS;
  LightCurve(curve.get(), static_cast<uint32_t>(max) + 1, lo, mean, hi, lower[0], middle[0], upper[0]);
  pass.SetWalk({50, 100, true}, true);
  return pass.RunRows([&](auto &row) {
    using T = std::remove_reference_t<decltype(*row.samples)>;
    row.ForEach([&](int32_t x) {
      T *p = row.Pixel(x);
      img::YuvPixel yuv = img::LumaForward(p[2], p[1], p[0], max);
      yuv.y = curve[yuv.y];
      int32_t r, g, b;
      img::LumaBack(yuv, max, &r, &g, &b);
      p[0] = static_cast<T>(b);
      p[1] = static_cast<T>(g);
      p[2] = static_cast<T>(r);
    });
  });
}

IMG_API int32_t AutoColorLevel(BitmapRecord *bitmap, uint32_t type, uint32_t blackClip, uint32_t whiteClip,
                               uint32_t flags) {
  constexpr img::EntryRule kRule{.flagsWord = false, .pixels = true};
  if (const int32_t s = img::CheckEntry(kRule, 0, bitmap)) return s;
  constexpr img::Range kClip = img::ranges::kAutoLevelClip;
  if (flags != 0 || !img::ranges::kAutoLevelType.Contains(type) || !kClip.Contains(blackClip) ||
      !kClip.Contains(whiteClip) || blackClip + whiteClip > kClip.max)
    return RC_INVALID_PARAMETER;
  const int32_t full = img::FullScale(bitmap);
  if (full < 0) return full;
  const uint32_t length = static_cast<uint32_t>(full) + 1;
  IMG_BUFFER(uint32_t, histogram, length);
  if (!histogram) return RC_NO_MEMORY;

  if (type == AUTO_LEVEL_PER_CHANNEL || IsSingleSample(bitmap)) {
    bool stretch = false;
    int32_t lo = 0, hi = 0;
    return PerChannel(
        bitmap, 0, 100,
        [&](uint32_t channel, int32_t at) {
          const int32_t status =
              ChannelHistogram(bitmap, histogram.get(), length, HistogramChannel(channel), at, at);
          stretch = ClipRange(histogram.get(), length, blackClip, whiteClip, &lo, &hi);
          return status;
        },
        [&](int32_t *t, uint32_t n, uint32_t) {
          for (uint32_t i = 0; i < n; ++i) t[i] = static_cast<int32_t>(i);
          if (stretch) StretchTable(t, n, lo, hi);
        });
  }
  int32_t status = type == AUTO_LEVEL_COMMON ? ChannelHistogram(bitmap, histogram.get(), length, 0, 0, 50)
                                             : IntensityHistogram(bitmap, histogram.get(), length, 0, 50);
  if (status != RC_SUCCESS) return status;
  int32_t lo, hi;
  if (!ClipRange(histogram.get(), length, blackClip, whiteClip, &lo, &hi)) return FinishOperation();
  return img::ApplyCurve(bitmap, LUT_CHANNEL_ALL, 51, 100,
                         [&](int32_t *t, uint32_t n) { StretchTable(t, n, lo, hi); });
}

IMG_API int32_t ColorLevel(BitmapRecord *bitmap, const ColorLevelRecord *levels, uint32_t flags) {
  constexpr img::EntryRule kRule{.flagsWord = false, .pixels = true};
  if (const int32_t s = img::CheckEntry(kRule, 0, bitmap)) return s;
  if (!levels) return RC_NULL_OPTIONS;
  if (levels->StructSize != sizeof(ColorLevelRecord)) return RC_INVALID_STRUCT_SIZE;
  constexpr uint32_t kAll = COLOR_LEVEL_MASTER | COLOR_LEVEL_RED | COLOR_LEVEL_GREEN | COLOR_LEVEL_BLUE;
  if (flags & ~kAll) return RC_INVALID_PARAMETER;
  const int32_t full = img::FullScale(bitmap);
  if (full < 0) return full;
  const ColorLevelSet *sets[4] = {&levels->Master, &levels->Red, &levels->Green, &levels->Blue};
  const uint32_t bits[4] = {COLOR_LEVEL_MASTER, COLOR_LEVEL_RED, COLOR_LEVEL_GREEN, COLOR_LEVEL_BLUE};
  for (int k = 0; k < 4; ++k) {
    if (!(flags & bits[k])) continue;
    const ColorLevelSet &s = *sets[k];
    if (s.InputLow < 0 || s.InputHigh > full || s.InputLow >= s.InputHigh || s.OutputLow < 0 ||
        s.OutputLow > full || s.OutputHigh < 0 || s.OutputHigh > full ||
        !img::ranges::kGamma.Contains(s.Gamma))
      return RC_INVALID_PARAMETER;
  }
  if ((flags & kAll) == 0) return FinishOperation();

  auto level = [](const ColorLevelSet &s, int32_t v) {
    double x = static_cast<double>(v - s.InputLow) / static_cast<double>(s.InputHigh - s.InputLow);
    x = x < 0.0 ? 0.0 : x > 1.0 ? 1.0 : x;
    const double out = s.OutputLow + std::pow(x, 100.0 / s.Gamma) * (s.OutputHigh - s.OutputLow);
    return static_cast<int32_t>(std::lround(out));
  };
  auto compose = [&](int32_t *t, uint32_t n, int k) {
    for (uint32_t i = 0; i < n; ++i) {
      int32_t v = static_cast<int32_t>(i);
      if (flags & COLOR_LEVEL_MASTER) v = level(levels->Master, v);
      if (k > 0 && (flags & bits[k])) v = level(*sets[k], v);
      t[i] = v;
    }
  };
  const bool channels = (flags & (COLOR_LEVEL_RED | COLOR_LEVEL_GREEN | COLOR_LEVEL_BLUE)) != 0;
  if (!channels || IsSingleSample(bitmap))
    return img::ApplyCurve(bitmap, LUT_CHANNEL_ALL, 0, 100,
                           [&](int32_t *t, uint32_t n) { compose(t, n, 0); });
  return PerChannel(
      bitmap, 0, 100, [](uint32_t, int32_t) { return RC_SUCCESS; },
      [&](int32_t *t, uint32_t n, uint32_t channel) { compose(t, n, static_cast<int>(channel)); });
}

}  // extern "C"
