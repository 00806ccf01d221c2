// SPDX-License-Identifier: Apache-2.0
// Memory that runs out on request: operator new and mmap of the whole test program,
// which is linked with failing_memory.cpp and -Wl,--wrap=mmap.
#pragma once

#include <cstddef>
#include <functional>
#include <vector>

namespace zemtest {

// How requests fail from the chosen one on.
enum class Shortage {
  Once,     // that one alone
  Lasting,  // it and all that follow: what handles the first failure gets nothing either
};

// Runs `work` and returns the numbers of those requests, counted from 0, that are
// worth failing: requests made by one chain of calls are of one kind, and of each
// kind the first and the last are taken.
std::vector<size_t> requestsWorthFailing(const std::function<void()>& work);

// While one lives, request number `index` fails, in any thread.
class FailingMemory {
 public:
  FailingMemory(size_t index, Shortage shortage);
  ~FailingMemory();
  FailingMemory(const FailingMemory&) = delete;
  FailingMemory& operator=(const FailingMemory&) = delete;

  // Whether there was such a request.
  bool failed() const;
};

}  // namespace zemtest
