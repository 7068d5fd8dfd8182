// The forwarded intensity operations, extended gamma and automatic binarisation.
#include <array>
#include <cstdint>
#include <vector>

#include "imgcolor.h"
#include "pixels.h"
#include "ranges.h"
#include "registry.h"

namespace {

using imgtool::ArgSpec;
using imgtool::ArgType;
using imgtool::ArgValues;
namespace R = img::ranges;

const imgtool::Family kIntensity{"Intensity operations of imgutil",
                                 "sibling/imgutil/, forwarded by Frame/forward.cpp", "intensity.md"};
const imgtool::Family kGammaExt{"Extended gamma correction", "Common/GammaExt.cpp", "intensity.md"};
const imgtool::Family kAutoBinary{"Automatic binarisation", "Common/autoseg.cpp", "intensity.md"};

ArgSpec Tenths(const char *name, const char *unit, const char *help, const char *def) {
  return {.name = name,
          .type = ArgType::Int,
          .unit = unit,
          .min = R::kChange.min,
          .max = R::kChange.max,
          .defaultValue = def,
          .help = help};
}

// `ends`: the statuses with every target at the lowest and at the highest
// value (lower <= middle <= upper).
ArgSpec Targets(const char *name, const char *def, const char *help, std::array<int32_t, 2> ends) {
  return {.name = name,
          .type = ArgType::IntList,
          .unit = "tenths of a percent of full scale",
          .min = R::kLightTarget.min,
          .max = R::kLightTarget.max,
          .defaultValue = def,
          .help = help,
          .minCount = 3,
          .maxCount = 3,
          .endStatuses = ends};
}

// A level set, or -1 when the set does not apply.
ArgSpec LevelSet(const char *name, const char *def, const char *help) {
  // A set takes five values: one at the highest value is refused.
  return {.name = name,
          .type = ArgType::IntList,
          .unit = "sample value (gamma: hundredths)",
          .min = -1,
          .max = R::kSampleLevel.max,
          .defaultValue = def,
          .help = help,
          .minCount = 1,
          .maxCount = 5,
          .endStatuses = {RC_SUCCESS, RC_INVALID_PARAMETER}};
}

// A sample value of the bitmap: 0 up to its full scale.
std::pair<int64_t, int64_t> SampleBounds(const BitmapRecord &b) {
  return {0, static_cast<int64_t>(img::TableLength(&b)) - 1};
}

std::vector<uint32_t> Unsigned(const std::vector<int32_t> &v) {
  return std::vector<uint32_t>(v.begin(), v.end());
}

int32_t Levels(BitmapRecord *b, const ArgValues &a, std::ostream &) {
  ColorLevelRecord rec{};
  rec.StructSize = sizeof rec;
  uint32_t flags = 0;
  struct Slot {
    const char *name;
    ColorLevelSet *set;
    uint32_t flag;
  } slots[] = {{"master", &rec.Master, COLOR_LEVEL_MASTER},
               {"red", &rec.Red, COLOR_LEVEL_RED},
               {"green", &rec.Green, COLOR_LEVEL_GREEN},
               {"blue", &rec.Blue, COLOR_LEVEL_BLUE}};
  for (Slot &s : slots) {
    const std::vector<int32_t> &v = a.List(s.name);
    if (v.size() == 1 && v[0] == -1) continue;  // the set does not apply
    if (v.size() != 5) return RC_INVALID_PARAMETER;
    *s.set = ColorLevelSet{v[0], v[1], v[2], v[3], v[4]};
    flags |= s.flag;
  }
  return Q_ColorLevelBitmap(b, a.Pointer("levels", &rec), flags);
}

const std::vector<imgtool::EnumValue> kDetectChannels = {
    {"intensity", DETECT_CHANNEL_INTENSITY, "test the intensity (2R + 5G + B) / 8, paint whole pixels"},
    {"red", DETECT_CHANNEL_RED, "test and paint red alone"},
    {"green", DETECT_CHANNEL_GREEN, "test and paint green alone"},
    {"blue", DETECT_CHANNEL_BLUE, "test and paint blue alone"},
    {"red-green", DETECT_CHANNEL_RED | DETECT_CHANNEL_GREEN, "red and green, each on its own"},
    {"red-blue", DETECT_CHANNEL_RED | DETECT_CHANNEL_BLUE, "red and blue, each on its own"},
    {"green-blue", DETECT_CHANNEL_GREEN | DETECT_CHANNEL_BLUE, "green and blue, each on its own"}};

const imgtool::Registrar kRegistrar{{
    {.name = "invert",
     .exportName = "Q_InvertBitmap",
     .family = kIntensity,
     .summary = "Invert every colour sample",
     .help = "Every colour sample v becomes full scale - v (palettes through the palette).",
     .call = [](BitmapRecord *b, const ArgValues &a, std::ostream &) { return Q_InvertBitmap(b, a.Flags()); },
     .toneCurve = true,
     .rowLocal = true},
    {.name = "intensity",
     .exportName = "Q_ChangeBitmapIntensity",
     .family = kIntensity,
     .summary = "Brighten or darken by a share of full scale",
     .help = "Adds change x full scale / 1000 (rounded) to every colour sample, clamped.",
     .args = {Tenths("change", "tenths of a percent of full scale", "the change", "100")},
     .call = [](BitmapRecord *b, const ArgValues &a,
                std::ostream &) { return Q_ChangeBitmapIntensity(b, a.Int("change"), a.Flags()); },
     .toneCurve = true,
     .rowLocal = true},
    {.name = "gray-ext",
     .exportName = "Q_GrayScaleBitmapExt",
     .family = kIntensity,
     .summary = "Convert to gray with chosen weights",
     .help = "gray = (red x R + green x G + blue x B) / 10000. Without a region the bitmap becomes 8-bit (or "
             "16-bit) gray; with one, the pixels inside take their gray level and the kind stays.",
     .args = {{
                  .name = "red",
                  .type = ArgType::Int,
                  .unit = "hundredths of a percent",
                  .min = R::kGrayWeight.min,
                  .max = R::kGrayWeight.max,
                  .defaultValue = "2990",
                  .help = "weight of red",
                  .endStatuses = {RC_SUCCESS, RC_INVALID_PARAMETER}  // the three sum to 10000 at most
              },
              {
                  .name = "green",
                  .type = ArgType::Int,
                  .unit = "hundredths of a percent",
                  .min = R::kGrayWeight.min,
                  .max = R::kGrayWeight.max,
                  .defaultValue = "5870",
                  .help = "weight of green",
                  .endStatuses = {RC_SUCCESS, RC_INVALID_PARAMETER}  // the three sum to 10000 at most
              },
              {
                  .name = "blue",
                  .type = ArgType::Int,
                  .unit = "hundredths of a percent",
                  .min = R::kGrayWeight.min,
                  .max = R::kGrayWeight.max,
                  .defaultValue = "1140",
                  .help = "weight of blue (the three sum to at most 10000)",
                  .endStatuses = {RC_SUCCESS, RC_INVALID_PARAMETER}  // the three sum to 10000 at most
              }},
     .call =
         [](BitmapRecord *b, const ArgValues &a, std::ostream &) {
           return Q_GrayScaleBitmapExt(b, a.Int("red"), a.Int("green"), a.Int("blue"), a.Flags());
         },
     .refusals = {.signedData = RC_SIGNED_DATA_NOT_SUPPORTED}},
    {.name = "detect",
     .exportName = "Q_IntensityDetectBitmap",
     .family = kIntensity,
     .summary = "Paint pixels inside and outside an intensity range",
     .help = "Pixels whose intensity (or selected channel) lies in [low, high] take the inside colour, the "
             "others the outside colour. Levels are on the bitmap's own scale (255, 4095, 65535).",
     .args = {{.name = "low",
               .type = ArgType::UInt,
               .unit = "sample value",
               .min = R::kSampleLevel.min,
               .max = R::kSampleLevel.max,
               .defaultValue = "128",
               .help = "lowest level inside",
               .boundsOn = SampleBounds},
              {
                  .name = "high",
                  .type = ArgType::UInt,
                  .unit = "sample value",
                  .min = R::kSampleLevel.min,
                  .max = R::kSampleLevel.max,
                  .defaultValue = "255",
                  .help = "highest level inside (at most full scale)",
                  .boundsOn = SampleBounds,
                  .endStatuses = {RC_INVALID_PARAMETER, RC_SUCCESS}  // at least low
              },
              {.name = "inside",
               .type = ArgType::Colour,
               .unit = "colour value",
               .defaultValue = "#ffffff",
               .help = "colour of pixels inside the range"},
              {.name = "outside",
               .type = ArgType::Colour,
               .unit = "colour value",
               .defaultValue = "#000000",
               .help = "colour of pixels outside the range"},
              {.name = "channel",
               .type = ArgType::Enum,
               .unit = "channel",
               .defaultValue = "intensity",
               .help = "what is tested",
               .values = kDetectChannels}},
     .kinds = imgtool::kAnyKind,
     .call =
         [](BitmapRecord *b, const ArgValues &a, std::ostream &) {
           return Q_IntensityDetectBitmap(b, a.UInt("low"), a.UInt("high"), a.Colour("inside"),
                                          a.Colour("outside"), static_cast<uint32_t>(a.Enum("channel")),
                                          a.Flags());
         },
     .refusals = {.signedData = RC_SIGNED_DATA_NOT_SUPPORTED},
     .rowLocal = true},
    {.name = "gamma",
     .exportName = "Q_GammaCorrectBitmap",
     .family = kIntensity,
     .summary = "Gamma-correct every colour sample",
     .help = "Every sample goes through full scale x (v / full scale)^(100 / gamma), rounded half to "
             "even.",
     .args = {{.name = "gamma",
               .type = ArgType::UInt,
               .unit = "hundredths",
               .min = R::kGamma.min,
               .max = R::kGamma.max,
               .defaultValue = "150",
               .help = "the gamma (100 = no change)"}},
     .call = [](BitmapRecord *b, const ArgValues &a,
                std::ostream &) { return Q_GammaCorrectBitmap(b, a.UInt("gamma"), a.Flags()); },
     .refusals = {.flags = imgtool::kAccepted},
     .toneCurve = true,
     .rowLocal = true},
    {.name = "histogram",
     .exportName = "Q_GetBitmapHistogram",
     .family = kIntensity,
     .summary = "Print the histogram of the bitmap's samples",
     .help = "Counts the samples of each value (channel all: blue, green and red) into the given "
             "number of "
             "bins and prints the non-empty ones.",
     .args = {{.name = "bins",
               .type = ArgType::UInt,
               .unit = "bins",
               .min = 1,
               .max = R::kSampleLevel.max + 1,  // the export takes more; no sample value reaches past these
               .defaultValue = "256",
               .help = "number of bins",
               .outsideStatus = imgtool::kAccepted,
               .probeLimit = 1 << 20},
              {.name = "channel",
               .type = ArgType::Enum,
               .unit = "channel",
               .defaultValue = "all",
               .help = "samples counted",
               .values = {{"all", 0, "blue, green and red"},
                          {"red", 1, "red"},
                          {"green", 2, "green"},
                          {"blue", 3, "blue"}}}},
     .writesImage = false,
     .call =
         [](BitmapRecord *b, const ArgValues &a, std::ostream &out) {
           std::vector<uint32_t> counts(a.UInt("bins"));
           const int32_t status = Q_GetBitmapHistogram(b, a.Pointer("histogram", counts.data()),
                                                       static_cast<uint32_t>(counts.size()),
                                                       static_cast<uint32_t>(a.Enum("channel")));
           if (status == RC_SUCCESS)
             for (size_t i = 0; i < counts.size(); ++i)
               if (counts[i]) out << "bin " << i << ": " << counts[i] << "\n";
           return status;
         },
     .flagsWord = false,
     .pointers = {{"histogram", RC_NULL_OPTIONS}}},
    {.name = "cbi",
     .exportName = "Q_ContBrightIntBitmap",
     .family = kIntensity,
     .summary = "Change contrast, brightness and intensity in one table",
     .help = "v' = ((v - mid) x (1000 + contrast) / 1000 + mid + brightness x full / 1000) x (1000 + "
             "intensity) / 1000, clamped.",
     .args = {Tenths("contrast", "tenths of a percent", "the change of contrast", "200"),
              Tenths("brightness", "tenths of a percent of full scale", "the change of brightness", "50"),
              Tenths("intensity", "tenths of a percent", "the change of intensity", "0")},
     .call =
         [](BitmapRecord *b, const ArgValues &a, std::ostream &) {
           return Q_ContBrightIntBitmap(b, a.Int("contrast"), a.Int("brightness"), a.Int("intensity"),
                                        a.Flags());
         },
     .refusals = {.flags = imgtool::kAccepted},
     .toneCurve = true,
     .rowLocal = true},
    {.name = "light",
     .exportName = "Q_LightControlBitmap",
     .family = kIntensity,
     .summary = "Move the dark, middle and bright tones to targets",
     .help = "The mean of the samples, the mean of those below it and the mean of those at or above "
             "it go to "
             "the lower, middle and upper targets (tenths of a percent of full scale, per red, green, "
             "blue) "
             "along a piecewise-linear curve. Type luminance works on the luma.",
     .args = {Targets("lower", "200,200,200", "targets of the dark mean (red,green,blue)",
                      {RC_SUCCESS, RC_INVALID_PARAMETER}),
              Targets("middle", "500,500,500", "targets of the overall mean",
                      {RC_INVALID_PARAMETER, RC_INVALID_PARAMETER}),
              Targets("upper", "800,800,800", "targets of the bright mean",
                      {RC_INVALID_PARAMETER, RC_SUCCESS}),
              {.name = "type",
               .type = ArgType::Enum,
               .unit = "measure",
               .defaultValue = "channel",
               .help = "what is measured",
               .values = {{"channel", LIGHT_CONTROL_PER_CHANNEL, "each channel on its own"},
                          {"luminance", LIGHT_CONTROL_LUMINANCE, "the luma, hues kept"}}}},
     .call =
         [](BitmapRecord *b, const ArgValues &a, std::ostream &) {
           const auto lo = Unsigned(a.List("lower")), mid = Unsigned(a.List("middle")),
                      hi = Unsigned(a.List("upper"));
           if (lo.size() != 3 || mid.size() != 3 || hi.size() != 3) return RC_INVALID_PARAMETER;
           return Q_LightControlBitmap(b, a.Pointer("lower", lo.data()), a.Pointer("middle", mid.data()),
                                       a.Pointer("upper", hi.data()), static_cast<uint32_t>(a.Enum("type")));
         },
     .flagsWord = false,
     .pointers = {{"lower", RC_NULL_OPTIONS}, {"middle", RC_NULL_OPTIONS}, {"upper", RC_NULL_OPTIONS}}},
    {.name = "auto-level",
     .exportName = "Q_AutoColorLevelBitmap",
     .family = kIntensity,
     .summary = "Stretch the occupied levels to full scale",
     .help = "Finds the levels below which black-clip and above which white-clip of the samples lie "
             "(hundredths of a percent) and stretches that range to full scale.",
     .args = {{.name = "type",
               .type = ArgType::Enum,
               .unit = "measure",
               .defaultValue = "channel",
               .help = "where the range is found",
               .values = {{"channel", AUTO_LEVEL_PER_CHANNEL, "per channel"},
                          {"common", AUTO_LEVEL_COMMON, "one range for all channels"},
                          {"intensity", AUTO_LEVEL_INTENSITY, "on the intensity"}}},
              {
                  .name = "black-clip",
                  .type = ArgType::UInt,
                  .unit = "hundredths of a percent",
                  .min = R::kAutoLevelClip.min,
                  .max = R::kAutoLevelClip.max,
                  .defaultValue = "50",
                  .help = "share clipped to black (the two below 10000 together)",
                  .endStatuses = {RC_SUCCESS, RC_INVALID_PARAMETER}  // the two below 10000 together
              },
              {
                  .name = "white-clip",
                  .type = ArgType::UInt,
                  .unit = "hundredths of a percent",
                  .min = R::kAutoLevelClip.min,
                  .max = R::kAutoLevelClip.max,
                  .defaultValue = "50",
                  .help = "share clipped to white (the two below 10000 together)",
                  .endStatuses = {RC_SUCCESS, RC_INVALID_PARAMETER}  // the two below 10000 together
              }},
     .call =
         [](BitmapRecord *b, const ArgValues &a, std::ostream &) {
           return Q_AutoColorLevelBitmap(b, static_cast<uint32_t>(a.Enum("type")), a.UInt("black-clip"),
                                         a.UInt("white-clip"), a.Flags());
         }},
    {.name = "levels",
     .exportName = "Q_ColorLevelBitmap",
     .family = kIntensity,
     .summary = "Input and output levels with gamma, master then per channel",
     .help = "Each set is inlow,inhigh,outlow,outhigh,gamma on the bitmap's scale (gamma in "
             "hundredths); "
             "x = clamp((v - inlow) / (inhigh - inlow)), v' = outlow + x^(100 / gamma) x "
             "(outhigh - outlow). "
             "Sets left at -1 do not apply.",
     .args = {LevelSet("master", "16,235,0,255,120", "master set: inlow,inhigh,outlow,outhigh,gamma"),
              LevelSet("red", "-1", "red set"), LevelSet("green", "-1", "green set"),
              LevelSet("blue", "-1", "blue set")},
     .call = Levels,
     .flagsWord = false,
     .pointers = {{"levels", RC_NULL_OPTIONS}},
     .toneCurve = true,
     .rowLocal = true},
    {.name = "adaptive-contrast",
     .exportName = "Q_AdaptiveContrastBitmap",
     .family = kIntensity,
     .summary = "Local contrast around the window mean",
     .help = "v' = m + (v - m) x (100 + amount) / 100 with m the mean of the square window "
             "around the pixel.",
     .args = {{.name = "window",
               .type = ArgType::UInt,
               .unit = "pixels",
               .min = R::kAdaptiveDimension.min,
               .max = R::kAdaptiveDimension.max,
               .defaultValue = "15",
               .help = "window side (odd)"},
              {.name = "amount",
               .type = ArgType::UInt,
               .unit = "percent",
               .min = R::kAdaptiveAmount.min,
               .max = R::kAdaptiveAmount.max,
               .defaultValue = "100",
               .help = "the gain of the difference from the window mean"},
              {.name = "type",
               .type = ArgType::Enum,
               .unit = "channels",
               .defaultValue = "all",
               .help = "what is changed",
               .values = {{"all", ADAPTIVE_CONTRAST_ALL, "every channel"},
                          {"luminance", ADAPTIVE_CONTRAST_LUMINANCE, "the luma only"}}}},
     .call =
         [](BitmapRecord *b, const ArgValues &a, std::ostream &) {
           return Q_AdaptiveContrastBitmap(b, a.UInt("window"), a.UInt("amount"),
                                           static_cast<uint32_t>(a.Enum("type")));
         },
     .flagsWord = false,
     .refusals = {.signedData = RC_SIGNED_DATA_NOT_SUPPORTED},
     .variants = {{.label = "window 31", .args = {{"window", "31"}}}}},
    {.name = "gamma-ext",
     .exportName = "Q_GammaCorrectBitmapExt",
     .family = kGammaExt,
     .summary = "Gamma per channel or on the luma alone",
     .help = "Space rgb corrects every channel; yuv corrects only the luma of an integer YUV "
             "form, keeping hues.",
     .args = {{.name = "gamma",
               .type = ArgType::UInt,
               .unit = "hundredths",
               .min = R::kGamma.min,
               .max = R::kGamma.max,
               .defaultValue = "150",
               .help = "the gamma (100 = no change)"},
              {.name = "space",
               .type = ArgType::Enum,
               .unit = "colour space",
               .defaultValue = "yuv",
               .help = "where the curve applies",
               .values = {{"rgb", GAMMA_RGB, "every channel"}, {"yuv", GAMMA_YUV, "the luma only"}}}},
     .call =
         [](BitmapRecord *b, const ArgValues &a, std::ostream &) {
           return Q_GammaCorrectBitmapExt(b, a.UInt("gamma"), static_cast<uint32_t>(a.Enum("space")));
         },
     .flagsWord = false,
     .refusals = {.nullBitmap = RC_INVALID_PARAMETER},
     // The per-channel path (rgb, or signed samples) returns 1 whatever
     // the gamma correction returned.
     .swallowsCancel =
         [](const BitmapRecord &b, const ArgValues &a) {
           return a.Enum("space") == GAMMA_RGB || (b.Flags & BITMAP_SIGNED);
         },
     .rowLocal = true},
    {.name = "auto-binary",
     .exportName = "Q_AutoBinaryBitmap",
     .family = kAutoBinary,
     .summary = "Black and white at a threshold found between the histogram's peaks",
     .help = "Finds the highest histogram peak, a second peak by distance-weighted height "
             "and the emptiest "
             "level between them; pixels at or above it turn white, the others black.",
     .call = [](BitmapRecord *b, const ArgValues &a,
                std::ostream &) { return Q_AutoBinaryBitmap(b, a.Flags()); },
     // The histogram reports its share, then the detection its own 0..100.
     .monotonicProgress = false,
     .refusals = {.signedData = RC_SIGNED_DATA_NOT_SUPPORTED},
     // The record is refreshed after the histogram whatever the detection
     // returns, so a detection refusal (its bounds beyond the significant
     // bits, say) leaves UpdateCount raised.
     .keptOnRefusal = {.updateCount = true}},
}};

}  // namespace
