// Part of every test program that works on a real device.
#include <gtest/gtest.h>

#include "kiv/vulkan/vulkan_api.h"

namespace kiv::test {
namespace {

// Some drivers keep memory of their own until the process ends. Once the driver
// is unloaded, a leak checker finds nothing that points to it and takes it for
// ours. So one instance is kept, and with it the driver.
class LoadedDriver : public ::testing::Environment {
 public:
  void SetUp() override {
    static VkInstance kept = VK_NULL_HANDLE;
    VkInstanceCreateInfo info{};
    info.sType = VK_STRUCTURE_TYPE_INSTANCE_CREATE_INFO;
    if (kept == VK_NULL_HANDLE && vulkan::loadVulkan()) {
      vkCreateInstance(&info, /*pAllocator=*/nullptr, &kept);
    }
  }
};

[[maybe_unused]] const auto* const environment =
    ::testing::AddGlobalTestEnvironment(new LoadedDriver);

}  // namespace
}  // namespace kiv::test
