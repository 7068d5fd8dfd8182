// The bad-argument sweep, generated from the operation descriptors: every
// export is called with each argument at each end of its range and one past
// it, each pointer null, each record size wrong by one, a zeroed record, a
// flags word of 1, a 32-bit gray, a signed and a pixel-less bitmap and a
// ColorsUsed beyond the palette. Each call must give the status its
// descriptor documents (docs/operations.md lists them), leave the bitmap
// untouched when it refuses, and leak nothing.
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "kit.h"
#include "registry.h"

namespace {

using imgtool::ArgSpec;
using imgtool::ArgType;
using imgtool::ArgValues;
using imgtool::OpDescriptor;

// The kind each export is probed on: the first it accepts of these.
kit::Format BaseFormat(const OpDescriptor &op) {
  for (const kit::Format &f : {kit::Format{24, ORDER_BGR}, kit::Format{8, ORDER_GRAY},
                               kit::Format{16, ORDER_GRAY}, kit::Format{8, ORDER_BGR}})
    if (op.kinds & imgtool::KindBitOf(kit::Bitmap(f, 1, 1).get())) return f;
  return kit::AllFormats().front();
}

kit::Bitmap Probe(const kit::Format &f) {
  PaletteEntry palette[256];
  for (int i = 0; i < 256; ++i)
    palette[i] =
        PaletteEntry{static_cast<uint8_t>(i * 7), static_cast<uint8_t>(i * 13), static_cast<uint8_t>(i), 0};
  kit::Bitmap b(f, 9, 7, f.IsPalette() ? palette : nullptr);
  b.Randomize(5);
  return b;
}

using imgtool::BitmapSnapshot;
using imgtool::KeptSnapshot;

struct Expect {
  std::string what;
  int32_t status;  // imgtool::kAccepted: 1 or any negative status
};

// Calls `op` on `b` with `args` and checks the status, the untouched bitmap on
// a refusal and the leak guard.
void Check(const OpDescriptor &op, BitmapRecord *b, const ArgValues &args, const Expect &e) {
  SCOPED_TRACE(op.name + ": " + e.what);
  const std::vector<uint8_t> before = b ? BitmapSnapshot(*b) : std::vector<uint8_t>{};
  const std::vector<uint8_t> kept = b ? KeptSnapshot(op, *b) : std::vector<uint8_t>{};
  std::ostringstream out;
  const int32_t status = op.call(b, args, out);
  if (e.status == imgtool::kAccepted)
    EXPECT_TRUE(status == RC_SUCCESS || status < 0) << "status " << status;
  else
    EXPECT_EQ(status, e.status);
  if (b && status != RC_SUCCESS) {
    const std::vector<uint8_t> after = BitmapSnapshot(*b);
    EXPECT_TRUE(after == before || after == kept) << "a refusal changed the bitmap";
  }
}

ArgValues Defaults(const OpDescriptor &op) {
  ArgValues values;
  imgtool::ApplyDefaults(op, values);
  return values;
}

// The values of one argument the sweep passes, each with its expected status.
std::vector<std::pair<int64_t, int32_t>> ScalarProbes(const ArgSpec &a, const BitmapRecord &b) {
  int64_t lo = a.min, hi = a.max;
  if (a.boundsOn) std::tie(lo, hi) = a.boundsOn(b);
  const int64_t typeMin = a.type == ArgType::UInt ? 0 : INT32_MIN;
  const int64_t typeMax = a.type == ArgType::UInt ? int64_t{UINT32_MAX} : INT32_MAX;
  std::vector<std::pair<int64_t, int32_t>> probes = {{lo, a.endStatuses[0]}, {hi, a.endStatuses[1]}};
  for (int64_t v : {lo - 1, hi + 1, typeMin, typeMax}) {
    if (v < typeMin || v > typeMax || (v >= lo && v <= hi)) continue;
    if (a.probeLimit && v > a.probeLimit) continue;
    probes.push_back({v, a.outsideStatus});
  }
  return probes;
}

class BadArguments : public testing::TestWithParam<const OpDescriptor *> {};

TEST_P(BadArguments, RecordAndBitmapRefusals) {
  kit::LeakGuard guard;  // every bitmap below is gone before it checks
  const OpDescriptor &op = *GetParam();
  const imgtool::Refusals &r = op.refusals;
  const kit::Format f = BaseFormat(op);
  const ArgValues args = Defaults(op);
  Check(op, nullptr, args, {"null bitmap", r.nullBitmap});
  for (uint32_t size : {175u, 177u, 207u, 209u}) {
    kit::Bitmap b = Probe(f);
    b->StructSize = size;
    Check(op, b, args, {"record size " + std::to_string(size), r.recordSize});
    b->StructSize = BITMAP_RECORD_SIZE;
  }
  {
    BitmapRecord zero{};
    Check(op, &zero, args, {"zeroed record", r.zeroedRecord});
    BitmapRecord empty{};
    ASSERT_EQ(InitBitmapHeader(&empty, BITMAP_RECORD_SIZE, 9, 7, f.bits), RC_SUCCESS);
    empty.ColorOrder = f.order;
    Check(op, &empty, args, {"no pixel memory", r.noPixels});
    FreeBitmap(&empty);
  }
  {
    kit::Bitmap g32(kit::Format{32, ORDER_GRAY}, 9, 7);
    Check(op, g32, args, {"32-bit gray", r.gray32});
  }
  {
    kit::Bitmap b = Probe(f);
    b->Flags |= BITMAP_SIGNED;
    Check(op, b, args, {"signed samples", r.signedData});
  }
  if (op.kinds & imgtool::kPalette) {
    kit::Bitmap b = Probe(kit::Format{8, ORDER_BGR});
    b->ColorsUsed = 257;
    Check(op, b, args, {"ColorsUsed 257", r.coloursUsed});
  }
  if (op.flagsWord) {
    kit::Bitmap b = Probe(f);
    ArgValues flagged = args;
    flagged.SetFlags(1);
    Check(op, b, flagged, {"flags word 1", r.flags});
    EXPECT_TRUE(flagged.FlagsRead()) << op.name
                                     << ": the call passes no ArgValues::Flags() (or set flagsWord)";
  }
  for (const imgtool::PointerSpec &p : op.pointers) {
    kit::Bitmap b = Probe(f);
    ArgValues nulled = args;
    nulled.SetNullPointer(p.name);
    Check(op, b, nulled, {"null " + p.name, p.nullStatus});
  }
}

TEST_P(BadArguments, EachArgumentAtAndPastItsEnds) {
  kit::LeakGuard guard;
  const OpDescriptor &op = *GetParam();
  const kit::Format f = BaseFormat(op);
  for (const ArgSpec &a : op.args) {
    std::vector<std::pair<std::vector<int32_t>, int32_t>> lists;  // IntList probes
    std::vector<std::pair<int64_t, int32_t>> scalars;
    {
      kit::Bitmap b = Probe(f);
      switch (a.type) {
        case ArgType::Int:
        case ArgType::UInt:
          scalars = ScalarProbes(a, *b.get());
          break;
        case ArgType::Enum: {
          int64_t past = 0;
          for (const imgtool::EnumValue &e : a.values) past = std::max(past, e.value + 1);
          scalars = {{past, a.outsideStatus}};
          break;
        }
        case ArgType::IntList: {
          const size_t n = static_cast<size_t>(a.minCount);
          lists.push_back({std::vector<int32_t>(n, static_cast<int32_t>(a.min)), a.endStatuses[0]});
          lists.push_back({std::vector<int32_t>(n, static_cast<int32_t>(a.max)), a.endStatuses[1]});
          if (a.minCount > 1)
            lists.push_back({std::vector<int32_t>(n - 1, static_cast<int32_t>(a.min)), a.outsideStatus});
          lists.push_back(
              {std::vector<int32_t>(a.maxCount + 1, static_cast<int32_t>(a.min)), a.outsideStatus});
          for (int64_t v : {a.min - 1, a.max + 1})
            if (v >= INT32_MIN && v <= INT32_MAX)
              lists.push_back({std::vector<int32_t>(n, static_cast<int32_t>(v)), a.outsideStatus});
          break;
        }
        default:
          break;
      }
    }
    for (const auto &[value, status] : scalars) {
      kit::Bitmap b = Probe(f);
      ArgValues v = Defaults(op);
      v.Set(a.name, value);
      Check(op, b, v,
            {"--" + a.name + " " + std::to_string(value), status == 0 ? imgtool::kAccepted : status});
    }
    for (const auto &[list, status] : lists) {
      kit::Bitmap b = Probe(f);
      ArgValues v = Defaults(op);
      v.SetList(a.name, list);
      Check(op, b, v,
            {"--" + a.name + " " + std::to_string(list.size()) + " x " + std::to_string(list.front()),
             status == 0 ? imgtool::kAccepted : status});
    }
  }
}

std::vector<const OpDescriptor *> AllOps() {
  std::vector<const OpDescriptor *> ops;
  for (const OpDescriptor &op : imgtool::Operations()) ops.push_back(&op);
  return ops;
}

INSTANTIATE_TEST_SUITE_P(Operations, BadArguments, testing::ValuesIn(AllOps()),
                         [](const testing::TestParamInfo<const OpDescriptor *> &info) {
                           std::string name = info.param->name;
                           for (char &c : name)
                             if (c == '-') c = '_';
                           return name;
                         });

}  // namespace
