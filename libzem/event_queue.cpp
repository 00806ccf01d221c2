// SPDX-License-Identifier: Apache-2.0
#include "libzem/event_queue.h"

#include <chrono>
#include <utility>

namespace zem::boundary {

bool EventQueue::push(Event event) {
  {
    const std::lock_guard lock(mutex_);
    const size_t added = event.bytes();
    if (bytes_ + added > mostBytes_) return false;
    const size_t before = events_.empty() ? 0 : events_.back().bytes();
    if (!events_.empty() && events_.back().join(event)) {
      bytes_ += events_.back().bytes() - before;
    } else {
      events_.push_back(std::move(event));
      bytes_ += added;
    }
  }
  arrived_.notify_all();
  return true;
}

void EventQueue::finish(Event end) noexcept {
  {
    const std::lock_guard lock(mutex_);
    if (!end_ && !finished_) end_ = std::move(end);
  }
  arrived_.notify_all();
}

EventQueue::Taken EventQueue::next(uint32_t milliseconds, zem_event& out) {
  std::unique_lock lock(mutex_);
  if (waits_) return Taken::Busy;
  if (finished_) return Taken::Finished;
  waits_ = true;
  if (milliseconds == ZEM_FOREVER) {
    arrived_.wait(lock, [&] { return ready(); });
  } else {
    arrived_.wait_for(lock, std::chrono::milliseconds(milliseconds), [&] { return ready(); });
  }
  waits_ = false;
  if (closed_) return Taken::Closed;
  if (!ready()) return Taken::Timeout;
  if (!events_.empty()) {
    taken_ = std::move(events_.front());
    events_.pop_front();
    bytes_ -= taken_.bytes();
  } else {
    taken_ = *std::exchange(end_, std::nullopt);
    finished_ = true;
  }
  out = taken_.record();
  return Taken::Event;
}

void EventQueue::close() {
  {
    const std::lock_guard lock(mutex_);
    closed_ = true;
  }
  arrived_.notify_all();
}

}  // namespace zem::boundary
