// SPDX-License-Identifier: Apache-2.0
// Makes a mistake on purpose: destroys a device while one of its fences is
// alive. The tests on real devices rely on the validation layer to report such
// things, and this program shows that it does. Exit code 77: it cannot be tried here,
// and ZEM_REQUIRE_GPU does not ask for it.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "kiv/vulkan/vulkan_context.h"
#include "support/needs_gpu.h"

namespace {

constexpr int kSkipped = 77;

bool validationLayerInstalled() {
  uint32_t count = 0;
  vkEnumerateInstanceLayerProperties(&count, nullptr);
  std::vector<VkLayerProperties> layers(count);
  vkEnumerateInstanceLayerProperties(&count, layers.data());
  return std::any_of(layers.begin(), layers.end(), [](const VkLayerProperties& layer) {
    return std::strcmp(layer.layerName, "VK_LAYER_KHRONOS_validation") == 0;
  });
}

int skip(const char* reason) {
  std::printf("cannot be tried: %s\n", reason);
  return zemtest::gpuIsRequired() ? 1 : kSkipped;
}

}  // namespace

int main() {
  kiv::vulkan::VulkanContext context;
  const kiv::Status status = context.init(0);
  if (!status.ok()) return skip(status.message().c_str());
  if (!validationLayerInstalled()) return skip("the validation layer is not installed");

  VkFenceCreateInfo info{};
  info.sType = VK_STRUCTURE_TYPE_FENCE_CREATE_INFO;
  VkFence forgotten = VK_NULL_HANDLE;
  return vkCreateFence(context.device(), &info, nullptr, &forgotten) == VK_SUCCESS ? 0 : 1;
}
