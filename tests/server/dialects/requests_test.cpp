// SPDX-License-Identifier: Apache-2.0
// What requests of the dialects ask for.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "server/api_error.h"
#include "server/dialects/anthropic.h"
#include "server/dialects/completions.h"
#include "server/dialects/fields.h"
#include "server/dialects/ollama.h"
#include "server/dialects/openai_chat.h"
#include "server/dialects/responses.h"

namespace zem::server {
namespace {

using text::Role;

TEST(Requests, ChatReadsSamplingLimitsAndForm) {
  const ChatCall call = readOpenAiChat(Json::parse(
      R"({"messages":[{"role":"system","content":"s"},{"role":"user","content":"x"}],
          "temperature":0.5,"top_p":0.9,"top_k":-1,"min_p":0.1,"seed":3,"presence_penalty":1,
          "frequency_penalty":-1,"repeat_penalty":1.1,"stop":["a",""],"max_tokens":8.0,
          "max_completion_tokens":9,"n":2,"stream":true,"stream_options":{"include_usage":true},
          "logprobs":true,"top_logprobs":4,"logit_bias":{"5":-100,"6":false},
          "reasoning_effort":"high","thinking_budget_tokens":100,"user":"ignored","unknown":1})"));
  const SamplingSettings& sampling = call.chat.sampling;
  EXPECT_EQ(sampling.temperature, 0.5F);
  EXPECT_EQ(sampling.topK, 0U);
  EXPECT_EQ(sampling.seed, 3U);
  ASSERT_EQ(sampling.logitBias.size(), 2U);
  EXPECT_EQ(sampling.logitBias[0].bias, -100.0F);
  EXPECT_TRUE(std::isinf(sampling.logitBias[1].bias));
  EXPECT_EQ(call.chat.stopTexts, std::vector<std::string>{"a"});
  EXPECT_EQ(call.chat.maxTokens, 9U);
  EXPECT_EQ(call.chat.logProbabilities, 4U);
  EXPECT_EQ(call.chat.thinkingBudget, 100U);
  EXPECT_EQ(call.chat.format.reasoningEffort, "high");
  EXPECT_EQ(call.form.choices, 2U);
  EXPECT_TRUE(call.form.stream && call.form.streamsUsage && call.form.logProbabilities);
}

TEST(Requests, ChatWithoutSettingsHasTheModelsDefaults) {
  const ChatCall call = readOpenAiChat(Json::parse(R"({"messages":[{"role":"user","content":"x"}],
        "temperature":null,"stop":null,"max_tokens":null,"tools":null,"tool_choice":null,
        "response_format":null,"seed":-1,"functions":[],"suffix":""})"));
  EXPECT_FALSE(call.chat.sampling.temperature || call.chat.sampling.seed);
  EXPECT_EQ(call.chat.maxTokens, kNoTokenLimit);
  EXPECT_TRUE(call.chat.tools.empty());
  EXPECT_FALSE(call.form.stream);
}

TEST(Requests, ToolChoiceOfAFunctionAllowsItAlone) {
  const ChatCall call = readOpenAiChat(
      Json::parse(R"({"messages":[{"role":"user","content":"x"}],"parallel_tool_calls":false,
        "tools":[{"type":"function","function":{"name":"f"}}],
        "tool_choice":{"type":"function","function":{"name":"f"}}})"));
  EXPECT_EQ(call.chat.toolChoice, ToolChoice::Required);
  EXPECT_EQ(call.chat.onlyTool, "f");
  EXPECT_FALSE(call.chat.severalCalls);
}

TEST(Requests, CompletionPromptMixesTextAndIds) {
  const CompletionCall call = readCompletion(Json::parse(R"({"prompt":[7,"a",1,2,"b"]})"));
  ASSERT_EQ(call.prompts.size(), 1U);
  const auto& pieces = call.prompts[0].pieces;
  ASSERT_EQ(pieces.size(), 3U);
  EXPECT_EQ(pieces[0].ids, std::vector<uint32_t>{7});
  EXPECT_EQ(pieces[1].text, "a");
  EXPECT_EQ(pieces[1].ids, (std::vector<uint32_t>{1, 2}));
  EXPECT_EQ(pieces[2].text, "b");
  EXPECT_EQ(call.maxTokens, 16U);
}

TEST(Requests, AnthropicReadsTheFormOfAReply) {
  const AnthropicCall call =
      readAnthropic(Json::parse(R"({"max_tokens":5,"messages":[{"role":"user","content":"q"}],
        "output_config":{"effort":"high","format":{"type":"json_schema","schema":{"type":"object"}}}})"),
                    false);
  EXPECT_EQ(call.chat.schema, Json::parse(R"({"type":"object"})"));
  EXPECT_EQ(call.chat.format.reasoningEffort, "high");
}

TEST(Requests, AnthropicBlocksBecomeMessages) {
  const AnthropicCall call = readAnthropic(
      Json::parse(R"({"max_tokens":5,"system":[{"type":"text","text":"s"}],"messages":[
        {"role":"user","content":"q"},
        {"role":"assistant","content":[{"type":"thinking","thinking":"t","signature":""},
          {"type":"text","text":"a"},{"type":"tool_use","id":"1","name":"f","input":{"k":1}}]},
        {"role":"user","content":[{"type":"tool_result","tool_use_id":"1","content":"r"},
          {"type":"text","text":"more"}]}],
        "tools":[{"name":"f","description":"d","input_schema":{"type":"object"}}],
        "tool_choice":{"type":"tool","name":"f","disable_parallel_tool_use":true},
        "stop_sequences":["z"]})"),
      false);
  const auto& messages = call.chat.messages;
  ASSERT_EQ(messages.size(), 5U);
  EXPECT_EQ(messages[0].role, Role::System);
  EXPECT_EQ(messages[2].reasoning, "t");
  EXPECT_EQ(messages[2].calls[0].arguments, Json::parse(R"({"k":1})"));
  EXPECT_EQ(messages[3].role, Role::Tool);
  EXPECT_EQ(messages[4].content[0].text, "more");
  EXPECT_EQ(call.chat.tools[0].at("function").at("parameters").at("type"), "object");
  EXPECT_EQ(call.chat.onlyTool, "f");
  EXPECT_FALSE(call.chat.severalCalls);
  EXPECT_EQ(call.chat.format.thinking, false) << "unless it is asked for";
  EXPECT_EQ(call.chat.stopTexts, std::vector<std::string>{"z"});
}

TEST(Requests, OllamaOptionsAreRead) {
  const OllamaCall call = readOllamaChat(Json::parse(R"({"messages":[{"role":"user","content":"x"},
        {"role":"assistant","content":"","thinking":"t",
         "tool_calls":[{"function":{"name":"f","arguments":{"a":1}}}]},
        {"role":"tool","content":"r"}],
        "format":"json","think":false,"keep_alive":"5m",
        "options":{"num_predict":-1,"temperature":0,"num_ctx":4096,"stop":"s"}})"));
  EXPECT_TRUE(call.stream);
  EXPECT_EQ(call.chat.messages[1].reasoning, "t");
  EXPECT_EQ(call.chat.messages[1].calls[0].name, "f");
  EXPECT_EQ(call.chat.maxTokens, kNoTokenLimit);
  EXPECT_EQ(call.chat.sampling.temperature, 0.0F);
  EXPECT_EQ(call.chat.format.thinking, false);
  EXPECT_TRUE(call.chat.schema.has_value());
  EXPECT_TRUE(readOllamaChat(Json::parse(R"({"model":"m"})")).loads);
}

TEST(Requests, ResponsesItemsBecomeMessages) {
  const ResponsesCall call = readResponses(Json::parse(R"({"instructions":"i","input":[
        {"role":"user","content":[{"type":"input_text","text":"q"}]},
        {"type":"reasoning","summary":[],"content":[{"type":"reasoning_text","text":"t"}]},
        {"type":"message","role":"assistant","content":[{"type":"output_text","text":"a"}]},
        {"type":"function_call","call_id":"1","name":"f","arguments":"{\"k\":1}"},
        {"type":"function_call","call_id":"2","name":"g","arguments":""},
        {"type":"function_call_output","call_id":"1","output":"r"}],
        "tools":[{"type":"function","name":"f","parameters":{"type":"object"},"strict":true}],
        "max_output_tokens":7,"store":false,"metadata":{"m":"1"}})"));
  const auto& messages = call.chat.messages;
  ASSERT_EQ(messages.size(), 4U);
  EXPECT_EQ(messages[2].reasoning, "t");
  EXPECT_EQ(messages[2].content[0].text, "a");
  ASSERT_EQ(messages[2].calls.size(), 2U);
  EXPECT_EQ(messages[3].role, Role::Tool);
  EXPECT_EQ(call.chat.maxTokens, 7U);
  EXPECT_EQ(call.echo.at("metadata").at("m"), "1");
}

TEST(ApiErrors, AreToldApart) {
  EXPECT_EQ(dialectOf("/v1/messages/count_tokens"), Dialect::Anthropic);
  EXPECT_EQ(dialectOf("/v1/messagesx"), Dialect::OpenAi);
  EXPECT_EQ(dialectOf("/api/chat"), Dialect::Ollama);
  const auto typeOf = [](int status) {
    return Json::parse(errorBody(Dialect::OpenAi, ApiError(status, "m"))).at("error").at("type");
  };
  EXPECT_EQ(typeOf(400), "invalid_request_error");
  EXPECT_EQ(typeOf(401), "authentication_error");
  EXPECT_EQ(typeOf(429), "rate_limit_error");
  EXPECT_EQ(typeOf(500), "server_error");
  const HttpReply busy = errorReply(Dialect::Anthropic, ApiError(503, "m"));
  EXPECT_EQ(busy.headers, (Headers{{"retry-after", "1"}}));
  EXPECT_EQ(Json::parse(busy.body).at("error").at("type"), "overloaded_error");
}

}  // namespace
}  // namespace zem::server
