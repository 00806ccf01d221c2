// SPDX-License-Identifier: Apache-2.0
// Records the stages of a step into one command buffer, with a barrier only where a stage uses
// what an earlier one left.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kiv/vulkan/vulkan_buffer.h"
#include "kiv/vulkan/vulkan_kernel.h"

namespace zem {

// One buffer of a stage. What a stage writes it may read as well.
struct StageUse {
  const kiv::vulkan::VulkanBuffer* buffer;
  bool written;
};
inline StageUse reads(const kiv::vulkan::VulkanBuffer& buffer) { return {&buffer, false}; }
inline StageUse writes(const kiv::vulkan::VulkanBuffer& buffer) { return {&buffer, true}; }

// What the workgroups in z stand for.
enum class StageOver : uint8_t {
  Tokens,  // all tokens of the step
  Runs,    // conversations: consecutive tokens of one
  Picks,   // tokens with logits
};

// One dispatch, with its buffers bound.
struct Stage {
  kiv::vulkan::VulkanKernel* kernel;
  VkDescriptorSet set;
  std::vector<StageUse> uses;
  std::vector<uint32_t> push;
  uint32_t x;
  uint32_t y;
  StageOver over;
};

// What a command buffer does.
struct StepCounts {
  size_t stages = 0;
  size_t barriers = 0;
};

// One barrier serves all stages before it: what follows a barrier depends on nothing older.
class StepRecorder {
 public:
  // `cmd` has been begun. The first barrier makes visible what earlier submissions wrote.
  explicit StepRecorder(VkCommandBuffer cmd);

  // `z` workgroups in z, at least one.
  void run(const Stage& stage, uint32_t z);
  // The first `bytes` bytes.
  void copy(const kiv::vulkan::VulkanBuffer& from, const kiv::vulkan::VulkanBuffer& to,
            size_t bytes);
  // Makes everything visible to the host. Nothing may follow.
  void finish();

  const StepCounts& counts() const { return counts_; }

 private:
  bool clashes(const StageUse& use) const;
  void prepare(const std::vector<StageUse>& uses);
  void barrier(VkPipelineStageFlags from, VkPipelineStageFlags to, VkAccessFlags access);

  VkCommandBuffer cmd_;
  std::vector<VkBuffer> read_;  // since the last barrier
  std::vector<VkBuffer> written_;
  StepCounts counts_;
};

}  // namespace zem
