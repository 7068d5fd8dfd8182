// Hue rotation, hue/saturation/value remapping and saturation change, on the
// palette of a palette bitmap or on the rows of any other bitmap (inside its
// region). The arithmetic runs on the compact hue scale of HUESAT.h.
#include "HUESAT.h"

#include <cstring>
#include <type_traits>

#include "colour_memo.h"
#include "frame.h"
#include "hue_model.h"

static constexpr const wchar_t *kSourceFile = L"Common/HUESAT";

namespace img::huesat {

// The models of hue_model.h on the compact scale: HSV with the hue in
// 1/360ths of a step before its rounding, the hexcone on 255 or 65535 steps.

uint32_t RgbToHsv8(int32_t r, int32_t g, int32_t b) {
  // 30720 = 256 steps x 120 degrees: the hue in 1/360ths of a step, rounded
  // to the nearest step.
  const auto c = hue::HsvOf<hue::Plain>(r, g, b, 30720, 255);
  return PackHsv8(static_cast<uint32_t>((c.h + 180) / 360), static_cast<uint32_t>(c.s),
                  static_cast<uint32_t>(c.v));
}

uint32_t HsvToRgb8(uint32_t hsv) {
  const int32_t degrees = static_cast<int32_t>(hsv & 0xFFu) * 360 >> 8;
  const hue::Rgb<int32_t> c = hue::HsvToRgb<hue::Plain, 60>(degrees, static_cast<int32_t>((hsv >> 8) & 0xFFu),
                                                            static_cast<int32_t>((hsv >> 16) & 0xFFu), 255);
  return static_cast<uint32_t>(c.r) | (static_cast<uint32_t>(c.g) << 8) | (static_cast<uint32_t>(c.b) << 16);
}

Hsv16 RgbToHsv16(int32_t r, int32_t g, int32_t b) {
  // In doubles, 7895040 = 65792 x 120 a third, offset by 46260 before the
  // division by 360 and capped.
  const auto c = hue::HsvOf<hue::Real, hue::Wide64>(r, g, b, 7895040, 65535);
  if (c.gray) return {0, 0, c.v};
  const int32_t h = static_cast<int32_t>((c.h + 46260) / 360);
  return {h > 65535 ? 65535 : h, static_cast<int32_t>(c.s), c.v};
}

Rgb16 HsvToRgb16(int32_t h, int32_t s, int32_t v) {
  // 15420 units a sixth: 360 x 257 a circle.
  const hue::Rgb<int64_t> c = hue::HsvToRgb<hue::Wide64, 15420>((int64_t{h} * 360) >> 8, s, v, 65535);
  return {static_cast<int32_t>(c.r), static_cast<int32_t>(c.g), static_cast<int32_t>(c.b)};
}

int32_t HueStep(int32_t angle) {
  // The product is kept in 32 bits: it wraps for angles beyond about
  // 8.3 million degrees.
  const int32_t scaled = static_cast<int32_t>(static_cast<uint32_t>(angle) * 256u);
  return scaled / 360;
}

int32_t SaturationStep(int32_t change) { return (change * 255 + 500) / 1000; }

namespace {

// The hexcone with saturation S' = S + ((S step) >> 8) held to the sample
// range; the channels are capped at its top. A: the arithmetic of the
// saturation and the inverse, H: of the hue.
template <class A, class H, hue::Hexcone C>
void ChangeSaturation(int32_t &r, int32_t &g, int32_t &b, int32_t step) {
  constexpr int32_t top = C.sampleMax;
  const hue::Hls c = hue::HlsOf<A, H, C>(r, g, b);
  int32_t s = c.s + ((c.s * step) >> 8);
  s = s < 0 ? 0 : (s > top ? top : s);
  const hue::Rgb<typename A::T> out = hue::HlsToRgb<A, C>(c.h, c.l, s);
  r = static_cast<int32_t>(out.r > top ? top : out.r);
  g = static_cast<int32_t>(out.g > top ? top : out.g);
  b = static_cast<int32_t>(out.b > top ? top : out.b);
}

}  // namespace

void ChangeSaturation8(int32_t &r, int32_t &g, int32_t &b, int32_t step) {
  ChangeSaturation<hue::Plain, hue::Plain, hue::kHexSteps255>(r, g, b, step);
}

void ChangeSaturation16(int32_t &r, int32_t &g, int32_t &b, int32_t step) {
  // The hue in doubles: the sector offset is added before the truncation.
  ChangeSaturation<hue::Wide64, hue::Real, hue::kHexSteps65535>(r, g, b, step);
}

namespace {

template <class T>
using Lanes = int32_t (*)(T *row, int32_t channels, int32_t left, int32_t right, int32_t step);

// The loops of the best set up to `isa` over a prefix (what AVX-512 leaves,
// AVX2 takes where its groups fit), the rest one pixel at a time.
template <class T, class Step>
void Row(Isa isa, Lanes<T> avx2, Lanes<T> avx512, Step pixel, T *row, int32_t channels, int32_t left,
         int32_t right, int32_t step) {
  isa = BestIsa(isa);
  if (channels == 3 || channels == 4) {
    if (isa >= Isa::Avx512) left = avx512(row, channels, left, right, step);
    if (isa >= Isa::Avx2) left = avx2(row, channels, left, right, step);
  }
  ForEachColour(row, channels, left, right,
                [&](int32_t &r, int32_t &g, int32_t &b) { pixel(r, g, b, step); });
}

void HuePixel8(int32_t &r, int32_t &g, int32_t &b, int32_t step) {
  const uint32_t hsv = RgbToHsv8(r, g, b);
  const uint32_t hue = (hsv + static_cast<uint32_t>(step)) & 0xFFu;
  const uint32_t rgb = HsvToRgb8((hsv & 0xFFFF00u) | hue);
  r = static_cast<int32_t>(rgb & 0xFF), g = static_cast<int32_t>((rgb >> 8) & 0xFF),
  b = static_cast<int32_t>(rgb >> 16);
}

void HuePixel16(int32_t &r, int32_t &g, int32_t &b, int32_t step) {
  const Hsv16 p = RgbToHsv16(r, g, b);
  const int32_t hue =
      static_cast<int32_t>((static_cast<uint32_t>(p.h) + static_cast<uint32_t>(step) * 257u) & 0xFFFFu);
  const Rgb16 c = HsvToRgb16(hue, p.s, p.v);
  r = c.r, g = c.g, b = c.b;
}

}  // namespace

void HueRow8(Isa isa, uint8_t *row, int32_t channels, int32_t left, int32_t right, int32_t step) {
  Row<uint8_t>(isa, HueLanesAvx2, HueLanesAvx512, HuePixel8, row, channels, left, right, step);
}

void SaturationRow8(Isa isa, uint8_t *row, int32_t channels, int32_t left, int32_t right, int32_t step) {
  Row<uint8_t>(isa, SaturationLanesAvx2, SaturationLanesAvx512, ChangeSaturation8, row, channels, left, right,
               step);
}

void HueRow16(Isa isa, uint16_t *row, int32_t channels, int32_t left, int32_t right, int32_t step) {
  Row<uint16_t>(isa, HueLanesAvx2, HueLanesAvx512, HuePixel16, row, channels, left, right, step);
}

void SaturationRow16(Isa isa, uint16_t *row, int32_t channels, int32_t left, int32_t right, int32_t step) {
  Row<uint16_t>(isa, SaturationLanesAvx2, SaturationLanesAvx512, ChangeSaturation16, row, channels, left,
                right, step);
}

namespace {

// ---- Per-pixel operations -------------------------------------------------------------
// Each has Pixel8 (palette entries and 8-bit rows) and Pixel16 (16-bit rows),
// changing r, g, b in place.

struct HueOp {
  int32_t step;
  void Rows(Isa isa, uint8_t *row, int32_t channels, int32_t left, int32_t right) const {
    HueRow8(isa, row, channels, left, right, step);
  }
  void Rows(Isa isa, uint16_t *row, int32_t channels, int32_t left, int32_t right) const {
    HueRow16(isa, row, channels, left, right, step);
  }
  void Pixel8(int32_t &r, int32_t &g, int32_t &b) const { HuePixel8(r, g, b, step); }
  void Pixel16(int32_t &r, int32_t &g, int32_t &b) const { HuePixel16(r, g, b, step); }
};

struct SaturationOp {
  int32_t step;
  void Rows(Isa isa, uint8_t *row, int32_t channels, int32_t left, int32_t right) const {
    SaturationRow8(isa, row, channels, left, right, step);
  }
  void Rows(Isa isa, uint16_t *row, int32_t channels, int32_t left, int32_t right) const {
    SaturationRow16(isa, row, channels, left, right, step);
  }
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
// A pixel equal to its left neighbour takes its result; the others go through
// the call's colour memo (rows) or are computed (palette entries). With three or more channels the pixel is
// blue, green, red (a fourth sample is kept); with one channel sample 0 is read as all three colours and the
// three writes land on sample 0, blue last.

template <class T, class Op, bool kPixel16>
void RunPixels(T *row, int32_t channels, bool threeOnly, int32_t start, int32_t end, const Op &op,
               ColourMemo<T> *memo) {
  const auto compute = [&op](int32_t &r, int32_t &g, int32_t &b) {
    if constexpr (kPixel16)
      op.Pixel16(r, g, b);
    else
      op.Pixel8(r, g, b);
  };
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
      if (memo)
        memo->Apply(r, g, b, compute);
      else
        compute(r, g, b);
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

// Rows and palette entries through the operation's per-pixel step, rows
// through the memo of their sample width when there is one.
template <class Op>
auto PixelKernel(const Op &op, bool threeOnly16, ColourMemo<uint8_t> *memo8, ColourMemo<uint16_t> *memo16) {
  return [&op, threeOnly16, memo8, memo16](auto &row) {
    using T = std::remove_reference_t<decltype(*row.samples)>;
    constexpr bool kWide = sizeof(T) == 2;
    ColourMemo<T> *memo;
    if constexpr (kWide)
      memo = memo16;
    else
      memo = memo8;
    row.ForEachRun([&](int32_t start, int32_t end) {
      RunPixels<T, Op, kWide>(row.samples, row.channels, kWide && threeOnly16, start, end, op, memo);
    });
  };
}

// Rows of operations with loops of their own, at a set of AVX2 or above:
// three- and four-sample rows through the loops (no memo: computing a group
// of pixels costs less than looking them up), others one pixel at a time.
template <class Op>
auto LanesKernel(const Op &op, Isa isa) {
  return [&op, isa](auto &row) {
    using T = std::remove_reference_t<decltype(*row.samples)>;
    row.ForEachRun([&](int32_t start, int32_t end) {
      if (row.channels == 3 || row.channels == 4)
        op.Rows(isa, row.samples, row.channels, start, end);
      else
        RunPixels<T, Op, sizeof(T) == 2>(row.samples, row.channels, false, start, end, op, nullptr);
    });
  };
}

template <class Op>
concept HasLanes = requires(const Op &op, uint8_t *row) {
  op.Rows(Isa::Scalar, row, 3, 0, 0);
};

// Palette bitmaps (without PALETTE_FLAG_NONE) change every entry through the
// 8-bit step; the status callback hears 0 before the change and 100 after
// it, and the second answer is the result. Other bitmaps go row by row over
// the region's runs, reporting nothing. `check16` gives the status for
// 16-bit rows before any row is touched (the remap's table length), or 0.
template <class Op, class Check16>
int32_t Dispatch(BitmapRecord *bitmap, const Op &op, bool threeOnly16, Check16 check16) {
  RowPass pass(bitmap, RowSetup{.palette = PaletteRule::Entries});
  if (pass.status() != RC_SUCCESS) return pass.status();
  if (pass.OnPalette()) {
    if (const int32_t count = PaletteCount(bitmap); count < 0) return count;
    const auto kernel = PixelKernel(op, threeOnly16, nullptr, nullptr);
    return Bracketed(kFullProgress, [&] { return RunPaletteRow(bitmap, kernel); });
  }
  if constexpr (HasLanes<Op>) {
    if (const Isa isa = BestIsa(); isa >= Isa::Avx2) return pass.RunRows(LanesKernel(op, isa));
  }
  if (pass.wide()) {
    if (const int32_t status = check16()) return status;
    ColourMemo<uint16_t> memo(__LINE__, kSourceFile);
    if (!memo) return RC_NO_MEMORY;
    return pass.RunRows(PixelKernel(op, threeOnly16, nullptr, &memo));
  }
  ColourMemo<uint8_t> memo(__LINE__, kSourceFile);
  if (!memo) return RC_NO_MEMORY;
  return pass.RunRows(PixelKernel(op, threeOnly16, &memo, nullptr));
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
