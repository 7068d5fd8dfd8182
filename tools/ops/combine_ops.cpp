// Target sampling and adding bitmaps.
#include <string>
#include <vector>

#include "cli_io.h"
#include "converter_guard.h"
#include "family.h"
#include "imgcolor.h"
#include "ranges.h"
#include "registry.h"

namespace {

using imgtool::ArgSpec;
using imgtool::ArgType;
using imgtool::ArgValues;
namespace R = img::ranges;

constexpr const wchar_t *kSourceFile = L"tools/combine_ops";

const imgtool::Family kSampling{"Target sampling", "Common/SAMTRG.cpp", "binary.md"};
const imgtool::Family kAdding{"Adding bitmaps", "Common/AddBitmaps.cpp", "binary.md"};

const char *const kColourHelp =
    "#RRGGBB, or the family's colour value (red in bits 0-7, green 8-15, blue 16-23; bit 26 (0x4000000) "
    "marks a gray level in bits 8-15, on 16-bit samples in bits 0-15)";

// ---- Target sampling ------------------------------------------------------------------------

// The curve points the call uses, on the colours' 8-bit scale (16-bit samples
// take each value x 257): one line per curve, "red: 128 -> 160".
void ReportCurves(bool gray, uint32_t sample, uint32_t target, uint32_t channel, std::ostream &out) {
  auto level = [](uint32_t colour, int k) -> int32_t {  // k: 0 red, 1 green, 2 blue, 3 gray
    if (colour & SAMPLE_GRAY_LEVEL) return static_cast<int32_t>((colour & 0xFFFFu) >> 8);
    const int32_t r = colour & 0xFF, g = (colour >> 8) & 0xFF, bl = (colour >> 16) & 0xFF;
    return k == 0 ? r : k == 1 ? g : k == 2 ? bl : (2 * r + 5 * g + bl + 4) >> 3;
  };
  const char *names[] = {"red", "green", "blue", "gray"};
  auto line = [&](int k) {
    out << names[k] << ": " << level(sample, k) << " -> " << level(target, k) << "\n";
  };
  if (gray)
    line(3);
  else if (channel == SAMPLE_CHAN_ALL)
    for (int k = 0; k < 3; ++k) line(k);
  else if (channel >= SAMPLE_CHAN_RED && channel <= SAMPLE_CHAN_BLUE)
    line(static_cast<int>(channel) - 1);
  // Other words (bits the call does not look at, from a caller of the
  // registry rather than the command line) get no report.
}

int32_t SampleTarget(BitmapRecord *b, const ArgValues &a, std::ostream &out) {
  const uint32_t channel = static_cast<uint32_t>(a.Enum("channel"));
  // One sample a pixel: gray bitmaps of 8 (palette path), 12 and 16 bits;
  // 8-bit gray comes back a palette bitmap, so this is asked first.
  const bool gray = b && b->ColorOrder == ORDER_GRAY;
  const int32_t status = Q_SampleTargetBitmap(b, a.Colour("sample"), a.Colour("target"),
                                              channel | static_cast<uint32_t>(a.Enum("method")));
  if (status == RC_SUCCESS) ReportCurves(gray, a.Colour("sample"), a.Colour("target"), channel, out);
  return status;
}

// ---- Adding bitmaps ---------------------------------------------------------------------------

// A caller-side list of records; destroying it frees no pixels.
struct List {
  BitmapList list = nullptr;
  List() = default;
  List(const List &) = delete;
  List &operator=(const List &) = delete;
  ~List() {
    if (list) DestroyBitmapList(list);
  }
};

int32_t MakeList(const std::vector<BitmapRecord *> &bitmaps, List &list) {
  int32_t status = CreateBitmapList(&list.list);
  for (size_t i = 0; status == RC_SUCCESS && i < bitmaps.size(); ++i)
    status = InsertBitmapListItem(list.list, -1, bitmaps[i]);
  return status;
}

// Writes the rows of `from` into `to` (the same kind and size) inside `to`'s
// region only.
int32_t CopyInsideRegion(BitmapRecord *from, BitmapRecord *to) {
  img::ConverterGuard source, target;
  int32_t status = CreateRowConverter(from, source.place(), ROW_LAYOUT_NATIVE);
  if (status == RC_SUCCESS) status = CreateRowConverter(to, target.place(), ROW_LAYOUT_NATIVE);
  if (status != RC_SUCCESS) return status;
  img::KernelBuffer<uint8_t> row;
  row.adopt(static_cast<uint8_t *>(AllocRowBuffer(source.get())), __LINE__, kSourceFile);
  if (!row) return RC_NO_MEMORY;
  if ((status = BeginRegion(target.get())) != RC_SUCCESS) return status;
  Rect bounds{};
  GetRegionBounds(to, nullptr, &bounds);
  for (int32_t y = bounds.Top; y < bounds.Bottom && status == RC_SUCCESS; ++y) {
    status = ReadRow(source.get(), row.get(), y, nullptr, nullptr);
    if (status == RC_SUCCESS) status = WriteRow(target.get(), row.get(), y, nullptr, nullptr);
  }
  return status;
}

// The one-bitmap form: the bitmap combined with itself upside down (a record
// that shares its pixels with the other row order), the result written back
// inside the bitmap's region. The list takes the bitmap first, so a null
// bitmap or a wrong record size is the list's refusal (-814, -789).
int32_t AddMirrored(BitmapRecord *b, const ArgValues &a, const uint32_t *factors, bool weighted) {
  BitmapRecord mirrored = b ? *b : BitmapRecord{};
  mirrored.Orientation = mirrored.Orientation == ORIENT_TOP_FIRST ? ORIENT_BOTTOM_FIRST : ORIENT_TOP_FIRST;
  List list;
  int32_t status = MakeList({b, &mirrored}, list);
  if (status != RC_SUCCESS) return status;
  BitmapRecord result{};
  const auto mode = static_cast<uint32_t>(a.Enum("mode"));
  BitmapList given = a.Pointer("list", list.list);
  status = weighted
               ? Q_AddWeightedBitmaps(&result, BITMAP_RECORD_SIZE, given, a.Pointer("factors", factors), mode)
               : Q_AddBitmaps(&result, BITMAP_RECORD_SIZE, given, mode);
  if (status == RC_SUCCESS) status = CopyInsideRegion(&result, b);
  FreeBitmap(&result);
  return status;
}

std::vector<uint32_t> Factors(const ArgValues &a, size_t count) {
  const std::vector<int32_t> &given = a.List("factors");
  if (given.size() != count)
    throw imgtool::UsageError{"--factors: " + std::to_string(given.size()) + " factors for " +
                              std::to_string(count) + " inputs (one per input, in order)"};
  return std::vector<uint32_t>(given.begin(), given.end());
}

int32_t AddFiles(const std::vector<BitmapRecord *> &inputs, imgtool::OutputImages &outputs,
                 const ArgValues &a, bool weighted) {
  const std::vector<uint32_t> factors = weighted ? Factors(a, inputs.size()) : std::vector<uint32_t>{};
  List list;
  const int32_t status = MakeList(inputs, list);
  if (status != RC_SUCCESS) return status;
  BitmapRecord *result = outputs.Add("");
  const auto mode = static_cast<uint32_t>(a.Enum("mode"));
  return weighted ? Q_AddWeightedBitmaps(result, BITMAP_RECORD_SIZE, list.list, factors.data(), mode)
                  : Q_AddBitmaps(result, BITMAP_RECORD_SIZE, list.list, mode);
}

constexpr int32_t kMostInputs = 64;

const std::vector<imgtool::EnumValue> kAddModes = {
    {"average", ADD_AVERAGE, "the mean of the samples, truncated"},
    {"sum", ADD_SUM, "the sum of the samples, saturated"}};
const std::vector<imgtool::EnumValue> kWeightedModes = {
    {"average", ADD_AVERAGE, "the mean of the samples, truncated (factors unused)"},
    {"sum", ADD_SUM, "the sum of the samples, saturated (factors unused)"},
    {"weighted-average", ADD_WEIGHTED_AVERAGE,
     "sum of factor x sample / sum of factors, rounded half to even; factors summing to 0 are refused"},
    {"weighted-sum", ADD_WEIGHTED_SUM, "sum of sample x factor / 100 (each term truncated), saturated"}};

const char *const kAddHelp =
    "The result starts as a copy of the first input; the area common to all inputs (limited to the bounds of "
    "the first input's region) is combined sample by sample, the rest keeps the first input's pixels. Inputs "
    "may differ in kind, size and row order: a list of gray bitmaps is combined in one sample a pixel, a "
    "list of 48/64-bit bitmaps in 16-bit samples, anything else in 8-bit blue, green, red. With one IN the "
    "input is combined with itself upside down and written back inside the region.";

const imgtool::Registrar kRegistrar{{
    {.name = "sample-target",
     .exportName = "Q_SampleTargetBitmap",
     .family = kSampling,
     .summary = "Correct colours by a tone curve that sends a sample colour to a target colour",
     .help = "Builds a curve per channel (or one from the gray values on gray bitmaps) through the sample "
             "and target values and applies it to the pixels inside the region, or to the palette of "
             "palette and 8-bit gray bitmaps. Reports the curve points it used, one line per curve "
             "(`red: 128 -> 160`, on the colours' 8-bit scale).",
     .args = {{.name = "sample",
               .type = ArgType::Colour,
               .unit = "colour value",
               .defaultValue = "#808080",
               .help = std::string("the sampled colour: ") + kColourHelp},
              {.name = "target",
               .type = ArgType::Colour,
               .unit = "colour value",
               .defaultValue = "#A07050",
               .help = std::string("the colour the sample becomes: ") + kColourHelp},
              {.name = "channel",
               .type = ArgType::Enum,
               .unit = "channel",
               .defaultValue = "all",
               .help = "the channel corrected",
               .values = {{"red", SAMPLE_CHAN_RED, "red only"},
                          {"green", SAMPLE_CHAN_GREEN, "green only"},
                          {"blue", SAMPLE_CHAN_BLUE, "blue only"},
                          {"all", SAMPLE_CHAN_ALL, "a curve for each of red, green and blue"}}},
              {.name = "method",
               .type = ArgType::Enum,
               .unit = "curve shape",
               .defaultValue = "quadratic",
               .help = "the shape of the curve",
               .values = {{"linear", SAMPLE_METHOD_LINEAR, "a line through (sample, target) and (max, max)"},
                          {"quadratic", SAMPLE_METHOD_QUADRATIC,
                           "identity plus a parabola through (0, 0), (sample, target) and (max, max)"},
                          {"proportional", SAMPLE_METHOD_PROPORTIONAL,
                           "every level scaled by target / sample"}}}},
     .kinds = imgtool::kAnyKind,
     .call = SampleTarget,
     .flagsWord = false,
     .refusals = {.signedData = RC_SIGNED_DATA_NOT_SUPPORTED}},
    {.name = "add",
     .exportName = "Q_AddBitmaps",
     .family = kAdding,
     .summary = "Average or sum several images sample by sample",
     .help = kAddHelp,
     .args = {{.name = "mode",
               .type = ArgType::Enum,
               .unit = "combination",
               .defaultValue = "average",
               .help = "how the samples are combined",
               .values = kAddModes}},
     .kinds = imgtool::kAnyKind,
     .call = [](BitmapRecord *b, const ArgValues &a,
                std::ostream &) { return AddMirrored(b, a, nullptr, false); },
     .files = [](const std::vector<BitmapRecord *> &inputs, imgtool::OutputImages &outputs,
                 const ArgValues &a, std::ostream &) { return AddFiles(inputs, outputs, a, false); },
     .minInputs = 1,
     .maxInputs = kMostInputs,
     // A converter of a bitmap but the last failing is overlooked: kept.
     .failureStatuses = {RC_SUCCESS},
     .flagsWord = false,
     .pointers = {{"list", RC_NULL_OPTIONS}},
     // The one-bitmap form lists the bitmap: the list refuses a null one; a
     // 32-bit gray entry has no row converter.
     .refusals = {.nullBitmap = RC_NULL_OPTIONS, .gray32 = RC_UNSUPPORTED_BITMAP}},
    {.name = "add-weighted",
     .exportName = "Q_AddWeightedBitmaps",
     .family = kAdding,
     .summary = "Combine several images with one weight each: weighted average or weighted sum",
     .help = std::string(kAddHelp) + " --factors takes one weight per input, in order (with one IN: the "
                                     "first two weigh the input and its mirror image).",
     .args = {{.name = "mode",
               .type = ArgType::Enum,
               .unit = "combination",
               .defaultValue = "weighted-average",
               .help = "how the samples are combined",
               .values = kWeightedModes},
              {.name = "factors",
               .type = ArgType::IntList,
               .unit = "weight (weighted sum: percent)",
               .min = R::kAddFactor.min,
               .max = R::kAddFactor.max,
               .defaultValue = "1,3",
               .help = "one weight per input, in order",
               .minCount = 1,
               .maxCount = kMostInputs,
               // Any unsigned weight is taken; a single 0 weighs both halves
               // of the one-bitmap form 0, a sum the average refuses.
               .outsideStatus = imgtool::kAccepted,
               .endStatuses = {RC_INVALID_PARAMETER, RC_SUCCESS}}},
     .kinds = imgtool::kAnyKind,
     .call =
         [](BitmapRecord *b, const ArgValues &a, std::ostream &) {
           const std::vector<int32_t> &given = a.List("factors");
           if (given.empty()) return RC_INVALID_PARAMETER;
           const uint32_t factors[2] = {static_cast<uint32_t>(given[0]),
                                        static_cast<uint32_t>(given.size() > 1 ? given[1] : given[0])};
           return AddMirrored(b, a, factors, true);
         },
     .files = [](const std::vector<BitmapRecord *> &inputs, imgtool::OutputImages &outputs,
                 const ArgValues &a, std::ostream &) { return AddFiles(inputs, outputs, a, true); },
     .minInputs = 1,
     .maxInputs = kMostInputs,
     // A converter of a bitmap but the last failing is overlooked: kept.
     .failureStatuses = {RC_SUCCESS},
     .flagsWord = false,
     // Null factors make the weighted modes plain ones.
     .pointers = {{"list", RC_NULL_OPTIONS}, {"factors", RC_SUCCESS}},
     .refusals = {.nullBitmap = RC_NULL_OPTIONS, .gray32 = RC_UNSUPPORTED_BITMAP}},
}};

}  // namespace
