// SPDX-License-Identifier: Apache-2.0
#include "kiv/gpu_memory.h"

#include <algorithm>
#include <bit>
#include <optional>

namespace kiv {
namespace {

constexpr uint64_t kDefaultPool = uint64_t{8} << 30;
constexpr uint64_t kSmallPool = uint64_t{2} << 30;
// Devices round a buffer's need for memory up to its alignment; a buffer over
// the whole pool must still fit.
constexpr uint64_t kAllocationUnit = 65536;

bool isDeviceLocal(VkMemoryPropertyFlags flags) {
  return (flags & VK_MEMORY_PROPERTY_DEVICE_LOCAL_BIT) != 0;
}

uint64_t largestDeviceHeap(const VkPhysicalDeviceMemoryProperties& memory) {
  uint64_t largest = 0;
  for (uint32_t i = 0; i < memory.memoryHeapCount; ++i) {
    const VkMemoryHeap& heap = memory.memoryHeaps[i];
    if ((heap.flags & VK_MEMORY_HEAP_DEVICE_LOCAL_BIT) != 0) {
      largest = std::max<uint64_t>(largest, heap.size);
    }
  }
  return largest;
}

std::optional<uint32_t> choosePoolType(const VkPhysicalDeviceMemoryProperties& memory,
                                       uint64_t poolSize) {
  std::optional<uint32_t> chosen;
  for (uint32_t i = 0; i < memory.memoryTypeCount; ++i) {
    const VkMemoryPropertyFlags flags = memory.memoryTypes[i].propertyFlags;
    if (!isDeviceLocal(flags)) continue;
    chosen = i;
    const bool hostVisible = (flags & VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT) != 0;
    if (hostVisible && poolSize <= kSmallPool) break;
  }
  return chosen;
}

uint64_t roundUp(uint64_t value, uint64_t powerOfTwo) {
  return (value + powerOfTwo - 1) & ~(powerOfTwo - 1);
}

// What to ask of the device for a pool of `poolSize` bytes; no more than the
// heap has, and 0 when the heap is smaller than the pool.
uint64_t allocationBytes(uint64_t poolSize, uint64_t heapSize) {
  if (poolSize > heapSize) return 0;
  return std::min(roundUp(poolSize, kAllocationUnit), heapSize);
}

}  // namespace

Status VRAMAllocator::init(vulkan::VulkanContext& ctx, uint64_t poolSize) {
  destroy();
  ctx_ = &ctx;
  VkPhysicalDeviceMemoryProperties memory{};
  vkGetPhysicalDeviceMemoryProperties(ctx.physicalDevice(), &memory);
  info_ = {.name = ctx.info().deviceName,
           .driver = ctx.info().driverVersion,
           .totalVRAM = largestDeviceHeap(memory),
           .apiVersion = ctx.info().apiVersion,
           .valid = false};
  if (poolSize == 0) poolSize = std::min(info_.totalVRAM, kDefaultPool);
  const std::optional<uint32_t> type = choosePoolType(memory, poolSize);
  if (!type) return unsupported("VRAMAllocator: no device-local memory");

  VkMemoryAllocateInfo info{};
  info.sType = VK_STRUCTURE_TYPE_MEMORY_ALLOCATE_INFO;
  info.memoryTypeIndex = *type;
  info.allocationSize =
      allocationBytes(poolSize, memory.memoryHeaps[memory.memoryTypes[*type].heapIndex].size);
  VkDeviceMemory pool = VK_NULL_HANDLE;
  if (info.allocationSize == 0 ||
      vkAllocateMemory(ctx.device(), &info, nullptr, &pool) != VK_SUCCESS) {
    return ioError("VRAMAllocator: vkAllocateMemory failed");
  }
  memory_ = pool;
  memoryType_ = *type;
  memoryBytes_ = info.allocationSize;
  poolSize_ = poolSize;
  free_ = {{.offset = 0, .size = poolSize}};
  info_.valid = true;
  valid_ = true;
  return {};
}

void VRAMAllocator::destroy() {
  if (memory_ != VK_NULL_HANDLE && ctx_ != nullptr && ctx_->device() != VK_NULL_HANDLE) {
    vkFreeMemory(ctx_->device(), memory_, nullptr);
  }
  memory_ = VK_NULL_HANDLE;
  memoryBytes_ = 0;
  poolSize_ = 0;
  used_ = 0;
  free_.clear();
  info_ = {};
  valid_ = false;
}

Status VRAMAllocator::allocate(uint64_t size, uint64_t alignment, uint64_t& offset) {
  if (!valid_) return invalidFormat("VRAMAllocator: not initialized");
  if (!std::has_single_bit(alignment)) return invalidFormat("VRAMAllocator: bad alignment");
  size = std::max<uint64_t>(size, 1);
  for (auto block = free_.begin(); block != free_.end(); ++block) {
    const uint64_t padding = roundUp(block->offset, alignment) - block->offset;
    if (block->size < padding || block->size - padding < size) continue;
    offset = block->offset + padding;
    used_ += size;
    const FreeBlock tail = {.offset = offset + size, .size = block->size - padding - size};
    if (padding == 0) {
      *block = tail;
      if (tail.size == 0) free_.erase(block);
    } else {
      block->size = padding;
      if (tail.size != 0) free_.insert(block + 1, tail);
    }
    return {};
  }
  return invalidFormat("VRAMAllocator: pool exhausted");
}

void VRAMAllocator::free(uint64_t offset, uint64_t size) {
  if (!valid_ || size == 0) return;
  used_ -= std::min(used_, size);
  const auto behind = std::find_if(free_.begin(), free_.end(),
                                   [offset](const FreeBlock& b) { return b.offset >= offset; });
  auto block = free_.insert(behind, {.offset = offset, .size = size});
  if (block != free_.begin() && (block - 1)->offset + (block - 1)->size == offset) {
    (block - 1)->size += size;
    block = free_.erase(block) - 1;
  }
  const auto next = block + 1;
  if (next != free_.end() && next->offset == block->offset + block->size) {
    block->size += next->size;
    free_.erase(next);
  }
}

VRAMAllocator::Stats VRAMAllocator::stats() const {
  return {.totalVRAM = info_.totalVRAM,
          .usedVRAM = used_,
          .freeVRAM = info_.totalVRAM - std::min(info_.totalVRAM, used_)};
}

}  // namespace kiv
