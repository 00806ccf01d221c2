// SPDX-License-Identifier: Apache-2.0
// Texts at which a reply ends.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zem {

// Looks for texts in a stream. What may be the beginning of one is held back until it is
// certain.
class StopTexts {
 public:
  // REQUIRES: no text is empty.
  explicit StopTexts(std::vector<std::string> texts);

  // Appends to `out` what can no longer belong to a stop text. When one is complete, gives its
  // index: the one that ends first in the stream, of several the longest. It then has
  // appended all text before it, the rest is dropped, and the search begins anew.
  std::optional<size_t> push(std::string_view text, std::string& out);

  // Appends what was held back, and begins anew.
  void finish(std::string& out);

 private:
  struct Search {
    std::string text;
    std::vector<size_t> borders;  // of each beginning: its longest end that is a beginning too
    size_t matched = 0;           // bytes of the text that the stream ends with

    explicit Search(std::string wanted);
    void advance(char byte);
    bool complete() const { return matched == text.size(); }
  };

  std::optional<size_t> longestComplete() const;
  size_t longestBeginning() const;
  void restart();

  std::vector<Search> searches_;
  std::string held_;
};

}  // namespace zem
