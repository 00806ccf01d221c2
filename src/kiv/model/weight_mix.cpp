// SPDX-License-Identifier: Apache-2.0
#include "kiv/model/weight_mix.h"

namespace kiv {

const char* weightMixName(WeightMix mix) {
  constexpr std::array kNames = {"f32", "bf16", "q8_0", "q4_k", "q5_k", "q6_k", "q4_k_m", "q5_k_m"};
  return kNames[static_cast<size_t>(mix)];
}

DType baseType(WeightMix mix) {
  constexpr std::array kTypes = {DType::F32,  DType::BF16, DType::Q8_0, DType::Q4_K,
                                 DType::Q5_K, DType::Q6_K, DType::Q4_K, DType::Q5_K};
  return kTypes[static_cast<size_t>(mix)];
}

bool isMixed(WeightMix mix) { return mix == WeightMix::Q4_K_M || mix == WeightMix::Q5_K_M; }

DType matrixType(WeightMix mix, TensorRole role) {
  const DType base = baseType(mix);
  if (base == DType::F32 || base == DType::BF16) return base;
  if (role == TensorRole::Alpha || role == TensorRole::Beta) return DType::Q8_0;
  const bool sensitive = role == TensorRole::Embedding || role == TensorRole::OutputHead ||
                         role == TensorRole::Value || role == TensorRole::FeedForwardDown;
  return isMixed(mix) && sensitive ? DType::Q6_K : base;
}

}  // namespace kiv
