// SPDX-License-Identifier: Apache-2.0
#include "engine/vulkan/step_recorder.h"

#include <algorithm>

namespace zem {
namespace {

constexpr VkPipelineStageFlags kWork =
    VK_PIPELINE_STAGE_COMPUTE_SHADER_BIT | VK_PIPELINE_STAGE_TRANSFER_BIT;
constexpr VkAccessFlags kWrites = VK_ACCESS_SHADER_WRITE_BIT | VK_ACCESS_TRANSFER_WRITE_BIT;
constexpr VkAccessFlags kUses = kWrites | VK_ACCESS_SHADER_READ_BIT | VK_ACCESS_TRANSFER_READ_BIT;

bool contains(const std::vector<VkBuffer>& buffers, VkBuffer buffer) {
  return std::find(buffers.begin(), buffers.end(), buffer) != buffers.end();
}

}  // namespace

StepRecorder::StepRecorder(VkCommandBuffer cmd) : cmd_(cmd) { barrier(kWork, kWork, kUses); }

void StepRecorder::run(const Stage& stage, uint32_t z) {
  prepare(stage.uses);
  stage.kernel->dispatchTo(cmd_, stage.set, stage.x, stage.y, z, stage.push.data(),
                           stage.push.size() * sizeof(uint32_t));
  ++counts_.stages;
}

void StepRecorder::copy(const kiv::vulkan::VulkanBuffer& from, const kiv::vulkan::VulkanBuffer& to,
                        size_t bytes) {
  prepare({reads(from), writes(to)});
  const VkBufferCopy region = {.srcOffset = 0, .dstOffset = 0, .size = bytes};
  vkCmdCopyBuffer(cmd_, from.handle(), to.handle(), 1, &region);
  ++counts_.stages;
}

void StepRecorder::finish() { barrier(kWork, VK_PIPELINE_STAGE_HOST_BIT, VK_ACCESS_HOST_READ_BIT); }

bool StepRecorder::clashes(const StageUse& use) const {
  VkBuffer buffer = use.buffer->handle();
  return contains(written_, buffer) || (use.written && contains(read_, buffer));
}

void StepRecorder::prepare(const std::vector<StageUse>& uses) {
  const bool waits =
      std::any_of(uses.begin(), uses.end(), [&](const StageUse& use) { return clashes(use); });
  if (waits) barrier(kWork, kWork, kUses);
  for (const StageUse& use : uses) {
    (use.written ? written_ : read_).push_back(use.buffer->handle());
  }
}

void StepRecorder::barrier(VkPipelineStageFlags from, VkPipelineStageFlags to,
                           VkAccessFlags access) {
  VkMemoryBarrier memory{};
  memory.sType = VK_STRUCTURE_TYPE_MEMORY_BARRIER;
  memory.srcAccessMask = kWrites;
  memory.dstAccessMask = access;
  vkCmdPipelineBarrier(cmd_, from, to, 0, 1, &memory, 0, nullptr, 0, nullptr);
  read_.clear();
  written_.clear();
  ++counts_.barriers;
}

}  // namespace zem
