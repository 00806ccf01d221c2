// SPDX-License-Identifier: Apache-2.0
// What the pieces of a text were encoded to, for when they come again.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

namespace kiv {

// Words repeat: most pieces of a text have been encoded before, and copying their
// ids costs a tenth of merging them again. An entry only says where in the text
// the piece stood and where in the list its ids were put. Every piece has one
// place, where a later one displaces an earlier one.
class PieceMemo {
 public:
  struct Entry {
    const char* text = nullptr;
    size_t firstId = 0;
    uint32_t length = 0;
    uint32_t idCount = 0;

    bool holds(std::string_view piece) const {
      return length == piece.size() && std::memcmp(text, piece.data(), length) == 0;
    }
  };

  // Longer pieces seldom repeat.
  static constexpr size_t kLongestPiece = 32;

  // For a text of `bytes`, so that a short one does not pay for a large table.
  explicit PieceMemo(size_t bytes)
      : entries_(std::bit_ceil(std::clamp(bytes / kBytesAnEntry, kFewest, kMost))) {}

  // Where a piece of 1 to kLongestPiece bytes belongs. The entry is the caller's to
  // replace, and an entry's text has to stay where it is.
  Entry& entryOf(std::string_view piece) { return entries_[hashOf(piece) & (entries_.size() - 1)]; }

 private:
  static constexpr size_t kBytesAnEntry = 8;
  static constexpr size_t kFewest = 16;
  static constexpr size_t kMost = 16384;

  template <typename Word>
  static Word wordAt(const char* bytes) {
    Word word;
    std::memcpy(&word, bytes, sizeof(word));
    return word;
  }

  static uint64_t mix(uint64_t hash, uint64_t word) {
    hash = (hash ^ word) * 0x9E3779B97F4A7C15ULL;
    return hash ^ (hash >> 32);
  }

  // The last word overlaps the one before it instead of being padded.
  static uint64_t hashOf(std::string_view piece) {
    const char* const bytes = piece.data();
    const size_t size = piece.size();
    uint64_t hash = size;
    if (size >= 8) {
      for (size_t at = 0; at + 8 < size; at += 8) hash = mix(hash, wordAt<uint64_t>(bytes + at));
      return mix(hash, wordAt<uint64_t>(bytes + size - 8));
    }
    if (size >= 4) {
      const uint64_t high = wordAt<uint32_t>(bytes);
      return mix(hash, high << 32 | wordAt<uint32_t>(bytes + size - 4));
    }
    if (size >= 2) hash = mix(hash, wordAt<uint16_t>(bytes));
    return mix(hash, static_cast<uint8_t>(bytes[size - 1]));
  }

  std::vector<Entry> entries_;  // a power of two
};

}  // namespace kiv
