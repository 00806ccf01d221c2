// SPDX-License-Identifier: Apache-2.0
// The scripted machine notices wrong use of an object's life, and fails the calls that
// it is told to fail: without that, tests built on it would pass whatever the code under
// test does.
#include "support/fake_vulkan.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "kiv/vulkan/vulkan_buffer.h"
#include "kiv/vulkan/vulkan_context.h"
#include "kiv/vulkan/vulkan_kernel.h"

namespace zemtest {

using namespace kiv;

namespace {

using ::kiv::vulkan::VulkanBuffer;
using ::kiv::vulkan::VulkanContext;
using ::kiv::vulkan::VulkanKernel;

VkFence createFence(VkDevice device) {
  const VkFenceCreateInfo info{VK_STRUCTURE_TYPE_FENCE_CREATE_INFO, nullptr, 0};
  VkFence fence = VK_NULL_HANDLE;
  EXPECT_EQ(vkCreateFence(device, &info, nullptr, &fence), VK_SUCCESS);
  return fence;
}

// Expects that `misuse` is reported with these words, whatever else it leads to.
void expectFault(const std::function<void()>& misuse, const std::string& words) {
  ::testing::TestPartResultArray failures;
  {
    const ::testing::ScopedFakeTestPartResultReporter reporter(
        ::testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &failures);
    misuse();
  }
  std::string all;
  for (int i = 0; i < failures.size(); ++i) all += failures.GetTestPartResult(i).message();
  EXPECT_NE(all.find(words), std::string::npos) << "reported: " << all;
}

TEST(FakeVulkan, ReportsAnObjectThatIsNeverDestroyed) {
  auto leak = [] {
    const FakeVulkan vulkan({FakeDevice{}});
    VkInstance instance = VK_NULL_HANDLE;
    const VkApplicationInfo application{
        VK_STRUCTURE_TYPE_APPLICATION_INFO, nullptr, "", 0, "", 0, 0};
    VkInstanceCreateInfo info{};
    info.pApplicationInfo = &application;
    EXPECT_TRUE(vulkan::loadVulkan());
    EXPECT_EQ(vkCreateInstance(&info, nullptr, &instance), VK_SUCCESS);
  };
  EXPECT_NONFATAL_FAILURE(leak(), "never destroyed");
}

TEST(FakeVulkan, ReportsAChildThatOutlivesItsParent) {
  auto outlive = [] {
    const FakeVulkan vulkan({FakeDevice{}});
    VulkanContext context;
    EXPECT_TRUE(context.init(0).ok());
    VkDevice device = context.device();
    VkFence fence = createFence(device);
    vkDestroyDevice(device, nullptr);  // the context's own pool and fence, and this one
    EXPECT_NE(fence, VK_NULL_HANDLE);
  };
  ::testing::TestPartResultArray failures;
  {
    const ::testing::ScopedFakeTestPartResultReporter reporter(
        ::testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &failures);
    outlive();
  }
  int children = 0;
  for (int i = 0; i < failures.size(); ++i) {
    const std::string message = failures.GetTestPartResult(i).message();
    if (message.find("vkDestroyDevice: a child") != std::string::npos) ++children;
  }
  EXPECT_EQ(children, 3);
}

class FakeVulkanMisuse : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(context_.init(0).ok()); }

  VkDeviceMemory allocate(VkDeviceSize size, uint32_t type) {
    const VkMemoryAllocateInfo info{VK_STRUCTURE_TYPE_MEMORY_ALLOCATE_INFO, nullptr, size, type};
    VkDeviceMemory memory = VK_NULL_HANDLE;
    EXPECT_EQ(vkAllocateMemory(context_.device(), &info, nullptr, &memory), VK_SUCCESS);
    return memory;
  }
  VulkanBuffer made(size_t size, bool hostVisible) {
    VulkanBuffer buffer;
    EXPECT_TRUE(buffer.create(context_, size, hostVisible).ok());
    return buffer;
  }

  FakeVulkan vulkan_{{FakeDevice{}}};
  VulkanContext context_;
};

TEST_F(FakeVulkanMisuse, DestroyingTwiceIsReported) {
  VkFence fence = createFence(context_.device());
  vkDestroyFence(context_.device(), fence, nullptr);
  EXPECT_NONFATAL_FAILURE(vkDestroyFence(context_.device(), fence, nullptr), "no live object");
}

TEST_F(FakeVulkanMisuse, HandleOfAFailedCreationIsReported) {
  vulkan_.fail("vkCreateFence", VK_ERROR_OUT_OF_HOST_MEMORY);
  const VkFenceCreateInfo info{VK_STRUCTURE_TYPE_FENCE_CREATE_INFO, nullptr, 0};
  VkFence fence = VK_NULL_HANDLE;
  EXPECT_NE(vkCreateFence(context_.device(), &info, nullptr, &fence), VK_SUCCESS);
  EXPECT_NONFATAL_FAILURE(vkDestroyFence(context_.device(), fence, nullptr), "no live object");
}

TEST_F(FakeVulkanMisuse, WaitingForAFenceThatNothingSignalsIsReported) {
  VkFence fence = createFence(context_.device());
  EXPECT_NONFATAL_FAILURE(vkWaitForFences(context_.device(), 1, &fence, VK_TRUE, 0),
                          "nothing signals");
  vkDestroyFence(context_.device(), fence, nullptr);
}

TEST_F(FakeVulkanMisuse, EndingABufferTwiceIsReported) {
  VkCommandBuffer cmd = VK_NULL_HANDLE;
  ASSERT_TRUE(context_.beginCommand(&cmd).ok());
  EXPECT_EQ(vkEndCommandBuffer(cmd), VK_SUCCESS);
  EXPECT_NONFATAL_FAILURE(vkEndCommandBuffer(cmd), "wrong state");
}

TEST_F(FakeVulkanMisuse, UnknownFunctionNamesAreReported) {
  EXPECT_NONFATAL_FAILURE(vulkan_.fail("vkCreateFunce", VK_NOT_READY), "vkCreateFunce");
  EXPECT_NONFATAL_FAILURE(static_cast<void>(vulkan_.calls("vkCreateFunce")), "vkCreateFunce");
}

TEST_F(FakeVulkanMisuse, OnlyTheNthCallFails) {
  vulkan_.fail("vkCreateFence", VK_ERROR_OUT_OF_HOST_MEMORY, 2);
  VkFence first = createFence(context_.device());
  const VkFenceCreateInfo info{VK_STRUCTURE_TYPE_FENCE_CREATE_INFO, nullptr, 0};
  VkFence second = VK_NULL_HANDLE;
  EXPECT_EQ(vkCreateFence(context_.device(), &info, nullptr, &second), VK_ERROR_OUT_OF_HOST_MEMORY);
  VkFence third = createFence(context_.device());
  vkDestroyFence(context_.device(), first, nullptr);
  vkDestroyFence(context_.device(), third, nullptr);
}

TEST_F(FakeVulkanMisuse, HeapsRunOut) {
  VkDeviceMemory first = allocate(kGiB - 64, 0);
  const VkMemoryAllocateInfo info{VK_STRUCTURE_TYPE_MEMORY_ALLOCATE_INFO, nullptr, 128, 0};
  VkDeviceMemory second = VK_NULL_HANDLE;
  EXPECT_EQ(vkAllocateMemory(context_.device(), &info, nullptr, &second),
            VK_ERROR_OUT_OF_DEVICE_MEMORY);
  vkFreeMemory(context_.device(), first, nullptr);
  EXPECT_EQ(vkAllocateMemory(context_.device(), &info, nullptr, &second), VK_SUCCESS);
  vkFreeMemory(context_.device(), second, nullptr);
}

TEST(FakeVulkan, BufferThatOutlivesItsDeviceIsReported) {
  expectFault(
      [] {
        const FakeVulkan vulkan({FakeDevice{}});
        VulkanContext context;
        EXPECT_TRUE(context.init(0).ok());
        VulkanBuffer buffer;
        EXPECT_TRUE(buffer.create(context, 64, true).ok());
        context.destroy();
      },
      "vkDestroyDevice: a child");
}

TEST(FakeVulkan, KernelThatOutlivesItsDeviceIsReported) {
  expectFault(
      [] {
        const FakeVulkan vulkan({FakeDevice{}});
        VulkanContext context;
        EXPECT_TRUE(context.init(0).ok());
        constexpr uint32_t kCode[] = {0x07230203, 0x00010500, 0, 1, 0};
        VulkanKernel kernel;
        EXPECT_TRUE(kernel.create(context, kCode, 5, 1, 4).ok());
        context.destroy();
      },
      "vkDestroyDevice: a child");
}

TEST_F(FakeVulkanMisuse, BufferThatIsGoneWhenItsCopyRunsIsReported) {
  VulkanBuffer from = made(64, true);
  VulkanBuffer to = made(64, true);
  VkCommandBuffer cmd = VK_NULL_HANDLE;
  ASSERT_TRUE(context_.beginCommand(&cmd).ok());
  const VkBufferCopy region = {0, 0, 8};
  vkCmdCopyBuffer(cmd, from.handle(), to.handle(), 1, &region);
  from.destroy();
  expectFault([&] { EXPECT_TRUE(context_.submitAndWait(cmd).ok()); }, "no live object");
}

TEST_F(FakeVulkanMisuse, NothingIsCarriedOutWhenTheSubmissionFails) {
  VulkanBuffer a = made(8, true);
  VulkanBuffer b = made(8, true);
  ASSERT_TRUE(a.upload("payload", 7).ok());
  vulkan_.fail("vkQueueSubmit", VK_ERROR_DEVICE_LOST);
  EXPECT_FALSE(b.copyFrom(context_, a, 7).ok());
  EXPECT_TRUE(vulkan_.copies.empty());
  EXPECT_EQ(vulkan_.bytes(b.handle()), std::vector<uint8_t>(8));
}

TEST_F(FakeVulkanMisuse, LogHoldsEveryCallAndOnlyCallsWithAResultCanFail) {
  EXPECT_EQ(vulkan_.log().front(), "vkCreateInstance");
  EXPECT_EQ(vulkan_.log().back(), "vkCreateFence");
  EXPECT_TRUE(FakeVulkan::canFail("vkMapMemory"));
  EXPECT_TRUE(FakeVulkan::canFail("vkResetDescriptorPool"));
  EXPECT_FALSE(FakeVulkan::canFail("vkCmdDispatch"));
  EXPECT_NONFATAL_FAILURE(vulkan_.fail("vkUnmapMemory", VK_NOT_READY), "returns nothing");
}

TEST_F(FakeVulkanMisuse, ASetThatIsResetWhileItWaitsIsReported) {
  constexpr uint32_t kCode[] = {0x07230203, 0x00010500, 0, 1, 0};
  VulkanKernel kernel;
  ASSERT_TRUE(kernel.create(context_, kCode, 5, 1, 4).ok());
  VkCommandBuffer cmd = VK_NULL_HANDLE;
  ASSERT_TRUE(context_.beginCommand(&cmd).ok());
  kernel.dispatch(cmd, 1, 1, 1, kCode, 4);
  kernel.resetSets();
  expectFault([&] { EXPECT_TRUE(context_.submitAndWait(cmd).ok()); }, "no live object");
}

}  // namespace
}  // namespace zemtest
