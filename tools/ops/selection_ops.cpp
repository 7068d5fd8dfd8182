// Colour threshold, colour replace and selective colour operations.
#include <cstdint>
#include <string>
#include <vector>

#include "imgcolor.h"
#include "ranges.h"
#include "registry.h"

namespace {

using imgtool::ArgSpec;
using imgtool::ArgType;
using imgtool::ArgValues;
namespace R = img::ranges;

const imgtool::Family kThreshold{"Colour threshold", "Common/ClrThr.cpp", "selection.md"};
const imgtool::Family kReplace{"Colour replace", "Common/Clr_Rep.cpp", "selection.md"};
const imgtool::Family kSelective{"Selective colour", "Common/SelClr.cpp", "selection.md"};

constexpr uint32_t kColourKinds = imgtool::kPalette | imgtool::kAnyColor;
// The widest bounds of a threshold component's range (the limits depend on
// the space and the sample width).
constexpr img::Range kThresholdValue{-35337, 65535};

int32_t Threshold(BitmapRecord *b, const ArgValues &a, std::ostream &) {
  const std::vector<int32_t> &v = a.List("components");
  if (v.size() != 9) return RC_INVALID_PARAMETER;
  ColorThresholdComponent c[3];
  for (int32_t i = 0; i < 3; ++i)
    c[i] = ColorThresholdComponent{sizeof(ColorThresholdComponent), v[3 * i], v[3 * i + 1],
                                   static_cast<uint32_t>(v[3 * i + 2])};
  return Q_ColorThresholdBitmap(b, static_cast<uint32_t>(a.Enum("space")), a.Pointer("components", c),
                                a.Flags());
}

ColorReplaceEntry Entry(const ArgValues &a) {
  return ColorReplaceEntry{0, a.Colour("color"), a.UInt("fuzziness")};
}

int32_t Replace(BitmapRecord *b, const ArgValues &a, std::ostream &) {
  const ColorReplaceEntry e = Entry(a);
  return Q_ColorReplaceBitmap(b, a.Pointer("entries", &e), 1, a.Int("hue"), a.Int("saturation"),
                              a.Int("brightness"), a.Flags());
}

int32_t ReplaceWeights(BitmapRecord *b, const ArgValues &a, std::ostream &) {
  const ColorReplaceEntry e = Entry(a);
  return Q_ColorReplaceWeightsBitmap(b, a.Pointer("entries", &e), 1, a.Flags());
}

constexpr const char *kRangeNames[SELCOLOR_RANGES] = {"reds",     "yellows", "greens",   "cyans", "blues",
                                                      "magentas", "whites",  "neutrals", "blacks"};

int32_t Selective(BitmapRecord *b, const ArgValues &a, std::ostream &) {
  SelectiveColorOptions o{};
  o.StructSize = sizeof o;
  o.Method = static_cast<int32_t>(a.Enum("method"));
  for (int32_t k = 0; k < SELCOLOR_RANGES; ++k) {
    const std::vector<int32_t> &v = a.List(kRangeNames[k]);
    if (v.size() != 4) return RC_INVALID_PARAMETER;
    o.Ranges[k] = SelectiveColorAdjust{v[0], v[1], v[2], v[3]};
  }
  return Q_SelectiveColorBitmap(b, a.Pointer("options", &o), a.Flags());
}

std::vector<ArgSpec> SelectiveArgs() {
  std::vector<ArgSpec> args = {{.name = "method",
                                .type = ArgType::Enum,
                                .unit = "method",
                                .defaultValue = "relative",
                                .help = "how an adjustment applies",
                                .values = {{"relative", SELCOLOR_RELATIVE, "scaled by the ink already there"},
                                           {"absolute", SELCOLOR_ABSOLUTE, "added as it is"}}}};
  // Defaults: reds warmer and deeper, blues more cyan, whites cleaner.
  const char *defaults[SELCOLOR_RANGES] = {"-40,20,30,0", "0,0,0,0",     "0,0,0,0", "0,0,0,0", "30,-10,0,10",
                                           "0,0,0,0",     "0,0,-20,-10", "0,0,0,0", "0,0,0,5"};
  for (int32_t k = 0; k < SELCOLOR_RANGES; ++k)
    args.push_back(
        {.name = kRangeNames[k],
         .type = ArgType::IntList,
         .unit = "percent",
         .min = R::kSelectiveAdjust.min,
         .max = R::kSelectiveAdjust.max,
         .defaultValue = defaults[k],
         .help = std::string("cyan, magenta, yellow and black adjustments of the ") + kRangeNames[k],
         .minCount = 4,
         .maxCount = 4});
  return args;
}

std::vector<ArgSpec> ColourArgs() {
  return {{.name = "color",
           .type = ArgType::Colour,
           .unit = "colour value",
           .defaultValue = "#C08050",
           .help = "the chosen colour"},
          {.name = "fuzziness",
           .type = ArgType::UInt,
           .unit = "tolerance",
           .min = R::kFuzziness.min,
           .max = R::kFuzziness.max,
           .defaultValue = "60",
           .help = "the selection falls off as exp(-d^2 / fuzziness^1.5) with the Lab distance d"}};
}

std::vector<ArgSpec> ReplaceArgs() {
  std::vector<ArgSpec> args = ColourArgs();
  args.push_back({.name = "hue",
                  .type = ArgType::Int,
                  .unit = "hundredths of a degree",
                  .min = R::kHueShift.min,
                  .max = R::kHueShift.max,
                  .defaultValue = "9000",
                  .help = "hue shift of the selected pixels"});
  args.push_back({.name = "saturation",
                  .type = ArgType::Int,
                  .unit = "tenths of a percent",
                  .min = R::kChange.min,
                  .max = R::kChange.max,
                  .defaultValue = "200",
                  .help = "saturation change"});
  args.push_back({.name = "brightness",
                  .type = ArgType::Int,
                  .unit = "tenths of a percent of full scale",
                  .min = R::kChange.min,
                  .max = R::kChange.max,
                  .defaultValue = "50",
                  .help = "brightness offset"});
  return args;
}

const imgtool::Registrar kRegistrar{{
    {.name = "color-threshold",
     .exportName = "Q_ColorThresholdBitmap",
     .family = kThreshold,
     .summary = "Force the components of a colour space that fall in (or out of) a range",
     .help = "Takes every pixel into the space, tests each component against its range and sets the "
             "selected ones to a fill value (mode: +1 selects inside the range, else outside; +0x10 sets "
             "the whole pixel to all three fill values; +0x100 fills with the upper limit, 0x200 sends "
             "values below the range to the lower and above it to the upper limit, else the lower "
             "limit). Limits per space: HSV hue 0..360, S 0..100, V 0..255; HLS hue, L 0..255, S "
             "0..100; YCrCb 0..255, -128..127 twice; YUV 0..255, -112..111, -138..137; Lab 0..100, "
             "-128..127 twice; others 0..255 (48/64-bit bitmaps: hundredths for hue and percentages, "
             "16-bit scales for the rest). Refuses gray bitmaps.",
     .args = {{.name = "space",
               .type = ArgType::Enum,
               .unit = "colour space",
               .defaultValue = "hsv",
               .help = "the space the components belong to",
               .values = {{"rgb", COLORSPACE_RGB, "red, green, blue"},
                          {"hsv", COLORSPACE_HSV, "hue, saturation, value"},
                          {"hls", COLORSPACE_HLS, "hue, lightness, saturation"},
                          {"xyz", COLORSPACE_XYZ, "X, Y, Z"},
                          {"ycrcb", COLORSPACE_YCRCB, "Y, Cr, Cb"},
                          {"yuv", COLORSPACE_YUV, "Y, U, V"},
                          {"lab", COLORSPACE_LAB, "L, a, b"},
                          {"cmy", COLORSPACE_CMY, "cyan, magenta, yellow"},
                          {"cmyk", COLORSPACE_CMYK, "no components: the pixels only go there and back"},
                          {"spherical", COLORSPACE_SPHERICAL,
                           "no components: the pixels only go there and back"}}},
              {.name = "components",
               .type = ArgType::IntList,
               .unit = "component values and mode digits",
               .min = kThresholdValue.min,
               .max = kThresholdValue.max,
               .defaultValue = "20,60,1,0,0,1,0,0,1",
               .help = "low, high, mode of each of the three components (mode " +
                       std::to_string(R::kThresholdMode.min) + ".." + std::to_string(R::kThresholdMode.max) +
                       ")",
               .minCount = 9,
               .maxCount = 9,
               // Nine equal values are never low, high and mode of one space
               // at once: each end is refused as well.
               .endStatuses = {RC_INVALID_PARAMETER, RC_INVALID_PARAMETER}}},
     .kinds = kColourKinds,
     .call = Threshold,
     // Without the space pixels nothing changes and the call succeeds: kept.
     .failureStatuses = {RC_SUCCESS},
     .pointers = {{"components", RC_NULL_OPTIONS}},
     .refusals = {.signedData = RC_SIGNED_DATA_NOT_SUPPORTED}},
    {.name = "color-replace",
     .exportName = "Q_ColorReplaceBitmap",
     .family = kReplace,
     .summary = "Shift hue, saturation and brightness of the pixels close to a colour",
     .help = "The selection weight of a pixel (0..1000) is the bitwise AND of three Gaussian weights of "
             "its Lab L, a and b around the chosen colour (L 6.5 times stricter); the changed pixel is "
             "blended with the original by that weight. Gray bitmaps change their brightness by the "
             "closeness of their level to the colour's. Palette bitmaps change their palette.",
     .args = ReplaceArgs(),
     .kinds = imgtool::kAnyKind,
     .call = Replace,
     .pointers = {{"entries", RC_NULL_OPTIONS}},
     .refusals = {.signedData = RC_SIGNED_DATA_NOT_SUPPORTED}},
    {.name = "color-replace-weights",
     .exportName = "Q_ColorReplaceWeightsBitmap",
     .family = kReplace,
     .summary = "Make an 8-bit mask of the closeness of every pixel to a colour",
     .help = "Writes the selection weight of the colour replace as a gray level (full scale for a pixel "
             "of the chosen colour) and converts the bitmap to 8 bits per pixel. The status is that of "
             "the depth conversion: a cancelled or failed weighting still ends in a converted bitmap.",
     .args = ColourArgs(),
     .kinds = imgtool::kAnyKind,
     .call = ReplaceWeights,
     // The weighting's own status is not returned: kept.
     .failureStatuses = {RC_SUCCESS},
     .cancelReturned = false,
     .pointers = {{"entries", RC_NULL_OPTIONS}},
     // The weighting's refusal of a broken palette is dropped like its other
     // statuses: the depth conversion's 1 is returned.
     .refusals = {.signedData = RC_SIGNED_DATA_NOT_SUPPORTED, .coloursUsed = RC_SUCCESS}},
    {.name = "selective-color",
     .exportName = "Q_SelectiveColorBitmap",
     .family = kSelective,
     .summary = "Change the inks of reds, yellows, ..., whites, neutrals and blacks apart",
     .help = "Each pixel belongs to the range of its largest channel (weight max - mid), of its two "
             "largest (mid - min), to whites (2 min - 1 above one half), blacks (1 - 2 max below one "
             "half) and neutrals (1 - |max - 1/2| - |min - 1/2|), samples on 0..1. Each ink (cyan = 1 - "
             "red, ...) changes by the sum of weight x (ink adjustment + black adjustment) / 100, times "
             "the ink in relative mode. Refuses gray bitmaps.",
     .args = SelectiveArgs(),
     .kinds = kColourKinds,
     .call = Selective,
     .pointers = {{"options", RC_NULL_OPTIONS}},
     .refusals = {.signedData = RC_SIGNED_DATA_NOT_SUPPORTED}},
}};

}  // namespace
