// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include "cli_support.h"

namespace zemtest {
namespace {

using ::testing::HasSubstr;

class Tokenize : public ::testing::Test {
 protected:
  ProcessResult run(const Arguments& more, const std::string& input = {}) const {
    Arguments arguments = {"tokenize", "-m", model_};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return zem(arguments, input);
  }

  TempFolder folder_;
  std::string model_ = folder_.write("m.zem", smallContainer().build());
};

TEST_F(Tokenize, PrintsIdsAndPieces) {
  const ProcessResult result = run({"-p", "abb a"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "  0  <s>\n  3  ab\n  2  b\n  4  \xE2\x96\x81\n  1  a\n");
  EXPECT_EQ(result.err, "");
}

TEST_F(Tokenize, PrintsIdsOnOneLine) {
  EXPECT_EQ(run({"-p", "abb\na", "--ids"}).out, "0 3 2 5 1\n");
  EXPECT_EQ(run({"-p", "", "--ids"}).out, "0\n");
}

TEST_F(Tokenize, PrintsJson) {
  const auto json = nlohmann::json::parse(run({"-p", "ab", "--json"}).out);
  EXPECT_EQ(json["count"], 2);
  EXPECT_EQ(json["tokens"][1]["id"], 3);
  EXPECT_EQ(json["tokens"][1]["piece"], "ab");
}

TEST_F(Tokenize, ReadsFilesAndPipes) {
  EXPECT_EQ(run({"--ids"}, "ab\n").out, "0 3\n");
  EXPECT_EQ(run({"--ids", "-f", folder_.write("t", std::string_view("ab\n\n"))}).out, "0 3 5\n");
}

TEST_F(Tokenize, PiecesAreEscaped) { EXPECT_THAT(run({"-p", "\n"}).out, HasSubstr("5  \\n\n")); }

TEST_F(Tokenize, WarnsWhenTheTextIsNotGivenBack) {
  const ProcessResult result = run({"-p", "axb"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "  0  <s>\n  1  a\n  2  b\n");
  EXPECT_EQ(result.err, "zem: warning: decoding these ids does not give the text back\n");
}

TEST_F(Tokenize, NeedsATokenizer) {
  const std::string model = folder_.write("bare.zem", smallContainer().noTokenizer().build());
  const ProcessResult result = zem({"tokenize", "-m", model, "-p", "a"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "zem: " + model + " has no readable tokenizer\n");
}

TEST_F(Tokenize, AnEmptyVocabularyIsAFailure) {
  const std::string model =
      folder_.write("empty.zem", ContainerBuilder().tokenizer(kiv::TokenizerData()).build());
  const ProcessResult result = zem({"tokenize", "-m", model, "-p", "a"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("tokenizer: empty token list"));
}

}  // namespace
}  // namespace zemtest
