// SPDX-License-Identifier: Apache-2.0
// One step of the gated delta rule. The columns of the state lie in the lanes.
#pragma once

#include "kernels/simd/lanes_inl.h"
#include "kiv/math/exact_math_inl.h"

namespace qwen35 {
namespace {

// N * V::kLanes columns of the state, with their sums in registers. Each of the two passes decays
// the state anew, which is cheaper than storing it in between.
template <class V, size_t N>
ZEM_INLINE void gdnColumns(float* S, const float* q, const float* k, float* v, float beta, size_t d,
                           float decay, float scale) {
  using F = typename V::F;
  const F decays = V::set(decay);
  F delta[N];
  unrolled<N>([&](auto u) ZEM_INLINE_LAMBDA { delta[u.value] = V::zero(); });
  for (size_t i = 0; i < d; ++i) {
    const F key = V::set(k[i]);
    unrolled<N>([&](auto u) ZEM_INLINE_LAMBDA {
      const F state = V::mul(V::load(S + i * d + u.value * V::kLanes), decays);
      delta[u.value] = V::fma(key, state, delta[u.value]);
    });
  }
  F out[N];
  unrolled<N>([&](auto u) ZEM_INLINE_LAMBDA {
    const F value = V::load(v + u.value * V::kLanes);
    delta[u.value] = V::mul(V::sub(value, delta[u.value]), V::set(beta));
    out[u.value] = V::zero();
  });
  for (size_t i = 0; i < d; ++i) {
    const F key = V::set(k[i]);
    const F query = V::set(q[i]);
    unrolled<N>([&](auto u) ZEM_INLINE_LAMBDA {
      float* at = S + i * d + u.value * V::kLanes;
      const F state = V::fma(key, delta[u.value], V::mul(V::load(at), decays));
      V::store(at, state);
      out[u.value] = V::fma(query, state, out[u.value]);
    });
  }
  unrolled<N>([&](auto u) ZEM_INLINE_LAMBDA {
    V::store(v + u.value * V::kLanes, V::mul(out[u.value], V::set(scale)));
  });
}

// One column, where the width is not a multiple of the lanes.
ZEM_INLINE void gdnColumn(float* S, const float* q, const float* k, float* v, float beta, size_t d,
                          float decay, float scale) {
  float delta = 0;
  for (size_t i = 0; i < d; ++i) {
    S[i * d] *= decay;
    delta = __builtin_fmaf(k[i], S[i * d], delta);
  }
  delta = (*v - delta) * beta;
  float out = 0;
  for (size_t i = 0; i < d; ++i) {
    S[i * d] = __builtin_fmaf(k[i], delta, S[i * d]);
    out = __builtin_fmaf(q[i], S[i * d], out);
  }
  *v = out * scale;
}

template <class V>
void gdnStep(float* S, const float* q, const float* k, float* v, float beta, size_t d, float g,
             float scale) {
  constexpr size_t kStrip = V::kStateVectors * V::kLanes;
  const float decay = kiv::math::inl::expF32(g);
  size_t j = 0;
  for (; j + kStrip <= d; j += kStrip) {
    gdnColumns<V, V::kStateVectors>(S + j, q, k, v + j, beta, d, decay, scale);
  }
  for (; j + V::kLanes <= d; j += V::kLanes) {
    gdnColumns<V, 1>(S + j, q, k, v + j, beta, d, decay, scale);
  }
  for (; j < d; ++j) gdnColumn(S + j, q, k, v + j, beta, d, decay, scale);
}

}  // namespace
}  // namespace qwen35
