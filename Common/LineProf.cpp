// Line profile: the samples of the pixels along a line, visited by
// Bresenham's algorithm from the first end point to the second, both
// included. Gray bitmaps give one value a point (the sample on its own
// scale), colour and palette bitmaps red, green and blue (the palette
// colour). Points outside the region are left out. Definitions:
// docs/planes.md.
#include <type_traits>

#include "frame.h"

namespace img {

namespace {

static constexpr const wchar_t *kSourceFile = L"Common/LineProf";

constexpr EntryRule kEntry{.flagsWord = true, .nullBitmap = NullBitmap::Refused, .signedData = true};

struct LinePoint {
  int32_t x;
  int32_t y;
  int32_t slot;  // index among the points inside the region, or -1
};

// Bresenham's points from (x1, y1) to (x2, y2), in that order.
template <class Fn>
void WalkLine(int32_t x1, int32_t y1, int32_t x2, int32_t y2, Fn &&fn) {
  const int64_t dx = x2 > x1 ? int64_t{x2} - x1 : int64_t{x1} - x2;
  const int64_t dy = -(y2 > y1 ? int64_t{y2} - y1 : int64_t{y1} - y2);
  const int32_t sx = x1 < x2 ? 1 : -1, sy = y1 < y2 ? 1 : -1;
  int64_t err = dx + dy;
  int32_t x = x1, y = y1;
  while (true) {
    fn(x, y);
    if (x == x2 && y == y2) return;
    const int64_t e2 = 2 * err;
    if (e2 >= dy) {
      err += dy;
      x += sx;
    }
    if (e2 <= dx) {
      err += dx;
      y += sy;
    }
  }
}

int32_t Profile(BitmapRecord *bitmap, int32_t x1, int32_t y1, int32_t x2, int32_t y2, uint32_t *values,
                uint32_t *capacity) {
  const int64_t dx = x2 > x1 ? int64_t{x2} - x1 : int64_t{x1} - x2;
  const int64_t dy = y2 > y1 ? int64_t{y2} - y1 : int64_t{y1} - y2;
  const int64_t count = (dx > dy ? dx : dy) + 1;
  IMG_BUFFER(LinePoint, points, static_cast<std::size_t>(count));
  if (!points) return RC_NO_MEMORY;
  int64_t n = 0;
  uint32_t inside = 0;
  WalkLine(x1, y1, x2, y2, [&](int32_t x, int32_t y) {
    const bool in = ::IsPointInRegion(bitmap, y, x) != 0;
    points[static_cast<std::size_t>(n++)] = LinePoint{x, y, in ? static_cast<int32_t>(inside++) : -1};
  });
  if (*capacity < inside) {
    *capacity = inside;
    return RC_INVALID_PARAMETER;
  }
  RowPass pass(bitmap, RowSetup{.layout = ROW_LAYOUT_NATIVE, .write = false});
  if (pass.status() != RC_SUCCESS) return pass.status();
  const bool down = y2 >= y1;  // the points' rows ascend with their index
  const bool gray12 = KindOf(bitmap) == Kind::Gray12;
  const int32_t status = Bracketed(kFullProgress, [&] {
    int64_t cursor = 0;  // points in order of ascending rows
    return pass.RunRows([&](auto &row) {
      auto point = [&](int64_t i) -> const LinePoint & {
        return points[static_cast<std::size_t>(down ? i : count - 1 - i)];
      };
      while (cursor < count && point(cursor).y < row.y) ++cursor;
      for (; cursor < count && point(cursor).y == row.y; ++cursor) {
        const LinePoint &p = point(cursor);
        if (p.slot < 0) continue;
        const auto *s = row.Pixel(p.x);
        if (row.channels == 1) {
          values[p.slot] = gray12 ? s[0] >> 4 : s[0];
        } else {
          uint32_t *v = values + 3 * static_cast<std::size_t>(p.slot);
          v[0] = s[2];
          v[1] = s[1];
          v[2] = s[0];
        }
      }
    });
  });
  if (status == RC_SUCCESS) *capacity = inside;
  return status;
}

}  // namespace

}  // namespace img

extern "C" IMG_API int32_t Q_LineProfile(BitmapRecord *bitmap, int32_t x1, int32_t y1, int32_t x2, int32_t y2,
                                         uint32_t *values, uint32_t *capacity, uint32_t flags) {
  if (const int32_t status = img::CheckEntry(img::kEntry, flags, bitmap)) return status;
  if (!values || !capacity) return RC_NULL_OPTIONS;
  const img::Range xs{img::ranges::kLinePoint.min, int64_t{bitmap->Width} - 1};
  const img::Range ys{img::ranges::kLinePoint.min, int64_t{bitmap->Height} - 1};
  if (!xs.Contains(x1) || !xs.Contains(x2) || !ys.Contains(y1) || !ys.Contains(y2))
    return RC_INVALID_PARAMETER;
  return img::Profile(bitmap, x1, y1, x2, y2, values, capacity);
}
