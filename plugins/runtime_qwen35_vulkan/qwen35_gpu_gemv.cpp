// SPDX-License-Identifier: Apache-2.0
#include "qwen35_gpu_gemv.h"

#include <algorithm>
#include <array>
#include <limits>

#include "kiv/quant/row_codec.h"
#include "kiv/quant_k.h"

namespace qwen35gpu {
namespace {

using kiv::GPUTensorView;
using kiv::quant::kBlock256;

constexpr uint64_t kMostExtent = std::numeric_limits<uint32_t>::max();

// Rows of a matrix with rows of `cols` elements; 0 when it is none that the
// kernels can read. What the file says of its blocks need not be true: the rows
// by bytes must be the rows by shape, for `y` has room for no others.
uint64_t rowsOf(const GPUTensorView& w, uint64_t cols) {
  if (!kiv::isKQuant(w.dtype) || w.ndim < 2 || w.shape[0] != cols || cols % kBlock256 != 0)
    return 0;
  const uint64_t blockBytes = kiv::dtypeBytes(w.dtype, kBlock256);
  if (w.quant.bytesPerBlock != 0 && w.quant.bytesPerBlock != blockBytes) return 0;
  const uint64_t rowBytes = w.rowBytes();
  if (rowBytes == 0 || rowBytes < cols / kBlock256 * blockBytes || w.size % rowBytes != 0) return 0;
  const uint64_t rows = w.size / rowBytes;
  uint64_t left = rows;
  for (uint16_t i = 1; i < w.ndim; ++i) {
    if (w.shape[i] == 0 || left % w.shape[i] != 0) return 0;
    left /= w.shape[i];
  }
  return left == 1 ? rows : 0;
}

}  // namespace

bool GpuGemv::init(kiv::GPUModelLoader& gpu) {
  destroy();
  gpu_ = &gpu;
  loads_ = gpu.loadCount();
  if (!gpu.valid()) {
    problem_ = "no device is set up";
    return false;
  }
  limits_ = GpuProductLimits::of(gpu.context());
  const kiv::Status status = products_.create(gpu.context());
  problem_ = status.message();
  return status.ok();
}

void GpuGemv::destroy() {
  products_.destroy();
  problem_.clear();
}

bool GpuGemv::gemvByName(const std::string& name, const float* x, uint64_t cols, float* y) {
  GpuProduct product;
  if (!findProduct(name, cols, product)) return false;
  product.y = y;
  return compute({&product, 1}, x);
}

uint32_t GpuGemv::gemvTogether(std::span<const kiv::TensorView* const> matrices,
                               std::span<float* const> y, const float* x) {
  std::array<GpuProduct, GpuProducts::kMost> group{};
  size_t count = 0;
  uint32_t taken = 0;
  for (size_t i = 0; i < matrices.size() && count < group.size(); ++i) {
    const kiv::TensorView& w = *matrices[i];
    if (w.shape[0] != matrices[0]->shape[0] || !planAllows(w.name)) continue;
    if (!findProduct(w.name, w.shape[0], group[count])) continue;
    group[count++].y = y[i];
    taken |= 1U << i;
  }
  return count != 0 && compute({group.data(), count}, x) ? taken : 0;
}

bool GpuGemv::run(const GPUTensorView& w, uint32_t rows, uint32_t cols, const float* x, float* y) {
  if (!good() || w.buffer == VK_NULL_HANDLE || !limits_.take(w, rows, cols)) return false;
  const GpuProduct product = {.w = &w, .rows = rows, .cols = cols, .y = y, .lasting = false};
  return compute({&product, 1}, x);
}

// A resident matrix that the device can multiply.
bool GpuGemv::findProduct(const std::string& name, uint64_t cols, GpuProduct& out) {
  if (!good() || cols > kMostExtent) return false;
  const GPUTensorView* w = gpu_->findTensor(name);
  if (w == nullptr || w->buffer == VK_NULL_HANDLE) return false;
  const uint64_t rows = rowsOf(*w, cols);
  if (rows > kMostExtent || !limits_.take(*w, rows, cols)) return false;
  if (loads_ != gpu_->loadCount()) {
    loads_ = gpu_->loadCount();
    products_.forgetWeights();
  }
  out = {.w = w,
         .rows = static_cast<uint32_t>(rows),
         .cols = static_cast<uint32_t>(cols),
         .y = nullptr,
         .lasting = true};
  return true;
}

GpuGemv::Fit GpuGemv::fit() const {
  Fit fit{.mostBytes = limits_.bufferBytes,
          .mostWorkgroups = limits_.workgroupsX * limits_.workgroupsY};
  for (size_t i = 0; gpu_ != nullptr && i < gpu_->tensorCount(); ++i) {
    const GPUTensorView& w = gpu_->tensorAt(i);
    const uint64_t rows = rowsOf(w, w.shape[0]);
    if (rows == 0 || !planAllows(w.name)) continue;
    ++fit.matrices;
    if (limits_.take(w, rows, w.shape[0])) continue;
    ++fit.declined;
    fit.largestBytes = std::max(fit.largestBytes, w.size);
  }
  return fit;
}

bool GpuGemv::compute(std::span<const GpuProduct> group, const float* x) {
  if (!products_.run(group, x)) return false;
  productCount_ += group.size();
  return true;
}

bool gemvAdapter(void* ctx, const kiv::TensorView* w, const float* x, float* y) noexcept {
  if (ctx == nullptr || w == nullptr) return false;
  auto& gemv = *static_cast<GpuGemv*>(ctx);
  try {
    return gemv.planAllows(w->name) && gemv.gemvByName(w->name, x, w->shape[0], y);
  } catch (...) {
    return false;  // out of memory; the CPU may still manage
  }
}

uint32_t gemvGroupAdapter(void* ctx, const kiv::TensorView* const* w, float* const* y, size_t count,
                          const float* x) noexcept {
  if (ctx == nullptr || w == nullptr) return 0;
  try {
    return static_cast<GpuGemv*>(ctx)->gemvTogether({w, count}, {y, count}, x);
  } catch (...) {
    return 0;  // as in gemvAdapter
  }
}

}  // namespace qwen35gpu
