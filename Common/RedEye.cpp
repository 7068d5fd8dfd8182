// Red-eye removal: inside the region, every pixel whose CIE L*a*b* a* (the
// red-green axis, byte form) reaches the threshold takes the a* and b* of a
// replacement colour and keeps its own lightness, scaled. Every pixel of the
// region makes the byte Lab round trip, matched or not.
//
// The result of a pixel depends on its colour alone, so 8-bit rows keep a
// direct-mapped cache of colours already converted: a photograph repeats
// most of its colours. A conversion takes its three cube roots by Newton
// steps from a table of first guesses, and falls back to pow near a rounding
// step (docs/binary.md proves the two agree).
#include "RedEye.h"

#include <array>
#include <bit>
#include <cmath>

#include "frame.h"

namespace img {

namespace {

static constexpr const wchar_t *kSourceFile = L"Common/RedEye";

constexpr EntryRule kEntry{
    .flagsWord = true, .nullBitmap = NullBitmap::RefusedUnallocated, .signedData = true};

using redeye::Lab;

using redeye::Batch;
using redeye::kScale16;
using redeye::kScale8;
using redeye::Scale;

inline double F(double t) { return t > 0.008856 ? std::pow(t, 1.0 / 3.0) : 7.787 * t + 16.0 / 116.0; }
inline double FInverse(double u) { return u > 0.206893 ? u * u * u : (u - 16.0 / 116.0) / 7.787; }

// value + 0.5, limited to lo..hi, truncated toward zero.
inline int32_t Limit(double value, double lo, double hi) {
  const double v = value + 0.5;
  return static_cast<int32_t>(v < lo ? lo : v > hi ? hi : v);
}

Lab ToLab(const Scale &s, double R, double G, double B) {
  const double X = (0.412453 * R + 0.357580 * G + 0.180423 * B) / s.xn;
  const double Y = (0.212671 * R + 0.715160 * G + 0.072169 * B) / s.yn;
  const double Z = (0.019334 * R + 0.119193 * G + 0.950227 * B) / s.zn;
  const double fy = F(Y);
  const double L = Y > 0.008856 ? 116 * fy - 16 : 903.3 * Y;
  return {Limit(L, 0, 100), Limit(500 * (F(X) - fy), -128, 127), Limit(200 * (fy - F(Z)), -128, 127)};
}

// First guesses of t^(-1/3) for t in [2^-7, 2): 256 slices of each binary
// exponent (the top 8 bits of the mantissa), the value at the slice's middle
// (within 6.6e-4 relative of any t of the slice). Built at compile time by
// Newton steps from 1, which converge for t < 4.
constexpr std::array<double, redeye::kGuessCount> kGuess = [] {
  std::array<double, redeye::kGuessCount> g{};
  for (int32_t e = 0; e < 8; ++e)
    for (int32_t j = 0; j < 256; ++j) {
      double t = 1.0 + (j + 0.5) / 256.0;
      for (int32_t k = 0; k < e; ++k) t *= 2;
      for (int32_t k = 0; k < 7; ++k) t /= 2;
      double r = 1;
      for (int32_t i = 0; i < 60; ++i) r = r * (4 - t * r * r * r) / 3;
      g[static_cast<std::size_t>(e * 256 + j)] = r;
    }
  return g;
}();

// t^(1/3) for t in [2^-7, 2): two Newton steps r <- r (4 - t r^3) / 3 on
// the inverse root (relative error e becomes -2e^2 - 4e^3/3 - e^4/3, so
// 6.6e-4 falls to 8.8e-7, then 1.6e-12 with rounding), then t r^2 (twice
// that). Outside, pow.
inline double CubeRoot(double t) {
  const uint64_t bits = std::bit_cast<uint64_t>(t);
  const uint64_t slice = (bits >> 44) - redeye::kGuessBase;
  if (slice >= kGuess.size()) return std::pow(t, 1.0 / 3.0);
  double r = kGuess[slice];
  r = r * (4 - (t * r) * (r * r)) * (1.0 / 3.0);
  r = r * (4 - (t * r) * (r * r)) * (1.0 / 3.0);
  return t * r * r;
}
inline double FFast(double t) { return t > 0.008856 ? CubeRoot(t) : 7.787 * t + 16.0 / 116.0; }

// True when v lies more than 1e-6 from every integer: the fast value and
// pow's then truncate alike (they differ by less than 1e-8: docs/binary.md).
inline bool Clear(double v) {
  constexpr double kMargin = 1e-6;
  const double f = std::fabs(v - static_cast<double>(static_cast<int64_t>(v)));  // exact for |v| < 2^52
  return f > kMargin && f < 1 - kMargin;
}

// ToLab with the fast roots; the exact ToLab when a value before its
// truncation (v + 0.5; the limits are integers) lies near an integer.
Lab ToLabQuick(const Scale &s, double R, double G, double B) {
  const double X = (0.412453 * R + 0.357580 * G + 0.180423 * B) / s.xn;
  const double Y = (0.212671 * R + 0.715160 * G + 0.072169 * B) / s.yn;
  const double Z = (0.019334 * R + 0.119193 * G + 0.950227 * B) / s.zn;
  const double fy = FFast(Y);
  const double L = Y > 0.008856 ? 116 * fy - 16 : 903.3 * Y;
  const double a = 500 * (FFast(X) - fy), b = 200 * (fy - FFast(Z));
  if (!Clear(L + 0.5) || !Clear(a + 0.5) || !Clear(b + 0.5)) return ToLab(s, R, G, B);
  return {Limit(L, 0, 100), Limit(a, -128, 127), Limit(b, -128, 127)};
}

// Blue, green, red on the scale's full range.
struct Colour {
  int32_t b, g, r;
};

Colour FromLab(const Scale &s, const Lab &lab) {
  const double fy = (lab.L + 16) / 116.0;
  const double Yr = fy > 0.206893 ? fy * fy * fy : lab.L / 903.3;
  const double X = FInverse(lab.a / 500.0 + fy) * s.xn;
  const double Y = Yr * s.yn;
  const double Z = FInverse(fy - lab.b / 200.0) * s.zn;
  return {Limit(0.055648 * X - 0.204043 * Y + 1.057311 * Z, 0, s.max),
          Limit(-0.969256 * X + 1.875992 * Y + 0.041556 * Z, 0, s.max),
          Limit(3.240479 * X - 1.537150 * Y - 0.498535 * Z, 0, s.max)};
}

// What the call does to a colour's byte Lab before it goes back.
struct Recolour {
  Lab replacement;
  int64_t threshold;  // a* at or above it matches
  double factor;

  void operator()(Lab &lab) const {
    if (lab.a >= threshold) {
      lab.b = replacement.b;
      lab.a = replacement.a;
      const double L = lab.L * factor;
      lab.L = static_cast<int32_t>(L < 0 ? 0 : L > 100 ? 100 : L);
    }
  }
};

// Direct-mapped cache of 8-bit colours: entry = (colour + 1) << 32 | result.
class ColourCache {
 public:
  static constexpr uint32_t kBits = 16;
  explicit ColourCache(bool wanted) {
    if (wanted) entries_ = KernelBuffer<uint64_t>(std::size_t{1} << kBits, __LINE__, kSourceFile);
  }
  bool ok() const { return static_cast<bool>(entries_); }

  bool Find(uint32_t colour, uint32_t &result) const {
    const uint64_t e = entries_[Slot(colour)];
    result = static_cast<uint32_t>(e);
    return (e >> 32) == colour + 1u;
  }
  void Put(uint32_t colour, uint32_t result) {
    entries_[Slot(colour)] = (static_cast<uint64_t>(colour) + 1u) << 32 | result;
  }

 private:
  static uint32_t Slot(uint32_t colour) { return (colour * 0x9E3779B1u) >> (32 - kBits); }
  KernelBuffer<uint64_t> entries_;
};

int32_t RemoveRedeye(BitmapRecord *bitmap, uint32_t newColor, int32_t threshold, int32_t lightness, Isa isa) {
  RowPass pass(bitmap, RowSetup{.layout = ROW_LAYOUT_NATIVE, .storedRows = true});
  if (pass.status() != RC_SUCCESS) return pass.status();
  const bool wide = pass.wide();
  const Scale scale = wide ? kScale16 : kScale8;
  const int32_t widen = wide ? 257 : 1;
  const Recolour recolour{ToLab(scale, static_cast<int32_t>(newColor & 0xFF) * widen,
                                static_cast<int32_t>((newColor >> 8) & 0xFF) * widen,
                                static_cast<int32_t>((newColor >> 16) & 0xFF) * widen),
                          static_cast<int64_t>(threshold) - 128, lightness / 100.0};
  ColourCache cache(!wide);  // 8-bit rows only
  if (!wide && !cache.ok()) return RC_NO_MEMORY;
  isa = BestIsa(isa);
  // Pixels wait in a batch for their conversion (the lanes take eight at a
  // time); every batch is finished before its row is written.
  Batch batch{};
  return pass.RunRows([&](auto &row) {
    using T = std::remove_reference_t<decltype(*row.samples)>;
    T *targets[Batch::kSize];
    uint32_t colours[Batch::kSize];
    int32_t count = 0;
    const auto finish = [&] {
      redeye::ToLabBatch(isa, scale, batch, count);
      for (int32_t i = 0; i < count; ++i) recolour(batch.lab[i]);
      redeye::FromLabBatch(isa, scale, batch, count);
      for (int32_t i = 0; i < count; ++i) {
        T *p = targets[i];
        p[0] = static_cast<T>(batch.b[i]);
        p[1] = static_cast<T>(batch.g[i]);
        p[2] = static_cast<T>(batch.r[i]);
        if constexpr (sizeof(T) == 1)
          cache.Put(colours[i], static_cast<uint32_t>(batch.b[i]) | static_cast<uint32_t>(batch.g[i]) << 8 |
                                    static_cast<uint32_t>(batch.r[i]) << 16);
      }
      count = 0;
    };
    row.ForEach([&](int32_t x) {
      T *p = row.Pixel(x);
      if constexpr (sizeof(T) == 1) {
        const uint32_t colour = p[0] | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16;
        uint32_t out = 0;
        if (cache.Find(colour, out)) {
          p[0] = static_cast<T>(out);
          p[1] = static_cast<T>(out >> 8);
          p[2] = static_cast<T>(out >> 16);
          return;
        }
        colours[count] = colour;
      }
      batch.r[count] = p[2];
      batch.g[count] = p[1];
      batch.b[count] = p[0];
      targets[count] = p;
      if (++count == Batch::kSize) finish();
    });
    if (count > 0) finish();
  });
}

}  // namespace

const std::array<double, redeye::kGuessCount> redeye::kCubeRootGuess = kGuess;

void redeye::ToLabBatch(Isa isa, const Scale &s, Batch &batch, int32_t n) {
  if (isa >= Isa::Avx512) {
    uint64_t unclear = 0;
    ToLabLanesAvx512(s, batch, n, unclear);
    if (n < 64) unclear &= (uint64_t{1} << n) - 1;
    for (; unclear != 0; unclear &= unclear - 1) {
      const int32_t i = std::countr_zero(unclear);
      batch.lab[i] = ToLab(s, batch.r[i], batch.g[i], batch.b[i]);
    }
    return;
  }
  for (int32_t i = 0; i < n; ++i) batch.lab[i] = ToLabQuick(s, batch.r[i], batch.g[i], batch.b[i]);
}

void redeye::FromLabBatch(Isa isa, const Scale &s, Batch &batch, int32_t n) {
  if (isa >= Isa::Avx512) return FromLabLanesAvx512(s, batch, n);
  for (int32_t i = 0; i < n; ++i) {
    const Colour o = FromLab(s, batch.lab[i]);
    batch.r[i] = o.r;
    batch.g[i] = o.g;
    batch.b[i] = o.b;
  }
}

Lab redeye::ToLabExact(bool wide, int32_t r, int32_t g, int32_t b) {
  return ToLab(wide ? kScale16 : kScale8, r, g, b);
}
Lab redeye::ToLabFast(bool wide, int32_t r, int32_t g, int32_t b) {
  return ToLabQuick(wide ? kScale16 : kScale8, r, g, b);
}

int32_t RemoveRedeyeIsa(BitmapRecord *bitmap, uint32_t newColor, int32_t threshold, int32_t lightness,
                        uint32_t flags, Isa isa) {
  if (const int32_t status = CheckEntry(kEntry, flags, bitmap)) return status;
  // The course works top row first. It turns the bitmap back only after a
  // complete pass: a gray bitmap and every failure leave it turned (kept).
  const int32_t kept = bitmap->Orientation;
  if (kept != ORIENT_TOP_FIRST) {
    const int32_t status = ChangeOrientation(nullptr, bitmap, BITMAP_RECORD_SIZE, ORIENT_TOP_FIRST, 0);
    if (status != RC_SUCCESS) return status;
  }
  if (IsGrayBitmap(bitmap)) return RC_UNSUPPORTED_BITMAP;
  const int32_t status = RemoveRedeye(bitmap, newColor, threshold, lightness, isa);
  if (status != RC_SUCCESS || kept == ORIENT_TOP_FIRST) return status;
  return ChangeOrientation(nullptr, bitmap, BITMAP_RECORD_SIZE, kept, 0);
}

}  // namespace img

extern "C" IMG_API int32_t Q_RemoveRedeyeBitmap(BitmapRecord *bitmap, uint32_t newColor, int32_t threshold,
                                                int32_t lightness, uint32_t flags) {
  return img::RemoveRedeyeIsa(bitmap, newColor, threshold, lightness, flags, img::Isa::Avx512);
}
