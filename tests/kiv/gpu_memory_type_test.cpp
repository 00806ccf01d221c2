// SPDX-License-Identifier: Apache-2.0
// Pools and weights on cards with the memory that real drivers report.
#include "kiv/gpu_memory_type.h"

#include <gmock/gmock.h>

#include <string>
#include <utility>
#include <vector>

#include "kiv/gpu_memory.h"
#include "kiv/gpu_model_loader.h"
#include "support/fake_cards.h"
#include "support/loaded_container.h"
#include "support/status_matchers.h"

namespace zemtest {

using namespace kiv;

namespace {

using ::kiv::vulkan::VulkanContext;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

struct CardPool {
  const char* name;
  FakeDevice card;
  uint64_t poolSize;
  uint32_t type;
};

void PrintTo(const CardPool& pool, std::ostream* out) { *out << pool.name; }

class PoolOnACard : public ::testing::TestWithParam<CardPool> {};

TEST_P(PoolOnACard, LiesInMemoryThatHoldsIt) {
  FakeVulkan vulkan({GetParam().card});
  VulkanContext context;
  ASSERT_THAT(context.init(0), IsOk());
  VRAMAllocator pool;
  ASSERT_THAT(pool.init(context, GetParam().poolSize), IsOk());
  EXPECT_EQ(pool.memoryType(), GetParam().type);
  EXPECT_EQ(pool.poolSize(), GetParam().poolSize);
  EXPECT_EQ(vulkan.live(VK_OBJECT_TYPE_BUFFER), 0U);
}

INSTANTIATE_TEST_SUITE_P(
    Cards, PoolOnACard,
    ::testing::Values(
        CardPool{"WindowSmallerThanALargePool", cardWithASmallWindow(), 17 * kGiB, 1},
        CardPool{"WindowSmallerThanASmallPool", cardWithASmallWindow(), 600 * kMiB, 1},
        CardPool{"WindowThatHoldsThePool", cardWithASmallWindow(), 200 * kMiB, 4},
        CardPool{"LastTypeOfAnExtension", cardWithUncachedTypes(), 10 * kGiB, 0},
        CardPool{"LastTypeOfAnExtensionForASmallPool", cardWithUncachedTypes(), kGiB, 0},
        CardPool{"FirstHostVisibleOfALaterExtension", cardWithUncachedTypes(), 100 * kMiB, 2},
        CardPool{"ProtectedMemory", deviceWithProtectedMemory(), 3 * kGiB, 0},
        CardPool{"ProtectedMemoryIsNotReached", deviceWithProtectedMemory(), kGiB, 1},
        CardPool{"MemoryForImages", cardWithATypeForImages(), 5 * kGiB, 1}),
    [](const auto& param) { return std::string(param.param.name); });

// A display and other programs use the window as well.
TEST(PoolOnACard, AWindowThatIsInUseIsNotTheEnd) {
  FakeVulkan vulkan({cardWithASmallWindow()});
  VulkanContext context;
  ASSERT_THAT(context.init(0), IsOk());
  vulkan.fail("vkAllocateMemory", VK_ERROR_OUT_OF_DEVICE_MEMORY);
  VRAMAllocator pool;
  ASSERT_THAT(pool.init(context, 200 * kMiB), IsOk());
  EXPECT_EQ(pool.memoryType(), 1U);
}

TEST(PoolOnACard, MoreThanAnyHeapHasIsAnAllocationFailure) {
  const FakeVulkan vulkan({cardWithASmallWindow()});
  VulkanContext context;
  ASSERT_THAT(context.init(0), IsOk());
  VRAMAllocator pool;
  EXPECT_THAT(pool.init(context, 24 * kGiB + 1),
              IsFailure(StatusCode::IOError, "VRAMAllocator: vkAllocateMemory failed"));
  EXPECT_EQ(vulkan.live(VK_OBJECT_TYPE_DEVICE_MEMORY), 0U);
}

TEST(PoolMemoryTypes, WithoutAnotherTypeTheFirstChoiceStays) {
  VkPhysicalDeviceMemoryProperties memory{};
  EXPECT_THAT(poolMemoryTypes(memory, kMiB, ~0U), IsEmpty());
  memory.memoryHeapCount = 1;
  memory.memoryHeaps[0] = {kGiB, VK_MEMORY_HEAP_DEVICE_LOCAL_BIT};
  memory.memoryTypeCount = 1;
  memory.memoryTypes[0] = {kDeviceLocal | kUncachedOfAnExtension, 0};
  EXPECT_THAT(poolMemoryTypes(memory, kMiB, ~0U), ElementsAre(0));
  EXPECT_THAT(poolMemoryTypes(memory, 2 * kGiB, 0), ElementsAre(0));
}

// ---- pools of several blocks

FakeDevice cardOfSmallAllocations(uint64_t most) {
  FakeDevice card;
  card.maxAllocation = most;
  return card;
}

class PoolOfBlocks : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_THAT(context_.init(0), IsOk()); }

  static constexpr uint64_t kBlock = 128 * 1024;

  FakeVulkan vulkan_{{cardOfSmallAllocations(kBlock + 1000)}};
  VulkanContext context_;
  VRAMAllocator pool_;
};

TEST_F(PoolOfBlocks, IsAsLargeAsAskedFor) {
  ASSERT_THAT(pool_.init(context_, 2 * kBlock + 500), IsOk());
  ASSERT_THAT(pool_.blocks(), SizeIs(3));
  EXPECT_EQ(pool_.poolSize(), 2 * kBlock + 500);
  EXPECT_EQ(pool_.blocks()[1].offset, kBlock);
  EXPECT_EQ(pool_.blocks()[2].size, 500U);
  EXPECT_EQ(pool_.memory(), pool_.blocks()[0].memory);
  ASSERT_THAT(pool_.init(context_, kBlock), IsOk());
  EXPECT_THAT(pool_.blocks(), SizeIs(1));
  EXPECT_EQ(vulkan_.live(VK_OBJECT_TYPE_DEVICE_MEMORY), 1U);
}

TEST_F(PoolOfBlocks, NoRangeSpansTwo) {
  ASSERT_THAT(pool_.init(context_, 2 * kBlock), IsOk());
  uint64_t offset = 0;
  EXPECT_THAT(pool_.allocate(kBlock + 1, 1, offset),
              IsInvalidFormat("VRAMAllocator: pool exhausted"));
  EXPECT_THAT(pool_.allocate(kBlock - 10, 1, offset), IsOk());
  EXPECT_THAT(pool_.allocate(20, 1, offset), IsOk());
  EXPECT_EQ(offset, kBlock);
  EXPECT_EQ(&pool_.blockAt(offset), &pool_.blocks()[1]);
  pool_.free(kBlock, 20);
  pool_.free(0, kBlock - 10);
  EXPECT_THAT(pool_.allocate(kBlock + 1, 1, offset),
              IsInvalidFormat("VRAMAllocator: pool exhausted"));
  EXPECT_THAT(pool_.allocate(kBlock, 1, offset), IsOk());
  EXPECT_EQ(offset, 0U);
}

TEST_F(PoolOfBlocks, AFailureOfALaterOneReleasesTheEarlier) {
  vulkan_.fail("vkAllocateMemory", VK_ERROR_OUT_OF_DEVICE_MEMORY, 3);
  EXPECT_THAT(pool_.init(context_, 3 * kBlock),
              IsFailure(StatusCode::IOError, "VRAMAllocator: vkAllocateMemory failed"));
  EXPECT_EQ(vulkan_.live(VK_OBJECT_TYPE_DEVICE_MEMORY), 0U);
  EXPECT_EQ(pool_.memory(), VK_NULL_HANDLE);
}

// Nine tensors of 12 MiB, on a card whose allocations end at 64 MiB.
TEST(WeightsInBlocks, EveryTensorIsWholeInOne) {
  FakeDevice card = cardWithASmallWindow();
  card.maxAllocation = 64 * kMiB;
  FakeVulkan vulkan({card});
  GPUModelLoader gpu;
  ASSERT_THAT(gpu.init(0), IsOk());
  ContainerBuilder builder;
  const Bytes content = patternBytes(12 * kMiB, 1);
  addBytes(builder, "a", content);
  for (const char* name : {"b", "c", "d", "e", "f", "g", "h", "i"}) {
    builder.addTensorAlias(name, DType::F32, {3 * kMiB}, "a");
  }
  LoadedContainer loaded(builder.build());
  ASSERT_THAT(gpu.loadWeightsToGPU(loaded.loader), IsOk());
  EXPECT_THAT(gpu.pool().blocks(), SizeIs(3));
  EXPECT_EQ(gpu.leftOut(), 0U);
  ASSERT_EQ(gpu.tensorCount(), 9U);
  for (size_t i = 0; i < gpu.tensorCount(); ++i) {
    const GPUTensorView& view = gpu.tensorAt(i);
    EXPECT_EQ(&gpu.pool().blockAt(view.offset), &gpu.pool().blockAt(view.offset + view.size - 1));
    EXPECT_TRUE(vulkan.bytes(view.buffer) == content) << i;
    Bytes bytes(view.size);
    ASSERT_THAT(gpu.downloadTensor(view, bytes.data()), IsOk());
    EXPECT_TRUE(bytes == content) << i;
  }
}

TEST(WeightsInBlocks, ATensorThatNoBlockHoldsIsLeftOut) {
  FakeDevice card;
  card.maxAllocation = 64 * kMiB;
  const FakeVulkan vulkan({card});
  GPUModelLoader gpu;
  ASSERT_THAT(gpu.init(0), IsOk());
  ContainerBuilder builder;
  addBytes(builder, "fits", patternBytes(100, 1));
  addBytes(builder, "huge", Bytes(64 * kMiB + 1));
  LoadedContainer loaded(builder.build());
  ASSERT_THAT(gpu.loadWeightsToGPU(loaded.loader), IsOk());
  EXPECT_NE(gpu.findTensor("fits"), nullptr);
  EXPECT_EQ(gpu.findTensor("huge"), nullptr);
  EXPECT_EQ(gpu.leftOut(), 1U);
}

}  // namespace
}  // namespace zemtest
