// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include "cli_support.h"

namespace zemtest {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

const Arguments kCommands = {"run",     "chat",     "serve",  "bench",   "perplexity",
                             "info",    "tokenize", "render", "devices", "make-demo",
                             "convert", "compare",  "plugin"};
const Arguments kPluginCommands = {"run", "chat", "bench", "probe"};

TEST(Usage, BareZemPrintsHelp) {
  const ProcessResult result = zem({});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  for (const std::string& name : kCommands) EXPECT_THAT(result.out, HasSubstr("\n  " + name));
  EXPECT_EQ(zem({"--help"}).out, result.out);
}

TEST(Usage, EveryCommandHasHelpWithAnExample) {
  for (const std::string& name : kCommands) {
    const ProcessResult result = zem({name, "--help"});
    EXPECT_EQ(result.status, 0) << name;
    EXPECT_EQ(result.err, "") << name;
    EXPECT_THAT(result.out, AllOf(HasSubstr("Example"), HasSubstr("zem " + name))) << name;
  }
}

TEST(Usage, EveryCommandOfACommandHasHelpWithAnExample) {
  for (const std::string& name : kPluginCommands) {
    const ProcessResult result = zem({"plugin", name, "--help"});
    EXPECT_EQ(result.status, 0) << name;
    EXPECT_THAT(result.out, AllOf(HasSubstr("Example"), HasSubstr("zem plugin " + name))) << name;
  }
}

TEST(Usage, CommandWithoutItsCommandPrintsHelp) {
  const ProcessResult result = zem({"plugin"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  for (const std::string& name : kPluginCommands) EXPECT_THAT(result.out, HasSubstr("\n  " + name));
}

TEST(Usage, VersionNamesThePlugin) {
  const ProcessResult result = zem({"--version"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "zem 0.2.0\nfake version 7 (" + kFakePlugin + ")\n");
}

TEST(Usage, VersionNeedsNoPlugin) {
  const ProcessResult result = zem({"--version"}, "", {{"ZEM_PLUGIN", "/nonexistent.so"}});
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.out, StartsWith("zem 0.2.0\n"));
  EXPECT_EQ(result.err, "");
}

struct BadUsage {
  const char* name;
  Arguments arguments;
  const char* says;
};

class BadUsageTest : public ::testing::TestWithParam<BadUsage> {};

TEST_P(BadUsageTest, IsOneLineAndStatus2) {
  const ProcessResult result = zem(GetParam().arguments);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(result.err, AllOf(StartsWith("zem: "), HasSubstr(GetParam().says)));
  EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, BadUsageTest,
    ::testing::Values(
        BadUsage{"UnknownCommand", {"frobnicate"}, "frobnicate"},
        BadUsage{"UnknownCommandOfACommand", {"plugin", "frobnicate"}, "(see `zem plugin --help`)"},
        BadUsage{"HelpOfACommandOfACommand", {"plugin", "run", "-m"}, "`zem plugin run --help`"},
        BadUsage{"RunWithoutAModel", {"run", "-p", "x"}, "--model is required"},
        BadUsage{"RunOfIdsAndAText", {"run", "-m", "m", "-p", "x", "--ids", "1"}, "--ids excludes"},
        BadUsage{"RunOfIdsInAChat", {"run", "-m", "m", "--chat", "--ids", "1"}, "--ids excludes"},
        BadUsage{"RunOfWords", {"run", "-m", "m", "--ids", "a"}, "--ids: \"a\" is not a whole"},
        BadUsage{"RunAsChatAndText", {"run", "-m", "m", "--raw", "--chat"}, "excludes"},
        BadUsage{"LogprobsWithoutJson", {"run", "-m", "m", "--logprobs", "2"}, "needs --json"},
        BadUsage{"TooManyLogprobs", {"run", "-m", "m", "--logprobs", "1001"}, "from 0 to 1000"},
        BadUsage{"RunTooHot", {"run", "-m", "m", "--temp", "101"}, "\"101\" is not a number from"},
        BadUsage{"RunWithNanAsTopP", {"run", "-m", "m", "--top-p", "nan"}, "--top-p"},
        BadUsage{"RunOfMinusTwoTokens", {"run", "-m", "m", "-n", "-2"}, "--tokens"},
        BadUsage{"RunWithANegativeSeed", {"run", "-m", "m", "-s", "-1"}, "--seed: \"-1\" is not"},
        BadUsage{"CacheOfNoType", {"chat", "-m", "m", "--cache", "f8"}, "--cache"},
        BadUsage{"ThinkPerhaps", {"chat", "-m", "m", "--think", "maybe"}, "--think"},
        BadUsage{"ServePort", {"serve", "-m", "m", "--port", "65536"}, "--port"},
        BadUsage{"ServeLog", {"serve", "-m", "m", "--log", "xml"}, "--log"},
        BadUsage{"OldProbe", {"probe", "m.zem"}, "`zem probe` is now `zem plugin probe`"},
        BadUsage{"UnknownOption", {"plugin", "run", "-m", "m.zem", "-p", "x", "--frob"}, "--frob"},
        BadUsage{"NoModel", {"plugin", "run", "-p", "x"}, "--model"},
        BadUsage{"NoFile", {"info"}, "file"},
        BadUsage{"NegativeTemperature",
                 {"plugin", "run", "-m", "m", "-p", "x", "--temp", "-1"},
                 "--temp"},
        BadUsage{
            "NanTemperature", {"plugin", "run", "-m", "m", "-p", "x", "--temp", "nan"}, "--temp"},
        BadUsage{"InfiniteTemperature",
                 {"plugin", "run", "-m", "m", "-p", "x", "--temp", "inf"},
                 "--temp"},
        BadUsage{
            "TopPAboveOne", {"plugin", "run", "-m", "m", "-p", "x", "--top-p", "1.5"}, "--top-p"},
        BadUsage{
            "TopPBelowZero", {"plugin", "run", "-m", "m", "-p", "x", "--top-p", "-0.5"}, "--top-p"},
        BadUsage{
            "TopKBelowZero", {"plugin", "run", "-m", "m", "-p", "x", "--top-k", "-1"}, "--top-k"},
        BadUsage{"ContextZero", {"plugin", "run", "-m", "m", "-p", "x", "-c", "0"}, "--ctx-size"},
        BadUsage{
            "ContextTooLarge", {"plugin", "run", "-m", "m", "-p", "x", "-c", "8193"}, "--ctx-size"},
        BadUsage{"ThreadsZero", {"plugin", "run", "-m", "m", "-p", "x", "-t", "0"}, "--threads"},
        BadUsage{"SeedNegative", {"plugin", "run", "-m", "m", "-p", "x", "-s", "-4"}, "--seed"},
        BadUsage{"PlanWithSemicolon",
                 {"plugin", "run", "-m", "m", "-p", "x", "--plan", "a;kv=q8_0"},
                 "';'"},
        BadUsage{"PlanWithoutGpu",
                 {"plugin", "run", "-m", "m", "-p", "x", "--no-gpu", "--plan", "gpu:all"},
                 "--no-gpu"},
        BadUsage{"EmptyPlanWithoutGpu",
                 {"plugin", "bench", "-m", "m", "--plan", "", "--no-gpu"},
                 "--plan"},
        BadUsage{"ChatPlanWithoutGpu",
                 {"plugin", "chat", "-m", "m", "--plan", "cpu:all", "--no-gpu"},
                 "excludes"},
        BadUsage{"PromptTwice", {"plugin", "run", "-m", "m", "-p", "x", "-f", "y"}, "--prompt"},
        BadUsage{"BenchOfNothing", {"plugin", "bench", "-m", "m", "-n", "0"}, "--tokens"},
        BadUsage{"BenchTooLong", {"plugin", "bench", "-m", "m", "-n", "4096"}, "--tokens"},
        BadUsage{"BenchOfNoPrompt",
                 {"plugin", "bench", "-m", "m", "-p", "0"},
                 "--prompt: \"0\" is not a"},
        BadUsage{
            "BenchOfWords", {"plugin", "bench", "-m", "m", "-p", "x"}, "--prompt: \"x\" is not a"},
        BadUsage{
            "BenchOfALongPrompt", {"plugin", "bench", "-m", "m", "-p", "8193"}, "from 1 to 8192"},
        BadUsage{"BenchOfAGap",
                 {"plugin", "bench", "-m", "m", "-p", "1,,2"},
                 "\"\" in \"1,,2\" is not a"},
        BadUsage{"BenchOfALooseEnd",
                 {"plugin", "bench", "-m", "m", "-n", "4,"},
                 "--tokens: \"\" in \"4,\""},
        BadUsage{
            "BenchOfAList", {"plugin", "bench", "-m", "m", "-n", "4,5 6"}, "\"5 6\" in \"4,5 6\""},
        BadUsage{"BenchOfNoList", {"plugin", "bench", "-m", "m", "-n", ""}, "--tokens"},
        BadUsage{"BenchOfHugeNumbers",
                 {"plugin", "bench", "-m", "m", "-n", "99999999999"},
                 "from 1 to 4095"},
        BadUsage{"BenchBelowTheStart",
                 {"plugin", "bench", "-m", "m", "-d", "-1"},
                 "--depth: \"-1\" is not"},
        BadUsage{"BenchAtTheEnd", {"plugin", "bench", "-m", "m", "-d", "0,8192"}, "from 0 to 8191"},
        BadUsage{
            "BenchOnNoThreads", {"plugin", "bench", "-m", "m", "-t", "2,0"}, "--threads: \"0\" in"},
        BadUsage{"BenchBeyondTheContext",
                 {"plugin", "bench", "-m", "m", "-d", "8129"},
                 "tg64 @ d8129 needs 8193 positions, and a conversation of this runtime has at "
                 "most 8192"},
        BadUsage{"BenchOfAPromptBeyondTheContext",
                 {"plugin", "bench", "-m", "m", "-d", "0,1", "-p", "1,8192"},
                 "pp8192 @ d1 needs 8193 positions"},
        BadUsage{"BenchInNoFormat", {"plugin", "bench", "-m", "m", "-o", "xml"}, "--output"},
        BadUsage{"DemoWithoutName", {"make-demo"}, "output is required (see `zem make-demo"},
        BadUsage{"DemoOfNoSize", {"make-demo", "d.zem", "--size", "huge"}, "--size: huge not in"},
        BadUsage{"DemoOfNoType", {"make-demo", "d.zem", "--type", "q5_k_m"}, "--type: q5_k_m not"},
        BadUsage{"DemoOfANegativeSeed",
                 {"make-demo", "d.zem", "--seed", "-1"},
                 "--seed: \"-1\" is not a seed: a whole number from 0"},
        BadUsage{"ConvertWithoutInput", {"convert", "-o", "m.zem"}, "input is required"},
        BadUsage{"ConvertWithoutOutput", {"convert", "folder"}, "--output is required"},
        BadUsage{"ConvertToNoType", {"convert", "f", "-o", "m", "--type", "q3"}, "--type: q3 not"},
        BadUsage{"ConvertOnNoThreads", {"convert", "f", "-o", "m", "-t", "0"}, "--threads"},
        BadUsage{"CompareOne", {"compare", "a.zem"}, "second is required"},
        BadUsage{"CompareThree", {"compare", "a", "b", "c"}, "c"},
        BadUsage{"CompareTwoTexts", {"compare", "a", "b", "-p", "x", "-f", "y"}, "excludes"},
        BadUsage{"OneOptionWithoutItsValue", {"plugin", "run", "-m"}, "--model"},
        BadUsage{"AnotherCommandAfterOne", {"devices", "run"}, "run"},
        BadUsage{"IdsAndJson", {"tokenize", "-m", "m", "-p", "x", "--ids", "--json"}, "--json"},
        BadUsage{"TwoTokenizers", {"tokenize", "-m", "m", "--exact", "--plugin"}, "--exact"},
        BadUsage{"DecodeToIds", {"tokenize", "-m", "m", "--decode", "--ids"}, "--decode"},
        BadUsage{"DecodeToJson", {"tokenize", "-m", "m", "--decode", "--json"}, "--decode"},
        BadUsage{"SelfTestOfThePlugin", {"tokenize", "-m", "m", "--self-test", "--plugin"}, "self"},
        BadUsage{"SelfTestWithAText", {"tokenize", "-m", "m", "--self-test", "-p", ""}, "its own"},
        BadUsage{"RenderWithoutATemplate", {"render", "-"}, "a chat template is needed: -m"},
        BadUsage{"RenderAsNoRevision",
                 {"render", "-", "--chat-template", "x"},
                 "\"x\" is none of qwen3.5, qwen3.5-small,"},
        BadUsage{"SegmentsOfLines", {"render", "-", "--segments", "--lines"}, "excludes"}),
    [](const auto& test) { return test.param.name; });

struct BadPlugin {
  const char* name;
  std::string path;
  const char* says;
};

class BadPluginTest : public ::testing::TestWithParam<BadPlugin> {};

TEST_P(BadPluginTest, IsOneLineAndStatus1) {
  const ProcessResult result =
      zem({"plugin", "run", "-m", "m.zem", "-p", "x", "--plugin", GetParam().path});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(result.err, AllOf(StartsWith("zem: "), HasSubstr(GetParam().says)));
  EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, BadPluginTest,
    ::testing::Values(BadPlugin{"Missing", "/nonexistent/plugin.so", "cannot load the plug-in"},
                      BadPlugin{"NoLibrary", __FILE__, "cannot load the plug-in"},
                      BadPlugin{"WithoutExports", testPlugin("plugin_without_exports"),
                                "does not export zem_plugin_init"},
                      BadPlugin{"OfAnotherVersion", testPlugin("fake_plugin_of_old_version"),
                                "version 2, this host needs 3"}),
    [](const auto& test) { return test.param.name; });

TEST(Plugin, AnOptionBeatsTheEnvironment) {
  const ProcessResult result =
      zem({"plugin", "run", "-m", "m.zem", "-p", "x", "--plugin", kFakePlugin}, "",
          {{"ZEM_PLUGIN", "/nonexistent.so"}});
  EXPECT_EQ(result.out, "<x>\n");
}

TEST(Plugin, ABareNameIsAFileOfThisFolder) {
  const ProcessResult result = runProcess(
      {"/bin/sh", "-c",
       "cd '" + kBuild + "/tests' && exec '" + kZem + "' plugin run -m m -p x --plugin " +
           kFakePlugin.substr(kFakePlugin.rfind('/') + 1)},
      "", cliEnvironment());
  EXPECT_EQ(result.out, "<x>\n") << result.err;
}

TEST(Output, AFullDiskIsAFailure) {
  const ProcessResult result =
      runProcess({"/bin/sh", "-c", "exec '" + kZem + "' plugin run -m m -p x > /dev/full"}, "",
                 cliEnvironment());
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("zem: cannot write to standard output: No space left"));
}

TEST(Output, AClosedStreamIsAFailure) {
  const ProcessResult result = runProcess(
      {"/bin/sh", "-c", "exec '" + kZem + "' plugin run -m m -p x >&-"}, "", cliEnvironment());
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("zem: cannot write to standard output: Bad file descriptor"));
}

// The model file would be the first to get its number.
TEST(Output, NoMessageEndsInAFileInThePlaceOfAClosedStandardError) {
  const TempFolder folder;
  const ProcessResult made =
      runProcess({"/bin/sh", "-c",
                  "exec '" + kZem + "' make-demo '" + folder.path("open.zem") + "' >/dev/null"},
                 "", cliEnvironment());
  const ProcessResult closed = runProcess(
      {"/bin/sh", "-c",
       "exec '" + kZem + "' make-demo '" + folder.path("closed.zem") + "' >/dev/null 2>&-"},
      "", cliEnvironment());
  EXPECT_EQ(made.status, 0) << made.err;
  EXPECT_EQ(closed.status, 0);
  EXPECT_TRUE(folder.read("open.zem") == folder.read("closed.zem"));
}

// Whether a closed pipe kills or is an error is inherited: both must be quiet.
TEST(Output, AClosedPipeIsQuiet) {
  for (const std::string trap : {"", "trap '' PIPE; "}) {
    const ProcessResult result =
        runProcess({"/bin/sh", "-c", trap + "(sleep 0.3; exec '" + kZem + "' --help) | true"}, "",
                   cliEnvironment());
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, "");
  }
}

}  // namespace
}  // namespace zemtest
