// Regions of imgdisplay: shapes against brute-force pixel-centre predicates,
// combine modes against per-pixel boolean sets, masks of every kind, copies,
// allocation failures and argument checks.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "imgdisplay.h"
#include "kit.h"

namespace {

using I128 = __int128;
using Grid = std::vector<uint8_t>;  // one flag per pixel, row-major

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

Grid MakeGrid(int32_t w, int32_t h, const std::function<bool(int32_t, int32_t)> &in) {
  Grid g(static_cast<size_t>(w) * h);
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) g[static_cast<size_t>(y) * w + x] = in(x, y) ? 1 : 0;
  return g;
}

std::string Picture(const Grid &got, const Grid &want, int32_t w, int32_t h) {
  std::ostringstream s;
  s << "got / want ('#' in, '.' out, '!' wrong):\n";
  for (int32_t y = 0; y < h; ++y) {
    for (int32_t x = 0; x < w; ++x) {
      const size_t i = static_cast<size_t>(y) * w + x;
      s << (got[i] != want[i] ? '!' : got[i] ? '#' : '.');
    }
    s << "   ";
    for (int32_t x = 0; x < w; ++x) s << (want[static_cast<size_t>(y) * w + x] ? '#' : '.');
    s << "\n";
  }
  return s.str();
}

// The pixel set of the bitmap's region, read through IsPointInRegion.
Grid ReadRegion(const BitmapRecord *b) {
  return MakeGrid(b->Width, b->Height, [b](int32_t x, int32_t y) { return IsPointInRegion(b, y, x) != 0; });
}

// Checks every query against the expected pixel set: point tests, the runs
// of each row (sorted, disjoint, not touching), bounds, area and max runs.
void ExpectRegion(const BitmapRecord *b, const Grid &want, const std::string &what) {
  SCOPED_TRACE(what);
  const int32_t w = b->Width, h = b->Height;
  ASSERT_NE(BitmapHasRegion(b), 0);
  const Grid got = ReadRegion(b);
  ASSERT_EQ(got, want) << Picture(got, want, w, h);

  int32_t left = w, top = h, right = 0, bottom = 0, maxRuns = 0;
  uint64_t area = 0;
  std::vector<RowRun> runs(static_cast<size_t>(w) + 2);
  for (int32_t y = 0; y < h; ++y) {
    const int32_t n = GetRegionRowRuns(b, y, runs.data(), w + 2);
    ASSERT_GE(n, 0);
    Grid row(static_cast<size_t>(w), 0);
    for (int32_t i = 0; i < n; ++i) {
      ASSERT_LT(runs[i].Start, runs[i].End) << "row " << y;
      ASSERT_GE(runs[i].Start, 0);
      ASSERT_LE(runs[i].End, w);
      if (i > 0) {
        ASSERT_GT(runs[i].Start, runs[i - 1].End) << "runs not merged in row " << y;
      }
      for (int32_t x = runs[i].Start; x < runs[i].End; ++x) row[x] = 1;
    }
    ASSERT_TRUE(std::equal(row.begin(), row.end(), want.begin() + static_cast<size_t>(y) * w)) << "row " << y;
    int32_t expectedRuns = 0;
    for (int32_t x = 0; x < w; ++x) {
      const bool in = want[static_cast<size_t>(y) * w + x] != 0;
      if (!in) continue;
      ++area;
      if (x == 0 || !want[static_cast<size_t>(y) * w + x - 1]) ++expectedRuns;
      left = std::min(left, x);
      right = std::max(right, x + 1);
      top = std::min(top, y);
      bottom = std::max(bottom, y + 1);
    }
    EXPECT_EQ(n, expectedRuns) << "row " << y;
    maxRuns = std::max(maxRuns, expectedRuns);
  }
  if (area == 0) left = top = right = bottom = 0;
  Rect bounds{-7, -7, -7, -7};
  EXPECT_EQ(GetRegionBounds(b, nullptr, &bounds), RC_SUCCESS);
  EXPECT_EQ(bounds.Left, left);
  EXPECT_EQ(bounds.Top, top);
  EXPECT_EQ(bounds.Right, right);
  EXPECT_EQ(bounds.Bottom, bottom);
  uint64_t count = 12345;
  EXPECT_EQ(GetRegionArea(b, &count), RC_SUCCESS);
  EXPECT_EQ(count, area);
  EXPECT_EQ(GetRegionMaxRuns(b), maxRuns);
  // Outside the bitmap nothing is in.
  EXPECT_EQ(GetRegionRowRuns(b, -1, runs.data(), w + 2), 0);
  EXPECT_EQ(GetRegionRowRuns(b, h, runs.data(), w + 2), 0);
  for (int32_t y = -1; y <= h; ++y) {
    EXPECT_EQ(IsPointInRegion(b, y, -1), 0);
    EXPECT_EQ(IsPointInRegion(b, y, w), 0);
  }
}

// ---- Independent geometric predicates ------------------------------------------------

bool InRect(const Rect &r, int32_t x, int32_t y) {
  return x >= r.Left && x < r.Right && y >= r.Top && y < r.Bottom;
}

// Centre (x + 0.5, y + 0.5) inside the ellipse inscribed in r, with both sides
// of the ellipse inequality multiplied by ((R - L)(B - T))^2 / 4 ... exactly.
bool InEllipse(const Rect &r, int32_t x, int32_t y) {
  const I128 w = I128(r.Right) - r.Left, h = I128(r.Bottom) - r.Top;
  if (w <= 0 || h <= 0) return false;
  const I128 dx = I128(2) * x + 1 - (I128(r.Left) + r.Right);  // 2 (cx_pixel - cx)
  const I128 dy = I128(2) * y + 1 - (I128(r.Top) + r.Bottom);
  return dx * dx * h * h + dy * dy * w * w <= w * w * h * h;
}

// Crossing test along the centre line: an edge counts when it crosses the
// line at or left of the pixel centre.
bool InPolygon(const std::vector<Point> &pts, uint32_t rule, int32_t x, int32_t y) {
  int32_t crossings = 0, winding = 0;
  for (size_t i = 0; i < pts.size(); ++i) {
    const Point p = pts[i], q = pts[(i + 1) % pts.size()];
    if (p.Y == q.Y) continue;
    if (!(std::min(p.Y, q.Y) <= y && y < std::max(p.Y, q.Y))) continue;
    const I128 dy = I128(q.Y) - p.Y;
    // xi = p.X + (y + 0.5 - p.Y) (q.X - p.X) / dy  <=  x + 0.5, times 2 dy.
    const I128 lhs = 2 * I128(p.X) * dy + (2 * I128(y) + 1 - 2 * I128(p.Y)) * (I128(q.X) - p.X);
    const I128 rhs = (2 * I128(x) + 1) * dy;
    if (dy > 0 ? lhs <= rhs : lhs >= rhs) {
      ++crossings;
      winding += dy > 0 ? 1 : -1;
    }
  }
  return rule == POLYGON_EVEN_ODD ? (crossings & 1) != 0 : winding != 0;
}

// ---- Shapes -----------------------------------------------------------------------------

struct RectCase {
  const char *name;
  Rect r;
};

const RectCase kRects[] = {
    {"inside", {3, 2, 11, 9}},
    {"one pixel", {5, 5, 6, 6}},
    {"whole bitmap", {0, 0, 17, 13}},
    {"partly left and above", {-4, -3, 5, 4}},
    {"partly right and below", {12, 9, 30, 40}},
    {"covering everything", {-100, -100, 100, 100}},
    {"wholly right", {17, 0, 25, 13}},
    {"wholly above", {0, -10, 17, 0}},
    {"zero width", {4, 4, 4, 9}},
    {"zero height", {4, 4, 9, 4}},
    {"extreme bounds", {INT32_MIN, INT32_MIN, INT32_MAX, INT32_MAX}},
};

TEST(RegionShapes, RectanglesMatchPixelSet) {
  kit::LeakGuard guard;
  for (const RectCase &c : kRects) {
    Canvas canvas(17, 13);
    ASSERT_EQ(SetBitmapRegionRect(canvas.get(), &c.r, REGION_SET), RC_SUCCESS) << c.name;
    ExpectRegion(canvas.get(), MakeGrid(17, 13, [&](int32_t x, int32_t y) { return InRect(c.r, x, y); }),
                 c.name);
  }
}

const RectCase kEllipses[] = {
    {"even size", {2, 2, 14, 10}},
    {"odd size", {1, 1, 16, 12}},
    {"odd width even height", {3, 0, 12, 13}},
    {"circle", {0, 0, 13, 13}},
    {"thin horizontal", {0, 5, 17, 7}},
    {"thin vertical", {8, 0, 9, 13}},
    {"one pixel", {4, 4, 5, 5}},
    {"two by two", {4, 4, 6, 6}},
    {"partly outside left top", {-9, -7, 9, 7}},
    {"partly outside right bottom", {10, 6, 30, 26}},
    {"wholly outside", {-20, -20, -2, -2}},
    {"zero width", {5, 2, 5, 10}},
    {"zero height", {5, 2, 12, 2}},
    {"large, crossing the bitmap", {-1000003, -999998, 1000019, 1000001}},
    {"large, edge through the bitmap", {-2000000, 6, 9, 2000006}},
};

TEST(RegionShapes, EllipsesMatchCentreInequality) {
  kit::LeakGuard guard;
  for (const RectCase &c : kEllipses) {
    Canvas canvas(17, 13);
    ASSERT_EQ(SetBitmapRegionEllipse(canvas.get(), &c.r, REGION_SET), RC_SUCCESS) << c.name;
    ExpectRegion(canvas.get(), MakeGrid(17, 13, [&](int32_t x, int32_t y) { return InEllipse(c.r, x, y); }),
                 c.name);
  }
}

TEST(RegionShapes, EllipseDetails) {
  // Circle of radius 5 around (5, 5). Top row, centre y 0.5: (x + 0.5 - 5)^2
  // must be <= 25 - 4.5^2 = 4.75, which holds for x = 3..6.
  Canvas canvas(10, 10);
  const Rect r{0, 0, 10, 10};
  ASSERT_EQ(SetBitmapRegionEllipse(canvas.get(), &r, REGION_SET), RC_SUCCESS);
  RowRun runs[4];
  ASSERT_EQ(GetRegionRowRuns(canvas.get(), 0, runs, 4), 1);
  EXPECT_EQ(runs[0].Start, 3);
  EXPECT_EQ(runs[0].End, 7);
  ASSERT_EQ(GetRegionRowRuns(canvas.get(), 5, runs, 4), 1);
  EXPECT_EQ(runs[0].Start, 0);
  EXPECT_EQ(runs[0].End, 10);
  // Bounds so large that the bitmap lies deep inside: every pixel is in.
  const Rect huge{INT32_MIN, INT32_MIN, INT32_MAX, INT32_MAX};
  ASSERT_EQ(SetBitmapRegionEllipse(canvas.get(), &huge, REGION_SET), RC_SUCCESS);
  uint64_t area = 0;
  ASSERT_EQ(GetRegionArea(canvas.get(), &area), RC_SUCCESS);
  EXPECT_EQ(area, 100u);
}

struct PolygonCase {
  const char *name;
  std::vector<Point> points;
};

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

const std::vector<PolygonCase> &Polygons() {
  static const std::vector<PolygonCase> cases = {
      {"triangle", {{2, 1}, {15, 5}, {4, 12}}},
      {"triangle reversed", {{4, 12}, {15, 5}, {2, 1}}},
      {"rectangle", {{3, 2}, {11, 2}, {11, 9}, {3, 9}}},
      {"diagonals through centres", {{0, 0}, {13, 13}, {0, 13}}},
      {"slope one half", {{1, 0}, {17, 8}, {1, 12}}},
      {"concave", {{1, 1}, {15, 1}, {15, 11}, {8, 4}, {1, 11}}},
      {"with horizontal and collinear edges", {{2, 2}, {6, 2}, {10, 2}, {10, 7}, {14, 7}, {14, 11}, {2, 11}}},
      {"duplicate vertices", {{2, 2}, {2, 2}, {12, 3}, {12, 3}, {6, 11}}},
      {"partly outside", {{-6, -4}, {20, 3}, {8, 30}}},
      {"wholly outside", {{-9, -9}, {-1, -9}, {-5, -1}}},
      {"degenerate line", {{1, 1}, {8, 8}, {15, 15}}},
      {"star", Star(8, 6, 7)},
      {"large star", Star(8, 6, 40)},
      {"bow tie", {{1, 1}, {15, 11}, {15, 1}, {1, 11}}},
      {"huge diagonal through centres",
       {{-2000000000, -2000000000}, {2000000000, 2000000000}, {-2000000000, 2000000000}}},
      {"extreme coordinates",
       {{INT32_MIN, INT32_MIN + 3},
        {INT32_MAX, INT32_MAX - 3},
        {INT32_MAX, INT32_MAX},
        {INT32_MIN, INT32_MAX}}},
      {"huge wedge", {{-1999999999, 0}, {2000000001, 13}, {-1999999999, 9}}},
      {"twice around", {{2, 2}, {14, 2}, {14, 11}, {2, 11}, {2, 3}, {13, 3}, {13, 10}, {3, 10}, {3, 2}}},
  };
  return cases;
}

TEST(RegionShapes, PolygonsMatchCrossingRule) {
  kit::LeakGuard guard;
  for (const PolygonCase &c : Polygons()) {
    for (uint32_t rule : {uint32_t{POLYGON_EVEN_ODD}, uint32_t{POLYGON_WINDING}}) {
      Canvas canvas(17, 13);
      const std::string name = std::string(c.name) + (rule == POLYGON_EVEN_ODD ? " even-odd" : " winding");
      ASSERT_EQ(SetBitmapRegionPolygon(canvas.get(), c.points.data(), static_cast<uint32_t>(c.points.size()),
                                       rule, REGION_SET),
                RC_SUCCESS)
          << name;
      ExpectRegion(canvas.get(),
                   MakeGrid(17, 13, [&](int32_t x, int32_t y) { return InPolygon(c.points, rule, x, y); }),
                   name);
    }
  }
}

TEST(RegionShapes, StarCentreDependsOnFillRule) {
  // The pentagram's inner pentagon is wound twice: even-odd leaves it out,
  // winding fills it. The points of the star are in with both rules.
  const std::vector<Point> star = Star(40, 40, 36);
  Canvas even(80, 80), wind(80, 80);
  ASSERT_EQ(SetBitmapRegionPolygon(even.get(), star.data(), 5, POLYGON_EVEN_ODD, REGION_SET), RC_SUCCESS);
  ASSERT_EQ(SetBitmapRegionPolygon(wind.get(), star.data(), 5, POLYGON_WINDING, REGION_SET), RC_SUCCESS);
  EXPECT_EQ(IsPointInRegion(even.get(), 40, 40), 0);
  EXPECT_NE(IsPointInRegion(wind.get(), 40, 40), 0);
  EXPECT_NE(IsPointInRegion(even.get(), 10, 40), 0);  // top point
  EXPECT_NE(IsPointInRegion(wind.get(), 10, 40), 0);
  uint64_t a = 0, b = 0;
  GetRegionArea(even.get(), &a);
  GetRegionArea(wind.get(), &b);
  EXPECT_LT(a, b);
  // Even-odd splits the rows through the inner pentagon into two runs.
  EXPECT_EQ(GetRegionMaxRuns(even.get()), 2);
  EXPECT_EQ(GetRegionMaxRuns(wind.get()), 2);  // the rows under the arms
  RowRun runs[4];
  EXPECT_EQ(GetRegionRowRuns(even.get(), 40, runs, 4), 2);
  EXPECT_EQ(GetRegionRowRuns(wind.get(), 40, runs, 4), 1);
}

TEST(RegionShapes, RectanglePolygonEqualsRectangle) {
  Canvas a(17, 13), b(17, 13);
  const Rect r{-2, 3, 9, 20};
  const Point p[] = {{-2, 3}, {9, 3}, {9, 20}, {-2, 20}};
  ASSERT_EQ(SetBitmapRegionRect(a.get(), &r, REGION_SET), RC_SUCCESS);
  ASSERT_EQ(SetBitmapRegionPolygon(b.get(), p, 4, POLYGON_WINDING, REGION_SET), RC_SUCCESS);
  EXPECT_EQ(ReadRegion(a.get()), ReadRegion(b.get()));
}

// ---- Combining ----------------------------------------------------------------------------

using ShapeCall = std::function<int32_t(BitmapRecord *, uint32_t)>;
struct Shape {
  const char *name;
  ShapeCall apply;
  std::function<bool(int32_t, int32_t)> in;
};

std::vector<Shape> CombineShapes() {
  static const Rect rect{5, 3, 20, 11};
  static const Rect ellipse{-3, 1, 15, 16};
  static const std::vector<Point> star = Star(11, 7, 9);
  static const std::vector<Point> comb = {{0, 0},  {22, 0}, {22, 2}, {3, 2},  {3, 4},   {22, 4},
                                          {22, 6}, {3, 6},  {3, 8},  {22, 8}, {22, 10}, {0, 10}};
  return {
      {"rect", [](BitmapRecord *b, uint32_t op) { return SetBitmapRegionRect(b, &rect, op); },
       [](int32_t x, int32_t y) { return InRect(rect, x, y); }},
      {"ellipse", [](BitmapRecord *b, uint32_t op) { return SetBitmapRegionEllipse(b, &ellipse, op); },
       [](int32_t x, int32_t y) { return InEllipse(ellipse, x, y); }},
      {"star",
       [](BitmapRecord *b, uint32_t op) {
         return SetBitmapRegionPolygon(b, star.data(), 5, POLYGON_EVEN_ODD, op);
       },
       [](int32_t x, int32_t y) { return InPolygon(star, POLYGON_EVEN_ODD, x, y); }},
      {"comb",
       [](BitmapRecord *b, uint32_t op) {
         return SetBitmapRegionPolygon(b, comb.data(), static_cast<uint32_t>(comb.size()), POLYGON_EVEN_ODD,
                                       op);
       },
       [](int32_t x, int32_t y) { return InPolygon(comb, POLYGON_EVEN_ODD, x, y); }},
  };
}

bool Combine(uint32_t op, bool current, bool shape) {
  switch (op) {
    case REGION_SET:
      return shape;
    case REGION_AND:
      return current && shape;
    case REGION_OR:
      return current || shape;
    case REGION_XOR:
      return current != shape;
    default:
      return current && !shape;
  }
}

const char *const kOpNames[] = {"SET", "AND", "OR", "XOR", "SUBTRACT"};

TEST(RegionCombine, EveryModeOnOverlappingShapes) {
  kit::LeakGuard guard;
  const std::vector<Shape> shapes = CombineShapes();
  for (const Shape &first : shapes)
    for (const Shape &second : shapes)
      for (uint32_t op = REGION_SET; op <= REGION_SUBTRACT; ++op) {
        Canvas canvas(22, 14);
        ASSERT_EQ(first.apply(canvas.get(), REGION_SET), RC_SUCCESS);
        ASSERT_EQ(second.apply(canvas.get(), op), RC_SUCCESS);
        const std::string name = std::string(first.name) + " " + kOpNames[op] + " " + second.name;
        ExpectRegion(
            canvas.get(),
            MakeGrid(22, 14,
                     [&](int32_t x, int32_t y) { return Combine(op, first.in(x, y), second.in(x, y)); }),
            name);
      }
}

TEST(RegionCombine, ChainOfModes) {
  // Each step combines with the result of the previous ones.
  const std::vector<Shape> shapes = CombineShapes();
  const uint32_t ops[] = {REGION_OR, REGION_XOR, REGION_SUBTRACT, REGION_OR, REGION_AND, REGION_XOR};
  Canvas canvas(22, 14);
  Grid want(22 * 14, 0);
  ASSERT_EQ(shapes[0].apply(canvas.get(), REGION_SET), RC_SUCCESS);
  want = MakeGrid(22, 14, shapes[0].in);
  for (size_t i = 0; i < std::size(ops); ++i) {
    const Shape &s = shapes[(i + 1) % shapes.size()];
    ASSERT_EQ(s.apply(canvas.get(), ops[i]), RC_SUCCESS);
    const Grid before = want;
    want = MakeGrid(
        22, 14, [&](int32_t x, int32_t y) { return Combine(ops[i], before[y * 22 + x] != 0, s.in(x, y)); });
    ExpectRegion(canvas.get(), want, std::string("step ") + std::to_string(i));
  }
}

TEST(RegionCombine, MissingRegionCountsAsEmpty) {
  kit::LeakGuard guard;
  const Rect r{2, 2, 9, 7};
  const Grid shape = MakeGrid(12, 10, [&](int32_t x, int32_t y) { return InRect(r, x, y); });
  const Grid none(12 * 10, 0);
  const struct {
    uint32_t op;
    const Grid *want;
  } cases[] = {{REGION_SET, &shape},
               {REGION_AND, &none},
               {REGION_OR, &shape},
               {REGION_XOR, &shape},
               {REGION_SUBTRACT, &none}};
  for (const auto &c : cases) {
    Canvas canvas(12, 10);
    ASSERT_EQ(BitmapHasRegion(canvas.get()), 0);
    ASSERT_EQ(SetBitmapRegionRect(canvas.get(), &r, c.op), RC_SUCCESS);
    ExpectRegion(canvas.get(), *c.want, kOpNames[c.op]);  // set, even when empty
  }
}

TEST(RegionCombine, EmptyButSetRegion) {
  Canvas canvas(12, 10);
  const Rect a{1, 1, 5, 5}, b{6, 6, 9, 9};
  ASSERT_EQ(SetBitmapRegionRect(canvas.get(), &a, REGION_SET), RC_SUCCESS);
  ASSERT_EQ(SetBitmapRegionRect(canvas.get(), &b, REGION_AND), RC_SUCCESS);  // disjoint
  EXPECT_NE(BitmapHasRegion(canvas.get()), 0);
  Rect bounds{1, 2, 3, 4};
  ASSERT_EQ(GetRegionBounds(canvas.get(), nullptr, &bounds), RC_SUCCESS);
  EXPECT_EQ(bounds.Left, 0);
  EXPECT_EQ(bounds.Top, 0);
  EXPECT_EQ(bounds.Right, 0);
  EXPECT_EQ(bounds.Bottom, 0);
  uint64_t area = 99;
  ASSERT_EQ(GetRegionArea(canvas.get(), &area), RC_SUCCESS);
  EXPECT_EQ(area, 0u);
  EXPECT_EQ(GetRegionMaxRuns(canvas.get()), 0);
  RowRun run{};
  for (int32_t y = 0; y < 10; ++y) EXPECT_EQ(GetRegionRowRuns(canvas.get(), y, &run, 1), 0);
  // The empty region combines like any other.
  ASSERT_EQ(SetBitmapRegionRect(canvas.get(), &b, REGION_OR), RC_SUCCESS);
  ExpectRegion(canvas.get(), MakeGrid(12, 10, [&](int32_t x, int32_t y) { return InRect(b, x, y); }), "or");
  ASSERT_EQ(SetBitmapRegionRect(canvas.get(), &b, REGION_SUBTRACT), RC_SUCCESS);
  ExpectRegion(canvas.get(), Grid(120, 0), "subtract to empty");
}

TEST(RegionQueries, WithoutRegionTheWholeBitmap) {
  for (uint32_t size : {BITMAP_RECORD_SIZE, BITMAP_RECORD_SIZE_OLD}) {
    Canvas canvas(9, 4, size);
    EXPECT_EQ(BitmapHasRegion(canvas.get()), 0);
    Rect bounds{};
    ASSERT_EQ(GetRegionBounds(canvas.get(), nullptr, &bounds), RC_SUCCESS);
    EXPECT_EQ(bounds.Left, 0);
    EXPECT_EQ(bounds.Top, 0);
    EXPECT_EQ(bounds.Right, 9);
    EXPECT_EQ(bounds.Bottom, 4);
    uint64_t area = 0;
    ASSERT_EQ(GetRegionArea(canvas.get(), &area), RC_SUCCESS);
    EXPECT_EQ(area, 36u);
    EXPECT_EQ(GetRegionMaxRuns(canvas.get()), 1);
    RowRun runs[2] = {};
    ASSERT_EQ(GetRegionRowRuns(canvas.get(), 3, runs, 2), 1);
    EXPECT_EQ(runs[0].Start, 0);
    EXPECT_EQ(runs[0].End, 9);
    EXPECT_EQ(GetRegionRowRuns(canvas.get(), 4, runs, 2), 0);
    EXPECT_NE(IsPointInRegion(canvas.get(), 3, 8), 0);
    EXPECT_EQ(IsPointInRegion(canvas.get(), 4, 8), 0);
    EXPECT_EQ(IsPointInRegion(canvas.get(), 0, -1), 0);
  }
}

TEST(RegionQueries, RowRunsStopAtMaxRuns) {
  Canvas canvas(20, 3);
  const std::vector<Point> comb = {{0, 0}, {2, 0}, {2, 1}, {4, 1},  {4, 0},  {6, 0},
                                   {6, 1}, {8, 1}, {8, 0}, {10, 0}, {10, 2}, {0, 2}};
  ASSERT_EQ(SetBitmapRegionPolygon(canvas.get(), comb.data(), static_cast<uint32_t>(comb.size()),
                                   POLYGON_EVEN_ODD, REGION_SET),
            RC_SUCCESS);
  EXPECT_EQ(GetRegionMaxRuns(canvas.get()), 3);  // row 0: [0,2) [4,6) [8,10)
  RowRun runs[3] = {};
  ASSERT_EQ(GetRegionRowRuns(canvas.get(), 0, runs, 2), 2);
  EXPECT_EQ(runs[1].Start, 4);
  EXPECT_EQ(runs[1].End, 6);
  EXPECT_EQ(runs[2].End, 0);  // untouched
  EXPECT_EQ(GetRegionRowRuns(canvas.get(), 0, nullptr, 0), 0);
}

// ---- Masks ------------------------------------------------------------------------------

// Pixel values for the kind with many zeros, and whether each one is non-zero.
kit::Pixel MaskValue(const kit::Spec &spec, uint32_t n) {
  const uint32_t max = spec.SampleMax();
  kit::Pixel p;
  if (spec.Channels() == 1) {
    p.v[0] = (n % 3 == 0) ? 0 : 1 + (n * 7919u) % max;
    return p;
  }
  // One sample at a time is non-zero, so that each channel counts alone;
  // the fourth sample never does.
  switch (n % 5) {
    case 1:
      p.v[0] = 1 + n % max;
      break;
    case 2:
      p.v[1] = 1 + n % max;
      break;
    case 3:
      p.v[2] = 1;
      break;
    case 4:
      p.v[3] = spec.Channels() == 4 ? max : 0;
      break;
    default:
      break;
  }
  return p;
}
bool MaskValueIn(const kit::Pixel &p) { return (p.v[0] | p.v[1] | p.v[2]) != 0; }

TEST(RegionMask, EveryKindBothOrientations) {
  kit::LeakGuard guard;
  for (const kit::Spec &spec : kit::AllSpecs(true)) {
    SCOPED_TRACE(spec.Name());
    // The mask is wider and shorter than the bitmap: only the overlap counts.
    kit::Bitmap mask(spec, 23, 9);
    Grid want(19 * 12, 0);
    uint32_t n = 0;
    for (int32_t y = 0; y < 9; ++y)
      for (int32_t x = 0; x < 23; ++x) {
        const kit::Pixel p = MaskValue(spec, n++ * 13 + static_cast<uint32_t>(y));
        mask.Set(x, y, p);
        if (x < 19) want[static_cast<size_t>(y) * 19 + x] = MaskValueIn(p) ? 1 : 0;
      }
    Canvas canvas(19, 12);
    ASSERT_EQ(SetBitmapRegionMask(canvas.get(), mask.get(), REGION_SET), RC_SUCCESS);
    ExpectRegion(canvas.get(), want, spec.Name());
  }
}

TEST(RegionMask, OrientationIsRespected) {
  // The same image stored top-first and bottom-first gives the same region.
  for (int32_t orientation : {ORIENT_TOP_FIRST, ORIENT_BOTTOM_FIRST}) {
    kit::Spec spec{1, ORDER_BGR, orientation};
    kit::Bitmap mask(spec, 8, 6);
    mask.Set(2, 0, kit::Level(1));  // top row
    mask.Set(5, 5, kit::Level(1));  // bottom row
    Canvas canvas(8, 6);
    ASSERT_EQ(SetBitmapRegionMask(canvas.get(), mask.get(), REGION_SET), RC_SUCCESS);
    EXPECT_NE(IsPointInRegion(canvas.get(), 0, 2), 0) << orientation;
    EXPECT_NE(IsPointInRegion(canvas.get(), 5, 5), 0) << orientation;
    uint64_t area = 0;
    GetRegionArea(canvas.get(), &area);
    EXPECT_EQ(area, 2u);
  }
}

TEST(RegionMask, CombinesWithCurrentRegion) {
  kit::Bitmap mask(kit::Spec{8, ORDER_GRAY}, 10, 10);
  for (int32_t y = 0; y < 10; ++y)
    for (int32_t x = 0; x < 10; ++x) mask.Set(x, y, kit::Level((x + y) % 2 ? 200 : 0));
  Canvas canvas(10, 10);
  const Rect r{2, 2, 7, 8};
  ASSERT_EQ(SetBitmapRegionRect(canvas.get(), &r, REGION_SET), RC_SUCCESS);
  ASSERT_EQ(SetBitmapRegionMask(canvas.get(), mask.get(), REGION_SUBTRACT), RC_SUCCESS);
  ExpectRegion(canvas.get(),
               MakeGrid(10, 10, [&](int32_t x, int32_t y) { return InRect(r, x, y) && (x + y) % 2 == 0; }),
               "checkerboard subtracted");
}

// ---- Copies ---------------------------------------------------------------------------------

TEST(RegionCopy, CopyBitmapCarriesAnIndependentRegion) {
  kit::LeakGuard guard;
  const Rect e{1, 1, 14, 9};
  const Rect cut{4, 0, 8, 12};
  Grid want;
  {
    kit::Bitmap source(kit::Spec{24, ORDER_BGR}, 15, 10);
    ASSERT_EQ(SetBitmapRegionEllipse(source.get(), &e, REGION_SET), RC_SUCCESS);
    ASSERT_EQ(SetBitmapRegionRect(source.get(), &cut, REGION_SUBTRACT), RC_SUCCESS);
    want = ReadRegion(source.get());
    BitmapRecord copy{};
    ASSERT_EQ(CopyBitmap(&copy, source.get(), BITMAP_RECORD_SIZE), RC_SUCCESS);
    ASSERT_NE(copy.Region, source->Region);
    ExpectRegion(&copy, want, "copy");
    // Changing the source's region leaves the copy alone.
    ASSERT_EQ(FreeBitmapRegion(source.get()), RC_SUCCESS);
    EXPECT_EQ(BitmapHasRegion(source.get()), 0);
    ExpectRegion(&copy, want, "copy after the source's region was freed");
    ASSERT_EQ(FreeBitmap(&copy), RC_SUCCESS);
    EXPECT_EQ(copy.Region, nullptr);
    ASSERT_EQ(SetBitmapRegionEllipse(source.get(), &e, REGION_SET), RC_SUCCESS);
  }  // FreeBitmap of the source releases its region too
}

TEST(RegionCopy, CopyBitmapRegion) {
  kit::LeakGuard guard;
  const Rect e{-3, 2, 16, 15};
  Canvas source(16, 16), same(16, 16), smaller(9, 7), target(16, 16);
  ASSERT_EQ(SetBitmapRegionEllipse(source.get(), &e, REGION_SET), RC_SUCCESS);
  ASSERT_EQ(CopyBitmapRegion(same.get(), source.get()), RC_SUCCESS);
  ExpectRegion(same.get(), MakeGrid(16, 16, [&](int32_t x, int32_t y) { return InEllipse(e, x, y); }),
               "same size");
  // A smaller destination gets the region clipped to its own size.
  ASSERT_EQ(CopyBitmapRegion(smaller.get(), source.get()), RC_SUCCESS);
  ExpectRegion(smaller.get(), MakeGrid(9, 7, [&](int32_t x, int32_t y) { return InEllipse(e, x, y); }),
               "smaller");
  // The copy replaces the destination's region; copying "no region" removes it.
  const Rect r{0, 0, 3, 3};
  ASSERT_EQ(SetBitmapRegionRect(target.get(), &r, REGION_SET), RC_SUCCESS);
  ASSERT_EQ(CopyBitmapRegion(target.get(), source.get()), RC_SUCCESS);
  EXPECT_EQ(ReadRegion(target.get()), ReadRegion(source.get()));
  Canvas bare(16, 16);
  ASSERT_EQ(CopyBitmapRegion(target.get(), bare.get()), RC_SUCCESS);
  EXPECT_EQ(BitmapHasRegion(target.get()), 0);
  ASSERT_EQ(CopyBitmapRegion(source.get(), source.get()), RC_SUCCESS);
  EXPECT_NE(BitmapHasRegion(source.get()), 0);
}

// ---- Allocation failures ---------------------------------------------------------------------

TEST(RegionAllocation, FailureKeepsTheOldRegion) {
  const Rect old{2, 1, 12, 9};
  const Rect rect{6, 4, 17, 13};
  const std::vector<Point> star = Star(8, 6, 7);
  kit::Bitmap mask(kit::Spec{8, ORDER_GRAY}, 17, 13);
  for (int32_t y = 0; y < 13; ++y) mask.Set(y, y, kit::Level(9));
  const Grid before = MakeGrid(17, 13, [&](int32_t x, int32_t y) { return InRect(old, x, y); });
  Canvas copySource(17, 13);
  const Rect corner{0, 0, 5, 5};
  ASSERT_EQ(SetBitmapRegionRect(copySource.get(), &corner, REGION_SET), RC_SUCCESS);
  const struct {
    const char *name;
    std::function<int32_t(BitmapRecord *)> call;
  } cases[] = {
      {"rect set", [&](BitmapRecord *b) { return SetBitmapRegionRect(b, &rect, REGION_SET); }},
      {"rect xor", [&](BitmapRecord *b) { return SetBitmapRegionRect(b, &rect, REGION_XOR); }},
      {"ellipse and", [&](BitmapRecord *b) { return SetBitmapRegionEllipse(b, &rect, REGION_AND); }},
      {"polygon set",
       [&](BitmapRecord *b) { return SetBitmapRegionPolygon(b, star.data(), 5, 2, REGION_SET); }},
      {"polygon subtract",
       [&](BitmapRecord *b) { return SetBitmapRegionPolygon(b, star.data(), 5, 1, REGION_SUBTRACT); }},
      {"mask or", [&](BitmapRecord *b) { return SetBitmapRegionMask(b, mask.get(), REGION_OR); }},
      {"copy region", [&](BitmapRecord *b) { return CopyBitmapRegion(b, copySource.get()); }},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    const int failures = kit::CheckAllocationFailures(
        [&]() {
          Canvas canvas(17, 13);
          SetBitmapRegionRect(canvas.get(), &old, REGION_SET);
          return canvas;
        },
        [&](Canvas &canvas) {
          const int32_t status = c.call(canvas.get());
          if (status == RC_NO_MEMORY) {
            EXPECT_EQ(ReadRegion(canvas.get()), before);
          }
          return status;
        });
    EXPECT_GE(failures, 1);
  }
}

// ---- Arguments -------------------------------------------------------------------------------

TEST(RegionArguments, Statuses) {
  kit::LeakGuard guard;
  Canvas c(10, 10), badSize(10, 10, 200);
  const Rect r{1, 1, 5, 5}, negative{5, 1, 4, 5}, negativeHeight{1, 5, 5, 4};
  const Point pts[] = {{0, 0}, {5, 0}, {0, 5}};
  kit::Bitmap mask(kit::Spec{8, ORDER_GRAY}, 4, 4);
  BitmapRecord noPixels{};
  noPixels.StructSize = BITMAP_RECORD_SIZE;
  noPixels.Width = noPixels.Height = 4;
  BitmapRecord maskBadSize = *mask.get();
  maskBadSize.StructSize = 0;
  Rect bounds{};
  uint64_t area = 0;
  RowRun run{};
  int dummy = 0;
  kit::ExpectStatuses({
      {"rect null bitmap", [&] { return SetBitmapRegionRect(nullptr, &r, 0); }, RC_NO_BITMAP},
      {"rect bad size", [&] { return SetBitmapRegionRect(badSize.get(), &r, 0); }, RC_INVALID_STRUCT_SIZE},
      {"rect null rect", [&] { return SetBitmapRegionRect(c.get(), nullptr, 0); }, RC_NULL_OPTIONS},
      {"rect bad combine", [&] { return SetBitmapRegionRect(c.get(), &r, 5); }, RC_INVALID_PARAMETER},
      {"rect negative width", [&] { return SetBitmapRegionRect(c.get(), &negative, 0); },
       RC_INVALID_PARAMETER},
      {"rect negative height", [&] { return SetBitmapRegionRect(c.get(), &negativeHeight, 0); },
       RC_INVALID_PARAMETER},
      {"ellipse null bitmap", [&] { return SetBitmapRegionEllipse(nullptr, &r, 0); }, RC_NO_BITMAP},
      {"ellipse bad size", [&] { return SetBitmapRegionEllipse(badSize.get(), &r, 0); },
       RC_INVALID_STRUCT_SIZE},
      {"ellipse null bounds", [&] { return SetBitmapRegionEllipse(c.get(), nullptr, 0); }, RC_NULL_OPTIONS},
      {"ellipse bad combine", [&] { return SetBitmapRegionEllipse(c.get(), &r, 99); }, RC_INVALID_PARAMETER},
      {"ellipse negative", [&] { return SetBitmapRegionEllipse(c.get(), &negative, 0); },
       RC_INVALID_PARAMETER},
      {"polygon null bitmap", [&] { return SetBitmapRegionPolygon(nullptr, pts, 3, 1, 0); }, RC_NO_BITMAP},
      {"polygon bad size", [&] { return SetBitmapRegionPolygon(badSize.get(), pts, 3, 1, 0); },
       RC_INVALID_STRUCT_SIZE},
      {"polygon null points", [&] { return SetBitmapRegionPolygon(c.get(), nullptr, 3, 1, 0); },
       RC_NULL_OPTIONS},
      {"polygon two points", [&] { return SetBitmapRegionPolygon(c.get(), pts, 2, 1, 0); },
       RC_INVALID_PARAMETER},
      {"polygon rule 0", [&] { return SetBitmapRegionPolygon(c.get(), pts, 3, 0, 0); }, RC_INVALID_PARAMETER},
      {"polygon rule 3", [&] { return SetBitmapRegionPolygon(c.get(), pts, 3, 3, 0); }, RC_INVALID_PARAMETER},
      {"polygon bad combine", [&] { return SetBitmapRegionPolygon(c.get(), pts, 3, 1, 5); },
       RC_INVALID_PARAMETER},
      {"mask null bitmap", [&] { return SetBitmapRegionMask(nullptr, mask.get(), 0); }, RC_NO_BITMAP},
      {"mask bad size", [&] { return SetBitmapRegionMask(badSize.get(), mask.get(), 0); },
       RC_INVALID_STRUCT_SIZE},
      {"mask null mask", [&] { return SetBitmapRegionMask(c.get(), nullptr, 0); }, RC_NULL_OPTIONS},
      {"mask bad combine", [&] { return SetBitmapRegionMask(c.get(), mask.get(), 7); }, RC_INVALID_PARAMETER},
      {"mask without pixels", [&] { return SetBitmapRegionMask(c.get(), &noPixels, 0); }, RC_NO_BITMAP},
      {"mask record size", [&] { return SetBitmapRegionMask(c.get(), &maskBadSize, 0); },
       RC_INVALID_STRUCT_SIZE},
      {"free null", [&] { return FreeBitmapRegion(nullptr); }, RC_NO_BITMAP},
      {"free bad size", [&] { return FreeBitmapRegion(badSize.get()); }, RC_INVALID_STRUCT_SIZE},
      {"free without region", [&] { return FreeBitmapRegion(c.get()); }, RC_SUCCESS},
      {"copy null destination", [&] { return CopyBitmapRegion(nullptr, c.get()); }, RC_NO_BITMAP},
      {"copy null source", [&] { return CopyBitmapRegion(c.get(), nullptr); }, RC_NO_BITMAP},
      {"copy bad size", [&] { return CopyBitmapRegion(c.get(), badSize.get()); }, RC_INVALID_STRUCT_SIZE},
      {"bounds null bitmap", [&] { return GetRegionBounds(nullptr, nullptr, &bounds); }, RC_NO_BITMAP},
      {"bounds bad size", [&] { return GetRegionBounds(badSize.get(), nullptr, &bounds); },
       RC_INVALID_STRUCT_SIZE},
      {"bounds null rect", [&] { return GetRegionBounds(c.get(), nullptr, nullptr); }, RC_NULL_OPTIONS},
      {"bounds transform", [&] { return GetRegionBounds(c.get(), &dummy, &bounds); }, RC_INVALID_PARAMETER},
      {"area null bitmap", [&] { return GetRegionArea(nullptr, &area); }, RC_NO_BITMAP},
      {"area bad size", [&] { return GetRegionArea(badSize.get(), &area); }, RC_INVALID_STRUCT_SIZE},
      {"area null count", [&] { return GetRegionArea(c.get(), nullptr); }, RC_NULL_OPTIONS},
      {"max runs null", [&] { return GetRegionMaxRuns(nullptr); }, RC_NO_BITMAP},
      {"max runs bad size", [&] { return GetRegionMaxRuns(badSize.get()); }, RC_INVALID_STRUCT_SIZE},
      {"row runs null", [&] { return GetRegionRowRuns(nullptr, 0, &run, 1); }, RC_NO_BITMAP},
      {"row runs bad size", [&] { return GetRegionRowRuns(badSize.get(), 0, &run, 1); },
       RC_INVALID_STRUCT_SIZE},
      {"row runs null array", [&] { return GetRegionRowRuns(c.get(), 0, nullptr, 1); }, RC_NULL_OPTIONS},
      {"row runs negative max", [&] { return GetRegionRowRuns(c.get(), 0, &run, -1); }, RC_INVALID_PARAMETER},
      {"has region null", [&] { return BitmapHasRegion(nullptr); }, 0},
      {"point null", [&] { return IsPointInRegion(nullptr, 0, 0); }, 0},
  });
  // Failed calls leave no region behind.
  EXPECT_EQ(BitmapHasRegion(c.get()), 0);
}

TEST(RegionArguments, BitmapWithoutPixelsAndZeroSize) {
  // Only Width and Height matter for the bitmap itself.
  Canvas empty(0, 0);
  const Rect r{0, 0, 5, 5};
  ASSERT_EQ(SetBitmapRegionRect(empty.get(), &r, REGION_SET), RC_SUCCESS);
  EXPECT_NE(BitmapHasRegion(empty.get()), 0);
  uint64_t area = 1;
  GetRegionArea(empty.get(), &area);
  EXPECT_EQ(area, 0u);
}

// ---- Size ----------------------------------------------------------------------------------

TEST(RegionPerformance, LargeShapesBuildQuickly) {
  kit::LeakGuard guard;
  Canvas canvas(4000, 3000);
  const Rect e{0, 0, 4000, 3000};
  const std::vector<Point> star = Star(2000, 1500, 1450);
  using Clock = std::chrono::steady_clock;
  const auto t0 = Clock::now();
  ASSERT_EQ(SetBitmapRegionEllipse(canvas.get(), &e, REGION_SET), RC_SUCCESS);
  const auto t1 = Clock::now();
  ASSERT_EQ(SetBitmapRegionPolygon(canvas.get(), star.data(), 5, POLYGON_EVEN_ODD, REGION_XOR), RC_SUCCESS);
  const auto t2 = Clock::now();
  const double ellipseMs = std::chrono::duration<double, std::milli>(t1 - t0).count();
  const double xorMs = std::chrono::duration<double, std::milli>(t2 - t1).count();
  std::printf("4000x3000 ellipse %.2f ms, xor with star %.2f ms\n", ellipseMs, xorMs);
  // Generous limits: debug builds on a loaded machine.
  EXPECT_LT(ellipseMs, 100.0);
  EXPECT_LT(xorMs, 100.0);

  // The ellipse alone covers about pi * 2000 * 1500 pixels; check it exactly
  // on a sample of rows against the centre inequality.
  ASSERT_EQ(SetBitmapRegionEllipse(canvas.get(), &e, REGION_SET), RC_SUCCESS);
  uint64_t area = 0;
  ASSERT_EQ(GetRegionArea(canvas.get(), &area), RC_SUCCESS);
  EXPECT_NEAR(static_cast<double>(area), M_PI * 2000 * 1500, 2000 * 1500 * 1e-3);
  for (int32_t y = 0; y < 3000; y += 97) {
    RowRun run{};
    ASSERT_EQ(GetRegionRowRuns(canvas.get(), y, &run, 1), 1);
    EXPECT_TRUE(InEllipse(e, run.Start, y)) << y;
    EXPECT_FALSE(InEllipse(e, run.Start - 1, y)) << y;
    EXPECT_TRUE(InEllipse(e, run.End - 1, y)) << y;
    EXPECT_FALSE(InEllipse(e, run.End, y)) << y;
  }
}

}  // namespace
