// SPDX-License-Identifier: Apache-2.0
// The decoder's formulas in double precision, as short as they can be: what the
// results would be without rounding. F32 weights only.
#pragma once

#include <array>
#include <cmath>
#include <cstddef>
#include <vector>

#include "qwen35_model.h"

namespace qwen35 {

class DoubleDecoder {
 public:
  using Doubles = std::vector<double>;

  explicit DoubleDecoder(const Model& model) : m_(model) {
    state_.fill(Doubles(size_t{32} * 128 * 128));
    window_.fill(Doubles(size_t{8192} * 3));
  }

  // The logits behind the next token, given its embedding.
  Doubles next(const std::vector<float>& embedding) {
    Doubles cur(embedding.begin(), embedding.end());
    for (size_t il = 0; il < kLayerCount; ++il) {
      const Layer& L = m_.L[il];
      const Doubles xn = norm(L.attn_norm, cur.data(), cur.size());
      add(cur, L.recr ? linearAttention(L, il, xn) : fullAttention(L, il, xn));
      add(cur, feedForward(L, norm(L.post_norm, cur.data(), cur.size())));
    }
    ++pos_;
    return times(m_.emb, norm(m_.outNorm, cur.data(), cur.size()));
  }

 private:
  static const float* floats(const TensorView* t) { return static_cast<const float*>(t->data); }
  static double sigmoid(double x) { return 1 / (1 + std::exp(-x)); }
  static void add(Doubles& a, const Doubles& b) {
    for (size_t i = 0; i < a.size(); ++i) a[i] += b[i];
  }

  static Doubles times(const TensorView* W, const Doubles& x) {
    Doubles y(W->shape[1]);
    for (size_t r = 0; r < y.size(); ++r) {
      for (size_t c = 0; c < x.size(); ++c) y[r] += floats(W)[r * x.size() + c] * x[c];
    }
    return y;
  }

  static Doubles norm(const TensorView* w, const double* x, size_t n) {
    double sum = 0;
    for (size_t i = 0; i < n; ++i) sum += x[i] * x[i];
    Doubles out(n);
    for (size_t i = 0; i < n; ++i) {
      out[i] = x[i] / std::sqrt(sum / static_cast<double>(n) + 1e-6) * floats(w)[i];
    }
    return out;
  }

  Doubles feedForward(const Layer& L, const Doubles& x) const {
    Doubles gate = times(L.ffn_gate, x);
    const Doubles up = times(L.ffn_up, x);
    for (size_t i = 0; i < gate.size(); ++i) gate[i] *= sigmoid(gate[i]) * up[i];
    return times(L.ffn_down, gate);
  }

  Doubles convolve(const Layer& L, size_t il, const Doubles& qkv) {
    Doubles out(qkv.size());
    for (size_t c = 0; c < qkv.size(); ++c) {
      const float* w = floats(L.conv1d) + 4 * c;
      double* s = &window_[il][3 * c];
      const double y = w[0] * s[0] + w[1] * s[1] + w[2] * s[2] + w[3] * qkv[c];
      out[c] = y * sigmoid(y);
      s[0] = s[1];
      s[1] = s[2];
      s[2] = qkv[c];
    }
    return out;
  }

  Doubles linearAttention(const Layer& L, size_t il, const Doubles& xn) {
    Doubles conv = convolve(L, il, times(L.wqkv, xn));
    const Doubles z = times(L.wqkv_gate, xn);
    const Doubles b = times(L.beta, xn);
    const Doubles a = times(L.alpha, xn);
    for (size_t h = 0; h < 32; ++h) {  // 16 heads of queries, then 16 of keys
      double sum = 0;
      for (size_t i = 0; i < 128; ++i) sum += conv[h * 128 + i] * conv[h * 128 + i];
      for (size_t i = 0; i < 128; ++i) conv[h * 128 + i] /= std::sqrt(sum + 1e-6);
    }
    Doubles o(4096);
    for (size_t h = 0; h < 32; ++h) {
      const double* q = &conv[h % 16 * 128];
      const double decay =
          std::exp(std::log1p(std::exp(a[h] + floats(L.dt)[h])) * floats(L.ssm_a)[h]);
      const Doubles out = recur(&state_[il][h * 128 * 128], q, q + 2048, &conv[4096 + h * 128],
                                sigmoid(b[h]), decay);
      const Doubles t = norm(L.ssm_norm, out.data(), 128);
      for (size_t i = 0; i < 128; ++i) {
        const double gate = z[h * 128 + i];
        o[h * 128 + i] = t[i] * gate * sigmoid(gate);
      }
    }
    return times(L.ssm_out, o);
  }

  static Doubles recur(double* S, const double* q, const double* k, const double* v, double beta,
                       double decay) {
    Doubles out(128);
    for (size_t i = 0; i < 128 * 128; ++i) S[i] *= decay;
    for (size_t j = 0; j < 128; ++j) {
      double kv = 0;
      for (size_t i = 0; i < 128; ++i) kv += k[i] * S[i * 128 + j];
      for (size_t i = 0; i < 128; ++i) S[i * 128 + j] += k[i] * (v[j] - kv) * beta;
      for (size_t i = 0; i < 128; ++i) out[j] += q[i] * S[i * 128 + j] / std::sqrt(128.0);
    }
    return out;
  }

  void rotate(double* x) const {
    for (size_t i = 0; i < 32; ++i) {
      const double angle = static_cast<double>(pos_) * std::pow(1e7, -static_cast<double>(i) / 32);
      const double a = x[i];
      const double b = x[i + 32];
      x[i] = std::cos(angle) * a - std::sin(angle) * b;
      x[i + 32] = std::sin(angle) * a + std::cos(angle) * b;
    }
  }

  Doubles fullAttention(const Layer& L, size_t il, const Doubles& xn) {
    const Doubles q = times(L.wq, xn);
    const Doubles k = times(L.wk, xn);
    const Doubles v = times(L.wv, xn);
    for (size_t g = 0; g < 4; ++g) {
      Doubles key = norm(L.k_norm, &k[g * 256], 256);
      rotate(key.data());
      keys_[il].insert(keys_[il].end(), key.begin(), key.end());
    }
    values_[il].insert(values_[il].end(), v.begin(), v.end());
    Doubles o(4096);
    for (size_t h = 0; h < 16; ++h) {
      Doubles query = norm(L.q_norm, &q[h * 512], 256);
      rotate(query.data());
      mix(query, &keys_[il][h / 4 * 256], &values_[il][h / 4 * 256], &o[h * 256]);
      for (size_t i = 0; i < 256; ++i) o[h * 256 + i] *= sigmoid(q[h * 512 + 256 + i]);
    }
    return times(L.wo, o);
  }

  // Softmax attention over the slots, 1024 values apart.
  void mix(const Doubles& query, const double* keys, const double* values, double* out) const {
    Doubles p(pos_ + 1);
    double sum = 0;
    for (size_t s = 0; s < p.size(); ++s) {
      for (size_t i = 0; i < 256; ++i) p[s] += query[i] * keys[s * 1024 + i] / 16;
      p[s] = std::exp(p[s]);
      sum += p[s];
    }
    for (size_t s = 0; s < p.size(); ++s) {
      for (size_t i = 0; i < 256; ++i) out[i] += p[s] / sum * values[s * 1024 + i];
    }
  }

  const Model& m_;
  size_t pos_ = 0;
  std::array<Doubles, kLayerCount> state_;
  std::array<Doubles, kLayerCount> window_;
  std::array<Doubles, kLayerCount> keys_;
  std::array<Doubles, kLayerCount> values_;
};

}  // namespace qwen35
