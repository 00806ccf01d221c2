// SPDX-License-Identifier: Apache-2.0
/// \file
/// Log-probabilities of tokens.
#pragma once

#include <cstdint>
#include <vector>

namespace zem {

/// One id of the vocabulary.
struct TokenLogProbability {
  uint32_t id = 0;              ///< of the vocabulary
  double logProbability = 0.0;  ///< natural logarithm; negative infinity for a probability of 0
};

/// Those of one token, before penalties, bias and temperature.
struct LogProbabilities {
  double chosen = 0.0;                         ///< of the token that was written
  std::vector<TokenLogProbability> likeliest;  ///< likeliest first, equal ones by id
};

}  // namespace zem
