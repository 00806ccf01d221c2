// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include "cli_support.h"
#include "support/published_model.h"

namespace zemtest {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;

Arguments tokenizeOf(const std::string& model, const Arguments& more) {
  Arguments arguments = {"tokenize", "-m", model};
  arguments.insert(arguments.end(), more.begin(), more.end());
  return arguments;
}

// The plug-in's tokenizer.
class Tokenize : public ::testing::Test {
 protected:
  ProcessResult run(Arguments more, const std::string& input = {}) const {
    more.insert(more.begin(), "--plugin");
    return zem(tokenizeOf(model_, more), input);
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
  const auto printed = nlohmann::json::parse(run({"-p", "ab", "--json"}).out);
  EXPECT_EQ(printed["count"], 2);
  EXPECT_EQ(printed["tokens"][1]["id"], 3);
  EXPECT_EQ(printed["tokens"][1]["piece"], "ab");
}

TEST_F(Tokenize, ReadsFilesAndPipes) {
  EXPECT_EQ(run({"--ids"}, "ab\n").out, "0 3\n");
  EXPECT_EQ(run({"--ids", "-f", folder_.write("t", std::string_view("ab\n\n"))}).out, "0 3 5\n");
  EXPECT_EQ(run({"--ids", "-f", "-"}, "ab\r\n").out, "0 3\n");
}

TEST_F(Tokenize, KeepsTheLastLineFeedWhenAsked) {
  EXPECT_EQ(run({"--ids", "--keep-newline"}, "ab\n").out, "0 3 5\n");
  EXPECT_EQ(run({"--ids", "--keep-newline"}, "ab").out, "0 3\n");
}

TEST_F(Tokenize, PiecesAreEscaped) { EXPECT_THAT(run({"-p", "\n"}).out, HasSubstr("5  \\n\n")); }

TEST_F(Tokenize, WarnsWhenTheTextIsNotGivenBack) {
  const ProcessResult result = run({"-p", "axb"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "  0  <s>\n  1  a\n  2  b\n");
  EXPECT_EQ(result.err, "zem: warning: decoding these ids does not give the text back\n");
}

TEST_F(Tokenize, DecodesIds) {
  const ProcessResult result = run({"--decode", "-p", "3 2, 4,5\n[1]"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "abb \na");
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(run({"--decode"}, "").out, "");
}

TEST_F(Tokenize, RefusesWhatIsNoId) {
  for (const auto& [text, says] : std::vector<std::pair<std::string, std::string>>{
           {"1 x", "\"x\" is not an id; ids are whole numbers"},
           {"1.5", "\"1.5\" is not an id"},
           {"+1", "\"+1\" is not an id"},
           {"-1", "the vocabulary has no token \"-1\"; its ids are below 7"},
           {"7", "the vocabulary has no token \"7\"; its ids are below 7"},
           {"99999999999", "the vocabulary has no token \"99999999999\""},
           {"99999999999x", "\"99999999999x\" is not an id"}}) {
    const ProcessResult result = run({"--decode", "-p", text});
    EXPECT_EQ(result.status, 1) << text;
    EXPECT_EQ(result.out, "") << text;
    EXPECT_THAT(result.err, HasSubstr(says)) << text;
  }
}

TEST_F(Tokenize, IsThePluginsUnlessTheFileHasItsSources) {
  const ProcessResult result = zem(tokenizeOf(model_, {"-p", "ab", "--ids"}));
  EXPECT_EQ(result.out, "0 3\n");
  EXPECT_EQ(result.err, "tokenizer: the plug-in's\n");
  const ProcessResult exact = zem(tokenizeOf(model_, {"-p", "ab", "--exact"}));
  EXPECT_EQ(exact.status, 1);
  EXPECT_EQ(exact.out, "");
  EXPECT_EQ(exact.err, "zem: " + model_ +
                           " carries no tokenizer of its source; --plugin uses the plug-in's\n");
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

GgufBuilder ggufWithTokenizer() {
  GgufBuilder builder = supportedGguf(8, 12);
  builder.erase("tokenizer.ggml.merges");
  builder.addTexts("tokenizer.ggml.merges", completeTokenizer()["model"]["merges"]);
  return builder;
}

// The publisher's tokenizer, from each kind of file that may hold one.
class ExactTokenize : public ::testing::Test {
 protected:
  ProcessResult run(const Arguments& more, const std::string& input = {}) const {
    return zem(tokenizeOf(json_, more), input);
  }

  TempFolder folder_;
  std::string source_ = completeTokenizer().dump();
  std::string json_ = folder_.write("tokenizer.json", source_);
  std::string gguf_ = folder_.write("m.gguf", ggufWithTokenizer().build());
  std::string model_ =
      folder_.write("m.zem", containerFromSource("tokenizer.json", source_, "").build());
};

TEST_F(ExactTokenize, WorksOnEveryKindOfFile) {
  for (const auto& [path, origin] :
       {std::pair(json_, "tokenizer.json"), std::pair(model_, "tokenizer.json"),
        std::pair(gguf_, "GGUF entries")}) {
    const ProcessResult result = zem(tokenizeOf(path, {"--ids", "-p", " the<|im_end|>\xC3\xA9"}));
    EXPECT_EQ(result.status, 0) << path;
    EXPECT_EQ(result.out, "258 272 260\n") << path;
    EXPECT_EQ(result.err, "tokenizer: exact, of " + std::string(origin) + "\n") << path;
  }
}

TEST_F(ExactTokenize, SaysNothingWhereItWasAskedFor) {
  EXPECT_EQ(run({"--exact", "-p", "a"}).err, "");
}

TEST_F(ExactTokenize, TellsTheKindOfAFileByItsBytes) {
  const std::string unnamed = folder_.write("vocabulary", "\r\n " + source_);
  EXPECT_EQ(zem(tokenizeOf(unnamed, {"--ids", "-p", "a"})).out, "97\n");
  const std::string named = folder_.write("m.gguf.zem", ggufWithTokenizer().build());
  EXPECT_EQ(zem(tokenizeOf(named, {"--ids", "-p", "a"})).out, "97\n");
}

TEST_F(ExactTokenize, BytesThatAreNoTextAreSpelledOut) {
  const ProcessResult result = run({"-p", "\xE6\x97\n"});
  EXPECT_EQ(result.out, "  239  \\xef\n  191  \\xbf\n  189  \\xbd\n   10  \\n\n");
  EXPECT_THAT(result.err, HasSubstr("warning: the text is not UTF-8"));
  const auto printed = nlohmann::json::parse(run({"--json", "-p",
                                                  "\xC3\xAF"
                                                  "a"})
                                                 .out);
  EXPECT_EQ(printed["tokens"][1],
            nlohmann::json({{"id", 0xAF}, {"piece", "\xEF\xBF\xBD"}, {"bytes", {0xAF}}}));
  EXPECT_EQ(printed["tokens"][2], nlohmann::json({{"id", 97}, {"piece", "a"}}));
}

TEST_F(ExactTokenize, WarnsOfATextInAnotherNormalForm) {
  const ProcessResult result = run({"--exact", "--ids", "-p", "e\xCC\x81"});
  EXPECT_EQ(result.out, "260\n");
  EXPECT_EQ(result.err,
            "zem: warning: these ids are of the text's normal form NFC, which has other code "
            "points\n");
}

TEST_F(ExactTokenize, APipeGivesATextBack) {
  const std::string text = " the\n\n caf\xC3\xA9 \xE4\xB8\xAD<think>\t\n";
  const ProcessResult ids = run({"--exact", "--ids", "--keep-newline"}, text);
  const ProcessResult back = run({"--exact", "--decode"}, ids.out);
  EXPECT_EQ(back.out, text);
  EXPECT_EQ(back.err, "");
}

TEST_F(ExactTokenize, ALineFeedEndsADecodedTextOnATerminal) {
  ZEM_NEEDS_PLAIN_TERMINAL();
  TerminalProcess process(command(tokenizeOf(json_, {"--exact", "--decode", "-p", "97 27"})),
                          cliEnvironment());
  EXPECT_EQ(process.wait(), 0);
  EXPECT_EQ(process.shown(), "a\\x1b\r\n");
}

TEST_F(ExactTokenize, IdsWithoutATokenAreRefused) {
  EXPECT_THAT(run({"--decode", "-p", "269"}).err,
              HasSubstr("no token \"269\"; its ids are below 274"));
  EXPECT_THAT(run({"--decode", "-p", "274"}).err, HasSubstr("no token \"274\""));
}

TEST_F(ExactTokenize, ThePluginReadsContainersAlone) {
  for (const std::string& path : {json_, gguf_}) {
    const ProcessResult result = zem(tokenizeOf(path, {"--plugin", "-p", "a"}));
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, AllOf(HasSubstr("the plug-in reads containers alone"), HasSubstr(path),
                                  HasSubstr("zem convert")));
  }
  EXPECT_EQ(zem(tokenizeOf(model_, {"--plugin", "--ids", "-p", "ab"})).out, "0 1 2\n");
}

TEST_F(ExactTokenize, ABrokenSourceIsNotPassedOver) {
  const std::string path =
      folder_.write("b.zem", containerFromSource("tokenizer.json", "{}", "").build());
  const ProcessResult result = zem(tokenizeOf(path, {"-p", "a"}));
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "zem: " + path +
                            ": tokenizer.json: model: missing (--plugin uses the plug-in's "
                            "tokenizer)\n");
  EXPECT_EQ(zem(tokenizeOf(path, {"--plugin", "--ids", "-p", "a"})).out, "0 1\n");
}

TEST_F(ExactTokenize, WhatIsNoVocabularyIsAFailure) {
  const auto errorOf = [&](std::string_view name, std::string_view bytes) {
    const ProcessResult result =
        zem(tokenizeOf(folder_.write(std::string(name), bytes), {"-p", "a"}));
    EXPECT_EQ(result.status, 1) << name;
    EXPECT_EQ(result.out, "") << name;
    return result.err;
  };
  EXPECT_THAT(errorOf("empty", ""), HasSubstr("empty is not a model file: ZEM2: "));
  EXPECT_THAT(errorOf("text", "text"), HasSubstr("text is not a model file: ZEM2: "));
  EXPECT_THAT(errorOf("empty.json", ""), HasSubstr("empty.json: tokenizer.json: "));
  EXPECT_THAT(errorOf("cut.json", std::string_view(source_).substr(0, 500)),
              HasSubstr("cut.json: tokenizer.json: "));
  EXPECT_THAT(errorOf("cut.gguf", "GGUF\x03"), HasSubstr("cut.gguf: "));
  GgufBuilder bare = supportedGguf(8, 12);
  bare.erase("tokenizer.ggml.tokens");
  const Bytes bytes = bare.build();
  EXPECT_THAT(errorOf("bare.gguf", {reinterpret_cast<const char*>(bytes.data()), bytes.size()}),
              HasSubstr("bare.gguf: GGUF tokenizer: "));
  EXPECT_THAT(zem(tokenizeOf(folder_.path("missing"), {"-p", "a"})).err,
              HasSubstr("missing: No such file or directory"));
  EXPECT_THAT(zem(tokenizeOf(folder_.path("."), {"-p", "a"})).err, HasSubstr("it is a directory"));
}

TEST_F(ExactTokenize, TheModelMayHaveAnyName) {
  const std::string path = folder_.write("t\xC3\xB6k\xE2\x82\xAC.json", source_);
  EXPECT_EQ(zem(tokenizeOf(path, {"--exact", "--ids", "-p", "\xC3\xA9"})).out, "260\n");
}

}  // namespace
}  // namespace zemtest
