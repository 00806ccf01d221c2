// SPDX-License-Identifier: Apache-2.0
#include "engine/sampling/log_probabilities.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <numeric>
#include <vector>

#include "qwen35_cpu.h"
#include "runtime_qwen35/sampling/hard_logits.h"

namespace zemtest {

using namespace zem;
using namespace hard;

namespace {

constexpr double kImpossible = -std::numeric_limits<double>::infinity();

// By rank; in the widest type there is.
std::vector<long double> plainLogarithms(const std::vector<float>& logits,
                                         std::vector<uint32_t>& ranked) {
  ranked.resize(logits.size());
  std::iota(ranked.begin(), ranked.end(), 0U);
  std::stable_sort(ranked.begin(), ranked.end(),
                   [&](uint32_t a, uint32_t b) { return logits[a] > logits[b]; });
  const long double largest = logits[ranked[0]];
  long double sum = 0;
  for (const float x : logits) sum += std::exp(x - largest);
  std::vector<long double> logarithms(logits.size());
  for (size_t i = 0; i < logits.size(); ++i) {
    logarithms[i] = logits[ranked[i]] - largest - std::log(sum);
  }
  return logarithms;
}

TEST(LogProbabilities, AreThoseOfTheSoftmax) {
  for (uint32_t seed = 0; seed < 200; ++seed) {
    const int kind = static_cast<int>(seed) % kKinds;
    if (kind == AnyBits) continue;
    const size_t n = 1 + seed * 37 % 3000;
    const std::vector<float> logits = logitsOf(kind, n, seed);
    std::vector<uint32_t> ranked;
    const auto expected = plainLogarithms(logits, ranked);
    if (std::isinf(logits[ranked[0]])) continue;
    for (const size_t count : {size_t{0}, size_t{1}, size_t{20}, n / 2, n, n + 5}) {
      const uint32_t chosen = ranked[seed % n];
      const LogProbabilities result = logProbabilities(logits, chosen, count);
      ASSERT_EQ(result.likeliest.size(), std::min(count, n));
      for (size_t i = 0; i < result.likeliest.size(); ++i) {
        ASSERT_EQ(result.likeliest[i].id, ranked[i]) << seed;
        const auto wanted = static_cast<double>(expected[i]);
        if (std::isinf(wanted)) {
          ASSERT_EQ(result.likeliest[i].logProbability, wanted);
        } else {
          ASSERT_NEAR(result.likeliest[i].logProbability, wanted, 1e-12 + 1e-15 * -wanted);
        }
      }
      const auto wanted = static_cast<double>(expected[seed % n]);
      if (std::isfinite(wanted)) {
        ASSERT_NEAR(result.chosen, wanted, 1e-12 + 1e-15 * -wanted);
      }
    }
  }
}

TEST(LogProbabilities, AreTheSameBitsOnEveryInstructionSet) {
  const std::vector<float> logits = logitsOf(Bell, 30000, 3);
  const LogProbabilities expected = logProbabilities(logits, 77, 30000);
  for (const qwen35::CpuLevel level : qwen35::cpuLevels()) {
    const qwen35::ForcedCpuLevel forced(level);
    const LogProbabilities result = logProbabilities(logits, 77, 30000);
    EXPECT_EQ(result.chosen, expected.chosen);
    for (size_t i = 0; i < logits.size(); ++i) {
      ASSERT_EQ(result.likeliest[i].id, expected.likeliest[i].id);
      ASSERT_EQ(result.likeliest[i].logProbability, expected.likeliest[i].logProbability);
    }
  }
}

TEST(LogProbabilities, TheWholeVocabularySumsToOne) {
  const LogProbabilities result = logProbabilities(logitsOf(Bell, 248320, 3), 5, 248320);
  ASSERT_EQ(result.likeliest.size(), 248320U);
  double sum = 0.0;
  for (const auto& each : result.likeliest) sum += std::exp(each.logProbability);
  EXPECT_NEAR(sum, 1.0, 1e-10);
}

TEST(LogProbabilities, EqualOnesStandById) {
  const LogProbabilities result = logProbabilities(std::vector<float>{1, 2, 2, 1}, 3, 4);
  EXPECT_EQ(result.likeliest[0].id, 1U);
  EXPECT_EQ(result.likeliest[1].id, 2U);
  EXPECT_EQ(result.likeliest[2].id, 0U);
  EXPECT_EQ(result.likeliest[3].id, 3U);
  EXPECT_EQ(result.chosen, result.likeliest[2].logProbability);
}

TEST(LogProbabilities, InfiniteLogitsShareAll) {
  const LogProbabilities result = logProbabilities(std::vector<float>{kInf, 3, kInf, kNan}, 2, 4);
  EXPECT_DOUBLE_EQ(result.chosen, std::log(0.5));
  EXPECT_EQ(result.likeliest[1].id, 2U);
  EXPECT_EQ(result.likeliest[2].id, 1U);
  EXPECT_EQ(result.likeliest[2].logProbability, kImpossible);
  EXPECT_EQ(result.likeliest[3].logProbability, kImpossible);
}

TEST(LogProbabilities, OfWhatIsNoNumberAreNegativeInfinity) {
  const LogProbabilities some = logProbabilities(std::vector<float>{kNan, 0}, 0, 2);
  EXPECT_EQ(some.chosen, kImpossible);
  EXPECT_EQ(some.likeliest[0].id, 1U);
  EXPECT_EQ(some.likeliest[0].logProbability, 0.0);
  const LogProbabilities none = logProbabilities(std::vector<float>{kNan, -kInf}, 0, 3);
  EXPECT_EQ(none.chosen, kImpossible);
  ASSERT_EQ(none.likeliest.size(), 2U);
  EXPECT_EQ(none.likeliest[1].logProbability, kImpossible);
}

TEST(LogProbabilities, AnIdBeyondTheLogitsIsImpossible) {
  EXPECT_EQ(logProbabilities(std::vector<float>{1, 2}, 2, 0).chosen, kImpossible);
  EXPECT_EQ(logProbabilities({}, 0, 5).chosen, kImpossible);
}

}  // namespace
}  // namespace zemtest
