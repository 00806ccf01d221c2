// What asks a program to stop: Ctrl-C, a closed terminal, the system.
#pragma once

namespace compat {

// While one lives, Ctrl-C calls `handle` and does nothing else; a read from the
// terminal that waits returns. `handle` runs in a signal handler or on a thread of
// the system's: let it set a flag. One at a time.
class InterruptHandler {
 public:
  explicit InterruptHandler(void (*handle)());
  ~InterruptHandler();
  InterruptHandler(const InterruptHandler&) = delete;
  InterruptHandler& operator=(const InterruptHandler&) = delete;
};

// While one lives, all that would end the process from outside calls `handle`
// instead, except what the program was started to ignore. A file that outgrows
// the process's limit becomes an error of the write. One at a time. Windows ends
// the process five seconds after its console was closed, whatever it does.
class StopHandler {
 public:
  explicit StopHandler(void (*handle)());
  ~StopHandler();
  StopHandler(const StopHandler&) = delete;
  StopHandler& operator=(const StopHandler&) = delete;
};

}  // namespace compat
