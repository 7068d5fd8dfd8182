// Dynamic binary, red-eye removal and segmentation.
#include <cstdint>
#include <utility>

#include "imgcolor.h"
#include "ranges.h"
#include "registry.h"

namespace {

using imgtool::ArgSpec;
using imgtool::ArgType;
namespace R = img::ranges;

const imgtool::Family kBinary{"Dynamic binary", "Common/BWConv.cpp", "binary.md"};
const imgtool::Family kRedEye{"Red-eye removal", "Common/RedEye.cpp", "binary.md"};
const imgtool::Family kSegment{"Segmentation", "Common/Segment.cpp", "binary.md"};

int32_t DynamicBinary(BitmapRecord *bitmap, const imgtool::ArgValues &args, std::ostream &) {
  return Q_DynamicBinaryBitmap(bitmap, args.UInt("dimension"), args.UInt("contrast"), args.Flags());
}

int32_t RemoveRedeye(BitmapRecord *bitmap, const imgtool::ArgValues &args, std::ostream &) {
  return Q_RemoveRedeyeBitmap(bitmap, args.Colour("color"), args.Int("threshold"), args.Int("lightness"),
                              args.Flags());
}

int32_t Segment(BitmapRecord *bitmap, const imgtool::ArgValues &args, std::ostream &) {
  return Q_SegmentBitmap(bitmap, args.UInt("k"), args.UInt("min-size"), nullptr, 0, args.Flags());
}

// The segmented image to OUT and the segment numbers (16-bit gray) to
// OUT-labels; the number of segments on the report.
int32_t SegmentFiles(const std::vector<BitmapRecord *> &inputs, imgtool::OutputImages &outputs,
                     const imgtool::ArgValues &args, std::ostream &out) {
  BitmapRecord *labels = outputs.Add("labels");
  int32_t status =
      Q_SegmentBitmap(inputs[0], args.UInt("k"), args.UInt("min-size"), labels, BITMAP_RECORD_SIZE, 0);
  if (status != RC_SUCCESS) return status;
  uint32_t segments = 0;
  for (int32_t y = 0; y < labels->Height; ++y) {
    const auto *row = static_cast<const uint16_t *>(static_cast<const void *>(
        static_cast<const uint8_t *>(labels->Pixels) + static_cast<size_t>(y) * labels->BytesPerLine));
    for (int32_t x = 0; x < labels->Width; ++x)
      if (row[x] + 1u > segments) segments = row[x] + 1u;
  }
  out << "segments: " << segments << "\n";
  return CopyBitmap(outputs.Add(""), inputs[0], BITMAP_RECORD_SIZE);
}

// The contrast the export takes on a bitmap: 12-bit gray on its own scale,
// 16-bit working samples (16-bit gray, 48 and 64 bits) up to 65535, the rest
// (8-bit working samples) up to 255.
std::pair<int64_t, int64_t> ContrastBounds(const BitmapRecord &b) {
  if (b.ColorOrder == ORDER_GRAY && b.BitsPerPixel == 12) return {0, R::kBinaryContrast12.max};
  if ((b.ColorOrder == ORDER_GRAY && b.BitsPerPixel == 16) || b.BitsPerPixel >= 48)
    return {0, R::kBinaryContrast16.max};
  return {0, R::kBinaryContrast8.max};
}

const imgtool::Registrar kRegistrar{{
    {.name = "dynamic-binary",
     .exportName = "Q_DynamicBinaryBitmap",
     .family = kBinary,
     .summary =
         "Black and white by a local threshold: the midpoint of the window's darkest and brightest sample",
     .help =
         "Each pixel is compared with the midpoint of the darkest and brightest gray sample of the square "
         "window around it (edges repeated; the window reaches outside the region). A window whose "
         "range is not above the contrast is flat: its pixel turns white when the window's brightest "
         "sample is at least half scale. Dimension 1 makes the bitmap white. Colour bitmaps come back "
         "black and white in all three samples; the contrast of 12-bit gray is on the 12-bit scale.",
     .args = {{.name = "dimension",
               .type = ArgType::UInt,
               .unit = "pixels",
               .min = R::kBinaryDimension.min,
               .max = R::kBinaryDimension.max,
               .defaultValue = "15",
               .help = "side of the square window"},
              {.name = "contrast",
               .type = ArgType::UInt,
               .unit = "sample value",
               .min = R::kBinaryContrast16.min,
               .max = R::kBinaryContrast16.max,
               .defaultValue = "15",
               .help = "smallest range that counts as an edge (8-bit samples at most 255, 12-bit gray 4095)",
               .boundsOn = ContrastBounds}},
     .kinds = imgtool::kAnyKind,
     .call = DynamicBinary,
     .refusals = {.signedData = RC_SIGNED_DATA_NOT_SUPPORTED}},
    {.name = "remove-redeye",
     .exportName = "Q_RemoveRedeyeBitmap",
     .family = kRedEye,
     .summary = "Recolour red pixels: a* and b* of a colour, the pixel's own lightness scaled",
     .help =
         "Inside the region, every pixel whose CIE L*a*b* a* is at least threshold - 128 takes the a* and "
         "b* of the colour and keeps its L* times lightness / 100. Every pixel of the region makes the "
         "byte Lab round trip, so unmatched pixels may move by a rounding step. Gray bitmaps are refused "
         "(-12).",
     .args = {{.name = "color",
               .type = ArgType::Colour,
               .unit = "colour value",
               .defaultValue = "#303030",
               .help = "replacement colour (its a* and b* are used): #RRGGBB or red in bits 0-7, green 8-15, "
                       "blue 16-23"},
              {.name = "threshold",
               .type = ArgType::Int,
               .unit = "a* + 128",
               .min = R::kRedEyeThreshold.min,
               .max = R::kRedEyeThreshold.max,
               .defaultValue = "150",
               .help = "pixels with a* at least this less 128 are recoloured (0: all)",
               .outsideStatus = imgtool::kAccepted},  // not range-checked: kept
              {.name = "lightness",
               .type = ArgType::Int,
               .unit = "percent",
               .min = R::kRedEyeLightness.min,
               .max = R::kRedEyeLightness.max,
               .defaultValue = "70",
               .help = "the recoloured pixels' L* is scaled by this",
               .outsideStatus = imgtool::kAccepted}},  // not range-checked: kept
     .kinds = imgtool::kPalette | imgtool::kAnyColor,
     .call = RemoveRedeye,
     .refusals = {.zeroedRecord = RC_NO_BITMAP, .signedData = RC_SIGNED_DATA_NOT_SUPPORTED},
     .keptOnRefusal = {.turnedTopFirst = true}},
    {.name = "segment",
     .exportName = "Q_SegmentBitmap",
     .family = kSegment,
     .summary = "Graph-based segmentation: each pixel takes the mean colour of its segment",
     .help = "Pixels inside the region are joined along their 8 neighbours by increasing colour distance "
             "while the distance is at most each segment's internal difference plus k / its size; segments "
             "smaller than the minimum are then merged across their lightest edge. Each pixel takes its "
             "segment's mean colour. The tool also writes the segment numbers as a 16-bit gray image to "
             "OUT-labels and reports the number of segments.",
     .args = {{.name = "k",
               .type = ArgType::UInt,
               .unit = "colour distance",
               .min = R::kSegmentThreshold.min,
               .max = R::kSegmentThreshold.max,
               .defaultValue = "300",
               .help = "larger values give larger segments"},
              {.name = "min-size",
               .type = ArgType::UInt,
               .unit = "pixels",
               .min = R::kSegmentMinimum.min,
               .max = R::kSegmentMinimum.max,
               .defaultValue = "4",
               .help = "smaller segments merge with a neighbour"}},
     .kinds = imgtool::kAnyKind,
     .call = Segment,
     .files = SegmentFiles,
     .minInputs = 1,
     .maxInputs = 1,
     .refusals = {.signedData = RC_SIGNED_DATA_NOT_SUPPORTED}},
}};

}  // namespace
