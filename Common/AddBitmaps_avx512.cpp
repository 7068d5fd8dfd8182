// Adding bitmaps, the AVX-512 loops of two 8-bit rows (Isa::Avx512): 64
// samples a vector. The weighted average with small factors (Pair8::small)
// rounds half to even as round half up less the ties that land on an odd
// number:
//   S = f0 a + f1 b (one byte multiply-add of the interleaved samples),
//   u = S + floor(w / 2), q = floor(u / w) (a 16-bit magic multiply);
// q is S / w rounded half up (for odd w there are no ties), a tie is
// q × w = u with w even, and a tie with q odd takes q − 1. Other factors run
// the AVX2 loop; the rest of a row takes PairSample. Every function carries
// its target attribute: the file is compiled for the baseline.
#include <immintrin.h>

#include "AddBitmaps_internal.h"
#include "cpu.h"

#define IMG_AVX512 __attribute__((target(IMG_TARGET_AVX512)))
#define IMG_AVX512_INLINE __attribute__((target(IMG_TARGET_AVX512), always_inline)) inline

namespace img::add {

namespace {

struct SmallLanes {
  __m512i factors, half, weight, halfWeight, one;
  __m128i shift;
  bool ties;
};

// Sixteen-bit lanes of interleaved samples a, b into the rounded quotients.
IMG_AVX512_INLINE __m512i Weighted(const SmallLanes &l, __m512i pairs) {
  const __m512i u = _mm512_add_epi16(_mm512_maddubs_epi16(pairs, l.factors), l.halfWeight);
  __m512i q = _mm512_srl_epi16(_mm512_mulhi_epu16(u, l.half), l.shift);
  if (l.ties) {
    const __mmask32 tie =
        _mm512_cmpeq_epi16_mask(_mm512_mullo_epi16(q, l.weight), u) & _mm512_test_epi16_mask(q, l.one);
    q = _mm512_mask_sub_epi16(q, tie, q, l.one);
  }
  return q;
}

IMG_AVX512_INLINE __m512i Load(const uint8_t *p) { return _mm512_loadu_si512(p); }
// A streaming store (the output is 64-byte aligned then) or a plain one.
template <bool kStream>
IMG_AVX512_INLINE void Store(uint8_t *p, __m512i v) {
  if constexpr (kStream)
    _mm512_stream_si512(reinterpret_cast<__m512i *>(p), v);
  else
    _mm512_storeu_si512(p, v);
}

template <bool kTies, bool kStream>
IMG_AVX512 std::size_t WeightedSmall(const Pair8 &p, uint8_t *out, const uint8_t *a, const uint8_t *b,
                                     std::size_t n) {
  const SmallLanes l{_mm512_set1_epi16(static_cast<int16_t>(p.f0 | p.f1 << 8)),
                     _mm512_set1_epi16(static_cast<int16_t>(p.half)),
                     _mm512_set1_epi16(static_cast<int16_t>(p.weight)),
                     _mm512_set1_epi16(static_cast<int16_t>(p.weight / 2)),
                     _mm512_set1_epi16(1),
                     _mm_cvtsi32_si128(p.halfShift),
                     kTies};
  std::size_t k = 0;
  for (; k + 64 <= n; k += 64) {
    const __m512i va = Load(a + k), vb = Load(b + k);
    // Unpacks and the pack work within 128-bit lanes: the order comes back.
    const __m512i lo = Weighted(l, _mm512_unpacklo_epi8(va, vb));
    const __m512i hi = Weighted(l, _mm512_unpackhi_epi8(va, vb));
    Store<kStream>(out + k, _mm512_packus_epi16(lo, hi));
  }
  return k;
}

template <bool kStream>
IMG_AVX512 std::size_t Loops(const Pair8 &p, uint8_t *out, const uint8_t *a, const uint8_t *b,
                             std::size_t n) {
  std::size_t k = 0;
  switch (p.rule) {
    case PairRule::Sum:
      for (; k + 64 <= n; k += 64) Store<kStream>(out + k, _mm512_adds_epu8(Load(a + k), Load(b + k)));
      break;
    case PairRule::Average: {
      const __m512i one = _mm512_set1_epi8(1);
      for (; k + 64 <= n; k += 64) {
        const __m512i va = Load(a + k), vb = Load(b + k);
        Store<kStream>(out + k, _mm512_sub_epi8(_mm512_avg_epu8(va, vb),
                                                _mm512_and_si512(_mm512_xor_si512(va, vb), one)));
      }
      break;
    }
    case PairRule::WeightedAverage:
      k = p.weight % 2 ? WeightedSmall<false, kStream>(p, out, a, b, n)
                       : WeightedSmall<true, kStream>(p, out, a, b, n);
      break;
  }
  return k;
}

}  // namespace

// An output apart from both inputs (a result filled from its sources) is
// written with streaming stores from its first 64-byte boundary: it is not
// read again here, so its lines need not be fetched before being written.
IMG_AVX512 void CombinePairAvx512(const Pair8 &p, uint8_t *out, const uint8_t *a, const uint8_t *b,
                                  std::size_t n) {
  if (p.rule == PairRule::WeightedAverage && !p.small) return CombinePairAvx2(p, out, a, b, n);
  std::size_t k = 0;
  if (out != a && out != b && n >= 1024) {
    const std::size_t head = (64 - (reinterpret_cast<std::uintptr_t>(out) & 63)) & 63;
    for (; k < head; ++k) out[k] = PairSample(p, a[k], b[k]);
    k += Loops<true>(p, out + k, a + k, b + k, n - k);
    _mm_sfence();
  } else {
    k = Loops<false>(p, out, a, b, n);
  }
  for (; k < n; ++k) out[k] = PairSample(p, a[k], b[k]);
}

}  // namespace img::add
