#include "host/gpu_choice.h"

#include <algorithm>
#include <cstdio>
#include <optional>
#include <sstream>
#include <vector>

#include "compat/environment.h"
#include "console/terminal.h"
#include "kiv/vulkan/vulkan_api.h"
#include "kiv/vulkan/vulkan_context.h"

namespace zemtool {
namespace {

using kiv::vulkan::ListedDevice;

std::optional<ListedDevice> findAutomaticDevice() {
  std::vector<ListedDevice> devices;
  if (!kiv::vulkan::listDevices(devices).ok()) return std::nullopt;
  const auto found = std::find_if(devices.begin(), devices.end(),
                                  [](const ListedDevice& device) { return device.automatic; });
  return found == devices.end() ? std::nullopt : std::optional(*found);
}

// Layers as the runtime counted them when it took a plan over.
struct Layers {
  bool onGpu = false;
  bool onCpu = false;
};

Layers plannedLayers(const std::string& printed) {
  std::istringstream lines(printed);
  for (std::string line; std::getline(lines, line);) {
    size_t gpu = 0;
    size_t cpu = 0;
    int length = 0;
    std::sscanf(line.c_str(), "[qwen35-gpu] layer plan: %zu gpu / %zu cpu layers%n", &gpu, &cpu,
                &length);
    if (length > 0) return {gpu > 0, cpu > 0};
  }
  return {};
}

bool cpuOnly(const std::string& printed) {
  return ("\n" + printed).find("\n[qwen35-vulkan] GPU path unavailable - running CPU-only\n") !=
         std::string::npos;
}

}  // namespace

void settleGpu(SessionOptions& options) {
  if (options.noGpu) compat::setEnvironmentVariable(kiv::vulkan::kNoVulkanVariable, "1");
  if (options.noGpu || options.hasPlan) return;
  const std::optional<ListedDevice> device = findAutomaticDevice();
  if (!device || !device->software) return;
  options.plan = "cpu:all";
  complain("the device " + device->info.deviceName +
           " is software: using --plan cpu:all (--plan gpu:all uses it anyway)");
}

std::string automaticDevice() {
  const std::optional<ListedDevice> device = findAutomaticDevice();
  return device ? device->info.deviceName : "";
}

std::string backendName(const std::string& device, const std::string& plan,
                        const std::string& printed) {
  if (device.empty() || cpuOnly(printed)) return "CPU";
  if (plan.empty()) return "Vulkan: " + device;
  const Layers layers = plannedLayers(printed);
  if (!layers.onGpu) return "CPU";
  return "Vulkan: " + device + (layers.onCpu ? ", plan " + plan : "");
}

}  // namespace zemtool
