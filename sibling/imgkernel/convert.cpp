// Conversions between the kinds of bitmap: whole bitmaps (ConvertBitmapFormat,
// ConvertBitmapDepth) and single row buffers (ConvertRowBuffer).
//
// Every conversion decodes a row into wide pixels (16-bit blue, green, red and
// fourth sample) and encodes the target kind from them. Decoders and encoders
// are chosen once per row; the pixel loops inside them are plain.
#include <cstring>

#include "family.h"
#include "pixels.h"
#include "region_data.h"

namespace img {
void ReleaseOwned(BitmapRecord *b);
void KernelSettings(int32_t *dither, int32_t *paletteChoice);
}  // namespace img

namespace {

static constexpr const wchar_t *kSourceFile = L"imgkernel/convert";

using img::Kind;

struct Wide {
  uint16_t b, g, r, a;
};

// How a row is stored.
struct RowFormat {
  Kind kind = Kind::Invalid;
  int32_t bits = 0;
  bool bgr = true;                        // colour sample order
  const PaletteEntry *palette = nullptr;  // palette kinds
  int32_t grayLow = 0;                    // gray kinds: lowest significant bit
  int32_t grayBits = 8;                   // gray kinds: significant bits
};

// 12-bit gray is stored in 16-bit words.
int32_t StorageBits(int32_t bits) { return bits == 12 ? 16 : bits; }

int32_t StorageGrayBits(Kind k) { return k == Kind::Gray8 ? 8 : k == Kind::Gray12 ? 12 : 16; }

// Significant bits low..high of a gray sample; high < 0 means all bits.
bool SetGrayBits(RowFormat *f, int32_t low, int32_t high) {
  const int32_t limit = f->kind == Kind::Gray8 ? 8 : 16;
  f->grayLow = 0;
  f->grayBits = StorageGrayBits(f->kind);
  if (high < 0) return true;
  if (low < 0 || low > high || high >= limit) return false;
  f->grayLow = low;
  f->grayBits = high - low + 1;
  return true;
}

// ---- Packed palette indices --------------------------------------------------

template <int Bits>
inline uint32_t IndexAt(const uint8_t *row, int32_t x) {
  if constexpr (Bits == 8) {
    return row[x];
  } else {
    constexpr int kPer = 8 / Bits;
    return (row[x / kPer] >> ((kPer - 1 - x % kPer) * Bits)) & ((1u << Bits) - 1u);
  }
}

template <int Bits>
inline void PutIndex(uint8_t *row, int32_t x, uint32_t v) {
  if constexpr (Bits == 8) {
    row[x] = static_cast<uint8_t>(v);
  } else {
    constexpr int kPer = 8 / Bits;
    const int shift = (kPer - 1 - x % kPer) * Bits;
    const uint32_t mask = ((1u << Bits) - 1u) << shift;
    uint8_t &byte = row[x / kPer];
    byte = static_cast<uint8_t>((byte & ~mask) | ((v << shift) & mask));
  }
}

template <int Bits>
void DecodePaletteT(const uint8_t *row, int32_t x0, int32_t n, const PaletteEntry *pal, Wide *out) {
  for (int32_t i = 0; i < n; ++i) {
    const PaletteEntry &e = pal[IndexAt<Bits>(row, x0 + i)];
    out[i] = Wide{static_cast<uint16_t>(e.Blue * 257u), static_cast<uint16_t>(e.Green * 257u),
                  static_cast<uint16_t>(e.Red * 257u), 0};
  }
}

template <int Bits>
void PackIndicesT(const uint8_t *indices, int32_t x0, int32_t n, uint8_t *row) {
  for (int32_t i = 0; i < n; ++i) PutIndex<Bits>(row, x0 + i, indices[i]);
}

void PackIndices(int32_t bits, const uint8_t *indices, int32_t x0, int32_t n, uint8_t *row) {
  switch (bits) {
    case 1:
      PackIndicesT<1>(indices, x0, n, row);
      break;
    case 2:
      PackIndicesT<2>(indices, x0, n, row);
      break;
    case 4:
      PackIndicesT<4>(indices, x0, n, row);
      break;
    default:
      PackIndicesT<8>(indices, x0, n, row);
      break;
  }
}

template <int Bits>
void UnpackIndicesT(const uint8_t *row, int32_t n, uint8_t *indices) {
  for (int32_t i = 0; i < n; ++i) indices[i] = static_cast<uint8_t>(IndexAt<Bits>(row, i));
}

void UnpackIndices(int32_t bits, const uint8_t *row, int32_t n, uint8_t *indices) {
  switch (bits) {
    case 1:
      UnpackIndicesT<1>(row, n, indices);
      break;
    case 2:
      UnpackIndicesT<2>(row, n, indices);
      break;
    case 4:
      UnpackIndicesT<4>(row, n, indices);
      break;
    default:
      UnpackIndicesT<8>(row, n, indices);
      break;
  }
}

// ---- Decoding: stored pixels x0 .. x0 + n - 1 into wide pixels -----------------

void DecodeGray(const RowFormat &f, const uint8_t *row, int32_t x0, int32_t n, Wide *out) {
  // Levels of 8 significant bits widen by 257, others by shifting to 16 bits
  // (12-bit levels thus by 16).
  const uint32_t low = static_cast<uint32_t>(f.grayLow);
  const uint32_t mask = (1u << f.grayBits) - 1u;
  const uint32_t mul = f.grayBits == 8 ? 257u : 1u;
  const uint32_t shift = f.grayBits == 8 ? 0u : static_cast<uint32_t>(16 - f.grayBits);
  if (f.kind == Kind::Gray8) {
    for (int32_t i = 0; i < n; ++i) {
      const uint16_t v = static_cast<uint16_t>((((row[x0 + i] >> low) & mask) * mul) << shift);
      out[i] = Wide{v, v, v, 0};
    }
  } else {
    const uint8_t *p = row + 2 * static_cast<size_t>(x0);
    for (int32_t i = 0; i < n; ++i, p += 2) {
      const uint16_t v = static_cast<uint16_t>((((img::Load16(p) >> low) & mask) * mul) << shift);
      out[i] = Wide{v, v, v, 0};
    }
  }
}

void DecodeRow(const RowFormat &f, const uint8_t *row, int32_t x0, int32_t n, Wide *out) {
  switch (f.kind) {
    case Kind::Palette:
      switch (f.bits) {
        case 1:
          DecodePaletteT<1>(row, x0, n, f.palette, out);
          break;
        case 2:
          DecodePaletteT<2>(row, x0, n, f.palette, out);
          break;
        case 4:
          DecodePaletteT<4>(row, x0, n, f.palette, out);
          break;
        default:
          DecodePaletteT<8>(row, x0, n, f.palette, out);
          break;
      }
      break;
    case Kind::Gray8:
    case Kind::Gray12:
    case Kind::Gray16:
      DecodeGray(f, row, x0, n, out);
      break;
    case Kind::Color16: {
      const uint8_t *p = row + 2 * static_cast<size_t>(x0);
      for (int32_t i = 0; i < n; ++i, p += 2) {
        uint8_t b, g, r;
        img::Unpack555(img::Load16(p), &b, &g, &r);
        out[i] = Wide{static_cast<uint16_t>(b * 257u), static_cast<uint16_t>(g * 257u),
                      static_cast<uint16_t>(r * 257u), 0};
      }
      break;
    }
    case Kind::Color24:
    case Kind::Color32: {
      const int step = f.kind == Kind::Color24 ? 3 : 4;
      const int ib = f.bgr ? 0 : 2, ir = f.bgr ? 2 : 0;
      const uint8_t *p = row + static_cast<size_t>(step) * x0;
      for (int32_t i = 0; i < n; ++i, p += step)
        out[i] = Wide{static_cast<uint16_t>(p[ib] * 257u), static_cast<uint16_t>(p[1] * 257u),
                      static_cast<uint16_t>(p[ir] * 257u), 0};
      if (step == 4) {
        p = row + static_cast<size_t>(step) * x0;
        for (int32_t i = 0; i < n; ++i, p += 4) out[i].a = static_cast<uint16_t>(p[3] * 257u);
      }
      break;
    }
    case Kind::Color48:
    case Kind::Color64: {
      const int step = f.kind == Kind::Color48 ? 6 : 8;
      const int ib = f.bgr ? 0 : 4, ir = f.bgr ? 4 : 0;
      const uint8_t *p = row + static_cast<size_t>(step) * x0;
      for (int32_t i = 0; i < n; ++i, p += step)
        out[i] = Wide{img::Load16(p + ib), img::Load16(p + 2), img::Load16(p + ir),
                      step == 8 ? img::Load16(p + 6) : uint16_t{0}};
      break;
    }
    default:
      break;
  }
}

// ---- Encoding: wide pixels into stored pixels x0 .. x0 + n - 1 ------------------

// Intensity (2R + 5G + B + 4) >> 3 of the 8-bit samples (the top bytes).
inline uint32_t Intensity8(const Wide &w) {
  return (2u * (w.r >> 8) + 5u * (w.g >> 8) + (w.b >> 8) + 4u) >> 3;
}
// The same weights on the 16-bit samples.
inline uint32_t Intensity16(const Wide &w) { return (2u * w.r + 5u * w.g + w.b + 4u) >> 3; }

// Non-palette kinds only.
void EncodeRow(const RowFormat &f, const Wide *in, int32_t x0, int32_t n, uint8_t *row) {
  switch (f.kind) {
    case Kind::Gray8:
      for (int32_t i = 0; i < n; ++i) row[x0 + i] = static_cast<uint8_t>(Intensity8(in[i]));
      break;
    case Kind::Gray12: {
      uint8_t *p = row + 2 * static_cast<size_t>(x0);
      for (int32_t i = 0; i < n; ++i, p += 2) img::Store16(p, Intensity16(in[i]) >> 4);
      break;
    }
    case Kind::Gray16: {
      uint8_t *p = row + 2 * static_cast<size_t>(x0);
      for (int32_t i = 0; i < n; ++i, p += 2) img::Store16(p, Intensity16(in[i]));
      break;
    }
    case Kind::Color16: {
      uint8_t *p = row + 2 * static_cast<size_t>(x0);
      for (int32_t i = 0; i < n; ++i, p += 2)
        img::Store16(p, img::Pack555(in[i].b >> 8, in[i].g >> 8, in[i].r >> 8));
      break;
    }
    case Kind::Color24:
    case Kind::Color32: {
      const int step = f.kind == Kind::Color24 ? 3 : 4;
      const int ib = f.bgr ? 0 : 2, ir = f.bgr ? 2 : 0;
      uint8_t *p = row + static_cast<size_t>(step) * x0;
      for (int32_t i = 0; i < n; ++i, p += step) {
        p[ib] = static_cast<uint8_t>(in[i].b >> 8);
        p[1] = static_cast<uint8_t>(in[i].g >> 8);
        p[ir] = static_cast<uint8_t>(in[i].r >> 8);
      }
      if (step == 4) {
        p = row + static_cast<size_t>(step) * x0;
        for (int32_t i = 0; i < n; ++i, p += 4) p[3] = static_cast<uint8_t>(in[i].a >> 8);
      }
      break;
    }
    case Kind::Color48:
    case Kind::Color64: {
      const int step = f.kind == Kind::Color48 ? 6 : 8;
      const int ib = f.bgr ? 0 : 4, ir = f.bgr ? 4 : 0;
      uint8_t *p = row + static_cast<size_t>(step) * x0;
      for (int32_t i = 0; i < n; ++i, p += step) {
        img::Store16(p + ib, in[i].b);
        img::Store16(p + 2, in[i].g);
        img::Store16(p + ir, in[i].r);
        if (step == 8) img::Store16(p + 6, in[i].a);
      }
      break;
    }
    default:
      break;
  }
}

// 8-bit blue, green, red triples for palette matching.
void NarrowToBgr(const Wide *in, int32_t n, uint8_t *bgr) {
  for (int32_t i = 0; i < n; ++i, bgr += 3) {
    bgr[0] = static_cast<uint8_t>(in[i].b >> 8);
    bgr[1] = static_cast<uint8_t>(in[i].g >> 8);
    bgr[2] = static_cast<uint8_t>(in[i].r >> 8);
  }
}

void MapNearest(const uint8_t *bgr, int32_t n, img::PaletteMatcher &matcher, uint8_t *indices) {
  for (int32_t i = 0; i < n; ++i, bgr += 3)
    indices[i] = static_cast<uint8_t>(matcher.Nearest(bgr[0], bgr[1], bgr[2]));
}

inline int32_t Clamp255(int32_t v) { return v < 0 ? 0 : v > 255 ? 255 : v; }

// Floyd-Steinberg error diffusion, left to right on every row. `carry` holds
// the errors (times 16) for this row and `next` collects those for the row
// below; both have (n + 2) * 3 entries with one guard pixel on each side.
void MapDithered(const uint8_t *bgr, int32_t n, img::PaletteMatcher &matcher, const PaletteEntry *pal,
                 int32_t *carry, int32_t *next, uint8_t *indices) {
  std::memset(next, 0, sizeof(int32_t) * 3 * (static_cast<size_t>(n) + 2));
  for (int32_t i = 0; i < n; ++i, bgr += 3) {
    int32_t *c = carry + 3 * (i + 1);
    const int32_t b = Clamp255(bgr[0] + c[0] / 16);
    const int32_t g = Clamp255(bgr[1] + c[1] / 16);
    const int32_t r = Clamp255(bgr[2] + c[2] / 16);
    const uint32_t index =
        matcher.Nearest(static_cast<uint8_t>(b), static_cast<uint8_t>(g), static_cast<uint8_t>(r));
    indices[i] = static_cast<uint8_t>(index);
    const int32_t err[3] = {b - pal[index].Blue, g - pal[index].Green, r - pal[index].Red};
    int32_t *d = next + 3 * (i + 1);
    for (int k = 0; k < 3; ++k) {
      c[3 + k] += err[k] * 7;
      d[-3 + k] += err[k] * 3;
      d[k] += err[k] * 5;
      d[3 + k] += err[k];
    }
  }
}

// ---- Palettes ----------------------------------------------------------------------

// 8 bits: a 6 x 7 x 6 colour cube (red, green, blue levels; index
// (r * 7 + g) * 6 + b) followed by the grays 51, 102, 153 and 204.
// 1, 2 and 4 bits: the gray ramp.
void FixedPalette(int32_t bits, PaletteEntry *pal) {
  if (bits != 8) {
    img::GrayRamp(pal, bits);
    return;
  }
  int32_t i = 0;
  for (int32_t r = 0; r < 6; ++r)
    for (int32_t g = 0; g < 7; ++g)
      for (int32_t b = 0; b < 6; ++b)
        pal[i++] = PaletteEntry{static_cast<uint8_t>(b * 51), static_cast<uint8_t>(g * 255 / 6),
                                static_cast<uint8_t>(r * 51), 0};
  for (int32_t k = 1; k <= 4; ++k) {
    const uint8_t v = static_cast<uint8_t>(k * 51);
    pal[i++] = PaletteEntry{v, v, v, 0};
  }
}

// Distinct 8-bit colours in order of first appearance, up to a limit.
class ColorCollector {
 public:
  explicit ColorCollector(int32_t limit) : limit_(limit) { std::memset(keys_, 0xFF, sizeof keys_); }
  // Returns false once more than `limit` colours were seen.
  bool Add(const uint8_t *bgr, int32_t n) {
    for (int32_t i = 0; i < n && !overflow_; ++i, bgr += 3) {
      const uint32_t key = (uint32_t{bgr[2]} << 16) | (uint32_t{bgr[1]} << 8) | bgr[0];
      uint32_t slot = (key * 2654435761u) >> (32 - kBits);
      while (keys_[slot] != key && keys_[slot] != kEmpty) slot = (slot + 1) & (kSlots - 1);
      if (keys_[slot] == key) continue;
      if (count_ == limit_) {
        overflow_ = true;
        break;
      }
      keys_[slot] = key;
      colors_[count_++] = PaletteEntry{bgr[0], bgr[1], bgr[2], 0};
    }
    return !overflow_;
  }
  bool fits() const { return !overflow_; }
  int32_t count() const { return count_; }
  const PaletteEntry *colors() const { return colors_; }

 private:
  static constexpr int kBits = 10;
  static constexpr uint32_t kSlots = 1u << kBits;
  static constexpr uint32_t kEmpty = 0xFFFFFFFFu;
  uint32_t keys_[kSlots];
  PaletteEntry colors_[256] = {};
  int32_t limit_;
  int32_t count_ = 0;
  bool overflow_ = false;
};

// ---- Whole bitmaps -------------------------------------------------------------------

struct Target {
  Kind kind = Kind::Invalid;
  int32_t bits = 0;
  int32_t order = ORDER_BGR;   // as stored: 0, 1 or 2
  bool grayIfAllGray = false;  // 8-bit palette target that becomes gray when every pixel is
};

int32_t ResolveTarget(Kind source, int32_t bits, int32_t order, bool explicitPalette, Target *t) {
  const bool grayish = source == Kind::Gray8 || source == Kind::Gray12 || source == Kind::Gray16;
  t->bits = bits;
  if (order == ORDER_GRAY) {
    t->order = ORDER_GRAY;
    t->kind = img::KindOf(bits, ORDER_GRAY);
    return (t->kind == Kind::Gray8 || t->kind == Kind::Gray12 || t->kind == Kind::Gray16)
               ? RC_SUCCESS
               : RC_INVALID_PARAMETER;
  }
  const bool forced = order == ORDER_BGR_COLOR || order == ORDER_BGR_COLOR_WIDE;
  if (!forced && order != ORDER_RGB && order != ORDER_BGR) return RC_INVALID_PARAMETER;
  t->order = forced ? ORDER_BGR : order;
  switch (bits) {
    case 1:
    case 2:
    case 4:
      t->kind = Kind::Palette;
      break;
    case 8:
      if (!forced && grayish) {
        t->kind = Kind::Gray8;
      } else {
        t->kind = Kind::Palette;
        t->grayIfAllGray = !forced && !explicitPalette && source != Kind::Palette;
      }
      break;
    case 12:
      if (forced) return RC_INVALID_PARAMETER;
      t->kind = Kind::Gray12;
      break;
    case 16:
      t->kind = (!forced && grayish) ? Kind::Gray16 : Kind::Color16;
      break;
    case 24:
      t->kind = Kind::Color24;
      break;
    case 32:
      t->kind = Kind::Color32;
      break;
    case 48:
      t->kind = Kind::Color48;
      break;
    case 64:
      t->kind = Kind::Color64;
      break;
    default:
      return RC_INVALID_PARAMETER;
  }
  if (img::IsGrayKind(t->kind)) t->order = ORDER_GRAY;
  return RC_SUCCESS;
}

int32_t StoredOrder(int32_t order) { return img::IsBgrOrder(order) ? ORDER_BGR : order; }

RowFormat SourceFormat(const BitmapRecord *b, Kind kind, PaletteEntry *rampSpace) {
  RowFormat f;
  f.kind = kind;
  f.bits = b->BitsPerPixel;
  f.bgr = img::IsBgrOrder(b->ColorOrder);
  if (kind == Kind::Palette) {
    if (b->Palette && b->PaletteFlag != PALETTE_FLAG_NONE) {
      f.palette = b->Palette;
    } else {
      img::GrayRamp(rampSpace, b->BitsPerPixel);
      f.palette = rampSpace;
    }
  }
  if (img::IsGrayKind(kind) && !SetGrayBits(&f, b->SignificantLowBit, b->SignificantHighBit))
    SetGrayBits(&f, 0, -1);
  return f;
}

int32_t Convert(BitmapRecord *src, BitmapRecord *dst, uint32_t structSize, Kind srcKind, Target t,
                const PaletteEntry *explicitPalette, int32_t explicitCount) {
  const int32_t width = src->Width, height = src->Height;
  const uint64_t line = img::StoredRowBytes(width, StorageBits(t.bits));
  if (line == 0 || line > UINT32_MAX) return RC_INVALID_PARAMETER;
  const uint64_t bytes = line * static_cast<uint64_t>(height);

  PaletteEntry ramp[256];
  const RowFormat in = SourceFormat(src, srcKind, ramp);

  IMG_BUFFER(Wide, wide, static_cast<size_t>(width));
  if (!wide) return RC_NO_MEMORY;
  int32_t dither = 0, choice = 0;
  img::KernelSettings(&dither, &choice);

  // Palette source to another palette depth: indices and colours stay when
  // every index used fits the new depth (always so when it grows).
  bool keepIndices = t.kind == Kind::Palette && srcKind == Kind::Palette && !explicitPalette;
  if (keepIndices && t.bits < src->BitsPerPixel) {
    IMG_BUFFER(uint8_t, used, static_cast<size_t>(width));
    if (!used) return RC_NO_MEMORY;
    const uint32_t limit = 1u << t.bits;
    for (int32_t y = 0; y < height && keepIndices; ++y) {
      UnpackIndices(src->BitsPerPixel, img::StoredRow(src, y), width, used.get());
      for (int32_t x = 0; x < width && keepIndices; ++x) keepIndices = used[x] < limit;
    }
  }
  bool exact = keepIndices;

  // One pass over the image when the result depends on its colours.
  ColorCollector own(1 << (t.bits <= 8 ? t.bits : 8));
  const bool collect = t.kind == Kind::Palette && !keepIndices && !explicitPalette && choice == 0;
  if (collect || t.grayIfAllGray) {
    IMG_BUFFER(uint8_t, bgr, static_cast<size_t>(width) * 3);
    if (!bgr) return RC_NO_MEMORY;
    bool allGray = t.grayIfAllGray;
    for (int32_t y = 0; y < height && (allGray || (collect && own.fits())); ++y) {
      DecodeRow(in, img::StoredRow(src, y), 0, width, wide.get());
      for (int32_t x = 0; x < width && allGray; ++x)
        allGray = wide[x].b == wide[x].g && wide[x].g == wide[x].r;
      if (collect && own.fits()) {
        NarrowToBgr(wide.get(), width, bgr.get());
        own.Add(bgr.get(), width);
      }
    }
    if (t.grayIfAllGray && allGray) {
      t.kind = Kind::Gray8;
      t.order = ORDER_GRAY;
    }
  }

  RowFormat out;
  out.kind = t.kind;
  out.bits = t.bits;
  out.bgr = t.order == ORDER_BGR;

  IMG_BUFFER(uint8_t, pixels, bytes);
  if (!pixels) return RC_NO_MEMORY;
  img::KernelBuffer<PaletteEntry> pal;
  img::KernelBuffer<uint8_t> bgr, indices;
  img::KernelBuffer<int32_t> errors;
  int32_t paletteCount = 0;
  const bool toPalette = t.kind == Kind::Palette;
  const bool toGray8 = t.kind == Kind::Gray8;
  if (toGray8) {
    // 8-bit gray carries the gray ramp as its palette: index = level.
    pal = img::KernelBuffer<PaletteEntry>(256, __LINE__, kSourceFile);
    if (!pal) return RC_NO_MEMORY;
    img::GrayRamp(pal.get(), 8);
  } else if (toPalette) {
    pal = img::KernelBuffer<PaletteEntry>(256, __LINE__, kSourceFile);
    indices = img::KernelBuffer<uint8_t>(static_cast<size_t>(width), __LINE__, kSourceFile);
    if (!pal || !indices) return RC_NO_MEMORY;
    const int32_t capacity = 1 << t.bits;
    if (keepIndices) {
      const int32_t kept = t.bits < src->BitsPerPixel ? t.bits : src->BitsPerPixel;
      std::memcpy(pal.get(), in.palette, sizeof(PaletteEntry) * (1u << kept));
    } else if (explicitPalette) {
      paletteCount = explicitCount < capacity ? explicitCount : capacity;
      std::memcpy(pal.get(), explicitPalette, sizeof(PaletteEntry) * paletteCount);
    } else if (collect && own.fits()) {
      paletteCount = own.count() > 0 ? own.count() : 1;
      std::memcpy(pal.get(), own.colors(), sizeof(PaletteEntry) * own.count());
      exact = true;
    } else {
      FixedPalette(t.bits, pal.get());
      paletteCount = capacity;
    }
    if (!keepIndices) {
      bgr = img::KernelBuffer<uint8_t>(static_cast<size_t>(width) * 3, __LINE__, kSourceFile);
      if (!bgr) return RC_NO_MEMORY;
      if (dither == 1 && !exact) {
        errors = img::KernelBuffer<int32_t>(6 * (static_cast<size_t>(width) + 2), __LINE__, kSourceFile);
        if (!errors) return RC_NO_MEMORY;
      }
    }
  }

  // Separate destination: it gets its own copy of the region, and of the
  // attached table when the depth stays.
  const bool inPlace = dst == src;
  const bool keepLut = t.bits == src->BitsPerPixel && src->AttachedLut && src->AttachedLutLength > 0;
  img::KernelBuffer<uint8_t> region;
  img::KernelBuffer<int32_t> lut;
  if (!inPlace && src->Region) {
    region = img::KernelBuffer<uint8_t>(src->Region->ByteSize, __LINE__, kSourceFile);
    if (!region) return RC_NO_MEMORY;
    std::memcpy(region.get(), src->Region, src->Region->ByteSize);
  }
  if (!inPlace && keepLut) {
    lut = img::KernelBuffer<int32_t>(static_cast<size_t>(src->AttachedLutLength), __LINE__, kSourceFile);
    if (!lut) return RC_NO_MEMORY;
    std::memcpy(lut.get(), src->AttachedLut, sizeof(int32_t) * src->AttachedLutLength);
  }

  // Rows in image order (top first) so that error diffusion runs downwards.
  img::PaletteMatcher matcher(pal.get(), paletteCount);
  int32_t *carry = errors ? errors.get() : nullptr;
  int32_t *next = errors ? errors.get() + 3 * (static_cast<size_t>(width) + 2) : nullptr;
  for (int32_t y = 0; y < height; ++y) {
    const int32_t stored = img::StoredRowIndex(src, y);
    const uint8_t *from = img::StoredRow(src, stored);
    uint8_t *to = pixels.get() + static_cast<uint64_t>(stored) * line;
    if (keepIndices) {
      UnpackIndices(src->BitsPerPixel, from, width, indices.get());
      PackIndices(t.bits, indices.get(), 0, width, to);
      continue;
    }
    DecodeRow(in, from, 0, width, wide.get());
    if (!toPalette) {
      EncodeRow(out, wide.get(), 0, width, to);
      continue;
    }
    NarrowToBgr(wide.get(), width, bgr.get());
    if (carry) {
      MapDithered(bgr.get(), width, matcher, pal.get(), carry, next, indices.get());
      int32_t *swap = carry;
      carry = next;
      next = swap;
    } else {
      MapNearest(bgr.get(), width, matcher, indices.get());
    }
    PackIndices(t.bits, indices.get(), 0, width, to);
  }

  if (inPlace) {
    IMG_FREE(src->Pixels);
    if (src->Palette) IMG_FREE(src->Palette);
    if (!keepLut && src->AttachedLut) IMG_FREE(src->AttachedLut);
  } else {
    const uint32_t n = structSize < src->StructSize ? structSize : src->StructSize;
    std::memmove(dst, src, n);
    if (structSize > n) std::memset(reinterpret_cast<uint8_t *>(dst) + n, 0, structSize - n);
    dst->StructSize = structSize;
    dst->AccessCount = 0;
    dst->Region = reinterpret_cast<ImgRegion *>(region.release());
  }
  dst->Pixels = pixels.release();
  dst->Palette = pal.release();
  dst->DataSize = bytes;
  dst->BytesPerLine = static_cast<uint32_t>(line);
  dst->BitsPerPixel = t.bits;
  dst->ColorOrder = t.order;
  dst->ColorsUsed = toPalette || toGray8 ? (1 << t.bits) : 0;
  dst->PaletteFlag = 0;
  dst->SignificantLowBit = 0;
  dst->SignificantHighBit = -1;
  if (keepLut) {
    if (!inPlace) dst->AttachedLut = lut.release();
  } else {
    dst->AttachedLut = nullptr;
    dst->AttachedLutLength = 0;
    dst->Flags &= ~BITMAP_USE_ATTACHED_LUT;
  }
  return RC_SUCCESS;
}

bool HasPixels(const BitmapRecord *b) { return (b->Flags & BITMAP_ALLOCATED) && b->Pixels; }

// Checks common to both entry points; returns 0 when the source is usable.
int32_t CheckSource(const BitmapRecord *b) {
  if (!b) return RC_NO_BITMAP;
  if (!img::ValidRecordSize(b->StructSize)) return RC_INVALID_STRUCT_SIZE;
  if (!HasPixels(b)) return RC_NO_BITMAP;
  return 0;
}

int32_t ConvertChecked(BitmapRecord *source, BitmapRecord *destination, uint32_t structSize, int32_t bits,
                       int32_t order, const PaletteEntry *palette, int32_t paletteCount) {
  const Kind kind = img::KindOf(source);
  if (kind == Kind::Gray32) return RC_GRAY32_NOT_SUPPORTED;
  if (kind == Kind::Invalid || source->Width < 1 || source->Height < 1) return RC_INVALID_PARAMETER;
  if (paletteCount < 0 || paletteCount > 256) return RC_INVALID_PARAMETER;
  if (paletteCount == 0) palette = nullptr;
  Target t;
  const int32_t status = ResolveTarget(kind, bits, order, palette != nullptr, &t);
  if (status != RC_SUCCESS) return status;
  const bool same = t.kind == kind && t.bits == source->BitsPerPixel && !t.grayIfAllGray && !palette &&
                    (img::IsGrayKind(kind) || kind == Kind::Palette || kind == Kind::Color16 ||
                     t.order == StoredOrder(source->ColorOrder));
  if (same) return destination == source ? RC_SUCCESS : CopyBitmap(destination, source, structSize);
  if (source->Flags & BITMAP_SIGNED) return RC_SIGNED_DATA_NOT_SUPPORTED;
  return Convert(source, destination, structSize, kind, t, palette, paletteCount);
}

// ---- Row buffers -----------------------------------------------------------------------

int32_t RowSourceFormat(int32_t bits, int32_t order, const PaletteEntry *palette, uint32_t flags, int32_t low,
                        int32_t high, PaletteEntry *rampSpace, RowFormat *f) {
  const bool gray = (flags & CONVERT_GRAY_SOURCE) || order == ORDER_GRAY;
  f->bits = bits;
  f->bgr = img::IsBgrOrder(order);
  switch (bits) {
    case 1:
    case 2:
    case 4:
      f->kind = Kind::Palette;
      break;
    case 8:
      f->kind = gray ? Kind::Gray8 : Kind::Palette;
      break;
    case 12:
      f->kind = Kind::Gray12;
      break;
    case 16:
      f->kind = gray ? Kind::Gray16 : Kind::Color16;
      break;
    case 24:
    case 32:
    case 48:
    case 64:
      if (!img::IsColorOrder(order)) return RC_INVALID_PARAMETER;
      f->kind = img::KindOf(bits, order);
      break;
    default:
      return RC_INVALID_PARAMETER;
  }
  if (f->kind == Kind::Palette) {
    // A gray source's indices are levels: its palette argument (a caller's
    // table of any length) is not read.
    if (palette && !(flags & CONVERT_GRAY_SOURCE)) {
      f->palette = palette;
    } else {
      img::GrayRamp(rampSpace, bits);
      f->palette = rampSpace;
    }
  }
  if (img::IsGrayKind(f->kind)) {
    const bool significant = (flags & CONVERT_SIGNIFICANT_BITS) != 0;
    if (!SetGrayBits(f, significant ? low : 0, significant ? high : -1)) return RC_INVALID_PARAMETER;
  }
  return RC_SUCCESS;
}

int32_t RowTargetFormat(int32_t bits, int32_t order, const PaletteEntry *palette, PaletteEntry *rampSpace,
                        RowFormat *f) {
  f->bits = bits;
  f->bgr = img::IsBgrOrder(order);
  switch (bits) {
    case 1:
    case 2:
    case 4:
      f->kind = Kind::Palette;
      break;
    case 8:
      f->kind = (order == ORDER_GRAY || !palette) ? Kind::Gray8 : Kind::Palette;
      break;
    case 12:
      f->kind = Kind::Gray12;
      break;
    case 16:
      f->kind = order == ORDER_GRAY ? Kind::Gray16 : Kind::Color16;
      break;
    case 24:
    case 32:
    case 48:
    case 64:
      if (!img::IsColorOrder(order)) return RC_INVALID_PARAMETER;
      f->kind = img::KindOf(bits, order);
      break;
    default:
      return RC_INVALID_PARAMETER;
  }
  if (f->kind == Kind::Palette) {
    if (palette) {
      f->palette = palette;
    } else {
      img::GrayRamp(rampSpace, bits);
      f->palette = rampSpace;
    }
  }
  return RC_SUCCESS;
}

}  // namespace

extern "C" {

IMG_API int32_t ConvertBitmapFormat(BitmapRecord *source, BitmapRecord *destination, uint32_t structSize,
                                    int32_t bitsPerPixel, int32_t colorOrder, const PaletteEntry *palette,
                                    int32_t paletteCount, uint32_t flags) {
  if (!source || !destination) return RC_NO_BITMAP;
  if (!img::ValidRecordSize(structSize)) return RC_INVALID_STRUCT_SIZE;
  if (const int32_t status = CheckSource(source)) return status;
  if (flags != 0) return RC_INVALID_PARAMETER;
  return ConvertChecked(source, destination, structSize, bitsPerPixel, colorOrder, palette, paletteCount);
}

IMG_API int32_t ConvertBitmapDepth(BitmapRecord *bitmap, int32_t bitsPerPixel) {
  if (const int32_t status = CheckSource(bitmap)) return status;
  if (bitsPerPixel == bitmap->BitsPerPixel) return RC_SUCCESS;
  const Kind kind = img::KindOf(bitmap);
  const bool grayish = kind == Kind::Gray8 || kind == Kind::Gray12 || kind == Kind::Gray16;
  int32_t order = ORDER_BGR;
  if (bitsPerPixel == 12 || (grayish && (bitsPerPixel == 8 || bitsPerPixel == 16)))
    order = ORDER_GRAY;
  else if (bitsPerPixel >= 24 && (bitmap->ColorOrder == ORDER_RGB || bitmap->ColorOrder == ORDER_BGR))
    order = bitmap->ColorOrder;
  return ConvertChecked(bitmap, bitmap, bitmap->StructSize, bitsPerPixel, order, nullptr, 0);
}

IMG_API int32_t ConvertRowBuffer(void *buffer, int32_t width, int32_t sourceBits, int32_t destinationBits,
                                 int32_t sourceOrder, int32_t destinationOrder,
                                 const PaletteEntry *sourcePalette, const PaletteEntry *destinationPalette,
                                 uint32_t flags, int32_t lowBit, int32_t highBit) {
  if (!buffer || width < 1) return RC_INVALID_PARAMETER;
  PaletteEntry sourceRamp[256], targetRamp[256];
  RowFormat in, out;
  int32_t status =
      RowSourceFormat(sourceBits, sourceOrder, sourcePalette, flags, lowBit, highBit, sourceRamp, &in);
  if (status != RC_SUCCESS) return status;
  status = RowTargetFormat(destinationBits, destinationOrder, destinationPalette, targetRamp, &out);
  if (status != RC_SUCCESS) return status;
  // A colour row already in the destination's depth and sample order stays
  // as it is (decoding and encoding it would give the same bytes).
  const bool colour = in.kind == Kind::Color24 || in.kind == Kind::Color48;
  if (colour && in.kind == out.kind && in.bgr == out.bgr) return RC_SUCCESS;

  // Chunks of whole bytes; back to front when pixels grow so that no source
  // byte is overwritten before it was read.
  constexpr int32_t kChunk = 256;
  Wide wide[kChunk];
  uint8_t bgr[3 * kChunk];
  uint8_t indices[kChunk];
  const bool toPalette = out.kind == Kind::Palette;
  img::PaletteMatcher matcher(out.palette, toPalette ? (1 << out.bits) : 0);
  uint8_t *row = static_cast<uint8_t *>(buffer);
  const int32_t chunks = (width + kChunk - 1) / kChunk;
  const bool backwards = destinationBits > sourceBits;
  for (int32_t k = 0; k < chunks; ++k) {
    const int32_t x0 = (backwards ? chunks - 1 - k : k) * kChunk;
    const int32_t n = width - x0 < kChunk ? width - x0 : kChunk;
    DecodeRow(in, row, x0, n, wide);
    if (toPalette) {
      NarrowToBgr(wide, n, bgr);
      MapNearest(bgr, n, matcher, indices);
      PackIndices(out.bits, indices, x0, n, row);
    } else {
      EncodeRow(out, wide, x0, n, row);
    }
  }
  return RC_SUCCESS;
}

}  // extern "C"
