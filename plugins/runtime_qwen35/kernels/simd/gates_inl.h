// SPDX-License-Identifier: Apache-2.0
// Gates, element by element. The compiler makes vectors of these loops; it knows the level from
// the flags.
#pragma once

#include <cstddef>

#include "kernels/simd/lanes_inl.h"
#include "kiv/math/exact_math_inl.h"

namespace qwen35 {
namespace {

// x / (e^-gate + 1), the SiLU of x when x is its own gate.
ZEM_INLINE float gated(float x, float gate) { return x / (kiv::math::inl::expF32(-gate) + 1.0F); }

template <class V>
void siluMul(const float* gate, const float* x, float* out, size_t n) {
  for (size_t i = 0; i < n; ++i) out[i] = gated(gate[i], gate[i]) * x[i];
}

template <class V>
void sigmoidGate(const float* gate, const float* x, float* out, size_t n) {
  for (size_t i = 0; i < n; ++i) out[i] = gated(x[i], gate[i]);
}

}  // namespace
}  // namespace qwen35
