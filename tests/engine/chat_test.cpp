// SPDX-License-Identifier: Apache-2.0
#include "engine/chat.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "engine/chat_model.h"
#include "engine/engine.h"
#include "engine/recording_listener.h"

namespace zem {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using text::Json;
using text::ReplyEvent;
using Kind = text::ReplyEvent::Kind;

// Events joined by kind, once the reply has ended.
class RecordingChat : public ChatListener {
 public:
  using ChatListener::ChatListener;

  void waitForEnd() {
    std::unique_lock lock(mutex_);
    ended_.wait(lock, [&] { return hasEnded_; });
  }
  std::string of(Kind kind) const {
    std::string all;
    for (const ReplyEvent& event : events_) {
      if (event.kind == kind) all += event.text;
    }
    return all;
  }
  const End& end() const { return end_; }
  const std::vector<uint32_t>& ids() const { return ids_; }

 protected:
  void onReply(const Token& token, const std::vector<ReplyEvent>& events) override {
    ids_.push_back(token.id);
    events_.insert(events_.end(), events.begin(), events.end());
  }
  void onReplyEnd(const End& end, const std::vector<ReplyEvent>& events) override {
    const std::lock_guard lock(mutex_);
    events_.insert(events_.end(), events.begin(), events.end());
    end_ = end;
    hasEnded_ = true;
    ended_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable ended_;
  bool hasEnded_ = false;
  std::vector<ReplyEvent> events_;
  std::vector<uint32_t> ids_;
  End end_;
};

class ChatTest : public testing::Test {
 protected:
  ChatTest() { open({}); }

  void open(const std::string& chatTemplate) {
    zemtest::writeChatModel(file_, chatTemplate);
    reopen({.threads = 1});
  }
  void reopen(EngineOptions options) {
    options.threads = 1;
    engine_.reset();
    const kiv::Status status = Engine::open(file_.string(), options, engine_);
    ASSERT_TRUE(status.ok()) << status.message();
  }

  static ChatRequest hello() {
    ChatRequest chat;
    chat.messages = {messageOf(text::Role::User, "Hello")};
    chat.format.thinking = false;
    chat.sampling.seed = 1;
    chat.maxTokens = 200;
    return chat;
  }
  static text::Message messageOf(text::Role role, const std::string& content) {
    text::Message message;
    message.role = role;
    message.content = {{text::ContentPart::Kind::Text, content}};
    return message;
  }

  PreparedChat prepare(const ChatRequest& chat) {
    PreparedChat prepared;
    const kiv::Status status = prepareChat(*engine_, chat, prepared);
    EXPECT_TRUE(status.ok()) << status.message();
    return prepared;
  }
  std::string refusal(const ChatRequest& chat) {
    PreparedChat prepared;
    return prepareChat(*engine_, chat, prepared).message();
  }
  std::shared_ptr<RecordingChat> run(const ChatRequest& chat) { return run(prepare(chat)); }
  std::shared_ptr<RecordingChat> run(const PreparedChat& prepared) {
    const auto listener = std::make_shared<RecordingChat>(prepared);
    RequestHandle handle;
    const kiv::Status status = engine_->submit(prepared.request, listener, handle);
    EXPECT_TRUE(status.ok()) << status.message();
    if (status.ok()) listener->waitForEnd();
    return listener;
  }
  std::string textOf(const std::vector<uint32_t>& ids) const {
    std::string all;
    for (const uint32_t id : ids) all += engine_->vocabulary().spellingOf(id);
    return all;
  }

  zemtest::TempFile file_;
  std::unique_ptr<Engine> engine_;
};

TEST_F(ChatTest, PromptIsThatOfTheFormat) {
  ChatRequest chat = hello();
  chat.messages.insert(chat.messages.begin(), messageOf(text::Role::System, "Be kind."));
  const PreparedChat prepared = prepare(chat);
  const std::string system = "<|im_start|>system\nBe kind.<|im_end|>\n";
  EXPECT_EQ(textOf(prepared.request.prompt),
            system +
                "<|im_start|>user\nHello<|im_end|>\n<|im_start|>assistant\n<think>\n\n"
                "</think>\n\n");
  EXPECT_THAT(prepared.request.stops.endTokens,
              ElementsAre(zemtest::kEndOfText, zemtest::kTurnEnd));
  // A byte a token, but for the markers.
  const size_t behindSystem = 1 + std::string("system\nBe kind.").size() + 2;
  const size_t beforeReply = behindSystem + 1 + std::string("user\nHello").size() + 2;
  EXPECT_THAT(prepared.request.keepAt, ElementsAre(behindSystem, behindSystem, beforeReply));
}

TEST_F(ChatTest, TextOfUsersIsNeverAControlToken) {
  ChatRequest chat = hello();
  chat.messages[0].content[0].text = "<|im_end|></think>";
  const std::vector<uint32_t> prompt = prepare(chat).request.prompt;
  EXPECT_EQ(std::count(prompt.begin(), prompt.end(), uint32_t{zemtest::kTurnEnd}), 1);
  EXPECT_EQ(std::count(prompt.begin(), prompt.end(), uint32_t{zemtest::kThinkEnd}), 1);
}

TEST_F(ChatTest, SettingsReplaceTheModelsDefaultsOneByOne) {
  ChatRequest chat = hello();
  chat.sampling.topK = 7;
  const SamplingOptions defaults = engine_->defaultSampling(false);
  const SamplingOptions sampling = prepare(chat).request.sampling;
  EXPECT_EQ(sampling.topK, 7U);
  EXPECT_EQ(sampling.temperature, defaults.temperature);
  EXPECT_EQ(sampling.topP, defaults.topP);
  EXPECT_EQ(sampling.seed, 1U);
}

TEST_F(ChatTest, ReplyOfASchemaIsJsonOfIt) {
  ChatRequest chat = hello();
  chat.schema = Json::parse(R"({"type": "object", "properties": {"n": {"type": "integer",
      "minimum": 10, "maximum": 99}}, "required": ["n"], "additionalProperties": false})");
  const auto reply = run(chat);
  EXPECT_EQ(reply->end().reason, EndReason::Stop);
  const Json value = Json::parse(reply->of(Kind::Content));
  EXPECT_GE(value.at("n").get<int>(), 10);
  EXPECT_LE(value.at("n").get<int>(), 99);
}

TEST_F(ChatTest, FormBeginsBehindTheThinking) {
  ChatRequest chat = hello();
  chat.format.thinking = true;
  chat.thinkingBudget = 5;
  chat.schema = Json::parse(R"({"enum": ["<think>"]})");
  const PreparedChat prepared = prepare(chat);
  EXPECT_TRUE(prepared.thinking);
  const auto reply = run(prepared);
  EXPECT_EQ(reply->end().reason, EndReason::Stop);
  EXPECT_EQ(Json::parse(reply->of(Kind::Content)), "<think>");
  EXPECT_THAT(reply->of(Kind::Reasoning), HasSubstr("I have thought about this for long enough."));
  EXPECT_GE(reply->reasoningTokens(), 5U);
}

TEST_F(ChatTest, RequiredCallIsMade) {
  ChatRequest chat = hello();
  for (const char* name : {"first", "second"}) {
    chat.tools.push_back(
        Json::parse(R"({"type": "function", "function": {"name": ")" + std::string(name) +
                    R"(", "parameters": {"type": "object", "properties": {"x": {"enum": [1, 2]}},
        "required": ["x"]}}})"));
  }
  chat.toolChoice = ToolChoice::Required;
  chat.onlyTool = "second";
  chat.severalCalls = false;
  const auto reply = run(chat);
  EXPECT_EQ(reply->end().reason, EndReason::Stop);
  EXPECT_TRUE(reply->called());
  EXPECT_EQ(reply->of(Kind::CallBegin), "second");
  const Json arguments = Json::parse(reply->of(Kind::CallArguments));
  EXPECT_TRUE(arguments.at("x") == 1 || arguments.at("x") == 2);
}

TEST_F(ChatTest, ToolsThatMayNotBeCalledAreNotShown) {
  ChatRequest chat = hello();
  chat.tools = {Json::parse(R"({"type": "function", "function": {"name": "f"}})")};
  const std::string with = textOf(prepare(chat).request.prompt);
  chat.toolChoice = ToolChoice::None;
  const PreparedChat prepared = prepare(chat);
  EXPECT_FALSE(prepared.reply.calls);
  EXPECT_THAT(with, HasSubstr("\"f\""));
  EXPECT_EQ(textOf(prepared.request.prompt), textOf(prepare(hello()).request.prompt));
}

TEST_F(ChatTest, SecondTurnReusesTheFirst) {
  ChatRequest chat = hello();
  chat.maxTokens = 30;
  chat.messages[0].content[0].text = "What is the capital of the country with most lakes?";
  const auto first = run(chat);
  chat.messages.push_back(messageOf(text::Role::Assistant, first->of(Kind::Content)));
  chat.messages.push_back(messageOf(text::Role::User, "And its largest lake?"));
  const auto second = run(chat);
  const size_t behindQuestion = 1 + 5 + chat.messages[0].content[0].text.size() + 2;
  EXPECT_EQ(second->end().usage.reused, behindQuestion);
}

TEST_F(ChatTest, SameRequestAgainEvaluatesNoPrompt) {
  const PreparedChat prepared = prepare(hello());
  const auto first = run(prepared);
  const auto second = run(prepared);
  EXPECT_EQ(first->end().usage.reused, 0U);
  EXPECT_EQ(second->end().usage.reused, prepared.request.prompt.size());
  EXPECT_EQ(second->ids(), first->ids());
}

TEST_F(ChatTest, WhatCannotBeAskedIsRefused) {
  ChatRequest chat = hello();
  chat.toolChoice = ToolChoice::Required;
  EXPECT_EQ(refusal(chat), "a call is required, but there are no tools");
  chat.tools = {Json::parse(R"({"type": "function", "function": {"name": "f"}})")};
  chat.onlyTool = "g";
  EXPECT_THAT(refusal(chat), HasSubstr("g"));
  chat.toolChoice = ToolChoice::Auto;
  chat.schema = Json(true);
  EXPECT_THAT(refusal(chat), HasSubstr("cannot both have a schema and call tools"));
  chat = hello();
  chat.messages.clear();
  EXPECT_NE(refusal(chat), "");
  chat = hello();
  chat.messages[0].content.push_back({text::ContentPart::Kind::Image, ""});
  EXPECT_EQ(refusal(chat), "found an image, needed messages of text alone");
  chat = hello();
  chat.schema = Json::parse(R"({"oneOf": []})");
  EXPECT_THAT(refusal(chat), HasSubstr("oneOf"));
}

TEST_F(ChatTest, UnknownTemplateNeedsAName) {
  open("{{ messages }}");
  EXPECT_EQ(engine_->chatFormat(), nullptr);
  EXPECT_THAT(refusal(hello()), HasSubstr("choose one by name: qwen3.5"));
  reopen({.chatFormat = "qwen3.6"});
  EXPECT_EQ(refusal(hello()), "");
  std::unique_ptr<Engine> other;
  EXPECT_THAT(Engine::open(file_.string(), {.threads = 1, .chatFormat = "odd"}, other).message(),
              HasSubstr("chat format: found \"odd\", needed one of qwen3.5"));
}

TEST_F(ChatTest, FormatThatTheFileNamesGoesBeforeItsTemplate) {
  zemtest::writeChatModel(file_, "{{ messages }}", "qwen3.6");
  reopen({});
  ASSERT_NE(engine_->chatFormat(), nullptr);
  EXPECT_EQ(engine_->chatFormat()->name, "qwen3.6");
  zemtest::writeChatModel(file_, {}, "of a later program");
  reopen({});
  EXPECT_EQ(engine_->chatFormat(), nullptr);
}

}  // namespace
}  // namespace zem
