// SPDX-License-Identifier: Apache-2.0
// Keys and values of full attention, in pages of 64 positions that conversations can share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "engine/model/shape.h"

namespace zem {

inline constexpr size_t kPagePositions = 64;

// How keys and values are stored. F16 rounds each to half precision.
enum class CacheType : uint8_t { F16, F32 };

// Where the numbers of a page lie. A page has, for each layer with full attention and each of its
// key/value heads, the keys and then the values of 64 positions. Keys lie component by component,
// the positions side by side; values lie position by position. So both are read from front to
// back: positions in the lanes while scores are computed, components while values are mixed.
class PageLayout {
 public:
  PageLayout(const Shape& shape, size_t fullLayers, CacheType type);

  CacheType type() const { return type_; }
  size_t layers() const { return layers_; }
  size_t heads() const { return heads_; }
  size_t headSize() const { return headSize_; }
  size_t bytes() const { return layers_ * heads_ * 2 * blockNumbers() * numberBytes(); }
  // In numbers from the page's start: component 0 of position 0.
  size_t keys(size_t layer, size_t head) const {
    return (layer * heads_ + head) * 2 * blockNumbers();
  }
  size_t values(size_t layer, size_t head) const { return keys(layer, head) + blockNumbers(); }

 private:
  size_t blockNumbers() const { return kPagePositions * headSize_; }
  size_t numberBytes() const { return type_ == CacheType::F16 ? sizeof(uint16_t) : sizeof(float); }

  CacheType type_;
  size_t layers_;
  size_t heads_;
  size_t headSize_;
};

class PagePool;

// The numbers of one page, zero at first.
class Page {
 public:
  Page(PagePool& pool, size_t bytes);
  ~Page();
  Page(const Page&) = delete;
  Page& operator=(const Page&) = delete;

  const float* floats() const { return static_cast<const float*>(data_); }
  const uint16_t* halves() const { return static_cast<const uint16_t*>(data_); }

  // Stores the key and the value of one head at one position (0 to 63): headSize floats each.
  void store(const PageLayout& layout, size_t layer, size_t head, size_t position, const float* key,
             const float* value);
  void copyFrom(const Page& other);
  // Zeroes the positions from `position` on.
  void clearFrom(const PageLayout& layout, size_t position);

  // All of it, for files.
  void* data() { return data_; }
  const void* data() const { return data_; }

 private:
  PagePool& pool_;
  size_t bytes_;
  void* data_;
};

// Makes pages and counts their bytes. Outlives its pages. One thread at a time.
class PagePool {
 public:
  explicit PagePool(const PageLayout& layout) : layout_(layout) {}

  const PageLayout& layout() const { return layout_; }
  // Throws std::bad_alloc.
  std::shared_ptr<Page> make() { return std::make_shared<Page>(*this, layout_.bytes()); }
  size_t bytesInUse() const { return bytesInUse_; }

 private:
  friend class Page;

  PageLayout layout_;
  size_t bytesInUse_ = 0;
};

}  // namespace zem
