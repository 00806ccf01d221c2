// SPDX-License-Identifier: Apache-2.0
/// \file
/// The physical devices of an instance: description, order of selection, compute
/// queue family.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kiv/status.h"
#include "kiv/vulkan/vulkan_api.h"

namespace kiv::vulkan {

/// A device, for people and for limits.
struct VulkanDeviceInfo {
  std::string deviceName;                ///< as the driver gives it
  std::string driverVersion;             ///< "major.minor.patch"
  uint32_t vendorId = 0;                 ///< PCI vendor
  uint32_t deviceId = 0;                 ///< the vendor's number
  uint32_t apiVersion = 0;               ///< as Vulkan packs it
  uint64_t vramBytes = 0;                ///< sum of the device-local heaps
  uint32_t maxComputeSharedMemory = 0;   ///< bytes
  uint32_t maxWorkGroupInvocations = 0;  ///< of one workgroup
  uint32_t maxPushConstants = 0;         ///< bytes
  uint32_t subgroupSize = 0;             ///< invocations
  bool discrete = false;                 ///< a graphics card of its own
  uint64_t maxAllocationBytes = 0;       ///< of one allocation of memory; 0: the device names none
};

/// What the context and the shaders are written for.
inline constexpr uint32_t kLeastApiVersion = VK_API_VERSION_1_2;

/// "major.minor.patch" of a version as Vulkan packs it.
std::string formatApiVersion(uint32_t version);

/// Unsupported "<name> has Vulkan 1.1.108, 1.2 is needed" for a device of an older version.
Status checkApiVersion(const VulkanDeviceInfo& info);

/// Fills `info`; never fails. The instance functions must be loaded.
Status queryPhysicalDevice(VkPhysicalDevice device, VulkanDeviceInfo& info);

/// The first family with graphics and compute, else the first with compute;
/// Unsupported "no compute queue family found" when there is neither.
Status findComputeQueueFamily(VkPhysicalDevice device, uint32_t& family);

/// A device of an instance, valid as long as the instance.
struct PhysicalDevice {
  VkPhysicalDevice handle = VK_NULL_HANDLE;  ///< the instance's
  VulkanDeviceInfo info;                     ///< its description
  bool automatic = false;                    ///< the one to take when no index is given
};

/// All devices, discrete ones first, then those with more device-local memory;
/// equals stay as enumerated. The automatic one is the first when it is discrete,
/// else the first enumerated, both among devices of kLeastApiVersion: none is automatic when
/// all are older. Success means at least one device; IOError
/// "no Vulkan physical devices" or "vkEnumeratePhysicalDevices failed" otherwise.
Status listPhysicalDevices(VkInstance instance, std::vector<PhysicalDevice>& out);

}  // namespace kiv::vulkan
