// SPDX-License-Identifier: Apache-2.0
#include <sys/resource.h>

#include <cmath>
#include <csignal>
#include <filesystem>
#include <string>
#include <system_error>

#include "cli_support.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/published_model.h"

namespace zemtest {
namespace {

namespace fs = std::filesystem;

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

class ConvertCliTest : public ::testing::Test {
 protected:
  ConvertCliTest() { fs::create_directory(in_); }

  void writeCheckpoint(const CheckpointBuilder& checkpoint = CheckpointBuilder()) {
    checkpoint.write(in_);
  }

  ProcessResult convert(const Arguments& more) {
    Arguments arguments = {"convert", in_};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return zem(arguments);
  }

  void expectFailure(const ProcessResult& result, const std::string& message) {
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "zem: " + message + "\n");
  }

  TempFolder folder_;
  std::string in_ = folder_.path("in");
  std::string out_ = folder_.path("out.zem");
};

TEST_F(ConvertCliTest, AReportSaysWhatBecameOfTheModel) {
  CheckpointBuilder checkpoint;
  checkpoint.tensors()["model.visual.x"] = {"F32", {2}, {}};
  checkpoint.tensors()["mtp.x"] = {"F32", {2}, {}};
  writeCheckpoint(checkpoint);
  const ProcessResult result = convert({"-o", out_, "-t", "2"});
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.out, StartsWith(out_ + ": "));
  EXPECT_THAT(
      result.out,
      AllOf(HasSubstr("relative error"), HasSubstr("Q4_K"),
            HasSubstr("left out: 1 vision tensors, 1 tensors of prediction layers\n"),
            HasSubstr("are BF16 instead of Q4_K: its rows of 8 weights are not whole blocks "
                      "of 256\n"),
            HasSubstr("merges: 9, of them 4 dropped"),
            HasSubstr("vocabulary: 269 tokens, of them 4 added and 130 stored as bytes")));
  EXPECT_THAT(result.err, HasSubstr("zem: warning: the weights of blk.0.ssm_norm.weight"));
  const ProcessResult info = zem({"info", out_});
  EXPECT_THAT(info.out, AllOf(HasSubstr("general.quantisation"), HasSubstr("\"q4_k_m\""),
                              HasSubstr("qwen35.context_length"), HasSubstr("Asset")));
}

TEST_F(ConvertCliTest, TheReportAsJsonHasTheSameFacts) {
  writeCheckpoint();
  const ProcessResult result = convert({"-o", out_, "--type", "q8_0", "--json"});
  ASSERT_EQ(result.status, 0);
  const auto report = nlohmann::json::parse(result.out);
  EXPECT_EQ(report["output"], out_);
  EXPECT_EQ(report["format"], "checkpoint");
  EXPECT_EQ(report["type"], "q8_0");
  EXPECT_EQ(report["files"], nlohmann::json::array({"model.safetensors"}));
  EXPECT_EQ(report["left_out"]["vision"], 0);
  EXPECT_EQ(report["tokenizer"]["dropped_merges"], 4);
  EXPECT_EQ(report["types"].size(), 3U);
  EXPECT_EQ(report["types"][0]["type"], "BF16");
  EXPECT_EQ(report["types"][0]["relative_error"], 0.0);
  EXPECT_EQ(report["fallbacks"][0]["wanted"], "Q8_0");
  EXPECT_EQ(report["warnings"].size(), 1U);
  EXPECT_GT(report["bytes_written"], 4'000'000);
}

TEST_F(ConvertCliTest, WithoutVerificationThereAreNoErrorsToReport) {
  writeCheckpoint();
  const ProcessResult result = convert({"-o", out_, "--no-verify", "--json"});
  ASSERT_EQ(result.status, 0);
  EXPECT_FALSE(nlohmann::json::parse(result.out)["types"][0].contains("relative_error"));
  EXPECT_THAT(convert({"-o", out_, "--no-verify", "--force"}).out, HasSubstr("not measured"));
}

TEST_F(ConvertCliTest, AnExistingFileIsReplacedOnlyByForce) {
  writeCheckpoint();
  folder_.write("out.zem", std::string_view("precious"));
  expectFailure(convert({"-o", out_}), out_ + " exists; use --force to replace it");
  EXPECT_EQ(folder_.read("out.zem"), "precious");
  EXPECT_EQ(convert({"-o", out_, "--force"}).status, 0);
  EXPECT_EQ(folder_.read("out.zem").substr(0, 4), "ZEM2");
}

TEST_F(ConvertCliTest, AFailureLeavesAnExistingFileAlone) {
  CheckpointBuilder checkpoint;
  putF32(checkpoint.tensor("norm.weight").data, INFINITY);
  writeCheckpoint(checkpoint);
  folder_.write("out.zem", std::string_view("precious"));
  EXPECT_EQ(convert({"-o", out_, "--force"}).status, 1);
  EXPECT_EQ(folder_.read("out.zem"), "precious");
  EXPECT_THAT(folder_.names(), ElementsAre("in", "out.zem"));
}

TEST_F(ConvertCliTest, WhatIsWrongWithTheModelIsOneLine) {
  CheckpointBuilder checkpoint;
  checkpoint.config()["text_config"]["num_hidden_layers"] = 36;
  writeCheckpoint(checkpoint);
  expectFailure(convert({"-o", out_}),
                in_ + "/config.json: text_config.layer_types is a list, needs a list of 36");
  EXPECT_THAT(folder_.names(), ElementsAre("in"));
}

TEST_F(ConvertCliTest, AFullDiskIsReportedAndLeavesNothing) {
  ZEM_SKIP_UNDER_WINE("the limit would end Wine");
  writeCheckpoint();
  rlimit previous{};
  getrlimit(RLIMIT_FSIZE, &previous);
  const rlimit limit{4 << 20, previous.rlim_max};
  setrlimit(RLIMIT_FSIZE, &limit);
  const ProcessResult result = convert({"-o", out_, "--type", "f32"});
  setrlimit(RLIMIT_FSIZE, &previous);
  expectFailure(result, "cannot write " + out_ + ": File too large");
  EXPECT_THAT(folder_.names(), ElementsAre("in"));
}

TEST_F(ConvertCliTest, AModelLargerThanTheDiskIsRefusedAtOnce) {
  CheckpointOptions options;
  options.width = uint64_t{1} << 22;  // terabytes of zeros in a file without room
  options.feedForward = 1;
  options.vocabulary = 300;
  CheckpointBuilder checkpoint(options);
  try {
    writeCheckpoint(checkpoint);
  } catch (const fs::filesystem_error& error) {
    // Anything else is a mistake of the test's.
    ASSERT_TRUE(error.code() == std::errc::file_too_large ||
                error.code() == std::errc::no_space_on_device ||
                error.code() == std::errc::invalid_argument)
        << error.what();
    GTEST_SKIP() << "this file system has no files of terabytes";
  }
  const ProcessResult result = convert({"-o", out_, "--type", "f32"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, AllOf(HasSubstr(" left, " + out_ + " needs "), HasSubstr("TiB")));
  EXPECT_THAT(folder_.names(), ElementsAre("in"));
}

TEST_F(ConvertCliTest, PathsThatCannotBeWrittenAreNamed) {
  writeCheckpoint();
  const std::string nowhere = folder_.path("nowhere/out.zem");
  expectFailure(convert({"-o", nowhere}),
                "cannot create " + nowhere + ": No such file or directory");
  expectFailure(convert({"-o", in_, "--force"}), "cannot write " + in_ + ": not a regular file");
}

TEST_F(ConvertCliTest, BadUsageHasStatusTwo) {
  for (const Arguments& arguments :
       {Arguments{}, Arguments{"-o", out_, "--type", "q3_k"}, Arguments{"-o", out_, "-t", "0"},
        Arguments{"-o", out_, "-t", "many"}, Arguments{"-o", out_, "--unknown"},
        Arguments{"-o", out_, "and", "more"}}) {
    EXPECT_EQ(convert(arguments).status, 2);
  }
  EXPECT_EQ(zem({"convert"}).status, 2);
  EXPECT_THAT(folder_.names(), ElementsAre("in"));
}

// Zeros that take no room, but many of them: a conversion that can be met at work.
class ConvertInterruptTest : public ConvertCliTest, public testing::WithParamInterface<int> {};

TEST_P(ConvertInterruptTest, LeavesNoFileAndSaysSo) {
  ZEM_NEEDS_PLAIN_TERMINAL();
  CheckpointOptions options;
  options.width = 2560;
  options.feedForward = 9216;
  options.vocabulary = 150000;
  options.type = "BF16";
  writeCheckpoint(CheckpointBuilder(options));
  TerminalProcess process(command({"convert", in_, "-o", out_}), cliEnvironment());
  ASSERT_TRUE(process.shows("% ["));  // the progress bar
  ASSERT_TRUE(process.shows("B/s, "));
  EXPECT_EQ(folder_.names().size(), 2U);
  process.send(GetParam());
  EXPECT_EQ(process.wait(), 1);
  EXPECT_THAT(process.shown(), HasSubstr("zem: interrupted; " + out_ + " was not written"));
  EXPECT_THAT(folder_.names(), ElementsAre("in"));
}

INSTANTIATE_TEST_SUITE_P(Signals, ConvertInterruptTest, testing::Values(SIGINT, SIGTERM),
                         [](const auto& signal) {
                           return signal.param == SIGINT ? "Interrupt" : "Terminate";
                         });

}  // namespace
}  // namespace zemtest
