// Colour planes, channel mix and line profile.
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "imgcolor.h"
#include "ranges.h"
#include "registry.h"

namespace {

using imgtool::ArgSpec;
using imgtool::ArgType;
using imgtool::ArgValues;
namespace R = img::ranges;

const imgtool::Family kPlanes{"Colour planes", "Common/PLANES.cpp", "planes.md"};
const imgtool::Family kMix{"Channel mix", "Common/chmix.cpp", "planes.md"};
const imgtool::Family kProfile{"Line profile", "Common/LineProf.cpp", "planes.md"};

ArgSpec ModelArg() {
  return ArgSpec{
      .name = "model",
      .type = ArgType::Enum,
      .unit = "colour model",
      .defaultValue = "rgb",
      .help = "the colour model of the planes",
      .values = {{"rgb", COLORSEP_RGB, "blue, green, red (the order of the family's rows)"},
                 {"cmyk", COLORSEP_MODEL2, "cyan, magenta, yellow, black: four planes"},
                 {"hsv", COLORSEP_MODEL3, "hue, saturation, value"},
                 {"hls", COLORSEP_MODEL4, "hue, lightness, saturation"},
                 {"cmy", COLORSEP_MODEL6, "cyan, magenta, yellow"},
                 {"yuv", COLORSEP_YUV, "Y, U + 112 and V + 138 rescaled to the sample range"},
                 {"xyz", COLORSEP_XYZ, "X, Y, Z"},
                 {"lab", COLORSEP_LAB, "L rescaled to the sample range, a and b offset by half of it"},
                 {"ycrcb", COLORSEP_YCRCB, "Y, Cr and Cb offset by half the sample range"},
                 {"spherical", COLORSEP_SPHERICAL, "length and the two angles rescaled to the sample range"}},
  };
}

// Kept: the merge's colour-space course does not look at its rows' status,
// so a cancel during it still ends in success (the one-bitmap forms of both
// exports merge last).
bool SpaceMergeSwallowsCancel(const BitmapRecord &, const ArgValues &args) {
  const int32_t m = args.Enum("model");
  return m == COLORSEP_YUV || m == COLORSEP_XYZ || m == COLORSEP_LAB || m == COLORSEP_YCRCB ||
         m == COLORSEP_SPHERICAL;
}

int32_t PlaneCount(const ArgValues &args) { return args.Enum("model") == COLORSEP_MODEL2 ? 4 : 3; }

// The one-bitmap form: separate, merge the planes back and put the result in
// place of the bitmap (its record size kept).
int32_t RoundTrip(BitmapRecord *bitmap, const ArgValues &args, std::ostream &) {
  const uint32_t model = static_cast<uint32_t>(args.Enum("model"));
  BitmapRecord records[4] = {};
  BitmapRecord *planes[4] = {&records[0], &records[1], &records[2], &records[3]};
  int32_t status = Q_ColorSeparateBitmap(bitmap, planes, BITMAP_RECORD_SIZE, model);
  BitmapRecord merged{};
  if (status == RC_SUCCESS) status = Q_ColorMergeBitmap(&merged, planes, bitmap->StructSize, model);
  for (BitmapRecord &r : records)
    if (r.Flags & BITMAP_ALLOCATED) FreeBitmap(&r);
  if (status != RC_SUCCESS) {
    if (merged.Flags & BITMAP_ALLOCATED) FreeBitmap(&merged);
    return status;
  }
  FreeBitmap(bitmap);
  std::memcpy(bitmap, &merged, bitmap->StructSize);
  return status;
}

int32_t SeparateFiles(const std::vector<BitmapRecord *> &inputs, imgtool::OutputImages &outputs,
                      const ArgValues &args, std::ostream &) {
  BitmapRecord *planes[4] = {};
  for (int32_t i = 0; i < PlaneCount(args); ++i) planes[i] = outputs.Add(std::to_string(i));
  return Q_ColorSeparateBitmap(inputs[0], planes, BITMAP_RECORD_SIZE,
                               static_cast<uint32_t>(args.Enum("model")));
}

int32_t MergeFiles(const std::vector<BitmapRecord *> &inputs, imgtool::OutputImages &outputs,
                   const ArgValues &args, std::ostream &out) {
  if (static_cast<int32_t>(inputs.size()) != PlaneCount(args)) {
    out << "planes: " << inputs.size() << " given, the model takes " << PlaneCount(args) << "\n";
    return RC_INVALID_PARAMETER;
  }
  BitmapRecord *planes[4] = {};
  for (size_t i = 0; i < inputs.size(); ++i) planes[i] = inputs[i];
  return Q_ColorMergeBitmap(outputs.Add(""), planes, BITMAP_RECORD_SIZE,
                            static_cast<uint32_t>(args.Enum("model")));
}

ArgSpec MixArg(const char *name, const char *def) {
  return {.name = name,
          .type = ArgType::IntList,
          .unit = "percent",
          .min = R::kMixFactor.min,
          .max = R::kMixFactor.max,
          .defaultValue = def,
          .help = std::string("the ") + name +
                  " output: weights of red, green and blue in percent (100 = 1.0), then the constant in "
                  "percent of full scale (optional, 0)",
          .minCount = 3,
          .maxCount = 4};
}

ChannelMixFactors Factors(const std::vector<int32_t> &v) {
  return ChannelMixFactors{0, v[0], v[1], v[2], v.size() > 3 ? v[3] : 0};
}

int32_t Mix(BitmapRecord *bitmap, const ArgValues &args, std::ostream &) {
  for (const char *name : {"red", "green", "blue"})
    if (args.List(name).size() < 3 || args.List(name).size() > 4) return RC_INVALID_PARAMETER;
  const ChannelMixFactors red = Factors(args.List("red")), green = Factors(args.List("green")),
                          blue = Factors(args.List("blue"));
  return Q_ChannelMix(bitmap, args.Pointer("red", &red), args.Pointer("green", &green),
                      args.Pointer("blue", &blue), args.Flags());
}

// A column (x) or row coordinate: the export takes end points inside the image.
ArgSpec PointArg(const char *name, const char *def, const char *help) {
  const bool column = name[0] == 'x';
  return {.name = name,
          .type = ArgType::Int,
          .unit = "pixels",
          .min = R::kLinePoint.min,
          .max = R::kLinePoint.max,
          .defaultValue = def,
          .help = help,
          .boundsOn = [column](const BitmapRecord &b) {
            return std::pair<int64_t, int64_t>{0, (column ? b.Width : b.Height) - 1};
          }};
}

// Prints the profile as comma-separated lines: a header, then one line a
// point inside the region, in the order of the walk.
int32_t Profile(BitmapRecord *bitmap, const ArgValues &args, std::ostream &out) {
  const int32_t x1 = args.Int("x1"), y1 = args.Int("y1"), x2 = args.Int("x2"), y2 = args.Int("y2");
  // The first call asks for the number of points; it succeeds (and has
  // reported its progress) when no point lies inside the region, and is then
  // the only one.
  uint32_t capacity = 0;
  std::vector<uint32_t> values(3);
  int32_t status = Q_LineProfile(bitmap, x1, y1, x2, y2, args.Pointer("values", values.data()),
                                 args.Pointer("capacity", &capacity), args.Flags());
  if (status == RC_INVALID_PARAMETER) {
    values.resize(3 * static_cast<size_t>(capacity) + 3);
    status = Q_LineProfile(bitmap, x1, y1, x2, y2, args.Pointer("values", values.data()),
                           args.Pointer("capacity", &capacity), args.Flags());
  }
  if (status != RC_SUCCESS) return status;
  const bool gray = bitmap->ColorOrder == ORDER_GRAY;
  out << (gray ? "point,gray\n" : "point,red,green,blue\n");
  for (uint32_t i = 0; i < capacity; ++i) {
    out << i;
    for (uint32_t k = 0; k < (gray ? 1u : 3u); ++k) out << ',' << values[(gray ? 1 : 3) * i + k];
    out << '\n';
  }
  return RC_SUCCESS;
}

const imgtool::Registrar kRegistrar{{
    {
        .name = "separate",
        .exportName = "Q_ColorSeparateBitmap",
        .family = kPlanes,
        .summary = "Split a bitmap into one gray plane per component of a colour model",
        .help = "Writes each plane to OUT's name with -0, -1, -2 (and -3 for cmyk) before the extension: "
                "8-bit planes for sources of up to 32 bits a pixel, 16-bit gray planes for 48 and 64 bits. "
                "The region is not looked at.",
        .args = {ModelArg()},
        .kinds = imgtool::kAnyKind,
        .call = RoundTrip,
        .files = SeparateFiles,
        .monotonicProgress = false,  // the round trip reports 0..100 twice
        .flagsWord = false,          // the last word is the model
        // The plane array itself is not tested for null (only its entries): not probed.
        .refusals = {.zeroedRecord = RC_NO_BITMAP, .signedData = RC_SIGNED_DATA_NOT_SUPPORTED},
        .keptOnRefusal = {.significantHighBit = true},
        .swallowsCancel = SpaceMergeSwallowsCancel,
    },
    {
        .name = "merge",
        .exportName = "Q_ColorMergeBitmap",
        .family = kPlanes,
        .summary = "Build a colour bitmap from three or four planes of a colour model",
        .help =
            "Reads the planes in order (four for cmyk) and writes one 24-bit colour image (48-bit when every "
            "plane is 16-bit gray) of the smallest width and height among them. Colour planes are read as "
            "their gray level.",
        .args = {ModelArg()},
        .kinds = imgtool::kAnyKind,
        .call = RoundTrip,
        .files = MergeFiles,
        .minInputs = 3,
        .maxInputs = 4,
        .monotonicProgress = false,  // the round trip reports 0..100 twice
        .flagsWord = false,          // the last word is the model
        // The one-bitmap form separates first.
        .refusals = {.zeroedRecord = RC_NO_BITMAP, .signedData = RC_SIGNED_DATA_NOT_SUPPORTED},
        .keptOnRefusal = {.significantHighBit = true},
        .swallowsCancel = SpaceMergeSwallowsCancel,
    },
    {
        .name = "channel-mix",
        .exportName = "Q_ChannelMix",
        .family = kMix,
        .summary = "Replace red, green and blue by weighted sums of the three plus a constant",
        .help =
            "Each output channel is red x R% + green x G% + blue x B% + C% of full scale, clamped. Palette "
            "bitmaps change their palette. Gray bitmaps are refused (-12).",
        .args = {MixArg("red", "80,15,5,0"), MixArg("green", "10,80,10,0"), MixArg("blue", "5,15,80,0")},
        .kinds = imgtool::kPalette | imgtool::kAnyColor,
        .call = Mix,
        .pointers = {{"red"}, {"green"}, {"blue"}},
        // Tests the pointers together with the bitmap, after the kind; takes
        // 32-bit gray for gray.
        .refusals = {.nullBitmap = RC_INVALID_PARAMETER,
                     .gray32 = RC_UNSUPPORTED_BITMAP,
                     .signedData = RC_SIGNED_DATA_NOT_SUPPORTED},
    },
    {
        .name = "line-profile",
        .exportName = "Q_LineProfile",
        .family = kProfile,
        .summary = "Print the samples along a line",
        .help = "Prints one comma-separated line per point of the line from x1,y1 to x2,y2 (both included, "
                "Bresenham's walk) that lies inside the region: the point's number, then its gray level, or "
                "red, green and blue. The end points must lie inside the image.",
        .args = {PointArg("x1", "0", "first end point, column"), PointArg("y1", "0", "first end point, row"),
                 PointArg("x2", "8", "second end point, column"),
                 PointArg("y2", "6", "second end point, row")},
        .kinds = imgtool::kAnyKind,
        .writesImage = false,
        .call = Profile,
        .pointers = {{"values", RC_NULL_OPTIONS}, {"capacity", RC_NULL_OPTIONS}},
        .refusals = {.signedData = RC_SIGNED_DATA_NOT_SUPPORTED},
    },
}};

}  // namespace
