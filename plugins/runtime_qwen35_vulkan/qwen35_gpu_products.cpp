// SPDX-License-Identifier: Apache-2.0
#include "qwen35_gpu_products.h"

#include <algorithm>
#include <cstdio>

#include "kiv/quant_k.h"
#include "kiv/vulkan/vulkan_shaders.h"

namespace qwen35gpu {
namespace {

using kiv::DType;
using kiv::Status;
using kiv::quant::kBlock256;
using kiv::vulkan::BufferUse;
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

Status createKernel(VulkanContext& ctx, DType type, const EmbeddedShader& shader,
                    VulkanKernel& kernel) {
  Status status =
      kernel.create(ctx, shader.code, shader.wordCount, kBindings, sizeof(PushConstants));
  if (status.ok()) return status;
  return {status.code(), std::string(kiv::dtypeName(type)) + " products: " + status.message()};
}

uint64_t ceilDiv(uint64_t value, uint64_t by) { return (value + by - 1) / by; }

uint64_t workgroupsFor(uint64_t rows) { return ceilDiv(rows, kRowsPerWorkgroup); }

}  // namespace

GpuProductLimits GpuProductLimits::of(const VulkanContext& ctx) {
  VkPhysicalDeviceProperties properties{};
  vkGetPhysicalDeviceProperties(ctx.physicalDevice(), &properties);
  return {.workgroupsX = properties.limits.maxComputeWorkGroupCount[0],
          .workgroupsY = properties.limits.maxComputeWorkGroupCount[1],
          .bufferBytes = properties.limits.maxStorageBufferRange};
}

// Beyond a limit a dispatch is undefined, not refused.
bool GpuProductLimits::take(const kiv::GPUTensorView& w, uint64_t rows, uint64_t cols) const {
  const uint64_t rowBytes = w.rowBytes();
  return rows != 0 && cols != 0 && rowBytes != 0 && rows <= w.size / rowBytes &&
         workgroupsFor(rows) <= workgroupsX * workgroupsY &&
         kiv::deviceBufferBytes(w.size) <= bufferBytes && rows * sizeof(float) <= bufferBytes &&
         cols * sizeof(float) <= bufferBytes;
}

Status GpuProducts::create(VulkanContext& ctx) {
  destroy();
  ctx_ = &ctx;
  limits_ = GpuProductLimits::of(ctx);
  Status status =
      createKernel(ctx, DType::Q4_K, kiv::vulkan::embeddedShader(ShaderId::Q4KGemvLlama), kQ4_);
  if (status.ok()) {
    status =
        createKernel(ctx, DType::Q6_K, kiv::vulkan::embeddedShader(ShaderId::Q6KGemvLlama), kQ6_);
  }
  if (status.ok()) status = createKernel(ctx, DType::Q5_K, kiv::vulkan::q5kGemvShader(), kQ5_);
  if (!status.ok()) destroy();
  return status;
}

void GpuProducts::destroy() {
  discardCommand();
  lasting_.clear();
  passing_.clear();
  kQ4_.destroy();
  kQ6_.destroy();
  kQ5_.destroy();
  x_ = {};
  for (Vector& y : y_) y = {};
  ctx_ = nullptr;
  saidLost_ = false;
}

void GpuProducts::forgetWeights() {
  lasting_.clear();
  passing_.clear();
  for (VulkanKernel* kernel : {&kQ4_, &kQ6_, &kQ5_}) kernel->resetSets();
}

VulkanKernel& GpuProducts::kernelFor(DType type) {
  if (type == DType::Q6_K) return kQ6_;
  return type == DType::Q5_K ? kQ5_ : kQ4_;
}

bool GpuProducts::run(std::span<const GpuProduct> group, const float* x) {
  if (!ready() || ctx_->lost() || group.empty() || group.size() > kMost) return false;
  if (!hold(x_, group[0].cols, BufferUse::HostWrites)) return false;
  for (size_t i = 0; i < group.size(); ++i) {
    if (!hold(y_[i], group[i].rows, BufferUse::HostReads)) return false;
  }
  std::copy_n(x, group[0].cols, x_.data);
  if (!record(group)) {
    discardCommand();
    forgetWeights();  // the sets may have run out
    return false;
  }
  if (const Status status = ctx_->run(cmd_); !status.ok()) {
    discardCommand();
    if (ctx_->lost() && !saidLost_) {
      saidLost_ = true;
      std::fputs(("[qwen35-gpu] the device " + ctx_->info().deviceName + " is lost (" +
                  status.message() + ") - the CPU computes everything from now on\n")
                     .c_str(),
                 stderr);
    }
    return false;
  }
  for (size_t i = 0; i < group.size(); ++i) std::copy_n(y_[i].data, group[i].rows, group[i].y);
  return true;
}

bool GpuProducts::hold(Vector& vector, size_t count, BufferUse use) {
  const size_t bytes = count * sizeof(float);
  if (vector.data != nullptr && vector.buffer.size() >= bytes) return true;
  if (!lasting_.empty() || !passing_.empty()) forgetWeights();  // sets that see the old buffer
  vector = {};
  void* mapped = nullptr;
  if (!vector.buffer.create(*ctx_, bytes, use).ok() || !vector.buffer.map(&mapped).ok()) {
    vector = {};
    return false;
  }
  vector.data = static_cast<float*>(mapped);
  return true;
}

bool GpuProducts::record(std::span<const GpuProduct> group) {
  if (cmd_ == VK_NULL_HANDLE && !ctx_->allocateCommand(&cmd_).ok()) return false;
  VkCommandBufferBeginInfo begin{};
  begin.sType = VK_STRUCTURE_TYPE_COMMAND_BUFFER_BEGIN_INFO;
  begin.flags = VK_COMMAND_BUFFER_USAGE_ONE_TIME_SUBMIT_BIT;
  if (vkBeginCommandBuffer(cmd_, &begin) != VK_SUCCESS) return false;
  for (size_t i = 0; i < group.size(); ++i) {
    if (!recordProduct(group[i], i)) return false;
  }
  kiv::vulkan::recordFullBarrier(cmd_);
  return vkEndCommandBuffer(cmd_) == VK_SUCCESS;
}

bool GpuProducts::recordProduct(const GpuProduct& product, size_t slot) {
  VkDescriptorSet set = setFor(product, slot);
  if (set == VK_NULL_HANDLE) return false;
  const PushConstants push = {.n = product.rows,
                              .k = product.cols,
                              .blocksPerCol = static_cast<uint32_t>(product.cols / kBlock256),
                              .colBytes = static_cast<uint32_t>(product.w->rowBytes())};
  // As few surplus workgroups as the limit in x allows; they do nothing.
  const uint64_t groups = workgroupsFor(product.rows);
  const uint64_t y = ceilDiv(groups, limits_.workgroupsX);
  kernelFor(product.w->dtype)
      .dispatchTo(cmd_, set, static_cast<uint32_t>(ceilDiv(groups, y)), static_cast<uint32_t>(y), 1,
                  &push, sizeof push);
  return true;
}

VkDescriptorSet GpuProducts::setFor(const GpuProduct& product, size_t slot) {
  VulkanKernel& kernel = kernelFor(product.w->dtype);
  if (product.lasting) {
    VkDescriptorSet& set = lasting_[{product.w->buffer, slot}];
    if (set == VK_NULL_HANDLE) set = boundSet(product, slot, kernel.allocSet());
    return set;
  }
  VkDescriptorSet& set = passing_[{product.w->dtype, slot}];
  if (set == VK_NULL_HANDLE) set = kernel.allocSet();
  return boundSet(product, slot, set);
}

// Null when `set` is: the pool has no more.
VkDescriptorSet GpuProducts::boundSet(const GpuProduct& product, size_t slot, VkDescriptorSet set) {
  VulkanBuffer x;
  VulkanBuffer w;
  VulkanBuffer y;
  x.adopt(x_.buffer.handle(), product.cols * sizeof(float));
  w.adopt(product.w->buffer, kiv::deviceBufferBytes(product.w->size));
  y.adopt(y_[slot].buffer.handle(), product.rows * sizeof(float));
  VulkanBuffer* const buffers[kBindings] = {&x, &w, &y};
  const bool bound = kernelFor(product.w->dtype).bindBuffersTo(*ctx_, buffers, kBindings, set).ok();
  return bound ? set : VK_NULL_HANDLE;
}

void GpuProducts::discardCommand() {
  if (ctx_ != nullptr) ctx_->freeCommand(cmd_);
  cmd_ = VK_NULL_HANDLE;
}

}  // namespace qwen35gpu
