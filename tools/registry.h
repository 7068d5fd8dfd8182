// The operation registry: one descriptor per operation that the tools offer.
//
// A family of operations registers its descriptors from its own source file
// tools/ops/<family>.cpp with a static Registrar:
//
//   namespace {
//   const imgtool::Registrar kRegistrar{{
//       {.name = "solarize", .exportName = "Q_SolarizeBitmap", ...},
//   }};
//   }
//
// The command-line tool, the documentation generator (docs/operations.md),
// the test sweep with its reference outputs, the benchmark of every operation
// and later the gallery and the fuzzers all read the same descriptors.
// Argument ranges come from sibling/internal/ranges.h, where the library's
// checks read them too.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "imgkernel.h"

namespace imgtool {

// Kinds of bitmap an operation accepts (bit mask).
enum KindBits : uint32_t {
  kPalette = 1u << 0,  // 1, 2, 4 or 8 bits with a palette
  kGray8 = 1u << 1,
  kGray12 = 1u << 2,
  kGray16 = 1u << 3,
  kColor16 = 1u << 4,  // 5-5-5
  kColor24 = 1u << 5,
  kColor32 = 1u << 6,
  kColor48 = 1u << 7,
  kColor64 = 1u << 8,
  kAnyGray = kGray8 | kGray12 | kGray16,
  kAnyColor = kColor16 | kColor24 | kColor32 | kColor48 | kColor64,
  kAnyKind = kPalette | kAnyGray | kAnyColor,
};

// The kind bit of a bitmap, or 0 for one the tools do not handle (32-bit gray,
// malformed records).
uint32_t KindBitOf(const BitmapRecord *bitmap);
// "palette", "8-bit gray", ... for one bit; a comma-separated list for a mask.
std::string KindNames(uint32_t mask);

enum class ArgType {
  Int,      // signed 32-bit
  UInt,     // unsigned 32-bit
  Bool,     // --name, --name=true|false|yes|no|1|0, --no-name
  Enum,     // one of the named values
  Colour,   // #RRGGBB or a number (0x...): red in bits 0-7, green 8-15, blue 16-23
  IntList,  // comma-separated signed numbers
};

struct EnumValue {
  std::string name;
  int64_t value = 0;
  std::string help;
};

struct ArgSpec {
  std::string name;  // option name without the leading dashes
  ArgType type = ArgType::Int;
  // What a number means, for help and documentation: "tenths of a percent",
  // "hundredths of a degree", "sample value", ...; for enums and colours what
  // the choice is ("channel", "colour value").
  std::string unit;
  int64_t min = 0;  // range of the value (IntList: of every element)
  int64_t max = 0;
  std::string defaultValue;  // in the form the command line takes
  std::string help;
  std::vector<EnumValue> values;  // Enum only
  int32_t minCount = 1;           // IntList only: element count range
  int32_t maxCount = 1;
  // What the export answers to a value outside min..max (the bad-argument
  // sweep and the fuzzer pass each end, one past each end and the extremes of
  // the type): RC_INVALID_PARAMETER, another status, or kAccepted where the
  // export takes wider values than the tool offers (the call still ends in 1
  // or a negative status).
  int32_t outsideStatus = RC_INVALID_PARAMETER;
  // Where the export's bound depends on the bitmap (a sample value up to its
  // full scale, a threshold of 12-bit gray), the bounds the export checks on
  // that bitmap; min..max above stay the widest any bitmap allows.
  std::function<std::pair<int64_t, int64_t>(const BitmapRecord &bitmap)> boundsOn;
  // The call function allocates this many elements (a count of bins, a table
  // length): probes never pass more than this. 0: no such limit.
  int64_t probeLimit = 0;
  // What the export answers at the lower and the upper end of its range with
  // every other argument at its default (another argument may narrow it).
  std::array<int32_t, 2> endStatuses = {RC_SUCCESS, RC_SUCCESS};
};
// ArgSpec::outsideStatus of an argument whose export takes any value.
inline constexpr int32_t kAccepted = 0;

// Parsed arguments of one call; every argument of the descriptor is present
// (given or its default).
class ArgValues {
 public:
  int32_t Int(std::string_view name) const;
  uint32_t UInt(std::string_view name) const;
  bool Bool(std::string_view name) const;
  int64_t Enum(std::string_view name) const;
  uint32_t Colour(std::string_view name) const;
  const std::vector<int32_t> &List(std::string_view name) const;

  // Probes of the bad-argument sweep and the fuzzer. A call function passes
  // Flags() as the export's trailing flags word (0 unless a probe sets it)
  // and each pointer its descriptor lists in `pointers` through Pointer(),
  // which gives null when a probe asks for it.
  uint32_t Flags() const {
    flagsRead_ = true;
    return flags_;
  }
  template <class T>
  T *Pointer(std::string_view name, T *pointer) const {
    return name == nullPointer_ ? nullptr : pointer;
  }
  void SetFlags(uint32_t flags) {
    flags_ = flags;
    flagsRead_ = false;
  }
  void SetNullPointer(std::string name) { nullPointer_ = std::move(name); }
  // Whether the call function asked for the flags word since SetFlags.
  bool FlagsRead() const { return flagsRead_; }

  void Set(const std::string &name, int64_t value);
  void SetList(const std::string &name, std::vector<int32_t> values);
  bool Has(std::string_view name) const;

 private:
  struct Value {
    int64_t scalar = 0;
    std::vector<int32_t> list;
  };
  const Value &Get(std::string_view name) const;
  std::map<std::string, Value, std::less<>> values_;
  uint32_t flags_ = 0;
  mutable bool flagsRead_ = false;
  std::string nullPointer_;
};

// Runs the operation on the bitmap with the arguments; returns the library's
// status. Operations that report values (counts, histograms) write them to
// `out`, one "name: value" line each.
using CallFunction = std::function<int32_t(BitmapRecord *bitmap, const ArgValues &args, std::ostream &out)>;

// Bitmaps an operation makes for the tool to write, each with the suffix its
// file takes; all freed (FreeBitmap) on destruction.
class OutputImages {
 public:
  OutputImages() = default;
  ~OutputImages();
  OutputImages(const OutputImages &) = delete;
  OutputImages &operator=(const OutputImages &) = delete;
  // A zeroed 208-byte record for the call to fill. An empty suffix names OUT
  // itself; any other is put before OUT's extension: out.png -> out-0.png.
  BitmapRecord *Add(std::string suffix);
  size_t size() const { return items_.size(); }
  const BitmapRecord *bitmap(size_t i) const { return items_[i].record.get(); }
  const std::string &suffix(size_t i) const { return items_[i].suffix; }

 private:
  struct Item {
    std::unique_ptr<BitmapRecord> record;
    std::string suffix;
  };
  std::vector<Item> items_;
};

// Operations over several images (the tool's view: planes to merge, bitmaps
// to add, planes or labels to write). The tool reads every IN it is given
// (`inputs[0]` carries the region options), calls `files`, and writes the
// images the call made. `call` stays the one-bitmap form that the sweep, the
// reference outputs and the benchmark run (a self-contained round trip).
using FilesFunction = std::function<int32_t(const std::vector<BitmapRecord *> &inputs, OutputImages &outputs,
                                            const ArgValues &args, std::ostream &out)>;

// The family an operation belongs to: the source that holds it and the note
// that explains it. docs/operations.md groups the operations by family.
struct Family {
  std::string title;   // "Hue and saturation"
  std::string source;  // "Common/HUESAT.cpp"
  std::string note;    // "hue.md" (in docs/)
};

// A telling variant the gallery shows beside the defaults: a label and the
// arguments it sets (name without dashes, value as the command line takes it).
struct GalleryVariant {
  std::string label;
  std::vector<std::pair<std::string, std::string>> args;
};

// A pointer argument of an export and what the export answers when it is null.
struct PointerSpec {
  std::string name;  // the name the call function gives ArgValues::Pointer()
  int32_t nullStatus = RC_INVALID_PARAMETER;
};

// What an export answers to a bitmap it refuses, one status each; kAccepted
// where the export goes on (and ends in 1 or a negative status).
struct Refusals {
  int32_t nullBitmap = RC_NO_BITMAP;
  int32_t recordSize = RC_INVALID_STRUCT_SIZE;  // 175, 177, 207, 209 bytes
  int32_t zeroedRecord = RC_INVALID_STRUCT_SIZE;
  int32_t flags = RC_INVALID_PARAMETER;      // a flags word of 1 (with flagsWord)
  int32_t noPixels = RC_NO_BITMAP;           // a record without BITMAP_ALLOCATED and Pixels
  int32_t gray32 = RC_GRAY32_NOT_SUPPORTED;  // a 32-bit gray bitmap
  int32_t signedData = RC_SUCCESS;           // an accepted kind with BITMAP_SIGNED
  int32_t coloursUsed = RC_NO_BITMAP;        // a palette bitmap with ColorsUsed 257 (palette kinds)
};

// Writes to the caller's bitmap that an export keeps when it refuses after
// making them (docs/quirks.md). The bad-argument sweep and the fuzzer accept
// exactly these changes on a refusal, nothing else in the record or pixels.
struct KeptWrites {
  bool significantHighBit = false;  // SignificantHighBit -1 becomes BitsPerPixel - 1
  bool turnedTopFirst = false;      // a bottom-up bitmap is left turned top row first
  bool updateCount = false;  // UpdateCount raised by one (the record refreshed after a later step failed)
};

struct OpDescriptor {
  std::string name;        // subcommand, kebab-case ("solarize")
  std::string exportName;  // "Q_SolarizeBitmap"
  Family family;
  std::string summary;  // one line
  std::string help;     // longer description
  std::vector<ArgSpec> args;
  uint32_t kinds = kAnyKind;  // KindBits accepted
  bool writesImage = true;    // false: reports values only, no output file
  CallFunction call;
  // Set for operations over several images: the tool takes minInputs ..
  // maxInputs inputs and runs `files` instead of `call`.
  FilesFunction files;
  int32_t minInputs = 1;
  int32_t maxInputs = 1;
  // What the test sweep expects beyond the usual: statuses an allocation
  // failure may end in besides RC_NO_MEMORY (quiet successes the operation
  // keeps), whether a cancelling status callback's answer is returned, and
  // whether progress only moves forward (several passes that each report
  // their own range do not).
  std::vector<int32_t> failureStatuses = {};
  bool cancelReturned = true;
  bool monotonicProgress = true;
  // The bad-argument sweep and docs/operations.md: the status of each refusal.
  // The export has a trailing flags word that must be 0 (the call passes
  // ArgValues::Flags()); false for exports whose last word means something.
  bool flagsWord = true;
  // The pointers the export takes, each passed through ArgValues::Pointer().
  std::vector<PointerSpec> pointers = {};
  Refusals refusals = {};
  KeptWrites keptOnRefusal = {};
  // Kept: the arguments under which the call shifts signed samples by half
  // their scale once more than it restores them, over the whole bitmap
  // (equalisation's common table). The fuzzer then takes the bitmap shifted
  // once (UnsignedToSigned) outside the region, and on a refusal, as well as
  // unchanged.
  std::function<bool(const ArgValues &args)> shiftsSignedOnce;
  // Kept: where cancelReturned holds, the bitmap and arguments on which the
  // course still reports success after a cancel (extended gamma's
  // per-channel path). The fuzzer then takes 1 as well as the cancel.
  std::function<bool(const BitmapRecord &bitmap, const ArgValues &args)> swallowsCancel;
  // The gallery: variants shown beside the defaults, and whether each sample
  // goes through a table fixed by the arguments alone (the gallery then plots
  // that tone curve per channel).
  std::vector<GalleryVariant> variants = {};
  bool toneCurve = false;
  // Row-local: every output pixel depends only on the same input pixel, and
  // no table of the operation depends on the image (histogram-driven,
  // window and whole-image operations are not). The tool may then run it on
  // disjoint row bands in threads of its own (bands.h).
  bool rowLocal = false;
};

// All registered operations, sorted by name.
const std::vector<OpDescriptor> &Operations();
// The operation named `name`, or null.
const OpDescriptor *FindOperation(std::string_view name);

// Adds descriptors at static initialisation. A malformed descriptor (duplicate
// or badly formed name, empty range, a missing unit or family, a default that
// does not parse) stops the
// program with a message: such a mistake must never reach a user.
class Registrar {
 public:
  explicit Registrar(std::vector<OpDescriptor> descriptors);
};

// Parses `text` as a value of the argument into `values`. On failure returns false
// and sets `error` to a message that names the argument and its range.
bool ParseArg(const ArgSpec &arg, std::string_view text, ArgValues &values, std::string &error);
// Fills every argument of `op` that `values` lacks with its default.
void ApplyDefaults(const OpDescriptor &op, ArgValues &values);
// "int", "uint", "bool", "enum", "colour", "int list".
std::string TypeName(const ArgSpec &arg);
// The accepted range of an argument in words: "0..255", "one of: a, b", ...
std::string RangeText(const ArgSpec &arg);
// The default as help and documentation show it: as written, or the first
// elements and the count of a long list.
std::string DefaultText(const ArgSpec &arg);

// Parses a signed decimal or 0x-prefixed hexadecimal number; false when the
// text is not a number or does not fit in 64 bits.
bool ParseNumber(std::string_view text, int64_t &value);

// Everything a call could change in a bitmap: the record up to its size, the
// pixels (or the stored rows given), the palette and the attached table.
std::vector<uint8_t> BitmapSnapshot(const BitmapRecord &b, const uint8_t *pixels = nullptr);

// The snapshot of the bitmap as a refusal of `op` may leave it under the
// writes the export keeps (OpDescriptor::keptOnRefusal); equal to
// BitmapSnapshot(b) when none applies.
std::vector<uint8_t> KeptSnapshot(const OpDescriptor &op, const BitmapRecord &b);

}  // namespace imgtool
