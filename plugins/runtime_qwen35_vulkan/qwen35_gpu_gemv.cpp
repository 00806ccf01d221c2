// SPDX-License-Identifier: Apache-2.0
#include "qwen35_gpu_gemv.h"

#include <limits>

#include "kiv/quant/row_codec.h"
#include "kiv/quant_k.h"
#include "kiv/vulkan/vulkan_shaders.h"

namespace qwen35gpu {
namespace {

using kiv::DType;
using kiv::GPUTensorView;
using kiv::quant::kBlock256;
using kiv::vulkan::EmbeddedShader;
using kiv::vulkan::ShaderId;
using kiv::vulkan::VulkanBuffer;
using kiv::vulkan::VulkanContext;
using kiv::vulkan::VulkanKernel;

// As in gemv_push.glsl.
struct PushConstants {
  uint32_t n = 0;
  uint32_t k = 0;
  uint32_t blocksPerCol = 0;
  uint32_t colBytes = 0;
};
static_assert(sizeof(PushConstants) == 16);

constexpr uint32_t kBindings = 3;
constexpr uint64_t kRowsPerWorkgroup = 2;

bool createKernel(VulkanContext& ctx, const EmbeddedShader& shader, VulkanKernel& kernel) {
  return kernel.create(ctx, shader.code, shader.wordCount, kBindings, sizeof(PushConstants)).ok();
}

uint64_t workgroupsFor(uint64_t rows) { return (rows + kRowsPerWorkgroup - 1) / kRowsPerWorkgroup; }

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
  gpu_ = &gpu;
  if (!gpu.valid()) return false;
  VulkanContext& ctx = gpu.context();
  VkPhysicalDeviceProperties properties{};
  vkGetPhysicalDeviceProperties(ctx.physicalDevice(), &properties);
  limits_ = {.workgroups = properties.limits.maxComputeWorkGroupCount[0],
             .bufferBytes = properties.limits.maxStorageBufferRange};
  ok_ = createKernel(ctx, kiv::vulkan::embeddedShader(ShaderId::Q4KGemvLlama), kQ4_) &&
        createKernel(ctx, kiv::vulkan::embeddedShader(ShaderId::Q6KGemvLlama), kQ6_) &&
        createKernel(ctx, kiv::vulkan::q5kGemvShader(), kQ5_);
  return ok_;
}

void GpuGemv::destroy() {
  kQ4_.destroy();
  kQ6_.destroy();
  kQ5_.destroy();
  bx_.destroy();
  by_.destroy();
  ok_ = false;
}

bool GpuGemv::gemvByName(const std::string& name, const float* x, uint64_t cols, float* y) {
  if (gpu_ == nullptr) return false;
  const GPUTensorView* w = gpu_->findTensor(name);
  if (w == nullptr) return false;
  const uint64_t rows = rowsOf(*w, cols);
  constexpr uint64_t kMost = std::numeric_limits<uint32_t>::max();
  if (rows == 0 || rows > kMost || cols > kMost) return false;
  return run(*w, static_cast<uint32_t>(rows), static_cast<uint32_t>(cols), x, y);
}

bool GpuGemv::run(const GPUTensorView& w, uint32_t rows, uint32_t cols, const float* x, float* y) {
  if (!ok_ || w.buffer == VK_NULL_HANDLE || !fits(w, rows, cols)) return false;
  const size_t xBytes = cols * sizeof(float);
  const size_t yBytes = rows * sizeof(float);
  if (!ensureBuffer(bx_, xBytes) || !ensureBuffer(by_, yBytes)) return false;
  if (!bx_.upload(x, xBytes).ok()) return false;
  if (!dispatch(kernelFor(w.dtype), w, rows, cols)) return false;
  if (!by_.download(y, yBytes).ok()) return false;
  ++products_;
  return true;
}

// Beyond a limit a dispatch is undefined, not refused.
bool GpuGemv::fits(const GPUTensorView& w, uint64_t rows, uint64_t cols) const {
  const uint64_t rowBytes = w.rowBytes();
  return rows != 0 && cols != 0 && rowBytes != 0 && rows <= w.size / rowBytes &&
         workgroupsFor(rows) <= limits_.workgroups &&
         kiv::deviceBufferBytes(w.size) <= limits_.bufferBytes &&
         rows * sizeof(float) <= limits_.bufferBytes && cols * sizeof(float) <= limits_.bufferBytes;
}

VulkanKernel& GpuGemv::kernelFor(DType type) {
  if (type == DType::Q6_K) return kQ6_;
  return type == DType::Q5_K ? kQ5_ : kQ4_;
}

bool GpuGemv::ensureBuffer(VulkanBuffer& buffer, size_t bytes) {
  if (buffer.size() >= bytes && buffer.valid()) return true;
  buffer.destroy();
  return buffer.create(gpu_->context(), bytes, /*hostVisible=*/true).ok();
}

bool GpuGemv::dispatch(VulkanKernel& kernel, const GPUTensorView& w, uint32_t rows, uint32_t cols) {
  VulkanContext& ctx = gpu_->context();
  VulkanBuffer weights;
  weights.adopt(w.buffer, kiv::deviceBufferBytes(w.size));
  VulkanBuffer* const buffers[kBindings] = {&bx_, &weights, &by_};
  VkDescriptorSet set = kernel.allocSet();
  VkCommandBuffer cmd = VK_NULL_HANDLE;
  if (!kernel.bindBuffersTo(ctx, buffers, kBindings, set).ok()) return false;
  if (!ctx.beginCommand(&cmd).ok()) {
    kernel.resetSets();
    return false;
  }
  const PushConstants push = {.n = rows,
                              .k = cols,
                              .blocksPerCol = static_cast<uint32_t>(cols / kBlock256),
                              .colBytes = static_cast<uint32_t>(w.rowBytes())};
  kernel.dispatchTo(cmd, set, static_cast<uint32_t>(workgroupsFor(rows)), 1, 1, &push, sizeof push);
  kiv::vulkan::recordFullBarrier(cmd);
  const bool done = ctx.submitAndWait(cmd).ok();
  kernel.resetSets();
  return done;
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

}  // namespace qwen35gpu
