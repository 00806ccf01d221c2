// The scripted machine notices wrong use: without that, tests built on it would
// pass whatever the code under test does.
#include "support/fake_vulkan.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include "kiv/vulkan/vulkan_context.h"

namespace kiv::test {
namespace {

using ::kiv::vulkan::VulkanContext;

VkFence createFence(VkDevice device) {
  const VkFenceCreateInfo info{VK_STRUCTURE_TYPE_FENCE_CREATE_INFO, nullptr, 0};
  VkFence fence = VK_NULL_HANDLE;
  EXPECT_EQ(vkCreateFence(device, &info, nullptr, &fence), VK_SUCCESS);
  return fence;
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

}  // namespace
}  // namespace kiv::test
