// SPDX-License-Identifier: Apache-2.0
// Replies of a model in every dialect, over real sockets.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "server/running_server.h"

namespace zem::server {
namespace {

using nlohmann::json;
using zemtest::HttpAnswer;
using zemtest::HttpClient;
using zemtest::RunningServer;

json oneMessage(const std::string& text) {
  return json::array({json{{"role", "user"}, {"content", text}}});
}

json chatOf(const std::string& text, uint64_t tokens = 12) {
  return {{"messages", oneMessage(text)},
          {"max_tokens", tokens},
          {"seed", 7},
          {"chat_template_kwargs", {{"enable_thinking", false}}}};
}

class Replies : public testing::Test {
 protected:
  json ask(const std::string& path, const json& body, int status = 200) const {
    const HttpAnswer answer = server_.post(path, body);
    EXPECT_EQ(answer.status, status) << answer.body;
    EXPECT_EQ(answer.headers.at("content-type"), "application/json");
    return json::parse(answer.body);
  }
  json chat(const json& body) const { return ask("/v1/chat/completions", body); }

  // The chunks of a stream of the dialect of OpenAI.
  std::vector<json> chunks(json body, const std::string& path = "/v1/chat/completions") const {
    body["stream"] = true;
    const HttpAnswer answer = server_.post(path, body);
    EXPECT_EQ(answer.status, 200) << answer.body;
    EXPECT_EQ(answer.headers.at("content-type"), "text/event-stream");
    std::vector<std::string> events = zemtest::eventsOf(answer.body);
    EXPECT_EQ(events.back(), "[DONE]");
    events.pop_back();
    std::vector<json> chunks;
    for (const std::string& event : events) chunks.push_back(json::parse(event));
    return chunks;
  }

  // Events with names.
  static std::vector<json> namedEvents(const std::string& stream) {
    std::vector<json> events;
    for (size_t at = 0; at < stream.size();) {
      const size_t end = stream.find("\n\n", at);
      const std::string event = stream.substr(at, end - at);
      const size_t line = event.find('\n');
      EXPECT_TRUE(event.starts_with("event: ")) << event;
      const json data = json::parse(event.substr(line + 7));
      EXPECT_EQ(data.at("type"), event.substr(7, line - 7));
      events.push_back(data);
      at = end + 2;
    }
    return events;
  }

  RunningServer server_{{.sequences = 2}};
};

TEST_F(Replies, StreamedTextIsTheWholeText) {
  const json whole = chat(chatOf("Hello"));
  std::string content;
  std::set<std::string> ids;
  size_t roles = 0;
  const std::vector<json> stream = chunks(chatOf("Hello"));
  for (const json& chunk : stream) {
    const json& delta = chunk.at("choices")[0].at("delta");
    content += delta.value("content", "");
    roles += delta.contains("role") ? 1 : 0;
    ids.insert(chunk.at("id"));
  }
  EXPECT_FALSE(content.empty());
  EXPECT_EQ(content, whole.at("choices")[0].at("message").at("content"));
  EXPECT_EQ(roles, 1U);
  EXPECT_TRUE(stream.front().at("choices")[0].at("delta").contains("role"));
  EXPECT_EQ(ids.size(), 1U);
  EXPECT_TRUE(stream.back().at("choices")[0].at("delta").empty());
  EXPECT_EQ(stream.back().at("choices")[0].at("finish_reason"),
            whole.at("choices")[0].at("finish_reason"));
}

TEST_F(Replies, UsageCountsAndTellsWhatWasReused) {
  const json first = chat(chatOf("A question that is long enough to be kept")).at("usage");
  const json again = chat(chatOf("A question that is long enough to be kept")).at("usage");
  EXPECT_EQ(first.at("prompt_tokens"), again.at("prompt_tokens"));
  EXPECT_EQ(first.at("prompt_tokens_details").at("cached_tokens"), 0);
  EXPECT_GT(again.at("prompt_tokens_details").at("cached_tokens"), 10);
  EXPECT_EQ(first.at("total_tokens"),
            first.at("prompt_tokens").get<int>() + first.at("completion_tokens").get<int>());
  EXPECT_LE(first.at("completion_tokens"), 12);
}

TEST_F(Replies, StreamedUsageComesLastAndIsThatOfTheWholeReply) {
  const json whole = chat(chatOf("Hello"));
  json body = chatOf("Hello");
  body["stream_options"] = {{"include_usage", true}};
  const std::vector<json> stream = chunks(body);
  for (size_t i = 0; i + 1 < stream.size(); ++i) EXPECT_TRUE(stream[i].at("usage").is_null());
  EXPECT_TRUE(stream.back().at("choices").empty());
  EXPECT_EQ(stream.back().at("usage").at("completion_tokens"),
            whole.at("usage").at("completion_tokens"));
  EXPECT_TRUE(stream.back().contains("timings"));
}

TEST_F(Replies, ProgressOfThePromptIsShownWhenAsked) {
  json body = chatOf("Hello");
  body["return_progress"] = true;
  json last;
  for (const json& chunk : chunks(body)) {
    if (chunk.contains("prompt_progress")) last = chunk.at("prompt_progress");
  }
  EXPECT_EQ(last.at("processed"), last.at("total"));
}

TEST_F(Replies, SeveralChoicesDifferAndOneSeedGivesThemAgain) {
  json body = chatOf("Hello");
  body["n"] = 3;
  const json choices = chat(body).at("choices");
  ASSERT_EQ(choices.size(), 3U);
  EXPECT_NE(choices[0].at("message"), choices[1].at("message"));
  EXPECT_EQ(chat(body).at("choices"), choices);
  std::vector<std::string> streamed(3);
  for (const json& chunk : chunks(body)) {
    const json& choice = chunk.at("choices")[0];
    streamed.at(choice.at("index")) += choice.at("delta").value("content", "");
  }
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(streamed[i], choices[i].at("message").at("content"));
  }
}

TEST_F(Replies, OneSeedGivesOneTextWithOneSlotAndWithMany) {
  const RunningServer many({.sequences = 8});
  const json body = chatOf("Tell me something", 30);
  const json want = chat(body).at("choices");
  std::vector<std::thread> clients;
  std::vector<json> got(8);
  for (size_t i = 0; i < got.size(); ++i) {
    clients.emplace_back([&, i] {
      got[i] = json::parse(many.post("/v1/chat/completions", body).body).at("choices");
    });
  }
  for (std::thread& client : clients) client.join();
  for (const json& choices : got) EXPECT_EQ(choices, want);
}

TEST_F(Replies, TokensOfLogProbabilitiesAreTheContent) {
  json body = chatOf("Hello", 40);
  body["logprobs"] = true;
  body["top_logprobs"] = 3;
  const auto check = [](const std::string& content, const json& tokens) {
    std::string joined;
    for (const json& token : tokens) {
      for (const json& byte : token.at("bytes")) joined += static_cast<char>(byte.get<int>());
      EXPECT_LE(token.at("logprob"), 0.0);
      EXPECT_EQ(token.at("top_logprobs").size(), 3U);
    }
    EXPECT_EQ(joined, content);
    EXPECT_FALSE(content.empty());
  };
  const json choice = chat(body).at("choices")[0];
  check(choice.at("message").at("content"), choice.at("logprobs").at("content"));
  std::string content;
  json tokens = json::array();
  for (const json& chunk : chunks(body)) {
    const json& part = chunk.at("choices")[0];
    content += part.at("delta").value("content", "");
    if (part.at("logprobs").is_null()) continue;
    for (const json& token : part.at("logprobs").at("content")) tokens.push_back(token);
  }
  check(content, tokens);
  EXPECT_EQ(tokens, choice.at("logprobs").at("content"));
}

TEST_F(Replies, StopTextEndsAReplyAndStaysOut) {
  const std::string text = chat(chatOf("Hello", 30)).at("choices")[0].at("message").at("content");
  ASSERT_GT(text.size(), 6U);
  json body = chatOf("Hello", 30);
  body["stop"] = text.substr(3, 3);
  const json choice = chat(body).at("choices")[0];
  EXPECT_EQ(choice.at("message").at("content"), text.substr(0, text.find(text.substr(3, 3))));
  EXPECT_EQ(choice.at("finish_reason"), "stop");
}

TEST_F(Replies, LimitInsideThinkingGivesLength) {
  json body = chatOf("Hello", 5);
  body["chat_template_kwargs"] = {{"enable_thinking", true}};
  const json reply = chat(body);
  const json& choice = reply.at("choices")[0];
  EXPECT_EQ(choice.at("finish_reason"), "length");
  EXPECT_EQ(choice.at("message").at("content"), "");
  EXPECT_FALSE(choice.at("message").at("reasoning_content").get<std::string>().empty());
  EXPECT_EQ(reply.at("usage").at("completion_tokens_details").at("reasoning_tokens"), 5);
}

json functionTool() {
  const json parameters = {
      {"type", "object"},
      {"properties", {{"a", {{"type", "integer"}, {"minimum", 1}, {"maximum", 9}}}}},
      {"required", {"a"}}};
  return {{"type", "function"},
          {"function", {{"name", "pick"}, {"description", "x"}, {"parameters", parameters}}}};
}

TEST_F(Replies, RequiredCallIsTheSameStreamedAndWhole) {
  json body = chatOf("Hello", 400);
  body["tools"] = json::array({functionTool()});
  body["tool_choice"] = "required";
  body["parallel_tool_calls"] = false;
  const json choice = chat(body).at("choices")[0];
  EXPECT_EQ(choice.at("finish_reason"), "tool_calls");
  const json& call = choice.at("message").at("tool_calls")[0];
  EXPECT_EQ(call.at("function").at("name"), "pick");
  const std::string wanted = call.at("function").at("arguments");
  EXPECT_TRUE(json::parse(wanted).at("a").is_number());
  std::string name;
  std::string arguments;
  std::string id;
  for (const json& chunk : chunks(body)) {
    const json& delta = chunk.at("choices")[0].at("delta");
    if (!delta.contains("tool_calls")) continue;
    const json& part = delta.at("tool_calls")[0];
    EXPECT_EQ(part.at("index"), 0);
    id += part.value("id", "");
    name += part.at("function").value("name", "");
    arguments += part.at("function").value("arguments", "");
  }
  EXPECT_EQ(name, "pick");
  EXPECT_EQ(arguments, wanted);
  EXPECT_TRUE(id.starts_with("call_"));
}

TEST_F(Replies, SchemaIsKept) {
  json body = chatOf("Hello", 400);
  const json schema = {{"type", "object"},
                       {"properties", {{"b", {{"enum", {"x", "y"}}}}}},
                       {"required", {"b"}},
                       {"additionalProperties", false}};
  body["response_format"] = {{"type", "json_schema"},
                             {"json_schema", {{"name", "n"}, {"schema", schema}}}};
  const json choice = chat(body).at("choices")[0];
  const json content = json::parse(choice.at("message").at("content").get<std::string>());
  EXPECT_TRUE(content.at("b") == "x" || content.at("b") == "y");
}

TEST_F(Replies, PromptBeyondTheContextIsRefusedWithNumbers) {
  const json error = ask("/v1/chat/completions", chatOf(std::string(9000, 'q')), 400).at("error");
  EXPECT_EQ(error.at("code"), "context_length_exceeded");
  EXPECT_EQ(error.at("n_ctx"), 4096);
  EXPECT_GT(error.at("n_prompt_tokens"), 4096);
}

TEST_F(Replies, CompletionsTakeEveryFormOfAPrompt) {
  json body = {{"max_tokens", 4}, {"seed", 1}, {"prompt", "ab"}};
  const std::string text = ask("/v1/completions", body).at("choices")[0].at("text");
  const json ids = ask("/tokenize", {{"content", "ab"}}).at("tokens");
  for (const json& prompt : {ids, json::array({"ab"}), json::array({ids})}) {
    body["prompt"] = prompt;
    EXPECT_EQ(ask("/v1/completions", body).at("choices")[0].at("text"), text) << prompt;
  }
  body["prompt"] = json::array({"a", "ab"});
  body["n"] = 2;
  body["echo"] = true;
  const json reply = ask("/v1/completions", body);
  ASSERT_EQ(reply.at("choices").size(), 4U);
  EXPECT_EQ(reply.at("choices")[2].at("text"), "ab" + text);
  EXPECT_EQ(reply.at("usage").at("prompt_tokens"), ids.size() + 1);
  std::string streamed;
  for (const json& chunk : chunks(body, "/v1/completions")) {
    const json& choice = chunk.at("choices")[0];
    if (choice.at("index") == 2) streamed += choice.at("text");
  }
  EXPECT_EQ(streamed, "ab" + text);
}

TEST_F(Replies, TokenizingGoesBackAndForth) {
  const json tokens = ask("/tokenize", {{"content", "Hello<|im_end|>"}}).at("tokens");
  EXPECT_EQ(ask("/detokenize", {{"tokens", tokens}}).at("content"), "Hello<|im_end|>");
  const json pieces = ask("/tokenize", {{"content", "a"}, {"with_pieces", true}}).at("tokens");
  EXPECT_EQ(pieces[0].at("piece"), "a");
  ask("/detokenize", {{"tokens", {1e9}}}, 400);
  EXPECT_EQ(ask("/apply-template", chatOf("Hi")).at("prompt"),
            "<|im_start|>user\nHi<|im_end|>\n<|im_start|>assistant\n<think>\n\n</think>\n\n");
}

TEST_F(Replies, AnthropicStreamIsTheWholeMessage) {
  json body = {{"messages", oneMessage("Hello")}, {"max_tokens", 12}, {"seed", 7}};
  const json whole = ask("/v1/messages", body);
  EXPECT_EQ(whole.at("type"), "message");
  body["stream"] = true;
  const std::vector<json> events = namedEvents(server_.post("/v1/messages", body).body);
  EXPECT_EQ(events.front().at("type"), "message_start");
  EXPECT_EQ(events.back().at("type"), "message_stop");
  std::string text;
  for (const json& event : events) {
    if (event.at("type") == "content_block_delta") text += event.at("delta").at("text");
    if (event.at("type") == "message_delta") {
      EXPECT_EQ(event.at("delta").at("stop_reason"), whole.at("stop_reason"));
      EXPECT_EQ(event.at("usage").at("output_tokens"), whole.at("usage").at("output_tokens"));
    }
  }
  EXPECT_EQ(text, whole.at("content")[0].at("text"));
  const json count = ask("/v1/messages/count_tokens", {{"messages", oneMessage("Hello")}});
  EXPECT_EQ(count.at("input_tokens"), events.front().at("message").at("usage").at("input_tokens"));
}

TEST_F(Replies, AnthropicThinkingIsABlockOfItsOwn) {
  const json body = {{"messages", oneMessage("Hello")},
                     {"max_tokens", 5},
                     {"seed", 7},
                     {"thinking", {{"type", "enabled"}, {"budget_tokens", 1024}}}};
  const json whole = ask("/v1/messages", body);
  EXPECT_EQ(whole.at("content")[0].at("type"), "thinking");
  EXPECT_EQ(whole.at("stop_reason"), "max_tokens");
}

TEST_F(Replies, OllamaStreamsLinesThatEndWithDone) {
  json body = {{"messages", oneMessage("Hello")},
               {"think", false},
               {"options", {{"num_predict", 12}, {"seed", 7}}}};
  const HttpAnswer answer = server_.post("/api/chat", body);
  EXPECT_EQ(answer.headers.at("content-type"), "application/x-ndjson");
  std::string text;
  json last;
  std::istringstream lines(answer.body);
  for (std::string line; std::getline(lines, line);) {
    last = json::parse(line);
    text += last.at("message").value("content", "");
  }
  EXPECT_TRUE(last.at("done").get<bool>());
  body["stream"] = false;
  const json whole = ask("/api/chat", body);
  EXPECT_EQ(whole.at("message").at("content"), text);
  EXPECT_EQ(whole.at("eval_count"), last.at("eval_count"));
  const json generated = ask("/api/generate", {{"prompt", "Hello"},
                                               {"stream", false},
                                               {"think", false},
                                               {"options", {{"num_predict", 12}, {"seed", 7}}}});
  EXPECT_EQ(generated.at("response"), text);
  EXPECT_EQ(ask("/api/generate", {{"model", "tiny"}}).at("done_reason"), "load");
}

TEST_F(Replies, ResponsesFinishEachItemBeforeTheEnd) {
  json body = {{"input", "Hello"},
               {"max_output_tokens", 12},
               {"seed", 7},
               {"reasoning", {{"effort", "none"}}}};
  const json whole = ask("/v1/responses", body);
  body["stream"] = true;
  const std::vector<json> events = namedEvents(server_.post("/v1/responses", body).body);
  EXPECT_EQ(events.front().at("type"), "response.created");
  size_t open = 0;
  std::string text;
  for (size_t i = 0; i < events.size(); ++i) {
    EXPECT_EQ(events[i].at("sequence_number"), i);
    const std::string type = events[i].at("type");
    if (type == "response.output_item.added") ++open;
    if (type == "response.output_item.done") --open;
    if (type == "response.output_text.delta") text += events[i].at("delta");
  }
  EXPECT_EQ(open, 0U);
  const json& last = events.back().at("response");
  EXPECT_EQ(last.at("status"), whole.at("status"));
  EXPECT_EQ(last.at("output")[0].at("content")[0].at("text"), text);
  EXPECT_EQ(whole.at("output")[0].at("content")[0].at("text"), text);
  EXPECT_EQ(last.at("usage").at("output_tokens"), whole.at("usage").at("output_tokens"));
}

TEST(Efforts, RefusalsHaveTheDialectsName) {
  EngineOptions engine;
  engine.chatFormat = "qwen3.8";  // knows efforts
  const zemtest::RunningServer server(engine);
  const json turns = {{{"role", "user"}, {"content", "Hi"}}};
  struct Row {
    const char* path;
    json body;
    const char* name;
  };
  const json config = {{"effort", "most"}};
  for (const Row& row :
       {Row{"/v1/chat/completions", {{"reasoning_effort", "most"}}, "reasoning_effort"},
        Row{"/v1/responses", {{"input", "Hi"}, {"reasoning", config}}, "reasoning.effort"},
        Row{"/v1/messages", {{"max_tokens", 1}, {"output_config", config}}, "output_config.effort"},
        Row{"/v1/messages/count_tokens", {{"output_config", config}}, "output_config.effort"},
        Row{"/api/chat", {{"think", "most"}}, "think"}}) {
    json body = row.body;
    body["messages"] = turns;
    const zemtest::HttpAnswer answer = server.post(row.path, body);
    EXPECT_EQ(answer.status, 400) << row.path;
    EXPECT_THAT(answer.body, testing::HasSubstr("\"" + std::string(row.name) +
                                                ": found \\\"most\\\", expected xhigh"))
        << row.path;
  }
  const json refused = json::parse(
      server.post("/v1/responses", {{"input", "Hi"}, {"reasoning", {{"effort", "low"}}}}).body);
  EXPECT_EQ(refused.at("error").at("param"), "reasoning.effort");
}

}  // namespace
}  // namespace zem::server
