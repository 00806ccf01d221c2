// SPDX-License-Identifier: Apache-2.0
// What a module asks of a device, and kernels on devices that do not have it.
#include "kiv/vulkan/vulkan_shader_needs.h"

#include <gmock/gmock.h>

#include <random>
#include <vector>

#include "kiv/vulkan/vulkan_kernel.h"
#include "kiv/vulkan/vulkan_shaders.h"
#include "support/fake_vulkan.h"
#include "support/status_matchers.h"

namespace zemtest {

using namespace kiv;
using namespace kiv::vulkan;

namespace {

const EmbeddedShader& staged() { return embeddedShader(ShaderId::Q4KGemvV6); }
constexpr uint64_t kStagedBytes = 52 * 1024;

Status createOn(const VkPhysicalDeviceLimits& limits, int& pipelines) {
  FakeDevice device;
  device.limits = limits;
  FakeVulkan vulkan({device});
  VulkanContext context;
  EXPECT_THAT(context.init(0), IsOk());
  VulkanKernel kernel;
  Status status = kernel.create(context, staged().code, staged().wordCount, 3, 16);
  pipelines = vulkan.calls("vkCreateComputePipelines");
  return status;
}

TEST(ShaderNeeds, AreCheckedBeforeThereIsAPipeline) {
  const ShaderNeeds needs = shaderNeeds(staged().code, staged().wordCount);
  EXPECT_GT(needs.sharedBytes, 32768U);
  EXPECT_LE(needs.sharedBytes, kStagedBytes + 4096);
  VkPhysicalDeviceLimits limits = usualLimits();
  limits.maxComputeSharedMemorySize = 32768;
  int pipelines = 0;
  EXPECT_THAT(
      createOn(limits, pipelines),
      IsFailure(StatusCode::Unsupported, "shader needs " + std::to_string(needs.sharedBytes) +
                                             " bytes of shared memory, the device has 32768"));
  EXPECT_EQ(pipelines, 0);
  limits.maxComputeSharedMemorySize = static_cast<uint32_t>(needs.sharedBytes);
  EXPECT_THAT(createOn(limits, pipelines), IsOk());
  EXPECT_EQ(pipelines, 1);
  limits.maxComputeWorkGroupInvocations = needs.localSize[0] - 1;
  EXPECT_THAT(
      createOn(limits, pipelines),
      IsFailure(StatusCode::Unsupported, "shader needs " + std::to_string(needs.localSize[0]) +
                                             " invocations in a workgroup, the device has " +
                                             std::to_string(needs.localSize[0] - 1)));
  EXPECT_EQ(pipelines, 0);
}

TEST(ShaderNeeds, OfWhatIsNoModuleAreNone) {
  EXPECT_EQ(shaderNeeds(nullptr, 7).sharedBytes, 0U);
  EXPECT_EQ(shaderNeeds(kCode, 0).sharedBytes, 0U);
  const uint32_t other[] = {1, 2, 3, 4, 5, 6, 7};
  EXPECT_EQ(shaderNeeds(other, 7).sharedBytes, 0U);
}

TEST(ShaderNeeds, OfACutOrBrokenModuleAreReadWithinItsWords) {
  const std::vector<uint32_t> whole(staged().code, staged().code + staged().wordCount);
  for (size_t words = 0; words < whole.size(); words += 7) {
    const std::vector<uint32_t> cut(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(words));
    EXPECT_LE(shaderNeeds(cut.data(), cut.size()).sharedBytes, kStagedBytes + 4096);
  }
  std::mt19937 random(1);
  for (int i = 0; i < 2000; ++i) {
    std::vector<uint32_t> broken = whole;
    for (int j = 0; j < 20; ++j)
      broken[5 + random() % (broken.size() - 5)] = static_cast<uint32_t>(random());
    static_cast<void>(shaderNeeds(broken.data(), broken.size()));
  }
}

}  // namespace
}  // namespace zemtest
