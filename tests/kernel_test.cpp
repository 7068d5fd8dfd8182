// imgkernel: memory, bitmap records, stored rows, palettes, lists, helpers.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>

#include "kit.h"

using kit::Bitmap;
using kit::Format;

static constexpr const wchar_t *kSourceFile = L"tests/kernel_test";

TEST(Memory, TrackingCountsAndNamesLiveBlocks) {
  kit::LeakGuard guard;
  void *a = AllocZeroed(10, 4, 111, kSourceFile);
  void *b = AllocZeroed(0, 8, 222, kSourceFile);
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  EXPECT_NE(a, b);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(a) % 64, 0u);
  for (int i = 0; i < 40; ++i) EXPECT_EQ(static_cast<uint8_t *>(a)[i], 0);
  uint64_t count = 0, bytes = 0;
  GetAllocationStats(&count, &bytes);
  AllocationInfo info[4];
  const uint32_t total = GetLiveAllocations(info, 4);
  EXPECT_GE(total, 2u);
  EXPECT_EQ(info[0].Memory, b);  // newest first
  EXPECT_EQ(info[0].Line, 222);
  EXPECT_EQ(info[1].Size, 40u);
  EXPECT_EQ(std::wcscmp(info[1].File, kSourceFile), 0);
  FreeMemory(a, __LINE__, kSourceFile);
  FreeMemory(b, __LINE__, kSourceFile);
  FreeMemory(nullptr, __LINE__, kSourceFile);
  uint64_t after = 0, afterBytes = 0;
  GetAllocationStats(&after, &afterBytes);
  EXPECT_EQ(after + 2, count);
  EXPECT_EQ(afterBytes + 40, bytes);
}

TEST(Memory, FaultInjectionFailsExactlyTheNthAllocation) {
  SetAllocationFailure(3);
  void *p1 = AllocZeroed(1, 1, __LINE__, kSourceFile);
  void *p2 = AllocZeroed(1, 1, __LINE__, kSourceFile);
  EXPECT_EQ(GetAllocationFailureCountdown(), 1u);
  void *p3 = AllocZeroed(1, 1, __LINE__, kSourceFile);
  void *p4 = AllocZeroed(1, 1, __LINE__, kSourceFile);
  EXPECT_NE(p1, nullptr);
  EXPECT_NE(p2, nullptr);
  EXPECT_EQ(p3, nullptr);
  EXPECT_NE(p4, nullptr);
  EXPECT_EQ(GetAllocationFailureCountdown(), 0u);
  for (void *p : {p1, p2, p4}) FreeMemory(p, __LINE__, kSourceFile);
  EXPECT_EQ(AllocZeroed(SIZE_MAX / 2, 4, __LINE__, kSourceFile), nullptr);  // overflow
}

TEST(Memory, TrackingAndCallbackArePerThread) {
  TrackAllocations(1);
  SetStatusCallback([](int32_t, void *) { return 5; }, nullptr);
  uint64_t mine = 0;
  void *p = AllocZeroed(1, 1, __LINE__, kSourceFile);
  GetAllocationStats(&mine, nullptr);
  uint64_t theirs = 99;
  StatusCallback theirCallback = nullptr;
  std::thread([&] {
    GetAllocationStats(&theirs, nullptr);
    theirCallback = GetStatusCallback(nullptr);
  }).join();
  EXPECT_EQ(theirs, 0u);
  EXPECT_EQ(theirCallback, nullptr);
  EXPECT_GE(mine, 1u);
  FreeMemory(p, __LINE__, kSourceFile);
  SetStatusCallback(nullptr, nullptr);
}

TEST(AllocateBitmap, RefusesBadArgumentsAndLeavesRecordEmpty) {
  kit::LeakGuard guard;
  struct Case {
    const char *name;
    uint32_t size;
    int32_t kind, w, h, bits, order, orientation, expected;
  } cases[] = {
      {"width 0", 208, 1, 0, 5, 24, 1, 1, RC_INVALID_PARAMETER},
      {"height -1", 208, 1, 5, -1, 24, 1, 1, RC_INVALID_PARAMETER},
      {"depth 7", 208, 1, 5, 5, 7, 1, 1, RC_INVALID_PARAMETER},
      {"depth 12 colour", 208, 1, 5, 5, 12, 1, 1, RC_INVALID_PARAMETER},
      {"order 3", 208, 1, 5, 5, 24, 3, 1, RC_INVALID_PARAMETER},
      {"gray 24", 208, 1, 5, 5, 24, ORDER_GRAY, 1, RC_INVALID_PARAMETER},
      {"orientation 2", 208, 1, 5, 5, 24, 1, 2, RC_INVALID_PARAMETER},
      {"memory kind 2", 208, 2, 5, 5, 24, 1, 1, RC_INVALID_PARAMETER},
      {"row bytes overflow", 208, 1, INT32_MAX, 1, 64, 1, 1, RC_INVALID_PARAMETER},
      {"total overflow", 208, 1, 1 << 20, 1 << 30, 32, 1, 1, RC_INVALID_PARAMETER},
      {"struct size 200", 200, 1, 5, 5, 24, 1, 1, RC_INVALID_STRUCT_SIZE},
  };
  for (const Case &c : cases) {
    BitmapRecord rec;
    std::memset(&rec, 0xAB, sizeof rec);
    EXPECT_EQ(
        AllocateBitmap(&rec, c.size, c.kind, c.w, c.h, c.bits, c.order, nullptr, c.orientation, nullptr, 0),
        c.expected)
        << c.name;
    if (c.expected == RC_INVALID_PARAMETER) {
      EXPECT_EQ(rec.Flags, 0u) << c.name;
      EXPECT_EQ(rec.Pixels, nullptr) << c.name;
      EXPECT_EQ(rec.Width, 0) << c.name;
    }
  }
  EXPECT_EQ(AllocateBitmap(nullptr, 208, 1, 5, 5, 24, 1, nullptr, 1, nullptr, 0), RC_NO_BITMAP);
}

TEST(AllocateBitmap, DefaultsAndPalettes) {
  kit::LeakGuard guard;
  BitmapRecord rec{};
  ASSERT_EQ(AllocateBitmap(&rec, 208, MEMORY_LARGE, 3, 2, 0, ORDER_BGR, nullptr, 4, nullptr, 0), RC_SUCCESS);
  EXPECT_EQ(rec.BitsPerPixel, 8);  // depth 0 means 8 bits
  EXPECT_EQ(rec.BytesPerLine, 4u);
  EXPECT_EQ(rec.ColorsUsed, 256);
  EXPECT_EQ(rec.Flags, BITMAP_ALLOCATED | BITMAP_LARGE_MEMORY);
  EXPECT_TRUE(IsGrayBitmap(&rec));  // gray ramp palette
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
  EXPECT_EQ(rec.Pixels, nullptr);
  EXPECT_EQ(rec.Flags & BITMAP_ALLOCATED, 0u);

  ASSERT_EQ(AllocateBitmap(&rec, 208, 1, 9, 1, 4, ORDER_BGR, nullptr, 1, nullptr, 0), RC_SUCCESS);
  EXPECT_EQ(rec.ColorsUsed, 16);
  EXPECT_EQ(rec.Palette[15].Green, 255);
  EXPECT_EQ(rec.Palette[1].Green, 17);
  EXPECT_EQ(rec.BytesPerLine, 8u);  // 9 nibbles -> 5 bytes -> padded to 8
  FreeBitmap(&rec);
  GetPalette(nullptr, 0, 1, e);
}

TEST(Storage, EveryKindStoresAsDocumented) {
  // Pixel (1, 0) of a 3 x 2 bitmap set through the kit must land at the
  // documented bytes of stored row 0 (top-first) or stored row 1 (bottom-first).
  struct Case {
    Format format;
    kit::Pixel pixel;
    std::vector<uint8_t> row;  // first stored bytes of the pixel's row
  } cases[] = {
      {{1, ORDER_BGR}, kit::Level(1), {0x40}},
      {{2, ORDER_BGR}, kit::Level(2), {0x20}},
      {{4, ORDER_BGR}, kit::Level(9), {0x09}},
      {{8, ORDER_BGR}, kit::Level(200), {0, 200, 0}},
      {{8, ORDER_GRAY}, kit::Level(77), {0, 77}},
      {{12, ORDER_GRAY}, kit::Level(4095), {0, 0, 0xFF, 0x0F}},
      {{16, ORDER_GRAY}, kit::Level(0x1234), {0, 0, 0x34, 0x12}},
      {{16, ORDER_BGR}, kit::Rgb(31, 1, 2), {0, 0, 0x22, 0x7C}},
      {{24, ORDER_BGR}, kit::Rgb(1, 2, 3), {0, 0, 0, 3, 2, 1}},
      {{24, ORDER_RGB}, kit::Rgb(1, 2, 3), {0, 0, 0, 1, 2, 3}},
      {{32, ORDER_BGR}, kit::Rgb(1, 2, 3, 4), {0, 0, 0, 0, 3, 2, 1, 4}},
      {{48, ORDER_BGR}, kit::Rgb(0x102, 0x304, 0x506), {0, 0, 0, 0, 0, 0, 6, 5, 4, 3, 2, 1}},
      {{64, ORDER_RGB}, kit::Rgb(1, 2, 3, 0xFFFF), {0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 2, 0, 3, 0, 0xFF, 0xFF}},
  };
  for (const Case &c : cases) {
    for (int32_t orientation : {ORIENT_TOP_FIRST, ORIENT_BOTTOM_FIRST}) {
      Format format = c.format;
      format.orientation = orientation;
      SCOPED_TRACE(format.Name());
      kit::LeakGuard guard;
      Bitmap bmp(format, 3, 2);
      EXPECT_EQ(bmp->BytesPerLine % 4, 0u);
      bmp.Set(1, 0, c.pixel);
      std::vector<uint8_t> stored(bmp->BytesPerLine);
      const int32_t storedRow = orientation == ORIENT_TOP_FIRST ? 0 : 1;
      ASSERT_EQ(GetBitmapRow(bmp, stored.data(), storedRow, bmp->BytesPerLine),
                static_cast<int32_t>(bmp->BytesPerLine));
      EXPECT_TRUE(std::equal(c.row.begin(), c.row.end(), stored.begin()));
      EXPECT_EQ(bmp.At(1, 0), c.pixel);
      // PutBitmapRow writes the other stored row; the pixel moves with it.
      ASSERT_GT(PutBitmapRow(bmp, stored.data(), 1 - storedRow, bmp->BytesPerLine), 0);
      EXPECT_EQ(bmp.At(1, 1), c.pixel);
    }
  }
}

TEST(Storage, DataArgumentFillsStoredRows) {
  kit::LeakGuard guard;
  const uint8_t data[8] = {1, 2, 3, 0, 4, 5, 6, 0};
  BitmapRecord rec{};
  ASSERT_EQ(AllocateBitmap(&rec, 208, 1, 1, 2, 24, ORDER_RGB, nullptr, 4, data, sizeof data), RC_SUCCESS);
  uint8_t row[4];
  EXPECT_EQ(GetBitmapRow(&rec, row, 1, 3), 3);
  EXPECT_EQ(row[2], 6);
  EXPECT_EQ(GetBitmapRow(&rec, row, 2, 3), RC_INVALID_PARAMETER);
  EXPECT_EQ(GetBitmapRow(&rec, nullptr, 0, 3), RC_INVALID_PARAMETER);
  FreeBitmap(&rec);
  EXPECT_EQ(GetBitmapRow(&rec, row, 0, 3), RC_NO_BITMAP);
}

TEST(Records, OldRecordSizeIsNeverOverrun) {
  kit::LeakGuard guard;
  // A heap block of exactly 176 bytes: the sanitizer build catches any
  // access past it.
  std::unique_ptr<uint8_t[]> block(new uint8_t[176]);
  auto *rec = reinterpret_cast<BitmapRecord *>(block.get());
  ASSERT_EQ(AllocateBitmap(rec, 176, 1, 4, 4, 8, ORDER_GRAY, nullptr, 1, nullptr, 0), RC_SUCCESS);
  EXPECT_EQ(rec->StructSize, 176u);
  std::unique_ptr<uint8_t[]> copyBlock(new uint8_t[176]);
  auto *copy = reinterpret_cast<BitmapRecord *>(copyBlock.get());
  ASSERT_EQ(CopyBitmap(copy, rec, 176), RC_SUCCESS);
  EXPECT_EQ(UpdateBitmapInfo(copy), RC_SUCCESS);
  EXPECT_EQ(FreeBitmap(copy), RC_SUCCESS);
  EXPECT_EQ(FreeBitmap(rec), RC_SUCCESS);
  EXPECT_EQ(ResetBitmap(rec, 176, 0, 0, 0), RC_SUCCESS);
  EXPECT_EQ(rec->Pixels, nullptr);
  EXPECT_EQ(rec->SignificantHighBit, -1);
}

TEST(Records, CopyIsDeepAndFreeReleasesEverything) {
  kit::LeakGuard guard;
  Bitmap src(Format{8, ORDER_GRAY}, 4, 3);
  src.Randomize(3);
  src->AttachedLut = static_cast<int32_t *>(AllocZeroed(256, 4, __LINE__, kSourceFile));
  src->AttachedLutLength = 256;
  src->AttachedLut[9] = 99;
  src->Flags |= BITMAP_USE_ATTACHED_LUT;
  kit::SetRectRegion(src, 1, 1, 3, 2);
  BitmapRecord dst{};
  ASSERT_EQ(CopyBitmap(&dst, src, 208), RC_SUCCESS);
  EXPECT_NE(dst.Pixels, src->Pixels);
  EXPECT_NE(dst.AttachedLut, src->AttachedLut);
  EXPECT_NE(dst.Region, src->Region);
  EXPECT_EQ(dst.AttachedLut[9], 99);
  EXPECT_EQ(std::memcmp(dst.Pixels, src->Pixels, src->DataSize), 0);
  EXPECT_TRUE(BitmapHasRegion(&dst));
  EXPECT_TRUE(IsPointInRegion(&dst, 1, 2));
  EXPECT_FALSE(IsPointInRegion(&dst, 0, 0));
  dst.Pixels[0] ^= 0xFF;
  EXPECT_NE(dst.Pixels[0], src->Pixels[0]);
  FreeBitmap(&dst);
  EXPECT_EQ(dst.Region, nullptr);
  EXPECT_EQ(dst.AttachedLut, nullptr);
}

TEST(Records, CopyAndAllocateSurviveAllocationFailure) {
  kit::CheckAllocationFailures(
      [] {
        auto b = std::make_unique<Bitmap>(Format{8, ORDER_BGR}, 5, 5);
        kit::SetRectRegion(b->get(), 0, 0, 2, 2);
        return b;
      },
      [](std::unique_ptr<Bitmap> &b) {
        BitmapRecord copy{};
        const int32_t status = CopyBitmap(&copy, b->get(), 208);
        if (status == RC_SUCCESS)
          FreeBitmap(&copy);
        else
          EXPECT_EQ(copy.Pixels, nullptr);
        return status;
      });
  kit::CheckAllocationFailures([] { return 0; },
                               [](int &) {
                                 BitmapRecord rec{};
                                 const int32_t status =
                                     AllocateBitmap(&rec, 208, 1, 4, 4, 8, ORDER_BGR, nullptr, 1, nullptr, 0);
                                 if (status == RC_SUCCESS) FreeBitmap(&rec);
                                 return status;
                               });
}

TEST(Records, HeaderResetAccessAndUpdate) {
  BitmapRecord rec;
  std::memset(&rec, 0x5A, sizeof rec);
  ASSERT_EQ(InitBitmapHeader(&rec, 208, 10, 3, 24), RC_SUCCESS);
  EXPECT_EQ(rec.BytesPerLine, 32u);
  EXPECT_EQ(rec.Pixels, nullptr);
  EXPECT_EQ(rec.Flags, 0u);
  EXPECT_EQ(InitBitmapHeader(&rec, 208, 10, 3, 12), RC_SUCCESS);
  EXPECT_EQ(rec.ColorOrder, ORDER_GRAY);
  EXPECT_EQ(InitBitmapHeader(&rec, 208, 0, 3, 24), RC_INVALID_PARAMETER);
  EXPECT_EQ(ResetBitmap(&rec, 99, 0, 0, 0), RC_INVALID_STRUCT_SIZE);
  kit::LeakGuard guard;
  Bitmap bmp(Format{24, ORDER_BGR}, 2, 2);
  const int32_t token = AccessBitmap(bmp);
  EXPECT_EQ(token, 0);
  EXPECT_EQ(AccessBitmap(bmp), 1);
  EXPECT_EQ(ReleaseBitmap(bmp, 1), RC_SUCCESS);
  EXPECT_EQ(ReleaseBitmap(bmp, token), RC_SUCCESS);
  EXPECT_EQ(bmp->AccessCount, 0);
  const uint32_t before = bmp->UpdateCount;
  EXPECT_EQ(UpdateBitmapInfo(bmp), RC_SUCCESS);
  EXPECT_EQ(bmp->UpdateCount, before + 1);
}

TEST(Records, IsGrayBitmapByKind) {
  kit::LeakGuard guard;
  struct Case {
    Format format;
    bool gray;
  } cases[] = {{{8, ORDER_GRAY}, true},  {{12, ORDER_GRAY}, true}, {{16, ORDER_GRAY}, true},
               {{1, ORDER_BGR}, true},   {{4, ORDER_BGR}, true},   {{16, ORDER_BGR}, false},
               {{24, ORDER_BGR}, false}, {{64, ORDER_RGB}, false}};
  for (const Case &c : cases) {
    Bitmap b(c.format, 2, 2);
    EXPECT_EQ(IsGrayBitmap(b) != 0, c.gray) << c.format.Name();
  }
  PaletteEntry pal[2] = {{0, 0, 0, 0}, {0, 0, 255, 0}};
  Bitmap red(Format{1, ORDER_BGR}, 2, 2, pal);
  EXPECT_FALSE(IsGrayBitmap(red));
  red->PaletteFlag = PALETTE_FLAG_NONE;
  EXPECT_TRUE(IsGrayBitmap(red));
  EXPECT_FALSE(IsGrayBitmap(nullptr));
}

TEST(Helpers, MulDivRoundsHalfAwayFromZero) {
  struct Case {
    int32_t a, b, c, expected;
  } cases[] = {{1000, 128, 4000, 32},
               {7, 1, 2, 4},
               {-7, 1, 2, -4},
               {5, 1, -2, -3},
               {1, 1, 3, 0},
               {2, 1, 3, 1},
               {INT32_MAX, 2, 2, INT32_MAX},
               {INT32_MAX, 2, 1, -1},
               {1, 1, 0, -1},
               {-9, -3, 2, 14},
               {0, 5, 7, 0},
               {INT32_MIN, 1, 1, INT32_MIN}};
  for (const Case &c : cases) EXPECT_EQ(MulDiv(c.a, c.b, c.c), c.expected) << c.a << "*" << c.b << "/" << c.c;
  Rect r;
  EXPECT_EQ(SetRect(&r, 1, 2, 3, 4), 1);
  EXPECT_EQ(r.Bottom, 4);
}

TEST(Helpers, KernelSettingsSwapAndRestore) {
  int32_t a = -1, b = -1;
  SwapKernelSettings(0, 0, &a, &b);
  EXPECT_EQ(a, 1);  // each thread starts dithering to the fixed palette
  EXPECT_EQ(b, 1);
  int32_t c = -1, d = -1;
  SwapKernelSettings(a, b, &c, &d);
  EXPECT_EQ(c, 0);
  EXPECT_EQ(d, 0);
}

TEST(Lists, InsertRemoveAndNeverFreePixels) {
  kit::LeakGuard guard;
  Bitmap a(Format{24, ORDER_BGR}, 2, 2), b(Format{8, ORDER_GRAY}, 3, 3);
  BitmapList list = nullptr;
  ASSERT_EQ(CreateBitmapList(&list), RC_SUCCESS);
  for (int i = 0; i < 10; ++i)
    ASSERT_EQ(InsertBitmapListItem(list, -1, i % 2 ? b.get() : a.get()), RC_SUCCESS);
  ASSERT_EQ(InsertBitmapListItem(list, 0, b.get()), RC_SUCCESS);
  EXPECT_EQ(InsertBitmapListItem(list, 12, b.get()), RC_INVALID_PARAMETER);
  uint32_t count = 0;
  GetBitmapListCount(list, &count);
  EXPECT_EQ(count, 11u);
  BitmapRecord item{};
  ASSERT_EQ(GetBitmapListItem(list, 1, &item, 208), RC_SUCCESS);
  EXPECT_EQ(item.Pixels, a->Pixels);
  ASSERT_EQ(RemoveBitmapListItem(list, 0, &item), RC_SUCCESS);
  EXPECT_EQ(item.Pixels, b->Pixels);
  EXPECT_EQ(GetBitmapListItem(list, 10, &item, 208), RC_INVALID_PARAMETER);
  EXPECT_EQ(GetBitmapListItem(list, 0, &item, 100), RC_INVALID_STRUCT_SIZE);
  ASSERT_EQ(DestroyBitmapList(list), RC_SUCCESS);
  EXPECT_EQ(a->Flags & BITMAP_ALLOCATED, BITMAP_ALLOCATED);  // pixels untouched
  kit::CheckAllocationFailures([] { return 0; },
                               [&](int &) {
                                 BitmapList l = nullptr;
                                 int32_t status = CreateBitmapList(&l);
                                 for (int i = 0; status == RC_SUCCESS && i < 9; ++i)
                                   status = InsertBitmapListItem(l, -1, a.get());
                                 if (l) DestroyBitmapList(l);
                                 return status;
                               });
}
