// Local equalisation, the AVX-512 loop: sixteen 8-bit gray pixels a step (two
// halves of eight doubles), their four curve values gathered from the tile
// tables and blended with the same operations, in the same order, as Blend
// (no fused multiply-add), so every lane gives the scalar result.
#include <immintrin.h>

#include <algorithm>
#include <array>
#include <cstdint>

#include "LocalEq.h"
#include "cpu.h"

// GCC 12 reports the undefined pass-through operands inside its own
// intrinsics as maybe uninitialized.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"

#define IMG_AVX512 __attribute__((target(IMG_TARGET_AVX512)))

namespace img::localeq {

namespace {

// Eight pixels from `x` on: the limited, truncated values as 32-bit lanes.
IMG_AVX512 inline __m256i Eight(const GrayRun8 &run, int32_t x, __m256i v) {
  const __m512d wy = _mm512_set1_pd(run.weightBelow), half = _mm512_set1_pd(0.5), zero = _mm512_setzero_pd(),
                top = _mm512_set1_pd(255.0);
  const __m256i l = _mm256_add_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(run.left + x)), v);
  const __m256i r = _mm256_add_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(run.right + x)), v);
  const __m512d m00 = _mm512_i32gather_pd(l, run.upper, 8), m10 = _mm512_i32gather_pd(r, run.upper, 8);
  const __m512d m01 = _mm512_i32gather_pd(l, run.lower, 8), m11 = _mm512_i32gather_pd(r, run.lower, 8);
  const __m512d wx = _mm512_loadu_pd(run.weight + x);
  const __m512d upper = _mm512_add_pd(m00, _mm512_mul_pd(wx, _mm512_sub_pd(m10, m00)));
  const __m512d lower = _mm512_add_pd(m01, _mm512_mul_pd(wx, _mm512_sub_pd(m11, m01)));
  __m512d value = _mm512_add_pd(_mm512_add_pd(upper, _mm512_mul_pd(wy, _mm512_sub_pd(lower, upper))), half);
  value = _mm512_min_pd(_mm512_max_pd(value, zero), top);
  return _mm512_cvttpd_epi32(value);
}

}  // namespace

IMG_AVX512 int32_t MapGray8Avx512(const GrayRun8 &run) {
  int32_t x = 0;
  for (; x + 16 <= run.count; x += 16) {
    const __m512i v =
        _mm512_cvtepu8_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i *>(run.samples + x)));
    const __m256i a = Eight(run, x, _mm512_castsi512_si256(v));
    const __m256i b = Eight(run, x + 8, _mm512_extracti64x4_epi64(v, 1));
    const __m512i both = _mm512_inserti64x4(_mm512_castsi256_si512(a), b, 1);
    _mm_storeu_si128(reinterpret_cast<__m128i *>(run.samples + x), _mm512_cvtepi32_epi8(both));
  }
  return x;
}

namespace {

// The error bound of the certified blend in 1/65536 (docs/channels.md):
// 128 from the 1/256 row tables, 2 from the float blend, weight and
// conversion (3.5 in a directed rounding mode), far below 1 from the doubles.
constexpr int32_t kSlack = 144;

// Byte indices that widen the low and high bytes of pixels 16q..16q+15 into
// bytes 1 and 2 of 32-bit lanes (bytes 0 and 3 are zeroed by kWidenMask):
// the 1/256 table value times 256, in 1/65536 units.
constexpr std::array<std::array<uint8_t, 64>, 4> kWiden = [] {
  std::array<std::array<uint8_t, 64>, 4> w{};
  for (int32_t q = 0; q < 4; ++q)
    for (int32_t k = 0; k < 16; ++k) {
      w[q][4 * k + 1] = static_cast<uint8_t>(16 * q + k);
      w[q][4 * k + 2] = static_cast<uint8_t>(64 + 16 * q + k);
    }
  return w;
}();
constexpr __mmask64 kWidenMask = 0x6666666666666666ull;

// 64 entries of a 256-byte plane.
IMG_AVX512 inline __m512i Look(const uint8_t *plane, __m512i v, __mmask64 high) {
  const __m512i a = _mm512_permutex2var_epi8(_mm512_loadu_si512(plane), v, _mm512_loadu_si512(plane + 64));
  const __m512i b =
      _mm512_permutex2var_epi8(_mm512_loadu_si512(plane + 128), v, _mm512_loadu_si512(plane + 192));
  return _mm512_mask_blend_epi8(high, a, b);
}

// The table values of 64 pixels in 1/65536 units as four vectors of 16
// floats (exact: integers below 2^24).
IMG_AVX512 inline void Values(const uint8_t *table, __m512i v, __mmask64 high, __m512 *out) {
  const __m512i lo = Look(table, v, high), hi = Look(table + 256, v, high);
  for (int32_t q = 0; q < 4; ++q)
    out[q] = _mm512_cvtepi32_ps(_mm512_maskz_permutex2var_epi8(
        kWidenMask, lo, _mm512_loadu_si512(kWiden[static_cast<std::size_t>(q)].data()), hi));
}

}  // namespace

// The row's tables: c = upper + wy (lower - upper) in doubles, sixteen values
// a step, q = (uint32_t)(c * 256 + 0.5) split into its low and high bytes.
IMG_AVX512 void BuildRowTables8Avx512(const double *upper, const double *lower, int32_t columns,
                                      double weightBelow, uint8_t *row) {
  const __m512d wy = _mm512_set1_pd(weightBelow), scale = _mm512_set1_pd(256.0), half = _mm512_set1_pd(0.5);
  for (int32_t t = 0; t < columns; ++t, upper += 256, lower += 256, row += 512)
    for (int32_t v = 0; v < 256; v += 16) {
      __m256i q[2];
      for (int32_t h = 0; h < 2; ++h) {
        const __m512d a = _mm512_loadu_pd(upper + v + 8 * h), b = _mm512_loadu_pd(lower + v + 8 * h);
        const __m512d c = _mm512_add_pd(a, _mm512_mul_pd(wy, _mm512_sub_pd(b, a)));
        q[h] = _mm512_cvttpd_epi32(_mm512_add_pd(_mm512_mul_pd(c, scale), half));
      }
      const __m512i both = _mm512_inserti64x4(_mm512_castsi256_si512(q[0]), q[1], 1);
      _mm_storeu_si128(reinterpret_cast<__m128i *>(row + v), _mm512_cvtepi32_epi8(both));
      _mm_storeu_si128(reinterpret_cast<__m128i *>(row + 256 + v),
                       _mm512_cvtepi32_epi8(_mm512_srli_epi32(both, 8)));
    }
}

// Up to 64 pixels a step, all between the same two tile columns: their two
// row table values (1/256 steps) by byte lookups, as floats in 1/65536
// units, the blend s = c0 + wx (c1 - c0), rounded to an integer S. The exact
// result is floor(value + 0.5) limited to 0..255, and
// |value - S / 65536| < kSlack / 65536, so where S + 32768 - kSlack and
// S + 32768 + kSlack have the same integer part, that is the result;
// elsewhere the lane takes Blend (MapGray8One).
IMG_AVX512 int32_t MapGray8Avx512Certified(const GrayRun8 &run, const GrayApprox8 &approx) {
  const __m512i low = _mm512_set1_epi32(32768 - kSlack), high = _mm512_set1_epi32(32768 + kSlack);
  for (int32_t x = 0; x < run.count;) {
    int32_t n = std::min(64, run.count - x);
    const int32_t l = run.left[x], r = run.right[x];
    while (run.left[x + n - 1] != l || run.right[x + n - 1] != r) --n;
    const __mmask64 keep = n == 64 ? ~0ull : (1ull << n) - 1;
    // The row's samples come from the stored rows (megabytes away): fetched
    // 512 samples ahead.
    _mm_prefetch(reinterpret_cast<const char *>(run.samples + x + 512), _MM_HINT_T0);
    const __m512i v = _mm512_maskz_loadu_epi8(keep, run.samples + x);
    const __mmask64 top = _mm512_movepi8_mask(v);
    __m512 c0[4], c1[4];
    Values(approx.row + 2 * static_cast<std::ptrdiff_t>(l), v, top, c0);
    Values(approx.row + 2 * static_cast<std::ptrdiff_t>(r), v, top, c1);
    __m128i out[4];
    __m512i differ[4];
    for (int32_t q = 0; q < 4; ++q) {
      const auto lanes = static_cast<__mmask16>(keep >> (16 * q));
      const __m512 wx = _mm512_maskz_loadu_ps(lanes, approx.weight + x + 16 * q);
      const __m512 s = _mm512_add_ps(c0[q], _mm512_mul_ps(wx, _mm512_sub_ps(c1[q], c0[q])));
      const __m512i fixed = _mm512_cvt_roundps_epi32(s, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
      const __m512i below = _mm512_srai_epi32(_mm512_add_epi32(fixed, low), 16);
      const __m512i above = _mm512_srai_epi32(_mm512_add_epi32(fixed, high), 16);
      differ[q] = _mm512_xor_si512(below, above);
      out[q] = _mm512_cvtusepi32_epi8(below);  // 0..255 (S >= 0)
    }
    const __m512i any =
        _mm512_or_si512(_mm512_or_si512(differ[0], differ[1]), _mm512_or_si512(differ[2], differ[3]));
    if (_mm512_test_epi32_mask(any, any) == 0) {
      for (int32_t q = 0; q < 4; ++q)
        _mm_mask_storeu_epi8(run.samples + x + 16 * q, static_cast<__mmask16>(keep >> (16 * q)), out[q]);
    } else {
      // Lanes left uncertain (perhaps only past n) take Blend, before the
      // samples are overwritten.
      alignas(64) uint8_t bytes[64];
      for (int32_t q = 0; q < 4; ++q) {
        _mm_store_si128(reinterpret_cast<__m128i *>(bytes + 16 * q), out[q]);
        for (uint32_t unsure =
                 _mm512_mask_test_epi32_mask(static_cast<__mmask16>(keep >> (16 * q)), differ[q], differ[q]);
             unsure; unsure &= unsure - 1) {
          const int32_t i = 16 * q + __builtin_ctz(unsure);
          bytes[i] = MapGray8One(run, x + i);
        }
      }
      _mm512_mask_storeu_epi8(run.samples + x, keep, _mm512_load_si512(bytes));
    }
    x += n;
  }
  return run.count;
}

namespace {

// Evaluate16 of eight values v (next = v + 1) whose prefixes are at `at`.
IMG_AVX512 inline __m512d Curve16(const TileCurve &c, __m256i below, __m512d v, __m512d next) {
  if (c.pixels == 0) return v;
  return _mm512_mul_pd(
      _mm512_add_pd(_mm512_cvtepu32_pd(below), _mm512_mul_pd(_mm512_set1_pd(c.excessPerBin), next)),
      _mm512_set1_pd(c.scale));
}

// The prefixes of tile columns l and l + 1 at eight values (`at` indexes
// column l): one gather of their pairs.
IMG_AVX512 inline void Pairs(const uint32_t *prefix, __m256i at, __m256i *left, __m256i *right) {
  const __m512i pairs = _mm512_i32gather_epi64(at, prefix, 4);
  *left = _mm512_cvtepi64_epi32(pairs);
  *right = _mm512_cvtepi64_epi32(_mm512_srli_epi64(pairs, 32));
}

IMG_AVX512 inline __m256i Gather(const uint32_t *prefix, __m256i at) {
  return _mm256_i32gather_epi32(reinterpret_cast<const int *>(prefix), at, 4);
}

}  // namespace

// How many pixels ahead MapGray16Avx512 fetches the prefixes.
constexpr int32_t kAhead = 64;

// The prefixes of one tile row at eight values: full 32-bit prefixes, or
// 16-bit offsets plus the bases of their tile columns l and r (sixteen a
// tile, kept in registers for the run between the same columns).
struct Row16 {
  const uint32_t *prefix;
  const uint16_t *offsets;
  __m512i baseLeft, baseRight;
};

// The base of each of eight values (v >> 12 picks one of sixteen).
IMG_AVX512 inline __m256i Base(__m512i bases, __m256i v) {
  return _mm512_castsi512_si256(
      _mm512_permutexvar_epi32(_mm512_castsi256_si512(_mm256_srli_epi32(v, 12)), bases));
}

// P of tile columns l and r (r == l + 1 when `pair`) at eight values v
// (`at` = v * stride + l, `atRight` = v * stride + r).
template <bool kOffsets>
IMG_AVX512 inline void Prefixes(const Row16 &row, __m256i v, __m256i at, __m256i atRight, bool pair,
                                __m256i *left, __m256i *right) {
  if constexpr (!kOffsets) {
    if (pair)
      Pairs(row.prefix, at, left, right);
    else {
      *left = Gather(row.prefix, at);
      *right = Gather(row.prefix, atRight);
    }
  } else {
    // A 32-bit gather of an offset takes its right neighbour too (the
    // buffer has entries past its end for the last one).
    const __m256i low = _mm256_set1_epi32(0xffff);
    const auto *offsets = reinterpret_cast<const int *>(row.offsets);
    const __m256i both = _mm256_i32gather_epi32(offsets, at, 2);
    const __m256i offsetRight = pair ? _mm256_srli_epi32(both, 16)
                                     : _mm256_and_si256(_mm256_i32gather_epi32(offsets, atRight, 2), low);
    *left = _mm256_add_epi32(Base(row.baseLeft, v), _mm256_and_si256(both, low));
    *right = _mm256_add_epi32(Base(row.baseRight, v), offsetRight);
  }
}

// P of tile column l alone.
template <bool kOffsets>
IMG_AVX512 inline __m256i Prefix1(const Row16 &row, __m256i v, __m256i at) {
  if constexpr (!kOffsets)
    return Gather(row.prefix, at);
  else
    return _mm256_add_epi32(
        Base(row.baseLeft, v),
        _mm256_and_si256(_mm256_i32gather_epi32(reinterpret_cast<const int *>(row.offsets), at, 2),
                         _mm256_set1_epi32(0xffff)));
}

// Eight 16-bit gray pixels a step, all between the same two tile columns:
// the four prefix counts gathered (as two pairs of neighbours when the
// columns are neighbours), each curve and the blend in doubles with
// the operations of Evaluate16 and Blend, in their order.
template <bool kOffsets>
IMG_AVX512 int32_t MapGray16(const GrayRun16 &run) {
  const __m512i none = _mm512_setzero_si512();
  Row16 up{run.upper, run.upperOffsets, none, none}, down{run.lower, run.lowerOffsets, none, none};
  const __m512d wy = _mm512_set1_pd(run.weightBelow), half = _mm512_set1_pd(0.5), zero = _mm512_setzero_pd(),
                top = _mm512_set1_pd(65535.0), one = _mm512_set1_pd(1.0);
  const __m256i columns = _mm256_set1_epi32(run.stride);
  // Sixteen prefixes a value from a 64-byte boundary (32 offsets): the
  // prefixes of both tile rows of a value share its line, so one fetch
  // brings both.
  const char *upper =
      kOffsets ? reinterpret_cast<const char *>(run.upperOffsets) : reinterpret_cast<const char *>(run.upper);
  const char *lower =
      kOffsets ? reinterpret_cast<const char *>(run.lowerOffsets) : reinterpret_cast<const char *>(run.lower);
  constexpr int32_t kEntry = kOffsets ? 2 : 4;
  const char *first = std::min(upper, lower);
  const bool oneLine = run.stride * kEntry <= 64 && 64 % (run.stride * kEntry) == 0 &&
                       (reinterpret_cast<uintptr_t>(first) & 63) == 0;
  const bool oneRow = upper == lower && run.upperCurves == run.lowerCurves;
  int32_t x = 0;
  while (x + 8 <= run.count) {
    const int32_t l = run.left[x], r = run.right[x];
    if (run.left[x + 7] != l || run.right[x + 7] != r) {
      for (; run.left[x] == l && run.right[x] == r; ++x) run.samples[x] = MapGray16One(run, x);
      continue;
    }
    const TileCurve &a = run.upperCurves[l], &b = run.upperCurves[r], &c = run.lowerCurves[l],
                    &d = run.lowerCurves[r];
    const __m256i left = _mm256_set1_epi32(l), right = _mm256_set1_epi32(r);
    if constexpr (kOffsets) {
      up.baseLeft = _mm512_loadu_si512(run.upperBases + 16 * l);
      up.baseRight = _mm512_loadu_si512(run.upperBases + 16 * r);
      down.baseLeft = _mm512_loadu_si512(run.lowerBases + 16 * l);
      down.baseRight = _mm512_loadu_si512(run.lowerBases + 16 * r);
    }
    int32_t end = x + 8;
    while (end + 8 <= run.count && run.left[end + 7] == l && run.right[end + 7] == r) end += 8;
    for (; x < end; x += 8) {
      // The prefixes of the pixels kAhead further on are fetched now: the
      // lines come from anywhere in megabytes of prefixes, and one gather
      // waits for all of its lines.
      if (x + kAhead + 8 <= run.count) {
        alignas(32) uint32_t ahead[8];
        _mm256_store_si256(
            reinterpret_cast<__m256i *>(ahead),
            _mm256_add_epi32(
                _mm256_mullo_epi32(_mm256_cvtepu16_epi32(_mm_loadu_si128(
                                       reinterpret_cast<const __m128i *>(run.samples + x + kAhead))),
                                   columns),
                left));
        if (oneLine)
          for (int32_t k = 0; k < 8; ++k) _mm_prefetch(first + std::size_t{ahead[k]} * kEntry, _MM_HINT_T0);
        else
          for (int32_t k = 0; k < 8; ++k) {
            _mm_prefetch(upper + std::size_t{ahead[k]} * kEntry, _MM_HINT_T0);
            _mm_prefetch(lower + std::size_t{ahead[k]} * kEntry, _MM_HINT_T0);
          }
      }
      const __m256i v =
          _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i *>(run.samples + x)));
      const __m256i base = _mm256_mullo_epi32(v, columns);
      const __m256i atLeft = _mm256_add_epi32(base, left), atRight = _mm256_add_epi32(base, right);
      const __m512d vd = _mm512_cvtepi32_pd(v), next = _mm512_add_pd(vd, one);
      // One tile column (r == l): m10 = m00, so upper = m00 + wx * 0 = m00.
      // One tile row (both rows the same): lower = upper, so the value is
      // upper + wy * 0 + 0.5 = upper + 0.5. The same doubles, fewer steps.
      __m512d upperValue, lowerValue;
      if (r == l) {
        upperValue = Curve16(a, Prefix1<kOffsets>(up, v, atLeft), vd, next);
        lowerValue = oneRow ? upperValue : Curve16(c, Prefix1<kOffsets>(down, v, atLeft), vd, next);
      } else {
        const __m512d wx = _mm512_loadu_pd(run.weight + x);
        const bool pair = r == l + 1;
        __m256i p00, p10, p01, p11;
        Prefixes<kOffsets>(up, v, atLeft, atRight, pair, &p00, &p10);
        if (!oneRow) Prefixes<kOffsets>(down, v, atLeft, atRight, pair, &p01, &p11);
        const __m512d m00 = Curve16(a, p00, vd, next), m10 = Curve16(b, p10, vd, next);
        upperValue = _mm512_add_pd(m00, _mm512_mul_pd(wx, _mm512_sub_pd(m10, m00)));
        if (oneRow)
          lowerValue = upperValue;
        else {
          const __m512d m01 = Curve16(c, p01, vd, next), m11 = Curve16(d, p11, vd, next);
          lowerValue = _mm512_add_pd(m01, _mm512_mul_pd(wx, _mm512_sub_pd(m11, m01)));
        }
      }
      __m512d value =
          oneRow ? _mm512_add_pd(upperValue, half)
                 : _mm512_add_pd(
                       _mm512_add_pd(upperValue, _mm512_mul_pd(wy, _mm512_sub_pd(lowerValue, upperValue))),
                       half);
      value = _mm512_min_pd(_mm512_max_pd(value, zero), top);
      _mm_storeu_si128(reinterpret_cast<__m128i *>(run.samples + x),
                       _mm256_cvtepi32_epi16(_mm512_cvttpd_epi32(value)));
    }
  }
  return x;
}

IMG_AVX512 int32_t MapGray16Avx512(const GrayRun16 &run) {
  return run.upperOffsets != nullptr ? MapGray16<true>(run) : MapGray16<false>(run);
}

// Clips sixteen counts a step, then turns them into prefix sums sixteen at a
// time (four shifted additions and the carry) and the table values in
// doubles with the scalar operations: every sum is an exact integer, so the
// values are those of BuildTable8Scalar.
IMG_AVX512 void BuildTable8Avx512(uint32_t *counts, uint32_t limit, uint32_t n, double *table) {
  const __m512i lim = _mm512_set1_epi32(static_cast<int32_t>(limit)), zero = _mm512_setzero_si512();
  __m512i excess = zero;
  for (int32_t k = 0; k < 256; k += 16) {
    const __m512i c = _mm512_loadu_si512(counts + k);
    const __m512i kept = _mm512_min_epu32(c, lim);
    excess = _mm512_add_epi32(excess, _mm512_sub_epi32(c, kept));
    _mm512_storeu_si512(counts + k, kept);
  }
  const double excessPerBin =
      static_cast<double>(static_cast<uint32_t>(_mm512_reduce_add_epi32(excess))) / 256;
  const __m512d e = _mm512_set1_pd(excessPerBin), scale = _mm512_set1_pd(255.0 / n),
                one = _mm512_set1_pd(1.0);
  const __m512i last = _mm512_set1_epi32(15);
  __m512i carry = zero;
  __m256i v = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
  const __m256i eight = _mm256_set1_epi32(8);
  for (int32_t k = 0; k < 256; k += 16) {
    __m512i s = _mm512_loadu_si512(counts + k);
    s = _mm512_add_epi32(s, _mm512_alignr_epi32(s, zero, 15));
    s = _mm512_add_epi32(s, _mm512_alignr_epi32(s, zero, 14));
    s = _mm512_add_epi32(s, _mm512_alignr_epi32(s, zero, 12));
    s = _mm512_add_epi32(s, _mm512_alignr_epi32(s, zero, 8));
    s = _mm512_add_epi32(s, carry);
    carry = _mm512_permutexvar_epi32(last, s);
    for (int32_t h = 0; h < 2; ++h) {
      const __m512d sum = _mm512_cvtepu32_pd(h ? _mm512_extracti64x4_epi64(s, 1) : _mm512_castsi512_si256(s));
      const __m512d next = _mm512_add_pd(_mm512_cvtepi32_pd(v), one);
      _mm512_storeu_pd(table + k + 8 * h, _mm512_mul_pd(_mm512_add_pd(sum, _mm512_mul_pd(e, next)), scale));
      v = _mm256_add_epi32(v, eight);
    }
  }
}

}  // namespace img::localeq

#pragma GCC diagnostic pop
