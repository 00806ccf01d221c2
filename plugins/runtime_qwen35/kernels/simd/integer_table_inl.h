// SPDX-License-Identifier: Apache-2.0
// The table of integer kernels of one level, for its vector type V.
#pragma once

#include "kernels/integer_kernels.h"
#include "kernels/simd/integer_matmul_inl.h"
#include "kernels/simd/integer_matvec_inl.h"
#include "kernels/simd/rounding_inl.h"

namespace qwen35 {
namespace {

template <class V, class Format>
constexpr void addIntegerProducts(IntegerKernels& table, kiv::DType type) {
  table.matvec.of[static_cast<size_t>(type)] = integerMatvec<V, Format>;
  table.matmul.of[static_cast<size_t>(type)] = integerMatmul<V, Format>;
}

template <class V>
constexpr IntegerKernels integerKernelsOf() {
  IntegerKernels table{};
  addIntegerProducts<V, IntegerQ80>(table, kiv::DType::Q8_0);
  addIntegerProducts<V, IntegerQ4K>(table, kiv::DType::Q4_K);
  addIntegerProducts<V, IntegerQ5K>(table, kiv::DType::Q5_K);
  addIntegerProducts<V, IntegerQ6K>(table, kiv::DType::Q6_K);
  table.groupTokens = V::kIntegerTokens;
  table.tileRows = kIntegerTileGroups * V::kLanes;
  table.roundVector = roundVector<V>;
  table.roundTokens = roundTokens<V>;
  return table;
}

}  // namespace
}  // namespace qwen35
