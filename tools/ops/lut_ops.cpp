// Lookup-table point operations, the histogram-driven contrast changes, the
// mathematical curves and the colour count.
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

const imgtool::Family kPointOps{"Point operations through lookup tables", "Common/Lut_clr.cpp",
                                "pointops.md"};
const imgtool::Family kCurves{"Mathematical curves and the colour count", "Common/MATHFs.cpp", "pointops.md"};

// The default remap table: 256 entries of the square-root curve
// floor(sqrt(255 i)), which lifts the shadows of 8-bit samples.
std::string RootCurve() {
  std::string table;
  for (uint32_t i = 0, r = 0; i < 256; ++i) {
    while ((r + 1) * (r + 1) <= 255 * i) ++r;
    if (i) table += ',';
    table += std::to_string(r);
  }
  return table;
}

constexpr uint32_t kLutKinds = imgtool::kAnyKind;

int32_t Solarize(BitmapRecord *b, const ArgValues &a, std::ostream &) {
  return Q_SolarizeBitmap(b, a.UInt("threshold"), a.Flags());
}
int32_t Posterize(BitmapRecord *b, const ArgValues &a, std::ostream &) {
  return Q_PosterizeBitmap(b, a.UInt("levels"), a.Flags());
}
int32_t Contrast(BitmapRecord *b, const ArgValues &a, std::ostream &) {
  return Q_ChangeBitmapContrast(b, a.Int("change"), a.Flags());
}
int32_t Multiply(BitmapRecord *b, const ArgValues &a, std::ostream &) {
  return Q_MultiplyBitmap(b, a.UInt("factor"), a.Flags());
}
int32_t MathLogic(BitmapRecord *b, const ArgValues &a, std::ostream &) {
  const uint32_t operation =
      static_cast<uint32_t>(a.Enum("channel") | a.Enum("input") | a.Enum("operation") | a.Enum("output"));
  return Q_ApplyMathLogicBitmap(b, a.Int("value"), operation);
}
int32_t Remap(BitmapRecord *b, const ArgValues &a, std::ostream &) {
  const std::vector<int32_t> &points = a.List("table");
  const uint32_t length = static_cast<uint32_t>(points.size());
  return Q_RemapBitmapIntensity(b, a.Pointer("table", points.data()), length,
                                LUT_INDEX_BY_VALUE | static_cast<uint32_t>(a.Enum("channel")));
}
int32_t HistoContrast(BitmapRecord *b, const ArgValues &a, std::ostream &) {
  return Q_HistoContrastBitmap(b, a.Int("change"), a.Flags());
}
int32_t Stretch(BitmapRecord *b, const ArgValues &a, std::ostream &) {
  return Q_StretchBitmapIntensity(b, a.Flags());
}
int32_t ColorCount(BitmapRecord *b, const ArgValues &a, std::ostream &out) {
  uint32_t count = 0;
  const int32_t status = Q_GetBitmapColorCount(b, a.Pointer("count", &count), a.Flags());
  if (status == RC_SUCCESS) out << "colors: " << count << "\n";
  return status;
}
int32_t MathFunction(BitmapRecord *b, const ArgValues &a, std::ostream &) {
  return Q_MathFunctionBitmap(b, static_cast<uint32_t>(a.Enum("function")), a.UInt("factor"), a.Flags());
}

ArgSpec ChannelArg() {
  return {.name = "channel",
          .type = ArgType::Enum,
          .unit = "channel",
          .defaultValue = "all",
          .help = "the colour sample to change",
          .values = {{"all", LUT_CHANNEL_ALL, "every sample"},
                     {"red", LUT_CHANNEL_RED, "red only"},
                     {"green", LUT_CHANNEL_GREEN, "green only"},
                     {"blue", LUT_CHANNEL_BLUE, "blue only"}}};
}

const imgtool::Registrar kRegistrar{{
    {.name = "solarize",
     .exportName = "Q_SolarizeBitmap",
     .family = kPointOps,
     .summary = "Invert every sample at or above a threshold",
     .help = "Samples below the threshold stay; samples at or above it are inverted. A threshold of 0 "
             "inverts everything. 12-bit gray takes thresholds up to 4095; other kinds up to 65535 (on "
             "8-bit samples thresholds above 255 change nothing).",
     .args = {{.name = "threshold",
               .type = ArgType::UInt,
               .unit = "sample value",
               .min = R::kSolarizeThreshold.min,
               .max = R::kSolarizeThreshold.max,
               .defaultValue = "128",
               .help = "first sample value that is inverted"}},
     .kinds = kLutKinds,
     .call = Solarize,
     .toneCurve = true,
     .rowLocal = true},
    {.name = "posterize",
     .exportName = "Q_PosterizeBitmap",
     .family = kPointOps,
     .summary = "Reduce every sample to a number of levels",
     .help = "Maps each sample to the nearest of `levels` evenly spaced values.",
     .args = {{.name = "levels",
               .type = ArgType::UInt,
               .unit = "levels per sample",
               .min = R::kPosterizeLevels.min,
               .max = R::kPosterizeLevels.max,
               .defaultValue = "4",
               .help = "number of levels"}},
     .kinds = kLutKinds,
     .call = Posterize,
     .variants = {{.label = "two levels", .args = {{"levels", "2"}}}},
     .toneCurve = true,
     .rowLocal = true},
    {.name = "contrast",
     .exportName = "Q_ChangeBitmapContrast",
     .family = kPointOps,
     .summary = "Raise or lower the contrast",
     .help = "Positive changes push the samples away from the middle (clipping the ends); negative ones "
             "squeeze the whole range towards the middle. 0 changes nothing.",
     .args = {{.name = "change",
               .type = ArgType::Int,
               .unit = "tenths of a percent",
               .min = R::kChange.min,
               .max = R::kChange.max,
               .defaultValue = "300",
               .help = "the change of contrast"}},
     .kinds = kLutKinds,
     .call = Contrast,
     .variants = {{.label = "lower", .args = {{"change", "-500"}}}},
     .toneCurve = true,
     .rowLocal = true},
    {.name = "multiply",
     .exportName = "Q_MultiplyBitmap",
     .family = kPointOps,
     .summary = "Multiply every sample by a percentage",
     .help = "Each sample becomes sample * factor / 100, limited to the largest sample value.",
     .args = {{.name = "factor",
               .type = ArgType::UInt,
               .unit = "percent",
               .min = R::kAnyUInt32.min,
               .max = R::kAnyUInt32.max,
               .defaultValue = "150",
               .help = "the factor"}},
     .kinds = kLutKinds,
     .call = Multiply,
     .toneCurve = true,
     .rowLocal = true},
    {.name = "math-logic",
     .exportName = "Q_ApplyMathLogicBitmap",
     .family = kPointOps,
     .summary = "Combine every sample with a value (logic or arithmetic)",
     .help = "Takes each sample (optionally inverted, 0 or the maximum), combines it with the value by "
             "the operation and stores the result (optionally inverted, or a constant). The value's "
             "range depends on the operation and the sample range (multiply and divide take percent).",
     .args = {{
                  .name = "value",
                  .type = ArgType::Int,
                  .unit = "sample value (multiply and divide: percent)",
                  .min = R::kMathLogicValue.min,
                  .max = R::kMathLogicValue.max,
                  .defaultValue = "32",
                  .help = "the operand",
                  // The default operation on 8-bit samples narrows the range.
                  .endStatuses = {RC_INVALID_PARAMETER, RC_INVALID_PARAMETER},
              },
              {
                  .name = "operation",
                  .type = ArgType::Enum,
                  .unit = "operation",
                  .defaultValue = "add",
                  .help = "how sample x and value v combine",
                  .values = {{"and", MATHLOGIC_OP_AND, "x AND v"},
                             {"or", MATHLOGIC_OP_OR, "x OR v"},
                             {"xor", MATHLOGIC_OP_XOR, "x XOR v"},
                             {"add", MATHLOGIC_OP_ADD, "x + v"},
                             {"value-minus-sample", MATHLOGIC_OP_VALUE_MINUS_SAMPLE, "v - x"},
                             {"sample-minus-value", MATHLOGIC_OP_SAMPLE_MINUS_VALUE, "x - v"},
                             {"abs-difference", MATHLOGIC_OP_ABS_DIFFERENCE, "|x - v|"},
                             {"multiply", MATHLOGIC_OP_MULTIPLY, "x * v / 100"},
                             {"divide", MATHLOGIC_OP_DIVIDE, "x * 100 / v (v not 0)"},
                             {"value-divide-sample", MATHLOGIC_OP_VALUE_DIVIDE_SAMPLE,
                              "v / x (255 for x = 0)"},
                             {"average", MATHLOGIC_OP_AVERAGE, "(x + v) / 2"},
                             {"minimum", MATHLOGIC_OP_MINIMUM, "min(x, v)"},
                             {"maximum", MATHLOGIC_OP_MAXIMUM, "max(x, v)"}},
                  .outsideStatus = imgtool::kAccepted,  // lands in another field of the operation word
              },
              {
                  .name = "input",
                  .type = ArgType::Enum,
                  .unit = "operand",
                  .defaultValue = "sample",
                  .help = "what the operation takes as x",
                  .values = {{"sample", MATHLOGIC_IN_SAMPLE, "the sample"},
                             {"invert", MATHLOGIC_IN_INVERT, "the inverted sample"},
                             {"zero", MATHLOGIC_IN_ZERO, "0"},
                             {"max", MATHLOGIC_IN_MAX, "the largest sample value"}},
                  .outsideStatus = imgtool::kAccepted  // lands in another field of the operation word
              },
              {
                  .name = "output",
                  .type = ArgType::Enum,
                  .unit = "result",
                  .defaultValue = "result",
                  .help = "what is stored",
                  .values = {{"result", MATHLOGIC_OUT_RESULT, "the result"},
                             {"invert", MATHLOGIC_OUT_INVERT, "the inverted result"},
                             {"zero", MATHLOGIC_OUT_ZERO, "0"},
                             {"ones", MATHLOGIC_OUT_ONES, "all bits set"}},
                  .outsideStatus = imgtool::kAccepted  // lands in another field of the operation word
              },
              ChannelArg()},
     .kinds = kLutKinds,
     .call = MathLogic,
     .flagsWord = false,
     .toneCurve = true,
     .rowLocal = true},
    {.name = "remap",
     .exportName = "Q_RemapBitmapIntensity",
     .family = kPointOps,
     .summary = "Map every sample through a given table",
     .help = "Sample v becomes table[v]; the table needs one entry per sample value (256, 4096 "
             "or 65536); "
             "values beyond the table stay.",
     .args = {{.name = "table",
               .type = ArgType::IntList,
               .unit = "sample value",
               .min = R::kSampleLevel.min,
               .max = R::kSampleLevel.max,
               .defaultValue = RootCurve(),
               .help = "the entries, comma-separated (by default a square-root curve over 8-bit samples)",
               .minCount = 1,
               .maxCount = R::kSampleLevel.max + 1,
               .outsideStatus = imgtool::kAccepted},
              ChannelArg()},
     .kinds = kLutKinds,
     .call = Remap,
     .flagsWord = false,
     .pointers = {{"table"}},
     .toneCurve = true,
     .rowLocal = true},
    {
        .name = "histo-contrast",
        .exportName = "Q_HistoContrastBitmap",
        .family = kPointOps,
        .summary = "Change the contrast around the occupied range of values",
        .help = "Like contrast, but the change is centred on the range of values that the bitmap uses.",
        .args = {{.name = "change",
                  .type = ArgType::Int,
                  .unit = "tenths of a percent",
                  .min = R::kChange.min,
                  .max = R::kChange.max,
                  .defaultValue = "300",
                  .help = "the change of contrast"}},
        .kinds = kLutKinds,
        .call = HistoContrast,
    },
    {
        .name = "stretch",
        .exportName = "Q_StretchBitmapIntensity",
        .family = kPointOps,
        .summary = "Spread the occupied range of values over the whole range",
        .help = "The lowest used value becomes 0, the highest the largest value, the middle of the "
                "two the "
                "centre. A bitmap of a single value stays unchanged.",
        .args = {},
        .kinds = kLutKinds,
        .call = Stretch,
    },
    {
        .name = "color-count",
        .exportName = "Q_GetBitmapColorCount",
        .family = kCurves,
        .summary = "Print the number of distinct colours",
        .help = "Prints 'colors: N'. Writes no image.",
        .args = {},
        .kinds = kLutKinds,
        .writesImage = false,
        .call = ColorCount,
        .pointers = {{"count", RC_NULL_OPTIONS}},
        .refusals = {.coloursUsed = imgtool::kAccepted},
    },
    {.name = "math-function",
     .exportName = "Q_MathFunctionBitmap",
     .family = kCurves,
     .summary = "Pass every sample through a curve",
     .help = "Square, logarithm, square root, sine or cosine of each sample, scaled by the "
             "factor and "
             "limited to the largest sample value (for 8-bit samples: square i*i*f/10000, log "
             "ln(i)*f/10, "
             "root sqrt(i)*f/16, sine and cosine of i*f/100 degrees around the middle).",
     .args = {{.name = "function",
               .type = ArgType::Enum,
               .unit = "curve",
               .defaultValue = "root",
               .help = "the curve",
               .values = {{"square", MATHFUNC_SQUARE, "i * i * k"},
                          {"log", MATHFUNC_LOG, "ln(i) * k"},
                          {"root", MATHFUNC_ROOT, "sqrt(i) * k"},
                          {"sine", MATHFUNC_SINE, "(sin(i * k degrees) + 1) * middle"},
                          {"cosine", MATHFUNC_COSINE, "(cos(i * k degrees) + 1) * middle"}}},
              {.name = "factor",
               .type = ArgType::UInt,
               .unit = "scale (see the curves)",
               .min = R::kMathFactor.min,
               .max = R::kMathFactor.max,
               .defaultValue = "256",
               .help = "scale of the curve"}},
     .kinds = kLutKinds,
     .call = MathFunction,
     .toneCurve = true,
     .rowLocal = true},
}};

}  // namespace
