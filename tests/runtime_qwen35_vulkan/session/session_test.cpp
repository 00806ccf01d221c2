// SPDX-License-Identifier: Apache-2.0
// Creating, configuring and destroying sessions.
#include "session/session.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "runtime_qwen35_vulkan/cpu_only.h"
#include "runtime_qwen35_vulkan/session/session_support.h"

namespace {

using zemtest::cheapOptions;
using zemtest::keepAll;
using zemtest::kGpuLine;
using zemtest::linked;
using zemtest::ModelFile;
using zemtest::Session;
using zemtest::stderrOf;
using zemtest::TinyModel;
using zemtest::TinyModelOptions;

std::string kvLine(const std::string& type) {
  return "[qwen35-vulkan] kv cache quantization (" + type +
         ") not supported - kv stays f32; option ignored\n";
}

// ---- Create ----

class CreateTest : public testing::Test {
 protected:
  // The error text of a create that fails as it should.
  static std::string failureOf(const TinyModel& model) {
    const ModelFile file(model);
    return failureOf(file.path());
  }
  static std::string failureOf(const char* path) {
    auto* handle = reinterpret_cast<ZEMRuntimeHandle*>(0x10);
    char err[256] = "untouched";
    const std::string printed = stderrOf([&] {
      EXPECT_EQ(zemtest::builtModule().v2->create(path, nullptr, &handle, err, sizeof err), 1);
    });
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(printed, "");
    return err;
  }
};

TEST_F(CreateTest, NullOutIsInvalid) {
  char err[16] = "untouched";
  EXPECT_EQ(linked().v2->create("x.zem", nullptr, nullptr, err, sizeof err), 2);
  EXPECT_STREQ(err, "untouched");
}

TEST_F(CreateTest, AMissingFileFails) {
  EXPECT_EQ(failureOf("/nonexistent/model.zem"), "zem open failed");
  EXPECT_EQ(failureOf(""), "zem open failed");
  EXPECT_EQ(failureOf(static_cast<const char*>(nullptr)), "zem open failed");
}

TEST_F(CreateTest, AFileThatIsNoContainerFails) {
  const ModelFile empty((zemtest::Bytes()));
  EXPECT_EQ(failureOf(empty.path()), "zem open failed");
  const ModelFile noise(zemtest::Bytes(1000, 0x5A));
  EXPECT_EQ(failureOf(noise.path()), "zem open failed");
  EXPECT_EQ(failureOf("."), "zem open failed");
}

TEST_F(CreateTest, OtherArchitecturesFail) {
  TinyModelOptions options = cheapOptions();
  options.architecture = "qwen35moe";
  EXPECT_EQ(failureOf(TinyModel(options)), "qwen35moe not supported yet");
  for (const char* other : {"llama", "qwen3", "qwen35 ", "Qwen35", ""}) {
    options.architecture = other;
    EXPECT_EQ(failureOf(TinyModel(options)), "not a qwen35-architecture model") << other;
  }
}

TEST_F(CreateTest, AnEmptyVocabularyFails) {
  TinyModelOptions options = cheapOptions();
  options.vocab = 100;
  options.tokenizer = {};
  EXPECT_EQ(failureOf(TinyModel(options)), "tokenizer load failed");
}

TEST_F(CreateTest, AMissingBlockTensorFails) {
  for (const char* name : {"blk.31.ffn_down.weight", "blk.0.attn_norm.weight"}) {
    TinyModel model(cheapOptions());
    model.tensors().erase(name);
    EXPECT_EQ(failureOf(model), "qwen35 layer bind failed") << name;
  }
}

TEST_F(CreateTest, AMissingEmbeddingOrFinalNormFails) {
  for (const char* name : {"token_embd.weight", "output_norm.weight"}) {
    TinyModel model(cheapOptions());
    model.tensors().erase(name);
    EXPECT_EQ(failureOf(model), "qwen35 model bind failed") << name;
  }
}

// A file with two faults: the one that is looked for first is named.
TEST_F(CreateTest, TheFirstFailureIsTheOneThatIsNamed) {
  TinyModelOptions options = cheapOptions();
  options.architecture = "llama";
  options.vocab = 100;
  options.tokenizer = {};
  EXPECT_EQ(failureOf(TinyModel(options)), "not a qwen35-architecture model");
  options.architecture = "qwen35moe";
  EXPECT_EQ(failureOf(TinyModel(options)), "qwen35moe not supported yet");

  options.architecture = "qwen35";
  TinyModel noWords(options);
  noWords.tensors().erase("blk.0.attn_norm.weight");
  EXPECT_EQ(failureOf(noWords), "tokenizer load failed");

  TinyModel noTensors(cheapOptions());
  noTensors.tensors().erase("blk.31.ffn_down.weight");
  noTensors.tensors().erase("token_embd.weight");
  EXPECT_EQ(failureOf(noTensors), "qwen35 layer bind failed");
}

TEST_F(CreateTest, TheErrorTextIsCutToItsBuffer) {
  ZEMRuntimeHandle* handle = nullptr;
  const auto create = [&](char* err, size_t size) {
    return linked().v2->create("/nonexistent.zem", nullptr, &handle, err, size);
  };
  char err[32];
  std::memset(err, '#', sizeof err);
  EXPECT_EQ(create(err, 1), 1);
  EXPECT_EQ(std::string(err, 3), std::string("\0##", 3));
  EXPECT_EQ(create(err, 5), 1);
  EXPECT_EQ(std::string(err, 7), std::string("zem \0##", 7));
  EXPECT_EQ(create(err, 16), 1);
  EXPECT_EQ(std::string(err, 17), std::string("zem open failed\0#", 17));
  std::memset(err, '#', sizeof err);
  EXPECT_EQ(create(err, 0), 1);
  EXPECT_EQ(err[0], '#');
  EXPECT_EQ(create(nullptr, 100), 1);
}

TEST_F(CreateTest, WithoutAGpuTheOnlySignIsOneLine) {
  const ModelFile model(TinyModel{cheapOptions()});
  const Session session(model, "host;ctx=8");
  EXPECT_EQ(session.createOutput(), kGpuLine);
  EXPECT_EQ(session.generate("the").rc, 0);
}

TEST_F(CreateTest, ASessionStartsWithItsDefaults) {
  const ModelFile model(TinyModel{cheapOptions()});
  const Session session(model, nullptr, linked());
  const auto& s = session.members();
  EXPECT_TRUE(s.modelReady);
  EXPECT_EQ(s.modelPath, model.path());
  EXPECT_EQ(s.ctxCap, 8192U);
  EXPECT_EQ(s.model.kvCap, 8192U);
  EXPECT_EQ(s.sysText, "");
  EXPECT_EQ(s.kvType, 0);
  EXPECT_FALSE(s.kvWarned);
  EXPECT_EQ(s.temperature, 0.0F);
  EXPECT_EQ(s.topK, 0);
  EXPECT_EQ(s.topP, 0.0F);
  EXPECT_EQ(s.seed, 42U);
  EXPECT_EQ(s.rng, std::mt19937(42));
  EXPECT_EQ(s.pos, 0U);
  EXPECT_EQ(s.genTokens, 0U);
  EXPECT_EQ(s.genMs, 0.0);
  EXPECT_EQ(s.lastStepMs, 0.0);
  EXPECT_FALSE(s.chatStarted);
}

TEST_F(CreateTest, TheContextCapComesFromTheHint) {
  const ModelFile model(TinyModel{cheapOptions()});
  const std::vector<std::pair<const char*, size_t>> cases = {
      {"ctx=2048", 8192},      {"host;ctx=2048", 2048}, {"host;ctx=1", 1},
      {"host;ctx=8192", 8192}, {"host;ctx=8193", 8192}, {"host;ctx=9000", 8192},
      {"host;ctx=0", 8192}};
  for (const auto& [hint, cap] : cases) {
    const Session session(model, hint, linked());
    EXPECT_EQ(session.members().ctxCap, cap) << hint;
    EXPECT_EQ(session.members().model.kvCap, 8192U) << hint;
  }
}

TEST_F(CreateTest, AKvHintWarnsOnceForTheSession) {
  const ModelFile model(TinyModel{cheapOptions()});
  const Session session(model, "host;kv=q8_0", linked());
  EXPECT_EQ(session.createOutput(), kGpuLine + kvLine("q8_0"));
  EXPECT_EQ(session.members().kvType, 1);

  ZEMSessionOptions options = keepAll();
  options.kv_cache_type = 1;
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(session.configure(options), 0); }), "");
  EXPECT_EQ(session.members().kvType, 1);
  options.kv_cache_type = 2;
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(session.configure(options), 0); }), "");
  EXPECT_EQ(session.members().kvType, 2);
}

TEST_F(CreateTest, AKvHintOfQ4NamesItself) {
  const ModelFile model(TinyModel{cheapOptions()});
  const Session session(model, "host;kv=q4_0", linked());
  EXPECT_EQ(session.createOutput(), kGpuLine + kvLine("q4_0"));
  EXPECT_EQ(session.members().kvType, 2);
  EXPECT_TRUE(session.members().kvWarned);
}

TEST_F(CreateTest, AKvHintOfF16PrintsNothing) {
  const ModelFile model(TinyModel{cheapOptions()});
  const Session session(model, "host;kv=f16", linked());
  EXPECT_EQ(session.createOutput(), kGpuLine);
  EXPECT_FALSE(session.members().kvWarned);
}

TEST_F(CreateTest, SessionsAreIndependent) {
  const ModelFile model(TinyModel{cheapOptions()});
  const std::string alone = Session(model, "host;ctx=32").chat("the cat").text;
  const Session a(model, "host;ctx=32");
  const Session b(model, "host;ctx=32");
  EXPECT_EQ(b.chat("another").rc, 0);
  EXPECT_EQ(a.chat("the cat").text, alone);
  EXPECT_EQ(b.reset(), 0);
  EXPECT_EQ(b.chat("the cat").text, alone);
}

TEST_F(CreateTest, DestroyOfNullIsFine) { zemtest::builtModule().v2->destroy(nullptr); }

// ---- Files whose weights must not be read ----

class BrokenWeightsTest : public testing::Test {
 protected:
  static TinyModel broken() {
    TinyModel model(cheapOptions());
    model.tensor("blk.3.attn_norm.weight").data.resize(4);  // one float, eight are needed
    return model;
  }
  const ModelFile file_{broken()};
  const Session session_{file_};

  // The one line that every generating entry prints.
  template <typename Call>
  void expectRefused(Call&& call) {
    const std::string printed = stderrOf([&] { EXPECT_EQ(call(), 1); });
    EXPECT_EQ(printed.rfind("[qwen35-vulkan] blk.3.attn_norm.weight: ", 0), 0U) << printed;
    EXPECT_EQ(printed.find('\n'), printed.size() - 1) << printed;
  }
};

TEST_F(BrokenWeightsTest, CreateSucceeds) { EXPECT_EQ(session_.createOutput(), kGpuLine); }

TEST_F(BrokenWeightsTest, EveryGeneratingEntryFailsWithOneLine) {
  char out[16] = "####";
  ZEMBenchResult bench = {};
  const ZEMSessionOptions options = keepAll();
  const auto& api = session_.api();
  auto* handle = session_.handle();
  expectRefused([&] { return api.generate(handle, "a", out, sizeof out); });
  EXPECT_STREQ(out, "");
  expectRefused([&] { return api.generate_ex(handle, "a", &options, out, sizeof out); });
  expectRefused([&] { return api.chat_turn(handle, "a", out, sizeof out); });
  expectRefused([&] { return session_.streamTo("a", nullptr, nullptr, nullptr); });
  expectRefused([&] { return api.bench(handle, nullptr, &bench); });
}

TEST_F(BrokenWeightsTest, ArgumentsAreCheckedFirst) {
  char out[16];
  const auto& api = session_.api();
  EXPECT_EQ(stderrOf([&] {
              EXPECT_EQ(api.generate(session_.handle(), "a", nullptr, 5), 2);
              EXPECT_EQ(api.generate_ex(session_.handle(), "a", nullptr, out, 0), 2);
              EXPECT_EQ(api.chat_turn(session_.handle(), "a", out, 0), 2);
              EXPECT_EQ(api.bench(session_.handle(), nullptr, nullptr), 2);
            }),
            "");
}

TEST_F(BrokenWeightsTest, TheOtherEntriesWork) {
  EXPECT_EQ(stderrOf([&] {
              EXPECT_EQ(session_.stats().tokens, 0U);
              EXPECT_EQ(session_.configure(keepAll()), 0);
              EXPECT_EQ(session_.reset(), 0);
            }),
            "");
}

// ---- Configure ----

class ConfigureTest : public testing::Test {
 protected:
  const ModelFile file_{TinyModel(cheapOptions())};
  const Session session_{file_, nullptr, linked()};
  qwen35rt::Qwen35Session& s_ = session_.members();
};

TEST_F(ConfigureTest, NullOrTooSmallIsInvalid) {
  ZEMSessionOptions options = keepAll();
  EXPECT_EQ(session_.api().configure(nullptr, &options), 2);
  EXPECT_EQ(session_.api().configure(session_.handle(), nullptr), 2);
  options.temperature = 1.0F;
  for (const uint32_t size : {0U, 1U, 39U}) {
    options.struct_size = size;
    EXPECT_EQ(session_.configure(options), 2) << size;
  }
  EXPECT_EQ(s_.temperature, 0.0F);
}

TEST_F(ConfigureTest, AModelThatIsNotReadyIsNoObstacle) {
  qwen35rt::Qwen35Session raw;
  auto* handle = reinterpret_cast<ZEMRuntimeHandle*>(&raw);
  ZEMSessionOptions options = keepAll();
  options.top_k = 9;
  EXPECT_EQ(linked().v2->configure(handle, &options), 0);
  EXPECT_EQ(raw.topK, 9);
}

TEST_F(ConfigureTest, SetsWhatIsSet) {
  ZEMSessionOptions options = keepAll();
  options.temperature = 0.7F;
  options.top_k = 40;
  options.top_p = 0.9F;
  options.seed = 0x1234567800000007;
  options.ctx_len = 100;
  options.system_prompt = "Be brief.";
  EXPECT_EQ(session_.configure(options), 0);
  EXPECT_EQ(s_.temperature, 0.7F);
  EXPECT_EQ(s_.topK, 40);
  EXPECT_EQ(s_.topP, 0.9F);
  EXPECT_EQ(s_.rng, std::mt19937(7));
  EXPECT_EQ(s_.seed, 42U);
  EXPECT_EQ(s_.ctxCap, 100U);
  EXPECT_EQ(s_.sysText, "Be brief.");
}

TEST_F(ConfigureTest, KeepsWhatIsNotSet) {
  s_.temperature = 0.5F;
  s_.topK = 3;
  s_.topP = 0.25F;
  s_.sysText = "old";
  ZEMSessionOptions options = keepAll();
  options.system_prompt = "";
  options.top_k = -1;
  options.top_p = -1.0F;
  options.kv_cache_type = -1;
  options.max_tokens = 1;
  options.stop_token = 2;
  options.flags = 3;
  EXPECT_EQ(session_.configure(options), 0);
  options.temperature = std::numeric_limits<float>::quiet_NaN();
  options.top_p = std::numeric_limits<float>::quiet_NaN();
  EXPECT_EQ(session_.configure(options), 0);
  EXPECT_EQ(s_.temperature, 0.5F);
  EXPECT_EQ(s_.topK, 3);
  EXPECT_EQ(s_.topP, 0.25F);
  EXPECT_EQ(s_.rng, std::mt19937(42));
  EXPECT_EQ(s_.ctxCap, 8192U);
  EXPECT_EQ(s_.kvType, 0);
  EXPECT_EQ(s_.sysText, "old");
}

TEST_F(ConfigureTest, TemperatureZeroIsTaken) {
  s_.temperature = 0.5F;
  ZEMSessionOptions options = keepAll();
  options.temperature = 0.0F;
  EXPECT_EQ(session_.configure(options), 0);
  EXPECT_EQ(s_.temperature, 0.0F);
}

TEST_F(ConfigureTest, ACutOnceSetCannotBeCleared) {
  s_.topK = 40;
  ZEMSessionOptions options = keepAll();
  options.top_k = 0;
  EXPECT_EQ(session_.configure(options), 0);
  EXPECT_EQ(s_.topK, 40);
}

// In memory of exactly its size, so that a sanitizer sees a read behind it.
TEST_F(ConfigureTest, ARecordOf40BytesChangesSamplingOnly) {
  ZEMSessionOptions full = keepAll();
  full.temperature = 0.7F;
  full.top_k = 40;
  full.top_p = 0.9F;
  full.seed = 7;
  full.ctx_len = 100;
  for (const uint32_t size : {40U, 55U}) {
    full.struct_size = size;
    full.seed = size;
    std::vector<uint64_t> memory(size / 8);
    std::memcpy(memory.data(), &full, memory.size() * 8);
    const auto* record = reinterpret_cast<const ZEMSessionOptions*>(memory.data());
    EXPECT_EQ(session_.api().configure(session_.handle(), record), 0);
    EXPECT_EQ(s_.temperature, 0.7F);
    EXPECT_EQ(s_.topK, 40);
    EXPECT_EQ(s_.topP, 0.9F);
    EXPECT_EQ(s_.rng, std::mt19937(size));
    EXPECT_EQ(s_.ctxCap, 8192U);
    EXPECT_EQ(s_.sysText, "");
  }
}

TEST_F(ConfigureTest, ALargerRecordFromANewerHostIsFine) {
  ZEMSessionOptions options = keepAll();
  options.struct_size = 4096;
  options.ctx_len = 5;
  EXPECT_EQ(session_.configure(options), 0);
  EXPECT_EQ(s_.ctxCap, 5U);
}

TEST_F(ConfigureTest, ContextLengthIsCappedByTheCaches) {
  ZEMSessionOptions options = keepAll();
  for (const uint32_t length : {8192U, 8193U, 0xFFFFFFFFU}) {
    options.ctx_len = length;
    EXPECT_EQ(session_.configure(options), 0);
    EXPECT_EQ(s_.ctxCap, 8192U);
  }
}

TEST_F(ConfigureTest, AContextBelowThePositionStopsGeneration) {
  session_.setContext(32);
  EXPECT_EQ(session_.chat("the cat sat").rc, 0);
  const size_t pos = s_.pos;
  ASSERT_GT(pos, 2U);
  session_.setContext(2);
  EXPECT_EQ(s_.ctxCap, 2U);
  EXPECT_EQ(session_.chat("on the mat").rc, 1);
  EXPECT_EQ(s_.pos, pos);
}

TEST_F(ConfigureTest, KvTypesWarnAtMostOnce) {
  ZEMSessionOptions options = keepAll();
  options.kv_cache_type = 7;  // anything but 1 is called q4_0
  EXPECT_EQ(stderrOf([&] { session_.configure(options); }), kvLine("q4_0"));
  EXPECT_EQ(s_.kvType, 7);
  options.kv_cache_type = 1;
  EXPECT_EQ(stderrOf([&] { session_.configure(options); }), "");
  EXPECT_EQ(s_.kvType, 1);
  options.kv_cache_type = 0;
  EXPECT_EQ(stderrOf([&] { session_.configure(options); }), "");
  EXPECT_EQ(s_.kvType, 1);
}

TEST_F(ConfigureTest, KvTypeQ8NamesItself) {
  ZEMSessionOptions options = keepAll();
  options.kv_cache_type = 1;
  EXPECT_EQ(stderrOf([&] { session_.configure(options); }), kvLine("q8_0"));
}

TEST_F(ConfigureTest, ASystemPromptDuringAChatIsRefused) {
  ZEMSessionOptions options = keepAll();
  options.system_prompt = "first";
  options.ctx_len = 48;
  EXPECT_EQ(session_.configure(options), 0);
  EXPECT_EQ(session_.chat("hello").rc, 0);
  options.system_prompt = "second";
  const std::string printed = stderrOf([&] { EXPECT_EQ(session_.configure(options), 0); });
  EXPECT_EQ(printed,
            "[qwen35-vulkan] system prompt applies to a fresh conversation; use /clear or a new "
            "session\n");
  EXPECT_EQ(s_.sysText, "first");
  EXPECT_EQ(session_.reset(), 0);
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(session_.configure(options), 0); }), "");
  EXPECT_EQ(s_.sysText, "second");
}

TEST_F(ConfigureTest, TheSystemPromptIsCopied) {
  std::string prompt = "original";
  ZEMSessionOptions options = keepAll();
  options.system_prompt = prompt.c_str();
  EXPECT_EQ(session_.configure(options), 0);
  prompt = "scribble";
  EXPECT_EQ(s_.sysText, "original");
}

}  // namespace
