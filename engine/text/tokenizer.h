// SPDX-License-Identifier: Apache-2.0
/// \file
/// Text to the ids that a model was trained with, and back: the tokenizer that its
/// publisher describes, in every detail.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "kiv/status.h"

namespace kiv {
struct GgufValue;
}

namespace zem::text {

struct Codec;

/// What encode() makes of the texts of added tokens, such as "<|im_start|>".
enum class AddedTokens : uint8_t {
  Recognised,     ///< each is its token
  SpecialAsText,  ///< those that are special are plain text, others their tokens
  AsText,         ///< all are plain text: for what users write
};

/// A part of a text. It holds whole characters.
struct TextPart {
  std::string_view text;                        ///< UTF-8
  AddedTokens added = AddedTokens::Recognised;  ///< in this part
};

/// A token that is matched whole wherever it stands in a text.
struct AddedToken {
  int32_t id = -1;       ///< of the vocabulary
  std::string text;      ///< UTF-8; an empty one is never matched
  bool special = false;  ///< steers the model; left out of what people read
};

/// A byte-level vocabulary with its merges, pattern and added tokens.
///
/// A text becomes ids in four steps: added tokens are found on the raw text (from
/// the left, the longest that stands there); what lies between is normalised (NFC,
/// where the vocabulary says so), cut into pieces by the vocabulary's pattern, and
/// each piece merged byte by byte. Nothing is dropped. Bytes that are not well-formed UTF-8
/// count as U+FFFD, once for each longest part that could begin a character.
///
/// Read-only once loaded: every const member may run on several threads at once.
class Tokenizer {
 public:
  Tokenizer();
  ~Tokenizer();
  Tokenizer(Tokenizer&& other) noexcept;
  Tokenizer& operator=(Tokenizer&& other) noexcept;

  /// Reads the text of a `tokenizer.json`. `further` are added tokens that the file
  /// does not list; one that it lists under the same id and text is passed over.
  /// What a post-processor would add around a text is left to the caller.
  ///
  /// Fails with InvalidFormat, "tokenizer.json: FIELD: what was found, what is
  /// needed", for a text that is not such a file, and for parts that would encode in
  /// another way: a model other than byte-level BPE, a normaliser other than NFC, a
  /// pattern that is not the model family's or GPT-2's. This object then stays as
  /// it was.
  kiv::Status loadJson(std::string_view json, std::span<const AddedToken> further = {});

  /// Likewise from the `tokenizer.*` entries of a GGUF file. `tokenizer.ggml.pre`
  /// names the pattern: "qwen35", "qwen2" (both with NFC) or "gpt-2". Control and
  /// unknown tokens are special, user-defined ones are added.
  kiv::Status loadGguf(std::span<const kiv::GgufValue> values);

  bool valid() const { return codec_ != nullptr; }  ///< loaded

  /// Replaces `ids` by those of the parts' texts in a row. Where they meet,
  /// pieces form as in one text; an added token is found inside a part and across
  /// parts with the same rule, never across different ones. No token is put in
  /// front or behind. Fails on more than 1 GiB of text, and unless loaded.
  kiv::Status encode(std::span<const TextPart> parts, std::vector<int32_t>& ids) const;
  /// The same for one text.
  kiv::Status encode(std::string_view text, AddedTokens added, std::vector<int32_t>& ids) const;

  /// The text of `ids`, well-formed: bytes that make no character become U+FFFD.
  /// Ids without a token are passed over; special tokens too, with `skipSpecial`.
  std::string decode(std::span<const int32_t> ids, bool skipSpecial = false) const;

  /// One more than the largest id. A model may have rows beyond it.
  size_t size() const;
  /// The bytes that a token stands for, maybe part of a character; empty for an id
  /// without a token. They live as long as the vocabulary is loaded.
  std::string_view bytesOf(int32_t id) const;
  bool hasToken(int32_t id) const;   ///< of those below size() some may have none
  bool isAdded(int32_t id) const;    ///< special or not
  bool isSpecial(int32_t id) const;  ///< an added token that people do not read
  /// The id of the added token of that text.
  std::optional<int32_t> addedToken(std::string_view text) const;

 private:
  std::unique_ptr<const Codec> codec_;
};

/// Decodes ids one by one, as a model writes them. The texts in a row, with the one
/// of finish(), are what Tokenizer::decode() gives for all ids.
class TextDecoder {
 public:
  /// `tokenizer` has to be loaded and outlive the decoder.
  explicit TextDecoder(const Tokenizer& tokenizer, bool skipSpecial = false)
      : tokenizer_(tokenizer), skipSpecial_(skipSpecial) {}

  /// The text that becomes certain with `id`: whole characters alone. At most three
  /// bytes are held back.
  std::string push(int32_t id);
  /// What was held back, as U+FFFD, or nothing; the decoder then starts anew.
  std::string finish();

 private:
  const Tokenizer& tokenizer_;
  bool skipSpecial_;
  std::string held_;
};

}  // namespace zem::text
