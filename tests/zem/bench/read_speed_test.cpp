#include "bench/read_speed.h"

#include <gtest/gtest.h>

#include <cmath>

namespace zemtool {
namespace {

TEST(ReadSpeed, IsANumberOnAnyNumberOfThreads) {
  for (const int threads : {1, 3}) {
    const double speed = measureReadSpeed(threads);
    EXPECT_TRUE(std::isfinite(speed)) << threads;
    EXPECT_GT(speed, 0.0) << threads;
  }
}

TEST(ReadSpeed, ReadsMoreThanCachesHold) { EXPECT_GE(readSpeedBytes(), size_t{512} << 20); }

}  // namespace
}  // namespace zemtool
