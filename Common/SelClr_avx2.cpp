// Selective colour, the AVX2 loop (Isa::Avx2): the planar loop of SelClr.h
// compiled for AVX2, which the compiler vectorises (eight pixels a step);
// its integer arithmetic gives the reference's samples exactly.
#include "SelClr.h"

namespace img::selclr {

namespace {

template <bool kRelative>
__attribute__((target("avx2"))) void Loop(uint8_t *row, int32_t channels, int32_t first, int32_t end,
                                          const Plan &plan) {
  SelectRunPlanar8<kRelative>(row, channels, first, end, plan);
}

}  // namespace

void SelectRun8Avx2(uint8_t *row, int32_t channels, int32_t first, int32_t end, const Plan &plan) {
  if (plan.relative)
    Loop<true>(row, channels, first, end, plan);
  else
    Loop<false>(row, channels, first, end, plan);
}

}  // namespace img::selclr
