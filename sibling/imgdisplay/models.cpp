// Display colour models: one row of pixels converted between the library's
// own blue-green-red row (model 0, 16 for 16-bit samples) and CMYK, HSV,
// HLS and CMY rows whose samples go in the order of the model's name. All
// arithmetic is integer (64-bit intermediates) and rounds half up, so every
// result is exact and the same on every machine. Definitions: docs/planes.md.
#include <cstring>

#include "imgdisplay.h"

namespace {

struct Model {
  int32_t code;
  int32_t kind;  // 0 identity (B, G, R), 1 CMYK, 2 HSV, 3 HLS, 4 CMY
  int32_t samples;
  bool wide;
};

constexpr Model kModels[] = {
    {COLOR_MODEL_BGR, 0, 3, false},   {COLOR_MODEL_CMYK, 1, 4, false}, {COLOR_MODEL_HSV, 2, 3, false},
    {COLOR_MODEL_HLS, 3, 3, false},   {COLOR_MODEL_CMY, 4, 3, false},  {COLOR_MODEL_BGR16, 0, 3, true},
    {COLOR_MODEL_CMYK16, 1, 4, true}, {COLOR_MODEL_HSV16, 2, 3, true}, {COLOR_MODEL_HLS16, 3, 3, true},
    {COLOR_MODEL_CMY16, 4, 3, true},
};

const Model *FindModel(int32_t code) {
  for (const Model &m : kModels)
    if (m.code == code) return &m;
  return nullptr;
}

// a / b rounded half up, for a >= 0 and b > 0.
inline int64_t Div(int64_t a, int64_t b) { return (2 * a + b) / (2 * b); }

struct Rgb {
  int64_t r, g, b;
};

// The hue of a colour with max > min in steps of the sample range: one
// turn is F + 1 steps, red at 0, sectors of 60 degrees.
int64_t Hue(const Rgb &c, int64_t max, int64_t d, int64_t full) {
  int64_t n;  // hue in sixths of a turn, times d
  if (max == c.r)
    n = c.g - c.b;
  else if (max == c.g)
    n = 2 * d + c.b - c.r;
  else
    n = 4 * d + c.r - c.g;
  if (n < 0) n += 6 * d;
  const int64_t h = Div(n * (full + 1), 6 * d);
  return h > full ? 0 : h;
}

// The colour of a hue between a largest and a smallest value, both given
// over the denominator `den` (rounded at the end).
Rgb FromHue(int64_t hue, int64_t maxN, int64_t minN, int64_t den, int64_t full) {
  const int64_t turn = full + 1;
  const int64_t h6 = hue * 6;
  const int64_t sector = h6 / turn;
  const int64_t frac = h6 - sector * turn;  // over turn
  const int64_t d = maxN - minN;
  const int64_t all = den * turn;
  const int64_t hi = Div(maxN * turn, all), lo = Div(minN * turn, all);
  const int64_t rising = Div(minN * turn + d * frac, all);
  const int64_t falling = Div(maxN * turn - d * frac, all);
  switch (sector) {
    case 0:
      return {hi, rising, lo};
    case 1:
      return {falling, hi, lo};
    case 2:
      return {lo, hi, rising};
    case 3:
      return {lo, falling, hi};
    case 4:
      return {rising, lo, hi};
    default:
      return {hi, lo, falling};
  }
}

// From a blue-green-red pixel into the model's samples.
void Forward(int32_t kind, int64_t full, const Rgb &c, int64_t *out) {
  const int64_t max = c.r > c.g ? (c.r > c.b ? c.r : c.b) : (c.g > c.b ? c.g : c.b);
  const int64_t min = c.r < c.g ? (c.r < c.b ? c.r : c.b) : (c.g < c.b ? c.g : c.b);
  const int64_t d = max - min;
  switch (kind) {
    case 1: {  // C, M, Y, K
      const int64_t k = full - max;
      if (max == 0) {
        out[0] = out[1] = out[2] = 0;
      } else {
        out[0] = Div((max - c.r) * full, max);
        out[1] = Div((max - c.g) * full, max);
        out[2] = Div((max - c.b) * full, max);
      }
      out[3] = k;
      return;
    }
    case 2:  // H, S, V
      out[0] = d == 0 ? 0 : Hue(c, max, d, full);
      out[1] = max == 0 ? 0 : Div(d * full, max);
      out[2] = max;
      return;
    case 3: {  // H, L, S
      const int64_t sum = max + min;
      out[0] = d == 0 ? 0 : Hue(c, max, d, full);
      out[1] = (sum + 1) / 2;
      out[2] = d == 0 ? 0 : Div(d * full, sum <= full ? sum : 2 * full - sum);
      return;
    }
    case 4:  // C, M, Y
      out[0] = full - c.r;
      out[1] = full - c.g;
      out[2] = full - c.b;
      return;
    default:  // B, G, R
      out[0] = c.b;
      out[1] = c.g;
      out[2] = c.r;
  }
}

// From the model's samples back into a blue-green-red pixel.
Rgb Inverse(int32_t kind, int64_t full, const int64_t *in) {
  switch (kind) {
    case 1: {
      const int64_t k = full - in[3];
      return {Div((full - in[0]) * k, full), Div((full - in[1]) * k, full), Div((full - in[2]) * k, full)};
    }
    case 2: {
      const int64_t v = in[2], s = in[1];
      return FromHue(in[0], v * full, v * (full - s), full, full);
    }
    case 3: {
      const int64_t l = in[1], s = in[2];
      const int64_t maxN = 2 * l <= full ? l * (full + s) : l * full + s * full - l * s;
      return FromHue(in[0], maxN, 2 * l * full - maxN, full, full);
    }
    case 4:
      return {full - in[0], full - in[1], full - in[2]};
    default:
      return {in[2], in[1], in[0]};
  }
}

template <class T>
void Convert(const Model &from, const Model &to, const void *source, void *destination, int32_t width) {
  const int64_t full = sizeof(T) == 1 ? 255 : 65535;
  const T *src = static_cast<const T *>(source);
  T *dst = static_cast<T *>(destination);
  for (int32_t x = 0; x < width; ++x) {
    int64_t in[4], out[4];
    for (int32_t k = 0; k < from.samples; ++k) in[k] = src[static_cast<std::ptrdiff_t>(x) * from.samples + k];
    const Rgb c = Inverse(from.kind, full, in);
    Forward(to.kind, full, c, out);
    for (int32_t k = 0; k < to.samples; ++k)
      dst[static_cast<std::ptrdiff_t>(x) * to.samples + k] = static_cast<T>(out[k]);
  }
}

}  // namespace

extern "C" IMG_API int32_t ConvertColorModelRow(const void *source, void *destination, int32_t width,
                                                int32_t fromModel, int32_t toModel) {
  const Model *from = FindModel(fromModel), *to = FindModel(toModel);
  if (!source || !destination || width < 1 || !from || !to || from->wide != to->wide)
    return RC_INVALID_PARAMETER;
  if (from->kind == to->kind) {
    const size_t bytes =
        static_cast<size_t>(width) * static_cast<size_t>(from->samples) * (from->wide ? 2u : 1u);
    if (source != destination) std::memmove(destination, source, bytes);
    return RC_SUCCESS;
  }
  if (from->wide)
    Convert<uint16_t>(*from, *to, source, destination, width);
  else
    Convert<uint8_t>(*from, *to, source, destination, width);
  return RC_SUCCESS;
}
