// SPDX-License-Identifier: Apache-2.0
/// \file
/// The Qwen3.5 hybrid decoder on the CPU: weights bound by name, recurrent state
/// and key/value cache, and the forward pass of one token.
///
/// A model is used by one thread at a time; different ones may be used at once, for
/// a step keeps its buffers to itself.
#pragma once

#include <cstddef>
#include <vector>

#include "kiv/tensor.h"
#include "kiv/zem_loader.h"
#include "qwen35_zeroed_floats.h"

namespace qwen35 {

using kiv::TensorView;

inline constexpr size_t kLayerCount = 32;  ///< blocks of a model
inline constexpr float kNormEps = 1e-6F;   ///< of every normalisation

/// One block. Views point into the loader's mapping; those that the block's kind
/// does not use are null.
struct Layer {
  bool recr = false;                      ///< gated-delta-net attention, else softmax attention
  const TensorView* attn_norm = nullptr;  ///< nEmb, F32: before attention
  const TensorView* post_norm = nullptr;  ///< nEmb, F32: before the feed-forward block
  const TensorView* wq = nullptr;         ///< rows of nEmb: per head a query, then its gate
  const TensorView* wk = nullptr;         ///< rows of nEmb: keys
  const TensorView* wv = nullptr;         ///< rows of nEmb: values
  const TensorView* wo = nullptr;         ///< nEmb rows: attention output
  const TensorView* q_norm = nullptr;     ///< headDim, F32
  const TensorView* k_norm = nullptr;     ///< headDim, F32
  const TensorView* qb = nullptr;         ///< query bias, or null
  const TensorView* kb = nullptr;         ///< key bias, or null
  const TensorView* vb = nullptr;         ///< value bias, or null
  const TensorView* wqkv = nullptr;       ///< rows of nEmb: queries, keys, values
  const TensorView* wqkv_gate = nullptr;  ///< dInner rows of nEmb: output gate
  const TensorView* beta = nullptr;       ///< vHeads rows of nEmb
  const TensorView* alpha = nullptr;      ///< vHeads rows of nEmb
  const TensorView* dt = nullptr;         ///< vHeads, F32: bias of the decay
  const TensorView* ssm_a = nullptr;      ///< vHeads, F32: factor of the decay
  const TensorView* conv1d = nullptr;     ///< convK taps a channel, F32
  const TensorView* ssm_norm = nullptr;   ///< sv, F32: norm of a head's output
  const TensorView* ssm_out = nullptr;    ///< nEmb rows of dInner
  const TensorView* ffn_gate = nullptr;   ///< rows of nEmb
  const TensorView* ffn_up = nullptr;     ///< rows of nEmb
  const TensorView* ffn_down = nullptr;   ///< nEmb rows

  DenseZeroedFloats state;  ///< vHeads matrices of sv x sv
  ZeroedFloats convWin;     ///< the last three inputs of each channel, oldest first
  ZeroedFloats kCache;      ///< nHeadKv x kvCap x headDim
  ZeroedFloats vCache;      ///< nHeadKv x kvCap x headDim
  size_t kvLen = 0;         ///< slots filled
  size_t kvUsed = 0;        ///< slots written to since the last reset, by failed steps too
};

/// A bound model. Views point into the loader's mapping.
struct Model {
  const TensorView* emb = nullptr;      ///< nVocab rows of nEmb; also the output head
  const TensorView* outNorm = nullptr;  ///< nEmb, F32: before the head
  size_t nEmb = 0;                      ///< floats of a hidden state
  size_t nVocab = 0;                    ///< rows of the embedding
  // The supported architecture; not read from the file.
  size_t nHead = 16;           ///< query heads
  size_t nHeadKv = 4;          ///< key and value heads
  size_t headDim = 256;        ///< floats of a head
  size_t nRot = 64;            ///< of them rotated by position
  size_t sv = 128;             ///< floats of a linear-attention head
  size_t kHeads = 16;          ///< its query and key heads
  size_t vHeads = 32;          ///< its value heads
  size_t dInner = 4096;        ///< vHeads * sv
  size_t convK = 4;            ///< taps of the convolution
  size_t nLayers = 0;          ///< kLayerCount once bound
  std::vector<Layer> L;        ///< the blocks, first to last
  size_t kvCap = 0;            ///< positions that there is room for
  std::vector<float> scratch;  ///< of embedRow
  void* gpuCtx = nullptr;      ///< first argument of gpuGemvRow
  /// Offered every product with K-quantised weights first. Returns true when it
  /// wrote (not added) all rows of y, false when it left y untouched.
  bool (*gpuGemvRow)(void* ctx, const TensorView* W, const float* x, float* y) = nullptr;
  /// Offered, in place of gpuGemvRow, the products of one vector with several K-quantised matrices,
  /// at most eight. Bit i of what it returns is set when it wrote all rows of y[i]; the others
  /// it left untouched. May be null.
  uint32_t (*gpuGemvGroup)(void* ctx, const TensorView* const* W, float* const* y, size_t count,
                           const float* x) = nullptr;
};

/// Binds the 32 blocks to the container's tensors by name and sizes their state
/// for `kvCap` positions; false at the first required tensor that is missing.
/// The loader must stay open while the model is used. Memory for state is
/// reserved here and costs nothing until it is written.
bool initLayers(kiv::ZEMLoader& ld, Model& m, size_t kvCap);

/// Binds embedding and final norm, and takes the widths from the embedding's
/// shape. Call after initLayers.
bool bindModel(kiv::ZEMLoader& ld, Model& m, size_t kvCap);

/// Back to position 0: every state and cache is zero afterwards. Only memory
/// that was used is written.
void resetModel(Model& m);

/// The embedding of `token` (nEmb floats). `token` must be below nVocab: it is
/// not checked.
void embedRow(Model& m, size_t token, float* out);

/// One token through all layers: the nVocab logits of the next token. `x` is its
/// embedding, `pos` its position, counted from 0 after resetModel and below kvCap.
/// Environment variables switch diagnostics on; see docs/troubleshooting.md.
void forwardToken(Model& m, const float* x, size_t pos, float* logits);
/// One token through all layers without the head: the final normalised hidden state,
/// nEmb floats.
void forwardTokenHidden(Model& m, const float* x, size_t pos, float* hidden);

/// forwardTokenHidden for `count` consecutive tokens from position `pos` on. Their
/// embeddings at `x`, and their hidden states, lie one after the other. The bits of
/// `hidden`, and of the model's state afterwards, are those of one call a token. Many
/// tokens share one reading of the weights, which is several times as fast. While one of
/// the diagnostic variables is set, the tokens go one by one.
void forwardTokensHidden(Model& m, const float* x, size_t count, size_t pos, float* hidden);

/// The attention half of a block with linear attention, for block `il` at position
/// `pos`. `x` is the state before the block's norm; `out` (nEmb floats) is overwritten,
/// and the caller adds the residual.
void linearAttnStep(Model& m, Layer& L, const float* x, float* out, size_t il, size_t pos);
/// The attention half of a block with full attention, with the same arguments in
/// another order.
void fullAttnStep(Model& m, Layer& L, const float* x, float* out, size_t pos, size_t il);
/// The feed-forward half of a block: `xn` is normalised already, `out` overwritten.
void ffnStep(Model& m, Layer& L, const float* xn, float* out);

}  // namespace qwen35
