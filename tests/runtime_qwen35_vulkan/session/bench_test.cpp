// SPDX-License-Identifier: Apache-2.0
// Benchmark, counters and reset.
#include "session/bench.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "runtime_qwen35_vulkan/cpu_only.h"
#include "runtime_qwen35_vulkan/session/session_support.h"
#include "session/generate.h"
#include "support/scoped_env.h"

namespace {

using zemtest::cheapOptions;
using zemtest::endlessModel;
using zemtest::keepAll;
using zemtest::linked;
using zemtest::ModelFile;
using zemtest::Session;
using zemtest::TinyModel;
using zemtest::TinyModelOptions;

struct Bench {
  int rc;
  ZEMBenchResult result;
};
Bench benchOf(const Session& session, const ZEMBenchParams* params) {
  Bench bench = {};
  bench.rc = session.api().bench(session.handle(), params, &bench.result);
  return bench;
}

// How often `run` runs the decoder with logits: the decoder's own dump has one
// "result_norm" record for each time.
template <typename Run>
size_t fullStepsOf(Run&& run) {
  const zemtest::TempFile dump;
  {
    const zemtest::ScopedEnv env("QWEN35_HID_DUMP", dump.path());
    run();
  }
  if (!dump.exists()) return 0;
  const std::vector<uint8_t> bytes = dump.read();
  const std::string text(bytes.begin(), bytes.end());
  size_t count = 0;
  for (size_t at = text.find("result_norm"); at != std::string::npos;
       at = text.find("result_norm", at + 1)) {
    ++count;
  }
  return count;
}

class BenchTest : public testing::Test {
 protected:
  const ModelFile file_{endlessModel()};
  const Session session_{file_, nullptr, linked()};
  qwen35rt::Qwen35Session& s_ = session_.members();
};

TEST_F(BenchTest, NullArgumentsAreInvalid) {
  ZEMBenchResult result = {};
  EXPECT_EQ(session_.api().bench(nullptr, nullptr, &result), 2);
  EXPECT_EQ(session_.api().bench(session_.handle(), nullptr, nullptr), 2);
  qwen35rt::Qwen35Session raw;
  EXPECT_EQ(session_.api().bench(reinterpret_cast<ZEMRuntimeHandle*>(&raw), nullptr, &result), 2);
  EXPECT_EQ(result.struct_size, 0U);
}

// The last of the prompt's steps gives logits, too: one more than is timed.
TEST_F(BenchTest, WithoutParametersItRuns71Steps) {
  Bench bench = {};
  EXPECT_EQ(fullStepsOf([&] { bench = benchOf(session_, nullptr); }), 1 + 71U);
  EXPECT_EQ(bench.rc, 0);
  EXPECT_EQ(bench.result.struct_size, 32U);
  EXPECT_EQ(bench.result.tokens, 64U);
  EXPECT_GT(bench.result.ms_per_token, 0.0);
  EXPECT_NEAR(bench.result.ms_per_token * bench.result.tokens_per_sec, 1000.0, 1e-6);
}

TEST_F(BenchTest, CountsBelowOneMeanTheDefaults) {
  ZEMBenchParams params = {};
  params.warmup = -5;
  Bench bench = {};
  EXPECT_EQ(fullStepsOf([&] { bench = benchOf(session_, &params); }), 1 + 71U);
  EXPECT_EQ(bench.result.tokens, 64U);
}

TEST_F(BenchTest, RunsOneStepLessThanWarmupAndTokens) {
  ZEMBenchParams params = {};  // its struct_size stays 0 and is not looked at
  params.tokens = 5;
  params.warmup = 2;
  params.max_new = 1;
  Bench bench = {};
  EXPECT_EQ(fullStepsOf([&] { bench = benchOf(session_, &params); }), 1 + 6U);
  EXPECT_EQ(bench.result.tokens, 5U);
  params.tokens = 1;
  params.warmup = 1;
  EXPECT_EQ(fullStepsOf([&] { bench = benchOf(session_, &params); }), 1 + 1U);
}

TEST_F(BenchTest, DividesByTheTokensAskedFor) {
  ZEMBenchParams params = {};
  params.tokens = 1000;
  s_.ctxCap = 6;
  Bench bench = {};
  EXPECT_EQ(fullStepsOf([&] { bench = benchOf(session_, &params); }), 1 + 4U)
      << "two positions for the prompt and four more";
  EXPECT_EQ(bench.rc, 0);
  EXPECT_EQ(bench.result.tokens, 1000U);
}

TEST_F(BenchTest, TheLargestCountsDoNotOverflow) {
  ZEMBenchParams params = {};
  params.tokens = std::numeric_limits<int32_t>::max();
  params.warmup = std::numeric_limits<int32_t>::max();
  s_.ctxCap = 5;
  Bench bench = {};
  EXPECT_EQ(fullStepsOf([&] { bench = benchOf(session_, &params); }), 1 + 3U);
  EXPECT_EQ(bench.result.tokens, 2147483647U);
}

TEST_F(BenchTest, LeavesTheSessionAsAfterAResetButForTheLastStepTime) {
  ZEMSessionOptions options = keepAll();
  options.temperature = 0.5F;
  options.top_k = 7;
  options.ctx_len = 32;
  EXPECT_EQ(session_.configure(options), 0);
  EXPECT_EQ(session_.chat("hello").rc, 0);
  s_.rng.seed(5);
  EXPECT_EQ(benchOf(session_, nullptr).rc, 0);
  EXPECT_FALSE(s_.chatStarted);
  EXPECT_EQ(s_.pos, 0U);
  EXPECT_EQ(s_.genTokens, 0U);
  EXPECT_EQ(s_.genMs, 0.0);
  EXPECT_GT(s_.lastStepMs, 0.0);
  EXPECT_EQ(s_.temperature, 0.5F);
  EXPECT_EQ(s_.topK, 7);
  EXPECT_EQ(s_.rng, std::mt19937(5));
  for (const auto& layer : s_.model.L) EXPECT_EQ(layer.kvLen, 0U);
}

TEST_F(BenchTest, AChatAfterItStartsAnew) {
  session_.setContext(32);
  const std::string first = session_.chat("hello").text;
  EXPECT_EQ(benchOf(session_, nullptr).rc, 0);
  EXPECT_EQ(session_.chat("hello").text, first);
}

TEST_F(BenchTest, APromptThatFailsLeavesTheSessionGreedy) {
  s_.temperature = 0.5F;
  s_.topK = 7;
  s_.ctxCap = 1;  // "Hi" has two tokens
  Bench bench = benchOf(session_, nullptr);
  EXPECT_EQ(bench.rc, 1);
  EXPECT_EQ(bench.result.struct_size, 0U) << "no result";
  EXPECT_EQ(s_.temperature, 0.0F);
  EXPECT_EQ(s_.topK, 1);
}

TEST_F(BenchTest, AContextFilledByThePromptTimesNothing) {
  s_.ctxCap = 2;
  Bench bench = {};
  EXPECT_EQ(fullStepsOf([&] { bench = benchOf(session_, nullptr); }), 1U);
  EXPECT_EQ(bench.rc, 0);
}

TEST(BenchEndTest, AFirstTokenThatEndsTheTextTimesNothing) {
  TinyModelOptions options = cheapOptions();
  options.tokenizer.eosId = -1;
  {
    const ModelFile file{TinyModel(options)};
    const Session session(file, "host;ctx=2", linked());  // room for the prompt alone
    const std::string first = session.generate("Hi").text;
    options.tokenizer.eosId = session.members().tok->tokenToId(first);
  }
  ASSERT_GE(options.tokenizer.eosId, 0);
  const ModelFile file{TinyModel(options)};
  const Session session(file, nullptr, linked());
  Bench bench = {};
  EXPECT_EQ(fullStepsOf([&] { bench = benchOf(session, nullptr); }), 1U);
  EXPECT_EQ(bench.rc, 0);
  EXPECT_LT(bench.result.ms_per_token, 1.0);
  EXPECT_GT(bench.result.tokens_per_sec, 1000.0);
}

TEST(BenchEndTest, AStepThatFailsEndsTheMeasurementSilently) {
  TinyModel model = endlessModel();
  zemtest::setEmbeddingRow(model, 50,
                           {std::numeric_limits<float>::infinity(), 0, 0, 0, 0, 0, 0, 0});
  const ModelFile file{model};
  const Session session(file, nullptr, linked());
  Bench bench = {};
  size_t steps = 0;
  EXPECT_EQ(
      zemtest::stderrOf([&] { steps = fullStepsOf([&] { bench = benchOf(session, nullptr); }); }),
      "");
  EXPECT_EQ(bench.rc, 0);
  EXPECT_LT(steps, 72U);
}

// ---- Counters ----

TEST(StatsTest, NullIsInvalid) {
  const ModelFile file{TinyModel(cheapOptions())};
  const Session session(file);
  ZEMRuntimeStats stats = {};
  EXPECT_EQ(session.api().stats(nullptr, &stats), 2);
  EXPECT_EQ(session.api().stats(session.handle(), nullptr), 2);
}

TEST(StatsTest, AFreshSessionHasCountedNothing) {
  const ModelFile file{TinyModel(cheapOptions())};
  const Session session(file);
  ZEMRuntimeStats stats = {77, 77, 77.0, 77.0};
  EXPECT_EQ(session.api().stats(session.handle(), &stats), 0);
  EXPECT_EQ(stats.struct_size, 32U);
  EXPECT_EQ(stats.tokens, 0U);
  EXPECT_EQ(stats.generation_ms, 0.0);
  EXPECT_EQ(stats.last_step_ms, 0.0);
}

TEST(StatsTest, CountsTokensAndTime) {
  const ModelFile file{endlessModel()};
  const Session session(file, "host;ctx=32", linked());
  EXPECT_EQ(session.chat("hello").rc, 0);
  const ZEMRuntimeStats first = session.stats();
  EXPECT_EQ(first.tokens, session.members().genTokens);
  EXPECT_GT(first.tokens, 1U);
  EXPECT_GT(first.last_step_ms, 0.0);
  EXPECT_GT(first.generation_ms, first.last_step_ms);
  session.setContext(64);
  EXPECT_EQ(session.chat("again").rc, 0);
  EXPECT_GT(session.stats().tokens, first.tokens);
  EXPECT_GT(session.stats().generation_ms, first.generation_ms);
}

TEST(StatsTest, AModelThatIsNotReadyIsNoObstacle) {
  qwen35rt::Qwen35Session raw;
  raw.genTokens = 3;
  ZEMRuntimeStats stats = {};
  EXPECT_EQ(linked().v2->stats(reinterpret_cast<ZEMRuntimeHandle*>(&raw), &stats), 0);
  EXPECT_EQ(stats.tokens, 3U);
}

// ---- Reset ----

TEST(ResetTest, NullIsInvalid) { EXPECT_EQ(zemtest::builtModule().v2->reset(nullptr), 2); }

TEST(ResetTest, AModelThatIsNotReadyIsNoObstacle) {
  qwen35rt::Qwen35Session raw;
  raw.genTokens = 3;
  EXPECT_EQ(linked().v2->reset(reinterpret_cast<ZEMRuntimeHandle*>(&raw)), 0);
  EXPECT_EQ(raw.genTokens, 0U);
}

TEST(ResetTest, ClearsTheConversationAndKeepsTheSettings) {
  const ModelFile file{endlessModel()};
  const Session session(file, "host;ctx=48;kv=q4_0", linked());
  ZEMSessionOptions options = keepAll();
  options.temperature = 0.5F;
  options.top_k = 7;
  options.top_p = 0.9F;
  options.system_prompt = "be brief";
  EXPECT_EQ(session.configure(options), 0);
  EXPECT_EQ(session.chat("hello").rc, 0);
  auto& s = session.members();
  const std::mt19937 rng = s.rng;
  EXPECT_NE(rng, std::mt19937(42));

  EXPECT_EQ(session.reset(), 0);
  EXPECT_FALSE(s.chatStarted);
  EXPECT_EQ(s.pos, 0U);
  EXPECT_EQ(s.genTokens, 0U);
  EXPECT_EQ(s.genMs, 0.0);
  EXPECT_EQ(s.lastStepMs, 0.0);
  for (const auto& layer : s.model.L) EXPECT_EQ(layer.kvLen, 0U);
  EXPECT_EQ(s.sysText, "be brief");
  EXPECT_EQ(s.temperature, 0.5F);
  EXPECT_EQ(s.topK, 7);
  EXPECT_EQ(s.topP, 0.9F);
  EXPECT_EQ(s.rng, rng);
  EXPECT_EQ(s.ctxCap, 48U);
  EXPECT_EQ(s.kvType, 2);
}

TEST(ResetTest, TwiceInARowIsHarmless) {
  const ModelFile file{endlessModel()};
  const Session session(file, "host;ctx=32");
  const std::string first = session.chat("hello").text;
  EXPECT_EQ(session.reset(), 0);
  EXPECT_EQ(session.reset(), 0);
  EXPECT_EQ(session.chat("hello").text, first);
}

}  // namespace
