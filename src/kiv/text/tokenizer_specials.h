// SPDX-License-Identifier: Apache-2.0
// Search for special tokens in a text.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kiv {

// The special tokens of a vocabulary, sorted so that one walk over the bytes at a
// position finds the longest that stands there. Holds ids only: every call takes
// the vocabulary that the index was built for, and both may be copied or moved
// together. Const members may run on several threads at once.
class SpecialTokens {
 public:
  struct Match {
    size_t position;  // the length of the text when there is none
    int32_t id;       // -1 when there is none
  };

  // Replaces the index by the tokens of type unknown or control. None is special
  // unless `types` has one entry a token. An empty token never is: it would match
  // everywhere and consume nothing. Of equal texts the lowest id is used.
  void build(const std::vector<std::string>& tokens, const std::vector<int32_t>& types);

  bool empty() const { return byText_.empty(); }

  // The first position from `from` on at which a special token stands, with the
  // longest there. Time: the bytes passed over, times the longest special token
  // in the worst case; bytes that begin no special token cost one look-up each.
  Match find(const std::vector<std::string>& tokens, std::string_view text, size_t from) const;

 private:
  int32_t longestPrefix(const std::vector<std::string>& tokens, std::string_view text) const;

  std::vector<int32_t> byText_;            // ids in the byte order of their texts
  std::array<uint32_t, 257> firstByte_{};  // byText_[firstByte_[b], firstByte_[b + 1]) begin with b
};

}  // namespace kiv
