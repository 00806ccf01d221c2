// SPDX-License-Identifier: Apache-2.0
// The tokens of a vocabulary by id.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zem::text {

class TokenTable {
 public:
  enum Flag : uint8_t { kPresent = 1, kAdded = 2, kSpecial = 4 };

  // Adds the token of the next id; flags 0 for an id without one.
  void append(std::string_view bytes, uint8_t flags) {
    bytes_ += bytes;
    ends_.push_back(static_cast<uint32_t>(bytes_.size()));
    flags_.push_back(flags);
  }
  void reserve(size_t tokens, size_t bytes) {
    bytes_.reserve(bytes);
    ends_.reserve(tokens);
    flags_.reserve(tokens);
  }

  size_t size() const { return ends_.size(); }
  size_t byteCount() const { return bytes_.size(); }
  // Any id: those outside the table have no bytes and no flags.
  std::string_view bytesOf(int32_t id) const {
    if (!holds(id)) return {};
    const auto at = static_cast<size_t>(id);
    const size_t begin = at == 0 ? 0 : ends_[at - 1];
    return std::string_view(bytes_).substr(begin, ends_[at] - begin);
  }
  bool has(int32_t id, Flag flag) const {
    return holds(id) && (flags_[static_cast<size_t>(id)] & flag) != 0;
  }

 private:
  bool holds(int32_t id) const { return id >= 0 && static_cast<size_t>(id) < ends_.size(); }

  std::string bytes_;           // of all tokens in a row
  std::vector<uint32_t> ends_;  // in bytes_
  std::vector<uint8_t> flags_;
};

}  // namespace zem::text
