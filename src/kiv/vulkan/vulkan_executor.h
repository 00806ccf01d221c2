// SPDX-License-Identifier: Apache-2.0
/// \file
/// Runs whole operations: makes the kernel of an opcode when it is first needed.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "kiv/status.h"
#include "kiv/vulkan/gpu_kernel_registry.h"
#include "kiv/vulkan/vulkan_kernel.h"

namespace kiv::vulkan {

/// Kernels live as long as the executor, which must go before their context. One
/// thread at a time, one context.
class VulkanExecutor {
 public:
  /// Stores a descriptor for `op` in this executor. The first use of `op`
  /// replaces it by the process-wide registry's.
  void registerKernel(Opcode op, const GpuKernelDesc& desc);

  /// The kernel of `op`, made if need be, into `*out` (which may be null) for as
  /// long as the executor lives. Unsupported "no GPU kernel registered for
  /// opcode", or VulkanKernel::create()'s status.
  Status getKernel(VulkanContext& ctx, Opcode op, VulkanKernel** out);

  /// Binds `buffers` and records x * y * z workgroups of `op`. An opcode has one
  /// set of bindings: submit before executing the same opcode again.
  Status execute(VulkanContext& ctx, VkCommandBuffer cmd, Opcode op, VulkanBuffer* const* buffers,
                 uint32_t count, uint32_t x, uint32_t y, uint32_t z, const void* push,
                 size_t pushBytes);

 private:
  struct Entry {
    GpuKernelDesc desc;
    VulkanKernel kernel;
    bool created = false;
  };
  std::array<Entry, kOpcodeCount> entries_;
};

}  // namespace kiv::vulkan
