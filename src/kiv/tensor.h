// SPDX-License-Identifier: Apache-2.0
/// \file
/// How the rest of the library sees one weight tensor of an open container.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace kiv {

/// Element type codes of the container's tensor index.
enum class DType : uint16_t {
  F32 = 0,
  F16 = 1,
  BF16 = 2,
  Q4_0 = 3,
  Q8_0 = 4,
  Q4_K = 5,
  Q5_K = 6,
  Q6_K = 7,
  Q8_K = 8,
  Q5_0 = 9,
  Q5_1 = 10,
};

/// "F32", "Q4_K", ...; "?" for any other value. Static storage.
const char* dtypeName(DType type);

/// Bytes that `elements` elements of `type` occupy when a partial last block
/// counts as a whole one. 0 for Q5_0, Q5_1 and unknown types, whose layout this
/// library does not define, and when the result would not fit 64 bits.
uint64_t dtypeBytes(DType type, uint64_t elements);

/// Elements in one block of `type`: 1 for plain numbers, 32 or 256; 0 where
/// dtypeBytes knows no layout.
uint64_t dtypeBlockSize(DType type);

/// Block layout that travels with a tensor; zero where the container has no
/// quantisation table.
struct QuantInfo {
  uint16_t quantType = 0;      ///< the tensor's DType, also without such a table
  uint16_t blockSize = 0;      ///< elements
  uint32_t bytesPerBlock = 0;  ///< bytes
  uint32_t scaleBytes = 0;     ///< bytes of a block's scales
  uint32_t scaleOffset = 0;    ///< where in a block they begin
  uint32_t zeroOffset = 0;     ///< where in a block the scale of the minima lies, or 0
};

/// A tensor inside the mapped container. Owns nothing: valid while the
/// ZEMLoader that made it stays open. shape[0] is the innermost, contiguous
/// extent, so a matrix has rows of shape[0] elements and shape[1] rows; unused
/// extents are zero. `data` has no particular alignment.
struct TensorView {
  const void* data = nullptr;       ///< the first element's block
  uint64_t size = 0;                ///< bytes, as the container states them; unchecked
  DType dtype = DType::F32;         ///< how elements are encoded
  std::array<uint64_t, 4> shape{};  ///< extents, innermost first
  uint16_t ndim = 0;                ///< 0 to 4, whatever the container says
  QuantInfo quant;                  ///< of the quantisation table
  std::string name;                 ///< as in the tensor index
};

}  // namespace kiv
