// SPDX-License-Identifier: Apache-2.0
// Every request for memory of the engine, made to fail: an error, nothing leaked (the sanitized
// build looks), and an engine that goes on.
#include <gtest/gtest.h>

#include <array>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "engine/engine.h"
#include "engine/model/shaped_model.h"
#include "engine/text/constraint.h"
#include "support/failing_memory.h"
#include "support/temp_file.h"

namespace zem {
namespace {

using zemtest::FailingMemory;
using zemtest::requestsWorthFailing;
using zemtest::Shortage;

constexpr size_t kTokens = 12;

// Needs no memory: an exception of a listener would end the request without a last call.
class FixedListener : public Listener {
 public:
  void onToken(const Token& token) override { ids_.at(count_++) = token.id; }
  void onEnd(const End& end) override {
    const std::lock_guard lock(mutex_);
    failed_ = end.reason == EndReason::Error;
    hasEnded_ = true;
    ended_.notify_all();
  }

  // Whether the reply came whole.
  bool waitForEnd() {
    std::unique_lock lock(mutex_);
    ended_.wait(lock, [&] { return hasEnded_; });
    return !failed_;
  }
  const std::array<uint32_t, kTokens>& ids() const { return ids_; }

 private:
  std::mutex mutex_;
  std::condition_variable ended_;
  bool hasEnded_ = false;
  bool failed_ = false;
  size_t count_ = 0;
  std::array<uint32_t, kTokens> ids_{};
};

using Ids = std::array<uint32_t, kTokens>;

class EngineMemoryTest : public testing::TestWithParam<Shortage> {
 protected:
  EngineMemoryTest() {
    // A tokenizer.json is read by a library that allocates in destructors, and so ends the process.
    zemtest::writeShapedModel(file_, zemtest::smallArchitecture());
    EXPECT_TRUE(
        text::Constraint::compile(text::Json::parse(R"({"type": "string"})"), {}, form_).ok());
  }

  // Null when there was no memory.
  std::unique_ptr<Engine> open() const {
    std::unique_ptr<Engine> engine;
    try {
      const EngineOptions options = {.threads = 1, .sequences = 2};
      if (!Engine::open(file_.string(), options, engine).ok()) return nullptr;
    } catch (const std::bad_alloc&) {
      return nullptr;
    }
    return engine;
  }

  Request request(uint32_t seed) const {
    Request request;
    request.prompt = zemtest::randomIds(100, 100, seed);
    request.keepAt = {40};
    request.sampling.seed = seed;
    request.sampling.presencePenalty = 0.5F;
    request.stops.stopTexts = {"a text that never comes"};
    request.stops.maxTokens = kTokens;
    request.logProbabilities = 3;
    request.thinking = {1, 2, {}, 5, true};
    request.form = form_;
    return request;
  }

  // False when there was no memory.
  static bool reply(Engine& engine, const Request& request, Ids& ids) {
    try {
      const auto listener = std::make_shared<FixedListener>();
      RequestHandle handle;
      if (!engine.submit(request, listener, handle).ok() || !listener->waitForEnd()) return false;
      ids = listener->ids();
      return true;
    } catch (const std::bad_alloc&) {
      return false;
    }
  }

  static bool saveAndRestore(Engine& engine, const Request& request, const std::string& path) {
    try {
      size_t saved = 0;
      std::vector<uint32_t> conversation;
      return engine.save(request.prompt, path, saved).ok() &&
             engine.restore(path, conversation).ok();
    } catch (const std::bad_alloc&) {
      return false;
    }
  }

  zemtest::TempFile file_;
  std::shared_ptr<const text::Constraint> form_;
};

TEST_P(EngineMemoryTest, EngineThatCannotOpenSaysSo) {
  ASSERT_NE(open(), nullptr);
  const std::vector<size_t> requests = requestsWorthFailing([&] { open(); });
  ASSERT_GT(requests.size(), 20U);
  for (const size_t index : requests) {
    SCOPED_TRACE("request " + std::to_string(index));
    const FailingMemory failing(index, GetParam());
    const bool opened = open() != nullptr;
    if (GetParam() == Shortage::Lasting && failing.failed()) {
      EXPECT_FALSE(opened);
    }
  }
  EXPECT_NE(open(), nullptr);
}

TEST_P(EngineMemoryTest, EngineGoesOnAfterAnyFailure) {
  const std::unique_ptr<Engine> engine = open();
  ASSERT_NE(engine, nullptr);
  const zemtest::TempFile saved;
  // Each time another prompt: nothing of it is kept.
  uint32_t seed = 1;
  const auto work = [&] {
    Ids ids;
    try {
      const Request asked = request(++seed);
      return reply(*engine, asked, ids) && saveAndRestore(*engine, asked, saved.string());
    } catch (const std::bad_alloc&) {
      return false;
    }
  };
  ASSERT_TRUE(work());
  Ids want;
  ASSERT_TRUE(reply(*engine, request(1), want));
  const std::vector<size_t> requests = requestsWorthFailing(work);
  ASSERT_GT(requests.size(), 50U);
  size_t failures = 0;
  for (const size_t index : requests) {
    SCOPED_TRACE("request " + std::to_string(index));
    {
      const FailingMemory failing(index, GetParam());
      if (!work()) ++failures;
    }
    Ids got;
    ASSERT_TRUE(reply(*engine, request(1), got));
    ASSERT_EQ(got, want);
  }
  EXPECT_GT(failures, requests.size() / 4);
}

INSTANTIATE_TEST_SUITE_P(Memory, EngineMemoryTest,
                         testing::Values(Shortage::Once, Shortage::Lasting),
                         [](const auto& shortage) {
                           return shortage.param == Shortage::Once ? "FailsOnce"
                                                                   : "FailsFromThenOn";
                         });

}  // namespace
}  // namespace zem
