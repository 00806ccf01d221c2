// SPDX-License-Identifier: Apache-2.0
#include "engine/sampling/constrained_draw.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <optional>
#include <random>
#include <vector>

#include "engine/sampling/chain_testing.h"
#include "engine/sampling/plain_chain.h"
#include "engine/sampling/sampler_chain.h"
#include "runtime_qwen35/sampling/hard_logits.h"
#include "support/thorough.h"

namespace zemtest {

using namespace zem;
using namespace hard;

namespace {

const uint32_t kSeeds = thorough() ? 5000 : 500;

// Draws in the middle of nowhere, and right at the borders between two ids.
std::vector<double> drawsFor(const std::vector<plain_chain::Entry>& kept, float temperature,
                             std::mt19937& random) {
  std::vector<double> draws = {0.0, 0x1p-53, 0.5, 1.0 - 0x1p-53};
  for (int i = 0; i < 10; ++i) draws.push_back(std::ldexp(static_cast<double>(random()), -32));
  const auto scaledWeight = [&](const plain_chain::Entry& entry) {
    return std::exp((double{entry.value} - double{kept[0].value}) / double{temperature});
  };
  double total = 0.0;
  for (const auto& entry : kept) total += scaledWeight(entry);
  double before = 0.0;
  for (size_t i = 0; i < std::min<size_t>(kept.size(), 4); ++i) {
    before += scaledWeight(kept[i]);
    for (const double shift : {-1e-8, -1e-9, -1e-10, -0x1p-53, 0.0, 0x1p-53, 1e-10, 1e-9, 1e-8}) {
      const double draw = before / total + shift;
      if (draw >= 0.0 && draw < 1.0) draws.push_back(draw);
    }
  }
  return draws;
}

TEST(ConstrainedDraw, IsThatOfAMaskOrDeclined) {
  size_t answered = 0;
  size_t asked = 0;
  for (uint32_t seed = 0; seed < kSeeds; ++seed) {
    std::mt19937 random(seed);
    const size_t n = 1 + random() % (seed % 4 == 0 ? 4000 : 200);
    const std::vector<float> logits = logitsOf(static_cast<int>(seed) % kKinds, n, seed);
    std::vector<float> storage;
    const auto ranking = Ranking::of(logits, storage);
    if (!ranking || !std::isfinite(ranking->largest())) continue;
    SamplingOptions options = someOptions(n, random);
    options.logitBias.clear();
    const unsigned share = oneOf(std::vector<unsigned>{1, 20, 128, 250, 256}, random);
    const MaskFilter filter(someIds(n, share, random));
    const auto masked =
        plain_chain::adjusted(logits, options, static_cast<uint32_t>(n), {}, &filter.allowed());
    const auto kept = plain_chain::kept(masked, options);
    const Cuts cuts(options, n);
    if (kept.empty()) {
      ASSERT_EQ(drawByTests(*ranking, cuts, 0.5, filter), std::nullopt) << seed;
      continue;
    }
    for (const double u : drawsFor(kept, std::max(options.temperature, 0.01F), random)) {
      const auto id = drawByTests(*ranking, cuts, u, filter);
      ++asked;
      if (!id) continue;
      ++answered;
      ASSERT_EQ(*id, plain_chain::drawn(kept, options.temperature, u)) << seed << " u " << u;
    }
  }
  EXPECT_GT(answered, asked / 2);
}

// Logits of a model that has a few ideas, the best of which is at id 0.
std::vector<float> confident(size_t n) {
  std::vector<float> logits = logitsOf(Bell, n, 3);
  for (size_t id = 0; id < 8; ++id) logits[id] = 30.0F - 3.0F * static_cast<float>(id);
  return logits;
}

std::vector<SamplingOptions> usualOptions() {
  std::vector<SamplingOptions> all = {defaultSampling(true), defaultSampling(false), {}, {}, {}};
  all[2].temperature = 0.0F;
  all[3].topP = 0.9F;
  all[4].minP = 0.05F;
  for (SamplingOptions& options : all) options.seed = 5;
  return all;
}

TEST(ConstrainedDraw, AConfidentModelNeedsAFewTestsAndNoMask) {
  constexpr uint32_t kIds = 50000;
  const std::vector<float> logits = confident(kIds);
  const MaskFilter everything(std::vector<bool>(kIds, true));
  for (const SamplingOptions& options : usualOptions()) {
    SamplerChain chain(options, kIds);
    for (int i = 0; i < 100; ++i) chain.next(logits, &everything);
  }
  EXPECT_EQ(everything.masks, 0);
  EXPECT_LT(everything.tests, 5 * 100 * 3);
}

TEST(ConstrainedDraw, TheOnlyAllowedIdNeedsNoMaskWhereTheModelExpectsIt) {
  constexpr uint32_t kIds = 50000;
  const std::vector<float> logits = confident(kIds);
  for (const uint32_t only : {0U, 1U, 2U}) {
    std::vector<bool> allowed(kIds);
    allowed[only] = true;
    const MaskFilter filter(allowed);
    for (const SamplingOptions& options : usualOptions()) {
      SamplerChain chain(options, kIds);
      for (int i = 0; i < 50; ++i) EXPECT_EQ(chain.next(logits, &filter), only);
    }
    EXPECT_LT(filter.masks, 5) << only;
  }
}

TEST(ConstrainedDraw, AnUnexpectedIdIsFoundByAMask) {
  constexpr uint32_t kIds = 50000;
  const std::vector<float> logits = confident(kIds);
  std::vector<bool> allowed(kIds);
  allowed[40000] = true;
  const MaskFilter filter(allowed);
  SamplerChain chain(defaultSampling(true), kIds);
  EXPECT_EQ(chain.next(logits, &filter), 40000U);
  EXPECT_EQ(filter.masks, 1);
}

TEST(ConstrainedDraw, NothingAllowedGivesNothing) {
  const MaskFilter nothing(std::vector<bool>(3000));
  const MaskFilter empty({});
  for (const SamplingOptions& options : usualOptions()) {
    SamplerChain chain(options, 3000);
    EXPECT_EQ(chain.next(confident(3000), &nothing), std::nullopt);
    EXPECT_EQ(chain.next(confident(3000), &empty), std::nullopt);
  }
}

TEST(ConstrainedDraw, RefusedInfinitiesLeaveTheOthersTheirShare) {
  const std::vector<float> logits = {1, kInf, 3, 2};
  const MaskFilter filter({true, false, true, true});
  SamplingOptions options;
  options.temperature = 0.0F;
  EXPECT_EQ(SamplerChain(options, 4).next(logits, &filter), 2U);
}

}  // namespace
}  // namespace zemtest
