// SPDX-License-Identifier: Apache-2.0
#include "kiv/gpu_memory.h"

#include <algorithm>
#include <bit>

#include "kiv/gpu_memory_type.h"

namespace kiv {
namespace {

constexpr uint64_t kMebibyte = uint64_t{1} << 20;
constexpr uint64_t kDefaultPool = uint64_t{8} << 30;

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

bool hasChoice(const VkPhysicalDeviceMemoryProperties& memory) {
  const auto* types = memory.memoryTypes;
  return std::count_if(types, types + memory.memoryTypeCount, [](const VkMemoryType& type) {
           return isDeviceLocal(type.propertyFlags);
         }) > 1;
}

uint64_t roundUp(uint64_t value, uint64_t powerOfTwo) {
  return (value + powerOfTwo - 1) & ~(powerOfTwo - 1);
}

// What to ask of the device for a pool of `poolSize` bytes; no more than the
// heap has, and 0 when the heap is smaller than the pool.
uint64_t allocationBytes(uint64_t poolSize, uint64_t heapSize) {
  if (poolSize > heapSize) return 0;
  return std::min(roundUp(poolSize, kPoolUnit), heapSize);
}

std::string mebibytes(uint64_t bytes) {
  return std::to_string(bytes / kMebibyte + (bytes % kMebibyte != 0 ? 1 : 0)) + " MiB";
}

std::string describeAttempt(uint64_t poolSize, uint32_t type, uint64_t heap) {
  return mebibytes(poolSize) + " from memory type " + std::to_string(type) + ", a heap of " +
         std::to_string(heap / kMebibyte) + " MiB";
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
  const uint32_t bufferTypes = hasChoice(memory) ? storageBufferTypes(ctx) : ~0U;
  const std::vector<uint32_t> types = poolMemoryTypes(memory, poolSize, bufferTypes);
  attempt_ = mebibytes(poolSize) + " of device-local memory";
  if (types.empty()) return unsupported("VRAMAllocator: no device-local memory");
  for (const uint32_t type : types) {
    const VkDeviceSize heap = memory.memoryHeaps[memory.memoryTypes[type].heapIndex].size;
    memoryType_ = type;
    attempt_ = describeAttempt(poolSize, type, heap);
    if (!takePool(poolSize, allocationBytes(poolSize, heap))) continue;
    poolSize_ = poolSize;
    info_.valid = true;
    valid_ = true;
    return {};
  }
  return ioError("VRAMAllocator: vkAllocateMemory failed");
}

uint64_t VRAMAllocator::blockLimit(const vulkan::VulkanContext& ctx) {
  return poolBlockBytes(ctx.info().maxAllocationBytes);
}

// `poolSize` bytes in allocations of `bytes` bytes together, or nothing.
bool VRAMAllocator::takePool(uint64_t poolSize, uint64_t bytes) {
  if (bytes == 0) return false;
  const uint64_t most = blockLimit(*ctx_);
  for (uint64_t offset = 0; offset < poolSize; offset += most) {
    VkMemoryAllocateInfo info{};
    info.sType = VK_STRUCTURE_TYPE_MEMORY_ALLOCATE_INFO;
    info.memoryTypeIndex = memoryType_;
    info.allocationSize = std::min(bytes - offset, most);
    VkDeviceMemory memory = VK_NULL_HANDLE;
    if (vkAllocateMemory(ctx_->device(), &info, nullptr, &memory) != VK_SUCCESS) {
      freeBlocks();
      return false;
    }
    const uint64_t size = std::min(poolSize - offset, most);
    blocks_.push_back(
        {.memory = memory, .offset = offset, .size = size, .memoryBytes = info.allocationSize});
    free_.push_back({.offset = offset, .size = size});
    if (poolSize - offset <= most) break;
  }
  return true;
}

void VRAMAllocator::freeBlocks() {
  for (const Block& block : blocks_) {
    if (ctx_->device() != VK_NULL_HANDLE) vkFreeMemory(ctx_->device(), block.memory, nullptr);
  }
  blocks_.clear();
  free_.clear();
}

void VRAMAllocator::destroy() {
  freeBlocks();
  poolSize_ = 0;
  used_ = 0;
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
  if (block != free_.begin() && (block - 1)->offset + (block - 1)->size == offset &&
      !beginsBlock(offset)) {
    (block - 1)->size += size;
    block = free_.erase(block) - 1;
  }
  const auto next = block + 1;
  if (next != free_.end() && next->offset == block->offset + block->size &&
      !beginsBlock(next->offset)) {
    block->size += next->size;
    free_.erase(next);
  }
}

const VRAMAllocator::Block& VRAMAllocator::blockAt(uint64_t offset) const {
  return blocks_[offset / blockLimit(*ctx_)];
}

// A range never spans two allocations.
bool VRAMAllocator::beginsBlock(uint64_t offset) const {
  return std::any_of(blocks_.begin(), blocks_.end(),
                     [offset](const Block& block) { return block.offset == offset; });
}

VRAMAllocator::Stats VRAMAllocator::stats() const {
  return {.totalVRAM = info_.totalVRAM,
          .usedVRAM = used_,
          .freeVRAM = info_.totalVRAM - std::min(info_.totalVRAM, used_)};
}

}  // namespace kiv
