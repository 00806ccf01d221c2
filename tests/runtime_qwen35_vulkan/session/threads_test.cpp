// SPDX-License-Identifier: Apache-2.0
// Sessions on several threads at once, and one session on one thread after another.
//
// Whatever two threads do at the same time must give each the bits that it gets
// alone. Built with the thread sanitizer (preset tsan) these tests also say whether
// threads share anything that they should not.
#include <gtest/gtest.h>
#include <omp.h>

#include <atomic>
#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "runtime_qwen35_vulkan/cpu_only.h"
#include "runtime_qwen35_vulkan/session/session_support.h"

namespace {

using namespace std::chrono_literals;
using zemtest::cheapOptions;
using zemtest::endlessModel;
using zemtest::keepAll;
using zemtest::linked;
using zemtest::ModelFile;
using zemtest::TinyModel;
using zemtest::TinyModelOptions;

// Of each session's team. More than this machine has cores is no harm here.
constexpr int kTeam = 2;

TinyModelOptions hybridOptions(uint32_t seed) {
  TinyModelOptions options;
  options.linearLayers = {0};
  options.seed = seed;
  return options;
}

// A session that any thread may make: unlike zemtest::Session it leaves the
// process's standard error stream alone.
class ThreadSession {
 public:
  explicit ThreadSession(const ModelFile& model) {
    if (api().create(model.path(), "host;ctx=26", &handle_, nullptr, 0) != 0) {
      throw std::runtime_error("create failed");
    }
  }
  ~ThreadSession() { api().destroy(handle_); }
  ThreadSession(const ThreadSession&) = delete;
  ThreadSession& operator=(const ThreadSession&) = delete;

  static const ZEMRuntimeDescriptorV2& api() { return *linked().v2; }
  ZEMRuntimeHandle* handle() const { return handle_; }

  void sampleWith(uint64_t seed) const {
    ZEMSessionOptions options = keepAll();
    options.temperature = 0.9F;
    options.top_k = 12;
    options.seed = seed;
    EXPECT_EQ(api().configure(handle_, &options), 0);
  }
  void setContext(uint32_t positions) const {
    ZEMSessionOptions options = keepAll();
    options.ctx_len = positions;
    EXPECT_EQ(api().configure(handle_, &options), 0);
  }
  std::string chat(const char* text) const {
    char out[4096];
    const int rc = api().chat_turn(handle_, text, out, sizeof out);
    return std::to_string(rc) + out;
  }
  std::string generate(const char* text) const {
    char out[4096];
    const int rc = api().generate(handle_, text, out, sizeof out);
    return std::to_string(rc) + out;
  }
  int stream(const char* text, ZEMChatTokenFn cb, void* user, volatile int* cancel) const {
    return linked().v2s->chat_turn_stream(handle_, text, cb, user, cancel);
  }
  std::string tokens() const {
    ZEMRuntimeStats stats = {};
    EXPECT_EQ(api().stats(handle_, &stats), 0);
    return std::to_string(stats.tokens);
  }

 private:
  ZEMRuntimeHandle* handle_ = nullptr;
};

void appendSlowly(const char* piece, uint32_t length, void* user) {
  std::this_thread::sleep_for(1ms);
  static_cast<std::string*>(user)->append(piece, length);
}

// Everything that a session says in a short life, with every kind of call.
std::vector<std::string> lifeOf(const ModelFile& model, uint64_t seed) {
  omp_set_num_threads(kTeam);
  const ThreadSession session(model);
  std::vector<std::string> said;
  said.push_back(session.generate("a prompt of many ids"));
  session.sampleWith(seed);
  std::string streamed;
  const int rc = session.stream("go", appendSlowly, &streamed, nullptr);
  said.push_back(std::to_string(rc) + streamed);
  EXPECT_EQ(ThreadSession::api().reset(session.handle()), 0);
  said.push_back(std::to_string(session.stream("on", nullptr, nullptr, nullptr)));
  said.push_back(session.tokens());
  ZEMBenchParams params = {};
  params.tokens = 1;
  params.warmup = 1;
  ZEMBenchResult measured = {};
  EXPECT_EQ(ThreadSession::api().bench(session.handle(), &params, &measured), 0);
  said.push_back(session.chat("end"));
  return said;
}

// Both lives on threads of their own, begun together.
void expectUndisturbed(const ModelFile& first, const ModelFile& second) {
  const std::vector<std::string> alone[] = {lifeOf(first, 7), lifeOf(second, 8)};
  ASSERT_NE(alone[0], alone[1]);
  std::vector<std::string> together[2];
  std::atomic<int> ready{0};
  const auto begin = [&] {
    for (++ready; ready < 2;) std::this_thread::yield();
  };
  std::thread other([&] {
    begin();
    together[1] = lifeOf(second, 8);
  });
  begin();
  together[0] = lifeOf(first, 7);
  other.join();
  EXPECT_EQ(together[0], alone[0]);
  EXPECT_EQ(together[1], alone[1]);
}

TEST(ThreadsTest, TwoSessionsOfOneModelDoNotDisturbEachOther) {
  const ModelFile file{endlessModel(hybridOptions(1))};
  expectUndisturbed(file, file);
}

TEST(ThreadsTest, TwoSessionsOfDifferentModelsDoNotDisturbEachOther) {
  TinyModelOptions wide = hybridOptions(2);
  wide.width = 32;
  wide.feedForward = 64;
  wide.matrixType = kiv::DType::Q8_0;
  // Rows of half a block take another way through the products.
  TinyModelOptions narrow = hybridOptions(3);
  narrow.width = 16;
  narrow.matrixType = kiv::DType::BF16;
  expectUndisturbed(ModelFile{endlessModel(narrow)}, ModelFile{TinyModel(wide)});
}

TEST(ThreadsTest, ASessionGoesOnOnAnotherThread) {
  const ModelFile file{endlessModel(hybridOptions(4))};
  const char* const turns[] = {"a", "b", "c"};
  const auto talk = [&](auto&& call) {
    const ThreadSession session(file);
    session.setContext(86);  // four turns' frames and a few tokens
    std::vector<std::string> said;
    for (const char* turn : turns) {
      volatile int cancel = 1;
      call(
          [&] { said.push_back(std::to_string(session.stream(turn, nullptr, nullptr, &cancel))); });
    }
    call([&] { said.push_back(session.chat("d")); });
    return said;
  };
  const auto here = talk([](auto&& turn) { turn(); });
  const auto elsewhere = talk([](auto&& turn) {
    std::thread([&] {
      omp_set_num_threads(kTeam);
      turn();
    }).join();
  });
  EXPECT_EQ(elsewhere, here);
}

TEST(ThreadsTest, SessionsComeAndGoWhileAnotherComputes) {
  const ModelFile file{endlessModel(cheapOptions())};
  const ThreadSession session(file);
  const char* const prompt = "a prompt of many ids";
  const std::string alone = session.generate(prompt);
  std::atomic<bool> done{false};
  std::thread visitor([&] {
    while (!done) {
      const ThreadSession other(file);
      ZEMRuntimeProbe verdict = {};
      EXPECT_EQ(ThreadSession::api().probe(file.path(), &verdict), 0);
      EXPECT_EQ(ThreadSession::api().reset(other.handle()), 0);
    }
  });
  for (int i = 0; i < 3; ++i) EXPECT_EQ(session.generate(prompt), alone);
  done = true;
  visitor.join();
}

// ---- Cancelling from another thread ----

struct Delivered {
  std::atomic<int> pieces{0};
  std::string text;
};

void count(const char* piece, uint32_t length, void* user) {
  auto& delivered = *static_cast<Delivered*>(user);
  delivered.text.append(piece, length);
  ++delivered.pieces;
}

// The host's side of the flag: an atomic store, as the ABI's documents ask for.
void setFlag(volatile int& flag, int value) { __atomic_store_n(&flag, value, __ATOMIC_SEQ_CST); }

TEST(ThreadsTest, ACancelFlagMayBeSetAtAnyTime) {
  const ModelFile file{endlessModel(cheapOptions())};
  const ThreadSession session(file);
  session.setContext(34);
  std::string whole;
  ASSERT_EQ(session.stream("hi", appendSlowly, &whole, nullptr), 0);
  std::mt19937 random(5);
  for (int turn = 0; turn < 12; ++turn) {
    ASSERT_EQ(ThreadSession::api().reset(session.handle()), 0);
    const std::chrono::microseconds delay(random() % 30000);
    volatile int cancel = 0;
    Delivered delivered;
    int before = 0;
    std::thread canceller([&] {
      std::this_thread::sleep_for(delay);
      setFlag(cancel, 1);
      before = delivered.pieces;
    });
    EXPECT_EQ(session.stream("hi", count, &delivered, &cancel), 0);
    canceller.join();
    EXPECT_LE(delivered.pieces, before + 1) << delay.count();
    EXPECT_EQ(whole.substr(0, delivered.text.size()), delivered.text);
  }
}

struct Stopper {
  int left;
  volatile int* cancel;
};

TEST(ThreadsTest, ACancelledTurnLeavesWhatWasSaid) {
  const ModelFile file{endlessModel(cheapOptions())};
  const ThreadSession session(file);
  session.setContext(50);
  volatile int cancel = 0;
  struct Heard {
    std::atomic<int> pieces{0};
    volatile int* cancel;
  } heard{.cancel = &cancel};
  // The third piece waits for the other thread.
  const auto waitAtThree = [](const char* /*piece*/, uint32_t /*length*/, void* user) {
    auto& h = *static_cast<Heard*>(user);
    if (++h.pieces < 3) return;
    while (__atomic_load_n(h.cancel, __ATOMIC_SEQ_CST) == 0) std::this_thread::yield();
  };
  std::thread canceller([&] {
    while (heard.pieces < 3) std::this_thread::yield();
    setFlag(cancel, 1);
  });
  EXPECT_EQ(session.stream("hi", waitAtThree, &heard, &cancel), 0);
  canceller.join();
  ASSERT_EQ(heard.pieces, 3);

  const ThreadSession same(file);
  same.setContext(50);
  volatile int own = 0;
  Stopper stopper{heard.pieces, &own};
  const auto stopAfter = [](const char* /*piece*/, uint32_t /*length*/, void* user) {
    auto& s = *static_cast<Stopper*>(user);
    if (--s.left == 0) *s.cancel = 1;
  };
  EXPECT_EQ(same.stream("hi", stopAfter, &stopper, &own), 0);
  EXPECT_EQ(same.tokens(), session.tokens());
  EXPECT_EQ(same.chat("a"), session.chat("a"));
}

}  // namespace
