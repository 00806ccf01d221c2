// SPDX-License-Identifier: Apache-2.0
/// \file
/// The one place that includes Vulkan. The loader library is opened at run time, so a
/// machine without it gives an ordinary failure, and the program starts there too.
#pragma once

#include <volk.h>

namespace kiv::vulkan {

/// While this environment variable holds any text that is not empty, the process does
/// not load Vulkan. It is the way past a driver that crashes or hangs while it loads.
inline constexpr const char* kNoVulkanVariable = "ZEM_NO_VULKAN";

/// Whether the variable is set now.
bool vulkanSwitchedOff();

/// Opens the Vulkan loader of the machine, once per process; false when there is
/// none. While Vulkan is switched off, it opens nothing and returns false, also when the
/// loader is open already: the caller must then make no call of Vulkan. Any thread, as
/// long as no thread changes the environment.
bool loadVulkan();

/// Makes the instance's and its devices' functions callable, for this instance
/// and for every other one of the process. Any thread, also while others call
/// those functions.
void loadInstanceFunctions(VkInstance instance);

}  // namespace kiv::vulkan
