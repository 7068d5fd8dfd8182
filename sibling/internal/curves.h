// Integer luma form and gamma curve shared by imgutil and imgcolor (header only).
#pragma once

#include <cmath>
#include <cstdint>

namespace img {

struct YuvPixel {
  int32_t y, u, v;
};

// Y = (9798 R + 19235 G + 3736 B) >> 15 (unsigned) limited to max;
// U = ((B - Y) * 16122) >> 15, V = ((R - Y) * 25203) >> 15 (arithmetic).
inline YuvPixel LumaForward(int32_t r, int32_t g, int32_t b, int32_t max) {
  uint32_t y = (static_cast<uint32_t>(r) * 9798u + static_cast<uint32_t>(g) * 19235u +
                static_cast<uint32_t>(b) * 3736u) >>
               15;
  if (y > static_cast<uint32_t>(max)) y = static_cast<uint32_t>(max);
  const int32_t iy = static_cast<int32_t>(y);
  return YuvPixel{iy, ((b - iy) * 16122) >> 15, ((r - iy) * 25203) >> 15};
}

// Back to R, G, B, each limited to 0..max (values below 1 become 0).
inline void LumaBack(const YuvPixel &p, int32_t max, int32_t *r, int32_t *g, int32_t *b) {
  auto limit = [max](int64_t v) { return v < 1 ? 0 : v >= max ? max : static_cast<int32_t>(v); };
  const int64_t u = p.u, v = p.v;
  *r = limit(p.y + ((v * 37221 - u * 29) >> 15));
  *g = limit(p.y + ((-v * 18940 - u * 12943) >> 15));
  *b = limit(p.y + ((-v * 33 + u * 66883) >> 15));
}

// Gamma curve over `length` entries (top = length - 1), e = 1 / (gamma / 100):
// entry i = round-half-even(top * min(i^e * (1 / top^e), 1)), gamma > 0.
// Where top^e overflows a double (small gammas on more than ten bits: gamma
// 1 on 16 bits is 65535^100), that form is infinity times 0, NaN; there the
// entry is the curve's true value round-half-even(top * (i / top)^e), so
// white stays white. Every finite case keeps the form above.
template <class Entry>
void BuildGammaTable(uint32_t gamma, uint32_t length, Entry *table) {
  const double e = 1.0 / (gamma / 100.0);
  const double last = static_cast<double>(length - 1);
  const double top = std::pow(last, e);
  const bool direct = !std::isfinite(top) || length < 2;
  for (uint32_t i = 0; i < length; ++i) {
    double r = direct ? (length < 2 ? 0.0 : std::pow(static_cast<double>(i) / last, e))
                      : std::pow(static_cast<double>(i), e) * (1.0 / top);
    if (r > 1.0) r = 1.0;
    table[i] = static_cast<Entry>(std::nearbyint(last * r));
  }
}

}  // namespace img
