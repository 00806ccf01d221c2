// SPDX-License-Identifier: Apache-2.0
#include "kiv/vulkan/vulkan_device.h"

#include <algorithm>

namespace kiv::vulkan {
namespace {

std::string formatDriverVersion(uint32_t version) {
  return std::to_string(version >> 22) + "." + std::to_string((version >> 12) & 0x3ff) + "." +
         std::to_string(version & 0xfff);
}

uint64_t deviceLocalBytes(VkPhysicalDevice device) {
  VkPhysicalDeviceMemoryProperties memory{};
  vkGetPhysicalDeviceMemoryProperties(device, &memory);
  uint64_t bytes = 0;
  for (uint32_t i = 0; i < memory.memoryHeapCount; ++i) {
    const VkMemoryHeap& heap = memory.memoryHeaps[i];
    if ((heap.flags & VK_MEMORY_HEAP_DEVICE_LOCAL_BIT) != 0) bytes += heap.size;
  }
  return bytes;
}

Status noDevices() { return ioError("no Vulkan physical devices"); }

// A device that appears between the two calls makes the second one
// VK_INCOMPLETE: the handles are as good as any, so that is a success.
Status enumerateHandles(VkInstance instance, std::vector<VkPhysicalDevice>& handles) {
  uint32_t count = 0;
  if (vkEnumeratePhysicalDevices(instance, &count, nullptr) < 0 || count == 0) {
    return noDevices();
  }
  handles.resize(count);
  if (vkEnumeratePhysicalDevices(instance, &count, handles.data()) < 0) {
    return ioError("vkEnumeratePhysicalDevices failed");
  }
  handles.resize(count);
  return handles.empty() ? noDevices() : Status();
}

bool isNewEnough(const PhysicalDevice& device) {
  return device.info.apiVersion >= kLeastApiVersion;
}

// Null: every device is too old.
VkPhysicalDevice automaticDevice(const std::vector<PhysicalDevice>& sorted,
                                 const std::vector<VkPhysicalDevice>& enumerated) {
  const auto first = std::find_if(sorted.begin(), sorted.end(), isNewEnough);
  if (first == sorted.end()) return VK_NULL_HANDLE;
  if (first->info.discrete) return first->handle;
  // Without a discrete device the system's own order decides: an integrated
  // device with more memory is no better than the one that the system put first.
  return *std::find_if(enumerated.begin(), enumerated.end(), [&sorted](VkPhysicalDevice handle) {
    return std::any_of(sorted.begin(), sorted.end(), [handle](const PhysicalDevice& device) {
      return device.handle == handle && isNewEnough(device);
    });
  });
}

bool isPreferred(const PhysicalDevice& a, const PhysicalDevice& b) {
  if (a.info.discrete != b.info.discrete) return a.info.discrete;
  return a.info.vramBytes > b.info.vramBytes;
}

}  // namespace

std::string formatApiVersion(uint32_t version) {
  return std::to_string(VK_API_VERSION_MAJOR(version)) + "." +
         std::to_string(VK_API_VERSION_MINOR(version)) + "." +
         std::to_string(VK_API_VERSION_PATCH(version));
}

Status checkApiVersion(const VulkanDeviceInfo& info) {
  if (info.apiVersion >= kLeastApiVersion) return {};
  return unsupported(info.deviceName + " has Vulkan " + formatApiVersion(info.apiVersion) +
                     ", 1.2 is needed");
}

Status queryPhysicalDevice(VkPhysicalDevice device, VulkanDeviceInfo& info) {
  VkPhysicalDeviceMaintenance3Properties maintenance{};
  maintenance.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_MAINTENANCE_3_PROPERTIES;
  VkPhysicalDeviceSubgroupProperties subgroup{};
  subgroup.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_SUBGROUP_PROPERTIES;
  subgroup.pNext = &maintenance;
  VkPhysicalDeviceProperties2 chain{};
  chain.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_PROPERTIES_2;
  chain.pNext = &subgroup;
  vkGetPhysicalDeviceProperties2(device, &chain);

  const VkPhysicalDeviceProperties& properties = chain.properties;
  info.deviceName = properties.deviceName;
  info.driverVersion = formatDriverVersion(properties.driverVersion);
  info.vendorId = properties.vendorID;
  info.deviceId = properties.deviceID;
  info.apiVersion = properties.apiVersion;
  info.vramBytes = deviceLocalBytes(device);
  info.maxComputeSharedMemory = properties.limits.maxComputeSharedMemorySize;
  info.maxWorkGroupInvocations = properties.limits.maxComputeWorkGroupInvocations;
  info.maxPushConstants = properties.limits.maxPushConstantsSize;
  info.subgroupSize = subgroup.subgroupSize;
  info.discrete = properties.deviceType == VK_PHYSICAL_DEVICE_TYPE_DISCRETE_GPU;
  info.maxAllocationBytes = maintenance.maxMemoryAllocationSize;
  return {};
}

Status findComputeQueueFamily(VkPhysicalDevice device, uint32_t& family) {
  uint32_t count = 0;
  vkGetPhysicalDeviceQueueFamilyProperties(device, &count, nullptr);
  std::vector<VkQueueFamilyProperties> families(count);
  vkGetPhysicalDeviceQueueFamilyProperties(device, &count, families.data());
  families.resize(count);

  constexpr VkQueueFlags kCompute = VK_QUEUE_COMPUTE_BIT;
  for (const VkQueueFlags wanted : {kCompute | VK_QUEUE_GRAPHICS_BIT, kCompute}) {
    const auto found = std::find_if(families.begin(), families.end(), [wanted](const auto& f) {
      return (f.queueFlags & wanted) == wanted;
    });
    if (found == families.end()) continue;
    family = static_cast<uint32_t>(found - families.begin());
    return {};
  }
  return unsupported("no compute queue family found");
}

Status listPhysicalDevices(VkInstance instance, std::vector<PhysicalDevice>& out) {
  out.clear();
  std::vector<VkPhysicalDevice> handles;
  if (Status status = enumerateHandles(instance, handles); !status.ok()) return status;
  for (VkPhysicalDevice handle : handles) {
    PhysicalDevice& device = out.emplace_back();
    device.handle = handle;
    if (Status status = queryPhysicalDevice(handle, device.info); !status.ok()) return status;
  }
  std::stable_sort(out.begin(), out.end(), isPreferred);

  VkPhysicalDevice automatic = automaticDevice(out, handles);
  for (PhysicalDevice& device : out) device.automatic = device.handle == automatic;
  return {};
}

}  // namespace kiv::vulkan
