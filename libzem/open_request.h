// SPDX-License-Identifier: Apache-2.0
// The object that a request's handle stands for.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "engine/engine.h"
#include "libzem/event_queue.h"
#include "libzem/ledger.h"

namespace zem::boundary {

// One request: its events, its tokens, and the way to end it. The engine's thread tells it
// what happens; any thread may do the rest.
class OpenRequest {
 public:
  OpenRequest(const zem_delivery& delivery, std::vector<uint32_t> prompt,
              std::shared_ptr<Ledger> ledger);

  // The engine's thread. finish() comes once, after all others; what comes after it is dropped.
  bool tellsPrompt() const { return (delivery_.flags & ZEM_TELL_PROMPT) != 0; }
  bool tellsTokens() const { return (delivery_.flags & ZEM_TELL_TOKENS) != 0; }
  void addToken(uint32_t id);
  void tell(Event event);
  void finish(Event end) noexcept;
  // It never began: the engine refused it.
  void withdraw() noexcept;

  // Ends the request: the handle's, as soon as there is one.
  void cancel();
  void setHandle(const RequestHandle& handle);

  bool hasCallback() const { return delivery_.callback != nullptr; }
  EventQueue& queue() { return queue_; }
  std::vector<uint32_t> tokens() const;

  // The last event is where it can be taken, or was.
  bool settled() const { return settled_; }

  // Cancels. No callback runs when this returns, or later; waits for events end.
  void close();

 private:
  void callBack(const Event& event);

  zem_delivery delivery_;
  std::shared_ptr<Ledger> ledger_;
  EventQueue queue_;
  bool overflown_ = false;  // of the engine's thread
  bool finished_ = false;   // of the engine's thread
  std::atomic<bool> settled_ = false;

  std::mutex calling_;  // held while the callback runs
  bool closed_ = false;

  mutable std::mutex mutex_;
  RequestHandle handle_;  // under the mutex, as what follows
  bool cancelled_ = false;
  std::vector<uint32_t> tokens_;
};

}  // namespace zem::boundary
