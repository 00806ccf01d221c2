// The loops of a token step over the lanes of a vector type. The element-wise
// ones are left to the compiler, which knows the level from the flags.
#pragma once

#include "kernels/simd/lanes_inl.h"
#include "kernels/step_loops.h"
#include "kiv/math/exact_math_inl.h"

namespace qwen35 {
namespace {

// Columns [j, j + N * V::kLanes) of the state, with their sums in registers. The
// state is decayed twice, once for each pass, instead of stored in between.
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

// One column, for a width that is no multiple of the lanes.
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

// x / (e^-gate + 1), the SiLU of x when x is its own gate.
ZEM_INLINE float gated(float x, float gate) { return x / (kiv::math::inl::expF32(-gate) + 1.0F); }

template <class V>
void convStep(const float* w, size_t stride, float* window, const float* x, float* out,
              size_t channels) {
  // Sums first: a loop of its own leaves one without strides for the exponentials.
  constexpr size_t kBlock = 128;
  float sums[kBlock];
  for (size_t first = 0; first < channels; first += kBlock) {
    const size_t count = channels - first < kBlock ? channels - first : kBlock;
    for (size_t c = 0; c < count; ++c) {
      const float* taps = w + (first + c) * stride;
      float* s = window + 3 * (first + c);
      const float input = x[first + c];
      float y = 0;
      y += taps[0] * s[0];
      y += taps[1] * s[1];
      y += taps[2] * s[2];
      y += taps[3] * input;
      sums[c] = y;
      s[0] = s[1];
      s[1] = s[2];
      s[2] = input;
    }
    for (size_t c = 0; c < count; ++c) out[first + c] = gated(sums[c], sums[c]);
  }
}

template <class V>
void siluMul(const float* gate, const float* x, float* out, size_t n) {
  for (size_t i = 0; i < n; ++i) out[i] = gated(gate[i], gate[i]) * x[i];
}

template <class V>
void sigmoidGate(const float* gate, const float* x, float* out, size_t n) {
  for (size_t i = 0; i < n; ++i) out[i] = gated(x[i], gate[i]);
}

// kHeads scores a slot: the heads' sums advance side by side.
template <size_t kHeads>
void softmaxOf(float* scores, size_t slots, float* max, float* sum) {
  float largest[kHeads];
  float total[kHeads];
  for (size_t h = 0; h < kHeads; ++h) {
    largest[h] = -1e30F;
    total[h] = 0;
  }
  for (size_t s = 0; s < slots; ++s) {
    for (size_t h = 0; h < kHeads; ++h) {
      const float score = scores[s * kHeads + h];
      largest[h] = score > largest[h] ? score : largest[h];
    }
  }
  // In runs that stay in the cache between the exponentials and their sum.
  constexpr size_t kRun = 256;
  for (size_t first = 0; first < slots; first += kRun) {
    const size_t count = slots - first < kRun ? slots - first : kRun;
    float* run = scores + first * kHeads;
    for (size_t s = 0; s < count; ++s) {
      for (size_t h = 0; h < kHeads; ++h) {
        run[s * kHeads + h] = kiv::math::inl::expF32(run[s * kHeads + h] - largest[h]);
      }
    }
    for (size_t s = 0; s < count; ++s) {
      for (size_t h = 0; h < kHeads; ++h) total[h] += run[s * kHeads + h];
    }
  }
  for (size_t h = 0; h < kHeads; ++h) {
    max[h] = largest[h];
    sum[h] = total[h];
    total[h] = 1.0F / total[h];
  }
  for (size_t s = 0; s < slots; ++s) {
    for (size_t h = 0; h < kHeads; ++h) scores[s * kHeads + h] *= total[h];
  }
}

template <class V>
void softmax(float* scores, size_t slots, size_t heads, float* max, float* sum) {
  static_assert(kSoftmaxHeads == 4);
  switch (heads) {
    case 1:
      return softmaxOf<1>(scores, slots, max, sum);
    case 2:
      return softmaxOf<2>(scores, slots, max, sum);
    case 3:
      return softmaxOf<3>(scores, slots, max, sum);
    default:
      return softmaxOf<4>(scores, slots, max, sum);
  }
}

template <class V>
constexpr StepLoops stepLoopsOf() {
  return {gdnStep<V>, convStep<V>, siluMul<V>, sigmoidGate<V>, softmax<V>};
}

}  // namespace
}  // namespace qwen35
