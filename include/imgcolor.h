/*
 * imgcolor: colour and intensity operations on bitmaps of the imgcolor
 * family. Every export checks its arguments in a fixed order, changes the
 * bitmap (or its palette) in place and returns RC_SUCCESS (1) or a negative
 * status (imgkernel.h). The trailing flags word, where an export has one, is
 * reserved and must be 0.
 *
 * Compiles as C99 and as C++.
 */
#ifndef IMGCOLOR_H
#define IMGCOLOR_H

#include "imgdisplay.h"
#include "imgkernel.h"
#include "imgutil.h"

IMG_BEGIN_DECLS

/* ---- Selector constants -------------------------------------------------------- */

/* Q_MathFunctionBitmap */
#define MATHFUNC_SQUARE 0u
#define MATHFUNC_LOG 1u
#define MATHFUNC_ROOT 2u
#define MATHFUNC_SINE 3u
#define MATHFUNC_COSINE 4u

/* Q_ApplyMathLogicBitmap: channel | input | operation | output */
#define MATHLOGIC_CHANNEL_ALL 0x0u
#define MATHLOGIC_CHANNEL_RED 0x1u
#define MATHLOGIC_CHANNEL_GREEN 0x2u
#define MATHLOGIC_CHANNEL_BLUE 0x3u
#define MATHLOGIC_IN_SAMPLE 0x00u
#define MATHLOGIC_IN_INVERT 0x10u
#define MATHLOGIC_IN_ZERO 0x20u
#define MATHLOGIC_IN_MAX 0x30u
#define MATHLOGIC_OP_AND 0x000u
#define MATHLOGIC_OP_OR 0x100u
#define MATHLOGIC_OP_XOR 0x200u
#define MATHLOGIC_OP_ADD 0x300u
#define MATHLOGIC_OP_VALUE_MINUS_SAMPLE 0x400u
#define MATHLOGIC_OP_SAMPLE_MINUS_VALUE 0x500u
#define MATHLOGIC_OP_ABS_DIFFERENCE 0x600u
#define MATHLOGIC_OP_MULTIPLY 0x700u
#define MATHLOGIC_OP_DIVIDE 0x800u
#define MATHLOGIC_OP_VALUE_DIVIDE_SAMPLE 0x900u
#define MATHLOGIC_OP_AVERAGE 0xA00u
#define MATHLOGIC_OP_MINIMUM 0xB00u
#define MATHLOGIC_OP_MAXIMUM 0xC00u
#define MATHLOGIC_OUT_RESULT 0x0000u
#define MATHLOGIC_OUT_INVERT 0x1000u
#define MATHLOGIC_OUT_ZERO 0x2000u
#define MATHLOGIC_OUT_ONES 0x3000u

/* Q_GammaCorrectBitmapExt */
#define GAMMA_RGB 1u
#define GAMMA_YUV 2u

/* Colour-space conversion codes: RGB into a space; add COLORSPACE_TO_RGB for
 * the way back. */
#define COLORSPACE_RGB 0u
#define COLORSPACE_HSV 1u
#define COLORSPACE_HLS 2u
#define COLORSPACE_XYZ 3u
#define COLORSPACE_YCRCB 4u
#define COLORSPACE_YUV 5u
#define COLORSPACE_LAB 6u
#define COLORSPACE_CMY 7u
#define COLORSPACE_CMYK 8u
#define COLORSPACE_LAB_TABLE 9u
#define COLORSPACE_SPHERICAL 10u
#define COLORSPACE_TO_RGB 16u

/* ---- Options records ---------------------------------------------------------------- */

/* Q_ChangeHueSatIntBitmap: one hue band. */
typedef struct HueSatIntRange {
  int32_t StructSize; /* 32 */
  int32_t Hue;        /* hundredths of a degree, -18000..18000 */
  int32_t Saturation; /* tenths of a percent, -1000..1000 */
  int32_t Intensity;  /* tenths of a percent of full scale, -1000..1000 */
  int32_t OuterStart; /* degrees, -359..359 */
  int32_t OuterEnd;
  int32_t InnerStart;
  int32_t InnerEnd;
} HueSatIntRange;

/* ---- Point operations through lookup tables --------------------------------------------- */
IMG_API int32_t Q_SolarizeBitmap(BitmapRecord *bitmap, uint32_t threshold, uint32_t flags);
IMG_API int32_t Q_PosterizeBitmap(BitmapRecord *bitmap, uint32_t levels, uint32_t flags);
/* change: tenths of a percent, -1000..1000 */
IMG_API int32_t Q_ChangeBitmapContrast(BitmapRecord *bitmap, int32_t change, uint32_t flags);
/* factor: percent */
IMG_API int32_t Q_MultiplyBitmap(BitmapRecord *bitmap, uint32_t factor, uint32_t flags);
/* operation: MATHLOGIC_CHANNEL_* | MATHLOGIC_IN_* | MATHLOGIC_OP_* | MATHLOGIC_OUT_* */
IMG_API int32_t Q_ApplyMathLogicBitmap(BitmapRecord *bitmap, int32_t value, uint32_t operation);
/* No flags word: channel is LUT_CHANNEL_* possibly with LUT_INDEX_BY_VALUE. */
IMG_API int32_t Q_RemapBitmapIntensity(BitmapRecord *bitmap, const int32_t *table, uint32_t length,
                                       uint32_t channel);

/* ---- Histogram-driven contrast ------------------------------------------------------------ */
IMG_API int32_t Q_HistoContrastBitmap(BitmapRecord *bitmap, int32_t change, uint32_t flags);
IMG_API int32_t Q_StretchBitmapIntensity(BitmapRecord *bitmap, uint32_t flags);
IMG_API int32_t Q_GetBitmapColorCount(BitmapRecord *bitmap, uint32_t *count, uint32_t flags);

/* ---- Mathematical curves, desaturation, duotone, multitone ---------------------------- */
IMG_API int32_t Q_MathFunctionBitmap(BitmapRecord *bitmap, uint32_t function, uint32_t factor,
                                     uint32_t flags);
IMG_API int32_t Q_DesaturateBitmap(BitmapRecord *bitmap, uint32_t flags);
/* table: 256 entries for row bitmaps, ColorsUsed for palette bitmaps, two for
 * 1-bit bitmaps, or null to build a ramp from color. mode 0 blends, 1 uses the
 * table as it stands. Mode 0 on a row bitmap scales a caller's table in place. */
IMG_API int32_t Q_GrayScaleToDuotone(BitmapRecord *bitmap, PaletteEntry *table, uint32_t color,
                                     uint32_t mode);
/* tones 0..3 (one to four); type 0 colours, 1 gradients (tones + 1 pointers to
 * 256-entry tables). */
IMG_API int32_t Q_GrayScaleToMultitone(BitmapRecord *bitmap, uint32_t tones, uint32_t type,
                                       const uint32_t *colors, PaletteEntry *const *gradients, uint32_t mode);

/* ---- Forwarded intensity operations (see imgutil.h) ----------------------------------- */
IMG_API int32_t Q_InvertBitmap(BitmapRecord *bitmap, uint32_t flags);
IMG_API int32_t Q_ChangeBitmapIntensity(BitmapRecord *bitmap, int32_t change, uint32_t flags);
IMG_API int32_t Q_GrayScaleBitmapExt(BitmapRecord *bitmap, int32_t red, int32_t green, int32_t blue,
                                     uint32_t flags);
IMG_API int32_t Q_IntensityDetectBitmap(BitmapRecord *bitmap, uint32_t low, uint32_t high, uint32_t inColor,
                                        uint32_t outColor, uint32_t channel, uint32_t flags);
/* The flags word is not examined. */
IMG_API int32_t Q_GammaCorrectBitmap(BitmapRecord *bitmap, uint32_t gamma, uint32_t flags);
IMG_API int32_t Q_GetBitmapHistogram(BitmapRecord *bitmap, uint32_t *histogram, uint32_t length,
                                     uint32_t channel);
/* The flags word is not examined. */
IMG_API int32_t Q_ContBrightIntBitmap(BitmapRecord *bitmap, int32_t contrast, int32_t brightness,
                                      int32_t intensity, uint32_t flags);
IMG_API int32_t Q_LightControlBitmap(BitmapRecord *bitmap, const uint32_t *lower, const uint32_t *middle,
                                     const uint32_t *upper, uint32_t type);
IMG_API int32_t Q_AutoColorLevelBitmap(BitmapRecord *bitmap, uint32_t type, uint32_t blackClip,
                                       uint32_t whiteClip, uint32_t flags);
IMG_API int32_t Q_ColorLevelBitmap(BitmapRecord *bitmap, const ColorLevelRecord *levels, uint32_t flags);
IMG_API int32_t Q_AdaptiveContrastBitmap(BitmapRecord *bitmap, uint32_t dimension, uint32_t amount,
                                         uint32_t type);

/* ---- Extended gamma and automatic binarisation ------------------------------------------- */
/* No flags word. space: GAMMA_RGB or GAMMA_YUV. */
IMG_API int32_t Q_GammaCorrectBitmapExt(BitmapRecord *bitmap, uint32_t gamma, uint32_t space);
IMG_API int32_t Q_AutoBinaryBitmap(BitmapRecord *bitmap, uint32_t flags);

/* ---- Hue, saturation and tint ----------------------------------------------------------- */
/* angle in degrees; every value accepted */
IMG_API int32_t Q_ChangeBitmapHue(BitmapRecord *bitmap, int32_t angle, uint32_t flags);
/* Tables of `length` entries; any may be null. */
IMG_API int32_t Q_RemapBitmapHue(BitmapRecord *bitmap, const int32_t *selection, const int32_t *hue,
                                 const int32_t *saturation, const int32_t *value, uint32_t length,
                                 uint32_t flags);
/* change: tenths of a percent, -1000..1000 */
IMG_API int32_t Q_ChangeBitmapSaturation(BitmapRecord *bitmap, int32_t change, uint32_t flags);
/* ranges: `count` records. Null ranges with a non-zero count: -13; null
 * ranges or a count of 0: RC_NULL_OPTIONS (-814), and no record is read. */
IMG_API int32_t Q_ChangeHueSatIntBitmap(BitmapRecord *bitmap, int32_t hue, int32_t saturation,
                                        int32_t intensity, const HueSatIntRange *ranges, uint32_t count,
                                        uint32_t flags);
/* shifts in hundredths of a degree, -18000..18000 */
IMG_API int32_t Q_AdjustBitmapTint(BitmapRecord *bitmap, int32_t thetaShift, int32_t phiShift,
                                   uint32_t flags);

/* ---- Colour threshold, colour replace and selective colour -------------------------------- */
/* Records, constants and exports of ClrThr, Clr_Rep and the selective colour. */

/* One component of Q_ColorThresholdBitmap, three in the order of the space's
 * components (COLORSPACE_RGB: red, green, blue). Low and High are on the
 * component's own scale (limits in docs/selection.md: HSV hue 0..360,
 * saturation 0..100, value 0..255; 16-bit samples 0..36000, 0..10000,
 * 0..65535; ...). */
typedef struct ColorThresholdComponent {
  uint32_t StructSize; /* 16; only the first element's is checked */
  int32_t Low;         /* lower end of the range, inclusive */
  int32_t High;        /* upper end, inclusive, at least Low */
  uint32_t Mode;       /* COLORTHR_* digits, at most 0x211 */
} ColorThresholdComponent;

/* ColorThresholdComponent.Mode: one of each group. */
#define COLORTHR_SELECT_OUTSIDE 0x000u /* values outside Low..High are selected */
#define COLORTHR_SELECT_INSIDE 0x001u  /* values inside Low..High are selected */
#define COLORTHR_COMPONENT 0x000u      /* a selected value changes its component */
#define COLORTHR_WHOLE_PIXEL 0x010u    /* a selected value sets every component to its fill value */
#define COLORTHR_FILL_MIN 0x000u       /* fill with the component's lower limit */
#define COLORTHR_FILL_MAX 0x100u       /* fill with the component's upper limit */
#define COLORTHR_CLIP 0x200u           /* below the range: lower limit, above: upper limit (lower digits 0) */

/* Turns the selected components (or whole pixels) of every pixel, taken in
 * the colour space `space` (COLORSPACE_RGB .. COLORSPACE_SPHERICAL, not
 * COLORSPACE_LAB_TABLE), into their fill values and the pixel back to RGB.
 * Palette bitmaps change their palette (the region is not used); gray
 * bitmaps (IsGrayBitmap, gray-ramp palettes included): RC_UNSUPPORTED_BITMAP.
 * Reports no progress. Checks: record size,
 * flags word, null bitmap (RC_NO_BITMAP), 32-bit gray, signed data, null
 * components (RC_NULL_OPTIONS), first StructSize, gray bitmap, then the space
 * and the ranges (RC_INVALID_PARAMETER). */
IMG_API int32_t Q_ColorThresholdBitmap(BitmapRecord *bitmap, uint32_t space,
                                       const ColorThresholdComponent *components, uint32_t flags);

/* One chosen colour of the colour replace exports. */
typedef struct ColorReplaceEntry {
  uint32_t Reserved;  /* not read */
  uint32_t Color;     /* red bits 0-7, green 8-15, blue 16-23; COLORREP_GRAY_LEVEL: see below */
  uint32_t Fuzziness; /* tolerance, 1..2^32-1; the selection falls off as exp(-d^2 / Fuzziness^1.5) */
} ColorReplaceEntry;
/* Color flag: on gray rows, bits 0-15 are the gray level itself (8-bit rows:
 * bits 8-15). */
#define COLORREP_GRAY_LEVEL 0x04000000u

/* Shifts hue, scales saturation and offsets brightness of the pixels close
 * to the chosen colours (closeness in Lab, one Gaussian tolerance per colour)
 * and blends each changed pixel with the original by its selection weight.
 * count: 1 and more entries. hue: hundredths of a degree, -18000..18000;
 * saturation and brightness: tenths of a percent, -1000..1000. Gray bitmaps
 * change their brightness only. Palette bitmaps change their palette.
 * Reports progress 0..100 over the rows. */
IMG_API int32_t Q_ColorReplaceBitmap(BitmapRecord *bitmap, const ColorReplaceEntry *entries, int32_t count,
                                     int32_t hue, int32_t saturation, int32_t brightness, uint32_t flags);
/* Writes the selection weight of every pixel (0..full scale) as a gray level
 * and converts the bitmap to 8 bits per pixel: a selection mask. Palette
 * bitmaps get a gray entry per colour. Returns the depth conversion's status
 * (the status of the weighting itself is not returned). */
IMG_API int32_t Q_ColorReplaceWeightsBitmap(BitmapRecord *bitmap, const ColorReplaceEntry *entries,
                                            int32_t count, uint32_t flags);

/* The nine colour ranges of Q_SelectiveColorBitmap. */
#define SELCOLOR_REDS 0
#define SELCOLOR_YELLOWS 1
#define SELCOLOR_GREENS 2
#define SELCOLOR_CYANS 3
#define SELCOLOR_BLUES 4
#define SELCOLOR_MAGENTAS 5
#define SELCOLOR_WHITES 6
#define SELCOLOR_NEUTRALS 7
#define SELCOLOR_BLACKS 8
#define SELCOLOR_RANGES 9
#define SELCOLOR_RELATIVE 0
#define SELCOLOR_ABSOLUTE 1

/* The change of one range, each in percent, -100..100. */
typedef struct SelectiveColorAdjust {
  int32_t Cyan;
  int32_t Magenta;
  int32_t Yellow;
  int32_t Black;
} SelectiveColorAdjust;

typedef struct SelectiveColorOptions {
  uint32_t StructSize;                          /* sizeof(SelectiveColorOptions), 152 */
  int32_t Method;                               /* SELCOLOR_RELATIVE or SELCOLOR_ABSOLUTE */
  SelectiveColorAdjust Ranges[SELCOLOR_RANGES]; /* indexed by SELCOLOR_REDS .. SELCOLOR_BLACKS */
} SelectiveColorOptions;

/* Selective colour. With a pixel's samples on 0..1 sorted max >= mid >= min,
 * it belongs to: the range of its largest channel (reds, greens, blues) with
 * weight max - mid; the range of its two largest (yellows = red and green,
 * cyans = green and blue, magentas = red and blue) with weight mid - min;
 * whites with 2 min - 1 when min > 1/2; blacks with 1 - 2 max when max < 1/2;
 * neutrals with 1 - (|max - 1/2| + |min - 1/2|). Each ink (cyan = 1 - red,
 * magenta = 1 - green, yellow = 1 - blue) changes by the sum over the ranges
 * of weight x (the range's ink adjustment + its black adjustment) / 100,
 * multiplied by the ink itself in relative mode, and is held to 0..1. The
 * new sample is 1 - ink rounded to the nearest sample value (halves away
 * from zero). Palette bitmaps change their palette; gray bitmaps
 * (IsGrayBitmap, gray-ramp palettes included): RC_UNSUPPORTED_BITMAP.
 * Progress 0..100 over the rows (palettes: 0 and 100).
 * Checks: flags word, null bitmap, record size, 32-bit gray, signed data,
 * null options (RC_NULL_OPTIONS), options size (RC_INVALID_STRUCT_SIZE),
 * method and adjustments (RC_INVALID_PARAMETER), gray bitmap. */
IMG_API int32_t Q_SelectiveColorBitmap(BitmapRecord *bitmap, const SelectiveColorOptions *options,
                                       uint32_t flags);


/* ---- Colour planes, channel mix and line profile ------------------------------------------- */
/* Records, constants and exports of PLANES, chmix and the line profile. */


/* ---- Coloured gray, colour balance, colour swap, equalisation, intensity balance ------------ */
/* Records, constants and exports of Colr_n and the local equalisation and intensity balance. */


/* ---- Binarisation, target sampling, red-eye removal, segmentation, adding bitmaps ---------- */
/* Records, constants and exports of BWConv, SAMTRG, RedEye, the segmentation and AddBitmaps. */


IMG_END_DECLS

#endif
