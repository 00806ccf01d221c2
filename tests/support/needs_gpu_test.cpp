// SPDX-License-Identifier: Apache-2.0
#include "support/needs_gpu.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include "support/scoped_env.h"

namespace zemtest {
namespace {

constexpr const char* kVariable = "ZEM_REQUIRE_GPU";

TEST(NeedsGpu, IsSwitchedOnByAnyTextButNoneAndZero) {
  for (const char* value : {static_cast<const char*>(nullptr), "", "0"}) {
    const ScopedEnv env(kVariable, value);
    EXPECT_FALSE(gpuIsRequired());
  }
  for (const char* value : {"1", "yes", "00", " "}) {
    const ScopedEnv env(kVariable, value);
    EXPECT_TRUE(gpuIsRequired()) << value;
  }
}

// What a test without a device comes to.
::testing::TestPartResult::Type outcome(const char* value) {
  const ScopedEnv env(kVariable, value);
  ::testing::TestPartResultArray results;
  {
    const ::testing::ScopedFakeTestPartResultReporter reporter(
        ::testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &results);
    const auto test = [] { ZEM_SKIP_WITHOUT_GPU("no device"); };
    test();
  }
  EXPECT_EQ(results.size(), 1);
  return results.GetTestPartResult(0).type();
}

TEST(NeedsGpu, WantOfADeviceSkipsOrFails) {
  EXPECT_EQ(outcome(nullptr), ::testing::TestPartResult::kSkip);
  EXPECT_EQ(outcome("1"), ::testing::TestPartResult::kFatalFailure);
}

}  // namespace
}  // namespace zemtest
