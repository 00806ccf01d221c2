// SPDX-License-Identifier: Apache-2.0
// What products ask of a device, on the scripted machine: it computes nothing, but it knows every
// object, limit and kind of memory.
#include "qwen35_gpu_products.h"

#include <gmock/gmock.h>

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "kiv/quant_k.h"
#include "qwen35_gpu_gemv.h"
#include "runtime_qwen35_vulkan/session/session_support.h"
#include "support/fake_cards.h"
#include "support/loaded_container.h"
#include "support/status_matchers.h"

namespace zemtest {
namespace {

using qwen35gpu::GpuGemv;
using qwen35gpu::GpuProduct;
using qwen35gpu::GpuProducts;
using ::testing::ElementsAre;
using ::testing::SizeIs;

constexpr uint64_t kCols = 256;

uint64_t bytesOf(DType type, uint64_t rows) { return rows * dtypeBytes(type, kCols); }

void addMatrix(ContainerBuilder& builder, const std::string& name, DType type, uint64_t rows) {
  builder.addTensor(name, type, {kCols, rows}, Bytes(bytesOf(type, rows)));
}

ContainerBuilder smallMatrices() {
  ContainerBuilder builder;
  builder.quantInfo();
  addMatrix(builder, "a", DType::Q4_K, 6);
  addMatrix(builder, "b", DType::Q5_K, 9);
  addMatrix(builder, "c", DType::Q6_K, 2);
  return builder;
}

// A machine with one card, and weights on it.
class OnACard {
 public:
  explicit OnACard(FakeDevice card, ContainerBuilder builder = smallMatrices())
      : vulkan({std::move(card)}), loaded_(builder.build()) {
    EXPECT_THAT(gpu.init(0), IsOk());
    EXPECT_THAT(gpu.loadWeightsToGPU(loaded_.loader), IsOk());
    EXPECT_TRUE(gemv.init(gpu));
  }

  bool product(const std::string& name) {
    const std::vector<float> x(kCols);
    const GPUTensorView* view = gpu.findTensor(name);
    std::vector<float> y(view == nullptr ? 0 : view->shape[1]);
    return gemv.gemvByName(name, x.data(), kCols, y.data());
  }

  FakeVulkan vulkan;
  GPUModelLoader gpu;
  GpuGemv gemv;

 private:
  LoadedContainer loaded_;
};

// The output head of a large vocabulary.
TEST(GpuProducts, WorkgroupsBeyondTheLimitOfOneDimensionGoOnInTheNext) {
  constexpr uint64_t kVocabulary = 248320;
  ContainerBuilder builder;
  builder.quantInfo();
  addMatrix(builder, "head", DType::Q4_K, kVocabulary);
  OnACard card(FakeDevice{}, std::move(builder));
  ASSERT_EQ(card.vulkan.devices[0].limits.maxComputeWorkGroupCount[0], 65535U);
  ASSERT_TRUE(card.product("head"));
  ASSERT_THAT(card.vulkan.dispatches, SizeIs(1));
  EXPECT_THAT(card.vulkan.dispatches[0].groups, ElementsAre(kVocabulary / 4, 2, 1));
}

TEST(GpuProducts, ReadResultsFromMemoryThatTheHostCaches) {
  OnACard card(cardWithASmallWindow());
  card.vulkan.requests.allocations.clear();
  ASSERT_TRUE(card.product("a"));
  ASSERT_THAT(card.vulkan.requests.allocations, SizeIs(2));
  EXPECT_EQ(card.vulkan.requests.allocations[0].memoryTypeIndex, 4U);  // x: device-local
  EXPECT_EQ(card.vulkan.requests.allocations[1].memoryTypeIndex, 3U);  // y: cached
}

TEST(GpuProducts, AWindowThatIsInUseIsNotNeededForTheVector) {
  OnACard card(cardWithASmallWindow());
  card.vulkan.requests.allocations.clear();
  card.vulkan.fail("vkAllocateMemory", VK_ERROR_OUT_OF_DEVICE_MEMORY);
  ASSERT_TRUE(card.product("a"));
  ASSERT_THAT(card.vulkan.requests.allocations, SizeIs(3));
  EXPECT_EQ(card.vulkan.requests.allocations[1].memoryTypeIndex, 2U);
}

TEST(GpuProducts, ADeviceWithOneKindOfHostMemoryUsesThat) {
  OnACard card(FakeDevice{});
  card.vulkan.requests.allocations.clear();
  ASSERT_TRUE(card.product("a"));
  ASSERT_THAT(card.vulkan.requests.allocations, SizeIs(2));
  for (const auto& request : card.vulkan.requests.allocations) {
    EXPECT_EQ(request.memoryTypeIndex, 1U);
  }
}

TEST(GpuProducts, ASecondRoundAllocatesAndBindsNothing) {
  OnACard card(FakeDevice{});
  for (const char* name : {"a", "b", "c", "a", "b", "c"}) ASSERT_TRUE(card.product(name));
  const std::vector<std::string> first = card.vulkan.log();
  for (const char* name : {"a", "b", "c"}) ASSERT_TRUE(card.product(name));
  std::vector<std::string> second = card.vulkan.log();
  second.erase(second.begin(), second.begin() + static_cast<ptrdiff_t>(first.size()));
  const std::vector<std::string> aProduct = {"vkBeginCommandBuffer",    "vkCmdBindPipeline",
                                             "vkCmdBindDescriptorSets", "vkCmdPushConstants",
                                             "vkCmdDispatch",           "vkCmdPipelineBarrier",
                                             "vkEndCommandBuffer",      "vkQueueSubmit",
                                             "vkWaitForFences",         "vkResetFences"};
  std::vector<std::string> expected;
  for (int i = 0; i < 3; ++i) expected.insert(expected.end(), aProduct.begin(), aProduct.end());
  EXPECT_EQ(second, expected);
}

TEST(GpuProducts, EachDispatchSeesItsOwnMatrixAndAsMuchAsItNeeds) {
  OnACard card(FakeDevice{});
  for (int round = 0; round < 2; ++round) {
    for (const char* name : {"a", "b", "c"}) ASSERT_TRUE(card.product(name));
  }
  ASSERT_THAT(card.vulkan.dispatches, SizeIs(6));
  const char* names[] = {"a", "b", "c", "a", "b", "c"};
  for (size_t i = 0; i < 6; ++i) {
    const GPUTensorView& view = *card.gpu.findTensor(names[i]);
    const auto& bound = card.vulkan.dispatches[i].bindings;
    ASSERT_THAT(bound, SizeIs(3));
    EXPECT_EQ(bound[0].range, kCols * 4);
    EXPECT_EQ(bound[1].buffer, view.buffer);
    EXPECT_EQ(bound[2].range, view.shape[1] * 4);
  }
}

TEST(GpuProducts, ProductsOfOneVectorGoTogether) {
  OnACard card(FakeDevice{});
  GpuProducts products;
  ASSERT_THAT(products.create(card.gpu.context()), IsOk());
  std::vector<std::vector<float>> y;
  std::vector<GpuProduct> group;
  for (const char* name : {"a", "b", "c"}) {
    const GPUTensorView* view = card.gpu.findTensor(name);
    y.emplace_back(view->shape[1], 7.0F);
    group.push_back({.w = view,
                     .rows = static_cast<uint32_t>(view->shape[1]),
                     .cols = kCols,
                     .y = y.back().data(),
                     .lasting = true});
  }
  const std::vector<float> x(kCols);
  const int before = card.vulkan.calls("vkQueueSubmit");
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(products.run(group, x.data()));
  EXPECT_EQ(card.vulkan.calls("vkQueueSubmit"), before + 3);
  ASSERT_THAT(card.vulkan.dispatches, SizeIs(9));
  EXPECT_NE(card.vulkan.dispatches[0].bindings[2].buffer,
            card.vulkan.dispatches[1].bindings[2].buffer);
  for (const std::vector<float>& values : y) EXPECT_EQ(values, std::vector<float>(values.size()));
  EXPECT_FALSE(products.run({}, x.data()));
  EXPECT_FALSE(products.run(std::vector<GpuProduct>(GpuProducts::kMost + 1, group[0]), x.data()));
}

// ---- the decoder's groups

class GpuGroup : public ::testing::Test {
 protected:
  uint32_t together(const std::vector<std::string>& names) {
    std::vector<const TensorView*> matrices;
    std::vector<float*> y;
    for (const std::string& name : names) {
      TensorView& view = views_.emplace_back();
      view.name = name;
      view.shape = {kCols, 9, 0, 0};
      matrices.push_back(&view);
      y.push_back(y_.emplace_back(9, 7.0F).data());
    }
    const std::vector<float> x(kCols);
    return qwen35gpu::gemvGroupAdapter(&card_.gemv, matrices.data(), y.data(), matrices.size(),
                                       x.data());
  }

  OnACard card_{FakeDevice{}};
  std::deque<TensorView> views_;
  std::deque<std::vector<float>> y_;
};

TEST_F(GpuGroup, IsOneSubmission) {
  const int before = card_.vulkan.calls("vkQueueSubmit");
  EXPECT_EQ(together({"a", "b", "c"}), 0b111U);
  EXPECT_EQ(card_.vulkan.calls("vkQueueSubmit"), before + 1);
  EXPECT_THAT(card_.vulkan.dispatches, SizeIs(3));
  EXPECT_EQ(card_.gemv.productCount(), 3U);
}

TEST_F(GpuGroup, LeavesOutWhatIsNotThere) {
  EXPECT_EQ(together({"a", "nothing", "c"}), 0b101U);
  EXPECT_EQ(y_[1], std::vector<float>(9, 7.0F));
  EXPECT_EQ(together({"nothing"}), 0U);
  EXPECT_EQ(together({}), 0U);
  EXPECT_EQ(card_.gemv.productCount(), 2U);
}

TEST_F(GpuGroup, FollowsThePlan) {
  stderrOf([&] { card_.gemv.setPlan(2, "cpu:all"); });
  EXPECT_EQ(together({"a", "b"}), 0U);
}

TEST_F(GpuGroup, ThatFailsIsDeclinedWhole) {
  card_.vulkan.fail("vkQueueSubmit", VK_ERROR_OUT_OF_HOST_MEMORY);
  EXPECT_EQ(together({"a", "b"}), 0U);
  for (const auto& y : y_) EXPECT_EQ(y, std::vector<float>(9, 7.0F));
  EXPECT_EQ(card_.gemv.productCount(), 0U);
  EXPECT_EQ(together({"a", "b"}), 0b11U);
}

TEST_F(GpuGroup, MoreThanFitTakesTheFirst) {
  EXPECT_EQ(together(std::vector<std::string>(GpuProducts::kMost + 2, "a")), 0xffU);
}

TEST_F(GpuGroup, NullIsDeclined) {
  EXPECT_EQ(qwen35gpu::gemvGroupAdapter(nullptr, nullptr, nullptr, 1, nullptr), 0U);
}

// ---- a device that is lost

TEST(GpuProducts, ALostDeviceIsReportedOnceAndAskedNoMore) {
  for (const char* function : {"vkQueueSubmit", "vkWaitForFences"}) {
    SCOPED_TRACE(function);
    OnACard card(cardWithASmallWindow());
    ASSERT_TRUE(card.product("a"));
    const size_t objects = card.vulkan.live();
    card.vulkan.fail(function, VK_ERROR_DEVICE_LOST);
    EXPECT_EQ(stderrOf([&] { EXPECT_FALSE(card.product("b")); }),
              "[qwen35-gpu] the device card with a small window is lost (" + std::string(function) +
                  " failed) - the CPU computes everything from now on\n");
    const size_t calls = card.vulkan.log().size();
    EXPECT_EQ(stderrOf([&] {
                for (int i = 0; i < 201; ++i) EXPECT_FALSE(card.product("a"));
              }),
              "");
    EXPECT_EQ(card.vulkan.log().size(), calls);
    EXPECT_LE(card.vulkan.live(), objects + 2);  // a larger y, and its set
    EXPECT_EQ(card.vulkan.live(VK_OBJECT_TYPE_COMMAND_BUFFER), 0U);
  }
}

TEST(GpuProducts, AnotherFailureIsNotTheEnd) {
  OnACard card(FakeDevice{});
  for (const char* function : {"vkBeginCommandBuffer", "vkEndCommandBuffer", "vkQueueSubmit",
                               "vkWaitForFences", "vkResetFences"}) {
    SCOPED_TRACE(function);
    card.vulkan.fail(function, VK_ERROR_OUT_OF_HOST_MEMORY);
    EXPECT_EQ(stderrOf([&] { EXPECT_FALSE(card.product("a")); }), "");
    EXPECT_TRUE(card.product("a"));
    EXPECT_LE(card.vulkan.live(VK_OBJECT_TYPE_COMMAND_BUFFER), 1U);
  }
}

TEST(GpuProducts, ALostDeviceTakesNoTransfers) {
  OnACard card(FakeDevice{});
  card.vulkan.fail("vkQueueSubmit", VK_ERROR_DEVICE_LOST);
  stderrOf([&] { EXPECT_FALSE(card.product("a")); });
  const size_t objects = card.vulkan.live();
  Bytes bytes(bytesOf(DType::Q4_K, 6));
  for (int i = 0; i < 10; ++i) {
    EXPECT_THAT(card.gpu.downloadTensor(*card.gpu.findTensor("a"), bytes.data()),
                IsFailure(StatusCode::IOError, "device lost"));
  }
  EXPECT_EQ(card.vulkan.live(), objects);
  card.gemv.destroy();
  ASSERT_THAT(card.gpu.init(0), IsOk());
  EXPECT_FALSE(card.gpu.context().lost());
}

// ---- other weights

TEST(GpuProducts, ASecondLoaderGetsKernelsOfItsOwn) {
  OnACard card(FakeDevice{});
  ASSERT_TRUE(card.product("a"));
  {
    GPUModelLoader other;
    ASSERT_THAT(other.init(0), IsOk());
    LoadedContainer loaded(smallMatrices().build());
    ASSERT_THAT(other.loadWeightsToGPU(loaded.loader), IsOk());
    ASSERT_TRUE(card.gemv.init(other));
    EXPECT_EQ(card.vulkan.live(VK_OBJECT_TYPE_PIPELINE), 3U);
    EXPECT_TRUE(card.product("a"));
    EXPECT_EQ(card.vulkan.dispatches.back().bindings[1].buffer, other.findTensor("a")->buffer);
    card.gemv.destroy();
  }
  ASSERT_TRUE(card.gemv.init(card.gpu));
  EXPECT_TRUE(card.product("a"));
}

TEST(GpuProducts, ASecondLoadIsSeen) {
  OnACard card(FakeDevice{});
  ASSERT_TRUE(card.product("a"));
  ContainerBuilder builder;
  builder.quantInfo();
  addMatrix(builder, "a", DType::Q4_K, 3);
  LoadedContainer loaded(builder.build());
  ASSERT_THAT(card.gpu.loadWeightsToGPU(loaded.loader), IsOk());
  EXPECT_TRUE(card.product("a"));
  EXPECT_EQ(card.vulkan.dispatches.back().bindings[1].buffer, card.gpu.findTensor("a")->buffer);
  EXPECT_FALSE(card.product("b"));
}

TEST(GpuProducts, ADeviceWithTooLittleSharedMemoryGetsNoPipeline) {
  FakeDevice device;
  device.limits.maxComputeSharedMemorySize = 16;
  FakeVulkan vulkan({device});
  GPUModelLoader gpu;
  ASSERT_THAT(gpu.init(0), IsOk());
  GpuGemv gemv;
  EXPECT_FALSE(gemv.init(gpu));
  EXPECT_THAT(gemv.problem(), ::testing::StartsWith("Q4_K products: shader needs "));
  EXPECT_EQ(vulkan.calls("vkCreateComputePipelines"), 0);
  EXPECT_FALSE(gemv.good());
}

}  // namespace
}  // namespace zemtest
