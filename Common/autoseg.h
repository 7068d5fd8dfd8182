// Threshold search of the automatic binarisation.
#pragma once

#include <cstdint>

namespace img {

// Threshold on a 256-level histogram: first peak (levels 5..250, lowest of
// equals), second peak by (level - first)^2 * count in wrapping unsigned
// 32-bit arithmetic, then the emptiest level between them (the lower peak
// when they are equal or adjacent).
int32_t AutoBinaryThreshold(const uint32_t *histogram);

}  // namespace img
