// SPDX-License-Identifier: Apache-2.0
// The decoder's arithmetic as plain loops.
//
// These loops define the results and are never replaced: tests hold every faster kernel equal to
// its loop here, bit for bit. Read them beside the formulas. They are serial. Sums are in float
// and from index 0 upward unless said otherwise; a multiplication and an addition round apart
// unless std::fma is written. The element-wise ones may work in place (out == x).
#pragma once

#include <cstddef>
#include <cstdint>

namespace qwen35::reference {

void rmsNorm(const float* x, const float* w, float* out, size_t n, float eps);
void silu(const float* x, float* out, size_t n);
void sigmoid(const float* x, float* out, size_t n);
void softplus(const float* x, float* out, size_t n);
void l2NormBlocks(const float* x, float* out, size_t nBlocks, size_t blockLen, float eps);
float dotF32(const float* a, const float* b, size_t n);

// One row of a product with brain-float weights: sum of w[c] * x[c].
float dotBf16(const uint16_t* w, const float* x, size_t n);

// One step of the gated delta rule; see qwen35_kernels.h. `delta` is scratch of d floats.
void gdnStep(float* S, const float* q, const float* k, float* v, float beta, size_t d, float g,
             float scale, float* delta);

// The causal depthwise convolution of one token over four taps, then SiLU.
// Channel c has its taps at w[c * stride], its last three inputs at
// window[3 * c], oldest first; the window then moves on by x[c].
void convStep(const float* w, size_t stride, float* window, const float* x, float* out,
              size_t channels);

// Cosine and sine of the rotary angles pos * base^(-2 i / n), i < n / 2, base
// 1e7; the angle is multiplied up from pair to pair.
void ropeAngles(size_t n, size_t pos, float* cosines, float* sines);
// Rotates the pairs (x[i], x[i + n/2]) by the angles.
void ropeRotate(float* x, size_t n, const float* cosines, const float* sines);

// Softmax attention of one query head over `slots` cached positions (at least
// one). `keys` and `values` hold headDim floats a slot; `gate` is the head's
// output gate before its sigmoid. `weights` is scratch of `slots` floats and
// holds exp(score - max) afterwards.
struct AttentionScores {
  float max = 0;
  float sum = 0;  // of exp(score - max)
};
AttentionScores attendHead(const float* query, const float* gate, const float* keys,
                           const float* values, size_t slots, size_t headDim, float* weights,
                           float* out);

}  // namespace qwen35::reference
