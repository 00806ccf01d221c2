// SPDX-License-Identifier: Apache-2.0
#include "engine/sampling/sampler_chain.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <optional>
#include <random>
#include <set>
#include <vector>

#include "engine/sampling/chain_testing.h"
#include "engine/sampling/plain_chain.h"
#include "qwen35_cpu.h"
#include "runtime_qwen35/sampling/hard_logits.h"
#include "support/thorough.h"

namespace zemtest {

using namespace zem;
using namespace hard;

namespace {

constexpr uint32_t kVocabulary = 248320;
const uint32_t kChainSeeds = thorough() ? 2000 : 220;

SamplingOptions seeded(uint64_t seed = 1) {
  SamplingOptions options;
  options.seed = seed;
  return options;
}

SamplingOptions greedy() {
  SamplingOptions options = seeded();
  options.temperature = 0.0F;
  return options;
}

std::optional<uint32_t> nextOf(const std::vector<float>& logits, const SamplingOptions& options,
                               const std::vector<uint32_t>& recorded = {}) {
  SamplerChain chain(options, static_cast<uint32_t>(logits.size()));
  for (const uint32_t id : recorded) chain.record(id);
  return chain.next(logits);
}

// Every id that comes out in many draws.
std::set<uint32_t> drawable(const std::vector<float>& logits, const SamplingOptions& options) {
  SamplerChain chain(options, static_cast<uint32_t>(logits.size()));
  std::set<uint32_t> ids;
  for (int i = 0; i < 3000; ++i) ids.insert(chain.next(logits).value());
  return ids;
}

TEST(SamplerChain, GreedyTakesTheLowestIdAmongEquals) {
  EXPECT_EQ(nextOf({1, 3, 2, 3, 3}, greedy()), 1U);
  EXPECT_EQ(nextOf({-3, -2, -1}, greedy()), 2U);
}

TEST(SamplerChain, NoLogitsGiveNothing) {
  EXPECT_EQ(nextOf({}, greedy()), std::nullopt);
  EXPECT_EQ(nextOf({}, seeded()), std::nullopt);
  EXPECT_EQ(SamplerChain(seeded(), 0).next(std::vector<float>{1, 2}), std::nullopt);
}

TEST(SamplerChain, ValuesThatAreNoNumbersGiveNothing) {
  for (const SamplingOptions& options : {greedy(), seeded(), defaultSampling(true)}) {
    EXPECT_EQ(nextOf(std::vector<float>(2000, -kInf), options), std::nullopt);
    EXPECT_EQ(nextOf(std::vector<float>(2000, kNan), options), std::nullopt);
    EXPECT_EQ(nextOf({kNan, -kInf}, options), std::nullopt);
  }
}

TEST(SamplerChain, NanIsNeverTaken) {
  EXPECT_EQ(nextOf({kNan, -5, kNan, -4}, greedy()), 3U);
  EXPECT_EQ(drawable({kNan, -5, kNan, -4}, seeded()), (std::set<uint32_t>{1, 3}));
}

TEST(SamplerChain, InfinitiesShareAllProbability) {
  const std::vector<float> logits = {5, kInf, kNan, kInf, -kInf};
  EXPECT_EQ(nextOf(logits, greedy()), 1U);
  EXPECT_EQ(drawable(logits, seeded()), (std::set<uint32_t>{1, 3}));
}

TEST(SamplerChain, IdsWithoutATokenAreNeverDrawn) {
  std::vector<float> logits(1000, 0.0F);
  for (size_t id = 900; id < 1000; ++id) logits[id] = 50.0F;
  for (SamplingOptions options : {greedy(), seeded(), defaultSampling(false)}) {
    options.seed = 3;
    SamplerChain chain(options, 900);
    for (int i = 0; i < 500; ++i) EXPECT_LT(chain.next(logits).value(), 900U);
  }
}

TEST(SamplerChain, EveryTokenTakesOneOutputOfTheGenerator) {
  const std::vector<float> flat(256, 0.0F);
  const std::vector<float> none(256, kNan);
  const MaskFilter one(std::vector<bool>{false, true});
  SamplerChain chain(seeded(77), 256);
  Random random(77);
  for (int i = 0; i < 50; ++i) {
    // Over equal logits the id is 256 u: a border belongs to the id below it.
    EXPECT_EQ(chain.next(flat).value(), std::ceil(random.fraction() * 256) - 1);
    EXPECT_EQ(chain.next(none), std::nullopt);
    EXPECT_EQ(chain.next(flat, &one), 1U);
    EXPECT_EQ(chain.next({}), std::nullopt);
    for (int skipped = 0; skipped < 3; ++skipped) random.next();
  }
}

TEST(SamplerChain, GreedyTakesItsOutputsToo) {
  const std::vector<float> flat(256, 0.0F);
  SamplingOptions options = greedy();
  SamplerChain first(options, 256);
  EXPECT_EQ(first.next(flat), 0U);
  options.seed = 2;
  SamplerChain second(options, 256);
  EXPECT_EQ(second.next(flat), 0U);
}

TEST(SamplerChain, TheSameSeedDrawsTheSame) {
  const std::vector<float> logits = logitsOf(Bell, 5000, 4);
  SamplerChain first(seeded(5), 5000);
  SamplerChain second(seeded(5), 5000);
  SamplerChain other(seeded(6), 5000);
  int different = 0;
  for (int i = 0; i < 100; ++i) {
    const auto id = first.next(logits);
    EXPECT_EQ(second.next(logits), id);
    different += other.next(logits) != id ? 1 : 0;
  }
  EXPECT_GT(different, 50);
}

TEST(SamplerChain, WithoutASeedItFindsOneThatDrawsTheSameAgain) {
  const std::vector<float> logits = logitsOf(Bell, 500, 4);
  SamplerChain found(SamplingOptions{}, 500);
  SamplerChain again(seeded(found.seed()), 500);
  for (int i = 0; i < 20; ++i) EXPECT_EQ(found.next(logits), again.next(logits));
  EXPECT_NE(SamplerChain(SamplingOptions{}, 500).seed(), found.seed());
}

TEST(SamplerChain, TopKKeepsTheLargestByIdAmongEquals) {
  SamplingOptions options = seeded();
  options.topK = 3;
  EXPECT_EQ(drawable({1, 2, 1, 1, 2}, options), (std::set<uint32_t>{0, 1, 4}));
}

TEST(SamplerChain, TopPKeepsTheOneThatReachesIt) {
  const float half = std::log(2.0F);
  const std::vector<float> logits = {0, half, 2 * half, 0};  // 1/8, 2/8, 4/8, 1/8
  SamplingOptions options = seeded();
  options.topP = 0.45F;
  EXPECT_EQ(drawable(logits, options), (std::set<uint32_t>{2}));
  options.topP = 0.55F;
  EXPECT_EQ(drawable(logits, options), (std::set<uint32_t>{1, 2}));
  options.topP = 0.8F;
  EXPECT_EQ(drawable(logits, options), (std::set<uint32_t>{0, 1, 2}));
  options.topP = 0.0F;
  EXPECT_EQ(drawable(logits, options), (std::set<uint32_t>{2}));
}

TEST(SamplerChain, TopPCountsWhatTopKKept) {
  const float half = std::log(2.0F);
  SamplingOptions options = seeded();
  options.topK = 2;
  options.topP = 0.6F;  // 4/8 is enough of 6/8, and would not be of 8/8
  EXPECT_EQ(drawable({0, half, 2 * half, 0}, options), (std::set<uint32_t>{2}));
}

TEST(SamplerChain, MinPIsAShareOfTheBest) {
  const float half = std::log(2.0F);
  SamplingOptions options = seeded();
  options.minP = 0.4F;
  EXPECT_EQ(drawable({0, half, 2 * half, 0}, options), (std::set<uint32_t>{1, 2}));
  options.minP = 1.0F;
  EXPECT_EQ(drawable({7, 1, 7, 6.999F}, options), (std::set<uint32_t>{0, 2}));
}

TEST(SamplerChain, CutsComeBeforeTheTemperature) {
  SamplingOptions options = seeded();
  options.topP = 0.9F;
  options.temperature = 100.0F;  // which would make all equally likely
  EXPECT_EQ(drawable({10, 0, 0, 0}, options), (std::set<uint32_t>{0}));
}

TEST(SamplerChain, RepeatPenaltyMovesBothSignsDown) {
  SamplingOptions options = greedy();
  options.repeatPenalty = 2.0F;
  EXPECT_EQ(nextOf({4, 2.5F}, options, {0}), 1U);
  EXPECT_EQ(nextOf({4, 1.5F}, options, {0}), 0U);
  EXPECT_EQ(nextOf({-1, -1.5F}, options, {0}), 1U);
  EXPECT_EQ(nextOf({-1, -2.5F}, options, {0}), 0U);
}

TEST(SamplerChain, RepeatPenaltyCountsAnIdOnce) {
  SamplingOptions options = greedy();
  options.repeatPenalty = 2.0F;
  EXPECT_EQ(nextOf({4, 1.5F}, options, {0, 0, 0}), 0U);
}

TEST(SamplerChain, PresencePenaltyIsSubtractedOnceAndFrequencyPenaltyEveryTime) {
  SamplingOptions presence = greedy();
  presence.presencePenalty = 1.0F;
  EXPECT_EQ(nextOf({4, 2.5F}, presence, {0, 0, 0}), 0U);
  EXPECT_EQ(nextOf({4, 3.5F}, presence, {0, 0, 0}), 1U);
  SamplingOptions frequency = greedy();
  frequency.frequencyPenalty = 1.0F;
  EXPECT_EQ(nextOf({4, 1.5F}, frequency, {0, 0, 0}), 1U);
  EXPECT_EQ(nextOf({4, 0.5F}, frequency, {0, 0, 0}), 0U);
}

TEST(SamplerChain, PenaltiesForgetWhatLeftTheWindow) {
  SamplingOptions options = greedy();
  options.presencePenalty = 10.0F;
  options.penaltyWindow = 2;
  EXPECT_EQ(nextOf({4, 2, 1}, options, {0, 2}), 1U);
  EXPECT_EQ(nextOf({4, 2, 1}, options, {0, 2, 2}), 0U);
  options.penaltyWindow = 0;
  EXPECT_EQ(nextOf({4, 2, 1}, options, {0}), 0U);
}

TEST(SamplerChain, RecordedIdsWithoutALogitCountForNothing) {
  SamplingOptions options = greedy();
  options.presencePenalty = 10.0F;
  EXPECT_EQ(nextOf({4, 2}, options, {2, 99, 0xFFFFFFFF}), 0U);
}

TEST(SamplerChain, BiasesAddUpAndForbid) {
  SamplingOptions options = greedy();
  options.logitBias = {{1, 1.5F}, {1, 1.0F}};
  EXPECT_EQ(nextOf({4, 2}, options), 1U);
  options.logitBias = {{0, -kInf}};
  EXPECT_EQ(nextOf({kInf, 2}, options), 1U);
  options.logitBias = {{0, -kInf}, {1, -kInf}};
  EXPECT_EQ(nextOf({4, 2}, options), std::nullopt);
}

TEST(SamplerChain, LeavesTheLogitsAlone) {
  std::vector<float> logits = {kInf, kNan, 3, 2, 1};
  SamplingOptions options = seeded();
  options.presencePenalty = 1.0F;
  options.logitBias = {{3, 1.0F}};
  SamplerChain chain(options, 5);
  chain.record(0);
  chain.next(logits);
  EXPECT_EQ(logits[0], kInf);
  EXPECT_TRUE(std::isnan(logits[1]));
  EXPECT_EQ(logits[3], 2);
}

class SamplerChainLevels : public ::testing::TestWithParam<qwen35::CpuLevel> {
 protected:
  qwen35::ForcedCpuLevel forced_{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(Levels, SamplerChainLevels,
                         ::testing::ValuesIn(qwen35::cpuLevels().begin(),
                                             qwen35::cpuLevels().end()),
                         [](const auto& level) { return qwen35::cpuLevelName(level.param); });

TEST_P(SamplerChainLevels, DrawWhatTheDefinitionDraws) {
  for (uint32_t seed = 0; seed < kChainSeeds; ++seed) {
    std::mt19937 random(seed);
    const int kind = static_cast<int>(seed) % kKinds;
    const size_t n = 1 + random() % (seed % 4 == 0 ? 6000 : 300);
    const auto tokens = static_cast<uint32_t>(n - random() % std::min<size_t>(n, 3));
    const SamplingOptions options = someOptions(n, random);
    SamplerChain chain(options, tokens);
    plain_chain::Chain plain(options, tokens);
    for (uint32_t step = 0; step < 12; ++step) {
      std::vector<float> logits = logitsOf(kind, n, seed + step / 4);
      if (seed % 7 == 0) logits[random() % n] = kNan;
      if (seed % 11 == 3) logits[random() % n] = kInf;
      const auto id = chain.next(logits);
      ASSERT_EQ(id, plain.next(logits)) << "seed " << seed << " step " << step;
      const auto recorded = id ? *id : 0U;
      chain.record(recorded);
      plain.record(recorded);
    }
  }
}

TEST_P(SamplerChainLevels, DrawUnderAFilterWhatTheDefinitionDrawsBehindAMask) {
  for (uint32_t seed = 0; seed < kChainSeeds; ++seed) {
    std::mt19937 random(seed);
    const int kind = static_cast<int>(seed) % kKinds;
    const size_t n = 1 + random() % (seed % 4 == 0 ? 6000 : 300);
    const SamplingOptions options = someOptions(n, random);
    SamplerChain chain(options, static_cast<uint32_t>(n));
    plain_chain::Chain plain(options, static_cast<uint32_t>(n));
    const unsigned share = oneOf(std::vector<unsigned>{0, 1, 20, 128, 250, 256}, random);
    for (uint32_t step = 0; step < 12; ++step) {
      std::vector<float> logits = logitsOf(kind, n, seed + step / 4);
      if (seed % 7 == 0) logits[random() % n] = kNan;
      if (seed % 5 == 3) logits[random() % n] = kInf;
      // A mask may be shorter than the vocabulary.
      const MaskFilter filter(someIds(n - random() % std::min<size_t>(n, 3), share, random));
      const auto id = chain.next(logits, &filter);
      ASSERT_EQ(id, plain.next(logits, &filter.allowed())) << "seed " << seed << " step " << step;
      const auto recorded = id ? *id : 0U;
      chain.record(recorded);
      plain.record(recorded);
    }
  }
}

TEST_P(SamplerChainLevels, DrawFromAVocabularyOfFullSize) {
  for (const int kind : {Peaked, TwoTowers}) {
    const std::vector<float> logits = logitsOf(kind, kVocabulary, 9);
    SamplingOptions options[] = {defaultSampling(true), defaultSampling(false), seeded(), seeded(),
                                 seeded()};
    options[2].topP = 0.95F;
    options[3].minP = 0.02F;
    for (SamplingOptions& each : options) {
      each.seed = 11;
      SamplerChain chain(each, kVocabulary - 243);
      plain_chain::Chain plain(each, kVocabulary - 243);
      ASSERT_EQ(chain.next(logits), plain.next(logits)) << kind;
    }
  }
}

}  // namespace
}  // namespace zemtest
