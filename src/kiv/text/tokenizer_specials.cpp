// SPDX-License-Identifier: Apache-2.0
#include "kiv/text/tokenizer_specials.h"

#include <algorithm>

#include "kiv/tokenizer.h"

namespace kiv {
namespace {

const std::string& textOf(const std::vector<std::string>& tokens, int32_t id) {
  return tokens[static_cast<size_t>(id)];
}

uint8_t byteOf(std::string_view text, size_t at) { return static_cast<uint8_t>(text[at]); }

}  // namespace

void SpecialTokens::build(const std::vector<std::string>& tokens,
                          const std::vector<int32_t>& types) {
  byText_.clear();
  firstByte_.fill(0);
  if (types.size() != tokens.size()) return;
  for (size_t i = 0; i < tokens.size(); ++i) {
    const bool special = types[i] == kTokenTypeUnknown || types[i] == kTokenTypeControl;
    if (special && !tokens[i].empty()) byText_.push_back(static_cast<int32_t>(i));
  }
  std::stable_sort(byText_.begin(), byText_.end(), [&tokens](int32_t a, int32_t b) {
    return textOf(tokens, a) < textOf(tokens, b);
  });
  const auto equalText = [&tokens](int32_t a, int32_t b) {
    return textOf(tokens, a) == textOf(tokens, b);
  };
  byText_.erase(std::unique(byText_.begin(), byText_.end(), equalText), byText_.end());
  for (const int32_t id : byText_) ++firstByte_[byteOf(textOf(tokens, id), 0) + size_t{1}];
  for (size_t b = 1; b < firstByte_.size(); ++b) firstByte_[b] += firstByte_[b - 1];
}

SpecialTokens::Match SpecialTokens::find(const std::vector<std::string>& tokens,
                                         std::string_view text, size_t from) const {
  for (size_t at = from; at < text.size(); ++at) {
    const size_t first = byteOf(text, at);
    if (firstByte_[first] == firstByte_[first + 1]) continue;
    const int32_t id = longestPrefix(tokens, text.substr(at));
    if (id >= 0) return {at, id};
  }
  return {text.size(), -1};
}

// The longest special token that `text`, which is not empty, begins with, or -1.
int32_t SpecialTokens::longestPrefix(const std::vector<std::string>& tokens,
                                     std::string_view text) const {
  const size_t first = byteOf(text, 0);
  auto low = byText_.begin() + firstByte_[first];
  auto high = byText_.begin() + firstByte_[first + 1];
  int32_t longest = -1;
  // [low, high) are the tokens that begin with the first `depth` bytes of the
  // text; a token that ends there comes before its extensions.
  for (size_t depth = 1; low != high; ++depth) {
    if (textOf(tokens, *low).size() == depth) longest = *low++;
    if (depth == text.size()) break;
    const uint8_t next = byteOf(text, depth);
    low = std::lower_bound(low, high, next, [&tokens, depth](int32_t id, uint8_t byte) {
      return byteOf(textOf(tokens, id), depth) < byte;
    });
    high = std::upper_bound(low, high, next, [&tokens, depth](uint8_t byte, int32_t id) {
      return byte < byteOf(textOf(tokens, id), depth);
    });
  }
  return longest;
}

}  // namespace kiv
