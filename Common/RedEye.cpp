// Red-eye removal: inside the region, every pixel whose CIE L*a*b* a* (the
// red-green axis, byte form) reaches the threshold takes the a* and b* of a
// replacement colour and keeps its own lightness, scaled. Every pixel of the
// region makes the byte Lab round trip, matched or not.
//
// The result of a pixel depends on its colour alone, so 8-bit rows keep a
// direct-mapped cache of colours already converted: a photograph repeats
// most of its colours, and each conversion costs six powers.
#include <cmath>

#include "frame.h"

namespace img {

namespace {

static constexpr const wchar_t *kSourceFile = L"Common/RedEye";

constexpr EntryRule kEntry{
    .flagsWord = true, .nullBitmap = NullBitmap::RefusedUnallocated, .signedData = true};

// Lab in bytes: L* 0..100, a* and b* -128..127.
struct Lab {
  int32_t L, a, b;
};

// The white point times full scale, and full scale.
struct Scale {
  double xn, yn, zn, max;
};
constexpr Scale kScale8{242.36628, 255, 277.63227, 255};
constexpr Scale kScale16{62288.13396, 65535, 71351.49339, 65535};

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

// What the call does to one colour.
struct Recolour {
  Scale scale;
  Lab replacement;
  int64_t threshold;  // a* at or above it matches
  double factor;

  Colour operator()(int32_t b, int32_t g, int32_t r) const {
    Lab lab = ToLab(scale, r, g, b);
    if (lab.a >= threshold) {
      lab.b = replacement.b;
      lab.a = replacement.a;
      const double L = lab.L * factor;
      lab.L = static_cast<int32_t>(L < 0 ? 0 : L > 100 ? 100 : L);
    }
    return FromLab(scale, lab);
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

  template <class Convert>
  uint32_t Get(uint32_t colour, const Convert &convert) {
    uint64_t &e = entries_[(colour * 0x9E3779B1u) >> (32 - kBits)];
    if ((e >> 32) == colour + 1u) return static_cast<uint32_t>(e);
    const uint32_t result = convert(colour);
    e = (static_cast<uint64_t>(colour) + 1u) << 32 | result;
    return result;
  }

 private:
  KernelBuffer<uint64_t> entries_;
};

int32_t RemoveRedeye(BitmapRecord *bitmap, uint32_t newColor, int32_t threshold, int32_t lightness) {
  RowPass pass(bitmap, RowSetup{.layout = ROW_LAYOUT_NATIVE});
  if (pass.status() != RC_SUCCESS) return pass.status();
  const bool wide = pass.wide();
  const Scale scale = wide ? kScale16 : kScale8;
  const int32_t widen = wide ? 257 : 1;
  const Recolour recolour{scale,
                          ToLab(scale, static_cast<int32_t>(newColor & 0xFF) * widen,
                                static_cast<int32_t>((newColor >> 8) & 0xFF) * widen,
                                static_cast<int32_t>((newColor >> 16) & 0xFF) * widen),
                          static_cast<int64_t>(threshold) - 128, lightness / 100.0};
  ColourCache cache(!wide);  // 8-bit rows only
  if (!wide && !cache.ok()) return RC_NO_MEMORY;
  return pass.RunRows([&](auto &row) {
    using T = std::remove_reference_t<decltype(*row.samples)>;
    row.ForEach([&](int32_t x) {
      T *p = row.Pixel(x);
      if constexpr (sizeof(T) == 1) {
        const uint32_t colour = p[0] | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16;
        const uint32_t out = cache.Get(colour, [&](uint32_t c) {
          const Colour o = recolour(c & 0xFF, (c >> 8) & 0xFF, c >> 16);
          return static_cast<uint32_t>(o.b) | static_cast<uint32_t>(o.g) << 8 |
                 static_cast<uint32_t>(o.r) << 16;
        });
        p[0] = static_cast<T>(out);
        p[1] = static_cast<T>(out >> 8);
        p[2] = static_cast<T>(out >> 16);
      } else {
        const Colour o = recolour(p[0], p[1], p[2]);
        p[0] = static_cast<T>(o.b);
        p[1] = static_cast<T>(o.g);
        p[2] = static_cast<T>(o.r);
      }
    });
  });
}

}  // namespace
}  // namespace img

extern "C" IMG_API int32_t Q_RemoveRedeyeBitmap(BitmapRecord *bitmap, uint32_t newColor, int32_t threshold,
                                                int32_t lightness, uint32_t flags) {
  if (const int32_t status = img::CheckEntry(img::kEntry, flags, bitmap)) return status;
  // The course works top row first. It turns the bitmap back only after a
  // complete pass: a gray bitmap and every failure leave it turned (kept).
  const int32_t kept = bitmap->Orientation;
  if (kept != ORIENT_TOP_FIRST) {
    const int32_t status = ChangeOrientation(nullptr, bitmap, BITMAP_RECORD_SIZE, ORIENT_TOP_FIRST, 0);
    if (status != RC_SUCCESS) return status;
  }
  if (IsGrayBitmap(bitmap)) return RC_UNSUPPORTED_BITMAP;
  const int32_t status = img::RemoveRedeye(bitmap, newColor, threshold, lightness);
  if (status != RC_SUCCESS || kept == ORIENT_TOP_FIRST) return status;
  return ChangeOrientation(nullptr, bitmap, BITMAP_RECORD_SIZE, kept, 0);
}
