// Colour-space conversions: the dispatch. The pixel form and the 16-bit rows
// run the scalar reference (ClrSpc_scalar.cpp); an 8-bit row runs the loop of
// the best instruction set the processor has for its code (up to the one a
// test forces), chosen once per call. The Lab tables are built here.
#include <cmath>

#include "ClrSpc_internal.h"
#include "family.h"

namespace img {

static constexpr const wchar_t *kSourceFile = L"Common/ClrSpc";

namespace clrspc {

namespace {

constexpr int8_t kSize16[11] = {6, 8, 8, 6, 6, 8, 6, 6, 8, 0, 8};

bool RowArgsValid(uint32_t code, const void *rgb, const void *sp, const LabTableSet *set, int32_t first) {
  if (!ValidCode(code) || rgb == nullptr || sp == nullptr || first < 0) return false;
  if ((code == COLORSPACE_LAB_TABLE || code == COLORSPACE_LAB_TABLE + kToRgb) && set == nullptr) return false;
  return true;
}

// The loops of each level; SSSE3 has none of its own.
Row8Fn LoopOf(Isa isa, uint32_t code) {
  switch (isa) {
    case Isa::Avx512:
      return kAvx512Loops.For(code);
    case Isa::Avx2:
      return kAvx2Loops.For(code);
    case Isa::Ssse3:
      return nullptr;
    case Isa::Sse2:
      return kSse2Loops.For(code);
    case Isa::Scalar:
      return ScalarRow8(code);
  }
  return nullptr;
}

// The loop of the highest level up to `isa` that has one for the code.
Row8Fn LoopFrom(Isa isa, uint32_t code) {
  for (int32_t level = static_cast<int32_t>(isa); level > 0; --level)
    if (const Row8Fn fn = LoopOf(static_cast<Isa>(level), code)) return fn;
  return ScalarRow8(code);
}

}  // namespace

Row8Fn RowBelow(Isa isa, uint32_t code) {
  return LoopFrom(static_cast<Isa>(static_cast<int32_t>(isa) - 1), code);
}

}  // namespace clrspc

using clrspc::kToRgb;

int32_t GetColorSpacePixelSize(uint32_t code, int32_t bitsPerSample) {
  if (!clrspc::ValidCode(code)) return 0;
  const uint32_t space = code < kToRgb ? code : code - kToRgb;
  if (bitsPerSample == 8) return clrspc::kSize8[space];
  if (bitsPerSample == 16) return clrspc::kSize16[space];
  return 0;
}

int32_t ConvertColorPixel(uint32_t code, uint8_t *r, uint8_t *g, uint8_t *b, void *spacePixel) {
  if (spacePixel == nullptr || r == nullptr || g == nullptr || b == nullptr || !clrspc::ValidCode(code) ||
      code == COLORSPACE_LAB_TABLE || code == COLORSPACE_LAB_TABLE + kToRgb)
    return RC_INVALID_PARAMETER;
  uint8_t *p = static_cast<uint8_t *>(spacePixel);
  if (code < kToRgb) {
    clrspc::ForwardPixel8(code, *r, *g, *b, p);
  } else {
    const clrspc::Rgb c = clrspc::InversePixel8(code, p);
    *r = static_cast<uint8_t>(c.r), *g = static_cast<uint8_t>(c.g), *b = static_cast<uint8_t>(c.b);
  }
  return RC_SUCCESS;
}

int32_t ConvertColorRow8(uint32_t code, uint8_t *rgbRow, void *spaceRow, const LabTableSet *set,
                         int32_t first, int32_t end) {
  return ConvertColorRow8Isa(Isa::Avx512, code, rgbRow, spaceRow, set, first, end);
}

int32_t ConvertColorRow8Isa(Isa isa, uint32_t code, uint8_t *rgbRow, void *spaceRow, const LabTableSet *set,
                            int32_t first, int32_t end) {
  if (!clrspc::RowArgsValid(code, rgbRow, spaceRow, set, first)) return RC_INVALID_PARAMETER;
  if (first < end)
    clrspc::LoopFrom(BestIsa(isa), code)(set, rgbRow, static_cast<uint8_t *>(spaceRow), first, end);
  return RC_SUCCESS;
}

int32_t ConvertColorRow16(uint32_t code, uint16_t *rgbRow, void *spaceRow, const LabTableSet *set,
                          int32_t first, int32_t end) {
  return ConvertColorRow16Isa(Isa::Avx512, code, rgbRow, spaceRow, set, first, end);
}

int32_t ConvertColorRow16Isa(Isa isa, uint32_t code, uint16_t *rgbRow, void *spaceRow, const LabTableSet *set,
                             int32_t first, int32_t end) {
  if (!clrspc::RowArgsValid(code, rgbRow, spaceRow, set, first)) return RC_INVALID_PARAMETER;
  if (first >= end) return RC_SUCCESS;
  uint8_t *sp = static_cast<uint8_t *>(spaceRow);
  const bool avx512 = BestIsa(isa) == Isa::Avx512;
  if (avx512 && code == COLORSPACE_LAB)
    clrspc::LabFwdRow16Avx512(rgbRow, sp, first, end);
  else if (avx512 && code == COLORSPACE_LAB + kToRgb)
    clrspc::LabInvRow16Avx512(rgbRow, sp, first, end);
  else if (avx512 && (code == COLORSPACE_YCRCB || code == COLORSPACE_YCRCB + kToRgb))
    clrspc::YcrcbRow16Avx512(code != COLORSPACE_YCRCB, rgbRow, sp, first, end);
  else
    clrspc::Row16(code, rgbRow, sp, set, first, end);
  return RC_SUCCESS;
}

// ---- Lab tables ------------------------------------------------------------------------------

namespace {

inline double Cube(double t) { return t * t * t; }

using clrspc::kInvCubeHigh;
using clrspc::kInvCubeLow;

constexpr int32_t kRgbToXyz[3][3] = {
    {412453, 357580, 180423}, {212671, 715160, 72169}, {19334, 119193, 950227}};
// kXyzToRgb[source][channel]: weight of X, Y or Z in R, G and B.
constexpr int32_t kXyzToRgb[3][3] = {
    {3240479, -969256, 55648}, {-1537150, 1875992, -204043}, {-498535, 41556, 1057311}};

}  // namespace

int32_t BuildLabTables(LabTableSet *set) {
  if (set == nullptr) return RC_INVALID_PARAMETER;
  int32_t **rgbToXyz[3] = {set->RgbToX, set->RgbToY, set->RgbToZ};
  for (int32_t s = 0; s < 3; ++s) {
    for (int32_t c = 0; c < 3; ++c) {
      int32_t *t = static_cast<int32_t *>(IMG_ALLOC(256, sizeof(int32_t)));
      if (t == nullptr) return RC_NO_MEMORY;
      rgbToXyz[s][c] = t;
      for (int32_t i = 0; i < 256; ++i) t[i] = i * kRgbToXyz[s][c];
    }
  }
  int32_t **xyzToRgb[3] = {set->XToRgb, set->YToRgb, set->ZToRgb};
  for (int32_t s = 0; s < 3; ++s) {
    // Z reaches 278 in the inverse (the white point's Z on this scale).
    const int32_t count = s == 2 ? 279 : 256;
    for (int32_t c = 0; c < 3; ++c) {
      int32_t *t = static_cast<int32_t *>(IMG_ALLOC(count, sizeof(int32_t)));
      if (t == nullptr) return RC_NO_MEMORY;
      xyzToRgb[s][c] = t;
      for (int32_t i = 0; i < count; ++i) t[i] = i * kXyzToRgb[s][c];
    }
  }

  int32_t *cube = static_cast<int32_t *>(IMG_ALLOC(10001, sizeof(int32_t)));
  if (cube == nullptr) return RC_NO_MEMORY;
  set->CubeRoot = cube;
  for (int32_t t = 0; t <= 10000; ++t)
    cube[t] = t < 89 ? static_cast<int32_t>(t * 7.787 + 1379.0)
                     : static_cast<int32_t>(1000 * std::pow(t / 10.0, 0.333333));

  int32_t *lFromY = static_cast<int32_t *>(IMG_ALLOC(10001, sizeof(int32_t)));
  if (lFromY == nullptr) return RC_NO_MEMORY;
  set->LFromY = lFromY;
  for (int32_t t = 0; t <= 10000; ++t)
    lFromY[t] = t < 89 ? (t * 903 + 5000) / 10000 : (cube[t] * 116 - 155000) / 10000;

  int32_t *aBlock = static_cast<int32_t *>(IMG_ALLOC(20001, sizeof(int32_t)));
  if (aBlock == nullptr) return RC_NO_MEMORY;
  set->AScaleBlock = aBlock;
  set->AScale = aBlock + 10000;
  for (int32_t i = -10000; i < 10000; ++i) set->AScale[i] = (i * 500 + 5000) / 10000;

  int32_t *bBlock = static_cast<int32_t *>(IMG_ALLOC(20001, sizeof(int32_t)));
  if (bBlock == nullptr) return RC_NO_MEMORY;
  set->BScaleBlock = bBlock;
  set->BScale = bBlock + 10000;
  for (int32_t i = -10000; i < 10000; ++i) set->BScale[i] = (i * 200 + 5000) / 10000;

  int32_t *yFromL = static_cast<int32_t *>(IMG_ALLOC(10001, sizeof(int32_t)));
  if (yFromL == nullptr) return RC_NO_MEMORY;
  set->YFromL = yFromL;
  for (int32_t L = 0; L <= 100; ++L) {
    int32_t y = static_cast<int32_t>(10000 * Cube((L + 16) / 116.0));
    if (y < 89) y = L * 100000 / 9033;
    yFromL[L] = y;
  }

  // 18962 entries; index 0 is entry 6401.
  int32_t *invBlock = static_cast<int32_t *>(IMG_ALLOC(18962, sizeof(int32_t)));
  if (invBlock == nullptr) return RC_NO_MEMORY;
  set->InvCubeBlock = invBlock;
  set->InvCube = invBlock + 6401;
  for (int32_t u = kInvCubeLow; u <= kInvCubeHigh; ++u) {
    const double x = u / 10000.0;
    set->InvCube[u] = x > 0.206893 ? static_cast<int32_t>(10000 * Cube(x))
                                   : static_cast<int32_t>((x - 0.137931) * 10000 / 7.787);
  }
  return RC_SUCCESS;
}

void FreeLabTables(LabTableSet *set) {
  if (set == nullptr) return;
  int32_t **groups[6] = {set->RgbToX, set->RgbToY, set->RgbToZ, set->XToRgb, set->YToRgb, set->ZToRgb};
  for (int32_t **g : groups)
    for (int32_t c = 0; c < 3; ++c)
      if (g[c] != nullptr) IMG_FREE(g[c]);
  int32_t *owned[6] = {set->CubeRoot,    set->LFromY, set->AScaleBlock,
                       set->BScaleBlock, set->YFromL, set->InvCubeBlock};
  for (int32_t *t : owned)
    if (t != nullptr) IMG_FREE(t);
  *set = LabTableSet{};
}

}  // namespace img
