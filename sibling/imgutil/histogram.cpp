// Histograms of bitmaps and the extreme searches over 256-bin and two-level
// 65536-bin histograms.
#include <emmintrin.h>
#include <smmintrin.h>

#include <cstring>

#include "checks.h"
#include "passes.h"
#include "ranges.h"

namespace {

using img::Kind;

// The histogram operations: frame and kind first.
constexpr img::EntryRule kHistogramRule{.flagsWord = false, .pixels = true, .knownKind = true};

// Calls color(blue, green, red) for every colour pixel inside the region
// (8-bit samples; 16-bit for 48/64; palette pixels give their palette
// colour) or gray(v) with the stored value of every gray pixel, row by row
// with progress start..end.
template <class ColorFn, class GrayFn>
int32_t VisitPixels(const BitmapRecord *b, Kind kind, int32_t start, int32_t end, ColorFn &&color,
                    GrayFn &&gray) {
  PaletteEntry pal[256] = {};
  if (kind == Kind::Palette) {
    const int32_t count = img::PaletteCount(b);
    if (count < 0) return count;
    if (::GetPalette(b, 0, count, pal) == 0) return RC_NO_BITMAP;
  }
  img::StoredRowPass rows(b);
  if (rows.status() != RC_SUCCESS) return rows.status();
  const bool rgb = b->ColorOrder == ORDER_RGB;
  const int32_t bo = rgb ? 2 : 0, ro = rgb ? 0 : 2;  // blue and red sample offsets
  const int32_t bits = b->BitsPerPixel;
  return rows.Run({start, end}, [&](uint8_t *row, const RowRun *runs, int32_t n) {
    for (int32_t r = 0; r < n; ++r) {
      const int32_t x0 = runs[r].Start, x1 = runs[r].End;
      switch (kind) {
        case Kind::Palette:
          for (int32_t x = x0; x < x1; ++x) {
            const PaletteEntry &e = pal[img::GetIndex(row, x, bits)];
            color(e.Blue, e.Green, e.Red);
          }
          break;
        case Kind::Gray8:
          for (int32_t x = x0; x < x1; ++x) gray(row[x]);
          break;
        case Kind::Gray12:
        case Kind::Gray16: {
          const uint16_t *w = reinterpret_cast<const uint16_t *>(row);
          for (int32_t x = x0; x < x1; ++x) gray(w[x]);
          break;
        }
        case Kind::Color16: {
          const uint16_t *w = reinterpret_cast<const uint16_t *>(row);
          for (int32_t x = x0; x < x1; ++x)
            color(img::Expand5(w[x] & 31u), img::Expand5((w[x] >> 5) & 31u),
                  img::Expand5((w[x] >> 10) & 31u));
          break;
        }
        case Kind::Color24:
        case Kind::Color32: {
          const int32_t step = kind == Kind::Color24 ? 3 : 4;
          for (const uint8_t *p = row + x0 * step, *e = row + x1 * step; p < e; p += step)
            color(p[bo], p[1], p[ro]);
          break;
        }
        case Kind::Color48:
        case Kind::Color64: {
          const int32_t step = kind == Kind::Color48 ? 3 : 4;
          const uint16_t *w = reinterpret_cast<const uint16_t *>(row);
          for (const uint16_t *p = w + x0 * step, *e = w + x1 * step; p < e; p += step)
            color(p[bo], p[1], p[ro]);
          break;
        }
        default:
          break;
      }
    }
  });
}

// Highest occupied bin of counts[0..from], or -1.
int32_t MaxAtOrBelow(const uint32_t *counts, int32_t from, int32_t bins) {
  if (!counts) return -1;
  if (from >= bins) from = bins - 1;
  for (int32_t v = from; v >= 0; --v)
    if (counts[v]) return v;
  return -1;
}

// Lowest occupied bin of counts[from..bins-1], or -1.
int32_t MinAtOrAbove(const uint32_t *counts, int32_t from, int32_t bins) {
  if (!counts) return -1;
  if (from < 0) from = 0;
  for (int32_t v = from; v < bins; ++v)
    if (counts[v]) return v;
  return -1;
}

// Two-level searches: whole buckets are skipped by their totals.
int32_t Max16AtOrBelow(const uint32_t *buckets, int32_t from) {
  if (!buckets || from < 0) return -1;
  if (from > 65535) from = 65535;
  int32_t hi = from >> 8;
  const int32_t found = MaxAtOrBelow(buckets + hi * HISTOGRAM16_BUCKET, from & 255, 256);
  if (found >= 0) return (hi << 8) | found;
  for (--hi; hi >= 0; --hi) {
    const uint32_t *bucket = buckets + hi * HISTOGRAM16_BUCKET;
    if (bucket[256]) return (hi << 8) | MaxAtOrBelow(bucket, 255, 256);
  }
  return -1;
}

int32_t Min16AtOrAbove(const uint32_t *buckets, int32_t from) {
  if (!buckets || from > 65535) return -1;
  if (from < 0) from = 0;
  int32_t hi = from >> 8;
  const int32_t found = MinAtOrAbove(buckets + hi * HISTOGRAM16_BUCKET, from & 255, 256);
  if (found >= 0) return (hi << 8) | found;
  for (++hi; hi < 256; ++hi) {
    const uint32_t *bucket = buckets + hi * HISTOGRAM16_BUCKET;
    if (bucket[256]) return (hi << 8) | MinAtOrAbove(bucket, 0, 256);
  }
  return -1;
}

// The new maximum after a slide, given the histogram after it. A sample that
// entered is present, so the maximum is at least `entering`; the old maximum
// is still present unless a sample equal to it left.
template <class Search>
int32_t MaxUpdate(int32_t oldMax, int32_t entering, int32_t leftOld, int32_t top, Search &&below) {
  if (oldMax < 0) return below(top);
  if (entering > oldMax) return entering;
  if (!leftOld) return oldMax;
  return below(oldMax);
}

template <class Search>
int32_t MinUpdate(int32_t oldMin, int32_t entering, int32_t leftOld, Search &&above) {
  if (oldMin < 0) return above(0);
  if (entering >= 0 && entering < oldMin) return entering;
  if (!leftOld) return oldMin;
  return above(oldMin);
}

// The byte samples of 8-bit gray, 24 and 32-bit pixels (all three colour
// samples, or one channel; never the fourth) counted into four banks, so
// that neighbouring equal samples do not wait for each other's increment;
// the banks are added to the `length` counts at the end (values at or past
// the last count are not counted, as everywhere in GetHistogram).
int32_t CountBytes(const BitmapRecord *b, Kind kind, uint32_t channel, uint32_t *counts, uint32_t length,
                   int32_t start, int32_t end) {
  uint32_t banks[4][256] = {};
  img::StoredRowPass rows(b);
  if (rows.status() != RC_SUCCESS) return rows.status();
  uint32_t *c0 = banks[0], *c1 = banks[1], *c2 = banks[2], *c3 = banks[3];
  const int32_t status = rows.Run({start, end}, [&](uint8_t *row, const RowRun *runs, int32_t n) {
    for (int32_t r = 0; r < n; ++r) {
      if (channel != LUT_CHANNEL_ALL && kind != Kind::Gray8) {
        // One sample of each pixel: red is byte 2 of blue-green-red pixels.
        const bool rgb = b->ColorOrder == ORDER_RGB;
        const int32_t offset = channel == LUT_CHANNEL_GREEN            ? 1
                               : ((channel == LUT_CHANNEL_RED) != rgb) ? 2
                                                                       : 0;
        const int32_t step = kind == Kind::Color24 ? 3 : 4;
        const uint8_t *p = row + runs[r].Start * step + offset, *e = row + runs[r].End * step + offset;
        for (; p + 2 * step <= e; p += 2 * step) {
          c0[p[0]]++;
          c1[p[step]]++;
        }
        for (; p < e; p += step) c0[*p]++;
        continue;
      }
      if (kind == Kind::Color32) {
        for (const uint8_t *p = row + runs[r].Start * 4, *e = row + runs[r].End * 4; p < e; p += 4) {
          c0[p[0]]++;
          c1[p[1]]++;
          c2[p[2]]++;
        }
        continue;
      }
      const int32_t step = kind == Kind::Color24 ? 3 : 1;
      const uint8_t *p = row + runs[r].Start * step, *e = row + runs[r].End * step;
      for (; p + 4 <= e; p += 4) {
        c0[p[0]]++;
        c1[p[1]]++;
        c2[p[2]]++;
        c3[p[3]]++;
      }
      for (; p < e; ++p) c0[*p]++;
    }
  });
  if (status != RC_SUCCESS) return status;
  const uint32_t bins = length < 256 ? length : 256;
  for (uint32_t i = 0; i < bins; ++i) counts[i] += c0[i] + c1[i] + c2[i] + c3[i];
  return RC_SUCCESS;
}

// Lowest and highest of the samples [p, e) after XOR with flip (without the
// fourth of each four when skipFourth), folded into *lo and *hi.
template <class Sample>
void ScalarExtremes(const Sample *p, const Sample *e, uint32_t flip, bool skipFourth, uint32_t *lo,
                    uint32_t *hi) {
  for (int32_t i = 0; p < e; ++p, ++i) {
    if (skipFourth && (i & 3) == 3) continue;
    const uint32_t v = *p ^ flip;
    *lo = v < *lo ? v : *lo;
    *hi = v > *hi ? v : *hi;
  }
}

// Folds the lanes of the vector minimum and maximum (each lane XOR flip)
// with the scalar tail's extremes.
template <class Lane>
void FoldLanes(__m128i lo, __m128i hi, uint32_t flip, uint32_t a, uint32_t b, int32_t *low, int32_t *high) {
  constexpr int kLanes = 16 / sizeof(Lane);
  alignas(16) Lane l[kLanes], h[kLanes];
  _mm_store_si128(reinterpret_cast<__m128i *>(l), lo);
  _mm_store_si128(reinterpret_cast<__m128i *>(h), hi);
  for (int i = 0; i < kLanes; ++i) {
    const uint32_t vl = l[i] ^ flip, vh = h[i] ^ flip;
    a = vl < a ? vl : a;
    b = vh > b ? vh : b;
  }
  *low = static_cast<int32_t>(a);
  *high = static_cast<int32_t>(b);
}

// Running minimum and maximum of byte samples (offset form when flip is
// 0x80). SSE2 is part of every x86-64 processor: 16 samples a step.
struct ByteRange {
  __m128i lo = _mm_set1_epi8(static_cast<char>(0xFF)), hi = _mm_setzero_si128();
  uint32_t sLo = 255, sHi = 0;
  bool any = false;
  // Every byte of [p, e), or every byte but the fourth of each 4-byte pixel.
  void Add(const uint8_t *p, const uint8_t *e, uint8_t flip, bool skipFourth) {
    if (p >= e) return;
    any = true;
    const __m128i x = _mm_set1_epi8(static_cast<char>(flip));
    const __m128i fourth = _mm_set1_epi32(static_cast<int32_t>(0xFF000000u));
    for (; p + 16 <= e; p += 16) {
      const __m128i v = _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i *>(p)), x);
      lo = _mm_min_epu8(lo, skipFourth ? _mm_or_si128(v, fourth) : v);
      hi = _mm_max_epu8(hi, skipFourth ? _mm_andnot_si128(fourth, v) : v);
    }
    ScalarExtremes(p, e, flip, skipFourth, &sLo, &sHi);
  }
  void Result(int32_t *low, int32_t *high) const {
    if (any) FoldLanes<uint8_t>(lo, hi, 0, sLo, sHi, low, high);
  }
};

// The same for 16-bit samples; SSE2 compares signed words, so the values go
// through it with their top bit flipped. 8 samples a step.
struct WordRange {
  __m128i lo = _mm_set1_epi16(0x7FFF), hi = _mm_set1_epi16(static_cast<int16_t>(0x8000));
  uint32_t sLo = 65535, sHi = 0;
  bool any = false;
  void Add(const uint16_t *p, const uint16_t *e, uint16_t flip, bool skipFourth) {
    if (p >= e) return;
    any = true;
    // flip to offset form, then the top bit again for the signed compares
    const __m128i x = _mm_set1_epi16(static_cast<int16_t>(flip ^ 0x8000u));
    const __m128i fourth = _mm_set_epi16(-1, 0, 0, 0, -1, 0, 0, 0);
    const __m128i top = _mm_set1_epi16(0x7FFF), bottom = _mm_set1_epi16(static_cast<int16_t>(0x8000));
    for (; p + 8 <= e; p += 8) {
      const __m128i v = _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i *>(p)), x);
      if (skipFourth) {
        lo = _mm_min_epi16(lo, _mm_or_si128(_mm_and_si128(fourth, top), _mm_andnot_si128(fourth, v)));
        hi = _mm_max_epi16(hi, _mm_or_si128(_mm_and_si128(fourth, bottom), _mm_andnot_si128(fourth, v)));
      } else {
        lo = _mm_min_epi16(lo, v);
        hi = _mm_max_epi16(hi, v);
      }
    }
    ScalarExtremes(p, e, flip, skipFourth, &sLo, &sHi);
  }
  void Result(int32_t *low, int32_t *high) const {
    if (any) FoldLanes<uint16_t>(lo, hi, 0x8000u, sLo, sHi, low, high);
  }
};

}  // namespace

extern "C" {

IMG_API int32_t GetHistogram(BitmapRecord *bitmap, uint32_t *counts, uint32_t length, uint32_t channel,
                             int32_t start, int32_t end) {
  if (const int32_t s = img::CheckEntry(kHistogramRule, 0, bitmap)) return s;
  if (!counts) return RC_NULL_OPTIONS;
  if (length == 0 || !img::ranges::kLutChannel.Contains(channel)) return RC_INVALID_PARAMETER;
  const Kind kind = img::KindOf(bitmap);
  const int32_t bits = img::SampleBits(bitmap);
  if (bits == 0) return RC_INVALID_PARAMETER;
  // With fewer bins than sample values, value v falls into bin v * length /
  // 2^bits; otherwise bin v. A value whose bin lies at or past the end (a
  // sample at or above the range) is not counted.
  const bool fold = length < (1u << bits);
  auto add = [&](uint32_t v) {
    const uint64_t bin = fold ? (static_cast<uint64_t>(v) * length) >> bits : v;
    if (bin < length) counts[bin]++;
  };
  if (!fold && (kind == Kind::Gray8 || kind == Kind::Color24 || kind == Kind::Color32))
    return CountBytes(bitmap, kind, channel, counts, length, start, end);
  const bool blue = channel == LUT_CHANNEL_ALL || channel == LUT_CHANNEL_BLUE;
  const bool green = channel == LUT_CHANNEL_ALL || channel == LUT_CHANNEL_GREEN;
  const bool red = channel == LUT_CHANNEL_ALL || channel == LUT_CHANNEL_RED;
  return VisitPixels(
      bitmap, kind, start, end,
      [&](uint32_t b, uint32_t g, uint32_t r) {
        if (blue) add(b);
        if (green) add(g);
        if (red) add(r);
      },
      add);
}

IMG_API int32_t GetSampleRange(BitmapRecord *bitmap, uint32_t channel, int32_t *lowest, int32_t *highest,
                               int32_t start, int32_t end) {
  if (const int32_t s = img::CheckEntry(kHistogramRule, 0, bitmap)) return s;
  if (!lowest || !highest) return RC_NULL_OPTIONS;
  if (!img::ranges::kLutChannel.Contains(channel)) return RC_INVALID_PARAMETER;
  const Kind kind = img::KindOf(bitmap);
  const int32_t bits = img::SampleBits(bitmap);
  if (bits == 0) return RC_INVALID_PARAMETER;
  *lowest = *highest = -1;
  const bool signedData = (bitmap->Flags & BITMAP_SIGNED) != 0;
  if (channel == LUT_CHANNEL_ALL && (kind == Kind::Gray8 || kind == Kind::Color24 || kind == Kind::Color32) &&
      bits == 8) {
    ByteRange range;
    img::StoredRowPass rows(bitmap);
    if (rows.status() != RC_SUCCESS) return rows.status();
    const int32_t step = kind == Kind::Gray8 ? 1 : kind == Kind::Color24 ? 3 : 4;
    const int32_t walked = rows.Run({start, end}, [&](uint8_t *row, const RowRun *runs, int32_t n) {
      for (int32_t r = 0; r < n; ++r)
        range.Add(row + runs[r].Start * step, row + runs[r].End * step, signedData ? 0x80 : 0, step == 4);
    });
    if (walked == RC_SUCCESS) range.Result(lowest, highest);
    return walked;
  }
  if (channel == LUT_CHANNEL_ALL &&
      (kind == Kind::Color48 || kind == Kind::Color64 || (kind == Kind::Gray16 && bits == 16))) {
    WordRange range;
    img::StoredRowPass rows(bitmap);
    if (rows.status() != RC_SUCCESS) return rows.status();
    const int32_t step = kind == Kind::Gray16 ? 1 : kind == Kind::Color48 ? 3 : 4;
    const int32_t walked = rows.Run({start, end}, [&](uint8_t *row, const RowRun *runs, int32_t n) {
      const uint16_t *w = reinterpret_cast<const uint16_t *>(row);
      for (int32_t r = 0; r < n; ++r)
        range.Add(w + runs[r].Start * step, w + runs[r].End * step, signedData ? 0x8000 : 0, step == 4);
    });
    if (walked == RC_SUCCESS) range.Result(lowest, highest);
    return walked;
  }
  // Every other kind: the values GetHistogram counts, without the counts.
  const uint32_t range = 1u << bits;
  const uint32_t flip = signedData ? range / 2 : 0;
  uint32_t lo = UINT32_MAX, hi = 0;
  auto add = [&](uint32_t v) {
    if (v >= range) return;
    v ^= flip;
    lo = v < lo ? v : lo;
    hi = v > hi ? v : hi;
  };
  const bool blue = channel == LUT_CHANNEL_ALL || channel == LUT_CHANNEL_BLUE;
  const bool green = channel == LUT_CHANNEL_ALL || channel == LUT_CHANNEL_GREEN;
  const bool red = channel == LUT_CHANNEL_ALL || channel == LUT_CHANNEL_RED;
  const int32_t walked = VisitPixels(
      bitmap, kind, start, end,
      [&](uint32_t b, uint32_t g, uint32_t r) {
        if (blue) add(b);
        if (green) add(g);
        if (red) add(r);
      },
      add);
  if (walked == RC_SUCCESS && lo != UINT32_MAX) {
    *lowest = static_cast<int32_t>(lo);
    *highest = static_cast<int32_t>(hi);
  }
  return walked;
}

IMG_API int32_t ComputeHistogram(BitmapRecord *bitmap, uint32_t *counts, uint32_t channel, int32_t start,
                                 int32_t end) {
  if (const int32_t s = img::CheckEntry(kHistogramRule, 0, bitmap)) return s;
  if (!counts) return RC_NULL_OPTIONS;
  if (!img::ranges::kLutChannel.Contains(channel)) return RC_INVALID_PARAMETER;
  const Kind kind = img::KindOf(bitmap);
  const int32_t bits = img::IsGrayKind(kind) ? img::SampleBits(bitmap) : 8;
  if (bits == 0) return RC_INVALID_PARAMETER;
  std::memset(counts, 0, 256 * sizeof(uint32_t));
  const int32_t shift = (kind == Kind::Color48 || kind == Kind::Color64) ? 8 : 0;
  const uint32_t top = (1u << bits) - 1u;
  return VisitPixels(
      bitmap, kind, start, end,
      [&](uint32_t b, uint32_t g, uint32_t r) {
        b >>= shift;
        g >>= shift;
        r >>= shift;
        switch (channel) {
          case LUT_CHANNEL_RED:
            counts[r]++;
            break;
          case LUT_CHANNEL_GREEN:
            counts[g]++;
            break;
          case LUT_CHANNEL_BLUE:
            counts[b]++;
            break;
          default:
            counts[(2 * r + 5 * g + b) >> 3]++;
            break;
        }
      },
      [&](uint32_t v) {
        if (v <= top) counts[bits >= 8 ? v >> (bits - 8) : v << (8 - bits)]++;
      });
}

IMG_API int32_t HistogramMax(const uint32_t *counts) { return MaxAtOrBelow(counts, 255, 256); }

IMG_API int32_t HistogramMin(const uint32_t *counts) { return MinAtOrAbove(counts, 0, 256); }

IMG_API int32_t HistogramMaxBelow(const uint32_t *counts, int32_t from) {
  return MaxAtOrBelow(counts, from, 256);
}

IMG_API int32_t HistogramMinAbove(const uint32_t *counts, int32_t from) {
  return MinAtOrAbove(counts, from, 256);
}

IMG_API int32_t HistogramMaxUpdate(const uint32_t *counts, int32_t oldMax, int32_t entering,
                                   int32_t leftOld) {
  return MaxUpdate(oldMax, entering, leftOld, 255,
                   [&](int32_t from) { return MaxAtOrBelow(counts, from, 256); });
}

IMG_API int32_t HistogramMinUpdate(const uint32_t *counts, int32_t oldMin, int32_t entering,
                                   int32_t leftOld) {
  return MinUpdate(oldMin, entering, leftOld, [&](int32_t from) { return MinAtOrAbove(counts, from, 256); });
}

IMG_API int32_t Histogram16Max(const uint32_t *buckets) { return Max16AtOrBelow(buckets, 65535); }

IMG_API int32_t Histogram16Min(const uint32_t *buckets) { return Min16AtOrAbove(buckets, 0); }

IMG_API int32_t Histogram16MaxUpdate(const uint32_t *buckets, int32_t oldMax, int32_t entering,
                                     int32_t leftOld) {
  return MaxUpdate(oldMax, entering, leftOld, 65535,
                   [&](int32_t from) { return Max16AtOrBelow(buckets, from); });
}

IMG_API int32_t Histogram16MinUpdate(const uint32_t *buckets, int32_t oldMin, int32_t entering,
                                     int32_t leftOld) {
  return MinUpdate(oldMin, entering, leftOld, [&](int32_t from) { return Min16AtOrAbove(buckets, from); });
}

IMG_API void Histogram16Add(uint32_t *buckets, int32_t value) {
  if (!buckets || value < 0 || value > 65535) return;
  uint32_t *bucket = buckets + (value >> 8) * HISTOGRAM16_BUCKET;
  bucket[value & 255]++;
  bucket[256]++;
}

IMG_API void Histogram16Remove(uint32_t *buckets, int32_t value) {
  if (!buckets || value < 0 || value > 65535) return;
  uint32_t *bucket = buckets + (value >> 8) * HISTOGRAM16_BUCKET;
  if (bucket[value & 255] == 0) return;  // not present: the totals stay exact
  bucket[value & 255]--;
  bucket[256]--;
}

}  // extern "C"
