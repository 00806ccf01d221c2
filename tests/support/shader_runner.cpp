// SPDX-License-Identifier: Apache-2.0
#include "support/shader_runner.h"

#include <limits>

#include "kiv/vulkan/vulkan_buffer.h"
#include "kiv/vulkan/vulkan_kernel.h"
#include "support/needs_gpu.h"

namespace zemtest {

using namespace kiv;

namespace {

using vulkan::VulkanBuffer;
using vulkan::VulkanContext;
using vulkan::VulkanKernel;

Status runOn(VulkanContext& context, const vulkan::EmbeddedShader& shader,
             std::vector<BufferBytes>& buffers, const std::vector<uint32_t>& push,
             Workgroups groups) {
  std::vector<VulkanBuffer> onDevice(buffers.size());
  std::vector<VulkanBuffer*> bound;
  for (size_t i = 0; i < buffers.size(); ++i) {
    Status status = onDevice[i].create(context, buffers[i].size(), /*hostVisible=*/false);
    if (status.ok()) status = onDevice[i].upload(buffers[i].data(), buffers[i].size());
    if (!status.ok()) return status;
    bound.push_back(&onDevice[i]);
  }

  const auto count = static_cast<uint32_t>(buffers.size());
  const size_t pushBytes = push.size() * sizeof(uint32_t);
  VulkanKernel kernel;
  VkCommandBuffer cmd = VK_NULL_HANDLE;
  Status status = kernel.create(context, shader.code, shader.wordCount, count,
                                static_cast<uint32_t>(pushBytes));
  if (status.ok()) status = kernel.bindBuffers(context, bound.data(), count);
  if (status.ok()) status = context.beginCommand(&cmd);
  if (!status.ok()) return status;
  kernel.dispatch(cmd, groups.x, groups.y, groups.z, push.data(), pushBytes);
  vulkan::recordFullBarrier(cmd);
  status = context.submitAndWait(cmd);

  for (size_t i = 0; status.ok() && i < buffers.size(); ++i) {
    status = onDevice[i].download(buffers[i].data(), buffers[i].size());
  }
  return status;
}

}  // namespace

vulkan::VulkanContext* ShaderTest::context_ = nullptr;
Status ShaderTest::status_;

void ShaderTest::SetUpTestSuite() {
  context_ = new vulkan::VulkanContext;
  status_ = context_->init(std::numeric_limits<uint64_t>::max());
}

void ShaderTest::TearDownTestSuite() {
  delete context_;
  context_ = nullptr;
}

void ShaderTest::SetUp() {
  if (!status_.ok()) ZEM_SKIP_WITHOUT_GPU("no Vulkan device: " + status_.message());
}

void ShaderTest::run(const vulkan::EmbeddedShader& shader, std::vector<BufferBytes>& buffers,
                     const std::vector<uint32_t>& push, Workgroups groups) {
  ASSERT_NE(shader.code, nullptr);
  const Status status = runOn(context(), shader, buffers, push, groups);
  ASSERT_TRUE(status.ok()) << status.message();
}

}  // namespace zemtest
