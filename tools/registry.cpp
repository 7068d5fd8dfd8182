#include "registry.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "pixels.h"

namespace imgtool {

namespace {

// Function-local so that registrars in other files may run first.
std::vector<OpDescriptor> &Storage() {
  static std::vector<OpDescriptor> ops;
  return ops;
}

[[noreturn]] void BadDescriptor(const OpDescriptor &op, const std::string &what) {
  std::fprintf(stderr, "imgcolor: registry: operation '%s': %s\n", op.name.c_str(), what.c_str());
  std::abort();
}

bool IsKebab(const std::string &name) {
  if (name.empty() || !std::islower(static_cast<unsigned char>(name.front())) || name.back() == '-')
    return false;
  for (size_t i = 0; i < name.size(); ++i) {
    const char c = name[i];
    if (c == '-' && name[i - 1] == '-') return false;
    if (c != '-' && !std::islower(static_cast<unsigned char>(c)) &&
        !std::isdigit(static_cast<unsigned char>(c)))
      return false;
  }
  return true;
}

// Names the tool itself uses: an operation may not take them.
bool IsReservedCommand(const std::string &name) {
  return name == "info" || name == "convert" || name == "list" || name == "help" || name == "gallery" ||
         name == "batch";
}
bool IsReservedOption(const std::string &name) {
  return name == "rect" || name == "ellipse" || name == "polygon" || name == "quiet" || name == "help" ||
         name == "progress" || name == "format" || name == "in-place" || name == "quality" ||
         name == "threads" || name == "max-pixels" || name == "output-dir";
}

void CheckDescriptor(const OpDescriptor &op) {
  if (!IsKebab(op.name)) BadDescriptor(op, "name is not kebab-case");
  if (IsReservedCommand(op.name)) BadDescriptor(op, "name is a built-in command");
  if (FindOperation(op.name)) BadDescriptor(op, "registered twice");
  if (op.exportName.empty() || op.summary.empty()) BadDescriptor(op, "export name or summary missing");
  if (op.family.title.empty() || op.family.source.empty()) BadDescriptor(op, "family missing");
  if (!op.call) BadDescriptor(op, "no call function");
  if (op.minInputs < 1 || op.minInputs > op.maxInputs || (op.maxInputs > 1 && !op.files))
    BadDescriptor(op, "bad input count, or several inputs without a files function");
  if ((op.kinds & kAnyKind) == 0 || (op.kinds & ~static_cast<uint32_t>(kAnyKind)) != 0)
    BadDescriptor(op, "bad kinds mask");
  for (size_t i = 0; i < op.args.size(); ++i) {
    const ArgSpec &a = op.args[i];
    if (!IsKebab(a.name) || IsReservedOption(a.name)) BadDescriptor(op, "bad argument name '" + a.name + "'");
    for (size_t j = 0; j < i; ++j)
      if (op.args[j].name == a.name) BadDescriptor(op, "argument '" + a.name + "' given twice");
    if (a.unit.empty()) BadDescriptor(op, "argument '" + a.name + "' has no unit");
    if (a.type == ArgType::Enum && a.values.empty()) BadDescriptor(op, "enum '" + a.name + "' has no values");
    if ((a.type == ArgType::Int || a.type == ArgType::UInt || a.type == ArgType::IntList) && a.min > a.max)
      BadDescriptor(op, "argument '" + a.name + "' has an empty range");
    const bool unsignedType = a.type == ArgType::UInt;
    if ((a.type == ArgType::Int || a.type == ArgType::UInt || a.type == ArgType::IntList) &&
        (a.min < (unsignedType ? 0 : INT32_MIN) || a.max > (unsignedType ? int64_t{UINT32_MAX} : INT32_MAX)))
      BadDescriptor(op, "argument '" + a.name + "' has a range wider than its type");
    if (a.type == ArgType::IntList && (a.minCount < 1 || a.minCount > a.maxCount))
      BadDescriptor(op, "argument '" + a.name + "' has a bad element count range");
    ArgValues probe;
    std::string error;
    if (!ParseArg(a, a.defaultValue, probe, error)) BadDescriptor(op, "default: " + error);
  }
}

std::string Quoted(std::string_view text) {
  // Built by appending: GCC 12 warns falsely (-Wrestrict) about "'" + string.
  std::string quoted;
  quoted.reserve(text.size() + 2);
  quoted += '\'';
  quoted += text;
  quoted += '\'';
  return quoted;
}

std::string Trim(std::string_view text) {
  size_t b = 0, e = text.size();
  while (b < e && std::isspace(static_cast<unsigned char>(text[b]))) ++b;
  while (e > b && std::isspace(static_cast<unsigned char>(text[e - 1]))) --e;
  return std::string(text.substr(b, e - b));
}

std::string Lower(std::string_view text) {
  std::string s(text);
  for (char &c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

bool ParseColour(std::string_view text, int64_t &value) {
  if (!text.empty() && text.front() == '#') {
    if (text.size() != 7) return false;
    uint32_t rgb = 0;
    for (char c : text.substr(1)) {
      if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
      rgb = rgb * 16 + static_cast<uint32_t>(std::isdigit(static_cast<unsigned char>(c))
                                                 ? c - '0'
                                                 : std::tolower(c) - 'a' + 10);
    }
    // #RRGGBB reads red first; the family's colour value holds red lowest.
    value = static_cast<int64_t>(((rgb >> 16) & 0xFFu) | (rgb & 0xFF00u) | ((rgb & 0xFFu) << 16));
    return true;
  }
  return ParseNumber(text, value) && value >= 0 && value <= 0xFFFFFFFFll;
}

}  // namespace

bool ParseNumber(std::string_view text, int64_t &value) {
  std::string s = Trim(text);
  if (s.empty()) return false;
  bool negative = false;
  size_t i = 0;
  if (s[0] == '-' || s[0] == '+') {
    negative = s[0] == '-';
    i = 1;
  }
  int base = 10;
  if (s.size() > i + 1 && s[i] == '0' && (s[i + 1] == 'x' || s[i + 1] == 'X')) {
    base = 16;
    i += 2;
  }
  if (i >= s.size()) return false;
  uint64_t magnitude = 0;
  for (; i < s.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    int digit;
    if (std::isdigit(c))
      digit = c - '0';
    else if (base == 16 && std::isxdigit(c))
      digit = std::tolower(c) - 'a' + 10;
    else
      return false;
    if (magnitude > (static_cast<uint64_t>(std::numeric_limits<int64_t>::max()) - digit) / base) return false;
    magnitude = magnitude * base + digit;
  }
  value = negative ? -static_cast<int64_t>(magnitude) : static_cast<int64_t>(magnitude);
  return true;
}

uint32_t KindBitOf(const BitmapRecord *bitmap) {
  switch (img::KindOf(bitmap)) {
    case img::Kind::Palette:
      return kPalette;
    case img::Kind::Gray8:
      return kGray8;
    case img::Kind::Gray12:
      return kGray12;
    case img::Kind::Gray16:
      return kGray16;
    case img::Kind::Color16:
      return kColor16;
    case img::Kind::Color24:
      return kColor24;
    case img::Kind::Color32:
      return kColor32;
    case img::Kind::Color48:
      return kColor48;
    case img::Kind::Color64:
      return kColor64;
    default:
      return 0;
  }
}

std::string KindNames(uint32_t mask) {
  static const char *const kNames[] = {"palette",       "8-bit gray",    "12-bit gray",
                                       "16-bit gray",   "16-bit colour", "24-bit colour",
                                       "32-bit colour", "48-bit colour", "64-bit colour"};
  std::string out;
  for (int i = 0; i < 9; ++i) {
    if (!(mask & (1u << i))) continue;
    if (!out.empty()) out += ", ";
    out += kNames[i];
  }
  return out.empty() ? "none" : out;
}

// ---- ArgValues ---------------------------------------------------------------

const ArgValues::Value &ArgValues::Get(std::string_view name) const {
  const auto it = values_.find(name);
  if (it == values_.end()) {
    // A call function asked for an argument its descriptor does not declare.
    std::fprintf(stderr, "imgcolor: registry: no argument '%.*s'\n", static_cast<int>(name.size()),
                 name.data());
    std::abort();
  }
  return it->second;
}

int32_t ArgValues::Int(std::string_view name) const { return static_cast<int32_t>(Get(name).scalar); }
uint32_t ArgValues::UInt(std::string_view name) const { return static_cast<uint32_t>(Get(name).scalar); }
bool ArgValues::Bool(std::string_view name) const { return Get(name).scalar != 0; }
int64_t ArgValues::Enum(std::string_view name) const { return Get(name).scalar; }
uint32_t ArgValues::Colour(std::string_view name) const { return static_cast<uint32_t>(Get(name).scalar); }
const std::vector<int32_t> &ArgValues::List(std::string_view name) const { return Get(name).list; }

void ArgValues::Set(const std::string &name, int64_t value) { values_[name] = Value{value, {}}; }
void ArgValues::SetList(const std::string &name, std::vector<int32_t> values) {
  values_[name] = Value{0, std::move(values)};
}
bool ArgValues::Has(std::string_view name) const { return values_.find(name) != values_.end(); }

// ---- Registry ----------------------------------------------------------------

const std::vector<OpDescriptor> &Operations() { return Storage(); }

const OpDescriptor *FindOperation(std::string_view name) {
  for (const OpDescriptor &op : Storage())
    if (op.name == name) return &op;
  return nullptr;
}

Registrar::Registrar(std::vector<OpDescriptor> descriptors) {
  std::vector<OpDescriptor> &ops = Storage();
  for (OpDescriptor &op : descriptors) {
    CheckDescriptor(op);
    ops.push_back(std::move(op));
  }
  std::sort(ops.begin(), ops.end(),
            [](const OpDescriptor &a, const OpDescriptor &b) { return a.name < b.name; });
}

// ---- Images made for the tool ----------------------------------------------------

OutputImages::~OutputImages() {
  for (Item &item : items_)
    if (item.record->Flags & BITMAP_ALLOCATED) FreeBitmap(item.record.get());
}

BitmapRecord *OutputImages::Add(std::string suffix) {
  auto record = std::make_unique<BitmapRecord>();
  record->StructSize = BITMAP_RECORD_SIZE;
  items_.push_back(Item{std::move(record), std::move(suffix)});
  return items_.back().record.get();
}

// ---- Argument parsing ----------------------------------------------------------

std::string TypeName(const ArgSpec &arg) {
  switch (arg.type) {
    case ArgType::Int:
      return "int";
    case ArgType::UInt:
      return "uint";
    case ArgType::Bool:
      return "bool";
    case ArgType::Enum:
      return "enum";
    case ArgType::Colour:
      return "colour";
    case ArgType::IntList:
      return "int list";
  }
  return "?";
}

std::string RangeText(const ArgSpec &arg) {
  switch (arg.type) {
    case ArgType::Int:
    case ArgType::UInt:
      return std::to_string(arg.min) + ".." + std::to_string(arg.max);
    case ArgType::Bool:
      return "true or false";
    case ArgType::Enum: {
      std::string s = "one of: ";
      for (size_t i = 0; i < arg.values.size(); ++i) s += (i ? ", " : "") + arg.values[i].name;
      return s;
    }
    case ArgType::Colour:
      return "#RRGGBB or a number 0..0xFFFFFFFF";
    case ArgType::IntList: {
      const std::string count = arg.minCount == arg.maxCount
                                    ? std::to_string(arg.minCount)
                                    : std::to_string(arg.minCount) + " to " + std::to_string(arg.maxCount);
      return count + " comma-separated values, each " + std::to_string(arg.min) + ".." +
             std::to_string(arg.max);
    }
  }
  return "";
}

std::string DefaultText(const ArgSpec &arg) {
  constexpr size_t kShown = 6;
  if (arg.type != ArgType::IntList) return arg.defaultValue;
  size_t commas = 0, cut = std::string::npos;
  for (size_t i = 0; i < arg.defaultValue.size(); ++i)
    if (arg.defaultValue[i] == ',' && ++commas == kShown) cut = i;
  if (commas < 2 * kShown) return arg.defaultValue;
  const size_t last = arg.defaultValue.rfind(',');
  return arg.defaultValue.substr(0, cut) + ",...," + arg.defaultValue.substr(last + 1) + " (" +
         std::to_string(commas + 1) + " values)";
}

bool ParseArg(const ArgSpec &arg, std::string_view text, ArgValues &values, std::string &error) {
  const std::string where = "--" + arg.name + ": ";
  const std::string expect = " (expected " + RangeText(arg) + ")";
  int64_t v = 0;
  switch (arg.type) {
    case ArgType::Int:
    case ArgType::UInt:
      if (!ParseNumber(text, v)) {
        error = where + Quoted(text) + " is not a number" + expect;
        return false;
      }
      if (v < arg.min || v > arg.max) {
        error = where + Quoted(text) + " is out of range" + expect;
        return false;
      }
      values.Set(arg.name, v);
      return true;
    case ArgType::Bool: {
      const std::string s = Lower(Trim(text));
      if (s == "true" || s == "yes" || s == "1" || s == "on")
        v = 1;
      else if (s == "false" || s == "no" || s == "0" || s == "off")
        v = 0;
      else {
        error = where + Quoted(text) + " is not a truth value" + expect;
        return false;
      }
      values.Set(arg.name, v);
      return true;
    }
    case ArgType::Enum: {
      const std::string s = Lower(Trim(text));
      for (const EnumValue &e : arg.values) {
        if (e.name == s) {
          values.Set(arg.name, e.value);
          return true;
        }
      }
      error = where + Quoted(text) + " is not a known value" + expect;
      return false;
    }
    case ArgType::Colour:
      if (!ParseColour(Trim(text), v)) {
        error = where + Quoted(text) + " is not a colour" + expect;
        return false;
      }
      values.Set(arg.name, v);
      return true;
    case ArgType::IntList: {
      std::vector<int32_t> list;
      size_t start = 0;
      while (true) {
        const size_t comma = text.find(',', start);
        const std::string_view item =
            text.substr(start, comma == std::string_view::npos ? text.npos : comma - start);
        if (!ParseNumber(item, v)) {
          error = where + Quoted(item) + " is not a number" + expect;
          return false;
        }
        if (v < arg.min || v > arg.max) {
          error = where + "element " + std::to_string(list.size() + 1) + " (" + Trim(item) +
                  ") is out of range" + expect;
          return false;
        }
        list.push_back(static_cast<int32_t>(v));
        if (comma == std::string_view::npos) break;
        start = comma + 1;
      }
      if (static_cast<int64_t>(list.size()) < arg.minCount ||
          static_cast<int64_t>(list.size()) > arg.maxCount) {
        error = where + "got " + std::to_string(list.size()) + " values" + expect;
        return false;
      }
      values.SetList(arg.name, std::move(list));
      return true;
    }
  }
  error = where + "unknown argument type";
  return false;
}

void ApplyDefaults(const OpDescriptor &op, ArgValues &values) {
  for (const ArgSpec &a : op.args) {
    if (values.Has(a.name)) continue;
    std::string error;
    ParseArg(a, a.defaultValue, values, error);  // checked at registration
  }
}

std::vector<uint8_t> BitmapSnapshot(const BitmapRecord &b, const uint8_t *pixels) {
  const auto *r = reinterpret_cast<const uint8_t *>(&b);
  std::vector<uint8_t> s(r, r + std::min<size_t>(b.StructSize, sizeof b));
  if (b.Pixels) {
    const uint8_t *p = pixels ? pixels : b.Pixels;
    s.insert(s.end(), p, p + b.DataSize);
  }
  if (b.Palette && b.BitsPerPixel <= 8) {
    const auto *p = reinterpret_cast<const uint8_t *>(b.Palette);
    s.insert(s.end(), p, p + 256 * sizeof(PaletteEntry));
  }
  if (b.AttachedLut && b.AttachedLutLength > 0) {
    const auto *t = reinterpret_cast<const uint8_t *>(b.AttachedLut);
    s.insert(s.end(), t, t + sizeof(int32_t) * static_cast<size_t>(b.AttachedLutLength));
  }
  return s;
}

std::vector<uint8_t> KeptSnapshot(const OpDescriptor &op, const BitmapRecord &b) {
  BitmapRecord kept = b;
  if (op.keptOnRefusal.significantHighBit && kept.SignificantHighBit == -1)
    kept.SignificantHighBit = kept.BitsPerPixel - 1;
  if (op.keptOnRefusal.updateCount) kept.UpdateCount = b.UpdateCount + 1;
  std::vector<uint8_t> turned;
  if (op.keptOnRefusal.turnedTopFirst && b.Orientation == ORIENT_BOTTOM_FIRST && b.Pixels) {
    turned.resize(b.DataSize);
    const size_t line = b.BytesPerLine;
    for (int32_t y = 0; y < b.Height && (static_cast<size_t>(y) + 1) * line <= b.DataSize; ++y)
      std::memcpy(turned.data() + static_cast<size_t>(y) * line,
                  b.Pixels + static_cast<size_t>(b.Height - 1 - y) * line, line);
    kept.Orientation = ORIENT_TOP_FIRST;
  }
  return BitmapSnapshot(kept, turned.empty() ? nullptr : turned.data());
}

}  // namespace imgtool
