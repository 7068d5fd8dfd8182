// Colour-space conversions, the AVX-512 loops (Isa::Avx512: F, BW, DQ, VL
// and VBMI): sixteen pixels a step for YCrCb both ways and the table-driven
// Lab both ways; the rest of a run goes to the AVX2 loops. Every function
// carries the target attribute: the file is compiled for the baseline.
//
// Same formulas and exactness arguments as the AVX2 loops, on 512-bit vectors.
// Sixteen 3-byte pixels are read with one masked 48-byte load and split into
// 32-bit lanes with byte permutes, and written back with one byte permute and
// a masked 48-byte store: nothing outside the 48 bytes is read or written.
// Divisions by constants are multiply-shifts, each checked against integer
// division for every numerator from 0 to the bound stated (and the loops as
// a whole against the pixel formulas, for every input, by the tests).
#include <immintrin.h>

#include <array>

#include "ClrSpc_internal.h"
#include "cpu.h"

// GCC 12 reports the undefined pass-through operands inside its own AVX-512
// intrinsics as maybe uninitialized.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

#define IMG_AVX512_TARGET IMG_TARGET_AVX512
#define IMG_LANES_TARGET IMG_AVX512_TARGET
#include "ClrSpc_lanes.h"

namespace img::clrspc {

namespace {

// The pixels a loop leaves over, through the levels below.
void Rest(uint32_t code, const LabTableSet *set, uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  if (first < end) RowBelow(Isa::Avx512, code)(set, rgb, sp, first, end);
}

#define IMG_AVX512 __attribute__((target(IMG_AVX512_TARGET)))
#define IMG_AVX512_INLINE __attribute__((target(IMG_AVX512_TARGET), always_inline)) inline

constexpr __mmask64 k48Bytes = 0xFFFFFFFFFFFFull;

// Byte j of the 48 written: field j % 3 of pixel j / 3, taken from byte 0 or 1
// of lane j / 3 of the first table (fields 0 and 1) or byte 0 of the second.
constexpr std::array<uint8_t, 64> kStore48 = [] {
  std::array<uint8_t, 64> m{};
  for (int j = 0; j < 48; ++j)
    m[j] = static_cast<uint8_t>(j % 3 < 2 ? 4 * (j / 3) + j % 3 : 64 + 4 * (j / 3));
  return m;
}();

IMG_AVX512_INLINE __m512i Load48(const uint8_t *q) { return _mm512_maskz_loadu_epi8(k48Bytes, q); }

// Field c (0..2) of the sixteen pixels, zero-extended to 32 bits.
IMG_AVX512_INLINE __m512i Field(__m512i v, int c) {
  const __m512i idx = _mm512_add_epi32(
      _mm512_setr_epi32(0, 3, 6, 9, 12, 15, 18, 21, 24, 27, 30, 33, 36, 39, 42, 45), _mm512_set1_epi32(c));
  return _mm512_maskz_permutexvar_epi8(0x1111111111111111ull, idx, v);
}

// Writes the low bytes of f0, f1, f2 as sixteen 3-byte pixels.
IMG_AVX512_INLINE void Store48(uint8_t *q, __m512i f0, __m512i f1, __m512i f2) {
  const __m512i f01 =
      _mm512_or_si512(_mm512_and_si512(f0, _mm512_set1_epi32(0xFF)), _mm512_slli_epi32(f1, 8));
  const __m512i idx = _mm512_loadu_si512(kStore48.data());
  _mm512_mask_storeu_epi8(q, k48Bytes, _mm512_permutex2var_epi8(f01, idx, f2));
}

IMG_AVX512_INLINE __m512i Set(int32_t v) { return _mm512_set1_epi32(v); }
IMG_AVX512_INLINE __m512i ClampZ(__m512i v, int32_t lo, int32_t hi) {
  return _mm512_min_epi32(_mm512_max_epi32(v, Set(lo)), Set(hi));
}
IMG_AVX512_INLINE __m512i Sext8Z(__m512i v) { return _mm512_srai_epi32(_mm512_slli_epi32(v, 24), 24); }
IMG_AVX512_INLINE __m512i MulZ(__m512i v, int32_t c) { return _mm512_mullo_epi32(v, Set(c)); }
// x * cx + y * cy + z * cz in 32-bit lanes.
IMG_AVX512_INLINE __m512i SumZ(__m512i x, int32_t cx, __m512i y, int32_t cy, __m512i z, int32_t cz) {
  return _mm512_add_epi32(_mm512_add_epi32(MulZ(x, cx), MulZ(y, cy)), MulZ(z, cz));
}

// n / d for 0 <= n below the bound as (n * M) >> S, M = ceil(2^S / d) < 2^32,
// in 64-bit products of the even and odd lanes (S >= 32, quotients < 2^14).
template <int S>
IMG_AVX512_INLINE __m512i DivMagic(__m512i n, uint32_t m) {
  const __m512i mv = _mm512_set1_epi64(m);
  const __m512i even = _mm512_srli_epi64(_mm512_mul_epu32(n, mv), S);
  const __m512i odd = _mm512_srli_epi64(_mm512_mul_epu32(_mm512_srli_epi64(n, 32), mv), S - 32);
  return _mm512_mask_blend_epi32(0xAAAA, even, odd);
}

// The lanes of the shared YCrCb loops (ClrSpc_lanes.h): sixteen pixels, one
// 48-byte load split by byte permutes; the doubles eight a vector.
struct Lanes : LaneSet<Isa::Avx512, 16> {
  using I = __m512i;
  using F = __m512;
  using D = __m512d;
  static IMG_AVX512_INLINE void Fields(const uint8_t *q, I &f0, I &f1, I &f2) {
    const I v = Load48(q);
    f0 = Field(v, 0), f1 = Field(v, 1), f2 = Field(v, 2);
  }
  static IMG_AVX512_INLINE void Store(uint8_t *q, I f0, I f1, I f2) { Store48(q, f0, f1, f2); }
  static IMG_AVX512_INLINE I Sext8(I v) { return Sext8Z(v); }
  static IMG_AVX512_INLINE I Clamp(I v, int32_t lo, int32_t hi) { return ClampZ(v, lo, hi); }
  static IMG_AVX512_INLINE F ToFloat(I v) { return _mm512_cvtepi32_ps(v); }
  static IMG_AVX512_INLINE I Trunc(F v) { return _mm512_cvttps_epi32(v); }
  static IMG_AVX512_INLINE D Half(I v, int h) {
    return _mm512_cvtepi32_pd(h == 0 ? _mm512_castsi512_si256(v) : _mm512_extracti64x4_epi64(v, 1));
  }
  static IMG_AVX512_INLINE I Trunc(D lo, D hi) {
    return _mm512_inserti64x4(_mm512_castsi256_si512(_mm512_cvttpd_epi32(lo)), _mm512_cvttpd_epi32(hi), 1);
  }
  // |e - round(e)| < 2e-4: vreduceps gives e - round(e) directly.
  static IMG_AVX512_INLINE __mmask16 NearInteger(F e) {
    return _mm512_cmp_ps_mask(_mm512_abs_ps(_mm512_reduce_ps(e, 0)), _mm512_set1_ps(2e-4f), _CMP_LT_OQ);
  }
  static IMG_AVX512_INLINE bool AnyNearInteger(F a, F b, F c) {
    return (NearInteger(a) | NearInteger(b) | NearInteger(c)) != 0;
  }
  static IMG_AVX512_INLINE bool AnyNearNonzeroInteger(F g, I x, I y) {
    const __mmask16 beyondHalf = _mm512_cmp_ps_mask(_mm512_abs_ps(g), _mm512_set1_ps(0.5f), _CMP_GT_OQ);
    return (NearInteger(g) & beyondHalf &
            _mm512_test_epi32_mask(_mm512_or_si512(x, y), _mm512_or_si512(x, y))) != 0;
  }
};

// trunc(n / 20) (m 52429, shift 4) and trunc(n / 50) (m 41945, shift 5) for
// |n| below 65536 and 21399: the magnitude's (|n| * m) >> (16 + shift) by a
// 16-bit multiply-high, then the sign. Here |n| <= 8646 (cube roots lie in
// 1379..10000).
IMG_AVX512_INLINE __m512i DivSmallSigned(__m512i n, int32_t m, int shift) {
  const __m512i q = _mm512_srli_epi32(_mm512_mulhi_epu16(_mm512_abs_epi32(n), Set(m)), shift);
  return _mm512_mask_sub_epi32(q, _mm512_cmplt_epi32_mask(n, _mm512_setzero_si512()), _mm512_setzero_si512(),
                               q);
}

// Table-driven Lab forward: the RGB-to-XYZ sums computed, their divisions by
// multiply-shift (bounds: the sums of white, 242366280, 255000000 and
// 277632270), the three cube roots gathered, and the L-from-Y, a-scale and
// b-scale reads replaced by their content: L = (y * 903 + 5000) / 10000 below
// y = 89, else (fy * 116 - 155000) / 10000 (numerators 0..1005000, float
// division, see DivF); a = (i + 10) / 20 for (i * 500 + 5000) / 10000 and
// b = (i + 25) / 50 for (i * 200 + 5000) / 10000.
IMG_AVX512 void LabTabFwdRow(const LabTableSet *set, uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  const LabTableSet &t = *set;
  const int32_t *cube = t.CubeRoot;
  int32_t i = first;
  for (; i + 16 <= end; i += 16) {
    const __m512i v = Load48(rgb + 3 * static_cast<ptrdiff_t>(i));
    const __m512i B = Field(v, 0), G = Field(v, 1), R = Field(v, 2);
    const __m512i X = DivMagic<40>(SumZ(R, 412453, G, 357580, B, 180423), 45366877);
    const __m512i Y = DivMagic<43>(SumZ(R, 212671, G, 715160, B, 72169), 344944825);
    const __m512i Z = DivMagic<42>(SumZ(R, 19334, G, 119193, B, 950227), 158413951);
    const __m512i fx = _mm512_i32gather_epi32(X, cube, 4), fy = _mm512_i32gather_epi32(Y, cube, 4),
                  fz = _mm512_i32gather_epi32(Z, cube, 4);
    const __m512i lNum = _mm512_mask_blend_epi32(_mm512_cmplt_epi32_mask(Y, Set(89)),
                                                 _mm512_sub_epi32(MulZ(fy, 116), Set(155000)),
                                                 _mm512_add_epi32(MulZ(Y, 903), Set(5000)));
    const __m512i L = _mm512_cvttps_epi32(_mm512_div_ps(_mm512_cvtepi32_ps(lNum), _mm512_set1_ps(10000.0f)));
    const __m512i a = DivSmallSigned(_mm512_add_epi32(_mm512_sub_epi32(fx, fy), Set(10)), 52429, 4);
    const __m512i b = DivSmallSigned(_mm512_add_epi32(_mm512_sub_epi32(fy, fz), Set(25)), 41945, 5);
    Store48(sp + 3 * static_cast<ptrdiff_t>(i), L, a, b);
  }
  Rest(COLORSPACE_LAB_TABLE, set, rgb, sp, i, end);
}

// One RGB channel of the table-driven Lab inverse: the sum held to
// 0..256000000 (the result clamps to 0..255 anyway), divided by 1000000.
IMG_AVX512_INLINE __m512i LabMixZ(__m512i X, int32_t cx, __m512i Y, int32_t cy, __m512i Z, int32_t cz) {
  return _mm512_min_epi32(DivMagic<48>(ClampZ(SumZ(X, cx, Y, cy, Z, cz), 0, 256000000), 281474977), Set(255));
}

// Table-driven Lab inverse. fy and Y' = Yt * 255 / 10000 depend on L alone:
// they are tabulated for L = 0..100 once per call (on the stack) and
// gathered from there. The X and Z divisions by 10000: g held to 0..10538
// gives X = clamp(g * 242 / 10000, 0, 255) as (g * 406009) >> 24 (products
// below 2^32), g held to 0..10000 gives Z by a multiply-shift of g * 278
// (bound 2780000); each RGB sum held to 0..256000000 is divided by 1000000
// by multiply-shift.
IMG_AVX512 void LabTabInvRow(const LabTableSet *set, uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  // Short runs do not repay the tables built below.
  if (end - first < 64) return Rest(COLORSPACE_LAB_TABLE + kToRgb, set, rgb, sp, first, end);
  const LabTableSet &t = *set;
  int32_t fyOfL[101], yOfL[101];
  for (int32_t L = 0; L <= 100; ++L) {
    const int32_t Yt = t.YFromL[L];
    fyOfL[L] = t.CubeRoot[Yt];
    yOfL[L] = Yt * 255 / 10000;
  }
  const int32_t *inv = t.InvCube;
  int32_t i = first;
  for (; i + 16 <= end; i += 16) {
    const __m512i v = Load48(sp + 3 * static_cast<ptrdiff_t>(i));
    const __m512i L = _mm512_min_epi32(Field(v, 0), Set(100));
    const __m512i a = Sext8Z(Field(v, 1)), b = Sext8Z(Field(v, 2));
    const __m512i fy = _mm512_i32gather_epi32(L, fyOfL, 4), Y = _mm512_i32gather_epi32(L, yOfL, 4);
    const __m512i ix = ClampZ(_mm512_add_epi32(MulZ(a, 20), fy), kInvCubeLow, kInvCubeHigh);
    const __m512i iz = ClampZ(_mm512_sub_epi32(fy, MulZ(b, 50)), kInvCubeLow, kInvCubeHigh);
    const __m512i gx = _mm512_i32gather_epi32(ix, inv, 4), gz = _mm512_i32gather_epi32(iz, inv, 4);
    const __m512i X = _mm512_srli_epi32(MulZ(ClampZ(gx, 0, 10538), 406009), 24);
    const __m512i Z = DivMagic<34>(MulZ(ClampZ(gz, 0, 10000), 278), 1717987);
    Store48(rgb + 3 * static_cast<ptrdiff_t>(i), LabMixZ(X, 55648, Y, -204043, Z, 1057311),
            LabMixZ(X, -969256, Y, 1875992, Z, 41556), LabMixZ(X, 3240479, Y, -1537150, Z, -498535));
  }
  Rest(COLORSPACE_LAB_TABLE + kToRgb, set, rgb, sp, i, end);
}

// ---- Lab in floating point, forward -----------------------------------------------------
//
// The reference takes pow(t, 0.333333) three times a pixel. Here X, Y, Z and
// the branches on them are the reference's own doubles (the same operations
// in the same order, no fused multiply-add); only the power is approximated:
// the cube root by Newton's iteration on t^(-1/3) (y <- y (4 - t y^3) / 3,
// five steps from a guess within 10 %), times t^(-1/3000000) =
// exp(-ln t / 3000000) (0.333333 = 1/3 - 1/3000000), ln t from the exponent
// and five terms of the series of ln(1 + u) around a mantissa of 1.5.
// Relative error below 2e-10 for t in [0.008856, 2] (measured 1.1e-10 over
// 4e7 values; the series' remainder alone is below 4e-11 after the factor
// 1/3000000). L = 116 f - 15.5 is then within 3e-8 of the reference's
// value, a = 500 (fx - fy) and b = 200 (fy - fz) within 3e-7: a lane whose
// L, a or b lies within 1e-6 (L) or 1e-5 (a, b) of an integer is redone with
// the reference formula, so every result is the reference's truncation.

IMG_AVX512_INLINE __m512d Pd(double v) { return _mm512_set1_pd(v); }

// pow(t, 0.333333) within 2e-10 (relative) for t > 0.008856.
IMG_AVX512_INLINE __m512d PowThird(__m512d t) {
  const __m512i guess = _mm512_sub_epi64(
      _mm512_set1_epi64(int64_t{1364} << 52),
      _mm512_cvttpd_epi64(_mm512_mul_pd(_mm512_cvtepi64_pd(_mm512_castpd_si512(t)), Pd(1.0 / 3))));
  __m512d y = _mm512_castsi512_pd(guess);
  for (int i = 0; i < 5; ++i) {
    const __m512d y3 = _mm512_mul_pd(_mm512_mul_pd(y, y), y);
    y = _mm512_mul_pd(_mm512_mul_pd(y, _mm512_sub_pd(Pd(4), _mm512_mul_pd(t, y3))), Pd(1.0 / 3));
  }
  const __m512d root = _mm512_mul_pd(_mm512_mul_pd(t, y), y);
  const __m512d e = _mm512_getexp_pd(t);
  const __m512d m = _mm512_getmant_pd(t, _MM_MANT_NORM_1_2, _MM_MANT_SIGN_src);
  const __m512d u = _mm512_mul_pd(_mm512_sub_pd(m, Pd(1.5)), Pd(2.0 / 3));
  __m512d series = _mm512_sub_pd(Pd(0.25), _mm512_mul_pd(u, Pd(0.2)));
  series = _mm512_sub_pd(Pd(1.0 / 3), _mm512_mul_pd(u, series));
  series = _mm512_sub_pd(Pd(0.5), _mm512_mul_pd(u, series));
  series = _mm512_sub_pd(Pd(1), _mm512_mul_pd(u, series));
  const __m512d ln = _mm512_add_pd(_mm512_mul_pd(e, Pd(0.6931471805599453)),
                                   _mm512_add_pd(Pd(0.4054651081081644), _mm512_mul_pd(u, series)));
  const __m512d x = _mm512_mul_pd(ln, Pd(-1.0 / 3000000));
  const __m512d correction =
      _mm512_add_pd(_mm512_add_pd(Pd(1), x), _mm512_mul_pd(_mm512_mul_pd(x, x), Pd(0.5)));
  return _mm512_mul_pd(root, correction);
}

// LabF with the power approximated: the linear branch is the reference's.
IMG_AVX512_INLINE __m512d LabFFast(__m512d t) {
  const __mmask8 curve = _mm512_cmp_pd_mask(t, Pd(0.008856), _CMP_GT_OQ);
  const __m512d line = _mm512_add_pd(_mm512_mul_pd(Pd(7.787), t), Pd(0.137931));
  return _mm512_mask_blend_pd(curve, line, PowThird(t));
}

// Lanes whose value lies within `margin` of an integer.
IMG_AVX512_INLINE __mmask8 NearIntegerD(__m512d v, double margin) {
  return _mm512_cmp_pd_mask(_mm512_abs_pd(_mm512_reduce_pd(v, 0)), Pd(margin), _CMP_LT_OQ);
}

// cr R + cg G + cb B in the reference's order.
IMG_AVX512_INLINE __m512d WeightedSum(__m512d R, __m512d G, __m512d B, double cr, double cg, double cb) {
  return _mm512_add_pd(_mm512_add_pd(_mm512_mul_pd(Pd(cr), R), _mm512_mul_pd(Pd(cg), G)),
                       _mm512_mul_pd(Pd(cb), B));
}

// Two sets of eight 32-bit lanes as sixteen.
IMG_AVX512_INLINE __m512i Join(__m256i lo, __m256i hi) {
  return _mm512_inserti64x4(_mm512_castsi256_si512(lo), hi, 1);
}

// The constants of the 8- and 16-bit forms, with the margins of their checks
// (the 16-bit L, a and b are 100, 257 and 257 times larger, and so are their
// errors: within 3e-6 for L and 8e-5 for a and b).
struct LabScale {
  double yDiv, xn, zn, lMul, lSub, lLine, aMul, bMul, lMax, lMargin, abMargin;
};
constexpr LabScale kLab8{255, kXn8, kZn8, 116, 16, 903.3, 500, 200, 255, 1e-6, 1e-5};
constexpr LabScale kLab16{65535, kXn16, kZn16, 11600, 1600, 90330, 128500, 51400, 65535, 1e-5, 1e-4};

// Eight pixels (doubles R, G, B): L clamped to 0..lMax, a and b truncated;
// the lanes to redo with the reference are returned.
IMG_AVX512_INLINE __mmask8 LabFwdLanes(const LabScale &c, __m512d R, __m512d G, __m512d B, __m256i &L,
                                       __m256i &a, __m256i &b) {
  const __m512d Yr = _mm512_div_pd(WeightedSum(R, G, B, 0.212671, 0.715160, 0.072169), Pd(c.yDiv));
  const __m512d Xr = _mm512_div_pd(WeightedSum(R, G, B, 0.412453, 0.357580, 0.180423), Pd(c.xn));
  const __m512d Zr = _mm512_div_pd(WeightedSum(R, G, B, 0.019334, 0.119193, 0.950227), Pd(c.zn));
  const __m512d fx = LabFFast(Xr), fy = LabFFast(Yr), fz = LabFFast(Zr);
  const __mmask8 curve = _mm512_cmp_pd_mask(Yr, Pd(0.008856), _CMP_GT_OQ);
  const __m512d lCurve = _mm512_add_pd(_mm512_sub_pd(_mm512_mul_pd(Pd(c.lMul), fy), Pd(c.lSub)), Pd(0.5));
  const __m512d lLine = _mm512_add_pd(_mm512_mul_pd(Pd(c.lLine), Yr), Pd(0.5));
  const __m512d l = _mm512_mask_blend_pd(curve, lLine, lCurve);
  const __m512d av = _mm512_mul_pd(Pd(c.aMul), _mm512_sub_pd(fx, fy));
  const __m512d bv = _mm512_mul_pd(Pd(c.bMul), _mm512_sub_pd(fy, fz));
  L = _mm512_cvttpd_epi32(_mm512_min_pd(_mm512_max_pd(l, Pd(0)), Pd(c.lMax)));
  a = _mm512_cvttpd_epi32(av);
  b = _mm512_cvttpd_epi32(bv);
  return NearIntegerD(l, c.lMargin) | NearIntegerD(av, c.abMargin) | NearIntegerD(bv, c.abMargin);
}

IMG_AVX512 void LabFwdRow(const LabTableSet *set, uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  int32_t i = first;
  for (; i + 16 <= end; i += 16) {
    const __m512i v = Load48(rgb + 3 * static_cast<ptrdiff_t>(i));
    const __m512i B = Field(v, 0), G = Field(v, 1), R = Field(v, 2);
    __m256i L[2], a[2], b[2];
    __mmask16 redo = 0;
    for (int h = 0; h < 2; ++h)
      redo |= static_cast<__mmask16>(
          LabFwdLanes(kLab8, Lanes::Half(R, h), Lanes::Half(G, h), Lanes::Half(B, h), L[h], a[h], b[h])
          << (8 * h));
    uint8_t *q = sp + 3 * static_cast<ptrdiff_t>(i);
    Store48(q, Join(L[0], L[1]), Join(a[0], a[1]), Join(b[0], b[1]));
    for (; redo != 0; redo &= static_cast<__mmask16>(redo - 1)) {
      const int32_t k = __builtin_ctz(redo);
      const uint8_t *c = rgb + 3 * static_cast<ptrdiff_t>(i + k);
      ForwardPixel8(COLORSPACE_LAB, c[2], c[1], c[0], q + 3 * k);
    }
  }
  Rest(COLORSPACE_LAB, set, rgb, sp, i, end);
}

// ---- 16-bit rows ------------------------------------------------------------------------
//
// Eight pixels of three 16-bit samples: one masked 48-byte load, each field
// spread to 32-bit lanes by a word permute; written back by one word permute
// and a masked 48-byte store.

constexpr __mmask32 k24Words = 0xFFFFFF;

IMG_AVX512_INLINE __m512d Field16(__m512i v, int f) {
  const __m512i idx = _mm512_add_epi16(_mm512_setr_epi32(0, 3, 6, 9, 12, 15, 18, 21, 0, 0, 0, 0, 0, 0, 0, 0),
                                       _mm512_set1_epi32(f));
  return _mm512_cvtepi32_pd(_mm512_castsi512_si256(_mm512_maskz_permutexvar_epi16(0x5555, idx, v)));
}

// Writes the low 16 bits of the eight lanes of f0, f1, f2 as eight pixels.
IMG_AVX512_INLINE void Store16x3(uint16_t *q, __m256i f0, __m256i f1, __m256i f2) {
  static constexpr std::array<uint16_t, 32> kIdx = [] {
    std::array<uint16_t, 32> m{};
    for (int j = 0; j < 24; ++j) m[j] = static_cast<uint16_t>(16 * (j % 3) + 2 * (j / 3));
    return m;
  }();
  const __m512i idx = _mm512_loadu_si512(kIdx.data());
  _mm512_mask_storeu_epi16(q, k24Words,
                           _mm512_permutex2var_epi16(Join(f0, f1), idx, _mm512_castsi256_si512(f2)));
}

IMG_AVX512_INLINE __m256i TruncClampD(__m512d v, double lo, double hi) {
  return _mm512_cvttpd_epi32(_mm512_min_pd(_mm512_max_pd(v, Pd(lo)), Pd(hi)));
}

// ---- HSV both ways ------------------------------------------------------------------

// Forward, sixteen pixels in 32-bit lanes: the AVX2 loop's formulas (the
// sector of the smallest component, the two quotients by single-precision
// division, exact as said there) on one 48-byte load split by byte permutes.
IMG_AVX512 void HsvFwdRow(const LabTableSet *set, uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  int32_t i = first;
  const __m512i one = Set(1);
  for (; i + 16 <= end; i += 16) {
    const __m512i v = Load48(rgb + 3 * static_cast<ptrdiff_t>(i));
    const __m512i B = Field(v, 0), G = Field(v, 1), R = Field(v, 2);
    const __m512i mx = _mm512_max_epi32(_mm512_max_epi32(R, G), B);
    const __m512i mn = _mm512_min_epi32(_mm512_min_epi32(R, G), B);
    // Blue first, then red, then green; a gray pixel: blue sector, hue 0.
    const __mmask16 minB = _mm512_cmpeq_epi32_mask(B, mn), minR = _mm512_cmpeq_epi32_mask(R, mn);
    const __m512i num = _mm512_mask_blend_epi32(minB, _mm512_mask_blend_epi32(minR, R, B), G);
    const __m512i other = _mm512_mask_blend_epi32(minB, _mm512_mask_blend_epi32(minR, B, G), R);
    const __m512i off = _mm512_maskz_mov_epi32(static_cast<__mmask16>(~minB),
                                               _mm512_mask_blend_epi32(minR, Set(240), Set(120)));
    const __m512i n = _mm512_sub_epi32(num, mn);
    const __m512i den = _mm512_max_epi32(_mm512_sub_epi32(_mm512_add_epi32(n, other), mn), one);
    const __m512i h = _mm512_add_epi32(
        _mm512_cvttps_epi32(_mm512_div_ps(_mm512_cvtepi32_ps(MulZ(n, 120)), _mm512_cvtepi32_ps(den))), off);
    const __m512i s =
        _mm512_cvttps_epi32(_mm512_div_ps(_mm512_cvtepi32_ps(MulZ(_mm512_sub_epi32(mx, mn), 100)),
                                          _mm512_cvtepi32_ps(_mm512_max_epi32(mx, one))));
    _mm512_storeu_si512(
        sp + 4 * static_cast<ptrdiff_t>(i),
        _mm512_or_si512(_mm512_or_si512(h, _mm512_slli_epi32(s, 16)), _mm512_slli_epi32(mx, 24)));
  }
  Rest(COLORSPACE_HSV, set, rgb, sp, i, end);
}

// Multipliers of the inverse's middle-value quotient m / D, D = 60..120:
// M = ceil(2^21 / D) < 2^16, and (m M) >> 21 = floor(m / D) while
// m (M D - 2^21) < 2^21; M D - 2^21 < D <= 120 and m <= 60 * 255 = 15300,
// so 15300 * 120 < 2^21 holds. Entries past 60 are never read.
constexpr std::array<uint16_t, 64> kHsvMidRecip = [] {
  std::array<uint16_t, 64> m{};
  for (int k = 0; k < 64; ++k) {
    const uint32_t d = static_cast<uint32_t>(k <= 60 ? 60 + k : 120);
    m[k] = static_cast<uint16_t>(((1u << 21) + d - 1) / d);
  }
  return m;
}();
constexpr bool HsvMidRecipExact() {
  for (uint32_t d = 60; d <= 120; ++d)
    if (((1u << 21) + d - 1) / d >= 65536 ||
        (((1u << 21) + d - 1) / d * d - (1u << 21)) * 15300 >= (1u << 21))
      return false;
  return true;
}
static_assert(HsvMidRecipExact());

// Byte j of the 96 written for 32 pixels: field j % 3 of pixel j / 3, from the
// blue (bytes 0..31) and green (32..63) halves of the first table or the red
// bytes of the second (64..).
constexpr std::array<uint8_t, 128> kStore96 = [] {
  std::array<uint8_t, 128> m{};
  for (int j = 0; j < 96; ++j) m[j] = static_cast<uint8_t>(32 * (j % 3) + j / 3);
  return m;
}();

IMG_AVX512_INLINE __m512i W(int v) { return _mm512_set1_epi16(static_cast<int16_t>(v)); }

// The bytes of V, the middle value or low, as the lane's sector bit in the
// masks isV and isMid says.
IMG_AVX512_INLINE __m256i HsvPick(__m512i bit, __m512i isV, __m512i isMid, __m512i V, __m512i mid,
                                  __m512i low) {
  const __m512i lm = _mm512_mask_blend_epi16(_mm512_test_epi16_mask(bit, isMid), low, mid);
  return _mm512_cvtepi16_epi8(_mm512_mask_blend_epi16(_mm512_test_epi16_mask(bit, isV), lm, V));
}

// Inverse, thirty-two pixels in 16-bit lanes (every intermediate below
// 2^16): low = (100 - S) V / 100 by Div100's multiply-high, the middle value
// min(t, u) d / max(t, u) + low with max(t, u) in 60..120 by the multipliers
// above (one word permute fetches them), the sector (H - 1) / 60 by Div60's
// multiply-high (H = 0 held to 1), and each channel V, the middle value or
// low as the sector's bit in its two masks says. Hues above 359 and
// saturations above 100 take the pixel formula, as in the AVX2 loop.
IMG_AVX512 void HsvInvRow(const LabTableSet *set, uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  int32_t i = first;
  const __m512i recipLo = _mm512_loadu_si512(kHsvMidRecip.data()),
                recipHi = _mm512_loadu_si512(kHsvMidRecip.data() + 32);
  const __m512i store0 = _mm512_loadu_si512(kStore96.data()),
                store1 = _mm512_loadu_si512(kStore96.data() + 64);
  __m512i hIdx, svIdx;
  {
    alignas(64) uint16_t a[32], b[32];
    for (int k = 0; k < 32; ++k) a[k] = static_cast<uint16_t>(2 * k), b[k] = static_cast<uint16_t>(2 * k + 1);
    hIdx = _mm512_load_si512(a), svIdx = _mm512_load_si512(b);
  }
  // Sectors (bits 0..5) in which a channel takes V, and the middle value.
  const __m512i rV = W(0x21), rMid = W(0x12), gV = W(0x06), gMid = W(0x09), bV = W(0x18), bMid = W(0x24);
  for (; i + 32 <= end; i += 32) {
    const uint8_t *p = sp + 4 * static_cast<ptrdiff_t>(i);
    const __m512i a = _mm512_loadu_si512(p), b = _mm512_loadu_si512(p + 64);
    const __m512i H = _mm512_permutex2var_epi16(a, hIdx, b), sv = _mm512_permutex2var_epi16(a, svIdx, b);
    const __m512i S = _mm512_and_si512(sv, W(0xFF)), V = _mm512_srli_epi16(sv, 8);
    const __mmask32 odd = _mm512_cmpgt_epu16_mask(H, W(359)) | _mm512_cmpgt_epu16_mask(S, W(100));
    const __m512i low = _mm512_srli_epi16(
        _mm512_mulhi_epu16(_mm512_mullo_epi16(_mm512_sub_epi16(W(100), S), V), W(41944)), 6);
    const __m512i d = _mm512_sub_epi16(V, low);
    __m512i t = _mm512_mask_sub_epi16(H, _mm512_cmpgt_epu16_mask(H, W(120)), H, W(120));
    t = _mm512_mask_sub_epi16(t, _mm512_cmpgt_epu16_mask(H, W(240)), t, W(120));
    const __m512i u = _mm512_sub_epi16(W(120), t);
    const __m512i m =
        _mm512_permutex2var_epi16(recipLo, _mm512_sub_epi16(_mm512_max_epu16(t, u), W(60)), recipHi);
    const __m512i mid = _mm512_add_epi16(
        _mm512_srli_epi16(_mm512_mulhi_epu16(_mm512_mullo_epi16(_mm512_min_epu16(t, u), d), m), 5), low);
    const __m512i sector =
        _mm512_srli_epi16(_mm512_mulhi_epu16(_mm512_sub_epi16(_mm512_max_epu16(H, W(1)), W(1)), W(34953)), 5);
    const __m512i bit = _mm512_sllv_epi16(W(1), sector);
    const __m512i bg = _mm512_inserti64x4(_mm512_castsi256_si512(HsvPick(bit, bV, bMid, V, mid, low)),
                                          HsvPick(bit, gV, gMid, V, mid, low), 1);
    const __m512i r = _mm512_castsi256_si512(HsvPick(bit, rV, rMid, V, mid, low));
    uint8_t *q = rgb + 3 * static_cast<ptrdiff_t>(i);
    _mm512_storeu_si512(q, _mm512_permutex2var_epi8(bg, store0, r));
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(q + 64),
                        _mm512_castsi512_si256(_mm512_permutex2var_epi8(bg, store1, r)));
    for (uint32_t bits = odd; bits != 0; bits &= bits - 1) {
      const int j = __builtin_ctz(bits);
      const Rgb c = HsvInverse8(p + 4 * j);
      q[3 * j] = static_cast<uint8_t>(c.b), q[3 * j + 1] = static_cast<uint8_t>(c.g),
            q[3 * j + 2] = static_cast<uint8_t>(c.r);
    }
  }
  Rest(COLORSPACE_HSV + kToRgb, set, rgb, sp, i, end);
}

}  // namespace

// The 16-bit floating Lab forward row: eight pixels a step, the 8-bit scheme
// with the 16-bit constants (see LabFwdLanes); the rest of the run and the
// lanes near an integer through the reference.
IMG_AVX512 void LabFwdRow16Avx512(uint16_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  int32_t i = first;
  for (; i + 8 <= end; i += 8) {
    const __m512i v = _mm512_maskz_loadu_epi16(k24Words, rgb + 3 * static_cast<ptrdiff_t>(i));
    __m256i L, a, b;
    __mmask8 redo = LabFwdLanes(kLab16, Field16(v, 2), Field16(v, 1), Field16(v, 0), L, a, b);
    alignas(32) int32_t out[3][8];
    _mm256_store_si256(reinterpret_cast<__m256i *>(out[0]), L);
    _mm256_store_si256(reinterpret_cast<__m256i *>(out[1]), a);
    _mm256_store_si256(reinterpret_cast<__m256i *>(out[2]), b);
    for (int k = 0; k < 8; ++k) {
      uint8_t *p = sp + 6 * static_cast<ptrdiff_t>(i + k);
      Put16(p, out[0][k]), Put16(p + 2, out[1][k]), Put16(p + 4, out[2][k]);
    }
    for (; redo != 0; redo &= static_cast<__mmask8>(redo - 1)) {
      const int32_t k = __builtin_ctz(redo);
      Row16(COLORSPACE_LAB, rgb, sp, nullptr, i + k, i + k + 1);
    }
  }
  if (i < end) Row16(COLORSPACE_LAB, rgb, sp, nullptr, i, end);
}

// The 16-bit YCrCb rows in doubles, eight a vector: the reference's
// operations in its order (no fused multiply-add) and its clamps, so the
// same bits by construction; the rest of the run through the reference.
IMG_AVX512 void YcrcbRow16Avx512(bool inverse, uint16_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  const uint32_t code = inverse ? COLORSPACE_YCRCB + kToRgb : COLORSPACE_YCRCB;
  int32_t i = first;
  for (; i + 8 <= end; i += 8) {
    uint16_t *q = rgb + 3 * static_cast<ptrdiff_t>(i);
    uint16_t *p = reinterpret_cast<uint16_t *>(sp) + 3 * static_cast<ptrdiff_t>(i);
    if (!inverse) {
      const __m512i v = _mm512_maskz_loadu_epi16(k24Words, q);
      const __m512d B = Field16(v, 0), G = Field16(v, 1), R = Field16(v, 2);
      const __m512d y = WeightedSum(R, G, B, 0.299, 0.587, 0.114);
      const __m512d cr =
          _mm512_sub_pd(_mm512_sub_pd(_mm512_mul_pd(Pd(0.5), R), _mm512_mul_pd(Pd(0.41869), G)),
                        _mm512_mul_pd(Pd(0.08131), B));
      const __m512d cb =
          _mm512_add_pd(_mm512_sub_pd(_mm512_mul_pd(Pd(-0.16874), R), _mm512_mul_pd(Pd(0.33126), G)),
                        _mm512_mul_pd(Pd(0.5), B));
      Store16x3(p, TruncClampD(y, 0, 65535), TruncClampD(cr, -32768, 32767), TruncClampD(cb, -32768, 32767));
    } else {
      const __m512i v = _mm512_maskz_loadu_epi16(k24Words, p);
      const __m512d Y = Field16(v, 0);
      // Cr and Cb are signed: the low 16 bits of the lanes, sign-extended.
      const __m512i raw = _mm512_maskz_permutexvar_epi16(
          0x5555, _mm512_setr_epi32(1, 4, 7, 10, 13, 16, 19, 22, 0, 0, 0, 0, 0, 0, 0, 0), v);
      const __m512i raw2 = _mm512_maskz_permutexvar_epi16(
          0x5555, _mm512_setr_epi32(2, 5, 8, 11, 14, 17, 20, 23, 0, 0, 0, 0, 0, 0, 0, 0), v);
      const __m512d Cr =
          _mm512_cvtepi32_pd(_mm512_castsi512_si256(_mm512_srai_epi32(_mm512_slli_epi32(raw, 16), 16)));
      const __m512d Cb =
          _mm512_cvtepi32_pd(_mm512_castsi512_si256(_mm512_srai_epi32(_mm512_slli_epi32(raw2, 16), 16)));
      const __m512d r = _mm512_add_pd(Y, _mm512_mul_pd(Pd(1.402), Cr));
      const __m512d g = _mm512_sub_pd(_mm512_sub_pd(Y, _mm512_mul_pd(Pd(0.3441363), Cb)),
                                      _mm512_mul_pd(Pd(0.71413636), Cr));
      const __m512d b = _mm512_add_pd(Y, _mm512_mul_pd(Pd(1.772), Cb));
      Store16x3(q, TruncClampD(b, 0, 65535), TruncClampD(g, 0, 65535), TruncClampD(r, 0, 65535));
    }
  }
  if (i < end) Row16(code, rgb, sp, nullptr, i, end);
}

// The 16-bit floating Lab inverse, eight pixels a step: Yr and f(Yr) (one
// pow) of each L met are computed once by the reference's own steps and kept
// in 4096 slots (L mod 4096); the rest runs in doubles with the reference's
// operations in its order (both branches of the inverse f, then a blend), so
// the same bits by construction.
IMG_AVX512_INLINE __m512d LabFInvD(__m512d f) {
  const __mmask8 cube = _mm512_cmp_pd_mask(f, Pd(0.206893), _CMP_GT_OQ);
  const __m512d line = _mm512_div_pd(_mm512_sub_pd(f, Pd(0.137931)), Pd(7.787));
  return _mm512_mask_blend_pd(cube, line, _mm512_mul_pd(_mm512_mul_pd(f, f), f));
}

IMG_AVX512_INLINE __m512d MixD(__m512d X, __m512d Y, __m512d Z, double cx, double cy, double cz) {
  const __m512d xy = cy < 0 ? _mm512_sub_pd(_mm512_mul_pd(Pd(cx), X), _mm512_mul_pd(Pd(-cy), Y))
                            : _mm512_add_pd(_mm512_mul_pd(Pd(cx), X), _mm512_mul_pd(Pd(cy), Y));
  const __m512d xyz =
      cz < 0 ? _mm512_sub_pd(xy, _mm512_mul_pd(Pd(-cz), Z)) : _mm512_add_pd(xy, _mm512_mul_pd(Pd(cz), Z));
  return _mm512_add_pd(xyz, Pd(0.5));
}

IMG_AVX512 void LabInvRow16Avx512(uint16_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  alignas(64) int32_t keys[4096];
  alignas(64) double yr[4096], fy[4096];
  for (int32_t &k : keys) k = -1;
  int32_t i = first;
  for (; i + 8 <= end; i += 8) {
    const uint16_t *p = reinterpret_cast<const uint16_t *>(sp) + 3 * static_cast<ptrdiff_t>(i);
    alignas(32) int32_t slot[8];
    for (int k = 0; k < 8; ++k) {
      const int32_t L = p[3 * k], s = L & 4095;
      if (keys[s] != L) {
        const LabY y = LabY16(L);
        keys[s] = L, yr[s] = y.yr, fy[s] = y.fy;
      }
      slot[k] = s;
    }
    // Two pixels of the step whose L share a slot: the first one's entry is
    // gone; the step goes through the reference.
    bool kept = true;
    for (int k = 0; k < 8; ++k) kept = kept && keys[slot[k]] == p[3 * k];
    if (!kept) {
      Row16(COLORSPACE_LAB + kToRgb, rgb, sp, nullptr, i, i + 8);
      continue;
    }
    const __m256i at = _mm256_load_si256(reinterpret_cast<const __m256i *>(slot));
    const __m512d Yr = _mm512_i32gather_pd(at, yr, 8), Fy = _mm512_i32gather_pd(at, fy, 8);
    const __m512i v = _mm512_maskz_loadu_epi16(k24Words, p);
    const __m512i ra = _mm512_maskz_permutexvar_epi16(
        0x5555, _mm512_setr_epi32(1, 4, 7, 10, 13, 16, 19, 22, 0, 0, 0, 0, 0, 0, 0, 0), v);
    const __m512i rb = _mm512_maskz_permutexvar_epi16(
        0x5555, _mm512_setr_epi32(2, 5, 8, 11, 14, 17, 20, 23, 0, 0, 0, 0, 0, 0, 0, 0), v);
    const __m512d a =
        _mm512_cvtepi32_pd(_mm512_castsi512_si256(_mm512_srai_epi32(_mm512_slli_epi32(ra, 16), 16)));
    const __m512d b =
        _mm512_cvtepi32_pd(_mm512_castsi512_si256(_mm512_srai_epi32(_mm512_slli_epi32(rb, 16), 16)));
    const __m512d fx = _mm512_add_pd(_mm512_div_pd(a, Pd(128500.0)), Fy);
    const __m512d fz = _mm512_sub_pd(Fy, _mm512_div_pd(b, Pd(51400.0)));
    const __m512d X = _mm512_mul_pd(Pd(kXn16), LabFInvD(fx)), Y = _mm512_mul_pd(Pd(65535), Yr),
                  Z = _mm512_mul_pd(Pd(kZn16), LabFInvD(fz));
    const __m512d R = MixD(X, Y, Z, 3.240479, -1.53715, -0.498535);
    const __m512d G = MixD(X, Y, Z, -0.969256, 1.875992, 0.041556);
    const __m512d B = MixD(X, Y, Z, 0.055648, -0.204043, 1.057311);
    Store16x3(rgb + 3 * static_cast<ptrdiff_t>(i), TruncClampD(B, 0, 65535), TruncClampD(G, 0, 65535),
              TruncClampD(R, 0, 65535));
  }
  if (i < end) Row16(COLORSPACE_LAB + kToRgb, rgb, sp, nullptr, i, end);
}

#pragma GCC diagnostic pop

const SpaceLoops kAvx512Loops = {{nullptr, HsvFwdRow, nullptr, nullptr, YcrcbFwdRow<Lanes>, nullptr,
                                  LabFwdRow, nullptr, nullptr, LabTabFwdRow, nullptr},
                                 {nullptr, HsvInvRow, nullptr, nullptr, YcrcbInvRow<Lanes>, nullptr, nullptr,
                                  nullptr, nullptr, LabTabInvRow, nullptr}};

}  // namespace img::clrspc
