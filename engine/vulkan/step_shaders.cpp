// SPDX-License-Identifier: Apache-2.0
#include "engine/vulkan/step_shaders.h"

#include <array>
#include <iterator>

namespace zem {
namespace {

using kiv::DType;

#include "step_shader_arrays.inc"

constexpr kiv::vulkan::EmbeddedShader kModules[] = {
#include "step_shader_table.inc"
};
static_assert(std::size(kModules) == kStepShaders);

constexpr std::array<StepShaderInterface, kStepShaders> kInterfaces = {{
    {3, 3},   // Embed
    {4, 3},   // Norm
    {3, 5},   // MatvecF32
    {3, 5},   // MatvecBF16
    {3, 5},   // MatvecQ8_0
    {3, 5},   // MatvecQ4_K
    {3, 5},   // MatvecQ5_K
    {3, 5},   // MatvecQ6_K
    {3, 6},   // MatmulF32
    {3, 6},   // MatmulBF16
    {3, 6},   // MatmulQ8_0
    {3, 6},   // MatmulQ4_K
    {3, 6},   // MatmulQ5_K
    {3, 6},   // MatmulQ6_K
    {2, 1},   // AddBias
    {3, 1},   // Gate
    {4, 4},   // Convolve
    {10, 5},  // DeltaRule
    {9, 5},   // AttentionInputsF16
    {9, 5},   // AttentionInputsF32
    {5, 4},   // AttentionPartsF16
    {5, 4},   // AttentionPartsF32
    {3, 3},   // AttentionJoin
    {2, 2},   // TopParts
    {2, 2},   // TopJoin
}};

}  // namespace

const kiv::vulkan::EmbeddedShader& stepShader(StepShader shader) {
  return kModules[static_cast<size_t>(shader)];
}

StepShaderInterface interfaceOf(StepShader shader) {
  return kInterfaces[static_cast<size_t>(shader)];
}

StepShader matvecFor(DType type) {
  return static_cast<StepShader>(static_cast<uint32_t>(StepShader::MatvecF32) + embedTypeOf(type));
}

StepShader matmulFor(DType type) {
  return static_cast<StepShader>(static_cast<uint32_t>(StepShader::MatmulF32) + embedTypeOf(type));
}

uint32_t productBlock(DType type) {
  constexpr uint64_t kPlain = 4;
  const uint64_t block = kiv::dtypeBlockSize(type);
  return static_cast<uint32_t>(block == 1 ? kPlain : block);
}

uint32_t embedTypeOf(DType type) {
  switch (type) {
    case DType::BF16:
      return 1;
    case DType::Q8_0:
      return 2;
    case DType::Q4_K:
      return 3;
    case DType::Q5_K:
      return 4;
    case DType::Q6_K:
      return 5;
    default:
      return 0;
  }
}

}  // namespace zem
