// SPDX-License-Identifier: Apache-2.0
#include "console/interrupts.h"

#include <array>
#include <csignal>
#include <cstddef>

namespace zemtool {
namespace {

void (*onInterrupt)() = nullptr;
struct sigaction interruptBefore;

void (*onStop)() = nullptr;
constexpr std::array<int, 4> kStopSignals = {SIGINT, SIGTERM, SIGHUP, SIGXFSZ};
std::array<struct sigaction, kStopSignals.size()> stopBefore;

struct sigaction actionOf(void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;  // a blocked read returns, so that the program can notice
  return action;
}

}  // namespace

InterruptHandler::InterruptHandler(void (*handle)()) {
  onInterrupt = handle;
  const struct sigaction action = actionOf([](int) { onInterrupt(); });
  sigaction(SIGINT, &action, &interruptBefore);
}

InterruptHandler::~InterruptHandler() { sigaction(SIGINT, &interruptBefore, nullptr); }

StopHandler::StopHandler(void (*handle)()) {
  onStop = handle;
  for (size_t i = 0; i < kStopSignals.size(); ++i) {
    const struct sigaction action =
        actionOf(kStopSignals[i] == SIGXFSZ ? SIG_IGN : [](int) { onStop(); });
    sigaction(kStopSignals[i], nullptr, &stopBefore[i]);
    if (stopBefore[i].sa_handler != SIG_IGN) sigaction(kStopSignals[i], &action, nullptr);
  }
}

StopHandler::~StopHandler() {
  for (size_t i = 0; i < kStopSignals.size(); ++i) {
    sigaction(kStopSignals[i], &stopBefore[i], nullptr);
  }
}

}  // namespace zemtool
