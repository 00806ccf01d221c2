// SPDX-License-Identifier: Apache-2.0
// The formulas of a model of any sizes in double precision, as short as they can be: what the
// results would be without rounding. F32 weights only.
#pragma once

#include <cmath>
#include <cstddef>
#include <vector>

#include "engine/model/weights.h"
#include "kiv/model/architecture.h"

namespace zemtest {

class PlainDecoder {
 public:
  using Doubles = std::vector<double>;

  explicit PlainDecoder(const zem::Weights& weights)
      : w_(weights), s_(weights.shape()), layers_(s_.layers) {
    for (LayerState& layer : layers_) {
      layer.state.resize(s_.valueHeads * s_.stateSize * s_.stateSize);
      layer.window.resize(s_.channels() * 3);
    }
  }

  // The logits behind the next token.
  Doubles next(uint32_t token) {
    const float* row = floats(w_.embedding()) + token * s_.width;
    Doubles cur(row, row + s_.width);
    for (size_t i = 0; i < s_.layers; ++i) {
      const zem::LayerWeights& L = w_.layers()[i];
      const Doubles xn = norm(L.attentionNorm.data(), cur.data(), cur.size());
      add(cur, L.isFull ? full(L.full, layers_[i], xn) : linear(L.linear, layers_[i], xn));
      const Doubles hn = norm(L.feedForwardNorm.data(), cur.data(), cur.size());
      Doubles gate = times(*L.feedForwardGate, hn);
      const Doubles up = times(*L.feedForwardUp, hn);
      for (size_t j = 0; j < gate.size(); ++j) gate[j] *= sigmoid(gate[j]) * up[j];
      add(cur, times(*L.feedForwardDown, gate));
    }
    ++position_;
    return times(w_.head(), norm(w_.outputNorm(), cur.data(), cur.size()));
  }

 private:
  struct LayerState {
    Doubles state;
    Doubles window;
    Doubles keys;
    Doubles values;
  };

  static const float* floats(const kiv::TensorView& t) { return static_cast<const float*>(t.data); }
  static double sigmoid(double x) { return 1 / (1 + std::exp(-x)); }
  static void add(Doubles& a, const Doubles& b) {
    for (size_t i = 0; i < a.size(); ++i) a[i] += b[i];
  }

  static Doubles times(const kiv::TensorView& W, const Doubles& x) {
    Doubles y(W.shape[1]);
    for (size_t r = 0; r < y.size(); ++r) {
      for (size_t c = 0; c < x.size(); ++c) y[r] += floats(W)[r * x.size() + c] * x[c];
    }
    return y;
  }

  static Doubles norm(const float* w, const double* x, size_t n) {
    double sum = 0;
    for (size_t i = 0; i < n; ++i) sum += x[i] * x[i];
    Doubles out(n);
    for (size_t i = 0; i < n; ++i) {
      out[i] = x[i] / std::sqrt(sum / static_cast<double>(n) + 1e-6) * w[i];
    }
    return out;
  }

  static Doubles convolve(const zem::LinearWeights& L, LayerState& state, const Doubles& in) {
    Doubles out(in.size());
    for (size_t c = 0; c < in.size(); ++c) {
      const float* w = L.taps.data() + L.tapStride * c;
      double* s = &state.window[3 * c];
      const double y = w[0] * s[0] + w[1] * s[1] + w[2] * s[2] + w[3] * in[c];
      out[c] = y * sigmoid(y);
      s[0] = s[1];
      s[1] = s[2];
      s[2] = in[c];
    }
    return out;
  }

  Doubles linear(const zem::LinearWeights& L, LayerState& state, const Doubles& xn) const {
    const size_t d = s_.stateSize;
    Doubles conv = convolve(L, state, times(*L.mixed, xn));
    const Doubles z = times(*L.gate, xn);
    const Doubles b = times(*L.beta, xn);
    const Doubles a = times(*L.alpha, xn);
    for (size_t h = 0; h < 2 * s_.keyHeads; ++h) {
      double sum = 0;
      for (size_t i = 0; i < d; ++i) sum += conv[h * d + i] * conv[h * d + i];
      for (size_t i = 0; i < d; ++i) conv[h * d + i] /= std::sqrt(sum + 1e-6);
    }
    Doubles o(s_.valueHeads * d);
    for (size_t h = 0; h < s_.valueHeads; ++h) {
      const double* q = &conv[h % s_.keyHeads * d];
      const double* k = q + s_.keyHeads * d;
      const double* v = &conv[s_.keyRows() + h * d];
      const double step = std::log1p(std::exp(a[h] + L.decayBias.data()[h]));
      const double decay = std::exp(step * L.decay.data()[h]);
      const Doubles out = recur(&state.state[h * d * d], d, q, k, v, sigmoid(b[h]), decay);
      const Doubles t = norm(L.norm.data(), out.data(), d);
      for (size_t i = 0; i < d; ++i) o[h * d + i] = t[i] * z[h * d + i] * sigmoid(z[h * d + i]);
    }
    return times(*L.out, o);
  }

  static Doubles recur(double* S, size_t d, const double* q, const double* k, const double* v,
                       double beta, double decay) {
    Doubles out(d);
    for (size_t i = 0; i < d * d; ++i) S[i] *= decay;
    for (size_t j = 0; j < d; ++j) {
      double kv = 0;
      for (size_t i = 0; i < d; ++i) kv += k[i] * S[i * d + j];
      for (size_t i = 0; i < d; ++i) S[i * d + j] += k[i] * (v[j] - kv) * beta;
      for (size_t i = 0; i < d; ++i) {
        out[j] += q[i] * S[i * d + j] / std::sqrt(static_cast<double>(d));
      }
    }
    return out;
  }

  void rotate(double* x) const {
    const size_t half = s_.rotarySize / 2;
    for (size_t i = 0; i < half; ++i) {
      const double angle =
          position_ * std::pow(1e7, -static_cast<double>(i) / static_cast<double>(half));
      const double a = x[i];
      const double b = x[i + half];
      x[i] = std::cos(angle) * a - std::sin(angle) * b;
      x[i + half] = std::sin(angle) * a + std::cos(angle) * b;
    }
  }

  static Doubles biased(Doubles x, const zem::FloatWeights& bias) {
    if (bias.data() == nullptr) return x;
    for (size_t i = 0; i < x.size(); ++i) x[i] += bias.data()[i];
    return x;
  }

  Doubles full(const zem::FullWeights& L, LayerState& state, const Doubles& xn) const {
    const size_t n = s_.headSize;
    const Doubles q = biased(times(*L.query, xn), L.queryBias);
    const Doubles k = biased(times(*L.key, xn), L.keyBias);
    const Doubles v = biased(times(*L.value, xn), L.valueBias);
    for (size_t g = 0; g < s_.kvHeads; ++g) {
      Doubles key = norm(L.keyNorm.data(), &k[g * n], n);
      rotate(key.data());
      state.keys.insert(state.keys.end(), key.begin(), key.end());
    }
    state.values.insert(state.values.end(), v.begin(), v.end());
    Doubles o(s_.heads * n);
    for (size_t h = 0; h < s_.heads; ++h) {
      Doubles query = norm(L.queryNorm.data(), &q[h * 2 * n], n);
      rotate(query.data());
      const size_t kv = h / (s_.heads / s_.kvHeads);
      mix(query, &state.keys[kv * n], &state.values[kv * n], &o[h * n]);
      for (size_t i = 0; i < n; ++i) o[h * n + i] *= sigmoid(q[(2 * h + 1) * n + i]);
    }
    return times(*L.out, o);
  }

  void mix(const Doubles& query, const double* keys, const double* values, double* out) const {
    const size_t n = s_.headSize;
    const size_t stride = s_.kvHeads * n;
    Doubles p(static_cast<size_t>(position_) + 1);
    double sum = 0;
    for (size_t s = 0; s < p.size(); ++s) {
      for (size_t i = 0; i < n; ++i) p[s] += query[i] * keys[s * stride + i];
      p[s] = std::exp(p[s] / std::sqrt(static_cast<double>(n)));
      sum += p[s];
    }
    for (size_t s = 0; s < p.size(); ++s) {
      for (size_t i = 0; i < n; ++i) out[i] += p[s] / sum * values[s * stride + i];
    }
  }

  const zem::Weights& w_;
  const kiv::Architecture& s_;
  double position_ = 0;
  std::vector<LayerState> layers_;
};

}  // namespace zemtest
