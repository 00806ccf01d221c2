// SPDX-License-Identifier: Apache-2.0
#include "qwen35_model.h"

#include <algorithm>
#include <string>

#include "matmul/matrix.h"

namespace qwen35 {
namespace {

// Looks up the tensors of one block by the rest of their name.
class BlockBinder {
 public:
  BlockBinder(const kiv::ZEMLoader& loader, size_t index)
      : loader_(loader), prefix_("blk." + std::to_string(index) + ".") {}

  const TensorView* find(const char* suffix) const { return loader_.findTensor(prefix_ + suffix); }

  // Binds `field`; false, leaving it null, when there is no such tensor.
  bool require(const TensorView*& field, const char* suffix) const {
    field = find(suffix);
    return field != nullptr;
  }

 private:
  const kiv::ZEMLoader& loader_;
  std::string prefix_;
};

bool bindCommon(const BlockBinder& block, Layer& layer) {
  return block.require(layer.attn_norm, "attn_norm.weight") &&
         block.require(layer.post_norm, "post_attention_norm.weight") &&
         block.require(layer.ffn_gate, "ffn_gate.weight") &&
         block.require(layer.ffn_up, "ffn_up.weight") &&
         block.require(layer.ffn_down, "ffn_down.weight");
}

bool bindLinear(const BlockBinder& block, const Model& m, Layer& layer) {
  const bool complete =
      block.require(layer.wqkv, "attn_qkv.weight") &&
      block.require(layer.wqkv_gate, "attn_gate.weight") &&
      block.require(layer.beta, "ssm_beta.weight") &&
      block.require(layer.alpha, "ssm_alpha.weight") && block.require(layer.dt, "ssm_dt.bias") &&
      block.require(layer.ssm_a, "ssm_a") && block.require(layer.conv1d, "ssm_conv1d.weight") &&
      block.require(layer.ssm_norm, "ssm_norm.weight") &&
      block.require(layer.ssm_out, "ssm_out.weight");
  if (!complete) return false;
  layer.state = DenseZeroedFloats(m.sv * m.sv * m.vHeads);
  layer.convWin = ZeroedFloats((m.dInner + 2 * m.kHeads * m.sv) * (m.convK - 1));
  return true;
}

bool bindFull(const BlockBinder& block, const Model& m, Layer& layer) {
  const bool complete =
      block.require(layer.wq, "attn_q.weight") && block.require(layer.wk, "attn_k.weight") &&
      block.require(layer.wv, "attn_v.weight") && block.require(layer.wo, "attn_output.weight") &&
      block.require(layer.q_norm, "attn_q_norm.weight") &&
      block.require(layer.k_norm, "attn_k_norm.weight");
  if (!complete) return false;
  layer.qb = block.find("attn_q.bias");
  layer.kb = block.find("attn_k.bias");
  layer.vb = block.find("attn_v.bias");
  layer.kCache = ZeroedFloats(m.nHeadKv * m.headDim * m.kvCap);
  layer.vCache = ZeroedFloats(m.nHeadKv * m.headDim * m.kvCap);
  return true;
}

// Overwrites a few slots, so that their pages stay and the next conversation need not wait for new
// ones. Gives back the pages of a long conversation.
void clearCache(const Model& m, size_t slots, ZeroedFloats& cache) {
  constexpr size_t kFewSlots = 256;
  if (cache.empty()) return;
  if (slots > kFewSlots) return cache.zero();
  for (size_t g = 0; g < m.nHeadKv; ++g) {
    std::fill_n(cache.data() + g * m.kvCap * m.headDim, slots * m.headDim, 0.0F);
  }
}

}  // namespace

bool initLayers(kiv::ZEMLoader& ld, Model& m, size_t kvCap) {
  m.kvCap = kvCap;
  m.L.resize(kLayerCount);
  for (size_t i = 0; i < kLayerCount; ++i) {
    Layer& layer = m.L[i];
    layer = Layer{};
    const BlockBinder block(ld, i);
    if (!bindCommon(block, layer)) return false;
    layer.recr = block.find("ssm_out.weight") != nullptr;
    const bool bound = layer.recr ? bindLinear(block, m, layer) : bindFull(block, m, layer);
    if (!bound) return false;
  }
  m.nLayers = kLayerCount;
  return true;
}

bool bindModel(kiv::ZEMLoader& ld, Model& m, size_t kvCap) {
  m.emb = ld.findTensor("token_embd.weight");
  m.outNorm = ld.findTensor("output_norm.weight");
  if (m.emb == nullptr || m.outNorm == nullptr) return false;
  m.nEmb = m.emb->shape[0];
  m.nVocab = m.emb->shape[1];
  m.kvCap = kvCap;
  m.nLayers = m.L.size();
  return true;
}

void resetModel(Model& m) {
  for (Layer& layer : m.L) {
    layer.state.zero();
    layer.convWin.zero();
    clearCache(m, layer.kvUsed, layer.kCache);
    clearCache(m, layer.kvUsed, layer.vCache);
    layer.kvLen = 0;
    layer.kvUsed = 0;
  }
}

void embedRow(Model& m, size_t token, float* out) {
  if (m.scratch.size() < m.nEmb) m.scratch.resize(m.nEmb);
  rowToF32(m.emb, token, m.nEmb, m.scratch.data());
  std::copy_n(m.scratch.data(), m.nEmb, out);
}

}  // namespace qwen35
