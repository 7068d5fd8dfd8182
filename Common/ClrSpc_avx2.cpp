// Colour-space conversions, the AVX2 loops (Isa::Avx2): eight pixels at a
// time in 32-bit lanes, for HSV, HLS, XYZ, YCrCb and YUV both ways and the
// table-driven Lab inverse; the rest of a run goes to the loops below
// (ClrSpc_sse2.cpp). Every function carries target("avx2"): the file is
// compiled for the baseline.
//
// Floating-point formulas run on four doubles a vector with the operations
// in the order written (no fused multiply-add); truncation is
// _mm256_cvttpd_epi32 followed by an integer clamp, which equals the
// reference's clamp and truncation. Integer divisions use one of two exact
// replacements:
// - float division: for 0 <= |n| < 2^24 and 0 < d < 2^24, trunc(n / d) in
//   single precision is the integer quotient (n and d are exact; a non-integer
//   quotient lies at least 1/d from an integer, the rounding error is below
//   2^-8 / d);
// - 16-bit multiply-high by a constant (Div60, Div100) for the numerators
//   bounded below.
#include <immintrin.h>

#include "ClrSpc_internal.h"

#define IMG_LANES_TARGET "avx2"
#include "ClrSpc_lanes.h"

namespace img::clrspc {

namespace {

// The pixels a loop leaves over, through the levels below.
void Rest(uint32_t code, const LabTableSet *set, uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  if (first < end) RowBelow(Isa::Avx2, code)(set, rgb, sp, first, end);
}

#define IMG_AVX2 __attribute__((target("avx2")))
#define IMG_AVX2_INLINE __attribute__((target("avx2"), always_inline)) inline

// Field `c` (0..2) of the eight 3-byte pixels at q, zero-extended to 32 bits.
// The low half takes bytes 0..15 (pixels 0..3), the high half bytes 8..23
// (pixels 4..7 at offsets 4..15): no byte past the 24 is read.
IMG_AVX2_INLINE __m256i Load3(const uint8_t *q, int c) {
  const __m256i v =
      _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i *>(q))),
                              _mm_loadu_si128(reinterpret_cast<const __m128i *>(q + 8)), 1);
  const char z = static_cast<char>(0x80);
  const char a = static_cast<char>(c), b = static_cast<char>(c + 4);
  const __m256i m = _mm256_setr_epi8(a, z, z, z, a + 3, z, z, z, a + 6, z, z, z, a + 9, z, z, z,  //
                                     b, z, z, z, b + 3, z, z, z, b + 6, z, z, z, b + 9, z, z, z);
  return _mm256_shuffle_epi8(v, m);
}

// Byte 0 of each 32-bit lane of v moved to bytes c, c + 3, c + 6, c + 9 of its
// 128-bit half, every other byte zero.
IMG_AVX2_INLINE __m256i Spread3(__m256i v, int c) {
  char m[16];
  for (int k = 0; k < 16; ++k) m[k] = static_cast<char>(k < 12 && k % 3 == c ? (k / 3) * 4 : 0x80);
  const __m128i h = _mm_loadu_si128(reinterpret_cast<const __m128i *>(m));
  return _mm256_shuffle_epi8(v, _mm256_inserti128_si256(_mm256_castsi128_si256(h), h, 1));
}

// Writes the low bytes of f0, f1, f2 as eight 3-byte pixels (exactly 24 bytes).
IMG_AVX2_INLINE void Store3(uint8_t *q, __m256i f0, __m256i f1, __m256i f2) {
  const __m256i v = _mm256_or_si256(_mm256_or_si256(Spread3(f0, 0), Spread3(f1, 1)), Spread3(f2, 2));
  const __m128i lo = _mm256_castsi256_si128(v), hi = _mm256_extracti128_si256(v, 1);
  _mm_storel_epi64(reinterpret_cast<__m128i *>(q), lo);
  const int32_t lo2 = _mm_extract_epi32(lo, 2), hi2 = _mm_extract_epi32(hi, 2);
  std::memcpy(q + 8, &lo2, 4);
  _mm_storel_epi64(reinterpret_cast<__m128i *>(q + 12), hi);
  std::memcpy(q + 20, &hi2, 4);
}

IMG_AVX2_INLINE __m256i Sext8(__m256i v) { return _mm256_srai_epi32(_mm256_slli_epi32(v, 24), 24); }
IMG_AVX2_INLINE __m256i ClampI(__m256i v, int32_t lo, int32_t hi) {
  return _mm256_min_epi32(_mm256_max_epi32(v, _mm256_set1_epi32(lo)), _mm256_set1_epi32(hi));
}
IMG_AVX2_INLINE __m256i Select(__m256i mask, __m256i yes, __m256i no) {
  return _mm256_blendv_epi8(no, yes, mask);
}
IMG_AVX2_INLINE __m256i Gt(__m256i a, int32_t b) { return _mm256_cmpgt_epi32(a, _mm256_set1_epi32(b)); }

// Integer quotient n / d through single-precision division (see above).
IMG_AVX2_INLINE __m256i DivF(__m256i n, __m256i d) {
  return _mm256_cvttps_epi32(_mm256_div_ps(_mm256_cvtepi32_ps(n), _mm256_cvtepi32_ps(d)));
}
// n / 100 for 0 <= n < 43690: (n * 41944) >> 22, the error n * 96 / 2^22
// staying below one step of 1/100.
IMG_AVX2_INLINE __m256i Div100(__m256i n) {
  return _mm256_srli_epi32(_mm256_mulhi_epu16(n, _mm256_set1_epi32(41944)), 6);
}
// n / 60 for 0 <= n < 65536: (n * 34953) >> 21 (error n * 28 / 2^21).
IMG_AVX2_INLINE __m256i Div60(__m256i n) {
  return _mm256_srli_epi32(_mm256_mulhi_epu16(n, _mm256_set1_epi32(34953)), 5);
}

// Four doubles from each half of an integer vector, and back with truncation.
IMG_AVX2_INLINE __m256d Lo(__m256i v) { return _mm256_cvtepi32_pd(_mm256_castsi256_si128(v)); }
IMG_AVX2_INLINE __m256d Hi(__m256i v) { return _mm256_cvtepi32_pd(_mm256_extracti128_si256(v, 1)); }
IMG_AVX2_INLINE __m256i Trunc(__m256d lo, __m256d hi) {
  return _mm256_inserti128_si256(_mm256_castsi128_si256(_mm256_cvttpd_epi32(lo)), _mm256_cvttpd_epi32(hi), 1);
}
IMG_AVX2_INLINE __m256d K(double c) { return _mm256_set1_pd(c); }
// ((c0 x + c1 y) + c2 z), each product rounded on its own.
IMG_AVX2_INLINE __m256d Mix(double c0, __m256d x, double c1, __m256d y, double c2, __m256d z) {
  return _mm256_add_pd(_mm256_add_pd(_mm256_mul_pd(K(c0), x), _mm256_mul_pd(K(c1), y)),
                       _mm256_mul_pd(K(c2), z));
}
// Same with subtractions where the formulas write them, as (c0 x - c1 y) - c2 z.
IMG_AVX2_INLINE __m256d MixSS(double c0, __m256d x, double c1, __m256d y, double c2, __m256d z) {
  return _mm256_sub_pd(_mm256_sub_pd(_mm256_mul_pd(K(c0), x), _mm256_mul_pd(K(c1), y)),
                       _mm256_mul_pd(K(c2), z));
}
IMG_AVX2_INLINE __m256d MixSA(double c0, __m256d x, double c1, __m256d y, double c2, __m256d z) {
  return _mm256_add_pd(_mm256_sub_pd(_mm256_mul_pd(K(c0), x), _mm256_mul_pd(K(c1), y)),
                       _mm256_mul_pd(K(c2), z));
}

IMG_AVX2 void XyzFwdRow(const LabTableSet *set, uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  int32_t i = first;
  for (; i + 8 <= end; i += 8) {
    const uint8_t *q = rgb + 3 * static_cast<ptrdiff_t>(i);
    const __m256i R = Load3(q, 2), G = Load3(q, 1), B = Load3(q, 0);
    __m256i out[3];
    const __m256d r[2] = {Lo(R), Hi(R)}, g[2] = {Lo(G), Hi(G)}, b[2] = {Lo(B), Hi(B)};
    __m256d x[2], y[2], z[2];
    for (int h = 0; h < 2; ++h) {
      x[h] = Mix(0.412453, r[h], 0.357580, g[h], 0.189423, b[h]);
      y[h] = Mix(0.212671, r[h], 0.715160, g[h], 0.072169, b[h]);
      z[h] = Mix(0.019334, r[h], 0.119193, g[h], 0.950227, b[h]);
    }
    out[0] = ClampI(Trunc(x[0], x[1]), 0, 255);
    out[1] = ClampI(Trunc(y[0], y[1]), 0, 255);
    out[2] = ClampI(Trunc(z[0], z[1]), 0, 255);
    Store3(sp + 3 * static_cast<ptrdiff_t>(i), out[0], out[1], out[2]);
  }
  Rest(COLORSPACE_XYZ, set, rgb, sp, i, end);
}

IMG_AVX2 void XyzInvRow(const LabTableSet *set, uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  int32_t i = first;
  for (; i + 8 <= end; i += 8) {
    const uint8_t *p = sp + 3 * static_cast<ptrdiff_t>(i);
    const __m256i X = Load3(p, 0), Y = Load3(p, 1), Z = Load3(p, 2);
    const __m256d x[2] = {Lo(X), Hi(X)}, y[2] = {Lo(Y), Hi(Y)}, z[2] = {Lo(Z), Hi(Z)};
    __m256d r[2], g[2], b[2];
    for (int h = 0; h < 2; ++h) {
      r[h] = MixSS(3.240479, x[h], 1.53715, y[h], 0.498535, z[h]);
      g[h] = Mix(-0.969256, x[h], 1.875992, y[h], 0.041556, z[h]);
      b[h] = MixSA(0.055648, x[h], 0.204043, y[h], 1.057311, z[h]);
    }
    Store3(rgb + 3 * static_cast<ptrdiff_t>(i), ClampI(Trunc(b[0], b[1]), 0, 255),
           ClampI(Trunc(g[0], g[1]), 0, 255), ClampI(Trunc(r[0], r[1]), 0, 255));
  }
  Rest(COLORSPACE_XYZ + kToRgb, set, rgb, sp, i, end);
}

// The lanes of the shared YCrCb loops (ClrSpc_lanes.h): eight pixels.
struct Lanes : LaneSet<Isa::Avx2, 8> {
  using I = __m256i;
  using F = __m256;
  using D = __m256d;
  static IMG_AVX2_INLINE void Fields(const uint8_t *q, I &f0, I &f1, I &f2) {
    f0 = Load3(q, 0), f1 = Load3(q, 1), f2 = Load3(q, 2);
  }
  static IMG_AVX2_INLINE void Store(uint8_t *q, I f0, I f1, I f2) { Store3(q, f0, f1, f2); }
  static IMG_AVX2_INLINE I Sext8(I v) { return clrspc::Sext8(v); }
  static IMG_AVX2_INLINE I Clamp(I v, int32_t lo, int32_t hi) { return ClampI(v, lo, hi); }
  static IMG_AVX2_INLINE F ToFloat(I v) { return _mm256_cvtepi32_ps(v); }
  static IMG_AVX2_INLINE I Trunc(F v) { return _mm256_cvttps_epi32(v); }
  static IMG_AVX2_INLINE D Half(I v, int h) { return h == 0 ? Lo(v) : Hi(v); }
  static IMG_AVX2_INLINE I Trunc(D lo, D hi) { return clrspc::Trunc(lo, hi); }
  // |e - round(e)| < 2e-4.
  static IMG_AVX2_INLINE F NearInteger(F e) {
    const F frac = _mm256_sub_ps(e, _mm256_round_ps(e, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC));
    return _mm256_cmp_ps(_mm256_and_ps(frac, Abs()), _mm256_set1_ps(2e-4f), _CMP_LT_OQ);
  }
  static IMG_AVX2_INLINE F Abs() { return _mm256_castsi256_ps(_mm256_set1_epi32(0x7FFFFFFF)); }
  static IMG_AVX2_INLINE bool AnyNearInteger(F a, F b, F c) {
    return _mm256_movemask_ps(_mm256_or_ps(_mm256_or_ps(NearInteger(a), NearInteger(b)), NearInteger(c))) !=
           0;
  }
  static IMG_AVX2_INLINE bool AnyNearNonzeroInteger(F g, I x, I y) {
    const F beyondHalf = _mm256_cmp_ps(_mm256_and_ps(g, Abs()), _mm256_set1_ps(0.5f), _CMP_GT_OQ);
    const I zero = _mm256_cmpeq_epi32(_mm256_or_si256(x, y), _mm256_setzero_si256());
    return _mm256_movemask_ps(
               _mm256_andnot_ps(_mm256_castsi256_ps(zero), _mm256_and_ps(NearInteger(g), beyondHalf))) != 0;
  }
};

IMG_AVX2 void YuvFwdRow(const LabTableSet *set, uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  int32_t i = first;
  for (; i + 8 <= end; i += 8) {
    const uint8_t *q = rgb + 3 * static_cast<ptrdiff_t>(i);
    const __m256i R = Load3(q, 2), G = Load3(q, 1), B = Load3(q, 0);
    const __m256i sum = _mm256_add_epi32(_mm256_add_epi32(_mm256_mullo_epi32(R, _mm256_set1_epi32(9798)),
                                                          _mm256_mullo_epi32(G, _mm256_set1_epi32(19235))),
                                         _mm256_mullo_epi32(B, _mm256_set1_epi32(3736)));
    const __m256i Y = _mm256_srai_epi32(sum, 15);  // 0..255
    const __m256i U =
        ClampI(_mm256_srai_epi32(_mm256_mullo_epi32(_mm256_sub_epi32(B, Y), _mm256_set1_epi32(16122)), 15),
               -112, 111);
    const __m256i V =
        ClampI(_mm256_srai_epi32(_mm256_mullo_epi32(_mm256_sub_epi32(R, Y), _mm256_set1_epi32(25203)), 15),
               -138, 137);
    const __m256i v = _mm256_or_si256(
        _mm256_or_si256(Y, _mm256_slli_epi32(_mm256_and_si256(U, _mm256_set1_epi32(0xFF)), 8)),
        _mm256_slli_epi32(V, 16));
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(sp + 4 * static_cast<ptrdiff_t>(i)), v);
  }
  Rest(COLORSPACE_YUV, set, rgb, sp, i, end);
}

IMG_AVX2_INLINE __m256i YuvTerm(__m256i U, int32_t cu, __m256i V, int32_t cv) {
  return _mm256_srai_epi32(_mm256_add_epi32(_mm256_mullo_epi32(_mm256_set1_epi32(cv), V),
                                            _mm256_mullo_epi32(_mm256_set1_epi32(cu), U)),
                           15);
}

IMG_AVX2 void YuvInvRow(const LabTableSet *set, uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  int32_t i = first;
  for (; i + 8 <= end; i += 8) {
    const __m256i v =
        _mm256_loadu_si256(reinterpret_cast<const __m256i *>(sp + 4 * static_cast<ptrdiff_t>(i)));
    const __m256i Y = _mm256_and_si256(v, _mm256_set1_epi32(0xFF));
    const __m256i U = _mm256_srai_epi32(_mm256_slli_epi32(v, 16), 24), V = _mm256_srai_epi32(v, 16);
    // 37221 V - 29 U, -12943 U - 18940 V, 66883 U - 33 V: exact in 32 bits, so
    // the order of the two products does not matter.
    const __m256i R = ClampI(_mm256_add_epi32(Y, YuvTerm(U, -29, V, 37221)), 0, 255);
    const __m256i G = ClampI(_mm256_add_epi32(Y, YuvTerm(U, -12943, V, -18940)), 0, 255);
    const __m256i B = ClampI(_mm256_add_epi32(Y, YuvTerm(U, 66883, V, -33)), 0, 255);
    Store3(rgb + 3 * static_cast<ptrdiff_t>(i), B, G, R);
  }
  Rest(COLORSPACE_YUV + kToRgb, set, rgb, sp, i, end);
}

IMG_AVX2 void HsvFwdRow(const LabTableSet *set, uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  int32_t i = first;
  const __m256i one = _mm256_set1_epi32(1);
  for (; i + 8 <= end; i += 8) {
    const uint8_t *q = rgb + 3 * static_cast<ptrdiff_t>(i);
    const __m256i R = Load3(q, 2), G = Load3(q, 1), B = Load3(q, 0);
    const __m256i mx = _mm256_max_epi32(_mm256_max_epi32(R, G), B);
    const __m256i mn = _mm256_min_epi32(_mm256_min_epi32(R, G), B);
    // Sector of the smallest component, blue first, then red, then green. A
    // gray pixel lands in the blue sector with numerator 0: hue 0.
    const __m256i minB = _mm256_cmpeq_epi32(B, mn), minR = _mm256_cmpeq_epi32(R, mn);
    const __m256i num = Select(minB, G, Select(minR, B, R));
    const __m256i other = Select(minB, R, Select(minR, G, B));  // den = num + other - 2 mn
    const __m256i off =
        Select(minB, _mm256_setzero_si256(), Select(minR, _mm256_set1_epi32(120), _mm256_set1_epi32(240)));
    const __m256i n = _mm256_sub_epi32(num, mn);
    const __m256i den = _mm256_max_epi32(_mm256_sub_epi32(_mm256_add_epi32(n, other), mn), one);
    const __m256i h = _mm256_add_epi32(DivF(_mm256_mullo_epi32(n, _mm256_set1_epi32(120)), den), off);
    const __m256i s =
        DivF(_mm256_mullo_epi32(_mm256_sub_epi32(mx, mn), _mm256_set1_epi32(100)), _mm256_max_epi32(mx, one));
    const __m256i v =
        _mm256_or_si256(_mm256_or_si256(h, _mm256_slli_epi32(s, 16)), _mm256_slli_epi32(mx, 24));
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(sp + 4 * static_cast<ptrdiff_t>(i)), v);
  }
  Rest(COLORSPACE_HSV, set, rgb, sp, i, end);
}

// V, the middle value or low, as the sector tables isV and isMid say.
IMG_AVX2_INLINE __m256i HsvPick(__m256i isV, __m256i isMid, __m256i sector, __m256i V, __m256i mid,
                                __m256i low) {
  return Select(_mm256_permutevar8x32_epi32(isV, sector), V,
                Select(_mm256_permutevar8x32_epi32(isMid, sector), mid, low));
}

IMG_AVX2 void HsvInvRow(const LabTableSet *set, uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  int32_t i = first;
  const __m256i c120 = _mm256_set1_epi32(120);
  // Per hue sector (0..5: hue up to 60, 120, .., above 300), whether a channel
  // takes V or the computed middle value; otherwise it takes low.
  const __m256i rV = _mm256_setr_epi32(-1, 0, 0, 0, 0, -1, 0, 0),
                rMid = _mm256_setr_epi32(0, -1, 0, 0, -1, 0, 0, 0);
  const __m256i gV = _mm256_setr_epi32(0, -1, -1, 0, 0, 0, 0, 0),
                gMid = _mm256_setr_epi32(-1, 0, 0, -1, 0, 0, 0, 0);
  const __m256i bV = _mm256_setr_epi32(0, 0, 0, -1, -1, 0, 0, 0),
                bMid = _mm256_setr_epi32(0, 0, -1, 0, 0, -1, 0, 0);
  for (; i + 8 <= end; i += 8) {
    const uint8_t *p = sp + 4 * static_cast<ptrdiff_t>(i);
    const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(p));
    const __m256i H = _mm256_and_si256(v, _mm256_set1_epi32(0xFFFF));
    const __m256i S = _mm256_and_si256(_mm256_srli_epi32(v, 16), _mm256_set1_epi32(0xFF));
    const __m256i V = _mm256_srli_epi32(v, 24);
    const int32_t odd = _mm256_movemask_ps(_mm256_castsi256_ps(_mm256_or_si256(Gt(H, 359), Gt(S, 100))));
    const __m256i low = Div100(_mm256_mullo_epi32(_mm256_sub_epi32(_mm256_set1_epi32(100), S), V));
    const __m256i d = _mm256_sub_epi32(V, low);
    // Each pair of sectors shares t = H - 120 k (k = 0, 1, 2); the middle value
    // is min(t, 120 - t) * d / max(t, 120 - t) + low. S = 0 gives d = 0.
    const __m256i k2 =
        _mm256_add_epi32(_mm256_and_si256(Gt(H, 120), c120), _mm256_and_si256(Gt(H, 240), c120));
    const __m256i t = _mm256_sub_epi32(H, k2), u = _mm256_sub_epi32(c120, t);
    const __m256i mid = _mm256_add_epi32(DivF(_mm256_mullo_epi32(_mm256_min_epi32(t, u), d),
                                              _mm256_max_epi32(_mm256_max_epi32(t, u), _mm256_set1_epi32(1))),
                                         low);
    const __m256i sector = _mm256_sub_epi32(
        _mm256_setzero_si256(), _mm256_add_epi32(_mm256_add_epi32(_mm256_add_epi32(Gt(H, 60), Gt(H, 120)),
                                                                  _mm256_add_epi32(Gt(H, 180), Gt(H, 240))),
                                                 Gt(H, 300)));
    uint8_t *q = rgb + 3 * static_cast<ptrdiff_t>(i);
    Store3(q, HsvPick(bV, bMid, sector, V, mid, low), HsvPick(gV, gMid, sector, V, mid, low),
           HsvPick(rV, rMid, sector, V, mid, low));
    // Hues above 359 and saturations above 100 take the pixel formula.
    for (int32_t j = 0; odd != 0 && j < 8; ++j)
      if (odd & (1 << j)) {
        const Rgb c = HsvInverse8(p + 4 * j);
        q[3 * j] = static_cast<uint8_t>(c.b), q[3 * j + 1] = static_cast<uint8_t>(c.g),
              q[3 * j + 2] = static_cast<uint8_t>(c.r);
      }
  }
  Rest(COLORSPACE_HSV + kToRgb, set, rgb, sp, i, end);
}

IMG_AVX2 void HlsFwdRow(const LabTableSet *set, uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  int32_t i = first;
  const __m256i one = _mm256_set1_epi32(1);
  for (; i + 8 <= end; i += 8) {
    const uint8_t *q = rgb + 3 * static_cast<ptrdiff_t>(i);
    const __m256i R = Load3(q, 2), G = Load3(q, 1), B = Load3(q, 0);
    const __m256i mx = _mm256_max_epi32(_mm256_max_epi32(R, G), B);
    const __m256i mn = _mm256_min_epi32(_mm256_min_epi32(R, G), B);
    const __m256i sum = _mm256_add_epi32(mx, mn), diff = _mm256_sub_epi32(mx, mn);
    const __m256i L = _mm256_srli_epi32(sum, 1);
    const __m256i sden = Select(Gt(L, 128), _mm256_sub_epi32(_mm256_set1_epi32(510), sum), sum);
    // Gray pixels: numerator 0, so S = 0 and the hue below is cleared.
    const __m256i s = DivF(_mm256_mullo_epi32(diff, _mm256_set1_epi32(100)), _mm256_max_epi32(sden, one));
    const __m256i maxR = _mm256_cmpeq_epi32(R, mx), maxG = _mm256_cmpeq_epi32(G, mx);
    const __m256i hd =
        Select(maxR, _mm256_sub_epi32(G, B), Select(maxG, _mm256_sub_epi32(B, R), _mm256_sub_epi32(R, G)));
    const __m256i off =
        Select(maxR, _mm256_setzero_si256(), Select(maxG, _mm256_set1_epi32(120), _mm256_set1_epi32(240)));
    __m256i h = _mm256_add_epi32(
        DivF(_mm256_mullo_epi32(hd, _mm256_set1_epi32(60)), _mm256_max_epi32(diff, one)), off);
    h = _mm256_add_epi32(
        h, _mm256_and_si256(_mm256_cmpgt_epi32(_mm256_setzero_si256(), h), _mm256_set1_epi32(360)));
    h = _mm256_andnot_si256(_mm256_cmpeq_epi32(s, _mm256_setzero_si256()), h);
    const __m256i v = _mm256_or_si256(_mm256_or_si256(h, _mm256_slli_epi32(L, 16)), _mm256_slli_epi32(s, 24));
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(sp + 4 * static_cast<ptrdiff_t>(i)), v);
  }
  Rest(COLORSPACE_HLS, set, rgb, sp, i, end);
}

// value(m1, m2, h) of the HLS inverse for h in -120..479 (hues 0..359).
// (m2 - m1) * f * 6 / 360 is (m2 - m1) * f / 60, with m2 - m1 <= 256 and
// f <= 60 where it is used.
IMG_AVX2_INLINE __m256i HlsValueV(__m256i m1, __m256i m2, __m256i span, __m256i h) {
  h = _mm256_sub_epi32(h, _mm256_and_si256(Gt(h, 360), _mm256_set1_epi32(360)));
  h = _mm256_add_epi32(
      h, _mm256_and_si256(_mm256_cmpgt_epi32(_mm256_setzero_si256(), h), _mm256_set1_epi32(360)));
  const __m256i up = Gt(h, 60);
  const __m256i f = Select(up, _mm256_sub_epi32(_mm256_set1_epi32(240), h), h);
  const __m256i ramp =
      _mm256_add_epi32(m1, Div60(_mm256_and_si256(_mm256_mullo_epi32(span, f), _mm256_set1_epi32(0xFFFF))));
  return Select(Gt(h, 240), m1, Select(Gt(h, 180), ramp, Select(up, m2, ramp)));
}

IMG_AVX2 void HlsInvRow(const LabTableSet *set, uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  int32_t i = first;
  const __m256i c120 = _mm256_set1_epi32(120);
  for (; i + 8 <= end; i += 8) {
    const uint8_t *p = sp + 4 * static_cast<ptrdiff_t>(i);
    const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(p));
    const __m256i H = _mm256_and_si256(v, _mm256_set1_epi32(0xFFFF));
    const __m256i L = _mm256_and_si256(_mm256_srli_epi32(v, 16), _mm256_set1_epi32(0xFF));
    const __m256i S = _mm256_srli_epi32(v, 24);
    const int32_t odd = _mm256_movemask_ps(_mm256_castsi256_ps(_mm256_or_si256(Gt(H, 359), Gt(S, 100))));
    // In range every numerator is below 43690 (at most 200 * 128 and 100 * 255).
    const __m256i lowL = Div100(_mm256_and_si256(
        _mm256_mullo_epi32(_mm256_add_epi32(S, _mm256_set1_epi32(100)), L), _mm256_set1_epi32(0xFFFF)));
    const __m256i highL =
        _mm256_sub_epi32(_mm256_add_epi32(Div100(_mm256_mullo_epi32(S, _mm256_set1_epi32(255))), L),
                         Div100(_mm256_mullo_epi32(L, S)));
    const __m256i m2 = Select(Gt(L, 128), highL, lowL);
    const __m256i m1 = _mm256_sub_epi32(_mm256_add_epi32(L, L), m2);
    const __m256i span = _mm256_sub_epi32(m2, m1);
    const __m256i R = ClampI(HlsValueV(m1, m2, span, _mm256_add_epi32(H, c120)), 0, 255);
    const __m256i G = ClampI(HlsValueV(m1, m2, span, H), 0, 255);
    const __m256i B = ClampI(HlsValueV(m1, m2, span, _mm256_sub_epi32(H, c120)), 0, 255);
    uint8_t *q = rgb + 3 * static_cast<ptrdiff_t>(i);
    Store3(q, B, G, R);
    for (int32_t j = 0; odd != 0 && j < 8; ++j)
      if (odd & (1 << j)) {
        const Rgb c = HlsInverse8(p + 4 * j);
        q[3 * j] = static_cast<uint8_t>(c.b), q[3 * j + 1] = static_cast<uint8_t>(c.g),
              q[3 * j + 2] = static_cast<uint8_t>(c.r);
      }
  }
  Rest(COLORSPACE_HLS + kToRgb, set, rgb, sp, i, end);
}

// Table-driven Lab inverse: the four table reads a pixel are gathers; the
// divisions by 10000 have numerators below 2^24 (DivF); a sum over 1000000
// first held to 0..256000000 (the result clamps to 0..255 anyway) becomes
// (sum >> 6) / 15625, also below 2^24.
IMG_AVX2_INLINE __m256i LabMix(__m256i X, int32_t cx, __m256i Y, int32_t cy, __m256i Z, int32_t cz) {
  const __m256i sum = _mm256_add_epi32(_mm256_add_epi32(_mm256_mullo_epi32(X, _mm256_set1_epi32(cx)),
                                                        _mm256_mullo_epi32(Y, _mm256_set1_epi32(cy))),
                                       _mm256_mullo_epi32(Z, _mm256_set1_epi32(cz)));
  const __m256i held = _mm256_srli_epi32(ClampI(sum, 0, 256000000), 6);
  return _mm256_min_epi32(DivF(held, _mm256_set1_epi32(15625)), _mm256_set1_epi32(255));
}

IMG_AVX2 void LabTabInvRow(const LabTableSet *set, uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  const LabTableSet &t = *set;
  int32_t i = first;
  const __m256i d10000 = _mm256_set1_epi32(10000);
  for (; i + 8 <= end; i += 8) {
    const uint8_t *p = sp + 3 * static_cast<ptrdiff_t>(i);
    const __m256i L = _mm256_min_epi32(Load3(p, 0), _mm256_set1_epi32(100));
    const __m256i a = Sext8(Load3(p, 1)), b = Sext8(Load3(p, 2));
    const __m256i Yt = _mm256_i32gather_epi32(t.YFromL, L, 4);
    const __m256i fy = _mm256_i32gather_epi32(t.CubeRoot, Yt, 4);
    const __m256i ix =
        ClampI(_mm256_add_epi32(_mm256_mullo_epi32(a, _mm256_set1_epi32(20)), fy), kInvCubeLow, kInvCubeHigh);
    const __m256i iz =
        ClampI(_mm256_sub_epi32(fy, _mm256_mullo_epi32(b, _mm256_set1_epi32(50))), kInvCubeLow, kInvCubeHigh);
    const __m256i gx = _mm256_i32gather_epi32(t.InvCube, ix, 4),
                  gz = _mm256_i32gather_epi32(t.InvCube, iz, 4);
    const __m256i X = ClampI(DivF(_mm256_mullo_epi32(gx, _mm256_set1_epi32(242)), d10000), 0, 255);
    const __m256i Z = ClampI(DivF(_mm256_mullo_epi32(gz, _mm256_set1_epi32(278)), d10000), 0, 278);
    const __m256i Y = DivF(_mm256_mullo_epi32(Yt, _mm256_set1_epi32(255)), d10000);
    Store3(rgb + 3 * static_cast<ptrdiff_t>(i), LabMix(X, 55648, Y, -204043, Z, 1057311),
           LabMix(X, -969256, Y, 1875992, Z, 41556), LabMix(X, 3240479, Y, -1537150, Z, -498535));
  }
  Rest(COLORSPACE_LAB_TABLE + kToRgb, set, rgb, sp, i, end);
}

}  // namespace

const SpaceLoops kAvx2Loops = {{nullptr, HsvFwdRow, HlsFwdRow, XyzFwdRow, YcrcbFwdRow<Lanes>, YuvFwdRow,
                                nullptr, nullptr, nullptr, nullptr, nullptr},
                               {nullptr, HsvInvRow, HlsInvRow, XyzInvRow, YcrcbInvRow<Lanes>, YuvInvRow,
                                nullptr, nullptr, nullptr, LabTabInvRow, nullptr}};

}  // namespace img::clrspc
