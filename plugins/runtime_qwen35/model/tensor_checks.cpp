// SPDX-License-Identifier: Apache-2.0
#include "model/tensor_checks.h"

#include <utility>

#include "kiv/math/checked.h"
#include "kiv/quant/row_codec.h"

namespace qwen35 {
namespace {

using kiv::DType;
using kiv::saturatingAdd;
using kiv::saturatingMul;

std::string extents(uint64_t cols, uint64_t rows) {
  return std::to_string(cols) + " x " + std::to_string(rows);
}

// Bytes that widening all rows reads: each row's blocks, a partial last one counting whole. Rows
// begin behind the whole blocks of the row before.
uint64_t matrixBytes(DType type, uint64_t cols, uint64_t rows) {
  const uint64_t rowBytes = kiv::dtypeBytes(type, cols);
  if (rowBytes == 0) return kiv::kSaturated;
  const uint64_t rowStride = kiv::dtypeBytes(type, cols - cols % kiv::dtypeBlockSize(type));
  return saturatingAdd(saturatingMul(rows - 1, rowStride), rowBytes);
}

}  // namespace

kiv::Status badTensor(const TensorView& t, const std::string& what) {
  return kiv::invalidFormat(t.name + ": " + what);
}

uint64_t statedRows(const TensorView& t) {
  uint64_t rows = 1;
  for (size_t i = 1; i < t.ndim; ++i) rows = saturatingMul(rows, t.shape[i]);
  return rows;
}

void TensorChecks::matrix(const TensorView* t, uint64_t cols, uint64_t rows) {
  if (!status_.ok()) return;
  if (!kiv::hasRowCodec(t->dtype)) {
    status_ = badTensor(
        *t, std::string("the decoder cannot compute with type ") + kiv::dtypeName(t->dtype));
  } else if (t->shape[0] != cols || statedRows(*t) != rows || cols == 0 || rows == 0) {
    status_ = badTensor(*t, "has " + extents(t->shape[0], statedRows(*t)) + " weights, needs " +
                                extents(cols, rows));
  } else {
    bytes(*t, matrixBytes(t->dtype, cols, rows));
  }
}

void TensorChecks::floats(const TensorView* t, uint64_t n) {
  if (!status_.ok()) return;
  if (t->dtype != DType::F32) {
    status_ = badTensor(*t, std::string("has type ") + kiv::dtypeName(t->dtype) + ", needs F32");
  } else {
    bytes(*t, saturatingMul(n, sizeof(float)));
  }
}

void TensorChecks::taps(const TensorView* t, uint64_t channels, uint64_t count) {
  if (!status_.ok()) return;
  if (t->shape[0] < count) {
    status_ = badTensor(*t, "has " + std::to_string(t->shape[0]) + " taps a channel, needs " +
                                std::to_string(count));
    return;
  }
  floats(t, saturatingAdd(saturatingMul(channels - 1, t->shape[0]), count));
}

void TensorChecks::fail(kiv::Status status) {
  if (status_.ok()) status_ = std::move(status);
}

void TensorChecks::bytes(const TensorView& t, uint64_t needed) {
  if (t.size < needed) {
    status_ =
        badTensor(t, "has " + std::to_string(t.size) + " bytes, needs " + std::to_string(needed));
  } else if (!loader_.holdsBytes(t, needed)) {
    status_ = badTensor(
        t, "its " + std::to_string(needed) + " bytes lie outside the weights of the file");
  }
}

}  // namespace qwen35
