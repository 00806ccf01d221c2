// SPDX-License-Identifier: Apache-2.0
// Byte-pair merging of one piece of text.
#pragma once

#include <array>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kiv/text/flat_map.h"
#include "kiv/text/text_index.h"

namespace kiv {

// The merge rules of a vocabulary over numbered symbols. A symbol is a text that
// is a token (its number is the token's id) or occurs in a rule (numbered after the
// tokens); any other text can never merge. So a rule is one entry, (left, right) to
// (rank, result), and merging never touches text.
//
// Const members may run on several threads at once, each with its own Scratch.
class BytePairMerger {
 public:
  // Working memory of encode(), worth keeping from piece to piece.
  class Scratch {
    friend class BytePairMerger;

    struct Symbol {
      uint32_t previous;
      uint32_t next;
      int32_t id;
      uint32_t rank;   // of the rule for this symbol and the next
      int32_t merged;  // what that rule makes of them
    };

    std::vector<Symbol> symbols;  // one a character, linked in text order
    std::vector<uint64_t> queue;  // min-heap of (rank, symbol), stale entries included
  };

  // The longest piece that encode() takes, in bytes.
  static constexpr size_t kMaxPieceBytes = UINT32_MAX - 1;

  // Replaces the rules. `tokenIds` indexes `tokens`. A rule is two sides joined by
  // one space, better rules first; the first of equal rules counts. A rule with
  // another number of spaces or with an empty side can never apply, because pieces hold
  // no spaces; it is passed over.
  void build(const std::vector<std::string>& tokens, const TextIndex& tokenIds,
             const std::vector<std::string>& merges);

  // The length of the first part of `piece`. No rule joins a part with the next one,
  // so the parts may be encoded one by one. A part ends before a U+2581 when no rule
  // joins the character in front of it with a right side that begins with U+2581. In a
  // vocabulary that marks the beginnings of words with U+2581, the parts are words.
  // REQUIRES: `piece` is not empty.
  size_t partLength(std::string_view piece) const;

  // Appends the ids of `piece`: one symbol a character at first, then again and
  // again the best rule that fits is applied at its leftmost place. A symbol
  // without a token becomes `unkId`, or nothing when that is negative. Time n log n.
  // REQUIRES: no space in `piece`, at most kMaxPieceBytes.
  void encode(std::string_view piece, int32_t unkId, Scratch& scratch,
              std::vector<int32_t>& ids) const;

 private:
  struct Merge {
    uint32_t rank;
    int32_t result;
  };

  void addCharacter(std::string_view text, int32_t symbol);
  void noteMarkerRule(std::string_view left, std::string_view right);
  int32_t symbolOf(std::string_view character) const;
  void split(std::string_view piece, Scratch& scratch) const;
  void mergeShort(Scratch& scratch) const;
  void mergeLong(Scratch& scratch) const;
  uint32_t mergeAt(Scratch& scratch, uint32_t at) const;
  bool rankPair(Scratch& scratch, uint32_t left) const;

  int32_t tokenCount_ = 0;
  std::array<int32_t, 128> ascii_{};  // byte to symbol
  FlatMap<int32_t> characters_;       // characterKey() to symbol, beyond ASCII
  FlatMap<Merge> merges_;             // pairKey() to rule
  std::bitset<256> joinsMarker_;      // last bytes of left sides before U+2581
};

}  // namespace kiv
