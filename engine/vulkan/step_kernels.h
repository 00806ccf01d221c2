// SPDX-License-Identifier: Apache-2.0
// The kernels of a step, and stages made of them.
#pragma once

#include <array>
#include <initializer_list>

#include "engine/vulkan/step_recorder.h"
#include "engine/vulkan/step_shaders.h"
#include "kiv/status.h"

namespace zem {

// Workgroups of a stage, but for z.
struct StageGroups {
  uint32_t x;
  uint32_t y = 1;
};
// `count` workgroups in x and y: a device may take no more than 65535 in one dimension. A few
// surplus ones may be among them.
StageGroups spread(uint64_t count);

// The context outlives it. One thread at a time.
class StepKernels {
 public:
  // Makes all kernels. Unsupported when the device has too little for one of them, IOError for a
  // call of Vulkan that fails; the shader's number is part of no message, its failure is.
  kiv::Status create(kiv::vulkan::VulkanContext& ctx);

  // A stage with its buffers bound in the order of the shader's bindings. Adds it to `out`, or
  // fails with IOError when there is no descriptor set left. The buffers keep their handles until
  // the last use of the stage.
  kiv::Status add(StepShader shader, std::initializer_list<StageUse> uses,
                  std::initializer_list<uint32_t> push, StageGroups groups, StageOver over,
                  std::vector<Stage>& out);

 private:
  kiv::vulkan::VulkanContext* ctx_ = nullptr;
  std::array<kiv::vulkan::VulkanKernel, kStepShaders> kernels_;
};

}  // namespace zem
