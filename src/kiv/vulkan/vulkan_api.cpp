// SPDX-License-Identifier: Apache-2.0
#include "kiv/vulkan/vulkan_api.h"

#include <cstdlib>
#include <mutex>

namespace kiv::vulkan {
namespace {

std::mutex loadMutex;

// Where the instance functions that volk holds now came from.
PFN_vkGetInstanceProcAddr loadedFrom = nullptr;

}  // namespace

bool vulkanSwitchedOff() {
  const char* value = std::getenv(kNoVulkanVariable);
  return value != nullptr && *value != '\0';
}

bool loadVulkan() {
  if (vulkanSwitchedOff()) return false;
  const std::lock_guard<std::mutex> lock(loadMutex);
  if (vkGetInstanceProcAddr == nullptr && volkInitialize() != VK_SUCCESS) return false;
  return vkCreateInstance != nullptr;
}

// What the loader hands out for an instance are its own entry points, which
// find the driver through the handle they are called with: they serve every
// instance and outlive this one. Loading them a second time would write to
// pointers that another context may be calling through.
void loadInstanceFunctions(VkInstance instance) {
  const std::lock_guard<std::mutex> lock(loadMutex);
  if (loadedFrom == vkGetInstanceProcAddr) return;
  volkLoadInstance(instance);
  loadedFrom = vkGetInstanceProcAddr;
}

}  // namespace kiv::vulkan
