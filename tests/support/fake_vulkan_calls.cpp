// SPDX-License-Identifier: Apache-2.0
// The functions of the scripted machine that a context calls.
#include <algorithm>
#include <string_view>

#include "support/fake_vulkan_call.h"
#include "support/fake_vulkan_objects.h"

namespace zemtest {

using namespace kiv;

namespace {

enum FenceState : uint64_t { kUnsignalled, kSignalled };

// A queue's handle is its device's with one more bit.
constexpr uint64_t kQueueBit = uint64_t{1} << 40;

// The record of a given type in a feature or property chain; null: not there.
template <typename Record>
Record* findInChain(const void* chain, VkStructureType type) {
  for (const auto* record = static_cast<const VkBaseInStructure*>(chain); record != nullptr;
       record = record->pNext) {
    if (record->sType == type) {
      return reinterpret_cast<Record*>(const_cast<VkBaseInStructure*>(record));
    }
  }
  return nullptr;
}

// Overwrites the members of a chained record and keeps its place in the chain.
template <typename Record>
void answer(const void* chain, VkStructureType type, const Record& values) {
  auto* record = findInChain<Record>(chain, type);
  if (record == nullptr) return;
  void* next = record->pNext;
  *record = values;
  record->sType = type;
  record->pNext = next;
}

template <typename Record>
std::optional<Record> copyFromChain(const void* chain, VkStructureType type) {
  const auto* record = findInChain<const Record>(chain, type);
  return record == nullptr ? std::nullopt : std::optional<Record>(*record);
}

// The count-then-values protocol of every Vulkan list.
template <typename T, typename Make>
VkResult list(size_t available, uint32_t* count, T* out, Make make) {
  if (out == nullptr) {
    *count = static_cast<uint32_t>(available);
    return VK_SUCCESS;
  }
  const size_t n = std::min<size_t>(*count, available);
  for (size_t i = 0; i < n; ++i) out[i] = make(i);
  *count = static_cast<uint32_t>(n);
  return n < available ? VK_INCOMPLETE : VK_SUCCESS;
}

// ---- instance and physical devices

// A physical device's handle is its instance's handle and its index, and is good
// as long as the instance lives.
VkPhysicalDevice physicalHandle(VkInstance instance, size_t index) {
  return handleOfId<VkPhysicalDevice>(idOf(instance) << 8 | index);
}
uint64_t instanceOf(VkPhysicalDevice handle) { return idOf(handle) >> 8; }
size_t indexOf(VkPhysicalDevice handle) { return idOf(handle) & 0xff; }

const FakeDevice& physicalDevice(const FakeCall& call, VkPhysicalDevice handle) {
  static const FakeDevice none;
  const auto& devices = call.machine().devices;
  const bool known = indexOf(handle) < devices.size();
  call.require(known, "unknown physical device");
  call.find(handleOfId<VkInstance>(instanceOf(handle)), VK_OBJECT_TYPE_INSTANCE);
  return known ? devices[indexOf(handle)] : none;
}

VKAPI_ATTR VkResult VKAPI_CALL createInstance(const VkInstanceCreateInfo*,
                                              const VkAllocationCallbacks*, VkInstance* out) {
  const FakeCall call("vkCreateInstance");
  return call.create(VK_OBJECT_TYPE_INSTANCE, 0, out);
}

VKAPI_ATTR void VKAPI_CALL destroyInstance(VkInstance instance, const VkAllocationCallbacks*) {
  const FakeCall call("vkDestroyInstance");
  call.destroy(instance, VK_OBJECT_TYPE_INSTANCE);
}

VKAPI_ATTR VkResult VKAPI_CALL enumeratePhysicalDevices(VkInstance instance, uint32_t* count,
                                                        VkPhysicalDevice* out) {
  const FakeCall call("vkEnumeratePhysicalDevices");
  call.find(instance, VK_OBJECT_TYPE_INSTANCE);
  if (call.fails()) {
    *count = 7;  // of no meaning after a failure
    return call.result();
  }
  return list(call.machine().devices.size(), count, out,
              [instance](size_t i) { return physicalHandle(instance, i); });
}

void fillProperties(const FakeDevice& device, VkPhysicalDeviceProperties& out) {
  out.apiVersion = device.apiVersion;
  out.driverVersion = device.driverVersion;
  out.vendorID = device.vendorId;
  out.deviceID = device.deviceId;
  out.deviceType = device.type;
  out.limits = device.limits;
  device.name.copy(out.deviceName, VK_MAX_PHYSICAL_DEVICE_NAME_SIZE - 1);
  out.deviceName[std::min<size_t>(device.name.size(), VK_MAX_PHYSICAL_DEVICE_NAME_SIZE - 1)] = 0;
}

VKAPI_ATTR void VKAPI_CALL getProperties(VkPhysicalDevice handle, VkPhysicalDeviceProperties* out) {
  const FakeCall call("vkGetPhysicalDeviceProperties");
  fillProperties(physicalDevice(call, handle), *out);
}

VKAPI_ATTR void VKAPI_CALL getProperties2(VkPhysicalDevice handle,
                                          VkPhysicalDeviceProperties2* out) {
  const FakeCall call("vkGetPhysicalDeviceProperties2");
  const FakeDevice& device = physicalDevice(call, handle);
  fillProperties(device, out->properties);
  VkPhysicalDeviceSubgroupProperties subgroup{};
  subgroup.subgroupSize = device.subgroupSize;
  answer(out->pNext, VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_SUBGROUP_PROPERTIES, subgroup);
  VkPhysicalDeviceMaintenance3Properties maintenance{};
  maintenance.maxMemoryAllocationSize = device.maxAllocation;
  answer(out->pNext, VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_MAINTENANCE_3_PROPERTIES, maintenance);
}

VKAPI_ATTR void VKAPI_CALL getFeatures2(VkPhysicalDevice handle, VkPhysicalDeviceFeatures2* out) {
  const FakeCall call("vkGetPhysicalDeviceFeatures2");
  const FakeDevice& device = physicalDevice(call, handle);
  out->features = {};
  answer(out->pNext, VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_16BIT_STORAGE_FEATURES, device.storage16);
  answer(out->pNext, VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_8BIT_STORAGE_FEATURES, device.storage8);
}

VKAPI_ATTR void VKAPI_CALL getMemoryProperties(VkPhysicalDevice handle,
                                               VkPhysicalDeviceMemoryProperties* out) {
  const FakeCall call("vkGetPhysicalDeviceMemoryProperties");
  const FakeDevice& device = physicalDevice(call, handle);
  *out = {};
  out->memoryHeapCount = static_cast<uint32_t>(device.heaps.size());
  std::copy(device.heaps.begin(), device.heaps.end(), out->memoryHeaps);
  out->memoryTypeCount = static_cast<uint32_t>(device.memoryTypes.size());
  std::copy(device.memoryTypes.begin(), device.memoryTypes.end(), out->memoryTypes);
}

VKAPI_ATTR void VKAPI_CALL getQueueFamilies(VkPhysicalDevice handle, uint32_t* count,
                                            VkQueueFamilyProperties* out) {
  const FakeCall call("vkGetPhysicalDeviceQueueFamilyProperties");
  const FakeDevice& device = physicalDevice(call, handle);
  list(device.queueFamilies.size(), count, out, [&device](size_t i) {
    VkQueueFamilyProperties family{};
    family.queueFlags = device.queueFamilies[i];
    family.queueCount = 1;
    return family;
  });
}

// ---- logical device

VKAPI_ATTR VkResult VKAPI_CALL createDevice(VkPhysicalDevice physical,
                                            const VkDeviceCreateInfo* info,
                                            const VkAllocationCallbacks*, VkDevice* out) {
  const FakeCall call("vkCreateDevice");
  physicalDevice(call, physical);
  const VkDeviceQueueCreateInfo& queue = *info->pQueueCreateInfos;
  FakeRequests::Device& request = call.machine().requests.device;
  request = {};
  request.index = indexOf(physical);
  request.queueFamily = queue.queueFamilyIndex;
  request.chain = info->pNext != nullptr;
  request.storage16 = copyFromChain<VkPhysicalDevice16BitStorageFeatures>(
      info->pNext, VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_16BIT_STORAGE_FEATURES);
  request.storage8 = copyFromChain<VkPhysicalDevice8BitStorageFeatures>(
      info->pNext, VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_8BIT_STORAGE_FEATURES);
  const VkResult result = call.create(VK_OBJECT_TYPE_DEVICE, instanceOf(physical), out,
                                      FakeLogicalDevice{.index = indexOf(physical)});
  if (!call.fails()) call.find(*out, VK_OBJECT_TYPE_DEVICE)->state = queue.queueFamilyIndex;
  return result;
}

VKAPI_ATTR void VKAPI_CALL destroyDevice(VkDevice device, const VkAllocationCallbacks*) {
  const FakeCall call("vkDestroyDevice");
  call.destroy(device, VK_OBJECT_TYPE_DEVICE);
}

VKAPI_ATTR void VKAPI_CALL getDeviceQueue(VkDevice device, uint32_t family, uint32_t index,
                                          VkQueue* out) {
  const FakeCall call("vkGetDeviceQueue");
  const auto* object = call.find(device, VK_OBJECT_TYPE_DEVICE);
  call.require(object != nullptr && object->state == family && index == 0,
               "a queue that was not asked for");
  *out = handleOfId<VkQueue>(idOf(device) | kQueueBit);
}

// ---- command pools and buffers

VKAPI_ATTR VkResult VKAPI_CALL createCommandPool(VkDevice device,
                                                 const VkCommandPoolCreateInfo* info,
                                                 const VkAllocationCallbacks*, VkCommandPool* out) {
  const FakeCall call("vkCreateCommandPool");
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  const VkResult result = call.create(VK_OBJECT_TYPE_COMMAND_POOL, idOf(device), out);
  if (!call.fails()) call.find(*out, VK_OBJECT_TYPE_COMMAND_POOL)->state = info->flags;
  return result;
}

// Frees the pool's command buffers with it, as a real one does.
VKAPI_ATTR void VKAPI_CALL destroyCommandPool(VkDevice device, VkCommandPool pool,
                                              const VkAllocationCallbacks*) {
  const FakeCall call("vkDestroyCommandPool");
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  call.destroyChildren(pool, VK_OBJECT_TYPE_COMMAND_BUFFER);
  call.destroy(pool, VK_OBJECT_TYPE_COMMAND_POOL);
}

VKAPI_ATTR VkResult VKAPI_CALL allocateCommandBuffers(VkDevice device,
                                                      const VkCommandBufferAllocateInfo* info,
                                                      VkCommandBuffer* out) {
  const FakeCall call("vkAllocateCommandBuffers");
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  call.find(info->commandPool, VK_OBJECT_TYPE_COMMAND_POOL);
  for (uint32_t i = 0; i < info->commandBufferCount; ++i) {
    call.create(VK_OBJECT_TYPE_COMMAND_BUFFER, idOf(info->commandPool), &out[i],
                FakeCommandBuffer{});
  }
  return call.result();
}

VKAPI_ATTR void VKAPI_CALL freeCommandBuffers(VkDevice device, VkCommandPool pool, uint32_t count,
                                              const VkCommandBuffer* buffers) {
  const FakeCall call("vkFreeCommandBuffers");
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  call.find(pool, VK_OBJECT_TYPE_COMMAND_POOL);
  for (uint32_t i = 0; i < count; ++i) call.destroy(buffers[i], VK_OBJECT_TYPE_COMMAND_BUFFER);
}

VkResult moveCommandBuffer(const FakeCall& call, VkCommandBuffer buffer, CommandState from,
                           CommandState to) {
  auto* object = call.find(buffer, VK_OBJECT_TYPE_COMMAND_BUFFER);
  if (object == nullptr || call.fails()) return call.result();
  call.require(object->state == from, "command buffer in the wrong state");
  object->state = to;
  return VK_SUCCESS;
}

// Beginning anew is allowed where the pool was made for it.
void resetCommands(const FakeCall& call, auto& buffer) {
  const auto* pool =
      call.find(handleOfId<VkCommandPool>(buffer.parent), VK_OBJECT_TYPE_COMMAND_POOL);
  const bool resettable =
      pool != nullptr && (pool->state & VK_COMMAND_POOL_CREATE_RESET_COMMAND_BUFFER_BIT) != 0;
  call.require(resettable, "the pool's command buffers cannot be reset");
  buffer.detail = FakeCommandBuffer{};
  buffer.state = kInitial;
}

VKAPI_ATTR VkResult VKAPI_CALL beginCommandBuffer(VkCommandBuffer buffer,
                                                  const VkCommandBufferBeginInfo*) {
  const FakeCall call("vkBeginCommandBuffer");
  auto* object = call.find(buffer, VK_OBJECT_TYPE_COMMAND_BUFFER);
  if (object != nullptr && object->state == kExecutable && !call.fails())
    resetCommands(call, *object);
  return moveCommandBuffer(call, buffer, kInitial, kRecording);
}

VKAPI_ATTR VkResult VKAPI_CALL endCommandBuffer(VkCommandBuffer buffer) {
  const FakeCall call("vkEndCommandBuffer");
  return moveCommandBuffer(call, buffer, kRecording, kExecutable);
}

// ---- fences and submission; work is done as soon as it is submitted

VKAPI_ATTR VkResult VKAPI_CALL createFence(VkDevice device, const VkFenceCreateInfo*,
                                           const VkAllocationCallbacks*, VkFence* out) {
  const FakeCall call("vkCreateFence");
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  return call.create(VK_OBJECT_TYPE_FENCE, idOf(device), out);
}

VKAPI_ATTR void VKAPI_CALL destroyFence(VkDevice device, VkFence fence,
                                        const VkAllocationCallbacks*) {
  const FakeCall call("vkDestroyFence");
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  call.destroy(fence, VK_OBJECT_TYPE_FENCE);
}

VKAPI_ATTR VkResult VKAPI_CALL queueSubmit(VkQueue queue, uint32_t count, const VkSubmitInfo* infos,
                                           VkFence fence) {
  const FakeCall call("vkQueueSubmit");
  call.find(handleOfId<VkDevice>(idOf(queue) & ~kQueueBit), VK_OBJECT_TYPE_DEVICE);
  auto* object = call.find(fence, VK_OBJECT_TYPE_FENCE);
  call.require(object != nullptr && object->state == kUnsignalled, "fence already signalled");
  for (uint32_t i = 0; i < count; ++i) {
    for (uint32_t j = 0; j < infos[i].commandBufferCount; ++j) {
      auto* buffer = call.find(infos[i].pCommandBuffers[j], VK_OBJECT_TYPE_COMMAND_BUFFER);
      call.require(buffer != nullptr && buffer->state == kExecutable, "command buffer not ended");
      if (buffer == nullptr || call.fails()) continue;
      for (const auto& run : std::any_cast<FakeCommandBuffer>(&buffer->detail)->commands) run(call);
    }
  }
  if (object != nullptr && !call.fails()) object->state = kSignalled;
  return call.result();
}

VKAPI_ATTR VkResult VKAPI_CALL deviceWaitIdle(VkDevice device) {
  const FakeCall call("vkDeviceWaitIdle");
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  return call.result();
}

VKAPI_ATTR VkResult VKAPI_CALL waitForFences(VkDevice device, uint32_t count, const VkFence* fences,
                                             VkBool32, uint64_t) {
  const FakeCall call("vkWaitForFences");
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  for (uint32_t i = 0; i < count; ++i) {
    const auto* fence = call.find(fences[i], VK_OBJECT_TYPE_FENCE);
    call.require(fence != nullptr && fence->state == kSignalled,
                 "waits for a fence that nothing signals");
  }
  return call.result();
}

VKAPI_ATTR VkResult VKAPI_CALL resetFences(VkDevice device, uint32_t count, const VkFence* fences) {
  const FakeCall call("vkResetFences");
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  for (uint32_t i = 0; i < count; ++i) {
    auto* fence = call.find(fences[i], VK_OBJECT_TYPE_FENCE);
    if (fence != nullptr && !call.fails()) fence->state = kUnsignalled;
  }
  return call.result();
}

}  // namespace

const FakeFunctions& contextFunctions() {
  static const FakeFunctions functions = {
      {"vkCreateInstance", erase<PFN_vkCreateInstance>(createInstance)},
      {"vkDestroyInstance", erase<PFN_vkDestroyInstance>(destroyInstance)},
      {"vkEnumeratePhysicalDevices",
       erase<PFN_vkEnumeratePhysicalDevices>(enumeratePhysicalDevices)},
      {"vkGetPhysicalDeviceProperties", erase<PFN_vkGetPhysicalDeviceProperties>(getProperties)},
      {"vkGetPhysicalDeviceProperties2", erase<PFN_vkGetPhysicalDeviceProperties2>(getProperties2)},
      {"vkGetPhysicalDeviceFeatures2", erase<PFN_vkGetPhysicalDeviceFeatures2>(getFeatures2)},
      {"vkGetPhysicalDeviceMemoryProperties",
       erase<PFN_vkGetPhysicalDeviceMemoryProperties>(getMemoryProperties)},
      {"vkGetPhysicalDeviceQueueFamilyProperties",
       erase<PFN_vkGetPhysicalDeviceQueueFamilyProperties>(getQueueFamilies)},
      {"vkCreateDevice", erase<PFN_vkCreateDevice>(createDevice)},
      {"vkDestroyDevice", erase<PFN_vkDestroyDevice>(destroyDevice)},
      {"vkGetDeviceQueue", erase<PFN_vkGetDeviceQueue>(getDeviceQueue)},
      {"vkCreateCommandPool", erase<PFN_vkCreateCommandPool>(createCommandPool)},
      {"vkDestroyCommandPool", erase<PFN_vkDestroyCommandPool>(destroyCommandPool)},
      {"vkAllocateCommandBuffers", erase<PFN_vkAllocateCommandBuffers>(allocateCommandBuffers)},
      {"vkFreeCommandBuffers", erase<PFN_vkFreeCommandBuffers>(freeCommandBuffers)},
      {"vkBeginCommandBuffer", erase<PFN_vkBeginCommandBuffer>(beginCommandBuffer)},
      {"vkEndCommandBuffer", erase<PFN_vkEndCommandBuffer>(endCommandBuffer)},
      {"vkCreateFence", erase<PFN_vkCreateFence>(createFence)},
      {"vkDestroyFence", erase<PFN_vkDestroyFence>(destroyFence)},
      {"vkQueueSubmit", erase<PFN_vkQueueSubmit>(queueSubmit)},
      {"vkDeviceWaitIdle", erase<PFN_vkDeviceWaitIdle>(deviceWaitIdle)},
      {"vkWaitForFences", erase<PFN_vkWaitForFences>(waitForFences)},
      {"vkResetFences", erase<PFN_vkResetFences>(resetFences)},
  };
  return functions;
}

}  // namespace zemtest
