// SPDX-License-Identifier: Apache-2.0
#include "kiv/gpu_memory_type.h"

#include <algorithm>
#include <limits>
#include <optional>

namespace kiv {
namespace {

constexpr uint64_t kSmallPool = uint64_t{2} << 30;
constexpr VkMemoryPropertyFlags kPlainProperties =
    VK_MEMORY_PROPERTY_DEVICE_LOCAL_BIT | VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT |
    VK_MEMORY_PROPERTY_HOST_COHERENT_BIT | VK_MEMORY_PROPERTY_HOST_CACHED_BIT;

// The memory types of one device, seen by a pool of one size.
class PoolMemory {
 public:
  PoolMemory(const VkPhysicalDeviceMemoryProperties& memory, uint64_t poolSize,
             uint32_t bufferTypes)
      : memory_(memory), poolSize_(poolSize), bufferTypes_(bufferTypes) {}

  std::optional<uint32_t> firstChoice() const {
    std::optional<uint32_t> chosen;
    for (uint32_t i = 0; i < memory_.memoryTypeCount; ++i) {
      if (!has(i, VK_MEMORY_PROPERTY_DEVICE_LOCAL_BIT)) continue;
      chosen = i;
      if (has(i, VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT) && poolSize_ <= kSmallPool) break;
    }
    return chosen;
  }

  // The usable type with the largest heap; among equals one that the host does not see, then the
  // lowest.
  std::optional<uint32_t> largest() const {
    std::optional<uint32_t> best;
    for (uint32_t i = 0; i < memory_.memoryTypeCount; ++i) {
      if (!has(i, VK_MEMORY_PROPERTY_DEVICE_LOCAL_BIT) || !isUsable(i)) continue;
      if (!best || isBetter(i, *best)) best = i;
    }
    return best;
  }

  bool isUsable(uint32_t type) const {
    return (flags(type) & ~kPlainProperties) == 0 && (bufferTypes_ >> type & 1U) != 0;
  }
  bool hasRoom(uint32_t type) const { return heapBytes(type) >= poolSize_; }

 private:
  VkMemoryPropertyFlags flags(uint32_t type) const {
    return memory_.memoryTypes[type].propertyFlags;
  }
  bool has(uint32_t type, VkMemoryPropertyFlags wanted) const {
    return (flags(type) & wanted) == wanted;
  }
  uint64_t heapBytes(uint32_t type) const {
    return memory_.memoryHeaps[memory_.memoryTypes[type].heapIndex].size;
  }
  bool isBetter(uint32_t a, uint32_t b) const {
    if (heapBytes(a) != heapBytes(b)) return heapBytes(a) > heapBytes(b);
    constexpr VkMemoryPropertyFlags kPlain = VK_MEMORY_PROPERTY_DEVICE_LOCAL_BIT;
    return flags(a) == kPlain && flags(b) != kPlain;
  }

  const VkPhysicalDeviceMemoryProperties& memory_;
  uint64_t poolSize_;
  uint32_t bufferTypes_;
};

}  // namespace

std::vector<uint32_t> poolMemoryTypes(const VkPhysicalDeviceMemoryProperties& memory,
                                      uint64_t poolSize, uint32_t bufferTypes) {
  const PoolMemory pool(memory, poolSize, bufferTypes);
  const std::optional<uint32_t> first = pool.firstChoice();
  if (!first) return {};
  const std::optional<uint32_t> largest = pool.largest();
  if (!largest || *largest == *first) return {*first};
  if (!pool.isUsable(*first) || !pool.hasRoom(*first)) return {*largest};
  return {*first, *largest};
}

uint32_t storageBufferTypes(const vulkan::VulkanContext& ctx) {
  constexpr uint32_t kAll = std::numeric_limits<uint32_t>::max();
  VkBufferCreateInfo info{};
  info.sType = VK_STRUCTURE_TYPE_BUFFER_CREATE_INFO;
  info.size = kPoolUnit;
  info.usage = VK_BUFFER_USAGE_STORAGE_BUFFER_BIT | VK_BUFFER_USAGE_TRANSFER_DST_BIT |
               VK_BUFFER_USAGE_TRANSFER_SRC_BIT;
  info.sharingMode = VK_SHARING_MODE_EXCLUSIVE;
  VkBuffer buffer = VK_NULL_HANDLE;
  if (vkCreateBuffer(ctx.device(), &info, nullptr, &buffer) != VK_SUCCESS) return kAll;
  VkMemoryRequirements requirements{};
  vkGetBufferMemoryRequirements(ctx.device(), buffer, &requirements);
  vkDestroyBuffer(ctx.device(), buffer, nullptr);
  return requirements.memoryTypeBits;
}

uint64_t poolBlockBytes(uint64_t maxAllocationBytes) {
  const uint64_t whole = maxAllocationBytes / kPoolUnit * kPoolUnit;
  return whole != 0 ? whole : std::numeric_limits<uint64_t>::max() / kPoolUnit * kPoolUnit;
}

}  // namespace kiv
