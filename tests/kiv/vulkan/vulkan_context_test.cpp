// SPDX-License-Identifier: Apache-2.0
// Setting up, using and releasing a context on a scripted machine, with every
// call that can fail failing once.
#include "kiv/vulkan/vulkan_context.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <thread>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/fake_vulkan.h"

namespace zemtest {

using namespace kiv;
using namespace kiv::vulkan;

namespace {

static_assert(!std::is_copy_constructible_v<VulkanContext>);
static_assert(!std::is_copy_assignable_v<VulkanContext>);

void expectStatus(const Status& status, StatusCode code, const std::string& message) {
  EXPECT_EQ(status.code(), code);
  EXPECT_EQ(status.message(), message);
}

void expectOk(const Status& status) { expectStatus(status, StatusCode::Ok, ""); }

void expectNoContext(const VulkanContext& context) {
  EXPECT_EQ(context.instance(), VK_NULL_HANDLE);
  EXPECT_EQ(context.physicalDevice(), VK_NULL_HANDLE);
  EXPECT_EQ(context.device(), VK_NULL_HANDLE);
  EXPECT_EQ(context.queue(), VK_NULL_HANDLE);
}

void submitEmptyCommand(VulkanContext& context) {
  VkCommandBuffer cmd = VK_NULL_HANDLE;
  expectOk(context.beginCommand(&cmd));
  ASSERT_NE(cmd, VK_NULL_HANDLE);
  expectOk(context.submitAndWait(cmd));
}

// ---- what is asked of Vulkan

TEST(VulkanContext, ReadyContextHasEveryHandle) {
  const FakeVulkan vulkan({FakeDevice{}});
  VulkanContext context;
  expectOk(context.init(0));
  EXPECT_NE(context.instance(), VK_NULL_HANDLE);
  EXPECT_NE(context.physicalDevice(), VK_NULL_HANDLE);
  EXPECT_NE(context.device(), VK_NULL_HANDLE);
  EXPECT_NE(context.queue(), VK_NULL_HANDLE);
}

// ---- native storage

FakeDevice deviceWithStorage(bool bits16, bool bits8) {
  FakeDevice device;
  device.storage16.storageBuffer16BitAccess = bits16 ? VK_TRUE : VK_FALSE;
  device.storage8.storageBuffer8BitAccess = bits8 ? VK_TRUE : VK_FALSE;
  return device;
}

TEST(NativeStorage, BothAccessesEnableEveryReportedStorageFeature) {
  FakeDevice device = deviceWithStorage(true, true);
  device.storage16.storagePushConstant16 = VK_TRUE;
  device.storage8.uniformAndStorageBuffer8BitAccess = VK_TRUE;
  FakeVulkan vulkan({device});
  VulkanContext context;
  expectOk(context.init(0));
  EXPECT_TRUE(context.hasNativeStorage());

  const FakeRequests::Device& request = vulkan.requests.device;
  ASSERT_TRUE(request.storage16.has_value());
  EXPECT_EQ(request.storage16->storageBuffer16BitAccess, VK_TRUE);
  EXPECT_EQ(request.storage16->storagePushConstant16, VK_TRUE);
  EXPECT_EQ(request.storage16->uniformAndStorageBuffer16BitAccess, VK_FALSE);
  EXPECT_EQ(request.storage16->storageInputOutput16, VK_FALSE);
  ASSERT_TRUE(request.storage8.has_value());
  EXPECT_EQ(request.storage8->storageBuffer8BitAccess, VK_TRUE);
  EXPECT_EQ(request.storage8->uniformAndStorageBuffer8BitAccess, VK_TRUE);
  EXPECT_EQ(request.storage8->storagePushConstant8, VK_FALSE);
}

TEST(NativeStorage, OneAccessAloneIsNotEnoughAndPassesNoChain) {
  for (const auto& [bits16, bits8] : {std::pair(true, false), {false, true}, {false, false}}) {
    FakeVulkan vulkan({deviceWithStorage(bits16, bits8)});
    VulkanContext context;
    expectOk(context.init(0));
    EXPECT_FALSE(context.hasNativeStorage());
    EXPECT_FALSE(vulkan.requests.device.chain);
  }
}

TEST(NativeStorage, UniformAccessDoesNotCountAsStorageAccess) {
  FakeDevice device;
  device.storage16.uniformAndStorageBuffer16BitAccess = VK_TRUE;
  device.storage8.uniformAndStorageBuffer8BitAccess = VK_TRUE;
  const FakeVulkan vulkan({device});
  VulkanContext context;
  expectOk(context.init(0));
  EXPECT_FALSE(context.hasNativeStorage());
}

TEST(NativeStorage, IsAskedOfEachDeviceAnew) {
  FakeDevice plain;
  plain.name = "plain";
  plain.heaps = {};
  const FakeVulkan vulkan({plain, deviceWithStorage(true, true)});
  VulkanContext context;
  expectOk(context.init(0));
  EXPECT_TRUE(context.hasNativeStorage());
  context.destroy();
  expectOk(context.init(1));
  EXPECT_EQ(context.info().deviceName, "plain");
  EXPECT_FALSE(context.hasNativeStorage());
}

// ---- failures of init

struct InitFailure {
  const char* name;
  const char* function;
  int call;
  const char* message;
};

void PrintTo(const InitFailure& failure, std::ostream* out) {
  *out << failure.function << " call " << failure.call;
}

class InitFails : public ::testing::TestWithParam<std::tuple<InitFailure, VkResult>> {};

TEST_P(InitFails, AndLeavesNothingBehind) {
  const auto& [failure, result] = GetParam();
  FakeVulkan vulkan({FakeDevice{}, FakeDevice{}});
  vulkan.fail(failure.function, result, failure.call);
  VulkanContext context;
  expectStatus(context.init(0), StatusCode::IOError, failure.message);
  expectNoContext(context);
  EXPECT_EQ(vulkan.live(), 0U);

  expectOk(context.init(0));
  submitEmptyCommand(context);
}

TEST_P(InitFails, AfterAnEarlierUseAsWell) {
  const auto& [failure, result] = GetParam();
  FakeVulkan vulkan({FakeDevice{}, FakeDevice{}});
  VulkanContext context;
  expectOk(context.init(0));
  context.destroy();
  vulkan.fail(failure.function, result, failure.call);
  expectStatus(context.init(0), StatusCode::IOError, failure.message);
  expectNoContext(context);
  EXPECT_EQ(vulkan.live(), 0U);
}

INSTANTIATE_TEST_SUITE_P(
    EachCall, InitFails,
    ::testing::Combine(
        ::testing::Values(InitFailure{"Instance", "vkCreateInstance", 1, "vkCreateInstance failed"},
                          InitFailure{"DeviceCount", "vkEnumeratePhysicalDevices", 1,
                                      "no Vulkan physical devices"},
                          InitFailure{"DeviceList", "vkEnumeratePhysicalDevices", 2,
                                      "vkEnumeratePhysicalDevices failed"},
                          InitFailure{"Device", "vkCreateDevice", 1, "vkCreateDevice failed"},
                          InitFailure{"CommandPool", "vkCreateCommandPool", 1,
                                      "vkCreateCommandPool failed"},
                          InitFailure{"Fence", "vkCreateFence", 1, "vkCreateFence failed"}),
        ::testing::Values(VK_ERROR_OUT_OF_HOST_MEMORY, VK_ERROR_DEVICE_LOST)),
    [](const auto& param) {
      return std::string(std::get<0>(param.param).name) +
             (std::get<1>(param.param) == VK_ERROR_DEVICE_LOST ? "DeviceLost" : "OutOfMemory");
    });

TEST(VulkanContext, MachineWithoutDevicesFailsAndMayGainOne) {
  FakeVulkan vulkan({});
  VulkanContext context;
  expectStatus(context.init(0), StatusCode::IOError, "no Vulkan physical devices");
  expectNoContext(context);
  EXPECT_EQ(vulkan.live(), 0U);
  EXPECT_EQ(vulkan.calls("vkEnumeratePhysicalDevices"), 1);

  vulkan.devices.emplace_back();
  expectOk(context.init(0));
}

TEST(VulkanContext, DevicesThatVanishBetweenTheTwoCallsAreNoDevices) {
  FakeVulkan vulkan({FakeDevice{}});
  VulkanContext context;
  vulkan.during("vkEnumeratePhysicalDevices", [&vulkan] {
    vulkan.during("vkEnumeratePhysicalDevices", [&vulkan] { vulkan.devices.clear(); });
  });
  expectStatus(context.init(0), StatusCode::IOError, "no Vulkan physical devices");
  expectNoContext(context);
  EXPECT_EQ(vulkan.live(), 0U);
}

PFN_vkVoidFunction VKAPI_CALL findsNothing(VkInstance, const char*) { return nullptr; }

TEST(VulkanContext, MachineWithoutALoaderFailsToCreateAnInstance) {
  const FakeVulkan vulkan({FakeDevice{}});
  const PFN_vkGetInstanceProcAddr fake = vkGetInstanceProcAddr;
  volkInitializeCustom(findsNothing);
  EXPECT_FALSE(loadVulkan());
  VulkanContext context;
  expectStatus(context.init(0), StatusCode::IOError, "vkCreateInstance failed");
  expectNoContext(context);
  VkCommandBuffer cmd = VK_NULL_HANDLE;
  expectStatus(context.beginCommand(&cmd), StatusCode::InvalidFormat,
               "beginCommand: uninitialized");
  std::vector<ListedDevice> devices(1);
  expectStatus(listDevices(devices), StatusCode::IOError, "vkCreateInstance failed");
  EXPECT_TRUE(devices.empty());
  context.destroy();

  volkInitializeCustom(fake);
  EXPECT_TRUE(loadVulkan());
  expectOk(context.init(0));
}

// ---- twice, never, in the wrong order

TEST(VulkanContext, SecondInitSucceedsAndCreatesNothing) {
  const FakeVulkan vulkan({FakeDevice{}, FakeDevice{}});
  VulkanContext context;
  expectOk(context.init(0));
  VkInstance instance = context.instance();
  VkPhysicalDevice physical = context.physicalDevice();
  VkDevice device = context.device();
  const size_t live = vulkan.live();
  expectOk(context.init(1));
  EXPECT_EQ(context.instance(), instance);
  EXPECT_EQ(context.physicalDevice(), physical);
  EXPECT_EQ(context.device(), device);
  EXPECT_EQ(vulkan.live(), live);
  EXPECT_EQ(vulkan.calls("vkCreateInstance"), 1);
  EXPECT_EQ(vulkan.calls("vkCreateDevice"), 1);
}

TEST(VulkanContext, DestroyReleasesEverythingAndMayBeRepeated) {
  const FakeVulkan vulkan({deviceWithStorage(true, true)});
  VulkanContext context;
  expectOk(context.init(0));
  context.destroy();
  expectNoContext(context);
  EXPECT_EQ(vulkan.live(), 0U);
  context.destroy();
  EXPECT_EQ(vulkan.calls("vkDestroyInstance"), 1);
  EXPECT_EQ(vulkan.calls("vkDestroyDevice"), 1);
  EXPECT_EQ(context.info().deviceName, "fake device");
  EXPECT_TRUE(context.hasNativeStorage());
}

TEST(VulkanContext, DestroyOfAnEmptyContextCallsNothing) {
  const FakeVulkan vulkan({FakeDevice{}});
  VulkanContext context;
  context.destroy();
  expectNoContext(context);
  EXPECT_EQ(vulkan.calls("vkDestroyInstance"), 0);
}

TEST(VulkanContext, DestructorReleasesEverything) {
  const FakeVulkan vulkan({FakeDevice{}});
  {
    VulkanContext context;
    expectOk(context.init(0));
    EXPECT_GT(vulkan.live(), 0U);
  }
  EXPECT_EQ(vulkan.live(), 0U);
}

TEST(VulkanContext, InitAfterDestroyWorks) {
  const FakeVulkan vulkan({FakeDevice{}});
  VulkanContext context;
  for (int i = 0; i < 3; ++i) {
    expectOk(context.init(0));
    submitEmptyCommand(context);
    context.destroy();
  }
}

TEST(VulkanContext, TwoContextsLiveSideBySide) {
  FakeDevice dedicated;
  dedicated.queueFamilies = {VK_QUEUE_TRANSFER_BIT, VK_QUEUE_COMPUTE_BIT};
  const FakeVulkan vulkan({FakeDevice{}, dedicated});
  VulkanContext first;
  VulkanContext second;
  expectOk(first.init(0));
  expectOk(second.init(1));
  EXPECT_NE(first.device(), second.device());
  EXPECT_NE(first.queueFamily(), second.queueFamily());
  submitEmptyCommand(first);
  submitEmptyCommand(second);
  first.destroy();
  submitEmptyCommand(second);
  expectOk(first.init(0));
  submitEmptyCommand(first);
}

TEST(VulkanContext, ContextsOnDifferentThreadsDoNotDisturbEachOther) {
  const FakeVulkan vulkan({FakeDevice{}});
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 50; ++i) {
        VulkanContext context;
        std::vector<ListedDevice> devices;
        expectOk(listDevices(devices));
        expectOk(context.init(0));
        submitEmptyCommand(context);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(vulkan.live(), 0U);
  EXPECT_EQ(vulkan.calls("vkQueueSubmit"), 200);
}

// ---- command buffers

class VulkanCommand : public ::testing::Test {
 protected:
  void SetUp() override { expectOk(context_.init(0)); }

  VkCommandBuffer begin() {
    VkCommandBuffer cmd = VK_NULL_HANDLE;
    expectOk(context_.beginCommand(&cmd));
    return cmd;
  }
  size_t liveCommandBuffers() const { return vulkan_.live(VK_OBJECT_TYPE_COMMAND_BUFFER); }

  FakeVulkan vulkan_{{FakeDevice{}}};
  VulkanContext context_;
};

TEST_F(VulkanCommand, IsSubmittedAloneAwaitedWithoutLimitAndFreed) {
  expectOk(context_.submitAndWait(begin()));
  EXPECT_EQ(vulkan_.calls("vkResetFences"), 1);
  EXPECT_EQ(liveCommandBuffers(), 0U);
}

TEST_F(VulkanCommand, ManyInTurnUseTheOneFence) {
  for (int i = 0; i < 100; ++i) submitEmptyCommand(context_);
  EXPECT_EQ(vulkan_.calls("vkQueueSubmit"), 100);
  EXPECT_EQ(vulkan_.live(VK_OBJECT_TYPE_FENCE), 1U);
  EXPECT_EQ(liveCommandBuffers(), 0U);
}

TEST_F(VulkanCommand, NullOutputIsRefused) {
  expectStatus(context_.beginCommand(nullptr), StatusCode::InvalidFormat, "null outCmd");
  EXPECT_EQ(vulkan_.calls("vkAllocateCommandBuffers"), 0);
}

TEST_F(VulkanCommand, FailedAllocationLeavesTheOutputAlone) {
  vulkan_.fail("vkAllocateCommandBuffers", VK_ERROR_OUT_OF_DEVICE_MEMORY);
  VkCommandBuffer cmd = VK_NULL_HANDLE;
  expectStatus(context_.beginCommand(&cmd), StatusCode::IOError, "vkAllocateCommandBuffers failed");
  EXPECT_EQ(cmd, VK_NULL_HANDLE);
  submitEmptyCommand(context_);
}

TEST_F(VulkanCommand, FailedBeginFreesTheBuffer) {
  vulkan_.fail("vkBeginCommandBuffer", VK_ERROR_OUT_OF_HOST_MEMORY);
  VkCommandBuffer cmd = VK_NULL_HANDLE;
  expectStatus(context_.beginCommand(&cmd), StatusCode::IOError, "vkBeginCommandBuffer failed");
  EXPECT_EQ(cmd, VK_NULL_HANDLE);
  EXPECT_EQ(liveCommandBuffers(), 0U);
  submitEmptyCommand(context_);
}

TEST_F(VulkanCommand, NullBufferIsRefused) {
  expectStatus(context_.submitAndWait(VK_NULL_HANDLE), StatusCode::InvalidFormat,
               "submitAndWait: uninitialized");
  EXPECT_EQ(vulkan_.calls("vkEndCommandBuffer"), 0);
}

TEST_F(VulkanCommand, EmptyContextIsRefused) {
  VkCommandBuffer cmd = begin();
  VulkanContext empty;
  expectStatus(empty.submitAndWait(cmd), StatusCode::InvalidFormat, "submitAndWait: uninitialized");
  VkCommandBuffer out = VK_NULL_HANDLE;
  expectStatus(empty.beginCommand(&out), StatusCode::InvalidFormat, "beginCommand: uninitialized");
  expectStatus(empty.beginCommand(nullptr), StatusCode::InvalidFormat, "null outCmd");
  context_.destroy();
  expectStatus(context_.submitAndWait(cmd), StatusCode::InvalidFormat,
               "submitAndWait: uninitialized");
}

class SubmitFails : public VulkanCommand, public ::testing::WithParamInterface<const char*> {};

TEST_P(SubmitFails, AndTheBufferGoesWithThePool) {
  const std::string function = GetParam();
  VkCommandBuffer cmd = begin();
  vulkan_.fail(function, VK_ERROR_DEVICE_LOST);
  expectStatus(context_.submitAndWait(cmd), StatusCode::IOError, function + " failed");
  EXPECT_EQ(liveCommandBuffers(), 1U);
  EXPECT_EQ(vulkan_.calls("vkFreeCommandBuffers"), 0);

  context_.destroy();
  EXPECT_EQ(vulkan_.live(), 0U);
  expectOk(context_.init(0));
  submitEmptyCommand(context_);
}

TEST_P(SubmitFails, AndNothingAfterItIsCalled) {
  const std::vector<std::string> steps = {"vkEndCommandBuffer", "vkQueueSubmit", "vkWaitForFences",
                                          "vkResetFences"};
  VkCommandBuffer cmd = begin();
  vulkan_.fail(GetParam(), VK_ERROR_OUT_OF_DEVICE_MEMORY);
  EXPECT_FALSE(context_.submitAndWait(cmd).ok());
  int expected = 1;
  for (const std::string& step : steps) {
    EXPECT_EQ(vulkan_.calls(step), expected) << step;
    if (step == GetParam()) expected = 0;
  }
}

INSTANTIATE_TEST_SUITE_P(EachCall, SubmitFails,
                         ::testing::Values("vkEndCommandBuffer", "vkQueueSubmit", "vkWaitForFences",
                                           "vkResetFences"),
                         [](const auto& param) { return std::string(param.param); });

TEST_F(VulkanCommand, TimeoutOfTheWaitIsAFailure) {
  VkCommandBuffer cmd = begin();
  vulkan_.fail("vkWaitForFences", VK_TIMEOUT);
  expectStatus(context_.submitAndWait(cmd), StatusCode::IOError, "vkWaitForFences failed");
}

// The fence may be signalled by then: a second wait on it would not wait.
TEST_F(VulkanCommand, WaitsOnAnotherFenceAfterAFailure) {
  for (const char* function : {"vkWaitForFences", "vkResetFences"}) {
    VkCommandBuffer cmd = begin();
    vulkan_.fail(function, VK_ERROR_OUT_OF_HOST_MEMORY);
    EXPECT_FALSE(context_.submitAndWait(cmd).ok());
    EXPECT_EQ(vulkan_.live(VK_OBJECT_TYPE_FENCE), 1U);
    submitEmptyCommand(context_);
  }
  EXPECT_EQ(vulkan_.calls("vkDeviceWaitIdle"), 2);
}

TEST_F(VulkanCommand, WithoutAnotherFenceNothingMoreIsSubmitted) {
  VkCommandBuffer cmd = begin();
  vulkan_.fail("vkResetFences", VK_ERROR_OUT_OF_HOST_MEMORY);
  vulkan_.fail("vkCreateFence", VK_ERROR_OUT_OF_HOST_MEMORY);
  expectStatus(context_.submitAndWait(cmd), StatusCode::IOError, "vkResetFences failed");
  expectStatus(context_.submitAndWait(begin()), StatusCode::InvalidFormat,
               "submitAndWait: uninitialized");
  EXPECT_EQ(vulkan_.calls("vkQueueSubmit"), 1);
  context_.destroy();
  expectOk(context_.init(0));
  submitEmptyCommand(context_);
}

}  // namespace
}  // namespace zemtest
