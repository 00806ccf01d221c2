// SPDX-License-Identifier: Apache-2.0
// The tokens that penalties look at.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <unordered_map>

namespace zem {

// Counts the last tokens of a sequence.
class TokenWindow {
 public:
  // `length`: how many tokens it takes in at most; kWholeReply never forgets one.
  explicit TokenWindow(size_t length) : length_(length) {}

  void push(uint32_t id);

  // The ids in the window, each with how often it stands there.
  const std::unordered_map<uint32_t, uint32_t>& counts() const { return counts_; }

 private:
  size_t length_;
  std::deque<uint32_t> tokens_;  // empty where none is ever forgotten
  std::unordered_map<uint32_t, uint32_t> counts_;
};

}  // namespace zem
