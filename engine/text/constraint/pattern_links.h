// SPDX-License-Identifier: Apache-2.0
/// \file
/// A pattern as links between states, over the bytes of UTF-8; several may lead on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zem::text::pattern {

/// Code points, both included.
struct Range {
  uint32_t first;
  uint32_t last;
};
using Ranges = std::vector<Range>;

/// The ranges sorted, without overlaps.
Ranges normalised(Ranges ranges);
/// All other code points.
Ranges complement(const Ranges& ranges);
/// What both have.
Ranges intersection(const Ranges& a, const Ranges& b);
/// What a JSON string can hold without `\u`, surrogates left out.
const Ranges& alphabet();

/// States and the steps between them. State 0 is where texts end.
class Links {
 public:
  static constexpr int kEnd = 0;
  struct State {
    std::vector<int> free;  // reached without a byte
    struct Step {
      uint8_t first;
      uint8_t last;
      int target;
    };
    std::vector<Step> steps;
  };

  Links() { add(); }
  int add() {
    states_.emplace_back();
    return static_cast<int>(states_.size()) - 1;
  }
  void link(int from, int to) {
    states_[size_t(from)].free.push_back(to);
    ++count_;
  }
  void step(int from, uint8_t first, uint8_t last, int to) {
    states_[size_t(from)].steps.push_back({first, last, to});
    ++count_;
  }
  const State& operator[](int state) const { return states_[size_t(state)]; }
  size_t size() const { return states_.size(); }
  /// More than a pattern may have.
  bool tooMany() const { return count_ + states_.size() > kMost; }

 private:
  static constexpr size_t kMost = 20000;

  std::vector<State> states_;
  size_t count_ = 0;
};

/// Adds steps, and states between, that lead from `from` to `to` by each character of a
/// range.
void addRange(Links& links, int from, int to, Range range);

}  // namespace zem::text::pattern
