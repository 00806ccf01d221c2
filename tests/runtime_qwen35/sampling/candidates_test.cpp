// SPDX-License-Identifier: Apache-2.0
// Choosing without sorting against sorting everything, on every instruction set
// that this processor has.
#include "sampling/candidates.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "kiv/math/exact_math.h"
#include "qwen35_cpu.h"
#include "runtime_qwen35/sampling/hard_logits.h"
#include "runtime_qwen35_vulkan/sampling/plain_sampling.h"

namespace qwen35 {
namespace {

namespace plain = qwen35rt::plain;
using namespace zemtest::hard;

class LoopsTest : public ::testing::TestWithParam<CpuLevel> {
 protected:
  const SamplingLoops& loops_ = kernelTable(GetParam()).sampling;
};

INSTANTIATE_TEST_SUITE_P(Levels, LoopsTest,
                         ::testing::ValuesIn(cpuLevels().begin(), cpuLevels().end()),
                         [](const auto& level) { return cpuLevelName(level.param); });

TEST_P(LoopsTest, AForcedLevelIsTheOneThatIsUsed) {
  const ForcedCpuLevel forced(GetParam());
  EXPECT_EQ(&kernelTable().sampling, &loops_);
}

TEST(SamplingLoopsTest, Avx2HasLoopsOfItsOwn) {
  const SamplingLoops& avx2 = kernelTable(CpuLevel::Avx2).sampling;
  const SamplingLoops& baseline = kernelTable(CpuLevel::Baseline).sampling;
  EXPECT_NE(avx2.extent, baseline.extent);
  EXPECT_NE(avx2.buckets, baseline.buckets);
  EXPECT_NE(avx2.weights, baseline.weights);
}

Extent plainExtent(const std::vector<float>& x, float scale) {
  Extent extent = {-kInf, kInf, 0, false};
  for (size_t i = 0; i < x.size(); ++i) {
    const float value = x[i] * scale;
    if (std::isnan(value)) extent.hasNan = true;
    if (value > extent.largest) {
      extent.largest = value;
      extent.firstLargest = i;
    }
    if (value < extent.smallest) extent.smallest = value;
  }
  return extent;
}

TEST_P(LoopsTest, TheExtentIsThatOfAPlainLoop) {
  for (uint32_t seed = 0; seed < 400; ++seed) {
    std::mt19937 random(seed);
    std::vector<float> x = logitsOf(static_cast<int>(seed) % kKinds, random() % 2300, seed);
    for (size_t nans = seed % 3; nans > 0 && !x.empty(); --nans) x[random() % x.size()] = kNan;
    const float scale = seed % 2 == 0 ? 1.0F : 1.0F / 0.7F;
    const Extent extent = loops_.extent(x.data(), x.size(), scale);
    const Extent expected = plainExtent(x, scale);
    ASSERT_EQ(extent.largest, expected.largest) << seed;
    ASSERT_EQ(extent.smallest, expected.smallest) << seed;
    ASSERT_EQ(extent.firstLargest, expected.firstLargest) << seed;
    ASSERT_EQ(extent.hasNan, expected.hasNan) << seed;
  }
}

TEST_P(LoopsTest, WeightsHaveTheBitsOfTheExponential) {
  std::vector<float> x;
  for (float value = -800.0F; value < 0.0F; value += 0.0371F) x.push_back(value);
  for (const float value : {-745.0F, -745.2F, -746.0F, -746.5F, -708.4F, -0.0F, 0.0F, -kTiny, -kMax,
                            -kInf, -1e-20F, -36.7F}) {
    x.push_back(value);
  }
  for (const float max : {0.0F, 1.0F, 17.3F}) {
    for (size_t skipped = 0; skipped < 19; ++skipped) {
      const size_t n = x.size() - skipped;
      std::vector<double> weights(n);
      loops_.weights(x.data() + skipped, n, 1.0F, max, weights.data());
      for (size_t i = 0; i < n; ++i) {
        const double expected =
            kiv::math::expF64(static_cast<double>(x[skipped + i]) - static_cast<double>(max));
        ASSERT_EQ(std::bit_cast<uint64_t>(weights[i]), std::bit_cast<uint64_t>(expected))
            << x[skipped + i];
      }
    }
  }
}

TEST_P(LoopsTest, BucketsNeverFallWhereValuesFall) {
  for (uint32_t seed = 0; seed < 60; ++seed) {
    std::vector<float> x = logitsOf(static_cast<int>(seed) % kKinds, 1000 + seed, seed);
    std::sort(x.begin(), x.end(), std::greater<>());
    if (!std::isfinite(x[0])) continue;
    for (const float resolution : {1e-3F, 22.2F, 1e30F, kMax}) {
      std::vector<uint32_t> buckets(x.size());
      loops_.buckets(x.data(), x.size(), 1.0F, x[0], resolution, 1023, buckets.data());
      ASSERT_EQ(buckets[0], 0U);
      ASSERT_TRUE(std::is_sorted(buckets.begin(), buckets.end())) << seed;
      ASSERT_LE(buckets.back(), 1023U);
      for (size_t i = 1; i < x.size(); ++i) {
        if (x[i] == x[i - 1]) {
          ASSERT_EQ(buckets[i], buckets[i - 1]);
        }
      }
    }
  }
}

std::vector<plain::Ranked> byRank(std::vector<Candidate> candidates) {
  std::vector<plain::Ranked> ranked;
  for (const Candidate& candidate : candidates) ranked.push_back({candidate.value, candidate.id});
  std::sort(ranked.begin(), ranked.end(), plain::ranksBefore);
  return ranked;
}

TEST_P(LoopsTest, TheBestCandidatesAreTheFirstOfTheRanking) {
  for (uint32_t seed = 0; seed < 88; ++seed) {
    std::mt19937 random(seed);
    const size_t n = 1 + random() % 4000;
    const std::vector<float> x = logitsOf(static_cast<int>(seed) % kKinds, n, seed);
    const Extent extent = loops_.extent(x.data(), n, 1.0F);
    if (!std::isfinite(extent.largest)) continue;
    const CandidateList list = {x.data(), n, 1.0F, nullptr};
    for (const size_t count : {size_t{1}, size_t{40}, n / 2, n - 1, n}) {
      if (count < 1 || count > n) continue;
      const auto best = byRank(bestCandidates(list, extent, count, loops_));
      const auto expected = plain::ranking(x.data(), n, 1.0F, static_cast<int>(count));
      ASSERT_EQ(best.size(), expected.size()) << "seed " << seed;
      for (size_t i = 0; i < count; ++i) {
        ASSERT_EQ(best[i].id, expected[i].id) << "seed " << seed << " of " << count;
        ASSERT_EQ(best[i].value, expected[i].value);
      }
    }
  }
}

// Draws in the middle of nowhere, at both ends, and right at the borders between
// two candidates, where the walk's own rounding decides.
std::vector<double> drawsFor(const std::vector<plain::Ranked>& ranked, std::mt19937& random) {
  std::vector<double> draws = {0.0, 0x1p-64, 0x1p-53, 0.5, 1.0 - 0x1p-53};
  for (int i = 0; i < 20; ++i) draws.push_back(std::ldexp(static_cast<double>(random()), -32));
  double total = 0.0;
  for (const auto& entry : ranked) total += weightOf(entry.value, ranked[0].value);
  const size_t place = random() % ranked.size();
  double before = 0.0;
  for (size_t i = 0; i < ranked.size(); ++i) {
    before += weightOf(ranked[i].value, ranked[0].value);
    if (i != 0 && i != place && i != ranked.size() / 2) continue;
    const double border = before / total;
    for (const double shift : {-1e-9, -0x1p-52, -0x1p-53, 0.0, 0x1p-53, 0x1p-52, 1e-9}) {
      const double draw = border + shift;
      if (draw >= 0.0 && draw < 1.0) draws.push_back(draw);
    }
  }
  return draws;
}

TEST_P(LoopsTest, ADrawByWeightIsThatOfTheWalkOrDeclined) {
  size_t answered = 0;
  size_t asked = 0;
  for (uint32_t seed = 0; seed < 132; ++seed) {
    std::mt19937 random(seed);
    const int kind = static_cast<int>(seed) % kKinds;
    const size_t n = 1 + random() % (seed % 5 == 0 ? 9000 : 1500);
    const std::vector<float> x = logitsOf(kind, n, seed);
    const float temperature = seed % 3 == 0 ? 1.0F : 0.7F;
    const float scale = 1.0F / temperature;
    const Extent extent = loops_.extent(x.data(), n, scale);
    if (!std::isfinite(extent.largest)) continue;
    const auto ranked = plain::ranking(x.data(), n, temperature, 0);
    for (const double u : drawsFor(ranked, random)) {
      const auto id = drawByWeight({x.data(), n, scale, nullptr}, extent, u, loops_);
      ++asked;
      if (!id) continue;
      ++answered;
      ASSERT_EQ(*id, plain::walk(ranked, u, 0.0F)) << "seed " << seed << " u " << u;
    }
  }
  EXPECT_GT(answered, asked / 2);
}

TEST_P(LoopsTest, AlmostNoOrdinaryDrawIsDeclined) {
  for (const int kind : {Bell, Peaked, FewValues, AllEqual, TwoTowers, EverFiner, Masked}) {
    const std::vector<float> x = logitsOf(kind, 5000, 77);
    const Extent extent = loops_.extent(x.data(), x.size(), 1.0F);
    std::mt19937_64 random(5);
    int declined = 0;
    for (int i = 0; i < 200; ++i) {
      const double u = std::ldexp(static_cast<double>(random() >> 11), -53);
      if (!drawByWeight({x.data(), x.size(), 1.0F, nullptr}, extent, u, loops_)) ++declined;
    }
    EXPECT_LE(declined, 1) << kind;
  }
}

TEST_P(LoopsTest, IdsComeFromTheListThatNamesThem) {
  const std::vector<float> x(3000, 1.0F);
  std::vector<int> ids(x.size());
  for (size_t i = 0; i < ids.size(); ++i) ids[i] = static_cast<int>(5000 - i);
  const Extent extent = loops_.extent(x.data(), x.size(), 1.0F);
  const CandidateList list = {x.data(), x.size(), 1.0F, ids.data()};
  // Equal values rank by id, whatever their order in the list.
  EXPECT_EQ(drawByWeight(list, extent, 0.25 + 1e-5, loops_), 2001 + 750);
  EXPECT_EQ(byRank(bestCandidates(list, extent, 3, loops_))[2].id, 2003);
}

}  // namespace
}  // namespace qwen35
