// SPDX-License-Identifier: Apache-2.0
// The vocabulary of the demo models: every character that a prompt is likely
// to hold, and common English words so that the output looks like text.
#pragma once

#include <cstddef>
#include <vector>

#include "kiv/tokenizer.h"

namespace zemtool {

struct DemoVocabulary {
  kiv::TokenizerData data;
  // One a token: the size of its logits, from words down to control tokens, so
  // that a model without knowledge still prefers words.
  std::vector<float> loudness;
};

// A vocabulary of at least `minTokens` tokens, the last of them fillers that
// nothing encodes to. The ids of all others are the same for every `minTokens`.
//
// Encoding and decoding give back every text of tab, line feed, carriage
// return, U+0020 to U+007E, U+00A0 to U+FFFD without surrogates, private use and
// U+FDD0 to U+FDEF, the emoji of U+1F000 to U+1FAFF and the flag tags U+E0020 to
// U+E007F; other characters are lost. What the format itself cannot give back
// is U+2581, which becomes a space, and the text "<0x41>", which becomes "A".
DemoVocabulary makeDemoVocabulary(size_t minTokens);

}  // namespace zemtool
