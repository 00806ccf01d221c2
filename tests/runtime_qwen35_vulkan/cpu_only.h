// SPDX-License-Identifier: Apache-2.0
// For tests that mean the CPU: sessions compute there on machines with a Vulkan
// device too. CTest sets the variable as well; this is for a test program that
// is started by hand.
#pragma once

#include "compat/environment.h"

namespace zemtest {

inline const bool kCpuOnly = [] {
  compat::setEnvironmentVariable("ZEM_NO_VULKAN", "1");
  return true;
}();

}  // namespace zemtest
