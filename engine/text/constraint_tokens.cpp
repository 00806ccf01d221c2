// SPDX-License-Identifier: Apache-2.0
#include "engine/text/constraint_tokens.h"

#include <algorithm>
#include <utility>

namespace zem::text {

TokenTexts::TokenTexts(std::vector<std::string> texts) : texts_(std::move(texts)) {
  for (size_t id = 0; id < texts_.size(); ++id) {
    if (!texts_[id].empty()) sorted_.push_back({static_cast<uint32_t>(id), 0, texts_[id]});
  }
  std::sort(sorted_.begin(), sorted_.end(), [](const Entry& a, const Entry& b) {
    return a.text != b.text ? a.text < b.text : a.id < b.id;
  });
  for (size_t i = 1; i < sorted_.size(); ++i) {
    const std::string_view before = sorted_[i - 1].text;
    const std::string_view text = sorted_[i].text;
    const auto differ = std::mismatch(before.begin(), before.end(), text.begin(), text.end());
    sorted_[i].shared = static_cast<uint32_t>(differ.first - before.begin());
  }
}

}  // namespace zem::text
