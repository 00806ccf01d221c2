// SPDX-License-Identifier: Apache-2.0
#include "gpu/gpu_attach.h"

#include "kiv/vulkan/vulkan_context.h"
#include "session/boundary.h"

namespace qwen35rt {
namespace {

using kiv::vulkan::kAnyDevice;

// What a step of the way up came to.
struct Outcome {
  bool up = false;
  std::string reason;  // for people; empty: nothing to add
};

Outcome failed(const Qwen35Session& s, const std::string& what) {
  const std::string& device = s.gpu->context().info().deviceName;
  return {false, "GPU not used: " + (device.empty() ? "" : device + ": ") + what};
}

// A machine without Vulkan or without devices needs no explanation.
bool hasNoDevice(const kiv::Status& status) {
  return status.message() == "vkCreateInstance failed" ||
         status.message() == "no Vulkan physical devices";
}

Outcome upload(Qwen35Session& s) {
  const kiv::Status status = s.gpu->loadWeightsToGPU(*s.loader);
  if (status.ok()) return {.up = true, .reason = {}};
  const std::string& attempt = s.gpu->pool().attempt();
  return failed(s, status.message() + (attempt.empty() ? "" : " (" + attempt + ")"));
}

Outcome bringUp(Qwen35Session& s, const CreateHintOpts& hint) {
  s.gpu = std::make_unique<kiv::GPUModelLoader>();
  const uint64_t device = hint.gpuDev < 0 ? kAnyDevice : static_cast<uint64_t>(hint.gpuDev);
  if (const kiv::Status status = s.gpu->init(device); !status.ok()) {
    return hasNoDevice(status) ? Outcome{} : failed(s, status.message());
  }
  // No product would ever read the device's copy.
  if (!qwen35gpu::LayerPlan::keepsAllOnCpu(s.model.nLayers, hint.plan)) {
    if (Outcome outcome = upload(s); !outcome.up) return outcome;
  }
  s.gv = std::make_unique<qwen35gpu::GpuGemv>();
  if (!s.gv->init(*s.gpu)) return failed(s, s.gv->problem());
  if (!hint.plan.empty()) s.gv->setPlan(s.model.nLayers, hint.plan);
  return {.up = true, .reason = {}};
}

std::string mebibytes(uint64_t bytes) { return std::to_string(bytes >> 20) + " MiB"; }

// What of the weights the device is not able to take.
void reportLimits(const Qwen35Session& s) {
  const std::string device = s.gpu->context().info().deviceName + ": ";
  const qwen35gpu::GpuGemv::Fit fit = s.gv->fit();
  if (fit.declined != 0) {
    warn(device + std::to_string(fit.declined) + " of " + std::to_string(fit.matrices) +
         " matrices stay on the CPU: the largest has " + mebibytes(fit.largestBytes) +
         ", the device takes " + mebibytes(fit.mostBytes) + " and " +
         std::to_string(fit.mostWorkgroups) + " workgroups");
  }
  if (s.gpu->leftOut() != 0) {
    warn(device + std::to_string(s.gpu->leftOut()) +
         " tensors stay on the CPU: an allocation of this device has at most " +
         mebibytes(s.gpu->context().info().maxAllocationBytes));
  }
}

// Memory may have run out.
void reportReason(const std::string& reason) noexcept {
  try {
    warn(reason);
  } catch (...) {
    warn("GPU not used: out of memory");
  }
}

}  // namespace

void attachGpu(Qwen35Session& s, const CreateHintOpts& hint) noexcept {
  Outcome outcome;
  try {
    outcome = bringUp(s, hint);
    if (outcome.up) reportLimits(s);
  } catch (...) {
    outcome.up = false;  // what the CPU needs is there already
  }
  if (!outcome.up) {
    s.gv.reset();
    s.gpu.reset();
    warn("GPU path unavailable - running CPU-only");
    if (!outcome.reason.empty()) reportReason(outcome.reason);
    return;
  }
  s.gpuUp = true;
  s.model.gpuCtx = s.gv.get();
  s.model.gpuGemvRow = qwen35gpu::gemvAdapter;
  s.model.gpuGemvGroup = qwen35gpu::gemvGroupAdapter;
}

}  // namespace qwen35rt
