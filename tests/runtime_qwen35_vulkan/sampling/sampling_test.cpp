// SPDX-License-Identifier: Apache-2.0
#include "sampling/sampling.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "kiv/math/exact_math.h"
#include "support/float_values.h"

namespace {

using qwen35rt::argmax;
using qwen35rt::sampleNext;
using zemtest::kInf;
using zemtest::kNan;

int draw(const std::vector<float>& logits, float temperature, int topK, float topP,
         std::mt19937& rng) {
  return sampleNext(logits.data(), logits.size(), temperature, topK, topP, rng);
}

std::vector<int> drawMany(const std::vector<float>& logits, float temperature, int topK, float topP,
                          uint32_t seed, int count) {
  std::mt19937 rng(seed);
  std::vector<int> ids;
  ids.reserve(size_t(count));
  for (int i = 0; i < count; ++i) ids.push_back(draw(logits, temperature, topK, topP, rng));
  return ids;
}

std::mt19937 advanced(uint32_t seed, unsigned outputs) {
  std::mt19937 rng(seed);
  rng.discard(outputs);
  return rng;
}

std::vector<float> randomLogits(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<float> logits(n);
  for (float& x : logits) x = static_cast<float>(rng() % 4001) / 250.0F - 8.0F;  // with ties
  return logits;
}

// The definition, sorting everything and taking nothing from the code under test.
int drawBySorting(const std::vector<float>& logits, float temperature, int topK, float topP,
                  std::mt19937& rng) {
  std::vector<std::pair<float, int>> all;
  const float inv = 1.0F / temperature;
  for (size_t i = 0; i < logits.size(); ++i) all.emplace_back(logits[i] * inv, int(i));
  std::stable_sort(all.begin(), all.end(),
                   [](const auto& a, const auto& b) { return a.first > b.first; });
  if (topK >= 1 && topK <= int(all.size())) all.resize(size_t(topK));
  const double m = all[0].first;
  if (topP > 0.0F && topP < 1.0F) {
    double sum = 0.0;
    for (size_t i = 0; i < all.size(); ++i) {
      sum += kiv::math::expF64(all[i].first - m);
      if (sum >= double(topP)) {
        all.resize(i + 1);
        break;
      }
    }
  }
  double z = 0.0;
  for (const auto& [value, id] : all) z += kiv::math::expF64(value - m);
  const double a = double(rng());
  const double b = double(rng());
  double r = (a + b * 4294967296.0) / 18446744073709551616.0 * z;
  for (const auto& [value, id] : all) {
    r -= kiv::math::expF64(value - m);
    if (r <= 0.0) return id;
  }
  return all.back().second;
}

TEST(ArgmaxTest, TakesTheLowestIdAmongEquals) {
  const std::vector<float> logits = {1, 3, 2, 3, 3};
  EXPECT_EQ(argmax(logits.data(), logits.size()), 1);
}

TEST(ArgmaxTest, OfNothingAndOfOneIsZero) {
  const float one = -5.0F;
  EXPECT_EQ(argmax(nullptr, 0), 0);
  EXPECT_EQ(argmax(&one, 1), 0);
}

TEST(ArgmaxTest, FindsTheLastId) {
  const std::vector<float> logits = {-3, -2, -1};
  EXPECT_EQ(argmax(logits.data(), logits.size()), 2);
}

TEST(ArgmaxTest, NanIsNeverGreater) {
  const std::vector<float> later = {1, kNan, 2};
  EXPECT_EQ(argmax(later.data(), later.size()), 2);
  const std::vector<float> first = {kNan, 1, 2};
  EXPECT_EQ(argmax(first.data(), first.size()), 0);
}

TEST(SampleNextTest, TopKOfOneIsGreedyAndLeavesTheGeneratorAlone) {
  std::mt19937 rng(42);
  EXPECT_EQ(draw({1, 5, 2}, 0.7F, 1, 0.0F, rng), 1);
  EXPECT_EQ(rng, std::mt19937(42));
}

TEST(SampleNextTest, TemperatureZeroOrLessIsGreedyAndLeavesTheGeneratorAlone) {
  std::mt19937 rng(42);
  EXPECT_EQ(draw({1, 5, 2}, 0.0F, 0, 0.0F, rng), 1);
  EXPECT_EQ(draw({1, 5, 2}, -1.0F, 40, 0.9F, rng), 1);
  EXPECT_EQ(draw({1, 5, 2}, -0.0F, 40, 0.9F, rng), 1);
  EXPECT_EQ(rng, std::mt19937(42));
}

TEST(SampleNextTest, EqualLogitsAreGreedilyIdZero) {
  std::mt19937 rng(42);
  EXPECT_EQ(draw(std::vector<float>(100, 0.0F), 0.0F, 0, 0.0F, rng), 0);
}

TEST(SampleNextTest, GreedyOfNothingIsZero) {
  std::mt19937 rng(42);
  EXPECT_EQ(draw({}, 0.0F, 0, 0.0F, rng), 0);
}

TEST(SampleNextTest, DrawingFromNothingIsZeroAndStillTakesTwoOutputs) {
  std::mt19937 rng(42);
  EXPECT_EQ(draw({}, 1.0F, 0, 0.9F, rng), 0);
  EXPECT_EQ(rng, advanced(42, 2));
}

TEST(SampleNextTest, EveryDrawTakesExactlyTwoOutputs) {
  std::mt19937 rng(42);
  const std::vector<float> logits = randomLogits(50, 1);
  for (unsigned i = 1; i <= 20; ++i) {
    draw(logits, 0.8F, 10, 0.0F, rng);
    EXPECT_EQ(rng, advanced(42, 2 * i));
  }
}

// Over n equal logits the draw u selects the id floor(u * n). The ids come from
// an implementation of the generator apart from this program, in exact arithmetic.
TEST(SampleNextTest, DrawsAreTheGeneratorsCanonicalDoubles) {
  const std::vector<float> equal(1000, 1.5F);
  const std::vector<int> seed42 = {796, 183, 779, 596, 445, 99, 459, 333,
                                   142, 650, 56,  721, 938, 0,  992, 617};
  EXPECT_EQ(drawMany(equal, 1.0F, 0, 0.0F, 42, 16), seed42);
  const std::vector<int> seed7 = {227, 318, 978, 455, 308, 263, 86,  419,
                                  15,  527, 868, 330, 392, 674, 672, 694};
  EXPECT_EQ(drawMany(equal, 1.0F, 0, 0.0F, 7, 16), seed7);
}

TEST(SampleNextTest, WalksFromTheMostProbable) {
  // Weights 1, 2, 7: id 2 takes u below 0.7, id 1 up to 0.9, id 0 the rest.
  const std::vector<float> logits = {0.0F, std::log(2.0F), std::log(7.0F)};
  const std::vector<int> expected = {2, 2, 0, 2, 2, 2, 2, 2, 2, 2, 1, 2, 2, 2, 2, 2};
  EXPECT_EQ(drawMany(logits, 1.0F, 0, 0.0F, 7, 16), expected);
}

// A generator state whose next outputs are all 0xFFFFFFFF: the largest draw,
// which rounds to 1 before it is pulled below.
TEST(SampleNextTest, TheLargestDrawStaysInRange) {
  uint32_t word = 0xFFFFFFFF;  // undo the generator's output scrambling
  word ^= word >> 18;
  word ^= (word << 15) & 0xEFC60000U;
  uint32_t y = word;
  for (int i = 0; i < 5; ++i) y = word ^ ((y << 7) & 0x9D2C5680U);
  uint32_t z = y;
  for (int i = 0; i < 3; ++i) z = y ^ (z >> 11);
  std::string state;
  for (int i = 0; i < 624; ++i) state += std::to_string(z) + " ";
  std::mt19937 rng;
  std::istringstream(state + "0") >> rng;
  std::mt19937 copy = rng;
  ASSERT_EQ(copy(), 0xFFFFFFFFU);
  ASSERT_EQ(copy(), 0xFFFFFFFFU);

  EXPECT_EQ(draw(std::vector<float>(10, 0.0F), 1.0F, 0, 0.0F, rng), 9);
}

TEST(SampleNextTest, AnyTopPBelowOneKeepsTheMostProbableOnly) {
  std::vector<float> logits = randomLogits(200, 3);
  logits[137] = 9.0F;
  for (const float topP : {1e-6F, 0.1F, 0.9F, 0.999999F}) {
    std::mt19937 rng(42);
    for (unsigned i = 1; i <= 50; ++i) {
      EXPECT_EQ(draw(logits, 1.0F, 0, topP, rng), 137);
      EXPECT_EQ(rng, advanced(42, 2 * i));
    }
  }
}

TEST(SampleNextTest, TopPOfOneOrMoreOrZeroOrLessIsOff) {
  const std::vector<float> equal(1000, 0.0F);
  const std::vector<int> off = drawMany(equal, 1.0F, 0, 0.0F, 42, 16);
  EXPECT_NE(off, std::vector<int>(16, 0));
  for (const float topP : {1.0F, 1.5F, -0.5F, kInf, kNan}) {
    EXPECT_EQ(drawMany(equal, 1.0F, 0, topP, 42, 16), off) << topP;
  }
}

TEST(SampleNextTest, TopKKeepsTheLargest) {
  const std::vector<float> logits = randomLogits(500, 5);
  std::vector<float> sorted = logits;
  std::sort(sorted.begin(), sorted.end(), std::greater<>());
  for (const int topK : {2, 3, 10, 499}) {
    for (const int id : drawMany(logits, 50.0F, topK, 0.0F, 9, 300)) {
      EXPECT_GE(logits[size_t(id)], sorted[size_t(topK) - 1]) << "topK " << topK;
    }
  }
}

TEST(SampleNextTest, TopKOfEqualLogitsKeepsTheLowestIds) {
  const std::vector<float> equal(100, 2.0F);
  std::array<int, 100> seen{};
  for (const int id : drawMany(equal, 1.0F, 5, 0.0F, 42, 500)) ++seen[size_t(id)];
  for (size_t id = 0; id < 5; ++id) EXPECT_GT(seen[id], 50);
  EXPECT_EQ(std::count(seen.begin(), seen.end(), 0), 95);
}

TEST(SampleNextTest, TopKOutsideTheVocabularyKeepsEverything) {
  const std::vector<float> logits = randomLogits(100, 11);
  const std::vector<int> all = drawMany(logits, 3.0F, 0, 0.0F, 42, 100);
  for (const int topK : {100, 101, 1000000, -1, std::numeric_limits<int>::min()}) {
    EXPECT_EQ(drawMany(logits, 3.0F, topK, 0.0F, 42, 100), all) << topK;
  }
}

TEST(SampleNextTest, EqualsThePlainDefinitionOnRandomLogits) {
  for (uint32_t seed = 0; seed < 40; ++seed) {
    const std::vector<float> logits = randomLogits(1 + seed * 37, seed);
    for (const float temperature : {0.05F, 0.7F, 1.0F, 8.0F}) {
      for (const int topK : {0, 2, 7, 40, 100000}) {
        for (const float topP : {0.0F, 0.9F}) {
          std::mt19937 a(seed);
          std::mt19937 b(seed);
          for (int i = 0; i < 4; ++i) {
            ASSERT_EQ(draw(logits, temperature, topK, topP, a),
                      drawBySorting(logits, temperature, topK, topP, b))
                << "n " << logits.size() << " temperature " << temperature << " topK " << topK;
          }
          ASSERT_EQ(a, b);
        }
      }
    }
  }
}

TEST(SampleNextTest, FrequenciesFollowTheSoftmax) {
  const std::vector<double> probabilities = {0.5, 0.25, 0.15, 0.07, 0.03};
  const double temperature = 0.5;
  std::vector<float> logits(probabilities.size());
  std::transform(probabilities.begin(), probabilities.end(), logits.begin(),
                 [=](double p) { return float(std::log(p) * temperature); });
  constexpr int kDraws = 40000;
  std::array<int, 5> seen{};
  for (const int id : drawMany(logits, float(temperature), 0, 0.0F, 1234, kDraws)) {
    ++seen[size_t(id)];
  }
  for (size_t id = 0; id < seen.size(); ++id) {
    const double p = probabilities[id];
    const double sigma = std::sqrt(p * (1 - p) * kDraws);
    EXPECT_NEAR(seen[id], p * kDraws, 4.5 * sigma) << "id " << id;
  }
}

TEST(SampleNextTest, EqualSeedsSettingsAndLogitsGiveEqualIds) {
  const std::vector<float> logits = randomLogits(300, 2);
  const std::vector<int> first = drawMany(logits, 2.0F, 50, 0.0F, 99, 200);
  EXPECT_EQ(drawMany(logits, 2.0F, 50, 0.0F, 99, 200), first);
  EXPECT_NE(drawMany(logits, 2.0F, 50, 0.0F, 100, 200), first);
}

TEST(SampleNextTest, NanRanksBehindEverything) {
  std::vector<float> logits = {kNan, 1, kNan, 5, -kInf, 2, kNan};
  for (const int id : drawMany(logits, 100.0F, 3, 0.0F, 42, 200)) {
    EXPECT_TRUE(id == 1 || id == 3 || id == 5) << id;
  }
}

TEST(SampleNextTest, ANanAmongTheKeptYieldsTheLastOfThem) {
  const std::vector<float> logits = {kNan, 1, kNan, 5};
  for (const int id : drawMany(logits, 1.0F, 0, 0.0F, 42, 20)) EXPECT_EQ(id, 2);
  for (const int id : drawMany(logits, 1.0F, 3, 0.0F, 42, 20)) EXPECT_EQ(id, 0);
}

TEST(SampleNextTest, NonFiniteInputsNeverLeaveTheVocabulary) {
  const std::vector<std::vector<float>> cases = {std::vector<float>(1000, kNan),
                                                 std::vector<float>(1000, kInf),
                                                 std::vector<float>(1000, -kInf),
                                                 {kInf, kNan, -kInf, 0, kInf},
                                                 {-kInf, 0},
                                                 {kNan}};
  for (const auto& logits : cases) {
    for (const float temperature : {1e-45F, 1.0F, kInf, kNan}) {
      for (const int topK : {0, 2}) {
        for (const float topP : {0.0F, 0.5F}) {
          for (const int id : drawMany(logits, temperature, topK, topP, 42, 4)) {
            EXPECT_GE(id, 0);
            EXPECT_LT(size_t(id), logits.size());
          }
        }
      }
    }
  }
}

TEST(SampleNextTest, ANanTemperatureDraws) {
  std::mt19937 rng(42);
  draw({1, 2, 3}, kNan, 0, 0.0F, rng);
  EXPECT_EQ(rng, advanced(42, 2));
}

}  // namespace
