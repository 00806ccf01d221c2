// SPDX-License-Identifier: Apache-2.0
// The exports, the tables behind them and the probe.
#include <string>
#include <string_view>

#include "kiv/vulkan/vulkan_context.h"
#include "kiv/zem_loader.h"
#include "session/bench.h"
#include "session/boundary.h"
#include "session/chat.h"
#include "session/generate.h"
#include "session/session.h"
#include "zem/plugin.h"

namespace qwen35rt {
namespace {

constexpr char kRuntimeId[] = "qwen35-vulkan";
constexpr char kRuntimeName[] = "Qwen3.5 hybrid runtime, GPU gemv+head on Vulkan (mixed-v1)";
constexpr char kBackend[] = "vulkan";
constexpr char kDense[] = "qwen35";
constexpr char kMixtureOfExperts[] = "qwen35moe";
constexpr char kExtension[] = ".zem";
constexpr int kConfidence = 95;

// The architecture of the model in the file, or null when this runtime does not know it.
const char* architectureOf(const char* path) {
  if (path == nullptr || !std::string_view(path).ends_with(kExtension)) return nullptr;
  kiv::ZEMLoader loader;
  std::string architecture;
  if (!loader.open(path).ok()) return nullptr;
  if (!loader.getMetaStr("general.architecture", architecture)) return nullptr;
  if (architecture == kDense) return kDense;
  return architecture == kMixtureOfExperts ? kMixtureOfExperts : nullptr;
}

bool deviceAvailable() {
  kiv::vulkan::VulkanContext context;
  return context.init(kiv::vulkan::kAnyDevice).ok();
}

int qwen35Probe(const char* path, ZEMRuntimeProbe* out) noexcept {
  if (out != nullptr) *out = {0, "", kBackend, ""};
  guarded([&] {
    const char* architecture = architectureOf(path);
    if (architecture == nullptr || !deviceAvailable() || out == nullptr) return 0;
    *out = {kConfidence, architecture, kBackend,
            "qwen35 hybrid on Vulkan: GPU gemv + head, CPU decoder"};
    return 0;
  });
  return 0;
}

// The function as an entry of a table. Does not compile for one that may throw.
template <typename Result, typename... Arguments>
constexpr auto entry(Result (*function)(Arguments...) noexcept) -> Result (*)(Arguments...) {
  return function;
}

constexpr ZEMPluginDescriptor kPlugin = {
    .abi_version = 1,
    .plugin_version = 1,
    .name = "runtime-qwen35-vulkan",
    .description = "Qwen3.5 hybrid (GDN+attn) runtime: GPU gemv+head via Vulkan",
    .commands = nullptr,
    .command_count = 0,
};

constexpr ZEMRuntimeDescriptor kRuntimes[] = {{
    .abi_version = 1,
    .id = kRuntimeId,
    .name = kRuntimeName,
    .capabilities = 0xC2,
    .probe = entry(qwen35Probe),
    .create = entry(qwen35Create),
    .destroy = entry(qwen35Destroy),
    .generate = entry(qwen35GenerateN),
}};

constexpr ZEMRuntimeDescriptorV2 kRuntimesV2[] = {{
    .abi_version = 3,
    .struct_size = sizeof(ZEMRuntimeDescriptorV2),
    .id = kRuntimeId,
    .name = kRuntimeName,
    .caps_v2 = 0x0F,
    .probe = entry(qwen35Probe),
    .create = entry(qwen35Create),
    .destroy = entry(qwen35Destroy),
    .generate = entry(qwen35GenerateN),
    .generate_ex = entry(qwen35V2GenerateEx),
    .bench = entry(qwen35V2Bench),
    .configure = entry(qwen35V2Configure),
    .chat_turn = entry(qwen35V2ChatTurn),
    .reset = entry(qwen35V2Reset),
    .stats = entry(qwen35V2Stats),
}};

constexpr ZEMRuntimeDescriptorV2S kRuntimesV2S[] = {{
    .abi_version = 1,
    .struct_size = sizeof(ZEMRuntimeDescriptorV2S),
    .id = kRuntimeId,
    .chat_turn_stream = entry(qwen35V2ChatTurnStream),
}};

template <typename Table, size_t N>
const Table* tableWithCount(const Table (&table)[N], uint32_t* count) {
  if (count != nullptr) *count = N;
  return table;
}

}  // namespace
}  // namespace qwen35rt

const ZEMPluginDescriptor* zem_plugin_init(const ZEMHostAPI* /*host*/) noexcept {
  return &qwen35rt::kPlugin;
}

const ZEMRuntimeDescriptor* zem_plugin_runtimes(uint32_t* count) noexcept {
  return qwen35rt::tableWithCount(qwen35rt::kRuntimes, count);
}

const ZEMRuntimeDescriptorV2* zem_plugin_runtimes_v2(uint32_t* count) noexcept {
  return qwen35rt::tableWithCount(qwen35rt::kRuntimesV2, count);
}

const ZEMRuntimeDescriptorV2S* zem_plugin_runtimes_v2s(uint32_t* count) noexcept {
  return qwen35rt::tableWithCount(qwen35rt::kRuntimesV2S, count);
}
