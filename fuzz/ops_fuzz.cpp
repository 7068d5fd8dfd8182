// libFuzzer target over every operation of the registry (tools/ops/*.cpp):
// the input picks an operation, a bitmap (every depth and colour order,
// 32-bit gray included; up to 64 x 64; either orientation; a 176- or
// 208-byte record; signed and attached-table flags, significant bits,
// palette, ColorsUsed), a region, each argument inside or outside its range,
// the flags word and null pointers of the descriptor's probes, a status
// callback that may cancel, an injected allocation failure and the kernel
// settings. Every call is checked (Violation() aborts, which libFuzzer
// records as a finding):
//   - the status is 1 or negative;
//   - progress lies in 0..100 (never backwards where the descriptor says so)
//     and stops at a cancel, whose answer is returned;
//   - a refusal (any status but 1, an allocation failure or the cancel)
//     leaves the bitmap as it was;
//   - no pixel outside the region changes;
//   - the argument lists (the const tables the calls pass) are unchanged;
//   - no tracked allocation is left live.
// Operations over several images (.files) get minInputs..maxInputs bitmaps;
// the inputs after the first must stay as they were.
//
// With IMG_FUZZ_WRITE_SEEDS=DIR set, the program writes the seed corpus
// into DIR and exits: each operation on each kind it accepts with its
// defaults, with and without a region (the cases of the test sweep).
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "cli_io.h"
#include "imgcolor.h"
#include "imgplatform.h"
#include "imgutil.h"
#include "registry.h"

namespace {

using imgtool::ArgSpec;
using imgtool::ArgType;
using imgtool::ArgValues;
using imgtool::OpDescriptor;

constexpr int32_t kCancel = -4242;

[[noreturn]] void Violation(const OpDescriptor &op, const std::string &what) {
  std::fprintf(stderr, "ops_fuzz: %s (%s): %s\n", op.name.c_str(), op.exportName.c_str(), what.c_str());
  std::abort();
}

// Bytes of the input from the front; zeros once it is spent, so that a short
// input means "defaults".
class Reader {
 public:
  Reader(const uint8_t *data, size_t size) : p_(data), end_(data + size) {}
  uint8_t Byte() { return p_ < end_ ? *p_++ : 0; }
  uint32_t U32() {
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v |= static_cast<uint32_t>(Byte()) << (8 * i);
    return v;
  }

 private:
  const uint8_t *p_;
  const uint8_t *end_;
};

struct KindChoice {
  int32_t bits;
  int32_t order;
};
// Every depth and colour order, 32-bit gray included.
constexpr KindChoice kKinds[] = {
    {24, ORDER_BGR}, {24, ORDER_RGB},  {8, ORDER_GRAY}, {16, ORDER_GRAY},      {12, ORDER_GRAY},
    {8, ORDER_BGR},  {4, ORDER_BGR},   {2, ORDER_BGR},  {1, ORDER_BGR},        {16, ORDER_BGR},
    {32, ORDER_BGR}, {32, ORDER_RGB},  {48, ORDER_BGR}, {48, ORDER_RGB},       {64, ORDER_BGR},
    {64, ORDER_RGB}, {32, ORDER_GRAY}, {8, ORDER_RGB},  {24, ORDER_BGR_COLOR}, {48, ORDER_BGR_COLOR_WIDE},
};
constexpr size_t kKindCount = sizeof kKinds / sizeof kKinds[0];

uint32_t Next(uint32_t &state) {
  state = state * 1664525u + 1013904223u;
  return state >> 8;
}

// A bitmap as the input describes it; false when the kernel refuses to
// allocate it (that is the kernel's business, not the operation's).
bool MakeBitmap(Reader &in, BitmapRecord &b, const KindChoice &kind, int32_t width, int32_t height) {
  const uint8_t shape = in.Byte();
  uint32_t seed = in.U32();
  PaletteEntry palette[256];
  for (PaletteEntry &e : palette)
    e = PaletteEntry{static_cast<uint8_t>(Next(seed)), static_cast<uint8_t>(Next(seed)),
                     static_cast<uint8_t>(Next(seed)), 0};
  const uint32_t size = (shape & 0x02) ? BITMAP_RECORD_SIZE_OLD : BITMAP_RECORD_SIZE;
  if (AllocateBitmap(&b, size, MEMORY_CONVENTIONAL, width, height, kind.bits, kind.order,
                     (shape & 0x80) ? palette : nullptr,
                     (shape & 0x01) ? ORIENT_BOTTOM_FIRST : ORIENT_TOP_FIRST, nullptr, 0) != RC_SUCCESS)
    return false;
  for (uint64_t i = 0; i < b.DataSize; ++i) b.Pixels[i] = static_cast<uint8_t>(Next(seed));
  if (shape & 0x04) b.Flags |= BITMAP_SIGNED;
  if (shape & 0x08) {  // an attached table of a chosen length
    static constexpr int32_t kLengths[] = {256, 4096, 65536, 1, 0, 255, 257, 16};
    const int32_t length = kLengths[in.Byte() % 8];
    b.AttachedLut = static_cast<int32_t *>(
        AllocZeroed(static_cast<size_t>(length), sizeof(int32_t), __LINE__, L"fuzz/ops_fuzz"));
    if (b.AttachedLut) {
      for (int32_t i = 0; i < length; ++i) b.AttachedLut[i] = static_cast<int32_t>(Next(seed) % 70000) - 1000;
      b.AttachedLutLength = length;
    }
    if (in.Byte() & 1) b.Flags |= BITMAP_USE_ATTACHED_LUT;
  }
  if (shape & 0x10) {  // significant bits
    b.SignificantLowBit = static_cast<int8_t>(in.Byte()) % 40;
    b.SignificantHighBit = static_cast<int8_t>(in.Byte()) % 40;
  }
  if (shape & 0x20) {
    const uint8_t low = in.Byte();
    b.ColorsUsed = static_cast<int16_t>(low | in.Byte() << 8) % 600;
  }
  if (shape & 0x40) b.PaletteFlag = PALETTE_FLAG_NONE;
  return true;
}

int32_t Coordinate(Reader &in, int32_t extent) { return static_cast<int8_t>(in.Byte()) % (extent + 8); }

void MakeRegion(Reader &in, BitmapRecord &b) {
  const uint8_t shapes = in.Byte() % 5;  // 0 none, then 1..4 shapes combined
  for (uint8_t i = 0; i < shapes; ++i) {
    const uint8_t kind = in.Byte();
    const uint32_t combine = i == 0 ? REGION_SET : (kind >> 4) % 5;
    Rect r;
    SetRect(&r, Coordinate(in, b.Width), Coordinate(in, b.Height), Coordinate(in, b.Width),
            Coordinate(in, b.Height));
    switch (kind % 3) {
      case 0:
        SetBitmapRegionRect(&b, &r, combine);
        break;
      case 1:
        SetBitmapRegionEllipse(&b, &r, combine);
        break;
      default: {
        Point points[8];
        const uint32_t n = 3 + in.Byte() % 6;
        for (uint32_t k = 0; k < n; ++k) points[k] = Point{Coordinate(in, b.Width), Coordinate(in, b.Height)};
        SetBitmapRegionPolygon(&b, points, n, kind & 0x40 ? POLYGON_WINDING : POLYGON_EVEN_ODD, combine);
      }
    }
  }
}

// A value for a number argument: its default, inside its range, at or past an
// end, an extreme of its type.
int64_t ScalarValue(Reader &in, const ArgSpec &a, int64_t defaultValue) {
  const int64_t typeMin = a.type == ArgType::UInt ? 0 : INT32_MIN;
  const int64_t typeMax = a.type == ArgType::UInt ? int64_t{UINT32_MAX} : INT32_MAX;
  int64_t v = defaultValue;
  switch (in.Byte() % 10) {
    case 1:
      v = a.min + static_cast<int64_t>(in.U32() % static_cast<uint64_t>(a.max - a.min + 1));
      break;
    case 2:
      v = a.min;
      break;
    case 3:
      v = a.max;
      break;
    case 4:
      v = a.min - 1;
      break;
    case 5:
      v = a.max + 1;
      break;
    case 6:
      v = typeMin;
      break;
    case 7:
      v = typeMax;
      break;
    case 8:
      v = a.type == ArgType::UInt ? int64_t{in.U32()} : int64_t{static_cast<int32_t>(in.U32())};
      break;
    case 9:
      v = defaultValue + static_cast<int8_t>(in.Byte());
      break;
    default:
      break;
  }
  v = std::clamp(v, typeMin, typeMax);
  if (a.probeLimit) v = std::min(v, a.probeLimit);
  return v;
}

void ChooseArguments(Reader &in, const OpDescriptor &op, ArgValues &values) {
  imgtool::ApplyDefaults(op, values);
  for (const ArgSpec &a : op.args) {
    switch (a.type) {
      case ArgType::Int:
      case ArgType::UInt:
        values.Set(a.name,
                   ScalarValue(in, a, a.type == ArgType::Int ? values.Int(a.name) : values.UInt(a.name)));
        break;
      case ArgType::Bool:
        values.Set(a.name, in.Byte() & 1);
        break;
      case ArgType::Colour: {
        const uint8_t mode = in.Byte() % 4;
        if (mode == 1) values.Set(a.name, in.U32());
        if (mode == 2) values.Set(a.name, COLOR_GRAY_LEVEL | (in.Byte() << 8));
        break;
      }
      case ArgType::Enum: {
        const uint8_t mode = in.Byte();
        if (mode % 4 == 1) values.Set(a.name, a.values[in.Byte() % a.values.size()].value);
        if (mode % 4 == 2) values.Set(a.name, in.U32());  // mostly outside the set
        if (a.probeLimit && values.Enum(a.name) > a.probeLimit) values.Set(a.name, a.probeLimit);
        break;
      }
      case ArgType::IntList: {
        const uint8_t mode = in.Byte() % 6;
        if (mode == 0) break;
        std::vector<int32_t> list = values.List(a.name);
        if (mode == 1) {  // another count: zero, one past either end, or any up to 600
          const uint8_t c = in.Byte();
          const int64_t count = c < 64        ? a.minCount - 1
                                : c < 128     ? a.maxCount + 1
                                : c % 64 == 0 ? 0
                                              : c % 100;
          list.resize(static_cast<size_t>(std::clamp<int64_t>(count, 0, 600)), static_cast<int32_t>(a.min));
        }
        const uint8_t elements = in.Byte();
        for (size_t i = 0; i < list.size() && i < elements; ++i) {
          ArgSpec element = a;
          element.type = ArgType::Int;
          list[i] = static_cast<int32_t>(ScalarValue(in, element, list[i]));
        }
        values.SetList(a.name, std::move(list));
        break;
      }
    }
  }
  const uint8_t probe = in.Byte();
  if (probe & 0x01) values.SetFlags((probe & 0x02) ? 1u : in.U32());
  if ((probe & 0x04) && !op.pointers.empty())
    values.SetNullPointer(op.pointers[(probe >> 3) % op.pointers.size()].name);
}

// Stored bytes of one pixel (bit-packed pixels: the pixel's own bits).
uint64_t StoredPixel(const BitmapRecord &b, int32_t x, int32_t y) {
  const uint8_t *row =
      b.Pixels +
      static_cast<uint64_t>(b.Orientation == ORIENT_BOTTOM_FIRST ? b.Height - 1 - y : y) * b.BytesPerLine;
  const int32_t bits = b.BitsPerPixel == 12 ? 16 : b.BitsPerPixel;
  if (bits < 8) {
    const int32_t per = 8 / bits;
    return (row[x / per] >> ((per - 1 - x % per) * bits)) & ((1u << bits) - 1);
  }
  uint64_t v = 0;
  for (int32_t i = 0; i < bits / 8; ++i) v |= static_cast<uint64_t>(row[x * (bits / 8) + i]) << (8 * i);
  return v;
}

using imgtool::BitmapSnapshot;
using imgtool::KeptSnapshot;

struct Progress {
  const OpDescriptor *op = nullptr;
  uint32_t cancelAt = 0;  // report that answers kCancel; 0: never
  uint32_t seen = 0;
  int32_t last = -1;
  bool cancelled = false;
};

int32_t OnProgress(int32_t percent, void *user) {
  Progress &p = *static_cast<Progress *>(user);
  if (p.cancelled) Violation(*p.op, "progress reported after a cancel");
  if (percent < 0 || percent > 100)
    Violation(*p.op, "progress " + std::to_string(percent) + " outside 0..100");
  if (p.op->monotonicProgress && percent < p.last) Violation(*p.op, "progress went backwards");
  p.last = percent;
  if (++p.seen == p.cancelAt) {
    p.cancelled = true;
    return kCancel;
  }
  return RC_SUCCESS;
}

void RunOne(const uint8_t *data, size_t size) {
  Reader in(data, size);
  const std::vector<OpDescriptor> &ops = imgtool::Operations();
  if (ops.empty()) return;
  // The operation: by name when the input names one, else by number.
  const uint8_t nameLength = in.Byte();
  std::string name;
  for (uint8_t i = 0; i < nameLength; ++i) name += static_cast<char>(in.Byte());
  const OpDescriptor *op = imgtool::FindOperation(name);
  if (!op) op = &ops[(nameLength + name.size() * 31 + (name.empty() ? 0 : name[0])) % ops.size()];

  const KindChoice kind = kKinds[in.Byte() % kKindCount];
  const int32_t width = 1 + in.Byte() % 64, height = 1 + in.Byte() % 64;

  uint64_t liveBefore = 0, bytes = 0;
  GetAllocationStats(&liveBefore, &bytes);
  {
    const int32_t inputCount =
        op->files ? op->minInputs + in.Byte() % (op->maxInputs - op->minInputs + 1) : 1;
    std::vector<BitmapRecord> bitmaps(static_cast<size_t>(inputCount));
    bool made = true;
    for (BitmapRecord &b : bitmaps) made = made && MakeBitmap(in, b, kind, width, height);
    if (made) {
      BitmapRecord &b = bitmaps.front();
      MakeRegion(in, b);
      ArgValues values;
      ChooseArguments(in, *op, values);
      Progress progress{.op = op, .cancelAt = in.Byte() % 8u};
      const uint8_t failAt = in.Byte() % 16;
      const uint8_t settings = in.Byte();
      int32_t oldFirst = 0, oldSecond = 0;
      SwapKernelSettings(settings & 1, settings >> 1 & 1, &oldFirst, &oldSecond);

      // What must hold after the call.
      std::vector<uint8_t> before = BitmapSnapshot(b);
      const std::vector<uint8_t> keptBefore = KeptSnapshot(*op, b);
      // The bitmap as a kept extra shift of signed samples leaves it.
      BitmapRecord shifted{};
      const bool shifts = op->shiftsSignedOnce && (b.Flags & BITMAP_SIGNED) && op->shiftsSignedOnce(values) &&
                          CopyBitmap(&shifted, &b, BITMAP_RECORD_SIZE) == RC_SUCCESS &&
                          UnsignedToSigned(&shifted, 1, 0) == RC_SUCCESS;
      std::vector<uint8_t> shiftedBefore =
          shifts ? BitmapSnapshot(b, shifted.Pixels) : std::vector<uint8_t>{};
      std::vector<std::vector<uint8_t>> others;
      for (size_t i = 1; i < bitmaps.size(); ++i) others.push_back(BitmapSnapshot(bitmaps[i]));
      std::vector<std::vector<int32_t>> lists;
      for (const ArgSpec &a : op->args)
        if (a.type == ArgType::IntList) lists.push_back(values.List(a.name));
      const bool hasRegion = BitmapHasRegion(&b) != 0;
      std::vector<uint8_t> outside;  // 1 for each pixel outside the region
      std::vector<uint64_t> outsidePixels, outsideShifted;
      if (hasRegion && b.Pixels)
        for (int32_t y = 0; y < b.Height; ++y)
          for (int32_t x = 0; x < b.Width; ++x) {
            outside.push_back(IsPointInRegion(&b, y, x) ? 0 : 1);
            outsidePixels.push_back(StoredPixel(b, x, y));
            if (shifts) outsideShifted.push_back(StoredPixel(shifted, x, y));
          }
      if (shifted.Flags & BITMAP_ALLOCATED) FreeBitmap(&shifted);
      const int32_t bits = b.BitsPerPixel, order = b.ColorOrder;
      const bool swallowsCancel = op->swallowsCancel && op->swallowsCancel(b, values);

      SetStatusCallback(OnProgress, &progress);
      if (failAt) SetAllocationFailure(failAt);
      std::ostringstream report;
      int32_t status;
      try {
        if (op->files) {
          std::vector<BitmapRecord *> inputs;
          for (BitmapRecord &x : bitmaps) inputs.push_back(&x);
          imgtool::OutputImages outputs;
          status = op->files(inputs, outputs, values, report);
        } else {
          status = op->call(&b, values, report);
        }
      } catch (const imgtool::UsageError &) {
        // The tool's own refusal of an argument combination (a factor list of
        // the wrong length, say), before any library call.
        status = RC_INVALID_PARAMETER;
      }
      const bool failed = failAt && GetAllocationFailureCountdown() == 0;
      SetAllocationFailure(0);
      SetStatusCallback(nullptr, nullptr);
      SwapKernelSettings(oldFirst, oldSecond, nullptr, nullptr);

      if (status != RC_SUCCESS && status >= 0) Violation(*op, "status " + std::to_string(status));
      if (progress.cancelled && op->cancelReturned && status != kCancel &&
          !(failed && status == RC_NO_MEMORY) && !(swallowsCancel && status == RC_SUCCESS))
        Violation(*op, "cancelled, but returned " + std::to_string(status));
      const bool refusal = status != RC_SUCCESS && status != kCancel && !(failed && status == RC_NO_MEMORY) &&
                           !progress.cancelled;
      if (refusal) {
        const std::vector<uint8_t> after = BitmapSnapshot(b);
        if (after != before && after != keptBefore && after != shiftedBefore)
          Violation(*op, "status " + std::to_string(status) + " but the bitmap changed");
      }
      for (size_t i = 1; i < bitmaps.size(); ++i)
        if (BitmapSnapshot(bitmaps[i]) != others[i - 1])
          Violation(*op, "input " + std::to_string(i) + " changed");
      size_t list = 0;
      for (const ArgSpec &a : op->args)
        if (a.type == ArgType::IntList && values.List(a.name) != lists[list++])
          Violation(*op, "argument list --" + a.name + " changed");
      if (hasRegion && b.Pixels && b.BitsPerPixel == bits && b.ColorOrder == order)
        for (int32_t y = 0, i = 0; y < b.Height; ++y)
          for (int32_t x = 0; x < b.Width; ++x, ++i)
            if (outside[i] && StoredPixel(b, x, y) != outsidePixels[i] &&
                !(shifts && StoredPixel(b, x, y) == outsideShifted[i]))
              Violation(*op, "pixel " + std::to_string(x) + "," + std::to_string(y) +
                                 " outside the region changed");
    }
    for (BitmapRecord &b : bitmaps)
      if (b.Flags & BITMAP_ALLOCATED) FreeBitmap(&b);
  }
  uint64_t liveAfter = 0;
  GetAllocationStats(&liveAfter, &bytes);
  if (liveAfter != liveBefore)
    Violation(*op, std::to_string(liveAfter - liveBefore) + " allocations left live");
}

void WriteSeeds(const char *dir) {
  int n = 0;
  for (const OpDescriptor &op : imgtool::Operations())
    for (size_t k = 0; k < kKindCount; ++k)
      for (int region = 0; region < 2; ++region) {
        std::string seed;
        seed += static_cast<char>(op.name.size());
        seed += op.name;
        seed += static_cast<char>(k);
        seed += static_cast<char>(8);  // 9 x 7
        seed += static_cast<char>(6);
        if (op.files) seed += static_cast<char>(0);                                           // minInputs
        for (int i = 0; i < op.minInputs; ++i) seed += std::string("\0\x25\x4a\x6f\x94", 5);  // shape, pixels
        // No region, or an ellipse inside; every argument at its default.
        seed += region ? std::string("\x01\x01\x01\x01\x08\x06", 6) : std::string(1, '\0');
        std::ofstream(std::string(dir) + "/" + op.name + "-" + std::to_string(k) + (region ? "-region" : ""),
                      std::ios::binary)
            << seed;
        ++n;
      }
  std::printf("wrote %d seeds to %s\n", n, dir);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  TrackAllocations(1);
  if (const char *dir = std::getenv("IMG_FUZZ_WRITE_SEEDS")) {
    WriteSeeds(dir);
    std::exit(0);
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  RunOne(data, size);
  return 0;
}
