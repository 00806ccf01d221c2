// SPDX-License-Identifier: Apache-2.0
#include "kiv/math/checked.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace kiv {
namespace {

constexpr uint64_t kMost = ~uint64_t{0};

TEST(CheckedMul, GivesProductsThatFit) {
  uint64_t product = 7;
  EXPECT_TRUE(checkedMul(0, kMost, product));
  EXPECT_EQ(product, 0U);
  EXPECT_TRUE(checkedMul(kMost, 1, product));
  EXPECT_EQ(product, kMost);
  EXPECT_TRUE(checkedMul(uint64_t{1} << 32, (uint64_t{1} << 32) - 1, product));
  EXPECT_EQ(product, kMost - ((uint64_t{1} << 32) - 1));
}

TEST(CheckedMul, RefusesTheFirstThatDoesNot) {
  uint64_t product = 0;
  EXPECT_FALSE(checkedMul(uint64_t{1} << 32, uint64_t{1} << 32, product));
  EXPECT_FALSE(checkedMul(kMost, 2, product));
}

TEST(CheckedMul, MayWriteIntoAFactor) {
  uint64_t rows = 6;
  EXPECT_TRUE(checkedMul(rows, 7, rows));
  EXPECT_EQ(rows, 42U);
}

TEST(Saturating, StopsAtTheLargestNumber) {
  EXPECT_EQ(saturatingMul(3, 4), 12U);
  EXPECT_EQ(saturatingMul(kMost, 0), 0U);
  EXPECT_EQ(saturatingMul(kMost / 2, 3), kSaturated);
  EXPECT_EQ(saturatingAdd(kMost - 1, 1), kMost);
  EXPECT_EQ(saturatingAdd(kMost - 1, 2), kSaturated);
  EXPECT_EQ(saturatingAdd(kSaturated, kSaturated), kSaturated);
}

}  // namespace
}  // namespace kiv
