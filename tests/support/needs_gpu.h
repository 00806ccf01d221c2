// SPDX-License-Identifier: Apache-2.0
// Tests that need a Vulkan device of this machine.
//
// Without one they are skipped, and say so. Where a device has to be there, as
// on the machine that checks every change, ZEM_REQUIRE_GPU=1 makes them fail
// instead: a test that silently stops running proves nothing.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string_view>

namespace zemtest {

// Unset, empty and "0" mean no.
inline bool gpuIsRequired() {
  const char* value = std::getenv("ZEM_REQUIRE_GPU");
  return value != nullptr && *value != '\0' && std::string_view(value) != "0";
}

}  // namespace zemtest

// Ends a test, or its SetUp(), for want of a device.
#define ZEM_SKIP_WITHOUT_GPU(reason)                                         \
  do {                                                                       \
    if (zemtest::gpuIsRequired()) FAIL() << "ZEM_REQUIRE_GPU: " << (reason); \
    GTEST_SKIP() << (reason);                                                \
  } while (false)
