// SPDX-License-Identifier: Apache-2.0
#include "engine/chat_request_json.h"

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace zem {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using text::Json;

ReplySettings settingsOf(const std::string& json) {
  ReplySettings settings;
  const kiv::Status status = readReplySettings(json, settings);
  EXPECT_TRUE(status.ok()) << status.message();
  return settings;
}

ChatRequest chatOf(const std::string& members) {
  ChatRequest chat;
  const std::string json = R"({"messages": [{"role": "user", "content": "Hi"}])" +
                           (members.empty() ? "" : ", " + members) + "}";
  const kiv::Status status = readChatRequest(json, chat);
  EXPECT_TRUE(status.ok()) << status.message();
  return chat;
}

std::string refusalOfChat(const std::string& members) {
  ChatRequest chat;
  return readChatRequest(R"({"messages": [{"role": "user", "content": "Hi"}], )" + members + "}",
                         chat)
      .message();
}

TEST(ReplySettingsTest, AnEmptyObjectSetsNothing) {
  const ReplySettings settings = settingsOf("{}");
  EXPECT_FALSE(settings.sampling.temperature);
  EXPECT_FALSE(settings.sampling.seed);
  EXPECT_EQ(settings.maxTokens, kNoTokenLimit);
  EXPECT_TRUE(settings.stopTexts.empty());
  EXPECT_FALSE(settings.logProbabilities);
}

TEST(ReplySettingsTest, EveryMemberHasItsPlace) {
  const ReplySettings settings = settingsOf(R"({
    "temperature": 0.5, "top_p": 0.25, "min_p": 0.125, "top_k": 7, "repetition_penalty": 1.5,
    "presence_penalty": -1, "frequency_penalty": 2, "penalty_window": 64,
    "seed": 18446744073709551615, "max_tokens": 9, "stop": "x",
    "logit_bias": {"5": -100, "17": 1.5}, "logprobs": true, "top_logprobs": 4})");
  EXPECT_EQ(settings.sampling.temperature, 0.5F);
  EXPECT_EQ(settings.sampling.topP, 0.25F);
  EXPECT_EQ(settings.sampling.minP, 0.125F);
  EXPECT_EQ(settings.sampling.topK, 7U);
  EXPECT_EQ(settings.sampling.repeatPenalty, 1.5F);
  EXPECT_EQ(settings.sampling.presencePenalty, -1.0F);
  EXPECT_EQ(settings.sampling.frequencyPenalty, 2.0F);
  EXPECT_EQ(settings.sampling.penaltyWindow, 64U);
  EXPECT_EQ(settings.sampling.seed, ~uint64_t{0});
  EXPECT_EQ(settings.maxTokens, 9U);
  EXPECT_THAT(settings.stopTexts, ElementsAre("x"));
  ASSERT_EQ(settings.sampling.logitBias.size(), 2U);
  EXPECT_EQ(settings.sampling.logitBias[1].id, 17U);
  EXPECT_EQ(settings.sampling.logitBias[1].bias, 1.5F);
  EXPECT_EQ(settings.logProbabilities, 4U);
}

TEST(ReplySettingsTest, OtherSpellingsMeanTheSame) {
  EXPECT_EQ(settingsOf(R"({"max_completion_tokens": 3})").maxTokens, 3U);
  EXPECT_EQ(settingsOf(R"({"max_tokens": 3.0})").maxTokens, 3U);
  EXPECT_THAT(settingsOf(R"({"stop": ["a", "b"]})").stopTexts, ElementsAre("a", "b"));
  EXPECT_EQ(settingsOf(R"({"logprobs": 3})").logProbabilities, 3U);
  EXPECT_EQ(settingsOf(R"({"logprobs": true})").logProbabilities, 0U);
  EXPECT_FALSE(settingsOf(R"({"logprobs": false})").logProbabilities);
}

TEST(ReplySettingsTest, NullCountsAsAbsent) {
  EXPECT_FALSE(
      settingsOf(R"({"temperature": null, "stop": null, "unknown": null})").sampling.temperature);
}

TEST(ReplySettingsTest, WhatServersLookAtIsIgnored) {
  settingsOf(R"({"model": "m", "stream": true, "stream_options": {}, "user": "u", "metadata": {},
                 "store": false, "service_tier": "auto", "n": 1})");
}

TEST(ReplySettingsTest, WrongMembersAreNamed) {
  struct Case {
    const char* json;
    const char* message;
  };
  for (const Case& one : std::vector<Case>{
           {R"({"temperature": "hot"})", "temperature: found \"hot\", expected a number"},
           {R"({"top_k": -1})", "top_k: found -1, expected a whole number from 0 to 4294967295"},
           {R"({"top_k": 4294967296})", "top_k: found 4294967296, expected"},
           {R"({"top_k": 1.5})", "top_k: found 1.5, expected a whole number"},
           {R"({"seed": [1]})", "seed: found a list, expected a whole number"},
           {R"({"max_tokens": 1e300})", "max_tokens: found 1e+300, expected a whole number"},
           {R"({"stop": 5})", "stop: found 5, expected a text or a list of texts"},
           {R"({"stop": ["a", null]})", "stop[1]: found null, expected a text"},
           {R"({"logit_bias": [1]})", "logit_bias: found a list, expected an object"},
           {R"({"logit_bias": {"x": 1}})", "logit_bias: found \"x\", expected the id of a token"},
           {R"({"logit_bias": {"-1": 1}})", "logit_bias: found \"-1\""},
           {R"({"logit_bias": {"4294967296": 1}})", "logit_bias: found \"4294967296\""},
           {R"({"logit_bias": {"1": "no"}})", "logit_bias[\"1\"]: found \"no\", expected a number"},
           {R"({"logprobs": 21})", "logprobs: found 21, expected true, false or"},
           {R"({"logprobs": true, "top_logprobs": 21})", "top_logprobs: found 21"},
           {R"({"top_logprobs": 3})", "top_logprobs: found 3, expected logprobs to be true"},
           {R"({"n": 2})", "n: found 2, expected 1"},
           {R"({"temprature": 1})", "\"temprature\": is no member of such a request"},
           {R"({"messages": []})", "\"messages\": is no member"},
           {"[]", "request: found a list, expected an object"},
           {"{", "request: "},
           {"", "request: "},
       }) {
    ReplySettings settings;
    EXPECT_THAT(readReplySettings(one.json, settings).message(), HasSubstr(one.message))
        << one.json;
  }
}

TEST(ReplySettingsTest, TheFirstOfSeveralMistakesIsTold) {
  ReplySettings settings;
  EXPECT_THAT(readReplySettings(R"({"stop": 5, "temperature": "hot"})", settings).message(),
              HasSubstr("temperature"));
}

TEST(ReplySettingsTest, ALongTextIsShownByItsBeginning) {
  ReplySettings settings;
  const std::string name(1000, 'x');
  EXPECT_LT(readReplySettings("{\"" + name + "\": 1}", settings).message().size(), 100U);
}

TEST(ChatRequestJsonTest, MessagesAloneLeaveTheDefaults) {
  const ChatRequest chat = chatOf("");
  ASSERT_EQ(chat.messages.size(), 1U);
  EXPECT_EQ(chat.messages[0].content[0].text, "Hi");
  EXPECT_EQ(chat.toolChoice, ToolChoice::Auto);
  EXPECT_TRUE(chat.severalCalls);
  EXPECT_FALSE(chat.format.thinking);
  EXPECT_FALSE(chat.schema);
  EXPECT_FALSE(chat.thinkingBudget);
}

TEST(ChatRequestJsonTest, EveryMemberHasItsPlace) {
  const ChatRequest chat = chatOf(R"("tools": [{"type": "function", "function": {"name": "f"}}],
    "tool_choice": {"type": "function", "function": {"name": "f"}}, "parallel_tool_calls": false,
    "enable_thinking": true, "preserve_thinking": false, "add_vision_id": true,
    "merge_system": true, "omit_empty_thinking": true, "reasoning_effort": "low",
    "thinking_budget": 30, "temperature": 0, "max_tokens": 5, "stop": ["x"], "logprobs": true)");
  EXPECT_EQ(chat.tools.size(), 1U);
  EXPECT_EQ(chat.toolChoice, ToolChoice::Required);
  EXPECT_EQ(chat.onlyTool, "f");
  EXPECT_FALSE(chat.severalCalls);
  EXPECT_EQ(chat.format.thinking, true);
  EXPECT_EQ(chat.format.preserveThinking, false);
  EXPECT_TRUE(chat.format.numberMedia);
  EXPECT_TRUE(chat.format.mergeSystem);
  EXPECT_TRUE(chat.format.omitEmptyThinking);
  EXPECT_EQ(chat.format.reasoningEffort, "low");
  EXPECT_EQ(chat.thinkingBudget, 30U);
  EXPECT_EQ(chat.sampling.temperature, 0.0F);
  EXPECT_EQ(chat.maxTokens, 5U);
  EXPECT_THAT(chat.stopTexts, ElementsAre("x"));
  EXPECT_EQ(chat.logProbabilities, 0U);
}

TEST(ChatRequestJsonTest, ToolChoicesByName) {
  EXPECT_EQ(chatOf(R"("tool_choice": "auto")").toolChoice, ToolChoice::Auto);
  EXPECT_EQ(chatOf(R"("tool_choice": "none")").toolChoice, ToolChoice::None);
  EXPECT_EQ(chatOf(R"("tool_choice": "required")").toolChoice, ToolChoice::Required);
  EXPECT_EQ(chatOf(R"("tool_choice": "required")").onlyTool, "");
}

TEST(ChatRequestJsonTest, ResponseFormatsBecomeSchemas) {
  EXPECT_FALSE(chatOf(R"("response_format": {"type": "text"})").schema);
  EXPECT_EQ(chatOf(R"("response_format": {"type": "json_object"})").schema,
            Json::parse(R"({"type": "object"})"));
  EXPECT_EQ(chatOf(R"("response_format": {"type": "json_schema",
                      "json_schema": {"name": "n", "schema": {"const": 1}}})")
                .schema,
            Json::parse(R"({"const": 1})"));
}

TEST(ChatRequestJsonTest, AThinkingBudgetWithoutALimit) {
  EXPECT_FALSE(chatOf(R"("thinking_budget": -1)").thinkingBudget);
  EXPECT_EQ(chatOf(R"("thinking_budget": 0)").thinkingBudget, 0U);
}

TEST(ChatRequestJsonTest, WrongMembersAreNamed) {
  EXPECT_THAT(refusalOfChat(R"("tool_choice": "sometimes")"),
              HasSubstr("tool_choice: found \"sometimes\", expected \"auto\""));
  EXPECT_THAT(refusalOfChat(R"("tool_choice": {"type": "function"})"),
              HasSubstr("tool_choice: found an object"));
  EXPECT_THAT(refusalOfChat(R"("tools": 5)"), HasSubstr("tools"));
  EXPECT_THAT(refusalOfChat(R"("enable_thinking": "yes")"),
              HasSubstr("enable_thinking: found \"yes\", expected true or false"));
  EXPECT_THAT(refusalOfChat(R"("thinking_budget": -2)"), HasSubstr("thinking_budget: found -2"));
  EXPECT_THAT(refusalOfChat(R"("reasoning_effort": 1)"), HasSubstr("reasoning_effort: found 1"));
  EXPECT_THAT(refusalOfChat(R"("response_format": "json")"),
              HasSubstr("response_format: found \"json\", expected an object"));
  EXPECT_THAT(refusalOfChat(R"("response_format": {"type": "xml"})"),
              HasSubstr("response_format.type: found \"xml\""));
  EXPECT_THAT(refusalOfChat(R"("response_format": {})"), HasSubstr("response_format.type"));
  EXPECT_THAT(refusalOfChat(R"("response_format": {"type": "json_schema"})"),
              HasSubstr("response_format.json_schema.schema: found nothing"));
  EXPECT_THAT(refusalOfChat(R"("chat_template": "x")"), HasSubstr("\"chat_template\": is no"));
}

TEST(ChatRequestJsonTest, ARequestWithoutMessagesIsRefused) {
  ChatRequest chat;
  EXPECT_THAT(readChatRequest("{}", chat).message(),
              HasSubstr("messages: found nothing, expected a list of messages"));
  EXPECT_THAT(readChatRequest(R"({"messages": {"role": "user"}})", chat).message(),
              HasSubstr("messages"));
}

}  // namespace
}  // namespace zem
