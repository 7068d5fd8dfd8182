// imgkernel: memory, bitmap records, stored rows, palettes, lists, helpers.
#include <algorithm>
#include <cstring>
#include <memory>
#include <thread>
#include <tuple>

#include "imgplatform.h"
#include "kit.h"

using kit::Bitmap;
using kit::Format;
using kit::Level;
using kit::Rgb;

static constexpr const wchar_t *kSourceFile = L"tests/kernel_test";
constexpr int32_t kBad = RC_INVALID_PARAMETER;

TEST(Memory, TrackingAndFaultInjection) {
  kit::LeakGuard guard;
  void *a = AllocZeroed(10, 4, 111, kSourceFile), *b = AllocZeroed(0, 8, 222, kSourceFile);
  ASSERT_TRUE(a && b && a != b);  // a zero size still gives a distinct block
  EXPECT_EQ(reinterpret_cast<uintptr_t>(a) % 64, 0u);
  EXPECT_EQ(std::count(static_cast<uint8_t *>(a), static_cast<uint8_t *>(a) + 40, 0), 40);
  uint64_t count = 0, bytes = 0, after = 0, afterBytes = 0;
  GetAllocationStats(&count, &bytes);
  AllocationInfo info[2];
  EXPECT_GE(GetLiveAllocations(info, 2), 2u);
  EXPECT_EQ(std::tuple(info[0].Memory, info[0].Line, info[1].Size), std::tuple(b, 222, 40u));  // newest first
  EXPECT_EQ(std::wcscmp(info[1].File, kSourceFile), 0);
  for (void *p : {a, b, static_cast<void *>(nullptr)}) FreeMemory(p, __LINE__, kSourceFile);
  GetAllocationStats(&after, &afterBytes);
  EXPECT_EQ(std::pair(count - after, bytes - afterBytes), std::pair(uint64_t{2}, uint64_t{40}));
  // The third allocation from now fails, and only that one; unset blocks
  // count alike and are tracked alike.
  SetAllocationFailure(3);
  void *p[4];
  for (int i = 0; i < 4; ++i) p[i] = (i % 2 ? AllocUnset : AllocZeroed)(1, 1, __LINE__, kSourceFile);
  EXPECT_EQ(GetAllocationFailureCountdown(), 0u);
  EXPECT_TRUE(p[0] && p[1] && !p[2] && p[3]);
  for (void *q : p) FreeMemory(q, __LINE__, kSourceFile);
  EXPECT_EQ(AllocZeroed(SIZE_MAX / 2, 4, __LINE__, kSourceFile), nullptr);  // count x size overflows
  EXPECT_EQ(AllocUnset(SIZE_MAX / 2, 4, __LINE__, kSourceFile), nullptr);
  // Blocks from 32 MiB on (header included) are mapped for huge pages: on
  // each side of that size a block is whole, zeroed, aligned and tracked.
  for (const std::size_t size :
       {(std::size_t{32} << 20) - 65, (std::size_t{32} << 20) - 64, (std::size_t{32} << 20) + 12345}) {
    auto *q = static_cast<uint8_t *>(AllocZeroed(1, size, __LINE__, kSourceFile));
    ASSERT_NE(q, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(q) % 64, 0u);
    EXPECT_EQ(std::count(q, q + size, 0), static_cast<std::ptrdiff_t>(size)) << size;
    q[size - 1] = 1;
    GetAllocationStats(&after, &afterBytes);
    EXPECT_EQ(afterBytes - bytes + 40, size);
    FreeMemory(q, __LINE__, kSourceFile);
  }
}

TEST(Memory, TrackingCallbackAndSettingsArePerThread) {
  TrackAllocations(1);
  SetStatusCallback([](int32_t, void *) { return 5; }, nullptr);
  int32_t first = -1, second = -1, theirFirst = -1, theirSecond = -1;
  SwapKernelSettings(0, 0, &first, &second);  // this thread: (0, 0) from now on
  void *p = AllocZeroed(1, 1, __LINE__, kSourceFile);
  uint64_t mine = 0, theirs = 99;
  GetAllocationStats(&mine, nullptr);
  StatusCallback theirCallback = nullptr;
  std::thread([&] {
    GetAllocationStats(&theirs, nullptr);
    theirCallback = GetStatusCallback(nullptr);
    SwapKernelSettings(1, 1, &theirFirst, &theirSecond);
  }).join();
  // Every thread starts untracked, without callback, with the settings (1, 1).
  EXPECT_EQ(std::tuple(theirs, theirCallback, theirFirst, theirSecond), std::tuple(0u, nullptr, 1, 1));
  SwapKernelSettings(first, second, &theirFirst, &theirSecond);
  EXPECT_EQ(std::tuple(mine >= 1, first, second, theirFirst, theirSecond), std::tuple(true, 1, 1, 0, 0));
  FreeMemory(p, __LINE__, kSourceFile);
  SetStatusCallback(nullptr, nullptr);
}

TEST(AllocateBitmap, RefusesBadArgumentsAndLeavesRecordEmpty) {
  kit::LeakGuard guard;
  // Data must fill the padded rows exactly: 3 x 2 at 24 bits is 2 x 12 bytes, at 8 bits 2 x 4.
  struct Case {
    const char *name;
    int32_t kind, w, h, bits, order, orient;
    int64_t dataSize = -1;  // -1: no data
  } cases[] = {{"width 0", 1, 0, 5, 24, 1, 1},       {"height -1", 1, 5, -1, 24, 1, 1},
               {"depth 7", 1, 5, 5, 7, 1, 1},        {"12 colour", 1, 5, 5, 12, 1, 1},
               {"order 3", 1, 5, 5, 24, 3, 1},       {"gray 24", 1, 5, 5, 24, ORDER_GRAY, 1},
               {"orient 2", 1, 5, 5, 24, 1, 2},      {"kind 2", 2, 5, 5, 24, 1, 1},
               {"row", 1, INT32_MAX, 1, 64, 1, 1},   {"total", 1, 1 << 20, 1 << 30, 32, 1, 1},
               {"packed", 1, 3, 2, 24, 1, 1, 18},    {"a byte more", 1, 3, 2, 24, 1, 1, 25},
               {"packed gray", 1, 3, 2, 8, 2, 4, 6}, {"size 0", 1, 3, 2, 24, 1, 1, 0}};
  BitmapRecord r;
  const uint8_t data[32] = {};
  for (const Case &c : cases) {
    std::memset(&r, 0xAB, sizeof r);
    EXPECT_EQ(AllocateBitmap(&r, 208, c.kind, c.w, c.h, c.bits, c.order, nullptr, c.orient,
                             c.dataSize < 0 ? nullptr : data,
                             static_cast<uint64_t>(c.dataSize < 0 ? 99 : c.dataSize)),
              kBad)
        << c.name;
    EXPECT_TRUE(!r.Flags && !r.Pixels && !r.Width && r.StructSize == 208) << c.name;  // cleared, size kept
  }
  EXPECT_EQ(AllocateBitmap(&r, 200, 1, 5, 5, 24, 1, nullptr, 1, nullptr, 0), RC_INVALID_STRUCT_SIZE);
  EXPECT_EQ(AllocateBitmap(nullptr, 208, 1, 5, 5, 24, 1, nullptr, 1, nullptr, 0), RC_NO_BITMAP);
  // The unset form checks alike (its cases without data) and fills the same record.
  for (const Case &c : cases) {
    if (c.dataSize >= 0) continue;
    std::memset(&r, 0xAB, sizeof r);
    EXPECT_EQ(AllocateBitmapUnset(&r, 208, c.kind, c.w, c.h, c.bits, c.order, nullptr, c.orient), kBad)
        << c.name;
    EXPECT_TRUE(!r.Flags && !r.Pixels && !r.Width && r.StructSize == 208) << c.name;
  }
  BitmapRecord a{}, b{};
  ASSERT_EQ(AllocateBitmap(&a, 176, MEMORY_LARGE, 133, 5, 0, ORDER_RGB, nullptr, 4, nullptr, 0), RC_SUCCESS);
  ASSERT_EQ(AllocateBitmapUnset(&b, 176, MEMORY_LARGE, 133, 5, 0, ORDER_RGB, nullptr, 4), RC_SUCCESS);
  EXPECT_NE(a.Pixels, b.Pixels);
  EXPECT_EQ(std::memcmp(a.Palette, b.Palette, 256 * sizeof(PaletteEntry)), 0);
  BitmapRecord same = a;
  same.Pixels = b.Pixels, same.Palette = b.Palette;
  EXPECT_EQ(std::memcmp(&same, &b, 176), 0);
  FreeBitmap(&a);
  FreeBitmap(&b);
  EXPECT_EQ(AllocateBitmapUnset(nullptr, 208, 1, 5, 5, 24, 1, nullptr, 1), RC_NO_BITMAP);
}

TEST(AllocateBitmap, DefaultsPalettesAndData) {
  kit::LeakGuard guard;
  BitmapRecord rec{};
  ASSERT_EQ(AllocateBitmap(&rec, 208, MEMORY_LARGE, 3, 2, 0, ORDER_BGR, nullptr, 4, nullptr, 99), RC_SUCCESS);
  // Depth 0 means 8 bits; memory kind 128 marks the bitmap; without data the size is ignored.
  EXPECT_EQ(std::tuple(rec.BitsPerPixel, rec.BytesPerLine, rec.ColorsUsed, rec.Flags),
            std::tuple(8, 4u, 256, BITMAP_ALLOCATED | BITMAP_LARGE_MEMORY));
  EXPECT_TRUE(IsGrayBitmap(&rec));  // the gray ramp palette
  PaletteEntry e[2];
  ASSERT_EQ(GetPalette(&rec, 254, 2, e), 2);
  EXPECT_EQ(e[1].Red, 255);
  e[1].Red = 7;
  EXPECT_NE(SetPalette(&rec, 255, 1, &e[1]), 0);
  EXPECT_FALSE(IsGrayBitmap(&rec));
  EXPECT_EQ(GetPaletteRaw(&rec)[255].Red, 7);
  EXPECT_EQ(GetPalette(&rec, 255, 2, e), 0);  // past the end
  EXPECT_EQ(SetPalette(&rec, -1, 1, e), 0);
  FreeBitmap(&rec);
  ASSERT_EQ(AllocateBitmap(&rec, 208, 1, 9, 1, 4, ORDER_BGR, nullptr, 1, nullptr, 0), RC_SUCCESS);
  // Gray ramp i * 255 / 15; 9 nibbles take 5 bytes, padded to 8.
  EXPECT_EQ(std::tuple(rec.ColorsUsed, rec.Palette[1].Green, rec.Palette[15].Green, rec.BytesPerLine),
            std::tuple(16, 17, 255, 8u));
  FreeBitmap(&rec);
  // `data` fills the stored rows: stored row 1 of a bottom-first bitmap.
  const uint8_t data[8] = {1, 2, 3, 0, 4, 5, 6, 0};
  ASSERT_EQ(AllocateBitmap(&rec, 208, 1, 1, 2, 24, ORDER_RGB, nullptr, 4, data, sizeof data), RC_SUCCESS);
  uint8_t row[4];
  EXPECT_EQ(GetBitmapRow(&rec, row, 1, 3), 3);
  EXPECT_EQ(row[2], 6);
  EXPECT_EQ(GetBitmapRow(&rec, row, 2, 3), kBad);
  EXPECT_EQ(GetBitmapRow(&rec, nullptr, 0, 3), kBad);
  FreeBitmap(&rec);
  EXPECT_EQ(GetBitmapRow(&rec, row, 0, 3), RC_NO_BITMAP);
}

// 8-bit gray carries the gray ramp (a caller's palette instead when given); its palette is read and
// written like any other. Colours written into it leave it gray: the pixels remain gray levels.
TEST(AllocateBitmap, EightBitGrayCarriesTheRamp) {
  kit::LeakGuard guard;
  PaletteEntry own[256];
  for (int i = 0; i < 256; ++i) own[i] = PaletteEntry{uint8_t(255 - i), 0, uint8_t(i), 0};
  for (const PaletteEntry *palette : std::initializer_list<const PaletteEntry *>{nullptr, own}) {
    SCOPED_TRACE(palette ? "caller's palette" : "no palette");
    Bitmap gray(Format{8, ORDER_GRAY}, 5, 2, palette);
    EXPECT_EQ(gray->ColorsUsed, 256);
    EXPECT_EQ(kit::HasGrayRamp(gray), palette == nullptr);
    EXPECT_EQ(GetPaletteRaw(gray), gray->Palette);
    PaletteEntry e[256];
    ASSERT_EQ(GetPalette(gray, 0, 256, e), 256);
    EXPECT_EQ(std::memcmp(e, palette ? own : gray->Palette, sizeof e), 0);
    e[40] = PaletteEntry{1, 2, 3, 0};
    ASSERT_NE(SetPalette(gray, 40, 1, &e[40]), 0);
    EXPECT_EQ(GetPaletteRaw(gray)[40].Red, 3);
    EXPECT_TRUE(IsGrayBitmap(gray) && gray->ColorOrder == ORDER_GRAY);
  }
}

TEST(Storage, EveryKindStoresAsDocumented) {
  // Pixel (1, 0) of a 3 x 2 bitmap lands in stored row 0 (top-first) or 1 (bottom-first).
  struct Case {
    Format format;
    kit::Pixel pixel;
    std::vector<uint8_t> row;  // first stored bytes of the pixel's row
  } cases[] = {
      {{1, ORDER_BGR}, Level(1), {0x40}},
      {{2, ORDER_BGR}, Level(2), {0x20}},
      {{4, ORDER_BGR}, Level(9), {0x09}},
      {{8, ORDER_BGR}, Level(200), {0, 200, 0}},
      {{8, ORDER_GRAY}, Level(77), {0, 77}},
      {{12, ORDER_GRAY}, Level(4095), {0, 0, 0xFF, 0x0F}},
      {{16, ORDER_GRAY}, Level(0x1234), {0, 0, 0x34, 0x12}},
      {{16, ORDER_BGR}, Rgb(31, 1, 2), {0, 0, 0x22, 0x7C}},
      {{24, ORDER_BGR}, Rgb(1, 2, 3), {0, 0, 0, 3, 2, 1}},
      {{24, ORDER_RGB}, Rgb(1, 2, 3), {0, 0, 0, 1, 2, 3}},
      {{32, ORDER_BGR}, Rgb(1, 2, 3, 4), {0, 0, 0, 0, 3, 2, 1, 4}},
      {{48, ORDER_BGR}, Rgb(0x102, 0x304, 0x506), {0, 0, 0, 0, 0, 0, 6, 5, 4, 3, 2, 1}},
      {{64, ORDER_RGB}, Rgb(1, 2, 3, 0xFFFF), {0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 2, 0, 3, 0, 0xFF, 0xFF}},
  };
  for (const Case &c : cases)
    for (int32_t orientation : {ORIENT_TOP_FIRST, ORIENT_BOTTOM_FIRST}) {
      const Format format{c.format.bits, c.format.order, orientation};
      SCOPED_TRACE(format.Name());
      kit::LeakGuard guard;
      Bitmap bmp(format, 3, 2);
      bmp.Set(1, 0, c.pixel);
      const uint32_t size = bmp->BytesPerLine;
      const int32_t storedRow = orientation == ORIENT_TOP_FIRST ? 0 : 1;
      std::vector<uint8_t> stored(size);
      ASSERT_EQ(GetBitmapRow(bmp, stored.data(), storedRow, size), static_cast<int32_t>(size));
      EXPECT_TRUE(size % 4 == 0 && std::equal(c.row.begin(), c.row.end(), stored.begin()));
      // PutBitmapRow writes the other stored row; the pixel moves with it.
      ASSERT_GT(PutBitmapRow(bmp, stored.data(), 1 - storedRow, size), 0);
      EXPECT_EQ(std::pair(bmp.At(1, 0), bmp.At(1, 1)), std::pair(c.pixel, c.pixel));
    }
}

TEST(Records, HeadersAccessAndTheOldRecordSize) {
  kit::LeakGuard guard;
  BitmapRecord hdr;
  std::memset(&hdr, 0x5A, sizeof hdr);
  ASSERT_EQ(InitBitmapHeader(&hdr, 208, 10, 3, 24), RC_SUCCESS);
  EXPECT_EQ(std::tuple(hdr.BytesPerLine, hdr.Pixels, hdr.Flags), std::tuple(32u, nullptr, 0u));
  EXPECT_EQ(InitBitmapHeader(&hdr, 208, 10, 3, 12), RC_SUCCESS);
  EXPECT_EQ(hdr.ColorOrder, ORDER_GRAY);
  EXPECT_EQ(InitBitmapHeader(&hdr, 208, 0, 3, 24), kBad);
  EXPECT_EQ(ResetBitmap(&hdr, 99, 0, 0, 0), RC_INVALID_STRUCT_SIZE);
  // Heap blocks of exactly 176 bytes: the sanitizer build catches any access past them.
  std::unique_ptr<uint8_t[]> block(new uint8_t[176]), copyBlock(new uint8_t[176]);
  auto *old = reinterpret_cast<BitmapRecord *>(block.get());
  auto *copy = reinterpret_cast<BitmapRecord *>(copyBlock.get());
  ASSERT_EQ(AllocateBitmap(old, 176, 1, 4, 4, 8, ORDER_GRAY, nullptr, 1, nullptr, 0), RC_SUCCESS);
  EXPECT_EQ(old->StructSize, 176u);
  EXPECT_EQ(AccessBitmap(old), 0);
  EXPECT_EQ(AccessBitmap(old), 1);  // nesting token
  EXPECT_EQ(ReleaseBitmap(old, 1), RC_SUCCESS);
  EXPECT_EQ(ReleaseBitmap(old, 0), RC_SUCCESS);
  EXPECT_EQ(old->AccessCount, 0);
  ASSERT_EQ(CopyBitmap(copy, old, 176), RC_SUCCESS);
  const uint32_t updates = copy->UpdateCount;
  EXPECT_EQ(UpdateBitmapInfo(copy), RC_SUCCESS);
  EXPECT_EQ(copy->UpdateCount, updates + 1);
  EXPECT_EQ(FreeBitmap(copy), RC_SUCCESS);
  EXPECT_EQ(FreeBitmap(old), RC_SUCCESS);
  EXPECT_EQ(ResetBitmap(old, 176, 0, 0, 0), RC_SUCCESS);
  EXPECT_TRUE(old->Pixels == nullptr && old->SignificantHighBit == -1);
}

TEST(Records, CopyIsDeepAndFreeReleasesEverything) {
  kit::LeakGuard guard;
  Bitmap src(Format{8, ORDER_GRAY}, 4, 3);
  src.Randomize(3);
  src->AttachedLut = static_cast<int32_t *>(AllocZeroed(256, 4, __LINE__, kSourceFile));
  src->AttachedLutLength = 256;
  src->AttachedLut[9] = 99;
  kit::SetRectRegion(src, 1, 1, 3, 2);
  BitmapRecord dst{};
  ASSERT_EQ(CopyBitmap(&dst, src, 208), RC_SUCCESS);
  EXPECT_TRUE(dst.Pixels != src->Pixels && dst.AttachedLut != src->AttachedLut && dst.Region != src->Region);
  EXPECT_TRUE(dst.Palette != src->Palette && kit::HasGrayRamp(&dst));
  EXPECT_EQ(dst.AttachedLut[9], 99);
  EXPECT_EQ(std::memcmp(dst.Pixels, src->Pixels, src->DataSize), 0);
  EXPECT_TRUE(BitmapHasRegion(&dst) && IsPointInRegion(&dst, 1, 2) && !IsPointInRegion(&dst, 0, 0));
  FreeBitmap(&dst);
  EXPECT_TRUE(!dst.Pixels && !dst.Region && !dst.AttachedLut && !(dst.Flags & BITMAP_ALLOCATED));
}

TEST(Records, AllocationFailuresLeakNothing) {
  // Copy, allocation and a growing list in one run: each allocation fails in turn.
  auto setup = [] {
    Bitmap b(Format{8, ORDER_BGR}, 5, 5);
    kit::SetRectRegion(b, 0, 0, 2, 2);
    return b;
  };
  auto run = [](Bitmap &b) {
    BitmapRecord copy{}, rec{};
    BitmapList list = nullptr;
    int32_t status = CopyBitmap(&copy, b, 208);
    if (status == RC_SUCCESS)
      status = AllocateBitmap(&rec, 208, 1, 4, 4, 8, ORDER_BGR, nullptr, 1, nullptr, 0);
    if (status == RC_SUCCESS) status = CreateBitmapList(&list);
    for (int i = 0; status == RC_SUCCESS && i < 9; ++i) status = InsertBitmapListItem(list, -1, b);
    if (list) DestroyBitmapList(list);
    FreeBitmap(&copy);
    FreeBitmap(&rec);
    return status;
  };
  EXPECT_GT(kit::CheckAllocationFailures(setup, run), 3);
}

TEST(Records, IsGrayBitmapByKind) {
  kit::LeakGuard guard;
  PaletteEntry red[2] = {{0, 0, 0, 0}, {0, 0, 255, 0}};
  struct Case {
    Format format;
    bool gray;
    const PaletteEntry *palette = nullptr;
    int32_t paletteFlag = 0;
  } cases[] = {{{8, ORDER_GRAY}, true},      {{12, ORDER_GRAY}, true},
               {{16, ORDER_GRAY}, true},     {{1, ORDER_BGR}, true},
               {{4, ORDER_BGR}, true},       {{16, ORDER_BGR}, false},
               {{24, ORDER_BGR}, false},     {{64, ORDER_RGB}, false},
               {{1, ORDER_BGR}, false, red}, {{1, ORDER_BGR}, true, red, PALETTE_FLAG_NONE}};
  for (const Case &c : cases) {
    Bitmap b(c.format, 2, 2, c.palette);
    if (c.paletteFlag) b->PaletteFlag = c.paletteFlag;
    EXPECT_EQ(IsGrayBitmap(b) != 0, c.gray) << c.format.Name() << (c.palette ? " red palette" : "");
  }
  EXPECT_FALSE(IsGrayBitmap(nullptr));
}

TEST(Helpers, MulDivRoundsHalfAwayFromZero) {
  struct Case {
    int32_t a, b, c, expected;
  } cases[] = {{1000, 128, 4000, 32}, {7, 1, 2, 4},  {-7, 1, 2, -4},
               {5, 1, -2, -3},        {1, 1, 3, 0},  {2, 1, 3, 1},
               {-9, -3, 2, 14},       {0, 5, 7, 0},  {INT32_MAX, 2, 2, INT32_MAX},
               {INT32_MAX, 2, 1, -1}, {1, 1, 0, -1}, {INT32_MIN, 1, 1, INT32_MIN}};
  for (const Case &c : cases) EXPECT_EQ(MulDiv(c.a, c.b, c.c), c.expected) << c.a << "*" << c.b << "/" << c.c;
  Rect r;
  EXPECT_TRUE(SetRect(&r, 1, 2, 3, 4) == 1 && r.Left == 1 && r.Bottom == 4);
}

TEST(Lists, InsertRemoveAndNeverFreePixels) {
  kit::LeakGuard guard;
  Bitmap a(Format{24, ORDER_BGR}, 2, 2), b(Format{8, ORDER_GRAY}, 3, 3);
  BitmapList list = nullptr;
  ASSERT_EQ(CreateBitmapList(&list), RC_SUCCESS);
  for (int i = 0; i < 10; ++i) ASSERT_EQ(InsertBitmapListItem(list, -1, i % 2 ? b : a), RC_SUCCESS);
  ASSERT_EQ(InsertBitmapListItem(list, 0, b), RC_SUCCESS);
  EXPECT_EQ(InsertBitmapListItem(list, 12, b), kBad);
  uint32_t count = 0;
  EXPECT_TRUE(GetBitmapListCount(list, &count) == RC_SUCCESS && count == 11u) << count;
  BitmapRecord item{};
  ASSERT_EQ(GetBitmapListItem(list, 1, &item, 208), RC_SUCCESS);
  EXPECT_EQ(item.Pixels, a->Pixels);
  ASSERT_EQ(RemoveBitmapListItem(list, 0, &item), RC_SUCCESS);
  EXPECT_EQ(item.Pixels, b->Pixels);
  EXPECT_EQ(GetBitmapListItem(list, 10, &item, 208), kBad);
  EXPECT_EQ(GetBitmapListItem(list, 0, &item, 100), RC_INVALID_STRUCT_SIZE);
  ASSERT_EQ(DestroyBitmapList(list), RC_SUCCESS);
  EXPECT_EQ(a->Flags & BITMAP_ALLOCATED, BITMAP_ALLOCATED);  // pixels untouched
}
