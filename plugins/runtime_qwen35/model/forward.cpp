// SPDX-License-Identifier: Apache-2.0
// Tokens through all layers, and the one-token steps of qwen35_model.h.
#include <algorithm>
#include <vector>

#include "layers/blocks.h"
#include "qwen35_model.h"

namespace qwen35 {
namespace {

void add(const Floats& a, const Floats& b, Floats& sum) {
  for (size_t i = 0; i < sum.size(); ++i) sum[i] = a[i] + b[i];
}

void attend(const Model& m, Layer& L, const Floats& x, Floats& out, const TokenRun& run,
            const RotaryAngles& angles, Trace& trace) {
  if (!trace.takesPart(L)) {
    std::fill(out.begin(), out.end(), 0.0F);
  } else if (L.recr) {
    linearAttention(m, L, x.data(), out.data(), run, trace);
  } else {
    fullAttention(m, L, x.data(), out.data(), run, angles, trace);
  }
}

// The hidden states behind the last layer, before the final norm.
Floats runLayers(Model& m, const float* x, const TokenRun& run, Trace& trace) {
  const size_t n = run.count * m.nEmb;
  const RotaryAngles angles(m.nRot, run);
  Floats cur(x, x + n);
  Floats attn(n);
  Floats h(n);
  Floats hn(n);
  Floats ffn(n);
  for (size_t il = 0; il < m.nLayers; ++il) {
    Layer& L = m.L[il];
    trace.enterLayer(il, L);
    attend(m, L, cur, attn, run, angles, trace);
    trace.attention(cur, attn);
    add(cur, attn, h);
    trace.residual(h);
    normTokens(L.post_norm, h.data(), hn.data(), run.count, m.nEmb);
    trace.postNorm(hn);
    feedForward(m, L, hn.data(), ffn.data(), run.count);
    trace.feedForward(ffn);
    add(h, ffn, cur);
    trace.leaveLayer(cur);
  }
  trace.layersDone(x, cur);
  return cur;
}

void runToHidden(Model& m, const float* x, const TokenRun& run, float* hidden, Trace& trace) {
  const Floats cur = runLayers(m, x, run, trace);
  normTokens(m.outNorm, cur.data(), hidden, run.count, m.nEmb);
}

}  // namespace

void forwardToken(Model& m, const float* x, size_t pos, float* logits) {
  Trace trace(Trace::Call::Logits, m, pos);
  Floats hidden(m.nEmb);
  runToHidden(m, x, {1, pos}, hidden.data(), trace);
  // The head is the embedding matrix once more.
  matvec(gpuOf(m), *m.emb, hidden.data(), {logits, m.nVocab});
}

void forwardTokenHidden(Model& m, const float* x, size_t pos, float* hidden) {
  Trace trace(Trace::Call::Hidden, m, pos);
  runToHidden(m, x, {1, pos}, hidden, trace);
  trace.passDone();
}

void forwardTokensHidden(Model& m, const float* x, size_t count, size_t pos, float* hidden) {
  const size_t most = Trace::isWanted() ? 1 : kBatchTokens;
  for (size_t first = 0; first < count; first += most) {
    const TokenRun run{std::min(most, count - first), pos + first};
    const float* in = x + first * m.nEmb;
    float* out = hidden + first * m.nEmb;
    if (run.count == 1) {
      forwardTokenHidden(m, in, run.pos, out);
    } else {
      Trace none;
      runToHidden(m, in, run, out, none);
    }
  }
}

void linearAttnStep(Model& m, Layer& L, const float* x, float* out, size_t il, size_t pos) {
  Trace trace(Trace::Call::Step, m, pos);
  trace.enterLayer(il, L);
  linearAttention(m, L, x, out, {1, pos}, trace);
}

void fullAttnStep(Model& m, Layer& L, const float* x, float* out, size_t pos, size_t il) {
  Trace trace(Trace::Call::Step, m, pos);
  trace.enterLayer(il, L);
  const TokenRun run{1, pos};
  fullAttention(m, L, x, out, run, RotaryAngles(m.nRot, run), trace);
}

void ffnStep(Model& m, Layer& L, const float* xn, float* out) { feedForward(m, L, xn, out, 1); }

}  // namespace qwen35
