// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include "zem/commands/cli_support.h"

namespace zemtest {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

ProcessResult chat(const std::string& input, const Arguments& more = {}) {
  Arguments arguments = {"plugin", "chat", "-m", "fake.zem"};
  arguments.insert(arguments.end(), more.begin(), more.end());
  return zem(arguments, input);
}

TEST(Chat, EachLineIsATurnAndEachReplyEndsItsLine) {
  const ProcessResult result = chat("hello\nturn\nturn");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "you said: hello\nturn 2\nturn 3\n");
  EXPECT_EQ(result.err, "");
}

TEST(Chat, EmptyLinesAreNoTurns) { EXPECT_EQ(chat("\n \t\nturn\r\n\n").out, "turn 1\n"); }

TEST(Chat, NoInputIsNoReply) {
  const ProcessResult result = chat("");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out + result.err, "");
}

TEST(Chat, PiecesAreJoinedToWholeCharacters) {
  EXPECT_EQ(chat("split\n").out,
            "\xE2\x82\xAC"
            "5 \xF0\x9F\x99\x82\n");
  EXPECT_EQ(chat("torn\n").out, "ok \xEF\xBF\xBD\n");
}

TEST(Chat, AReplyWithoutPiecesIsAnEmptyLine) {
  EXPECT_EQ(chat("silence\nturn\n").out, "\nturn 2\n");
}

TEST(Chat, TheBudgetsEndIsSaidInOneLine) {
  const ProcessResult full = chat("budget\n");
  EXPECT_EQ(full.out, std::string(96, 'x') + "\n");
  EXPECT_EQ(full.err, "(the reply ended at the runtime's limit of 96 tokens)\n");
  EXPECT_EQ(chat("almost\n").err, "");
}

TEST(Chat, ClearStartsANewConversation) {
  EXPECT_EQ(chat("turn\nturn\n/clear\nturn\n").out, "turn 1\nturn 2\nturn 1\n");
}

TEST(Chat, QuitEndsBeforeTheInputDoes) { EXPECT_EQ(chat("turn\n/quit\nturn\n").out, "turn 1\n"); }

TEST(Chat, SystemPromptOfTheCommandLine) {
  EXPECT_EQ(chat("system\n").out, "[]\n");
  EXPECT_EQ(chat("system\n", {"-sys", "be brief"}).out, "[be brief]\n");
  EXPECT_EQ(chat("system\n", {"-sys=be brief"}).out, "[be brief]\n");
  EXPECT_EQ(chat("system\n", {"--system-prompt", "be brief"}).out, "[be brief]\n");
}

TEST(Chat, SystemCommandTakesEffectAtOnceOrAfterClear) {
  EXPECT_EQ(chat("/system one\nsystem\n").out, "[one]\n");
  const ProcessResult later =
      chat("system\n/system two\nsystem\n/clear\nsystem\n", {"-sys", "one"});
  EXPECT_EQ(later.out, "[one]\n[one]\n[two]\n");
  EXPECT_EQ(later.err, "(the system prompt takes effect after /clear)\n(new conversation)\n");
}

TEST(Chat, SystemCommandWithoutTextShowsIt) {
  EXPECT_EQ(chat("/system\n").err, "(no system prompt)\n");
  EXPECT_EQ(chat("/system\n", {"-sys", "one"}).err, "one\n");
}

TEST(Chat, StatsAndHelpGoToStderr) {
  const ProcessResult result = chat("turn\n/stats\n/help\n");
  EXPECT_EQ(result.out, "turn 1\n");
  EXPECT_THAT(result.err, StartsWith("2 tokens in 4.0 ms"));
  EXPECT_THAT(result.err, HasSubstr("/clear "));
}

TEST(Chat, UnknownCommandsSaySo) {
  const ProcessResult result = chat("/cleer\n/home/me is a path\n /home/me\n");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "you said:  /home/me\n");
  EXPECT_THAT(result.err, HasSubstr("zem: unknown command /cleer;"));
  EXPECT_THAT(result.err, HasSubstr("zem: unknown command /home/me;"));
}

TEST(Chat, SamplingOptionsAreConfigured) {
  EXPECT_EQ(chat("settings\n", {"--temp", "1.5", "--top-k", "3", "-s", "9"}).out,
            "size=56 temp=1.500000 top_k=3 top_p=0.000000 seed=9 ctx=0\n");
}

TEST(Chat, AFailedTurnKeepsWhatWasSaidAndEndsAPipe) {
  const ProcessResult result = chat("turn\nfail\nturn\n");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "turn 1\npart\n");
  EXPECT_THAT(result.err, StartsWith("zem: the reply failed"));
  EXPECT_EQ(chat("refuse\n").out, "");
}

TEST(Chat, ALineWithNulByteIsRefused) {
  const ProcessResult result = chat(std::string("turn\na\0b\n", 9));
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "turn 1\n");
  EXPECT_THAT(result.err, HasSubstr("line 2 holds a NUL byte"));
}

TEST(Chat, PiecesAreFlushedAsTheyCome) {
  // `head` ends the pipe after the first bytes, long before the reply's 96
  // pieces of 50 ms are through.
  const auto begin = std::chrono::steady_clock::now();
  const ProcessResult result = runProcess(
      {"/bin/sh", "-c", "echo slow | '" + kZem + "' plugin chat -m fake.zem | head -c 5"}, "",
      cliEnvironment());
  EXPECT_EQ(result.out, "tick ");
  EXPECT_EQ(result.err, "");
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4));
}

TEST(Chat, AFullDiskEndsTheReply) {
  const ProcessResult result = runProcess(
      {"/bin/sh", "-c", "echo slow | '" + kZem + "' plugin chat -m fake.zem > /dev/full"}, "",
      cliEnvironment());
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "zem: cannot write to standard output: No space left on device\n");
}

}  // namespace
}  // namespace zemtest
