// SPDX-License-Identifier: Apache-2.0
// The result of a function of the library, and the thread's error text.
#pragma once

#include <string>
#include <utility>

#include "kiv/status.h"
#include "zem/engine.h"

namespace zem::boundary {

// A code with what went wrong. `call` is put in front of the message later.
struct Outcome {
  zem_code code = ZEM_OK;
  std::string message;

  bool ok() const { return code == ZEM_OK; }
};

inline Outcome failure(zem_code code, std::string message) { return {code, std::move(message)}; }

// The outcome for the status of a file: ZEM_ERROR_FILE, _FORMAT or _UNSUPPORTED; ZEM_OK for
// success.
Outcome ofFile(const kiv::Status& status);

// The outcome for the status of a request: ZEM_ERROR_REQUEST; ZEM_OK for success.
Outcome ofRequest(const kiv::Status& status);

// Makes `outcome` the result of the function `call`, and its message the thread's text.
// Needs no memory.
zem_code report(const char* call, const Outcome& outcome) noexcept;
zem_code report(const char* call, zem_code code, const char* message) noexcept;

// The thread's text.
const char* lastError() noexcept;

// Runs the body of the function `call`, which gives an Outcome; no exception leaves it.
template <typename Body>
zem_code guarded(const char* call, const Body& body) noexcept;

// Reports the exception that is being handled, for guarded().
zem_code reportException(const char* call) noexcept;

template <typename Body>
zem_code guarded(const char* call, const Body& body) noexcept {
  try {
    return report(call, body());
  } catch (...) {
    return reportException(call);
  }
}

// The thread is inside a callback while one of these lives.
class InsideCallback {
 public:
  InsideCallback();
  ~InsideCallback();
  InsideCallback(const InsideCallback&) = delete;
  InsideCallback& operator=(const InsideCallback&) = delete;
};

// ZEM_ERROR_CALLBACK inside a callback, else success.
Outcome outsideCallbacks();

}  // namespace zem::boundary
