// Colour-space conversions, the loops of the x86-64 baseline (Isa::Sse2):
// plain C++ that runs faster than the per-pixel reference and gives its bits
// for every input. HSV both ways and the HLS forward replace their divisions
// by reciprocal tables; XYZ, YCrCb and YUV both ways and the HLS
// inverse run on planes the compiler vectorises; the table-driven Lab rows
// compute some table reads instead of reading them. They also convert what
// the AVX2 loops leave over at the end of a run.
#include <array>

#include "ClrSpc_internal.h"

namespace img::clrspc {

namespace {

// ---- Reciprocal divisions -------------------------------------------------------------------

// floor(2^32 / d) + 1: (n * k) >> 32 equals n / d for 0 <= n < 2^32 / d, far
// more than any numerator here (the tests check every one in use). The
// largest divisor is the hexcone hue's 6 (max - min), 1530.
struct Reciprocals {
  std::array<uint64_t, 1536> k{};
  constexpr Reciprocals() {
    for (uint64_t d = 1; d < k.size(); ++d) k[d] = (uint64_t{1} << 32) / d + 1;
  }
};
constexpr Reciprocals kRecip{};

// The arithmetic of the hue models with the divisions through the table:
// for non-negative numerators, and for any sign (truncating toward zero).
struct Reciprocal : hue::Plain {
  static int32_t Div(int32_t n, int32_t d) {
    return static_cast<int32_t>((static_cast<uint64_t>(n) * kRecip.k[d]) >> 32);
  }
};
struct SignedReciprocal : hue::Plain {
  static int32_t Div(int32_t n, int32_t d) { return n < 0 ? -Reciprocal::Div(-n, d) : Reciprocal::Div(n, d); }
};

void HsvFwdRow(const LabTableSet *, uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  for (int32_t i = first; i < end; ++i) {
    const uint8_t *q = rgb + 3 * static_cast<ptrdiff_t>(i);
    const auto c = hue::HsvOf<Reciprocal>(q[2], q[1], q[0], 120, 100);
    uint8_t *p = sp + 4 * static_cast<ptrdiff_t>(i);
    Put16(p, c.h);
    p[2] = static_cast<uint8_t>(c.s);
    p[3] = static_cast<uint8_t>(c.v);
  }
}

void HsvInvRow(const LabTableSet *, uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  for (int32_t i = first; i < end; ++i) {
    const uint8_t *p = sp + 4 * static_cast<ptrdiff_t>(i);
    const int32_t H = Get16(p), S = p[2], V = p[3];
    // In range every value lies in [0, V]: no clamping needed. Hues above 359
    // and saturations above 100 take the pixel formula.
    const Rgb c = H > 359 || S > 100 ? HsvInverse8(p) : hue::HsvToRgb<Reciprocal, 60>(H, S, V, 100);
    uint8_t *q = rgb + 3 * static_cast<ptrdiff_t>(i);
    q[0] = static_cast<uint8_t>(c.b), q[1] = static_cast<uint8_t>(c.g), q[2] = static_cast<uint8_t>(c.r);
  }
}

void HlsFwdRow(const LabTableSet *, uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  for (int32_t i = first; i < end; ++i) {
    const uint8_t *q = rgb + 3 * static_cast<ptrdiff_t>(i);
    const hue::Hls c = hue::HlsOf<Reciprocal, SignedReciprocal, hue::kHlsDegrees>(q[2], q[1], q[0]);
    uint8_t *p = sp + 4 * static_cast<ptrdiff_t>(i);
    Put16(p, c.h);
    p[2] = static_cast<uint8_t>(c.l);
    p[3] = static_cast<uint8_t>(c.s);
  }
}

// ---- Planar loops ---------------------------------------------------------------------------
//
// A row is split into chunks; each chunk is spread into planes of 32-bit
// integers, converted by a plain loop over the planes (which the compiler
// turns into SSE2 code, same formulas, same order, no fused multiply-add)
// and gathered back.

#define IMG_INLINE inline __attribute__((always_inline))

constexpr int32_t kChunk = 256;

// Clamp, then truncate: the same value as TruncClamp for every number.
IMG_INLINE int32_t VClamp(double v, double lo, double hi) {
  v = v < lo ? lo : v;
  v = v > hi ? hi : v;
  return static_cast<int32_t>(v);
}
IMG_INLINE int32_t IClamp(int32_t v, int32_t lo, int32_t hi) {
  v = v < lo ? lo : v;
  return v > hi ? hi : v;
}

struct Planes {
  alignas(32) int32_t a[kChunk];
  alignas(32) int32_t b[kChunk];
  alignas(32) int32_t c[kChunk];
  alignas(32) int32_t d[kChunk];
};

IMG_INLINE void XyzFwdK(Planes &in, Planes &out, int32_t n) {
  for (int32_t i = 0; i < n; ++i) {
    const int32_t R = in.a[i], G = in.b[i], B = in.c[i];
    out.a[i] = VClamp(0.412453 * R + 0.357580 * G + 0.189423 * B, 0, 255);
    out.b[i] = VClamp(0.212671 * R + 0.715160 * G + 0.072169 * B, 0, 255);
    out.c[i] = VClamp(0.019334 * R + 0.119193 * G + 0.950227 * B, 0, 255);
  }
}
IMG_INLINE void XyzInvK(Planes &in, Planes &out, int32_t n) {
  for (int32_t i = 0; i < n; ++i) {
    const int32_t X = in.a[i], Y = in.b[i], Z = in.c[i];
    out.a[i] = VClamp(3.240479 * X - 1.53715 * Y - 0.498535 * Z, 0, 255);
    out.b[i] = VClamp(-0.969256 * X + 1.875992 * Y + 0.041556 * Z, 0, 255);
    out.c[i] = VClamp(0.055648 * X - 0.204043 * Y + 1.057311 * Z, 0, 255);
  }
}
IMG_INLINE void YcrcbFwdK(Planes &in, Planes &out, int32_t n) {
  for (int32_t i = 0; i < n; ++i) {
    const int32_t R = in.a[i], G = in.b[i], B = in.c[i];
    out.a[i] = VClamp(0.299 * R + 0.587 * G + 0.114 * B, 0, 255);
    out.b[i] = VClamp(0.5 * R - 0.41869 * G - 0.08131 * B, -128, 127);
    out.c[i] = VClamp(-0.16874 * R - 0.33126 * G + 0.5 * B, -128, 127);
  }
}
IMG_INLINE void YcrcbInvK(Planes &in, Planes &out, int32_t n) {
  for (int32_t i = 0; i < n; ++i) {
    const int32_t Y = in.a[i], Cr = in.b[i], Cb = in.c[i];
    out.a[i] = VClamp(Y + 1.402 * Cr, 0, 255);
    out.b[i] = VClamp(Y - 0.3441363 * Cb - 0.71413636 * Cr, 0, 255);
    out.c[i] = VClamp(Y + 1.772 * Cb, 0, 255);
  }
}
IMG_INLINE void YuvFwdK(Planes &in, Planes &out, int32_t n) {
  for (int32_t i = 0; i < n; ++i) {
    const int32_t R = in.a[i], G = in.b[i], B = in.c[i];
    const int32_t Y = (9798 * R + 19235 * G + 3736 * B) >> 15;
    out.a[i] = IClamp(Y, 0, 255);
    out.b[i] = IClamp(((B - Y) * 16122) >> 15, -112, 111);
    out.c[i] = IClamp(((R - Y) * 25203) >> 15, -138, 137);
  }
}
IMG_INLINE void YuvInvK(Planes &in, Planes &out, int32_t n) {
  for (int32_t i = 0; i < n; ++i) {
    const int32_t Y = in.a[i], U = in.b[i], V = in.c[i];
    out.a[i] = IClamp(Y + ((37221 * V - 29 * U) >> 15), 0, 255);
    out.b[i] = IClamp(Y + ((-12943 * U - 18940 * V) >> 15), 0, 255);
    out.c[i] = IClamp(Y + ((66883 * U - 33 * V) >> 15), 0, 255);
  }
}

// HLS inverse without branches for hue 0..359 and S 0..100 (in.d flags the
// other pixels, which the caller converts with the pixel formula). There
// m2 >= m1 and every product is non-negative.
IMG_INLINE int32_t HlsValueK(int32_t m1, int32_t m2, int32_t h) {
  h = h >= 361 ? h - 360 : h;
  h = h < 0 ? h + 360 : h;
  const uint32_t span = static_cast<uint32_t>(m2 - m1);
  const int32_t up = m1 + static_cast<int32_t>(span * static_cast<uint32_t>(h) * 6u / 360u);
  const int32_t down = m1 + static_cast<int32_t>(span * static_cast<uint32_t>(240 - h) * 6u / 360u);
  return h <= 60 ? up : (h <= 180 ? m2 : (h <= 240 ? down : m1));
}
IMG_INLINE void HlsInvK(Planes &in, Planes &out, int32_t n) {
  for (int32_t i = 0; i < n; ++i) {
    const int32_t H = in.a[i], L = in.b[i], S = in.c[i];
    const uint32_t us = static_cast<uint32_t>(S), ul = static_cast<uint32_t>(L);
    const int32_t m2 = L <= 128 ? static_cast<int32_t>((us + 100) * ul / 100u)
                                : static_cast<int32_t>(us * 255u / 100u + ul - ul * us / 100u);
    const int32_t m1 = 2 * L - m2;
    const int32_t r = IClamp(HlsValueK(m1, m2, H + 120), 0, 255);
    const int32_t g = IClamp(HlsValueK(m1, m2, H), 0, 255);
    const int32_t b = IClamp(HlsValueK(m1, m2, H - 120), 0, 255);
    out.a[i] = S == 0 ? L : r;
    out.b[i] = S == 0 ? L : g;
    out.c[i] = S == 0 ? L : b;
  }
}

// Blue-green-red row -> planes R, G, B.
IMG_INLINE void SplitRgb(const uint8_t *q, Planes &p, int32_t n) {
  for (int32_t i = 0; i < n; ++i) p.c[i] = q[3 * i], p.b[i] = q[3 * i + 1], p.a[i] = q[3 * i + 2];
}
// Planes R, G, B -> blue-green-red row.
IMG_INLINE void JoinRgb(const Planes &p, uint8_t *q, int32_t n) {
  for (int32_t i = 0; i < n; ++i)
    q[3 * i] = static_cast<uint8_t>(p.c[i]), q[3 * i + 1] = static_cast<uint8_t>(p.b[i]),
          q[3 * i + 2] = static_cast<uint8_t>(p.a[i]);
}

enum class Layout { Bytes3, Signed3, Yuv, Hls };

IMG_INLINE void SplitSpace(Layout l, const uint8_t *s, Planes &p, int32_t n) {
  switch (l) {
    case Layout::Bytes3:
      for (int32_t i = 0; i < n; ++i) p.a[i] = s[3 * i], p.b[i] = s[3 * i + 1], p.c[i] = s[3 * i + 2];
      break;
    case Layout::Signed3:
      for (int32_t i = 0; i < n; ++i)
        p.a[i] = s[3 * i], p.b[i] = static_cast<int8_t>(s[3 * i + 1]),
        p.c[i] = static_cast<int8_t>(s[3 * i + 2]);
      break;
    case Layout::Yuv:
      for (int32_t i = 0; i < n; ++i)
        p.a[i] = s[4 * i], p.b[i] = static_cast<int8_t>(s[4 * i + 1]),
        p.c[i] = static_cast<int16_t>(static_cast<uint16_t>(s[4 * i + 2] | (s[4 * i + 3] << 8)));
      break;
    case Layout::Hls:
      for (int32_t i = 0; i < n; ++i)
        p.a[i] = s[4 * i] | (s[4 * i + 1] << 8), p.b[i] = s[4 * i + 2], p.c[i] = s[4 * i + 3];
      break;
  }
}
IMG_INLINE void JoinSpace(Layout l, const Planes &p, uint8_t *s, int32_t n) {
  if (l == Layout::Yuv) {
    for (int32_t i = 0; i < n; ++i)
      s[4 * i] = static_cast<uint8_t>(p.a[i]), s[4 * i + 1] = static_cast<uint8_t>(p.b[i]),
            s[4 * i + 2] = static_cast<uint8_t>(p.c[i]), s[4 * i + 3] = static_cast<uint8_t>(p.c[i] >> 8);
  } else {
    for (int32_t i = 0; i < n; ++i)
      s[3 * i] = static_cast<uint8_t>(p.a[i]), s[3 * i + 1] = static_cast<uint8_t>(p.b[i]),
            s[3 * i + 2] = static_cast<uint8_t>(p.c[i]);
  }
}

template <void (*K)(Planes &, Planes &, int32_t)>
IMG_INLINE void PlanarFwd(Layout l, int32_t size, const uint8_t *rgb, uint8_t *sp, int32_t first,
                          int32_t end) {
  Planes in, out;
  for (int32_t s = first; s < end; s += kChunk) {
    const int32_t n = end - s < kChunk ? end - s : kChunk;
    SplitRgb(rgb + 3 * static_cast<ptrdiff_t>(s), in, n);
    K(in, out, n);
    JoinSpace(l, out, sp + size * static_cast<ptrdiff_t>(s), n);
  }
}

template <void (*K)(Planes &, Planes &, int32_t)>
IMG_INLINE void PlanarInv(Layout l, int32_t size, uint8_t *rgb, const uint8_t *sp, int32_t first,
                          int32_t end) {
  Planes in, out;
  for (int32_t s = first; s < end; s += kChunk) {
    const int32_t n = end - s < kChunk ? end - s : kChunk;
    const uint8_t *src = sp + size * static_cast<ptrdiff_t>(s);
    SplitSpace(l, src, in, n);
    K(in, out, n);
    if (l == Layout::Hls) {
      // Hues above 359 and saturations above 100 take the pixel formula.
      for (int32_t i = 0; i < n; ++i)
        if (in.a[i] > 359 || in.c[i] > 100) {
          const Rgb c = HlsInverse8(src + 4 * i);
          out.a[i] = c.r, out.b[i] = c.g, out.c[i] = c.b;
        }
    }
    JoinRgb(out, rgb + 3 * static_cast<ptrdiff_t>(s), n);
  }
}

void XyzFwdRow(const LabTableSet *, uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  PlanarFwd<XyzFwdK>(Layout::Bytes3, 3, rgb, sp, first, end);
}
void XyzInvRow(const LabTableSet *, uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  PlanarInv<XyzInvK>(Layout::Bytes3, 3, rgb, sp, first, end);
}
void YcrcbFwdRow(const LabTableSet *, uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  PlanarFwd<YcrcbFwdK>(Layout::Bytes3, 3, rgb, sp, first, end);
}
void YcrcbInvRow(const LabTableSet *, uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  PlanarInv<YcrcbInvK>(Layout::Signed3, 3, rgb, sp, first, end);
}
void YuvFwdRow(const LabTableSet *, uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  PlanarFwd<YuvFwdK>(Layout::Yuv, 4, rgb, sp, first, end);
}
void YuvInvRow(const LabTableSet *, uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  PlanarInv<YuvInvK>(Layout::Yuv, 4, rgb, sp, first, end);
}
void HlsInvRow(const LabTableSet *, uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  PlanarInv<HlsInvK>(Layout::Hls, 4, rgb, sp, first, end);
}

// ---- Table-driven Lab -------------------------------------------------------------------------

// Forward: the RGB-to-XYZ table reads replaced by their content (index times
// weight; the sums stay below 2^31).
void LabTabFwdRow(const LabTableSet *set, uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  for (int32_t i = first; i < end; ++i) {
    const uint8_t *q = rgb + 3 * static_cast<ptrdiff_t>(i);
    const int32_t B = q[0], G = q[1], R = q[2];
    LabTabStore8(*set, (R * 412453 + G * 357580 + B * 180423) / 24236,
                 (R * 212671 + G * 715160 + B * 72169) / 25500, (R * 19334 + G * 119193 + B * 950227) / 27763,
                 sp + 3 * static_cast<ptrdiff_t>(i));
  }
}

// Inverse: each X-, Y- and Z-to-RGB table read replaced by its content, the
// index times the weight (exact in 32 bits: no sum leaves -2^31..2^31).
void LabTabInvRow(const LabTableSet *set, uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  for (int32_t i = first; i < end; ++i) {
    const LabTabXyz c = LabTabInvXyz(*set, sp + 3 * static_cast<ptrdiff_t>(i));
    uint8_t *q = rgb + 3 * static_cast<ptrdiff_t>(i);
    q[2] = static_cast<uint8_t>(Clamp((c.x * 3240479 + c.y * -1537150 + c.z * -498535) / 1000000, 0, 255));
    q[1] = static_cast<uint8_t>(Clamp((c.x * -969256 + c.y * 1875992 + c.z * 41556) / 1000000, 0, 255));
    q[0] = static_cast<uint8_t>(Clamp((c.x * 55648 + c.y * -204043 + c.z * 1057311) / 1000000, 0, 255));
  }
}

}  // namespace

// ---- Lab in floating point, inverse -----------------------------------------------------

// Yr and f(Yr) (one pow) depend on L alone: each L met in the run is computed
// once, by the reference's own steps, so the bits are the reference's.
void LabInvRow(const LabTableSet *, uint8_t *rgb, uint8_t *sp, int32_t first, int32_t end) {
  LabY y[256];
  bool known[256] = {};
  for (int32_t i = first; i < end; ++i) {
    const uint8_t *p = sp + 3 * static_cast<ptrdiff_t>(i);
    const int32_t L = p[0];
    if (!known[L]) y[L] = LabY8(L), known[L] = true;
    const Rgb c = LabInv8From(y[L], static_cast<int8_t>(p[1]), static_cast<int8_t>(p[2]));
    uint8_t *q = rgb + 3 * static_cast<ptrdiff_t>(i);
    q[0] = static_cast<uint8_t>(c.b), q[1] = static_cast<uint8_t>(c.g), q[2] = static_cast<uint8_t>(c.r);
  }
}

const SpaceLoops kSse2Loops = {{nullptr, HsvFwdRow, HlsFwdRow, XyzFwdRow, YcrcbFwdRow, YuvFwdRow, nullptr,
                                nullptr, nullptr, LabTabFwdRow, nullptr},
                               {nullptr, HsvInvRow, HlsInvRow, XyzInvRow, YcrcbInvRow, YuvInvRow, LabInvRow,
                                nullptr, nullptr, LabTabInvRow, nullptr}};

}  // namespace img::clrspc
