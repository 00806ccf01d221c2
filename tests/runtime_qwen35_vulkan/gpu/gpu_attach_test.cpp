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
using zemtest::isGpuReason;
using zemtest::kDeviceLocal;
using zemtest::kGpuLine;
using zemtest::kGpuReason;
using zemtest::kHost;
using zemtest::kMiB;
using zemtest::ModelFile;
using zemtest::Session;
using zemtest::stderrOf;
using zemtest::TinyModel;

// A session that found no device, on a machine that has one now.
class AttachTest : public testing::Test {
 protected:
  AttachTest() { vulkan_.devices.emplace_back(); }

  std::string attach(const std::string& plan = "") {
    qwen35rt::CreateHintOpts hint;
    hint.plan = plan;
    return stderrOf([&] { attachGpu(members(), hint); });
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
    const std::string said = attach();
    EXPECT_EQ(said.substr(0, kGpuLine.size()), kGpuLine);
    const bool noDevice =
        function == "vkCreateInstance" || function == "vkEnumeratePhysicalDevices";
    EXPECT_EQ(said.size() == kGpuLine.size(), noDevice) << said;
    EXPECT_TRUE(isGpuReason(said.substr(kGpuLine.size()))) << said;
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

// ---- the reason, with its numbers

TEST_F(AttachTest, AMachineWithoutDevicesSaysNoMoreThanThat) {
  vulkan_.devices.clear();
  EXPECT_EQ(attach(), kGpuLine);
}

TEST_F(AttachTest, ACardWithTooLittleMemorySaysHowMuchThereIs) {
  vulkan_.devices[0].name = "small card";
  vulkan_.devices[0].heaps[0].size = 48 * kMiB;
  const std::string said = attach();
  EXPECT_TRUE(said.starts_with(kGpuLine + kGpuReason +
                               "small card: VRAMAllocator: vkAllocateMemory failed ("))
      << said;
  EXPECT_TRUE(said.ends_with(" MiB from memory type 0, a heap of 48 MiB)\n")) << said;
  expectOnTheCpu();
}

TEST_F(AttachTest, AnOldDeviceSaysItsVersion) {
  vulkan_.devices[0].name = "old card";
  vulkan_.devices[0].apiVersion = VK_MAKE_API_VERSION(0, 1, 1, 70);
  EXPECT_EQ(attach(), kGpuLine + kGpuReason + "old card has Vulkan 1.1.70, 1.2 is needed\n");
}

TEST_F(AttachTest, ADeviceWithTooLittleSharedMemorySaysHowMuchThereIs) {
  vulkan_.devices[0].limits.maxComputeSharedMemorySize = 128;
  const std::string said = attach();
  EXPECT_TRUE(said.starts_with(kGpuLine + kGpuReason +
                               "fake device: Q4_K products: shader needs 256 bytes of shared "
                               "memory, the device has 128\n"))
      << said;
  EXPECT_EQ(vulkan_.calls("vkCreateComputePipelines"), 0);
}

TEST_F(AttachTest, MemoryThatIsNotThereIsTheReason) {
  vulkan_.devices[0].memoryTypes = {{kHost, 1}};
  const std::string said = attach();
  EXPECT_TRUE(said.starts_with(kGpuLine + kGpuReason +
                               "fake device: VRAMAllocator: no device-local memory ("))
      << said;
}

// ---- sessions that the plan keeps on the CPU

TEST_F(AttachTest, APlanWithoutGpuLayersUploadsNothing) {
  EXPECT_EQ(attach("cpu:all"), "[qwen35-gpu] layer plan: 0 gpu / 32 cpu layers\n");
  EXPECT_TRUE(members().gpuUp);
  EXPECT_EQ(members().gpu->tensorCount(), 0U);
  EXPECT_EQ(vulkan_.live(VK_OBJECT_TYPE_DEVICE_MEMORY), 0U);
  EXPECT_EQ(vulkan_.calls("vkQueueSubmit"), 0);
  char out[64];
  EXPECT_EQ(session_.api().generate(session_.handle(), "the", out, sizeof out), 0);
}

TEST_F(AttachTest, APlanWithAGpuLayerUploads) {
  EXPECT_EQ(attach("gpu:1,cpu:all"), "[qwen35-gpu] layer plan: 1 gpu / 31 cpu layers\n");
  EXPECT_GT(members().gpu->tensorCount(), 0U);
}

// Matrices of a K type, of which the largest is beyond a limit.
class AttachLargeMatrices : public testing::Test {
 protected:
  static zemtest::TinyModelOptions options() {
    zemtest::TinyModelOptions options = cheapOptions();
    options.width = 256;
    options.feedForward = 512;
    options.matrixType = kiv::DType::Q4_K;
    options.quantInfo = true;
    return options;
  }

  FakeVulkan vulkan_{{}};
  const ModelFile file_{TinyModel(options())};
  const Session session_{file_, "host;ctx=8", zemtest::linked()};
};

TEST_F(AttachLargeMatrices, WhatIsBeyondALimitStaysOnTheCpuAndIsCounted) {
  FakeDevice card;
  card.name = "narrow card";
  card.limits.maxStorageBufferRange = 256 * 1024;
  vulkan_.devices.push_back(card);
  const std::string said = stderrOf([&] { attachGpu(session_.members(), {}); });
  EXPECT_TRUE(session_.members().gpuUp);
  const auto fit = session_.members().gv->fit();
  EXPECT_GT(fit.declined, 0U);
  EXPECT_LT(fit.declined, fit.matrices);
  EXPECT_GT(fit.largestBytes, fit.mostBytes);
  EXPECT_EQ(said.find("[qwen35-vulkan] narrow card: " + std::to_string(fit.declined) + " of " +
                      std::to_string(fit.matrices) + " matrices stay on the CPU: the largest has "),
            0U)
      << said;
}

}  // namespace
