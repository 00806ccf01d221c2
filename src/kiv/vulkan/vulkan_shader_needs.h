// SPDX-License-Identifier: Apache-2.0
/// \file
/// What a compute shader asks of the device that runs it, read from its SPIR-V.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "kiv/status.h"
#include "kiv/vulkan/vulkan_device.h"

namespace kiv::vulkan {

/// The size of a workgroup and what it shares.
struct ShaderNeeds {
  uint64_t sharedBytes = 0;                       ///< of all variables that a workgroup shares
  std::array<uint32_t, 3> localSize = {1, 1, 1};  ///< invocations in x, y and z
};

/// Reads a module of one entry point. What the words do not tell, because the module is not valid
/// or leaves it to specialisation, counts as nothing: the driver is the judge of that.
ShaderNeeds shaderNeeds(const uint32_t* code, size_t wordCount);

/// Unsupported "shader needs 65536 bytes of shared memory, the device has 32768", or the same of
/// a workgroup's invocations. A driver need not notice: the pipeline may come out broken.
Status checkShaderNeeds(const ShaderNeeds& needs, const VulkanDeviceInfo& device);

}  // namespace kiv::vulkan
