// The scripted machine notices wrong use of memory, pipelines and commands, and
// copies bytes.
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "kiv/vulkan/vulkan_buffer.h"
#include "kiv/vulkan/vulkan_kernel.h"
#include "support/fake_vulkan.h"

namespace kiv::test {
namespace {

using ::kiv::vulkan::VulkanBuffer;
using ::kiv::vulkan::VulkanContext;
using ::kiv::vulkan::VulkanKernel;

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

class FakeObjects : public ::testing::Test {
 protected:
  void SetUp() override {
    vulkan_.devices[0].memoryTypes.push_back({kHostVisible, 1});  // not coherent
    ASSERT_TRUE(context_.init(0).ok());
    device_ = context_.device();
  }

  VkBuffer createBuffer(VkDeviceSize size, VkBufferUsageFlags usage = kAllUses) {
    VkBufferCreateInfo info{};
    info.sType = VK_STRUCTURE_TYPE_BUFFER_CREATE_INFO;
    info.size = size;
    info.usage = usage;
    VkBuffer buffer = VK_NULL_HANDLE;
    EXPECT_EQ(vkCreateBuffer(device_, &info, nullptr, &buffer), VK_SUCCESS);
    return buffer;
  }
  VkDeviceMemory allocate(VkDeviceSize size, uint32_t type) {
    const VkMemoryAllocateInfo info{VK_STRUCTURE_TYPE_MEMORY_ALLOCATE_INFO, nullptr, size, type};
    VkDeviceMemory memory = VK_NULL_HANDLE;
    EXPECT_EQ(vkAllocateMemory(device_, &info, nullptr, &memory), VK_SUCCESS);
    return memory;
  }
  // Destroys in the right order.
  void drop(VkBuffer buffer, VkDeviceMemory memory) {
    vkDestroyBuffer(device_, buffer, nullptr);
    vkFreeMemory(device_, memory, nullptr);
  }
  VkCommandBuffer begin() {
    VkCommandBuffer cmd = VK_NULL_HANDLE;
    EXPECT_TRUE(context_.beginCommand(&cmd).ok());
    return cmd;
  }
  void copy(VkCommandBuffer cmd, VkBuffer from, VkBuffer to, VkBufferCopy region) {
    vkCmdCopyBuffer(cmd, from, to, 1, &region);
  }
  VulkanBuffer made(size_t size, bool hostVisible) {
    VulkanBuffer buffer;
    EXPECT_TRUE(buffer.create(context_, size, hostVisible).ok());
    return buffer;
  }

  static constexpr VkBufferUsageFlags kAllUses = VK_BUFFER_USAGE_STORAGE_BUFFER_BIT |
                                                 VK_BUFFER_USAGE_TRANSFER_SRC_BIT |
                                                 VK_BUFFER_USAGE_TRANSFER_DST_BIT;
  static constexpr uint32_t kDevice = 0, kHost = 1, kIncoherent = 2;  // memory types

  FakeVulkan vulkan_{{FakeDevice{}}};
  VulkanContext context_;
  VkDevice device_ = VK_NULL_HANDLE;
};

// ---- memory

TEST_F(FakeObjects, BindingIsChecked) {
  VkBuffer buffer = createBuffer(100);  // requires 128 bytes at a multiple of 64
  VkDeviceMemory memory = allocate(256, kDevice);
  const auto bind = [&](VkDeviceSize offset) {
    return [=, this] { vkBindBufferMemory(device_, buffer, memory, offset); };
  };
  expectFault(bind(32), "not aligned");
  VkBuffer second = createBuffer(100);
  const auto bindSecond = [&](VkDeviceSize offset) {
    return [=, this] { vkBindBufferMemory(device_, second, memory, offset); };
  };
  expectFault(bindSecond(192), "too small");
  expectFault(bindSecond(0), "bound already");
  drop(buffer, memory);
  vkDestroyBuffer(device_, second, nullptr);
}

TEST_F(FakeObjects, MemoryOfATypeNotAllowedIsReported) {
  vulkan_.devices[0].bufferMemoryTypes = 1U << kHost;
  VkBuffer buffer = createBuffer(64);
  VkDeviceMemory memory = allocate(64, kDevice);
  expectFault([&] { vkBindBufferMemory(device_, buffer, memory, 0); }, "type not allowed");
  drop(buffer, memory);
}

TEST_F(FakeObjects, SizesOfNothingAndUnknownTypesAreReported) {
  expectFault([&] { vkDestroyBuffer(device_, createBuffer(0), nullptr); }, "no bytes");
  expectFault([&] { vkFreeMemory(device_, allocate(0, kDevice), nullptr); }, "no bytes");
  expectFault([&] { vkFreeMemory(device_, allocate(64, 3), nullptr); }, "unknown memory type");
}

TEST_F(FakeObjects, MappingIsChecked) {
  VkDeviceMemory local = allocate(64, kDevice);
  VkDeviceMemory host = allocate(64, kHost);
  VkDeviceMemory incoherent = allocate(64, kIncoherent);
  void* mapped = nullptr;
  expectFault([&] { vkMapMemory(device_, local, 0, 64, 0, &mapped); }, "host cannot see");
  expectFault([&] { vkMapMemory(device_, incoherent, 0, 64, 0, &mapped); }, "not coherent");
  expectFault([&] { vkUnmapMemory(device_, host); }, "not mapped");
  EXPECT_EQ(vkMapMemory(device_, host, 0, VK_WHOLE_SIZE, 0, &mapped), VK_SUCCESS);
  expectFault([&] { vkMapMemory(device_, host, 0, 64, 0, &mapped); }, "mapped already");
  vkUnmapMemory(device_, host);
  expectFault([&] { vkMapMemory(device_, host, 32, 33, 0, &mapped); }, "outside the memory");
  for (VkDeviceMemory memory : {local, host, incoherent}) vkFreeMemory(device_, memory, nullptr);
}

TEST_F(FakeObjects, HeapsRunOut) {
  VkDeviceMemory first = allocate(kGiB - 64, kDevice);
  const VkMemoryAllocateInfo info{VK_STRUCTURE_TYPE_MEMORY_ALLOCATE_INFO, nullptr, 128, kDevice};
  VkDeviceMemory second = VK_NULL_HANDLE;
  EXPECT_EQ(vkAllocateMemory(device_, &info, nullptr, &second), VK_ERROR_OUT_OF_DEVICE_MEMORY);
  vkFreeMemory(device_, first, nullptr);
  EXPECT_EQ(vkAllocateMemory(device_, &info, nullptr, &second), VK_SUCCESS);
  vkFreeMemory(device_, second, nullptr);
}

TEST(FakeLifetimes, BufferThatOutlivesItsDeviceIsReported) {
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

TEST(FakeLifetimes, KernelThatOutlivesItsDeviceIsReported) {
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

// ---- copies

TEST_F(FakeObjects, CopiesAreChecked) {
  VulkanBuffer from = made(64, true);
  VulkanBuffer to = made(32, true);
  VkCommandBuffer cmd = begin();
  expectFault([&] { copy(cmd, from.handle(), to.handle(), {0, 0, 33}); }, "outside the buffer");
  expectFault([&] { copy(cmd, from.handle(), to.handle(), {40, 0, 32}); }, "outside the buffer");
  expectFault([&] { copy(cmd, from.handle(), to.handle(), {0, 0, 0}); }, "no bytes");
  VkBuffer readOnly = createBuffer(64, VK_BUFFER_USAGE_TRANSFER_SRC_BIT);
  VkDeviceMemory memory = allocate(64, kDevice);
  expectFault([&] { copy(cmd, from.handle(), readOnly, {0, 0, 8}); }, "direction");
  expectFault([&] { copy(cmd, readOnly, to.handle(), {0, 0, 8}); }, "no live object");  // no memory
  drop(readOnly, memory);
}

TEST_F(FakeObjects, CommandsNeedABufferInRecording) {
  VulkanBuffer from = made(64, true);
  VulkanBuffer to = made(64, true);
  VkCommandBuffer cmd = begin();
  EXPECT_EQ(vkEndCommandBuffer(cmd), VK_SUCCESS);
  expectFault([&] { copy(cmd, from.handle(), to.handle(), {0, 0, 8}); }, "not being recorded");
}

TEST_F(FakeObjects, BufferThatIsGoneWhenItsCopyRunsIsReported) {
  VulkanBuffer from = made(64, true);
  VulkanBuffer to = made(64, true);
  VkCommandBuffer cmd = begin();
  copy(cmd, from.handle(), to.handle(), {0, 0, 8});
  from.destroy();
  expectFault([&] { EXPECT_TRUE(context_.submitAndWait(cmd).ok()); }, "no live object");
}

TEST_F(FakeObjects, ReadingWhatATransferWroteNeedsABarrier) {
  VulkanBuffer a = made(64, true);
  VulkanBuffer b = made(64, false);
  VulkanBuffer c = made(64, true);
  ASSERT_TRUE(a.upload("payload", 7).ok());
  VkCommandBuffer cmd = begin();
  copy(cmd, a.handle(), b.handle(), {0, 0, 7});
  copy(cmd, b.handle(), c.handle(), {0, 0, 7});
  expectFault([&] { EXPECT_TRUE(context_.submitAndWait(cmd).ok()); }, "no barrier after");
  void* mapped = nullptr;
  expectFault([&] { EXPECT_TRUE(c.map(&mapped).ok()); }, "shown the host");
  c.unmap();

  cmd = begin();
  copy(cmd, a.handle(), b.handle(), {0, 0, 7});
  vulkan::recordFullBarrier(cmd);
  copy(cmd, b.handle(), c.handle(), {0, 7, 7});
  vulkan::recordFullBarrier(cmd);
  EXPECT_TRUE(context_.submitAndWait(cmd).ok());
  ASSERT_TRUE(c.map(&mapped).ok());
  EXPECT_EQ(std::memcmp(static_cast<char*>(mapped) + 7, "payload", 7), 0);
  c.unmap();
  EXPECT_EQ(vulkan_.copies().size(), 4U);
}

TEST_F(FakeObjects, NothingIsCarriedOutWhenTheSubmissionFails) {
  VulkanBuffer a = made(8, true);
  VulkanBuffer b = made(8, true);
  ASSERT_TRUE(a.upload("payload", 7).ok());
  vulkan_.fail("vkQueueSubmit", VK_ERROR_DEVICE_LOST);
  EXPECT_FALSE(b.copyFrom(context_, a, 7).ok());
  EXPECT_TRUE(vulkan_.copies().empty());
  EXPECT_EQ(vulkan_.bytes(b.handle()), std::vector<uint8_t>(8));
}

// ---- pipelines and dispatches

class FakeDispatches : public FakeObjects {
 protected:
  void SetUp() override {
    FakeObjects::SetUp();
    ASSERT_TRUE(kernel_.create(context_, kCode, 5, 1, 4).ok());
    buffer_ = made(64, true);
  }
  void bind() { EXPECT_TRUE(kernel_.bindBuffers(context_, list_, 1).ok()); }
  void dispatch(VkCommandBuffer cmd) { kernel_.dispatch(cmd, 1, 1, 1, kCode, 4); }

  static constexpr uint32_t kCode[] = {0x07230203, 0x00010500, 0, 1, 0};
  VulkanKernel kernel_;
  VulkanBuffer buffer_;
  VulkanBuffer* const list_[1] = {&buffer_};
};

TEST_F(FakeDispatches, BindingWithoutABufferIsReported) {
  VkCommandBuffer cmd = begin();
  dispatch(cmd);
  expectFault([&] { EXPECT_TRUE(context_.submitAndWait(cmd).ok()); }, "without a buffer");
}

TEST_F(FakeDispatches, SetThatIsUpdatedWhileItWaitsIsReported) {
  bind();
  VkCommandBuffer cmd = begin();
  dispatch(cmd);
  bind();
  expectFault([&] { EXPECT_TRUE(context_.submitAndWait(cmd).ok()); }, "updated after");
}

TEST_F(FakeDispatches, SetThatIsResetWhileItWaitsIsReported) {
  bind();
  VkCommandBuffer cmd = begin();
  dispatch(cmd);
  kernel_.resetSets();
  expectFault([&] { EXPECT_TRUE(context_.submitAndWait(cmd).ok()); }, "no live object");
}

TEST_F(FakeDispatches, PushConstantsAreChecked) {
  bind();
  VkCommandBuffer cmd = begin();
  expectFault([&] { kernel_.dispatch(cmd, 1, 1, 1, nullptr, 0); }, "not given");
  expectFault([&] { kernel_.dispatch(cmd, 1, 1, 1, kCode, 8); }, "the layout lacks");
  expectFault([&] { kernel_.dispatch(cmd, 1, 1, 1, kCode, 3); }, "not words");
}

TEST_F(FakeDispatches, MoreWorkgroupsThanTheDeviceTakesAreReported) {
  vulkan_.devices[0].limits.maxComputeWorkGroupCount[0] = 10;
  bind();
  VkCommandBuffer cmd = begin();
  kernel_.dispatch(cmd, 10, 1, 1, kCode, 4);
  expectFault([&] { kernel_.dispatch(cmd, 11, 1, 1, kCode, 4); }, "more workgroups");
}

TEST_F(FakeDispatches, DescriptorsAreChecked) {
  VulkanBuffer wrapper;
  VulkanBuffer* const list[] = {&wrapper};
  const auto bindIt = [&] { EXPECT_TRUE(kernel_.bindBuffers(context_, list, 1).ok()); };
  wrapper.adopt(buffer_.handle(), 65);
  expectFault(bindIt, "outside the buffer");
  wrapper.adopt(buffer_.handle(), 0);
  expectFault(bindIt, "no bytes");
  vulkan_.devices[0].limits.maxStorageBufferRange = 63;
  wrapper.adopt(buffer_.handle(), 64);
  expectFault(bindIt, "more bytes than a binding");
  wrapper.adopt(VK_NULL_HANDLE, 64);
  expectFault(bindIt, "no live object");
}

TEST_F(FakeDispatches, HostSeesWhatAShaderWroteOnlyAfterABarrier) {
  bind();
  VkCommandBuffer cmd = begin();
  dispatch(cmd);
  EXPECT_TRUE(context_.submitAndWait(cmd).ok());
  void* mapped = nullptr;
  expectFault([&] { EXPECT_TRUE(buffer_.map(&mapped).ok()); }, "shown the host");
  buffer_.unmap();
  cmd = begin();
  vulkan::recordFullBarrier(cmd);
  EXPECT_TRUE(context_.submitAndWait(cmd).ok());
  EXPECT_TRUE(buffer_.map(&mapped).ok());
}

TEST_F(FakeDispatches, CodeThatIsNotSpirvIsReported) {
  constexpr uint32_t kNonsense[] = {1, 2, 3};
  VulkanKernel kernel;
  expectFault([&] { EXPECT_TRUE(kernel.create(context_, kNonsense, 3, 1, 0).ok()); }, "not SPIR-V");
}

TEST_F(FakeObjects, LogHoldsEveryCallAndOnlyCallsWithAResultCanFail) {
  EXPECT_EQ(vulkan_.log().front(), "vkCreateInstance");
  EXPECT_EQ(vulkan_.log().back(), "vkCreateFence");
  EXPECT_TRUE(FakeVulkan::canFail("vkMapMemory"));
  EXPECT_TRUE(FakeVulkan::canFail("vkResetDescriptorPool"));
  EXPECT_FALSE(FakeVulkan::canFail("vkCmdDispatch"));
  EXPECT_NONFATAL_FAILURE(vulkan_.fail("vkUnmapMemory", VK_NOT_READY), "returns nothing");
}

}  // namespace
}  // namespace kiv::test
