// SPDX-License-Identifier: Apache-2.0
#include "console/long_work.h"

#include <cmath>
#include <csignal>
#include <cstdio>
#include <string>

#include "console/terminal.h"
#include "console/text.h"

namespace zemtool {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

volatile std::sig_atomic_t stopRequested = 0;

// Forgets earlier requests, and returns the function that notes the next one.
auto newStopHandler() {
  stopRequested = 0;
  return [] { stopRequested = 1; };
}

constexpr int kWidth = 24;

}  // namespace

StopGuard::StopGuard() : handler_(newStopHandler()) {}

bool StopGuard::stopped() { return stopRequested != 0; }

ProgressBar::ProgressBar(uint64_t total, Lines lines)
    : total_(total),
      terminal_(stderrIsTerminal()),
      shown_(terminal_ || lines == Lines::EveryFiveSeconds),
      next_(start_ + (terminal_ ? milliseconds(300) : seconds(5))) {}

ProgressBar::~ProgressBar() {
  if (terminal_) std::fputs("\r\033[K", stderr);
}

void ProgressBar::update(uint64_t done) {
  const Clock::time_point now = Clock::now();
  if (!shown_ || now < next_) return;
  next_ = now + (terminal_ ? milliseconds(100) : seconds(5));
  const double part = static_cast<double>(done) / static_cast<double>(total_);
  const double elapsed = std::chrono::duration<double>(now - start_).count();
  const auto left = std::lround(elapsed / part * (1 - part));
  const auto rate = static_cast<uint64_t>(static_cast<double>(done) / elapsed);
  const std::string figures = formatBytes(done) + " of " + formatBytes(total_) + ", " +
                              formatBytes(rate) + "/s, " + std::to_string(left / 60) +
                              (left % 60 < 10 ? ":0" : ":") + std::to_string(left % 60) + " left";
  const int percent = static_cast<int>(part * 100);
  if (terminal_) {
    const std::string bar(static_cast<size_t>(part * kWidth), '#');
    std::fprintf(stderr, "\r%3d%% [%-*s] %s\033[K", percent, kWidth, bar.c_str(), figures.c_str());
  } else {
    std::fprintf(stderr, "%3d%% %s\n", percent, figures.c_str());
  }
  std::fflush(stderr);
}

}  // namespace zemtool
