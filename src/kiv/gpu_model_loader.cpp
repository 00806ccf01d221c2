// SPDX-License-Identifier: Apache-2.0
#include "kiv/gpu_model_loader.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "kiv/vulkan/vulkan_buffer.h"

namespace kiv {
namespace {

constexpr uint64_t kHeadroom = uint64_t{64} << 20;
constexpr uint64_t kTensorAlignment = 256;

bool isSelected(const TensorView& tensor, GPUModelLoader::TensorFilter filter) {
  return filter == nullptr || tensor.name.empty() || filter(tensor.name.c_str());
}

uint64_t totalBytes(const std::vector<const TensorView*>& tensors) {
  uint64_t bytes = 0;
  for (const TensorView* tensor : tensors) bytes += tensor->size;
  return bytes;
}

// The end of the last tensor when all follow each other in blocks of `blockBytes`, and one that
// does not fit into the rest of a block begins the next. The allocator, which looks for the first
// fit, needs no more.
uint64_t endInBlocks(const std::vector<const TensorView*>& tensors, uint64_t blockBytes) {
  uint64_t end = 0;
  for (const TensorView* tensor : tensors) {
    uint64_t begin = (end + kTensorAlignment - 1) / kTensorAlignment * kTensorAlignment;
    const uint64_t size = std::max<uint64_t>(tensor->size, 1);
    if (begin % blockBytes + size > blockBytes) begin = (begin / blockBytes + 1) * blockBytes;
    end = begin + size;
  }
  return end;
}

bool nameLess(const GPUTensorView& view, const std::string& name) { return view.name < name; }

}  // namespace

Status GPUModelLoader::init(uint64_t deviceIndex) {
  release();
  Status status = ctx_.init(deviceIndex);
  valid_ = status.ok();
  return status;
}

void GPUModelLoader::release() {
  releaseBuffers();
  alloc_.destroy();
  views_.clear();
  valid_ = false;
  ctx_.destroy();
}

void GPUModelLoader::releaseBuffers() {
  VkDevice device = ctx_.device();
  if (device != VK_NULL_HANDLE) {
    if (staging_ != VK_NULL_HANDLE) vkDestroyBuffer(device, staging_, nullptr);
    if (stagingMem_ != VK_NULL_HANDLE) vkFreeMemory(device, stagingMem_, nullptr);
    for (VkBuffer buffer : poolBuffers_) vkDestroyBuffer(device, buffer, nullptr);
    for (VkBuffer buffer : tensorBuffers_) vkDestroyBuffer(device, buffer, nullptr);
  }
  staging_ = VK_NULL_HANDLE;
  stagingMem_ = VK_NULL_HANDLE;
  poolBuffers_.clear();
  tensorBuffers_.clear();
}

Status GPUModelLoader::loadWeightsToGPUFiltered(ZEMLoader& loader, TensorFilter filter) {
  if (!valid_) return invalidFormat("GPUModelLoader: not initialized");
  views_.clear();
  releaseBuffers();
  ++loadCount_;
  std::vector<const TensorView*> tensors;
  Status status = selectTensors(loader, filter, tensors);
  if (status.ok()) status = setupPool(poolBytes(tensors));
  if (status.ok()) status = placeTensors(tensors);
  if (status.ok()) status = uploadTensors(tensors);
  if (status.ok()) status = createTensorBuffers();
  if (!status.ok()) {
    views_.clear();
    return status;
  }
  std::sort(views_.begin(), views_.end(),
            [](const GPUTensorView& a, const GPUTensorView& b) { return a.name < b.name; });
  return {};
}

// The tensors to be loaded, in the container's order. A file can claim that a tensor lies outside
// of it, or is as large as the file many times over.
Status GPUModelLoader::selectTensors(const ZEMLoader& loader, TensorFilter filter,
                                     std::vector<const TensorView*>& out) {
  const uint64_t most = VRAMAllocator::blockLimit(ctx_);
  uint64_t bytes = 0;
  leftOut_ = 0;
  for (size_t i = 0; i < loader.tensorCount(); ++i) {
    const TensorView& tensor = loader.tensorView(i);
    if (!isSelected(tensor, filter)) continue;
    if (!loader.holdsBytes(tensor, tensor.size) ||
        tensor.size > std::numeric_limits<uint64_t>::max() / 2 - bytes) {
      return invalidFormat("GPUModelLoader: tensor outside the file");
    }
    if (tensor.size > most) {
      ++leftOut_;
      continue;
    }
    out.push_back(&tensor);
    bytes += tensor.size;
  }
  return {};
}

// Once a pool has told how much memory the device has, some of it is left to
// others.
uint64_t GPUModelLoader::poolBytes(const std::vector<const TensorView*>& tensors) const {
  const uint64_t block = VRAMAllocator::blockLimit(ctx_);
  uint64_t wanted = totalBytes(tensors) + kHeadroom;
  if (wanted > block) wanted = endInBlocks(tensors, block) + kHeadroom;
  const GpuInfo& device = alloc_.info();
  if (!device.valid || device.totalVRAM == 0) return wanted;
  return std::min(wanted, device.totalVRAM * 9 / 10);
}

Status GPUModelLoader::setupPool(uint64_t poolSize) {
  if (Status status = alloc_.init(ctx_, poolSize); !status.ok()) return status;
  Status status = createPoolBuffers();
  if (status.ok()) status = createStaging();
  if (status.ok()) status = bindPoolBuffers();
  return status;
}

Status GPUModelLoader::createPoolBuffers() {
  constexpr VkBufferUsageFlags kUsage = VK_BUFFER_USAGE_STORAGE_BUFFER_BIT |
                                        VK_BUFFER_USAGE_TRANSFER_DST_BIT |
                                        VK_BUFFER_USAGE_TRANSFER_SRC_BIT;
  for (const VRAMAllocator::Block& block : alloc_.blocks()) {
    VkBuffer buffer = VK_NULL_HANDLE;
    if (Status status =
            createBuffer(block.size, kUsage, "GPUModelLoader: buffer create failed", buffer);
        !status.ok()) {
      return status;
    }
    poolBuffers_.push_back(buffer);
  }
  return {};
}

Status GPUModelLoader::bindPoolBuffers() {
  for (size_t i = 0; i < poolBuffers_.size(); ++i) {
    if (!bindToPool(poolBuffers_[i], alloc_.blocks()[i].offset)) {
      return ioError("GPUModelLoader: buffer bind failed");
    }
  }
  return {};
}

Status GPUModelLoader::createStaging() {
  constexpr VkBufferUsageFlags kBothWays =
      VK_BUFFER_USAGE_TRANSFER_SRC_BIT | VK_BUFFER_USAGE_TRANSFER_DST_BIT;
  if (Status status =
          createBuffer(kStagingBytes, kBothWays, "GPUModelLoader: staging create failed", staging_);
      !status.ok()) {
    return status;
  }
  VkMemoryRequirements requirements{};
  vkGetBufferMemoryRequirements(ctx_.device(), staging_, &requirements);
  VkMemoryAllocateInfo info{};
  info.sType = VK_STRUCTURE_TYPE_MEMORY_ALLOCATE_INFO;
  info.allocationSize = std::max(kStagingBytes, requirements.size);
  constexpr VkMemoryPropertyFlags kHostMemory =
      VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT | VK_MEMORY_PROPERTY_HOST_COHERENT_BIT;
  if (!vulkan::findMemoryType(ctx_, requirements.memoryTypeBits, kHostMemory,
                              info.memoryTypeIndex)) {
    return unsupported("GPUModelLoader: no host-visible memory");
  }
  VkDeviceMemory memory = VK_NULL_HANDLE;
  if (vkAllocateMemory(ctx_.device(), &info, nullptr, &memory) != VK_SUCCESS) {
    return ioError("GPUModelLoader: staging alloc failed");
  }
  stagingMem_ = memory;
  if (vkBindBufferMemory(ctx_.device(), staging_, stagingMem_, 0) != VK_SUCCESS) {
    return ioError("GPUModelLoader: staging bind failed");
  }
  return {};
}

Status GPUModelLoader::placeTensors(const std::vector<const TensorView*>& tensors) {
  views_.reserve(tensors.size());
  for (const TensorView* tensor : tensors) {
    uint64_t offset = 0;
    if (Status status = alloc_.allocate(tensor->size, kTensorAlignment, offset); !status.ok()) {
      return status;
    }
    views_.push_back({.buffer = VK_NULL_HANDLE,
                      .offset = offset,
                      .size = tensor->size,
                      .dtype = tensor->dtype,
                      .ndim = tensor->ndim,
                      .shape = tensor->shape,
                      .quant = tensor->quant,
                      .name = tensor->name});
  }
  return {};
}

Status GPUModelLoader::uploadTensors(const std::vector<const TensorView*>& tensors) {
  void* staging = nullptr;
  if (vkMapMemory(ctx_.device(), stagingMem_, 0, kStagingBytes, 0, &staging) != VK_SUCCESS) {
    return ioError("GPUModelLoader: staging map failed");
  }
  Status status;
  for (size_t i = 0; i < tensors.size() && status.ok(); ++i) {
    status = uploadTensor(*tensors[i], views_[i].offset, staging);
  }
  vkUnmapMemory(ctx_.device(), stagingMem_);
  return status;
}

Status GPUModelLoader::uploadTensor(const TensorView& tensor, uint64_t offset, void* staging) {
  const auto* data = static_cast<const uint8_t*>(tensor.data);
  for (uint64_t done = 0; done < tensor.size;) {
    const uint64_t bytes = std::min(tensor.size - done, kStagingBytes);
    std::memcpy(staging, data + done, bytes);
    if (Status status = uploadRange(offset + done, bytes); !status.ok()) return status;
    done += bytes;
  }
  return {};
}

Status GPUModelLoader::uploadRange(uint64_t offset, uint64_t bytes) {
  VkCommandBuffer cmd = VK_NULL_HANDLE;
  if (Status status = ctx_.beginCommand(&cmd); !status.ok()) return status;
  const VkBufferCopy region = {
      .srcOffset = 0, .dstOffset = offset - alloc_.blockAt(offset).offset, .size = bytes};
  vkCmdCopyBuffer(cmd, staging_, poolBufferAt(offset), 1, &region);
  vulkan::recordFullBarrier(cmd);
  return ctx_.submitAndWait(cmd);
}

VkBuffer GPUModelLoader::poolBufferAt(uint64_t offset) const {
  return poolBuffers_[static_cast<size_t>(&alloc_.blockAt(offset) - alloc_.blocks().data())];
}

Status GPUModelLoader::createTensorBuffers() {
  tensorBuffers_.reserve(views_.size());
  for (GPUTensorView& view : views_) {
    if (Status status = createTensorBuffer(view); !status.ok()) return status;
  }
  return {};
}

Status GPUModelLoader::createTensorBuffer(GPUTensorView& view) {
  constexpr VkBufferUsageFlags kUsage =
      VK_BUFFER_USAGE_STORAGE_BUFFER_BIT | VK_BUFFER_USAGE_TRANSFER_DST_BIT;
  if (Status status = createBuffer(deviceBufferBytes(view.size), kUsage,
                                   "GPUModelLoader: tensor buffer create failed", view.buffer);
      !status.ok()) {
    return status;
  }
  tensorBuffers_.push_back(view.buffer);
  if (!bindToPool(view.buffer, view.offset)) {
    return ioError("GPUModelLoader: tensor buffer bind failed");
  }
  return {};
}

Status GPUModelLoader::createBuffer(uint64_t bytes, VkBufferUsageFlags usage, const char* message,
                                    VkBuffer& out) {
  VkBufferCreateInfo info{};
  info.sType = VK_STRUCTURE_TYPE_BUFFER_CREATE_INFO;
  info.size = bytes;
  info.usage = usage;
  info.sharingMode = VK_SHARING_MODE_EXCLUSIVE;
  VkBuffer buffer = VK_NULL_HANDLE;
  if (vkCreateBuffer(ctx_.device(), &info, nullptr, &buffer) != VK_SUCCESS) {
    return ioError(message);
  }
  out = buffer;
  return {};
}

// The pool's memory type was chosen before any buffer was known: a device may
// not accept it, or want its buffers further apart or with more room behind.
bool GPUModelLoader::bindToPool(VkBuffer buffer, uint64_t offset) {
  VkMemoryRequirements requirements{};
  vkGetBufferMemoryRequirements(ctx_.device(), buffer, &requirements);
  const VRAMAllocator::Block& block = alloc_.blockAt(offset);
  const uint64_t place = offset - block.offset;
  const bool possible = (requirements.memoryTypeBits >> alloc_.memoryType() & 1U) != 0 &&
                        place % requirements.alignment == 0 &&
                        requirements.size <= block.memoryBytes - place;
  return possible && vkBindBufferMemory(ctx_.device(), buffer, block.memory, place) == VK_SUCCESS;
}

Status GPUModelLoader::downloadTensor(const GPUTensorView& view, void* dst) {
  if (!valid_ || dst == nullptr || views_.empty()) {
    return invalidFormat("GPUModelLoader: not initialized");
  }
  if (view.size > kStagingBytes) {
    return unsupported("GPUModelLoader: tensor too large to verify");
  }
  if (view.size == 0) return {};
  VkCommandBuffer cmd = VK_NULL_HANDLE;
  if (Status status = ctx_.beginCommand(&cmd); !status.ok()) return status;
  const VkBufferCopy region = {.srcOffset = view.offset - alloc_.blockAt(view.offset).offset,
                               .dstOffset = 0,
                               .size = view.size};
  vkCmdCopyBuffer(cmd, poolBufferAt(view.offset), staging_, 1, &region);
  vulkan::recordFullBarrier(cmd);
  if (Status status = ctx_.submitAndWait(cmd); !status.ok()) return status;
  void* staging = nullptr;
  if (vkMapMemory(ctx_.device(), stagingMem_, 0, kStagingBytes, 0, &staging) != VK_SUCCESS) {
    return ioError("GPUModelLoader: staging map failed");
  }
  std::memcpy(dst, staging, view.size);
  vkUnmapMemory(ctx_.device(), stagingMem_);
  return {};
}

Status GPUModelLoader::reserveLayer(ZEMLoader& /*loader*/, uint64_t /*layer*/) {
  return unsupported("GPUModelLoader: partial mode not enabled");
}

void GPUModelLoader::releaseLayer(uint64_t /*layer*/) {}

const GPUTensorView* GPUModelLoader::findTensor(const std::string& name) const {
  if (!valid_) return nullptr;
  const auto found = std::lower_bound(views_.begin(), views_.end(), name, nameLess);
  return found != views_.end() && found->name == name ? &*found : nullptr;
}

}  // namespace kiv
