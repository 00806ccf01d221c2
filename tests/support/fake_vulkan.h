// SPDX-License-Identifier: Apache-2.0
// A scripted machine in place of the Vulkan loader: its devices are what a test
// says they are, any call can be made to fail, every call is counted, and every
// object is watched from its creation to its end. Copies between buffers move bytes.
// Whether a real driver takes the calls is for the tests on a device to find out.
#pragma once

#include <any>
#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kiv/vulkan/vulkan_api.h"
#include "support/scoped_env.h"

namespace zemtest {

using namespace kiv;

constexpr uint64_t kMiB = uint64_t{1} << 20;
constexpr uint64_t kGiB = uint64_t{1} << 30;

constexpr VkMemoryPropertyFlags kDeviceLocal = VK_MEMORY_PROPERTY_DEVICE_LOCAL_BIT;
constexpr VkMemoryPropertyFlags kHostVisible = VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT;
constexpr VkMemoryPropertyFlags kHostCoherent = VK_MEMORY_PROPERTY_HOST_COHERENT_BIT;
constexpr VkMemoryPropertyFlags kHost = kHostVisible | kHostCoherent;

// A shader module without instructions.
constexpr uint32_t kCode[] = {0x07230203, 0x00010500, 0, 1, 0};

// Little above the least that every device must offer, but for shared memory: enough for every
// shader.
VkPhysicalDeviceLimits usualLimits();

struct FakeDevice {
  std::string name = "fake device";
  VkPhysicalDeviceType type = VK_PHYSICAL_DEVICE_TYPE_DISCRETE_GPU;
  uint32_t vendorId = 0x10de;
  uint32_t deviceId = 0x1234;
  uint32_t apiVersion = VK_API_VERSION_1_2;
  uint32_t driverVersion = 0;
  uint32_t subgroupSize = 32;
  VkPhysicalDeviceLimits limits = usualLimits();
  uint64_t maxAllocation = UINT64_MAX;  // bytes; a larger one is a test failure
  // An allocation that its heap has no room for fails. One from a type of an extension or of
  // protected work, which no device here enables, is a test failure.
  std::vector<VkMemoryHeap> heaps = {{kGiB, VK_MEMORY_HEAP_DEVICE_LOCAL_BIT}, {kGiB, 0}};
  std::vector<VkMemoryType> memoryTypes = {{kDeviceLocal, 0}, {kHostVisible | kHostCoherent, 1}};
  // What every buffer requires of its memory; sizes are rounded up.
  VkDeviceSize bufferAlignment = 64;
  VkDeviceSize bufferGranularity = 64;
  uint32_t bufferMemoryTypes = ~0U;  // a bit a type
  std::vector<VkQueueFlags> queueFamilies = {VK_QUEUE_GRAPHICS_BIT | VK_QUEUE_COMPUTE_BIT};
  // Only the feature members count; sType and pNext are ignored.
  VkPhysicalDevice16BitStorageFeatures storage16{};
  VkPhysicalDevice8BitStorageFeatures storage8{};
};

// What the code under test decided when it asked for something.
struct FakeRequests {
  struct Device {
    size_t index = 0;  // of the physical device, in enumeration order
    uint32_t queueFamily = 0;
    bool chain = false;  // any feature chain was given
    std::optional<VkPhysicalDevice16BitStorageFeatures> storage16;
    std::optional<VkPhysicalDevice8BitStorageFeatures> storage8;
  } device;  // the last

  std::vector<VkBufferCreateInfo> buffers;        // all there were
  std::vector<VkMemoryAllocateInfo> allocations;  // all there were

  // Of the last kernel.
  std::vector<uint32_t> shaderCode;
  uint32_t bindings = 0;
  uint32_t pushSize = 0;
};

// What the device has carried out.
struct FakeCopy {
  VkBuffer source, destination;
  VkBufferCopy region;
};
struct FakeDispatch {
  VkDescriptorSet set;
  std::vector<VkDescriptorBufferInfo> bindings;
  std::vector<uint8_t> push;
  std::array<uint32_t, 3> groups;
};

// From construction to destruction the functions of this object take the place
// of the machine's. One at a time, and no context may live across either end.
// Vulkan is switched on meanwhile: switching it off is about the machine's own.
//
// Wrong use of an object's life is a test failure at once: an unknown or already
// destroyed handle, a parent destroyed before its children, a command buffer, a fence
// or a mapping in the wrong state, an object that is gone when the work that needs it
// runs. An object alive at destruction is a failure as well. Calls may come from
// several threads.
class FakeVulkan {
 public:
  explicit FakeVulkan(std::deque<FakeDevice> devices);
  ~FakeVulkan();
  FakeVulkan(const FakeVulkan&) = delete;
  FakeVulkan& operator=(const FakeVulkan&) = delete;

  // The nth call of `function` from now on (1: the next) returns `result`
  // without doing anything. Using the handle of a failed creation is a test failure.
  void fail(const std::string& function, VkResult result, int nth = 1);

  // Runs `action` once, inside the next call of `function`, before it does anything.
  void during(const std::string& function, std::function<void()> action);

  int calls(const std::string& function) const;
  std::vector<std::string> log() const;  // every call from the beginning on, in order
  // Whether a function returns a result at all.
  static bool canFail(std::string_view function);
  size_t live() const;                   // objects of every kind
  size_t live(VkObjectType type) const;  // objects of one kind

  // What a buffer, which must have memory, holds now.
  std::vector<uint8_t> bytes(VkBuffer buffer) const;

  // The machine, in enumeration order. A test may add devices at any time.
  std::deque<FakeDevice> devices;
  FakeRequests requests;

  std::vector<FakeCopy> copies;
  std::vector<FakeDispatch> dispatches;

 private:
  friend class FakeCall;

  struct Object {
    VkObjectType type;
    uint64_t parent;     // handle, 0 for none
    uint64_t state = 0;  // what it means is up to the functions of this type
    std::any detail;     // a record of fake_vulkan_objects.h, for the types that have one
  };

  const zemtest::ScopedEnv switchedOn_{vulkan::kNoVulkanVariable, nullptr};
  PFN_vkGetInstanceProcAddr previous_;
  mutable std::recursive_mutex mutex_;
  std::map<std::string, int> calls_;
  std::vector<std::string> log_;
  std::map<std::pair<std::string, int>, VkResult> failures_;  // by function and call number
  std::map<std::string, std::function<void()>> actions_;
  std::map<uint64_t, Object> objects_;
  uint64_t nextHandle_ = 0x10000;
};

}  // namespace zemtest
