// SPDX-License-Identifier: Apache-2.0
#include "engine/vulkan/step_kernels.h"

#include <string>

namespace zem {

using kiv::Status;
using kiv::vulkan::VulkanBuffer;
using kiv::vulkan::VulkanKernel;

StageGroups spread(uint64_t count) {
  constexpr uint64_t kMost = 65535;
  const uint64_t y = (count + kMost - 1) / kMost;
  return {static_cast<uint32_t>((count + y - 1) / y), static_cast<uint32_t>(y)};
}

Status StepKernels::create(kiv::vulkan::VulkanContext& ctx) {
  ctx_ = &ctx;
  VkPhysicalDeviceProperties device{};
  vkGetPhysicalDeviceProperties(ctx.physicalDevice(), &device);
  for (size_t i = 0; i < kStepShaders; ++i) {
    const auto shader = static_cast<StepShader>(i);
    const StepShaderInterface needs = interfaceOf(shader);
    if (needs.bindings > device.limits.maxPerStageDescriptorStorageBuffers) {
      return kiv::unsupported("shader needs " + std::to_string(needs.bindings) +
                              " storage buffers, the device has " +
                              std::to_string(device.limits.maxPerStageDescriptorStorageBuffers));
    }
    const kiv::vulkan::EmbeddedShader& module = stepShader(shader);
    const auto pushBytes = static_cast<uint32_t>(needs.pushWords * sizeof(uint32_t));
    Status status =
        kernels_[i].create(ctx, module.code, module.wordCount, needs.bindings, pushBytes);
    if (!status.ok()) return status;
  }
  return {};
}

Status StepKernels::add(StepShader shader, std::initializer_list<StageUse> uses,
                        std::initializer_list<uint32_t> push, StageGroups groups, StageOver over,
                        std::vector<Stage>& out) {
  VulkanKernel& kernel = kernels_[static_cast<size_t>(shader)];
  VkDescriptorSet set = kernel.allocSet();
  if (set == VK_NULL_HANDLE) return kiv::ioError("vkAllocateDescriptorSets failed");
  std::vector<VulkanBuffer> wrappers(uses.size());
  std::vector<VulkanBuffer*> bound;
  for (const StageUse& use : uses) {
    VulkanBuffer& wrapper = wrappers[bound.size()];
    wrapper.adopt(use.buffer->handle(), use.buffer->size());
    bound.push_back(&wrapper);
  }
  Status status =
      kernel.bindBuffersTo(*ctx_, bound.data(), static_cast<uint32_t>(bound.size()), set);
  if (!status.ok()) return status;
  out.push_back({&kernel, set, uses, push, groups.x, groups.y, over});
  return {};
}

}  // namespace zem
