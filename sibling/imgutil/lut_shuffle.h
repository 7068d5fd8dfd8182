// The byte lookup of the SSSE3 and AVX2 files, written once over a lane type
// V. Each of those files defines IMG_SHUFFLE_TARGET (its target string),
// includes this header once and instantiates MapShuffle with its lane type;
// the templates are private to the including file (anonymous namespace) and
// compiled for its target only.
//
// The 256-entry table is split into 16 sub-tables of 16 entries. A byte
// shuffle looks up the low four bits of each index and gives 0 when the
// index has its top bit set. Walking x = v, v - 16, v - 32, ... (wrapping
// bytes) over sub-tables 0..7, step k hits a value below 128 exactly when
// v >> 4 >= k for v < 128, so XOR-ing the shuffles of the differences
// D_k = T_k ^ T_(k-1) telescopes to T_(v >> 4)[v & 15]. The same walk over
// sub-tables 8..15 serves v >= 128, and the top bit of v picks the half.
//
// IMG_SHUFFLE_INLINE marks the lane type's functions (always inlined, the
// including file's target).
//
// The loop works on byte vectors (uint8_t lanes: subtraction wraps) with the
// compiler's vector operators; V, for V::kBytes samples a vector, adds what
// needs the instruction set:
//   Table(row)               the 16 bytes at row in every 128-bit lane
//   Shuffle(table, index)    the byte shuffle
//   ByTopBit(v, low, high)   high where v has its top bit set, else low
//   KeepFourth(r, v)         r with every byte at an offset of 3 modulo 4 from v
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "lut_isa.h"

#ifndef IMG_SHUFFLE_TARGET
#error "define IMG_SHUFFLE_TARGET before including lut_shuffle.h"
#endif

namespace img::lut {
namespace {

#define IMG_SHUFFLE_INLINE __attribute__((target(IMG_SHUFFLE_TARGET), always_inline)) inline

// kBytes samples.
template <std::size_t kBytes>
struct ByteVector {
  typedef uint8_t T __attribute__((vector_size(kBytes)));
};

// The base of a lane type: its width and byte vector.
template <std::size_t kCount>
struct ShuffleLanes {
  static constexpr std::size_t kBytes = kCount;
  using B = typename ByteVector<kCount>::T;
};

// The index differences are formed in four independent chains, and the
// shuffles XOR into two accumulators per half, to keep dependency chains
// short.
template <class V, class B>
IMG_SHUFFLE_INLINE B Lookup(const B *d, B v) {
  B x0 = v, x1 = v - 16, x2 = v - 32, x3 = v - 48;
  B low0 = V::Shuffle(d[0], x0) ^ V::Shuffle(d[1], x1);
  B low1 = V::Shuffle(d[2], x2) ^ V::Shuffle(d[3], x3);
  x0 -= 64, x1 -= 64, x2 -= 64, x3 -= 64;
  low0 ^= V::Shuffle(d[4], x0);
  low1 ^= V::Shuffle(d[5], x1);
  low0 ^= V::Shuffle(d[6], x2);
  low1 ^= V::Shuffle(d[7], x3);
  x0 -= 64, x1 -= 64, x2 -= 64, x3 -= 64;
  B high0 = V::Shuffle(d[8], x0) ^ V::Shuffle(d[9], x1);
  B high1 = V::Shuffle(d[10], x2) ^ V::Shuffle(d[11], x3);
  x0 -= 64, x1 -= 64, x2 -= 64, x3 -= 64;
  high0 ^= V::Shuffle(d[12], x0);
  high1 ^= V::Shuffle(d[13], x1);
  high0 ^= V::Shuffle(d[14], x2);
  high1 ^= V::Shuffle(d[15], x3);
  return V::ByTopBit(v, low0 ^ low1, high0 ^ high1);
}

// The samples of v through the table; with keepFourth the fourth bytes stay.
template <class V, class B>
IMG_SHUFFLE_INLINE B Mapped(const B *d, B v, bool keepFourth) {
  const B r = Lookup<V>(d, v);
  return keepFourth ? V::KeepFourth(r, v) : r;
}

template <class B>
IMG_SHUFFLE_INLINE B Load(const uint8_t *p) {
  B v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

template <class V>
__attribute__((target(IMG_SHUFFLE_TARGET))) void MapShuffle(const uint8_t *table, const uint8_t *src,
                                                            uint8_t *dst, std::size_t count,
                                                            bool keepFourth) {
  using B = typename ByteVector<V::kBytes>::T;
  // The difference tables D_k.
  uint8_t diff[16][16];
  for (int k = 0; k < 16; ++k)
    for (int j = 0; j < 16; ++j) {
      const uint8_t here = table[16 * k + j];
      diff[k][j] = (k & 7) == 0 ? here : static_cast<uint8_t>(here ^ table[16 * (k - 1) + j]);
    }
  B d[16];
  for (int k = 0; k < 16; ++k) d[k] = V::Table(diff[k]);
  std::size_t i = 0;
  // Two vectors a step: both read before either is written (src may be dst).
  for (; i + 2 * V::kBytes <= count; i += 2 * V::kBytes) {
    const B r0 = Mapped<V>(d, Load<B>(src + i), keepFourth);
    const B r1 = Mapped<V>(d, Load<B>(src + i + V::kBytes), keepFourth);
    std::memcpy(dst + i, &r0, sizeof r0);
    std::memcpy(dst + i + V::kBytes, &r1, sizeof r1);
  }
  for (; i + V::kBytes <= count; i += V::kBytes) {
    const B r = Mapped<V>(d, Load<B>(src + i), keepFourth);
    std::memcpy(dst + i, &r, sizeof r);
  }
  // i is a multiple of the vector size, so the tail keeps the fourth-byte phase.
  MapScalar(table, src + i, dst + i, count - i, keepFourth);
}

}  // namespace
}  // namespace img::lut
