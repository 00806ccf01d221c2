// SPDX-License-Identifier: Apache-2.0
#include "engine/engine.h"

#include <gtest/gtest.h>

#include <limits>
#include <memory>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "engine/model/shaped_model.h"
#include "engine/recording_listener.h"
#include "support/tiny_model.h"

namespace zem {
namespace {

using zemtest::RecordingListener;

Request requestFor(std::vector<uint32_t> prompt, uint64_t tokens) {
  Request request;
  request.prompt = std::move(prompt);
  request.sampling.seed = 3;
  request.stops.maxTokens = tokens;
  return request;
}

class EngineTest : public testing::Test {
 protected:
  EngineTest() { zemtest::writeShapedModel(file_, zemtest::smallArchitecture()); }

  std::unique_ptr<Engine> open(const EngineOptions& options = {.threads = 2}) {
    std::unique_ptr<Engine> engine;
    const kiv::Status status = Engine::open(file_.string(), options, engine);
    EXPECT_TRUE(status.ok()) << status.message();
    return engine;
  }

  static std::string replyOf(Engine& engine, const Request& request) {
    const auto listener = std::make_shared<RecordingListener>();
    RequestHandle handle;
    const kiv::Status status = engine.submit(request, listener, handle);
    EXPECT_TRUE(status.ok()) << status.message();
    listener->waitForEnd();
    return listener->text();
  }

  zemtest::TempFile file_;
};

TEST_F(EngineTest, RepliesOnSeveralThreadsAreThoseOfOneAfterTheOther) {
  std::vector<Request> requests;
  for (uint32_t i = 0; i < 12; ++i) {
    requests.push_back(requestFor(zemtest::randomIds(10 + 20 * i, 100, i), 20));
  }
  std::vector<std::string> want;
  {
    const auto engine = open({.threads = 1, .sequences = 1, .cacheBytes = 0});
    for (const Request& request : requests) want.push_back(replyOf(*engine, request));
  }
  const auto engine = open();
  std::vector<std::string> got(requests.size());
  std::vector<std::thread> clients;
  for (size_t i = 0; i < requests.size(); ++i) {
    clients.emplace_back([&, i] { got[i] = replyOf(*engine, requests[i]); });
  }
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(got, want);
}

TEST_F(EngineTest, TwoEnginesWorkSideBySide) {
  const auto first = open();
  const auto second = open();
  const Request request = requestFor({1, 2, 3}, 30);
  std::string a;
  std::thread other([&] { a = replyOf(*first, request); });
  const std::string b = replyOf(*second, request);
  other.join();
  EXPECT_EQ(a, b);
}

TEST_F(EngineTest, CancelEndsALongReply) {
  const auto engine = open();
  const auto listener = std::make_shared<RecordingListener>();
  RequestHandle handle;
  ASSERT_TRUE(engine->submit(requestFor({1}, kNoTokenLimit), listener, handle).ok());
  handle.cancel();
  EXPECT_EQ(listener->waitForEnd().reason, EndReason::Cancelled);
  handle.cancel();
  RequestHandle().cancel();
}

TEST_F(EngineTest, ClosingEndsEveryRequest) {
  std::vector<std::shared_ptr<RecordingListener>> listeners;
  {
    const auto engine = open();
    for (int i = 0; i < 10; ++i) {
      listeners.push_back(std::make_shared<RecordingListener>());
      RequestHandle handle;
      ASSERT_TRUE(engine->submit(requestFor({1, 2}, 4000), listeners.back(), handle).ok());
    }
  }
  for (const auto& listener : listeners) {
    EXPECT_EQ(listener->ends(), 1);
    EXPECT_EQ(listener->end().reason, EndReason::Cancelled);
  }
}

TEST_F(EngineTest, QueueIsBounded) {
  const auto engine = open({.threads = 1, .sequences = 1, .waiting = 2});
  std::vector<std::shared_ptr<RecordingListener>> listeners;
  std::vector<RequestHandle> handles;
  std::string message;
  for (int i = 0; i < 100 && message.empty(); ++i) {
    listeners.push_back(std::make_shared<RecordingListener>());
    message = engine->submit(requestFor({1, 2}, 4000), listeners.back(), handles.emplace_back())
                  .message();
  }
  EXPECT_EQ(message, "too many requests wait: 2");
  EXPECT_EQ(listeners.size(), 4U) << "one that runs, two that wait, one that is refused";
  listeners.pop_back();
  for (const RequestHandle& handle : handles) handle.cancel();
  for (const auto& listener : listeners) listener->waitForEnd();
}

TEST_F(EngineTest, QueueMayBeWithoutABound) {
  const auto engine = open({.threads = 1, .waiting = std::numeric_limits<size_t>::max()});
  for (int i = 0; i < 20; ++i) {
    RequestHandle handle;
    const auto listener = std::make_shared<RecordingListener>();
    const kiv::Status status = engine->submit(requestFor({1, 2}, 4000), listener, handle);
    ASSERT_TRUE(status.ok()) << status.message();
  }
}

// Asks for another reply when one has ended.
class RepeatingListener : public Listener {
 public:
  explicit RepeatingListener(Engine& engine) : engine_(engine) {}
  void onToken(const Token& /*token*/) override {}
  void onEnd(const End& /*end*/) override {
    RequestHandle handle;
    message_ = engine_.submit(requestFor({1, 2}, 4000), next_, handle).message();
  }
  const RecordingListener& next() const { return *next_; }
  const std::string& message() const { return message_; }

 private:
  Engine& engine_;
  std::shared_ptr<RecordingListener> next_ = std::make_shared<RecordingListener>();
  std::string message_;
};

TEST_F(EngineTest, RequestThatIsMadeWhileTheEngineEndsIsRefused) {
  auto engine = open();
  const auto listener = std::make_shared<RepeatingListener>(*engine);
  RequestHandle handle;
  ASSERT_TRUE(engine->submit(requestFor({1, 2}, 4000), listener, handle).ok());
  engine.reset();
  EXPECT_EQ(listener->message(), "the engine ends");
  EXPECT_FALSE(listener->next().hasEnded());
}

TEST_F(EngineTest, LoadShowsWhatIsKept) {
  const auto engine = open();
  EXPECT_EQ(engine->load().keptStates, 0U);
  replyOf(*engine, requestFor(zemtest::randomIds(40, 100, 1), 5));
  // The listener hears of the end before the step is over.
  while (engine->load().keptStates == 0) std::this_thread::yield();
  EXPECT_GT(engine->load().keptBytes, 0U);
  EXPECT_EQ(engine->load().evictions, 0U);
}

TEST_F(EngineTest, LoadCountsSteps) {
  const auto engine = open();
  const auto steps = [&] {
    const Engine::Load load = engine->load();
    const auto& counts = load.steps.counts();
    return std::accumulate(counts.begin(), counts.end(), uint64_t{0});
  };
  EXPECT_EQ(steps(), 0U);
  replyOf(*engine, requestFor(zemtest::randomIds(40, 100, 1), 5));
  // The prompt is one batch and gives the first token. The last token is not fed.
  while (steps() < 5) std::this_thread::yield();
  EXPECT_EQ(steps(), 5U);
  EXPECT_GT(engine->load().steps.sum(), 0.0);
}

TEST_F(EngineTest, LoadCountsStatesThatGiveWay) {
  size_t oneReply = 0;
  {
    const auto engine = open();
    replyOf(*engine, requestFor(zemtest::randomIds(40, 100, 1), 5));
    while (engine->load().keptStates < 2) std::this_thread::yield();
    oneReply = engine->load().keptBytes;
  }
  const auto engine = open({.threads = 1, .cacheBytes = oneReply});
  for (uint32_t i = 0; i < 10; ++i) {
    replyOf(*engine, requestFor(zemtest::randomIds(40, 100, i), 5));
  }
  while (engine->load().evictions < 9) std::this_thread::yield();
  EXPECT_LE(engine->load().keptBytes, oneReply);
}

TEST_F(EngineTest, SavedConversationGoesOnInAnotherEngine) {
  const zemtest::TempFile saved;
  std::vector<uint32_t> conversation = zemtest::randomIds(100, 100, 1);
  std::string want;
  {
    const auto engine = open();
    const auto first = std::make_shared<RecordingListener>();
    RequestHandle handle;
    ASSERT_TRUE(engine->submit(requestFor(conversation, 20), first, handle).ok());
    first->waitForEnd();
    const std::vector<uint32_t> reply = first->ids();
    conversation.insert(conversation.end(), reply.begin(), reply.end());
    size_t tokens = 0;
    const kiv::Status status = engine->save(conversation, saved.string(), tokens);
    ASSERT_TRUE(status.ok()) << status.message();
    EXPECT_EQ(tokens, 119U);
    conversation.push_back(5);
    want = replyOf(*engine, requestFor(conversation, 30));
  }
  const auto engine = open();
  std::vector<uint32_t> restored;
  const kiv::Status status = engine->restore(saved.string(), restored);
  ASSERT_TRUE(status.ok()) << status.message();
  EXPECT_EQ(restored, std::vector<uint32_t>(conversation.begin(), conversation.begin() + 119));
  const auto next = std::make_shared<RecordingListener>();
  RequestHandle handle;
  ASSERT_TRUE(engine->submit(requestFor(conversation, 30), next, handle).ok());
  EXPECT_EQ(next->waitForEnd().usage.reused, 119U);
  EXPECT_EQ(next->text(), want);
}

TEST_F(EngineTest, WhatCannotBeSavedOrRestoredIsTold) {
  const auto engine = open({.threads = 1, .cacheBytes = 1000});
  size_t tokens = 0;
  EXPECT_EQ(engine->save({1, 2, 3}, file_.string(), tokens).message(),
            "nothing of this conversation is kept");
  std::vector<uint32_t> conversation;
  EXPECT_EQ(engine->restore(file_.string(), conversation).message(),
            file_.string() + ": is not a saved conversation");
}

TEST_F(EngineTest, ContextIsTheModelsAndCanBeSmaller) {
  EXPECT_EQ(open()->context(), 4096U);
  EXPECT_EQ(open({.context = 100})->context(), 100U);
  EXPECT_EQ(open({.context = 1000000})->context(), 4096U);
}

TEST_F(EngineTest, BadRequestsAreRefused) {
  const auto engine = open();
  RequestHandle handle;
  const kiv::Status status =
      engine->submit(requestFor({}, 1), std::make_shared<RecordingListener>(), handle);
  EXPECT_EQ(status.message(), "the prompt is empty, needs at least one token");
}

TEST_F(EngineTest, FilesThatAreNoModelsAreRefused) {
  std::unique_ptr<Engine> engine;
  EXPECT_FALSE(Engine::open("no such file", {}, engine).ok());
  EXPECT_EQ(engine, nullptr);
}

TEST_F(EngineTest, VocabularyWithoutASourceIsThePlugins) {
  const auto engine = open();
  const Vocabulary& vocabulary = engine->vocabulary();
  EXPECT_FALSE(vocabulary.isExact());
  EXPECT_EQ(vocabulary.size(), zemtest::tinyTokenizer().tokens.size());
  EXPECT_EQ(vocabulary.endTokens(), std::vector<uint32_t>({0, 2}));
  std::vector<uint32_t> ids;
  ASSERT_TRUE(vocabulary.encode("the sys", text::AddedTokens::Recognised, ids).ok());
  std::string text;
  for (const uint32_t id : ids) text += vocabulary.bytesOf(id);
  EXPECT_EQ(text, "the sys");
  EXPECT_EQ(vocabulary.bytesOf(1), "");
  EXPECT_EQ(vocabulary.spellingOf(1), "<|im_start|>");
  EXPECT_EQ(vocabulary.bytesOf(1000000), "");
}

}  // namespace
}  // namespace zem
