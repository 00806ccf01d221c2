// SPDX-License-Identifier: Apache-2.0
// What readers of a vocabulary throw.
#pragma once

#include <stdexcept>

namespace zem::text {

// Why something cannot be read. The message is for people.
struct ReadError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

}  // namespace zem::text
