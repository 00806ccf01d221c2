// What commands that write for minutes share: an end on demand that leaves
// nothing behind, and a sign of life.
#pragma once

#include <array>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>

namespace zemtool {

// While one lives, the signals that would end the process are noted instead, so
// that the partial file can be removed first. A file that outgrows the process's
// limit becomes an error of the write. Signals that the caller had switched off
// stay so. One at a time.
class StopGuard {
 public:
  StopGuard();
  ~StopGuard();
  StopGuard(const StopGuard&) = delete;
  StopGuard& operator=(const StopGuard&) = delete;

  static bool stopped();  // such a signal has come

 private:
  static constexpr std::array<int, 4> kSignals = {SIGINT, SIGTERM, SIGHUP, SIGXFSZ};
  std::array<struct sigaction, kSignals.size()> previous_{};
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
