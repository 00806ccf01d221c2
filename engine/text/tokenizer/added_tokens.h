// SPDX-License-Identifier: Apache-2.0
// Search for added tokens in a text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kiv/text/tokenizer_specials.h"

namespace zem::text {

// Texts with the ids of their tokens. Const members may run on several threads at once.
class AddedTokenSet {
 public:
  struct Match {
    size_t position;  // the length of the text when there is none
    size_t length;
    int32_t id;  // -1 when there is none
  };

  void add(int32_t id, std::string text);
  void build();  // after the last add()

  bool empty() const { return search_.empty(); }

  // The first position from `from` on at which one of the texts stands, with the
  // longest there.
  Match find(std::string_view text, size_t from) const;
  // The id of the token of that text, or -1.
  int32_t idOf(std::string_view text) const;

 private:
  std::vector<std::string> texts_;
  std::vector<int32_t> ids_;  // one a text
  kiv::SpecialTokens search_;
};

}  // namespace zem::text
