// The two kinds of attention layer and the feed-forward block, one token at a time.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <stdexcept>
#include <vector>

#include "kiv/exact_math.h"
#include "qwen35_diagnostics.h"
#include "qwen35_kernels.h"
#include "qwen35_model.h"
#include "qwen35_product.h"
#include "qwen35_reference.h"

namespace qwen35 {
namespace {

using Floats = std::vector<float>;

Floats product(Model& m, const TensorView* W, const float* x) {
  Floats y(matrixRows(*W));
  gemvRow(m, W, x, y.data());
  return y;
}

// out = W x, where `out` has as many floats as W has rows.
void productInto(Model& m, const TensorView* W, const float* x, float* out) {
  std::fill_n(out, matrixRows(*W), 0.0F);
  gemvRow(m, W, x, out);
}

Floats normed(const TensorView* weight, const float* x, size_t n) {
  Floats copy;
  Floats out(n);
  rmsNorm(x, floatsOf(weight, n, copy), out.data(), n, kNormEps);
  return out;
}

void addBias(const TensorView* bias, Floats& y) {
  Floats copy;
  const float* b = floatsOf(bias, y.size(), copy);
  for (size_t i = 0; i < y.size(); ++i) y[i] += b[i];
}

// What a linear-attention step computes before its recurrence.
struct LinearInputs {
  Floats qkv;
  Floats z;      // output gate, before SiLU
  Floats betaH;  // write strength of each head
  Floats gH;     // log of each head's decay
};

LinearInputs linearInputs(Model& m, const Layer& L, const float* x) {
  const Floats xn = normed(L.attn_norm, x, m.nEmb);
  LinearInputs in{product(m, L.wqkv, xn.data()), product(m, L.wqkv_gate, xn.data()),
                  product(m, L.beta, xn.data()), product(m, L.alpha, xn.data())};
  Floats dtCopy;
  Floats aCopy;
  const float* dt = floatsOf(L.dt, m.vHeads, dtCopy);
  const float* a = floatsOf(L.ssm_a, m.vHeads, aCopy);
  sigmoid(in.betaH.data(), in.betaH.data(), m.vHeads);
  for (size_t h = 0; h < m.vHeads; ++h) in.gH[h] += dt[h];
  softplus(in.gH.data(), in.gH.data(), m.vHeads);
  for (size_t h = 0; h < m.vHeads; ++h) in.gH[h] *= a[h];
  return in;
}

Floats convolve(const Model& m, Layer& L, const Floats& qkv) {
  const size_t channels = m.dInner + 2 * m.kHeads * m.sv;
  const size_t stride = L.conv1d->shape[0];
  Floats copy;
  const float* w = floatsOf(L.conv1d, (channels - 1) * stride + m.convK, copy);
  Floats conv(channels);
  reference::convStep(w, stride, L.convWin.data(), qkv.data(), conv.data(), channels);
  return conv;
}

// Advances every value head's state; the heads' outputs replace the values in `conv`.
void recur(const Model& m, Layer& L, const LinearInputs& in, Floats& conv) {
  const size_t keyWidth = m.kHeads * m.sv;
  float* q = conv.data();
  float* k = q + keyWidth;
  float* v = k + keyWidth;
  l2NormBlocks(q, q, m.kHeads, m.sv, kNormEps);
  l2NormBlocks(k, k, m.kHeads, m.sv, kNormEps);
  const float scale = 1.0F / std::sqrt(static_cast<float>(m.sv));
  for (size_t h = 0; h < m.vHeads; ++h) {
    const size_t keyHead = h % m.kHeads;
    const float g = diagnosticSet("QWEN35_NODECAY") ? 0.0F : in.gH[h];
    gdnStep(L.state.data() + h * m.sv * m.sv, q + keyHead * m.sv, k + keyHead * m.sv, v + h * m.sv,
            in.betaH[h], m.sv, g, scale);
  }
}

// Normalises each head's output and multiplies it by SiLU of its gate.
void gateHeads(const Model& m, const Layer& L, Floats& z, Floats& o) {
  Floats copy;
  const float* weight = floatsOf(L.ssm_norm, m.sv, copy);
  silu(z.data(), z.data(), m.dInner);
  for (size_t h = 0; h < m.vHeads; ++h) {
    float* head = o.data() + h * m.sv;
    rmsNorm(head, weight, head, m.sv, kNormEps);
    for (size_t i = 0; i < m.sv; ++i) head[i] = z[h * m.sv + i] * head[i];
  }
}

void printStateNorms(const Model& m, const Layer& L, const LinearInputs& in, const Floats& o,
                     size_t pos) {
  std::fprintf(stderr, "LIN S-pos=%zu |S|tot %.4e head0 %.4e |oT| %.3e av0 %.4f bv0 %.4f\n", pos,
               norm(L.state.data(), L.state.size()), norm(L.state.data(), m.sv * m.sv),
               norm(o.data(), o.size()), static_cast<double>(in.gH[0]),
               static_cast<double>(in.betaH[0]));
}

struct LinearNorms {
  double qkv = 0;
  double z = 0;
  double conv = 0;
  double oPre = 0;
};

void printLinearStep(const Model& m, const Layer& L, const LinearInputs& in,
                     const LinearNorms& norms, const Floats& o, const float* out) {
  std::fprintf(stderr,
               "    lin: |qkv|=%.3e |z|=%.3e |conv|=%.3e bv0=%.4f av0=%.4f |oTpre|=%.3e "
               "|oT|=%.3e |out|=%.3e conv1d dtype=%u ndim=%u cc=%zu kk=%zu\n",
               norms.qkv, norms.z, norms.conv, static_cast<double>(in.betaH[0]),
               static_cast<double>(in.gH[0]), norms.oPre, norm(o.data(), o.size()),
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

// The rotary angles of one position.
struct Rotation {
  Rotation(size_t nRot, size_t pos) : n(nRot), cosines(nRot / 2), sines(nRot / 2) {
    reference::ropeAngles(n, pos, cosines.data(), sines.data());
  }
  void apply(float* x) const { reference::ropeRotate(x, n, cosines.data(), sines.data()); }

  size_t n;
  Floats cosines;
  Floats sines;
};

// Puts the token's normalised, rotated keys and its raw values into slot kvLen.
void cacheKeysAndValues(const Model& m, Layer& L, const Floats& k, const Floats& v,
                        const Rotation& rotation) {
  Floats copy;
  const float* weight = floatsOf(L.k_norm, m.headDim, copy);
  for (size_t g = 0; g < m.nHeadKv; ++g) {
    const size_t slot = (g * m.kvCap + L.kvLen) * m.headDim;
    rmsNorm(k.data() + g * m.headDim, weight, L.kCache.data() + slot, m.headDim, kNormEps);
    rotation.apply(L.kCache.data() + slot);
    std::copy_n(v.data() + g * m.headDim, m.headDim, L.vCache.data() + slot);
  }
}

void printAttention(const Layer& L, const reference::AttentionScores& scores) {
  const double entropy = std::log(static_cast<double>(scores.sum)) + scores.max + 1e-9;
  std::fprintf(stderr, "FULL kvLen=%zu qh0: max %.3f ent %.4f nTok %zu\n", L.kvLen,
               static_cast<double>(scores.max), entropy, L.kvLen + 1);
}

}  // namespace

void linearAttnStep(Model& m, Layer& L, const float* x, float* out, size_t il, size_t pos) {
  LinearInputs in = linearInputs(m, L, x);
  Floats conv = convolve(m, L, in.qkv);
  const bool trace = il == 0 && diagnosticSet("QWEN35_DBG2");
  LinearNorms norms;
  if (trace) {
    norms.qkv = norm(in.qkv.data(), in.qkv.size());
    norms.z = norm(in.z.data(), in.z.size());
    norms.conv = norm(conv.data(), conv.size());
  }
  recur(m, L, in, conv);
  Floats o(conv.end() - static_cast<ptrdiff_t>(m.dInner), conv.end());
  if (trace) norms.oPre = norm(o.data(), o.size());
  gateHeads(m, L, in.z, o);
  if (il == 0 && pos % 8 == 0 && diagnosticSet("QWEN35_DBG4")) printStateNorms(m, L, in, o, pos);
  productInto(m, L.ssm_out, o.data(), out);
  if (trace) printLinearStep(m, L, in, norms, o, out);
}

void fullAttnStep(Model& m, Layer& L, const float* x, float* out, size_t pos, size_t il) {
  if (L.kvLen >= m.kvCap) throw std::length_error("qwen35: key/value cache is full");
  const Floats xn = normed(L.attn_norm, x, m.nEmb);
  Floats q = product(m, L.wq, xn.data());
  Floats k = product(m, L.wk, xn.data());
  Floats v = product(m, L.wv, xn.data());
  if (L.qb != nullptr) {
    addBias(L.qb, q);
    addBias(L.kb, k);
    addBias(L.vb, v);
  }

  const Rotation rotation(m.nRot, pos);
  cacheKeysAndValues(m, L, k, v, rotation);
  const size_t slots = L.kvLen + 1;
  const size_t group = m.nHead / m.nHeadKv;
  const bool trace = pos % 8 == 0 && il == 3 && diagnosticSet("QWEN35_DBG3");
  Floats weights(slots);
  Floats o(m.nHead * m.headDim);
  for (size_t h = 0; h < m.nHead; ++h) {
    const float* head = q.data() + 2 * h * m.headDim;
    Floats query = normed(L.q_norm, head, m.headDim);
    rotation.apply(query.data());
    const size_t cache = h / group * m.kvCap * m.headDim;
    const auto scores = reference::attendHead(
        query.data(), head + m.headDim, L.kCache.data() + cache, L.vCache.data() + cache, slots,
        m.headDim, weights.data(), o.data() + h * m.headDim);
    if (trace && h == 0) printAttention(L, scores);
  }
  L.kvLen = slots;
  productInto(m, L.wo, o.data(), out);
}

void ffnStep(Model& m, Layer& L, const float* xn, float* out) {
  Floats gate = product(m, L.ffn_gate, xn);
  const Floats up = product(m, L.ffn_up, xn);
  silu(gate.data(), gate.data(), gate.size());
  for (size_t i = 0; i < gate.size(); ++i) gate[i] *= up[i];
  productInto(m, L.ffn_down, gate.data(), out);
}

}  // namespace qwen35
