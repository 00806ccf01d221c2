// SPDX-License-Identifier: Apache-2.0
// Every request for memory in a session's life, made to fail: an error comes back,
// nothing leaks (the sanitized build looks), and the session is of use afterwards.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "gpu/gpu_attach.h"
#include "runtime_qwen35_vulkan/cpu_only.h"
#include "runtime_qwen35_vulkan/session/session_support.h"
#include "session/bench.h"
#include "session/chat.h"
#include "session/generate.h"
#include "support/failing_memory.h"
#include "support/temp_folder.h"
#include "support/thorough.h"

namespace {

using zemtest::endlessModel;
using zemtest::FailingMemory;
using zemtest::keepAll;
using zemtest::linked;
using zemtest::ModelFile;
using zemtest::requestsWorthFailing;
using zemtest::Shortage;
using zemtest::TinyModelOptions;

// No exception leaves an entry or an export.
#define EXPECT_CANNOT_THROW(call) static_assert(noexcept(call))
EXPECT_CANNOT_THROW(zem_plugin_init(nullptr));
EXPECT_CANNOT_THROW(zem_plugin_runtimes(nullptr));
EXPECT_CANNOT_THROW(zem_plugin_runtimes_v2(nullptr));
EXPECT_CANNOT_THROW(zem_plugin_runtimes_v2s(nullptr));
EXPECT_CANNOT_THROW(qwen35rt::qwen35Create(nullptr, nullptr, nullptr, nullptr, 0));
EXPECT_CANNOT_THROW(qwen35rt::qwen35Destroy(nullptr));
EXPECT_CANNOT_THROW(qwen35rt::qwen35GenerateN(nullptr, nullptr, nullptr, 0));
EXPECT_CANNOT_THROW(qwen35rt::qwen35V2GenerateEx(nullptr, nullptr, nullptr, nullptr, 0));
EXPECT_CANNOT_THROW(qwen35rt::qwen35V2Bench(nullptr, nullptr, nullptr));
EXPECT_CANNOT_THROW(qwen35rt::qwen35V2Configure(nullptr, nullptr));
EXPECT_CANNOT_THROW(qwen35rt::qwen35V2ChatTurn(nullptr, nullptr, nullptr, 0));
EXPECT_CANNOT_THROW(qwen35rt::qwen35V2ChatTurnStream(nullptr, nullptr, nullptr, nullptr, nullptr));
EXPECT_CANNOT_THROW(qwen35rt::qwen35V2Reset(nullptr));
EXPECT_CANNOT_THROW(qwen35rt::qwen35V2Stats(nullptr, nullptr));

const char* const kBrokenOff =
    "[qwen35-vulkan] the conversation broke off inside a token, out of memory; reset it\n";

TinyModelOptions hybridOptions() {
  TinyModelOptions options;
  options.linearLayers = {0, 5};
  return options;
}

// Room for the prompts below and a few tokens of reply.
constexpr uint32_t kOneTurn = 25;
constexpr uint32_t kTwoTurns = 46;
const char* const kPrompt = "a prompt of many ids";

// A handle without the conveniences of zemtest::Session, which need memory.
class Handle {
 public:
  explicit Handle(const ModelFile& file) : path_(file.path()) {}
  ~Handle() { api().destroy(handle_); }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  static const ZEMRuntimeDescriptorV2& api() { return *linked().v2; }
  int create() { return api().create(path_, "host;ctx=25", &handle_, error, sizeof error); }
  int chat(const char* text) { return api().chat_turn(handle_, text, out, sizeof out); }
  int generate() { return api().generate(handle_, kPrompt, out, sizeof out); }
  int stream(const char* text, volatile int* cancel) const {
    return linked().v2s->chat_turn_stream(handle_, text, nullptr, nullptr, cancel);
  }
  void configure(uint32_t context, float temperature, int32_t topK) const {
    ZEMSessionOptions options = keepAll();
    options.ctx_len = context;
    options.temperature = temperature;
    options.top_k = topK;
    EXPECT_EQ(api().configure(handle_, &options), 0);
  }
  ZEMRuntimeHandle* get() const { return handle_; }
  const qwen35rt::Qwen35Session& members() const { return *qwen35rt::sessionOf(handle_); }

  char out[4096] = "";
  char error[128] = "";

 private:
  const char* path_;
  ZEMRuntimeHandle* handle_ = nullptr;
};

class OutOfMemoryTest : public testing::TestWithParam<Shortage> {
 protected:
  // What a first use keeps, a table for instance, is there afterwards.
  void SetUp() override {
    Handle handle(file_);
    zemtest::stderrOf([&] {
      create(handle);
      ASSERT_EQ(handle.generate(), 0);
      generated_ = handle.out;
      ASSERT_EQ(handle.chat("hi"), 0);
      firstTurn_ = handle.out;
      handle.api().reset(handle.get());
      startChat(handle);
      ASSERT_EQ(handle.chat("go"), 0);
      secondTurn_ = handle.out;
    });
  }

  // Fails each request of `work` in turn, each time on a session that `prepare` has
  // brought so far, and hands the return code to `check`. Some return codes must say
  // that there was a failure, at least `least`.
  template <typename Prepare, typename Work, typename Check>
  void failEach(size_t least, const Prepare& prepare, const Work& work, const Check& check) {
    std::vector<size_t> requests;
    zemtest::stderrOf([&] {
      Handle handle(file_);
      prepare(handle);
      requests = requestsWorthFailing([&] { work(handle); });
    });
    ASSERT_FALSE(requests.empty());
    size_t failures = 0;
    // All of them take a minute for each shortage, and many under a sanitizer.
    constexpr size_t kFew = 12;
    const bool all = zemtest::thorough();
    const size_t step = all ? 1 : (requests.size() + kFew - 1) / kFew;
    for (size_t i = 0; i < requests.size(); i += step) {
      const size_t request = requests[i];
      SCOPED_TRACE("request " + std::to_string(request));
      Handle handle(file_);
      int rc = 0;
      bool failed = false;
      zemtest::stderrOf([&] {
        prepare(handle);
        const FailingMemory memory(request, GetParam());
        rc = work(handle);
        failed = memory.failed();
      });
      ASSERT_TRUE(failed);
      failures += rc != 0 ? 1 : 0;
      check(handle, rc);
      if (HasFatalFailure()) return;
    }
    EXPECT_GE(failures, least);
    std::printf("  %zu requests, %zu of them missed\n", requests.size(), failures);
  }

  static void create(Handle& handle) { ASSERT_EQ(handle.create(), 0) << handle.error; }
  static qwen35rt::Qwen35Session& members(Handle& handle) {
    return *qwen35rt::sessionOf(handle.get());
  }
  // A first turn that is cancelled after its prompt, and room for another.
  static void startChat(Handle& handle) {
    if (handle.get() == nullptr) create(handle);
    handle.configure(kTwoTurns, 0.0F, 0);
    volatile int cancel = 1;
    ASSERT_EQ(handle.stream("hi", &cancel), 0);
  }

  // What a session that had no memory for a while does afterwards.
  void expectGoodAsNew(Handle& handle) const {
    zemtest::stderrOf([&] {
      handle.configure(kOneTurn, 0.0F, 0);
      ASSERT_EQ(handle.api().reset(handle.get()), 0);
      ASSERT_EQ(handle.chat("hi"), 0);
      EXPECT_EQ(handle.out, firstTurn_);
    });
  }

  const ModelFile file_{endlessModel(hybridOptions())};
  std::string generated_;
  std::string firstTurn_;
  std::string secondTurn_;
};

TEST_P(OutOfMemoryTest, CreateSaysSoOrGoesWithout) {
  const std::set<std::string> reasons = {"out of memory", "zem open failed"};
  failEach(
      5, [](Handle& /*handle*/) {}, [](Handle& handle) { return handle.create(); },
      [&](Handle& handle, int rc) {
        if (rc == 0) return expectGoodAsNew(handle);
        EXPECT_EQ(rc, 1);
        EXPECT_EQ(handle.get(), nullptr);
        EXPECT_EQ(reasons.count(handle.error), 1U) << handle.error;
      });
}

// The line about the GPU is the last that a session without memory can say.
TEST_P(OutOfMemoryTest, AttachingSaysItsLineWithoutAnyMemory) {
  Handle handle(file_);
  std::vector<size_t> requests;
  zemtest::stderrOf([&] {
    create(handle);
    requests = requestsWorthFailing([&] { qwen35rt::attachGpu(members(handle), {}); });
  });
  ASSERT_FALSE(requests.empty());
  for (const size_t request : requests) {
    SCOPED_TRACE("request " + std::to_string(request));
    bool failed = false;
    const std::string said = zemtest::stderrOf([&] {
      const FailingMemory memory(request, GetParam());
      qwen35rt::attachGpu(members(handle), {});
      failed = memory.failed();
    });
    EXPECT_TRUE(failed);
    EXPECT_EQ(said, zemtest::kGpuLine);
  }
}

// Without a device the verdict is 0 in any case; here it is the way there that counts.
TEST_P(OutOfMemoryTest, ProbeReturnsWithoutAVerdict) {
  const zemtest::TempFolder folder;
  const std::string path = folder.write("model.zem", endlessModel(hybridOptions()).build());
  int known = 0;
  failEach(
      5, [](Handle& /*handle*/) {},
      [&](Handle& /*handle*/) {
        ZEMRuntimeProbe verdict = {};
        known += Handle::api().probe(path.c_str(), &verdict);
        return verdict.confidence == 0 ? 1 : 0;
      },
      [](Handle& /*handle*/, int rc) { EXPECT_EQ(rc, 1); });
  EXPECT_EQ(known, 0);
}

TEST_P(OutOfMemoryTest, GenerateFailsAndTheNextOneDoesNot) {
  failEach(
      5, create, [](Handle& handle) { return handle.generate(); },
      [&](Handle& handle, int rc) {
        EXPECT_EQ(handle.out, rc == 0 ? generated_ : "");
        zemtest::stderrOf([&] { EXPECT_EQ(handle.generate(), 0); });
        EXPECT_EQ(handle.out, generated_);
      });
}

TEST_P(OutOfMemoryTest, AFailedFirstTurnLeavesRoomForAnother) {
  const auto sampling = [](Handle& handle) {
    create(handle);
    handle.configure(kOneTurn, 0.5F, 20);
  };
  failEach(
      5, sampling, [](Handle& handle) { return handle.stream("hi", nullptr); },
      [&](Handle& handle, int rc) {
        EXPECT_TRUE(rc == 0 || rc == 1) << rc;
        if (rc == 0 || handle.members().chatStarted) return expectGoodAsNew(handle);
        handle.configure(kOneTurn, 0.0F, 1);
        zemtest::stderrOf([&] { EXPECT_EQ(handle.chat("hi"), 0); });
        EXPECT_EQ(handle.out, firstTurn_);
      });
}

// The next turn of a conversation goes on from a whole token, or says what to do.
TEST_P(OutOfMemoryTest, AConversationThatBrokeOffInsideATokenSaysSo) {
  size_t refused = 0;
  failEach(
      5, startChat, [](Handle& handle) { return handle.chat("go"); },
      [&](Handle& handle, int rc) {
        EXPECT_EQ(handle.out, rc == 0 ? secondTurn_ : "");
        const qwen35rt::Qwen35Session& session = handle.members();
        const auto isBehind = [&](const qwen35::Layer& layer) {
          return !layer.recr && layer.kvLen != session.pos;
        };
        const bool broken = std::any_of(session.model.L.begin(), session.model.L.end(), isBehind);
        handle.configure(kOneTurn, 0.0F, 0);  // no room for the next
        int next = 0;
        const std::string said = zemtest::stderrOf([&] { next = handle.chat("on"); });
        EXPECT_EQ(next, 1);
        EXPECT_TRUE(said == "" || said == kBrokenOff) << said;
        if (broken) {
          EXPECT_EQ(said, kBrokenOff);
        }
        refused += said == kBrokenOff ? 1 : 0;
        expectGoodAsNew(handle);
      });
  EXPECT_GT(refused, 0U);
}

TEST_P(OutOfMemoryTest, ABenchmarkThatFailsKeepsTheSettings) {
  const auto configured = [](Handle& handle) {
    create(handle);
    handle.configure(kOneTurn, 0.5F, 3);
  };
  failEach(
      5, configured,
      [](Handle& handle) {
        ZEMBenchParams params = {};
        params.tokens = 1;
        params.warmup = 1;
        ZEMBenchResult result = {};
        return handle.api().bench(handle.get(), &params, &result);
      },
      [&](Handle& handle, int /*rc*/) {
        EXPECT_EQ(handle.members().temperature, 0.5F);
        EXPECT_EQ(handle.members().topK, 3);
        expectGoodAsNew(handle);
      });
}

TEST_P(OutOfMemoryTest, AConfigurationThatFailsMayBeRepeated) {
  ZEMSessionOptions options = keepAll();
  options.system_prompt = "a text that is too long to lie inside a string object";
  failEach(
      1, create, [&](Handle& handle) { return handle.api().configure(handle.get(), &options); },
      [&](Handle& handle, int rc) {
        EXPECT_EQ(rc, 1);
        EXPECT_EQ(handle.members().sysText, "");
        EXPECT_EQ(handle.api().configure(handle.get(), &options), 0);
        EXPECT_EQ(handle.members().sysText, options.system_prompt);
      });
}

INSTANTIATE_TEST_SUITE_P(Shortages, OutOfMemoryTest,
                         testing::Values(Shortage::Once, Shortage::Lasting),
                         [](const auto& shortage) {
                           return shortage.param == Shortage::Once ? "Once" : "Lasting";
                         });

}  // namespace
