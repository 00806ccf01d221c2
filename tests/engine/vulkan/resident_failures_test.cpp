// SPDX-License-Identifier: Apache-2.0
// Every call of Vulkan that can fail, while a model is brought to a scripted machine, computes
// there and gives its state back.
#include <gmock/gmock.h>

#include <map>
#include <set>

#include "engine/model/shaped_model.h"
#include "engine/vulkan/resident_decoder.h"
#include "support/fake_vulkan.h"
#include "support/status_matchers.h"

namespace zemtest {
namespace {

using namespace zem;

class ResidentFailures : public ::testing::Test {
 protected:
  void SetUp() override {
    kiv::Architecture a = smallArchitecture();
    a.layers = 2;
    a.fullEvery = 2;
    writeShapedModel(file_, a);
    weights_ = openWeights(file_);
  }

  // What a program does with a resident model, up to the first failure.
  kiv::Status useAll() {
    std::unique_ptr<ResidentDecoder> decoder;
    kiv::Status status = ResidentDecoder::open(
        *weights_, {.store = {.positions = 128}, .tokens = 2, .check = false}, decoder);
    EXPECT_EQ(decoder != nullptr, status.ok());
    if (!status.ok()) return status;
    ResidentSequence sequence;
    status = decoder->store().begin(sequence);
    if (status.ok()) status = stepAndBack(*decoder, sequence);
    return status;
  }

  kiv::Status stepAndBack(ResidentDecoder& decoder, ResidentSequence& sequence) {
    const std::vector<uint32_t> text = {1, 2};
    const ResidentChunk chunk{&sequence, text, LogitsOf::All};
    ResidentResults results;
    kiv::Status status = decoder.step({&chunk, 1}, {.logits = true}, results);
    EXPECT_EQ(sequence.length(), status.ok() ? 2U : 0U);
    EXPECT_EQ(results.rows, status.ok() ? 2U : 0U);
    Decoder cpu(*weights_, CacheType::F16);
    SequenceState state = cpu.newSequence();
    if (status.ok()) {
      status = decoder.store().read(sequence, state);
      EXPECT_EQ(state.length(), status.ok() ? 2U : 0U);
    }
    if (status.ok()) {
      status = decoder.store().write(state, sequence);
      EXPECT_EQ(sequence.broken(), !status.ok());
    }
    if (status.ok()) status = decoder.store().reset(sequence);
    return status;
  }

  TempFile file_;
  std::unique_ptr<Weights> weights_;
};

TEST_F(ResidentFailures, EveryCallThatFailsIsAnErrorAndLeavesNothingBehind) {
  std::map<std::string, int> calls;
  {
    const FakeVulkan vulkan({FakeDevice{}});
    ASSERT_THAT(useAll(), IsOk());
    for (const std::string& name : vulkan.log()) {
      if (FakeVulkan::canFail(name)) ++calls[name];
    }
  }
  // Asked for its size and then for its items, and memory of a second type where a first fails.
  const std::set<std::string> repeated = {"vkAllocateMemory", "vkEnumeratePhysicalDevices"};
  ASSERT_GT(calls.size(), 15U);
  for (const auto& [name, count] : calls) {
    for (int n = 1; n <= count; ++n) {
      FakeVulkan vulkan({FakeDevice{}});
      vulkan.fail(name, VK_ERROR_OUT_OF_DEVICE_MEMORY, n);
      const kiv::Status status = useAll();
      EXPECT_TRUE(!status.ok() || repeated.contains(name)) << name << ", call " << n;
      EXPECT_EQ(vulkan.live(), 0U) << name << ", call " << n;
    }
  }
}

TEST_F(ResidentFailures, AStepOnALostDeviceBreaksTheConversation) {
  FakeVulkan vulkan({FakeDevice{}});
  std::unique_ptr<ResidentDecoder> decoder;
  ASSERT_THAT(ResidentDecoder::open(*weights_, {.check = false}, decoder), IsOk());
  ResidentSequence sequence;
  ASSERT_THAT(decoder->store().begin(sequence), IsOk());
  vulkan.fail("vkQueueSubmit", VK_ERROR_DEVICE_LOST);
  const uint32_t id = 1;
  const ResidentChunk chunk{&sequence, {&id, 1}, LogitsOf::Last};
  ResidentResults results;
  EXPECT_THAT(decoder->step({&chunk, 1}, {}, results),
              IsFailure(kiv::StatusCode::IOError, "vkQueueSubmit failed"));
  EXPECT_TRUE(decoder->lost());
  EXPECT_TRUE(sequence.broken());
  EXPECT_THAT(decoder->step({&chunk, 1}, {}, results),
              IsFailure(kiv::StatusCode::InvalidFormat, "a sequence whose last step failed"));
}

// The scripted machine computes nothing.
TEST_F(ResidentFailures, ADeviceThatComputesSomethingElseIsRefused) {
  const FakeVulkan vulkan({FakeDevice{}});
  std::unique_ptr<ResidentDecoder> decoder;
  const kiv::Status status = ResidentDecoder::open(*weights_, {}, decoder);
  EXPECT_EQ(status.code(), kiv::StatusCode::Unsupported);
  EXPECT_EQ(status.message(),
            "the device fake device computes wrongly: a layer of each kind gives logits that are "
            "off by 1.000000 of the largest, at most 0.001000 comes from rounding");
  EXPECT_EQ(decoder, nullptr);
}

TEST_F(ResidentFailures, AMatrixThatNoBufferTakesIsRefusedBeforeAnythingIsCopied) {
  FakeDevice small;
  small.limits.maxStorageBufferRange = 4096;
  FakeVulkan vulkan({small});
  std::unique_ptr<ResidentDecoder> decoder;
  const kiv::Status status = ResidentDecoder::open(*weights_, {}, decoder);
  EXPECT_EQ(status.code(), kiv::StatusCode::Unsupported);
  EXPECT_THAT(status.message(),
              ::testing::HasSubstr("bytes, a storage buffer of the device takes 4096"));
  EXPECT_EQ(vulkan.calls("vkAllocateMemory"), 0);
}

TEST_F(ResidentFailures, ADeviceWithTooFewBuffersAShaderIsRefused) {
  FakeDevice few;
  few.limits.maxPerStageDescriptorStorageBuffers = 8;
  const FakeVulkan vulkan({few});
  std::unique_ptr<ResidentDecoder> decoder;
  EXPECT_THAT(
      ResidentDecoder::open(*weights_, {}, decoder),
      IsFailure(kiv::StatusCode::Unsupported, "shader needs 10 storage buffers, the device has 8"));
}

}  // namespace
}  // namespace zemtest
