// What the tool asks of the GPU, on scripted machines, and what it makes of the
// runtime's lines.
#include "host/gpu_choice.h"

#include <gmock/gmock.h>

#include <deque>
#include <string>

#include "support/fake_vulkan.h"
#include "support/scoped_env.h"

namespace zemtool {
namespace {

using ::kiv::test::FakeDevice;
using ::kiv::test::FakeVulkan;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr const char* kNoGpuPath = "[qwen35-vulkan] GPU path unavailable - running CPU-only\n";

FakeDevice device(const std::string& name, VkPhysicalDeviceType type) {
  FakeDevice made;
  made.name = name;
  made.type = type;
  return made;
}
const FakeDevice kSoftware = device("a software device", VK_PHYSICAL_DEVICE_TYPE_CPU);
const FakeDevice kIntegrated = device("an integrated one", VK_PHYSICAL_DEVICE_TYPE_INTEGRATED_GPU);
const FakeDevice kDiscrete = device("a card", VK_PHYSICAL_DEVICE_TYPE_DISCRETE_GPU);

// Settles `options` and returns what was said.
std::string settle(SessionOptions& options) {
  ::testing::internal::CaptureStderr();
  settleGpu(options);
  return ::testing::internal::GetCapturedStderr();
}

TEST(SettleGpu, ASoftwareDeviceIsNotUsedAndTheLineSaysHowToUseIt) {
  const FakeVulkan vulkan({kSoftware});
  SessionOptions options;
  const std::string said = settle(options);
  EXPECT_EQ(options.plan, "cpu:all");
  EXPECT_THAT(said, AllOf(StartsWith("zem: "), HasSubstr("a software device"),
                          HasSubstr("--plan cpu:all"), HasSubstr("--plan gpu:all")));
  EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1);
}

TEST(SettleGpu, ADeviceNameCannotWriteToTheTerminal) {
  const FakeVulkan vulkan({device("x\x1b[2J\n", VK_PHYSICAL_DEVICE_TYPE_CPU)});
  SessionOptions options;
  EXPECT_THAT(settle(options), HasSubstr("x\\x1b[2J\\n"));
}

TEST(SettleGpu, OnlyTheAutomaticDeviceCounts) {
  struct Machine {
    std::deque<FakeDevice> devices;
    const char* plan;
  };
  // Without a discrete device it is the first one of all.
  for (const Machine& machine :
       {Machine{{kDiscrete}, ""}, Machine{{kIntegrated}, ""}, Machine{{kSoftware, kDiscrete}, ""},
        Machine{{kIntegrated, kSoftware}, ""}, Machine{{kSoftware, kIntegrated}, "cpu:all"}}) {
    const FakeVulkan vulkan(machine.devices);
    SessionOptions options;
    EXPECT_EQ(settle(options).empty(), *machine.plan == '\0');
    EXPECT_EQ(options.plan, machine.plan);
  }
}

TEST(SettleGpu, AGivenPlanStandsEvenAnEmptyOne) {
  for (const std::string plan : {"gpu:all", "", "nonsense"}) {
    const FakeVulkan vulkan({kSoftware});
    SessionOptions options;
    options.plan = plan;
    options.hasPlan = true;
    EXPECT_EQ(settle(options), "");
    EXPECT_EQ(options.plan, plan);
    EXPECT_EQ(vulkan.calls("vkCreateInstance"), 0);
  }
}

TEST(SettleGpu, NoDeviceIsNothingToSay) {
  const FakeVulkan vulkan({});
  SessionOptions options;
  EXPECT_EQ(settle(options), "");
  EXPECT_EQ(options.plan, "");
}

TEST(SettleGpu, NoGpuSwitchesVulkanOffBeforeAnythingAsksForIt) {
  const FakeVulkan vulkan({kSoftware});
  const zemtest::ScopedEnv restored("ZEM_NO_VULKAN", nullptr);
  SessionOptions options;
  options.noGpu = true;
  EXPECT_EQ(settle(options), "");
  EXPECT_EQ(options.plan, "");
  EXPECT_TRUE(kiv::vulkan::vulkanSwitchedOff());
  EXPECT_EQ(automaticDevice(), "");
  EXPECT_EQ(vulkan.calls("vkCreateInstance"), 0);
}

TEST(AutomaticDevice, IsNamed) {
  const FakeVulkan vulkan({kIntegrated, kDiscrete});
  EXPECT_EQ(automaticDevice(), "a card");
}

TEST(AutomaticDevice, IsNobodyWithoutADevice) {
  const FakeVulkan vulkan({});
  EXPECT_EQ(automaticDevice(), "");
}

TEST(BackendName, ASilentRuntimeComputesOnTheDeviceIfThereIsOne) {
  EXPECT_EQ(backendName("card", "", ""), "Vulkan: card");
  EXPECT_EQ(backendName("card", "", "[qwen35-vulkan] something else\n"), "Vulkan: card");
  EXPECT_EQ(backendName("", "", ""), "CPU");
  EXPECT_EQ(backendName("", "gpu:all", "[qwen35-gpu] layer plan: 4 gpu / 0 cpu layers\n"), "CPU");
}

TEST(BackendName, ALostGpuPathIsTheCpuWhereverTheLineStands) {
  EXPECT_EQ(backendName("card", "", kNoGpuPath), "CPU");
  EXPECT_EQ(backendName("card", "gpu:all", std::string("before\n") + kNoGpuPath + "after\n"),
            "CPU");
  EXPECT_EQ(backendName("card", "", std::string("not ") + kNoGpuPath), "Vulkan: card");
}

TEST(BackendName, APlanCountsAsTheRuntimeTookIt) {
  const auto named = [](const std::string& counts) {
    return backendName("card", "PLAN",
                       "bad plan token\n[qwen35-gpu] layer plan: " + counts + " cpu layers\n");
  };
  EXPECT_EQ(named("0 gpu / 32"), "CPU");
  EXPECT_EQ(named("32 gpu / 0"), "Vulkan: card");
  EXPECT_EQ(named("10 gpu / 22"), "Vulkan: card, plan PLAN");
  EXPECT_EQ(named("1 gpu / 1"), "Vulkan: card, plan PLAN");
}

TEST(BackendName, APlanThatTheRuntimeDidNotTakePutsNothingOnTheGpu) {
  EXPECT_EQ(backendName("card", "gpu:all", ""), "CPU");
  EXPECT_EQ(backendName("card", "gpu:all", "[qwen35-gpu] layer plan: many gpu / 0 cpu layers\n"),
            "CPU");
}

TEST(BackendName, TextWithoutALastLineFeedIsRead) {
  EXPECT_EQ(backendName("card", "p", "[qwen35-gpu] layer plan: 2 gpu / 0 cpu layers"),
            "Vulkan: card");
}

}  // namespace
}  // namespace zemtool
