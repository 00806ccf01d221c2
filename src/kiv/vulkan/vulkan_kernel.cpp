// SPDX-License-Identifier: Apache-2.0
#include "kiv/vulkan/vulkan_kernel.h"

#include <vector>

#include "kiv/vulkan/vulkan_shader.h"
#include "kiv/vulkan/vulkan_shader_needs.h"

namespace kiv::vulkan {
Status VulkanKernel::create(VulkanContext& ctx, const uint32_t* code, size_t wordCount,
                            uint32_t bindingCount, uint32_t pushSize) {
  if (ready_) return {};
  if (ctx.device() == VK_NULL_HANDLE) {
    return invalidFormat("create: uninitialized");
  }
  destroy();  // what an attempt that failed had made
  if (Status status = checkShaderNeeds(shaderNeeds(code, wordCount), ctx.info()); !status.ok()) {
    return status;
  }
  ctx_ = &ctx;
  bindingCount_ = bindingCount;
  pushSize_ = pushSize;
  Status status = createSetLayout();
  if (status.ok()) status = createPipelineLayout();
  if (status.ok()) status = createPipeline(code, wordCount);
  if (status.ok()) status = createPool();
  if (!status.ok()) return status;
  set_ = allocSet();
  if (set_ == VK_NULL_HANDLE) return ioError("vkAllocateDescriptorSets failed");
  ready_ = true;
  return {};
}

Status VulkanKernel::createSetLayout() {
  std::vector<VkDescriptorSetLayoutBinding> bindings(bindingCount_);
  for (uint32_t i = 0; i < bindingCount_; ++i) {
    bindings[i].binding = i;
    bindings[i].descriptorType = VK_DESCRIPTOR_TYPE_STORAGE_BUFFER;
    bindings[i].descriptorCount = 1;
    bindings[i].stageFlags = VK_SHADER_STAGE_COMPUTE_BIT;
  }
  VkDescriptorSetLayoutCreateInfo info{};
  info.sType = VK_STRUCTURE_TYPE_DESCRIPTOR_SET_LAYOUT_CREATE_INFO;
  info.bindingCount = bindingCount_;
  info.pBindings = bindings.data();
  VkDescriptorSetLayout layout = VK_NULL_HANDLE;
  if (vkCreateDescriptorSetLayout(ctx_->device(), &info, nullptr, &layout) != VK_SUCCESS) {
    return ioError("vkCreateDescriptorSetLayout failed");
  }
  setLayout_ = layout;
  return {};
}

Status VulkanKernel::createPipelineLayout() {
  const VkPushConstantRange push = {
      .stageFlags = VK_SHADER_STAGE_COMPUTE_BIT, .offset = 0, .size = pushSize_};
  VkPipelineLayoutCreateInfo info{};
  info.sType = VK_STRUCTURE_TYPE_PIPELINE_LAYOUT_CREATE_INFO;
  info.setLayoutCount = 1;
  info.pSetLayouts = &setLayout_;
  info.pushConstantRangeCount = pushSize_ != 0 ? 1 : 0;
  info.pPushConstantRanges = pushSize_ != 0 ? &push : nullptr;
  VkPipelineLayout layout = VK_NULL_HANDLE;
  if (vkCreatePipelineLayout(ctx_->device(), &info, nullptr, &layout) != VK_SUCCESS) {
    return ioError("vkCreatePipelineLayout failed");
  }
  pipelineLayout_ = layout;
  return {};
}

Status VulkanKernel::createPipeline(const uint32_t* code, size_t wordCount) {
  VkShaderModule module = VK_NULL_HANDLE;
  if (Status status = createShaderModule(*ctx_, code, wordCount, &module); !status.ok()) {
    return status;
  }
  VkComputePipelineCreateInfo info{};
  info.sType = VK_STRUCTURE_TYPE_COMPUTE_PIPELINE_CREATE_INFO;
  info.stage.sType = VK_STRUCTURE_TYPE_PIPELINE_SHADER_STAGE_CREATE_INFO;
  info.stage.stage = VK_SHADER_STAGE_COMPUTE_BIT;
  info.stage.module = module;
  info.stage.pName = "main";
  info.layout = pipelineLayout_;
  VkPipeline pipeline = VK_NULL_HANDLE;
  const VkResult result =
      vkCreateComputePipelines(ctx_->device(), VK_NULL_HANDLE, 1, &info, nullptr, &pipeline);
  destroyShaderModule(*ctx_, module);
  if (result != VK_SUCCESS) return ioError("vkCreateComputePipelines failed");
  pipeline_ = pipeline;
  return {};
}

Status VulkanKernel::createPool() {
  const VkDescriptorPoolSize size = {
      .type = VK_DESCRIPTOR_TYPE_STORAGE_BUFFER,
      .descriptorCount = bindingCount_ != 0 ? bindingCount_ * kMaxSets : kMaxSets};
  VkDescriptorPoolCreateInfo info{};
  info.sType = VK_STRUCTURE_TYPE_DESCRIPTOR_POOL_CREATE_INFO;
  info.maxSets = kMaxSets;
  info.poolSizeCount = 1;
  info.pPoolSizes = &size;
  VkDescriptorPool pool = VK_NULL_HANDLE;
  if (vkCreateDescriptorPool(ctx_->device(), &info, nullptr, &pool) != VK_SUCCESS) {
    return ioError("vkCreateDescriptorPool failed");
  }
  pool_ = pool;
  return {};
}

void VulkanKernel::destroy() {
  if (ctx_ != nullptr && ctx_->device() != VK_NULL_HANDLE) {
    VkDevice device = ctx_->device();
    if (pool_ != VK_NULL_HANDLE) vkDestroyDescriptorPool(device, pool_, nullptr);
    if (pipeline_ != VK_NULL_HANDLE) vkDestroyPipeline(device, pipeline_, nullptr);
    if (pipelineLayout_ != VK_NULL_HANDLE) {
      vkDestroyPipelineLayout(device, pipelineLayout_, nullptr);
    }
    if (setLayout_ != VK_NULL_HANDLE) vkDestroyDescriptorSetLayout(device, setLayout_, nullptr);
  }
  pool_ = VK_NULL_HANDLE;
  set_ = VK_NULL_HANDLE;  // went with the pool
  pipeline_ = VK_NULL_HANDLE;
  pipelineLayout_ = VK_NULL_HANDLE;
  setLayout_ = VK_NULL_HANDLE;
  ready_ = false;
  ctx_ = nullptr;  // may end before the next destroy()
}

VkDescriptorSet VulkanKernel::allocSet() {
  if (ctx_ == nullptr || pool_ == VK_NULL_HANDLE) return VK_NULL_HANDLE;
  VkDescriptorSetAllocateInfo info{};
  info.sType = VK_STRUCTURE_TYPE_DESCRIPTOR_SET_ALLOCATE_INFO;
  info.descriptorPool = pool_;
  info.descriptorSetCount = 1;
  info.pSetLayouts = &setLayout_;
  VkDescriptorSet set = VK_NULL_HANDLE;
  const VkResult result = vkAllocateDescriptorSets(ctx_->device(), &info, &set);
  return result == VK_SUCCESS ? set : VK_NULL_HANDLE;
}

void VulkanKernel::resetSets() {
  if (ctx_ == nullptr || pool_ == VK_NULL_HANDLE) return;
  vkResetDescriptorPool(ctx_->device(), pool_, 0);
  set_ = allocSet();
}

Status VulkanKernel::bindBuffers(VulkanContext& ctx, VulkanBuffer* const* buffers, uint32_t count) {
  if (buffers == nullptr || count > bindingCount_) {
    return invalidFormat("bindBuffers: count exceeds layout");
  }
  return bindBuffersTo(ctx, buffers, count, set_);
}

Status VulkanKernel::bindBuffersTo(VulkanContext& ctx, VulkanBuffer* const* buffers, uint32_t count,
                                   VkDescriptorSet set) {
  if (buffers == nullptr || count > bindingCount_ || set == VK_NULL_HANDLE) {
    return invalidFormat("bindBuffersTo: bad args");
  }
  std::vector<VkDescriptorBufferInfo> ranges(count);
  std::vector<VkWriteDescriptorSet> writes(count);
  for (uint32_t i = 0; i < count; ++i) {
    ranges[i] = {.buffer = buffers[i]->handle(), .offset = 0, .range = buffers[i]->size()};
    writes[i].sType = VK_STRUCTURE_TYPE_WRITE_DESCRIPTOR_SET;
    writes[i].dstSet = set;
    writes[i].dstBinding = i;
    writes[i].descriptorCount = 1;
    writes[i].descriptorType = VK_DESCRIPTOR_TYPE_STORAGE_BUFFER;
    writes[i].pBufferInfo = &ranges[i];
  }
  vkUpdateDescriptorSets(ctx.device(), count, writes.data(), 0, nullptr);
  return {};
}

void VulkanKernel::dispatch(VkCommandBuffer cmd, uint32_t x, uint32_t y, uint32_t z,
                            const void* push, size_t pushBytes) {
  dispatchTo(cmd, set_, x, y, z, push, pushBytes);
}

void VulkanKernel::dispatchTo(VkCommandBuffer cmd, VkDescriptorSet set, uint32_t x, uint32_t y,
                              uint32_t z, const void* push, size_t pushBytes) {
  vkCmdBindPipeline(cmd, VK_PIPELINE_BIND_POINT_COMPUTE, pipeline_);
  vkCmdBindDescriptorSets(cmd, VK_PIPELINE_BIND_POINT_COMPUTE, pipelineLayout_, 0, 1, &set, 0,
                          nullptr);
  if (push != nullptr && pushBytes != 0) {
    vkCmdPushConstants(cmd, pipelineLayout_, VK_SHADER_STAGE_COMPUTE_BIT, 0,
                       static_cast<uint32_t>(pushBytes), push);
  }
  vkCmdDispatch(cmd, x, y, z);
}

}  // namespace kiv::vulkan
