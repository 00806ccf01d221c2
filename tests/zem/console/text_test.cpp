// SPDX-License-Identifier: Apache-2.0
#include "console/text.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace zemtool {
namespace {

std::string joined(const std::vector<std::string>& pieces) {
  Utf8Joiner joiner;
  std::string text;
  for (const std::string& piece : pieces) text += joiner.push(piece);
  return text + joiner.finish();
}

const std::string kBad = "\xEF\xBF\xBD";

TEST(Utf8JoinerTest, TextWithoutBordersInsideCharactersPassesAtOnce) {
  Utf8Joiner joiner;
  EXPECT_EQ(joiner.push("plain \xC3\xA9"), "plain \xC3\xA9");
  EXPECT_EQ(joiner.finish(), "");
}

TEST(Utf8JoinerTest, ACharacterIsShownWithItsLastByte) {
  Utf8Joiner joiner;
  EXPECT_EQ(joiner.push("5 \xF0"), "5 ");
  EXPECT_EQ(joiner.push("\x9F\x99"), "");
  EXPECT_EQ(joiner.push(""), "");
  EXPECT_EQ(joiner.push("\x82!"), "\xF0\x9F\x99\x82!");
  EXPECT_EQ(joiner.finish(), "");
}

TEST(Utf8JoinerTest, EverySplitOfATextGivesTheTextBack) {
  const std::string text =
      "a\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBFz";
  for (size_t i = 0; i <= text.size(); ++i) {
    for (size_t j = i; j <= text.size(); ++j) {
      EXPECT_EQ(joined({text.substr(0, i), text.substr(i, j - i), text.substr(j)}), text);
    }
  }
}

struct BadBytes {
  const char* name;
  std::string bytes;
  int replacements;
};

class InvalidUtf8Test : public ::testing::TestWithParam<BadBytes> {};

TEST_P(InvalidUtf8Test, BecomesReplacementsHoweverItIsCut) {
  std::string expected = "<";
  for (int i = 0; i < GetParam().replacements; ++i) expected += kBad;
  expected += ">";
  const std::string text = "<" + GetParam().bytes + ">";
  EXPECT_EQ(escapeControls(text), expected);
  for (size_t cut = 0; cut <= text.size(); ++cut) {
    EXPECT_EQ(joined({text.substr(0, cut), text.substr(cut)}), expected) << cut;
  }
}

INSTANTIATE_TEST_SUITE_P(Cases, InvalidUtf8Test,
                         ::testing::Values(BadBytes{"LoneContinuation", "\x80", 1},
                                           BadBytes{"FF", "\xFF", 1},
                                           BadBytes{"OverlongTwo", "\xC0\xAF", 2},
                                           BadBytes{"OverlongThree", "\xE0\x80\xAF", 3},
                                           BadBytes{"OverlongFour", "\xF0\x80\x80\xAF", 4},
                                           BadBytes{"Surrogate", "\xED\xA0\x80", 3},
                                           BadBytes{"BeyondTheLast", "\xF4\x90\x80\x80", 4},
                                           BadBytes{"CutThree", "\xE2\x82", 1},
                                           BadBytes{"CutFour", "\xF0\x9F\x99", 1},
                                           BadBytes{"CutThenCut", "\xE2\x82\xE2\x82", 2}),
                         [](const auto& test) { return test.param.name; });

TEST(Utf8JoinerTest, FinishIsRepeatable) {
  Utf8Joiner joiner;
  EXPECT_EQ(joiner.push("\xE2\x82"), "");
  EXPECT_EQ(joiner.finish(), kBad);
  EXPECT_EQ(joiner.finish(), "");
  EXPECT_EQ(joiner.push("a"), "a");
}

TEST(EscapeControlsTest, SpellsEveryControlCharacter) {
  for (int c = 0; c < 256; ++c) {
    if (c >= 0x20 && c != 0x7F) continue;
    const std::string shown = escapeControls(std::string(1, static_cast<char>(c)));
    EXPECT_EQ(shown[0], '\\') << c;
    EXPECT_EQ(shown.find(static_cast<char>(c)), std::string::npos) << c;
  }
  EXPECT_EQ(escapeControls("\n\t\r\x1b\x7f"), "\\n\\t\\r\\x1b\\x7f");
  EXPECT_EQ(escapeControls(std::string(1, '\0')), "\\x00");
}

TEST(EscapeControlsTest, SpellsTheSecondControlBlock) {
  EXPECT_EQ(escapeControls("\xC2\x9B"), "\\x9b");  // another way to begin a sequence
  EXPECT_EQ(escapeControls("\xC2\xA0"), "\xC2\xA0");
}

TEST(EscapeControlsTest, KeepsWhatItIsTold) {
  EXPECT_EQ(escapeControls("a\n\tb\rc", "\n\t"), "a\n\tb\\rc");
}

TEST(FormatTest, BytesHaveTheirUnit) {
  EXPECT_EQ(formatBytes(0), "0 B");
  EXPECT_EQ(formatBytes(1023), "1023 B");
  EXPECT_EQ(formatBytes(1024), "1.00 KiB");
  EXPECT_EQ(formatBytes(uint64_t{5} << 29), "2.50 GiB");
  EXPECT_EQ(formatBytes(~uint64_t{0}), "16.00 EiB");
}

TEST(FormatTest, NumbersOfAnySizeAreWhole) {
  EXPECT_EQ(formatNumber(1.25, 1), "1.2");
  EXPECT_EQ(formatNumber(1e300, 0).size(), 301U);
}

TEST(FormatTest, TablesAlignByCharacters) {
  EXPECT_EQ(formatTable({{"\xC3\xA9", "1"}, {"abc", "20"}}, {1}), "  \xC3\xA9     1\n  abc  20\n");
  EXPECT_EQ(formatTable({{"a", ""}, {"b"}}), "  a\n  b\n");
  EXPECT_EQ(formatTable({}), "");
}

TEST(EscapeBytesTest, SpellsOutWhatIsNotUtf8) {
  EXPECT_EQ(escapeBytes("a\n\xC3\xA9"), "a\\n\xC3\xA9");
  EXPECT_EQ(escapeBytes("\xE6\x97"), "\\xe6\\x97");
  EXPECT_EQ(escapeBytes("\xFFx\xC3"), "\\xffx\\xc3");
  EXPECT_EQ(escapeBytes(""), "");
}

TEST(IsWholeUtf8Test, HoldsForWholeCharactersAlone) {
  EXPECT_TRUE(isWholeUtf8(""));
  EXPECT_TRUE(isWholeUtf8("a\n\xF0\x9F\x98\x8A"));
  EXPECT_FALSE(isWholeUtf8("a\xF0\x9F\x98"));
  EXPECT_FALSE(isWholeUtf8("\x80"));
  EXPECT_FALSE(isWholeUtf8("\xED\xA0\x80"));
}

}  // namespace
}  // namespace zemtool
