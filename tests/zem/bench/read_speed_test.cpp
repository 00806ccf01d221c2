// SPDX-License-Identifier: Apache-2.0
#include "bench/read_speed.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <vector>

namespace zemtool {
namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Bytes a second of the C library's search for a byte that is not there, the best of three.
double searchSpeed() {
  const std::vector<unsigned char> bytes(size_t{256} << 20, 1);
  double best = 0;
  for (int i = 0; i < 3; ++i) {
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(std::memchr(bytes.data(), 0, bytes.size()), nullptr);
    best = std::max(best, static_cast<double>(bytes.size()) / secondsSince(start));
  }
  return best;
}

TEST(ReadSpeed, IsThatOfMemory) {
  const double known = searchSpeed();
  for (const int threads : {1, 3}) {
    const double speed = measureReadSpeed(threads);
    EXPECT_GT(speed, known / 20) << threads;
    EXPECT_LT(speed, known * 20 * threads) << threads;
  }
}

// The best of at least four passes is no slower than all of them together.
TEST(ReadSpeed, IsThatOfTheBestPass) {
  const Clock::time_point start = Clock::now();
  const double speed = measureReadSpeed(2);
  EXPECT_GE(speed * secondsSince(start), 4.0 * static_cast<double>(readSpeedBytes() - 1024));
}

TEST(ReadSpeed, ReadsMoreThanCachesHold) { EXPECT_GE(readSpeedBytes(), size_t{512} << 20); }

}  // namespace
}  // namespace zemtool
