// SPDX-License-Identifier: Apache-2.0
#include "kiv/text/text_index.h"

#include <bit>
#include <functional>

namespace kiv {
namespace {

uint64_t hashOf(std::string_view text) { return std::hash<std::string_view>{}(text); }

uint32_t tagOf(uint64_t hash) { return static_cast<uint32_t>(hash >> 32); }

}  // namespace

void TextIndex::build(const std::vector<std::string>& texts) {
  slots_.assign(std::bit_ceil(2 * texts.size() + 1), Slot{});
  for (size_t i = 0; i < texts.size(); ++i) {
    const uint64_t hash = hashOf(texts[i]);
    Slot& slot = slots_[slotOf(texts, texts[i], hash)];
    if (slot.position < 0) slot = {tagOf(hash), static_cast<int32_t>(i)};
  }
}

int32_t TextIndex::find(const std::vector<std::string>& texts, std::string_view text) const {
  if (slots_.empty()) return -1;
  return slots_[slotOf(texts, text, hashOf(text))].position;
}

// Where `text` lies, or the free slot where it would be put.
size_t TextIndex::slotOf(const std::vector<std::string>& texts, std::string_view text,
                         uint64_t hash) const {
  const size_t mask = slots_.size() - 1;
  size_t at = hash & mask;
  while (slots_[at].position >= 0) {
    const Slot& slot = slots_[at];
    if (slot.tag == tagOf(hash) && texts[static_cast<size_t>(slot.position)] == text) break;
    at = (at + 1) & mask;
  }
  return at;
}

}  // namespace kiv
