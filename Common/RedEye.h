// Red-eye removal, internal: the byte Lab form of one colour, exact (with
// pow) and fast (the cube root by Newton steps, falling back to the exact
// form near a rounding step), so tests can compare the two over every 8-bit
// colour.
#pragma once

#include <cstdint>

namespace img::redeye {

// Lab in bytes: L* 0..100, a* and b* -128..127.
struct Lab {
  int32_t L, a, b;
  bool operator==(const Lab &) const = default;
};

// Red, green and blue on the 8-bit (wide false) or 16-bit scale.
Lab ToLabExact(bool wide, int32_t r, int32_t g, int32_t b);
Lab ToLabFast(bool wide, int32_t r, int32_t g, int32_t b);

}  // namespace img::redeye
