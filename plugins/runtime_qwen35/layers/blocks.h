// SPDX-License-Identifier: Apache-2.0
// The halves of a block for a run of consecutive tokens: what the one-token steps
// of qwen35_model.h and the forward passes are made of.
//
// Activations hold one token after the other. Products take the whole run at once;
// recurrences and attention go through the tokens in order. Every result, and the
// state afterwards, has the bits of one token at a time.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <vector>

#include "layers/activations.h"
#include "layers/trace.h"
#include "matmul/matmul.h"
#include "qwen35_model.h"

namespace qwen35 {

// Tokens that go through the layers together. The more there are, the less each
// pays for decoding the weights; 48 fill whole groups at every level, and all
// their buffers take 10 MB.
inline constexpr size_t kBatchTokens = 48;

// Consecutive tokens and where they stand.
struct TokenRun {
  size_t count;
  size_t pos;  // of the first one
};

// The rotary angles of every position of a run.
class RotaryAngles {
 public:
  RotaryAngles(size_t nRot, const TokenRun& run);
  // Rotates the first nRot values of x for the run's token t.
  void apply(float* x, size_t t) const;

 private:
  size_t nRot_;
  Floats cosines_;  // nRot / 2 a token
  Floats sines_;
};

// x: the hidden states before the block's norm; out: what attention adds to them; run.count x
// nEmb floats each. `out` is overwritten.
void linearAttention(const Model& m, Layer& L, const float* x, float* out, const TokenRun& run,
                     Trace& trace);
// Throws std::length_error when the cache has too few free slots.
void fullAttention(const Model& m, Layer& L, const float* x, float* out, const TokenRun& run,
                   const RotaryAngles& angles, Trace& trace);
// xn is normalised already; `out` is overwritten.
void feedForward(const Model& m, const Layer& L, const float* xn, float* out, size_t tokens);

// out = rmsNorm of each of `tokens` vectors of `n` floats.
void normTokens(const TensorView* weight, const float* x, float* out, size_t tokens, size_t n);

GpuHook gpuOf(const Model& m);

// W times every token of X.
Activations project(const Model& m, const TensorView* W, const PackedTokens& X);
// project() for each of `matrices`; a GPU gets their products together.
std::vector<Activations> projectAll(const Model& m,
                                    std::initializer_list<const TensorView*> matrices,
                                    const PackedTokens& X);

}  // namespace qwen35
