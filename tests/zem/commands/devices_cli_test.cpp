// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include "cli_support.h"

namespace zemtest {
namespace {

using ::testing::AnyOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

TEST(Devices, NoneIsAnAnswer) {
  const ProcessResult result = zem({"devices"}, "", kNoDrivers);
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.out, StartsWith("no usable Vulkan device: "));
  EXPECT_THAT(result.out, HasSubstr("models run on the CPU"));
  EXPECT_EQ(result.err, "");
}

TEST(Devices, NoneInJsonHasAReason) {
  const auto json = nlohmann::json::parse(zem({"devices", "--json"}, "", kNoDrivers).out);
  EXPECT_TRUE(json["devices"].empty());
  EXPECT_NE(json["reason"], "");
}

TEST(Devices, SwitchedOffIsSaid) {
  const Environment off = {{"ZEM_NO_VULKAN", "1"}};
  const ProcessResult result = zem({"devices"}, "", off);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out,
            "no usable Vulkan device: Vulkan is switched off by ZEM_NO_VULKAN; models run on the "
            "CPU\n");
  EXPECT_EQ(result.err, "");
  const auto json = nlohmann::json::parse(zem({"devices", "--json"}, "", off).out);
  EXPECT_TRUE(json["devices"].empty());
  EXPECT_EQ(json["reason"], "Vulkan is switched off by ZEM_NO_VULKAN");
}

TEST(Devices, NoDriverIsNotCalledSwitchedOff) {
  EXPECT_EQ(zem({"devices"}, "", kNoDrivers).out.find("ZEM_NO_VULKAN"), std::string::npos);
}

TEST(Devices, ThoseOfThisMachineAreNumberedAndOneIsAutomatic) {
  const ProcessResult result = zem({"devices", "--json"}, "", kWithVulkan);
  EXPECT_EQ(result.status, 0);
  const auto devices = nlohmann::json::parse(result.out)["devices"];
  if (devices.empty()) ZEM_SKIP_WITHOUT_GPU("no Vulkan device here: " + result.out);
  int automatic = 0;
  for (size_t i = 0; i < devices.size(); ++i) {
    EXPECT_EQ(devices[i]["index"], i);
    EXPECT_THAT(devices[i]["type"], AnyOf("discrete", "integrated", "software"));
    EXPECT_GT(devices[i]["memory_bytes"], 0);
    EXPECT_NE(devices[i]["name"], "");
    automatic += devices[i]["automatic"] ? 1 : 0;
  }
  EXPECT_EQ(automatic, 1);
  EXPECT_THAT(zem({"devices"}, "", kWithVulkan).out, HasSubstr("chosen automatically"));
}

TEST(Devices, VerboseTellsMemoryAndLimits) {
  const auto devices = nlohmann::json::parse(
      zem({"devices", "--json", "--verbose"}, "", kWithVulkan).out)["devices"];
  if (devices.empty()) ZEM_SKIP_WITHOUT_GPU("no Vulkan device here");
  for (const auto& device : devices) {
    const auto& details = device["details"];
    if (details.contains("problem")) continue;
    EXPECT_GT(details["max_matrix_bytes"], 0);
    EXPECT_FALSE(details["heaps"].empty());
    ASSERT_FALSE(details["weights"].empty());
    for (const auto& weights : details["weights"]) {
      EXPECT_LT(weights["heap"], details["heaps"].size());
      EXPECT_GE(details["heaps"][weights["heap"].get<size_t>()]["bytes"], weights["bytes"]);
      EXPECT_THAT(weights["properties"], StartsWith("device-local"));
    }
  }
  const std::string text = zem({"devices", "--verbose"}, "", kWithVulkan).out;
  EXPECT_THAT(text, HasSubstr("weights of "));
  EXPECT_THAT(text, HasSubstr("stays on the CPU"));
  EXPECT_THAT(text, StartsWith(zem({"devices"}, "", kWithVulkan).out));
}

}  // namespace
}  // namespace zemtest
