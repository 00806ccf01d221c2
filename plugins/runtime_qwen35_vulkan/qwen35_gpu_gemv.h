// SPDX-License-Identifier: Apache-2.0
/// \file
/// Matrix-vector products of the decoder on the GPU. Every product may be
/// declined, whatever the reason; the CPU then computes it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "kiv/gpu_model_loader.h"
#include "kiv/tensor.h"
#include "kiv/vulkan/vulkan_buffer.h"
#include "kiv/vulkan/vulkan_kernel.h"
#include "qwen35_layer_plan.h"

namespace qwen35gpu {

/// Declines everything until init(). The loader must outlive it. Products are
/// synchronous; one thread at a time.
class GpuGemv {
 public:
  GpuGemv() = default;
  ~GpuGemv() { destroy(); }
  GpuGemv(const GpuGemv&) = delete;
  GpuGemv& operator=(const GpuGemv&) = delete;

  /// Makes the kernels for Q4_K, Q6_K and Q5_K weights on `gpu`'s device; false
  /// when one cannot be made, or `gpu` is not initialised.
  bool init(kiv::GPUModelLoader& gpu);
  /// Releases kernels and buffers; may be repeated.
  void destroy();
  bool good() const { return ok_; }  ///< init() succeeded

  /// Replaces the plan, as LayerPlan::set() does.
  bool setPlan(size_t nLayers, const std::string& plan) { return plan_.set(nLayers, plan); }
  /// Whether the plan lets that tensor use the GPU, as LayerPlan::allows() says.
  bool planAllows(const std::string& name) const { return plan_.allows(name); }

  /// y = W x for the resident K-quantised matrix of that name with rows of `cols`
  /// elements. `y` gets a float for each of its rows. False, with `y` untouched, when
  /// there is no such matrix or the device cannot compute the product. Does not look at
  /// the plan.
  bool gemvByName(const std::string& name, const float* x, uint64_t cols, float* y);
  /// gemvByName() for a tensor at hand; `rows` and `cols` must be its extents. A tensor
  /// with rows of no bytes is declined.
  bool run(const kiv::GPUTensorView& w, uint32_t rows, uint32_t cols, const float* x, float* y);

  /// Products computed on the device since construction.
  uint64_t productCount() const { return products_; }

 private:
  // What one dispatch on this device can take.
  struct Limits {
    uint64_t workgroups = 0;
    uint64_t bufferBytes = 0;
  };

  bool fits(const kiv::GPUTensorView& w, uint64_t rows, uint64_t cols) const;
  kiv::vulkan::VulkanKernel& kernelFor(kiv::DType type);
  bool ensureBuffer(kiv::vulkan::VulkanBuffer& buffer, size_t bytes);
  bool dispatch(kiv::vulkan::VulkanKernel& kernel, const kiv::GPUTensorView& w, uint32_t rows,
                uint32_t cols);

  kiv::GPUModelLoader* gpu_ = nullptr;
  kiv::vulkan::VulkanKernel kQ4_;
  kiv::vulkan::VulkanKernel kQ6_;
  kiv::vulkan::VulkanKernel kQ5_;
  kiv::vulkan::VulkanBuffer bx_;
  kiv::vulkan::VulkanBuffer by_;
  bool ok_ = false;
  LayerPlan plan_;
  Limits limits_;
  uint64_t products_ = 0;
};

/// The hook of qwen35::Model, with a GpuGemv as `ctx`. Declines the products of tensors
/// that its plan keeps on the CPU. Never throws.
bool gemvAdapter(void* ctx, const kiv::TensorView* w, const float* x, float* y) noexcept;

}  // namespace qwen35gpu
