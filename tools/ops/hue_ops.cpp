// Hue, saturation, hue-band and tint operations.
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

const imgtool::Family kHueSat{"Hue and saturation", "Common/HUESAT.cpp", "hue.md"};
const imgtool::Family kHueBands{"Hue, saturation and intensity by hue bands", "Common/HSI.cpp", "hue.md"};
const imgtool::Family kTint{"Tint", "Common/AdjustTint.cpp", "hue.md"};

// The remap tool builds the export's four tables from a hue range and two
// scales: these ranges are the tool's own, the export takes tables.
constexpr img::Range kHueStep{0, 255};      // 256 steps to the circle
constexpr img::Range kNewHue{-1, 255};      // -1 keeps the hue
constexpr img::Range kRemapScale{0, 1000};  // percent

std::string Bounds(const img::Range &r) { return std::to_string(r.min) + ".." + std::to_string(r.max); }

constexpr uint32_t kColourKinds = imgtool::kPalette | imgtool::kAnyColor;

int32_t Hue(BitmapRecord *b, const ArgValues &a, std::ostream &) {
  return Q_ChangeBitmapHue(b, a.Int("angle"), a.Flags());
}

int32_t Saturation(BitmapRecord *b, const ArgValues &a, std::ostream &) {
  return Q_ChangeBitmapSaturation(b, a.Int("change"), a.Flags());
}

// Builds the four tables of the remap from a hue range (in 256ths of the
// circle), a new hue and two percentage scales.
int32_t RemapHue(BitmapRecord *b, const ArgValues &a, std::ostream &) {
  const uint32_t length = static_cast<uint32_t>(a.Enum("table-length"));
  const int64_t scale = length / 256;  // table entries per 8-bit hue step
  const int64_t top = length == 256 ? 255 : length == 4096 ? 4095 : 65535;
  const int64_t from = int64_t{a.Int("from")} * scale, to = (int64_t{a.Int("to")} + 1) * scale - 1;
  const int32_t newHue = a.Int("new-hue");
  const int64_t satScale = a.Int("saturation-scale"), valScale = a.Int("value-scale");
  std::vector<int32_t> selection(length), hue(length), saturation(length), value(length);
  for (uint32_t i = 0; i < length; ++i) {
    const bool in = from <= to ? (i >= from && i <= to) : (i >= from || i <= to);  // a range may wrap
    selection[i] = in ? 1 : 0;
    hue[i] = newHue < 0 ? static_cast<int32_t>(i) : static_cast<int32_t>(newHue * scale);
    const int64_t s = int64_t{i} * satScale / 100, v = int64_t{i} * valScale / 100;
    saturation[i] = static_cast<int32_t>(s > top ? top : s);
    value[i] = static_cast<int32_t>(v > top ? top : v);
  }
  return Q_RemapBitmapHue(b, a.Pointer("selection", selection.data()), a.Pointer("hue", hue.data()),
                          a.Pointer("saturation", saturation.data()), a.Pointer("value", value.data()),
                          length, a.Flags());
}

int32_t HueSatInt(BitmapRecord *b, const ArgValues &a, std::ostream &) {
  const std::vector<int32_t> &list = a.List("bands");
  if (list.size() % 7 != 0) return RC_INVALID_PARAMETER;
  std::vector<HueSatIntRange> bands;
  for (size_t i = 0; i + 7 <= list.size(); i += 7)
    bands.push_back(HueSatIntRange{32, list[i], list[i + 1], list[i + 2], list[i + 3], list[i + 4],
                                   list[i + 5], list[i + 6]});
  return Q_ChangeHueSatIntBitmap(b, a.Int("hue"), a.Int("saturation"), a.Int("intensity"),
                                 a.Pointer("bands", bands.data()), static_cast<uint32_t>(bands.size()),
                                 a.Flags());
}

int32_t Tint(BitmapRecord *b, const ArgValues &a, std::ostream &) {
  return Q_AdjustBitmapTint(b, a.Int("theta"), a.Int("phi"), a.Flags());
}

const imgtool::Registrar kRegistrar{{
    {.name = "hue",
     .exportName = "Q_ChangeBitmapHue",
     .family = kHueSat,
     .summary = "Rotate the hue of every pixel",
     .help = "Turns the hue by the angle on a circle of 256 steps (65536 for 16-bit samples): the step is "
             "angle * 256 / 360, truncated, so angles below 2 degrees change nothing beyond the rounding "
             "of the conversion there and back. Gray pixels stay. Palette bitmaps change their palette.",
     .args = {{.name = "angle",
               .type = ArgType::Int,
               .unit = "degrees",
               .min = R::kAnyInt32.min,
               .max = R::kAnyInt32.max,
               .defaultValue = "120",
               .help = "the turn; every value is accepted"}},
     .kinds = imgtool::kAnyKind,
     .call = Hue,
     .refusals = {.zeroedRecord = RC_NO_BITMAP, .signedData = RC_SIGNED_DATA_NOT_SUPPORTED},
     .variants = {{.label = "half turn", .args = {{"angle", "180"}}}},
     .rowLocal = true},
    {.name = "saturation",
     .exportName = "Q_ChangeBitmapSaturation",
     .family = kHueSat,
     .summary = "Raise or lower the saturation",
     .help = "Scales the HLS saturation S to S + S * step / 256 with step = (change * 255 + 500) / 1000. "
             "-1000 leaves saturation 0 or 1 (8-bit), not exactly gray.",
     .args = {{.name = "change",
               .type = ArgType::Int,
               .unit = "tenths of a percent",
               .min = R::kChange.min,
               .max = R::kChange.max,
               .defaultValue = "300",
               .help = "the change of saturation"}},
     .kinds = imgtool::kAnyKind,
     .call = Saturation,
     .refusals = {.zeroedRecord = RC_NO_BITMAP, .signedData = RC_SIGNED_DATA_NOT_SUPPORTED},
     .variants = {{.label = "gray", .args = {{"change", "-1000"}}}},
     .rowLocal = true},
    {.name = "remap-hue",
     .exportName = "Q_RemapBitmapHue",
     .family = kHueSat,
     .summary = "Give a range of hues a new hue, saturation and value",
     .help = "Pixels whose hue (0..255 for the full circle) lies in from..to (wrapping when from > to) get "
             "the new hue, their saturation and value scaled by the percentages. Every pixel is converted "
             "there and back, selected or not. 16-bit rows need a table length of 4096 or 65536.",
     .args = {{.name = "from",
               .type = ArgType::Int,
               .unit = "hue step (256 to the circle)",
               .min = kHueStep.min,
               .max = kHueStep.max,
               .defaultValue = "0",
               .help = "first selected hue step",
               .outsideStatus = imgtool::kAccepted},
              {.name = "to",
               .type = ArgType::Int,
               .unit = "hue step (256 to the circle)",
               .min = kHueStep.min,
               .max = kHueStep.max,
               .defaultValue = "42",
               .help = "last selected hue step",
               .outsideStatus = imgtool::kAccepted},
              {.name = "new-hue",
               .type = ArgType::Int,
               .unit = "hue step (256 to the circle)",
               .min = kNewHue.min,
               .max = kNewHue.max,
               .defaultValue = "150",
               .help = "hue step the selected pixels get; -1 keeps their hue",
               .outsideStatus = imgtool::kAccepted},
              {.name = "saturation-scale",
               .type = ArgType::Int,
               .unit = "percent",
               .min = kRemapScale.min,
               .max = kRemapScale.max,
               .defaultValue = "100",
               .help = "scale of the saturation of selected pixels",
               .outsideStatus = imgtool::kAccepted},
              {.name = "value-scale",
               .type = ArgType::Int,
               .unit = "percent",
               .min = kRemapScale.min,
               .max = kRemapScale.max,
               .defaultValue = "100",
               .help = "scale of the value of selected pixels",
               .outsideStatus = imgtool::kAccepted},
              {.name = "table-length",
               .type = ArgType::Enum,
               .unit = "entries",
               .defaultValue = "65536",
               .help = "entries per table",
               .values = {{"256", 256, "8-bit samples and palettes only"},
                          {"4096", 4096, "16-bit samples read in 4096 steps"},
                          {"65536", 65536, "any bitmap"}},
               .outsideStatus = imgtool::kAccepted,
               .probeLimit = 65536}},
     .kinds = imgtool::kAnyKind,
     .call = RemapHue,
     // Any table may be null.
     .pointers = {{"selection", imgtool::kAccepted},
                  {"hue", imgtool::kAccepted},
                  {"saturation", imgtool::kAccepted},
                  {"value", imgtool::kAccepted}},
     .refusals = {.zeroedRecord = RC_NO_BITMAP, .signedData = RC_SIGNED_DATA_NOT_SUPPORTED},
     .rowLocal = true},
    {.name = "hue-sat-int",
     .exportName = "Q_ChangeHueSatIntBitmap",
     .family = kHueBands,
     .summary = "Shift hue, saturation and intensity, overall and by hue bands",
     .help = "Adds the overall changes to every pixel and each band's changes to the pixels whose hue (in "
             "degrees, before the shift) lies in the band: fully inside the inner band, fading to nothing "
             "at the outer band's ends. Bands may cross 0 degrees (outer start above outer end). Refuses "
             "gray bitmaps.",
     .args = {{.name = "hue",
               .type = ArgType::Int,
               .unit = "hundredths of a degree",
               .min = R::kHueShift.min,
               .max = R::kHueShift.max,
               .defaultValue = "0",
               .help = "overall hue shift"},
              {.name = "saturation",
               .type = ArgType::Int,
               .unit = "tenths of a percent",
               .min = R::kChange.min,
               .max = R::kChange.max,
               .defaultValue = "100",
               .help = "overall saturation change"},
              {.name = "intensity",
               .type = ArgType::Int,
               .unit = "tenths of a percent of full scale",
               .min = R::kChange.min,
               .max = R::kChange.max,
               .defaultValue = "0",
               .help = "overall intensity change"},
              {.name = "bands",
               .type = ArgType::IntList,
               .unit = "per band: hundredths of a degree, tenths of a percent, tenths of a percent of full "
                       "scale, degrees (four times)",
               .min = R::kHueShift.min,
               .max = R::kHueShift.max,
               .defaultValue = "-2500,300,0,0,90,15,60",
               .help = "seven values for each band: hue shift (" + Bounds(R::kHueShift) +
                       "), saturation change (" + Bounds(R::kChange) + "), intensity change (" +
                       Bounds(R::kChange) + "), outer start, outer end, inner start, inner end (each " +
                       Bounds(R::kBandAngle) + ")",
               .minCount = 7,
               .maxCount = 70,
               // a band orders its hues and feathers
               .endStatuses = {RC_INVALID_PARAMETER, RC_INVALID_PARAMETER}}},
     .kinds = kColourKinds,
     .call = HueSatInt,
     // A failed copy of the bands is -13, and a missing row buffer a quiet
     // success that leaves the bitmap alone: both kept.
     .failureStatuses = {RC_INVALID_PARAMETER, RC_SUCCESS},
     .pointers = {{"bands"}},
     .refusals = {.signedData = RC_SIGNED_DATA_NOT_SUPPORTED},
     .rowLocal = true},
    {.name = "tint",
     .exportName = "Q_AdjustBitmapTint",
     .family = kTint,
     .summary = "Turn every pixel's colour vector, keeping its length",
     .help = "Shifts the two angles of each pixel's spherical form: theta, measured from the blue axis, "
             "and phi, in the red-green plane. Refuses gray bitmaps; (0, 0) changes nothing.",
     .args = {{.name = "theta",
               .type = ArgType::Int,
               .unit = "hundredths of a degree",
               .min = R::kHueShift.min,
               .max = R::kHueShift.max,
               .defaultValue = "1000",
               .help = "shift of theta"},
              {.name = "phi",
               .type = ArgType::Int,
               .unit = "hundredths of a degree",
               .min = R::kHueShift.min,
               .max = R::kHueShift.max,
               .defaultValue = "0",
               .help = "shift of phi"}},
     .kinds = kColourKinds,
     .call = Tint,
     .refusals = {.signedData = RC_SIGNED_DATA_NOT_SUPPORTED},
     .rowLocal = true},
}};

}  // namespace
