// The lookup loops of the scalar reference: plain C++, which the other
// instruction sets also run for the samples their vectors leave over.
#include "lut_isa.h"

namespace img::lut {

void MapScalar(const uint8_t *table, const uint8_t *src, uint8_t *dst, std::size_t count, bool keepFourth) {
  if (keepFourth) {
    for (std::size_t i = 0; i < count; ++i) dst[i] = (i & 3) == 3 ? src[i] : table[src[i]];
    return;
  }
  std::size_t i = 0;
  for (; i + 4 <= count; i += 4) {
    const uint8_t a = table[src[i]], b = table[src[i + 1]], c = table[src[i + 2]], d = table[src[i + 3]];
    dst[i] = a;
    dst[i + 1] = b;
    dst[i + 2] = c;
    dst[i + 3] = d;
  }
  for (; i < count; ++i) dst[i] = table[src[i]];
}

void MapWordsScalar(const uint16_t *table, uint16_t *p, std::size_t count, bool keepFourth) {
  if (keepFourth) {
    std::size_t i = 0;
    for (; i + 4 <= count; i += 4) {
      p[i] = table[p[i]];
      p[i + 1] = table[p[i + 1]];
      p[i + 2] = table[p[i + 2]];
    }
    for (; i < count; ++i)
      if (i % 4 != 3) p[i] = table[p[i]];
    return;
  }
  for (std::size_t i = 0; i < count; ++i) p[i] = table[p[i]];
}

void XorScalar(uint8_t *p, std::size_t count, uint64_t pattern) {
  for (std::size_t i = 0; i < count; ++i) p[i] = static_cast<uint8_t>(p[i] ^ (pattern >> (8 * (i & 7))));
}

}  // namespace img::lut
