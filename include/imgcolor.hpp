// imgcolor.hpp: a header-only C++17 wrapper of the imgcolor family's C ABI.
//
//   imgcolor::Bitmap photo(640, 480, 24);              // zeroed 24-bit BGR, freed by its destructor
//   photo.SetRegionEllipse({100, 100, 300, 200});      // work inside an ellipse only
//   photo.ChangeBitmapContrast(300);                   // Q_ChangeBitmapContrast(&record, 300, 0)
//   imgcolor::WithProgress([](int32_t percent) { return percent < 50; },  // false cancels
//                          [&] { photo.ChangeBitmapHue(30); });           // throws imgcolor::Error
//
// - Bitmap owns one BitmapRecord: move-only, freed (FreeBitmap) in its
//   destructor. It is made from a size and kind, copied from caller pixel
//   memory with any stride (CopyOf), or borrows caller pixel memory without a
//   copy (Borrow) when the stride is a multiple of 4 bytes (the kernel's row
//   alignment) and at least one row's bytes.
// - Every export Q_Name of imgcolor.h is the method Name (the same name
//   without "Q_"), with typed arguments: records by reference, tables as
//   spans (an empty span passes null), results returned instead of written
//   through pointers, and the reserved flags word left out (passed as 0).
//   Exports that make new bitmaps (planes, merges, sums) are static methods
//   returning Bitmap. A status other than RC_SUCCESS throws Error, which
//   carries the status, its name (Q_StatusName) and the export's name.
// - OnProgress / WithProgress install any callable as this thread's status
//   callback and restore the previous one on exit, exceptions included.
//
// The wrapper needs C++17 and nothing but the C headers; under C++20
// imgcolor::Span is std::span.
#ifndef IMGCOLOR_HPP
#define IMGCOLOR_HPP

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#if __cplusplus >= 202002L && __has_include(<span>)
#include <span>
#endif

#include "imgcolor.h"

namespace imgcolor {

// ---- Spans ---------------------------------------------------------------------------------
#if defined(__cpp_lib_span)
template <class T>
using Span = std::span<T>;
#else
// A view of `size()` elements at `data()`: what std::span offers, as far as
// the wrapper uses it.
template <class T>
class Span {
 public:
  constexpr Span() noexcept = default;
  constexpr Span(T *data, std::size_t size) noexcept : data_(data), size_(size) {}
  template <std::size_t N>
  constexpr Span(T (&array)[N]) noexcept : data_(array), size_(N) {}
  // Any contiguous container (std::vector, std::array, Span of a convertible type).
  template <class C, class = std::enable_if_t<std::is_convertible_v<
                         std::remove_pointer_t<decltype(std::declval<C &>().data())> (*)[], T (*)[]>>>
  constexpr Span(C &&container) noexcept : data_(container.data()), size_(container.size()) {}
  constexpr T *data() const noexcept { return data_; }
  constexpr std::size_t size() const noexcept { return size_; }
  constexpr bool empty() const noexcept { return size_ == 0; }
  constexpr T &operator[](std::size_t i) const noexcept { return data_[i]; }
  constexpr T *begin() const noexcept { return data_; }
  constexpr T *end() const noexcept { return data_ + size_; }

 private:
  T *data_ = nullptr;
  std::size_t size_ = 0;
};
#endif

// ---- Errors ---------------------------------------------------------------------------------
// The status a progress callable's "stop" becomes: the export ends and
// returns it, and the wrapper throws Error with it (cancelled() is true).
inline constexpr int32_t kCancelled = -4200;

class Error : public std::runtime_error {
 public:
  Error(int32_t status, const char *where)
      : std::runtime_error(Describe(status, where)), status_(status), where_(where) {}
  int32_t status() const noexcept { return status_; }
  // "RC_INVALID_PARAMETER"; "RC_UNKNOWN" for codes the family does not define.
  const char *name() const noexcept { return Q_StatusName(status_); }
  const char *message() const noexcept { return Q_StatusMessage(status_); }
  // The export (or kernel function) that answered.
  const char *where() const noexcept { return where_; }
  bool cancelled() const noexcept { return status_ == kCancelled; }

 private:
  static std::string Describe(int32_t status, const char *where) {
    if (status == kCancelled) return std::string(where) + ": cancelled by the progress callback";
    return std::string(where) + ": " + Q_StatusName(status) + " (" + std::to_string(status) +
           "): " + Q_StatusMessage(status);
  }
  int32_t status_;
  const char *where_;
};

namespace detail {
inline void Check(int32_t status, const char *where) {
  if (status != RC_SUCCESS) throw Error(status, where);
}
// Calls a progress callable: bool (true continues), int32_t (1 continues,
// anything else is the status to stop with) or void (always continues).
template <class F>
int32_t Answer(F &fn, int32_t percent) {
  using R = decltype(fn(percent));
  if constexpr (std::is_void_v<R>) {
    fn(percent);
    return RC_SUCCESS;
  } else if constexpr (std::is_same_v<R, bool>) {
    return fn(percent) ? RC_SUCCESS : kCancelled;
  } else {
    return static_cast<int32_t>(fn(percent));
  }
}
}  // namespace detail

// ---- Progress -------------------------------------------------------------------------------
// Installs `fn` as this thread's status callback for its lifetime and puts
// the previous callback back in its destructor. A callable that throws stops
// the operation (kCancelled); the exception is kept for Rethrow() (and
// WithProgress rethrows it): it never crosses the C library.
template <class F>
class ScopedProgress {
 public:
  template <class G>
  explicit ScopedProgress(G &&fn) : fn_(std::forward<G>(fn)) {
    previous_ = GetStatusCallback(&previousData_);
    SetStatusCallback(&Trampoline, this);
  }
  ~ScopedProgress() { SetStatusCallback(previous_, previousData_); }
  ScopedProgress(const ScopedProgress &) = delete;
  ScopedProgress &operator=(const ScopedProgress &) = delete;
  // Rethrows what the callable threw, if it did.
  void Rethrow() {
    if (thrown_) std::rethrow_exception(std::exchange(thrown_, nullptr));
  }

 private:
  static int32_t Trampoline(int32_t percent, void *self) {
    auto *scope = static_cast<ScopedProgress *>(self);
    try {
      return detail::Answer(scope->fn_, percent);
    } catch (...) {
      scope->thrown_ = std::current_exception();
      return kCancelled;
    }
  }
  F fn_;
  std::exception_ptr thrown_;
  StatusCallback previous_ = nullptr;
  void *previousData_ = nullptr;
};

// auto progress = imgcolor::OnProgress([](int32_t percent) { ...; return true; });
template <class F>
ScopedProgress<std::decay_t<F>> OnProgress(F &&fn) {
  return ScopedProgress<std::decay_t<F>>(std::forward<F>(fn));
}

// Runs `work` with `fn` as the status callback and returns what `work`
// returns. An exception the callable threw is rethrown in place of the
// Error its cancellation caused.
template <class F, class Work>
decltype(auto) WithProgress(F &&fn, Work &&work) {
  ScopedProgress<std::decay_t<F>> scope(std::forward<F>(fn));
  try {
    return std::forward<Work>(work)();
  } catch (...) {
    scope.Rethrow();
    throw;
  }
}

// ---- Bitmap ---------------------------------------------------------------------------------
class Bitmap {
 public:
  // An empty bitmap (no pixels); what a moved-from bitmap is.
  Bitmap() noexcept { record_.StructSize = BITMAP_RECORD_SIZE; }
  // A zeroed bitmap: bits 1, 2, 4, 8 (palette, or gray with ORDER_GRAY), 12
  // and 16 gray, 16, 24, 32, 48, 64 colour. Palette kinds take `palette`
  // (2^bits entries) or the gray ramp.
  Bitmap(int32_t width, int32_t height, int32_t bitsPerPixel, int32_t colorOrder = ORDER_BGR,
         int32_t orientation = ORIENT_TOP_FIRST, const PaletteEntry *palette = nullptr)
      : Bitmap() {
    detail::Check(AllocateBitmap(&record_, BITMAP_RECORD_SIZE, MEMORY_CONVENTIONAL, width, height,
                                 bitsPerPixel, colorOrder, palette, orientation, nullptr, 0),
                  "AllocateBitmap");
  }
  // A bitmap holding a copy of caller pixels: `height` rows `stride` bytes
  // apart (any stride at least one row's bytes), each in the kind's stored
  // layout, the first being stored row 0 (the top row for ORIENT_TOP_FIRST).
  static Bitmap CopyOf(const void *pixels, int32_t width, int32_t height, int32_t bitsPerPixel,
                       int32_t colorOrder, std::size_t stride, int32_t orientation = ORIENT_TOP_FIRST,
                       const PaletteEntry *palette = nullptr) {
    Bitmap b(width, height, bitsPerPixel, colorOrder, orientation, palette);
    const std::size_t bytes = b.RowBytes();
    if (!pixels || stride < bytes) throw Error(RC_INVALID_PARAMETER, "Bitmap::CopyOf");
    for (int32_t y = 0; y < height; ++y)
      std::memcpy(b.record_.Pixels + static_cast<std::size_t>(y) * b.record_.BytesPerLine,
                  static_cast<const uint8_t *>(pixels) + static_cast<std::size_t>(y) * stride, bytes);
    return b;
  }
  // A bitmap whose pixels are the caller's memory, not a copy: operations
  // change it in place, and the memory must outlive the bitmap. The kernel
  // reads rows BytesPerLine apart, so `stride` must be a multiple of 4 and
  // at least one row's bytes (else Error RC_INVALID_PARAMETER; use CopyOf).
  // Palette kinds get a palette of their own (`palette` or the gray ramp).
  // The exports that replace a bitmap's pixel memory (ReplacesPixels()) are
  // refused with RC_UNSUPPORTED_BITMAP before they are called.
  static Bitmap Borrow(void *pixels, int32_t width, int32_t height, int32_t bitsPerPixel, int32_t colorOrder,
                       std::size_t stride, int32_t orientation = ORIENT_TOP_FIRST,
                       const PaletteEntry *palette = nullptr) {
    // The kernel fills in the record and the palette for a 1 x height bitmap
    // of the kind; its own pixels are swapped for the caller's.
    Bitmap b(1, height, bitsPerPixel, colorOrder, orientation, palette);
    const std::size_t bytes = RowBytes(width, bitsPerPixel);
    if (!pixels || stride < bytes || stride % 4 != 0 || stride > UINT32_MAX)
      throw Error(RC_INVALID_PARAMETER, "Bitmap::Borrow");
    FreeMemory(b.record_.Pixels, __LINE__, L"imgcolor.hpp");
    b.record_.Pixels = static_cast<uint8_t *>(pixels);
    b.record_.Width = width;
    b.record_.BytesPerLine = static_cast<uint32_t>(stride);
    b.record_.DataSize = static_cast<uint64_t>(stride) * static_cast<uint64_t>(height);
    b.borrowed_ = true;
    return b;
  }
  // Takes over a record that the kernel filled (AllocateBitmap, CopyBitmap, ...).
  static Bitmap Adopt(const BitmapRecord &record) noexcept {
    Bitmap b;
    b.record_ = record;
    return b;
  }

  Bitmap(const Bitmap &) = delete;
  Bitmap &operator=(const Bitmap &) = delete;
  Bitmap(Bitmap &&other) noexcept : record_(other.record_), borrowed_(other.borrowed_) { other.Forget(); }
  Bitmap &operator=(Bitmap &&other) noexcept {
    if (this != &other) {
      Free();
      record_ = other.record_;
      borrowed_ = other.borrowed_;
      other.Forget();
    }
    return *this;
  }
  ~Bitmap() { Free(); }

  // A deep copy (pixels, palette, region) in memory of its own.
  Bitmap Clone() const {
    Bitmap b;
    detail::Check(CopyBitmap(&b.record_, &record_, BITMAP_RECORD_SIZE), "CopyBitmap");
    return b;
  }

  BitmapRecord *get() noexcept { return &record_; }
  const BitmapRecord *get() const noexcept { return &record_; }
  bool empty() const noexcept { return record_.Pixels == nullptr; }
  bool borrowed() const noexcept { return borrowed_; }
  int32_t width() const noexcept { return record_.Width; }
  int32_t height() const noexcept { return record_.Height; }
  int32_t bitsPerPixel() const noexcept { return record_.BitsPerPixel; }
  int32_t colorOrder() const noexcept { return record_.ColorOrder; }
  uint32_t bytesPerLine() const noexcept { return record_.BytesPerLine; }
  // Bytes of one row's pixels (without the padding up to bytesPerLine).
  std::size_t RowBytes() const noexcept { return RowBytes(record_.Width, record_.BitsPerPixel); }
  static std::size_t RowBytes(int32_t width, int32_t bitsPerPixel) noexcept {
    const int32_t bits = bitsPerPixel == 12 ? 16 : bitsPerPixel;  // 12-bit gray is stored in 16-bit words
    return (static_cast<std::size_t>(width) * static_cast<std::size_t>(bits) + 7) / 8;
  }

  // Image row y (0 = top, whatever the orientation) in the stored layout:
  // Row() bytes, Row<uint16_t>() samples of 16-bit kinds.
  template <class T = uint8_t>
  Span<T> Row(int32_t y) {
    return Span<T>(reinterpret_cast<T *>(RowAddress(y)), RowBytes() / sizeof(T));
  }
  template <class T = uint8_t>
  Span<const T> Row(int32_t y) const {
    return Span<const T>(reinterpret_cast<const T *>(RowAddress(y)), RowBytes() / sizeof(T));
  }

  // ---- Regions (image coordinates; right and bottom exclusive) ----
  void SetRegionRect(const Rect &rect, uint32_t combine = REGION_SET) {
    detail::Check(SetBitmapRegionRect(&record_, &rect, combine), "SetBitmapRegionRect");
  }
  void SetRegionEllipse(const Rect &bounds, uint32_t combine = REGION_SET) {
    detail::Check(SetBitmapRegionEllipse(&record_, &bounds, combine), "SetBitmapRegionEllipse");
  }
  void SetRegionPolygon(Span<const Point> points, uint32_t fillRule = POLYGON_EVEN_ODD,
                        uint32_t combine = REGION_SET) {
    detail::Check(SetBitmapRegionPolygon(&record_, points.data(), static_cast<uint32_t>(points.size()),
                                         fillRule, combine),
                  "SetBitmapRegionPolygon");
  }
  void ClearRegion() { detail::Check(FreeBitmapRegion(&record_), "FreeBitmapRegion"); }
  bool HasRegion() const noexcept { return BitmapHasRegion(&record_) != 0; }

  // Whether the export replaces the bitmap's pixel memory (a new depth or
  // kind), which a borrowed bitmap cannot give up.
  static bool ReplacesPixels(const char *exportName) noexcept {
    for (const char *name : {"Q_GrayScaleBitmapExt", "Q_ConvertToColoredGray", "Q_ColorReplaceWeightsBitmap",
                             "Q_GrayScaleToDuotone", "Q_GrayScaleToMultitone"})
      if (std::strcmp(name, exportName) == 0) return true;
    return false;
  }

  // ---- The exports of imgcolor.h, one method each (see there for units and ranges) ----
  // Point operations through lookup tables.
  void SolarizeBitmap(uint32_t threshold) {
    Run("Q_SolarizeBitmap", Q_SolarizeBitmap(&record_, threshold, 0));
  }
  void PosterizeBitmap(uint32_t levels) { Run("Q_PosterizeBitmap", Q_PosterizeBitmap(&record_, levels, 0)); }
  void ChangeBitmapContrast(int32_t change) {
    Run("Q_ChangeBitmapContrast", Q_ChangeBitmapContrast(&record_, change, 0));
  }
  void MultiplyBitmap(uint32_t factor) { Run("Q_MultiplyBitmap", Q_MultiplyBitmap(&record_, factor, 0)); }
  void ApplyMathLogicBitmap(int32_t value, uint32_t operation) {
    Run("Q_ApplyMathLogicBitmap", Q_ApplyMathLogicBitmap(&record_, value, operation));
  }
  void RemapBitmapIntensity(Span<const int32_t> table, uint32_t channel = LUT_CHANNEL_ALL) {
    Run("Q_RemapBitmapIntensity", Q_RemapBitmapIntensity(&record_, Data(table), Size(table), channel));
  }
  // Histogram-driven contrast.
  void HistoContrastBitmap(int32_t change) {
    Run("Q_HistoContrastBitmap", Q_HistoContrastBitmap(&record_, change, 0));
  }
  void StretchBitmapIntensity() { Run("Q_StretchBitmapIntensity", Q_StretchBitmapIntensity(&record_, 0)); }
  uint32_t GetBitmapColorCount() {
    uint32_t count = 0;
    Run("Q_GetBitmapColorCount", Q_GetBitmapColorCount(&record_, &count, 0));
    return count;
  }
  // Mathematical curves, desaturation, duotone, multitone.
  void MathFunctionBitmap(uint32_t function, uint32_t factor) {
    Run("Q_MathFunctionBitmap", Q_MathFunctionBitmap(&record_, function, factor, 0));
  }
  void DesaturateBitmap() { Run("Q_DesaturateBitmap", Q_DesaturateBitmap(&record_, 0)); }
  // An empty table builds a ramp from color; mode 0 scales a caller's table in place.
  void GrayScaleToDuotone(Span<PaletteEntry> table, uint32_t color, uint32_t mode) {
    Guard("Q_GrayScaleToDuotone");
    Run("Q_GrayScaleToDuotone", Q_GrayScaleToDuotone(&record_, Data(table), color, mode));
  }
  // gradients: tones + 1 tables of 256 entries (type 1); empty for colours.
  void GrayScaleToMultitone(uint32_t tones, uint32_t type, Span<const uint32_t> colors,
                            Span<PaletteEntry *const> gradients, uint32_t mode) {
    Guard("Q_GrayScaleToMultitone");
    Run("Q_GrayScaleToMultitone",
        Q_GrayScaleToMultitone(&record_, tones, type, Data(colors), Data(gradients), mode));
  }
  // Forwarded intensity operations.
  void InvertBitmap() { Run("Q_InvertBitmap", Q_InvertBitmap(&record_, 0)); }
  void ChangeBitmapIntensity(int32_t change) {
    Run("Q_ChangeBitmapIntensity", Q_ChangeBitmapIntensity(&record_, change, 0));
  }
  void GrayScaleBitmapExt(int32_t red, int32_t green, int32_t blue) {
    Guard("Q_GrayScaleBitmapExt");
    Run("Q_GrayScaleBitmapExt", Q_GrayScaleBitmapExt(&record_, red, green, blue, 0));
  }
  void IntensityDetectBitmap(uint32_t low, uint32_t high, uint32_t inColor, uint32_t outColor,
                             uint32_t channel) {
    Run("Q_IntensityDetectBitmap",
        Q_IntensityDetectBitmap(&record_, low, high, inColor, outColor, channel, 0));
  }
  void GammaCorrectBitmap(uint32_t gamma) {
    Run("Q_GammaCorrectBitmap", Q_GammaCorrectBitmap(&record_, gamma, 0));
  }
  // `bins` counts, from zero.
  std::vector<uint32_t> GetBitmapHistogram(uint32_t bins, uint32_t channel = LUT_CHANNEL_ALL) {
    std::vector<uint32_t> counts(bins);
    Run("Q_GetBitmapHistogram", Q_GetBitmapHistogram(&record_, counts.data(), bins, channel));
    return counts;
  }
  void ContBrightIntBitmap(int32_t contrast, int32_t brightness, int32_t intensity) {
    Run("Q_ContBrightIntBitmap", Q_ContBrightIntBitmap(&record_, contrast, brightness, intensity, 0));
  }
  using Target = std::array<uint32_t, 3>;  // red, green, blue
  void LightControlBitmap(const Target &lower, const Target &middle, const Target &upper, uint32_t type) {
    Run("Q_LightControlBitmap",
        Q_LightControlBitmap(&record_, lower.data(), middle.data(), upper.data(), type));
  }
  void AutoColorLevelBitmap(uint32_t type, uint32_t blackClip, uint32_t whiteClip) {
    Run("Q_AutoColorLevelBitmap", Q_AutoColorLevelBitmap(&record_, type, blackClip, whiteClip, 0));
  }
  // channels: COLOR_LEVEL_* bits.
  void ColorLevelBitmap(const ColorLevelRecord &levels, uint32_t channels) {
    Run("Q_ColorLevelBitmap", Q_ColorLevelBitmap(&record_, &levels, channels));
  }
  void AdaptiveContrastBitmap(uint32_t dimension, uint32_t amount, uint32_t type) {
    Run("Q_AdaptiveContrastBitmap", Q_AdaptiveContrastBitmap(&record_, dimension, amount, type));
  }
  // Extended gamma and automatic binarisation.
  void GammaCorrectBitmapExt(uint32_t gamma, uint32_t space) {
    Run("Q_GammaCorrectBitmapExt", Q_GammaCorrectBitmapExt(&record_, gamma, space));
  }
  void AutoBinaryBitmap() { Run("Q_AutoBinaryBitmap", Q_AutoBinaryBitmap(&record_, 0)); }
  // Hue, saturation and tint.
  void ChangeBitmapHue(int32_t angle) { Run("Q_ChangeBitmapHue", Q_ChangeBitmapHue(&record_, angle, 0)); }
  // Tables of one length; an empty one passes null.
  void RemapBitmapHue(Span<const int32_t> selection, Span<const int32_t> hue, Span<const int32_t> saturation,
                      Span<const int32_t> value) {
    std::size_t length = 0;
    for (std::size_t n : {selection.size(), hue.size(), saturation.size(), value.size()}) {
      if (n != 0 && length != 0 && n != length) throw Error(RC_INVALID_PARAMETER, "Q_RemapBitmapHue");
      if (n != 0) length = n;
    }
    Run("Q_RemapBitmapHue", Q_RemapBitmapHue(&record_, Data(selection), Data(hue), Data(saturation),
                                             Data(value), static_cast<uint32_t>(length), 0));
  }
  void ChangeBitmapSaturation(int32_t change) {
    Run("Q_ChangeBitmapSaturation", Q_ChangeBitmapSaturation(&record_, change, 0));
  }
  void ChangeHueSatIntBitmap(int32_t hue, int32_t saturation, int32_t intensity,
                             Span<const HueSatIntRange> ranges) {
    Run("Q_ChangeHueSatIntBitmap",
        Q_ChangeHueSatIntBitmap(&record_, hue, saturation, intensity, Data(ranges), Size(ranges), 0));
  }
  void AdjustBitmapTint(int32_t thetaShift, int32_t phiShift) {
    Run("Q_AdjustBitmapTint", Q_AdjustBitmapTint(&record_, thetaShift, phiShift, 0));
  }
  // Colour threshold, colour replace and selective colour.
  void ColorThresholdBitmap(uint32_t space, const std::array<ColorThresholdComponent, 3> &components) {
    Run("Q_ColorThresholdBitmap", Q_ColorThresholdBitmap(&record_, space, components.data(), 0));
  }
  void ColorReplaceBitmap(Span<const ColorReplaceEntry> entries, int32_t hue, int32_t saturation,
                          int32_t brightness) {
    Run("Q_ColorReplaceBitmap",
        Q_ColorReplaceBitmap(&record_, Data(entries), static_cast<int32_t>(entries.size()), hue, saturation,
                             brightness, 0));
  }
  void ColorReplaceWeightsBitmap(Span<const ColorReplaceEntry> entries) {
    Guard("Q_ColorReplaceWeightsBitmap");
    Run("Q_ColorReplaceWeightsBitmap",
        Q_ColorReplaceWeightsBitmap(&record_, Data(entries), static_cast<int32_t>(entries.size()), 0));
  }
  void SelectiveColorBitmap(const SelectiveColorOptions &options) {
    Run("Q_SelectiveColorBitmap", Q_SelectiveColorBitmap(&record_, &options, 0));
  }
  // Colour planes, channel mix and line profile.
  // Three planes (four for COLORSEP_MODEL2), new bitmaps of their own.
  std::vector<Bitmap> ColorSeparateBitmap(uint32_t model) {
    std::vector<Bitmap> planes(model == COLORSEP_MODEL2 ? 4 : 3);
    BitmapRecord *records[4] = {};
    for (std::size_t i = 0; i < planes.size(); ++i) records[i] = &planes[i].record_;
    Run("Q_ColorSeparateBitmap", Q_ColorSeparateBitmap(&record_, records, BITMAP_RECORD_SIZE, model));
    return planes;
  }
  static Bitmap ColorMergeBitmap(Span<Bitmap *const> planes, uint32_t model) {
    BitmapRecord *records[4] = {};
    if (planes.size() > 4) throw Error(RC_INVALID_PARAMETER, "Q_ColorMergeBitmap");
    for (std::size_t i = 0; i < planes.size(); ++i) records[i] = &planes[i]->record_;
    Bitmap merged;
    merged.Run("Q_ColorMergeBitmap", Q_ColorMergeBitmap(&merged.record_, records, BITMAP_RECORD_SIZE, model));
    return merged;
  }
  void ChannelMix(const ChannelMixFactors &red, const ChannelMixFactors &green,
                  const ChannelMixFactors &blue) {
    Run("Q_ChannelMix", Q_ChannelMix(&record_, &red, &green, &blue, 0));
  }
  // The samples along the line, both ends included: one a point on gray
  // bitmaps, red, green, blue on the others.
  std::vector<uint32_t> LineProfile(int32_t x1, int32_t y1, int32_t x2, int32_t y2) {
    const int64_t dx = x2 > x1 ? int64_t{x2} - x1 : int64_t{x1} - x2;
    const int64_t dy = y2 > y1 ? int64_t{y2} - y1 : int64_t{y1} - y2;
    uint32_t capacity = static_cast<uint32_t>((dx > dy ? dx : dy) + 1);
    const std::size_t perPoint = IsGrayBitmap(&record_) ? 1 : 3;
    std::vector<uint32_t> values(static_cast<std::size_t>(capacity) * 3);
    Run("Q_LineProfile", Q_LineProfile(&record_, x1, y1, x2, y2, values.data(), &capacity, 0));
    values.resize(static_cast<std::size_t>(capacity) * perPoint);
    return values;
  }
  // Coloured gray, colour balance, colour swap, equalisation, intensity balance.
  void ConvertToColoredGray(int32_t redWeight, int32_t greenWeight, int32_t blueWeight, int32_t redFactor,
                            int32_t greenFactor, int32_t blueFactor) {
    Guard("Q_ConvertToColoredGray");
    Run("Q_ConvertToColoredGray", Q_ConvertToColoredGray(&record_, redWeight, greenWeight, blueWeight,
                                                         redFactor, greenFactor, blueFactor, 0));
  }
  void BalanceColors(const ColorBalanceFactors &red, const ColorBalanceFactors &green,
                     const ColorBalanceFactors &blue) {
    Run("Q_BalanceColors", Q_BalanceColors(&record_, &red, &green, &blue, 0));
  }
  // swap: SWAP_*.
  void SwapColors(uint32_t swap) { Run("Q_SwapColors", Q_SwapColors(&record_, swap)); }
  void HistoEqualizeBitmap(int32_t mode) {
    Run("Q_HistoEqualizeBitmap", Q_HistoEqualizeBitmap(&record_, mode));
  }
  void LocalHistoEqualizeBitmap(uint32_t tileWidth, uint32_t tileHeight, uint32_t clipLimit, uint32_t mode) {
    Run("Q_LocalHistoEqualizeBitmap",
        Q_LocalHistoEqualizeBitmap(&record_, tileWidth, tileHeight, clipLimit, mode, 0));
  }
  void ColorIntensityBalance(uint32_t method, uint32_t strength) {
    Run("Q_ColorIntensityBalance", Q_ColorIntensityBalance(&record_, method, strength, 0));
  }
  // Binarisation, red-eye removal, segmentation.
  void DynamicBinaryBitmap(uint32_t dimension, uint32_t localContrast) {
    Run("Q_DynamicBinaryBitmap", Q_DynamicBinaryBitmap(&record_, dimension, localContrast, 0));
  }
  void RemoveRedeyeBitmap(uint32_t newColor, int32_t threshold, int32_t lightness) {
    Run("Q_RemoveRedeyeBitmap", Q_RemoveRedeyeBitmap(&record_, newColor, threshold, lightness, 0));
  }
  // With `labels`, it becomes the 16-bit gray bitmap of segment numbers.
  void SegmentBitmap(uint32_t k, uint32_t minSize, Bitmap *labels = nullptr) {
    Bitmap fresh;
    Run("Q_SegmentBitmap",
        Q_SegmentBitmap(&record_, k, minSize, labels ? &fresh.record_ : nullptr, BITMAP_RECORD_SIZE, 0));
    if (labels) *labels = std::move(fresh);
  }
  // Target sampling and adding bitmaps. flags: one SAMPLE_CHAN_* | one SAMPLE_METHOD_*.
  void SampleTargetBitmap(uint32_t sampleColor, uint32_t targetColor, uint32_t flags) {
    Run("Q_SampleTargetBitmap", Q_SampleTargetBitmap(&record_, sampleColor, targetColor, flags));
  }
  static Bitmap AddBitmaps(Span<const Bitmap *const> bitmaps, uint32_t mode) {
    List list(bitmaps);
    Bitmap sum;
    sum.Run("Q_AddBitmaps", Q_AddBitmaps(&sum.record_, BITMAP_RECORD_SIZE, list.get(), mode));
    return sum;
  }
  // factors: one per bitmap, or empty.
  static Bitmap AddWeightedBitmaps(Span<const Bitmap *const> bitmaps, Span<const uint32_t> factors,
                                   uint32_t mode) {
    List list(bitmaps);
    Bitmap sum;
    sum.Run("Q_AddWeightedBitmaps",
            Q_AddWeightedBitmaps(&sum.record_, BITMAP_RECORD_SIZE, list.get(), Data(factors), mode));
    return sum;
  }

 private:
  // A bitmap list over the records (copies sharing their pixels), destroyed on exit.
  class List {
   public:
    explicit List(Span<const Bitmap *const> bitmaps) {
      detail::Check(CreateBitmapList(&list_), "CreateBitmapList");
      for (const Bitmap *b : bitmaps) {
        const int32_t status = InsertBitmapListItem(list_, -1, &b->record_);
        if (status != RC_SUCCESS) {
          DestroyBitmapList(list_);
          throw Error(status, "InsertBitmapListItem");
        }
      }
    }
    ~List() { DestroyBitmapList(list_); }
    List(const List &) = delete;
    List &operator=(const List &) = delete;
    BitmapList get() const noexcept { return list_; }

   private:
    BitmapList list_ = nullptr;
  };

  template <class T>
  static T *Data(Span<T> s) noexcept {
    return s.empty() ? nullptr : s.data();
  }
  template <class T>
  static uint32_t Size(Span<T> s) noexcept {
    return static_cast<uint32_t>(s.size());
  }
  static void Run(const char *name, int32_t status) { detail::Check(status, name); }
  void Guard(const char *name) const {
    if (borrowed_ && ReplacesPixels(name)) throw Error(RC_UNSUPPORTED_BITMAP, name);
  }
  uint8_t *RowAddress(int32_t y) const {
    if (y < 0 || y >= record_.Height || !record_.Pixels) throw std::out_of_range("imgcolor::Bitmap::Row");
    const int32_t stored = record_.Orientation == ORIENT_BOTTOM_FIRST ? record_.Height - 1 - y : y;
    return record_.Pixels + static_cast<std::size_t>(stored) * record_.BytesPerLine;
  }
  void Free() noexcept {
    if (borrowed_) record_.Pixels = nullptr;  // the caller's memory; palette, region and tables are ours
    FreeBitmap(&record_);
    Forget();
  }
  void Forget() noexcept {
    std::memset(&record_, 0, sizeof record_);
    record_.StructSize = BITMAP_RECORD_SIZE;
    borrowed_ = false;
  }

  BitmapRecord record_{};
  bool borrowed_ = false;
};

}  // namespace imgcolor

#endif
