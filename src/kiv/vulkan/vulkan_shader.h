// SPDX-License-Identifier: Apache-2.0
/// \file
/// SPIR-V code as a module of a device.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kiv/status.h"
#include "kiv/vulkan/vulkan_context.h"

namespace kiv::vulkan {

/// A module from `wordCount` words of SPIR-V, which are not kept. InvalidFormat
/// "createShaderModule: null", IOError "vkCreateShaderModule failed".
Status createShaderModule(VulkanContext& ctx, const uint32_t* code, size_t wordCount,
                          VkShaderModule* out);
/// Null is allowed.
void destroyShaderModule(VulkanContext& ctx, VkShaderModule module);

}  // namespace kiv::vulkan
