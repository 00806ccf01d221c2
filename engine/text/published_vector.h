// SPDX-License-Identifier: Apache-2.0
/// \file
/// A text and its ids in the model family's own vocabulary, as its publisher's library
/// tests them: for a check of a converted model on the machine of its user.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace zem::text {

/// What a tokenizer of the family has to make of a text.
struct PublishedVector {
  std::string_view text;         ///< without added tokens
  std::span<const int32_t> ids;  ///< of the whole text
};

/// The vector. It holds for the vocabulary of 248,044 pieces alone. Any thread.
PublishedVector publishedVector();

}  // namespace zem::text
