// SPDX-License-Identifier: Apache-2.0
// Full attention: softmax over all positions, grouped queries, an output gate.
#include <algorithm>
#include <stdexcept>

#include "kernels/reference.h"
#include "layers/blocks.h"
#include "layers/softmax_attention.h"
#include "matmul/team.h"

namespace qwen35 {
namespace {

// x: the activations that a bias belongs to.
void addBias(const TensorView* bias, Activations& x, size_t tokens) {
  Floats copy;
  const float* b = floatsOf(bias, x.width, copy);
  for (size_t t = 0; t < tokens; ++t) {
    for (size_t i = 0; i < x.width; ++i) x.token(t)[i] += b[i];
  }
}

// q = rope(rmsNorm(q)), head by head, in place; the gate behind each head stays as it is.
void prepareQueries(const Model& m, const Layer& L, Activations& q, const TokenRun& run,
                    const RotaryAngles& angles) {
  Floats copy;
  const float* weight = floatsOf(L.q_norm, m.headDim, copy);
  const size_t heads = run.count * m.nHead;
  forEachUnit(heads, heads * m.headDim >= kTeamElements, [&](size_t unit) {
    const size_t t = unit / m.nHead;
    float* head = q.token(t) + unit % m.nHead * 2 * m.headDim;
    reference::rmsNorm(head, weight, head, m.headDim, kNormEps);
    angles.apply(head, t);
  });
}

// Appends rope(rmsNorm(k)) and v to the cache: the run's slots are those from kvLen on.
void cacheKeysAndValues(const Model& m, Layer& L, const Activations& k, const Activations& v,
                        const TokenRun& run, const RotaryAngles& angles) {
  Floats copy;
  const float* weight = floatsOf(L.k_norm, m.headDim, copy);
  L.kvUsed = std::max(L.kvUsed, L.kvLen + run.count);
  forEachUnit(run.count * m.nHeadKv, run.count > 1, [&](size_t unit) {
    const size_t t = unit / m.nHeadKv;
    const size_t g = unit % m.nHeadKv;
    const size_t slot = (g * m.kvCap + L.kvLen + t) * m.headDim;
    float* key = L.kCache.data() + slot;
    reference::rmsNorm(k.token(t) + g * m.headDim, weight, key, m.headDim, kNormEps);
    angles.apply(key, t);
    std::copy_n(v.token(t) + g * m.headDim, m.headDim, L.vCache.data() + slot);
  });
}

}  // namespace

void fullAttention(const Model& m, Layer& L, const float* x, float* out, const TokenRun& run,
                   const RotaryAngles& angles, Trace& trace) {
  if (run.count > m.kvCap - L.kvLen) throw std::length_error("qwen35: key/value cache is full");
  Floats xn(run.count * m.nEmb);
  normTokens(L.attn_norm, x, xn.data(), run.count, m.nEmb);

  const PackedTokens X(xn.data(), m.nEmb, run.count, m.nEmb);
  std::vector<Activations> projected = projectAll(m, {L.wq, L.wk, L.wv}, X);
  Activations& q = projected[0];
  Activations& k = projected[1];
  Activations& v = projected[2];
  if (L.qb != nullptr) {
    addBias(L.qb, q, run.count);
    addBias(L.kb, k, run.count);
    addBias(L.vb, v, run.count);
  }

  prepareQueries(m, L, q, run, angles);
  cacheKeysAndValues(m, L, k, v, run, angles);
  const size_t width = m.nHead * m.headDim;
  Floats o(run.count * width);
  const SoftmaxTotals totals = softmaxAttention(m, L, run, q, o);
  trace.softmaxScores(L.kvLen, totals.max[0], totals.sum[0]);
  L.kvLen += run.count;

  matmul(gpuOf(m), *L.wo, PackedTokens(o.data(), width, run.count, width), out);
}

}  // namespace qwen35
