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

// `SlotBits` 16 (512 KiB, 640 KiB for 16-bit samples) or, for 16-bit rows
// of many pixels, 22 (40 MiB of zero pages that cost nothing until touched):
// fewer colours that push each other out, so fewer computed again.
template <class T, uint32_t SlotBits = 16>
class ColourMemo {
 public:
  static constexpr uint32_t kSlotBits = SlotBits;
  static_assert(SlotBits == 16 || (SlotBits == 22 && sizeof(T) == 2));

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
      // blue with a 16-bit index), stored XOR the slot's mark so that a zeroed slot reads as
      // empty: the one colour of each slot whose bits equal the mark is never
      // stored (it is computed every time), every other one matches only
      // itself.
      const uint32_t index = Index(r, g, b);
      const uint32_t key =
          ((static_cast<uint32_t>(r) >> kRed) << (32 - kRed - kGreen) |
           (static_cast<uint32_t>(g) >> kGreen) << (16 - kBlue) | static_cast<uint32_t>(b) >> kBlue) ^
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
  // The low 5, 6 and 5 bits of red, green and blue (7, 8 and 7 for 22):
  // near colours (a photo's neighbouring pixels) take distinct slots close
  // together in memory.
  static constexpr uint32_t kGreen = SlotBits == 16 ? 6 : 8, kRed = (SlotBits - kGreen) / 2, kBlue = kRed;
  static uint32_t Index(int32_t r, int32_t g, int32_t b) {
    return (static_cast<uint32_t>(r) & ((1u << kRed) - 1)) << (kGreen + kBlue) |
           (static_cast<uint32_t>(g) & ((1u << kGreen) - 1)) << kBlue |
           (static_cast<uint32_t>(b) & ((1u << kBlue) - 1));
  }
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

// For 8-bit rows of many pixels: a slot for every colour (2^24 words, 64
// MiB from the kernel allocator, whose blocks of that size come as zero
// pages that cost nothing until touched), so each colour of the image is
// computed once, where the memo above computes a colour again whenever
// another one took its slot in between. A slot holds 1 << 24 | the result
// (blue, green, red from the low byte), 0 until the colour is met.
class ColourTable {
 public:
  // Worth its pages from about this many pixels on (a photo of 4 megapixels
  // has a few hundred thousand colours; the memo above recomputes two to
  // three times as many).
  static constexpr int64_t kMinPixels = int64_t{1} << 22;

  ColourTable(int32_t line, const wchar_t *file) : slots_(std::size_t{1} << 24, line, file) {}
  bool operator!() const { return !slots_; }

  template <class Compute>
  void Apply(int32_t &r, int32_t &g, int32_t &b, Compute &&compute) {
    uint32_t &slot =
        slots_
            .get()[static_cast<uint32_t>(b) | static_cast<uint32_t>(g) << 8 | static_cast<uint32_t>(r) << 16];
    if (slot == 0) {
      compute(r, g, b);
      slot = 1u << 24 | static_cast<uint32_t>(b) | static_cast<uint32_t>(g) << 8 |
             static_cast<uint32_t>(r) << 16;
      return;
    }
    b = static_cast<int32_t>(slot & 0xFF), g = static_cast<int32_t>((slot >> 8) & 0xFF),
    r = static_cast<int32_t>((slot >> 16) & 0xFF);
  }

 private:
  KernelBuffer<uint32_t> slots_;
};

}  // namespace img
