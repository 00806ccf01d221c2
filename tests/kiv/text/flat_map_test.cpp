// SPDX-License-Identifier: Apache-2.0
#include "kiv/text/flat_map.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

namespace zemtest {

using namespace kiv;

namespace {

TEST(FlatMapTest, EmptyMapFindsNothing) {
  const FlatMap<int> map;
  EXPECT_EQ(map.find(0), nullptr);
  EXPECT_EQ(map.size(), 0U);
}

TEST(FlatMapTest, FirstValueOfAKeyStays) {
  FlatMap<int> map;
  map.insert(7, 1);
  map.insert(7, 2);
  ASSERT_NE(map.find(7), nullptr);
  EXPECT_EQ(*map.find(7), 1);
  EXPECT_EQ(map.size(), 1U);
}

TEST(FlatMapTest, ReserveKeepsTheEntries) {
  FlatMap<int> map;
  map.insert(3, 4);
  map.reserve(1000);
  map.reserve(1);
  ASSERT_NE(map.find(3), nullptr);
  EXPECT_EQ(*map.find(3), 4);
}

TEST(FlatMapTest, AgreesWithAnOrderedMapWhileItGrows) {
  std::mt19937_64 random(5);
  std::map<uint64_t, uint32_t> expected;
  FlatMap<uint32_t> map;
  for (uint32_t i = 0; i < 20000; ++i) {
    // Low bits, high bits or few values: whatever a bad hash would pile up.
    const uint64_t key = (random() % 3000) << (i % 3 == 0 ? 0 : 40);
    expected.emplace(key, i);
    map.insert(key, i);
  }
  EXPECT_EQ(map.size(), expected.size());
  for (const auto& [key, value] : expected) {
    ASSERT_NE(map.find(key), nullptr) << key;
    EXPECT_EQ(*map.find(key), value) << key;
    EXPECT_EQ(map.find(key | 1ULL << 63), nullptr);
  }
}

}  // namespace
}  // namespace zemtest
