// A progress bar on stderr driven by the kernel's status callback.
#pragma once

#include <cstdint>

#include "imgkernel.h"

namespace imgtool {

// While alive, installs itself as the thread's status callback and restores
// the previous one afterwards. Draws "[#####.....]  45%" in place when
// enabled and stderr is a terminal; otherwise draws nothing, so that logs
// stay clean. The callback always answers 1 (continue).
class ProgressBar {
 public:
  explicit ProgressBar(bool enabled);
  ~ProgressBar();
  ProgressBar(const ProgressBar &) = delete;
  ProgressBar &operator=(const ProgressBar &) = delete;

  // Ends the bar's line (if one was drawn) so that later output starts fresh.
  void Finish();

  // The bar's text for a percentage, clamped to 0..100.
  static void Format(int32_t percent, char (&text)[32]);

 private:
  static int32_t Callback(int32_t percent, void *user);
  void Draw(int32_t percent);

  bool enabled_;
  bool drawn_ = false;
  int32_t last_ = -1;
  StatusCallback previous_ = nullptr;
  void *previousUser_ = nullptr;
};

}  // namespace imgtool
