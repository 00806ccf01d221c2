// SPDX-License-Identifier: Apache-2.0
// Vocabularies of a few tokens.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "kiv/tokenizer.h"

namespace zemtest {

inline kiv::TokenizerData vocabulary(std::vector<std::string> tokens,
                                     std::vector<std::string> merges = {}) {
  kiv::TokenizerData data;
  data.tokens = std::move(tokens);
  data.merges = std::move(merges);
  return data;
}

}  // namespace zemtest
