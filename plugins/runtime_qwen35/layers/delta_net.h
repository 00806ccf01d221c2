// SPDX-License-Identifier: Apache-2.0
// The stages of linear attention between its products: a gated delta net (Yang et al., "Gated
// Delta Networks", 2024) behind a short convolution.
//
// A token's queries, keys and values lie side by side in one buffer of channels: keyHeads queries,
// keyHeads keys, valueHeads values, of headSize floats each. The stages work on it in place: the
// values become the heads' outputs.
//
// The tokens of several conversations may lie one run after the other. Each run advances a state
// of its own, and every result has the bits of one token at a time.
#pragma once

#include <cstddef>
#include <span>

#include "layers/activations.h"

namespace qwen35 {

struct DeltaNetSizes {
  size_t keyHeads;    // of queries, and as many of keys
  size_t valueHeads;  // value head h uses key head h mod keyHeads
  size_t headSize;    // floats of a head

  size_t keyChannels() const { return 2 * keyHeads * headSize; }  // in front of the values
  size_t valueChannels() const { return valueHeads * headSize; }
  size_t channels() const { return keyChannels() + valueChannels(); }
  size_t stateFloats() const { return valueHeads * headSize * headSize; }
  size_t windowFloats() const { return 3 * channels(); }
};

// The weights that are no products.
struct DeltaNetWeights {
  const float* decayBias;  // valueHeads
  const float* decay;      // valueHeads
  const float* taps;       // four a channel, channels tapStride apart
  size_t tapStride;
  const float* norm;  // headSize
};

// `count` consecutive tokens of one conversation, `first` among the tokens of the buffers.
struct StateRun {
  float* state;   // stateFloats: a headSize x headSize matrix a value head
  float* window;  // windowFloats: the last three inputs of each channel, oldest first
  size_t first;
  size_t count;
};
using StateRuns = std::span<const StateRun>;

// beta = sigmoid(beta): how strongly each head writes.
void writeStrengths(Activations& beta, size_t tokens);

// g = softplus(g + decayBias) * decay: the logarithm of each head's decay.
void logDecays(const DeltaNetWeights& weights, Activations& g, size_t tokens);

// qkv = silu(conv(qkv)), each channel over its last four tokens.
void convolve(const DeltaNetSizes& sizes, const DeltaNetWeights& weights, StateRuns runs,
              Activations& qkv);

// Brings each head's query and key to length one.
void normaliseKeys(const DeltaNetSizes& sizes, Activations& qkv, size_t tokens);

// S *= e^g; S += k beta (v - S^T k)^T; v = S^T q / sqrt(headSize), head by head. Without `decays`
// g counts as 0.
void recur(const DeltaNetSizes& sizes, StateRuns runs, Activations& qkv, const Activations& beta,
           const Activations& g, bool decays = true);

// o = rmsNorm(o) * silu(z), head by head.
void gateOutputs(const DeltaNetSizes& sizes, const DeltaNetWeights& weights, Activations& qkv,
                 const Activations& z, size_t tokens);

}  // namespace qwen35
