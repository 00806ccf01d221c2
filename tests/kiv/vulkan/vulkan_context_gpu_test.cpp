// SPDX-License-Identifier: Apache-2.0
// The context on the devices that this machine really has, a software device at
// least. The validation layer watches: see CMakeLists.txt.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "kiv/vulkan/vulkan_context.h"
#include "support/fake_vulkan.h"
#include "support/needs_gpu.h"

namespace zemtest {

using namespace kiv;
using namespace kiv::vulkan;

namespace {

void submitEmptyCommand(VulkanContext& context) {
  VkCommandBuffer cmd = VK_NULL_HANDLE;
  ASSERT_TRUE(context.beginCommand(&cmd).ok());
  const Status status = context.submitAndWait(cmd);
  EXPECT_TRUE(status.ok()) << status.message();
}

class RealDevice : public ::testing::Test {
 protected:
  void SetUp() override {
    const Status status = listDevices(devices_);
    if (!status.ok()) ZEM_SKIP_WITHOUT_GPU("no Vulkan device: " + status.message());
  }

  std::vector<ListedDevice> devices_;
};

TEST_F(RealDevice, EveryListedDeviceSetsUpSubmitsAndIsReleased) {
  for (uint64_t i = 0; i < devices_.size(); ++i) {
    SCOPED_TRACE(devices_[i].info.deviceName);
    VulkanContext context;
    const Status status = context.init(i);
    ASSERT_TRUE(status.ok()) << status.message();
    EXPECT_EQ(context.info().deviceName, devices_[i].info.deviceName);
    EXPECT_EQ(context.hasNativeStorage(), devices_[i].nativeStorage);
    submitEmptyCommand(context);
    submitEmptyCommand(context);
    context.destroy();
    EXPECT_EQ(context.instance(), VK_NULL_HANDLE);
  }
}

// The smallest values that any Vulkan 1.0 device may report.
TEST_F(RealDevice, DescriptionHoldsWhatEveryDeviceMustOffer) {
  for (const ListedDevice& device : devices_) {
    EXPECT_FALSE(device.info.deviceName.empty());
    EXPECT_GE(device.info.maxComputeSharedMemory, 16384U);
    EXPECT_GE(device.info.maxWorkGroupInvocations, 128U);
    EXPECT_GE(device.info.maxPushConstants, 128U);
    EXPECT_GE(device.info.subgroupSize, 1U);
    EXPECT_GT(device.info.vramBytes, 0U);
    EXPECT_GE(device.info.apiVersion, VK_API_VERSION_1_0);
    EXPECT_FALSE(device.software && device.info.discrete);
  }
}

TEST_F(RealDevice, AutomaticDeviceIsTheOneThatAnIndexPastTheEndSelects) {
  VulkanContext context;
  ASSERT_TRUE(context.init(UINT64_MAX).ok());
  size_t marked = 0;
  for (const ListedDevice& device : devices_) {
    if (!device.automatic) continue;
    ++marked;
    EXPECT_EQ(device.info.deviceName, context.info().deviceName);
  }
  EXPECT_EQ(marked, 1U);
}

TEST_F(RealDevice, TwoContextsWorkSideBySideAndOneOutlivesTheOther) {
  VulkanContext first;
  VulkanContext second;
  ASSERT_TRUE(first.init(0).ok());
  ASSERT_TRUE(second.init(0).ok());
  submitEmptyCommand(first);
  submitEmptyCommand(second);
  first.destroy();
  submitEmptyCommand(second);
  ASSERT_TRUE(first.init(0).ok());
  submitEmptyCommand(first);
  submitEmptyCommand(second);
}

TEST_F(RealDevice, ContextsOnTwoThreadsWorkAtOnce) {
  const auto work = [] {
    for (int i = 0; i < 3; ++i) {
      VulkanContext context;
      ASSERT_TRUE(context.init(0).ok());
      for (int j = 0; j < 5; ++j) submitEmptyCommand(context);
    }
  };
  std::thread other(work);
  work();
  other.join();
}

TEST_F(RealDevice, BufferThatWasNeverSubmittedGoesWithThePool) {
  VulkanContext context;
  ASSERT_TRUE(context.init(0).ok());
  VkCommandBuffer cmd = VK_NULL_HANDLE;
  ASSERT_TRUE(context.beginCommand(&cmd).ok());
  context.destroy();
}

TEST_F(RealDevice, WorksAgainAfterAScriptedMachine) {
  {
    const FakeVulkan vulkan({FakeDevice{}});
    VulkanContext context;
    ASSERT_TRUE(context.init(0).ok());
    EXPECT_EQ(context.info().deviceName, "fake device");
  }
  VulkanContext context;
  ASSERT_TRUE(context.init(0).ok());
  EXPECT_EQ(context.info().deviceName, devices_[0].info.deviceName);
  submitEmptyCommand(context);
}

// A loader without a driver refuses to create an instance.
TEST(MachineWithoutADriver, InitFailsAndSaysWhichCall) {
  if (!loadVulkan()) ZEM_SKIP_WITHOUT_GPU("no Vulkan loader on this machine");
  ::setenv("VK_DRIVER_FILES", "/nonexistent/driver.json", 1);
  ::setenv("VK_ICD_FILENAMES", "/nonexistent/driver.json", 1);
  VulkanContext context;
  const Status status = context.init(0);
  ::unsetenv("VK_DRIVER_FILES");
  ::unsetenv("VK_ICD_FILENAMES");
  EXPECT_EQ(status.code(), StatusCode::IOError);
  EXPECT_EQ(status.message(), "vkCreateInstance failed");
  EXPECT_EQ(context.instance(), VK_NULL_HANDLE);
}

}  // namespace
}  // namespace zemtest
