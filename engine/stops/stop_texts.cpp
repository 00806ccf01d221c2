// SPDX-License-Identifier: Apache-2.0
#include "engine/stops/stop_texts.h"

#include <algorithm>
#include <utility>

namespace zem {

// Knuth, Morris and Pratt's search.
StopTexts::Search::Search(std::string wanted) : text(std::move(wanted)), borders(text.size() + 1) {
  for (size_t end = 1, border = 0; end < text.size(); ++end) {
    while (border > 0 && text[end] != text[border]) border = borders[border];
    if (text[end] == text[border]) ++border;
    borders[end + 1] = border;
  }
}

void StopTexts::Search::advance(char byte) {
  while (matched > 0 && text[matched] != byte) matched = borders[matched];
  if (text[matched] == byte) ++matched;
}

StopTexts::StopTexts(std::vector<std::string> texts) {
  searches_.reserve(texts.size());
  for (std::string& text : texts) searches_.emplace_back(std::move(text));
}

std::optional<size_t> StopTexts::push(std::string_view text, std::string& out) {
  for (const char byte : text) {
    held_.push_back(byte);
    for (Search& search : searches_) search.advance(byte);
    if (const std::optional<size_t> found = longestComplete()) {
      out.append(held_, 0, held_.size() - searches_[*found].text.size());
      restart();
      return found;
    }
  }
  const size_t certain = held_.size() - longestBeginning();
  out.append(held_, 0, certain);
  held_.erase(0, certain);
  return std::nullopt;
}

void StopTexts::finish(std::string& out) {
  out += held_;
  restart();
}

std::optional<size_t> StopTexts::longestComplete() const {
  std::optional<size_t> found;
  for (size_t i = 0; i < searches_.size(); ++i) {
    const bool longer = !found || searches_[i].matched > searches_[*found].matched;
    if (searches_[i].complete() && longer) found = i;
  }
  return found;
}

size_t StopTexts::longestBeginning() const {
  size_t longest = 0;
  for (const Search& search : searches_) longest = std::max(longest, search.matched);
  return longest;
}

void StopTexts::restart() {
  held_.clear();
  for (Search& search : searches_) search.matched = 0;
}

}  // namespace zem
