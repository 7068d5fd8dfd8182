// Desaturation, duotone and multitone.
#include "imgcolor.h"
#include "ranges.h"
#include "registry.h"

namespace {

using imgtool::ArgSpec;
using imgtool::ArgType;
namespace R = img::ranges;

const imgtool::Family kDesaturation{"Desaturation", "Common/deSat.cpp", "tone.md"};
const imgtool::Family kTones{"Duotone and multitone", "Common/gsdt.cpp, Common/gsmt.cpp", "tone.md"};

const char *const kColourHelp =
    "#RRGGBB, or the family's colour value (red in bits 0-7, green 8-15, blue 16-23; bit 26 (0x4000000) "
    "marks a gray level in bits 8-15)";

ArgSpec ModeArg() {
  return ArgSpec{
      .name = "mode",
      .type = ArgType::Enum,
      .unit = "table use",
      .defaultValue = "blend",
      .help = "how the tone table is used",
      .values = {{"blend", 0,
                  "rows: the ramp runs from black through the tint to white; palettes: the tint is "
                  "multiplied into the existing palette"},
                 {"table", 1, "every gray level takes the table's colour as it stands (level 0 = the tint)"}},
  };
}

ArgSpec ColourArg(const char *name, const char *defaultValue, const char *what) {
  return ArgSpec{.name = name,
                 .type = ArgType::Colour,
                 .unit = "colour value",
                 .defaultValue = defaultValue,
                 .help = std::string(what) + ": " + kColourHelp};
}

int32_t Desaturate(BitmapRecord *bitmap, const imgtool::ArgValues &args, std::ostream &) {
  return Q_DesaturateBitmap(bitmap, args.Flags());
}

int32_t Duotone(BitmapRecord *bitmap, const imgtool::ArgValues &args, std::ostream &) {
  return Q_GrayScaleToDuotone(bitmap, nullptr, args.Colour("color"),
                              static_cast<uint32_t>(args.Enum("mode")));
}

int32_t Multitone(BitmapRecord *bitmap, const imgtool::ArgValues &args, std::ostream &) {
  const uint32_t colors[4] = {args.Colour("color1"), args.Colour("color2"), args.Colour("color3"),
                              args.Colour("color4")};
  return Q_GrayScaleToMultitone(bitmap, args.UInt("tones") - 1, 0, args.Pointer("colors", colors), nullptr,
                                static_cast<uint32_t>(args.Enum("mode")));
}

const imgtool::Registrar kRegistrar{{
    {.name = "desaturate",
     .exportName = "Q_DesaturateBitmap",
     .family = kDesaturation,
     .summary = "Remove all colour: each pixel becomes the mean of its largest and smallest sample",
     .help = "Replaces blue, green and red of every pixel (or palette entry) with (max + min) / 2, the "
             "lightness of the HSL model. The bitmap keeps its depth; a fourth sample is left alone. "
             "Only pixels inside the region change. Gray bitmaps are refused (-12).",
     .args = {},
     .kinds = imgtool::kPalette | imgtool::kAnyColor,
     .call = Desaturate,
     .failureStatuses = {RC_SUCCESS},  // a missing row buffer is a quiet success: kept,
     .refusals = {.signedData = RC_SIGNED_DATA_NOT_SUPPORTED},
     .rowLocal = true},
    {.name = "duotone",
     .exportName = "Q_GrayScaleToDuotone",
     .family = kTones,
     .summary = "Tint the gray content with a ramp from one colour to white",
     .help = "Every gray level is replaced by a colour from a 256-entry ramp that runs from the colour to "
             "white. In colour bitmaps only gray pixels (blue = green = red) change. Palette bitmaps get a "
             "tinted palette; 1-bit bitmaps get black and the colour. 12- and 16-bit bitmaps come back "
             "with 48 bits per pixel, 8-bit gray ones as 8-bit palette bitmaps.",
     .args = {ColourArg("color", "#FF0000", "the tint"), ModeArg()},
     .kinds = imgtool::kAnyKind,
     .call = Duotone,
     .flagsWord = false,
     .refusals = {.signedData = RC_SIGNED_DATA_NOT_SUPPORTED}},
    {.name = "multitone",
     .exportName = "Q_GrayScaleToMultitone",
     .family = kTones,
     .summary = "Tint the gray content with the product of up to four colour ramps",
     .help = "Builds a ramp from each of the first `tones` colours to white, multiplies them together and "
             "tints the gray content with the product as the duotone operation does. With four tones the "
             "product is always used as it stands, whatever the mode. 1-bit bitmaps take the first two "
             "colours as their palette.",
     .args = {{.name = "tones",
               .type = ArgType::UInt,
               .unit = "colours",
               .min = R::kMultitoneTones.min + 1,  // the export takes the count less one
               .max = R::kMultitoneTones.max + 1,
               .defaultValue = "2",
               .help = "number of colours used"},
              ColourArg("color1", "#FF0000", "first tone"),
              ColourArg("color2", "#0000FF", "second tone"),
              ColourArg("color3", "#00FF00", "third tone"),
              ColourArg("color4", "#FFFF00", "fourth tone"),
              ModeArg()},
     .kinds = imgtool::kAnyKind,
     .call = Multitone,
     .flagsWord = false,
     .pointers = {{"colors"}},
     .refusals = {.signedData = RC_SIGNED_DATA_NOT_SUPPORTED}},
}};

}  // namespace
