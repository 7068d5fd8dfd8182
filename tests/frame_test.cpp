// The shared entry checks.
#include "frame.h"

#include <cstring>
#include <functional>
#include <iterator>
#include <set>
#include <string>

#include "kit.h"

using kit::Bitmap;
using kit::Format;

TEST(EntryFrame, ChecksRunInOrder) {
  kit::LeakGuard guard;
  Bitmap color(Format{24, ORDER_BGR}, 2, 2);
  Bitmap gray32(Format{32, ORDER_GRAY}, 2, 2);
  Bitmap old(Format{24, ORDER_BGR, ORIENT_TOP_FIRST, 176}, 2, 2);
  Bitmap sgn(Format{8, ORDER_GRAY}, 2, 2);
  sgn->Flags |= BITMAP_SIGNED;
  BitmapRecord badSize = *color.get();
  badSize.StructSize = 200;
  BitmapRecord zeroSize = *color.get();
  zeroSize.StructSize = 0;
  Bitmap unallocated(Format{24, ORDER_BGR}, 2, 2);
  unallocated->Flags &= ~BITMAP_ALLOCATED;
  const img::EntryRule all{.signedData = true};
  const img::EntryRule lut{.nullBitmap = img::NullBitmap::Passed};
  const img::EntryRule noFlags{.flagsWord = false};
  const img::EntryRule late{.nullBitmap = img::NullBitmap::AfterFrame, .nullStatus = RC_INVALID_PARAMETER};
  const img::EntryRule hue{.nullBitmap = img::NullBitmap::RefusedUnallocated};
  const img::EntryRule pixels{.pixels = true, .gray32 = false};
  std::vector<kit::StatusCase> cases = {
      {"flags before null", [&] { return img::CheckEntry(all, 1, nullptr); }, RC_INVALID_PARAMETER},
      {"null bitmap", [&] { return img::CheckEntry(all, 0, nullptr); }, RC_NO_BITMAP},
      {"null passes without the null check", [&] { return img::CheckEntry(lut, 0, nullptr); }, 0},
      {"null after the frame, own status", [&] { return img::CheckEntry(late, 0, nullptr); },
       RC_INVALID_PARAMETER},
      {"size before a late null check", [&] { return img::CheckEntry(late, 0, &badSize); },
       RC_INVALID_STRUCT_SIZE},
      {"unallocated like null", [&] { return img::CheckEntry(hue, 0, unallocated); }, RC_NO_BITMAP},
      {"unallocated passes the size rule", [&] { return img::CheckEntry(all, 0, unallocated); }, 0},
      {"no pixels after the size", [&] { return img::CheckEntry(pixels, 0, unallocated); }, RC_NO_BITMAP},
      {"size 200", [&] { return img::CheckEntry(all, 0, &badSize); }, RC_INVALID_STRUCT_SIZE},
      {"size 0", [&] { return img::CheckEntry(all, 0, &zeroSize); }, RC_INVALID_STRUCT_SIZE},
      {"size 176 accepted", [&] { return img::CheckEntry(all, 0, old); }, 0},
      {"gray 32", [&] { return img::CheckEntry(all, 0, gray32); }, RC_GRAY32_NOT_SUPPORTED},
      {"gray 32 allowed", [&] { return img::CheckEntry(pixels, 0, gray32); }, 0},
      {"gray 32 before signed",
       [&] {
         gray32->Flags |= BITMAP_SIGNED;
         return img::CheckEntry(all, 0, gray32);
       },
       RC_GRAY32_NOT_SUPPORTED},
      {"signed refused", [&] { return img::CheckEntry(all, 0, sgn); }, RC_SIGNED_DATA_NOT_SUPPORTED},
      {"signed allowed", [&] { return img::CheckEntry(lut, 0, sgn); }, 0},
      {"flags unchecked", [&] { return img::CheckEntry(noFlags, 7, color); }, 0},
  };
  kit::ExpectStatuses(cases);
  EXPECT_EQ(old->StructSize, 176u);  // stored back unchanged
}

// Every palette path reads ColorsUsed entries only when they fit the palette
// (1 .. 2^BitsPerPixel): any other count is refused with -2 before anything
// is allocated, read or written; palette, pixels and caller arrays stay.
TEST(EntryFrame, PaletteCountOutsideThePaletteIsRefused) {
  std::vector<PaletteEntry> pal(256);
  for (uint32_t i = 0; i < 256; ++i)
    pal[i] = {uint8_t(i * 37 + 5), uint8_t(250 - i * 11), uint8_t(i * 91), 0};
  const uint32_t t[3] = {100, 500, 900};
  const HueSatIntRange band{32, 100, 0, 0, 0, 0, 0, 0};
  std::vector<uint32_t> counts(256, 7);
  const std::function<int32_t(BitmapRecord *)> paths[] = {
      [](BitmapRecord *b) { return Q_DesaturateBitmap(b, 0); },
      [](BitmapRecord *b) { return Q_ChangeBitmapHue(b, 90, 0); },
      [](BitmapRecord *b) { return Q_ChangeBitmapSaturation(b, 300, 0); },
      [](BitmapRecord *b) { return Q_RemapBitmapHue(b, nullptr, nullptr, nullptr, nullptr, 256, 0); },
      [&](BitmapRecord *b) { return Q_ChangeHueSatIntBitmap(b, 9000, 0, 0, &band, 1, 0); },
      [](BitmapRecord *b) { return Q_AdjustBitmapTint(b, 500, 0, 0); },
      [](BitmapRecord *b) { return kit::SetRectRegion(b, 0, 0, 2, 1), Q_AdjustBitmapTint(b, 500, 0, 0); },
      [](BitmapRecord *b) { return Q_GammaCorrectBitmapExt(b, 150, GAMMA_YUV); },  // row converter
      [](BitmapRecord *b) { return Q_IntensityDetectBitmap(b, 0, 99, 0xFF, 0, 0x111, 0); },
      [](BitmapRecord *b) { return Q_InvertBitmap(b, 0); },
      [&](BitmapRecord *b) { return Q_LightControlBitmap(b, t, t, t, 1); },
      [&](BitmapRecord *b) { return Q_GetBitmapHistogram(b, counts.data(), 256, 0); }};
  const std::pair<int32_t, int32_t> broken[] = {{8, INT32_MAX}, {8, 257}, {8, 0}, {8, -1}, {4, 17}, {1, 3}};
  for (size_t k = 0; k < std::size(paths); ++k)
    for (auto [bits, count] : broken) {
      SCOPED_TRACE("path " + std::to_string(k) + ", " + std::to_string(bits) + " bits, " +
                   std::to_string(count));
      kit::LeakGuard guard;
      Bitmap b(Format{bits, ORDER_BGR}, 4, 1, {kit::Level(0), kit::Level(1), kit::Level(1), kit::Level(0)},
               pal.data());
      const std::vector<PaletteEntry> palette(b->Palette, b->Palette + 256);
      const std::vector<uint8_t> stored = b.StoredBytes();
      b->ColorsUsed = count;
      EXPECT_EQ(paths[k](b), RC_NO_BITMAP);
      EXPECT_TRUE(b.StoredBytes() == stored && counts == std::vector<uint32_t>(256, 7));
      EXPECT_EQ(std::memcmp(b->Palette, palette.data(), 256 * sizeof(PaletteEntry)), 0);
      b->ColorsUsed = 1 << bits;
    }
}

TEST(StatusNames, EveryCodeHasItsOwnNameAndMessage) {
  const struct {
    int32_t status;
    const char *name;
  } codes[] = {{RC_SUCCESS, "RC_SUCCESS"},
               {RC_NO_MEMORY, "RC_NO_MEMORY"},
               {RC_NO_BITMAP, "RC_NO_BITMAP"},
               {RC_UNSUPPORTED_BITMAP, "RC_UNSUPPORTED_BITMAP"},
               {RC_INVALID_PARAMETER, "RC_INVALID_PARAMETER"},
               {RC_INVALID_STRUCT_SIZE, "RC_INVALID_STRUCT_SIZE"},
               {RC_NULL_OPTIONS, "RC_NULL_OPTIONS"},
               {RC_SIGNED_DATA_NOT_SUPPORTED, "RC_SIGNED_DATA_NOT_SUPPORTED"},
               {RC_GRAY32_NOT_SUPPORTED, "RC_GRAY32_NOT_SUPPORTED"}};
  std::set<std::string> messages;
  for (const auto &c : codes) {
    EXPECT_STREQ(Q_StatusName(c.status), c.name);
    EXPECT_TRUE(messages.insert(Q_StatusMessage(c.status)).second) << c.name;
  }
  for (int32_t other : {0, 2, -3, -14, INT32_MIN, INT32_MAX}) {
    EXPECT_STREQ(Q_StatusName(other), "RC_UNKNOWN") << other;
    EXPECT_STREQ(Q_StatusMessage(other), "unknown status") << other;
  }
}
