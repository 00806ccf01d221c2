// SPDX-License-Identifier: Apache-2.0
/// \file
/// Which memory of a device a pool of weights lies in, and in how many pieces.
#pragma once

#include <cstdint>
#include <vector>

#include "kiv/vulkan/vulkan_context.h"

namespace kiv {

/// Devices round a buffer's need for memory up to its alignment. Allocations and the places where
/// a pool is split are multiples of this, so that buffers over whole pieces fit.
inline constexpr uint64_t kPoolUnit = 65536;

/// The memory types to take a pool of `poolSize` bytes from, best first; empty when no type is
/// device-local.
///
/// The first choice goes by order: the last device-local type, but for up to 2 GiB the first one
/// that the host can see. Some devices cannot use it: its heap is smaller than the pool (a window
/// that the host sees of a large card), it has a property beyond device-local and host-visible,
/// -coherent and -cached (memory of an extension or of protected work), or its bit is missing in
/// `bufferTypes` (no buffer may lie in it). There, the plain device-local type with the largest
/// heap takes its place. It also follows a first choice that looks good, in case that heap is in
/// use already.
std::vector<uint32_t> poolMemoryTypes(const VkPhysicalDeviceMemoryProperties& memory,
                                      uint64_t poolSize, uint32_t bufferTypes);

/// The memory types (a bit a type) that storage buffers of `ctx`'s device may lie in. All of them
/// when the device cannot say.
uint32_t storageBufferTypes(const vulkan::VulkanContext& ctx);

/// The most bytes of one allocation, a multiple of kPoolUnit, on a device whose largest allocation
/// is `maxAllocationBytes` (0: without limit).
uint64_t poolBlockBytes(uint64_t maxAllocationBytes);

}  // namespace kiv
