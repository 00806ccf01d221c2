// SPDX-License-Identifier: Apache-2.0
// Vocabularies of any size for tests and benchmarks of the tokenizer.
#pragma once

#include <cstddef>
#include <string>

#include "kiv/tokenizer.h"

namespace zemtest {

using namespace kiv;

enum class SpaceMarker { ByteLevel, LowerBlock };  // U+0120, U+2581

// A vocabulary whose rules are learnt from `text`: again and again the most
// frequent pair of neighbours becomes a token. What the text does not yield of
// `tokens` tokens is filled up with rules that join tokens at random, so that the
// tables have the size of a large vocabulary's. The last three tokens are
// "<|endoftext|>", "<|im_start|>" and "<|im_end|>", which are special.
TokenizerData trainVocabulary(const std::string& text, size_t tokens, SpaceMarker marker);

}  // namespace zemtest
