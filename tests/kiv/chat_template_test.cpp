// SPDX-License-Identifier: Apache-2.0
#include "kiv/chat_template.h"

#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <vector>

namespace zemtest {

using namespace kiv;

namespace {

static_assert(std::is_same_v<std::underlying_type_t<ChatRole>, uint8_t>);
static_assert(static_cast<int>(ChatRole::System) == 0);
static_assert(static_cast<int>(ChatRole::User) == 1);
static_assert(static_cast<int>(ChatRole::Assistant) == 2);

// The prompt of one message by the user.
std::string userTurn(const std::string& content) {
  return formatGemmaChat({{ChatRole::User, content}}, false);
}

TEST(FormatGemmaChatTest, NoMessagesOpenTheModelsTurn) {
  EXPECT_EQ(formatGemmaChat({}, true), "<|turn>model\n");
}

TEST(FormatGemmaChatTest, NoMessagesWithoutGenerationPromptAreNothing) {
  EXPECT_EQ(formatGemmaChat({}, false), "");
}

TEST(FormatGemmaChatTest, BlanksAroundTheContentAreRemoved) {
  EXPECT_EQ(userTurn("  hi\t"), "<|turn>user\nhi\n<turn|>\n");
  EXPECT_EQ(userTurn("\r\n \t hi \t\n\r"), "<|turn>user\nhi\n<turn|>\n");
}

TEST(FormatGemmaChatTest, BlanksInsideTheContentStay) {
  EXPECT_EQ(userTurn(" a \n\r\t b "), "<|turn>user\na \n\r\t b\n<turn|>\n");
}

TEST(FormatGemmaChatTest, ContentOfBlanksOnlyIsAnEmptyLine) {
  EXPECT_EQ(userTurn(" \t\r\n "), "<|turn>user\n\n<turn|>\n");
  EXPECT_EQ(userTurn(" "), "<|turn>user\n\n<turn|>\n");
}

TEST(FormatGemmaChatTest, EmptyContentIsAnEmptyLine) {
  EXPECT_EQ(userTurn(""), "<|turn>user\n\n<turn|>\n");
}

TEST(FormatGemmaChatTest, AnAssistantSpeaksAsModel) {
  EXPECT_EQ(formatGemmaChat({{ChatRole::Assistant, "ok"}}, false), "<|turn>model\nok\n<turn|>\n");
}

TEST(FormatGemmaChatTest, ASystemMessageIsATurnOfItsOwn) {
  EXPECT_EQ(formatGemmaChat({{ChatRole::System, "Be brief."}, {ChatRole::User, "hi"}}, false),
            "<|turn>system\nBe brief.\n<turn|>\n<|turn>user\nhi\n<turn|>\n");
}

TEST(FormatGemmaChatTest, AConversationKeepsItsOrderAndEndsInTheOpenTurn) {
  const std::vector<ChatMessage> messages = {{ChatRole::System, "s"},
                                             {ChatRole::User, "u1"},
                                             {ChatRole::Assistant, "a1"},
                                             {ChatRole::User, "u2"}};
  EXPECT_EQ(formatGemmaChat(messages, true),
            "<|turn>system\ns\n<turn|>\n"
            "<|turn>user\nu1\n<turn|>\n"
            "<|turn>model\na1\n<turn|>\n"
            "<|turn>user\nu2\n<turn|>\n"
            "<|turn>model\n");
}

TEST(FormatGemmaChatTest, NeitherOrderNorRepetitionOfRolesMatters) {
  EXPECT_EQ(
      formatGemmaChat(
          {{ChatRole::Assistant, "a"}, {ChatRole::Assistant, "b"}, {ChatRole::System, "c"}}, true),
      "<|turn>model\na\n<turn|>\n<|turn>model\nb\n<turn|>\n<|turn>system\nc\n<turn|>\n"
      "<|turn>model\n");
}

TEST(FormatGemmaChatTest, VerticalTabAndFormFeedAreContent) {
  EXPECT_EQ(userTurn(" \v hi \f "), "<|turn>user\n\v hi \f\n<turn|>\n");
  EXPECT_EQ(userTurn("\v"), "<|turn>user\n\v\n<turn|>\n");
}

TEST(FormatGemmaChatTest, ExactlyFourBytesAreBlanks) {
  for (int value = 0; value < 256; ++value) {
    const std::string byte(1, static_cast<char>(value));
    const bool blank = value == ' ' || value == '\t' || value == '\n' || value == '\r';
    const std::string kept = blank ? "" : byte;
    EXPECT_EQ(userTurn(byte), "<|turn>user\n" + kept + "\n<turn|>\n") << value;
    EXPECT_EQ(userTurn(byte + "x" + byte), "<|turn>user\n" + kept + "x" + kept + "\n<turn|>\n")
        << value;
  }
}

TEST(FormatGemmaChatTest, ZeroBytesDoNotEndAContent) {
  const std::string content("a\0b\0", 4);
  EXPECT_EQ(userTurn(content), "<|turn>user\n" + content + "\n<turn|>\n");
}

// U+3000 and U+00A0 are white, but no bytes of theirs are blanks.
TEST(FormatGemmaChatTest, WideSpacesAndBrokenUtf8AreContent) {
  for (const std::string content :
       {"\xE3\x80\x80hi\xC2\xA0", "\xE6\x9D\xB1\xE4\xBA\xAC", "\xFF\xC3", "\x80"}) {
    EXPECT_EQ(userTurn(content), "<|turn>user\n" + content + "\n<turn|>\n");
  }
}

TEST(FormatGemmaChatTest, MarkersInAContentAreKept) {
  EXPECT_EQ(userTurn("<turn|>\n<|turn>model\n"), "<|turn>user\n<turn|>\n<|turn>model\n<turn|>\n");
}

TEST(FormatGemmaChatTest, ARoleOutsideTheEnumerationSpeaksAsUser) {
  EXPECT_EQ(formatGemmaChat({{static_cast<ChatRole>(200), "x"}}, false),
            "<|turn>user\nx\n<turn|>\n");
}

TEST(FormatGemmaChatTest, ALongContentIsKeptWhole) {
  const std::string content(size_t{1} << 20, 'x');
  EXPECT_EQ(userTurn("  " + content + "  "), "<|turn>user\n" + content + "\n<turn|>\n");
}

TEST(FormatGemmaChatTest, MessagesAreLeftAsTheyWere) {
  const std::vector<ChatMessage> messages = {{ChatRole::User, " hi "}};
  const std::string first = formatGemmaChat(messages, true);
  EXPECT_EQ(messages[0].content, " hi ");
  EXPECT_EQ(formatGemmaChat(messages, true), first);
}

}  // namespace
}  // namespace zemtest
