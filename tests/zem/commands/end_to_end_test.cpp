// SPDX-License-Identifier: Apache-2.0
// The program with the real plug-in, which lies beside it, and a demo model.
// Contexts are small, for they bound the tokens that a test has to wait for.
#include <gmock/gmock.h>

#include <iterator>
#include <utility>

#include "bench/exact_prompt.h"
#include "cli_support.h"
#include "kiv/tokenizer.h"
#include "kiv/zem2_reader.h"
#include "support/golden_checkpoint.h"
#include "support/published_model.h"

namespace zemtest {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

// Threads that wait for each other are slow where other programs want the cores.
const Environment kSurroundings = {{"ZEM_PLUGIN", ""}, {"OMP_NUM_THREADS", "1"}};

class EndToEnd : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    folder_ = new TempFolder;
    model_ = folder_->path("demo.zem");
    const ProcessResult made = realZem({"make-demo", model_, "--size", "tiny"});
    ASSERT_EQ(made.status, 0) << made.err;
  }
  static void TearDownTestSuite() { delete folder_; }

  static ProcessResult realZem(const Arguments& arguments, const std::string& input = {},
                               const Environment& more = {}) {
    Environment all = kSurroundings;
    for (const auto& [name, value] : more) all[name] = value;
    return zem(arguments, input, all);
  }
  static std::string completion(const Arguments& more) {
    Arguments arguments = {"plugin", "run", "-m", model_, "-p", "Hello there", "-c", "8"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    const ProcessResult result = realZem(arguments);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.err, HasSubstr("tokens/s"));
    return result.out;
  }

  static TempFolder* folder_;
  static std::string model_;
};

TempFolder* EndToEnd::folder_ = nullptr;
std::string EndToEnd::model_;

TEST_F(EndToEnd, VersionFindsThePluginBesideTheProgram) {
  const std::string version = realZem({"--version"}).out;
  EXPECT_THAT(version, HasSubstr("\nruntime-qwen35-vulkan version 1 ("));
}

TEST_F(EndToEnd, ACompletionIsTheSameOnAnyNumberOfThreads) {
  const std::string text = completion({});
  EXPECT_GT(text.size(), 1U);
  EXPECT_EQ(completion({"-t", "2"}), text);
}

TEST_F(EndToEnd, ASeedRepeatsASample) {
  const Arguments sampling = {"--temp", "1.5", "-s", "11"};
  const std::string text = completion(sampling);
  EXPECT_EQ(completion(sampling), text);
  EXPECT_NE(completion({"--temp", "1.5", "-s", "12"}), text);
}

// Its template is none of the known revisions, and its metadata name one.
TEST_F(EndToEnd, TheDemoModelTakesChats) {
  const Arguments ask = {"run", "-m", model_, "-p", "Hello", "-n", "3", "-s", "1"};
  const ProcessResult reply = realZem(ask);
  EXPECT_EQ(reply.status, 0) << reply.err;
  EXPECT_GT(reply.out.size(), 5U);
  Arguments raw = ask;
  raw.emplace_back("--raw");
  EXPECT_NE(realZem(raw).out, reply.out);
  const ProcessResult chat = realZem({"chat", "-m", model_, "-n", "3", "-s", "1"}, "Hello\n");
  EXPECT_EQ(chat.out, reply.out);
}

TEST_F(EndToEnd, ClearGivesTheFirstReplyAgain) {
  const ProcessResult result =
      realZem({"plugin", "chat", "-m", model_, "-c", "20"}, "Hello\n/clear\nHello\n");
  EXPECT_EQ(result.status, 0) << result.err;
  ASSERT_GT(result.out.size(), 2U);
  EXPECT_EQ(result.out.substr(0, result.out.size() / 2), result.out.substr(result.out.size() / 2));
}

TEST_F(EndToEnd, APromptBeyondTheContextIsAFailure) {
  const ProcessResult result =
      realZem({"plugin", "run", "-m", model_, "-c", "2", "-p", "one two three four five"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(result.err, HasSubstr("zem: the completion failed"));
}

TEST_F(EndToEnd, AConversationBeyondTheContextSaysWhatToDo) {
  const ProcessResult result =
      realZem({"plugin", "chat", "-m", model_, "-c", "2"}, "one two three four\n");
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("/clear starts a new one"));
}

TEST_F(EndToEnd, ABenchmarkMeasures) {
  const ProcessResult result =
      realZem({"plugin", "bench", "-m", model_, "-n", "2", "-r", "2", "-o", "json"});
  ASSERT_EQ(result.status, 0) << result.err;
  const auto json = nlohmann::json::parse(result.out);
  EXPECT_EQ(json["backend"], "CPU");
  EXPECT_GT(json["tokens_per_second"], 0.0);
  EXPECT_THAT(json["model"].get<std::string>(), StartsWith("demo"));
}

TEST_F(EndToEnd, ABenchmarkMeasuresPromptsAndDepths) {
  const ProcessResult result = realZem({"plugin", "bench", "-m", model_, "-p", "16", "-n", "2",
                                        "-d", "0,16", "-r", "1", "-o", "json"});
  ASSERT_EQ(result.status, 0) << result.err;
  const auto tests = nlohmann::json::parse(result.out)["tests"];
  const char* const names[] = {"pp16", "tg2", "pp16 @ d16", "tg2 @ d16"};
  ASSERT_EQ(tests.size(), std::size(names));
  for (size_t i = 0; i < tests.size(); ++i) {
    EXPECT_EQ(tests[i]["test"], names[i]);
    EXPECT_GT(tests[i]["tokens_per_second"], 0.0) << names[i];
  }
}

// The OpenMP runtime prints a line for every thread of a team whenever the team changes,
// GCC's among the errors and LLVM's in the output.
TEST_F(EndToEnd, ABenchmarksThreadsAreTheTeamThatComputes) {
  const Environment report = {{"OMP_DISPLAY_AFFINITY", "true"},
                              {"OMP_AFFINITY_FORMAT", "team of %N"}};
  const ProcessResult result =
      realZem({"plugin", "bench", "-m", model_, "-n", "1", "-r", "1", "-t", "2,3,2", "-o", "csv"},
              "", report);
  ASSERT_EQ(result.status, 0) << result.err;
  const std::string said = result.err + result.out;
  const size_t two = said.find("team of 2");
  const size_t three = said.find("team of 3");
  EXPECT_LT(two, three);
  EXPECT_NE(said.find("team of 2", three), std::string::npos) << said;
  EXPECT_THAT(result.out, HasSubstr("\"CPU\",3,tg1,"));
}

// The frame that benchmarks count with is the one that the runtime adds: a turn
// of 20 tokens fits a context of 20 and none of 19.
TEST_F(EndToEnd, ATurnMadeToMeasureHasItsTokens) {
  kiv::ZEM2Reader reader;
  kiv::TokenizerData data;
  kiv::Tokenizer tokenizer;
  ASSERT_TRUE(reader.open(model_.c_str()).ok());
  ASSERT_TRUE(reader.readTokenizer(data));
  ASSERT_TRUE(tokenizer.load(std::move(data)).ok());
  const std::string turn = zemtool::ExactPrompt(tokenizer).turn(20) + "\n";
  EXPECT_EQ(realZem({"plugin", "chat", "-m", model_, "-c", "20"}, turn).status, 0);
  EXPECT_EQ(realZem({"plugin", "chat", "-m", model_, "-c", "19"}, turn).status, 1);
}

TEST_F(EndToEnd, AModelSuitsWhereThereIsADevice) {
  ZEM_NEEDS_SOFTWARE_DEVICE();
  const ProcessResult result = realZem({"plugin", "probe", model_, "--json"}, "", kSoftwareDevice);
  EXPECT_EQ(result.status, 0) << result.err;
  const auto json = nlohmann::json::parse(result.out);
  EXPECT_EQ(json["confidence"], 95);
  EXPECT_EQ(json["architecture"], "qwen35");
}

TEST_F(EndToEnd, AModelLacksADeviceWhereThereIsNone) {
  const ProcessResult result = realZem({"plugin", "probe", model_, "--json"}, "", kNoDrivers);
  EXPECT_EQ(result.status, 0) << result.err;
  const auto json = nlohmann::json::parse(result.out);
  EXPECT_EQ(json["confidence"], 0);
  EXPECT_EQ(json["architecture"], "");
  EXPECT_THAT(json["reason"].get<std::string>(), HasSubstr("no usable Vulkan device"));
}

// The dynamic linker lists every library that is looked for, found or not.
constexpr const char* kVulkanLoader = "file=libvulkan.so";
const Environment kListLibraries = {{"ZEM_NO_VULKAN", ""}, {"LD_DEBUG", "files"}};

TEST_F(EndToEnd, WithoutGpuVulkanStaysOutOfTheProcess) {
  const std::vector<Arguments> commands = {
      {"plugin", "run", "-m", model_, "-p", "Hi", "-c", "2"},
      {"plugin", "chat", "-m", model_},  // ends at once: no input
      {"plugin", "bench", "-m", model_, "-n", "1", "-r", "1"}};
  for (Arguments arguments : commands) {
    arguments.emplace_back("--no-gpu");
    const ProcessResult result = realZem(arguments, "", kListLibraries);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.err, HasSubstr("GPU path unavailable"));
    EXPECT_THAT(result.err, Not(HasSubstr(kVulkanLoader)));
  }
}

// Without this the test above could not fail.
TEST_F(EndToEnd, WithoutAnOptionVulkanIsLookedFor) {
  const ProcessResult result =
      realZem({"plugin", "run", "-m", model_, "-p", "Hi", "-c", "2"}, "", kListLibraries);
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.err, HasSubstr(kVulkanLoader));
}

TEST_F(EndToEnd, ASoftwareDeviceIsLeftAloneUnlessAPlanSaysOtherwise) {
  ZEM_NEEDS_SOFTWARE_DEVICE();
  const ProcessResult result = realZem(
      {"plugin", "bench", "-m", model_, "-n", "1", "-r", "1", "-o", "json"}, "", kSoftwareDevice);
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.err, HasSubstr("is software: using --plan cpu:all"));
  const auto json = nlohmann::json::parse(result.out);
  EXPECT_EQ(json["backend"], "CPU");
  EXPECT_EQ(json["plan"], "cpu:all");
}

TEST_F(EndToEnd, ABenchmarkNamesTheDeviceThatAPlanPutsToWork) {
  ZEM_NEEDS_SOFTWARE_DEVICE();
  const ProcessResult result = realZem({"plugin", "bench", "-m", model_, "-n", "1", "-r", "1", "-o",
                                        "json", "--plan", "gpu:1,cpu:all"},
                                       "", kSoftwareDevice);
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.err, "[qwen35-gpu] layer plan: 1 gpu / 31 cpu layers\n");
  EXPECT_EQ(nlohmann::json::parse(result.out)["backend"],
            "Vulkan: " + softwareDevice() + ", plan gpu:1,cpu:all");
}

TEST_F(EndToEnd, InfoAndTokenizeHaveNothingToWarnOf) {
  const ProcessResult info = realZem({"info", "--tensors", model_});
  EXPECT_EQ(info.status, 0);
  EXPECT_EQ(info.err, "");
  const ProcessResult tokens = realZem({"tokenize", "-m", model_, "-p", "Hello there, world\n"});
  EXPECT_EQ(tokens.status, 0);
  EXPECT_EQ(tokens.err, "tokenizer: the plug-in's\n");
}

TEST_F(EndToEnd, ModelsThatTheRuntimeRefusesAreExplained) {
  const auto refusal = [&](const Bytes& bytes) {
    const ProcessResult result =
        realZem({"plugin", "run", "-m", folder_->write("bad.zem", bytes), "-p", "x"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    return result.err;
  };
  EXPECT_THAT(refusal(Bytes(100)), HasSubstr("zem open failed (ZEM2: bad magic)"));
  EXPECT_THAT(refusal(ContainerBuilder().addMetaStr("general.architecture", "llama").build()),
              HasSubstr("not a qwen35-architecture model (its architecture is \"llama\")"));
  EXPECT_THAT(realZem({"plugin", "run", "-m", folder_->path("missing.zem"), "-p", "x"}).err,
              HasSubstr("zem open failed (No such file or directory)"));
}

// From a published folder to a completion, as a person would.
TEST_F(EndToEnd, AConvertedCheckpointSpeaks) {
  CheckpointBuilder checkpoint;
  checkpoint.tokenizer() = completeTokenizer();
  for (auto& [name, tensor] : checkpoint.tensors()) {
    for (const float value : goldenTensor("spoken", name, tensor.shape)) putF32(tensor.data, value);
  }
  const std::string folder = folder_->path("checkpoint");
  std::filesystem::create_directory(folder);
  checkpoint.write(folder, 2);
  const std::string model = folder_->path("converted.zem");
  const ProcessResult converted = realZem({"convert", folder, "-o", model, "--type", "q8_0"});
  ASSERT_EQ(converted.status, 0) << converted.err;
  EXPECT_EQ(converted.err, "");
  const ProcessResult run = realZem({"plugin", "run", "-m", model, "-p", "the heat", "-c", "8"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_THAT(run.err, HasSubstr("tokens/s"));
  for (const char* tokenizer : {"--exact", "--plugin"}) {
    const ProcessResult tokens =
        realZem({"tokenize", "-m", model, tokenizer, "--ids", "-p", " the\n<think>"});
    EXPECT_EQ(tokens.out, "258 10 273\n");
    EXPECT_EQ(tokens.err, "");
  }
}

TEST_F(EndToEnd, AModelWithWeightsOutsideTheFileFailsWithoutText) {
  const std::string whole = folder_->read("demo.zem");
  Bytes bytes(whole.begin(), whole.end());
  set(bytes, tensorIndex(bytes, "output_norm.weight"), tensor::offset, uint64_t{1} << 40);
  const std::string path = folder_->write("outside.zem", bytes);
  const ProcessResult result = realZem({"plugin", "run", "-m", path, "-p", "x"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(result.err, HasSubstr("output_norm.weight"));
  EXPECT_THAT(realZem({"info", path}).err, HasSubstr("1 of "));
}

TEST_F(EndToEnd, ARealConversationOnATerminal) {
  ZEM_NEEDS_TERMINAL();
  TerminalProcess chat(command({"plugin", "chat", "-m", model_, "-c", "20"}),
                       cliEnvironment(kSurroundings));
  EXPECT_TRUE(chat.shows("> "));
  chat.type("Hello\n");
  EXPECT_TRUE(chat.shows("> "));
  chat.type("/stats\n");
  EXPECT_TRUE(chat.shows("tokens/s"));
  EXPECT_TRUE(chat.shows("> "));
  chat.type("/quit\n");
  EXPECT_EQ(chat.wait(), 0);
  EXPECT_TRUE(chat.isAsFound());
}

}  // namespace
}  // namespace zemtest
