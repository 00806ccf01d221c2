// SPDX-License-Identifier: Apache-2.0
#include "console/interrupts.h"

#include <windows.h>

#include <atomic>

namespace zemtool {
namespace {

std::atomic<void (*)()> onInterrupt{nullptr};
std::atomic<void (*)()> onStop{nullptr};

BOOL WINAPI interrupted(DWORD event) {
  if (event != CTRL_C_EVENT) return FALSE;
  onInterrupt.load()();
  return TRUE;
}

BOOL WINAPI stopped(DWORD event) {
  onStop.load()();
  // Returning would end the process now. Waiting lets main() end it.
  if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) Sleep(INFINITE);
  return TRUE;
}

}  // namespace

InterruptHandler::InterruptHandler(void (*handle)()) {
  onInterrupt = handle;
  SetConsoleCtrlHandler(interrupted, TRUE);
}

InterruptHandler::~InterruptHandler() { SetConsoleCtrlHandler(interrupted, FALSE); }

StopHandler::StopHandler(void (*handle)()) {
  onStop = handle;
  SetConsoleCtrlHandler(stopped, TRUE);
}

StopHandler::~StopHandler() { SetConsoleCtrlHandler(stopped, FALSE); }

}  // namespace zemtool
