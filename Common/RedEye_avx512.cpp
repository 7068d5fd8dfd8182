// Red-eye removal, the AVX-512 lanes (Isa::Avx512, F and DQ): the forward
// byte Lab conversion of eight colours a step, the same doubles as the
// scalar fast form (products, sums and quotients as written; the cube root
// by the same two Newton steps from the same table). A lane whose root would
// need pow, or whose L*, a* or b* lies within the margin of a rounding step,
// is marked for the exact form (docs/binary.md).
#include <immintrin.h>

#include "RedEye.h"
#include "cpu.h"

// GCC 12 reports the undefined vectors that the headers give masked
// intrinsics as maybe uninitialized.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"

namespace img::redeye {

namespace {

#define IMG_REDEYE_INLINE __attribute__((target(IMG_TARGET_AVX512), always_inline)) inline

IMG_REDEYE_INLINE __m512d Set(double v) { return _mm512_set1_pd(v); }

// f(t): t^(1/3) above 0.008856, else 7.787 t + 16/116; `bad` gets the lanes
// above 0.008856 outside the table's range.
IMG_REDEYE_INLINE __m512d F(__m512d t, __mmask8 &bad) {
  const __mmask8 above = _mm512_cmp_pd_mask(t, Set(0.008856), _CMP_GT_OQ);
  const __m512d linear = _mm512_add_pd(_mm512_mul_pd(Set(7.787), t), Set(16.0 / 116.0));
  const __m512i slice = _mm512_sub_epi64(_mm512_srli_epi64(_mm512_castpd_si512(t), 44),
                                         _mm512_set1_epi64(static_cast<int64_t>(kGuessBase)));
  const __mmask8 inRange = _mm512_cmplt_epu64_mask(slice, _mm512_set1_epi64(kGuessCount));
  bad |= static_cast<__mmask8>(above & ~inRange);
  const __m512i index = _mm512_and_si512(slice, _mm512_set1_epi64(kGuessCount - 1));
  __m512d r = _mm512_i64gather_pd(index, kCubeRootGuess.data(), 8);
  const __m512d third = Set(1.0 / 3.0), four = Set(4);
  for (int32_t step = 0; step < 2; ++step) {
    const __m512d cube = _mm512_mul_pd(_mm512_mul_pd(t, r), _mm512_mul_pd(r, r));
    r = _mm512_mul_pd(_mm512_mul_pd(r, _mm512_sub_pd(four, cube)), third);
  }
  const __m512d root = _mm512_mul_pd(_mm512_mul_pd(t, r), r);
  return _mm512_mask_blend_pd(above, linear, root);
}

// v + 0.5 limited to lo..hi and truncated; `bad` gets the lanes where v + 0.5
// lies within 1e-6 of an integer.
IMG_REDEYE_INLINE __m256i Limit(__m512d v, double lo, double hi, __mmask8 &bad) {
  const __m512d half = _mm512_add_pd(v, Set(0.5));
  const __m512d whole = _mm512_roundscale_pd(half, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC);
  const __m512d fraction = _mm512_abs_pd(_mm512_sub_pd(half, whole));
  const __mmask8 clear = _mm512_cmp_pd_mask(fraction, Set(1e-6), _CMP_GT_OQ) &
                         _mm512_cmp_pd_mask(fraction, Set(1 - 1e-6), _CMP_LT_OQ);
  bad |= static_cast<__mmask8>(~clear);
  return _mm512_cvttpd_epi32(_mm512_min_pd(_mm512_max_pd(half, Set(lo)), Set(hi)));
}

IMG_REDEYE_INLINE __m512d Load(const int32_t *p) {
  return _mm512_cvtepi32_pd(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(p)));
}

// (cr R + cg G + cb B) / white.
IMG_REDEYE_INLINE __m512d Row(__m512d R, __m512d G, __m512d B, double cr, double cg, double cb,
                              double white) {
  return _mm512_div_pd(_mm512_add_pd(_mm512_add_pd(_mm512_mul_pd(Set(cr), R), _mm512_mul_pd(Set(cg), G)),
                                     _mm512_mul_pd(Set(cb), B)),
                       Set(white));
}

// f^-1(u): u^3 above 0.206893, else (u - 16/116) / 7.787.
IMG_REDEYE_INLINE __m512d FInverse(__m512d u) {
  const __mmask8 above = _mm512_cmp_pd_mask(u, Set(0.206893), _CMP_GT_OQ);
  const __m512d cube = _mm512_mul_pd(_mm512_mul_pd(u, u), u);
  return _mm512_mask_blend_pd(above, _mm512_div_pd(_mm512_sub_pd(u, Set(16.0 / 116.0)), Set(7.787)), cube);
}

// v + 0.5 limited to 0..max and truncated.
IMG_REDEYE_INLINE __m256i LimitSample(__m512d v, double max) {
  return _mm512_cvttpd_epi32(_mm512_min_pd(_mm512_max_pd(_mm512_add_pd(v, Set(0.5)), Set(0)), Set(max)));
}

// c1 X -/+ c2 Y -/+ c3 Z, left to right as the scalar form writes it (a
// subtraction stays a subtraction).
IMG_REDEYE_INLINE __m512d Dot(__m512d X, __m512d Y, __m512d Z, double c1, double c2, bool minus2, double c3,
                              bool minus3) {
  const __m512d x = _mm512_mul_pd(Set(c1), X), y = _mm512_mul_pd(Set(c2), Y), z = _mm512_mul_pd(Set(c3), Z);
  const __m512d xy = minus2 ? _mm512_sub_pd(x, y) : _mm512_add_pd(x, y);
  return minus3 ? _mm512_sub_pd(xy, z) : _mm512_add_pd(xy, z);
}

}  // namespace

__attribute__((target(IMG_TARGET_AVX512))) void FromLabLanesAvx512(const Scale &s, Batch &batch, int32_t n) {
  for (int32_t i = 0; i < n; i += 8) {
    alignas(32) int32_t l8[8], a8[8], b8[8];
    for (int32_t k = 0; k < 8; ++k) {
      l8[k] = batch.lab[i + k].L;
      a8[k] = batch.lab[i + k].a;
      b8[k] = batch.lab[i + k].b;
    }
    const __m256i Li = _mm256_load_si256(reinterpret_cast<const __m256i *>(l8));
    const __m512d L = _mm512_cvtepi32_pd(Li);
    const __m512d fy =
        _mm512_div_pd(_mm512_cvtepi32_pd(_mm256_add_epi32(Li, _mm256_set1_epi32(16))), Set(116.0));
    const __mmask8 above = _mm512_cmp_pd_mask(fy, Set(0.206893), _CMP_GT_OQ);
    const __m512d Yr =
        _mm512_mask_blend_pd(above, _mm512_div_pd(L, Set(903.3)), _mm512_mul_pd(_mm512_mul_pd(fy, fy), fy));
    const __m512d a = _mm512_div_pd(Load(a8), Set(500.0)), b = _mm512_div_pd(Load(b8), Set(200.0));
    const __m512d X = _mm512_mul_pd(FInverse(_mm512_add_pd(a, fy)), Set(s.xn));
    const __m512d Y = _mm512_mul_pd(Yr, Set(s.yn));
    const __m512d Z = _mm512_mul_pd(FInverse(_mm512_sub_pd(fy, b)), Set(s.zn));
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(batch.b + i),
                        LimitSample(Dot(X, Y, Z, 0.055648, 0.204043, true, 1.057311, false), s.max));
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(batch.g + i),
                        LimitSample(Dot(X, Y, Z, -0.969256, 1.875992, false, 0.041556, false), s.max));
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(batch.r + i),
                        LimitSample(Dot(X, Y, Z, 3.240479, 1.537150, true, 0.498535, true), s.max));
  }
}

__attribute__((target(IMG_TARGET_AVX512))) void ToLabLanesAvx512(const Scale &s, Batch &batch, int32_t n,
                                                                 uint64_t &unclear) {
  unclear = 0;
  for (int32_t i = 0; i < n; i += 8) {
    const __m512d R = Load(batch.r + i), G = Load(batch.g + i), B = Load(batch.b + i);
    const __m512d X = Row(R, G, B, 0.412453, 0.357580, 0.180423, s.xn);
    const __m512d Y = Row(R, G, B, 0.212671, 0.715160, 0.072169, s.yn);
    const __m512d Z = Row(R, G, B, 0.019334, 0.119193, 0.950227, s.zn);
    __mmask8 bad = 0;
    const __m512d fy = F(Y, bad), fx = F(X, bad), fz = F(Z, bad);
    const __mmask8 lit = _mm512_cmp_pd_mask(Y, Set(0.008856), _CMP_GT_OQ);
    const __m512d L = _mm512_mask_blend_pd(lit, _mm512_mul_pd(Set(903.3), Y),
                                           _mm512_sub_pd(_mm512_mul_pd(Set(116), fy), Set(16)));
    const __m512d a = _mm512_mul_pd(Set(500), _mm512_sub_pd(fx, fy));
    const __m512d b = _mm512_mul_pd(Set(200), _mm512_sub_pd(fy, fz));
    alignas(32) int32_t l8[8], a8[8], b8[8];
    _mm256_store_si256(reinterpret_cast<__m256i *>(l8), Limit(L, 0, 100, bad));
    _mm256_store_si256(reinterpret_cast<__m256i *>(a8), Limit(a, -128, 127, bad));
    _mm256_store_si256(reinterpret_cast<__m256i *>(b8), Limit(b, -128, 127, bad));
    for (int32_t k = 0; k < 8; ++k) batch.lab[i + k] = Lab{l8[k], a8[k], b8[k]};
    unclear |= static_cast<uint64_t>(bad) << i;
  }
}

}  // namespace img::redeye

#pragma GCC diagnostic pop
