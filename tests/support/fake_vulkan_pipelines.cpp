// SPDX-License-Identifier: Apache-2.0
// The functions of the scripted machine for shader modules, pipelines and
// descriptor sets.
#include "support/fake_vulkan_objects.h"

namespace zemtest {

using namespace kiv;

namespace {

// A function that destroys one object of a device.
template <typename Handle, VkObjectType kType, const char* kName>
VKAPI_ATTR void VKAPI_CALL destroy(VkDevice device, Handle handle, const VkAllocationCallbacks*) {
  const FakeCall call(kName);
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  call.destroy(handle, kType);
}
constexpr char kDestroyModule[] = "vkDestroyShaderModule";
constexpr char kDestroySetLayout[] = "vkDestroyDescriptorSetLayout";
constexpr char kDestroyPipelineLayout[] = "vkDestroyPipelineLayout";
constexpr char kDestroyPipeline[] = "vkDestroyPipeline";

VKAPI_ATTR VkResult VKAPI_CALL createShaderModule(VkDevice device,
                                                  const VkShaderModuleCreateInfo* info,
                                                  const VkAllocationCallbacks*,
                                                  VkShaderModule* out) {
  const FakeCall call("vkCreateShaderModule");
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  call.requests().shaderCode.assign(info->pCode, info->pCode + info->codeSize / 4);
  return call.create(VK_OBJECT_TYPE_SHADER_MODULE, idOf(device), out);
}

VKAPI_ATTR VkResult VKAPI_CALL createSetLayout(VkDevice device,
                                               const VkDescriptorSetLayoutCreateInfo* info,
                                               const VkAllocationCallbacks*,
                                               VkDescriptorSetLayout* out) {
  const FakeCall call("vkCreateDescriptorSetLayout");
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  call.requests().bindings = info->bindingCount;
  return call.create(VK_OBJECT_TYPE_DESCRIPTOR_SET_LAYOUT, idOf(device), out);
}

VKAPI_ATTR VkResult VKAPI_CALL createPipelineLayout(VkDevice device,
                                                    const VkPipelineLayoutCreateInfo* info,
                                                    const VkAllocationCallbacks*,
                                                    VkPipelineLayout* out) {
  const FakeCall call("vkCreatePipelineLayout");
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  for (uint32_t i = 0; i < info->setLayoutCount; ++i) {
    call.find(info->pSetLayouts[i], VK_OBJECT_TYPE_DESCRIPTOR_SET_LAYOUT);
  }
  call.requests().pushSize =
      info->pushConstantRangeCount == 0 ? 0 : info->pPushConstantRanges[0].size;
  return call.create(VK_OBJECT_TYPE_PIPELINE_LAYOUT, idOf(device), out);
}

VKAPI_ATTR VkResult VKAPI_CALL createComputePipelines(VkDevice device, VkPipelineCache,
                                                      uint32_t count,
                                                      const VkComputePipelineCreateInfo* infos,
                                                      const VkAllocationCallbacks*,
                                                      VkPipeline* out) {
  const FakeCall call("vkCreateComputePipelines");
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  for (uint32_t i = 0; i < count; ++i) {
    call.find(infos[i].stage.module, VK_OBJECT_TYPE_SHADER_MODULE);
    call.find(infos[i].layout, VK_OBJECT_TYPE_PIPELINE_LAYOUT);
    call.create(VK_OBJECT_TYPE_PIPELINE, idOf(device), &out[i]);
  }
  return call.result();
}

VKAPI_ATTR VkResult VKAPI_CALL createDescriptorPool(VkDevice device,
                                                    const VkDescriptorPoolCreateInfo* info,
                                                    const VkAllocationCallbacks*,
                                                    VkDescriptorPool* out) {
  const FakeCall call("vkCreateDescriptorPool");
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  return call.create(VK_OBJECT_TYPE_DESCRIPTOR_POOL, idOf(device), out,
                     FakeDescriptorPool{info->maxSets, info->maxSets});
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
  return VK_SUCCESS;
}

VKAPI_ATTR VkResult VKAPI_CALL allocateDescriptorSets(VkDevice device,
                                                      const VkDescriptorSetAllocateInfo* info,
                                                      VkDescriptorSet* out) {
  const FakeCall call("vkAllocateDescriptorSets");
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  call.find(info->pSetLayouts[0], VK_OBJECT_TYPE_DESCRIPTOR_SET_LAYOUT);
  auto* pool =
      call.detail<FakeDescriptorPool>(info->descriptorPool, VK_OBJECT_TYPE_DESCRIPTOR_POOL);
  if (pool != nullptr && !call.fails()) {
    if (pool->setsLeft == 0) return VK_ERROR_OUT_OF_POOL_MEMORY;
    --pool->setsLeft;
  }
  return call.create(VK_OBJECT_TYPE_DESCRIPTOR_SET, idOf(info->descriptorPool), out,
                     FakeDescriptorSet{});
}

VKAPI_ATTR void VKAPI_CALL updateDescriptorSets(VkDevice device, uint32_t count,
                                                const VkWriteDescriptorSet* writes, uint32_t,
                                                const VkCopyDescriptorSet*) {
  const FakeCall call("vkUpdateDescriptorSets");
  call.find(device, VK_OBJECT_TYPE_DEVICE);
  for (uint32_t i = 0; i < count; ++i) {
    call.find(writes[i].pBufferInfo->buffer, VK_OBJECT_TYPE_BUFFER);
    auto* set = call.detail<FakeDescriptorSet>(writes[i].dstSet, VK_OBJECT_TYPE_DESCRIPTOR_SET);
    if (set != nullptr) set->written[writes[i].dstBinding] = *writes[i].pBufferInfo;
  }
}

}  // namespace

const FakeFunctions& pipelineFunctions() {
  static const FakeFunctions functions = {
      {"vkCreateShaderModule", erase<PFN_vkCreateShaderModule>(createShaderModule)},
      {kDestroyModule, erase<PFN_vkDestroyShaderModule>(
                           destroy<VkShaderModule, VK_OBJECT_TYPE_SHADER_MODULE, kDestroyModule>)},
      {"vkCreateDescriptorSetLayout", erase<PFN_vkCreateDescriptorSetLayout>(createSetLayout)},
      {kDestroySetLayout, erase<PFN_vkDestroyDescriptorSetLayout>(
                              destroy<VkDescriptorSetLayout, VK_OBJECT_TYPE_DESCRIPTOR_SET_LAYOUT,
                                      kDestroySetLayout>)},
      {"vkCreatePipelineLayout", erase<PFN_vkCreatePipelineLayout>(createPipelineLayout)},
      {kDestroyPipelineLayout,
       erase<PFN_vkDestroyPipelineLayout>(
           destroy<VkPipelineLayout, VK_OBJECT_TYPE_PIPELINE_LAYOUT, kDestroyPipelineLayout>)},
      {"vkCreateComputePipelines", erase<PFN_vkCreateComputePipelines>(createComputePipelines)},
      {kDestroyPipeline, erase<PFN_vkDestroyPipeline>(
                             destroy<VkPipeline, VK_OBJECT_TYPE_PIPELINE, kDestroyPipeline>)},
      {"vkCreateDescriptorPool", erase<PFN_vkCreateDescriptorPool>(createDescriptorPool)},
      {"vkDestroyDescriptorPool", erase<PFN_vkDestroyDescriptorPool>(destroyDescriptorPool)},
      {"vkResetDescriptorPool", erase<PFN_vkResetDescriptorPool>(resetDescriptorPool)},
      {"vkAllocateDescriptorSets", erase<PFN_vkAllocateDescriptorSets>(allocateDescriptorSets)},
      {"vkUpdateDescriptorSets", erase<PFN_vkUpdateDescriptorSets>(updateDescriptorSets)},
  };
  return functions;
}

}  // namespace zemtest
