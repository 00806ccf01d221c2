// SPDX-License-Identifier: Apache-2.0
// The pool of device memory on a scripted machine, and its ranges against a
// plain model of them.
#include "kiv/gpu_memory.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdint>
#include <ostream>
#include <random>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/fake_vulkan.h"
#include "support/status_matchers.h"

namespace zemtest {

using namespace kiv;

namespace {

using ::kiv::vulkan::VulkanContext;
using ::testing::IsEmpty;

static_assert(!std::is_copy_constructible_v<VRAMAllocator>);
static_assert(!std::is_copy_assignable_v<VRAMAllocator>);

FakeDevice deviceWithHeap(uint64_t bytes) {
  FakeDevice device;
  device.heaps[0].size = bytes;
  return device;
}

void expectInvalid(const VRAMAllocator& pool) {
  EXPECT_EQ(pool.memory(), VK_NULL_HANDLE);
  EXPECT_EQ(pool.poolSize(), 0U);
  EXPECT_FALSE(pool.info().valid);
  EXPECT_EQ(pool.info().name, "");
  EXPECT_EQ(pool.info().driver, "");
  EXPECT_EQ(pool.info().totalVRAM, 0U);
  EXPECT_EQ(pool.info().apiVersion, 0U);
  const VRAMAllocator::Stats stats = pool.stats();
  EXPECT_EQ(stats.totalVRAM, 0U);
  EXPECT_EQ(stats.usedVRAM, 0U);
  EXPECT_EQ(stats.freeVRAM, 0U);
}

// ---- the pool

TEST(GpuMemoryPool, TakesOneAllocationOfTheSizeAskedFor) {
  FakeVulkan vulkan({FakeDevice{}});
  VulkanContext context;
  ASSERT_THAT(context.init(0), IsOk());
  VRAMAllocator pool;
  EXPECT_THAT(pool.init(context, 64 * kMiB), IsOk());
  EXPECT_EQ(pool.poolSize(), 64 * kMiB);
  EXPECT_NE(pool.memory(), VK_NULL_HANDLE);
  ASSERT_EQ(vulkan.requests.allocations.size(), 1U);
  EXPECT_EQ(vulkan.requests.allocations[0].allocationSize, 64 * kMiB);
  EXPECT_EQ(vulkan.requests.allocations[0].memoryTypeIndex, 0U);
  EXPECT_EQ(pool.memoryType(), 0U);
}

TEST(GpuMemoryPool, OddSizeStillHoldsABufferOverAllOfIt) {
  FakeVulkan vulkan({FakeDevice{}});
  VulkanContext context;
  ASSERT_THAT(context.init(0), IsOk());
  VRAMAllocator pool;
  EXPECT_THAT(pool.init(context, 1001), IsOk());
  EXPECT_EQ(pool.poolSize(), 1001U);
  ASSERT_EQ(vulkan.requests.allocations.size(), 1U);
  EXPECT_GE(vulkan.requests.allocations[0].allocationSize, 1024U);
  uint64_t offset = 0;
  EXPECT_THAT(pool.allocate(1002, 1, offset), IsInvalidFormat("VRAMAllocator: pool exhausted"));
  EXPECT_THAT(pool.allocate(1001, 1, offset), IsOk());
}

TEST(GpuMemoryPool, DefaultIsTheLargestHeapButAtMostEightGiB) {
  for (const auto& [heap, expected] : {std::pair{3 * kGiB, 3 * kGiB},
                                       {8 * kGiB, 8 * kGiB},
                                       {24 * kGiB, 8 * kGiB},
                                       {kMiB + 8, kMiB + 8}}) {
    const FakeVulkan vulkan({deviceWithHeap(heap)});
    VulkanContext context;
    ASSERT_THAT(context.init(0), IsOk());
    VRAMAllocator pool;
    EXPECT_THAT(pool.init(context, 0), IsOk());
    EXPECT_EQ(pool.poolSize(), expected);
    EXPECT_EQ(pool.info().totalVRAM, heap);
  }
}

TEST(GpuMemoryPool, SummaryDescribesTheDevice) {
  FakeDevice device = deviceWithHeap(8 * kGiB);
  device.name = "Some GPU";
  device.driverVersion = (22U << 22) | (3U << 12) | 6U;
  device.apiVersion = VK_MAKE_API_VERSION(0, 1, 3, 239);
  const FakeVulkan vulkan({device});
  VulkanContext context;
  ASSERT_THAT(context.init(0), IsOk());
  VRAMAllocator pool;
  ASSERT_THAT(pool.init(context, kGiB), IsOk());
  EXPECT_EQ(pool.info().name, "Some GPU");
  EXPECT_EQ(pool.info().driver, "22.3.6");
  EXPECT_EQ(pool.info().apiVersion, device.apiVersion);
  EXPECT_TRUE(pool.info().valid);
  EXPECT_EQ(pool.stats().totalVRAM, 8 * kGiB);
  EXPECT_EQ(pool.stats().usedVRAM, 0U);
  EXPECT_EQ(pool.stats().freeVRAM, 8 * kGiB);
}

TEST(GpuMemoryPool, TotalIsTheLargestDeviceLocalHeapNotTheSum) {
  FakeDevice device;
  device.heaps = {{2 * kGiB, VK_MEMORY_HEAP_DEVICE_LOCAL_BIT},
                  {6 * kGiB, VK_MEMORY_HEAP_DEVICE_LOCAL_BIT},
                  {32 * kGiB, 0}};
  device.memoryTypes = {{kDeviceLocal, 1}};
  const FakeVulkan vulkan({device});
  VulkanContext context;
  ASSERT_THAT(context.init(0), IsOk());
  VRAMAllocator pool;
  ASSERT_THAT(pool.init(context, kMiB), IsOk());
  EXPECT_EQ(pool.info().totalVRAM, 6 * kGiB);
  EXPECT_EQ(context.info().vramBytes, 8 * kGiB);
}

struct PoolChoice {
  const char* name;
  std::vector<VkMemoryPropertyFlags> types;
  uint64_t poolSize;
  int chosen;  // -1: none
};

void PrintTo(const PoolChoice& choice, std::ostream* out) { *out << choice.name; }

class PoolMemoryType : public ::testing::TestWithParam<PoolChoice> {};

TEST_P(PoolMemoryType, IsChosenBySizeAndOrder) {
  FakeDevice device = deviceWithHeap(16 * kGiB);
  device.memoryTypes.clear();
  for (const VkMemoryPropertyFlags flags : GetParam().types) {
    device.memoryTypes.push_back({flags, (flags & kDeviceLocal) != 0 ? 0U : 1U});
  }
  FakeVulkan vulkan({device});
  VulkanContext context;
  ASSERT_THAT(context.init(0), IsOk());
  VRAMAllocator pool;
  const Status status = pool.init(context, GetParam().poolSize);
  if (GetParam().chosen < 0) {
    EXPECT_THAT(status,
                IsFailure(StatusCode::Unsupported, "VRAMAllocator: no device-local memory"));
    EXPECT_THAT(vulkan.requests.allocations, IsEmpty());
    uint64_t offset = 0;
    EXPECT_THAT(pool.allocate(1, 1, offset), IsInvalidFormat("VRAMAllocator: not initialized"));
    return;
  }
  EXPECT_THAT(status, IsOk());
  ASSERT_EQ(vulkan.requests.allocations.size(), 1U);
  EXPECT_EQ(vulkan.requests.allocations[0].memoryTypeIndex,
            static_cast<uint32_t>(GetParam().chosen));
  EXPECT_EQ(pool.memoryType(), static_cast<uint32_t>(GetParam().chosen));
}

constexpr VkMemoryPropertyFlags kBoth = kDeviceLocal | kHost;

INSTANTIATE_TEST_SUITE_P(
    Table, PoolMemoryType,
    ::testing::Values(
        PoolChoice{"LastDeviceLocal", {kDeviceLocal, kHost, kDeviceLocal, kHost}, kMiB, 2},
        PoolChoice{"SmallPoolPrefersTheFirstHostVisible",
                   {kDeviceLocal, kBoth, kDeviceLocal, kBoth},
                   kMiB,
                   1},
        PoolChoice{"TwoGiBIsSmall", {kDeviceLocal, kBoth, kDeviceLocal}, 2 * kGiB, 1},
        PoolChoice{"OneByteMoreIsNot", {kDeviceLocal, kBoth, kDeviceLocal}, 2 * kGiB + 1, 2},
        PoolChoice{
            "LargePoolTakesTheLastAlsoWhenHostVisible", {kDeviceLocal, kBoth, kHost}, 4 * kGiB, 1},
        PoolChoice{
            "HostVisibleNeedNotBeCoherent", {kDeviceLocal | kHostVisible, kDeviceLocal}, kMiB, 0},
        PoolChoice{"DefaultSizeIsLarge", {kBoth, kDeviceLocal}, 0, 1},
        PoolChoice{"HostMemoryIsNoCandidate", {kHost, kDeviceLocal, kHost}, kMiB, 1},
        PoolChoice{"NoneIsDeviceLocal", {kHost, 0}, kMiB, -1}, PoolChoice{"NoTypes", {}, kMiB, -1},
        PoolChoice{"NoTypesForTheDefault", {}, 0, -1}),
    [](const auto& param) { return std::string(param.param.name); });

TEST(GpuMemoryPool, FailedAllocationLeavesItInvalidAndMayBeRepeated) {
  FakeVulkan vulkan({FakeDevice{}});
  VulkanContext context;
  ASSERT_THAT(context.init(0), IsOk());
  VRAMAllocator pool;
  vulkan.fail("vkAllocateMemory", VK_ERROR_OUT_OF_DEVICE_MEMORY);
  EXPECT_THAT(pool.init(context, kMiB),
              IsFailure(StatusCode::IOError, "VRAMAllocator: vkAllocateMemory failed"));
  EXPECT_EQ(pool.memory(), VK_NULL_HANDLE);
  EXPECT_EQ(pool.poolSize(), 0U);
  EXPECT_FALSE(pool.info().valid);
  uint64_t offset = 0;
  EXPECT_THAT(pool.allocate(1, 1, offset), IsInvalidFormat("VRAMAllocator: not initialized"));
  EXPECT_THAT(pool.init(context, kMiB), IsOk());
}

TEST(GpuMemoryPool, MoreThanTheDeviceHasIsAnAllocationFailure) {
  const FakeVulkan vulkan({FakeDevice{}});
  VulkanContext context;
  ASSERT_THAT(context.init(0), IsOk());
  VRAMAllocator pool;
  for (const uint64_t size : {kGiB + 1, 100 * kGiB, UINT64_MAX}) {
    EXPECT_THAT(pool.init(context, size),
                IsFailure(StatusCode::IOError, "VRAMAllocator: vkAllocateMemory failed"));
  }
  EXPECT_THAT(pool.init(context, kGiB), IsOk());
}

TEST(GpuMemoryPool, SecondInitReleasesTheFirstPool) {
  const FakeVulkan vulkan({FakeDevice{}});
  VulkanContext context;
  ASSERT_THAT(context.init(0), IsOk());
  VRAMAllocator pool;
  uint64_t offset = 0;
  ASSERT_THAT(pool.init(context, kMiB), IsOk());
  ASSERT_THAT(pool.allocate(kMiB, 1, offset), IsOk());
  ASSERT_THAT(pool.init(context, 2 * kMiB), IsOk());
  EXPECT_EQ(vulkan.live(VK_OBJECT_TYPE_DEVICE_MEMORY), 1U);
  EXPECT_EQ(pool.stats().usedVRAM, 0U);
  EXPECT_THAT(pool.allocate(2 * kMiB, 1, offset), IsOk());
  EXPECT_EQ(offset, 0U);
}

TEST(GpuMemoryPool, DestroyReleasesItForgetsTheDeviceAndMayBeRepeated) {
  const FakeVulkan vulkan({FakeDevice{}});
  VulkanContext context;
  ASSERT_THAT(context.init(0), IsOk());
  VRAMAllocator pool;
  pool.destroy();
  expectInvalid(pool);
  ASSERT_THAT(pool.init(context, kMiB), IsOk());
  pool.destroy();
  expectInvalid(pool);
  pool.destroy();
  EXPECT_EQ(vulkan.calls("vkFreeMemory"), 1);
  uint64_t offset = 7;
  EXPECT_THAT(pool.allocate(1, 1, offset), IsInvalidFormat("VRAMAllocator: not initialized"));
  EXPECT_EQ(offset, 7U);
  pool.free(0, 1);
  expectInvalid(pool);
  ASSERT_THAT(pool.init(context, kMiB), IsOk());
}

TEST(GpuMemoryPool, DestructorReleasesIt) {
  const FakeVulkan vulkan({FakeDevice{}});
  VulkanContext context;
  ASSERT_THAT(context.init(0), IsOk());
  {
    VRAMAllocator pool;
    ASSERT_THAT(pool.init(context, kMiB), IsOk());
  }
  EXPECT_EQ(vulkan.live(VK_OBJECT_TYPE_DEVICE_MEMORY), 0U);
}

// ---- ranges

class GpuMemoryRanges : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_THAT(context_.init(0), IsOk());
    ASSERT_THAT(pool_.init(context_, 1000), IsOk());
  }

  static constexpr uint64_t kNone = UINT64_MAX;

  // kNone when the pool says that it is exhausted.
  uint64_t allocate(uint64_t size, uint64_t alignment) {
    uint64_t offset = kNone;
    const Status status = pool_.allocate(size, alignment, offset);
    if (status.ok()) return offset;
    EXPECT_THAT(status, IsInvalidFormat("VRAMAllocator: pool exhausted"));
    EXPECT_EQ(offset, kNone);
    return kNone;
  }
  uint64_t used() const { return pool_.stats().usedVRAM; }

  // Leaves exactly these ranges free.
  void leaveFree(const std::vector<std::pair<uint64_t, uint64_t>>& ranges) {
    ASSERT_THAT(pool_.init(context_, 1000), IsOk());
    ASSERT_EQ(allocate(1000, 1), 0U);
    for (const auto& [offset, size] : ranges) pool_.free(offset, size);
  }

  FakeVulkan vulkan_{{FakeDevice{}}};
  VulkanContext context_;
  VRAMAllocator pool_;
};

TEST_F(GpuMemoryRanges, NoBytesCountAsOne) {
  EXPECT_EQ(allocate(0, 256), 0U);
  EXPECT_EQ(used(), 1U);
  EXPECT_EQ(allocate(0, 1), 1U);
  EXPECT_EQ(allocate(10, 1), 2U);
  EXPECT_EQ(used(), 12U);
}

TEST_F(GpuMemoryRanges, AreAlignedAndPaddingIsNotCounted) {
  EXPECT_EQ(allocate(100, 256), 0U);
  EXPECT_EQ(allocate(100, 256), 256U);
  EXPECT_EQ(used(), 200U);
  EXPECT_EQ(allocate(156, 4), 100U);  // the padding is still there to be had
  EXPECT_EQ(allocate(1, 1), 356U);
}

TEST_F(GpuMemoryRanges, FirstFitAmongTwoFreeOnes) {
  leaveFree({{0, 100}, {300, 100}});
  EXPECT_EQ(allocate(50, 64), 0U);
  EXPECT_EQ(allocate(80, 256), kNone);  // (50, 50) is too small, 300 would have to begin at 512
  EXPECT_EQ(allocate(80, 4), 300U);
  EXPECT_EQ(allocate(50, 1), 50U);
}

TEST_F(GpuMemoryRanges, ExactFitUsesTheRangeUp) {
  leaveFree({{100, 50}});
  EXPECT_EQ(allocate(50, 1), 100U);
  EXPECT_EQ(allocate(1, 1), kNone);
  leaveFree({{100, 156}});
  EXPECT_EQ(allocate(28, 128), 128U);  // a head of 28 and a tail of 100 stay
  EXPECT_EQ(allocate(28, 1), 100U);
  EXPECT_EQ(allocate(100, 1), 156U);
  EXPECT_EQ(allocate(1, 1), kNone);
}

TEST_F(GpuMemoryRanges, PaddingWithoutATailKeepsTheHead) {
  leaveFree({{100, 128}});
  EXPECT_EQ(allocate(100, 128), 128U);
  EXPECT_EQ(allocate(29, 1), kNone);
  EXPECT_EQ(allocate(28, 1), 100U);
}

TEST_F(GpuMemoryRanges, WholePoolAndNoMore) {
  EXPECT_EQ(allocate(1001, 1), kNone);
  EXPECT_EQ(allocate(UINT64_MAX, 1), kNone);
  EXPECT_EQ(allocate(UINT64_MAX - 10, 256), kNone);
  EXPECT_EQ(allocate(1000, uint64_t{1} << 63), 0U);
  EXPECT_EQ(allocate(1, 1), kNone);
  EXPECT_EQ(used(), 1000U);
}

TEST_F(GpuMemoryRanges, HugeAlignmentFitsOnlyAtTheBeginning) {
  EXPECT_EQ(allocate(1, uint64_t{1} << 63), 0U);
  EXPECT_EQ(allocate(1, uint64_t{1} << 63), kNone);
  EXPECT_EQ(allocate(999, 1), 1U);
}

TEST_F(GpuMemoryRanges, AlignmentThatIsNoPowerOfTwoIsRefused) {
  for (const uint64_t alignment : {uint64_t{0}, uint64_t{3}, uint64_t{255}, UINT64_MAX}) {
    uint64_t offset = 7;
    EXPECT_THAT(pool_.allocate(1, alignment, offset),
                IsInvalidFormat("VRAMAllocator: bad alignment"));
    EXPECT_EQ(offset, 7U);
  }
  EXPECT_EQ(used(), 0U);
}

TEST_F(GpuMemoryRanges, FreeingTheMiddleThenItsNeighboursLeavesOneRange) {
  leaveFree({});
  pool_.free(100, 100);
  EXPECT_EQ(allocate(101, 1), kNone);
  pool_.free(0, 100);
  pool_.free(200, 100);
  EXPECT_EQ(allocate(300, 1), 0U);
  EXPECT_EQ(allocate(1, 1), kNone);
}

TEST_F(GpuMemoryRanges, EveryOrderOfFreeingThreeNeighboursMerges) {
  std::vector<uint64_t> order = {0, 100, 200};
  do {
    leaveFree({});
    for (const uint64_t offset : order) pool_.free(offset, 100);
    EXPECT_EQ(used(), 700U);
    EXPECT_EQ(allocate(300, 1), 0U);
    EXPECT_EQ(allocate(1, 1), kNone);
  } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(GpuMemoryRanges, RangeBetweenTwoFreeOnesMergesAllThree) {
  leaveFree({{100, 50}, {200, 50}});
  EXPECT_EQ(allocate(51, 1), kNone);
  pool_.free(150, 50);
  EXPECT_EQ(allocate(150, 1), 100U);
}

TEST_F(GpuMemoryRanges, RangesThatDoNotTouchStayApart) {
  leaveFree({{100, 50}, {151, 49}});
  EXPECT_EQ(allocate(51, 1), kNone);
  EXPECT_EQ(allocate(50, 1), 100U);
  EXPECT_EQ(allocate(49, 1), 151U);
}

TEST_F(GpuMemoryRanges, FreeingNothingChangesNothing) {
  leaveFree({});
  pool_.free(100, 0);
  EXPECT_EQ(used(), 1000U);
  EXPECT_EQ(allocate(1, 1), kNone);
}

TEST_F(GpuMemoryRanges, UseNeverFallsBelowZero) {
  EXPECT_EQ(allocate(10, 1), 0U);
  pool_.free(500, 400);  // never handed out
  EXPECT_EQ(used(), 0U);
}

TEST_F(GpuMemoryRanges, FreeMemoryOfTheDeviceShrinksWithUse) {
  EXPECT_EQ(allocate(10, 1), 0U);
  EXPECT_EQ(pool_.stats().freeVRAM, kGiB - 10);
  EXPECT_EQ(pool_.stats().totalVRAM, kGiB);
}

// Byte by byte, which ranges are taken.
class NaivePool {
 public:
  explicit NaivePool(size_t size) : taken_(size, false) {}

  // The lowest aligned place; SIZE_MAX: there is none.
  size_t allocate(size_t size, size_t alignment) {
    for (size_t at = 0; at + size <= taken_.size(); at += alignment) {
      if (!isFree(at, size)) continue;
      mark(at, size, true);
      return at;
    }
    return SIZE_MAX;
  }
  void free(size_t at, size_t size) { mark(at, size, false); }

 private:
  bool isFree(size_t at, size_t size) const {
    for (size_t i = at; i < at + size; ++i) {
      if (taken_[i]) return false;
    }
    return true;
  }
  void mark(size_t at, size_t size, bool taken) {
    for (size_t i = at; i < at + size; ++i) taken_[i] = taken;
  }

  std::vector<bool> taken_;
};

// First fit over merged ranges is the lowest aligned place that is free.
TEST_F(GpuMemoryRanges, RandomUseAgreesWithAPlainModel) {
  for (uint32_t seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto below = [&random](uint32_t n) { return static_cast<uint64_t>(random() % n); };
    ASSERT_THAT(pool_.init(context_, 1000), IsOk());
    NaivePool model(1000);
    std::vector<std::pair<uint64_t, uint64_t>> held;
    uint64_t sum = 0;
    for (int step = 0; step < 1000; ++step) {
      if (held.empty() || below(100) < 55) {
        const uint64_t size = 1 + below(60);
        const uint64_t alignment = uint64_t{1} << below(8);
        const uint64_t offset = allocate(size, alignment);
        ASSERT_EQ(offset, model.allocate(size, alignment)) << "step " << step;
        if (offset == kNone) continue;
        held.emplace_back(offset, size);
        sum += size;
      } else {
        std::swap(held[below(static_cast<uint32_t>(held.size()))], held.back());
        const auto [offset, size] = held.back();
        held.pop_back();
        pool_.free(offset, size);
        model.free(offset, size);
        sum -= size;
      }
      ASSERT_EQ(used(), sum) << "step " << step;
    }
    for (const auto& [offset, size] : held) pool_.free(offset, size);
    EXPECT_EQ(allocate(1000, 1), 0U);
  }
}

}  // namespace
}  // namespace zemtest
