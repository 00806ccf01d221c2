// SPDX-License-Identifier: Apache-2.0
// Texts of an exact number of tokens. The runtime takes text, and a benchmark measures
// tokens.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "kiv/tokenizer.h"

namespace zemtool {

// Makes texts of frequent words of a vocabulary. Equal calls give equal texts.
class ExactPrompt {
 public:
  // Throws Failure when no token of the vocabulary stays itself when repeated.
  explicit ExactPrompt(kiv::Tokenizer tokenizer);

  // A prompt that becomes `tokens` tokens, with the beginning-of-sequence token that a
  // runtime puts in front. Throws Failure when there is no such prompt.
  std::string prompt(size_t tokens) const;

  // A user's text that becomes `tokens` tokens with the frame that the runtime puts around a
  // turn. Throws Failure below frameTokens().
  std::string turn(size_t tokens) const;
  size_t frameTokens() const;

 private:
  std::string fit(size_t tokens, const std::string& before, const std::string& after) const;

  kiv::Tokenizer tokenizer_;
  std::vector<std::string> words_;
};

}  // namespace zemtool
