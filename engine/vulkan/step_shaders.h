// SPDX-License-Identifier: Apache-2.0
// The shaders of a step. The head of each source in shaders/ says what it computes, its bindings,
// its push constants and how many workgroups to dispatch.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kiv/tensor.h"
#include "kiv/vulkan/vulkan_shaders.h"

namespace zem {

enum class StepShader : uint8_t {
  Embed,
  Norm,
  MatvecF32,
  MatvecBF16,
  MatvecQ8_0,
  MatvecQ4_K,
  MatvecQ5_K,
  MatvecQ6_K,
  MatmulF32,
  MatmulBF16,
  MatmulQ8_0,
  MatmulQ4_K,
  MatmulQ5_K,
  MatmulQ6_K,
  AddBias,
  Gate,
  Convolve,
  DeltaRule,
  AttentionInputsF16,
  AttentionInputsF32,
  AttentionPartsF16,
  AttentionPartsF32,
  AttentionJoin,
  TopParts,
  TopJoin,
};
inline constexpr size_t kStepShaders = 25;

// What the host has to know of a shader.
struct StepShaderInterface {
  uint32_t bindings;   // storage buffers
  uint32_t pushWords;  // of its push constants
};

const kiv::vulkan::EmbeddedShader& stepShader(StepShader shader);
StepShaderInterface interfaceOf(StepShader shader);

// The products with matrices of this type, for some tokens and for many, and its number in
// embed.comp. All ask for a type that has a row codec (kiv/quant/row_codec.h).
StepShader matvecFor(kiv::DType type);
StepShader matmulFor(kiv::DType type);
uint32_t embedTypeOf(kiv::DType type);

// What the products count as a block: that of the type, four of plain numbers.
uint32_t productBlock(kiv::DType type);

// Rows and tokens of a workgroup of matmul.glsl, and the place of the tokens in its push constants.
inline constexpr uint32_t kMatmulRows = 64;
inline constexpr uint32_t kMatmulTokens = 32;
inline constexpr size_t kMatmulTokensPush = 4;

// Sizes that shaders are written for.
inline constexpr size_t kMostStateSize = 128;  // delta_rule.comp
inline constexpr size_t kMostHeadSize = 256;   // attention_*.glsl
inline constexpr uint32_t kTopPart = 4096;     // logits of a workgroup of top_parts.comp

}  // namespace zem
