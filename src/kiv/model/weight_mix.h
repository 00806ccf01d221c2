// SPDX-License-Identifier: Apache-2.0
/// \file
/// How the types of a model's matrices are chosen.
#pragma once

#include <array>
#include <cstdint>

#include "kiv/model/architecture.h"
#include "kiv/tensor.h"

namespace kiv {

/// The type of the matrices. The mixes, whose names end in M, store the embedding, an
/// output head of its own, attn_v and ffn_down as Q6_K and the rest as Q4_K or Q5_K. Vectors
/// and the convolution are F32 always.
enum class WeightMix : uint8_t { F32, BF16, Q8_0, Q4_K, Q5_K, Q6_K, Q4_K_M, Q5_K_M };

/// All of them.
inline constexpr std::array kWeightMixes = {WeightMix::F32,    WeightMix::BF16,  WeightMix::Q8_0,
                                            WeightMix::Q4_K,   WeightMix::Q5_K,  WeightMix::Q6_K,
                                            WeightMix::Q4_K_M, WeightMix::Q5_K_M};

/// "f32", ..., "q5_k_m". Static storage.
const char* weightMixName(WeightMix mix);

/// The type that names the mix: Q4_K of Q4_K_M.
DType baseType(WeightMix mix);

/// Whether the types of the matrices differ.
bool isMixed(WeightMix mix);

/// The type for a matrix of this role. ssm_alpha and ssm_beta, few weights that decide how
/// fast the state decays, are Q8_0 or better in every mix.
DType matrixType(WeightMix mix, TensorRole role);

}  // namespace kiv
