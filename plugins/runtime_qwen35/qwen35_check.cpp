// SPDX-License-Identifier: Apache-2.0
#include "qwen35_check.h"

#include <string>

#include "model/tensor_checks.h"

namespace qwen35 {
namespace {

using kiv::Status;

void checkLinear(TensorChecks& check, const Model& m, const Layer& L) {
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
void checkBiases(TensorChecks& check, const Model& m, const Layer& L) {
  if (L.qb == nullptr) return;
  if (L.kb == nullptr || L.vb == nullptr) {
    check.fail(badTensor(*L.qb, "comes without attn_k.bias and attn_v.bias, needs both"));
    return;
  }
  check.floats(L.qb, 2 * m.nHead * m.headDim);
  check.floats(L.kb, m.nHeadKv * m.headDim);
  check.floats(L.vb, m.nHeadKv * m.headDim);
}

void checkFull(TensorChecks& check, const Model& m, const Layer& L) {
  check.matrix(L.wq, m.nEmb, 2 * m.nHead * m.headDim);
  check.matrix(L.wk, m.nEmb, m.nHeadKv * m.headDim);
  check.matrix(L.wv, m.nEmb, m.nHeadKv * m.headDim);
  checkBiases(check, m, L);
  check.matrix(L.wo, m.nHead * m.headDim, m.nEmb);
  check.floats(L.q_norm, m.headDim);
  check.floats(L.k_norm, m.headDim);
}

// What this decoder would leave out of the computation.
void checkWhole(TensorChecks& check, const kiv::ZEMLoader& loader, const Model& m) {
  const TensorView* head = loader.findTensor("output.weight");
  if (head != nullptr && head->data != m.emb->data) {
    check.fail(badTensor(*head,
                         "is an output head of its own, but this decoder computes with "
                         "token_embd.weight in its place; use the engine, or a model without one"));
  }
  const std::string next = "blk." + std::to_string(kLayerCount) + ".";
  const TensorView* norm = loader.findTensor(next + "attn_norm.weight");
  const bool predicts = loader.findTensor(next + "nextn.eh_proj.weight") != nullptr;
  if (norm != nullptr && !predicts) {
    check.fail(badTensor(*norm, "is of block " + std::to_string(kLayerCount) +
                                    ", but this decoder computes blocks 0 to " +
                                    std::to_string(kLayerCount - 1) +
                                    " only; use the engine, or a model of " +
                                    std::to_string(kLayerCount) + " blocks"));
  }
}

}  // namespace

Status checkWeights(const kiv::ZEMLoader& ld, const Model& m) {
  TensorChecks check(ld);
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
  checkWhole(check, ld, m);
  return check.status();
}

}  // namespace qwen35
