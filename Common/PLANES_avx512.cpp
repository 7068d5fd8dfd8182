// Colour planes, the AVX-512 loops (Isa::Avx512: VBMI byte permutes): 64
// pixels a step. A split reads 192 bytes (three vectors) and gathers each
// plane's 64 bytes with two permutes: one over the first two vectors, one
// masked over the third. A merge builds each of the three output vectors
// from two planes with one permute and the third plane with a masked one.
// Bytes are only moved, so the rows are those of the scalar loops.
#include <immintrin.h>

#include "PLANES_internal.h"
#include "cpu.h"

#define IMG_AVX512 __attribute__((target(IMG_TARGET_AVX512)))

namespace img::planes {

namespace {

struct SplitIndices {
  uint8_t low[3][64];   // plane k: byte 3p + k of the first two vectors (index < 128)
  uint8_t high[3][64];  // the same byte in the third vector (index - 128)
  uint64_t fromHigh[3];
};

constexpr SplitIndices MakeSplit() {
  SplitIndices s{};
  for (int32_t k = 0; k < 3; ++k)
    for (int32_t p = 0; p < 64; ++p) {
      const int32_t at = 3 * p + k;
      s.low[k][p] = static_cast<uint8_t>(at < 128 ? at : 0);
      s.high[k][p] = static_cast<uint8_t>(at < 128 ? 0 : at - 128);
      if (at >= 128) s.fromHigh[k] |= uint64_t{1} << p;
    }
  return s;
}

struct MergeIndices {
  uint8_t pair[3][64];    // output vector v: bytes of the first plane (index p) or the second (64 + p)
  uint8_t single[3][64];  // the third plane's pixel
  uint64_t third[3];
};

constexpr MergeIndices MakeMerge() {
  MergeIndices m{};
  for (int32_t v = 0; v < 3; ++v)
    for (int32_t b = 0; b < 64; ++b) {
      const int32_t at = 64 * v + b, p = at / 3, k = at % 3;
      m.pair[v][b] = static_cast<uint8_t>(k == 1 ? 64 + p : p);
      m.single[v][b] = static_cast<uint8_t>(p);
      if (k == 2) m.third[v] |= uint64_t{1} << b;
    }
  return m;
}

constexpr SplitIndices kSplit = MakeSplit();
constexpr MergeIndices kMerge = MakeMerge();

// Plain stores, or streaming ones when every output is 64-byte aligned (the
// planes' rows are written once and not read again by the call).
template <bool kStream>
IMG_AVX512 inline void Store(uint8_t *p, __m512i v) {
  if constexpr (kStream)
    _mm512_stream_si512(reinterpret_cast<__m512i *>(p), v);
  else
    _mm512_storeu_si512(p, v);
}

template <bool kStream>
IMG_AVX512 int32_t Split(const uint8_t *in, uint8_t *first, uint8_t *second, uint8_t *third, int32_t width) {
  __m512i low[3], high[3];
  for (int32_t k = 0; k < 3; ++k) {
    low[k] = _mm512_loadu_si512(kSplit.low[k]);
    high[k] = _mm512_loadu_si512(kSplit.high[k]);
  }
  uint8_t *out[3] = {first, second, third};
  int32_t x = 0;
  for (; x + 64 <= width; x += 64) {
    const uint8_t *p = in + static_cast<std::ptrdiff_t>(x) * 3;
    const __m512i a = _mm512_loadu_si512(p), b = _mm512_loadu_si512(p + 64), c = _mm512_loadu_si512(p + 128);
    for (int32_t k = 0; k < 3; ++k) {
      const __m512i v = _mm512_mask_permutexvar_epi8(_mm512_permutex2var_epi8(a, low[k], b),
                                                     kSplit.fromHigh[k], high[k], c);
      Store<kStream>(out[k] + x, v);
    }
  }
  return x;
}

template <bool kStream>
IMG_AVX512 int32_t Merge(const uint8_t *first, const uint8_t *second, const uint8_t *third, uint8_t *out,
                         int32_t width) {
  __m512i pair[3], single[3];
  for (int32_t v = 0; v < 3; ++v) {
    pair[v] = _mm512_loadu_si512(kMerge.pair[v]);
    single[v] = _mm512_loadu_si512(kMerge.single[v]);
  }
  int32_t x = 0;
  for (; x + 64 <= width; x += 64) {
    const __m512i a = _mm512_loadu_si512(first + x), b = _mm512_loadu_si512(second + x),
                  c = _mm512_loadu_si512(third + x);
    uint8_t *p = out + static_cast<std::ptrdiff_t>(x) * 3;
    for (int32_t v = 0; v < 3; ++v)
      Store<kStream>(p + 64 * v, _mm512_mask_permutexvar_epi8(_mm512_permutex2var_epi8(a, pair[v], b),
                                                              kMerge.third[v], single[v], c));
  }
  return x;
}

inline bool Aligned(const void *p) { return (reinterpret_cast<std::uintptr_t>(p) & 63) == 0; }

}  // namespace

IMG_AVX512 int32_t SplitRow3Avx512(const uint8_t *in, uint8_t *first, uint8_t *second, uint8_t *third,
                                   int32_t width) {
  if (!Aligned(first) || !Aligned(second) || !Aligned(third))
    return Split<false>(in, first, second, third, width);
  const int32_t done = Split<true>(in, first, second, third, width);
  _mm_sfence();
  return done;
}

IMG_AVX512 int32_t MergeRow3Avx512(const uint8_t *first, const uint8_t *second, const uint8_t *third,
                                   uint8_t *out, int32_t width) {
  if (!Aligned(out)) return Merge<false>(first, second, third, out, width);
  const int32_t done = Merge<true>(first, second, third, out, width);
  _mm_sfence();
  return done;
}

}  // namespace img::planes
