// SPDX-License-Identifier: Apache-2.0
// Kernels on a scripted machine: what is asked of Vulkan, every failure, sets,
// and what a dispatch hands to the device.
#include "kiv/vulkan/vulkan_kernel.h"

#include <gmock/gmock.h>

#include <cstring>
#include <iterator>
#include <ostream>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include "support/fake_vulkan.h"
#include "support/status_matchers.h"

namespace zemtest {

using namespace kiv;
using namespace kiv::vulkan;

namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

static_assert(!std::is_copy_constructible_v<VulkanKernel>);
static_assert(!std::is_copy_assignable_v<VulkanKernel>);

constexpr uint32_t kPush[] = {11, 22};

class VulkanKernelTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_THAT(context_.init(0), IsOk()); }

  Status create(VulkanKernel& kernel, uint32_t bindings, uint32_t pushSize) {
    return kernel.create(context_, kCode, std::size(kCode), bindings, pushSize);
  }
  VulkanBuffer buffer(size_t size) {
    VulkanBuffer buffer;
    EXPECT_THAT(buffer.create(context_, size, true), IsOk());
    return buffer;
  }
  VkCommandBuffer begin() {
    VkCommandBuffer cmd = VK_NULL_HANDLE;
    EXPECT_THAT(context_.beginCommand(&cmd), IsOk());
    return cmd;
  }
  void submit(VkCommandBuffer cmd) {
    recordFullBarrier(cmd);
    EXPECT_THAT(context_.submitAndWait(cmd), IsOk());
  }
  std::vector<std::string> logFrom(size_t first) const {
    const std::vector<std::string> log = vulkan_.log();
    return {log.begin() + static_cast<ptrdiff_t>(first), log.end()};
  }
  size_t liveKernelObjects() const {
    size_t live = 0;
    for (const VkObjectType type :
         {VK_OBJECT_TYPE_DESCRIPTOR_SET_LAYOUT, VK_OBJECT_TYPE_PIPELINE_LAYOUT,
          VK_OBJECT_TYPE_PIPELINE, VK_OBJECT_TYPE_DESCRIPTOR_POOL, VK_OBJECT_TYPE_DESCRIPTOR_SET,
          VK_OBJECT_TYPE_SHADER_MODULE}) {
      live += vulkan_.live(type);
    }
    return live;
  }

  FakeVulkan vulkan_{{FakeDevice{}}};
  VulkanContext context_;
};

// ---- creation

TEST_F(VulkanKernelTest, CreationGoesInThisOrderAndDropsTheModule) {
  const size_t before = vulkan_.log().size();
  VulkanKernel kernel;
  EXPECT_THAT(create(kernel, 3, 4), IsOk());
  EXPECT_THAT(logFrom(before), ElementsAre("vkCreateDescriptorSetLayout", "vkCreatePipelineLayout",
                                           "vkCreateShaderModule", "vkCreateComputePipelines",
                                           "vkDestroyShaderModule", "vkCreateDescriptorPool",
                                           "vkAllocateDescriptorSets"));
  EXPECT_EQ(vulkan_.live(VK_OBJECT_TYPE_SHADER_MODULE), 0U);
}

TEST_F(VulkanKernelTest, SecondCreateChangesNothing) {
  VulkanKernel kernel;
  EXPECT_THAT(create(kernel, 3, 4), IsOk());
  VkPipeline pipeline = kernel.pipeline();
  const std::vector<std::string> log = vulkan_.log();
  EXPECT_THAT(kernel.create(context_, nullptr, 0, 1, 0), IsOk());
  EXPECT_EQ(kernel.pipeline(), pipeline);
  EXPECT_EQ(vulkan_.log(), log);
}

// ---- failures

class KernelCreateFails : public VulkanKernelTest,
                          public ::testing::WithParamInterface<const char*> {
 protected:
  void createFailing(VulkanKernel& kernel) {
    vulkan_.fail(GetParam(), VK_ERROR_OUT_OF_DEVICE_MEMORY);
    EXPECT_THAT(create(kernel, 3, 4),
                IsFailure(StatusCode::IOError, std::string(GetParam()) + " failed"));
    EXPECT_EQ(vulkan_.live(VK_OBJECT_TYPE_SHADER_MODULE), 0U);
  }
};

TEST_P(KernelCreateFails, AndDestroyReleasesWhatWasMade) {
  VulkanKernel kernel;
  createFailing(kernel);
  kernel.destroy();
  EXPECT_EQ(liveKernelObjects(), 0U);
  EXPECT_EQ(kernel.pipeline(), VK_NULL_HANDLE);
  EXPECT_THAT(create(kernel, 3, 4), IsOk());
}

TEST_P(KernelCreateFails, AndTheDestructorReleasesWhatWasMade) {
  {
    VulkanKernel kernel;
    createFailing(kernel);
  }
  EXPECT_EQ(liveKernelObjects(), 0U);
}

TEST_P(KernelCreateFails, AndASecondTryMakesAWholeKernel) {
  VulkanKernel kernel;
  createFailing(kernel);
  EXPECT_THAT(create(kernel, 1, 8), IsOk());
  EXPECT_EQ(liveKernelObjects(), 5U);
  VulkanBuffer bound = buffer(16);
  VulkanBuffer* const list[] = {&bound};
  EXPECT_THAT(kernel.bindBuffers(context_, list, 1), IsOk());
  VkCommandBuffer cmd = begin();
  kernel.dispatch(cmd, 1, 1, 1, kPush, sizeof kPush);
  submit(cmd);
  EXPECT_EQ(vulkan_.dispatches.size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(EachCall, KernelCreateFails,
                         ::testing::Values("vkCreateDescriptorSetLayout", "vkCreatePipelineLayout",
                                           "vkCreateShaderModule", "vkCreateComputePipelines",
                                           "vkCreateDescriptorPool", "vkAllocateDescriptorSets"),
                         [](const auto& param) { return std::string(param.param); });

TEST_F(VulkanKernelTest, CodeThatIsMissingIsRefused) {
  VulkanKernel kernel;
  EXPECT_THAT(kernel.create(context_, nullptr, 7, 3, 4),
              IsInvalidFormat("createShaderModule: null"));
  EXPECT_EQ(kernel.pipeline(), VK_NULL_HANDLE);
  kernel.destroy();
  EXPECT_EQ(liveKernelObjects(), 0U);
}

// ---- destruction

TEST_F(VulkanKernelTest, DestroyGoesInThisOrderAndMayBeRepeated) {
  VulkanKernel kernel;
  EXPECT_THAT(create(kernel, 3, 4), IsOk());
  const size_t before = vulkan_.log().size();
  kernel.destroy();
  EXPECT_EQ(kernel.pipeline(), VK_NULL_HANDLE);
  kernel.destroy();
  EXPECT_THAT(logFrom(before),
              ElementsAre("vkDestroyDescriptorPool", "vkDestroyPipeline", "vkDestroyPipelineLayout",
                          "vkDestroyDescriptorSetLayout"));
  EXPECT_EQ(liveKernelObjects(), 0U);
}

TEST_F(VulkanKernelTest, EmptyKernelDestroysNothingAndHasNoSets) {
  const std::vector<std::string> log = vulkan_.log();
  VulkanKernel kernel;
  kernel.destroy();
  kernel.resetSets();
  EXPECT_EQ(kernel.allocSet(), VK_NULL_HANDLE);
  EXPECT_EQ(kernel.pipeline(), VK_NULL_HANDLE);
  EXPECT_EQ(vulkan_.log(), log);
}

TEST_F(VulkanKernelTest, CreateAfterDestroyMakesAnother) {
  VulkanKernel kernel;
  EXPECT_THAT(create(kernel, 3, 4), IsOk());
  kernel.destroy();
  EXPECT_EQ(kernel.allocSet(), VK_NULL_HANDLE);
  EXPECT_THAT(create(kernel, 1, 0), IsOk());
  EXPECT_EQ(vulkan_.requests.bindings, 1U);
}

// ---- sets

TEST_F(VulkanKernelTest, SetsRunOutAfter4096AndComeBackWithAReset) {
  VulkanKernel kernel;
  EXPECT_THAT(create(kernel, 3, 4), IsOk());
  for (int round = 0; round < 2; ++round) {
    std::set<VkDescriptorSet> sets;
    for (int i = 1; i < 4096; ++i) sets.insert(kernel.allocSet());  // the default set is one too
    EXPECT_EQ(sets.size(), 4095U);
    EXPECT_EQ(sets.count(VK_NULL_HANDLE), 0U);
    EXPECT_EQ(kernel.allocSet(), VK_NULL_HANDLE);
    EXPECT_EQ(vulkan_.live(VK_OBJECT_TYPE_DESCRIPTOR_SET), 4096U);
    kernel.resetSets();
    EXPECT_EQ(vulkan_.live(VK_OBJECT_TYPE_DESCRIPTOR_SET), 1U);
  }
}

TEST_F(VulkanKernelTest, FailedSetIsNull) {
  VulkanKernel kernel;
  EXPECT_THAT(create(kernel, 3, 4), IsOk());
  vulkan_.fail("vkAllocateDescriptorSets", VK_ERROR_FRAGMENTED_POOL);
  EXPECT_EQ(kernel.allocSet(), VK_NULL_HANDLE);
  EXPECT_NE(kernel.allocSet(), VK_NULL_HANDLE);
}

TEST_F(VulkanKernelTest, DefaultSetWorksAfterAReset) {
  VulkanKernel kernel;
  EXPECT_THAT(create(kernel, 1, 8), IsOk());
  VulkanBuffer bound = buffer(16);
  VulkanBuffer* const list[] = {&bound};
  EXPECT_THAT(kernel.bindBuffers(context_, list, 1), IsOk());
  kernel.resetSets();
  EXPECT_THAT(kernel.bindBuffers(context_, list, 1), IsOk());
  VkCommandBuffer cmd = begin();
  kernel.dispatch(cmd, 1, 1, 1, kPush, sizeof kPush);
  submit(cmd);
  ASSERT_EQ(vulkan_.dispatches.size(), 1U);
  EXPECT_EQ(vulkan_.dispatches[0].bindings[0].buffer, bound.handle());
}

TEST_F(VulkanKernelTest, ResetThatFindsNoDefaultSetLeavesNoneToBind) {
  VulkanKernel kernel;
  EXPECT_THAT(create(kernel, 1, 0), IsOk());
  VulkanBuffer bound = buffer(16);
  VulkanBuffer* const list[] = {&bound};
  vulkan_.fail("vkAllocateDescriptorSets", VK_ERROR_OUT_OF_DEVICE_MEMORY);
  kernel.resetSets();
  EXPECT_THAT(kernel.bindBuffers(context_, list, 1), IsInvalidFormat("bindBuffersTo: bad args"));
  kernel.resetSets();
  EXPECT_THAT(kernel.bindBuffers(context_, list, 1), IsOk());
}

TEST_F(VulkanKernelTest, PoolThatCannotBeResetKeepsWhatItHandedOut) {
  VulkanKernel kernel;
  EXPECT_THAT(create(kernel, 1, 0), IsOk());
  VulkanBuffer bound = buffer(16);
  VulkanBuffer* const list[] = {&bound};
  vulkan_.fail("vkResetDescriptorPool", VK_ERROR_UNKNOWN);
  kernel.resetSets();
  EXPECT_THAT(kernel.bindBuffers(context_, list, 1), IsOk());
}

// ---- binding

TEST_F(VulkanKernelTest, BuffersAreBoundWholeInOneUpdate) {
  VulkanKernel kernel;
  EXPECT_THAT(create(kernel, 3, 0), IsOk());
  VulkanBuffer first = buffer(16);
  VulkanBuffer second = buffer(100);
  VulkanBuffer wrapper;
  wrapper.adopt(second.handle(), 60);
  VulkanBuffer* const list[] = {&second, &wrapper, &first};
  EXPECT_THAT(kernel.bindBuffers(context_, list, 3), IsOk());
  EXPECT_EQ(vulkan_.calls("vkUpdateDescriptorSets"), 1);
  VkCommandBuffer cmd = begin();
  kernel.dispatch(cmd, 1, 1, 1, nullptr, 0);
  submit(cmd);
  ASSERT_EQ(vulkan_.dispatches.size(), 1U);
  const std::vector<VkDescriptorBufferInfo>& bound = vulkan_.dispatches[0].bindings;
  ASSERT_EQ(bound.size(), 3U);
  const uint64_t sizes[] = {100, 60, 16};
  for (uint32_t i = 0; i < 3; ++i) {
    EXPECT_EQ(bound[i].buffer, list[i]->handle());
    EXPECT_EQ(bound[i].offset, 0U);
    EXPECT_EQ(bound[i].range, sizes[i]);
  }
}

TEST_F(VulkanKernelTest, TooManyBuffersOrNoListAreRefused) {
  VulkanKernel kernel;
  EXPECT_THAT(create(kernel, 1, 0), IsOk());
  VulkanBuffer bound = buffer(16);
  VulkanBuffer* const list[] = {&bound, &bound};
  VkDescriptorSet set = kernel.allocSet();
  EXPECT_THAT(kernel.bindBuffers(context_, list, 2),
              IsInvalidFormat("bindBuffers: count exceeds layout"));
  EXPECT_THAT(kernel.bindBuffers(context_, nullptr, 1),
              IsInvalidFormat("bindBuffers: count exceeds layout"));
  EXPECT_THAT(kernel.bindBuffersTo(context_, list, 2, set),
              IsInvalidFormat("bindBuffersTo: bad args"));
  EXPECT_THAT(kernel.bindBuffersTo(context_, nullptr, 1, set),
              IsInvalidFormat("bindBuffersTo: bad args"));
  EXPECT_THAT(kernel.bindBuffersTo(context_, list, 1, VK_NULL_HANDLE),
              IsInvalidFormat("bindBuffersTo: bad args"));
  EXPECT_EQ(vulkan_.calls("vkUpdateDescriptorSets"), 0);
}

TEST_F(VulkanKernelTest, EmptyKernelBindsNothing) {
  VulkanKernel kernel;
  VulkanBuffer bound = buffer(16);
  VulkanBuffer* const list[] = {&bound};
  EXPECT_THAT(kernel.bindBuffers(context_, list, 1),
              IsInvalidFormat("bindBuffers: count exceeds layout"));
  EXPECT_THAT(kernel.bindBuffers(context_, list, 0), IsInvalidFormat("bindBuffersTo: bad args"));
}

// ---- dispatch

class KernelDispatch : public VulkanKernelTest {
 protected:
  void SetUp() override {
    VulkanKernelTest::SetUp();
    ASSERT_THAT(create(kernel_, 2, sizeof kPush), IsOk());
    first_ = buffer(16);
    second_ = buffer(32);
    ASSERT_THAT(kernel_.bindBuffers(context_, list_, 2), IsOk());
  }

  VulkanKernel kernel_;
  VulkanBuffer first_;
  VulkanBuffer second_;
  VulkanBuffer* const list_[2] = {&first_, &second_};
};

TEST_F(KernelDispatch, HandsPipelineSetConstantsAndGroupsToTheDevice) {
  VkCommandBuffer cmd = begin();
  const size_t before = vulkan_.log().size();
  kernel_.dispatch(cmd, 7, 5, 3, kPush, sizeof kPush);
  EXPECT_THAT(logFrom(before), ElementsAre("vkCmdBindPipeline", "vkCmdBindDescriptorSets",
                                           "vkCmdPushConstants", "vkCmdDispatch"));
  submit(cmd);
  const std::vector<FakeDispatch>& dispatches = vulkan_.dispatches;
  ASSERT_EQ(dispatches.size(), 1U);
  const FakeDispatch& dispatch = dispatches[0];
  EXPECT_THAT(dispatch.groups, ElementsAre(7, 5, 3));
  ASSERT_EQ(dispatch.bindings.size(), 2U);
  EXPECT_EQ(dispatch.bindings[0].buffer, first_.handle());
  EXPECT_EQ(dispatch.bindings[1].buffer, second_.handle());
  EXPECT_EQ(dispatch.bindings[1].range, 32U);
  ASSERT_EQ(dispatch.push.size(), sizeof kPush);
  EXPECT_EQ(std::memcmp(dispatch.push.data(), kPush, sizeof kPush), 0);
}

TEST_F(KernelDispatch, SetsOfOneSubmissionKeepTheirOwnBuffers) {
  VkCommandBuffer cmd = begin();
  kernel_.dispatch(cmd, 1, 1, 1, kPush, sizeof kPush);
  VkDescriptorSet set = kernel_.allocSet();
  VulkanBuffer* const swapped[] = {&second_, &first_};
  EXPECT_THAT(kernel_.bindBuffersTo(context_, swapped, 2, set), IsOk());
  kernel_.dispatchTo(cmd, set, 2, 1, 1, kPush, sizeof kPush);
  submit(cmd);
  const std::vector<FakeDispatch>& dispatches = vulkan_.dispatches;
  ASSERT_EQ(dispatches.size(), 2U);
  EXPECT_NE(dispatches[0].set, set);
  EXPECT_EQ(dispatches[0].bindings[0].buffer, first_.handle());
  EXPECT_EQ(dispatches[1].set, set);
  EXPECT_EQ(dispatches[1].bindings[0].buffer, second_.handle());
  EXPECT_THAT(dispatches[1].groups, ElementsAre(2, 1, 1));
}

TEST_F(KernelDispatch, ConstantsNeedAPointerAndASize) {
  VulkanKernel plain;
  EXPECT_THAT(create(plain, 2, 0), IsOk());
  EXPECT_THAT(plain.bindBuffers(context_, list_, 2), IsOk());
  VkCommandBuffer cmd = begin();
  plain.dispatch(cmd, 1, 1, 1, nullptr, 0);
  plain.dispatch(cmd, 2, 1, 1, nullptr, sizeof kPush);
  plain.dispatch(cmd, 3, 1, 1, kPush, 0);
  submit(cmd);
  EXPECT_EQ(vulkan_.calls("vkCmdPushConstants"), 0);
  ASSERT_EQ(vulkan_.dispatches.size(), 3U);
  for (const FakeDispatch& dispatch : vulkan_.dispatches) EXPECT_THAT(dispatch.push, IsEmpty());
}

TEST_F(KernelDispatch, NoWorkgroupsAreRecordedAsSuch) {
  VkCommandBuffer cmd = begin();
  kernel_.dispatch(cmd, 0, 1, 1, kPush, sizeof kPush);
  submit(cmd);
  ASSERT_EQ(vulkan_.dispatches.size(), 1U);
  EXPECT_THAT(vulkan_.dispatches[0].groups, ElementsAre(0, 1, 1));
}

// One set a dispatch, all taken back at once when the work is done.
TEST_F(KernelDispatch, ManyRoundsOfSetsAndResets) {
  for (int round = 0; round < 3; ++round) {
    VkCommandBuffer cmd = begin();
    for (uint32_t i = 1; i <= 100; ++i) {
      VkDescriptorSet set = kernel_.allocSet();
      EXPECT_THAT(kernel_.bindBuffersTo(context_, list_, 2, set), IsOk());
      kernel_.dispatchTo(cmd, set, i, 1, 1, kPush, sizeof kPush);
    }
    submit(cmd);
    kernel_.resetSets();
    EXPECT_EQ(vulkan_.live(VK_OBJECT_TYPE_DESCRIPTOR_SET), 1U);
  }
  EXPECT_EQ(vulkan_.dispatches.size(), 300U);
}

TEST(VulkanKernelOnAnEmptyContext, IsRefused) {
  constexpr uint32_t kMagic[] = {0x07230203};
  VulkanContext empty;
  VulkanKernel kernel;
  EXPECT_THAT(kernel.create(empty, kMagic, 1, 0, 0), IsInvalidFormat("create: uninitialized"));
  EXPECT_EQ(kernel.pipeline(), VK_NULL_HANDLE);
}

}  // namespace
}  // namespace zemtest
