// SPDX-License-Identifier: Apache-2.0
/// \file
/// Which shader carries out which operation of a compute graph.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "kiv/vulkan/vulkan_shaders.h"

namespace kiv {

/// Operations of a compute graph, by their codes.
enum class Opcode : uint8_t {
  Add = 0,
  Mul = 1,
  Constant = 2,
  Sub = 3,
  Div = 4,
  Relu = 5,
  MatMul = 6,
  Reshape = 7,
  Transpose = 8,
  Concat = 9,
  Cast = 10,
  Conv = 11,
  RMSNorm = 12,
  LayerNorm = 13,
  Softmax = 14,
  Attention = 15,
  RotaryEmbedding = 16,
  Embedding = 17,
  GELU = 18,
  SwiGLU = 19,
  FusedRMSNormLinear = 20,
  SiLU = 21,
  MatMulQ4_0 = 22,
  MatMulQ8_0 = 23,
  MatMulQ4_K = 24,
  MatMulQ5_K = 25,
  MatMulQ6_K = 26,
};

inline constexpr size_t kOpcodeCount = 27;  ///< codes from 0 on

namespace vulkan {

/// How to make a kernel: its shader, the number of its storage buffers and the
/// bytes of its push constants. Without a shader (Count) there is no kernel.
struct GpuKernelDesc {
  ShaderId shader = ShaderId::Count;  ///< the module
  uint32_t bindings = 0;              ///< storage buffers
  uint32_t pushSize = 0;              ///< bytes
};

/// One descriptor an opcode. The process's own is filled before main() begins and
/// only read from then on.
class GpuKernelRegistry {
 public:
  static GpuKernelRegistry& instance();  ///< the process's own

  /// Replaces what was registered for `op`.
  void registerKernel(Opcode op, const GpuKernelDesc& desc);
  /// Null when nothing is registered for `op`.
  const GpuKernelDesc* find(Opcode op) const;

 private:
  std::array<GpuKernelDesc, kOpcodeCount> entries_;
};

}  // namespace vulkan
}  // namespace kiv
