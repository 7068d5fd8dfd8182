// Colour threshold: every pixel is taken into a colour space, each of its
// three components is tested against a range through a selection table, and
// the selected components (or whole pixels) take fill values before the
// pixel goes back to RGB. Palette bitmaps change their entries.
#include "ClrThr.h"

#include <array>
#include <cstring>
#include <type_traits>
#include <utility>

#include "ClrSpc.h"
#include "frame.h"

static constexpr const wchar_t *kSourceFile = L"Common/ClrThr";

namespace img::clrthr {

Limits LimitsOf(uint32_t space, bool wide) {
  switch (space) {
    case COLORSPACE_HSV:
      return wide ? Limits{{0, 0, 0}, {36000, 10000, 65535}} : Limits{{0, 0, 0}, {360, 100, 255}};
    case COLORSPACE_HLS:
      return wide ? Limits{{0, 0, 0}, {36000, 65535, 10000}} : Limits{{0, 0, 0}, {360, 255, 100}};
    case COLORSPACE_YCRCB:
      return wide ? Limits{{0, -32768, -32768}, {65535, 32767, 32767}}
                  : Limits{{0, -128, -128}, {255, 127, 127}};
    case COLORSPACE_YUV:
      return wide ? Limits{{0, -28567, -35337}, {65535, 28566, 35336}}
                  : Limits{{0, -112, -138}, {255, 111, 137}};
    case COLORSPACE_LAB:
      return wide ? Limits{{0, -32768, -32768}, {10000, 32767, 32767}}
                  : Limits{{0, -128, -128}, {100, 127, 127}};
    default:
      return wide ? Limits{{0, 0, 0}, {65535, 65535, 65535}} : Limits{{0, 0, 0}, {255, 255, 255}};
  }
}

int32_t CheckComponents(uint32_t space, const ColorThresholdComponent *components, const Limits &limits) {
  // Code 9 (the table-driven Lab form) needs tables that the call does not
  // build: refused like an invalid code.
  if (!ranges::kThresholdSpace.Contains(space) || space == COLORSPACE_LAB_TABLE) return RC_INVALID_PARAMETER;
  for (int32_t i = 0; i < 3; ++i) {
    const ColorThresholdComponent &c = components[i];
    if (c.Low < limits.lower[i] || c.High > limits.upper[i] || c.High < c.Low) return RC_INVALID_PARAMETER;
    if ((c.Mode & 0xF00u) == kClip && (c.Mode & 0xFFu) != 0) return RC_INVALID_PARAMETER;
    if (!ranges::kThresholdMode.Contains(c.Mode)) return RC_INVALID_PARAMETER;
  }
  return 0;
}

Selection FillTable(const ColorThresholdComponent &c, int32_t lower, int32_t upper, uint8_t *table,
                    int32_t *map) {
  const uint32_t top = c.Mode & 0xF00u;
  Selection s;
  s.lower = lower;
  s.span = static_cast<uint32_t>(upper - lower);
  s.fill = top == kFillMax ? upper : lower;
  s.upperFill = top == kClip ? upper : lower;
  s.whole = (c.Mode & 0x0F0u) != 0;
  s.table = table;
  const uint8_t outside = (c.Mode & 0x00Fu) == 0 ? 1 : 0;
  const uint8_t above = top == kClip ? 2 : outside;
  s.map = map;
  s.low = c.Low;
  s.high = c.High;
  s.outside = outside != 0;
  s.clip = top == kClip;
  for (int32_t v = lower; v <= upper; ++v) {
    const uint8_t e = v < c.Low ? outside : v <= c.High ? static_cast<uint8_t>(1 - outside) : above;
    table[v - lower] = e;
    map[v - lower] = e == 0 ? v : e == 1 ? s.fill : s.upperFill;
  }
  return s;
}

namespace {

// Where the three components of a space pixel lie: byte offset, width and
// whether the field is signed.
struct Field {
  uint8_t offset;
  uint8_t bytes;
  bool isSigned;
};
struct Layout {
  Field f[3];
  int32_t size;
};

// Codes 0..7; CMYK and the spherical form have no component planes.
constexpr Layout kLayout8[8] = {
    {{{0, 1, false}, {1, 1, false}, {2, 1, false}}, 3},  // RGB: red, green, blue
    {{{0, 2, false}, {2, 1, false}, {3, 1, false}}, 4},  // HSV
    {{{0, 2, false}, {2, 1, false}, {3, 1, false}}, 4},  // HLS
    {{{0, 1, false}, {1, 1, false}, {2, 1, false}}, 3},  // XYZ
    {{{0, 1, false}, {1, 1, true}, {2, 1, true}}, 3},    // YCrCb
    {{{0, 1, false}, {1, 1, true}, {2, 2, true}}, 4},    // YUV
    {{{0, 1, false}, {1, 1, true}, {2, 1, true}}, 3},    // Lab
    {{{0, 1, false}, {1, 1, false}, {2, 1, false}}, 3},  // CMY
};
constexpr Layout kLayout16[8] = {
    {{{0, 2, false}, {2, 2, false}, {4, 2, false}}, 6}, {{{0, 4, false}, {4, 2, false}, {6, 2, false}}, 8},
    {{{0, 4, false}, {4, 2, false}, {6, 2, false}}, 8}, {{{0, 2, false}, {2, 2, false}, {4, 2, false}}, 6},
    {{{0, 2, false}, {2, 2, true}, {4, 2, true}}, 6},   {{{0, 2, false}, {2, 2, true}, {4, 4, true}}, 8},
    {{{0, 2, false}, {2, 2, true}, {4, 2, true}}, 6},   {{{0, 2, false}, {2, 2, false}, {4, 2, false}}, 6},
};

template <Field F>
inline int32_t Load(const uint8_t *p) {
  if constexpr (F.bytes == 1) {
    return F.isSigned ? static_cast<int8_t>(p[F.offset]) : p[F.offset];
  } else if constexpr (F.bytes == 2) {
    uint16_t v;
    std::memcpy(&v, p + F.offset, 2);
    return F.isSigned ? static_cast<int16_t>(v) : v;
  } else {
    uint32_t v;
    std::memcpy(&v, p + F.offset, 4);
    return static_cast<int32_t>(v);
  }
}

// Stores the low bytes of the value (the field's width).
template <Field F>
inline void Store(uint8_t *p, int32_t v) {
  const uint32_t u = static_cast<uint32_t>(v);
  if constexpr (F.bytes == 1) {
    p[F.offset] = static_cast<uint8_t>(u);
  } else if constexpr (F.bytes == 2) {
    const uint16_t w = static_cast<uint16_t>(u);
    std::memcpy(p + F.offset, &w, 2);
  } else {
    std::memcpy(p + F.offset, &u, 4);
  }
}

// The components of one pixel in turn: a later component tests the value an
// earlier one may have set. A component that changes only itself reads its
// new value from the map; the whole-pixel flag is the same for every pixel of
// a call, and no other branch depends on the pixel's values.
inline void Threshold(int32_t v[3], const Selection *s) {
  for (int32_t i = 0; i < 3; ++i) {
    const uint32_t j = static_cast<uint32_t>(v[i]) - static_cast<uint32_t>(s[i].lower);
    if (j > s[i].span) continue;  // beyond the limits (no conversion gets there): kept
    if (!s[i].whole) {
      v[i] = s[i].map[j];
    } else {
      const bool hit = s[i].table[j] != 0;
      v[0] = hit ? s[0].fill : v[0];
      v[1] = hit ? s[1].fill : v[1];
      v[2] = hit ? s[2].fill : v[2];
    }
  }
}

template <Layout L>
void StepRun(uint8_t *space, int32_t first, int32_t end, const Selection *selections) {
  // A copy the byte stores below cannot alias: the selections stay in registers.
  const Selection s[3] = {selections[0], selections[1], selections[2]};
  for (int32_t x = first; x < end; ++x) {
    uint8_t *p = space + static_cast<std::ptrdiff_t>(x) * L.size;
    int32_t v[3] = {Load<L.f[0]>(p), Load<L.f[1]>(p), Load<L.f[2]>(p)};
    Threshold(v, s);
    Store<L.f[0]>(p, v[0]);
    Store<L.f[1]>(p, v[1]);
    Store<L.f[2]>(p, v[2]);
  }
}

using StepFn = void (*)(uint8_t *, int32_t, int32_t, const Selection *);

template <const Layout *Table, std::size_t... I>
constexpr auto MakeSteps(std::index_sequence<I...>) {
  return std::array<StepFn, sizeof...(I)>{&StepRun<Table[I]>...};
}
constexpr auto kSteps8 = MakeSteps<kLayout8>(std::make_index_sequence<8>{});
constexpr auto kSteps16 = MakeSteps<kLayout16>(std::make_index_sequence<8>{});

}  // namespace

void ThresholdPixels(uint32_t space, bool wide, uint8_t *pixels, int32_t first, int32_t end,
                     const Selection *selections) {
  // CMYK and the spherical form pass the checks but have no planes: their
  // pixels only go through the conversion there and back.
  if (space > COLORSPACE_CMY) return;
  (wide ? kSteps16 : kSteps8)[space](pixels, first, end, selections);
}

void ThresholdHsvRow8(Isa isa, uint8_t *rgb, uint8_t *hsv, int32_t first, int32_t end,
                      const Selection *selections) {
  if (first >= end) return;
  ConvertColorRow8Isa(isa, COLORSPACE_HSV, rgb, hsv, nullptr, first, end);
  if (BestIsa(isa) >= Isa::Avx512)
    ThresholdHsv8Avx512(hsv, first, end, selections);
  else
    ThresholdPixels(COLORSPACE_HSV, false, hsv, first, end, selections);
  ConvertColorRow8Isa(isa, COLORSPACE_HSV + COLORSPACE_TO_RGB, rgb, hsv, nullptr, first, end);
}

namespace {

int32_t Worker(BitmapRecord *bitmap, uint32_t space, const ColorThresholdComponent *components) {
  if (IsGrayBitmap(bitmap)) return RC_UNSUPPORTED_BITMAP;
  const bool wideLimits = bitmap->BitsPerPixel == 48 || bitmap->BitsPerPixel == 64;
  const Limits limits = LimitsOf(space, wideLimits);
  if (const int32_t status = CheckComponents(space, components, limits)) return status;

  // Rows go through the converter's copies: changing the stored rows in
  // place was measured slower here (the forward row then reads them from
  // memory itself).
  RowPass pass(bitmap, RowSetup{.palette = PaletteRule::Entries});
  if (pass.status() != RC_SUCCESS) return pass.status();
  // Per component its selection table and the map of new values. The row
  // step works a pixel at a time, so no planes of a row's values are kept.
  KernelBuffer<uint8_t> tables[3];
  KernelBuffer<int32_t> maps[3];
  for (int32_t i = 0; i < 3; ++i) {
    const auto entries = static_cast<std::size_t>(limits.upper[i] - limits.lower[i] + 1);
    tables[i] = KernelBuffer<uint8_t>(entries, __LINE__, kSourceFile);
    maps[i] = KernelBuffer<int32_t>(entries, __LINE__, kSourceFile);
    if (!tables[i] || !maps[i]) return RC_NO_MEMORY;
  }
  ColourSpacePass spaces(pass, {space});
  // Without the space pixels nothing is changed and the call succeeds: kept.
  if (spaces.Allocate() != RC_SUCCESS) return RC_SUCCESS;
  Selection selections[3];
  for (int32_t i = 0; i < 3; ++i)
    selections[i] =
        FillTable(components[i], limits.lower[i], limits.upper[i], tables[i].get(), maps[i].get());

  if (pass.OnPalette()) {
    const int32_t count = PaletteCount(bitmap);
    if (count < 0) return count;
  }
  const int32_t status = spaces.Run([&](auto &row) {
    using T = std::remove_reference_t<decltype(*row.rgb)>;
    if constexpr (sizeof(T) == 1) {
      // HSV rows: the selection step of the best instruction set.
      if (space == COLORSPACE_HSV) {
        uint8_t *const hsv = row.Space(space);
        row.row.ForEachRun([&](int32_t first, int32_t end) {
          ThresholdHsvRow8(Isa::Avx512, row.rgb, hsv, first, end, selections);
        });
        return RC_SUCCESS;
      }
    }
    int32_t result = row.To(space);
    if (result != RC_SUCCESS) return result;
    uint8_t *const pixels = row.Space(space);
    row.row.ForEachRun([&](int32_t first, int32_t end) {
      ThresholdPixels(space, sizeof(T) == 2, pixels, first, end, selections);
    });
    return row.Back(space);
  });
  // The palette path succeeds whatever its row step gave.
  return pass.OnPalette() ? RC_SUCCESS : status;
}

}  // namespace

}  // namespace img::clrthr

extern "C" IMG_API int32_t Q_ColorThresholdBitmap(BitmapRecord *bitmap, uint32_t space,
                                                  const ColorThresholdComponent *components, uint32_t flags) {
  // The record size comes before the flags word here: the first rule checks
  // it alone (a null bitmap passes), the second runs the frame from the flags
  // word on.
  constexpr img::EntryRule kSizeFirst{
      .flagsWord = false, .nullBitmap = img::NullBitmap::Passed, .gray32 = false};
  constexpr img::EntryRule kFrame{
      .flagsWord = true, .nullBitmap = img::NullBitmap::Refused, .signedData = true};
  if (const int32_t status = img::CheckEntry(kSizeFirst, flags, bitmap)) return status;
  if (const int32_t status = img::CheckEntry(kFrame, flags, bitmap)) return status;
  if (components == nullptr) return RC_NULL_OPTIONS;
  if (components[0].StructSize != sizeof(ColorThresholdComponent)) return RC_INVALID_STRUCT_SIZE;
  return img::clrthr::Worker(bitmap, space, components);
}
