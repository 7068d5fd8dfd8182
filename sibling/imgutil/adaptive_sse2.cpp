// The adaptive contrast rows of the x86-64 baseline (Isa::Sse2): the loop of adaptive_rows.h
// compiled for target("sse2"); the file is compiled for the baseline.
#define IMG_ADAPTIVE_TARGET "sse2"
#include "adaptive_rows.h"

namespace img::adaptive {

void RowSse2(const Fast &k, const Step<uint8_t> &s) { Row(k, s); }
void RowSse2(const Fast &k, const Step<uint16_t> &s) { Row(k, s); }

}  // namespace img::adaptive
