// What is recorded into the scripted machine's command buffers, and what becomes
// of it when it is submitted.
#include <algorithm>
#include <cstring>
#include <utility>

#include "support/fake_vulkan_objects.h"

namespace kiv::test {
namespace {

// The command buffer, when something may be recorded into it.
FakeCommandBuffer* recording(const FakeCall& call, VkCommandBuffer cmd) {
  const auto* object = call.find(cmd, VK_OBJECT_TYPE_COMMAND_BUFFER);
  if (object == nullptr) return nullptr;
  call.require(object->state == kRecording, "the command buffer is not being recorded");
  return call.detail<FakeCommandBuffer>(cmd, VK_OBJECT_TYPE_COMMAND_BUFFER);
}

// ---- who sees what has been written

void requireSeen(const FakeExecution& run, const FakeRange& range) {
  for (const FakeRange& unseen : run.unseenByDevice) {
    const bool overlap =
        unseen.memory == range.memory && unseen.begin < range.end && range.begin < unseen.end;
    run.call.require(!overlap, "no barrier after the transfer that wrote these bytes");
  }
}

// What lies in memory that the host can map needs a barrier before it looks.
void hideFromHost(FakeExecution& run, const FakeRange& range, VkAccessFlags write) {
  if (range.memory == VK_NULL_HANDLE) return;
  auto* memory = run.call.detail<FakeMemory>(range.memory, VK_OBJECT_TYPE_DEVICE_MEMORY);
  if (memory != nullptr && (memory->flags & kHostVisible) != 0) memory->hidden |= write;
}

// The writes that a barrier waits for.
VkAccessFlags awaited(const FakeBarrier& barrier) {
  VkAccessFlags writes = 0;
  if ((barrier.after & VK_PIPELINE_STAGE_TRANSFER_BIT) != 0) writes |= VK_ACCESS_TRANSFER_WRITE_BIT;
  if ((barrier.after & VK_PIPELINE_STAGE_COMPUTE_SHADER_BIT) != 0) {
    writes |= VK_ACCESS_SHADER_WRITE_BIT;
  }
  return writes & barrier.written;
}

void runBarrier(FakeExecution& run, const FakeBarrier& barrier) {
  constexpr VkAccessFlags kDeviceReads = VK_ACCESS_TRANSFER_READ_BIT | VK_ACCESS_SHADER_READ_BIT;
  const VkAccessFlags writes = awaited(barrier);
  const bool shownToDevice = (barrier.readable & kDeviceReads) == kDeviceReads;
  if ((writes & VK_ACCESS_TRANSFER_WRITE_BIT) != 0 && shownToDevice) run.unseenByDevice.clear();
  const bool shownToHost = (barrier.before & VK_PIPELINE_STAGE_HOST_BIT) != 0 &&
                           (barrier.readable & VK_ACCESS_HOST_READ_BIT) != 0;
  if (shownToHost) {
    run.call.forEach<FakeMemory>(VK_OBJECT_TYPE_DEVICE_MEMORY,
                                 [writes](FakeMemory& memory) { memory.hidden &= ~writes; });
  }
  run.done.emplace_back(barrier);
}

// ---- copies and barriers

void runCopy(FakeExecution& run, const FakeCopy& copy) {
  const auto& [from, to, size] = copy.region;
  const FakeRange source = rangeOf(run.call, copy.source, from, size);
  const FakeRange target = rangeOf(run.call, copy.destination, to, size);
  requireSeen(run, source);
  requireSeen(run, target);
  const bool overlap =
      source.memory == target.memory && source.begin < target.end && target.begin < source.end;
  run.call.require(!overlap, "a copy onto itself");
  if (source.bytes.size() == target.bytes.size()) {
    std::copy(source.bytes.begin(), source.bytes.end(), target.bytes.begin());
  }
  run.unseenByDevice.push_back(target);
  hideFromHost(run, target, VK_ACCESS_TRANSFER_WRITE_BIT);
  run.done.emplace_back(copy);
}

void requireUsage(const FakeCall& call, VkBuffer handle, VkBufferUsageFlags usage) {
  const auto* buffer = call.detail<FakeBuffer>(handle, VK_OBJECT_TYPE_BUFFER);
  call.require(buffer == nullptr || (buffer->info.usage & usage) != 0,
               "a buffer that is not for this direction of transfer");
}

VKAPI_ATTR void VKAPI_CALL copyBuffer(VkCommandBuffer cmd, VkBuffer source, VkBuffer destination,
                                      uint32_t count, const VkBufferCopy* regions) {
  const FakeCall call("vkCmdCopyBuffer");
  auto* buffer = recording(call, cmd);
  requireUsage(call, source, VK_BUFFER_USAGE_TRANSFER_SRC_BIT);
  requireUsage(call, destination, VK_BUFFER_USAGE_TRANSFER_DST_BIT);
  call.require(count != 0, "no region");
  for (uint32_t i = 0; i < count && buffer != nullptr; ++i) {
    call.require(regions[i].size != 0, "a region of no bytes");
    rangeOf(call, source, regions[i].srcOffset, regions[i].size);
    rangeOf(call, destination, regions[i].dstOffset, regions[i].size);
    buffer->commands.emplace_back([copy = FakeCopy{source, destination, regions[i]}](
                                      FakeExecution& run) { runCopy(run, copy); });
  }
}

VKAPI_ATTR void VKAPI_CALL pipelineBarrier(VkCommandBuffer cmd, VkPipelineStageFlags after,
                                           VkPipelineStageFlags before, VkDependencyFlags,
                                           uint32_t memoryCount, const VkMemoryBarrier* memory,
                                           uint32_t bufferCount, const VkBufferMemoryBarrier*,
                                           uint32_t imageCount, const VkImageMemoryBarrier*) {
  const FakeCall call("vkCmdPipelineBarrier");
  auto* buffer = recording(call, cmd);
  call.require(after != 0 && before != 0, "a barrier between no stages");
  call.require(bufferCount == 0 && imageCount == 0, "only barriers of all memory are known here");
  FakeBarrier barrier = {after, before, 0, 0};
  for (uint32_t i = 0; i < memoryCount; ++i) {
    barrier.written |= memory[i].srcAccessMask;
    barrier.readable |= memory[i].dstAccessMask;
  }
  if (buffer == nullptr) return;
  buffer->commands.emplace_back([barrier](FakeExecution& run) { runBarrier(run, barrier); });
}

// ---- dispatches

VKAPI_ATTR void VKAPI_CALL bindPipeline(VkCommandBuffer cmd, VkPipelineBindPoint point,
                                        VkPipeline pipeline) {
  const FakeCall call("vkCmdBindPipeline");
  auto* buffer = recording(call, cmd);
  call.require(point == VK_PIPELINE_BIND_POINT_COMPUTE, "not for compute");
  call.find(pipeline, VK_OBJECT_TYPE_PIPELINE);
  if (buffer != nullptr) buffer->pipeline = pipeline;
}

VKAPI_ATTR void VKAPI_CALL bindDescriptorSets(VkCommandBuffer cmd, VkPipelineBindPoint point,
                                              VkPipelineLayout layout, uint32_t first,
                                              uint32_t count, const VkDescriptorSet* sets,
                                              uint32_t dynamicOffsets, const uint32_t*) {
  const FakeCall call("vkCmdBindDescriptorSets");
  auto* buffer = recording(call, cmd);
  call.require(point == VK_PIPELINE_BIND_POINT_COMPUTE, "not for compute");
  call.require(first == 0 && count == 1 && dynamicOffsets == 0, "there is one set, number 0");
  const auto* known = call.detail<FakePipelineLayout>(layout, VK_OBJECT_TYPE_PIPELINE_LAYOUT);
  const auto* set = call.detail<FakeDescriptorSet>(sets[0], VK_OBJECT_TYPE_DESCRIPTOR_SET);
  if (buffer == nullptr || known == nullptr || set == nullptr) return;
  call.require(known->sets.size() == 1 && known->sets[0].bindings.size() == set->bindings,
               "a set of another layout");
  buffer->set = sets[0];
  buffer->setUpdates = set->updates;
}

VKAPI_ATTR void VKAPI_CALL pushConstants(VkCommandBuffer cmd, VkPipelineLayout layout,
                                         VkShaderStageFlags stages, uint32_t offset, uint32_t size,
                                         const void* values) {
  const FakeCall call("vkCmdPushConstants");
  auto* buffer = recording(call, cmd);
  const auto* known = call.detail<FakePipelineLayout>(layout, VK_OBJECT_TYPE_PIPELINE_LAYOUT);
  call.require(size != 0 && size % 4 == 0 && offset % 4 == 0, "push constants that are not words");
  call.require(stages == VK_SHADER_STAGE_COMPUTE_BIT, "not for compute");
  const bool fits = known != nullptr && known->push.size() == 1 &&
                    known->push[0].offset <= offset &&
                    size <= known->push[0].offset + known->push[0].size - offset;
  call.require(fits, "push constants that the layout lacks");
  if (buffer == nullptr || !fits) return;
  const auto* bytes = static_cast<const uint8_t*>(values);
  if (buffer->push.size() < offset + size) buffer->push.resize(offset + size);
  std::copy(bytes, bytes + size, buffer->push.begin() + offset);
}

void runDispatch(FakeExecution& run, FakeDispatch dispatch, int setUpdates) {
  const FakeCall& call = run.call;
  const auto* pipeline = call.detail<FakePipeline>(dispatch.pipeline, VK_OBJECT_TYPE_PIPELINE);
  const auto* set = call.detail<FakeDescriptorSet>(dispatch.set, VK_OBJECT_TYPE_DESCRIPTOR_SET);
  if (pipeline == nullptr || set == nullptr) return;
  call.require(set->updates == setUpdates, "a set that was updated after it had been bound");
  call.require(set->written.size() == set->bindings, "a binding without a buffer");
  dispatch.code = pipeline->code;
  std::vector<std::span<uint8_t>> bytes;
  for (const auto& [binding, info] : set->written) {
    const FakeRange range = rangeOf(call, info.buffer, info.offset, info.range);
    requireSeen(run, range);
    hideFromHost(run, range, VK_ACCESS_SHADER_WRITE_BIT);
    dispatch.bindings.push_back(info);
    bytes.push_back(range.bytes);
  }
  if (call.machine().shader) call.machine().shader(dispatch, bytes);
  run.done.emplace_back(std::move(dispatch));
}

// The push constants as bytes; a failure when the pipeline's are not all given.
std::vector<uint8_t> pushed(const FakeCall& call, const FakeCommandBuffer& buffer,
                            const FakePipeline& pipeline) {
  uint32_t wanted = 0;
  for (const VkPushConstantRange& range : pipeline.layout.push) {
    wanted = std::max(wanted, range.offset + range.size);
  }
  std::vector<uint8_t> bytes;
  for (uint32_t i = 0; i < wanted; ++i) {
    const bool given = i < buffer.push.size() && buffer.push[i].has_value();
    call.require(given, "push constants that were not given");
    if (!given) break;
    bytes.push_back(*buffer.push[i]);
  }
  return bytes;
}

VKAPI_ATTR void VKAPI_CALL dispatch(VkCommandBuffer cmd, uint32_t x, uint32_t y, uint32_t z) {
  const FakeCall call("vkCmdDispatch");
  auto* buffer = recording(call, cmd);
  if (buffer == nullptr) return;
  const auto* pipeline = call.detail<FakePipeline>(buffer->pipeline, VK_OBJECT_TYPE_PIPELINE);
  const auto* set = call.detail<FakeDescriptorSet>(buffer->set, VK_OBJECT_TYPE_DESCRIPTOR_SET);
  if (pipeline == nullptr || set == nullptr) return;
  call.require(pipeline->layout.sets.size() == 1 &&
                   pipeline->layout.sets[0].bindings.size() == set->bindings,
               "a set of another layout");
  const std::array<uint32_t, 3> groups = {x, y, z};
  const auto& most = deviceOf(call, pipeline->layout.device).limits.maxComputeWorkGroupCount;
  for (size_t i = 0; i < groups.size(); ++i) {
    call.require(groups[i] <= most[i], "more workgroups than the device takes");
  }
  FakeDispatch one = {
      buffer->pipeline, buffer->set, nullptr, {}, pushed(call, *buffer, *pipeline), groups};
  buffer->commands.emplace_back([one = std::move(one), updates = buffer->setUpdates](
                                    FakeExecution& run) { runDispatch(run, one, updates); });
}

}  // namespace

void execute(const FakeCall& call, VkCommandBuffer cmd) {
  const auto* buffer = call.detail<FakeCommandBuffer>(cmd, VK_OBJECT_TYPE_COMMAND_BUFFER);
  FakeExecution run = {call, {}, {}};
  for (const auto& command : buffer->commands) command(run);
  call.machine().submissions.push_back(std::move(run.done));
}

const FakeFunctions& commandFunctions() {
  static const FakeFunctions functions = {
      {"vkCmdCopyBuffer", erase<PFN_vkCmdCopyBuffer>(copyBuffer)},
      {"vkCmdPipelineBarrier", erase<PFN_vkCmdPipelineBarrier>(pipelineBarrier)},
      {"vkCmdBindPipeline", erase<PFN_vkCmdBindPipeline>(bindPipeline)},
      {"vkCmdBindDescriptorSets", erase<PFN_vkCmdBindDescriptorSets>(bindDescriptorSets)},
      {"vkCmdPushConstants", erase<PFN_vkCmdPushConstants>(pushConstants)},
      {"vkCmdDispatch", erase<PFN_vkCmdDispatch>(dispatch)},
  };
  return functions;
}

}  // namespace kiv::test
