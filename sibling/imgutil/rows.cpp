// Row converters: read and write image rows of any bitmap kind in one of four
// working layouts, over the whole bitmap, its region or a rectangle.
//
// Each (kind, layout, direction) has its own loop, instantiated from one
// template per direction over a small accessor type that knows the stored
// pixel; the converter picks the pair of loops once, when it is created.
#include <bit>
#include <cstring>
#include <new>

#include "family.h"
#include "imgutil.h"
#include "pixels.h"

static constexpr const wchar_t *kSourceFile = L"imgutil/rows";

struct ImgRowConverter;

namespace {

using ReadFn = void (*)(const ImgRowConverter &, const uint8_t *stored, void *row);
// Writes pixels [x0, x1) of the working row into the stored row.
using WriteFn = void (*)(ImgRowConverter &, const void *row, uint8_t *stored, int32_t x0, int32_t x1);

enum class Walk : int32_t { None, Whole, Region, Rectangle };

constexpr bool kLittleEndian = std::endian::native == std::endian::little;

}  // namespace

struct ImgRowConverter {
  BitmapRecord *bitmap;
  img::Kind kind;
  int32_t layout;
  int32_t width;
  int32_t height;
  int32_t channels;     // samples per pixel of the working row
  int32_t sampleBytes;  // 1 or 2
  int32_t rowBytes;     // width * channels * sampleBytes
  ReadFn read;
  WriteFn write;

  // The current walk.
  Walk walk;
  bool useRegion;      // BeginRegion on a bitmap that has a region
  Rect bounds;         // rows and columns of the walk
  int32_t maxRuns;     // capacity of a run list: the region's most runs + 1
  RowRun *regionRuns;  // scratch for the region's runs of one row
  bool progressOn;
  int32_t progressStart;
  int32_t progressEnd;
  img::Progress progress;

  // Palette bitmaps: the colours (or the gray ramp) and the nearest-colour
  // search used on write.
  PaletteEntry palette[256];
  int32_t paletteCount;
  alignas(img::PaletteMatcher) unsigned char matcherStorage[sizeof(img::PaletteMatcher)];

  img::PaletteMatcher &matcher() {
    return *std::launder(reinterpret_cast<img::PaletteMatcher *>(matcherStorage));
  }
};

namespace {

inline uint32_t Intensity(uint32_t b, uint32_t g, uint32_t r) { return (2 * r + 5 * g + b) >> 3; }

// ---- Stored pixels ----------------------------------------------------------
// An accessor describes one kind of stored pixel:
//   W          the native working sample type (uint8_t or uint16_t)
//   kGray      one sample (Get/Put of a value) or colour (Get/Put of b, g, r)
//   kFourth    colour pixels with a fourth sample (GetFourth/PutFourth)
//   Plain(l)   the working pixel of layout l is the stored pixel, byte for byte
// Colour Put keeps the fourth sample.

struct Gray8 {
  using W = uint8_t;
  static constexpr bool kGray = true, kFourth = false;
  static constexpr bool Plain(int32_t l) { return l == ROW_LAYOUT_NATIVE || l == ROW_LAYOUT_GRAY; }
  static uint32_t Get(const ImgRowConverter &, const uint8_t *s, int32_t x) { return s[x]; }
  static void Put(ImgRowConverter &, uint8_t *s, int32_t x, uint32_t v) { s[x] = static_cast<uint8_t>(v); }
};

// 12-bit gray: working samples are the stored value times 16.
struct Gray12 {
  using W = uint16_t;
  static constexpr bool kGray = true, kFourth = false;
  static constexpr bool Plain(int32_t) { return false; }
  static uint32_t Get(const ImgRowConverter &, const uint8_t *s, int32_t x) {
    return static_cast<uint16_t>(img::Load16(s + 2 * x) << 4);
  }
  static void Put(ImgRowConverter &, uint8_t *s, int32_t x, uint32_t v) {
    img::Store16(s + 2 * x, (v & 0xFFFFu) >> 4);
  }
};

struct Gray16 {
  using W = uint16_t;
  static constexpr bool kGray = true, kFourth = false;
  static constexpr bool Plain(int32_t l) {
    return kLittleEndian && (l == ROW_LAYOUT_NATIVE || l == ROW_LAYOUT_GRAY);
  }
  static uint32_t Get(const ImgRowConverter &, const uint8_t *s, int32_t x) { return img::Load16(s + 2 * x); }
  static void Put(ImgRowConverter &, uint8_t *s, int32_t x, uint32_t v) { img::Store16(s + 2 * x, v); }
};

// 5-5-5 words, blue low; the unused top bit is kept on write.
struct Color16 {
  using W = uint8_t;
  static constexpr bool kGray = false, kFourth = false;
  static constexpr bool Plain(int32_t) { return false; }
  static void Get(const ImgRowConverter &, const uint8_t *s, int32_t x, uint32_t &b, uint32_t &g,
                  uint32_t &r) {
    const uint32_t w = img::Load16(s + 2 * x);
    b = img::Expand5(w & 31u);
    g = img::Expand5((w >> 5) & 31u);
    r = img::Expand5((w >> 10) & 31u);
  }
  static void Put(ImgRowConverter &, uint8_t *s, int32_t x, uint32_t b, uint32_t g, uint32_t r) {
    const uint32_t keep = img::Load16(s + 2 * x) & 0x8000u;
    img::Store16(s + 2 * x, keep | img::Pack555(b & 0xFFu, g & 0xFFu, r & 0xFFu));
  }
};

// 24/32/48/64 bits: three or four samples of T, blue first when Bgr.
template <class T, int N, bool Bgr>
struct ColorN {
  using W = T;
  static constexpr bool kGray = false, kFourth = N == 4;
  static constexpr bool Plain(int32_t l) {
    if (!Bgr || (sizeof(T) == 2 && !kLittleEndian)) return false;
    if (l == ROW_LAYOUT_NATIVE) return true;
    // Three stored samples are also the BGR layout (and BGR8 for 8-bit ones).
    return N == 3 && (l == ROW_LAYOUT_BGR || (sizeof(T) == 1 && l == ROW_LAYOUT_BGR8));
  }
  static uint32_t Load(const uint8_t *p, int i) {
    if constexpr (sizeof(T) == 1)
      return p[i];
    else
      return img::Load16(p + 2 * i);
  }
  static void Store(uint8_t *p, int i, uint32_t v) {
    if constexpr (sizeof(T) == 1)
      p[i] = static_cast<uint8_t>(v);
    else
      img::Store16(p + 2 * i, v);
  }
  static const uint8_t *At(const uint8_t *s, int32_t x) {
    return s + static_cast<size_t>(x) * (N * sizeof(T));
  }
  static uint8_t *At(uint8_t *s, int32_t x) { return s + static_cast<size_t>(x) * (N * sizeof(T)); }
  static void Get(const ImgRowConverter &, const uint8_t *s, int32_t x, uint32_t &b, uint32_t &g,
                  uint32_t &r) {
    const uint8_t *p = At(s, x);
    b = Load(p, Bgr ? 0 : 2);
    g = Load(p, 1);
    r = Load(p, Bgr ? 2 : 0);
  }
  static void Put(ImgRowConverter &, uint8_t *s, int32_t x, uint32_t b, uint32_t g, uint32_t r) {
    uint8_t *p = At(s, x);
    Store(p, Bgr ? 0 : 2, b);
    Store(p, 1, g);
    Store(p, Bgr ? 2 : 0, r);
  }
  static uint32_t GetFourth(const uint8_t *s, int32_t x) { return Load(At(s, x), 3); }
  static void PutFourth(uint8_t *s, int32_t x, uint32_t a) { Store(At(s, x), 3, a); }
};

// Palette indices of 1, 2, 4 or 8 bits, leftmost pixel in the high bits.
template <int Bits>
struct Indexed {
  using W = uint8_t;
  static constexpr bool kGray = false, kFourth = false;
  static constexpr bool Plain(int32_t) { return false; }
  static constexpr uint32_t kPerByte = 8 / Bits;
  static constexpr uint32_t kMask = (1u << Bits) - 1;
  static uint32_t Index(const uint8_t *s, int32_t x) {
    const uint32_t ux = static_cast<uint32_t>(x);
    if constexpr (Bits == 8)
      return s[ux];
    else
      return (s[ux / kPerByte] >> (8 - Bits * (1 + ux % kPerByte))) & kMask;
  }
  static void SetIndex(uint8_t *s, int32_t x, uint32_t v) {
    const uint32_t ux = static_cast<uint32_t>(x);
    if constexpr (Bits == 8) {
      s[ux] = static_cast<uint8_t>(v);
    } else {
      const uint32_t shift = 8 - Bits * (1 + ux % kPerByte);
      uint8_t &byte = s[ux / kPerByte];
      byte = static_cast<uint8_t>((byte & ~(kMask << shift)) | ((v & kMask) << shift));
    }
  }
  static void Get(const ImgRowConverter &c, const uint8_t *s, int32_t x, uint32_t &b, uint32_t &g,
                  uint32_t &r) {
    const PaletteEntry &e = c.palette[Index(s, x)];
    b = e.Blue;
    g = e.Green;
    r = e.Red;
  }
  static void Put(ImgRowConverter &c, uint8_t *s, int32_t x, uint32_t b, uint32_t g, uint32_t r) {
    const uint32_t current = Index(s, x);
    SetIndex(s, x,
             c.matcher().Match(current, static_cast<uint8_t>(b), static_cast<uint8_t>(g),
                               static_cast<uint8_t>(r)));
  }
};

// ---- Row loops ----------------------------------------------------------------

template <class A, int32_t Layout>
void ReadLoop(const ImgRowConverter &c, const uint8_t *s, void *out) {
  const int32_t width = c.width;
  if constexpr (A::Plain(Layout)) {
    std::memcpy(out, s, static_cast<size_t>(c.rowBytes));
  } else if constexpr (Layout == ROW_LAYOUT_BGR8) {
    constexpr int kShift = sizeof(typename A::W) == 2 ? 8 : 0;
    uint8_t *d = static_cast<uint8_t *>(out);
    for (int32_t x = 0; x < width; ++x, d += 3) {
      if constexpr (A::kGray) {
        const uint8_t v = static_cast<uint8_t>(A::Get(c, s, x) >> kShift);
        d[0] = v;
        d[1] = v;
        d[2] = v;
      } else {
        uint32_t b, g, r;
        A::Get(c, s, x, b, g, r);
        d[0] = static_cast<uint8_t>(b >> kShift);
        d[1] = static_cast<uint8_t>(g >> kShift);
        d[2] = static_cast<uint8_t>(r >> kShift);
      }
    }
  } else {
    using W = typename A::W;
    W *d = static_cast<W *>(out);
    for (int32_t x = 0; x < width; ++x) {
      if constexpr (A::kGray) {
        const W v = static_cast<W>(A::Get(c, s, x));
        if constexpr (Layout == ROW_LAYOUT_BGR) {
          d[0] = v;
          d[1] = v;
          d[2] = v;
          d += 3;
        } else {
          *d++ = v;
        }
      } else {
        uint32_t b, g, r;
        A::Get(c, s, x, b, g, r);
        if constexpr (Layout == ROW_LAYOUT_GRAY) {
          *d++ = static_cast<W>(Intensity(b, g, r));
        } else {
          d[0] = static_cast<W>(b);
          d[1] = static_cast<W>(g);
          d[2] = static_cast<W>(r);
          if constexpr (Layout == ROW_LAYOUT_NATIVE && A::kFourth) {
            d[3] = static_cast<W>(A::GetFourth(s, x));
            d += 4;
          } else {
            d += 3;
          }
        }
      }
    }
  }
}

template <class A, int32_t Layout>
void WriteLoop(ImgRowConverter &c, const void *in, uint8_t *s, int32_t x0, int32_t x1) {
  if constexpr (A::Plain(Layout)) {
    const size_t pixel = static_cast<size_t>(c.channels) * static_cast<size_t>(c.sampleBytes);
    std::memcpy(s + pixel * x0, static_cast<const uint8_t *>(in) + pixel * x0, pixel * (x1 - x0));
  } else if constexpr (Layout == ROW_LAYOUT_BGR8) {
    constexpr uint32_t kWiden = sizeof(typename A::W) == 2 ? 257u : 1u;
    const uint8_t *p = static_cast<const uint8_t *>(in) + 3 * static_cast<size_t>(x0);
    for (int32_t x = x0; x < x1; ++x, p += 3) {
      if constexpr (A::kGray)
        A::Put(c, s, x, Intensity(p[0], p[1], p[2]) * kWiden);
      else
        A::Put(c, s, x, p[0] * kWiden, p[1] * kWiden, p[2] * kWiden);
    }
  } else {
    using W = typename A::W;
    const W *row = static_cast<const W *>(in);
    for (int32_t x = x0; x < x1; ++x) {
      if constexpr (A::kGray) {
        if constexpr (Layout == ROW_LAYOUT_BGR) {
          const W *p = row + 3 * static_cast<size_t>(x);
          A::Put(c, s, x, Intensity(p[0], p[1], p[2]));
        } else {
          A::Put(c, s, x, row[x]);
        }
      } else if constexpr (Layout == ROW_LAYOUT_GRAY) {
        const uint32_t v = row[x];
        A::Put(c, s, x, v, v, v);
      } else if constexpr (Layout == ROW_LAYOUT_NATIVE && A::kFourth) {
        const W *p = row + 4 * static_cast<size_t>(x);
        A::Put(c, s, x, p[0], p[1], p[2]);
        A::PutFourth(s, x, p[3]);
      } else {
        const W *p = row + 3 * static_cast<size_t>(x);
        A::Put(c, s, x, p[0], p[1], p[2]);
      }
    }
  }
}

template <class A, int32_t Layout>
void Choose(ImgRowConverter &c) {
  c.read = &ReadLoop<A, Layout>;
  c.write = &WriteLoop<A, Layout>;
  c.sampleBytes = Layout == ROW_LAYOUT_BGR8 ? 1 : static_cast<int32_t>(sizeof(typename A::W));
  switch (Layout) {
    case ROW_LAYOUT_NATIVE:
      c.channels = A::kGray ? 1 : A::kFourth ? 4 : 3;
      break;
    case ROW_LAYOUT_GRAY:
      c.channels = 1;
      break;
    default:
      c.channels = 3;
  }
}

template <class A>
void ChooseLayout(ImgRowConverter &c) {
  switch (c.layout) {
    case ROW_LAYOUT_NATIVE:
      Choose<A, ROW_LAYOUT_NATIVE>(c);
      break;
    case ROW_LAYOUT_BGR:
      Choose<A, ROW_LAYOUT_BGR>(c);
      break;
    case ROW_LAYOUT_BGR8:
      Choose<A, ROW_LAYOUT_BGR8>(c);
      break;
    default:
      Choose<A, ROW_LAYOUT_GRAY>(c);
  }
}

template <class T, int N>
void ChooseOrder(ImgRowConverter &c, bool bgr) {
  if (bgr)
    ChooseLayout<ColorN<T, N, true>>(c);
  else
    ChooseLayout<ColorN<T, N, false>>(c);
}

// Picks the loops for the bitmap's kind; false for kinds no layout serves.
bool ChooseLoops(ImgRowConverter &c, const BitmapRecord *b) {
  const bool bgr = img::IsBgrOrder(b->ColorOrder);
  switch (c.kind) {
    case img::Kind::Palette:
      switch (b->BitsPerPixel) {
        case 1:
          ChooseLayout<Indexed<1>>(c);
          return true;
        case 2:
          ChooseLayout<Indexed<2>>(c);
          return true;
        case 4:
          ChooseLayout<Indexed<4>>(c);
          return true;
        default:
          ChooseLayout<Indexed<8>>(c);
          return true;
      }
    case img::Kind::Gray8:
      ChooseLayout<Gray8>(c);
      return true;
    case img::Kind::Gray12:
      ChooseLayout<Gray12>(c);
      return true;
    case img::Kind::Gray16:
      ChooseLayout<Gray16>(c);
      return true;
    case img::Kind::Color16:
      ChooseLayout<Color16>(c);
      return true;
    case img::Kind::Color24:
      ChooseOrder<uint8_t, 3>(c, bgr);
      return true;
    case img::Kind::Color32:
      ChooseOrder<uint8_t, 4>(c, bgr);
      return true;
    case img::Kind::Color48:
      ChooseOrder<uint16_t, 3>(c, bgr);
      return true;
    case img::Kind::Color64:
      ChooseOrder<uint16_t, 4>(c, bgr);
      return true;
    default:
      return false;
  }
}

// Takes the palette as it is now: its colours, or the gray ramp of the depth
// for a bitmap without palette (or whose palette block cannot be read).
// A palette count outside the palette is refused with RC_NO_BITMAP.
int32_t LoadPalette(ImgRowConverter &c) {
  BitmapRecord *b = c.bitmap;
  std::memset(c.palette, 0, sizeof c.palette);
  int32_t count = 1 << b->BitsPerPixel;
  if (b->PaletteFlag != PALETTE_FLAG_NONE) {
    count = img::PaletteCount(b);
    if (count < 0) return count;
  }
  if (b->PaletteFlag == PALETTE_FLAG_NONE || GetPalette(b, 0, count, c.palette) != count) {
    img::GrayRamp(c.palette, b->BitsPerPixel);
    count = 1 << b->BitsPerPixel;
  }
  c.paletteCount = count;
  new (c.matcherStorage) img::PaletteMatcher(c.palette, count);
  return RC_SUCCESS;
}

bool ValidLayout(int32_t layout) {
  return layout == ROW_LAYOUT_NATIVE || layout == ROW_LAYOUT_BGR || layout == ROW_LAYOUT_BGR8 ||
         layout == ROW_LAYOUT_GRAY;
}

int32_t StartWalk(ImgRowConverter *c, Walk walk, const Rect *rect, bool withProgress, int32_t start,
                  int32_t end) {
  BitmapRecord *b = c->bitmap;
  if (c->kind == img::Kind::Palette) {
    const int32_t status = LoadPalette(*c);
    if (status != RC_SUCCESS) return status;
  }
  Rect bounds{0, 0, c->width, c->height};
  bool useRegion = false;
  if (walk == Walk::Rectangle) {
    if (!rect) return RC_INVALID_PARAMETER;
    bounds.Left = rect->Left > 0 ? rect->Left : 0;
    bounds.Top = rect->Top > 0 ? rect->Top : 0;
    bounds.Right = rect->Right < c->width ? rect->Right : c->width;
    bounds.Bottom = rect->Bottom < c->height ? rect->Bottom : c->height;
    if (bounds.Left >= bounds.Right || bounds.Top >= bounds.Bottom) return RC_INVALID_PARAMETER;
  } else if (walk == Walk::Region) {
    // The whole bitmap when no region is set.
    const int32_t status = GetRegionBounds(b, nullptr, &bounds);
    if (status != RC_SUCCESS) return status;
    useRegion = BitmapHasRegion(b) != 0;
  }
  const int32_t most = GetRegionMaxRuns(b);
  if (most < 0) return most;
  RowRun *scratch = nullptr;
  if (useRegion) {
    scratch = static_cast<RowRun *>(IMG_ALLOC(static_cast<size_t>(most) + 1, sizeof(RowRun)));
    if (!scratch) return RC_NO_MEMORY;
  }
  if (c->regionRuns) IMG_FREE(c->regionRuns);
  c->regionRuns = scratch;
  c->maxRuns = most + 1;
  c->walk = walk;
  c->useRegion = useRegion;
  c->bounds = bounds;
  c->progressOn = withProgress;
  c->progressStart = start;
  c->progressEnd = end;
  c->progress = img::Progress();
  return RC_SUCCESS;
}

// Common checks of ReadRow and WriteRow; begins a whole-bitmap walk when none
// was begun.
int32_t PrepareRowAccess(ImgRowConverter *c, const void *buffer, int32_t row) {
  if (!c || !buffer) return RC_INVALID_PARAMETER;
  if (c->walk == Walk::None) {
    const int32_t status = StartWalk(c, Walk::Whole, nullptr, false, 0, 0);
    if (status != RC_SUCCESS) return status;
  }
  if (row < 0 || row >= c->height) return RC_INVALID_PARAMETER;
  if (!c->bitmap->Pixels) return RC_NO_BITMAP;
  return RC_SUCCESS;
}

}  // namespace

extern "C" {

IMG_API int32_t CreateRowConverter(BitmapRecord *bitmap, RowConverter *converter, int32_t layout) {
  if (converter) *converter = nullptr;
  if (!bitmap) return RC_NO_BITMAP;
  if (!img::ValidRecordSize(bitmap->StructSize)) return RC_INVALID_STRUCT_SIZE;
  if (!(bitmap->Flags & BITMAP_ALLOCATED) || !bitmap->Pixels) return RC_NO_BITMAP;
  if (!converter) return RC_NULL_OPTIONS;
  if (!ValidLayout(layout)) return RC_INVALID_PARAMETER;
  const img::Kind kind = img::KindOf(bitmap);
  if (kind == img::Kind::Invalid || kind == img::Kind::Gray32) return RC_UNSUPPORTED_BITMAP;
  if (bitmap->Width < 1 || bitmap->Height < 1) return RC_UNSUPPORTED_BITMAP;
  if (kind == img::Kind::Palette && bitmap->PaletteFlag != PALETTE_FLAG_NONE && img::PaletteCount(bitmap) < 0)
    return RC_NO_BITMAP;

  void *memory = IMG_ALLOC(1, sizeof(ImgRowConverter));
  if (!memory) return RC_NO_MEMORY;
  ImgRowConverter *c = new (memory) ImgRowConverter();
  c->bitmap = bitmap;
  c->kind = kind;
  c->layout = layout;
  c->width = bitmap->Width;
  c->height = bitmap->Height;
  ChooseLoops(*c, bitmap);
  const int64_t bytes = static_cast<int64_t>(c->width) * c->channels * c->sampleBytes;
  if (bytes > INT32_MAX - 64) {
    c->~ImgRowConverter();
    IMG_FREE(memory);
    return RC_UNSUPPORTED_BITMAP;
  }
  c->rowBytes = static_cast<int32_t>(bytes);
  *converter = c;
  return RC_SUCCESS;
}

IMG_API int32_t RowChannelCount(RowConverter converter) {
  return converter ? converter->channels : RC_INVALID_PARAMETER;
}

IMG_API int32_t RowBitsPerChannel(RowConverter converter) {
  return converter ? 8 * converter->sampleBytes : RC_INVALID_PARAMETER;
}

IMG_API int32_t PrepareRowConverter(RowConverter converter) {
  return converter ? converter->rowBytes : RC_INVALID_PARAMETER;
}

IMG_API void *AllocRowBuffer(RowConverter converter) {
  if (!converter) return nullptr;
  // A little slack past the last pixel lets workers read one pixel ahead.
  const size_t slack = 4 * static_cast<size_t>(converter->channels);
  return IMG_ALLOC(static_cast<size_t>(converter->rowBytes) + slack, 1);
}

IMG_API int32_t BeginWholeBitmap(RowConverter converter) {
  return converter ? StartWalk(converter, Walk::Whole, nullptr, false, 0, 0) : RC_INVALID_PARAMETER;
}

IMG_API int32_t BeginRegion(RowConverter converter) {
  return converter ? StartWalk(converter, Walk::Region, nullptr, false, 0, 0) : RC_INVALID_PARAMETER;
}

IMG_API int32_t BeginWholeBitmapProgress(RowConverter converter, int32_t start, int32_t end) {
  return converter ? StartWalk(converter, Walk::Whole, nullptr, true, start, end) : RC_INVALID_PARAMETER;
}

IMG_API int32_t BeginRegionProgress(RowConverter converter, int32_t start, int32_t end) {
  return converter ? StartWalk(converter, Walk::Region, nullptr, true, start, end) : RC_INVALID_PARAMETER;
}

IMG_API int32_t BeginRectangle(RowConverter converter, const Rect *rect) {
  return converter ? StartWalk(converter, Walk::Rectangle, rect, false, 0, 0) : RC_INVALID_PARAMETER;
}

IMG_API int32_t ReadRow(RowConverter converter, void *buffer, int32_t row, RowRun *runs, int32_t *runCount) {
  int32_t status = PrepareRowAccess(converter, buffer, row);
  if (status != RC_SUCCESS) return status;
  ImgRowConverter &c = *converter;
  c.read(c, img::ImageRow(c.bitmap, row), buffer);

  if (runs && runCount) {
    int32_t n = 0;
    if (row >= c.bounds.Top && row < c.bounds.Bottom) {
      const int32_t got = GetRegionRowRuns(c.bitmap, row, runs, c.maxRuns);
      if (got < 0) return got;
      for (int32_t i = 0; i < got; ++i) {
        const int32_t start = runs[i].Start > c.bounds.Left ? runs[i].Start : c.bounds.Left;
        const int32_t end = runs[i].End < c.bounds.Right ? runs[i].End : c.bounds.Right;
        if (start < end) runs[n++] = RowRun{start, end};
      }
    }
    *runCount = n;
  }

  if (c.progressOn && row >= c.bounds.Top && row < c.bounds.Bottom) {
    const int64_t done = static_cast<int64_t>(row) - c.bounds.Top + 1;
    const int64_t span = static_cast<int64_t>(c.bounds.Bottom) - c.bounds.Top;
    const int64_t percent =
        c.progressStart + (static_cast<int64_t>(c.progressEnd) - c.progressStart) * done / span;
    status = c.progress.step(static_cast<int32_t>(percent));
    if (status != RC_SUCCESS) return status;
  }
  return RC_SUCCESS;
}

IMG_API int32_t WriteRow(RowConverter converter, const void *buffer, int32_t row, const RowRun *runs,
                         const int32_t *runCount) {
  const int32_t status = PrepareRowAccess(converter, buffer, row);
  if (status != RC_SUCCESS) return status;
  ImgRowConverter &c = *converter;
  uint8_t *stored = img::ImageRow(c.bitmap, row);

  // The columns this walk may write in this row.
  RowRun single{0, c.width};
  const RowRun *allowed = &single;
  int32_t allowedCount = 1;
  if (c.walk == Walk::Rectangle) {
    single = RowRun{c.bounds.Left, c.bounds.Right};
    if (row < c.bounds.Top || row >= c.bounds.Bottom) allowedCount = 0;
  } else if (c.useRegion) {
    allowedCount = GetRegionRowRuns(c.bitmap, row, c.regionRuns, c.maxRuns);
    if (allowedCount < 0) return allowedCount;
    allowed = c.regionRuns;
  }

  const bool withRuns = runs && runCount;
  const int32_t asked = withRuns ? *runCount : 1;
  for (int32_t i = 0; i < asked; ++i) {
    const RowRun want = withRuns ? runs[i] : RowRun{0, c.width};
    for (int32_t j = 0; j < allowedCount; ++j) {
      int32_t start = want.Start > allowed[j].Start ? want.Start : allowed[j].Start;
      int32_t end = want.End < allowed[j].End ? want.End : allowed[j].End;
      if (start < 0) start = 0;
      if (end > c.width) end = c.width;
      if (start < end) c.write(c, buffer, stored, start, end);
    }
  }
  return RC_SUCCESS;
}

IMG_API RowRun *AllocRunList(RowConverter converter) {
  if (!converter) return nullptr;
  const int32_t most = GetRegionMaxRuns(converter->bitmap);
  if (most < 0) return nullptr;
  return static_cast<RowRun *>(IMG_ALLOC(static_cast<size_t>(most) + 1, sizeof(RowRun)));
}

IMG_API int32_t GetRowRange(RowConverter converter, Rect *rect) {
  if (!converter || !rect) return RC_INVALID_PARAMETER;
  return GetRegionBounds(converter->bitmap, nullptr, rect);
}

IMG_API int32_t FreeRowConverter(RowConverter converter) {
  if (!converter) return RC_INVALID_PARAMETER;
  if (converter->regionRuns) IMG_FREE(converter->regionRuns);
  converter->~ImgRowConverter();
  IMG_FREE(converter);
  return RC_SUCCESS;
}

}  // extern "C"
