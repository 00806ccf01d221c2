// The Qwen3.5 hybrid decoder on the CPU: weights bound by name, recurrent state
// and key/value cache, and the forward pass of one token.
//
// A model is used by one thread at a time. Products share process-wide scratch
// memory, so one token step runs at a time in a process.
#pragma once

#include <cstddef>
#include <vector>

#include "kiv/tensor.h"
#include "kiv/zem_loader.h"
#include "qwen35_zeroed_floats.h"

namespace qwen35 {

using kiv::TensorView;

inline constexpr size_t kLayerCount = 32;
inline constexpr float kNormEps = 1e-6F;

// One block. Views point into the loader's mapping; those that the block's kind
// does not use are null.
struct Layer {
  bool recr = false;  // gated-delta-net attention, else softmax attention
  const TensorView* attn_norm = nullptr;
  const TensorView* post_norm = nullptr;
  const TensorView* wq = nullptr;
  const TensorView* wk = nullptr;
  const TensorView* wv = nullptr;
  const TensorView* wo = nullptr;
  const TensorView* q_norm = nullptr;
  const TensorView* k_norm = nullptr;
  const TensorView* qb = nullptr;
  const TensorView* kb = nullptr;
  const TensorView* vb = nullptr;
  const TensorView* wqkv = nullptr;
  const TensorView* wqkv_gate = nullptr;
  const TensorView* beta = nullptr;
  const TensorView* alpha = nullptr;
  const TensorView* dt = nullptr;
  const TensorView* ssm_a = nullptr;
  const TensorView* conv1d = nullptr;
  const TensorView* ssm_norm = nullptr;
  const TensorView* ssm_out = nullptr;
  const TensorView* ffn_gate = nullptr;
  const TensorView* ffn_up = nullptr;
  const TensorView* ffn_down = nullptr;

  DenseZeroedFloats state;  // vHeads matrices of sv x sv
  ZeroedFloats convWin;     // the last three inputs of each channel, oldest first
  ZeroedFloats kCache;      // nHeadKv x kvCap x headDim
  ZeroedFloats vCache;
  size_t kvLen = 0;  // slots filled
};

struct Model {
  const TensorView* emb = nullptr;  // also the output head
  const TensorView* outNorm = nullptr;
  size_t nEmb = 0;
  size_t nVocab = 0;
  // The supported architecture; not read from the file.
  size_t nHead = 16;
  size_t nHeadKv = 4;
  size_t headDim = 256;
  size_t nRot = 64;
  size_t sv = 128;
  size_t kHeads = 16;
  size_t vHeads = 32;
  size_t dInner = 4096;
  size_t convK = 4;
  size_t nLayers = 0;
  std::vector<Layer> L;
  size_t kvCap = 0;
  std::vector<float> scratch;  // of embedRow
  // Offered every product with K-quantised weights first. Returns true when it
  // wrote (not added) all rows of y, false when it left y untouched.
  void* gpuCtx = nullptr;
  bool (*gpuGemvRow)(void* ctx, const TensorView* W, const float* x, float* y) = nullptr;
};

// Binds the 32 blocks to the container's tensors by name and sizes their state
// for `kvCap` positions; false at the first required tensor that is missing.
// The loader must stay open while the model is used. Memory for state is
// reserved here and costs nothing until it is written.
bool initLayers(kiv::ZEMLoader& ld, Model& m, size_t kvCap);

// Binds embedding and final norm, and takes the widths from the embedding's
// shape. Call after initLayers.
bool bindModel(kiv::ZEMLoader& ld, Model& m, size_t kvCap);

// Back to position 0: every state and cache is zero afterwards. Only memory
// that was used is written.
void resetModel(Model& m);

// The embedding of `token` (nEmb floats). `token` must be below nVocab: it is
// not checked.
void embedRow(Model& m, size_t token, float* out);

// One token through all layers. `x` is its embedding, `pos` its position,
// counted from 0 after resetModel and below kvCap. forwardToken gives the
// nVocab logits of the next token, forwardTokenHidden only the final normalised
// hidden state (nEmb floats). Environment variables switch diagnostics on; see
// docs/troubleshooting.md.
void forwardToken(Model& m, const float* x, size_t pos, float* logits);
void forwardTokenHidden(Model& m, const float* x, size_t pos, float* hidden);

// forwardTokenHidden for `count` consecutive tokens from position `pos` on, whose
// embeddings and hidden states lie one after the other. The bits of `hidden`, and
// of the model's state afterwards, are those of one call a token; weights are read
// once for many tokens, which is several times as fast. While one of the
// diagnostic variables is set the tokens go one by one.
void forwardTokensHidden(Model& m, const float* x, size_t count, size_t pos, float* hidden);

// The blocks' halves; each overwrites `out` (nEmb floats), the caller adds the residual.
void linearAttnStep(Model& m, Layer& L, const float* x, float* out, size_t il, size_t pos);
void fullAttnStep(Model& m, Layer& L, const float* x, float* out, size_t pos, size_t il);
void ffnStep(Model& m, Layer& L, const float* xn, float* out);

}  // namespace qwen35
