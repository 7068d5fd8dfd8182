#include "cli_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "registry.h"

namespace imgtool {

extern const uint8_t kSamplePhoto[];
extern const std::size_t kSamplePhotoSize;

namespace {

constexpr const char *kSampleArg = "sample:";
constexpr const char *kSampleName = "chelsea.png (built-in sample)";

std::string ErrnoText() { return std::strerror(errno); }

// The file a path finally names: a symbolic link is followed so that the
// replacement lands on its target and the link stays.
std::string ResolvedPath(const std::string &path) {
  struct stat st;
  if (::lstat(path.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) return path;
  char resolved[PATH_MAX];
  return ::realpath(path.c_str(), resolved) ? std::string(resolved) : path;
}

// A temporary file beside the final one, removed unless committed.
class TempFile {
 public:
  TempFile() = default;
  TempFile(const TempFile &) = delete;
  TempFile &operator=(const TempFile &) = delete;
  ~TempFile() {
    if (fp_) std::fclose(fp_);
    if (!path_.empty()) ::unlink(path_.c_str());
  }
  // Creates ".NAME.PID.N.tmp" in the directory of `target`, with the owner
  // and permissions of the file it replaces (`existing`), or 0666 less the
  // umask for a new one; false with errno set.
  bool Create(const std::string &target, const struct stat *existing) {
    const size_t slash = target.find_last_of('/');
    const std::string dir = slash == std::string::npos ? "" : target.substr(0, slash + 1);
    const std::string base = slash == std::string::npos ? target : target.substr(slash + 1);
    for (int attempt = 0; attempt < 100; ++attempt) {
      const std::string name =
          dir + "." + base + "." + std::to_string(::getpid()) + "." + std::to_string(attempt) + ".tmp";
      const int fd = ::open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
      if (fd < 0 && errno == EEXIST) continue;
      if (fd < 0) return false;
      path_ = name;
      if (existing) {
        // Keep the replaced file's owner (refused unless privileged: the
        // file is then ours) and its permissions.
        const int ownerKept = ::fchown(fd, existing->st_uid, existing->st_gid);
        static_cast<void>(ownerKept);
        ::fchmod(fd, existing->st_mode & 07777);
      }
      fp_ = ::fdopen(fd, "wb");
      if (!fp_) {
        ::close(fd);
        return false;
      }
      return true;
    }
    errno = EEXIST;
    return false;
  }
  FILE *get() const { return fp_; }
  // Flushes the data to disk and renames the file over `target`; false with
  // errno set.
  bool Commit(const std::string &target) {
    int error = 0;
    errno = 0;
    if (std::fflush(fp_) != 0 || std::ferror(fp_) || ::fsync(::fileno(fp_)) != 0) error = errno ? errno : EIO;
    if (std::fclose(fp_) != 0 && error == 0) error = errno;
    fp_ = nullptr;
    if (error == 0 && ::rename(path_.c_str(), target.c_str()) != 0) error = errno;
    if (error != 0) {
      errno = error;
      return false;
    }
    path_.clear();
    return true;
  }

 private:
  std::string path_;
  FILE *fp_ = nullptr;
};

}  // namespace

void Scan(const std::vector<std::string> &args, const std::function<bool(const std::string &)> &takesValue,
          std::vector<std::string> &positional, std::vector<Option> &options) {
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string &a = args[i];
    if (a.size() > 2 && a.compare(0, 2, "--") == 0) {
      Option o;
      const size_t eq = a.find('=');
      o.name = a.substr(2, eq == std::string::npos ? std::string::npos : eq - 2);
      if (eq != std::string::npos) {
        o.value = a.substr(eq + 1);
        o.hasValue = true;
      } else if (takesValue(o.name)) {
        if (i + 1 >= args.size()) throw UsageError{"--" + o.name + ": missing value"};
        o.value = args[++i];
        o.hasValue = true;
      }
      options.push_back(o);
    } else if (a.compare(0, 2, "-j") == 0) {
      // -j N and -jN: --threads N.
      Option o{"threads", a.substr(2), true};
      if (a.size() == 2) {
        if (i + 1 >= args.size()) throw UsageError{"-j: missing value"};
        o.value = args[++i];
      }
      options.push_back(o);
    } else if (a.size() > 1 && a[0] == '-' && !(a[1] >= '0' && a[1] <= '9')) {
      throw UsageError{"unknown option " + a};
    } else {
      positional.push_back(a);
    }
  }
}

bool IoOptions::ProgressWanted() const { return progress || (!quiet && ::isatty(STDERR_FILENO)); }

bool IsIoValueOption(const std::string &name) {
  return name == "format" || name == "quality" || name == "threads" || name == "max-pixels";
}

bool TakeIoOption(const Option &o, bool writes, IoOptions &io) {
  bool *flag = o.name == "quiet"                ? &io.quiet
               : o.name == "progress"           ? &io.progress
               : o.name == "in-place" && writes ? &io.inPlace
                                                : nullptr;
  if (flag && !o.hasValue) {
    *flag = true;
    if (io.quiet && io.progress) throw UsageError{"--quiet and --progress exclude each other"};
    return true;
  }
  if (o.name == "threads" && o.hasValue) {
    int64_t n = 0;
    if (!ParseNumber(o.value, n) || n < 1 || n > 256)
      throw UsageError{"--threads: '" + o.value + "' is not a thread count (expected 1..256)"};
    io.threads = static_cast<int32_t>(n);
    return true;
  }
  if (o.name == "max-pixels" && o.hasValue) {
    int64_t n = 0;
    if (!ParseNumber(o.value, n) || n < 1)
      throw UsageError{"--max-pixels: '" + o.value + "' is not a positive number of pixels"};
    io.maxPixels = static_cast<uint64_t>(n);
    return true;
  }
  if (o.name == "quality" && writes && o.hasValue) {
    int64_t n = 0;
    if (!ParseNumber(o.value, n) || n < 1 || n > 100)
      throw UsageError{"--quality: '" + o.value + "' is not a quality (expected 1..100)"};
    io.quality = static_cast<int32_t>(n);
    return true;
  }
  if (o.name != "format" || !writes || !o.hasValue) return false;
  const FileFormat format = FormatFromName(o.value);
  if (format == FileFormat::Unknown)
    throw UsageError{"--format: '" + o.value +
                     "' is not a format (expected png, jpeg, jpg, tiff, tif or webp)"};
  if (!FormatAvailable(format))
    throw UsageError{"--format: this build has no " + o.value + " support (it writes " + AvailableFormats() +
                     ")"};
  io.format = o.value;
  return true;
}

std::string Input::Name() const {
  return source == Source::Stdin ? "standard input" : source == Source::Sample ? kSampleName : path;
}

std::string Output::Name() const { return toStdout ? "standard output" : path; }

Input ParseInput(const std::string &arg) {
  Input in;
  if (arg == "-") {
    if (::isatty(STDIN_FILENO))
      throw UsageError{"-: standard input is a terminal (pipe an image in, or name a file)"};
    in.source = Input::Source::Stdin;
  } else if (arg == kSampleArg) {
    in.source = Input::Source::Sample;
  } else if (arg.compare(0, std::strlen(kSampleArg), kSampleArg) == 0) {
    throw UsageError{"unknown built-in image '" + arg + "' (the built-in photograph is sample:)"};
  } else {
    in.path = arg;
  }
  return in;
}

Output ParseOutput(const std::string &arg, const Input &in, const IoOptions &io) {
  Output out;
  out.toStdout = arg == "-";
  if (!out.toStdout) out.path = arg;
  const FileFormat named = FormatFromName(io.format);
  const FileFormat byExtension = out.toStdout ? FileFormat::Unknown : FormatFromExtension(arg);
  if (named != FileFormat::Unknown && byExtension != FileFormat::Unknown && named != byExtension)
    throw UsageError{"--format " + io.format + " contradicts the extension of " + arg};
  out.format = named != FileFormat::Unknown ? named : byExtension;
  if (out.format == FileFormat::Unknown)
    throw UsageError{out.toStdout ? "-: standard output needs --format png or --format jpeg"
                                  : arg + ": unknown output format (use .png, .jpg or .jpeg, or --format)"};
  if (!FormatAvailable(out.format))
    throw UsageError{arg + ": this build cannot write ." + FormatExtension(out.format) + " (it writes " +
                     AvailableFormats() + ")"};
  if (io.quality && out.format != FileFormat::Jpeg && out.format != FileFormat::WebP)
    throw UsageError{"--quality: " + out.Name() + " is not JPEG or WebP (PNG and TIFF are lossless)"};
  out.quality = io.quality;
  if (out.toStdout && ::isatty(STDOUT_FILENO))
    throw UsageError{"-: standard output is a terminal (redirect it, or name a file)"};
  if (!out.toStdout && in.source == Input::Source::File && !io.inPlace) {
    struct stat a, b;
    const bool same = ::stat(in.path.c_str(), &a) == 0 && ::stat(arg.c_str(), &b) == 0
                          ? a.st_dev == b.st_dev && a.st_ino == b.st_ino
                          : in.path == arg;
    if (same)
      throw UsageError{arg + ": is the input file " + in.path +
                       "; refusing to overwrite it (--in-place allows it)"};
  }
  return out;
}

void ReadInput(const Input &in, Bitmap &bitmap, uint64_t maxPixels) {
  std::string error;
  bool ok;
  if (in.source == Input::Source::Sample) {
    ok = ReadImageMemory(kSamplePhoto, kSamplePhotoSize, bitmap, error, maxPixels);
  } else if (in.source == Input::Source::File) {
    ok = ReadImageFile(in.path, bitmap, error, maxPixels);
  } else {
    std::vector<uint8_t> bytes;
    uint8_t chunk[65536];
    size_t got;
    while ((got = std::fread(chunk, 1, sizeof chunk, stdin)) > 0)
      bytes.insert(bytes.end(), chunk, chunk + got);
    ok = !std::ferror(stdin);
    if (!ok)
      error = ErrnoText();
    else
      ok = ReadImageMemory(bytes.data(), bytes.size(), bitmap, error, maxPixels);
  }
  if (!ok) throw Failure{in.Name() + ": " + error};
}

namespace {

struct CloseFile {
  void operator()(FILE *fp) const { std::fclose(fp); }
};

// Encodes to `fp`; throws Failure naming the output. When the stream failed,
// the system's reason is clearer than the encoder's.
void Encode(FILE *fp, const Output &out, const BitmapRecord *bitmap, const Metadata *metadata) {
  std::string error;
  if (WriteImage(fp, out.format, bitmap, error, WriteSettings{out.quality, metadata})) return;
  if (std::ferror(fp)) error = "write failed: " + ErrnoText();
  throw Failure{out.Name() + ": " + error};
}

}  // namespace

void WriteOutput(const Output &out, const BitmapRecord *bitmap, const Metadata *metadata) {
  if (out.toStdout) {
    Encode(stdout, out, bitmap, metadata);
    if (std::fflush(stdout) != 0 || std::ferror(stdout))
      throw Failure{out.Name() + ": write failed: " + ErrnoText()};
    return;
  }
  const std::string target = ResolvedPath(out.path);
  struct stat st;
  const bool exists = ::stat(target.c_str(), &st) == 0;
  if (exists && S_ISDIR(st.st_mode)) throw Failure{out.path + ": is a directory"};
  if (exists && !S_ISREG(st.st_mode)) {
    // A device or a pipe: nothing to replace, so it is written directly.
    const std::unique_ptr<FILE, CloseFile> fp(std::fopen(target.c_str(), "wb"));
    if (!fp) throw Failure{out.path + ": " + ErrnoText()};
    Encode(fp.get(), out, bitmap, metadata);
    if (std::fflush(fp.get()) != 0 || std::ferror(fp.get()))
      throw Failure{out.path + ": write failed: " + ErrnoText()};
    return;
  }
  TempFile temp;
  if (!temp.Create(target, exists ? &st : nullptr)) throw Failure{out.path + ": " + ErrnoText()};
  Encode(temp.get(), out, bitmap, metadata);
  if (!temp.Commit(target)) throw Failure{out.path + ": write failed: " + ErrnoText()};
}

}  // namespace imgtool
