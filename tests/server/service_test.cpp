// SPDX-License-Identifier: Apache-2.0
// Answers without sockets.
#include "server/service.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "engine/engine.h"
#include "engine/model/shaped_model.h"

namespace zem::server {
namespace {

class IdleTransport : public Transport {
 public:
  std::string address() const override { return "127.0.0.1:1"; }
  uint16_t port() const override { return 1; }
  bool isLoopback() const override { return true; }
  void run(bool /*signals*/) override {}
  void drain() override {}
  void stop() override {}
  bool draining() const override { return false; }
  size_t connections() const override { return 0; }
};

// Keeps what is posted until the test runs it.
class HeldExchange : public Exchange {
 public:
  void post(std::function<void()> work) override {
    const std::lock_guard lock(mutex_);
    if (std::exchange(failsOnce_, false)) throw std::bad_alloc();
    posted_.push_back(std::move(work));
  }
  void reply(HttpReply reply) override { answer_ = std::move(reply); }
  void beginStream(HttpReply /*head*/, std::string /*ping*/) override {}
  void write(std::string /*bytes*/) override {}
  void endStream() override {}
  void whenGone(std::function<void()> /*gone*/) override {}
  void after(std::chrono::milliseconds /*time*/, std::function<void()> /*late*/) override {}

  const std::optional<HttpReply>& answer() const { return answer_; }
  // The next one has no memory.
  void failOnce() {
    const std::lock_guard lock(mutex_);
    failsOnce_ = true;
  }
  size_t runPosted() {
    std::unique_lock lock(mutex_);
    const std::vector<std::function<void()>> works = std::exchange(posted_, {});
    lock.unlock();
    for (const auto& work : works) work();
    return works.size();
  }
  // Until there is an answer, or for some seconds.
  void runToAnswer() {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!answer_ && std::chrono::steady_clock::now() < end) {
      runPosted();
      std::this_thread::yield();
    }
  }

 private:
  std::optional<HttpReply> answer_;
  std::mutex mutex_;
  std::vector<std::function<void()>> posted_;  // under the mutex, as what follows
  bool failsOnce_ = false;
};

class ServiceTest : public testing::Test {
 protected:
  ServiceTest() {
    zemtest::writeShapedModel(file_, zemtest::smallArchitecture());
    EXPECT_TRUE(
        Engine::open(file_.string(), {.threads = 1, .chatFormat = "qwen3.5"}, engine_).ok());
    ServerOptions options;
    options.metrics = true;
    service_.emplace(*engine_, options);
    service_->setTransport(transport_);
  }

  zemtest::TempFile file_;
  std::unique_ptr<Engine> engine_;
  IdleTransport transport_;
  std::optional<Service> service_;
  std::shared_ptr<HeldExchange> exchange_ = std::make_shared<HeldExchange>();
};

// A request with a body is handled by a worker, while the thread of input and output counts.
TEST_F(ServiceTest, MetricsAreReadOnTheThreadThatCounts) {
  service_->handle({"GET", "/metrics", {}, {}, "a body", {}, {}}, exchange_);
  EXPECT_FALSE(exchange_->answer().has_value());
  EXPECT_EQ(exchange_->runPosted(), 1U);
  ASSERT_TRUE(exchange_->answer().has_value());
  EXPECT_NE(exchange_->answer()->body.find("zem_http_answers_total"), std::string::npos);
}

TEST_F(ServiceTest, ReplyThatIsLostForWantOfMemoryIsAnswered) {
  const std::string chat = R"({"messages": [{"role": "user", "content": "Once"}]})";
  for (const auto& [path, body] :
       {std::pair<std::string, std::string>{"/v1/chat/completions", chat},
        {"/v1/completions", R"({"prompt": "Once"})"}}) {
    exchange_ = std::make_shared<HeldExchange>();
    service_->handle({"POST", path, {}, {}, body, {}, {}}, exchange_);
    exchange_->failOnce();  // on the engine's thread: the first work is held already
    exchange_->runToAnswer();
    ASSERT_TRUE(exchange_->answer().has_value()) << path;
    EXPECT_EQ(exchange_->answer()->status, 503) << exchange_->answer()->body;
  }
}

}  // namespace
}  // namespace zem::server
