// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include "zem/commands/cli_support.h"

namespace zemtest {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

std::string answer(const Arguments& more, const std::string& input = {}) {
  Arguments arguments = {"plugin", "run", "-m", "fake.zem"};
  arguments.insert(arguments.end(), more.begin(), more.end());
  const ProcessResult result = zem(arguments, input);
  EXPECT_EQ(result.status, 0) << result.err;
  return result.out;
}

TEST(Run, TextAloneGoesToStdoutAndTimingsToStderr) {
  const ProcessResult result = zem({"plugin", "run", "-m", "fake.zem", "-p", "hello"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "<hello>\n");
  EXPECT_EQ(result.err,
            "96 tokens in 192.0 ms (prompt included), 500.0 tokens/s, last step 2.0 ms\n");
}

TEST(Run, TextEndsWithExactlyOneMoreLineFeedIfItNeedsOne) {
  EXPECT_EQ(answer({"-p", "lines"}), "one\ntwo\n");
  EXPECT_EQ(answer({"-p", "nothing"}), "\n");
}

TEST(Run, BytesThatAreNoTextAreReplaced) {
  EXPECT_EQ(answer({"-p", "bytes"}), "a\x1b[31m\xEF\xBF\xBD(\xEF\xBF\xBD\n");
}

TEST(Run, PromptFromFilePipeOrDash) {
  const TempFolder folder;
  const std::string file = folder.write("prompt", std::string_view("two\nlines\n"));
  EXPECT_EQ(answer({"-f", file}), "<two\nlines>\n");
  EXPECT_EQ(answer({}, "piped\n\n"), "<piped\n>\n");
  EXPECT_EQ(answer({"-f", "-"}, "dash\r\n"), "<dash>\n");
  EXPECT_EQ(answer({"-p", "option"}, "not read"), "<option>\n");
}

TEST(Run, EmptyPromptsAreAllowed) {
  EXPECT_EQ(answer({"-p", ""}), "<>\n");
  EXPECT_EQ(answer({}, ""), "<>\n");
}

TEST(Run, PromptThatLooksLikeAnOptionIsText) {
  EXPECT_EQ(answer({"-p", "-x"}), "<-x>\n");
  EXPECT_EQ(answer({"--prompt=--seed"}), "<--seed>\n");
}

TEST(Run, PromptFilesThatCannotBeReadAreFailures) {
  const TempFolder folder;
  for (const std::string& path : {folder.path("missing"), folder.path(".")}) {
    const ProcessResult result = zem({"plugin", "run", "-m", "fake.zem", "-f", path});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, AllOf(StartsWith("zem: cannot"), HasSubstr(path)));
  }
}

TEST(Run, PromptWithNulByteIsRefused) {
  const ProcessResult result = zem({"plugin", "run", "-m", "fake.zem"}, std::string("ab\0c", 4));
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("standard input holds a NUL byte at offset 2"));
}

TEST(Run, ContextAndPlanTravelInTheHint) {
  EXPECT_EQ(answer({"-p", "hint"}), "zem\n");
  EXPECT_EQ(answer({"-p", "hint", "-c", "100"}), "zem;ctx=100\n");
  EXPECT_EQ(answer({"-p", "hint", "--plan", "0-3,7", "--ctx-size", "1"}), "zem;ctx=1;plan=0-3,7\n");
}

TEST(Run, SamplingOptionsTravelInAFullRecord) {
  EXPECT_EQ(answer({"-p", "options"}),
            "size=56 temp=-1.000000 top_k=0 top_p=0.000000 seed=0 ctx=0\n");
  EXPECT_EQ(answer({"-p", "options", "--temp", "0.5", "--top-k", "40", "--top-p", "0.25", "-s",
                    "18446744073709551615"}),
            "size=56 temp=0.500000 top_k=40 top_p=0.250000 seed=18446744073709551615 ctx=0\n");
}

TEST(Run, ThreadsAreSetBeforeThePluginIsLoaded) {
  EXPECT_EQ(answer({"-p", "threads"}), "unset\n");
  EXPECT_EQ(answer({"-p", "threads", "-t", "3"}), "3\n");
}

// Idle threads give the processor away soon, unless the user decided about it.
TEST(Run, SpinningIsLimitedBeforeThePluginIsLoaded) {
  const auto rounds = [](const Environment& extra) {
    Environment all = {{"OMP_WAIT_POLICY", ""}, {"GOMP_SPINCOUNT", ""}};
    for (const auto& [name, value] : extra) all[name] = value;
    return zem({"plugin", "run", "-m", "m.zem", "-p", "spinning"}, {}, all).out;
  };
  EXPECT_EQ(rounds({}), "10000\n");
  EXPECT_EQ(rounds({{"GOMP_SPINCOUNT", "7"}}), "7\n");
  EXPECT_EQ(rounds({{"OMP_WAIT_POLICY", "active"}}), "unset\n");
}

TEST(Run, JsonHoldsTextAndTimings) {
  const auto printed = nlohmann::json::parse(answer({"-p", "hello", "--json"}));
  EXPECT_EQ(printed["text"], "<hello>");
  EXPECT_EQ(printed["tokens"], 96);
  EXPECT_EQ(printed["generation_ms"], 192.0);
  EXPECT_EQ(printed["tokens_per_second"], 500.0);
  EXPECT_EQ(nlohmann::json::parse(answer({"-p", "bytes", "--json"}))["text"],
            "a\x1b[31m\xEF\xBF\xBD(\xEF\xBF\xBD");
}

TEST(Run, ARefusedModelIsExplained) {
  const TempFolder folder;
  const ProcessResult missing = zem({"plugin", "run", "-m", folder.path("refuse.zem"), "-p", "x"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.out, "");
  EXPECT_EQ(missing.err, "zem: cannot open the model " + folder.path("refuse.zem") +
                             ": scripted refusal (No such file or directory)\n");
  const std::string broken = folder.write("refuse.zem", std::string_view("not a container"));
  EXPECT_THAT(zem({"plugin", "run", "-m", broken, "-p", "x"}).err,
              HasSubstr("scripted refusal (ZEM2: file too small)"));
}

TEST(Run, AFailedCompletionPrintsNothingOnStdout) {
  const ProcessResult result = zem({"plugin", "run", "-m", "fake.zem", "-p", "fail"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(result.err, StartsWith("zem: the completion failed"));
}

TEST(Run, TextBeyondTheBufferIsAFailureAndNotACut) {
  const ProcessResult result = zem({"plugin", "run", "-m", "fake.zem", "-p", "huge"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(result.err, StartsWith("zem: the completion does not fit"));
}

TEST(Run, ATerminalGetsNoControlCharactersAndDimTimings) {
  ZEM_NEEDS_PLAIN_TERMINAL();
  TerminalProcess process(command({"plugin", "run", "-m", "fake.zem", "-p", "bytes"}),
                          cliEnvironment());
  EXPECT_EQ(process.wait(), 0);
  EXPECT_THAT(process.shown(), StartsWith("a\\x1b[31m\xEF\xBF\xBD(\xEF\xBF\xBD\r\n\x1b[2m96 tok"));
}

TEST(Run, NoColorIsHonoured) {
  ZEM_NEEDS_PLAIN_TERMINAL();
  TerminalProcess process(command({"plugin", "run", "-m", "fake.zem", "-p", "hello"}),
                          cliEnvironment({{"NO_COLOR", "1"}}));
  EXPECT_EQ(process.wait(), 0);
  EXPECT_EQ(process.shown().find('\x1b'), std::string::npos) << process.shown();
}

TEST(Run, ATerminalOnStdinIsNotWaitedFor) {
  ZEM_NEEDS_PLAIN_TERMINAL();
  TerminalProcess process(command({"plugin", "run", "-m", "fake.zem"}), cliEnvironment());
  EXPECT_EQ(process.wait(), 2);
  EXPECT_THAT(process.shown(), HasSubstr("zem: a prompt is needed"));
}

}  // namespace
}  // namespace zemtest
