// The shared entry checks.
#include "frame.h"

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
  const img::EntryChecks all{true, true, true};
  const img::EntryChecks lut{true, false, false};
  const img::EntryChecks noFlags{false, true, false};
  std::vector<kit::StatusCase> cases = {
      {"flags before null", [&] { return img::CheckEntry(all, 1, nullptr); }, RC_INVALID_PARAMETER},
      {"null bitmap", [&] { return img::CheckEntry(all, 0, nullptr); }, RC_NO_BITMAP},
      {"null passes without the null check", [&] { return img::CheckEntry(lut, 0, nullptr); }, 0},
      {"size 200", [&] { return img::CheckEntry(all, 0, &badSize); }, RC_INVALID_STRUCT_SIZE},
      {"size 0", [&] { return img::CheckEntry(all, 0, &zeroSize); }, RC_INVALID_STRUCT_SIZE},
      {"size 176 accepted", [&] { return img::CheckEntry(all, 0, old); }, 0},
      {"gray 32", [&] { return img::CheckEntry(all, 0, gray32); }, RC_GRAY32_NOT_SUPPORTED},
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
