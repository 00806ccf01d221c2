// SPDX-License-Identifier: Apache-2.0
// Texts and lists that cross the boundary.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <span>
#include <string>
#include <string_view>

#include "libzem/outcome.h"

namespace zem::boundary {

inline Outcome isNull(const char* name) {
  return failure(ZEM_ERROR_ARGUMENT, std::string(name) + ": found a null pointer");
}

// The text of the argument `name`. Null stands for an empty one only with the size 0.
inline Outcome readText(const char* name, const char* text, size_t size, std::string_view& out) {
  if (text == nullptr && size != 0) return isNull(name);
  if (text == nullptr) {
    out = {};
  } else {
    out = size == ZEM_TERMINATED ? std::string_view(text) : std::string_view(text, size);
  }
  return {};
}

// The ids of the argument `name`.
inline Outcome readIds(const char* name, const uint32_t* ids, size_t count,
                       std::span<const uint32_t>& out) {
  if (ids == nullptr && count != 0) return isNull(name);
  out = {ids, count};
  return {};
}

inline Outcome readFlags(const char* name, uint32_t flags, uint32_t known) {
  if ((flags & ~known) == 0) return {};
  return failure(ZEM_ERROR_ARGUMENT, std::string(name) + ": found " + std::to_string(flags) +
                                         ", which has bits without a meaning");
}

// Writes the number of `items` and looks whether a buffer of the caller's has room for them.
template <typename Items, typename Item>
Outcome measureItems(const Items& items, const Item* buffer, size_t capacity, size_t* length) {
  if (length == nullptr) return isNull("length");
  if (buffer == nullptr && capacity != 0) return isNull("the buffer");
  *length = items.size();
  if (items.size() <= capacity) return {};
  return failure(ZEM_ERROR_SPACE, "the buffer has room for " + std::to_string(capacity) +
                                      ", needed " + std::to_string(items.size()));
}

// Copies `items` into a buffer of the caller's and writes their number.
template <typename Items, typename Item>
Outcome writeItems(const Items& items, Item* buffer, size_t capacity, size_t* length) {
  Outcome outcome = measureItems(items, buffer, capacity, length);
  if (outcome.ok()) std::copy(items.begin(), items.end(), buffer);
  return outcome;
}

}  // namespace zem::boundary
