// SPDX-License-Identifier: Apache-2.0
// Buffers and transfers on the device that this machine has. The validation
// layer watches: see CMakeLists.txt.
#include "kiv/vulkan/vulkan_buffer.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <random>
#include <utility>
#include <vector>

#include "kiv/vulkan/vulkan_kernel.h"
#include "kiv/vulkan/vulkan_shaders.h"
#include "support/needs_gpu.h"
#include "support/status_matchers.h"

namespace zemtest {

using namespace kiv;
using namespace kiv::vulkan;

namespace {

constexpr size_t kSizes[] = {1, 3, 4, 255, (size_t{1} << 20) + 1};

std::vector<uint8_t> randomBytes(size_t count) {
  std::mt19937 random(static_cast<uint32_t>(count));
  std::vector<uint8_t> bytes(count);
  for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
  return bytes;
}

class BufferOnDevice : public ::testing::Test {
 protected:
  void SetUp() override {
    const Status status = context_.init(std::numeric_limits<uint64_t>::max());
    if (!status.ok()) ZEM_SKIP_WITHOUT_GPU("no Vulkan device: " + status.message());
  }

  VulkanBuffer create(size_t size, bool hostVisible) {
    VulkanBuffer buffer;
    EXPECT_THAT(buffer.create(context_, size, hostVisible), IsOk());
    return buffer;
  }
  static std::vector<uint8_t> download(VulkanBuffer& buffer, size_t bytes) {
    std::vector<uint8_t> out(bytes);
    EXPECT_THAT(buffer.download(out.data(), bytes), IsOk());
    return out;
  }

  VulkanContext context_;
};

class BufferRoundTrip : public BufferOnDevice, public ::testing::WithParamInterface<bool> {};

INSTANTIATE_TEST_SUITE_P(BothKinds, BufferRoundTrip, ::testing::Bool(), [](const auto& param) {
  return param.param ? "HostVisible" : "DeviceLocal";
});

TEST_P(BufferRoundTrip, BytesComeBack) {
  for (const size_t size : kSizes) {
    VulkanBuffer buffer = create(size, GetParam());
    const std::vector<uint8_t> bytes = randomBytes(size);
    EXPECT_THAT(buffer.upload(bytes.data(), size), IsOk());
    EXPECT_TRUE(download(buffer, size) == bytes) << size;
  }
}

TEST_P(BufferRoundTrip, PartOfABufferLeavesTheRestAlone) {
  VulkanBuffer buffer = create(256, GetParam());
  const std::vector<uint8_t> bytes = randomBytes(256);
  ASSERT_THAT(buffer.upload(bytes.data(), 256), IsOk());
  ASSERT_THAT(buffer.upload("abc", 3), IsOk());
  std::vector<uint8_t> expected = bytes;
  expected[0] = 'a';
  expected[1] = 'b';
  expected[2] = 'c';
  EXPECT_EQ(download(buffer, 256), expected);
  EXPECT_EQ(download(buffer, 2), std::vector<uint8_t>(expected.begin(), expected.begin() + 2));
}

TEST_P(BufferRoundTrip, BytesAreCopiedToTheOtherKind) {
  for (const size_t size : kSizes) {
    VulkanBuffer source = create(size, GetParam());
    VulkanBuffer target = create(size + 5, !GetParam());
    const std::vector<uint8_t> bytes = randomBytes(size);
    EXPECT_THAT(source.upload(bytes.data(), size), IsOk());
    EXPECT_THAT(target.copyFrom(context_, source, size), IsOk());
    EXPECT_TRUE(download(target, size) == bytes) << size;
  }
}

TEST_F(BufferOnDevice, MappedBytesAreTheBuffersBytes) {
  VulkanBuffer buffer = create(64, true);
  void* mapped = nullptr;
  ASSERT_THAT(buffer.map(&mapped), IsOk());
  const std::vector<uint8_t> bytes = randomBytes(64);
  std::copy(bytes.begin(), bytes.end(), static_cast<uint8_t*>(mapped));
  buffer.unmap();
  EXPECT_EQ(download(buffer, 64), bytes);
  ASSERT_THAT(buffer.map(&mapped), IsOk());  // goes with the buffer
}

TEST_F(BufferOnDevice, NothingIsAskedForNoBytes) {
  VulkanBuffer buffer;
  EXPECT_THAT(buffer.create(context_, 0, false), IsInvalidFormat("create: bad size"));
  VulkanBuffer a = create(8, false);
  const VulkanBuffer b = create(8, false);
  EXPECT_THAT(a.copyFrom(context_, b, 0), IsOk());
}

TEST_F(BufferOnDevice, MovedBufferKeepsItsBytes) {
  VulkanBuffer first = create(255, false);
  const std::vector<uint8_t> bytes = randomBytes(255);
  ASSERT_THAT(first.upload(bytes.data(), 255), IsOk());
  VulkanBuffer second(std::move(first));
  VulkanBuffer third = create(16, true);
  third = std::move(second);
  EXPECT_EQ(download(third, 255), bytes);
}

// Three dispatches of one submission with a set each, the last through a wrapper,
// then a reset of all sets, and once more.
TEST_F(BufferOnDevice, KernelComputesWithSetsOfItsOwnAndAWrapper) {
  const EmbeddedShader& add = embeddedShader(ShaderId::Add);
  VulkanKernel kernel;
  ASSERT_THAT(kernel.create(context_, add.code, add.wordCount, 3, 4), IsOk());
  constexpr uint32_t kCount = 3;
  VulkanBuffer a = create(sizeof(float) * kCount, true);
  VulkanBuffer b = create(sizeof(float) * kCount, false);
  VulkanBuffer sum = create(sizeof(float) * kCount, false);
  VulkanBuffer wrapper;
  wrapper.adopt(sum.handle(), sum.size());
  const float ones[] = {1, 2, 3};
  ASSERT_THAT(a.upload(ones, sizeof ones), IsOk());
  ASSERT_THAT(b.upload(ones, sizeof ones), IsOk());
  VulkanBuffer* const lists[][3] = {{&a, &b, &sum}, {&sum, &a, &b}, {&b, &a, &wrapper}};
  float expected = 1;
  for (int round = 0; round < 2; ++round) {
    VkCommandBuffer cmd = VK_NULL_HANDLE;
    ASSERT_THAT(context_.beginCommand(&cmd), IsOk());
    for (const auto& list : lists) {
      VkDescriptorSet set = kernel.allocSet();
      ASSERT_THAT(kernel.bindBuffersTo(context_, list, 3, set), IsOk());
      kernel.dispatchTo(cmd, set, 1, 1, 1, &kCount, sizeof kCount);
      recordFullBarrier(cmd);
    }
    ASSERT_THAT(context_.submitAndWait(cmd), IsOk());
    kernel.resetSets();
    // sum = a + b, b = sum + a = b + 2a, sum = b + a = b + 3a
    float out[kCount];
    ASSERT_THAT(sum.download(out, sizeof out), IsOk());
    expected += 3;
    EXPECT_THAT(out, ::testing::ElementsAre(expected, 2 * expected, 3 * expected));
    expected -= 1;  // what b has become
  }
}

}  // namespace
}  // namespace zemtest
