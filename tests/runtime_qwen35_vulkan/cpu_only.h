// For tests that mean the CPU: sessions compute there on machines with a Vulkan
// device too. CTest sets the variable as well; this is for a test program that
// is started by hand.
#pragma once

#include <cstdlib>

namespace zemtest {

inline const bool kCpuOnly = setenv("ZEM_NO_VULKAN", "1", 1) == 0;

}  // namespace zemtest
