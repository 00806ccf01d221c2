// SPDX-License-Identifier: Apache-2.0
// The state of one conversation: its recurrent part and its keys and values.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "engine/model/cache_pages.h"
#include "engine/model/shape.h"
#include "layers/delta_net.h"
#include "qwen35_zeroed_floats.h"

namespace zem {

// The recurrent part: a matrix a value head and a window a channel, of each layer with linear
// attention. It cannot be cut back to an earlier position.
class RecurrentState {
 public:
  // All zero. Throws std::bad_alloc.
  RecurrentState(const qwen35::DeltaNetSizes& sizes, size_t layers)
      : sizes_(sizes), layers_(layers), floats_(layers * floatsOfLayer()) {}

  const qwen35::DeltaNetSizes& sizes() const { return sizes_; }
  size_t layers() const { return layers_; }

  float* matrices(size_t layer) { return floats_.data() + layer * floatsOfLayer(); }
  float* window(size_t layer) { return matrices(layer) + sizes_.stateFloats(); }
  void zero() { floats_.zero(); }
  void copyFrom(const RecurrentState& other);

  RecurrentState(const RecurrentState& other) : RecurrentState(other.sizes_, other.layers_) {
    copyFrom(other);
  }
  RecurrentState(RecurrentState&&) = default;
  RecurrentState& operator=(RecurrentState&&) = default;

  // All of it, for files and comparisons.
  float* data() { return floats_.data(); }
  const float* data() const { return floats_.data(); }
  size_t size() const { return floats_.size(); }
  size_t bytes() const { return floats_.size() * sizeof(float); }

 private:
  size_t floatsOfLayer() const { return sizes_.stateFloats() + sizes_.windowFloats(); }

  qwen35::DeltaNetSizes sizes_;
  size_t layers_;
  qwen35::DenseZeroedFloats floats_;
};

// The scores of all ids as the next token.
using Logits = std::shared_ptr<const std::vector<float>>;

// A conversation at one position, never changed. Shares its pages.
struct Snapshot {
  size_t length = 0;
  std::shared_ptr<const RecurrentState> recurrent;
  std::vector<std::shared_ptr<Page>> pages;
  Logits logits;  // of the next token, where a prompt ended here; else null
};

// One thread at a time. The pool outlives it.
class SequenceState {
 public:
  // At position 0. Throws std::bad_alloc.
  SequenceState(const qwen35::DeltaNetSizes& sizes, size_t linearLayers, PagePool& pool);

  size_t length() const { return length_; }  // tokens that it holds
  // A step over this conversation failed half-way; only reset() or restore() mends it.
  bool broken() const { return broken_; }

  void reset();
  // Copies the recurrent part and shares the pages. Throws std::bad_alloc.
  Snapshot snapshot() const;
  void restore(const Snapshot& snapshot);

  RecurrentState& recurrent() { return recurrent_; }
  const std::vector<std::shared_ptr<Page>>& pages() const { return pages_; }
  Page& page(size_t index) { return *pages_[index]; }

  // Makes pages for `count` more positions. A shared page that they would change is copied first,
  // so that no other conversation sees it. Throws std::bad_alloc; what is held stays as it was.
  void reserve(size_t count);
  // Around the computation of a step. advance() says that `count` more positions are there.
  void begin() { broken_ = true; }
  void advance(size_t count);

 private:
  PagePool& pool_;
  RecurrentState recurrent_;
  std::vector<std::shared_ptr<Page>> pages_;
  size_t length_ = 0;
  bool broken_ = false;
};

}  // namespace zem
