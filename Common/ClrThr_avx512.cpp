// Colour threshold, the AVX-512 step over 8-bit HSV pixels (Isa::Avx512):
// thirty-two space pixels (hue in 16 bits, saturation and value in 8) a step
// in 16-bit lanes through the three selections. A selection table is what
// its range says (ClrThr.h): below Low `outside`, Low..High the other digit,
// above High 2 when clipping (which only a mode with both lower digits 0, so
// `outside`, allows) else `outside`. So the lanes that take the fill value
// are v < Low or v > High (not clipping) when outside, else Low..High, and
// those that take the upper fill are v > High when clipping: comparisons
// (Lanes) instead of a table read. The components are tested in turn on the
// values earlier ones may have set, as in the reference step, and written
// back in their fields' widths. The pixels a step does not fill go through
// the reference step.
#include <immintrin.h>

#include "ClrThr.h"
#include "cpu.h"

// GCC 12 takes the undefined pass-through operand of the AVX-512
// intrinsics for an uninitialised read.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

namespace img::clrthr {

namespace {

#define IMG_CLRTHR_AVX512 __attribute__((target(IMG_TARGET_AVX512)))
#define IMG_CLRTHR_AVX512_INLINE __attribute__((target(IMG_TARGET_AVX512), always_inline)) inline

using V = __m512i;
using M = __mmask32;

IMG_CLRTHR_AVX512_INLINE V W(int32_t v) { return _mm512_set1_epi16(static_cast<int16_t>(v)); }

// One selection in 16-bit lanes. Each of the four ways a value can be
// selected is one comparison under a per-call mask (all lanes or none), so
// no mask arithmetic sits between the comparisons and the blends: below Low
// (when outside), above High (when outside and not clipping), Low..High
// (when not outside: v - Low <= High - Low, unsigned, which a value below
// Low fails by wrapping), and above High for the upper fill (when clipping).
// The values come from the forward row (hue 0..360, saturation 0..100,
// value 0..255), inside the limits, so the reference's limit check always
// passes and is not repeated here.
struct Lanes {
  V low, high, range, fill, upperFill;
  M below, above, inside, clip;
  IMG_CLRTHR_AVX512_INLINE explicit Lanes(const Selection &s)
      : low(W(s.low)),
        high(W(s.high)),
        range(W(s.high - s.low)),
        fill(W(s.fill)),
        upperFill(W(s.upperFill)),
        below(s.outside ? ~0u : 0u),
        above(s.outside && !s.clip ? ~0u : 0u),
        inside(s.outside ? 0u : ~0u),
        clip(s.clip ? ~0u : 0u) {}
  // The lanes whose table entry is 1 (three masks) and those whose entry is 2.
  struct Hits {
    M lt, gt, in, upper;
  };
  IMG_CLRTHR_AVX512_INLINE Hits Test(V v) const {
    return {_mm512_mask_cmplt_epu16_mask(below, v, low), _mm512_mask_cmpgt_epu16_mask(above, v, high),
            _mm512_mask_cmple_epu16_mask(inside, _mm512_sub_epi16(v, low), range),
            _mm512_mask_cmpgt_epu16_mask(clip, v, high)};
  }
};

// kWhole: bit i set when selection i sets the whole pixel.
template <uint32_t kWhole>
IMG_CLRTHR_AVX512_INLINE void Threshold(V (&c)[3], const Lanes (&s)[3]) {
  for (int32_t i = 0; i < 3; ++i) {
    const Lanes::Hits h = s[i].Test(c[i]);
    if (!(kWhole >> i & 1)) {
      V v = _mm512_mask_mov_epi16(c[i], h.lt, s[i].fill);
      v = _mm512_mask_mov_epi16(v, h.gt, s[i].fill);
      v = _mm512_mask_mov_epi16(v, h.in, s[i].fill);
      c[i] = _mm512_mask_mov_epi16(v, h.upper, s[i].upperFill);
    } else {
      const M hit = h.lt | h.gt | h.in | h.upper;
      c[0] = _mm512_mask_mov_epi16(c[0], hit, s[0].fill);
      c[1] = _mm512_mask_mov_epi16(c[1], hit, s[1].fill);
      c[2] = _mm512_mask_mov_epi16(c[2], hit, s[2].fill);
    }
  }
}

template <uint32_t kWhole>
IMG_CLRTHR_AVX512 void Loop(uint8_t *hsv, int32_t first, int32_t end, const Selection *selections) {
  const Lanes s[3] = {Lanes(selections[0]), Lanes(selections[1]), Lanes(selections[2])};
  // Word 2 k (hue) and 2 k + 1 (saturation, value) of pixel k; back again.
  alignas(64) uint16_t even[32], odd[32], back0[32], back1[32];
  for (int k = 0; k < 32; ++k) {
    even[k] = static_cast<uint16_t>(2 * k), odd[k] = static_cast<uint16_t>(2 * k + 1);
    back0[k] = static_cast<uint16_t>(k / 2 + 32 * (k % 2)),
    back1[k] = static_cast<uint16_t>(16 + k / 2 + 32 * (k % 2));
  }
  const V hueIdx = _mm512_load_si512(even), svIdx = _mm512_load_si512(odd);
  const V out0 = _mm512_load_si512(back0), out1 = _mm512_load_si512(back1);
  int32_t x = first;
  for (; x + 32 <= end; x += 32) {
    uint8_t *p = hsv + 4 * static_cast<std::ptrdiff_t>(x);
    const V a = _mm512_loadu_si512(p), b = _mm512_loadu_si512(p + 64);
    const V sv = _mm512_permutex2var_epi16(a, svIdx, b);
    V c[3] = {_mm512_permutex2var_epi16(a, hueIdx, b), _mm512_and_si512(sv, W(0xFF)),
              _mm512_srli_epi16(sv, 8)};
    Threshold<kWhole>(c, s);
    const V h = c[0], packed = _mm512_or_si512(c[1], _mm512_slli_epi16(c[2], 8));
    _mm512_storeu_si512(p, _mm512_permutex2var_epi16(h, out0, packed));
    _mm512_storeu_si512(p + 64, _mm512_permutex2var_epi16(h, out1, packed));
  }
  if (x < end) ThresholdPixels(COLORSPACE_HSV, false, hsv, x, end, selections);
}

}  // namespace

void ThresholdHsv8Avx512(uint8_t *hsv, int32_t first, int32_t end, const Selection *selections) {
  constexpr void (*kLoops[8])(uint8_t *, int32_t, int32_t, const Selection *) = {
      Loop<0>, Loop<1>, Loop<2>, Loop<3>, Loop<4>, Loop<5>, Loop<6>, Loop<7>};
  kLoops[(selections[0].whole ? 1 : 0) | (selections[1].whole ? 2 : 0) | (selections[2].whole ? 4 : 0)](
      hsv, first, end, selections);
}

}  // namespace img::clrthr

#pragma GCC diagnostic pop
