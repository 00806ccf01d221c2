// SPDX-License-Identifier: Apache-2.0
#include "engine/text/constraint_tokens.h"

#include <algorithm>

namespace zem::text {

TokenTexts::TokenTexts(const std::vector<std::string>& texts) : size_(texts.size()) {
  size_t bytes = 0;
  for (size_t id = 0; id < texts.size(); ++id) {
    bytes += texts[id].size();
    if (!texts[id].empty()) sorted_.push_back({static_cast<uint32_t>(id), 0, texts[id]});
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
  bytes_.reserve(bytes);
  for (Entry& entry : sorted_) {
    const size_t begin = bytes_.size();
    bytes_.insert(bytes_.end(), entry.text.begin(), entry.text.end());
    entry.text = {bytes_.data() + begin, entry.text.size()};
  }
}

}  // namespace zem::text
