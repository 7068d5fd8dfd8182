// Byte-table lookup over contiguous samples: a scalar loop and two
// byte-shuffle versions chosen at run time.
//
// The shuffle versions split the 256-entry table into 16 sub-tables of 16
// entries. A byte shuffle looks up the low four bits of each index and gives
// 0 when the index has its top bit set. Walking x = v, v - 16, v - 32, ...
// (wrapping bytes) over sub-tables 0..7, step k hits a value below 128 exactly
// when v >> 4 >= k for v < 128, so XOR-ing the shuffles of the differences
// D_k = T_k ^ T_(k-1) telescopes to T_(v >> 4)[v & 15]. The same walk over
// sub-tables 8..15 serves v >= 128, and the top bit of v picks the half.
#include "lut_simd.h"

#include <immintrin.h>

#include <cstring>

namespace img {
namespace {

void MapScalar(const uint8_t *table, const uint8_t *src, uint8_t *dst, std::size_t count) {
  std::size_t i = 0;
  for (; i + 4 <= count; i += 4) {
    const uint8_t a = table[src[i]], b = table[src[i + 1]], c = table[src[i + 2]], d = table[src[i + 3]];
    dst[i] = a;
    dst[i + 1] = b;
    dst[i + 2] = c;
    dst[i + 3] = d;
  }
  for (; i < count; ++i) dst[i] = table[src[i]];
}

void MapScalarKeepFourth(const uint8_t *table, const uint8_t *src, uint8_t *dst, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) dst[i] = (i & 3) == 3 ? src[i] : table[src[i]];
}

// The 16 difference tables D_k (k = 0..15) as described above.
void DifferenceTables(const uint8_t *table, uint8_t out[16][16]) {
  for (int k = 0; k < 16; ++k)
    for (int j = 0; j < 16; ++j) {
      const uint8_t here = table[16 * k + j];
      out[k][j] = (k & 7) == 0 ? here : static_cast<uint8_t>(here ^ table[16 * (k - 1) + j]);
    }
}

// The index differences are formed in four independent chains, and the
// shuffles XOR into two accumulators per half, to keep dependency chains short.
__attribute__((target("ssse3"))) inline __m128i Lookup128(const __m128i *d, __m128i v) {
  const __m128i s16 = _mm_set1_epi8(16), s32 = _mm_set1_epi8(32), s48 = _mm_set1_epi8(48),
                s64 = _mm_set1_epi8(64);
  __m128i x0 = v, x1 = _mm_sub_epi8(v, s16), x2 = _mm_sub_epi8(v, s32), x3 = _mm_sub_epi8(v, s48);
  __m128i low0 = _mm_xor_si128(_mm_shuffle_epi8(d[0], x0), _mm_shuffle_epi8(d[1], x1));
  __m128i low1 = _mm_xor_si128(_mm_shuffle_epi8(d[2], x2), _mm_shuffle_epi8(d[3], x3));
  x0 = _mm_sub_epi8(x0, s64);
  x1 = _mm_sub_epi8(x1, s64);
  x2 = _mm_sub_epi8(x2, s64);
  x3 = _mm_sub_epi8(x3, s64);
  low0 = _mm_xor_si128(low0, _mm_shuffle_epi8(d[4], x0));
  low1 = _mm_xor_si128(low1, _mm_shuffle_epi8(d[5], x1));
  low0 = _mm_xor_si128(low0, _mm_shuffle_epi8(d[6], x2));
  low1 = _mm_xor_si128(low1, _mm_shuffle_epi8(d[7], x3));
  x0 = _mm_sub_epi8(x0, s64);
  x1 = _mm_sub_epi8(x1, s64);
  x2 = _mm_sub_epi8(x2, s64);
  x3 = _mm_sub_epi8(x3, s64);
  __m128i high0 = _mm_xor_si128(_mm_shuffle_epi8(d[8], x0), _mm_shuffle_epi8(d[9], x1));
  __m128i high1 = _mm_xor_si128(_mm_shuffle_epi8(d[10], x2), _mm_shuffle_epi8(d[11], x3));
  x0 = _mm_sub_epi8(x0, s64);
  x1 = _mm_sub_epi8(x1, s64);
  x2 = _mm_sub_epi8(x2, s64);
  x3 = _mm_sub_epi8(x3, s64);
  high0 = _mm_xor_si128(high0, _mm_shuffle_epi8(d[12], x0));
  high1 = _mm_xor_si128(high1, _mm_shuffle_epi8(d[13], x1));
  high0 = _mm_xor_si128(high0, _mm_shuffle_epi8(d[14], x2));
  high1 = _mm_xor_si128(high1, _mm_shuffle_epi8(d[15], x3));
  const __m128i low = _mm_xor_si128(low0, low1), high = _mm_xor_si128(high0, high1);
  const __m128i top = _mm_cmplt_epi8(v, _mm_setzero_si128());
  return _mm_or_si128(_mm_and_si128(top, high), _mm_andnot_si128(top, low));
}

__attribute__((target("ssse3"))) void MapSsse3(const uint8_t *table, const uint8_t *src, uint8_t *dst,
                                               std::size_t count, bool keepFourth) {
  uint8_t diff[16][16];
  DifferenceTables(table, diff);
  __m128i d[16];
  for (int k = 0; k < 16; ++k) d[k] = _mm_loadu_si128(reinterpret_cast<const __m128i *>(diff[k]));
  const __m128i fourth = _mm_set1_epi32(static_cast<int32_t>(0xFF000000u));
  std::size_t i = 0;
  for (; i + 32 <= count; i += 32) {
    const __m128i v0 = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + i));
    const __m128i v1 = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + i + 16));
    __m128i r0 = Lookup128(d, v0);
    __m128i r1 = Lookup128(d, v1);
    if (keepFourth) {
      r0 = _mm_or_si128(_mm_and_si128(fourth, v0), _mm_andnot_si128(fourth, r0));
      r1 = _mm_or_si128(_mm_and_si128(fourth, v1), _mm_andnot_si128(fourth, r1));
    }
    _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + i), r0);
    _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + i + 16), r1);
  }
  for (; i + 16 <= count; i += 16) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + i));
    __m128i r = Lookup128(d, v);
    if (keepFourth) r = _mm_or_si128(_mm_and_si128(fourth, v), _mm_andnot_si128(fourth, r));
    _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + i), r);
  }
  // i is a multiple of 16, so the tail keeps the same fourth-byte phase.
  if (keepFourth)
    MapScalarKeepFourth(table, src + i, dst + i, count - i);
  else
    MapScalar(table, src + i, dst + i, count - i);
}

__attribute__((target("avx2"))) inline __m256i Lookup256(const __m256i *d, __m256i v) {
  const __m256i s16 = _mm256_set1_epi8(16), s32 = _mm256_set1_epi8(32), s48 = _mm256_set1_epi8(48);
  const __m256i s64 = _mm256_set1_epi8(64);
  __m256i x0 = v, x1 = _mm256_sub_epi8(v, s16), x2 = _mm256_sub_epi8(v, s32), x3 = _mm256_sub_epi8(v, s48);
  __m256i low0 = _mm256_xor_si256(_mm256_shuffle_epi8(d[0], x0), _mm256_shuffle_epi8(d[1], x1));
  __m256i low1 = _mm256_xor_si256(_mm256_shuffle_epi8(d[2], x2), _mm256_shuffle_epi8(d[3], x3));
  x0 = _mm256_sub_epi8(x0, s64);
  x1 = _mm256_sub_epi8(x1, s64);
  x2 = _mm256_sub_epi8(x2, s64);
  x3 = _mm256_sub_epi8(x3, s64);
  low0 = _mm256_xor_si256(low0, _mm256_shuffle_epi8(d[4], x0));
  low1 = _mm256_xor_si256(low1, _mm256_shuffle_epi8(d[5], x1));
  low0 = _mm256_xor_si256(low0, _mm256_shuffle_epi8(d[6], x2));
  low1 = _mm256_xor_si256(low1, _mm256_shuffle_epi8(d[7], x3));
  x0 = _mm256_sub_epi8(x0, s64);
  x1 = _mm256_sub_epi8(x1, s64);
  x2 = _mm256_sub_epi8(x2, s64);
  x3 = _mm256_sub_epi8(x3, s64);
  __m256i high0 = _mm256_xor_si256(_mm256_shuffle_epi8(d[8], x0), _mm256_shuffle_epi8(d[9], x1));
  __m256i high1 = _mm256_xor_si256(_mm256_shuffle_epi8(d[10], x2), _mm256_shuffle_epi8(d[11], x3));
  x0 = _mm256_sub_epi8(x0, s64);
  x1 = _mm256_sub_epi8(x1, s64);
  x2 = _mm256_sub_epi8(x2, s64);
  x3 = _mm256_sub_epi8(x3, s64);
  high0 = _mm256_xor_si256(high0, _mm256_shuffle_epi8(d[12], x0));
  high1 = _mm256_xor_si256(high1, _mm256_shuffle_epi8(d[13], x1));
  high0 = _mm256_xor_si256(high0, _mm256_shuffle_epi8(d[14], x2));
  high1 = _mm256_xor_si256(high1, _mm256_shuffle_epi8(d[15], x3));
  return _mm256_blendv_epi8(_mm256_xor_si256(low0, low1), _mm256_xor_si256(high0, high1), v);
}

__attribute__((target("avx2"))) void MapAvx2(const uint8_t *table, const uint8_t *src, uint8_t *dst,
                                             std::size_t count, bool keepFourth) {
  uint8_t diff[16][16];
  DifferenceTables(table, diff);
  __m256i d[16];
  for (int k = 0; k < 16; ++k)
    d[k] = _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i *>(diff[k])));
  const __m256i fourth = _mm256_set1_epi32(static_cast<int32_t>(0xFF000000u));
  std::size_t i = 0;
  for (; i + 64 <= count; i += 64) {
    const __m256i v0 = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(src + i));
    const __m256i v1 = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(src + i + 32));
    __m256i r0 = Lookup256(d, v0);
    __m256i r1 = Lookup256(d, v1);
    if (keepFourth) {
      r0 = _mm256_blendv_epi8(r0, v0, fourth);
      r1 = _mm256_blendv_epi8(r1, v1, fourth);
    }
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + i), r0);
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + i + 32), r1);
  }
  for (; i + 32 <= count; i += 32) {
    const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(src + i));
    __m256i r = Lookup256(d, v);
    if (keepFourth) r = _mm256_blendv_epi8(r, v, fourth);
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + i), r);
  }
  if (keepFourth)
    MapScalarKeepFourth(table, src + i, dst + i, count - i);
  else
    MapScalar(table, src + i, dst + i, count - i);
}

// Two 128-entry permutes over the table's four 64-byte quarters; the top
// bit of each sample picks the half. 64 samples a step.
__attribute__((target("avx512f,avx512bw,avx512vbmi"))) void MapAvx512Vbmi(const uint8_t *table,
                                                                          const uint8_t *src, uint8_t *dst,
                                                                          std::size_t count,
                                                                          bool keepFourth) {
  const __m512i q0 = _mm512_loadu_si512(table), q1 = _mm512_loadu_si512(table + 64);
  const __m512i q2 = _mm512_loadu_si512(table + 128), q3 = _mm512_loadu_si512(table + 192);
  const __mmask64 fourth = keepFourth ? 0x8888888888888888ull : 0;
  std::size_t i = 0;
  for (; i + 64 <= count; i += 64) {
    const __m512i v = _mm512_loadu_si512(src + i);
    const __m512i low = _mm512_permutex2var_epi8(q0, v, q1);
    const __m512i high = _mm512_permutex2var_epi8(q2, v, q3);
    __m512i r = _mm512_mask_blend_epi8(_mm512_movepi8_mask(v), low, high);
    r = _mm512_mask_blend_epi8(fourth, r, v);
    _mm512_storeu_si512(dst + i, r);
  }
  if (keepFourth)
    MapScalarKeepFourth(table, src + i, dst + i, count - i);
  else
    MapScalar(table, src + i, dst + i, count - i);
}

void Map(LutPath path, const uint8_t *table, const uint8_t *src, uint8_t *dst, std::size_t count,
         bool keepFourth) {
  switch (path) {
    case LutPath::Avx512Vbmi:
      if (LutPathAvailable(LutPath::Avx512Vbmi)) return MapAvx512Vbmi(table, src, dst, count, keepFourth);
      break;
    case LutPath::Avx2:
      if (LutPathAvailable(LutPath::Avx2)) return MapAvx2(table, src, dst, count, keepFourth);
      break;
    case LutPath::Ssse3:
      if (LutPathAvailable(LutPath::Ssse3)) return MapSsse3(table, src, dst, count, keepFourth);
      break;
    case LutPath::Scalar:
      break;
  }
  if (keepFourth)
    MapScalarKeepFourth(table, src, dst, count);
  else
    MapScalar(table, src, dst, count);
}

}  // namespace

bool LutPathAvailable(LutPath path) {
  switch (path) {
    case LutPath::Scalar:
      return true;
    case LutPath::Ssse3:
      return __builtin_cpu_supports("ssse3");
    case LutPath::Avx2:
      return __builtin_cpu_supports("avx2");
    case LutPath::Avx512Vbmi:
      return __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vbmi");
  }
  return false;
}

LutPath FastestLutPath() {
  if (LutPathAvailable(LutPath::Avx512Vbmi)) return LutPath::Avx512Vbmi;
  if (LutPathAvailable(LutPath::Avx2)) return LutPath::Avx2;
  if (LutPathAvailable(LutPath::Ssse3)) return LutPath::Ssse3;
  return LutPath::Scalar;
}

namespace {

void MapWordsScalar(const uint16_t *table, uint16_t *p, std::size_t count, bool keepFourth) {
  if (keepFourth) {
    std::size_t i = 0;
    for (; i + 4 <= count; i += 4) {
      p[i] = table[p[i]];
      p[i + 1] = table[p[i + 1]];
      p[i + 2] = table[p[i + 2]];
    }
    for (; i < count; ++i)
      if (i % 4 != 3) p[i] = table[p[i]];
    return;
  }
  for (std::size_t i = 0; i < count; ++i) p[i] = table[p[i]];
}

// Sixteen table words a gather: each reads the 32 bits at its entry and
// keeps the low half. 32 samples a step. (GCC 12's headers fill the unused
// halves of some conversions with undefined values and then warn about them.)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
__attribute__((target("avx512f,avx512bw"))) void MapWordsAvx512(const uint16_t *table, uint16_t *p,
                                                                std::size_t count, bool keepFourth) {
  const __mmask32 fourth = keepFourth ? 0x88888888u : 0u;
  const int *base = reinterpret_cast<const int *>(table);
  std::size_t i = 0;
  for (; i + 32 <= count; i += 32) {
    const __m512i v = _mm512_loadu_si512(p + i);
    const __m512i lo = _mm512_cvtepu16_epi32(_mm512_castsi512_si256(v));
    const __m512i hi = _mm512_cvtepu16_epi32(_mm512_extracti64x4_epi64(v, 1));
    const __m256i rlo = _mm512_cvtepi32_epi16(_mm512_i32gather_epi32(lo, base, 2));
    const __m256i rhi = _mm512_cvtepi32_epi16(_mm512_i32gather_epi32(hi, base, 2));
    const __m512i r = _mm512_inserti64x4(_mm512_zextsi256_si512(rlo), rhi, 1);
    _mm512_storeu_si512(p + i, _mm512_mask_blend_epi16(fourth, r, v));
  }
  MapWordsScalar(table, p + i, count - i, keepFourth);
}
#pragma GCC diagnostic pop

}  // namespace

void MapWords(LutPath path, const uint16_t *table, uint16_t *p, std::size_t count, bool keepFourth) {
  if (path == LutPath::Avx512Vbmi && LutPathAvailable(LutPath::Avx512Vbmi))
    return MapWordsAvx512(table, p, count, keepFourth);
  MapWordsScalar(table, p, count, keepFourth);
}

void MapBytes(LutPath path, const uint8_t *table, const uint8_t *src, uint8_t *dst, std::size_t count) {
  Map(path, table, src, dst, count, false);
}

void MapBytesKeepFourth(LutPath path, const uint8_t *table, const uint8_t *src, uint8_t *dst,
                        std::size_t count) {
  Map(path, table, src, dst, count, true);
}

}  // namespace img

extern "C" {

IMG_API void MapSampleBytes(const uint8_t *table, uint8_t *samples, size_t count) {
  if (table && samples) img::MapBytes(img::FastestLutPath(), table, samples, samples, count);
}

IMG_API void MapSampleWords(const uint16_t *table, uint16_t *samples, size_t count) {
  if (table && samples) img::MapWords(img::FastestLutPath(), table, samples, count, false);
}

}  // extern "C"
