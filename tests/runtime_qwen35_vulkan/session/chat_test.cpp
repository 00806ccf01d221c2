// SPDX-License-Identifier: Apache-2.0
// Conversations, whole and streamed.
#include "session/chat.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "runtime_qwen35_vulkan/cpu_only.h"
#include "runtime_qwen35_vulkan/session/session_support.h"
#include "session/generate.h"

namespace {

using zemtest::cheapOptions;
using zemtest::encode;
using zemtest::endlessModel;
using zemtest::kBudget;
using zemtest::keepAll;
using zemtest::linked;
using zemtest::ModelFile;
using zemtest::Session;
using zemtest::setEmbeddingRow;
using zemtest::StreamResult;
using zemtest::TextResult;
using zemtest::TinyModel;
using zemtest::TinyModelOptions;

constexpr int32_t kEndOfTurn = 2;

std::string framed(const std::string& user) {
  return "<|im_start|>user\n" + user + "<|im_end|>\n<|im_start|>assistant\n";
}

void setSystemPrompt(const Session& session, const char* text) {
  ZEMSessionOptions options = keepAll();
  options.system_prompt = text;
  EXPECT_EQ(session.configure(options), 0);
}

// Feeds a turn without generating: the cancel flag is set from the beginning.
void feedOnly(const Session& session, const char* user) {
  volatile int cancel = 1;
  EXPECT_EQ(session.streamTo(user, nullptr, nullptr, &cancel), 0);
}

// The part of the decoder's state that fed tokens have written.
std::vector<std::vector<float>> usedState(const Session& session) {
  std::vector<std::vector<float>> parts;
  const auto& m = session.members().model;
  for (const auto& layer : m.L) {
    parts.emplace_back(layer.state.begin(), layer.state.end());
    parts.emplace_back(layer.convWin.begin(), layer.convWin.end());
    if (layer.recr) continue;
    for (size_t head = 0; head < m.nHeadKv; ++head) {
      const auto from = static_cast<ptrdiff_t>(head * m.kvCap * m.headDim);
      const auto to = from + static_cast<ptrdiff_t>(layer.kvLen * m.headDim);
      parts.emplace_back(layer.kCache.begin() + from, layer.kCache.begin() + to);
      parts.emplace_back(layer.vCache.begin() + from, layer.vCache.begin() + to);
    }
  }
  return parts;
}

// ---- Arguments ----

TEST(ChatTest, NullAndZeroArgumentsAreInvalid) {
  const ModelFile file{TinyModel(cheapOptions())};
  const Session session(file);
  char out[8] = "###";
  const auto& api = session.api();
  EXPECT_EQ(api.chat_turn(nullptr, "a", out, sizeof out), 2);
  EXPECT_EQ(api.chat_turn(session.handle(), "a", nullptr, sizeof out), 2);
  EXPECT_EQ(api.chat_turn(session.handle(), "a", out, 0), 2);
  EXPECT_STREQ(out, "###");
  EXPECT_EQ(zemtest::builtModule().v2s->chat_turn_stream(nullptr, "a", nullptr, nullptr, nullptr),
            2);
}

TEST(ChatTest, AModelThatIsNotReadyIsInvalid) {
  qwen35rt::Qwen35Session raw;
  auto* handle = reinterpret_cast<ZEMRuntimeHandle*>(&raw);
  char out[8];
  EXPECT_EQ(linked().v2->chat_turn(handle, "a", out, sizeof out), 2);
  EXPECT_EQ(linked().v2s->chat_turn_stream(handle, "a", nullptr, nullptr, nullptr), 2);
}

TEST(ChatTest, TheReplyIsCutToItsBuffer) {
  const ModelFile file{endlessModel()};
  const std::string whole = Session(file, "host;ctx=40").chat("hi").text;
  ASSERT_GT(whole.size(), 10U);
  for (const size_t size : {size_t{1}, size_t{7}, whole.size(), whole.size() + 1}) {
    const Session session(file, "host;ctx=40");
    std::string out(whole.size() + 10, '#');
    EXPECT_EQ(session.api().chat_turn(session.handle(), "hi", out.data(), size), 0);
    const std::string expected = whole.substr(0, size - 1);
    EXPECT_EQ(out.substr(0, expected.size() + 2), expected + '\0' + '#') << size;
  }
}

// ---- What is fed ----

TEST(ChatTest, AFirstTurnWithoutSystemTextHasNoSystemBlock) {
  const ModelFile file{TinyModel(cheapOptions())};
  const Session session(file, nullptr, linked());
  feedOnly(session, "hello there");
  EXPECT_EQ(session.members().pos, encode(session, framed("hello there")).size());
}

TEST(ChatTest, TheSystemBlockComesFirstAndOnce) {
  const ModelFile file{TinyModel(cheapOptions())};
  const Session session(file, nullptr, linked());
  setSystemPrompt(session, "be brief");
  feedOnly(session, "hello");
  const size_t first =
      encode(session, "<|im_start|>system\nbe brief<|im_end|>\n" + framed("hello")).size();
  EXPECT_EQ(session.members().pos, first);
  feedOnly(session, "again");
  EXPECT_EQ(session.members().pos, first + encode(session, framed("again")).size());
  EXPECT_EQ(session.members().sysText, "be brief");
}

TEST(ChatTest, TheStateIsThatOfTheFramedText) {
  TinyModelOptions options = cheapOptions();
  options.linearLayers = {2};
  const ModelFile file{TinyModel(options)};
  const Session chat(file, nullptr, linked());
  setSystemPrompt(chat, "be brief");
  feedOnly(chat, "hello");
  feedOnly(chat, "again");

  const Session plain(file, nullptr, linked());
  auto& s = plain.members();
  std::vector<float> x(s.model.nEmb);
  std::vector<float> logits(s.model.nVocab);
  const std::string text = "<|im_start|>system\nbe brief<|im_end|>\n" + framed("hello");
  ASSERT_TRUE(qwen35rt::prefill(s, encode(plain, text), x, logits));
  EXPECT_NE(usedState(plain), usedState(chat));
  ASSERT_TRUE(qwen35rt::prefill(s, encode(plain, framed("again")), x, logits));
  EXPECT_EQ(usedState(plain), usedState(chat));
}

TEST(ChatTest, NullUserTextIsEmpty) {
  const ModelFile file{TinyModel(cheapOptions())};
  const Session session(file, nullptr, linked());
  feedOnly(session, nullptr);
  EXPECT_EQ(session.members().pos, encode(session, framed("")).size());
}

TEST(ChatTest, EveryTurnBeginsWithTheBeginningOfSequenceId) {
  TinyModelOptions options = cheapOptions();
  options.tokenizer.bosId = 0;
  const ModelFile file{TinyModel(options)};
  const Session session(file, nullptr, linked());
  const std::vector<int32_t> ids = encode(session, framed("hello"));
  ASSERT_EQ(ids[0], 0);
  feedOnly(session, "hello");
  feedOnly(session, "hello");
  EXPECT_EQ(session.members().pos, 2 * ids.size());
}

// ---- Replies over several turns ----

TEST(ChatTest, TurnsContinueAsIfTheWholeConversationWereFedAtOnce) {
  TinyModelOptions options = cheapOptions();
  options.linearLayers = {0, 7};
  const ModelFile file{endlessModel(options)};
  const Session chat(file, nullptr, linked());
  const size_t firstEnd = encode(chat, framed("hello")).size() + 6;
  chat.setContext(firstEnd);
  EXPECT_EQ(chat.chat("hello").rc, 0);
  chat.setContext(8192);
  feedOnly(chat, "again");

  // The same by hand: turn, seven greedy tokens of which the last is not fed, turn.
  const Session byHand(file, nullptr, linked());
  std::vector<int32_t> all = encode(byHand, framed("hello"));
  {
    auto& s = byHand.members();
    std::vector<float> x(s.model.nEmb);
    std::vector<float> logits(s.model.nVocab);
    ASSERT_TRUE(qwen35rt::prefill(s, all, x, logits));
    while (all.size() < firstEnd) {
      const auto best = std::max_element(logits.begin(), logits.end()) - logits.begin();
      all.push_back(static_cast<int32_t>(best));
      ASSERT_TRUE(qwen35rt::prefill(s, {all.back()}, x, logits));
    }
  }
  for (const int32_t id : encode(byHand, framed("again"))) all.push_back(id);

  const Session atOnce(file, nullptr, linked());
  auto& s = atOnce.members();
  std::vector<float> x(s.model.nEmb);
  std::vector<float> logits(s.model.nVocab);
  ASSERT_TRUE(qwen35rt::prefill(s, all, x, logits));
  EXPECT_EQ(chat.members().pos, s.pos);
  EXPECT_EQ(usedState(chat), usedState(atOnce));

  // And it goes on the same way.
  bool ok = false;
  s.ctxCap = s.pos + 8;
  const std::string reply = qwen35rt::generate(s, x, logits, kEndOfTurn, ok);
  ASSERT_TRUE(ok);
  const Session whole(file);
  whole.setContext(firstEnd);
  EXPECT_EQ(whole.chat("hello").rc, 0);
  whole.setContext(s.ctxCap);
  EXPECT_EQ(whole.chat("again").text, reply);
}

TEST(ChatTest, AReplyOf96TokensEndsWithoutTheEndOfTurn) {
  const ModelFile file{endlessModel()};
  const Session session(file, nullptr, linked());
  EXPECT_EQ(session.chat("hello").rc, 0);
  const size_t first = encode(session, framed("hello")).size() + kBudget - 1;
  EXPECT_EQ(session.members().pos, first);
  EXPECT_EQ(session.members().genTokens, kBudget);
  session.setContext(first + encode(session, framed("again")).size() + 3);
  EXPECT_EQ(session.chat("again").rc, 0);
  EXPECT_EQ(session.members().pos, session.members().ctxCap);
  EXPECT_EQ(session.members().genTokens, kBudget + 4) << "counted over the conversation";
}

// A model whose reply to "hello" is nothing but the end-of-turn token.
TinyModel modelThatEndsAtOnce() {
  for (size_t i = 0; i < 8; ++i) {
    for (const float value : {1000.0F, -1000.0F}) {
      TinyModel model(cheapOptions());
      std::vector<float> row(8, 0.0F);
      row[i] = value;
      setEmbeddingRow(model, kEndOfTurn, row);
      const ModelFile file{model};
      const Session session(file, "host;ctx=32", linked());
      EXPECT_EQ(session.chat("hello").rc, 0);
      if (session.members().genTokens == 1) return model;
    }
  }
  throw std::runtime_error("no such model");
}

TEST(ChatTest, TheEndOfTurnEndsAReplyAndIsNotFed) {
  const ModelFile file{modelThatEndsAtOnce()};
  const Session session(file, nullptr, linked());
  const TextResult result = session.chat("hello");
  EXPECT_EQ(result.rc, 0);
  EXPECT_EQ(result.text, "");
  EXPECT_EQ(session.members().genTokens, 1U);
  EXPECT_EQ(session.members().pos, encode(session, framed("hello")).size());
  EXPECT_TRUE(session.members().chatStarted);

  const StreamResult streamed = Session(file).stream("hello");
  EXPECT_EQ(streamed.rc, 0);
  EXPECT_TRUE(streamed.pieces.empty());
}

// A container may have any vocabulary. The token that would end the turn is one like
// any other then.
TEST(ChatTest, WithoutAnEndOfTurnTokenAReplyGoesOnToTheBudget) {
  TinyModelOptions options = cheapOptions();
  options.tokenizer.tokens[kEndOfTurn] = "<|im_other|>";
  TinyModel model(options);
  setEmbeddingRow(model, 0, std::vector<float>(options.width, 0.0F));
  const ModelFile file{model};
  const Session session(file, nullptr, linked());
  ASSERT_EQ(session.members().tok->tokenToId("<|im_end|>"), -1);
  EXPECT_EQ(session.chat("hello").rc, 0);
  EXPECT_EQ(session.members().genTokens, kBudget);
}

TEST(ChatTest, ResetStartsANewConversation) {
  const ModelFile file{endlessModel()};
  const Session session(file, "host;ctx=48", linked());
  setSystemPrompt(session, "be brief");
  const std::string first = session.chat("hello").text;
  EXPECT_NE(first, "");
  EXPECT_EQ(session.reset(), 0);
  EXPECT_FALSE(session.members().chatStarted);
  EXPECT_EQ(session.chat("hello").text, first);
}

TEST(ChatTest, ATurnAfterACompletionStartsANewConversation) {
  const ModelFile file{endlessModel()};
  const std::string first = Session(file, "host;ctx=32").chat("hello").text;
  const Session session(file, "host;ctx=32", linked());
  EXPECT_EQ(session.generate("the cat").rc, 0);
  const double genMs = session.members().genMs;
  EXPECT_EQ(session.chat("hello").text, first);
  EXPECT_EQ(session.members().genTokens, 33 - encode(session, framed("hello")).size());
  EXPECT_GT(session.members().genMs, genMs) << "time goes on counting";
}

// ---- A context that is full ----

TEST(ChatTest, AContextFullInPrefillFailsAndLeavesTheChatUnstarted) {
  const ModelFile file{TinyModel(cheapOptions())};
  const Session session(file, "host;ctx=5", linked());
  const TextResult result = session.chat("hello");
  EXPECT_EQ(result.rc, 1);
  EXPECT_EQ(result.text, "");
  EXPECT_FALSE(session.members().chatStarted);
  EXPECT_EQ(session.members().pos, 5U);
  EXPECT_EQ(session.stream("hello").rc, 1);
}

TEST(ChatTest, AContextFullInALaterPrefillLeavesTheChatStarted) {
  const ModelFile file{endlessModel()};
  const Session session(file, "host;ctx=40", linked());
  EXPECT_EQ(session.chat("hello").rc, 0);
  EXPECT_EQ(session.members().pos, 40U) << "the reply ended at the cap";
  EXPECT_EQ(session.chat("again").rc, 1);
  EXPECT_TRUE(session.members().chatStarted);
  EXPECT_EQ(session.members().pos, 40U);
}

TEST(ChatTest, AStepThatFailsReturnsOne) {
  TinyModel model(cheapOptions());
  model.setFloat("output_norm.weight", 0, std::numeric_limits<float>::infinity());
  const ModelFile file{model};
  const Session session(file, nullptr, linked());
  EXPECT_EQ(session.chat("hello").rc, 1);
  EXPECT_EQ(session.stream("hello").rc, 1);
  EXPECT_FALSE(session.members().chatStarted);
}

// ---- Streaming ----

TEST(StreamTest, ThePiecesAreTheReply) {
  const ModelFile file{endlessModel()};
  const std::string whole = Session(file).chat("hello").text;
  const Session session(file);
  const StreamResult result = session.stream("hello");
  EXPECT_EQ(result.rc, 0);
  EXPECT_EQ(result.pieces.size(), kBudget);
  EXPECT_EQ(result.text(), whole);
  EXPECT_EQ(session.stats().tokens, kBudget);
}

TEST(StreamTest, StreamedAndWholeTurnsMix) {
  const ModelFile file{endlessModel()};
  const Session a(file, "host;ctx=32");
  const Session b(file, "host;ctx=32");
  EXPECT_EQ(a.stream("hello").text(), b.chat("hello").text);
  a.setContext(64);
  b.setContext(64);
  EXPECT_EQ(a.chat("again").text, b.stream("again").text());
}

TEST(StreamTest, ANullCallbackRunsTheTurn) {
  const ModelFile file{endlessModel()};
  const Session session(file, "host;ctx=32", linked());
  EXPECT_EQ(session.streamTo("hello", nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(session.members().pos, 32U);
  EXPECT_TRUE(session.members().chatStarted);
}

TEST(StreamTest, ACancelSetBeforehandFeedsThePromptOnly) {
  const ModelFile file{endlessModel()};
  const Session session(file, nullptr, linked());
  volatile int cancel = -1;  // anything but zero
  const StreamResult result = session.stream("hello", &cancel);
  EXPECT_EQ(result.rc, 0);
  EXPECT_TRUE(result.pieces.empty());
  EXPECT_EQ(session.members().pos, encode(session, framed("hello")).size());
  EXPECT_TRUE(session.members().chatStarted);
  EXPECT_EQ(session.members().genTokens, 0U);
}

TEST(StreamTest, ACancelFromTheCallbackDeliversNothingMore) {
  const ModelFile file{endlessModel()};
  const Session session(file, nullptr, linked());
  struct State {
    int pieces = 0;
    volatile int cancel = 0;
  } state;
  const ZEMChatTokenFn stopAtFive = [](const char*, uint32_t, void* user) {
    auto& s = *static_cast<State*>(user);
    if (++s.pieces == 5) s.cancel = 1;
  };
  EXPECT_EQ(session.streamTo("hello", stopAtFive, &state, &state.cancel), 0);
  EXPECT_EQ(state.pieces, 5);
  EXPECT_EQ(session.members().genTokens, 5U);
  EXPECT_EQ(session.members().pos, encode(session, framed("hello")).size() + 4);
}

TEST(StreamTest, ACancelFromAnotherThreadDeliversNothingMore) {
  const ModelFile file{endlessModel()};
  const Session session(file);
  struct State {
    std::atomic<int> pieces{0};
    std::atomic<bool> cancelled{false};
    volatile int cancel = 0;
  } state;
  // The third piece waits for the other thread.
  const ZEMChatTokenFn count = [](const char*, uint32_t, void* user) {
    auto& s = *static_cast<State*>(user);
    if (++s.pieces < 3) return;
    while (!s.cancelled) std::this_thread::yield();
  };
  std::thread host([&] {
    while (state.pieces < 3) std::this_thread::yield();
    state.cancel = 1;
    state.cancelled = true;
  });
  EXPECT_EQ(session.streamTo("hello", count, &state, &state.cancel), 0);
  host.join();
  EXPECT_EQ(state.pieces, 3);
}

TEST(StreamTest, ATurnAfterACancelledOneContinuesTheConversation) {
  const ModelFile file{endlessModel()};
  const Session session(file, nullptr, linked());
  feedOnly(session, "hello");
  const size_t pos = session.members().pos;
  feedOnly(session, "again");
  EXPECT_EQ(session.members().pos, pos + encode(session, framed("again")).size());
}

TEST(StreamTest, ACharacterOfSeveralTokensArrivesInPieces) {
  TinyModelOptions options = cheapOptions();
  for (size_t i = 5; i < options.tokenizer.tokens.size(); ++i) {
    options.tokenizer.tokens[i] = i % 2 == 0 ? "<0xC3>" : "<0xA9>";
  }
  const ModelFile file{endlessModel(options)};
  const StreamResult result = Session(file, "host;ctx=32").stream("hello");
  EXPECT_EQ(result.rc, 0);
  EXPECT_TRUE(std::any_of(result.pieces.begin(), result.pieces.end(),
                          [](const auto& piece) { return piece == "\xC3" || piece == "\xA9"; }));
}

TEST(StreamTest, AStepThatFailsLeavesTheDeliveredPieces) {
  TinyModel model = endlessModel();
  setEmbeddingRow(model, 50, {std::numeric_limits<float>::infinity(), 0, 0, 0, 0, 0, 0, 0});
  const ModelFile file{model};
  const Session session(file);
  const StreamResult result = session.stream("bcd");
  EXPECT_EQ(result.rc, 1);
  EXPECT_EQ(result.pieces.size(), session.stats().tokens);
  EXPECT_GE(result.pieces.size(), 1U);
}

TEST(StreamTest, AnExceptionOfTheHostsCallbackStopsAtTheEntry) {
  const ModelFile file{endlessModel()};
  const Session session(file, "host;ctx=32");
  const ZEMChatTokenFn thrower = [](const char*, uint32_t, void*) {
    throw std::runtime_error("from the host");
  };
  EXPECT_EQ(session.streamTo("hello", thrower, nullptr, nullptr), 1);
  EXPECT_EQ(session.reset(), 0);
  EXPECT_GT(session.stream("hello").pieces.size(), 1U);
}

}  // namespace
