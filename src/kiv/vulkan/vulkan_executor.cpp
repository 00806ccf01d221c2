// SPDX-License-Identifier: Apache-2.0
#include "kiv/vulkan/vulkan_executor.h"

namespace kiv::vulkan {

void VulkanExecutor::registerKernel(Opcode op, const GpuKernelDesc& desc) {
  entries_[static_cast<size_t>(op)].desc = desc;
}

Status VulkanExecutor::getKernel(VulkanContext& ctx, Opcode op, VulkanKernel** out) {
  const GpuKernelDesc* desc = GpuKernelRegistry::instance().find(op);
  if (desc == nullptr) {
    return unsupported("no GPU kernel registered for opcode");
  }
  Entry& entry = entries_[static_cast<size_t>(op)];
  if (!entry.created) {
    entry.desc = *desc;
    const EmbeddedShader& shader = embeddedShader(entry.desc.shader);
    if (Status status = entry.kernel.create(ctx, shader.code, shader.wordCount, entry.desc.bindings,
                                            entry.desc.pushSize);
        !status.ok()) {
      return status;
    }
    entry.created = true;
  }
  if (out != nullptr) *out = &entry.kernel;
  return {};
}

Status VulkanExecutor::execute(VulkanContext& ctx, VkCommandBuffer cmd, Opcode op,
                               VulkanBuffer* const* buffers, uint32_t count, uint32_t x, uint32_t y,
                               uint32_t z, const void* push, size_t pushBytes) {
  if (Status status = getKernel(ctx, op, nullptr); !status.ok()) return status;
  VulkanKernel& kernel = entries_[static_cast<size_t>(op)].kernel;
  if (Status status = kernel.bindBuffers(ctx, buffers, count); !status.ok()) return status;
  kernel.dispatch(cmd, x, y, z, push, pushBytes);
  return {};
}

}  // namespace kiv::vulkan
