// SPDX-License-Identifier: Apache-2.0
/// \file
/// The weights of one model in device memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "kiv/gpu_memory.h"
#include "kiv/gpu_tensor.h"
#include "kiv/status.h"
#include "kiv/vulkan/vulkan_context.h"
#include "kiv/zem_loader.h"

namespace kiv {

/// Owns a Vulkan context, one pool of device memory, a staging buffer of 64 MiB
/// and a buffer for each tensor. Empty until init(), without weights until a
/// load. One thread at a time.
class GPUModelLoader {
 public:
  /// Bytes of the staging buffer, and so of one transfer.
  static constexpr uint64_t kStagingBytes = uint64_t{64} << 20;

  /// True for the name of a tensor that should be resident.
  using TensorFilter = bool (*)(const char* name);

  GPUModelLoader() = default;
  ~GPUModelLoader() { release(); }
  GPUModelLoader(const GPUModelLoader&) = delete;
  GPUModelLoader& operator=(const GPUModelLoader&) = delete;

  /// Releases everything and sets up a context on the device that `deviceIndex`
  /// selects, as VulkanContext::init() does.
  Status init(uint64_t deviceIndex);
  /// Releases everything, the context included; may be repeated.
  void release();

  /// Copies all tensors to the device, but for those that are larger than one allocation of it
  /// may be: leftOut() counts them. Load once after init(): what an earlier load made is
  /// released first. `loader` is only read, and not kept. After a failure no tensor is resident;
  /// release() frees what was built. InvalidFormat "GPUModelLoader: not
  /// initialized" and "GPUModelLoader: tensor outside the file", IOError or
  /// Unsupported "GPUModelLoader: <what failed>", and the allocator's and the
  /// context's own failures.
  Status loadWeightsToGPU(ZEMLoader& loader) { return loadWeightsToGPUFiltered(loader, nullptr); }
  /// loadWeightsToGPU() for those tensors that `filter` wants; null wants all.
  Status loadWeightsToGPUFiltered(ZEMLoader& loader, TensorFilter filter);

  /// Copies a resident tensor's bytes to `dst` (view.size bytes), to check an
  /// upload. InvalidFormat "GPUModelLoader: not initialized" for a null `dst` and
  /// while no tensor is resident, Unsupported "GPUModelLoader: tensor too large to
  /// verify" above 64 MiB, IOError "GPUModelLoader: staging map failed", and the
  /// context's own failures.
  Status downloadTensor(const GPUTensorView& view, void* dst);

  /// Residency by layer is not offered: Unsupported "GPUModelLoader: partial mode
  /// not enabled", and nothing.
  Status reserveLayer(ZEMLoader& loader, uint64_t layer);
  /// Does nothing.
  void releaseLayer(uint64_t layer);

  /// Null: no such tensor is resident. Valid until the next load or release().
  const GPUTensorView* findTensor(const std::string& name) const;
  /// Resident tensors in the order of their names.
  size_t tensorCount() const { return views_.size(); }
  /// `index` must be below tensorCount().
  const GPUTensorView& tensorAt(size_t index) const { return views_[index]; }

  /// Loads so far: what an earlier one made is gone.
  uint64_t loadCount() const { return loadCount_; }
  /// Tensors of the last load that one allocation of this device cannot hold.
  size_t leftOut() const { return leftOut_; }

  bool valid() const { return valid_; }              ///< init() succeeded
  vulkan::VulkanContext& context() { return ctx_; }  ///< empty before init()
  /// The whole pool, or the first block of a pool of several.
  VkBuffer buffer() const { return poolBuffers_.empty() ? VK_NULL_HANDLE : poolBuffers_[0]; }
  uint64_t vramUsed() const { return alloc_.stats().usedVRAM; }      ///< bytes of the pool
  VRAMAllocator::Stats vramStats() const { return alloc_.stats(); }  ///< of the pool
  const GpuInfo& gpuInfo() const { return alloc_.info(); }           ///< of the pool's device
  const VRAMAllocator& pool() const { return alloc_; }               ///< invalid before a load

 private:
  Status selectTensors(const ZEMLoader& loader, TensorFilter filter,
                       std::vector<const TensorView*>& out);
  uint64_t poolBytes(const std::vector<const TensorView*>& tensors) const;
  Status setupPool(uint64_t poolSize);
  Status createPoolBuffers();
  Status bindPoolBuffers();
  Status createStaging();
  Status placeTensors(const std::vector<const TensorView*>& tensors);
  Status uploadTensors(const std::vector<const TensorView*>& tensors);
  Status uploadTensor(const TensorView& tensor, uint64_t offset, void* staging);
  Status uploadRange(uint64_t offset, uint64_t bytes);
  Status createTensorBuffers();
  Status createTensorBuffer(GPUTensorView& view);
  Status createBuffer(uint64_t bytes, VkBufferUsageFlags usage, const char* message, VkBuffer& out);
  VkBuffer poolBufferAt(uint64_t offset) const;
  bool bindToPool(VkBuffer buffer, uint64_t offset);
  void releaseBuffers();

  vulkan::VulkanContext ctx_;
  VRAMAllocator alloc_;
  std::vector<VkBuffer> poolBuffers_;  // one over each block of the pool
  std::vector<VkBuffer> tensorBuffers_;
  VkBuffer staging_ = VK_NULL_HANDLE;
  VkDeviceMemory stagingMem_ = VK_NULL_HANDLE;
  std::vector<GPUTensorView> views_;
  uint64_t loadCount_ = 0;
  size_t leftOut_ = 0;
  bool valid_ = false;
};

}  // namespace kiv
