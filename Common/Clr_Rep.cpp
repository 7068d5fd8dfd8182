// Colour replace: pixels are selected by their closeness to a list of colours,
// measured in Lab with a Gaussian tolerance per colour. The replace export
// shifts hue, scales saturation and offsets brightness and blends the result
// with the pixel as read by the selection weight; the weights export writes
// the weight itself as a gray level and makes the bitmap 8 bits deep.
#include "Clr_Rep.h"

#include <cmath>
#include <cstring>
#include <type_traits>

#include "ClrSpc.h"
#include "frame.h"

static constexpr const wchar_t *kSourceFile = L"Common/Clr_Rep";

namespace img::clrrep {

namespace {

// 1000 × e^-x as an integer weight: truncated, held to 0..1000 (a NaN gives 0).
inline uint32_t WeightOf(double x) {
  const double w = 1000.0 * std::exp(-x);
  if (!(w > 0.0)) return 0;
  if (w > 1000.0) return 1000;
  return static_cast<uint32_t>(w);
}

inline void Raise(uint32_t &weight, uint32_t w) {
  if (w > weight) weight = w;
}

}  // namespace

void BuildWeights(Weights *table, bool wide, bool gray, const ColorReplaceEntry *entries, int32_t count) {
  const int32_t shift = wide ? 8 : 0;
  const int32_t top = wide ? 65535 : 255;
  for (int32_t v = 0; v <= top; ++v) table[v] = gray ? Weights{0, 1000, 1000} : Weights{0, 0, 0};
  for (int32_t e = 0; e < count; ++e) {
    const uint32_t color = entries[e].Color;
    uint8_t r = static_cast<uint8_t>(color), g = static_cast<uint8_t>(color >> 8),
            b = static_cast<uint8_t>(color >> 16);
    if (gray) {
      // The tolerance is taken on the rows' own scale; the shift wraps in 32
      // bits like the unsigned value it is.
      const double s = std::trunc(std::pow(static_cast<double>(entries[e].Fuzziness << shift), 1.5));
      int32_t level;
      if (color & COLORREP_GRAY_LEVEL)
        level = wide ? static_cast<int32_t>(color & 0xFFFFu) : static_cast<int32_t>((color >> 8) & 0xFFu);
      else
        level = ((5 * g + 2 * r + b + 4) >> 3) << shift;
      if (s == 0.0) continue;  // a tolerance that wrapped to 0 selects nothing
      for (int32_t v = 0; v <= top; ++v) {
        const double d = static_cast<double>(v - level);
        Raise(table[v].l, WeightOf(d * d / s));
      }
      continue;
    }
    uint8_t lab[3];
    ConvertColorPixel(COLORSPACE_LAB, &r, &g, &b, lab);
    const int32_t L = lab[0], A = static_cast<int8_t>(lab[1]), B = static_cast<int8_t>(lab[2]);
    const double s = std::trunc(std::pow(static_cast<double>(entries[e].Fuzziness), 1.5));
    // a and b: the weight depends on v >> shift only.
    uint32_t wa[256], wb[256];
    for (int32_t u = 0; u < 256; ++u) {
      const double da = u - (A + 128), db = u - (B + 128);
      wa[u] = WeightOf(da * da / s);
      wb[u] = WeightOf(db * db / s);
    }
    for (int32_t v = 0; v <= top; ++v) {
      Raise(table[v].a, wa[v >> shift]);
      Raise(table[v].b, wb[v >> shift]);
    }
    // Lightness is 6.5 times stricter than a and b.
    const int32_t lTop = wide ? 10000 : 100;
    for (int32_t v = 0; v <= lTop; ++v) {
      const double d = static_cast<double>((wide ? v / 100 : v) - L);
      Raise(table[v].l, WeightOf(6.5 * d * d / s));
    }
  }
}

void FillBrightness(BrightnessTable &table, int32_t brightness, bool wide) {
  const int32_t full = wide ? 65535 : 255;
  const int32_t offset = (brightness * full + 500) / 1000;
  for (int32_t i = 0; i <= full; ++i) {
    const int32_t v = i + offset;
    table.entry[i] = static_cast<uint16_t>(v < 0 ? 0 : v > full ? full : v);
  }
}

namespace {

inline uint16_t Load16(const uint8_t *p) {
  uint16_t v;
  std::memcpy(&v, p, 2);
  return v;
}
inline void Store16(uint8_t *p, uint32_t v) {
  const uint16_t u = static_cast<uint16_t>(v);
  std::memcpy(p, &u, 2);
}
inline uint32_t Load32(const uint8_t *p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}

// The changes of one call on their units: hue in degrees (8-bit) or
// hundredths (16-bit), saturation in percent or hundredths of a percent.
struct Change {
  int32_t hue8, hue16;  // hue / 100, hue
  int32_t sat8, sat16;  // saturation / 10, saturation × 10
};

inline int32_t ShiftHue(int32_t h, int32_t shift, int32_t circle) {
  int32_t n = h + shift;
  if (n < 0) n += circle;
  return n % circle;
}
inline int32_t ChangeSaturation(int32_t s, int32_t change, int32_t full) {
  const int32_t v = s + s * change / full;
  return v < 0 ? 0 : v > full ? full : v;
}

// The selection weight of a table-driven Lab pixel (8-bit: 3 bytes, 16-bit:
// 6): the AND of the three weights, on purpose (not their minimum).
template <bool kWide>
inline uint32_t LabWeight(const Weights *t, const uint8_t *p) {
  if constexpr (kWide) {
    const int32_t L = Load16(p), a = static_cast<int16_t>(Load16(p + 2)),
                  b = static_cast<int16_t>(Load16(p + 4));
    const auto index = [](int32_t v) { return v + 32896 > 65535 ? 65535 : v + 32896; };
    return t[L].l & t[index(a)].a & t[index(b)].b;
  } else {
    return t[p[0]].l & t[static_cast<int8_t>(p[1]) + 128].a & t[static_cast<int8_t>(p[2]) + 128].b;
  }
}

inline uint32_t Blend(uint32_t changed, uint32_t saved, uint32_t w, uint32_t full) {
  const uint32_t v = (changed * w + saved * (1000 - w)) / 1000;
  return v < full ? v : full;
}

}  // namespace

void BlendRun8(Isa isa, uint8_t *rgb, const uint8_t *changed, const uint8_t *weights, int32_t first,
               int32_t end) {
  if (BestIsa(isa) >= Isa::Avx512) return BlendRun8Avx512(rgb, changed, weights, first, end);
  for (int32_t x = first; x < end; ++x) {
    uint16_t w;
    std::memcpy(&w, weights + 3 * static_cast<std::ptrdiff_t>(x), 2);
    for (int32_t k = 0; k < 3; ++k) {
      uint8_t &q = rgb[3 * static_cast<std::ptrdiff_t>(x) + k];
      q = static_cast<uint8_t>(Blend(changed[3 * static_cast<std::ptrdiff_t>(x) + k], q, w, 255));
    }
  }
}

namespace {

// One colour row (three samples a pixel) of the replace. A pixel of weight 0
// keeps its samples ((s × 1000) / 1000 = s), so only the pixels with a
// weight are changed: they are packed into `packed` in row order and the
// HSV and HLS conversions run once over the packed run. Each conversion
// works pixel by pixel, so a packed pixel converts as it would in the row.
template <class T>
int32_t ReplaceRow(SpaceRow<T, ClrSpcConversions> &row, T *packed, const Weights *weights,
                   const BrightnessTable &bright, const Change &change, const void *context) {
  constexpr bool kWide = sizeof(T) == 2;
  constexpr std::ptrdiff_t kHsSize = kWide ? 8 : 4, kLabSize = kWide ? 6 : 3;
  constexpr uint32_t kFull = kWide ? 65535 : 255;
  int32_t status = row.To(COLORSPACE_LAB_TABLE);
  if (status != RC_SUCCESS) return status;
  // The weight of pixel x replaces the first two bytes of its Lab (read
  // before). No branch on the weight: a pixel is copied to the end of the
  // packed run whether or not the count then moves past it.
  uint8_t *const lab = row.Space(COLORSPACE_LAB_TABLE);
  T *const rgb = row.rgb;
  int32_t count = 0;
  // Plain locals: the byte stores below may alias anything a lambda captures.
  for (int32_t r = 0; r < row.row.runCount; ++r)
    for (int32_t x = row.row.runs[r].Start, end = row.row.runs[r].End; x < end; ++x) {
      const uint16_t w = static_cast<uint16_t>(LabWeight<kWide>(weights, lab + x * kLabSize));
      std::memcpy(lab + x * kLabSize, &w, 2);
      const T *q = rgb + 3 * static_cast<std::ptrdiff_t>(x);
      T *p = packed + 3 * static_cast<std::ptrdiff_t>(count);
      p[0] = q[0], p[1] = q[1], p[2] = q[2];
      count += w != 0 ? 1 : 0;
    }
  if (count == 0) return RC_SUCCESS;
  uint8_t *const hsv = row.Space(COLORSPACE_HSV);
  if ((status = ClrSpcConversions::Row(COLORSPACE_HSV, packed, hsv, context, 0, count)) != RC_SUCCESS)
    return status;
  for (int32_t i = 0; i < count; ++i) {
    uint8_t *p = hsv + i * kHsSize;
    if constexpr (kWide) {
      const int32_t h = ShiftHue(static_cast<int32_t>(Load32(p)), change.hue16, 36000);
      std::memcpy(p, &h, 4);
    } else {
      Store16(p, static_cast<uint32_t>(ShiftHue(Load16(p), change.hue8, 360)));
    }
  }
  if ((status = ClrSpcConversions::Row(COLORSPACE_HSV + COLORSPACE_TO_RGB, packed, hsv, context, 0, count)) !=
      RC_SUCCESS)
    return status;
  uint8_t *const hls = row.Space(COLORSPACE_HLS);
  if ((status = ClrSpcConversions::Row(COLORSPACE_HLS, packed, hls, context, 0, count)) != RC_SUCCESS)
    return status;
  for (int32_t i = 0; i < count; ++i) {
    uint8_t *p = hls + i * kHsSize;
    if constexpr (kWide)
      Store16(p + 6, static_cast<uint32_t>(ChangeSaturation(Load16(p + 6), change.sat16, 10000)));
    else
      p[3] = static_cast<uint8_t>(ChangeSaturation(p[3], change.sat8, 100));
  }
  if ((status = ClrSpcConversions::Row(COLORSPACE_HLS + COLORSPACE_TO_RGB, packed, hls, context, 0, count)) !=
      RC_SUCCESS)
    return status;
  // The packed pixels go back to the pixels they came from, in row order. A
  // pixel of weight 0 takes whatever the packed run holds at that point
  // (within the run's buffer, which starts zeroed) and blends it with
  // weight 0: it stays itself.
  const uint16_t *const brightness = bright.entry;
  if constexpr (!kWide) {
    // 8-bit rows: the changed samples, brightness applied, spread back over
    // the row in the HLS buffer (free again, 4 bytes a pixel), then blended.
    uint8_t *const changed = hls;
    int32_t next = 0;
    for (int32_t r = 0; r < row.row.runCount; ++r)
      for (int32_t x = row.row.runs[r].Start, end = row.row.runs[r].End; x < end; ++x) {
        const uint8_t *c = packed + 3 * static_cast<std::ptrdiff_t>(next);
        uint8_t *d = changed + 3 * static_cast<std::ptrdiff_t>(x);
        d[0] = static_cast<uint8_t>(brightness[c[0]]), d[1] = static_cast<uint8_t>(brightness[c[1]]),
        d[2] = static_cast<uint8_t>(brightness[c[2]]);
        next += (lab[x * kLabSize] | lab[x * kLabSize + 1]) != 0 ? 1 : 0;
      }
    for (int32_t r = 0; r < row.row.runCount; ++r)
      BlendRun8(BestIsa(), rgb, changed, lab, row.row.runs[r].Start, row.row.runs[r].End);
    return RC_SUCCESS;
  }
  int32_t next = 0;
  for (int32_t r = 0; r < row.row.runCount; ++r)
    for (int32_t x = row.row.runs[r].Start, end = row.row.runs[r].End; x < end; ++x) {
      uint16_t w;
      std::memcpy(&w, lab + x * kLabSize, 2);
      T *q = rgb + 3 * static_cast<std::ptrdiff_t>(x);
      const T *c = packed + 3 * static_cast<std::ptrdiff_t>(next);
      const T c0 = c[0], c1 = c[1], c2 = c[2];
      q[0] = static_cast<T>(Blend(brightness[c0], q[0], w, kFull));
      q[1] = static_cast<T>(Blend(brightness[c1], q[1], w, kFull));
      q[2] = static_cast<T>(Blend(brightness[c2], q[2], w, kFull));
      next += w != 0 ? 1 : 0;
    }
  return RC_SUCCESS;
}

// One-channel rows: brightness only, blended by the gray weight.
template <class T>
void ReplaceGrayRow(RowView<T> &row, const Weights *weights, const BrightnessTable &bright) {
  constexpr uint32_t kFull = sizeof(T) == 2 ? 65535 : 255;
  row.ForEach([&](int32_t x) {
    T *p = row.Pixel(x);
    p[0] = static_cast<T>(Blend(bright.entry[p[0]], p[0], weights[p[0]].l, kFull));
  });
}

// A palette entry through the single-pixel conversions (Lab in floating
// point for the weight).
void ReplaceEntry(uint8_t *p, const Weights *weights, const BrightnessTable &bright, const Change &change) {
  uint8_t b = p[0], g = p[1], r = p[2];
  uint8_t lab[3], hsv[4], hls[4];
  ConvertColorPixel(COLORSPACE_LAB, &r, &g, &b, lab);
  const uint32_t w = LabWeight<false>(weights, lab);
  uint8_t cr = r, cg = g, cb = b;
  ConvertColorPixel(COLORSPACE_HSV, &cr, &cg, &cb, hsv);
  Store16(hsv, static_cast<uint32_t>(ShiftHue(Load16(hsv), change.hue8, 360)));
  ConvertColorPixel(COLORSPACE_HSV + COLORSPACE_TO_RGB, &cr, &cg, &cb, hsv);
  ConvertColorPixel(COLORSPACE_HLS, &cr, &cg, &cb, hls);
  hls[3] = static_cast<uint8_t>(ChangeSaturation(hls[3], change.sat8, 100));
  ConvertColorPixel(COLORSPACE_HLS + COLORSPACE_TO_RGB, &cr, &cg, &cb, hls);
  p[0] = static_cast<uint8_t>(Blend(bright.entry[cb], b, w, 255));
  p[1] = static_cast<uint8_t>(Blend(bright.entry[cg], g, w, 255));
  p[2] = static_cast<uint8_t>(Blend(bright.entry[cr], r, w, 255));
}

// The weight of a colour pixel as a sample: each weight scaled to the sample
// range first, then the AND, held to full scale.
template <bool kWide>
inline uint32_t MaskOf(const Weights *t, const uint8_t *lab) {
  constexpr uint32_t kFull = kWide ? 65535 : 255;
  Weights w;
  if constexpr (kWide) {
    const int32_t L = Load16(lab), a = static_cast<int16_t>(Load16(lab + 2)),
                  b = static_cast<int16_t>(Load16(lab + 4));
    const auto index = [](int32_t v) { return v + 32896 > 65535 ? 65535 : v + 32896; };
    w = Weights{t[L].l, t[index(a)].a, t[index(b)].b};
  } else {
    w = Weights{t[lab[0]].l, t[static_cast<int8_t>(lab[1]) + 128].a, t[static_cast<int8_t>(lab[2]) + 128].b};
  }
  const uint32_t v = (w.l * kFull / 1000) & (w.a * kFull / 1000) & (w.b * kFull / 1000);
  return v < kFull ? v : kFull;
}

// Frees the Lab tables on every path.
class LabTables {
 public:
  LabTables() = default;
  ~LabTables() { FreeLabTables(&set_); }
  LabTables(const LabTables &) = delete;
  LabTables &operator=(const LabTables &) = delete;
  int32_t Build() { return BuildLabTables(&set_) == RC_SUCCESS ? RC_SUCCESS : RC_NO_MEMORY; }
  const LabTableSet *get() const { return &set_; }

 private:
  LabTableSet set_{};
};

struct Setup {
  RowPass pass;
  bool palette;
  bool gray;
  bool wide;
  explicit Setup(BitmapRecord *bitmap)
      : pass(bitmap, RowSetup{.progress = kFullProgress, .palette = PaletteRule::Entries}),
        palette(pass.OnPalette()),
        gray(!palette && pass.channels() == 1),
        wide(!palette && pass.wide()) {}
};

int32_t ReplaceWorker(BitmapRecord *bitmap, const ColorReplaceEntry *entries, int32_t count, int32_t hue,
                      int32_t saturation, int32_t brightness) {
  Setup setup(bitmap);
  RowPass &pass = setup.pass;
  if (pass.status() != RC_SUCCESS) return pass.status();
  IMG_BUFFER(Weights, weights, setup.wide ? 65536 : 256);
  IMG_BUFFER(BrightnessTable, bright, 1);
  if (!weights || !bright) return RC_NO_MEMORY;
  BuildWeights(weights.get(), setup.wide, setup.gray, entries, count);
  FillBrightness(*bright.get(), brightness, setup.wide);
  const Change change{hue / 100, hue, saturation / 10, saturation * 10};

  if (setup.palette) {
    const int32_t status = RunPaletteRow(bitmap, [&](RowView<uint8_t> &row) {
      row.ForEach([&](int32_t x) { ReplaceEntry(row.Pixel(x), weights.get(), bright[0], change); });
    });
    return status == RC_SUCCESS ? FinishOperation() : status;
  }
  LabTables lab;
  if (setup.gray) {
    if (lab.Build() != RC_SUCCESS) return RC_NO_MEMORY;
    return pass.RunRows([&](auto &row) { ReplaceGrayRow(row, weights.get(), bright[0]); });
  }
  IMG_BUFFER(uint8_t, packed, static_cast<std::size_t>(bitmap->Width) * 6);
  if (!packed) return RC_NO_MEMORY;
  ColourSpacePass spaces(pass, {COLORSPACE_LAB_TABLE, COLORSPACE_HSV, COLORSPACE_HLS}, lab.get());
  if (spaces.Allocate() != RC_SUCCESS) return RC_NO_MEMORY;
  if (lab.Build() != RC_SUCCESS) return RC_NO_MEMORY;
  return spaces.Run([&](auto &row) {
    using T = std::remove_reference_t<decltype(*row.rgb)>;
    return ReplaceRow(row, reinterpret_cast<T *>(packed.get()), weights.get(), bright[0], change, lab.get());
  });
}

int32_t WeightsWorker(BitmapRecord *bitmap, const ColorReplaceEntry *entries, int32_t count) {
  Setup setup(bitmap);
  RowPass &pass = setup.pass;
  if (pass.status() != RC_SUCCESS) return pass.status();
  IMG_BUFFER(Weights, weights, setup.wide ? 65536 : 256);
  if (!weights) return RC_NO_MEMORY;
  BuildWeights(weights.get(), setup.wide, setup.gray, entries, count);

  if (setup.palette) {
    // Each entry becomes the gray level of its weight, as a row's pixel does
    // (its Lab taken in floating point, as the replace's palette path does).
    return RunPaletteRow(bitmap, [&](RowView<uint8_t> &row) {
      row.ForEach([&](int32_t x) {
        uint8_t *p = row.Pixel(x);
        uint8_t b = p[0], g = p[1], r = p[2], lab[3];
        ConvertColorPixel(COLORSPACE_LAB, &r, &g, &b, lab);
        p[0] = p[1] = p[2] = static_cast<uint8_t>(MaskOf<false>(weights.get(), lab));
      });
    });
  }
  LabTables lab;
  if (setup.gray) {
    if (lab.Build() != RC_SUCCESS) return RC_NO_MEMORY;
    return pass.RunRows([&](auto &row) {
      using T = std::remove_reference_t<decltype(*row.samples)>;
      constexpr uint32_t kFull = sizeof(T) == 2 ? 65535 : 255;
      row.ForEach([&](int32_t x) {
        T *p = row.Pixel(x);
        const uint32_t v = weights[p[0]].l * kFull / 1000;
        p[0] = static_cast<T>(v < kFull ? v : kFull);
      });
    });
  }
  ColourSpacePass spaces(pass, {COLORSPACE_LAB_TABLE}, lab.get());
  if (spaces.Allocate() != RC_SUCCESS) return RC_NO_MEMORY;
  if (lab.Build() != RC_SUCCESS) return RC_NO_MEMORY;
  return spaces.Run([&](auto &row) {
    using T = std::remove_reference_t<decltype(*row.rgb)>;
    constexpr bool kWide = sizeof(T) == 2;
    int32_t status = row.To(COLORSPACE_LAB_TABLE);
    if (status != RC_SUCCESS) return status;
    const uint8_t *const lab8 = row.Space(COLORSPACE_LAB_TABLE);
    row.row.ForEach([&](int32_t x) {
      const T v = static_cast<T>(MaskOf<kWide>(weights.get(), lab8 + x * (kWide ? 6 : 3)));
      T *q = row.rgb + 3 * static_cast<std::ptrdiff_t>(x);
      q[0] = q[1] = q[2] = v;
    });
    return RC_SUCCESS;
  });
}

// The checks after the frame: entries, count, every tolerance.
int32_t CheckEntries(const ColorReplaceEntry *entries, int32_t count) {
  if (entries == nullptr) return RC_NULL_OPTIONS;
  if (!ranges::kReplaceCount.Contains(count)) return RC_INVALID_PARAMETER;
  for (int32_t i = 0; i < count; ++i)
    if (!ranges::kFuzziness.Contains(entries[i].Fuzziness)) return RC_INVALID_PARAMETER;
  return 0;
}

constexpr EntryRule kEntry{.flagsWord = true, .nullBitmap = NullBitmap::Passed, .signedData = true};

}  // namespace

}  // namespace img::clrrep

extern "C" IMG_API int32_t Q_ColorReplaceBitmap(BitmapRecord *bitmap, const ColorReplaceEntry *entries,
                                                int32_t count, int32_t hue, int32_t saturation,
                                                int32_t brightness, uint32_t flags) {
  using namespace img::clrrep;
  if (const int32_t status = img::CheckEntry(kEntry, flags, bitmap)) return status;
  if (const int32_t status = CheckEntries(entries, count)) return status;
  if (!img::ranges::kChange.Contains(saturation) || !img::ranges::kChange.Contains(brightness) ||
      !img::ranges::kHueShift.Contains(hue))
    return RC_INVALID_PARAMETER;
  if (bitmap == nullptr) return RC_NO_BITMAP;
  return ReplaceWorker(bitmap, entries, count, hue, saturation, brightness);
}

extern "C" IMG_API int32_t Q_ColorReplaceWeightsBitmap(BitmapRecord *bitmap, const ColorReplaceEntry *entries,
                                                       int32_t count, uint32_t flags) {
  using namespace img::clrrep;
  if (const int32_t status = img::CheckEntry(kEntry, flags, bitmap)) return status;
  if (const int32_t status = CheckEntries(entries, count)) return status;
  if (bitmap == nullptr) return RC_NO_BITMAP;
  WeightsWorker(bitmap, entries, count);  // its status is not returned: kept
  const img::PlainKernelSettings plain;
  return ConvertBitmapDepth(bitmap, 8);
}
