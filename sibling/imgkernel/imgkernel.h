/*
 * imgkernel: memory, bitmap records, rows, palettes, bitmap lists and the
 * per-thread status callback of the imgcolor family.
 *
 * Compiles as C99 and as C++. All exported functions use the C ABI.
 */
#ifndef IMGKERNEL_H
#define IMGKERNEL_H

#include <stddef.h>
#include <stdint.h>
#include <wchar.h>

#if defined(__GNUC__)
#define IMG_API __attribute__((visibility("default")))
#else
#define IMG_API
#endif

#ifdef __cplusplus
#define IMG_BEGIN_DECLS extern "C" {
#define IMG_END_DECLS }
#else
#define IMG_BEGIN_DECLS
#define IMG_END_DECLS
#endif

IMG_BEGIN_DECLS

/* ---- Status codes shared by the whole family ---------------------------- */
#define RC_SUCCESS 1
#define RC_NO_MEMORY (-1)
#define RC_NO_BITMAP (-2)
#define RC_UNSUPPORTED_BITMAP (-12)
#define RC_INVALID_PARAMETER (-13)
#define RC_INVALID_STRUCT_SIZE (-789)
#define RC_NULL_OPTIONS (-814)
#define RC_SIGNED_DATA_NOT_SUPPORTED (-1360)
#define RC_GRAY32_NOT_SUPPORTED (-1364)

/* ---- BitmapRecord.Flags -------------------------------------------------- */
#define BITMAP_ALLOCATED 0x1u          /* pixel memory exists */
#define BITMAP_LARGE_MEMORY 0x4u       /* allocated with memory kind 128 */
#define BITMAP_SIGNED 0x200u           /* samples are two's-complement signed */
#define BITMAP_USE_ATTACHED_LUT 0x800u /* point operations change AttachedLut */

/* ---- ColorOrder ------------------------------------------------------------ */
#define ORDER_RGB 0  /* red, green, blue bytes (24/32/48/64 bits) */
#define ORDER_BGR 1  /* blue, green, red bytes */
#define ORDER_GRAY 2 /* one gray sample per pixel (8, 12, 16 bits) */
/* Accepted wherever an order is given: blue-green-red colour. As a conversion
 * target they also force a colour result for gray sources. */
#define ORDER_BGR_COLOR 4
#define ORDER_BGR_COLOR_WIDE 20

/* ---- Orientation ------------------------------------------------------------ */
#define ORIENT_TOP_FIRST 1    /* stored row 0 is the top row of the image */
#define ORIENT_BOTTOM_FIRST 4 /* stored row 0 is the bottom row */

/* ---- Memory kinds of AllocateBitmap ---------------------------------------- */
#define MEMORY_CONVENTIONAL 1
#define MEMORY_LARGE 128 /* same storage, marks the bitmap BITMAP_LARGE_MEMORY */

/* ---- PaletteFlag ------------------------------------------------------------ */
#define PALETTE_FLAG_NONE 1 /* a palette bitmap without palette: pixels are gray levels */

/* ---- Record sizes ------------------------------------------------------------ */
#define BITMAP_RECORD_SIZE 208u
#define BITMAP_RECORD_SIZE_OLD 176u /* older records end before Extension */

/* Colour values passed as one 32-bit number: red in bits 0-7, green 8-15,
 * blue 16-23. With COLOR_GRAY_LEVEL set, bits 8-15 hold a gray level. */
#define COLOR_GRAY_LEVEL 0x4000000u

typedef struct PaletteEntry {
  uint8_t Blue;
  uint8_t Green;
  uint8_t Red;
  uint8_t Reserved;
} PaletteEntry;

/* Right and bottom are exclusive. */
typedef struct Rect {
  int32_t Left;
  int32_t Top;
  int32_t Right;
  int32_t Bottom;
} Rect;

struct ImgRegion; /* region data, owned by the record, managed by imgdisplay */

/*
 * The family's bitmap record. The caller owns the record; imgkernel owns the
 * memory that Palette, Pixels, Region and AttachedLut point to once
 * AllocateBitmap (or CopyBitmap) filled it. A record whose StructSize is 176
 * ends before Extension; the family never reads or writes past StructSize.
 */
typedef struct BitmapRecord {
  uint32_t StructSize;        /* 208 or 176 */
  int32_t Width;              /* pixels per row */
  int32_t Height;             /* rows */
  int32_t BitsPerPixel;       /* 1,2,4,8 palette; 12 gray; 16; 24; 32; 48; 64 */
  uint32_t Flags;             /* BITMAP_* */
  int32_t ColorsUsed;         /* palette entries of a palette bitmap */
  int32_t Orientation;        /* ORIENT_TOP_FIRST or ORIENT_BOTTOM_FIRST */
  uint32_t BytesPerLine;      /* stored row size, a multiple of 4 */
  PaletteEntry *Palette;      /* 256-entry block for bitmaps of 8 bits or fewer */
  uint8_t *Pixels;            /* Height * BytesPerLine bytes */
  uint64_t DataSize;          /* bytes at Pixels */
  int32_t MemoryKind;         /* MEMORY_CONVENTIONAL or MEMORY_LARGE */
  int32_t ColorOrder;         /* ORDER_* */
  struct ImgRegion *Region;   /* null when no region is set */
  int32_t PaletteFlag;        /* 0, or PALETTE_FLAG_NONE */
  int32_t SignificantLowBit;  /* gray bitmaps: lowest bit carrying data */
  int32_t SignificantHighBit; /* gray bitmaps: highest bit, -1 = all bits */
  int32_t AccessCount;        /* AccessBitmap nesting */
  int32_t *AttachedLut;       /* the bitmap's own lookup table, or null */
  int32_t AttachedLutLength;  /* entries in AttachedLut */
  uint32_t UpdateCount;       /* incremented by UpdateBitmapInfo */
  int32_t XResolution;        /* dots per inch, 0 = unknown */
  int32_t YResolution;
  uint8_t Reserved[64];  /* zero */
  uint8_t Extension[32]; /* present in 208-byte records only; zero */
} BitmapRecord;

/* ---- Memory ---------------------------------------------------------------- */
/* Zero-filled memory of count * size bytes (a zero size gives a valid,
 * distinct block), or null. Line and file name the calling source. */
IMG_API void *AllocZeroed(size_t count, size_t size, int32_t line, const wchar_t *file);
/* As AllocZeroed (same tracking, tags and fault injection), but the bytes
 * are left as they come: only for buffers the caller writes completely
 * before anything reads them (it saves the walk that clears them). */
IMG_API void *AllocUnset(size_t count, size_t size, int32_t line, const wchar_t *file);
/* Releases memory from AllocZeroed or AllocUnset; null is ignored. */
IMG_API void FreeMemory(void *memory, int32_t line, const wchar_t *file);

/* Allocation tracking and fault injection; all per thread. Tracking records
 * the blocks allocated on this thread while it is on; such a block must be
 * freed on the same thread. */
typedef struct AllocationInfo {
  const void *Memory;
  size_t Size;
  int32_t Line;
  const wchar_t *File;
} AllocationInfo;
IMG_API void TrackAllocations(int32_t enable);
IMG_API void GetAllocationStats(uint64_t *liveCount, uint64_t *liveBytes);
/* Copies up to max live tracked blocks (newest first); returns their total. */
IMG_API uint32_t GetLiveAllocations(AllocationInfo *out, uint32_t max);
/* nth = 1 fails the next allocation, 2 the one after, ...; 0 disarms. */
IMG_API void SetAllocationFailure(uint32_t nth);
/* Allocations still to go before the armed failure; 0 when disarmed or spent. */
IMG_API uint32_t GetAllocationFailureCountdown(void);

/* ---- Status callback (per thread) ------------------------------------------ */
/* Receives a percentage and the user data; returns 1 to continue. Any other
 * value ends the operation and becomes its status. */
typedef int32_t (*StatusCallback)(int32_t percent, void *userData);
IMG_API void SetStatusCallback(StatusCallback callback, void *userData);
IMG_API StatusCallback GetStatusCallback(void **userData);

/* ---- Kernel settings (per thread) ------------------------------------------ */
/* First: dithering when a conversion reduces colours (0 none, 1 error
 * diffusion). Second: palette choice for such reductions (0 the image's own
 * colours when they fit, else the fixed palette; 1 always the fixed palette).
 * Each thread starts with (1, 1). Either place may be null. */
IMG_API int32_t SwapKernelSettings(int32_t first, int32_t second, int32_t *oldFirst, int32_t *oldSecond);

/* ---- Bitmaps ---------------------------------------------------------------- */
/* Fills the record and allocates zeroed pixel memory of Height * BytesPerLine
 * bytes (rows padded to a multiple of 4). Bitmaps of 8 bits or fewer get a
 * palette of 2^bits entries (ColorsUsed): `palette` when given, else the gray
 * ramp of the depth; an 8-bit ORDER_GRAY bitmap thus has the 256-entry ramp,
 * entry i = (i, i, i), and its pixels are both indices and gray levels.
 * `data`, when given, must hold exactly Height * BytesPerLine bytes in the
 * stored layout; any other dataSize (such as tightly packed rows) is refused
 * with RC_INVALID_PARAMETER and the record cleared. Without data, dataSize
 * is ignored. */
IMG_API int32_t AllocateBitmap(BitmapRecord *bitmap, uint32_t structSize, int32_t memoryKind, int32_t width,
                               int32_t height, int32_t bitsPerPixel, int32_t colorOrder,
                               const PaletteEntry *palette, int32_t orientation, const void *data,
                               uint64_t dataSize);
/* As AllocateBitmap without data, but the pixel bytes (row padding
 * included) are left unset (AllocUnset): only for callers that write every
 * byte of Height * BytesPerLine before anything can read them. */
IMG_API int32_t AllocateBitmapUnset(BitmapRecord *bitmap, uint32_t structSize, int32_t memoryKind, int32_t width,
                                    int32_t height, int32_t bitsPerPixel, int32_t colorOrder,
                                    const PaletteEntry *palette, int32_t orientation);
IMG_API int32_t FreeBitmap(BitmapRecord *bitmap);
IMG_API int32_t CopyBitmap(BitmapRecord *destination, const BitmapRecord *source, uint32_t structSize);
IMG_API int32_t ResetBitmap(BitmapRecord *bitmap, uint32_t structSize, int32_t reserved1, int32_t reserved2,
                            int32_t reserved3);
IMG_API int32_t InitBitmapHeader(BitmapRecord *bitmap, uint32_t structSize, int32_t width, int32_t height,
                                 int32_t bitsPerPixel);
/* Stored rows (not image rows): returns the bytes copied, or a status < 0. */
IMG_API int32_t GetBitmapRow(const BitmapRecord *bitmap, void *buffer, int32_t row, uint32_t bytes);
IMG_API int32_t PutBitmapRow(BitmapRecord *bitmap, const void *buffer, int32_t row, uint32_t bytes);
/* Palettes of bitmaps of 8 bits or fewer, 8-bit gray included: any range
 * inside 2^bits entries. Writing colours into an ORDER_GRAY bitmap keeps it
 * gray: IsGrayBitmap still answers 1 and conversions, row converters, tables
 * and histograms still read its pixels as gray levels; set ColorOrder to
 * ORDER_BGR to make it a colour palette bitmap.
 * Returns the number of entries copied; 0 on failure. */
IMG_API int32_t GetPalette(const BitmapRecord *bitmap, int32_t first, int32_t count, PaletteEntry *entries);
/* Non-zero on success, 0 on failure. */
IMG_API int32_t SetPalette(BitmapRecord *bitmap, int32_t first, int32_t count, const PaletteEntry *entries);
/* The bitmap's own palette (not a copy), or null. */
IMG_API PaletteEntry *GetPaletteRaw(BitmapRecord *bitmap);
IMG_API int32_t IsGrayBitmap(const BitmapRecord *bitmap);
IMG_API int32_t ConvertBitmapDepth(BitmapRecord *bitmap, int32_t bitsPerPixel);
IMG_API int32_t ConvertBitmapFormat(BitmapRecord *source, BitmapRecord *destination, uint32_t structSize,
                                    int32_t bitsPerPixel, int32_t colorOrder, const PaletteEntry *palette,
                                    int32_t paletteCount, uint32_t flags);
/* Converts one row buffer in place; see CONVERT_* for flags. */
#define CONVERT_GRAY_SOURCE 0x1u      /* source samples are gray levels (its palette is not read) */
#define CONVERT_SIGNIFICANT_BITS 0x4u /* source gray uses lowBit..highBit */
IMG_API int32_t ConvertRowBuffer(void *buffer, int32_t width, int32_t sourceBits, int32_t destinationBits,
                                 int32_t sourceOrder, int32_t destinationOrder,
                                 const PaletteEntry *sourcePalette, const PaletteEntry *destinationPalette,
                                 uint32_t flags, int32_t lowBit, int32_t highBit);
IMG_API int32_t ChangeOrientation(BitmapRecord *destination, BitmapRecord *bitmap, uint32_t structSize,
                                  int32_t orientation, uint32_t flags);
IMG_API int32_t FillBitmap(BitmapRecord *bitmap, uint32_t color);
IMG_API int32_t CountBitmapColors(const BitmapRecord *bitmap, uint32_t *count, uint32_t flags);
IMG_API int32_t UpdateBitmapInfo(BitmapRecord *bitmap);
/* Returns a token for ReleaseBitmap (>= 0) or a status < 0. */
IMG_API int32_t AccessBitmap(BitmapRecord *bitmap);
IMG_API int32_t ReleaseBitmap(BitmapRecord *bitmap, int32_t token);

/* ---- Bitmap lists -------------------------------------------------------------
 * A list holds record copies that share the listed bitmaps' pixel memory;
 * removing or destroying never frees pixels. */
typedef struct ImgBitmapList *BitmapList;
IMG_API int32_t CreateBitmapList(BitmapList *list);
IMG_API int32_t DestroyBitmapList(BitmapList list);
IMG_API int32_t GetBitmapListCount(BitmapList list, uint32_t *count);
IMG_API int32_t GetBitmapListItem(BitmapList list, uint32_t index, BitmapRecord *bitmap, uint32_t structSize);
/* index -1 appends. */
IMG_API int32_t InsertBitmapListItem(BitmapList list, int32_t index, const BitmapRecord *bitmap);
/* bitmap may be null; otherwise it receives the removed record (208 bytes). */
IMG_API int32_t RemoveBitmapListItem(BitmapList list, uint32_t index, BitmapRecord *bitmap);

IMG_END_DECLS

#endif
