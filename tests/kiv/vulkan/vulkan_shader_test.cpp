// SPDX-License-Identifier: Apache-2.0
#include "kiv/vulkan/vulkan_shader.h"

#include <gmock/gmock.h>

#include <set>
#include <vector>

#include "kiv/vulkan/vulkan_shaders.h"
#include "support/fake_vulkan.h"
#include "support/status_matchers.h"

namespace zemtest {

using namespace kiv;
using namespace kiv::vulkan;

namespace {

constexpr size_t kWords = std::size(kCode);

class ShaderModule : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_THAT(context_.init(0), IsOk()); }

  FakeVulkan vulkan_{{FakeDevice{}}};
  VulkanContext context_;
};

TEST_F(ShaderModule, IsMadeFromTheWordsAndDestroyed) {
  VkShaderModule module = VK_NULL_HANDLE;
  EXPECT_THAT(createShaderModule(context_, kCode, kWords, &module), IsOk());
  EXPECT_NE(module, VK_NULL_HANDLE);
  EXPECT_EQ(vulkan_.requests.shaderCode, std::vector<uint32_t>(kCode, kCode + kWords));
  EXPECT_EQ(vulkan_.live(VK_OBJECT_TYPE_SHADER_MODULE), 1U);
  destroyShaderModule(context_, module);
  EXPECT_EQ(vulkan_.live(VK_OBJECT_TYPE_SHADER_MODULE), 0U);
}

TEST_F(ShaderModule, OfAnEmbeddedShaderHasItsWords) {
  const EmbeddedShader& shader = embeddedShader(ShaderId::Add);
  VkShaderModule module = VK_NULL_HANDLE;
  EXPECT_THAT(createShaderModule(context_, shader.code, shader.wordCount, &module), IsOk());
  EXPECT_EQ(vulkan_.requests.shaderCode,
            std::vector<uint32_t>(shader.code, shader.code + shader.wordCount));
  destroyShaderModule(context_, module);
}

TEST_F(ShaderModule, NullCodeOrOutputIsRefused) {
  VkShaderModule module = VK_NULL_HANDLE;
  EXPECT_THAT(createShaderModule(context_, nullptr, kWords, &module),
              IsInvalidFormat("createShaderModule: null"));
  EXPECT_THAT(createShaderModule(context_, kCode, kWords, nullptr),
              IsInvalidFormat("createShaderModule: null"));
  EXPECT_EQ(module, VK_NULL_HANDLE);
  EXPECT_EQ(vulkan_.calls("vkCreateShaderModule"), 0);
}

TEST_F(ShaderModule, FailureLeavesTheOutputAlone) {
  vulkan_.fail("vkCreateShaderModule", VK_ERROR_OUT_OF_HOST_MEMORY);
  VkShaderModule module = VK_NULL_HANDLE;
  EXPECT_THAT(createShaderModule(context_, kCode, kWords, &module),
              IsFailure(StatusCode::IOError, "vkCreateShaderModule failed"));
  EXPECT_EQ(module, VK_NULL_HANDLE);
}

TEST_F(ShaderModule, DestroyingNullDoesNothing) {
  destroyShaderModule(context_, VK_NULL_HANDLE);
  EXPECT_EQ(vulkan_.calls("vkDestroyShaderModule"), 0);
}

}  // namespace
}  // namespace zemtest
