// SPDX-License-Identifier: Apache-2.0
// What `zem devices --verbose` says of cards with the memory that real drivers report.
#include "commands/device_details.h"

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "support/fake_cards.h"

namespace zemtest {
namespace {

using ::testing::HasSubstr;
using ::testing::SizeIs;
using zemtool::detailsJson;
using zemtool::detailsText;
using zemtool::deviceDetails;

TEST(DeviceDetails, TellWhereWeightsOfEachSizeGo) {
  const FakeVulkan vulkan({cardWithASmallWindow()});
  const zemtool::DeviceDetails details = deviceDetails(0);
  EXPECT_EQ(details.problem, "");
  ASSERT_THAT(details.pools, SizeIs(3));
  EXPECT_EQ(details.pools[0].type, 4U);
  EXPECT_EQ(details.pools[1].type, 1U);
  EXPECT_EQ(details.pools[2].type, 1U);
  EXPECT_EQ(details.pools[2].allocations, 6U);
  const std::string text = detailsText(0, details);
  EXPECT_THAT(text, HasSubstr("memory type 4 (device-local, host-visible, host-coherent) of heap "
                              "2\n"));
  EXPECT_THAT(text, HasSubstr("memory type 1 (device-local) of heap 0, in 6 allocations\n"));
  EXPECT_THAT(text, HasSubstr("every matrix above 4.00 GiB"));
  EXPECT_EQ(detailsJson(details)["weights"].size(), 3U);
  EXPECT_EQ(detailsJson(details)["heaps"][2]["bytes"], 246 * kMiB);
}

TEST(DeviceDetails, TellWhyNoSessionCanUseTheDevice) {
  FakeDevice old;
  old.name = "old\ncard";
  old.apiVersion = VK_MAKE_API_VERSION(0, 1, 1, 70);
  FakeDevice narrow;
  narrow.limits.maxComputeSharedMemorySize = 128;
  FakeDevice remote;
  remote.memoryTypes = {{kHost, 1}};
  const FakeVulkan vulkan({old, narrow, remote});
  EXPECT_THAT(detailsText(0, deviceDetails(0)), HasSubstr("old\\ncard has Vulkan 1.1.70"));
  EXPECT_EQ(detailsJson(deviceDetails(0)).size(), 1U);
  EXPECT_THAT(deviceDetails(1).problem, HasSubstr("the device has 128"));
  EXPECT_EQ(deviceDetails(2).problem, "no device-local memory");
  EXPECT_EQ(vulkan.live(), 0U);
}

}  // namespace
}  // namespace zemtest
