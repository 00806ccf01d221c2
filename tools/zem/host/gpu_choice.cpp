// SPDX-License-Identifier: Apache-2.0
#include "host/gpu_choice.h"

#include <algorithm>
#include <optional>
#include <vector>

#include "compat/environment.h"
#include "console/terminal.h"
#include "host/layer_plan.h"
#include "kiv/model/architecture.h"
#include "kiv/vulkan/vulkan_api.h"
#include "kiv/vulkan/vulkan_context.h"

namespace zemtool {
namespace {

using kiv::vulkan::ListedDevice;

std::optional<ListedDevice> automaticDevice() {
  std::vector<ListedDevice> devices;
  if (!kiv::vulkan::listDevices(devices).ok()) return std::nullopt;
  const auto found = std::find_if(devices.begin(), devices.end(),
                                  [](const ListedDevice& device) { return device.automatic; });
  return found == devices.end() ? std::nullopt : std::optional(*found);
}

}  // namespace

void settleGpu(SessionOptions& options) {
  if (options.noGpu) compat::setEnvironmentVariable(kiv::vulkan::kNoVulkanVariable, "1");
  if (options.noGpu || options.hasPlan) return;
  const std::optional<ListedDevice> device = automaticDevice();
  if (!device || !device->software) return;
  options.plan = "cpu:all";
  complain("the device " + device->info.deviceName +
           " is software: using --plan cpu:all (--plan gpu:all uses it anyway)");
}

std::string usableDevice() {
  kiv::vulkan::VulkanContext context;
  return context.init(kiv::vulkan::kAnyDevice).ok() ? context.info().deviceName : "";
}

std::string backendName(const std::string& device, const std::string& plan) {
  if (device.empty()) return "CPU";
  if (plan.empty()) return "Vulkan: " + device;
  const LayerSplit split = splitLayers(plan, kiv::Architecture().layers);
  if (split.gpu == 0) return "CPU";
  return "Vulkan: " + device + (split.cpu > 0 ? ", plan " + plan : "");
}

}  // namespace zemtool
