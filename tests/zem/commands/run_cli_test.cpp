// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <algorithm>
#include <csignal>

#include "zem/commands/talk_support.h"

namespace zemtest {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

class RunTest : public TalkTest {
 protected:
  static ProcessResult run(const Arguments& more, const std::string& input = {}) {
    return zem(talk("run", more), input);
  }
  static std::string textOf(const Arguments& more) {
    const ProcessResult result = run(more);
    EXPECT_EQ(result.status, 0) << result.err;
    return result.out;
  }
  // The tokens, and the end as the last one.
  static std::vector<nlohmann::json> jsonOf(Arguments more) {
    more.emplace_back("--json");
    return linesOf(textOf(more));
  }
  static std::vector<uint32_t> idsOf(const std::vector<nlohmann::json>& lines) {
    std::vector<uint32_t> ids;
    for (size_t i = 0; i + 1 < lines.size(); ++i) ids.push_back(lines[i]["id"]);
    return ids;
  }
  static std::string listOf(const std::vector<uint32_t>& ids) {
    std::string list;
    for (const uint32_t id : ids) list += (list.empty() ? "" : ",") + std::to_string(id);
    return list;
  }
};

const Arguments kShort = {"--raw", "-p", "Hello", "-n", "20", "-s", "3"};

TEST_F(RunTest, EqualSeedsGiveEqualReplies) {
  const std::string text = textOf(kShort);
  EXPECT_GT(text.size(), 10U);
  const Arguments two = {"run", "-m", model_->string(), "-t", "2", "-b", "3"};
  EXPECT_EQ(zem(with(two, kShort)).out, text);
  EXPECT_NE(textOf({"--raw", "-p", "Hello", "-n", "20", "-s", "4"}), text);
}

TEST_F(RunTest, TextAloneIsPrinted) {
  const ProcessResult result = run(kShort);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out.back(), '\n');
}

TEST_F(RunTest, LinesOfJsonAreTheReply) {
  const auto lines = jsonOf(with(kShort, {"--logprobs", "3"}));
  std::string text;
  for (size_t i = 0; i + 1 < lines.size(); ++i) {
    text += lines[i]["text"];
    EXPECT_LE(lines[i]["logprob"], 0.0);
    ASSERT_EQ(lines[i]["top"].size(), 3U);
    EXPECT_GE(lines[i]["top"][0]["logprob"], lines[i]["logprob"]);
  }
  const nlohmann::json& end = lines.back();
  text += end["text"];
  EXPECT_EQ(text + "\n", textOf(kShort));
  EXPECT_EQ(end["message"]["content"], text);
  EXPECT_EQ(end["reason"], "length");
  EXPECT_EQ(end["usage"], (nlohmann::json{{"prompt", 5}, {"generated", 20}}));
  EXPECT_EQ(end["reused"], 0);
  EXPECT_EQ(end["evaluated"], 5);
  EXPECT_EQ(lines.size(), 21U);
}

TEST_F(RunTest, IdsAreAPromptLikeTheirText) {
  EXPECT_EQ(textOf({"--ids", "72,101,108,108,111", "-n", "20", "-s", "3"}), textOf(kShort));
}

TEST_F(RunTest, PromptComesFromAFileOrAPipe) {
  const std::string file = folder_.write("prompt", std::string_view("Hello\n"));
  const Arguments rest = {"--raw", "-n", "20", "-s", "3"};
  EXPECT_EQ(textOf(with({"-f", file}, rest)), textOf(kShort));
  EXPECT_EQ(run(rest, "Hello\n").out, textOf(kShort));
}

TEST_F(RunTest, TemperatureZeroNeedsNoSeed) {
  const Arguments likeliest = {"--raw", "-p", "Hello", "-n", "20", "--temp", "0"};
  EXPECT_EQ(textOf(likeliest), textOf(likeliest));
  EXPECT_EQ(textOf(with(likeliest, {"-s", "5"})), textOf(likeliest));
  EXPECT_EQ(textOf({"--raw", "-p", "Hello", "-n", "20", "--top-k", "1"}), textOf(likeliest));
}

TEST_F(RunTest, StopTextEndsTheReply) {
  const std::string text = textOf(kShort);
  const auto ascii = std::find_if(text.begin() + 5, text.end() - 1, [](char c) { return c > ' '; });
  ASSERT_NE(ascii, text.end() - 1) << text;
  const std::string stop(1, *ascii);
  const std::string until = text.substr(0, text.find(stop));
  EXPECT_EQ(textOf(with(kShort, {"--stop", "never comes", "--stop", stop})), until + "\n");
  const auto end = jsonOf(with(kShort, {"--stop", "never comes", "--stop", stop})).back();
  EXPECT_EQ(end["reason"], "stop_text");
  EXPECT_EQ(end["stop_text"], 1);
}

TEST_F(RunTest, ChatIsTheDefaultAndFramesThePrompt) {
  const auto chat = jsonOf({"-p", "Hello", "-n", "1"});
  EXPECT_GT(chat.back()["evaluated"], 15);
  EXPECT_EQ(jsonOf({"-p", "Hello", "-n", "1", "--chat"}).back()["evaluated"],
            chat.back()["evaluated"]);
  EXPECT_GT(jsonOf({"-p", "Hello", "-n", "1", "-sys", "Be brief."}).back()["evaluated"],
            chat.back()["evaluated"]);
}

TEST_F(RunTest, ControlTokensOfAUserAreText) {
  const auto frame = jsonOf({"-p", "", "-n", "1"}).back()["evaluated"].get<int>();
  EXPECT_EQ(jsonOf({"-p", "<|im_end|>", "-n", "1"}).back()["evaluated"], frame + 10);
}

TEST_F(RunTest, ThinkingStaysOutOfTheAnswer) {
  const Arguments thinking = {"-p", "Hi", "--think", "on", "--think-budget",
                              "4",  "-n", "60",      "-s", "2"};
  const ProcessResult hidden = run(thinking);
  EXPECT_EQ(hidden.status, 0);
  EXPECT_EQ(hidden.err, "");
  const ProcessResult shown = run(with(thinking, {"--think-show", "on"}));
  EXPECT_EQ(shown.out, hidden.out);
  EXPECT_THAT(shown.out, Not(HasSubstr("long enough")));
  EXPECT_THAT(shown.err, HasSubstr("I have thought about this for long enough."));
  const auto message = jsonOf(thinking).back()["message"];
  EXPECT_THAT(message["reasoning_content"].get<std::string>(), HasSubstr("long enough"));
  EXPECT_EQ(message["content"].get<std::string>() + "\n", hidden.out);
}

TEST_F(RunTest, SchemaShapesTheAnswer) {
  const std::string schema =
      folder_.write("s.json", std::string_view(R"({"enum": ["yes", "no"]})"));
  for (const Arguments& mode : {Arguments{"--think", "off"}, Arguments{"--raw"}}) {
    const std::string text = textOf(with({"-p", "Well?", "--schema", schema, "-n", "900"}, mode));
    const auto answer = nlohmann::json::parse(text);
    EXPECT_TRUE(answer == "yes" || answer == "no") << text;
  }
}

TEST_F(RunTest, ToolsArePartOfThePrompt) {
  const std::string tools = folder_.write(
      "t.json", std::string_view(R"([{"type": "function", "function": {"name": "now"}}])"));
  EXPECT_GT(jsonOf({"-p", "Hi", "-n", "1", "--tools", tools}).back()["evaluated"],
            jsonOf({"-p", "Hi", "-n", "1"}).back()["evaluated"].get<int>() + 500);
}

TEST_F(RunTest, TimingsGoToStandardError) {
  const ProcessResult result = run(with(kShort, {"--show-timings"}));
  EXPECT_EQ(result.out, textOf(kShort));
  EXPECT_THAT(result.err, AllOf(StartsWith("prompt: 5 tokens, 0 reused, 5 evaluated in "),
                                HasSubstr("\nreply:  20 tokens in ")));
}

TEST_F(RunTest, SessionGoesOnWithoutEvaluatingAgain) {
  const std::string session = folder_.path("session");
  const auto first = jsonOf({"--raw", "-p", "Hello", "-n", "6", "-s", "3", "--session", session});
  ASSERT_EQ(first.back()["reason"], "length");
  const Arguments rest = {"-n", "9", "-s", "5"};
  const auto second = jsonOf(with({"--raw", "-p", " and", "--session", session}, rest));
  EXPECT_EQ(second.back()["reused"], 11);
  EXPECT_EQ(second.back()["evaluated"], 4);

  std::vector<uint32_t> whole = {'H', 'e', 'l', 'l', 'o'};
  for (const uint32_t id : idsOf(first)) whole.push_back(id);
  for (const char c : std::string(" and")) whole.push_back(static_cast<uint32_t>(c));
  EXPECT_EQ(idsOf(second), idsOf(jsonOf(with({"--ids", listOf(whole)}, rest))));

  const auto third = jsonOf({"--raw", "-p", "!", "-n", "1", "--session", session});
  EXPECT_GE(third.back()["reused"], 15);
  EXPECT_EQ(third.back()["evaluated"], 1);
}

TEST_F(RunTest, ChatSessionTakesTheNextMessage) {
  const std::string session = folder_.path("session");
  const auto first = jsonOf({"-p", "Hi", "-n", "5", "--session", session, "-sys", "Be brief."});
  const auto second = jsonOf({"-p", "And?", "-n", "5", "--session", session});
  EXPECT_GE(second.back()["reused"], first.back()["evaluated"]);
  EXPECT_LT(second.back()["evaluated"], first.back()["evaluated"]);
  const ProcessResult late = run({"-p", "x", "-n", "1", "--session", session, "-sys", "Be brief."});
  EXPECT_EQ(late.status, 1);
  EXPECT_THAT(late.err, HasSubstr("belong to the beginning of a conversation"));
}

TEST_F(RunTest, BrokenSessionIsRefusedAndStays) {
  const std::string session = folder_.path("session");
  textOf({"--raw", "-p", "Hello", "-n", "2", "--session", session});
  std::string bytes = folder_.read("session");
  for (const size_t at : {size_t{0}, size_t{9}, bytes.size() / 2, bytes.size() - 1}) {
    std::string broken = bytes;
    broken[at] = static_cast<char>(broken[at] ^ 1);
    folder_.write("broken", broken);
    const ProcessResult result =
        run({"--raw", "-p", "x", "-n", "2", "--session", folder_.path("broken")});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_THAT(result.err, AllOf(StartsWith("zem: cannot go on with the session "),
                                  HasSubstr(folder_.path("broken"))));
    EXPECT_TRUE(folder_.read("broken") == broken);
  }
  const ProcessResult other =
      run({"--raw", "-p", "x", "-n", "2", "--session", session, "--cache", "f32"});
  EXPECT_EQ(other.status, 1);
  EXPECT_THAT(other.err, HasSubstr("precision"));
}

TEST_F(RunTest, SessionThatCannotBeWrittenIsAFailureBehindTheAnswer) {
  const ProcessResult result = run(with(kShort, {"--session", "/dev/null/session"}));
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, textOf(kShort));
  EXPECT_THAT(result.err, StartsWith("zem: the session was not written: "));
}

TEST_F(RunTest, ContextThatIsFullIsSaid) {
  const ProcessResult result = run({"--raw", "-p", "Hello", "-c", "8", "-s", "3"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "(the context of 8 tokens is full)\n");
  const ProcessResult none = run({"--raw", "-p", "Hello", "-c", "4"});
  EXPECT_EQ(none.status, 1);
  EXPECT_THAT(none.err, HasSubstr("the prompt has 5 tokens"));
}

struct Refused {
  const char* name;
  Arguments arguments;
  const char* says;
};

TEST_F(RunTest, WhatCannotBeDoneIsRefusedInOneLine) {
  const std::string list = folder_.write("list.json", std::string_view("[1, 2"));
  const Refused cases[] = {
      {"no prompt", {"--raw", "-p", ""}, "the prompt is empty"},
      {"ids", {"--ids", "70,999"}, "token 1 of the prompt is 999"},
      {"tools", {"-p", "x", "--tools", list}, "the tools file "},
      {"schema", {"-p", "x", "--schema", folder_.path("none")}, "cannot open the schema file"},
      {"system", {"-p", "x", "--raw", "-sys", "y"}, "belong to a chat"},
      {"template", {"-p", "x", "--chat-template", "odd"}, "\"odd\""},
      {"stop", {"-p", "x", "--stop", ""}, "stop text 1"},
  };
  for (const Refused& refused : cases) {
    const ProcessResult result = run(refused.arguments);
    EXPECT_EQ(result.status, 1) << refused.name;
    EXPECT_EQ(result.out, "") << refused.name;
    EXPECT_THAT(result.err, AllOf(StartsWith("zem: "), HasSubstr(refused.says))) << refused.name;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
  }
}

TEST_F(RunTest, ModelThatIsMissingOrBrokenIsNamed) {
  const std::string broken = folder_.write("broken.zem", std::string_view("ZEM"));
  for (const std::string& path : {folder_.path("none.zem"), broken}) {
    const ProcessResult result = zem({"run", "-m", path, "-p", "x"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, AllOf(StartsWith("zem: cannot "), HasSubstr(path)));
  }
}

TEST_F(RunTest, UnknownTemplateMeansAPlainText) {
  const TempFile file;
  writeChatModel(file, "{{ messages }}");
  const ProcessResult plain =
      zem({"run", "-m", file.string(), "-p", "Hello", "-n", "20", "-s", "3", "-t", "1"});
  EXPECT_EQ(plain.out, textOf(kShort));
  const ProcessResult asked = zem({"run", "-m", file.string(), "-p", "Hello", "--chat"});
  EXPECT_EQ(asked.status, 1);
  EXPECT_THAT(asked.err, HasSubstr("--chat-template (qwen3.5,"));
}

std::string shellLine(const Arguments& arguments) {
  std::string line;
  for (const std::string& word : command(arguments)) line += "'" + word + "' ";
  return line;
}

TEST_F(RunTest, PipeThatClosesEarlyEndsQuietly) {
  const std::string line =
      shellLine(talk("run", {"--raw", "-p", "Hello", "--temp", "0", "--presence-penalty", "-100"}));
  // Whether a closed pipe kills or is an error is inherited.
  for (const std::string trap : {"", "trap '' PIPE; "}) {
    const ProcessResult result = runProcess(
        {"/bin/bash", "-c", "set -o pipefail; " + trap + line + "| head -c 1 >/dev/null"}, "",
        cliEnvironment());
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.status, trap.empty() ? 128 + SIGPIPE : 1);
  }
}

TEST_F(RunTest, FullDiskIsAFailure) {
  const ProcessResult result = runProcess(
      {"/bin/sh", "-c", shellLine(talk("run", kShort)) + "> /dev/full"}, "", cliEnvironment());
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("zem: cannot write to standard output: No space left"));
}

TEST_F(RunTest, CtrlCKeepsWhatCameAndExitsWith130) {
  ZEM_NEEDS_PLAIN_TERMINAL();
  const std::string schema =
      folder_.write("s.json", std::string_view(R"({"type": "array", "minItems": 100000})"));
  TerminalProcess process(
      command(talk("run", {"--raw", "-p", "Hello", "--schema", schema, "--think-show", "off"})),
      cliEnvironment());
  EXPECT_TRUE(process.shows("["));
  process.send(SIGINT);
  EXPECT_EQ(process.wait(), 130);
  EXPECT_TRUE(process.shown().ends_with("\r\n"));
}

}  // namespace
}  // namespace zemtest
