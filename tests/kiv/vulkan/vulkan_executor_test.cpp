// SPDX-License-Identifier: Apache-2.0
#include "kiv/vulkan/vulkan_executor.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "support/fake_vulkan.h"
#include "support/status_matchers.h"

namespace zemtest {

using namespace kiv;
using namespace kiv::vulkan;

namespace {

using ::testing::ElementsAre;

constexpr uint32_t kCount = 4;

class VulkanExecutorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_THAT(context_.init(0), IsOk());
    for (VulkanBuffer& buffer : buffers_) {
      ASSERT_THAT(buffer.create(context_, kCount * sizeof(float), true), IsOk());
    }
  }

  VkCommandBuffer begin() {
    VkCommandBuffer cmd = VK_NULL_HANDLE;
    EXPECT_THAT(context_.beginCommand(&cmd), IsOk());
    return cmd;
  }
  Status execute(VkCommandBuffer cmd, Opcode op, uint32_t count = 3) {
    return executor_.execute(context_, cmd, op, list_, count, 2, 1, 1, &kCount, sizeof kCount);
  }
  size_t pipelines() const { return vulkan_.live(VK_OBJECT_TYPE_PIPELINE); }

  FakeVulkan vulkan_{{FakeDevice{}}};
  VulkanContext context_;
  VulkanBuffer buffers_[4];
  VulkanBuffer* const list_[4] = {&buffers_[0], &buffers_[1], &buffers_[2], &buffers_[3]};
  VulkanExecutor executor_;
};

std::vector<uint32_t> wordsOf(ShaderId id) {
  const EmbeddedShader& shader = embeddedShader(id);
  return {shader.code, shader.code + shader.wordCount};
}

TEST_F(VulkanExecutorTest, OpcodeWithoutAKernelIsUnsupported) {
  for (const Opcode op : {Opcode::Relu, Opcode::Constant, Opcode::MatMulQ8_0}) {
    VulkanKernel* kernel = nullptr;
    EXPECT_THAT(executor_.getKernel(context_, op, &kernel),
                IsFailure(StatusCode::Unsupported, "no GPU kernel registered for opcode"));
    EXPECT_EQ(kernel, nullptr);
    VkCommandBuffer cmd = begin();
    EXPECT_THAT(execute(cmd, op),
                IsFailure(StatusCode::Unsupported, "no GPU kernel registered for opcode"));
  }
  EXPECT_EQ(pipelines(), 0U);
  EXPECT_EQ(vulkan_.calls("vkCmdDispatch"), 0);
}

TEST_F(VulkanExecutorTest, KernelIsMadeOnFirstUseAndKept) {
  EXPECT_EQ(pipelines(), 0U);
  VulkanKernel* kernel = nullptr;
  EXPECT_THAT(executor_.getKernel(context_, Opcode::Add, &kernel), IsOk());
  ASSERT_NE(kernel, nullptr);
  EXPECT_NE(kernel->pipeline(), VK_NULL_HANDLE);
  EXPECT_EQ(vulkan_.requests.shaderCode, wordsOf(ShaderId::Add));
  EXPECT_EQ(vulkan_.requests.bindings, 3U);
  EXPECT_EQ(vulkan_.requests.pushSize, 4U);

  VulkanKernel* again = nullptr;
  EXPECT_THAT(executor_.getKernel(context_, Opcode::Add, &again), IsOk());
  EXPECT_EQ(again, kernel);
  EXPECT_EQ(vulkan_.calls("vkCreateComputePipelines"), 1);
}

TEST_F(VulkanExecutorTest, EveryRegisteredOpcodeGetsTheKernelOfItsShader) {
  size_t made = 0;
  for (size_t i = 0; i < kOpcodeCount; ++i) {
    const auto op = static_cast<Opcode>(i);
    const GpuKernelDesc* desc = GpuKernelRegistry::instance().find(op);
    if (desc == nullptr) continue;
    EXPECT_THAT(executor_.getKernel(context_, op, nullptr), IsOk()) << i;
    EXPECT_EQ(vulkan_.requests.shaderCode, wordsOf(desc->shader)) << i;
    EXPECT_EQ(vulkan_.requests.bindings, desc->bindings) << i;
    EXPECT_EQ(vulkan_.requests.pushSize, desc->pushSize) << i;
    EXPECT_EQ(pipelines(), ++made);
  }
  EXPECT_EQ(made, 12U);
}

TEST_F(VulkanExecutorTest, KernelIsMadeAlsoWhenNobodyAsksForItsAddress) {
  EXPECT_THAT(executor_.getKernel(context_, Opcode::Add, nullptr), IsOk());
  EXPECT_EQ(pipelines(), 1U);
}

// What an executor was told gives way to what the process knows.
TEST_F(VulkanExecutorTest, RegistryReplacesTheExecutorsOwnDescriptor) {
  executor_.registerKernel(Opcode::Add, {ShaderId::Q4KGemvLlama, 7, 64});
  EXPECT_THAT(executor_.getKernel(context_, Opcode::Add, nullptr), IsOk());
  EXPECT_EQ(vulkan_.requests.shaderCode, wordsOf(ShaderId::Add));
  EXPECT_EQ(vulkan_.requests.bindings, 3U);
}

TEST_F(VulkanExecutorTest, OwnDescriptorDoesNotMakeAnOpcodeKnown) {
  executor_.registerKernel(Opcode::Relu, {ShaderId::Add, 3, 4});
  EXPECT_THAT(executor_.getKernel(context_, Opcode::Relu, nullptr),
              IsFailure(StatusCode::Unsupported, "no GPU kernel registered for opcode"));
}

TEST_F(VulkanExecutorTest, FailedKernelIsTriedAgain) {
  for (const char* function :
       {"vkCreateDescriptorSetLayout", "vkCreatePipelineLayout", "vkCreateShaderModule",
        "vkCreateComputePipelines", "vkCreateDescriptorPool", "vkAllocateDescriptorSets"}) {
    SCOPED_TRACE(function);
    VulkanExecutor executor;
    vulkan_.fail(function, VK_ERROR_OUT_OF_DEVICE_MEMORY);
    VulkanKernel* kernel = nullptr;
    EXPECT_THAT(executor.getKernel(context_, Opcode::Add, &kernel),
                IsFailure(StatusCode::IOError, std::string(function) + " failed"));
    EXPECT_EQ(kernel, nullptr);
    VkCommandBuffer cmd = begin();
    EXPECT_THAT(executor.execute(context_, cmd, Opcode::Add, list_, 3, 2, 1, 1, &kCount, 4),
                IsOk());
    EXPECT_THAT(context_.submitAndWait(cmd), IsOk());
  }
  EXPECT_EQ(vulkan_.dispatches.size(), 6U);
}

TEST_F(VulkanExecutorTest, ExecuteBindsAndDispatches) {
  VkCommandBuffer cmd = begin();
  EXPECT_THAT(execute(cmd, Opcode::Add), IsOk());
  EXPECT_THAT(context_.submitAndWait(cmd), IsOk());
  const std::vector<FakeDispatch>& dispatches = vulkan_.dispatches;
  ASSERT_EQ(dispatches.size(), 1U);
  EXPECT_EQ(vulkan_.requests.shaderCode, wordsOf(ShaderId::Add));
  EXPECT_THAT(dispatches[0].groups, ElementsAre(2, 1, 1));
  EXPECT_THAT(dispatches[0].push, ElementsAre(kCount, 0, 0, 0));
  ASSERT_EQ(dispatches[0].bindings.size(), 3U);
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(dispatches[0].bindings[i].buffer, buffers_[i].handle());
  }
}

TEST_F(VulkanExecutorTest, ExecuteRebindsBetweenSubmissions) {
  for (int i = 0; i < 3; ++i) {
    VkCommandBuffer cmd = begin();
    EXPECT_THAT(execute(cmd, Opcode::Add), IsOk());
    EXPECT_THAT(context_.submitAndWait(cmd), IsOk());
  }
  EXPECT_EQ(vulkan_.dispatches.size(), 3U);
  EXPECT_EQ(vulkan_.calls("vkUpdateDescriptorSets"), 3);
  EXPECT_EQ(pipelines(), 1U);
}

TEST_F(VulkanExecutorTest, BuffersThatCannotBeBoundStopTheExecution) {
  VkCommandBuffer cmd = begin();
  EXPECT_THAT(execute(cmd, Opcode::Add, 4), IsInvalidFormat("bindBuffers: count exceeds layout"));
  EXPECT_THAT(executor_.execute(context_, cmd, Opcode::Add, nullptr, 3, 1, 1, 1, nullptr, 0),
              IsInvalidFormat("bindBuffers: count exceeds layout"));
  EXPECT_EQ(vulkan_.calls("vkCmdDispatch"), 0);
}

TEST_F(VulkanExecutorTest, KernelsGoWithTheExecutor) {
  {
    VulkanExecutor executor;
    EXPECT_THAT(executor.getKernel(context_, Opcode::Add, nullptr), IsOk());
    EXPECT_EQ(pipelines(), 1U);
  }
  EXPECT_EQ(pipelines(), 0U);
}

}  // namespace
}  // namespace zemtest
