// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include "support/tiny_model.h"
#include "zem/commands/cli_support.h"

namespace zemtest {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

class Bench : public ::testing::Test {
 protected:
  // The name of the model file is the fake plug-in's script.
  ProcessResult run(const std::string& model, const Arguments& more = {}) const {
    Arguments arguments = {"plugin", "bench", "-t",
                           "3",      "-m",    folder_.write(model, smallContainer().build())};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return zem(arguments);
  }
  nlohmann::json json(const std::string& model, const Arguments& more = {}) const {
    Arguments arguments = {"-o", "json"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return nlohmann::json::parse(run(model, arguments).out);
  }

  TempFolder folder_;
};

TEST_F(Bench, PrintsAMarkdownTable) {
  const ProcessResult result = run("m.zem");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out,
            "| model | size | params | backend | threads | test | t/s | GB/s |\n"
            "|---|---:|---:|---|---:|---|---:|---:|\n"
            "| small | 0.000 GiB | 44 | CPU | 3 | tg64 | 500.00 ± 0.00 | 0.00 |\n");
  EXPECT_EQ(result.err, "");
}

TEST_F(Bench, PrintsJson) {
  const auto result = json("m.zem", {"-n", "32", "-r", "2"});
  EXPECT_EQ(result["test"], "tg32");
  EXPECT_EQ(result["repetitions"], nlohmann::json({500.0, 500.0}));
  EXPECT_EQ(result["deviation"], 0.0);
  EXPECT_EQ(result["threads"], 3);
  EXPECT_EQ(result["params"], 44);
  EXPECT_EQ(result["weight_bytes"], 144);
}

TEST_F(Bench, PrintsCsv) {
  const ProcessResult result = run("m.zem", {"-o", "csv"});
  EXPECT_THAT(result.out, StartsWith("model,weight_bytes,params,backend,"));
  EXPECT_THAT(result.out, HasSubstr("\n\"small\",144,44,\"CPU\",3,tg64,500.000000,0.000000,"));
}

TEST_F(Bench, ATiedEmbeddingIsReadAsTheHead) {
  EXPECT_EQ(json("m.zem")["weight_bytes_per_token"], 144);
}

TEST_F(Bench, AnEmbeddingApartIsNotReadWhole) {
  ContainerBuilder builder;
  builder.addTensor("token_embd.weight", kiv::DType::F32, {4, 7}, Bytes(112, 1));
  builder.addTensor("output.weight", kiv::DType::F32, {4, 7}, Bytes(112, 2));
  const std::string model = folder_.write("apart.zem", builder.build());
  const auto result =
      nlohmann::json::parse(zem({"plugin", "bench", "-m", model, "-o", "json"}).out);
  EXPECT_EQ(result["weight_bytes"], 224);
  EXPECT_EQ(result["weight_bytes_per_token"], 112);
  EXPECT_EQ(result["model"], "apart.zem");
}

TEST_F(Bench, ATextThatEndsEarlyIsMeasuredToItsEnd) {
  const ProcessResult result = run("ends.zem");
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.out, HasSubstr("| tg12 |"));
  EXPECT_EQ(result.err,
            "zem: warning: the model ends its text after 12 tokens; measuring these instead of "
            "64\n");
  EXPECT_EQ(run("ends.zem", {"-n", "12"}).err, "");
}

TEST_F(Bench, ATextThatEndsAtOnceIsAFailure) {
  const ProcessResult result = run("mute.zem");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(result.err, HasSubstr("ends its text at once"));
}

TEST_F(Bench, AsManyTokensAsTheRuntimesLoopHasAreMeasured) {
  EXPECT_THAT(run("m.zem", {"-n", "4095"}).out, HasSubstr("| tg4095 | 500.00"));
}

TEST_F(Bench, ARuntimeThatCannotMeasureIsAFailure) {
  const ProcessResult result = run("jammed.zem");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "zem: the benchmark failed: the model cannot process its prompt\n");
}

TEST_F(Bench, ASpeedBeyondTheLastStepsIsDoubted) {
  EXPECT_THAT(run("short.zem", {"-n", "2000"}).err, HasSubstr("end its text early"));
}

TEST_F(Bench, ASpeedThatIsNoNumberIsAWarning) {
  EXPECT_THAT(run("instant.zem").err, HasSubstr("no finite speed"));
}

TEST_F(Bench, NamesFromTheFileStayInTheirCell) {
  const std::string model =
      folder_.write("m.zem", ContainerBuilder().addMetaStr("general.name", "a|b\n\"c\"").build());
  EXPECT_THAT(zem({"plugin", "bench", "-m", model}).out, HasSubstr("| a\\|b\\n\"c\" |"));
  EXPECT_THAT(zem({"plugin", "bench", "-m", model, "-o", "csv"}).out,
              HasSubstr("\n\"a|b\n\"\"c\"\"\","));
}

// Names of all rows, in their order.
std::vector<std::string> names(const nlohmann::json& report) {
  std::vector<std::string> all;
  for (const auto& test : report["tests"]) all.push_back(test["test"]);
  return all;
}

TEST_F(Bench, ListsMakeARowEach) {
  EXPECT_THAT(names(json("m.zem", {"-n", "32,64"})), ElementsAre("tg32", "tg64"));
  EXPECT_EQ(run("m.zem", {"-n", "32,64"}).out,
            "| model | size | params | backend | threads | test | t/s | GB/s |\n"
            "|---|---:|---:|---|---:|---|---:|---:|\n"
            "| small | 0.000 GiB | 44 | CPU | 3 | tg32 | 500.00 ± 0.00 | 0.00 |\n"
            "| small | 0.000 GiB | 44 | CPU | 3 | tg64 | 500.00 ± 0.00 | 0.00 |\n");
}

TEST_F(Bench, TheFirstRowStandsAtTheTopOfJson) {
  const auto result = json("m.zem", {"-n", "32,64"});
  EXPECT_EQ(result["test"], "tg32");
  EXPECT_EQ(result["tests"][0]["repetitions"], result["repetitions"]);
  EXPECT_EQ(result["tests"][1]["kind"], "decode");
  EXPECT_EQ(result["tests"][1]["tokens"], 64);
  EXPECT_EQ(result["tests"][1]["depth"], 0);
}

TEST_F(Bench, EveryTestSeesWhetherTheTextEndsEarly) {
  const ProcessResult result = run("ends.zem", {"-n", "4,20"});
  EXPECT_THAT(result.out, HasSubstr("| tg4 |"));
  EXPECT_THAT(result.out, HasSubstr("| tg12 |"));
  EXPECT_THAT(result.err, HasSubstr("after 12 tokens; measuring these instead of 20"));
}

// ---- prompts and depths, of a plug-in that counts the tokens it is given

class CountingBench : public Bench {
 protected:
  ProcessResult run(const std::string& model, const Arguments& more, int repetitions = 2) const {
    ContainerBuilder builder;
    builder.addMetaStr("general.name", "tiny").tokenizer(tinyTokenizer());
    builder.addTensor("token_embd.weight", kiv::DType::F32, {4, 7}, Bytes(112, 1));
    Arguments arguments = {"plugin", "bench",
                           "-m",     folder_.write(model, builder.build()),
                           "-r",     std::to_string(repetitions)};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return zem(arguments);
  }
  nlohmann::json json(const std::string& model, Arguments more) const {
    more.insert(more.end(), {"-o", "json"});
    return nlohmann::json::parse(run(model, more).out);
  }
  // Tokens of an empty turn in this vocabulary.
  static int frameTokens() {
    kiv::Tokenizer tokenizer;
    std::vector<int32_t> ids;
    EXPECT_TRUE(tokenizer.load(tinyTokenizer()).ok());
    EXPECT_TRUE(
        tokenizer.encode("<|im_start|>user\n<|im_end|>\n<|im_start|>assistant\n", ids, true).ok());
    return static_cast<int>(ids.size());
  }
};

TEST_F(CountingBench, APromptHasItsTokensAndNothingIsGenerated) {
  const ProcessResult result = run("counts.zem", {"-p", "200", "-o", "csv"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err,
            "prompt: 64 tokens, context 64\n"
            "prompt: 200 tokens, context 200\n"
            "prompt: 200 tokens, context 200\n");
  // 100 tokens of half a millisecond and 100 of one.
  EXPECT_THAT(result.out, HasSubstr(",pp200,1333.333333,0.000000,\n"));
}

TEST_F(CountingBench, ShortPromptsAreExactToo) {
  EXPECT_EQ(run("counts.zem", {"-p", "1,65"}).err,
            "prompt: 1 tokens, context 1\n"
            "prompt: 1 tokens, context 1\n"
            "prompt: 1 tokens, context 1\n"
            "prompt: 64 tokens, context 64\n"
            "prompt: 65 tokens, context 65\n"
            "prompt: 65 tokens, context 65\n");
}

TEST_F(CountingBench, APromptHasNoRateOfWeights) {
  const auto result = json("counts.zem", {"-p", "8"});
  EXPECT_TRUE(result["gigabytes_per_second"].is_null());
  EXPECT_EQ(result["tokens_per_second"], 2000.0);
  EXPECT_EQ(result["tests"][0]["kind"], "prompt");
  EXPECT_THAT(run("counts.zem", {"-p", "8"}).out, HasSubstr("| pp8 | 2000.00 ± 0.00 | - |\n"));
}

TEST_F(CountingBench, RowsComeByDepthPromptsFirst) {
  EXPECT_THAT(names(json("counts.zem", {"-p", "60,70", "-n", "3", "-d", "0,90"})),
              ElementsAre("pp60", "pp70", "tg3", "pp60 @ d90", "pp70 @ d90", "tg3 @ d90"));
  EXPECT_THAT(names(json("counts.zem", {"-p", "60"})), ElementsAre("pp60"));
  EXPECT_THAT(names(json("counts.zem", {"-d", "90"})), ElementsAre("tg64 @ d90"));
}

TEST_F(CountingBench, APromptAtADepthIsTimedWithoutTheDepth) {
  const ProcessResult result = run("counts.zem", {"-p", "50", "-d", "100", "-o", "csv"});
  EXPECT_EQ(result.err,
            "turn: 100 tokens at 0\nturn: 50 tokens at 100\n"
            "turn: 100 tokens at 0\nturn: 50 tokens at 100\n");
  EXPECT_THAT(result.out, HasSubstr(",pp50 @ d100,1000.000000,0.000000,\n"));
}

TEST_F(CountingBench, DecodingAtADepthIsTimedByItsPieces) {
  const ProcessResult result = run("counts.zem", {"-n", "20", "-d", "100"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "turn: 100 tokens at 0\nturn: 100 tokens at 0\n");
  const auto test = json("counts.zem", {"-n", "20", "-d", "100"})["tests"][0];
  EXPECT_EQ(test["test"], "tg20 @ d100");
  EXPECT_EQ(test["depth"], 100);
  // Pieces come a millisecond apart, or later.
  EXPECT_GT(test["tokens_per_second"], 0.0);
  EXPECT_LE(test["tokens_per_second"], 1000.0);
  EXPECT_FALSE(test["gigabytes_per_second"].is_null());
}

TEST_F(CountingBench, MoreTokensThanAReplyHasTakeSeveralTurns) {
  const ProcessResult result = run("counts.zem", {"-n", "200", "-d", "100"}, 1);
  EXPECT_EQ(result.status, 0);
  const std::string frame = std::to_string(frameTokens());
  EXPECT_EQ(result.err,
            "turn: 100 tokens at 0\n"
            "turn: " +
                frame +
                " tokens at 195\n"
                "turn: " +
                frame + " tokens at " + std::to_string(290 + frameTokens()) + "\n");
  EXPECT_THAT(result.out, HasSubstr("| tg200 @ d100 |"));
}

TEST_F(CountingBench, RepliesThatEndEarlyAreContinued) {
  const ProcessResult result = run("counts-brief.zem", {"-n", "20", "-d", "100"}, 1);
  EXPECT_EQ(result.status, 0);
  const int frame = frameTokens();
  EXPECT_EQ(result.err,
            "turn: 100 tokens at 0\n"
            "turn: " +
                std::to_string(frame) +
                " tokens at 110\n"
                "turn: " +
                std::to_string(frame) + " tokens at " + std::to_string(120 + frame) + "\n");
  EXPECT_THAT(result.out, HasSubstr("| tg20 @ d100 |"));
}

TEST_F(CountingBench, RepliesThatFillTheContextAreMeasuredAsFarAsTheyWent) {
  const ProcessResult result = run("counts-brief.zem", {"-n", "90", "-d", "8100"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.err, HasSubstr("fill the context; measuring 36 tokens instead of 90"));
  EXPECT_THAT(result.out, HasSubstr("| tg36 @ d8100 |"));
}

TEST_F(CountingBench, AModelWithoutReplyIsAFailure) {
  const ProcessResult result = run("counts-silent.zem", {"-d", "100"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(result.err, HasSubstr("ends its text at once at a depth of 100"));
}

TEST_F(CountingBench, TheContextIsUsedToItsEnd) {
  const ProcessResult whole = run("counts.zem", {"-n", "64", "-d", "8128"}, 1);
  EXPECT_EQ(whole.status, 0) << whole.err;
  EXPECT_THAT(whole.out, HasSubstr("| tg64 @ d8128 |"));
  EXPECT_EQ(run("counts.zem", {"-p", "92", "-d", "8100"}, 1).status, 0);
}

TEST_F(CountingBench, TheFramesOfFurtherTurnsNeedRoomToo) {
  const ProcessResult result = run("counts.zem", {"-n", "192", "-d", "8000"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(result.err, HasSubstr("tg192 @ d8000 needs " +
                                    std::to_string(8192 + 2 * frameTokens()) + " positions"));
}

TEST_F(CountingBench, ADepthBelowATurnsFrameIsAFailure) {
  const ProcessResult result = run("counts.zem", {"-d", "3"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(result.err, HasSubstr("a turn of 3 tokens cannot be made"));
}

TEST_F(CountingBench, ARuntimeThatCountsOtherwiseIsAFailure) {
  const ProcessResult result = run("miscounts.zem", {"-p", "80"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("counts fewer than 80 tokens"));
}

TEST_F(CountingBench, AModelWithoutVocabularyHasNoPrompts) {
  const std::string model = folder_.write("bare.zem", ContainerBuilder().tokenizer({}).build());
  const ProcessResult result = zem({"plugin", "bench", "-m", model, "-p", "8"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(result.err, HasSubstr("bare.zem"));
}

// ---- threads

TEST_F(Bench, AListOfThreadsIsMeasuredInItsOrder) {
  const ProcessResult result =
      zem({"plugin", "bench", "-m", folder_.write("m.zem", smallContainer().build()), "-t", "2,1,4",
           "-o", "csv"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "threads: 2\nthreads: 1\nthreads: 4\n");
  EXPECT_THAT(result.out, HasSubstr("\"CPU\",2,tg64,"));
  EXPECT_THAT(result.out, HasSubstr("\"CPU\",1,tg64,"));
  EXPECT_THAT(result.out, HasSubstr("\"CPU\",4,tg64,"));
}

TEST_F(Bench, OneNumberOfThreadsIsLeftToTheEnvironment) { EXPECT_EQ(run("m.zem").err, ""); }

TEST_F(Bench, AListOfThreadsNeedsAnOpenMpLibraryWithinReach) {
  const std::string plugin = testPlugin("fake_plugin_without_openmp");
  const std::string model = folder_.write("m.zem", smallContainer().build());
  const ProcessResult result =
      zem({"plugin", "bench", "-m", model, "-t", "1,2", "--plugin", plugin});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(result.err, HasSubstr("use a single number with -t"));
  EXPECT_EQ(zem({"plugin", "bench", "-m", model, "-t", "2", "--plugin", plugin}).status, 0);
}

// ---- the memory's speed

TEST_F(Bench, RooflineAddsColumns) {
  const ProcessResult table = run("m.zem", {"--roofline"});
  EXPECT_THAT(table.out,
              StartsWith("| model | size | params | backend | threads | test | t/s | GB/s | read "
                         "GB/s | share |\n|---|---:|---:|---|---:|---|---:|---:|---:|---:|\n"));
  EXPECT_THAT(table.out, HasSubstr(" % |\n"));
  const ProcessResult csv = run("m.zem", {"--roofline", "-o", "csv"});
  EXPECT_THAT(csv.out, HasSubstr(",gigabytes_per_second,read_gigabytes_per_second,read_share\n"));
}

TEST_F(Bench, TheShareIsOfTheReadSpeed) {
  const auto result = json("m.zem", {"--roofline"});
  constexpr double kGigabytes = 500 * 144 / 1e9;  // 500 tokens a second of 144 bytes each
  const double read = result["read_gigabytes_per_second"];
  EXPECT_GT(read, 0.01);
  EXPECT_DOUBLE_EQ(result["gigabytes_per_second"], kGigabytes);
  EXPECT_DOUBLE_EQ(result["read_share"], kGigabytes / read);
  EXPECT_EQ(result["tests"][0]["read_share"], result["read_share"]);
}

TEST_F(CountingBench, PromptsHaveNoShare) {
  const auto tests = json("counts.zem", {"--roofline", "-p", "8", "-n", "4", "-d", "0"})["tests"];
  EXPECT_TRUE(tests[0]["read_share"].is_null());
  EXPECT_FALSE(tests[1]["read_share"].is_null());
  EXPECT_EQ(tests[0]["read_gigabytes_per_second"], tests[1]["read_gigabytes_per_second"]);
}

TEST_F(Bench, WithoutRooflineThereIsNoReadSpeed) {
  EXPECT_FALSE(json("m.zem").contains("read_gigabytes_per_second"));
}

TEST_F(Bench, ADeviceHasNoShareOfTheProcessorsMemory) {
  ZEM_NEEDS_SOFTWARE_DEVICE();
  const std::string model = folder_.write("m.zem", smallContainer().build());
  const ProcessResult result = zem({"plugin", "bench", "-m", model, "--plan", "gpu:all",
                                    "--roofline", "-o", "json", "-t", "1,2"},
                                   "", kSoftwareDevice);
  EXPECT_TRUE(nlohmann::json::parse(result.out)["read_share"].is_null());
  const size_t first = result.err.find("no share is given");
  EXPECT_NE(first, std::string::npos);
  EXPECT_EQ(result.err.find("no share is given", first + 1), std::string::npos);
}

// ---- on a terminal

TEST_F(Bench, ProgressNeedsATerminal) {
  ZEM_NEEDS_PLAIN_TERMINAL();
  TerminalProcess process(
      command({"plugin", "bench", "-m", folder_.write("m.zem", smallContainer().build())}),
      cliEnvironment());
  EXPECT_TRUE(process.shows("tg64: 5 of 5"));
  EXPECT_EQ(process.wait(), 0);
}

TEST_F(CountingBench, CtrlCEndsAtOnceAndLeavesTheRowsAndNoRemains) {
  ZEM_NEEDS_PLAIN_TERMINAL();
  ContainerBuilder builder;
  builder.tokenizer(tinyTokenizer());
  const std::string model = folder_.write("counts.zem", builder.build());
  TerminalProcess process(
      command({"plugin", "bench", "-m", model, "-n", "90", "-d", "0,100", "-r", "1000"}),
      cliEnvironment());
  EXPECT_TRUE(process.shows("| tg90 |"));
  EXPECT_TRUE(process.shows("tg90 @ d100: 2 of 1000"));
  process.send(SIGINT);
  EXPECT_EQ(process.wait(), 128 + SIGINT);
  EXPECT_TRUE(process.shown().ends_with("\r\033[K"));
}

}  // namespace
}  // namespace zemtest
