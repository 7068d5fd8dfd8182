// Table lookups over contiguous samples: the dispatch to the loops of each
// instruction set (lut_scalar.cpp, lut_ssse3.cpp, lut_avx2.cpp,
// lut_avx512.cpp) and the exported sample mappers.
#include "lut_simd.h"

#include "lut_isa.h"

namespace img {

namespace {

void Map(Isa isa, const uint8_t *table, const uint8_t *src, uint8_t *dst, std::size_t count,
         bool keepFourth) {
  // A set the processor lacks runs the best one below it; SSE2 has no loop
  // of its own.
  switch (BestIsa(isa)) {
    case Isa::Avx512:
      return lut::MapAvx512(table, src, dst, count, keepFourth);
    case Isa::Avx2:
      return lut::MapAvx2(table, src, dst, count, keepFourth);
    case Isa::Ssse3:
      return lut::MapSsse3(table, src, dst, count, keepFourth);
    case Isa::Sse2:
    case Isa::Scalar:
      return lut::MapScalar(table, src, dst, count, keepFourth);
  }
}

}  // namespace

void MapBytes(Isa isa, const uint8_t *table, const uint8_t *src, uint8_t *dst, std::size_t count) {
  Map(isa, table, src, dst, count, false);
}

void MapBytesKeepFourth(Isa isa, const uint8_t *table, const uint8_t *src, uint8_t *dst, std::size_t count) {
  Map(isa, table, src, dst, count, true);
}

void MapWords(Isa isa, const uint16_t *table, uint16_t *p, std::size_t count, bool keepFourth) {
  if (BestIsa(isa) == Isa::Avx512) return lut::MapWordsAvx512(table, p, count, keepFourth);
  lut::MapWordsScalar(table, p, count, keepFourth);
}

void XorBytes(Isa isa, uint8_t *p, std::size_t count, uint64_t pattern) {
  switch (BestIsa(isa)) {
    case Isa::Avx512:
      return lut::XorAvx512(p, count, pattern);
    case Isa::Avx2:
      return lut::XorAvx2(p, count, pattern);
    default:  // no loop of their own below AVX2
      return lut::XorScalar(p, count, pattern);
  }
}

}  // namespace img

extern "C" {

IMG_API void MapSampleBytes(const uint8_t *table, uint8_t *samples, size_t count) {
  if (table && samples) img::MapBytes(img::BestIsa(), table, samples, samples, count);
}

IMG_API void MapSampleWords(const uint16_t *table, uint16_t *samples, size_t count) {
  if (table && samples) img::MapWords(img::BestIsa(), table, samples, count, false);
}

}  // extern "C"
