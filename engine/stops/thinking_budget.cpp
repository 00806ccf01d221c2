// SPDX-License-Identifier: Apache-2.0
#include "engine/stops/thinking_budget.h"

namespace zem {

ThinkingBudget::ThinkingBudget(const ThinkingOptions& options)
    : beginToken_(options.beginToken),
      endToken_(options.endToken),
      ending_(options.closing),
      budget_(options.budget),
      inside_(options.inside) {
  ending_.push_back(options.endToken);
}

std::optional<uint32_t> ThinkingBudget::forced() const {
  if (!inside_ || used_ < budget_) return std::nullopt;
  return ending_[written_];
}

void ThinkingBudget::push(uint32_t id) {
  const bool isForced = id == forced();
  if (id == endToken_) {
    inside_ = false;
    written_ = 0;
  } else if (isForced) {
    ++written_;
  } else if (id == beginToken_) {
    inside_ = true;
  } else if (inside_) {
    ++used_;
  }
}

}  // namespace zem
