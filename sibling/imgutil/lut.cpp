// Lookup tables on bitmaps: table allocation, ApplyLut, ApplyByteLut and the
// signed/unsigned sample shift.
//
// Both table operations first turn the caller's table into a compact one
// over every stored sample value (uint8_t[256] for 8-bit samples,
// uint16_t[65536] for 16-bit ones) and then run row by row over the stored
// bytes, so that no sample is ever looked up outside the caller's table.
#include <cstring>

#include "checks.h"
#include "lut_simd.h"
#include "passes.h"
#include "ranges.h"

namespace {

static constexpr const wchar_t *kSourceFile = L"imgutil/lut";

using img::Kind;

constexpr uint32_t kChannelMask = 0xFu;

// Byte offset of the colour sample that `channel` (1 red, 2 green, 3 blue)
// names, in units of samples.
int32_t SampleOffset(int32_t order, uint32_t channel) {
  const bool rgb = order == ORDER_RGB;
  switch (channel) {
    case LUT_CHANNEL_RED:
      return rgb ? 0 : 2;
    case LUT_CHANNEL_GREEN:
      return 1;
    default:
      return rgb ? 2 : 0;
  }
}

bool WideSamples(Kind kind) {
  return kind == Kind::Gray12 || kind == Kind::Gray16 || kind == Kind::Color48 || kind == Kind::Color64;
}

// The table operations: the frame first, the kind after their arguments.
constexpr img::EntryRule kTableRule{.flagsWord = false,
                                    .pixels = true,
                                    .gray32 = false,
                                    .afterArguments = {.gray32 = true, .knownKind = true}};

// The compact tables of one call. byte serves 8-bit samples; word (65536
// entries) the 16-bit ones. When the table is v -> v ^ flip for every stored
// value (inversion, the signed shift), `xorForm` is set and the samples of
// the kinds laid out in whole bytes or words are XOR-ed instead of looked
// up (not on Isa::Scalar, the lookup reference the other paths are tested
// against): the same value for every sample by construction, since the form
// was checked entry by entry.
struct CompactTables {
  uint8_t byte[256];
  const uint16_t *word;
  bool xorForm;
  uint32_t flip;
};

// `pattern` of 8 bytes: the sample XOR `flip` repeated for samples of
// `sampleBytes` bytes, with every fourth sample zero when keepFourth.
uint64_t XorPattern(uint32_t flip, int32_t sampleBytes, bool keepFourth) {
  uint64_t pattern = 0;
  const int32_t samples = 8 / sampleBytes;
  for (int32_t i = 0; i < samples; ++i)
    if (!keepFourth || i % 4 != 3) pattern |= static_cast<uint64_t>(flip) << (8 * sampleBytes * i);
  return pattern;
}

// Maps one palette colour through the byte table, per channel.
PaletteEntry MapEntry(PaletteEntry e, const uint8_t *t, uint32_t channel) {
  if (channel == LUT_CHANNEL_ALL || channel == LUT_CHANNEL_BLUE) e.Blue = t[e.Blue];
  if (channel == LUT_CHANNEL_ALL || channel == LUT_CHANNEL_GREEN) e.Green = t[e.Green];
  if (channel == LUT_CHANNEL_ALL || channel == LUT_CHANNEL_RED) e.Red = t[e.Red];
  return e;
}

int32_t MapPalette(BitmapRecord *b, const uint8_t *t, uint32_t channel, int32_t start, int32_t end,
                   img::Isa path) {
  PaletteEntry pal[256];
  const int32_t count = img::PaletteCount(b);
  if (count < 0) return count;
  if (::GetPalette(b, 0, count, pal) == 0) return RC_NO_BITMAP;
  if (!::BitmapHasRegion(b)) {
    img::Progress progress;
    int32_t answer = progress.step(start);
    if (answer != RC_SUCCESS) return answer;
    for (int32_t i = 0; i < count; ++i) pal[i] = MapEntry(pal[i], t, channel);
    if (::SetPalette(b, 0, count, pal) == 0) return RC_NO_BITMAP;
    return progress.step(end);
  }
  // With a region the palette stays; each pixel inside takes the palette
  // colour nearest to its mapped colour. That depends on the index alone.
  uint8_t next[256];
  {
    img::PaletteMatcher matcher(pal, count);
    for (int32_t i = 0; i < 256; ++i) {
      if (i >= count) {
        next[i] = static_cast<uint8_t>(i);
        continue;
      }
      const PaletteEntry m = MapEntry(pal[i], t, channel);
      next[i] = static_cast<uint8_t>(matcher.Match(static_cast<uint32_t>(i), m.Blue, m.Green, m.Red));
    }
  }
  img::StoredRowPass rows(b);
  if (rows.status() != RC_SUCCESS) return rows.status();
  const int32_t bits = b->BitsPerPixel;
  return rows.Run({start, end}, [&](uint8_t *row, const RowRun *runs, int32_t n) {
    for (int32_t r = 0; r < n; ++r) {
      if (bits == 8) {
        img::MapBytes(path, next, row + runs[r].Start, row + runs[r].Start, runs[r].End - runs[r].Start);
        continue;
      }
      for (int32_t x = runs[r].Start; x < runs[r].End; ++x)
        img::SetIndex(row, x, bits, next[img::GetIndex(row, x, bits)]);
    }
  });
}

// Runs the compact tables over the samples inside the region.
int32_t MapSamples(BitmapRecord *b, Kind kind, const CompactTables &t, uint32_t channel, int32_t start,
                   int32_t end, img::Isa path) {
  if (kind == Kind::Palette) return MapPalette(b, t.byte, channel, start, end, path);
  img::StoredRowPass rows(b);
  if (rows.status() != RC_SUCCESS) return rows.status();
  const img::ProgressRange range{start, end};
  const uint8_t *t8 = t.byte;
  const uint16_t *t16 = t.word;
  const int32_t offset = SampleOffset(b->ColorOrder, channel);
  if (t.xorForm && path != img::Isa::Scalar && channel == LUT_CHANNEL_ALL &&
      (kind == Kind::Gray8 || kind == Kind::Gray16 || kind == Kind::Color24 || kind == Kind::Color32 ||
       kind == Kind::Color48 || kind == Kind::Color64)) {
    // Bytes a pixel, bytes a sample; a pixel starts at pattern phase 0.
    const int32_t pixel = b->BitsPerPixel / 8;
    const int32_t sample = kind == Kind::Gray16 || kind == Kind::Color48 || kind == Kind::Color64 ? 2 : 1;
    const uint64_t pattern = XorPattern(t.flip, sample, kind == Kind::Color32 || kind == Kind::Color64);
    return rows.Run(range, [&](uint8_t *row, const RowRun *runs, int32_t n) {
      for (int32_t r = 0; r < n; ++r)
        img::XorBytes(path, row + static_cast<std::size_t>(runs[r].Start) * pixel,
                      static_cast<std::size_t>(runs[r].End - runs[r].Start) * pixel, pattern);
    });
  }
  switch (kind) {
    case Kind::Gray8:
      return rows.Run(range, [&](uint8_t *row, const RowRun *runs, int32_t n) {
        for (int32_t r = 0; r < n; ++r)
          img::MapBytes(path, t8, row + runs[r].Start, row + runs[r].Start, runs[r].End - runs[r].Start);
      });
    case Kind::Gray12:
    case Kind::Gray16:
      return rows.Run(range, [&](uint8_t *row, const RowRun *runs, int32_t n) {
        uint16_t *w = reinterpret_cast<uint16_t *>(row);
        for (int32_t r = 0; r < n; ++r)
          img::MapWords(path, t16, w + runs[r].Start, runs[r].End - runs[r].Start, false);
      });
    case Kind::Color16: {
      // 5-bit tables per colour field: widen, map, narrow.
      uint16_t fields[3][32];
      const uint32_t selected[3] = {LUT_CHANNEL_BLUE, LUT_CHANNEL_GREEN, LUT_CHANNEL_RED};
      for (int f = 0; f < 3; ++f)
        for (uint32_t v = 0; v < 32; ++v) {
          const bool change = channel == LUT_CHANNEL_ALL || channel == selected[f];
          fields[f][v] = static_cast<uint16_t>((change ? t8[img::Expand5(v)] >> 3 : v) << (5 * f));
        }
      return rows.Run(range, [&](uint8_t *row, const RowRun *runs, int32_t n) {
        uint16_t *w = reinterpret_cast<uint16_t *>(row);
        for (int32_t r = 0; r < n; ++r)
          for (int32_t x = runs[r].Start; x < runs[r].End; ++x) {
            const uint32_t v = w[x];
            w[x] = static_cast<uint16_t>((v & 0x8000u) | fields[0][v & 31u] | fields[1][(v >> 5) & 31u] |
                                         fields[2][(v >> 10) & 31u]);
          }
      });
    }
    case Kind::Color24:
    case Kind::Color32: {
      const int32_t step = kind == Kind::Color24 ? 3 : 4;
      return rows.Run(range, [&](uint8_t *row, const RowRun *runs, int32_t n) {
        for (int32_t r = 0; r < n; ++r) {
          uint8_t *p = row + static_cast<std::size_t>(runs[r].Start) * step;
          const std::size_t bytes = static_cast<std::size_t>(runs[r].End - runs[r].Start) * step;
          if (channel != LUT_CHANNEL_ALL) {
            for (std::size_t i = offset; i < bytes; i += step) p[i] = t8[p[i]];
          } else if (step == 3) {
            img::MapBytes(path, t8, p, p, bytes);
          } else {
            img::MapBytesKeepFourth(path, t8, p, p, bytes);
          }
        }
      });
    }
    case Kind::Color48:
    case Kind::Color64: {
      const int32_t step = kind == Kind::Color48 ? 3 : 4;
      return rows.Run(range, [&](uint8_t *row, const RowRun *runs, int32_t n) {
        for (int32_t r = 0; r < n; ++r) {
          uint16_t *p = reinterpret_cast<uint16_t *>(row) + static_cast<std::size_t>(runs[r].Start) * step;
          const std::size_t words = static_cast<std::size_t>(runs[r].End - runs[r].Start) * step;
          if (channel != LUT_CHANNEL_ALL) {
            for (std::size_t i = offset; i < words; i += step) p[i] = t16[p[i]];
          } else {
            img::MapWords(path, t16, p, words, step == 4);
          }
        }
      });
    }
    default:
      return RC_UNSUPPORTED_BITMAP;  // refused by the checks before
  }
}

// Each attached entry e becomes table[e] when e is a valid index.
int32_t MapAttached(BitmapRecord *b, const int32_t *table, uint32_t length, int32_t start, int32_t end) {
  img::Progress progress;
  int32_t answer = progress.step(start);
  if (answer != RC_SUCCESS) return answer;
  if (b->AttachedLut)
    for (int32_t i = 0; i < b->AttachedLutLength; ++i) {
      const int32_t e = b->AttachedLut[i];
      if (e >= 0 && static_cast<uint32_t>(e) < length) b->AttachedLut[i] = table[e];
    }
  return progress.step(end);
}

// Builds the compact table of new sample values, entry(v) for every stored
// value v (a 65536-word table for 16-bit samples, 256 bytes otherwise), and
// runs it over the samples inside the region.
template <class Entry>
int32_t MapThroughEntries(BitmapRecord *b, Kind kind, uint32_t channel, int32_t start, int32_t end,
                          img::Isa path, Entry &&entry) {
  CompactTables t{};
  img::KernelBuffer<uint16_t> words;
  if (WideSamples(kind)) {
    words = img::KernelBuffer<uint16_t>(img::kWordTableEntries, __LINE__, kSourceFile);
    if (!words) return RC_NO_MEMORY;
    for (uint32_t v = 0; v < 65536; ++v) words[v] = static_cast<uint16_t>(entry(v));
    t.word = words.get();
    t.flip = words[0];
    t.xorForm = true;
    for (uint32_t v = 0; v < 65536 && t.xorForm; ++v) t.xorForm = words[v] == (v ^ t.flip);
  } else {
    for (uint32_t v = 0; v < 256; ++v) t.byte[v] = static_cast<uint8_t>(entry(v));
    t.flip = t.byte[0];
    t.xorForm = true;
    for (uint32_t v = 0; v < 256 && t.xorForm; ++v) t.xorForm = t.byte[v] == (v ^ t.flip);
  }
  return MapSamples(b, kind, t, channel, start, end, path);
}

int32_t ApplyLutImpl(BitmapRecord *b, const int32_t *table, uint32_t length, uint32_t mode, int32_t start,
                     int32_t end, img::Isa path) {
  if (const int32_t s = img::CheckEntry(kTableRule, 0, b)) return s;
  if (!table || length == 0) return RC_INVALID_PARAMETER;
  const uint32_t channel = mode & kChannelMask;
  if (!img::ranges::kLutChannel.Contains(channel)) return RC_INVALID_PARAMETER;
  if (!(mode & LUT_INDEX_BY_VALUE) && (b->Flags & BITMAP_USE_ATTACHED_LUT))
    return MapAttached(b, table, length, start, end);
  if (const int32_t s = img::CheckAfterArguments(kTableRule, b)) return s;
  const Kind kind = img::KindOf(b);

  // New sample = entry masked to the sample's bits; signed samples take the
  // entry as an offset value (0 = most negative) and store its two's
  // complement pattern. Values the table does not cover stay.
  const int32_t bits = img::SampleBits(b);
  if (bits == 0) return RC_INVALID_PARAMETER;
  const uint32_t mask = (1u << bits) - 1u;
  const uint32_t half = (b->Flags & BITMAP_SIGNED) ? 1u << (bits - 1) : 0u;
  auto entry = [&](uint32_t v) -> uint32_t {
    return v < length ? ((static_cast<uint32_t>(table[v]) ^ half) & mask) : v;
  };
  return MapThroughEntries(b, kind, channel, start, end, path, entry);
}

// 8-bit view of a sample of `bits` significant bits, and back.
inline uint32_t Narrow(uint32_t v, int32_t bits) { return bits >= 8 ? v >> (bits - 8) : v << (8 - bits); }
inline uint32_t Widen(uint32_t t, int32_t bits) {
  return bits >= 8 ? (t << (bits - 8)) | (t >> (16 - bits)) : t >> (8 - bits);
}

// Adds half the range to the significant bits of every stored sample,
// modulo the range; bits above them (a gray sample beyond its significant
// bits) are kept. Adding half twice is the identity on every stored
// pattern, so both directions are the same pass and undo each other exactly.
int32_t ShiftSamples(BitmapRecord *b) {
  constexpr img::EntryRule kRule{.flagsWord = false, .pixels = true, .knownKind = true};
  if (const int32_t s = img::CheckEntry(kRule, 0, b)) return s;
  const Kind kind = img::KindOf(b);
  if (kind == Kind::Palette) return RC_SUCCESS;
  const int32_t bits = img::SampleBits(b);
  if (bits == 0) return RC_INVALID_PARAMETER;
  const uint32_t mask = (1u << bits) - 1u;
  const uint32_t half = 1u << (bits - 1);
  auto shift = [mask, half](uint32_t v) { return (v & ~mask) | ((v + half) & mask); };
  // Samples a pixel of the colour kinds (every one, the fourth included).
  const int32_t step = kind == Kind::Color24 || kind == Kind::Color48 ? 3 : 4;
  img::StoredRowPass rows(b, img::StoredRows::WholeBitmap);
  return rows.Run(img::kNoProgress, [&](uint8_t *row, const RowRun *runs, int32_t n) {
    uint16_t *w = reinterpret_cast<uint16_t *>(row);
    for (int32_t r = 0; r < n; ++r) {
      const int32_t x0 = runs[r].Start, x1 = runs[r].End;
      switch (kind) {
        case Kind::Color16:
          for (int32_t x = x0; x < x1; ++x) w[x] = static_cast<uint16_t>(w[x] ^ 0x4210u);
          break;
        case Kind::Gray8:
          for (int32_t x = x0; x < x1; ++x) row[x] = static_cast<uint8_t>(shift(row[x]));
          break;
        case Kind::Gray12:
        case Kind::Gray16:
          for (int32_t x = x0; x < x1; ++x) w[x] = static_cast<uint16_t>(shift(w[x]));
          break;
        case Kind::Color48:
        case Kind::Color64:
          for (int64_t i = int64_t{x0} * step; i < int64_t{x1} * step; ++i)
            w[i] = static_cast<uint16_t>(w[i] ^ 0x8000u);
          break;
        default:  // 24 and 32 bits
          for (int64_t i = int64_t{x0} * step; i < int64_t{x1} * step; ++i)
            row[i] = static_cast<uint8_t>(row[i] ^ 0x80u);
          break;
      }
    }
  });
}

}  // namespace

namespace img {

int32_t ApplyLutWithPath(BitmapRecord *bitmap, const int32_t *table, uint32_t length, uint32_t mode,
                         int32_t start, int32_t end, Isa path) {
  return ApplyLutImpl(bitmap, table, length, mode, start, end, path);
}

}  // namespace img

extern "C" {

IMG_API int32_t AllocBitmapLut(BitmapRecord *bitmap, int32_t **table, uint32_t *length) {
  constexpr img::EntryRule kRule{.flagsWord = false, .gray32 = false};
  if (const int32_t s = img::CheckEntry(kRule, 0, bitmap)) return s;
  if (!table || !length) return RC_NULL_OPTIONS;
  const uint32_t n = img::TableLength(bitmap);
  if (n == 0) return RC_INVALID_PARAMETER;
  int32_t *p = static_cast<int32_t *>(IMG_ALLOC(n, sizeof(int32_t)));
  if (!p) return RC_NO_MEMORY;
  *table = p;
  *length = n;
  return RC_SUCCESS;
}

IMG_API int32_t ApplyLut(BitmapRecord *bitmap, const int32_t *table, uint32_t length, uint32_t mode,
                         int32_t start, int32_t end) {
  return ApplyLutImpl(bitmap, table, length, mode, start, end, img::BestIsa());
}

IMG_API int32_t ApplyByteLut(BitmapRecord *bitmap, const uint8_t *table, uint32_t channel, int32_t start,
                             int32_t end) {
  if (const int32_t s = img::CheckEntry(kTableRule, 0, bitmap)) return s;
  if (!table) return RC_NULL_OPTIONS;
  if (!img::ranges::kLutChannel.Contains(channel)) return RC_INVALID_PARAMETER;
  if (const int32_t s = img::CheckAfterArguments(kTableRule, bitmap)) return s;
  const Kind kind = img::KindOf(bitmap);
  // Samples go through the table on an 8-bit scale: narrowed by their
  // significant bits, mapped, and widened again by repeating the top bits
  // (16 bits: t * 257; 12 bits: t << 4 | t >> 4). Values above the
  // sample's range stay.
  const int32_t bits = img::SampleBits(bitmap);
  if (bits == 0) return RC_INVALID_PARAMETER;
  const uint32_t top = (1u << bits) - 1u;
  auto entry = [&](uint32_t v) -> uint32_t { return v > top ? v : Widen(table[Narrow(v, bits)], bits); };
  return MapThroughEntries(bitmap, kind, channel, start, end, img::BestIsa(), entry);
}

IMG_API int32_t SignedToUnsigned(BitmapRecord *bitmap, int32_t, int32_t) { return ShiftSamples(bitmap); }

IMG_API int32_t UnsignedToSigned(BitmapRecord *bitmap, int32_t, int32_t) { return ShiftSamples(bitmap); }

}  // extern "C"
