// SPDX-License-Identifier: Apache-2.0
// A map from 64-bit numbers to small values for tables that are filled once and
// read often.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace kiv {

// Open addressing with linear probing, at most half full: one cache line a
// look-up, and sixteen bytes or so an entry. Every key but kUnusedKey is allowed.
// Const members may run on several threads at once.
template <typename Value>
class FlatMap {
 public:
  static constexpr uint64_t kUnusedKey = ~uint64_t{0};

  size_t size() const { return size_; }

  // Makes room for `count` entries.
  void reserve(size_t count) {
    const size_t wanted = std::bit_ceil(std::max(kMinSlots, 2 * count));
    if (wanted > slots_.size()) rehash(wanted);
  }

  // Adds the entry unless the key is present; a present value stays.
  void insert(uint64_t key, Value value) {
    reserve(size_ + 1);
    Slot& slot = slots_[slotOf(key)];
    if (slot.key == key) return;
    slot = {key, value};
    ++size_;
  }

  // The value of `key`, or null. Valid until the next insert.
  const Value* find(uint64_t key) const {
    if (slots_.empty()) return nullptr;
    const Slot& slot = slots_[slotOf(key)];
    return slot.key == key ? &slot.value : nullptr;
  }

 private:
  static constexpr size_t kMinSlots = 16;

  struct Slot {
    uint64_t key = kUnusedKey;
    Value value{};
  };

  static uint64_t mix(uint64_t key) {
    key ^= key >> 33;
    key *= 0xff51afd7ed558ccdULL;
    key ^= key >> 33;
    key *= 0xc4ceb9fe1a85ec53ULL;
    return key ^ (key >> 33);
  }

  // Where `key` lies, or the free slot where it would be put.
  size_t slotOf(uint64_t key) const {
    const size_t mask = slots_.size() - 1;
    size_t at = mix(key) & mask;
    while (slots_[at].key != key && slots_[at].key != kUnusedKey) at = (at + 1) & mask;
    return at;
  }

  void rehash(size_t slotCount) {
    std::vector<Slot> old(slotCount);
    old.swap(slots_);
    for (const Slot& slot : old) {
      if (slot.key != kUnusedKey) slots_[slotOf(slot.key)] = slot;
    }
  }

  std::vector<Slot> slots_;  // a power of two, or none
  size_t size_ = 0;
};

}  // namespace kiv
