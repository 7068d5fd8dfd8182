// Every operation of the registry, on every kind of bitmap its descriptor
// accepts, with its default arguments: it succeeds, leaks nothing, handles a
// failure of each of its allocations, stops at each progress report it is
// asked to, never changes a pixel outside a region, and gives on the sample
// photo the output recorded in tests/data/reference_outputs.txt (so that any
// change of output is seen). IMG_UPDATE_REFERENCE=1 rewrites that file.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "image_io.h"
#include "kit.h"
#include "registry.h"

namespace {

using imgtool::OpDescriptor;

struct Case {
  const OpDescriptor *op;
  kit::Format format;
};
void PrintTo(const Case &c, std::ostream *os) { *os << c.op->name << " on " << c.format.Name(); }

std::string CaseName(const testing::TestParamInfo<Case> &info) {
  std::string name = info.param.op->name + "_" + info.param.format.Name();
  for (char &c : name)
    if (c == '-') c = '_';
  return name;
}

std::vector<Case> AllCases() {
  std::vector<Case> cases;
  for (const OpDescriptor &op : imgtool::Operations())
    for (const kit::Format &f : kit::AllFormats()) {
      kit::Bitmap probe(f, 1, 1);
      if (op.kinds & imgtool::KindBitOf(probe.get())) cases.push_back({&op, f});
    }
  return cases;
}

// The operation with its default arguments; a report goes to `out`.
int32_t Call(const OpDescriptor &op, BitmapRecord *b, std::ostream &out) {
  imgtool::ArgValues values;
  imgtool::ApplyDefaults(op, values);
  return op.call(b, values, out);
}
int32_t Call(const OpDescriptor &op, BitmapRecord *b) {
  std::ostringstream ignored;
  return Call(op, b, ignored);
}

// Random pixels; palette bitmaps get a palette of random colours (a gray
// palette would send colour operations down their gray refusals).
kit::Bitmap RandomBitmap(const kit::Format &f, uint32_t seed, bool region) {
  PaletteEntry palette[256];
  uint32_t state = seed;
  for (PaletteEntry &e : palette) {
    state = state * 1664525u + 1013904223u;
    e = PaletteEntry{static_cast<uint8_t>(state >> 8), static_cast<uint8_t>(state >> 16),
                     static_cast<uint8_t>(state >> 24), 0};
  }
  kit::Bitmap b(f, 9, 7, f.IsPalette() ? palette : nullptr);
  b.Randomize(seed);
  if (region) kit::SetEllipseRegion(b, 1, 1, 8, 6);
  return b;
}

std::vector<int32_t> AllowedOnFailure(const OpDescriptor &op) {
  std::vector<int32_t> allowed = {RC_NO_MEMORY};
  allowed.insert(allowed.end(), op.failureStatuses.begin(), op.failureStatuses.end());
  return allowed;
}

class Sweep : public testing::TestWithParam<Case> {};

TEST_P(Sweep, SucceedsWithoutLeaks) {
  const Case &c = GetParam();
  for (bool region : {false, true}) {
    kit::LeakGuard guard;
    kit::Bitmap b = RandomBitmap(c.format, 7, region);
    EXPECT_EQ(Call(*c.op, b), RC_SUCCESS) << (region ? "with a region" : "whole bitmap");
  }
}

TEST_P(Sweep, EveryAllocationFailureIsHandled) {
  const Case &c = GetParam();
  for (bool region : {false, true})
    kit::CheckAllocationFailures([&] { return RandomBitmap(c.format, 11, region); },
                                 [&](kit::Bitmap &b) { return Call(*c.op, b); }, AllowedOnFailure(*c.op));
}

TEST_P(Sweep, StopsAtEveryProgressReport) {
  const Case &c = GetParam();
  if (!c.op->cancelReturned) GTEST_SKIP() << "this operation's course does not return the callback's answer";
  kit::CheckCancellation([&] { return RandomBitmap(c.format, 5, true); },
                         [&](kit::Bitmap &b) { return Call(*c.op, b); }, RC_SUCCESS, c.op->monotonicProgress);
}

// Stored pixel bytes of image row y, column x (bit-packed pixels as bytes of
// their own: a pixel is its index).
uint64_t StoredPixel(const BitmapRecord *b, int32_t x, int32_t y) {
  const uint8_t *row =
      b->Pixels +
      static_cast<uint64_t>(b->Orientation == ORIENT_BOTTOM_FIRST ? b->Height - 1 - y : y) * b->BytesPerLine;
  const int32_t bits = b->BitsPerPixel == 12 ? 16 : b->BitsPerPixel;
  if (bits < 8) {
    const int32_t per = 8 / bits;
    return (row[x / per] >> ((per - 1 - x % per) * bits)) & ((1u << bits) - 1);
  }
  uint64_t v = 0;
  for (int32_t i = 0; i < bits / 8; ++i) v |= static_cast<uint64_t>(row[x * (bits / 8) + i]) << (8 * i);
  return v;
}

TEST_P(Sweep, LeavesPixelsOutsideTheRegion) {
  const Case &c = GetParam();
  kit::Bitmap b = RandomBitmap(c.format, 3, false);
  kit::Bitmap before = RandomBitmap(c.format, 3, false);
  kit::SetRectRegion(b, 2, 1, 6, 5);
  kit::SetEllipseRegion(b, 0, 3, 5, 7, REGION_OR);
  ASSERT_EQ(Call(*c.op, b), RC_SUCCESS);
  if (b->BitsPerPixel != before->BitsPerPixel || b->ColorOrder != before->ColorOrder)
    GTEST_SKIP() << "the operation changes the kind of bitmap";
  for (int32_t y = 0; y < b->Height; ++y)
    for (int32_t x = 0; x < b->Width; ++x) {
      if (kit::InRegion(b, x, y)) continue;
      ASSERT_EQ(StoredPixel(b, x, y), StoredPixel(before, x, y)) << "pixel " << x << "," << y;
    }
}

INSTANTIATE_TEST_SUITE_P(Operations, Sweep, testing::ValuesIn(AllCases()), CaseName);

// ---- Reference outputs on the sample photo ---------------------------------------------

// FNV-1a over the kind, the pixel bytes of every image row (without padding)
// and the used palette entries; or over the report of an operation that
// writes no image.
uint64_t Fnv(uint64_t h, const void *data, size_t n) {
  const uint8_t *p = static_cast<const uint8_t *>(data);
  for (size_t i = 0; i < n; ++i) {
    h ^= p[i];
    h *= 0x100000001b3ull;
  }
  return h;
}

uint64_t OutputHash(const BitmapRecord *b, const std::string &report) {
  uint64_t h = 0xcbf29ce484222325ull;
  h = Fnv(h, report.data(), report.size());
  h = Fnv(h, &b->BitsPerPixel, sizeof b->BitsPerPixel);
  h = Fnv(h, &b->ColorOrder, sizeof b->ColorOrder);
  const uint64_t rowBits = static_cast<uint64_t>(b->Width) * (b->BitsPerPixel == 12 ? 16 : b->BitsPerPixel);
  for (int32_t y = 0; y < b->Height; ++y) {
    const uint8_t *row =
        b->Pixels + static_cast<uint64_t>(b->Orientation == ORIENT_BOTTOM_FIRST ? b->Height - 1 - y : y) *
                        b->BytesPerLine;
    h = Fnv(h, row, rowBits / 8);
    if (rowBits % 8) {
      const uint8_t last = static_cast<uint8_t>(row[rowBits / 8] & (0xFF00u >> (rowBits % 8)));
      h = Fnv(h, &last, 1);
    }
  }
  if (b->Palette && b->BitsPerPixel <= 8)
    for (int32_t i = 0; i < b->ColorsUsed && i < 256; ++i) h = Fnv(h, &b->Palette[i], 3);
  return h;
}

// The sample photo in the kind of `f`.
bool SamplePhoto(const kit::Format &f, imgtool::Bitmap &photo) {
  std::string error;
  if (!imgtool::ReadImageFile(IMG_SAMPLE_PHOTO, photo, error)) {
    ADD_FAILURE() << IMG_SAMPLE_PHOTO << ": " << error;
    return false;
  }
  int32_t first = 0, second = 0;
  SwapKernelSettings(0, 0, &first, &second);
  const int32_t status =
      ConvertBitmapFormat(photo.get(), photo.get(), f.structSize, f.bits, f.order, nullptr, 0, 0);
  SwapKernelSettings(first, second, nullptr, nullptr);
  EXPECT_EQ(status, RC_SUCCESS) << "converting the sample photo to " << f.Name();
  return status == RC_SUCCESS;
}

std::map<std::string, std::string> ReadReferences() {
  std::map<std::string, std::string> refs;
  std::ifstream in(IMG_REFERENCE_FILE);
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream fields(line);
    std::string key, kind, hash;
    if (fields >> key >> kind >> hash) refs[key + " " + kind] = hash;
  }
  return refs;
}

TEST(SweepReference, SamplePhotoOutputsMatchTheRecord) {
  const bool update = std::getenv("IMG_UPDATE_REFERENCE") != nullptr;
  const std::map<std::string, std::string> refs = ReadReferences();
  std::ostringstream record;
  record << "# operation kind FNV-1a of its output on data/chelsea.png converted to that kind\n";
  int checked = 0;
  for (const Case &c : AllCases()) {
    imgtool::Bitmap photo;
    if (!SamplePhoto(c.format, photo)) continue;
    std::ostringstream report;
    const int32_t status = Call(*c.op, photo.get(), report);
    char hash[32];
    std::snprintf(hash, sizeof hash, "%d:%016llx", status,
                  static_cast<unsigned long long>(OutputHash(photo.get(), report.str())));
    const std::string key = c.op->name + " " + c.format.Name();
    record << key << " " << hash << "\n";
    if (update) continue;
    const auto it = refs.find(key);
    if (it == refs.end()) {
      ADD_FAILURE() << key << ": no recorded output (run with IMG_UPDATE_REFERENCE=1)";
      continue;
    }
    EXPECT_EQ(it->second, hash) << key << ": output differs from the record";
    ++checked;
  }
  if (update) {
    std::ofstream out(IMG_REFERENCE_FILE);
    out << record.str();
    std::printf("rewrote %s\n", IMG_REFERENCE_FILE);
  } else {
    EXPECT_EQ(static_cast<size_t>(checked), refs.size()) << "recorded outputs of operations that are gone";
  }
}

}  // namespace
