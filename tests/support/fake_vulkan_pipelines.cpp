// The functions of the scripted machine for shader modules, pipelines and
// descriptor sets.
#include <algorithm>

#include "support/fake_vulkan_objects.h"

namespace kiv::test {
namespace {

// ---- shader modules

VKAPI_ATTR VkResult VKAPI_CALL createShaderModule(VkDevice device,
                                                  const VkShaderModuleCreateInfo* info,
                                                  const VkAllocationCallbacks*,
                                                  VkShaderModule* out) {
  constexpr uint32_t kMagic = 0x07230203;
  const FakeCall call("vkCreateShaderModule");
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  call.require(info->codeSize != 0 && info->codeSize % 4 == 0, "code of a size that none has");
  auto code =
      std::make_shared<const std::vector<uint32_t>>(info->pCode, info->pCode + info->codeSize / 4);
  call.require(!code->empty() && code->front() == kMagic, "not SPIR-V");
  call.requests().shaderCode = *code;
  return call.create(VK_OBJECT_TYPE_SHADER_MODULE, idOf(device), out, FakeShaderModule{code});
}

VKAPI_ATTR void VKAPI_CALL destroyShaderModule(VkDevice device, VkShaderModule module,
                                               const VkAllocationCallbacks*) {
  const FakeCall call("vkDestroyShaderModule");
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  call.destroy(module, VK_OBJECT_TYPE_SHADER_MODULE);
}

// ---- layouts and pipelines

VKAPI_ATTR VkResult VKAPI_CALL createSetLayout(VkDevice device,
                                               const VkDescriptorSetLayoutCreateInfo* info,
                                               const VkAllocationCallbacks*,
                                               VkDescriptorSetLayout* out) {
  const FakeCall call("vkCreateDescriptorSetLayout");
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  FakeSetLayout layout;
  layout.bindings.assign(info->pBindings, info->pBindings + info->bindingCount);
  call.requests().setLayout = layout.bindings;
  return call.create(VK_OBJECT_TYPE_DESCRIPTOR_SET_LAYOUT, idOf(device), out, layout);
}

VKAPI_ATTR void VKAPI_CALL destroySetLayout(VkDevice device, VkDescriptorSetLayout layout,
                                            const VkAllocationCallbacks*) {
  const FakeCall call("vkDestroyDescriptorSetLayout");
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  call.destroy(layout, VK_OBJECT_TYPE_DESCRIPTOR_SET_LAYOUT);
}

VKAPI_ATTR VkResult VKAPI_CALL createPipelineLayout(VkDevice device,
                                                    const VkPipelineLayoutCreateInfo* info,
                                                    const VkAllocationCallbacks*,
                                                    VkPipelineLayout* out) {
  const FakeCall call("vkCreatePipelineLayout");
  FakePipelineLayout layout;
  layout.device = device;
  for (uint32_t i = 0; i < info->setLayoutCount; ++i) {
    const auto* set =
        call.detail<FakeSetLayout>(info->pSetLayouts[i], VK_OBJECT_TYPE_DESCRIPTOR_SET_LAYOUT);
    if (set != nullptr) layout.sets.push_back(*set);
  }
  layout.push.assign(info->pPushConstantRanges,
                     info->pPushConstantRanges + info->pushConstantRangeCount);
  const uint32_t maxPush = deviceOf(call, device).limits.maxPushConstantsSize;
  for (const VkPushConstantRange& range : layout.push) {
    call.require(range.size != 0 && range.size % 4 == 0, "push constants that are not words");
    call.require(range.size <= maxPush, "more push constants than the device takes");
  }
  call.requests().pipelineLayout = {info->setLayoutCount, layout.push};
  return call.create(VK_OBJECT_TYPE_PIPELINE_LAYOUT, idOf(device), out, layout);
}

VKAPI_ATTR void VKAPI_CALL destroyPipelineLayout(VkDevice device, VkPipelineLayout layout,
                                                 const VkAllocationCallbacks*) {
  const FakeCall call("vkDestroyPipelineLayout");
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  call.destroy(layout, VK_OBJECT_TYPE_PIPELINE_LAYOUT);
}

VKAPI_ATTR VkResult VKAPI_CALL createComputePipelines(VkDevice device, VkPipelineCache,
                                                      uint32_t count,
                                                      const VkComputePipelineCreateInfo* infos,
                                                      const VkAllocationCallbacks*,
                                                      VkPipeline* out) {
  const FakeCall call("vkCreateComputePipelines");
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  for (uint32_t i = 0; i < count; ++i) {
    const VkPipelineShaderStageCreateInfo& stage = infos[i].stage;
    call.requests().pipeline = {stage.stage, stage.pName, stage.pSpecializationInfo != nullptr};
    FakePipeline pipeline;
    const auto* module = call.detail<FakeShaderModule>(stage.module, VK_OBJECT_TYPE_SHADER_MODULE);
    if (module != nullptr) pipeline.code = module->code;
    const auto* layout =
        call.detail<FakePipelineLayout>(infos[i].layout, VK_OBJECT_TYPE_PIPELINE_LAYOUT);
    if (layout != nullptr) pipeline.layout = *layout;
    call.create(VK_OBJECT_TYPE_PIPELINE, idOf(device), &out[i], pipeline);
  }
  return call.result();
}

VKAPI_ATTR void VKAPI_CALL destroyPipeline(VkDevice device, VkPipeline pipeline,
                                           const VkAllocationCallbacks*) {
  const FakeCall call("vkDestroyPipeline");
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  call.destroy(pipeline, VK_OBJECT_TYPE_PIPELINE);
}

// ---- descriptor pools and sets

VKAPI_ATTR VkResult VKAPI_CALL createDescriptorPool(VkDevice device,
                                                    const VkDescriptorPoolCreateInfo* info,
                                                    const VkAllocationCallbacks*,
                                                    VkDescriptorPool* out) {
  const FakeCall call("vkCreateDescriptorPool");
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  call.require(info->maxSets != 0, "a pool of no sets");
  uint64_t buffers = 0;
  for (uint32_t i = 0; i < info->poolSizeCount; ++i) {
    call.require(info->pPoolSizes[i].descriptorCount != 0, "a pool size of nothing");
    if (info->pPoolSizes[i].type != VK_DESCRIPTOR_TYPE_STORAGE_BUFFER) continue;
    buffers += info->pPoolSizes[i].descriptorCount;
  }
  call.requests().descriptorPool = {
      info->flags, info->maxSets, {info->pPoolSizes, info->pPoolSizes + info->poolSizeCount}};
  return call.create(VK_OBJECT_TYPE_DESCRIPTOR_POOL, idOf(device), out,
                     FakeDescriptorPool{info->maxSets, buffers, info->maxSets, buffers});
}

// Frees the pool's sets with it, as a real one does.
VKAPI_ATTR void VKAPI_CALL destroyDescriptorPool(VkDevice device, VkDescriptorPool pool,
                                                 const VkAllocationCallbacks*) {
  const FakeCall call("vkDestroyDescriptorPool");
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  call.destroyChildren(pool, VK_OBJECT_TYPE_DESCRIPTOR_SET);
  call.destroy(pool, VK_OBJECT_TYPE_DESCRIPTOR_POOL);
}

VKAPI_ATTR VkResult VKAPI_CALL resetDescriptorPool(VkDevice device, VkDescriptorPool handle,
                                                   VkDescriptorPoolResetFlags) {
  const FakeCall call("vkResetDescriptorPool");
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  auto* pool = call.detail<FakeDescriptorPool>(handle, VK_OBJECT_TYPE_DESCRIPTOR_POOL);
  if (pool == nullptr || call.fails()) return call.result();
  call.destroyChildren(handle, VK_OBJECT_TYPE_DESCRIPTOR_SET);
  pool->setsLeft = pool->maxSets;
  pool->buffersLeft = pool->maxBuffers;
  return VK_SUCCESS;
}

VKAPI_ATTR VkResult VKAPI_CALL allocateDescriptorSets(VkDevice device,
                                                      const VkDescriptorSetAllocateInfo* info,
                                                      VkDescriptorSet* out) {
  const FakeCall call("vkAllocateDescriptorSets");
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  auto* pool =
      call.detail<FakeDescriptorPool>(info->descriptorPool, VK_OBJECT_TYPE_DESCRIPTOR_POOL);
  call.require(info->descriptorSetCount == 1, "sets are taken one at a time here");
  const auto* layout =
      call.detail<FakeSetLayout>(info->pSetLayouts[0], VK_OBJECT_TYPE_DESCRIPTOR_SET_LAYOUT);
  const size_t bindings = layout == nullptr ? 0 : layout->bindings.size();
  if (pool != nullptr && !call.fails()) {
    if (pool->setsLeft == 0 || pool->buffersLeft < bindings) return VK_ERROR_OUT_OF_POOL_MEMORY;
    --pool->setsLeft;
    pool->buffersLeft -= bindings;
  }
  return call.create(VK_OBJECT_TYPE_DESCRIPTOR_SET, idOf(info->descriptorPool), out,
                     FakeDescriptorSet{bindings, {}});
}

void checkDescriptor(const FakeCall& call, VkDevice device, VkDescriptorBufferInfo& info) {
  const auto* buffer = call.detail<FakeBuffer>(info.buffer, VK_OBJECT_TYPE_BUFFER);
  if (buffer == nullptr) return;
  const VkPhysicalDeviceLimits& limits = deviceOf(call, device).limits;
  if (info.range == VK_WHOLE_SIZE) info.range = buffer->info.size - info.offset;
  call.require((buffer->info.usage & VK_BUFFER_USAGE_STORAGE_BUFFER_BIT) != 0,
               "a buffer that is not for storage");
  call.require(info.range != 0, "a binding of no bytes");
  call.require(info.range <= limits.maxStorageBufferRange, "more bytes than a binding may have");
  call.require(info.offset % limits.minStorageBufferOffsetAlignment == 0, "offset not aligned");
  rangeOf(call, info.buffer, info.offset, info.range);
}

VKAPI_ATTR void VKAPI_CALL updateDescriptorSets(VkDevice device, uint32_t count,
                                                const VkWriteDescriptorSet* writes, uint32_t copies,
                                                const VkCopyDescriptorSet*) {
  const FakeCall call("vkUpdateDescriptorSets");
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  call.require(copies == 0, "sets are never copied here");
  call.requests().writes.clear();
  for (uint32_t i = 0; i < count; ++i) {
    const VkWriteDescriptorSet& write = writes[i];
    call.require(write.descriptorType == VK_DESCRIPTOR_TYPE_STORAGE_BUFFER &&
                     write.descriptorCount == 1 && write.dstArrayElement == 0,
                 "anything but one storage buffer");
    VkDescriptorBufferInfo info = *write.pBufferInfo;
    call.requests().writes.push_back({write.dstSet, write.dstBinding, info});
    checkDescriptor(call, device, info);
    auto* set = call.detail<FakeDescriptorSet>(write.dstSet, VK_OBJECT_TYPE_DESCRIPTOR_SET);
    if (set == nullptr) continue;
    call.require(write.dstBinding < set->bindings, "a binding that the layout lacks");
    set->written[write.dstBinding] = info;
    ++set->updates;
  }
}

}  // namespace

const FakeFunctions& pipelineFunctions() {
  static const FakeFunctions functions = {
      {"vkCreateShaderModule", erase<PFN_vkCreateShaderModule>(createShaderModule)},
      {"vkDestroyShaderModule", erase<PFN_vkDestroyShaderModule>(destroyShaderModule)},
      {"vkCreateDescriptorSetLayout", erase<PFN_vkCreateDescriptorSetLayout>(createSetLayout)},
      {"vkDestroyDescriptorSetLayout", erase<PFN_vkDestroyDescriptorSetLayout>(destroySetLayout)},
      {"vkCreatePipelineLayout", erase<PFN_vkCreatePipelineLayout>(createPipelineLayout)},
      {"vkDestroyPipelineLayout", erase<PFN_vkDestroyPipelineLayout>(destroyPipelineLayout)},
      {"vkCreateComputePipelines", erase<PFN_vkCreateComputePipelines>(createComputePipelines)},
      {"vkDestroyPipeline", erase<PFN_vkDestroyPipeline>(destroyPipeline)},
      {"vkCreateDescriptorPool", erase<PFN_vkCreateDescriptorPool>(createDescriptorPool)},
      {"vkDestroyDescriptorPool", erase<PFN_vkDestroyDescriptorPool>(destroyDescriptorPool)},
      {"vkResetDescriptorPool", erase<PFN_vkResetDescriptorPool>(resetDescriptorPool)},
      {"vkAllocateDescriptorSets", erase<PFN_vkAllocateDescriptorSets>(allocateDescriptorSets)},
      {"vkUpdateDescriptorSets", erase<PFN_vkUpdateDescriptorSets>(updateDescriptorSets)},
  };
  return functions;
}

}  // namespace kiv::test
