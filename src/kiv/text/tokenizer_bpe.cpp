// SPDX-License-Identifier: Apache-2.0
#include "kiv/text/tokenizer_bpe.h"

#include <algorithm>
#include <functional>
#include <optional>
#include <unordered_map>

#include "kiv/text/byte_level.h"
#include "kiv/text/tokenizer_pieces.h"

namespace kiv {
namespace {

constexpr int32_t kNoSymbol = -1;
constexpr uint32_t kNoRank = UINT32_MAX;
constexpr uint32_t kNoNeighbour = UINT32_MAX;

// Up to here looking at every pair for each merge beats a heap.
constexpr size_t kShortPiece = 24;

// A character has one to four bytes; a cut-off one differs from one with zeros.
uint64_t characterKey(std::string_view character) {
  uint64_t key = character.size();
  for (const char c : character) key = key << 8 | static_cast<uint8_t>(c);
  return key;
}

uint64_t pairKey(int32_t left, int32_t right) {
  return static_cast<uint64_t>(static_cast<uint32_t>(left)) << 32 | static_cast<uint32_t>(right);
}

uint64_t queueEntry(uint32_t rank, uint32_t symbol) {
  return static_cast<uint64_t>(rank) << 32 | symbol;
}

struct Sides {
  std::string_view left;
  std::string_view right;
};

std::optional<Sides> splitRule(std::string_view rule) {
  const size_t space = rule.find(' ');
  if (space == std::string_view::npos || space == 0 || space + 1 == rule.size()) return {};
  if (rule.find(' ', space + 1) != std::string_view::npos) return {};
  return Sides{rule.substr(0, space), rule.substr(space + 1)};
}

// Numbers texts: tokens by their ids, others in the order of their first use.
class SymbolTable {
 public:
  SymbolTable(const std::vector<std::string>& tokens, const TextIndex& tokenIds)
      : tokens_(tokens), tokenIds_(tokenIds) {}

  int32_t number(std::string_view text) {
    if (const int32_t id = tokenIds_.find(tokens_, text); id >= 0) return id;
    const auto next = static_cast<int32_t>(tokens_.size() + others_.size());
    return others_.try_emplace(std::string(text), next).first->second;
  }

  const std::unordered_map<std::string, int32_t>& others() const { return others_; }

 private:
  const std::vector<std::string>& tokens_;
  const TextIndex& tokenIds_;
  std::unordered_map<std::string, int32_t> others_;
};

}  // namespace

void BytePairMerger::build(const std::vector<std::string>& tokens, const TextIndex& tokenIds,
                           const std::vector<std::string>& merges) {
  SymbolTable symbols(tokens, tokenIds);
  merges_ = {};
  merges_.reserve(merges.size());
  joinsMarker_.reset();
  std::string result;
  for (size_t rank = 0; rank < merges.size(); ++rank) {
    const auto sides = splitRule(merges[rank]);
    if (!sides) continue;
    result.assign(sides->left).append(sides->right);
    const int32_t left = symbols.number(sides->left);
    const int32_t right = symbols.number(sides->right);
    merges_.insert(pairKey(left, right), {static_cast<uint32_t>(rank), symbols.number(result)});
    noteMarkerRule(sides->left, sides->right);
  }

  tokenCount_ = static_cast<int32_t>(tokens.size());
  ascii_.fill(kNoSymbol);
  characters_ = {};
  for (size_t i = 0; i < tokens.size(); ++i) addCharacter(tokens[i], static_cast<int32_t>(i));
  for (const auto& [text, symbol] : symbols.others()) addCharacter(text, symbol);
}

// Nothing unless `text` is one character. The first of equal texts counts.
void BytePairMerger::addCharacter(std::string_view text, int32_t symbol) {
  if (text.empty() || utf8Length(text) != text.size()) return;
  const auto byte = static_cast<uint8_t>(text[0]);
  if (byte >= ascii_.size()) {
    characters_.insert(characterKey(text), symbol);
  } else if (ascii_[byte] == kNoSymbol) {
    ascii_[byte] = symbol;
  }
}

void BytePairMerger::noteMarkerRule(std::string_view left, std::string_view right) {
  if (right.starts_with(kSpaceMarker)) joinsMarker_.set(static_cast<uint8_t>(left.back()));
}

int32_t BytePairMerger::symbolOf(std::string_view character) const {
  const auto byte = static_cast<uint8_t>(character[0]);
  if (byte < ascii_.size()) return ascii_[byte];
  const int32_t* symbol = characters_.find(characterKey(character));
  return symbol != nullptr ? *symbol : kNoSymbol;
}

size_t BytePairMerger::partLength(std::string_view piece) const {
  size_t at = utf8Length(piece);
  while (at < piece.size()) {
    const bool apart = piece.substr(at).starts_with(kSpaceMarker) &&
                       !joinsMarker_[static_cast<uint8_t>(piece[at - 1])];
    if (apart) break;
    at += utf8Length(piece.substr(at));
  }
  return at;
}

void BytePairMerger::encode(std::string_view piece, int32_t unkId, Scratch& scratch,
                            std::vector<int32_t>& ids) const {
  if (piece.empty()) return;
  split(piece, scratch);
  if (scratch.symbols.size() <= kShortPiece) {
    mergeShort(scratch);
  } else {
    mergeLong(scratch);
  }
  for (uint32_t at = 0; at != kNoNeighbour; at = scratch.symbols[at].next) {
    const int32_t id = scratch.symbols[at].id;
    if (id >= 0 && id < tokenCount_) {
      ids.push_back(id);
    } else if (unkId >= 0) {
      ids.push_back(unkId);
    }
  }
}

// One symbol a character.
void BytePairMerger::split(std::string_view piece, Scratch& scratch) const {
  auto& symbols = scratch.symbols;
  symbols.clear();
  while (!piece.empty()) {
    const size_t length = utf8Length(piece);
    const auto at = static_cast<uint32_t>(symbols.size());
    symbols.push_back({at == 0 ? kNoNeighbour : at - 1, at + 1, symbolOf(piece.substr(0, length)),
                       kNoRank, kNoSymbol});
    piece.remove_prefix(length);
  }
  symbols.back().next = kNoNeighbour;
}

void BytePairMerger::mergeShort(Scratch& scratch) const {
  const auto& symbols = scratch.symbols;
  for (uint32_t at = 0; at != kNoNeighbour; at = symbols[at].next) rankPair(scratch, at);
  for (;;) {
    uint32_t best = 0;
    for (uint32_t at = 0; at != kNoNeighbour; at = symbols[at].next) {
      if (symbols[at].rank < symbols[best].rank) best = at;
    }
    if (symbols[best].rank == kNoRank) return;
    const uint32_t previous = mergeAt(scratch, best);
    rankPair(scratch, best);
    if (previous != kNoNeighbour) rankPair(scratch, previous);
  }
}

void BytePairMerger::mergeLong(Scratch& scratch) const {
  auto& symbols = scratch.symbols;
  auto& queue = scratch.queue;
  const auto count = static_cast<uint32_t>(symbols.size());
  queue.clear();
  for (uint32_t at = 0; at < count; ++at) {
    if (rankPair(scratch, at)) queue.push_back(queueEntry(symbols[at].rank, at));
  }
  std::make_heap(queue.begin(), queue.end(), std::greater<>());

  const auto requeue = [&](uint32_t at) {
    if (!rankPair(scratch, at)) return;
    queue.push_back(queueEntry(symbols[at].rank, at));
    std::push_heap(queue.begin(), queue.end(), std::greater<>());
  };
  while (!queue.empty()) {
    std::pop_heap(queue.begin(), queue.end(), std::greater<>());
    const auto rank = static_cast<uint32_t>(queue.back() >> 32);
    const auto at = static_cast<uint32_t>(queue.back());
    queue.pop_back();
    if (symbols[at].rank != rank) continue;  // a neighbouring merge came first
    const uint32_t previous = mergeAt(scratch, at);
    requeue(at);
    if (previous != kNoNeighbour) requeue(previous);
  }
}

// Applies the rule noted for a symbol and the one after it, which drops out.
// Returns the symbol before it.
uint32_t BytePairMerger::mergeAt(Scratch& scratch, uint32_t at) const {
  auto& left = scratch.symbols[at];
  auto& right = scratch.symbols[left.next];
  left.id = left.merged;
  left.next = right.next;
  right.rank = kNoRank;
  if (left.next != kNoNeighbour) scratch.symbols[left.next].previous = at;
  return left.previous;
}

// Notes the rule for the symbol and the one after it; false when there is none.
bool BytePairMerger::rankPair(Scratch& scratch, uint32_t left) const {
  auto& symbol = scratch.symbols[left];
  symbol.rank = kNoRank;
  if (symbol.id == kNoSymbol || symbol.next == kNoNeighbour) return false;
  const int32_t right = scratch.symbols[symbol.next].id;
  if (right == kNoSymbol) return false;
  const Merge* merge = merges_.find(pairKey(symbol.id, right));
  if (merge == nullptr) return false;
  symbol.rank = merge->rank;
  symbol.merged = merge->result;
  return true;
}

}  // namespace kiv
