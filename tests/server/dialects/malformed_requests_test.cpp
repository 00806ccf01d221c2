// SPDX-License-Identifier: Apache-2.0
// Requests that are wrong, and the member that the error names.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "server/api_error.h"
#include "server/dialects/anthropic.h"
#include "server/dialects/completions.h"
#include "server/dialects/fields.h"
#include "server/dialects/ollama.h"
#include "server/dialects/openai_chat.h"
#include "server/dialects/responses.h"

namespace zem::server {
namespace {

enum class Reader : uint8_t { Chat, Completion, Anthropic, OllamaChat, OllamaGenerate, Responses };

struct Malformed {
  const char* name;
  Reader reader;
  const char* body;
  const char* field;  // that the error names
};

void PrintTo(const Malformed& row, std::ostream* out) { *out << row.name; }

void readAs(Reader reader, const std::string& text) {
  const Json body = parseBody(text);
  switch (reader) {
    case Reader::Chat:
      readOpenAiChat(body);
      break;
    case Reader::Completion:
      readCompletion(body);
      break;
    case Reader::Anthropic:
      readAnthropic(body, false);
      break;
    case Reader::OllamaChat:
      readOllamaChat(body);
      break;
    case Reader::OllamaGenerate:
      readOllamaGenerate(body);
      break;
    case Reader::Responses:
      readResponses(body);
      break;
  }
}

// `rest` with messages of a chat.
std::string chatWith(const std::string& rest) {
  return R"({"max_tokens":9,"messages":[{"role":"user","content":"x"}])" + rest + "}";
}

class MalformedRequest : public testing::TestWithParam<Malformed> {};

TEST_P(MalformedRequest, IsRefusedByTheNameOfItsMember) {
  const std::string body = GetParam().body;
  try {
    readAs(GetParam().reader, body.starts_with(',') ? chatWith(body) : body);
    FAIL() << "nothing was found";
  } catch (const ApiError& error) {
    EXPECT_EQ(error.status, 400);
    EXPECT_EQ(error.field, GetParam().field) << error.message;
    EXPECT_TRUE(error.message.starts_with(error.field + ": ") ||
                error.message.starts_with(error.field + "["))
        << error.message;
  }
}

TEST(MalformedRequests, DeepNestingIsRefused) {
  const std::string deep = R"({"messages":)" + std::string(200, '[') + std::string(200, ']') + "}";
  try {
    parseBody(deep);
    FAIL() << "nothing was found";
  } catch (const ApiError& error) {
    EXPECT_NE(error.message.find("128"), std::string::npos) << error.message;
  }
}

constexpr Reader kC = Reader::Chat;
INSTANTIATE_TEST_SUITE_P(
    Chat, MalformedRequest,
    testing::Values(
        Malformed{"NoJson", kC, "{", "body"}, Malformed{"Empty", kC, "", "body"},
        Malformed{"List", kC, "[]", "body"}, Malformed{"NoMessages", kC, "{}", "messages"},
        Malformed{"MessagesNull", kC, R"({"messages":null})", "messages"},
        Malformed{"MessagesText", kC, R"({"messages":"x"})", "messages"},
        Malformed{"MessagesEmpty", kC, R"({"messages":[]})", "messages"},
        Malformed{"MessageNumber", kC, R"({"messages":[123]})", "messages[0]"},
        Malformed{"MessageEmpty", kC, R"({"messages":[{}]})", "messages[0].role"},
        Malformed{"RoleNumber", kC, R"({"messages":[{"role":123}]})", "messages[0].role"},
        Malformed{"ContentNumber", kC, R"({"messages":[{"role":"user","content":123}]})",
                  "messages[0].content"},
        Malformed{
            "Image", kC,
            R"({"messages":[{"role":"user","content":[{"type":"image_url","image_url":{}}]}]})",
            "messages[0].content[0]"},
        Malformed{
            "TwoAssistants", kC,
            R"({"messages":[{"role":"user","content":"x"},{"role":"assistant","content":"a"},)"
            R"({"role":"assistant","content":"b"}]})",
            "messages[2]"},
        Malformed{"TwoWaysToGoOn", kC,
                  R"(,"add_generation_prompt":true,"continue_final_message":true)",
                  "continue_final_message"},
        Malformed{"GoesOn", kC, R"(,"continue_final_message":true)", "continue_final_message"},
        Malformed{"StreamNumber", kC, R"(,"stream":1)", "stream"},
        Malformed{"StreamOptions", kC, R"(,"stream_options":[])", "stream_options"},
        Malformed{"IncludeUsage", kC, R"(,"stream_options":{"include_usage":"x"})",
                  "stream_options.include_usage"},
        Malformed{"NoChoices", kC, R"(,"n":0)", "n"},
        Malformed{"ManyChoices", kC, R"(,"n":9)", "n"},
        Malformed{"TemperatureText", kC, R"(,"temperature":"hot")", "temperature"},
        Malformed{"TemperatureNegative", kC, R"(,"temperature":-1)", "temperature"},
        Malformed{"TopP", kC, R"(,"top_p":1.5)", "top_p"},
        Malformed{"TopK", kC, R"(,"top_k":1.5)", "top_k"},
        Malformed{"Seed", kC, R"(,"seed":-2)", "seed"},
        Malformed{"Stop", kC, R"(,"stop":[1])", "stop"},
        Malformed{"MaxTokens", kC, R"(,"max_completion_tokens":0)", "max_completion_tokens"},
        Malformed{"Bias", kC, R"(,"logit_bias":{"1":101})", "logit_bias"},
        Malformed{"BiasId", kC, R"(,"logit_bias":{"x":1})", "logit_bias"},
        Malformed{"BiasList", kC, R"(,"logit_bias":[1])", "logit_bias"},
        Malformed{"TopLogprobsAlone", kC, R"(,"top_logprobs":2)", "top_logprobs"},
        Malformed{"TopLogprobs", kC, R"(,"logprobs":true,"top_logprobs":21)", "top_logprobs"},
        Malformed{"FormatText", kC, R"(,"response_format":"json")", "response_format"},
        Malformed{"FormatType", kC, R"(,"response_format":{"type":"xml"})", "response_format.type"},
        Malformed{"FormatSchema", kC, R"(,"response_format":{"type":"json_schema"})",
                  "response_format.json_schema"},
        Malformed{"FormatSchemaMissing", kC,
                  R"(,"response_format":{"type":"json_schema","json_schema":{}})",
                  "response_format.json_schema.schema"},
        Malformed{"Tools", kC, R"(,"tools":{})", "tools"},
        Malformed{"ToolNumber", kC, R"(,"tools":[1])", "tools[0]"},
        Malformed{"ToolType", kC, R"(,"tools":[{"type":"browser"}])", "tools[0].type"},
        Malformed{"ToolName", kC, R"(,"tools":[{"type":"function","function":{}}])",
                  "tools[0].function.name"},
        Malformed{"ChoiceText", kC, R"(,"tool_choice":"maybe")", "tool_choice"},
        Malformed{"ChoiceWithoutTools", kC, R"(,"tool_choice":"required")", "tool_choice"},
        Malformed{"ChoiceName", kC, R"(,"tool_choice":{"type":"function","function":{}})",
                  "tool_choice.function.name"},
        Malformed{"Thinking", kC, R"(,"chat_template_kwargs":{"enable_thinking":"yes"})",
                  "chat_template_kwargs.enable_thinking"},
        Malformed{"Budget", kC, R"(,"thinking_budget_tokens":-1)", "thinking_budget_tokens"},
        Malformed{"Suffix", kC, R"(,"suffix":"x")", "suffix"},
        Malformed{"Functions", kC, R"(,"functions":[{}])", "functions"}),
    [](const auto& row) { return std::string(row.param.name); });

constexpr Reader kP = Reader::Completion;
INSTANTIATE_TEST_SUITE_P(
    Completions, MalformedRequest,
    testing::Values(Malformed{"NoPrompt", kP, "{}", "prompt"},
                    Malformed{"PromptNumber", kP, R"({"prompt":1})", "prompt"},
                    Malformed{"PromptEmpty", kP, R"({"prompt":[]})", "prompt"},
                    Malformed{"PromptId", kP, R"({"prompt":[1,-1]})", "prompt[1]"},
                    Malformed{"PromptHugeId", kP, R"({"prompt":[4294967296]})", "prompt[0]"},
                    Malformed{"PromptPart", kP, R"({"prompt":[[1],{}]})", "prompt[1]"},
                    Malformed{"Suffix", kP, R"({"prompt":"x","suffix":"y"})", "suffix"},
                    Malformed{"BestOf", kP, R"({"prompt":"x","best_of":2})", "best_of"},
                    Malformed{"Logprobs", kP, R"({"prompt":"x","logprobs":21})", "logprobs"},
                    Malformed{"EchoedLogprobs", kP, R"({"prompt":"x","logprobs":1,"echo":true})",
                              "logprobs"}),
    [](const auto& row) { return std::string(row.param.name); });

constexpr Reader kA = Reader::Anthropic;
INSTANTIATE_TEST_SUITE_P(
    Anthropic, MalformedRequest,
    testing::Values(
        Malformed{"NoMessages", kA, R"({"max_tokens":1})", "messages"},
        Malformed{"NoLimit", kA, R"({"messages":[{"role":"user","content":"x"}]})", "max_tokens"},
        Malformed{"Role", kA, R"({"messages":[{"role":"system","content":"x"}]})",
                  "messages[0].role"},
        Malformed{"NoContent", kA, R"({"messages":[{"role":"user"}]})", "messages[0].content"},
        Malformed{"BlockNumber", kA, R"({"messages":[{"role":"user","content":[1]}]})",
                  "messages[0].content[0]"},
        Malformed{"Image", kA, R"({"messages":[{"role":"user","content":[{"type":"image"}]}]})",
                  "messages[0].content[0].type"},
        Malformed{"CallOfTheUser", kA,
                  R"({"messages":[{"role":"user","content":[{"type":"tool_use","name":"f"}]}]})",
                  "messages[0].content[0].type"},
        Malformed{
            "Prefill", kA,
            R"({"messages":[{"role":"user","content":"x"},{"role":"assistant","content":"y"}]})",
            "messages"},
        Malformed{"System", kA, R"(,"system":1)", "system"},
        Malformed{"ToolOfTheServer", kA, R"(,"tools":[{"type":"web_search_20250305","name":"w"}])",
                  "tools[0].type"},
        Malformed{"ToolSchema", kA, R"(,"tools":[{"name":"f"}])", "tools[0].input_schema"},
        Malformed{"Choice", kA, R"(,"tool_choice":{"type":"some"})", "tool_choice.type"},
        Malformed{"ChoiceWithoutTools", kA, R"(,"tool_choice":{"type":"any"})", "tool_choice"},
        Malformed{"Thinking", kA, R"(,"thinking":{"type":"much"})", "thinking.type"},
        Malformed{"OutputConfig", kA, R"(,"output_config":1)", "output_config"},
        Malformed{"Effort", kA, R"(,"output_config":{"effort":1})", "output_config.effort"},
        Malformed{"Format", kA, R"(,"output_config":{"format":{"type":"grammar"}})",
                  "output_config.format.type"},
        Malformed{"FormatSchema", kA, R"(,"output_config":{"format":{"type":"json_schema"}})",
                  "output_config.format.schema"}),
    [](const auto& row) { return std::string(row.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Ollama, MalformedRequest,
    testing::Values(Malformed{"Messages", Reader::OllamaChat, R"({"messages":1})", "messages"},
                    Malformed{"Images", Reader::OllamaChat,
                              R"({"messages":[{"role":"user","content":"x","images":["aa"]}]})",
                              "messages[0].images"},
                    Malformed{"Options", Reader::OllamaChat, R"(,"options":1)", "options"},
                    Malformed{"Prediction", Reader::OllamaChat, R"(,"options":{"num_predict":-9})",
                              "options.num_predict"},
                    Malformed{"Temperature", Reader::OllamaChat,
                              R"(,"options":{"temperature":"x"})", "options.temperature"},
                    Malformed{"Format", Reader::OllamaChat, R"(,"format":"xml")", "format"},
                    Malformed{"Think", Reader::OllamaChat, R"(,"think":1)", "think"},
                    Malformed{"Suffix", Reader::OllamaGenerate, R"({"prompt":"x","suffix":"y"})",
                              "suffix"},
                    Malformed{"Prompt", Reader::OllamaGenerate, R"({"prompt":1})", "prompt"}),
    [](const auto& row) { return std::string(row.param.name); });

constexpr Reader kR = Reader::Responses;
INSTANTIATE_TEST_SUITE_P(
    Responses, MalformedRequest,
    testing::Values(
        Malformed{"NoInput", kR, "{}", "input"},
        Malformed{"InputNumber", kR, R"({"input":1})", "input"},
        Malformed{"ItemNumber", kR, R"({"input":[1]})", "input[0]"},
        Malformed{"ItemType", kR, R"({"input":[{"type":"item_reference","id":"x"}]})",
                  "input[0].type"},
        Malformed{"Role", kR, R"({"input":[{"role":"robot","content":"x"}]})", "input[0].role"},
        Malformed{"Part", kR, R"({"input":[{"role":"user","content":[{"type":"input_image"}]}]})",
                  "input[0].content[0].type"},
        Malformed{"CallArguments", kR,
                  R"({"input":[{"type":"function_call","name":"f","arguments":"{"}]})",
                  "input[0].arguments"},
        Malformed{"CallArgumentsList", kR,
                  R"({"input":[{"type":"function_call","name":"f","arguments":"[]"}]})",
                  "input[0].arguments"},
        Malformed{"Previous", kR, R"({"input":"x","previous_response_id":"resp_1"})",
                  "previous_response_id"},
        Malformed{"Tool", kR, R"({"input":"x","tools":[{"type":"web_search"}]})", "tools[0].type"},
        Malformed{"Format", kR, R"({"input":"x","text":{"format":{"type":"xml"}}})",
                  "text.format.type"}),
    [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace zem::server
