// A scripted machine in place of the Vulkan loader: its devices are what a test
// says they are, any call can be made to fail, every call is counted and every
// object is watched.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kiv/vulkan/vulkan_api.h"
#include "support/scoped_env.h"

namespace kiv::test {

constexpr uint64_t kGiB = uint64_t{1} << 30;

struct FakeDevice {
  std::string name = "fake device";
  VkPhysicalDeviceType type = VK_PHYSICAL_DEVICE_TYPE_DISCRETE_GPU;
  uint32_t vendorId = 0x10de;
  uint32_t deviceId = 0x1234;
  uint32_t apiVersion = VK_API_VERSION_1_2;
  uint32_t driverVersion = 0;
  uint32_t subgroupSize = 32;
  VkPhysicalDeviceLimits limits{};
  std::vector<VkMemoryHeap> heaps = {{kGiB, VK_MEMORY_HEAP_DEVICE_LOCAL_BIT}};
  std::vector<VkQueueFlags> queueFamilies = {VK_QUEUE_GRAPHICS_BIT | VK_QUEUE_COMPUTE_BIT};
  // Only the feature members count; sType and pNext are ignored.
  VkPhysicalDevice16BitStorageFeatures storage16{};
  VkPhysicalDevice8BitStorageFeatures storage8{};
};

// What the last creation of each kind asked for.
struct FakeRequests {
  struct Instance {
    std::string applicationName, engineName;
    uint32_t applicationVersion = 0, engineVersion = 0, apiVersion = 0;
    uint32_t layers = 0, extensions = 0;
  } instance;

  struct Device {
    size_t index = 0;  // of the physical device, in enumeration order
    uint32_t queueRecords = 0, queueFamily = 0, queues = 0;
    float priority = 0;
    uint32_t layers = 0, extensions = 0;
    bool coreFeatures = false;  // the record of core features was given
    bool chain = false;         // any feature chain was given
    std::optional<VkPhysicalDevice16BitStorageFeatures> storage16;
    std::optional<VkPhysicalDevice8BitStorageFeatures> storage8;
  } device;

  VkCommandPoolCreateInfo commandPool{};
  VkFenceCreateInfo fence{};
  VkCommandBufferAllocateInfo commandBuffer{};
  VkCommandBufferBeginInfo begin{};

  struct Submit {
    uint32_t submissions = 0, commandBuffers = 0, waits = 0, signals = 0;
    uint64_t timeout = 0;  // of the wait after it
  } submit;
};

// From construction to destruction the functions of this object take the place
// of the machine's. One at a time, and no context may live across either end.
// Vulkan is switched on meanwhile: switching it off is about the machine's own.
//
// Wrong use is a test failure at once: an unknown or already destroyed handle, a
// parent destroyed before its children, a command buffer or a fence in the wrong
// state. An object alive at destruction is a failure as well. Calls may come
// from several threads.
class FakeVulkan {
 public:
  explicit FakeVulkan(std::deque<FakeDevice> devices);
  ~FakeVulkan();
  FakeVulkan(const FakeVulkan&) = delete;
  FakeVulkan& operator=(const FakeVulkan&) = delete;

  // The nth call of `function` from now on (1: the next) returns `result`
  // without doing anything. A failed creation leaves a handle that nobody may use.
  void fail(const std::string& function, VkResult result, int nth = 1);

  // Runs `action` once, inside the next call of `function`, before it does anything.
  void during(const std::string& function, std::function<void()> action);

  int calls(const std::string& function) const;
  size_t live() const;                   // objects of every kind
  size_t live(VkObjectType type) const;  // objects of one kind

  // The machine, in enumeration order. A test may add devices at any time.
  std::deque<FakeDevice> devices;
  FakeRequests requests;

 private:
  friend class FakeCall;

  struct Object {
    VkObjectType type;
    uint64_t parent;     // handle, 0 for none
    uint64_t state = 0;  // what it means is up to the functions of this type
  };

  const zemtest::ScopedEnv switchedOn_{vulkan::kNoVulkanVariable, nullptr};
  PFN_vkGetInstanceProcAddr previous_;
  mutable std::recursive_mutex mutex_;
  std::map<std::string, int> calls_;
  std::map<std::pair<std::string, int>, VkResult> failures_;  // by function and call number
  std::map<std::string, std::function<void()>> actions_;
  std::map<uint64_t, Object> objects_;
  uint64_t nextHandle_ = 0x10000;
};

}  // namespace kiv::test
