// SPDX-License-Identifier: Apache-2.0
#include "libzem/ledger.h"

#include <algorithm>
#include <utility>

#include "libzem/open_request.h"

namespace zem::boundary {

void Ledger::enter(std::shared_ptr<OpenRequest> request) {
  const std::lock_guard lock(mutex_);
  underWay_.push_back(std::move(request));
}

void Ledger::forget(const OpenRequest* request) noexcept {
  {
    const std::lock_guard lock(mutex_);
    remove(request);
  }
  settled_.notify_all();
}

void Ledger::leave(const OpenRequest* request, const zem_usage& usage) noexcept {
  const std::lock_guard lock(mutex_);
  remove(request);
  ++totals_.requests;
  totals_.promptTokens += usage.prompt_tokens;
  totals_.reusedTokens += usage.reused_tokens;
  totals_.generatedTokens += usage.generated_tokens;
}

void Ledger::noteSettled() noexcept {
  { const std::lock_guard lock(mutex_); }  // a thread that looked before waits by now
  settled_.notify_all();
}

void Ledger::remove(const OpenRequest* request) {
  const auto found = std::find_if(underWay_.begin(), underWay_.end(),
                                  [&](const auto& one) { return one.get() == request; });
  if (found != underWay_.end()) underWay_.erase(found);
}

size_t Ledger::underWay() const {
  const std::lock_guard lock(mutex_);
  return underWay_.size();
}

Totals Ledger::totals() const {
  const std::lock_guard lock(mutex_);
  return totals_;
}

void Ledger::cancelAll() {
  std::unique_lock lock(mutex_);
  const std::vector<std::shared_ptr<OpenRequest>> requests = underWay_;
  lock.unlock();
  for (const auto& request : requests) request->cancel();
  lock.lock();
  settled_.wait(lock, [&] {
    return std::all_of(requests.begin(), requests.end(),
                       [](const auto& request) { return request->settled(); });
  });
}

}  // namespace zem::boundary
