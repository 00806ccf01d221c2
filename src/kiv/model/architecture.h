// SPDX-License-Identifier: Apache-2.0
/// \file
/// The Qwen3.5 hybrid architecture: its sizes, the tensors of a container that holds such a
/// model, and the metadata that states the sizes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kiv/zem2_writer.h"

namespace kiv {

/// The metadata's "general.architecture" of these models, and the prefix of their keys.
inline constexpr const char* kArchitectureName = "qwen35";

/// What a tensor is for.
enum class TensorRole : uint8_t {
  // Of the model.
  Embedding,
  OutputNorm,
  OutputHead,
  // Of every layer.
  AttentionNorm,
  FeedForwardNorm,
  FeedForwardGate,
  FeedForwardUp,
  FeedForwardDown,
  // Of layers with full attention.
  Query,  // per head a query, then its gate
  Key,
  Value,
  AttentionOutput,
  QueryNorm,
  KeyNorm,
  QueryBias,
  KeyBias,
  ValueBias,
  // Of layers with linear attention.
  Mixed,  // queries, then keys, then values
  Gate,
  Beta,
  Alpha,
  DecayBias,
  Decay,
  Convolution,
  StateNorm,
  StateOutput,
};

/// Whether layers have such a tensor, each its own.
constexpr bool isOfLayer(TensorRole role) { return role >= TensorRole::AttentionNorm; }

/// The container's name for it: "token_embd.weight", "blk.3.attn_q.weight". Only a layer's
/// tensors ask for the layer.
std::string tensorName(TensorRole role, uint32_t layer = 0);

/// The sizes of a model. The values that stand here are those of the models with 32 layers,
/// but for the width, the feed-forward block and the vocabulary, which have none.
struct Architecture {
  uint32_t layers = 32;        ///< blocks of the model
  uint32_t fullEvery = 4;      ///< the last layer of as many has full attention
  uint64_t width = 0;          ///< floats of a hidden state
  uint64_t feedForward = 0;    ///< rows of a feed-forward block's gate
  uint64_t vocabulary = 0;     ///< rows of the embedding
  uint64_t heads = 16;         ///< query heads of full attention
  uint64_t kvHeads = 4;        ///< its key and value heads
  uint64_t headSize = 256;     ///< floats of such a head
  uint64_t rotarySize = 64;    ///< of them rotated by position
  uint64_t keyHeads = 16;      ///< query and key heads of linear attention
  uint64_t valueHeads = 32;    ///< its value heads, a multiple of keyHeads
  uint64_t stateSize = 128;    ///< floats of such a head
  uint64_t taps = 4;           ///< of the convolution
  double rotaryBase = 1e7;     ///< of the rotation's frequencies
  double normEpsilon = 1e-6;   ///< of every normalisation
  bool ownHead = false;        ///< the output head is not the embedding
  uint32_t contextLength = 0;  ///< positions; 0 where it is not stated
  std::vector<bool> kinds;     ///< whether each layer has full attention; empty: see fullEvery

  /// Rows of the queries and keys of linear attention together.
  uint64_t keyRows() const { return 2 * keyHeads * stateSize; }
  /// Rows of its values.
  uint64_t valueRows() const { return valueHeads * stateSize; }
  /// Channels of the convolution: queries, keys and values.
  uint64_t channels() const { return keyRows() + valueRows(); }
  /// Whether the layer with this index, which counts from 0, has full attention.
  bool isFull(uint32_t layer) const {
    return kinds.empty() ? layer % fullEvery == fullEvery - 1 : kinds[layer];
  }
};

/// One tensor of a model.
struct ArchitectureTensor {
  std::string name;             ///< the container's
  TensorRole role;              ///< what it is for
  uint32_t layer = 0;           ///< whose it is; 0 too for a tensor of the model
  std::vector<uint64_t> shape;  ///< extents, innermost first
  bool matrix = false;          ///< may be quantised; every other tensor is F32
  bool optional = false;        ///< the biases: a layer has all three or none
};

/// Every tensor of a container: the model's own, then layer by layer.
std::vector<ArchitectureTensor> tensorsOf(const Architecture& architecture);

/// Adds the metadata entries that state the sizes.
void addMetadata(const Architecture& architecture, ZEM2Writer& writer);

}  // namespace kiv
