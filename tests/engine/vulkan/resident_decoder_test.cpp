// SPDX-License-Identifier: Apache-2.0
// A model on a device against the same model on the CPU.
#include "engine/vulkan/resident_decoder.h"

#include <gmock/gmock.h>

#include <numeric>

#include "engine/vulkan/resident_model.h"

namespace zemtest {
namespace {

using namespace zem;

// Of the largest logit of a token.
constexpr double kClose = 1e-4;

// Three layers with linear attention, one with full attention.
kiv::Architecture fourLayers() {
  kiv::Architecture a = smallArchitecture();
  a.layers = 4;
  return a;
}

class ResidentDecoderTest : public ResidentTest {
 protected:
  size_t vocabulary() const { return weights_->shape().vocabulary; }

  // The first ones in chunks, as a prompt, the last ones token by token.
  double distanceOver(size_t inChunks, size_t singly) {
    const Ids text = ids(inChunks + singly);
    const auto middle = text.begin() + static_cast<ptrdiff_t>(inChunks);
    ResidentSequence onDevice = begin();
    Floats actual = onGpu(onDevice, {text.begin(), middle}, 40);
    const Floats rest = onGpu(onDevice, {middle, text.end()});
    actual.insert(actual.end(), rest.begin(), rest.end());
    SequenceState onHost = cpu_->newSequence();
    return worstShare(actual, onCpu(onHost, text), vocabulary());
  }
};

struct ModelCase {
  const char* name;
  kiv::Architecture architecture;
  kiv::DType type;
  CacheType cache;
};
void PrintTo(const ModelCase& model, std::ostream* out) { *out << model.name; }

kiv::Architecture oddArchitecture() {
  kiv::Architecture a = smallArchitecture();
  a.layers = 2;
  a.fullEvery = 2;
  a.heads = 7;
  a.kvHeads = 1;
  a.headSize = 96;
  a.rotarySize = 96;
  a.keyHeads = 3;
  a.valueHeads = 3;
  a.stateSize = 5;
  a.width = 33;
  a.feedForward = 1;
  a.ownHead = true;
  return a;
}

// Heads of the sizes that published models have.
kiv::Architecture publishedHeads() {
  kiv::Architecture a = smallArchitecture();
  a.layers = 2;
  a.fullEvery = 2;
  a.width = 64;
  a.feedForward = 96;
  a.heads = 6;
  a.kvHeads = 1;
  a.headSize = 256;
  a.rotarySize = 64;
  a.keyHeads = 1;
  a.valueHeads = 3;
  a.stateSize = 128;
  return a;
}

const ModelCase kModels[] = {
    {"Small", fourLayers(), kiv::DType::F32, CacheType::F32},
    {"SmallHalfCache", fourLayers(), kiv::DType::F32, CacheType::F16},
    {"Odd", oddArchitecture(), kiv::DType::F32, CacheType::F32},
    {"OddBF16", oddArchitecture(), kiv::DType::BF16, CacheType::F32},
    {"PublishedHeads", publishedHeads(), kiv::DType::BF16, CacheType::F32},
    {"PublishedHeadsHalfCache", publishedHeads(), kiv::DType::BF16, CacheType::F16},
    {"BlocksQ8_0", blockArchitecture(), kiv::DType::Q8_0, CacheType::F32},
    {"BlocksQ4_K", blockArchitecture(), kiv::DType::Q4_K, CacheType::F32},
    {"BlocksQ5_K", blockArchitecture(), kiv::DType::Q5_K, CacheType::F32},
    {"BlocksQ6_K", blockArchitecture(), kiv::DType::Q6_K, CacheType::F32},
};

class EachModel : public ResidentDecoderTest, public ::testing::WithParamInterface<ModelCase> {};

INSTANTIATE_TEST_SUITE_P(Of, EachModel, ::testing::ValuesIn(kModels),
                         [](const auto& param) { return std::string(param.param.name); });

TEST_P(EachModel, GivesTheLogitsOfTheCpuOver200Positions) {
  write(GetParam().architecture, GetParam().type);
  open({.store = {.cacheType = GetParam().cache, .positions = 256}});
  const double distance = distanceOver(170, 30);
  RecordProperty("distance", std::to_string(distance));
  EXPECT_LE(distance, kClose);
}

// ---- what a step costs

// As many layers as the model of 4 billion weights has, and their order.
TEST_F(ResidentDecoderTest, ATokenOfThirtyTwoLayersTakesOneSubmissionAndFewBarriers) {
  kiv::Architecture a = smallArchitecture();
  a.layers = 32;
  write(a);
  open();
  ResidentSequence sequence = begin();
  const Ids text = ids(1);
  const ResidentChunk chunk{&sequence, text, LogitsOf::Last};
  ResidentResults results;
  ASSERT_THAT(gpu_->step({&chunk, 1}, {.candidates = 1}, results), IsOk());
  const ResidentCounts& counts = gpu_->lastCounts();
  RecordProperty("barriers", std::to_string(counts.barriers));
  RecordProperty("stages", std::to_string(counts.stages));
  EXPECT_EQ(counts.submissions, 1U);
  EXPECT_LE(counts.barriers, 310U);
  EXPECT_LE(counts.stages, 450U);
  EXPECT_EQ(counts.bytesFromDevice, 8U);
  // A row, a run, a pick, a page and the turns of 4 pairs.
  EXPECT_EQ(counts.bytesToDevice, 16U + 16U + 4U + 4U + 32U);
}

// ---- results

TEST_F(ResidentDecoderTest, CandidatesAreTheFirstLogits) {
  write(fourLayers());
  open();
  ResidentSequence sequence = begin();
  const Ids text = ids(9);
  const ResidentChunk chunk{&sequence, text, LogitsOf::All};
  ResidentResults results;
  ASSERT_THAT(gpu_->step({&chunk, 1}, {.candidates = 5, .logits = true}, results), IsOk());
  ASSERT_EQ(results.rows, 9U);
  ASSERT_EQ(results.candidates.size(), 45U);
  for (size_t row = 0; row < 9; ++row) {
    const float* logits = results.logits.data() + row * vocabulary();
    Ids order(vocabulary());
    std::iota(order.begin(), order.end(), 0U);
    std::stable_sort(order.begin(), order.end(),
                     [&](uint32_t a, uint32_t b) { return logits[a] > logits[b]; });
    for (size_t i = 0; i < 5; ++i) {
      EXPECT_EQ(results.candidates[5 * row + i].id, order[i]) << row;
      EXPECT_EQ(results.candidates[5 * row + i].logit, logits[order[i]]) << row;
    }
  }
}

TEST_F(ResidentDecoderTest, AStepWithoutResultsReadsNothingBack) {
  write(fourLayers());
  open();
  ResidentSequence sequence = begin();
  const Ids text = ids(3);
  const ResidentChunk chunk{&sequence, text, LogitsOf::None};
  ResidentResults results;
  ASSERT_THAT(gpu_->step({&chunk, 1}, {}, results), IsOk());
  EXPECT_EQ(results.rows, 0U);
  EXPECT_TRUE(results.candidates.empty());
  EXPECT_EQ(gpu_->lastCounts().bytesFromDevice, 0U);
  EXPECT_EQ(sequence.length(), 3U);
}

// ---- several tokens

// Where products are computed token by token.
TEST_F(ResidentDecoderTest, FewTokensTogetherGiveTheBitsOfSingleTokens) {
  write(fourLayers());
  open();
  const Ids text = ids(70);
  ResidentSequence one = begin();
  const Floats singly = onGpu(one, text);
  one.release();
  ResidentSequence few = begin();
  EXPECT_EQ(onGpu(few, text, kManyTokens - 1), singly);
  few.release();
  ResidentSequence many = begin();
  EXPECT_LE(worstShare(onGpu(many, text, 48), singly, vocabulary()), kClose);
}

TEST_F(ResidentDecoderTest, ConversationsOfAStepDoNotSeeEachOther) {
  write(fourLayers());
  open({.store = {.conversations = 3}});
  constexpr size_t kSteps = 66;
  const Ids texts[] = {ids(kSteps, 1), ids(kSteps, 2), ids(kSteps, 3)};
  std::vector<Floats> alone;
  for (const Ids& text : texts) {
    ResidentSequence sequence = begin();
    alone.push_back(onGpu(sequence, text));
  }
  ResidentSequence sequences[] = {begin(), begin(), begin()};
  Floats together[3];
  for (size_t i = 0; i < kSteps; ++i) {
    std::vector<ResidentChunk> chunks;
    for (size_t s = 0; s < 3; ++s) {
      chunks.push_back({&sequences[s], std::span(texts[s]).subspan(i, 1), LogitsOf::Last});
    }
    ResidentResults results;
    ASSERT_THAT(gpu_->step(chunks, {.candidates = 0, .logits = true}, results), IsOk());
    for (size_t s = 0; s < 3; ++s) {
      const auto row = results.logits.begin() + static_cast<ptrdiff_t>(s * vocabulary());
      together[s].insert(together[s].end(), row, row + static_cast<ptrdiff_t>(vocabulary()));
    }
  }
  for (size_t s = 0; s < 3; ++s) EXPECT_EQ(together[s], alone[s]) << s;
}

// ---- state

TEST_F(ResidentDecoderTest, AStateReadBackGoesOnOnTheCpu) {
  for (const CacheType cache : {CacheType::F32, CacheType::F16}) {
    write(fourLayers());
    open({.store = {.cacheType = cache}});
    const Ids before = ids(75);
    const Ids after = ids(20, 2);
    ResidentSequence onDevice = begin();
    onGpu(onDevice, before, 40);
    SequenceState copy = cpu_->newSequence();
    ASSERT_THAT(gpu_->store().read(onDevice, copy), IsOk());
    EXPECT_EQ(copy.length(), 75U);
    const Floats there = onGpu(onDevice, after);
    EXPECT_LE(worstShare(onCpu(copy, after), there, vocabulary()), kClose);
  }
}

TEST_F(ResidentDecoderTest, AStateOfTheCpuGoesOnOnTheDevice) {
  for (const CacheType cache : {CacheType::F32, CacheType::F16}) {
    write(fourLayers());
    open({.store = {.cacheType = cache}});
    const Ids before = ids(75);
    const Ids after = ids(20, 2);
    SequenceState onHost = cpu_->newSequence();
    onCpu(onHost, before);
    ResidentSequence copy = begin();
    onGpu(copy, ids(3, 9));  // is overwritten
    ASSERT_THAT(gpu_->store().write(onHost, copy), IsOk());
    EXPECT_EQ(copy.length(), 75U);
    EXPECT_LE(worstShare(onGpu(copy, after), onCpu(onHost, after), vocabulary()), kClose);
  }
}

TEST_F(ResidentDecoderTest, AStateThatGoesThereAndBackHasTheSameBits) {
  write(fourLayers());
  open({.store = {.conversations = 2}});
  const Ids before = ids(70);
  const Ids after = ids(20, 2);
  ResidentSequence sequence = begin();
  onGpu(sequence, before, 40);
  SequenceState copy = cpu_->newSequence();
  ASSERT_THAT(gpu_->store().read(sequence, copy), IsOk());
  const Floats wanted = onGpu(sequence, after);
  ResidentSequence other = begin();
  ASSERT_THAT(gpu_->store().write(copy, other), IsOk());
  EXPECT_EQ(onGpu(other, after), wanted);
}

TEST_F(ResidentDecoderTest, AResetConversationForgetsEverything) {
  write(fourLayers());
  open();
  const Ids text = ids(70);
  ResidentSequence sequence = begin();
  const Floats first = onGpu(sequence, text, 40);
  ASSERT_THAT(gpu_->store().reset(sequence), IsOk());
  EXPECT_EQ(sequence.length(), 0U);
  EXPECT_EQ(onGpu(sequence, text, 40), first);
}

// ---- limits

TEST_F(ResidentDecoderTest, AConversationTooManyIsRefused) {
  write(fourLayers());
  open();
  ResidentSequence one = begin();
  ResidentSequence two;
  EXPECT_THAT(gpu_->store().begin(two),
              IsFailure(kiv::StatusCode::Unsupported,
                        "the device has room for 1 conversations, and all are taken"));
  one.release();
  EXPECT_THAT(gpu_->store().begin(two), IsOk());
}

TEST_F(ResidentDecoderTest, PositionsBeyondThePagesAreRefusedAndTheConversationStays) {
  write(fourLayers());
  open({.store = {.positions = 65}});  // two pages
  ResidentSequence sequence = begin();
  const Ids text = ids(128);
  onGpu(sequence, text, 32);
  const Ids next = ids(1);
  const ResidentChunk chunk{&sequence, next, LogitsOf::Last};
  ResidentResults results;
  EXPECT_THAT(gpu_->step({&chunk, 1}, {}, results),
              IsFailure(kiv::StatusCode::Unsupported,
                        "129 positions need 1 more pages of 64 positions, the device has 0 of 2 "
                        "left"));
  EXPECT_EQ(sequence.length(), 128U);
  EXPECT_FALSE(sequence.broken());
}

TEST_F(ResidentDecoderTest, ChunksThatBreakTheRulesAreRefused) {
  write(fourLayers());
  open({.store = {.conversations = 2}, .tokens = 4});
  ResidentSequence sequence = begin();
  ResidentSequence none;
  const Ids text = ids(5);
  const Ids outside = {static_cast<uint32_t>(vocabulary())};
  const auto step = [&](std::vector<ResidentChunk> chunks, ResultWish wish = {}) {
    ResidentResults results;
    return gpu_->step(chunks, wish, results);
  };
  const std::span<const uint32_t> one(text.data(), 1);
  using kiv::StatusCode;
  EXPECT_THAT(step({}), IsOk());
  EXPECT_THAT(step({{&none, one}}),
              IsFailure(StatusCode::InvalidFormat, "a chunk without a sequence"));
  EXPECT_THAT(step({{&sequence, {}}}),
              IsFailure(StatusCode::InvalidFormat, "a chunk without tokens"));
  EXPECT_THAT(step({{&sequence, one}, {&sequence, one}}),
              IsFailure(StatusCode::InvalidFormat, "a sequence twice"));
  EXPECT_THAT(step({{&sequence, outside}}),
              IsFailure(StatusCode::InvalidFormat, "token " + std::to_string(vocabulary()) +
                                                       " is outside the vocabulary of " +
                                                       std::to_string(vocabulary())));
  EXPECT_THAT(step({{&sequence, text}}),
              IsFailure(StatusCode::Unsupported, "a step of 5 tokens, there is room for 4"));
  EXPECT_THAT(step({{&sequence, one, LogitsOf::Last}}, {.candidates = 65}),
              IsFailure(StatusCode::InvalidFormat, "65 candidates, at most 64 can be ranked"));
  EXPECT_EQ(sequence.length(), 0U);
}

TEST_F(ResidentDecoderTest, HeadsThatTheShadersDoNotTakeAreRefused) {
  kiv::Architecture a = smallArchitecture();
  a.stateSize = 129;
  write(a);
  EXPECT_THAT(ResidentDecoder::open(*weights_, {}, gpu_),
              IsFailure(kiv::StatusCode::Unsupported,
                        "the model's linear.head_size is 129, the shaders compute with at most "
                        "128"));
  a = smallArchitecture();
  a.headSize = 288;
  write(a);
  EXPECT_THAT(ResidentDecoder::open(*weights_, {}, gpu_),
              IsFailure(kiv::StatusCode::Unsupported,
                        "the model's attention.head_size is 288, the shaders compute with at most "
                        "256"));
}

}  // namespace
}  // namespace zemtest
