// SPDX-License-Identifier: Apache-2.0
// The variable that keeps Vulkan out of the process.
#include "kiv/vulkan/vulkan_api.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "kiv/vulkan/vulkan_context.h"
#include "support/fake_vulkan.h"
#include "support/needs_gpu.h"
#include "support/platform.h"
#include "support/scoped_env.h"

namespace zemtest {

using namespace kiv;
using namespace kiv::vulkan;

namespace {

#ifdef _WIN32
bool loaderIsMapped() { return GetModuleHandleW(L"vulkan-1.dll") != nullptr; }
#else
bool loaderIsMapped() {
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.find("libvulkan") != std::string::npos) return true;
  }
  return false;
}
#endif

void expectNoVulkan() {
  EXPECT_FALSE(loadVulkan());
  VulkanContext context;
  const Status status = context.init(0);
  EXPECT_EQ(status.code(), StatusCode::IOError);
  EXPECT_EQ(status.message(), "vkCreateInstance failed");
  EXPECT_EQ(context.instance(), VK_NULL_HANDLE);
  std::vector<ListedDevice> devices(1);
  EXPECT_EQ(listDevices(devices).message(), "vkCreateInstance failed");
  EXPECT_TRUE(devices.empty());
}

// In a process of its own: a loader that was opened stays mapped.
class FreshProcessDeathTest : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(FreshProcessDeathTest, SwitchedOffMapsNoLoader) {
  const auto work = [] {
    const ScopedEnv off(kNoVulkanVariable, "1");
    expectNoVulkan();
    const bool failed = ::testing::Test::HasFailure();
    ::_exit(failed || loaderIsMapped() ? 1 : 0);
  };
  EXPECT_EXIT(work(), ::testing::ExitedWithCode(0), "");
}

// Without this the test above could not fail.
TEST_F(FreshProcessDeathTest, SwitchedOnMapsTheLoader) {
  {
    const ScopedEnv on(kNoVulkanVariable, nullptr);
    if (!loadVulkan()) ZEM_SKIP_WITHOUT_GPU("no Vulkan loader on this machine");
  }
  const auto work = [] {
    const ScopedEnv on(kNoVulkanVariable, nullptr);
    ::_exit(loadVulkan() && loaderIsMapped() ? 0 : 1);
  };
  EXPECT_EXIT(work(), ::testing::ExitedWithCode(0), "");
}

TEST(NoVulkan, AnyTextButTheEmptyOneSwitchesOff) {
  for (const char* value : {"1", "0", "no", " "}) {
    const ScopedEnv off(kNoVulkanVariable, value);
    EXPECT_TRUE(vulkanSwitchedOff()) << value;
    EXPECT_FALSE(loadVulkan()) << value;
  }
  for (const char* value : {static_cast<const char*>(nullptr), ""}) {
    const ScopedEnv on(kNoVulkanVariable, value);
    EXPECT_FALSE(vulkanSwitchedOff());
  }
}

TEST(NoVulkan, IsReadAtEveryCallAndRefusesAnOpenLoaderToo) {
  const ScopedEnv on(kNoVulkanVariable, nullptr);
  if (!loadVulkan()) ZEM_SKIP_WITHOUT_GPU("no Vulkan loader on this machine");
  {
    const ScopedEnv off(kNoVulkanVariable, "1");
    expectNoVulkan();
  }
  EXPECT_TRUE(loadVulkan());
}

TEST(NoVulkan, NothingIsAskedOfAMachineThatIsSwitchedOff) {
  FakeVulkan vulkan({FakeDevice{}});
  VulkanContext before;
  EXPECT_TRUE(before.init(0).ok());
  {
    const ScopedEnv off(kNoVulkanVariable, "1");
    expectNoVulkan();
    EXPECT_EQ(vulkan.calls("vkCreateInstance"), 1);
    VkCommandBuffer cmd = VK_NULL_HANDLE;  // who is set up already goes on
    EXPECT_TRUE(before.beginCommand(&cmd).ok());
    EXPECT_TRUE(before.submitAndWait(cmd).ok());
  }
  VulkanContext after;
  EXPECT_TRUE(after.init(0).ok());
}

TEST(NoVulkan, RefusesManyThreadsAtOnce) {
  const ScopedEnv off(kNoVulkanVariable, "1");
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([] {
      for (int j = 0; j < 100; ++j) EXPECT_FALSE(loadVulkan());
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST(NoVulkan, IsNotAboutAScriptedMachine) {
  const ScopedEnv off(kNoVulkanVariable, "1");
  {
    const FakeVulkan vulkan({FakeDevice{}});
    VulkanContext context;
    EXPECT_TRUE(context.init(0).ok());
  }
  EXPECT_TRUE(vulkanSwitchedOff());
  expectNoVulkan();
}

}  // namespace
}  // namespace zemtest
