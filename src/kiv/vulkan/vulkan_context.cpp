// SPDX-License-Identifier: Apache-2.0
#include "kiv/vulkan/vulkan_context.h"

#include <algorithm>
#include <limits>

namespace kiv::vulkan {
namespace {

// The storage features of a device as a feature chain; the records point at
// each other, so the object stays where it was made.
class StorageFeatures {
 public:
  explicit StorageFeatures(VkPhysicalDevice device) {
    bits8_.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_8BIT_STORAGE_FEATURES;
    bits16_.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_16BIT_STORAGE_FEATURES;
    bits16_.pNext = &bits8_;
    VkPhysicalDeviceFeatures2 query{};
    query.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FEATURES_2;
    query.pNext = &bits16_;
    vkGetPhysicalDeviceFeatures2(device, &query);
  }
  StorageFeatures(const StorageFeatures&) = delete;
  StorageFeatures& operator=(const StorageFeatures&) = delete;

  bool native() const {
    return bits16_.storageBuffer16BitAccess == VK_TRUE && bits8_.storageBuffer8BitAccess == VK_TRUE;
  }
  const void* chain() const { return &bits16_; }

 private:
  VkPhysicalDevice16BitStorageFeatures bits16_{};
  VkPhysicalDevice8BitStorageFeatures bits8_{};
};

Status createInstance(VkInstance& out) {
  constexpr const char* kName = "KivRuntime";
  constexpr uint32_t kVersion = VK_MAKE_API_VERSION(0, 0, 1, 0);
  VkApplicationInfo application{};
  application.sType = VK_STRUCTURE_TYPE_APPLICATION_INFO;
  application.pApplicationName = kName;
  application.applicationVersion = kVersion;
  application.pEngineName = kName;
  application.engineVersion = kVersion;
  application.apiVersion = VK_API_VERSION_1_2;
  VkInstanceCreateInfo info{};
  info.sType = VK_STRUCTURE_TYPE_INSTANCE_CREATE_INFO;
  info.pApplicationInfo = &application;

  VkInstance instance = VK_NULL_HANDLE;
  if (!loadVulkan() || vkCreateInstance(&info, nullptr, &instance) != VK_SUCCESS) {
    return ioError("vkCreateInstance failed");
  }
  loadInstanceFunctions(instance);
  out = instance;
  return {};
}

bool isSoftware(VkPhysicalDevice device) {
  VkPhysicalDeviceProperties properties{};
  vkGetPhysicalDeviceProperties(device, &properties);
  return properties.deviceType == VK_PHYSICAL_DEVICE_TYPE_CPU;
}

}  // namespace

Status VulkanContext::init(uint64_t deviceIndex) {
  if (instance_ != VK_NULL_HANDLE) return {};
  Status status = setUp(deviceIndex);
  if (!status.ok()) destroy();
  return status;
}

Status VulkanContext::setUp(uint64_t deviceIndex) {
  Status status = createInstance(instance_);
  if (status.ok()) status = selectDevice(deviceIndex);
  if (status.ok()) status = findComputeQueueFamily(physicalDevice_, queueFamily_);
  if (status.ok()) status = createDevice();
  if (status.ok()) status = createCommandPool();
  if (status.ok()) status = createFence();
  return status;
}

Status VulkanContext::selectDevice(uint64_t deviceIndex) {
  std::vector<PhysicalDevice> devices;
  if (Status status = listPhysicalDevices(instance_, devices); !status.ok()) return status;
  const auto chosen = deviceIndex < devices.size()
                          ? devices.begin() + static_cast<ptrdiff_t>(deviceIndex)
                          : std::find_if(devices.begin(), devices.end(),
                                         [](const PhysicalDevice& d) { return d.automatic; });
  // Without an automatic one, all are too old: the first tells.
  const PhysicalDevice& device = chosen != devices.end() ? *chosen : devices[0];
  if (Status status = checkApiVersion(device.info); !status.ok()) return status;
  physicalDevice_ = device.handle;
  info_ = device.info;
  return {};
}

Status VulkanContext::createDevice() {
  const StorageFeatures features(physicalDevice_);
  nativeStorage_ = features.native();

  const float priority = 1.0F;
  VkDeviceQueueCreateInfo queue{};
  queue.sType = VK_STRUCTURE_TYPE_DEVICE_QUEUE_CREATE_INFO;
  queue.queueFamilyIndex = queueFamily_;
  queue.queueCount = 1;
  queue.pQueuePriorities = &priority;
  VkDeviceCreateInfo info{};
  info.sType = VK_STRUCTURE_TYPE_DEVICE_CREATE_INFO;
  info.pNext = nativeStorage_ ? features.chain() : nullptr;
  info.queueCreateInfoCount = 1;
  info.pQueueCreateInfos = &queue;

  VkDevice device = VK_NULL_HANDLE;
  if (vkCreateDevice(physicalDevice_, &info, nullptr, &device) != VK_SUCCESS) {
    return ioError("vkCreateDevice failed");
  }
  device_ = device;
  vkGetDeviceQueue(device_, queueFamily_, 0, &queue_);
  return {};
}

Status VulkanContext::createCommandPool() {
  VkCommandPoolCreateInfo info{};
  info.sType = VK_STRUCTURE_TYPE_COMMAND_POOL_CREATE_INFO;
  info.flags = VK_COMMAND_POOL_CREATE_RESET_COMMAND_BUFFER_BIT;
  info.queueFamilyIndex = queueFamily_;
  VkCommandPool pool = VK_NULL_HANDLE;
  if (vkCreateCommandPool(device_, &info, nullptr, &pool) != VK_SUCCESS) {
    return ioError("vkCreateCommandPool failed");
  }
  commandPool_ = pool;
  return {};
}

Status VulkanContext::createFence() {
  VkFenceCreateInfo info{};
  info.sType = VK_STRUCTURE_TYPE_FENCE_CREATE_INFO;
  VkFence fence = VK_NULL_HANDLE;
  if (vkCreateFence(device_, &info, nullptr, &fence) != VK_SUCCESS) {
    return ioError("vkCreateFence failed");
  }
  fence_ = fence;
  return {};
}

void VulkanContext::destroy() {
  lost_ = false;
  if (device_ != VK_NULL_HANDLE) {
    if (fence_ != VK_NULL_HANDLE) vkDestroyFence(device_, fence_, nullptr);
    if (commandPool_ != VK_NULL_HANDLE) vkDestroyCommandPool(device_, commandPool_, nullptr);
    vkDestroyDevice(device_, nullptr);
    fence_ = VK_NULL_HANDLE;
    commandPool_ = VK_NULL_HANDLE;
    device_ = VK_NULL_HANDLE;
    queue_ = VK_NULL_HANDLE;
  }
  if (instance_ != VK_NULL_HANDLE) {
    vkDestroyInstance(instance_, nullptr);
    instance_ = VK_NULL_HANDLE;
    physicalDevice_ = VK_NULL_HANDLE;
  }
}

Status VulkanContext::allocateCommand(VkCommandBuffer* outCmd) {
  if (outCmd == nullptr) return invalidFormat("null outCmd");
  if (device_ == VK_NULL_HANDLE) return invalidFormat("beginCommand: uninitialized");
  if (lost_) return ioError("device lost");
  VkCommandBufferAllocateInfo allocation{};
  allocation.sType = VK_STRUCTURE_TYPE_COMMAND_BUFFER_ALLOCATE_INFO;
  allocation.commandPool = commandPool_;
  allocation.level = VK_COMMAND_BUFFER_LEVEL_PRIMARY;
  allocation.commandBufferCount = 1;
  VkCommandBuffer cmd = VK_NULL_HANDLE;
  if (vkAllocateCommandBuffers(device_, &allocation, &cmd) != VK_SUCCESS) {
    return ioError("vkAllocateCommandBuffers failed");
  }
  *outCmd = cmd;
  return {};
}

void VulkanContext::freeCommand(VkCommandBuffer cmd) {
  if (cmd == VK_NULL_HANDLE || device_ == VK_NULL_HANDLE) return;
  vkFreeCommandBuffers(device_, commandPool_, 1, &cmd);
}

Status VulkanContext::beginCommand(VkCommandBuffer* outCmd) {
  VkCommandBuffer cmd = VK_NULL_HANDLE;
  if (Status status = allocateCommand(outCmd == nullptr ? nullptr : &cmd); !status.ok()) {
    return status;
  }
  VkCommandBufferBeginInfo begin{};
  begin.sType = VK_STRUCTURE_TYPE_COMMAND_BUFFER_BEGIN_INFO;
  begin.flags = VK_COMMAND_BUFFER_USAGE_ONE_TIME_SUBMIT_BIT;
  if (vkBeginCommandBuffer(cmd, &begin) != VK_SUCCESS) {
    freeCommand(cmd);
    return ioError("vkBeginCommandBuffer failed");
  }
  *outCmd = cmd;
  return {};
}

Status VulkanContext::submitAndWait(VkCommandBuffer cmd) {
  if (cmd == VK_NULL_HANDLE || device_ == VK_NULL_HANDLE || queue_ == VK_NULL_HANDLE ||
      fence_ == VK_NULL_HANDLE) {
    return invalidFormat("submitAndWait: uninitialized");
  }
  if (const VkResult result = vkEndCommandBuffer(cmd); result != VK_SUCCESS) {
    return failedCall("vkEndCommandBuffer failed", result);
  }
  Status status = run(cmd);
  if (status.ok()) freeCommand(cmd);
  return status;
}

Status VulkanContext::run(VkCommandBuffer cmd) {
  if (cmd == VK_NULL_HANDLE || device_ == VK_NULL_HANDLE || queue_ == VK_NULL_HANDLE ||
      fence_ == VK_NULL_HANDLE) {
    return invalidFormat("submitAndWait: uninitialized");
  }
  if (lost_) return ioError("device lost");
  VkSubmitInfo submit{};
  submit.sType = VK_STRUCTURE_TYPE_SUBMIT_INFO;
  submit.commandBufferCount = 1;
  submit.pCommandBuffers = &cmd;
  constexpr uint64_t kNoLimit = std::numeric_limits<uint64_t>::max();
  if (const VkResult result = vkQueueSubmit(queue_, 1, &submit, fence_); result != VK_SUCCESS) {
    return failedCall("vkQueueSubmit failed", result);
  }
  if (const VkResult result = vkWaitForFences(device_, 1, &fence_, VK_TRUE, kNoLimit);
      result != VK_SUCCESS) {
    replaceFence();
    return failedCall("vkWaitForFences failed", result);
  }
  if (vkResetFences(device_, 1, &fence_) != VK_SUCCESS) {
    replaceFence();
    return ioError("vkResetFences failed");
  }
  return {};
}

Status VulkanContext::failedCall(const char* message, VkResult result) {
  if (result == VK_ERROR_DEVICE_LOST) lost_ = true;
  return ioError(message);
}

// A fence that may be signalled already would let the next wait return at once,
// before its work is done.
void VulkanContext::replaceFence() {
  vkDeviceWaitIdle(device_);
  vkDestroyFence(device_, fence_, nullptr);
  fence_ = VK_NULL_HANDLE;
  static_cast<void>(createFence());  // without one, nothing more is submitted
}

Status listDevices(std::vector<ListedDevice>& out) {
  out.clear();
  VkInstance instance = VK_NULL_HANDLE;
  if (Status status = createInstance(instance); !status.ok()) return status;
  std::vector<PhysicalDevice> devices;
  Status status = listPhysicalDevices(instance, devices);
  for (const PhysicalDevice& device : devices) {
    out.push_back({.info = device.info,
                   .nativeStorage = StorageFeatures(device.handle).native(),
                   .software = isSoftware(device.handle),
                   .automatic = device.automatic});
  }
  vkDestroyInstance(instance, nullptr);
  return status;
}

}  // namespace kiv::vulkan
