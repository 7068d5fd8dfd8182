// Writes docs/operations.md from the operation descriptors: every operation
// grouped by family, with its export, summary, help, accepted kinds and its
// arguments (type, unit, range, default). The descriptors are the one place
// these are written, so the page is generated, never edited.
//
//   imgcolor_docgen                 the page on standard output
//   imgcolor_docgen --write FILE    the page into FILE
//   imgcolor_docgen --check FILE    exit status 1, naming the first differing
//                                   line, when FILE is not the page
//   imgcolor_docgen --reference HEADER DIR [--check]
//                                   the reference: one page per family in DIR
//                                   (and DIR/README.md, the index) with each
//                                   export's declaration and comment from
//                                   HEADER and its gallery thumbnail
//                                   (DIR/img/<op>.jpg); --check compares
//                                   instead of writing and needs every thumbnail
//   imgcolor_docgen --check-header HEADER WRAPPER
//                                   exit status 1, naming each miss, unless the
//                                   comment of every export in HEADER (with the
//                                   comments of the records it takes) states each
//                                   numeric argument's unit and range as its
//                                   descriptor does, and WRAPPER (imgcolor.hpp)
//                                   has a method calling every export of HEADER
#include <sys/stat.h>

#include <cctype>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "registry.h"

namespace {

using imgtool::ArgSpec;
using imgtool::OpDescriptor;

// Text inside a table cell: a pipe would end the cell.
std::string Cell(const std::string &text) {
  std::string out;
  for (char c : text) {
    if (c == '|') out += '\\';
    out += c;
  }
  return out;
}

std::string StatusList(const std::vector<int32_t> &statuses) {
  std::string out;
  for (size_t i = 0; i < statuses.size(); ++i)
    out += (i ? (i + 1 == statuses.size() ? " or " : ", ") : "") + std::to_string(statuses[i]);
  return out;
}

// A status with its name: "-13 (invalid parameter)"; kAccepted: "accepted".
std::string StatusText(int32_t status) {
  switch (status) {
    case imgtool::kAccepted:
      return "accepted";
    case RC_SUCCESS:
      return "1";
    case RC_NO_MEMORY:
      return "-1 (no memory)";
    case RC_NO_BITMAP:
      return "-2 (no bitmap)";
    case RC_UNSUPPORTED_BITMAP:
      return "-12 (unsupported bitmap)";
    case RC_INVALID_PARAMETER:
      return "-13 (invalid parameter)";
    case RC_INVALID_STRUCT_SIZE:
      return "-789 (record size)";
    case RC_NULL_OPTIONS:
      return "-814 (null options)";
    case RC_SIGNED_DATA_NOT_SUPPORTED:
      return "-1360 (signed data)";
    case RC_GRAY32_NOT_SUPPORTED:
      return "-1364 (32-bit gray)";
    default:
      return std::to_string(status);
  }
}

// What the export answers to each refusal the bad-argument sweep
// (tests/badargs_test.cpp) checks.
void Refusals(const OpDescriptor &op, std::ostream &out) {
  const imgtool::Refusals &r = op.refusals;
  out << "Refusals: null bitmap " << StatusText(r.nullBitmap) << "; record size off by one "
      << StatusText(r.recordSize) << "; zeroed record " << StatusText(r.zeroedRecord);
  if (op.flagsWord) out << "; flags word not 0 " << StatusText(r.flags);
  out << "; no pixel memory " << StatusText(r.noPixels) << "; 32-bit gray " << StatusText(r.gray32)
      << "; signed samples " << StatusText(r.signedData);
  if (op.kinds & imgtool::kPalette) out << "; ColorsUsed beyond the palette " << StatusText(r.coloursUsed);
  for (const imgtool::PointerSpec &p : op.pointers)
    out << "; null " << p.name << " " << StatusText(p.nullStatus);
  out << ". An argument outside its range: see the last column.\n\n";
}

// The status of a value outside the argument's range.
std::string Outside(const ArgSpec &a) {
  if (a.type == imgtool::ArgType::Bool || a.type == imgtool::ArgType::Colour) return "";
  std::string text = StatusText(a.outsideStatus);
  if (a.boundsOn) text += " (the bitmap's scale narrows the range)";
  return text;
}

void Operation(const OpDescriptor &op, std::ostream &out) {
  out << "### `" << op.name << "`: `" << op.exportName << "`\n\n";
  out << op.summary << ".";
  if (!op.help.empty()) out << " " << op.help;
  out << "\n\n";
  out << "Accepts: " << imgtool::KindNames(op.kinds) << ".";
  if (!op.writesImage) out << " Reports values (`name: value` lines) and writes no image.";
  if (!op.failureStatuses.empty())
    out << " A failed allocation may also end in " << StatusList(op.failureStatuses)
        << " (kept, see [quirks.md](quirks.md)).";
  out << "\n\n";
  Refusals(op, out);
  if (op.args.empty()) {
    out << "No arguments.\n\n";
    return;
  }
  out << "| argument | type | unit | range | default | meaning | outside the range |\n"
         "|---|---|---|---|---|---|---|\n";
  for (const ArgSpec &a : op.args)
    out << "| `--" << a.name << "` | " << imgtool::TypeName(a) << " | " << Cell(a.unit) << " | "
        << Cell(imgtool::RangeText(a)) << " | `" << imgtool::DefaultText(a) << "` | " << Cell(a.help) << " | "
        << Outside(a) << " |\n";
  out << "\n";
  for (const ArgSpec &a : op.args) {
    if (a.values.empty()) continue;
    out << "`--" << a.name << "`:\n";
    for (const imgtool::EnumValue &e : a.values) out << "- `" << e.name << "`: " << e.help << "\n";
    out << "\n";
  }
}

std::string Page() {
  std::map<std::string, std::vector<const OpDescriptor *>> families;  // by title
  for (const OpDescriptor &op : imgtool::Operations()) families[op.family.title].push_back(&op);
  std::ostringstream out;
  out << "# Operations\n\n"
         "Generated by `imgcolor_docgen` (`tools/docgen.cpp`) from the operation descriptors in\n"
         "`tools/ops/`: do not edit. `cmake --build --preset release --target docs` rewrites this page,\n"
         "and the test `operations_doc` fails when it differs from what the descriptors give. The\n"
         "ranges are the constants of `sibling/internal/ranges.h`, which the library's checks read\n"
         "too. Every operation is a subcommand of the `imgcolor` tool (`tool.md`); its defaults are\n"
         "what the test sweep, the recorded outputs on the sample photo "
         "(`tests/data/reference_outputs.txt`)\n"
         "and the benchmark of every operation (`scripts/bench-ops.sh`) run.\n\n";
  out << "| family | source | operations |\n|---|---|---|\n";
  for (const auto &[title, ops] : families) {
    out << "| " << title << " | `" << ops.front()->family.source << "` | ";
    for (size_t i = 0; i < ops.size(); ++i) out << (i ? ", " : "") << "`" << ops[i]->name << "`";
    out << " |\n";
  }
  out << "\n";
  for (const auto &[title, ops] : families) {
    const imgtool::Family &family = ops.front()->family;
    out << "## " << title << "\n\n";
    out << "Source: `" << family.source << "`.";
    if (!family.note.empty()) out << " Notes: [" << family.note << "](" << family.note << ").";
    out << "\n\n";
    for (const OpDescriptor *op : ops) Operation(*op, out);
  }
  std::string page = out.str();
  page.pop_back();  // one newline at the end
  return page;
}

int Check(const std::string &path, const std::string &page) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "imgcolor_docgen: %s: cannot read\n", path.c_str());
    return 1;
  }
  std::stringstream file;
  file << in.rdbuf();
  if (file.str() == page) return 0;
  std::istringstream want(page), have(file.str());
  std::string w, h;
  for (int line = 1;; ++line) {
    const bool moreWant = static_cast<bool>(std::getline(want, w));
    const bool moreHave = static_cast<bool>(std::getline(have, h));
    if (!moreWant && !moreHave) break;
    if (moreWant != moreHave || w != h) {
      std::fprintf(stderr,
                   "imgcolor_docgen: %s differs from the descriptors at line %d:\n  file:        %s\n"
                   "  descriptors: %s\nrun: cmake --build --preset release --target docs\n",
                   path.c_str(), line, moreHave ? h.c_str() : "(end of file)",
                   moreWant ? w.c_str() : "(end of page)");
      return 1;
    }
  }
  std::fprintf(stderr, "imgcolor_docgen: %s differs from the descriptors (line endings)\n", path.c_str());
  return 1;
}

// ---- The reference ------------------------------------------------------------------

std::string Slug(const std::string &title) {
  std::string out;
  for (char c : title) {
    if (std::isalnum(static_cast<unsigned char>(c)))
      out += static_cast<char>(std::tolower(c));
    else if (!out.empty() && out.back() != '-')
      out += '-';
  }
  while (!out.empty() && out.back() == '-') out.pop_back();
  return out;
}

// The declaration of `name` in the header with the comment lines right above
// it, or an empty string.
std::string Declaration(const std::string &header, const std::string &name) {
  const size_t at = header.find(" " + name + "(");
  if (at == std::string::npos) return {};
  size_t begin = header.rfind('\n', at);
  begin = begin == std::string::npos ? 0 : begin + 1;
  const size_t end = header.find(';', at);
  if (end == std::string::npos) return {};
  // Comment lines directly above ("/* ... */" blocks and their " *" lines).
  size_t top = begin;
  while (top > 0) {
    const size_t prev = header.rfind('\n', top - 2);
    const size_t start = prev == std::string::npos ? 0 : prev + 1;
    const std::string line = header.substr(start, top - 1 - start);
    const size_t text = line.find_first_not_of(' ');
    if (text == std::string::npos || !(line.compare(text, 2, "/*") == 0 || line.compare(text, 1, "*") == 0))
      break;
    if (line.find("----") != std::string::npos) break;  // a section rule, not this export's comment
    top = start;
  }
  return header.substr(top, end + 1 - top);
}

bool FileExists(const std::string &path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0;
}

std::map<std::string, std::string> ReferencePages(const std::string &header) {
  std::map<std::string, std::vector<const OpDescriptor *>> families;
  for (const OpDescriptor &op : imgtool::Operations()) families[op.family.title].push_back(&op);
  std::map<std::string, std::string> pages;
  std::ostringstream index;
  index << "# Reference\n\n"
           "Generated by `imgcolor_docgen --reference` from the operation descriptors and the public\n"
           "header (`scripts/reference.sh` rewrites it with the thumbnails): do not edit. One page per\n"
           "family; every picture is the operation with its default arguments on the sample photo.\n\n"
           "| family | operations |\n|---|---|\n";
  for (const auto &[title, ops] : families) {
    const std::string slug = Slug(title);
    index << "| [" << title << "](" << slug << ".md) | ";
    for (size_t i = 0; i < ops.size(); ++i) index << (i ? ", " : "") << "`" << ops[i]->exportName << "`";
    index << " |\n";
    std::ostringstream out;
    const imgtool::Family &family = ops.front()->family;
    out << "# " << title << "\n\n[Reference](README.md) · source `" << family.source << "`";
    if (!family.note.empty()) out << " · notes [" << family.note << "](../" << family.note << ")";
    out << "\n\n";
    for (const OpDescriptor *op : ops) {
      out << "## `" << op->exportName << "`\n\n";
      if (op->writesImage) out << "![" << op->name << " on the sample photo](img/" << op->name << ".jpg)\n\n";
      const std::string declaration = Declaration(header, op->exportName);
      if (!declaration.empty()) out << "```c\n" << declaration << "\n```\n\n";
      std::ostringstream body;
      Operation(*op, body);
      std::string text = body.str();
      text.replace(0, text.find('\n') + 1, "Tool: `imgcolor " + op->name + "`.\n");
      // Links of the operations page point into docs/.
      for (size_t at = 0; (at = text.find("](quirks.md)", at)) != std::string::npos; at += 3)
        text.replace(at, 12, "](../quirks.md)");
      out << text;
    }
    std::string page = out.str();
    page.pop_back();
    pages[slug + ".md"] = page;
  }
  pages["README.md"] = index.str();
  return pages;
}

int Reference(const std::string &headerPath, const std::string &dir, bool check) {
  std::ifstream in(headerPath, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "imgcolor_docgen: %s: cannot read\n", headerPath.c_str());
    return 1;
  }
  std::stringstream header;
  header << in.rdbuf();
  int status = 0;
  for (const auto &[file, page] : ReferencePages(header.str())) {
    const std::string path = dir + "/" + file;
    if (check) {
      status |= Check(path, page);
      continue;
    }
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << page;
    out.close();
    if (!out) {
      std::fprintf(stderr, "imgcolor_docgen: %s: cannot write\n", path.c_str());
      return 1;
    }
  }
  for (const OpDescriptor &op : imgtool::Operations()) {
    if (check && op.writesImage && !FileExists(dir + "/img/" + op.name + ".jpg")) {
      std::fprintf(stderr, "imgcolor_docgen: %s/img/%s.jpg missing; run scripts/reference.sh\n", dir.c_str(),
                   op.name.c_str());
      status = 1;
    }
  }
  return status;
}

// ---- The header check ---------------------------------------------------------------

std::string Lower(std::string text) {
  for (char &c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// The declaration of `name` with its comment, and the comments and bodies of
// the records (typedef struct) it takes: where its arguments' units and
// ranges are written.
std::string Context(const std::string &header, const std::string &name) {
  std::string text = Declaration(header, name);
  const std::string declaration = text;
  for (size_t at = header.find("typedef struct "); at != std::string::npos;
       at = header.find("typedef struct ", at + 1)) {
    const size_t nameEnd = header.find_first_of(" {", at + 15);
    const std::string record = header.substr(at + 15, nameEnd - at - 15);
    if (declaration.find(record + " ") == std::string::npos &&
        declaration.find(record + "*") == std::string::npos)
      continue;
    size_t top = header.rfind("*/", at);
    top = top == std::string::npos ? at : header.rfind("/*", top);
    text.push_back('\n');
    text.append(header, top, header.find('}', at) - top);
  }
  // One line of words: comment lines joined without their leading " * ".
  std::string joined;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\n') {
      joined += text[i];
      continue;
    }
    size_t next = text.find_first_not_of(' ', i + 1);
    if (next != std::string::npos && text[next] == '*' && text.compare(next, 2, "*/") != 0) ++next;
    while (next < text.size() && text[next] == ' ') ++next;
    joined += ' ';
    i = next - 1;
  }
  return Lower(joined);
}

// "min..max" as the header writes it: 2^31-1 and 2^32-1 for the type's ends.
std::string Bound(int64_t value) {
  if (value == INT32_MAX) return "2^31-1";
  if (value == UINT32_MAX) return "2^32-1";
  return std::to_string(value);
}

// The misses of one export: numeric arguments whose unit or range the
// header's comment leaves out.
std::vector<std::string> CommentMisses(const std::string &header, const OpDescriptor &op) {
  std::vector<std::string> misses;
  const std::string context = Context(header, op.exportName);
  if (context.empty()) return {op.exportName + ": not declared in the header"};
  for (const ArgSpec &a : op.args) {
    if (a.type != imgtool::ArgType::Int && a.type != imgtool::ArgType::UInt) continue;
    // Arguments the export takes whole (any value has a meaning, or the tool
    // builds a table from them) have no range of the export's to state.
    const bool whole = (a.min == INT32_MIN && a.max == INT32_MAX) || (a.min == 0 && a.max == UINT32_MAX);
    if (whole || a.outsideStatus == imgtool::kAccepted) continue;
    if (context.find(Lower(a.unit)) == std::string::npos)
      misses.push_back(op.exportName + " --" + a.name + ": unit \"" + a.unit + "\" not stated");
    std::string range = Bound(a.min);
    range.append("..");
    if (a.max != INT32_MAX && a.max != UINT32_MAX) range.append(Bound(a.max));
    if (context.find(range) == std::string::npos)
      misses.push_back(op.exportName + " --" + a.name + ": range " + range + " not stated");
  }
  return misses;
}

int CheckHeader(const std::string &headerPath, const std::string &wrapperPath) {
  std::string header, wrapper;
  for (auto [path, text] : {std::pair{&headerPath, &header}, std::pair{&wrapperPath, &wrapper}}) {
    std::ifstream in(*path, std::ios::binary);
    if (!in) {
      std::fprintf(stderr, "imgcolor_docgen: %s: cannot read\n", path->c_str());
      return 1;
    }
    std::stringstream all;
    all << in.rdbuf();
    *text = all.str();
  }
  std::vector<std::string> misses;
  for (const OpDescriptor &op : imgtool::Operations())
    if (op.exportName.rfind("Q_", 0) == 0)
      for (std::string &m : CommentMisses(header, op)) misses.push_back(std::move(m));
  // Every export of the header: a method of its name without "Q_" that calls it.
  const std::string api = "IMG_API int32_t Q_";
  for (size_t at = header.find(api); at != std::string::npos; at = header.find(api, at + 1)) {
    const size_t begin = at + api.size();
    const std::string name = header.substr(begin, header.find('(', begin) - begin);
    if (wrapper.find(" " + name + "(") == std::string::npos ||
        wrapper.find("Q_" + name + "(") == std::string::npos)
      misses.push_back("Q_" + name + ": no method " + name + " calling it in " + wrapperPath);
  }
  for (const std::string &m : misses) std::fprintf(stderr, "imgcolor_docgen: %s\n", m.c_str());
  if (!misses.empty())
    std::fprintf(stderr, "imgcolor_docgen: %zu misses: state units and ranges in %s, add methods to %s\n",
                 misses.size(), headerPath.c_str(), wrapperPath.c_str());
  return misses.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
  const std::string page = Page();
  const std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) {
    std::cout << page;
    return 0;
  }
  if (args.size() == 2 && args[0] == "--check") return Check(args[1], page);
  if (args.size() == 2 && args[0] == "--write") {
    std::ofstream out(args[1], std::ios::binary | std::ios::trunc);
    out << page;
    out.close();
    if (!out) {
      std::fprintf(stderr, "imgcolor_docgen: %s: cannot write\n", args[1].c_str());
      return 1;
    }
    return 0;
  }
  if (args.size() == 3 && args[0] == "--check-header") return CheckHeader(args[1], args[2]);
  if ((args.size() == 3 || (args.size() == 4 && args[3] == "--check")) && args[0] == "--reference")
    return Reference(args[1], args[2], args.size() == 4);
  std::fprintf(stderr,
               "usage: imgcolor_docgen [--write FILE | --check FILE | --reference HEADER DIR [--check] | "
               "--check-header HEADER WRAPPER]\n");
  return 2;
}
