// The instruction sets the family's SIMD paths use: one probe and one enum
// for every library (header only). Each SIMD family keeps a scalar reference
// and one source file per instruction set; the paths give identical results,
// and tests force each available one in turn. A family without a loop of its
// own for a level runs the loop of the next level below it.
#pragma once

#include <cstdint>
#include <iterator>

namespace img {

enum class Isa : int32_t {
  Scalar = 0,  // the reference: plain C++, one pixel at a time
  Sse2 = 1,    // the x86-64 baseline: loops the compiler vectorises
  Ssse3 = 2,   // byte shuffles
  Avx2 = 3,
  Avx512 = 4,  // F, BW, DQ, VL and VBMI
};
inline constexpr Isa kAllIsas[] = {Isa::Scalar, Isa::Sse2, Isa::Ssse3, Isa::Avx2, Isa::Avx512};

inline const char *IsaName(Isa isa) {
  constexpr const char *kNames[] = {"scalar", "sse2", "ssse3", "avx2", "avx512"};
  const auto i = static_cast<uint32_t>(isa);
  return i < std::size(kNames) ? kNames[i] : "unknown";
}

// The target of every AVX-512 loop: exactly what IsaAvailable(Isa::Avx512)
// probes, so no loop uses an extension the probe did not see.
#define IMG_TARGET_AVX512 "avx2,avx512f,avx512bw,avx512dq,avx512vl,avx512vbmi"

// True when the running processor executes the instruction set.
inline bool IsaAvailable(Isa isa) {
#if defined(__x86_64__) || defined(__i386__)
  switch (isa) {
    case Isa::Scalar:
      return true;
    case Isa::Sse2:
      return __builtin_cpu_supports("sse2");
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
