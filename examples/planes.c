/*
 * planes: splits a colour image into hue, saturation and value planes (one
 * 8-bit gray bitmap each), writes the value plane as a PGM file, clears the
 * saturation plane and merges the planes back: every pixel comes back gray.
 *
 *   planes [DIR]    writes DIR/value.pgm
 *
 * Exits 0 when the merged image is gray everywhere.
 */
#include <imgcolor.h>
#include <stdio.h>

/* The bytes of image row y (0 = top) of a bitmap in either orientation. */
static uint8_t *image_row(const BitmapRecord *bmp, int32_t y) {
  const int32_t stored = bmp->Orientation == ORIENT_BOTTOM_FIRST ? bmp->Height - 1 - y : y;
  return bmp->Pixels + (size_t)stored * bmp->BytesPerLine;
}

int main(int argc, char **argv) {
  const char *dir = argc > 1 ? argv[1] : ".";
  char path[1024];
  BitmapRecord image = {0}, merged = {0};
  BitmapRecord plane[3] = {{0}, {0}, {0}};
  BitmapRecord *planes[3] = {&plane[0], &plane[1], &plane[2]};
  int32_t status, x, y, gray = 1;
  FILE *f;

  if (AllocateBitmap(&image, sizeof image, MEMORY_CONVENTIONAL, 64, 48, 24, ORDER_BGR, NULL, ORIENT_TOP_FIRST,
                     NULL, 0) != RC_SUCCESS)
    return 1;
  for (y = 0; y < image.Height; ++y) { /* some colours: blue, green, red bytes */
    uint8_t *row = image_row(&image, y);
    for (x = 0; x < image.Width; ++x) {
      row[3 * x] = (uint8_t)(x * 4);
      row[3 * x + 1] = (uint8_t)(y * 5);
      row[3 * x + 2] = (uint8_t)(255 - x * 2);
    }
  }

  /* HSV planes (COLORSEP_MODEL3): plane 0 hue, 1 saturation, 2 value. The
   * library fills the three records; we free them. */
  status = Q_ColorSeparateBitmap(&image, planes, sizeof plane[0], COLORSEP_MODEL3);
  if (status != RC_SUCCESS) {
    fprintf(stderr, "separate: %s\n", Q_StatusName(status));
    return 2;
  }
  snprintf(path, sizeof path, "%s/value.pgm", dir);
  f = fopen(path, "wb");
  if (!f) return 3;
  fprintf(f, "P5\n%d %d\n255\n", (int)plane[2].Width, (int)plane[2].Height);
  for (y = 0; y < plane[2].Height; ++y) fwrite(image_row(&plane[2], y), 1, (size_t)plane[2].Width, f);
  fclose(f);

  /* No saturation: FillBitmap sets every pixel of the plane to gray level 0. */
  status = FillBitmap(&plane[1], 0);
  /* Merging builds a new 24-bit bitmap in `merged` from the three planes. */
  if (status == RC_SUCCESS) status = Q_ColorMergeBitmap(&merged, planes, sizeof plane[0], COLORSEP_MODEL3);
  if (status != RC_SUCCESS) {
    fprintf(stderr, "merge: %s\n", Q_StatusName(status));
    return 4;
  }
  for (y = 0; y < merged.Height; ++y) {
    const uint8_t *row = image_row(&merged, y);
    for (x = 0; x < merged.Width; ++x)
      if (row[3 * x] != row[3 * x + 1] || row[3 * x + 1] != row[3 * x + 2]) gray = 0;
  }
  FreeBitmap(&merged);
  for (x = 0; x < 3; ++x) FreeBitmap(&plane[x]);
  FreeBitmap(&image);
  printf("planes: %s\n", gray ? "ok" : "a merged pixel has colour");
  return gray ? 0 : 5;
}
