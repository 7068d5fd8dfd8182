#include <imgcolor.h>
#include <stdio.h>
int main(void) {
  BitmapRecord b = {0};
  if (AllocateBitmap(&b, sizeof b, 1, 4, 4, 24, ORDER_BGR, NULL, 1, NULL, 0) != 1) return 1;
  int s = Q_InvertBitmap(&b, 0);
  printf("invert: %d, first byte %u\n", s, b.Pixels[0]);
  FreeBitmap(&b);
  return s == 1 ? 0 : 1;
}
