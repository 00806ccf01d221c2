// SPDX-License-Identifier: Apache-2.0
#include "kiv/text/tokenizer_pieces.h"

#include <gmock/gmock.h>

#include <random>
#include <string>
#include <vector>

namespace zemtest {

using namespace kiv;

namespace {

using ::testing::ElementsAre;
using namespace std::string_literals;

// Every piece is copied into memory of its own size, where a sanitizer sees a read
// beyond the text.
std::vector<std::string> pieces(const std::string& text) {
  std::vector<std::string> result;
  std::vector<char> rest(text.begin(), text.end());
  while (!rest.empty()) {
    rest.shrink_to_fit();
    const std::string_view piece = nextPiece({rest.data(), rest.size()});
    if (piece.empty() || piece.data() != rest.data()) {
      ADD_FAILURE() << "no progress in \"" << text << '"';
      return result;
    }
    result.emplace_back(piece);
    rest.erase(rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(piece.size()));
  }
  return result;
}

TEST(Utf8LengthTest, TheLeadByteDecides) {
  EXPECT_EQ(utf8Length("a"), 1U);
  EXPECT_EQ(utf8Length("ab"), 1U);
  EXPECT_EQ(utf8Length("éx"), 2U);
  EXPECT_EQ(utf8Length("€x"), 3U);
  EXPECT_EQ(utf8Length("\xF0\x9F\x98\x80x"), 4U);
}

TEST(Utf8LengthTest, BytesThatLeadNothingAreOneLong) {
  EXPECT_EQ(utf8Length("\x80xxxx"), 1U);
  EXPECT_EQ(utf8Length("\xBFxxxx"), 1U);
  EXPECT_EQ(utf8Length("\xF8xxxx"), 1U);
  EXPECT_EQ(utf8Length("\xFFxxxx"), 1U);
}

TEST(Utf8LengthTest, ContinuationBytesAreNotLookedAt) {
  EXPECT_EQ(utf8Length("\xE2"
                       "abc"),
            3U);
}

TEST(Utf8LengthTest, ACutOffCharacterEndsWithTheText) {
  EXPECT_EQ(utf8Length("\xC3"), 1U);
  EXPECT_EQ(utf8Length("\xE2\x82"), 2U);
  EXPECT_EQ(utf8Length("\xF0\x9F\x98"), 3U);
}

TEST(NextPieceTest, LettersFormOneRun) {
  EXPECT_THAT(pieces("Hello"), ElementsAre("Hello"));
  EXPECT_THAT(pieces("AZaz@"), ElementsAre("AZaz", "@"));
  EXPECT_THAT(pieces("[`{"), ElementsAre("[`{"));  // the neighbours of A-Z and a-z
}

TEST(NextPieceTest, EverythingBeyondAsciiIsALetter) {
  EXPECT_THAT(pieces("cafés€\xF0\x9F\x98\x80!"), ElementsAre("cafés€\xF0\x9F\x98\x80", "!"));
  EXPECT_THAT(pieces("a\x80\xFF"), ElementsAre("a\x80\xFF"));
}

TEST(NextPieceTest, MarkersJoinWordsIntoOnePiece) {
  EXPECT_THAT(pieces("a▁b▁▁c"), ElementsAre("a▁b▁▁c"));
}

TEST(NextPieceTest, ALeadByteTakesItsLengthWhateverFollows) {
  EXPECT_THAT(pieces("\xE2 1!"), ElementsAre("\xE2 1", "!"));
  EXPECT_THAT(pieces("\xC3 b"), ElementsAre("\xC3 b"));
}

TEST(NextPieceTest, ACutOffCharacterEndsThePiece) {
  EXPECT_THAT(pieces("a\xE2\x82"), ElementsAre("a\xE2\x82"));
  EXPECT_THAT(pieces(" \xF0"), ElementsAre(" \xF0"));
  EXPECT_THAT(pieces("\xE2\x80"), ElementsAre("\xE2\x80"));
}

TEST(NextPieceTest, DigitsComeInThrees) {
  EXPECT_THAT(pieces("1"), ElementsAre("1"));
  EXPECT_THAT(pieces("123"), ElementsAre("123"));
  EXPECT_THAT(pieces("12345"), ElementsAre("123", "45"));
  EXPECT_THAT(pieces("0123456789"), ElementsAre("012", "345", "678", "9"));
  EXPECT_THAT(pieces("12a345"), ElementsAre("12", "a", "345"));
}

TEST(NextPieceTest, ADigitIsNeverJoinedToTheSpaceBeforeIt) {
  EXPECT_THAT(pieces(" 12"), ElementsAre(" ", "12"));
}

TEST(NextPieceTest, ContractionsAreCutOff) {
  EXPECT_THAT(pieces("it's"), ElementsAre("it", "'s"));
  EXPECT_THAT(pieces("don't"), ElementsAre("don", "'t"));
  EXPECT_THAT(pieces("we're"), ElementsAre("we", "'re"));
  EXPECT_THAT(pieces("we've"), ElementsAre("we", "'ve"));
  EXPECT_THAT(pieces("I'm"), ElementsAre("I", "'m"));
  EXPECT_THAT(pieces("I'll"), ElementsAre("I", "'ll"));
  EXPECT_THAT(pieces("I'd"), ElementsAre("I", "'d"));
}

TEST(NextPieceTest, ContractionsFoldAsciiCase) {
  EXPECT_THAT(pieces("DON'T"), ElementsAre("DON", "'T"));
  EXPECT_THAT(pieces("'rE'Ve'lL"), ElementsAre("'rE", "'Ve", "'lL"));
  // Folding by a bit instead of by letter would take these for "t" and "m".
  EXPECT_THAT(pieces("'\x14"), ElementsAre("'\x14"));
  EXPECT_THAT(pieces("'\x0D"), ElementsAre("'", "\x0D"));
}

TEST(NextPieceTest, AContractionEndsAfterItsSuffix) {
  EXPECT_THAT(pieces("'sun"), ElementsAre("'s", "un"));
  EXPECT_THAT(pieces("'Tis"), ElementsAre("'T", "is"));
  EXPECT_THAT(pieces("'red"), ElementsAre("'re", "d"));
  EXPECT_THAT(pieces("'s's"), ElementsAre("'s", "'s"));
}

TEST(NextPieceTest, ASuffixThatDoesNotFitIsNone) {
  EXPECT_THAT(pieces("'r"), ElementsAre("'r"));
  EXPECT_THAT(pieces("'v"), ElementsAre("'v"));
  EXPECT_THAT(pieces("'l"), ElementsAre("'l"));
  EXPECT_THAT(pieces("'"), ElementsAre("'"));
  EXPECT_THAT(pieces("\xE2\x80\x99"), ElementsAre("\xE2\x80\x99"));
}

TEST(NextPieceTest, AnApostropheWithoutASuffixIsPunctuation) {
  EXPECT_THAT(pieces("'word"), ElementsAre("'word"));
  EXPECT_THAT(pieces("'1"), ElementsAre("'", "1"));
  EXPECT_THAT(pieces("'\"x"), ElementsAre("'\"", "x"));
}

TEST(NextPieceTest, ARightQuoteContractsAtTheStartOfAPiece) {
  EXPECT_THAT(pieces("\xE2\x80\x99sun"), ElementsAre("\xE2\x80\x99s", "un"));
  EXPECT_THAT(pieces("1\xE2\x80\x99LL2"), ElementsAre("1", "\xE2\x80\x99LL", "2"));
}

TEST(NextPieceTest, ARightQuoteInsideAWordIsALetter) {
  EXPECT_THAT(pieces("don\xE2\x80\x99t"), ElementsAre("don\xE2\x80\x99t"));
  EXPECT_THAT(pieces(" \xE2\x80\x99s"), ElementsAre(" \xE2\x80\x99s"));
  EXPECT_THAT(pieces("\xE2\x80\x99x"), ElementsAre("\xE2\x80\x99x"));
}

TEST(NextPieceTest, APunctuationRunSwallowsAnApostrophe) {
  EXPECT_THAT(pieces("!'s"), ElementsAre("!'", "s"));
}

TEST(NextPieceTest, ALineBreakTakesTheWhitespaceAfterIt) {
  EXPECT_THAT(pieces("\r\n \t\v\f\rx"), ElementsAre("\r\n \t\v\f\r", "x"));
  EXPECT_THAT(pieces("\nx"), ElementsAre("\n", "x"));
  EXPECT_THAT(pieces("\r x"), ElementsAre("\r ", "x"));
  EXPECT_THAT(pieces("\r!"), ElementsAre("\r", "!"));
}

TEST(NextPieceTest, OneByteBeforeAWordBelongsToIt) {
  EXPECT_THAT(pieces(" word"), ElementsAre(" word"));
  EXPECT_THAT(pieces("(word"), ElementsAre("(word"));
  EXPECT_THAT(pieces("\tword"), ElementsAre("\tword"));
  EXPECT_THAT(pieces("\vword"), ElementsAre("\vword"));
  EXPECT_THAT(pieces("\x01word"), ElementsAre("\x01word"));
  EXPECT_THAT(pieces(" é"), ElementsAre(" é"));
  EXPECT_THAT(pieces("((word"), ElementsAre("((", "word"));
}

TEST(NextPieceTest, ASpaceBelongsToThePunctuationAfterIt) {
  EXPECT_THAT(pieces(" !?"), ElementsAre(" !?"));
  EXPECT_THAT(pieces(" (word"), ElementsAre(" (", "word"));
  EXPECT_THAT(pieces(" 's"), ElementsAre(" '", "s"));
  EXPECT_THAT(pieces("\t!?"), ElementsAre("\t", "!?"));
  EXPECT_THAT(pieces("\f!"), ElementsAre("\f", "!"));
}

TEST(NextPieceTest, PunctuationFormsOneRun) {
  EXPECT_THAT(pieces("...---"), ElementsAre("...---"));
  EXPECT_THAT(pieces("a+=1;"), ElementsAre("a", "+=", "1", ";"));
  EXPECT_THAT(pieces("!! ??"), ElementsAre("!!", " ??"));
}

TEST(NextPieceTest, ControlCharactersArePunctuation) {
  EXPECT_THAT(pieces("\x01\x08\x0E\x1F\x7F!"), ElementsAre("\x01\x08\x0E\x1F\x7F!"));
  EXPECT_THAT(pieces("\0\0"s), ElementsAre("\0\0"s));
  EXPECT_THAT(pieces(" \0a"s), ElementsAre(" \0"s, "a"));
}

TEST(NextPieceTest, AWhitespaceRunIsNeverShortened) {
  EXPECT_THAT(pieces("a  b"), ElementsAre("a", "  ", "b"));
  EXPECT_THAT(pieces("a b"), ElementsAre("a", " b"));
  EXPECT_THAT(pieces("a \t \r\n b"), ElementsAre("a", " \t \r\n ", "b"));
  EXPECT_THAT(pieces("  !"), ElementsAre("  ", "!"));
  EXPECT_THAT(pieces("a "), ElementsAre("a", " "));
  EXPECT_THAT(pieces("\t\v\f "), ElementsAre("\t\v\f "));
}

TEST(NextPieceTest, PiecesOfAnyBytesJoinToTheText) {
  std::mt19937 random(11);
  for (int round = 0; round < 2000; ++round) {
    std::string text(random() % 40, '\0');
    for (char& c : text) c = static_cast<char>(random() % 256);
    std::string joined;
    for (const std::string& piece : pieces(text)) joined += piece;
    ASSERT_EQ(joined, text);
  }
}

}  // namespace
}  // namespace zemtest
