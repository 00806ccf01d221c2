// SPDX-License-Identifier: Apache-2.0
// Prompts against those that Jinja makes of the published template
// (tests/data/chat/cases.jsonl, see tests/data/README.md).
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "engine/text/chat_format.h"
#include "engine/text/json.h"
#include "engine/text/render_request.h"

namespace zem::text {
namespace {

std::vector<Json> readCases() {
  std::ifstream file(ZEM_TEST_DATA "/chat/cases.jsonl", std::ios::binary);
  std::vector<Json> cases;
  std::string line;
  while (std::getline(file, line)) {
    Json value;
    const kiv::Status status = parseJson(line, "cases", value);
    EXPECT_TRUE(status.ok()) << status.message();
    cases.push_back(value);
  }
  return cases;
}

TEST(ChatGolden, EveryPromptIsThatOfTheTemplate) {
  const std::vector<Json> cases = readCases();
  ASSERT_GE(cases.size(), 200U);
  const ChatFormat* format = chatFormatByName("qwen3.5");
  size_t refused = 0;
  for (const Json& entry : cases) {
    SCOPED_TRACE(entry.at("name").get<std::string>());
    Json answer;
    const kiv::Status status =
        parseJson(renderRequest(entry.at("request").dump(), *format), "answer", answer);
    ASSERT_TRUE(status.ok()) << status.message();
    if (entry.contains("refused")) {
      EXPECT_TRUE(answer.contains("error")) << answer;
      ++refused;
    } else {
      EXPECT_EQ(answer, entry.at("prompt"));
    }
  }
  EXPECT_GE(refused, 20U);
}

TEST(ChatGolden, TheTemplateIsKnownByItsText) {
  std::ifstream file(ZEM_TEST_DATA "/chat/qwen3.5-4b.jinja", std::ios::binary);
  std::string text((std::istreambuf_iterator<char>(file)), {});
  ASSERT_EQ(text.size(), 7756U);
  EXPECT_EQ(chatFormatOfTemplate(text), chatFormatByName("qwen3.5"));
  text.back() = '\n';
  EXPECT_EQ(chatFormatOfTemplate(text), nullptr);
  EXPECT_EQ(chatFormatOfTemplate(""), nullptr);
}

TEST(ChatGolden, EveryNameIsOfferedAndNoOtherIsKnown) {
  EXPECT_EQ(chatFormatNames(), "qwen3.5, qwen3.5-small, qwen3.6, qwen3.8");
  for (const char* name : {"qwen3.5", "qwen3.5-small", "qwen3.6", "qwen3.8"}) {
    ASSERT_NE(chatFormatByName(name), nullptr);
    EXPECT_EQ(chatFormatByName(name)->name, name);
  }
  EXPECT_EQ(chatFormatByName("qwen3"), nullptr);
  EXPECT_EQ(chatFormatByName(""), nullptr);
}

}  // namespace
}  // namespace zem::text
