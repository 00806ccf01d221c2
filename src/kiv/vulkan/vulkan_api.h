// The one place that includes Vulkan. The loader library is opened at run time,
// so that a machine without it is an ordinary failure and not a missing
// library.
#pragma once

#include <volk.h>

namespace kiv::vulkan {

// Opens the Vulkan loader of the machine once per process; false when there is
// none. Any thread.
bool loadVulkan();

}  // namespace kiv::vulkan
