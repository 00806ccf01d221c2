// SPDX-License-Identifier: Apache-2.0
// The modules of a step, taken apart: what the host binds and pushes is what they read, and every
// device that is likely to come can run them. No device is needed.
#include <gtest/gtest.h>

#include <set>

#include "engine/vulkan/step_shaders.h"
#include "kiv/vulkan/shader_reflection.h"
#include "kiv/vulkan/vulkan_shader_needs.h"

namespace zemtest {
namespace {

class StepModules : public ::testing::TestWithParam<size_t> {
 protected:
  void SetUp() override {
    const kiv::vulkan::EmbeddedShader& module = zem::stepShader(shader());
    ASSERT_EQ(reflect({module.code, module.wordCount}, reflected_), "");
  }
  zem::StepShader shader() const { return static_cast<zem::StepShader>(GetParam()); }

  ReflectedShader reflected_;
};

INSTANTIATE_TEST_SUITE_P(Each, StepModules, ::testing::Range<size_t>(0, zem::kStepShaders));

TEST_P(StepModules, HaveTheBindingsAndPushConstantsThatTheHostGives) {
  const zem::StepShaderInterface wanted = zem::interfaceOf(shader());
  std::set<uint32_t> bindings;
  for (const ReflectedBuffer& buffer : reflected_.buffers) {
    EXPECT_EQ(buffer.set, 0U);
    bindings.insert(buffer.binding);
  }
  ASSERT_EQ(bindings.size(), wanted.bindings);
  EXPECT_EQ(*bindings.rbegin(), wanted.bindings - 1);
  ASSERT_EQ(reflected_.pushBlocks.size(), 1U);
  const std::vector<ReflectedPushMember>& members = reflected_.pushBlocks[0];
  ASSERT_EQ(members.size(), wanted.pushWords);
  for (size_t i = 0; i < members.size(); ++i) EXPECT_EQ(members[i].offset, 4 * i);
  EXPECT_EQ(reflected_.otherResources, 0U);
}

TEST_P(StepModules, NeedNoFeatureAndLittleOfAWorkgroup) {
  constexpr uint32_t kShaderCapability = 1;
  EXPECT_EQ(reflected_.capabilities, std::vector<uint32_t>{kShaderCapability});
  const kiv::vulkan::EmbeddedShader& module = zem::stepShader(shader());
  const kiv::vulkan::ShaderNeeds needs = kiv::vulkan::shaderNeeds(module.code, module.wordCount);
  EXPECT_LE(needs.sharedBytes, 32768U);
  EXPECT_LE(needs.localSize[0], 256U);
  EXPECT_EQ(needs.localSize[1] * needs.localSize[2], 1U);
}

}  // namespace
}  // namespace zemtest
