// SPDX-License-Identifier: Apache-2.0
/// \file
/// A weight tensor in device memory.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "kiv/tensor.h"
#include "kiv/vulkan/vulkan_api.h"

namespace kiv {

/// Owns nothing: valid while the GPUModelLoader that made it keeps its weights.
struct GPUTensorView {
  VkBuffer buffer = VK_NULL_HANDLE;  ///< the tensor's own, from `offset` of the pool
  VkDeviceSize offset = 0;           ///< in the pool
  uint64_t size = 0;                 ///< bytes of data
  DType dtype = DType::F32;          ///< as in the container
  uint16_t ndim = 0;                 ///< extents in use, 0 to 4
  std::array<uint64_t, 4> shape{};   ///< innermost first
  QuantInfo quant;                   ///< as in the container
  std::string name;                  ///< as in the container

  /// Bytes of one stored row: whole blocks of 256 elements, or, for a tensor
  /// without a block description, all of it.
  uint64_t rowBytes() const;
};

/// What the device's buffer of `bytes` bytes of data holds: shaders read whole
/// 32-bit words, also where the data ends in the middle of one.
constexpr uint64_t deviceBufferBytes(uint64_t bytes) {
  constexpr uint64_t kWord = 4;
  return bytes == 0 ? kWord : (bytes + kWord - 1) / kWord * kWord;
}

}  // namespace kiv
