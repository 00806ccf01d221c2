// SPDX-License-Identifier: Apache-2.0
#include "engine/prefix/prefix_cache.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <vector>

namespace zem {
namespace {

using Ids = std::vector<uint32_t>;

constexpr qwen35::DeltaNetSizes kSizes{1, 1, 2};

kiv::Architecture tinyShape() {
  kiv::Architecture shape;
  shape.kvHeads = 1;
  shape.headSize = 32;
  return shape;
}

class PrefixCacheTest : public testing::Test {
 protected:
  // States of `count` tokens; those with the same `begins` share their full pages.
  Snapshot snapshot(size_t length, const Snapshot* begins = nullptr) {
    Snapshot made;
    made.length = length;
    made.recurrent = std::make_shared<RecurrentState>(kSizes, 1);
    const size_t pages = (length + kPagePositions - 1) / kPagePositions;
    for (size_t i = 0; i < pages; ++i) {
      const bool shared = begins != nullptr && (i + 1) * kPagePositions <= begins->length;
      made.pages.push_back(shared ? begins->pages[i] : pool_.make());
    }
    return made;
  }
  size_t bytes(size_t states, size_t pages) const {
    return states * RecurrentState(kSizes, 1).bytes() + pages * pool_.layout().bytes();
  }
  PrefixCache cacheFor(size_t states, size_t pages) const {
    return {bytes(states, pages), pool_.layout().bytes()};
  }

  PagePool pool_{PageLayout(tinyShape(), 1, CacheType::F32)};
};

size_t foundLength(PrefixCache& cache, const Ids& ids, size_t most = 1000) {
  const PrefixCache::Match match = cache.find(ids, most);
  return match.snapshot == nullptr ? 0 : match.snapshot->length;
}

TEST_F(PrefixCacheTest, FindsTheLongestBeginning) {
  PrefixCache cache = cacheFor(10, 10);
  cache.insert(Ids{1, 2, 3}, snapshot(3));
  cache.insert(Ids{1, 2, 3, 4, 5}, snapshot(5));
  cache.insert(Ids{1, 2, 9}, snapshot(3));
  EXPECT_EQ(cache.states(), 3U);
  EXPECT_EQ(foundLength(cache, {1, 2, 3, 4, 5, 6}), 5U);
  EXPECT_EQ(foundLength(cache, {1, 2, 3, 4, 5}), 5U);
  EXPECT_EQ(foundLength(cache, {1, 2, 3, 4, 5}, 4), 3U) << "at most 4 tokens";
  EXPECT_EQ(foundLength(cache, {1, 2, 3, 4}), 3U);
  EXPECT_EQ(foundLength(cache, {1, 2, 9, 9}), 3U);
  EXPECT_EQ(foundLength(cache, {1, 2}), 0U);
  EXPECT_EQ(foundLength(cache, {}), 0U);
  EXPECT_EQ(foundLength(cache, {7}), 0U);
}

TEST_F(PrefixCacheTest, KnowsHowFarAPromptIsKnown) {
  PrefixCache cache = cacheFor(10, 10);
  cache.insert(Ids{1, 2, 3, 4, 5}, snapshot(5));
  EXPECT_EQ(cache.find(Ids{1, 2, 3, 7}, 100).known, 3U);
  EXPECT_EQ(cache.find(Ids{1, 2, 3, 4, 5, 6}, 100).known, 5U);
  EXPECT_EQ(cache.find(Ids{2}, 100).known, 0U);
}

TEST_F(PrefixCacheTest, SharedPagesCountOnce) {
  PrefixCache cache = cacheFor(10, 10);
  const Snapshot first = snapshot(130);
  Ids ids(130, 1);
  cache.insert(ids, first);
  EXPECT_EQ(cache.bytes(), bytes(1, 3));
  ids.resize(140, 2);
  cache.insert(ids, snapshot(140, &first));
  EXPECT_EQ(cache.bytes(), bytes(2, 4));
  cache.insert(ids, snapshot(140));
  EXPECT_EQ(cache.bytes(), bytes(2, 4)) << "it is there already";
  while (cache.dropOne()) {
  }
  EXPECT_EQ(cache.bytes(), 0U);
  EXPECT_EQ(cache.states(), 0U);
  EXPECT_FALSE(cache.dropOne());
}

TEST_F(PrefixCacheTest, LeastRecentlyUsedGoesFirst) {
  PrefixCache cache = cacheFor(2, 2);
  cache.insert(Ids{1}, snapshot(1));
  cache.insert(Ids{2}, snapshot(1));
  EXPECT_EQ(foundLength(cache, {1}), 1U);
  cache.insert(Ids{3}, snapshot(1));
  EXPECT_EQ(foundLength(cache, {1}), 1U);
  EXPECT_EQ(foundLength(cache, {2}), 0U);
  EXPECT_EQ(foundLength(cache, {3}), 1U);
}

TEST_F(PrefixCacheTest, StatesOnTheWayToAnotherGoBeforeEndsAndForks) {
  PrefixCache cache = cacheFor(4, 4);
  cache.insert(Ids{5}, snapshot(1));
  cache.insert(Ids{1}, snapshot(1));
  cache.insert(Ids{1, 2}, snapshot(2));
  cache.insert(Ids{1, 2, 3}, snapshot(3));
  EXPECT_EQ(foundLength(cache, {1}), 1U);
  cache.insert(Ids{6}, snapshot(1));
  EXPECT_EQ(foundLength(cache, {1, 2}), 1U) << "used before {1}, on the way to {1, 2, 3}";
  EXPECT_EQ(foundLength(cache, {5}), 1U);
  EXPECT_EQ(foundLength(cache, {1, 2, 3}), 3U);
  cache.insert(Ids{1, 9}, snapshot(2));
  EXPECT_EQ(foundLength(cache, {1}), 1U) << "a fork now";
}

TEST_F(PrefixCacheTest, TooLargeForTheBudgetIsNotKept) {
  PrefixCache cache = cacheFor(1, 1);
  EXPECT_TRUE(cache.hasRoomFor(bytes(1, 0), 64));
  EXPECT_FALSE(cache.hasRoomFor(bytes(1, 0), 65));
  cache.insert(Ids{1}, snapshot(1));
  cache.insert(Ids(100, 2), snapshot(100));
  EXPECT_EQ(cache.states(), 1U);
  PrefixCache none(0, 1);
  EXPECT_FALSE(none.hasRoomFor(1, 1));
  none.insert(Ids{1}, snapshot(1));
  EXPECT_EQ(none.states(), 0U);
}

// Random use, held against a list.
TEST_F(PrefixCacheTest, RandomUseKeepsTheBudgetAndFindsWhatIsThere) {
  std::mt19937 random(1);
  PrefixCache cache = cacheFor(6, 6);
  std::vector<Ids> inserted;
  for (int i = 0; i < 3000; ++i) {
    Ids ids(1 + random() % 7);
    for (uint32_t& id : ids) id = random() % 2;
    if (random() % 2 == 0) {
      cache.insert(ids, snapshot(ids.size()));
      inserted.push_back(ids);
      ASSERT_EQ(foundLength(cache, ids), ids.size());
    }
    ASSERT_LE(cache.bytes(), bytes(6, 6));
    ASSERT_LE(cache.states(), 6U);
    ASSERT_EQ(cache.bytes(), bytes(cache.states(), cache.states()));
    const PrefixCache::Match match = cache.find(ids, 1000);
    ASSERT_LE(match.known, ids.size());
    if (match.snapshot == nullptr) continue;
    const Ids beginning(ids.begin(), ids.begin() + match.snapshot->length);
    ASSERT_NE(std::ranges::find(inserted, beginning), inserted.end());
  }
  cache.clear();
  EXPECT_EQ(cache.bytes(), 0U);
  EXPECT_EQ(pool_.bytesInUse(), 0U);
}

}  // namespace
}  // namespace zem
