// SPDX-License-Identifier: Apache-2.0
// Requests to stop: Ctrl-C, a closed terminal, the system.
#pragma once

namespace zemtool {

// While one lives, Ctrl-C calls `handle` and does nothing else. A read that waits for the
// terminal returns. `handle` runs in a signal handler or on a thread of the system, so it
// should only set a flag. One at a time.
class InterruptHandler {
 public:
  explicit InterruptHandler(void (*handle)());
  ~InterruptHandler();
  InterruptHandler(const InterruptHandler&) = delete;
  InterruptHandler& operator=(const InterruptHandler&) = delete;
};

// While one lives, a request that would end the process calls `handle` instead, unless the
// program was started to ignore it. A file that outgrows the process's limit becomes an error
// of the write. Windows still ends the process five seconds after its console was closed. One
// at a time.
class StopHandler {
 public:
  explicit StopHandler(void (*handle)());
  ~StopHandler();
  StopHandler(const StopHandler&) = delete;
  StopHandler& operator=(const StopHandler&) = delete;
};

}  // namespace zemtool
