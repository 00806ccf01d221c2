// SPDX-License-Identifier: Apache-2.0
// Byte-pair encoding: pieces of text to the ids of a vocabulary.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace zem::text {

// The merge rules of a vocabulary over token ids. A piece begins as one token a byte;
// then again and again the best rule that fits is applied at its leftmost place.
//
// Const members may run on several threads at once, each with its own Scratch.
class ByteMerges {
 public:
  struct Rule {
    int32_t left;
    int32_t right;
    int32_t result;
  };

  // Working memory of encode(), worth keeping from piece to piece.
  class Scratch {
    friend class ByteMerges;

    struct Symbol {
      uint32_t previous;
      uint32_t next;
      int32_t id;
      uint32_t rank;  // of the rule for this symbol and the next
    };

    std::vector<Symbol> symbols;  // linked in text order
    std::vector<uint64_t> queue;  // min-heap of (rank, symbol), stale entries included
  };

  // The longest piece that encode() takes, in bytes.
  static constexpr size_t kMaxPieceBytes = UINT32_MAX - 1;
  // Ids and the number of rules are below these.
  static constexpr size_t kMaxIds = size_t{1} << 20U;
  static constexpr size_t kMaxRules = size_t{1} << 22U;

  // Replaces everything. Better rules come first; of equal ones the last counts.
  // `byteIds` has the token of every byte that pieces will hold.
  void build(const std::array<int32_t, 256>& byteIds, const std::vector<Rule>& rules);

  // Appends the ids of `piece`. Time n log n.
  void encode(std::string_view piece, Scratch& scratch, std::vector<int32_t>& ids) const;

 private:
  static constexpr uint32_t kNoRank = UINT32_MAX;
  // Up to here looking at every pair for each merge beats a heap.
  static constexpr size_t kShortPiece = 32;

  // The place of (left, right) in the table: its slot, or the free one to put it in.
  size_t slotOf(int32_t left, int32_t right) const;
  // kNoRank where no rule is for them.
  uint32_t rankOf(int32_t left, int32_t right) const;
  uint32_t rankOfBytes(char left, char right) const;
  void encodeShort(std::string_view piece, std::vector<int32_t>& ids) const;
  void encodeLong(std::string_view piece, Scratch& scratch, std::vector<int32_t>& ids) const;
  void link(std::string_view piece, Scratch& scratch) const;
  uint32_t mergeAt(Scratch& scratch, uint32_t at) const;
  bool rankPair(Scratch& scratch, uint32_t left) const;

  std::array<int32_t, 256> byteIds_{};
  std::vector<uint32_t> byteRanks_;  // of every two bytes: most look-ups are for these
  // Open addressing, at most half full. A slot is left, right and rank in one word, so
  // that the rules of a large vocabulary take four megabytes: every look-up that has
  // to go to memory shows.
  std::vector<uint64_t> slots_;
  std::vector<int32_t> results_;  // by rank
};

}  // namespace zem::text
