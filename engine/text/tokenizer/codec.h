// SPDX-License-Identifier: Apache-2.0
// A vocabulary made ready, and what encodes with it.
#pragma once

#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "engine/text/tokenizer.h"
#include "engine/text/tokenizer/added_tokens.h"
#include "engine/text/tokenizer/byte_merges.h"
#include "engine/text/tokenizer/split_pattern.h"
#include "engine/text/tokenizer/token_table.h"
#include "engine/text/tokenizer/vocabulary.h"
#include "kiv/text/piece_memo.h"

namespace zem::text {

// Everything of a vocabulary that encoding and decoding need.
struct Codec {
  // Copies what it needs. Throws ReadError for rules without their tokens and for
  // bytes without one.
  explicit Codec(const Vocabulary& vocabulary);

  TokenTable tokens;
  ByteMerges merges;
  AddedTokenSet rawAdded;         // matched in the text as it is
  AddedTokenSet normalizedAdded;  // matched in the normalised text
  SplitPattern pattern;
  bool nfc;
};

// A part of a text in which added tokens are treated alike.
struct Stretch {
  size_t length;
  AddedTokens added;
};

// Encodes one text. Every part of it has to stay where it is until the end.
class Encoding {
 public:
  // `bytes` of text are expected; ids go to `ids`.
  Encoding(const Codec& codec, size_t bytes, std::vector<int32_t>& ids)
      : codec_(codec), memo_(bytes), ids_(ids) {}

  // Appends the ids of `text`. REQUIRES: it is well-formed UTF-8; `stretches` cover it.
  void encode(std::string_view text, const std::vector<Stretch>& stretches);

 private:
  struct Match {
    size_t position;
    size_t length;
    int32_t id;
  };

  std::vector<Match> findAdded(const AddedTokenSet& set, std::string_view text,
                               const std::vector<Stretch>& stretches) const;
  void encodeBetween(std::string_view text, std::vector<Stretch> stretches);
  void encodePlain(std::string_view text);
  void encodePiece(std::string_view piece);

  const Codec& codec_;
  kiv::PieceMemo memo_;
  ByteMerges::Scratch scratch_;
  std::deque<std::string> normalized_;
  std::vector<int32_t>& ids_;
};

}  // namespace zem::text
