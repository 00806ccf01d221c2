// SPDX-License-Identifier: Apache-2.0
// Buffers and transfers on a scripted machine, with every call that can fail
// failing once.
#include "kiv/vulkan/vulkan_buffer.h"

#include <gmock/gmock.h>

#include <cstdint>
#include <numeric>
#include <ostream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/fake_vulkan.h"
#include "support/status_matchers.h"

namespace zemtest {

using namespace kiv;
using namespace kiv::vulkan;

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

static_assert(!std::is_copy_constructible_v<VulkanBuffer>);
static_assert(!std::is_copy_assignable_v<VulkanBuffer>);
static_assert(std::is_nothrow_move_constructible_v<VulkanBuffer>);
static_assert(std::is_nothrow_move_assignable_v<VulkanBuffer>);

std::vector<uint8_t> countingBytes(size_t count, uint8_t first = 1) {
  std::vector<uint8_t> bytes(count);
  std::iota(bytes.begin(), bytes.end(), first);
  return bytes;
}

class VulkanBufferTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_THAT(context_.init(0), IsOk()); }

  VulkanBuffer create(size_t size, bool hostVisible) {
    VulkanBuffer buffer;
    EXPECT_THAT(buffer.create(context_, size, hostVisible), IsOk());
    return buffer;
  }
  std::vector<uint8_t> download(VulkanBuffer& buffer) {
    std::vector<uint8_t> bytes(buffer.size());
    EXPECT_THAT(buffer.download(bytes.data(), bytes.size()), IsOk());
    return bytes;
  }
  size_t liveBuffers() const { return vulkan_.live(VK_OBJECT_TYPE_BUFFER); }
  size_t liveMemory() const { return vulkan_.live(VK_OBJECT_TYPE_DEVICE_MEMORY); }

  FakeVulkan vulkan_{{FakeDevice{}}};
  VulkanContext context_;
};

void expectEmpty(const VulkanBuffer& buffer) {
  EXPECT_FALSE(buffer.valid());
  EXPECT_EQ(buffer.handle(), VK_NULL_HANDLE);
  EXPECT_EQ(buffer.size(), 0U);
  EXPECT_FALSE(buffer.hostVisible());
}

// ---- creation

TEST_F(VulkanBufferTest, HasTheSizeAndTheKindAskedFor) {
  const VulkanBuffer buffer = create(100, true);
  EXPECT_TRUE(buffer.valid());
  EXPECT_NE(buffer.handle(), VK_NULL_HANDLE);
  EXPECT_EQ(buffer.size(), 100U);
  EXPECT_TRUE(buffer.hostVisible());
  ASSERT_EQ(vulkan_.requests.buffers.size(), 1U);
  EXPECT_EQ(vulkan_.requests.buffers[0].size, 100U);
}

TEST_F(VulkanBufferTest, MemoryIsAsLargeAsTheDeviceRequires) {
  vulkan_.devices[0].bufferGranularity = 4096;
  const VulkanBuffer buffer = create(100, false);
  ASSERT_EQ(vulkan_.requests.allocations.size(), 1U);
  EXPECT_EQ(vulkan_.requests.allocations[0].allocationSize, 4096U);
  EXPECT_EQ(buffer.size(), 100U);
  EXPECT_FALSE(buffer.hostVisible());
}

struct BufferChoice {
  const char* name;
  std::vector<VkMemoryPropertyFlags> types;
  uint32_t allowed;
  bool hostVisible;
  int chosen;  // -1: none
};

void PrintTo(const BufferChoice& choice, std::ostream* out) { *out << choice.name; }

class BufferMemoryType : public ::testing::TestWithParam<BufferChoice> {};

TEST_P(BufferMemoryType, IsTheLowestThatIsAllowedAndHasEveryFlag) {
  const BufferChoice& choice = GetParam();
  FakeDevice device;
  device.memoryTypes.clear();
  for (const VkMemoryPropertyFlags flags : choice.types) device.memoryTypes.push_back({flags, 0});
  device.bufferMemoryTypes = choice.allowed;
  FakeVulkan vulkan({device});
  VulkanContext context;
  ASSERT_THAT(context.init(0), IsOk());
  VulkanBuffer buffer;
  const Status status = buffer.create(context, 16, choice.hostVisible);
  if (choice.chosen < 0) {
    EXPECT_THAT(status, IsFailure(StatusCode::Unsupported, "no suitable memory type"));
    EXPECT_THAT(vulkan.requests.allocations, IsEmpty());
    expectEmpty(buffer);
    EXPECT_EQ(vulkan.live(VK_OBJECT_TYPE_BUFFER), 0U);
    return;
  }
  EXPECT_THAT(status, IsOk());
  ASSERT_EQ(vulkan.requests.allocations.size(), 1U);
  EXPECT_EQ(vulkan.requests.allocations[0].memoryTypeIndex, static_cast<uint32_t>(choice.chosen));
}

constexpr VkMemoryPropertyFlags kCached = VK_MEMORY_PROPERTY_HOST_CACHED_BIT;
constexpr uint32_t kAny = ~0U;

INSTANTIATE_TEST_SUITE_P(
    Table, BufferMemoryType,
    ::testing::Values(
        BufferChoice{"Host", {kDeviceLocal, kHost}, kAny, true, 1},
        BufferChoice{"Device", {kHost, kDeviceLocal}, kAny, false, 1},
        BufferChoice{"FirstOfSeveralHost", {0, kHost, kHost | kCached}, kAny, true, 1},
        BufferChoice{"FirstOfSeveralDevice", {0, kDeviceLocal, kDeviceLocal}, kAny, false, 1},
        BufferChoice{
            "DeviceMayBeHostVisible", {kDeviceLocal | kHost, kDeviceLocal}, kAny, false, 0},
        BufferChoice{"HostMayBeDeviceLocal", {kDeviceLocal | kHost, kHost}, kAny, true, 0},
        BufferChoice{"HostWithoutCoherenceIsPassedOver", {kHostVisible, kHost}, kAny, true, 1},
        BufferChoice{"CoherenceAloneIsPassedOver", {kHostCoherent, kHost}, kAny, true, 1},
        BufferChoice{"TypesNotAllowedArePassedOver", {kHost, kHost, kHost}, 0b100, true, 2},
        BufferChoice{"DeviceTypesNotAllowed", {kDeviceLocal, kDeviceLocal}, 0b10, false, 1},
        BufferChoice{"LastOfThirtyTwo", std::vector<VkMemoryPropertyFlags>(32, kHost), 0x80000000,
                     true, 31},
        BufferChoice{"NoneIsCoherent", {kHostVisible, kDeviceLocal}, kAny, true, -1},
        BufferChoice{"NoneIsDeviceLocal", {kHost}, kAny, false, -1},
        BufferChoice{"TheOnlyOneIsNotAllowed", {kDeviceLocal, kHost}, 0b01, true, -1},
        BufferChoice{"NoTypes", {}, kAny, true, -1}),
    [](const auto& param) { return std::string(param.param.name); });

class CreateFails : public VulkanBufferTest,
                    public ::testing::WithParamInterface<std::tuple<const char*, bool>> {};

TEST_P(CreateFails, AndLeavesNothingBehind) {
  const auto& [function, hostVisible] = GetParam();
  vulkan_.fail(function, VK_ERROR_OUT_OF_DEVICE_MEMORY);
  VulkanBuffer buffer;
  EXPECT_THAT(buffer.create(context_, 64, hostVisible),
              IsFailure(StatusCode::IOError, std::string(function) + " failed"));
  expectEmpty(buffer);
  EXPECT_EQ(liveBuffers(), 0U);
  EXPECT_EQ(liveMemory(), 0U);
  buffer.destroy();

  EXPECT_THAT(buffer.create(context_, 32, !hostVisible), IsOk());
  EXPECT_EQ(buffer.size(), 32U);
  EXPECT_EQ(buffer.hostVisible(), !hostVisible);
}

INSTANTIATE_TEST_SUITE_P(EachCall, CreateFails,
                         ::testing::Combine(::testing::Values("vkCreateBuffer", "vkAllocateMemory",
                                                              "vkBindBufferMemory"),
                                            ::testing::Bool()));

TEST_F(VulkanBufferTest, MoreThanTheHeapHasIsAnAllocationFailure) {
  VulkanBuffer buffer;
  EXPECT_THAT(buffer.create(context_, 2 * kGiB, false),
              IsFailure(StatusCode::IOError, "vkAllocateMemory failed"));
  EXPECT_EQ(vulkan_.live(VK_OBJECT_TYPE_BUFFER), 0U);
}

TEST_F(VulkanBufferTest, SecondCreateKeepsTheFirstBuffer) {
  VulkanBuffer buffer = create(64, true);
  VkBuffer handle = buffer.handle();
  const std::vector<std::string> log = vulkan_.log();
  EXPECT_THAT(buffer.create(context_, 128, false), IsOk());
  EXPECT_EQ(buffer.handle(), handle);
  EXPECT_EQ(buffer.size(), 64U);
  EXPECT_TRUE(buffer.hostVisible());
  EXPECT_EQ(vulkan_.log(), log);
}

// Vulkan has no such buffer; asking for one has no defined result.
TEST_F(VulkanBufferTest, BufferOfNoBytesIsRefused) {
  VulkanBuffer buffer;
  EXPECT_THAT(buffer.create(context_, 0, true), IsInvalidFormat("create: bad size"));
  expectEmpty(buffer);
  EXPECT_EQ(vulkan_.calls("vkCreateBuffer"), 0);
}

// ---- destruction

TEST_F(VulkanBufferTest, DestroyReleasesBufferThenMemoryAndMayBeRepeated) {
  VulkanBuffer buffer = create(64, false);
  const size_t before = vulkan_.log().size();
  buffer.destroy();
  expectEmpty(buffer);
  buffer.destroy();
  const std::vector<std::string> log = vulkan_.log();
  EXPECT_THAT(std::vector<std::string>(log.begin() + static_cast<ptrdiff_t>(before), log.end()),
              ElementsAre("vkDestroyBuffer", "vkFreeMemory"));
  EXPECT_EQ(liveBuffers(), 0U);
  EXPECT_EQ(liveMemory(), 0U);
}

TEST_F(VulkanBufferTest, DestructorReleasesEverything) {
  { const VulkanBuffer buffer = create(64, true); }
  EXPECT_EQ(liveBuffers(), 0U);
  EXPECT_EQ(liveMemory(), 0U);
}

TEST_F(VulkanBufferTest, MappedBufferCanBeDestroyed) {
  VulkanBuffer buffer = create(64, true);
  void* mapped = nullptr;
  EXPECT_THAT(buffer.map(&mapped), IsOk());
  buffer.destroy();
  EXPECT_EQ(liveMemory(), 0U);
}

TEST_F(VulkanBufferTest, EmptyBufferDestroysNothing) {
  VulkanBuffer buffer;
  buffer.destroy();
  expectEmpty(buffer);
  EXPECT_EQ(vulkan_.calls("vkDestroyBuffer"), 0);
  EXPECT_EQ(vulkan_.calls("vkFreeMemory"), 0);
}

TEST_F(VulkanBufferTest, CreateAfterDestroyWorks) {
  VulkanBuffer buffer = create(64, true);
  buffer.destroy();
  EXPECT_THAT(buffer.create(context_, 8, false), IsOk());
  EXPECT_EQ(buffer.size(), 8U);
  EXPECT_FALSE(buffer.hostVisible());
}

// ---- mapping

TEST_F(VulkanBufferTest, MapShowsTheWholeBuffer) {
  VulkanBuffer buffer = create(100, true);
  void* mapped = nullptr;
  ASSERT_THAT(buffer.map(&mapped), IsOk());
  const std::vector<uint8_t> bytes = countingBytes(100);
  std::copy(bytes.begin(), bytes.end(), static_cast<uint8_t*>(mapped));
  buffer.unmap();
  EXPECT_EQ(vulkan_.bytes(buffer.handle()), bytes);
  EXPECT_EQ(download(buffer), bytes);
}

TEST_F(VulkanBufferTest, MapOfADeviceLocalBufferIsRefused) {
  VulkanBuffer buffer = create(64, false);
  void* mapped = nullptr;
  EXPECT_THAT(buffer.map(&mapped),
              IsFailure(StatusCode::Unsupported, "map: buffer is device-local"));
  EXPECT_EQ(mapped, nullptr);
  EXPECT_THAT(buffer.map(nullptr), IsInvalidFormat("map: not created"));
}

TEST_F(VulkanBufferTest, MapWithoutMemoryOrOutputIsRefused) {
  VulkanBuffer empty;
  void* mapped = nullptr;
  EXPECT_THAT(empty.map(&mapped), IsInvalidFormat("map: not created"));
  EXPECT_THAT(empty.map(nullptr), IsInvalidFormat("map: not created"));
  VulkanBuffer buffer = create(64, true);
  EXPECT_THAT(buffer.map(nullptr), IsInvalidFormat("map: not created"));
  VulkanBuffer wrapper;
  wrapper.adopt(buffer.handle(), 64);
  EXPECT_THAT(wrapper.map(&mapped), IsInvalidFormat("map: not created"));
  EXPECT_EQ(mapped, nullptr);
  EXPECT_EQ(vulkan_.calls("vkMapMemory"), 0);
}

TEST_F(VulkanBufferTest, FailedMapCanBeRepeated) {
  VulkanBuffer buffer = create(64, true);
  vulkan_.fail("vkMapMemory", VK_ERROR_MEMORY_MAP_FAILED);
  void* mapped = nullptr;
  EXPECT_THAT(buffer.map(&mapped), IsFailure(StatusCode::IOError, "vkMapMemory failed"));
  EXPECT_THAT(buffer.map(&mapped), IsOk());
  buffer.unmap();
}

TEST_F(VulkanBufferTest, UnmapWithoutMemoryDoesNothing) {
  VulkanBuffer empty;
  empty.unmap();
  const VulkanBuffer buffer = create(64, true);
  VulkanBuffer wrapper;
  wrapper.adopt(buffer.handle(), 64);
  wrapper.unmap();
  EXPECT_EQ(vulkan_.calls("vkUnmapMemory"), 0);
}

// ---- transfers

class Transfer : public VulkanBufferTest, public ::testing::WithParamInterface<bool> {
 protected:
  bool hostVisible() const { return GetParam(); }
};

INSTANTIATE_TEST_SUITE_P(BothKinds, Transfer, ::testing::Bool(), [](const auto& param) {
  return param.param ? "HostVisible" : "DeviceLocal";
});

TEST_P(Transfer, BytesComeBackForEverySize) {
  for (const size_t size : {1U, 3U, 4U, 255U, 4097U}) {
    VulkanBuffer buffer = create(size, hostVisible());
    const std::vector<uint8_t> bytes = countingBytes(size);
    EXPECT_THAT(buffer.upload(bytes.data(), size), IsOk());
    EXPECT_EQ(vulkan_.bytes(buffer.handle()), bytes);
    EXPECT_EQ(download(buffer), bytes);
  }
}

TEST_P(Transfer, PartOfABufferIsItsBeginning) {
  VulkanBuffer buffer = create(8, hostVisible());
  const std::vector<uint8_t> zeroes(8, 0);
  EXPECT_THAT(buffer.upload(zeroes.data(), 8), IsOk());
  EXPECT_THAT(buffer.upload("abc", 3), IsOk());
  EXPECT_THAT(vulkan_.bytes(buffer.handle()), ElementsAre('a', 'b', 'c', 0, 0, 0, 0, 0));
  std::vector<char> out(4, '?');
  EXPECT_THAT(buffer.download(out.data(), 2), IsOk());
  EXPECT_THAT(out, ElementsAre('a', 'b', '?', '?'));
}

TEST_P(Transfer, OneByteTooManyIsRefused) {
  VulkanBuffer buffer = create(8, hostVisible());
  std::vector<uint8_t> bytes = countingBytes(9);
  const std::vector<uint8_t> kept = bytes;
  EXPECT_THAT(buffer.upload(bytes.data(), 9), IsInvalidFormat("upload: bad size"));
  EXPECT_THAT(buffer.download(bytes.data(), 9), IsInvalidFormat("download: bad size"));
  EXPECT_THAT(buffer.upload(bytes.data(), SIZE_MAX), IsInvalidFormat("upload: bad size"));
  EXPECT_THAT(buffer.download(bytes.data(), SIZE_MAX), IsInvalidFormat("download: bad size"));
  EXPECT_EQ(bytes, kept);
  EXPECT_EQ(vulkan_.calls("vkMapMemory"), 0);
  EXPECT_THAT(buffer.upload(bytes.data(), 8), IsOk());
}

TEST_P(Transfer, NullIsRefusedAlsoForNoBytes) {
  VulkanBuffer buffer = create(8, hostVisible());
  for (const size_t bytes : {0U, 8U}) {
    EXPECT_THAT(buffer.upload(nullptr, bytes), IsInvalidFormat("upload: bad size"));
    EXPECT_THAT(buffer.download(nullptr, bytes), IsInvalidFormat("download: bad size"));
  }
}

TEST_P(Transfer, NoBytesAreMovedWithoutAnyCall) {
  VulkanBuffer buffer = create(8, hostVisible());
  const std::vector<std::string> log = vulkan_.log();
  uint8_t byte = 7;
  EXPECT_THAT(buffer.upload(&byte, 0), IsOk());
  EXPECT_THAT(buffer.download(&byte, 0), IsOk());
  EXPECT_EQ(byte, 7);
  EXPECT_EQ(vulkan_.log(), log);
}

TEST_P(Transfer, FailedMapIsReportedAndCanBeRepeated) {
  VulkanBuffer buffer = create(8, hostVisible());
  std::vector<uint8_t> bytes = countingBytes(8);
  vulkan_.fail("vkMapMemory", VK_ERROR_MEMORY_MAP_FAILED);
  EXPECT_THAT(buffer.upload(bytes.data(), 8), IsFailure(StatusCode::IOError, "vkMapMemory failed"));
  EXPECT_THAT(buffer.upload(bytes.data(), 8), IsOk());
  vulkan_.fail("vkMapMemory", VK_ERROR_MEMORY_MAP_FAILED);
  EXPECT_THAT(buffer.download(bytes.data(), 8),
              IsFailure(StatusCode::IOError, "vkMapMemory failed"));
  EXPECT_EQ(download(buffer), bytes);
  EXPECT_EQ(liveBuffers(), 1U);
}

TEST_F(VulkanBufferTest, HostVisibleTransfersSubmitNothing) {
  VulkanBuffer buffer = create(8, true);
  EXPECT_THAT(buffer.upload("12345678", 8), IsOk());
  download(buffer);
  EXPECT_EQ(vulkan_.calls("vkQueueSubmit"), 0);
  EXPECT_EQ(vulkan_.calls("vkUnmapMemory"), 2);
  EXPECT_EQ(vulkan_.calls("vkCreateBuffer"), 1);
}

TEST_F(VulkanBufferTest, DeviceLocalTransferIsOneCopyThroughAStagingBufferOfItsSize) {
  VulkanBuffer buffer = create(1000, false);
  const std::vector<uint8_t> bytes = countingBytes(300);
  EXPECT_THAT(buffer.upload(bytes.data(), 300), IsOk());
  std::vector<uint8_t> out(200);
  EXPECT_THAT(buffer.download(out.data(), 200), IsOk());

  const std::vector<FakeCopy>& copies = vulkan_.copies;
  ASSERT_EQ(copies.size(), 2U);
  EXPECT_EQ(vulkan_.calls("vkQueueSubmit"), 2);
  EXPECT_EQ(copies[0].destination, buffer.handle());
  EXPECT_EQ(copies[0].region.size, 300U);
  EXPECT_EQ(copies[1].source, buffer.handle());
  EXPECT_EQ(copies[1].region.size, 200U);
  ASSERT_EQ(vulkan_.requests.buffers.size(), 3U);
  EXPECT_EQ(vulkan_.requests.buffers[1].size, 300U);
  EXPECT_EQ(vulkan_.requests.buffers[2].size, 200U);
  EXPECT_EQ(liveBuffers(), 1U);
  EXPECT_EQ(liveMemory(), 1U);
}

TEST_F(VulkanBufferTest, TransferOfAnEmptyBufferOrAWrapperIsRefused) {
  const VulkanBuffer owner = create(8, false);
  VulkanBuffer wrapper;
  wrapper.adopt(owner.handle(), 8);
  uint8_t bytes[8] = {};
  EXPECT_THAT(wrapper.upload(bytes, 8), IsInvalidFormat("map: not created"));
  EXPECT_THAT(wrapper.download(bytes, 8), IsInvalidFormat("map: not created"));
  VulkanBuffer empty;
  EXPECT_THAT(empty.upload(bytes, 1), IsInvalidFormat("upload: bad size"));
  EXPECT_THAT(empty.download(bytes, 1), IsInvalidFormat("download: bad size"));
  EXPECT_EQ(vulkan_.calls("vkQueueSubmit"), 0);
}

TEST_F(VulkanBufferTest, StagingNeedsHostVisibleMemory) {
  vulkan_.devices[0].memoryTypes = {{kDeviceLocal, 0}};
  VulkanBuffer buffer = create(8, false);
  uint8_t bytes[8] = {};
  EXPECT_THAT(buffer.upload(bytes, 8),
              IsFailure(StatusCode::Unsupported, "no suitable memory type"));
  EXPECT_THAT(buffer.download(bytes, 8),
              IsFailure(StatusCode::Unsupported, "no suitable memory type"));
  EXPECT_EQ(liveBuffers(), 1U);
}

class DeviceTransferFails : public VulkanBufferTest,
                            public ::testing::WithParamInterface<const char*> {};

TEST_P(DeviceTransferFails, AndTheStagingBufferIsGone) {
  const std::string function = GetParam();
  const std::string message = function + " failed";
  VulkanBuffer buffer = create(8, false);
  std::vector<uint8_t> bytes = countingBytes(8);

  vulkan_.fail(function, VK_ERROR_OUT_OF_HOST_MEMORY);
  EXPECT_THAT(buffer.upload(bytes.data(), 8), IsFailure(StatusCode::IOError, message));
  EXPECT_EQ(liveBuffers(), 1U);
  EXPECT_EQ(liveMemory(), 1U);
  EXPECT_THAT(buffer.upload(bytes.data(), 8), IsOk());

  vulkan_.fail(function, VK_ERROR_OUT_OF_HOST_MEMORY);
  std::vector<uint8_t> out(8, 0xee);
  EXPECT_THAT(buffer.download(out.data(), 8), IsFailure(StatusCode::IOError, message));
  EXPECT_EQ(out, std::vector<uint8_t>(8, 0xee));
  EXPECT_EQ(liveBuffers(), 1U);
  EXPECT_EQ(liveMemory(), 1U);
  EXPECT_EQ(download(buffer), bytes);
}

INSTANTIATE_TEST_SUITE_P(EachCall, DeviceTransferFails,
                         ::testing::Values("vkCreateBuffer", "vkAllocateMemory",
                                           "vkBindBufferMemory", "vkMapMemory",
                                           "vkAllocateCommandBuffers", "vkBeginCommandBuffer",
                                           "vkEndCommandBuffer", "vkQueueSubmit", "vkWaitForFences",
                                           "vkResetFences"),
                         [](const auto& param) { return std::string(param.param); });

// ---- copies between buffers

TEST_F(VulkanBufferTest, CopyMovesTheFirstBytesBetweenAnyKinds) {
  for (const bool fromHost : {true, false}) {
    for (const bool toHost : {true, false}) {
      VulkanBuffer source = create(8, fromHost);
      VulkanBuffer target = create(12, toHost);
      const std::vector<uint8_t> nines(12, 9);
      EXPECT_THAT(source.upload("abcdefgh", 8), IsOk());
      EXPECT_THAT(target.upload(nines.data(), 12), IsOk());
      EXPECT_THAT(target.copyFrom(context_, source, 3), IsOk());
      EXPECT_THAT(vulkan_.bytes(target.handle()),
                  ElementsAre('a', 'b', 'c', 9, 9, 9, 9, 9, 9, 9, 9, 9));
      EXPECT_THAT(target.copyFrom(context_, source, 8), IsOk());
      std::vector<uint8_t> out(8);
      EXPECT_THAT(target.download(out.data(), 8), IsOk());
      EXPECT_THAT(out, ElementsAre('a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'));
    }
  }
}

TEST_F(VulkanBufferTest, CopyOfNoBytesSubmitsNothing) {
  const VulkanBuffer source = create(8, false);
  VulkanBuffer target = create(8, false);
  EXPECT_THAT(target.copyFrom(context_, source, 0), IsOk());
  EXPECT_EQ(vulkan_.calls("vkQueueSubmit"), 0);
}

TEST_F(VulkanBufferTest, CopyReportsTheFailingStep) {
  const VulkanBuffer source = create(8, true);
  VulkanBuffer target = create(8, true);
  for (const char* function :
       {"vkAllocateCommandBuffers", "vkBeginCommandBuffer", "vkEndCommandBuffer", "vkQueueSubmit",
        "vkWaitForFences", "vkResetFences"}) {
    vulkan_.fail(function, VK_ERROR_OUT_OF_DEVICE_MEMORY);
    EXPECT_THAT(target.copyFrom(context_, source, 8),
                IsFailure(StatusCode::IOError, std::string(function) + " failed"));
    EXPECT_THAT(target.copyFrom(context_, source, 8), IsOk());
  }
  VulkanContext empty;
  EXPECT_THAT(target.copyFrom(empty, source, 8), IsInvalidFormat("beginCommand: uninitialized"));
}

// ---- wrappers

TEST_F(VulkanBufferTest, WrapperKnowsHandleAndSizeAndReleasesNothing) {
  VulkanBuffer owner = create(64, false);
  {
    VulkanBuffer wrapper;
    wrapper.adopt(owner.handle(), 48);
    EXPECT_TRUE(wrapper.valid());
    EXPECT_EQ(wrapper.handle(), owner.handle());
    EXPECT_EQ(wrapper.size(), 48U);
    EXPECT_FALSE(wrapper.hostVisible());
    wrapper.destroy();
    expectEmpty(wrapper);
    wrapper.adopt(owner.handle(), 48);
  }
  EXPECT_EQ(liveBuffers(), 1U);
  EXPECT_EQ(vulkan_.calls("vkDestroyBuffer"), 0);
  EXPECT_THAT(owner.upload("still", 5), IsOk());
}

TEST_F(VulkanBufferTest, AdoptReleasesWhatWasOwned) {
  const VulkanBuffer owner = create(64, false);
  VulkanBuffer other = create(32, true);
  other.adopt(owner.handle(), 64);
  EXPECT_EQ(liveBuffers(), 1U);
  EXPECT_EQ(liveMemory(), 1U);
  EXPECT_EQ(other.handle(), owner.handle());
  EXPECT_FALSE(other.hostVisible());
}

TEST_F(VulkanBufferTest, CreateOnAWrapperChangesNothing) {
  const VulkanBuffer owner = create(64, false);
  VulkanBuffer wrapper;
  wrapper.adopt(owner.handle(), 64);
  EXPECT_THAT(wrapper.create(context_, 8, true), IsOk());
  EXPECT_EQ(wrapper.handle(), owner.handle());
  EXPECT_EQ(wrapper.size(), 64U);
  EXPECT_EQ(liveBuffers(), 1U);

  wrapper.destroy();
  EXPECT_THAT(wrapper.create(context_, 8, true), IsOk());
  EXPECT_EQ(liveBuffers(), 2U);
}

// ---- moves

TEST_F(VulkanBufferTest, MovePassesEverythingAndLeavesTheSourceEmpty) {
  VulkanBuffer source = create(8, true);
  EXPECT_THAT(source.upload("12345678", 8), IsOk());
  VkBuffer handle = source.handle();
  VulkanBuffer target(std::move(source));
  EXPECT_EQ(target.handle(), handle);
  EXPECT_EQ(target.size(), 8U);
  EXPECT_TRUE(target.hostVisible());
  EXPECT_THAT(download(target), ElementsAre('1', '2', '3', '4', '5', '6', '7', '8'));

  expectEmpty(source);  // NOLINT(bugprone-use-after-move): that is the promise
  source.destroy();
  EXPECT_EQ(liveBuffers(), 1U);
  EXPECT_THAT(source.create(context_, 4, false), IsOk());
  EXPECT_EQ(source.size(), 4U);
  EXPECT_EQ(liveBuffers(), 2U);
}

TEST_F(VulkanBufferTest, MoveAssignmentReleasesTheOldBuffer) {
  VulkanBuffer source = create(8, true);
  VulkanBuffer target = create(16, false);
  VkBuffer handle = source.handle();
  target = std::move(source);
  EXPECT_EQ(target.handle(), handle);
  EXPECT_EQ(liveBuffers(), 1U);
  EXPECT_EQ(liveMemory(), 1U);
  target = VulkanBuffer();
  expectEmpty(target);
  EXPECT_EQ(liveBuffers(), 0U);
}

TEST_F(VulkanBufferTest, MoveToItselfKeepsTheBuffer) {
  VulkanBuffer buffer = create(8, true);
  VulkanBuffer& same = buffer;
  buffer = std::move(same);
  EXPECT_TRUE(buffer.valid());
  EXPECT_EQ(buffer.size(), 8U);
  EXPECT_THAT(buffer.upload("12345678", 8), IsOk());
  EXPECT_EQ(liveBuffers(), 1U);
}

TEST_F(VulkanBufferTest, MovedWrapperStaysAWrapper) {
  const VulkanBuffer owner = create(8, true);
  VulkanBuffer wrapper;
  wrapper.adopt(owner.handle(), 8);
  {
    const VulkanBuffer moved(std::move(wrapper));
    EXPECT_EQ(moved.handle(), owner.handle());
  }
  EXPECT_EQ(liveBuffers(), 1U);
}

TEST_F(VulkanBufferTest, BuffersLiveInAGrowingList) {
  std::vector<VulkanBuffer> buffers;
  for (size_t i = 1; i <= 20; ++i) {
    buffers.push_back(create(i, i % 2 == 0));
    const std::vector<uint8_t> bytes(i, static_cast<uint8_t>(i));
    EXPECT_THAT(buffers.back().upload(bytes.data(), i), IsOk());
  }
  EXPECT_EQ(liveBuffers(), 20U);
  for (size_t i = 1; i <= 20; ++i) {
    EXPECT_EQ(download(buffers[i - 1]), std::vector<uint8_t>(i, static_cast<uint8_t>(i)));
  }
}

TEST(VulkanBufferOnAnEmptyContext, IsRefused) {
  VulkanContext empty;
  VulkanBuffer buffer;
  EXPECT_THAT(buffer.create(empty, 4, /*hostVisible=*/true),
              IsInvalidFormat("create: uninitialized"));
  EXPECT_FALSE(buffer.valid());
}

}  // namespace
}  // namespace zemtest
