// SPDX-License-Identifier: Apache-2.0
/// \file
/// One large pool of device memory, handed out in aligned ranges, so that all
/// weights of a model share a single allocation, or a few where a device limits their size.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kiv/status.h"
#include "kiv/vulkan/vulkan_context.h"

namespace kiv {

/// The device behind a pool, for people to read.
struct GpuInfo {
  std::string name;         ///< the device's
  std::string driver;       ///< "major.minor.patch"
  uint64_t totalVRAM = 0;   ///< bytes of the largest device-local heap
  uint32_t apiVersion = 0;  ///< as Vulkan packs it
  bool valid = false;       ///< filled in
};

/// Invalid until init(). First fit over a list of free ranges; no second pool, no
/// compaction. The pool is one block of memory, or, where the device limits the size of an
/// allocation, as many as it takes; no range spans two blocks. One thread at a time; the context
/// must outlive the allocator.
class VRAMAllocator {
 public:
  /// Bytes. The total is the device's, not the pool's.
  struct Stats {
    uint64_t totalVRAM = 0;  ///< of the largest device-local heap
    uint64_t usedVRAM = 0;   ///< handed out
    uint64_t freeVRAM = 0;   ///< left in the pool
  };

  /// One allocation of the pool.
  struct Block {
    VkDeviceMemory memory = VK_NULL_HANDLE;  ///< owned by the allocator
    VkDeviceSize offset = 0;                 ///< of its first byte in the pool
    uint64_t size = 0;                       ///< bytes of the pool in it
    uint64_t memoryBytes = 0;                ///< bytes of `memory`, a little more than `size`
  };

  VRAMAllocator() = default;
  ~VRAMAllocator() { destroy(); }
  VRAMAllocator(const VRAMAllocator&) = delete;
  VRAMAllocator& operator=(const VRAMAllocator&) = delete;

  /// Takes a pool of `poolSize` bytes, or, for 0, of the largest device-local
  /// heap but at most 8 GiB. A pool of up to 2 GiB lies in the first device-local
  /// memory type that the host can see, any other in the last device-local one;
  /// poolMemoryTypes() tells what replaces a type that cannot hold it.
  /// An earlier pool is released first. Unsupported "VRAMAllocator: no
  /// device-local memory", IOError "VRAMAllocator: vkAllocateMemory failed".
  Status init(vulkan::VulkanContext& ctx, uint64_t poolSize);
  /// Releases the pool and forgets the device; may be repeated.
  void destroy();

  /// Reserves `size` bytes (0 counts as 1) at a multiple of `alignment`, a power
  /// of two, and stores where. InvalidFormat "VRAMAllocator: not initialized",
  /// "VRAMAllocator: pool exhausted", "VRAMAllocator: bad alignment".
  Status allocate(uint64_t size, uint64_t alignment, uint64_t& offset);
  /// Gives back exactly what allocate() handed out: nothing else is noticed.
  void free(uint64_t offset, uint64_t size);

  Stats stats() const;                           ///< zero before init()
  const GpuInfo& info() const { return info_; }  ///< of the pool's device
  /// The first block's, owned by the allocator.
  VkDeviceMemory memory() const { return blocks_.empty() ? VK_NULL_HANDLE : blocks_[0].memory; }
  VkDeviceSize poolSize() const { return poolSize_; }  ///< bytes
  /// The memory type of the device that the pool lies in.
  uint32_t memoryType() const { return memoryType_; }
  const std::vector<Block>& blocks() const { return blocks_; }  ///< by offset
  /// The block of a range that allocate() handed out.
  const Block& blockAt(uint64_t offset) const;

  /// What the last init() asked the device for, with the numbers, for people.
  const std::string& attempt() const { return attempt_; }

  /// The most bytes of one block, and so of one range, on `ctx`'s device.
  static uint64_t blockLimit(const vulkan::VulkanContext& ctx);

 private:
  struct FreeBlock {
    VkDeviceSize offset = 0;
    uint64_t size = 0;
  };

  bool takePool(uint64_t poolSize, uint64_t bytes);
  void freeBlocks();
  bool beginsBlock(uint64_t offset) const;

  vulkan::VulkanContext* ctx_ = nullptr;
  std::vector<Block> blocks_;
  VkDeviceSize poolSize_ = 0;
  uint64_t used_ = 0;
  std::vector<FreeBlock> free_;  // ascending, apart from each other
  GpuInfo info_;
  std::string attempt_;
  bool valid_ = false;
  uint32_t memoryType_ = 0;
};

}  // namespace kiv
