// SPDX-License-Identifier: Apache-2.0
/// \file
/// One storage buffer with memory of its own, and the copies into, out of and
/// between such buffers.
#pragma once

#include <cstddef>

#include "kiv/status.h"
#include "kiv/vulkan/vulkan_context.h"

namespace kiv::vulkan {

/// Where a buffer's memory lies.
enum class BufferUse {
  DeviceLocal,  ///< near the shaders; reached through copies
  Host,         ///< the lowest-numbered type that the host maps
  HostWrites,  ///< for what the host writes and shaders read: device-local where the host maps that
  HostReads,  ///< for what shaders write and the host reads: cached by the host where there is such
};

/// Empty, owning (after create), or a wrapper (after adopt) of somebody else's
/// handle. Host-visible memory is coherent and can be mapped; device-local memory
/// is reached through copies. Every transfer has finished when its call returns.
/// One thread at a time. The context must outlive the buffer.
class VulkanBuffer {
 public:
  VulkanBuffer() = default;
  ~VulkanBuffer() { destroy(); }
  /// Takes over what `other` owns or wraps, and leaves it empty.
  VulkanBuffer(VulkanBuffer&& other) noexcept;
  /// Moves; releases what was owned before.
  VulkanBuffer& operator=(VulkanBuffer&& other) noexcept;
  VulkanBuffer(const VulkanBuffer&) = delete;
  VulkanBuffer& operator=(const VulkanBuffer&) = delete;

  /// A buffer of `size` bytes, not 0, for shaders and copies. Success at once,
  /// with nothing changed, when there is a buffer already. InvalidFormat "create:
  /// bad size" and, for an empty context, "create: uninitialized", IOError "<the call> failed",
  /// Unsupported "no suitable memory type"; nothing is left behind then.
  Status create(VulkanContext& ctx, size_t size, BufferUse use);
  /// create() for BufferUse::Host or BufferUse::DeviceLocal.
  Status create(VulkanContext& ctx, size_t size, bool hostVisible) {
    return create(ctx, size, hostVisible ? BufferUse::Host : BufferUse::DeviceLocal);
  }
  /// Wraps the first `size` bytes of a handle that stays its owner's, to be bound
  /// to a kernel. What this buffer owned before is released.
  void adopt(VkBuffer buffer, size_t size);
  /// Releases what is owned; may be repeated.
  void destroy();

  bool valid() const { return buffer_ != VK_NULL_HANDLE; }  ///< not empty
  VkBuffer handle() const { return buffer_; }               ///< null when empty
  size_t size() const { return size_; }                     ///< bytes
  bool hostVisible() const { return hostVisible_; }         ///< memory that can be mapped

  /// The whole buffer as host memory, until unmap(). InvalidFormat
  /// "map: not created", Unsupported "map: buffer is device-local", IOError
  /// "vkMapMemory failed".
  Status map(void** out);
  /// Ends map(); fine without one.
  void unmap();

  /// Fills the first `bytes` bytes from host memory. InvalidFormat "upload: bad
  /// size" for null and for more bytes than the buffer has; else the failing step's
  /// status.
  Status upload(const void* data, size_t bytes);
  /// Stores the first `bytes` bytes at `data`. InvalidFormat "download: bad size",
  /// as for upload().
  Status download(void* data, size_t bytes);
  /// The first `bytes` bytes of `src`, copied by the device. Both buffers must
  /// hold that many: it is not checked.
  Status copyFrom(VulkanContext& ctx, const VulkanBuffer& src, size_t bytes);

 private:
  Status createBuffer();
  Status allocateMemory(BufferUse use);
  bool allocateFrom(const VkMemoryRequirements& requirements, uint32_t type);

  VulkanContext* ctx_ = nullptr;  // null in a wrapper
  VkBuffer buffer_ = VK_NULL_HANDLE;
  VkDeviceMemory memory_ = VK_NULL_HANDLE;
  size_t size_ = 0;
  bool hostVisible_ = false;
};

/// The lowest-numbered memory type of `ctx`'s device that `allowedTypes` (a bit a
/// type) admits and that has all of `flags`, of an extension only when no other has; false when
/// there is none.
bool findMemoryType(const VulkanContext& ctx, uint32_t allowedTypes, VkMemoryPropertyFlags flags,
                    uint32_t& type);

/// Records that what transfers and shaders have written so far in `cmd` can be
/// seen by every later command and by the host.
void recordFullBarrier(VkCommandBuffer cmd);

}  // namespace kiv::vulkan
