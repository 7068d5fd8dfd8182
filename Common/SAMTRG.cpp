// Target sampling: a tone curve per channel that sends a sampled colour to a
// target colour (a line, a parabola or a proportion), applied to the pixels
// or, for palette bitmaps, to the palette entries.
#include <cmath>

#include "frame.h"

namespace img::sample {

namespace {

constexpr const wchar_t *kSourceFile = L"Common/SAMTRG";

// The method and channel parts of the flags word share the bits 0xFF00: a bit
// there makes both invalid.
constexpr uint32_t kChannelPart = 0xFF0Fu;
constexpr uint32_t kMethodPart = 0xFFF0u;

// Red, green, blue and the gray value of a colour on the rows' scale.
struct Levels {
  int32_t red, green, blue, gray;
};

inline int32_t GrayOf(int32_t r, int32_t g, int32_t b) { return (2 * r + 5 * g + b + 4) >> 3; }

Levels LevelsOf(uint32_t colour, bool wide) {
  if (colour & SAMPLE_GRAY_LEVEL) {
    const int32_t v = static_cast<int32_t>(wide ? colour & 0xFFFFu : (colour & 0xFFFFu) >> 8);
    return {v, v, v, v};
  }
  const int32_t scale = wide ? 257 : 1;
  const int32_t r = static_cast<int32_t>(colour & 0xFFu) * scale;
  const int32_t g = static_cast<int32_t>((colour >> 8) & 0xFFu) * scale;
  const int32_t b = static_cast<int32_t>((colour >> 16) & 0xFFu) * scale;
  return {r, g, b, GrayOf(r, g, b)};
}

// Whether the call would change nothing, judged on the raw colour bytes (the
// gray-level bit is not looked at): gray bitmaps by the gray values, others
// by the chosen channel's bytes (all three for SAMPLE_CHAN_ALL).
bool NothingChanges(const BitmapRecord *bitmap, uint32_t sample, uint32_t target, uint32_t channel) {
  const Levels s = LevelsOf(sample & 0xFFFFFFu, false), t = LevelsOf(target & 0xFFFFFFu, false);
  if (IsGrayBitmap(bitmap)) return s.gray == t.gray;
  switch (channel) {
    case SAMPLE_CHAN_RED:
      return s.red == t.red;
    case SAMPLE_CHAN_GREEN:
      return s.green == t.green;
    case SAMPLE_CHAN_BLUE:
      return s.blue == t.blue;
    default:
      return s.red == t.red && s.green == t.green && s.blue == t.blue;
  }
}

inline int32_t Limit(int64_t v, int32_t max) { return static_cast<int32_t>(v < 0 ? 0 : v > max ? max : v); }

// Ceiling of n / d for d > 0.
inline int64_t CeilDiv(int64_t n, int64_t d) { return n >= 0 ? (n + d - 1) / d : -((-n) / d); }

// The curve entry for level x, sample s, target t on the scale 0..max.
int32_t CurveAt(uint32_t method, int32_t x, int32_t s, int32_t t, int32_t max) {
  if (s == t) return x;
  switch (method) {
    case SAMPLE_METHOD_LINEAR:
      if (s == max) return max;
      return Limit(CeilDiv(static_cast<int64_t>(x - s) * (max - t), max - s) + t, max);
    case SAMPLE_METHOD_QUADRATIC: {
      const uint32_t below = static_cast<uint32_t>(s) * static_cast<uint32_t>(s);
      const uint32_t above = static_cast<uint32_t>(max - s) * static_cast<uint32_t>(max - s);
      const double dx = x;
      double v;
      if (x < s || x == 0) {
        if (s == 0) return 0;
        v = dx + dx * dx * (t - s) / below;
      } else {
        if (s == max) return max;
        const double rest = max - x;
        v = dx + rest * rest * (t - s) / above;
      }
      v = v < 0 ? 0 : v > max ? max : v;
      return static_cast<int32_t>(std::nearbyint(v));  // ties to even
    }
    default: {  // SAMPLE_METHOD_PROPORTIONAL
      if (s == 0) return x == 0 ? 0 : max;
      // x * t in signed 32 bits: on 16-bit curves a product of 2^31 or more
      // wraps negative and the entry becomes 0.
      const auto product = static_cast<int32_t>(static_cast<uint32_t>(x) * static_cast<uint32_t>(t));
      return Limit(product / s, max);
    }
  }
}

void BuildCurve(uint16_t *curve, uint32_t method, int32_t s, int32_t t, int32_t max) {
  for (int32_t x = 0; x <= max; ++x) curve[x] = static_cast<uint16_t>(CurveAt(method, x, s, t, max));
}

int32_t Worker(BitmapRecord *bitmap, uint32_t sample, uint32_t target, uint32_t channel, uint32_t method) {
  RowPass pass(bitmap, RowSetup{.palette = PaletteRule::Entries});
  if (pass.status() != RC_SUCCESS) return pass.status();
  const bool wide = pass.wide();
  const int32_t max = wide ? 65535 : 255;
  const std::size_t length = static_cast<std::size_t>(max) + 1;
  const bool gray = pass.channels() == 1;
  // Channel 4 on rows of three samples: a curve each; rows of four samples
  // (32 and 64 bits) are treated alike, their first three samples being
  // blue, green and red.
  const bool three = channel == SAMPLE_CHAN_ALL && !gray;
  IMG_BUFFER(uint16_t, curves, length * (three ? 3 : 1));
  if (!curves) return RC_NO_MEMORY;
  const Levels s = LevelsOf(sample, wide), t = LevelsOf(target, wide);
  // Curves in sample order: blue, green, red.
  int32_t sample0 = 0;  // the sample of a pixel the single curve changes
  if (three) {
    BuildCurve(curves.get(), method, s.blue, t.blue, max);
    BuildCurve(curves.get() + length, method, s.green, t.green, max);
    BuildCurve(curves.get() + 2 * length, method, s.red, t.red, max);
  } else if (gray) {
    BuildCurve(curves.get(), method, s.gray, t.gray, max);
  } else {
    const bool red = channel == SAMPLE_CHAN_RED, green = channel == SAMPLE_CHAN_GREEN;
    BuildCurve(curves.get(), method,
               red     ? s.red
               : green ? s.green
                       : s.blue,
               red     ? t.red
               : green ? t.green
                       : t.blue,
               max);
    sample0 = red ? 2 : green ? 1 : 0;
  }
  const uint16_t *c0 = curves.get();
  const uint16_t *c1 = three ? c0 + length : c0;
  const uint16_t *c2 = three ? c0 + 2 * length : c0;

  auto kernel = [&](auto &row) {
    using T = std::remove_reference_t<decltype(*row.samples)>;
    const int32_t n = row.channels;
    row.ForEachRun([&](int32_t left, int32_t right) {
      T *p = row.Pixel(left);
      if (gray && row.IsPalette()) {
        // 8-bit gray's ramp palette: red through the gray curve, copied.
        for (int32_t x = left; x < right; ++x, p += n) p[0] = p[1] = p[2] = static_cast<T>(c0[p[2]]);
      } else if (gray) {
        for (int32_t x = left; x < right; ++x, ++p) p[0] = static_cast<T>(c0[p[0]]);
      } else if (three) {
        for (int32_t x = left; x < right; ++x, p += n) {
          p[0] = static_cast<T>(c0[p[0]]);
          p[1] = static_cast<T>(c1[p[1]]);
          p[2] = static_cast<T>(c2[p[2]]);
        }
      } else {
        for (int32_t x = left; x < right; ++x, p += n) p[sample0] = static_cast<T>(c0[p[sample0]]);
      }
    });
  };
  if (pass.OnPalette()) return RunPaletteEntries(bitmap, kFullProgress, kernel);
  return pass.RunRows(kernel);
}

}  // namespace

}  // namespace img::sample

extern "C" IMG_API int32_t Q_SampleTargetBitmap(BitmapRecord *bitmap, uint32_t sampleColor,
                                                uint32_t targetColor, uint32_t flags) {
  // No reserved flags word; the pixel memory is looked at after the kind.
  constexpr img::EntryRule kEntry{.flagsWord = false,
                                  .nullBitmap = img::NullBitmap::AfterFrame,
                                  .signedData = true,
                                  .allocatedAfterKind = true};
  if (const int32_t status = img::CheckEntry(kEntry, flags, bitmap)) return status;
  const uint32_t method = flags & img::sample::kMethodPart, channel = flags & img::sample::kChannelPart;
  if (!img::ranges::kSampleMethod.Contains(method) || !img::ranges::kSampleChannel.Contains(channel))
    return RC_INVALID_PARAMETER;
  if (img::sample::NothingChanges(bitmap, sampleColor, targetColor, channel)) return FinishOperation();
  return img::sample::Worker(bitmap, sampleColor, targetColor, channel, method);
}
