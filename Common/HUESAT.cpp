// Hue rotation, hue/saturation/value remapping and saturation change, on the
// palette of a palette bitmap or on the rows of any other bitmap (inside its
// region). The arithmetic runs on the compact hue scale of HUESAT.h.
#include "HUESAT.h"

#include <cstring>
#include <type_traits>

#include "frame.h"

static constexpr const wchar_t *kSourceFile = L"Common/HUESAT";

namespace img::huesat {

namespace {

constexpr int32_t Max3(int32_t a, int32_t b, int32_t c) { return a > b ? (a > c ? a : c) : (b > c ? b : c); }
constexpr int32_t Min3(int32_t a, int32_t b, int32_t c) { return a < b ? (a < c ? a : c) : (b < c ? b : c); }
constexpr int32_t Clamp(int32_t v, int32_t lo, int32_t hi) { return v < lo ? lo : (v > hi ? hi : v); }

// One channel of the 8-bit hexcone inverse; h wraps by 255, not 256.
inline int32_t HexValue8(int32_t m1, int32_t m2, int32_t h) {
  if (h >= 256) h -= 255;
  if (h < 0) h += 255;
  int32_t v;
  if (h < 42) {
    v = m1 + (m2 - m1) * h * 6 / 255;
  } else if (h < 127) {
    return m2;
  } else if (h < 170) {
    v = m1 + (m2 - m1) * (170 - h) * 6 / 255;
  } else {
    return m1;
  }
  return v > 255 ? 255 : v;
}

inline int32_t HexValue16(int32_t m1, int32_t m2, int32_t h) {
  if (h >= 65536) h -= 65535;
  if (h < 0) h += 65535;
  int64_t v;
  if (h < 10922) {
    v = m1 + int64_t{m2 - m1} * h * 6 / 65535;
  } else if (h < 32767) {
    return m2;
  } else if (h < 43690) {
    v = m1 + int64_t{m2 - m1} * (43690 - h) * 6 / 65535;
  } else {
    return m1;
  }
  return v > 65535 ? 65535 : static_cast<int32_t>(v);
}

}  // namespace

uint32_t RgbToHsv8(int32_t r, int32_t g, int32_t b) {
  const int32_t mx = Max3(r, g, b), mn = Min3(r, g, b);
  if (mx == mn) return PackHsv8(0, 0, static_cast<uint32_t>(mx));
  int32_t h;
  if (b == mn)
    h = ((g - mn) * 30720 / (r + g - 2 * mn) + 180) / 360;
  else if (r == mn)
    h = ((b - mn) * 30720 / (b + g - 2 * mn) + 30900) / 360;
  else
    h = ((r - mn) * 30720 / (r + b - 2 * mn) + 61620) / 360;
  const int32_t s = (mx - mn) * 255 / mx;
  return PackHsv8(static_cast<uint32_t>(h), static_cast<uint32_t>(s), static_cast<uint32_t>(mx));
}

uint32_t HsvToRgb8(uint32_t hsv) {
  const int32_t hue = static_cast<int32_t>(hsv & 0xFFu);
  const int32_t s = static_cast<int32_t>((hsv >> 8) & 0xFFu);
  const int32_t v = static_cast<int32_t>((hsv >> 16) & 0xFFu);
  int32_t r, g, b;
  if (s == 0) {
    r = g = b = v;
  } else {
    const int32_t H = (hue * 360) >> 8;
    const int32_t low = (255 - s) * v / 255, d = v - low;
    if (H <= 60) {
      r = v, g = d * H / (120 - H) + low, b = low;
    } else if (H <= 120) {
      r = (120 - H) * d / H + low, g = v, b = low;
    } else if (H <= 180) {
      r = low, g = v, b = (H - 120) * d / (240 - H) + low;
    } else if (H <= 240) {
      r = low, g = (240 - H) * d / (H - 120) + low, b = v;
    } else if (H <= 300) {
      r = (H - 240) * d / (360 - H) + low, g = low, b = v;
    } else {
      r = v, g = low, b = (360 - H) * d / (H - 240) + low;
    }
  }
  return static_cast<uint32_t>(r) | (static_cast<uint32_t>(g) << 8) | (static_cast<uint32_t>(b) << 16);
}

Hsv16 RgbToHsv16(int32_t r, int32_t g, int32_t b) {
  const int32_t mx = Max3(r, g, b), mn = Min3(r, g, b);
  if (mx == mn) return {0, 0, mx};
  double q, offset;
  if (b == mn) {
    q = static_cast<double>(g - mn) * 7895040 / (r + g - 2 * mn);
    offset = 0;
  } else if (r == mn) {
    q = static_cast<double>(b - mn) * 7895040 / (b + g - 2 * mn);
    offset = 7895040;
  } else {
    q = static_cast<double>(r - mn) * 7895040 / (r + b - 2 * mn);
    offset = 15790080;
  }
  int32_t h = static_cast<int32_t>((q + offset + 46260) / 360);
  if (h > 65535) h = 65535;
  const int32_t s = static_cast<int32_t>(int64_t{mx - mn} * 65535 / mx);
  return {h, s, mx};
}

Rgb16 HsvToRgb16(int32_t h, int32_t s, int32_t v) {
  if (s == 0) return {v, v, v};
  const int64_t hs = (int64_t{h} * 360) >> 8;
  const int64_t low = (int64_t{v} * 65535 - int64_t{v} * s) / 65535;
  const int64_t d = v - low;
  int64_t r, g, b;
  if (hs <= 30840) {
    b = low;
    if (hs > 15420)
      g = v, r = (30840 - hs) * d / hs + low;
    else
      r = v, g = d * hs / (30840 - hs) + low;
  } else if (hs <= 61680) {
    r = low;
    if (hs > 46260)
      b = v, g = (61680 - hs) * d / (hs - 30840) + low;
    else
      g = v, b = (hs - 30840) * d / (61680 - hs) + low;
  } else {
    g = low;
    if (hs > 77100)
      r = v, b = (92520 - hs) * d / (hs - 61680) + low;
    else
      b = v, r = (hs - 61680) * d / (92520 - hs) + low;
  }
  return {static_cast<int32_t>(r), static_cast<int32_t>(g), static_cast<int32_t>(b)};
}

int32_t HueStep(int32_t angle) {
  // The product is kept in 32 bits: it wraps for angles beyond about
  // 8.3 million degrees.
  const int32_t scaled = static_cast<int32_t>(static_cast<uint32_t>(angle) * 256u);
  return scaled / 360;
}

int32_t SaturationStep(int32_t change) { return (change * 255 + 500) / 1000; }

void ChangeSaturation8(int32_t &r, int32_t &g, int32_t &b, int32_t step) {
  const int32_t mx = Max3(r, g, b), mn = Min3(r, g, b);
  const int32_t L = (mx + mn) >> 1;
  int32_t s = 0, hue = 0;
  if (mx != mn) {
    s = (mx + mn < 256) ? (mx - mn) * 255 / (mx + mn) : (mx - mn) * 255 / (510 - mx - mn);
    const int32_t d6 = 6 * (mx - mn);
    if (mx == r)
      hue = (g - b) * 255 / d6;
    else if (mx == g)
      hue = (b - r) * 255 / d6 + 85;
    else
      hue = (r - g) * 255 / d6 + 170;
    if (hue < 0) hue += 255;  // 255, not 256: kept
  }
  s = Clamp(s + ((s * step) >> 8), 0, 255);
  if (s == 0) {
    r = g = b = L;
    return;
  }
  int32_t m2 = L < 128 ? (s + 255) * L / 255 : s + L - L * s / 255;
  if (m2 > 255) m2 = 255;
  const int32_t m1 = 2 * L - m2;
  b = HexValue8(m1, m2, hue - 85);
  g = HexValue8(m1, m2, hue);
  r = HexValue8(m1, m2, hue + 85);
}

void ChangeSaturation16(int32_t &r, int32_t &g, int32_t &b, int32_t step) {
  const int32_t mx = Max3(r, g, b), mn = Min3(r, g, b);
  const int32_t L = (mx + mn) >> 1;
  int32_t s = 0, hue = 0;
  if (mx != mn) {
    const int64_t diff = mx - mn;
    s = static_cast<int32_t>(L <= 32767 ? diff * 65535 / (mx + mn) : diff * 65535 / (131070 - mx - mn));
    // The sector offset is added in double before the truncation.
    const double d6 = 6.0 * static_cast<double>(diff);
    double h;
    if (mx == r)
      h = static_cast<double>(g - b) * 65535 / d6;
    else if (mx == g)
      h = static_cast<double>(b - r) * 65535 / d6 + 21845;
    else
      h = static_cast<double>(r - g) * 65535 / d6 + 43690;
    hue = static_cast<int32_t>(h);
    if (hue < 0) hue += 65535;
  }
  s = Clamp(s + ((s * step) >> 8), 0, 65535);
  if (s == 0) {
    r = g = b = L;
    return;
  }
  int64_t m2 = L < 32768 ? (int64_t{s} + 65535) * L / 65535 : int64_t{L} + s - int64_t{L} * s / 65535;
  if (m2 > 65535) m2 = 65535;
  const int32_t m1 = 2 * L - static_cast<int32_t>(m2);
  b = HexValue16(m1, static_cast<int32_t>(m2), hue - 21845);
  g = HexValue16(m1, static_cast<int32_t>(m2), hue);
  r = HexValue16(m1, static_cast<int32_t>(m2), hue + 21845);
}

namespace {

// ---- Per-pixel operations -------------------------------------------------------------
// Each has Pixel8 (palette entries and 8-bit rows) and Pixel16 (16-bit rows),
// changing r, g, b in place.

struct HueOp {
  int32_t step;
  void Pixel8(int32_t &r, int32_t &g, int32_t &b) const {
    const uint32_t hsv = RgbToHsv8(r, g, b);
    const uint32_t hue = (hsv + static_cast<uint32_t>(step)) & 0xFFu;
    const uint32_t rgb = HsvToRgb8((hsv & 0xFFFF00u) | hue);
    r = static_cast<int32_t>(rgb & 0xFF), g = static_cast<int32_t>((rgb >> 8) & 0xFF),
    b = static_cast<int32_t>(rgb >> 16);
  }
  void Pixel16(int32_t &r, int32_t &g, int32_t &b) const {
    const Hsv16 p = RgbToHsv16(r, g, b);
    const int32_t hue =
        static_cast<int32_t>((static_cast<uint32_t>(p.h) + static_cast<uint32_t>(step) * 257u) & 0xFFFFu);
    const Rgb16 c = HsvToRgb16(hue, p.s, p.v);
    r = c.r, g = c.g, b = c.b;
  }
};

struct SaturationOp {
  int32_t step;
  void Pixel8(int32_t &r, int32_t &g, int32_t &b) const { ChangeSaturation8(r, g, b, step); }
  void Pixel16(int32_t &r, int32_t &g, int32_t &b) const { ChangeSaturation16(r, g, b, step); }
};

struct RemapOp {
  const int32_t *selection, *hue, *saturation, *value;
  int32_t shift;  // 16-bit rows: 4 for 4096-entry tables, else 0
  void Pixel8(int32_t &r, int32_t &g, int32_t &b) const {
    uint32_t hsv = RgbToHsv8(r, g, b);
    const uint32_t h = hsv & 0xFFu, s = (hsv >> 8) & 0xFFu, v = (hsv >> 16) & 0xFFu;
    if (selection[h] != 0)
      hsv = PackHsv8(static_cast<uint32_t>(hue[h]), static_cast<uint32_t>(saturation[s]),
                     static_cast<uint32_t>(value[v]));
    const uint32_t rgb = HsvToRgb8(hsv);
    r = static_cast<int32_t>(rgb & 0xFF), g = static_cast<int32_t>((rgb >> 8) & 0xFF),
    b = static_cast<int32_t>(rgb >> 16);
  }
  void Pixel16(int32_t &r, int32_t &g, int32_t &b) const {
    const Hsv16 p = RgbToHsv16(r, g, b);
    const int32_t h = p.h >> shift, s = p.s >> shift, v = p.v >> shift;
    int32_t nh = h, ns = s, nv = v;
    if (selection[h] != 0) nh = hue[h], ns = saturation[s], nv = value[v];
    // Caller values are taken on the 16-bit scale: their low 16 bits.
    const auto up = [this](int32_t x) {
      return static_cast<int32_t>((static_cast<uint32_t>(x) << shift) & 0xFFFFu);
    };
    const Rgb16 c = HsvToRgb16(up(nh), up(ns), up(nv));
    r = c.r, g = c.g, b = c.b;
  }
};

// ---- Row runs ---------------------------------------------------------------------------
// With three or more channels the pixel is blue, green, red (a fourth sample
// is kept); with one channel sample 0 is read as all three colours and the
// three writes land on sample 0, blue last.

template <class T, class Op, bool kPixel16>
void RunPixels(T *row, int32_t channels, bool threeOnly, int32_t start, int32_t end, const Op &op) {
  const bool colour = threeOnly ? channels == 3 : channels >= 3;
  T *p = row + static_cast<ptrdiff_t>(start) * channels;
  int32_t lastIn[3] = {-1, -1, -1}, lastOut[3] = {0, 0, 0};
  for (int32_t x = start; x < end; ++x, p += channels) {
    int32_t r, g, b;
    if (colour)
      b = p[0], g = p[1], r = p[2];
    else
      r = g = b = p[0];
    if (r == lastIn[0] && g == lastIn[1] && b == lastIn[2]) {
      r = lastOut[0], g = lastOut[1], b = lastOut[2];
    } else {
      lastIn[0] = r, lastIn[1] = g, lastIn[2] = b;
      if constexpr (kPixel16)
        op.Pixel16(r, g, b);
      else
        op.Pixel8(r, g, b);
      lastOut[0] = r, lastOut[1] = g, lastOut[2] = b;
    }
    if (colour) {
      p[2] = static_cast<T>(r), p[1] = static_cast<T>(g), p[0] = static_cast<T>(b);
    } else {
      p[0] = static_cast<T>(r);
      p[0] = static_cast<T>(g);
      p[0] = static_cast<T>(b);
    }
  }
}

// Rows and palette entries through the operation's per-pixel step.
template <class Op>
auto PixelKernel(const Op &op, bool threeOnly16) {
  return [&op, threeOnly16](auto &row) {
    using T = std::remove_reference_t<decltype(*row.samples)>;
    constexpr bool kWide = sizeof(T) == 2;
    row.ForEachRun([&](int32_t start, int32_t end) {
      RunPixels<T, Op, kWide>(row.samples, row.channels, kWide && threeOnly16, start, end, op);
    });
  };
}

// Palette bitmaps (without PALETTE_FLAG_NONE) change every entry through the
// 8-bit step; the status callback hears 0 before the change and 100 after
// it, and the second answer is the result. Other bitmaps go row by row over
// the region's runs, reporting nothing. `check16` gives the status for
// 16-bit rows before any row is touched (the remap's table length), or 0.
template <class Op, class Check16>
int32_t Dispatch(BitmapRecord *bitmap, const Op &op, bool threeOnly16, Check16 check16) {
  RowPass pass(bitmap, RowSetup{.palette = PaletteRule::Entries});
  if (pass.status() != RC_SUCCESS) return pass.status();
  const auto kernel = PixelKernel(op, threeOnly16);
  if (pass.OnPalette()) {
    if (const int32_t count = PaletteCount(bitmap); count < 0) return count;
    return Bracketed(kFullProgress, [&] { return RunPaletteRow(bitmap, kernel); });
  }
  if (pass.wide()) {
    if (const int32_t status = check16()) return status;
  }
  return pass.RunRows(kernel);
}

constexpr EntryRule kEntry{.nullBitmap = NullBitmap::RefusedUnallocated, .signedData = true};
constexpr auto kNoCheck = [] { return 0; };

}  // namespace

}  // namespace img::huesat

using namespace img::huesat;

extern "C" {

IMG_API int32_t Q_ChangeBitmapHue(BitmapRecord *bitmap, int32_t angle, uint32_t flags) {
  if (const int32_t status = img::CheckEntry(kEntry, flags, bitmap)) return status;
  return Dispatch(bitmap, HueOp{HueStep(angle)}, false, kNoCheck);
}

IMG_API int32_t Q_ChangeBitmapSaturation(BitmapRecord *bitmap, int32_t change, uint32_t flags) {
  if (const int32_t status = img::CheckEntry(kEntry, flags, bitmap)) return status;
  if (!img::ranges::kChange.Contains(change)) return RC_INVALID_PARAMETER;
  return Dispatch(bitmap, SaturationOp{SaturationStep(change)}, false, kNoCheck);
}

IMG_API int32_t Q_RemapBitmapHue(BitmapRecord *bitmap, const int32_t *selection, const int32_t *hue,
                                 const int32_t *saturation, const int32_t *value, uint32_t length,
                                 uint32_t flags) {
  if (const int32_t status = img::CheckEntry(kEntry, flags, bitmap)) return status;
  // Every path indexes the tables by 8-bit values at least; 16-bit rows
  // need 4096 entries (indexes shifted by 4) or 65536 (checked below).
  if (length < 256) return RC_INVALID_PARAMETER;
  // No index passes 65535: the stand-ins for null tables stop there.
  const uint32_t reach = length < 65536u ? length : 65536u;
  IMG_BUFFER(int32_t, ones, reach);
  if (!ones) return RC_NO_MEMORY;
  IMG_BUFFER(int32_t, identity, reach);
  if (!identity) return RC_NO_MEMORY;
  for (uint32_t i = 0; i < reach; ++i) {
    ones[i] = 1;
    identity[i] = static_cast<int32_t>(i);
  }
  const RemapOp op{selection ? selection : ones.get(), hue ? hue : identity.get(),
                   saturation ? saturation : identity.get(), value ? value : identity.get(),
                   length == 4096 ? 4 : 0};
  return Dispatch(bitmap, op, true,
                  [length] { return length == 4096 || length >= 65536 ? 0 : RC_INVALID_PARAMETER; });
}

}  // extern "C"
