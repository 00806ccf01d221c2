// SPDX-License-Identifier: Apache-2.0
#include "engine/prefix/prefix_cache.h"

#include <algorithm>
#include <new>
#include <optional>
#include <utility>

namespace zem {
namespace {

size_t commonLength(std::span<const uint32_t> a, std::span<const uint32_t> b) {
  return static_cast<size_t>(std::ranges::mismatch(a, b).in1 - a.begin());
}

size_t logitsBytes(const Logits& logits) {
  return logits == nullptr ? 0 : logits->size() * sizeof(float);
}

// Of what no other snapshot shares.
size_t ownBytes(const Snapshot& snapshot) {
  return snapshot.recurrent->bytes() + logitsBytes(snapshot.logits);
}

}  // namespace

// The tokens between the parent and this node, and the state behind them if one is kept. Every
// node but the root has a state, or two children and more.
struct PrefixCache::Node {
  std::vector<uint32_t> tokens;
  Node* parent = nullptr;
  std::map<uint32_t, std::unique_ptr<Node>> children;  // by their first token
  std::optional<Snapshot> snapshot;
  uint64_t used = 0;

  // On the way to one other state alone: a conversation that went on.
  bool isInterior() const { return children.size() == 1; }

  // The node behind this one, in an order in which parents come before their children; null behind
  // the last. Needs no memory.
  Node* next() {
    if (!children.empty()) return children.begin()->second.get();
    for (Node* node = this; node->parent != nullptr; node = node->parent) {
      const auto sibling = node->parent->children.upper_bound(node->tokens.front());
      if (sibling != node->parent->children.end()) return sibling->second.get();
    }
    return nullptr;
  }
};

PrefixCache::PrefixCache(size_t budget, size_t pageBytes)
    : budget_(budget), pageBytes_(pageBytes), root_(std::make_unique<Node>()) {}
PrefixCache::~PrefixCache() { clear(); }

PrefixCache::Match PrefixCache::find(std::span<const uint32_t> tokens, size_t most) {
  Match match;
  Node* best = nullptr;
  Node* node = root_.get();
  std::span<const uint32_t> rest = tokens;
  while (!rest.empty()) {
    const auto child = node->children.find(rest.front());
    if (child == node->children.end()) break;
    node = child->second.get();
    const size_t common = commonLength(node->tokens, rest);
    match.known += common;
    if (common < node->tokens.size()) break;
    rest = rest.subspan(common);
    if (node->snapshot && match.known <= most) best = node;
  }
  if (best != nullptr) {
    best->used = ++clock_;
    match.snapshot = &*best->snapshot;
  }
  return match;
}

bool PrefixCache::hasRoomFor(size_t ownBytes, size_t length) const {
  const size_t pages = (length + kPagePositions - 1) / kPagePositions;
  return ownBytes + pages * pageBytes_ <= budget_;
}

void PrefixCache::insert(std::span<const uint32_t> tokens, Snapshot snapshot) {
  if (tokens.empty() || !hasRoomFor(ownBytes(snapshot), snapshot.length)) return;
  const Match present = find(tokens, tokens.size());
  if (present.snapshot != nullptr && present.snapshot->length == tokens.size()) {
    return addLogits(nodeFor(tokens), snapshot.logits);
  }
  // Its place comes first: the state where it branches off is no longer on the way to one alone.
  Node& node = nodeFor(tokens);
  pinned_ = &node;
  // Pages that only victims use go with them: what is added is counted anew each time.
  while (bytes_ + addedBytes(snapshot) > budget_ && dropOne()) {
  }
  pinned_ = nullptr;
  try {
    count(snapshot);
  } catch (...) {
    prune(&node);
    throw;
  }
  node.snapshot = std::move(snapshot);
  node.used = ++clock_;
  ++states_;
}

void PrefixCache::addLogits(Node& node, const Logits& logits) {
  if (node.snapshot->logits != nullptr || bytes_ + logitsBytes(logits) > budget_) return;
  node.snapshot->logits = logits;
  bytes_ += logitsBytes(logits);
}

// The node that ends with `tokens`; makes it where there is none.
PrefixCache::Node& PrefixCache::nodeFor(std::span<const uint32_t> tokens) {
  Node* node = root_.get();
  while (!tokens.empty()) {
    auto& slot = node->children[tokens.front()];
    if (slot == nullptr) {
      try {
        slot = std::make_unique<Node>();
        slot->tokens.assign(tokens.begin(), tokens.end());
      } catch (...) {
        node->children.erase(tokens.front());
        throw;
      }
      slot->parent = node;
      return *slot;
    }
    const size_t common = commonLength(slot->tokens, tokens);
    if (common < slot->tokens.size()) {
      auto upper = std::make_unique<Node>();
      upper->tokens.assign(slot->tokens.begin(),
                           slot->tokens.begin() + static_cast<ptrdiff_t>(common));
      auto& lowerSlot = upper->children[slot->tokens[common]];
      std::vector<uint32_t> lowerTokens(slot->tokens.begin() + static_cast<ptrdiff_t>(common),
                                        slot->tokens.end());
      upper->parent = node;
      lowerSlot = std::move(slot);
      lowerSlot->tokens = std::move(lowerTokens);
      lowerSlot->parent = upper.get();
      slot = std::move(upper);
    }
    tokens = tokens.subspan(common);
    node = slot.get();
  }
  return *node;
}

void PrefixCache::clear() {
  while (dropOne()) {
  }
}

bool PrefixCache::dropOne() {
  Node* victim = nullptr;
  const auto worse = [](const Node& a, const Node& b) {
    return a.isInterior() != b.isInterior() ? a.isInterior() : a.used < b.used;
  };
  for (Node* node = root_.get(); node != nullptr; node = node->next()) {
    if (node->snapshot && (victim == nullptr || worse(*node, *victim))) victim = node;
  }
  if (victim == nullptr) return false;
  uncount(*victim->snapshot);
  victim->snapshot.reset();
  --states_;
  ++evictions_;
  prune(victim);
  return true;
}

bool PrefixCache::isNeeded(const Node& node) const { return node.snapshot || &node == pinned_; }

// Takes a node without a state out of the trie where it joins fewer than two others.
void PrefixCache::prune(Node* node) {
  while (node->parent != nullptr && !isNeeded(*node) && node->children.empty()) {
    Node* parent = node->parent;
    const uint32_t first = node->tokens.front();
    parent->children.erase(first);
    node = parent;
  }
  if (node->parent == nullptr || isNeeded(*node) || node->children.size() != 1) return;
  std::vector<uint32_t> tokens;
  try {
    tokens.reserve(node->tokens.size() + node->children.begin()->second->tokens.size());
  } catch (const std::bad_alloc&) {
    return;  // a node too many does no harm
  }
  std::unique_ptr<Node> child = std::move(node->children.begin()->second);
  tokens.insert(tokens.end(), node->tokens.begin(), node->tokens.end());
  tokens.insert(tokens.end(), child->tokens.begin(), child->tokens.end());
  child->tokens = std::move(tokens);
  child->parent = node->parent;
  std::unique_ptr<Node>& slot = node->parent->children.find(node->tokens.front())->second;
  slot = std::move(child);
}

size_t PrefixCache::addedBytes(const Snapshot& snapshot) const {
  size_t bytes = ownBytes(snapshot);
  for (const auto& page : snapshot.pages) {
    if (!pageUses_.contains(page.get())) bytes += pageBytes_;
  }
  return bytes;
}

void PrefixCache::count(const Snapshot& snapshot) {
  const size_t added = addedBytes(snapshot);
  size_t counted = 0;
  try {
    for (; counted < snapshot.pages.size(); ++counted) ++pageUses_[snapshot.pages[counted].get()];
  } catch (...) {
    while (counted > 0) {
      const auto uses = pageUses_.find(snapshot.pages[--counted].get());
      if (--uses->second == 0) pageUses_.erase(uses);
    }
    throw;
  }
  bytes_ += added;
}

void PrefixCache::uncount(const Snapshot& snapshot) {
  bytes_ -= ownBytes(snapshot);
  for (const auto& page : snapshot.pages) {
    const auto uses = pageUses_.find(page.get());
    if (--uses->second > 0) continue;
    pageUses_.erase(uses);
    bytes_ -= pageBytes_;
  }
}

}  // namespace zem
