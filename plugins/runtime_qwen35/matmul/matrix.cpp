// SPDX-License-Identifier: Apache-2.0
#include "matmul/matrix.h"

#include <cstdint>
#include <cstring>

#include "kiv/quant/row_codec.h"

namespace qwen35 {

size_t matrixRows(const TensorView& W) {
  size_t rows = 1;
  for (size_t i = 1; i < W.ndim; ++i) rows *= W.shape[i];
  return rows;
}

void rowToF32(const TensorView* W, size_t row, size_t n, float* out) {
  if (!kiv::hasRowCodec(W->dtype)) return;
  // A row that ends within a block shares that block with the next row.
  const size_t wholeBlocks = n - n % kiv::dtypeBlockSize(W->dtype);
  const auto* base = static_cast<const uint8_t*>(W->data);
  kiv::decodeRow(W->dtype, base + row * kiv::dtypeBytes(W->dtype, wholeBlocks), n, out);
}

const float* floatsOf(const TensorView* view, size_t n, std::vector<float>& copy) {
  const bool aligned = reinterpret_cast<uintptr_t>(view->data) % alignof(float) == 0;
  if (aligned) return static_cast<const float*>(view->data);
  copy.resize(n);
  std::memcpy(copy.data(), view->data, n * sizeof(float));
  return copy.data();
}

}  // namespace qwen35
