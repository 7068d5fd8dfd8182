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

/* ---- Status codes -------------------------------------------------------------- */
/* The name of a status code ("RC_NO_MEMORY") and a short message in English
 * ("not enough memory"); codes the family does not define (a status callback's
 * own answer, say) give "RC_UNKNOWN" and "unknown status". The strings are
 * static: never free them. */
IMG_API const char *Q_StatusName(int32_t status);
IMG_API const char *Q_StatusMessage(int32_t status);

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
/* threshold: sample value, 0..65535 (12-bit gray: 0..4095) */
IMG_API int32_t Q_SolarizeBitmap(BitmapRecord *bitmap, uint32_t threshold, uint32_t flags);
/* levels: levels per sample, 2..64 */
IMG_API int32_t Q_PosterizeBitmap(BitmapRecord *bitmap, uint32_t levels, uint32_t flags);
/* change: tenths of a percent, -1000..1000 */
IMG_API int32_t Q_ChangeBitmapContrast(BitmapRecord *bitmap, int32_t change, uint32_t flags);
/* factor: percent */
IMG_API int32_t Q_MultiplyBitmap(BitmapRecord *bitmap, uint32_t factor, uint32_t flags);
/* operation: MATHLOGIC_CHANNEL_* | MATHLOGIC_IN_* | MATHLOGIC_OP_* | MATHLOGIC_OUT_*.
 * value: sample value (multiply and divide: percent), at most -3276800..6553600;
 * the operation and the bitmap's sample range narrow it. */
IMG_API int32_t Q_ApplyMathLogicBitmap(BitmapRecord *bitmap, int32_t value, uint32_t operation);
/* No flags word: channel is LUT_CHANNEL_* possibly with LUT_INDEX_BY_VALUE. */
IMG_API int32_t Q_RemapBitmapIntensity(BitmapRecord *bitmap, const int32_t *table, uint32_t length,
                                       uint32_t channel);

/* ---- Histogram-driven contrast ------------------------------------------------------------ */
/* change: tenths of a percent, -1000..1000 */
IMG_API int32_t Q_HistoContrastBitmap(BitmapRecord *bitmap, int32_t change, uint32_t flags);
IMG_API int32_t Q_StretchBitmapIntensity(BitmapRecord *bitmap, uint32_t flags);
IMG_API int32_t Q_GetBitmapColorCount(BitmapRecord *bitmap, uint32_t *count, uint32_t flags);

/* ---- Mathematical curves, desaturation, duotone, multitone ---------------------------- */
/* function: MATHFUNC_*; factor: scale (see the curves), 1..2^32-1 */
IMG_API int32_t Q_MathFunctionBitmap(BitmapRecord *bitmap, uint32_t function, uint32_t factor,
                                     uint32_t flags);
IMG_API int32_t Q_DesaturateBitmap(BitmapRecord *bitmap, uint32_t flags);
/* table: 256 entries for row bitmaps, ColorsUsed for palette bitmaps, two for
 * 1-bit bitmaps, or null to build a ramp from color. mode 0 blends, 1 uses the
 * table as it stands. Mode 0 on a row bitmap scales a caller's table in place. */
IMG_API int32_t Q_GrayScaleToDuotone(BitmapRecord *bitmap, PaletteEntry *table, uint32_t color,
                                     uint32_t mode);
/* tones: the number of colours less one, 0..3 (1..4 colours); type 0 colours, 1 gradients (tones + 1 pointers to
 * 256-entry tables). */
IMG_API int32_t Q_GrayScaleToMultitone(BitmapRecord *bitmap, uint32_t tones, uint32_t type,
                                       const uint32_t *colors, PaletteEntry *const *gradients, uint32_t mode);

/* ---- Forwarded intensity operations (see imgutil.h) ----------------------------------- */
IMG_API int32_t Q_InvertBitmap(BitmapRecord *bitmap, uint32_t flags);
/* change: tenths of a percent of full scale, -1000..1000 */
IMG_API int32_t Q_ChangeBitmapIntensity(BitmapRecord *bitmap, int32_t change, uint32_t flags);
/* red, green, blue: weights in hundredths of a percent, 0..10000 each, their
 * sum at most 10000. The bitmap becomes gray of its samples' width. */
IMG_API int32_t Q_GrayScaleBitmapExt(BitmapRecord *bitmap, int32_t red, int32_t green, int32_t blue,
                                     uint32_t flags);
/* low, high: sample value, 0..65535 (at most the bitmap's full scale);
 * inColor, outColor: colour values; channel: DETECT_CHANNEL_*. */
IMG_API int32_t Q_IntensityDetectBitmap(BitmapRecord *bitmap, uint32_t low, uint32_t high, uint32_t inColor,
                                        uint32_t outColor, uint32_t channel, uint32_t flags);
/* gamma: hundredths (100 = no change), 1..2^32-1. The flags word is not
 * examined. */
IMG_API int32_t Q_GammaCorrectBitmap(BitmapRecord *bitmap, uint32_t gamma, uint32_t flags);
IMG_API int32_t Q_GetBitmapHistogram(BitmapRecord *bitmap, uint32_t *histogram, uint32_t length,
                                     uint32_t channel);
/* contrast and intensity: tenths of a percent; brightness: tenths of a
 * percent of full scale; each -1000..1000. The flags word is not examined. */
IMG_API int32_t Q_ContBrightIntBitmap(BitmapRecord *bitmap, int32_t contrast, int32_t brightness,
                                      int32_t intensity, uint32_t flags);
IMG_API int32_t Q_LightControlBitmap(BitmapRecord *bitmap, const uint32_t *lower, const uint32_t *middle,
                                     const uint32_t *upper, uint32_t type);
/* type: AUTO_LEVEL_*; blackClip, whiteClip: hundredths of a percent, 0..9999
 * each, their sum below 10000. */
IMG_API int32_t Q_AutoColorLevelBitmap(BitmapRecord *bitmap, uint32_t type, uint32_t blackClip,
                                       uint32_t whiteClip, uint32_t flags);
IMG_API int32_t Q_ColorLevelBitmap(BitmapRecord *bitmap, const ColorLevelRecord *levels, uint32_t flags);
/* dimension: the window's side in pixels, odd, 3..65535; amount: percent,
 * 0..1000; type: ADAPTIVE_CONTRAST_*. */
IMG_API int32_t Q_AdaptiveContrastBitmap(BitmapRecord *bitmap, uint32_t dimension, uint32_t amount,
                                         uint32_t type);

/* ---- Extended gamma and automatic binarisation ------------------------------------------- */
/* No flags word. gamma: hundredths (100 = no change), 1..2^32-1; space:
 * GAMMA_RGB or GAMMA_YUV. */
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
 * saturation: tenths of a percent; brightness: tenths of a percent of full
 * scale; both -1000..1000. Gray bitmaps
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
/* Records, constants and exports of PLANES, chmix and the line profile.
 * Definitions and decisions: docs/planes.md. */

/* Q_ColorSeparateBitmap, Q_ColorMergeBitmap: the colour model of the planes.
 * RGB, MODEL2 (CMYK, four planes), MODEL3 (HSV), MODEL4 (HLS) and MODEL6 (CMY)
 * go through imgdisplay's ConvertColorModelRow; YUV, XYZ, LAB, YCRCB and
 * SPHERICAL through the colour-space conversions, rescaled into plane values. */
#define COLORSEP_RGB 0u
#define COLORSEP_MODEL2 1u
#define COLORSEP_MODEL3 2u
#define COLORSEP_MODEL4 3u
#define COLORSEP_MODEL6 4u
#define COLORSEP_YUV 5u
#define COLORSEP_XYZ 6u
#define COLORSEP_LAB 7u
#define COLORSEP_YCRCB 8u
#define COLORSEP_SPHERICAL 9u

/* Q_ChannelMix: one output channel. Factors in percent (100 = 1.0),
 * -1000..1000; Constant in percent of full scale, -1000..1000. */
typedef struct ChannelMixFactors {
  int32_t Reserved; /* not read */
  int32_t RedFactor;
  int32_t GreenFactor;
  int32_t BlueFactor;
  int32_t Constant;
} ChannelMixFactors;

/* Splits a colour bitmap into three planes (four for COLORSEP_MODEL2): the
 * records planes[0..2] (and [3]) are filled with new single-sample bitmaps
 * of the source's size and orientation, 8 bits a pixel for sources of up to
 * 32 bits, 16-bit gray for 48 and 64 bits. structSize: 208 or 176, the
 * planes' record size. No flags word; the region is not looked at. On
 * failure planes 0..2 are freed; plane 3 stays with the caller. */
IMG_API int32_t Q_ColorSeparateBitmap(BitmapRecord *bitmap, BitmapRecord *const *planes, uint32_t structSize,
                                      uint32_t model);
/* Builds a new 24-bit (48-bit when every plane is 16-bit gray) BGR bitmap in
 * `bitmap` from three planes (four for COLORSEP_MODEL2), of the smallest
 * width and height among them, aligned at their top-left corners. Any
 * earlier content of the record is overwritten, not freed. No flags word. */
IMG_API int32_t Q_ColorMergeBitmap(BitmapRecord *bitmap, BitmapRecord *const *planes, uint32_t structSize,
                                   uint32_t model);
/* Replaces red, green and blue by weighted sums of the three plus a constant,
 * inside the region, or in the palette of a palette bitmap. Gray: -12. */
IMG_API int32_t Q_ChannelMix(BitmapRecord *bitmap, const ChannelMixFactors *red,
                             const ChannelMixFactors *green, const ChannelMixFactors *blue, uint32_t flags);
/* The samples along the line from (x1, y1) to (x2, y2), both ends included,
 * visited by Bresenham's algorithm: points in image coordinates inside the
 * bitmap: pixels, 0..Width - 1 and 0..Height - 1 (else -13). Each point inside the region gives one value on gray
 * bitmaps (the sample on its own scale) and red, green, blue on colour and
 * palette bitmaps (the palette colour), in `values`. *capacity: points the
 * array holds (values: capacity, or 3 x capacity for colour); on return the
 * points written. Too small: -13 with the needed count in *capacity. Null
 * values or capacity: RC_NULL_OPTIONS (-814). Reports 0 and 100. */
IMG_API int32_t Q_LineProfile(BitmapRecord *bitmap, int32_t x1, int32_t y1, int32_t x2, int32_t y2,
                              uint32_t *values, uint32_t *capacity, uint32_t flags);


/* ---- Coloured gray, colour balance, colour swap, equalisation, intensity balance ------------ */
/* Records, constants and exports of Colr_n and the local equalisation and intensity balance. */

/* Q_BalanceColors: the shares of one input channel in each output channel
 * (0 or more, no upper bound; doubles). 28 bytes: packed to 4. */
#pragma pack(push, 4)
typedef struct ColorBalanceFactors {
  uint32_t StructSize; /* 28 */
  double ToRed;
  double ToGreen;
  double ToBlue;
} ColorBalanceFactors;
#pragma pack(pop)
#define COLOR_BALANCE_FACTORS_SIZE 28u

/* Q_SwapColors: the first set bit of these decides. New red, green, blue: */
#define SWAP_RG 0x01u   /* G, R, B */
#define SWAP_RB 0x02u   /* B, G, R */
#define SWAP_GB 0x04u   /* R, B, G */
#define SWAP_RGBR 0x08u /* B, R, G */
#define SWAP_RBGR 0x10u /* G, B, R */

/* Q_HistoEqualizeBitmap modes */
#define HISTOEQ_PER_CHANNEL 1
#define HISTOEQ_LUMINANCE 2
#define HISTOEQ_COMMON 4

/* Q_LocalHistoEqualizeBitmap modes */
#define LOCALEQ_EACH_CHANNEL 1u
#define LOCALEQ_LUMINANCE 2u

/* Q_ColorIntensityBalance methods */
#define INTENSITY_BALANCE_GRAY_WORLD 1u
#define INTENSITY_BALANCE_WHITE_PATCH 2u

/* Every pixel (or palette entry) becomes gray = (R*redWeight + G*greenWeight +
 * B*blueWeight) / 1000, then each channel gray + gray*factor/1000, limited to
 * the sample range. Weights: thousandths, 0..1000 each, their sum at most
 * 1000; factors: thousandths, -1000..1000. Allocation and signed data are not
 * checked. 8-bit gray leaves as a colour palette bitmap (ColorOrder 1); 12-
 * and 16-bit gray and 48-bit bitmaps leave as 48-bit colour, 64-bit as 64. */
IMG_API int32_t Q_ConvertToColoredGray(BitmapRecord *bitmap, int32_t redWeight, int32_t greenWeight,
                                       int32_t blueWeight, int32_t redFactor, int32_t greenFactor,
                                       int32_t blueFactor, uint32_t flags);
/* new R = R*r.ToRed + G*g.ToRed + B*b.ToRed (likewise green and blue) in
 * double precision, truncated and limited to the sample range. Records:
 * null -814, StructSize not 28 -789; gray bitmaps -12; a negative share -13. */
IMG_API int32_t Q_BalanceColors(BitmapRecord *bitmap, const ColorBalanceFactors *redFactors,
                                const ColorBalanceFactors *greenFactors,
                                const ColorBalanceFactors *blueFactors, uint32_t flags);
/* No flags word: `flags` is SWAP_*. A gray bitmap returns 1 unchanged before
 * the flags are looked at; no known bit -13. */
IMG_API int32_t Q_SwapColors(BitmapRecord *bitmap, uint32_t flags);
/* No flags word. mode: HISTOEQ_*; signed data is equalised by its offset
 * form. 12/16-bit gray and 48/64-bit bitmaps use 65536 bins. */
IMG_API int32_t Q_HistoEqualizeBitmap(BitmapRecord *bitmap, int32_t mode);
/* Contrast-limited adaptive equalisation over tiles of the region's bounds.
 * tileWidth, tileHeight: pixels, 8..65535, at most Width and Height (8 for a bitmap
 * smaller than that; a tile larger than the region's bounds is cut to them).
 * clipLimit: tenths of the mean bin height (tile pixels / bins), 0 = no
 * clipping or 10..1000. mode: LOCALEQ_* (luminance: the luma of the integer
 * YUV form, the pixel rebuilt from it). Each tile's histogram (256 or 65536
 * bins) is clipped at the limit (at least 1), the excess spread evenly over
 * all bins; a pixel's value is the bilinear blend of the four nearest tile
 * centres' curves T * C(v) / tile pixels, rounded. Progress 0..50 counting,
 * 50..100 mapping. */
IMG_API int32_t Q_LocalHistoEqualizeBitmap(BitmapRecord *bitmap, uint32_t tileWidth, uint32_t tileHeight,
                                           uint32_t clipLimit, uint32_t mode, uint32_t flags);
/* Automatic white balance of colour bitmaps through one table per channel.
 * method: INTENSITY_BALANCE_GRAY_WORLD (each channel scaled so that its mean
 * equals the mean of the three) or INTENSITY_BALANCE_WHITE_PATCH (the value
 * below which 99.5 % of a channel's samples lie maps to full scale).
 * strength: percent 0..100, the blend of corrected and original. Statistics
 * over the region's pixels (0..50), the tables applied to them, or to the
 * palette of a palette bitmap without a region (50..100). Gray bitmaps -12
 * after the ranges. */
IMG_API int32_t Q_ColorIntensityBalance(BitmapRecord *bitmap, uint32_t method, uint32_t strength,
                                        uint32_t flags);


/* ---- Binarisation, target sampling, red-eye removal, segmentation, adding bitmaps ---------- */
/* Records, constants and exports of BWConv, SAMTRG, RedEye, the segmentation and AddBitmaps. */

/* Dynamic binary (BWConv): each pixel becomes black or white by comparing its
 * sample with the midpoint of the darkest and brightest sample of the
 * dimension x dimension window around it (rows y - (d-1)/2 .. y + d/2, columns
 * likewise; edge rows and columns repeated; the window reaches outside the
 * region). A window whose range (brightest - darkest) is not above
 * localContrast is flat: its pixel is white when the brightest sample is at
 * least 128 (16-bit working samples: 32767). The decided sample is the
 * window's row d/2 from its top: the pixel's own row for an odd dimension,
 * the row below it for an even one. Works on the gray working form (colour
 * bitmaps come back black and white in all three samples; palette bitmaps
 * take the nearest palette colour); no progress reports.
 * dimension: pixels, 1.. (0: -13; 1: the bitmap inside its region is filled
 * white, FillBitmap's status). localContrast: sample value (a range of samples), 0..255 for 8-bit
 * working samples, 0..65535 for 16-bit, 0..4095 for 12-bit gray (stated on
 * its own scale). Signed data -1360; a null bitmap is refused by the first
 * service that reads it (-2). */
IMG_API int32_t Q_DynamicBinaryBitmap(BitmapRecord *bitmap, uint32_t dimension, uint32_t localContrast,
                                      uint32_t flags);

/* Red-eye removal (RedEye): inside the region, every pixel whose CIE L*a*b*
 * a* (byte form, -128..127) is at least threshold - 128 takes the a* and b*
 * of newColor (red bits 0-7, green 8-15, blue 16-23) and keeps its L* times
 * lightness / 100 (limited to 0..100); every pixel of the region goes through
 * the byte Lab round trip, so unmatched pixels may move by a rounding step.
 * threshold: a* + 128, 0..255 in use (any value accepted); lightness:
 * percent, 0..1000 in use (any value accepted, negative gives 0). A bottom-up bitmap is turned top row
 * first and turned back only after a complete pass (a gray bitmap, -12, and
 * every failure leave it turned). Null or unallocated bitmap -2; signed -1360;
 * gray bitmaps -12. No progress reports. */
IMG_API int32_t Q_RemoveRedeyeBitmap(BitmapRecord *bitmap, uint32_t newColor, int32_t threshold,
                                     int32_t lightness, uint32_t flags);

/* Segmentation (Segment): graph-based segmentation of the pixels inside the
 * region. The graph joins each pixel to its 8 neighbours inside the region;
 * an edge weighs the Euclidean distance of the two colours (blue, green, red;
 * gray: the level) on the 8-bit scale (16-bit samples divided by 257). Edges
 * are taken by increasing weight (stable: equal weights in raster order of
 * their first pixel, then right, down-left, down, down-right); two segments
 * merge when the edge weighs at most the internal difference of each (the
 * heaviest edge that built it, 0 for one pixel) plus k / its size in pixels.
 * Afterwards, edges again in that order, a segment smaller than minSize merges
 * with the segment across the edge. Each pixel of the region takes its
 * segment's mean colour (each sample rounded half up; a fourth sample stays;
 * palette bitmaps the nearest palette colour). Segments are numbered from 0
 * in raster order of their first pixel.
 * k: colour distance (8-bit scale), 1..100000. minSize: pixels, 1..2^31-1. labels: null, or a caller record
 * that receives a new 16-bit gray bitmap of the bitmap's size and orientation
 * holding each pixel's segment number (pixels outside the region: 0); its
 * previous content is not freed. labelsSize: its declared size, 176 or 208
 * (else -789; ignored without labels). More than 65536 segments with labels:
 * -13, nothing changed. Progress: reading 0..50, writing 51..100. Signed data
 * -1360. */
IMG_API int32_t Q_SegmentBitmap(BitmapRecord *bitmap, uint32_t k, uint32_t minSize, BitmapRecord *labels,
                                uint32_t labelsSize, uint32_t flags);


/* ---- Target sampling and adding bitmaps ---------------------------------------------------- */

/* Q_SampleTargetBitmap: flags = one SAMPLE_CHAN_* | one SAMPLE_METHOD_*. */
#define SAMPLE_CHAN_RED 1u
#define SAMPLE_CHAN_GREEN 2u
#define SAMPLE_CHAN_BLUE 3u
#define SAMPLE_CHAN_ALL 4u            /* one curve per channel; on gray rows one curve from the gray values */
#define SAMPLE_METHOD_LINEAR 0x10u    /* line through (sample, target) and (max, max) */
#define SAMPLE_METHOD_QUADRATIC 0x20u /* identity plus a parabola through (sample, target) */
#define SAMPLE_METHOD_PROPORTIONAL 0x30u /* scaled by target / sample */
/* A colour value with this bit is a gray level: bits 8-15 for 8-bit samples,
 * bits 0-15 for 16-bit samples. */
#define SAMPLE_GRAY_LEVEL 0x4000000u

/* Tone curves that send the sample colour to the target colour, applied to
 * the pixels inside the region (palette bitmaps, 8-bit gray included: to the
 * ColorsUsed palette entries, with progress 0..100 after each entry; rows
 * report nothing). sampleColor, targetColor: red in bits 0-7, green 8-15,
 * blue 16-23, or SAMPLE_GRAY_LEVEL. flags AND 0xFF0F: channel 1..4; flags AND
 * 0xFFF0: method 0x10..0x30; else RC_INVALID_PARAMETER. Checks: record size,
 * 32-bit gray, signed data, null or unallocated bitmap (-2), flags. When the
 * chosen channel's bytes (a gray bitmap: the gray values) of the two colours
 * are equal, returns 1 at once. SAMPLE_CHAN_ALL on four-sample rows (32 and
 * 64 bits) maps blue, green and red by their curves; the fourth stays. */
IMG_API int32_t Q_SampleTargetBitmap(BitmapRecord *bitmap, uint32_t sampleColor, uint32_t targetColor,
                                     uint32_t flags);

/* Q_AddBitmaps, Q_AddWeightedBitmaps: combination mode. */
#define ADD_AVERAGE 1u          /* sum of the samples / count, truncated */
#define ADD_SUM 2u              /* sum of the samples, saturated */
#define ADD_WEIGHTED_AVERAGE 3u /* sum of factor x sample / sum of factors, rounded half to even */
#define ADD_WEIGHTED_SUM 4u     /* sum of (sample x factor / 100), saturated */

/* The bitmaps of `list` combined sample by sample into `bitmap`, which is
 * released (when it owns pixels) and made a copy of the list's first bitmap;
 * the area combined is the one common to all, limited to the bounds of the
 * first bitmap's region. The list and its bitmaps are left as they were.
 * structSize: 208 or 176, the size of `bitmap` (-789 otherwise; a null
 * bitmap then gives -2). Bitmap lists of different kinds, sizes and
 * orientations are accepted; signed data too. On failure `bitmap` is left
 * empty (no pixels). No progress is reported.
 * Q_AddBitmaps: mode ADD_AVERAGE or ADD_SUM, else -13.
 * Q_AddWeightedBitmaps: mode 1..4, else -13; factors: one per list entry, in
 * list order (null: modes 3 and 4 become 1 and 2); factors whose sum (32-bit)
 * is 0 in ADD_WEIGHTED_AVERAGE give -13 before anything changes. */
IMG_API int32_t Q_AddBitmaps(BitmapRecord *bitmap, uint32_t structSize, BitmapList list, uint32_t mode);
IMG_API int32_t Q_AddWeightedBitmaps(BitmapRecord *bitmap, uint32_t structSize, BitmapList list,
                                     const uint32_t *factors, uint32_t mode);

IMG_END_DECLS

#endif
