// The adaptive contrast rows of AVX-512 (Isa::Avx512): the loop of adaptive_rows.h
// compiled for target("avx512f,avx512bw,avx512dq,avx512vl"); the file is compiled for the baseline.
#define IMG_ADAPTIVE_TARGET "avx512f,avx512bw,avx512dq,avx512vl"
#include "adaptive_rows.h"

namespace img::adaptive {

void RowAvx512(const Fast &k, const Step<uint8_t> &s) { Row(k, s); }
void RowAvx512(const Fast &k, const Step<uint16_t> &s) { Row(k, s); }

}  // namespace img::adaptive
