// SPDX-License-Identifier: Apache-2.0
#include "libzem/open_request.h"

#include <utility>

#include "libzem/outcome.h"

namespace zem::boundary {
namespace {

constexpr size_t kQueueBytes = size_t{16} << 20;

}  // namespace

OpenRequest::OpenRequest(const zem_delivery& delivery, std::vector<uint32_t> prompt,
                         std::shared_ptr<Ledger> ledger)
    : delivery_(delivery),
      ledger_(std::move(ledger)),
      queue_(delivery.queue_bytes != 0 ? delivery.queue_bytes : kQueueBytes),
      tokens_(std::move(prompt)) {}

void OpenRequest::addToken(uint32_t id) {
  const std::lock_guard lock(mutex_);
  tokens_.push_back(id);
}

void OpenRequest::tell(Event event) {
  if (finished_ || overflown_) return;
  if (hasCallback()) return callBack(event);
  if (queue_.push(std::move(event))) return;
  overflown_ = true;
  cancel();
}

void OpenRequest::finish(Event end) noexcept {
  if (std::exchange(finished_, true)) return;
  if (overflown_) {
    end.endReason = ZEM_END_ERROR;
    try {
      end.text = "events were not taken, and their queue is full with " +
                 std::to_string(queue_.mostBytes()) + " bytes";
    } catch (const std::bad_alloc&) {
      end.text.clear();
    }
  }
  // Who hears of the end finds the engine without this request.
  ledger_->leave(this, end.usage);
  if (hasCallback()) {
    callBack(end);
  } else {
    queue_.finish(std::move(end));
  }
  settled_ = true;
  ledger_->settle(this);
}

void OpenRequest::withdraw() noexcept {
  finished_ = true;
  settled_ = true;
  ledger_->forget(this);
}

void OpenRequest::callBack(const Event& event) {
  const std::lock_guard lock(calling_);
  if (closed_) return;
  const InsideCallback inside;
  const zem_event record = event.record();
  try {
    delivery_.callback(&record, delivery_.user);
  } catch (...) {  // of a host in C++
    cancel();
  }
}

void OpenRequest::cancel() {
  const std::lock_guard lock(mutex_);
  cancelled_ = true;
  handle_.cancel();
}

void OpenRequest::setHandle(const RequestHandle& handle) {
  const std::lock_guard lock(mutex_);
  handle_ = handle;
  if (cancelled_) handle_.cancel();
}

std::vector<uint32_t> OpenRequest::tokens() const {
  const std::lock_guard lock(mutex_);
  return tokens_;
}

void OpenRequest::close() {
  cancel();
  queue_.close();
  const std::lock_guard lock(calling_);
  closed_ = true;
}

}  // namespace zem::boundary
