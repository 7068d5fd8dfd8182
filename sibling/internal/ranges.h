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


// Coloured gray, colour balance, colour swap, equalisation, intensity balance.


// Binarisation, target sampling, red-eye removal, segmentation, adding bitmaps.


}  // namespace img::ranges
