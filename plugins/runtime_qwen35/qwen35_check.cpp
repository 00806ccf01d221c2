// SPDX-License-Identifier: Apache-2.0
#include "qwen35_check.h"

#include <string>

#include "kiv/math/checked.h"
#include "kiv/quant/row_codec.h"

namespace qwen35 {
namespace {

using kiv::DType;
using kiv::saturatingAdd;
using kiv::saturatingMul;
using kiv::Status;
using kiv::StatusCode;

Status bad(const TensorView& t, const std::string& what) {
  return {StatusCode::InvalidFormat, t.name + ": " + what};
}

std::string extents(uint64_t cols, uint64_t rows) {
  return std::to_string(cols) + " x " + std::to_string(rows);
}

// Rows of a view with unchecked extents.
uint64_t statedRows(const TensorView& t) {
  uint64_t rows = 1;
  for (size_t i = 1; i < t.ndim; ++i) rows = saturatingMul(rows, t.shape[i]);
  return rows;
}

// Bytes that widening all rows reads: each row's blocks, a partial last one counting whole. Rows
// begin behind the whole blocks of the row before.
uint64_t matrixBytes(DType type, uint64_t cols, uint64_t rows) {
  const uint64_t rowBytes = kiv::dtypeBytes(type, cols);
  if (rowBytes == 0) return kiv::kSaturated;
  const uint64_t rowStride = kiv::dtypeBytes(type, cols - cols % kiv::dtypeBlockSize(type));
  return saturatingAdd(saturatingMul(rows - 1, rowStride), rowBytes);
}

// Keeps the first complaint over all tensors.
class Checker {
 public:
  explicit Checker(const kiv::ZEMLoader& loader) : loader_(loader) {}

  // A matrix of exactly `rows` rows of `cols` weights.
  void matrix(const TensorView* t, uint64_t cols, uint64_t rows) {
    if (!status_.ok()) return;
    if (!kiv::hasRowCodec(t->dtype)) {
      status_ =
          bad(*t, std::string("the decoder cannot compute with type ") + kiv::dtypeName(t->dtype));
    } else if (t->shape[0] != cols || statedRows(*t) != rows || cols == 0 || rows == 0) {
      status_ = bad(*t, "has " + extents(t->shape[0], statedRows(*t)) + " weights, needs " +
                            extents(cols, rows));
    } else {
      bytes(*t, matrixBytes(t->dtype, cols, rows));
    }
  }

  // At least `n` floats.
  void floats(const TensorView* t, uint64_t n) {
    if (!status_.ok()) return;
    if (t->dtype != DType::F32) {
      status_ = bad(*t, std::string("has type ") + kiv::dtypeName(t->dtype) + ", needs F32");
    } else {
      bytes(*t, saturatingMul(n, sizeof(float)));
    }
  }

  // `channels` rows of at least four taps.
  void taps(const TensorView* t, uint64_t channels, uint64_t count) {
    if (!status_.ok()) return;
    if (t->shape[0] < count) {
      status_ = bad(*t, "has " + std::to_string(t->shape[0]) + " taps a channel, needs " +
                            std::to_string(count));
      return;
    }
    floats(t, saturatingAdd(saturatingMul(channels - 1, t->shape[0]), count));
  }

  void fail(Status status) {
    if (status_.ok()) status_ = std::move(status);
  }

  const Status& status() const { return status_; }

 private:
  void bytes(const TensorView& t, uint64_t needed) {
    if (t.size < needed) {
      status_ = bad(t, "has " + std::to_string(t.size) + " bytes, needs " + std::to_string(needed));
    } else if (!loader_.holdsBytes(t, needed)) {
      status_ =
          bad(t, "its " + std::to_string(needed) + " bytes lie outside the weights of the file");
    }
  }

  const kiv::ZEMLoader& loader_;
  Status status_;
};

void checkLinear(Checker& check, const Model& m, const Layer& L) {
  const uint64_t channels = m.dInner + 2 * m.kHeads * m.sv;
  check.matrix(L.wqkv, m.nEmb, channels);
  check.matrix(L.wqkv_gate, m.nEmb, m.dInner);
  check.matrix(L.beta, m.nEmb, m.vHeads);
  check.matrix(L.alpha, m.nEmb, m.vHeads);
  check.floats(L.dt, m.vHeads);
  check.floats(L.ssm_a, m.vHeads);
  check.taps(L.conv1d, channels, m.convK);
  check.floats(L.ssm_norm, m.sv);
  check.matrix(L.ssm_out, m.dInner, m.nEmb);
}

// A query bias implies the other two.
void checkBiases(Checker& check, const Model& m, const Layer& L) {
  if (L.qb == nullptr) return;
  if (L.kb == nullptr || L.vb == nullptr) {
    check.fail(bad(*L.qb, "comes without attn_k.bias and attn_v.bias, needs both"));
    return;
  }
  check.floats(L.qb, 2 * m.nHead * m.headDim);
  check.floats(L.kb, m.nHeadKv * m.headDim);
  check.floats(L.vb, m.nHeadKv * m.headDim);
}

void checkFull(Checker& check, const Model& m, const Layer& L) {
  check.matrix(L.wq, m.nEmb, 2 * m.nHead * m.headDim);
  check.matrix(L.wk, m.nEmb, m.nHeadKv * m.headDim);
  check.matrix(L.wv, m.nEmb, m.nHeadKv * m.headDim);
  checkBiases(check, m, L);
  check.matrix(L.wo, m.nHead * m.headDim, m.nEmb);
  check.floats(L.q_norm, m.headDim);
  check.floats(L.k_norm, m.headDim);
}

}  // namespace

Status checkWeights(const kiv::ZEMLoader& ld, const Model& m) {
  Checker check(ld);
  check.matrix(m.emb, m.nEmb, m.nVocab);
  check.floats(m.outNorm, m.nEmb);
  for (const Layer& L : m.L) {
    check.floats(L.attn_norm, m.nEmb);
    check.floats(L.post_norm, m.nEmb);
    const uint64_t nFF = statedRows(*L.ffn_gate);
    check.matrix(L.ffn_gate, m.nEmb, nFF);
    check.matrix(L.ffn_up, m.nEmb, nFF);
    check.matrix(L.ffn_down, nFF, m.nEmb);
    if (L.recr) {
      checkLinear(check, m, L);
    } else {
      checkFull(check, m, L);
    }
  }
  return check.status();
}

}  // namespace qwen35
