// SPDX-License-Identifier: Apache-2.0
#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "cli_support.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "kiv/zem_loader.h"

namespace zemtest {
namespace {

namespace fs = std::filesystem;

using kiv::DType;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

std::vector<std::string> namesIn(const std::string& folder) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) {
    names.push_back(entry.path().filename().string());
  }
  return names;
}

ProcessResult makeDemo(Arguments arguments) {
  arguments.insert(arguments.begin(), "make-demo");
  return zem(arguments);
}

void expectSuccess(const ProcessResult& result) {
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "");
}

void expectFailure(const ProcessResult& result, const std::string& message) {
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "zem: " + message + "\n");
}

TEST(MakeDemoTest, DefaultModelIsSmallAndComplete) {
  const TempFolder folder;
  const std::string path = folder.path("m.zem");
  expectSuccess(makeDemo({path}));
  EXPECT_LT(fs::file_size(path), 16'000'000U);
  kiv::ZEMLoader loader;
  ASSERT_TRUE(loader.open(path.c_str()).ok());
  EXPECT_EQ(loader.modelInfo().layerCount, 32U);
  EXPECT_EQ(loader.modelInfo().hiddenSize, 256U);
  EXPECT_EQ(loader.modelInfo().vocabSize, loader.tokenizer().tokens.size());
  EXPECT_EQ(loader.tensorCount(), 24U * 14 + 8 * 11 + 2);
  std::string architecture;
  EXPECT_TRUE(loader.getMetaStr("general.architecture", architecture));
  EXPECT_EQ(architecture, "qwen35");
  uint64_t seed = 0;
  EXPECT_TRUE(loader.getMetaU64("demo.seed", seed));
  EXPECT_EQ(seed, 1U);
  for (size_t i = 0; i < loader.tensorCount(); ++i) {
    const kiv::TensorView& view = loader.tensorView(i);
    EXPECT_TRUE(loader.holdsBytes(view, view.size)) << view.name;
  }
}

TEST(MakeDemoTest, LayersOfAKindShareTheirBytes) {
  const TempFolder folder;
  const std::string path = folder.path("m.zem");
  expectSuccess(makeDemo({path}));
  kiv::ZEMLoader loader;
  ASSERT_TRUE(loader.open(path.c_str()).ok());
  EXPECT_EQ(loader.findTensor("blk.0.ssm_out.weight")->data,
            loader.findTensor("blk.30.ssm_out.weight")->data);
  EXPECT_EQ(loader.findTensor("blk.3.attn_q.weight")->data,
            loader.findTensor("blk.31.attn_q.weight")->data);
  EXPECT_NE(loader.findTensor("blk.0.ffn_up.weight")->data,
            loader.findTensor("blk.3.ffn_up.weight")->data);
}

class MakeDemoTypeTest : public testing::TestWithParam<std::pair<const char*, DType>> {};

TEST_P(MakeDemoTypeTest, MatricesHaveTheType) {
  const auto& [name, type] = GetParam();
  const TempFolder folder;
  const std::string path = folder.path("m.zem");
  expectSuccess(makeDemo({path, "--type", name}));
  kiv::ZEMLoader loader;
  ASSERT_TRUE(loader.open(path.c_str()).ok());
  EXPECT_EQ(loader.findTensor("blk.5.attn_qkv.weight")->dtype, type);
  EXPECT_EQ(loader.findTensor("blk.7.attn_k.weight")->dtype, type);
  const bool mix = std::string(name) == "q4_k_m";
  EXPECT_EQ(loader.findTensor("token_embd.weight")->dtype, mix ? DType::Q6_K : type);
  EXPECT_EQ(loader.findTensor("blk.5.ssm_alpha.weight")->dtype, mix ? DType::Q8_0 : type);
  EXPECT_EQ(loader.findTensor("blk.5.ssm_conv1d.weight")->dtype, DType::F32);
}

INSTANTIATE_TEST_SUITE_P(
    All, MakeDemoTypeTest,
    testing::Values(std::pair{"f32", DType::F32}, std::pair{"bf16", DType::BF16},
                    std::pair{"q8_0", DType::Q8_0}, std::pair{"q4_k", DType::Q4_K},
                    std::pair{"q5_k", DType::Q5_K}, std::pair{"q6_k", DType::Q6_K},
                    std::pair{"q4_k_m", DType::Q4_K}),
    [](const auto& type) { return type.param.first; });

TEST(MakeDemoTest, SeedDecidesEveryByte) {
  const TempFolder folder;
  expectSuccess(makeDemo({"-o", folder.path("a"), "--seed", "7"}));
  expectSuccess(makeDemo({"--output", folder.path("b"), "--seed", "7"}));
  expectSuccess(makeDemo({folder.path("c"), "--seed", "8"}));
  EXPECT_TRUE(folder.read("a") == folder.read("b"));
  EXPECT_FALSE(folder.read("a") == folder.read("c"));
}

TEST(MakeDemoTest, ExistingFileIsReplacedOnlyByForce) {
  const TempFolder folder;
  const std::string path = folder.write("m.zem", std::string_view("precious"));
  expectFailure(makeDemo({path}), path + " exists; use --force to replace it");
  EXPECT_EQ(folder.read("m.zem"), "precious");
  expectSuccess(makeDemo({path, "--force"}));
  EXPECT_EQ(folder.read("m.zem").substr(0, 4), "ZEM2");
}

TEST(MakeDemoTest, PathThatCannotBeWrittenIsNamed) {
  const TempFolder folder;
  const std::string path = folder.path("nowhere/m.zem");
  expectFailure(makeDemo({path}), "cannot create " + path + ": No such file or directory");
  expectFailure(makeDemo({"/dev/full", "--force"}), "cannot write /dev/full: not a regular file");
  // Windows does not tell the two apart.
  const std::string notAFolder =
      kWindowsBuild == nullptr ? "Not a directory" : "No such file or directory";
  const std::string belowFile = folder.write("file", std::string_view("x")) + "/m.zem";
  expectFailure(makeDemo({belowFile}), "cannot create " + belowFile + ": " + notAFolder);
}

TEST(MakeDemoTest, FullDiskIsReportedAndLeavesNothing) {
  ZEM_SKIP_UNDER_WINE("the limit would end Wine");
  const TempFolder folder;
  const std::string path = folder.path("m.zem");
  rlimit previous{};
  getrlimit(RLIMIT_FSIZE, &previous);
  const rlimit limit{4 << 20, previous.rlim_max};
  setrlimit(RLIMIT_FSIZE, &limit);
  const ProcessResult result = makeDemo({path});
  setrlimit(RLIMIT_FSIZE, &previous);
  expectFailure(result, "cannot write " + path + ": File too large");
  EXPECT_THAT(namesIn(folder.path("")), IsEmpty());
}

TEST(MakeDemoTest, BadOptionsAreUsageErrors) {
  const TempFolder folder;
  const std::string path = folder.path("m.zem");
  for (const Arguments& arguments :
       {Arguments{}, Arguments{path, "--type", "q3_k"}, Arguments{path, "--size", "5b"},
        Arguments{path, "--seed", "-1"}, Arguments{path, "--seed", "many"},
        Arguments{path, "--unknown"}}) {
    EXPECT_EQ(makeDemo(arguments).status, 2);
  }
  EXPECT_THAT(namesIn(folder.path("")), IsEmpty());
}

TEST(MakeDemoTest, TokenizeGivesItsTextBack) {
  const TempFolder folder;
  const std::string path = folder.path("m.zem");
  expectSuccess(makeDemo({path}));
  const ProcessResult result = zem({"tokenize", "--plugin", "-m", path, "-p",
                                    "The river \u2014 \u0440\u0435\u043A\u0430, \u5DDD."});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");  // where a text that does not come back is noted
}

// The large model takes long enough to be met at work.
class MakeDemoInterruptTest : public testing::TestWithParam<int> {};

TEST_P(MakeDemoInterruptTest, LeavesNoFileAndSaysSo) {
  ZEM_NEEDS_PLAIN_TERMINAL();
  const TempFolder folder;
  const std::string path = folder.path("m.zem");
  TerminalProcess process(command({"make-demo", "--size", "4b", path}), cliEnvironment());
  ASSERT_TRUE(process.shows("% ["));  // the progress bar
  EXPECT_THAT(namesIn(folder.path("")), testing::SizeIs(1));
  process.send(GetParam());
  EXPECT_EQ(process.wait(), 1);
  EXPECT_THAT(process.shown(), HasSubstr("zem: interrupted; " + path + " was not written"));
  EXPECT_THAT(namesIn(folder.path("")), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Signals, MakeDemoInterruptTest, testing::Values(SIGINT, SIGTERM, SIGHUP),
                         [](const auto& signal) {
                           return signal.param == SIGINT    ? "Interrupt"
                                  : signal.param == SIGTERM ? "Terminate"
                                                            : "Hangup";
                         });

}  // namespace
}  // namespace zemtest
