// SPDX-License-Identifier: Apache-2.0
// States of conversations at positions where another one may go on.
//
// The recurrent state of a model cannot be cut back, so the beginning of a prompt is saved only up
// to a position where a state was kept. The cache is a trie over tokens: conversations that begin
// alike share a path, and the states along it share their pages.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <unordered_map>
#include <vector>

#include "engine/model/sequence_state.h"

namespace zem {

// One thread at a time. The pool of the pages outlives it.
class PrefixCache {
 public:
  // States and pages together take at most `budget` bytes. A page that several states share
  // counts once.
  PrefixCache(size_t budget, size_t pageBytes);
  ~PrefixCache();
  PrefixCache(const PrefixCache&) = delete;
  PrefixCache& operator=(const PrefixCache&) = delete;

  // What the cache knows of a prompt.
  struct Match {
    const Snapshot* snapshot = nullptr;  // the longest of those asked for; valid until insert()
    size_t known = 0;  // tokens that the prompt shares with some kept state's path
  };
  // The longest kept state for the beginning of `tokens`, of at most `most` of them. It counts as
  // used.
  Match find(std::span<const uint32_t> tokens, size_t most);

  // Whether a state of `ownBytes` beside its pages, at `length` tokens, may be kept at all. Ask
  // before a snapshot is made: it is large.
  bool hasRoomFor(size_t ownBytes, size_t length) const;

  // Keeps the state after `tokens`, all snapshot.length of them; one that is there already is
  // used instead, and gets the new one's logits if it has none. States that were used longest ago
  // make room: those on the way to others first. Throws std::bad_alloc; the cache is then as it
  // was, or has fewer states.
  void insert(std::span<const uint32_t> tokens, Snapshot snapshot);

  void clear();
  // Drops the state that was used longest ago, to give memory back; false: there is none. Needs no
  // memory itself.
  bool dropOne();

  size_t bytes() const { return bytes_; }
  size_t states() const { return states_; }
  uint64_t evictions() const { return evictions_; }  // states that were dropped, up to now

 private:
  struct Node;

  bool isNeeded(const Node& node) const;
  void prune(Node* node);
  void addLogits(Node& node, const Logits& logits);
  size_t addedBytes(const Snapshot& snapshot) const;
  void count(const Snapshot& snapshot);
  void uncount(const Snapshot& snapshot);
  Node& nodeFor(std::span<const uint32_t> tokens);

  size_t budget_;
  size_t pageBytes_;
  size_t bytes_ = 0;
  size_t states_ = 0;
  uint64_t evictions_ = 0;
  uint64_t clock_ = 0;
  std::unique_ptr<Node> root_;
  const Node* pinned_ = nullptr;  // about to get a state
  std::unordered_map<const Page*, size_t> pageUses_;
};

}  // namespace zem
