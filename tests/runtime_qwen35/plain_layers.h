// SPDX-License-Identifier: Apache-2.0
// Attention layers spelled out from their formulas, one token at a time, with a state of their own.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

#include "kernels/reference.h"
#include "kiv/math/exact_math.h"
#include "layers/blocks.h"
#include "matmul/matmul.h"
#include "qwen35_kernels.h"
#include "qwen35_model.h"
#include "runtime_qwen35/open_model.h"

namespace qwen35 {

inline const float* floats(const TensorView* view) { return static_cast<const float*>(view->data); }

inline Floats times(OpenModel& m, const TensorView* W, const Floats& x) {
  Floats y(matrixRows(*W));
  matvec(gpuOf(m.model), *W, x.data(), y);
  return y;
}

inline Floats normed(const TensorView* w, const Floats& x) {
  Floats out(x.size());
  rmsNorm(x.data(), floats(w), out.data(), x.size(), 1e-6F);
  return out;
}

inline Floats attend(OpenModel& m, size_t layer, const Floats& x, size_t pos) {
  Floats out(m.model.nEmb, 99.0F);
  Layer& L = m.model.L[layer];
  if (L.recr) {
    linearAttnStep(m.model, L, x.data(), out.data(), layer, pos);
  } else {
    fullAttnStep(m.model, L, x.data(), out.data(), pos, layer);
  }
  return out;
}

// A linear layer spelled out from the formulas, one token, own copy of the state.
class LinearLayer {
 public:
  LinearLayer(OpenModel& m, size_t layer, bool decays = true)
      : m_(m),
        L_(m.model.L[layer]),
        decays_(decays),
        state_(size_t{32} * 128 * 128),
        window_(size_t{8192} * 3) {}

  // What the last step computed on its way.
  struct Seen {
    Floats qkv;
    Floats z;
    Floats conv;  // the convolved queries and keys, then the heads' outputs
    Floats oPre;  // the heads' outputs
    Floats o;     // behind their gate
    float g = 0;  // of head 0
    float beta = 0;
  };

  const Seen& seen() const { return seen_; }
  const Floats& state() const { return state_; }

  Floats step(const Floats& x) {
    const Floats xn = normed(L_.attn_norm, x);
    const Floats qkv = times(m_, L_.wqkv, xn);
    const Floats z = times(m_, L_.wqkv_gate, xn);
    const Floats b = times(m_, L_.beta, xn);
    const Floats a = times(m_, L_.alpha, xn);
    Floats conv(8192);
    reference::convStep(floats(L_.conv1d), L_.conv1d->shape[0], window_.data(), qkv.data(),
                        conv.data(), 8192);
    seen_ = {qkv, z, conv, {}, {}};
    l2NormBlocks(conv.data(), conv.data(), 32, 128, 1e-6F);
    Floats o(4096);
    for (size_t h = 0; h < 32; ++h) head(h, conv, a[h], b[h], z.data() + h * 128, &o[h * 128]);
    seen_.oPre.assign(conv.begin() + 4096, conv.end());
    std::copy(seen_.oPre.begin(), seen_.oPre.end(), seen_.conv.begin() + 4096);
    seen_.o = o;
    return times(m_, L_.ssm_out, o);
  }

 private:
  void head(size_t h, Floats& conv, float a, float b, const float* z, float* o) {
    float g = a + floats(L_.dt)[h];
    softplus(&g, &g, 1);
    g *= floats(L_.ssm_a)[h];
    const float beta = 1.0F / (kiv::math::expF32(-b) + 1.0F);
    if (h == 0) {
      seen_.g = g;
      seen_.beta = beta;
    }
    if (!decays_) g = 0;
    float* v = conv.data() + 4096 + h * 128;
    const size_t key = h % 16 * 128;
    gdnStep(&state_[h * 128 * 128], conv.data() + key, conv.data() + 2048 + key, v, beta, 128, g,
            1.0F / std::sqrt(128.0F));
    rmsNorm(v, floats(L_.ssm_norm), o, 128, 1e-6F);
    for (size_t i = 0; i < 128; ++i) o[i] = (z[i] / (kiv::math::expF32(-z[i]) + 1.0F)) * o[i];
  }

  OpenModel& m_;
  Layer& L_;
  bool decays_;
  Floats state_;
  Floats window_;
  Seen seen_;
};

// A full-attention layer spelled out from the formulas, with its own cache.
class FullLayer {
 public:
  FullLayer(OpenModel& m, size_t layer) : m_(m), L_(m.model.L[layer]) {}

  // Of query head 0 in the last step.
  float max() const { return max_; }
  float sum() const { return sum_; }

  Floats step(const Floats& x, size_t pos) {
    const Floats xn = normed(L_.attn_norm, x);
    Floats q = times(m_, L_.wq, xn);
    Floats k = times(m_, L_.wk, xn);
    Floats v = times(m_, L_.wv, xn);
    if (L_.qb != nullptr) {
      for (size_t i = 0; i < q.size(); ++i) q[i] += floats(L_.qb)[i];
      for (size_t i = 0; i < k.size(); ++i) k[i] += floats(L_.kb)[i];
      for (size_t i = 0; i < v.size(); ++i) v[i] += floats(L_.vb)[i];
    }
    for (size_t g = 0; g < 4; ++g) {
      const Floats rotated = rotate(normed(L_.k_norm, slice(k, g * 256)), pos);
      keys_[g].insert(keys_[g].end(), rotated.begin(), rotated.end());
      const Floats raw = slice(v, g * 256);
      values_[g].insert(values_[g].end(), raw.begin(), raw.end());
    }
    Floats o;
    for (size_t h = 0; h < 16; ++h) {
      const Floats query = rotate(normed(L_.q_norm, slice(q, h * 512)), pos);
      const Floats out = head(h, query, slice(q, h * 512 + 256));
      o.insert(o.end(), out.begin(), out.end());
    }
    return times(m_, L_.wo, o);
  }

 private:
  static Floats slice(const Floats& x, size_t from) {
    return {x.begin() + static_cast<ptrdiff_t>(from),
            x.begin() + static_cast<ptrdiff_t>(from + 256)};
  }

  static Floats rotate(Floats x, size_t pos) {
    Floats c(32);
    Floats s(32);
    reference::ropeAngles(64, pos, c.data(), s.data());
    reference::ropeRotate(x.data(), 64, c.data(), s.data());
    return x;
  }

  Floats head(size_t h, const Floats& query, const Floats& gate) {
    const size_t g = h / 4;
    const size_t slots = keys_[g].size() / 256;
    Floats score(slots);
    float max = -1e30F;
    for (size_t s = 0; s < slots; ++s) {
      score[s] = dotF32(query.data(), keys_[g].data() + s * 256, 256) * 0.0625F;
      max = std::max(max, score[s]);
    }
    float sum = 0;
    for (size_t s = 0; s < slots; ++s) sum += kiv::math::expF32(score[s] - max);
    if (h == 0) {
      max_ = max;
      sum_ = sum;
    }
    const float inverse = 1.0F / sum;
    Floats out(256);
    for (size_t d = 0; d < 256; ++d) {
      float a = 0;
      for (size_t s = 0; s < slots; ++s) {
        a += (kiv::math::expF32(score[s] - max) * inverse) * values_[g][s * 256 + d];
      }
      out[d] = a / (kiv::math::expF32(-gate[d]) + 1.0F);
    }
    return out;
  }

  OpenModel& m_;
  Layer& L_;
  float max_ = 0;
  float sum_ = 0;
  Floats keys_[4];
  Floats values_[4];
};

}  // namespace qwen35
