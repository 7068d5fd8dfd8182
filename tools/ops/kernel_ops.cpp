// Kernel-level operations: available before any imgcolor export, and an
// example of how a family registers its operations.
#include "registry.h"

namespace {

const imgtool::Family kKernel{"Kernel services", "sibling/imgkernel/convert_pixels.cpp", "conversions.md"};

int32_t Fill(BitmapRecord *bitmap, const imgtool::ArgValues &args, std::ostream &) {
  return FillBitmap(bitmap, args.Colour("color"));
}

int32_t CountColors(BitmapRecord *bitmap, const imgtool::ArgValues &args, std::ostream &out) {
  uint32_t count = 0;
  const int32_t status = CountBitmapColors(bitmap, args.Pointer("count", &count), args.Flags());
  if (status == RC_SUCCESS) out << "colors: " << count << "\n";
  return status;
}

const imgtool::Registrar kRegistrar{{
    {.name = "fill",
     .exportName = "FillBitmap",
     .family = kKernel,
     .summary = "Set every pixel inside the region to one colour",
     .help = "Sets every pixel of the bitmap, or of the region when one is given, to the colour.",
     .args = {{
         .name = "color",
         .type = imgtool::ArgType::Colour,
         .unit = "colour value",
         .defaultValue = "#FFFFFF",
         .help = "the colour: #RRGGBB, or the family's colour value (red in bits 0-7, green 8-15, "
                 "blue 16-23; bit 26 marks a gray level in bits 8-15)",
     }},
     .kinds = imgtool::kAnyKind,
     .call = Fill,
     .flagsWord = false,
     .refusals = {.coloursUsed = imgtool::kAccepted},
     .rowLocal = true},
    {
        .name = "count-colors",
        .exportName = "CountBitmapColors",
        .family = kKernel,
        .summary = "Print the number of distinct colours",
        .help = "Counts the distinct colours of the whole bitmap and prints them as 'colors: N'. "
                "Writes no image.",
        .args = {},
        .kinds = imgtool::kAnyKind,
        .writesImage = false,
        .call = CountColors,
        .pointers = {{"count", RC_NULL_OPTIONS}},
        .refusals = {.coloursUsed = imgtool::kAccepted},
    },
}};

}  // namespace
