// SPDX-License-Identifier: Apache-2.0
#include "engine/model/cache_pages.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "compat/zero_pages.h"
#include "kiv/quant.h"

namespace zem {
namespace {

template <typename Number, typename Convert>
void storeHead(Number* keys, Number* values, size_t size, size_t position, const float* key,
               const float* value, const Convert& convert) {
  for (size_t i = 0; i < size; ++i) keys[i * kPagePositions + position] = convert(key[i]);
  Number* row = values + position * size;
  for (size_t i = 0; i < size; ++i) row[i] = convert(value[i]);
}

template <typename Number>
void clearBlocks(const PageLayout& layout, size_t position, Number* numbers) {
  const size_t size = layout.headSize();
  for (size_t layer = 0; layer < layout.layers(); ++layer) {
    for (size_t head = 0; head < layout.heads(); ++head) {
      Number* keys = numbers + layout.keys(layer, head);
      for (size_t i = 0; i < size; ++i) {
        std::fill(keys + i * kPagePositions + position, keys + (i + 1) * kPagePositions, Number{});
      }
      Number* values = numbers + layout.values(layer, head);
      std::fill(values + position * size, values + kPagePositions * size, Number{});
    }
  }
}

}  // namespace

PageLayout::PageLayout(const Shape& shape, size_t fullLayers, CacheType type)
    : type_(type), layers_(fullLayers), heads_(shape.kvHeads), headSize_(shape.headSize) {}

Page::Page(PagePool& pool, size_t bytes)
    : pool_(pool), bytes_(bytes), data_(compat::allocateZeroPages(bytes, compat::PageUse::Dense)) {
  if (data_ == nullptr && bytes > 0) throw std::bad_alloc();
  pool_.bytesInUse_ += bytes_;
}

Page::~Page() {
  compat::freeZeroPages(data_, bytes_);
  pool_.bytesInUse_ -= bytes_;
}

void Page::store(const PageLayout& layout, size_t layer, size_t head, size_t position,
                 const float* key, const float* value) {
  const size_t keys = layout.keys(layer, head);
  const size_t values = layout.values(layer, head);
  const size_t size = layout.headSize();
  if (layout.type() == CacheType::F16) {
    auto* numbers = static_cast<uint16_t*>(data_);
    storeHead(numbers + keys, numbers + values, size, position, key, value, kiv::quant::f32ToF16);
  } else {
    auto* numbers = static_cast<float*>(data_);
    storeHead(numbers + keys, numbers + values, size, position, key, value,
              [](float x) { return x; });
  }
}

void Page::copyFrom(const Page& other) { std::memcpy(data_, other.data_, bytes_); }

void Page::clearFrom(const PageLayout& layout, size_t position) {
  if (layout.type() == CacheType::F16) {
    clearBlocks(layout, position, static_cast<uint16_t*>(data_));
  } else {
    clearBlocks(layout, position, static_cast<float*>(data_));
  }
}

}  // namespace zem
