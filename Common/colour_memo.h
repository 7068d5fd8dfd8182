// A per-call memo for exports whose result for a pixel depends on its colour
// alone (hue, saturation, hue bands, tint): a photo has far fewer colours
// than pixels. 65536 slots addressed by the colour's low bits each keep the
// last colour that landed there with its result; a hit hands back what the
// computation gave for that very colour, so the bits are the computation's.
// Internal to imgcolor (header only).
#pragma once

#include <cstddef>
#include <cstdint>
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
      const uint64_t colour = static_cast<uint64_t>(b) | static_cast<uint64_t>(g) << 16 |
                              static_cast<uint64_t>(r) << 32 | uint64_t{1} << 48;
      Slot &slot = slots_.get()[Index(r, g, b)];
      if (slot.key == colour) {
        b = static_cast<int32_t>(slot.value & 0xFFFF), g = static_cast<int32_t>((slot.value >> 16) & 0xFFFF),
        r = static_cast<int32_t>(slot.value >> 32);
        return;
      }
      compute(r, g, b);
      slot.key = colour;
      slot.value = static_cast<uint64_t>(b) | static_cast<uint64_t>(g) << 16 | static_cast<uint64_t>(r) << 32;
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

  struct Word {
    uint64_t word;
  };
  struct Slot {
    uint64_t key, value;
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
