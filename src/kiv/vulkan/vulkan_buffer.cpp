// SPDX-License-Identifier: Apache-2.0
#include "kiv/vulkan/vulkan_buffer.h"

#include <algorithm>
#include <cstdint>
#include <utility>

namespace kiv::vulkan {
namespace {

constexpr VkMemoryPropertyFlags kHostMemory =
    VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT | VK_MEMORY_PROPERTY_HOST_COHERENT_BIT;
constexpr VkMemoryPropertyFlags kDeviceMemory = VK_MEMORY_PROPERTY_DEVICE_LOCAL_BIT;
constexpr VkMemoryPropertyFlags kCached = VK_MEMORY_PROPERTY_HOST_CACHED_BIT;

// The properties without which the memory does not serve, and those that serve best.
VkMemoryPropertyFlags neededFor(BufferUse use) {
  return use == BufferUse::DeviceLocal ? kDeviceMemory : kHostMemory;
}
VkMemoryPropertyFlags bestFor(BufferUse use) {
  if (use == BufferUse::HostWrites) return kHostMemory | kDeviceMemory;
  if (use == BufferUse::HostReads) return kHostMemory | kCached;
  return neededFor(use);
}

}  // namespace

bool findMemoryType(const VulkanContext& ctx, uint32_t allowedTypes, VkMemoryPropertyFlags flags,
                    uint32_t& type) {
  VkPhysicalDeviceMemoryProperties memory{};
  vkGetPhysicalDeviceMemoryProperties(ctx.physicalDevice(), &memory);
  // At first without types of extensions, which are not enabled.
  for (const VkMemoryPropertyFlags others : {kHostMemory | kDeviceMemory | kCached, ~0U}) {
    for (uint32_t i = 0; i < memory.memoryTypeCount; ++i) {
      const VkMemoryPropertyFlags has = memory.memoryTypes[i].propertyFlags;
      const bool allowed = (allowedTypes >> i & 1U) != 0 && (has & ~(flags | others)) == 0;
      if (!allowed || (has & flags) != flags) continue;
      type = i;
      return true;
    }
  }
  return false;
}

void recordFullBarrier(VkCommandBuffer cmd) {
  VkMemoryBarrier barrier{};
  barrier.sType = VK_STRUCTURE_TYPE_MEMORY_BARRIER;
  barrier.srcAccessMask = VK_ACCESS_TRANSFER_WRITE_BIT | VK_ACCESS_SHADER_WRITE_BIT;
  barrier.dstAccessMask = VK_ACCESS_TRANSFER_READ_BIT | VK_ACCESS_TRANSFER_WRITE_BIT |
                          VK_ACCESS_SHADER_READ_BIT | VK_ACCESS_SHADER_WRITE_BIT |
                          VK_ACCESS_HOST_READ_BIT;
  constexpr VkPipelineStageFlags kDevice =
      VK_PIPELINE_STAGE_TRANSFER_BIT | VK_PIPELINE_STAGE_COMPUTE_SHADER_BIT;
  vkCmdPipelineBarrier(cmd, kDevice, kDevice | VK_PIPELINE_STAGE_HOST_BIT, 0, 1, &barrier, 0,
                       nullptr, 0, nullptr);
}

VulkanBuffer::VulkanBuffer(VulkanBuffer&& other) noexcept { *this = std::move(other); }

VulkanBuffer& VulkanBuffer::operator=(VulkanBuffer&& other) noexcept {
  if (this == &other) return *this;
  destroy();
  ctx_ = std::exchange(other.ctx_, nullptr);
  buffer_ = std::exchange(other.buffer_, VK_NULL_HANDLE);
  memory_ = std::exchange(other.memory_, VK_NULL_HANDLE);
  size_ = std::exchange(other.size_, 0);
  hostVisible_ = std::exchange(other.hostVisible_, false);
  return *this;
}

Status VulkanBuffer::create(VulkanContext& ctx, size_t size, BufferUse use) {
  if (valid()) return {};
  if (size == 0) return invalidFormat("create: bad size");
  if (ctx.device() == VK_NULL_HANDLE) {
    return invalidFormat("create: uninitialized");
  }
  ctx_ = &ctx;
  size_ = size;
  hostVisible_ = use != BufferUse::DeviceLocal;
  Status status = createBuffer();
  if (status.ok()) status = allocateMemory(use);
  if (status.ok() && vkBindBufferMemory(ctx.device(), buffer_, memory_, 0) != VK_SUCCESS) {
    status = ioError("vkBindBufferMemory failed");
  }
  if (!status.ok()) destroy();
  return status;
}

Status VulkanBuffer::createBuffer() {
  VkBufferCreateInfo info{};
  info.sType = VK_STRUCTURE_TYPE_BUFFER_CREATE_INFO;
  info.size = size_;
  info.usage = VK_BUFFER_USAGE_STORAGE_BUFFER_BIT | VK_BUFFER_USAGE_TRANSFER_SRC_BIT |
               VK_BUFFER_USAGE_TRANSFER_DST_BIT;
  info.sharingMode = VK_SHARING_MODE_EXCLUSIVE;
  VkBuffer buffer = VK_NULL_HANDLE;
  if (vkCreateBuffer(ctx_->device(), &info, nullptr, &buffer) != VK_SUCCESS) {
    return ioError("vkCreateBuffer failed");
  }
  buffer_ = buffer;
  return {};
}

// What serves best may be used up: a window of a card that other programs use as well.
Status VulkanBuffer::allocateMemory(BufferUse use) {
  VkMemoryRequirements requirements{};
  vkGetBufferMemoryRequirements(ctx_->device(), buffer_, &requirements);
  uint32_t needed = 0;
  if (!findMemoryType(*ctx_, requirements.memoryTypeBits, neededFor(use), needed)) {
    return unsupported("no suitable memory type");
  }
  uint32_t best = needed;
  findMemoryType(*ctx_, requirements.memoryTypeBits, bestFor(use), best);
  if (allocateFrom(requirements, best)) return {};
  if (best != needed && allocateFrom(requirements, needed)) return {};
  return ioError("vkAllocateMemory failed");
}

bool VulkanBuffer::allocateFrom(const VkMemoryRequirements& requirements, uint32_t type) {
  VkMemoryAllocateInfo info{};
  info.sType = VK_STRUCTURE_TYPE_MEMORY_ALLOCATE_INFO;
  info.allocationSize = requirements.size;
  info.memoryTypeIndex = type;
  VkDeviceMemory memory = VK_NULL_HANDLE;
  if (vkAllocateMemory(ctx_->device(), &info, nullptr, &memory) != VK_SUCCESS) return false;
  memory_ = memory;
  return true;
}

void VulkanBuffer::adopt(VkBuffer buffer, size_t size) {
  destroy();
  buffer_ = buffer;
  size_ = size;
}

void VulkanBuffer::destroy() {
  if (ctx_ != nullptr && ctx_->device() != VK_NULL_HANDLE) {
    if (buffer_ != VK_NULL_HANDLE) vkDestroyBuffer(ctx_->device(), buffer_, nullptr);
    if (memory_ != VK_NULL_HANDLE) vkFreeMemory(ctx_->device(), memory_, nullptr);
  }
  ctx_ = nullptr;
  buffer_ = VK_NULL_HANDLE;
  memory_ = VK_NULL_HANDLE;
  size_ = 0;
  hostVisible_ = false;
}

Status VulkanBuffer::map(void** out) {
  if (out == nullptr || memory_ == VK_NULL_HANDLE) {
    return invalidFormat("map: not created");
  }
  if (!hostVisible_) return unsupported("map: buffer is device-local");
  if (vkMapMemory(ctx_->device(), memory_, 0, size_, 0, out) != VK_SUCCESS) {
    return ioError("vkMapMemory failed");
  }
  return {};
}

void VulkanBuffer::unmap() {
  if (ctx_ != nullptr && memory_ != VK_NULL_HANDLE) vkUnmapMemory(ctx_->device(), memory_);
}

Status VulkanBuffer::upload(const void* data, size_t bytes) {
  if (data == nullptr || bytes > size_) return invalidFormat("upload: bad size");
  if (bytes == 0) return {};
  if (hostVisible_) {
    void* mapped = nullptr;
    if (Status status = map(&mapped); !status.ok()) return status;
    std::copy_n(static_cast<const uint8_t*>(data), bytes, static_cast<uint8_t*>(mapped));
    unmap();
    return {};
  }
  if (ctx_ == nullptr) return invalidFormat("map: not created");
  VulkanBuffer staging;
  Status status = staging.create(*ctx_, bytes, /*hostVisible=*/true);
  if (status.ok()) status = staging.upload(data, bytes);
  if (status.ok()) status = copyFrom(*ctx_, staging, bytes);
  return status;
}

Status VulkanBuffer::download(void* data, size_t bytes) {
  if (data == nullptr || bytes > size_) return invalidFormat("download: bad size");
  if (bytes == 0) return {};
  if (hostVisible_) {
    void* mapped = nullptr;
    if (Status status = map(&mapped); !status.ok()) return status;
    std::copy_n(static_cast<const uint8_t*>(mapped), bytes, static_cast<uint8_t*>(data));
    unmap();
    return {};
  }
  if (ctx_ == nullptr) return invalidFormat("map: not created");
  VulkanBuffer staging;
  Status status = staging.create(*ctx_, bytes, BufferUse::HostReads);
  if (status.ok()) status = staging.copyFrom(*ctx_, *this, bytes);
  if (status.ok()) status = staging.download(data, bytes);
  return status;
}

Status VulkanBuffer::copyFrom(VulkanContext& ctx, const VulkanBuffer& src, size_t bytes) {
  if (bytes == 0) return {};
  VkCommandBuffer cmd = VK_NULL_HANDLE;
  if (Status status = ctx.beginCommand(&cmd); !status.ok()) return status;
  const VkBufferCopy region = {.srcOffset = 0, .dstOffset = 0, .size = bytes};
  vkCmdCopyBuffer(cmd, src.handle(), buffer_, 1, &region);
  recordFullBarrier(cmd);
  return ctx.submitAndWait(cmd);
}

}  // namespace kiv::vulkan
