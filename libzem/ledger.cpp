// SPDX-License-Identifier: Apache-2.0
#include "libzem/ledger.h"

#include <algorithm>
#include <utility>

#include "libzem/open_request.h"

namespace zem::boundary {

void Ledger::enter(std::shared_ptr<OpenRequest> request) {
  const std::lock_guard lock(mutex_);
  entries_.push_back({std::move(request), false});
}

void Ledger::forget(const OpenRequest* request) noexcept { remove(request); }

void Ledger::leave(const OpenRequest* request, const zem_usage& usage) noexcept {
  const std::lock_guard lock(mutex_);
  const auto found = find(request);
  if (found != entries_.end()) found->ended = true;
  ++totals_.requests;
  totals_.promptTokens += usage.prompt_tokens;
  totals_.reusedTokens += usage.reused_tokens;
  totals_.generatedTokens += usage.generated_tokens;
}

void Ledger::settle(const OpenRequest* request) noexcept { remove(request); }

void Ledger::remove(const OpenRequest* request) noexcept {
  {
    const std::lock_guard lock(mutex_);
    const auto found = find(request);
    if (found != entries_.end()) entries_.erase(found);
  }
  settled_.notify_all();
}

std::vector<Ledger::Entry>::iterator Ledger::find(const OpenRequest* request) {
  return std::find_if(entries_.begin(), entries_.end(),
                      [&](const Entry& entry) { return entry.request.get() == request; });
}

size_t Ledger::underWay() const {
  const std::lock_guard lock(mutex_);
  return static_cast<size_t>(std::count_if(entries_.begin(), entries_.end(),
                                           [](const Entry& entry) { return !entry.ended; }));
}

Totals Ledger::totals() const {
  const std::lock_guard lock(mutex_);
  return totals_;
}

void Ledger::cancelAll() {
  std::unique_lock lock(mutex_);
  const std::vector<Entry> entries = entries_;
  lock.unlock();
  for (const Entry& entry : entries) entry.request->cancel();
  lock.lock();
  settled_.wait(lock, [&] {
    return std::all_of(entries.begin(), entries.end(),
                       [](const Entry& entry) { return entry.request->settled(); });
  });
}

}  // namespace zem::boundary
