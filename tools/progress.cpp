#include "progress.h"

#include <chrono>
#include <cstdio>

namespace imgtool {

namespace {
constexpr auto kTurnInterval = std::chrono::milliseconds(100);
constexpr char kSpinner[] = {'|', '/', '-', '\\'};
}  // namespace

ProgressBar::ProgressBar(bool enabled) : enabled_(enabled) {
  previous_ = GetStatusCallback(&previousUser_);
  SetStatusCallback(&ProgressBar::Callback, this);
  if (enabled_) timer_ = std::thread(&ProgressBar::Turn, this);
}

ProgressBar::~ProgressBar() {
  StopTimer();
  SetStatusCallback(previous_, previousUser_);
  if (drawn_) std::fputc('\n', stderr);
}

std::string ProgressBar::Format(int32_t percent, char spinner, const std::string &phase) {
  if (percent < 0) percent = 0;
  if (percent > 100) percent = 100;
  std::string text = "[";
  for (int32_t i = 0; i < 10; ++i) text += i < percent / 10 ? '#' : '.';
  char number[8];
  std::snprintf(number, sizeof number, "] %3d%%", static_cast<int>(percent));
  return text + number + ' ' + spinner + ' ' + phase;
}

void ProgressBar::Phase(const std::string &name, int32_t from, int32_t to) {
  std::lock_guard<std::mutex> lock(mutex_);
  phase_ = name;
  from_ = from;
  to_ = to;
  if (percent_ < from) percent_ = from;
  DrawLocked();
}

void ProgressBar::Set(int32_t percent, const std::string &name) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (percent <= percent_ && name == phase_) return;
  if (percent > percent_) percent_ = percent;
  phase_ = name;
  DrawLocked();
}

void ProgressBar::Message(const std::string &line) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (drawn_) std::fprintf(stderr, "\r%*s\r", static_cast<int>(width_), "");
  std::fprintf(stderr, "%s\n", line.c_str());
  width_ = 0;
  drawn_ = false;
  DrawLocked();
}

void ProgressBar::Finish() {
  StopTimer();
  std::lock_guard<std::mutex> lock(mutex_);
  percent_ = 100;
  phase_ = "done";
  DrawLocked();
  if (drawn_) std::fputc('\n', stderr);
  drawn_ = false;
}

int32_t ProgressBar::Callback(int32_t percent, void *user) {
  auto *bar = static_cast<ProgressBar *>(user);
  if (!bar->enabled_) return 1;
  if (percent < 0) percent = 0;
  if (percent > 100) percent = 100;
  std::lock_guard<std::mutex> lock(bar->mutex_);
  const int32_t overall = bar->from_ + percent * (bar->to_ - bar->from_) / 100;
  if (overall > bar->percent_) {
    bar->percent_ = overall;
    bar->DrawLocked();
  }
  return 1;
}

void ProgressBar::Turn() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!wake_.wait_for(lock, kTurnInterval, [this] { return stop_; })) {
    ++turns_;
    DrawLocked();
  }
}

void ProgressBar::StopTimer() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
  }
  wake_.notify_all();
  if (timer_.joinable()) timer_.join();
}

void ProgressBar::DrawLocked() {
  if (!enabled_ || phase_.empty()) return;
  const std::string text = Format(percent_, kSpinner[turns_ % sizeof kSpinner], phase_);
  const size_t blank = width_ > text.size() ? width_ - text.size() : 0;
  std::fprintf(stderr, "\r%s%*s", text.c_str(), static_cast<int>(blank), "");
  std::fflush(stderr);
  width_ = text.size();
  drawn_ = true;
}

}  // namespace imgtool
