// SPDX-License-Identifier: Apache-2.0
#include "engine/sampling/token_window.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <unordered_map>

#include "engine/sampling_options.h"

namespace zemtest {

using namespace zem;

namespace {

using Counts = std::unordered_map<uint32_t, uint32_t>;

TEST(TokenWindow, CountsTheLastTokens) {
  TokenWindow window(3);
  EXPECT_EQ(window.counts(), Counts{});
  for (const uint32_t id : {5U, 5U, 7U}) window.push(id);
  EXPECT_EQ(window.counts(), (Counts{{5, 2}, {7, 1}}));
  window.push(7);
  EXPECT_EQ(window.counts(), (Counts{{5, 1}, {7, 2}}));
  window.push(8);
  EXPECT_EQ(window.counts(), (Counts{{7, 2}, {8, 1}}));
}

TEST(TokenWindow, OfNothingStaysEmpty) {
  TokenWindow window(0);
  window.push(1);
  EXPECT_EQ(window.counts(), Counts{});
}

TEST(TokenWindow, OfTheWholeReplyForgetsNothing) {
  TokenWindow window(kWholeReply);
  for (uint32_t i = 0; i < 100000; ++i) window.push(i % 2);
  EXPECT_EQ(window.counts(), (Counts{{0, 50000}, {1, 50000}}));
}

}  // namespace
}  // namespace zemtest
