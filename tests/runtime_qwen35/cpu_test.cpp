// SPDX-License-Identifier: Apache-2.0
#include "qwen35_cpu.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>

#include "compat/environment.h"

namespace qwen35 {
namespace {

TEST(CpuLevels, AreBestFirstAndEndWithTheBaseline) {
  const auto levels = cpuLevels();
  ASSERT_FALSE(levels.empty());
  EXPECT_EQ(levels.back(), CpuLevel::Baseline);
  EXPECT_TRUE(std::is_sorted(levels.begin(), levels.end(), std::greater<>()));
  EXPECT_EQ(std::adjacent_find(levels.begin(), levels.end()), levels.end());
}

TEST(CpuLevels, HaveNames) {
  EXPECT_STREQ(cpuLevelName(CpuLevel::Baseline), "baseline");
  EXPECT_STREQ(cpuLevelName(CpuLevel::Avx2), "avx2");
  EXPECT_STREQ(cpuLevelName(CpuLevel::Avx512), "avx512");
}

TEST(ForcedCpuLevel, HoldsUntilItIsGone) {
  const CpuLevel before = currentCpuLevel();
  for (const CpuLevel level : cpuLevels()) {
    const ForcedCpuLevel forced(level);
    EXPECT_EQ(currentCpuLevel(), level);
  }
  EXPECT_EQ(currentCpuLevel(), before);
}

// The variable is read once a process, so each case has a process of its own.
void exitWithLevel(const char* value) {
  compat::setEnvironmentVariable("QWEN35_CPU", value);
  std::exit(static_cast<int>(currentCpuLevel()));
}

class CpuVariable : public testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
  static testing::ExitedWithCode exitsWith(CpuLevel level) {
    return testing::ExitedWithCode(static_cast<int>(level));
  }
};

TEST_F(CpuVariable, NamesTheLevelToUse) {
  for (const CpuLevel level : cpuLevels()) {
    EXPECT_EXIT(exitWithLevel(cpuLevelName(level)), exitsWith(level), "^$");
  }
}

TEST_F(CpuVariable, EmptyMeansTheBest) {
  EXPECT_EXIT(exitWithLevel(""), exitsWith(cpuLevels().front()), "^$");
}

TEST_F(CpuVariable, UnknownNameIsReportedAndMeansTheBest) {
  EXPECT_EXIT(exitWithLevel("avx9"), exitsWith(cpuLevels().front()),
              "QWEN35_CPU: this processor has no level \"avx9\"; using");
}

}  // namespace
}  // namespace qwen35
