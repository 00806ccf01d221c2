// SPDX-License-Identifier: Apache-2.0
// The token loop and the one-shot entries.
#include "session/generate.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "runtime_qwen35_vulkan/cpu_only.h"
#include "runtime_qwen35_vulkan/session/session_support.h"
#include "support/float_values.h"

namespace {

using zemtest::cheapOptions;
using zemtest::encode;
using zemtest::endlessModel;
using zemtest::kBudget;
using zemtest::keepAll;
using zemtest::kInf;
using zemtest::kNan;
using zemtest::linked;
using zemtest::ModelFile;
using zemtest::Session;
using zemtest::setEmbeddingRow;
using zemtest::stderrOf;
using zemtest::TextResult;
using zemtest::TinyModel;
using zemtest::TinyModelOptions;

// The first token that greedy decoding takes after `prompt`.
int32_t firstGreedyId(const TinyModelOptions& options, const std::string& prompt) {
  const ModelFile file{TinyModel(options)};
  const Session session(file, nullptr, linked());
  auto& s = session.members();
  std::vector<float> x(s.model.nEmb);
  std::vector<float> logits(s.model.nVocab);
  EXPECT_TRUE(qwen35rt::prefill(s, encode(session, prompt), x, logits));
  int32_t best = 0;
  for (size_t i = 1; i < logits.size(); ++i) {
    if (logits[i] > logits[size_t(best)]) best = int32_t(i);
  }
  return best;
}

// ---- Arguments and buffers ----

TEST(GenerateTest, NullAndZeroArgumentsAreInvalid) {
  const ModelFile file{TinyModel(cheapOptions())};
  const Session session(file);
  const auto& api = session.api();
  char out[8] = "###";
  EXPECT_EQ(api.generate(nullptr, "a", out, sizeof out), 2);
  EXPECT_EQ(api.generate(session.handle(), "a", nullptr, sizeof out), 2);
  EXPECT_EQ(api.generate(session.handle(), "a", out, 0), 2);
  EXPECT_EQ(api.generate_ex(nullptr, "a", nullptr, out, sizeof out), 2);
  EXPECT_EQ(api.generate_ex(session.handle(), "a", nullptr, nullptr, sizeof out), 2);
  EXPECT_EQ(api.generate_ex(session.handle(), "a", nullptr, out, 0), 2);
  EXPECT_STREQ(out, "###");
}

TEST(GenerateTest, AModelThatIsNotReadyIsInvalid) {
  qwen35rt::Qwen35Session raw;
  auto* handle = reinterpret_cast<ZEMRuntimeHandle*>(&raw);
  char out[8] = "###";
  EXPECT_EQ(linked().v2->generate(handle, "a", out, sizeof out), 2);
  EXPECT_EQ(linked().v2->generate_ex(handle, "a", nullptr, out, sizeof out), 2);
  EXPECT_STREQ(out, "###");
}

TEST(GenerateTest, TheTextIsCutToItsBuffer) {
  const ModelFile file{endlessModel()};
  const Session session(file, "host;ctx=24");
  const std::string whole = session.generate("the").text;
  ASSERT_GT(whole.size(), 20U);
  for (const size_t size : {size_t{1}, size_t{2}, size_t{10}, whole.size(), whole.size() + 1}) {
    std::string out(whole.size() + 10, '#');
    EXPECT_EQ(session.api().generate(session.handle(), "the", out.data(), size), 0);
    const std::string expected = whole.substr(0, size - 1);
    EXPECT_EQ(out.substr(0, expected.size() + 2), expected + '\0' + '#') << size;
  }
}

TEST(GenerateTest, ABufferOfOneRunsTheWholeCall) {
  const ModelFile file{endlessModel()};
  const Session session(file, "host;ctx=10");
  char out = '#';
  EXPECT_EQ(session.api().generate(session.handle(), "the", &out, 1), 0);
  EXPECT_EQ(out, '\0');
  EXPECT_EQ(session.stats().tokens, 10U) << "one after each position of the context";
}

// ---- What a completion is ----

TEST(GenerateTest, EndsAfter96Tokens) {
  const ModelFile file{endlessModel()};
  const Session session(file, nullptr, linked());
  const TextResult result = session.generate("the cat");
  EXPECT_EQ(result.rc, 0);
  const auto& s = session.members();
  EXPECT_EQ(s.genTokens, kBudget);
  // The last token is not fed.
  EXPECT_EQ(s.pos, encode(session, "the cat").size() + kBudget - 1);
  EXPECT_GT(s.lastStepMs, 0.0);
  EXPECT_GT(s.genMs, s.lastStepMs);
}

TEST(GenerateTest, TheTextIsThatOfTheGreedyTokens) {
  const ModelFile file{endlessModel()};
  const Session session(file, nullptr, linked());
  constexpr size_t kTokens = 12;
  session.setContext(encode(session, "the cat").size() + kTokens - 1);
  const std::string text = session.generate("the cat").text;

  const Session byHand(file, nullptr, linked());
  auto& s = byHand.members();
  std::vector<float> x(s.model.nEmb);
  std::vector<float> logits(s.model.nVocab);
  ASSERT_TRUE(qwen35rt::prefill(s, encode(byHand, "the cat"), x, logits));
  std::vector<int32_t> ids;
  while (ids.size() < kTokens) {
    size_t best = 0;
    for (size_t i = 0; i < logits.size(); ++i) {
      if (logits[i] > logits[best]) best = i;
    }
    ids.push_back(int32_t(best));
    qwen35::embedRow(s.model, best, x.data());
    qwen35::forwardToken(s.model, x.data(), s.pos++, logits.data());
  }
  std::string expected;
  ASSERT_TRUE(s.tok->decode(ids, expected).ok());
  EXPECT_EQ(text, expected);
}

TEST(GenerateTest, StartsAfreshEveryTime) {
  TinyModelOptions options = cheapOptions();
  options.linearLayers = {0, 5};
  const ModelFile file{TinyModel(options)};
  const Session session(file, "host;ctx=16");
  const std::string first = session.generate("the cat").text;
  EXPECT_NE(session.generate("a dog").text, first);
  EXPECT_EQ(session.generate("the cat").text, first);
}

TEST(GenerateTest, ANullPromptIsTheEmptyOne) {
  const ModelFile file{endlessModel()};
  const Session session(file, "host;ctx=8");
  const TextResult null = session.generate(nullptr);
  EXPECT_EQ(null.rc, 0);
  EXPECT_EQ(session.generate("").text, null.text);
}

TEST(GenerateTest, AnEmptyPromptBeginsWithTokenZero) {
  TinyModelOptions options = cheapOptions();
  options.tokenizer.eosId = -1;
  options.tokenizer.tokens[0] = "ZERO";
  const ModelFile file{TinyModel(options)};
  const Session session(file, "host;ctx=8", linked());
  const TextResult result = session.generate("");
  EXPECT_EQ(result.rc, 0);
  EXPECT_EQ(result.text.rfind("ZERO", 0), 0U) << result.text;
  EXPECT_EQ(session.members().pos, 8U);
  EXPECT_EQ(session.members().genTokens, 9U);
}

TEST(GenerateTest, AnEmptyPromptEndsAtOnceWhenTokenZeroIsTheStop) {
  const ModelFile file{TinyModel(cheapOptions())};
  const Session session(file, nullptr, linked());
  const TextResult result = session.generate("");
  EXPECT_EQ(result.rc, 0);
  EXPECT_EQ(result.text, "");
  EXPECT_EQ(session.members().pos, 0U);
  EXPECT_EQ(session.members().genTokens, 1U);
  EXPECT_EQ(session.members().genMs, 0.0);
}

TEST(GenerateTest, TheStoppingTokenIsCountedButNeitherDecodedNorFed) {
  TinyModelOptions options = cheapOptions();
  options.tokenizer.eosId = firstGreedyId(options, "the cat");
  const ModelFile file{TinyModel(options)};
  const Session session(file, nullptr, linked());
  const TextResult result = session.generate("the cat");
  EXPECT_EQ(result.rc, 0);
  EXPECT_EQ(result.text, "");
  EXPECT_EQ(session.members().genTokens, 1U);
  EXPECT_EQ(session.members().pos, encode(session, "the cat").size());
}

TEST(GenerateTest, AFreshStartKeepsTheLastStepTime) {
  const ModelFile file{TinyModel(cheapOptions())};
  const Session session(file, "host;ctx=8");
  EXPECT_EQ(session.generate("the").rc, 0);
  const double lastStepMs = session.stats().last_step_ms;
  EXPECT_GT(lastStepMs, 0.0);
  EXPECT_EQ(session.generate("").rc, 0);  // stops before any step
  EXPECT_EQ(session.stats().last_step_ms, lastStepMs);
  EXPECT_EQ(session.stats().generation_ms, 0.0);
}

TEST(GenerateTest, ABeginningOfSequenceIdIsFedFirst) {
  TinyModelOptions options = cheapOptions();
  const ModelFile without{endlessModel(options)};
  options.tokenizer.bosId = 1;
  const ModelFile with{endlessModel(options)};
  EXPECT_EQ(Session(without, "host;ctx=1").generate("the").rc, 0);
  EXPECT_EQ(Session(with, "host;ctx=1").generate("the").rc, 1) << "no room for two";
  EXPECT_EQ(Session(with, "host;ctx=2").generate("the").rc, 0);
}

TEST(GenerateTest, EndsAChat) {
  const ModelFile file{TinyModel(cheapOptions())};
  const Session session(file, "host;ctx=32", linked());
  EXPECT_EQ(session.chat("hello").rc, 0);
  EXPECT_TRUE(session.members().chatStarted);
  EXPECT_EQ(session.generate("the").rc, 0);
  EXPECT_FALSE(session.members().chatStarted);
}

TEST(GenerateTest, IsTheSameForEveryNumberOfThreads) {
  TinyModelOptions options = cheapOptions();
  options.linearLayers = {3};
  const ModelFile file{endlessModel(options)};
  const Session session(file, "host;ctx=16");
  const int before = omp_get_max_threads();
  std::vector<std::string> texts;
  for (const int threads : {1, 2, 5}) {
    omp_set_num_threads(threads);
    texts.push_back(session.generate("the cat").text);
  }
  omp_set_num_threads(before);
  EXPECT_EQ(texts[1], texts[0]);
  EXPECT_EQ(texts[2], texts[0]);
  EXPECT_GT(texts[0].size(), 4U);
}

// ---- Context ----

TEST(GenerateTest, APromptLongerThanTheContextFails) {
  const ModelFile file{TinyModel(cheapOptions())};
  const Session session(file, "host;ctx=4", linked());
  ASSERT_EQ(encode(session, "bcdfg").size(), 5U);
  std::string printed = stderrOf([&] {
    const TextResult result = session.generate("bcdfg");
    EXPECT_EQ(result.rc, 1);
    EXPECT_EQ(result.text, "");
  });
  EXPECT_EQ(printed, "");
  EXPECT_EQ(session.members().pos, 4U);
  EXPECT_EQ(session.members().genTokens, 0U);
}

TEST(GenerateTest, APromptThatFillsTheContextYieldsOneToken) {
  const ModelFile file{endlessModel()};
  const Session session(file, "host;ctx=4", linked());
  ASSERT_EQ(encode(session, "bcdf").size(), 4U);
  const TextResult result = session.generate("bcdf");
  EXPECT_EQ(result.rc, 0);
  EXPECT_NE(result.text, "");
  EXPECT_EQ(session.members().pos, 4U);
  EXPECT_EQ(session.members().genTokens, 1U);
}

TEST(GenerateTest, AContextThatFillsUpEndsTheTextNormally) {
  const ModelFile file{endlessModel()};
  const Session session(file, "host;ctx=10", linked());
  EXPECT_EQ(session.generate("bcdf").rc, 0);
  EXPECT_EQ(session.members().pos, 10U);
  EXPECT_EQ(session.members().genTokens, 7U);
}

// ---- Values that are not finite ----

struct Outcome {
  int rc;
  size_t pos;
  std::string text;
};
Outcome runOn(const TinyModel& model, const std::string& prompt) {
  const ModelFile file{model};
  const Session session(file, "host;ctx=8", linked());
  TextResult result;
  EXPECT_EQ(stderrOf([&] { result = session.generate(prompt.c_str()); }), "");
  return {result.rc, session.members().pos, result.text};
}

TEST(FinitenessTest, ANanLogitBetweenTheSamplesGoesUnnoticed) {
  TinyModel model = endlessModel();
  setEmbeddingRow(model, 5, std::vector<float>(8, kNan));
  EXPECT_EQ(runOn(model, "bcd").rc, 0);
}

TEST(FinitenessTest, ANonFiniteFirstLogitFails) {
  for (const float bad : {kNan, kInf, -kInf}) {
    TinyModel model(cheapOptions());
    setEmbeddingRow(model, 0, {bad, 0, 0, 0, 0, 0, 0, 0});
    const Outcome run = runOn(model, "bcd");
    EXPECT_EQ(run.rc, 1) << bad;
    EXPECT_EQ(run.pos, 3U) << bad;
    EXPECT_EQ(run.text, "") << bad;
  }
}

TEST(FinitenessTest, Every4096thLogitIsLookedAt) {
  TinyModelOptions options = cheapOptions();
  options.vocab = 8200;
  for (const size_t row : std::vector<size_t>{4095, 4096, 4097, 8191, 8192, 8193}) {
    TinyModel model = endlessModel(options);
    setEmbeddingRow(model, row, std::vector<float>(8, kNan));
    const ModelFile file{model};
    const Session session(file, nullptr, linked());
    auto& s = session.members();
    std::vector<float> x(s.model.nEmb, 0.5F);
    std::vector<float> logits(s.model.nVocab);
    EXPECT_EQ(qwen35rt::forwardStep(s, x, logits), row % 4096 != 0) << row;
    EXPECT_EQ(s.pos, 1U);
  }
}

TEST(FinitenessTest, ForwardStepWithoutLogitsSucceeds) {
  const ModelFile file{TinyModel(cheapOptions())};
  const Session session(file, nullptr, linked());
  auto& s = session.members();
  s.model.nVocab = 0;
  std::vector<float> nothing;
  EXPECT_TRUE(qwen35rt::forwardStep(s, std::vector<float>(s.model.nEmb), nothing));
  EXPECT_EQ(s.pos, 1U);
}

TEST(FinitenessTest, EveryElementOfTheHiddenStateIsLookedAt) {
  for (const size_t element : std::vector<size_t>{0, 1, 7}) {
    for (const float bad : {kNan, kInf}) {
      TinyModel model(cheapOptions());
      model.setFloat("output_norm.weight", element, bad);
      const Outcome run = runOn(model, "bcd");
      EXPECT_EQ(run.rc, 1);
      EXPECT_EQ(run.pos, 1U) << "the first of three steps fails";
    }
  }
}

TEST(FinitenessTest, AStepThatFailsInTheMiddleDiscardsTheText) {
  TinyModel model = endlessModel();
  // Some step makes the logit of row 50 infinite; feeding that row spoils the next.
  setEmbeddingRow(model, 50, {kInf, 0, 0, 0, 0, 0, 0, 0});
  const ModelFile file{model};
  const Session session(file, nullptr, linked());
  const size_t promptSize = encode(session, "bcd").size();
  const TextResult result = session.generate("bcd");
  EXPECT_EQ(result.rc, 1);
  EXPECT_EQ(result.text, "");
  const auto& s = session.members();
  EXPECT_GE(s.genTokens, 1U);
  EXPECT_EQ(s.pos, promptSize + s.genTokens) << "pos is behind the failing step";
  EXPECT_EQ(session.reset(), 0);
  EXPECT_EQ(session.generate("").rc, 0) << "the session goes on";
}

// ---- Ids without an embedding row ----

TEST(TokenIdTest, APromptTokenWithoutARowFailsWithOneLine) {
  TinyModelOptions options = cheapOptions();
  options.vocab = 50;
  const ModelFile file{TinyModel(options)};
  const Session session(file, nullptr, linked());
  const int32_t id = session.members().tok->tokenToId("z");
  ASSERT_GT(id, 50);
  const std::string printed = stderrOf([&] { EXPECT_EQ(session.generate("!!z").rc, 1); });
  EXPECT_EQ(printed, "[qwen35-vulkan] token id " + std::to_string(id) +
                         " has no embedding row - the model has 50 rows\n");
  EXPECT_EQ(session.members().pos, 2U);
}

TEST(TokenIdTest, TheFirstIdBehindTheTableIsRefusedAndTheLastInsideTaken) {
  TinyModelOptions options = cheapOptions();
  options.vocab = 50;
  options.tokenizer.eosId = -1;
  const ModelFile file{TinyModel(options)};
  const Session session(file, "host;ctx=4", linked());
  std::string last;
  std::string behind;
  ASSERT_TRUE(session.members().tok->decode({49}, last).ok());
  ASSERT_TRUE(session.members().tok->decode({50}, behind).ok());
  EXPECT_EQ(session.generate(last.c_str()).rc, 0);
  EXPECT_NE(stderrOf([&] { EXPECT_EQ(session.generate(behind.c_str()).rc, 1); }), "");
}

TEST(TokenIdTest, HostileSpecialIdsAreRefused) {
  for (const int32_t id : {106, 1000000, std::numeric_limits<int32_t>::max()}) {
    TinyModelOptions options = cheapOptions();
    options.tokenizer.bosId = id;
    const ModelFile bos{TinyModel(options)};
    const Session withBos(bos);
    options.tokenizer.bosId = -1;
    options.tokenizer.unkId = id;
    const ModelFile unk{TinyModel(options)};
    const Session withUnk(unk);
    const std::string line = "[qwen35-vulkan] token id " + std::to_string(id) +
                             " has no embedding row - the model has 106 rows\n";
    EXPECT_EQ(stderrOf([&] { EXPECT_EQ(withBos.generate("").rc, 1); }), line);
    EXPECT_EQ(stderrOf([&] { EXPECT_EQ(withUnk.chat("\xC3\xA9").rc, 1); }), line);
  }
}

TEST(TokenIdTest, ANegativeIdIsRefused) {
  const ModelFile file{TinyModel(cheapOptions())};
  const Session session(file, nullptr, linked());
  auto& s = session.members();
  std::vector<float> x(s.model.nEmb);
  std::vector<float> logits(s.model.nVocab);
  const std::string printed = stderrOf([&] {
    EXPECT_FALSE(qwen35rt::prefill(s, {5, -1}, x, logits));
  });
  EXPECT_EQ(printed, "[qwen35-vulkan] token id -1 has no embedding row - the model has 106 rows\n");
  EXPECT_EQ(s.pos, 1U);
}

// An embedding larger than the tokenizer: ids beyond it are empty pieces.
TEST(TokenIdTest, IdsThatTheTokenizerDoesNotKnowAreEmptyText) {
  TinyModelOptions options = cheapOptions();
  options.vocab = 4000;
  const ModelFile file{endlessModel(options)};
  const Session session(file, "host;ctx=20");
  const TextResult result = session.generate("the");
  EXPECT_EQ(result.rc, 0);
  EXPECT_EQ(session.stats().tokens, 20U);
  EXPECT_LT(result.text.size(), 20U);
}

// ---- The functions underneath ----

TEST(PrefillTest, NoIdsTouchNothing) {
  qwen35rt::Qwen35Session raw;  // not even a context
  std::vector<float> x;
  std::vector<float> logits = {1, 2};
  EXPECT_TRUE(qwen35rt::prefill(raw, {}, x, logits));
  EXPECT_EQ(raw.pos, 0U);
  EXPECT_EQ(logits, (std::vector<float>{1, 2}));
}

TEST(PrefillTest, CountsTimeButNoTokens) {
  const ModelFile file{TinyModel(cheapOptions())};
  const Session session(file, nullptr, linked());
  auto& s = session.members();
  std::vector<float> x(s.model.nEmb);
  std::vector<float> logits(s.model.nVocab);
  EXPECT_TRUE(qwen35rt::prefill(s, {5, 6, 7}, x, logits));
  EXPECT_EQ(s.pos, 3U);
  EXPECT_EQ(s.genTokens, 0U);
  EXPECT_GT(s.lastStepMs, 0.0);
  EXPECT_GT(s.genMs, s.lastStepMs);
}

// A prompt of many tokens, with what one-by-one feeding makes of it.
struct FedPrompt {
  bool ok = false;
  std::vector<float> logits;
};

FedPrompt feedAtOnce(qwen35rt::Qwen35Session& s, const std::vector<int32_t>& ids) {
  std::vector<float> x(s.model.nEmb);
  FedPrompt fed{false, std::vector<float>(s.model.nVocab)};
  fed.ok = qwen35rt::prefill(s, ids, x, fed.logits);
  return fed;
}

// The rule for one token, over and over: a full context, an id without a row and a
// state that is not finite end it.
FedPrompt feedOneByOne(qwen35rt::Qwen35Session& s, const std::vector<int32_t>& ids) {
  std::vector<float> x(s.model.nEmb);
  std::vector<float> hidden(s.model.nEmb);
  FedPrompt fed{true, std::vector<float>(s.model.nVocab)};
  for (size_t i = 0; fed.ok && i < ids.size(); ++i) {
    fed.ok = s.pos < s.ctxCap && qwen35rt::embed(s, ids[i], x);
    if (!fed.ok) break;
    if (i + 1 == ids.size()) {
      fed.ok = qwen35rt::forwardStep(s, x, fed.logits);
      break;
    }
    qwen35::forwardTokenHidden(s.model, x.data(), s.pos++, hidden.data());
    for (const float h : hidden) fed.ok = fed.ok && std::isfinite(h);
  }
  return fed;
}

// As bytes: a state that went bad holds NaNs.
bool sameBytes(const float* a, const float* b, size_t n) {
  return n == 0 || std::memcmp(a, b, n * sizeof(float)) == 0;
}

void expectSameSession(const qwen35rt::Qwen35Session& a, const qwen35rt::Qwen35Session& b) {
  constexpr size_t kSlots = 120;  // more than any test here fills
  EXPECT_EQ(a.pos, b.pos);
  EXPECT_EQ(a.genTokens, b.genTokens);
  for (size_t i = 0; i < a.model.L.size(); ++i) {
    const qwen35::Layer& one = a.model.L[i];
    const qwen35::Layer& other = b.model.L[i];
    EXPECT_EQ(one.kvLen, other.kvLen) << i;
    EXPECT_TRUE(sameBytes(one.state.data(), other.state.data(), one.state.size())) << i;
    EXPECT_TRUE(sameBytes(one.convWin.data(), other.convWin.data(), one.convWin.size())) << i;
    for (size_t g = 0; !one.recr && g < a.model.nHeadKv; ++g) {
      const size_t first = g * a.model.kvCap * a.model.headDim;
      const size_t n = kSlots * a.model.headDim;
      EXPECT_TRUE(sameBytes(&one.kCache[first], &other.kCache[first], n)) << i;
      EXPECT_TRUE(sameBytes(&one.vCache[first], &other.vCache[first], n)) << i;
    }
  }
}

std::vector<int32_t> promptOf(size_t count) {
  std::vector<int32_t> ids(count);
  for (size_t i = 0; i < count; ++i) ids[i] = static_cast<int32_t>((i * 7 + 3) % 40);
  return ids;
}

// Feeds the same ids in both ways, after `before` other ones.
void expectSameFeeding(const TinyModel& model, size_t before, const std::vector<int32_t>& ids,
                       const char* options, bool ok) {
  const ModelFile file{model};
  const Session together(file, options, linked());
  const Session singly(file, options, linked());
  FedPrompt a;
  FedPrompt b;
  const std::string printedA = stderrOf([&] {
    if (before > 0) feedAtOnce(together.members(), promptOf(before));
    a = feedAtOnce(together.members(), ids);
  });
  const std::string printedB = stderrOf([&] {
    if (before > 0) feedOneByOne(singly.members(), promptOf(before));
    b = feedOneByOne(singly.members(), ids);
  });
  EXPECT_EQ(a.ok, ok);
  EXPECT_EQ(b.ok, ok);
  EXPECT_EQ(a.logits, b.logits);
  EXPECT_EQ(printedA, printedB);
  expectSameSession(together.members(), singly.members());
}

TEST(PrefillTest, ALongPromptIsFedAsOneByOne) {
  for (const size_t count : {2, 49, 110}) {
    for (const size_t before : {0, 5}) {
      SCOPED_TRACE(testing::Message() << count << " after " << before);
      expectSameFeeding(TinyModel(cheapOptions()), before, promptOf(count), nullptr, true);
    }
  }
}

// The states after the failing token, those of the tokens behind it among them, are
// not to be seen.
TEST(PrefillTest, ATokenThatFailsInTheMiddleLeavesTheStateOfItsStep) {
  for (const size_t at : {0, 20, 47, 48}) {
    for (const size_t before : {0, 3}) {
      SCOPED_TRACE(testing::Message() << "token " << at << " after " << before);
      TinyModel model(cheapOptions());
      setEmbeddingRow(model, 45, std::vector<float>(8, kInf));
      std::vector<int32_t> ids = promptOf(80);
      ids[at] = 45;
      expectSameFeeding(model, before, ids, nullptr, false);
    }
  }
}

TEST(PrefillTest, AnIdWithoutARowInTheMiddleStopsBehindTheOnesBefore) {
  for (const size_t at : {0, 20, 79}) {
    for (const int32_t id : {-1, 106}) {
      SCOPED_TRACE(testing::Message() << "id " << id << " at " << at);
      std::vector<int32_t> ids = promptOf(80);
      ids[at] = id;
      expectSameFeeding(TinyModel(cheapOptions()), 0, ids, nullptr, false);
    }
  }
}

TEST(PrefillTest, TheContextEndsInTheMiddle) {
  for (const char* options : {"host;ctx=1", "host;ctx=20", "host;ctx=48", "host;ctx=49"}) {
    SCOPED_TRACE(options);
    expectSameFeeding(TinyModel(cheapOptions()), 0, promptOf(80), options, false);
  }
  expectSameFeeding(TinyModel(cheapOptions()), 0, promptOf(80), "host;ctx=80", true);
}

TEST(PrefillTest, ABadIdBehindTheEndOfTheContextIsNotLookedAt) {
  std::vector<int32_t> ids = promptOf(30);
  ids[20] = -1;
  expectSameFeeding(TinyModel(cheapOptions()), 0, ids, "host;ctx=20", false);
}

TEST(PrefillTest, InPartsGivesTheSameLogitsAsAtOnce) {
  TinyModelOptions options = cheapOptions();
  options.linearLayers = {1};
  const ModelFile file{TinyModel(options)};
  const Session whole(file, nullptr, linked());
  const Session parts(file, nullptr, linked());
  auto& a = whole.members();
  auto& b = parts.members();
  std::vector<float> x(a.model.nEmb);
  std::vector<float> logitsA(a.model.nVocab);
  std::vector<float> logitsB(a.model.nVocab);
  EXPECT_TRUE(qwen35rt::prefill(a, {5, 6, 7, 8, 9}, x, logitsA));
  EXPECT_TRUE(qwen35rt::prefill(b, {5, 6}, x, logitsB));
  EXPECT_TRUE(qwen35rt::prefill(b, {7}, x, logitsB));
  EXPECT_TRUE(qwen35rt::prefill(b, {8, 9}, x, logitsB));
  EXPECT_EQ(logitsA, logitsB);
}

TEST(GeneratePiecesTest, ATokenThatDoesNotDecodeEndsTheTextNormally) {
  const ModelFile file{TinyModel(cheapOptions())};
  const Session session(file, nullptr, linked());
  auto& s = session.members();
  s.tok = std::make_unique<kiv::Tokenizer>();  // empty: decodes nothing
  std::vector<float> x(s.model.nEmb);
  std::vector<float> logits(s.model.nVocab);
  bool ok = false;
  EXPECT_EQ(qwen35rt::generate(s, x, logits, -1, ok), "");
  EXPECT_TRUE(ok);
  EXPECT_EQ(s.genTokens, 1U);
  EXPECT_EQ(s.pos, 0U);
}

TEST(GeneratePiecesTest, TheStopTokenOfTheCallerStops) {
  const ModelFile file{endlessModel()};
  const Session session(file, nullptr, linked());
  auto& s = session.members();
  std::vector<float> x(s.model.nEmb);
  std::vector<float> logits(s.model.nVocab);
  logits[17] = 1.0F;
  bool ok = false;
  EXPECT_EQ(qwen35rt::generate(s, x, logits, 17, ok), "");
  EXPECT_TRUE(ok);
  EXPECT_EQ(s.genTokens, 1U);
}

// ---- Settings for one call ----

class GenerateExTest : public testing::Test {
 protected:
  const ModelFile file_{endlessModel()};
  const Session session_{file_, "host;ctx=16", linked()};
  qwen35rt::Qwen35Session& s_ = session_.members();
};

TEST_F(GenerateExTest, WithoutOptionsIsGenerate) {
  EXPECT_EQ(session_.generateEx("the", nullptr).text, session_.generate("the").text);
}

TEST_F(GenerateExTest, SettingsLastForTheCallOnly) {
  s_.temperature = 0.25F;
  s_.topK = 3;
  s_.topP = 0.5F;
  ZEMSessionOptions options = keepAll();
  options.temperature = 5.0F;
  options.top_k = 50;
  options.top_p = 1.0F;
  EXPECT_EQ(session_.generateEx("the", &options).rc, 0);
  EXPECT_EQ(s_.temperature, 0.25F);
  EXPECT_EQ(s_.topK, 3);
  EXPECT_EQ(s_.topP, 0.5F);
}

TEST_F(GenerateExTest, SettingsAreRestoredAfterAFailure) {
  s_.ctxCap = 1;
  ZEMSessionOptions options = keepAll();
  options.temperature = 5.0F;
  options.top_k = 50;
  EXPECT_EQ(session_.generateEx("bcd", &options).rc, 1);
  EXPECT_EQ(s_.temperature, 0.0F);
  EXPECT_EQ(s_.topK, 0);
}

TEST_F(GenerateExTest, SettingsOfTheCallAreUsed) {
  const std::string greedy = session_.generate("the").text;
  ZEMSessionOptions options = keepAll();
  options.temperature = 10.0F;
  options.seed = 5;
  const std::string drawn = session_.generateEx("the", &options).text;
  EXPECT_NE(drawn, greedy);
  EXPECT_EQ(session_.generateEx("the", &options).text, drawn) << "the same seed";
  options.seed = 6;
  EXPECT_NE(session_.generateEx("the", &options).text, drawn);
  options.top_k = 1;
  EXPECT_EQ(session_.generateEx("the", &options).text, greedy);
}

TEST_F(GenerateExTest, TwoSessionsWithOneSeedAgree) {
  const Session other(file_, "host;ctx=16");
  ZEMSessionOptions options = keepAll();
  options.temperature = 10.0F;
  EXPECT_EQ(session_.generateEx("the", &options).text, other.generateEx("the", &options).text);
}

TEST_F(GenerateExTest, TopKZeroAndTemperatureBelowZeroKeepTheSessions) {
  s_.topK = 1;
  s_.temperature = 10.0F;
  ZEMSessionOptions options = keepAll();
  options.temperature = 5.0F;
  options.top_k = 0;
  EXPECT_EQ(session_.generateEx("the", &options).rc, 0);
  EXPECT_EQ(s_.rng, std::mt19937(42)) << "top_k 0 keeps 1, which is greedy";

  s_.topK = 0;
  s_.temperature = 0.0F;
  options.temperature = -1.0F;
  EXPECT_EQ(session_.generateEx("the", &options).rc, 0);
  EXPECT_EQ(s_.rng, std::mt19937(42)) << "temperature -1 keeps 0, which is greedy";
}

TEST_F(GenerateExTest, TheGeneratorStaysReseeded) {
  ZEMSessionOptions options = keepAll();
  options.seed = 0xFFFFFFFF00000009;
  EXPECT_EQ(session_.generateEx("the", &options).rc, 0);
  EXPECT_EQ(s_.rng, std::mt19937(9)) << "greedy drew nothing from it";
  EXPECT_EQ(s_.seed, 42U);
}

TEST_F(GenerateExTest, ATooSmallRecordIsIgnored) {
  ZEMSessionOptions options = keepAll();
  options.temperature = 10.0F;
  options.seed = 9;
  options.struct_size = 39;
  EXPECT_EQ(session_.generateEx("the", &options).text, session_.generate("the").text);
  EXPECT_EQ(s_.rng, std::mt19937(42));
}

TEST_F(GenerateExTest, FieldsBehindTheSamplingOnesAreNotRead) {
  ZEMSessionOptions options = keepAll();
  options.max_tokens = 1;
  options.ctx_len = 5;
  options.kv_cache_type = 1;
  options.system_prompt = "You are a test.";
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(session_.generateEx("the", &options).rc, 0); }), "");
  EXPECT_EQ(s_.genTokens, 16U);
  EXPECT_EQ(s_.ctxCap, 16U);
  EXPECT_EQ(s_.kvType, 0);
  EXPECT_EQ(s_.sysText, "");

  std::vector<uint64_t> memory(5);  // 40 bytes and not one more
  options.struct_size = 40;
  std::memcpy(memory.data(), &options, 40);
  const auto* record = reinterpret_cast<const ZEMSessionOptions*>(memory.data());
  EXPECT_EQ(session_.generateEx("the", record).rc, 0);
}

}  // namespace
