// SPDX-License-Identifier: Apache-2.0
// Where the recorder puts barriers, on a scripted machine.
#include "engine/vulkan/step_recorder.h"

#include <gtest/gtest.h>

#include <iterator>
#include <string>

#include "support/fake_vulkan.h"
#include "support/status_matchers.h"

namespace zemtest {
namespace {

using kiv::vulkan::BufferUse;
using kiv::vulkan::VulkanBuffer;
using zem::reads;
using zem::Stage;
using zem::StageOver;
using zem::StepRecorder;
using zem::writes;

class StepRecorderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_THAT(context_.init(0), IsOk());
    ASSERT_THAT(kernel_.create(context_, kCode, std::size(kCode), 3, 4), IsOk());
    for (VulkanBuffer* buffer : {&a_, &b_, &c_}) {
      ASSERT_THAT(buffer->create(context_, 64, BufferUse::DeviceLocal), IsOk());
    }
  }

  // The barriers of a recording, less the one before it.
  template <typename Record>
  size_t barriers(const Record& record) {
    VkCommandBuffer cmd = VK_NULL_HANDLE;
    EXPECT_THAT(context_.beginCommand(&cmd), IsOk());
    StepRecorder recorder(cmd);
    const int before = vulkan_.calls("vkCmdPipelineBarrier");
    record(recorder);
    const auto recorded = static_cast<size_t>(vulkan_.calls("vkCmdPipelineBarrier") - before);
    EXPECT_EQ(recorder.counts().barriers, recorded + 1);
    EXPECT_THAT(context_.submitAndWait(cmd), IsOk());
    return recorded;
  }
  Stage stage(std::vector<zem::StageUse> uses) {
    VulkanBuffer* const bound[] = {&a_, &b_, &c_};
    VkDescriptorSet set = kernel_.allocSet();
    EXPECT_THAT(kernel_.bindBuffersTo(context_, bound, 3, set), IsOk());
    return {&kernel_, set, std::move(uses), {7}, 5, 2, StageOver::Tokens};
  }

  FakeVulkan vulkan_{{FakeDevice{}}};
  kiv::vulkan::VulkanContext context_;
  kiv::vulkan::VulkanKernel kernel_;
  VulkanBuffer a_;
  VulkanBuffer b_;
  VulkanBuffer c_;
};

TEST_F(StepRecorderTest, BeginsWithABarrierAgainstWhatRanBefore) {
  VkCommandBuffer cmd = VK_NULL_HANDLE;
  ASSERT_THAT(context_.beginCommand(&cmd), IsOk());
  const StepRecorder recorder(cmd);
  EXPECT_EQ(vulkan_.calls("vkCmdPipelineBarrier"), 1);
  EXPECT_THAT(context_.submitAndWait(cmd), IsOk());
}

TEST_F(StepRecorderTest, ADispatchGetsItsSetPushAndGroups) {
  const Stage work = stage({reads(a_), writes(b_)});
  barriers([&](StepRecorder& recorder) { recorder.run(work, 3); });
  ASSERT_EQ(vulkan_.dispatches.size(), 1U);
  const FakeDispatch& dispatch = vulkan_.dispatches[0];
  EXPECT_EQ(dispatch.set, work.set);
  EXPECT_EQ(dispatch.push, (std::vector<uint8_t>{7, 0, 0, 0}));
  EXPECT_EQ(dispatch.groups, (std::array<uint32_t, 3>{5, 2, 3}));
}

TEST_F(StepRecorderTest, StagesThatShareOnlyWhatTheyReadRunSideBySide) {
  EXPECT_EQ(barriers([&](StepRecorder& recorder) {
              recorder.run(stage({reads(a_), writes(b_)}), 1);
              recorder.run(stage({reads(a_), writes(c_)}), 1);
              EXPECT_EQ(recorder.counts().stages, 2U);
            }),
            0U);
}

TEST_F(StepRecorderTest, ReadingWhatWasWrittenWaits) {
  EXPECT_EQ(barriers([&](StepRecorder& recorder) {
              recorder.run(stage({reads(a_), writes(b_)}), 1);
              recorder.run(stage({reads(b_), writes(c_)}), 1);
            }),
            1U);
}

TEST_F(StepRecorderTest, WritingWhatWasReadWaits) {
  EXPECT_EQ(barriers([&](StepRecorder& recorder) {
              recorder.run(stage({reads(a_), writes(b_)}), 1);
              recorder.run(stage({reads(c_), writes(a_)}), 1);
            }),
            1U);
}

TEST_F(StepRecorderTest, WritingWhatWasWrittenWaits) {
  EXPECT_EQ(barriers([&](StepRecorder& recorder) {
              recorder.run(stage({writes(a_)}), 1);
              recorder.run(stage({writes(a_)}), 1);
            }),
            1U);
}

TEST_F(StepRecorderTest, OneBarrierServesAllStagesBeforeIt) {
  EXPECT_EQ(barriers([&](StepRecorder& recorder) {
              recorder.run(stage({writes(a_)}), 1);
              recorder.run(stage({writes(b_)}), 1);
              recorder.run(stage({reads(a_), writes(c_)}), 1);
              recorder.run(stage({reads(b_)}), 1);
            }),
            1U);
}

TEST_F(StepRecorderTest, ACopyWaitsForWhatItCopies) {
  EXPECT_EQ(barriers([&](StepRecorder& recorder) {
              recorder.run(stage({writes(a_)}), 1);
              recorder.copy(a_, b_, 16);
              EXPECT_EQ(recorder.counts().stages, 2U);
            }),
            1U);
  ASSERT_EQ(vulkan_.copies.size(), 1U);
  EXPECT_EQ(vulkan_.copies[0].source, a_.handle());
  EXPECT_EQ(vulkan_.copies[0].destination, b_.handle());
  EXPECT_EQ(vulkan_.copies[0].region.size, 16U);
}

TEST_F(StepRecorderTest, TheEndMakesResultsVisible) {
  EXPECT_EQ(barriers([&](StepRecorder& recorder) {
              recorder.run(stage({writes(a_)}), 1);
              recorder.finish();
            }),
            1U);
}

}  // namespace
}  // namespace zemtest
