// SPDX-License-Identifier: Apache-2.0
#include "engine/text/tokenizer/added_tokens.h"

#include <utility>

#include "kiv/tokenizer.h"

namespace zem::text {

void AddedTokenSet::add(int32_t id, std::string text) {
  texts_.push_back(std::move(text));
  ids_.push_back(id);
}

void AddedTokenSet::build() {
  search_.build(texts_, std::vector<int32_t>(texts_.size(), kiv::kTokenTypeControl));
}

AddedTokenSet::Match AddedTokenSet::find(std::string_view text, size_t from) const {
  const kiv::SpecialTokens::Match match = search_.find(texts_, text, from);
  if (match.id < 0) return {match.position, 0, -1};
  const auto at = static_cast<size_t>(match.id);
  return {match.position, texts_[at].size(), ids_[at]};
}

int32_t AddedTokenSet::idOf(std::string_view text) const {
  if (text.empty()) return -1;
  const Match match = find(text, 0);
  return match.position == 0 && match.length == text.size() ? match.id : -1;
}

}  // namespace zem::text
