// SPDX-License-Identifier: Apache-2.0
// --plan and --no-gpu: what reaches the runtime, what is said, and what a report names.
#include <gmock/gmock.h>

#include "zem/commands/cli_support.h"

namespace zemtest {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

constexpr const char* kPrintsHint[] = {"plugin", "run", "-m", "m.zem", "-p", "hint"};

Arguments printHint(const Arguments& more) {
  Arguments arguments(std::begin(kPrintsHint), std::end(kPrintsHint));
  arguments.insert(arguments.end(), more.begin(), more.end());
  return arguments;
}

std::string softwareLine() {
  return "zem: the device " + softwareDevice() +
         " is software: using --plan cpu:all (--plan gpu:all uses it anyway)\n";
}

TEST(GpuChoice, ASoftwareDeviceGetsThePlanThatLeavesItAlone) {
  ZEM_NEEDS_SOFTWARE_DEVICE();
  const ProcessResult result = zem(printHint({"-c", "7"}), "", kSoftwareDevice);
  EXPECT_EQ(result.out, "zem;ctx=7;plan=cpu:all\n");
  EXPECT_THAT(result.err, StartsWith(softwareLine() + "96 tokens"));
}

TEST(GpuChoice, AChatSaysItOnce) {
  ZEM_NEEDS_SOFTWARE_DEVICE();
  const ProcessResult result =
      zem({"plugin", "chat", "-m", "m.zem"}, "one\n/clear\ntwo\n", kSoftwareDevice);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, softwareLine() + "(new conversation)\n");
}

TEST(GpuChoice, AGivenPlanIsPassedOnWithoutAWord) {
  for (const std::string plan : {"gpu:all", "cpu:all", "gpu:1,cpu:all"}) {
    const ProcessResult result = zem(printHint({"--plan", plan}), "", kSoftwareDevice);
    EXPECT_EQ(result.out, "zem;plan=" + plan + "\n");
    EXPECT_THAT(result.err, Not(HasSubstr("zem: ")));
  }
  const ProcessResult result = zem(printHint({"--plan", ""}), "", kSoftwareDevice);
  EXPECT_EQ(result.out, "zem\n");
  EXPECT_THAT(result.err, Not(HasSubstr("zem: ")));
}

TEST(GpuChoice, NoDeviceNoPlanAndNoWord) {
  for (const Environment& none : {kNoDrivers, Environment{{"ZEM_NO_VULKAN", "1"}}}) {
    const ProcessResult result = zem(printHint({}), "", none);
    EXPECT_EQ(result.out, "zem\n");
    EXPECT_THAT(result.err, Not(HasSubstr("zem: ")));
  }
}

TEST(GpuChoice, NoGpuIsNoPlanAndReachesThePlugin) {
  const ProcessResult result = zem(printHint({"--no-gpu"}), "", kSoftwareDevice);
  EXPECT_EQ(result.out, "zem\n");
  EXPECT_THAT(result.err, Not(HasSubstr("zem: ")));
  const Arguments ask = {"plugin", "run", "-m", "m.zem", "-p", "vulkan"};
  EXPECT_EQ(zem(ask, "", kWithVulkan).out, "on\n");
  Arguments without = ask;
  without.emplace_back("--no-gpu");
  EXPECT_EQ(zem(without, "", kWithVulkan).out, "off\n");
}

// ---- the backend of a report

class Backend : public ::testing::Test {
 protected:
  ProcessResult bench(const std::string& model, const Arguments& more,
                      const Environment& environment = kSoftwareDevice) const {
    Arguments arguments = {"plugin", "bench", "-m", folder_.write(model, smallContainer().build()),
                           "-n",     "8",     "-r", "1",
                           "-t",     "1"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return zem(arguments, "", environment);
  }
  nlohmann::json json(const std::string& model, const Arguments& more,
                      const Environment& environment = kSoftwareDevice) const {
    Arguments arguments = {"-o", "json"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return nlohmann::json::parse(bench(model, arguments, environment).out);
  }

  TempFolder folder_;
};

TEST_F(Backend, IsTheDeviceThatComputes) {
  ZEM_NEEDS_SOFTWARE_DEVICE();
  const std::string name = "Vulkan: " + softwareDevice();
  const auto all = json("m.zem", {"--plan", "gpu:all"});
  EXPECT_EQ(all["backend"], name);
  EXPECT_EQ(all["plan"], "gpu:all");
  const auto unplanned = json("m.zem", {"--plan", ""});
  EXPECT_EQ(unplanned["backend"], name);
  EXPECT_EQ(unplanned["plan"], "");
  EXPECT_EQ(json("m.zem", {"--plan", "gpu:1,cpu:all"})["backend"], name + ", plan gpu:1,cpu:all");
}

TEST_F(Backend, StandsInEveryFormat) {
  ZEM_NEEDS_SOFTWARE_DEVICE();
  const std::string name = "Vulkan: " + softwareDevice() + ", plan gpu:1,cpu:all";
  EXPECT_THAT(bench("m.zem", {"--plan", "gpu:1,cpu:all"}).out,
              HasSubstr(" | " + name + " | 1 | tg8 |"));
  EXPECT_THAT(bench("m.zem", {"--plan", "gpu:1,cpu:all", "-o", "csv"}).out,
              HasSubstr(",\"" + name + "\",1,tg8,"));
}

TEST_F(Backend, IsTheCpuWhenThePlanLeavesNothingToTheGpu) {
  ZEM_NEEDS_SOFTWARE_DEVICE();
  EXPECT_EQ(json("m.zem", {"--plan", "cpu:all"})["backend"], "CPU");
}

TEST_F(Backend, IsTheCpuWhereTheOnlyDeviceIsSoftware) {
  ZEM_NEEDS_SOFTWARE_DEVICE();
  const ProcessResult result = bench("m.zem", {});
  EXPECT_THAT(result.out, HasSubstr("| CPU |"));
  EXPECT_EQ(result.err, softwareLine());
}

TEST_F(Backend, IsTheCpuWithoutADeviceAndWithoutGpu) {
  EXPECT_EQ(json("m.zem", {}, kNoDrivers)["backend"], "CPU");
  EXPECT_EQ(json("m.zem", {"--no-gpu"})["backend"], "CPU");
  EXPECT_EQ(json("m.zem", {}, {{"ZEM_NO_VULKAN", "1"}})["backend"], "CPU");
}

TEST_F(Backend, AClosedStandardErrorIsNoHindrance) {
  const std::string model = folder_.write("m.zem", smallContainer().build());
  const ProcessResult result = runProcess(
      {"/bin/sh", "-c", "exec '" + kZem + "' plugin bench --plan cpu:all -m '" + model + "' 2>&-"},
      "", cliEnvironment(kSoftwareDevice));
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.out, HasSubstr("| CPU |"));
}

}  // namespace
}  // namespace zemtest
