// SPDX-License-Identifier: Apache-2.0
/// \file
/// The compute shaders that are compiled into the library. docs/gpu.md says what
/// each one computes and what its push constants mean.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kiv::vulkan {

/// The shaders by their numbers; Count is none.
enum class ShaderId : uint8_t {
  Add = 0,
  Mul = 1,
  SiLU = 2,
  SwiGLU = 3,
  RMSNorm = 4,
  Softmax = 5,
  RoPE = 6,
  Q4_0Gemm = 7,
  Q4KGemm = 8,
  Q5KGemm = 9,
  Q6KGemm = 10,
  Attention = 11,
  Embedding = 12,
  GeluMul = 13,
  Bf16Proj = 14,
  KvStore = 15,
  AttentionGemma = 16,
  Softcap = 17,
  Residual = 18,
  RopeGemma = 19,
  Scale = 20,
  Q4KGemmDecode = 21,
  Q4KDeqDiag = 22,
  Q4KGemvV1 = 23,
  Q4KGemvV2 = 24,
  Q4KGemvV3 = 25,
  Q4KGemvV4 = 26,
  Q4KGemvV5 = 27,
  Q4KGemvV6 = 28,
  Q6KGemvV1 = 29,
  Q6KGemvV2 = 30,
  Q6KGemvLlama = 31,
  Bf16GemvV1 = 32,
  Q4KGemvV7 = 33,
  ArgmaxPartial = 34,
  Q4KGemvV8 = 35,
  Q4KGemvLlama = 36,
  Q4KGemvLlamaSg = 37,
  RopeGemmaBatch = 38,
  ProbeRow = 39,
  ProbeFlat = 40,
  Q4KGemvNative = 41,
  Q6KGemvNative = 42,
  Count = 43,
};

/// A SPIR-V compute module with the entry point "main". Static storage.
struct EmbeddedShader {
  const uint32_t* code = nullptr;  ///< SPIR-V words
  size_t wordCount = 0;            ///< how many
};

/// `id` must be below Count: it is not checked.
const EmbeddedShader& embeddedShader(ShaderId id);

/// The matrix-vector product for Q5_K weights, which has no ShaderId: a sibling
/// of Q4KGemvLlama and Q6KGemvLlama with the same bindings and push constants.
const EmbeddedShader& q5kGemvShader();

}  // namespace kiv::vulkan
