// Gated-delta-net attention.
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "kernels/step_loops.h"
#include "layers/blocks.h"
#include "matmul/team.h"
#include "model/diagnostics.h"
#include "qwen35_kernels.h"

namespace qwen35 {
namespace {

size_t channelCount(const Model& m) { return m.dInner + 2 * m.kHeads * m.sv; }

// What a run computes before its recurrence.
struct LinearInputs {
  Activations qkv;    // becomes its convolution; the values become the heads' outputs
  Activations z;      // output gate, before SiLU
  Activations betaH;  // write strength of each head
  Activations gH;     // log of each head's decay
};

LinearInputs linearInputs(Model& m, const Layer& L, const float* x, size_t tokens) {
  Floats xn(tokens * m.nEmb);
  normTokens(L.attn_norm, x, xn.data(), tokens, m.nEmb);
  const ProductInput input(xn.data(), m.nEmb, tokens, m.nEmb);
  LinearInputs in{product(m, L.wqkv, input), product(m, L.wqkv_gate, input),
                  product(m, L.beta, input), product(m, L.alpha, input)};
  Floats dtCopy;
  Floats aCopy;
  const float* dt = floatsOf(L.dt, m.vHeads, dtCopy);
  const float* a = floatsOf(L.ssm_a, m.vHeads, aCopy);
  for (size_t t = 0; t < tokens; ++t) {
    float* beta = in.betaH.token(t);
    float* g = in.gH.token(t);
    sigmoid(beta, beta, m.vHeads);
    for (size_t h = 0; h < m.vHeads; ++h) g[h] += dt[h];
    softplus(g, g, m.vHeads);
    for (size_t h = 0; h < m.vHeads; ++h) g[h] *= a[h];
  }
  return in;
}

// Convolves the channels in place, token after token.
void convolve(const Model& m, Layer& L, LinearInputs& in, size_t tokens) {
  const size_t channels = channelCount(m);
  const size_t stride = L.conv1d->shape[0];
  Floats copy;
  const float* w = floatsOf(L.conv1d, (channels - 1) * stride + m.convK, copy);
  const StepLoops& loops = stepLoops(currentCpuLevel());
  constexpr size_t kSome = 128;
  forEachUnit((channels + kSome - 1) / kSome, channels >= kTeamElements, [&](size_t unit) {
    const size_t first = unit * kSome;
    const size_t count = std::min(kSome, channels - first);
    for (size_t t = 0; t < tokens; ++t) {
      float* x = in.qkv.token(t) + first;
      loops.convStep(w + first * stride, stride, L.convWin.data() + 3 * first, x, x, count);
    }
  });
}

// Brings the queries and keys of each head to length one.
void normaliseKeys(const Model& m, LinearInputs& in, size_t tokens) {
  const size_t heads = 2 * m.kHeads;
  forEachUnit(tokens, tokens * heads * m.sv >= kTeamElements, [&](size_t t) {
    float* keys = in.qkv.token(t);
    l2NormBlocks(keys, keys, heads, m.sv, kNormEps);
  });
}

// Advances every value head's state; the heads' outputs replace their values.
void recur(const Model& m, Layer& L, LinearInputs& in, size_t tokens) {
  const size_t keyWidth = m.kHeads * m.sv;
  const float scale = 1.0F / std::sqrt(static_cast<float>(m.sv));
  const bool decays = !diagnosticSet("QWEN35_NODECAY");
  const StepLoops& loops = stepLoops(currentCpuLevel());
  forEachUnit(m.vHeads, L.state.size() >= kTeamElements, [&](size_t h) {
    float* state = L.state.data() + h * m.sv * m.sv;
    for (size_t t = 0; t < tokens; ++t) {
      const float* q = in.qkv.token(t) + h % m.kHeads * m.sv;
      float* v = in.qkv.token(t) + 2 * keyWidth + h * m.sv;
      loops.gdnStep(state, q, q + keyWidth, v, in.betaH.token(t)[h], m.sv,
                    decays ? in.gH.token(t)[h] : 0.0F, scale);
    }
  });
}

// Normalises each head's output and multiplies it by SiLU of its gate.
void gateHeads(const Model& m, const Layer& L, LinearInputs& in, size_t tokens) {
  Floats copy;
  const float* weight = floatsOf(L.ssm_norm, m.sv, copy);
  const StepLoops& loops = stepLoops(currentCpuLevel());
  forEachUnit(tokens * m.vHeads, tokens * m.dInner >= kTeamElements, [&](size_t unit) {
    const size_t t = unit / m.vHeads;
    const size_t first = unit % m.vHeads * m.sv;
    float* head = in.qkv.token(t) + 2 * m.kHeads * m.sv + first;
    rmsNorm(head, weight, head, m.sv, kNormEps);
    loops.siluMul(in.z.token(t) + first, head, head, m.sv);
  });
}

void printStateNorms(const Model& m, const Layer& L, const LinearInputs& in, const float* o,
                     size_t pos) {
  std::fprintf(stderr, "LIN S-pos=%zu |S|tot %.4e head0 %.4e |oT| %.3e av0 %.4f bv0 %.4f\n", pos,
               norm(L.state.data(), L.state.size()), norm(L.state.data(), m.sv * m.sv),
               norm(o, m.dInner), static_cast<double>(in.gH.token(0)[0]),
               static_cast<double>(in.betaH.token(0)[0]));
}

struct LinearNorms {
  double qkv = 0;
  double z = 0;
  double conv = 0;
  double oPre = 0;
};

void printLinearStep(const Model& m, const Layer& L, const LinearInputs& in,
                     const LinearNorms& norms, const float* o, const float* out) {
  std::fprintf(stderr,
               "    lin: |qkv|=%.3e |z|=%.3e |conv|=%.3e bv0=%.4f av0=%.4f |oTpre|=%.3e "
               "|oT|=%.3e |out|=%.3e conv1d dtype=%u ndim=%u cc=%zu kk=%zu\n",
               norms.qkv, norms.z, norms.conv, static_cast<double>(in.betaH.token(0)[0]),
               static_cast<double>(in.gH.token(0)[0]), norms.oPre, norm(o, m.dInner),
               norm(out, m.nEmb), static_cast<unsigned>(L.conv1d->dtype),
               static_cast<unsigned>(L.conv1d->ndim), matrixRows(*L.conv1d),
               static_cast<size_t>(L.conv1d->shape[0]));
  Floats copy;
  const float* w = floatsOf(L.conv1d, 16, copy);
  for (size_t r = 0; r < 4; ++r) {
    std::fprintf(stderr, "      wr[%zu][0..3] = %.6e %.6e %.6e %.6e\n", r,
                 static_cast<double>(w[4 * r]), static_cast<double>(w[4 * r + 1]),
                 static_cast<double>(w[4 * r + 2]), static_cast<double>(w[4 * r + 3]));
  }
}

}  // namespace

void linearAttention(Model& m, Layer& L, const float* x, float* out, const TokenRun& run,
                     size_t il) {
  LinearInputs in = linearInputs(m, L, x, run.count);
  // The first token's heads; traces are of one token at a time.
  const float* o = in.qkv.token(0) + 2 * m.kHeads * m.sv;
  const bool trace = il == 0 && diagnosticSet("QWEN35_DBG2");
  LinearNorms norms;
  if (trace) {
    norms.qkv = norm(in.qkv.token(0), channelCount(m));
    norms.z = norm(in.z.token(0), m.dInner);
  }
  convolve(m, L, in, run.count);
  if (trace) norms.conv = norm(in.qkv.token(0), channelCount(m));
  normaliseKeys(m, in, run.count);
  recur(m, L, in, run.count);
  if (trace) norms.oPre = norm(o, m.dInner);
  gateHeads(m, L, in, run.count);
  if (il == 0 && run.pos % 8 == 0 && diagnosticSet("QWEN35_DBG4")) {
    printStateNorms(m, L, in, o, run.pos);
  }
  products(m, L.ssm_out, ProductInput(o, in.qkv.width, run.count, m.dInner), out);
  if (trace) printLinearStep(m, L, in, norms, o, out);
}

}  // namespace qwen35
