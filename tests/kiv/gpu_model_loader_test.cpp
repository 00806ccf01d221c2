// SPDX-License-Identifier: Apache-2.0
// Weights on the device of a scripted machine: what lies where, what is asked
// of Vulkan, and every call of a load failing once.
#include "kiv/gpu_model_loader.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <ostream>
#include <string>
#include <type_traits>
#include <vector>

#include "support/fake_vulkan.h"
#include "support/loaded_container.h"
#include "support/status_matchers.h"

namespace zemtest {

using namespace kiv;

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

static_assert(!std::is_copy_constructible_v<GPUModelLoader>);
static_assert(!std::is_copy_assignable_v<GPUModelLoader>);

constexpr uint64_t kChunk = 64 * kMiB;

Bytes threeTensors() {
  ContainerBuilder builder;
  addBytes(builder, "a", patternBytes(100, 1));
  addBytes(builder, "b", patternBytes(100, 2));
  addBytes(builder, "c", patternBytes(300, 3));
  return builder.build();
}

std::vector<std::string> namesOf(const GPUModelLoader& gpu) {
  std::vector<std::string> names;
  for (size_t i = 0; i < gpu.tensorCount(); ++i) names.push_back(gpu.tensorAt(i).name);
  return names;
}

class GPUModelLoaderTest : public ::testing::Test {
 protected:
  // Loads a container of these bytes.
  Status load(const Bytes& container, GPUModelLoader::TensorFilter filter = nullptr) {
    LoadedContainer loaded(container);
    EXPECT_THAT(loaded.status, IsOk());
    return gpu_.loadWeightsToGPUFiltered(loaded.loader, filter);
  }
  Bytes download(const GPUTensorView& view) {
    Bytes bytes(view.size);
    EXPECT_THAT(gpu_.downloadTensor(view, bytes.data()), IsOk());
    return bytes;
  }
  void expectNoTensors() {
    EXPECT_EQ(gpu_.tensorCount(), 0U);
    EXPECT_EQ(gpu_.findTensor("a"), nullptr);
    EXPECT_EQ(gpu_.findTensor(""), nullptr);
  }

  FakeVulkan vulkan_{{FakeDevice{}}};
  GPUModelLoader gpu_;
};

// A loader that is ready for weights.
class ReadyLoader : public GPUModelLoaderTest {
 protected:
  void SetUp() override { ASSERT_THAT(gpu_.init(0), IsOk()); }
};

// ---- before and after

TEST_F(GPUModelLoaderTest, BeforeInitNothingIsThere) {
  EXPECT_FALSE(gpu_.valid());
  EXPECT_THAT(load(threeTensors()), IsInvalidFormat("GPUModelLoader: not initialized"));
  expectNoTensors();
  uint8_t byte = 0;
  EXPECT_THAT(gpu_.downloadTensor({}, &byte), IsInvalidFormat("GPUModelLoader: not initialized"));
  EXPECT_EQ(gpu_.vramUsed(), 0U);
  EXPECT_FALSE(gpu_.gpuInfo().valid);
  gpu_.release();
  EXPECT_THAT(vulkan_.log(), IsEmpty());
}

TEST_F(GPUModelLoaderTest, InitSetsUpTheDeviceOfThatIndex) {
  FakeDevice larger;
  larger.name = "larger";
  larger.heaps[0].size = 4 * kGiB;
  vulkan_.devices.push_back(larger);
  EXPECT_THAT(gpu_.init(0), IsOk());
  EXPECT_TRUE(gpu_.valid());
  EXPECT_EQ(gpu_.context().info().deviceName, "larger");
  EXPECT_THAT(gpu_.init(1), IsOk());
  EXPECT_EQ(gpu_.context().info().deviceName, "fake device");
  EXPECT_EQ(vulkan_.live(VK_OBJECT_TYPE_DEVICE), 1U);
}

TEST_F(GPUModelLoaderTest, InitPassesTheContextsFailureOn) {
  vulkan_.fail("vkCreateDevice", VK_ERROR_INITIALIZATION_FAILED);
  EXPECT_THAT(gpu_.init(0), IsFailure(StatusCode::IOError, "vkCreateDevice failed"));
  EXPECT_FALSE(gpu_.valid());
  EXPECT_EQ(vulkan_.live(), 0U);
  EXPECT_THAT(load(threeTensors()), IsInvalidFormat("GPUModelLoader: not initialized"));
  EXPECT_THAT(gpu_.init(0), IsOk());
}

TEST_F(ReadyLoader, InitReleasesWhatWasLoaded) {
  ASSERT_THAT(load(threeTensors()), IsOk());
  ASSERT_THAT(gpu_.init(0), IsOk());
  expectNoTensors();
  EXPECT_EQ(gpu_.buffer(), VK_NULL_HANDLE);
  EXPECT_EQ(vulkan_.live(VK_OBJECT_TYPE_BUFFER), 0U);
  EXPECT_EQ(vulkan_.live(VK_OBJECT_TYPE_DEVICE_MEMORY), 0U);
}

TEST_F(ReadyLoader, ReleaseLeavesNothingAndMayBeRepeated) {
  ASSERT_THAT(load(threeTensors()), IsOk());
  const GPUTensorView view = gpu_.tensorAt(0);
  gpu_.release();
  EXPECT_EQ(vulkan_.live(), 0U);
  EXPECT_FALSE(gpu_.valid());
  expectNoTensors();
  EXPECT_EQ(gpu_.buffer(), VK_NULL_HANDLE);
  EXPECT_EQ(gpu_.vramUsed(), 0U);
  uint8_t bytes[100];
  EXPECT_THAT(gpu_.downloadTensor(view, bytes), IsInvalidFormat("GPUModelLoader: not initialized"));
  gpu_.release();
  EXPECT_THAT(load(threeTensors()), IsInvalidFormat("GPUModelLoader: not initialized"));
  EXPECT_THAT(gpu_.init(0), IsOk());
  EXPECT_THAT(load(threeTensors()), IsOk());
}

TEST_F(GPUModelLoaderTest, DestructorReleasesEverything) {
  {
    LoadedContainer loaded(threeTensors());
    GPUModelLoader gpu;
    ASSERT_THAT(gpu.init(0), IsOk());
    ASSERT_THAT(gpu.loadWeightsToGPU(loaded.loader), IsOk());
  }
  EXPECT_EQ(vulkan_.live(), 0U);
}

TEST_F(ReadyLoader, ResidencyByLayerIsNotOffered) {
  LoadedContainer loaded(threeTensors());
  EXPECT_THAT(gpu_.reserveLayer(loaded.loader, 0),
              IsFailure(StatusCode::Unsupported, "GPUModelLoader: partial mode not enabled"));
  gpu_.releaseLayer(0);
  gpu_.releaseLayer(UINT64_MAX);
}

// ---- a load

TEST_F(ReadyLoader, TensorsLieAtMultiplesOf256InTheContainersOrder) {
  ASSERT_THAT(load(threeTensors()), IsOk());
  ASSERT_THAT(namesOf(gpu_), ElementsAre("a", "b", "c"));
  EXPECT_EQ(gpu_.tensorAt(0).offset, 0U);
  EXPECT_EQ(gpu_.tensorAt(1).offset, 256U);
  EXPECT_EQ(gpu_.tensorAt(2).offset, 512U);
  EXPECT_EQ(gpu_.tensorAt(0).size, 100U);
  EXPECT_EQ(gpu_.tensorAt(2).size, 300U);
  EXPECT_EQ(gpu_.vramUsed(), 500U);
  EXPECT_EQ(gpu_.vramStats().usedVRAM, 500U);
  EXPECT_EQ(gpu_.vramStats().totalVRAM, kGiB);
  EXPECT_EQ(gpu_.gpuInfo().name, "fake device");
  EXPECT_TRUE(gpu_.gpuInfo().valid);
}

TEST_F(ReadyLoader, ViewsDescribeTheTensorsOfTheContainer) {
  const uint64_t bytes = uint64_t{144} * 2 * 6;
  LoadedContainer loaded(ContainerBuilder()
                             .addTensor("w", DType::Q4_K, {512, 3, 2}, patternBytes(bytes, 1))
                             .quantInfo()
                             .build());
  ASSERT_THAT(gpu_.loadWeightsToGPU(loaded.loader), IsOk());
  const GPUTensorView* view = gpu_.findTensor("w");
  const TensorView* tensor = loaded.loader.findTensor("w");
  ASSERT_NE(view, nullptr);
  EXPECT_EQ(view, &gpu_.tensorAt(0));
  EXPECT_NE(view->buffer, VK_NULL_HANDLE);
  EXPECT_EQ(view->dtype, DType::Q4_K);
  EXPECT_EQ(view->ndim, 3);
  EXPECT_EQ(view->shape, tensor->shape);
  EXPECT_EQ(view->size, bytes);
  EXPECT_EQ(view->quant.quantType, tensor->quant.quantType);
  EXPECT_EQ(view->quant.blockSize, 256);
  EXPECT_EQ(view->quant.bytesPerBlock, 144U);
  EXPECT_EQ(view->quant.scaleBytes, tensor->quant.scaleBytes);
  EXPECT_EQ(view->quant.scaleOffset, tensor->quant.scaleOffset);
  EXPECT_EQ(view->quant.zeroOffset, tensor->quant.zeroOffset);
  EXPECT_EQ(view->rowBytes(), 288U);
}

TEST_F(ReadyLoader, PoolIsTheTensorsAnd64MiB) {
  ASSERT_THAT(load(threeTensors()), IsOk());
  const auto& buffers = vulkan_.requests.buffers;
  ASSERT_THAT(buffers, SizeIs(5));  // pool, staging, one a tensor
  EXPECT_EQ(buffers[0].size, kChunk + 500);
  EXPECT_NE(buffers[0].usage & VK_BUFFER_USAGE_STORAGE_BUFFER_BIT, 0U);
  EXPECT_NE(buffers[0].usage & VK_BUFFER_USAGE_TRANSFER_DST_BIT, 0U);
  EXPECT_EQ(buffers[1].size, kChunk);
  EXPECT_NE(buffers[1].usage & VK_BUFFER_USAGE_TRANSFER_SRC_BIT, 0U);
  for (size_t i = 2; i < 5; ++i) {
    EXPECT_EQ(buffers[i].usage, static_cast<VkBufferUsageFlags>(VK_BUFFER_USAGE_STORAGE_BUFFER_BIT |
                                                                VK_BUFFER_USAGE_TRANSFER_DST_BIT));
  }
  EXPECT_EQ(buffers[4].size, 300U);
  EXPECT_NE(gpu_.buffer(), VK_NULL_HANDLE);

  const auto& allocations = vulkan_.requests.allocations;
  ASSERT_THAT(allocations, SizeIs(2));
  EXPECT_GE(allocations[0].allocationSize, kChunk + 500);
  EXPECT_LT(allocations[0].allocationSize, kChunk + kMiB);
  EXPECT_EQ(allocations[1].allocationSize, kChunk);
  EXPECT_EQ(allocations[1].memoryTypeIndex, 1U);
}

TEST_F(ReadyLoader, EachTensorIsOneCopyFromTheBeginningOfTheStagingBuffer) {
  ASSERT_THAT(load(threeTensors()), IsOk());
  const std::vector<FakeCopy>& copies = vulkan_.copies;
  ASSERT_THAT(copies, SizeIs(3));
  EXPECT_EQ(vulkan_.calls("vkQueueSubmit"), 3);
  const uint64_t offsets[] = {0, 256, 512};
  const uint64_t sizes[] = {100, 100, 300};
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(copies[i].destination, gpu_.buffer());
    EXPECT_EQ(copies[i].region.srcOffset, 0U);
    EXPECT_EQ(copies[i].region.dstOffset, offsets[i]);
    EXPECT_EQ(copies[i].region.size, sizes[i]);
  }
  EXPECT_EQ(vulkan_.calls("vkMapMemory"), 1);
  EXPECT_EQ(vulkan_.calls("vkUnmapMemory"), 1);
}

TEST_F(ReadyLoader, TensorsComeBackAsTheyStandInTheFile) {
  ContainerBuilder builder;
  std::map<std::string, Bytes> tensors;
  for (const size_t size : {1U, 3U, 4U, 255U, 256U, 257U, 1048577U}) {
    const std::string name = "t" + std::to_string(size);
    tensors[name] = patternBytes(size, static_cast<uint32_t>(size));
    addBytes(builder, name, tensors[name]);
  }
  ASSERT_THAT(load(builder.build()), IsOk());  // the file is gone by now
  ASSERT_EQ(gpu_.tensorCount(), tensors.size());
  for (const auto& [name, bytes] : tensors) {
    SCOPED_TRACE(name);
    const GPUTensorView* view = gpu_.findTensor(name);
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(download(*view), bytes);
    Bytes ownBuffer = vulkan_.bytes(view->buffer);
    ASSERT_GE(ownBuffer.size(), bytes.size());
    ownBuffer.resize(bytes.size());
    EXPECT_EQ(ownBuffer, bytes);
  }
}

TEST_F(ReadyLoader, TwoNamesForTheSameBytesAreTwoTensors) {
  ContainerBuilder builder;
  addBytes(builder, "a", patternBytes(100, 1)).addTensorAlias("b", DType::F32, {25}, "a");
  ASSERT_THAT(load(builder.build()), IsOk());
  EXPECT_EQ(gpu_.tensorAt(1).offset, 256U);
  EXPECT_EQ(download(gpu_.tensorAt(0)), download(gpu_.tensorAt(1)));
}

TEST_F(ReadyLoader, ContainerWithoutTensorsLoadsNothing) {
  EXPECT_THAT(load(ContainerBuilder().build()), IsOk());
  expectNoTensors();
  EXPECT_EQ(vulkan_.requests.buffers[0].size, kChunk);
  ZEMLoader closed;
  EXPECT_THAT(gpu_.loadWeightsToGPU(closed), IsOk());
  expectNoTensors();
}

TEST_F(ReadyLoader, TensorOfNoBytesHasABufferAndNoCopy) {
  ContainerBuilder builder;
  addBytes(builder, "a", patternBytes(100, 1));
  addBytes(builder, "b", {});
  ASSERT_THAT(load(builder.build()), IsOk());
  EXPECT_THAT(vulkan_.copies, SizeIs(1));
  const GPUTensorView* view = gpu_.findTensor("b");
  ASSERT_NE(view, nullptr);
  EXPECT_NE(view->buffer, VK_NULL_HANDLE);
  EXPECT_EQ(view->size, 0U);
  EXPECT_EQ(gpu_.vramUsed(), 101U);
  uint8_t untouched = 7;
  EXPECT_THAT(gpu_.downloadTensor(*view, &untouched), IsOk());
  EXPECT_EQ(untouched, 7);
}

// Pieces of 64 MiB, each a submission of its own.
TEST_F(ReadyLoader, TensorAboveTheStagingSizeGoesInPieces) {
  ContainerBuilder builder;
  const Bytes large = patternBytes(kChunk + 1, 1);
  addBytes(builder, "exact", patternBytes(kChunk, 2));
  addBytes(builder, "large", large);
  ASSERT_THAT(load(builder.build()), IsOk());
  const std::vector<FakeCopy>& copies = vulkan_.copies;
  ASSERT_THAT(copies, SizeIs(3));
  EXPECT_EQ(vulkan_.calls("vkQueueSubmit"), 3);
  EXPECT_EQ(copies[0].region.size, kChunk);
  EXPECT_EQ(copies[1].region.size, kChunk);
  EXPECT_EQ(copies[1].region.dstOffset, kChunk);
  EXPECT_EQ(copies[2].region.size, 1U);
  EXPECT_EQ(copies[2].region.srcOffset, 0U);
  EXPECT_EQ(copies[2].region.dstOffset, 2 * kChunk);

  const GPUTensorView* view = gpu_.findTensor("large");
  ASSERT_NE(view, nullptr);
  Bytes ownBuffer = vulkan_.bytes(view->buffer);
  ownBuffer.resize(large.size());
  EXPECT_TRUE(ownBuffer == large);
  EXPECT_THAT(gpu_.downloadTensor(*view, ownBuffer.data()),
              IsFailure(StatusCode::Unsupported, "GPUModelLoader: tensor too large to verify"));
  const GPUTensorView* exact = gpu_.findTensor("exact");
  ASSERT_NE(exact, nullptr);
  EXPECT_TRUE(download(*exact) == patternBytes(kChunk, 2));
}

// ---- filters

TEST_F(ReadyLoader, FilterThatRejectsAllLeavesAnEmptyPoolOf64MiB) {
  EXPECT_THAT(load(threeTensors(), [](const char*) { return false; }), IsOk());
  expectNoTensors();
  for (const char* name : {"a", "b", "c"}) EXPECT_EQ(gpu_.findTensor(name), nullptr);
  EXPECT_EQ(vulkan_.requests.buffers[0].size, kChunk);
  EXPECT_EQ(vulkan_.calls("vkQueueSubmit"), 0);
  EXPECT_EQ(gpu_.vramUsed(), 0U);
}

TEST_F(ReadyLoader, FilterSelectsByName) {
  EXPECT_THAT(load(threeTensors(), [](const char* name) { return std::strcmp(name, "b") != 0; }),
              IsOk());
  EXPECT_THAT(namesOf(gpu_), ElementsAre("a", "c"));
  EXPECT_EQ(gpu_.findTensor("b"), nullptr);
  EXPECT_EQ(gpu_.tensorAt(1).offset, 256U);
  EXPECT_EQ(vulkan_.requests.buffers[0].size, kChunk + 400);
}

TEST_F(ReadyLoader, TensorWithoutANameIsNotAskedAbout) {
  ContainerBuilder builder;
  addBytes(builder, "", patternBytes(10, 1));
  addBytes(builder, "a", patternBytes(10, 2));
  EXPECT_THAT(load(builder.build(), [](const char*) { return false; }), IsOk());
  EXPECT_THAT(namesOf(gpu_), ElementsAre(""));
  EXPECT_NE(gpu_.findTensor(""), nullptr);
}

// ---- lookups

TEST_F(ReadyLoader, NamesAreFoundExactly) {
  ContainerBuilder builder;
  const std::vector<std::string> names = {"blk.1.ffn", "blk.1.ffn.weight", "blk.10.ffn",
                                          "blk.2.ffn", "output",           "\xc3\xa9"};
  uint32_t seed = 0;
  for (const std::string& name : names) addBytes(builder, name, patternBytes(8, ++seed));
  ASSERT_THAT(load(builder.build()), IsOk());
  for (const std::string& name : names) {
    const GPUTensorView* view = gpu_.findTensor(name);
    ASSERT_NE(view, nullptr) << name;
    EXPECT_EQ(view->name, name);
  }
  for (const char* name : {"", "blk", "blk.1.ff", "blk.1.ffn.", "blk.1.ffn.weight2", "blk.3", "zz",
                           "\xc3", "\xff", "a"}) {
    EXPECT_EQ(gpu_.findTensor(name), nullptr) << name;
  }
  EXPECT_EQ(gpu_.findTensor(std::string("output\0", 7)), nullptr);
}

// A file whose index is in no order is as good as any here.
TEST_F(ReadyLoader, ViewsAreSortedWhateverTheOrderOfTheFile) {
  Bytes container = threeTensors();
  std::swap_ranges(container.begin() + static_cast<ptrdiff_t>(zemtest::tensorOffset(container, 0)),
                   container.begin() + static_cast<ptrdiff_t>(zemtest::tensorOffset(container, 1)),
                   container.begin() + static_cast<ptrdiff_t>(zemtest::tensorOffset(container, 2)));
  ASSERT_THAT(load(container), IsOk());
  EXPECT_THAT(namesOf(gpu_), ElementsAre("a", "b", "c"));
  EXPECT_EQ(gpu_.tensorAt(0).offset, 768U);
  EXPECT_EQ(gpu_.tensorAt(1).offset, 512U);
  EXPECT_EQ(gpu_.tensorAt(2).offset, 0U);
  for (const char* name : {"a", "b", "c"}) ASSERT_NE(gpu_.findTensor(name), nullptr) << name;
  EXPECT_EQ(download(*gpu_.findTensor("a")), patternBytes(100, 1));
  EXPECT_EQ(download(*gpu_.findTensor("c")), patternBytes(300, 3));
}

// ---- downloads

TEST_F(ReadyLoader, DownloadNeedsAPlaceAndWeights) {
  uint8_t bytes[300];
  EXPECT_THAT(gpu_.downloadTensor({}, bytes), IsInvalidFormat("GPUModelLoader: not initialized"));
  ASSERT_THAT(load(threeTensors()), IsOk());
  EXPECT_THAT(gpu_.downloadTensor(gpu_.tensorAt(0), nullptr),
              IsInvalidFormat("GPUModelLoader: not initialized"));
}

TEST_F(ReadyLoader, DownloadReportsTheFailingStepAndCanBeRepeated) {
  ASSERT_THAT(load(threeTensors()), IsOk());
  const std::map<std::string, std::string> steps = {
      {"vkAllocateCommandBuffers", "vkAllocateCommandBuffers failed"},
      {"vkBeginCommandBuffer", "vkBeginCommandBuffer failed"},
      {"vkEndCommandBuffer", "vkEndCommandBuffer failed"},
      {"vkQueueSubmit", "vkQueueSubmit failed"},
      {"vkWaitForFences", "vkWaitForFences failed"},
      {"vkResetFences", "vkResetFences failed"},
      {"vkMapMemory", "GPUModelLoader: staging map failed"}};
  for (const auto& [function, message] : steps) {
    vulkan_.fail(function, VK_ERROR_OUT_OF_HOST_MEMORY);
    Bytes bytes(100, 7);
    EXPECT_THAT(gpu_.downloadTensor(gpu_.tensorAt(0), bytes.data()),
                IsFailure(StatusCode::IOError, message));
    EXPECT_EQ(bytes, Bytes(100, 7));
    EXPECT_EQ(download(gpu_.tensorAt(0)), patternBytes(100, 1));
  }
}

// ---- a second load

TEST_F(ReadyLoader, SecondLoadReplacesTheFirst) {
  ASSERT_THAT(load(threeTensors()), IsOk());
  ContainerBuilder other;
  addBytes(other, "z", patternBytes(50, 9));
  ASSERT_THAT(load(other.build()), IsOk());
  EXPECT_THAT(namesOf(gpu_), ElementsAre("z"));
  EXPECT_EQ(download(gpu_.tensorAt(0)), patternBytes(50, 9));
  EXPECT_EQ(gpu_.vramUsed(), 50U);
  EXPECT_EQ(vulkan_.live(VK_OBJECT_TYPE_BUFFER), 3U);
  EXPECT_EQ(vulkan_.live(VK_OBJECT_TYPE_DEVICE_MEMORY), 2U);
}

TEST_F(ReadyLoader, SecondPoolIsAtMostNineTenthsOfTheDevice) {
  vulkan_.devices[0].heaps[0].size = 70 * kMiB;
  ContainerBuilder builder;
  addBytes(builder, "a", patternBytes(4 * kMiB, 1));
  addBytes(builder, "small", patternBytes(10, 2));
  for (const char* name :
       {"b", "c", "d", "e", "f", "g", "h", "i", "j", "k", "l", "m", "n", "o", "p"}) {
    builder.addTensorAlias(name, DType::F32, {kMiB}, "a");
  }
  const Bytes container = builder.build();
  const auto onlySmall = [](const char* name) { return std::strcmp(name, "small") == 0; };
  ASSERT_THAT(load(container, onlySmall), IsOk());
  EXPECT_EQ(vulkan_.requests.buffers.back().size, 12U);
  EXPECT_EQ(vulkan_.requests.buffers[0].size, kChunk + 10);

  vulkan_.requests.buffers.clear();
  ASSERT_THAT(load(container, onlySmall), IsOk());
  EXPECT_EQ(vulkan_.requests.buffers[0].size, 63 * kMiB);

  EXPECT_THAT(load(container), IsInvalidFormat("VRAMAllocator: pool exhausted"));
  expectNoTensors();
  EXPECT_EQ(vulkan_.calls("vkMapMemory"), 2);  // the loads that came so far
  ASSERT_THAT(load(container, onlySmall), IsOk());
  EXPECT_EQ(download(gpu_.tensorAt(0)), patternBytes(10, 2));
}

// ---- failures of a load

TEST_F(ReadyLoader, ModelLargerThanTheDeviceIsAnAllocationFailure) {
  vulkan_.devices[0].heaps[0].size = kChunk;
  EXPECT_THAT(load(threeTensors()),
              IsFailure(StatusCode::IOError, "VRAMAllocator: vkAllocateMemory failed"));
  expectNoTensors();
  EXPECT_THAT(load(ContainerBuilder().build()), IsOk());
}

TEST_F(ReadyLoader, TensorThatIsNotInTheFileIsRefused) {
  for (const uint64_t size : {uint64_t{1} << 20, uint64_t{1} << 62, UINT64_MAX}) {
    Bytes container = threeTensors();
    zemtest::set(container, 2, zemtest::tensor::size, size);
    EXPECT_THAT(load(container), IsInvalidFormat("GPUModelLoader: tensor outside the file"));
  }
  for (const uint64_t offset : {uint64_t{1} << 20, UINT64_MAX, UINT64_MAX - 64}) {
    Bytes container = threeTensors();
    zemtest::set(container, 0, zemtest::tensor::offset, offset);
    EXPECT_THAT(load(container), IsInvalidFormat("GPUModelLoader: tensor outside the file"));
  }
  expectNoTensors();
  EXPECT_THAT(vulkan_.requests.buffers, IsEmpty());
  Bytes container = threeTensors();
  zemtest::set(container, 1, zemtest::tensor::size, UINT64_MAX);
  EXPECT_THAT(load(container, [](const char* name) { return *name != 'b'; }), IsOk());
}

TEST_F(ReadyLoader, DeviceWithoutDeviceLocalMemoryIsUnsupported) {
  vulkan_.devices[0].memoryTypes = {{kHostVisible | kHostCoherent, 1}};
  EXPECT_THAT(load(threeTensors()),
              IsFailure(StatusCode::Unsupported, "VRAMAllocator: no device-local memory"));
  expectNoTensors();
}

TEST_F(ReadyLoader, StagingNeedsHostVisibleCoherentMemory) {
  vulkan_.devices[0].memoryTypes = {{kDeviceLocal, 0}, {kHostVisible, 1}, {kHostCoherent, 1}};
  EXPECT_THAT(load(threeTensors()),
              IsFailure(StatusCode::Unsupported, "GPUModelLoader: no host-visible memory"));
  expectNoTensors();
  vulkan_.devices[0].memoryTypes.push_back({kHostVisible | kHostCoherent, 1});
  vulkan_.devices[0].memoryTypes.push_back({kHostVisible | kHostCoherent, 1});
  EXPECT_THAT(load(threeTensors()), IsOk());
  EXPECT_EQ(vulkan_.requests.allocations.back().memoryTypeIndex, 3U);
}

TEST_F(ReadyLoader, PoolMemoryThatBuffersMayNotHaveIsABindFailure) {
  vulkan_.devices[0].bufferMemoryTypes = 0b10;
  EXPECT_THAT(load(threeTensors()),
              IsFailure(StatusCode::IOError, "GPUModelLoader: buffer bind failed"));
  expectNoTensors();
}

TEST_F(ReadyLoader, DeviceThatWantsBuffersFurtherApartIsABindFailure) {
  vulkan_.devices[0].bufferAlignment = 512;
  EXPECT_THAT(load(threeTensors()),
              IsFailure(StatusCode::IOError, "GPUModelLoader: tensor buffer bind failed"));
  expectNoTensors();
}

struct LoadFailure {
  const char* name;
  const char* function;
  int call;
  const char* message;
};

void PrintTo(const LoadFailure& failure, std::ostream* out) {
  *out << failure.function << " call " << failure.call;
}

class LoadFails : public ReadyLoader, public ::testing::WithParamInterface<LoadFailure> {};

TEST_P(LoadFails, AndNoTensorIsResident) {
  vulkan_.fail(GetParam().function, VK_ERROR_OUT_OF_DEVICE_MEMORY, GetParam().call);
  EXPECT_THAT(load(threeTensors()), IsFailure(StatusCode::IOError, GetParam().message));
  expectNoTensors();
  Bytes bytes(100);
  GPUTensorView stale;
  stale.size = 100;
  EXPECT_THAT(gpu_.downloadTensor(stale, bytes.data()),
              IsInvalidFormat("GPUModelLoader: not initialized"));

  ASSERT_THAT(load(threeTensors()), IsOk());
  EXPECT_EQ(download(gpu_.tensorAt(2)), patternBytes(300, 3));
}

INSTANTIATE_TEST_SUITE_P(
    EachCall, LoadFails,
    ::testing::Values(
        LoadFailure{"PoolMemory", "vkAllocateMemory", 1, "VRAMAllocator: vkAllocateMemory failed"},
        LoadFailure{"PoolBuffer", "vkCreateBuffer", 1, "GPUModelLoader: buffer create failed"},
        LoadFailure{"StagingBuffer", "vkCreateBuffer", 2, "GPUModelLoader: staging create failed"},
        LoadFailure{"StagingMemory", "vkAllocateMemory", 2, "GPUModelLoader: staging alloc failed"},
        LoadFailure{"StagingBinding", "vkBindBufferMemory", 1,
                    "GPUModelLoader: staging bind failed"},
        LoadFailure{"PoolBinding", "vkBindBufferMemory", 2, "GPUModelLoader: buffer bind failed"},
        LoadFailure{"StagingMap", "vkMapMemory", 1, "GPUModelLoader: staging map failed"},
        LoadFailure{"FirstCommand", "vkAllocateCommandBuffers", 1,
                    "vkAllocateCommandBuffers failed"},
        LoadFailure{"FirstBegin", "vkBeginCommandBuffer", 1, "vkBeginCommandBuffer failed"},
        LoadFailure{"SecondEnd", "vkEndCommandBuffer", 2, "vkEndCommandBuffer failed"},
        LoadFailure{"LastSubmission", "vkQueueSubmit", 3, "vkQueueSubmit failed"},
        LoadFailure{"FirstWait", "vkWaitForFences", 1, "vkWaitForFences failed"},
        LoadFailure{"SecondReset", "vkResetFences", 2, "vkResetFences failed"},
        LoadFailure{"FirstTensorBuffer", "vkCreateBuffer", 3,
                    "GPUModelLoader: tensor buffer create failed"},
        LoadFailure{"LastTensorBuffer", "vkCreateBuffer", 5,
                    "GPUModelLoader: tensor buffer create failed"},
        LoadFailure{"FirstTensorBinding", "vkBindBufferMemory", 3,
                    "GPUModelLoader: tensor buffer bind failed"},
        LoadFailure{"LastTensorBinding", "vkBindBufferMemory", 5,
                    "GPUModelLoader: tensor buffer bind failed"}),
    [](const auto& param) { return std::string(param.param.name); });

// Whichever call fails, in init or in the load: the caller hears of it, no tensor
// is there, and nothing is left behind.
TEST_F(GPUModelLoaderTest, EveryCallMayFailOnce) {
  LoadedContainer loaded(threeTensors());
  std::vector<std::string> calls;
  {
    GPUModelLoader gpu;
    ASSERT_THAT(gpu.init(0), IsOk());
    ASSERT_THAT(gpu.loadWeightsToGPU(loaded.loader), IsOk());
    calls = vulkan_.log();
  }
  std::map<std::string, int> seen;
  int failures = 0;
  for (const std::string& function : calls) {
    const int nth = ++seen[function];
    if (!FakeVulkan::canFail(function)) continue;
    SCOPED_TRACE(function + " call " + std::to_string(nth));
    GPUModelLoader gpu;
    vulkan_.fail(function, VK_ERROR_DEVICE_LOST, nth);
    Status status = gpu.init(0);
    if (status.ok()) status = gpu.loadWeightsToGPU(loaded.loader);
    EXPECT_EQ(status.code(), StatusCode::IOError);
    EXPECT_THAT(status.message(), Not(IsEmpty()));
    EXPECT_EQ(gpu.tensorCount(), 0U);
    EXPECT_EQ(gpu.findTensor("a"), nullptr);
    gpu.release();
    EXPECT_EQ(vulkan_.live(), 0U);
    ++failures;
    ASSERT_THAT(gpu.init(0), IsOk());
    EXPECT_THAT(gpu.loadWeightsToGPU(loaded.loader), IsOk());
  }
  EXPECT_GE(failures, 37);  // six of init, seven of the pool, six a tensor, two a tensor's buffer
}

// ---- two at once

TEST_F(ReadyLoader, TwoLoadersDoNotDisturbEachOther) {
  GPUModelLoader other;
  ASSERT_THAT(other.init(0), IsOk());
  ASSERT_THAT(load(threeTensors()), IsOk());
  ContainerBuilder builder;
  addBytes(builder, "a", patternBytes(70, 5));
  LoadedContainer loaded(builder.build());
  ASSERT_THAT(other.loadWeightsToGPU(loaded.loader), IsOk());
  EXPECT_EQ(download(*gpu_.findTensor("a")), patternBytes(100, 1));
  gpu_.release();
  Bytes bytes(70);
  EXPECT_THAT(other.downloadTensor(*other.findTensor("a"), bytes.data()), IsOk());
  EXPECT_EQ(bytes, patternBytes(70, 5));
}

}  // namespace
}  // namespace zemtest
