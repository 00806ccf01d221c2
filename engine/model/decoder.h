// SPDX-License-Identifier: Apache-2.0
// Tokens of any number of conversations through all layers of a model.
//
// The bits of a token's results depend on its conversation alone: not on what else is in the
// batch, on where a prompt is cut into chunks, on threads or on the instruction set.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>
#include <vector>

#include "engine/model/paged_attention.h"
#include "engine/model/sequence_state.h"
#include "engine/model/weights.h"
#include "layers/activations.h"
#include "layers/delta_net.h"

namespace zem {

// Of which tokens of a chunk the logits are computed.
enum class LogitsOf : uint8_t { None, Last, All };

// How many of a chunk's tokens have logits. They are its last ones.
size_t logitRows(LogitsOf which, size_t tokens);

// The next tokens of one conversation; a batch has each conversation once at most.
struct Chunk {
  SequenceState* sequence;
  std::span<const uint32_t> tokens;  // at least one, each below the vocabulary's size
  LogitsOf logits = LogitsOf::None;
};

// Tokens that go well through the layers together. Larger batches need more memory and are hardly
// faster.
inline constexpr size_t kBatchTokens = 48;

// How products are computed. Either gives the same bits on every machine.
enum class Arithmetic : uint8_t {
  Exact,  // in single precision, each sum in the order of the columns
  Fast,   // activations rounded to 14 bits, sums of integers; matmul/integer_products.h
};

// One thread at a time. The weights and the pool outlive it.
class Decoder {
 public:
  Decoder(const Weights& weights, CacheType cacheType, Arithmetic arithmetic = Arithmetic::Exact);

  // From now on, computes with these layers alone, in their order; with none named, with all. For
  // checks of a part of a model.
  void useLayers(std::vector<size_t> layers) { only_ = std::move(layers); }

  PagePool& pool() { return pool_; }
  const Weights& weights() const { return weights_; }
  Arithmetic arithmetic() const { return arithmetic_; }
  size_t vocabulary() const { return weights_.shape().vocabulary; }
  SequenceState newSequence();
  // Of the part of a conversation's state that does not grow.
  size_t recurrentBytes() const {
    return weights_.linearLayers() * (linearSizes_.stateFloats() + linearSizes_.windowFloats()) *
           sizeof(float);
  }

  // Computes the chunks together. `logits` becomes one row of vocabulary() floats for each token
  // that asked, in the order of the chunks. Throws std::bad_alloc, and std::invalid_argument for a
  // chunk that breaks the rules; a sequence is then as before, or broken() when layers had begun.
  void step(std::span<const Chunk> chunks, std::vector<float>& logits);

 private:
  using Activations = qwen35::Activations;
  using Floats = qwen35::Floats;

  void check(std::span<const Chunk> chunks) const;
  void embed(std::span<const Chunk> chunks);
  void runLayer(std::span<const Chunk> chunks, const LayerWeights& layer);
  void linearAttention(std::span<const Chunk> chunks, const LayerWeights& layer);
  void fullAttention(std::span<const Chunk> chunks, const LayerWeights& layer);
  void storeKeysAndValues(std::span<const Chunk> chunks, const LayerWeights& layer);
  void prepareQueries(const LayerWeights& layer);
  void feedForward(const LayerWeights& layer);
  void computeLogits(std::span<const Chunk> chunks, std::vector<float>& logits);

  const Weights& weights_;
  Arithmetic arithmetic_;
  std::vector<size_t> only_;
  qwen35::DeltaNetSizes linearSizes_;
  AttentionSizes fullSizes_;
  PagePool pool_;

  // Of the step that runs: rows of all its tokens.
  size_t tokens_ = 0;
  Floats cosines_;  // rotarySize / 2 a token
  Floats sines_;
  Activations x_{};     // hidden states
  Activations xn_{};    // normalised
  Activations part_{};  // what a half of a layer adds to them
  Activations mixed_{};
  Activations gate_{};
  Activations beta_{};
  Activations decay_{};
  Activations key_{};
  Activations value_{};
  Activations out_{};
  Floats scratch_;
};

}  // namespace zem
