// SPDX-License-Identifier: Apache-2.0
// The requests of an engine that are under way, and the sums of those that ended.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "zem/engine.h"

namespace zem::boundary {

class OpenRequest;

struct Totals {
  uint64_t requests = 0;
  uint64_t promptTokens = 0;
  uint64_t reusedTokens = 0;
  uint64_t generatedTokens = 0;
};

// Any thread.
class Ledger {
 public:
  // A request begins. Throws std::bad_alloc.
  void enter(std::shared_ptr<OpenRequest> request);
  // It never began after all.
  void forget(const OpenRequest* request) noexcept;
  // It ended, and its last event follows.
  void leave(const OpenRequest* request, const zem_usage& usage) noexcept;
  // The last event of a request was delivered. Another owner keeps the request meanwhile.
  void settle(const OpenRequest* request) noexcept;

  // Requests that have not ended.
  size_t underWay() const;
  Totals totals() const;

  // Cancels all requests, and waits until each has its last event.
  void cancelAll();

 private:
  struct Entry {
    std::shared_ptr<OpenRequest> request;
    bool ended = false;  // its last event is on its way
  };

  std::vector<Entry>::iterator find(const OpenRequest* request);
  void remove(const OpenRequest* request) noexcept;

  mutable std::mutex mutex_;
  std::condition_variable settled_;
  std::vector<Entry> entries_;  // under the mutex, as what follows
  Totals totals_;
};

}  // namespace zem::boundary
