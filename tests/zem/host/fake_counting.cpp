// SPDX-License-Identifier: Apache-2.0
#include "fake_counting.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "kiv/tokenizer.h"
#include "kiv/zem2_reader.h"

namespace zemtest {

uint64_t countTokens(const std::string& model, const std::string& text) {
  kiv::ZEM2Reader reader;
  kiv::TokenizerData data;
  kiv::Tokenizer tokenizer;
  std::vector<int32_t> ids;
  const bool counted = reader.open(model.c_str()).ok() && reader.readTokenizer(data) &&
                       tokenizer.load(std::move(data)).ok() &&
                       tokenizer.encode(text, ids, true).ok();
  return counted ? ids.size() : 0;
}

std::string framedTurn(const std::string& user) {
  return "<|im_start|>user\n" + user + "<|im_end|>\n<|im_start|>assistant\n";
}

double claimedMs(uint64_t from, uint64_t tokens) {
  constexpr uint64_t kSlower = 100;
  const uint64_t to = from + tokens;
  const uint64_t slow = std::max(to, kSlower) - std::max(from, kSlower);
  return 0.5 * static_cast<double>(tokens - slow) + 1.0 * static_cast<double>(slow);
}

}  // namespace zemtest
