// SPDX-License-Identifier: Apache-2.0
// The table of one level, for its vector type V. A kernel is one line here.
#pragma once

#include "kernels/kernel_table.h"
#include "kernels/simd/convolution_inl.h"
#include "kernels/simd/formats_inl.h"
#include "kernels/simd/gates_inl.h"
#include "kernels/simd/matmul_inl.h"
#include "kernels/simd/matvec_inl.h"
#include "kernels/simd/recurrence_inl.h"
#include "kernels/simd/sampling_inl.h"
#include "kernels/simd/softmax_inl.h"

namespace qwen35 {
namespace {

template <class V, class Format>
constexpr void addProducts(KernelTable& table, kiv::DType type) {
  table.matvec.of[static_cast<size_t>(type)] = matvec<V, Format>;
  table.matmul.of[static_cast<size_t>(type)] = matmul<V, Format>;
}

template <class V>
constexpr KernelTable kernelsOf() {
  KernelTable table{};
  addProducts<V, F32>(table, kiv::DType::F32);
  addProducts<V, Bf16>(table, kiv::DType::BF16);
  addProducts<V, Q80>(table, kiv::DType::Q8_0);
  addProducts<V, Q4K>(table, kiv::DType::Q4_K);
  addProducts<V, Q5K>(table, kiv::DType::Q5_K);
  addProducts<V, Q6K>(table, kiv::DType::Q6_K);
  table.groupTokens = V::kTokens;
  table.tileRows = kTileGroups * V::kLanes;
  table.addColumns = addColumns<V, float>;
  table.addHalfColumns = addColumns<V, uint16_t>;
  table.gdnStep = gdnStep<V>;
  table.convStep = convStep<V>;
  table.siluMul = siluMul<V>;
  table.sigmoidGate = sigmoidGate<V>;
  table.softmax = softmax<V>;
  table.sampling = {extent<V>, buckets<V>, weights<V>};
  return table;
}

}  // namespace
}  // namespace qwen35
