// Regions of imgdisplay: shapes and combinations against brute-force
// pixel-centre predicates, masks of every kind, copies, allocation failures
// and argument checks.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "imgdisplay.h"
#include "kit.h"

namespace {

using I128 = __int128;
using Grid = std::vector<uint8_t>;  // one flag per pixel, row-major
using InFn = std::function<bool(int32_t, int32_t)>;

// A bitmap record without pixels: regions only need Width and Height.
struct Canvas {
  BitmapRecord rec{};
  Canvas(int32_t width, int32_t height, uint32_t structSize = BITMAP_RECORD_SIZE) {
    rec.StructSize = structSize;
    rec.Width = width;
    rec.Height = height;
  }
  Canvas(Canvas &&o) noexcept : rec(o.rec) { o.rec.Region = nullptr; }
  Canvas(const Canvas &) = delete;
  ~Canvas() { FreeBitmapRegion(&rec); }
  BitmapRecord *get() { return &rec; }
};

Grid MakeGrid(int32_t w, int32_t h, const InFn &in) {
  Grid g(static_cast<size_t>(w) * h);
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) g[static_cast<size_t>(y) * w + x] = in(x, y) ? 1 : 0;
  return g;
}
Grid ReadRegion(const BitmapRecord *b) {
  return MakeGrid(b->Width, b->Height, [b](int32_t x, int32_t y) { return IsPointInRegion(b, y, x) != 0; });
}
std::array<int32_t, 4> Box(const Rect &r) { return {r.Left, r.Top, r.Right, r.Bottom}; }

std::string Picture(const Grid &got, int32_t w) {
  std::string s = "got:\n";
  for (size_t i = 0; i < got.size(); ++i) s += std::string(got[i] ? "#" : ".") + ((i + 1) % w ? "" : "\n");
  return s;
}

// Checks every query against the expected pixel set: point tests, the
// canonical runs of each row (also just outside the bitmap), bounds, area and
// max runs. `set` tells whether the bitmap is meant to carry a region.
void ExpectRegion(const BitmapRecord *b, const Grid &want, const std::string &what, bool set = true) {
  SCOPED_TRACE(what);
  const int32_t w = b->Width, h = b->Height;
  ASSERT_EQ(BitmapHasRegion(b) != 0, set);
  const Grid got = ReadRegion(b);
  ASSERT_EQ(got, want) << Picture(got, w);
  std::array<int32_t, 4> box{w, h, 0, 0};
  uint64_t area = 0;
  int32_t maxRuns = 0;
  for (int32_t y = -1; y <= h; ++y) {
    std::vector<int32_t> expected, runs;  // Start, End, Start, End, ...
    for (int32_t x = 0; y >= 0 && y < h && x < w; ++x) {
      const size_t i = static_cast<size_t>(y) * w + x;
      if (!want[i]) continue;
      if (x == 0 || !want[i - 1]) expected.push_back(x), expected.push_back(x);
      expected.back() = x + 1, ++area;
      box = {std::min(box[0], x), std::min(box[1], y), std::max(box[2], x + 1), std::max(box[3], y + 1)};
    }
    std::vector<RowRun> got(static_cast<size_t>(w) + 2);
    const int32_t n = GetRegionRowRuns(b, y, got.data(), w + 2);
    for (int32_t i = 0; i < n; ++i) runs.push_back(got[i].Start), runs.push_back(got[i].End);
    EXPECT_EQ(runs, expected) << "runs of row " << y;
    maxRuns = std::max(maxRuns, n);
    EXPECT_EQ(IsPointInRegion(b, y, -1) | IsPointInRegion(b, y, w), 0);
  }
  Rect bounds{-7, -7, -7, -7};
  uint64_t count = 12345;
  EXPECT_EQ(GetRegionBounds(b, nullptr, &bounds), RC_SUCCESS);
  if (area == 0) box = {};
  EXPECT_EQ(Box(bounds), box);
  EXPECT_EQ(GetRegionArea(b, &count), RC_SUCCESS);
  EXPECT_EQ(count, area);
  EXPECT_EQ(GetRegionMaxRuns(b), set ? maxRuns : 1);
}

// ---- Independent pixel-centre predicates ------------------------------------------------

bool InRect(const Rect &r, int32_t x, int32_t y) {
  return x >= r.Left && x < r.Right && y >= r.Top && y < r.Bottom;
}

// Centre (x + 0.5, y + 0.5) inside the ellipse inscribed in r, both sides of
// the inequality scaled to integers.
bool InEllipse(const Rect &r, int32_t x, int32_t y) {
  const I128 w = I128(r.Right) - r.Left, h = I128(r.Bottom) - r.Top;
  const I128 dx = I128(2) * x + 1 - (I128(r.Left) + r.Right), dy = I128(2) * y + 1 - (I128(r.Top) + r.Bottom);
  return w > 0 && h > 0 && dx * dx * h * h + dy * dy * w * w <= w * w * h * h;
}

// Counts the edges crossing the centre line at or left of the pixel centre.
bool InPolygon(const std::vector<Point> &pts, uint32_t rule, int32_t x, int32_t y) {
  int32_t crossings = 0, winding = 0;
  for (size_t i = 0; i < pts.size(); ++i) {
    const Point p = pts[i], q = pts[(i + 1) % pts.size()];
    if (!(std::min(p.Y, q.Y) <= y && y < std::max(p.Y, q.Y))) continue;  // also drops horizontal edges
    const I128 dy = I128(q.Y) - p.Y;
    // xi = p.X + (y + 0.5 - p.Y) (q.X - p.X) / dy <= x + 0.5, times 2 dy.
    const I128 lhs = 2 * I128(p.X) * dy + (2 * I128(y) + 1 - 2 * I128(p.Y)) * (I128(q.X) - p.X);
    const I128 rhs = (2 * I128(x) + 1) * dy;
    if (dy > 0 ? lhs <= rhs : lhs >= rhs) ++crossings, winding += dy > 0 ? 1 : -1;
  }
  return rule == POLYGON_EVEN_ODD ? (crossings & 1) != 0 : winding != 0;
}

std::vector<Point> Star(int32_t cx, int32_t cy, int32_t radius) {
  // Pentagram: the vertices of a pentagon visited in the order 0, 2, 4, 1, 3.
  std::vector<Point> p;
  for (int k = 0; k < 5; ++k) {
    const double a = -M_PI / 2 + 2 * M_PI * ((2 * k) % 5) / 5;
    p.push_back(Point{cx + static_cast<int32_t>(std::lround(radius * std::cos(a))),
                      cy + static_cast<int32_t>(std::lround(radius * std::sin(a)))});
  }
  return p;
}

// A shape: how to set it on a bitmap and which pixels it holds.
struct Shape {
  std::string name;
  std::function<int32_t(BitmapRecord *, uint32_t)> apply;
  InFn in;
};
std::string Name(const Rect &r) { return testing::PrintToString(Box(r)); }
Shape RectShape(Rect r) {
  return {"rect " + Name(r), [r](BitmapRecord *b, uint32_t op) { return SetBitmapRegionRect(b, &r, op); },
          [r](int32_t x, int32_t y) { return InRect(r, x, y); }};
}
Shape EllipseShape(Rect r) {
  return {"ellipse " + Name(r),
          [r](BitmapRecord *b, uint32_t op) { return SetBitmapRegionEllipse(b, &r, op); },
          [r](int32_t x, int32_t y) { return InEllipse(r, x, y); }};
}
Shape PolygonShape(const std::string &name, std::vector<Point> p, uint32_t rule) {
  return {name + (rule == POLYGON_EVEN_ODD ? " even-odd" : " winding"),
          [p, rule](BitmapRecord *b, uint32_t op) {
            return SetBitmapRegionPolygon(b, p.data(), static_cast<uint32_t>(p.size()), rule, op);
          },
          [p, rule](int32_t x, int32_t y) { return InPolygon(p, rule, x, y); }};
}

TEST(RegionShapes, MatchPixelCentrePredicates) {
  kit::LeakGuard guard;
  // Each box as a rectangle and as the ellipse inscribed in it, on a 17 x 13
  // bitmap: even and odd sizes, one or two pixels, thin, partly or wholly
  // outside, empty, and so large that rounding would decide.
  const Rect boxes[] = {{3, 2, 11, 9},   {2, 2, 14, 10},    {1, 1, 16, 12},     {3, 0, 12, 13},
                        {0, 0, 13, 13},  {0, 5, 17, 7},     {8, 0, 9, 13},      {4, 4, 5, 5},
                        {4, 4, 6, 6},    {-9, -7, 9, 7},    {12, 9, 30, 40},    {10, 6, 30, 26},
                        {17, 0, 25, 13}, {0, -10, 17, 0},   {-20, -20, -2, -2}, {5, 2, 5, 10},
                        {5, 2, 12, 2},   {-99, -99, 99, 99}};
  const Rect huge[] = {{-1000003, -999998, 1000019, 1000001}, {-2000000, 6, 9, 2000006}};
  // The largest ellipse is checked by hand below (its predicate overflows).
  std::vector<Shape> shapes = {RectShape({INT32_MIN, INT32_MIN, INT32_MAX, INT32_MAX})};
  for (const Rect &r : boxes) shapes.push_back(RectShape(r)), shapes.push_back(EllipseShape(r));
  for (const Rect &r : huge) shapes.push_back(RectShape(r)), shapes.push_back(EllipseShape(r));
  const int32_t lo = INT32_MIN, hi = INT32_MAX;
  const std::vector<std::pair<const char *, std::vector<Point>>> polygons = {
      {"triangle", {{2, 1}, {15, 5}, {4, 12}}},
      {"triangle reversed", {{4, 12}, {15, 5}, {2, 1}}},
      {"rectangle", {{3, 2}, {11, 2}, {11, 9}, {3, 9}}},
      {"diagonals through centres", {{0, 0}, {13, 13}, {0, 13}}},
      {"slope one half", {{1, 0}, {17, 8}, {1, 12}}},
      {"concave", {{1, 1}, {15, 1}, {15, 11}, {8, 4}, {1, 11}}},
      {"horizontal and collinear edges", {{2, 2}, {6, 2}, {10, 2}, {10, 7}, {14, 7}, {14, 11}, {2, 11}}},
      {"duplicate vertices", {{2, 2}, {2, 2}, {12, 3}, {12, 3}, {6, 11}}},
      {"partly outside", {{-6, -4}, {20, 3}, {8, 30}}},
      {"wholly outside", {{-9, -9}, {-1, -9}, {-5, -1}}},
      {"degenerate line", {{1, 1}, {8, 8}, {15, 15}}},
      {"star", Star(8, 6, 7)},
      {"large star", Star(8, 6, 40)},
      {"bow tie", {{1, 1}, {15, 11}, {15, 1}, {1, 11}}},
      {"huge diagonal", {{-2000000000, -2000000000}, {2000000000, 2000000000}, {-2000000000, 2000000000}}},
      {"extreme", {{lo, lo + 3}, {hi, hi - 3}, {hi, hi}, {lo, hi}}},
      {"huge wedge", {{-1999999999, 0}, {2000000001, 13}, {-1999999999, 9}}},
      {"twice around", {{2, 2}, {14, 2}, {14, 11}, {2, 11}, {2, 3}, {13, 3}, {13, 10}, {3, 10}, {3, 2}}}};
  for (const auto &[name, points] : polygons)
    for (uint32_t rule : {POLYGON_EVEN_ODD, POLYGON_WINDING})
      shapes.push_back(PolygonShape(name, points, rule));
  for (const Shape &s : shapes) {
    Canvas canvas(17, 13);
    ASSERT_EQ(s.apply(canvas.get(), REGION_SET), RC_SUCCESS) << s.name;
    ExpectRegion(canvas.get(), MakeGrid(17, 13, s.in), s.name);
  }
}

TEST(RegionShapes, HandCheckedEllipseAndStar) {
  // Circle of radius 5 around (5, 5). Top row, centre y 0.5: (x + 0.5 - 5)^2
  // must be <= 25 - 4.5^2 = 4.75, which holds for x = 3..6.
  Canvas canvas(10, 10);
  kit::SetEllipseRegion(canvas.get(), 0, 0, 10, 10);
  RowRun runs[4];
  ASSERT_EQ(GetRegionRowRuns(canvas.get(), 0, runs, 4), 1);
  EXPECT_EQ(runs[0].Start * 100 + runs[0].End, 307);
  // Bounds so large that the bitmap lies deep inside: every pixel is in.
  kit::SetEllipseRegion(canvas.get(), INT32_MIN, INT32_MIN, INT32_MAX, INT32_MAX);
  ExpectRegion(canvas.get(), Grid(100, 1), "huge ellipse");
  // The pentagram's inner pentagon is wound twice: even-odd leaves it out
  // (two runs through it), winding fills it.
  const std::vector<Point> star = Star(40, 40, 36);
  Canvas even(80, 80), wind(80, 80);
  ASSERT_EQ(SetBitmapRegionPolygon(even.get(), star.data(), 5, POLYGON_EVEN_ODD, REGION_SET), RC_SUCCESS);
  ASSERT_EQ(SetBitmapRegionPolygon(wind.get(), star.data(), 5, POLYGON_WINDING, REGION_SET), RC_SUCCESS);
  EXPECT_EQ(IsPointInRegion(even.get(), 40, 40), 0);
  EXPECT_NE(IsPointInRegion(wind.get(), 40, 40), 0);
  // At most maxRuns runs are written; with 0 the array may be null.
  runs[1] = RowRun{-5, -5};
  EXPECT_EQ(GetRegionRowRuns(even.get(), 40, runs, 1), 1);
  EXPECT_EQ(runs[1].Start, -5);  // untouched
  EXPECT_EQ(GetRegionRowRuns(even.get(), 40, runs, 4), 2);
  EXPECT_EQ(GetRegionRowRuns(even.get(), 40, nullptr, 0), 0);
}

bool Combine(uint32_t op, bool current, bool shape) {
  const bool results[] = {shape, current && shape, current || shape, current != shape, current && !shape};
  return results[op];
}
const char *const kOpNames[] = {"SET", "AND", "OR", "XOR", "SUBTRACT"};

TEST(RegionCombine, EveryModeOnOverlappingShapes) {
  kit::LeakGuard guard;
  // Mask of vertical stripes, three columns wide, shifting every other row.
  const InFn stripes = [](int32_t x, int32_t y) { return (x / 3 + y / 2) % 2 == 1; };
  kit::Bitmap mask(kit::Format{8, ORDER_GRAY}, 22, 14);
  for (int32_t y = 0; y < 14; ++y)
    for (int32_t x = 0; x < 22; ++x) mask.Set(x, y, kit::Level(stripes(x, y) ? 200 : 0));
  // An empty rectangle sets an empty region; "none" leaves the bitmap without
  // one, which counts as empty, so it can only come first.
  std::vector<Shape> shapes = {
      RectShape({5, 3, 20, 11}),
      EllipseShape({-3, 1, 15, 16}),
      PolygonShape("star", Star(11, 7, 9), 1),
      RectShape({3, 3, 3, 3}),
      {"mask", [&](BitmapRecord *b, uint32_t op) { return SetBitmapRegionMask(b, mask.get(), op); },
       stripes}};
  std::vector<Shape> firsts = shapes;
  firsts.push_back(
      {"none", [](BitmapRecord *, uint32_t) { return RC_SUCCESS; }, [](int32_t, int32_t) { return false; }});
  // Every allocation may fail: the bitmap then keeps its previous region.
  for (const Shape &first : firsts)
    for (const Shape &second : shapes)
      for (uint32_t op = REGION_SET; op <= REGION_SUBTRACT; ++op) {
        const std::string name = first.name + " " + kOpNames[op] + " " + second.name;
        const InFn in = [&](int32_t x, int32_t y) { return Combine(op, first.in(x, y), second.in(x, y)); };
        auto setup = [&] {
          Canvas canvas(22, 14);
          EXPECT_EQ(first.apply(canvas.get(), REGION_SET), RC_SUCCESS);
          return canvas;
        };
        const Grid before = ReadRegion(setup().get());
        const int failures = kit::CheckAllocationFailures(setup, [&](Canvas &canvas) {
          const int32_t status = second.apply(canvas.get(), op);
          if (status == RC_SUCCESS) ExpectRegion(canvas.get(), MakeGrid(22, 14, in), name);
          EXPECT_TRUE(status != RC_NO_MEMORY || ReadRegion(canvas.get()) == before) << name;
          return status;
        });
        EXPECT_GE(failures, 1) << name;
      }
}

TEST(RegionQueries, WithoutRegionAndZeroSize) {
  // Without a region the queries describe the whole bitmap, for both record sizes.
  for (uint32_t size : {BITMAP_RECORD_SIZE, BITMAP_RECORD_SIZE_OLD}) {
    Canvas bare(9, 4, size);
    ExpectRegion(bare.get(), Grid(36, 1), "no region", false);
  }
  // A record of size zero can carry a region, which is then empty.
  Canvas zero(0, 0);
  kit::SetRectRegion(zero.get(), 2, 2, 9, 7);
  ExpectRegion(zero.get(), Grid(), "zero-sized bitmap");
}

TEST(RegionMask, EveryKindBothOrientations) {
  kit::LeakGuard guard;
  for (const kit::Format &format : kit::AllFormats(true)) {
    // The mask is wider and shorter than the bitmap: only the overlap counts.
    // Colour pixels have one sample at a time non-zero, so that each counts
    // alone; a non-zero fourth sample alone does not count.
    kit::Bitmap mask(format, 23, 9);
    Grid want(19 * 12, 0);
    const uint32_t max = format.SampleMax();
    for (uint32_t n = 0; n < 23 * 9; ++n) {
      const int32_t x = static_cast<int32_t>(n % 23), y = static_cast<int32_t>(n / 23);
      const uint32_t k = n * 13 + static_cast<uint32_t>(y);
      kit::Pixel p;
      if (format.Channels() == 1)
        p.v[0] = k % 3 == 0 ? 0 : 1 + (k * 7919u) % max;
      else if (k % 5 != 0)
        p.v[k % 5 - 1] = k % 5 == 4 ? (format.Channels() == 4 ? max : 0) : k % 5 == 3 ? 1 : 1 + k % max;
      mask.Set(x, y, p);
      if (x < 19) want[static_cast<size_t>(y) * 19 + x] = (p.v[0] | p.v[1] | p.v[2]) != 0;
    }
    Canvas canvas(19, 12);
    ASSERT_EQ(SetBitmapRegionMask(canvas.get(), mask.get(), REGION_SET), RC_SUCCESS) << format.Name();
    ExpectRegion(canvas.get(), want, format.Name());
  }
}

TEST(RegionCopy, CopiesAreReplacedOrClipped) {
  const Rect e{-3, 2, 16, 15};
  const InFn in = [&](int32_t x, int32_t y) { return InEllipse(e, x, y) && !(x >= 4 && x < 8); };
  Canvas source(16, 16);
  kit::SetEllipseRegion(source.get(), -3, 2, 16, 15);
  kit::SetRectRegion(source.get(), 4, 0, 8, 16, REGION_SUBTRACT);
  // Copied byte for byte when it fits, rebuilt clipped otherwise; the
  // destination's region is replaced, or kept when an allocation fails.
  for (const auto &[w, h] : {std::pair{16, 16}, std::pair{9, 7}}) {
    auto setup = [w = w, h = h] {
      Canvas canvas(w, h);
      kit::SetRectRegion(canvas.get(), 0, 0, 3, 3);
      return canvas;
    };
    const Grid before = ReadRegion(setup().get());
    kit::CheckAllocationFailures(setup, [&](Canvas &canvas) {
      const int32_t status = CopyBitmapRegion(canvas.get(), source.get());
      if (status == RC_SUCCESS) ExpectRegion(canvas.get(), MakeGrid(w, h, in), "copy");
      EXPECT_TRUE(status != RC_NO_MEMORY || ReadRegion(canvas.get()) == before);
      return status;
    });
  }
  ASSERT_EQ(CopyBitmapRegion(source.get(), source.get()), RC_SUCCESS);
  ExpectRegion(source.get(), MakeGrid(16, 16, in), "onto itself");
  Canvas bare(16, 16);
  ASSERT_EQ(CopyBitmapRegion(source.get(), bare.get()), RC_SUCCESS);  // "no region" removes it
  EXPECT_EQ(BitmapHasRegion(source.get()), 0);
}

TEST(RegionArguments, Statuses) {
  kit::LeakGuard guard;
  Canvas canvas(10, 10), badSize(10, 10, 200), noPixels(4, 4);
  BitmapRecord *c = canvas.get();
  Rect r{1, 1, 5, 5}, negW{5, 1, 4, 5}, negH{1, 5, 5, 4}, bounds{};
  const Point pts[] = {{0, 0}, {5, 0}, {0, 5}};
  kit::Bitmap mask(kit::Format{8, ORDER_GRAY}, 4, 4);
  BitmapRecord maskBadSize = *mask.get(), maskBadKind = *mask.get();
  maskBadSize.StructSize = 0;
  maskBadKind.BitsPerPixel = 3;
  int dummy = 0;
  // Every export checks the bitmap first, then its record size, then a null
  // pointer argument (the shape, the output), then the values.
  using Call = std::function<int32_t(BitmapRecord *)>;  // every later argument bad
  const std::pair<std::string, Call> exports[] = {
      {"rect", [](BitmapRecord *b) { return SetBitmapRegionRect(b, nullptr, 9); }},
      {"ellipse", [](BitmapRecord *b) { return SetBitmapRegionEllipse(b, nullptr, 9); }},
      {"polygon", [](BitmapRecord *b) { return SetBitmapRegionPolygon(b, nullptr, 0, 0, 9); }},
      {"mask", [](BitmapRecord *b) { return SetBitmapRegionMask(b, nullptr, 9); }},
      {"bounds", [&](BitmapRecord *b) { return GetRegionBounds(b, &dummy, nullptr); }},
      {"area", [](BitmapRecord *b) { return GetRegionArea(b, nullptr); }},
      {"row runs", [](BitmapRecord *b) { return GetRegionRowRuns(b, 0, nullptr, -1); }},
      {"free", [](BitmapRecord *b) { return FreeBitmapRegion(b); }},
      {"copy to", [&](BitmapRecord *b) { return CopyBitmapRegion(b, badSize.get()); }},
      {"copy from", [&](BitmapRecord *b) { return CopyBitmapRegion(c, b); }},
      {"max runs", [](BitmapRecord *b) { return GetRegionMaxRuns(b); }}};
  std::vector<kit::StatusCase> cases;
  for (size_t i = 0; i < std::size(exports); ++i) {
    const auto &[name, call] = exports[i];
    cases.push_back({name + " null bitmap", [call] { return call(nullptr); }, RC_NO_BITMAP});
    cases.push_back({name + " bad size", [&, call] { return call(badSize.get()); }, RC_INVALID_STRUCT_SIZE});
    if (i < 7)
      cases.push_back({name + " null argument", [c, call] { return call(c); },
                       i < 6 ? RC_NULL_OPTIONS : RC_INVALID_PARAMETER});
  }
  const int32_t bad = RC_INVALID_PARAMETER;
  cases.insert(
      cases.end(),
      {{"rect combine", [&] { return SetBitmapRegionRect(c, &r, 5); }, bad},
       {"rect negative width", [&] { return SetBitmapRegionRect(c, &negW, 0); }, bad},
       {"rect negative height", [&] { return SetBitmapRegionRect(c, &negH, 0); }, bad},
       {"ellipse combine", [&] { return SetBitmapRegionEllipse(c, &r, 99); }, bad},
       {"ellipse negative", [&] { return SetBitmapRegionEllipse(c, &negH, 0); }, bad},
       {"polygon combine", [&] { return SetBitmapRegionPolygon(c, pts, 3, 1, 5); }, bad},
       {"polygon two points", [&] { return SetBitmapRegionPolygon(c, pts, 2, 1, 0); }, bad},
       {"polygon rule 0", [&] { return SetBitmapRegionPolygon(c, pts, 3, 0, 0); }, bad},
       {"polygon rule 3", [&] { return SetBitmapRegionPolygon(c, pts, 3, 3, 0); }, bad},
       {"mask combine first", [&] { return SetBitmapRegionMask(c, &maskBadSize, 7); }, bad},
       {"mask record size", [&] { return SetBitmapRegionMask(c, &maskBadSize, 0); }, RC_INVALID_STRUCT_SIZE},
       {"mask without pixels", [&] { return SetBitmapRegionMask(c, noPixels.get(), 0); }, RC_NO_BITMAP},
       {"mask bad kind", [&] { return SetBitmapRegionMask(c, &maskBadKind, 0); }, RC_UNSUPPORTED_BITMAP},
       {"free without region", [&] { return FreeBitmapRegion(c); }, RC_SUCCESS},
       {"bounds transform", [&] { return GetRegionBounds(c, &dummy, &bounds); }, bad},
       {"row runs null array", [&] { return GetRegionRowRuns(c, 0, nullptr, 1); }, RC_NULL_OPTIONS},
       // 0 for "no region", never a negative code that would read as true.
       {"has region", [&] { return BitmapHasRegion(nullptr) + BitmapHasRegion(badSize.get()); }, 0},
       {"point", [&] { return IsPointInRegion(nullptr, 0, 0) + IsPointInRegion(badSize.get(), 0, 0); }, 0}});
  kit::ExpectStatuses(cases);
  EXPECT_EQ(BitmapHasRegion(c), 0);  // failed calls leave no region behind
}

TEST(RegionPerformance, LargeShapesBuildQuickly) {
  kit::LeakGuard guard;
  Canvas canvas(4000, 3000);
  const Rect e{0, 0, 4000, 3000};
  const std::vector<Point> star = Star(2000, 1500, 1450);
  auto timed = [&](const std::function<int32_t()> &call) {
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(call(), RC_SUCCESS);
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
  };
  const double ellipseMs = timed([&] { return SetBitmapRegionEllipse(canvas.get(), &e, REGION_SET); });
  const double xorMs =
      timed([&] { return SetBitmapRegionPolygon(canvas.get(), star.data(), 5, 1, REGION_XOR); });
  std::printf("4000x3000 ellipse %.2f ms, xor with star %.2f ms\n", ellipseMs, xorMs);
  EXPECT_LT(ellipseMs, 100.0);  // generous: debug builds on a loaded machine
  EXPECT_LT(xorMs, 100.0);
}

}  // namespace
