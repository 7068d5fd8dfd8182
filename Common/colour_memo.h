// A per-call memo for exports whose result for a pixel depends on its colour
// alone (hue, saturation, hue bands, tint): a photo has far fewer colours
// than pixels. 65536 slots addressed by the colour's low bits each keep the
// last colour that landed there with its result; a hit hands back what the
// computation gave for that very colour, so the bits are the computation's.
// Internal to imgcolor (header only).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "family.h"

namespace img {

template <class T>
class ColourMemo {
 public:
  static constexpr uint32_t kSlotBits = 16;

  // One zeroed allocation through the kernel allocator; check with !memo.
  ColourMemo(int32_t line, const wchar_t *file) : slots_(std::size_t{1} << kSlotBits, line, file) {}
  bool operator!() const { return !slots_; }

  // r, g, b become compute(r, g, b)'s result (compute changes them in place),
  // from the memo when the colour was met before.
  template <class Compute>
  void Apply(int32_t &r, int32_t &g, int32_t &b, Compute &&compute) {
    if constexpr (sizeof(T) == 1) {
      // Key and result in one word: 1 << 24 | colour above, result below.
      const uint32_t colour =
          static_cast<uint32_t>(b) | static_cast<uint32_t>(g) << 8 | static_cast<uint32_t>(r) << 16;
      uint64_t &slot = slots_.get()[Index(r, g, b)].word;
      if (static_cast<uint32_t>(slot >> 32) == (colour | 1u << 24)) {
        const uint32_t v = static_cast<uint32_t>(slot);
        b = static_cast<int32_t>(v & 0xFF), g = static_cast<int32_t>((v >> 8) & 0xFF),
        r = static_cast<int32_t>(v >> 16);
        return;
      }
      compute(r, g, b);
      const uint32_t v =
          static_cast<uint32_t>(b) | static_cast<uint32_t>(g) << 8 | static_cast<uint32_t>(r) << 16;
      slot = uint64_t{colour | 1u << 24} << 32 | v;
    } else {
      // The colour's bits above the index (11 of red, 10 of green, 11 of
      // blue), stored XOR the slot's mark so that a zeroed slot reads as
      // empty: the one colour of each slot whose bits equal the mark is never
      // stored (it is computed every time), every other one matches only
      // itself.
      const uint32_t index = Index(r, g, b);
      const uint32_t key = ((static_cast<uint32_t>(r) >> 5) << 21 | (static_cast<uint32_t>(g) >> 6) << 11 |
                            static_cast<uint32_t>(b) >> 5) ^
                           Mark(index);
      uint8_t *slot = slots_.get()[index].bytes;
      uint32_t stored;
      std::memcpy(&stored, slot, 4);
      if (stored == key && key != 0) {
        uint16_t v[3];
        std::memcpy(v, slot + 4, 6);
        b = v[0], g = v[1], r = v[2];
        return;
      }
      compute(r, g, b);
      if (key == 0) return;
      const uint16_t v[3] = {static_cast<uint16_t>(b), static_cast<uint16_t>(g), static_cast<uint16_t>(r)};
      std::memcpy(slot, &key, 4);
      std::memcpy(slot + 4, v, 6);
    }
  }

 private:
  // The low 5, 6 and 5 bits of red, green and blue: near colours (a photo's
  // neighbouring pixels) take distinct slots close together in memory.
  static uint32_t Index(int32_t r, int32_t g, int32_t b) {
    return (static_cast<uint32_t>(r) & 0x1F) << 11 | (static_cast<uint32_t>(g) & 0x3F) << 5 |
           (static_cast<uint32_t>(b) & 0x1F);
  }
  static_assert(kSlotBits == 16);
  // A scattered 32-bit mark a slot (slot 0, where black lands, does not give
  // up black).
  static uint32_t Mark(uint32_t index) { return (index * 0x9E3779B1u) ^ 0x6A09E667u; }

  struct Word {
    uint64_t word;
  };
  // 16-bit samples: 10 bytes a slot (640 KiB), the stored key then blue,
  // green and red of the result, against 16 for a whole key and result.
  struct Slot {
    uint8_t bytes[10];
  };
  KernelBuffer<std::conditional_t<sizeof(T) == 1, Word, Slot>> slots_;
};

// Calls fn(r, g, b) (changing them) for the pixels [left, right) of a row of
// three or four samples a pixel (blue, green, red first; a fourth is kept).
template <class T, class Fn>
void ForEachColour(T *row, int32_t channels, int32_t left, int32_t right, Fn &&fn) {
  T *p = row + static_cast<std::ptrdiff_t>(left) * channels;
  for (int32_t x = left; x < right; ++x, p += channels) {
    int32_t b = p[0], g = p[1], r = p[2];
    fn(r, g, b);
    p[0] = static_cast<T>(b), p[1] = static_cast<T>(g), p[2] = static_cast<T>(r);
  }
}

}  // namespace img
