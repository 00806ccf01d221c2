// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <csignal>

#include "zem/commands/talk_support.h"

namespace zemtest {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

class ChatTest : public TalkTest {
 protected:
  static ProcessResult chat(const std::string& input, const Arguments& more = {}) {
    return zem(talk("chat", with({"-n", "8", "-s", "3", "--think", "off"}, more)), input);
  }
  // The messages behind `input`, as /save writes them.
  nlohmann::json messagesOf(const std::string& input, const Arguments& more = {}) const {
    const std::string file = folder_.path("saved.json");
    const ProcessResult result = chat(input + "\n/save " + file + "\n", more);
    EXPECT_EQ(result.status, 0) << result.err;
    return nlohmann::json::parse(folder_.read("saved.json"))["messages"];
  }
};

TEST_F(ChatTest, EveryTurnIsAnsweredOnStandardOutput) {
  const auto messages = messagesOf("Hi\nAnd you?");
  ASSERT_EQ(messages.size(), 4U);
  EXPECT_EQ(messages[0], (nlohmann::json{{"role", "user"}, {"content", "Hi"}}));
  EXPECT_EQ(messages[1]["role"], "assistant");
  EXPECT_EQ(messages[2]["content"], "And you?");
  const std::string both = messages[1]["content"].get<std::string>() + "\n" +
                           messages[3]["content"].get<std::string>() + "\n";
  EXPECT_EQ(chat("Hi\nAnd you?\n").out, both);
}

TEST_F(ChatTest, NoInputIsNoReply) {
  const ProcessResult result = chat("\n \t\n");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out + result.err, "");
}

TEST_F(ChatTest, LaterTurnsReuseWhatIsKnown) {
  const std::string err = chat("A question that is longer than a few tokens\nMore\n/stats\n").err;
  EXPECT_THAT(err, HasSubstr("last reply\nprompt: "));
  EXPECT_THAT(err, Not(HasSubstr("last reply\nprompt: 0")));
  const size_t last = err.find("last reply");
  EXPECT_EQ(err.substr(last).find(", 0 reused"), std::string::npos) << err;
}

TEST_F(ChatTest, UndoTakesTheTurnBack) {
  const ProcessResult result = chat("Hi\n/undo\nHi\n");
  EXPECT_EQ(result.out.substr(0, result.out.size() / 2), result.out.substr(result.out.size() / 2));
  EXPECT_THAT(result.err, HasSubstr("(taken back: Hi)"));
  EXPECT_EQ(messagesOf("Hi\n/undo").size(), 0U);
}

TEST_F(ChatTest, ClearKeepsTheSystemPrompt) {
  const auto messages = messagesOf("Hi\n/clear\nHello", {"-sys", "Be brief."});
  ASSERT_EQ(messages.size(), 3U);
  EXPECT_EQ(messages[0], (nlohmann::json{{"role", "system"}, {"content", "Be brief."}}));
  EXPECT_EQ(messages[1]["content"], "Hello");
}

TEST_F(ChatTest, RegenGivesAnotherReplyToTheSameMessage) {
  const auto first = messagesOf("Hi");
  const auto second = messagesOf("Hi\n/regen");
  ASSERT_EQ(second.size(), 2U);
  EXPECT_EQ(second[0], first[0]);
  EXPECT_NE(second[1], first[1]);
}

TEST_F(ChatTest, EditPutsAnotherMessageInPlace) {
  const auto messages = messagesOf("Hi\nwhat\n/edit why not");
  ASSERT_EQ(messages.size(), 4U);
  EXPECT_EQ(messages[2]["content"], "why not");
  EXPECT_EQ(messages, messagesOf("Hi\nwhy not"));
}

TEST_F(ChatTest, SystemTakesEffectAtOnce) {
  EXPECT_EQ(messagesOf("Hi\n/system Be brief.")[0]["content"], "Be brief.");
  EXPECT_EQ(chat("/system\n/system one\n/system\n").err, "(no system prompt)\none\n");
}

TEST_F(ChatTest, SavedConversationGoesOn) {
  const auto whole = messagesOf("Hi\nAnd?");
  const std::string file = folder_.path("kept.json");
  EXPECT_EQ(chat("Hi\n/save " + file + "\n").status, 0);
  EXPECT_EQ(messagesOf("/load " + file + "\nAnd?"), whole);
}

TEST_F(ChatTest, FileThatIsNoConversationChangesNothing) {
  const std::string file = folder_.write("odd.json", std::string_view(R"({"messages": [{}]})"));
  const ProcessResult result = chat("/load " + file + "\n");
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, AllOf(StartsWith("zem: "), HasSubstr(file), HasSubstr("messages[0]")));
  const ProcessResult missing = chat("/load " + folder_.path("none") + "\n");
  EXPECT_THAT(missing.err, HasSubstr("cannot open the conversation"));
  const ProcessResult full = chat("Hi\n/save /dev/full/x\n");
  EXPECT_EQ(full.status, 1);
  EXPECT_THAT(full.err, HasSubstr("cannot write /dev/full/x"));
}

TEST_F(ChatTest, LinesAreJoined) {
  EXPECT_EQ(messagesOf("one\\\ntwo\\\nthree")[0]["content"], "one\ntwo\nthree");
  EXPECT_EQ(messagesOf("\"\"\"\none\n\ntwo\n\"\"\"")[0]["content"], "one\n\ntwo");
  EXPECT_EQ(messagesOf("\"\"\"one\ntwo\"\"\"")[0]["content"], "one\ntwo");
  EXPECT_EQ(messagesOf("\"\"\"one\"\"\"")[0]["content"], "one");
}

TEST_F(ChatTest, ThinkingIsKeptAndShownOnRequest) {
  const ProcessResult result =
      zem(talk("chat", {"-n", "60", "-s", "3", "--think", "on", "--think-budget", "3"}),
          "Hi\n/think\n/think off\nHi\n/think\n");
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.err, AllOf(HasSubstr("long enough."), HasSubstr("(no thinking)")));
  EXPECT_THAT(result.out, Not(HasSubstr("long enough")));
}

TEST_F(ChatTest, CommandsThatCannotBeDoneSaySo) {
  EXPECT_THAT(chat("/cleer\n").err, HasSubstr("unknown command /cleer"));
  EXPECT_EQ(chat("/cleer\n").status, 0);
  for (const std::string line :
       {"/regen", "/undo", "/edit x", "/edit", "/tool x", "/save", "/load", "/think perhaps"}) {
    const ProcessResult result = chat(line + "\n");
    EXPECT_EQ(result.status, 1) << line;
    EXPECT_THAT(result.err, StartsWith("zem: ")) << line;
  }
  EXPECT_EQ(chat("/stats\n").err, "(no reply yet)\n");
}

TEST_F(ChatTest, HelpListsEveryCommand) {
  const std::string help = chat("/help\n").err;
  for (const char* name : {"/regen", "/undo", "/edit", "/clear", "/system", "/think", "/tool",
                           "/save", "/load", "/stats", "/help", "/quit"}) {
    EXPECT_THAT(help, HasSubstr(name));
  }
}

TEST_F(ChatTest, TurnBeyondTheContextIsTakenBack) {
  const ProcessResult result = chat("far too long for this\n", {"-c", "20"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(result.err, HasSubstr("room for 20"));
}

TEST_F(ChatTest, CtrlCStopsTheReplyAndTheConversationGoesOn) {
  ZEM_NEEDS_PLAIN_TERMINAL();
  // The first token again and again.
  const Arguments endless = {"--temp", "0", "--presence-penalty", "-100", "--think", "off"};
  const std::string reply = zem(talk("run", with(endless, {"-p", "Hi", "-n", "3"}))).out;
  TerminalProcess process(command(talk("chat", endless)), cliEnvironment());
  EXPECT_TRUE(process.shows("> "));
  process.type("Hi\n");
  EXPECT_TRUE(process.shows("Hi\r\n"));
  EXPECT_TRUE(process.shows(reply.substr(0, reply.size() - 1))) << reply;
  process.send(SIGINT);
  EXPECT_TRUE(process.shows("(stopped"));
  EXPECT_TRUE(process.shows("> "));
  process.type("/quit\n");
  EXPECT_EQ(process.wait(), 0);
  EXPECT_TRUE(process.isAsFound());
}

TEST_F(ChatTest, EditWithoutATextOffersTheLastMessage) {
  ZEM_NEEDS_PLAIN_TERMINAL();
  TerminalProcess process(command(talk("chat", {"-n", "8", "-s", "3", "--think", "off"})),
                          cliEnvironment({{"XDG_STATE_HOME", folder_.path("state")}}));
  EXPECT_TRUE(process.shows("> "));
  process.type("/edit\n");
  EXPECT_TRUE(process.shows("there is no message to edit"));
  EXPECT_TRUE(process.shows("> "));
  process.type("one\\\n");
  EXPECT_TRUE(process.shows(". "));
  process.type("two\n");
  EXPECT_TRUE(process.shows("\n> "));
  process.type("/edit\n");
  EXPECT_TRUE(process.shows("> /edit one\\"));
  process.type("\n");
  EXPECT_TRUE(process.shows(". two"));
  process.type("\x7f\x7fwin\n");
  EXPECT_TRUE(process.shows("\n> "));
  const std::string file = folder_.path("saved.json");
  process.type("/save " + file + "\n");
  EXPECT_TRUE(process.shows("(saved in "));
  process.type("/quit\n");
  EXPECT_EQ(process.wait(), 0);
  const auto messages = nlohmann::json::parse(folder_.read("saved.json"))["messages"];
  ASSERT_EQ(messages.size(), 2U);
  EXPECT_EQ(messages[0]["content"], "one\ntwin");
}

}  // namespace
}  // namespace zemtest
