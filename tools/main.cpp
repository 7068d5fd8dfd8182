// imgcolor: runs the family's operations on PNG and JPEG files.
//
// Exit status: 0 success, 1 a file or library failure, 2 a usage error.
#include <sys/stat.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bands.h"
#include "cli_io.h"
#include "gallery.h"
#include "image_io.h"
#include "imgcolor.h"
#include "imgdisplay.h"
#include "pixels.h"
#include "progress.h"
#include "registry.h"

namespace {

using imgtool::ArgSpec;
using imgtool::ArgType;
using imgtool::ArgValues;
using imgtool::Bitmap;
using imgtool::Failure;
using imgtool::FileFormat;
using imgtool::Input;
using imgtool::IoOptions;
using imgtool::OpDescriptor;
using imgtool::Option;
using imgtool::Output;
using imgtool::UsageError;

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

// The library's own message; a positive status is a status callback's answer.
std::string StatusMeaning(int32_t status) {
  return status > 1 ? "stopped by the status callback" : Q_StatusMessage(status);
}

std::string StatusText(int32_t status) {
  return "failed with status " + std::to_string(status) + " " + Q_StatusName(status) + " (" +
         StatusMeaning(status) + ")";
}

void Usage(std::ostream &out) {
  out << "usage: imgcolor COMMAND [ARGUMENTS]\n"
         "\n"
         "commands:\n"
         "  info FILE [--pixel X,Y ...]    describe an image; --pixel prints its samples\n"
         "  convert IN OUT [--depth N] [--gray]\n"
         "                                 convert a file, optionally to another depth or to gray\n"
         "  list                           list the operations\n"
         "  help [OP]                      this text, or an operation's arguments\n"
         "  gallery [PHOTO] [DIR]          every operation on PHOTO (default sample:) as an HTML page\n"
         "                                 with thumbnails and tone curves in DIR (default ./gallery)\n"
         "  batch OP [OP ...] -o OUTDIR FILE...\n"
         "                                 run operations on many files, OUTDIR/NAME each; -j N files at "
         "once\n"
         "  --version                      the version of the tool and the libraries\n"
         "  OP IN OUT [--ARG VALUE ...]    run an operation and write the result\n"
         "  OP IN OUT [...] OP [...] ...   run several operations in order on one image\n"
         "  OP IN [--ARG VALUE ...]        run an operation that reports values\n"
         "\n"
         "IN (and FILE): a file, - for standard input, sample: for the built-in photograph.\n"
         "OUT: a file or - for standard output. OUT is never IN's file unless --in-place.\n"
         "\n"
         "options of every operation:\n"
         "  --rect L,T,R,B                 limit the operation to a rectangle (right, bottom exclusive)\n"
         "  --ellipse L,T,R,B              ... to the ellipse inscribed in the rectangle\n"
         "  --polygon X1,Y1,X2,Y2,X3,Y3... ... to a polygon (even-odd rule)\n"
         "                                 region options repeat; the shapes are combined (union)\n"
         "  -j N, --threads N              row bands on N threads for row-local operations without a region\n"
         "                                 on bitmaps over 8 bits (default: every core)\n"
         "options of convert and the operations:\n"
         "  --format png|jpeg|tiff|webp    OUT's format (needed for -; else OUT's extension: .png, .jpg, "
         ".jpeg, .tif, .tiff, .webp)\n"
         "  --quality N                    JPEG and WebP quality 1..100 (default: JPEG 92, WebP lossless)\n"
         "  --in-place                     allow OUT to be IN's file and replace it\n"
         "  --quiet                        no progress bar\n"
         "  --progress                     the progress bar even when stderr is not a terminal\n";
}

// Word-wraps text at `width` columns, each line starting with `indent`.
std::string Wrap(const std::string &text, const std::string &indent, size_t width = 78) {
  std::istringstream words(text);
  std::string word, line, out;
  while (words >> word) {
    if (!line.empty() && indent.size() + line.size() + 1 + word.size() > width) {
      out += indent + line + "\n";
      line.clear();
    }
    line += (line.empty() ? "" : " ") + word;
  }
  if (!line.empty()) out += indent + line + "\n";
  return out;
}

std::string ArgPlaceholder(const ArgSpec &a) {
  switch (a.type) {
    case ArgType::Bool:
      return "";
    case ArgType::Enum:
      return " NAME";
    case ArgType::Colour:
      return " COLOUR";
    case ArgType::IntList:
      return " N,N,...";
    default:
      return " N";
  }
}

// The usage line of an operation, shown by its help and under a mistake.
std::string InputsText(const OpDescriptor &op) {
  if (op.maxInputs == 1) return " IN";
  std::string text;
  for (int32_t i = 0; i < op.minInputs; ++i) text += " IN";
  return text + (op.maxInputs > op.minInputs ? " [IN ...]" : "");
}

std::string OperationUsage(const OpDescriptor &op) {
  return "imgcolor " + op.name + InputsText(op) + (op.writesImage ? " OUT" : "") +
         (op.args.empty() ? "" : " [--ARG VALUE ...]") + " [region options]" +
         (op.writesImage ? " [--format png|jpeg|tiff|webp] [--quality N] [--in-place]" : "") +
         " [--quiet|--progress] [--max-pixels N]";
}

void OperationHelp(const OpDescriptor &op, std::ostream &out) {
  out << "usage: " << OperationUsage(op) << "\n\n";
  out << op.summary << " (" << op.exportName << ").\n";
  if (!op.help.empty()) out << "\n" << Wrap(op.help, "");
  out << "\n" << Wrap("accepts: " + imgtool::KindNames(op.kinds), "");
  if (op.args.empty()) {
    out << "\nno arguments\n";
    return;
  }
  out << "\narguments:\n";
  for (const ArgSpec &a : op.args) {
    out << "  --" << a.name << ArgPlaceholder(a) << "\n";
    out << "      " << imgtool::TypeName(a) << ", " << a.unit << ", " << imgtool::RangeText(a) << ", default "
        << imgtool::DefaultText(a) << "\n";
    out << Wrap(a.help, "      ");
    for (const imgtool::EnumValue &e : a.values) out << Wrap(e.name + ": " + e.help, "        ");
  }
}

// ---- info -------------------------------------------------------------------------------

// FNV-1a over the pixel bytes of every image row (top first, without row
// padding or unused bits) and the used palette entries: equal for bitmaps of
// the same kind with the same pixels.
uint64_t PixelChecksum(const BitmapRecord *b) {
  uint64_t h = 0xcbf29ce484222325ull;
  auto add = [&h](uint8_t byte) {
    h ^= byte;
    h *= 0x100000001b3ull;
  };
  const uint64_t rowBits = static_cast<uint64_t>(b->Width) * static_cast<uint64_t>(b->BitsPerPixel);
  const uint64_t fullBytes = rowBits / 8;
  const uint32_t restBits = static_cast<uint32_t>(rowBits % 8);
  for (int32_t y = 0; y < b->Height; ++y) {
    const uint8_t *row = img::ImageRow(b, y);
    for (uint64_t i = 0; i < fullBytes; ++i) add(row[i]);
    if (restBits) add(static_cast<uint8_t>(row[fullBytes] & (0xFF00u >> restBits)));
  }
  if (b->Palette && b->BitsPerPixel <= 8 && b->ColorOrder != ORDER_GRAY) {
    for (int32_t i = 0; i < b->ColorsUsed; ++i) {
      add(b->Palette[i].Blue);
      add(b->Palette[i].Green);
      add(b->Palette[i].Red);
    }
  }
  return h;
}

std::string SampleText(const BitmapRecord *b) {
  switch (img::KindOf(b)) {
    case img::Kind::Palette:
      return "palette of " + std::to_string(b->ColorsUsed) + " entries";
    case img::Kind::Gray8:
      return "8-bit samples";
    case img::Kind::Gray12:
      return "12-bit samples";
    case img::Kind::Gray16:
      return "16-bit samples";
    case img::Kind::Gray32:
      return "32-bit samples";
    case img::Kind::Color16:
      return "5-bit samples";
    case img::Kind::Color24:
    case img::Kind::Color32:
      return "8-bit samples";
    case img::Kind::Color48:
    case img::Kind::Color64:
      return "16-bit samples";
    default:
      return "unknown layout";
  }
}

// The stored samples of one pixel, e.g. "blue=1 green=2 red=3".
std::string PixelText(const BitmapRecord *b, int32_t x, int32_t y) {
  const uint8_t *row = img::ImageRow(b, y);
  std::string s;
  auto add = [&s](const char *name, uint32_t v) {
    if (!s.empty()) s += ' ';
    s += name;
    s += '=';
    s += std::to_string(v);
  };
  static const char *const kColour[] = {"blue", "green", "red", "fourth"};
  const bool rgb = b->ColorOrder == ORDER_RGB;
  auto colour = [&](int32_t sampleBytes, int32_t samples) {
    const uint8_t *p = row + static_cast<size_t>(x) * sampleBytes * samples;
    for (int32_t i = 0; i < samples; ++i) {
      const int32_t name = i < 3 && rgb ? 2 - i : i;
      add(kColour[name], sampleBytes == 2 ? img::Load16(p + 2 * i) : p[i]);
    }
  };
  switch (img::KindOf(b)) {
    case img::Kind::Palette: {
      const uint32_t index = img::GetIndex(row, x, b->BitsPerPixel);
      add("index", index);
      if (b->Palette) {
        add("red", b->Palette[index].Red);
        add("green", b->Palette[index].Green);
        add("blue", b->Palette[index].Blue);
      }
      break;
    }
    case img::Kind::Gray8:
      add("gray", row[x]);
      break;
    case img::Kind::Gray12:
    case img::Kind::Gray16:
      add("gray", img::Load16(row + 2 * x));
      break;
    case img::Kind::Color16: {
      const uint16_t w = img::Load16(row + 2 * x);
      add("blue", w & 31u);
      add("green", (w >> 5) & 31u);
      add("red", (w >> 10) & 31u);
      break;
    }
    case img::Kind::Color24:
      colour(1, 3);
      break;
    case img::Kind::Color32:
      colour(1, 4);
      break;
    case img::Kind::Color48:
      colour(2, 3);
      break;
    case img::Kind::Color64:
      colour(2, 4);
      break;
    default:
      s = "unknown layout";
  }
  return s;
}

int Info(const std::vector<std::string> &args) {
  const std::string usage = "imgcolor info FILE [--pixel X,Y ...] [--max-pixels N]";
  std::vector<std::string> positional;
  std::vector<Option> options;
  imgtool::Scan(
      args, [](const std::string &name) { return name == "pixel" || name == "max-pixels"; }, positional,
      options);
  std::vector<std::pair<int64_t, int64_t>> pixels;
  IoOptions io;
  for (const Option &o : options) {
    if (o.name == "pixel" && o.hasValue) {
      const size_t comma = o.value.find(',');
      int64_t x = 0, y = 0;
      if (comma == std::string::npos || !imgtool::ParseNumber(o.value.substr(0, comma), x) ||
          !imgtool::ParseNumber(o.value.substr(comma + 1), y))
        throw UsageError{"--pixel: '" + o.value + "' is not X,Y"};
      pixels.emplace_back(x, y);
    } else if ((o.name != "quiet" || o.hasValue) &&
               (o.name != "max-pixels" || !imgtool::TakeIoOption(o, false, io))) {
      throw UsageError{"info: unknown option --" + o.name, usage};
    }
  }
  if (positional.empty())
    throw UsageError{"info: missing FILE (sample: names the built-in photograph)", usage};
  if (positional.size() > 1) throw UsageError{"info takes one FILE", usage};
  const Input in = imgtool::ParseInput(positional[0]);
  Bitmap bitmap;
  imgtool::ReadInput(in, bitmap, io.maxPixels);
  const BitmapRecord *b = bitmap.get();
  for (const auto &[x, y] : pixels)
    if (x < 0 || y < 0 || x >= b->Width || y >= b->Height)
      throw UsageError{"--pixel: " + std::to_string(x) + "," + std::to_string(y) + " is outside the " +
                       std::to_string(b->Width) + " x " + std::to_string(b->Height) + " image"};
  const img::Kind kind = img::KindOf(b);
  uint32_t colours = 0;
  const int32_t countStatus = CountBitmapColors(b, &colours, 0);
  const char *order = b->ColorOrder == ORDER_GRAY ? "gray" : b->ColorOrder == ORDER_RGB ? "RGB" : "BGR";
  std::cout << "file:        " << in.Name() << "\n"
            << "size:        " << b->Width << " x " << b->Height << "\n"
            << "depth:       " << b->BitsPerPixel << " bits per pixel (" << SampleText(b) << ")\n"
            << "kind:        "
            << (kind == img::Kind::Palette ? "palette"
                : img::IsGrayKind(kind)    ? "gray"
                                           : "colour")
            << "\n"
            << "order:       " << order << "\n"
            << "orientation: " << (b->Orientation == ORIENT_BOTTOM_FIRST ? "bottom first" : "top first")
            << "\n";
  if (countStatus == RC_SUCCESS)
    std::cout << "colours:     " << colours << "\n";
  else
    std::cout << "colours:     unavailable (" << StatusText(countStatus) << ")\n";
  char checksum[17];
  std::snprintf(checksum, sizeof checksum, "%016llx", static_cast<unsigned long long>(PixelChecksum(b)));
  std::cout << "bytes:       " << b->DataSize << " (" << b->BytesPerLine << " per row)\n"
            << "checksum:    " << checksum << "\n";
  for (const auto &[x, y] : pixels) {
    std::cout << "pixel " << x << "," << y << ": "
              << PixelText(b, static_cast<int32_t>(x), static_cast<int32_t>(y)) << "\n";
  }
  return 0;
}

// ---- reading, working, writing ------------------------------------------------------------

// Checks the number of file arguments against `names` ("IN", "OUT"). A
// missing one is a mistake shown with the usage line: the tool never guesses
// an input or an output.
void ExpectFiles(const std::string &command, const std::vector<std::string> &positional,
                 const std::vector<std::string> &names, const std::string &usage) {
  if (positional.size() == names.size()) return;
  std::string all;
  for (size_t i = 0; i < names.size(); ++i) all += (i == 0 ? "" : " and ") + names[i];
  if (positional.size() > names.size())
    throw UsageError{
        command + " takes " + all + ", got " + std::to_string(positional.size()) + " file arguments", usage};
  std::string missing;
  for (size_t i = positional.size(); i < names.size(); ++i)
    missing += (i == positional.size() ? "" : " and ") + names[i];
  throw UsageError{command + ": missing " + missing + " (nothing was read or written)", usage};
}

// Reads IN, runs `work` on the bitmap and writes OUT (when given), with the
// progress bar over the three phases: reading 0-10 %, the work 10-90 % (to
// 100 % without OUT), writing 90-100 %.
void Process(const Input &in, const Output *out, const IoOptions &io, const std::string &phase,
             const std::function<void(Bitmap &)> &work) {
  imgtool::ProgressBar progress(io.ProgressWanted());
  progress.Phase("reading", 0, 10);
  Bitmap bitmap;
  imgtool::ReadInput(in, bitmap, io.maxPixels);
  progress.Phase(phase, 10, out ? 90 : 100);
  work(bitmap);
  if (out) {
    progress.Phase("writing", 90, 100);
    imgtool::WriteOutput(*out, bitmap.get(), &bitmap.metadata());
  }
  progress.Finish();
}

// ---- convert -------------------------------------------------------------------------------

int Convert(const std::vector<std::string> &args) {
  const std::string usage =
      "imgcolor convert IN OUT [--depth N] [--gray] [--format png|jpeg|tiff|webp] [--quality N] [--in-place] "
      "[--quiet|--progress]"
      " [--max-pixels N]";
  std::vector<std::string> positional;
  std::vector<Option> options;
  imgtool::Scan(
      args, [](const std::string &name) { return name == "depth" || imgtool::IsIoValueOption(name); },
      positional, options);
  int64_t depth = 0;
  bool gray = false;
  IoOptions io;
  for (const Option &o : options) {
    if (o.name == "depth") {
      if (!imgtool::ParseNumber(o.value, depth) ||
          (depth != 1 && depth != 2 && depth != 4 && depth != 8 && depth != 12 && depth != 16 &&
           depth != 24 && depth != 32 && depth != 48 && depth != 64))
        throw UsageError{"--depth: '" + o.value +
                         "' is not a depth (expected one of 1, 2, 4, 8, 12, 16, 24, 32, 48, 64)"};
    } else if (o.name == "gray" && !o.hasValue) {
      gray = true;
    } else if (!imgtool::TakeIoOption(o, true, io)) {
      throw UsageError{"convert: unknown option --" + o.name, usage};
    }
  }
  if (gray && depth != 0 && depth != 8 && depth != 12 && depth != 16)
    throw UsageError{"--depth: " + std::to_string(depth) + " with --gray (expected 8, 12 or 16)"};
  ExpectFiles("convert", positional, {"IN", "OUT"}, usage);
  const Input in = imgtool::ParseInput(positional[0]);
  const Output out = imgtool::ParseOutput(positional[1], in, io);
  Process(in, &out, io, "converting", [&](Bitmap &bitmap) {
    if (!gray && depth == 0) return;
    const int32_t status =
        gray ? ConvertBitmapFormat(bitmap.get(), bitmap.get(), BITMAP_RECORD_SIZE,
                                   static_cast<int32_t>(depth ? depth : 8), ORDER_GRAY, nullptr, 0, 0)
             : ConvertBitmapDepth(bitmap.get(), static_cast<int32_t>(depth));
    if (status < RC_SUCCESS) throw Failure{"convert: " + StatusText(status)};
  });
  return 0;
}

// ---- operations ----------------------------------------------------------------------------

bool IsRegionOption(const std::string &name) {
  return name == "rect" || name == "ellipse" || name == "polygon";
}

struct Shape {
  std::string kind;
  std::vector<int32_t> values;
};

Shape ParseShape(const Option &o) {
  Shape s{o.name, {}};
  size_t start = 0;
  while (true) {
    const size_t comma = o.value.find(',', start);
    const std::string item =
        o.value.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
    int64_t v = 0;
    if (!imgtool::ParseNumber(item, v) || v < INT32_MIN || v > INT32_MAX)
      throw UsageError{"--" + o.name + ": '" + item + "' is not a coordinate"};
    s.values.push_back(static_cast<int32_t>(v));
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  const size_t n = s.values.size();
  if (s.kind != "polygon" && n != 4)
    throw UsageError{"--" + o.name + ": expected 4 comma-separated values L,T,R,B, got " + std::to_string(n)};
  if (s.kind == "polygon" && (n < 6 || n % 2 != 0))
    throw UsageError{"--polygon: expected at least 3 points as X1,Y1,X2,Y2,X3,Y3,..., got " +
                     std::to_string(n) + " values"};
  return s;
}

void ApplyShapes(BitmapRecord *bitmap, const std::vector<Shape> &shapes) {
  for (const Shape &s : shapes) {
    int32_t status;
    if (s.kind == "polygon") {
      std::vector<Point> points;
      for (size_t i = 0; i + 1 < s.values.size(); i += 2)
        points.push_back(Point{s.values[i], s.values[i + 1]});
      status = SetBitmapRegionPolygon(bitmap, points.data(), static_cast<uint32_t>(points.size()),
                                      POLYGON_EVEN_ODD, REGION_OR);
    } else {
      const Rect r{s.values[0], s.values[1], s.values[2], s.values[3]};
      status = s.kind == "rect" ? SetBitmapRegionRect(bitmap, &r, REGION_OR)
                                : SetBitmapRegionEllipse(bitmap, &r, REGION_OR);
    }
    if (status < RC_SUCCESS) throw Failure{"--" + s.kind + ": " + StatusText(status)};
  }
}

// OUT's name for an image with `suffix`: OUT itself, or the suffix put before
// its extension (out.png -> out-0.png).
std::string SuffixedPath(const std::string &path, const std::string &suffix) {
  if (suffix.empty()) return path;
  const size_t slash = path.find_last_of('/');
  const size_t dot = path.find_last_of('.');
  const bool hasExtension = dot != std::string::npos && (slash == std::string::npos || dot > slash);
  return hasExtension ? path.substr(0, dot) + "-" + suffix + path.substr(dot) : path + "-" + suffix;
}

// An operation over several images: every IN is read (the first takes the
// region options), the call makes the images to write, and each is written
// to OUT or to OUT's name with its suffix. No output may be an input.
int RunFilesOperation(const OpDescriptor &op, const std::vector<std::string> &positional,
                      const ArgValues &values, const std::vector<Shape> &shapes, const IoOptions &io) {
  const std::string usage = OperationUsage(op);
  const size_t inputCount = positional.size() - (op.writesImage && !positional.empty() ? 1 : 0);
  if (positional.empty() || inputCount < static_cast<size_t>(op.minInputs) ||
      inputCount > static_cast<size_t>(op.maxInputs))
    throw UsageError{op.name + " takes" + InputsText(op) + (op.writesImage ? " and OUT" : "") + ", got " +
                         std::to_string(positional.size()) + " file arguments (nothing was read or written)",
                     usage};
  std::vector<Input> inputs;
  for (size_t i = 0; i < inputCount; ++i) {
    inputs.push_back(imgtool::ParseInput(positional[i]));
    if (inputs.back().source == Input::Source::Stdin)
      for (size_t j = 0; j + 1 < inputs.size(); ++j)
        if (inputs[j].source == Input::Source::Stdin)
          throw UsageError{"-: standard input is read once", usage};
  }
  Output out;
  if (op.writesImage)
    for (const Input &in : inputs) out = imgtool::ParseOutput(positional.back(), in, io);

  imgtool::ProgressBar progress(io.ProgressWanted());
  progress.Phase("reading", 0, 10);
  std::vector<Bitmap> bitmaps(inputs.size());
  std::vector<BitmapRecord *> records;
  for (size_t i = 0; i < inputs.size(); ++i) {
    imgtool::ReadInput(inputs[i], bitmaps[i], io.maxPixels);
    const uint32_t kind = imgtool::KindBitOf(bitmaps[i].get());
    if ((kind & op.kinds) == 0)
      throw Failure{op.name + ": " + inputs[i].Name() + " is a " + imgtool::KindNames(kind) + " bitmap; " +
                    op.name + " accepts " + imgtool::KindNames(op.kinds) + " (see imgcolor convert --depth)"};
    records.push_back(bitmaps[i].get());
  }
  ApplyShapes(records[0], shapes);
  progress.Phase(op.name, 10, op.writesImage ? 90 : 100);
  imgtool::OutputImages made;
  std::ostringstream report;
  const int32_t status = op.files(records, made, values, report);
  if (status < RC_SUCCESS) {
    std::cerr << report.str();  // what the call said about its failure
    throw Failure{op.name + ": " + StatusText(status)};
  }
  if (op.writesImage) {
    progress.Phase("writing", 90, 100);
    // Every image is checked before the first file is written.
    if (made.size() == 0) throw Failure{op.name + ": made no image (nothing was written)"};
    for (size_t i = 0; i < made.size(); ++i)
      if (!(made.bitmap(i)->Flags & BITMAP_ALLOCATED))
        throw Failure{op.name + ": image '" + made.suffix(i) + "' was not made (nothing was written)"};
    if (out.toStdout && made.size() != 1)
      throw Failure{op.name + ": makes " + std::to_string(made.size()) + " images; name a file as OUT"};
    for (size_t i = 0; i < made.size(); ++i) {
      Output each = out;
      if (!out.toStdout) {
        each.path = SuffixedPath(out.path, made.suffix(i));
        for (const Input &in : inputs) imgtool::ParseOutput(each.path, in, io);
      }
      imgtool::WriteOutput(each, made.bitmap(i), &bitmaps[0].metadata());
    }
  }
  progress.Finish();
  (out.toStdout ? std::cerr : std::cout) << report.str();
  return 0;
}

// One operation of a command: its arguments, defaulted, and its region.
struct Step {
  const OpDescriptor *op = nullptr;
  ArgValues values;
  std::vector<Shape> shapes;
};

const ArgSpec *FindArg(const OpDescriptor &op, const std::string &name) {
  for (const ArgSpec &a : op.args)
    if (a.name == name) return &a;
  return nullptr;
}

// Whether --name consumes the next argument in a step of `op`.
bool TakesValue(const OpDescriptor &op, const std::string &name) {
  if (IsRegionOption(name) || imgtool::IsIoValueOption(name)) return true;
  const ArgSpec *a = FindArg(op, name);
  return a && a->type != ArgType::Bool;
}

// Splits an operation's command line into steps: the first operation's
// arguments, then one segment for each later word that names an operation
// once the first has its inputs (`imgcolor contrast IN OUT --change 300 hue
// --angle 30`). Option values are skipped, so `--model hue` never starts a
// step. The first segment keeps the file arguments.
std::vector<std::pair<const OpDescriptor *, std::vector<std::string>>> SplitSteps(
    const OpDescriptor &first, const std::vector<std::string> &args) {
  std::vector<std::pair<const OpDescriptor *, std::vector<std::string>>> steps{{&first, {}}};
  const size_t inputs = first.files ? static_cast<size_t>(first.minInputs) : 1;
  size_t positional = 0;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string &a = args[i];
    auto &segment = steps.back().second;
    const bool option = a.size() > 1 && a[0] == '-' && !(a[1] >= '0' && a[1] <= '9');
    if (option) {
      segment.push_back(a);
      const bool longValue = a.compare(0, 2, "--") == 0 && a.find('=') == std::string::npos &&
                             TakesValue(*steps.back().first, a.substr(2));
      if ((longValue || a == "-j") && i + 1 < args.size()) segment.push_back(args[++i]);
      continue;
    }
    const OpDescriptor *next = positional >= inputs ? imgtool::FindOperation(a) : nullptr;
    if (next) {
      steps.push_back({next, {}});
    } else if (steps.size() > 1) {
      throw UsageError{"'" + a + "': file arguments follow the first operation (" + first.name +
                       " IN OUT); a later word is an operation (see imgcolor list)"};
    } else {
      segment.push_back(a);
      ++positional;
    }
  }
  return steps;
}

// Parses one step's options into its values and shapes; the options every
// step shares go to `io`.
Step ParseStep(const OpDescriptor &op, const std::vector<std::string> &args, bool writes,
               std::vector<std::string> &positional, IoOptions &io) {
  std::vector<Option> options;
  imgtool::Scan(
      args,
      [&](const std::string &name) {
        return IsRegionOption(name) || name == "max-pixels" || (writes && imgtool::IsIoValueOption(name)) ||
               (FindArg(op, name) && FindArg(op, name)->type != ArgType::Bool);
      },
      positional, options);
  Step step{&op, {}, {}};
  for (const Option &o : options) {
    if (imgtool::TakeIoOption(o, writes, io)) continue;
    if (IsRegionOption(o.name)) {
      step.shapes.push_back(ParseShape(o));
      continue;
    }
    const ArgSpec *a = FindArg(op, o.name);
    std::string value = o.value;
    if (!a && o.name.compare(0, 3, "no-") == 0) {
      a = FindArg(op, o.name.substr(3));
      if (a && (a->type != ArgType::Bool || o.hasValue)) a = nullptr;
      value = "false";
    } else if (a && a->type == ArgType::Bool && !o.hasValue) {
      value = "true";
    }
    if (!a)
      throw UsageError{op.name + ": unknown option --" + o.name + " (see imgcolor help " + op.name + ")"};
    if (step.values.Has(a->name)) throw UsageError{"--" + a->name + ": given more than once"};
    std::string error;
    if (!imgtool::ParseArg(*a, value, step.values, error)) throw UsageError{error};
  }
  imgtool::ApplyDefaults(op, step.values);
  return step;
}

// Runs one step on the decoded bitmap: its kind is checked first (an earlier
// step may have changed it), its region is set for the call and removed after.
// `after` names the previous step in a chain, for the messages.
void RunStep(const Step &step, const std::string &after, const Input &in, BitmapRecord *bitmap,
             const IoOptions &io, std::ostream &report) {
  const OpDescriptor &op = *step.op;
  const uint32_t kind = imgtool::KindBitOf(bitmap);
  if ((kind & op.kinds) == 0)
    throw Failure{op.name + ": " + in.Name() + " is a " + imgtool::KindNames(kind) + " bitmap" +
                  (after.empty() ? "" : " after " + after) + "; " + op.name + " accepts " +
                  imgtool::KindNames(op.kinds) + " (see imgcolor convert --depth)"};
  ApplyShapes(bitmap, step.shapes);
  // Row-local operations without a region run in row bands on every core
  // (or -j N); others, and -j 1, are the plain call.
  const int32_t cores = static_cast<int32_t>(std::thread::hardware_concurrency());
  const int32_t threads = io.threads ? io.threads : cores > 0 ? cores : 1;
  const int32_t status = imgtool::CallInBands(op, bitmap, step.values, report, threads);
  if (!step.shapes.empty()) FreeBitmapRegion(bitmap);
  if (status < RC_SUCCESS) throw Failure{op.name + ": " + StatusText(status)};
}

int RunOperation(const OpDescriptor &first, const std::vector<std::string> &args) {
  const auto segments = SplitSteps(first, args);
  bool writes = false;
  for (const auto &[op, segment] : segments) writes = writes || op->writesImage;
  if (segments.size() > 1)
    for (const auto &[op, segment] : segments)
      if (op->files)
        throw UsageError{op->name + ": reads several images or writes several; it runs on its own, not " +
                         "in a chain of operations"};

  std::vector<std::string> positional;
  IoOptions io;
  std::vector<Step> steps;
  for (const auto &[op, segment] : segments) steps.push_back(ParseStep(*op, segment, writes, positional, io));
  if (first.files) return RunFilesOperation(first, positional, steps[0].values, steps[0].shapes, io);
  const std::string usage = OperationUsage(first) + (segments.size() > 1 ? " OP [--ARG VALUE ...] ..." : "");
  if (writes)
    ExpectFiles(first.name, positional, {"IN", "OUT"}, usage);
  else
    ExpectFiles(first.name, positional, {"IN"}, usage);
  const Input in = imgtool::ParseInput(positional[0]);
  Output out;
  if (writes) out = imgtool::ParseOutput(positional[1], in, io);

  // The operations share 10-90 % of the bar (to 100 % without OUT).
  std::ostringstream report;
  imgtool::ProgressBar progress(io.ProgressWanted());
  progress.Phase("reading", 0, 10);
  Bitmap bitmap;
  imgtool::ReadInput(in, bitmap, io.maxPixels);
  const int32_t span = (writes ? 90 : 100) - 10, count = static_cast<int32_t>(steps.size());
  for (int32_t i = 0; i < count; ++i) {
    progress.Phase(steps[static_cast<size_t>(i)].op->name, 10 + span * i / count,
                   10 + span * (i + 1) / count);
    RunStep(steps[static_cast<size_t>(i)], i ? steps[static_cast<size_t>(i - 1)].op->name : "", in,
            bitmap.get(), io, report);
  }
  if (writes) {
    progress.Phase("writing", 90, 100);
    imgtool::WriteOutput(out, bitmap.get(), &bitmap.metadata());
  }
  progress.Finish();
  // Reported values never mix with an image written to standard output.
  (out.toStdout ? std::cerr : std::cout) << report.str();
  return 0;
}

// ---- batch ---------------------------------------------------------------------------------

const char *const kBatchUsage =
    "imgcolor batch OP [--ARG VALUE ...] [OP [--ARG VALUE ...] ...] -o OUTDIR [-j N] [--format F] "
    "[--quality N] [--quiet|--progress] [--max-pixels N] FILE...";

// The file name of a path, without its directories.
std::string BaseName(const std::string &path) {
  const size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// One status callback for each worker: the share of its current file, which
// the line adds up. It never cancels.
struct WorkerProgress {
  std::atomic<int32_t> percent{0};
  static int32_t Callback(int32_t percent, void *user) {
    static_cast<WorkerProgress *>(user)->percent.store(percent < 0 ? 0 : percent > 100 ? 100 : percent);
    return 1;
  }
};

// Runs one chain of operations on every FILE, writing OUTDIR/NAME, on -j N
// worker threads (one file at a time each, every thread with its own status
// callback and kernel settings), under one progress line. A failed file is
// reported and the others go on; the exit status is 1 when any failed.
int Batch(const std::vector<std::string> &args) {
  if (args.empty() || !imgtool::FindOperation(args[0]))
    throw UsageError{args.empty() ? "batch: missing OP (see imgcolor list)"
                                  : "batch: '" + args[0] + "' is not an operation (see imgcolor list)",
                     kBatchUsage};
  std::vector<std::pair<const OpDescriptor *, std::vector<std::string>>> segments;
  std::vector<std::string> files;
  std::string outDir;
  IoOptions io;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string &a = args[i];
    if (a == "-o" || a == "--output-dir" || a.compare(0, 13, "--output-dir=") == 0) {
      if (a.size() > 13) {
        outDir = a.substr(13);
      } else {
        if (i + 1 >= args.size()) throw UsageError{a + ": missing value", kBatchUsage};
        outDir = args[++i];
      }
    } else if (a.size() > 1 && a[0] == '-' && !(a[1] >= '0' && a[1] <= '9')) {
      segments.back().second.push_back(a);
      const bool longValue = a.compare(0, 2, "--") == 0 && a.find('=') == std::string::npos &&
                             TakesValue(*segments.back().first, a.substr(2));
      if ((longValue || a == "-j") && i + 1 < args.size()) segments.back().second.push_back(args[++i]);
    } else if (const OpDescriptor *op = imgtool::FindOperation(a)) {
      segments.push_back({op, {}});
    } else {
      files.push_back(a);
    }
  }
  std::vector<Step> steps;
  for (const auto &[op, segment] : segments) {
    if (op->files || !op->writesImage)
      throw UsageError{"batch: " + op->name + " does not write one image from one (it runs on its own)",
                       kBatchUsage};
    std::vector<std::string> none;
    steps.push_back(ParseStep(*op, segment, true, none, io));
  }
  if (outDir.empty()) throw UsageError{"batch: missing -o OUTDIR (nothing was read or written)", kBatchUsage};
  if (io.inPlace) throw UsageError{"batch: --in-place: batch never replaces its inputs", kBatchUsage};
  if (files.empty()) throw UsageError{"batch: missing FILE (nothing was read or written)", kBatchUsage};

  // Every name is settled before any work: an output that is an input, or
  // two inputs that would write the same output, are refused.
  struct Job {
    Input in;
    Output out;
  };
  std::vector<Job> jobs;
  const FileFormat named = imgtool::FormatFromName(io.format);
  IoOptions naming = io;
  naming.inPlace = true;                                      // outputs are checked against every input below
  std::map<std::pair<dev_t, ino_t>, std::string> inputFiles;  // file -> FILE
  std::map<std::string, std::string> inputPaths, outputs;     // path -> FILE
  for (const std::string &file : files) {
    if (file == "-" || file.compare(0, 7, "sample:") == 0)
      throw UsageError{"batch: " + file + ": batch reads files (name it ./" + file + " if it is one)",
                       kBatchUsage};
    std::string name = BaseName(file);
    if (named != FileFormat::Unknown) {
      const size_t dot = name.find_last_of('.');
      name = (dot == std::string::npos || dot == 0 ? name : name.substr(0, dot)) + "." +
             imgtool::FormatExtension(named);
    }
    const Input in = imgtool::ParseInput(file);
    jobs.push_back({in, imgtool::ParseOutput(outDir + "/" + name, in, naming)});
    const auto [other, fresh] = outputs.emplace(jobs.back().out.path, file);
    if (!fresh)
      throw UsageError{"batch: " + other->second + " and " + file + " would both write " + other->first};
    struct stat st;
    if (::stat(file.c_str(), &st) == 0) inputFiles.emplace(std::make_pair(st.st_dev, st.st_ino), file);
    inputPaths.emplace(file, file);
  }
  // An output is never an input: the same file when it exists (links
  // included), else the same path text.
  for (const Job &job : jobs) {
    struct stat st;
    const bool exists = ::stat(job.out.path.c_str(), &st) == 0;
    const auto file = exists ? inputFiles.find({st.st_dev, st.st_ino}) : inputFiles.end();
    const auto path = exists ? inputPaths.end() : inputPaths.find(job.out.path);
    if (file != inputFiles.end() || path != inputPaths.end())
      throw UsageError{"batch: " + job.out.path + " would replace the input " +
                           (file != inputFiles.end() ? file->second : path->second) +
                           "; batch never replaces its inputs",
                       kBatchUsage};
  }
  struct stat st;
  if (::stat(outDir.c_str(), &st) != 0) {
    if (::mkdir(outDir.c_str(), 0777) != 0) throw Failure{outDir + ": " + std::strerror(errno)};
  } else if (!S_ISDIR(st.st_mode)) {
    throw UsageError{"batch: " + outDir + ": is not a directory"};
  }

  const int32_t cores = static_cast<int32_t>(std::thread::hardware_concurrency());
  const size_t workers = std::min<size_t>(jobs.size(), static_cast<size_t>(io.threads  ? io.threads
                                                                           : cores > 0 ? cores
                                                                                       : 1));
  IoOptions single = io;
  single.threads = 1;  // the workers are the threads: no row bands inside them
  imgtool::ProgressBar progress(io.ProgressWanted());
  std::atomic<size_t> next{0}, done{0}, failed{0};
  std::vector<WorkerProgress> shares(workers);
  auto line = [&] {
    int64_t sum = static_cast<int64_t>(done.load()) * 100;
    for (const WorkerProgress &w : shares) sum += w.percent.load();
    const int32_t percent = static_cast<int32_t>(sum / static_cast<int64_t>(jobs.size()));
    progress.Set(percent, std::to_string(done.load()) + "/" + std::to_string(jobs.size()) + " files" +
                              (failed.load() ? ", " + std::to_string(failed.load()) + " failed" : ""));
  };
  auto work = [&](size_t index) {
    WorkerProgress &share = shares[index];
    SetStatusCallback(&WorkerProgress::Callback, &share);
    for (size_t j; (j = next.fetch_add(1)) < jobs.size();) {
      std::string error;
      try {
        Bitmap bitmap;
        imgtool::ReadInput(jobs[j].in, bitmap, io.maxPixels);
        std::ostringstream report;
        for (size_t i = 0; i < steps.size(); ++i)
          RunStep(steps[i], i ? steps[i - 1].op->name : "", jobs[j].in, bitmap.get(), single, report);
        imgtool::WriteOutput(jobs[j].out, bitmap.get(), &bitmap.metadata());
      } catch (const Failure &e) {
        error = e.message;
      } catch (const UsageError &e) {
        error = e.message;
      } catch (const std::bad_alloc &) {
        error = jobs[j].in.Name() + ": out of memory";
      }
      share.percent.store(0);
      if (!error.empty()) {
        ++failed;
        progress.Message("imgcolor: " + error);
      }
      ++done;
      line();
    }
    SetStatusCallback(nullptr, nullptr);
  };
  line();
  std::vector<std::thread> threads;
  for (size_t w = 1; w < workers; ++w) threads.emplace_back(work, w);
  work(0);  // the calling thread is worker 0: its callback replaces the bar's for the run
  for (std::thread &t : threads) t.join();
  progress.Finish();
  if (failed.load()) {
    std::cerr << "imgcolor: batch: " << failed.load() << " of " << jobs.size() << " files failed\n";
    return kExitFailure;
  }
  return 0;
}

int List() {
  const std::vector<OpDescriptor> &ops = imgtool::Operations();
  if (ops.empty()) {
    std::cout << "no operations registered\n";
    return 0;
  }
  size_t width = 0;
  for (const OpDescriptor &op : ops) width = std::max(width, op.name.size());
  for (const OpDescriptor &op : ops)
    std::cout << "  " << op.name << std::string(width + 2 - op.name.size(), ' ') << op.summary << "\n";
  return 0;
}

int Help(const std::vector<std::string> &args) {
  if (args.empty()) {
    Usage(std::cout);
    return 0;
  }
  if (args.size() > 1) throw UsageError{"help takes one operation name"};
  const OpDescriptor *op = imgtool::FindOperation(args[0]);
  if (!op) throw UsageError{"unknown operation '" + args[0] + "' (see imgcolor list)"};
  OperationHelp(*op, std::cout);
  return 0;
}

int Run(const std::vector<std::string> &argv) {
  if (argv.empty()) {
    Usage(std::cerr);
    return kExitUsage;
  }
  const std::string &command = argv[0];
  const std::vector<std::string> rest(argv.begin() + 1, argv.end());
  if (command == "info") return Info(rest);
  if (command == "convert") return Convert(rest);
  if (command == "list") {
    if (!rest.empty()) throw UsageError{"list takes no arguments"};
    return List();
  }
  if (command == "help" || command == "--help" || command == "-h") return Help(rest);
  if (command == "gallery") return imgtool::RunGallery(rest);
  if (command == "batch") return Batch(rest);
  if (command == "--version" || command == "version") {
    std::cout << "imgcolor " IMG_VERSION "\nformats: " << imgtool::AvailableFormats() << "\n";
    return 0;
  }
  if (const OpDescriptor *op = imgtool::FindOperation(command)) return RunOperation(*op, rest);
  throw UsageError{"unknown command '" + command + "' (see imgcolor help and imgcolor list)"};
}

}  // namespace

int main(int argc, char **argv) {
  try {
    return Run(std::vector<std::string>(argv + 1, argv + argc));
  } catch (const UsageError &e) {
    std::cerr << "imgcolor: " << e.message << "\n";
    if (!e.usage.empty()) std::cerr << "usage: " << e.usage << "\n";
    return kExitUsage;
  } catch (const Failure &e) {
    std::cerr << "imgcolor: " << e.message << "\n";
    return kExitFailure;
  } catch (const std::bad_alloc &) {
    std::cerr << "imgcolor: out of memory\n";
    return kExitFailure;
  }
}
