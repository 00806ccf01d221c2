// SPDX-License-Identifier: Apache-2.0
/// \file
/// Everything one GPU user needs of Vulkan: instance, device, one queue, one
/// command pool, one fence.
#pragma once

#include <cstdint>
#include <vector>

#include "kiv/status.h"
#include "kiv/vulkan/vulkan_device.h"

namespace kiv::vulkan {

/// A device index past the end of every machine's devices: the automatic choice.
inline constexpr uint64_t kAnyDevice = ~uint64_t{0};

/// Empty, or ready after init(). All GPU work is synchronous: beginCommand,
/// record, submitAndWait. One thread at a time; there is one fence and one pool.
/// Other GPU objects keep a plain pointer to the context and must go first.
class VulkanContext {
 public:
  VulkanContext() = default;
  ~VulkanContext() { destroy(); }
  VulkanContext(const VulkanContext&) = delete;
  VulkanContext& operator=(const VulkanContext&) = delete;

  /// Sets everything up. `deviceIndex` counts positions in the order discrete
  /// first, then more device-local memory; any index past the end selects the
  /// first discrete device, else the first enumerated one. Success at once on a
  /// ready context; a failure leaves it empty. IOError "<the call> failed" or
  /// "no Vulkan physical devices", Unsupported "no compute queue family found" or
  /// checkApiVersion()'s status.
  /// Without a Vulkan loader, or with Vulkan switched off (vulkan_api.h), the
  /// failing call is vkCreateInstance. Contexts may be set up on several threads
  /// at once.
  Status init(uint64_t deviceIndex);
  /// Releases everything but info() and hasNativeStorage(); may be repeated.
  void destroy();

  /// One primary command buffer, begun for one submission; submitAndWait() or
  /// the context frees it. On a failure `*outCmd` is left as it was: InvalidFormat
  /// "null outCmd" or "beginCommand: uninitialized", IOError "<the call> failed" or
  /// "device lost".
  Status beginCommand(VkCommandBuffer* outCmd);
  /// Ends, submits, waits without limit, frees. InvalidFormat
  /// "submitAndWait: uninitialized" for a null buffer or an empty context,
  /// IOError "<the call> failed"; after a failure nothing is running, and the
  /// buffer is reclaimed with the pool.
  Status submitAndWait(VkCommandBuffer cmd);

  /// One primary command buffer that the caller begins, ends and runs as often as it likes, until
  /// freeCommand() or the context's end. Fails as beginCommand() does.
  Status allocateCommand(VkCommandBuffer* outCmd);
  /// Frees what allocateCommand() gave, which must not be running; null is fine.
  void freeCommand(VkCommandBuffer cmd);
  /// Submits a command buffer that has been ended, and waits without limit; `cmd` stays the
  /// caller's. Fails as submitAndWait() does.
  Status run(VkCommandBuffer cmd);

  /// A submission or a wait found the device lost: every later command fails until the next
  /// init(). Objects can still be destroyed.
  bool lost() const { return lost_; }

  VkInstance instance() const { return instance_; }                    ///< null in an empty context
  VkPhysicalDevice physicalDevice() const { return physicalDevice_; }  ///< null in an empty context
  VkDevice device() const { return device_; }                          ///< null in an empty context
  VkQueue queue() const { return queue_; }                             ///< null in an empty context
  uint32_t queueFamily() const { return queueFamily_; }                ///< that queue's
  const VulkanDeviceInfo& info() const { return info_; }  ///< of the device, also after destroy()
  /// 8- and 16-bit storage-buffer access are enabled.
  bool hasNativeStorage() const { return nativeStorage_; }

 private:
  Status setUp(uint64_t deviceIndex);
  Status selectDevice(uint64_t deviceIndex);
  Status createDevice();
  Status createCommandPool();
  Status createFence();
  void replaceFence();
  Status failedCall(const char* message, VkResult result);

  VkInstance instance_ = VK_NULL_HANDLE;
  VkPhysicalDevice physicalDevice_ = VK_NULL_HANDLE;
  VkDevice device_ = VK_NULL_HANDLE;
  VkQueue queue_ = VK_NULL_HANDLE;
  uint32_t queueFamily_ = 0;
  VkCommandPool commandPool_ = VK_NULL_HANDLE;
  VkFence fence_ = VK_NULL_HANDLE;
  VulkanDeviceInfo info_;
  bool nativeStorage_ = false;
  bool lost_ = false;
};

/// One device as init() would number it.
struct ListedDevice {
  VulkanDeviceInfo info;       ///< its description
  bool nativeStorage = false;  ///< 8- and 16-bit storage-buffer access
  bool software = false;       ///< a CPU implementation
  bool automatic = false;      ///< what an index past the end selects
};

/// The devices in the order in which init()'s index selects them. Fails, with
/// an empty list, as init() does when it looks for devices. Any thread.
Status listDevices(std::vector<ListedDevice>& out);

}  // namespace kiv::vulkan
