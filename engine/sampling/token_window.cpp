// SPDX-License-Identifier: Apache-2.0
#include "engine/sampling/token_window.h"

#include "engine/sampling_options.h"

namespace zem {

void TokenWindow::push(uint32_t id) {
  if (length_ == 0) return;
  ++counts_[id];
  if (length_ == kWholeReply) return;
  tokens_.push_back(id);
  if (tokens_.size() <= length_) return;
  const auto oldest = counts_.find(tokens_.front());
  if (--oldest->second == 0) counts_.erase(oldest);
  tokens_.pop_front();
}

}  // namespace zem
