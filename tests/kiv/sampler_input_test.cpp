// SPDX-License-Identifier: Apache-2.0
// The sampler on logits, settings and histories of all kinds: those that no model
// should give, and random ones compared with the plain definition.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <limits>
#include <random>
#include <set>
#include <vector>

#include "kiv/plain_sampler.h"
#include "kiv/sampler.h"
#include "kiv/sampler_testing.h"

namespace zemtest {

using namespace kiv;

namespace {

TEST(SamplerInputTest, NanIsNeverDrawnWhereThereIsAnythingElse) {
  const std::vector<float> logits = {kNan, 1.0F, kNan, 1.5F, kNan};
  for (const SamplerConfig& config :
       {SamplerConfig{}, withTopK(3), withTopP(0.99F), withMinP(0.1F), withTemperature(9.0F)}) {
    EXPECT_EQ(drawable(logits, config), std::set<int>({1, 3}));
  }
  EXPECT_EQ(drawable({kNan, -100.0F}, withTopK(1)), std::set<int>({1}));
}

TEST(SamplerInputTest, MaskedLogitsAreNeverDrawn) {
  const std::vector<float> logits = {-kInf, 1.0F, -kInf, 1.5F, -kInf};
  const SamplerConfig penalties = {0.7F, 4, 1.0F, 1.1F, 64, 0.1F, 0.1F, 0.0F};
  EXPECT_EQ(drawable(logits, {}), std::set<int>({1, 3}));
  EXPECT_EQ(drawable(logits, penalties, {0, 0, 1, 3}), std::set<int>({1, 3}));
}

TEST(SamplerInputTest, InfiniteLogitsShareAllProbability) {
  const std::vector<float> logits = {1.0F, kInf, 100.0F, kInf, -kInf};
  for (const SamplerConfig& config :
       {SamplerConfig{}, withTopK(4), withTopP(0.9F), withMinP(0.1F)}) {
    EXPECT_EQ(drawable(logits, config), std::set<int>({1, 3}));
  }
}

TEST(SamplerInputTest, NothingButNanOrMinusInfinityIsDrawnEvenly) {
  for (const float value : {kNan, -kInf}) {
    EXPECT_EQ(drawable(std::vector<float>(4, value), {}), std::set<int>({0, 1, 2, 3}));
  }
}

TEST(SamplerInputTest, LogitsThatAreFarApartDoNotOverflow) {
  const float max = std::numeric_limits<float>::max();
  EXPECT_EQ(drawable({-max, max, -max}, {}), std::set<int>({1}));
  EXPECT_EQ(drawable({-max, max, -max}, withTemperature(1e-40F)), std::set<int>({1}));
}

// Whatever the settings and logits, an id of the vocabulary comes out.
TEST(SamplerInputTest, HostileInputStaysInTheVocabulary) {
  const std::vector<float> strange = {0.0F,   -0.0F, 1.0F,  0.5F,  -1.0F,   2.0F,   1e-45F,
                                      3e38F,  kInf,  -kInf, kNan,  1e30F,   -1e30F, -2e30F,
                                      1e-30F, 0.99F, 1.1F,  -kNan, -1e-45F, 0.999F};
  const std::vector<int32_t> numbers = {0, 1, -1, 2, 7, 50, kIntMin, kIntMax, 65536};
  std::mt19937 rng(3);
  const auto pick = [&](const auto& from) { return from[rng() % from.size()]; };
  for (int i = 0; i < 20000; ++i) {
    std::vector<float> logits(1 + rng() % 9);
    for (float& x : logits) x = pick(strange);
    History history(rng() % 6);
    for (int32_t& id : history) id = pick(numbers);
    const SamplerConfig config = {pick(strange), pick(numbers), pick(strange), pick(strange),
                                  rng() % 8,     pick(strange), pick(strange), pick(strange)};
    const int id = draw(logits, config, history, rng);
    ASSERT_GE(id, 0);
    ASSERT_LT(static_cast<size_t>(id), logits.size());
  }
}

TEST(SamplerInputTest, HostileInputStaysInALargeVocabulary) {
  std::mt19937 rng(4);
  for (const float value : {kNan, kInf, -kInf, -3e38F, 0.0F}) {
    std::vector<float> logits(kLarge, value);
    logits[kLarge / 2] = kNan;
    for (const SamplerConfig& config :
         {withTopK(1), withTopK(40), SamplerConfig{kInf, 3, 0.5F, kInf, 9, kNan, kInf, 0.5F}}) {
      for (int i = 0; i < 5; ++i) {
        const int id = draw(logits, config, {0, 1, kIntMax, -1}, rng);
        ASSERT_GE(id, 0);
        ASSERT_LT(static_cast<size_t>(id), kLarge);
      }
    }
  }
}

// A configuration with each feature on or off.
SamplerConfig randomConfig(std::mt19937& rng, size_t n) {
  const auto one = [&](auto... values) {
    const std::array all = {values...};
    return all[rng() % all.size()];
  };
  SamplerConfig config;
  config.temperature = one(0.0F, 1.0F, 0.05F, 0.3F, 0.7F, 1.3F, 5.0F, 40.0F);
  config.topK = one(0, 1, 2, 7, 40, static_cast<int32_t>(n) - 1, static_cast<int32_t>(n), kIntMax);
  config.topP = one(0.0F, 1.0F, 0.01F, 0.5F, 0.9F, 0.99F, 0.999999F);
  config.repeatPenalty = one(0.0F, 1.0F, 1.05F, 1.3F, 10.0F);
  config.repeatLastN = one(size_t{0}, size_t{3}, size_t{20}, kSizeMax);
  config.presencePenalty = one(0.0F, 0.0F, 0.4F, -1.5F);
  config.frequencyPenalty = one(0.0F, 0.0F, 0.1F, -0.3F);
  config.minP = one(0.0F, 0.0F, 1e-6F, 0.05F, 0.6F);
  return config;
}

History randomHistory(std::mt19937& rng, size_t n) {
  History history(rng() % 50);
  for (int32_t& id : history) id = static_cast<int32_t>(rng() % (n + 2)) - 1;
  return history;
}

void expectPlainIds(const std::vector<float>& logits, const SamplerConfig& config,
                    const History& history, uint32_t seed) {
  const std::vector<float> p = plain::probabilities<float>(logits, config, history);
  std::mt19937 rng(seed);
  std::mt19937 plainRng(seed);
  for (int i = 0; i < 8; ++i) {
    ASSERT_EQ(draw(logits, config, history, rng), plain::sample(p, plainRng))
        << "n " << logits.size() << " seed " << seed << " temperature " << config.temperature
        << " topK " << config.topK << " topP " << config.topP << " minP " << config.minP;
  }
}

TEST(SamplerInputTest, EqualsThePlainDefinition) {
  std::mt19937 rng(5);
  for (uint32_t seed = 0; seed < 3000; ++seed) {
    const std::vector<float> logits = randomLogits(1 + rng() % 700, seed);
    const SamplerConfig config = randomConfig(rng, logits.size());
    expectPlainIds(logits, config, randomHistory(rng, logits.size()), seed);
  }
}

TEST(SamplerInputTest, EqualsThePlainDefinitionOnALargeVocabulary) {
  std::mt19937 rng(6);
  for (uint32_t seed = 0; seed < 60; ++seed) {
    const std::vector<float> logits = randomLogits(kLarge - 1 + rng() % 500, seed);
    const SamplerConfig config = randomConfig(rng, logits.size());
    expectPlainIds(logits, config, randomHistory(rng, logits.size()), seed);
  }
}

TEST(SamplerInputTest, TheSizeAtWhichCandidatesAreListedMakesNoDifference) {
  const SamplerConfig config = {0.9F, 50, 0.95F, 1.2F, 8, 0.2F, 0.1F, 0.01F};
  for (const size_t n : {kLarge - 2, kLarge - 1, kLarge, kLarge + 1}) {
    const std::vector<float> logits = randomLogits(n, 23);
    expectPlainIds(logits, config, {1, 5, 5, 900}, 23);
  }
}

TEST(SamplerInputTest, LargeVocabulariesInAnyOrderEqualThePlainDefinition) {
  std::vector<float> rising(kLarge);
  for (size_t i = 0; i < kLarge; ++i) rising[i] = static_cast<float>(i) * 1e-3F;
  const std::vector<float> falling(rising.rbegin(), rising.rend());
  const std::vector<float> equal(kLarge, -1.0F);
  std::vector<float> lastOnly(kLarge, -1.0F);
  lastOnly.back() = 1.0F;
  for (const std::vector<float>& logits : {rising, falling, equal, lastOnly}) {
    for (const int32_t topK : {1, 2, 64, 1000, static_cast<int32_t>(kLarge) - 1}) {
      expectPlainIds(logits, withTopK(topK), {}, 29);
    }
  }
}

// What steps 5 to 8 see where everything kept is below the value of the dropped.
TEST(SamplerInputTest, TopKBelowTheValueOfTheDroppedKeepsThemOnlyInALargeVocabulary) {
  std::vector<float> logits(kLarge, -3e30F);
  logits[7] = -2e30F;
  EXPECT_EQ(drawable(logits, withTopK(1)), std::set<int>({7}));
  logits.resize(10);
  EXPECT_EQ(drawable(logits, withTopK(1)).count(7), 0U);
}

}  // namespace
}  // namespace zemtest
