// SPDX-License-Identifier: Apache-2.0
// The functions of the scripted machine for buffers and device memory.
#include <gtest/gtest.h>

#include <algorithm>

#include "compat/zero_pages.h"
#include "support/fake_vulkan_objects.h"

namespace zemtest {

using namespace kiv;

LazyBytes::LazyBytes(size_t size) : size_(size) {
  data_ = static_cast<uint8_t*>(compat::allocateZeroPages(size, compat::PageUse::Sparse));
  if (data_ == nullptr) {
    ADD_FAILURE() << "no address space for " << size << " bytes";
    size_ = 0;
  }
}

LazyBytes::~LazyBytes() { compat::freeZeroPages(data_, size_); }

const FakeDevice& deviceOf(const FakeCall& call, VkDevice device) {
  static const FakeDevice none;
  const auto* record = call.detail<FakeLogicalDevice>(device, VK_OBJECT_TYPE_DEVICE);
  const auto& devices = call.machine().devices;
  return record != nullptr && record->index < devices.size() ? devices[record->index] : none;
}

const FakeDevice& deviceOf(const FakeCall& call, VkCommandBuffer cmd) {
  const auto* buffer = call.find(cmd, VK_OBJECT_TYPE_COMMAND_BUFFER);
  if (buffer == nullptr) return deviceOf(call, VkDevice{});
  const auto* pool =
      call.find(handleOfId<VkCommandPool>(buffer->parent), VK_OBJECT_TYPE_COMMAND_POOL);
  return deviceOf(call, pool == nullptr ? VkDevice{} : handleOfId<VkDevice>(pool->parent));
}

std::span<uint8_t> bytesAt(const FakeCall& call, VkBuffer handle, VkDeviceSize offset,
                           VkDeviceSize size) {
  const auto* buffer = call.detail<FakeBuffer>(handle, VK_OBJECT_TYPE_BUFFER);
  if (buffer == nullptr) return {};
  const VkDeviceSize bytes = buffer->info.size;
  const bool inside = offset <= bytes && size <= bytes - offset;
  call.require(inside, "bytes outside the buffer");
  const auto* memory = call.detail<FakeMemory>(buffer->memory, VK_OBJECT_TYPE_DEVICE_MEMORY);
  if (!inside || memory == nullptr) return {};
  return memory->bytes->span().subspan(buffer->offset + offset, size);
}

std::vector<uint8_t> FakeVulkan::bytes(VkBuffer buffer) const {
  const FakeCall call("bytes", FakeCall::Look{});
  const auto* record = call.detail<FakeBuffer>(buffer, VK_OBJECT_TYPE_BUFFER);
  if (record == nullptr) return {};
  const std::span<uint8_t> held = bytesAt(call, buffer, 0, record->info.size);
  return {held.begin(), held.end()};
}

namespace {

// ---- buffers

VKAPI_ATTR VkResult VKAPI_CALL createBuffer(VkDevice device, const VkBufferCreateInfo* info,
                                            const VkAllocationCallbacks*, VkBuffer* out) {
  const FakeCall call("vkCreateBuffer");
  const FakeDevice& physical = deviceOf(call, device);
  call.requests().buffers.push_back(*info);
  const VkDeviceSize step = physical.bufferGranularity;
  const uint64_t allTypes = (uint64_t{1} << physical.memoryTypes.size()) - 1;
  const FakeBuffer buffer = {.info = *info,
                             .requirements = {.size = (info->size + step - 1) / step * step,
                                              .alignment = physical.bufferAlignment,
                                              .memoryTypeBits = static_cast<uint32_t>(
                                                  physical.bufferMemoryTypes & allTypes)}};
  return call.create(VK_OBJECT_TYPE_BUFFER, idOf(device), out, buffer);
}

VKAPI_ATTR void VKAPI_CALL destroyBuffer(VkDevice device, VkBuffer buffer,
                                         const VkAllocationCallbacks*) {
  const FakeCall call("vkDestroyBuffer");
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  call.destroy(buffer, VK_OBJECT_TYPE_BUFFER);
}

VKAPI_ATTR void VKAPI_CALL getRequirements(VkDevice device, VkBuffer buffer,
                                           VkMemoryRequirements* out) {
  const FakeCall call("vkGetBufferMemoryRequirements");
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  const auto* record = call.detail<FakeBuffer>(buffer, VK_OBJECT_TYPE_BUFFER);
  *out = record == nullptr ? VkMemoryRequirements{} : record->requirements;
}

VKAPI_ATTR VkResult VKAPI_CALL bindBufferMemory(VkDevice device, VkBuffer buffer,
                                                VkDeviceMemory memory, VkDeviceSize offset) {
  const FakeCall call("vkBindBufferMemory");
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  auto* target = call.detail<FakeBuffer>(buffer, VK_OBJECT_TYPE_BUFFER);
  const auto* source = call.detail<FakeMemory>(memory, VK_OBJECT_TYPE_DEVICE_MEMORY);
  if (target == nullptr || source == nullptr || call.fails()) return call.result();
  const VkDeviceSize size = source->bytes->span().size();
  call.require(offset <= size && target->requirements.size <= size - offset,
               "the memory is too small");
  call.require((target->requirements.memoryTypeBits >> source->type & 1U) != 0,
               "a memory type that the buffer does not allow");
  target->memory = memory;
  target->offset = offset;
  return VK_SUCCESS;
}

// ---- memory

VkDeviceSize usedOf(const FakeCall& call, uint32_t heap) {
  VkDeviceSize used = 0;
  call.forEach<FakeMemory>(VK_OBJECT_TYPE_DEVICE_MEMORY, [&](const FakeMemory& memory) {
    if (memory.heap == heap) used += memory.bytes->span().size();
  });
  return used;
}

VKAPI_ATTR VkResult VKAPI_CALL allocateMemory(VkDevice device, const VkMemoryAllocateInfo* info,
                                              const VkAllocationCallbacks*, VkDeviceMemory* out) {
  const FakeCall call("vkAllocateMemory");
  const FakeDevice& physical = deviceOf(call, device);
  call.requests().allocations.push_back(*info);
  const bool known = info->memoryTypeIndex < physical.memoryTypes.size();
  call.require(known, "unknown memory type");
  if (!known || call.fails()) return call.create(VK_OBJECT_TYPE_DEVICE_MEMORY, 0, out);

  const VkMemoryType& type = physical.memoryTypes[info->memoryTypeIndex];
  constexpr VkMemoryPropertyFlags kUsable =
      kDeviceLocal | kHost | VK_MEMORY_PROPERTY_HOST_CACHED_BIT;
  call.require((type.propertyFlags & ~kUsable) == 0, "a memory type that was not enabled");
  call.require(info->allocationSize <= physical.maxAllocation, "more than one allocation may have");
  const VkDeviceSize heapSize = physical.heaps.at(type.heapIndex).size;
  const VkDeviceSize used = usedOf(call, type.heapIndex);
  if (used > heapSize || info->allocationSize > heapSize - used) {
    return VK_ERROR_OUT_OF_DEVICE_MEMORY;
  }
  return call.create(VK_OBJECT_TYPE_DEVICE_MEMORY, idOf(device), out,
                     FakeMemory{.bytes = std::make_shared<LazyBytes>(info->allocationSize),
                                .heap = type.heapIndex,
                                .type = info->memoryTypeIndex});
}

// Memory may be freed while it is mapped, and before the buffers that lie in it.
VKAPI_ATTR void VKAPI_CALL freeMemory(VkDevice device, VkDeviceMemory memory,
                                      const VkAllocationCallbacks*) {
  const FakeCall call("vkFreeMemory");
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  call.destroy(memory, VK_OBJECT_TYPE_DEVICE_MEMORY);
}

VKAPI_ATTR VkResult VKAPI_CALL mapMemory(VkDevice device, VkDeviceMemory handle,
                                         VkDeviceSize offset, VkDeviceSize size, VkMemoryMapFlags,
                                         void** out) {
  const FakeCall call("vkMapMemory");
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  auto* memory = call.detail<FakeMemory>(handle, VK_OBJECT_TYPE_DEVICE_MEMORY);
  if (memory == nullptr || call.fails()) return call.result();
  const std::span<uint8_t> bytes = memory->bytes->span();
  const VkDeviceSize wanted = size == VK_WHOLE_SIZE ? bytes.size() - offset : size;
  const bool inside = wanted != 0 && offset <= bytes.size() && wanted <= bytes.size() - offset;
  call.require(inside, "a range outside the memory");
  call.require(!memory->mapped, "mapped already");
  memory->mapped = true;
  *out = bytes.data() + offset;
  return VK_SUCCESS;
}

VKAPI_ATTR void VKAPI_CALL unmapMemory(VkDevice device, VkDeviceMemory handle) {
  const FakeCall call("vkUnmapMemory");
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  auto* memory = call.detail<FakeMemory>(handle, VK_OBJECT_TYPE_DEVICE_MEMORY);
  if (memory == nullptr) return;
  call.require(memory->mapped, "not mapped");
  memory->mapped = false;
}

}  // namespace

const FakeFunctions& memoryFunctions() {
  static const FakeFunctions functions = {
      {"vkCreateBuffer", erase<PFN_vkCreateBuffer>(createBuffer)},
      {"vkDestroyBuffer", erase<PFN_vkDestroyBuffer>(destroyBuffer)},
      {"vkGetBufferMemoryRequirements", erase<PFN_vkGetBufferMemoryRequirements>(getRequirements)},
      {"vkBindBufferMemory", erase<PFN_vkBindBufferMemory>(bindBufferMemory)},
      {"vkAllocateMemory", erase<PFN_vkAllocateMemory>(allocateMemory)},
      {"vkFreeMemory", erase<PFN_vkFreeMemory>(freeMemory)},
      {"vkMapMemory", erase<PFN_vkMapMemory>(mapMemory)},
      {"vkUnmapMemory", erase<PFN_vkUnmapMemory>(unmapMemory)},
  };
  return functions;
}

}  // namespace zemtest
