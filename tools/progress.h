// A progress bar on stderr covering a command's phases (reading, the
// operation, writing), driven by the kernel's status callback.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "imgkernel.h"

namespace imgtool {

// While alive, installs itself as the thread's status callback (which always
// answers 1, continue) and restores the previous one afterwards. When enabled
// it draws "[####......]  40% / hue" in place: the percentage of the whole
// command, a spinner that a timer thread turns every 100 ms so that the bar
// moves even while an operation reports no progress, and the phase's name.
class ProgressBar {
 public:
  explicit ProgressBar(bool enabled);
  ~ProgressBar();
  ProgressBar(const ProgressBar &) = delete;
  ProgressBar &operator=(const ProgressBar &) = delete;

  // Starts a phase that fills the bar from `from` to `to` percent; the status
  // callback's 0..100 maps onto that span. The bar never moves back.
  void Phase(const std::string &name, int32_t from, int32_t to);
  // Sets the bar to `percent` (it never moves back) and the phase's name:
  // the batch command's one line over many files, from any thread.
  void Set(int32_t percent, const std::string &name);
  // Prints a line of its own on stderr (an error) above the bar, which is
  // drawn again under it; from any thread.
  void Message(const std::string &line);
  // Draws the full bar and ends its line. Without it (a failed command) the
  // line ends where the bar stopped.
  void Finish();

  // The bar's text for a percentage (clamped to 0..100), a spinner character
  // and a phase name.
  static std::string Format(int32_t percent, char spinner, const std::string &phase);

 private:
  static int32_t Callback(int32_t percent, void *user);
  void Turn();  // the timer thread
  void StopTimer();
  void DrawLocked();

  const bool enabled_;
  StatusCallback previous_ = nullptr;
  void *previousUser_ = nullptr;
  std::mutex mutex_;  // guards everything below and the drawing
  std::condition_variable wake_;
  std::thread timer_;
  bool stop_ = false;
  std::string phase_;
  int32_t from_ = 0, to_ = 0, percent_ = 0;
  uint32_t turns_ = 0;
  size_t width_ = 0;  // length of the last text drawn, to blank its leftovers
  bool drawn_ = false;
};

}  // namespace imgtool
