// SPDX-License-Identifier: Apache-2.0
#include "console/progress_line.h"

#include <unistd.h>

#include <csignal>
#include <cstdio>

#include "console/terminal.h"

namespace zemtool {
namespace {

constexpr char kErase[] = "\r\033[K";

void eraseAndEnd(int signalNumber) {
  // Nothing can be done about an error here.
  [[maybe_unused]] const auto written = write(STDERR_FILENO, kErase, sizeof kErase - 1);
  std::signal(signalNumber, SIG_DFL);
  std::raise(signalNumber);
}

// Returns what was there before. A signal that the caller had switched off stays so.
ProgressLine::Handler eraseBefore(int signalNumber) {
  const ProgressLine::Handler before = std::signal(signalNumber, eraseAndEnd);
  if (before == SIG_IGN) std::signal(signalNumber, SIG_IGN);
  return before;
}

}  // namespace

ProgressLine::ProgressLine() : shown_(stderrIsTerminal()) {
  if (!shown_) return;
  interrupt_ = eraseBefore(SIGINT);
  terminate_ = eraseBefore(SIGTERM);
}

ProgressLine::~ProgressLine() {
  if (!shown_) return;
  clear();
  std::signal(SIGINT, interrupt_);
  std::signal(SIGTERM, terminate_);
}

void ProgressLine::show(const std::string& text) const {
  if (!shown_) return;
  std::fprintf(stderr, "\r%s\033[K", text.c_str());
  std::fflush(stderr);
}

void ProgressLine::clear() const { show(""); }

}  // namespace zemtool
