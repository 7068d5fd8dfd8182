// The adaptive contrast rows of AVX2 (Isa::Avx2): the loop of adaptive_rows.h
// compiled for target("avx2"); the file is compiled for the baseline.
#define IMG_ADAPTIVE_TARGET "avx2"
#include "adaptive_rows.h"

namespace img::adaptive {

void RowAvx2(const Fast &k, const Step<uint8_t> &s) { Row(k, s); }
void RowAvx2(const Fast &k, const Step<uint16_t> &s) { Row(k, s); }

}  // namespace img::adaptive
