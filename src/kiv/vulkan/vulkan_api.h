// The one place that includes Vulkan. The loader library is opened at run time,
// so that a machine without it is an ordinary failure and not a missing
// library.
#pragma once

#include <volk.h>

namespace kiv::vulkan {

// Opens the Vulkan loader of the machine, once per process; false when there is
// none. Any thread.
bool loadVulkan();

// Makes the instance's and its devices' functions callable, for this instance
// and for every other one of the process. Any thread, also while others call
// those functions.
void loadInstanceFunctions(VkInstance instance);

}  // namespace kiv::vulkan
