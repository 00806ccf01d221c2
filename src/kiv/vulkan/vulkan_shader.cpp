// SPDX-License-Identifier: Apache-2.0
#include "kiv/vulkan/vulkan_shader.h"

namespace kiv::vulkan {

Status createShaderModule(VulkanContext& ctx, const uint32_t* code, size_t wordCount,
                          VkShaderModule* out) {
  if (code == nullptr || out == nullptr) {
    return invalidFormat("createShaderModule: null");
  }
  VkShaderModuleCreateInfo info{};
  info.sType = VK_STRUCTURE_TYPE_SHADER_MODULE_CREATE_INFO;
  info.codeSize = wordCount * sizeof *code;
  info.pCode = code;
  VkShaderModule module = VK_NULL_HANDLE;
  if (vkCreateShaderModule(ctx.device(), &info, nullptr, &module) != VK_SUCCESS) {
    return ioError("vkCreateShaderModule failed");
  }
  *out = module;
  return {};
}

void destroyShaderModule(VulkanContext& ctx, VkShaderModule module) {
  if (module != VK_NULL_HANDLE) vkDestroyShaderModule(ctx.device(), module, nullptr);
}

}  // namespace kiv::vulkan
