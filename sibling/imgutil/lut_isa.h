// Internal to imgutil: the lookup loops of each instruction set, which
// lut_simd.cpp dispatches to. Every loop gives the scalar loop's bytes.
#pragma once

#include <cstddef>
#include <cstdint>

namespace img::lut {

// dst[i] = table[src[i]] for i < count (src and dst may be the same); with
// keepFourth every byte at an offset of 3 modulo 4 is copied unchanged.
void MapScalar(const uint8_t *table, const uint8_t *src, uint8_t *dst, std::size_t count, bool keepFourth);
void MapSsse3(const uint8_t *table, const uint8_t *src, uint8_t *dst, std::size_t count, bool keepFourth);
void MapAvx2(const uint8_t *table, const uint8_t *src, uint8_t *dst, std::size_t count, bool keepFourth);
void MapAvx512(const uint8_t *table, const uint8_t *src, uint8_t *dst, std::size_t count, bool keepFourth);

// p[i] = table[p[i]] over 16-bit samples in place; with keepFourth every word
// at an offset of 3 modulo 4 stays.
void MapWordsScalar(const uint16_t *table, uint16_t *p, std::size_t count, bool keepFourth);
void MapWordsAvx512(const uint16_t *table, uint16_t *p, std::size_t count, bool keepFourth);

// p[i] ^= byte i % 8 of `pattern` (little-endian) for i < count: tables of
// the form v -> v ^ k (see lut.cpp), pattern phase 0 at p.
void XorScalar(uint8_t *p, std::size_t count, uint64_t pattern);
void XorAvx2(uint8_t *p, std::size_t count, uint64_t pattern);
void XorAvx512(uint8_t *p, std::size_t count, uint64_t pattern);

}  // namespace img::lut
