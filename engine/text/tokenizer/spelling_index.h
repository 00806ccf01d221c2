// SPDX-License-Identifier: Apache-2.0
// From the spelling of a token to its id.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

namespace zem::text {

// Texts that lie elsewhere, by the numbers they were given. A slot knows a part of
// its text's hash, so that a miss seldom reads another text.
class SpellingIndex {
 public:
  // The texts must outlive the index. Those without data are left out.
  explicit SpellingIndex(const std::vector<std::string_view>& texts)
      : texts_(texts), slots_(std::bit_ceil(2 * texts.size() + 1)) {
    for (size_t id = 0; id < texts.size(); ++id) {
      if (texts[id].data() == nullptr) continue;
      Slot& slot = slotOf(texts[id]);
      if (slot.id < 0) {
        slot = {static_cast<uint32_t>(hashOf(texts[id]) >> 32U), static_cast<int32_t>(id)};
      } else {
        repeated_ = std::max(repeated_, static_cast<int32_t>(id));
      }
    }
  }

  // The lowest id of that text, or -1.
  int32_t find(std::string_view text) const { return slotOf(text).id; }
  // An id with the text of a lower one, or -1.
  int32_t repeated() const { return repeated_; }

 private:
  struct Slot {
    uint32_t hash = 0;
    int32_t id = -1;
  };

  static uint64_t hashOf(std::string_view text) { return std::hash<std::string_view>()(text); }

  const Slot& slotOf(std::string_view text) const {
    const uint64_t hash = hashOf(text);
    const auto part = static_cast<uint32_t>(hash >> 32U);
    for (size_t at = hash;; ++at) {
      const Slot& slot = slots_[at & (slots_.size() - 1)];
      if (slot.id < 0) return slot;
      if (slot.hash == part && texts_[static_cast<size_t>(slot.id)] == text) return slot;
    }
  }
  Slot& slotOf(std::string_view text) {
    return const_cast<Slot&>(static_cast<const SpellingIndex*>(this)->slotOf(text));
  }

  const std::vector<std::string_view>& texts_;
  std::vector<Slot> slots_;  // a power of two, at most half of them used
  int32_t repeated_ = -1;
};

}  // namespace zem::text
