// The instruction sets the family's SIMD paths use: one probe and one enum
// for every library (header only). Each SIMD family keeps a scalar reference
// and one source file per instruction set; the paths give identical results,
// and tests force each available one in turn.
#pragma once

#include <cstdint>

namespace img {

enum class Isa : int32_t {
  Scalar = 0,  // the reference: plain C++
  Ssse3 = 1,   // byte shuffles
  Avx2 = 2,
  Avx512 = 3,  // F, BW, DQ, VL and VBMI
};
inline constexpr Isa kAllIsas[] = {Isa::Scalar, Isa::Ssse3, Isa::Avx2, Isa::Avx512};

inline const char *IsaName(Isa isa) {
  switch (isa) {
    case Isa::Scalar:
      return "scalar";
    case Isa::Ssse3:
      return "ssse3";
    case Isa::Avx2:
      return "avx2";
    case Isa::Avx512:
      return "avx512";
  }
  return "unknown";
}

// True when the running processor executes the instruction set.
inline bool IsaAvailable(Isa isa) {
#if defined(__x86_64__) || defined(__i386__)
  switch (isa) {
    case Isa::Scalar:
      return true;
    case Isa::Ssse3:
      return __builtin_cpu_supports("ssse3");
    case Isa::Avx2:
      return __builtin_cpu_supports("avx2");
    case Isa::Avx512:
      return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
             __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl") &&
             __builtin_cpu_supports("avx512vbmi");
  }
  return false;
#else
  return isa == Isa::Scalar;
#endif
}

// The best available instruction set not above `limit`.
inline Isa BestIsa(Isa limit = Isa::Avx512) {
  for (int32_t i = static_cast<int32_t>(limit); i > 0; --i)
    if (IsaAvailable(static_cast<Isa>(i))) return static_cast<Isa>(i);
  return Isa::Scalar;
}

}  // namespace img
