// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <sys/stat.h>

#include "cli_support.h"
#include "support/published_model.h"

namespace zemtest {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

nlohmann::json infoJson(const std::string& path) {
  const ProcessResult result = zem({"info", path, "--tensors", "--json"});
  EXPECT_EQ(result.status, 0) << result.err;
  return nlohmann::json::parse(result.out);
}

TEST(Info, ShowsEveryPartOfAContainer) {
  const TempFolder folder;
  const ProcessResult result = zem({"info", folder.write("m.zem", smallContainer().build())});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  for (const char* line :
       {"  hidden size  4\n", "  layers       3\n", "  vocabulary   7\n", "  tensors      3\n",
        "  general.architecture  str    \"qwen35\"\n", "  a.i32                 i32    -7\n",
        "  a.f32                 f32    0.5\n", "  an.array              u32[]  [1, 2, 3]\n",
        "  tokens         7\n", "  bos, eos       0, 2\n", "  F16         1        16   32 B\n",
        "  F32         2        56  224 B\n"}) {
    EXPECT_THAT(result.out, HasSubstr(line));
  }
  EXPECT_THAT(result.out, Not(HasSubstr("blk.0.w")));
}

TEST(Info, NamesAnOutputHeadOfItsOwn) {
  const TempFolder folder;
  ContainerBuilder own;
  own.addTensor("token_embd.weight", kiv::DType::F32, {4, 7}, Bytes(4 * 7 * 4));
  own.addTensor("output.weight", kiv::DType::F32, {4, 7}, Bytes(4 * 7 * 4));
  EXPECT_THAT(zem({"info", folder.write("own.zem", own.build())}).out,
              HasSubstr("  output head  its own, output.weight\n"));
  EXPECT_THAT(zem({"info", folder.write("m.zem", smallContainer().build())}).out,
              Not(HasSubstr("output head")));
}

TEST(Info, SharedBytesCountOnceAsWeights) {
  const TempFolder folder;
  EXPECT_THAT(zem({"info", folder.write("m.zem", smallContainer().build())}).out,
              HasSubstr("  weights      44\n"));
}

TEST(Info, SaysWhichTokenizerAndChatFormatTextHas) {
  const TempFolder folder;
  const auto textOf = [&](const ContainerBuilder& builder) {
    const std::string path = folder.write("m.zem", builder.build());
    const std::string shown = zem({"info", path}).out;
    const size_t begin = shown.find("\ntext\n") + 6;
    return std::pair(shown.substr(begin, shown.find("\n\n", begin) - begin),
                     infoJson(path)["text"]);
  };
  const auto [plain, plainJson] = textOf(smallContainer());
  EXPECT_THAT(plain, AllOf(HasSubstr("  tokenizer    the plug-in's\n  chat format  none of the "
                                     "known revisions (SHA-256 "),
                           Not(HasSubstr("usable"))));
  EXPECT_EQ(plainJson, nlohmann::json({{"tokenizer", "the plug-in's"},
                                       {"exact", false},
                                       {"problem", nullptr},
                                       {"chat_format", nullptr}}));

  const auto [exact, exactJson] = textOf(
      containerFromSource("tokenizer.json", completeTokenizer().dump(), publishedTemplate()));
  EXPECT_EQ(exact, "  tokenizer    exact, of tokenizer.json\n  chat format  qwen3.5");
  EXPECT_EQ(exactJson["exact"], true);
  EXPECT_EQ(exactJson["chat_format"], "qwen3.5");

  const auto [broken, brokenJson] = textOf(containerFromSource("tokenizer.json", "{", ""));
  EXPECT_THAT(broken, HasSubstr("  tokenizer    the plug-in's\n               the source's is not "
                                "usable: tokenizer.json: "));
  EXPECT_THAT(broken, HasSubstr("  chat format  none"));
  EXPECT_THAT(brokenJson["problem"], ::testing::StartsWith("tokenizer.json: "));

  EXPECT_THAT(textOf(smallContainer().addMetaStr("chat.format", "qwen3.6")).first,
              HasSubstr("  chat format  qwen3.6"));
  EXPECT_THAT(textOf(smallContainer().addMetaStr("chat.format", "other")).first,
              HasSubstr("  chat format  \"other\", none of the known revisions"));

  EXPECT_EQ(textOf(smallContainer().noTokenizer()).first,
            "  tokenizer    none\n  chat format  none");
}

TEST(Info, ListsTensors) {
  const TempFolder folder;
  const ProcessResult result =
      zem({"info", "--tensors", folder.write("m.zem", smallContainer().build())});
  EXPECT_THAT(result.out,
              AllOf(HasSubstr("  blk.0.w            F16   4 x 2 x 2       0     32\n"),
                    HasSubstr("  token_embd.weight  F32   4 x 7          64    112\n")));
}

TEST(Info, JsonHoldsTheSame) {
  const TempFolder folder;
  const auto json = infoJson(folder.write("m.zem", smallContainer().build()));
  EXPECT_EQ(json["header"]["layer_count"], 3);
  EXPECT_EQ(json["header"]["model_type"], 9);
  EXPECT_EQ(json["sections"][0]["type"], "Meta");
  EXPECT_EQ(json["metadata"][5]["value"], uint64_t{1} << 40);
  EXPECT_EQ(json["metadata"][6]["value"], nlohmann::json({1, 2, 3}));
  EXPECT_EQ(json["tokenizer"]["merges"], 1);
  EXPECT_EQ(json["types"][1]["bytes"], 224);
  EXPECT_EQ(json["tensors"][0]["shape"], nlohmann::json({4, 2, 2}));
  EXPECT_EQ(json["tensors"][0]["outside"], false);
  EXPECT_EQ(zem({"info", "--json", folder.path("m.zem")}).out.find("\"tensors\": ["),
            std::string::npos);
}

TEST(Info, WorksOnFilesThatASessionRefuses) {
  const TempFolder folder;
  Bytes file = smallContainer().noTokenizer().build();
  set(file, tensorIndex(file, "blk.0.w"), tensor::offset, 1000);
  set(file, tensorIndex(file, "output.weight"), tensor::offset, ~uint64_t{0});
  set(file, tensorIndex(file, "token_embd.weight"), tensor::dtype, 40);
  const std::string path = folder.write("m.zem", file);
  const ProcessResult result = zem({"info", "--tensors", path});
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.out, AllOf(HasSubstr("1000     32  outside the file\n"),
                                HasSubstr("type 40  4 x 7"), HasSubstr("none that can be read")));
  EXPECT_EQ(result.err,
            "zem: warning: 2 of 3 tensors lie outside the file's weight data; no session can "
            "compute with it\n");
  const auto json = infoJson(path);
  EXPECT_EQ(json["tensors"][1]["outside"], true);
  EXPECT_EQ(json["tensors"][2]["outside"], false);
  EXPECT_TRUE(json["tokenizer"].is_null());
}

TEST(Info, ATensorThatEndsWithTheWeightsIsInside) {
  const TempFolder folder;
  Bytes file = smallContainer().build();
  const size_t i = tensorIndex(file, "token_embd.weight");
  const size_t end = sectionSize(file, kiv::zem2::SectionType::WeightData);
  set(file, i, tensor::offset, end - 112);
  EXPECT_EQ(infoJson(folder.write("a.zem", file))["tensors"][i]["outside"], false);
  set(file, i, tensor::offset, end - 111);
  EXPECT_EQ(infoJson(folder.write("b.zem", file))["tensors"][i]["outside"], true);
}

TEST(Info, HugeExtentsDoNotOverflow) {
  const TempFolder folder;
  Bytes file = smallContainer().build();
  for (size_t i = 0; i < 3; ++i) set(file, i, tensor::shape0, ~uint64_t{0});
  EXPECT_EQ(infoJson(folder.write("m.zem", file))["types"][1]["elements"], ~uint64_t{0});
}

TEST(Info, TextFromTheFileIsEscaped) {
  const TempFolder folder;
  ContainerBuilder builder = smallContainer();
  builder.addMetaStr("evil\x1b]0;key\a", "line\nbreak\xFF\xC2\x9B");
  builder.addTensor("t\r\x1b[1A", kiv::DType::F32, {1}, Bytes(4));
  const std::string path = folder.write("m.zem", builder.build());
  const ProcessResult result = zem({"info", "--tensors", path});
  EXPECT_THAT(result.out, AllOf(HasSubstr("evil\\x1b]0;key\\x07"),
                                HasSubstr("\"line\\nbreak\xEF\xBF\xBD\\x9b\""),
                                HasSubstr("t\\r\\x1b[1A"), Not(HasSubstr("\x1b"))));
  EXPECT_EQ(infoJson(path)["metadata"][7]["value"], "line\nbreak\xEF\xBF\xBD\xC2\x9B");
}

TEST(Info, JsonOnATerminalIsAscii) {
  ZEM_NEEDS_PLAIN_TERMINAL();
  const TempFolder folder;
  const std::string path =
      folder.write("m.zem", ContainerBuilder().addMetaStr("k", "\xC2\x9B\x7F").build());
  TerminalProcess process(command({"info", "--json", path}), cliEnvironment());
  EXPECT_EQ(process.wait(), 0);
  EXPECT_THAT(process.shown(), HasSubstr("\\u009b\\u007f"));
}

TEST(Info, LongValuesAreShortenedForPeopleOnly) {
  const TempFolder folder;
  const std::string text = std::string(119, 'x') + "\xC3\xA9" + std::string(80, 'y');
  ContainerBuilder builder;
  builder.addMetaStr("long", text).addMetaU32Array("many", std::vector<uint32_t>(100, 5));
  const std::string path = folder.write("m.zem", builder.build());
  EXPECT_THAT(zem({"info", path}).out,
              AllOf(HasSubstr("xxx\"... (201 bytes)\n"), HasSubstr("5, 5, ... (100 values)]\n")));
  const auto json = infoJson(path);
  EXPECT_EQ(json["metadata"][0]["value"], text);
  EXPECT_EQ(json["metadata"][1]["value"].size(), 100U);
}

TEST(Info, SectionsOfAnyTypeAreListed) {
  const TempFolder folder;
  ContainerBuilder builder;
  builder.addSection(kiv::zem2::SectionType::Signature, Bytes(5));
  builder.addSection(static_cast<kiv::zem2::SectionType>(77), Bytes(6));
  const auto json = infoJson(folder.write("m.zem", builder.build()));
  EXPECT_EQ(json["sections"][4]["type"], "Signature");
  EXPECT_EQ(json["sections"][5]["type"], "type 77");
  EXPECT_EQ(json["sections"][5]["bytes"], 6);
}

TEST(Info, WhatIsNoContainerIsAFailure) {
  const TempFolder folder;
  const ProcessResult text = zem({"info", folder.write("m.zem", std::string_view("text"))});
  EXPECT_EQ(text.status, 1);
  EXPECT_EQ(text.out, "");
  EXPECT_EQ(text.err,
            "zem: " + folder.path("m.zem") + " is not a model file: ZEM2: file too small\n");
  const ProcessResult missing = zem({"info", folder.path("missing")});
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.err,
            "zem: cannot read " + folder.path("missing") + ": No such file or directory\n");
  EXPECT_THAT(zem({"info", folder.path(".")}).err, HasSubstr("it is a directory"));
  ASSERT_EQ(mkfifo(folder.path("pipe").c_str(), 0600), 0);
  EXPECT_THAT(zem({"info", folder.path("pipe")}).err, HasSubstr("it is not a regular file"));
}

TEST(Info, EveryPrefixOfAFileIsAFailureOrAnAnswer) {
  const TempFolder folder;
  const Bytes file = smallContainer().build();
  for (size_t size = 0; size < file.size(); size += 61) {
    const auto end = file.begin() + static_cast<ptrdiff_t>(size);
    const ProcessResult result =
        zem({"info", "--tensors", folder.write("m.zem", Bytes(file.begin(), end))});
    EXPECT_EQ(result.status, 1) << size;
    EXPECT_THAT(result.err, HasSubstr("is not a model file: ZEM2: ")) << size;
  }
}

}  // namespace
}  // namespace zemtest
