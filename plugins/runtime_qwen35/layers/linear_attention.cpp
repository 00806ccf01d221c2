// SPDX-License-Identifier: Apache-2.0
// Linear attention: a gated delta net (Yang et al., "Gated Delta Networks", 2024) behind a short
// convolution.
//
// A token's queries, keys and values lie side by side in one buffer of channels: kHeads queries,
// kHeads keys, vHeads values, of sv floats each. The stages work on it in place: the values become
// the heads' outputs.
#include <algorithm>
#include <cmath>

#include "kernels/reference.h"
#include "layers/blocks.h"
#include "matmul/team.h"

namespace qwen35 {
namespace {

// The floats of a token's queries and keys, in front of its values.
size_t keyChannels(const Model& m) { return 2 * m.kHeads * m.sv; }
size_t channels(const Model& m) { return keyChannels(m) + m.dInner; }

// beta = sigmoid(beta): how strongly each head writes.
void writeStrengths(const Model& m, Activations& beta, size_t tokens) {
  for (size_t t = 0; t < tokens; ++t) {
    reference::sigmoid(beta.token(t), beta.token(t), m.vHeads);
  }
}

// g = softplus(g + dt) * A: the logarithm of each head's decay.
void logDecays(const Model& m, const Layer& L, Activations& g, size_t tokens) {
  Floats dtCopy;
  Floats aCopy;
  const float* dt = floatsOf(L.dt, m.vHeads, dtCopy);
  const float* a = floatsOf(L.ssm_a, m.vHeads, aCopy);
  for (size_t t = 0; t < tokens; ++t) {
    float* head = g.token(t);
    for (size_t h = 0; h < m.vHeads; ++h) head[h] += dt[h];
    reference::softplus(head, head, m.vHeads);
    for (size_t h = 0; h < m.vHeads; ++h) head[h] *= a[h];
  }
}

// qkv = silu(conv(qkv)), each channel over its last four tokens.
void convolve(const Model& m, Layer& L, Activations& qkv, size_t tokens) {
  const size_t n = channels(m);
  const size_t stride = L.conv1d->shape[0];
  Floats copy;
  const float* w = floatsOf(L.conv1d, (n - 1) * stride + m.convK, copy);
  const KernelTable& kernels = kernelTable();
  constexpr size_t kSome = 128;
  forEachUnit((n + kSome - 1) / kSome, n >= kTeamElements, [&](size_t unit) {
    const size_t first = unit * kSome;
    float* window = L.convWin.data() + 3 * first;
    for (size_t t = 0; t < tokens; ++t) {
      float* x = qkv.token(t) + first;
      kernels.convStep(w + first * stride, stride, window, x, x, std::min(kSome, n - first));
    }
  });
}

// Brings each head's query and key to length one.
void normaliseKeys(const Model& m, Activations& qkv, size_t tokens) {
  const size_t heads = 2 * m.kHeads;
  forEachUnit(tokens, tokens * keyChannels(m) >= kTeamElements, [&](size_t t) {
    float* keys = qkv.token(t);
    reference::l2NormBlocks(keys, keys, heads, m.sv, kNormEps);
  });
}

// S *= e^g; S += k beta (v - S^T k)^T; v = S^T q / sqrt(sv), head by head. Value head h uses key
// head h mod kHeads.
void recur(const Model& m, Layer& L, Activations& qkv, const Activations& beta,
           const Activations& g, size_t tokens, bool decays) {
  const float scale = 1.0F / std::sqrt(static_cast<float>(m.sv));
  const KernelTable& kernels = kernelTable();
  forEachUnit(m.vHeads, L.state.size() >= kTeamElements, [&](size_t h) {
    float* S = L.state.data() + h * m.sv * m.sv;
    for (size_t t = 0; t < tokens; ++t) {
      const float* q = qkv.token(t) + h % m.kHeads * m.sv;
      const float* k = q + m.kHeads * m.sv;
      float* v = qkv.token(t) + keyChannels(m) + h * m.sv;
      const float logDecay = decays ? g.token(t)[h] : 0.0F;
      kernels.gdnStep(S, q, k, v, beta.token(t)[h], m.sv, logDecay, scale);
    }
  });
}

// o = rmsNorm(o) * silu(z), head by head.
void gate(const Model& m, const Layer& L, Activations& qkv, const Activations& z, size_t tokens) {
  Floats copy;
  const float* weight = floatsOf(L.ssm_norm, m.sv, copy);
  const KernelTable& kernels = kernelTable();
  forEachUnit(tokens * m.vHeads, tokens * m.dInner >= kTeamElements, [&](size_t unit) {
    const size_t t = unit / m.vHeads;
    const size_t first = unit % m.vHeads * m.sv;
    float* o = qkv.token(t) + keyChannels(m) + first;
    reference::rmsNorm(o, weight, o, m.sv, kNormEps);
    kernels.siluMul(z.token(t) + first, o, o, m.sv);
  });
}

}  // namespace

void linearAttention(const Model& m, Layer& L, const float* x, float* out, const TokenRun& run,
                     Trace& trace) {
  Floats xn(run.count * m.nEmb);
  normTokens(L.attn_norm, x, xn.data(), run.count, m.nEmb);

  const PackedTokens X(xn.data(), m.nEmb, run.count, m.nEmb);
  Activations qkv = project(m, L.wqkv, X);
  const Activations z = project(m, L.wqkv_gate, X);
  Activations beta = project(m, L.beta, X);
  Activations g = project(m, L.alpha, X);
  writeStrengths(m, beta, run.count);
  logDecays(m, L, g, run.count);
  trace.linearInputs(qkv.token(0), z.token(0), beta.token(0), g.token(0));

  convolve(m, L, qkv, run.count);
  trace.linearConvolution(qkv.token(0));
  normaliseKeys(m, qkv, run.count);

  const float* o = qkv.token(0) + keyChannels(m);
  recur(m, L, qkv, beta, g, run.count, trace.decays());
  trace.linearRecurrence(o);
  gate(m, L, qkv, z, run.count);
  trace.linearGate(o);

  matmul(gpuOf(m), *L.ssm_out, PackedTokens(o, qkv.width, run.count, m.dInner), out);
  trace.linearOutput(out);
}

}  // namespace qwen35
