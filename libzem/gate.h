// SPDX-License-Identifier: Apache-2.0
// Many functions use an engine at once; one closes it.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>

namespace zem::boundary {

// A function that enters never waits for one that wants to be alone: a callback may use the
// engine while a function that is inside waits for that callback's thread. A shared mutex does
// not promise that. Any thread.
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
