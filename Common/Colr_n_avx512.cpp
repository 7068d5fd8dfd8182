// The channel operations' byte loops on 64-byte vectors (Isa::Avx512, with
// VBMI byte permutes). Every loop moves or counts whole bytes the way the
// scalar loops of Colr_n_scalar.cpp do, so the results are the same bytes.
#include <immintrin.h>

#include "Colr_n_internal.h"
#include "cpu.h"

// GCC 12 warns about the intrinsics' own undefined vectors.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"

#define IMG_AVX512 __attribute__((target(IMG_TARGET_AVX512)))

namespace img::colrn {

namespace {

// Bit j set when byte j of a vector whose first byte is channel `phase` of a
// pixel of `period` bytes (1, 3 or 4) is channel c: every period-th bit from
// bit (c - phase) mod period.
inline __mmask64 ChannelMask(int32_t period, int32_t phase, int32_t c) {
  if (period == 1) return ~__mmask64{0};
  const uint64_t every = period == 3 ? 0x9249249249249249u : 0x1111111111111111u;
  return every << ((c - phase + period) % period);
}

// The 256-byte table as four 64-byte quarters; a lookup is two two-register
// byte permutes (index bit 6 picks the register) and a blend on bit 7.
struct Table {
  __m512i q[4];
};
IMG_AVX512 inline __m512i Look(const Table &t, __m512i v, __mmask64 high) {
  const __m512i lo = _mm512_permutex2var_epi8(t.q[0], v, t.q[1]);
  const __m512i hi = _mm512_permutex2var_epi8(t.q[2], v, t.q[3]);
  return _mm512_mask_blend_epi8(high, lo, hi);
}

// Lanes 8 h .. 8 h + 7 of 16 32-bit integers as doubles.
IMG_AVX512 inline __m512d Half(__m512i v, int32_t h) {
  return _mm512_cvtepi32_pd(h == 0 ? _mm512_castsi512_si256(v) : _mm512_extracti64x4_epi64(v, 1));
}

}  // namespace

IMG_AVX512 void LookupBytesAvx512(uint8_t *p, std::size_t bytes, int32_t period, const uint8_t *tables) {
  const int32_t channels = period == 1 ? 1 : 3;
  Table t[3];
  for (int32_t c = 0; c < channels; ++c)
    for (int32_t k = 0; k < 4; ++k) t[c].q[k] = _mm512_loadu_si512(tables + c * 256 + k * 64);
  // A vector starts at channel phase; 64 bytes move the phase on by 64 % period.
  __mmask64 masks[3][4];
  const int32_t phases = period == 3 ? 3 : 1;
  for (int32_t ph = 0; ph < phases; ++ph)
    for (int32_t c = 0; c < period && c < 4; ++c) masks[ph][c] = ChannelMask(period, ph, c);
  std::size_t i = 0;
  int32_t phase = 0;
  for (; i + 64 <= bytes; i += 64) {
    const __m512i v = _mm512_loadu_si512(p + i);
    const __mmask64 high = _mm512_movepi8_mask(v);
    __m512i r = Look(t[0], v, high);
    if (period != 1) {
      r = _mm512_mask_blend_epi8(masks[phase][1], r, Look(t[1], v, high));
      r = _mm512_mask_blend_epi8(masks[phase][2], r, Look(t[2], v, high));
      if (period == 4) r = _mm512_mask_blend_epi8(masks[0][3], r, v);
    }
    _mm512_storeu_si512(p + i, r);
    if (period == 3) phase = phase == 2 ? 0 : phase + 1;
  }
  for (; i < bytes; ++i) {
    const std::size_t c = i % static_cast<std::size_t>(period);
    if (c < 3) p[i] = tables[c * 256 + p[i]];
  }
}

// Blocks of 192 bytes (a whole number of pixels of 3, 4, 6 or 8 bytes) are
// loaded before any is stored: every output vector takes its bytes from a
// window of two loaded vectors that holds all the pixels it touches.
IMG_AVX512 void PermuteBytesAvx512(uint8_t *p, std::size_t pixels, int32_t bytesPerPixel,
                                   const uint8_t *from) {
  constexpr int32_t kStarts[3] = {0, 32, 64};  // window of output vector k: 64 * k - 32 .. + 128
  alignas(64) uint8_t index[3][64];
  for (int32_t k = 0; k < 3; ++k)
    for (int32_t j = 0; j < 64; ++j) {
      const int32_t out = 64 * k + j;
      const int32_t source = out - out % bytesPerPixel + from[out % bytesPerPixel];
      index[k][j] = static_cast<uint8_t>(source - kStarts[k]);
    }
  const __m512i i0 = _mm512_load_si512(index[0]), i1 = _mm512_load_si512(index[1]),
                i2 = _mm512_load_si512(index[2]);
  const std::size_t bytes = pixels * static_cast<std::size_t>(bytesPerPixel);
  std::size_t i = 0;
  for (; i + 192 <= bytes; i += 192) {
    uint8_t *b = p + i;
    const __m512i a = _mm512_loadu_si512(b), m = _mm512_loadu_si512(b + 32), c = _mm512_loadu_si512(b + 64),
                  n = _mm512_loadu_si512(b + 96), d = _mm512_loadu_si512(b + 128);
    _mm512_storeu_si512(b, _mm512_permutex2var_epi8(a, i0, c));
    _mm512_storeu_si512(b + 64, _mm512_permutex2var_epi8(m, i1, n));
    _mm512_storeu_si512(b + 128, _mm512_permutex2var_epi8(c, i2, d));
  }
  uint8_t v[8];
  for (uint8_t *q = p + i; q < p + bytes; q += bytesPerPixel) {
    for (int32_t k = 0; k < bytesPerPixel; ++k) v[k] = q[k];
    for (int32_t k = 0; k < bytesPerPixel; ++k) q[k] = v[from[k]];
  }
}

// Per 64 bytes: the bytes of each channel (a mask by phase) summed eight at
// a time by the sum of absolute differences against zero, in 64-bit lanes.
IMG_AVX512 void SumChannelsAvx512(const uint8_t *p, std::size_t pixels, int32_t period, uint64_t *sums) {
  // 192 bytes a step (a whole number of pixels): the three vectors start at
  // phases 0, 1 and 2 (0 for 4-byte pixels); the masks are byte vectors.
  __m512i masks[3][3];
  for (int32_t ph = 0; ph < 3; ++ph)
    for (int32_t c = 0; c < 3; ++c)
      masks[ph][c] = _mm512_movm_epi8(ChannelMask(period, period == 3 ? ph : 0, c));
  const __m512i zero = _mm512_setzero_si512();
  __m512i acc[3] = {zero, zero, zero};
  const std::size_t bytes = pixels * static_cast<std::size_t>(period);
  std::size_t i = 0;
  for (; i + 192 <= bytes; i += 192)
    for (int32_t ph = 0; ph < 3; ++ph) {
      const __m512i v = _mm512_loadu_si512(p + i + 64 * ph);
      for (int32_t c = 0; c < 3; ++c)
        acc[c] = _mm512_add_epi64(acc[c], _mm512_sad_epu8(_mm512_and_si512(masks[ph][c], v), zero));
    }
  for (int32_t c = 0; c < 3; ++c) {
    alignas(64) uint64_t lanes[8];
    _mm512_store_si512(lanes, acc[c]);
    for (uint64_t lane : lanes) sums[c] += lane;
  }
  for (; i < bytes; ++i) {
    const std::size_t c = i % static_cast<std::size_t>(period);
    if (c < 3) sums[c] += p[i];
  }
}

// 16 pixels a step: one byte permute parts blue, green and red (16 bytes
// each); each half goes into 8 double lanes and every output is the scalar's
// (R s_r + G s_g) + B s_b, the same operations in the same order (no fused
// multiply-add). With finite shares (FiniteShares) and samples >= 0 a sum is
// +0, -0, positive or +inf, never NaN: min(sum, 255) truncated is what the
// scalar's truncation and limit give.
IMG_AVX512 void MixBytesAvx512(uint8_t *p, std::size_t pixels, int32_t period, const Mix &mix) {
  alignas(64) uint8_t part[64], join[64];
  for (int32_t j = 0; j < 64; ++j) {
    part[j] = static_cast<uint8_t>(j < 48 ? (j % 16) * period + j / 16 : 0);
    const int32_t c = j % period, pixel = j / period;
    join[j] = static_cast<uint8_t>(c < 3 && pixel < 16 ? c * 16 + pixel : 0);
  }
  const __m512i partIndex = _mm512_load_si512(part), joinIndex = _mm512_load_si512(join);
  // A fourth byte stays.
  const __mmask64 fourth = _cvtu64_mask64(0x8888888888888888u);
  __m512d share[3][3];
  for (int32_t i = 0; i < 3; ++i)
    for (int32_t k = 0; k < 3; ++k) share[i][k] = _mm512_set1_pd(mix.share[i][k]);
  const __m512d top = _mm512_set1_pd(255.0);
  // The three outputs of 16 pixels from their parted bytes (blue, green,
  // red: 16 each), packed blue, green, red in bytes 0..47.
  const auto pack = [&](__m512i parts) IMG_AVX512 {
    const __m512i b32 = _mm512_cvtepu8_epi32(_mm512_castsi512_si128(parts));
    const __m512i g32 = _mm512_cvtepu8_epi32(_mm512_extracti32x4_epi32(parts, 1));
    const __m512i r32 = _mm512_cvtepu8_epi32(_mm512_extracti32x4_epi32(parts, 2));
    __m128i out[3];
    for (int32_t k = 0; k < 3; ++k) {
      __m256i halves[2];
      for (int32_t h = 0; h < 2; ++h) {
        const __m512d sum = _mm512_add_pd(
            _mm512_add_pd(_mm512_mul_pd(Half(r32, h), share[0][k]), _mm512_mul_pd(Half(g32, h), share[1][k])),
            _mm512_mul_pd(Half(b32, h), share[2][k]));
        halves[h] =
            _mm512_castsi512_si256(_mm512_castsi256_si512(_mm512_cvttpd_epi32(_mm512_min_pd(sum, top))));
      }
      const __m512i both = _mm512_inserti64x4(_mm512_castsi256_si512(halves[0]), halves[1], 1);
      out[2 - k] = _mm512_cvtepi32_epi8(both);
    }
    return _mm512_inserti32x4(_mm512_inserti32x4(_mm512_castsi128_si512(out[0]), out[1], 1), out[2], 2);
  };
  std::size_t i = 0;
  if (period == 3) {
    // 64 pixels (three whole vectors) a step, loaded before any is stored:
    // the four groups of 16 are parted from the loaded vectors and their
    // packed outputs joined straight into three whole stores.
    alignas(64) uint8_t in[3][64], out[3][64];
    for (int32_t j = 0; j < 64; ++j) {
      const int32_t at = j < 48 ? part[j] : 0;
      in[0][j] = static_cast<uint8_t>(48 + at);  // bytes 48..95 of the first two vectors
      in[1][j] = static_cast<uint8_t>(32 + at);  // bytes 96..143: of the second and third
      in[2][j] = static_cast<uint8_t>(16 + at);  // bytes 144..191: of the third
      out[0][j] = static_cast<uint8_t>(j < 48 ? join[j] : 64 + join[j - 48]);
      out[1][j] = static_cast<uint8_t>(j < 32 ? join[j + 16] : 64 + join[j - 32]);
      out[2][j] = static_cast<uint8_t>(j < 16 ? join[j + 32] : 64 + join[j - 16]);
    }
    const __m512i in1 = _mm512_load_si512(in[0]), in2 = _mm512_load_si512(in[1]),
                  in3 = _mm512_load_si512(in[2]), out0 = _mm512_load_si512(out[0]),
                  out1 = _mm512_load_si512(out[1]), out2 = _mm512_load_si512(out[2]);
    for (; i + 64 <= pixels; i += 64, p += 192) {
      const __m512i v0 = _mm512_loadu_si512(p), v1 = _mm512_loadu_si512(p + 64),
                    v2 = _mm512_loadu_si512(p + 128);
      const __m512i m0 = pack(_mm512_permutexvar_epi8(partIndex, v0));
      const __m512i m1 = pack(_mm512_permutex2var_epi8(v0, in1, v1));
      const __m512i m2 = pack(_mm512_permutex2var_epi8(v1, in2, v2));
      const __m512i m3 = pack(_mm512_permutexvar_epi8(in3, v2));
      _mm512_storeu_si512(p, _mm512_permutex2var_epi8(m0, out0, m1));
      _mm512_storeu_si512(p + 64, _mm512_permutex2var_epi8(m1, out1, m2));
      _mm512_storeu_si512(p + 128, _mm512_permutex2var_epi8(m2, out2, m3));
    }
  }
  const std::size_t step = static_cast<std::size_t>(period) * 16;
  // Plain 64-byte loads while the row holds them (masked loads and stores
  // are slow on some processors); 3-byte pixels store 32 + 16 bytes.
  for (; i + 16 <= pixels; i += 16, p += step) {
    const bool whole = (pixels - i) * static_cast<std::size_t>(period) >= 64;
    const __m512i v =
        whole ? _mm512_loadu_si512(p) : _mm512_maskz_loadu_epi8(_cvtu64_mask64(0xFFFFFFFFFFFFu), p);
    const __m512i mixed = _mm512_permutexvar_epi8(joinIndex, pack(_mm512_permutexvar_epi8(partIndex, v)));
    if (period == 4) {
      _mm512_storeu_si512(p, _mm512_mask_blend_epi8(fourth, mixed, v));
    } else {
      _mm256_storeu_si256(reinterpret_cast<__m256i *>(p), _mm512_castsi512_si256(mixed));
      _mm_storeu_si128(reinterpret_cast<__m128i *>(p + 32), _mm512_extracti32x4_epi32(mixed, 2));
    }
  }
  for (; i < pixels; ++i, p += period) MixPixel(p, mix, 255);
}

}  // namespace img::colrn

#pragma GCC diagnostic pop
