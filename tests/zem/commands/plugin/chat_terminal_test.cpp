// SPDX-License-Identifier: Apache-2.0
// The conversation as a person at a terminal has it.
#include <gmock/gmock.h>

#include "zem/commands/cli_support.h"

namespace zemtest {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

constexpr std::string_view kCtrlC = "\x03";
constexpr std::string_view kCtrlD = "\x04";
constexpr std::string_view kUp = "\x1b[A";

class ChatOnTerminal : public ::testing::Test {
 protected:
  ChatOnTerminal() : chat_(command({"plugin", "chat", "-m", "fake.zem"}), environment()) {}
  void SetUp() override {
    ZEM_NEEDS_PLAIN_TERMINAL();
    EXPECT_TRUE(chat_.shows("> "));
  }
  Environment environment() const {
    return cliEnvironment({{"XDG_STATE_HOME", folder_.path("state")}});
  }
  void say(const std::string& line) { chat_.type(line + "\n"); }

  TempFolder folder_;
  TerminalProcess chat_;
};

TEST_F(ChatOnTerminal, AnswersAndPromptsAgain) {
  say("hello");
  EXPECT_TRUE(chat_.shows("you said: hello\r\n"));
  EXPECT_TRUE(chat_.shows("> "));
}

TEST_F(ChatOnTerminal, EndsWithCtrlD) {
  chat_.type(kCtrlD);
  EXPECT_EQ(chat_.wait(), 0);
  EXPECT_TRUE(chat_.isAsFound());
}

TEST_F(ChatOnTerminal, EndsWithQuit) {
  say("/quit");
  EXPECT_EQ(chat_.wait(), 0);
  EXPECT_TRUE(chat_.isAsFound());
}

TEST_F(ChatOnTerminal, CtrlCStopsTheReplyAndNotTheProgram) {
  say("slow");
  EXPECT_TRUE(chat_.shows("tick tick"));
  chat_.type(kCtrlC);
  EXPECT_TRUE(chat_.shows("(stopped)"));
  EXPECT_TRUE(chat_.shows("> "));
  say("turn");
  EXPECT_TRUE(chat_.shows("turn 2"));
}

TEST_F(ChatOnTerminal, CtrlCAtThePromptDropsTheLine) {
  chat_.type("not to be sent");
  EXPECT_TRUE(chat_.shows("not to be sent"));
  chat_.type(kCtrlC);
  EXPECT_TRUE(chat_.shows("^C"));
  EXPECT_TRUE(chat_.shows("> "));
  say("turn");
  EXPECT_TRUE(chat_.shows("turn 1"));
  EXPECT_THAT(chat_.shown(), Not(HasSubstr("you said")));
}

TEST_F(ChatOnTerminal, SecondCtrlCAtThePromptQuits) {
  chat_.type(kCtrlC);
  EXPECT_TRUE(chat_.shows("to quit"));
  EXPECT_TRUE(chat_.shows("> "));
  chat_.type(kCtrlC);
  EXPECT_EQ(chat_.wait(), 0);
  EXPECT_TRUE(chat_.isAsFound());
}

TEST_F(ChatOnTerminal, ALineBetweenTwoCtrlCKeepsTheProgram) {
  chat_.type(kCtrlC);
  EXPECT_TRUE(chat_.shows("to quit"));
  EXPECT_TRUE(chat_.shows("> "));
  say("turn");
  EXPECT_TRUE(chat_.shows("turn 1"));
  EXPECT_TRUE(chat_.shows("> "));
  chat_.type(kCtrlC);
  EXPECT_TRUE(chat_.shows("to quit"));
  EXPECT_TRUE(chat_.shows("> "));
  say("turn");
  EXPECT_TRUE(chat_.shows("turn 2"));
}

TEST_F(ChatOnTerminal, ASignalFromOutsideCountsAsCtrlC) {
  chat_.send(SIGINT);
  EXPECT_TRUE(chat_.shows("to quit"));
  EXPECT_TRUE(chat_.shows("> "));
  say("turn");
  EXPECT_TRUE(chat_.shows("turn 1"));
}

TEST_F(ChatOnTerminal, TerminationAtThePromptRestoresTheTerminal) {
  EXPECT_FALSE(chat_.isAsFound());  // a line is being edited
  chat_.send(SIGTERM);
  EXPECT_EQ(chat_.wait(), 128 + SIGTERM);
  EXPECT_TRUE(chat_.isAsFound());
}

TEST_F(ChatOnTerminal, ControlCharactersOfTheModelAreSpelledOut) {
  say("control");
  EXPECT_TRUE(chat_.shows("\\x1b[31mred\\x07\\r\tend\r\n"));
}

TEST_F(ChatOnTerminal, SplitCharactersAreShownWhole) {
  say("split");
  EXPECT_TRUE(
      chat_.shows("\xE2\x82\xAC"
                  "5 \xF0\x9F\x99\x82\r\n"));
}

TEST_F(ChatOnTerminal, CharactersBeyondAsciiCanBeTyped) {
  say("gr\xC3\xBC\xC3\x9F dich \xF0\x9F\x99\x82");
  EXPECT_TRUE(chat_.shows("you said: gr\xC3\xBC\xC3\x9F dich \xF0\x9F\x99\x82\r\n"));
}

TEST_F(ChatOnTerminal, LinesAreEdited) {
  chat_.type("tuXrn\x1b[D\x1b[D\x7f\n");  // two to the left, delete
  EXPECT_TRUE(chat_.shows("turn 1"));
}

TEST_F(ChatOnTerminal, TheBudgetsEndIsOneDimLine) {
  say("budget");
  EXPECT_TRUE(
      chat_.shows("x\r\n\x1b[2m(the reply ended at the runtime's limit of 96 tokens)\x1b[0m"));
}

TEST_F(ChatOnTerminal, AFailedTurnIsNotTheEnd) {
  say("fail");
  EXPECT_TRUE(chat_.shows("part\r\nzem: the reply failed"));
  EXPECT_TRUE(chat_.shows("> "));
  say("turn");
  EXPECT_TRUE(chat_.shows("turn 2"));
}

TEST_F(ChatOnTerminal, HistoryOutlivesTheProgram) {
  ZEM_NEEDS_PLAIN_TERMINAL();
  say("first line");
  EXPECT_TRUE(chat_.shows("you said: first line"));
  EXPECT_TRUE(chat_.shows("> "));
  chat_.type(kCtrlD);
  EXPECT_EQ(chat_.wait(), 0);
  EXPECT_THAT(folder_.read("state/zem/history"), HasSubstr("first"));

  TerminalProcess again(command({"plugin", "chat", "-m", "fake.zem"}), environment());
  EXPECT_TRUE(again.shows("> "));
  again.type(std::string(kUp) + "\n");
  EXPECT_TRUE(again.shows("you said: first line"));
}

TEST(ChatHistory, AFolderThatCannotBeMadeIsAWarning) {
  ZEM_NEEDS_PLAIN_TERMINAL();
  TerminalProcess chat(command({"plugin", "chat", "-m", "fake.zem"}),
                       cliEnvironment({{"XDG_STATE_HOME", "/dev/null/state"}}));
  EXPECT_TRUE(chat.shows("> "));
  chat.type(kCtrlD);
  EXPECT_EQ(chat.wait(), 0);
  EXPECT_THAT(chat.shown(), HasSubstr("warning: cannot save the history"));
}

TEST(ChatHistory, WithoutAFolderThereIsNone) {
  ZEM_NEEDS_PLAIN_TERMINAL();
  TerminalProcess chat(command({"plugin", "chat", "-m", "fake.zem"}),
                       cliEnvironment({{"HOME", ""}}));
  EXPECT_TRUE(chat.shows("> "));
  chat.type(kCtrlD);
  EXPECT_EQ(chat.wait(), 0);
  EXPECT_THAT(chat.shown(), Not(HasSubstr("warning")));
}

TEST(ChatOnDumbTerminal, StillWorks) {
  ZEM_NEEDS_PLAIN_TERMINAL();
  TerminalProcess chat(command({"plugin", "chat", "-m", "fake.zem"}),
                       cliEnvironment({{"TERM", "dumb"}}));
  EXPECT_TRUE(chat.shows("> "));
  chat.type("turn\n");
  EXPECT_TRUE(chat.shows("turn 1"));
  EXPECT_TRUE(chat.shows("> "));
  chat.type(kCtrlD);
  EXPECT_EQ(chat.wait(), 0);
  EXPECT_THAT(chat.shown(), Not(HasSubstr("\x1b")));
}

}  // namespace
}  // namespace zemtest
