// Q_AddBitmaps, Q_AddWeightedBitmaps: checks, the per-sample rules (8-bit,
// unsigned and signed 16-bit) worked by hand and against a reference over
// random bitmaps, sizes, regions, orientations, the same bitmap twice, the
// caller's list left alone, allocation failures; the row loops of every
// instruction set against the reference, exhaustively for two 8-bit rows.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

#include "AddBitmaps_internal.h"
#include "kit.h"

namespace {

using kit::Format;
using kit::Level;
using kit::Pixel;
using kit::Rgb;

// A caller's list of bitmaps; destroying it frees no pixels.
struct List {
  BitmapList list = nullptr;
  explicit List(std::initializer_list<BitmapRecord *> bitmaps) {
    EXPECT_EQ(CreateBitmapList(&list), RC_SUCCESS);
    for (BitmapRecord *b : bitmaps) EXPECT_EQ(InsertBitmapListItem(list, -1, b), RC_SUCCESS);
  }
  ~List() { DestroyBitmapList(list); }
  List(const List &) = delete;
  List &operator=(const List &) = delete;
  operator BitmapList() const { return list; }
};

// A result record that frees what a call put into it.
struct Result {
  BitmapRecord rec{};
  ~Result() {
    if (rec.Flags & BITMAP_ALLOCATED) FreeBitmap(&rec);
  }
  BitmapRecord *operator&() { return &rec; }
};

int32_t Call(BitmapRecord *result, BitmapList list, uint32_t mode, const std::vector<uint32_t> *factors) {
  return factors ? Q_AddWeightedBitmaps(result, BITMAP_RECORD_SIZE, list, factors->data(), mode)
                 : Q_AddBitmaps(result, BITMAP_RECORD_SIZE, list, mode);
}

// Image-coordinate samples of a result (kit reads the record as it stands).
Pixel At(BitmapRecord *rec, int32_t x, int32_t y) {
  kit::Bitmap view;
  *view.get() = *rec;
  const Pixel p = view.At(x, y);
  *view.get() = BitmapRecord{};  // not ours to free
  return p;
}

TEST(AddBitmaps, Checks) {
  kit::Bitmap a(Format{24}, 2, 2), gray32(Format{32}, 2, 2);
  gray32->ColorOrder = ORDER_GRAY;
  List list{a}, empty{};
  const std::vector<uint32_t> zeros{0}, wrapsToZero{0xFFFFFFFFu, 1};
  List two{a, a};
  kit::Bitmap kept(Format{24}, 3, 1, {Rgb(1, 2, 3), Rgb(4, 5, 6), Rgb(7, 8, 9)});
  auto intoKept = [&](BitmapList l, const std::vector<uint32_t> &f) {
    const int32_t status = Q_AddWeightedBitmaps(kept, BITMAP_RECORD_SIZE, l, f.data(), ADD_WEIGHTED_AVERAGE);
    EXPECT_TRUE(kept->Width == 3 && kept.At(2, 0) == Rgb(7, 8, 9)) << "the result changed";
    return status;
  };
  auto emptied = [](int32_t status, BitmapRecord *r) {
    EXPECT_TRUE(!(r->Flags & BITMAP_ALLOCATED) && r->Pixels == nullptr && r->Width == 0) << "not emptied";
    return status;
  };
  Result r;
  kit::ExpectStatuses({
      {"size before null", [&] { return Q_AddBitmaps(nullptr, 200, list, ADD_SUM); }, RC_INVALID_STRUCT_SIZE},
      {"null result", [&] { return Q_AddBitmaps(nullptr, 208, list, ADD_SUM); }, RC_NO_BITMAP},
      {"32-bit gray result", [&] { return Q_AddBitmaps(gray32, 208, list, ADD_SUM); },
       RC_GRAY32_NOT_SUPPORTED},
      {"null list", [&] { return Q_AddBitmaps(&r, 208, nullptr, ADD_SUM); }, RC_NULL_OPTIONS},
      {"empty list", [&] { return Q_AddBitmaps(&r, 208, empty, ADD_SUM); }, RC_INVALID_PARAMETER},
      {"add: mode 3, result emptied", [&] { return emptied(Q_AddBitmaps(&r, 208, list, 3), &r); },
       RC_INVALID_PARAMETER},
      {"weighted: mode 5, result emptied",
       [&] { return emptied(Q_AddWeightedBitmaps(&r, 208, list, nullptr, 5), &r); }, RC_INVALID_PARAMETER},
      {"weighted: mode 0", [&] { return Q_AddWeightedBitmaps(&r, 208, list, nullptr, 0); },
       RC_INVALID_PARAMETER},
      {"all-zero factors: nothing changes", [&] { return intoKept(list, zeros); }, RC_INVALID_PARAMETER},
      {"factors summing to 0 in 32 bits", [&] { return intoKept(two, wrapsToZero); }, RC_INVALID_PARAMETER},
      {"null factors: mode 3 is mode 1",
       [&] { return Q_AddWeightedBitmaps(&r, 176, list, nullptr, ADD_WEIGHTED_AVERAGE); }, RC_SUCCESS},
  });
  EXPECT_EQ(r.rec.StructSize, 176u) << "declared size stored";
  EXPECT_EQ(gray32->StructSize, 208u);
}

// Samples of one pixel per bitmap, combined: 24-bit (8-bit form), 16-bit
// gray (unsigned and signed 16-bit form).
TEST(AddBitmaps, SampleRules) {
  struct Case {
    const char *name;
    Format format;
    bool isSigned;
    uint32_t mode;
    std::vector<uint32_t> samples, factors;  // factors empty: Q_AddBitmaps
    uint32_t expected;
  } cases[] = {
      {"one bitmap: average", Format{24}, false, ADD_AVERAGE, {77}, {}, 77},
      {"one bitmap: sum", Format{24}, false, ADD_SUM, {77}, {}, 77},
      {"200 + 100 saturate", Format{24}, false, ADD_SUM, {200, 100}, {}, 255},
      {"200, 100 average", Format{24}, false, ADD_AVERAGE, {200, 100}, {}, 150},
      {"201, 100 truncate", Format{24}, false, ADD_AVERAGE, {201, 100}, {}, 150},
      {"50% of 3 twice: each term truncated", Format{24}, false, ADD_WEIGHTED_SUM, {3, 3}, {50, 50}, 2},
      {"weights 1 and 2 on 0 and 255", Format{24}, false, ADD_WEIGHTED_AVERAGE, {0, 255}, {1, 2}, 170},
      {"weighted average ties to even",
       Format{24},
       false,
       ADD_WEIGHTED_AVERAGE,
       {1, 2, 3, 4},
       {1, 1, 1, 1},
       2},
      {"three averaged", Format{24}, false, ADD_AVERAGE, {255, 255, 254}, {}, 254},
      {"16-bit sum saturates", Format{16, ORDER_GRAY}, false, ADD_SUM, {40000, 30000}, {}, 65535},
      {"16-bit weighted sum",
       Format{16, ORDER_GRAY},
       false,
       ADD_WEIGHTED_SUM,
       {65535, 1000},
       {100, 10},
       65535},
      {"16-bit weighted sum below max",
       Format{16, ORDER_GRAY},
       false,
       ADD_WEIGHTED_SUM,
       {999, 1000},
       {100, 10},
       1099},
      {"signed mean toward zero", Format{16, ORDER_GRAY}, true, ADD_AVERAGE, {0xFFFD, 0xFFFC}, {}, 0xFFFD},
      {"signed sum stops at 32768", Format{16, ORDER_GRAY}, true, ADD_SUM, {30000, 5000, 0xD8F0}, {}, 32767},
      {"signed negative sum keeps 16 bits",
       Format{16, ORDER_GRAY},
       true,
       ADD_SUM,
       {0x8AD0, 0x8AD0},
       {},
       5536},
      {"signed negative weighted average",
       Format{16, ORDER_GRAY},
       true,
       ADD_WEIGHTED_AVERAGE,
       {0xFFF6, 0xFFEC},
       {1, 1},
       32767},
      {"signed negative weighted term",
       Format{16, ORDER_GRAY},
       true,
       ADD_WEIGHTED_SUM,
       {0xFFFF, 5},
       {1, 100},
       32767},
      {"signed negative with factor 0",
       Format{16, ORDER_GRAY},
       true,
       ADD_WEIGHTED_SUM,
       {0xFFFF, 5},
       {0, 100},
       5},
  };
  for (const Case &c : cases) {
    std::vector<std::unique_ptr<kit::Bitmap>> bitmaps;
    List list{};
    for (uint32_t s : c.samples) {
      const Pixel p = c.format.IsGray() ? Level(s) : Rgb(s, s, s);
      bitmaps.push_back(std::make_unique<kit::Bitmap>(c.format, 1, 1, std::vector<Pixel>{p}));
      if (c.isSigned) (*bitmaps.back())->Flags |= BITMAP_SIGNED;
      ASSERT_EQ(InsertBitmapListItem(list, -1, *bitmaps.back()), RC_SUCCESS);
    }
    Result r;
    ASSERT_EQ(Call(&r, list, c.mode, c.factors.empty() ? nullptr : &c.factors), RC_SUCCESS) << c.name;
    EXPECT_EQ(At(&r, 0, 0).v[0], c.expected) << c.name;
  }
}

// The per-sample rules over random 24-bit pairs and triples, every mode,
// against a plain reference (the two-bitmap loops are specialised).
uint32_t Reference(uint32_t mode, const std::vector<uint32_t> &s, const std::vector<uint32_t> &w) {
  uint64_t sum = 0;
  double weighted = 0;
  uint32_t weights = 0;
  for (size_t i = 0; i < s.size(); ++i) {
    sum += mode == ADD_WEIGHTED_SUM ? (s[i] * w[i]) / 100u : s[i];
    weighted += static_cast<double>(w[i]) * s[i];
    weights += w[i];
  }
  if (mode == ADD_AVERAGE) return static_cast<uint32_t>(sum / s.size());
  if (mode == ADD_WEIGHTED_AVERAGE) return static_cast<uint32_t>(std::nearbyint(weighted / weights));
  return sum > 255 ? 255 : static_cast<uint32_t>(sum);
}

TEST(AddBitmaps, RandomEightBitAgainstReference) {
  for (size_t count : {2u, 3u}) {
    std::vector<std::unique_ptr<kit::Bitmap>> bitmaps;
    List list{};
    for (size_t i = 0; i < count; ++i) {
      bitmaps.push_back(std::make_unique<kit::Bitmap>(Format{24}, 37, 5));
      bitmaps.back()->Randomize(static_cast<uint32_t>(90 + i));
      ASSERT_EQ(InsertBitmapListItem(list, -1, *bitmaps.back()), RC_SUCCESS);
    }
    const std::vector<uint32_t> factors{3, 250, 7};
    for (uint32_t mode = ADD_AVERAGE; mode <= ADD_WEIGHTED_SUM; ++mode) {
      Result r;
      ASSERT_EQ(Call(&r, list, mode, &factors), RC_SUCCESS);
      for (int32_t y = 0; y < 5; ++y)
        for (int32_t x = 0; x < 37; ++x)
          for (int k = 0; k < 3; ++k) {
            std::vector<uint32_t> s;
            for (auto &b : bitmaps) s.push_back(b->At(x, y).v[k]);
            ASSERT_EQ(At(&r, x, y).v[k], Reference(mode, s, factors)) << mode << " " << count << " " << x;
          }
    }
  }
}

// Different sizes and row orders: the result has the first bitmap's size and
// orientation, the common area is combined (in image rows), the rest keeps
// the first bitmap's pixels; the caller's bitmaps and list are unchanged.
TEST(AddBitmaps, SizesAndOrientations) {
  Format bottomUp{24};
  bottomUp.orientation = ORIENT_BOTTOM_FIRST;
  kit::Bitmap a(Format{24}, 4, 3), b(bottomUp, 3, 4);
  a.Randomize(1);
  b.Randomize(2);
  const std::vector<uint8_t> aBytes = a.StoredBytes(), bBytes = b.StoredBytes();
  List list{a, b};
  Result r;
  ASSERT_EQ(Q_AddBitmaps(&r, 208, list, ADD_SUM), RC_SUCCESS);
  ASSERT_TRUE(r.rec.Width == 4 && r.rec.Height == 3 && r.rec.Orientation == ORIENT_TOP_FIRST);
  for (int32_t y = 0; y < 3; ++y)
    for (int32_t x = 0; x < 4; ++x)
      for (int k = 0; k < 3; ++k) {
        const uint32_t sum = x < 3 ? a.At(x, y).v[k] + b.At(x, y).v[k] : a.At(x, y).v[k];
        EXPECT_EQ(At(&r, x, y).v[k], sum > 255 ? 255 : sum) << x << "," << y;
      }
  EXPECT_TRUE(a.StoredBytes() == aBytes && b.StoredBytes() == bBytes &&
              b->Orientation == ORIENT_BOTTOM_FIRST);
  BitmapRecord item{};
  uint32_t count = 0;
  ASSERT_TRUE(GetBitmapListCount(list, &count) == RC_SUCCESS && count == 2);
  ASSERT_EQ(GetBitmapListItem(list, 0, &item, 208), RC_SUCCESS);
  EXPECT_EQ(item.Pixels, a->Pixels);
}

// The same bottom-up bitmap twice: its pixels are turned once and restored
// once, so the average reproduces it and it keeps its stored bytes.
TEST(AddBitmaps, SameBitmapTwice) {
  Format bottomUp{48};
  bottomUp.orientation = ORIENT_BOTTOM_FIRST;
  kit::Bitmap a(bottomUp, 5, 4);
  a.Randomize(6);
  const std::vector<uint8_t> before = a.StoredBytes();
  List list{a, a, a};
  Result r;
  ASSERT_EQ(Q_AddBitmaps(&r, 208, list, ADD_AVERAGE), RC_SUCCESS);
  EXPECT_EQ(r.rec.Orientation, ORIENT_BOTTOM_FIRST);
  for (int32_t y = 0; y < 4; ++y)
    for (int32_t x = 0; x < 5; ++x) EXPECT_EQ(At(&r, x, y), a.At(x, y)) << x << "," << y;
  EXPECT_EQ(a.StoredBytes(), before);
  EXPECT_EQ(a->Orientation, ORIENT_BOTTOM_FIRST);
}

// A region whose left edge is not 0: the 16-bit forms combine its rows from
// column 0, the 8-bit form from the region's left edge; rows outside the
// bounds keep the first bitmap's pixels, whatever the region's shape.
TEST(AddBitmaps, RegionColumns) {
  for (const Format &format : {Format{16, ORDER_GRAY}, Format{48}, Format{24}}) {
    const uint32_t one = format.bits == 24 ? 1 : 100;
    auto fill = [&](uint32_t v) {
      return std::vector<Pixel>(6 * 4, format.IsGray() ? Level(v) : Rgb(v, v, v));
    };
    kit::Bitmap a(format, 6, 4, fill(one)), b(format, 6, 4, fill(2 * one));
    kit::SetEllipseRegion(a, 2, 1, 5, 3);
    List list{a, b};
    Result r;
    ASSERT_EQ(Q_AddBitmaps(&r, 208, list, ADD_SUM), RC_SUCCESS);
    for (int32_t y = 0; y < 4; ++y)
      for (int32_t x = 0; x < 6; ++x) {
        const bool rows = y >= 1 && y < 3, columns = format.bits == 24 ? x >= 2 && x < 5 : x < 5;
        EXPECT_EQ(At(&r, x, y).v[0], rows && columns ? 3 * one : one)
            << format.Name() << " " << x << "," << y;
      }
  }
}

// Mixed kinds take the 8-bit form: a 48-bit first bitmap reads its samples
// narrowed and gets the result widened; an 8-bit gray list stays one sample.
TEST(AddBitmaps, MixedKinds) {
  kit::Bitmap deep(Format{48}, 1, 1, {Rgb(100 * 257, 100 * 257, 100 * 257)}),
      bgr(Format{24}, 1, 1, {Rgb(50, 60, 70)});
  kit::Bitmap g1(Format{8, ORDER_GRAY}, 1, 1, {Level(255)}), g2(Format{8, ORDER_GRAY}, 1, 1, {Level(254)});
  List mixed{deep, bgr}, grays{g1, g2};
  Result r1, r2;
  ASSERT_EQ(Q_AddBitmaps(&r1, 208, mixed, ADD_SUM), RC_SUCCESS);
  EXPECT_EQ(At(&r1, 0, 0), Rgb(150 * 257, 160 * 257, 170 * 257));
  ASSERT_EQ(Q_AddBitmaps(&r2, 208, grays, ADD_AVERAGE), RC_SUCCESS);
  EXPECT_TRUE(r2.rec.ColorOrder == ORDER_GRAY && At(&r2, 0, 0) == Level(254));
}

// Only the last bitmap's converter counts: an earlier bitmap without pixels
// is combined as zeros, a last one fails the call (kept).
TEST(AddBitmaps, OnlyTheLastConverterCounts) {
  kit::Bitmap a(Format{24}, 1, 1, {Rgb(10, 20, 30)}), c(Format{24}, 1, 1, {Rgb(40, 50, 60)});
  BitmapRecord none = *c.get();
  none.Flags &= ~BITMAP_ALLOCATED;
  List middle{a, &none, c}, last{a, c, &none};
  Result r1, r2;
  ASSERT_EQ(Q_AddBitmaps(&r1, 208, middle, ADD_AVERAGE), RC_SUCCESS);
  EXPECT_EQ(At(&r1, 0, 0), Rgb(16, 23, 30));
  EXPECT_EQ(Q_AddBitmaps(&r2, 208, last, ADD_AVERAGE), RC_NO_BITMAP);
  EXPECT_FALSE(r2.rec.Flags & BITMAP_ALLOCATED);
}

TEST(AddBitmaps, AllocationFailuresLeaveListAndBitmapsAlone) {
  struct Fixture {
    std::unique_ptr<kit::Bitmap> a, b;
    std::unique_ptr<List> list;
    std::vector<uint8_t> bBytes;
    Result result;
  };
  for (bool weighted : {false, true}) {
    auto setup = [] {
      Fixture f;
      Format bottomUp{32};
      bottomUp.orientation = ORIENT_BOTTOM_FIRST;
      f.a = std::make_unique<kit::Bitmap>(Format{24}, 5, 4);
      f.b = std::make_unique<kit::Bitmap>(bottomUp, 4, 5);
      f.a->Randomize(3);
      f.b->Randomize(4);
      kit::SetRectRegion(*f.a, 1, 1, 3, 3);
      f.bBytes = f.b->StoredBytes();
      f.list = std::make_unique<List>(std::initializer_list<BitmapRecord *>{*f.a, *f.b, *f.b});
      return f;
    };
    const std::vector<uint32_t> factors{1, 2, 3};
    const int n = kit::CheckAllocationFailures(
        setup,
        [&](Fixture &f) {
          const int32_t status =
              Call(&f.result, *f.list, ADD_WEIGHTED_SUM - (weighted ? 0 : 2), weighted ? &factors : nullptr);
          EXPECT_EQ(f.b->StoredBytes(), f.bBytes);
          if (status != RC_SUCCESS) {
            EXPECT_FALSE(f.result.rec.Flags & BITMAP_ALLOCATED);
          }
          return status;
        },
        {RC_NO_MEMORY, RC_SUCCESS});  // a converter of a member but the last failing is overlooked: kept
    EXPECT_GT(n, 5);
  }
}

// Every pair (a, b) of 8-bit samples through the row loops of each
// instruction set equals the reference (doubles for the weighted average,
// with the factors as given, not reduced); factors without a lane form are
// refused. Odd lengths and offsets leave tails to the scalar rest.
TEST(AddBitmaps, PairLoopsEqualTheReferenceForEveryPair) {
  struct Case {
    uint32_t mode, f0, f1;
    bool lanes;  // a lane form exists
  };
  const Case cases[] = {{ADD_SUM, 0, 0, true},
                        {ADD_AVERAGE, 0, 0, true},
                        {ADD_WEIGHTED_AVERAGE, 1, 3, true},
                        {ADD_WEIGHTED_AVERAGE, 1, 1, true},
                        {ADD_WEIGHTED_AVERAGE, 0, 7, true},
                        {ADD_WEIGHTED_AVERAGE, 9, 0, true},
                        {ADD_WEIGHTED_AVERAGE, 300, 100, true},
                        {ADD_WEIGHTED_AVERAGE, 128, 129, true},
                        {ADD_WEIGHTED_AVERAGE, 1, 256, true},
                        {ADD_WEIGHTED_AVERAGE, 5, 6, true},
                        {ADD_WEIGHTED_AVERAGE, 77, 101, true},
                        {ADD_WEIGHTED_AVERAGE, 1, 127, true},
                        {ADD_WEIGHTED_AVERAGE, 60, 67, true},
                        {ADD_WEIGHTED_AVERAGE, 3, 125, true},
                        {ADD_WEIGHTED_AVERAGE, 1, 257, false},
                        {ADD_WEIGHTED_AVERAGE, 0xFFFFFFFFu, 2, false}};
  std::vector<uint8_t> a(65536 + 7), b(65536 + 7);
  for (size_t k = 0; k < a.size(); ++k) {
    a[k] = static_cast<uint8_t>(k >> 8);
    b[k] = static_cast<uint8_t>(k);
  }
  for (const Case &c : cases) {
    img::add::Pair8 pair{};
    if (c.mode == ADD_WEIGHTED_AVERAGE) {
      ASSERT_EQ(img::add::WeightedPair(c.f0, c.f1, &pair), c.lanes) << c.f0 << "/" << c.f1;
      if (!c.lanes) continue;
    } else {
      pair.rule = c.mode == ADD_SUM ? img::add::PairRule::Sum : img::add::PairRule::Average;
    }
    const uint32_t factors[2] = {c.f0, c.f1};
    const img::add::Combination reference{c.mode, factors, c.f0 + c.f1, 2};
    std::vector<uint8_t> expected(a.size());
    for (size_t k = 0; k < a.size(); ++k) {
      const uint8_t *rows[2] = {a.data(), b.data()};
      expected[k] = img::add::CombineSample<uint8_t, false>(reference, rows, static_cast<std::ptrdiff_t>(k));
    }
    for (img::Isa isa : img::kAllIsas) {
      if (!img::IsaAvailable(isa)) continue;
      for (size_t offset : {0u, 3u}) {
        std::vector<uint8_t> out(a.size(), 0xA5);
        img::add::CombinePair(isa, pair, out.data() + offset, a.data() + offset, b.data() + offset,
                              a.size() - offset - 2);
        for (size_t k = offset; k < a.size() - 2; ++k)
          ASSERT_EQ(out[k], expected[k]) << img::IsaName(isa) << " mode " << c.mode << " " << c.f0 << "/"
                                         << c.f1 << " a " << int(a[k]) << " b " << int(b[k]);
        EXPECT_TRUE(out[a.size() - 2] == 0xA5 && out[a.size() - 1] == 0xA5);
      }
    }
  }
}

// The exports with the row loops of each instruction set give the stored
// bytes of the scalar path for two random bitmaps of every kind, bottom-up
// too, with and without a region, also into a result that already holds a
// block of the right size, scribbled over first: the call writes every byte
// of the block it keeps (and of a fresh block, which it does not clear).
TEST(AddBitmaps, InstructionSetsGiveTheScalarBytes) {
  const std::vector<uint32_t> factors{1, 3};
  for (const Format &format : kit::AllFormats(true)) {
    for (bool region : {false, true}) {
      kit::Bitmap a(format, 45, 7), b(format, 45, 7);
      a.Randomize(11);
      b.Randomize(12);
      if (region) kit::SetEllipseRegion(a, 3, 1, 40, 6);
      List list{a, b};
      for (uint32_t mode = ADD_AVERAGE; mode <= ADD_WEIGHTED_SUM; ++mode) {
        Result scalar;
        ASSERT_EQ(img::add::AddWithIsa(img::Isa::Scalar, &scalar, 208, list, factors.data(), mode, true),
                  RC_SUCCESS);
        kit::Bitmap view;
        *view.get() = scalar.rec;
        const std::vector<uint8_t> expected = view.StoredBytes();
        *view.get() = BitmapRecord{};
        for (img::Isa isa : img::kAllIsas) {
          if (!img::IsaAvailable(isa)) continue;
          Result r;
          for (int call = 0; call < 2; ++call) {
            if (call == 1) std::memset(r.rec.Pixels, 0xA5, r.rec.DataSize);
            ASSERT_EQ(img::add::AddWithIsa(isa, &r, 208, list, factors.data(), mode, true), RC_SUCCESS);
            *view.get() = r.rec;
            EXPECT_EQ(view.StoredBytes(), expected)
                << format.Name() << " mode " << mode << " region " << region << " " << img::IsaName(isa);
            *view.get() = BitmapRecord{};
          }
        }
      }
    }
  }
}

}  // namespace
