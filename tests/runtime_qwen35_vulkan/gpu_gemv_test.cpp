// SPDX-License-Identifier: Apache-2.0
// Products through the GPU path on the machine's device: what it computes, what
// it declines, and every call of Vulkan failing once.
#include "qwen35_gpu_gemv.h"

#include <gtest/gtest.h>

#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "kiv/zem_loader.h"
#include "support/container_builder.h"
#include "support/failing_vulkan.h"
#include "support/k_matrix.h"
#include "support/needs_gpu.h"
#include "support/temp_file.h"

namespace zemtest {

using namespace qwen35gpu;

namespace {

using kiv::DType;

using kiv::vulkan::kAnyDevice;
constexpr float kUntouched = -777.0F;

zemtest::Bytes storedBytes(const KMatrix& m) {
  zemtest::Bytes bytes = m.bytes;
  bytes.resize(m.rows * m.rowBytes());
  return bytes;
}

// A container with one matrix of each K type, and tensors that no kernel takes.
struct TestMatrices {
  KMatrix q4 = makeKMatrix(DType::Q4_K, 9, 512, Weights::Encoded, 1);
  KMatrix q5 = makeKMatrix(DType::Q5_K, 5, 256, Weights::RandomBytes, 2);
  KMatrix q6 = makeKMatrix(DType::Q6_K, 1, 768, Weights::Encoded, 3);
  KMatrix layer = makeKMatrix(DType::Q4_K, 2, 256, Weights::Encoded, 4);
  KMatrix cube = makeKMatrix(DType::Q4_K, 6, 256, Weights::Encoded, 5);

  zemtest::ContainerBuilder builder() const {
    zemtest::ContainerBuilder b;
    b.quantInfo();
    add(b, "q4", q4);
    add(b, "q5", q5);
    add(b, "q6", q6);
    add(b, "blk.0.w", layer);
    add(b, "blk.1.w", layer);
    b.addTensor("flat", DType::Q4_K, {512}, zemtest::Bytes(288));
    b.addTensor("q8", DType::Q8_0, {256, 2}, zemtest::Bytes(544));
    b.addTensor("bf16", DType::BF16, {256, 2}, zemtest::Bytes(1024));
    b.addTensor("f32", DType::F32, {256, 2}, zemtest::Bytes(2048));
    b.addTensor("odd size", DType::Q4_K, {256, 2}, zemtest::Bytes(2 * 144 + 1));
    b.addTensor("too many rows", DType::Q4_K, {256, 2}, zemtest::Bytes(3 * 144));
    b.addTensor("too few rows", DType::Q4_K, {256, 2}, zemtest::Bytes(144));
    b.addTensor("no rows", DType::Q4_K, {256, 0}, zemtest::Bytes(144));
    b.addTensor("part of a block", DType::Q4_K, {255, 2}, zemtest::Bytes(288));
    b.addTensor("empty", DType::Q4_K, {256, 2}, {});
    b.addTensor("cube", cube.type, {cube.cols, 3, 2}, storedBytes(cube));
    return b;
  }
  static void add(zemtest::ContainerBuilder& b, const std::string& name, const KMatrix& m) {
    b.addTensor(name, m.type, {m.cols, m.rows}, storedBytes(m));
  }
};

class GpuGemvTest : public ::testing::Test {
 protected:
  void SetUp() override { open(matrices_.builder().build()); }

  void open(const zemtest::Bytes& container) {
    gemv_.destroy();
    file_ = std::make_unique<zemtest::TempFile>(container);
    ASSERT_TRUE(loader_.open(file_->path()).ok());
    const kiv::Status status = gpu_.init(kAnyDevice);
    if (!status.ok()) ZEM_SKIP_WITHOUT_GPU("no Vulkan device: " + status.message());
    ASSERT_TRUE(gpu_.loadWeightsToGPU(loader_).ok());
    ASSERT_TRUE(gemv_.init(gpu_));
  }

  // The product with a random x; empty when it was declined, which must leave
  // the output alone.
  std::vector<float> product(const std::string& name, size_t cols, size_t rows) {
    const std::vector<float> x = input(cols);
    std::vector<float> y(rows + 1, kUntouched);
    const uint64_t before = gemv_.productCount();
    const bool done = gemv_.gemvByName(name, x.data(), cols, y.data());
    EXPECT_EQ(gemv_.productCount(), before + (done ? 1 : 0));
    for (size_t i = done ? rows : 0; i < y.size(); ++i) EXPECT_EQ(y[i], kUntouched) << i;
    y.resize(done ? rows : 0);
    return y;
  }
  bool declines(const std::string& name, size_t cols, size_t rows) {
    return product(name, cols, rows).empty();
  }
  static std::vector<float> input(size_t cols) { return randomVector(cols, 11); }

  void expectRight(const std::string& name, const KMatrix& m) {
    const std::vector<float> y = product(name, m.cols, m.rows);
    ASSERT_EQ(y.size(), m.rows) << name;
    expectProduct(m, input(m.cols), y, allRows(m));
  }

  TestMatrices matrices_;
  std::unique_ptr<zemtest::TempFile> file_;
  kiv::ZEMLoader loader_;
  kiv::GPUModelLoader gpu_;
  GpuGemv gemv_;
};

TEST_F(GpuGemvTest, ComputesEveryKTypeInAnyOrder) {
  expectRight("q6", matrices_.q6);
  expectRight("q4", matrices_.q4);
  expectRight("q5", matrices_.q5);
  expectRight("q4", matrices_.q4);
}

TEST_F(GpuGemvTest, OverwritesWhatYHeld) {
  const std::vector<float> x = input(512);
  std::vector<float> y(9, 1e30F);
  ASSERT_TRUE(gemv_.gemvByName("q4", x.data(), 512, y.data()));
  expectProduct(matrices_.q4, x, y, allRows(matrices_.q4));
}

TEST_F(GpuGemvTest, ManyProductsInTurnNeedNoMoreSetsThanThePoolHas) {
  const std::vector<float> x = input(768);
  float y = 0;
  for (int i = 0; i < 5000; ++i) ASSERT_TRUE(gemv_.gemvByName("q6", x.data(), 768, &y)) << i;
  EXPECT_EQ(gemv_.productCount(), 5000U);
}

TEST_F(GpuGemvTest, DeclinesWhatIsNoKMatrix) {
  EXPECT_TRUE(declines("q8", 256, 2));
  EXPECT_TRUE(declines("bf16", 256, 2));
  EXPECT_TRUE(declines("f32", 256, 2));
  EXPECT_TRUE(declines("flat", 512, 1));
}

TEST_F(GpuGemvTest, DeclinesOtherNamesAndLengths) {
  EXPECT_TRUE(declines("q", 512, 9));
  EXPECT_TRUE(declines("q44", 512, 9));
  EXPECT_TRUE(declines("", 512, 9));
  EXPECT_TRUE(declines("q4", 256, 9));
  EXPECT_TRUE(declines("q4", 0, 9));
  const std::vector<float> x = input(512);
  float y = kUntouched;
  EXPECT_FALSE(gemv_.gemvByName("q4", x.data(), (uint64_t{1} << 32) + 512, &y));
}

// y has room for the rows of the shape, whatever the bytes would suffice for.
TEST_F(GpuGemvTest, DeclinesMatricesWhoseBytesAreNotTheirRows) {
  EXPECT_TRUE(declines("odd size", 256, 2));
  EXPECT_TRUE(declines("too many rows", 256, 2));
  EXPECT_TRUE(declines("too few rows", 256, 2));
  EXPECT_TRUE(declines("no rows", 256, 2));
  EXPECT_TRUE(declines("empty", 256, 2));
  EXPECT_TRUE(declines("part of a block", 255, 2));
}

TEST_F(GpuGemvTest, RowsOfFurtherExtentsAreMultiplied) { expectRight("cube", matrices_.cube); }

TEST_F(GpuGemvTest, AFalseBlockSizeInTheFileIsDeclined) {
  for (const uint32_t claimed : {1U, 72U, 143U, 145U, 288U, 0xffffffffU}) {
    zemtest::Bytes file = matrices_.builder().build();
    const size_t quant = zemtest::sectionOffset(file, kiv::zem2::SectionType::QuantInfo);
    const size_t entry = zemtest::tensorIndex(file, "q4");
    zemtest::setUint(file, quant + zemtest::kQuantBytes * entry + 4, 4, claimed);
    open(file);
    EXPECT_TRUE(declines("q4", 512, 9)) << claimed;
  }
}

// Nothing then tells rows apart: only a matrix of one row is what it seems.
TEST_F(GpuGemvTest, WithoutBlockDescriptionsOnlySingleRowsAreComputed) {
  open(matrices_.builder().quantInfo(false).build());
  EXPECT_TRUE(declines("q4", 512, 9));
  EXPECT_TRUE(declines("q5", 256, 5));
  expectRight("q6", matrices_.q6);
}

// run() is given the view itself, which may be any.
TEST_F(GpuGemvTest, ATensorWithRowsOfNoBytesIsDeclined) {
  kiv::GPUTensorView view = *gpu_.findTensor("q4");
  const std::vector<float> x = input(512);
  std::vector<float> y(9, kUntouched);
  ASSERT_TRUE(gemv_.run(view, 9, 512, x.data(), y.data()));
  y.assign(9, kUntouched);
  view.shape[0] = 0;
  ASSERT_EQ(view.rowBytes(), 0U);
  EXPECT_FALSE(gemv_.run(view, 9, 512, x.data(), y.data()));
  EXPECT_EQ(y, std::vector<float>(9, kUntouched));
}

TEST_F(GpuGemvTest, DeclinesEverythingBeforeInitAndAfterDestroy) {
  GpuGemv fresh;
  EXPECT_FALSE(fresh.good());
  float y = kUntouched;
  const std::vector<float> x = input(768);
  EXPECT_FALSE(fresh.gemvByName("q6", x.data(), 768, &y));
  EXPECT_FALSE(fresh.run(*gpu_.findTensor("q6"), 1, 768, x.data(), &y));
  fresh.destroy();

  EXPECT_TRUE(gemv_.good());
  gemv_.destroy();
  EXPECT_FALSE(gemv_.good());
  EXPECT_TRUE(declines("q6", 768, 1));
  gemv_.destroy();
  EXPECT_TRUE(gemv_.init(gpu_));
  expectRight("q6", matrices_.q6);
}

TEST_F(GpuGemvTest, AnEmptyLoaderIsRefused) {
  kiv::GPUModelLoader empty;
  GpuGemv gemv;
  EXPECT_FALSE(gemv.init(empty));
  EXPECT_FALSE(gemv.good());
}

TEST_F(GpuGemvTest, RunDeclinesTensorsThatAreNotResident) {
  const std::vector<float> x = input(768);
  float y = kUntouched;
  kiv::GPUTensorView view = *gpu_.findTensor("q6");
  view.buffer = VK_NULL_HANDLE;
  EXPECT_FALSE(gemv_.run(view, 1, 768, x.data(), &y));
  EXPECT_FALSE(gemv_.run(kiv::GPUTensorView{}, 1, 768, x.data(), &y));
  EXPECT_EQ(y, kUntouched);
}

TEST_F(GpuGemvTest, RunDeclinesMoreRowsThanTheTensorHolds) {
  const std::vector<float> x = input(768);
  float y[2] = {kUntouched, kUntouched};
  EXPECT_FALSE(gemv_.run(*gpu_.findTensor("q6"), 2, 768, x.data(), y));
  EXPECT_FALSE(gemv_.run(*gpu_.findTensor("q6"), 0, 768, x.data(), y));
  EXPECT_EQ(y[0], kUntouched);
}

// ---- the hook

TEST_F(GpuGemvTest, AdapterDeclinesNull) {
  const std::vector<float> x = input(256);
  float y[2] = {kUntouched, kUntouched};
  EXPECT_FALSE(gemvAdapter(nullptr, loader_.findTensor("blk.0.w"), x.data(), y));
  EXPECT_FALSE(gemvAdapter(&gemv_, nullptr, x.data(), y));
  EXPECT_EQ(y[0], kUntouched);
}

TEST_F(GpuGemvTest, AdapterFollowsThePlanAndTheNamesDoNot) {
  const std::vector<float> x = input(256);
  float y[2] = {};
  const auto offers = [&](const char* name) {
    return gemvAdapter(&gemv_, loader_.findTensor(name), x.data(), y);
  };
  EXPECT_TRUE(offers("blk.0.w"));
  EXPECT_TRUE(offers("blk.1.w"));
  EXPECT_TRUE(gemv_.setPlan(2, "cpu:1,gpu:1"));
  EXPECT_FALSE(offers("blk.0.w"));
  EXPECT_TRUE(offers("blk.1.w"));
  EXPECT_TRUE(gemv_.setPlan(2, "cpu:all"));
  EXPECT_FALSE(offers("blk.1.w"));
  EXPECT_FALSE(gemv_.planAllows("q5"));
  expectRight("blk.0.w", matrices_.layer);
  EXPECT_TRUE(gemv_.setPlan(2, ""));
  EXPECT_TRUE(offers("blk.0.w"));
  EXPECT_FALSE(gemv_.setPlan(0, "gpu:all"));
  EXPECT_TRUE(offers("blk.0.w"));
}

// ---- limits of the device

VkPhysicalDeviceLimits scriptedLimits;
PFN_vkGetPhysicalDeviceProperties realProperties;

VKAPI_ATTR void VKAPI_CALL propertiesWithScriptedLimits(VkPhysicalDevice device,
                                                        VkPhysicalDeviceProperties* out) {
  realProperties(device, out);
  out->limits.maxComputeWorkGroupCount[0] = scriptedLimits.maxComputeWorkGroupCount[0];
  out->limits.maxComputeWorkGroupCount[1] = scriptedLimits.maxComputeWorkGroupCount[1];
  out->limits.maxStorageBufferRange = scriptedLimits.maxStorageBufferRange;
}

class GpuGemvLimits : public GpuGemvTest {
 protected:
  // Sets the path up on a device that says it has these limits.
  void limit(uint32_t workgroups, uint32_t range, uint32_t workgroupsInY = 65535) {
    scriptedLimits.maxComputeWorkGroupCount[0] = workgroups;
    scriptedLimits.maxComputeWorkGroupCount[1] = workgroupsInY;
    scriptedLimits.maxStorageBufferRange = range;
    gemv_.destroy();
    realProperties = vkGetPhysicalDeviceProperties;
    vkGetPhysicalDeviceProperties = propertiesWithScriptedLimits;
    EXPECT_TRUE(gemv_.init(gpu_));
    vkGetPhysicalDeviceProperties = realProperties;
  }
};

constexpr uint32_t kPlenty = 1U << 20;

// Nine rows need five workgroups.
TEST_F(GpuGemvLimits, AProductOfTooManyWorkgroupsIsDeclined) {
  limit(5, kPlenty, 1);
  expectRight("q4", matrices_.q4);
  limit(4, kPlenty, 1);
  EXPECT_TRUE(declines("q4", 512, 9));
  expectRight("q5", matrices_.q5);
  limit(2, kPlenty, 2);
  EXPECT_TRUE(declines("q4", 512, 9));
}

TEST_F(GpuGemvLimits, WorkgroupsBeyondTheLimitInXGoOnInY) {
  for (const uint32_t most : {1U, 2U, 3U, 4U}) {
    limit(most, kPlenty);
    expectRight("q4", matrices_.q4);
    expectRight("q5", matrices_.q5);
    expectRight("q6", matrices_.q6);
  }
}

TEST_F(GpuGemvLimits, AMatrixBeyondTheRangeOfABindingIsDeclined) {
  limit(kPlenty, 9 * 2 * 144);
  expectRight("q4", matrices_.q4);
  limit(kPlenty, 9 * 2 * 144 - 1);
  EXPECT_TRUE(declines("q4", 512, 9));
  expectRight("blk.0.w", matrices_.layer);
}

TEST_F(GpuGemvLimits, AVectorBeyondTheRangeOfABindingIsDeclined) {
  limit(kPlenty, 768 * 4);
  expectRight("q6", matrices_.q6);
  limit(kPlenty, 768 * 4 - 1);
  EXPECT_TRUE(declines("q6", 768, 1));
}

// 65,537 workgroups, where a device may take no more than 65,535 in one dimension.
TEST_F(GpuGemvTest, MoreRowsThanAHundredThousandAreRight) {
  const KMatrix tall = makeKMatrix(DType::Q4_K, 131073, 256, Weights::RandomBytes);
  zemtest::ContainerBuilder builder;
  builder.quantInfo();
  TestMatrices::add(builder, "tall", tall);
  open(builder.build());
  const std::vector<float> y = product("tall", 256, tall.rows);
  ASSERT_EQ(y.size(), tall.rows);
  expectProduct(tall, input(256), y, {0, 1, 65535, 65536, 65537, 131070, 131071, 131072});
}

// ---- failures

template <auto& Function>
void initFails(kiv::GPUModelLoader& gpu) {
  for (int nth = 1; nth <= 3; ++nth) {
    GpuGemv gemv;
    {
      const FailingCall<Function> failure(nth);
      EXPECT_FALSE(gemv.init(gpu));
      EXPECT_TRUE(failure.happened());
    }
    EXPECT_FALSE(gemv.good());
    EXPECT_TRUE(gemv.init(gpu)) << "a second attempt";
  }
}

TEST_F(GpuGemvTest, EachCallThatMakesAKernelCanFail) {
  initFails<vkCreateDescriptorSetLayout>(gpu_);
  initFails<vkCreatePipelineLayout>(gpu_);
  initFails<vkCreateShaderModule>(gpu_);
  initFails<vkCreateComputePipelines>(gpu_);
  initFails<vkCreateDescriptorPool>(gpu_);
  initFails<vkAllocateDescriptorSets>(gpu_);
}

class GpuGemvFailures : public GpuGemvTest {
 protected:
  // Each of the first `calls` calls of a function during a first product fails
  // once; the product is declined, and the next one is right.
  template <auto& Function>
  void productFails(int calls) {
    for (int nth = 1; nth <= calls; ++nth) {
      gemv_.destroy();
      ASSERT_TRUE(gemv_.init(gpu_));
      {
        const FailingCall<Function> failure(nth);
        EXPECT_TRUE(declines("q4", 512, 9)) << nth;
        EXPECT_TRUE(failure.happened()) << nth;
      }
      expectRight("q4", matrices_.q4);
    }
  }
};

TEST_F(GpuGemvFailures, OfABufferDeclineTheProduct) {
  productFails<vkCreateBuffer>(2);
  productFails<vkAllocateMemory>(2);
  productFails<vkBindBufferMemory>(2);
  productFails<vkMapMemory>(2);
}

TEST_F(GpuGemvFailures, OfACommandDeclineTheProduct) {
  productFails<vkAllocateDescriptorSets>(1);
  productFails<vkAllocateCommandBuffers>(1);
  productFails<vkBeginCommandBuffer>(1);
  productFails<vkEndCommandBuffer>(1);
  productFails<vkQueueSubmit>(1);
}

TEST_F(GpuGemvFailures, OfTheWaitDeclineTheProduct) {
  productFails<vkWaitForFences>(1);
  productFails<vkResetFences>(1);
}

TEST_F(GpuGemvFailures, ThatLastDoNotUseUpTheSets) {
  for (int i = 0; i < 5000; ++i) {
    const FailingCall<vkQueueSubmit> failure;
    ASSERT_TRUE(declines("q6", 768, 1));
  }
  expectRight("q6", matrices_.q6);
}

}  // namespace
}  // namespace zemtest
