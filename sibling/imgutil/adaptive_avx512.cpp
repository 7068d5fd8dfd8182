// The adaptive contrast rows of AVX-512 (Isa::Avx512): the loop of adaptive_rows.h
// compiled for target(IMG_TARGET_AVX512); the file is compiled for the baseline.
#define IMG_ADAPTIVE_TARGET IMG_TARGET_AVX512
#include "adaptive_rows.h"
#include "cpu.h"

namespace img::adaptive {

void RowAvx512(const Fast &k, const Step<uint8_t> &s) { Row(k, s); }
void RowAvx512(const Fast &k, const Step<uint16_t> &s) { Row(k, s); }

}  // namespace img::adaptive
