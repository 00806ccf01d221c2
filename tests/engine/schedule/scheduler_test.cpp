// SPDX-License-Identifier: Apache-2.0
#include "engine/schedule/scheduler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "engine/model/shaped_model.h"
#include "engine/recording_listener.h"
#include "matmul/thread_team.h"

namespace zem {
namespace {

using zemtest::RecordingListener;
using Ids = std::vector<uint32_t>;

// A letter a token.
class Letters : public TokenBytes {
 public:
  explicit Letters(uint32_t size) {
    for (uint32_t i = 0; i < size; ++i)
      texts_.push_back(std::string(1, static_cast<char>('a' + i % 26)));
    sorted_.emplace(texts_);
  }
  std::string_view bytesOf(uint32_t id) const override { return texts_[id]; }
  uint32_t size() const override { return static_cast<uint32_t>(texts_.size()); }
  const text::TokenTexts& texts() const override { return *sorted_; }

 private:
  std::vector<std::string> texts_;
  std::optional<text::TokenTexts> sorted_;
};

Request greedy(Ids prompt, uint64_t tokens) {
  Request request;
  request.prompt = std::move(prompt);
  request.sampling.temperature = 0;
  request.stops.maxTokens = tokens;
  return request;
}

Request drawn(Ids prompt, uint64_t tokens, uint64_t seed) {
  Request request = greedy(std::move(prompt), tokens);
  request.sampling.temperature = 1;
  request.sampling.topP = 0.9F;
  request.sampling.seed = seed;
  return request;
}

class SchedulerTest : public testing::Test {
 protected:
  SchedulerTest() {
    zemtest::writeShapedModel(file_, zemtest::smallArchitecture());
    weights_ = zemtest::openWeights(file_);
    letters_.emplace(static_cast<uint32_t>(weights_->shape().vocabulary));
    restart({});
  }

  void restart(const SchedulerOptions& options) {
    scheduler_.reset();
    decoder_.emplace(*weights_, CacheType::F16);
    scheduler_.emplace(*decoder_, *letters_, options);
  }

  Ids ids(size_t count, uint32_t seed = 1) const {
    return zemtest::randomIds(count, decoder_->vocabulary(), seed);
  }

  std::shared_ptr<RecordingListener> add(Request request) {
    auto listener = std::make_shared<RecordingListener>();
    EXPECT_EQ(scheduler_->check(request).message(), "");
    Ticket ticket;
    ticket.request = std::move(request);
    ticket.listener = listener;
    ticket.cancelled = std::make_shared<std::atomic<bool>>(false);
    cancelled_ = ticket.cancelled;
    scheduler_->add({std::move(ticket)});
    return listener;
  }

  void runToEnd() {
    for (int turns = 0; scheduler_->turn(); ++turns) ASSERT_LT(turns, 100000);
  }

  // The reply of a scheduler that nothing else has touched.
  Ids alone(const Request& request) {
    Decoder decoder(*weights_, CacheType::F16);
    Scheduler scheduler(decoder, *letters_, {.cacheBytes = 0});
    const auto listener = std::make_shared<RecordingListener>();
    Ticket ticket;
    ticket.request = request;
    ticket.listener = listener;
    ticket.cancelled = std::make_shared<std::atomic<bool>>(false);
    scheduler.add({std::move(ticket)});
    while (scheduler.turn()) {
    }
    return listener->ids();
  }

  qwen35::ThreadTeam team_{1};
  qwen35::UseTeam use_{team_};
  zemtest::TempFile file_;
  std::unique_ptr<Weights> weights_;
  std::optional<Letters> letters_;
  std::optional<Decoder> decoder_;
  std::optional<Scheduler> scheduler_;
  std::shared_ptr<std::atomic<bool>> cancelled_;  // of the latest request
};

TEST_F(SchedulerTest, RequestEndsAtItsLimit) {
  const auto reply = add(greedy(ids(100), 7));
  runToEnd();
  EXPECT_EQ(reply->ends(), 1);
  EXPECT_EQ(reply->end().reason, EndReason::Length);
  EXPECT_EQ(reply->tokens().size(), 7U);
  EXPECT_EQ(reply->text().size(), 7U);
  const Usage& usage = reply->end().usage;
  EXPECT_EQ(usage.prompt, 100U);
  EXPECT_EQ(usage.reused, 0U);
  EXPECT_EQ(usage.generated, 7U);
  EXPECT_EQ(reply->prompt().front(), std::make_pair(size_t{0}, size_t{100}));
  EXPECT_EQ(reply->prompt().back(), std::make_pair(size_t{100}, size_t{100}));
  EXPECT_TRUE(std::ranges::is_sorted(reply->prompt()));
}

TEST_F(SchedulerTest, PromptOfOneTokenAndReplyOfOne) {
  const auto reply = add(greedy({3}, 1));
  runToEnd();
  EXPECT_EQ(reply->end().reason, EndReason::Length);
  EXPECT_EQ(reply->tokens().size(), 1U);
}

TEST_F(SchedulerTest, ReplyOfNoTokensEndsAtOnce) {
  const auto reply = add(greedy(ids(5), 0));
  runToEnd();
  EXPECT_EQ(reply->end().reason, EndReason::Length);
  EXPECT_TRUE(reply->tokens().empty());
}

TEST_F(SchedulerTest, ContextEndsTheReply) {
  restart({.context = 40});
  const auto reply = add(greedy(ids(30), kNoTokenLimit));
  runToEnd();
  EXPECT_EQ(reply->end().reason, EndReason::Context);
  EXPECT_EQ(reply->tokens().size(), 10U);
}

TEST_F(SchedulerTest, ManyAtOnceAnswerLikeEachAlone) {
  for (const size_t batch : {17, 48, 200}) {
    restart({.sequences = 3, .batchTokens = batch});
    std::vector<Request> requests;
    std::vector<std::shared_ptr<RecordingListener>> replies;
    for (uint32_t i = 0; i < 9; ++i) {
      requests.push_back(drawn(ids(5 + 37 * i, i), 20 + i, i));
      replies.push_back(add(requests.back()));
    }
    runToEnd();
    for (size_t i = 0; i < requests.size(); ++i) {
      EXPECT_EQ(replies[i]->ids(), alone(requests[i])) << batch << ", " << i;
    }
  }
}

TEST_F(SchedulerTest, EqualGreedyRequestsGiveOneText) {
  restart({.sequences = 4});
  std::vector<std::shared_ptr<RecordingListener>> replies;
  for (int i = 0; i < 10; ++i) replies.push_back(add(greedy(ids(70), 30)));
  runToEnd();
  for (const auto& reply : replies) EXPECT_EQ(reply->text(), replies.front()->text());
}

TEST_F(SchedulerTest, LongPromptDoesNotHoldUpAReply) {
  restart({.sequences = 2, .batchTokens = 32});
  const auto reply = add(greedy(ids(10), 60));
  scheduler_->turn();
  ASSERT_EQ(reply->tokens().size(), 1U);
  add(greedy(ids(900, 2), 1));
  for (size_t turn = 0; turn < 20; ++turn) {
    scheduler_->turn();
    ASSERT_EQ(reply->tokens().size(), turn + 2) << "a token a turn";
  }
}

TEST_F(SchedulerTest, PromptsTakeTurns) {
  restart({.sequences = 3, .batchTokens = 30});
  const auto first = add(greedy(ids(600, 1), 1));
  const auto second = add(greedy(ids(600, 2), 1));
  for (int turn = 0; turn < 8; ++turn) scheduler_->turn();
  const size_t a = first->prompt().back().first;
  const size_t b = second->prompt().back().first;
  EXPECT_GT(std::min(a, b), 60U);
  runToEnd();
}

TEST_F(SchedulerTest, KeptStateGivesTheSameReply) {
  const Ids prompt = ids(150);
  const Request cold = drawn(prompt, 25, 7);
  const Ids want = alone(cold);
  for (int i = 0; i < 3; ++i) {
    const auto reply = add(cold);
    runToEnd();
    EXPECT_EQ(reply->ids(), want) << i;
  }
}

TEST_F(SchedulerTest, SamePromptAgainIsNotEvaluated) {
  const Request request = drawn(ids(70), 9, 5);
  const auto first = add(request);
  runToEnd();
  const auto second = add(request);
  const auto none = add(greedy(ids(70), 0));
  runToEnd();
  EXPECT_EQ(first->end().usage.reused, 0U);
  EXPECT_EQ(second->end().usage.reused, 70U);
  EXPECT_EQ(second->ids(), first->ids());
  EXPECT_EQ(second->ids(), alone(request));
  EXPECT_EQ(second->prompt(), (std::vector<std::pair<size_t, size_t>>{{70, 70}}));
  EXPECT_EQ(none->ends(), 1);
  EXPECT_TRUE(none->tokens().empty());
}

// A reply that was saved has no logits behind it: its last token is evaluated again.
TEST_F(SchedulerTest, PromptThatEndsWhereAReplyDidIsAnsweredLikeACold) {
  const auto first = add(drawn(ids(70), 9, 5));
  runToEnd();
  Ids conversation = ids(70);
  const Ids reply = first->ids();
  conversation.insert(conversation.end(), reply.begin(), reply.end() - 1);
  for (int i = 0; i < 2; ++i) {
    const auto second = add(drawn(conversation, 9, 6));
    runToEnd();
    EXPECT_EQ(second->ids(), alone(drawn(conversation, 9, 6)));
    EXPECT_EQ(second->end().usage.reused, i == 0 ? 70U : conversation.size());
  }
}

TEST_F(SchedulerTest, NextTurnOfAConversationReusesTheLast) {
  const Request first = greedy(ids(100), 20);
  const auto reply = add(first);
  runToEnd();
  Ids prompt = first.prompt;
  const Ids answer = reply->ids();
  prompt.insert(prompt.end(), answer.begin(), answer.end());
  const Ids question = ids(30, 9);
  prompt.insert(prompt.end(), question.begin(), question.end());
  const Request second = greedy(prompt, 20);
  const auto next = add(second);
  runToEnd();
  EXPECT_EQ(next->end().usage.reused, 119U) << "prompt and reply but for its last token";
  EXPECT_EQ(next->ids(), alone(second));
  EXPECT_EQ(next->prompt().front().first, 119U);
}

TEST_F(SchedulerTest, StatesAreKeptWhereARequestAsks) {
  Request request = greedy(ids(200), 5);
  request.keepAt = {64, 100, 9999, 0};
  add(request);
  runToEnd();
  Ids other(request.prompt.begin(), request.prompt.begin() + 130);
  const Ids end = ids(20, 5);
  other.insert(other.end(), end.begin(), end.end());
  const auto reply = add(greedy(other, 10));
  runToEnd();
  EXPECT_EQ(reply->end().usage.reused, 100U);
  EXPECT_EQ(reply->end().usage.known, 130U);
  EXPECT_EQ(reply->ids(), alone(greedy(other, 10)));
}

TEST_F(SchedulerTest, ForkIsKeptWhereASecondPromptBranchesOff) {
  Ids shared = ids(90);
  const auto branch = [&](uint32_t seed) {
    Ids prompt = shared;
    const Ids end = ids(40, seed);
    prompt.insert(prompt.end(), end.begin(), end.end());
    return greedy(prompt, 5);
  };
  for (const size_t reused : {0, 0, 90, 90}) {
    const Request request = branch(static_cast<uint32_t>(100 + scheduler_->cache().states()));
    const auto reply = add(request);
    runToEnd();
    EXPECT_EQ(reply->end().usage.reused, reused);
    EXPECT_EQ(reply->ids(), alone(request));
  }
}

TEST_F(SchedulerTest, WithoutMemoryForTheCacheNothingIsKept) {
  restart({.cacheBytes = 0});
  add(greedy(ids(100), 5));
  runToEnd();
  EXPECT_EQ(scheduler_->cache().states(), 0U);
  EXPECT_EQ(decoder_->pool().bytesInUse(), 0U);
}

TEST_F(SchedulerTest, StopTextEndsTheReplyAndDoesNotLeak) {
  const std::string text = [&] {
    const auto reply = add(greedy(ids(20), 40));
    runToEnd();
    return reply->text();
  }();
  Request request = greedy(ids(20), 40);
  request.stops.stopTexts = {text.substr(10, 3)};
  const auto reply = add(request);
  runToEnd();
  EXPECT_EQ(reply->end().reason, EndReason::StopText);
  EXPECT_EQ(reply->end().stopText, 0U);
  EXPECT_EQ(reply->text(), text.substr(0, text.find(text.substr(10, 3))));
}

TEST_F(SchedulerTest, EndTokenEndsTheReply) {
  const auto probe = add(greedy(ids(20), 10));
  runToEnd();
  Request request = greedy(ids(20), 10);
  request.stops.endTokens = {probe->ids()[4]};
  const auto reply = add(request);
  runToEnd();
  EXPECT_EQ(reply->end().reason, EndReason::Stop);
  const Ids want = probe->ids();
  const auto first = std::ranges::find(want, want[4]);
  EXPECT_EQ(reply->ids(), Ids(want.begin(), first + 1));
}

TEST_F(SchedulerTest, LogProbabilitiesComeWithTheTokens) {
  Request request = greedy(ids(20), 3);
  request.logProbabilities = 2;
  const auto reply = add(request);
  runToEnd();
  for (const Token& token : reply->tokens()) {
    ASSERT_TRUE(token.logProbabilities);
    ASSERT_EQ(token.logProbabilities->likeliest.size(), 2U);
    EXPECT_EQ(token.logProbabilities->likeliest[0].id, token.id);
    EXPECT_EQ(token.logProbabilities->likeliest[0].logProbability, token.logProbabilities->chosen);
    EXPECT_LT(token.logProbabilities->chosen, 0);
  }
}

TEST_F(SchedulerTest, ThinkingBudgetForcesItsEnd) {
  Request request = greedy(ids(20), 12);
  request.thinking = ThinkingOptions{
      .beginToken = 1, .endToken = 2, .closing = {5, 6}, .budget = 4, .inside = true};
  const auto reply = add(request);
  runToEnd();
  const Ids tokens = reply->ids();
  ASSERT_EQ(tokens.size(), 12U);
  EXPECT_EQ(Ids(tokens.begin() + 4, tokens.begin() + 7), Ids({5, 6, 2}));
}

TEST_F(SchedulerTest, CancelEndsWithinATurn) {
  const auto reply = add(greedy(ids(3000), 100));
  const auto cancel = cancelled_;
  scheduler_->turn();
  EXPECT_FALSE(reply->hasEnded());
  *cancel = true;
  scheduler_->turn();
  EXPECT_EQ(reply->end().reason, EndReason::Cancelled);
  EXPECT_EQ(reply->end().usage.generated, 0U);
  EXPECT_EQ(scheduler_->running(), 0U);
}

TEST_F(SchedulerTest, CancelledWhileWaitingNeverRuns) {
  restart({.sequences = 1});
  add(greedy(ids(10), 50));
  const auto waiting = add(greedy(ids(10), 50));
  scheduler_->turn();
  *cancelled_ = true;
  scheduler_->turn();
  EXPECT_EQ(waiting->end().reason, EndReason::Cancelled);
  EXPECT_TRUE(waiting->prompt().empty());
  runToEnd();
}

TEST_F(SchedulerTest, ListenerThatThrowsEndsItsRequestAlone) {
  const auto bad = add(greedy(ids(10), 50));
  bad->onEachToken = [](const Token&) { throw std::runtime_error("gone"); };
  const auto good = add(greedy(ids(12), 20));
  runToEnd();
  EXPECT_EQ(bad->tokens().size(), 1U);
  EXPECT_FALSE(bad->hasEnded());
  EXPECT_EQ(good->ids(), alone(greedy(ids(12), 20)));
}

TEST_F(SchedulerTest, RequestsWaitForMemory) {
  const size_t page = decoder_->pool().layout().bytes();
  const size_t one = decoder_->recurrentBytes() + 2 * page;
  restart({.sequences = 4, .memoryBytes = 2 * one, .cacheBytes = 0});
  std::vector<std::shared_ptr<RecordingListener>> replies;
  for (int i = 0; i < 5; ++i) replies.push_back(add(greedy(ids(100), 28)));
  scheduler_->turn();
  EXPECT_EQ(scheduler_->running(), 2U);
  runToEnd();
  for (const auto& reply : replies) EXPECT_EQ(reply->end().reason, EndReason::Length);
}

TEST_F(SchedulerTest, RequestsThatCannotBeComputedAreRefused) {
  const size_t page = decoder_->pool().layout().bytes();
  restart({.context = 100, .memoryBytes = decoder_->recurrentBytes() + page});
  const auto why = [&](const Request& request) { return scheduler_->check(request).message(); };
  EXPECT_EQ(why(greedy({}, 1)), "the prompt is empty, needs at least one token");
  EXPECT_EQ(why(greedy({1, 106}, 1)), "token 1 of the prompt is 106, the model has 106 tokens");
  EXPECT_EQ(why(greedy(ids(100), 1)),
            "the prompt has 100 tokens, but prompt and reply together have room for 100");
  EXPECT_NE(why(greedy(ids(60), 30)).find("MiB; ask for fewer tokens"), std::string::npos);
  EXPECT_EQ(why(greedy(ids(60), 4)), "");
  Request request = greedy(ids(5), 1);
  request.sampling.topP = 7;
  EXPECT_NE(why(request), "");
  request = greedy(ids(5), 1);
  request.stops.stopTexts = {""};
  EXPECT_NE(why(request), "");
}

// A batch with such a token cannot be computed, for anybody in it.
TEST_F(SchedulerTest, ThinkingThatEndsWithUnknownTokensIsRefused) {
  const auto why = [&](const ThinkingOptions& thinking) {
    Request request = greedy(ids(5), 20);
    request.thinking = thinking;
    return scheduler_->check(request).message();
  };
  EXPECT_EQ(why({1, 2, {3, 4}, 5, true}), "");
  EXPECT_EQ(why({1, 2, {3, 106}, 5, true}),
            "thinking ends with token 106, the model has 106 tokens");
  EXPECT_EQ(why({1, 4000000000, {3}, 5, true}),
            "thinking ends with token 4000000000, the model has 106 tokens");
}

// A vocabulary that fails once.
class FailingLetters : public Letters {
 public:
  using Letters::Letters;
  uint32_t size() const override {
    if (std::exchange(fails, false)) throw std::runtime_error("no random numbers");
    return Letters::size();
  }
  mutable bool fails = false;
};

TEST_F(SchedulerTest, RequestThatCannotBeginEndsAlone) {
  const FailingLetters letters(letters_->size());
  scheduler_.emplace(*decoder_, letters, SchedulerOptions{.sequences = 2});
  const auto running = add(greedy(ids(10), 5));
  scheduler_->turn();
  const auto failing = add(greedy(ids(10, 2), 5));
  letters.fails = true;
  runToEnd();
  ASSERT_EQ(failing->ends(), 1);
  EXPECT_EQ(failing->end().reason, EndReason::Error);
  EXPECT_EQ(failing->end().error, "no random numbers");
  EXPECT_EQ(running->end().reason, EndReason::Length);
}

TEST_F(SchedulerTest, ThousandRandomRequestsWithRandomCancels) {
  restart({.sequences = 3, .batchTokens = 40, .context = 200, .cacheBytes = size_t{200} << 10});
  std::mt19937 random(1);
  std::vector<std::pair<std::shared_ptr<RecordingListener>, std::shared_ptr<std::atomic<bool>>>>
      all;
  size_t most = 0;
  for (int i = 0; i < 1000; ++i) {
    all.emplace_back(add(drawn(ids(1 + random() % 90, random() % 8), random() % 12, i)),
                     cancelled_);
    if (random() % 4 == 0) *all[random() % all.size()].second = true;
    for (size_t turns = random() % 3; turns > 0; --turns) scheduler_->turn();
    most = std::max(most, decoder_->pool().bytesInUse());
  }
  runToEnd();
  for (const auto& [listener, cancelled] : all) {
    ASSERT_EQ(listener->ends(), 1);
    const EndReason want = *cancelled ? listener->end().reason : EndReason::Length;
    ASSERT_EQ(listener->end().reason, want);
  }
  EXPECT_EQ(scheduler_->running(), 0U);
  EXPECT_LE(scheduler_->cache().bytes(), size_t{200} << 10);
  // What is left is the cache's.
  EXPECT_LE(decoder_->pool().bytesInUse(), scheduler_->cache().bytes());
}

TEST_F(SchedulerTest, EndAllEndsWhatRunsAndWhatWaits) {
  restart({.sequences = 1});
  const auto running = add(greedy(ids(10), 50));
  const auto waiting = add(greedy(ids(10), 50));
  scheduler_->turn();
  scheduler_->endAll(EndReason::Error, "the end");
  EXPECT_EQ(running->end().error, "the end");
  EXPECT_EQ(waiting->end().error, "the end");
  EXPECT_FALSE(scheduler_->turn());
}

}  // namespace
}  // namespace zem
