// SPDX-License-Identifier: Apache-2.0
// A byte-level vocabulary as its source spells it: what tokenizer.json and GGUF files
// have in common.
#pragma once

#include <cstdint>
#include <deque>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "engine/text/tokenizer/split_pattern.h"
#include "kiv/container/gguf.h"

namespace zem::text {

// Views into the source, or into `owned`.
struct Vocabulary {
  // Matched whole wherever it stands in a text.
  struct Added {
    int32_t id;
    std::string_view text;
    bool special;     // left out of what people read
    bool normalized;  // matched in the normalised text
  };
  struct Merge {
    std::string_view left;
    std::string_view right;
  };

  // By id, one printable character a byte. A view without data is an id that has no
  // such token; it may be an added one.
  std::vector<std::string_view> tokens;
  std::vector<Merge> merges;  // best first
  std::vector<Added> added;
  SplitPattern pattern = SplitPattern::Family;
  bool nfc = true;
  std::deque<std::string> owned;  // texts that the source has in another spelling
};

// Ids are below it: a file of a few bytes must not ask for gigabytes.
inline constexpr uint64_t kMaxTokens = uint64_t{1} << 20U;
inline constexpr uint64_t kMaxMerges = uint64_t{1} << 22U;

// From the text of a tokenizer.json, which has to outlive the result. Throws ReadError,
// "FIELD: what was found, what is needed".
Vocabulary readJsonVocabulary(std::string_view text);

// From the metadata of a GGUF file, which has to outlive the result. Throws ReadError likewise.
Vocabulary readGgufVocabulary(std::span<const kiv::GgufValue> values);

// A text for a message: cut, in quotes.
std::string inQuotes(std::string_view text);

}  // namespace zem::text
