#include <gmock/gmock.h>

#include "cli_support.h"

namespace zemtest {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

class Bench : public ::testing::Test {
 protected:
  // The name of the model file is the fake plug-in's script.
  ProcessResult run(const std::string& model, const Arguments& more = {}) const {
    Arguments arguments = {"bench", "-t", "3", "-m",
                           folder_.write(model, smallContainer().build())};
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
  const auto result = nlohmann::json::parse(zem({"bench", "-m", model, "-o", "json"}).out);
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

TEST_F(Bench, ASpeedBeyondTheLastStepsIsDoubted) {
  EXPECT_THAT(run("short.zem", {"-n", "2000"}).err, HasSubstr("end its text early"));
}

TEST_F(Bench, ASpeedThatIsNoNumberIsAWarning) {
  EXPECT_THAT(run("instant.zem").err, HasSubstr("no finite speed"));
}

TEST_F(Bench, NamesFromTheFileStayInTheirCell) {
  const std::string model =
      folder_.write("m.zem", ContainerBuilder().addMetaStr("general.name", "a|b\n\"c\"").build());
  EXPECT_THAT(zem({"bench", "-m", model}).out, HasSubstr("| a\\|b\\n\"c\" |"));
  EXPECT_THAT(zem({"bench", "-m", model, "-o", "csv"}).out, HasSubstr("\n\"a|b\n\"\"c\"\"\","));
}

TEST_F(Bench, ProgressNeedsATerminal) {
  ZEM_NEEDS_TERMINAL();
  TerminalProcess process(
      command({"bench", "-m", folder_.write("m.zem", smallContainer().build())}), cliEnvironment());
  EXPECT_TRUE(process.shows("tg64: 5 of 5"));
  EXPECT_EQ(process.wait(), 0);
}

}  // namespace
}  // namespace zemtest
