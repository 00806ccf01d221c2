// SPDX-License-Identifier: Apache-2.0
#include "engine/model/sequence_state.h"

#include <algorithm>

namespace zem {

void RecurrentState::copyFrom(const RecurrentState& other) {
  std::copy_n(other.floats_.data(), floats_.size(), floats_.data());
}

SequenceState::SequenceState(const qwen35::DeltaNetSizes& sizes, size_t linearLayers,
                             PagePool& pool)
    : pool_(pool), recurrent_(sizes, linearLayers) {}

void SequenceState::reset() {
  recurrent_.zero();
  pages_.clear();
  length_ = 0;
  broken_ = false;
}

Snapshot SequenceState::snapshot() const {
  Snapshot copy;
  copy.length = length_;
  copy.recurrent = std::make_shared<RecurrentState>(recurrent_);
  // Pages made for a step that failed stay behind: they are not filled, and not to be shared.
  const size_t filled = (length_ + kPagePositions - 1) / kPagePositions;
  copy.pages.assign(pages_.begin(), pages_.begin() + static_cast<ptrdiff_t>(filled));
  return copy;
}

void SequenceState::restore(const Snapshot& snapshot) {
  pages_ = snapshot.pages;
  recurrent_.copyFrom(*snapshot.recurrent);
  length_ = snapshot.length;
  broken_ = false;
}

void SequenceState::reserve(size_t count) {
  if (count == 0) return;
  const size_t needed = (length_ + count + kPagePositions - 1) / kPagePositions;
  const size_t last = length_ / kPagePositions;
  const bool changesShared = length_ % kPagePositions != 0 && pages_[last].use_count() > 1;
  if (changesShared) {
    std::shared_ptr<Page> own = pool_.make();
    own->copyFrom(*pages_[last]);
    pages_[last] = std::move(own);
  }
  pages_.reserve(needed);
  while (pages_.size() < needed) pages_.push_back(pool_.make());
}

void SequenceState::advance(size_t count) {
  length_ += count;
  broken_ = false;
}

}  // namespace zem
