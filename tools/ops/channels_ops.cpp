// Coloured gray, colour balance, colour swap, equalisation, local
// equalisation and colour intensity balance.
#include <algorithm>
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

const imgtool::Family kColrN{"Coloured gray, colour balance and colour swap", "Common/Colr_n.cpp",
                             "channels.md"};
const imgtool::Family kEqualize{"Histogram equalisation", "Common/Colr_n_eq.cpp", "channels.md"};
const imgtool::Family kLocalEq{"Local histogram equalisation", "Common/LocalEq.cpp", "channels.md"};
const imgtool::Family kIntensityBalance{"Colour intensity balance", "Common/ClrBal.cpp", "channels.md"};

ArgSpec IntArg(const char *name, const char *unit, const img::Range &range, const char *defaultValue,
               const char *help) {
  return ArgSpec{.name = name,
                 .type = ArgType::Int,
                 .unit = unit,
                 .min = range.min,
                 .max = range.max,
                 .defaultValue = defaultValue,
                 .help = help};
}

// A gray share: 1000 with the other two at their defaults sums above 1000,
// which is refused.
ArgSpec WeightArg(const char *name, const char *defaultValue, const char *help) {
  ArgSpec a = IntArg(name, "thousandths", R::kGrayShare, defaultValue, help);
  a.endStatuses = {RC_SUCCESS, RC_INVALID_PARAMETER};
  return a;
}

ArgSpec SharesArg(const char *name, const char *defaultValue) {
  return ArgSpec{.name = name,
                 .type = ArgType::IntList,
                 .unit = "percent",
                 .min = R::kBalanceShare.min,
                 .max = R::kBalanceShare.max,
                 .defaultValue = defaultValue,
                 .help = std::string("shares of the ") + name +
                         " input channel in the output red, green and blue (percent; 100 keeps it)",
                 .minCount = 3,
                 .maxCount = 3,
                 // Only a negative share is refused; larger ones saturate.
                 .outsideStatus = imgtool::kAccepted};
}

int32_t ColoredGray(BitmapRecord *b, const ArgValues &a, std::ostream &) {
  return Q_ConvertToColoredGray(b, a.Int("red-weight"), a.Int("green-weight"), a.Int("blue-weight"),
                                a.Int("red-factor"), a.Int("green-factor"), a.Int("blue-factor"), a.Flags());
}

ColorBalanceFactors Shares(const std::vector<int32_t> &list) {
  return ColorBalanceFactors{COLOR_BALANCE_FACTORS_SIZE, list[0] / 100.0, list[1] / 100.0, list[2] / 100.0};
}

int32_t Balance(BitmapRecord *b, const ArgValues &a, std::ostream &) {
  for (const char *name : {"red", "green", "blue"})
    if (a.List(name).size() != 3) return RC_INVALID_PARAMETER;
  const ColorBalanceFactors red = Shares(a.List("red")), green = Shares(a.List("green")),
                            blue = Shares(a.List("blue"));
  return Q_BalanceColors(b, a.Pointer("red", &red), a.Pointer("green", &green), a.Pointer("blue", &blue),
                         a.Flags());
}

int32_t Swap(BitmapRecord *b, const ArgValues &a, std::ostream &) {
  return Q_SwapColors(b, static_cast<uint32_t>(a.Enum("swap")));
}

int32_t Equalize(BitmapRecord *b, const ArgValues &a, std::ostream &) {
  return Q_HistoEqualizeBitmap(b, static_cast<int32_t>(a.Enum("mode")));
}

// Tiles larger than the image are cut to it (the export refuses them).
int32_t LocalEqualize(BitmapRecord *b, const ArgValues &a, std::ostream &) {
  uint32_t width = a.UInt("tile-width"), height = a.UInt("tile-height");
  if (b) {
    width = std::min(width, static_cast<uint32_t>(std::max(b->Width, 8)));
    height = std::min(height, static_cast<uint32_t>(std::max(b->Height, 8)));
  }
  return Q_LocalHistoEqualizeBitmap(b, width, height, a.UInt("clip"), static_cast<uint32_t>(a.Enum("mode")),
                                    a.Flags());
}

int32_t IntensityBalance(BitmapRecord *b, const ArgValues &a, std::ostream &) {
  return Q_ColorIntensityBalance(b, static_cast<uint32_t>(a.Enum("method")), a.UInt("strength"), a.Flags());
}

const imgtool::Registrar kRegistrar{{
    {.name = "colored-gray",
     .exportName = "Q_ConvertToColoredGray",
     .family = kColrN,
     .summary = "Reduce every pixel to a weighted gray level and tint it per channel",
     .help = "gray = (R*red-weight + G*green-weight + B*blue-weight) / 1000; each channel then becomes "
             "gray + gray*factor/1000, limited to the sample range. Palette bitmaps change their palette "
             "(8-bit gray ones become colour palette bitmaps); 12- and 16-bit gray and 48-bit bitmaps "
             "come back with 48 bits per pixel.",
     .args = {WeightArg("red-weight", "299", "share of red in the gray level"),
              WeightArg("green-weight", "587", "share of green (the three weights together at most 1000)"),
              WeightArg("blue-weight", "114", "share of blue"),
              IntArg("red-factor", "thousandths", R::kGrayFactor, "150", "change of red relative to gray"),
              IntArg("green-factor", "thousandths", R::kGrayFactor, "0", "change of green"),
              IntArg("blue-factor", "thousandths", R::kGrayFactor, "-200", "change of blue")},
     .kinds = imgtool::kAnyKind,
     .call = ColoredGray},
    {.name = "balance",
     .exportName = "Q_BalanceColors",
     .family = kColrN,
     .summary = "Remix red, green and blue: every output channel a weighted sum of the three inputs",
     .help = "Each of --red, --green, --blue lists the shares (percent) of that input channel in the "
             "output red, green and blue. Sums are truncated and limited to the sample range. Palette "
             "bitmaps change their palette; gray bitmaps are refused (-12).",
     .args = {SharesArg("red", "90,10,0"), SharesArg("green", "5,85,10"), SharesArg("blue", "0,10,100")},
     .kinds = imgtool::kPalette | imgtool::kAnyColor,
     .call = Balance,
     .pointers = {{"red", RC_NULL_OPTIONS}, {"green", RC_NULL_OPTIONS}, {"blue", RC_NULL_OPTIONS}}},
    {.name = "swap-colors",
     .exportName = "Q_SwapColors",
     .family = kColrN,
     .summary = "Exchange or rotate the red, green and blue channels",
     .help = "Palette bitmaps change their palette; a gray bitmap is left as it is and the call succeeds.",
     .args = {{.name = "swap",
               .type = ArgType::Enum,
               .unit = "exchange",
               .defaultValue = "rb",
               .help = "new red, green, blue",
               .values = {{"rg", SWAP_RG, "G, R, B"},
                          {"rb", SWAP_RB, "B, G, R"},
                          {"gb", SWAP_GB, "R, B, G"},
                          {"rgbr", SWAP_RGBR, "B, R, G"},
                          {"rbgr", SWAP_RBGR, "G, B, R"}},
               // A word holding any known bit is taken (17, one past the
               // largest, holds SWAP_RG and SWAP_RBGR); one with none is -13.
               .outsideStatus = imgtool::kAccepted}},
     .kinds = imgtool::kAnyKind,
     .call = Swap,
     .flagsWord = false},
    {.name = "equalize",
     .exportName = "Q_HistoEqualizeBitmap",
     .family = kEqualize,
     .summary = "Spread the tones so that their cumulative distribution becomes linear",
     .help = "Per channel, by the luminance (every channel shifted by its change) or through one common "
             "table. 12/16-bit gray and 48/64-bit bitmaps use 65536 bins. Only pixels inside the region "
             "are counted and changed. The common way reports any failure of its 8-bit table as success "
             "(kept).",
     .args = {{.name = "mode",
               .type = ArgType::Enum,
               .unit = "way",
               .defaultValue = "per-channel",
               .help = "how the tables are built",
               .values = {{"per-channel", HISTOEQ_PER_CHANNEL, "one histogram and table per channel"},
                          {"luminance", HISTOEQ_LUMINANCE, "the luminance equalised, every channel shifted"},
                          {"common", HISTOEQ_COMMON, "one table from the intensity, for every channel"}}}},
     .kinds = imgtool::kAnyKind,
     .call = Equalize,
     .flagsWord = false,
     .shiftsSignedOnce = [](const ArgValues &a) { return a.Enum("mode") == HISTOEQ_COMMON; },
     // The common way on unsigned data reports any non-zero status of the
     // 8-bit table routine, a cancel included, as success.
     .swallowsCancel =
         [](const BitmapRecord &b, const ArgValues &a) {
           return a.Enum("mode") == HISTOEQ_COMMON && !(b.Flags & BITMAP_SIGNED);
         }},
    {.name = "local-equalize",
     .exportName = "Q_LocalHistoEqualizeBitmap",
     .family = kLocalEq,
     .summary = "Contrast-limited adaptive histogram equalisation over tiles",
     .help = "Each tile's histogram is clipped at the limit (the excess spread over all bins) and turned "
             "into a curve; every pixel blends the curves of the four nearest tile centres. Tiles larger "
             "than the image are cut to it. 8- and 16-bit samples.",
     .args = {{.name = "tile-width",
               .type = ArgType::UInt,
               .unit = "pixels",
               .min = R::kLocalTile.min,
               .max = R::kLocalTile.max,
               .defaultValue = "64",
               .help = "tile width",
               .outsideStatus = imgtool::kAccepted},  // the call cuts a tile to the image
              {.name = "tile-height",
               .type = ArgType::UInt,
               .unit = "pixels",
               .min = R::kLocalTile.min,
               .max = R::kLocalTile.max,
               .defaultValue = "64",
               .help = "tile height",
               .outsideStatus = imgtool::kAccepted},
              {.name = "clip",
               .type = ArgType::UInt,
               .unit = "tenths of the mean bin height",
               .min = R::kLocalClip.min,
               .max = R::kLocalClip.max,
               .defaultValue = "30",
               .help = "clip limit: 0 none, 10..1000 = 1.0..100.0 times the mean bin height"},
              {.name = "mode",
               .type = ArgType::Enum,
               .unit = "what is equalised",
               .defaultValue = "luminance",
               .help = "the channels or the luma",
               .values = {{"channels", LOCALEQ_EACH_CHANNEL, "each channel by itself"},
                          {"luminance", LOCALEQ_LUMINANCE, "the luma of the integer YUV form"}}}},
     .kinds = imgtool::kAnyKind,
     .call = LocalEqualize,
     .refusals = {.signedData = RC_SIGNED_DATA_NOT_SUPPORTED}},
    {.name = "intensity-balance",
     .exportName = "Q_ColorIntensityBalance",
     .family = kIntensityBalance,
     .summary = "Automatic white balance: gray world or white patch",
     .help = "Gray world scales each channel so that its mean equals the mean of the three; white patch "
             "maps the value below which 99.5 % of a channel's samples lie to full scale. The strength "
             "blends corrected and original. Gray bitmaps are refused (-12).",
     .args = {{.name = "method",
               .type = ArgType::Enum,
               .unit = "method",
               .defaultValue = "gray-world",
               .help = "how the gains are found",
               .values = {{"gray-world", INTENSITY_BALANCE_GRAY_WORLD, "equal channel means"},
                          {"white-patch", INTENSITY_BALANCE_WHITE_PATCH, "99.5th percentile to full scale"}}},
              {.name = "strength",
               .type = ArgType::UInt,
               .unit = "percent",
               .min = R::kIntensityBalanceStrength.min,
               .max = R::kIntensityBalanceStrength.max,
               .defaultValue = "100",
               .help = "0 leaves the bitmap, 100 applies the full correction"}},
     .kinds = imgtool::kPalette | imgtool::kAnyColor,
     .call = IntensityBalance,
     .refusals = {.signedData = RC_SIGNED_DATA_NOT_SUPPORTED}},
}};

}  // namespace
