// SPDX-License-Identifier: Apache-2.0
// What stands behind an engine's handle, and the tables of handles.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include "engine/engine.h"
#include "libzem/gate.h"
#include "libzem/handle_table.h"
#include "libzem/ledger.h"
#include "libzem/open_request.h"
#include "libzem/outcome.h"

namespace zem::boundary {

struct OpenEngine {
  std::shared_ptr<Ledger> ledger = std::make_shared<Ledger>();
  std::string chatFormat;          // its name; empty without one
  std::unique_ptr<Engine> engine;  // under the gate; null once it is closed
  Gate gate;
};

using EngineTable = HandleTable<OpenEngine, zem_engine, 1>;
using RequestTable = HandleTable<OpenRequest, zem_request, 2>;

// They stay until the process ends, whatever runs then.
EngineTable& engines();
RequestTable& requests();

// Makes every later fork() start its child without engines and requests. May be repeated.
void watchForks();

// An engine that stays open while this lives.
class EngineUse {
 public:
  explicit EngineUse(std::shared_ptr<OpenEngine> open) : open_(std::move(open)) {
    open_->gate.enter();
  }
  ~EngineUse() { open_->gate.leave(); }
  EngineUse(const EngineUse&) = delete;
  EngineUse& operator=(const EngineUse&) = delete;

  bool isOpen() const { return open_->engine != nullptr; }
  Engine& engine() const { return *open_->engine; }
  OpenEngine& open() const { return *open_; }

 private:
  std::shared_ptr<OpenEngine> open_;
};

Outcome noEngine();
Outcome noRequest();

// guarded() for functions of an engine: `body` gets an EngineUse.
template <typename Body>
zem_code withEngine(const char* call, zem_engine handle, const Body& body) noexcept {
  return guarded(call, [&]() -> Outcome {
    std::shared_ptr<OpenEngine> open = engines().find(handle);
    if (open == nullptr) return noEngine();
    const EngineUse use(std::move(open));
    return use.isOpen() ? body(use) : noEngine();
  });
}

// Likewise of a request: `body` gets an OpenRequest.
template <typename Body>
zem_code withRequest(const char* call, zem_request handle, const Body& body) noexcept {
  return guarded(call, [&]() -> Outcome {
    const std::shared_ptr<OpenRequest> request = requests().find(handle);
    return request != nullptr ? body(*request) : noRequest();
  });
}

}  // namespace zem::boundary
