// SPDX-License-Identifier: Apache-2.0
// What conversations remember, in the memory of a device: recurrent states and pages of keys and
// values.
//
// Each layer has a buffer. That of a layer with linear attention has a place for each
// conversation, laid out as RecurrentState lays out a layer: matrices, then windows. That of a
// layer with full attention has pages, each laid out as a Page lays out a layer. So both can be
// copied to and from the states of conversations on the CPU as they are.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "engine/model/cache_pages.h"
#include "engine/model/sequence_state.h"
#include "engine/model/weights.h"
#include "engine/vulkan/transfer.h"
#include "kiv/status.h"
#include "kiv/vulkan/vulkan_buffer.h"

namespace zem {

struct StoreSizes {
  CacheType cacheType = CacheType::F16;
  size_t conversations = 1;
  size_t positions = 4096;  // of all conversations together, in whole pages
};

class ResidentSequence;

// Outlives its sequences. One thread at a time.
class ResidentStore {
 public:
  // The context outlives it. Unsupported with the sizes when a buffer would be larger than the
  // device takes; else the failures of VulkanBuffer.
  kiv::Status create(kiv::vulkan::VulkanContext& ctx, const Weights& weights,
                     const StoreSizes& sizes);

  const PageLayout& pageLayout() const { return pages_; }
  size_t stateFloats() const { return stateFloats_; }           // of one conversation in one layer
  size_t matrixFloats() const { return sizes_.stateFloats(); }  // in front of the windows
  size_t pageCount() const { return pageCount_; }
  // Of the nth layer with linear and with full attention.
  const kiv::vulkan::VulkanBuffer& states(size_t n) const { return states_[n]; }
  const kiv::vulkan::VulkanBuffer& cache(size_t n) const { return cache_[n]; }

  // A conversation at position 0. Unsupported when all places are taken.
  kiv::Status begin(ResidentSequence& out);
  // Back to position 0.
  kiv::Status reset(ResidentSequence& sequence);
  // Pages for `count` more positions. Unsupported with the numbers when there are too few; the
  // sequence is then as before.
  kiv::Status reserve(ResidentSequence& sequence, size_t count);

  // Copies all of a conversation. `to` gets the same length. After a failure `to` is at position
  // 0. Throws std::bad_alloc.
  kiv::Status read(const ResidentSequence& from, SequenceState& to);
  // The other way. After a failure `to` is broken.
  kiv::Status write(SequenceState& from, ResidentSequence& to);

 private:
  friend class ResidentSequence;

  kiv::Status checkSizes(uint64_t mostBytes) const;
  kiv::Status zero(uint32_t place);
  size_t layerPageBytes() const {
    return pages_.layers() == 0 ? 0 : pages_.bytes() / pages_.layers();
  }
  void giveBack(ResidentSequence& sequence);
  void giveBackPages(ResidentSequence& sequence);

  kiv::vulkan::VulkanContext* ctx_ = nullptr;
  qwen35::DeltaNetSizes sizes_{};
  PageLayout pages_{Shape{}, 0, CacheType::F16};
  size_t stateFloats_ = 0;
  size_t conversations_ = 0;
  size_t pageCount_ = 0;
  std::vector<kiv::vulkan::VulkanBuffer> states_;
  std::vector<kiv::vulkan::VulkanBuffer> cache_;
  std::vector<uint32_t> freePlaces_;
  std::vector<uint32_t> freePages_;
};

// A conversation on the device; empty until ResidentStore::begin().
class ResidentSequence {
 public:
  ResidentSequence() = default;
  ~ResidentSequence() { release(); }
  ResidentSequence(ResidentSequence&& other) noexcept { *this = std::move(other); }
  ResidentSequence& operator=(ResidentSequence&& other) noexcept;
  ResidentSequence(const ResidentSequence&) = delete;
  ResidentSequence& operator=(const ResidentSequence&) = delete;

  bool empty() const { return store_ == nullptr; }
  size_t length() const { return length_; }  // tokens that it holds
  // A step failed half-way; only reset() or write() of the store mends it.
  bool broken() const { return broken_; }
  uint32_t place() const { return place_; }
  const std::vector<uint32_t>& pages() const { return pages_; }

  // Around a step. advance() says that `count` more positions are there.
  void begin() { broken_ = true; }
  void advance(size_t count) {
    length_ += count;
    broken_ = false;
  }
  // Gives its memory back to the store.
  void release();

 private:
  friend class ResidentStore;

  ResidentStore* store_ = nullptr;
  uint32_t place_ = 0;
  std::vector<uint32_t> pages_;
  size_t length_ = 0;
  bool broken_ = false;
};

}  // namespace zem
