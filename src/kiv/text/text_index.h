// SPDX-License-Identifier: Apache-2.0
// Finds a text in a list of texts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kiv {

// Holds positions and hashes only, never the texts: eight bytes a slot, and list
// and index stay right when they are copied or moved together. Every call takes
// the list that the index was built for.
class TextIndex {
 public:
  // Replaces the index by one of all `texts`.
  void build(const std::vector<std::string>& texts);

  // The lowest position at which `text` stands, or -1. Safe on several threads.
  int32_t find(const std::vector<std::string>& texts, std::string_view text) const;

 private:
  struct Slot {
    uint32_t tag = 0;  // hash bits that the slot's place does not tell
    int32_t position = -1;
  };

  size_t slotOf(const std::vector<std::string>& texts, std::string_view text, uint64_t hash) const;

  std::vector<Slot> slots_;  // a power of two, at most half full; or none
};

}  // namespace kiv
