// SPDX-License-Identifier: Apache-2.0
// What is recorded into the scripted machine's command buffers, and what becomes
// of it when it is submitted.
#include <algorithm>
#include <utility>

#include "support/fake_vulkan_objects.h"

namespace zemtest {

using namespace kiv;

namespace {

// The command buffer, when something may be recorded into it.
FakeCommandBuffer* recording(const FakeCall& call, VkCommandBuffer cmd) {
  const auto* object = call.find(cmd, VK_OBJECT_TYPE_COMMAND_BUFFER);
  if (object == nullptr) return nullptr;
  call.require(object->state == kRecording, "the command buffer is not being recorded");
  return call.detail<FakeCommandBuffer>(cmd, VK_OBJECT_TYPE_COMMAND_BUFFER);
}

void runCopy(const FakeCall& call, const FakeCopy& copy) {
  const auto& [from, to, size] = copy.region;
  const std::span<uint8_t> source = bytesAt(call, copy.source, from, size);
  const std::span<uint8_t> target = bytesAt(call, copy.destination, to, size);
  if (source.size() == target.size()) std::copy(source.begin(), source.end(), target.begin());
  call.machine().copies.push_back(copy);
}

VKAPI_ATTR void VKAPI_CALL copyBuffer(VkCommandBuffer cmd, VkBuffer source, VkBuffer destination,
                                      uint32_t count, const VkBufferCopy* regions) {
  const FakeCall call("vkCmdCopyBuffer");
  auto* buffer = recording(call, cmd);
  for (uint32_t i = 0; i < count && buffer != nullptr; ++i) {
    buffer->commands.emplace_back([copy = FakeCopy{source, destination, regions[i]}](
                                      const FakeCall& submit) { runCopy(submit, copy); });
  }
}

VKAPI_ATTR void VKAPI_CALL fillBuffer(VkCommandBuffer cmd, VkBuffer target, VkDeviceSize offset,
                                      VkDeviceSize size, uint32_t word) {
  const FakeCall call("vkCmdFillBuffer");
  auto* buffer = recording(call, cmd);
  call.require(offset % sizeof word == 0 && size % sizeof word == 0 && size != 0,
               "a buffer is filled by whole words");
  if (buffer == nullptr) return;
  buffer->commands.emplace_back([=](const FakeCall& submit) {
    const std::span<uint8_t> bytes = bytesAt(submit, target, offset, size);
    for (size_t i = 0; i < bytes.size(); ++i) {
      bytes[i] = static_cast<uint8_t>(word >> 8 * (i % sizeof word));
    }
  });
}

VKAPI_ATTR void VKAPI_CALL pipelineBarrier(VkCommandBuffer cmd, VkPipelineStageFlags,
                                           VkPipelineStageFlags, VkDependencyFlags, uint32_t,
                                           const VkMemoryBarrier*, uint32_t,
                                           const VkBufferMemoryBarrier*, uint32_t,
                                           const VkImageMemoryBarrier*) {
  const FakeCall call("vkCmdPipelineBarrier");
  recording(call, cmd);
}

VKAPI_ATTR void VKAPI_CALL bindPipeline(VkCommandBuffer cmd, VkPipelineBindPoint,
                                        VkPipeline pipeline) {
  const FakeCall call("vkCmdBindPipeline");
  auto* buffer = recording(call, cmd);
  call.find(pipeline, VK_OBJECT_TYPE_PIPELINE);
  if (buffer != nullptr) buffer->pipeline = pipeline;
}

VKAPI_ATTR void VKAPI_CALL bindDescriptorSets(VkCommandBuffer cmd, VkPipelineBindPoint,
                                              VkPipelineLayout layout, uint32_t, uint32_t,
                                              const VkDescriptorSet* sets, uint32_t,
                                              const uint32_t*) {
  const FakeCall call("vkCmdBindDescriptorSets");
  auto* buffer = recording(call, cmd);
  call.find(layout, VK_OBJECT_TYPE_PIPELINE_LAYOUT);
  call.find(sets[0], VK_OBJECT_TYPE_DESCRIPTOR_SET);
  if (buffer != nullptr) buffer->set = sets[0];
}

VKAPI_ATTR void VKAPI_CALL pushConstants(VkCommandBuffer cmd, VkPipelineLayout layout,
                                         VkShaderStageFlags, uint32_t offset, uint32_t size,
                                         const void* values) {
  const FakeCall call("vkCmdPushConstants");
  auto* buffer = recording(call, cmd);
  call.find(layout, VK_OBJECT_TYPE_PIPELINE_LAYOUT);
  if (buffer == nullptr) return;
  const auto* bytes = static_cast<const uint8_t*>(values);
  if (buffer->push.size() < offset + size) buffer->push.resize(offset + size);
  std::copy(bytes, bytes + size, buffer->push.begin() + offset);
}

void runDispatch(const FakeCall& call, VkPipeline pipeline, FakeDispatch dispatch) {
  call.find(pipeline, VK_OBJECT_TYPE_PIPELINE);
  const auto* set = call.detail<FakeDescriptorSet>(dispatch.set, VK_OBJECT_TYPE_DESCRIPTOR_SET);
  if (set == nullptr) return;
  for (const auto& [binding, info] : set->written) {
    bytesAt(call, info.buffer, info.offset, info.range);
    dispatch.bindings.push_back(info);
  }
  call.machine().dispatches.push_back(std::move(dispatch));
}

VKAPI_ATTR void VKAPI_CALL dispatch(VkCommandBuffer cmd, uint32_t x, uint32_t y, uint32_t z) {
  const FakeCall call("vkCmdDispatch");
  auto* buffer = recording(call, cmd);
  if (buffer == nullptr) return;
  call.find(buffer->pipeline, VK_OBJECT_TYPE_PIPELINE);
  const uint32_t* most = deviceOf(call, cmd).limits.maxComputeWorkGroupCount;
  call.require(x <= most[0] && y <= most[1] && z <= most[2], "more workgroups than the device has");
  buffer->commands.emplace_back(
      [pipeline = buffer->pipeline, one = FakeDispatch{buffer->set, {}, buffer->push, {x, y, z}}](
          const FakeCall& submit) { runDispatch(submit, pipeline, one); });
}

}  // namespace

const FakeFunctions& commandFunctions() {
  static const FakeFunctions functions = {
      {"vkCmdCopyBuffer", erase<PFN_vkCmdCopyBuffer>(copyBuffer)},
      {"vkCmdFillBuffer", erase<PFN_vkCmdFillBuffer>(fillBuffer)},
      {"vkCmdPipelineBarrier", erase<PFN_vkCmdPipelineBarrier>(pipelineBarrier)},
      {"vkCmdBindPipeline", erase<PFN_vkCmdBindPipeline>(bindPipeline)},
      {"vkCmdBindDescriptorSets", erase<PFN_vkCmdBindDescriptorSets>(bindDescriptorSets)},
      {"vkCmdPushConstants", erase<PFN_vkCmdPushConstants>(pushConstants)},
      {"vkCmdDispatch", erase<PFN_vkCmdDispatch>(dispatch)},
  };
  return functions;
}

}  // namespace zemtest
