// SPDX-License-Identifier: Apache-2.0
// A lock between the functions that use an engine, many at once, and the one that closes it.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>

namespace zem::boundary {

// enter() never waits for a thread that waits in alone(). A callback may use the engine while a
// function that is inside waits for that callback's thread, so waiting there would be a deadlock;
// a shared mutex may wait. Any thread.
class Gate {
 public:
  void enter() {
    const std::lock_guard lock(mutex_);
    ++inside_;
  }

  void leave() {
    {
      const std::lock_guard lock(mutex_);
      --inside_;
    }
    left_.notify_all();
  }

  // Runs `action` while no function is inside, and gives its result.
  template <typename Action>
  auto alone(const Action& action) {
    std::unique_lock lock(mutex_);
    left_.wait(lock, [&] { return inside_ == 0; });
    return action();
  }

 private:
  std::mutex mutex_;
  std::condition_variable left_;
  size_t inside_ = 0;
};

}  // namespace zem::boundary
