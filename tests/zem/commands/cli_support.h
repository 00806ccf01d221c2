// SPDX-License-Identifier: Apache-2.0
// What the tests of the command line share: running `zem` against a plug-in,
// and folders for files of a given name.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "gtest/gtest.h"
#include "support/container_builder.h"
#include "support/needs_gpu.h"
#include "support/subprocess.h"
#include "support/temp_folder.h"
#include "support/whole_file.h"

namespace zemtest {

// The build whose programs are tested: this one, or the Windows build that
// ZEM_TEST_WINDOWS_BUILD names, whose bin/zem starts zem.exe under Wine.
inline const char* const kWindowsBuild = std::getenv("ZEM_TEST_WINDOWS_BUILD");
inline const std::string kBuild = kWindowsBuild != nullptr ? kWindowsBuild : ZEM_TEST_BUILD;

inline const std::string kZem = kBuild + "/bin/zem";

// A plug-in that only tests load.
inline std::string testPlugin(const std::string& name) {
  return kBuild + "/tests/" + name + (kWindowsBuild != nullptr ? ".dll" : ".so");
}
inline const std::string kFakePlugin = testPlugin("fake_plugin");

// First line of a test of what a program for Windows does not have, or Wine does
// not pass on to it.
#define ZEM_SKIP_UNDER_WINE(reason) \
  if (zemtest::kWindowsBuild != nullptr) GTEST_SKIP() << "under Wine: " << (reason)

// First line of a test of what is shown on a terminal, or of a signal. Wine's terminal
// passes on what changes on its screen rather than what was written, and makes no
// events of signals.
#define ZEM_NEEDS_PLAIN_TERMINAL()                               \
  ZEM_SKIP_UNDER_WINE("its terminal passes on other sequences"); \
  ZEM_NEEDS_TERMINAL()

using Arguments = std::vector<std::string>;

// The surroundings of a test do not reach the program. It computes on the CPU,
// whatever devices there are.
inline Environment cliEnvironment(const Environment& extra = {}) {
  Environment all = {{"ZEM_PLUGIN", kFakePlugin}, {"OMP_NUM_THREADS", ""},  {"NO_COLOR", ""},
                     {"XDG_STATE_HOME", ""},      {"HOME", "/nonexistent"}, {"TERM", "xterm"},
                     {"LC_ALL", "C.UTF-8"},       {"ZEM_NO_VULKAN", "1"}};
  for (const auto& [name, value] : extra) all[name] = value;
  return all;
}

inline Arguments command(Arguments arguments) {
  arguments.insert(arguments.begin(), kZem);
  return arguments;
}

// `zem ARGUMENTS` with the fake plug-in.
inline ProcessResult zem(const Arguments& arguments, const std::string& input = {},
                         const Environment& extra = {}) {
  return runProcess(command(arguments), input, cliEnvironment(extra));
}

// The Vulkan devices of this machine.
inline const Environment kWithVulkan = {{"ZEM_NO_VULKAN", ""}};

// No device, although Vulkan is switched on: the loader takes its list of
// drivers from these variables alone.
inline const Environment kNoDrivers = {{"ZEM_NO_VULKAN", ""},
                                       {"VK_DRIVER_FILES", "/nonexistent.json"},
                                       {"VK_ICD_FILENAMES", "/nonexistent.json"}};

// Debian's software device and no other.
inline const std::string kSoftwareDriver = "/usr/share/vulkan/icd.d/lvp_icd.x86_64.json";
inline const Environment kSoftwareDevice = {{"ZEM_NO_VULKAN", ""},
                                            {"VK_DRIVER_FILES", kSoftwareDriver},
                                            {"VK_ICD_FILENAMES", kSoftwareDriver}};

// Its name, empty where it is not installed.
inline std::string softwareDevice() {
  const auto list = nlohmann::json::parse(zem({"devices", "--json"}, "", kSoftwareDevice).out);
  const auto& devices = list["devices"];
  return devices.size() == 1 ? devices[0]["name"].get<std::string>() : "";
}

// First line of a test that needs one.
#define ZEM_NEEDS_SOFTWARE_DEVICE() \
  if (softwareDevice().empty()) ZEM_SKIP_WITHOUT_GPU("no software device: " + kSoftwareDriver)

// A container with metadata, a vocabulary and three tensors, one of them a
// second name for another's bytes.
inline ContainerBuilder smallContainer() {
  kiv::TokenizerData vocabulary;
  vocabulary.tokens = {"<s>", "a", "b", "ab", "\xE2\x96\x81", "\n", "\x1b[2J"};
  vocabulary.tokenTypes = {3, 1, 1, 1, 1, 1, 1};
  vocabulary.merges = {"a b"};
  vocabulary.bosId = 0;
  vocabulary.eosId = 2;
  vocabulary.chatTemplate = "template";
  ContainerBuilder builder;
  builder.modelType(9).hiddenSize(4).layerCount(3).vocabSize(7).tokenizer(vocabulary);
  builder.addMetaStr("general.architecture", "qwen35").addMetaStr("general.name", "small");
  builder.addMetaU32("a.u32", 7).addMetaI32("a.i32", -7).addMetaF32("a.f32", 0.5F);
  builder.addMetaU64("a.u64", uint64_t{1} << 40).addMetaU32Array("an.array", {1, 2, 3});
  builder.addTensor("token_embd.weight", kiv::DType::F32, {4, 7}, Bytes(112, 1));
  builder.addTensorAlias("output.weight", kiv::DType::F32, {4, 7}, "token_embd.weight");
  builder.addTensor("blk.0.w", kiv::DType::F16, {4, 2, 2}, Bytes(32, 2));
  return builder;
}

// The chat template of the revision qwen3.5.
inline const std::string kTemplateFile = ZEM_TEST_DATA "/chat/qwen3.5-4b.jinja";
inline std::string publishedTemplate() { return wholeFile(kTemplateFile); }

// smallContainer() with the tokenizer of its source in the form `name`.
inline ContainerBuilder containerFromSource(const std::string& name, const std::string& asset,
                                            const std::string& chatTemplate) {
  kiv::TokenizerData vocabulary;
  vocabulary.tokens = {"<s>", "a", "b"};
  vocabulary.bosId = 0;
  vocabulary.chatTemplate = chatTemplate;
  ContainerBuilder builder = smallContainer();
  builder.tokenizer(vocabulary);
  builder.addMetaStr("tokenizer.source.name", name);
  builder.addMetaU64("tokenizer.source.bytes", asset.size());
  builder.addSection(kiv::zem2::SectionType::Asset, Bytes(asset.begin(), asset.end()));
  return builder;
}

}  // namespace zemtest
