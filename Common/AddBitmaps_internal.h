// Adding bitmaps: the per-sample rules and the row loops of two 8-bit rows
// (one file per instruction set). Internal to imgcolor.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>

#include "cpu.h"
#include "imgcolor.h"

namespace img::add {

struct Combination {
  uint32_t mode;
  const uint32_t *factors;  // modes 3 and 4
  uint32_t weightSum;       // mode 3: the factors' sum, unsigned 32-bit
  int32_t count;
  Isa isa = Isa::Scalar;  // the row loops of two 8-bit rows
};

// The sample scale of a working form: 8-bit, unsigned 16-bit or signed 16-bit.
template <class T, bool kSigned>
struct Scale {
  static constexpr int64_t kMax = sizeof(T) == 1 ? 255 : kSigned ? 32767 : 65535;
  static int64_t Value(T v) {
    if constexpr (kSigned) return static_cast<int16_t>(v);
    return v;
  }
  // The low bits of v (a negative signed sum keeps its low 16 bits).
  static T Store(int64_t v) { return static_cast<T>(static_cast<uint64_t>(v)); }
};

// The reference: one sample of the output from sample k of every member's
// row (a null row, a member without converter, counts as 0).
template <class T, bool kSigned>
T CombineSample(const Combination &c, const T *const *rows, std::ptrdiff_t k) {
  using S = Scale<T, kSigned>;
  auto value = [&](int32_t i) -> int64_t { return rows[i] ? S::Value(rows[i][k]) : 0; };
  switch (c.mode) {
    case ADD_AVERAGE: {
      int64_t sum = 0;
      for (int32_t i = 0; i < c.count; ++i) sum += value(i);
      const int64_t mean = sum / c.count;  // toward zero
      return S::Store(mean > S::kMax ? S::kMax : mean);
    }
    case ADD_SUM: {
      // Running sum in list order, stopped when it passes the maximum; a
      // negative signed sum is not clamped.
      int64_t sum = 0;
      for (int32_t i = 0; i < c.count; ++i)
        if ((sum += value(i)) > S::kMax) return S::Store(S::kMax);
      return S::Store(sum);
    }
    case ADD_WEIGHTED_AVERAGE: {
      double sum = 0;
      for (int32_t i = 0; i < c.count; ++i)
        sum += static_cast<double>(c.factors[i]) * static_cast<double>(value(i));
      // Rounded half to even and read as an unsigned 32-bit value: anything
      // negative (signed data) or above the maximum gives the maximum.
      const double rounded = std::nearbyint(sum / static_cast<double>(c.weightSum));
      return S::Store(rounded < 0 || rounded > static_cast<double>(S::kMax) ? S::kMax
                                                                            : static_cast<int64_t>(rounded));
    }
    default: {  // ADD_WEIGHTED_SUM
      // Each term sample x factor in 32 bits divided by 100 as unsigned: a
      // negative sample with a non-zero factor makes a huge term.
      uint64_t sum = 0;
      for (int32_t i = 0; i < c.count; ++i) {
        const uint32_t product = static_cast<uint32_t>(value(i)) * c.factors[i];
        if ((sum += product / 100u) > static_cast<uint64_t>(S::kMax)) return S::Store(S::kMax);
      }
      return S::Store(static_cast<int64_t>(sum));
    }
  }
}

// ---- Two 8-bit rows ---------------------------------------------------------------------
//
// out[k] from a[k] (the first bitmap's sample) and b[k], k in [0, n):
//   Sum              min(a + b, 255)
//   Average          (a + b) >> 1
//   WeightedAverage  (f0 a + f1 b) / w rounded half to even, with the factors
//                    divided by their greatest common divisor and w = f0 + f1
//                    <= 257 (2 when it would be 1: both doubled). Every value
//                    then fits 16-bit lanes: f a <= 257 * 255 = 65535.
// The weighted form equals the reference's doubles: the products and their
// sum S are exact (below 2^41), and a quotient S / W that is not a half
// integer lies at least 1 / (2W) from one while the division's rounding error
// is below S / (W 2^53) < 1 / (2W); so nearbyint(S / W) is S / W rounded half
// to even, the same for the reduced factors. tests/addbitmaps_test.cpp checks
// every pair (a, b) for a table of factors on every instruction set.
enum class PairRule : int32_t { Sum, Average, WeightedAverage };

struct Pair8 {
  PairRule rule;
  uint16_t f0 = 0, f1 = 0;  // reduced factors
  uint16_t weight = 0;      // f0 + f1, 2..257
  // floor(S / weight) = (t + ((S - t) >> 1)) >> shift with t the high half
  // of S * magic (the round-up method for 16-bit numerators).
  uint16_t magic = 0;
  int32_t shift = 0;
  // The AVX-512 form, when both reduced factors are below 128 and the weight
  // at most 128: S from one byte multiply-add (at most 255 × 128, a signed
  // 16-bit lane), u = S + weight / 2 < 2^15 and floor(u / weight) =
  // mulhi(u, half) >> halfShift (the 16-bit magic of 15-bit numerators).
  bool small = false;
  uint16_t half = 0;
  int32_t halfShift = 0;
};

// One sample in integers, the lane loops' formula: q = floor(S / w) goes up
// when the remainder is above half of w, or half of it with q odd.
inline uint8_t PairSample(const Pair8 &p, uint32_t a, uint32_t b) {
  switch (p.rule) {
    case PairRule::Sum:
      return static_cast<uint8_t>(a + b > 255u ? 255u : a + b);
    case PairRule::Average:
      return static_cast<uint8_t>((a + b) >> 1);
    default: {
      const uint32_t s = p.f0 * a + p.f1 * b, q = s / p.weight, r = s - q * p.weight;
      return static_cast<uint8_t>(q + (2 * r + (q & 1u) > p.weight ? 1u : 0u));
    }
  }
}

// The lane form of the weighted average of two 8-bit samples with factors
// f0 and f1; false when it has none (a sum that wraps or is too large).
bool WeightedPair(uint32_t f0, uint32_t f1, Pair8 *pair);

// The row loops; Scalar runs the reference.
void CombinePair(Isa isa, const Pair8 &pair, uint8_t *out, const uint8_t *a, const uint8_t *b, std::size_t n);
void CombinePairSse2(const Pair8 &pair, uint8_t *out, const uint8_t *a, const uint8_t *b, std::size_t n);
void CombinePairAvx2(const Pair8 &pair, uint8_t *out, const uint8_t *a, const uint8_t *b, std::size_t n);
void CombinePairAvx512(const Pair8 &pair, uint8_t *out, const uint8_t *a, const uint8_t *b, std::size_t n);

// Q_AddBitmaps (weighted false) and Q_AddWeightedBitmaps with the row loops
// of `isa` (the exports pass BestIsa()).
int32_t AddWithIsa(Isa isa, BitmapRecord *result, uint32_t structSize, BitmapList list,
                   const uint32_t *factors, uint32_t mode, bool weighted);

}  // namespace img::add
