// What commands that write for minutes share: an end on demand that leaves
// nothing behind, and a sign of life.
#pragma once

#include <chrono>
#include <cstdint>

#include "console/interrupts.h"

namespace zemtool {

// While one lives, what would end the process from outside is noted instead, so
// that the partial file can be removed first. A file that outgrows the process's
// limit becomes an error of the write. One at a time.
class StopGuard {
 public:
  StopGuard();

  static bool stopped();  // such a wish has come

 private:
  compat::StopHandler handler_;
};

// A bar on stderr while a file grows, with rate and time left. Where stderr is no
// terminal, a line every five seconds, or nothing.
class ProgressBar {
 public:
  enum class Lines { None, EveryFiveSeconds };

  ProgressBar(uint64_t total, Lines lines);
  ~ProgressBar();
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  void update(uint64_t done);  // bytes

 private:
  using Clock = std::chrono::steady_clock;

  uint64_t total_;
  bool terminal_;
  bool shown_;
  Clock::time_point start_ = Clock::now();
  Clock::time_point next_;
};

}  // namespace zemtool
