// Exports that carry no processing of their own: each hands its arguments to
// one imgutil operation and returns that operation's status unchanged. Some
// check their flags word first; none checks anything else.
#include "imgcolor.h"

extern "C" {

IMG_API int32_t Q_InvertBitmap(BitmapRecord *bitmap, uint32_t flags) {
  if (flags != 0) return RC_INVALID_PARAMETER;
  return Invert(bitmap);
}

IMG_API int32_t Q_ChangeBitmapIntensity(BitmapRecord *bitmap, int32_t change, uint32_t flags) {
  if (flags != 0) return RC_INVALID_PARAMETER;
  return ChangeIntensity(bitmap, change);
}

IMG_API int32_t Q_GrayScaleBitmapExt(BitmapRecord *bitmap, int32_t red, int32_t green, int32_t blue,
                                     uint32_t flags) {
  if (flags != 0) return RC_INVALID_PARAMETER;
  return GrayScaleExt(bitmap, red, green, blue);
}

IMG_API int32_t Q_IntensityDetectBitmap(BitmapRecord *bitmap, uint32_t low, uint32_t high, uint32_t inColor,
                                        uint32_t outColor, uint32_t channel, uint32_t flags) {
  if (flags != 0) return RC_INVALID_PARAMETER;
  return IntensityDetect(bitmap, low, high, inColor, outColor, channel);
}

// The caller's flags word is deliberately not examined: 0 is passed on.
IMG_API int32_t Q_GammaCorrectBitmap(BitmapRecord *bitmap, uint32_t gamma, uint32_t) {
  return GammaCorrect(bitmap, gamma, 0);
}

IMG_API int32_t Q_GetBitmapHistogram(BitmapRecord *bitmap, uint32_t *histogram, uint32_t length,
                                     uint32_t channel) {
  return GetHistogram(bitmap, histogram, length, channel, 0, 100);
}

// The caller's flags word is deliberately not examined: 0 is passed on.
IMG_API int32_t Q_ContBrightIntBitmap(BitmapRecord *bitmap, int32_t contrast, int32_t brightness,
                                      int32_t intensity, uint32_t) {
  return ContBrightInt(bitmap, contrast, brightness, intensity, 0);
}

IMG_API int32_t Q_LightControlBitmap(BitmapRecord *bitmap, const uint32_t *lower, const uint32_t *middle,
                                     const uint32_t *upper, uint32_t type) {
  return LightControl(bitmap, lower, middle, upper, type);
}

IMG_API int32_t Q_AutoColorLevelBitmap(BitmapRecord *bitmap, uint32_t type, uint32_t blackClip,
                                       uint32_t whiteClip, uint32_t flags) {
  return AutoColorLevel(bitmap, type, blackClip, whiteClip, flags);
}

IMG_API int32_t Q_ColorLevelBitmap(BitmapRecord *bitmap, const ColorLevelRecord *levels, uint32_t flags) {
  return ColorLevel(bitmap, levels, flags);
}

IMG_API int32_t Q_AdaptiveContrastBitmap(BitmapRecord *bitmap, uint32_t dimension, uint32_t amount,
                                         uint32_t type) {
  return AdaptiveContrast(bitmap, dimension, amount, type);
}

}  // extern "C"
