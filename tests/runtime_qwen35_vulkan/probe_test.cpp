// SPDX-License-Identifier: Apache-2.0
// Whether the runtime recognises its models.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "runtime_qwen35_vulkan/session/session_support.h"
#include "support/fake_vulkan.h"
#include "support/platform.h"
#include "support/scoped_env.h"
#include "support/temp_folder.h"

namespace {

using zemtest::cheapOptions;
using zemtest::TinyModel;
using zemtest::TinyModelOptions;

// A directory that goes with everything in it: probe looks at file names.
class ScratchDir {
 public:
  std::string file(const std::string& name) const { return folder_.path(name); }
  std::string add(const std::string& name, const TinyModel& model) const {
    return add(name, model.build());
  }
  std::string add(const std::string& name, const zemtest::Bytes& bytes) const {
    return folder_.write(name, bytes);
  }

 private:
  zemtest::TempFolder folder_;
};

ZEMRuntimeProbe probe(const std::string& path) {
  ZEMRuntimeProbe result = {-7, nullptr, nullptr, nullptr};
  EXPECT_EQ(zemtest::linked().v2->probe(path.c_str(), &result), 0);
  return result;
}

void expectRecognised(const ZEMRuntimeProbe& result, const std::string& architecture) {
  EXPECT_EQ(result.confidence, 95);
  EXPECT_STREQ(result.architecture, architecture.c_str());
  EXPECT_STREQ(result.backend, "vulkan");
  EXPECT_STREQ(result.reason, "qwen35 hybrid on Vulkan: GPU gemv + head, CPU decoder");
}

void expectUnknown(const ZEMRuntimeProbe& result) {
  EXPECT_EQ(result.confidence, 0);
  EXPECT_STREQ(result.architecture, "");
  EXPECT_STREQ(result.backend, "vulkan");
  EXPECT_STREQ(result.reason, "");
}

// On a machine with one device.
class ProbeTest : public testing::Test {
 protected:
  zemtest::FakeVulkan vulkan_{{zemtest::FakeDevice{}}};
};

TEST_F(ProbeTest, AModelIsRecognisedWhereThereIsADevice) {
  const ScratchDir dir;
  expectRecognised(probe(dir.add("model.zem", TinyModel(cheapOptions()))), "qwen35");
}

TEST_F(ProbeTest, AMixtureOfExpertsIsRecognisedAlthoughCreateRefusesIt) {
  TinyModelOptions options = cheapOptions();
  options.architecture = "qwen35moe";
  const ScratchDir dir;
  expectRecognised(probe(dir.add("model.zem", TinyModel(options))), "qwen35moe");
}

TEST_F(ProbeTest, WithoutADeviceNothingIsRecognised) {
  vulkan_.devices.clear();
  const ScratchDir dir;
  expectUnknown(probe(dir.add("model.zem", TinyModel(cheapOptions()))));
}

TEST_F(ProbeTest, SwitchedOffVulkanIsNoDevice) {
  const zemtest::ScopedEnv off("ZEM_NO_VULKAN", "1");
  const ScratchDir dir;
  expectUnknown(probe(dir.add("model.zem", TinyModel(cheapOptions()))));
}

TEST_F(ProbeTest, TheNameMayBeNothingButTheExtension) {
  const ScratchDir dir;
  dir.add(".zem", TinyModel(cheapOptions()));
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(dir.file(""));
  const ZEMRuntimeProbe result = probe(".zem");
  std::filesystem::current_path(before);
  expectRecognised(result, "qwen35");
}

TEST_F(ProbeTest, OtherNamesAreNotOurs) {
  const TinyModel model(cheapOptions());
  const ScratchDir dir;
  for (const char* name :
       {"model.ZEM", "model.Zem", "model.zem.bak", "model.zem ", "zem", "modelzem"}) {
    expectUnknown(probe(dir.add(name, model)));
  }
  for (const char* path : {"", "z", "zem", "em"}) expectUnknown(probe(path));
}

// Opening a pipe without a writer would wait for ever.
TEST_F(ProbeTest, AFileOfAnotherNameIsNotOpened) {
  ZEM_SKIP_ON_WINDOWS("pipes in folders");
  const ScratchDir dir;
  for (const char* name : {"model.ZEM", "model.zem.old"}) {
    ASSERT_TRUE(zemtest::makeFifo(dir.file(name).c_str()));
    expectUnknown(probe(dir.file(name)));
  }
}

TEST_F(ProbeTest, OtherArchitecturesAreNotOurs) {
  const ScratchDir dir;
  TinyModelOptions options = cheapOptions();
  for (const char* architecture : {"llama", "qwen35moe2", "QWEN35", ""}) {
    options.architecture = architecture;
    expectUnknown(probe(dir.add(std::string(architecture) + ".zem", TinyModel(options))));
  }
}

TEST_F(ProbeTest, WhatCannotBeOpenedIsNotOurs) {
  const ScratchDir dir;
  expectUnknown(probe(dir.file("missing.zem")));
  expectUnknown(probe(dir.add("empty.zem", zemtest::Bytes())));
  expectUnknown(probe(dir.add("noise.zem", zemtest::Bytes(5000, 0x5A))));
  std::filesystem::create_directory(dir.file("directory.zem"));
  expectUnknown(probe(dir.file("directory.zem")));
}

TEST_F(ProbeTest, NullArgumentsAreFine) {
  const auto* runtime = zemtest::linked().v2;
  ZEMRuntimeProbe result = {-7, nullptr, nullptr, nullptr};
  EXPECT_EQ(runtime->probe(nullptr, &result), 0);
  expectUnknown(result);
  EXPECT_EQ(runtime->probe(nullptr, nullptr), 0);
  const ScratchDir dir;
  const std::string path = dir.add("model.zem", TinyModel(cheapOptions()));
  EXPECT_EQ(runtime->probe(path.c_str(), nullptr), 0);
}

TEST_F(ProbeTest, PrintsNothing) {
  const ScratchDir dir;
  const std::string path = dir.add("model.zem", TinyModel(cheapOptions()));
  EXPECT_EQ(zemtest::stderrOf([&] {
              probe(path);
              probe(dir.file("missing.zem"));
            }),
            "");
}

}  // namespace
