// SPDX-License-Identifier: Apache-2.0
// Tests that take minutes when they try everything try a sample by day.
#pragma once

#include <cstdlib>
#include <string_view>

#include "support/sanitizers.h"

namespace zemtest {

// Whether ZEM_ALL=1 asks for everything, as scripts/nightly.sh does.
inline bool thorough() {
  const char* value = std::getenv("ZEM_ALL");
  return value != nullptr && std::string_view(value) == "1";
}

// Whether a few of the cases do: under the address sanitizer, where all take several times as
// long, unless ZEM_ALL=1. Other builds try every case every day.
inline bool fewCases() { return kAddressSanitizer && !thorough(); }

}  // namespace zemtest
