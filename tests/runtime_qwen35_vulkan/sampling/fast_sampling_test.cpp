// SPDX-License-Identifier: Apache-2.0
// The whole choice against sorting everything, on every instruction set that this processor has.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "qwen35_cpu.h"
#include "runtime_qwen35/sampling/hard_logits.h"
#include "runtime_qwen35_vulkan/sampling/plain_sampling.h"
#include "sampling/sampling.h"

namespace qwen35rt {
namespace {

using namespace zemtest::hard;
using qwen35::CpuLevel;
using qwen35::cpuLevelName;
using qwen35::cpuLevels;
using qwen35::ForcedCpuLevel;

class FastSamplingLevelsTest : public ::testing::TestWithParam<CpuLevel> {};

INSTANTIATE_TEST_SUITE_P(Levels, FastSamplingLevelsTest,
                         ::testing::ValuesIn(cpuLevels().begin(), cpuLevels().end()),
                         [](const auto& level) { return cpuLevelName(level.param); });

// Vocabularies on both sides of the size where it changes.
TEST(FastSamplingTest, EqualsSortingEverything) {
  for (uint32_t seed = 0; seed < 66; ++seed) {
    std::mt19937 random(seed);
    const size_t n = 1000 + random() % 1500;
    std::vector<float> logits = logitsOf(static_cast<int>(seed) % kKinds, n, seed);
    if (seed % 7 == 0) logits[random() % n] = kNan;
    if (seed % 11 == 3) logits[random() % n] = kInf;
    for (const float temperature : {0.05F, 0.7F, 1.0F, 30.0F, 1e-45F, kInf, kNan}) {
      for (const int topK : {0, 2, 40, 1100, static_cast<int>(n) - 1, static_cast<int>(n)}) {
        for (const float topP : {0.0F, 0.9F}) {
          std::mt19937 fast(seed);
          std::mt19937 slow(seed);
          const int id = sampleNext(logits.data(), n, temperature, topK, topP, fast);
          const int expected = plain::sampleNext(logits.data(), n, temperature, topK, topP, slow);
          ASSERT_EQ(id, expected) << "seed " << seed << " temperature " << temperature << " topK "
                                  << topK << " topP " << topP;
          ASSERT_EQ(fast, slow);
        }
      }
    }
  }
}

TEST_P(FastSamplingLevelsTest, AChoiceEqualsSortingAVocabularyOfFullSize) {
  const ForcedCpuLevel forced(GetParam());
  constexpr size_t kVocabulary = 248320;
  for (const int kind : {Bell, Peaked, AllEqual, TwoTowers}) {
    const std::vector<float> logits = logitsOf(kind, kVocabulary, 9);
    const auto ranked = plain::ranking(logits.data(), kVocabulary, 0.8F, 0);
    std::mt19937 fast(3);
    std::mt19937 slow(3);
    for (int i = 0; i < 5; ++i) {
      ASSERT_EQ(sampleNext(logits.data(), kVocabulary, 0.8F, 0, 0.0F, fast),
                plain::walk(ranked, plain::canonical(slow), 0.0F));
    }
  }
}

TEST_P(FastSamplingLevelsTest, ArgmaxEqualsAPlainLoop) {
  const ForcedCpuLevel forced(GetParam());
  for (uint32_t seed = 0; seed < 400; ++seed) {
    std::mt19937 random(seed);
    std::vector<float> x = logitsOf(static_cast<int>(seed) % kKinds, random() % 2300, seed);
    for (size_t nans = seed % 3; nans > 0 && !x.empty(); --nans) x[random() % x.size()] = kNan;
    if (seed % 9 == 0 && !x.empty()) x[0] = kNan;
    ASSERT_EQ(argmax(x.data(), x.size()), plain::argmax(x.data(), x.size())) << seed;
  }
}

}  // namespace
}  // namespace qwen35rt
