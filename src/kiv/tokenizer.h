// SPDX-License-Identifier: Apache-2.0
/// \file
/// Text to vocabulary ids and back: special tokens, pre-tokenisation, byte-pair
/// merges.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kiv/status.h"

namespace kiv {

/// The type code of the unknown token, which is special.
inline constexpr int32_t kTokenTypeUnknown = 2;
/// The type code of other special tokens. Every code but these two is ordinary.
inline constexpr int32_t kTokenTypeControl = 3;

/// A vocabulary as the container carries it. Ids are indexes into `tokens`; a
/// negative special id means that the vocabulary has none.
struct TokenizerData {
  std::vector<std::string> tokens;  ///< bytes, spaces escaped as U+2581 or U+0120
  std::vector<float> scores;        ///< one a token, or empty
  std::vector<int32_t> tokenTypes;  ///< one a token, or empty
  std::vector<std::string> merges;  ///< "left right", best rule first
  int32_t bosId = -1;               ///< beginning of sequence
  int32_t eosId = -1;               ///< end of sequence
  int32_t unkId = -1;               ///< text without a token
  int32_t padId = -1;               ///< padding, not used here
  bool addBos = false;              ///< the file's advice; encode() obeys its argument alone
  std::string chatTemplate;         ///< carried, not used here
};

/// Read-only after load(): every const member may run on several threads at once.
class Tokenizer {
 public:
  /// Takes the tables over and builds the indexes. May be called again; a load
  /// that fails ("tokenizer: empty token list") leaves everything as it was. A
  /// score table of the wrong length is dropped.
  Status load(TokenizerData data);

  bool valid() const { return !data_.tokens.empty(); }  ///< loaded
  const TokenizerData& data() const { return data_; }   ///< as loaded
  int32_t bos() const { return data_.bosId; }           ///< negative: none
  int32_t eos() const { return data_.eosId; }           ///< negative: none
  int32_t unk() const { return data_.unkId; }           ///< negative: none

  /// The id of the token whose text is exactly `text` (the lowest, when several
  /// share it), or -1.
  int32_t tokenToId(const std::string& text) const;
  /// The stored text, markers and byte spellings included. Fails on an id outside
  /// the vocabulary, "tokenizer: token id out of range"; `out` then stays.
  Status tokenToString(int32_t id, std::string& out) const;

  /// Replaces `ids` by the ids of `text`, after bosId when `addBos` is true and
  /// the vocabulary has one. Special tokens are recognised anywhere in the text but
  /// across line feeds; an empty one is never matched. Text without a token becomes
  /// unkId, or nothing. Time grows as n log n with the longest piece. Fails on an
  /// empty vocabulary, "tokenizer: not loaded", and on a stretch of 4 GiB without a
  /// break, "tokenizer: piece too long"; `ids` then holds what came before.
  Status encode(const std::string& text, std::vector<int32_t>& ids, bool addBos) const;
  /// Replaces `out` by the text of `ids`; ids outside the vocabulary are skipped.
  /// U+2581 becomes a space except in special tokens, which are kept as they are;
  /// then "<0xHH>" becomes the byte HH wherever it stands, also across tokens. The
  /// result may end inside a UTF-8 character. Fails only on an empty vocabulary,
  /// "tokenizer: not loaded".
  Status decode(const std::vector<int32_t>& ids, std::string& out) const;

  void escapeWhitespace(std::string& s) const;    ///< spaces to the vocabulary's marker
  void unescapeWhitespace(std::string& s) const;  ///< U+2581 to spaces, in either style

 private:
  struct Indexes;
  class Encoding;  // one encode() at work

  bool gpt2Style_ = false;  // a space is U+0120 in the vocabulary, not U+2581
  TokenizerData data_;
  // Never written after load(), so copies share them. They hold ids and no views.
  std::shared_ptr<const Indexes> indexes_;
};

/// Every space becomes U+2581 (bytes E2 96 81).
void escapeWhitespace(std::string& s);
/// Every U+2581 becomes a space.
void unescapeWhitespace(std::string& s);

}  // namespace kiv
