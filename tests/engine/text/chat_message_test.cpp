// SPDX-License-Identifier: Apache-2.0
#include "engine/text/chat_message.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "engine/text/parsed_json.h"

namespace zem::text {
namespace {

using test::parsed;

std::string errorOfMessages(std::string_view json) {
  std::vector<Message> messages(1);
  const kiv::Status status = readMessages(parsed(json), messages);
  EXPECT_TRUE(messages.empty());
  return status.message();
}

TEST(ChatMessage, ErrorsSayWhereAndWhatWasFound) {
  struct Case {
    const char* json;
    const char* error;
  };
  const Case cases[] = {
      {"{}", "messages: found an object, expected a list of messages"},
      {R"(["x"])", "messages[0]: found text, expected an object"},
      {"[{}]",
       "messages[0].role: found nothing, expected system, developer, user, assistant or tool"},
      {R"([{"role": "user"}, {"role": "bot"}])",
       "messages[1].role: found \"bot\", expected system, developer, user, assistant or tool"},
      {R"([{"role": 1}])",
       "messages[0].role: found a number, expected system, developer, user, assistant or tool"},
      {R"([{"role": "user", "content": 1.5}])",
       "messages[0].content: found a number, expected text, a list of parts or null"},
      {R"([{"role": "tool", "content": {"text": "x"}}])",
       "messages[0].content: found an object, expected text, a list of parts or null"},
      {R"([{"role": "user", "content": ["image"]}])",
       "messages[0].content[0]: found text, expected an object with \"text\", or an image or a "
       "video"},
      {R"([{"role": "user", "content": [{"text": "a"}, {"type": "audio"}]}])",
       "messages[0].content[1]: found an object without any of them, expected an object with "
       "\"text\", or an image or a video"},
      {R"([{"role": "user", "content": [{"text": null}]}])",
       "messages[0].content[0].text: found null, expected text"},
      {R"([{"role": "assistant", "reasoning_content": true}])",
       "messages[0].reasoning_content: found true, expected text or null"},
      {R"([{"role": "assistant", "tool_calls": {}}])",
       "messages[0].tool_calls: found an object, expected a list of calls"},
      {R"([{"role": "assistant", "tool_calls": [[]]}])",
       "messages[0].tool_calls[0]: found a list, expected an object"},
      {R"([{"role": "assistant", "tool_calls": [{"function": "f"}]}])",
       "messages[0].tool_calls[0].function: found text, expected an object"},
      {R"([{"role": "assistant", "tool_calls": [{"arguments": {}}]}])",
       "messages[0].tool_calls[0].name: found nothing, expected text"},
      {R"([{"role": "assistant", "tool_calls": [{"function": {"name": 1}}]}])",
       "messages[0].tool_calls[0].function.name: found a number, expected text"},
      {R"([{"role": "assistant", "tool_calls": [{"name": "f", "arguments": []}]}])",
       "messages[0].tool_calls[0].arguments: found a list, expected an object, or JSON text of "
       "one"},
      {R"([{"role": "assistant", "tool_calls": [{"name": "f", "arguments": "3"}]}])",
       "messages[0].tool_calls[0].arguments: found a number, expected an object, or JSON text of "
       "one"},
  };
  for (const Case& c : cases) EXPECT_EQ(errorOfMessages(c.json), c.error);
}

TEST(ChatMessage, ArgumentsThatAreBrokenJsonAreNamed) {
  EXPECT_THAT(
      errorOfMessages(
          R"([{"role": "assistant", "tool_calls": [{"name": "f", "arguments": "{\"a\""}]}])"),
      testing::StartsWith("messages[0].tool_calls[0].arguments: parse error"));
}

TEST(ChatMessage, WhatOtherRolesDoNotHaveIsIgnored) {
  std::vector<Message> messages;
  ASSERT_TRUE(
      readMessages(parsed(R"([{"role": "user", "tool_calls": 1, "reasoning_content": 2, "x": 3}])"),
                   messages)
          .ok());
  EXPECT_TRUE(messages[0].calls.empty());
  EXPECT_FALSE(messages[0].reasoning.has_value());
}

TEST(ChatMessage, ToolsAreObjectsInAList) {
  std::vector<Json> tools(1);
  EXPECT_TRUE(readTools(Json(), tools).ok());
  EXPECT_TRUE(tools.empty());
  EXPECT_TRUE(readTools(parsed("[{\"a\": 1}, {}]"), tools).ok());
  EXPECT_EQ(tools.size(), 2U);
  EXPECT_EQ(readTools(parsed("{}"), tools).message(),
            "tools: found an object, expected a list of tools or null");
  EXPECT_EQ(readTools(parsed("[{}, false]"), tools).message(),
            "tools[1]: found false, expected an object");
  EXPECT_TRUE(tools.empty());
}

}  // namespace
}  // namespace zem::text
