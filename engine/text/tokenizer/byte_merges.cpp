// SPDX-License-Identifier: Apache-2.0
#include "engine/text/tokenizer/byte_merges.h"

#include <algorithm>
#include <bit>
#include <functional>

namespace zem::text {
namespace {

constexpr uint32_t kNoNeighbour = UINT32_MAX;
constexpr unsigned kIdBits = 20;
constexpr unsigned kRankBits = 22;
constexpr uint64_t kFree = UINT64_MAX;  // is no pair: its uppermost bits are set
static_assert(2 * kIdBits + kRankBits < 64);
static_assert(ByteMerges::kMaxIds == size_t{1} << kIdBits);
static_assert(ByteMerges::kMaxRules == size_t{1} << kRankBits);

uint64_t pairOf(int32_t left, int32_t right) {
  return static_cast<uint64_t>(left) << kIdBits | static_cast<uint64_t>(right);
}

size_t hashOf(uint64_t pair) {
  pair *= 0x9E3779B97F4A7C15U;
  return pair ^ pair >> 32U;
}

uint64_t queueEntry(uint32_t rank, uint32_t symbol) {
  return static_cast<uint64_t>(rank) << 32U | symbol;
}

}  // namespace

void ByteMerges::build(const std::array<int32_t, 256>& byteIds, const std::vector<Rule>& rules) {
  byteIds_ = byteIds;
  slots_.assign(std::bit_ceil(2 * rules.size() + 1), kFree);
  results_.clear();
  for (const Rule& rule : rules) {
    slots_[slotOf(rule.left, rule.right)] =
        pairOf(rule.left, rule.right) << kRankBits | results_.size();
    results_.push_back(rule.result);
  }
  byteRanks_.resize(size_t{256} * 256);
  for (size_t pair = 0; pair < byteRanks_.size(); ++pair) {
    const int32_t left = byteIds_[pair >> 8U];
    const int32_t right = byteIds_[pair & 255U];
    byteRanks_[pair] = left < 0 || right < 0 ? kNoRank : rankOf(left, right);
  }
}

size_t ByteMerges::slotOf(int32_t left, int32_t right) const {
  const uint64_t pair = pairOf(left, right);
  for (size_t at = hashOf(pair);; ++at) {
    at &= slots_.size() - 1;
    if (slots_[at] >> kRankBits == pair || slots_[at] == kFree) return at;
  }
}

uint32_t ByteMerges::rankOf(int32_t left, int32_t right) const {
  const uint64_t slot = slots_[slotOf(left, right)];
  return slot == kFree ? kNoRank : static_cast<uint32_t>(slot & (kMaxRules - 1));
}

uint32_t ByteMerges::rankOfBytes(char left, char right) const {
  return byteRanks_[size_t{static_cast<uint8_t>(left)} << 8U | static_cast<uint8_t>(right)];
}

void ByteMerges::encode(std::string_view piece, Scratch& scratch, std::vector<int32_t>& ids) const {
  if (piece.size() <= kShortPiece) {
    encodeShort(piece, ids);
  } else {
    encodeLong(piece, scratch, ids);
  }
}

void ByteMerges::encodeShort(std::string_view piece, std::vector<int32_t>& ids) const {
  std::array<int32_t, kShortPiece> symbols;
  std::array<uint32_t, kShortPiece> ranks;  // of a symbol and the next
  size_t count = piece.size();
  for (size_t i = 0; i < count; ++i) symbols[i] = byteIds_[static_cast<uint8_t>(piece[i])];
  for (size_t i = 0; i + 1 < count; ++i) ranks[i] = rankOfBytes(piece[i], piece[i + 1]);
  while (count > 1) {
    size_t best = 0;
    for (size_t i = 1; i + 1 < count; ++i) {
      if (ranks[i] < ranks[best]) best = i;
    }
    if (ranks[best] == kNoRank) break;
    symbols[best] = results_[ranks[best]];
    --count;
    for (size_t i = best + 1; i < count; ++i) {
      symbols[i] = symbols[i + 1];
      ranks[i - 1] = ranks[i];
    }
    if (best + 1 < count) ranks[best] = rankOf(symbols[best], symbols[best + 1]);
    if (best > 0) ranks[best - 1] = rankOf(symbols[best - 1], symbols[best]);
  }
  ids.insert(ids.end(), symbols.begin(), symbols.begin() + count);
}

void ByteMerges::encodeLong(std::string_view piece, Scratch& scratch,
                            std::vector<int32_t>& ids) const {
  link(piece, scratch);
  auto& symbols = scratch.symbols;
  auto& queue = scratch.queue;
  queue.clear();
  for (uint32_t at = 0; at < symbols.size(); ++at) {
    if (symbols[at].rank != kNoRank) queue.push_back(queueEntry(symbols[at].rank, at));
  }
  std::make_heap(queue.begin(), queue.end(), std::greater<>());

  const auto requeue = [&](uint32_t at) {
    if (!rankPair(scratch, at)) return;
    queue.push_back(queueEntry(symbols[at].rank, at));
    std::push_heap(queue.begin(), queue.end(), std::greater<>());
  };
  while (!queue.empty()) {
    std::pop_heap(queue.begin(), queue.end(), std::greater<>());
    const auto rank = static_cast<uint32_t>(queue.back() >> 32U);
    const auto at = static_cast<uint32_t>(queue.back());
    queue.pop_back();
    if (symbols[at].rank != rank) continue;  // a neighbouring merge came first
    const uint32_t previous = mergeAt(scratch, at);
    requeue(at);
    if (previous != kNoNeighbour) requeue(previous);
  }
  for (uint32_t at = 0; at != kNoNeighbour; at = symbols[at].next) ids.push_back(symbols[at].id);
}

// One symbol a byte, each with the rule for it and the next.
void ByteMerges::link(std::string_view piece, Scratch& scratch) const {
  const auto count = static_cast<uint32_t>(piece.size());
  scratch.symbols.resize(count);
  for (uint32_t at = 0; at < count; ++at) {
    const bool last = at + 1 == count;
    const uint32_t rank = last ? kNoRank : rankOfBytes(piece[at], piece[at + 1]);
    scratch.symbols[at] = {at == 0 ? kNoNeighbour : at - 1, last ? kNoNeighbour : at + 1,
                           byteIds_[static_cast<uint8_t>(piece[at])], rank};
  }
}

// Applies the rule noted for a symbol and the one after it, which drops out.
// Returns the symbol before it.
uint32_t ByteMerges::mergeAt(Scratch& scratch, uint32_t at) const {
  auto& left = scratch.symbols[at];
  auto& right = scratch.symbols[left.next];
  left.id = results_[left.rank];
  left.next = right.next;
  right.rank = kNoRank;
  if (left.next != kNoNeighbour) scratch.symbols[left.next].previous = at;
  return left.previous;
}

// Notes the rule for the symbol and the one after it; false when there is none.
bool ByteMerges::rankPair(Scratch& scratch, uint32_t left) const {
  auto& symbol = scratch.symbols[left];
  symbol.rank = kNoRank;
  if (symbol.next == kNoNeighbour) return false;
  symbol.rank = rankOf(symbol.id, scratch.symbols[symbol.next].id);
  return symbol.rank != kNoRank;
}

}  // namespace zem::text
