/*
 * contrast_hue: the first steps with imgcolor. Makes a colour gradient,
 * raises its contrast, turns its hues by a third of the circle and writes the
 * image before and after as PPM files (any image viewer opens them).
 *
 *   contrast_hue [DIR]    writes DIR/gradient.ppm and DIR/adjusted.ppm
 *
 * Exits 0 when every call succeeded and the colours moved as expected.
 */
#include <imgcolor.h>
#include <stdio.h>

/* Writes a 24-bit bitmap as a binary PPM. The bitmap keeps blue, green, red
 * bytes in rows of BytesPerLine bytes (padded to a multiple of 4); PPM wants
 * red, green, blue with no padding. */
static int write_ppm(const BitmapRecord *bmp, const char *dir, const char *name) {
  char path[1024];
  FILE *f;
  int32_t x, y;
  snprintf(path, sizeof path, "%s/%s", dir, name);
  f = fopen(path, "wb");
  if (!f) return 0;
  fprintf(f, "P6\n%d %d\n255\n", (int)bmp->Width, (int)bmp->Height);
  for (y = 0; y < bmp->Height; ++y) { /* ORIENT_TOP_FIRST: stored row 0 is the top */
    const uint8_t *row = bmp->Pixels + (size_t)y * bmp->BytesPerLine;
    for (x = 0; x < bmp->Width; ++x) {
      const uint8_t rgb[3] = {row[3 * x + 2], row[3 * x + 1], row[3 * x]};
      fwrite(rgb, 1, 3, f);
    }
  }
  return fclose(f) == 0;
}

int main(int argc, char **argv) {
  const char *dir = argc > 1 ? argv[1] : ".";
  BitmapRecord bmp = {0};
  int32_t status, x, y;
  const uint8_t *corner;

  /* 96 x 64 pixels, 24 bits a pixel in blue-green-red order, top row first,
   * zeroed pixels. The record is ours; the pixel memory belongs to the
   * library until FreeBitmap. */
  status = AllocateBitmap(&bmp, sizeof bmp, MEMORY_CONVENTIONAL, 96, 64, 24, ORDER_BGR, NULL,
                          ORIENT_TOP_FIRST, NULL, 0);
  if (status != RC_SUCCESS) {
    fprintf(stderr, "AllocateBitmap: %s\n", Q_StatusName(status));
    return 1;
  }
  /* A gradient: red grows to the right, green downwards, a little blue. */
  for (y = 0; y < bmp.Height; ++y) {
    uint8_t *row = bmp.Pixels + (size_t)y * bmp.BytesPerLine;
    for (x = 0; x < bmp.Width; ++x) {
      row[3 * x] = 40;                                            /* blue */
      row[3 * x + 1] = (uint8_t)(y * 255 / (bmp.Height - 1) / 2); /* green */
      row[3 * x + 2] = (uint8_t)(x * 255 / (bmp.Width - 1));      /* red */
    }
  }
  if (!write_ppm(&bmp, dir, "gradient.ppm")) return 2;

  /* Every export returns RC_SUCCESS (1) or a negative status. Contrast is in
   * tenths of a percent: 400 is +40 %. Hue turns in degrees. */
  status = Q_ChangeBitmapContrast(&bmp, 400, 0);
  if (status == RC_SUCCESS) status = Q_ChangeBitmapHue(&bmp, 120, 0);
  if (status != RC_SUCCESS) {
    fprintf(stderr, "adjusting: %s (%s)\n", Q_StatusName(status), Q_StatusMessage(status));
    FreeBitmap(&bmp);
    return 3;
  }
  if (!write_ppm(&bmp, dir, "adjusted.ppm")) return 4;

  /* The top right pixel was red; a third of the circle on, it is green. */
  corner = bmp.Pixels + 3 * (bmp.Width - 1);
  printf("top right pixel now: red %u, green %u, blue %u\n", corner[2], corner[1], corner[0]);
  status = corner[1] > corner[2] && corner[1] > corner[0] ? 0 : 5;
  FreeBitmap(&bmp); /* frees the pixels and palette the library allocated */
  printf("contrast_hue: %s\n", status == 0 ? "ok" : "unexpected colours");
  return status;
}
