// One physical device: its description and its compute queue family.
#pragma once

#include <cstdint>
#include <string>

#include "kiv/status.h"
#include "kiv/vulkan/vulkan_api.h"

namespace kiv::vulkan {

struct VulkanDeviceInfo {
  std::string deviceName;
  std::string driverVersion;  // "major.minor.patch"
  uint32_t vendorId = 0;
  uint32_t deviceId = 0;
  uint32_t apiVersion = 0;
  uint64_t vramBytes = 0;               // sum of the device-local heaps
  uint32_t maxComputeSharedMemory = 0;  // bytes
  uint32_t maxWorkGroupInvocations = 0;
  uint32_t maxPushConstants = 0;  // bytes
  uint32_t subgroupSize = 0;
  bool discrete = false;
};

// Fills `info`; never fails. The instance functions must be loaded.
Status queryPhysicalDevice(VkPhysicalDevice device, VulkanDeviceInfo& info);

// The first family with graphics and compute, else the first with compute;
// Unsupported "no compute queue family found" when there is neither.
Status findComputeQueueFamily(VkPhysicalDevice device, uint32_t& family);

}  // namespace kiv::vulkan
