// SPDX-License-Identifier: Apache-2.0
// A limit for the tokens of thinking before the answer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "engine/stop_options.h"

namespace zem {

// Counts tokens between <think> and </think>. When the budget is used up, the next tokens are
// forced: the closing text and </think>. Then the answer goes on. Neither they nor the two
// markers count as thinking. If the model begins to think again, it has the rest of
// the budget.
class ThinkingBudget {
 public:
  explicit ThinkingBudget(const ThinkingOptions& options);

  // The id that has to come next in place of one that is drawn; nothing: draw one.
  std::optional<uint32_t> forced() const;

  // Each token of the reply, drawn or forced.
  void push(uint32_t id);

  bool inside() const { return inside_; }  // of the thinking
  uint64_t used() const { return used_; }  // tokens of thinking so far

 private:
  uint32_t beginToken_;
  uint32_t endToken_;
  std::vector<uint32_t> ending_;  // closing text and </think>
  uint64_t budget_;
  bool inside_;
  uint64_t used_ = 0;
  size_t written_ = 0;  // of the ending
};

}  // namespace zem
