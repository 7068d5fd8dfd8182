// Dynamic binary: the 8-bit loops written once over a vector type V of
// V::kBytes samples (BWConv_avx2.cpp, BWConv_avx512.cpp). Include after
// defining IMG_BW_TARGET; every function carries that target. Min and max of
// bytes are exact, and the decision is the reference's integer comparison
// (see Decide in each file), so the results are those of the scalar scans.
#pragma once

#include <cstddef>
#include <cstdint>

#include "BWConv.h"

namespace img::bwconv {

#define IMG_BW_FN __attribute__((target(IMG_BW_TARGET)))

// The reference decision of one pixel (8 bits): an edge by the midpoint, a
// flat window by its brightest sample against 128.
inline uint8_t DecideOne(uint32_t lo, uint32_t hi, uint32_t centre, uint32_t contrast) {
  const bool dark = hi - lo > contrast ? centre < (hi + lo) / 2 : hi < 128;
  return dark ? 0 : 255;
}

template <class V>
IMG_BW_FN void MinMaxLoop(const uint8_t *a1, const uint8_t *b1, uint8_t *o1, const uint8_t *a2,
                          const uint8_t *b2, uint8_t *o2, std::size_t n) {
  std::size_t i = 0;
  for (; i + V::kBytes <= n; i += V::kBytes) {
    V::Store(o1 + i, V::Min(V::Load(a1 + i), V::Load(b1 + i)));
    V::Store(o2 + i, V::Max(V::Load(a2 + i), V::Load(b2 + i)));
  }
  for (; i < n; ++i) {
    o1[i] = a1[i] < b1[i] ? a1[i] : b1[i];
    o2[i] = a2[i] > b2[i] ? a2[i] : b2[i];
  }
}

// One level in place, front to back: a block's loads come before its store,
// and v[i + k] of a later block is not yet written.
template <class V>
IMG_BW_FN void DoublingLoop(uint8_t *lo, uint8_t *hi, int32_t length, int32_t span) {
  for (int32_t k = 1; 2 * k <= span; k *= 2) {
    const int32_t n = length - k;
    int32_t i = 0;
    for (; i + V::kBytes <= n; i += V::kBytes) {
      const auto l = V::Min(V::Load(lo + i), V::Load(lo + i + k));
      const auto h = V::Max(V::Load(hi + i), V::Load(hi + i + k));
      V::Store(lo + i, l);
      V::Store(hi + i, h);
    }
    for (; i < n; ++i) {
      lo[i] = lo[i + k] < lo[i] ? lo[i + k] : lo[i];
      hi[i] = hi[i + k] > hi[i] ? hi[i + k] : hi[i];
    }
  }
}

template <class V>
IMG_BW_FN void DecideLoop(const uint8_t *lo, const uint8_t *hi, int32_t shift, const uint8_t *centre,
                          uint8_t *out, int32_t n, uint32_t contrast) {
  int32_t i = 0;
  const auto c = V::Splat(static_cast<uint8_t>(contrast));
  for (; i + V::kBytes <= n; i += V::kBytes) {
    const auto l = V::Min(V::Load(lo + i), V::Load(lo + i + shift));
    const auto h = V::Max(V::Load(hi + i), V::Load(hi + i + shift));
    V::Store(out + i, V::Decide(l, h, V::Load(centre + i), c));
  }
  for (; i < n; ++i) {
    const uint32_t l = lo[i] < lo[i + shift] ? lo[i] : lo[i + shift];
    const uint32_t h = hi[i] > hi[i + shift] ? hi[i] : hi[i + shift];
    out[i] = DecideOne(l, h, centre[i], contrast);
  }
}

template <class V>
constexpr Loops8 LoopsOf() {
  return Loops8{MinMaxLoop<V>, DoublingLoop<V>, DecideLoop<V>};
}

}  // namespace img::bwconv
