// Command-line plumbing of the imgcolor tool: its two kinds of error, option
// scanning, and where a command's image comes from and goes to.
//
// IN is a file, '-' (standard input) or 'sample:' (the built-in photograph);
// OUT is a file or '-' (standard output). Nothing is ever read or written
// that the command line does not name.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "image_io.h"
#include "imgkernel.h"

namespace imgtool {

// A command-line mistake: main prints it (and the usage line, if any) and
// exits with 2. Nothing has been read or written yet.
struct UsageError {
  explicit UsageError(std::string text, std::string usageLine = {})
      : message(std::move(text)), usage(std::move(usageLine)) {}
  std::string message;
  std::string usage;  // "imgcolor hue IN OUT ...", shown under the message
};

// A file or library failure: main prints it and exits with 1.
struct Failure {
  std::string message;
};

struct Option {
  std::string name;  // without the leading dashes
  std::string value;
  bool hasValue = false;
};

// Splits arguments into positionals and --options. `takesValue(name)` says
// whether --name consumes the next argument when written without '='. '-' and
// negative numbers are positionals; any other argument starting with '-' is
// an unknown option.
void Scan(const std::vector<std::string> &args, const std::function<bool(const std::string &)> &takesValue,
          std::vector<std::string> &positional, std::vector<Option> &options);

// The options every reading and writing command shares.
struct IoOptions {
  std::string format;     // --format png|jpeg|jpg|tiff|tif|webp: OUT's format
  int32_t quality = 0;    // --quality N (1..100): JPEG and WebP; 0 = the format's default
  bool inPlace = false;   // --in-place: OUT may be IN
  bool quiet = false;     // --quiet: no progress bar
  bool progress = false;  // --progress: the bar even when stderr is not a terminal
  int32_t threads = 0;    // -j N / --threads N: row bands of a row-local operation; 0 = every core
  uint64_t maxPixels = kDefaultMaxPixels;  // --max-pixels N: larger images are refused unread
  bool ProgressWanted() const;
};

// Consumes --format, --quality, --in-place, --quiet, --progress, --threads
// and --max-pixels (the first three only when `writes`); false for any other
// option. Throws UsageError on a bad value.
bool TakeIoOption(const Option &option, bool writes, IoOptions &io);
// `--format`, `--quality`, `--threads` and `--max-pixels` take a value.
bool IsIoValueOption(const std::string &name);

struct Input {
  enum class Source { File, Stdin, Sample } source = Source::File;
  std::string path;  // Source::File only
  // The name used in messages: the path, "standard input" or the sample's.
  std::string Name() const;
};

struct Output {
  bool toStdout = false;
  std::string path;  // not toStdout
  FileFormat format = FileFormat::Unknown;
  int32_t quality = 0;  // --quality: JPEG and WebP only
  std::string Name() const;
};

// Parses IN; throws UsageError for an unknown 'sample:...' name and for '-'
// when standard input is a terminal.
Input ParseInput(const std::string &arg);
// Parses OUT and settles its format (--format, else the extension; '-' needs
// --format) and quality (refused for a format without one). Refuses OUT when it is IN's file (same device and
// inode, or the same path text when either does not exist) unless --in-place, and '-' when standard output is
// a terminal.
Output ParseOutput(const std::string &arg, const Input &in, const IoOptions &io);

// Reads and decodes the image; throws Failure naming the input.
void ReadInput(const Input &in, Bitmap &bitmap, uint64_t maxPixels = kDefaultMaxPixels);
// Encodes the bitmap to OUT. A file is written to a temporary file in the
// same directory and renamed over OUT only when complete, so a failure never
// leaves a partial file nor touches an existing OUT; a device or a pipe is
// written directly. Throws Failure naming the output.
void WriteOutput(const Output &out, const BitmapRecord *bitmap, const Metadata *metadata = nullptr);

}  // namespace imgtool
