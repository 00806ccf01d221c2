// SPDX-License-Identifier: Apache-2.0
// zem devices: the Vulkan devices of this machine.
#include <memory>
#include <nlohmann/json.hpp>

#include "commands/commands.h"
#include "commands/device_details.h"
#include "console/terminal.h"
#include "console/text.h"
#include "kiv/vulkan/vulkan_api.h"
#include "kiv/vulkan/vulkan_context.h"

namespace zemtool {
namespace {

using kiv::vulkan::ListedDevice;

const char* kindOf(const ListedDevice& device) {
  if (device.software) return "software";
  return device.info.discrete ? "discrete" : "integrated";
}

struct DevicesOptions {
  bool json = false;
  bool verbose = false;
};

void printDevicesJson(const std::vector<ListedDevice>& devices, const std::string& problem,
                      bool verbose) {
  auto list = nlohmann::ordered_json::array();
  for (size_t i = 0; i < devices.size(); ++i) {
    const ListedDevice& device = devices[i];
    list.push_back({{"index", i},
                    {"name", device.info.deviceName},
                    {"type", kindOf(device)},
                    {"memory_bytes", device.info.vramBytes},
                    {"driver", device.info.driverVersion},
                    {"native_storage", device.nativeStorage},
                    {"automatic", device.automatic}});
    if (verbose) list.back()["details"] = detailsJson(deviceDetails(i));
  }
  nlohmann::ordered_json value = {{"devices", list}};
  if (!problem.empty()) value["reason"] = problem;
  writeJson(value);
}

void printTable(const std::vector<ListedDevice>& devices) {
  std::vector<std::vector<std::string>> rows = {
      {"index", "name", "type", "memory", "driver", "native storage", ""}};
  for (size_t i = 0; i < devices.size(); ++i) {
    const ListedDevice& device = devices[i];
    rows.push_back({std::to_string(i), escapeControls(device.info.deviceName), kindOf(device),
                    formatBytes(device.info.vramBytes), device.info.driverVersion,
                    device.nativeStorage ? "yes" : "no",
                    device.automatic ? "chosen automatically" : ""});
  }
  writeOut(formatTable(rows, {0, 3}));
}

void listDevices(const DevicesOptions& options) {
  std::vector<ListedDevice> devices;
  const kiv::Status status = kiv::vulkan::listDevices(devices);
  std::string problem;
  if (!status.ok()) {
    devices.clear();
    problem = kiv::vulkan::vulkanSwitchedOff()
                  ? std::string("Vulkan is switched off by ") + kiv::vulkan::kNoVulkanVariable
                  : status.message();
  } else if (devices.empty()) {
    problem = "no Vulkan physical devices";
  }
  if (options.json) {
    printDevicesJson(devices, problem, options.verbose);
  } else if (!problem.empty()) {
    writeOut("no usable Vulkan device: " + problem + "; models run on the CPU\n");
  } else {
    printTable(devices);
    for (size_t i = 0; options.verbose && i < devices.size(); ++i)
      writeOut("\n" + detailsText(i, deviceDetails(i)));
  }
}

}  // namespace

void addDevices(Command& program, int& status) {
  auto options = std::make_shared<DevicesOptions>();
  Command command =
      program.command("devices", "List the Vulkan devices of this machine", "Devices and plug-ins");
  command.flag("--json", options->json, "Print JSON");
  command.flag("--verbose", options->verbose,
               "Also print the memory that weights go to, and what each device's limits exclude");
  command.footer(
      "The order is the one in which a device index selects them. A device with native storage\n"
      "reads 8- and 16-bit numbers from buffers directly.\n"
      "\nExample:\n  zem devices --json");
  command.action([options, &status] { status = guarded([&] { listDevices(*options); }); });
}

}  // namespace zemtool
