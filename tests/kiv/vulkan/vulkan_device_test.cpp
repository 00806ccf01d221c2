// SPDX-License-Identifier: Apache-2.0
// The description of a device, its queue family, and which device is taken.
#include "kiv/vulkan/vulkan_device.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "kiv/vulkan/vulkan_context.h"
#include "support/fake_vulkan.h"

namespace zemtest {

using namespace kiv;
using namespace kiv::vulkan;

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr uint64_t kAutomatic = UINT64_MAX;

FakeDevice deviceOf(VkPhysicalDeviceType type, const char* name, uint64_t gib) {
  FakeDevice device;
  device.name = name;
  device.type = type;
  device.heaps = {{gib * kGiB, VK_MEMORY_HEAP_DEVICE_LOCAL_BIT}};
  return device;
}
FakeDevice discrete(const char* name, uint64_t gib) {
  return deviceOf(VK_PHYSICAL_DEVICE_TYPE_DISCRETE_GPU, name, gib);
}
FakeDevice integrated(const char* name, uint64_t gib) {
  return deviceOf(VK_PHYSICAL_DEVICE_TYPE_INTEGRATED_GPU, name, gib);
}
FakeDevice software(const char* name, uint64_t gib) {
  return deviceOf(VK_PHYSICAL_DEVICE_TYPE_CPU, name, gib);
}

std::string chosenName(uint64_t index) {
  VulkanContext context;
  const Status status = context.init(index);
  return status.ok() ? context.info().deviceName : status.message();
}

VulkanDeviceInfo describe(const FakeDevice& device) {
  const FakeVulkan vulkan({device});
  VulkanContext context;
  EXPECT_TRUE(context.init(0).ok());
  return context.info();
}

// ---- description

TEST(VulkanDeviceInfo, CopiesWhatTheDeviceReports) {
  FakeDevice device = discrete("Some GPU", 8);
  device.vendorId = 0x1002;
  device.deviceId = 0x73bf;
  device.apiVersion = VK_MAKE_API_VERSION(0, 1, 3, 239);
  device.subgroupSize = 64;
  device.limits.maxComputeSharedMemorySize = 65536;
  device.limits.maxComputeWorkGroupInvocations = 1024;
  device.limits.maxPushConstantsSize = 256;
  const VulkanDeviceInfo info = describe(device);
  EXPECT_EQ(info.deviceName, "Some GPU");
  EXPECT_EQ(info.vendorId, 0x1002U);
  EXPECT_EQ(info.deviceId, 0x73bfU);
  EXPECT_EQ(info.apiVersion, device.apiVersion);
  EXPECT_EQ(info.subgroupSize, 64U);
  EXPECT_EQ(info.maxComputeSharedMemory, 65536U);
  EXPECT_EQ(info.maxWorkGroupInvocations, 1024U);
  EXPECT_EQ(info.maxPushConstants, 256U);
  EXPECT_TRUE(info.discrete);
}

TEST(VulkanDeviceInfo, NameMayFillItsRecord) {
  FakeDevice device;
  device.name = std::string(VK_MAX_PHYSICAL_DEVICE_NAME_SIZE - 1, 'x');
  EXPECT_EQ(describe(device).deviceName, device.name);
}

TEST(VulkanDeviceInfo, DriverVersionHasTenTenAndTwelveBits) {
  const struct {
    uint32_t packed;
    const char* text;
  } cases[] = {
      {0, "0.0.0"},
      {(22U << 22) | (3U << 12) | 6U, "22.3.6"},
      {(1U << 22) | (0x3ffU << 12) | 0xfffU, "1.1023.4095"},
      {0xffffffffU, "1023.1023.4095"},
  };
  for (const auto& [packed, text] : cases) {
    FakeDevice device;
    device.driverVersion = packed;
    EXPECT_EQ(describe(device).driverVersion, text);
  }
}

TEST(VulkanDeviceInfo, MemoryIsTheSumOfTheDeviceLocalHeaps) {
  FakeDevice device;
  device.heaps = {{6 * kGiB, VK_MEMORY_HEAP_DEVICE_LOCAL_BIT},
                  {32 * kGiB, 0},
                  {256, VK_MEMORY_HEAP_DEVICE_LOCAL_BIT | VK_MEMORY_HEAP_MULTI_INSTANCE_BIT}};
  EXPECT_EQ(describe(device).vramBytes, 6 * kGiB + 256);
  device.heaps = {{32 * kGiB, 0}};
  EXPECT_EQ(describe(device).vramBytes, 0U);
  device.heaps = {};
  EXPECT_EQ(describe(device).vramBytes, 0U);
}

TEST(VulkanDeviceInfo, OnlyTheDiscreteTypeIsDiscrete) {
  for (const VkPhysicalDeviceType type :
       {VK_PHYSICAL_DEVICE_TYPE_OTHER, VK_PHYSICAL_DEVICE_TYPE_INTEGRATED_GPU,
        VK_PHYSICAL_DEVICE_TYPE_VIRTUAL_GPU, VK_PHYSICAL_DEVICE_TYPE_CPU}) {
    EXPECT_FALSE(describe(deviceOf(type, "device", 1)).discrete) << type;
  }
}

TEST(VulkanDeviceInfo, QueryOverwritesAnEarlierDescription) {
  const FakeVulkan vulkan({integrated("second", 1)});
  VulkanContext context;
  ASSERT_TRUE(context.init(0).ok());
  VulkanDeviceInfo info;
  info.deviceName = "first";
  info.vramBytes = 5 * kGiB;
  info.discrete = true;
  EXPECT_TRUE(queryPhysicalDevice(context.physicalDevice(), info).ok());
  EXPECT_EQ(info.deviceName, "second");
  EXPECT_EQ(info.vramBytes, kGiB);
  EXPECT_FALSE(info.discrete);
}

// ---- queue family

constexpr VkQueueFlags kGraphics = VK_QUEUE_GRAPHICS_BIT;
constexpr VkQueueFlags kCompute = VK_QUEUE_COMPUTE_BIT;
constexpr VkQueueFlags kTransfer = VK_QUEUE_TRANSFER_BIT;

TEST(ComputeQueueFamily, GraphicsWithComputeIsPreferredThenAnyCompute) {
  const struct {
    std::vector<VkQueueFlags> families;
    uint32_t expected;
  } cases[] = {
      {{kGraphics | kCompute | kTransfer}, 0},
      {{kCompute, kGraphics | kCompute}, 1},
      {{kTransfer, kGraphics, kCompute | kTransfer, kCompute}, 2},
      {{kCompute, kGraphics | kCompute, kGraphics | kCompute}, 1},
      {{kGraphics, kTransfer, kCompute}, 2},
  };
  for (const auto& [families, expected] : cases) {
    FakeDevice device;
    device.queueFamilies = families;
    FakeVulkan vulkan({device});
    VulkanContext context;
    ASSERT_TRUE(context.init(0).ok());
    EXPECT_EQ(context.queueFamily(), expected);
    EXPECT_EQ(vulkan.requests.device.queueFamily, expected);
  }
}

TEST(ComputeQueueFamily, DeviceWithoutComputeIsUnsupported) {
  for (const std::vector<VkQueueFlags>& families :
       {std::vector<VkQueueFlags>{}, {kGraphics}, {kTransfer, kGraphics | kTransfer}}) {
    FakeDevice device;
    device.queueFamilies = families;
    FakeVulkan vulkan({device});
    VulkanContext context;
    const Status status = context.init(0);
    EXPECT_EQ(status.code(), StatusCode::Unsupported);
    EXPECT_EQ(status.message(), "no compute queue family found");
    EXPECT_EQ(context.instance(), VK_NULL_HANDLE);
    EXPECT_EQ(vulkan.live(), 0U);
    EXPECT_EQ(vulkan.calls("vkCreateDevice"), 0);

    vulkan.devices[0].queueFamilies = {kCompute};
    EXPECT_TRUE(context.init(0).ok());
  }
}

// ---- selection

TEST(DeviceSelection, IntegratedAloneIsTakenWhenTheIndexIsOutOfRange) {
  const FakeVulkan vulkan({integrated("only", 1)});
  EXPECT_EQ(chosenName(0), "only");
  EXPECT_EQ(chosenName(1), "only");
  EXPECT_EQ(chosenName(kAutomatic), "only");
}

TEST(DeviceSelection, TwoDiscreteDevicesAreOrderedByMemory) {
  const FakeVulkan vulkan({discrete("small", 8), discrete("large", 24)});
  EXPECT_EQ(chosenName(0), "large");
  EXPECT_EQ(chosenName(1), "small");
  EXPECT_EQ(chosenName(2), "large");
  EXPECT_EQ(chosenName(7), "large");
  EXPECT_EQ(chosenName(kAutomatic), "large");
}

TEST(DeviceSelection, DiscreteComesBeforeMoreMemory) {
  const FakeVulkan vulkan({software("cpu", 64), integrated("shared", 32), discrete("card", 4)});
  EXPECT_EQ(chosenName(0), "card");
  EXPECT_EQ(chosenName(1), "cpu");
  EXPECT_EQ(chosenName(2), "shared");
  EXPECT_EQ(chosenName(3), "card");
}

TEST(DeviceSelection, WithoutADiscreteDeviceTheDefaultIsTheFirstEnumerated) {
  const FakeVulkan vulkan({integrated("first", 1), integrated("larger", 16)});
  EXPECT_EQ(chosenName(0), "larger");
  EXPECT_EQ(chosenName(1), "first");
  EXPECT_EQ(chosenName(2), "first");
  EXPECT_EQ(chosenName(kAutomatic), "first");
}

TEST(DeviceSelection, EqualDevicesStayAsEnumerated) {
  std::deque<FakeDevice> devices;
  for (int i = 0; i < 40; ++i) devices.push_back(discrete(std::to_string(i).c_str(), 8));
  const FakeVulkan vulkan(devices);
  for (const uint64_t i : {0U, 1U, 17U, 39U}) EXPECT_EQ(chosenName(i), std::to_string(i));
  EXPECT_EQ(chosenName(40), "0");
}

FakeDevice ofVersion(FakeDevice device, uint32_t minor) {
  device.apiVersion = VK_MAKE_API_VERSION(0, 1, minor, 108);
  return device;
}

TEST(DeviceSelection, DevicesBeforeVulkan12AreNotChosenAutomatically) {
  const FakeVulkan vulkan({ofVersion(integrated("old chip", 4), 1), integrated("chip", 2),
                           ofVersion(discrete("old card", 24), 1)});
  EXPECT_EQ(chosenName(kAutomatic), "chip");
  std::vector<ListedDevice> devices;
  ASSERT_TRUE(listDevices(devices).ok());
  ASSERT_EQ(devices.size(), 3U);
  EXPECT_EQ(devices[0].info.deviceName, "old card");
  for (const ListedDevice& device : devices) {
    EXPECT_EQ(device.automatic, device.info.deviceName == "chip");
  }
}

TEST(DeviceSelection, ADeviceBeforeVulkan12IsRefusedByIndex) {
  const FakeVulkan vulkan({ofVersion(discrete("old card", 24), 1), discrete("card", 8)});
  EXPECT_EQ(chosenName(0), "old card has Vulkan 1.1.108, 1.2 is needed");
  EXPECT_EQ(chosenName(1), "card");
  EXPECT_EQ(chosenName(kAutomatic), "card");
  EXPECT_EQ(vulkan.live(), 0U);
}

TEST(DeviceSelection, AMachineOfOldDevicesHasNone) {
  const FakeVulkan vulkan({ofVersion(integrated("chip", 4), 0), ofVersion(discrete("card", 8), 1)});
  EXPECT_EQ(chosenName(kAutomatic), "card has Vulkan 1.1.108, 1.2 is needed");
  std::vector<ListedDevice> devices;
  ASSERT_TRUE(listDevices(devices).ok());
  for (const ListedDevice& device : devices) EXPECT_FALSE(device.automatic);
}

TEST(VulkanDeviceInfo, TellsTheLargestAllocation) {
  FakeDevice device = discrete("card", 8);
  device.maxAllocation = 4 * kGiB;
  EXPECT_EQ(describe(device).maxAllocationBytes, 4 * kGiB);
}

TEST(DeviceSelection, DeviceIsCreatedOnTheChosenOne) {
  FakeVulkan vulkan({integrated("shared", 32), discrete("small", 8), discrete("large", 24)});
  EXPECT_EQ(chosenName(1), "small");
  EXPECT_EQ(vulkan.requests.device.index, 1U);
  EXPECT_EQ(chosenName(kAutomatic), "large");
  EXPECT_EQ(vulkan.requests.device.index, 2U);
}

// ---- enumeration

TEST(DeviceEnumeration, DeviceThatAppearsInBetweenWaitsForTheNextTime) {
  FakeVulkan vulkan({integrated("present", 1)});
  vulkan.during("vkEnumeratePhysicalDevices", [&vulkan] {
    vulkan.during("vkEnumeratePhysicalDevices",
                  [&vulkan] { vulkan.devices.push_back(discrete("new", 8)); });
  });
  VulkanContext context;
  ASSERT_TRUE(context.init(kAutomatic).ok());
  EXPECT_EQ(context.info().deviceName, "present");
  context.destroy();
  ASSERT_TRUE(context.init(kAutomatic).ok());
  EXPECT_EQ(context.info().deviceName, "new");
}

// ---- the list for people

std::vector<std::string> deviceNames(const std::vector<ListedDevice>& devices) {
  std::vector<std::string> names;
  names.reserve(devices.size());
  for (const ListedDevice& device : devices) names.push_back(device.info.deviceName);
  return names;
}

TEST(ListDevices, OrderIsThatOfTheIndex) {
  const FakeVulkan vulkan(
      {integrated("shared", 32), discrete("small", 8), software("cpu", 64), discrete("large", 24)});
  std::vector<ListedDevice> devices;
  ASSERT_TRUE(listDevices(devices).ok());
  EXPECT_THAT(deviceNames(devices), ElementsAre("large", "small", "cpu", "shared"));
  for (uint64_t i = 0; i < devices.size(); ++i) {
    EXPECT_EQ(chosenName(i), devices[i].info.deviceName);
  }
}

TEST(ListDevices, ExactlyTheAutomaticDeviceIsMarked) {
  const std::deque<FakeDevice> machines[] = {
      {integrated("only", 1)},
      {integrated("a", 1), integrated("b", 2), software("c", 3)},
      {integrated("a", 1), discrete("b", 2), discrete("c", 3)},
      {discrete("a", 1), discrete("b", 1)},
  };
  for (const auto& machine : machines) {
    const FakeVulkan vulkan(machine);
    std::vector<ListedDevice> devices;
    ASSERT_TRUE(listDevices(devices).ok());
    std::vector<std::string> marked;
    for (const ListedDevice& device : devices) {
      if (device.automatic) marked.push_back(device.info.deviceName);
    }
    EXPECT_THAT(marked, ElementsAre(chosenName(kAutomatic)));
  }
}

TEST(ListDevices, SoftwareAndNativeStorageAreToldPerDevice) {
  FakeDevice both = discrete("both", 8);
  both.storage16.storageBuffer16BitAccess = VK_TRUE;
  both.storage8.storageBuffer8BitAccess = VK_TRUE;
  FakeDevice half = software("half", 4);
  half.storage16.storageBuffer16BitAccess = VK_TRUE;
  const FakeVulkan vulkan({half, both});
  std::vector<ListedDevice> devices;
  ASSERT_TRUE(listDevices(devices).ok());
  ASSERT_EQ(devices.size(), 2U);
  EXPECT_TRUE(devices[0].nativeStorage);
  EXPECT_FALSE(devices[0].software);
  EXPECT_FALSE(devices[1].nativeStorage);
  EXPECT_TRUE(devices[1].software);
}

TEST(ListDevices, LeavesNothingAliveAndCreatesNoDevice) {
  const FakeVulkan vulkan({discrete("card", 8)});
  std::vector<ListedDevice> devices(3);
  ASSERT_TRUE(listDevices(devices).ok());
  EXPECT_EQ(devices.size(), 1U);
  EXPECT_EQ(vulkan.live(), 0U);
  EXPECT_EQ(vulkan.calls("vkCreateInstance"), 1);
  EXPECT_EQ(vulkan.calls("vkCreateDevice"), 0);
}

TEST(ListDevices, DeviceWithoutComputeIsListed) {
  FakeDevice device = discrete("display only", 1);
  device.queueFamilies = {kGraphics};
  const FakeVulkan vulkan({device});
  std::vector<ListedDevice> devices;
  ASSERT_TRUE(listDevices(devices).ok());
  EXPECT_THAT(deviceNames(devices), ElementsAre("display only"));
}

void expectListFails(const FakeVulkan& vulkan, const char* message) {
  std::vector<ListedDevice> devices(2);
  const Status status = listDevices(devices);
  EXPECT_EQ(status.code(), StatusCode::IOError);
  EXPECT_EQ(status.message(), message);
  EXPECT_THAT(devices, IsEmpty());
  EXPECT_EQ(vulkan.live(), 0U);
}

TEST(ListDevices, FailsLikeInitAndLeavesNothingAlive) {
  expectListFails(FakeVulkan({}), "no Vulkan physical devices");
  FakeVulkan vulkan({discrete("card", 8)});
  vulkan.fail("vkCreateInstance", VK_ERROR_INCOMPATIBLE_DRIVER);
  expectListFails(vulkan, "vkCreateInstance failed");
  vulkan.fail("vkEnumeratePhysicalDevices", VK_ERROR_INITIALIZATION_FAILED);
  expectListFails(vulkan, "no Vulkan physical devices");
  vulkan.fail("vkEnumeratePhysicalDevices", VK_ERROR_OUT_OF_HOST_MEMORY, 2);
  expectListFails(vulkan, "vkEnumeratePhysicalDevices failed");
}

}  // namespace
}  // namespace zemtest
