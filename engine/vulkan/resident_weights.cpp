// SPDX-License-Identifier: Apache-2.0
#include "engine/vulkan/resident_weights.h"

#include <string>

#include "engine/vulkan/step_shaders.h"

namespace zem {
namespace {

using kiv::Status;

Status checkSizes(const Shape& shape) {
  const auto most = [](const char* what, uint64_t size, uint64_t limit) {
    return kiv::unsupported(std::string("the model's ") + what + " is " + std::to_string(size) +
                            ", the shaders compute with at most " + std::to_string(limit));
  };
  if (shape.stateSize > kMostStateSize) {
    return most("linear.head_size", shape.stateSize, kMostStateSize);
  }
  if (shape.headSize > kMostHeadSize) {
    return most("attention.head_size", shape.headSize, kMostHeadSize);
  }
  return {};
}

}  // namespace

uint64_t storageBufferLimit(const kiv::vulkan::VulkanContext& ctx) {
  VkPhysicalDeviceProperties device{};
  vkGetPhysicalDeviceProperties(ctx.physicalDevice(), &device);
  return device.limits.maxStorageBufferRange;
}

Status ResidentWeights::load(const Weights& weights, uint64_t device) {
  tensors_.clear();
  if (Status status = checkSizes(weights.shape()); !status.ok()) return status;
  Status status = loader_.init(device);
  // What the device cannot hold is found before anything is copied.
  if (status.ok()) status = find(weights);
  tensors_.clear();
  // The loader takes a container that it may change, and changes nothing.
  auto& container = const_cast<kiv::ZEMLoader&>(weights.loader());
  if (status.ok()) status = loader_.loadWeightsToGPU(container);
  if (status.ok()) status = find(weights);
  return status;
}

Status ResidentWeights::find(const Weights& weights) {
  const uint64_t mostBytes = storageBufferLimit(loader_.context());
  for (const kiv::ArchitectureTensor& needed : kiv::tensorsOf(weights.shape())) {
    const kiv::TensorView* stored = weights.loader().findTensor(needed.name);
    if (stored == nullptr) continue;  // optional
    if (Status status = addTensor(needed, *stored, mostBytes); !status.ok()) return status;
  }
  return {};
}

Status ResidentWeights::addTensor(const kiv::ArchitectureTensor& needed,
                                  const kiv::TensorView& stored, uint64_t mostBytes) {
  const uint64_t block = kiv::dtypeBlockSize(stored.dtype);
  const uint64_t cols = stored.shape[0];
  if (cols % block != 0) {
    return kiv::unsupported(needed.name + " has rows of " + std::to_string(cols) +
                            " weights, the shaders need a multiple of " + std::to_string(block));
  }
  const uint64_t bytes = kiv::deviceBufferBytes(stored.size);
  if (bytes > mostBytes) {
    return kiv::unsupported(needed.name + " has " + std::to_string(bytes) +
                            " bytes, a storage buffer of the device takes " +
                            std::to_string(mostBytes));
  }
  DeviceTensor tensor{{},
                      stored.dtype,
                      static_cast<uint32_t>(cols),
                      1,
                      static_cast<uint32_t>(kiv::dtypeBytes(stored.dtype, cols))};
  for (uint16_t i = 1; i < stored.ndim; ++i) tensor.rows *= static_cast<uint32_t>(stored.shape[i]);
  if (loader_.tensorCount() != 0) {
    const kiv::GPUTensorView* view = loader_.findTensor(needed.name);
    if (view == nullptr) {
      return kiv::unsupported(needed.name + " has " + std::to_string(bytes) +
                              " bytes, more than one allocation of the device");
    }
    tensor.buffer.adopt(view->buffer, bytes);
  }
  tensors_[{needed.role, needed.layer}] = std::move(tensor);
  return {};
}

}  // namespace zem
