// SPDX-License-Identifier: Apache-2.0
/// \file
/// A compute shader made ready to run: pipeline, layouts, and a pool of
/// descriptor sets.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kiv/status.h"
#include "kiv/vulkan/vulkan_buffer.h"
#include "kiv/vulkan/vulkan_context.h"

namespace kiv::vulkan {

/// Empty, or ready after create(). All bindings are storage buffers of set 0,
/// numbered from 0. One thread at a time; the context must outlive the kernel.
class VulkanKernel {
 public:
  /// Sets that can be allocated between two resets, the default one included.
  static constexpr uint32_t kMaxSets = 4096;

  VulkanKernel() = default;
  ~VulkanKernel() { destroy(); }
  VulkanKernel(const VulkanKernel&) = delete;
  VulkanKernel& operator=(const VulkanKernel&) = delete;

  /// From SPIR-V with the entry point "main", `bindingCount` bindings and
  /// `pushSize` bytes of push constants (0 for none). Success at once on a ready
  /// kernel. InvalidFormat "create: uninitialized" for an empty context, IOError
  /// "<the call> failed", or the status of checkShaderNeeds() or createShaderModule(); what
  /// had been made by then is released by destroy() or the next create().
  Status create(VulkanContext& ctx, const uint32_t* code, size_t wordCount, uint32_t bindingCount,
                uint32_t pushSize);
  /// Releases everything; may be repeated.
  void destroy();

  VkPipeline pipeline() const { return pipeline_; }  ///< null when empty

  /// A further set, valid until resetSets(); null when the pool is empty or the
  /// kernel is.
  VkDescriptorSet allocSet();
  /// Takes back every set that was handed out. No command that uses one may be
  /// running. The default set is ready again afterwards, with nothing bound.
  void resetSets();

  /// Binds buffer i, whole, to binding i of the default set. InvalidFormat
  /// "bindBuffers: count exceeds layout" for too many buffers.
  Status bindBuffers(VulkanContext& ctx, VulkanBuffer* const* buffers, uint32_t count);
  /// bindBuffers() for `set`. InvalidFormat "bindBuffersTo: bad args" for too many
  /// buffers, no list, no set.
  Status bindBuffersTo(VulkanContext& ctx, VulkanBuffer* const* buffers, uint32_t count,
                       VkDescriptorSet set);

  /// Records x * y * z workgroups with the default set. `push` may be null, for
  /// kernels without push constants.
  void dispatch(VkCommandBuffer cmd, uint32_t x, uint32_t y, uint32_t z, const void* push,
                size_t pushBytes);
  /// dispatch() with `set`.
  void dispatchTo(VkCommandBuffer cmd, VkDescriptorSet set, uint32_t x, uint32_t y, uint32_t z,
                  const void* push, size_t pushBytes);

 private:
  Status createSetLayout();
  Status createPipelineLayout();
  Status createPipeline(const uint32_t* code, size_t wordCount);
  Status createPool();

  VulkanContext* ctx_ = nullptr;
  VkDescriptorSetLayout setLayout_ = VK_NULL_HANDLE;
  VkPipelineLayout pipelineLayout_ = VK_NULL_HANDLE;
  VkPipeline pipeline_ = VK_NULL_HANDLE;
  VkDescriptorPool pool_ = VK_NULL_HANDLE;
  VkDescriptorSet set_ = VK_NULL_HANDLE;
  uint32_t bindingCount_ = 0;
  uint32_t pushSize_ = 0;
  bool ready_ = false;
};

}  // namespace kiv::vulkan
