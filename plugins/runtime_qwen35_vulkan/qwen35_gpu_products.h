// SPDX-License-Identifier: Apache-2.0
/// \file
/// Matrix-vector products that share their vector, as one submission to the device.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <utility>

#include "kiv/gpu_tensor.h"
#include "kiv/status.h"
#include "kiv/vulkan/vulkan_buffer.h"
#include "kiv/vulkan/vulkan_context.h"
#include "kiv/vulkan/vulkan_kernel.h"

namespace qwen35gpu {

/// y = w x for the `rows` x `cols` matrix w.
struct GpuProduct {
  const kiv::GPUTensorView* w = nullptr;  ///< on the device
  uint32_t rows = 0;                      ///< of w
  uint32_t cols = 0;                      ///< of w
  float* y = nullptr;                     ///< gets `rows` floats
  /// The matrix stays where it is until forgetWeights(), so that what is bound for it can be kept.
  bool lasting = false;
};

/// What one dispatch on a device can take.
struct GpuProductLimits {
  uint64_t workgroupsX = 0;  ///< in x
  uint64_t workgroupsY = 0;  ///< in y
  uint64_t bufferBytes = 0;  ///< of what one binding sees

  /// Of the context's device.
  static GpuProductLimits of(const kiv::vulkan::VulkanContext& ctx);
  /// Whether a matrix fits.
  bool take(const kiv::GPUTensorView& w, uint64_t rows, uint64_t cols) const;
};

/// Kernels for Q4_K, Q6_K and Q5_K weights, one command buffer, and buffers for the vectors.
/// Buffers are made at the first use and only grow; a matrix keeps its descriptor set. Once the
/// device is lost, it computes nothing more, and says so once on the standard error stream. One
/// thread at a time; the context must outlive it.
class GpuProducts {
 public:
  static constexpr size_t kMost = 8;  ///< products of one submission

  GpuProducts() = default;
  ~GpuProducts() { destroy(); }
  GpuProducts(const GpuProducts&) = delete;
  GpuProducts& operator=(const GpuProducts&) = delete;

  /// Releases what was there and makes the kernels. After a failure it is empty; the message is
  /// the kernel's, behind the name of the weights.
  kiv::Status create(kiv::vulkan::VulkanContext& ctx);
  /// Releases everything; may be repeated.
  void destroy();
  /// Lasting matrices may be gone or lie elsewhere from now on.
  void forgetWeights();

  bool ready() const { return ctx_ != nullptr; }  ///< create() succeeded

  /// Computes all of `group`, at most kMost products of vectors of the same length at `x`. The
  /// device must take each of them. False, with every y untouched, when it is empty, the device
  /// is lost, or a call fails; what is there can be used again.
  bool run(std::span<const GpuProduct> group, const float* x);

 private:
  // A mapped buffer of floats.
  struct Vector {
    kiv::vulkan::VulkanBuffer buffer;
    float* data = nullptr;
  };

  bool hold(Vector& vector, size_t count, kiv::vulkan::BufferUse use);
  bool record(std::span<const GpuProduct> group);
  bool recordProduct(const GpuProduct& product, size_t slot);
  VkDescriptorSet setFor(const GpuProduct& product, size_t slot);
  VkDescriptorSet boundSet(const GpuProduct& product, size_t slot, VkDescriptorSet set);
  void discardCommand();
  kiv::vulkan::VulkanKernel& kernelFor(kiv::DType type);

  kiv::vulkan::VulkanContext* ctx_ = nullptr;
  GpuProductLimits limits_;
  kiv::vulkan::VulkanKernel kQ4_;
  kiv::vulkan::VulkanKernel kQ6_;
  kiv::vulkan::VulkanKernel kQ5_;
  VkCommandBuffer cmd_ = VK_NULL_HANDLE;
  Vector x_;
  std::array<Vector, kMost> y_;                                     // by place in the submission
  std::map<std::pair<VkBuffer, size_t>, VkDescriptorSet> lasting_;  // by matrix and place
  std::map<std::pair<kiv::DType, size_t>, VkDescriptorSet> passing_;
  bool saidLost_ = false;
};

}  // namespace qwen35gpu
