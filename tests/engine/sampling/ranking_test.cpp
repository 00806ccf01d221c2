// SPDX-License-Identifier: Apache-2.0
#include "engine/sampling/ranking.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <numeric>
#include <vector>

#include "runtime_qwen35/sampling/hard_logits.h"

namespace zemtest {

using namespace zem;
using namespace hard;

namespace {

std::vector<uint32_t> plainOrder(const std::vector<float>& values) {
  std::vector<uint32_t> ids(values.size());
  std::iota(ids.begin(), ids.end(), 0U);
  std::stable_sort(ids.begin(), ids.end(),
                   [&](uint32_t a, uint32_t b) { return values[a] > values[b]; });
  return ids;
}

void expectBest(const std::vector<float>& values) {
  std::vector<float> storage;
  const auto ranking = Ranking::of(values, storage);
  ASSERT_TRUE(ranking.has_value());
  const std::vector<uint32_t> order = plainOrder(values);
  EXPECT_EQ(ranking->first(), order[0]);
  const size_t n = values.size();
  for (const size_t count : {size_t{0}, size_t{1}, size_t{20}, size_t{255}, size_t{256},
                             size_t{257}, n / 4 - 1, n / 4, n - 1, n, n + 1}) {
    const std::vector<Candidate> best = ranking->best(count);
    ASSERT_EQ(best.size(), std::min(count, n));
    for (size_t i = 0; i < best.size(); ++i) {
      ASSERT_EQ(best[i].id, static_cast<int>(order[i])) << "rank " << i << " of " << count;
      ASSERT_EQ(best[i].value, values[order[i]]);
    }
  }
}

TEST(Ranking, BestAreTheFirstOfTheOrderInEverySearch) {
  for (int kind = 0; kind < AnyBits; ++kind) {
    for (const size_t n : {size_t{8}, size_t{300}, size_t{1024}, size_t{1025}, size_t{20000}}) {
      expectBest(logitsOf(kind, n, static_cast<uint32_t>(n)));
    }
  }
}

TEST(Ranking, ValuesThatRiseWithTheIdAreNoException) {
  std::vector<float> values = logitsOf(Bell, 20000, 1);
  std::sort(values.begin(), values.end());
  expectBest(values);
  std::sort(values.begin(), values.end(), std::greater<>());
  expectBest(values);
}

TEST(Ranking, TheMassIsSummedFromTheLowestId) {
  const std::vector<float> values = {-1.0F, -0.3F, -40.0F, 0.0F, -7.7F};
  std::vector<float> storage;
  double expected = 0.0;
  for (const float x : values) expected += qwen35::weightOf(x * 0.7F, 0.0F);
  EXPECT_EQ(Ranking::of(values, storage)->mass(0.7F), expected);
}

TEST(Ranking, GoodValuesAreNotCopied) {
  std::vector<float> storage;
  EXPECT_TRUE(Ranking::of(std::vector<float>{1, -kInf, 2}, storage).has_value());
  EXPECT_TRUE(storage.empty());
}

TEST(Ranking, StorageMayHoldTheValues) {
  std::vector<float> storage = {1, kNan, 2, kInf};
  const auto finite = Ranking::of(std::span(storage).first(3), storage);
  ASSERT_TRUE(finite.has_value());
  EXPECT_EQ(finite->best(3)[2].id, 1);
  EXPECT_EQ(storage[3], kInf);
  const auto infinite = Ranking::of(storage, storage);
  ASSERT_TRUE(infinite.has_value());
  EXPECT_EQ(infinite->first(), 3U);
  EXPECT_EQ(infinite->largest(), 0.0F);
}

}  // namespace
}  // namespace zemtest
