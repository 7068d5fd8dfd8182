#include "progress.h"

#include <unistd.h>

#include <cstdio>

namespace imgtool {

ProgressBar::ProgressBar(bool enabled) : enabled_(enabled && ::isatty(STDERR_FILENO)) {
  previous_ = GetStatusCallback(&previousUser_);
  SetStatusCallback(&ProgressBar::Callback, this);
}

ProgressBar::~ProgressBar() {
  Finish();
  SetStatusCallback(previous_, previousUser_);
}

void ProgressBar::Format(int32_t percent, char (&text)[32]) {
  if (percent < 0) percent = 0;
  if (percent > 100) percent = 100;
  const int32_t filled = percent / 10;
  int32_t n = 0;
  text[n++] = '[';
  for (int32_t i = 0; i < 10; ++i) text[n++] = i < filled ? '#' : '.';
  std::snprintf(text + n, sizeof text - n, "] %3d%%", static_cast<int>(percent));
}

int32_t ProgressBar::Callback(int32_t percent, void *user) {
  static_cast<ProgressBar *>(user)->Draw(percent);
  return 1;
}

void ProgressBar::Draw(int32_t percent) {
  if (!enabled_ || percent == last_) return;
  last_ = percent;
  char text[32];
  Format(percent, text);
  std::fprintf(stderr, "\r%s", text);
  std::fflush(stderr);
  drawn_ = true;
}

void ProgressBar::Finish() {
  if (drawn_) std::fputc('\n', stderr);
  drawn_ = false;
  last_ = -1;
}

}  // namespace imgtool
