// Colour separation and merge: one colour bitmap split into three or four
// single-sample planes of a colour model, and planes merged back into one
// colour bitmap. The display models (RGB, CMYK, HSV, HLS, CMY) go through
// stored rows, the kernel's row conversion and imgdisplay's model
// conversion; the colour-space models (YUV, XYZ, Lab, YCrCb, spherical)
// through row converters and the colour-space conversions, rescaled into
// plane values. Definitions and decisions: docs/planes.md.
#include <cstring>

#include "ClrSpc.h"
#include "PLANES_internal.h"
#include "frame.h"
#include "imgdisplay.h"

namespace img {

namespace {

static constexpr const wchar_t *kSourceFile = L"Common/PLANES";

struct PlaneModel {
  int32_t code8;   // model code with 8-bit samples
  int32_t code16;  // with 16-bit samples
  int32_t planes;
  bool display;    // through ConvertColorModelRow, else the colour space
  uint32_t space;  // COLORSPACE_* of the colour-space models
};

constexpr PlaneModel kModels[10] = {
    {COLOR_MODEL_BGR, COLOR_MODEL_BGR16, 3, true, 0},
    {COLOR_MODEL_CMYK, COLOR_MODEL_CMYK16, 4, true, 0},
    {COLOR_MODEL_HSV, COLOR_MODEL_HSV16, 3, true, 0},
    {COLOR_MODEL_HLS, COLOR_MODEL_HLS16, 3, true, 0},
    {COLOR_MODEL_CMY, COLOR_MODEL_CMY16, 3, true, 0},
    {1, 32, 3, false, COLORSPACE_YUV},
    {8, 144, 3, false, COLORSPACE_XYZ},
    {7, 192, 3, false, COLORSPACE_LAB},
    {160, 176, 3, false, COLORSPACE_YCRCB},
    {9, 208, 3, false, COLORSPACE_SPHERICAL},
};

// Separation checks the kind after its write of SignificantHighBit.
constexpr EntryRule kSeparateEntry{.flagsWord = false,
                                   .nullBitmap = NullBitmap::RefusedUnallocated,
                                   .gray32 = true,
                                   .afterArguments = {.signedData = true}};
// Each plane of a merge.
constexpr EntryRule kPlaneEntry{
    .flagsWord = false, .nullBitmap = NullBitmap::RefusedUnallocated, .gray32 = false, .signedData = true};

// Holds AccessBitmap on up to five bitmaps; releases in reverse order.
class AccessGuard {
 public:
  AccessGuard() = default;
  AccessGuard(const AccessGuard &) = delete;
  AccessGuard &operator=(const AccessGuard &) = delete;
  ~AccessGuard() {
    while (count_ > 0) {
      --count_;
      ::ReleaseBitmap(bitmaps_[count_], tokens_[count_]);
    }
  }
  void Hold(BitmapRecord *b) {
    bitmaps_[count_] = b;
    tokens_[count_++] = ::AccessBitmap(b);
  }

 private:
  BitmapRecord *bitmaps_[5] = {};
  int32_t tokens_[5] = {};
  int32_t count_ = 0;
};

// Little-endian fields of a colour-space element.
inline int32_t S8(const uint8_t *p) { return static_cast<int8_t>(p[0]); }
inline int32_t U16(const uint8_t *p) { return Load16(p); }
inline int32_t S16(const uint8_t *p) { return static_cast<int16_t>(Load16(p)); }
inline uint32_t U32(const uint8_t *p) { return Load16(p) | static_cast<uint32_t>(Load16(p + 2)) << 16; }
inline void Put32(uint8_t *p, uint32_t v) {
  Store16(p, v & 0xFFFFu);
  Store16(p + 2, v >> 16);
}
// A scaled value, computed in double precision and truncated toward zero.
inline int32_t Scaled(double v) { return TruncateToInt32(v); }

// The plane values of one element (separation), before keeping their low bits.
void ElementToPlanes(uint32_t space, bool wide, const uint8_t *e, int32_t *p) {
  switch (space) {
    case COLORSPACE_YUV:
      if (wide) {
        p[0] = U16(e);
        p[1] = Scaled((S16(e + 2) + 28567) / 57133.0 * 65536);
        p[2] = Scaled((static_cast<int32_t>(U32(e + 4)) + 35337) / 70673.0 * 65536);
      } else {
        p[0] = e[0];
        p[1] = Scaled((S8(e + 1) + 112) / 223.0 * 255);
        p[2] = Scaled((S16(e + 2) + 138) / 275.0 * 255);
      }
      return;
    case COLORSPACE_XYZ:
      for (int k = 0; k < 3; ++k) p[k] = wide ? U16(e + 2 * k) : e[k];
      return;
    case COLORSPACE_LAB:
      if (wide) {
        p[0] = Scaled(U16(e) / 10000.0 * 65536);
        p[1] = S16(e + 2) - 32768;
        p[2] = S16(e + 4) - 32768;
      } else {
        p[0] = Scaled(e[0] / 100.0 * 255);
        p[1] = S8(e + 1) - 128;
        p[2] = S8(e + 2) - 128;
      }
      return;
    case COLORSPACE_YCRCB:
      p[0] = wide ? U16(e) : e[0];
      p[1] = wide ? S16(e + 2) - 32768 : S8(e + 1) - 128;
      p[2] = wide ? S16(e + 4) - 32768 : S8(e + 2) - 128;
      return;
    default:  // spherical
      if (wide) {
        p[0] = Scaled(U32(e) / 113509.0 * 65535);
        p[1] = Scaled(S16(e + 4) / 9000.0 * 65535);
        p[2] = Scaled(S16(e + 6) / 9000.0 * 65535);
      } else {
        p[0] = Scaled(U16(e) / 443.0 * 255);
        p[1] = Scaled(S16(e + 2) / 9000.0 * 255);
        p[2] = Scaled(S16(e + 4) / 9000.0 * 255);
      }
  }
}

// The element of three plane samples (merge). Kept as the library has them:
// the 8-bit YUV V and every 8-bit spherical value are stored as their low
// byte, the 16-bit YUV V and spherical length as their low 16 bits, each
// zero-extended into its wider field.
void PlanesToElement(uint32_t space, bool wide, const int32_t *p, uint8_t *e) {
  switch (space) {
    case COLORSPACE_YUV:
      if (wide) {
        Store16(e, static_cast<uint32_t>(p[0]));
        Store16(e + 2, static_cast<uint32_t>(Scaled(p[1] / 65535.0 * 57133 - 28567)) & 0xFFFFu);
        Put32(e + 4, static_cast<uint32_t>(Scaled(p[2] / 65535.0 * 70673 - 35337)) & 0xFFFFu);
      } else {
        e[0] = static_cast<uint8_t>(p[0]);
        e[1] = static_cast<uint8_t>(Scaled(p[1] / 255.0 * 223 - 112));
        Store16(e + 2, static_cast<uint32_t>(Scaled(p[2] / 255.0 * 275 - 138)) & 0xFFu);
      }
      return;
    case COLORSPACE_XYZ:
      for (int k = 0; k < 3; ++k)
        if (wide)
          Store16(e + 2 * k, static_cast<uint32_t>(p[k]));
        else
          e[k] = static_cast<uint8_t>(p[k]);
      return;
    case COLORSPACE_LAB:
      if (wide) {
        Store16(e, static_cast<uint32_t>(Scaled(p[0] / 65535.0 * 10000)));
        Store16(e + 2, static_cast<uint32_t>(p[1] - 32768) & 0xFFFFu);
        Store16(e + 4, static_cast<uint32_t>(p[2] - 32768) & 0xFFFFu);
      } else {
        e[0] = static_cast<uint8_t>(Scaled(p[0] / 255.0 * 100));
        e[1] = static_cast<uint8_t>(p[1] - 128);
        e[2] = static_cast<uint8_t>(p[2] - 128);
      }
      return;
    case COLORSPACE_YCRCB:
      if (wide) {
        Store16(e, static_cast<uint32_t>(p[0]));
        Store16(e + 2, static_cast<uint32_t>(p[1] - 32768) & 0xFFFFu);
        Store16(e + 4, static_cast<uint32_t>(p[2] - 32768) & 0xFFFFu);
      } else {
        e[0] = static_cast<uint8_t>(p[0]);
        e[1] = static_cast<uint8_t>(p[1] - 128);
        e[2] = static_cast<uint8_t>(p[2] - 128);
      }
      return;
    default:  // spherical
      if (wide) {
        Put32(e, static_cast<uint32_t>(Scaled(p[0] / 65535.0 * 113509)) & 0xFFFFu);
        Store16(e + 4, static_cast<uint32_t>(Scaled(p[1] / 65535.0 * 9000)) & 0xFFFFu);
        Store16(e + 6, static_cast<uint32_t>(Scaled(p[2] / 65535.0 * 9000)) & 0xFFFFu);
      } else {
        Store16(e, static_cast<uint32_t>(Scaled(p[0] / 255.0 * 443)) & 0xFFu);
        Store16(e + 2, static_cast<uint32_t>(Scaled(p[1] / 255.0 * 9000)) & 0xFFu);
        Store16(e + 4, static_cast<uint32_t>(Scaled(p[2] / 255.0 * 9000)) & 0xFFu);
      }
  }
}

// Splits interleaved samples into plane rows (the general course).
template <class T>
void SplitRow(const T *in, T *const *out, int32_t count, int32_t width) {
  if (count == 3) {
    T *a = out[0], *b = out[1], *c = out[2];
    for (int32_t x = 0; x < width; ++x, in += 3) {
      a[x] = in[0];
      b[x] = in[1];
      c[x] = in[2];
    }
    return;
  }
  for (int32_t x = 0; x < width; ++x)
    for (int32_t k = 0; k < count; ++k) out[k][x] = in[static_cast<std::ptrdiff_t>(x) * count + k];
}

// ---- Separation --------------------------------------------------------------------

// RGB planes of a 24-bit source: the row conversion to B, G, R and the
// identity model are a copy (or the swap of an R, G, B source), so each
// stored row splits straight into the planes' stored rows (the planes have
// the source's size and orientation). Same bytes and the same progress as
// the general course, without its three copies of every row.
int32_t SeparateRgb24(BitmapRecord *src, BitmapRecord *const *planes) {
  const Isa isa = BestIsa();
  const bool rgb = src->ColorOrder == ORDER_RGB;
  const StepProgress progress(kFullProgress, src->Height);
  int32_t status = progress.Start();
  if (status != RC_SUCCESS) return status;
  for (int32_t y = 0; y < src->Height; ++y) {
    uint8_t *rows[3] = {StoredRow(planes[0], y), StoredRow(planes[1], y), StoredRow(planes[2], y)};
    if (rgb) std::swap(rows[0], rows[2]);
    planes::SplitRow3(isa, StoredRow(src, y), rows[0], rows[1], rows[2], src->Width);
    // The row padding too: the planes may come unset from the allocator.
    for (uint8_t *row : rows) std::memset(row + src->Width, 0, planes[0]->BytesPerLine - src->Width);
    if ((status = progress.After(y + 1)) != RC_SUCCESS) return status;
  }
  return RC_SUCCESS;
}

int32_t SeparateDisplay(BitmapRecord *src, BitmapRecord *const *planes, int32_t count, int32_t code,
                        bool wide) {
  const int32_t width = src->Width, height = src->Height;
  BitmapRecord scratch{};
  int32_t status = ::InitBitmapHeader(&scratch, BITMAP_RECORD_SIZE, width, height, wide ? 48 : 24);
  if (status != RC_SUCCESS) return status;
  scratch.ColorOrder = ORDER_RGB;
  PaletteEntry palette[256];
  if (IsPaletteBitmap(src)) {
    const int32_t n = PaletteCount(src);
    if (n < 0) return n;
    if (::GetPalette(src, 0, n, palette) != n) return RC_NO_BITMAP;
  }
  // A gray source converts its levels (and ignores the palette argument);
  // the attached table is what it would pass.
  const bool gray = ::IsGrayBitmap(src) != 0;
  const PaletteEntry *srcPalette = nullptr;
  if (gray && src->AttachedLut && (src->Flags & BITMAP_USE_ATTACHED_LUT))
    srcPalette = reinterpret_cast<const PaletteEntry *>(src->AttachedLut);
  else if (!gray && IsPaletteBitmap(src))
    srcPalette = palette;

  const std::size_t sample = wide ? 2 : 1;
  const std::size_t w = static_cast<std::size_t>(width);
  const std::size_t rowBytes =
      scratch.BytesPerLine > src->BytesPerLine ? scratch.BytesPerLine : src->BytesPerLine;
  const std::size_t convBytes =
      ((static_cast<std::size_t>(count) * 8 * sample * w + 31) / 8) & ~std::size_t{3};
  IMG_BUFFER(uint8_t, row, rowBytes);
  IMG_BUFFER(uint8_t, converted, convBytes);
  KernelBuffer<uint8_t> planeRows[4];
  uint8_t *rows[4] = {};
  for (int32_t k = 0; k < count; ++k) {
    planeRows[k] = KernelBuffer<uint8_t>(w * sample, __LINE__, kSourceFile);
    if (!planeRows[k]) return RC_NO_MEMORY;
    rows[k] = planeRows[k].get();
  }
  if (!row || !converted) return RC_NO_MEMORY;

  const StepProgress progress(kFullProgress, height);
  if ((status = progress.Start()) != RC_SUCCESS) return status;
  const uint32_t flags = gray ? CONVERT_GRAY_SOURCE | CONVERT_SIGNIFICANT_BITS : 0u;
  for (int32_t y = 0; y < height; ++y) {
    if ((status = ::GetBitmapRow(src, row.get(), y, src->BytesPerLine)) < 0) return status;
    status = ::ConvertRowBuffer(row.get(), width, src->BitsPerPixel, wide ? 48 : 24, src->ColorOrder,
                                ORDER_BGR, srcPalette, wide ? srcPalette : nullptr, flags,
                                src->SignificantLowBit, src->SignificantHighBit);
    if (status != RC_SUCCESS) return status;
    status = ::ConvertColorModelRow(row.get(), converted.get(), width,
                                    wide ? COLOR_MODEL_BGR16 : COLOR_MODEL_BGR, code);
    if (status != RC_SUCCESS) return status;
    if (wide)
      SplitRow(reinterpret_cast<const uint16_t *>(converted.get()), reinterpret_cast<uint16_t *const *>(rows),
               count, width);
    else
      SplitRow(converted.get(), rows, count, width);
    for (int32_t k = 0; k < count; ++k)
      if ((status = ::PutBitmapRow(planes[k], rows[k], y, static_cast<uint32_t>(w * sample))) < 0)
        return status;
    if ((status = progress.After(y + 1)) != RC_SUCCESS) return status;
  }
  return RC_SUCCESS;
}

// Working rows are written with the plane value in every sample of a pixel:
// a gray-ramp plane stores it as its index, a 16-bit gray plane as its level.
template <class T>
void PutPlaneSample(const MemberRows &rows, int32_t member, int32_t x, int32_t v) {
  T *p = static_cast<T *>(rows.samples[member]) + static_cast<std::ptrdiff_t>(x) * rows.channels[member];
  for (int32_t c = 0; c < rows.channels[member]; ++c) p[c] = static_cast<T>(v);
}

int32_t SeparateSpace(BitmapRecord *src, BitmapRecord *const *planes, uint32_t space, bool wide) {
  // The source is read at the planes' sample width.
  const PassMember members[4] = {{src, wide ? ROW_LAYOUT_BGR : ROW_LAYOUT_BGR8, false},
                                 {planes[0], ROW_LAYOUT_NATIVE, true},
                                 {planes[1], ROW_LAYOUT_NATIVE, true},
                                 {planes[2], ROW_LAYOUT_NATIVE, true}};
  MultiPass pass(members, 4);
  if (pass.status() != RC_SUCCESS) return pass.status();
  const int32_t width = src->Width;
  const int32_t size = GetColorSpacePixelSize(space, wide ? 16 : 8);
  IMG_BUFFER(uint8_t, element, static_cast<std::size_t>(width) * static_cast<std::size_t>(size));
  if (!element) return RC_NO_MEMORY;
  pass.ReportEveryRow();
  const int32_t status = pass.Run(0, src->Height, nullptr, kFullProgress, [&](MemberRows &rows) -> int32_t {
    const int32_t converted = wide ? ConvertColorRow16(space, static_cast<uint16_t *>(rows.samples[0]),
                                                       element.get(), nullptr, 0, width)
                                   : ConvertColorRow8(space, static_cast<uint8_t *>(rows.samples[0]),
                                                      element.get(), nullptr, 0, width);
    if (converted != RC_SUCCESS) return converted;
    for (int32_t x = 0; x < width; ++x) {
      int32_t p[3];
      ElementToPlanes(space, wide, element.get() + static_cast<std::ptrdiff_t>(x) * size, p);
      for (int32_t k = 0; k < 3; ++k) {
        if (wide)
          PutPlaneSample<uint16_t>(rows, k + 1, x, p[k] & 0xFFFF);
        else
          PutPlaneSample<uint8_t>(rows, k + 1, x, p[k] & 0xFF);
      }
    }
    return RC_SUCCESS;
  });
  if (status == RC_SUCCESS) ::UpdateBitmapInfo(src);
  return status;
}

int32_t Separate(BitmapRecord *src, BitmapRecord *const *planes, uint32_t structSize,
                 const PlaneModel &model) {
  const bool wide = src->BitsPerPixel > 32;
  const int32_t count = model.planes;
  const int32_t memory = (src->Flags & BITMAP_LARGE_MEMORY) ? MEMORY_LARGE : MEMORY_CONVENTIONAL;
  const auto splitsDirectly = [&] {
    return model.code8 == COLOR_MODEL_BGR && src->BitsPerPixel == 24 && !::IsGrayBitmap(src) &&
           (src->ColorOrder == ORDER_BGR || src->ColorOrder == ORDER_RGB);
  };
  // The direct split writes every byte of the three planes, padding
  // included, and without a status callback no code of the caller runs
  // before it has (nothing can fail or stop it midway): the planes need
  // not be cleared first. A plane record that is the source's would change
  // the course: those keep the cleared planes.
  bool unset = splitsDirectly() && !Progress().active();
  for (int32_t i = 0; i < count; ++i) unset = unset && planes[i] != src;
  for (int32_t i = 0; i < count; ++i) {
    // Bits per pixel 0 gives an 8-bit plane (one byte a pixel, gray ramp).
    const int32_t bits = wide ? 16 : 0, order = wide ? ORDER_GRAY : ORDER_RGB;
    const int32_t status = unset ? ::AllocateBitmapUnset(planes[i], structSize, memory, src->Width,
                                                         src->Height, bits, order, nullptr, src->Orientation)
                                 : ::AllocateBitmap(planes[i], structSize, memory, src->Width, src->Height,
                                                    bits, order, nullptr, src->Orientation, nullptr, 0);
    if (status != RC_SUCCESS) {
      for (int32_t j = i - 1; j >= 0; --j) ::FreeBitmap(planes[j]);
      return status;
    }
  }
  int32_t status;
  {
    AccessGuard access;
    for (int32_t i = 0; i < count; ++i) access.Hold(planes[i]);
    access.Hold(src);
    const bool rgb24 = splitsDirectly();
    status = rgb24           ? SeparateRgb24(src, planes)
             : model.display ? SeparateDisplay(src, planes, count, wide ? model.code16 : model.code8, wide)
                             : SeparateSpace(src, planes, model.space, wide);
  }
  if (status != RC_SUCCESS) {
    // Plane 3 of a four-plane separation stays with the caller, kept.
    for (int32_t i = 0; i < 3; ++i)
      if (planes[i]->Flags & BITMAP_ALLOCATED) ::FreeBitmap(planes[i]);
  }
  return status;
}

// ---- Merge ---------------------------------------------------------------------------

// The stored row of image row `row` counted from the top, for the planes'
// shared top-left alignment.
inline int32_t StoredIndex(const BitmapRecord *b, int32_t row) {
  return b->Orientation == ORIENT_BOTTOM_FIRST ? b->Height - 1 - row : row;
}

int32_t MergeDisplay(BitmapRecord *dest, BitmapRecord *const *planes, int32_t count, int32_t code,
                     bool wide) {
  const int32_t width = dest->Width, height = dest->Height;
  const std::size_t w = static_cast<std::size_t>(width), sample = wide ? 2 : 1;
  std::size_t rowBytes = w * 2;
  for (int32_t k = 0; k < count; ++k)
    if (planes[k]->BytesPerLine > rowBytes) rowBytes = planes[k]->BytesPerLine;
  IMG_BUFFER(uint8_t, row, rowBytes);
  IMG_BUFFER(uint8_t, interleaved, w * static_cast<std::size_t>(count) * sample);
  IMG_BUFFER(uint8_t, output, w * 3 * sample);
  if (!row || !interleaved || !output) return RC_NO_MEMORY;
  // The palettes of colour palette planes (a gray plane converts its levels).
  PaletteEntry palettes[4][256];
  bool gray[4];
  for (int32_t k = 0; k < count; ++k) {
    gray[k] = ::IsGrayBitmap(planes[k]) != 0;
    if (!IsPaletteBitmap(planes[k])) continue;
    const int32_t n = PaletteCount(planes[k]);
    if (n < 0) return n;
    if (::GetPalette(planes[k], 0, n, palettes[k]) != n) return RC_NO_BITMAP;
  }
  // Three 8-bit gray planes read at full significance into B, G, R: the row
  // conversion and the identity model are copies, so the planes' stored rows
  // interleave straight into the result's (same bytes, same progress).
  bool direct = code == COLOR_MODEL_BGR && !wide && count == 3;
  for (int32_t k = 0; k < count; ++k) {
    const BitmapRecord *p = planes[k];
    direct = direct && gray[k] && p->BitsPerPixel == 8 &&
             (p->SignificantHighBit < 0 || (p->SignificantLowBit == 0 && p->SignificantHighBit == 7));
  }
  const Isa isa = BestIsa();
  const StepProgress progress(kFullProgress, height);
  int32_t status = progress.Start();
  if (status != RC_SUCCESS) return status;
  // Destination rows bottom to top (the first stored row of the bottom-first
  // result first); every plane gives the same image row.
  for (int32_t y = 0; y < height; ++y) {
    const int32_t image = height - 1 - y;
    if (direct) {
      planes::MergeRow3(isa, StoredRow(planes[0], StoredIndex(planes[0], image)),
                        StoredRow(planes[1], StoredIndex(planes[1], image)),
                        StoredRow(planes[2], StoredIndex(planes[2], image)),
                        StoredRow(dest, StoredIndex(dest, image)), width);
      if ((status = progress.After(y + 1)) != RC_SUCCESS) return status;
      continue;
    }
    for (int32_t k = 0; k < count; ++k) {
      BitmapRecord *p = planes[k];
      const uint32_t bytes = static_cast<uint32_t>((static_cast<int64_t>(width) * p->BitsPerPixel + 7) / 8);
      if ((status = ::GetBitmapRow(p, row.get(), StoredIndex(p, image), bytes)) < 0) return status;
      const PaletteEntry *pal = !gray[k] && IsPaletteBitmap(p) ? palettes[k] : nullptr;
      status = ::ConvertRowBuffer(row.get(), width, p->BitsPerPixel, wide ? 16 : 8, p->ColorOrder,
                                  wide ? ORDER_GRAY : ORDER_RGB, pal, wide ? pal : nullptr,
                                  gray[k] ? CONVERT_GRAY_SOURCE | CONVERT_SIGNIFICANT_BITS : 0u,
                                  p->SignificantLowBit, p->SignificantHighBit);
      if (status != RC_SUCCESS) return status;
      if (wide) {
        const uint16_t *in = reinterpret_cast<const uint16_t *>(row.get());
        uint16_t *out = reinterpret_cast<uint16_t *>(interleaved.get());
        for (std::size_t x = 0; x < w; ++x) out[x * count + k] = in[x];
      } else {
        for (std::size_t x = 0; x < w; ++x) interleaved[x * count + k] = row[x];
      }
    }
    status = ::ConvertColorModelRow(interleaved.get(), output.get(), width, code,
                                    wide ? COLOR_MODEL_BGR16 : COLOR_MODEL_BGR);
    if (status != RC_SUCCESS) return status;
    if ((status = ::PutBitmapRow(dest, output.get(), StoredIndex(dest, image),
                                 static_cast<uint32_t>(w * 3 * sample))) < 0)
      return status;
    if ((status = progress.After(y + 1)) != RC_SUCCESS) return status;
  }
  ::UpdateBitmapInfo(dest);
  return RC_SUCCESS;
}

int32_t MergeSpace(BitmapRecord *dest, BitmapRecord *const *planes, uint32_t space, bool wide) {
  // Planes are read as gray levels (the intensity of a colour plane).
  const PassMember members[4] = {{planes[0], ROW_LAYOUT_GRAY, false},
                                 {planes[1], ROW_LAYOUT_GRAY, false},
                                 {planes[2], ROW_LAYOUT_GRAY, false},
                                 {dest, ROW_LAYOUT_NATIVE, true}};
  MultiPass pass(members, 4);
  if (pass.status() != RC_SUCCESS) return pass.status();
  const int32_t width = dest->Width;
  const int32_t size = GetColorSpacePixelSize(space + COLORSPACE_TO_RGB, wide ? 16 : 8);
  IMG_BUFFER(uint8_t, element, static_cast<std::size_t>(width) * static_cast<std::size_t>(size));
  if (!element) return RC_NO_MEMORY;
  pass.ReportEveryRow();
  return pass.Run(0, dest->Height, nullptr, kFullProgress, [&](MemberRows &rows) -> int32_t {
    for (int32_t x = 0; x < width; ++x) {
      int32_t p[3];
      for (int32_t k = 0; k < 3; ++k) {
        const int32_t v = rows.bits[k] == 16 ? static_cast<const uint16_t *>(rows.samples[k])[x]
                                             : static_cast<const uint8_t *>(rows.samples[k])[x];
        p[k] = rows.bits[k] == 16 && !wide ? v >> 8 : v;
      }
      PlanesToElement(space, wide, p, element.get() + static_cast<std::ptrdiff_t>(x) * size);
    }
    const uint32_t code = space + COLORSPACE_TO_RGB;
    return wide ? ConvertColorRow16(code, static_cast<uint16_t *>(rows.samples[3]), element.get(), nullptr, 0,
                                    width)
                : ConvertColorRow8(code, static_cast<uint8_t *>(rows.samples[3]), element.get(), nullptr, 0,
                                   width);
  });
}

int32_t Merge(BitmapRecord *dest, BitmapRecord *const *planes, uint32_t structSize, const PlaneModel &model) {
  const int32_t count = model.planes;
  int32_t width = planes[0]->Width, height = planes[0]->Height;
  bool wide = true, large = false;
  for (int32_t k = 0; k < count; ++k) {
    const BitmapRecord *p = planes[k];
    if (p->Width < width) width = p->Width;
    if (p->Height < height) height = p->Height;
    wide = wide && p->ColorOrder == ORDER_GRAY && p->BitsPerPixel == 16;
    large = large || (p->Flags & BITMAP_LARGE_MEMORY);
  }
  if (::AllocateBitmap(dest, structSize, large ? MEMORY_LARGE : MEMORY_CONVENTIONAL, width, height,
                       wide ? 48 : 24, ORDER_BGR, nullptr, ORIENT_TOP_FIRST, nullptr, 0) != RC_SUCCESS)
    return RC_NO_MEMORY;
  const int32_t first = planes[0]->Orientation;
  int32_t status;
  {
    AccessGuard access;
    access.Hold(dest);
    for (int32_t k = 0; k < count; ++k) access.Hold(planes[k]);
    if (model.display) {
      // The display course writes a bottom-first result (plane 0's orientation,
      // top-first turned into bottom-first); the pixels are still zero.
      dest->Orientation = first == ORIENT_TOP_FIRST ? ORIENT_BOTTOM_FIRST : first;
      status = MergeDisplay(dest, planes, count, wide ? model.code16 : model.code8, wide);
    } else {
      // The colour-space course works in image rows on a result in plane 0's
      // orientation, and its status is not looked at (kept: the export
      // returns the allocation's 1 whatever the rows gave).
      dest->Orientation = first;
      MergeSpace(dest, planes, model.space, wide);
      status = RC_SUCCESS;
    }
  }
  if (status != RC_SUCCESS) ::FreeBitmap(dest);
  return status;
}

}  // namespace

namespace planes {

void SplitRow3(Isa isa, const uint8_t *in, uint8_t *first, uint8_t *second, uint8_t *third, int32_t width) {
  int32_t x = 0;
  if (isa >= Isa::Avx512 && IsaAvailable(Isa::Avx512)) x = SplitRow3Avx512(in, first, second, third, width);
  for (in += static_cast<std::ptrdiff_t>(x) * 3; x < width; ++x, in += 3) {
    first[x] = in[0];
    second[x] = in[1];
    third[x] = in[2];
  }
}

void MergeRow3(Isa isa, const uint8_t *first, const uint8_t *second, const uint8_t *third, uint8_t *out,
               int32_t width) {
  int32_t x = 0;
  if (isa >= Isa::Avx512 && IsaAvailable(Isa::Avx512)) x = MergeRow3Avx512(first, second, third, out, width);
  for (out += static_cast<std::ptrdiff_t>(x) * 3; x < width; ++x, out += 3) {
    out[0] = first[x];
    out[1] = second[x];
    out[2] = third[x];
  }
}

}  // namespace planes

}  // namespace img

extern "C" IMG_API int32_t Q_ColorSeparateBitmap(BitmapRecord *bitmap, BitmapRecord *const *planes,
                                                 uint32_t structSize, uint32_t model) {
  if (const int32_t status = img::CheckEntry(img::kSeparateEntry, 0, bitmap)) return status;
  // Kept as written: the entry frame's null check comes after a record was read.
  if (bitmap == nullptr) return RC_NULL_OPTIONS;
  // Written to the caller's record on purpose, also when a later check fails.
  if (bitmap->SignificantHighBit == -1) bitmap->SignificantHighBit = bitmap->BitsPerPixel - 1;
  if (const int32_t status = img::CheckAfterArguments(img::kSeparateEntry, bitmap)) return status;
  if (!planes[0] || !planes[1] || !planes[2] || (model == COLORSEP_MODEL2 && !planes[3]))
    return RC_INVALID_PARAMETER;
  if (!img::ValidRecordSize(structSize)) return RC_INVALID_STRUCT_SIZE;
  planes[0]->StructSize = structSize;
  if (!img::ranges::kColorSepModel.Contains(model)) return RC_INVALID_PARAMETER;
  return img::Separate(bitmap, planes, structSize, img::kModels[model]);
}

extern "C" IMG_API int32_t Q_ColorMergeBitmap(BitmapRecord *bitmap, BitmapRecord *const *planes,
                                              uint32_t structSize, uint32_t model) {
  if (!bitmap || !planes) return RC_INVALID_PARAMETER;
  if (!img::ValidRecordSize(structSize)) return RC_INVALID_STRUCT_SIZE;
  bitmap->StructSize = structSize;
  if (bitmap->ColorOrder == ORDER_GRAY && bitmap->BitsPerPixel == 32) return RC_GRAY32_NOT_SUPPORTED;
  if (bitmap->SignificantHighBit == -1) bitmap->SignificantHighBit = bitmap->BitsPerPixel - 1;
  const int32_t count = model == COLORSEP_MODEL2 ? 4 : 3;
  auto standard = [](int32_t o) { return o == ORIENT_TOP_FIRST || o == ORIENT_BOTTOM_FIRST; };
  for (int32_t k = 0; k < count; ++k) {
    if (const int32_t status = img::CheckEntry(img::kPlaneEntry, 0, planes[k])) return status;
    const int32_t a = planes[k]->Orientation, b = planes[0]->Orientation;
    if (a != b && !standard(a) && !standard(b)) return RC_INVALID_PARAMETER;
  }
  if (!img::ranges::kColorSepModel.Contains(model)) return RC_INVALID_PARAMETER;
  return img::Merge(bitmap, planes, structSize, img::kModels[model]);
}
