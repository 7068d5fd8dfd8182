/*
 * imgdisplay: regions on bitmaps of the imgcolor family.
 *
 * A region is a set of pixels in image coordinates (row 0 is the top row of
 * the image whatever the bitmap's Orientation), clipped to the bitmap. It is
 * held per row as sorted, disjoint runs of columns [Start, End). A region can
 * be set and still be empty.
 */
#ifndef IMGDISPLAY_H
#define IMGDISPLAY_H

#include "imgkernel.h"

IMG_BEGIN_DECLS

/* How a new shape combines with the bitmap's current region. Without a
 * current region, AND / XOR / SUBTRACT / OR treat it as empty. */
#define REGION_SET 0
#define REGION_AND 1
#define REGION_OR 2
#define REGION_XOR 3
#define REGION_SUBTRACT 4 /* current minus the shape */

/* Polygon fill rules. */
#define POLYGON_EVEN_ODD 1
#define POLYGON_WINDING 2

typedef struct Point {
  int32_t X;
  int32_t Y;
} Point;

/* A run of columns [Start, End) of one row. */
typedef struct RowRun {
  int32_t Start;
  int32_t End;
} RowRun;

IMG_API int32_t SetBitmapRegionRect(BitmapRecord *bitmap, const Rect *rect, uint32_t combine);
/* The ellipse inscribed in bounds (pixel centres inside it are in). */
IMG_API int32_t SetBitmapRegionEllipse(BitmapRecord *bitmap, const Rect *bounds, uint32_t combine);
/* Vertices in pixel coordinates; a pixel is in when its centre is inside. */
IMG_API int32_t SetBitmapRegionPolygon(BitmapRecord *bitmap, const Point *points, uint32_t count,
                                       uint32_t fillRule, uint32_t combine);
/* Pixels of the mask (placed at 0, 0) whose value is not zero (palette index,
 * gray level or any colour sample) are in. */
IMG_API int32_t SetBitmapRegionMask(BitmapRecord *bitmap, const BitmapRecord *mask, uint32_t combine);
IMG_API int32_t FreeBitmapRegion(BitmapRecord *bitmap);
IMG_API int32_t CopyBitmapRegion(BitmapRecord *destination, const BitmapRecord *source);

IMG_API int32_t BitmapHasRegion(const BitmapRecord *bitmap);
/* Bounding rectangle of the region, or the whole bitmap without one.
 * transform is reserved and must be null. */
IMG_API int32_t GetRegionBounds(const BitmapRecord *bitmap, const void *transform, Rect *bounds);
/* Pixels inside the region, or of the whole bitmap without one. */
IMG_API int32_t GetRegionArea(const BitmapRecord *bitmap, uint64_t *count);
IMG_API int32_t IsPointInRegion(const BitmapRecord *bitmap, int32_t row, int32_t column);
/* Largest number of runs any row of the region has (1 without a region). */
IMG_API int32_t GetRegionMaxRuns(const BitmapRecord *bitmap);
/* Runs of image row `row` inside the region (the whole row without one);
 * returns how many were written (at most maxRuns), or a status < 0. */
IMG_API int32_t GetRegionRowRuns(const BitmapRecord *bitmap, int32_t row, RowRun *runs, int32_t maxRuns);

/* ---- Display colour models -------------------------------------------------
 * Rows of interleaved samples, 8 bits (codes below 16 and 0) or 16 bits
 * (host-order words) each. Model 0 / 16 is the family's own blue, green, red
 * row; the others hold their samples in the order of their name, every
 * sample on the sample range 0..full scale (255 or 65535): CMYK (four
 * samples), HSV and HLS (hue: one turn is full scale + 1 steps, red at 0),
 * CMY (full scale minus each sample). Definitions: docs/planes.md. */
#define COLOR_MODEL_BGR 0
#define COLOR_MODEL_CMYK 2
#define COLOR_MODEL_HSV 3
#define COLOR_MODEL_HLS 4
#define COLOR_MODEL_CMY 6
#define COLOR_MODEL_BGR16 16
#define COLOR_MODEL_CMYK16 112
#define COLOR_MODEL_HSV16 64
#define COLOR_MODEL_HLS16 80
#define COLOR_MODEL_CMY16 96
/* Converts `width` pixels from one model into another of the same sample
 * width. Source and destination may be the same buffer only when both
 * models have as many samples a pixel; otherwise they must not overlap.
 * Returns 1; RC_INVALID_PARAMETER for a null row, a width below 1, an unknown
 * code or models of different sample widths. */
IMG_API int32_t ConvertColorModelRow(const void *source, void *destination, int32_t width, int32_t fromModel,
                                     int32_t toModel);

IMG_END_DECLS

#endif
