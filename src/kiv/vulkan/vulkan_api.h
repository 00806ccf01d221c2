/// \file
/// The one place that includes Vulkan. The loader library is opened at run time,
/// so that a machine without it is an ordinary failure and not a missing
/// library.
#pragma once

#include <volk.h>

namespace kiv::vulkan {

/// Set to anything but the empty text, this environment variable keeps Vulkan out
/// of the process: the way past a driver that crashes or hangs while it is loaded.
inline constexpr const char* kNoVulkanVariable = "ZEM_NO_VULKAN";

/// Whether the variable is set now.
bool vulkanSwitchedOff();

/// Opens the Vulkan loader of the machine, once per process; false when there is
/// none. While Vulkan is switched off it is false as well, nothing is opened, and
/// functions that were loaded before are not to be used by anybody new. Any
/// thread, as long as no other one changes the environment.
bool loadVulkan();

/// Makes the instance's and its devices' functions callable, for this instance
/// and for every other one of the process. Any thread, also while others call
/// those functions.
void loadInstanceFunctions(VkInstance instance);

}  // namespace kiv::vulkan
