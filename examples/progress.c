/*
 * progress: shows a progress bar while an operation runs, then cancels a
 * second run half way. Progress arrives through the status callback of the
 * calling thread: the library calls it with a percentage, and any answer
 * other than 1 stops the operation, which then returns that answer.
 *
 *   progress        prints the bars on standard error
 *
 * Exits 0 when the first run reached 100 % and the second stopped with our
 * answer.
 */
#include <imgcolor.h>
#include <stdio.h>

#define STOPPED (-100) /* our own answer: any value but 1 stops the work */

struct bar {
  int32_t last;   /* the last percentage seen */
  int32_t stopAt; /* stop at this percentage or later; above 100: never */
};

/* Draws the bar; userData is the pointer given to SetStatusCallback. */
static int32_t on_progress(int32_t percent, void *userData) {
  struct bar *bar = (struct bar *)userData;
  int i;
  bar->last = percent;
  fprintf(stderr, "\r[");
  for (i = 0; i < 40; ++i) fputc(i < percent * 40 / 100 ? '#' : ' ', stderr);
  fprintf(stderr, "] %3d%%", (int)percent);
  if (percent >= bar->stopAt) {
    fprintf(stderr, " cancelled\n");
    return STOPPED;
  }
  if (percent == 100) fputc('\n', stderr);
  return RC_SUCCESS;
}

int main(void) {
  BitmapRecord bmp = {0};
  struct bar bar = {-1, 1000};
  int32_t first, second;
  const ColorReplaceEntry orange = {0, 0x2080F0, 9000}; /* red F0, green 80, blue 20 */

  if (AllocateBitmap(&bmp, sizeof bmp, MEMORY_CONVENTIONAL, 400, 300, 24, ORDER_BGR, NULL, ORIENT_TOP_FIRST,
                     NULL, 0) != RC_SUCCESS)
    return 1;
  SetStatusCallback(on_progress, &bar);
  /* Colour replace reports 0..100 % over the rows: shift the hue of the
   * colours near orange by 30 degrees (hundredths of a degree). */
  first = Q_ColorReplaceBitmap(&bmp, &orange, 1, 3000, 0, 0, 0);
  bar.last = -1;
  bar.stopAt = 50;
  second = Q_ColorReplaceBitmap(&bmp, &orange, 1, 3000, 0, 0, 0);
  SetStatusCallback(NULL, NULL); /* no callback any more on this thread */
  FreeBitmap(&bmp);
  printf("first run: %s; second run: %d at %d %%\n", Q_StatusName(first), (int)second, (int)bar.last);
  if (first != RC_SUCCESS || second != STOPPED || bar.last < 50 || bar.last == 100) return 2;
  printf("progress: ok\n");
  return 0;
}
