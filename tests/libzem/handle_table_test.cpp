// SPDX-License-Identifier: Apache-2.0
#include "libzem/handle_table.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "zem/engine.h"

namespace zem::boundary {
namespace {

using Table = HandleTable<int, zem_request, 2>;

TEST(HandleTableTest, FindsWhatWasPutIn) {
  Table table;
  const zem_request first = table.insert(std::make_shared<int>(1));
  const zem_request second = table.insert(std::make_shared<int>(2));
  EXPECT_NE(first, nullptr);
  EXPECT_EQ(*table.find(first), 1);
  EXPECT_EQ(*table.find(second), 2);
}

TEST(HandleTableTest, AfterAForkTheChildFindsNothingAndObjectsStay) {
  Table table;
  const auto object = std::make_shared<int>(1);
  const zem_request before = table.insert(object);
  table.remove(table.insert(std::make_shared<int>(2)));
  table.lock();
  table.forget();
  EXPECT_EQ(table.find(before), nullptr);
  EXPECT_EQ(table.remove(before), nullptr);
  EXPECT_EQ(object.use_count(), 2);
  const zem_request after = table.insert(std::make_shared<int>(3));
  EXPECT_NE(after, before);
  EXPECT_EQ(*table.find(after), 3);
  EXPECT_EQ(table.find(before), nullptr);
}

TEST(HandleTableTest, AfterAForkTheParentFindsAll) {
  Table table;
  const zem_request handle = table.insert(std::make_shared<int>(1));
  table.lock();
  table.unlock();
  EXPECT_EQ(*table.find(handle), 1);
}

TEST(HandleTableTest, NumbersThatAreNoHandlesFindNothing) {
  Table table;
  const auto handle = reinterpret_cast<uint64_t>(table.insert(std::make_shared<int>(1)));
  for (const uint64_t wrong :
       {uint64_t{0}, uint64_t{1}, uint64_t{2} << 8U, ~uint64_t{0}, handle + 1, handle + 256,
        handle + (uint64_t{1} << 32U), handle - 1, handle << 1U}) {
    EXPECT_EQ(table.find(reinterpret_cast<zem_request>(wrong)), nullptr) << wrong;
    EXPECT_EQ(table.remove(reinterpret_cast<zem_request>(wrong)), nullptr) << wrong;
  }
  EXPECT_NE(table.find(reinterpret_cast<zem_request>(handle)), nullptr);
}

TEST(HandleTableTest, ARemovedHandleNeverFindsTheNextObjectOfItsPlace) {
  Table table;
  std::set<zem_request> old;
  for (int i = 0; i < 1000; ++i) {
    const zem_request handle = table.insert(std::make_shared<int>(i));
    EXPECT_TRUE(old.insert(handle).second);
    EXPECT_EQ(*table.remove(handle), i);
    EXPECT_EQ(table.remove(handle), nullptr);
  }
  const zem_request living = table.insert(std::make_shared<int>(7));
  for (const zem_request handle : old) EXPECT_EQ(table.find(handle), nullptr);
  EXPECT_EQ(*table.find(living), 7);
}

TEST(HandleTableTest, HandlesOfAnotherKindFindNothing) {
  Table table;
  HandleTable<int, zem_engine, 1> other;
  const zem_request handle = table.insert(std::make_shared<int>(1));
  other.insert(std::make_shared<int>(2));
  EXPECT_EQ(other.find(reinterpret_cast<zem_engine>(handle)), nullptr);
}

TEST(HandleTableTest, OfManyThreadsThatRemoveOneGetsTheObject) {
  Table table;
  for (int round = 0; round < 50; ++round) {
    const zem_request handle = table.insert(std::make_shared<int>(1));
    std::atomic<int> got = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&] { got += table.remove(handle) != nullptr ? 1 : 0; });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(got, 1);
  }
}

}  // namespace
}  // namespace zem::boundary
