// SPDX-License-Identifier: Apache-2.0
// Events on their way from the engine's thread to a thread that asks for them.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>

#include "libzem/event.h"

namespace zem::boundary {

// Holds a bounded number of bytes. Any thread.
class EventQueue {
 public:
  explicit EventQueue(size_t mostBytes) : mostBytes_(mostBytes) {}

  // Puts an event behind the others or joins it to the last one. False: there is no room, and
  // the event is dropped. Throws std::bad_alloc.
  bool push(Event event);

  // The last event, for which there always is room. The first one counts.
  void finish(Event end) noexcept;

  enum class Taken : uint8_t { Event, Timeout, Finished, Busy, Closed };
  // Waits for an event, which lives until the next call; Busy while another thread waits.
  // ZEM_FOREVER waits without a limit.
  Taken next(uint32_t milliseconds, zem_event& out);

  // Ends every wait, now and later.
  void close();

  size_t mostBytes() const { return mostBytes_; }

 private:
  bool ready() const { return closed_ || !events_.empty() || end_.has_value(); }

  const size_t mostBytes_;
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::deque<Event> events_;  // under the mutex, as what follows
  size_t bytes_ = 0;          // of the events
  std::optional<Event> end_;
  Event taken_;  // its record was given out last
  bool waits_ = false;
  bool finished_ = false;  // the end was taken
  bool closed_ = false;
};

}  // namespace zem::boundary
