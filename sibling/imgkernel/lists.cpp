// Bitmap lists: growable arrays of record copies. The list never owns the
// listed bitmaps' pixel memory.
#include <cstring>

#include "family.h"

namespace {
static constexpr const wchar_t *kSourceFile = L"imgkernel/lists";
}

struct ImgBitmapList {
  BitmapRecord *items;
  uint32_t count;
  uint32_t capacity;
};

extern "C" {

IMG_API int32_t CreateBitmapList(BitmapList *list) {
  if (!list) return RC_NULL_OPTIONS;
  auto *l = static_cast<ImgBitmapList *>(IMG_ALLOC(1, sizeof(ImgBitmapList)));
  if (!l) return RC_NO_MEMORY;
  *list = l;
  return RC_SUCCESS;
}

IMG_API int32_t DestroyBitmapList(BitmapList list) {
  if (!list) return RC_NULL_OPTIONS;
  if (list->items) IMG_FREE(list->items);
  IMG_FREE(list);
  return RC_SUCCESS;
}

IMG_API int32_t GetBitmapListCount(BitmapList list, uint32_t *count) {
  if (!list || !count) return RC_NULL_OPTIONS;
  *count = list->count;
  return RC_SUCCESS;
}

IMG_API int32_t GetBitmapListItem(BitmapList list, uint32_t index, BitmapRecord *bitmap,
                                  uint32_t structSize) {
  if (!list || !bitmap) return RC_NULL_OPTIONS;
  if (!img::ValidRecordSize(structSize)) return RC_INVALID_STRUCT_SIZE;
  if (index >= list->count) return RC_INVALID_PARAMETER;
  std::memcpy(bitmap, &list->items[index], structSize);
  bitmap->StructSize = structSize;
  return RC_SUCCESS;
}

IMG_API int32_t InsertBitmapListItem(BitmapList list, int32_t index, const BitmapRecord *bitmap) {
  if (!list || !bitmap) return RC_NULL_OPTIONS;
  if (!img::ValidRecordSize(bitmap->StructSize)) return RC_INVALID_STRUCT_SIZE;
  const uint32_t at = index < 0 ? list->count : static_cast<uint32_t>(index);
  if (at > list->count) return RC_INVALID_PARAMETER;
  if (list->count == list->capacity) {
    const uint32_t capacity = list->capacity ? list->capacity * 2 : 8;
    auto *items = static_cast<BitmapRecord *>(IMG_ALLOC(capacity, sizeof(BitmapRecord)));
    if (!items) return RC_NO_MEMORY;
    if (list->items) {
      std::memcpy(items, list->items, sizeof(BitmapRecord) * list->count);
      IMG_FREE(list->items);
    }
    list->items = items;
    list->capacity = capacity;
  }
  std::memmove(&list->items[at + 1], &list->items[at], sizeof(BitmapRecord) * (list->count - at));
  std::memset(&list->items[at], 0, sizeof(BitmapRecord));
  std::memcpy(&list->items[at], bitmap, bitmap->StructSize);
  list->items[at].StructSize = BITMAP_RECORD_SIZE;
  list->count++;
  return RC_SUCCESS;
}

IMG_API int32_t RemoveBitmapListItem(BitmapList list, uint32_t index, BitmapRecord *bitmap) {
  if (!list) return RC_NULL_OPTIONS;
  if (index >= list->count) return RC_INVALID_PARAMETER;
  if (bitmap) std::memcpy(bitmap, &list->items[index], sizeof(BitmapRecord));
  std::memmove(&list->items[index], &list->items[index + 1],
               sizeof(BitmapRecord) * (list->count - index - 1));
  list->count--;
  return RC_SUCCESS;
}

}  // extern "C"
