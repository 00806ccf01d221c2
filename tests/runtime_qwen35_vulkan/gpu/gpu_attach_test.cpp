// SPDX-License-Identifier: Apache-2.0
// A session's way to the GPU and back from half of it, on the scripted machine.
#include "gpu/gpu_attach.h"

#include <gtest/gtest.h>

#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "runtime_qwen35_vulkan/session/session_support.h"
#include "support/fake_vulkan.h"

namespace {

using qwen35rt::attachGpu;
using zemtest::cheapOptions;
using zemtest::FakeDevice;
using zemtest::FakeVulkan;
using zemtest::kGpuLine;
using zemtest::ModelFile;
using zemtest::Session;
using zemtest::stderrOf;
using zemtest::TinyModel;

// A session that found no device, on a machine that has one now.
class AttachTest : public testing::Test {
 protected:
  AttachTest() { vulkan_.devices.emplace_back(); }

  std::string attach() {
    return stderrOf([&] { attachGpu(members(), {}); });
  }
  qwen35rt::Qwen35Session& members() { return session_.members(); }
  void expectOnTheCpu() {
    EXPECT_FALSE(members().gpuUp);
    EXPECT_EQ(members().gpu, nullptr);
    EXPECT_EQ(members().gv, nullptr);
    EXPECT_EQ(members().model.gpuCtx, nullptr);
    EXPECT_EQ(members().model.gpuGemvRow, nullptr);
    EXPECT_EQ(vulkan_.live(), 0U);
  }

  FakeVulkan vulkan_{{}};
  const ModelFile file_{TinyModel(cheapOptions())};
  const Session session_{file_, "host;ctx=8", zemtest::linked()};
};

TEST_F(AttachTest, WithADeviceTheModelGetsItsHook) {
  EXPECT_EQ(attach(), "");
  EXPECT_TRUE(members().gpuUp);
  EXPECT_EQ(members().model.gpuCtx, members().gv.get());
  EXPECT_NE(members().model.gpuGemvRow, nullptr);
}

// Every function of Vulkan that attaching calls.
std::set<std::string> functionsCalled(const FakeVulkan& vulkan) {
  const std::vector<std::string> log = vulkan.log();
  return {log.begin(), log.end()};
}

TEST_F(AttachTest, AFailureAnywhereLeavesASessionOnTheCpu) {
  ASSERT_EQ(attach(), "");
  members().model.gpuCtx = nullptr;
  members().model.gpuGemvRow = nullptr;
  members().gv.reset();
  members().gpu.reset();
  members().gpuUp = false;
  size_t failures = 0;
  for (const std::string& function : functionsCalled(vulkan_)) {
    // Freeing and waiting are not part of the way up.
    if (!FakeVulkan::canFail(function) || function == "vkResetFences") continue;
    if (function == "vkEnumerateInstanceVersion") continue;  // asked by the loader alone
    SCOPED_TRACE(function);
    vulkan_.fail(function, VK_ERROR_OUT_OF_HOST_MEMORY);
    EXPECT_EQ(attach(), kGpuLine);
    expectOnTheCpu();
    ++failures;
  }
  EXPECT_GT(failures, 10U);
}

TEST_F(AttachTest, AnExceptionOfAnyKindLeavesASessionOnTheCpu) {
  for (const char* function :
       {"vkCreateInstance", "vkAllocateMemory", "vkMapMemory", "vkQueueSubmit"}) {
    SCOPED_TRACE(function);
    bool thrown = false;
    vulkan_.during(function, [&thrown] {
      thrown = true;
      throw std::runtime_error("a driver's own");
    });
    EXPECT_EQ(attach(), kGpuLine);
    EXPECT_TRUE(thrown);
    EXPECT_FALSE(members().gpuUp);
    EXPECT_EQ(members().gpu, nullptr);
    EXPECT_EQ(members().model.gpuGemvRow, nullptr);
  }
  char out[64];
  EXPECT_EQ(session_.api().generate(session_.handle(), "the", out, sizeof out), 0);
}

}  // namespace
