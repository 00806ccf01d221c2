// SPDX-License-Identifier: Apache-2.0
// Frequencies of what is drawn against exact probabilities, by Pearson's chi-square
// test, feature by feature.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "kiv/plain_sampler.h"
#include "kiv/sampler.h"
#include "support/sanitizers.h"
#include "support/thorough.h"

namespace zemtest {

using namespace kiv;

namespace {

const int kDraws = zemtest::thorough() && !zemtest::kAddressSanitizer ? 100000 : 10000;

struct Feature {
  const char* name;
  SamplerConfig config;
  friend void PrintTo(const Feature& feature, std::ostream* out) { *out << feature.name; }
};

SamplerConfig everything() { return {0.8F, 30, 0.9F, 1.3F, 4, 0.4F, 0.2F, 0.02F}; }

const std::vector<Feature> kFeatures = {
    {"Temperature", {0.6F}},
    {"TopK", {1.0F, 20}},
    {"TopP", {1.0F, 0, 0.7F}},
    {"RepeatPenalty", {1.0F, 0, 1.0F, 1.5F, 5}},
    {"PresencePenalty", {1.0F, 0, 1.0F, 1.0F, 0, 0.9F}},
    {"FrequencyPenalty", {1.0F, 0, 1.0F, 1.0F, 0, 0.0F, 0.5F}},
    {"MinP", {1.0F, 0, 1.0F, 1.0F, 0, 0.0F, 0.0F, 0.2F}},
    {"Everything", everything()},
};

// Some ids stand out far enough to be drawn often among many.
std::vector<float> someLogits(size_t n) {
  std::mt19937 rng(1);
  std::vector<float> logits(n);
  for (float& x : logits) x = static_cast<float>(rng() % 6001) / 2000.0F - 4.0F;
  for (size_t i = 0; i < 60; ++i) logits[i * (n / 60)] = static_cast<float>(rng() % 300) / 100.0F;
  return logits;
}

// The best ids, several times, and ids that no vocabulary has.
std::vector<int32_t> someHistory(const std::vector<float>& logits) {
  const std::vector<size_t> order = plain::ranking(logits);
  const auto id = [&](size_t rank) { return static_cast<int32_t>(order[rank]); };
  return {id(0), id(1), id(0), -1, id(2), id(5), static_cast<int32_t>(logits.size()), id(2), id(2)};
}

struct ChiSquare {
  double statistic = 0.0;
  int degrees = -1;  // of freedom: one less than the categories
};

// Ids too rare for the chi-square distribution, which wants about five expected
// draws a category, are one category.
ChiSquare compare(const std::vector<int>& seen, const std::vector<double>& p) {
  ChiSquare result;
  double rareExpected = 0.0;
  double rareSeen = 0.0;
  const auto add = [&](double expected, double count) {
    result.statistic += (count - expected) * (count - expected) / expected;
    ++result.degrees;
  };
  for (size_t id = 0; id < p.size(); ++id) {
    const double expected = p[id] * kDraws;
    if (expected >= 10.0) {
      add(expected, seen[id]);
    } else {
      rareExpected += expected;
      rareSeen += seen[id];
    }
  }
  if (rareExpected >= 10.0) add(rareExpected, rareSeen);
  return result;
}

// How probable a statistic at least as large is with true frequencies: the upper
// tail of the chi-square distribution, by its series for whole degrees of freedom.
double tail(const ChiSquare& result) {
  const double half = result.statistic / 2.0;
  const bool odd = result.degrees % 2 != 0;
  double k = odd ? 0.5 : 0.0;
  double sum = odd ? std::erfc(std::sqrt(half)) : 0.0;
  double term = std::exp(-half) * std::pow(half, k) / std::tgamma(k + 1.0);
  for (; k < result.degrees / 2.0 - 0.5; term *= half / k) {
    sum += term;
    k += 1.0;
  }
  return sum;
}

// The seeds are fixed, so that a test fails always or never. With true frequencies
// one in a million seeds makes it fail; none of those here does.
constexpr double kImprobable = 1e-6;

class SamplerStatistics : public ::testing::TestWithParam<Feature> {};

void expectExactFrequencies(size_t n, const SamplerConfig& config, const SamplerConfig& without) {
  const std::vector<float> logits = someLogits(n);
  const std::vector<int32_t> history = someHistory(logits);
  std::mt19937 rng(20240817);
  const Sampler sampler(rng, config);
  std::vector<int> seen(n);
  for (int i = 0; i < kDraws; ++i) {
    ++seen[static_cast<size_t>(sampler.sample(logits.data(), n, history))];
  }

  const std::vector<double> p = plain::probabilities<double>(logits, config, history);
  for (size_t id = 0; id < n; ++id) {
    if (p[id] == 0.0) {
      EXPECT_EQ(seen[id], 0) << "id " << id;
    }
  }
  const ChiSquare result = compare(seen, p);
  EXPECT_GE(result.degrees, 5);
  EXPECT_GT(tail(result), kImprobable) << result.statistic << ", " << result.degrees << " degrees";

  // The test sees whether the feature is on.
  EXPECT_LT(tail(compare(seen, plain::probabilities<double>(logits, without, history))), 1e-30);
}

TEST_P(SamplerStatistics, FrequenciesAreExact) {
  expectExactFrequencies(200, GetParam().config, {});
}

TEST_P(SamplerStatistics, FrequenciesInALargeVocabularyAreExact) {
  SamplerConfig config = GetParam().config;
  SamplerConfig without;
  // Top-k is what takes the way by a list of candidates.
  if (config.topK == 0) config.topK = without.topK = 50;
  expectExactFrequencies(65537, config, without);
}

INSTANTIATE_TEST_SUITE_P(Features, SamplerStatistics, ::testing::ValuesIn(kFeatures),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(SamplerStatisticsTest, PlainFrequenciesAreThoseOfTheSoftmax) {
  const std::vector<float> logits = someLogits(200);
  std::mt19937 rng(7);
  const Sampler sampler(rng, {});
  std::vector<int> seen(200);
  for (int i = 0; i < kDraws; ++i)
    ++seen[static_cast<size_t>(sampler.sample(logits.data(), 200, {}))];
  EXPECT_GT(tail(compare(seen, plain::probabilities<double>(logits, {}, {}))), kImprobable);
}

// Quantiles as tables have them.
TEST(SamplerStatisticsTest, TailsAreThoseOfTheTables) {
  EXPECT_NEAR(tail({11.345, 3}), 0.01, 1e-5);
  EXPECT_NEAR(tail({18.307, 10}), 0.05, 1e-5);
  EXPECT_NEAR(tail({35.888, 5}), 1e-6, 1e-9);
  EXPECT_NEAR(tail({112.608, 50}), 1e-6, 1e-9);
  EXPECT_NEAR(tail({3.841, 1}), 0.05, 1e-4);
  EXPECT_NEAR(tail({5.991, 2}), 0.05, 1e-4);
}

}  // namespace
}  // namespace zemtest
