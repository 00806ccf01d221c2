// SPDX-License-Identifier: Apache-2.0
// What the dialects make of replies, without a model.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "server/dialects/anthropic.h"
#include "server/dialects/content_tokens.h"
#include "server/dialects/ollama.h"
#include "server/dialects/openai_chat.h"
#include "server/dialects/responses.h"

namespace zem::server {
namespace {

using text::ReplyEvent;
using Kind = ReplyEvent::Kind;
using Events = std::vector<ReplyEvent>;

// Thinking, content, and two calls of which the second was cut.
Events everything() {
  return {{Kind::Reasoning, "why", 0, true},    {Kind::Content, "so", 0, true},
          {Kind::CallBegin, "f", 0, true},      {Kind::CallArguments, "{\"a\":", 0, true},
          {Kind::CallArguments, "1}", 0, true}, {Kind::CallEnd, "", 0, true},
          {Kind::CallBegin, "g", 1, true},      {Kind::CallArguments, "{}", 1, true},
          {Kind::CallEnd, "", 1, false}};
}

ReplyEnd endWith(EndReason reason) {
  ReplyEnd end;
  end.end.reason = reason;
  end.end.usage.prompt = 10;
  end.end.usage.reused = 4;
  end.end.usage.generated = 6;
  end.called = true;
  end.reasoningTokens = 2;
  return end;
}

// Each event by itself.
std::string streamOf(ReplyWriter& writer, const Events& events, const ReplyEnd& end) {
  std::string text = writer.begin();
  for (const ReplyEvent& event : events) text += writer.step({0, std::span(&event, 1), {}});
  text += writer.end(end);
  return text + writer.finish();
}

WholeReply wholeOf(const Events& events, const ReplyEnd& end) {
  WholeReply whole;
  whole.add({0, events, {}});
  whole.end = end;
  return whole;
}

// The data of all events of a stream.
std::vector<Json> dataOf(const std::string& stream) {
  std::vector<Json> data;
  for (size_t at = stream.find("data: "); at != std::string::npos;
       at = stream.find("data: ", at + 1)) {
    const std::string line = stream.substr(at + 6, stream.find('\n', at) - at - 6);
    if (line != "[DONE]") data.push_back(Json::parse(line));
  }
  return data;
}

const ReplyFacts kFacts{"id-1", "tiny", 1700000000, 10};

TEST(Writers, OpenAiMessageHasThinkingContentAndCallsApart) {
  const auto writer = makeOpenAiChatWriter(kFacts, {});
  const std::vector<WholeReply> replies = {wholeOf(everything(), endWith(EndReason::Stop))};
  const Json reply = Json::parse(writer->whole(replies));
  const Json& message = reply.at("choices")[0].at("message");
  EXPECT_EQ(message.at("reasoning_content"), "why");
  EXPECT_EQ(message.at("content"), "so");
  EXPECT_EQ(message.at("tool_calls")[0].at("function").at("arguments"), "{\"a\":1}");
  EXPECT_EQ(reply.at("choices")[0].at("finish_reason"), "tool_calls");
  EXPECT_EQ(reply.at("usage").at("prompt_tokens_details").at("cached_tokens"), 4);
  EXPECT_EQ(reply.at("usage").at("completion_tokens_details").at("reasoning_tokens"), 2);
  EXPECT_EQ(reply.at("timings").at("prompt_n"), 6);
}

TEST(Writers, OpenAiCallsOfAStreamHaveIndicesAndIds) {
  const auto writer = makeOpenAiChatWriter(kFacts, {});
  std::string first;
  std::string second;
  for (const Json& chunk : dataOf(streamOf(*writer, everything(), endWith(EndReason::Length)))) {
    const Json& delta = chunk.at("choices")[0].at("delta");
    if (!delta.contains("tool_calls")) continue;
    const Json& call = delta.at("tool_calls")[0];
    (call.at("index") == 0 ? first : second) +=
        call.at("function").at("arguments").get<std::string>();
    EXPECT_EQ(call.contains("id"), call.contains("type"));
  }
  EXPECT_EQ(first, "{\"a\":1}");
  EXPECT_EQ(second, "{}");
}

TEST(Writers, LimitIsTheReasonEvenBehindACall) {
  EXPECT_EQ(finishReason(endWith(EndReason::Length)), "length");
  EXPECT_EQ(finishReason(endWith(EndReason::Context)), "length");
  EXPECT_EQ(finishReason(endWith(EndReason::Stop)), "tool_calls");
}

TEST(Writers, AnthropicBlocksStandInOrderAndEachEnds) {
  const auto writer = makeAnthropicWriter(kFacts, {});
  std::vector<std::string> types;
  size_t next = 0;
  for (const Json& event : dataOf(streamOf(*writer, everything(), endWith(EndReason::Stop)))) {
    const std::string type = event.at("type");
    if (type == "content_block_start") {
      types.push_back(event.at("content_block").at("type"));
      EXPECT_EQ(event.at("index"), next);
    } else if (type == "content_block_delta") {
      EXPECT_EQ(event.at("index"), next);
    } else if (type == "content_block_stop") {
      EXPECT_EQ(event.at("index"), next++);
    } else if (type == "message_delta") {
      EXPECT_EQ(event.at("delta").at("stop_reason"), "tool_use");
      EXPECT_EQ(event.at("usage").at("input_tokens"), 6);
    }
  }
  EXPECT_EQ(types, (std::vector<std::string>{"thinking", "text", "tool_use", "tool_use"}));
  EXPECT_EQ(next, 4U);
}

TEST(Writers, AnthropicNamesTheStopText) {
  const auto writer = makeAnthropicWriter(kFacts, {"a", "b"});
  ReplyEnd end = endWith(EndReason::StopText);
  end.end.stopText = 1;
  const std::vector<WholeReply> replies = {wholeOf({}, end)};
  const Json message = Json::parse(writer->whole(replies));
  EXPECT_EQ(message.at("stop_reason"), "stop_sequence");
  EXPECT_EQ(message.at("stop_sequence"), "b");
}

TEST(Writers, OllamaCallsComeWhole) {
  const auto writer = makeOllamaWriter(kFacts, false);
  std::string calls;
  const std::string stream = streamOf(*writer, everything(), endWith(EndReason::Stop));
  for (size_t at = 0; at < stream.size(); at = stream.find('\n', at) + 1) {
    const Json line = Json::parse(stream.substr(at, stream.find('\n', at) - at));
    if (line.at("message").contains("tool_calls")) {
      calls += line.at("message").at("tool_calls")[0].at("function").dump();
    }
  }
  EXPECT_EQ(calls, R"({"name":"f","arguments":{"a":1}}{"name":"g","arguments":{}})");
  EXPECT_EQ(isoTime(0), "1970-01-01T00:00:00Z");
  EXPECT_EQ(isoTime(1709208000), "2024-02-29T12:00:00Z");
}

TEST(Writers, ResponsesItemsAreTheSameStreamedAndWhole) {
  const auto shapeOf = [](const Json& response) {
    std::string shape;
    for (const Json& item : response.at("output")) {
      shape += item.at("type").get<std::string>() + ":" + item.at("status").get<std::string>();
      shape += item.contains("content") ? item.at("content")[0].at("text").get<std::string>()
                                        : item.at("arguments").get<std::string>();
      shape += " ";
    }
    return shape;
  };
  const auto streams = makeResponsesWriter(kFacts, Json::object());
  const std::vector<Json> events =
      dataOf(streamOf(*streams, everything(), endWith(EndReason::Stop)));
  const auto wholes = makeResponsesWriter(kFacts, Json::object());
  const std::vector<WholeReply> replies = {wholeOf(everything(), endWith(EndReason::Stop))};
  const std::string want =
      "reasoning:completedwhy message:completedso function_call:completed{\"a\":1} "
      "function_call:incomplete{} ";
  EXPECT_EQ(shapeOf(events.back().at("response")), want);
  EXPECT_EQ(shapeOf(Json::parse(wholes->whole(replies))), want);
  for (size_t i = 0; i < events.size(); ++i) EXPECT_EQ(events[i].at("sequence_number"), i);
}

TEST(Writers, ErrorsOfAStreamHaveTheDialectsForm) {
  const ApiError error(500, "broken");
  EXPECT_EQ(makeOpenAiChatWriter(kFacts, {})->error(error),
            "data: {\"error\":{\"message\":\"broken\",\"type\":\"server_error\",\"param\":null,"
            "\"code\":null}}\n\n");
  EXPECT_TRUE(makeAnthropicWriter(kFacts, {})->error(error).starts_with("event: error\ndata: "));
  EXPECT_EQ(makeOllamaWriter(kFacts, true)->error(error), "{\"error\":\"broken\"}\n");
  EXPECT_TRUE(makeResponsesWriter(kFacts, Json::object())
                  ->error(error)
                  .starts_with("event: response.failed\n"));
}

TEST(Writers, BytesThatAreNoTextAreReplaced) {
  EXPECT_EQ(jsonText({{"a", "\xff"}}), "{\"a\":\"\xEF\xBF\xBD\"}");
}

class ContentTokensTest : public testing::Test {
 protected:
  void token(const std::string& bytes, const Events& events) {
    tokens_.push({bytes, -1.0, {}});
    tokens_.take(events, out_);
  }
  std::vector<std::string> texts() {
    tokens_.finish(out_);
    std::vector<std::string> texts;
    for (const ContentToken& token : out_) texts.push_back(token.bytes);
    return texts;
  }

  ContentTokens tokens_;
  std::vector<ContentToken> out_;
};

TEST_F(ContentTokensTest, LeaveThinkingMarkersAndNewlinesOut) {
  token("Hm", {{Kind::Reasoning, "Hm", 0, true}});
  token("</think>", {});
  token("\n\n", {});
  token("Hm", {{Kind::Content, "Hm", 0, true}});
  token(".\n", {{Kind::Content, ".", 0, true}});
  token("", {});
  EXPECT_EQ(texts(), (std::vector<std::string>{"Hm", "."}));
}

TEST_F(ContentTokensTest, WaitForContentThatIsHeldBack) {
  token("a", {});
  token("b\n", {{Kind::Content, "ab", 0, true}});
  token("c", {{Kind::Content, "\nc", 0, true}});
  EXPECT_EQ(texts(), (std::vector<std::string>{"a", "b\n", "c"}));
}

TEST_F(ContentTokensTest, SplitCharactersKeepTheirBytes) {
  token("\xE2\x82", {});
  token("\xAC", {{Kind::Content, "\xE2\x82\xAC", 0, true}});
  EXPECT_EQ(texts(), (std::vector<std::string>{"\xE2\x82", "\xAC"}));
}

TEST_F(ContentTokensTest, CallsAreNoContent) {
  token("so", {{Kind::Content, "so", 0, true}});
  token("<tool_call>", {{Kind::CallBegin, "f", 0, true}});
  token("so", {{Kind::CallArguments, "{}", 0, true}});
  token("x", {{Kind::CallEnd, "", 0, true}});
  EXPECT_EQ(texts(), std::vector<std::string>{"so"});
}

}  // namespace
}  // namespace zem::server
