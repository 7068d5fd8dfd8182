/* Compiled as strict C99: the family's headers and a few calls through the
 * shared libraries. */
#include <stdio.h>
#include <string.h>

#include "imgcolor.h"
#include "imgplatform.h"

typedef char record_is_208_bytes[sizeof(BitmapRecord) == 208 ? 1 : -1];

int main(void) {
  BitmapRecord bmp;
  Rect rc;
  RowConverter conv = NULL;
  uint8_t *row;
  int32_t status;
  memset(&bmp, 0, sizeof bmp);
  status = AllocateBitmap(&bmp, sizeof bmp, MEMORY_CONVENTIONAL, 8, 4, 24, ORDER_BGR, NULL, ORIENT_TOP_FIRST,
                          NULL, 0);
  if (status != RC_SUCCESS) {
    printf("AllocateBitmap: %d\n", (int)status);
    return 1;
  }
  SetRect(&rc, 2, 1, 6, 3);
  if (SetBitmapRegionRect(&bmp, &rc, REGION_SET) != RC_SUCCESS || !BitmapHasRegion(&bmp)) return 2;
  if (CreateRowConverter(&bmp, &conv, ROW_LAYOUT_NATIVE) != RC_SUCCESS) return 3;
  row = (uint8_t *)AllocRowBuffer(conv);
  if (row == NULL || BeginRegion(conv) != RC_SUCCESS) return 4;
  if (ReadRow(conv, row, 1, NULL, NULL) != RC_SUCCESS) return 5;
  memset(row, 200, (size_t)PrepareRowConverter(conv));
  if (WriteRow(conv, row, 1, NULL, NULL) != RC_SUCCESS) return 6;
  FreeMemory(row, __LINE__, L"tests/c_headers");
  FreeRowConverter(conv);
  {
    uint8_t stored[32];
    GetBitmapRow(&bmp, stored, 1, sizeof stored);
    if (stored[0] != 0 || stored[6] != 200 || stored[17] != 200 || stored[18] != 0) return 7;
  }
  FreeBitmap(&bmp);
  printf("C99 headers: ok\n");
  return 0;
}
