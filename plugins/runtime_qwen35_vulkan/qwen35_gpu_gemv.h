// SPDX-License-Identifier: Apache-2.0
/// \file
/// Matrix-vector products of the decoder on the GPU. Every product may be
/// declined, whatever the reason; the CPU then computes it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "kiv/gpu_model_loader.h"
#include "kiv/tensor.h"
#include "qwen35_gpu_products.h"
#include "qwen35_layer_plan.h"

namespace qwen35gpu {

/// Declines everything until init(), and again once the device is lost. The loader must outlive
/// it. Products are synchronous; one thread at a time.
class GpuGemv {
 public:
  GpuGemv() = default;
  ~GpuGemv() { destroy(); }
  GpuGemv(const GpuGemv&) = delete;
  GpuGemv& operator=(const GpuGemv&) = delete;

  /// Makes the kernels for Q4_K, Q6_K and Q5_K weights on `gpu`'s device, and releases what it had
  /// on another; false when one cannot be made, or `gpu` is not initialised.
  bool init(kiv::GPUModelLoader& gpu);
  const std::string& problem() const { return problem_; }  ///< why init() failed
  /// Releases kernels and buffers; may be repeated.
  void destroy();
  bool good() const { return products_.ready(); }  ///< init() succeeded

  /// Replaces the plan, as LayerPlan::set() does.
  bool setPlan(size_t nLayers, const std::string& plan) { return plan_.set(nLayers, plan); }
  /// Whether the plan lets that tensor use the GPU, as LayerPlan::allows() says.
  bool planAllows(const std::string& name) const { return plan_.allows(name); }

  /// y = W x for the resident K-quantised matrix of that name with rows of `cols`
  /// elements. `y` gets a float for each of its rows. False, with `y` untouched, when
  /// there is no such matrix or the device cannot compute the product. Does not look at
  /// the plan.
  bool gemvByName(const std::string& name, const float* x, uint64_t cols, float* y);
  /// gemvByName() for several matrices, at most GpuProducts::kMost, of rows as long as the first's,
  /// in one submission; their first extents tell the length. Of those that the plan allows: bit i
  /// of the result is set when y[i] was computed. When the submission fails, none was.
  uint32_t gemvTogether(std::span<const kiv::TensorView* const> matrices, std::span<float* const> y,
                        const float* x);
  /// gemvByName() for a tensor at hand; `rows` and `cols` must be its extents. A tensor
  /// with rows of no bytes is declined.
  bool run(const kiv::GPUTensorView& w, uint32_t rows, uint32_t cols, const float* x, float* y);

  /// The resident matrices of which the plan leaves the products to the device, and those of them
  /// that are beyond its limits.
  struct Fit {
    size_t matrices = 0;          ///< of a K type
    size_t declined = 0;          ///< beyond a limit
    uint64_t largestBytes = 0;    ///< of those declined
    uint64_t mostBytes = 0;       ///< that the device takes
    uint64_t mostWorkgroups = 0;  ///< that the device takes, of two rows each
  };
  Fit fit() const;  ///< of the attached loader

  /// Products computed on the device since construction.
  uint64_t productCount() const { return productCount_; }

 private:
  bool findProduct(const std::string& name, uint64_t cols, GpuProduct& out);
  bool compute(std::span<const GpuProduct> group, const float* x);

  kiv::GPUModelLoader* gpu_ = nullptr;
  uint64_t loads_ = 0;  // of gpu_, as far as products_ knows
  GpuProducts products_;
  GpuProductLimits limits_;
  LayerPlan plan_;
  uint64_t productCount_ = 0;
  std::string problem_;
};

/// The hook of qwen35::Model, with a GpuGemv as `ctx`. Declines the products of tensors
/// that its plan keeps on the CPU. Never throws.
bool gemvAdapter(void* ctx, const kiv::TensorView* w, const float* x, float* y) noexcept;
/// The same model's hook for groups.
uint32_t gemvGroupAdapter(void* ctx, const kiv::TensorView* const* w, float* const* y, size_t count,
                          const float* x) noexcept;

}  // namespace qwen35gpu
