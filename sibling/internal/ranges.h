// The ranges of the family's arguments, stated once: the operations check
// against them and the operation descriptors (tool, documentation, sweeps,
// benchmarks) read them. Units are given beside each.
#pragma once

#include <cstdint>

#include "checks.h"

namespace img::ranges {

inline constexpr Range kAnyInt32{INT32_MIN, INT32_MAX};
inline constexpr Range kAnyUInt32{0, UINT32_MAX};

// Tenths of a percent, the unit of most changes.
inline constexpr Range kChange{-1000, 1000};
// Hundredths of a degree, the unit of hue shifts and spherical angles.
inline constexpr Range kHueShift{-18000, 18000};
// Whole degrees of a hue band's ends.
inline constexpr Range kBandAngle{-359, 359};

// Point operations.
inline constexpr Range kSolarizeThreshold{0, 65535};   // sample value
inline constexpr Range kSolarizeThreshold12{0, 4095};  // 12-bit gray
inline constexpr Range kPosterizeLevels{2, 64};        // levels per sample
inline constexpr Range kMathFunction{0, 4};            // MATHFUNC_*
inline constexpr Range kMathFactor{1, UINT32_MAX};     // scale of the curve
inline constexpr Range kGamma{1, UINT32_MAX};          // hundredths; 100 = no change
inline constexpr Range kGammaSpace{1, 2};              // GAMMA_RGB, GAMMA_YUV
inline constexpr Range kToneMode{0, 1};                // 0 blend, 1 as it stands
inline constexpr Range kMultitoneTones{0, 3};          // one to four tones
inline constexpr Range kMultitoneType{0, 1};           // 0 colours, 1 gradients

// Intensity operations of imgutil.
inline constexpr Range kGrayWeight{0, 10000};         // hundredths of a percent; their sum at most 10000
inline constexpr Range kLightTarget{0, 1000};         // tenths of a percent of full scale
inline constexpr Range kLightType{1, 2};              // LIGHT_CONTROL_*
inline constexpr Range kAutoLevelType{0, 2};          // AUTO_LEVEL_*
inline constexpr Range kAutoLevelClip{0, 9999};       // hundredths of a percent; both below 10000 together
inline constexpr Range kAdaptiveDimension{3, 65535};  // odd, pixels
inline constexpr Range kAdaptiveAmount{0, 1000};      // percent
inline constexpr Range kAdaptiveType{0, 1};           // ADAPTIVE_CONTRAST_*
inline constexpr Range kLutChannel{0, 3};             // LUT_CHANNEL_*: all, red, green, blue

// Bounds of arguments whose check depends on the bitmap or on another
// argument: the widest a call can accept.
// A sample value on the bitmap's own scale, at most its full scale.
inline constexpr Range kSampleLevel{0, 65535};
// The math/logic operand: multiply and divide take percent of a 16-bit range
// (signed data: of its negative half); each operation and sample range narrows it.
inline constexpr Range kMathLogicValue{-100 * 32768, 100 * 65536};

// Colour threshold, colour replace and selective colour.
inline constexpr Range kThresholdMode{0, 0x211};     // ColorThresholdComponent.Mode digits
inline constexpr Range kThresholdSpace{0, 10};       // COLORSPACE_* forward codes (9 refused on its own)
inline constexpr Range kReplaceCount{1, INT32_MAX};  // chosen colours
inline constexpr Range kFuzziness{1, UINT32_MAX};    // tolerance of a chosen colour
inline constexpr Range kSelectiveMethod{0, 1};       // SELCOLOR_RELATIVE, SELCOLOR_ABSOLUTE
inline constexpr Range kSelectiveAdjust{-100, 100};  // percent of an ink


// Colour planes, channel mix and line profile.
inline constexpr Range kColorSepModel{0, 9};     // COLORSEP_*
inline constexpr Range kMixFactor{-1000, 1000};  // percent (100 = 1.0); the constant: percent of full scale
// A line profile's end points: image coordinates, at most the bitmap's size less one.
inline constexpr Range kLinePoint{0, INT32_MAX};


// Coloured gray, colour balance, colour swap, equalisation, intensity balance.
inline constexpr Range kGrayShare{0, 1000};                // thousandths; the three together at most 1000
inline constexpr Range kGrayFactor{-1000, 1000};           // thousandths of the gray level
inline constexpr Range kBalanceShare{0, 1000000};          // tool only: percent of an input channel
inline constexpr Range kSwapFlags{1, 0x1F};                // SWAP_*; the first set bit decides
inline constexpr Range kHistoEqualizeMode{1, 4};           // HISTOEQ_*: 1, 2 or 4
inline constexpr Range kLocalTile{8, 65535};               // pixels; at most the bitmap's width / height
inline constexpr Range kLocalClip{0, 1000};                // tenths of the mean bin height; 1..9 refused
inline constexpr Range kLocalMode{1, 2};                   // LOCALEQ_*
inline constexpr Range kIntensityBalanceMethod{1, 2};      // INTENSITY_BALANCE_*
inline constexpr Range kIntensityBalanceStrength{0, 100};  // percent


// Binarisation, target sampling, red-eye removal, segmentation, adding bitmaps.
inline constexpr Range kBinaryDimension{1, UINT32_MAX};  // side of the window, pixels
inline constexpr Range kBinaryContrast8{0, 255};         // sample range, 8-bit working samples
inline constexpr Range kBinaryContrast12{0, 4095};       // 12-bit gray, on its own scale
inline constexpr Range kBinaryContrast16{0, 65535};      // 16-bit working samples
// Red-eye removal checks neither: every value has a meaning (a threshold at or
// below 0 takes every pixel, above 255 none; a negative lightness gives 0).
// The tool offers these.
inline constexpr Range kRedEyeThreshold{0, 255};  // a* + 128 at which a pixel counts as red
inline constexpr Range kRedEyeLightness{0, 1000};  // percent of the kept lightness
inline constexpr Range kSegmentThreshold{1, 100000};   // k, on the 8-bit colour-distance scale
inline constexpr Range kSegmentMinimum{1, INT32_MAX};  // pixels

// Target sampling and adding bitmaps.
inline constexpr Range kSampleChannel{1, 4};       // SAMPLE_CHAN_*: flags AND 0xFF0F
inline constexpr Range kSampleMethod{0x10, 0x30};  // SAMPLE_METHOD_*: flags AND 0xFFF0, a multiple of 0x10
inline constexpr Range kAddMode{1, 2};             // ADD_AVERAGE, ADD_SUM
inline constexpr Range kAddWeightedMode{1, 4};     // ADD_*
// Weight of one bitmap (the export takes any unsigned value; the tool's lists are signed 32-bit).
inline constexpr Range kAddFactor{0, INT32_MAX};

}  // namespace img::ranges
