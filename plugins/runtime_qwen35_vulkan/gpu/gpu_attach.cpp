// SPDX-License-Identifier: Apache-2.0
#include "gpu/gpu_attach.h"

#include "kiv/vulkan/vulkan_context.h"
#include "session/boundary.h"

namespace qwen35rt {
namespace {

using kiv::vulkan::kAnyDevice;

bool bringUp(Qwen35Session& s, const CreateHintOpts& hint) {
  s.gpu = std::make_unique<kiv::GPUModelLoader>();
  const uint64_t device = hint.gpuDev < 0 ? kAnyDevice : static_cast<uint64_t>(hint.gpuDev);
  if (!s.gpu->init(device).ok() || !s.gpu->loadWeightsToGPU(*s.loader).ok()) return false;
  s.gv = std::make_unique<qwen35gpu::GpuGemv>();
  if (!s.gv->init(*s.gpu)) return false;
  if (!hint.plan.empty()) s.gv->setPlan(s.model.nLayers, hint.plan);
  return true;
}

}  // namespace

void attachGpu(Qwen35Session& s, const CreateHintOpts& hint) noexcept {
  bool up = false;
  try {
    up = bringUp(s, hint);
  } catch (...) {
    up = false;  // what the CPU needs is there already
  }
  if (!up) {
    s.gv.reset();
    s.gpu.reset();
    warn("GPU path unavailable - running CPU-only");
    return;
  }
  s.gpuUp = true;
  s.model.gpuCtx = s.gv.get();
  s.model.gpuGemvRow = qwen35gpu::gemvAdapter;
}

}  // namespace qwen35rt
