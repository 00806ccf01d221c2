// SPDX-License-Identifier: Apache-2.0
// Weights on the device that this machine has. The validation layer watches: see
// CMakeLists.txt.
#include "kiv/gpu_model_loader.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <limits>
#include <string>
#include <vector>

#include "support/loaded_container.h"
#include "support/needs_gpu.h"
#include "support/status_matchers.h"

namespace zemtest {

using namespace kiv;

namespace {

constexpr uint64_t kAutomatic = std::numeric_limits<uint64_t>::max();

class WeightsOnDevice : public ::testing::Test {
 protected:
  void SetUp() override {
    const Status status = gpu_.init(kAutomatic);
    if (!status.ok()) ZEM_SKIP_WITHOUT_GPU("no Vulkan device: " + status.message());
  }

  // Every resident tensor holds the container's bytes; returns how many there are.
  static size_t expectSameBytes(GPUModelLoader& gpu, const ZEMLoader& loader) {
    for (size_t i = 0; i < gpu.tensorCount(); ++i) {
      const GPUTensorView& view = gpu.tensorAt(i);
      SCOPED_TRACE(view.name);
      EXPECT_EQ(gpu.findTensor(view.name), &view);
      const TensorView* tensor = loader.findTensor(view.name);
      if (tensor == nullptr || tensor->size != view.size) {
        ADD_FAILURE() << "not the container's tensor";
        continue;
      }
      const auto* begin = static_cast<const uint8_t*>(tensor->data);
      Bytes bytes(view.size + 1);  // never none
      EXPECT_THAT(gpu.downloadTensor(view, bytes.data()), IsOk());
      EXPECT_TRUE(std::equal(begin, begin + view.size, bytes.begin()));
    }
    return gpu.tensorCount();
  }

  GPUModelLoader gpu_;
};

Bytes container(const std::vector<size_t>& sizes, uint32_t seed) {
  ContainerBuilder builder;
  for (const size_t size : sizes) {
    addBytes(builder, "t" + std::to_string(size), patternBytes(size, ++seed));
  }
  return builder.build();
}

TEST_F(WeightsOnDevice, AreTheContainersBytes) {
  LoadedContainer loaded(container({1, 3, 4, 255, 256, 257, (size_t{1} << 20) + 1}, 1));
  ASSERT_THAT(gpu_.loadWeightsToGPU(loaded.loader), IsOk());
  EXPECT_EQ(expectSameBytes(gpu_, loaded.loader), 7U);
  EXPECT_TRUE(gpu_.gpuInfo().valid);
  EXPECT_EQ(gpu_.gpuInfo().name, gpu_.context().info().deviceName);
  EXPECT_EQ(gpu_.vramUsed(), 1U + 3 + 4 + 255 + 256 + 257 + (1U << 20) + 1);
}

TEST_F(WeightsOnDevice, EmptyTensorAndEmptySelectionAreLoaded) {
  LoadedContainer loaded(container({0, 5}, 1));
  ASSERT_THAT(gpu_.loadWeightsToGPU(loaded.loader), IsOk());
  EXPECT_EQ(expectSameBytes(gpu_, loaded.loader), 2U);
  ASSERT_THAT(gpu_.loadWeightsToGPUFiltered(loaded.loader, [](const char*) { return false; }),
              IsOk());
  EXPECT_EQ(gpu_.tensorCount(), 0U);
  EXPECT_EQ(gpu_.findTensor("t5"), nullptr);
}

// In two pieces, the second of one byte; the device itself shows that it lies
// where the first ends.
TEST_F(WeightsOnDevice, TensorAboveTheStagingSizeArrivesWhole) {
  const size_t size = GPUModelLoader::kStagingBytes + 1;
  LoadedContainer loaded(container({size, 7}, 1));
  ASSERT_THAT(gpu_.loadWeightsToGPU(loaded.loader), IsOk());
  const GPUTensorView* whole = gpu_.findTensor("t" + std::to_string(size));
  ASSERT_NE(whole, nullptr);
  const auto* data = static_cast<const uint8_t*>(loaded.loader.findTensor(whole->name)->data);

  GPUTensorView part = *whole;
  part.size = GPUModelLoader::kStagingBytes;
  Bytes bytes(part.size);
  ASSERT_THAT(gpu_.downloadTensor(part, bytes.data()), IsOk());
  EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), data));
  part.offset += part.size;
  part.size = 1;
  uint8_t last = 0;
  ASSERT_THAT(gpu_.downloadTensor(part, &last), IsOk());
  EXPECT_EQ(last, data[size - 1]);
}

TEST_F(WeightsOnDevice, TwoLoadersSideBySide) {
  GPUModelLoader other;
  ASSERT_THAT(other.init(kAutomatic), IsOk());
  LoadedContainer first(container({100, 300}, 1));
  LoadedContainer second(container({100, 1000}, 7));
  ASSERT_THAT(gpu_.loadWeightsToGPU(first.loader), IsOk());
  ASSERT_THAT(other.loadWeightsToGPU(second.loader), IsOk());
  EXPECT_EQ(expectSameBytes(gpu_, first.loader), 2U);
  EXPECT_EQ(expectSameBytes(other, second.loader), 2U);
  gpu_.release();
  EXPECT_EQ(expectSameBytes(other, second.loader), 2U);
}

TEST_F(WeightsOnDevice, AreLoadedAgainAfterReleaseAndReplacedByASecondLoad) {
  LoadedContainer first(container({100, 300}, 1));
  LoadedContainer second(container({50}, 7));
  for (int i = 0; i < 2; ++i) {
    ASSERT_THAT(gpu_.loadWeightsToGPU(first.loader), IsOk());
    ASSERT_THAT(gpu_.loadWeightsToGPU(second.loader), IsOk());
    EXPECT_EQ(expectSameBytes(gpu_, second.loader), 1U);
    gpu_.release();
    ASSERT_THAT(gpu_.init(kAutomatic), IsOk());
  }
}

}  // namespace
}  // namespace zemtest
