// SPDX-License-Identifier: Apache-2.0
// For commands that write for minutes: stopping them cleanly, and showing their progress.
#pragma once

#include <chrono>
#include <cstdint>

#include "console/interrupts.h"

namespace zemtool {

// While one lives, a request that would end the process is only noted, so that the command
// can remove its partial file first. A file that outgrows the process's limit becomes an error
// of the write. One at a time.
class StopGuard {
 public:
  StopGuard();

  static bool stopped();  // a request has come

 private:
  StopHandler handler_;
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
