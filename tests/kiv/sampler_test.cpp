// SPDX-License-Identifier: Apache-2.0
#include "kiv/sampler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <set>
#include <vector>

#include "kiv/plain_sampler.h"
#include "kiv/sampler_testing.h"

namespace zemtest {

using namespace kiv;

namespace {

// What the penalties make of logit 0 of `logits`, found by who is the largest.
void expectPenalised(float logit, const SamplerConfig& penalties, const History& history,
                     float expected) {
  SamplerConfig config = penalties;
  config.topK = 1;
  std::mt19937 rng(1);
  const float above = std::nextafter(expected, kInf);
  const float below = std::nextafter(expected, -kInf);
  EXPECT_EQ(draw({logit, below, -1000.0F}, config, history, rng), 0);
  EXPECT_EQ(draw({logit, above, -1000.0F}, config, history, rng), 1);
}

SamplerConfig repetition(float penalty, size_t lastN = 64) {
  SamplerConfig config;
  config.repeatPenalty = penalty;
  config.repeatLastN = lastN;
  return config;
}

SamplerConfig occurrence(float presence, float frequency) {
  SamplerConfig config;
  config.presencePenalty = presence;
  config.frequencyPenalty = frequency;
  return config;
}

TEST(SamplerConfigTest, FieldsHaveTheirOrder) {
  const SamplerConfig config = {0.5F, 40, 0.9F, 1.1F, 32, 0.1F, 0.2F, 0.05F};
  EXPECT_EQ(config.temperature, 0.5F);
  EXPECT_EQ(config.topK, 40);
  EXPECT_EQ(config.topP, 0.9F);
  EXPECT_EQ(config.repeatPenalty, 1.1F);
  EXPECT_EQ(config.repeatLastN, 32U);
  EXPECT_EQ(config.presencePenalty, 0.1F);
  EXPECT_EQ(config.frequencyPenalty, 0.2F);
  EXPECT_EQ(config.minP, 0.05F);
}

TEST(SamplerConfigTest, EveryFeatureIsOffAsConstructed) {
  const std::vector<float> logits = randomLogits(300, 1);
  const std::vector<float> p = plain::probabilities<float>(logits, SamplerConfig{0, 0, 0, 0}, {});
  std::mt19937 rng(42);
  for (const int id : drawMany(logits, {}, {1, 2, 3, 3})) EXPECT_EQ(id, plain::sample(p, rng));
}

TEST(GreedyTest, TakesTheLowestIdAmongEquals) {
  const std::vector<float> logits = {1, 3, 2, 3, 3};
  EXPECT_EQ(Sampler::greedy(logits.data(), logits.size()), 1);
}

TEST(GreedyTest, OfNothingAndOfOneIsZero) {
  const float one = -5.0F;
  EXPECT_EQ(Sampler::greedy(nullptr, 0), 0);
  EXPECT_EQ(Sampler::greedy(nullptr, 1), 0);
  EXPECT_EQ(Sampler::greedy(&one, 1), 0);
}

TEST(GreedyTest, FindsTheLastId) {
  const std::vector<float> logits = {-3, -2, -1};
  EXPECT_EQ(Sampler::greedy(logits.data(), logits.size()), 2);
}

TEST(GreedyTest, NanIsNeverLargerNorIsAnythingLargerThanNan) {
  const std::vector<float> later = {1, kNan, 2};
  EXPECT_EQ(Sampler::greedy(later.data(), later.size()), 2);
  const std::vector<float> first = {kNan, 1, 2};
  EXPECT_EQ(Sampler::greedy(first.data(), first.size()), 0);
}

TEST(GreedyTest, InfinitiesHaveTheirPlace) {
  const std::vector<float> logits = {-kInf, 1, kInf, kInf};
  EXPECT_EQ(Sampler::greedy(logits.data(), logits.size()), 2);
  const std::vector<float> lowest(3, -kInf);
  EXPECT_EQ(Sampler::greedy(lowest.data(), lowest.size()), 0);
}

TEST(GreedyTest, LeavesTheGeneratorAlone) {
  std::mt19937 rng(42);
  const std::vector<float> logits = {1, 2};
  EXPECT_EQ(Sampler(rng, withTopK(1)).greedy(logits.data(), logits.size()), 1);
  EXPECT_EQ(rng, std::mt19937(42));
}

TEST(SamplerTest, EveryCallTakesExactlyOneOutput) {
  std::mt19937 rng(42);
  SamplerConfig everything = {0.7F, 5, 0.9F, 1.1F, 3, 0.5F, 0.5F, 0.05F};
  unsigned outputs = 0;
  for (const SamplerConfig& config : {SamplerConfig{}, everything, withTopK(1), withTopP(1e-9F)}) {
    for (const size_t n : {size_t{0}, size_t{1}, size_t{2}, size_t{100}, kLarge}) {
      draw(randomLogits(n, 3), config, {1, 1, 2}, rng);
      EXPECT_EQ(rng, advanced(42, ++outputs)) << "n " << n;
    }
  }
}

TEST(SamplerTest, NothingAndOneGiveIdZero) {
  std::mt19937 rng(1);
  const SamplerConfig everything = {0.7F, 5, 0.9F, 1.1F, 3, 0.5F, 0.5F, 0.05F};
  const float one = kNan;
  for (const SamplerConfig& config : {SamplerConfig{}, everything, withTopK(1), withMinP(0.5F)}) {
    const Sampler sampler(rng, config);
    for (const History& history : {History{}, History{0, 0, 7, -1}}) {
      for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(sampler.sample(nullptr, 0, history), 0);
        EXPECT_EQ(sampler.sample(&one, 1, history), 0);
      }
    }
  }
}

// Over 1024 equal logits every probability and every sum of them is exact, so that
// the id is 1024 u.
TEST(SamplerTest, ADrawIsOneOutputOverTwoToThe32) {
  const std::vector<float> equal(1024, 0.25F);
  std::mt19937 rng(42);
  std::mt19937 outputs(42);
  for (int i = 0; i < 10000; ++i) {
    ASSERT_EQ(draw(equal, {}, {}, rng), static_cast<int>(outputs() >> 22));
  }
}

// The C++ standard states the 10000th output of a generator with the default seed.
TEST(SamplerTest, TheStandardsOutputGivesItsId) {
  std::mt19937 rng;
  rng.discard(9999);
  EXPECT_EQ(draw(std::vector<float>(1024, 0.0F), {}, {}, rng), int{4123659995 >> 22});
}

TEST(SamplerTest, OutputsThatRoundToOneStayBelow) {
  std::mt19937 output = beforeLargest();
  ASSERT_GE(output(), 0xFFFFFF80U);
  for (const size_t n : {2, 1024}) {
    std::mt19937 rng = beforeLargest();
    EXPECT_EQ(draw(std::vector<float>(n, 0.0F), {}, {}, rng), static_cast<int>(n) - 1);
  }
}

TEST(SamplerTest, AnIdWithoutProbabilityIsNotDrawnByTheSmallestOutput) {
  std::mt19937 output = beforeZero();
  ASSERT_EQ(output(), 0U);
  std::mt19937 rng = beforeZero();
  EXPECT_EQ(draw({-kInf, 0.0F, 0.0F}, {}, {}, rng), 1);
  rng = beforeZero();
  EXPECT_EQ(draw({0.0F, 0.0F, 0.0F}, {}, {}, rng), 0);
}

// The probabilities of some numbers of equal logits add up to less than the largest
// draw.
TEST(SamplerTest, ADrawAboveTheSumOfAllGivesTheMostProbable) {
  const auto sumIsShort = [](size_t n) {
    float sum = 0.0F;
    for (size_t i = 0; i < n; ++i) sum += 1.0F / static_cast<float>(n);
    return sum <= std::nextafter(1.0F, 0.0F);
  };
  size_t n = 2;
  while (n < 1000 && !sumIsShort(n)) ++n;
  ASSERT_LT(n, 1000U);
  std::mt19937 rng = beforeLargest();
  EXPECT_EQ(draw(std::vector<float>(n, 0.0F), {}, {}, rng), 0);
  std::vector<float> logits(n, 0.0F);
  logits.insert(logits.begin(), 3, -200.0F);  // without probability
  rng = beforeLargest();
  EXPECT_EQ(draw(logits, {}, {}, rng), 3);
}

TEST(SamplerTest, TheRepetitionPenaltyDividesOnceAnOccurrence) {
  expectPenalised(2.2F, repetition(1.1F), {0}, 2.2F / 1.1F);
  expectPenalised(2.2F, repetition(1.1F), {0, 0}, 2.2F / 1.1F / 1.1F);
  expectPenalised(2.2F, repetition(1.1F), {0, 2, 0, 2, 0}, 2.2F / 1.1F / 1.1F / 1.1F);
}

TEST(SamplerTest, TheRepetitionPenaltyMultipliesNegativeLogits) {
  expectPenalised(-2.0F, repetition(1.5F), {0, 0}, -4.5F);
  expectPenalised(0.0F, repetition(1.5F), {0}, 0.0F);
  expectPenalised(-0.0F, repetition(1.5F), {0}, 0.0F);
}

TEST(SamplerTest, TheRepetitionPenaltyLooksAtTheLastOfTheHistory) {
  const History history = {0, 0, 2, 0, 2, 2};
  expectPenalised(2.0F, repetition(1.5F, 0), history, 2.0F);
  expectPenalised(2.0F, repetition(1.5F, 2), history, 2.0F);
  expectPenalised(2.0F, repetition(1.5F, 3), history, 2.0F / 1.5F);
  expectPenalised(2.0F, repetition(1.5F, 4), history, 2.0F / 1.5F);
  expectPenalised(2.0F, repetition(1.5F, 5), history, 2.0F / 1.5F / 1.5F);
  for (const size_t all : {size_t{6}, size_t{7}, kSizeMax}) {
    expectPenalised(2.0F, repetition(1.5F, all), history, 2.0F / 1.5F / 1.5F / 1.5F);
  }
}

TEST(SamplerTest, TheRepetitionPenaltyIsOffUpToOne) {
  for (const float off : {1.0F, 0.5F, 0.0F, -2.0F, -kInf, kNan}) {
    expectPenalised(2.0F, repetition(off), {0, 0}, 2.0F);
  }
  expectPenalised(2.0F, repetition(1.5F), {}, 2.0F);
  const float least = std::nextafter(1.0F, 2.0F);
  expectPenalised(3.0F, repetition(least), {0}, 3.0F / least);
}

TEST(SamplerTest, ThePresencePenaltyIsSubtractedOnce) {
  expectPenalised(2.0F, occurrence(0.3F, 0.0F), {0}, 2.0F - 0.3F);
  expectPenalised(2.0F, occurrence(0.3F, 0.0F), {0, 2, 0, 0}, 2.0F - 0.3F);
  expectPenalised(2.0F, occurrence(-0.3F, 0.0F), {0}, 2.0F + 0.3F);
  expectPenalised(2.0F, occurrence(0.3F, 0.0F), {2, 2}, 2.0F);
  expectPenalised(2.0F, occurrence(0.3F, 0.0F), {}, 2.0F);
}

TEST(SamplerTest, TheFrequencyPenaltyIsSubtractedForEveryOccurrence) {
  expectPenalised(2.0F, occurrence(0.0F, 0.3F), {0}, 2.0F - 0.3F);
  expectPenalised(2.0F, occurrence(0.0F, 0.3F), {0, 2, 0, 0}, 2.0F - 3.0F * 0.3F);
  expectPenalised(2.0F, occurrence(0.7F, 0.3F), {0, 0}, 2.0F - (2.0F * 0.3F + 0.7F));
  expectPenalised(2.0F, occurrence(0.0F, 0.3F), {2}, 2.0F);
}

TEST(SamplerTest, PenaltiesFollowEachOtherAndTheWindowIsForRepetitionAlone) {
  SamplerConfig config = occurrence(0.5F, 0.25F);
  config.repeatPenalty = 2.0F;
  config.repeatLastN = 1;
  expectPenalised(6.0F, config, {0, 0, 0}, 6.0F / 2.0F - (3.0F * 0.25F + 0.5F));
}

TEST(SamplerTest, PenaltiesIgnoreIdsOutsideTheVocabulary) {
  const History strange = {-1, 3, 4, kIntMin, kIntMax, 1 << 30, -3};
  expectPenalised(2.0F, repetition(1.5F), strange, 2.0F);
  expectPenalised(2.0F, occurrence(0.5F, 0.5F), strange, 2.0F);
  const std::vector<float> logits = randomLogits(100, 2);
  SamplerConfig config = occurrence(0.5F, 0.5F);
  config.repeatPenalty = 1.5F;
  const History outside = {-1, 100, 101, kIntMin, kIntMax};
  EXPECT_EQ(drawMany(logits, config, outside), drawMany(logits, {}));
}

TEST(SamplerTest, StrangeIdsTakePlacesOfTheWindow) {
  expectPenalised(2.0F, repetition(1.5F, 2), {0, -1, 99}, 2.0F);
  expectPenalised(2.0F, repetition(1.5F, 3), {0, -1, 99}, 2.0F / 1.5F);
}

TEST(SamplerTest, AHistoryMayBeLongerThanTheVocabulary) {
  const History history(100000, 0);
  expectPenalised(2.0F, occurrence(0.0F, 0.001F), history, 2.0F - 100000.0F * 0.001F);
  expectPenalised(2.0F, repetition(4.0F, kSizeMax), history, 0.0F);
}

TEST(SamplerTest, ATemperatureOfZeroOrLessOrOneChangesNothing) {
  const std::vector<float> logits = randomLogits(100, 5);
  const std::vector<int> off = drawMany(logits, {});
  for (const float temperature : {0.0F, -0.0F, -1.0F, -kInf, kNan}) {
    EXPECT_EQ(drawMany(logits, withTemperature(temperature)), off) << temperature;
  }
  EXPECT_NE(drawMany(logits, withTemperature(0.5F)), off);
}

TEST(SamplerTest, ATemperatureOfZeroIsNotGreedy) {
  const std::set<int> all = {0, 1, 2};
  EXPECT_EQ(drawable({0.0F, 1.0F, 0.5F}, withTemperature(0.0F)), all);
}

TEST(SamplerTest, AHighTemperatureLevelsAndALowOneSelects) {
  const std::vector<float> logits = {0.0F, 8.0F, 7.0F, 0.0F};
  EXPECT_EQ(drawable(logits, withTemperature(0.01F)), std::set<int>({1}));
  EXPECT_EQ(drawable(logits, withTemperature(1000.0F)), std::set<int>({0, 1, 2, 3}));
  EXPECT_EQ(drawable(logits, withTemperature(kInf)), std::set<int>({0, 1, 2, 3}));
}

// Two logits that one rounding tells apart and the other does not: equal ones go by id.
TEST(SamplerTest, LogitsAreMultipliedByTheReciprocalOfTheTemperature) {
  const float scale = 1.0F / 3.0F;
  SamplerConfig config = withTemperature(3.0F);
  config.topK = 1;
  std::mt19937 rng(1);
  int found = 0;
  for (float a = 1.9F; a < 1.901F; a = std::nextafter(a, 2.0F)) {
    const float b = std::nextafter(a, 2.0F);
    if ((a * scale == b * scale) == (a / 3.0F == b / 3.0F)) continue;
    ++found;
    ASSERT_EQ(draw({a, b, 0.0F}, config, {}, rng), a * scale == b * scale ? 0 : 1);
  }
  EXPECT_GT(found, 100);
}

TEST(SamplerTest, TopKKeepsTheLargest) {
  std::vector<float> logits = randomLogits(500, 7);
  for (float& x : logits) x /= 100.0F;
  for (const int32_t topK : {1, 2, 3, 10, 63, 64, 65, 499}) {
    const std::vector<size_t> order = plain::ranking(logits);
    const std::set<int> best(order.begin(), order.begin() + topK);
    for (const int id : drawMany(logits, withTopK(topK))) {
      EXPECT_EQ(best.count(id), 1U) << "topK " << topK << " id " << id;
    }
  }
}

TEST(SamplerTest, TopKOfEqualLogitsKeepsTheLowestIds) {
  EXPECT_EQ(drawable(std::vector<float>(100, 2.0F), withTopK(5)), std::set<int>({0, 1, 2, 3, 4}));
  EXPECT_EQ(drawable({1, 2, 1, 2, 1, 2}, withTopK(2)), std::set<int>({1, 3}));
  EXPECT_EQ(drawable({1, 1, 1, 1.5F}, withTopK(2)), std::set<int>({0, 3}));
}

TEST(SamplerTest, TopKKeepsLogitsFarBelowZero) {
  EXPECT_EQ(drawable({-2e29F, -1e29F, -3e29F}, withTopK(1)), std::set<int>({1}));
}

TEST(SamplerTest, TopKOutsideTheVocabularyIsOff) {
  const std::vector<float> logits = randomLogits(100, 11);
  const std::vector<int> off = drawMany(logits, {});
  for (const int32_t topK : {0, -1, -100, kIntMin, 100, 101, kIntMax}) {
    EXPECT_EQ(drawMany(logits, withTopK(topK)), off) << topK;
  }
  EXPECT_NE(drawMany(logits, withTopK(5)), off);
}

// Four equal logits have a probability of a quarter each, exactly.
TEST(SamplerTest, TopPEndsWhereTheSumIsAboveIt) {
  const std::vector<float> equal(4, 1.0F);
  EXPECT_EQ(drawable(equal, withTopP(0.5F)), std::set<int>({0, 1, 2}));
  EXPECT_EQ(drawable(equal, withTopP(std::nextafter(0.5F, 0.0F))), std::set<int>({0, 1}));
  EXPECT_EQ(drawable(equal, withTopP(0.75F)), std::set<int>({0, 1, 2, 3}));
  EXPECT_EQ(drawable(equal, withTopP(1e-30F)), std::set<int>({0}));
}

TEST(SamplerTest, TopPKeepsTheMostProbableWhereverTheyAre) {
  const std::vector<float> logits = {0.0F, 5.0F, 1.0F, 5.0F, 0.5F, 5.0F};
  EXPECT_EQ(drawable(logits, withTopP(0.9F)), std::set<int>({1, 3, 5}));
  EXPECT_EQ(drawable(logits, withTopP(0.5F)), std::set<int>({1, 3}));
}

TEST(SamplerTest, TopPIsOffOutsideZeroToOne) {
  const std::vector<float> logits = randomLogits(200, 13);
  const std::vector<int> off = drawMany(logits, {});
  for (const float topP : {1.0F, 1.5F, kInf, 0.0F, -0.5F, -kInf, kNan}) {
    EXPECT_EQ(drawMany(logits, withTopP(topP)), off) << topP;
  }
  EXPECT_NE(drawMany(logits, withTopP(0.5F)), off);
}

// The rounded probabilities of many equal logits add up to less than topP.
TEST(SamplerTest, ATopPThatNoSumReachesKeepsEverything) {
  const std::vector<float> equal(1000, 0.0F);
  const float p = 1.0F / 1000.0F;
  float sum = 0.0F;
  for (int i = 0; i < 1000; ++i) sum += p;
  ASSERT_LT(sum, 1.0F);
  const SamplerConfig config = withTopP(std::nextafter(1.0F, 0.0F));
  std::mt19937 rng(42);
  const std::vector<float> expected = plain::probabilities<float>(equal, config, {});
  for (const int id : drawMany(equal, config)) EXPECT_EQ(id, plain::sample(expected, rng));
}

// Logits 0, -ln 2, -ln 2 have the probabilities 1/2, 1/4, 1/4, exactly.
TEST(SamplerTest, MinPKeepsWhatReachesIt) {
  const float half = -0x1.62e43p-1F;
  ASSERT_EQ(math::expF32(half), 0.5F);
  const std::vector<float> logits = {half, 0.0F, half};
  EXPECT_EQ(drawable(logits, withMinP(0.5F)), std::set<int>({0, 1, 2}));
  EXPECT_EQ(drawable(logits, withMinP(std::nextafter(0.5F, 1.0F))), std::set<int>({1}));
  EXPECT_EQ(drawable(std::vector<float>(3, 0.0F), withMinP(0.999F)), std::set<int>({0, 1, 2}));
}

TEST(SamplerTest, MinPIsOffOutsideZeroToOne) {
  const std::vector<float> logits = randomLogits(200, 17);
  const std::vector<int> off = drawMany(logits, {});
  for (const float minP : {0.0F, -0.5F, -kInf, 1.0F, 1.5F, kInf, kNan}) {
    EXPECT_EQ(drawMany(logits, withMinP(minP)), off) << minP;
  }
  EXPECT_NE(drawMany(logits, withMinP(0.5F)), off);
}

TEST(SamplerTest, ConfigurationsAreTakenAndReturned) {
  std::mt19937 rng(1);
  Sampler sampler(rng, withTopK(1));
  EXPECT_EQ(sampler.config().topK, 1);
  const std::vector<float> logits = {0.0F, 0.1F};
  for (int i = 0; i < 20; ++i) EXPECT_EQ(sampler.sample(logits.data(), 2, {}), 1);
  sampler.setConfig({});
  EXPECT_EQ(sampler.config().topK, 0);
  std::set<int> seen;
  for (int i = 0; i < 50; ++i) seen.insert(sampler.sample(logits.data(), 2, {}));
  EXPECT_EQ(seen, std::set<int>({0, 1}));
}

TEST(SamplerTest, SamplersOfOneGeneratorTakeTurns) {
  const std::vector<float> logits = randomLogits(300, 19);
  const std::vector<int> alone = drawMany(logits, {}, {}, 20);
  std::mt19937 rng(42);
  const Sampler first(rng, {});
  const Sampler second(rng, {});
  std::vector<int> inTurns;
  for (int i = 0; i < 10; ++i) {
    inTurns.push_back(first.sample(logits.data(), logits.size(), {}));
    inTurns.push_back(second.sample(logits.data(), logits.size(), {}));
  }
  EXPECT_EQ(inTurns, alone);
}

}  // namespace
}  // namespace zemtest
