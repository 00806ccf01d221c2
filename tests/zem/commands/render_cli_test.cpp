// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <fstream>
#include <sstream>

#include "cli_support.h"
#include "support/published_model.h"

namespace zemtest {
namespace {

using json = nlohmann::ordered_json;
using ::testing::AllOf;
using ::testing::HasSubstr;

const std::string kRequest = R"({"messages": [{"role": "user", "content": "Hi<|im_end|>"}]})";
const std::string kPrompt =
    "<|im_start|>user\nHi<|im_end|><|im_end|>\n<|im_start|>assistant\n<think>\n";

class Render : public ::testing::Test {
 protected:
  ProcessResult run(const Arguments& more, const std::string& input = {}) const {
    Arguments arguments = {"render", "--chat-template-file", kTemplateFile};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return zem(arguments, input);
  }

  TempFolder folder_;
};

TEST_F(Render, PrintsThePromptByteByByte) {
  const std::string file = folder_.write("r\xC3\xA9.json", kRequest + "\r\n");
  for (const ProcessResult& result : {run({file}), run({}, kRequest), run({"-"}, kRequest)}) {
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, kPrompt);
    EXPECT_EQ(result.err, "");
  }
}

TEST_F(Render, ATerminalObeysNothingOfAPrompt) {
  ZEM_NEEDS_PLAIN_TERMINAL();
  const std::string file =
      folder_.write("r.json", R"({"messages": [{"role": "user", "content": "\u001b[2J"}], )"
                              R"("add_generation_prompt": false, "enable_thinking": null})");
  TerminalProcess process(command({"render", file, "--chat-template", "qwen3.5"}),
                          cliEnvironment());
  EXPECT_EQ(process.wait(), 0);
  EXPECT_EQ(process.shown(), "<|im_start|>user\r\n\\x1b[2J<|im_end|>\r\n");
}

TEST_F(Render, WaitsForNoRequestOnATerminal) {
  ZEM_NEEDS_PLAIN_TERMINAL();
  TerminalProcess process(command({"render", "--chat-template", "qwen3.5"}), cliEnvironment());
  EXPECT_EQ(process.wait(), 2);
  EXPECT_THAT(process.shown(), HasSubstr("a request is needed: FILE, or a pipe"));
}

TEST_F(Render, TakesTheTemplateOfAModel) {
  const std::string model = folder_.write(
      "m.zem", containerFromSource("tokenizer.json", "{}", publishedTemplate()).build());
  GgufBuilder builder = supportedGguf(8, 12);
  builder.erase("tokenizer.chat_template");
  builder.addText("tokenizer.chat_template", publishedTemplate());
  const std::string gguf = folder_.write("m.gguf", builder.build());
  for (const std::string& path : {model, gguf}) {
    const ProcessResult result = zem({"render", "-m", path}, kRequest);
    EXPECT_EQ(result.out, kPrompt) << path;
    EXPECT_EQ(result.err, "") << path;
  }
}

TEST_F(Render, ANameStandsInPlaceOfATemplate) {
  const std::string model = folder_.write("m.zem", smallContainer().build());
  EXPECT_THAT(zem({"render", "-m", model, "--chat-template", "qwen3.5-small"}, kRequest).out,
              ::testing::EndsWith("assistant\n<think>\n\n</think>\n\n"));
}

TEST_F(Render, ATemplateThatIsNotKnownIsAFailure) {
  const auto errorOf = [&](const Arguments& arguments) {
    const ProcessResult result = zem(arguments, kRequest);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    return result.err;
  };
  const std::string model = folder_.write("m.zem", smallContainer().build());
  EXPECT_THAT(errorOf({"render", "-m", model}),
              AllOf(HasSubstr("the chat template of " + model +
                              " is none of the known revisions "
                              "(SHA-256 "),
                    HasSubstr("; --chat-template NAME takes one of qwen3.5, ")));
  const std::string bare = folder_.write("bare.zem", smallContainer().noTokenizer().build());
  EXPECT_THAT(errorOf({"render", "-m", bare}), HasSubstr(bare + " has no chat template"));
  GgufBuilder builder = supportedGguf(8, 12);
  builder.erase("tokenizer.chat_template");
  EXPECT_THAT(errorOf({"render", "-m", folder_.write("m.gguf", builder.build())}),
              HasSubstr("has no chat template"));
  EXPECT_THAT(errorOf({"render", "-m", folder_.path("missing")}), HasSubstr("No such file"));
  EXPECT_THAT(errorOf({"render", "--chat-template-file", folder_.write("t", std::string_view())}),
              HasSubstr("none of the known revisions"));
}

TEST_F(Render, ABadRequestNamesItsPlace) {
  const std::string file = folder_.write("r.json", std::string_view(R"({"messages": [{}]})"));
  const ProcessResult result = run({file});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(result.err, AllOf(HasSubstr("zem: " + file + ": messages[0]"), HasSubstr("role")));
  EXPECT_THAT(run({}, "").err, HasSubstr("zem: request: "));
  EXPECT_THAT(run({}, kRequest + kRequest).err, HasSubstr("zem: request: "));
  EXPECT_THAT(run({folder_.path("missing")}).err,
              HasSubstr("cannot open the request file " + folder_.path("missing")));
}

TEST_F(Render, SegmentsShowWhatMayHoldControlTokens) {
  const ProcessResult result = run({"--segments"}, kRequest);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out,
            "  control  \"<|im_start|>user\\n\"\n"
            "  text     \"Hi<|im_end|>\"\n"
            "  control  \"<|im_end|>\\n<|im_start|>assistant\\n<think>\\n\"\n");
}

TEST_F(Render, EveryLineIsARequest) {
  const std::string file = folder_.write("r.jsonl", kRequest + "\r\n" + kRequest);
  const std::string expected = json(kPrompt).dump() + "\n";
  EXPECT_EQ(run({"--lines", file}).out, expected + expected);
  EXPECT_EQ(run({"--lines"}, kRequest + "\n" + kRequest + "\n").out, expected + expected);
  EXPECT_EQ(run({"--lines"}, "").out, "");
}

TEST_F(Render, ALineThatFailsIsAnErrorAndTheOthersGoOn) {
  const ProcessResult result = run({"--lines"}, "\n" + kRequest + "\n{}\n");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "zem: 2 of 3 requests failed\n");
  std::istringstream lines(result.out);
  std::string line;
  std::getline(lines, line);
  EXPECT_THAT(json::parse(line)["error"].get<std::string>(), HasSubstr("request: "));
  std::getline(lines, line);
  EXPECT_EQ(json::parse(line), kPrompt);
  std::getline(lines, line);
  EXPECT_THAT(json::parse(line)["error"].get<std::string>(), HasSubstr("messages"));
  EXPECT_EQ(run({"--lines"}, "\xFF").err, "zem: 1 of 1 request failed\n");
}

// Every case that the template itself has answered.
TEST_F(Render, LinesOfThePublishedTemplateAreTheSame) {
  std::ifstream cases(ZEM_TEST_DATA "/chat/cases.jsonl");
  std::string requests;
  std::vector<json> expected;
  for (std::string line; std::getline(cases, line);) {
    expected.push_back(json::parse(line));
    requests += expected.back()["request"].dump() + "\n";
  }
  ASSERT_GE(expected.size(), 200U);
  const ProcessResult result = run({"--lines", folder_.write("cases", requests)});
  std::istringstream lines(result.out);
  std::string line;
  for (const json& entry : expected) {
    ASSERT_TRUE(std::getline(lines, line));
    const json answer = json::parse(line);
    if (entry.contains("prompt")) {
      EXPECT_EQ(answer, entry["prompt"]) << entry["name"];
    } else {
      EXPECT_TRUE(answer.contains("error")) << entry["name"];
    }
  }
}

TEST_F(Render, AProgramCanAskLineByLine) {
  ZEM_NEEDS_PLAIN_TERMINAL();  // where the next line is written after an answer
  TerminalProcess process(command({"render", "-", "--lines", "--chat-template", "qwen3.5"}),
                          cliEnvironment());
  process.type("[]\n");
  EXPECT_TRUE(process.shows("{\"error\": \"request: found a list, expected an object\"}"));
  process.type(kRequest + "\n");
  EXPECT_TRUE(process.shows("\"<|im_start|>user\\nHi"));
  process.send(SIGINT);
  EXPECT_EQ(process.wait(), 128 + SIGINT);
}

}  // namespace
}  // namespace zemtest
