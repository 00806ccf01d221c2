// SPDX-License-Identifier: Apache-2.0
#include "engine/stops/thinking_budget.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <vector>

namespace zemtest {

using namespace zem;

namespace {

constexpr uint32_t kThink = 50;
constexpr uint32_t kEndThink = 51;
using Ids = std::vector<uint32_t>;

ThinkingOptions options(uint64_t budget, bool inside) {
  ThinkingOptions made;
  made.beginToken = kThink;
  made.endToken = kEndThink;
  made.closing = {60, 61};
  made.budget = budget;
  made.inside = inside;
  return made;
}

// The reply when the model wants to write `wanted`.
Ids written(ThinkingBudget& budget, const Ids& wanted) {
  Ids reply;
  for (const uint32_t id : wanted) {
    while (const std::optional<uint32_t> forced = budget.forced()) {
      reply.push_back(*forced);
      budget.push(*forced);
    }
    reply.push_back(id);
    budget.push(id);
  }
  return reply;
}

TEST(ThinkingBudget, ForcesTheClosingAndTheEndThenTheAnswerGoesOn) {
  ThinkingBudget budget(options(2, true));
  EXPECT_EQ(written(budget, {1, 2, 3, 4}), (Ids{1, 2, 60, 61, kEndThink, 3, 4}));
  EXPECT_FALSE(budget.inside());
  EXPECT_EQ(budget.used(), 2U);
}

TEST(ThinkingBudget, AReplyMayBeginTheThinkingItself) {
  ThinkingBudget budget(options(1, false));
  EXPECT_EQ(written(budget, {7, kThink, 1, 2}), (Ids{7, kThink, 1, 60, 61, kEndThink, 2}));
}

TEST(ThinkingBudget, ThinkingThatEndsInTimeIsLeftAlone) {
  const Ids reply = {1, 2, kEndThink, 3, 4, 5, 6};
  ThinkingBudget enough(options(3, true));
  EXPECT_EQ(written(enough, reply), reply);
  EXPECT_EQ(enough.used(), 2U);
}

TEST(ThinkingBudget, AnEndRightAtTheLimitIsNotAskedFor) {
  ThinkingBudget budget(options(2, true));
  budget.push(1);
  budget.push(2);
  EXPECT_EQ(budget.forced(), 60U);
  budget.push(kEndThink);
  EXPECT_EQ(budget.forced(), std::nullopt);
}

TEST(ThinkingBudget, ZeroForcesAtOnce) {
  ThinkingBudget budget(options(0, true));
  EXPECT_EQ(written(budget, {1}), (Ids{60, 61, kEndThink, 1}));
}

TEST(ThinkingBudget, WithoutAClosingTextTheEndAloneIsForced) {
  ThinkingOptions bare = options(1, true);
  bare.closing.clear();
  ThinkingBudget budget(bare);
  EXPECT_EQ(written(budget, {1, 2}), (Ids{1, kEndThink, 2}));
}

TEST(ThinkingBudget, WithoutALimitNothingIsForced) {
  ThinkingBudget budget(options(kNoTokenLimit, true));
  const Ids reply(1000, 1);
  EXPECT_EQ(written(budget, reply), reply);
  EXPECT_EQ(budget.used(), 1000U);
}

TEST(ThinkingBudget, TokensOfTheAnswerDoNotCount) {
  ThinkingBudget budget(options(1, false));
  EXPECT_EQ(written(budget, {1, 2, 3}), (Ids{1, 2, 3}));
  EXPECT_EQ(budget.used(), 0U);
}

TEST(ThinkingBudget, ThinkingAgainHasWhatIsLeft) {
  ThinkingBudget budget(options(3, true));
  EXPECT_EQ(written(budget, {1, 2, kEndThink, 7, kThink, 3, 8}),
            (Ids{1, 2, kEndThink, 7, kThink, 3, 60, 61, kEndThink, 8}));
  EXPECT_EQ(written(budget, {kThink, 9}), (Ids{kThink, 60, 61, kEndThink, 9}));
}

TEST(ThinkingBudget, IdsOfTheClosingCountWhereTheModelWritesThemItself) {
  ThinkingBudget budget(options(3, true));
  EXPECT_EQ(written(budget, {60, 61, 60, 9}), (Ids{60, 61, 60, 60, 61, kEndThink, 9}));
}

}  // namespace
}  // namespace zemtest
