// SPDX-License-Identifier: Apache-2.0
// Frequencies of what is drawn against probabilities, by Pearson's chi-square test.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <numeric>
#include <ostream>
#include <random>
#include <vector>

#include "engine/sampling/chain_testing.h"
#include "engine/sampling/plain_chain.h"
#include "engine/sampling/sampler_chain.h"
#include "support/thorough.h"

namespace zemtest {

using namespace zem;

namespace {

constexpr uint32_t kIds = 1500;
const int kDraws = thorough() ? 50000 : 5000;

struct Case {
  const char* name;
  SamplingOptions options;
  bool filtered;
  friend void PrintTo(const Case& c, std::ostream* out) { *out << c.name; }
};

std::vector<Case> cases() {
  SamplingOptions off;
  SamplingOptions cool;
  cool.temperature = 0.6F;
  SamplingOptions topP;
  topP.topP = 0.7F;
  SamplingOptions minP;
  minP.minP = 0.2F;
  minP.temperature = 1.5F;
  std::vector<Case> all;
  for (const bool filtered : {false, true}) {
    all.push_back({filtered ? "OffFiltered" : "Off", off, filtered});
    all.push_back({filtered ? "CoolFiltered" : "Cool", cool, filtered});
    all.push_back({filtered ? "TopPFiltered" : "TopP", topP, filtered});
    all.push_back({filtered ? "MinPFiltered" : "MinP", minP, filtered});
    all.push_back({filtered ? "DefaultFiltered" : "Default", defaultSampling(false), filtered});
  }
  return all;
}

// Some ids stand out far enough to be drawn often among many.
std::vector<float> someLogits() {
  std::mt19937 random(1);
  std::vector<float> logits(kIds);
  for (float& x : logits) x = static_cast<float>(random() % 6001) / 2000.0F - 6.0F;
  for (size_t i = 0; i < 60; ++i) logits[i * 25] = static_cast<float>(random() % 300) / 100.0F;
  return logits;
}

std::vector<double> probabilities(const std::vector<float>& logits, const SamplingOptions& options,
                                  const std::vector<bool>* allowed) {
  const auto kept = plain_chain::kept(
      plain_chain::adjusted(logits, options, kIds, {0, 25, 25}, allowed), options);
  std::vector<double> p(kIds);
  for (const auto& entry : kept) {
    p[entry.id] = std::exp(double{entry.value} / double{options.temperature});
  }
  const double total = std::accumulate(p.begin(), p.end(), 0.0);
  for (double& each : p) each /= total;
  return p;
}

class SamplerStatistics : public ::testing::TestWithParam<Case> {};

INSTANTIATE_TEST_SUITE_P(Cases, SamplerStatistics, ::testing::ValuesIn(cases()),
                         [](const auto& c) { return c.param.name; });

TEST_P(SamplerStatistics, FrequenciesAreThoseOfTheMaskedDistribution) {
  const std::vector<float> logits = someLogits();
  SamplingOptions options = GetParam().options;
  options.seed = 2024;
  std::mt19937 random(5);
  const MaskFilter filter(someIds(kIds, 150, random));
  const bool filtered = GetParam().filtered;
  const auto p = probabilities(logits, options, filtered ? &filter.allowed() : nullptr);

  SamplerChain chain(options, kIds);
  for (const uint32_t id : {0U, 25U, 25U}) chain.record(id);
  std::vector<int> seen(kIds);
  for (int i = 0; i < kDraws; ++i) ++seen[chain.next(logits, filtered ? &filter : nullptr).value()];

  // Ids too rare for the chi-square distribution are one category.
  double statistic = 0.0;
  int degrees = -1;
  double rareExpected = 0.0;
  int rareSeen = 0;
  const auto add = [&](double expected, double count) {
    statistic += (count - expected) * (count - expected) / expected;
    ++degrees;
  };
  for (size_t id = 0; id < kIds; ++id) {
    if (p[id] == 0.0) {
      ASSERT_EQ(seen[id], 0) << id;
    } else if (p[id] * kDraws >= 10.0) {
      add(p[id] * kDraws, seen[id]);
    } else {
      rareExpected += p[id] * kDraws;
      rareSeen += seen[id];
    }
  }
  if (rareExpected >= 5.0) add(rareExpected, rareSeen);
  ASSERT_GE(degrees, 2);
  // Its mean and standard deviation; beyond four of them chance does not come.
  EXPECT_LT(statistic, degrees + 4.0 * std::sqrt(2.0 * degrees));
}

}  // namespace
}  // namespace zemtest
