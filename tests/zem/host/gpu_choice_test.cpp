// SPDX-License-Identifier: Apache-2.0
// What the tool asks of the GPU, and what it calls the back end, on scripted machines.
#include "host/gpu_choice.h"

#include <gmock/gmock.h>

#include <deque>
#include <string>

#include "support/fake_vulkan.h"
#include "support/scoped_env.h"

namespace zemtool {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using ::zemtest::FakeDevice;
using ::zemtest::FakeVulkan;

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
  EXPECT_EQ(usableDevice(), "");
  EXPECT_EQ(vulkan.calls("vkCreateInstance"), 0);
}

TEST(UsableDevice, IsTheOneThatTheRuntimeChooses) {
  const FakeVulkan vulkan({kIntegrated, kDiscrete});
  EXPECT_EQ(usableDevice(), "a card");
  EXPECT_EQ(vulkan.live(), 0U);
}

TEST(UsableDevice, IsEmptyWithoutADevice) {
  const FakeVulkan vulkan({});
  EXPECT_EQ(usableDevice(), "");
}

TEST(UsableDevice, IsEmptyWhereTheDeviceCannotBeSetUp) {
  for (const char* call : {"vkCreateInstance", "vkCreateDevice", "vkCreateCommandPool"}) {
    FakeVulkan vulkan({kDiscrete});
    vulkan.fail(call, VK_ERROR_INITIALIZATION_FAILED);
    EXPECT_EQ(usableDevice(), "") << call;
  }
}

TEST(BackendName, WithoutADeviceItIsTheCpuWhateverThePlan) {
  for (const char* plan : {"", "gpu:all", "gpu:1,cpu:all"}) EXPECT_EQ(backendName("", plan), "CPU");
}

TEST(BackendName, WithoutAPlanTheDeviceComputesAllLayers) {
  EXPECT_EQ(backendName("card", ""), "Vulkan: card");
}

TEST(BackendName, APlanCountsByItsLayers) {
  for (const char* plan : {"gpu:all", "gpu:32,cpu:all", "gpu:1"}) {
    EXPECT_EQ(backendName("card", plan), "Vulkan: card") << plan;
  }
  for (const char* plan : {"cpu:all", "gpu:0,cpu:all", "cpu:32,gpu:all", "nonsense"}) {
    EXPECT_EQ(backendName("card", plan), "CPU") << plan;
  }
  EXPECT_EQ(backendName("card", "gpu:31,cpu:all"), "Vulkan: card, plan gpu:31,cpu:all");
  EXPECT_EQ(backendName("card", "cpu:31,gpu:1"), "Vulkan: card, plan cpu:31,gpu:1");
}

}  // namespace
}  // namespace zemtool
