// SPDX-License-Identifier: Apache-2.0
// Cuts a text into the pieces inside which merges may happen, as the regular
// expression does that a vocabulary was made with.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace zem::text {

// The expressions that are known. All of them take every character of a text.
enum class SplitPattern : uint8_t {
  Family,              // the model family's: marks belong to words
  FamilyWithoutMarks,  // of its older vocabularies: marks count as punctuation
  Gpt2,                // GPT-2's: digits in runs, one case of contractions
};

// The pattern whose expression is `regex`.
std::optional<SplitPattern> patternOfRegex(std::string_view regex);
// The pattern that a GGUF file names in `tokenizer.ggml.pre`.
std::optional<SplitPattern> patternOfGgufName(std::string_view name);

// The length of the first piece of `text`, at least one character. Cutting a whole
// text piece by piece takes time in proportion to its length.
// REQUIRES: `text` is not empty and well-formed UTF-8; it ends where the text ends
// that the expression would be given.
size_t pieceLength(SplitPattern pattern, std::string_view text);

}  // namespace zem::text
