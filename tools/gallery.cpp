// imgcolor gallery: every operation of the registry with its default
// arguments (and the variants its descriptor lists) on one photograph, as PNG
// thumbnails and one self-contained HTML page (images embedded), with a plot
// of the tone curve of every operation that works through a fixed table.
#include "gallery.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>

#include "cli_io.h"
#include "image_io.h"
#include "imgcolor.h"
#include "registry.h"

namespace imgtool {
namespace {

constexpr int32_t kCurveSize = 256;
constexpr const char *kMarker = "<!-- imgcolor gallery -->";

bool IsDirectory(const std::string &path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool Exists(const std::string &path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0;
}

std::string ReadAll(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// The gallery writes only into an empty or missing folder, or one holding an
// earlier gallery (its index.html carries the marker).
void PrepareFolder(const std::string &dir) {
  if (!Exists(dir)) {
    if (mkdir(dir.c_str(), 0777) != 0) throw Failure{dir + ": " + std::strerror(errno)};
    return;
  }
  if (!IsDirectory(dir)) throw UsageError{dir + ": not a folder"};
  const std::string index = dir + "/index.html";
  if (Exists(index) && ReadAll(index).find(kMarker) != std::string::npos) return;
  // An empty folder is fine; anything else belongs to the user.
  bool empty = true;
  if (DIR *d = opendir(dir.c_str())) {
    while (const dirent *e = readdir(d))
      if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0) empty = false;
    closedir(d);
  }
  if (!empty)
    throw UsageError{dir + ": folder is not empty and holds no earlier gallery; name a new or empty folder"};
}

std::string Base64(const std::string &bytes) {
  static const char *k = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  for (size_t i = 0; i < bytes.size(); i += 3) {
    const uint32_t a = static_cast<uint8_t>(bytes[i]);
    const uint32_t b = i + 1 < bytes.size() ? static_cast<uint8_t>(bytes[i + 1]) : 0;
    const uint32_t c = i + 2 < bytes.size() ? static_cast<uint8_t>(bytes[i + 2]) : 0;
    const uint32_t v = a << 16 | b << 8 | c;
    out += k[v >> 18 & 63];
    out += k[v >> 12 & 63];
    out += i + 1 < bytes.size() ? k[v >> 6 & 63] : '=';
    out += i + 2 < bytes.size() ? k[v & 63] : '=';
  }
  return out;
}

std::string Html(const std::string &text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

// A 24-bit copy of `source` scaled down to `width` columns by averaging the
// source pixels each thumbnail pixel covers.
void Thumbnail(const BitmapRecord *source, int32_t width, Bitmap &thumb) {
  Bitmap colour;
  int32_t s = CopyBitmap(colour.get(), source, BITMAP_RECORD_SIZE);
  if (s == RC_SUCCESS && !(colour->BitsPerPixel == 24 && colour->ColorOrder == ORDER_BGR))
    s = ConvertBitmapFormat(colour.get(), colour.get(), BITMAP_RECORD_SIZE, 24, ORDER_BGR, nullptr, 0, 0);
  if (s != RC_SUCCESS) throw Failure{std::string("thumbnail: ") + Q_StatusMessage(s)};
  const int32_t w = std::min(width, colour->Width);
  const int32_t h = std::max<int32_t>(1, static_cast<int32_t>(int64_t{colour->Height} * w / colour->Width));
  s = AllocateBitmap(thumb.get(), BITMAP_RECORD_SIZE, MEMORY_CONVENTIONAL, w, h, 24, ORDER_BGR, nullptr,
                     ORIENT_TOP_FIRST, nullptr, 0);
  if (s != RC_SUCCESS) throw Failure{std::string("thumbnail: ") + Q_StatusMessage(s)};
  const int32_t sw = colour->Width, sh = colour->Height;
  std::vector<uint8_t> row(static_cast<size_t>(sw) * 3);
  std::vector<uint32_t> sums(static_cast<size_t>(w) * 3);
  std::vector<uint32_t> counts(static_cast<size_t>(w));
  std::vector<uint8_t> out(static_cast<size_t>(w) * 3);
  for (int32_t ty = 0; ty < h; ++ty) {
    std::fill(sums.begin(), sums.end(), 0u);
    std::fill(counts.begin(), counts.end(), 0u);
    const int32_t y0 = static_cast<int32_t>(int64_t{ty} * sh / h);
    const int32_t y1 = std::max(y0 + 1, static_cast<int32_t>(int64_t{ty + 1} * sh / h));
    for (int32_t y = y0; y < y1; ++y) {
      GetBitmapRow(colour.get(), row.data(), y, static_cast<uint32_t>(row.size()));
      for (int32_t x = 0; x < sw; ++x) {
        const int32_t tx = static_cast<int32_t>(int64_t{x} * w / sw);
        for (int k = 0; k < 3; ++k) sums[3 * tx + k] += row[3 * x + k];
        ++counts[tx];
      }
    }
    for (int32_t tx = 0; tx < w; ++tx)
      for (int k = 0; k < 3; ++k)
        out[3 * tx + k] =
            static_cast<uint8_t>((sums[3 * tx + k] + counts[tx] / 2) / std::max(counts[tx], 1u));
    PutBitmapRow(thumb.get(), out.data(), ty, static_cast<uint32_t>(out.size()));
  }
}

void WriteFile(const std::string &path, const BitmapRecord *bitmap, FileFormat format = FileFormat::Png) {
  Output out;
  out.path = path;
  out.format = format;
  WriteOutput(out, bitmap);
}

// A copy of the photo in a kind the operation accepts: the photo's own, else
// 24-bit colour, else 8-bit gray, else a 256-colour palette bitmap.
bool InputFor(const OpDescriptor &op, const BitmapRecord *photo, Bitmap &input) {
  if (CopyBitmap(input.get(), photo, BITMAP_RECORD_SIZE) != RC_SUCCESS) return false;
  if (op.kinds & KindBitOf(photo)) return true;
  struct Choice {
    uint32_t bit;
    int32_t bits, order;
  } choices[] = {{kColor24, 24, ORDER_BGR}, {kGray8, 8, ORDER_GRAY}, {kPalette, 8, ORDER_BGR}};
  for (const Choice &c : choices)
    if (op.kinds & c.bit)
      return ConvertBitmapFormat(input.get(), input.get(), BITMAP_RECORD_SIZE, c.bits, c.order, nullptr, 0,
                                 0) == RC_SUCCESS;
  return false;
}

// The tone curve: the operation run on a ramp whose pixel x is (x, x, x),
// each channel's output plotted against x.
bool ToneCurve(const OpDescriptor &op, const ArgValues &args, Bitmap &plot) {
  Bitmap ramp;
  if (AllocateBitmap(ramp.get(), BITMAP_RECORD_SIZE, MEMORY_CONVENTIONAL, 256, 1, 24, ORDER_BGR, nullptr,
                     ORIENT_TOP_FIRST, nullptr, 0) != RC_SUCCESS)
    return false;
  uint8_t row[256 * 3];
  for (int x = 0; x < 256; ++x) row[3 * x] = row[3 * x + 1] = row[3 * x + 2] = static_cast<uint8_t>(x);
  PutBitmapRow(ramp.get(), row, 0, sizeof row);
  std::ostringstream ignored;
  if (op.call(ramp.get(), args, ignored) != RC_SUCCESS) return false;
  GetBitmapRow(ramp.get(), row, 0, sizeof row);
  const int32_t n = kCurveSize;
  if (AllocateBitmap(plot.get(), BITMAP_RECORD_SIZE, MEMORY_CONVENTIONAL, n, n, 24, ORDER_BGR, nullptr,
                     ORIENT_TOP_FIRST, nullptr, 0) != RC_SUCCESS)
    return false;
  std::vector<uint8_t> canvas(static_cast<size_t>(n) * n * 3, 255);
  auto put = [&](int x, int y, uint8_t b, uint8_t g, uint8_t r) {
    uint8_t *p = &canvas[(static_cast<size_t>(n - 1 - y) * n + x) * 3];
    p[0] = b, p[1] = g, p[2] = r;
  };
  for (int i = 0; i < n; i += 32)
    for (int j = 0; j < n; ++j) put(i, j, 225, 225, 225), put(j, i, 225, 225, 225);
  for (int x = 0; x < n; ++x) put(x, x, 200, 200, 200);  // the identity
  bool gray = true;
  for (int x = 0; x < 256; ++x)
    if (row[3 * x] != row[3 * x + 1] || row[3 * x] != row[3 * x + 2]) gray = false;
  // Blue, green, red channels in their colours (one dark line when equal),
  // joined vertically so that jumps stay visible.
  for (int k = 2; k >= 0; --k) {
    const uint8_t b = gray     ? 40
                      : k == 0 ? 220
                               : 30,
                  g = gray     ? 40
                      : k == 1 ? 160
                               : 30,
                  r = gray     ? 40
                      : k == 2 ? 220
                               : 30;
    for (int x = 0; x < 256; ++x) {
      const int y = row[3 * x + k];
      const int prev = x ? row[3 * (x - 1) + k] : y;
      for (int v = std::min(y, prev); v <= std::max(y, prev); ++v) put(x, v, b, g, r);
    }
    if (gray) break;
  }
  for (int y = 0; y < n; ++y) PutBitmapRow(plot.get(), &canvas[static_cast<size_t>(y) * n * 3], y, n * 3);
  return true;
}

struct Entry {
  std::string title;    // operation (variant)
  std::string command;  // the tool command that makes it
  std::string exportName;
  std::string summary;
  std::string image;   // file name in the folder, empty when there is none
  std::string curve;   // tone curve file, or empty
  std::string result;  // values the call reported, or the failure
  double ms = 0;
};

std::string CommandLine(const OpDescriptor &op,
                        const std::vector<std::pair<std::string, std::string>> &given) {
  std::string line = "imgcolor " + op.name + " IN" + (op.writesImage ? " OUT" : "");
  for (const auto &[name, value] : given) line += " --" + name + " " + value;
  return line;
}

std::string FileStem(const std::string &op, size_t variant) {
  return variant ? op + "-" + std::to_string(variant) : op;
}

}  // namespace

int RunGallery(const std::vector<std::string> &args) {
  const std::string usage =
      "imgcolor gallery [PHOTO] [DIR] [--width N] [--format png|jpeg] [--quiet|--progress]";
  std::vector<std::string> positional;
  std::vector<Option> options;
  Scan(
      args, [](const std::string &name) { return name == "width" || name == "format"; }, positional, options);
  bool quiet = !isatty(STDERR_FILENO);
  int64_t width = 360;
  FileFormat format = FileFormat::Png;
  for (const Option &o : options) {
    if (o.name == "quiet" && !o.hasValue) {
      quiet = true;
    } else if (o.name == "progress" && !o.hasValue) {
      quiet = false;
    } else if (o.name == "width" && o.hasValue) {
      if (!ParseNumber(o.value, width) || width < 16 || width > 4096)
        throw UsageError{"--width: '" + o.value + "' is not a width (expected 16..4096 pixels)"};
    } else if (o.name == "format" && o.hasValue) {
      if (o.value == "png")
        format = FileFormat::Png;
      else if (o.value == "jpeg" || o.value == "jpg")
        format = FileFormat::Jpeg;
      else
        throw UsageError{"--format: '" + o.value + "' is not a thumbnail format (expected png or jpeg)"};
    } else {
      throw UsageError{"gallery: unknown option --" + o.name, usage};
    }
  }
  const auto ext = [&] { return format == FileFormat::Png ? std::string(".png") : std::string(".jpg"); };
  if (positional.size() > 2) throw UsageError{"gallery: too many arguments", usage};
  const Input in = ParseInput(positional.empty() ? "sample:" : positional[0]);
  const std::string dir = positional.size() > 1 ? positional[1] : "gallery";
  Bitmap photo;
  ReadInput(in, photo);
  PrepareFolder(dir);

  std::vector<Entry> entries;
  Bitmap thumb;
  Thumbnail(photo.get(), static_cast<int32_t>(width), thumb);
  WriteFile(dir + "/original" + ext(), thumb.get(), format);
  const auto &ops = Operations();
  size_t done = 0;
  for (const OpDescriptor &op : ops) {
    if (!quiet) std::fprintf(stderr, "\rgallery: %zu/%zu %-28s", ++done, ops.size(), op.name.c_str());
    std::vector<std::vector<std::pair<std::string, std::string>>> runs{{}};
    std::vector<std::string> labels{"defaults"};
    for (const GalleryVariant &v : op.variants) runs.push_back(v.args), labels.push_back(v.label);
    for (size_t i = 0; i < runs.size(); ++i) {
      Entry e;
      e.title = op.name + (i ? " (" + labels[i] + ")" : "");
      e.exportName = op.exportName;
      e.summary = op.summary;
      e.command = CommandLine(op, runs[i]);
      ArgValues values;
      std::string error;
      for (const auto &[name, value] : runs[i]) {
        const auto arg =
            std::find_if(op.args.begin(), op.args.end(), [&](const ArgSpec &a) { return a.name == name; });
        if (arg == op.args.end() || !ParseArg(*arg, value, values, error))
          throw Failure{op.name + ": gallery variant '" + labels[i] +
                        "': " + (error.empty() ? "no argument " + name : error)};
      }
      ApplyDefaults(op, values);
      Bitmap input;
      if (!InputFor(op, photo.get(), input)) {
        e.result = "no kind of bitmap the photo converts to is accepted";
        entries.push_back(e);
        continue;
      }
      std::ostringstream report;
      const auto t0 = std::chrono::steady_clock::now();
      const int32_t status = op.call(input.get(), values, report);
      e.ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
      e.result = report.str();
      if (status != RC_SUCCESS) {
        e.result += std::string("status ") + std::to_string(status) + " " + Q_StatusName(status);
      } else if (op.writesImage) {
        Bitmap small;
        Thumbnail(input.get(), static_cast<int32_t>(width), small);
        e.image = FileStem(op.name, i) + ext();
        WriteFile(dir + "/" + e.image, small.get(), format);
      }
      Bitmap plot;
      if (op.toneCurve && ToneCurve(op, values, plot)) {
        e.curve = FileStem(op.name, i) + "-curve.png";
        WriteFile(dir + "/" + e.curve, plot.get());
      }
      entries.push_back(e);
    }
  }
  if (!quiet) std::fprintf(stderr, "\rgallery: %zu operations%30s\n", ops.size(), "");

  auto img = [&](const std::string &file, const std::string &alt) {
    const bool jpeg = file.size() > 4 && file.compare(file.size() - 4, 4, ".jpg") == 0;
    return std::string("<img src=\"data:image/") + (jpeg ? "jpeg" : "png") + ";base64," +
           Base64(ReadAll(dir + "/" + file)) + "\" alt=\"" + Html(alt) + "\" title=\"" + Html(file) + "\">";
  };
  std::ostringstream html;
  html << "<!DOCTYPE html>\n"
       << kMarker << "\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
       << "<title>imgcolor gallery</title><style>"
       << "body{font-family:sans-serif;margin:1em;background:#fafafa}"
       << ".grid{display:flex;flex-wrap:wrap;gap:1em}"
       << ".card{background:#fff;border:1px solid #ddd;padding:.5em;width:"
       << std::max<int64_t>(width, 256) + 10 << "px}"
       << ".card img{display:block;max-width:100%}code{font-size:.8em;word-break:break-all}"
       << "pre{font-size:.75em;white-space:pre-wrap;max-height:10em;overflow:auto}"
       << "</style></head><body>\n<h1>imgcolor gallery</h1>\n<p>Photo: " << Html(in.Name()) << ", "
       << photo->Width << " &times; " << photo->Height << ". Every operation with its default arguments; "
       << "times are one call on the full photo on this machine.</p>\n<div class=\"grid\">\n"
       << "<div class=\"card\"><h3>original</h3>" << img("original" + ext(), "original") << "</div>\n";
  for (const Entry &e : entries) {
    html << "<div class=\"card\" id=\"" << Html(e.title) << "\"><h3>" << Html(e.title) << "</h3>";
    if (!e.image.empty()) html << img(e.image, e.title);
    if (!e.curve.empty()) html << img(e.curve, e.title + " tone curve");
    html << "<p>" << Html(e.summary) << "</p><p><code>" << Html(e.exportName) << "</code><br><code>"
         << Html(e.command) << "</code></p>";
    if (!e.result.empty()) html << "<pre>" << Html(e.result) << "</pre>";
    char ms[32];
    std::snprintf(ms, sizeof ms, "%.1f ms", e.ms);
    html << "<p>" << ms << "</p></div>\n";
  }
  // Marks the page with the number of images and of those that did not load,
  // for the test that opens it in a browser.
  html << "</div>\n<script>window.addEventListener('load',function(){var i=document.images,b=0;"
          "for(var k=0;k<i.length;k++)if(!i[k].complete||i[k].naturalWidth===0)b++;"
          "document.body.setAttribute('data-images',i.length);document.body.setAttribute('data-broken',b);});"
          "</script>\n</body></html>\n";
  const std::string index = dir + "/index.html";
  std::ofstream page(index, std::ios::binary | std::ios::trunc);
  page << html.str();
  page.close();
  if (!page) throw Failure{index + ": write failed"};
  std::printf("%s\n", index.c_str());
  return 0;
}

}  // namespace imgtool
