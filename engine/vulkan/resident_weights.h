// SPDX-License-Identifier: Apache-2.0
// The weights of a model in the memory of a device.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <utility>

#include "engine/model/weights.h"
#include "kiv/gpu_model_loader.h"
#include "kiv/status.h"
#include "kiv/vulkan/vulkan_buffer.h"

namespace zem {

// A tensor on the device.
struct DeviceTensor {
  kiv::vulkan::VulkanBuffer buffer;  // wraps the loader's
  kiv::DType type;
  uint32_t cols;
  uint32_t rows;
  uint32_t rowBytes;  // from one row to the next
};

// Owns the device's context: destroyed after everything else on the device.
class ResidentWeights {
 public:
  // Sets up a device and copies every tensor of the model to it. `weights` is only read, and not
  // kept. Unsupported with the sizes when a shader cannot compute with the model or the device
  // cannot hold a tensor in one buffer; else the failures of GPUModelLoader.
  kiv::Status load(const Weights& weights, uint64_t device);

  kiv::vulkan::VulkanContext& context() { return loader_.context(); }

  // The model has such a tensor.
  const DeviceTensor& tensor(kiv::TensorRole role, size_t layer = 0) const {
    return tensors_.at({role, layer});
  }
  bool has(kiv::TensorRole role, size_t layer) const { return tensors_.contains({role, layer}); }

 private:
  kiv::Status find(const Weights& weights);
  kiv::Status addTensor(const kiv::ArchitectureTensor& needed, const kiv::TensorView& stored,
                        uint64_t mostBytes);

  kiv::GPUModelLoader loader_;
  std::map<std::pair<kiv::TensorRole, size_t>, DeviceTensor> tensors_;
};

// The bytes that a shader can see of one buffer.
uint64_t storageBufferLimit(const kiv::vulkan::VulkanContext& ctx);

}  // namespace zem
