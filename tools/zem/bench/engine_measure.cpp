// SPDX-License-Identifier: Apache-2.0
#include "bench/engine_measure.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <random>
#include <vector>

#include "console/terminal.h"
#include "host/model_file.h"

namespace zemtool {
namespace {

using Clock = std::chrono::steady_clock;

double secondsBetween(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double>(to - from).count();
}

// When the tokens of a reply came.
class TimedReply : public zem::Listener {
 public:
  void onToken(const zem::Token& /*token*/) override { times_.push_back(Clock::now()); }
  void onEnd(const zem::End& end) override {
    const std::lock_guard lock(mutex_);
    end_ = end;
    hasEnded_ = true;
    ended_.notify_all();
  }

  // Throws Failure when the reply did.
  void waitForEnd() {
    std::unique_lock lock(mutex_);
    ended_.wait(lock, [&] { return hasEnded_; });
    if (end_.reason == zem::EndReason::Error) throw Failure("the engine failed: " + end_.error);
    if (times_.empty()) throw Failure("the engine gave no token");
  }

  // After the end. At least one.
  const std::vector<Clock::time_point>& times() const { return times_; }
  const zem::Usage& usage() const { return end_.usage; }

 private:
  std::mutex mutex_;
  std::condition_variable ended_;
  bool hasEnded_ = false;
  zem::End end_;
  std::vector<Clock::time_point> times_;
};

using Replies = std::vector<std::shared_ptr<TimedReply>>;

// Submits all together and waits for all.
Replies runAll(zem::Engine& engine, std::vector<zem::Request> requests) {
  Replies replies;
  for (zem::Request& request : requests) {
    replies.push_back(std::make_shared<TimedReply>());
    zem::RequestHandle handle;
    const kiv::Status status = engine.submit(std::move(request), replies.back(), handle);
    if (!status.ok()) throw Failure(status.message());
  }
  for (const auto& reply : replies) reply->waitForEnd();
  return replies;
}

// Tokens evaluated until the last reply has its first token.
double promptRate(const Replies& replies, Clock::time_point start) {
  double tokens = 0;
  Clock::time_point last = start;
  for (const auto& reply : replies) {
    tokens += static_cast<double>(reply->usage().prompt - reply->usage().reused);
    last = std::max(last, reply->times().front());
  }
  return tokens / secondsBetween(start, last);
}

// Tokens that came while every reply ran; of replies so short that they never ran together, those
// behind the first one.
double decodeRate(const Replies& replies) {
  const auto byFirst = [](const auto& a, const auto& b) {
    return a->times().front() < b->times().front();
  };
  const auto byLast = [](const auto& a, const auto& b) {
    return a->times().back() < b->times().back();
  };
  const auto [earliest, latest] = std::minmax_element(replies.begin(), replies.end(), byFirst);
  const auto [soonest, longest] = std::minmax_element(replies.begin(), replies.end(), byLast);
  Clock::time_point first = (*latest)->times().front();
  Clock::time_point last = (*soonest)->times().back();
  if (first >= last) {
    first = (*earliest)->times().front();
    last = (*longest)->times().back();
  }
  double tokens = 0;
  for (const auto& reply : replies) {
    for (const Clock::time_point time : reply->times()) tokens += time > first && time <= last;
  }
  return tokens / secondsBetween(first, last);
}

void addIds(std::vector<uint32_t>& ids, int count, uint32_t vocabulary, uint32_t seed) {
  std::mt19937 random(seed);
  for (int i = 0; i < count; ++i) ids.push_back(static_cast<uint32_t>(random() % vocabulary));
}

std::unique_ptr<zem::Engine> open(const std::string& model, const zem::EngineOptions& options) {
  std::unique_ptr<zem::Engine> engine;
  const kiv::Status status = zem::Engine::open(model, options, engine);
  if (!status.ok()) throw Failure("cannot open the model " + model + ": " + status.message());
  return engine;
}

// Two states of every conversation: what is filled, and the end of its prompt.
size_t bytesToKeep(const zem::ModelFacts& facts, size_t sequences, size_t positions) {
  constexpr size_t kPage = 64;
  return 2 * sequences * (facts.stateBytes + (positions + kPage) * facts.positionBytes);
}

}  // namespace

EngineRunner::EngineRunner(const EngineSubject& subject) : model_(subject.model) {
  requireReadable(model_);
  zem::EngineOptions options;
  options.threads = static_cast<size_t>(subject.threads);
  options.math = subject.math;
  options.cacheNumbers = subject.cache;
  options.sequences = static_cast<size_t>(subject.sequences);
  options.cacheBytes = 0;
  engine_ = open(model_, options);
  const auto positions = static_cast<size_t>(subject.positions);
  if (positions > engine_->context()) {
    throw Failure("the tests need " + std::to_string(positions) + " positions, " + model_ +
                  " has " + std::to_string(engine_->context()) +
                  ": use a smaller depth or fewer tokens");
  }
  options.cacheBytes = bytesToKeep(engine_->model(), options.sequences, positions);
  engine_ = open(model_, options);
}

void EngineRunner::warmUp() {
  runAll(*engine_, {requestFor({BenchTest::Kind::Decode, 2, 0, 1}, 0, 0)});
}

double EngineRunner::run(const BenchTest& test, uint32_t repetition) {
  const auto sequences = static_cast<uint32_t>(test.sequences);
  std::vector<zem::Request> fills;
  std::vector<zem::Request> requests;
  for (uint32_t i = 0; i < sequences; ++i) {
    if (test.depth > 0)
      fills.push_back(requestFor({BenchTest::Kind::Prompt, 0, test.depth, 1}, 0, i));
    requests.push_back(requestFor(test, repetition, i));
  }
  runAll(*engine_, std::move(fills));  // computes nothing where it is kept
  const Clock::time_point start = Clock::now();
  const Replies replies = runAll(*engine_, std::move(requests));
  return test.kind == BenchTest::Kind::Prompt ? promptRate(replies, start) : decodeRate(replies);
}

zem::Request EngineRunner::requestFor(const BenchTest& test, uint32_t repetition,
                                      uint32_t sequence) const {
  const uint32_t vocabulary = engine_->vocabulary().size();
  zem::Request request;
  addIds(request.prompt, test.depth, vocabulary, sequence);
  request.sampling.temperature = 0;
  if (test.kind == BenchTest::Kind::Prompt) {
    // Never the same again: a prompt that came before would not be evaluated.
    addIds(request.prompt, test.tokens, vocabulary, 1000 * (repetition + 1) + sequence);
    request.stops.maxTokens = 1;
  } else {
    if (test.depth == 0) request.prompt = {sequence % vocabulary};
    request.stops.maxTokens = static_cast<uint64_t>(test.tokens) + 1;
  }
  return request;
}

}  // namespace zemtool
