// SPDX-License-Identifier: Apache-2.0
#include "commands/device_details.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "console/text.h"
#include "kiv/gpu_memory_type.h"
#include "kiv/vulkan/vulkan_context.h"
#include "kiv/vulkan/vulkan_shader_needs.h"
#include "kiv/vulkan/vulkan_shaders.h"

namespace zemtool {
namespace {

using kiv::vulkan::ShaderId;
using kiv::vulkan::VulkanContext;

constexpr uint64_t kMiB = uint64_t{1} << 20;
// A model in a window that the host sees, the largest that goes by the order of types, and nearly
// all of the device.
constexpr uint64_t kSmallPool = 200 * kMiB;
constexpr uint64_t kMediumPool = 2048 * kMiB;

std::string propertiesOf(VkMemoryPropertyFlags flags) {
  std::string names;
  const auto add = [&](VkMemoryPropertyFlags flag, const char* name) {
    if ((flags & flag) != 0) names += (names.empty() ? "" : ", ") + std::string(name);
  };
  add(VK_MEMORY_PROPERTY_DEVICE_LOCAL_BIT, "device-local");
  add(VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT, "host-visible");
  add(VK_MEMORY_PROPERTY_HOST_COHERENT_BIT, "host-coherent");
  add(VK_MEMORY_PROPERTY_HOST_CACHED_BIT, "host-cached");
  return names;
}

void addPools(const VulkanContext& ctx, const VkPhysicalDeviceMemoryProperties& memory,
              DeviceDetails& details) {
  uint64_t largest = 0;
  for (const DeviceDetails::Heap& heap : details.heaps) {
    if (heap.deviceLocal) largest = std::max(largest, heap.bytes);
  }
  const uint32_t bufferTypes = kiv::storageBufferTypes(ctx);
  const uint64_t block = kiv::poolBlockBytes(details.allocationBytes);
  const uint64_t most = largest / 10 * 9;
  for (const uint64_t bytes : {kSmallPool, kMediumPool, most}) {
    const auto types = kiv::poolMemoryTypes(memory, bytes, bufferTypes);
    if (types.empty() || bytes > most) continue;
    const VkMemoryType& type = memory.memoryTypes[types[0]];
    details.pools.push_back({.bytes = bytes,
                             .type = types[0],
                             .properties = propertiesOf(type.propertyFlags),
                             .heap = type.heapIndex,
                             .allocations = bytes / block + (bytes % block != 0 ? 1 : 0)});
  }
  if (details.pools.empty()) details.problem = "no device-local memory";
}

// Empty: the decoder's kernels can be made.
std::string kernelProblem(const VulkanContext& ctx) {
  for (const kiv::vulkan::EmbeddedShader& shader :
       {kiv::vulkan::embeddedShader(ShaderId::Q4KGemvLlama),
        kiv::vulkan::embeddedShader(ShaderId::Q6KGemvLlama), kiv::vulkan::q5kGemvShader()}) {
    const auto needs = kiv::vulkan::shaderNeeds(shader.code, shader.wordCount);
    const kiv::Status status = kiv::vulkan::checkShaderNeeds(needs, ctx.info());
    if (!status.ok()) return status.message();
  }
  return "";
}

}  // namespace

DeviceDetails deviceDetails(uint64_t index) {
  DeviceDetails details;
  VulkanContext ctx;
  if (const kiv::Status status = ctx.init(index); !status.ok()) {
    details.problem = status.message();
    return details;
  }
  details.api = kiv::vulkan::formatApiVersion(ctx.info().apiVersion);
  details.sharedBytes = ctx.info().maxComputeSharedMemory;
  details.allocationBytes = ctx.info().maxAllocationBytes;
  VkPhysicalDeviceProperties properties{};
  vkGetPhysicalDeviceProperties(ctx.physicalDevice(), &properties);
  std::copy_n(properties.limits.maxComputeWorkGroupCount, 2, details.workgroups);
  details.bufferBytes = properties.limits.maxStorageBufferRange;
  VkPhysicalDeviceMemoryProperties memory{};
  vkGetPhysicalDeviceMemoryProperties(ctx.physicalDevice(), &memory);
  for (uint32_t i = 0; i < memory.memoryHeapCount; ++i) {
    const VkMemoryHeap& heap = memory.memoryHeaps[i];
    details.heaps.push_back(
        {.bytes = heap.size, .deviceLocal = (heap.flags & VK_MEMORY_HEAP_DEVICE_LOCAL_BIT) != 0});
  }
  details.problem = kernelProblem(ctx);
  addPools(ctx, memory, details);
  return details;
}

std::string detailsText(uint64_t index, const DeviceDetails& details) {
  std::vector<std::vector<std::string>> rows;
  const auto add = [&](const std::string& what, const std::string& value) {
    rows.push_back({rows.empty() ? std::to_string(index) : "", what, value});
  };
  if (!details.problem.empty()) add("cannot be used", escapeControls(details.problem));
  if (!details.api.empty()) {
    add("Vulkan", details.api);
    add("workgroups", std::to_string(details.workgroups[0]) + " x " +
                          std::to_string(details.workgroups[1]) + ", " +
                          formatBytes(details.sharedBytes) + " shared memory each");
  }
  for (size_t i = 0; i < details.heaps.size(); ++i) {
    add("heap " + std::to_string(i), formatBytes(details.heaps[i].bytes) +
                                         (details.heaps[i].deviceLocal ? ", device-local" : ""));
  }
  for (const DeviceDetails::Pool& pool : details.pools) {
    add("weights of " + formatBytes(pool.bytes),
        "memory type " + std::to_string(pool.type) + " (" + pool.properties + ") of heap " +
            std::to_string(pool.heap) +
            (pool.allocations > 1 ? ", in " + std::to_string(pool.allocations) + " allocations"
                                  : ""));
  }
  if (details.bufferBytes != 0) {
    add("stays on the CPU", "every matrix above " + formatBytes(details.bufferBytes));
  }
  return formatTable(rows, {0});
}

nlohmann::ordered_json detailsJson(const DeviceDetails& details) {
  nlohmann::ordered_json value;
  if (!details.problem.empty()) value["problem"] = details.problem;
  if (details.api.empty()) return value;
  value["vulkan"] = details.api;
  value["max_workgroups"] = details.workgroups;
  value["shared_memory_bytes"] = details.sharedBytes;
  value["max_matrix_bytes"] = details.bufferBytes;
  value["max_allocation_bytes"] = details.allocationBytes;
  value["heaps"] = nlohmann::ordered_json::array();
  for (const DeviceDetails::Heap& heap : details.heaps) {
    value["heaps"].push_back({{"bytes", heap.bytes}, {"device_local", heap.deviceLocal}});
  }
  value["weights"] = nlohmann::ordered_json::array();
  for (const DeviceDetails::Pool& pool : details.pools) {
    value["weights"].push_back({{"bytes", pool.bytes},
                                {"memory_type", pool.type},
                                {"properties", pool.properties},
                                {"heap", pool.heap},
                                {"allocations", pool.allocations}});
  }
  return value;
}

}  // namespace zemtool
